// IKernel: the interpolation kernel a caller hands to ScalerConvolutional.
// The library ships no kernels; callers implement box, tent, cubic, Lanczos
// or any other shape. The kernel is asked for its support width and its value
// at offsets from its centre while the fixed-point weight tables are built.
#pragma once

#include "kv_cv/kv_cv_export.h"

namespace kv {

class KV_CV_API IKernel {
public:
    IKernel() = default;
    IKernel(const IKernel&) = default;
    IKernel& operator=(const IKernel&) = default;

    // Called once at the start of every table build, before anything else.
    virtual void prepare() = 0;
    // The kernel's value at signed offset `x` (source pixels) from its centre.
    // Must have no side effects: it is called many times per build.
    virtual float value(float x) const = 0;
    // Width of the support in source pixels, centred: -aperture()/2..+aperture()/2.
    virtual float aperture() const = 0;
    virtual ~IKernel();
};

}  // namespace kv
