// Shared pieces of the kv_cv Python module: the Frame object Python sees,
// format names, arguments checked with one-sentence errors, numpy arrays and
// Frames turned into kv::Frame views (never copies), results handed back as
// arrays or Frames, and the calling thread's backends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "kv_core/kv_frame.h"
#include "kv_core/kv_types.h"
#include "kv_cv/kv_cv_backend.h"

namespace kvpy {

namespace py = pybind11;

// Largest width or height accepted anywhere, as in the kvcv tool.
constexpr int32_t kMaxSide = 32767;

// kv_cv.Frame: a kv::Frame and whatever keeps its memory alive. Immutable
// from Python, so a call that has released the GIL can rely on it.
struct PyFrame {
    kv::Frame frame;
    py::object owner = py::none();  // the viewed array(s); None when the frame owns its memory
    bool writable = true;
};

// ---- names and plain arguments ----------------------------------------------------

// "nv12", "NV12", "FRAME_NV12", "bgr", "yuv444p", ... (as the kvcv tool).
kv::FrameFormat parseFormat(py::handle name, const char* what);
// The short name of a format: "nv12", "bgr", "f32c3".
const char* formatName(kv::FrameFormat format);
// The position of `value` (a str, case-insensitive) in `names`, or a
// TypeError / ValueError naming `what` and the choices.
int choice(py::handle value, const char* what, std::initializer_list<const char*> names);
int choice(py::handle value, const char* what, const char* const* names, size_t count);
// (width, height), each 1..kMaxSide.
kv::Size sizeArg(py::handle value, const char* what);
// (x, y, width, height) with a positive width and height.
kv::Rect rectArg(py::handle value, const char* what);
// Exactly `n` integers from a sequence (numpy integers too); false when it is not one.
bool integersArg(py::handle value, int64_t* out, Py_ssize_t n);
// A finite Python number.
double numberArg(py::handle value, const char* what);
// "an int", "a numpy.ndarray", ... for messages.
std::string describe(py::handle value);

// ---- images ---------------------------------------------------------------------------

// An image argument viewed as a kv::Frame without a copy: a kv_cv.Frame, or a
// numpy array (HxW uint8 gray, HxWx3 uint8 BGR, HxWx3 float32 FRAME_FLOAT_32_C3,
// HxW float32 FRAME_FLOAT_32). The caller keeps `value` referenced while the
// frame is used.
kv::Frame imageArg(py::handle value, const char* what);

// What a call hands back, and the kv::Frame through which it is written.
struct Result {
    py::object object;
    kv::Frame frame;
};
// A new result: a numpy array for one-plane formats, else a Frame owning its
// memory; or `out` (not None) checked to be a writable array or Frame of this
// format and size.
Result resultFor(py::handle out, kv::FrameFormat format, kv::Size size, const char* what = "out");
// A frame the library allocated, handed to Python without a copy: one-plane
// formats as an array viewing its memory (rows keep the library's pitch),
// others as a Frame.
py::object exportFrame(const kv::Frame& frame);

constexpr int kNpyHalf = 23;  // NPY_HALF, absent from pybind11's list of type numbers

// A numpy array of type `type_num` (an NPY_* number) and `nd` dimensions:
// new memory, or (with `data`) a view with these byte strides that sets no base.
py::array newArray(int type_num, int nd, const ssize_t* shape, const ssize_t* strides = nullptr, void* data = nullptr,
                   bool writable = true);
inline py::array newArray(int type_num, const std::vector<ssize_t>& shape) {
    return newArray(type_num, int(shape.size()), shape.data());
}

// Numpy view of plane `p` of `frame`, kept alive by `base`.
py::array planeView(const kv::Frame& frame, uint32_t p, py::handle base, bool writable);

// ---- resize methods ---------------------------------------------------------------------

// One row per method name. `run` resizes `src` into `dst` (same format, the
// destination's size) on `backend`; `scaler` is the row pipeline's
// kv::ScaleMethod for it, or -1 when the row pipeline's Scaler lacks it.
struct ResizeMethod {
    const char* name;
    void (*run)(kv::ICvBackend& backend, int param, const kv::Frame& src, kv::Frame& dst);
    int param;
    int scaler;
};
const ResizeMethod& resizeMethodArg(py::handle name);

// ---- backends -------------------------------------------------------------------------

// "fast" (CvBackendSimd) or "base" (CvBackendBase): the calling thread's own
// object, so Python threads never share one.
kv::ICvBackend& backendArg(py::handle name);
kv::ICvBackend& fastBackend();

// ---- registration -----------------------------------------------------------------------

void registerErrors(py::module_& m);
void registerFrame(py::module_& m);
void registerImageOps(py::module_& m);
void registerTensorOps(py::module_& m);
void registerPipeline(py::module_& m);

}  // namespace kvpy
