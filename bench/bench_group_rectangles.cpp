// Benchmarks of rectangle grouping beside OpenCV's cv::groupRectangles: 500
// detections in 50 jittered clusters over a 1920x1080 frame, threshold 2,
// tolerance 0.2. Both implementations group the same input each iteration.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

#include "kv_cv/kv_group_rectangles.h"

#ifdef KV_BENCH_HAVE_OPENCV_OBJDETECT
#include <opencv2/core.hpp>
#include <opencv2/objdetect.hpp>
#endif

namespace {

constexpr int kThreshold = 2;
constexpr double kTolerance = 0.2;

const std::vector<kv::Rect>& detections() {
    static const std::vector<kv::Rect> rects = [] {
        std::mt19937 rng(2024);
        std::vector<kv::Rect> out;
        for (int c = 0; c < 50; ++c) {
            const int w = 24 + int(rng() % 177);
            const int h = w + int(rng() % 9) - 4;
            const int x = int(rng() % uint32_t(1920 - w)), y = int(rng() % uint32_t(1080 - h));
            const int jitter = 1 + w / 16;
            for (int m = 0; m < 10; ++m) {
                auto j = [&] { return int(rng() % uint32_t(2 * jitter + 1)) - jitter; };
                out.emplace_back(x + j(), y + j(), w + j(), h + j());
            }
        }
        std::shuffle(out.begin(), out.end(), rng);
        return out;
    }();
    return rects;
}

void GroupRectanglesKv(benchmark::State& state) {
    const std::vector<kv::Rect>& input = detections();
    std::vector<kv::Rect> rects;
    std::vector<int32_t> weights;
    rects.reserve(input.size());
    for (auto _ : state) {
        rects.assign(input.begin(), input.end());
        kv::groupRectangles(rects, weights, kThreshold, kTolerance);
        benchmark::DoNotOptimize(rects.data());
    }
    state.counters["clusters"] = double(rects.size());
}
BENCHMARK(GroupRectanglesKv)->Name("GroupRectangles/500x50/kv")->Unit(benchmark::kMicrosecond);

#ifdef KV_BENCH_HAVE_OPENCV_OBJDETECT
void GroupRectanglesOpencv(benchmark::State& state) {
    cv::setNumThreads(1);
    std::vector<cv::Rect> input;
    for (const kv::Rect& r : detections()) input.emplace_back(r.x, r.y, r.width, r.height);

    // Same input, same result: a mismatch makes the comparison meaningless.
    std::vector<cv::Rect> cv_rects = input;
    std::vector<int> cv_weights;
    cv::groupRectangles(cv_rects, cv_weights, kThreshold, kTolerance);
    std::vector<kv::Rect> kv_rects = detections();
    std::vector<int32_t> kv_weights;
    kv::groupRectangles(kv_rects, kv_weights, kThreshold, kTolerance);
    bool same = cv_rects.size() == kv_rects.size() && cv_weights == kv_weights;
    for (size_t i = 0; same && i < kv_rects.size(); ++i)
        same = cv_rects[i] == cv::Rect(kv_rects[i].x, kv_rects[i].y, kv_rects[i].width, kv_rects[i].height);
    if (!same) {
        state.SkipWithError("kv and OpenCV group differently");
        return;
    }

    std::vector<cv::Rect> rects;
    std::vector<int> weights;
    rects.reserve(input.size());
    for (auto _ : state) {
        rects.assign(input.begin(), input.end());
        cv::groupRectangles(rects, weights, kThreshold, kTolerance);
        benchmark::DoNotOptimize(rects.data());
    }
    state.counters["clusters"] = double(rects.size());
}
BENCHMARK(GroupRectanglesOpencv)->Name("GroupRectangles/500x50/opencv")->Unit(benchmark::kMicrosecond);
#endif

}  // namespace
