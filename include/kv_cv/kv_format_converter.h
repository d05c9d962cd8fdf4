// FormatConverter: a row producer that delivers the rows of a frame or of an
// upstream producer converted to another pixel format of the same size, so a
// chain such as reader -> scaler -> converter runs in one pass over a window of
// one or two source rows. YuvFormatInfo describes where Y, U and V samples sit
// in a row of a YUV format; the kernels address every YUV layout through it.
//
// Choices made here:
// - The source window is never taller than the source: a one-row frame
//   converted to 4:2:0 gets a window of one row and its chroma from that row.
// - A failed converting reuse() leaves the converter not initialized.
// - Packed 4:2:2 destinations of odd width get 0 in the Y byte of the missing
//   second pixel of the last pair, whatever the source format.
#pragma once

#include <cstdint>

#include "kv_cv/kv_row_copier.h"
#include "kv_cv/kv_row_window.h"

namespace kv {
namespace Impl {

// Addressing of the samples of one YUV format within its plane rows.
// Sample x of a channel lies at plane row [plane] + offset + (x / sub) * step,
// with sub = xSub for chroma and 1 for Y.
struct KV_CV_API YuvFormatInfo {
    int32_t xSub = 0;  // horizontal chroma subsampling (1 or 2)
    int32_t ySub = 0;  // vertical chroma subsampling (1 or 2)
    int32_t yPlane = 0;
    int32_t vPlane = 0;
    int32_t uPlane = 0;
    int32_t yOffset = 0;  // byte of the first sample within the plane row
    int32_t vOffset = 0;
    int32_t uOffset = 0;
    int32_t yStep = 0;  // bytes from one sample to the next
    int32_t vStep = 0;
    int32_t uStep = 0;
};

class ImplFormatConverter;

}  // namespace Impl

// Converts between the 8-bit RGB-like, YUV and float formats; equal source and
// destination formats pass rows through unchanged (a copy of each plane row).
class KV_CV_API FormatConverter : public IRowProducer {
public:
    FormatConverter();
    ~FormatConverter() override;
    FormatConverter(const FormatConverter&) = delete;
    FormatConverter& operator=(const FormatConverter&) = delete;

    // Converts the rows of `frame`, which must stay alive and unchanged while in use.
    void reuse(const Frame& frame, FrameFormat dst_format);
    // Converts the rows of `producer`, which the caller has reused and keeps alive.
    void reuse(IRowProducer& producer, FrameFormat dst_format);
    bool initialized() const;

    const FrameLayout& layout() override;
    void produce(RowData& dst) override;
    bool next() override;

private:
    void _reuseConverting(FrameFormat src_format, FrameFormat dst_format, const Frame* frame,
                          IRowProducer* producer);

    bool _ready = false;
    const FrameLayout* _source_layout = nullptr;
    FrameLayout _layout;
    int32_t _row = 0;
    RowWindow _window;
    const RowData* _window_rows[2] = {nullptr, nullptr};
    RowCopier _copier;
    Impl::ImplFormatConverter* _impl = nullptr;
};

}  // namespace kv
