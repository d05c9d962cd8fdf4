// kvcv demo: renders the built-in test chart at an odd size, runs it through
// every operation of the library on both backends, writes each result as a PNG
// and prints a table of time per call and the largest difference between the
// backends. Colour round trips run on the chart's even part (the fast backend
// decodes subsampled YUV only at even sizes) plus one odd-size row per backend;
// everything else runs on the whole odd-size chart. Every resize method,
// the antialiasing filters included, also reduces the chart to half size and
// is scored on its zone plate against the ideal antialiased plate.
//
// An operation a backend does not offer is a note in the table, not a failure;
// the demo fails (exit 1) only when it cannot write its files.
#include <unistd.h>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "kv_core/kv_core_functions.h"
#include "kv_core/kv_exception.h"
#include "kvcv_common.h"

#include "kv_cv/kv_format_converter.h"
#include "kv_cv/kv_scaler.h"
#include "kv_cv/kv_scaler_resample.h"

#include "kv_cv/kv_cv_helpers.h"

#include "kv_cv/kv_group_rectangles.h"

namespace fs = std::filesystem;

namespace kvcv {

namespace {

const char kHelp[] =
    "usage: kvcv demo [--out DIR] [--size WxH] [--min-time SECONDS]\n"
    "\n"
    "Renders a built-in test chart (colour bars, ramps, fine lines, a zone plate; odd size),\n"
    "runs it through every operation of the library on both backends, writes every result as a\n"
    "PNG into DIR and prints a table: operation, backend, time per call, and the largest\n"
    "difference between the base and fast backends where both do the operation.\n"
    "\n"
    "  --out DIR        output folder (default kvcv-demo)\n"
    "  --size WxH       chart size (default 641x481)\n"
    "  --min-time S     time spent timing each operation (default 0.05)\n";

const char* const kBackends[2] = {"base", "fast"};

class Demo {
public:
    Demo(fs::path dir, double min_time)
        : _dir(std::move(dir)), _min_time(min_time),
          _table({"operation", "backend", "time/call", "base vs fast", "note"}) {
        for (int i = 0; i < 2; ++i)
            _backend[i] = makeBackend(kBackends[i]);
    }

    kv::ICvBackend* backend(int i) { return _backend[i].get(); }

    // On a terminal, names the operation running now (the table comes at the end).
    void status(const std::string& op) {
        if (!_tty) return;
        std::fprintf(errOut(), "\r\033[K[%zu] %s", ++_step, op.c_str());
    }
    void endStatus() {
        if (_tty && _step) std::fputs("\r\033[K", errOut());
    }

    // Times `fn`; returns false (and fills `note`) when the library refused it.
    bool time(const std::function<void()>& fn, double& seconds, std::string& note) {
        try {
            seconds = timePerCall(fn, _min_time, 2);
            return true;
        } catch (const kv::Exception& e) {
            note = e.status() == kv::KV_STATUS_NOT_SUPPORTED ? "not supported: " + e.message()
                                                             : "refused: " + e.message();
            return false;
        } catch (const RunError& e) {
            note = e.what();
            return false;
        }
    }

    void row(const std::string& op, const std::string& backend, double seconds, const std::string& diff,
             const std::string& note) {
        status(op);
        _table.add({op, backend, seconds > 0 ? formatDuration(seconds) : std::string("-"), diff, note});
    }

    void write(const std::string& name, const kv::Frame& frame) {
        writeImage((_dir / name).string(), frame);
        ++_written;
    }
    void write(const std::string& name, const cv::Mat& mat) {
        writeMat((_dir / name).string(), mat);
        ++_written;
    }

    // Runs `op` on every backend (output frame per backend), writes
    // `<file>_<backend>.png` and adds one row per backend with the difference
    // of the two outputs.
    void perBackend(const std::string& op, const std::string& file,
                    const std::function<void(kv::ICvBackend&, kv::Frame&)>& fn,
                    const std::function<std::string(const kv::Frame&)>& note_of = nullptr) {
        status(op);
        kv::Frame out[2];
        double t[2] = {0, 0};
        std::string note[2];
        bool ok[2] = {false, false};
        for (int i = 0; i < 2; ++i) {
            kv::ICvBackend& b = *_backend[i];
            kv::Frame& o = out[i];
            ok[i] = time([&] { fn(b, o); }, t[i], note[i]);
            if (ok[i]) {
                write(file + "_" + kBackends[i] + ".png", o);
                if (note_of) note[i] = note_of(o);
            }
        }
        std::string diff = "-";
        if (ok[0] && ok[1]) {
            const double d = maxDifference(out[0], out[1]);
            diff = d < 0 ? std::string("shape differs") : fixed(d, d == std::floor(d) ? 0 : 4);
        }
        for (int i = 0; i < 2; ++i) row(op, kBackends[i], ok[i] ? t[i] : 0, diff, note[i]);
    }

    int written() const { return _written; }
    std::string table() const { return _table.str(); }
    double minTime() const { return _min_time; }

private:
    fs::path _dir;
    double _min_time;
    bool _tty = isatty(STDERR_FILENO) != 0;
    size_t _step = 0;
    Table _table;
    std::unique_ptr<kv::ICvBackend> _backend[2];
    int _written = 0;
};

std::string lowerName(kv::FrameFormat f) {
    std::string s = formatName(f);
    for (char& c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// PSNR and largest error of an 8-bit BGR result against the original.
std::string fidelity(const kv::Frame& original, const kv::Frame& result) {
    const double worst = maxDifference(original, result);
    if (worst < 0) return "shape differs";
    if (worst == 0) return "identical";
    const double mse = cv::norm(matView(original), matView(result), cv::NORM_L2SQR) /
                       (double(original.size().width) * original.size().height * 3);
    return "PSNR " + fixed(10 * std::log10(255.0 * 255.0 / mse), 1) + " dB, largest error " + fixed(worst, 0);
}

std::string sizeText(kv::Size s) { return std::to_string(s.width) + "x" + std::to_string(s.height); }

// The first three float planes of an NCHW tensor (BGR order), as an 8-bit image.
cv::Mat tensorImage(kv::Tensor& t, int h, int w) {
    float* data = static_cast<float*>(t.devicePtr().cpuData());
    std::vector<cv::Mat> planes;
    for (int c = 0; c < 3; ++c) planes.emplace_back(h, w, CV_32FC1, data + size_t(c) * size_t(h) * size_t(w));
    cv::Mat merged, out;
    cv::merge(planes, merged);
    merged.convertTo(out, CV_8UC3);
    return out;
}

// Resizes the chart to `small` with every method (the backend ones on the
// base backend, the antialiasing filters on the resampler), writes bilinear
// and lanczos3 side by side, and adds one row per method with the PSNR of its
// zone plate against the plate drawn directly at the output size with every
// ring above the output's Nyquist frequency replaced by its mean grey (what a
// perfect antialiasing filter gives). Output pixels whose footprint reaches
// the lines or the label drawn across the plate, or the plate's edge, are
// left out of the PSNR.
void zonePlateRows(Demo& demo, const cv::Mat& chart_mat, kv::Size size, kv::Size small) {
    const kv::Frame chart = wrapMat(chart_mat);
    const ZonePlate zone = chartZonePlate(size.width, size.height);
    const double sx = double(size.width) / small.width, sy = double(size.height) / small.height;
    const double nyquist = 0.5 / std::max(sx, sy);  // cycles per chart pixel
    const int reach = int(std::ceil(3 * std::max(sx, sy))) + 1;  // Lanczos-3's footprint, in chart pixels
    cv::Mat differs, overlay;
    cv::compare(chart_mat, makeTestChart(size.width, size.height, false), differs, cv::CMP_NE);
    cv::cvtColor(differs, overlay, cv::COLOR_BGR2GRAY);
    cv::dilate(overlay, overlay, cv::Mat::ones(2 * reach + 1, 2 * reach + 1, CV_8U));
    const cv::Rect inner(zone.area.x + reach, zone.area.y + reach, zone.area.width - 2 * reach,
                         zone.area.height - 2 * reach);
    std::vector<cv::Point> counted;
    cv::Mat ideal(small.height, small.width, CV_64FC3, cv::Scalar(0, 0, 0));
    for (int y = 0; y < small.height; ++y)
        for (int x = 0; x < small.width; ++x) {
            const double cx = (x + 0.5) * sx - 0.5, cy = (y + 0.5) * sy - 0.5;
            const cv::Point at(int(std::lround(cx)), int(std::lround(cy)));
            if (!inner.contains(at) || overlay.at<uchar>(at)) continue;
            const double g = zone.grey(cx, cy, nyquist);
            ideal.at<cv::Vec3d>(y, x) = cv::Vec3d(g, (g + 255) / 2, 255 - g);
            counted.push_back(cv::Point(x, y));
        }
    auto psnr = [&](const kv::Frame& out) {
        const cv::Mat m = matView(out);
        double sum = 0;
        for (const cv::Point& p : counted)
            for (int c = 0; c < 3; ++c) {
                const double d = m.at<cv::Vec3b>(p)[c] - ideal.at<cv::Vec3d>(p)[c];
                sum += d * d;
            }
        const double mse = sum / std::max<double>(1, 3.0 * double(counted.size()));
        return "zone plate PSNR " + fixed(10 * std::log10(255.0 * 255.0 / std::max(mse, 1e-12)), 1) +
               " dB vs the ideal antialiased plate";
    };
    const std::string to = " -> " + sizeText(small);
    kv::Frame bilinear, lanczos3;
    for (int m : {0, 1, 2}) {
        kv::Frame out;
        double t = 0;
        std::string note;
        if (demo.time([&] { resizeWith(*demo.backend(0), m, chart, small, out); }, t, note)) {
            note = psnr(out);
            if (m == 1) bilinear = out;
        }
        demo.row(std::string("antialiasing: ") + methodName(m) + to, "base", t, "-", note);
    }
    const kv::ResampleFilter filters[] = {kv::KV_RESAMPLE_BOX,      kv::KV_RESAMPLE_TRIANGLE, kv::KV_RESAMPLE_CUBIC,
                                          kv::KV_RESAMPLE_LANCZOS2, kv::KV_RESAMPLE_LANCZOS3, kv::KV_RESAMPLE_MITCHELL};
    kv::ScalerResample resampler;
    for (kv::ResampleFilter f : filters) {
        kv::Frame out;
        double t = 0;
        std::string note;
        if (demo.time(
                [&] {
                    resampler.reuse(chart, small, f);
                    kv::produceFrame(resampler, out);
                },
                t, note)) {
            demo.write(std::string("resample_") + kv::toString(f) + ".png", out);
            note = psnr(out);
            if (f == kv::KV_RESAMPLE_LANCZOS3) lanczos3 = out;
        }
        demo.row(std::string("antialiasing: ") + kv::toString(f) + to, "resampler", t, "-", note);
    }
    if (bilinear.initialized() && lanczos3.initialized()) {
        const int gap = 8, label = 22;
        cv::Mat pair(small.height + label, 2 * small.width + gap, CV_8UC3, cv::Scalar(255, 255, 255));
        matView(bilinear).copyTo(pair(cv::Rect(0, 0, small.width, small.height)));
        matView(lanczos3).copyTo(pair(cv::Rect(small.width + gap, 0, small.width, small.height)));
        cv::putText(pair, "bilinear", cv::Point(4, small.height + 16), cv::FONT_HERSHEY_SIMPLEX, 0.5,
                    cv::Scalar(0, 0, 0), 1, cv::LINE_AA);
        cv::putText(pair, "lanczos3", cv::Point(small.width + gap + 4, small.height + 16), cv::FONT_HERSHEY_SIMPLEX,
                    0.5, cv::Scalar(0, 0, 0), 1, cv::LINE_AA);
        demo.write("resize_bilinear_vs_lanczos3.png", pair);
    }
}

}  // namespace

int runDemo(int argc, char** argv) {
    const Args args(argc, argv, {"out", "size", "min-time"}, {});
    if (args.help()) {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    args.expectPositional(0, 0, "no arguments besides options");
    const fs::path dir = args.get("out", "kvcv-demo");
    const kv::Size size = args.has("size") ? parseSize(args.get("size"), "--size") : kv::Size(641, 481);
    if (size.width < 16 || size.height < 16) throw UsageError("--size must be at least 16x16");
    const double min_time = args.has("min-time") ? parseDouble(args.get("min-time"), "--min-time") : 0.05;
    if (min_time < 0 || min_time > 10) throw UsageError("--min-time must lie between 0 and 10");
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec || !fs::is_directory(dir)) throw RunError("cannot create folder '" + dir.string() + "'");

    Demo demo(dir, min_time);
    const cv::Mat chart_mat = makeTestChart(size.width, size.height);
    const kv::Frame chart = wrapMat(chart_mat);
    demo.write("chart.png", chart_mat);
    const kv::Size even_size(size.width & ~1, size.height & ~1);
    const kv::Frame even = kv::getRegion(chart, kv::Rect(0, 0, even_size.width, even_size.height));
    kv::ICvBackend* base = demo.backend(0);
    kv::ICvBackend* fast = demo.backend(1);
    kv::ICvBackend* any = fast ? fast : base;

    // ---- colour conversion to each format and back ----
    const kv::FrameFormat round_trips[] = {
        kv::FRAME_GRAY_8, kv::FRAME_RGB_8, kv::FRAME_BGR_8_PLANAR, kv::FRAME_I420, kv::FRAME_YV12,
        kv::FRAME_NV12,   kv::FRAME_NV21,  kv::FRAME_YV16,         kv::FRAME_NV16, kv::FRAME_YUYV,
        kv::FRAME_UYVY,   kv::FRAME_YUV444, kv::FRAME_YUV444_PLANAR, kv::FRAME_FLOAT_32_C3,
    };
    auto roundTrip = [&](const kv::Frame& src, kv::FrameFormat f, const std::string& label,
                         const std::string& suffix) {
        kv::Frame mid[2];
        demo.perBackend(
            "colour BGR -> " + formatName(f) + " -> BGR" + label, "colour_" + lowerName(f) + suffix,
            [&src, f, &mid, base](kv::ICvBackend& b, kv::Frame& out) {
                kv::Frame& m = mid[&b == base ? 0 : 1];
                m.reuse(f, src.size(), kv::DeviceContext::cpuContext());
                b.colorCvt(src, m, kv::Rect());
                out.reuse(kv::FRAME_BGR_8, src.size(), kv::DeviceContext::cpuContext());
                b.colorCvt(m, out, kv::Rect());
            },
            [&src](const kv::Frame& out) { return "vs chart: " + fidelity(src, out); });
    };
    for (kv::FrameFormat f : round_trips) roundTrip(even, f, "", "");
    roundTrip(chart, kv::FRAME_NV12, ", odd " + sizeText(size), "_odd");

    // ---- the three resize methods on both backends ----
    const kv::Size small(size.width / 2 - 3, size.height / 2 - 1);
    for (int m : {0, 1, 2})
        demo.perBackend(std::string("resize ") + methodName(m) + " -> " + sizeText(small),
                        std::string("resize_") + methodName(m),
                        [&, m](kv::ICvBackend& b, kv::Frame& out) { resizeWith(b, m, chart, small, out); });
    const kv::Size large(size.width * 3 / 2, size.height * 3 / 2);
    demo.perBackend("resize bilinear -> " + sizeText(large), "resize_bilinear_up",
                    [&](kv::ICvBackend& b, kv::Frame& out) { resizeWith(b, 1, chart, large, out); });

    // ---- antialiasing: each method's zone plate against the ideal one ----
    zonePlateRows(demo, chart_mat, size, small);

    // ---- row pipeline: NV12 -> scaler -> format converter, against convert() of each backend ----
    // Inputs for later rows; a backend that cannot make them leaves them empty
    // and those rows say so.
    auto prepare = [&](const kv::Frame& from, kv::FrameFormat f, kv::Frame& out) {
        try {
            if (any) convertFrame(*any, true, from, f, out);
        } catch (const RunError&) {
            out.clear();
        }
    };
    kv::Frame nv12;  // of the even part: the fast backend decodes NV12 at even sizes only
    prepare(even, kv::FRAME_NV12, nv12);
    const kv::Size piped((size.width * 2 / 3) & ~1, (size.height * 2 / 3) & ~1);
    const std::string pipe_op = "NV12 " + sizeText(even_size) + " -> scale -> BGR " + sizeText(piped);
    kv::Frame pipe_out;
    if (nv12.initialized()) {
        kv::Scaler scaler;
        kv::FormatConverter converter;
        double t = 0;
        std::string note;
        if (demo.time(
                [&] {
                    scaler.reuse(nv12, piped, kv::KV_SCALE_BILINEAR);
                    converter.reuse(scaler, kv::FRAME_BGR_8);
                    kv::produceFrame(converter, pipe_out);
                },
                t, note)) {
            demo.write("pipeline_nv12_scale_bgr.png", pipe_out);
            note = "Scaler + FormatConverter, no intermediate image";
        }
        demo.row(pipe_op, "row pipeline", t, "-", note);
    } else {
        demo.row(pipe_op, "row pipeline", 0, "-", "no backend could make the NV12 frame");
    }
    demo.perBackend(pipe_op + " (convert)", "convert_nv12_bgr",
                    [&](kv::ICvBackend& b, kv::Frame& out) {
                        if (!nv12.initialized()) throw RunError("no backend could make the NV12 frame");
                        out.reuse(kv::FRAME_BGR_8, piped, kv::DeviceContext::cpuContext());
                        b.convert(nv12, out, kv::Rect());
                    },
                    [&](const kv::Frame& out) {
                        return pipe_out.initialized() ? "vs row pipeline " + fixed(maxDifference(out, pipe_out), 0)
                                                      : std::string();
                    });

    // ---- rotations: fixed quarter turns, an angle, an affine warp ----
    {
        kv::Frame turned[4];
        for (int r = 1; r <= 3; ++r) {
            double t = 0;
            std::string note;
            const bool ok = demo.time(
                [&] { kv::rotateFrame(chart, static_cast<kv::FixedRotation>(r), turned[r]); }, t, note);
            if (ok) {
                demo.write("rotate_" + std::to_string(r * 90) + "cw.png", turned[r]);
                kv::Frame back;
                kv::rotateFrame(turned[r], static_cast<kv::FixedRotation>(4 - r), back);
                note = "undone exactly: " + std::string(maxDifference(back, chart) == 0 ? "yes" : "NO");
            }
            demo.row("rotate " + std::to_string(r * 90) + " clockwise", "helpers (fast)", ok ? t : 0, "-", note);
        }
        kv::Frame rotated;
        kv::Rect placed;
        const kv::Rect rect(size.width / 8, size.height / 8, size.width * 3 / 4, size.height * 3 / 4);
        double t = 0;
        std::string note;
        if (demo.time([&] { kv::rotateFrame(chart, rect, 30.f, rotated, placed); }, t, note)) {
            demo.write("rotate_30deg.png", rotated);
            note = "centre 3/4 of the chart, output " + sizeText(rotated.size());
        }
        demo.row("rotate 30 degrees", "helpers (fast)", t, "-", note);
    }
    float warp[2][3] = {{0.8f, 0.25f, 20.f}, {-0.1f, 0.9f, 40.f}};
    demo.perBackend("affine warp (scale, shear, shift)", "warp", [&](kv::ICvBackend& b, kv::Frame& out) {
        out.reuse(kv::FRAME_BGR_8, size, kv::DeviceContext::cpuContext());
        b.warpAffine(chart, out, warp, kv::Rect(), false);
    });

    // ---- crop-and-resize into a tensor, letterboxed ----
    {
        const int th = 160, tw = 224;
        const kv::Rect roi(size.width / 4, size.height / 4, size.width / 2, size.height / 3);
        const double s = std::min(double(tw) / roi.width, double(th) / roi.height);
        const int lw = std::min(tw, int(std::lround(roi.width * s))), lh = std::min(th, int(std::lround(roi.height * s)));
        const kv::Rect box((tw - lw) / 2, (th - lh) / 2, lw, lh);
        const kv::TensorLayout layout(kv::TENSOR_FLOAT_32, kv::TENSOR_NCHW, kv::TensorSize{1, 3, th, tw},
                                      kv::TensorSize(), kv::TENSOR_ORDER_BGR);
        kv::Tensor tensor[2];
        bool ok[2] = {false, false};
        double t[2] = {0, 0};
        std::string note[2];
        for (int i = 0; i < 2; ++i) {
            tensor[i].reuse(layout);
            tensor[i].setZero();
            ok[i] = demo.time([&] { demo.backend(i)->cropAndResize(chart, tensor[i], {roi}, {box}); }, t[i], note[i]);
            if (ok[i]) {
                demo.write(std::string("tensor_") + kBackends[i] + ".png", tensorImage(tensor[i], th, tw));
                note[i] = "1x3x" + std::to_string(th) + "x" + std::to_string(tw) + " f32, region " +
                          sizeText(roi.size()) + " in " + sizeText(box.size());
            }
        }
        std::string diff = "-";
        if (ok[0] && ok[1]) {
            const float* a = static_cast<const float*>(tensor[0].devicePtr().cpuData());
            const float* b = static_cast<const float*>(tensor[1].devicePtr().cpuData());
            double d = 0;
            for (size_t k = 0; k < size_t(3 * th * tw); ++k) d = std::max(d, double(std::fabs(a[k] - b[k])));
            diff = fixed(d, d == std::floor(d) ? 0 : 4);
        }
        for (int i = 0; i < 2; ++i)
            demo.row("crop-and-resize -> tensor, letterbox", kBackends[i], ok[i] ? t[i] : 0, diff, note[i]);
    }

    // ---- float arithmetic: v * 0.5 + 64 on a float frame ----
    kv::Frame chart_f;
    prepare(chart, kv::FRAME_FLOAT_32_C3, chart_f);
    demo.perBackend("float multiply 0.5, add 64", "arith", [&](kv::ICvBackend& b, kv::Frame& out) {
        if (!chart_f.initialized()) throw RunError("no backend could make the float frame");
        chart_f.copyTo(out);
        b.mul(out, 0.5f, kv::Rect());
        b.add(out, 64.f, kv::Rect());
    });

    // ---- grouping of rectangles ----
    {
        std::vector<kv::Rect> input;
        const kv::Rect centres[3] = {kv::Rect(size.width / 10, size.height / 2, size.width / 5, size.height / 4),
                                     kv::Rect(size.width / 2, size.height / 3, size.width / 4, size.height / 4),
                                     kv::Rect(size.width * 3 / 4, size.height * 2 / 3, size.width / 6, size.height / 5)};
        for (const kv::Rect& c : centres)
            for (int k = 0; k < 5; ++k) {
                const int jx = (k * 7 % 5 - 2) * c.width / 40, jy = (k * 3 % 5 - 2) * c.height / 40;
                input.push_back(kv::Rect(c.x + jx, c.y + jy, c.width + jx / 2, c.height - jy / 2));
            }
        input.push_back(kv::Rect(size.width / 3, size.height / 10, size.width / 12, size.height / 12));
        input.push_back(kv::Rect(size.width * 7 / 8, size.height / 12, size.width / 14, size.height / 10));
        std::vector<kv::Rect> grouped;
        std::vector<int> weights;
        double t = 0;
        std::string note;
        if (demo.time(
                [&] {
                    grouped = input;
                    kv::groupRectangles(grouped, weights, 1, 0.2);
                },
                t, note)) {
            cv::Mat drawn = chart_mat.clone();
            for (const kv::Rect& r : input)
                cv::rectangle(drawn, cv::Rect(r.x, r.y, r.width, r.height), cv::Scalar(0, 255, 255), 1);
            for (size_t k = 0; k < grouped.size(); ++k) {
                const kv::Rect& r = grouped[k];
                cv::rectangle(drawn, cv::Rect(r.x, r.y, r.width, r.height), cv::Scalar(0, 200, 0), 3);
                cv::putText(drawn, std::to_string(k < weights.size() ? weights[k] : 0), cv::Point(r.x + 4, r.y + 18),
                            cv::FONT_HERSHEY_SIMPLEX, 0.6, cv::Scalar(0, 200, 0), 2);
            }
            demo.write("grouping.png", drawn);
            note = std::to_string(input.size()) + " rectangles -> " + std::to_string(grouped.size()) +
                   " groups (threshold 1, tolerance 0.2)";
        }
        demo.row("group rectangles", "-", t, "-", note);
    }

    // ---- half-float round trip ----
    if (chart_f.initialized()) {
        const size_t count = size_t(size.width) * size_t(size.height) * 3;
        std::vector<float> values(count), back(count);
        for (int y = 0; y < size.height; ++y)
            std::memcpy(values.data() + size_t(y) * size_t(size.width) * 3, chart_f.rowCpuData(0, y),
                        size_t(size.width) * 3 * sizeof(float));
        // Shift into the range where half floats carry a fraction, so rounding shows.
        for (float& v : values) v = v / 255.f;
        std::vector<uint16_t> half(count);
        double t = 0;
        std::string note;
        if (demo.time(
                [&] {
                    kv::convertFp32ToFp16(values.data(), count, half.data());
                    kv::convertFp16ToFp32(half.data(), count, back.data());
                },
                t, note)) {
            double worst = 0;
            for (size_t k = 0; k < count; ++k) worst = std::max(worst, double(std::fabs(back[k] - values[k])));
            cv::Mat img(size.height, size.width, CV_32FC3, back.data()), out;
            img.convertTo(out, CV_8UC3, 255.0);
            demo.write("fp16_roundtrip.png", out);
            note = "values 0..1, largest error " + fixed(worst, 6) + " (half precision: 2^-11 relative)";
        }
        demo.row("half float round trip", "helpers", t, "-", note);
    } else {
        demo.row("half float round trip", "helpers", 0, "-", "no backend could make the float frame");
    }

    demo.endStatus();
    std::printf("kvcv demo: test chart %s (colour round trips on its even %s part), results in %s/\n\n",
                sizeText(size).c_str(), sizeText(even_size).c_str(), dir.string().c_str());
    std::fputs(demo.table().c_str(), stdout);
    std::printf("\ntime/call: mean over repeated calls, one thread. base vs fast: largest absolute difference of "
                "the two outputs (0: identical).\nwrote %d PNG files to %s/\n",
                demo.written(), dir.string().c_str());
    return kExitOk;
}

}  // namespace kvcv
