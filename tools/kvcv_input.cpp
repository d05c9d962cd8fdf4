// The kvcv tool's argument parsing and input files: options and their values,
// encoded images (header checks before decoding) and raw frames.
#include "kvcv_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <fstream>
#include <mutex>

#include <opencv2/imgcodecs.hpp>

namespace kvcv {

namespace {

std::string lower(std::string s) {
    for (char& c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::vector<std::string> split(const std::string& text, char sep) {
    std::vector<std::string> parts;
    std::string cur;
    for (char c : text) {
        if (c == sep) {
            parts.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    parts.push_back(cur);
    return parts;
}

bool toLong(const std::string& text, long long& out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    out = std::strtoll(text.c_str(), &end, 10);
    return errno == 0 && end && *end == '\0';
}

std::string extensionOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return std::string();
    return lower(path.substr(dot + 1));
}

int g_err_fd = -1;   // the original stderr
int g_null_fd = -1;  // /dev/null
FILE* g_err = stderr;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
std::mutex g_quiet_lock;
int g_quiet_depth = 0;
#endif

}  // namespace

QuietDecoders::QuietDecoders() {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    std::lock_guard<std::mutex> lock(g_quiet_lock);
    if (g_null_fd >= 0 && g_quiet_depth++ == 0) {
        std::fflush(stderr);
        dup2(g_null_fd, STDERR_FILENO);
    }
#endif
}

QuietDecoders::~QuietDecoders() {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    std::lock_guard<std::mutex> lock(g_quiet_lock);
    if (g_null_fd >= 0 && --g_quiet_depth == 0) {
        std::fflush(stderr);
        dup2(g_err_fd, STDERR_FILENO);
    }
#endif
}

void initMessages() {
    g_err_fd = dup(STDERR_FILENO);
    g_null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    FILE* f = g_err_fd >= 0 ? fdopen(g_err_fd, "w") : nullptr;
    if (f && g_null_fd >= 0) {
        setvbuf(f, nullptr, _IONBF, 0);
        g_err = f;
    } else {
        g_null_fd = -1;  // no silencing without a second handle on stderr
    }
}

FILE* errOut() { return g_err; }

// ---- arguments ------------------------------------------------------------------

Args::Args(int argc, char** argv, const std::vector<std::string>& options, const std::vector<std::string>& flags) {
    auto contains = [](const std::vector<std::string>& v, const std::string& s) {
        return std::find(v.begin(), v.end(), s) != v.end();
    };
    bool only_positional = false;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (only_positional || a.size() < 2 || a[0] != '-' || (a[1] != '-' && a != "-h")) {
            // Includes "-5" style negative numbers and a lone "-".
            _positional.push_back(a);
            continue;
        }
        if (a == "--") {
            only_positional = true;
            continue;
        }
        if (a == "-h" || a == "--help") {
            _help = true;
            continue;
        }
        std::string name = a.substr(2), value;
        const size_t eq = name.find('=');
        const bool inline_value = eq != std::string::npos;
        if (inline_value) {
            value = name.substr(eq + 1);
            name = name.substr(0, eq);
        }
        if (contains(flags, name)) {
            if (inline_value) throw UsageError("option --" + name + " takes no value");
            _values[name] = "1";
        } else if (contains(options, name)) {
            if (!inline_value) {
                if (i + 1 >= argc) throw UsageError("option --" + name + " needs a value");
                value = argv[++i];
            }
            _values[name] = value;
        } else {
            throw UsageError("unknown option --" + name);
        }
    }
}

std::string Args::get(const std::string& name, const std::string& fallback) const {
    const auto it = _values.find(name);
    return it == _values.end() ? fallback : it->second;
}

void Args::expectPositional(size_t min, size_t max, const char* what) const {
    if (_positional.size() < min) throw UsageError(std::string("missing arguments, expected ") + what);
    if (_positional.size() > max)
        throw UsageError("unexpected argument '" + _positional[max] + "', expected " + what);
}

kv::Size parseSize(const std::string& text, const char* option) {
    const auto parts = split(lower(text), 'x');
    long long w = 0, h = 0;
    if (parts.size() != 2 || !toLong(parts[0], w) || !toLong(parts[1], h))
        throw UsageError(std::string(option) + " must be WxH, got '" + text + "'");
    if (w < 1 || h < 1 || w > 32767 || h > 32767)
        throw UsageError(std::string(option) + " must lie between 1x1 and 32767x32767, got '" + text + "'");
    return kv::Size(int32_t(w), int32_t(h));
}

kv::Rect parseRect(const std::string& text, const char* option) {
    const auto parts = split(text, ',');
    long long v[4] = {};
    bool ok = parts.size() == 4;
    for (size_t i = 0; ok && i < 4; ++i) ok = toLong(parts[i], v[i]) && std::llabs(v[i]) <= 32767;
    if (!ok) throw UsageError(std::string(option) + " must be X,Y,W,H, got '" + text + "'");
    if (v[2] < 1 || v[3] < 1)
        throw UsageError(std::string(option) + " needs a positive width and height, got '" + text + "'");
    return kv::Rect(int32_t(v[0]), int32_t(v[1]), int32_t(v[2]), int32_t(v[3]));
}

std::vector<kv::Rect> parseRects(const std::string& text, const char* option) {
    std::vector<kv::Rect> rects;
    for (const auto& part : split(text, ';'))
        if (!part.empty()) rects.push_back(parseRect(part, option));
    if (rects.empty()) throw UsageError(std::string(option) + " lists no rectangle");
    return rects;
}

double parseDouble(const std::string& text, const char* option) {
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || errno != 0 || !end || *end != '\0' || !std::isfinite(v))
        throw UsageError(std::string(option) + " must be a number, got '" + text + "'");
    return v;
}

std::vector<float> parseFloats(const std::string& text, const char* option) {
    std::vector<float> values;
    for (const auto& part : split(text, ',')) values.push_back(float(parseDouble(part, option)));
    return values;
}

int parseInt(const std::string& text, const char* option, int min, int max) {
    long long v = 0;
    if (!toLong(text, v)) throw UsageError(std::string(option) + " must be an integer, got '" + text + "'");
    if (v < min || v > max)
        throw UsageError(std::string(option) + " must lie between " + std::to_string(min) + " and " +
                         std::to_string(max) + ", got " + text);
    return int(v);
}

namespace {

const kv::FrameFormat kAllFormats[] = {
    kv::FRAME_GRAY_8,     kv::FRAME_RGB_8,         kv::FRAME_RGB_8_PLANAR,   kv::FRAME_BGR_8,
    kv::FRAME_BGR_8_PLANAR, kv::FRAME_I420,        kv::FRAME_YV12,           kv::FRAME_NV12,
    kv::FRAME_NV21,       kv::FRAME_YV16,          kv::FRAME_YUYV,           kv::FRAME_UYVY,
    kv::FRAME_NV16,       kv::FRAME_YUV444,        kv::FRAME_YUV444_PLANAR,  kv::FRAME_C2_8,
    kv::FRAME_C3_8,       kv::FRAME_C4_8,          kv::FRAME_GRAY_16,        kv::FRAME_GRAY_FLOAT_32,
    kv::FRAME_FLOAT_32,   kv::FRAME_FLOAT_32_C3,   kv::FRAME_FLOAT_32_C3_PLANAR,
};

struct Alias {
    const char* name;
    kv::FrameFormat format;
};
const Alias kAliases[] = {
    {"gray", kv::FRAME_GRAY_8},        {"grey", kv::FRAME_GRAY_8},      {"y", kv::FRAME_GRAY_8},
    {"rgb", kv::FRAME_RGB_8},          {"bgr", kv::FRAME_BGR_8},        {"rgbp", kv::FRAME_RGB_8_PLANAR},
    {"bgrp", kv::FRAME_BGR_8_PLANAR},  {"yuv420p", kv::FRAME_I420},     {"iyuv", kv::FRAME_I420},
    {"yuy2", kv::FRAME_YUYV},          {"yuv444p", kv::FRAME_YUV444_PLANAR}, {"gray16", kv::FRAME_GRAY_16},
    {"grayf32", kv::FRAME_GRAY_FLOAT_32}, {"f32", kv::FRAME_FLOAT_32},  {"f32c3", kv::FRAME_FLOAT_32_C3},
    {"f32c3p", kv::FRAME_FLOAT_32_C3_PLANAR},
};

}  // namespace

std::string formatName(kv::FrameFormat format) {
    std::string name = kv::toString(format);
    if (name.rfind("FRAME_", 0) == 0) name = name.substr(6);
    return name;
}

kv::FrameFormat parseFormat(const std::string& text, const char* option) {
    std::string t = lower(text);
    if (t.rfind("frame_", 0) == 0) t = t.substr(6);
    for (const Alias& a : kAliases)
        if (t == a.name) return a.format;
    for (kv::FrameFormat f : kAllFormats) {
        const std::string n = lower(formatName(f));
        // "nv12" matches NV12, "bgr_8" matches BGR_8, "gray_8"...
        if (t == n) return f;
    }
    std::string known;
    for (kv::FrameFormat f : kAllFormats) known += (known.empty() ? "" : " ") + lower(formatName(f));
    throw UsageError(std::string(option) + ": unknown format '" + text + "' (known: " + known + ")");
}

int parseMethod(const std::string& text) {
    const std::string t = lower(text);
    if (t == "nearest") return 0;
    if (t == "bilinear") return 1;
    if (t == "area") return 2;
    throw UsageError("--method must be nearest, bilinear or area, got '" + text + "'");
}

const char* methodName(int method) {
    switch (method) {
        case 0: return "nearest";
        case 1: return "bilinear";
        case 2: return "area";
        default: return "?";
    }
}

std::string parseBackendName(const std::string& text) {
    const std::string t = lower(text);
    if (t == "base" || t == "fast") return t;
    throw UsageError("--backend must be base or fast, got '" + text + "'");
}


// ---- input files ---------------------------------------------------------------

InputSpec inputSpec(const Args& args) {
    InputSpec wanted;
    if (args.has("in-format")) {
        wanted.raw_format = parseFormat(args.get("in-format"), "--in-format");
        if (!args.has("in-size")) throw UsageError("--in-format needs --in-size WxH");
        wanted.raw_size = parseSize(args.get("in-size"), "--in-size");
    } else if (args.has("in-size")) {
        throw UsageError("--in-size needs --in-format FORMAT");
    }
    if (args.has("max-pixels")) {
        long long v = 0;
        const std::string text = args.get("max-pixels");
        if (!toLong(text, v) || v < 1)
            throw UsageError("--max-pixels must be a positive number of pixels, got '" + text + "'");
        wanted.max_pixels = uint64_t(v);
    }
    return wanted;
}

bool hasImageExtension(const std::string& path) {
    static const char* const kExt[] = {"png", "jpg", "jpeg", "jpe", "bmp", "dib", "tif", "tiff",
                                       "pgm", "ppm", "pnm", "pbm", "webp"};
    const std::string e = extensionOf(path);
    for (const char* x : kExt)
        if (e == x) return true;
    return false;
}

namespace {

uint32_t be16(const uint8_t* p) { return uint32_t(p[0]) << 8 | p[1]; }
uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
uint32_t le16(const uint8_t* p) { return uint32_t(p[1]) << 8 | p[0]; }
uint32_t le24(const uint8_t* p) { return uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0]; }
uint32_t le32(const uint8_t* p) { return uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0]; }
uint64_t le64(const uint8_t* p) { return uint64_t(le32(p + 4)) << 32 | le32(p); }

bool startsWith(const uint8_t* data, size_t size, const char* magic, size_t n) {
    return size >= n && std::memcmp(data, magic, n) == 0;
}

// PNG: the IHDR chunk gives the size; the chunks must run whole up to IEND.
void pngHeader(const uint8_t* d, size_t n, ImageHeader& h) {
    h.kind = "PNG";
    if (n >= 24 && std::memcmp(d + 12, "IHDR", 4) == 0) {
        h.width = be32(d + 16);
        h.height = be32(d + 20);
        h.sized = true;
    }
    size_t pos = 8;
    for (;;) {
        if (n - pos < 12) {
            h.complete = false;
            return;
        }
        const uint64_t length = be32(d + pos);
        if (length > n - pos - 12) {
            h.complete = false;
            return;
        }
        const bool end = std::memcmp(d + pos + 4, "IEND", 4) == 0;
        pos += size_t(length) + 12;
        if (end) return;
    }
}

// JPEG: segments from SOI; a start-of-frame segment gives the size; after a
// scan the entropy-coded bytes run to the next marker (0xFF followed by
// anything but a stuffed 0 or a restart marker). Complete means an EOI marker
// ends the last scan.
void jpegHeader(const uint8_t* d, size_t n, ImageHeader& h) {
    h.kind = "JPEG";
    h.complete = false;
    size_t pos = 2;
    while (pos + 2 <= n) {
        if (d[pos] != 0xFF) return;  // not a marker where one must be: damaged
        const uint8_t marker = d[pos + 1];
        if (marker == 0xFF) {  // fill byte
            ++pos;
            continue;
        }
        pos += 2;
        if (marker == 0xD9) {
            h.complete = true;
            return;
        }
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD8)) continue;  // no length
        if (pos + 2 > n) return;
        const size_t length = be16(d + pos);
        if (length < 2 || length > n - pos) return;
        const bool sof = marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
        if (sof && length >= 7) {  // the largest frame, should there be several
            h.height = std::max<uint64_t>(h.height, be16(d + pos + 3));
            h.width = std::max<uint64_t>(h.width, be16(d + pos + 5));
            h.sized = true;
        }
        pos += length;
        if (marker == 0xDA) {
            // Entropy-coded data up to the next real marker.
            while (pos + 1 < n && !(d[pos] == 0xFF && d[pos + 1] != 0 && (d[pos + 1] < 0xD0 || d[pos + 1] > 0xD7)))
                ++pos;
            if (pos + 1 >= n) return;
        }
    }
}

// BMP: a 40-byte (or longer) info header gives the size (height negative for
// top-down rows); the file must hold the size its file header states.
void bmpHeader(const uint8_t* d, size_t n, ImageHeader& h) {
    h.kind = "BMP";
    if (n < 26) {
        h.complete = false;
        return;
    }
    const uint32_t info = le32(d + 14);
    if (info == 12) {  // OS/2 core header: 16-bit sides
        h.width = le16(d + 18);
        h.height = le16(d + 20);
    } else {
        h.width = uint64_t(std::llabs(int32_t(le32(d + 18))));
        h.height = uint64_t(std::llabs(int32_t(le32(d + 22))));
    }
    h.sized = true;
    const uint32_t declared = le32(d + 2);
    h.complete = declared == 0 || declared <= n;
}

// TIFF and BigTIFF: ImageWidth (256) and ImageLength (257) of the first
// directory, the image OpenCV reads.
void tiffHeader(const uint8_t* d, size_t n, ImageHeader& h) {
    h.kind = "TIFF";
    if (n < 8) {
        h.complete = false;
        return;
    }
    const bool little = d[0] == 'I';
    auto u16 = [&](size_t at) { return little ? le16(d + at) : be16(d + at); };
    auto u32 = [&](size_t at) { return little ? le32(d + at) : be32(d + at); };
    auto u64 = [&](size_t at) { return little ? le64(d + at) : uint64_t(be32(d + at)) << 32 | be32(d + at + 4); };
    const bool big = u16(2) == 43;
    if (big && n < 16) return;
    const uint64_t ifd = big ? u64(8) : u32(4);
    const size_t entry = big ? 20 : 12, count_bytes = big ? 8 : 2;
    if (ifd > n || n - ifd < count_bytes) {
        h.complete = false;
        return;
    }
    const uint64_t count = big ? u64(size_t(ifd)) : u16(size_t(ifd));
    if (count > (n - ifd - count_bytes) / entry) {
        h.complete = false;
        return;
    }
    bool have_w = false, have_h = false;
    for (uint64_t i = 0; i < count; ++i) {
        const size_t e = size_t(ifd) + count_bytes + size_t(i) * entry;
        const uint32_t tag = u16(e), type = u16(e + 2);
        const size_t value = e + (big ? 12 : 8);
        // SHORT (3) or LONG (4) values, stored in the entry itself; LONG8 (16)
        // fits only the 8-byte value field of a BigTIFF entry.
        const uint64_t v = type == 3 ? u16(value) : type == 4 ? u32(value) : type == 16 && big ? u64(value) : 0;
        if (tag == 256) h.width = v, have_w = true;
        if (tag == 257) h.height = v, have_h = true;
    }
    h.sized = have_w && have_h;
}

// WebP: the VP8, VP8L or VP8X chunk after the RIFF header gives the size.
void webpHeader(const uint8_t* d, size_t n, ImageHeader& h) {
    h.kind = "WebP";
    if (n < 30) {
        h.complete = false;
        return;
    }
    const uint8_t* c = d + 20;  // chunk data
    if (std::memcmp(d + 12, "VP8 ", 4) == 0 && c[3] == 0x9d && c[4] == 0x01 && c[5] == 0x2a) {
        h.width = le16(c + 6) & 0x3FFF;
        h.height = le16(c + 8) & 0x3FFF;
        h.sized = true;
    } else if (std::memcmp(d + 12, "VP8L", 4) == 0 && c[0] == 0x2f) {
        const uint32_t bits = le32(c + 1);
        h.width = (bits & 0x3FFF) + 1;
        h.height = ((bits >> 14) & 0x3FFF) + 1;
        h.sized = true;
    } else if (std::memcmp(d + 12, "VP8X", 4) == 0) {
        // 24-bit sides ending at the 30th byte, the last one checked above.
        h.width = le24(c + 4) + 1;
        h.height = le24(c + 7) + 1;
        h.sized = true;
    }
    h.complete = le32(d + 4) <= n - 8;
}

// PNM (P1..P6): width and height are the first two numbers after the magic,
// read as OpenCV's decoder reads them: whitespace and '#' comments before a
// number, and the one character after it, whatever it is, consumed with it.
void pnmHeader(const uint8_t* d, size_t n, ImageHeader& h) {
    h.kind = "PNM";
    size_t pos = 2;
    uint64_t v[2] = {};
    for (int k = 0; k < 2; ++k) {
        for (;;) {
            if (pos >= n) return;
            if (std::isdigit(d[pos])) break;
            if (d[pos] == '#') {
                while (pos < n && d[pos] != '\n' && d[pos] != '\r') ++pos;
                ++pos;
            } else if (std::isspace(d[pos])) {
                ++pos;
            } else {
                return;  // the decoder refuses it too
            }
        }
        while (pos < n && std::isdigit(d[pos]) && v[k] < (uint64_t(1) << 40)) v[k] = v[k] * 10 + (d[pos++] - '0');
        ++pos;
    }
    h.width = v[0];
    h.height = v[1];
    h.sized = true;
}

std::string dims(uint64_t w, uint64_t h) { return std::to_string(w) + "x" + std::to_string(h); }

[[noreturn]] void tooLarge(const std::string& name, const std::string& what, uint64_t pixels, uint64_t limit) {
    throw RunError("'" + name + "': " + what + ", " + std::to_string(pixels) + " pixels, more than the limit of " +
                   std::to_string(limit) + " (raise it with --max-pixels)");
}

// The bytes of a regular file; anything else (a directory, a device, a pipe)
// is refused before reading.
std::shared_ptr<std::vector<uint8_t>> readFileBytes(const std::string& path, uint64_t expected_size,
                                                    bool check_size, const std::string& expectation) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw RunError("cannot open '" + path + "': " + std::strerror(errno));
    struct Closer {
        int fd;
        ~Closer() { close(fd); }
    } closer{fd};
    struct stat st {};
    if (fstat(fd, &st) != 0) throw RunError("cannot read '" + path + "': " + std::strerror(errno));
    if (S_ISDIR(st.st_mode)) throw RunError("cannot read '" + path + "': it is a directory, not a file");
    if (!S_ISREG(st.st_mode)) throw RunError("cannot read '" + path + "': not a regular file");
    const uint64_t size = uint64_t(st.st_size);
    if (check_size && size != expected_size)
        throw RunError("'" + path + "' holds " + std::to_string(size) + " bytes, " + expectation);
    if (size == 0) throw RunError("cannot read '" + path + "': the file is empty");
    auto bytes = std::make_shared<std::vector<uint8_t>>(size_t(size));
    size_t done = 0;
    while (done < bytes->size()) {
        const ssize_t got = read(fd, bytes->data() + done, bytes->size() - done);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) throw RunError("cannot read '" + path + "': " + (got < 0 ? std::strerror(errno) : "it shrank"));
        done += size_t(got);
    }
    return bytes;
}

// The packed layout of a raw frame and its size check, before any reading.
kv::FrameLayout rawLayout(const InputSpec& wanted, const std::string& name) {
    const kv::FrameLayout packed(wanted.raw_format, wanted.raw_size, 1);
    if (!packed.initialized()) throw UsageError("--in-format: cannot describe a raw frame of this format");
    const uint64_t pixels = uint64_t(wanted.raw_size.width) * uint64_t(wanted.raw_size.height);
    if (pixels > wanted.max_pixels)
        tooLarge(name, "--in-size asks for a " + dims(uint64_t(wanted.raw_size.width), uint64_t(wanted.raw_size.height)) +
                           " raw frame",
                 pixels, wanted.max_pixels);
    return packed;
}

std::string rawExpectation(const InputSpec& wanted, const kv::FrameLayout& packed) {
    return "a " + formatName(wanted.raw_format) + " frame of " +
           dims(uint64_t(wanted.raw_size.width), uint64_t(wanted.raw_size.height)) + " needs " +
           std::to_string(packed.byteSize());
}

}  // namespace

ImageHeader readImageHeader(const uint8_t* data, size_t size) {
    ImageHeader h;
    if (startsWith(data, size, "\x89PNG\r\n\x1a\n", 8))
        pngHeader(data, size, h);
    else if (startsWith(data, size, "\xFF\xD8\xFF", 3))
        jpegHeader(data, size, h);
    else if (startsWith(data, size, "BM", 2))
        bmpHeader(data, size, h);
    else if (startsWith(data, size, "II*\0", 4) || startsWith(data, size, "MM\0*", 4) ||
             startsWith(data, size, "II+\0", 4) || startsWith(data, size, "MM\0+", 4))
        tiffHeader(data, size, h);
    else if (size >= 12 && startsWith(data, size, "RIFF", 4) && std::memcmp(data + 8, "WEBP", 4) == 0)
        webpHeader(data, size, h);
    else if (size >= 2 && data[0] == 'P' && data[1] >= '1' && data[1] <= '6')
        pnmHeader(data, size, h);
    return h;
}

kv::Frame wrapMat(const cv::Mat& mat) {
    const kv::FrameFormat f = mat.type() == CV_8UC3    ? kv::FRAME_BGR_8
                              : mat.type() == CV_8UC1  ? kv::FRAME_GRAY_8
                              : mat.type() == CV_16UC1 ? kv::FRAME_GRAY_16
                                                       : kv::FRAME_UNDEFINED;
    if (f == kv::FRAME_UNDEFINED) throw RunError("unsupported image type");
    return kv::Frame::wrap(f, kv::Size(mat.cols, mat.rows), mat.data, mat.step[0]);
}

Image decodeImage(std::shared_ptr<std::vector<uint8_t>> bytes, const std::string& name, const InputSpec& wanted) {
    Image img;
    if (wanted.raw_format != kv::FRAME_UNDEFINED) {
        const kv::FrameLayout packed = rawLayout(wanted, name);
        if (bytes->size() != packed.byteSize())
            throw RunError("'" + name + "' holds " + std::to_string(bytes->size()) + " bytes, " +
                           rawExpectation(wanted, packed));
        void* planes[kv::FrameLayout::kMaxPlanes] = {};
        size_t steps[kv::FrameLayout::kMaxPlanes] = {};
        for (uint32_t p = 0; p < packed.planes; ++p) {
            planes[p] = bytes->data() + packed.plane[p].offset;
            steps[p] = packed.plane[p].step;
        }
        img.bytes = std::move(bytes);
        img.frame = kv::Frame::wrap(wanted.raw_format, wanted.raw_size, planes, steps);
        return img;
    }
    const std::string hint =
        hasImageExtension(name) ? std::string() : " (for a raw frame give --in-format and --in-size)";
    if (bytes->empty()) throw RunError("cannot read '" + name + "': the file is empty");
    // Only formats whose size is read here are decoded, so that no header
    // makes a decoder allocate past the pixel limit.
    const ImageHeader header = readImageHeader(bytes->data(), bytes->size());
    if (!header.kind)
        throw RunError("cannot read '" + name + "': not an image format kvcv reads (PNG, JPEG, BMP, TIFF, WebP, PNM)" +
                       hint);
    if (!header.sized)
        throw RunError("cannot read '" + name + "': the " + header.kind + " header is damaged or incomplete");
    if (header.width == 0 || header.height == 0)
        throw RunError("cannot read '" + name + "': its " + header.kind + " header gives an empty " +
                       dims(header.width, header.height) + " image");
    const unsigned __int128 pixels = static_cast<unsigned __int128>(header.width) * header.height;
    if (pixels > wanted.max_pixels)
        tooLarge(name, "its " + std::string(header.kind) + " header claims a " + dims(header.width, header.height) +
                           " image",
                 pixels > UINT64_MAX ? UINT64_MAX : uint64_t(pixels), wanted.max_pixels);
    if (!header.complete) throw RunError("cannot read '" + name + "': the " + header.kind + " file is truncated");
    if (bytes->size() > size_t(INT_MAX))
        throw RunError("cannot read '" + name + "': encoded images of more than 2 GiB are not decoded");
    try {
        QuietDecoders quiet;
        img.mat = cv::imdecode(cv::Mat(1, int(bytes->size()), CV_8UC1, bytes->data()), cv::IMREAD_ANYCOLOR);
    } catch (const cv::Exception&) {
        img.mat.release();
    }
    if (img.mat.empty()) throw RunError("cannot read '" + name + "': the " + header.kind + " image cannot be decoded");
    // A decoder that disagrees with the header about the size is not trusted.
    if (uint64_t(img.mat.cols) * uint64_t(img.mat.rows) > wanted.max_pixels)
        tooLarge(name, "the decoded image is " + dims(uint64_t(img.mat.cols), uint64_t(img.mat.rows)),
                 uint64_t(img.mat.cols) * uint64_t(img.mat.rows), wanted.max_pixels);
    if (!img.mat.isContinuous()) img.mat = img.mat.clone();
    img.frame = wrapMat(img.mat);
    return img;
}

Image readImage(const std::string& path, const InputSpec& wanted) {
    if (wanted.raw_format != kv::FRAME_UNDEFINED) {
        // The size is known before reading: a mismatch is refused unread.
        const kv::FrameLayout packed = rawLayout(wanted, path);
        return decodeImage(readFileBytes(path, packed.byteSize(), true, rawExpectation(wanted, packed)), path, wanted);
    }
    return decodeImage(readFileBytes(path, 0, false, std::string()), path, wanted);
}

}  // namespace kvcv
