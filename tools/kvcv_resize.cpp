// kvcv resize: an image or raw frame to a new size with one backend. The
// frame is resized in its own format (an NV12 dump stays NV12) and converted
// only on output.
#include <cstdio>

#include "kvcv_common.h"

namespace kvcv {

namespace {

const char kHelp[] =
    "usage: kvcv resize IN OUT --size WxH [--method nearest|bilinear|area] [--backend base|fast]\n"
    "                   [--in-format FORMAT --in-size WxH] [--out-format FORMAT]\n"
    "\n"
    "Resizes IN to WxH and writes OUT (image extension: encoded; other: raw frame).\n"
    "\n"
    "  --size WxH           output size\n"
    "  --method M           nearest, bilinear (default) or area (area only reduces on base)\n"
    "  --backend base|fast  the generic row-pipeline backend or the fast one (default fast)\n"
    "  --in-format FORMAT   IN is a raw frame of this format ...\n"
    "  --in-size WxH        ... and this size\n"
    "  --max-pixels N       refuse input images of more pixels (default 134217728)\n"
    "  --out-format FORMAT  convert the result to FORMAT before writing\n"
    "\n"
    "example: kvcv resize photo.jpg small.png --size 320x240 --method area\n";

}  // namespace

void resizeWith(kv::ICvBackend& backend, int method, const kv::Frame& src, kv::Size size, kv::Frame& dst) {
    backend.setIntProperty(kv::ICvBackend::kPropertyResizeMethod, method);
    dst.reuse(src.format(), size, kv::DeviceContext::cpuContext());
    backend.resize(src, dst, kv::Rect(), kv::Rect());
}

int runResize(int argc, char** argv) {
    const Args args(argc, argv, {"size", "method", "backend", "in-format", "in-size", "max-pixels", "out-format"}, {});
    if (args.help()) {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    args.expectPositional(2, 2, "IN OUT");
    if (!args.has("size")) throw UsageError("--size WxH is required");
    const kv::Size size = parseSize(args.get("size"), "--size");
    const int method = parseMethod(args.get("method", "bilinear"));
    const std::string backend_name = backendOption(args);
    const kv::FrameFormat out_format = outFormat(args);
    const InputSpec wanted = inputSpec(args);

    auto backend = makeBackend(backend_name);
    const Image in = readImage(args.positional()[0], wanted);
    kv::Frame out;
    resizeWith(*backend, method, in.frame, size, out);
    writeResult(args.positional()[1], out, out_format, backend_name, args.has("backend"));
    return kExitOk;
}

}  // namespace kvcv
