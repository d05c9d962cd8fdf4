// Whole-image calls: convert, resize, rotate, warp_affine. Each checks its
// arguments with the GIL held, allocates its result (or takes out=), then
// releases the GIL for the pixel work on the calling thread's backend.
#include <cmath>
#include <string>

#include "kvpy.h"

#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_cv_helpers.h"
#include "kv_cv/kv_scaler_types.h"

namespace kvpy {

namespace {

void resizeOnBackend(kv::ICvBackend& backend, int method, const kv::Frame& src, kv::Frame& dst) {
    backend.setIntProperty(kv::ICvBackend::kPropertyResizeMethod, method);
    backend.resize(src, dst, kv::Rect(), kv::Rect());
}

const ResizeMethod kResizeMethods[] = {
    {"nearest", resizeOnBackend, kv::ResizeNearestNeighbour, kv::KV_SCALE_NEAREST},
    {"bilinear", resizeOnBackend, kv::ResizeBilinear, kv::KV_SCALE_BILINEAR},
    {"area", resizeOnBackend, kv::ResizeArea, kv::KV_SCALE_AREA},
};

const char* const* methodNames() {
    static const char* names[std::size(kResizeMethods)];
    for (size_t i = 0; i < std::size(kResizeMethods); ++i) names[i] = kResizeMethods[i].name;
    return names;
}

// Affine warps apply one matrix to every plane in its own pixel units, so
// only formats whose planes all have the frame's size (and 8-bit or float
// samples) come out right.
void checkWarpable(const kv::Frame& frame, const char* what) {
    const kv::FrameLayout& l = frame.layout();
    bool ok = frame.format() != kv::FRAME_YUYV && frame.format() != kv::FRAME_UYVY;
    for (uint32_t p = 0; p < l.planes; ++p)
        ok = ok && l.plane[p].size == l.size && (l.plane[p].bits_per_channel == 8 || l.plane[p].bits_per_channel == 32);
    if (!ok)
        throw py::value_error(std::string(what) +
                              " needs a format without chroma subsampling (gray, bgr, rgb, "
                              "planar, yuv444, float), got " +
                              formatName(frame.format()) + "; convert it first, e.g. kv_cv.convert(frame, 'bgr')");
}

py::object convert(py::handle src, py::handle to, py::handle backend) {
    const kv::Frame s = imageArg(src, "src");
    const kv::FrameFormat format = parseFormat(to, "to");
    kv::ICvBackend& b = backendArg(backend);
    Result r = resultFor(py::none(), format, s.size());
    {
        py::gil_scoped_release nogil;
        b.colorCvt(s, r.frame, kv::Rect());
    }
    return r.object;
}

py::object resize(py::handle src, py::handle size, py::handle method, py::handle backend, py::handle out) {
    const kv::Frame s = imageArg(src, "src");
    const ResizeMethod& m = resizeMethodArg(method);
    kv::ICvBackend& b = backendArg(backend);
    kv::Size dsize;
    if (!size.is_none())
        dsize = sizeArg(size, "size");
    else if (!out.is_none())
        dsize = imageArg(out, "out").size();
    else
        throw py::type_error("resize needs size=(width, height) or out=");
    Result r = resultFor(out, s.format(), dsize);
    {
        py::gil_scoped_release nogil;
        m.run(b, m.param, s, r.frame);
    }
    return r.object;
}

py::object rotate(py::handle src, py::handle by, py::handle angle, py::handle rect) {
    const kv::Frame s = imageArg(src, "src");
    kv::Frame dst;
    if (angle.is_none()) {
        if (!rect.is_none()) throw py::type_error("rect= goes with angle=; quarter turns (by=) turn the whole image");
        long long degrees = 90;
        if (!by.is_none()) {
            PyObject* index = PyNumber_Index(by.ptr());
            int overflow = 0;
            degrees = index ? PyLong_AsLongLongAndOverflow(index, &overflow) : 0;
            Py_XDECREF(index);
            if (!index) {
                PyErr_Clear();
                throw py::type_error("by must be a whole number of degrees (90, 180, 270), got " + describe(by));
            }
            if (overflow || degrees % 90)
                throw py::value_error("by must be a multiple of 90 degrees, got " + std::string(py::str(by)) +
                                      "; other angles go through angle=");
        }
        // Counter-clockwise quarter turns as clockwise FixedRotation values.
        static const kv::FixedRotation kTurns[4] = {kv::Rotate0, kv::Rotate270, kv::Rotate180, kv::Rotate90};
        const kv::FixedRotation rotation = kTurns[((degrees / 90) % 4 + 4) % 4];
        py::gil_scoped_release nogil;
        kv::rotateFrame(s, rotation, dst);
    } else {
        if (!by.is_none()) throw py::type_error("give by= (quarter turns) or angle=, not both");
        const float degrees = float(numberArg(angle, "angle"));
        const kv::Rect r = rect.is_none() ? kv::Rect(0, 0, s.size().width, s.size().height) : rectArg(rect, "rect");
        checkWarpable(s, "rotate(angle=...)");
        kv::Rect placed;
        py::gil_scoped_release nogil;
        kv::rotateFrame(s, r, degrees, dst, placed);
    }
    return exportFrame(dst);
}

py::object warpAffine(py::handle src, py::handle matrix, py::handle size, py::handle interpolation,
                      py::handle inverse) {
    const kv::Frame s = imageArg(src, "src");
    float m[2][3];
    bool ok = PySequence_Check(matrix.ptr()) && !PyUnicode_Check(matrix.ptr()) && PySequence_Size(matrix.ptr()) == 2;
    for (Py_ssize_t r = 0; ok && r < 2; ++r) {
        const py::object row = py::reinterpret_steal<py::object>(PySequence_GetItem(matrix.ptr(), r));
        ok = row && PySequence_Check(row.ptr()) && PySequence_Size(row.ptr()) == 3;
        for (Py_ssize_t c = 0; ok && c < 3; ++c)
            m[r][c] = float(numberArg(py::reinterpret_steal<py::object>(PySequence_GetItem(row.ptr(), c)), "matrix"));
    }
    if (!ok) {
        PyErr_Clear();
        throw py::type_error("matrix must be 2x3 (two rows of three numbers), got " + describe(matrix));
    }
    const kv::Size dsize = sizeArg(size, "size");
    const int method = choice(interpolation, "interpolation", {"nearest", "bilinear"}) == 0 ? kv::ResizeNearestNeighbour
                                                                                            : kv::ResizeBilinear;
    const int invert = PyObject_IsTrue(inverse.ptr());
    if (invert < 0) throw py::error_already_set();
    checkWarpable(s, "warp_affine");
    Result r = resultFor(py::none(), s.format(), dsize);
    {
        py::gil_scoped_release nogil;
        kv::ICvBackend& b = fastBackend();
        b.setIntProperty(kv::CvBackendSimd::kPropertyWarpInterpolation, method);
        b.warpAffine(s, r.frame, m, kv::Rect(), invert != 0);
    }
    return r.object;
}

}  // namespace

const ResizeMethod& resizeMethodArg(py::handle name) {
    static const char* const* names = methodNames();
    return kResizeMethods[choice(name, "method", names, std::size(kResizeMethods))];
}

void registerImageOps(py::module_& m) {
    m.def("convert", &convert, R"doc(convert(src, to, backend='fast')
--

Converts an image to another pixel format of the same size.

src: a numpy array (HxW uint8 gray, HxWx3 uint8 BGR, HxWx3 float32) or a kv_cv.Frame of any
  format (an RGB array is kv_cv.Frame(a, format='rgb')).
to: the format name, such as 'gray', 'rgb', 'bgr', 'i420', 'nv12', 'yuv444p', 'f32c3'.
backend: 'fast' (CvBackendSimd: libyuv, OpenCV and the library's own vector kernels) or
  'base' (CvBackendBase: the library's row pipeline, which also takes odd sizes and pairs
  the fast backend lacks, such as YV12 or YUYV sources).

Returns a new numpy array for one-plane formats (HxW for gray, HxWx3 for rgb and bgr, HxWx3
float32 for 'f32c3'), a new kv_cv.Frame for multi-plane formats.

YUV is BT.601 limited range; 4:2:0 chroma averages each 2x2 block. Gray is the BT.601
luma. The fast backend rounds (within 1 level of cv2.cvtColor); the row pipeline's
fixed-point kernels truncate (up to 2 levels below). Float to byte clamps to 0..255 and
rounds half to even.

Raises kv_cv.Error (status 8) for a pair the backend cannot convert and (status 2) for a
subsampled source of odd size on the fast backend; TypeError or ValueError for bad
arguments. Releases the GIL while converting.)doc",
          py::arg("src"), py::arg("to"), py::arg("backend") = "fast");

    m.def("resize", &resize, R"doc(resize(src, size, method='bilinear', backend='fast', out=None)
--

Resizes an image to size=(width, height), keeping its format.

src: a numpy array (HxW uint8 gray, HxWx3 uint8 BGR, HxWx3 float32) or a kv_cv.Frame of any
  format the backend resizes (multi-plane YUV formats resize plane by plane).
size: (width, height), as for cv2.resize; may be None when out= gives it.
method: 'nearest', 'bilinear' or 'area'. Sampling is centre-aligned (pixel centres at
  x + 0.5), like cv2: 'bilinear' is within 2 levels of cv2.INTER_LINEAR (16.16 fixed point,
  truncating); 'area' averages the source pixels each destination pixel covers and equals
  cv2.INTER_AREA for integer factors.
backend: 'fast' (CvBackendSimd) or 'base' (CvBackendBase, the library's row pipeline;
  its 'area' only reduces).
out: None, or an array or Frame of src's format and the wanted size to write into; then
  nothing is allocated and out is returned.

Returns a new numpy array (one-plane formats) or kv_cv.Frame (multi-plane formats).

Raises kv_cv.Error when the backend refuses the format or method; TypeError or ValueError
for bad arguments or an out= of the wrong dtype, shape or format. Releases the GIL while
resizing.)doc",
          py::arg("src"), py::arg("size") = py::none(), py::arg("method") = "bilinear", py::arg("backend") = "fast",
          py::arg("out") = py::none());

    m.def("rotate", &rotate, R"doc(rotate(src, by=90, *, angle=None, rect=None)
--

Rotates an image counter-clockwise, as the kvcv tool does.

by: quarter turns in degrees, a multiple of 90 (90, 180, 270, -90, ...). Exact: the result
  equals np.rot90(src, by // 90). Any 8-bit format whose chroma planes turn with it
  (not yuyv, uyvy, and yv16/nv16 only by 180).
angle: any angle in degrees instead of by=. The rectangle rect=(x, y, width, height)
  (default the whole image) turns about its centre, bilinearly; the result is just large
  enough to hold the whole turned rectangle, centred, and parts outside the source are
  black. Formats without chroma subsampling only (gray, bgr, rgb, planar, yuv444, float).

Returns a new numpy array (its rows may be padded to 64 bytes, as the library allocates
them) or, for multi-plane formats, a kv_cv.Frame.

Raises kv_cv.Error for formats the library cannot turn; TypeError or ValueError for bad
arguments. Releases the GIL while rotating.)doc",
          py::arg("src"), py::arg("by") = py::none(), py::kw_only(), py::arg("angle") = py::none(),
          py::arg("rect") = py::none());

    m.def("warp_affine", &warpAffine,
          R"doc(warp_affine(src, matrix, size, interpolation='bilinear', inverse=False)
--

Applies a 2x3 affine transform, as cv2.warpAffine with a constant black border.

src: a numpy array or kv_cv.Frame without chroma subsampling (gray, bgr, rgb, planar,
  yuv444, float).
matrix: 2x3 numbers (nested sequences or an array), mapping source to destination
  coordinates: (x', y') = (m00 x + m01 y + m02, m10 x + m11 y + m12).
size: (width, height) of the result.
interpolation: 'nearest' or 'bilinear'.
inverse: True when matrix maps destination to source coordinates instead (as
  cv2.WARP_INVERSE_MAP).

Returns a new numpy array (or kv_cv.Frame for multi-plane formats).

Raises kv_cv.Error (status 8) for a matrix that cannot be inverted; TypeError or ValueError
for bad arguments. Releases the GIL while warping.)doc",
          py::arg("src"), py::arg("matrix"), py::arg("size"), py::arg("interpolation") = "bilinear",
          py::arg("inverse") = false);
}

}  // namespace kvpy
