// Row bands and value runs of the frame helpers (see the header).
#include "kv_cv/kv_impl_helper_bands.h"

#include <algorithm>

#include "kv_cv/kv_impl_fast_adapter.h"
#include "kv_cv/kv_impl_parallel.h"

namespace kv {
namespace impl {

namespace {

// Runs fn(first, n) over runs of a long array, in bands when threads are set.
template <typename Fn>
void inRuns(size_t count, Fn fn) {
    constexpr size_t kRun = 4096;
    const int runs = int(std::min<size_t>(count / kRun, size_t(1) << 30));
    const int bands = runs > 1 ? bandCount(runs, int64_t(kRun), 1, 1) : 1;
    if (bands <= 1) {
        fn(size_t(0), count);
        return;
    }
    parallelBands(bands, [&](int b) {
        const std::pair<int, int> r = bandRows(runs, bands, b);
        const size_t first = size_t(r.first) * kRun;
        const size_t last = b + 1 == bands ? count : size_t(r.second) * kRun;
        fn(first, last - first);
    });
}

}  // namespace

void rotatePlanes(const Frame& src, int code, Frame& dst) {
    for (uint32_t p = 0; p < src.layout().planes; ++p) {
        const FramePlane& sp = src.layout().plane[p];
        const FramePlane& dp = dst.layout().plane[p];
        // Destination rows in bands of whole 32-row tiles: rows [a, b) come
        // from source rows (a half turn) or source columns (a quarter turn).
        const int rows = dp.size.height;
        const int bands = bandCount(rows, int64_t(dp.size.width), 32, 32);
        parallelBands(bands, [&](int b) {
            const std::pair<int, int> r = bandRows(rows, bands, b, 32);
            const int first = bands > 1 ? r.first : 0, last = bands > 1 ? r.second : rows;
            const uint8_t* s = src.planeCpuData(p);
            int sw = sp.size.width, sh = sp.size.height;
            if (code == 2) {
                s += size_t(sh - last) * sp.step;
                sh = last - first;
            } else {
                const int column = code == 3 ? first : sw - last;
                s += size_t(column) * size_t(sp.channels);
                sw = last - first;
            }
            fast::rotatePlane(s, sp.step, sw, sh, int(sp.channels), code, dst.rowCpuData(p, first), dp.step);
        });
    }
}

void halfToFloatInBands(const uint16_t* src, size_t count, float* dst) {
    inRuns(count, [&](size_t first, size_t n) { fast::halfToFloat(src + first, n, dst + first); });
}

void floatToHalfInBands(const float* src, size_t count, uint16_t* dst) {
    inRuns(count, [&](size_t first, size_t n) { fast::floatToHalf(src + first, n, dst + first); });
}

}  // namespace impl
}  // namespace kv
