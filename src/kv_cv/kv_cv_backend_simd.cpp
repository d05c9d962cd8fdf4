// CvBackendSimd: every ICvBackend operation as one or a few whole-plane calls
// into the fast adapter (libyuv, OpenCV, the module's AVX2 kernels).
#include "kv_cv/kv_cv_backend_simd.h"

#include <algorithm>

#include "kv_core/kv_exception.h"
#include "kv_cv/kv_cv_helpers.h"
#include "kv_cv/kv_impl_fast_adapter.h"
#include "kv_cv/kv_impl_parallel.h"
#include "kv_cv/kv_impl_regions.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_cv_backend_simd"

namespace kv {

namespace fast = impl::fast;

namespace {

constexpr const char* kColorCvt = "kv::CvBackendSimd::colorCvt";
constexpr const char* kEvenText = "src_region.width() % 2 == 0 && src_region.height() % 2 == 0";

bool given(const Rect& r) { return r.width >= 1 && r.height >= 1; }
Frame regionOf(const Frame& f, const Rect& r) { return given(r) ? getRegion(f, r) : f; }

// Plane access on frames that live in CPU memory.
uint8_t* data(Frame& f, int p) { return f.planeCpuData(size_t(p)); }
size_t step(const Frame& f, int p) { return f.layout().plane[p].step; }
const FramePlane& plane(const Frame& f, int p) { return f.layout().plane[p]; }
bool continuous(const Frame& f, int p) { return plane(f, p).step == plane(f, p).row_bytes; }

// Byte plane -> float plane (or back), one run over the plane when both are
// continuous; `per_row` values per row.
void toFloat(Frame& s, int sp, Frame& d, int dp, size_t per_row, int rows) {
    if (continuous(s, sp) && continuous(d, dp))
        fast::u8ToF32(data(s, sp), 0, reinterpret_cast<float*>(data(d, dp)), 0, per_row * size_t(rows), 1);
    else
        fast::u8ToF32(data(s, sp), step(s, sp), reinterpret_cast<float*>(data(d, dp)), step(d, dp), per_row, rows);
}

void toByte(Frame& s, int sp, Frame& d, int dp, size_t per_row, int rows) {
    if (continuous(s, sp) && continuous(d, dp))
        fast::f32ToU8(reinterpret_cast<const float*>(data(s, sp)), 0, data(d, dp), 0, per_row * size_t(rows), 1);
    else
        fast::f32ToU8(reinterpret_cast<const float*>(data(s, sp)), step(s, sp), data(d, dp), step(d, dp), per_row,
                      rows);
}

void copyY(Frame& s, Frame& d) {
    fast::copyPlane(data(s, 0), step(s, 0), data(d, 0), step(d, 0), s.size().width, s.size().height);
}

void split3(Frame& s, Frame& d) {
    fast::splitPlanes3(data(s, 0), step(s, 0), data(d, 0), step(d, 0), data(d, 1), step(d, 1), data(d, 2), step(d, 2),
                       s.size().width, s.size().height);
}

void merge3(Frame& s, Frame& d) {
    fast::mergePlanes3(data(s, 0), step(s, 0), data(s, 1), step(s, 1), data(s, 2), step(s, 2), data(d, 0), step(d, 0),
                       s.size().width, s.size().height);
}

// YUV planes (y, u, v) of a planar frame, or of a temporary holding the
// deinterleaved chroma, to 3-byte pixels.
using YuvToRgbFn = void (*)(fast::RgbOrder, const uint8_t*, size_t, const uint8_t*, size_t, const uint8_t*, size_t,
                            uint8_t*, size_t, int, int);

void yuvToRgb(YuvToRgbFn fn, Frame& y, Frame& uv, int u_plane, int v_plane, Frame& d) {
    const fast::RgbOrder order = d.format() == FRAME_RGB_8 ? fast::RgbOrder::kRgb : fast::RgbOrder::kBgr;
    fn(order, data(y, 0), step(y, 0), data(uv, u_plane), step(uv, u_plane), data(uv, v_plane), step(uv, v_plane),
       data(d, 0), step(d, 0), y.size().width, y.size().height);
}

bool isRgb8(FrameFormat f) { return f == FRAME_RGB_8 || f == FRAME_BGR_8; }

}  // namespace

namespace {

// Rows [first, last) of the frame's rows as rows of a plane `plane_height`
// high: the same rows, or the chroma rows of a row pair (first is even).
std::pair<int, int> planeRows(int plane_height, int frame_height, int first, int last) {
    if (plane_height == frame_height) return {first, last};
    return {first / 2, last == frame_height ? plane_height : last / 2};
}

}  // namespace

// Row bands of one call over the library's threads; each band is the same
// call on its rows (a region of the source and of the destination), on its
// own object so that scratch frames are not shared.
struct CvBackendSimd::Bands {
    // Runs fn(backend, first, last) per band of `rows` rows; false when the
    // call is to run on the calling thread (not split, or a band failed).
    template <typename Fn>
    static bool run(CvBackendSimd& self, int rows, int64_t pixels_per_row, Fn&& fn) {
        auto prepare = [&](CvBackendSimd& b) {
            b._resize_method = self._resize_method;
            b._warp_method = self._warp_method;
        };
        return impl::runRowBands(self, self._band_backends, rows, pixels_per_row, prepare, fn) == impl::BandRun::kDone;
    }

    // colorCvt in bands when the whole call is valid (otherwise the call
    // reports its error on the calling thread).
    static bool colorCvt(CvBackendSimd& self, const Frame& src, Frame& dst, const Rect& src_roi) {
        if (!src.initialized() || !dst.initialized() || src.deviceContext() != DeviceContext::cpuContext() ||
            dst.deviceContext() != DeviceContext::cpuContext() || src.format() == dst.format())
            return false;
        const Rect r = given(src_roi) ? src_roi : Rect(0, 0, src.size().width, src.size().height);
        if (r.x < 0 || r.y < 0 || int64_t(r.x) + r.width > src.size().width ||
            int64_t(r.y) + r.height > src.size().height || r.size() != dst.size())
            return false;
        // `src` or `dst` may be this object's own scratch frames, which band 0
        // reuses: the bands hold their own references to the pixels.
        const Frame source = src, target = dst;
        return run(self, r.height, r.width, [&](CvBackendSimd& b, int first, int last) {
            Frame band = getRegion(target, Rect(0, first, r.width, last - first));
            b.colorCvt(source, band, Rect(r.x, r.y + first, r.width, last - first));
        });
    }
};

CvBackendSimd::CvBackendSimd() = default;

// The five members; the resize cache is the object's own and is not shared.
CvBackendSimd::CvBackendSimd(const CvBackendSimd& other)
    : ICvBackend(other),
      _context(other._context),
      _resize_method(other._resize_method),
      _warp_method(other._warp_method),
      _temp(other._temp),
      _temp2(other._temp2) {}

CvBackendSimd& CvBackendSimd::operator=(const CvBackendSimd& other) {
    ICvBackend::operator=(other);
    _context = other._context;
    _resize_method = other._resize_method;
    _warp_method = other._warp_method;
    _temp = other._temp;
    _temp2 = other._temp2;
    return *this;
}

CvBackendSimd::~CvBackendSimd() = default;

void CvBackendSimd::roiToYuv444(Frame& src, const Rect& rect) {
    _temp.reuse(FRAME_YUV444_PLANAR, rect.size(), DeviceContext::cpuContext(), 0);
    Frame r = getRegion(src, rect);
    fast::bgrToYuv444(data(r, 0), step(r, 0), data(_temp, 0), step(_temp, 0), data(_temp, 1), step(_temp, 1),
                      data(_temp, 2), step(_temp, 2), rect.width, rect.height);
}

void CvBackendSimd::_oddStripTo420(Frame& src, const Rect& rect, Frame& dst, bool interleaved) {
    roiToYuv444(src, rect);
    fast::copyPlane(data(_temp, 0), step(_temp, 0), dst.rowCpuData(0, rect.y) + rect.x, step(dst, 0), rect.width,
                    rect.height);
    // The strip is one pixel wide or high: each chroma sample averages the
    // two 4:4:4 samples it covers along the strip (one at an odd end).
    const bool column = rect.width == 1;
    const int length = column ? rect.height : rect.width;
    const int cx = rect.x / 2, cy = rect.y / 2;
    for (int k = 0; k < (length + 1) / 2; ++k) {
        const int i0 = 2 * k, i1 = std::min(2 * k + 1, length - 1);
        auto sample = [&](int p, int i) -> int {
            return column ? _temp.rowCpuData(p, i)[0] : _temp.rowCpuData(p, 0)[i];
        };
        const uint8_t u = uint8_t((sample(1, i0) + sample(1, i1) + 1) >> 1);
        const uint8_t v = uint8_t((sample(2, i0) + sample(2, i1) + 1) >> 1);
        const int x = column ? cx : cx + k, y = column ? cy + k : cy;
        if (interleaved) {
            uint8_t* uv = dst.rowCpuData(1, y) + 2 * x;
            uv[0] = u;
            uv[1] = v;
        } else {
            dst.rowCpuData(1, y)[x] = u;
            dst.rowCpuData(2, y)[x] = v;
        }
    }
}

void CvBackendSimd::_twoStep(const Frame& region, FrameFormat via, Frame& dst) {
    _temp2.reuse(via, region.size(), DeviceContext::cpuContext(), 0);
    colorCvt(region, _temp2, Rect());
    colorCvt(_temp2, dst, Rect());
}

void CvBackendSimd::colorCvt(const Frame& src, Frame& dst, Rect src_roi) {
    if (Bands::colorCvt(*this, src, dst, src_roi)) return;
    KV_ASSERT_LINE(src.initialized() && dst.initialized(), kColorCvt, 329);
    KV_ASSERT_LINE(src.deviceContext() == DeviceContext::cpuContext() && src.deviceContext() == dst.deviceContext(),
                   kColorCvt, 332);
    // The size check reads the region's size before the region is taken, so
    // that it comes first; a region outside the frame is refused after it.
    KV_ASSERT_TEXT_LINE((given(src_roi) ? src_roi.size() : src.size()) == dst.size(), "src_region.size() == dst.size()",
                        kColorCvt, 339);
    impl::requireRegionInside(src, src_roi, kColorCvt, KV_SOURCE_FILE, __LINE__, "src_roi");
    // Only the region is used from here on: `src` may be one of our own
    // temporaries, which roiToYuv444 and the two-step routes reuse.
    Frame s = regionOf(src, src_roi);
    const FrameFormat sf = s.format(), df = dst.format();
    if (sf == df) {
        s.copyTo(dst);
        return;
    }
    const int w = s.size().width, h = s.size().height;
    const bool even = w % 2 == 0 && h % 2 == 0;

    switch (sf) {
        case FRAME_GRAY_8:
            if (df == FRAME_BGR_8) {
                fast::grayToBgr(data(s, 0), step(s, 0), data(dst, 0), step(dst, 0), w, h);
                return;
            }
            if (df == FRAME_GRAY_FLOAT_32) {
                toFloat(s, 0, dst, 0, size_t(w), h);
                return;
            }
            break;
        case FRAME_RGB_8:
        case FRAME_BGR_8: {
            const FrameFormat planar = sf == FRAME_RGB_8 ? FRAME_RGB_8_PLANAR : FRAME_BGR_8_PLANAR;
            if (df == planar) {
                split3(s, dst);
                return;
            }
            if (isRgb8(df)) {
                fast::swapRgb(data(s, 0), step(s, 0), data(dst, 0), step(dst, 0), w, h);
                return;
            }
            if (df == FRAME_FLOAT_32_C3) {
                toFloat(s, 0, dst, 0, size_t(w) * 3, h);
                return;
            }
            if (df == FRAME_FLOAT_32_C3_PLANAR) {  // as through the planar bytes, in one pass
                fast::bytesToPlanarFloat3(data(s, 0), step(s, 0), reinterpret_cast<float*>(data(dst, 0)), step(dst, 0),
                                          reinterpret_cast<float*>(data(dst, 1)), step(dst, 1),
                                          reinterpret_cast<float*>(data(dst, 2)), step(dst, 2), w, h);
                return;
            }
            if (sf == FRAME_RGB_8) break;
            switch (df) {
                case FRAME_GRAY_8:
                    fast::bgrToGray(data(s, 0), step(s, 0), data(dst, 0), step(dst, 0), w, h);
                    return;
                case FRAME_I420:
                case FRAME_NV12: {
                    // The even part in one call, then the odd last column and row.
                    const bool nv12 = df == FRAME_NV12;
                    const int we = w & ~1, he = h & ~1;
                    if (we > 0 && he > 0) {
                        if (nv12) {
                            fast::bgrToNv12(false, data(s, 0), step(s, 0), data(dst, 0), step(dst, 0), data(dst, 1),
                                            step(dst, 1), we, he);
                        } else {
                            fast::bgrToI420(data(s, 0), step(s, 0), data(dst, 0), step(dst, 0), data(dst, 1),
                                            step(dst, 1), data(dst, 2), step(dst, 2), we, he);
                        }
                    }
                    if (w != we && he > 0) _oddStripTo420(s, Rect(we, 0, 1, he), dst, nv12);
                    if (h != he) _oddStripTo420(s, Rect(0, he, w, 1), dst, nv12);
                    return;
                }
                case FRAME_NV21:
                    KV_ASSERT_TEXT_LINE(even, kEvenText, kColorCvt, 530);
                    fast::bgrToNv12(true, data(s, 0), step(s, 0), data(dst, 0), step(dst, 0), data(dst, 1),
                                    step(dst, 1), w, h);
                    return;
                case FRAME_NV16:
                    KV_ASSERT_TEXT_LINE(even, kEvenText, kColorCvt, 563);
                    fast::bgrToNv16(data(s, 0), step(s, 0), data(dst, 0), step(dst, 0), data(dst, 1), step(dst, 1), w,
                                    h);
                    return;
                case FRAME_YUV444_PLANAR:
                    fast::bgrToYuv444(data(s, 0), step(s, 0), data(dst, 0), step(dst, 0), data(dst, 1), step(dst, 1),
                                      data(dst, 2), step(dst, 2), w, h);
                    return;
                case FRAME_YUV444:  // as through FRAME_YUV444_PLANAR, in one pass
                    fast::bgrToYuv444Packed(data(s, 0), step(s, 0), data(dst, 0), step(dst, 0), w, h);
                    return;
                default:
                    break;
            }
            break;
        }
        case FRAME_RGB_8_PLANAR:
        case FRAME_BGR_8_PLANAR: {
            const FrameFormat packed = sf == FRAME_RGB_8_PLANAR ? FRAME_RGB_8 : FRAME_BGR_8;
            if (df == packed) {
                merge3(s, dst);
                return;
            }
            if (df == FRAME_FLOAT_32_C3) {
                _twoStep(s, packed, dst);
                return;
            }
            if (df == FRAME_FLOAT_32_C3_PLANAR) {
                for (int p = 0; p < 3; ++p) toFloat(s, p, dst, p, size_t(w), h);
                return;
            }
            break;
        }
        case FRAME_I420:
            KV_ASSERT_TEXT_LINE(even, kEvenText, kColorCvt, 845);
            if (df == FRAME_GRAY_8) {
                copyY(s, dst);
                return;
            }
            if (isRgb8(df)) {
                yuvToRgb(fast::i420ToRgb, s, s, 1, 2, dst);
                return;
            }
            if (df == FRAME_NV12) {
                copyY(s, dst);
                fast::mergePairs(data(s, 1), step(s, 1), data(s, 2), step(s, 2), data(dst, 1), step(dst, 1), w / 2,
                                 h / 2);
                return;
            }
            break;
        case FRAME_NV12:
        case FRAME_NV21: {
            KV_ASSERT_TEXT_LINE(even, kEvenText, kColorCvt, sf == FRAME_NV12 ? 910 : 1032);
            // Planes of the pair bytes: (first, second) is (U, V) for NV12.
            const bool nv12 = sf == FRAME_NV12;
            const FrameFormat other = nv12 ? FRAME_NV21 : FRAME_NV12;
            if (df == FRAME_GRAY_8) {
                copyY(s, dst);
                return;
            }
            if (isRgb8(df)) {
                // One pass over the pairs: the same arithmetic as deinterleaving
                // into 4:2:0 planes and converting those, without the copy.
                fast::nv12ToRgb(df == FRAME_RGB_8 ? fast::RgbOrder::kRgb : fast::RgbOrder::kBgr, !nv12, data(s, 0),
                                step(s, 0), data(s, 1), step(s, 1), data(dst, 0), step(dst, 0), w, h);
                return;
            }
            if (df == FRAME_I420) {
                copyY(s, dst);
                fast::splitPairs(data(s, 1), step(s, 1), data(dst, nv12 ? 1 : 2), step(dst, nv12 ? 1 : 2),
                                 data(dst, nv12 ? 2 : 1), step(dst, nv12 ? 2 : 1), w / 2, h / 2);
                return;
            }
            if (df == other) {
                copyY(s, dst);
                fast::swapPairs(data(s, 1), step(s, 1), data(dst, 1), step(dst, 1), w / 2, h / 2);
                return;
            }
            break;
        }
        case FRAME_NV16:
            KV_ASSERT_TEXT_LINE(even, kEvenText, kColorCvt, 1138);
            if (df == FRAME_GRAY_8) {
                copyY(s, dst);
                return;
            }
            if (isRgb8(df)) {
                // One pass over the pairs, as for NV12.
                fast::nv16ToRgb(df == FRAME_RGB_8 ? fast::RgbOrder::kRgb : fast::RgbOrder::kBgr, data(s, 0),
                                step(s, 0), data(s, 1), step(s, 1), data(dst, 0), step(dst, 0), w, h);
                return;
            }
            if (df == FRAME_YV16) {
                copyY(s, dst);
                fast::splitPairs(data(s, 1), step(s, 1), data(dst, 2), step(dst, 2), data(dst, 1), step(dst, 1), w / 2,
                                 h);
                return;
            }
            break;
        case FRAME_YUV444:
            if (df == FRAME_YUV444_PLANAR) {
                split3(s, dst);
                return;
            }
            // As through FRAME_YUV444_PLANAR, in one pass.
            if (df == FRAME_GRAY_8) {
                fast::yuv444PackedToGray(data(s, 0), step(s, 0), data(dst, 0), step(dst, 0), w, h);
                return;
            }
            if (df == FRAME_BGR_8) {
                fast::yuv444PackedToRgb(fast::RgbOrder::kBgr, data(s, 0), step(s, 0), data(dst, 0), step(dst, 0), w, h);
                return;
            }
            break;
        case FRAME_YUV444_PLANAR:
            if (df == FRAME_GRAY_8) {
                copyY(s, dst);
                return;
            }
            if (df == FRAME_BGR_8) {
                yuvToRgb(fast::i444ToRgb, s, s, 1, 2, dst);
                return;
            }
            if (df == FRAME_YUV444) {
                merge3(s, dst);
                return;
            }
            break;
        case FRAME_FLOAT_32_C3:
            if (isRgb8(df)) {
                toByte(s, 0, dst, 0, size_t(w) * 3, h);
                return;
            }
            if (df == FRAME_RGB_8_PLANAR || df == FRAME_BGR_8_PLANAR) {
                _twoStep(s, df == FRAME_RGB_8_PLANAR ? FRAME_RGB_8 : FRAME_BGR_8, dst);
                return;
            }
            break;
        case FRAME_FLOAT_32_C3_PLANAR:
            if (df == FRAME_RGB_8_PLANAR || df == FRAME_BGR_8_PLANAR) {
                for (int p = 0; p < 3; ++p) toByte(s, p, dst, p, size_t(w), h);
                return;
            }
            if (isRgb8(df)) {
                _twoStep(s, df == FRAME_RGB_8 ? FRAME_RGB_8_PLANAR : FRAME_BGR_8_PLANAR, dst);
                return;
            }
            break;
        default:
            break;
    }
    KV_THROW_LINE(KV_STATUS_NOT_SUPPORTED, kColorCvt, 1389, "colorCvt: Unsupported conversion %s -> %s.",
                  toString(sf), toString(df));
}

void CvBackendSimd::resize(const Frame& src, Frame& dst, Rect src_roi, Rect dst_roi) {
    static constexpr const char* kFn = "kv::CvBackendSimd::resize";
    KV_ASSERT_LINE(src.initialized() && src.format() == dst.format(), kFn, 1395);
    KV_ASSERT_LINE(src.deviceContext() == DeviceContext::cpuContext() && src.deviceContext() == dst.deviceContext(),
                   kFn, 1398);
    const int bits_per_channel = src.layout().plane[0].bits_per_channel;
    KV_ASSERT_LINE(bits_per_channel == 8 || bits_per_channel == 32, kFn, 1401);
    impl::requireRegionInside(src, src_roi, kFn, KV_SOURCE_FILE, __LINE__, "src_roi");
    impl::requireRegionInside(dst, dst_roi, kFn, KV_SOURCE_FILE, __LINE__, "dst_roi");
    Frame s = regionOf(src, src_roi);
    Frame d = regionOf(dst, dst_roi);
    fast::Interpolation method = _resize_method == ResizeNearestNeighbour ? fast::Interpolation::kNearest
                                 : _resize_method == ResizeArea           ? fast::Interpolation::kArea
                                                                          : fast::Interpolation::kBilinear;
    if (d.size().width == 1 || d.size().height == 1) method = fast::Interpolation::kNearest;
    if (!_resize_cache) _resize_cache.reset(new fast::ResizeCache);
    // Packed 4:2:2 rows are resized as whole pixel pairs (4-byte units), so
    // chroma bytes stay chroma and every byte of an odd-width row is written.
    const bool pairs = s.format() == FRAME_YUYV || s.format() == FRAME_UYVY;
    const bool is_float = bits_per_channel == 32;
    auto planeWidths = [&](uint32_t p) {
        const FramePlane& sp = plane(s, int(p));
        const FramePlane& dp = plane(d, int(p));
        return std::make_pair(pairs ? int(sp.row_bytes / 4) : sp.size.width, pairs ? int(dp.row_bytes / 4) : dp.size.width);
    };
    // Row bands when every plane runs the module's own kernels; OpenCV's
    // calls spread themselves over OpenCV's threads.
    bool by_rows = true;
    for (uint32_t p = 0; p < s.layout().planes; ++p) {
        const auto w = planeWidths(p);
        by_rows = by_rows && fast::resizePlaneTakesRows(w.first, plane(s, int(p)).size.height, w.second,
                                                        plane(d, int(p)).size.height, pairs ? 4 : plane(s, int(p)).channels,
                                                        is_float, method);
    }
    auto resizeRows = [&](CvBackendSimd& b, int first, int last) {
        if (!b._resize_cache) b._resize_cache.reset(new fast::ResizeCache);
        for (uint32_t p = 0; p < s.layout().planes; ++p) {
            const FramePlane& sp = plane(s, int(p));
            const FramePlane& dp = plane(d, int(p));
            const auto w = planeWidths(p);
            const std::pair<int, int> rows = planeRows(dp.size.height, d.size().height, first, last);
            fast::resizePlane(data(s, int(p)), sp.step, w.first, sp.size.height, data(d, int(p)), dp.step, w.second,
                              dp.size.height, pairs ? 4 : sp.channels, is_float, method, &b._resize_cache->planes[p],
                              rows.first, rows.second);
        }
    };
    if (by_rows && Bands::run(*this, d.size().height, d.size().width, resizeRows)) return;
    resizeRows(*this, 0, d.size().height);
}

void CvBackendSimd::convert(const Frame& src, Frame& dst, Rect src_roi) {
    static constexpr const char* kFn = "kv::CvBackendSimd::convert";
    KV_ASSERT_LINE(src.initialized() && dst.initialized(), kFn, 1499);
    KV_ASSERT_LINE(src.deviceContext() == DeviceContext::cpuContext() && src.deviceContext() == dst.deviceContext(),
                   kFn, 1502);
    impl::requireRegionInside(src, src_roi, kFn, KV_SOURCE_FILE, __LINE__, "src_roi");
    const Frame s = regionOf(src, src_roi);
    if (s.size() == dst.size()) {
        colorCvt(s, dst, Rect());
    } else if (s.format() == dst.format()) {
        resize(s, dst, Rect(), Rect());
    } else {
        // Scale in the source format, then convert.
        _temp.reuse(s.format(), dst.size(), DeviceContext::cpuContext(), 0);
        resize(s, _temp, Rect(), Rect());
        colorCvt(_temp, dst, Rect());
    }
}

void CvBackendSimd::_arithmetic(Frame& src_dst, float value, Rect roi, bool multiply) {
    const char* fn = multiply ? "kv::CvBackendSimd::mul" : "kv::CvBackendSimd::add";
    if (multiply) {
        KV_ASSERT(src_dst.initialized(), fn);
        KV_ASSERT(src_dst.deviceContext() == DeviceContext::cpuContext(), fn);
    } else {
        KV_ASSERT_LINE(src_dst.initialized(), fn, 1528);
        KV_ASSERT_LINE(src_dst.deviceContext() == DeviceContext::cpuContext(), fn, 1529);
    }
    const FrameFormat f = src_dst.format();
    if (f != FRAME_FLOAT_32 && f != FRAME_FLOAT_32_C3 && f != FRAME_FLOAT_32_C3_PLANAR) {
        if (multiply)
            KV_THROW_LINE(KV_STATUS_NOT_SUPPORTED, fn, 1645, "mul: Unsupported src format %s.", toString(f));
        KV_THROW_LINE(KV_STATUS_NOT_SUPPORTED, fn, 1581, "add: Unsupported src format %s.", toString(f));
    }
    impl::requireRegionInside(src_dst, roi, fn, KV_SOURCE_FILE, __LINE__, "roi");
    Frame r = regionOf(src_dst, roi);
    // Every sample is independent: row bands give the same values.
    const int bands = impl::bandCount(r.size().height, int64_t(r.size().width) * 3, 1);
    if (bands > 1) {
        impl::parallelBands(bands, [&](int b) {
            const std::pair<int, int> rows = impl::bandRows(r.size().height, bands, b);
            _arithmetic(r, value, Rect(0, rows.first, r.size().width, rows.second - rows.first), multiply);
        });
        return;
    }
    for (uint32_t p = 0; p < r.layout().planes; ++p) {
        const FramePlane& pl = plane(r, int(p));
        auto* d = reinterpret_cast<float*>(data(r, int(p)));
        const size_t per_row = size_t(pl.size.width) * pl.channels;
        const bool one_run = continuous(r, int(p));
        const size_t count = one_run ? per_row * size_t(pl.size.height) : per_row;
        const int rows = one_run ? 1 : pl.size.height;
        if (multiply)
            fast::mulF32(d, pl.step, count, rows, value);
        else
            fast::addF32(d, pl.step, count, rows, value);
    }
}

void CvBackendSimd::add(Frame& src_dst, float value, Rect roi) { _arithmetic(src_dst, value, roi, false); }

void CvBackendSimd::mul(Frame& src_dst, float value, Rect roi) { _arithmetic(src_dst, value, roi, true); }

void CvBackendSimd::warpAffine(const Frame& src, Frame& dst, const float matrix[2][3], Rect src_roi, bool flag) {
    static constexpr const char* kFn = "kv::CvBackendSimd::warpAffine";
    KV_ASSERT_LINE(src.initialized() && src.format() == dst.format(), kFn, 1653);
    KV_ASSERT_LINE(src.deviceContext() == DeviceContext::cpuContext() && src.deviceContext() == dst.deviceContext(),
                   kFn, 1656);
    const bool bilinear = _warp_method != ResizeNearestNeighbour;
    impl::requireRegionInside(src, src_roi, kFn, KV_SOURCE_FILE, __LINE__, "src_roi");
    Frame s = regionOf(src, src_roi);
    float m[6] = {matrix[0][0], matrix[0][1], matrix[0][2], matrix[1][0], matrix[1][1], matrix[1][2]};
    if (flag) {
        float inverse[6];
        invertAffineTransform(m, inverse);
        std::copy(inverse, inverse + 6, m);
    }
    auto warpRows = [&](int first, int last) {
        for (uint32_t p = 0; p < s.layout().planes; ++p) {
            const FramePlane& sp = plane(s, int(p));
            const FramePlane& dp = plane(dst, int(p));
            const std::pair<int, int> rows = planeRows(dp.size.height, dst.size().height, first, last);
            if (!fast::warpAffinePlane(data(s, int(p)), sp.step, sp.size.width, sp.size.height, data(dst, int(p)),
                                       dp.step, dp.size.width, dp.size.height, sp.channels, sp.bits_per_channel == 32,
                                       m, bilinear, rows.first, rows.second))
                KV_THROW_LINE(KV_STATUS_NOT_SUPPORTED, kFn, 1747, "warpAffine: Can't create context.");
        }
    };
    // Byte planes in row bands (float planes are OpenCV's, on its threads).
    if (fast::warpAffinePlaneTakesRows(s.layout().plane[0].bits_per_channel == 32) &&
        Bands::run(*this, dst.size().height, dst.size().width,
                   [&](CvBackendSimd&, int first, int last) { warpRows(first, last); }))
        return;
    warpRows(0, dst.size().height);
}

void CvBackendSimd::cropAndResize(const Frame& src, Tensor& dst, const std::vector<Rect>& first,
                                  const std::vector<Rect>& second) {
    crop_and_resize(*this, src, dst, first, second, 0.0f, 1.0f);
}

bool CvBackendSimd::setIntProperty(int id, int value) {
    static constexpr const char* kFn = "kv::CvBackendSimd::setIntProperty";
    static constexpr const char* kText = "value == ResizeBilinear || value == ResizeArea || value == ResizeNearestNeighbour";
    if (id != kPropertyResizeMethod && id != kPropertyWarpInterpolation) return false;
    // One unsigned comparison: negative values fail too.
    KV_ASSERT_TEXT_LINE(uint32_t(value) <= uint32_t(ResizeArea), kText, kFn, id == kPropertyResizeMethod ? 1770 : 1776);
    (id == kPropertyResizeMethod ? _resize_method : _warp_method) = value;
    return true;
}

int CvBackendSimd::getIntProperty(int id) const {
    if (id == kPropertyResizeMethod) return _resize_method;
    if (id == kPropertyWarpInterpolation) return _warp_method;
    return -1;
}

void CvBackendSimd::setDeviceContext(const DeviceContext&) {}

DeviceContext CvBackendSimd::getDeviceContext() const { return DeviceContext::cpuContext(); }

}  // namespace kv
