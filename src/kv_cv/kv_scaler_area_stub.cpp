// Placeholder definitions of the area scalers so that the library links
// before their implementation lands; every reuse reports "not implemented".
#include "kv_cv/kv_scaler_area.h"

#include "kv_core/kv_exception.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_scaler_area"

namespace kv {

class ScalerAreaX::Impl {
public:
    FrameLayout layout;
};
class ScalerAreaY::Impl {
public:
    FrameLayout layout;
};
class scaleAreaXY::Impl {
public:
    FrameLayout layout;
};

ScalerAreaX::ScalerAreaX() : _impl(new Impl) {}
ScalerAreaX::~ScalerAreaX() = default;
void ScalerAreaX::reuse(const Frame&, int, ScalerPrecision) {
    KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::ScalerAreaX::Impl::reuse", "Operation is not implemented");
}
void ScalerAreaX::reuse(IRowProducer&, int, ScalerPrecision) {
    KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::ScalerAreaX::Impl::reuse", "Operation is not implemented");
}
bool ScalerAreaX::initialized() const { return false; }
const FrameLayout& ScalerAreaX::layout() { return _impl->layout; }
void ScalerAreaX::produce(RowData&) {
    KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::ScalerAreaX::Impl::produce", "Operation is not implemented");
}
bool ScalerAreaX::next() { return false; }

ScalerAreaY::ScalerAreaY() : _impl(new Impl) {}
ScalerAreaY::~ScalerAreaY() = default;
void ScalerAreaY::reuse(const Frame&, int, ScalerPrecision) {
    KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::ScalerAreaY::Impl::reuse", "Operation is not implemented");
}
void ScalerAreaY::reuse(IRowProducer&, int, ScalerPrecision) {
    KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::ScalerAreaY::Impl::reuse", "Operation is not implemented");
}
bool ScalerAreaY::initialized() const { return false; }
const FrameLayout& ScalerAreaY::layout() { return _impl->layout; }
void ScalerAreaY::produce(RowData&) {
    KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::ScalerAreaY::Impl::produce", "Operation is not implemented");
}
bool ScalerAreaY::next() { return false; }

scaleAreaXY::scaleAreaXY() : _impl(new Impl) {}
scaleAreaXY::~scaleAreaXY() = default;
void scaleAreaXY::reuse(const Frame&, Size, ScalerPrecision) {
    KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::scaleAreaXY::Impl::reuse", "Operation is not implemented");
}
bool scaleAreaXY::initialized() const { return false; }
const FrameLayout& scaleAreaXY::layout() { return _impl->layout; }
void scaleAreaXY::produce(RowData&) {
    KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::scaleAreaXY::Impl::produce", "Operation is not implemented");
}
bool scaleAreaXY::next() { return false; }

}  // namespace kv
