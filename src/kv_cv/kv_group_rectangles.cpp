// Rectangle grouping: partition() clusters rectangles with a union-find forest
// under the similarity predicate; groupRectangles() averages each cluster and
// filters clusters by size and containment.
#include "kv_cv/kv_group_rectangles.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "kv_core/kv_exception.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_group_rectangles"

namespace kv {

namespace {

// Edges of one rectangle as doubles: every difference of two 32-bit values is
// exact in double, so the predicate below equals the integer formulation
// without 32-bit overflow for rectangles near the range limits.
struct Edges {
    double x, y, right, bottom, width, height;
};

struct Node {
    int32_t parent;
    int32_t rank;
};

// Per-cluster accumulators. Sums wrap like 32-bit integers (unsigned, so
// wrapping is defined).
struct Cluster {
    uint32_t sum_x, sum_y, sum_w, sum_h;
    int32_t count;
    int32_t best_level;
    double level_weight;
    Rect average;
};

constexpr double kInitialLevelWeight = DBL_MIN;  // 2.2250738585072014e-308

inline int32_t findRoot(const Node* nodes, int32_t i) {
    while (nodes[i].parent >= 0) i = nodes[i].parent;
    return i;
}

inline void compressPath(Node* nodes, int32_t i, int32_t root) {
    while (nodes[i].parent >= 0) {
        const int32_t next = nodes[i].parent;
        nodes[i].parent = root;
        i = next;
    }
}

// Round to nearest, ties to even (the default rounding mode).
inline int32_t roundToInt(float v) { return static_cast<int32_t>(std::lrintf(v)); }
// The same for the containment margins, clamped to +-2^40: every edge
// difference of 32-bit rectangles lies far inside that, so a clamped margin
// decides as the exact one would, and 64-bit edge sums cannot overflow. NaN
// takes the most negative value, as the processor's conversion gives it.
inline int64_t roundMargin(double v) {
    constexpr int64_t kLimit = int64_t(1) << 40;
    if (!(v >= -double(kLimit))) return -kLimit;
    if (v > double(kLimit)) return kLimit;
    return static_cast<int64_t>(std::llrint(v));
}

}  // namespace

// Fills class_ids with one class number per rectangle, numbered in order of
// each class's first member; returns the number of classes.
static int32_t partition(const std::vector<Rect>& rects, std::vector<int32_t>& class_ids, double tolerance) {
    const int32_t n = static_cast<int32_t>(rects.size());
    std::vector<Node> node_storage(size_t(n), Node{-1, 0});
    std::vector<Edges> edge_storage(static_cast<size_t>(n));
    Node* nodes = node_storage.data();
    Edges* edges = edge_storage.data();
    for (int32_t i = 0; i < n; ++i) {
        const Rect& r = rects[size_t(i)];
        edges[i] = Edges{double(r.x), double(r.y), double(r.x) + r.width, double(r.y) + r.height,
                         double(r.width), double(r.height)};
    }

    for (int32_t i = 0; i < n; ++i) {
        int32_t root = findRoot(nodes, i);
        const Edges a = edges[i];
        for (int32_t j = 0; j < n; ++j) {
            const Edges& b = edges[j];
            const double delta = (std::min(a.width, b.width) + std::min(a.height, b.height)) * tolerance * 0.5;
            if (j == i || !(std::fabs(a.x - b.x) <= delta && std::fabs(a.y - b.y) <= delta &&
                            std::fabs(a.right - b.right) <= delta && std::fabs(a.bottom - b.bottom) <= delta))
                continue;
            int32_t root2 = findRoot(nodes, j);
            if (root2 != root) {
                if (nodes[root2].rank < nodes[root].rank) {
                    nodes[root2].parent = root;
                } else {
                    nodes[root].parent = root2;
                    nodes[root2].rank += nodes[root2].rank == nodes[root].rank;
                    root = root2;
                }
            }
            KV_ASSERT_TEXT_LINE(nodes[root].parent < 0, "nodes[root][PARENT] < 0", "kv::partition", __LINE__);
            compressPath(nodes, j, root);
            compressPath(nodes, i, root);
        }
    }

    // Roots hold ~class number in RANK once numbered (negative, so told apart
    // from ranks, which are never negative).
    class_ids.resize(size_t(n));
    int32_t class_count = 0;
    for (int32_t i = 0; i < n; ++i) {
        const int32_t root = findRoot(nodes, i);
        if (nodes[root].rank >= 0) nodes[root].rank = ~class_count++;
        class_ids[size_t(i)] = ~nodes[root].rank;
    }
    return class_count;
}

void groupRectangles(std::vector<Rect>& rects, int32_t threshold, double tolerance, std::vector<int32_t>* weights,
                     std::vector<double>* level_weights) {
    if (threshold <= 0 || rects.empty()) {
        if (weights) weights->assign(rects.size(), 1);
        return;
    }

    const size_t n = rects.size();
    std::vector<int32_t> class_ids;
    const int32_t class_count = partition(rects, class_ids, tolerance);

    std::vector<Cluster> clusters(size_t(class_count), Cluster{0, 0, 0, 0, 0, 0, kInitialLevelWeight, Rect()});
    for (size_t i = 0; i < n; ++i) {
        Cluster& c = clusters[size_t(class_ids[i])];
        const Rect& r = rects[i];
        c.sum_x += uint32_t(r.x);
        c.sum_y += uint32_t(r.y);
        c.sum_w += uint32_t(r.width);
        c.sum_h += uint32_t(r.height);
        ++c.count;
    }

    const bool use_levels = weights && level_weights && !weights->empty() && !level_weights->empty();
    if (use_levels) {
        // Only rectangles that have both a level and a level weight compete.
        const size_t m = std::min(n, std::min(weights->size(), level_weights->size()));
        for (size_t i = 0; i < m; ++i) {
            Cluster& c = clusters[size_t(class_ids[i])];
            const int32_t level = (*weights)[i];
            const double score = (*level_weights)[i];
            if (level > c.best_level) {
                c.best_level = level;
                c.level_weight = score;
            } else if (level == c.best_level && score > c.level_weight) {
                c.level_weight = score;
            }
        }
    }

    for (Cluster& c : clusters) {
        const float s = 1.0f / float(c.count);
        c.average = Rect(roundToInt(float(int32_t(c.sum_x)) * s), roundToInt(float(int32_t(c.sum_y)) * s),
                         roundToInt(float(int32_t(c.sum_w)) * s), roundToInt(float(int32_t(c.sum_h)) * s));
    }

    rects.clear();
    if (weights) {
        weights->clear();
        weights->reserve(size_t(class_count));
    }
    if (level_weights) {
        level_weights->clear();
        level_weights->reserve(size_t(class_count));
    }

    for (int32_t i = 0; i < class_count; ++i) {
        const Cluster& ci = clusters[size_t(i)];
        const int32_t n1 = ci.count;
        if (n1 <= threshold) continue;
        const Rect& r1 = ci.average;
        bool dropped = false;
        for (int32_t j = 0; j < class_count && !dropped; ++j) {
            const Cluster& cj = clusters[size_t(j)];
            const int32_t n2 = cj.count;
            if (j == i || n2 <= threshold) continue;
            const Rect& r2 = cj.average;
            const int64_t dx = roundMargin(r2.width * tolerance);
            const int64_t dy = roundMargin(r2.height * tolerance);
            // 64-bit so that edges near the 32-bit limits cannot overflow.
            const bool inside = r1.x >= r2.x - dx && r1.y >= r2.y - dy &&
                                int64_t(r1.x) + r1.width <= int64_t(r2.x) + r2.width + dx &&
                                int64_t(r1.y) + r1.height <= int64_t(r2.y) + r2.height + dy;
            dropped = inside && (n2 > std::max(3, n1) || n1 < 3);
        }
        if (dropped) continue;
        rects.push_back(r1);
        if (weights) weights->push_back(use_levels ? ci.best_level : n1);
        if (level_weights) level_weights->push_back(ci.level_weight);
    }
}

void groupRectangles(std::vector<Rect>& rects, int32_t threshold, double tolerance) {
    groupRectangles(rects, threshold, tolerance, nullptr, nullptr);
}

void groupRectangles(std::vector<Rect>& rects, std::vector<int32_t>& weights, int32_t threshold, double tolerance) {
    groupRectangles(rects, threshold, tolerance, &weights, nullptr);
}

void groupRectangles(std::vector<Rect>& rects, std::vector<int32_t>& levels, std::vector<double>& level_weights,
                     int32_t threshold, double tolerance) {
    groupRectangles(rects, threshold, tolerance, &levels, &level_weights);
}

}  // namespace kv
