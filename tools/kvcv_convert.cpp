// kvcv convert: an image or raw frame into another pixel format. Conversions a
// backend lacks go through the other backend, or in two steps through BGR.
#include <cstdio>

#include "kvcv_common.h"

namespace kvcv {

namespace {

const char kHelp[] =
    "usage: kvcv convert IN OUT [--to FORMAT] [--in-format FORMAT --in-size WxH] [--backend base|fast]\n"
    "\n"
    "Converts IN to FORMAT and writes OUT. OUT with an image extension (png, jpg, bmp, tif) is\n"
    "encoded as BGR, so 'convert in.png out.png --to nv12' shows the NV12 round trip; any other\n"
    "extension writes the raw frame (planes one after another, rows unpadded).\n"
    "\n"
    "  --to FORMAT          target format (same as --out-format): gray bgr rgb i420 yv12 nv12 nv21\n"
    "                       yv16 nv16 yuyv uyvy yuv444 yuv444p bgrp rgbp f32c3 f32c3p ...\n"
    "  --in-format FORMAT   IN is a raw frame of this format ...\n"
    "  --in-size WxH        ... and this size\n"
    "  --max-pixels N       refuse input images of more pixels (default 134217728)\n"
    "  --backend base|fast  backend to convert with (default fast; without the option a\n"
    "                       conversion fast lacks is done by base)\n"
    "\n"
    "example: kvcv convert camera.nv12 camera.png --in-format nv12 --in-size 1280x720\n";

}  // namespace

int runConvert(int argc, char** argv) {
    const Args args(argc, argv, {"to", "out-format", "in-format", "in-size", "max-pixels", "backend"}, {});
    if (args.help()) {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    args.expectPositional(2, 2, "IN OUT");
    kv::FrameFormat target = outFormat(args);
    if (args.has("to")) {
        const kv::FrameFormat to = parseFormat(args.get("to"), "--to");
        if (target != kv::FRAME_UNDEFINED && target != to) throw UsageError("--to and --out-format disagree");
        target = to;
    }
    const InputSpec wanted = inputSpec(args);
    const std::string backend = backendOption(args);
    const Image in = readImage(args.positional()[0], wanted);
    writeResult(args.positional()[1], in.frame, target, backend, args.has("backend"));
    return kExitOk;
}

}  // namespace kvcv
