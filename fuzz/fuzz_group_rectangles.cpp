// groupRectangles, all four forms: random, degenerate (zero and negative
// sides, identical copies) and huge rectangles (coordinates and sums at the
// 32-bit limits), any threshold and tolerance (negative, zero, NaN, infinite),
// and level and level-weight lists longer or shorter than the rectangles.
// Beyond not failing, each form keeps its contract on sizes: one weight and
// one level weight per output rectangle.
#include <cstdlib>
#include <vector>

#include "fuzz_common.h"
#include "kv_cv/kv_group_rectangles.h"

namespace {

kv::Rect anyRect(FuzzedDataProvider& in, const std::vector<kv::Rect>& so_far) {
    switch (in.ConsumeIntegralInRange<int>(0, 7)) {
        case 0: return kv::Rect(in.ConsumeIntegral<int32_t>(), in.ConsumeIntegral<int32_t>(),
                                in.ConsumeIntegral<int32_t>(), in.ConsumeIntegral<int32_t>());
        case 1: return kv::Rect(INT32_MAX - in.ConsumeIntegralInRange<int>(0, 9), INT32_MIN + in.ConsumeIntegralInRange<int>(0, 9),
                                INT32_MAX - in.ConsumeIntegralInRange<int>(0, 9), in.ConsumeIntegralInRange<int>(-9, 9));
        case 2:
            if (!so_far.empty()) {
                // A near copy of an earlier one: clusters form.
                // (wrapping: the copy may sit at the 32-bit limits)
                kv::Rect r = so_far[in.ConsumeIntegralInRange<size_t>(0, so_far.size() - 1)];
                r.x = int32_t(uint32_t(r.x) + uint32_t(in.ConsumeIntegralInRange<int>(-2, 2)));
                r.width = int32_t(uint32_t(r.width) + uint32_t(in.ConsumeIntegralInRange<int>(-2, 2)));
                return r;
            }
            return kv::Rect();
        default:
            return kv::Rect(in.ConsumeIntegralInRange<int>(-50, 300), in.ConsumeIntegralInRange<int>(-50, 300),
                            in.ConsumeIntegralInRange<int>(-5, 120), in.ConsumeIntegralInRange<int>(-5, 120));
    }
}

double anyTolerance(FuzzedDataProvider& in) {
    switch (in.ConsumeIntegralInRange<int>(0, 3)) {
        case 0: return in.ConsumeFloatingPoint<double>();
        case 1: return in.ConsumeProbability<double>() * 4 - 1;
        default: return 0.2;
    }
}

void requireSizes(bool ok) {
    if (!ok) std::abort();  // a broken output contract is a finding too
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const int form = in.ConsumeIntegralInRange<int>(0, 3);
    const int32_t threshold = in.ConsumeIntegralInRange<int>(0, 7) == 0 ? in.ConsumeIntegral<int32_t>()
                                                                         : in.ConsumeIntegralInRange<int32_t>(-1, 4);
    const double tolerance = anyTolerance(in);
    std::vector<kv::Rect> rects;
    const size_t n = in.ConsumeIntegralInRange<size_t>(0, 200);
    for (size_t i = 0; i < n && in.remaining_bytes() > 0; ++i) rects.push_back(anyRect(in, rects));
    // Lists of levels and scores: as long as the rectangles, or not.
    auto length = [&] {
        return in.ConsumeIntegralInRange<int>(0, 3) ? rects.size() : in.ConsumeIntegralInRange<size_t>(0, 250);
    };
    std::vector<int32_t> levels(length());
    for (int32_t& l : levels) l = in.ConsumeIntegralInRange<int>(0, 3) ? in.ConsumeIntegralInRange<int>(-2, 5)
                                                                       : in.ConsumeIntegral<int32_t>();
    std::vector<double> scores(length());
    for (double& s : scores) s = in.ConsumeIntegralInRange<int>(0, 3) ? in.ConsumeProbability<double>()
                                                                      : in.ConsumeFloatingPoint<double>();
    const bool early = threshold <= 0 || rects.empty();
    const size_t in_count = rects.size();
    kvfuzz::guarded([&] {
        switch (form) {
            case 0: kv::groupRectangles(rects, threshold, tolerance); break;
            case 1: {
                std::vector<int32_t> weights(levels);
                kv::groupRectangles(rects, weights, threshold, tolerance);
                requireSizes(weights.size() == rects.size());
                break;
            }
            case 2: {
                const int pick = in.ConsumeIntegralInRange<int>(0, 3);
                std::vector<int32_t>* w = pick & 1 ? &levels : nullptr;
                std::vector<double>* lw = pick & 2 ? &scores : nullptr;
                const size_t scores_before = scores.size();
                kv::groupRectangles(rects, threshold, tolerance, w, lw);
                if (w) requireSizes(levels.size() == rects.size());
                if (lw) requireSizes(early ? scores.size() == scores_before : scores.size() == rects.size());
                break;
            }
            default: {
                const size_t scores_before = scores.size();
                kv::groupRectangles(rects, levels, scores, threshold, tolerance);
                requireSizes(levels.size() == rects.size());
                requireSizes(early ? scores.size() == scores_before : scores.size() == rects.size());
                break;
            }
        }
        if (early) requireSizes(rects.size() == in_count);
        else requireSizes(rects.size() <= in_count);
    });
    return 0;
}
