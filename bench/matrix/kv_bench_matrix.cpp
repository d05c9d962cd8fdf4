// kv_bench_matrix: every colorCvt pair and every resize of both backends on one
// 1920x1080 source, single thread, in one run. Each cell is printed as a
// multiple of one memcpy of the larger of its source and destination (memcpy
// timed in the same run) and, where OpenCV can make the same call (gray, RGB,
// BGR and float BGR resizes), as a ratio to cv::resize on one thread. Cells are
// listed worst first, with the counts above the targets; crop_and_resize of
// the whole frame into a 1x3x224x224 tensor stands beside OpenCV's chain
// resize + cvtColor + convertTo + split into the same planes.
//
// Timing: one warm-up call, then batches of calls sized to about 2 ms, and the
// best batch mean (of at least 5 batches and about 25 ms per cell). Cells beside
// OpenCV time both twice, alternating, and keep each one's best, so that a
// burst of load on a shared machine does not fall on one side only.
//
// Usage: kv_bench_matrix [--only resize|colorcvt|crop] [--filter TEXT] [--top N] [--csv FILE] [--calls N]
// (--calls N makes exactly N timed calls per cell and --no-opencv skips OpenCV,
// for profiles and instruction counts under callgrind).
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kv_core/kv_exception.h"
#include "kv_core/kv_frame.h"
#include "kv_core/kv_tensor.h"
#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"

#include "../bench_frames.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kMaxMemcpy = 6.0;  // target: at most this many memcpy
constexpr double kMaxOpenCv = 1.1;  // target: at most this ratio to OpenCV

const kv::Size kSource(1920, 1080);
const kv::Size kSizes[] = {{1280, 720}, {960, 540}, {640, 360}, {700, 500},
                           {480, 270},  {416, 416}, {224, 224}, {2880, 1620}};
const kv::FrameFormat kFormats[] = {
    kv::FRAME_GRAY_8, kv::FRAME_RGB_8,       kv::FRAME_RGB_8_PLANAR,     kv::FRAME_BGR_8,
    kv::FRAME_BGR_8_PLANAR, kv::FRAME_I420,  kv::FRAME_YV12,             kv::FRAME_NV12,
    kv::FRAME_NV21,   kv::FRAME_YV16,        kv::FRAME_YUYV,             kv::FRAME_UYVY,
    kv::FRAME_NV16,   kv::FRAME_YUV444,      kv::FRAME_YUV444_PLANAR,    kv::FRAME_C2_8,
    kv::FRAME_C3_8,   kv::FRAME_C4_8,        kv::FRAME_GRAY_16,          kv::FRAME_GRAY_FLOAT_32,
    kv::FRAME_FLOAT_32, kv::FRAME_FLOAT_32_C3, kv::FRAME_FLOAT_32_C3_PLANAR};
const char* const kMethods[] = {"nearest", "bilinear", "area"};
const int kCvMethods[] = {cv::INTER_NEAREST, cv::INTER_LINEAR, cv::INTER_AREA};

struct Options {
    std::string only;    // "", "resize", "colorcvt", "crop"
    std::string filter;  // substring of a cell's name
    size_t top = 0;      // 0: every cell
    std::string csv;
};

int g_fixed_calls = 0;    // --calls: exactly this many timed calls per cell
bool g_opencv = true;     // --no-opencv: kv cells only (for profiling)

// Best mean seconds per call of f.
double timeCall(const std::function<void()>& f) {
    f();  // warm-up: tables, buffers, caches
    auto seconds = [](Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double>(b - a).count(); };
    Clock::time_point t0 = Clock::now();
    if (g_fixed_calls > 0) {
        for (int i = 0; i < g_fixed_calls; ++i) f();
        return seconds(t0, Clock::now()) / g_fixed_calls;
    }
    f();
    const double once = std::max(seconds(t0, Clock::now()), 1e-7);
    const int per_batch = std::max(1, int(2e-3 / once));
    double best = once, spent = once;
    for (int batch = 0; batch < 5 || (spent < 25e-3 && batch < 100); ++batch) {
        t0 = Clock::now();
        for (int i = 0; i < per_batch; ++i) f();
        const double t = seconds(t0, Clock::now());
        spent += t;
        best = std::min(best, t / per_batch);
    }
    return best;
}

std::string name(kv::FrameFormat f) {
    std::string s = kv::toString(f);
    return s.rfind("FRAME_", 0) == 0 ? s.substr(6) : s;
}

std::string sizeText(kv::Size s) { return std::to_string(s.width) + "x" + std::to_string(s.height); }

// Bytes of pixel data of a frame (every plane's rows, without padding).
size_t dataBytes(const kv::FrameLayout& l) {
    size_t n = 0;
    for (uint32_t p = 0; p < l.planes; ++p) n += size_t(l.plane[p].row_bytes) * size_t(l.plane[p].size.height);
    return n;
}

// One memcpy of n bytes between two buffers, timed once per size.
double memcpyTime(size_t n) {
    static std::map<size_t, double> cache;
    auto it = cache.find(n);
    if (it != cache.end()) return it->second;
    std::vector<uint8_t> a(n + 64, 1), b(n + 64, 2);
    const int fixed = g_fixed_calls;  // the baseline is always timed adaptively
    g_fixed_calls = 0;
    const double t = timeCall([&] { std::memcpy(b.data(), a.data(), n); });
    g_fixed_calls = fixed;
    cache[n] = t;
    return t;
}

void fillRandom(kv::Frame& f, uint32_t seed) {
    std::minstd_rand rng(seed);
    const kv::FrameLayout& l = f.layout();
    for (uint32_t p = 0; p < l.planes; ++p)
        for (int y = 0; y < l.plane[p].size.height; ++y) {
            uint8_t* row = f.rowCpuData(p, y);
            if (l.plane[p].bits_per_channel == 32) {
                float* fr = reinterpret_cast<float*>(row);
                for (uint64_t i = 0; i < l.plane[p].row_bytes / 4; ++i) fr[i] = float(rng() % 256);
            } else {
                for (uint64_t i = 0; i < l.plane[p].row_bytes; ++i) row[i] = uint8_t(rng());
            }
        }
}

const kv::Frame& source(kv::FrameFormat f) {
    static std::map<kv::FrameFormat, kv::Frame> frames;
    auto it = frames.find(f);
    if (it != frames.end()) return it->second;
    kv::Frame frame(f, kSource);
    fillRandom(frame, uint32_t(f) * 7919u + 1u);
    return frames[f] = frame;
}

// OpenCV's view of a single-plane frame whose format it knows, else an empty Mat.
cv::Mat asMat(const kv::Frame& f) {
    int type = -1;
    switch (f.format()) {
        case kv::FRAME_GRAY_8: type = CV_8UC1; break;
        case kv::FRAME_RGB_8:
        case kv::FRAME_BGR_8: type = CV_8UC3; break;
        case kv::FRAME_FLOAT_32_C3: type = CV_32FC3; break;
        default: return cv::Mat();
    }
    return cv::Mat(f.size().height, f.size().width, type, const_cast<uint8_t*>(f.planeCpuData(0)),
                   size_t(f.layout().plane[0].step));
}

struct Cell {
    std::string kind;     // "resize", "colorCvt", "crop_and_resize"
    std::string backend;  // "base", "fast"
    std::string what;
    double ms = 0;
    double memcpys = 0;
    double cv_ratio = NAN;  // NAN: OpenCV has no same call
    std::string label() const { return kind + " " + backend + " " + what; }
};

struct Backends {
    kv::CvBackendBase base;
    kv::CvBackendSimd fast;
    kv::ICvBackend* at(int i) { return i == 0 ? static_cast<kv::ICvBackend*>(&base) : &fast; }
    static const char* name(int i) { return i == 0 ? "base" : "fast"; }
};

bool wanted(const Options& o, const std::string& kind, const std::string& label) {
    if (!o.only.empty()) {
        std::string k = kind;
        for (char& c : k) c = char(std::tolower(static_cast<unsigned char>(c)));
        if (k.rfind(o.only, 0) != 0) return false;
    }
    return o.filter.empty() || label.find(o.filter) != std::string::npos;
}

// Runs `call` once; false (with the reason kept) when the backend refuses it.
bool accepts(const std::function<void()>& call, std::string& reason) {
    try {
        call();
        return true;
    } catch (const kv::Exception& e) {
        reason = e.what();
        const size_t nl = reason.find('\n');
        if (nl != std::string::npos) reason.resize(nl);
        return false;
    }
}

void resizeCells(Backends& backends, const Options& o, std::vector<Cell>& cells, std::vector<std::string>& refused) {
    std::map<std::string, double> cv_ms;  // OpenCV's best seconds per (format, method, size)
    for (int b = 0; b < 2; ++b) {
        kv::ICvBackend& backend = *backends.at(b);
        for (kv::FrameFormat f : kFormats) {
            for (int m = 0; m < 3; ++m) {
                backend.setIntProperty(kv::ICvBackend::kPropertyResizeMethod, m);
                bool refused_once = false;
                for (kv::Size size : kSizes) {
                    Cell c{"resize", Backends::name(b), name(f) + " " + kMethods[m] + " " + sizeText(size)};
                    if (!wanted(o, c.kind, c.label())) continue;
                    const kv::Frame& src = source(f);
                    kv::Frame dst(f, size);
                    const auto call = [&] { backend.resize(src, dst, kv::Rect(), kv::Rect()); };
                    std::string reason;
                    if (!accepts(call, reason)) {
                        if (!refused_once)
                            refused.push_back(c.kind + " " + c.backend + " " + name(f) + " " + kMethods[m] + ": " +
                                              reason);
                        refused_once = true;
                        continue;
                    }
                    double t = timeCall(call);
                    const cv::Mat s = g_opencv ? asMat(src) : cv::Mat();
                    if (!s.empty()) {
                        kv::Frame cv_dst(f, size);
                        cv::Mat d = asMat(cv_dst);
                        const auto cv_call = [&] { cv::resize(s, d, d.size(), 0, 0, kCvMethods[m]); };
                        double& cv_t = cv_ms[c.what];  // shared by both backends' cells
                        cv_t = std::min(cv_t > 0 ? cv_t : 1e9, timeCall(cv_call));
                        t = std::min(t, timeCall(call));
                        cv_t = std::min(cv_t, timeCall(cv_call));
                        c.cv_ratio = t / cv_t;
                    }
                    c.ms = t * 1e3;
                    c.memcpys = t / memcpyTime(std::max(dataBytes(src.layout()), dataBytes(dst.layout())));
                    cells.push_back(c);
                    std::fprintf(stderr, "\r%-70s", c.label().c_str());
                }
            }
        }
        backend.setIntProperty(kv::ICvBackend::kPropertyResizeMethod, 1);
    }
}

void colorCvtCells(Backends& backends, const Options& o, std::vector<Cell>& cells) {
    for (int b = 0; b < 2; ++b) {
        kv::ICvBackend& backend = *backends.at(b);
        for (kv::FrameFormat sf : kFormats)
            for (kv::FrameFormat df : kFormats) {
                Cell c{"colorCvt", Backends::name(b), name(sf) + " -> " + name(df)};
                if (!wanted(o, c.kind, c.label())) continue;
                const kv::Frame& src = source(sf);
                kv::Frame dst(df, kSource);
                const auto call = [&] { backend.colorCvt(src, dst, kv::Rect()); };
                std::string reason;
                if (!accepts(call, reason)) continue;  // pairs a backend does not offer are not cells
                const double t = timeCall(call);
                c.ms = t * 1e3;
                c.memcpys = t / memcpyTime(std::max(dataBytes(src.layout()), dataBytes(dst.layout())));
                cells.push_back(c);
                std::fprintf(stderr, "\r%-70s", c.label().c_str());
            }
    }
}

// The whole BGR frame into a 1x3x224x224 RGB tensor, bilinear, beside OpenCV's
// resize + cvtColor (+ convertTo for float) + split into the tensor's planes.
void cropCells(Backends& backends, const Options& o, std::vector<Cell>& cells) {
    const kv::Frame& src = source(kv::FRAME_BGR_8);
    const cv::Mat s = asMat(src);
    for (bool is_float : {true, false}) {
        const kv::TensorLayout layout(is_float ? kv::TENSOR_FLOAT_32 : kv::TENSOR_UINT_8, kv::TENSOR_NCHW,
                                      kv::TensorSize{1, 3, 224, 224}, kv::TensorSize(), kv::TENSOR_ORDER_RGB);
        const std::string what = std::string(is_float ? "float" : "8-bit") + " 1x3x224x224 from BGR 1920x1080";
        if (!wanted(o, "crop_and_resize", "crop_and_resize base " + what) &&
            !wanted(o, "crop_and_resize", "crop_and_resize fast " + what))
            continue;
        kv::Tensor cv_tensor(layout);
        uint8_t* base = static_cast<uint8_t*>(cv_tensor.devicePtr().cpuData());
        const int depth = is_float ? CV_32F : CV_8U;
        const size_t plane_bytes = size_t(224) * 224 * (is_float ? 4 : 1);
        std::vector<cv::Mat> planes;
        for (int c = 0; c < 3; ++c) planes.emplace_back(224, 224, depth, base + c * plane_bytes);
        cv::Mat small, rgb, converted;
        const auto cv_call = [&] {
            cv::resize(s, small, cv::Size(224, 224), 0, 0, cv::INTER_LINEAR);
            cv::cvtColor(small, rgb, cv::COLOR_BGR2RGB);
            if (is_float) {
                rgb.convertTo(converted, CV_32F);
                cv::split(converted, planes);
            } else {
                cv::split(rgb, planes);
            }
        };
        double cv_t = timeCall(cv_call);
        for (int b = 0; b < 2; ++b) {
            Cell c{"crop_and_resize", Backends::name(b), what};
            if (!wanted(o, c.kind, c.label())) continue;
            kv::Tensor tensor(layout);
            const std::vector<kv::Rect> whole{kv::Rect(0, 0, kSource.width, kSource.height)};
            const auto call = [&] { kv::crop_and_resize(*backends.at(b), src, tensor, whole, {}, 0.f, 1.f); };
            const double t = std::min(timeCall(call), (cv_t = std::min(cv_t, timeCall(cv_call)), timeCall(call)));
            c.ms = t * 1e3;
            c.memcpys = t / memcpyTime(dataBytes(src.layout()));
            c.cv_ratio = t / cv_t;
            cells.push_back(c);
        }
    }
}

void printCells(const char* title, std::vector<Cell> cells, bool by_ratio, size_t top) {
    if (cells.empty()) return;
    std::stable_sort(cells.begin(), cells.end(), [&](const Cell& a, const Cell& b) {
        if (by_ratio) return a.cv_ratio > b.cv_ratio;
        return a.memcpys > b.memcpys;
    });
    std::printf("\n== %s (%zu cells%s)\n", title, cells.size(),
                top && top < cells.size() ? (", worst " + std::to_string(top) + " shown").c_str() : "");
    std::printf("%-16s %-5s %-44s %9s %8s %8s\n", "kind", "impl", "case", "ms", "memcpy", "vs cv");
    size_t n = 0;
    for (const Cell& c : cells) {
        if (top && n++ >= top) break;
        char ratio[16] = "-";
        if (!std::isnan(c.cv_ratio)) std::snprintf(ratio, sizeof ratio, "%.2f", c.cv_ratio);
        const bool over = c.memcpys > kMaxMemcpy || (!std::isnan(c.cv_ratio) && c.cv_ratio > kMaxOpenCv);
        std::printf("%-16s %-5s %-44s %9.3f %8.2f %8s%s\n", c.kind.c_str(), c.backend.c_str(), c.what.c_str(), c.ms,
                    c.memcpys, ratio, over ? "  *" : "");
    }
}

void writeCsv(const std::string& path, const std::vector<Cell>& cells) {
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(1);
    }
    std::fprintf(f, "kind,backend,case,ms,memcpy,vs_opencv\n");
    for (const Cell& c : cells)
        std::fprintf(f, "%s,%s,%s,%.4f,%.3f,%s\n", c.kind.c_str(), c.backend.c_str(), c.what.c_str(), c.ms, c.memcpys,
                     std::isnan(c.cv_ratio) ? "" : std::to_string(c.cv_ratio).c_str());
    std::fclose(f);
}

int usage() {
    std::fputs("usage: kv_bench_matrix [--only resize|colorcvt|crop] [--filter TEXT] [--top N] [--csv FILE] [--calls N] [--no-opencv]\n"
               "  --only    run one group of cells\n"
               "  --filter  run only cells whose name contains TEXT (e.g. \"fast BGR_8 area\")\n"
               "  --top N   print only the N worst cells of each list\n"
               "  --csv     also write every cell to FILE\n"
               "  --calls N exactly N timed calls per cell (for instruction counts)\n"
               "  --no-opencv  skip the OpenCV timings (for profiles of kv alone)\n",
               stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--no-opencv") {
            g_opencv = false;
            continue;
        }
        if (i + 1 >= argc) return usage();
        const std::string v = argv[++i];
        if (a == "--only" && (v == "resize" || v == "colorcvt" || v == "crop")) o.only = v == "crop" ? "crop_" : v;
        else if (a == "--filter") o.filter = v;
        else if (a == "--top") o.top = size_t(std::atoi(v.c_str()));
        else if (a == "--csv") o.csv = v;
        else if (a == "--calls") g_fixed_calls = std::atoi(v.c_str());
        else return usage();
    }
    cv::setNumThreads(1);
    const int cpu = kvbench::stayOnThisProcessor();
    Backends backends;
    std::vector<Cell> cells;
    std::vector<std::string> refused;

    const size_t bgr_bytes = size_t(kSource.width) * kSource.height * 3;
    std::printf("kv_cv matrix: source %s, one thread (processor %d), best batch mean; memcpy of %.1f MB (BGR) %.3f ms\n",
                sizeText(kSource).c_str(), cpu, bgr_bytes / 1e6, 1e3 * memcpyTime(bgr_bytes));
    std::printf("targets: at most %.0f memcpy of the larger of source and destination; at most %.1fx OpenCV\n",
                kMaxMemcpy, kMaxOpenCv);

    cropCells(backends, o, cells);
    resizeCells(backends, o, cells, refused);
    colorCvtCells(backends, o, cells);
    std::fprintf(stderr, "\r%-70s\r", "");

    std::vector<Cell> crop, resize, resize_cv, color;
    for (const Cell& c : cells) {
        if (c.kind == "crop_and_resize") crop.push_back(c);
        else if (c.kind == "resize") {
            resize.push_back(c);
            if (!std::isnan(c.cv_ratio)) resize_cv.push_back(c);
        } else color.push_back(c);
    }
    printCells("crop_and_resize, ratio to OpenCV's resize + cvtColor (+ convertTo) + split", crop, true, 0);
    printCells("resize, worst first by memcpy multiple", resize, false, o.top);
    printCells("resize beside cv::resize, worst first by ratio", resize_cv, true, o.top);
    printCells("colorCvt, worst first by memcpy multiple", color, false, o.top);

    std::printf("\n== counts above the targets\n");
    for (const char* b : {"base", "fast"}) {
        auto count = [&](const std::vector<Cell>& v, bool ratio) {
            size_t n = 0, over = 0;
            for (const Cell& c : v)
                if (c.backend == b) {
                    ++n;
                    over += ratio ? c.cv_ratio > kMaxOpenCv : c.memcpys > kMaxMemcpy;
                }
            return std::to_string(over) + " of " + std::to_string(n);
        };
        std::printf("%s: resize above %.0f memcpy: %s; resize above %.1fx OpenCV: %s; colorCvt above %.0f memcpy: %s; "
                    "crop_and_resize slower than OpenCV: %s\n",
                    b, kMaxMemcpy, count(resize, false).c_str(), kMaxOpenCv, count(resize_cv, true).c_str(),
                    kMaxMemcpy, count(color, false).c_str(), [&] {
                        size_t n = 0, over = 0;
                        for (const Cell& c : crop)
                            if (c.backend == b) ++n, over += c.cv_ratio > 1.0;
                        return std::to_string(over) + " of " + std::to_string(n);
                    }().c_str());
    }
    size_t over_memcpy = 0, over_cv = 0;
    for (const Cell& c : cells) {
        if (c.kind == "crop_and_resize") continue;
        over_memcpy += c.memcpys > kMaxMemcpy;
        over_cv += !std::isnan(c.cv_ratio) && c.cv_ratio > kMaxOpenCv;
    }
    std::printf("all: %zu of %zu resize and colorCvt cells above %.0f memcpy; %zu of %zu resize cells above %.1fx "
                "OpenCV\n",
                over_memcpy, resize.size() + color.size(), kMaxMemcpy, over_cv, resize_cv.size(), kMaxOpenCv);
    if (!refused.empty()) {
        std::printf("\nnot offered (refused on the first call):\n");
        for (const std::string& r : refused) std::printf("  %s\n", r.c_str());
    }
    if (!o.csv.empty()) writeCsv(o.csv, cells);
    return 0;
}
