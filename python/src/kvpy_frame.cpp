// kv_cv.Frame and the ways images cross between numpy and kv::Frame: format
// names, arrays viewed as frames (an image array, one block holding every
// plane, a flat buffer, or one array per plane), results allocated as arrays
// or Frames, plane views, and the per-thread backends.
//
// Every array handed to the library is checked first: machine byte order,
// element alignment, no negative strides, pixels of a row contiguous, rows
// that do not overlap, and every plane the frame describes lying inside the
// memory the array spans. So the library never reaches outside caller memory.
#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "kvpy.h"

#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"

namespace kvpy {

namespace {

using npy = py::detail::npy_api;

struct FormatName {
    kv::FrameFormat format;
    const char* name;
};

// Short names first: formatName() gives the first entry of a format.
const FormatName kNames[] = {
    {kv::FRAME_GRAY_8, "gray"},
    {kv::FRAME_RGB_8, "rgb"},
    {kv::FRAME_RGB_8_PLANAR, "rgbp"},
    {kv::FRAME_BGR_8, "bgr"},
    {kv::FRAME_BGR_8_PLANAR, "bgrp"},
    {kv::FRAME_I420, "i420"},
    {kv::FRAME_YV12, "yv12"},
    {kv::FRAME_NV12, "nv12"},
    {kv::FRAME_NV21, "nv21"},
    {kv::FRAME_YV16, "yv16"},
    {kv::FRAME_YUYV, "yuyv"},
    {kv::FRAME_UYVY, "uyvy"},
    {kv::FRAME_NV16, "nv16"},
    {kv::FRAME_YUV444, "yuv444"},
    {kv::FRAME_YUV444_PLANAR, "yuv444p"},
    {kv::FRAME_C2_8, "c2_8"},
    {kv::FRAME_C3_8, "c3_8"},
    {kv::FRAME_C4_8, "c4_8"},
    {kv::FRAME_GRAY_16, "gray16"},
    {kv::FRAME_GRAY_FLOAT_32, "grayf32"},
    {kv::FRAME_FLOAT_32, "f32"},
    {kv::FRAME_FLOAT_32_C3, "f32c3"},
    {kv::FRAME_FLOAT_32_C3_PLANAR, "f32c3p"},
    // Aliases, as the kvcv tool accepts them.
    {kv::FRAME_GRAY_8, "grey"},
    {kv::FRAME_GRAY_8, "y"},
    {kv::FRAME_I420, "yuv420p"},
    {kv::FRAME_I420, "iyuv"},
    {kv::FRAME_YUYV, "yuy2"},
};

std::string lowered(const char* s, size_t n) {
    std::string out(s, n);
    for (char& c : out) c = char(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// The UTF-8 text of a str argument (valid while `value` lives), or a TypeError.
const char* utf8Arg(py::handle value, const char* what, const char* example, Py_ssize_t& n) {
    const char* s = PyUnicode_Check(value.ptr()) ? PyUnicode_AsUTF8AndSize(value.ptr(), &n) : nullptr;
    if (!s) {
        PyErr_Clear();
        throw py::type_error(std::string(what) + " must be a string such as '" + example + "', got " + describe(value));
    }
    return s;
}

std::string textArg(py::handle value, const char* what, const char* example) {
    Py_ssize_t n = 0;
    const char* s = utf8Arg(value, what, example, n);
    return std::string(s, size_t(n));
}

// Case-insensitive equality of `n` bytes of text with a lower-case ASCII name.
bool sameName(const char* s, Py_ssize_t n, const char* name) {
    for (Py_ssize_t i = 0; i < n; ++i, ++name)
        if (!*name || std::tolower(static_cast<unsigned char>(s[i])) != *name) return false;
    return *name == 0;
}

}  // namespace

bool integersArg(py::handle value, int64_t* out, Py_ssize_t n) {
    PyObject* v = value.ptr();
    if (!PySequence_Check(v) || PyUnicode_Check(v) || PyBytes_Check(v) || PySequence_Size(v) != n) {
        PyErr_Clear();
        return false;
    }
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* item = PySequence_GetItem(v, i);
        PyObject* index = item ? PyNumber_Index(item) : nullptr;
        Py_XDECREF(item);
        if (!index) {
            PyErr_Clear();
            return false;
        }
        int overflow = 0;
        const long long x = PyLong_AsLongLongAndOverflow(index, &overflow);
        Py_DECREF(index);
        out[i] = overflow > 0 ? INT64_MAX : overflow < 0 ? INT64_MIN : int64_t(x);
    }
    return true;
}

namespace {

// The first byte of an array; the frame built on it is read-only where the array is.
void* memoryOf(const py::array& a) {
    return const_cast<void*>(a.data());
}

int sampleType(const kv::FramePlane& p) {
    return p.bits_per_channel == 32 ? npy::NPY_FLOAT_ : p.bits_per_channel == 16 ? npy::NPY_USHORT_ : npy::NPY_UBYTE_;
}

const char* typeName(int num) {
    switch (num) {
        case npy::NPY_UBYTE_:
            return "uint8";
        case npy::NPY_USHORT_:
            return "uint16";
        case npy::NPY_FLOAT_:
            return "float32";
        case kNpyHalf:
            return "float16";
        default:
            return "?";
    }
}

std::string shapeText(const std::vector<ssize_t>& shape) {
    std::string s = "(";
    for (size_t i = 0; i < shape.size(); ++i) s += (i ? ", " : "") + std::to_string(shape[i]);
    return s + (shape.size() == 1 ? ",)" : ")");
}

std::string shapeOf(const py::array& a) {
    return shapeText(std::vector<ssize_t>(a.shape(), a.shape() + a.ndim()));
}

// "an nv12 frame", "a bgr frame": the article follows the name's first letter as spoken.
std::string article(const char* name) {
    return std::strchr("aefhilmnorsx", name[0]) ? "an " : "a ";
}
std::string aFrame(kv::FrameFormat f) {
    return article(formatName(f)) + formatName(f) + " frame";
}
std::string aResult(kv::FrameFormat f) {
    return article(formatName(f)) + formatName(f) + " result";
}

std::string sizeText(kv::Size s) {
    return std::to_string(s.width) + "x" + std::to_string(s.height);
}

// The array shape of a plane: (rows, units) or (rows, units, channels).
struct PlaneShape {
    ssize_t dim[3];
    int nd;
    std::vector<ssize_t> vector() const { return std::vector<ssize_t>(dim, dim + nd); }
};

PlaneShape planeShape(const kv::FramePlane& p) {
    const ssize_t unit = ssize_t(p.channels) * (p.bits_per_channel / 8);
    const ssize_t units = ssize_t(p.row_bytes) / unit;
    return PlaneShape{{p.size.height, units, ssize_t(p.channels)}, p.channels == 1 ? 2 : 3};
}

// Checks every array whose memory a frame will use.
void checkMemory(const py::array& a, const char* what) {
    if (a.dtype().byteorder() == '>')
        throw py::value_error(std::string(what) + " must be in the machine's byte order, got " + describe(a));
    for (ssize_t i = 0; i < a.ndim(); ++i) {
        if (a.shape(i) == 0) throw py::value_error(std::string(what) + " is empty: shape " + shapeOf(a));
        if (a.strides(i) < 0)
            throw py::value_error(std::string(what) +
                                  " must not have negative strides (a flipped view); pass np.ascontiguousarray(" +
                                  what + ")");
    }
    if (!(py::detail::array_proxy(a.ptr())->flags & npy::NPY_ARRAY_ALIGNED_))
        throw py::value_error(std::string(what) + " must be aligned to its element size");
}

// Bytes in one row of an array whose axis 0 counts rows; the rest must be
// contiguous (a row is one run of bytes).
ssize_t rowBytes(const py::array& a, const char* what) {
    ssize_t bytes = a.itemsize();
    for (ssize_t i = a.ndim() - 1; i >= 1; --i) {
        if (a.shape(i) > 1 && a.strides(i) != bytes)
            throw py::value_error(std::string(what) +
                                  ": the pixels of a row must be contiguous in memory; pass np.ascontiguousarray(" +
                                  what + ")");
        bytes *= a.shape(i);
    }
    return bytes;
}

// The row pitch of an array of rows: its axis-0 stride, which must not let rows overlap.
size_t rowPitch(const py::array& a, ssize_t row_bytes, const char* what) {
    if (a.shape(0) == 1) return size_t(row_bytes);
    if (a.strides(0) < row_bytes)
        throw py::value_error(std::string(what) + ": rows overlap (a row stride of " + std::to_string(a.strides(0)) +
                              " bytes for rows of " + std::to_string(row_bytes) +
                              " bytes); pass np.ascontiguousarray(" + what + ")");
    return size_t(a.strides(0));
}

void checkSide(int64_t w, int64_t h, const char* what) {
    if (w > kMaxSide || h > kMaxSide)
        throw py::value_error(std::string(what) + " is " + std::to_string(w) + "x" + std::to_string(h) +
                              "; kv_cv handles images up to 32767 pixels a side");
}

// Plane `p` starts and steps on whole samples.
void checkAligned(const kv::Frame& frame, uint32_t p, const char* what) {
    const kv::FramePlane& pl = frame.layout().plane[p];
    const uintptr_t sample = pl.bits_per_channel / 8;
    if (reinterpret_cast<uintptr_t>(frame.planeCpuData(p)) % sample || pl.step % sample)
        throw py::value_error(std::string(what) + ": the rows of " + aFrame(frame.format()) + " must be " +
                              std::to_string(sample) + "-byte aligned");
}

// Every plane of `frame` inside [lo, hi), with rows aligned for its samples.
void checkInside(const kv::Frame& frame, const uint8_t* lo, const uint8_t* hi, const char* what) {
    const kv::FrameLayout& l = frame.layout();
    for (uint32_t p = 0; p < l.planes; ++p) {
        const kv::FramePlane& pl = l.plane[p];
        const uint8_t* start = frame.planeCpuData(p);
        const uint64_t span = pl.step * uint64_t(pl.size.height - 1) + pl.row_bytes;
        if (start < lo || start > hi || span > uint64_t(hi - start))
            throw py::value_error(std::string(what) + " is too small for " + aFrame(l.format) + " of " +
                                  sizeText(l.size) + ": plane " + std::to_string(p) + " needs " +
                                  std::to_string(uint64_t(start - lo) + span) +
                                  " bytes from the start, the array spans " + std::to_string(hi - lo));
        checkAligned(frame, p, what);
    }
}

// [lo, hi): the bytes an array spans (strides are known to be non-negative).
void arraySpan(const py::array& a, const uint8_t*& lo, const uint8_t*& hi) {
    lo = static_cast<const uint8_t*>(a.data());
    size_t last = 0;
    for (ssize_t i = 0; i < a.ndim(); ++i) last += size_t(a.shape(i) - 1) * size_t(a.strides(i));
    hi = lo + last + size_t(a.itemsize());
}

// The format an image array stands for, or FRAME_UNDEFINED.
kv::FrameFormat arrayFormat(const py::array& a) {
    const ssize_t nd = a.ndim();
    if (nd != 2 && nd != 3) return kv::FRAME_UNDEFINED;
    const ssize_t c = nd == 3 ? a.shape(2) : 1;
    const int num = a.dtype().num();
    if (num == npy::NPY_UBYTE_) return c == 1 ? kv::FRAME_GRAY_8 : c == 3 ? kv::FRAME_BGR_8 : kv::FRAME_UNDEFINED;
    if (num == npy::NPY_FLOAT_)
        return c == 1 ? kv::FRAME_FLOAT_32 : c == 3 ? kv::FRAME_FLOAT_32_C3 : kv::FRAME_UNDEFINED;
    return kv::FRAME_UNDEFINED;
}

const char kImageKinds[] =
    "an HxW or HxWx3 uint8 array (gray, BGR), an HxWx3 float32 array, an HxW float32 array or a kv_cv.Frame";

// An image array (HxW or HxWxC) viewed as a one-plane frame of `format`.
kv::Frame wrapImageArray(const py::array& a, kv::FrameFormat format, const char* what) {
    checkMemory(a, what);
    const ssize_t row = rowBytes(a, what);
    const size_t pitch = rowPitch(a, row, what);
    checkSide(a.shape(1), a.shape(0), what);
    return kv::Frame::wrap(format, kv::Size(int32_t(a.shape(1)), int32_t(a.shape(0))), memoryOf(a), pitch);
}

bool subsampled420(kv::FrameFormat f) {
    return f == kv::FRAME_I420 || f == kv::FRAME_YV12 || f == kv::FRAME_NV12 || f == kv::FRAME_NV21;
}

// The size of a `format` frame held in rows of `row` bytes, `rows` of them
// (planes one after another), when the shape tells it.
bool inferSize(kv::FrameFormat format, const kv::FrameLayout& unit, const py::array& a, ssize_t rows, ssize_t row,
               kv::Size& size) {
    const kv::FramePlane& p0 = unit.plane[0];
    const bool packed422 = format == kv::FRAME_YUYV || format == kv::FRAME_UYVY;
    const ssize_t bytes = p0.bits_per_channel / 8;
    if (unit.planes == 1) {
        ssize_t w;
        if (a.ndim() == 3 && a.shape(2) == p0.channels && a.itemsize() == bytes)
            w = a.shape(1);
        else if (row % (packed422 ? 2 : p0.channels * bytes) == 0)
            w = row / (packed422 ? 2 : p0.channels * bytes);
        else
            return false;
        size = kv::Size(int32_t(std::min<ssize_t>(w, INT32_MAX)), int32_t(std::min<ssize_t>(rows, INT32_MAX)));
        return true;
    }
    // Planes stacked under plane 0: 4:2:0 adds half the rows, 4:2:2 as many, planar 4:4:4 twice as many.
    const ssize_t num = subsampled420(format) ? 2 : 1;
    const ssize_t den = subsampled420(format) ? 3 : (format == kv::FRAME_YV16 || format == kv::FRAME_NV16) ? 2 : 3;
    if ((rows * num) % den || row % bytes) return false;
    size = kv::Size(int32_t(std::min<ssize_t>(row / bytes, INT32_MAX)),
                    int32_t(std::min<ssize_t>(rows * num / den, INT32_MAX)));
    return true;
}

std::string needSize(kv::FrameFormat format, const py::array& a) {
    return "cannot tell the size of " + aFrame(format) + " from an array of shape " + shapeOf(a) +
           "; give size=(width, height)";
}

void checkSampleType(const py::array& a, const kv::FramePlane& p, kv::FrameFormat format, bool raw_allowed,
                     const char* what) {
    const int num = a.dtype().num();
    if (num == sampleType(p) || (raw_allowed && num == npy::NPY_UBYTE_)) return;
    throw py::type_error(std::string(what) + " must hold " + typeName(sampleType(p)) + " samples" +
                         (raw_allowed && sampleType(p) != npy::NPY_UBYTE_ ? " (or raw uint8 bytes)" : "") + " for " +
                         aFrame(format) + ", got " + describe(a));
}

// One array (or flat buffer) holding every plane of the frame.
PyFrame frameFromArray(const py::array& a, kv::FrameFormat format, bool has_size, kv::Size size) {
    const char* what = "data";
    checkMemory(a, what);
    // Sizes are checked against this layout's planes; size 2x2 just describes the format.
    const kv::FrameLayout unit(format, has_size ? size : kv::Size(2, 2), 1);
    const kv::FramePlane& p0 = unit.plane[0];
    kv::Frame frame;
    const bool planar444 = unit.planes == 3 && unit.plane[1].size == unit.size;
    if (planar444 && a.ndim() == 3 && a.shape(0) == 3) {
        // (3, H, W): one plane per index of axis 0.
        checkSampleType(a, p0, format, false, what);
        if (a.shape(2) > 1 && a.strides(2) != a.itemsize())
            throw py::value_error("data: the pixels of a row must be contiguous in memory");
        const kv::Size shape_size(int32_t(std::min<ssize_t>(a.shape(2), INT32_MAX)),
                                  int32_t(std::min<ssize_t>(a.shape(1), INT32_MAX)));
        if (has_size && size != shape_size)
            throw py::value_error("size " + sizeText(size) + " does not match the data of shape " + shapeOf(a));
        checkSide(a.shape(2), a.shape(1), what);
        const size_t pitch = a.shape(1) == 1 ? size_t(a.shape(2) * a.itemsize()) : size_t(a.strides(1));
        if (pitch < size_t(a.shape(2) * a.itemsize())) throw py::value_error("data: rows overlap");
        void* planes[3];
        size_t steps[3] = {pitch, pitch, pitch};
        for (int p = 0; p < 3; ++p) planes[p] = static_cast<uint8_t*>(memoryOf(a)) + p * a.strides(0);
        frame = kv::Frame::wrap(format, shape_size, planes, steps);
    } else if (a.ndim() == 1) {
        // A flat buffer: planes one after another, rows unpadded.
        if (!has_size)
            throw py::type_error("size=(width, height) is needed for " + aFrame(format) + " given as a flat buffer");
        checkSampleType(a, p0, format, true, what);
        if (a.shape(0) > 1 && a.strides(0) != a.itemsize())
            throw py::value_error("data: a flat buffer must be contiguous");
        checkSide(size.width, size.height, "size");
        const uint64_t have = uint64_t(a.shape(0)) * uint64_t(a.itemsize());
        if (have != unit.byteSize())
            throw py::value_error("data holds " + std::to_string(have) + " bytes, " + aFrame(format) + " of " +
                                  sizeText(size) + " needs " + std::to_string(unit.byteSize()));
        void* planes[kv::FrameLayout::kMaxPlanes];
        size_t steps[kv::FrameLayout::kMaxPlanes];
        for (uint32_t p = 0; p < unit.planes; ++p) {
            planes[p] = static_cast<uint8_t*>(memoryOf(a)) + unit.plane[p].offset;
            steps[p] = size_t(unit.plane[p].step);
        }
        frame = kv::Frame::wrap(format, size, planes, steps);
    } else {
        // Rows: plane 0, then the other planes below it at the same pitch
        // (half the pitch for half-width planar chroma), as Frame::wrap lays them.
        const bool packed_3d = unit.planes == 1 && a.ndim() == 3;
        checkSampleType(a, p0, format, !packed_3d, what);
        const ssize_t row = rowBytes(a, what);
        const size_t pitch = rowPitch(a, row, what);
        kv::Size shape_size;
        if (!inferSize(format, unit, a, a.shape(0), row, shape_size)) {
            if (!has_size) throw py::value_error(needSize(format, a));
            shape_size = size;
        }
        if (!has_size) size = shape_size;
        checkSide(size.width, size.height, has_size ? "size" : what);
        const kv::FrameLayout l(format, size, 1);
        if (l.plane[0].row_bytes > uint64_t(row))
            throw py::value_error("the rows of data hold " + std::to_string(row) + " bytes, " + aFrame(format) +
                                  " of width " + std::to_string(size.width) + " needs " +
                                  std::to_string(l.plane[0].row_bytes));
        frame = kv::Frame::wrap(format, size, memoryOf(a), pitch);
    }
    const uint8_t *lo, *hi;
    arraySpan(a, lo, hi);
    checkInside(frame, lo, hi, what);
    PyFrame f;
    f.frame = frame;
    f.owner = a;
    f.writable = a.writeable();
    return f;
}

// One array per plane, each with its own row pitch.
PyFrame frameFromPlanes(py::handle list, kv::FrameFormat format, bool has_size, kv::Size size) {
    const py::sequence seq = py::reinterpret_borrow<py::sequence>(list);
    std::vector<py::array> arrays;
    for (py::handle item : seq) {
        if (!py::isinstance<py::array>(item))
            throw py::type_error("every plane in data must be a numpy array, got " + describe(item));
        arrays.push_back(py::reinterpret_borrow<py::array>(item));
    }
    const kv::FrameLayout unit(format, kv::Size(2, 2), 1);
    if (arrays.size() != unit.planes)
        throw py::value_error(aFrame(format) + " has " + std::to_string(unit.planes) + " plane" +
                              (unit.planes == 1 ? "" : "s") + ", data holds " + std::to_string(arrays.size()) +
                              " arrays");
    char what[] = "plane 0";
    checkMemory(arrays[0], what);
    kv::Size shape_size;
    const ssize_t row0 = rowBytes(arrays[0], what);
    if (unit.planes > 1) {
        // Plane 0 of a multi-plane format holds one sample per pixel.
        const ssize_t bytes = unit.plane[0].bits_per_channel / 8;
        shape_size = kv::Size(int32_t(std::min<ssize_t>(row0 / bytes, INT32_MAX)),
                              int32_t(std::min<ssize_t>(arrays[0].shape(0), INT32_MAX)));
    } else if (!inferSize(format, unit, arrays[0], arrays[0].shape(0), row0, shape_size) && !has_size) {
        throw py::value_error(needSize(format, arrays[0]));
    }
    if (!has_size) size = shape_size;
    checkSide(size.width, size.height, has_size ? "size" : what);
    const kv::FrameLayout l(format, size, 1);
    void* planes[kv::FrameLayout::kMaxPlanes];
    size_t steps[kv::FrameLayout::kMaxPlanes];
    bool writable = true;
    for (uint32_t p = 0; p < l.planes; ++p) {
        what[6] = char('0' + p);
        const py::array& a = arrays[p];
        checkMemory(a, what);
        checkSampleType(a, l.plane[p], format, a.ndim() == 2, what);
        const ssize_t row = rowBytes(a, what);
        if (a.shape(0) != l.plane[p].size.height || uint64_t(row) != l.plane[p].row_bytes) {
            std::vector<ssize_t> want = planeShape(l.plane[p]).vector();
            if (a.ndim() == 2 && want.size() == 3) want = {want[0], want[1] * want[2]};
            if (a.dtype().num() != sampleType(l.plane[p])) want.back() *= l.plane[p].bits_per_channel / 8;
            throw py::value_error(std::string(what) + " of " + aFrame(format) + " of " + sizeText(size) +
                                  " must have shape " + shapeText(want) + ", got " + shapeOf(a));
        }
        planes[p] = memoryOf(a);
        steps[p] = rowPitch(a, row, what);
        writable = writable && a.writeable();
    }
    PyFrame f;
    f.frame = kv::Frame::wrap(format, size, planes, steps);
    // Each array spans exactly its plane (shapes checked above); rows must suit the samples.
    for (uint32_t p = 0; p < l.planes; ++p) {
        what[6] = char('0' + p);
        checkAligned(f.frame, p, what);
    }
    f.owner = py::tuple(seq);
    f.writable = writable;
    return f;
}

PyFrame makeFrame(py::handle data, py::handle format_arg, py::handle size_arg) {
    const bool has_format = !format_arg.is_none(), has_size = !size_arg.is_none();
    kv::FrameFormat format = has_format ? parseFormat(format_arg, "format") : kv::FRAME_UNDEFINED;
    const kv::Size size = has_size ? sizeArg(size_arg, "size") : kv::Size();
    if (data.is_none()) {
        if (!has_format || !has_size)
            throw py::type_error("Frame() without data needs format= and size= to allocate a frame");
        PyFrame f;
        f.frame = kv::Frame(format, size);
        f.frame.setZero();
        return f;
    }
    if (PyList_Check(data.ptr()) || PyTuple_Check(data.ptr())) {
        if (!has_format) throw py::type_error("format= is needed for a frame given as a list of planes");
        return frameFromPlanes(data, format, has_size, size);
    }
    py::array a;
    if (py::isinstance<py::array>(data)) {
        a = py::reinterpret_borrow<py::array>(data);
    } else if (PyObject_CheckBuffer(data.ptr())) {
        a = py::module_::import("numpy").attr("frombuffer")(data, "uint8");
    } else {
        throw py::type_error(
            "data must be a numpy array, a buffer (bytes, bytearray, memoryview) or a list of "
            "plane arrays, got " +
            describe(data));
    }
    if (!has_format) {
        format = arrayFormat(a);
        if (format == kv::FRAME_UNDEFINED)
            throw py::type_error("format= is needed for " + describe(a) +
                                 " (only HxW and HxWx3 uint8 and float32 arrays imply one)");
    }
    return frameFromArray(a, format, has_size, size);
}

// A Python object's kv_cv.Frame, or null.
PyFrame* asFrame(py::handle value) {
    if (!py::isinstance<PyFrame>(value)) return nullptr;
    return &value.cast<PyFrame&>();
}

py::object toFrameObject(PyFrame f) {
    return py::cast(std::move(f));
}

}  // namespace

// ---- names and plain arguments ----------------------------------------------------

kv::FrameFormat parseFormat(py::handle name, const char* what) {
    std::string t = textArg(name, what, "nv12");
    t = lowered(t.data(), t.size());
    if (t.rfind("frame_", 0) == 0) t.erase(0, 6);
    for (const FormatName& n : kNames)
        if (t == n.name) return n.format;
    for (const FormatName& n : kNames) {
        const char* full = kv::toString(n.format);  // "FRAME_NV12"
        if (t == lowered(full + 6, std::strlen(full + 6))) return n.format;
    }
    std::string known;
    for (const FormatName& n : kNames) {
        if (formatName(n.format) != n.name) continue;
        known += (known.empty() ? "" : " ") + std::string(n.name);
    }
    throw py::value_error(std::string(what) + ": unknown format '" + textArg(name, what, "nv12") +
                          "' (known: " + known + ")");
}

const char* formatName(kv::FrameFormat format) {
    for (const FormatName& n : kNames)
        if (n.format == format) return n.name;
    return "undefined";
}

int choice(py::handle value, const char* what, const char* const* names, size_t count) {
    Py_ssize_t n = 0;
    const char* text = utf8Arg(value, what, names[0], n);
    for (size_t i = 0; i < count; ++i)
        if (sameName(text, n, names[i])) return int(i);
    const std::string given(text, size_t(n));
    std::string list;
    for (size_t i = 0; i < count; ++i)
        list += std::string(i == 0 ? "" : i + 1 == count ? " or " : ", ") + "'" + names[i] + "'";
    throw py::value_error(std::string(what) + " must be " + list + ", got '" + given + "'");
}

int choice(py::handle value, const char* what, std::initializer_list<const char*> names) {
    return choice(value, what, names.begin(), names.size());
}

kv::Size sizeArg(py::handle value, const char* what) {
    int64_t v[2];
    if (!integersArg(value, v, 2))
        throw py::type_error(std::string(what) + " must be a (width, height) pair of integers, got " + describe(value));
    if (v[0] < 1 || v[1] < 1 || v[0] > kMaxSide || v[1] > kMaxSide)
        throw py::value_error(std::string(what) + " must lie between (1, 1) and (32767, 32767), got (" +
                              std::to_string(v[0]) + ", " + std::to_string(v[1]) + ")");
    return kv::Size(int32_t(v[0]), int32_t(v[1]));
}

kv::Rect rectArg(py::handle value, const char* what) {
    int64_t v[4];
    if (!integersArg(value, v, 4))
        throw py::type_error(std::string(what) + " must be an (x, y, width, height) tuple of integers, got " +
                             describe(value));
    if (v[2] < 1 || v[3] < 1)
        throw py::value_error(std::string(what) + " needs a positive width and height, got (" + std::to_string(v[0]) +
                              ", " + std::to_string(v[1]) + ", " + std::to_string(v[2]) + ", " + std::to_string(v[3]) +
                              ")");
    for (int64_t x : v)
        if (x < -kMaxSide || x > kMaxSide)
            throw py::value_error(std::string(what) + " must lie within +-32767 pixels, got " + std::to_string(x));
    return kv::Rect(int32_t(v[0]), int32_t(v[1]), int32_t(v[2]), int32_t(v[3]));
}

double numberArg(py::handle value, const char* what) {
    const bool number = PyNumber_Check(value.ptr()) && !PyUnicode_Check(value.ptr());
    const double d = number ? PyFloat_AsDouble(value.ptr()) : -1.0;
    if (!number || (d == -1.0 && PyErr_Occurred())) {
        PyErr_Clear();
        throw py::type_error(std::string(what) + " must be a number, got " + describe(value));
    }
    if (!std::isfinite(d)) throw py::value_error(std::string(what) + " must be finite, got " + std::to_string(d));
    return d;
}

std::string describe(py::handle value) {
    if (py::isinstance<py::array>(value)) {
        const py::array a = py::reinterpret_borrow<py::array>(value);
        return "a " + std::string(py::str(a.dtype())) + " array of shape " + shapeOf(a);
    }
    if (asFrame(value)) return std::string(py::repr(value));
    std::string r = py::repr(value);
    if (r.size() > 60) r = r.substr(0, 57) + "...";
    return r + " (" + Py_TYPE(value.ptr())->tp_name + ")";
}

// ---- images ---------------------------------------------------------------------------

py::array newArray(int type_num, int nd, const ssize_t* shape, const ssize_t* strides, void* data, bool writable) {
    npy& api = npy::get();
    PyObject* descr = api.PyArray_DescrFromType_(type_num);  // stolen by the call below
    if (!descr) throw py::error_already_set();
    PyObject* a = api.PyArray_NewFromDescr_(api.PyArray_Type_, descr, nd, shape, strides, data,
                                            data && writable ? npy::NPY_ARRAY_WRITEABLE_ : 0, nullptr);
    if (!a) throw py::error_already_set();
    return py::reinterpret_steal<py::array>(a);
}

kv::Frame imageArg(py::handle value, const char* what) {
    if (py::isinstance<py::array>(value)) {
        const py::array a = py::reinterpret_borrow<py::array>(value);
        const kv::FrameFormat format = arrayFormat(a);
        if (format == kv::FRAME_UNDEFINED)
            throw py::type_error(std::string(what) + " must be " + kImageKinds + ", got " + describe(value) +
                                 "; other layouts go through kv_cv.Frame(data, format=...)");
        return wrapImageArray(a, format, what);
    }
    if (PyFrame* f = asFrame(value)) return f->frame;
    throw py::type_error(std::string(what) + " must be " + kImageKinds + ", got " + describe(value));
}

Result resultFor(py::handle out, kv::FrameFormat format, kv::Size size, const char* what) {
    const kv::FrameLayout l(format, size, 1);
    if (out.is_none()) {
        if (l.planes == 1) {
            const PlaneShape shape = planeShape(l.plane[0]);
            py::array a = newArray(sampleType(l.plane[0]), shape.nd, shape.dim);
            void* data = memoryOf(a);
            return Result{std::move(a), kv::Frame::wrap(format, size, data, size_t(l.plane[0].row_bytes))};
        }
        PyFrame f;
        f.frame = kv::Frame(format, size);
        Result r{py::object(), f.frame};
        r.object = toFrameObject(std::move(f));
        return r;
    }
    const auto wanted = [&] { return " for " + aResult(format) + " of " + sizeText(size); };
    if (py::isinstance<py::array>(out)) {
        if (l.planes != 1)
            throw py::type_error(std::string(what) + " must be a kv_cv.Frame" + wanted() + ", got " + describe(out));
        const py::array a = py::reinterpret_borrow<py::array>(out);
        const PlaneShape shape = planeShape(l.plane[0]);
        const int type = sampleType(l.plane[0]);
        const bool same_shape = a.ndim() == shape.nd && std::equal(shape.dim, shape.dim + shape.nd, a.shape());
        if (a.dtype().num() != type || !same_shape)
            throw py::value_error(std::string(what) + " must be a " + typeName(type) + " array of shape " +
                                  shapeText(shape.vector()) + wanted() + ", got " + describe(out));
        if (!a.writeable()) throw py::value_error(std::string(what) + " is read-only");
        checkMemory(a, what);
        const ssize_t row = rowBytes(a, what);
        return Result{py::reinterpret_borrow<py::object>(out),
                      kv::Frame::wrap(format, size, const_cast<void*>(a.data()), rowPitch(a, row, what))};
    }
    if (PyFrame* f = asFrame(out)) {
        if (f->frame.format() != format || f->frame.size() != size)
            throw py::value_error(std::string(what) + " must be a Frame" + wanted() + ", got " + describe(out));
        if (!f->writable) throw py::value_error(std::string(what) + " views read-only memory");
        return Result{py::reinterpret_borrow<py::object>(out), f->frame};
    }
    throw py::type_error(std::string(what) + " must be None, a numpy array or a kv_cv.Frame, got " + describe(out));
}

py::array planeView(const kv::Frame& frame, uint32_t p, py::handle base, bool writable) {
    const kv::FramePlane& pl = frame.layout().plane[p];
    const PlaneShape shape = planeShape(pl);
    const ssize_t strides[3] = {ssize_t(pl.step), ssize_t(pl.channels) * (pl.bits_per_channel / 8),
                                pl.bits_per_channel / 8};
    py::array view =
        newArray(sampleType(pl), shape.nd, shape.dim, strides, const_cast<uint8_t*>(frame.planeCpuData(p)), writable);
    if (npy::get().PyArray_SetBaseObject_(view.ptr(), base.inc_ref().ptr()) != 0) throw py::error_already_set();
    return view;
}

py::object exportFrame(const kv::Frame& frame) {
    if (frame.layout().planes == 1) {
        py::capsule keeper(new kv::Frame(frame), [](void* f) { delete static_cast<kv::Frame*>(f); });
        return planeView(frame, 0, keeper, true);
    }
    PyFrame f;
    f.frame = frame;
    return toFrameObject(std::move(f));
}

// ---- backends -------------------------------------------------------------------------

kv::ICvBackend& fastBackend() {
    thread_local kv::CvBackendSimd backend;
    return backend;
}

kv::ICvBackend& backendArg(py::handle name) {
    thread_local kv::CvBackendBase base;
    return choice(name, "backend", {"fast", "base"}) == 0 ? fastBackend() : static_cast<kv::ICvBackend&>(base);
}

// ---- the Frame class ------------------------------------------------------------------

void registerFrame(py::module_& m) {
    py::class_<PyFrame>(m, "Frame", R"doc(Frame(data=None, format=None, size=None)
--

An image in any pixel format of the library, viewing caller memory without a copy.

data: what holds the pixels, kept alive as long as the Frame (and its plane views) live:
  - a numpy array whose rows are image rows, planes stacked one under another at the
    array's row pitch; half-width chroma planes (i420, yv12, yv16) use half the pitch.
    A slice of a larger array keeps its row pitch, so a padded camera buffer works as is.
    An NV12 frame is an array of shape (H * 3 // 2, W), as cv2 uses it;
  - a (3, H, W) array for the full-size planar formats (bgrp, rgbp, yuv444p, f32c3p);
  - a flat buffer (bytes, bytearray, memoryview, 1-D array) holding the planes one after
    another with unpadded rows; bytes make a read-only frame;
  - a list of arrays, one per plane, each with its own row pitch;
  - None: a new zero-filled frame that owns its memory (format= and size= required).
format: a format name such as "nv12", "i420", "bgr", "yuyv", "f32c3p" (case-insensitive;
  full names such as "FRAME_NV12" work too). Optional for arrays that imply one:
  HxW uint8 gray, HxWx3 uint8 BGR, HxWx3 float32 FRAME_FLOAT_32_C3.
size: (width, height); needed where the data's shape does not tell it.

Attributes: format (the short name), size ((width, height)), planes (numpy views of the
planes). np.asarray(frame) is the one plane of one-plane formats.

Raises TypeError or ValueError when the data cannot hold such a frame: wrong dtype, a
shape that does not match, too few bytes, negative strides, unaligned float rows.)doc")
        .def(py::init(&makeFrame), R"doc(__init__(self, data=None, format=None, size=None)
--

Views data as a frame of format and size (see help(kv_cv.Frame)).)doc",
             py::arg("data") = py::none(), py::arg("format") = py::none(), py::arg("size") = py::none())
        .def_property_readonly(
            "format", [](const PyFrame& f) { return formatName(f.frame.format()); },
            "The pixel format's short name, such as 'nv12'.")
        .def_property_readonly(
            "size", [](const PyFrame& f) { return py::make_tuple(f.frame.size().width, f.frame.size().height); },
            "(width, height) in pixels.")
        .def_property_readonly(
            "planes",
            [](py::object self) {
                const PyFrame& f = self.cast<const PyFrame&>();
                py::tuple planes(f.frame.layout().planes);
                for (uint32_t p = 0; p < f.frame.layout().planes; ++p)
                    planes[p] = planeView(f.frame, p, self, f.writable);
                return planes;
            },
            "A tuple of numpy views, one per plane: (rows, width) or (rows, width, channels);\n"
            "writing to them writes the frame. Each view keeps the frame alive.")
        .def(
            "__array__",
            [](py::object self, py::object dtype) {
                const PyFrame& f = self.cast<const PyFrame&>();
                if (f.frame.layout().planes != 1)
                    throw py::value_error(aFrame(f.frame.format()) + " has " + std::to_string(f.frame.layout().planes) +
                                          " planes; use frame.planes to see them");
                py::array view = planeView(f.frame, 0, self, f.writable);
                if (dtype.is_none()) return py::object(view);
                return view.attr("astype")(dtype);
            },
            py::arg("dtype") = py::none(), "The one plane of a one-plane frame as a numpy view.")
        .def("__repr__", [](const PyFrame& f) {
            return "kv_cv.Frame(" + std::string(formatName(f.frame.format())) + ", " + sizeText(f.frame.size()) +
                   (f.owner.is_none() ? std::string(", owns its memory") : std::string(", views caller memory")) +
                   (f.writable ? "" : ", read-only") + ")";
        });
}

}  // namespace kvpy
