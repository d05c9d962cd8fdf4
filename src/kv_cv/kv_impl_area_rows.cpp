// Row kernels of the area scalers (declared in kv_impl_scale_area.h): the
// weight table, the tap plans built from it, the horizontal combination of one
// row and the vertical accumulation of rows. Each AVX2 kernel sits beside its
// scalar reference in impl::ref, which defines the result; the vector kernels
// match it bit for bit.
#include <immintrin.h>

#include <algorithm>
#include <cstring>

#include "kv_cv/kv_impl_block_patterns.h"
#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_impl_scale_area.h"
#include "kv_cv/kv_impl_scale_rows.h"
#include "kv_cv/kv_impl_unaligned.h"

namespace kv {
namespace impl {

uint16_t buildAreaTable(int src, int dst, int shift, std::vector<AreaTableEntry>& table) {
    const int64_t one = int64_t(1) << shift;
    // Size of one source pixel in output pixels, scaled by one (truncated).
    const int32_t step = int32_t((int64_t(dst) << shift) / src);
    const uint16_t weight_max = uint16_t(std::min<int64_t>(one, step));
    table.resize(size_t(dst) + 1);
    for (int i = 0; i < dst; ++i) {
        const int32_t s = int32_t(int64_t(i) * src / dst);
        const int64_t w = int64_t((s & 0xFFFF) + 1) * step - (int64_t(i) << shift);
        table[size_t(i)].first = uint16_t(s);
        table[size_t(i)].weight = uint16_t(w < 1 ? 0 : std::min(one, w));
    }
    table[size_t(dst)].first = uint16_t(src);
    table[size_t(dst)].weight = weight_max;
    return weight_max;
}

int areaRowsNeeded(int src, int dst, const std::vector<AreaTableEntry>& table, uint16_t weight_max) {
    if (dst < src) return table[1].first + (table[1].weight != weight_max ? 2 : 0);
    return dst > src ? 2 : 1;
}

namespace {

// The taps of output pixel i: source indices first..first+count-1 with their
// weights (the combination rule of the table, zero-weight taps included).
template <typename F>
void forEachTap(const AreaRowX& r, int i, F&& f) {
    const AreaTableEntry e0 = r.table[i];
    const AreaTableEntry e1 = r.table[i + 1];
    const uint32_t wm = r.weight_max;
    if (r.reduce) {
        f(0, e0.first, uint32_t(e0.weight));
        for (int k = e0.first + 1; k < e1.first; ++k) f(k - e0.first, k, wm);
        f(e1.first - e0.first, e1.first, e1.weight != wm ? wm - e1.weight : 0u);
    } else {
        f(0, e0.first, uint32_t(e0.weight));
        f(1, e0.first + 1, e0.weight != wm ? wm - e0.weight : 0u);
    }
}

// Loads per block beyond which the shuffle plan costs more than the gathers.
constexpr int kMaxPairWork = 48;  // chunks x pairs
constexpr int kMaxPairChunks = 6;

// The shuffle plan of AreaTaps (see kv_impl_scale_area.h); leaves pair_blocks
// at 0 where it does not apply.
void buildAreaPairs(const AreaRowX& r, AreaTaps& t, int sample_bytes) {
    const int sb = sample_bytes;
    const int lane_samples = 16 / sb;  // samples per 16-byte load
    t.pairs = t.chunks = t.pair_blocks = 0;
    t.pair_block.clear();
    t.pair_select.clear();
    t.pair_weights.clear();
    t.pair_bias.clear();
    const int C = r.channels;
    if (r.dst_len < 16 || t.taps < 1) return;
    const int pairs = (t.taps + 1) / 2;
    const int blocks = (r.dst_len + 15) / 16;
    auto blockStart = [&](int b) { return std::min(16 * b, r.dst_len - 16); };
    // The source elements a value reads: taps inside the row with a weight.
    struct Tap {
        int element;
        uint32_t weight;
    };
    if (pairs > kMaxPairWork) return;
    Tap taps[2 * kMaxPairWork];
    auto valueTaps = [&](int o) {
        std::fill(taps, taps + 2 * pairs, Tap{-1, 0});
        const int i = o / C, c = o % C;
        forEachTap(r, i, [&](int tap, int k, uint32_t w) {
            const int64_t e = int64_t(k) * C + c;
            if (e < r.src_len && w) taps[size_t(tap)] = Tap{int(e), w};
        });
    };
    // A whole weight does not fit a signed word: it is split over both words
    // of its pair, which needs a partner without a sample.
    for (int o = 0; o < r.dst_len; ++o) {
        valueTaps(o);
        for (int k = 0; k < 2 * pairs; ++k)
            if (taps[k].weight > 32767 && taps[k ^ 1].element >= 0) return;
    }
    // Span of each quarter; the chunk count covers the widest.
    // Scratch kept in the plan, so that a rebuild with room to spare allocates nothing.
    std::vector<int32_t>& lo = t.scratch_lo;
    lo.resize(size_t(blocks) * 4);
    int chunks = 1;
    for (int b = 0; b < blocks; ++b)
        for (int q = 0; q < 4; ++q) {
            int l = r.src_len, u = -1;
            for (int j = 0; j < 4; ++j) {
                valueTaps(blockStart(b) + 4 * q + j);
                for (int k = 0; k < 2 * pairs; ++k)
                    if (taps[k].element >= 0) l = std::min(l, taps[k].element), u = std::max(u, taps[k].element);
            }
            if (u < 0) l = u = 0;
            lo[size_t(4 * b + q)] = l;
            chunks = std::max(chunks, (u - l) / lane_samples + 1);
        }
    if (chunks > kMaxPairChunks || chunks * pairs > kMaxPairWork || r.src_len < lane_samples * chunks) return;
    const size_t set_bytes = size_t(2 * chunks * pairs) * 32;
    std::vector<uint8_t>& set = t.scratch_set;
    set.resize(set_bytes);
    std::vector<uint64_t>& known = t.scratch_hash;  // a hash of each selector set kept so far
    known.clear();
    t.pair_block.resize(size_t(blocks));
    t.pair_weights.assign(size_t(blocks) * size_t(2 * pairs) * 16, 0);
    if (sb == 2) t.pair_bias.assign(size_t(blocks) * 16, 0);
    for (int b = 0; b < blocks; ++b) {
        AreaTaps::PairBlock& blk = t.pair_block[size_t(b)];
        blk.start = blockStart(b);
        std::fill(set.begin(), set.end(), uint8_t(0x80));
        int16_t* weights = &t.pair_weights[size_t(b) * size_t(2 * pairs) * 16];
        for (int q = 0; q < 4; ++q) {
            const int half = q / 2, lane = q % 2;
            const int base = std::min(lo[size_t(4 * b + q)], r.src_len - lane_samples * chunks);
            blk.base[q] = base * sb;
            for (int j = 0; j < 4; ++j) {
                valueTaps(blk.start + 4 * q + j);
                if (sb == 2) {
                    // 16-bit samples enter the multiply-add as s - 32768; this adds back 32768 x their weights.
                    uint32_t sum = 0;
                    for (int k = 0; k < 2 * pairs; ++k)
                        if (taps[k].element >= 0) sum += taps[k].weight;
                    t.pair_bias[size_t(b) * 16 + size_t(8 * half + 4 * lane + j)] = int32_t(sum << 15);
                }
                for (int p = 0; p < pairs; ++p) {
                    Tap pair[2] = {taps[size_t(2 * p)], taps[size_t(2 * p + 1)]};
                    for (int k = 0; k < 2; ++k)
                        if (pair[k].weight > 32767) {
                            pair[k].weight /= 2;
                            pair[1 - k] = pair[k];
                        }
                    for (int k = 0; k < 2; ++k) {
                        const int word = 8 * lane + 2 * j + k;
                        weights[size_t(half * pairs + p) * 16 + size_t(word)] = int16_t(pair[k].weight);
                        if (pair[k].element < 0) continue;
                        const int rel = (pair[k].element - base) * sb;  // bytes from the lane's base
                        uint8_t* sel = &set[(size_t((half * chunks + rel / 16) * pairs + p)) * 32 + size_t(2 * word)];
                        sel[0] = uint8_t(rel % 16);
                        if (sb == 2) sel[1] = uint8_t(rel % 16 + 1);
                    }
                }
            }
        }
        const size_t kept = known.size();
        const size_t pattern = findBlockPattern(known, {set.data(), t.pair_select.data(), set_bytes});
        if (pattern == kept) t.pair_select.insert(t.pair_select.end(), set.begin(), set.end());
        blk.pattern = int32_t(pattern);
    }
    t.pairs = pairs;
    t.chunks = chunks;
    t.pair_blocks = blocks;
}

// The permute plan of AreaTaps for 32-bit rows (see kv_impl_scale_area.h);
// leaves perm_blocks at 0 where a block spans more than four loads.
void buildAreaPermutes(const AreaRowX& r, AreaTaps& t) {
    t.perm_chunks = t.perm_blocks = 0;
    const int blocks = r.dst_len / 8;
    if (blocks == 0 || t.taps < 1) return;
    const size_t per_block = size_t(t.taps) * 8;
    // Used taps only: a tap without weight reads nothing.
    auto used = [&](int o, int k) { return t.weights[size_t(o / 8) * per_block + size_t(k) * 8 + size_t(o % 8)] != 0; };
    std::vector<int32_t>& lo = t.scratch_lo;
    lo.assign(size_t(blocks), 0);
    int chunks = 1;
    for (int b = 0; b < blocks; ++b) {
        int l = r.src_len, u = -1;
        for (int o = 8 * b; o < 8 * b + 8; ++o)
            for (int k = 0; k < t.taps; ++k)
                if (used(o, k)) {
                    const int e = t.offset[size_t(o)] + k * r.channels;
                    l = std::min(l, e), u = std::max(u, e);
                }
        if (u < 0) l = u = 0;
        lo[size_t(b)] = l;
        chunks = std::max(chunks, (u - l) / 8 + 1);
    }
    if (chunks > kMaxPermuteLoads || r.src_len < 8 * chunks) return;
    t.perm_base.resize(size_t(blocks));
    t.perm_index.assign(size_t(blocks) * per_block, 0);
    for (int b = 0; b < blocks; ++b) {
        const int base = std::min(lo[size_t(b)], r.src_len - 8 * chunks);
        t.perm_base[size_t(b)] = base;
        for (int o = 8 * b; o < 8 * b + 8; ++o)
            for (int k = 0; k < t.taps; ++k) {
                if (!used(o, k)) continue;
                t.perm_index[size_t(b) * per_block + size_t(k) * 8 + size_t(o % 8)] =
                    permuteIndex(t.offset[size_t(o)] + k * r.channels - base);
            }
    }
    t.perm_chunks = chunks;
    t.perm_blocks = blocks;
}

}  // namespace

// Most pairs of the wide plan (and of its split form): beyond them the AVX2
// plans are as quick.
constexpr int kMaxWidePairs = 4;
constexpr int kMaxSplitPairs = 8;

// The wide plan of AreaTaps (byte rows; see kv_impl_scale_area.h).
void buildAreaWide(const AreaRowX& r, AreaTaps& t) {
    t.wide_blocks = t.wide_pairs = t.wide_patterns = 0;
    t.wide_split = false;
    const int n = r.dst_len, C = r.channels;
    if (n < 32 || r.src_len < 64) return;
    // Value o's words: (element, weight) of its weighted taps inside the row.
    auto words = [&](int o, auto&& f) {
        forEachTap(r, o / C, [&](int, int k, uint32_t w) {
            const int64_t e = int64_t(k) * C + o % C;
            if (w == 0 || e >= r.src_len) return;
            if (w >= 32768) {
                f(int(e), int16_t(w / 2));
                f(int(e), int16_t(w - w / 2));
            } else {
                f(int(e), int16_t(w));
            }
        });
    };
    const int blocks = (n + 31) / 32;
    auto blockStart = [&](int b) { return std::min(32 * b, n - 32); };
    // Lowest and highest element of `count` values from o0 on; the most words of one value.
    int most = 0;
    auto span = [&](int o0, int count, int& lo, int& hi) {
        lo = r.src_len, hi = -1;
        for (int o = o0; o < o0 + count; ++o) {
            int words_of_o = 0;
            words(o, [&](int e, int16_t) {
                lo = std::min(lo, e);
                hi = std::max(hi, e);
                ++words_of_o;
            });
            most = std::max(most, words_of_o);
        }
        if (hi < 0) lo = hi = 0;
    };
    bool split = false;
    t.wide_base.resize(size_t(blocks) * 3);
    for (int b = 0; b < blocks; ++b) {
        int lo, hi;
        span(blockStart(b), 32, lo, hi);
        split = split || hi - lo >= 64;
        t.wide_base[size_t(3 * b)] = std::min(lo, r.src_len - 64);
        t.wide_base[size_t(3 * b + 1)] = blockStart(b);
    }
    if (split) {
        if (r.src_len < 128) return;
        t.split_base.resize(size_t(blocks) * 4);
        for (int b = 0; b < blocks; ++b)
            for (int g = 0; g < 4; ++g) {
                int lo, hi;
                span(blockStart(b) + 8 * g, 8, lo, hi);
                if (hi - lo >= 128) return;
                t.split_base[size_t(4 * b + g)] = std::min(lo, r.src_len - 128);
            }
    }
    const int P = std::max(1, (most + 1) / 2);
    if (P > (split ? kMaxSplitPairs : kMaxWidePairs)) return;
    t.wide_index.assign(size_t(blocks) * size_t(P) * 64, 0);
    t.wide_weight.assign(size_t(blocks) * size_t(P) * 64, 0);
    for (int b = 0; b < blocks; ++b) {
        for (int j = 0; j < 32; ++j) {
            const int base = split ? t.split_base[size_t(4 * b + j / 8)] : t.wide_base[size_t(3 * b)];
            int word = 0;
            words(blockStart(b) + j, [&](int e, int16_t w) {
                // Pair p, half j / 16: words 2 (j % 16) and 2 (j % 16) + 1.
                const size_t at = (size_t(b) * size_t(P) + size_t(word / 2)) * 2 + size_t(j / 16);
                const int slot = 2 * (j % 16) + word % 2;
                t.wide_index[at * 32 + size_t(slot)] = uint8_t(e - base);
                t.wide_weight[at * 32 + size_t(slot)] = w;
                ++word;
            });
        }
    }
    // Blocks share their tables where they repeat: each moves to the first
    // copy of its pattern.
    const size_t index_bytes = size_t(P) * 64, weight_words = size_t(P) * 64, weight_bytes = weight_words * 2;
    std::vector<uint64_t>& known = t.scratch_hash;
    known.clear();
    int patterns = 0;
    for (int b = 0; b < blocks; ++b) {
        const uint8_t* idx = &t.wide_index[size_t(b) * index_bytes];
        const int16_t* w = &t.wide_weight[size_t(b) * weight_words];
        const int q = int(findBlockPattern(known, {idx, t.wide_index.data(), index_bytes},
                                           {w, t.wide_weight.data(), weight_bytes}));
        if (q == patterns) {
            if (q != b) {
                std::memmove(&t.wide_index[size_t(q) * index_bytes], idx, index_bytes);
                std::memmove(&t.wide_weight[size_t(q) * weight_words], w, weight_bytes);
            }
            ++patterns;
        }
        t.wide_base[size_t(3 * b + 2)] = q;
    }
    t.wide_pairs = P;
    t.wide_patterns = patterns;
    t.wide_blocks = blocks;
    t.wide_split = split;
}

void buildAreaTaps(const AreaRowX& r, AreaTaps& t, int sample_bytes) {
    const int C = r.channels;
    const int units = (r.dst_len + C - 1) / C;
    int taps = r.reduce ? 0 : 2;
    if (r.reduce)
        for (int i = 0; i < units; ++i) taps = std::max(taps, r.table[i + 1].first - r.table[i].first + 1);
    t.taps = taps;
    const int blocks = (r.dst_len + 7) / 8;
    t.offset.assign(size_t(blocks) * 8, 0);
    t.weights.assign(size_t(blocks) * 8 * size_t(taps), 0);
    for (int o = 0; o < r.dst_len; ++o) {
        const int i = o / C, c = o % C;
        t.offset[size_t(o)] = r.table[i].first * C + c;
        int32_t* w = &t.weights[size_t(o / 8) * 8 * size_t(taps) + size_t(o % 8)];
        forEachTap(r, i, [&](int tap, int k, uint32_t weight) {
            // Samples past the row's bytes count as 0: drop their weight.
            if (int64_t(k) * C + c < r.src_len) w[size_t(tap) * 8] = int32_t(weight);
        });
    }
    // Gathers load 4 bytes per tap: whole blocks whose taps all lie inside the row.
    t.vec_values = 0;
    for (int b = 0; b * 8 + 8 <= r.dst_len; ++b) {
        bool inside = true;
        for (int j = 0; j < 8; ++j)
            inside = inside && int64_t(t.offset[size_t(b * 8 + j)]) + int64_t(taps - 1) * C + 4 <= r.src_len;
        if (!inside) break;
        t.vec_values = b * 8 + 8;
    }
    t.perm_chunks = t.perm_blocks = 0;
    t.wide_blocks = t.wide_pairs = 0;
    if (sample_bytes == 1) buildAreaWide(r, t);
    if (sample_bytes <= 2) {
        buildAreaPairs(r, t, sample_bytes);
    } else {
        t.pairs = t.chunks = t.pair_blocks = 0;
        buildAreaPermutes(r, t);
    }
    // A plain box: every output pixel takes q whole pixels with weight_max.
    t.uniform_q = 0;
    if (r.reduce && units > 0) {
        const int q = r.table[1].first;
        bool uniform = q == 2 || q == 4;
        for (int i = 0; uniform && i <= units; ++i)
            uniform = (i == units || r.table[i].first == q * i) && r.table[i].weight == r.weight_max;
        if (uniform) t.uniform_q = q;
    }
}

namespace ref {

namespace {

template <typename T, typename Acc>
void areaRowXT(const T* src, T* dst, const AreaRowX& r, int o_begin) {
    const int C = r.channels;
    const Acc wm = r.weight_max;
    for (int o = o_begin; o < r.dst_len; ++o) {
        const int i = o / C, c = o % C;
        auto at = [&](int k) -> Acc {
            const int64_t e = int64_t(k) * C + c;
            return e < r.src_len ? Acc(loadSample(src, e)) : Acc(0);
        };
        const AreaTableEntry e0 = r.table[i];
        const AreaTableEntry e1 = r.table[i + 1];
        Acc acc = at(e0.first) * e0.weight;
        if (r.reduce) {
            // Middle pixels all carry weight_max: sum them first, two at a time.
            Acc mid0 = 0, mid1 = 0;
            int k = e0.first + 1;
            for (; k + 1 < e1.first; k += 2) {
                mid0 += at(k);
                mid1 += at(k + 1);
            }
            if (k < e1.first) mid0 += at(k);
            acc += (mid0 + mid1) * wm;
            if (e1.weight != wm) acc += at(e1.first) * (wm - e1.weight);
        } else if (e0.weight != wm) {
            acc += at(e0.first + 1) * (wm - e0.weight);
        }
        storeSample(dst, o, acc >> r.shift);
    }
}

template <typename T>
void areaRowsYT(const AreaRowsY& r, T* dst, uint64_t* acc, int x_begin) {
    for (int x = x_begin; x < r.len; ++x) acc[x] = 0;
    for (int k = 0; k < r.count; ++k) {
        const T* row = reinterpret_cast<const T*>(r.rows[k]);
        const uint64_t w = r.weights[k];
        for (int x = x_begin; x < r.len; ++x) acc[x] += uint64_t(loadSample(row, x)) * w;
    }
    for (int x = x_begin; x < r.len; ++x) storeSample(dst, x, acc[x] >> r.shift);
}

}  // namespace

void areaRowX8(const uint8_t* src, uint8_t* dst, const AreaRowX& row, const AreaTaps&, int o_begin) {
    areaRowXT<uint8_t, uint32_t>(src, dst, row, o_begin);
}
void areaRowX16(const uint16_t* src, uint16_t* dst, const AreaRowX& row, const AreaTaps&, int o_begin) {
    areaRowXT<uint16_t, uint64_t>(src, dst, row, o_begin);
}
void areaRowX32(const uint32_t* src, uint32_t* dst, const AreaRowX& row, const AreaTaps&, int o_begin) {
    areaRowXT<uint32_t, uint64_t>(src, dst, row, o_begin);
}

void areaRowsY8(const AreaRowsY& r, uint8_t* dst, uint32_t* acc, int x_begin) {
    for (int x = x_begin; x < r.len; ++x) acc[x] = 0;
    for (int k = 0; k < r.count; ++k) {
        const uint8_t* row = r.rows[k];
        const uint32_t w = r.weights[k];
        for (int x = x_begin; x < r.len; ++x) acc[x] += uint32_t(row[x]) * w;
    }
    for (int x = x_begin; x < r.len; ++x) dst[x] = uint8_t(acc[x] >> r.shift);
}
void areaRowsY16(const AreaRowsY& r, uint16_t* dst, uint64_t* acc, int x_begin) {
    areaRowsYT<uint16_t>(r, dst, acc, x_begin);
}
void areaRowsY32(const AreaRowsY& r, uint32_t* dst, uint64_t* acc, int x_begin) {
    areaRowsYT<uint32_t>(r, dst, acc, x_begin);
}

}  // namespace ref

#pragma GCC push_options
#pragma GCC target("avx2")

namespace avx2 {

namespace {

// Byte shuffles gathering the taps of each value of a group: for a lane loaded
// at the group's first byte, and for one loaded to end on the group's last byte.
// Q = 4 puts a value's four taps in four bytes (summed by maddubs, then madd);
// Q = 2 puts its two taps in two zero-extended words (summed by madd).
template <int C, int Q>
struct BoxMasks {
    static constexpr int V = C == 3 ? 3 : 4;
    static constexpr int B = V / C * Q * C;
    alignas(16) int8_t m[2][16] = {};
    constexpr BoxMasks() {
        for (int v = 0; v < 4; ++v) {
            const int j = v / C, c = v % C;
            for (int t = 0; t < 4; ++t) {
                int idx = -1;
                if (v < V) {
                    if (Q == 4) idx = (j * 4 + t) * C + c;
                    else if (t % 2 == 0) idx = (j * 2 + t / 2) * C + c;
                }
                m[0][4 * v + t] = int8_t(idx < 0 ? -128 : idx);
                m[1][4 * v + t] = int8_t(idx < 0 ? -128 : idx + 16 - B);
            }
        }
    }
};

// Output = (weight_max * box sum of Q pixels) >> shift, for C-channel pixels.
// Each 128-bit lane sums one group of K pixels (V = K * C values: 3 for C = 3,
// else 4) from its own B source bytes; a step takes eight groups. The caller
// guarantees weight_max * Q <= 1 << shift, so every result fits a byte and
// (sum * weight_max) >> shift is the high half of sum * (weight_max << (16 - shift)).
// Returns the values done.
template <int C, int Q>
int uniformBox(const uint8_t* src, uint8_t* dst, const AreaRowX& r) {
    constexpr int V = C == 3 ? 3 : 4;
    constexpr int K = V / C;      // output pixels per group
    constexpr int B = K * Q * C;  // source bytes per group
    const int groups = std::min(r.dst_len / C / K, r.src_len / B);
    if (groups < 8) return 0;
    static constexpr BoxMasks<C, Q> m{};
    const __m256i mask[2] = {_mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(m.m[0]))),
                             _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(m.m[1])))};
    const __m256i ones8 = _mm256_set1_epi8(1);
    const __m256i ones16 = _mm256_set1_epi16(1);
    const __m256i wm = _mm256_set1_epi16(int16_t(uint16_t(r.weight_max << (16 - r.shift))));
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    const __m256i pack3 = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1, 0, 1, 2, 4, 5, 6,
                                           8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    const __m256i join3 = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
    // Sums of groups g and g + 1 (lane 0, lane 1), loaded `back` bytes early.
    auto sums = [&](int g, int back, int which) {
        const uint8_t* p = src + g * B - back;
        __m256i x = _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
        x = _mm256_inserti128_si256(x, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + B)), 1);
        x = _mm256_shuffle_epi8(x, mask[which]);
        if (Q == 4) x = _mm256_maddubs_epi16(x, ones8);
        return _mm256_madd_epi16(x, ones16);
    };
    auto step = [&](int g, int back, int which) {
        const __m256i lo = _mm256_mulhi_epu16(_mm256_packus_epi32(sums(g, back, which), sums(g + 2, back, which)), wm);
        const __m256i hi = _mm256_mulhi_epu16(_mm256_packus_epi32(sums(g + 4, back, which), sums(g + 6, back, which)), wm);
        // Lanes hold groups 0, 2, 4, 6 | 1, 3, 5, 7 as 4-byte values: restore the order.
        __m256i out = _mm256_permutevar8x32_epi32(_mm256_packus_epi16(lo, hi), order);
        uint8_t* d = dst + g * V;
        if (V == 3) {
            out = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(out, pack3), join3);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(out));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(d + 16), _mm256_extracti128_si256(out, 1));
        } else {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(d), out);
        }
    };
    int g = 0;
    for (; g + 8 <= groups && (g + 7) * B + 16 <= r.src_len; g += 8) step(g, 0, 0);
    // Near the row's end each lane is loaded to end on its group's last byte;
    // the last step may redo a few groups (same values) to stay inside the row.
    while (g < groups) {
        const int s = std::min(g, groups - 8);
        if (s * B + B < 16) break;
        step(s, 16 - B, 1);
        g = s + 8;
    }
    return g * V;
}

using BoxFn = int (*)(const uint8_t*, uint8_t*, const AreaRowX&);

BoxFn boxKernel(int channels, int q) {
    static const BoxFn q2[4] = {uniformBox<1, 2>, uniformBox<2, 2>, uniformBox<3, 2>, uniformBox<4, 2>};
    static const BoxFn q4[4] = {uniformBox<1, 4>, uniformBox<2, 4>, uniformBox<3, 4>, uniformBox<4, 4>};
    if (channels < 1 || channels > 4) return nullptr;
    return q == 2 ? q2[channels - 1] : q == 4 ? q4[channels - 1] : nullptr;
}

// Any table: eight output values at a time, one 32-bit gather per tap.
int gatherTaps(const uint8_t* src, uint8_t* dst, const AreaRowX& r, const AreaTaps& t, int o) {
    const __m256i low8 = _mm256_set1_epi32(0xFF);
    const __m128i shift = _mm_cvtsi32_si128(r.shift);
    const __m256i step = _mm256_set1_epi32(r.channels);
    for (; o + 8 <= t.vec_values; o += 8) {
        __m256i idx = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(&t.offset[size_t(o)]));
        const int32_t* w = &t.weights[size_t(o) * size_t(t.taps)];
        __m256i acc = _mm256_setzero_si256();
        for (int k = 0; k < t.taps; ++k, w += 8, idx = _mm256_add_epi32(idx, step)) {
            const __m256i s = _mm256_and_si256(_mm256_i32gather_epi32(reinterpret_cast<const int*>(src), idx, 1), low8);
            acc = _mm256_add_epi32(acc, _mm256_mullo_epi32(s, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(w))));
        }
        acc = _mm256_and_si256(_mm256_srl_epi32(acc, shift), low8);
        __m128i p = _mm_packus_epi32(_mm256_castsi256_si128(acc), _mm256_extracti128_si256(acc, 1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(dst + o), _mm_packus_epi16(p, p));
    }
    return o;
}

// Adds rows a and b (32 bytes from x) times wa and wb (both below 32768) to four
// accumulators of eight elements: elements 0-3|16-19, 4-7|20-23, 8-11|24-27, 12-15|28-31.
inline void maddRows(const uint8_t* a, const uint8_t* b, uint32_t wa, uint32_t wb, __m256i acc[4]) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i w = _mm256_set1_epi32(int32_t(wa | (wb << 16)));
    const __m256i ra = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a));
    const __m256i rb = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b));
    const __m256i lo = _mm256_unpacklo_epi8(ra, rb);
    const __m256i hi = _mm256_unpackhi_epi8(ra, rb);
    acc[0] = _mm256_add_epi32(acc[0], _mm256_madd_epi16(_mm256_unpacklo_epi8(lo, zero), w));
    acc[1] = _mm256_add_epi32(acc[1], _mm256_madd_epi16(_mm256_unpackhi_epi8(lo, zero), w));
    acc[2] = _mm256_add_epi32(acc[2], _mm256_madd_epi16(_mm256_unpacklo_epi8(hi, zero), w));
    acc[3] = _mm256_add_epi32(acc[3], _mm256_madd_epi16(_mm256_unpackhi_epi8(hi, zero), w));
}

// Calls madd(a, b, wa, wb) for the rows of `r` (from byte `offset`) in pairs
// with both weights below 32768: a row whose weight reaches 32768, and a
// last row without a partner, is paired with itself, its weight split in two.
template <typename Madd>
inline void rowPairs(const AreaRowsY& r, size_t offset, Madd madd) {
    auto alone = [&](const uint8_t* a, uint32_t w) { madd(a, a, w / 2, w - w / 2); };
    int k = 0;
    for (; k + 1 < r.count; k += 2) {
        const uint32_t w0 = r.weights[k], w1 = r.weights[k + 1];
        const uint8_t* a = r.rows[k] + offset;
        const uint8_t* b = r.rows[k + 1] + offset;
        if (w0 < 32768 && w1 < 32768) {
            madd(a, b, w0, w1);
        } else {
            alone(a, w0);
            alone(b, w1);
        }
    }
    if (k < r.count) alone(r.rows[k] + offset, r.weights[k]);
}

// Every value of the row through the shuffle plan: per block and half, per
// tap pair, OR the words selected from each chunk, multiply-add them with the
// pair's weights and sum; then shift, keep the low byte (as the reference's
// byte store does) and store sixteen bytes.
// kP > 0 fixes the pair count (unrolled); 0 reads it from the plan. SB is
// the sample size: 16-bit samples enter the multiply-adds as s - 32768 and
// the plan's bias adds 32768 x their weights back (the sum stays below 2^32).
template <int SB, int K, int kP>
void pairBlocks(const uint8_t* src, uint8_t* dst, const AreaRowX& r, const AreaTaps& t) {
    const int P = kP > 0 ? kP : t.pairs;
    const __m256i* sets = reinterpret_cast<const __m256i*>(t.pair_select.data());
    const __m256i* w = reinterpret_cast<const __m256i*>(t.pair_weights.data());
    const __m256i* bias = reinterpret_cast<const __m256i*>(t.pair_bias.data());
    const __m128i shift = _mm_cvtsi32_si128(r.shift);
    const __m256i low = _mm256_set1_epi32(SB == 1 ? 0xFF : 0xFFFF);
    const __m256i flip = _mm256_set1_epi16(-32768);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    auto load2 = [&](const uint8_t* a, const uint8_t* b) {
        return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a))),
                                       _mm_loadu_si128(reinterpret_cast<const __m128i*>(b)), 1);
    };
    // One half: the values of the lanes at base[0] and base[1].
    auto half = [&](const int32_t* base, const __m256i* sel, const __m256i* wp, const __m256i* b) {
        __m256i c[K];
        for (int k = 0; k < K; ++k) c[k] = load2(src + base[0] + 16 * k, src + base[1] + 16 * k);
        __m256i a = SB == 1 ? _mm256_setzero_si256() : _mm256_loadu_si256(b);
        for (int p = 0; p < P; ++p) {
            __m256i words = _mm256_shuffle_epi8(c[0], _mm256_loadu_si256(sel + p));
            for (int k = 1; k < K; ++k)
                words = _mm256_or_si256(words, _mm256_shuffle_epi8(c[k], _mm256_loadu_si256(sel + k * P + p)));
            if (SB == 2) words = _mm256_xor_si256(words, flip);
            a = _mm256_add_epi32(a, _mm256_madd_epi16(words, _mm256_loadu_si256(wp + p)));
        }
        return _mm256_and_si256(_mm256_srl_epi32(a, shift), low);
    };
    for (const AreaTaps::PairBlock& blk : t.pair_block) {
        const __m256i* sel = sets + size_t(blk.pattern) * size_t(2 * K * P);
        const __m256i lo = half(blk.base, sel, w, bias);
        // Byte rows have no bias words (no pointer arithmetic on the empty plan).
        const __m256i hi = half(blk.base + 2, sel + K * P, w + P, SB == 2 ? bias + 1 : bias);
        w += 2 * P;
        if (SB == 2) bias += 2;
        // Words: lane 0 holds values 0-3 | 8-11, lane 1 4-7 | 12-15.
        const __m256i words = _mm256_packus_epi32(lo, hi);
        if (SB == 1) {
            const __m256i out = _mm256_permutevar8x32_epi32(_mm256_packus_epi16(words, _mm256_setzero_si256()), order);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + blk.start), _mm256_castsi256_si128(out));
        } else {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 2 * size_t(blk.start)), _mm256_permute4x64_epi64(words, 0xD8));
        }
    }
}

// The row through the shuffle plan, false when it has none. The plan was
// built for samples of SB bytes; pair counts up to 5 are unrolled.
template <int SB>
bool pairRow(const void* src, void* dst, const AreaRowX& r, const AreaTaps& t) {
    const auto* s = static_cast<const uint8_t*>(src);
    auto* d = static_cast<uint8_t*>(dst);
    return t.pair_blocks && dispatchCount<kMaxPairChunks>(t.chunks, [&](auto k) {
               if (!dispatchCount<5>(t.pairs, [&](auto p) { pairBlocks<SB, k(), p()>(s, d, r, t); }))
                   pairBlocks<SB, k(), 0>(s, d, r, t);
           });
}

}  // namespace

void areaRowX8(const uint8_t* src, uint8_t* dst, const AreaRowX& row, const AreaTaps& taps, int o_begin) {
    int o = o_begin;
    if (o == 0 && taps.uniform_q && uint32_t(row.weight_max) * uint32_t(taps.uniform_q) <= (1u << row.shift)) {
        if (const BoxFn f = boxKernel(row.channels, taps.uniform_q)) o = f(src, dst, row);
    }
    if (o == 0 && pairRow<1>(src, dst, row, taps)) return;
    if (o % 8 == 0 && taps.taps > 0) o = gatherTaps(src, dst, row, taps, o);
    ref::areaRowX8(src, dst, row, taps, o);
}

void areaRowsY8(const AreaRowsY& r, uint8_t* dst, uint32_t* acc, int x_begin) {
    const __m256i low8 = _mm256_set1_epi32(0xFF);
    const __m128i shift = _mm_cvtsi32_si128(r.shift);
    int x = x_begin;
    for (; x + 32 <= r.len; x += 32) {
        __m256i a[4] = {_mm256_setzero_si256(), _mm256_setzero_si256(), _mm256_setzero_si256(),
                        _mm256_setzero_si256()};
        rowPairs(r, size_t(x), [&](const uint8_t* ra, const uint8_t* rb, uint32_t wa, uint32_t wb) {
            maddRows(ra, rb, wa, wb, a);
        });
        for (auto& v : a) v = _mm256_and_si256(_mm256_srl_epi32(v, shift), low8);
        const __m256i p = _mm256_packus_epi16(_mm256_packus_epi32(a[0], a[1]), _mm256_packus_epi32(a[2], a[3]));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + x), p);
    }
    ref::areaRowsY8(r, dst, acc, x);
}

void areaRowX16(const uint16_t* src, uint16_t* dst, const AreaRowX& row, const AreaTaps& taps, int o_begin) {
    if (o_begin == 0 && pairRow<2>(src, dst, row, taps)) return;
    ref::areaRowX16(src, dst, row, taps, o_begin);
}

// The low 32 bits of the 64-bit sums of the even and the odd lanes, shifted
// right, back in their eight lanes.
inline __m256i shiftedLanes(__m256i even, __m256i odd, __m128i shift) {
    return _mm256_blend_epi32(_mm256_srl_epi64(even, shift), _mm256_slli_epi64(_mm256_srl_epi64(odd, shift), 32), 0xAA);
}

// Eight values per step from the permute plan: K loads of eight samples, per
// tap the samples picked from them (permuteLoads), 64-bit products
// of the even and the odd lanes. Returns the values done.
template <int K>
int permuteTaps32(const uint32_t* src, uint32_t* dst, const AreaRowX& row, const AreaTaps& t) {
    const __m128i shift = _mm_cvtsi32_si128(row.shift);
    const int taps = t.taps;
    const int32_t* index = t.perm_index.data();
    const int32_t* w = t.weights.data();
    for (int b = 0; b < t.perm_blocks; ++b) {
        const uint32_t* s = src + t.perm_base[size_t(b)];
        __m256i c[K];
        for (int j = 0; j < K; ++j) c[j] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 8 * j));
        __m256i even = _mm256_setzero_si256(), odd = _mm256_setzero_si256();
        for (int k = 0; k < taps; ++k, index += 8, w += 8) {
            const __m256i idx = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(index));
            const __m256i wk = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(w));
            const __m256i v = permuteLoads<K>(c, idx);
            even = _mm256_add_epi64(even, _mm256_mul_epu32(v, wk));
            odd = _mm256_add_epi64(odd, _mm256_mul_epu32(_mm256_srli_epi64(v, 32), _mm256_srli_epi64(wk, 32)));
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 8 * b), shiftedLanes(even, odd, shift));
    }
    return 8 * t.perm_blocks;
}

// One-channel rows whose blocks span too many loads for the permute plan:
// each value's taps are consecutive samples from its offset, so per block
// the eight windows of 8 x L samples are loaded and transposed into one
// vector per tap (weights past a value's taps are 0). Runs while the windows
// lie inside the row; returns the values done.
template <int L>
int windowTaps32(const uint32_t* src, uint32_t* dst, const AreaRowX& row, const AreaTaps& t) {
    const __m128i shift = _mm_cvtsi32_si128(row.shift);
    int o = 0;
    for (; o + 8 <= row.dst_len && t.offset[size_t(o) + 7] + 8 * L <= row.src_len; o += 8) {
        const int32_t* w = &t.weights[size_t(o) * size_t(t.taps)];
        __m256i even = _mm256_setzero_si256(), odd = _mm256_setzero_si256();
        for (int l = 0; l < L; ++l) {
            __m256 r[8];
            for (int j = 0; j < 8; ++j)
                r[j] = _mm256_loadu_ps(reinterpret_cast<const float*>(src + t.offset[size_t(o + j)] + 8 * l));
            transpose8(r);
            for (int k = 8 * l; k < std::min(t.taps, 8 * l + 8); ++k) {
                const __m256i v = _mm256_castps_si256(r[k - 8 * l]);
                const __m256i wk = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(w + 8 * k));
                even = _mm256_add_epi64(even, _mm256_mul_epu32(v, wk));
                odd = _mm256_add_epi64(odd, _mm256_mul_epu32(_mm256_srli_epi64(v, 32), _mm256_srli_epi64(wk, 32)));
            }
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + o), shiftedLanes(even, odd, shift));
    }
    return o;
}

// Eight values per step: from the permute plan or the windows of one-channel
// rows, else one masked 32-bit gather per tap (taps without a weight load
// nothing), 64-bit products of the even and the odd lanes.
void areaRowX32(const uint32_t* src, uint32_t* dst, const AreaRowX& row, const AreaTaps& t, int o_begin) {
    int o = o_begin;
    if (o == 0 && t.perm_blocks > 0)
        dispatchCount<kMaxPermuteLoads>(t.perm_chunks, [&](auto k) { o = permuteTaps32<k()>(src, dst, row, t); });
    else if (o == 0 && row.channels == 1 && t.taps > 0 && t.taps <= 16)
        o = t.taps <= 8 ? windowTaps32<1>(src, dst, row, t) : windowTaps32<2>(src, dst, row, t);
    if (o % 8 == 0 && t.taps > 0) {
        const __m128i shift = _mm_cvtsi32_si128(row.shift);
        const __m256i step = _mm256_set1_epi32(row.channels);
        const __m256i zero = _mm256_setzero_si256();
        const int* base = reinterpret_cast<const int*>(src);
        for (; o + 8 <= row.dst_len; o += 8) {
            __m256i idx = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(&t.offset[size_t(o)]));
            const int32_t* w = &t.weights[size_t(o) * size_t(t.taps)];
            __m256i even = zero, odd = zero;
            for (int k = 0; k < t.taps; ++k, w += 8, idx = _mm256_add_epi32(idx, step)) {
                const __m256i wk = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(w));
                const __m256i used = _mm256_cmpgt_epi32(wk, zero);
                const __m256i s = _mm256_mask_i32gather_epi32(zero, base, idx, used, 4);
                even = _mm256_add_epi64(even, _mm256_mul_epu32(s, wk));
                odd = _mm256_add_epi64(odd, _mm256_mul_epu32(_mm256_srli_epi64(s, 32), _mm256_srli_epi64(wk, 32)));
            }
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + o), shiftedLanes(even, odd, shift));
        }
    }
    ref::areaRowX32(src, dst, row, t, o);
}

// 16 values per step: rows in pairs as interleaved words s - 32768, one
// multiply-add per pair with the two weights (a weight of 32768 or more is
// split over a row paired with itself); 32768 x the weights is added back
// at the end. Exact while 65535 x the weight sum stays below 2^32.
void areaRowsY16(const AreaRowsY& r, uint16_t* dst, uint64_t* acc, int x_begin) {
    uint64_t total = 0;
    for (int k = 0; k < r.count; ++k) total += r.weights[k];
    int x = x_begin;
    if (total <= 65536) {
        const __m128i shift = _mm_cvtsi32_si128(r.shift);
        const __m256i flip = _mm256_set1_epi16(-32768), low16 = _mm256_set1_epi32(0xFFFF);
        const __m256i bias = _mm256_set1_epi32(int32_t(uint32_t(total << 15)));
        auto pair = [&](const uint8_t* a, const uint8_t* b, uint32_t wa, uint32_t wb, __m256i acc2[2]) {
            const __m256i w = _mm256_set1_epi32(int32_t(wa | (wb << 16)));
            const __m256i va = _mm256_xor_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(a)), flip);
            const __m256i vb = _mm256_xor_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(b)), flip);
            acc2[0] = _mm256_add_epi32(acc2[0], _mm256_madd_epi16(_mm256_unpacklo_epi16(va, vb), w));
            acc2[1] = _mm256_add_epi32(acc2[1], _mm256_madd_epi16(_mm256_unpackhi_epi16(va, vb), w));
        };
        for (; x + 16 <= r.len; x += 16) {
            __m256i a[2] = {bias, bias};
            rowPairs(r, size_t(x) * 2, [&](const uint8_t* ra, const uint8_t* rb, uint32_t wa, uint32_t wb) {
                pair(ra, rb, wa, wb, a);
            });
            // Words of values 0-3 | 8-11 and 4-7 | 12-15: the pack restores the order.
            const __m256i lo = _mm256_and_si256(_mm256_srl_epi32(a[0], shift), low16);
            const __m256i hi = _mm256_and_si256(_mm256_srl_epi32(a[1], shift), low16);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + x), _mm256_packus_epi32(lo, hi));
        }
    }
    ref::areaRowsY16(r, dst, acc, x);
}

// Eight values per step in 64-bit sums of the even and the odd lanes.
void areaRowsY32(const AreaRowsY& r, uint32_t* dst, uint64_t* acc, int x_begin) {
    const __m128i shift = _mm_cvtsi32_si128(r.shift);
    int x = x_begin;
    for (; x + 8 <= r.len; x += 8) {
        __m256i even = _mm256_setzero_si256(), odd = _mm256_setzero_si256();
        for (int k = 0; k < r.count; ++k) {
            const __m256i w = _mm256_set1_epi64x(int64_t(r.weights[k]));
            const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(r.rows[k] + size_t(x) * 4));
            even = _mm256_add_epi64(even, _mm256_mul_epu32(v, w));
            odd = _mm256_add_epi64(odd, _mm256_mul_epu32(_mm256_srli_epi64(v, 32), w));
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + x), shiftedLanes(even, odd, shift));
    }
    ref::areaRowsY32(r, dst, acc, x);
}

}  // namespace avx2

#pragma GCC pop_options

KV_AVX512_BEGIN

namespace avx512 {

namespace {

// One block of the wide plan and its split form: per pair p the words of
// halves 0 and 1 (`words(k, half)` for table k = 2p + half) multiply-add
// their weights; then shift and keep the low byte, as the reference's byte
// store does, for the block's 32 values at d.
template <typename Words>
inline void pairSums(int P, const __m512i* w, __m128i shift, uint8_t* d, Words words) {
    __m512i a0 = _mm512_setzero_si512(), a1 = _mm512_setzero_si512();
    for (int p = 0; p < P; ++p) {
        a0 = _mm512_add_epi32(a0, _mm512_madd_epi16(words(2 * p, 0), _mm512_load_si512(w + 2 * p)));
        a1 = _mm512_add_epi32(a1, _mm512_madd_epi16(words(2 * p + 1, 1), _mm512_load_si512(w + 2 * p + 1)));
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm512_cvtepi32_epi8(_mm512_srl_epi32(a0, shift)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 16), _mm512_cvtepi32_epi8(_mm512_srl_epi32(a1, shift)));
}

// The wide plan: per block one 64-byte load, per pair and half one byte
// permute. Index bytes widen to words: the permute reads each word's low byte
// and zeroes its high one. kP > 0 fixes the pair count.
template <int kP>
void wideBlocks(const uint8_t* src, uint8_t* dst, const AreaRowX& r, const AreaTaps& t) {
    const int P = kP > 0 ? kP : t.wide_pairs;
    const __m256i* indices = reinterpret_cast<const __m256i*>(t.wide_index.data());
    const __m512i* weights = reinterpret_cast<const __m512i*>(t.wide_weight.data());
    const int32_t* base = t.wide_base.data();
    const __m128i shift = _mm_cvtsi32_si128(r.shift);
    constexpr __mmask64 kEvenBytes = 0x5555555555555555ull;
    for (int b = 0; b < t.wide_blocks; ++b) {
        const size_t pattern = size_t(base[3 * b + 2]) * size_t(2 * P);
        const __m256i* idx = indices + pattern;
        const __m512i window = _mm512_loadu_si512(src + base[3 * b]);
        pairSums(P, weights + pattern, shift, dst + base[3 * b + 1], [&](int k, int) {
            return _mm512_maskz_permutexvar_epi8(kEvenBytes, _mm512_cvtepu8_epi16(_mm256_load_si256(idx + k)), window);
        });
    }
}

// The split form: values 8g to 8g + 7 of a block from the 128 bytes at their
// own base, one two-table permute per group, pair and half.
template <int kP>
void splitBlocks(const uint8_t* src, uint8_t* dst, const AreaRowX& r, const AreaTaps& t) {
    const int P = kP > 0 ? kP : t.wide_pairs;
    const __m256i* indices = reinterpret_cast<const __m256i*>(t.wide_index.data());
    const __m512i* weights = reinterpret_cast<const __m512i*>(t.wide_weight.data());
    const int32_t* base = t.wide_base.data();
    const int32_t* group_base = t.split_base.data();
    const __m128i shift = _mm_cvtsi32_si128(r.shift);
    // Words of the first eight values of a half, and of the second eight.
    constexpr __mmask64 kFirst = 0x0000000055555555ull, kSecond = 0x5555555500000000ull;
    for (int b = 0; b < t.wide_blocks; ++b, group_base += 4) {
        const size_t pattern = size_t(base[3 * b + 2]) * size_t(2 * P);
        const __m256i* idx = indices + pattern;
        __m512i lo[4], hi[4];
        for (int g = 0; g < 4; ++g) {
            lo[g] = _mm512_loadu_si512(src + group_base[g]);
            hi[g] = _mm512_loadu_si512(src + group_base[g] + 64);
        }
        pairSums(P, weights + pattern, shift, dst + base[3 * b + 1], [&](int k, int half) {
            const __m512i i = _mm512_cvtepu8_epi16(_mm256_load_si256(idx + k));
            const int g = 2 * half;
            return _mm512_or_si512(_mm512_maskz_permutex2var_epi8(kFirst, lo[g], i, hi[g]),
                                   _mm512_maskz_permutex2var_epi8(kSecond, lo[g + 1], i, hi[g + 1]));
        });
    }
}

}  // namespace

void areaRowX8(const uint8_t* src, uint8_t* dst, const AreaRowX& row, const AreaTaps& taps, int o_begin) {
    const bool box = taps.uniform_q && uint32_t(row.weight_max) * uint32_t(taps.uniform_q) <= (1u << row.shift);
    if (o_begin != 0 || box || !taps.wide_blocks) {
        avx2::areaRowX8(src, dst, row, taps, o_begin);
        return;
    }
    if (taps.wide_split) {
        if (!dispatchCount<kMaxSplitPairs>(taps.wide_pairs, [&](auto p) { splitBlocks<p()>(src, dst, row, taps); }))
            splitBlocks<0>(src, dst, row, taps);
    } else if (!dispatchCount<kMaxWidePairs>(taps.wide_pairs, [&](auto p) { wideBlocks<p()>(src, dst, row, taps); })) {
        wideBlocks<0>(src, dst, row, taps);
    }
}

// The AVX2 kernel's arithmetic on 64 values per step (the lanes of each
// 128-bit quarter unpack and pack back in order); the rest goes to it.
void areaRowsY8(const AreaRowsY& r, uint8_t* dst, uint32_t* acc, int x_begin) {
    const __m512i zero = _mm512_setzero_si512();
    const __m512i low8 = _mm512_set1_epi32(0xFF);
    const __m128i shift = _mm_cvtsi32_si128(r.shift);
    int x = x_begin;
    for (; x + 64 <= r.len; x += 64) {
        __m512i a[4] = {zero, zero, zero, zero};
        auto madd = [&](const uint8_t* ra, const uint8_t* rb, uint32_t wa, uint32_t wb) {
            const __m512i w = _mm512_set1_epi32(int32_t(wa | (wb << 16)));
            const __m512i va = _mm512_loadu_si512(ra + x), vb = _mm512_loadu_si512(rb + x);
            const __m512i lo = _mm512_unpacklo_epi8(va, vb), hi = _mm512_unpackhi_epi8(va, vb);
            a[0] = _mm512_add_epi32(a[0], _mm512_madd_epi16(_mm512_unpacklo_epi8(lo, zero), w));
            a[1] = _mm512_add_epi32(a[1], _mm512_madd_epi16(_mm512_unpackhi_epi8(lo, zero), w));
            a[2] = _mm512_add_epi32(a[2], _mm512_madd_epi16(_mm512_unpacklo_epi8(hi, zero), w));
            a[3] = _mm512_add_epi32(a[3], _mm512_madd_epi16(_mm512_unpackhi_epi8(hi, zero), w));
        };
        // Rows in pairs with both weights below 32768, as the AVX2 kernel pairs them.
        auto alone = [&](const uint8_t* ra, uint32_t w) { madd(ra, ra, w / 2, w - w / 2); };
        int k = 0;
        for (; k + 1 < r.count; k += 2) {
            const uint32_t w0 = r.weights[k], w1 = r.weights[k + 1];
            if (w0 < 32768 && w1 < 32768) {
                madd(r.rows[k], r.rows[k + 1], w0, w1);
            } else {
                alone(r.rows[k], w0);
                alone(r.rows[k + 1], w1);
            }
        }
        if (k < r.count) alone(r.rows[k], r.weights[k]);
        for (auto& v : a) v = _mm512_and_si512(_mm512_srl_epi32(v, shift), low8);
        _mm512_storeu_si512(dst + x, _mm512_packus_epi16(_mm512_packus_epi32(a[0], a[1]), _mm512_packus_epi32(a[2], a[3])));
    }
    avx2::areaRowsY8(r, dst, acc, x);
}

}  // namespace avx512

KV_AVX512_END

}  // namespace impl
}  // namespace kv
