// Shared pieces of the fuzz targets: choices drawn from the fuzzer's bytes,
// frames over exactly sized heap blocks (one per plane, so that a read or
// write past a plane's last row byte trips AddressSanitizer), and the rule of
// accepted outcomes.
//
// A target is one file fuzz/fuzz_<name>.cpp defining LLVMFuzzerTestOneInput,
// with seeds in fuzz/corpus/<name>/; fuzz/CMakeLists.txt picks both up. Every
// call into the library goes through kvfuzz::guarded: kv::Exception, and
// std::bad_alloc for sizes no machine holds, are accepted outcomes; any other
// exception escapes and libFuzzer reports it, as it reports crashes,
// sanitizer findings, hangs (-timeout) and memory past -rss_limit_mb.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "kv_core/kv_exception.h"
#include "kv_core/kv_frame.h"

namespace kvfuzz {

// Every format value, undefined, reserved (21..23) and unknown (27) included,
// so that refusals are exercised too; the real ones mostly.
inline kv::FrameFormat anyFormat(FuzzedDataProvider& in) {
    for (;;) {
        const int f = in.ConsumeIntegralInRange<int>(0, 27);
        if ((f != 0 && f < 21) || f > 23 || in.ConsumeIntegralInRange<int>(0, 15) == 0 || in.remaining_bytes() == 0)
            return kv::FrameFormat(f);
    }
}

inline kv::Size anySize(FuzzedDataProvider& in, int max_side = 300) {
    const int w = in.ConsumeIntegralInRange<int>(1, max_side);
    return kv::Size(w, in.ConsumeIntegralInRange<int>(1, max_side));
}

// A region: mostly none (the whole frame) or inside `frame`, sometimes
// reaching outside it, sometimes anything at all.
inline kv::Rect anyRegion(FuzzedDataProvider& in, kv::Size frame_size) {
    // Sides kept where the arithmetic below cannot overflow.
    const kv::Size frame(std::clamp(frame_size.width, 1, INT32_MAX - 2), std::clamp(frame_size.height, 1, INT32_MAX - 2));
    switch (in.ConsumeIntegralInRange<int>(0, 7)) {
        case 0:
        case 1: return kv::Rect();
        case 2: {
            const int x = in.ConsumeIntegralInRange<int>(-2, frame.width + 2);
            const int y = in.ConsumeIntegralInRange<int>(-2, frame.height + 2);
            return kv::Rect(x, y, in.ConsumeIntegralInRange<int>(-1, frame.width + 2),
                            in.ConsumeIntegralInRange<int>(-1, frame.height + 2));
        }
        case 3: {
            const int32_t x = in.ConsumeIntegral<int32_t>(), y = in.ConsumeIntegral<int32_t>();
            return kv::Rect(x, y, in.ConsumeIntegral<int32_t>(), in.ConsumeIntegral<int32_t>());
        }
        default: {
            const int x = in.ConsumeIntegralInRange<int>(0, frame.width - 1);
            const int y = in.ConsumeIntegralInRange<int>(0, frame.height - 1);
            return kv::Rect(x, y, in.ConsumeIntegralInRange<int>(1, frame.width - x),
                            in.ConsumeIntegralInRange<int>(1, frame.height - y));
        }
    }
}

// A frame over caller memory: each plane its own heap block of exactly
// step * (height - 1) + row bytes; the pitch is exact or padded by a few bytes
// (odd paddings put float samples at odd addresses).
struct ExactFrame {
    std::vector<std::unique_ptr<uint8_t[]>> blocks;
    kv::Frame frame;
};

inline ExactFrame exactFrame(FuzzedDataProvider& in, kv::FrameFormat format, kv::Size size) {
    ExactFrame f;
    const kv::FrameLayout l(format, size, 1);
    if (!l.initialized()) return f;
    const size_t pad = in.ConsumeBool() ? 0 : in.ConsumeIntegralInRange<size_t>(1, 9);
    const uint8_t fill = in.ConsumeIntegral<uint8_t>();
    void* planes[kv::FrameLayout::kMaxPlanes] = {};
    size_t steps[kv::FrameLayout::kMaxPlanes] = {};
    for (uint32_t p = 0; p < l.planes; ++p) {
        steps[p] = size_t(l.plane[p].row_bytes) + pad;
        const size_t bytes = steps[p] * size_t(l.plane[p].size.height - 1) + size_t(l.plane[p].row_bytes);
        f.blocks.emplace_back(new uint8_t[bytes]);
        // Arbitrary bytes: float planes hold NaNs, infinities and denormals too.
        for (size_t i = 0; i < bytes; ++i) f.blocks.back()[i] = uint8_t(fill + i * 131 + (i >> 7));
        planes[p] = f.blocks.back().get();
    }
    f.frame = kv::Frame::wrap(format, size, planes, steps);
    return f;
}

// Runs `call`; the accepted failures end it quietly.
template <typename Call>
void guarded(Call call) {
    try {
        call();
    } catch (const kv::Exception&) {
    } catch (const std::bad_alloc&) {
    }
}

}  // namespace kvfuzz
