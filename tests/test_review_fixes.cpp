// Regression tests of faults found in review: integer overflow in the bilinear
// position checks on very wide or tall sources.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "kv_core/kv_frame.h"
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

}  // namespace
