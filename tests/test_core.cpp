// Core types: layouts of every format, frames and regions, wrapped memory,
// the exception, StaticVector, tensors, rotation geometry, float arithmetic.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "kv_core/kv_core.h"
#include "kv_core/kv_core_impl.h"
#include "test_util.h"

using namespace kv;

namespace {

struct Expect {
    FrameFormat format;
    uint32_t planes;
    // per plane: x and y subsampling, bytes per unit
    int sx[3], sy[3], bytes[3];
};

const Expect kFormats[] = {
    {FRAME_GRAY_8, 1, {1}, {1}, {1}},
    {FRAME_RGB_8, 1, {1}, {1}, {3}},
    {FRAME_RGB_8_PLANAR, 3, {1, 1, 1}, {1, 1, 1}, {1, 1, 1}},
    {FRAME_BGR_8, 1, {1}, {1}, {3}},
    {FRAME_BGR_8_PLANAR, 3, {1, 1, 1}, {1, 1, 1}, {1, 1, 1}},
    {FRAME_I420, 3, {1, 2, 2}, {1, 2, 2}, {1, 1, 1}},
    {FRAME_YV12, 3, {1, 2, 2}, {1, 2, 2}, {1, 1, 1}},
    {FRAME_NV12, 2, {1, 2}, {1, 2}, {1, 2}},
    {FRAME_NV21, 2, {1, 2}, {1, 2}, {1, 2}},
    {FRAME_YV16, 3, {1, 2, 2}, {1, 1, 1}, {1, 1, 1}},
    {FRAME_YUYV, 1, {1}, {1}, {2}},
    {FRAME_UYVY, 1, {1}, {1}, {2}},
    {FRAME_NV16, 2, {1, 2}, {1, 1}, {1, 2}},
    {FRAME_YUV444, 1, {1}, {1}, {3}},
    {FRAME_YUV444_PLANAR, 3, {1, 1, 1}, {1, 1, 1}, {1, 1, 1}},
    {FRAME_C2_8, 1, {1}, {1}, {2}},
    {FRAME_C3_8, 1, {1}, {1}, {3}},
    {FRAME_C4_8, 1, {1}, {1}, {4}},
    {FRAME_GRAY_16, 1, {1}, {1}, {2}},
    {FRAME_GRAY_FLOAT_32, 1, {1}, {1}, {4}},
    {FRAME_FLOAT_32, 1, {1}, {1}, {4}},
    {FRAME_FLOAT_32_C3, 1, {1}, {1}, {12}},
    {FRAME_FLOAT_32_C3_PLANAR, 3, {1, 1, 1}, {1, 1, 1}, {4, 4, 4}},
};

const Size kSizes[] = {{1, 1}, {2, 2}, {5, 3}, {6, 4}, {7, 1}, {641, 479}};

}  // namespace

TEST(FrameLayoutTest, EveryFormatAtOddAndEvenSizes) {
    for (const Expect& e : kFormats) {
        for (Size s : kSizes) {
            for (size_t align : {size_t(0), size_t(1), size_t(16), size_t(128)}) {
                SCOPED_TRACE(std::string(toString(e.format)) + " " + std::to_string(s.width) + "x" +
                             std::to_string(s.height) + " align " + std::to_string(align));
                FrameLayout l(e.format, s, align);
                ASSERT_TRUE(l.initialized());
                ASSERT_EQ(l.planes, e.planes);
                const uint64_t a = align ? align : 64;
                int64_t expected_offset = 0;
                for (uint32_t p = 0; p < l.planes; ++p) {
                    const Size ps((s.width + e.sx[p] - 1) / e.sx[p], (s.height + e.sy[p] - 1) / e.sy[p]);
                    EXPECT_EQ(l.plane[p].size, ps);
                    const bool packed422 = e.format == FRAME_YUYV || e.format == FRAME_UYVY;
                    const uint64_t rb = packed422 ? uint64_t((s.width + 1) / 2 * 4) : uint64_t(ps.width) * e.bytes[p];
                    EXPECT_EQ(l.plane[p].rowBytes(), rb);
                    EXPECT_EQ(l.plane[p].step % a, 0u);
                    EXPECT_GE(l.plane[p].step, rb);
                    EXPECT_LT(l.plane[p].step, rb + a);
                    EXPECT_EQ(l.plane[p].offset, expected_offset);
                    expected_offset += int64_t(l.plane[p].step) * ps.height;
                }
                if (align == 1) {
                    EXPECT_TRUE(l.isContinuous());
                }
            }
        }
    }
    // A padded layout is continuous only when padding happens to vanish.
    EXPECT_FALSE(FrameLayout(FRAME_BGR_8, Size(5, 3), 64).isContinuous());
    EXPECT_TRUE(FrameLayout(FRAME_GRAY_8, Size(64, 3), 64).isContinuous());
    EXPECT_FALSE(FrameLayout(FRAME_I420, Size(64, 4), 64).isContinuous());  // chroma rows 32 of 64
}

TEST(FrameLayoutTest, UninitialisedLayouts) {
    EXPECT_FALSE(FrameLayout().initialized());
    EXPECT_FALSE(FrameLayout(FRAME_UNDEFINED, Size(4, 4)).initialized());
    EXPECT_FALSE(FrameLayout(FRAME_BGR_8, Size(0, 4)).initialized());
    EXPECT_FALSE(FrameLayout(FRAME_BGR_8, Size(4, -1)).initialized());
    for (int reserved : {21, 22, 23, 27, -1}) EXPECT_FALSE(FrameLayout(FrameFormat(reserved), Size(4, 4)).initialized());
    EXPECT_FALSE(Frame().initialized());
    EXPECT_FALSE(Frame(FRAME_BGR_8, Size(0, 0)).initialized());
    EXPECT_KV_THROW(Frame(FrameFormat(22), Size(2, 2)), 8, "Unsupported frame format 22.");
}

TEST(FrameLayoutTest, FormatNames) {
    EXPECT_STREQ(toString(FRAME_BGR_8), "FRAME_BGR_8");
    EXPECT_STREQ(toString(FRAME_NV12), "FRAME_NV12");
    EXPECT_STREQ(toString(FRAME_FLOAT_32_C3_PLANAR), "FRAME_FLOAT_32_C3_PLANAR");
    EXPECT_STREQ(toString(FrameFormat(22)), "FRAME_UNKNOWN");
    EXPECT_STREQ(toString(FrameFormat(1000)), "FRAME_UNKNOWN");
}

TEST(FrameTest, CopiesShareMemoryAndReuseKeepsIt) {
    Frame a(FRAME_BGR_8, Size(8, 4));
    Frame b = a;
    EXPECT_EQ(a.planeCpuData(0), b.planeCpuData(0));
    const uint8_t* before = a.planeCpuData(0);
    a.reuse(FRAME_BGR_8, Size(8, 4), DeviceContext::cpuContext(), 0);
    EXPECT_EQ(a.planeCpuData(0), before);  // same arguments: nothing happens
    // A smaller image in memory that another frame still shares must not alias it.
    a.reuse(FRAME_GRAY_8, Size(4, 4), DeviceContext::cpuContext(), 0);
    EXPECT_NE(a.planeCpuData(0), b.planeCpuData(0));
    // Unshared memory large enough is kept.
    Frame c(FRAME_BGR_8, Size(64, 64));
    const uint8_t* cp = c.planeCpuData(0);
    c.reuse(FRAME_GRAY_8, Size(32, 32), DeviceContext::cpuContext(), 0);
    EXPECT_EQ(c.planeCpuData(0), cp);
    c.clear();
    EXPECT_FALSE(c.initialized());
}

TEST(FrameTest, CopyToAndSetZero) {
    Frame src = kvtest::randomFrame(FRAME_NV12, Size(7, 5), 1);
    Frame dst;
    src.copyTo(dst);
    EXPECT_TRUE(kvtest::framesEqual(src, dst));
    EXPECT_NE(src.planeCpuData(0), dst.planeCpuData(0));
    Frame padded(FRAME_NV12, Size(7, 5), 128);
    src.copyTo(padded);  // same format and size, other pitches: written in place
    EXPECT_EQ(padded.layout().plane[0].step, 128u);
    EXPECT_TRUE(kvtest::framesEqual(src, padded));
    padded.setZero();
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) EXPECT_EQ(padded.rowCpuData(0, y)[x], 0);
}

TEST(FrameTest, RegionsOfSubsampledFrames) {
    Frame f(FRAME_I420, Size(9, 7));
    Frame r = getRegion(f, Rect(2, 4, 5, 3));
    EXPECT_EQ(r.size(), Size(5, 3));
    EXPECT_EQ(r.layout().plane[1].size, Size(3, 2));
    EXPECT_EQ(r.planeCpuData(0), f.rowCpuData(0, 4) + 2);
    EXPECT_EQ(r.planeCpuData(1), f.rowCpuData(1, 2) + 1);
    EXPECT_EQ(r.planeCpuData(2), f.rowCpuData(2, 2) + 1);
    EXPECT_EQ(r.layout().plane[1].step, f.layout().plane[1].step);
    EXPECT_FALSE(r.ownsMemory());

    Frame nv = kvtest::randomFrame(FRAME_NV12, Size(10, 6), 3);
    Frame rn = getRegion(nv, Rect(4, 2, 6, 4));
    EXPECT_EQ(rn.planeCpuData(1), nv.rowCpuData(1, 1) + 4);  // 2 chroma pairs of 2 bytes
    EXPECT_EQ(rn.layout().plane[1].rowBytes(), 6u);

    Frame yuyv(FRAME_YUYV, Size(10, 2));
    Frame ry = getRegion(yuyv, Rect(4, 1, 5, 1));
    EXPECT_EQ(ry.planeCpuData(0), yuyv.rowCpuData(0, 1) + 8);
    EXPECT_EQ(ry.layout().plane[0].rowBytes(), 12u);

    Frame f3(FRAME_FLOAT_32_C3, Size(4, 4));
    EXPECT_EQ(getRegion(f3, Rect(1, 1, 2, 2)).planeCpuData(0), f3.rowCpuData(0, 1) + 12);

    // Writing through a view reaches the parent.
    rn.rowCpuData(0, 0)[0] = 77;
    EXPECT_EQ(nv.rowCpuData(0, 2)[4], 77);
}

TEST(FrameTest, WrapsCallerMemory) {
    std::vector<uint8_t> y(20 * 5, 1), uv(12 * 3, 2);
    void* planes[] = {y.data(), uv.data()};
    size_t steps[] = {20, 12};
    Frame f = Frame::wrap(FRAME_NV12, Size(9, 5), planes, steps);
    ASSERT_TRUE(f.initialized());
    EXPECT_FALSE(f.ownsMemory());
    EXPECT_EQ(f.planeCpuData(0), y.data());
    EXPECT_EQ(f.planeCpuData(1), uv.data());
    EXPECT_EQ(f.rowCpuData(1, 2), uv.data() + 24);
    EXPECT_EQ(f.layout().plane[1].rowBytes(), 10u);

    size_t narrow[] = {8, 12};
    EXPECT_KV_THROW(Frame::wrap(FRAME_NV12, Size(9, 5), planes, narrow), 5, "Parameter 'steps[0]' is out of range: 8.");
    void* nulls[] = {y.data(), nullptr};
    EXPECT_KV_THROW(Frame::wrap(FRAME_NV12, Size(9, 5), nulls, steps), 4, "Parameter 'planes[1]' is null.");

    // One block with one pitch: I420 chroma rows take half the pitch.
    std::vector<uint8_t> block(16 * 4 + 8 * 2 * 2);
    Frame i420 = Frame::wrap(FRAME_I420, Size(16, 4), block.data(), 16);
    EXPECT_EQ(i420.planeCpuData(1), block.data() + 64);
    EXPECT_EQ(i420.planeCpuData(2), block.data() + 80);
    EXPECT_EQ(i420.layout().plane[1].step, 8u);
}

TEST(ExceptionTest, CarriesStatusMessageFunctionFileLine) {
    try {
        throw Exception(nullptr, KV_STATUS_OUT_OF_RANGE, "kv::Foo::bar", "src/kv_cv/kv_foo", 12, "value %d of %s", 3,
                        "x");
    } catch (const Exception& e) {
        EXPECT_EQ(e.status(), 5);
        EXPECT_EQ(e.message(), "value 3 of x");
        EXPECT_STREQ(e.what(), "value 3 of x");
        EXPECT_EQ(e.function(), "kv::Foo::bar");
        EXPECT_EQ(e.file(), "src/kv_cv/kv_foo");
        EXPECT_EQ(e.line(), 12);
        EXPECT_EQ(e.inner(), nullptr);
        const Exception outer(&e, e.status(), "kv::Outer", "f", 1, "wrapped: %s", e.message().c_str());
        const Exception copy = outer;  // copyable, cause included
        ASSERT_NE(copy.inner(), nullptr);
        EXPECT_EQ(copy.inner()->message(), "value 3 of x");
        EXPECT_EQ(copy.message(), "wrapped: value 3 of x");
    }
    const std::string long_text(1000, 'a');
    EXPECT_EQ(Exception(nullptr, KV_STATUS_ERROR, "f", "f", 1, "%s!", long_text.c_str()).message(), long_text + "!");
}

TEST(StaticVectorTest, Limits) {
    StaticVector<int, 4> v;
    v.pushBack(1);
    v.pushBack(3);
    v.insert(1, 2);
    v.insert(3, 4);
    ASSERT_EQ(v.size(), 4u);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(v[i], i + 1);
    try {
        v.pushBack(5);
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.status(), 2);
        EXPECT_EQ(e.message(), "No room for new element. StaticVector is full.");
        EXPECT_EQ(e.function(), "kv::StaticVector<int,4>::pushBack");
        EXPECT_EQ(e.file(), "include/kv_core/kv_static_vector");
    }
    EXPECT_KV_THROW(v.insert(0, 9), 2, "No room for new element. StaticVector is full.");
    try {
        v.remove(4);
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.status(), 5);
        EXPECT_EQ(e.message(), "Parameter 'index' is out of range: 4");
        EXPECT_EQ(e.function(), "kv::StaticVector<int,4>::remove");
    }
    v.remove(0);
    EXPECT_EQ(v.size(), 3u);
    EXPECT_EQ(v[0], 2);
    EXPECT_KV_THROW(v.insert(4, 9), 5, "Parameter 'index' is out of range: 4");
    v.insert(3, 9);  // insert at the end is allowed
    EXPECT_EQ(v[3], 9);
}

TEST(RectTest, Crop) {
    struct Case { Rect in; Size size; Rect out; };
    const Case cases[] = {
        {{2, 3, 4, 5}, {10, 10}, {2, 3, 4, 5}},
        {{-2, -3, 6, 6}, {10, 10}, {0, 0, 4, 3}},
        {{8, 8, 5, 5}, {10, 10}, {8, 8, 2, 2}},
        {{20, 1, 5, 5}, {10, 10}, {10, 1, 0, 0}},
        {{-9, -9, 3, 3}, {10, 10}, {0, 0, 0, 0}},
        {{1, 1, 0, 4}, {10, 10}, {1, 1, 0, 0}},
    };
    for (const Case& c : cases) {
        Rect r = c.in;
        r.crop(c.size);
        EXPECT_EQ(r, c.out) << c.in.x << "," << c.in.y;
        EXPECT_EQ(r.empty(), c.out.empty());
    }
}

TEST(DeviceContextTest, CpuContextsCompareEqual) {
    EXPECT_EQ(DeviceContext::cpuContext(), DeviceContext::cpuContext());
    EXPECT_EQ(DeviceContext(), DeviceContext::cpuContext());
    EXPECT_NE(DeviceContext(KV_DEVICE_GPU, 0, nullptr), DeviceContext::cpuContext());
    int h = 0;
    EXPECT_NE(DeviceContext(KV_DEVICE_CPU, 0, &h), DeviceContext::cpuContext());
}

TEST(BufferTest, ResizeKeepsAndSlack) {
    Buffer b;
    b.resize(10);
    std::memset(b.data(), 7, 10);
    uint8_t* p = b.data();
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 64, 0u);
    b.resize(4);
    EXPECT_EQ(b.data(), p);  // shrinking keeps the block
    b.resize(1000, true);
    EXPECT_EQ(b.data()[3], 7);
    for (size_t i = 1000; i < 1000 + Buffer::kSlack; ++i) EXPECT_EQ(b.data()[i], 0);  // readable slack
    b.setZero();
    EXPECT_EQ(b.data()[3], 0);
    b.clear();
    EXPECT_EQ(b.devicePtr().cpuData(), nullptr);
}

TEST(TensorTest, LayoutsAndMemory) {
    TensorLayout l(TENSOR_FLOAT_32, TENSOR_NCHW, TensorSize{2, 3, 4, 5}, TensorSize(), TENSOR_ORDER_BGR);
    ASSERT_TRUE(l.initialized());
    EXPECT_EQ(l.strides(), (TensorSize{240, 80, 20, 4}));
    EXPECT_EQ(l.byteSize(), 480u);
    EXPECT_EQ(l.dataType(), TENSOR_FLOAT_32);
    Tensor t(l);
    ASSERT_TRUE(t.initialized());
    void* p = t.devicePtr().cpuData();
    t.reuse(TensorLayout(TENSOR_UINT_8, TENSOR_NHWC, TensorSize{1, 4, 4, 3}));
    EXPECT_EQ(t.devicePtr().cpuData(), p);
    EXPECT_FALSE(Tensor().initialized());
    EXPECT_FALSE(TensorLayout(TENSOR_FLOAT_16, TENSOR_NCHW, TensorSize{1, 0, 2, 2}).initialized());
    // Explicit strides: a padded row.
    TensorLayout padded(TENSOR_FLOAT_16, TENSOR_NHWC, TensorSize{1, 2, 3, 1}, TensorSize{64, 32, 2, 2});
    EXPECT_EQ(padded.byteSize(), 32u + 4u + 2u);
}

TEST(TensorTest, WrapViewsCallerMemory) {
    // A padded NHWC byte tensor inside a larger block with sentinels around it.
    const TensorLayout l(TENSOR_UINT_8, TENSOR_NHWC, TensorSize{1, 2, 3, 1}, TensorSize{64, 32, 1, 1});
    std::vector<uint8_t> block(l.byteSize() + 16, 0xAB);
    Tensor t = Tensor::wrap(l, block.data() + 8);
    ASSERT_TRUE(t.initialized());
    EXPECT_EQ(t.devicePtr().cpuData(), block.data() + 8);
    Tensor copy = t;  // copies share the view
    EXPECT_EQ(copy.devicePtr().cpuData(), block.data() + 8);
    t.setZero();
    for (size_t i = 0; i < block.size(); ++i)
        EXPECT_EQ(block[i], i >= 8 && i < 8 + l.byteSize() ? 0 : 0xAB) << "byte " << i;
    // reuse() never writes into the caller's block: it allocates.
    t.reuse(l);
    EXPECT_NE(t.devicePtr().cpuData(), block.data() + 8);
    EXPECT_FALSE(Tensor::wrap(l, nullptr).initialized());
    EXPECT_FALSE(Tensor::wrap(TensorLayout(), block.data()).initialized());
}

TEST(RotationTest, MatrixAndRoi) {
    float m[2][3];
    getRotationMatrix2D(90.f, Point(10.f, 20.f), m, 1.f);
    // Forward map of a quarter turn counter-clockwise: (cx + dy, cy - dx).
    const float x = 15.f, y = 20.f;
    EXPECT_NEAR(m[0][0] * x + m[0][1] * y + m[0][2], 10.f, 1e-4);
    EXPECT_NEAR(m[1][0] * x + m[1][1] * y + m[1][2], 15.f, 1e-4);
    getRotationMatrix2D(0.f, Point(3.f, 3.f), m, 2.f);
    EXPECT_FLOAT_EQ(m[0][0], 2.f);
    EXPECT_FLOAT_EQ(m[0][2], -3.f);

    Rect bounding, placed;
    Size size;
    getRotationRoi(0.f, Rect(5, 6, 40, 30), bounding, size, placed);
    EXPECT_EQ(bounding, Rect(5, 6, 40, 30));
    EXPECT_EQ(size, Size(40, 30));
    EXPECT_EQ(placed, Rect(0, 0, 40, 30));
    getRotationRoi(90.f, Rect(100, 100, 40, 30), bounding, size, placed);
    EXPECT_EQ(size, Size(40, 40));  // 30 wide, 40 high fits after padding the height
    EXPECT_EQ(bounding, Rect(100, 95, 40, 35));
    EXPECT_EQ(placed, Rect(5, 0, 30, 40));
    getRotationRoi(45.f, Rect(0, 0, 10, 10), bounding, size, placed);
    EXPECT_EQ(placed.width, 15);  // ceil(10 * sqrt(2))
    EXPECT_GE(size.width, placed.width);
    EXPECT_EQ(bounding.x + bounding.width, 10);  // ends at the rectangle's corner
    EXPECT_EQ(bounding.width - 10, -bounding.x);
}

class ArithmeticTest : public ::testing::TestWithParam<int> {};

TEST_P(ArithmeticTest, VectorMatchesScalarInsideRegionOnly) {
    if (!impl::cpuHasAvx2()) GTEST_SKIP() << "no AVX2";
    const int period = GetParam();
    const float pattern[3] = {1.5f, -2.25f, 3.125f};
    for (int w = 1; w <= 67; ++w) {
        const int cols = w + 3, rows = 3;
        const size_t step = size_t(cols) * period * 4 + 12;
        std::vector<uint8_t> a(step * rows), b;
        for (size_t i = 0; i < a.size() / 4; ++i) reinterpret_cast<float*>(a.data())[i] = float(i % 97) * 0.37f - 5.f;
        b = a;
        const std::vector<uint8_t> orig = a;
        const Rect region(1, 1, w, 1);
        for (bool add : {true, false}) {
            impl::ref::arithConstant(add, pattern, period, a.data(), step, region);
            impl::avx2::arithConstant(add, pattern, period, b.data(), step, region);
            ASSERT_EQ(a, b) << "width " << w << (add ? " add" : " mul");
        }
        // Outside the region nothing changed.
        for (size_t i = 0; i < a.size(); ++i) {
            const size_t row = i / step, col = (i % step) / (4 * size_t(period));
            if (row == 1 && col >= 1 && col <= size_t(w) && (i % step) < size_t(cols) * period * 4) continue;
            ASSERT_EQ(a[i], orig[i]) << "byte " << i << " width " << w;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Periods, ArithmeticTest, ::testing::Values(1, 3));

TEST(ArithmeticTest, PublicFunctionsPerChannel) {
    Frame f(FRAME_FLOAT_32_C3, Size(5, 2));
    for (int y = 0; y < 2; ++y)
        for (int i = 0; i < 15; ++i) reinterpret_cast<float*>(f.rowCpuData(0, y))[i] = 1.f;
    const float v[3] = {1.f, 2.f, 3.f};
    addConstant_32f_C3(v, f.planeCpuData(0), f.layout().plane[0].step, Rect(1, 1, 3, 1));
    mulConstant_32f_C3(v, f.planeCpuData(0), f.layout().plane[0].step, Rect(2, 1, 1, 1));
    const float* r1 = reinterpret_cast<const float*>(f.rowCpuData(0, 1));
    const float expect[15] = {1, 1, 1, 2, 3, 4, 2, 6, 12, 2, 3, 4, 1, 1, 1};
    for (int i = 0; i < 15; ++i) EXPECT_EQ(r1[i], expect[i]) << i;
    Frame g(FRAME_FLOAT_32, Size(3, 1));
    float* gr = reinterpret_cast<float*>(g.planeCpuData(0));
    gr[0] = gr[1] = gr[2] = 2.f;
    mulConstant_32f_C1(0.5f, g.planeCpuData(0), int(g.layout().plane[0].step), Rect(0, 0, 2, 1));
    addConstant_32f_C1(4.f, g.planeCpuData(0), int(g.layout().plane[0].step), Rect(0, 0, 3, 1));
    EXPECT_EQ(gr[0], 5.f);
    EXPECT_EQ(gr[2], 6.f);
}
