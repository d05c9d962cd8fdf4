"""crop_and_resize against a numpy model (every layout, order, dtype, letterboxed,
normalised), group_rectangles against cv2, and the half-float conversions against numpy."""

import math

import cv2
import numpy as np
import pytest

import kv_cv
from conftest import expect_error, max_diff, nv12_from_i420, smooth_image


def letterbox(region, size):
    """The largest rectangle of the region's aspect ratio centred in size (lround halves up)."""
    scale = min(size[0] / region[0], size[1] / region[1])
    w = max(1, min(size[0], int(math.floor(region[0] * scale + 0.5))))
    h = max(1, min(size[1], int(math.floor(region[1] * scale + 0.5))))
    return (size[0] - w) // 2, (size[1] - h) // 2, w, h


def model(image, rois, shape, dtype, layout, order, boxed, mean, std, resize=None):
    """The tensor crop_and_resize should fill, from kv_cv.resize and numpy."""
    resize = resize or (lambda crop, size: kv_cv.resize(np.ascontiguousarray(crop), size))
    n, c, h, w = shape if layout == "nchw" else (shape[0], shape[3], shape[1], shape[2])
    images = []
    for x, y, rw, rh in rois:
        x0, y0 = max(x, 0), max(y, 0)
        x1, y1 = min(x + rw, image.shape[1]), min(y + rh, image.shape[0])
        crop = image[y0:y1, x0:x1]
        tx, ty, tw, th = letterbox((x1 - x0, y1 - y0), (w, h)) if boxed else (0, 0, w, h)
        part = resize(crop, (tw, th))
        part = kv_cv.convert(part, "gray") if c == 1 else part[..., ::-1] if order == "rgb" else part
        canvas = np.zeros((h, w, c), np.uint8)
        canvas[ty:ty + th, tx:tx + tw] = part.reshape(th, tw, c)
        images.append(canvas)
    tensor = np.stack(images).astype(dtype)
    if dtype == np.float32:
        tensor = (tensor - np.float32(0) - np.asarray(mean, np.float32)) / np.asarray(std, np.float32)
    return tensor.transpose(0, 3, 1, 2) if layout == "nchw" else tensor


@pytest.mark.parametrize("layout", ["nchw", "nhwc"])
@pytest.mark.parametrize("order", ["rgb", "bgr"])
@pytest.mark.parametrize("boxed", [False, True])
@pytest.mark.parametrize("dtype", [np.float32, np.uint8])
def test_crop_and_resize_equals_the_numpy_model(rng, layout, order, boxed, dtype):
    image = smooth_image(rng, 97, 131)
    rois = [(10, 5, 60, 40), (-8, 50, 70, 80), (100, 0, 31, 97)]  # the second leaves the image: clipped
    shape = (3, 3, 24, 32) if layout == "nchw" else (3, 24, 32, 3)
    mean, std = ((123.7, 116.3, 103.5), (58.4, 57.1, 57.4)) if dtype == np.float32 else (0, 1)
    ours = kv_cv.crop_and_resize(image, rois, shape, dtype, layout, order, boxed,
                                 *((mean, std) if dtype == np.float32 else (None, None)))
    assert ours.shape == shape and ours.dtype == dtype and ours.flags.c_contiguous
    np.testing.assert_array_equal(ours, model(image, rois, shape, dtype, layout, order, boxed, mean, std))


def test_gray_tensor_with_one_mean_and_std(rng):
    image = smooth_image(rng, 40, 50)
    ours = kv_cv.crop_and_resize(image, None, (1, 1, 20, 30), mean=127.5, std=[127.5])
    np.testing.assert_array_equal(ours, model(image, [(0, 0, 50, 40)], (1, 1, 20, 30), np.float32, "nchw", "rgb",
                                              False, [127.5], [127.5]))


def test_nv12_camera_frame_into_a_normalised_tensor(rng):
    width, height = 128, 96
    i420 = cv2.cvtColor(smooth_image(rng, height, width), cv2.COLOR_BGR2YUV_I420)
    data = nv12_from_i420(i420, width, height)
    camera = kv_cv.Frame(data, format="nv12")
    y, uv = camera.planes
    # The model: the region as an NV12 frame of its own (plane slices), resized, then converted.
    x, y0, w, h = 32, 16, 64, 48
    region = kv_cv.Frame([y[y0:y0 + h, x:x + w], uv[y0 // 2:(y0 + h) // 2, x // 2:(x + w) // 2]], format="nv12")
    ours = kv_cv.crop_and_resize(camera, [(x, y0, w, h)], (1, 3, 24, 32), mean=0.5, std=2.0)
    expected = kv_cv.convert(kv_cv.resize(region, (32, 24)), "bgr")[..., ::-1].astype(np.float32)
    np.testing.assert_array_equal(ours, ((expected - np.float32(0.5)) / np.float32(2.0)).transpose(2, 0, 1)[None])


def test_out_is_filled_in_place(rng):
    image = smooth_image(rng, 60, 80)
    out = np.full((2, 16, 16, 3), 7, np.uint8)
    rois = [(0, 0, 40, 20), (40, 20, 40, 40)]
    assert kv_cv.crop_and_resize(image, rois, (2, 16, 16, 3), np.uint8, "nhwc", letterbox=True, out=out) is out
    np.testing.assert_array_equal(out, model(image, rois, out.shape, np.uint8, "nhwc", "rgb", True, 0, 1))
    batch = np.zeros((4, 3, 16, 16), np.float32)  # a slice of a larger batch
    kv_cv.crop_and_resize(image, rois, (2, 3, 16, 16), out=batch[1:3])
    np.testing.assert_array_equal(batch[1:3], kv_cv.crop_and_resize(image, rois, (2, 3, 16, 16)))
    assert not batch[0].any() and not batch[3].any()


IMAGE = np.zeros((20, 30, 3), np.uint8)


@pytest.mark.parametrize(
    "call, kind, fragment",
    [
        (lambda: kv_cv.crop_and_resize(IMAGE, None, (1, 2, 8, 8)), ValueError, "must be 1 or 3"),
        (lambda: kv_cv.crop_and_resize(IMAGE, None, (1, 3, 8)), TypeError, "four integers"),
        (lambda: kv_cv.crop_and_resize(IMAGE, None, (1, 3, 0, 8)), ValueError, "positive integers"),
        (lambda: kv_cv.crop_and_resize(IMAGE, None, (1, 3, 8, 8), np.float64), TypeError, "float32 or numpy.uint8"),
        (lambda: kv_cv.crop_and_resize(IMAGE, None, (1, 3, 8, 8), np.uint8, mean=1), ValueError, "need dtype float32"),
        (lambda: kv_cv.crop_and_resize(IMAGE, None, (1, 3, 8, 8), std=(1, 0, 1)), ValueError, "std must not be 0"),
        (lambda: kv_cv.crop_and_resize(IMAGE, None, (1, 3, 8, 8), mean=(1, 2)), ValueError, "needs 1 or 3 values"),
        (lambda: kv_cv.crop_and_resize(IMAGE, None, (1, 3, 8, 8), mean="a"), TypeError, "number"),
        (lambda: kv_cv.crop_and_resize(IMAGE, [(0, 0, 4, 4)], (2, 3, 8, 8)), ValueError, "for a batch of 2"),
        (lambda: kv_cv.crop_and_resize(IMAGE, [(40, 0, 4, 4)], (1, 3, 8, 8)), ValueError, "lies outside"),
        (lambda: kv_cv.crop_and_resize(IMAGE, [(0, 0, -4, 4)], (1, 3, 8, 8)), ValueError, "positive width"),
        (lambda: kv_cv.crop_and_resize(IMAGE, "all", (1, 3, 8, 8)), TypeError, "rois must be a list"),
        (lambda: kv_cv.crop_and_resize(IMAGE, None, (1, 3, 8, 8), layout="chw"), ValueError, "'nchw' or 'nhwc'"),
        (lambda: kv_cv.crop_and_resize(IMAGE, None, (1, 3, 8, 8), order="rbg"), ValueError, "'rgb' or 'bgr'"),
        (lambda: kv_cv.crop_and_resize(IMAGE, None, (1, 3, 8, 8), out=np.zeros((1, 3, 8, 9), np.float32)),
         ValueError, "shape (1, 3, 8, 8)"),
        (lambda: kv_cv.crop_and_resize(IMAGE, None, (1, 3, 8, 8), out=np.zeros((1, 3, 8, 16), np.float32)[..., ::2]),
         ValueError, "contiguous rows"),
        (lambda: kv_cv.crop_and_resize(kv_cv.Frame(format="nv12", size=(30, 20)), [(1, 1, 5, 5)], (1, 3, 5, 5)),
         kv_cv.Error, "Assertion failed"),
    ],
)
def test_crop_and_resize_errors(call, kind, fragment):
    expect_error(call, kind, fragment)


def clusters(rng):
    """Rectangles around a few centres, with jitter, in shuffled order."""
    rects = []
    for cx, cy, size, count in [(50, 50, 40, 5), (200, 80, 30, 3), (120, 200, 60, 1), (52, 48, 38, 2)]:
        for _ in range(count):
            jitter = rng.integers(-2, 3, 4)
            rects.append([cx - size // 2 + jitter[0], cy - size // 2 + jitter[1], size + jitter[2], size + jitter[3]])
    return np.array(rects, np.int32)[rng.permutation(len(rects))]


@pytest.mark.parametrize("threshold, eps", [(1, 0.2), (2, 0.2), (0, 0.2), (1, 0.05), (1, 1.0), (4, 0.3)])
def test_group_rectangles_equals_cv2(rng, threshold, eps):
    rects = clusters(rng)
    ours, weights = kv_cv.group_rectangles(rects, threshold, eps)
    theirs, their_weights = cv2.groupRectangles(rects.tolist(), threshold, eps)
    assert ours.dtype == np.int32 and ours.shape == (len(theirs), 4)
    np.testing.assert_array_equal(ours, np.asarray(theirs).reshape(-1, 4))
    np.testing.assert_array_equal(weights, np.asarray(their_weights).reshape(-1))


def test_group_rectangles_with_levels_keeps_the_best():
    rects = [(10, 10, 20, 20), (10, 10, 20, 20), (11, 10, 20, 20)]
    out, levels, scores = kv_cv.group_rectangles(rects, 1, levels=[3, 5, 5], level_weights=[0.5, 0.2, 0.9])
    np.testing.assert_array_equal(out, [[10, 10, 20, 20]])
    assert levels.tolist() == [5] and scores.tolist() == [0.9]
    same = kv_cv.group_rectangles(rects, 1, weights=[3, 5, 5], level_weights=[0.5, 0.2, 0.9])
    assert [a.tolist() for a in same] == [out.tolist(), [5], [0.9]]
    untouched, ones = kv_cv.group_rectangles(rects, 0)
    assert untouched.tolist() == [list(r) for r in rects] and ones.tolist() == [1, 1, 1]
    empty, none = kv_cv.group_rectangles([], 1)
    assert empty.shape == (0, 4) and none.shape == (0,)
    expect_error(lambda: kv_cv.group_rectangles(rects, 1, levels=[1]), ValueError, "holds 1 values for 3")
    expect_error(lambda: kv_cv.group_rectangles(rects, 1, weights=[1] * 3, levels=[1] * 3), TypeError, "not both")
    expect_error(lambda: kv_cv.group_rectangles([(1, 2, 3)], 1), TypeError, "rects[0]")
    expect_error(lambda: kv_cv.group_rectangles(rects, 1.5), TypeError, "threshold must be an integer")


def test_half_floats_match_numpy(rng):
    halves = np.arange(1 << 16, dtype=np.uint16).view(np.float16).reshape(256, 16, 16)  # every bit pattern
    singles = kv_cv.fp16_to_fp32(halves)
    assert singles.shape == halves.shape and singles.dtype == np.float32
    expected = halves.astype(np.float32)
    np.testing.assert_array_equal(np.isnan(singles), np.isnan(expected))
    finite = ~np.isnan(expected)
    np.testing.assert_array_equal(singles[finite].view(np.uint32), expected[finite].view(np.uint32))

    scaled = rng.standard_normal(5000) * 10.0 ** rng.integers(-9, 6, 5000)
    values = np.concatenate([scaled, [0.0, -0.0, 65504, 65520, 1e6, -1e6, np.inf, -np.inf, 5.96e-8, 2.98e-8]])
    values = values.astype(np.float32)
    with np.errstate(over="ignore"):
        expected = values.astype(np.float16)
    np.testing.assert_array_equal(kv_cv.fp32_to_fp16(values).view(np.uint16), expected.view(np.uint16))
    np.testing.assert_array_equal(kv_cv.fp32_to_fp16(values[::3]), expected[::3])  # not contiguous: copied first
    assert kv_cv.fp16_to_fp32(np.array(1.5, np.float16)).shape == ()
    assert kv_cv.fp32_to_fp16(np.zeros((0, 3), np.float32)).shape == (0, 3)
    expect_error(lambda: kv_cv.fp16_to_fp32(values), TypeError, "float16 array")
    expect_error(lambda: kv_cv.fp32_to_fp16([1.0]), TypeError, "float32 array")
