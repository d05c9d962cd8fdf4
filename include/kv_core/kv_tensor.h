// Tensors: n-dimensional arrays with a data type, an axis format, per-axis
// extents and byte strides, and a channel order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>

#include "kv_core/kv_buffer.h"
#include "kv_core/kv_core_export.h"

namespace kv {

enum TensorDataType : int32_t {
    TENSOR_UNDEFINED = 0,
    TENSOR_UINT_8 = 1,
    TENSOR_INT_8 = 2,
    TENSOR_UINT_16 = 3,
    TENSOR_INT_16 = 4,
    TENSOR_INT_32 = 5,
    TENSOR_FLOAT_16 = 6,
    TENSOR_FLOAT_32 = 7,
};

enum TensorFormat : int32_t {
    TENSOR_FORMAT_UNDEFINED = 0,
    TENSOR_NCHW = 1,
    TENSOR_NHWC = 2,
    TENSOR_ND = 3,  // no image meaning attached to the axes
};

enum TensorChannelOrder : int32_t {
    TENSOR_ORDER_UNDEFINED = 0,
    TENSOR_ORDER_RGB = 1,
    TENSOR_ORDER_BGR = 2,
    TENSOR_ORDER_GRAY = 3,
};

// Bytes of one element; 0 for TENSOR_UNDEFINED.
KV_CORE_API size_t tensorElementSize(TensorDataType type);

// Up to eight signed 32-bit extents (or strides), one per axis.
class KV_CORE_API TensorSize {
public:
    static constexpr size_t kMaxAxes = 8;

    TensorSize() = default;
    TensorSize(std::initializer_list<int32_t> values);
    TensorSize(const TensorSize&) = default;
    TensorSize& operator=(const TensorSize&) = default;
    ~TensorSize() = default;

    size_t axisCount() const { return _count; }
    int32_t& operator[](size_t axis) { return _v[axis]; }
    int32_t operator[](size_t axis) const { return _v[axis]; }
    bool operator==(const TensorSize& o) const;
    bool operator!=(const TensorSize& o) const { return !(*this == o); }

private:
    int32_t _v[kMaxAxes] = {};
    size_t _count = 0;
};

class KV_CORE_API TensorLayout {
public:
    TensorLayout() = default;
    // `strides` are per-axis byte strides; empty strides mean densely packed
    // (kv::Exception, status 5, when a packed stride passes 32 bits).
    TensorLayout(TensorDataType type, TensorFormat format, const TensorSize& extents,
                 const TensorSize& strides = TensorSize(), TensorChannelOrder order = TENSOR_ORDER_UNDEFINED);

    TensorDataType dataType() const { return _type; }
    TensorFormat format() const { return _format; }
    const TensorSize& size() const { return _extents; }
    const TensorSize& strides() const { return _strides; }
    TensorChannelOrder channelOrder() const { return _order; }
    bool initialized() const;
    // Bytes from the first element to one past the last (SIZE_MAX when that
    // does not fit 64 bits).
    size_t byteSize() const;
    bool operator==(const TensorLayout& o) const;
    bool operator!=(const TensorLayout& o) const { return !(*this == o); }

private:
    TensorDataType _type = TENSOR_UNDEFINED;
    TensorFormat _format = TENSOR_FORMAT_UNDEFINED;
    TensorSize _extents;
    TensorSize _strides;
    TensorChannelOrder _order = TENSOR_ORDER_UNDEFINED;
};

// Copies share the memory, as Frame copies do.
class KV_CORE_API Tensor {
public:
    Tensor() = default;
    Tensor(const TensorLayout& layout, const DeviceContext& context = DeviceContext::cpuContext());

    // Views caller memory of at least layout.byteSize() bytes without copying;
    // the caller keeps it alive. An uninitialised layout or a null `data`
    // gives an uninitialised tensor. reuse() of a view allocates owned memory.
    static Tensor wrap(const TensorLayout& layout, void* data,
                       const DeviceContext& context = DeviceContext::cpuContext());

    bool initialized() const { return _layout.initialized() && _data != nullptr; }
    const TensorLayout& layout() const { return _layout; }
    DeviceContext deviceContext() const { return _context; }
    DevicePtr devicePtr() { return DevicePtr(_data, _context); }
    const DevicePtr devicePtr() const { return DevicePtr(_data, _context); }
    size_t byteSize() const { return _layout.byteSize(); }

    // Holds memory for the layout; memory that is large enough and not shared is kept.
    void reuse(const TensorLayout& layout, const DeviceContext& context = DeviceContext::cpuContext());
    void setZero();
    void clear();

private:
    TensorLayout _layout;
    DeviceContext _context;
    std::shared_ptr<Buffer> _memory;  // null for wrapped caller memory
    uint8_t* _data = nullptr;
};

}  // namespace kv
