// kvcv rotate: quarter turns (kv::rotateFrame with a FixedRotation) or any
// angle about a rectangle's centre (kv::rotateFrame with a Rect). Angles are
// counter-clockwise, as for the library's rotation matrix, and so is --by.
#include <cstdio>

#include "kvcv_common.h"

#include "kv_cv/kv_cv_helpers.h"

namespace kvcv {

namespace {

const char kHelp[] =
    "usage: kvcv rotate IN OUT (--by 90|180|270 | --angle DEG [--rect X,Y,W,H])\n"
    "                   [--in-format FORMAT --in-size WxH] [--out-format FORMAT]\n"
    "\n"
    "Rotates counter-clockwise and writes OUT.\n"
    "\n"
    "  --by 90|180|270      quarter turns, exact, any 8-bit format (planes rotate together)\n"
    "  --angle DEG          any angle about the centre of --rect (default the whole image); the\n"
    "                       output is large enough for the whole rotated rectangle, the corners\n"
    "                       are black; subsampled YUV input is converted to BGR first\n"
    "  --rect X,Y,W,H       the rectangle to rotate, inside the image (the rotation reads the image\n"
    "                       around it; what lies outside the image is black)\n"
    "  --in-format, --in-size, --out-format   raw frames, as for kvcv convert\n"
    "  --max-pixels N       refuse input images of more pixels (default 134217728)\n"
    "\n"
    "example: kvcv rotate photo.jpg tilted.png --angle 12.5\n";

[[maybe_unused]] bool subsampled(kv::FrameFormat f) { return f >= kv::FRAME_I420 && f <= kv::FRAME_NV16; }

}  // namespace

int runRotate(int argc, char** argv) {
    const Args args(argc, argv, {"by", "angle", "rect", "in-format", "in-size", "max-pixels", "out-format"}, {});
    if (args.help()) {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    args.expectPositional(2, 2, "IN OUT");
    if (args.has("by") == args.has("angle")) throw UsageError("give exactly one of --by and --angle");
    if (args.has("rect") && !args.has("angle")) throw UsageError("--rect goes with --angle");
    int fixed_rotation = 0;
    double angle = 0;
    if (args.has("by")) {
        const int by = parseInt(args.get("by"), "--by", -270, 270);
        // Counter-clockwise quarter turns -> FixedRotation (1 turns clockwise).
        switch ((by % 360 + 360) % 360) {
            case 90: fixed_rotation = 3; break;
            case 180: fixed_rotation = 2; break;
            case 270: fixed_rotation = 1; break;
            default: throw UsageError("--by must be 90, 180 or 270");
        }
    } else {
        angle = parseDouble(args.get("angle"), "--angle");
    }
    const bool has_rect = args.has("rect");
    const kv::Rect given_rect = has_rect ? parseRect(args.get("rect"), "--rect") : kv::Rect();
    const InputSpec wanted = inputSpec(args);
    const kv::FrameFormat out_format = outFormat(args);
    const Image in = readImage(args.positional()[0], wanted);
    kv::Frame out;
    if (fixed_rotation) {
        kv::rotateFrame(in.frame, static_cast<kv::FixedRotation>(fixed_rotation), out);
    } else {
        kv::Frame src = in.frame;
        if (subsampled(src.format())) {
            kv::Frame bgr;
            convertFrame(*anyBackend(), true, in.frame, kv::FRAME_BGR_8, bgr);
            src = bgr;
        }
        const kv::Rect rect = has_rect ? given_rect : kv::Rect(0, 0, src.size().width, src.size().height);
        kv::Rect inside = rect;
        inside.crop(src.size());
        if (inside != rect)
            throw UsageError("--rect " + std::to_string(rect.x) + "," + std::to_string(rect.y) + "," +
                             std::to_string(rect.width) + "," + std::to_string(rect.height) + " must lie inside the " +
                             std::to_string(src.size().width) + "x" + std::to_string(src.size().height) + " image");
        kv::Rect placed;
        kv::rotateFrame(src, rect, float(angle), out, placed);
        std::printf("rotated rectangle %d,%d,%dx%d lies at %d,%d,%dx%d of the output\n", rect.x, rect.y, rect.width,
                    rect.height, placed.x, placed.y, placed.width, placed.height);
    }
    writeResult(args.positional()[1], out, out_format, "fast", false);
    return kExitOk;
}

}  // namespace kvcv
