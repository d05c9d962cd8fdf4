// Tensor layouts and tensors.
#include "kv_core/kv_tensor.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "kv_core/kv_exception.h"

#define KV_SOURCE_FILE "src/kv_core/kv_tensor"

namespace kv {

size_t tensorElementSize(TensorDataType type) {
    switch (type) {
        case TENSOR_UINT_8:
        case TENSOR_INT_8: return 1;
        case TENSOR_UINT_16:
        case TENSOR_INT_16:
        case TENSOR_FLOAT_16: return 2;
        case TENSOR_INT_32:
        case TENSOR_FLOAT_32: return 4;
        default: return 0;
    }
}

TensorSize::TensorSize(std::initializer_list<int32_t> values) {
    for (int32_t v : values) {
        if (_count == kMaxAxes) break;
        _v[_count++] = v;
    }
}

bool TensorSize::operator==(const TensorSize& o) const {
    return _count == o._count && std::equal(_v, _v + _count, o._v);
}

TensorLayout::TensorLayout(TensorDataType type, TensorFormat format, const TensorSize& extents,
                           const TensorSize& strides, TensorChannelOrder order)
    : _type(type), _format(format), _extents(extents), _strides(strides), _order(order) {
    if (_strides.axisCount() == 0 && _extents.axisCount() > 0) {
        // Densely packed, last axis fastest.
        // Strides are 32-bit: a shape whose packed strides pass that is refused.
        TensorSize dense = _extents;
        int64_t stride = int64_t(tensorElementSize(type));
        for (size_t i = _extents.axisCount(); i-- > 0;) {
            if (stride > INT32_MAX)
                KV_THROW(KV_STATUS_OUT_OF_RANGE, "kv::TensorLayout::TensorLayout",
                         "Failure in TensorLayout(...) : the densely packed stride of axis %zu is %lld bytes, past "
                         "the 32-bit strides.",
                         i, static_cast<long long>(stride));
            dense[i] = int32_t(stride);
            stride *= std::max(_extents[i], 0);  // at most 2^31 * 2^31: no overflow
        }
        _strides = dense;
    }
}

bool TensorLayout::initialized() const {
    if (tensorElementSize(_type) == 0 || _extents.axisCount() == 0) return false;
    if (_strides.axisCount() != _extents.axisCount()) return false;
    for (size_t i = 0; i < _extents.axisCount(); ++i)
        if (_extents[i] <= 0 || _strides[i] < 0) return false;
    return true;
}

size_t TensorLayout::byteSize() const {
    if (!initialized()) return 0;
    // Eight axes of 2^31 x 2^31 pass 64 bits: summed in 128, saturated.
    unsigned __int128 last = tensorElementSize(_type);
    for (size_t i = 0; i < _extents.axisCount(); ++i)
        last += static_cast<unsigned __int128>(_extents[i] - 1) * uint32_t(_strides[i]);
    return last > SIZE_MAX ? SIZE_MAX : size_t(last);
}

bool TensorLayout::operator==(const TensorLayout& o) const {
    return _type == o._type && _format == o._format && _extents == o._extents && _strides == o._strides &&
           _order == o._order;
}

Tensor::Tensor(const TensorLayout& layout, const DeviceContext& context) { reuse(layout, context); }

Tensor Tensor::wrap(const TensorLayout& layout, void* data, const DeviceContext& context) {
    Tensor t;
    if (!layout.initialized() || !data) return t;
    t._layout = layout;
    t._context = context;
    t._data = static_cast<uint8_t*>(data);
    return t;
}

void Tensor::reuse(const TensorLayout& layout, const DeviceContext& context) {
    if (!layout.initialized()) {
        clear();
        return;
    }
    const size_t bytes = layout.byteSize();
    if (bytes > Buffer::kMaxSize)
        KV_THROW(KV_STATUS_OUT_OF_RANGE, "kv::Tensor::reuse",
                 "Failure in Tensor::reuse(...) : the layout spans %zu bytes, more than an address space holds.",
                 bytes);
    if (!(_memory && _memory.use_count() == 1 && _memory->capacity() >= bytes && _context == context))
        _memory = std::make_shared<Buffer>(context);
    _memory->resize(bytes);
    _data = _memory->data();
    _layout = layout;
    _context = context;
}

void Tensor::setZero() {
    if (_memory)
        _memory->setZero();
    else if (_data)
        std::memset(_data, 0, _layout.byteSize());
}

void Tensor::clear() {
    _layout = TensorLayout();
    _context = DeviceContext();
    _memory.reset();
    _data = nullptr;
}

}  // namespace kv
