// The kvcv tool's input side without main: option parsing (Args and every
// parse* of sizes, rectangles, formats, numbers, methods and backends) on
// argument lists cut from the input, and file contents decoded as encoded
// images (headers of PNG, JPEG, BMP, TIFF, WebP and PNM read before decoding,
// truncation refused) or as raw frames of a parsed format and size. A
// UsageError or RunError is the tool's refusal, an accepted outcome like
// kv::Exception; the pixel limit is kept low so that no input decodes into
// much memory.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "kvcv_input.h"

namespace {

// The input's pixel limit: 4 megapixels.
constexpr uint64_t kMaxPixels = uint64_t(1) << 22;

template <typename Call>
void toolGuarded(Call call) {
    kvfuzz::guarded([&] {
        try {
            call();
        } catch (const kvcv::UsageError&) {
        } catch (const kvcv::RunError&) {
        }
    });
}

}  // namespace

// The input is two bytes giving the length L of the argument part, L bytes
// from which the arguments and choices are drawn, then the file's bytes (the
// seeds hold real images there).
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const size_t split = std::min<size_t>(size - 2, size_t(data[0]) | size_t(data[1]) << 8);
    FuzzedDataProvider in(data + 2, split);
    // An argument list: options of every subcommand, values cut from the input.
    std::vector<std::string> words;
    const int n = in.ConsumeIntegralInRange<int>(0, 8);
    for (int i = 0; i < n; ++i) words.push_back(in.ConsumeRandomLengthString(24));
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    kvcv::InputSpec wanted;
    toolGuarded([&] {
        const kvcv::Args args(int(argv.size()), argv.data(), {"in-format", "in-size", "max-pixels", "size", "rect"},
                              {"letterbox"});
        wanted = kvcv::inputSpec(args);
        if (args.has("size")) kvcv::parseSize(args.get("size"), "--size");
        if (args.has("rect")) kvcv::parseRects(args.get("rect"), "--rect");
        args.expectPositional(0, 2, "IN OUT");
    });
    wanted.max_pixels = std::min(wanted.max_pixels, kMaxPixels);
    // Each parser on a string of its own.
    const std::string text = in.ConsumeRandomLengthString(40);
    toolGuarded([&] { kvcv::parseSize(text, "--size"); });
    toolGuarded([&] { kvcv::parseRect(text, "--rect"); });
    toolGuarded([&] { kvcv::parseRects(text, "--rois"); });
    toolGuarded([&] { kvcv::parseFloats(text, "--mean"); });
    toolGuarded([&] { kvcv::parseInt(text, "--jobs", 1, 256); });
    toolGuarded([&] { kvcv::parseFormat(text, "--to"); });
    toolGuarded([&] { kvcv::parseMethod(text); });
    toolGuarded([&] { kvcv::parseBackendName(text); });

    // The file: raw (when the arguments named a format) or encoded.
    const bool raw = wanted.raw_format != kv::FRAME_UNDEFINED || in.ConsumeIntegralInRange<int>(0, 3) == 0;
    if (raw && wanted.raw_format == kv::FRAME_UNDEFINED) {
        wanted.raw_format = kvfuzz::anyFormat(in);
        wanted.raw_size = kvfuzz::anySize(in, 64);
    }
    auto bytes = std::make_shared<std::vector<uint8_t>>(data + 2 + split, data + size);
    if (!bytes->empty()) kvcv::readImageHeader(bytes->data(), bytes->size());
    toolGuarded([&] {
        const kvcv::Image image = kvcv::decodeImage(bytes, "input", wanted);
        // The frame describes memory the image keeps: touch every row byte.
        const kv::FrameLayout& l = image.frame.layout();
        unsigned sum = 0;
        for (uint32_t p = 0; p < l.planes; ++p)
            for (int y = 0; y < l.plane[p].size.height; ++y)
                for (uint64_t x = 0; x < l.plane[p].row_bytes; ++x) sum += image.frame.rowCpuData(p, y)[x];
        if (sum == 0xFFFFFFFFu) std::abort();  // keeps the reads
    });
    return 0;
}
