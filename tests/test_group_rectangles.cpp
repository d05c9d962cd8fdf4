// Tests of groupRectangles: hand-checked cases for the early path, averaging
// and its rounding, containment, levels and tolerance, and a randomised check
// against an independent model (clusters found by breadth-first search over
// the similarity relation).
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "kv_cv/kv_group_rectangles.h"

namespace {

using kv::Rect;
using Rects = std::vector<Rect>;
using Ints = std::vector<int32_t>;
using Doubles = std::vector<double>;

constexpr double kNoLevelWeight = 2.2250738585072014e-308;

Rects repeat(const Rect& r, int count) { return Rects(size_t(count), r); }

Rects concat(std::initializer_list<Rects> parts) {
    Rects all;
    for (const Rects& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

TEST(GroupRectangles, EarlyPathKeepsRectanglesAndSetsUnitWeights) {
    const Rects input = {{0, 0, 10, 10}, {0, 0, 10, 10}, {50, 50, 5, 5}};
    for (int threshold : {0, -1, -100}) {
        Rects rects = input;
        Ints weights = {7, 8};
        Doubles level_weights = {0.25};
        kv::groupRectangles(rects, threshold, 0.2, &weights, &level_weights);
        EXPECT_EQ(rects, input);
        EXPECT_EQ(weights, Ints(input.size(), 1));
        EXPECT_EQ(level_weights, Doubles{0.25}) << "level weights are not touched";
    }
    Rects empty;
    Ints weights = {3, 4};
    kv::groupRectangles(empty, weights, 2, 0.2);
    EXPECT_TRUE(empty.empty());
    EXPECT_TRUE(weights.empty());
}

// Single-cluster cases: threshold 1, the surviving rectangle and its weight.
TEST(GroupRectangles, SingleClusterAverages) {
    struct Case {
        const char* name;
        Rects input;
        double tolerance;
        Rects expected;
        Ints weights;
    };
    const Case cases[] = {
        {"identical pair", repeat({3, 4, 20, 30}, 2), 0.2, {{3, 4, 20, 30}}, {2}},
        {"isolated rectangle", {{3, 4, 20, 30}}, 0.2, {}, {}},
        {"width 10.5 rounds to even 10", {{0, 0, 10, 10}, {0, 0, 11, 10}}, 0.2, {{0, 0, 10, 10}}, {2}},
        {"width 11.5 rounds to even 12", {{0, 0, 11, 10}, {0, 0, 12, 10}}, 0.2, {{0, 0, 12, 10}}, {2}},
        {"x 1.5 and y 2.5", {{1, 2, 20, 20}, {2, 3, 20, 20}}, 0.2, {{2, 2, 20, 20}}, {2}},
        {"negative -0.5 rounds to 0", {{-1, -2, 20, 20}, {0, -1, 20, 20}}, 0.2, {{0, -2, 20, 20}}, {2}},
        {"thirds", {{0, 0, 30, 30}, {1, 1, 30, 30}, {1, 2, 31, 32}}, 0.2, {{1, 1, 30, 31}}, {3}},
        // A~B and B~C but not A~C: similarity is closed transitively.
        {"chain", {{0, 0, 100, 100}, {15, 0, 100, 100}, {30, 0, 100, 100}}, 0.2, {{15, 0, 100, 100}}, {3}},
        {"tolerance 0 identical corners", repeat({5, 5, 9, 9}, 2), 0.0, {{5, 5, 9, 9}}, {2}},
        {"tolerance 0 x differs", {{5, 5, 9, 9}, {6, 5, 9, 9}}, 0.0, {}, {}},
        {"tolerance 0 height differs", {{5, 5, 9, 9}, {5, 5, 9, 10}}, 0.0, {}, {}},
        {"negative tolerance: all singletons", repeat({5, 5, 9, 9}, 3), -0.2, {}, {}},
        // delta = (10 + 10) * 0.2 / 2 = 2: an edge 2 apart is similar, 3 is not.
        {"edge at delta", {{0, 0, 10, 10}, {2, 0, 10, 10}}, 0.2, {{1, 0, 10, 10}}, {2}},
        {"edge past delta", {{0, 0, 10, 10}, {0, 0, 13, 10}}, 0.2, {}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Rects rects = c.input;
        Ints weights;
        kv::groupRectangles(rects, weights, 1, c.tolerance);
        EXPECT_EQ(rects, c.expected);
        EXPECT_EQ(weights, c.weights);
    }
}

// An inner cluster (listed first) inside an outer one, both above threshold 1.
TEST(GroupRectangles, Containment) {
    const Rect outer(0, 0, 100, 100);   // widened by 20 on each side at tolerance 0.2
    const Rect inner(10, 10, 20, 20);   // not similar to outer: |10 - 0| > (20 + 20) * 0.1
    struct Case {
        int outer_count, inner_count;
        bool inner_dropped;
    };
    const Case cases[] = {
        {2, 2, true},    // inner count below 3: dropped by any container
        {2, 5, false},   // inner stronger than outer
        {3, 3, false},   // 3 > max(3, 3) fails
        {4, 3, true},    // 4 > max(3, 3)
        {4, 4, false},
        {5, 4, true},
        {1, 2, false},   // outer at the threshold does not count
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "outer " << c.outer_count << " inner " << c.inner_count);
        Rects rects = concat({repeat(inner, c.inner_count), repeat(outer, c.outer_count)});
        Ints weights;
        kv::groupRectangles(rects, weights, 1, 0.2);
        Rects expected;
        Ints expected_weights;
        if (!c.inner_dropped) {
            expected.push_back(inner);
            expected_weights.push_back(c.inner_count);
        }
        if (c.outer_count > 1) {
            expected.push_back(outer);
            expected_weights.push_back(c.outer_count);
        }
        EXPECT_EQ(rects, expected);
        EXPECT_EQ(weights, expected_weights);
    }
}

// The containment margin round(width * tolerance) rounds ties to even:
// 10 * 0.25 = 2.5 gives 2, 14 * 0.25 = 3.5 gives 4.
TEST(GroupRectangles, ContainmentMarginRoundsToEven) {
    struct Case {
        Rect outer, inner;
        bool inner_dropped;
    };
    const Case cases[] = {
        {{0, 0, 10, 10}, {-2, 0, 4, 4}, true},
        {{0, 0, 10, 10}, {-3, 0, 4, 4}, false},
        {{0, 0, 14, 14}, {-4, 0, 4, 4}, true},
        {{0, 0, 14, 14}, {0, 0, 4, 18}, true},
        {{0, 0, 14, 14}, {0, 0, 4, 19}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "outer width " << c.outer.width << " inner x " << c.inner.x);
        Rects rects = concat({repeat(c.inner, 2), repeat(c.outer, 2)});
        kv::groupRectangles(rects, 1, 0.25);
        EXPECT_EQ(rects, c.inner_dropped ? Rects{c.outer} : (Rects{c.inner, c.outer}));
    }
}

// C contains A and A contains B, but C does not contain B: B is dropped by A
// although A is dropped itself.
TEST(GroupRectangles, ContainmentByDroppedCluster) {
    const Rect c(0, 0, 100, 100);     // covers -20..120
    const Rect a(40, 40, 70, 70);     // covers 26..124, inside C
    const Rect b(100, 100, 22, 22);   // right edge 122: inside A, outside C
    Rects rects = concat({repeat(b, 2), repeat(a, 2), repeat(c, 2)});
    Ints weights;
    kv::groupRectangles(rects, weights, 1, 0.2);
    EXPECT_EQ(rects, Rects{c});
    EXPECT_EQ(weights, Ints{2});
}

TEST(GroupRectangles, Levels) {
    struct Case {
        const char* name;
        Ints levels;
        Doubles scores;
        int32_t best_level;
        double best_score;
    };
    const Case cases[] = {
        {"highest level wins", {1, 3, 3}, {0.9, 0.5, 0.7}, 3, 0.7},
        {"higher level resets the score", {3, 5, 2}, {0.9, 0.1, 0.8}, 5, 0.1},
        {"non-positive levels compete at level 0", {-1, 0, 0}, {5.0, 0.1, 0.2}, 0, 0.2},
        {"all negative keep the initial weight", {-1, -2, -3}, {5.0, 6.0, 7.0}, 0, kNoLevelWeight},
        {"short level vector: only indexed entries", {7}, {0.5, 0.6, 0.7}, 7, 0.5},
        {"short score vector", {1, 9, 2}, {0.5, 0.6}, 9, 0.6},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        // The cluster of interest second, so outputs are in first-member order.
        Rects rects = {{500, 500, 10, 10}, {0, 0, 50, 50}, {1, 1, 50, 50}, {0, 1, 50, 50}, {500, 500, 10, 10}};
        Ints levels(5, 0);
        Doubles scores(5, 0.0);
        for (size_t i = 0; i < 3; ++i) {
            if (i < c.levels.size()) levels[i + 1] = c.levels[i];
            if (i < c.scores.size()) scores[i + 1] = c.scores[i];
        }
        levels.resize(1 + c.levels.size());
        scores.resize(1 + c.scores.size());
        kv::groupRectangles(rects, levels, scores, 1, 0.2);
        ASSERT_EQ(rects.size(), 2u);
        EXPECT_EQ(rects[1], Rect(0, 1, 50, 50));
        EXPECT_EQ(levels, (Ints{0, c.best_level}));
        EXPECT_EQ(scores[1], c.best_score);
    }
}

TEST(GroupRectangles, LevelWeightsWithoutLevels) {
    const Rects input = {{0, 0, 10, 10}, {0, 0, 10, 10}, {100, 0, 10, 10}, {100, 0, 10, 10}, {100, 0, 10, 10}};
    // Without weights, with empty weights, with weights but empty level weights.
    for (int variant = 0; variant < 3; ++variant) {
        SCOPED_TRACE(variant);
        Rects rects = input;
        Ints weights = variant == 2 ? Ints(input.size(), 9) : Ints();
        Doubles level_weights = variant == 2 ? Doubles() : Doubles(input.size(), 0.5);
        kv::groupRectangles(rects, 1, 0.2, variant == 0 ? nullptr : &weights, &level_weights);
        EXPECT_EQ(rects, (Rects{{0, 0, 10, 10}, {100, 0, 10, 10}}));
        EXPECT_EQ(level_weights, Doubles(2, kNoLevelWeight));
        if (variant != 0) {
            EXPECT_EQ(weights, (Ints{2, 3})) << "member counts when levels are not used";
        }
    }
}

// ---- randomised check against an independent model -------------------------

bool similar(const Rect& a, const Rect& b, double tolerance) {
    const double delta = (std::min(a.width, b.width) + std::min(a.height, b.height)) * tolerance * 0.5;
    return std::abs(a.x - b.x) <= delta && std::abs(a.y - b.y) <= delta &&
           std::abs(a.x + a.width - b.x - b.width) <= delta && std::abs(a.y + a.height - b.y - b.height) <= delta;
}

struct Component {
    std::vector<size_t> members;   // ascending; members[0] is the first member
    Rect average;
    int32_t best_level = 0;
    double best_score = kNoLevelWeight;
};

// Connected components of the similarity graph, in order of first member.
std::vector<Component> components(const Rects& rects, double tolerance) {
    std::vector<int> label(rects.size(), -1);
    std::vector<Component> out;
    for (size_t s = 0; s < rects.size(); ++s) {
        if (label[s] >= 0) continue;
        Component c;
        std::vector<size_t> queue = {s};
        label[s] = int(out.size());
        for (size_t q = 0; q < queue.size(); ++q)
            for (size_t j = 0; j < rects.size(); ++j)
                if (label[j] < 0 && similar(rects[queue[q]], rects[j], tolerance)) {
                    label[j] = int(out.size());
                    queue.push_back(j);
                }
        std::sort(queue.begin(), queue.end());
        c.members = queue;
        int sx = 0, sy = 0, sw = 0, sh = 0;
        for (size_t m : queue) {
            sx += rects[m].x, sy += rects[m].y, sw += rects[m].width, sh += rects[m].height;
        }
        const float k = 1.0f / float(queue.size());
        c.average = Rect(int(std::nearbyint(sx * k)), int(std::nearbyint(sy * k)), int(std::nearbyint(sw * k)),
                         int(std::nearbyint(sh * k)));
        out.push_back(c);
    }
    return out;
}

bool inside(const Rect& r1, const Rect& r2, double tolerance) {
    const int dx = int(std::nearbyint(r2.width * tolerance)), dy = int(std::nearbyint(r2.height * tolerance));
    return r1.x >= r2.x - dx && r1.y >= r2.y - dy && r1.x + r1.width <= r2.x + r2.width + dx &&
           r1.y + r1.height <= r2.y + r2.height + dy;
}

// Rectangles in jittered clusters of random sizes, some nested in others,
// plus isolated strays.
Rects randomRects(std::mt19937& rng) {
    Rects rects;
    const int clusters = 1 + int(rng() % 30);
    for (int c = 0; c < clusters; ++c) {
        Rect base(int(rng() % 600), int(rng() % 400), 8 + int(rng() % 120), 8 + int(rng() % 120));
        if (c > 0 && rng() % 4 == 0) {   // nest in an earlier cluster's base
            const Rect& host = rects[rng() % rects.size()];
            base = Rect(host.x + host.width / 4, host.y + host.height / 4, std::max(2, host.width / 3),
                        std::max(2, host.height / 3));
        }
        const int members = 1 + int(rng() % 7);
        const int jitter = 1 + base.width / 16;
        for (int m = 0; m < members; ++m)
            rects.push_back(Rect(base.x + int(rng() % (2 * jitter + 1)) - jitter,
                                 base.y + int(rng() % (2 * jitter + 1)) - jitter,
                                 base.width + int(rng() % (2 * jitter + 1)) - jitter, base.height));
    }
    std::shuffle(rects.begin(), rects.end(), rng);
    return rects;
}

TEST(GroupRectangles, RandomAgainstModel) {
    std::mt19937 rng(1234);
    const double tolerances[] = {0.0, 0.1, 0.2, 0.35, 0.6};
    for (int iteration = 0; iteration < 300; ++iteration) {
        const Rects input = randomRects(rng);
        const double tolerance = tolerances[rng() % 5];
        const int threshold = 1 + int(rng() % 3);
        SCOPED_TRACE(::testing::Message() << "iteration " << iteration << " n " << input.size() << " tolerance "
                                          << tolerance << " threshold " << threshold);
        Ints levels(input.size());
        Doubles scores(input.size());
        for (size_t i = 0; i < input.size(); ++i) {
            levels[i] = int(rng() % 7) - 2;
            scores[i] = double(rng() % 5) / 4.0;
        }

        std::vector<Component> comps = components(input, tolerance);
        for (Component& c : comps)
            for (size_t m : c.members) {
                if (levels[m] > c.best_level) {
                    c.best_level = levels[m];
                    c.best_score = scores[m];
                } else if (levels[m] == c.best_level && scores[m] > c.best_score) {
                    c.best_score = scores[m];
                }
            }
        // Surviving components, in first-member order.
        std::vector<const Component*> survivors;
        for (const Component& ci : comps) {
            const int n1 = int(ci.members.size());
            if (n1 <= threshold) continue;
            bool dropped = false;
            for (const Component& cj : comps) {
                const int n2 = int(cj.members.size());
                if (&cj == &ci || n2 <= threshold) continue;
                if (inside(ci.average, cj.average, tolerance) && (n2 > std::max(3, n1) || n1 < 3)) dropped = true;
            }
            if (!dropped) survivors.push_back(&ci);
        }

        Rects plain = input;
        kv::groupRectangles(plain, threshold, tolerance);
        Rects counted = input;
        Ints counts;
        kv::groupRectangles(counted, counts, threshold, tolerance);
        Rects leveled = input;
        Ints out_levels = levels;
        Doubles out_scores = scores;
        kv::groupRectangles(leveled, out_levels, out_scores, threshold, tolerance);

        ASSERT_EQ(plain.size(), survivors.size());
        EXPECT_EQ(counted, plain);
        EXPECT_EQ(leveled, plain);
        ASSERT_EQ(counts.size(), plain.size());
        ASSERT_EQ(out_levels.size(), plain.size());
        ASSERT_EQ(out_scores.size(), plain.size());
        for (size_t k = 0; k < plain.size(); ++k) {
            EXPECT_EQ(plain[k], survivors[k]->average) << "output " << k;
            EXPECT_EQ(counts[k], int(survivors[k]->members.size())) << "output " << k;
            EXPECT_GT(counts[k], threshold);
            EXPECT_EQ(out_levels[k], survivors[k]->best_level) << "output " << k;
            EXPECT_EQ(out_scores[k], survivors[k]->best_score) << "output " << k;
        }
    }
}

}  // namespace
