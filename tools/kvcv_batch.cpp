// kvcv batch: resize every image of a folder into another folder with worker
// threads, one backend per worker (backends are single-threaded objects).
// A file that cannot be read or written is reported and skipped; the exit
// status is 1 when any file failed. Progress goes to stderr: a line rewritten
// in place on a terminal, a final summary line always.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <thread>

#include "kvcv_common.h"

namespace fs = std::filesystem;

namespace kvcv {

namespace {

const char kHelp[] =
    "usage: kvcv batch IN_DIR OUT_DIR --size WxH [--method nearest|bilinear|area] [--jobs N]\n"
    "                  [--backend base|fast] [--max-pixels N]\n"
    "\n"
    "Resizes every image of IN_DIR (png, jpg, bmp, tif, ... by extension; subfolders are not\n"
    "entered) to WxH and writes it under the same name into OUT_DIR (created when missing).\n"
    "Files that cannot be read are reported and skipped; the exit status is 1 if any failed.\n"
    "\n"
    "  --size WxH     output size\n"
    "  --method M     nearest, bilinear (default) or area\n"
    "  --jobs N       worker threads (default: the number of processors)\n"
    "  --backend B    base or fast (default fast), one per worker\n"
    "  --max-pixels N refuse images of more pixels (default 134217728)\n"
    "\n"
    "example: kvcv batch photos/ thumbs/ --size 160x120 --method area --jobs 4\n";

std::string clock(double seconds) {
    const long s = long(seconds + 0.5);
    char buf[32];
    if (s >= 3600)
        std::snprintf(buf, sizeof buf, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else
        std::snprintf(buf, sizeof buf, "%ld:%02ld", s / 60, s % 60);
    return buf;
}

class Progress {
public:
    Progress(size_t total) : _total(total), _tty(isatty(STDERR_FILENO) != 0) {}

    double elapsed() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count();
    }
    std::string line(size_t done) const {
        const double t = elapsed();
        const double rate = t > 0 ? double(done) / t : 0;
        std::string s = std::to_string(done) + "/" + std::to_string(_total) + " files, " + fixed(rate, 1) +
                        " files/s, ";
        if (done < _total)
            s += rate > 0 ? clock(double(_total - done) / rate) + " left" : std::string("--:-- left");
        else
            s += clock(t) + " total";
        return s;
    }
    // Rewrites the progress line (terminal only); callers hold the output lock.
    void show(size_t done) {
        if (!_tty) return;
        const std::string s = "\r" + line(done) + "   ";
        std::fputs(s.c_str(), errOut());
        _shown = true;
    }
    // Prints a message on its own line, above the progress line.
    void message(const std::string& text) {
        if (_shown) std::fputs("\r\033[K", errOut());
        std::fprintf(errOut(), "%s\n", text.c_str());
        _shown = false;
    }
    void finish(size_t done) {
        if (_shown) std::fputs("\r\033[K", errOut());
        std::fprintf(errOut(), "%s\n", line(done).c_str());
    }

private:
    size_t _total;
    bool _tty;
    bool _shown = false;
    std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
};

}  // namespace

int runBatch(int argc, char** argv) {
    const Args args(argc, argv, {"size", "method", "jobs", "backend", "max-pixels"}, {});
    if (args.help()) {
        std::fputs(kHelp, stdout);
        return kExitOk;
    }
    args.expectPositional(2, 2, "IN_DIR OUT_DIR");
    if (!args.has("size")) throw UsageError("--size WxH is required");
    const kv::Size size = parseSize(args.get("size"), "--size");
    const int method = parseMethod(args.get("method", "bilinear"));
    const std::string backend_name = backendOption(args);
    const int hw = int(std::max(1u, std::thread::hardware_concurrency()));
    const int jobs = args.has("jobs") ? parseInt(args.get("jobs"), "--jobs", 1, 256) : hw;
    const fs::path in_dir = args.positional()[0], out_dir = args.positional()[1];
    const InputSpec wanted = inputSpec(args);

    std::error_code ec;
    if (!fs::is_directory(in_dir, ec)) throw RunError("cannot open folder '" + in_dir.string() + "'");
    std::vector<fs::path> files;
    for (fs::directory_iterator it(in_dir, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->is_regular_file(ec) && hasImageExtension(it->path().string())) files.push_back(it->path());
    }
    if (ec) throw RunError("cannot list folder '" + in_dir.string() + "': " + ec.message());
    std::sort(files.begin(), files.end());
    fs::create_directories(out_dir, ec);
    if (ec || !fs::is_directory(out_dir)) throw RunError("cannot create folder '" + out_dir.string() + "'");
    if (fs::equivalent(in_dir, out_dir, ec)) throw UsageError("OUT_DIR must differ from IN_DIR");
    if (files.empty()) {
        std::fprintf(errOut(), "no images in '%s'\n", in_dir.string().c_str());
        return kExitOk;
    }

    const size_t workers = std::min(files.size(), size_t(jobs));
    std::vector<std::unique_ptr<kv::ICvBackend>> backends;
    for (size_t i = 0; i < workers; ++i) backends.push_back(makeBackend(backend_name));
    // Parallelism is across files; keep OpenCV's codecs from starting their own threads.
    cv::setNumThreads(1);

    std::atomic<size_t> next{0}, done{0}, failed{0};
    std::mutex out_lock;
    Progress progress(files.size());
    auto work = [&](kv::ICvBackend& backend) {
        kv::Frame out;
        for (size_t i = next++; i < files.size(); i = next++) {
            const fs::path& file = files[i];
            std::string error;
            try {
                const Image in = readImage(file.string(), wanted);
                resizeWith(backend, method, in.frame, size, out);
                writeImage((out_dir / file.filename()).string(), out);
            } catch (const std::exception& e) {
                error = shortError(e);
                if (error.find(file.filename().string()) == std::string::npos) error = file.string() + ": " + error;
            }
            std::lock_guard<std::mutex> lock(out_lock);
            if (!error.empty()) {
                ++failed;
                progress.message("kvcv batch: " + error);
            }
            progress.show(++done);
        }
    };
    std::vector<std::thread> threads;
    for (size_t i = 1; i < workers; ++i) threads.emplace_back(work, std::ref(*backends[i]));
    work(*backends[0]);
    for (auto& t : threads) t.join();
    progress.finish(done);
    if (failed) {
        std::fprintf(errOut(), "kvcv batch: %zu of %zu files failed\n", size_t(failed), files.size());
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace kvcv
