// Frame helpers: the empty values, resizeFrame and colorConvert shortcuts and
// clears, fixed rotations of every plane kind against a pixel mapping, the
// angle rotation's geometry, affine inversion and half-float conversion.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "kv_core/kv_core_functions.h"
#include "kv_cv/kv_cv_helpers.h"
#include "kv_cv/kv_impl_cpu.h"
#include "test_util.h"

using namespace kv;

namespace {

const char* const kHelpersFile = "src/kv_cv/kv_cv_helpers";

// Source pixel that lands on destination (x, y) for each FixedRotation.
void sourceOf(int rotation, int x, int y, Size src, int& sx, int& sy) {
    switch (rotation) {
        case Rotate90: sx = y; sy = src.height - 1 - x; break;   // clockwise
        case Rotate180: sx = src.width - 1 - x; sy = src.height - 1 - y; break;
        case Rotate270: sx = src.width - 1 - y; sy = x; break;   // counter-clockwise
        default: sx = x; sy = y;
    }
}

::testing::AssertionResult rotatedCorrectly(const Frame& src, const Frame& dst, int rotation) {
    const FrameLayout& sl = src.layout();
    const FrameLayout& dl = dst.layout();
    for (uint32_t p = 0; p < sl.planes; ++p) {
        const int bytes = sl.plane[p].channels;
        for (int y = 0; y < dl.plane[p].size.height; ++y)
            for (int x = 0; x < dl.plane[p].size.width; ++x) {
                int sx, sy;
                sourceOf(rotation, x, y, sl.plane[p].size, sx, sy);
                if (std::memcmp(dst.rowCpuData(p, y) + x * bytes, src.rowCpuData(p, sy) + sx * bytes, size_t(bytes)))
                    return ::testing::AssertionFailure() << "plane " << p << " at " << x << "," << y;
            }
    }
    return ::testing::AssertionSuccess();
}

}  // namespace

TEST(CvHelpers, EmptyValues) {
    EXPECT_EQ(&emptyRoi(), &emptyRoi());
    EXPECT_TRUE(emptyRoi() == Rect(0, 0, 0, 0));
    EXPECT_EQ(&emptyFrame(), &emptyFrame());
    EXPECT_FALSE(emptyFrame().initialized());
}

TEST(CvHelpers, ResizeFrame) {
    const Frame src = kvtest::randomFrame(FRAME_BGR_8, Size(12, 8), 1);
    Frame dst;
    resizeFrame(src, Size(12, 8), dst, ResizeBilinear);  // own size: a deep copy
    EXPECT_TRUE(kvtest::framesEqual(src, dst));
    EXPECT_NE(dst.planeCpuData(0), src.planeCpuData(0));

    resizeFrame(src, Size(6, 4), dst, ResizeNearestNeighbour);
    ASSERT_EQ(dst.size(), Size(6, 4));
    EXPECT_EQ(dst.rowCpuData(0, 0)[0], src.rowCpuData(0, 1)[3]);  // centre of the 2x2 block: (1, 1)
    Frame via_backend(FRAME_BGR_8, Size(5, 3));
    CvBackendSimd b;
    b.setIntProperty(1, ResizeArea);
    b.resize(src, via_backend, Rect(), Rect());
    resizeFrame(src, Size(5, 3), dst, ResizeArea);
    EXPECT_TRUE(kvtest::framesEqual(via_backend, dst));

    resizeFrame(src, Size(0, 4), dst, ResizeBilinear);
    EXPECT_FALSE(dst.initialized());
    resizeFrame(src, Size(6, 4), dst, ResizeBilinear);
    resizeFrame(Frame(), Size(6, 4), dst, ResizeBilinear);
    EXPECT_FALSE(dst.initialized());
    EXPECT_KV_THROW(resizeFrame(src, Size(6, 4), dst, ResizeMethod(7)), 2,
                    "Assertion failed: value == ResizeBilinear || value == ResizeArea || value == "
                    "ResizeNearestNeighbour");
}

TEST(CvHelpers, ColorConvert) {
    const Frame src = kvtest::randomFrame(FRAME_BGR_8, Size(7, 5), 2);
    Frame dst;
    colorConvert(src, FRAME_BGR_8, dst);
    EXPECT_TRUE(kvtest::framesEqual(src, dst));
    colorConvert(src, FRAME_I420, dst);  // odd size allowed
    ASSERT_EQ(dst.format(), FRAME_I420);
    Frame expect(FRAME_I420, Size(7, 5));
    CvBackendSimd().colorCvt(src, expect, Rect());
    EXPECT_TRUE(kvtest::framesEqual(expect, dst));
    colorConvert(src, FRAME_UNDEFINED, dst);
    EXPECT_FALSE(dst.initialized());
    colorConvert(Frame(), FRAME_GRAY_8, dst);
    EXPECT_FALSE(dst.initialized());
    EXPECT_KV_THROW(colorConvert(src, FRAME_YUYV, dst), 8,
                    "colorCvt: Unsupported conversion FRAME_BGR_8 -> FRAME_YUYV.");
}

TEST(CvHelpers, FixedRotationsOfEveryPlaneKind) {
    // 1-byte planes (libyuv), 3-byte pixels (own kernel, both ISAs), 2- and
    // 4-byte pixels; odd sizes; chroma planes turn with their frames.
    const FrameFormat formats[] = {FRAME_GRAY_8, FRAME_BGR_8, FRAME_C2_8, FRAME_C4_8, FRAME_I420, FRAME_NV12,
                                   FRAME_BGR_8_PLANAR};
    for (impl::Isa isa : {impl::Isa::kScalar, impl::detectedIsa()}) {
        impl::setMaxIsaForTesting(isa);
        for (FrameFormat f : formats)
            for (Size size : {Size(37, 21), Size(8, 8), Size(1, 5), Size(64, 3)}) {
                const Frame src = kvtest::randomFrame(f, size, uint32_t(size.width + f));
                for (int r : {0, 1, 2, 3}) {
                    Frame dst;
                    rotateFrame(src, FixedRotation(r), dst);
                    const bool turned = r % 2 == 1;
                    ASSERT_EQ(dst.size(), turned ? Size(size.height, size.width) : size);
                    EXPECT_TRUE(rotatedCorrectly(src, dst, r))
                        << toString(f) << " " << size.width << "x" << size.height << " rotation " << r;
                }
            }
    }
    impl::setMaxIsaForTesting(impl::Isa::kAvx512);
    Frame vga(FRAME_GRAY_8, Size(640, 480)), out;
    vga.setZero();
    rotateFrame(vga, Rotate90, out);
    EXPECT_EQ(out.size(), Size(480, 640));
}

TEST(CvHelpers, FixedRotationErrors) {
    const char* fn = "kv::rotateFrame";
    Frame dst, gray(FRAME_GRAY_8, Size(4, 2));
    gray.setZero();
    EXPECT_KV_THROW_AT(rotateFrame(gray, FixedRotation(4), dst), 6, "Invalid fixed rotation 4", fn, kHelpersFile, 76);
    EXPECT_KV_THROW_AT(rotateFrame(gray, FixedRotation(-1), dst), 6, "Invalid fixed rotation -1", fn, kHelpersFile, 76);
    EXPECT_KV_THROW_AT(rotateFrame(Frame(), Rotate90, dst), 2, "Assertion failed: src.initialized()", fn, kHelpersFile,
                       54);
    Frame floats(FRAME_FLOAT_32, Size(4, 2));
    EXPECT_KV_THROW_AT(rotateFrame(floats, Rotate90, dst), 2,
                       "Assertion failed: src.layout().plane[0].bits_per_channel == 8", fn, kHelpersFile, 56);
    std::vector<uint8_t> mem(8);
    Frame gpu = Frame::wrap(FRAME_GRAY_8, Size(4, 2), mem.data(), 4, DeviceContext(KV_DEVICE_GPU, 0, nullptr));
    EXPECT_KV_THROW_AT(rotateFrame(gpu, Rotate90, dst), 2,
                       "Assertion failed: src.deviceContext() == DeviceContext::cpuContext()", fn, kHelpersFile, 55);
    Frame nv16(FRAME_NV16, Size(4, 2));
    nv16.setZero();
    EXPECT_KV_THROW_AT(rotateFrame(nv16, Rotate90, dst), 8,
                       "rotateFrame: Unsupported format FRAME_NV16 for rotation 1.", fn, kHelpersFile, 82);
    rotateFrame(nv16, Rotate180, dst);  // chroma keeps its shape
    EXPECT_EQ(dst.size(), Size(4, 2));
    rotateFrame(gray, Rotate0, dst);
    EXPECT_TRUE(kvtest::framesEqual(gray, dst));
}

TEST(CvHelpers, AngleRotation) {
    const Frame src = kvtest::randomFrame(FRAME_BGR_8, Size(40, 30), 8);
    Frame dst;
    Rect placed;
    // Angle 0: the rectangle itself.
    rotateFrame(src, Rect(10, 6, 9, 7), 0.f, dst, placed);
    EXPECT_TRUE(kvtest::framesEqual(getRegion(src, Rect(10, 6, 9, 7)), dst));
    EXPECT_TRUE(placed == Rect(0, 0, 9, 7));
    // 90 degrees counter-clockwise of an odd square about its centre pixel is
    // the fixed counter-clockwise turn.
    rotateFrame(src, Rect(12, 8, 7, 7), 90.f, dst, placed);
    Frame turned;
    rotateFrame(getRegion(src, Rect(12, 8, 7, 7)), Rotate270, turned);
    EXPECT_TRUE(kvtest::framesEqual(turned, dst));
    // A rectangle at the corner needs source pixels left of and above the
    // frame: they read as zero and the rectangle's centre stays the centre.
    const Rect corner(0, 0, 9, 9);
    rotateFrame(src, corner, 45.f, dst, placed);
    Rect roi;
    Size size;
    Rect expect_placed;
    getRotationRoi(45.f, corner, roi, size, expect_placed);
    ASSERT_LT(roi.x, 0);
    EXPECT_EQ(dst.size(), size);
    EXPECT_TRUE(placed == expect_placed);
    const uint8_t* centre = dst.rowCpuData(0, size.height / 2) + 3 * (size.width / 2);
    EXPECT_EQ(0, std::memcmp(centre, src.rowCpuData(0, 4) + 3 * 4, 3));
    EXPECT_EQ(0, dst.rowCpuData(0, 0)[0]);  // from outside the source

    // Rectangles reaching past any edge of the frame, or wholly outside it:
    // only the part inside is read, the rest is zero.
    for (Rect r : {Rect(-5, -4, 12, 10), Rect(35, 25, 12, 10), Rect(-3, 20, 50, 14), Rect(60, 60, 4, 4)}) {
        rotateFrame(src, r, 30.f, dst, placed);
        getRotationRoi(30.f, r, roi, size, expect_placed);
        EXPECT_EQ(dst.size(), size);
    }
    rotateFrame(src, Rect(60, 60, 4, 4), 0.f, dst, placed);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 12; ++x) EXPECT_EQ(dst.rowCpuData(0, y)[x], 0);

    EXPECT_KV_THROW_AT(rotateFrame(Frame(), corner, 10.f, dst, placed), 2, "Assertion failed: src.initialized()",
                       "kv::rotateFrame", kHelpersFile, 95);
    EXPECT_KV_THROW_AT(rotateFrame(src, Rect(1, 1, 0, 5), 10.f, dst, placed), 2, "Assertion failed: !rect.empty()",
                       "kv::rotateFrame", kHelpersFile, 97);
}

TEST(CvHelpers, InvertAffineTransform) {
    const float singular[6] = {1, 2, 3, 2, 4, 5};
    float inv[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_FALSE(invertAffineTransform(singular, inv));
    for (float v : inv) EXPECT_EQ(v, 0.f);

    const float scale[6] = {2, 0, 4, 0, 2, 6};
    const float expect[6] = {0.5f, 0, -2, 0, 0.5f, -3};
    EXPECT_TRUE(invertAffineTransform(scale, inv));
    for (int i = 0; i < 6; ++i) EXPECT_EQ(inv[i], expect[i]) << i;

    // A rotation composed with its inverse is the identity.
    float rot[2][3], back[6];
    getRotationMatrix2D(30.f, Point(5.f, 7.f), rot, 1.5f);
    ASSERT_TRUE(invertAffineTransform(&rot[0][0], back));
    const float px = 3.f, py = -2.f;
    const float qx = rot[0][0] * px + rot[0][1] * py + rot[0][2], qy = rot[1][0] * px + rot[1][1] * py + rot[1][2];
    EXPECT_NEAR(back[0] * qx + back[1] * qy + back[2], px, 1e-5);
    EXPECT_NEAR(back[3] * qx + back[4] * qy + back[5], py, 1e-5);

    const float nan_det[6] = {std::nanf(""), 0, 0, 0, 1, 0};
    EXPECT_FALSE(invertAffineTransform(nan_det, inv));
}

TEST(CvHelpers, HalfFloatRoundTripsEveryCode) {
    for (impl::Isa isa : {impl::Isa::kScalar, impl::detectedIsa()}) {
        impl::setMaxIsaForTesting(isa);
        std::vector<uint16_t> codes(65536), back(65536);
        for (size_t i = 0; i < codes.size(); ++i) codes[i] = uint16_t(i);
        std::vector<float> f(65536);
        convertFp16ToFp32(codes.data(), codes.size(), f.data());
        convertFp32ToFp16(f.data(), f.size(), back.data());
        for (size_t i = 0; i < codes.size(); ++i) {
            const bool nan = (i & 0x7c00) == 0x7c00 && (i & 0x3ff);
            ASSERT_EQ(back[i], nan ? uint16_t(i | 0x200) : uint16_t(i)) << std::hex << i << " " << impl::isaName(isa);
            if (nan) {
                ASSERT_TRUE(std::isnan(f[i]));
            }
        }
        EXPECT_EQ(f[0x3c00], 1.f);
        EXPECT_EQ(f[0xc000], -2.f);
        EXPECT_EQ(f[0x7bff], 65504.f);
        EXPECT_EQ(f[0x0001], std::ldexp(1.f, -24));
        EXPECT_TRUE(std::isinf(f[0x7c00]));
    }
    impl::setMaxIsaForTesting(impl::Isa::kAvx512);
}

TEST(CvHelpers, TensorFp16ToFp32) {
    const TensorLayout layout(TENSOR_FLOAT_16, TENSOR_NCHW, TensorSize{1, 3, 2, 5}, TensorSize(), TENSOR_ORDER_BGR);
    Tensor src(layout), dst;
    auto* h = static_cast<uint16_t*>(src.devicePtr().cpuData());
    for (size_t i = 0; i < src.byteSize() / 2; ++i) h[i] = uint16_t(0x3c00 + i);  // 1, 1 + 2^-10, ...
    tensorFp16ToFp32(src, dst);
    ASSERT_EQ(dst.layout().dataType(), TENSOR_FLOAT_32);
    EXPECT_EQ(dst.layout().format(), TENSOR_NCHW);
    EXPECT_EQ(dst.layout().channelOrder(), TENSOR_ORDER_BGR);
    EXPECT_TRUE(dst.layout().size() == layout.size());
    for (size_t a = 0; a < 4; ++a) EXPECT_EQ(dst.layout().strides()[a], 2 * layout.strides()[a]);
    const auto* f = static_cast<const float*>(dst.devicePtr().cpuData());
    for (size_t i = 0; i < 30; ++i) EXPECT_EQ(f[i], 1.f + float(i) / 1024.f);

    const char* fn = "kv::tensorFp16ToFp32";
    Tensor floats(TensorLayout(TENSOR_FLOAT_32, TENSOR_NCHW, TensorSize{1, 1, 2, 2}));
    const char* const kFp16 = "Assertion failed: src.initialized() && src.layout().dataType() == TENSOR_FLOAT_16";
    EXPECT_KV_THROW_AT(tensorFp16ToFp32(floats, dst), 2, kFp16, fn, kHelpersFile, 150);
    EXPECT_KV_THROW_AT(tensorFp16ToFp32(Tensor(), dst), 2, kFp16, fn, kHelpersFile, 150);
    Tensor gpu(layout, DeviceContext(KV_DEVICE_GPU, 0, nullptr));
    EXPECT_KV_THROW_AT(tensorFp16ToFp32(gpu, dst), 2,
                       "Assertion failed: src.deviceContext() == DeviceContext::cpuContext() && src.deviceContext() "
                       "== dst.deviceContext()",
                       fn, kHelpersFile, 151);
}
