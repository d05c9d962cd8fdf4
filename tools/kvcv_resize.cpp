// kvcv resize: an image or raw frame to a new size with one backend. The
// frame is resized in its own format (an NV12 dump stays NV12) and converted
// only on output. The antialiasing filters (box ... mitchell) run on the
// library's resampler whatever the backend.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>

#include "kv_cv/kv_scaler_resample.h"
#include "kvcv_common.h"

namespace kvcv {

namespace {

const char kHelp[] =
    "usage: kvcv resize IN OUT --size WxH [--method METHOD] [--backend base|fast]\n"
    "                   [--in-format FORMAT --in-size WxH] [--out-format FORMAT] [--repeat N]\n"
    "\n"
    "Resizes IN to WxH and writes OUT (image extension: encoded; other: raw frame).\n"
    "\n"
    "  --size WxH           output size\n"
    "  --method M           nearest, bilinear (default) or area (area only reduces on base), or an\n"
    "                       antialiasing filter: box, triangle, cubic, lanczos2, lanczos3, mitchell\n"
    "                       (Pillow's BOX, BILINEAR, BICUBIC and LANCZOS are box, triangle, cubic, lanczos3)\n"
    "  --backend base|fast  the generic row-pipeline backend or the fast one (default fast)\n"
    "  --in-format FORMAT   IN is a raw frame of this format ...\n"
    "  --in-size WxH        ... and this size\n"
    "  --max-pixels N       refuse input images of more pixels (default 134217728)\n"
    "  --out-format FORMAT  convert the result to FORMAT before writing\n"
    "  --repeat N           resize N times (one thread) and print the least CPU time of one resize\n"
    "\n"
    "example: kvcv resize photo.jpg small.png --size 320x240 --method area\n";

// A backend method (0..2) or a resampling filter.
struct Method {
    bool resample = false;
    int method = 1;
    kv::ResampleFilter filter = kv::KV_RESAMPLE_BOX;
};

Method parseResizeMethod(const std::string& text) {
    std::string t = text;
    for (char& c : t) c = char(std::tolower(static_cast<unsigned char>(c)));
    Method m;
    if (kv::parseResampleFilter(t.c_str(), m.filter)) {
        m.resample = true;
        return m;
    }
    if (t == "nearest" || t == "bilinear" || t == "area") {
        m.method = parseMethod(t);
        return m;
    }
    throw UsageError("--method must be nearest, bilinear, area, box, triangle, cubic, lanczos2, lanczos3 or mitchell, got '" +
                     text + "'");
}

}  // namespace

void resizeWith(kv::ICvBackend& backend, int method, const kv::Frame& src, kv::Size size, kv::Frame& dst) {
    backend.setIntProperty(kv::ICvBackend::kPropertyResizeMethod, method);
    dst.reuse(src.format(), size, kv::DeviceContext::cpuContext());
    backend.resize(src, dst, kv::Rect(), kv::Rect());
}

int runResize(int argc, char** argv) {
    const Args args(argc, argv, {"size", "method", "backend", "in-format", "in-size", "max-pixels", "out-format", "repeat"}, {});
    if (args.help()) {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    args.expectPositional(2, 2, "IN OUT");
    if (!args.has("size")) throw UsageError("--size WxH is required");
    const kv::Size size = parseSize(args.get("size"), "--size");
    const Method method = parseResizeMethod(args.get("method", "bilinear"));
    const int repeat = args.has("repeat") ? parseInt(args.get("repeat"), "--repeat", 1, 1000000) : 1;
    const std::string backend_name = backendOption(args);
    const kv::FrameFormat out_format = outFormat(args);
    const InputSpec wanted = inputSpec(args);

    auto backend = makeBackend(backend_name);
    const Image in = readImage(args.positional()[0], wanted);
    kv::Frame out;
    kv::ScalerResample resampler;  // kept across repeats: tables and rows are set up once
    double best = 0;
    for (int i = 0; i < repeat; ++i) {
        // The thread's CPU time: a busy machine's preemptions do not count.
        timespec t0{}, t1{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t0);
        if (method.resample) {
            resampler.reuse(in.frame, size, method.filter);
            kv::produceFrame(resampler, out);
        } else {
            resizeWith(*backend, method.method, in.frame, size, out);
        }
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t1);
        const double t = double(t1.tv_sec - t0.tv_sec) + double(t1.tv_nsec - t0.tv_nsec) * 1e-9;
        best = i == 0 ? t : std::min(best, t);
    }
    if (args.has("repeat")) std::printf("resize: best of %d: %.3f ms\n", repeat, best * 1e3);
    writeResult(args.positional()[1], out, out_format, backend_name, args.has("backend"));
    return kExitOk;
}

}  // namespace kvcv
