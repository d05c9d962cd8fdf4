// kvcv: one command-line tool over the kv_cv library. This file picks the
// subcommand and turns every failure into one line on stderr and an exit
// status (2 bad arguments, 1 unreadable files or refused work).
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include <opencv2/core/utils/logger.hpp>

#include "kv_core/kv_exception.h"
#include "kv_cv/kv_threads.h"
#include "kvcv_common.h"
#include "kvcv_input.h"

namespace {

const char kUsage[] =
    "usage: kvcv COMMAND [ARGS] (kvcv COMMAND --help for details)\n"
    "\n"
    "commands:\n"
    "  demo     render a built-in test chart, run it through every operation, write PNGs and a table\n"
    "  convert  convert an image or raw frame to another pixel format\n"
    "  resize   resize an image or raw frame\n"
    "  rotate   rotate by 90/180/270 degrees or by any angle\n"
    "  tensor   crop and resize regions into a NumPy .npy tensor\n"
    "  batch    resize every image of a folder with worker threads\n"
    "  bench    time the main operations of both backends beside OpenCV\n"
    "\n"
    "Images go in and out by extension (png, jpg, bmp, tif); other extensions are raw frames\n"
    "(--in-format/--in-size to read, --out-format to choose what is written).\n"
    "Every command takes --threads N: threads per operation (default 1; 0: one per core).\n";

struct Command {
    const char* name;
    int (*run)(int, char**);
};

const Command kCommands[] = {
    {"demo", kvcv::runDemo},       {"convert", kvcv::runConvert}, {"resize", kvcv::runResize},
    {"rotate", kvcv::runRotate},   {"tensor", kvcv::runTensor},   {"batch", kvcv::runBatch},
    {"bench", kvcv::runBench},
};

// Takes --threads N (or --threads=N) out of the arguments, sets the library's
// thread count, and returns the count of arguments left.
int takeThreadsOption(int argc, char** argv) {
    int out = 0;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        std::string value;
        if (a == "--threads") {
            if (i + 1 >= argc) throw kvcv::UsageError("--threads needs a number of threads");
            value = argv[++i];
        } else if (a.rfind("--threads=", 0) == 0) {
            value = a.substr(10);
        } else {
            argv[out++] = argv[i];
            continue;
        }
        kv::setNumThreads(kvcv::parseInt(value, "--threads", 0, 1024));
    }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    kvcv::initMessages();
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
    if (argc < 2) {
        std::fputs("usage: kvcv demo|convert|resize|rotate|tensor|batch|bench [ARGS] (see kvcv --help)\n",
                   kvcv::errOut());
        return kvcv::kExitUsage;
    }
    const std::string name = argv[1];
    if (name == "-h" || name == "--help" || name == "help") {
        std::fputs(kUsage, stdout);
        return kvcv::kExitOk;
    }
    const Command* cmd = nullptr;
    for (const Command& c : kCommands)
        if (name == c.name) cmd = &c;
    if (!cmd) {
        std::fprintf(kvcv::errOut(), "kvcv: unknown command '%s' (see kvcv --help)\n", name.c_str());
        return kvcv::kExitUsage;
    }
    const std::string prefix = "kvcv " + name + ": ";
    try {
        const int args = takeThreadsOption(argc - 2, argv + 2);
        return cmd->run(args, argv + 2);
    } catch (const kvcv::UsageError& e) {
        std::fprintf(kvcv::errOut(), "%s%s (see kvcv %s --help)\n", prefix.c_str(), e.what(), name.c_str());
        return kvcv::kExitUsage;
    } catch (const kvcv::RunError& e) {
        std::fprintf(kvcv::errOut(), "%s%s\n", prefix.c_str(), e.what());
    } catch (const kv::Exception& e) {
        std::fprintf(kvcv::errOut(), "%s%s (%s, status %d)\n", prefix.c_str(), e.message().c_str(), e.function().c_str(),
                     int(e.status()));
    } catch (const cv::Exception& e) {
        std::fprintf(kvcv::errOut(), "%sOpenCV: %s\n", prefix.c_str(), e.err.c_str());
    } catch (const std::bad_alloc&) {
        std::fprintf(kvcv::errOut(), "%sout of memory\n", prefix.c_str());
    } catch (const std::exception& e) {
        std::fprintf(kvcv::errOut(), "%s%s\n", prefix.c_str(), e.what());
    }
    return kvcv::kExitFailure;
}
