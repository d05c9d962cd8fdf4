// Regression tests of faults found in review: integer overflow in the bilinear
// position checks on very wide or tall sources; 16- and 32-bit samples of the
// area scalers, and floats of both backends' arithmetic and byte/float
// conversions, read and written at odd addresses (caller frames with odd
// pitches).
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "kv_core/kv_frame.h"
#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_row_producer.h"
#include "kv_cv/kv_scaler_area.h"
#include "kv_cv/kv_scaler_bilinear.h"
#include "test_util.h"

namespace {

using kv::Frame;
using kv::Size;

// Sides of 32768 and more do not fit the 16.16 tables: every bilinear scaler
// rejects them through its position check (status 2), with no signed overflow
// on the way (the sanitizer build traps one).
TEST(ReviewFixes, BilinearRejectsSidesPastTheTables) {
    for (const int side : {32768, 65536}) {
        SCOPED_TRACE(side);
        std::vector<uint8_t> bytes(size_t(side), 7);
        const Frame wide = Frame::wrap(kv::FRAME_GRAY_8, Size(side, 1), bytes.data(), size_t(side));
        const Frame tall = Frame::wrap(kv::FRAME_GRAY_8, Size(1, side), bytes.data(), 1);
        kv::ScalerBilinearX x;
        kv::ScalerBilinearY y;
        kv::ScalerBilinearXY xy;
        EXPECT_KV_THROW(x.reuse(wide, 1), kv::KV_STATUS_ASSERTION_FAILED,
                        "Assertion failed: _src_xs[dst_width - 1] < (src_size.width << SHIFT)");
        EXPECT_KV_THROW(y.reuse(tall, 1), kv::KV_STATUS_ASSERTION_FAILED,
                        "Assertion failed: _src_ys[dst_height - 1] < (src_layout.size.height << SHIFT)");
        EXPECT_KV_THROW(xy.reuse(wide, Size(1, 1)), kv::KV_STATUS_ASSERTION_FAILED,
                        "Assertion failed: _src_xs[dst_size.width - 1] < (src_size.width << SHIFT)");
        EXPECT_KV_THROW(xy.reuse(tall, Size(1, 1)), kv::KV_STATUS_ASSERTION_FAILED,
                        "Assertion failed: _src_ys[dst_size.height - 1] < (src_size.height << SHIFT)");
    }
}

// A copy of the one-plane frame `f` in `storage` at an odd address with an
// odd pitch, so that no 16- or 32-bit sample is aligned.
Frame oddCopy(const Frame& f, std::vector<uint8_t>& storage) {
    const size_t row = f.layout().plane[0].row_bytes, step = row + 1;
    storage.assign(1 + step * size_t(f.size().height), 0);
    Frame odd = Frame::wrap(f.format(), f.size(), storage.data() + 1, step);
    for (int y = 0; y < f.size().height; ++y) std::memcpy(odd.rowCpuData(0, y), f.rowCpuData(0, y), row);
    return odd;
}

// The area scalers give the same bytes from and into caller frames whose
// samples sit at odd addresses as between aligned frames.
TEST(ReviewFixes, AreaScalersWideSamplesAtOddAddresses) {
    const Size src_size(13, 9);
    for (const kv::FrameFormat format : {kv::FRAME_GRAY_16, kv::FRAME_GRAY_FLOAT_32}) {
        SCOPED_TRACE(kv::toString(format));
        const Frame src = kvtest::randomFrame(format, src_size, 31);
        std::vector<uint8_t> src_storage, dst_storage;
        const Frame odd_src = oddCopy(src, src_storage);
        // Runs `reuse` on both sources and compares the outputs.
        auto check = [&](kv::IRowProducer& producer, auto reuse, Size dst_size) {
            Frame expected;
            reuse(src);
            kv::produceFrame(producer, expected);
            Frame odd_dst = oddCopy(Frame(format, dst_size), dst_storage);
            reuse(odd_src);
            kv::produceFrame(producer, odd_dst);
            EXPECT_TRUE(kvtest::framesEqual(expected, odd_dst));
        };
        for (const Size dst_size : {Size(5, 4), Size(20, 17)}) {
            SCOPED_TRACE(::testing::Message() << dst_size.width << "x" << dst_size.height);
            kv::ScalerAreaX x;
            check(x, [&](const Frame& s) { x.reuse(s, dst_size.width, kv::KV_SCALER_FIXED_POINT_16S); },
                  Size(dst_size.width, src_size.height));
            kv::ScalerAreaY y;
            check(y, [&](const Frame& s) { y.reuse(s, dst_size.height, kv::KV_SCALER_FIXED_POINT_16S); },
                  Size(src_size.width, dst_size.height));
        }
        kv::scaleAreaXY xy;
        check(xy, [&](const Frame& s) { xy.reuse(s, Size(5, 4), kv::KV_SCALER_FIXED_POINT_16S); }, Size(5, 4));
    }
}

// Float planes at odd addresses: add and mul of both backends and the fast
// backend's byte <-> float conversions give the aligned frames' bytes. Rows of
// 30 values run the scalar tails, 3 x 40 values the vector bulk too.
TEST(ReviewFixes, FloatPlanesAtOddAddresses) {
    for (const int width : {10, 40}) {
        SCOPED_TRACE(width);
        const Size size(width, 3);
        const Frame bgr = kvtest::randomFrame(kv::FRAME_BGR_8, size, 5);
        kv::CvBackendSimd simd;
        kv::CvBackendBase base;
        for (kv::ICvBackend* backend : {static_cast<kv::ICvBackend*>(&simd), static_cast<kv::ICvBackend*>(&base)})
            for (const kv::FrameFormat format : {kv::FRAME_FLOAT_32, kv::FRAME_FLOAT_32_C3}) {
                Frame aligned = kvtest::randomFrame(format, size, 9);
                std::vector<uint8_t> storage;
                Frame odd = oddCopy(aligned, storage);
                for (Frame* f : {&aligned, &odd}) {
                    backend->add(*f, 1.5f, kv::Rect());
                    backend->mul(*f, 0.75f, kv::Rect());
                }
                EXPECT_TRUE(kvtest::framesEqual(aligned, odd));
            }
        Frame floats(kv::FRAME_FLOAT_32_C3, size), back(kv::FRAME_BGR_8, size);
        simd.colorCvt(bgr, floats, kv::Rect());
        std::vector<uint8_t> storage;
        Frame odd_floats = oddCopy(Frame(kv::FRAME_FLOAT_32_C3, size), storage);
        simd.colorCvt(bgr, odd_floats, kv::Rect());
        EXPECT_TRUE(kvtest::framesEqual(floats, odd_floats));
        simd.colorCvt(odd_floats, back, kv::Rect());
        EXPECT_TRUE(kvtest::framesEqual(bgr, back));
    }
}

}  // namespace
