// ScaleKernelBuilder<T>: inner and border weight rows of one axis table.
#include "kv_impl_scale_kernel_builder.h"

#include <cmath>
#include <cstring>
#include <new>

#include "kv_core/kv_exception.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_impl_scale_kernel_builder"

namespace kv {
namespace impl {

template <typename T>
void ScaleKernelBuilder<T>::reuse(int aperture) {
    constexpr const char* kFn = "kv::impl::ScaleKernelBuilder::reuse";
    if (aperture < 1) KV_THROW(KV_STATUS_OUT_OF_RANGE, kFn, "Parameter 'aperture' is out of range.");
    const size_t row_stride = (size_t(aperture) * sizeof(T) + 63) / 64 * 64;
    try {
        buffer.resize(size_t(kInnerCapacity + aperture) * row_stride);
    } catch (const Exception& e) {
        KV_THROW(e.status(), kFn, "Failed to allocate kernel data due to: %s", e.message().c_str());
    } catch (const std::exception& e) {
        KV_THROW(KV_STATUS_OUT_OF_MEMORY, kFn, "Failed to allocate kernel data due to: %s", e.what());
    }
    // Zero rows: taps past a kernel's length read as weight 0.
    buffer.setZero();
    phases.clear();
    phases.reserve(kInnerCapacity);
    innerCount = 0;
    innerCapacity = kInnerCapacity;
    borderCount = 0;
    borderCapacity = aperture;
    kernelLength = aperture;
    stride = row_stride;
}

template <typename T>
int ScaleKernelBuilder<T>::addInnerKernel(float phase, const T* weights) {
    if (innerCount >= innerCapacity)
        KV_THROW(KV_STATUS_ASSERTION_FAILED, "kv::impl::ScaleKernelBuilder::addInnerKernel",
                 "Failure in ScaleKernelBuilder::addInnerKernel(...), buffer has already filled");
    const int index = innerCount;
    std::memcpy(buffer.data() + size_t(index) * stride, weights, size_t(kernelLength) * sizeof(T));
    phases.push_back(phase);
    ++innerCount;
    return index;
}

template <typename T>
int ScaleKernelBuilder<T>::addBorderKernel(const T* weights) {
    if (borderCount >= borderCapacity)
        KV_THROW(KV_STATUS_ASSERTION_FAILED, "kv::impl::ScaleKernelBuilder::addBorderKernel",
                 "Failure in ScaleKernelBuilder::addBorderKernel(...), buffer has already filled");
    const int index = innerCapacity + borderCount;
    std::memcpy(buffer.data() + size_t(index) * stride, weights, size_t(kernelLength) * sizeof(T));
    ++borderCount;
    return index;
}

template <typename T>
int ScaleKernelBuilder<T>::findInnerKernel(float phase) const {
    for (int i = 0; i < innerCount; ++i)
        if (std::fabs(double(phases[size_t(i)]) - double(phase)) < 0.001) return i;
    return -1;
}

template class ScaleKernelBuilder<signed char>;
template class ScaleKernelBuilder<short>;

}  // namespace impl
}  // namespace kv
