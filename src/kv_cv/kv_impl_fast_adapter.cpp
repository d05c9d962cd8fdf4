// The fast backend's facilities on libyuv, OpenCV and our own row kernels.
// Which serves what was chosen by measurement at 1920x1080 on one thread:
// libyuv for plane copies, splits, merges and swaps of 2-byte pairs and
// 1-byte rotation; OpenCV for float bilinear resizing, float area
// enlargement and area reduction of multi-channel floats past 2 times in
// width (and bilinear byte planes with a side past the 16.16 tables), for
// warps of float planes and for 2- and 4-byte rotation; the scalers' gathers
// for nearest resizing; our reproductions of OpenCV's area arithmetic
// (kv_impl_fast_area, kv_impl_fast_area_up) for the other area resizing that
// OpenCV served; our warp (kv_impl_fast_warp, OpenCV's arithmetic) for byte
// planes; the bilinear scalers' row kernels (kv_impl_scale_rows) for bilinear
// resizing of byte planes; our kernels (kv_impl_fast_kernels) for gray,
// byte/float, half/float, 3-byte rotation, the byte moves of 3-byte pixels
// (the converter's kernels, twice libyuv's speed), integer-factor area
// reduction and BGR to YUV (libyuv's arithmetic, which averages 2x2 chroma
// blocks: its BGR to YUV calls stay here as the ...WithLibrary functions that
// tests hold the kernels against), where they beat both libraries, and for
// YUV to BGR / RGB, where
// they outrun libyuv and give the generic backend's exact bytes
// (libyuv's 6-bit coefficients differ from them by up to 4).
#include "kv_cv/kv_impl_fast_adapter.h"

#include <libyuv.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <mutex>
#include <thread>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "kv_core/kv_core_functions.h"
#include "kv_core/kv_exception.h"
#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_impl_fast_kernels.h"
#include "kv_cv/kv_impl_fast_warp.h"
#include "kv_cv/kv_impl_unaligned.h"
#include "kv_cv/kv_threads.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_impl_fast_adapter"

namespace kv {
namespace impl {
namespace fast {

namespace {

// See the header: OpenCV's thread count is process-wide. It follows the
// library's setting (one thread unless the caller asked for more), so that
// the calls left to OpenCV spread over the same number of threads.
void pinOpenCvToCaller() {
    static std::mutex mutex;
    static std::atomic<int> current{0};
    // (No more than the hardware threads: oneTBB refuses more workers. The
    // count is read once: glibc asks the kernel for it on every query.)
    static const int hardware = int(std::thread::hardware_concurrency());
    const int want = std::max(1, std::min(getNumThreads(), hardware));
    if (current.load(std::memory_order_acquire) == want) return;
    std::lock_guard<std::mutex> lock(mutex);
    if (current.load(std::memory_order_relaxed) == want) return;
    cv::setNumThreads(want);
    current.store(want, std::memory_order_release);
}

// libyuv takes row pitches as int.
int pitch(size_t step) {
    if (step > size_t(INT_MAX))
        KV_THROW(KV_STATUS_OUT_OF_RANGE, "kv::impl::fast::pitch",
                 "Row pitch of %zu bytes is past the %d bytes that libyuv's plane functions take.", step, INT_MAX);
    return int(step);
}

// Runs one OpenCV call: no exception but kv::Exception (and std::bad_alloc)
// leaves the library, so OpenCV's own are translated here.
template <typename Call>
void callOpenCv(const char* what, Call call) {
    pinOpenCvToCaller();
    try {
        call();
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const cv::Exception& e) {
        KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::impl::fast::callOpenCv", "%s: OpenCV refused the call: %s", what,
                 e.err.c_str());
    } catch (const std::exception& e) {
        KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::impl::fast::callOpenCv", "%s: OpenCV failed: %s", what, e.what());
    }
}

// A cv::Mat over a caller plane. cv::Mat takes only pitches that are whole
// samples; a plane with any other pitch (a float frame wrapped at an odd
// pitch) goes through a packed copy, read in for a source and written back
// by writeBack() for a destination.
class PlaneMat {
public:
    PlaneMat(const void* data, size_t step, int width, int height, int type, bool input)
        : _data(static_cast<uint8_t*>(const_cast<void*>(data))), _step(step), _row(size_t(width) * CV_ELEM_SIZE(type)) {
        if (step % CV_ELEM_SIZE1(type) == 0) {
            _mat = cv::Mat(height, width, type, _data, step);
            return;
        }
        _copied = true;
        _mat.create(height, width, type);
        if (input)
            for (int y = 0; y < height; ++y) std::memcpy(_mat.ptr(y), _data + size_t(y) * step, _row);
    }
    cv::Mat& mat() { return _mat; }
    void writeBack() {
        if (_copied)
            for (int y = 0; y < _mat.rows; ++y) std::memcpy(_data + size_t(y) * _step, _mat.ptr(y), _row);
    }

private:
    uint8_t* _data;
    size_t _step, _row;
    bool _copied = false;
    cv::Mat _mat;
};

// Runs of at most 2^30 floats, the int range of the core arithmetic's regions.
template <typename Run>
void inRuns(size_t count, Run run) {
    constexpr size_t kRun = size_t(1) << 30;
    for (size_t at = 0; at < count; at += kRun) run(at, int(std::min(kRun, count - at)));
}

const FastKernels& kernels() { return fastKernels(activeIsa()); }

template <typename Row>
void forRows(int height, Row row) {
    for (int y = 0; y < height; ++y) row(y);
}

}  // namespace

void bgrToI420WithLibrary(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* u, size_t u_step,
                          uint8_t* v, size_t v_step, int width, int height) {
    // libyuv's "RGB24" is B, G, R in memory.
    libyuv::RGB24ToI420(bgr, pitch(bgr_step), y, pitch(y_step), u, pitch(u_step), v, pitch(v_step), width, height);
}

namespace {

// BGR to 4:4:4 or 4:2:2 through 4-byte pixels in a stack strip: up to kStrip
// pixels per call, as many whole rows as fit (or an even piece of one row).
template <typename ArgbToYuv>
void bgrThroughArgb(ArgbToYuv convert, int chroma_shift, const uint8_t* bgr, size_t bgr_step, uint8_t* y,
                    size_t y_step, uint8_t* u, size_t u_step, uint8_t* v, size_t v_step, int width, int height) {
    constexpr int kStrip = 4096;
    alignas(64) uint8_t argb[kStrip * 4];
    if (width <= kStrip) {
        const int rows = kStrip / width;
        for (int r = 0; r < height; r += rows) {
            const int n = std::min(rows, height - r);
            libyuv::RGB24ToARGB(bgr + size_t(r) * bgr_step, pitch(bgr_step), argb, width * 4, width, n);
            convert(argb, width * 4, y + size_t(r) * y_step, pitch(y_step), u + size_t(r) * u_step, pitch(u_step),
                    v + size_t(r) * v_step, pitch(v_step), width, n);
        }
        return;
    }
    for (int r = 0; r < height; ++r)
        for (int x = 0; x < width; x += kStrip) {
            const int n = std::min(kStrip, width - x);
            const size_t cx = size_t(x) >> chroma_shift;
            libyuv::RGB24ToARGB(bgr + size_t(r) * bgr_step + size_t(x) * 3, 0, argb, 0, n, 1);
            convert(argb, 0, y + size_t(r) * y_step + x, 0, u + size_t(r) * u_step + cx, 0,
                    v + size_t(r) * v_step + cx, 0, n, 1);
        }
}

// One kernel call per row (one_row) or row pair, chroma row r / 2 or r.
void bgrRowsToYuv(BgrToYuvRowsFn kernel, bool pairs_of_rows, const uint8_t* bgr, size_t bgr_step, uint8_t* y,
                  size_t y_step, uint8_t* u, size_t u_step, uint8_t* v, size_t v_step, int width, int height) {
    const int step = pairs_of_rows ? 2 : 1;
    for (int r = 0; r < height; r += step) {
        const uint8_t* s0 = bgr + size_t(r) * bgr_step;
        uint8_t* y0 = y + size_t(r) * y_step;
        const size_t c = size_t(r / step);
        kernel(s0, pairs_of_rows ? s0 + bgr_step : nullptr, y0, pairs_of_rows ? y0 + y_step : nullptr, u + c * u_step,
               v + c * v_step, width);
    }
}

}  // namespace

void bgrToYuv444WithLibrary(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* u,
                            size_t u_step, uint8_t* v, size_t v_step, int width, int height) {
    bgrThroughArgb(libyuv::ARGBToI444, 0, bgr, bgr_step, y, y_step, u, u_step, v, v_step, width, height);
}

void bgrToI422WithLibrary(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* u, size_t u_step,
                          uint8_t* v, size_t v_step, int width, int height) {
    bgrThroughArgb(libyuv::ARGBToI422, 1, bgr, bgr_step, y, y_step, u, u_step, v, v_step, width, height);
}

void bgrToI420(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* u, size_t u_step, uint8_t* v,
               size_t v_step, int width, int height) {
    bgrRowsToYuv(kernels().bgrToI420Rows, true, bgr, bgr_step, y, y_step, u, u_step, v, v_step, width, height);
}

void bgrToNv12(bool vu, const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* uv, size_t uv_step,
               int width, int height) {
    bgrRowsToYuv(kernels().bgrToNv12Rows, true, bgr, bgr_step, y, y_step, vu ? uv + 1 : uv, uv_step,
                 vu ? uv : uv + 1, uv_step, width, height);
}

void bgrToNv16(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* uv, size_t uv_step, int width,
               int height) {
    bgrRowsToYuv(kernels().bgrToNv16Row, false, bgr, bgr_step, y, y_step, uv, uv_step, uv + 1, uv_step, width,
                 height);
}

void bgrToYuv444(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* u, size_t u_step,
                 uint8_t* v, size_t v_step, int width, int height) {
    bgrRowsToYuv(kernels().bgrToI444Row, false, bgr, bgr_step, y, y_step, u, u_step, v, v_step, width, height);
}

void bgrToI422(const uint8_t* bgr, size_t bgr_step, uint8_t* y, size_t y_step, uint8_t* u, size_t u_step, uint8_t* v,
               size_t v_step, int width, int height) {
    bgrRowsToYuv(kernels().bgrToI422Row, false, bgr, bgr_step, y, y_step, u, u_step, v, v_step, width, height);
}

namespace {

// Rows of up to kPackedStrip pixels through planar strips on the stack.
constexpr int kPackedStrip = 1024;
struct alignas(64) PlanarStrip {
    uint8_t p[3][kPackedStrip];
};

template <typename Strip>
void forPackedStrips(int width, int height, Strip strip) {
    for (int r = 0; r < height; ++r)
        for (int x = 0; x < width; x += kPackedStrip) strip(r, x, std::min(kPackedStrip, width - x));
}

}  // namespace

void bgrToYuv444Packed(const uint8_t* bgr, size_t bgr_step, uint8_t* dst, size_t dst_step, int width, int height) {
    const FastKernels& k = kernels();
    PlanarStrip t;
    forPackedStrips(width, height, [&](int r, int x, int n) {
        k.bgrToI444Row(bgr + size_t(r) * bgr_step + size_t(x) * 3, nullptr, t.p[0], nullptr, t.p[1], t.p[2], n);
        k.merge3(t.p[0], t.p[1], t.p[2], dst + size_t(r) * dst_step + size_t(x) * 3, n);
    });
}

void yuv444PackedToGray(const uint8_t* src, size_t src_step, uint8_t* gray, size_t gray_step, int width, int height) {
    const Split3Fn split = kernels().split3;
    PlanarStrip t;
    forPackedStrips(width, height, [&](int r, int x, int n) {
        split(src + size_t(r) * src_step + size_t(x) * 3, gray + size_t(r) * gray_step + x, t.p[1], t.p[2], n);
    });
}

void yuv444PackedToRgb(RgbOrder order, const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int width,
                       int height) {
    const FastKernels& k = kernels();
    const YuvToRgbRowFn row = order == RgbOrder::kBgr ? k.yuvFullToBgrRow : k.yuvFullToRgbRow;
    PlanarStrip t;
    forPackedStrips(width, height, [&](int r, int x, int n) {
        k.split3(src + size_t(r) * src_step + size_t(x) * 3, t.p[0], t.p[1], t.p[2], n);
        row(t.p[0], t.p[1], t.p[2], dst + size_t(r) * dst_step + size_t(x) * 3, n);
    });
}

// YUV to BGR / RGB through the format converter's row kernels: the same
// integer formulas as the generic backend, so both backends agree exactly.
// `chroma_rows_shift` is 1 for 4:2:0 (one chroma row per two luma rows).
namespace {

template <typename Fn>
void yuvRows(Fn row, int chroma_rows_shift, const uint8_t* y, size_t y_step, const uint8_t* u, const uint8_t* v,
             size_t c_step, uint8_t* dst, size_t dst_step, int width, int height) {
    for (int r = 0; r < height; ++r) {
        const size_t c = size_t(r >> chroma_rows_shift) * c_step;
        row(y + size_t(r) * y_step, u + c, v + c, dst + size_t(r) * dst_step, width);
    }
}

// Separate chroma planes may have different pitches.
template <typename Fn>
void yuvPlanarRows(Fn row, int chroma_rows_shift, const uint8_t* y, size_t y_step, const uint8_t* u, size_t u_step,
                   const uint8_t* v, size_t v_step, uint8_t* dst, size_t dst_step, int width, int height) {
    if (u_step == v_step) {
        yuvRows(row, chroma_rows_shift, y, y_step, u, v, u_step, dst, dst_step, width, height);
        return;
    }
    for (int r = 0; r < height; ++r) {
        const size_t c = size_t(r >> chroma_rows_shift);
        row(y + size_t(r) * y_step, u + c * u_step, v + c * v_step, dst + size_t(r) * dst_step, width);
    }
}

}  // namespace

void i420ToRgb(RgbOrder order, const uint8_t* y, size_t y_step, const uint8_t* u, size_t u_step, const uint8_t* v,
               size_t v_step, uint8_t* dst, size_t dst_step, int width, int height) {
    const FastKernels& k = kernels();
    yuvPlanarRows(order == RgbOrder::kBgr ? k.yuvHalfToBgrRow : k.yuvHalfToRgbRow, 1, y, y_step, u, u_step, v,
                  v_step, dst, dst_step, width, height);
}

void nv12ToRgb(RgbOrder order, bool vu, const uint8_t* y, size_t y_step, const uint8_t* uv, size_t uv_step,
               uint8_t* dst, size_t dst_step, int width, int height) {
    const FastKernels& k = kernels();
    yuvRows(order == RgbOrder::kBgr ? k.yuvPairsToBgrRow : k.yuvPairsToRgbRow, 1, y, y_step, vu ? uv + 1 : uv,
            vu ? uv : uv + 1, uv_step, dst, dst_step, width, height);
}

void nv16ToRgb(RgbOrder order, const uint8_t* y, size_t y_step, const uint8_t* uv, size_t uv_step, uint8_t* dst,
               size_t dst_step, int width, int height) {
    const FastKernels& k = kernels();
    yuvRows(order == RgbOrder::kBgr ? k.yuvPairsToBgrRow : k.yuvPairsToRgbRow, 0, y, y_step, uv, uv + 1, uv_step,
            dst, dst_step, width, height);
}

void i422ToRgb(RgbOrder order, const uint8_t* y, size_t y_step, const uint8_t* u, size_t u_step, const uint8_t* v,
               size_t v_step, uint8_t* dst, size_t dst_step, int width, int height) {
    const FastKernels& k = kernels();
    yuvPlanarRows(order == RgbOrder::kBgr ? k.yuvHalfToBgrRow : k.yuvHalfToRgbRow, 0, y, y_step, u, u_step, v,
                  v_step, dst, dst_step, width, height);
}

void i444ToRgb(RgbOrder order, const uint8_t* y, size_t y_step, const uint8_t* u, size_t u_step, const uint8_t* v,
               size_t v_step, uint8_t* dst, size_t dst_step, int width, int height) {
    const FastKernels& k = kernels();
    yuvPlanarRows(order == RgbOrder::kBgr ? k.yuvFullToBgrRow : k.yuvFullToRgbRow, 0, y, y_step, u, u_step, v,
                  v_step, dst, dst_step, width, height);
}

void swapRgb(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int width, int height) {
    const Swap3Fn row = kernels().swap3;
    forRows(height, [&](int y) { row(src + size_t(y) * src_step, dst + size_t(y) * dst_step, width); });
}

void splitPlanes3(const uint8_t* src, size_t src_step, uint8_t* d0, size_t s0, uint8_t* d1, size_t s1, uint8_t* d2,
                  size_t s2, int width, int height) {
    const Split3Fn row = kernels().split3;
    forRows(height, [&](int y) {
        row(src + size_t(y) * src_step, d0 + size_t(y) * s0, d1 + size_t(y) * s1, d2 + size_t(y) * s2, width);
    });
}

void mergePlanes3(const uint8_t* p0, size_t s0, const uint8_t* p1, size_t s1, const uint8_t* p2, size_t s2,
                  uint8_t* dst, size_t dst_step, int width, int height) {
    const Merge3Fn row = kernels().merge3;
    forRows(height, [&](int y) {
        row(p0 + size_t(y) * s0, p1 + size_t(y) * s1, p2 + size_t(y) * s2, dst + size_t(y) * dst_step, width);
    });
}

void bytesToPlanarFloat3(const uint8_t* src, size_t src_step, float* d0, size_t s0, float* d1, size_t s1, float* d2,
                         size_t s2, int width, int height) {
    const Split3Fn row = kernels().bytesToPlanarFloat3;
    const auto at = [](float* plane, size_t step, int y) { return reinterpret_cast<uint8_t*>(plane) + size_t(y) * step; };
    forRows(height, [&](int y) { row(src + size_t(y) * src_step, at(d0, s0, y), at(d1, s1, y), at(d2, s2, y), width); });
}

void splitPairs(const uint8_t* src, size_t src_step, uint8_t* d0, size_t s0, uint8_t* d1, size_t s1, int width,
                int height) {
    libyuv::SplitUVPlane(src, pitch(src_step), d0, pitch(s0), d1, pitch(s1), width, height);
}

void mergePairs(const uint8_t* p0, size_t s0, const uint8_t* p1, size_t s1, uint8_t* dst, size_t dst_step, int width,
                int height) {
    libyuv::MergeUVPlane(p0, pitch(s0), p1, pitch(s1), dst, pitch(dst_step), width, height);
}

void swapPairs(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int width, int height) {
    libyuv::SwapUVPlane(src, pitch(src_step), dst, pitch(dst_step), width, height);
}

void copyPlane(const uint8_t* src, size_t src_step, uint8_t* dst, size_t dst_step, int width, int height) {
    libyuv::CopyPlane(src, pitch(src_step), dst, pitch(dst_step), width, height);
}

void bgrToGray(const uint8_t* bgr, size_t bgr_step, uint8_t* gray, size_t gray_step, int width, int height) {
    const BgrToGrayRowFn row = kernels().bgrToGrayRow;
    forRows(height, [&](int y) { row(bgr + size_t(y) * bgr_step, gray + size_t(y) * gray_step, width); });
}

void grayToBgr(const uint8_t* gray, size_t gray_step, uint8_t* bgr, size_t bgr_step, int width, int height) {
    const GrayToBgrRowFn row = kernels().grayToBgrRow;
    forRows(height, [&](int y) { row(gray + size_t(y) * gray_step, bgr + size_t(y) * bgr_step, width); });
}

void u8ToF32(const uint8_t* src, size_t src_step, float* dst, size_t dst_step, size_t count, int height) {
    const U8ToF32RowFn row = kernels().u8ToF32Row;
    auto* d = reinterpret_cast<uint8_t*>(dst);
    forRows(height, [&](int y) {
        row(src + size_t(y) * src_step, reinterpret_cast<float*>(d + size_t(y) * dst_step), count);
    });
}

void f32ToU8(const float* src, size_t src_step, uint8_t* dst, size_t dst_step, size_t count, int height) {
    const F32ToU8RowFn row = kernels().f32ToU8Row;
    const auto* s = reinterpret_cast<const uint8_t*>(src);
    forRows(height, [&](int y) {
        row(reinterpret_cast<const float*>(s + size_t(y) * src_step), dst + size_t(y) * dst_step, count);
    });
}

// One IEEE operation per element; the compiler vectorises these loops.
// Caller rows may sit at any byte address, hence the sample loads and stores.
// The core library's vectorised in-place arithmetic, one row (or one
// continuous run) at a time, so pitches beyond int range stay safe.
void addF32(float* data, size_t step, size_t count, int height, float value) {
    auto* d = reinterpret_cast<uint8_t*>(data);
    for (int y = 0; y < height; ++y)
        inRuns(count, [&](size_t at, int n) {
            addConstant_32f_C1(value, d + size_t(y) * step + at * 4, 0, Rect(0, 0, n, 1));
        });
}

void mulF32(float* data, size_t step, size_t count, int height, float value) {
    auto* d = reinterpret_cast<uint8_t*>(data);
    for (int y = 0; y < height; ++y)
        inRuns(count, [&](size_t at, int n) {
            mulConstant_32f_C1(value, d + size_t(y) * step + at * 4, 0, Rect(0, 0, n, 1));
        });
}

void halfToFloat(const uint16_t* src, size_t count, float* dst) { kernels().halfToFloatRow(src, dst, count); }

void floatToHalf(const float* src, size_t count, uint16_t* dst) { kernels().floatToHalfRow(src, dst, count); }

namespace {

// Nearest neighbour in 16.16 fixed point: destination pixel i samples source
// index floor((i + 0.5) * src / dst), the source pixel under its centre
// (OpenCV 4.6's INTER_NEAREST_EXACT breaks exact ties towards the lower
// index instead, so it is not used). N is the pixel size in bytes.
template <int N>
void nearestRow(const uint8_t* src, uint8_t* dst, int dst_width, int64_t step, size_t pixel) {
    int64_t pos = step / 2;
    for (int i = 0; i < dst_width; ++i, pos += step)
        std::memcpy(dst + size_t(i) * (N ? N : pixel), src + size_t(pos >> 16) * (N ? N : pixel), N ? N : pixel);
}

void resizeNearest(const uint8_t* src, size_t src_step, int src_width, int src_height, uint8_t* dst, size_t dst_step,
                   int dst_width, int dst_height, size_t pixel) {
    using RowFn = void (*)(const uint8_t*, uint8_t*, int, int64_t, size_t);
    const RowFn row = pixel == 1 ? nearestRow<1>
                      : pixel == 2 ? nearestRow<2>
                      : pixel == 3 ? nearestRow<3>
                      : pixel == 4 ? nearestRow<4>
                      : pixel == 12 ? nearestRow<12>
                                    : nearestRow<0>;
    const int64_t step_x = (int64_t(src_width) << 16) / dst_width;
    const int64_t step_y = (int64_t(src_height) << 16) / dst_height;
    int64_t pos_y = step_y / 2;
    for (int y = 0; y < dst_height; ++y, pos_y += step_y)
        row(src + size_t(pos_y >> 16) * src_step, dst + size_t(y) * dst_step, dst_width, step_x, pixel);
}

// Sides the 16.16 bilinear tables hold (src << 16 stays in 32 bits).
bool bilinearRange(int side) { return side >= 1 && side < 32768; }

// Pixels of P bytes (8, 12 or 16: float pixels) from byte offsets: one move
// per pixel. 12-byte pixels move 16 bytes where the load stays inside the
// source row and the next pixel overwrites the 4 extra bytes.
template <int P>
void copyPixels(const NearestPlaneCache& c, const uint8_t* src, uint8_t* dst) {
    constexpr int kMove = P == 12 ? 16 : P;
    const int32_t* offset = c.offsets.data();
    const int n = c.dst_width, src_bytes = c.src_width * P;
    int i = 0;
    for (; i + 1 < n && offset[i] + kMove <= src_bytes; ++i) std::memcpy(dst + size_t(i) * P, src + offset[i], kMove);
    for (; i < n; ++i) std::memcpy(dst + size_t(i) * P, src + offset[i], P);
}

// resizeNearest with one gather per row (the scalers' byte gather for
// pixels of up to 4 bytes, copyPixels for float pixels of 8 to 16 bytes),
// and each output row that repeats its predecessor's source row copied from
// it. The 16-bit column table holds the same positions as resizeNearest's
// 64-bit ones for sides below 32768; false (nothing written) past that range
// or for other pixel sizes.
bool nearestGathers(int src_width, int dst_width, int pixel) {
    return bilinearRange(src_width) && bilinearRange(dst_width) && (pixel <= 4 || pixel == 8 || pixel == 12 || pixel == 16);
}

bool resizeNearestGathered(const uint8_t* src, size_t src_step, int src_width, int src_height, uint8_t* dst,
                           size_t dst_step, int dst_width, int dst_height, int pixel, NearestPlaneCache& c,
                           int first_row, int last_row) {
    if (!nearestGathers(src_width, dst_width, pixel)) return false;
    if (c.src_width != src_width || c.dst_width != dst_width || c.pixel != pixel) {
        const int64_t step = (int64_t(src_width) << 16) / dst_width;
        c.xs.resize(size_t(dst_width));
        c.offsets.resize(size_t(dst_width));
        int64_t pos = step / 2;
        for (int i = 0; i < dst_width; ++i, pos += step) {
            c.xs[size_t(i)] = uint16_t(pos >> 16);
            c.offsets[size_t(i)] = int32_t(pos >> 16) * pixel;
        }
        if (pixel <= 4)
            buildGatherPlan(c.plan, c.xs.data(), dst_width, pixel, dst_width * pixel, src_width, src_width * pixel);
        c.src_width = src_width;
        c.dst_width = dst_width;
        c.pixel = pixel;
    }
    const GatherRow gather = scaleRowKernels().gatherRow;
    const auto row = [&](const uint8_t* s, uint8_t* d) {
        switch (pixel) {
            case 8: copyPixels<8>(c, s, d); break;
            case 12: copyPixels<12>(c, s, d); break;
            case 16: copyPixels<16>(c, s, d); break;
            default: gather(c.plan, s, d); break;
        }
    };
    const size_t row_bytes = size_t(dst_width) * size_t(pixel);
    const int64_t step_y = (int64_t(src_height) << 16) / dst_height;
    int64_t pos_y = step_y / 2 + step_y * first_row;
    int64_t previous = -1;
    for (int y = first_row; y < last_row; ++y, pos_y += step_y) {
        uint8_t* d = dst + size_t(y) * dst_step;
        if ((pos_y >> 16) == previous)
            std::memcpy(d, d - dst_step, row_bytes);
        else
            row(src + size_t(pos_y >> 16) * src_step, d);
        previous = pos_y >> 16;
    }
    return true;
}

}  // namespace

void resizeBilinearBytes(const uint8_t* src, size_t src_step, int src_width, int src_height, uint8_t* dst,
                         size_t dst_step, int dst_width, int dst_height, int channels, BilinearPlaneCache& cache,
                         int first_row, int last_row) {
    BilinearPlaneCache& c = cache;
    const int n = dst_width * channels;
    const bool same_width = src_width == dst_width;
    if (c.src_width != src_width || c.src_height != src_height || c.dst_width != dst_width ||
        c.dst_height != dst_height || c.channels != channels) {
        buildBilinearPositions(c.xs, src_width, dst_width);
        buildBilinearPositions(c.ys, src_height, dst_height);
        if (!same_width) {
            buildLerpPlan(c.plan, c.xs.data(), dst_width, src_width, channels, n, src_width * channels, true);
            for (auto& r : c.rows) r.resize(size_t(n));
        }
        c.src_width = src_width;
        c.src_height = src_height;
        c.dst_width = dst_width;
        c.dst_height = dst_height;
        c.channels = channels;
    }
    c.key[0] = c.key[1] = -1;  // the rows belong to the last call's source
    const ScaleRowKernels& k = scaleRowKernels();
    const auto row = [&](int r) { return src + size_t(r) * src_step; };
    // Source row r scaled horizontally (the row itself at equal widths),
    // from its slot or computed into it.
    const auto scaled = [&](int r) -> const uint8_t* {
        if (same_width) return row(r);
        std::vector<uint8_t>& buf = c.rows[r & 1];
        if (c.key[r & 1] != r) {
            k.lerpRow8(c.plan, row(r), buf.data());
            c.key[r & 1] = r;
        }
        return buf.data();
    };
    const int end = last_row < 0 ? dst_height : std::min(last_row, dst_height);
    for (int y = first_row; y < end; ++y) {
        const int32_t p = c.ys[size_t(y)];
        const int upper = p >> kBilinearShift;
        const int lower = upper + 1 < src_height ? upper + 1 : upper;
        const uint32_t fy = uint32_t(p) & 0xFFFF;
        uint8_t* d = dst + size_t(y) * dst_step;
        if (fy == 0 || lower == upper) {
            // The blend would give the upper row unchanged.
            if (same_width)
                std::memcpy(d, row(upper), size_t(n));
            else if (c.key[upper & 1] == upper)
                std::memcpy(d, c.rows[upper & 1].data(), size_t(n));
            else
                k.lerpRow8(c.plan, row(upper), d);
            continue;
        }
        const uint8_t* a = scaled(upper);
        const uint8_t* b = scaled(lower);
        k.blendRow8(a, b, d, n, fy);
    }
}

namespace {

enum class ResizePath { kNearestGather, kAreaBox, kArea, kAreaUp, kBilinearBytes, kLibrary };

// The kernel resizePlane runs for these sizes. Float planes take our area
// rows where they beat OpenCV's own loop: one channel at every ratio
// measured; more channels up to a reduction of 2 in width (gathers), and
// with AVX-512 wherever the float permute plan covers the row.
ResizePath resizePath(int src_width, int src_height, int dst_width, int dst_height, int channels, bool is_float,
                      Interpolation method) {
    if (method == Interpolation::kNearest && nearestGathers(src_width, dst_width, channels * (is_float ? 4 : 1)))
        return ResizePath::kNearestGather;
    if (method == Interpolation::kArea && !is_float && src_width % dst_width == 0 && src_height % dst_height == 0)
        return ResizePath::kAreaBox;
    if (method == Interpolation::kArea && channels >= 1 && channels <= 4 &&
        cvAreaDecimates(src_width, src_height, dst_width, dst_height) &&
        (!is_float || channels == 1 || src_width <= 2 * dst_width ||
         (activeIsa() >= Isa::kAvx512 && cvAreaFloatPermutes(src_width, dst_width, channels))))
        return ResizePath::kArea;
    if (method == Interpolation::kArea && !is_float && channels >= 1 && channels <= 4 &&
        cvAreaEnlarges(src_width, src_height, dst_width, dst_height))
        return ResizePath::kAreaUp;
    if (method == Interpolation::kBilinear && !is_float && channels >= 1 && channels <= 4 &&
        bilinearRange(src_width) && bilinearRange(src_height) && bilinearRange(dst_width) &&
        bilinearRange(dst_height))
        return ResizePath::kBilinearBytes;
    return ResizePath::kLibrary;
}

}  // namespace

bool resizePlaneTakesRows(int src_width, int src_height, int dst_width, int dst_height, int channels, bool is_float,
                          Interpolation method) {
    return resizePath(src_width, src_height, dst_width, dst_height, channels, is_float, method) != ResizePath::kLibrary;
}

void resizePlane(const void* src, size_t src_step, int src_width, int src_height, void* dst, size_t dst_step,
                 int dst_width, int dst_height, int channels, bool is_float, Interpolation method,
                 PlaneResizeCache* cache, int first_row, int last_row) {
    PlaneResizeCache local;
    PlaneResizeCache& c = cache ? *cache : local;
    const int end = last_row < 0 ? dst_height : std::min(last_row, dst_height);
    const auto* s = static_cast<const uint8_t*>(src);
    auto* d = static_cast<uint8_t*>(dst);
    switch (resizePath(src_width, src_height, dst_width, dst_height, channels, is_float, method)) {
        case ResizePath::kNearestGather:
            resizeNearestGathered(s, src_step, src_width, src_height, d, dst_step, dst_width, dst_height,
                                  channels * (is_float ? 4 : 1), c.nearest, first_row, end);
            return;
        case ResizePath::kAreaBox: {
            const int fx = src_width / dst_width, fy = src_height / dst_height;
            if (end > first_row)
                kernels().areaBox(s + size_t(first_row) * size_t(fy) * src_step, src_step,
                                  d + size_t(first_row) * dst_step, dst_step, dst_width, end - first_row, channels, fx,
                                  fy);
            return;
        }
        case ResizePath::kArea:
            buildCvAreaPlan(c.area.plan, src_width, src_height, dst_width, dst_height, channels, !is_float);
            c.area.rows.resize(size_t(c.area.plan.stride) * size_t(c.area.plan.ring));
            c.area.pointers.resize(size_t(c.area.plan.max_rows));
            cvAreaResize(c.area.plan, src, src_step, dst, dst_step, c.area.rows.data(), c.area.pointers.data(),
                         activeIsa(), first_row, end);
            return;
        case ResizePath::kAreaUp:
            buildCvLinearPlan(c.area.up, src_width, src_height, dst_width, dst_height, channels);
            c.area.up_rows.resize(size_t(c.area.up.stride) * 2);
            cvLinearResize(c.area.up, s, src_step, d, dst_step, c.area.up_rows.data(), activeIsa(), first_row, end);
            return;
        case ResizePath::kBilinearBytes:
            resizeBilinearBytes(s, src_step, src_width, src_height, d, dst_step, dst_width, dst_height, channels,
                                c.bilinear, first_row, end);
            return;
        case ResizePath::kLibrary:
            KV_ASSERT(first_row == 0 && end == dst_height, "kv::impl::fast::resizePlane");
            resizePlaneWithLibrary(src, src_step, src_width, src_height, dst, dst_step, dst_width, dst_height,
                                   channels, is_float, method);
            return;
    }
}

void resizePlaneWithLibrary(const void* src, size_t src_step, int src_width, int src_height, void* dst,
                            size_t dst_step, int dst_width, int dst_height, int channels, bool is_float,
                            Interpolation method) {
    if (method == Interpolation::kNearest) {
        resizeNearest(static_cast<const uint8_t*>(src), src_step, src_width, src_height, static_cast<uint8_t*>(dst),
                      dst_step, dst_width, dst_height, size_t(channels) * (is_float ? 4 : 1));
        return;
    }
    const int type = CV_MAKETYPE(is_float ? CV_32F : CV_8U, channels);
    callOpenCv("resize", [&] {
        PlaneMat s(src, src_step, src_width, src_height, type, true);
        PlaneMat d(dst, dst_step, dst_width, dst_height, type, false);
        cv::resize(s.mat(), d.mat(), d.mat().size(), 0, 0,
                   method == Interpolation::kBilinear ? cv::INTER_LINEAR : cv::INTER_AREA);
        d.writeBack();
    });
}

namespace {

// Only an exactly singular matrix (or a NaN determinant) has no inverse.
bool invertible(const float matrix[6]) {
    const float det = matrix[0] * matrix[4] - matrix[1] * matrix[3];
    return det != 0.f && det == det;
}

}  // namespace

// Byte planes: our warp (kv_impl_fast_warp), OpenCV's arithmetic at about
// three times its speed; OpenCV keeps the float planes.
bool warpAffinePlane(const void* src, size_t src_step, int src_width, int src_height, void* dst,
                     size_t dst_step, int dst_width, int dst_height, int channels, bool is_float,
                     const float matrix[6], bool bilinear, int first_row, int last_row) {
    KV_ASSERT(!is_float || (first_row == 0 && (last_row < 0 || last_row == dst_height)), "kv::impl::fast::warpAffinePlane");
    if (is_float)
        return warpAffinePlaneWithLibrary(src, src_step, src_width, src_height, dst, dst_step, dst_width, dst_height,
                                          channels, is_float, matrix, bilinear);
    if (!invertible(matrix)) return false;
    warpAffineBytes(static_cast<const uint8_t*>(src), src_step, src_width, src_height, static_cast<uint8_t*>(dst),
                    dst_step, dst_width, dst_height, channels, matrix, bilinear, activeIsa(), first_row, last_row);
    return true;
}

bool warpAffinePlaneWithLibrary(const void* src, size_t src_step, int src_width, int src_height, void* dst,
                                size_t dst_step, int dst_width, int dst_height, int channels, bool is_float,
                                const float matrix[6], bool bilinear) {
    if (!invertible(matrix)) return false;
    const int type = CV_MAKETYPE(is_float ? CV_32F : CV_8U, channels);
    const cv::Matx23f m(matrix[0], matrix[1], matrix[2], matrix[3], matrix[4], matrix[5]);
    callOpenCv("warpAffine", [&] {
        PlaneMat s(src, src_step, src_width, src_height, type, true);
        PlaneMat d(dst, dst_step, dst_width, dst_height, type, false);
        cv::warpAffine(s.mat(), d.mat(), m, d.mat().size(), bilinear ? cv::INTER_LINEAR : cv::INTER_NEAREST,
                       cv::BORDER_CONSTANT, cv::Scalar::all(0));
        d.writeBack();
    });
    return true;
}

void rotatePlane(const uint8_t* src, size_t src_step, int width, int height, int pixel_bytes, int code, uint8_t* dst,
                 size_t dst_step) {
    if (pixel_bytes == 1) {
        // libyuv's angles are clockwise.
        const libyuv::RotationMode mode = code == 1 ? libyuv::kRotate270
                                          : code == 2 ? libyuv::kRotate180
                                                      : libyuv::kRotate90;
        libyuv::RotatePlane(src, pitch(src_step), dst, pitch(dst_step), width, height, mode);
        return;
    }
    if (pixel_bytes == 3) {
        kernels().rotate3(src, src_step, width, height, code, dst, dst_step);
        return;
    }
    const int type = CV_MAKETYPE(CV_8U, pixel_bytes);
    const bool turn = code != 2;
    callOpenCv("rotate", [&] {
        const cv::Mat s(height, width, type, const_cast<uint8_t*>(src), src_step);
        cv::Mat d(turn ? width : height, turn ? height : width, type, dst, dst_step);
        cv::rotate(s, d,
                   code == 1   ? cv::ROTATE_90_COUNTERCLOCKWISE
                   : code == 2 ? cv::ROTATE_180
                               : cv::ROTATE_90_CLOCKWISE);
    });
}

}  // namespace fast
}  // namespace impl
}  // namespace kv
