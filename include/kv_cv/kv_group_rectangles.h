// groupRectangles: merges a detector's raw rectangles into one averaged
// rectangle per cluster of similar rectangles, drops clusters with too few
// members and clusters whose average lies inside a stronger cluster.
//
// Two rectangles are similar when each of their four edges differs by at most
// (min width + min height) * tolerance / 2; clusters are the transitive
// closure of that relation. A cluster survives when it has more than
// `threshold` members and is not contained in another cluster above the
// threshold (see groupRectangles below). Output order is the order in which
// each surviving cluster's first member appears in the input.
//
// Choices made here:
// - `tolerance` has no default value: every caller states it.
// - Detection levels are matched to rectangles by index. When the level or
//   level-weight vector is shorter than `rects`, rectangles without an entry
//   take no part in choosing their cluster's best level (nothing is read past
//   either vector); entries past rects.size() are ignored.
// - Coordinates and sums behave as 32-bit values; inputs whose edge
//   coordinates or per-cluster sums leave the 32-bit range are not meaningful.
#pragma once

#include <cstdint>
#include <vector>

#include "kv_core/kv_types.h"
#include "kv_cv/kv_cv_export.h"

namespace kv {

// Groups `rects` in place; no per-cluster outputs.
KV_CV_API void groupRectangles(std::vector<Rect>& rects, int32_t threshold, double tolerance);

// As above; `weights` receives each output rectangle's member count
// (all 1 on the early path, when threshold <= 0 or rects is empty).
KV_CV_API void groupRectangles(std::vector<Rect>& rects, std::vector<int32_t>& weights, int32_t threshold,
                               double tolerance);

// The full form; both pointers may be null.
// On input, (*weights)[i] is the detection level of rects[i] and
// (*level_weights)[i] its score; levels are used only when both vectors are
// given and non-empty. On output (threshold > 0 and rects non-empty) each
// vector holds one entry per output rectangle: `weights` the cluster's best
// level (its member count when levels are not used) and `level_weights` the
// best level's highest score (2.2250738585072014e-308, the smallest normal
// double, when levels are not used).
// When threshold <= 0 or rects is empty, rects is left as it is, `weights` is
// set to rects.size() ones and `level_weights` is not touched.
//
// A cluster with count n1 > threshold is dropped when its average lies inside
// (widened by round(width * tolerance), round(height * tolerance)) the average
// of another cluster with count n2 > threshold, and n2 > max(3, n1) or n1 < 3.
// The containing cluster may itself be dropped.
KV_CV_API void groupRectangles(std::vector<Rect>& rects, int32_t threshold, double tolerance,
                               std::vector<int32_t>* weights, std::vector<double>* level_weights);

// The full form with levels and level weights, both in and out.
KV_CV_API void groupRectangles(std::vector<Rect>& rects, std::vector<int32_t>& levels,
                               std::vector<double>& level_weights, int32_t threshold, double tolerance);

}  // namespace kv
