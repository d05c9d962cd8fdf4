// Output files, frame conversion with fallback routes, .npy writing and text
// tables for the kvcv tool (its arguments and input files: kvcv_input.cpp).
#include "kvcv_common.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <typeinfo>

#include <opencv2/imgcodecs.hpp>

#include "kv_core/kv_exception.h"

namespace kvcv {

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

namespace {

std::atomic<unsigned> g_temporaries{0};

// Runs `write` on a temporary sibling of `path` (same folder, and the same
// extension, so that the encoder is the same), then renames it over `path`.
// On any failure the temporary is removed: a failed command leaves no output
// file behind, not even a partial one.
void writeThroughTemporary(const std::string& path, const std::function<void(const std::string&)>& write) {
    const size_t slash = path.find_last_of('/');
    const std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    const std::string temp =
        dir + ".kvcv-" + std::to_string(getpid()) + "-" + std::to_string(g_temporaries++) + "-" + base;
    try {
        write(temp);
    } catch (...) {
        std::remove(temp.c_str());
        throw;
    }
    if (std::rename(temp.c_str(), path.c_str()) != 0) {
        const std::string why = std::strerror(errno);
        std::remove(temp.c_str());
        throw RunError("cannot write '" + path + "': " + why);
    }
}

}  // namespace

void writeImage(const std::string& path, const kv::Frame& frame) {
    if (!hasImageExtension(path)) {
        const std::vector<uint8_t> bytes = packFrame(frame);
        writeThroughTemporary(path, [&](const std::string& file) {
            std::ofstream out(file, std::ios::binary | std::ios::trunc);
            if (!out) throw RunError("cannot write '" + path + "': " + std::strerror(errno));
            out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
            out.close();
            if (!out) throw RunError("cannot write '" + path + "'");
        });
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
    writeThroughTemporary(path, [&](const std::string& file) {
        bool ok = false;
        std::string why;
        try {
            QuietDecoders quiet;
            ok = cv::imwrite(file, mat);
        } catch (const cv::Exception& e) {
            why = e.err;
        }
        if (!ok) {
            if (access(file.c_str(), F_OK) != 0) {
                // Nothing was created: say why the folder refuses the file.
                std::ofstream probe(file, std::ios::binary | std::ios::app);
                if (!probe) why = std::strerror(errno);
            }
            throw RunError("cannot write '" + path + "'" + (why.empty() ? std::string() : ": " + why));
        }
    });
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
            const kv::ICvBackend& candidate = *b;
            if (typeid(candidate) != typeid(primary)) other = std::move(b);
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
    writeThroughTemporary(path, [&](const std::string& file) {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
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
    });
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
