// Scaler: picks and forwards to the concrete scaler (or the row copier) for a
// method and the dimensions that change. All of them live as long as the
// Scaler, so tables and windows survive reuses with repeated sizes.
#include "kv_cv/kv_scaler.h"

#include "kv_core/kv_exception.h"
#include "kv_cv/kv_row_copier.h"
#include "kv_cv/kv_scaler_area.h"
#include "kv_cv/kv_scaler_bilinear.h"
#include "kv_cv/kv_scaler_nn.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_scaler"

namespace kv {

class Scaler::Impl {
public:
    void reuse(const Frame& src_frame, Size dst_size, ScaleMethod method);
    void reuse(IRowProducer& src_producer, Size dst_size, ScaleMethod method);

    ScalerNearestNeighbor nearest;
    ScalerBilinearXY bilinear_xy;
    ScalerBilinearX bilinear_x;
    ScalerBilinearY bilinear_y;
    ScalerAreaX area_x;
    ScalerAreaY area_y;
    RowCopier copier;
    IRowProducer* current = nullptr;

private:
    // Source is a Frame or an IRowProducer; the area chain's second stage
    // always reads the first.
    template <typename Source>
    void _select(Source& src, Size src_size, Size dst_size, ScaleMethod method);
};

template <typename Source>
void Scaler::Impl::_select(Source& src, Size src_size, Size dst_size, ScaleMethod method) {
    if (dst_size == src_size) {
        copier.reuse(src);
        current = &copier;
        return;
    }
    copier.clear();
    const bool heights = dst_size.height != src_size.height;
    const bool widths = dst_size.width != src_size.width;
    switch (method) {
        case KV_SCALE_NEAREST:
            nearest.reuse(src, dst_size);
            current = &nearest;
            return;
        case KV_SCALE_BILINEAR:
            if (heights && widths) {
                bilinear_xy.reuse(src, dst_size);
                current = &bilinear_xy;
            } else if (heights) {
                bilinear_y.reuse(src, dst_size.height);
                current = &bilinear_y;
            } else {
                bilinear_x.reuse(src, dst_size.width);
                current = &bilinear_x;
            }
            return;
        case KV_SCALE_AREA:
            if (heights) {
                if (widths) {
                    area_x.reuse(src, dst_size.width, KV_SCALER_FIXED_POINT_16S);
                    area_y.reuse(area_x, dst_size.height, KV_SCALER_FIXED_POINT_16S);
                } else {
                    area_y.reuse(src, dst_size.height, KV_SCALER_FIXED_POINT_16S);
                }
                current = &area_y;
            } else {
                area_x.reuse(src, dst_size.width, KV_SCALER_FIXED_POINT_16S);
                current = &area_x;
            }
            return;
    }
    KV_THROW(KV_STATUS_INVALID_VALUE, "kv::Scaler::Impl::reuse", "Failure in Scaler::reuse(...) : parameter 'method' is invalid %u.",
             unsigned(method));
}

void Scaler::Impl::reuse(const Frame& src_frame, Size dst_size, ScaleMethod method) {
    KV_ASSERT(src_frame.initialized(), "kv::Scaler::Impl::reuse");
    KV_ASSERT(!dst_size.empty(), "kv::Scaler::Impl::reuse");
    _select(src_frame, src_frame.size(), dst_size, method);
}

void Scaler::Impl::reuse(IRowProducer& src_producer, Size dst_size, ScaleMethod method) {
    KV_ASSERT(!src_producer.layout().size.empty(), "kv::Scaler::Impl::reuse");
    KV_ASSERT(!dst_size.empty(), "kv::Scaler::Impl::reuse");
    _select(src_producer, src_producer.layout().size, dst_size, method);
}

Scaler::Scaler() : _impl(new Impl) {}
Scaler::~Scaler() = default;

void Scaler::reuse(const Frame& src_frame, Size dst_size, ScaleMethod method) {
    _impl->reuse(src_frame, dst_size, method);
}
void Scaler::reuse(IRowProducer& src_producer, Size dst_size, ScaleMethod method) {
    _impl->reuse(src_producer, dst_size, method);
}

bool Scaler::initialized() const { return _impl->current == nullptr; }
const FrameLayout& Scaler::layout() { return _impl->current->layout(); }
void Scaler::produce(RowData& dst) { _impl->current->produce(dst); }
bool Scaler::next() { return _impl->current->next(); }

}  // namespace kv
