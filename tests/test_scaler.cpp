// Scaler facade: selection by method and changed dimensions (checked against
// the concrete scalers on the same source), the copy path, the inverted
// initialized(), error texts, and that steady-state reuse and production
// allocate nothing.
#include <gtest/gtest.h>

#include "alloc_count.h"
#include "kv_cv/kv_row_copier.h"
#include "kv_cv/kv_scaler.h"
#include "kv_cv/kv_scaler_bilinear.h"
#include "kv_cv/kv_scaler_nn.h"
#include "test_util.h"

namespace {

using kv::Frame;
using kv::Size;

template <typename Concrete, typename Arg>
Frame direct(const Frame& src, Arg arg) {
    Concrete s;
    s.reuse(src, arg);
    Frame out;
    kv::produceFrame(s, out);
    return out;
}

TEST(Scaler, SelectsByMethodAndDimensions) {
    const Frame src = kvtest::randomFrame(kv::FRAME_I420, Size(17, 11), 21);
    struct Case {
        Size dst;
        kv::ScaleMethod method;
        Frame want;
    };
    const Case cases[] = {
        {{9, 5}, kv::KV_SCALE_NEAREST, direct<kv::ScalerNearestNeighbor>(src, Size(9, 5))},
        {{17, 5}, kv::KV_SCALE_NEAREST, direct<kv::ScalerNearestNeighbor>(src, Size(17, 5))},
        {{30, 20}, kv::KV_SCALE_BILINEAR, direct<kv::ScalerBilinearXY>(src, Size(30, 20))},
        {{17, 20}, kv::KV_SCALE_BILINEAR, direct<kv::ScalerBilinearY>(src, 20)},
        {{8, 11}, kv::KV_SCALE_BILINEAR, direct<kv::ScalerBilinearX>(src, 8)},
        {{17, 11}, kv::KV_SCALE_BILINEAR, src},
    };
    kv::Scaler scaler;
    for (const Case& c : cases) {
        for (bool producer : {false, true}) {
            SCOPED_TRACE(::testing::Message() << c.dst.width << "x" << c.dst.height << " method " << c.method
                                              << (producer ? " producer" : " frame"));
            kv::RowCopier copier;
            kv::Scaler fresh;  // a window reads a producer once per lifetime of its row count
            if (producer) {
                copier.reuse(src);
                fresh.reuse(copier, c.dst, c.method);
            } else {
                scaler.reuse(src, c.dst, c.method);
            }
            kv::Scaler& s = producer ? fresh : scaler;
            EXPECT_FALSE(s.initialized());
            EXPECT_EQ(s.layout().size, c.dst);
            Frame out;
            kv::produceFrame(s, out);
            EXPECT_TRUE(kvtest::framesEqual(out, c.want));
        }
    }
}

// Equal sizes copy rows whatever the method, even one that does not exist.
TEST(Scaler, EqualSizeCopiesForAnyMethod) {
    const Frame src = kvtest::randomFrame(kv::FRAME_BGR_8, Size(5, 3), 1);
    kv::Scaler s;
    EXPECT_TRUE(s.initialized());  // inverted: nothing selected yet
    s.reuse(src, Size(5, 3), kv::ScaleMethod(7));
    EXPECT_FALSE(s.initialized());
    Frame out;
    kv::produceFrame(s, out);
    EXPECT_TRUE(kvtest::framesEqual(out, src));
}

TEST(Scaler, ReuseChecks) {
    const Frame empty;
    const Frame src = kvtest::randomFrame(kv::FRAME_GRAY_8, Size(6, 6), 1);
    kv::RowCopier none;
    kv::Scaler s;
    EXPECT_KV_THROW(s.reuse(empty, Size(3, 3), kv::KV_SCALE_BILINEAR), 2, "Assertion failed: src_frame.initialized()");
    EXPECT_KV_THROW(s.reuse(src, Size(3, 0), kv::KV_SCALE_BILINEAR), 2, "Assertion failed: !dst_size.empty()");
    EXPECT_KV_THROW(s.reuse(none, Size(3, 3), kv::KV_SCALE_BILINEAR), 2,
                    "Assertion failed: !src_producer.layout().size.empty()");
    EXPECT_TRUE(s.initialized());
    EXPECT_KV_THROW(s.reuse(src, Size(3, 3), kv::ScaleMethod(3)), 6,
                    "Failure in Scaler::reuse(...) : parameter 'method' is invalid 3.");
    try {
        s.reuse(src, Size(3, 3), kv::ScaleMethod(9));
    } catch (const kv::Exception& e) {
        EXPECT_EQ(e.function(), "kv::Scaler::Impl::reuse");
        EXPECT_EQ(e.file(), "src/kv_cv/kv_scaler");
    }
    // A failed reuse keeps the previous selection.
    s.reuse(src, Size(4, 4), kv::KV_SCALE_NEAREST);
    EXPECT_KV_THROW(s.reuse(src, Size(0, 4), kv::KV_SCALE_BILINEAR), 2, "Assertion failed: !dst_size.empty()");
    EXPECT_FALSE(s.initialized());
    EXPECT_EQ(s.layout().size, Size(4, 4));
}

// Steady state: the second reuse with the same sizes and the second
// produceFrame into the same frame make no heap allocation.
TEST(Scaler, SteadyStateAllocatesNothing) {
    struct Case {
        kv::FrameFormat format;
        Size src, dst;
        kv::ScaleMethod method;
    };
    const Case cases[] = {
        {kv::FRAME_BGR_8, {64, 48}, {30, 20}, kv::KV_SCALE_BILINEAR},
        {kv::FRAME_BGR_8, {30, 20}, {64, 48}, kv::KV_SCALE_BILINEAR},
        {kv::FRAME_I420, {64, 48}, {64, 21}, kv::KV_SCALE_BILINEAR},
        {kv::FRAME_NV12, {64, 48}, {22, 48}, kv::KV_SCALE_BILINEAR},
        {kv::FRAME_GRAY_16, {64, 48}, {31, 17}, kv::KV_SCALE_BILINEAR},
        {kv::FRAME_I420, {64, 48}, {20, 30}, kv::KV_SCALE_NEAREST},
        {kv::FRAME_GRAY_8, {64, 48}, {64, 48}, kv::KV_SCALE_NEAREST},
    };
    for (const Case& c : cases) {
        for (bool producer : {false, true}) {
            SCOPED_TRACE(::testing::Message() << kv::toString(c.format) << " method " << c.method
                                              << (producer ? " producer" : " frame"));
            const Frame src = kvtest::randomFrame(c.format, c.src, 5);
            kv::RowCopier copier;
            kv::Scaler s;
            Frame out;
            auto once = [&] {
                if (producer) {
                    copier.reuse(src);
                    s.reuse(copier, c.dst, c.method);
                } else {
                    s.reuse(src, c.dst, c.method);
                }
                kv::produceFrame(s, out);
            };
            once();
            const size_t before = kvtest::allocationCount();
            once();
            EXPECT_EQ(kvtest::allocationCount(), before);
        }
    }
}

}  // namespace
