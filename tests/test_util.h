// Shared helpers of the test suite: seeded random frames, row-exact frame
// comparison, where YUV samples sit, instruction-set capping, and exception matching (status and
// message, or everything an exception carries).
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kv_core/kv_exception.h"
#include "kv_core/kv_frame.h"
#include "kv_cv/kv_impl_cpu.h"
#include "frame_compare.h"

namespace kvtest {

// Fills every row byte of every plane with seeded random bytes (float formats
// get finite values in 0..255 so arithmetic stays meaningful).
inline void fillRandom(kv::Frame& f, uint32_t seed) {
    std::mt19937 rng(seed);
    const kv::FrameLayout& l = f.layout();
    for (uint32_t p = 0; p < l.planes; ++p) {
        for (int y = 0; y < l.plane[p].size.height; ++y) {
            uint8_t* row = f.rowCpuData(p, y);
            if (l.plane[p].bits_per_channel == 32) {
                float* fr = reinterpret_cast<float*>(row);
                for (uint64_t i = 0; i < l.plane[p].row_bytes / 4; ++i) fr[i] = float(rng() % 25600) / 100.f;
            } else {
                for (uint64_t i = 0; i < l.plane[p].row_bytes; ++i) row[i] = uint8_t(rng());
            }
        }
    }
}

inline kv::Frame randomFrame(kv::FrameFormat format, kv::Size size, uint32_t seed, size_t alignment = 0) {
    kv::Frame f(format, size, alignment);
    fillRandom(f, seed);
    return f;
}

// Compares the row bytes of every plane; reports the first difference.
inline ::testing::AssertionResult framesEqual(const kv::Frame& a, const kv::Frame& b) {
    const std::string d = frameDifference(a, b);
    if (d.empty()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << d;
}

inline bool isYuv(kv::FrameFormat f) { return f >= kv::FRAME_I420 && f <= kv::FRAME_YUV444_PLANAR; }

// Where the samples of a YUV format sit, as the frame format table gives them.
struct YuvModel {
    int xs, ys;              // chroma subsampling
    int up, uo, vp, vo, cs;  // chroma planes, first-byte offsets, step
    int yo, ystep;           // luma offset and step in plane 0
};

inline YuvModel yuvModel(kv::FrameFormat f) {
    switch (f) {
        case kv::FRAME_I420: return {2, 2, 1, 0, 2, 0, 1, 0, 1};
        case kv::FRAME_YV12: return {2, 2, 2, 0, 1, 0, 1, 0, 1};
        case kv::FRAME_NV12: return {2, 2, 1, 0, 1, 1, 2, 0, 1};
        case kv::FRAME_NV21: return {2, 2, 1, 1, 1, 0, 2, 0, 1};
        case kv::FRAME_YV16: return {2, 1, 2, 0, 1, 0, 1, 0, 1};
        case kv::FRAME_YUYV: return {2, 1, 0, 1, 0, 3, 4, 0, 2};
        case kv::FRAME_UYVY: return {2, 1, 0, 0, 0, 2, 4, 1, 2};
        case kv::FRAME_NV16: return {2, 1, 1, 0, 1, 1, 2, 0, 1};
        case kv::FRAME_YUV444: return {1, 1, 0, 1, 0, 2, 3, 0, 3};
        default: return {1, 1, 1, 0, 2, 0, 1, 0, 1};  // FRAME_YUV444_PLANAR
    }
}

// Luma of pixel (x, y); U or V of chroma sample (cx, cy). Writable for a
// non-const frame.
template <typename FrameT>
auto& lumaAt(FrameT& f, int x, int y) {
    const YuvModel m = yuvModel(f.format());
    return f.rowCpuData(0, y)[m.yo + x * m.ystep];
}
template <typename FrameT>
auto& chromaAt(FrameT& f, bool v, int cx, int cy) {
    const YuvModel m = yuvModel(f.format());
    return f.rowCpuData(v ? m.vp : m.up, cy)[(v ? m.vo : m.uo) + cx * m.cs];
}

// Caps the kernels' instruction set while it lives; the full set comes back
// when the test ends, however it ends.
struct IsaCap {
    explicit IsaCap(kv::impl::Isa isa) { kv::impl::setMaxIsaForTesting(isa); }
    ~IsaCap() { kv::impl::setMaxIsaForTesting(kv::impl::Isa::kAvx512); }
    IsaCap(const IsaCap&) = delete;
    IsaCap& operator=(const IsaCap&) = delete;
};

// The instruction sets this processor runs: the scalar references always,
// AVX2 and AVX-512 when present.
inline std::vector<kv::impl::Isa> availableIsas() {
    std::vector<kv::impl::Isa> v{kv::impl::Isa::kScalar};
    for (kv::impl::Isa isa : {kv::impl::Isa::kAvx2, kv::impl::Isa::kAvx512})
        if (kv::impl::detectedIsa() >= isa) v.push_back(isa);
    return v;
}

}  // namespace kvtest

// Expects `stmt` to throw kv::Exception with this status and exact message.
#define EXPECT_KV_THROW(stmt, status_value, message_text)                                   \
    do {                                                                                    \
        try {                                                                               \
            stmt;                                                                           \
            ADD_FAILURE() << "no exception from " #stmt;                                    \
        } catch (const kv::Exception& e_) {                                                 \
            EXPECT_EQ(int(e_.status()), int(status_value));                                 \
            EXPECT_EQ(e_.message(), std::string(message_text));                             \
        }                                                                                   \
    } while (0)


// Expects `stmt` to throw kv::Exception with this status, exact message,
// function, source file and line.
#define EXPECT_KV_THROW_AT(stmt, status_value, message_text, function_name, file_name, line_value) \
    do {                                                                                         \
        try {                                                                                    \
            stmt;                                                                                \
            ADD_FAILURE() << "no exception from " #stmt;                                         \
        } catch (const kv::Exception& e_) {                                                      \
            EXPECT_EQ(int(e_.status()), int(status_value)) << #stmt;                             \
            EXPECT_EQ(e_.message(), std::string(message_text)) << #stmt;                         \
            EXPECT_EQ(e_.function(), std::string(function_name)) << #stmt;                      \
            EXPECT_EQ(e_.file(), std::string(file_name)) << #stmt;                               \
            EXPECT_EQ(e_.line(), int(line_value)) << #stmt;                                      \
        }                                                                                        \
    } while (0)
