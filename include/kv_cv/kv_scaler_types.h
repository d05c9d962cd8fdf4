// Enumerations shared by the scalers: the resize method and the fixed-point
// precision of scaler weights.
#pragma once

#include <cstdint>

namespace kv {

enum ScaleMethod : uint32_t {
    KV_SCALE_NEAREST = 0,
    KV_SCALE_BILINEAR = 1,
    KV_SCALE_AREA = 2,
};

// The number of bits of a signed fixed-point weight.
enum ScalerPrecision : int32_t {
    KV_SCALER_FIXED_POINT_8S = 8,
    KV_SCALER_FIXED_POINT_16S = 16,
};

}  // namespace kv
