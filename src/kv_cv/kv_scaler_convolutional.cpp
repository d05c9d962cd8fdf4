// ScalerConvolutional: the public convolutional scaler, a horizontal pass
// (ScaleX) feeding a vertical pass (ScaleY) in the weight type the precision
// names. All four passes live side by side so that switching precision keeps
// the other pair's tables.
#include "kv_cv/kv_scaler_convolutional.h"

#include "kv_core/kv_exception.h"
#include "kv_impl_scale_conv_x.h"
#include "kv_impl_scale_conv_y.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_scaler_convolutional"

namespace kv {

IKernel::~IKernel() = default;

class ScalerConvolutional::Impl {
public:
    template <typename Source>
    void reuse(IKernel& kernel, Source& src, Size dst_size, ScalerPrecision precision) {
        _precision = int(precision);
        if (_precision == KV_SCALER_FIXED_POINT_8S) {
            _x8.reuse(kernel, src, dst_size.width);
            _y8.reuse(kernel, _x8, dst_size.height);
        } else if (_precision == KV_SCALER_FIXED_POINT_16S) {
            _x16.reuse(kernel, src, dst_size.width);
            _y16.reuse(kernel, _x16, dst_size.height);
        } else {
            KV_THROW(KV_STATUS_INVALID_VALUE, "kv::ScalerConvolutional::Impl::reuse",
                     "Parameter 'precision' is incorrect.");
        }
    }

    bool initialized() const {
        return (_precision == KV_SCALER_FIXED_POINT_8S && _y8.initialized()) ||
               (_precision == KV_SCALER_FIXED_POINT_16S && _y16.initialized());
    }

    IRowProducer& current(const char* function, const char* message) {
        if (_precision == KV_SCALER_FIXED_POINT_8S) return _y8;
        if (_precision == KV_SCALER_FIXED_POINT_16S) return _y16;
        KV_THROW(KV_STATUS_NOT_INITIALIZED, function, "%s", message);
    }

private:
    impl::ScaleX<signed char> _x8;
    impl::ScaleY<signed char> _y8;
    impl::ScaleX<short> _x16;
    impl::ScaleY<short> _y16;
    int _precision = 0;
};

ScalerConvolutional::ScalerConvolutional() : _impl(new Impl) {}
ScalerConvolutional::~ScalerConvolutional() = default;

void ScalerConvolutional::reuse(IKernel& kernel, const Frame& src, Size dst_size, ScalerPrecision precision) {
    constexpr const char* kFn = "kv::ScalerConvolutional::Impl::reuse";
    if (!src.initialized())
        KV_THROW(KV_STATUS_EMPTY_INPUT, kFn, "Failure in ScalerConvolutional::reuse(...) : frame is not initialized.");
    if (dst_size.width < 1 || dst_size.height < 1)
        KV_THROW(KV_STATUS_EMPTY_INPUT, kFn, "Failure in ScalerConvolutional::reuse(...) : parameter 'dst_size' is empty.");
    _impl->reuse(kernel, src, dst_size, precision);
}

void ScalerConvolutional::reuse(IKernel& kernel, IRowProducer& src, Size dst_size, ScalerPrecision precision) {
    constexpr const char* kFn = "kv::ScalerConvolutional::Impl::reuse";
    if (dst_size.width < 1 || dst_size.height < 1)
        KV_THROW(KV_STATUS_EMPTY_INPUT, kFn, "Failure in ScalerConvolutional::reuse(...) : parameter 'dst_size' is empty.");
    if (!src.layout().initialized())
        KV_THROW(KV_STATUS_EMPTY_INPUT, kFn, "Failure in ScalerConvolutional::reuse(...) : layout is not initialized.");
    _impl->reuse(kernel, src, dst_size, precision);
}

bool ScalerConvolutional::initialized() const { return _impl->initialized(); }

const FrameLayout& ScalerConvolutional::layout() {
    return _impl->current("kv::ScalerConvolutional::Impl::layout", "instance not initialized").layout();
}

void ScalerConvolutional::produce(RowData& row) {
    _impl->current("kv::ScalerConvolutional::Impl::produce",
                   "Failure in ScalerConvolutional::produce(...) : instance not initialized")
        .produce(row);
}

bool ScalerConvolutional::next() {
    return _impl->current("kv::ScalerConvolutional::Impl::next",
                          "Failure in ScalerConvolutional::next(...) : instance not initialized")
        .next();
}

}  // namespace kv
