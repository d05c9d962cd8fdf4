// kvcv bench: times the main operations of both backends beside OpenCV on one
// thread, on the same input frames, prints a table with the time ratios and
// optionally draws them as a bar chart. Each figure is the mean of repeated
// calls after one warm-up call; an operation a backend does not offer (a
// not-supported status) shows "n/a", and any other failure stops the bench.
#include <cstdio>
#include <functional>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "kv_core/kv_core_functions.h"
#include "kv_core/kv_exception.h"
#include "kvcv_common.h"

namespace kvcv {

namespace {

const char kHelp[] =
    "usage: kvcv bench [--plot FILE.png] [--size WxH] [--min-time SECONDS]\n"
    "\n"
    "Times resize, colour conversion, warp and crop-into-tensor on the base and fast backends and\n"
    "on OpenCV, single thread, and prints the time per call and the ratio to OpenCV (below 1:\n"
    "faster than OpenCV).\n"
    "\n"
    "  --plot FILE.png   also draw the times as a bar chart\n"
    "  --size WxH        source image size (default 1920x1080)\n"
    "  --min-time S      time spent on each measurement (default 0.25)\n";

struct Case {
    std::string name;
    std::function<void()> impl[3];  // base, fast, OpenCV; empty: not offered
};

const char* const kImpl[3] = {"kv base", "kv fast", "OpenCV"};

}  // namespace

int runBench(int argc, char** argv) {
    const Args args(argc, argv, {"plot", "size", "min-time"}, {});
    if (args.help()) {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    args.expectPositional(0, 0, "no arguments");
    const kv::Size size = args.has("size") ? parseSize(args.get("size"), "--size") : kv::Size(1920, 1080);
    if (size.width < 8 || size.height < 8) throw UsageError("--size must be at least 8x8");
    const double min_time = args.has("min-time") ? parseDouble(args.get("min-time"), "--min-time") : 0.25;
    if (min_time < 0 || min_time > 60) throw UsageError("--min-time must lie between 0 and 60");
    const std::string plot = args.get("plot");
    if (!plot.empty() && !hasImageExtension(plot)) throw UsageError("--plot needs an image file name (.png)");

    cv::setNumThreads(1);
    std::unique_ptr<kv::ICvBackend> kv_backend[2];
    kv_backend[0] = makeBackend("base");
    kv_backend[1] = makeBackend("fast");
    kv::ICvBackend* any = kv_backend[1].get();

    // Inputs, shared by every implementation.
    const cv::Mat bgr_mat = makeTestChart(size.width, size.height);
    const kv::Frame bgr = wrapMat(bgr_mat);
    kv::Frame nv12;
    convertFrame(*any, true, bgr, kv::FRAME_NV12, nv12);
    const cv::Mat y_mat(size.height, size.width, CV_8UC1, nv12.planeCpuData(0), size_t(nv12.layout().plane[0].step));
    const cv::Mat uv_mat(nv12.layout().plane[1].size.height, nv12.layout().plane[1].size.width, CV_8UC2,
                         nv12.planeCpuData(1), size_t(nv12.layout().plane[1].step));
    const kv::Size small(std::max(1, size.width / 3), std::max(1, size.height / 3));
    const kv::Size up(size.width * 3 / 2, size.height * 3 / 2);
    const std::string in_size = std::to_string(size.width) + "x" + std::to_string(size.height);
    const std::string small_size = std::to_string(small.width) + "x" + std::to_string(small.height);

    // Outputs: one set per implementation, so no implementation writes into another's memory.
    kv::Frame out[2];
    kv::Tensor tensor[2];
    cv::Mat cv_out, cv_out2, cv_crop_small, cv_crop_float, cv_crop_planes[3];
    const kv::TensorLayout tensor_layout(kv::TENSOR_FLOAT_32, kv::TENSOR_NCHW, kv::TensorSize{1, 3, 224, 224},
                                         kv::TensorSize(), kv::TENSOR_ORDER_BGR);
    float rotation[2][3];
    kv::getRotationMatrix2D(15.f, kv::Point(size.width / 2.f, size.height / 2.f), rotation, 1.f);
    const cv::Mat cv_rotation = (cv::Mat_<float>(2, 3) << rotation[0][0], rotation[0][1], rotation[0][2],
                                 rotation[1][0], rotation[1][1], rotation[1][2]);

    std::vector<Case> cases;
    auto kvCase = [&](const std::string& name, const std::function<void(kv::ICvBackend&, kv::Frame&, kv::Tensor&)>& op,
                      std::function<void()> cv_op) {
        Case c;
        c.name = name;
        for (int i = 0; i < 2; ++i)
            if (kv_backend[i]) {
                kv::ICvBackend* b = kv_backend[i].get();
                kv::Frame* o = &out[i];
                kv::Tensor* t = &tensor[i];
                c.impl[i] = [op, b, o, t] { op(*b, *o, *t); };
            }
        c.impl[2] = std::move(cv_op);
        cases.push_back(std::move(c));
    };
    const int cv_methods[3] = {cv::INTER_NEAREST, cv::INTER_LINEAR, cv::INTER_AREA};
    for (int m : {1, 2, 0}) {
        kvCase("resize BGR " + in_size + " -> " + small_size + " " + methodName(m),
               [&, m](kv::ICvBackend& b, kv::Frame& o, kv::Tensor&) { resizeWith(b, m, bgr, small, o); },
               [&, m] { cv::resize(bgr_mat, cv_out, cv::Size(small.width, small.height), 0, 0, cv_methods[m]); });
    }
    kvCase("resize BGR x1.5 bilinear",
           [&](kv::ICvBackend& b, kv::Frame& o, kv::Tensor&) { resizeWith(b, 1, bgr, up, o); },
           [&] { cv::resize(bgr_mat, cv_out, cv::Size(up.width, up.height), 0, 0, cv::INTER_LINEAR); });
    kvCase("resize NV12 -> " + small_size + " bilinear",
           [&](kv::ICvBackend& b, kv::Frame& o, kv::Tensor&) { resizeWith(b, 1, nv12, small, o); },
           [&] {
               cv::resize(y_mat, cv_out, cv::Size(small.width, small.height), 0, 0, cv::INTER_LINEAR);
               cv::resize(uv_mat, cv_out2, cv::Size((small.width + 1) / 2, (small.height + 1) / 2), 0, 0,
                          cv::INTER_LINEAR);
           });
    auto colour = [&](kv::FrameFormat from_format, const kv::Frame& from, kv::FrameFormat to, std::function<void()> cv_op) {
        kvCase("colour " + formatName(from_format) + " -> " + formatName(to),
               [&from, to](kv::ICvBackend& b, kv::Frame& o, kv::Tensor&) {
                   o.reuse(to, from.size(), kv::DeviceContext::cpuContext());
                   b.colorCvt(from, o, kv::Rect());
               },
               std::move(cv_op));
    };
    colour(kv::FRAME_BGR_8, bgr, kv::FRAME_GRAY_8, [&] { cv::cvtColor(bgr_mat, cv_out, cv::COLOR_BGR2GRAY); });
    colour(kv::FRAME_BGR_8, bgr, kv::FRAME_I420, [&] { cv::cvtColor(bgr_mat, cv_out, cv::COLOR_BGR2YUV_I420); });
    colour(kv::FRAME_BGR_8, bgr, kv::FRAME_NV12, nullptr);
    colour(kv::FRAME_NV12, nv12, kv::FRAME_BGR_8,
           [&] { cv::cvtColorTwoPlane(y_mat, uv_mat, cv_out, cv::COLOR_YUV2BGR_NV12); });
    colour(kv::FRAME_BGR_8, bgr, kv::FRAME_FLOAT_32_C3, [&] { bgr_mat.convertTo(cv_out, CV_32FC3); });
    kvCase("warp BGR rotate 15 deg bilinear",
           [&](kv::ICvBackend& b, kv::Frame& o, kv::Tensor&) {
               o.reuse(kv::FRAME_BGR_8, size, kv::DeviceContext::cpuContext());
               b.warpAffine(bgr, o, rotation, kv::Rect(), false);
           },
           [&] {
               cv::warpAffine(bgr_mat, cv_out, cv_rotation, bgr_mat.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT);
           });
    kvCase("crop+resize -> 1x3x224x224 f32",
           [&](kv::ICvBackend& b, kv::Frame&, kv::Tensor& t) {
               t.reuse(tensor_layout);
               b.cropAndResize(bgr, t, {kv::Rect(0, 0, size.width, size.height)}, {});
           },
           [&] {
               // Mats of its own, so that no other case's output is reallocated on every call.
               cv::resize(bgr_mat, cv_crop_small, cv::Size(224, 224), 0, 0, cv::INTER_LINEAR);
               cv_crop_small.convertTo(cv_crop_float, CV_32FC3);
               cv::split(cv_crop_float, cv_crop_planes);
           });

    Table table({"operation", "kv base", "kv fast", "OpenCV", "base/OpenCV", "fast/OpenCV"});
    std::vector<std::string> groups;
    std::vector<std::vector<double>> values;
    std::printf("kvcv bench: %s source, one thread, %.2f s per figure\n", in_size.c_str(), min_time);
    std::printf("\n");
    std::fflush(stdout);
    for (const Case& c : cases) {
        double t[3] = {0, 0, 0};
        for (int i = 0; i < 3; ++i) {
            if (!c.impl[i]) continue;
            try {
                t[i] = timePerCall(c.impl[i], min_time);
            } catch (const kv::Exception& e) {
                if (e.status() != kv::KV_STATUS_NOT_SUPPORTED)
                    throw RunError(c.name + " (" + kImpl[i] + ") failed: " + e.message() + " (" + e.function() +
                                   ", status " + std::to_string(int(e.status())) + ")");
                t[i] = 0;  // not offered by this backend
            }
        }
        auto cell = [](double s) { return s > 0 ? formatDuration(s) : std::string("n/a"); };
        auto ratio = [](double a, double b) { return a > 0 && b > 0 ? fixed(a / b, 2) + "x" : std::string("-"); };
        table.add({c.name, cell(t[0]), cell(t[1]), cell(t[2]), ratio(t[0], t[2]), ratio(t[1], t[2])});
        groups.push_back(c.name);
        values.push_back({t[0] * 1e3, t[1] * 1e3, t[2] * 1e3});
    }
    std::fputs(table.str().c_str(), stdout);
    std::printf("\nratio = time of kv / time of OpenCV; below 1x kv is faster.\n");
    if (!plot.empty()) {
        const cv::Mat chart = drawBarChart("kvcv bench, " + in_size + ", one thread: time per call (shorter is faster)",
                                           groups, {kImpl[0], kImpl[1], kImpl[2]}, values, "ms");
        writeMat(plot, chart);
        std::printf("wrote %s\n", plot.c_str());
    }
    return kExitOk;
}

}  // namespace kvcv
