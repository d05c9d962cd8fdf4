// Argument parsing, image and raw-frame files, frame conversion with fallback
// routes, .npy writing and text tables for the kvcv tool.
#include "kvcv_common.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <typeinfo>
#include <mutex>

#include <opencv2/imgcodecs.hpp>

#include "kv_core/kv_exception.h"

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
#ifndef __SANITIZE_ADDRESS__
std::mutex g_quiet_lock;
int g_quiet_depth = 0;
#endif

// Points fd 2 at /dev/null while any thread decodes or encodes a file.
// Sanitizer builds keep stderr: their reports must never be hidden.
class QuietDecoders {
public:
    QuietDecoders() {
#ifndef __SANITIZE_ADDRESS__
        std::lock_guard<std::mutex> lock(g_quiet_lock);
        if (g_null_fd >= 0 && g_quiet_depth++ == 0) {
            std::fflush(stderr);
            dup2(g_null_fd, STDERR_FILENO);
        }
#endif
    }
    ~QuietDecoders() {
#ifndef __SANITIZE_ADDRESS__
        std::lock_guard<std::mutex> lock(g_quiet_lock);
        if (g_null_fd >= 0 && --g_quiet_depth == 0) {
            std::fflush(stderr);
            dup2(g_err_fd, STDERR_FILENO);
        }
#endif
    }
    QuietDecoders(const QuietDecoders&) = delete;
    QuietDecoders& operator=(const QuietDecoders&) = delete;
};

}  // namespace

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


// ---- files ----------------------------------------------------------------------

InputSpec inputSpec(const Args& args) {
    InputSpec wanted;
    if (args.has("in-format")) {
        wanted.raw_format = parseFormat(args.get("in-format"), "--in-format");
        if (!args.has("in-size")) throw UsageError("--in-format needs --in-size WxH");
        wanted.raw_size = parseSize(args.get("in-size"), "--in-size");
    } else if (args.has("in-size")) {
        throw UsageError("--in-size needs --in-format FORMAT");
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

std::vector<uint8_t> readFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw RunError("cannot open '" + path + "': " + std::strerror(errno));
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) throw RunError("cannot read '" + path + "'");
    return bytes;
}

}  // namespace

kv::Frame wrapMat(const cv::Mat& mat) {
    const kv::FrameFormat f = mat.type() == CV_8UC3    ? kv::FRAME_BGR_8
                              : mat.type() == CV_8UC1  ? kv::FRAME_GRAY_8
                              : mat.type() == CV_16UC1 ? kv::FRAME_GRAY_16
                                                       : kv::FRAME_UNDEFINED;
    if (f == kv::FRAME_UNDEFINED) throw RunError("unsupported image type");
    return kv::Frame::wrap(f, kv::Size(mat.cols, mat.rows), mat.data, mat.step[0]);
}

Image readImage(const std::string& path, const InputSpec& wanted) {
    Image img;
    if (wanted.raw_format != kv::FRAME_UNDEFINED) {
        const kv::FrameLayout packed(wanted.raw_format, wanted.raw_size, 1);
        if (!packed.initialized()) throw UsageError("--in-format: cannot describe a raw frame of this format");
        img.bytes = std::make_shared<std::vector<uint8_t>>(readFileBytes(path));
        const uint64_t need = packed.byteSize();
        if (img.bytes->size() != need)
            throw RunError("'" + path + "' holds " + std::to_string(img.bytes->size()) + " bytes, a " +
                           formatName(wanted.raw_format) + " frame of " + std::to_string(wanted.raw_size.width) + "x" +
                           std::to_string(wanted.raw_size.height) + " needs " + std::to_string(need));
        void* planes[kv::FrameLayout::kMaxPlanes] = {};
        size_t steps[kv::FrameLayout::kMaxPlanes] = {};
        for (uint32_t p = 0; p < packed.planes; ++p) {
            planes[p] = img.bytes->data() + packed.plane[p].offset;
            steps[p] = packed.plane[p].step;
        }
        img.frame = kv::Frame::wrap(wanted.raw_format, wanted.raw_size, planes, steps);
        return img;
    }
    {
        std::ifstream probe(path, std::ios::binary);
        if (!probe) throw RunError("cannot open '" + path + "': " + std::strerror(errno));
    }
    try {
        QuietDecoders quiet;
        img.mat = cv::imread(path, cv::IMREAD_ANYCOLOR);
    } catch (const cv::Exception&) {
        img.mat.release();
    }
    if (img.mat.empty())
        throw RunError("cannot read '" + path + "': not an image this build can decode" +
                       (hasImageExtension(path) ? std::string() : " (for a raw frame give --in-format and --in-size)"));
    if (!img.mat.isContinuous()) img.mat = img.mat.clone();
    img.frame = wrapMat(img.mat);
    return img;
}

cv::Mat matView(const kv::Frame& frame) {
    int type = -1;
    switch (frame.format()) {
        case kv::FRAME_BGR_8: type = CV_8UC3; break;
        case kv::FRAME_GRAY_8: type = CV_8UC1; break;
        case kv::FRAME_GRAY_16: type = CV_16UC1; break;
        default: throw RunError("cannot view " + formatName(frame.format()) + " as an image");
    }
    return cv::Mat(frame.size().height, frame.size().width, type, const_cast<uint8_t*>(frame.planeCpuData(0)),
                   size_t(frame.layout().plane[0].step));
}

std::vector<uint8_t> packFrame(const kv::Frame& frame) {
    const kv::FrameLayout& l = frame.layout();
    std::vector<uint8_t> out;
    for (uint32_t p = 0; p < l.planes; ++p) {
        const size_t row = size_t(l.plane[p].row_bytes);
        for (int y = 0; y < l.plane[p].size.height; ++y) {
            const uint8_t* r = frame.rowCpuData(p, y);
            out.insert(out.end(), r, r + row);
        }
    }
    return out;
}

void writeImage(const std::string& path, const kv::Frame& frame) {
    if (!hasImageExtension(path)) {
        const std::vector<uint8_t> bytes = packFrame(frame);
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        if (!out) throw RunError("cannot write '" + path + "': " + std::strerror(errno));
        out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
        out.close();
        if (!out) throw RunError("cannot write '" + path + "'");
        return;
    }
    kv::Frame shown = frame;
    const kv::FrameFormat f = frame.format();
    if (f != kv::FRAME_BGR_8 && f != kv::FRAME_GRAY_8 && f != kv::FRAME_GRAY_16) {
        // Encoders take BGR; everything else is shown as BGR.
        auto primary = anyBackend();
        kv::Frame bgr;
        try {
            convertFrame(*primary, true, frame, kv::FRAME_BGR_8, bgr);
        } catch (const RunError& e) {
            throw RunError(std::string(e.what()) + ", so '" + path + "' cannot show it (write a raw file instead)");
        }
        shown = bgr;
    }
    writeMat(path, matView(shown));
}

void writeMat(const std::string& path, const cv::Mat& mat) {
    bool ok = false;
    std::string why;
    try {
        QuietDecoders quiet;
        ok = cv::imwrite(path, mat);
    } catch (const cv::Exception& e) {
        why = e.err;
    }
    if (!ok) {
        std::ofstream probe(path, std::ios::binary | std::ios::app);
        if (!probe) why = std::strerror(errno);
        throw RunError("cannot write '" + path + "'" + (why.empty() ? std::string() : ": " + why));
    }
}

// ---- conversion and comparison -------------------------------------------------------

void convertFrame(kv::ICvBackend& primary, bool fallback, const kv::Frame& src, kv::FrameFormat format,
                  kv::Frame& dst) {
    if (src.format() == format) {
        src.copyTo(dst);
        return;
    }
    using Converter = std::function<void(const kv::Frame&, kv::Frame&)>;
    std::vector<Converter> converters;
    auto withBackend = [&](kv::ICvBackend& b) {
        converters.push_back([&b](const kv::Frame& from, kv::Frame& to) { b.colorCvt(from, to, kv::Rect()); });
    };
    withBackend(primary);
    std::unique_ptr<kv::ICvBackend> other;
    if (fallback) {
        for (const char* name : {"fast", "base"}) {
            auto b = makeBackend(name);
            if (typeid(*b) != typeid(primary)) other = std::move(b);
        }
        if (other) withBackend(*other);
        if (Converter pipeline = rowPipelineConverter()) converters.push_back(std::move(pipeline));
    }
    std::string first_error;  // the primary's, the most telling
    auto attempt = [&](const Converter& convert, const kv::Frame& from, kv::FrameFormat to_format, kv::Frame& to) {
        try {
            to.reuse(to_format, from.size(), kv::DeviceContext::cpuContext());
            convert(from, to);
            return true;
        } catch (const kv::Exception& e) {
            if (first_error.empty()) first_error = e.message();
            return false;
        }
    };
    for (const Converter& c : converters)
        if (attempt(c, src, format, dst)) return;
    if (src.format() != kv::FRAME_BGR_8 && format != kv::FRAME_BGR_8) {
        kv::Frame bgr;
        for (const Converter& c1 : converters) {
            if (!attempt(c1, src, kv::FRAME_BGR_8, bgr)) continue;
            for (const Converter& c2 : converters)
                if (attempt(c2, bgr, format, dst)) return;
            break;
        }
    }
    throw RunError("cannot convert " + formatName(src.format()) + " " + std::to_string(src.size().width) + "x" +
                   std::to_string(src.size().height) + " to " + formatName(format) + ": " + first_error);
}

kv::FrameFormat outFormat(const Args& args) {
    return args.has("out-format") ? parseFormat(args.get("out-format"), "--out-format") : kv::FRAME_UNDEFINED;
}

std::string backendOption(const Args& args) { return parseBackendName(args.get("backend", "fast")); }

void writeResult(const std::string& path, const kv::Frame& frame, kv::FrameFormat out_format,
                 const std::string& backend, bool backend_named) {
    kv::Frame result = frame;
    if (out_format != kv::FRAME_UNDEFINED && out_format != frame.format()) {
        auto primary = makeBackend(backend);
        kv::Frame converted;
        convertFrame(*primary, !backend_named, frame, out_format, converted);
        result = converted;
    }
    writeImage(path, result);
    std::string note;
    if (!hasImageExtension(path)) {
        uint64_t bytes = 0;
        const kv::FrameLayout& l = result.layout();
        for (uint32_t p = 0; p < l.planes; ++p) bytes += l.plane[p].row_bytes * uint64_t(l.plane[p].size.height);
        note = ", raw, " + std::to_string(bytes) + " bytes";
    } else if (result.format() != kv::FRAME_BGR_8 && result.format() != kv::FRAME_GRAY_8 &&
               result.format() != kv::FRAME_GRAY_16) {
        note = ", shown as BGR";
    }
    std::printf("wrote %s: %dx%d %s%s\n", path.c_str(), result.size().width, result.size().height,
                formatName(result.format()).c_str(), note.c_str());
}

double maxDifference(const kv::Frame& a, const kv::Frame& b) {
    if (!a.initialized() || !b.initialized() || a.format() != b.format() || a.size() != b.size()) return -1;
    const kv::FrameLayout& l = a.layout();
    double worst = 0;
    for (uint32_t p = 0; p < l.planes; ++p) {
        const int bits = l.plane[p].bits_per_channel;
        const size_t row = size_t(l.plane[p].row_bytes);
        for (int y = 0; y < l.plane[p].size.height; ++y) {
            const uint8_t* ra = a.rowCpuData(p, y);
            const uint8_t* rb = b.rowCpuData(p, y);
            if (bits == 32) {
                for (size_t i = 0; i + 4 <= row; i += 4) {
                    float fa, fb;
                    std::memcpy(&fa, ra + i, 4);
                    std::memcpy(&fb, rb + i, 4);
                    worst = std::max(worst, double(std::fabs(fa - fb)));
                }
            } else if (bits == 16) {
                for (size_t i = 0; i + 2 <= row; i += 2) {
                    uint16_t va, vb;
                    std::memcpy(&va, ra + i, 2);
                    std::memcpy(&vb, rb + i, 2);
                    worst = std::max(worst, double(std::abs(int(va) - int(vb))));
                }
            } else {
                for (size_t i = 0; i < row; ++i) worst = std::max(worst, double(std::abs(int(ra[i]) - int(rb[i]))));
            }
        }
    }
    return worst;
}

// ---- output -----------------------------------------------------------------------

void writeNpy(const std::string& path, const void* data, const std::vector<size_t>& shape, bool float32) {
    std::string dims;
    size_t count = 1;
    for (size_t i = 0; i < shape.size(); ++i) {
        dims += (i ? ", " : "") + std::to_string(shape[i]);
        count *= shape[i];
    }
    if (shape.size() == 1) dims += ",";
    std::string header = std::string("{'descr': '") + (float32 ? "<f4" : "|u1") +
                         "', 'fortran_order': False, 'shape': (" + dims + "), }";
    // Magic (6) + version (2) + length (2) + header + '\n' is padded to 64 bytes.
    const size_t total = 10 + header.size() + 1;
    header.append((64 - total % 64) % 64, ' ');
    header += '\n';
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw RunError("cannot write '" + path + "': " + std::strerror(errno));
    const char magic[8] = {'\x93', 'N', 'U', 'M', 'P', 'Y', 1, 0};
    out.write(magic, 8);
    const uint16_t len = uint16_t(header.size());
    const char len_le[2] = {char(len & 0xff), char(len >> 8)};
    out.write(len_le, 2);
    out.write(header.data(), std::streamsize(header.size()));
    out.write(static_cast<const char*>(data), std::streamsize(count * (float32 ? 4 : 1)));
    out.close();
    if (!out) throw RunError("cannot write '" + path + "'");
}

std::string Table::str() const {
    std::vector<size_t> width(_header.size(), 0);
    auto measure = [&](const std::vector<std::string>& r) {
        for (size_t i = 0; i < r.size() && i < width.size(); ++i) width[i] = std::max(width[i], r[i].size());
    };
    measure(_header);
    for (const auto& r : _rows) measure(r);
    auto line = [&](const std::vector<std::string>& r) {
        std::string s;
        for (size_t i = 0; i < width.size(); ++i) {
            const std::string cell = i < r.size() ? r[i] : std::string();
            s += cell;
            if (i + 1 < width.size()) s += std::string(width[i] - cell.size() + 2, ' ');
        }
        while (!s.empty() && s.back() == ' ') s.pop_back();
        return s + "\n";
    };
    std::string out = line(_header);
    std::vector<std::string> rule;
    for (size_t w : width) rule.push_back(std::string(w, '-'));
    out += line(rule);
    for (const auto& r : _rows) out += line(r);
    return out;
}

std::string fixed(double value, int decimals) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, value);
    return buf;
}

std::string formatDuration(double seconds) {
    if (seconds < 1e-6) return fixed(seconds * 1e9, 0) + " ns";
    if (seconds < 1e-3) return fixed(seconds * 1e6, 1) + " us";
    if (seconds < 1.0) return fixed(seconds * 1e3, 2) + " ms";
    return fixed(seconds, 2) + " s";
}

double timePerCall(const std::function<void()>& fn, double min_seconds, int min_calls) {
    using clock = std::chrono::steady_clock;
    fn();  // warm-up: first-call allocations and tables
    int calls = 0;
    const auto start = clock::now();
    double elapsed = 0;
    do {
        fn();
        ++calls;
        elapsed = std::chrono::duration<double>(clock::now() - start).count();
    } while (elapsed < min_seconds || calls < min_calls);
    return elapsed / calls;
}

std::string shortError(const std::exception& e) {
    if (const auto* k = dynamic_cast<const kv::Exception*>(&e)) return k->message();
    if (const auto* c = dynamic_cast<const cv::Exception*>(&e)) return c->err;
    return e.what();
}

}  // namespace kvcv
