// ScalerNearestNeighbor and the byte-gather row kernels it runs on (the
// bilinear scalers use the same gather when every fraction is zero).
#include "kv_cv/kv_scaler_nn.h"

#include <immintrin.h>

#include <algorithm>

#include "kv_core/kv_exception.h"
#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_impl_scale_rows.h"
#include "kv_cv/kv_row_window.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_scaler_nn"

namespace kv {
namespace impl {

namespace {
// More source chunks per 16 output bytes than this (reductions beyond about
// 1/10) make the block gather slower than the plain loop (measured on
// full-HD rows).
constexpr int kMaxGatherChunks = 12;

// The window plan of GatherPlan: the fewest tables (1 or 2) whose 128 bytes
// each hold every block's sources; `span` is the widest block's, and
// plan.base holds each block's lowest source.
void planGatherWindows(GatherPlan& plan, int span, int src_bytes) {
    const int tables = span < 128 ? 1 : span < 256 ? 2 : 0;
    if (!tables || src_bytes < 128 * tables) return;
    const size_t blocks = plan.start.size();
    plan.win_base.resize(blocks);
    plan.win_index.resize(blocks * 16);
    for (size_t b = 0; b < blocks; ++b) {
        const int base = std::min(plan.base[b], src_bytes - 128 * tables);
        plan.win_base[b] = base;
        for (int j = 0; j < 16; ++j) plan.win_index[16 * b + size_t(j)] = uint8_t(plan.index[size_t(plan.start[b] + j)] - base);
    }
    plan.win_tables = tables;
}

}  // namespace

void planGatherBlocks(GatherPlan& plan, int src_bytes) {
    plan.chunks = plan.win_tables = 0;
    plan.base.clear();
    plan.start.clear();
    plan.mask.clear();
    plan.win_base.clear();
    plan.win_index.clear();
    const int n = plan.n;
    if (n < 16) return;
    const int blocks = (n + 15) / 16;
    // Each block's start and lowest source, and the widest span, once for both plans.
    plan.start.resize(size_t(blocks));
    plan.base.resize(size_t(blocks));
    int span = 0;
    for (int b = 0; b < blocks; ++b) {
        const int e0 = std::min(16 * b, n - 16);
        const auto mm = std::minmax_element(plan.index.begin() + e0, plan.index.begin() + e0 + 16);
        plan.start[size_t(b)] = e0;
        plan.base[size_t(b)] = *mm.first;
        span = std::max(span, *mm.second - *mm.first);
    }
    planGatherWindows(plan, span, src_bytes);
    const int chunks = span / 16 + 1;
    if (chunks > kMaxGatherChunks || src_bytes < 16 * chunks) {
        plan.base.clear();
        return;
    }
    plan.mask.assign(size_t(blocks) * size_t(chunks) * 16, 0x80);
    for (int b = 0; b < blocks; ++b) {
        const int e0 = plan.start[size_t(b)];
        const int base = std::min(plan.base[size_t(b)], src_bytes - 16 * chunks);
        plan.base[size_t(b)] = base;
        uint8_t* m = plan.mask.data() + size_t(b) * size_t(chunks) * 16;
        for (int j = 0; j < 16; ++j) {
            const int rel = plan.index[size_t(e0 + j)] - base;
            m[(rel / 16) * 16 + j] = uint8_t(rel % 16);
        }
    }
    plan.chunks = chunks;
}

void planGatherUnits(GatherPlan& plan, int unit_bytes, int src_bytes) {
    plan.unit_bytes = plan.gather_units = 0;
    plan.unit_offset.clear();
    if (unit_bytes < 1 || unit_bytes > 4 || plan.n % unit_bytes) return;
    const int units = plan.n / unit_bytes;
    plan.unit_offset.resize(size_t(units));
    int lead = 0;
    for (int u = 0; u < units; ++u) {
        const int32_t o = plan.index[size_t(u * unit_bytes)];
        plan.unit_offset[size_t(u)] = o;
        // The unit's bytes in order from its offset, and 4 bytes readable there.
        bool plain = o + 4 <= src_bytes;
        for (int k = 1; k < unit_bytes; ++k) plain = plain && plan.index[size_t(u * unit_bytes + k)] == o + k;
        if (plain && lead == u) lead = u + 1;
    }
    plan.unit_bytes = unit_bytes;
    plan.gather_units = lead / 8 * 8;
}

void buildGatherPlan(GatherPlan& plan, const uint16_t* xs, int units, int unit_bytes, int n, int src_units,
                     int src_bytes) {
    plan.n = n;
    plan.index.resize(size_t(n));
    for (int e = 0; e < n; ++e) {
        const int unit = std::min(e / unit_bytes, units - 1);
        const int x = std::min(int(xs[unit]), src_units - 1);
        plan.index[size_t(e)] = std::min(x * unit_bytes + e - unit * unit_bytes, src_bytes - 1);
    }
    planGatherBlocks(plan, src_bytes);
    // A plan object is rebuilt for other formats: no unit gather left over.
    plan.unit_bytes = plan.gather_units = 0;
    plan.unit_offset.clear();
    // Measured at 1920 source bytes per unit size: 32-bit gathers beat the
    // byte loop for units of 2 to 4 bytes, and blocks of more than 4 loads
    // for units of 3 and 4; single bytes stay with the blocks or the loop.
    if (unit_bytes >= 2 && (!plan.chunks || (unit_bytes >= 3 && plan.chunks > 4))) {
        planGatherUnits(plan, unit_bytes, src_bytes);
        if (plan.gather_units) plan.chunks = 0;
    }
}

namespace ref {

void gatherRow(const GatherPlan& plan, const uint8_t* src, uint8_t* dst) {
    const int32_t* index = plan.index.data();
    for (int e = 0; e < plan.n; ++e) dst[e] = src[index[e]];
}

}  // namespace ref

namespace {
// The byte loop from output byte `from` on.
void gatherTail(const GatherPlan& plan, const uint8_t* src, uint8_t* dst, int from) {
    const int32_t* index = plan.index.data();
    for (int e = from; e < plan.n; ++e) dst[e] = src[index[e]];
}
}  // namespace

#pragma GCC push_options
#pragma GCC target("avx2")
namespace avx2 {

namespace {

// One 16-byte block per iteration: K unaligned chunk loads, each shuffled by
// its selector (bytes of other chunks read 0x80 and give 0), ORed together.
template <int K>
void gatherBlocks(const GatherPlan& plan, const uint8_t* src, uint8_t* dst) {
    const size_t blocks = plan.base.size();
    const int32_t* base = plan.base.data();
    const int32_t* start = plan.start.data();
    const uint8_t* m = plan.mask.data();
    for (size_t b = 0; b < blocks; ++b, m += 16 * K) {
        const uint8_t* s = src + base[b];
        __m128i r = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s)),
                                     _mm_loadu_si128(reinterpret_cast<const __m128i*>(m)));
        for (int k = 1; k < K; ++k)
            r = _mm_or_si128(r, _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16 * k)),
                                                 _mm_loadu_si128(reinterpret_cast<const __m128i*>(m + 16 * k))));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + start[b]), r);
    }
}

// Eight units per 32-bit gather; U bytes of each 4-byte lane are kept.
template <int U>
void gatherUnits(const GatherPlan& plan, const uint8_t* src, uint8_t* dst) {
    const int32_t* offset = plan.unit_offset.data();
    const int* base = reinterpret_cast<const int*>(src);
    // Per lane: the first U bytes of each of its four dwords, packed low.
    alignas(32) static constexpr struct Pack {
        int8_t b[32];
        constexpr Pack() : b() {
            for (int k = 0; k < 16; ++k) b[k] = b[16 + k] = int8_t(k < 4 * U ? k / U * 4 + k % U : -1);
        }
    } kPack{};
    const __m256i pack = _mm256_load_si256(reinterpret_cast<const __m256i*>(kPack.b));
    const __m256i join = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);  // lane 1's 4 U bytes after lane 0's
    for (int u = 0; u < plan.gather_units; u += 8) {
        const __m256i v = _mm256_i32gather_epi32(base, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(offset + u)), 1);
        uint8_t* d = dst + size_t(u) * U;
        if (U == 4) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(d), v);
            continue;
        }
        const __m256i packed = _mm256_shuffle_epi8(v, pack);
        if (U == 3) {
            // 12 bytes per lane: dwords 0-2 of each lane, joined.
            const __m256i j = _mm256_permutevar8x32_epi32(packed, join);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(j));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(d + 16), _mm256_extracti128_si256(j, 1));
        } else {
            // 4 U bytes per lane: U = 1 one dword, U = 2 two.
            const __m256i j = _mm256_permutevar8x32_epi32(packed, _mm256_setr_epi32(0, U == 2 ? 1 : 4, 4, 5, 0, 0, 0, 0));
            if (U == 1)
                _mm_storel_epi64(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(j));
            else
                _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(j));
        }
    }
    gatherTail(plan, src, dst, plan.gather_units * U);
}

}  // namespace

void gatherRow(const GatherPlan& plan, const uint8_t* src, uint8_t* dst) {
    if (!plan.chunks && plan.gather_units &&
        dispatchCount<4>(plan.unit_bytes, [&](auto u) { gatherUnits<u()>(plan, src, dst); }))
        return;
    if (!dispatchCount<kMaxGatherChunks>(plan.chunks, [&](auto k) { gatherBlocks<k()>(plan, src, dst); }))
        ref::gatherRow(plan, src, dst);
}

}  // namespace avx2
#pragma GCC pop_options

KV_AVX512_BEGIN
namespace avx512 {

namespace {

// One 16-byte block per iteration: one two-table byte permute of the 128
// bytes at its base, or two (of 256) merged by the index's top bit.
template <int W>
void windowBlocks(const GatherPlan& plan, const uint8_t* src, uint8_t* dst) {
    const size_t blocks = plan.win_base.size();
    const int32_t* base = plan.win_base.data();
    const int32_t* start = plan.start.data();
    const uint8_t* index = plan.win_index.data();
    for (size_t b = 0; b < blocks; ++b) {
        const uint8_t* s = src + base[b];
        const __m512i i = _mm512_zextsi128_si512(_mm_loadu_si128(reinterpret_cast<const __m128i*>(index + 16 * b)));
        __m512i r = _mm512_permutex2var_epi8(_mm512_loadu_si512(s), i, _mm512_loadu_si512(s + 64));
        if (W == 2)
            r = _mm512_mask_blend_epi8(_mm512_movepi8_mask(i), r,
                                       _mm512_permutex2var_epi8(_mm512_loadu_si512(s + 128), i,
                                                                _mm512_loadu_si512(s + 192)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + start[b]), _mm512_castsi512_si128(r));
    }
}

}  // namespace

// The window plan wherever it exists: fewer operations per block than the
// AVX2 chunk shuffles, and no gathers.
void gatherRow(const GatherPlan& plan, const uint8_t* src, uint8_t* dst) {
    if (plan.win_tables == 1)
        windowBlocks<1>(plan, src, dst);
    else if (plan.win_tables == 2)
        windowBlocks<2>(plan, src, dst);
    else
        avx2::gatherRow(plan, src, dst);
}

}  // namespace avx512
KV_AVX512_END

}  // namespace impl

namespace {

constexpr const char* kReuse = "kv::ScalerNearestNeighbor::Impl::reuse";

// Bytes per gathered unit of each plane; 0 planes means unsupported.
struct NnFormat {
    int planes = 0;
    int unit[3] = {0, 0, 0};
};

NnFormat nnFormat(FrameFormat f) {
    switch (f) {
        case FRAME_GRAY_8: return {1, {1}};
        case FRAME_BGR_8:
        case FRAME_YUYV:
        case FRAME_YUV444:
        case FRAME_C3_8: return {1, {3}};
        case FRAME_UYVY:
        case FRAME_C4_8: return {1, {4}};
        case FRAME_C2_8:
        case FRAME_GRAY_16: return {1, {2}};
        case FRAME_GRAY_FLOAT_32: return {1, {4}};
        case FRAME_BGR_8_PLANAR:
        case FRAME_I420:
        case FRAME_YV12:
        case FRAME_YV16:
        case FRAME_YUV444_PLANAR: return {3, {1, 1, 1}};
        case FRAME_NV12:
        case FRAME_NV21:
        case FRAME_NV16: return {2, {1, 2}};
        default: return {};
    }
}

}  // namespace

class ScalerNearestNeighbor::Impl {
public:
    template <typename Source>
    void reuse(Source& src, const FrameLayout& src_layout, Size dst_size);
    void _reuse(const FrameLayout& src_layout, Size dst_size);
    void produce(RowData& dst);
    bool next();
    void advanceTo(int target) {
        while (window.startRow() < target && window.next()) {
        }
    }

    FrameLayout out_layout;
    RowWindow window;
    std::vector<uint16_t> _src_xs;
    std::vector<uint16_t> _src_ys;
    int32_t row = 0;
    Size src_size;

    // Gather plans per plane, rebuilt when format or sizes change.
    FrameFormat plan_format = FRAME_UNDEFINED;
    Size plan_src, plan_dst;
    NnFormat format;
    impl::GatherPlan plans[3];
    const impl::ScaleRowKernels* kernels = nullptr;
};

void ScalerNearestNeighbor::Impl::_reuse(const FrameLayout& src_layout, Size dst_size) {
    const Size src_size = src_layout.size;
    if (!(this->src_size == src_size && out_layout.size == dst_size)) {
        // Positions of output pixel centres in 16.16 source pixels; 32-bit
        // wrapping arithmetic (sources wider than 32767 overflow).
        auto build = [](std::vector<uint16_t>& table, int src, int dst) {
            const int32_t step = int32_t(uint32_t(src) << 16) / dst;
            uint32_t position = uint32_t(step / 2);
            table.resize(size_t(dst));
            for (int i = 0; i < dst; ++i) {
                table[size_t(i)] = uint16_t(int32_t(position) >> 16);
                position += uint32_t(step);
            }
        };
        build(_src_xs, src_size.width, dst_size.width);
        KV_ASSERT(_src_xs[dst_size.width - 1] < src_size.width, "kv::ScalerNearestNeighbor::Impl::_reuse");
        build(_src_ys, src_size.height, dst_size.height);
        KV_ASSERT(_src_ys[dst_size.height - 1] < src_size.height, "kv::ScalerNearestNeighbor::Impl::_reuse");
    }
    out_layout = FrameLayout(src_layout.format, dst_size, 64);
    row = 0;
    this->src_size = src_size;

    if (plan_format != src_layout.format || plan_src != src_size || plan_dst != dst_size) {
        format = nnFormat(src_layout.format);
        for (int p = 0; p < format.planes; ++p) {
            const FramePlane& sp = src_layout.plane[p];
            const FramePlane& dp = out_layout.plane[p];
            impl::buildGatherPlan(plans[p], _src_xs.data(), dp.size.width, format.unit[p], int(dp.row_bytes),
                                  sp.size.width, int(sp.row_bytes));
        }
        plan_format = src_layout.format;
        plan_src = src_size;
        plan_dst = dst_size;
    }
    kernels = &impl::scaleRowKernels();
}

template <typename Source>
void ScalerNearestNeighbor::Impl::reuse(Source& src, const FrameLayout& src_layout, Size dst_size) {
    _reuse(src_layout, dst_size);
    window.reuse(src, 1);
    advanceTo(_src_ys[0]);
}

bool ScalerNearestNeighbor::Impl::next() {
    if (row >= out_layout.size.height - 1) return false;
    ++row;
    advanceTo(_src_ys[size_t(row)]);
    return true;
}

void ScalerNearestNeighbor::Impl::produce(RowData& dst) {
    const RowData& src = window.rowData(0);
    if (out_layout.plane[0].size.width == src_size.width) {
        copyRowData(out_layout, src, dst);
        return;
    }
    if (format.planes == 0)
        KV_THROW(KV_STATUS_NOT_SUPPORTED, "kv::ScalerNearestNeighbor::Impl::produce",
                 "Failure in ScalerNearestNeighbor::produce(...) : unsupported frame format.");
    for (int p = 0; p < format.planes; ++p)
        if (dst.plane[p]) kernels->gatherRow(plans[p], src.plane[p], dst.plane[p]);
}

ScalerNearestNeighbor::ScalerNearestNeighbor() : _impl(new Impl) {}
ScalerNearestNeighbor::~ScalerNearestNeighbor() = default;

void ScalerNearestNeighbor::reuse(const Frame& src_frame, Size dst_size) {
    KV_ASSERT(src_frame.initialized(), kReuse);
    KV_ASSERT(!dst_size.empty(), kReuse);
    _impl->reuse(src_frame, src_frame.layout(), dst_size);
}

void ScalerNearestNeighbor::reuse(IRowProducer& src_producer, Size dst_size) {
    KV_ASSERT(!src_producer.layout().size.empty(), kReuse);
    KV_ASSERT(!dst_size.empty(), kReuse);
    _impl->reuse(src_producer, src_producer.layout(), dst_size);
}

bool ScalerNearestNeighbor::initialized() const { return _impl->window.initialized(); }
const FrameLayout& ScalerNearestNeighbor::layout() { return _impl->out_layout; }
void ScalerNearestNeighbor::produce(RowData& dst) { _impl->produce(dst); }
bool ScalerNearestNeighbor::next() { return _impl->next(); }

}  // namespace kv
