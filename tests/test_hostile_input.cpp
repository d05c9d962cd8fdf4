// Hostile input: regions outside their frames on both backends, sizes whose
// byte counts overflow or no machine holds, pitches past the third-party
// libraries' int, float frames at pitches OpenCV cannot describe, odd-width
// packed 4:2:2 resizing, and the geometry of absurd rotations. Every case
// must end in kv::Exception (or a correct result) with nothing read or
// written outside caller memory; the frames wrap exact-size allocations so
// that the sanitizer build sees any stray access.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "kv_core/kv_core_functions.h"
#include "kv_core/kv_frame.h"
#include "kv_core/kv_tensor.h"
#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_cv_helpers.h"
#include "kv_cv/kv_group_rectangles.h"
#include "test_util.h"
#include "wrapped_frame.h"

using namespace kv;

namespace {

const char kBaseFile[] = "src/kv_cv/kv_cv_backend_base";
const char kSimdFile[] = "src/kv_cv/kv_cv_backend_simd";

kvtest::WrappedFrame exact(FrameFormat f, Size s, uint32_t seed = 7) { return kvtest::wrappedFrame(f, s, 0, seed); }

struct RegionCase {
    const char* what;
    std::function<void()> call;
    const char* function;
    const char* file;
    const char* message;
};

// The reproducers of the fault report, and one case per operation that takes
// a region: all refused with status 5 and a message naming the parameter.
TEST(HostileRegions, OutsideTheFrameIsRefusedOnBothBackends) {
    auto nv21 = exact(FRAME_NV21, Size(25, 3));
    auto nv21_dst = exact(FRAME_NV21, Size(1, 34));
    auto bgrp = exact(FRAME_BGR_8_PLANAR, Size(41, 2));
    auto bgrp_dst = exact(FRAME_BGR_8, Size(5, 1));
    auto nv12 = exact(FRAME_NV12, Size(40, 4));
    auto nv12_dst = exact(FRAME_NV12, Size(32, 26));
    auto bgrp_small = exact(FRAME_BGR_8_PLANAR, Size(4, 3));
    auto bgr_dst = exact(FRAME_BGR_8, Size(3, 34));
    auto f32 = exact(FRAME_FLOAT_32_C3, Size(38, 2));
    auto f32_dst = exact(FRAME_FLOAT_32_C3, Size(26, 2));
    auto gray = exact(FRAME_GRAY_8, Size(9, 7));
    auto gray_dst = exact(FRAME_GRAY_8, Size(9, 7));
    auto bgr = exact(FRAME_BGR_8, Size(9, 7));
    auto rgb_dst = exact(FRAME_RGB_8, Size(4, 4));
    CvBackendSimd fast;
    CvBackendBase base;
    fast.setIntProperty(ICvBackend::kPropertyResizeMethod, ResizeNearestNeighbour);
    const float identity[2][3] = {{1, 0, 0}, {0, 1, 0}};
    const RegionCase cases[] = {
        {"fast nearest resize, NV21 source region past the bottom",
         [&] { fast.resize(nv21.frame, nv21_dst.frame, Rect(11, 1, 14, 4), Rect()); }, "kv::CvBackendSimd::resize",
         kSimdFile,
         "Failure in CvBackendSimd::resize(...) : parameter 'src_roi' (11, 1, 14, 4) lies outside the 25x3 frame."},
        {"generic convert, planar BGR region above the frame",
         [&] { base.convert(bgrp.frame, bgrp_dst.frame, Rect(31, -1, 5, 1)); }, "kv::CvBackendBase::convert",
         kBaseFile,
         "Failure in CvBackendBase::convert(...) : parameter 'src_roi' (31, -1, 5, 1) lies outside the 41x2 frame."},
        {"generic convert, NV12 region past the right and bottom",
         [&] { base.convert(nv12.frame, nv12_dst.frame, Rect(1, 3, 43, 7)); }, "kv::CvBackendBase::convert",
         kBaseFile,
         "Failure in CvBackendBase::convert(...) : parameter 'src_roi' (1, 3, 43, 7) lies outside the 40x4 frame."},
        {"generic convert, planar BGR to BGR region past the right",
         [&] { base.convert(bgrp_small.frame, bgr_dst.frame, Rect(3, 0, 6, 6)); }, "kv::CvBackendBase::convert",
         kBaseFile,
         "Failure in CvBackendBase::convert(...) : parameter 'src_roi' (3, 0, 6, 6) lies outside the 4x3 frame."},
        {"fast float resize, destination region past the bottom",
         [&] { fast.resize(f32.frame, f32_dst.frame, Rect(), Rect(1, 1, 14, 2)); }, "kv::CvBackendSimd::resize",
         kSimdFile,
         "Failure in CvBackendSimd::resize(...) : parameter 'dst_roi' (1, 1, 14, 2) lies outside the 26x2 frame."},
        {"generic resize, destination region left of the frame",
         [&] { base.resize(gray.frame, gray_dst.frame, Rect(), Rect(-1, 0, 3, 3)); }, "kv::CvBackendBase::resize",
         kBaseFile,
         "Failure in CvBackendBase::resize(...) : parameter 'dst_roi' (-1, 0, 3, 3) lies outside the 9x7 frame."},
        {"generic resize, source region past the bottom",
         [&] { base.resize(gray.frame, gray_dst.frame, Rect(0, 5, 3, 3), Rect()); }, "kv::CvBackendBase::resize",
         kBaseFile,
         "Failure in CvBackendBase::resize(...) : parameter 'src_roi' (0, 5, 3, 3) lies outside the 9x7 frame."},
        {"fast colorCvt", [&] { fast.colorCvt(bgr.frame, rgb_dst.frame, Rect(6, 0, 4, 4)); },
         "kv::CvBackendSimd::colorCvt", kSimdFile,
         "Failure in CvBackendSimd::colorCvt(...) : parameter 'src_roi' (6, 0, 4, 4) lies outside the 9x7 frame."},
        {"generic colorCvt", [&] { base.colorCvt(bgr.frame, rgb_dst.frame, Rect(0, 4, 4, 4)); },
         "kv::CvBackendBase::colorCvt", kBaseFile,
         "Failure in CvBackendBase::colorCvt(...) : parameter 'src_roi' (0, 4, 4, 4) lies outside the 9x7 frame."},
        {"fast convert", [&] { fast.convert(bgr.frame, rgb_dst.frame, Rect(INT_MAX, 0, 4, 4)); },
         "kv::CvBackendSimd::convert", kSimdFile,
         "Failure in CvBackendSimd::convert(...) : parameter 'src_roi' (2147483647, 0, 4, 4) lies outside the 9x7 "
         "frame."},
        {"fast add (the fast backend does not clip)", [&] { fast.add(f32.frame, 1.f, Rect(30, 0, 9, 1)); },
         "kv::CvBackendSimd::add", kSimdFile,
         "Failure in CvBackendSimd::add(...) : parameter 'roi' (30, 0, 9, 1) lies outside the 38x2 frame."},
        {"fast mul", [&] { fast.mul(f32.frame, 1.f, Rect(0, 1, 1, 2)); }, "kv::CvBackendSimd::mul", kSimdFile,
         "Failure in CvBackendSimd::mul(...) : parameter 'roi' (0, 1, 1, 2) lies outside the 38x2 frame."},
        {"fast warpAffine", [&] { fast.warpAffine(gray.frame, gray_dst.frame, identity, Rect(5, 5, 5, 5), false); },
         "kv::CvBackendSimd::warpAffine", kSimdFile,
         "Failure in CvBackendSimd::warpAffine(...) : parameter 'src_roi' (5, 5, 5, 5) lies outside the 9x7 "
         "frame."},
    };
    for (const RegionCase& c : cases) {
        SCOPED_TRACE(c.what);
        try {
            c.call();
            ADD_FAILURE() << "no exception";
        } catch (const Exception& e) {
            EXPECT_EQ(int(e.status()), 5);
            EXPECT_EQ(e.message(), c.message);
            EXPECT_EQ(e.function(), c.function);
            EXPECT_EQ(e.file(), c.file);
        }
    }
    for (const auto* w : {&nv21_dst, &bgrp_dst, &nv12_dst, &bgr_dst, &f32_dst, &gray_dst, &rgb_dst})
        EXPECT_TRUE(kvtest::paddingIntact(*w));
}

// The checks the backends make before taking the region still come first: a
// region of the wrong size that also lies outside gets the size assertion.
TEST(HostileRegions, SpecifiedChecksComeFirst) {
    auto bgr = exact(FRAME_BGR_8, Size(9, 7));
    auto dst = exact(FRAME_RGB_8, Size(4, 4));
    auto gray = exact(FRAME_GRAY_8, Size(9, 7));
    CvBackendSimd fast;
    CvBackendBase base;
    EXPECT_KV_THROW_AT(fast.colorCvt(bgr.frame, dst.frame, Rect(8, 0, 5, 5)), 2,
                       "Assertion failed: src_region.size() == dst.size()", "kv::CvBackendSimd::colorCvt", kSimdFile,
                       339);
    EXPECT_KV_THROW_AT(base.colorCvt(bgr.frame, dst.frame, Rect(8, 0, 5, 5)), 2,
                       "Assertion failed: temp.size() == dst.size()", "kv::CvBackendBase::colorCvt", kBaseFile, 52);
    EXPECT_KV_THROW_AT(fast.add(gray.frame, 1.f, Rect(8, 0, 5, 5)), 8, "add: Unsupported src format FRAME_GRAY_8.",
                       "kv::CvBackendSimd::add", kSimdFile, 1581);
    // The generic backend's arithmetic clips instead, as it always has.
    auto f32 = kvtest::wrappedFrame(FRAME_FLOAT_32, Size(5, 2), 0, 0);  // finite sentinel floats
    std::vector<float> before(10);
    for (int y = 0; y < 2; ++y) std::memcpy(&before[size_t(y) * 5], f32.frame.rowCpuData(0, y), 20);
    base.add(f32.frame, 1.f, Rect(3, 1, 10, 10));
    float after;
    std::memcpy(&after, f32.frame.rowCpuData(0, 1) + 16, 4);
    EXPECT_EQ(after, before[9] + 1.f);
}

TEST(HostileRegions, GetRegionRefusesWhatLiesOutside) {
    const Frame f(FRAME_I420, Size(10, 6));
    EXPECT_KV_THROW(getRegion(f, Rect(2, 2, 9, 2)), 5,
                    "Failure in getRegion(...) : region (2, 2, 9, 2) lies outside the 10x6 frame.");
    EXPECT_KV_THROW(getRegion(f, Rect(0, -1, 1, 1)), 5,
                    "Failure in getRegion(...) : region (0, -1, 1, 1) lies outside the 10x6 frame.");
    EXPECT_KV_THROW(getRegion(f, Rect(INT_MAX, INT_MAX, INT_MAX, INT_MAX)), 5,
                    "Failure in getRegion(...) : region (2147483647, 2147483647, 2147483647, 2147483647) lies "
                    "outside the 10x6 frame.");
    EXPECT_EQ(getRegion(f, Rect(1, 1, 9, 5)).size(), Size(9, 5));
    // An empty region gives an uninitialised view wherever it points.
    EXPECT_FALSE(getRegion(f, Rect(INT_MAX, -5, 0, 3)).initialized());
}

// ---- sizes ------------------------------------------------------------------------------------------

TEST(HostileSizes, LayoutsOfHugeSidesAreExactOrRefused) {
    // The largest side: chroma of 2^31 - 1 rounds up without overflowing.
    const FrameLayout i420(FRAME_I420, Size(INT_MAX, 1), 1);
    EXPECT_EQ(i420.plane[1].size, Size(1073741824, 1));
    EXPECT_EQ(i420.plane[0].row_bytes, uint64_t(INT_MAX));
    const FrameLayout yuyv(FRAME_YUYV, Size(INT_MAX, 2), 0);
    EXPECT_EQ(yuyv.plane[0].row_bytes, uint64_t(1073741824) * 4);
    EXPECT_EQ(yuyv.allocationSize(), uint64_t(1073741824) * 4 * 2);
    // 12 bytes x (2^31 - 1)^2 passes 63 bits: refused, not wrapped around.
    EXPECT_KV_THROW(FrameLayout(FRAME_FLOAT_32_C3_PLANAR, Size(INT_MAX, INT_MAX), 0), 5,
                    "Failure in FrameLayout(...) : a 2147483647x2147483647 FRAME_FLOAT_32_C3_PLANAR frame has more "
                    "bytes than 64-bit offsets reach.");
    EXPECT_KV_THROW(FrameLayout(FRAME_GRAY_8, Size(3, 3), SIZE_MAX), 5,
                    "Failure in FrameLayout(...) : a 3x3 FRAME_GRAY_8 frame with this row alignment has more bytes "
                    "than 64-bit offsets reach.");
}

TEST(HostileSizes, ReuseOfAbsurdSizesThrowsAndLeavesNoFrameWithoutMemory) {
    Frame f(FRAME_GRAY_8, Size(4, 4));
    EXPECT_KV_THROW(f.reuse(FRAME_FLOAT_32, Size(1073741824, 1073741824), DeviceContext::cpuContext(), 0), 5,
                    "Failure in Frame::reuse(...) : a 1073741824x1073741824 FRAME_FLOAT_32 frame needs "
                    "4611686018427387904 bytes, more than an address space holds.");
    EXPECT_THROW(f.reuse(FRAME_FLOAT_32_C3_PLANAR, Size(1073741824, 1073741824), DeviceContext::cpuContext(), 0),
                 Exception);
    EXPECT_THROW(Frame(FRAME_BGR_8, Size(INT_MAX, INT_MAX)), Exception);
    // The frame is as it was.
    EXPECT_EQ(f.size(), Size(4, 4));
    EXPECT_NE(f.planeCpuData(0), nullptr);
    Buffer b;
    EXPECT_THROW(b.resize(SIZE_MAX), std::bad_alloc);
    EXPECT_THROW(b.resize(Buffer::kMaxSize + 1), std::bad_alloc);
}

// Owned frames hold step x height bytes for every plane, the last row's
// padding included; an alignment wider than the buffer's slack shows it.
TEST(HostileSizes, OwnedFramesHoldEveryRowPitch) {
    for (FrameFormat format : {FRAME_GRAY_8, FRAME_NV12, FRAME_I420, FRAME_FLOAT_32_C3_PLANAR, FRAME_YUYV}) {
        SCOPED_TRACE(toString(format));
        Frame f(format, Size(3, 3), 512);
        const FrameLayout& l = f.layout();
        for (uint32_t p = 0; p < l.planes; ++p) {
            EXPECT_EQ(l.plane[p].step, 512u);
            std::memset(f.planeCpuData(p), p + 1, size_t(l.plane[p].step) * size_t(l.plane[p].size.height));
        }
        EXPECT_EQ(l.allocationSize(), uint64_t(l.plane[l.planes - 1].offset) + 512u * l.plane[l.planes - 1].size.height);
    }
}

TEST(HostileSizes, WrapRefusesMemoryPastTheAddressSpace) {
    uint8_t byte = 0;
    void* planes[1] = {&byte};
    const size_t steps[1] = {SIZE_MAX / 2};
    EXPECT_KV_THROW(Frame::wrap(FRAME_GRAY_8, Size(1, 3), planes, steps), 5,
                    "Failure in Frame::wrap(...) : plane 0 with row pitch 9223372036854775807 and 3 rows reaches past "
                    "the end of the address space.");
    EXPECT_THROW(Frame::wrap(FRAME_NV12, Size(2, 4), &byte, SIZE_MAX / 2), Exception);
    EXPECT_THROW(Frame::wrap(FRAME_I420, Size(3, 3), &byte, SIZE_MAX), Exception);
}

TEST(HostileSizes, TensorLayoutsPastTheirStrides) {
    EXPECT_KV_THROW(TensorLayout(TENSOR_FLOAT_32, TENSOR_NCHW, TensorSize{1, 3, 65536, 65536}), 5,
                    "Failure in TensorLayout(...) : the densely packed stride of axis 1 is 17179869184 bytes, past the "
                    "32-bit strides.");
    // Explicit strides: eight axes of 2^31 - 1 sum past 64 bits and saturate.
    const TensorLayout huge(TENSOR_UINT_8, TENSOR_ND, TensorSize{INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX},
                            TensorSize{INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX});
    EXPECT_EQ(huge.byteSize(), SIZE_MAX);
    Tensor t;
    EXPECT_KV_THROW(t.reuse(huge), 5,
                    "Failure in Tensor::reuse(...) : the layout spans 18446744073709551615 bytes, more than an "
                    "address space holds.");
    EXPECT_FALSE(t.initialized());
    const TensorLayout two(TENSOR_UINT_8, TENSOR_ND, TensorSize{INT_MAX, INT_MAX}, TensorSize{INT_MAX, 1});
    EXPECT_EQ(two.byteSize(), size_t(INT_MAX - 1) * INT_MAX + (INT_MAX - 1) + 1);
}

TEST(HostileSizes, RotationGeometryPast32Bits) {
    Rect bounding, placed;
    Size size;
    EXPECT_KV_THROW(getRotationRoi(45.f, Rect(0, 0, INT_MAX, INT_MAX), bounding, size, placed), 5,
                    "Failure in getRotationRoi(...) : the 2147483647x2147483647 rectangle at (0, 0) turned by 45 "
                    "degrees does not fit 32-bit coordinates.");
    EXPECT_THROW(getRotationRoi(std::numeric_limits<float>::quiet_NaN(), Rect(0, 0, 4, 4), bounding, size, placed),
                 Exception);
    EXPECT_THROW(getRotationRoi(45.f, Rect(INT_MIN, 0, 40, 40), bounding, size, placed), Exception);
    getRotationRoi(90.f, Rect(0, 0, 40000, 1), bounding, size, placed);
    EXPECT_EQ(placed.size(), Size(1, 40000));
}

// libyuv and the core library's one-channel arithmetic take int pitches: a
// pitch past that is refused instead of being truncated.
TEST(HostileSizes, PitchesPastIntAreRefused) {
    // Byte planes turn by quarter turns on libyuv.
    std::vector<uint8_t> gray(4, 9);
    const size_t huge = size_t(INT_MAX) + 1;
    const Frame src = Frame::wrap(FRAME_GRAY_8, Size(4, 1), gray.data(), huge);
    Frame turned;
    EXPECT_KV_THROW(rotateFrame(src, Rotate90, turned), 5,
                    "Row pitch of 2147483648 bytes is past the 2147483647 bytes that libyuv's plane functions take.");
    // 3-byte pixels move on our own kernels, which take any pitch.
    std::vector<uint8_t> bgr{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, rgb(12);
    const Frame bgr_src = Frame::wrap(FRAME_BGR_8, Size(4, 1), bgr.data(), huge);
    Frame dst = Frame::wrap(FRAME_RGB_8, Size(4, 1), rgb.data(), 12);
    CvBackendSimd fast;
    fast.colorCvt(bgr_src, dst, Rect());
    EXPECT_EQ(rgb, (std::vector<uint8_t>{3, 2, 1, 6, 5, 4, 9, 8, 7, 12, 11, 10}));
    std::vector<uint8_t> floats(16);
    Frame f32 = Frame::wrap(FRAME_FLOAT_32, Size(4, 1), floats.data(), huge);
    CvBackendBase base;
    EXPECT_KV_THROW(base.add(f32, 1.f, Rect()), 5,
                    "Failure in CvBackendBase::add(...) : parameter 'src_dst' has a row pitch of 2147483648 bytes in "
                    "plane 0; this backend takes pitches up to 2147483647.");
}

// ---- foreign exceptions -----------------------------------------------------------------------------

// Float frames wrapped at pitches that are not whole floats: OpenCV cannot
// describe them, and the fast backend gives the same result as from packed
// frames instead of letting cv::Exception out.
TEST(HostileFloats, OddPitchesGiveThePackedResult) {
    const Size src_size(13, 7), dst_size(9, 5);
    for (FrameFormat f : {FRAME_FLOAT_32, FRAME_FLOAT_32_C3, FRAME_FLOAT_32_C3_PLANAR}) {
        SCOPED_TRACE(toString(f));
        for (int method : {ResizeBilinear, ResizeArea}) {
            auto src = kvtest::wrappedFrame(f, src_size, 0, 3);
            auto odd_src = kvtest::wrappedFrame(f, src_size, 3, 0);
            for (uint32_t p = 0; p < src.frame.layout().planes; ++p)
                for (int y = 0; y < src_size.height; ++y)
                    std::memcpy(odd_src.frame.rowCpuData(p, y), src.frame.rowCpuData(p, y),
                                src.frame.layout().plane[p].row_bytes);
            auto packed = kvtest::wrappedFrame(f, dst_size, 0, 0);
            auto odd = kvtest::wrappedFrame(f, dst_size, 1, 0);
            CvBackendSimd fast;
            fast.setIntProperty(ICvBackend::kPropertyResizeMethod, method);
            fast.resize(src.frame, packed.frame, Rect(), Rect());
            fast.resize(odd_src.frame, odd.frame, Rect(), Rect());
            EXPECT_TRUE(kvtest::framesEqual(packed.frame, odd.frame));
            EXPECT_TRUE(kvtest::paddingIntact(odd));
            const float shift[2][3] = {{1, 0, 1.5f}, {0, 1, -0.5f}};
            fast.warpAffine(src.frame, packed.frame, shift, Rect(), false);
            fast.warpAffine(odd_src.frame, odd.frame, shift, Rect(), false);
            EXPECT_TRUE(kvtest::framesEqual(packed.frame, odd.frame));
            EXPECT_TRUE(kvtest::paddingIntact(odd));
        }
    }
}

// ---- packed 4:2:2 ---------------------------------------------------------------------------------

// Every byte of an odd-width destination row is written, the same on every
// run, and chroma bytes stay chroma: pixel pairs move as units.
TEST(HostilePacked422, FastResizeWritesWholeRowsOfPairs) {
    for (FrameFormat f : {FRAME_YUYV, FRAME_UYVY}) {
        for (int method : {ResizeNearestNeighbour, ResizeBilinear, ResizeArea}) {
            for (const auto& sizes : {std::make_pair(Size(1920, 1080), Size(1281, 541)),  // the report's case
                                      std::make_pair(Size(31, 9), Size(7, 3)), std::make_pair(Size(5, 4), Size(11, 9))}) {
                SCOPED_TRACE(::testing::Message() << toString(f) << " method " << method << " to "
                                                  << sizes.second.width << "x" << sizes.second.height);
                auto src = kvtest::wrappedFrame(f, sizes.first, 0, 5);
                for (int y = 0; y < sizes.first.height; ++y)
                    for (int cx = 0; cx < (sizes.first.width + 1) / 2; ++cx) {
                        kvtest::chromaAt(src.frame, false, cx, y) = 77;
                        kvtest::chromaAt(src.frame, true, cx, y) = 201;
                    }
                auto a = kvtest::wrappedFrame(f, sizes.second, 0, 0, 0x00);
                auto b = kvtest::wrappedFrame(f, sizes.second, 0, 0, 0xFF);
                CvBackendSimd fast;
                fast.setIntProperty(ICvBackend::kPropertyResizeMethod, method);
                fast.resize(src.frame, a.frame, Rect(), Rect());
                fast.resize(src.frame, b.frame, Rect(), Rect());
                EXPECT_TRUE(kvtest::framesEqual(a.frame, b.frame));
                for (int y = 0; y < sizes.second.height; ++y)
                    for (int cx = 0; cx < (sizes.second.width + 1) / 2; ++cx) {
                        ASSERT_EQ(kvtest::chromaAt(a.frame, false, cx, y), 77) << cx << "," << y;
                        ASSERT_EQ(kvtest::chromaAt(a.frame, true, cx, y), 201) << cx << "," << y;
                    }
            }
        }
    }
}

// ---- fuzz findings ----------------------------------------------------------------------------------

// An invertible matrix whose inverse has terms past 2^61: the warp's prefetch
// distance overflowed a signed product (found by fuzz_backends).
TEST(HostileFuzzFindings, WarpWithHugeInverseTerms) {
    auto src = exact(FRAME_GRAY_8, Size(21, 9));
    auto dst = kvtest::wrappedFrame(FRAME_GRAY_8, Size(13, 5), 0, 0);
    CvBackendSimd fast;
    for (const float tiny : {1e-19f, -1e-30f}) {
        const float m[2][3] = {{0, 1, 0}, {tiny, 0, 0}};
        fast.warpAffine(src.frame, dst.frame, m, Rect(), false);
        EXPECT_TRUE(kvtest::paddingIntact(dst));
    }
}

// Containment margins of a huge or infinite tolerance: round(width *
// tolerance) left the 64-bit range and the edge sums overflowed (found by
// fuzz_group_rectangles). Zero-sized rectangles are similar only to
// identical ones, so two clusters form whatever the tolerance.
TEST(HostileFuzzFindings, GroupingWithHugeTolerances) {
    for (const double tolerance : {1e300, std::numeric_limits<double>::infinity()}) {
        SCOPED_TRACE(tolerance);
        std::vector<Rect> rects = {Rect(0, 0, 0, 0), Rect(1000, 1000, 5, 5), Rect(0, 0, 0, 0), Rect(1000, 1000, 5, 5)};
        std::vector<int32_t> weights;
        groupRectangles(rects, weights, 1, tolerance);
        // The empty cluster lies inside the other's unbounded margin and has
        // fewer than 3 members; the other is not inside the empty one's.
        EXPECT_EQ(rects, std::vector<Rect>{Rect(1000, 1000, 5, 5)});
        EXPECT_EQ(weights, std::vector<int32_t>{2});
    }
}

}  // namespace
