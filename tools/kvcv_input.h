// What the kvcv tool takes in: its argument parsing (options, sizes,
// rectangles, formats, numbers) and its input files (encoded images and raw
// frames), apart from main and the subcommands so that tests and the fuzz
// target call them directly.
//
// Input files are hostile until read: a directory or a device given as a file,
// an empty file, a raw file whose size does not match its format and size, an
// image whose header claims more pixels than the limit, a PNG without its
// IEND chunk or a JPEG without its EOI marker (OpenCV decodes both without a
// word) are refused with a RunError before anything large is allocated. Only
// the formats whose header is read here (PNG, JPEG, BMP, TIFF, WebP, PNM) are
// handed to a decoder at all.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "kv_core/kv_frame.h"

namespace kvcv {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// Bad arguments: exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// Unreadable, corrupt or unwritable files, and work the library refuses: exit status 1.
struct RunError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Where the tool's own messages go: the process's stderr as it was at start.
// Image decoders (libpng, libjpeg, libtiff) print their own complaints on
// stderr; those are silenced while a file is decoded or encoded, so a bad file
// gives the tool's one-line message only. Call initMessages() first in main.
void initMessages();
FILE* errOut();

// Points stderr at /dev/null while it lives (any thread; nests). Sanitizer
// builds keep stderr: their reports must never be hidden.
class QuietDecoders {
public:
    QuietDecoders();
    ~QuietDecoders();
    QuietDecoders(const QuietDecoders&) = delete;
    QuietDecoders& operator=(const QuietDecoders&) = delete;
};

// ---- arguments --------------------------------------------------------------

// Options are "--name value" or "--name=value"; flags are "--name". Everything
// else is a positional argument. Unknown options are usage errors.
class Args {
public:
    // `options` take a value, `flags` do not (names without the dashes).
    Args(int argc, char** argv, const std::vector<std::string>& options, const std::vector<std::string>& flags);

    bool help() const { return _help; }
    bool has(const std::string& name) const { return _values.count(name) != 0; }
    std::string get(const std::string& name, const std::string& fallback = std::string()) const;
    const std::vector<std::string>& positional() const { return _positional; }
    // Exactly `min`..`max` positional arguments, named in the message by `what`.
    void expectPositional(size_t min, size_t max, const char* what) const;

private:
    std::map<std::string, std::string> _values;
    std::vector<std::string> _positional;
    bool _help = false;
};

kv::Size parseSize(const std::string& text, const char* option);                 // "WxH"
kv::Rect parseRect(const std::string& text, const char* option);                 // "X,Y,W,H"
std::vector<kv::Rect> parseRects(const std::string& text, const char* option);   // "X,Y,W,H;X,Y,W,H"
std::vector<float> parseFloats(const std::string& text, const char* option);     // "a,b,c"
int parseInt(const std::string& text, const char* option, int min, int max);
double parseDouble(const std::string& text, const char* option);
// Case-insensitive; accepts "nv12", "FRAME_NV12", "bgr", "gray", "yuv444p", ...
kv::FrameFormat parseFormat(const std::string& text, const char* option);
std::string formatName(kv::FrameFormat format);  // "NV12", "BGR_8"
// "nearest" | "bilinear" | "area" -> 0, 1, 2 (the ScaleMethod values).
int parseMethod(const std::string& text);
const char* methodName(int method);
// "base" | "fast", or a UsageError.
std::string parseBackendName(const std::string& text);

// ---- input files --------------------------------------------------------------

// Images of more pixels than this are refused unless --max-pixels raises it:
// 128 megapixels (a 16384 x 8192 image) decode into at most 384 MiB of BGR.
constexpr uint64_t kDefaultMaxPixels = uint64_t(1) << 27;

// Input options shared by the subcommands that read images: --in-format and
// --in-size (a raw frame) and --max-pixels.
struct InputSpec {
    kv::FrameFormat raw_format = kv::FRAME_UNDEFINED;  // set: IN is a raw frame
    kv::Size raw_size;
    uint64_t max_pixels = kDefaultMaxPixels;
};
InputSpec inputSpec(const Args& args);

// A frame together with whatever keeps its memory alive (a decoded cv::Mat or
// the bytes of a raw file); the frame wraps that memory without a copy.
struct Image {
    cv::Mat mat;
    std::shared_ptr<std::vector<uint8_t>> bytes;
    kv::Frame frame;
};

// What an encoded image's header says, read without decoding it.
struct ImageHeader {
    const char* kind = nullptr;  // "PNG", "JPEG", "BMP", "TIFF", "WebP", "PNM"; null when not recognised
    uint64_t width = 0, height = 0;
    bool sized = false;     // width and height were read
    bool complete = true;   // false: the file ends before the image does
};
ImageHeader readImageHeader(const uint8_t* data, size_t size);

bool hasImageExtension(const std::string& path);
// Decodes PNG, JPEG, BMP, TIFF, WebP or PNM into FRAME_BGR_8 or FRAME_GRAY_8,
// or reads a raw frame of `wanted.raw_format` (planes packed one after
// another, rows unpadded).
Image readImage(const std::string& path, const InputSpec& wanted = InputSpec());
// The same on a file's bytes; `name` only names the file in messages.
Image decodeImage(std::shared_ptr<std::vector<uint8_t>> bytes, const std::string& name, const InputSpec& wanted);

// Wraps a continuous cv::Mat (CV_8UC3 -> BGR_8, CV_8UC1 -> GRAY_8).
kv::Frame wrapMat(const cv::Mat& mat);

}  // namespace kvcv
