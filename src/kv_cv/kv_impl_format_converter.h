// ImplFormatConverter: the engine behind FormatConverter. For a pair of
// formats it describes both as YuvFormatInfo records, selects one row kernel
// (vector or scalar, from the active instruction set) and reports how many
// source rows (1 or 2) each output row needs.
#pragma once

#include "kv_core/kv_buffer.h"
#include "kv_cv/kv_format_converter.h"

namespace kv {
namespace Impl {

// A row kernel: converts one output row from source rows r and r+1
// (rows[1] null when row r is the last one) into the non-null slots of dst.
using ConvertRowFn = void (*)(const RowData* const* rows, RowData& dst, int width,
                              const ImplFormatConverter& conv);
// A row-pair kernel (BGR to 4:2:0): rows r and r+1 both present and chroma
// wanted; writes row r into dst and the Y of row r+1 into `next_y`.
using ConvertPairFn = void (*)(const RowData* const* rows, RowData& dst, uint8_t* next_y, int width,
                               const ImplFormatConverter& conv);

class ImplFormatConverter {
public:
    ImplFormatConverter() = default;

    // Selects the kernel for src -> dst and writes the window size (1 or 2;
    // for YUV sources the destination's ySub, 0 when it has no description).
    void reuse(FrameFormat src, FrameFormat dst, int width, int* window_size);

    bool ready() const { return _ready; }
    int width() const { return _width; }
    ConvertRowFn convert() const { return _convert; }
    const YuvFormatInfo& srcInfo() const { return _src_info; }
    const YuvFormatInfo& dstInfo() const { return _dst_info; }

    // Converts output row `row` into the non-null slots of dst. A consumer may
    // ask for some planes only (a window that needs the chroma of the row
    // above it asks for that chroma alone): the kernel's other planes go to
    // scratch rows, except chroma that no slot asks for, which kernels skip.
    // With a pair kernel, a row that carries the chroma of a pair also
    // computes the next row's Y; that row then only copies it (unless it asks
    // for chroma itself).
    void convertRow(const RowData* const* rows, const RowData& dst, int row);

private:
    void get_context(FrameFormat src, FrameFormat dst, int* window_size);
    static void getFormatInfo(FrameFormat f, YuvFormatInfo& info);

    YuvFormatInfo _src_info;
    YuvFormatInfo _dst_info;
    int32_t _width = 0;
    bool _ready = false;
    ConvertRowFn _convert = nullptr;
    ConvertPairFn _convert_pair = nullptr;
    Buffer _next_luma;            // Y of row _next_luma_row, from the pair kernel
    int32_t _next_luma_row = -1;  // -1: none parked
    uint32_t _dst_planes = 0;     // planes of the destination format
    uint32_t _chroma_planes = 0;  // bit p: plane p holds only chroma (skippable)
    uint64_t _scratch_step = 0;   // one scratch row per plane, for planes not asked for
    Buffer _scratch;
};

}  // namespace Impl
}  // namespace kv
