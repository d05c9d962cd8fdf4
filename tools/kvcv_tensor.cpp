// kvcv tensor: crop-and-resize regions of an image into a batch tensor, the
// input of a model, written as a NumPy .npy file.
//
// Normalisation: the backend fills the tensor with offset 0 and scale 1 (pixel
// values 0..255), then each channel c becomes (v - mean[c]) / std[c] here, so
// per-channel mean and std work. It applies to the whole tensor, letterbox
// bars included: the bars are black pixels normalised like any other pixel.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "kvcv_common.h"

namespace kvcv {

namespace {

const char kHelp[] =
    "usage: kvcv tensor IN OUT.npy --shape NxCxHxW|NxHxWxC [--type u8|f32] [--rois X,Y,W,H;...]\n"
    "                   [--letterbox] [--mean M,M,M --std S,S,S] [--layout nchw|nhwc]\n"
    "                   [--order rgb|bgr] [--backend base|fast] [--in-format FORMAT --in-size WxH]\n"
    "\n"
    "Crops each region of IN, resizes it into one image of the batch and writes the tensor.\n"
    "\n"
    "  --shape S       NxCxHxW or NxHxWxC; C is 1 (gray) or 3. The layout is read from where the\n"
    "                  1 or 3 stands (NCHW when both could be C), or given by --layout\n"
    "  --type T        u8 or f32 (default f32; values 0..255 before normalisation)\n"
    "  --rois LIST     regions 'X,Y,W,H;X,Y,W,H' (quote the ';'), one per image, N of them;\n"
    "                  default the whole image (N must be 1); clipped to the image\n"
    "  --letterbox     keep each region's aspect ratio, centred, black bars around it\n"
    "  --mean, --std   per channel (in tensor channel order) or one value for all: the tensor\n"
    "                  holds (v - mean) / std; f32 only\n"
    "  --order         channel order of C = 3: rgb (default) or bgr\n"
    "  --backend       base or fast (default fast)\n"
    "  --max-pixels N  refuse input images of more pixels (default 134217728)\n"
    "\n"
    "example: kvcv tensor photo.jpg input.npy --shape 1x3x224x224 --letterbox \\\n"
    "             --mean 123.7,116.3,103.5 --std 58.4,57.1,57.4\n";

struct Shape {
    int n = 0, c = 0, h = 0, w = 0;
    bool nhwc = false;
};

Shape parseShape(const std::string& text, const std::string& layout) {
    std::vector<int> v;
    size_t start = 0;
    for (;;) {
        const size_t x = text.find_first_of("xX", start);
        v.push_back(parseInt(text.substr(start, x == std::string::npos ? std::string::npos : x - start), "--shape",
                             1, 32767));
        if (x == std::string::npos) break;
        start = x + 1;
    }
    if (v.size() != 4) throw UsageError("--shape must be NxCxHxW or NxHxWxC, got '" + text + "'");
    auto isC = [](int c) { return c == 1 || c == 3; };
    bool nhwc;
    if (layout == "nchw") {
        nhwc = false;
    } else if (layout == "nhwc") {
        nhwc = true;
    } else if (!layout.empty()) {
        throw UsageError("--layout must be nchw or nhwc");
    } else if (isC(v[1])) {
        nhwc = false;
    } else if (isC(v[3])) {
        nhwc = true;
    } else {
        throw UsageError("--shape: no channel count of 1 or 3 in '" + text + "'");
    }
    Shape s;
    s.n = v[0];
    s.nhwc = nhwc;
    s.c = nhwc ? v[3] : v[1];
    s.h = nhwc ? v[1] : v[2];
    s.w = nhwc ? v[2] : v[3];
    if (!isC(s.c)) throw UsageError("--shape: the channel count must be 1 or 3");
    if (s.n > 4096) throw UsageError("--shape: at most 4096 images");
    return s;
}

std::vector<float> perChannel(const Args& args, const char* name, int channels, float fallback) {
    if (!args.has(name)) return std::vector<float>(size_t(channels), fallback);
    std::vector<float> v = parseFloats(args.get(name), (std::string("--") + name).c_str());
    if (v.size() == 1) v.assign(size_t(channels), v[0]);
    if (v.size() != size_t(channels))
        throw UsageError(std::string("--") + name + " needs 1 or " + std::to_string(channels) + " values");
    return v;
}

// The largest rectangle of `region`'s aspect ratio centred in `size`.
kv::Rect letterbox(kv::Size region, kv::Size size) {
    const double s = std::min(double(size.width) / region.width, double(size.height) / region.height);
    const int w = std::max(1, std::min(size.width, int(std::lround(region.width * s))));
    const int h = std::max(1, std::min(size.height, int(std::lround(region.height * s))));
    return kv::Rect((size.width - w) / 2, (size.height - h) / 2, w, h);
}

}  // namespace

int runTensor(int argc, char** argv) {
    const Args args(argc, argv,
                    {"shape", "type", "rois", "mean", "std", "layout", "order", "backend", "in-format", "in-size",
                     "max-pixels"},
                    {"letterbox"});
    if (args.help()) {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    args.expectPositional(2, 2, "IN OUT.npy");
    if (!args.has("shape")) throw UsageError("--shape is required");
    const Shape shape = parseShape(args.get("shape"), args.get("layout"));
    const std::string type = args.get("type", "f32");
    if (type != "u8" && type != "f32") throw UsageError("--type must be u8 or f32");
    const bool f32 = type == "f32";
    const std::string order = args.get("order", "rgb");
    if (order != "rgb" && order != "bgr") throw UsageError("--order must be rgb or bgr");
    if (!f32 && (args.has("mean") || args.has("std"))) throw UsageError("--mean and --std need --type f32");
    const std::vector<float> mean = perChannel(args, "mean", shape.c, 0.f);
    const std::vector<float> stddev = perChannel(args, "std", shape.c, 1.f);
    for (float s : stddev)
        if (s == 0.f) throw UsageError("--std values must not be 0");
    std::vector<kv::Rect> rois;
    if (args.has("rois")) rois = parseRects(args.get("rois"), "--rois");
    if (int(std::max<size_t>(rois.size(), 1)) != shape.n)
        throw UsageError("the batch size N of --shape is " + std::to_string(shape.n) + " but there " +
                         (rois.empty() ? std::string("is one image (no --rois)")
                                       : "are " + std::to_string(rois.size()) + " regions"));
    const std::string backend_name = backendOption(args);
    const InputSpec wanted = inputSpec(args);

    auto backend = makeBackend(backend_name);
    const Image in = readImage(args.positional()[0], wanted);

    // The source in the tensor's channel order, so the backend only resizes
    // and widens to float.
    const kv::FrameFormat src_format =
        shape.c == 1 ? kv::FRAME_GRAY_8 : order == "rgb" ? kv::FRAME_RGB_8 : kv::FRAME_BGR_8;
    kv::Frame src;
    convertFrame(*backend, !args.has("backend"), in.frame, src_format, src);

    const kv::Size image = src.size();
    std::vector<kv::Rect> dst_rois;
    for (kv::Rect& r : rois) {
        const kv::Rect given = r;
        r.crop(image);
        if (r.empty())
            throw UsageError("region " + std::to_string(given.x) + "," + std::to_string(given.y) + "," +
                             std::to_string(given.width) + "," + std::to_string(given.height) + " lies outside the " +
                             std::to_string(image.width) + "x" + std::to_string(image.height) + " image");
    }
    if (args.has("letterbox")) {
        if (rois.empty()) dst_rois.push_back(letterbox(image, kv::Size(shape.w, shape.h)));
        for (const kv::Rect& r : rois) dst_rois.push_back(letterbox(r.size(), kv::Size(shape.w, shape.h)));
    }

    const kv::TensorSize extents = shape.nhwc ? kv::TensorSize{shape.n, shape.h, shape.w, shape.c}
                                              : kv::TensorSize{shape.n, shape.c, shape.h, shape.w};
    const kv::TensorChannelOrder channel_order = shape.c == 1    ? kv::TENSOR_ORDER_GRAY
                                                 : order == "rgb" ? kv::TENSOR_ORDER_RGB
                                                                  : kv::TENSOR_ORDER_BGR;
    kv::Tensor tensor(kv::TensorLayout(f32 ? kv::TENSOR_FLOAT_32 : kv::TENSOR_UINT_8,
                                       shape.nhwc ? kv::TENSOR_NHWC : kv::TENSOR_NCHW, extents, kv::TensorSize(),
                                       channel_order));
    tensor.setZero();
    // No --rois: one image of the whole frame (an empty rectangle means the whole frame).
    if (rois.empty()) rois.push_back(kv::Rect());
    backend->cropAndResize(src, tensor, rois, dst_rois);

    const size_t count = size_t(shape.n) * size_t(shape.c) * size_t(shape.h) * size_t(shape.w);
    if (tensor.byteSize() != count * (f32 ? 4 : 1)) throw RunError("the tensor is not densely packed");
    void* data = tensor.devicePtr().cpuData();
    if (f32) {
        float* v = static_cast<float*>(data);
        const size_t plane = size_t(shape.h) * size_t(shape.w);
        for (size_t i = 0; i < count; ++i) {
            const size_t c = shape.nhwc ? i % size_t(shape.c) : (i / plane) % size_t(shape.c);
            v[i] = (v[i] - mean[c]) / stddev[c];
        }
    }
    const std::vector<size_t> dims =
        shape.nhwc ? std::vector<size_t>{size_t(shape.n), size_t(shape.h), size_t(shape.w), size_t(shape.c)}
                   : std::vector<size_t>{size_t(shape.n), size_t(shape.c), size_t(shape.h), size_t(shape.w)};
    writeNpy(args.positional()[1], data, dims, f32);
    std::printf("wrote %s: %s (%zu, %zu, %zu, %zu) %s %s, %d image%s%s\n", args.positional()[1].c_str(),
                f32 ? "float32" : "uint8", dims[0], dims[1], dims[2], dims[3], shape.nhwc ? "NHWC" : "NCHW",
                shape.c == 1 ? "gray" : order.c_str(), shape.n, shape.n == 1 ? "" : "s",
                args.has("letterbox") ? ", letterboxed" : "");
    return kExitOk;
}

}  // namespace kvcv
