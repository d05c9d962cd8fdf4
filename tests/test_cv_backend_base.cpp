// CvBackendBase: assertions and messages, convert's order (scale, then
// convert), float arithmetic with and without regions, properties, and
// crop_and_resize into byte and float tensors checked against the same steps
// done by hand with the backend.
#include <gtest/gtest.h>

#include <vector>

#include "kv_cv/kv_cv_backend_base.h"
#include "alloc_count.h"
#include "test_util.h"

using namespace kv;

namespace {

struct Thrown {
    int status = -1;
    std::string message, function, file;
    int line = -1;
};

template <typename F>
Thrown thrown(F&& f) {
    Thrown t;
    try {
        f();
    } catch (const Exception& e) {
        t = {int(e.status()), e.message(), e.function(), e.file(), e.line()};
    }
    return t;
}

const DeviceContext kGpu(KV_DEVICE_GPU, 0, nullptr);

}  // namespace

TEST(CvBackendBaseTest, AssertionsAndMessages) {
    CvBackendBase b;
    const Frame none;
    Frame bgr(FRAME_BGR_8, Size(8, 6)), gray(FRAME_GRAY_8, Size(8, 6)), small(FRAME_GRAY_8, Size(4, 4));
    Frame gpu(FRAME_BGR_8, Size(8, 6), 0, kGpu);
    Frame f32(FRAME_FLOAT_32, Size(4, 4));
    const std::string dc = "src.deviceContext() == DeviceContext::cpuContext() && src.deviceContext() == dst.deviceContext()";
    struct Case {
        std::function<void()> call;
        int status;
        std::string message, function;
        int line;
    };
    const float m[2][3] = {{1, 0, 0}, {0, 1, 0}};
    const std::vector<Case> cases = {
        {[&] { b.colorCvt(none, gray, Rect()); }, 2, "Assertion failed: src.initialized()", "colorCvt", 42},
        {[&] { b.colorCvt(bgr, gpu, Rect()); }, 2, "Assertion failed: " + dc, "colorCvt", 45},
        {[&] { b.colorCvt(gpu, gpu, Rect()); }, 2, "Assertion failed: " + dc, "colorCvt", 45},
        {[&] { b.colorCvt(bgr, small, Rect()); }, 2, "Assertion failed: temp.size() == dst.size()", "colorCvt", 52},
        // Same format, region of another size: still no scaling.
        {[&] { b.colorCvt(bgr, bgr, Rect(0, 0, 4, 4)); }, 2, "Assertion failed: temp.size() == dst.size()", "colorCvt", 52},
        {[&] { b.resize(none, gray, Rect(), Rect()); }, 2,
         "Assertion failed: src.initialized() && src.format() == dst.format()", "resize", 77},
        {[&] { b.resize(bgr, gray, Rect(), Rect()); }, 2,
         "Assertion failed: src.initialized() && src.format() == dst.format()", "resize", 77},
        {[&] { b.resize(bgr, gpu, Rect(), Rect()); }, 2, "Assertion failed: " + dc, "resize", 80},
        {[&] { b.convert(bgr, const_cast<Frame&>(none), Rect()); }, 2,
         "Assertion failed: src.initialized() && dst.initialized()", "convert", 100},
        {[&] { b.convert(gpu, gray, Rect()); }, 2, "Assertion failed: " + dc, "convert", 103},
        {[&] { b.add(const_cast<Frame&>(none), 1.f, Rect()); }, 2, "Assertion failed: src_dst.initialized()", "add", 132},
        {[&] { b.mul(const_cast<Frame&>(none), 1.f, Rect()); }, 2, "Assertion failed: src_dst.initialized()", "mul", 172},
        {[&] { Frame g(FRAME_FLOAT_32, Size(2, 2), 0, kGpu); b.add(g, 1.f, Rect()); }, 2,
         "Assertion failed: src_dst.deviceContext() == DeviceContext::cpuContext()", "add", 133},
        {[&] { Frame g(FRAME_FLOAT_32, Size(2, 2), 0, kGpu); b.mul(g, 1.f, Rect()); }, 2,
         "Assertion failed: src_dst.deviceContext() == DeviceContext::cpuContext()", "mul", 173},
        {[&] { b.add(f32, 1.f, Rect(10, 10, 2, 2)); }, 2, "Assertion failed: !src_roi.empty()", "add", 138},
        {[&] { b.mul(f32, 1.f, Rect(-5, 0, 3, 2)); }, 2, "Assertion failed: !src_roi.empty()", "mul", 178},
        {[&] { b.add(bgr, 1.f, Rect()); }, 8, "ADD error, unsupported data type.", "add", 165},
        {[&] { b.mul(gray, 1.f, Rect()); }, 8, "MUL error, unsupported data type.", "mul", 205},
        {[&] { b.warpAffine(bgr, bgr, m, Rect(), false); }, 8, "Operation is not implemented", "warpAffine", 212},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        const Thrown t = thrown(cases[i].call);
        EXPECT_EQ(t.status, cases[i].status) << "case " << i;
        EXPECT_EQ(t.message, cases[i].message) << "case " << i;
        EXPECT_EQ(t.function, "kv::CvBackendBase::" + cases[i].function) << "case " << i;
        EXPECT_EQ(t.file, "src/kv_cv/kv_cv_backend_base") << "case " << i;
        EXPECT_EQ(t.line, cases[i].line) << "case " << i;
    }
}

TEST(CvBackendBaseTest, Properties) {
    CvBackendBase b;
    EXPECT_EQ(b.getIntProperty(1), 1);
    EXPECT_EQ(b.getIntProperty(2), -1);
    EXPECT_FALSE(b.setIntProperty(2, 0));
    EXPECT_EQ(b.getIntProperty(1), 1);
    EXPECT_TRUE(b.setIntProperty(1, 2));
    EXPECT_EQ(b.getIntProperty(1), 2);
    EXPECT_TRUE(b.setIntProperty(1, 9));  // not checked here; the scaler rejects it when used
    Frame src = kvtest::randomFrame(FRAME_GRAY_8, Size(8, 8), 1), dst(FRAME_GRAY_8, Size(4, 4));
    EXPECT_KV_THROW(b.resize(src, dst, Rect(), Rect()), 6, "Failure in Scaler::reuse(...) : parameter 'method' is invalid 9.");
    b.setDeviceContext(DeviceContext(KV_DEVICE_GPU, 1, nullptr));
    EXPECT_EQ(b.getDeviceContext(), DeviceContext::cpuContext());
}

TEST(CvBackendBaseTest, ResizeAndColorCvtMatchThePipeline) {
    CvBackendBase b;
    for (int method : {0, 1, 2}) {
        b.setIntProperty(1, method);
        Frame src = kvtest::randomFrame(FRAME_NV12, Size(38, 22), 3);
        Frame dst(FRAME_NV12, Size(20, 14));
        Frame expect;
        Scaler s;
        s.reuse(getRegion(src, Rect(2, 2, 30, 18)), Size(10, 6), ScaleMethod(method));
        produceFrame(s, expect);
        // Into a region of the destination; the rest stays as it was.
        dst.setZero();
        b.resize(src, dst, Rect(2, 2, 30, 18), Rect(4, 2, 10, 6));
        EXPECT_TRUE(kvtest::framesEqual(getRegion(dst, Rect(4, 2, 10, 6)), expect)) << method;
        EXPECT_EQ(dst.rowCpuData(0, 0)[0], 0);
    }
    Frame bgr = kvtest::randomFrame(FRAME_BGR_8, Size(9, 7), 4);
    Frame gray(FRAME_GRAY_8, Size(5, 3)), expect;
    b.colorCvt(bgr, gray, Rect(1, 2, 5, 3));
    FormatConverter c;
    c.reuse(getRegion(bgr, Rect(1, 2, 5, 3)), FRAME_GRAY_8);
    produceFrame(c, expect);
    EXPECT_TRUE(kvtest::framesEqual(gray, expect));
}

TEST(CvBackendBaseTest, ConvertScalesFirstThenConverts) {
    CvBackendBase b;
    Frame src = kvtest::randomFrame(FRAME_NV12, Size(64, 36), 5);
    Frame dst(FRAME_BGR_8, Size(22, 12));
    b.convert(src, dst, Rect(0, 0, 60, 30));
    // By hand: NV12 resize into a temporary, then NV12 -> BGR.
    Frame scaled(FRAME_NV12, Size(22, 12)), expect(FRAME_BGR_8, Size(22, 12));
    b.resize(src, scaled, Rect(0, 0, 60, 30), Rect());
    b.colorCvt(scaled, expect, Rect());
    EXPECT_TRUE(kvtest::framesEqual(dst, expect));
    // Equal formats: exactly resize without a destination region.
    Frame same(FRAME_NV12, Size(22, 12)), by_resize(FRAME_NV12, Size(22, 12));
    b.convert(src, same, Rect(4, 4, 40, 20));
    b.resize(src, by_resize, Rect(4, 4, 40, 20), Rect());
    EXPECT_TRUE(kvtest::framesEqual(same, by_resize));
}

TEST(CvBackendBaseTest, AddAndMulOnFloatFormats) {
    CvBackendBase b;
    for (FrameFormat f : {FRAME_FLOAT_32, FRAME_FLOAT_32_C3, FRAME_FLOAT_32_C3_PLANAR}) {
        for (Rect roi : {Rect(), Rect(1, 1, 3, 2), Rect(3, -2, 10, 4)}) {
            Frame fr = kvtest::randomFrame(f, Size(6, 4), 7);
            Frame orig;
            fr.copyTo(orig);
            b.add(fr, 2.5f, roi);
            b.mul(fr, -0.5f, roi);
            Rect in = roi.empty() ? Rect(0, 0, 6, 4) : roi;
            in.crop(Size(6, 4));
            const int ch = f == FRAME_FLOAT_32_C3 ? 3 : 1;
            for (uint32_t p = 0; p < fr.layout().planes; ++p)
                for (int y = 0; y < 4; ++y)
                    for (int x = 0; x < 6 * ch; ++x) {
                        const float o = reinterpret_cast<const float*>(orig.rowCpuData(p, y))[x];
                        const float v = reinterpret_cast<const float*>(fr.rowCpuData(p, y))[x];
                        const bool inside = y >= in.y && y < in.y + in.height && x / ch >= in.x && x / ch < in.x + in.width;
                        EXPECT_EQ(v, inside ? (o + 2.5f) * -0.5f : o) << toString(f) << " p" << p << " " << x << "," << y;
                    }
        }
    }
}

namespace {

float tensorAt(const Tensor& t, int n, int c, int y, int x) {
    const TensorLayout& l = t.layout();
    const auto& s = l.strides();
    const uint8_t* base = static_cast<const uint8_t*>(t.devicePtr().cpuData());
    const size_t off = l.format() == TENSOR_NCHW
                           ? size_t(n) * s[0] + size_t(c) * s[1] + size_t(y) * s[2] + size_t(x) * s[3]
                           : size_t(n) * s[0] + size_t(y) * s[1] + size_t(x) * s[2] + size_t(c) * s[3];
    return l.dataType() == TENSOR_FLOAT_32 ? *reinterpret_cast<const float*>(base + off) : float(base[off]);
}

}  // namespace

TEST(CropAndResizeTest, ByteNhwcAndFloatNchwWithAndWithoutLetterbox) {
    CvBackendBase b;
    Frame src = kvtest::randomFrame(FRAME_NV12, Size(96, 64), 11);
    const std::vector<Rect> crops = {Rect(), Rect(10, 8, 40, 30), Rect(80, 50, 40, 40) /* clipped */};
    for (bool letterbox : {false, true}) {
        for (TensorChannelOrder order : {TENSOR_ORDER_BGR, TENSOR_ORDER_RGB}) {
            std::vector<Rect> targets;
            if (letterbox) targets = {Rect(0, 4, 24, 10), Rect(), Rect(6, 0, 12, 18)};
            // 8-bit NHWC.
            Tensor u8(TensorLayout(TENSOR_UINT_8, TENSOR_NHWC, TensorSize{3, 18, 24, 3}, TensorSize(), order));
            crop_and_resize(b, src, u8, crops, targets, 0.f, 1.f);
            // Float NCHW, normalised.
            Tensor f32(TensorLayout(TENSOR_FLOAT_32, TENSOR_NCHW, TensorSize{3, 3, 18, 24}, TensorSize(), order));
            crop_and_resize(b, src, f32, crops, targets, -10.f, 0.25f);
            for (int i = 0; i < 3; ++i) {
                Rect c = crops[i].empty() ? Rect(0, 0, 96, 64) : crops[i];
                c.crop(src.size());
                const Rect t = targets.empty() || targets[i].empty() ? Rect(0, 0, 24, 18) : targets[i];
                Frame expect(FRAME_BGR_8, t.size());
                b.convert(src, expect, c);
                for (int y = 0; y < 18; ++y)
                    for (int x = 0; x < 24; ++x)
                        for (int ch = 0; ch < 3; ++ch) {
                            const bool inside = x >= t.x && x < t.x + t.width && y >= t.y && y < t.y + t.height;
                            const int bgr = order == TENSOR_ORDER_BGR ? ch : 2 - ch;
                            const float v = inside ? expect.rowCpuData(0, y - t.y)[(x - t.x) * 3 + bgr] : 0.f;
                            ASSERT_EQ(tensorAt(u8, i, ch, y, x), v) << i << " " << x << "," << y << "," << ch;
                            ASSERT_EQ(tensorAt(f32, i, ch, y, x), inside ? (v - 10.f) * 0.25f : 0.f)
                                << i << " " << x << "," << y << "," << ch;
                        }
            }
        }
    }
}

TEST(CropAndResizeTest, GrayTensorsAndTheBackendsEntryPoint) {
    CvBackendBase b;
    Frame src = kvtest::randomFrame(FRAME_BGR_8, Size(31, 17), 12);
    Tensor g(TensorLayout(TENSOR_FLOAT_32, TENSOR_NCHW, TensorSize{1, 1, 8, 9}, TensorSize(), TENSOR_ORDER_GRAY));
    b.cropAndResize(src, g, {Rect(1, 1, 20, 10)}, {});
    Frame expect(FRAME_GRAY_8, Size(9, 8));
    b.convert(src, expect, Rect(1, 1, 20, 10));
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 9; ++x) ASSERT_EQ(tensorAt(g, 0, 0, y, x), float(expect.rowCpuData(0, y)[x]));
}

TEST(CropAndResizeTest, Errors) {
    CvBackendBase b;
    Frame src = kvtest::randomFrame(FRAME_BGR_8, Size(16, 16), 13);
    Tensor t(TensorLayout(TENSOR_UINT_8, TENSOR_NHWC, TensorSize{2, 4, 4, 3}, TensorSize(), TENSOR_ORDER_BGR));
    const std::vector<Rect> two = {Rect(), Rect()};
    EXPECT_KV_THROW(crop_and_resize(b, src, t, {Rect()}, {}, 0, 1), 5,
                    "Failure in crop_and_resize(...) : parameter 'src_rois' holds 1 rectangles for a batch of 2.");
    EXPECT_KV_THROW(crop_and_resize(b, src, t, two, {Rect()}, 0, 1), 5,
                    "Failure in crop_and_resize(...) : parameter 'dst_rois' holds 1 rectangles for a batch of 2.");
    EXPECT_KV_THROW(crop_and_resize(b, src, t, two, {Rect(), Rect(2, 2, 3, 2)}, 0, 1), 5,
                    "Failure in crop_and_resize(...) : parameter 'dst_rois[1]' lies outside the 4x4 plane.");
    EXPECT_KV_THROW(crop_and_resize(b, src, t, {Rect(), Rect(20, 0, 4, 4)}, {}, 0, 1), 5,
                    "Failure in crop_and_resize(...) : parameter 'src_rois[1]' lies outside the frame.");
    EXPECT_KV_THROW(crop_and_resize(b, src, t, two, {}, 1, 1), 5,
                    "Failure in crop_and_resize(...) : parameters 'offset' and 'scale' must be 0 and 1 for 8-bit tensors.");
    Tensor four(TensorLayout(TENSOR_UINT_8, TENSOR_NHWC, TensorSize{1, 4, 4, 4}, TensorSize(), TENSOR_ORDER_BGR));
    EXPECT_KV_THROW(crop_and_resize(b, src, four, {Rect()}, {}, 0, 1), 8,
                    "Failure in crop_and_resize(...) : parameter 'dst' has 4 channels; 1 or 3 are supported.");
    Tensor half(TensorLayout(TENSOR_FLOAT_16, TENSOR_NCHW, TensorSize{1, 3, 4, 4}, TensorSize(), TENSOR_ORDER_BGR));
    EXPECT_KV_THROW(crop_and_resize(b, src, half, {Rect()}, {}, 0, 1), 8,
                    "Failure in crop_and_resize(...) : parameter 'dst' has an unsupported data type 6.");
    Tensor flat(TensorLayout(TENSOR_UINT_8, TENSOR_ND, TensorSize{48}));
    EXPECT_KV_THROW(crop_and_resize(b, src, flat, {Rect()}, {}, 0, 1), 8,
                    "Failure in crop_and_resize(...) : parameter 'dst' must be a 4-axis NCHW or NHWC tensor.");
    Tensor none;
    EXPECT_KV_THROW(crop_and_resize(b, src, none, {Rect()}, {}, 0, 1), 6,
                    "Failure in crop_and_resize(...) : parameter 'dst' is not initialized.");
    // Nothing was written by a call that failed validation.
    Tensor clean(TensorLayout(TENSOR_UINT_8, TENSOR_NHWC, TensorSize{2, 4, 4, 3}, TensorSize(), TENSOR_ORDER_BGR));
    clean.setZero();
    EXPECT_ANY_THROW(crop_and_resize(b, src, clean, {Rect(), Rect(99, 99, 2, 2)}, {}, 0, 1));
    for (int i = 0; i < 48; ++i) EXPECT_EQ(static_cast<const uint8_t*>(clean.devicePtr().cpuData())[i], 0);
}

TEST(CvBackendBaseTest, RepeatedCallsAllocateNothing) {
    CvBackendBase b;
    Frame nv12 = kvtest::randomFrame(FRAME_NV12, Size(64, 48), 21);
    Frame bgr(FRAME_BGR_8, Size(30, 20)), same(FRAME_NV12, Size(30, 20)), full(FRAME_BGR_8, Size(64, 48));
    Frame f32(FRAME_FLOAT_32_C3, Size(8, 8));
    Tensor t(TensorLayout(TENSOR_FLOAT_32, TENSOR_NCHW, TensorSize{2, 3, 16, 16}, TensorSize(), TENSOR_ORDER_RGB));
    const std::vector<Rect> crops = {Rect(), Rect(4, 4, 20, 30)}, targets = {Rect(0, 2, 16, 12), Rect()};
    auto all = [&] {
        b.convert(nv12, bgr, Rect(2, 2, 40, 30));
        b.resize(nv12, same, Rect(), Rect());
        b.colorCvt(nv12, full, Rect());
        b.add(f32, 1.f, Rect(1, 1, 3, 3));
        crop_and_resize(b, nv12, t, crops, targets, -1.f, 0.5f);
    };
    for (int method : {0, 1, 2}) {
        b.setIntProperty(1, method);
        all();
        const size_t before = kvtest::allocationCount();
        all();
        EXPECT_EQ(kvtest::allocationCount(), before) << "method " << method;
    }
}
