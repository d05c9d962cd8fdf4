// Shared pieces of the kvcv command-line tool: output files, frame conversion
// through the backends, .npy writing, timing and table printing. Argument
// parsing, the two error kinds and their exit statuses and the input files
// are in kvcv_input.h.
//
// Exit statuses: 0 success, 1 a file could not be read or written or the
// library refused the work, 2 bad arguments. Every failure is one line on
// stderr; nothing else is printed on the error path.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "kv_core/kv_frame.h"
#include "kv_core/kv_tensor.h"
#include "kv_cv/kv_cv_backend.h"
#include "kvcv_input.h"

namespace kvcv {

// ---- backends ---------------------------------------------------------------

// "base" is the library's generic backend on its row pipeline, "fast" the SIMD one.
std::unique_ptr<kv::ICvBackend> makeBackend(const std::string& name);
// The fast backend.
std::unique_ptr<kv::ICvBackend> anyBackend();

// ---- frames and files ---------------------------------------------------------

// Image extensions are encoded with imgcodecs (the frame is converted to BGR
// first when it is in another format); anything else is written raw. Every
// output file (these, writeMat and writeNpy) is written to a temporary sibling
// renamed into place on success: a failed command leaves no output behind.
void writeImage(const std::string& path, const kv::Frame& frame);
// Bytes of the frame's planes, rows unpadded, one plane after another.
std::vector<uint8_t> packFrame(const kv::Frame& frame);

// Encodes `mat` by the file's extension; a RunError when that fails.
void writeMat(const std::string& path, const cv::Mat& mat);

// A view of an 8-bit BGR or gray frame (or 16-bit gray) as a cv::Mat; no copy.
cv::Mat matView(const kv::Frame& frame);

// Converts `src` into `format` through `primary`; with `fallback`, a
// conversion it lacks is done by the other backend or by the row pipeline's
// format converter; failing that, in two steps through FRAME_BGR_8. A
// RunError naming both formats when no route works.
void convertFrame(kv::ICvBackend& primary, bool fallback, const kv::Frame& src, kv::FrameFormat format,
                  kv::Frame& dst);
// The row pipeline's FormatConverter drained into a frame, or an empty
// function when it is not part of this build.
std::function<void(const kv::Frame&, kv::Frame&)> rowPipelineConverter();

// What a subcommand writes: `frame` converted to `out_format` when that is set
// (through `backend`, falling back to the other backend when the first lacks
// the conversion and no backend was named), then written by extension.
// Prints one summary line on stdout.
void writeResult(const std::string& path, const kv::Frame& frame, kv::FrameFormat out_format,
                 const std::string& backend, bool backend_named);
// Output options: --out-format and --backend.
kv::FrameFormat outFormat(const Args& args);
std::string backendOption(const Args& args);

// Resizes `src` into `dst` (reused with src's format at `size`) with `method`
// (0 nearest, 1 bilinear, 2 area) through the backend's resize.
void resizeWith(kv::ICvBackend& backend, int method, const kv::Frame& src, kv::Size size, kv::Frame& dst);

// Largest absolute difference of two frames of the same format and size,
// byte by byte (float formats: value by value). -1 when they do not match.
double maxDifference(const kv::Frame& a, const kv::Frame& b);

// ---- output -------------------------------------------------------------------

// Writes a NumPy .npy file (format 1.0): dtype "|u1" or "<f4", C order.
void writeNpy(const std::string& path, const void* data, const std::vector<size_t>& shape, bool float32);

// A plain text table with left-aligned columns.
class Table {
public:
    explicit Table(std::vector<std::string> header) : _header(std::move(header)) {}
    void add(std::vector<std::string> row) { _rows.push_back(std::move(row)); }
    std::string str() const;

private:
    std::vector<std::string> _header;
    std::vector<std::vector<std::string>> _rows;
};

// "12.3 us", "4.56 ms", "1.20 s".
std::string formatDuration(double seconds);
std::string fixed(double value, int decimals);

// Mean seconds per call of `fn`: one warm-up call, then repeats until
// `min_seconds` have passed (at least `min_calls` calls).
double timePerCall(const std::function<void()>& fn, double min_seconds, int min_calls = 3);

std::string shortError(const std::exception& e);

// ---- subcommands ----------------------------------------------------------------

int runDemo(int argc, char** argv);
int runConvert(int argc, char** argv);
int runResize(int argc, char** argv);
int runRotate(int argc, char** argv);
int runTensor(int argc, char** argv);
int runBatch(int argc, char** argv);
int runBench(int argc, char** argv);

// The built-in test chart: colour bars, gradients, fine lines, a zone plate
// and text, at any size (the demo uses odd dimensions).
cv::Mat makeTestChart(int width, int height);

// Draws one group of bars per row of `values` (one bar per series), each group
// scaled to its own largest value, with the value written beside each bar.
cv::Mat drawBarChart(const std::string& title, const std::vector<std::string>& groups,
                     const std::vector<std::string>& series, const std::vector<std::vector<double>>& values,
                     const std::string& unit);

}  // namespace kvcv
