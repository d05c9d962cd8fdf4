// Calls that fill or read plain numpy arrays rather than images:
// crop_and_resize (a model's input tensor from regions of an image),
// group_rectangles (cv2.groupRectangles) and the half-float conversions.
#include <algorithm>
#include <climits>
#include <cmath>
#include <string>
#include <vector>

#include "kvpy.h"

#include "kv_core/kv_tensor.h"
#include "kv_cv/kv_cv_helpers.h"
#include "kv_cv/kv_group_rectangles.h"

namespace kvpy {

namespace {

using npy = py::detail::npy_api;

// The largest rectangle of `region`'s aspect ratio centred in `size` (as kvcv tensor --letterbox).
kv::Rect letterboxRect(kv::Size region, kv::Size size) {
    const double s = std::min(double(size.width) / region.width, double(size.height) / region.height);
    const int w = std::max(1, std::min(size.width, int(std::lround(region.width * s))));
    const int h = std::max(1, std::min(size.height, int(std::lround(region.height * s))));
    return kv::Rect((size.width - w) / 2, (size.height - h) / 2, w, h);
}

// mean= or std=: None, one number for every channel, or one per channel.
std::vector<float> perChannel(py::handle value, int channels, float fallback, const char* what) {
    std::vector<float> v(size_t(channels), fallback);
    if (value.is_none()) return v;
    if (PyNumber_Check(value.ptr()) && !PySequence_Check(value.ptr())) {
        std::fill(v.begin(), v.end(), float(numberArg(value, what)));
        return v;
    }
    if (!PySequence_Check(value.ptr()) || PyUnicode_Check(value.ptr()))
        throw py::type_error(std::string(what) + " must be a number or a sequence of numbers, got " + describe(value));
    const py::sequence seq = py::reinterpret_borrow<py::sequence>(value);
    if (seq.size() == 1) {
        std::fill(v.begin(), v.end(), float(numberArg(seq[0], what)));
        return v;
    }
    if (seq.size() != size_t(channels))
        throw py::value_error(std::string(what) + " needs 1 or " + std::to_string(channels) + " values, got " +
                              std::to_string(seq.size()));
    for (size_t c = 0; c < v.size(); ++c) v[c] = float(numberArg(seq[c], what));
    return v;
}

// rois=: None (the whole image for every batch item), one (x, y, w, h) when
// the batch holds one image, or one rectangle per image; clipped to the image.
std::vector<kv::Rect> roisArg(py::handle rois, int64_t n, kv::Size image) {
    std::vector<kv::Rect> out;
    if (rois.is_none()) {
        out.assign(size_t(n), kv::Rect(0, 0, image.width, image.height));
        return out;
    }
    if (!PySequence_Check(rois.ptr()) || PyUnicode_Check(rois.ptr()))
        throw py::type_error("rois must be a list of (x, y, width, height), got " + describe(rois));
    const py::sequence seq = py::reinterpret_borrow<py::sequence>(rois);
    const bool single =
        seq.size() == 4 && PyNumber_Check(py::object(seq[0]).ptr()) && !PySequence_Check(py::object(seq[0]).ptr());
    std::vector<kv::Rect> given;
    if (single) {
        given.push_back(rectArg(rois, "rois"));
    } else {
        for (size_t i = 0; i < seq.size(); ++i)
            given.push_back(rectArg(seq[i], ("rois[" + std::to_string(i) + "]").c_str()));
    }
    if (int64_t(given.size()) != n)
        throw py::value_error("rois holds " + std::to_string(given.size()) + " rectangle" +
                              (given.size() == 1 ? "" : "s") + " for a batch of " + std::to_string(n));
    for (size_t i = 0; i < given.size(); ++i) {
        kv::Rect r = given[i];
        r.crop(image);
        if (r.empty())
            throw py::value_error("rois[" + std::to_string(i) + "] = (" + std::to_string(given[i].x) + ", " +
                                  std::to_string(given[i].y) + ", " + std::to_string(given[i].width) + ", " +
                                  std::to_string(given[i].height) + ") lies outside the " +
                                  std::to_string(image.width) + "x" + std::to_string(image.height) + " image");
        out.push_back(r);
    }
    return out;
}

// (v - mean[c]) / std[c] over every element of a float tensor, in float, as
// numpy computes it on float32 arrays. `s` are byte strides in (n, c, h, w) order.
template <int kChannels>
void normalisePixels(float* row, int64_t w, const float* mean, const float* stdv) {
    for (int64_t x = 0; x < w; ++x)
        for (int c = 0; c < kChannels; ++c) row[x * kChannels + c] = (row[x * kChannels + c] - mean[c]) / stdv[c];
}

void normalise(uint8_t* base, const int64_t e[4], const int64_t s[4], bool nhwc, const std::vector<float>& mean,
               const std::vector<float>& stdv) {
    const int64_t n = e[0], c = e[1], h = e[2], w = e[3];
    for (int64_t i = 0; i < n; ++i) {
        if (nhwc) {
            for (int64_t y = 0; y < h; ++y) {
                float* row = reinterpret_cast<float*>(base + i * s[0] + y * s[2]);
                if (c == 3)
                    normalisePixels<3>(row, w, mean.data(), stdv.data());
                else
                    normalisePixels<1>(row, w, mean.data(), stdv.data());
            }
            continue;
        }
        for (int64_t k = 0; k < c; ++k)
            for (int64_t y = 0; y < h; ++y)
                normalisePixels<1>(reinterpret_cast<float*>(base + i * s[0] + k * s[1] + y * s[2]), w, &mean[size_t(k)],
                                   &stdv[size_t(k)]);
    }
}

py::object cropAndResize(py::handle src, py::handle rois, py::handle shape, py::handle dtype, py::handle layout,
                         py::handle order, py::handle letterbox, py::handle mean, py::handle stdv, py::handle out) {
    const kv::Frame s = imageArg(src, "src");
    const bool nhwc = choice(layout, "layout", {"nchw", "nhwc"}) == 1;
    int64_t dims[4];
    {
        int64_t v[4];
        if (!integersArg(shape, v, 4))
            throw py::type_error(std::string("shape must be four integers, ") +
                                 (nhwc ? "(N, H, W, C) for layout 'nhwc'" : "(N, C, H, W) for layout 'nchw'") +
                                 ", got " + describe(shape));
        for (int64_t x : v)
            if (x < 1 || x > kMaxSide)
                throw py::value_error("shape must hold positive integers up to 32767, got " +
                                      std::string(py::str(shape)));
        // dims in (n, c, h, w) order whatever the layout.
        dims[0] = v[0];
        dims[1] = nhwc ? v[3] : v[1];
        dims[2] = nhwc ? v[1] : v[2];
        dims[3] = nhwc ? v[2] : v[3];
    }
    const int64_t channels = dims[1];
    if (channels != 1 && channels != 3)
        throw py::value_error("shape " + std::string(py::str(shape)) + " has " + std::to_string(channels) +
                              " channels; the channel count (" + (nhwc ? "last" : "second") + " for layout '" +
                              (nhwc ? "nhwc" : "nchw") + "') must be 1 or 3");
    const int type = py::dtype::from_args(py::reinterpret_borrow<py::object>(dtype)).num();
    if (type != npy::NPY_FLOAT_ && type != npy::NPY_UBYTE_)
        throw py::type_error("dtype must be numpy.float32 or numpy.uint8, got " +
                             std::string(py::str(py::dtype::from_args(py::reinterpret_borrow<py::object>(dtype)))));
    const bool is_float = type == npy::NPY_FLOAT_;
    const bool rgb = choice(order, "order", {"rgb", "bgr"}) == 0;
    const int boxed = PyObject_IsTrue(letterbox.ptr());
    if (boxed < 0) throw py::error_already_set();
    if (!is_float && (!mean.is_none() || !stdv.is_none()))
        throw py::value_error("mean and std need dtype float32 (a uint8 tensor holds the pixel values)");
    const std::vector<float> mean_v = perChannel(mean, int(channels), 0.f, "mean");
    const std::vector<float> std_v = perChannel(stdv, int(channels), 1.f, "std");
    for (float x : std_v)
        if (x == 0.f) throw py::value_error("std must not be 0");
    const bool normalised = std::any_of(mean_v.begin(), mean_v.end(), [](float x) { return x != 0.f; }) ||
                            std::any_of(std_v.begin(), std_v.end(), [](float x) { return x != 1.f; });

    const std::vector<kv::Rect> src_rois = roisArg(rois, dims[0], s.size());
    std::vector<kv::Rect> dst_rois;
    if (boxed)
        for (const kv::Rect& r : src_rois)
            dst_rois.push_back(letterboxRect(r.size(), kv::Size(int32_t(dims[3]), int32_t(dims[2]))));

    const int64_t elem = is_float ? 4 : 1;
    const std::vector<ssize_t> numpy_shape = nhwc ? std::vector<ssize_t>{dims[0], dims[2], dims[3], dims[1]}
                                                  : std::vector<ssize_t>{dims[0], dims[1], dims[2], dims[3]};
    py::array tensor;
    if (out.is_none()) {
        if (dims[1] * dims[2] * dims[3] * elem > INT32_MAX)
            throw py::value_error("one image of the tensor must stay under 2 GiB");
        tensor = newArray(type, numpy_shape);
    } else {
        if (!py::isinstance<py::array>(out))
            throw py::type_error("out must be None or a numpy array, got " + describe(out));
        tensor = py::reinterpret_borrow<py::array>(out);
        const bool same_shape =
            tensor.ndim() == 4 && std::equal(numpy_shape.begin(), numpy_shape.end(), tensor.shape());
        if (tensor.dtype().num() != type || !same_shape || tensor.dtype().byteorder() == '>')
            throw py::value_error("out must be a " + std::string(is_float ? "float32" : "uint8") + " array of shape (" +
                                  std::to_string(numpy_shape[0]) + ", " + std::to_string(numpy_shape[1]) + ", " +
                                  std::to_string(numpy_shape[2]) + ", " + std::to_string(numpy_shape[3]) + "), got " +
                                  describe(out));
        if (!tensor.writeable()) throw py::value_error("out is read-only");
        if (!(py::detail::array_proxy(tensor.ptr())->flags & npy::NPY_ARRAY_ALIGNED_))
            throw py::value_error("out must be aligned to its element size");
        for (int i = 0; i < 4; ++i)
            if (tensor.strides(i) < 0 || tensor.strides(i) > INT32_MAX)
                throw py::value_error("out must have non-negative strides under 2 GiB");
        const bool packed = tensor.strides(3) == elem && (!nhwc || tensor.strides(2) == elem * dims[1]);
        if (!packed)
            throw py::value_error(std::string("out must have contiguous ") + (nhwc ? "pixels" : "rows") +
                                  "; pass an array from np.empty");
    }
    // Byte strides in (n, c, h, w) order.
    const int64_t strides[4] = {tensor.strides(0), nhwc ? elem : tensor.strides(1), tensor.strides(nhwc ? 1 : 2),
                                nhwc ? elem * dims[1] : elem};
    const kv::TensorSize extents =
        nhwc ? kv::TensorSize{int32_t(dims[0]), int32_t(dims[2]), int32_t(dims[3]), int32_t(dims[1])}
             : kv::TensorSize{int32_t(dims[0]), int32_t(dims[1]), int32_t(dims[2]), int32_t(dims[3])};
    const kv::TensorSize tensor_strides =
        nhwc ? kv::TensorSize{int32_t(strides[0]), int32_t(strides[2]), int32_t(strides[3]), int32_t(strides[1])}
             : kv::TensorSize{int32_t(strides[0]), int32_t(strides[1]), int32_t(strides[2]), int32_t(strides[3])};
    const kv::TensorChannelOrder channel_order = channels == 1 ? kv::TENSOR_ORDER_GRAY
                                                 : rgb         ? kv::TENSOR_ORDER_RGB
                                                               : kv::TENSOR_ORDER_BGR;
    kv::Tensor t = kv::Tensor::wrap(
        kv::TensorLayout(is_float ? kv::TENSOR_FLOAT_32 : kv::TENSOR_UINT_8, nhwc ? kv::TENSOR_NHWC : kv::TENSOR_NCHW,
                         extents, tensor_strides, channel_order),
        tensor.mutable_data());
    {
        py::gil_scoped_release nogil;
        fastBackend().cropAndResize(s, t, src_rois, dst_rois);
        if (normalised) normalise(static_cast<uint8_t*>(t.devicePtr().cpuData()), dims, strides, nhwc, mean_v, std_v);
    }
    return std::move(tensor);
}

// Rectangles from a sequence of (x, y, w, h) or an (N, 4) array.
std::vector<kv::Rect> rectList(py::handle value) {
    if (!PySequence_Check(value.ptr()) || PyUnicode_Check(value.ptr()))
        throw py::type_error("rects must be a list of (x, y, width, height), got " + describe(value));
    const py::sequence seq = py::reinterpret_borrow<py::sequence>(value);
    std::vector<kv::Rect> rects;
    rects.reserve(seq.size());
    for (size_t i = 0; i < seq.size(); ++i) {
        int64_t v[4];
        if (!integersArg(seq[i], v, 4))
            throw py::type_error("rects[" + std::to_string(i) + "] must be (x, y, width, height) integers, got " +
                                 describe(seq[i]));
        for (int64_t x : v)
            if (x < INT32_MIN || x > INT32_MAX)
                throw py::value_error("rects[" + std::to_string(i) + "] leaves the 32-bit range");
        rects.emplace_back(int32_t(v[0]), int32_t(v[1]), int32_t(v[2]), int32_t(v[3]));
    }
    return rects;
}

template <typename T>
std::vector<T> numberList(py::handle value, size_t count, const char* what) {
    if (!PySequence_Check(value.ptr()) || PyUnicode_Check(value.ptr()))
        throw py::type_error(std::string(what) + " must be a sequence of numbers, got " + describe(value));
    const py::sequence seq = py::reinterpret_borrow<py::sequence>(value);
    if (seq.size() != count)
        throw py::value_error(std::string(what) + " holds " + std::to_string(seq.size()) + " values for " +
                              std::to_string(count) + " rectangles");
    std::vector<T> out;
    for (size_t i = 0; i < count; ++i) {
        if constexpr (std::is_same_v<T, double>) {
            out.push_back(numberArg(seq[i], what));
        } else {
            int64_t v;
            if (!integersArg(py::make_tuple(seq[i]), &v, 1))
                throw py::type_error(std::string(what) + " must hold integers, got " + describe(seq[i]));
            if (v < INT32_MIN || v > INT32_MAX) throw py::value_error(std::string(what) + " leaves the 32-bit range");
            out.push_back(T(v));
        }
    }
    return out;
}

py::tuple groupRectangles(py::handle rects_arg, py::handle threshold_arg, py::handle eps_arg, py::handle weights_arg,
                          py::handle levels_arg, py::handle level_weights_arg) {
    std::vector<kv::Rect> rects = rectList(rects_arg);
    int64_t threshold;
    if (!integersArg(py::make_tuple(threshold_arg), &threshold, 1))
        throw py::type_error("threshold must be an integer, got " + describe(threshold_arg));
    threshold = std::clamp<int64_t>(threshold, INT32_MIN, INT32_MAX);
    const double eps = numberArg(eps_arg, "eps");
    if (!weights_arg.is_none() && !levels_arg.is_none())
        throw py::type_error("give weights= or levels= (the same per-rectangle levels), not both");
    const py::handle levels_in = weights_arg.is_none() ? levels_arg : weights_arg;
    std::vector<int32_t> weights;
    if (!levels_in.is_none())
        weights = numberList<int32_t>(levels_in, rects.size(), weights_arg.is_none() ? "levels" : "weights");
    std::vector<double> level_weights;
    const bool with_level_weights = !level_weights_arg.is_none();
    if (with_level_weights) level_weights = numberList<double>(level_weights_arg, rects.size(), "level_weights");
    kv::groupRectangles(rects, int32_t(threshold), eps, &weights, with_level_weights ? &level_weights : nullptr);

    py::array_t<int32_t> out_rects({ssize_t(rects.size()), ssize_t(4)});
    auto r = out_rects.mutable_unchecked<2>();
    for (size_t i = 0; i < rects.size(); ++i) {
        r(ssize_t(i), 0) = rects[i].x;
        r(ssize_t(i), 1) = rects[i].y;
        r(ssize_t(i), 2) = rects[i].width;
        r(ssize_t(i), 3) = rects[i].height;
    }
    py::array_t<int32_t> out_weights(ssize_t(weights.size()), weights.data());
    if (!with_level_weights) return py::make_tuple(out_rects, out_weights);
    return py::make_tuple(out_rects, out_weights,
                          py::array_t<double>(ssize_t(level_weights.size()), level_weights.data()));
}

// A contiguous numpy array of `type`, the argument itself when it already is one.
py::array floatsArg(py::handle value, int type, const char* name) {
    if (!py::isinstance<py::array>(value) || py::reinterpret_borrow<py::array>(value).dtype().num() != type)
        throw py::type_error(std::string("a must be a numpy ") + name + " array, got " + describe(value));
    py::array a = py::reinterpret_borrow<py::array>(value);
    if (a.dtype().byteorder() == '>') throw py::value_error("a must be in the machine's byte order");
    if (!(py::detail::array_proxy(a.ptr())->flags & npy::NPY_ARRAY_C_CONTIGUOUS_) ||
        !(py::detail::array_proxy(a.ptr())->flags & npy::NPY_ARRAY_ALIGNED_))
        a = py::module_::import("numpy").attr("ascontiguousarray")(a);
    return a;
}

// A new array of `to_type` and a's shape, filled by `convert` with the GIL released.
template <typename From, typename To>
py::array convertFloats(py::handle value, int from_type, const char* from_name, int to_type,
                        void (*convert)(const From*, size_t, To*)) {
    const py::array a = floatsArg(value, from_type, from_name);
    py::array out = newArray(to_type, std::vector<ssize_t>(a.shape(), a.shape() + a.ndim()));
    const size_t n = size_t(a.size());
    if (n) {
        const auto* s = static_cast<const From*>(a.data());
        auto* d = static_cast<To*>(out.mutable_data());
        py::gil_scoped_release nogil;
        convert(s, n, d);
    }
    return out;
}

py::array fp16ToFp32(py::handle value) {
    return convertFloats<uint16_t, float>(value, kNpyHalf, "float16", npy::NPY_FLOAT_, kv::convertFp16ToFp32);
}

py::array fp32ToFp16(py::handle value) {
    return convertFloats<float, uint16_t>(value, npy::NPY_FLOAT_, "float32", kNpyHalf, kv::convertFp32ToFp16);
}

}  // namespace

void registerTensorOps(py::module_& m) {
    m.def(
        "crop_and_resize", &cropAndResize,
        R"doc(crop_and_resize(src, rois, shape, dtype='float32', layout='nchw', order='rgb', letterbox=False, mean=None, std=None, out=None)
--

Fills a model's input tensor: each region of src is cropped, resized into one image of
the batch and converted to the tensor's channel order, in one pass per region.

src: a numpy array (HxWx3 uint8 BGR, HxW uint8 gray, ...) or a kv_cv.Frame of any format
  the fast backend converts from (nv12, i420, bgr, rgb, ...).
rois: one (x, y, width, height) per batch item (a single tuple when N is 1), clipped to
  the image; None: the whole image for every item.
shape: (N, C, H, W) for layout 'nchw', (N, H, W, C) for 'nhwc'; C is 1 (gray) or 3.
dtype: numpy.float32 (the default; pixel values 0..255 before mean and std) or numpy.uint8,
  in any spelling numpy.dtype() accepts.
order: 'rgb' or 'bgr', the channel order of a 3-channel tensor.
letterbox: keep each region's aspect ratio, centred between black bars (the bars are
  black pixels, normalised like any other).
mean, std: one number, or one per channel in tensor channel order (float32 only): the
  tensor holds (v - mean[c]) / std[c], computed in float32 as numpy does.
out: None, or a writable array of this dtype and shape (rows or pixels contiguous) to
  fill in place; nothing is allocated then.

Returns the tensor, a numpy array of `shape`.

Raises kv_cv.Error when the library refuses the source (for example an odd-sized
subsampled crop on the fast backend); TypeError or ValueError for bad arguments or a
region outside the image. Releases the GIL while filling.)doc",
        py::arg("src"), py::arg("rois"), py::arg("shape"), py::arg("dtype") = "float32", py::arg("layout") = "nchw",
        py::arg("order") = "rgb", py::arg("letterbox") = false, py::arg("mean") = py::none(),
        py::arg("std") = py::none(), py::arg("out") = py::none());

    m.def("group_rectangles", &groupRectangles,
          R"doc(group_rectangles(rects, threshold, eps=0.2, weights=None, levels=None, level_weights=None)
--

Clusters detection rectangles, as cv2.groupRectangles.

rects: (x, y, width, height) rectangles, a list or an (N, 4) array.
threshold: a cluster survives when it has more than `threshold` members (0 or less:
  rects come back unchanged, each with weight 1).
eps: similarity tolerance: two rectangles are similar when each edge differs by at most
  eps * (min width + min height) / 2.
weights or levels: optional per-rectangle detection levels (one name or the other);
  with level_weights (per-rectangle scores) each cluster reports its best level and that
  level's highest score.

Returns (rects, weights): an (M, 4) int32 array of averaged rectangles, in the order of each
surviving cluster's first member, and an (M,) int32 array of member counts (best levels
when levels and level_weights are given). With level_weights, returns (rects, weights,
level_weights), the last a float64 array of the best scores.

A cluster whose average lies inside another surviving-size cluster with more members
(and more than 3) is dropped, as is one with fewer than 3 members inside any such cluster.)doc",
          py::arg("rects"), py::arg("threshold"), py::arg("eps") = 0.2, py::arg("weights") = py::none(),
          py::arg("levels") = py::none(), py::arg("level_weights") = py::none());

    m.def("fp16_to_fp32", &fp16ToFp32, R"doc(fp16_to_fp32(a)
--

Converts a numpy float16 array of any shape to a new float32 array of the same shape.
Every half value is exact in single precision. A non-contiguous input is copied first.

Raises TypeError when a is not a float16 array. Releases the GIL while converting.)doc",
          py::arg("a"));

    m.def("fp32_to_fp16", &fp32ToFp16, R"doc(fp32_to_fp16(a)
--

Converts a numpy float32 array of any shape to a new float16 array of the same shape,
rounding to the nearest half value (ties to even); values beyond the half range become
infinities, as numpy's astype(np.float16) does.

Raises TypeError when a is not a float32 array. Releases the GIL while converting.)doc",
          py::arg("a"));
}

}  // namespace kvpy
