"""convert, resize, rotate and warp_affine against cv2 and numpy on the same arrays,
out= in place, and the errors of bad arguments."""

import cv2
import numpy as np
import pytest

import kv_cv
from conftest import bt601_yuv, expect_error, max_diff, nv12_from_i420, smooth_image

BACKENDS = ["fast", "base"]
# Documented rounding of 8-bit colour conversions: the fast backend rounds, the row
# pipeline's fixed-point kernels truncate (up to 2 levels below).
ROUNDING = {"fast": 1, "base": 2}


@pytest.mark.parametrize("backend", BACKENDS)
@pytest.mark.parametrize("channels", [1, 3])
@pytest.mark.parametrize("size", [(160, 120), (213, 97), (641, 481), (1000, 700)])
def test_bilinear_within_two_levels_of_inter_linear(rng, backend, channels, size):
    image = smooth_image(rng, 241, 321, channels)
    ours = kv_cv.resize(image, size, "bilinear", backend=backend)
    assert ours.shape == image.shape[:0] + (size[1], size[0]) + image.shape[2:]
    assert max_diff(ours, cv2.resize(image, size, interpolation=cv2.INTER_LINEAR)) <= 2


@pytest.mark.parametrize("factor", [2, 3, 4, 5])
def test_integer_area_reduction_equals_inter_area(rng, factor):
    image = rng.integers(0, 256, (240, 360, 3), dtype=np.uint8)  # noise: every rounding shows
    size = (360 // factor, 240 // factor)
    reference = cv2.resize(image, size, interpolation=cv2.INTER_AREA)
    np.testing.assert_array_equal(kv_cv.resize(image, size, "area"), reference)
    # The row pipeline weighs in 16-bit fixed point and truncates: a few levels off.
    assert max_diff(kv_cv.resize(image, size, "area", backend="base"), reference) <= 4


@pytest.mark.parametrize("backend", BACKENDS)
def test_nearest_is_centre_aligned(rng, backend):
    image = rng.integers(0, 256, (81, 121, 3), dtype=np.uint8)
    for size in [(60, 40), (37, 29)]:
        np.testing.assert_array_equal(kv_cv.resize(image, size, "nearest", backend=backend),
                                      cv2.resize(image, size, interpolation=cv2.INTER_NEAREST_EXACT))
    doubled = kv_cv.resize(image, (242, 162), "nearest", backend=backend)
    np.testing.assert_array_equal(doubled, image.repeat(2, axis=0).repeat(2, axis=1))


def test_float_images_resize_as_floats(rng):
    image = rng.random((50, 70, 3), dtype=np.float32) * 255
    ours = kv_cv.resize(image, (33, 21))
    assert ours.dtype == np.float32
    np.testing.assert_allclose(ours, cv2.resize(image, (33, 21), interpolation=cv2.INTER_LINEAR), atol=1e-3)


def test_multi_plane_frames_resize_plane_by_plane(rng):
    i420 = cv2.cvtColor(smooth_image(rng, 96, 128), cv2.COLOR_BGR2YUV_I420)
    frame = kv_cv.Frame(nv12_from_i420(i420, 128, 96), format="nv12")
    small = kv_cv.resize(frame, (64, 48))
    assert isinstance(small, kv_cv.Frame) and small.format == "nv12" and small.size == (64, 48)
    np.testing.assert_array_equal(small.planes[0], kv_cv.resize(frame.planes[0], (64, 48)))


def test_out_is_written_in_place(rng):
    image = smooth_image(rng, 60, 80)
    expected = kv_cv.resize(image, (40, 30))
    out = np.zeros((30, 40, 3), np.uint8)
    assert kv_cv.resize(image, (40, 30), out=out) is out
    np.testing.assert_array_equal(out, expected)
    # A slice with padded rows, and the size taken from out.
    canvas = np.zeros((30, 64, 3), np.uint8)
    view = canvas[:, 10:50]
    assert kv_cv.resize(image, None, out=view) is view
    np.testing.assert_array_equal(canvas[:, 10:50], expected)
    assert not canvas[:, :10].any() and not canvas[:, 50:].any()
    # Multi-plane results go into a Frame.
    nv12 = kv_cv.convert(image, "nv12")
    target = kv_cv.Frame(format="nv12", size=(40, 30))
    assert kv_cv.resize(nv12, (40, 30), out=target) is target
    np.testing.assert_array_equal(target.planes[1], kv_cv.resize(nv12, (40, 30)).planes[1])


@pytest.mark.parametrize("by", [90, 180, 270, -90, 0, 450])
@pytest.mark.parametrize("channels", [1, 3])
def test_quarter_turns_equal_rot90(rng, by, channels):
    image = rng.integers(0, 256, (13, 21, 3) if channels == 3 else (13, 21), dtype=np.uint8)
    np.testing.assert_array_equal(kv_cv.rotate(image, by), np.rot90(image, by // 90))


def test_quarter_turn_of_nv12_turns_every_plane(rng):
    data = rng.integers(0, 256, (12 * 3 // 2, 16), dtype=np.uint8)
    turned = kv_cv.rotate(kv_cv.Frame(data, format="nv12"))
    y, uv = kv_cv.Frame(data, format="nv12").planes
    assert turned.size == (12, 16)
    np.testing.assert_array_equal(turned.planes[0], np.rot90(y))
    np.testing.assert_array_equal(turned.planes[1], np.rot90(uv))


def test_rotation_by_an_angle_holds_the_whole_rectangle():
    image = np.full((40, 60, 3), 200, np.uint8)
    turned = kv_cv.rotate(image, angle=30.0)
    assert turned.shape[0] > 40 and turned.shape[1] > 60  # the turned box
    assert (turned[turned.shape[0] // 2, turned.shape[1] // 2] == 200).all()
    assert (turned[0, 0] == 0).all()  # corners lie outside the source: black
    part = kv_cv.rotate(image, angle=0.0, rect=(10, 5, 20, 10))
    np.testing.assert_array_equal(part, image[5:15, 10:30])


@pytest.mark.parametrize("interpolation, cv_flag, tolerance",
                         [("bilinear", cv2.INTER_LINEAR, 2), ("nearest", cv2.INTER_NEAREST, 0)])
def test_warp_affine_matches_cv2(rng, interpolation, cv_flag, tolerance):
    image = smooth_image(rng, 90, 120)
    matrix = np.array([[0.8, 0.2, 5.0], [-0.15, 0.9, 12.0]], np.float32)
    ours = kv_cv.warp_affine(image, matrix, (100, 80), interpolation)
    assert max_diff(ours, cv2.warpAffine(image, matrix, (100, 80), flags=cv_flag)) <= tolerance
    inverse = kv_cv.warp_affine(image, matrix.tolist(), (100, 80), interpolation, inverse=True)
    reference = cv2.warpAffine(image, matrix, (100, 80), flags=cv_flag | cv2.WARP_INVERSE_MAP)
    assert max_diff(inverse, reference) <= tolerance


def test_gray_conversion_within_rounding_of_cv2(rng):
    image = rng.integers(0, 256, (31, 47, 3), dtype=np.uint8)
    for backend in BACKENDS:
        gray = kv_cv.convert(image, "gray", backend)
        assert max_diff(gray, cv2.cvtColor(image, cv2.COLOR_BGR2GRAY)) <= ROUNDING[backend]


@pytest.mark.parametrize("backend", BACKENDS)
def test_yuv_420_to_bgr_within_two_levels_of_cv2(rng, backend):
    i420 = cv2.cvtColor(smooth_image(rng, 48, 64), cv2.COLOR_BGR2YUV_I420)
    ours = kv_cv.convert(kv_cv.Frame(i420, format="i420"), "bgr", backend)
    assert max_diff(ours, cv2.cvtColor(i420, cv2.COLOR_YUV2BGR_I420)) <= 2
    nv12 = nv12_from_i420(i420, 64, 48)
    ours = kv_cv.convert(kv_cv.Frame(nv12, format="nv12"), "bgr", backend)
    assert max_diff(ours, cv2.cvtColor(nv12, cv2.COLOR_YUV2BGR_NV12)) <= 2


@pytest.mark.parametrize("backend", BACKENDS)
@pytest.mark.parametrize("size", [(64, 48), (33, 17)])
def test_bgr_to_420_is_bt601_with_averaged_chroma(rng, backend, size):
    width, height = size
    image = rng.integers(0, 256, (height, width, 3), dtype=np.uint8)
    y, u, v = bt601_yuv(image)
    ch, cw = (height + 1) // 2, (width + 1) // 2
    # Chroma of each 2x2 block (edge blocks of odd sizes hold fewer pixels).
    def block_mean(c):
        padded = np.pad(c, ((0, 2 * ch - height), (0, 2 * cw - width)), mode="edge")
        return padded.reshape(ch, 2, cw, 2).mean(axis=(1, 3))
    i420 = kv_cv.convert(image, "i420", backend)
    assert max_diff(i420.planes[0], np.round(y)) <= ROUNDING[backend]
    assert max_diff(i420.planes[1], np.round(block_mean(u))) <= ROUNDING[backend]
    assert max_diff(i420.planes[2], np.round(block_mean(v))) <= ROUNDING[backend]
    nv12 = kv_cv.convert(image, "nv12", backend)
    np.testing.assert_array_equal(nv12.planes[1][..., 0], i420.planes[1])
    np.testing.assert_array_equal(nv12.planes[1][..., 1], i420.planes[2])


def test_byte_and_float_conversions_are_exact(rng):
    image = rng.integers(0, 256, (9, 11, 3), dtype=np.uint8)
    np.testing.assert_array_equal(kv_cv.convert(image, "rgb"), image[..., ::-1])
    as_float = kv_cv.convert(image, "f32c3")
    assert as_float.dtype == np.float32
    np.testing.assert_array_equal(as_float, image.astype(np.float32))
    np.testing.assert_array_equal(kv_cv.convert(as_float, "bgr"), image)
    planar = kv_cv.convert(kv_cv.Frame(image[..., ::-1].copy(), format="rgb"), "rgbp")
    np.testing.assert_array_equal(np.stack(planar.planes, axis=-1), image[..., ::-1])


def test_library_errors_carry_status_message_and_function():
    odd = kv_cv.Frame(format="nv12", size=(5, 3))
    error = expect_error(lambda: kv_cv.convert(odd, "bgr"), kv_cv.Error, "Assertion failed")
    assert isinstance(error, RuntimeError)
    assert error.status == 2 and error.function == "kv::CvBackendSimd::colorCvt" and error.line > 0
    assert error.message.startswith("Assertion failed: src_region.width() % 2 == 0")
    error = expect_error(lambda: kv_cv.convert(kv_cv.Frame(format="yv12", size=(4, 4)), "bgr"), kv_cv.Error,
                         "Unsupported conversion")
    assert error.status == 8
    # The row pipeline takes what the fast backend refuses.
    assert kv_cv.convert(odd, "bgr", backend="base").shape == (3, 5, 3)


IMAGE = np.zeros((8, 8, 3), np.uint8)


@pytest.mark.parametrize(
    "call, kind, fragment",
    [
        (lambda: kv_cv.resize(IMAGE, (0, 5)), ValueError, "between (1, 1)"),
        (lambda: kv_cv.resize(IMAGE, (5.5, 5)), TypeError, "pair of integers"),
        (lambda: kv_cv.resize(IMAGE, "big"), TypeError, "pair of integers"),
        (lambda: kv_cv.resize(IMAGE), TypeError, "needs size="),
        (lambda: kv_cv.resize(IMAGE, (4, 4), "cubic"), ValueError, "'nearest', 'bilinear' or 'area'"),
        (lambda: kv_cv.resize(IMAGE, (4, 4), 2), TypeError, "method must be a string"),
        (lambda: kv_cv.resize(IMAGE, (4, 4), backend="gpu"), ValueError, "'fast' or 'base'"),
        (lambda: kv_cv.resize(np.zeros((4, 4), np.float64), (2, 2)), TypeError, "float64 array"),
        (lambda: kv_cv.resize(np.zeros((4, 4, 4), np.uint8), (2, 2)), TypeError, "kv_cv.Frame(data, format"),
        (lambda: kv_cv.resize([[1, 2], [3, 4]], (2, 2)), TypeError, "must be an HxW"),
        (lambda: kv_cv.resize(IMAGE, (4, 4), out=np.zeros((4, 5, 3), np.uint8)), ValueError, "shape (4, 4, 3)"),
        (lambda: kv_cv.resize(IMAGE, (4, 4), out=np.zeros((4, 4, 3), np.float32)), ValueError, "uint8 array"),
        (lambda: kv_cv.resize(IMAGE, (4, 4), out=np.zeros((4, 4, 3), np.uint8)[::-1]), ValueError, "negative"),
        (lambda: kv_cv.resize(IMAGE, (4, 4), out=np.broadcast_to(np.zeros((1, 1, 1), np.uint8), (4, 4, 3))),
         ValueError, "read-only"),
        (lambda: kv_cv.resize(kv_cv.Frame(format="nv12", size=(8, 8)), (4, 4), out=np.zeros((6, 4), np.uint8)),
         TypeError, "must be a kv_cv.Frame"),
        (lambda: kv_cv.resize(IMAGE, (4, 4), out=kv_cv.Frame(format="bgr", size=(4, 5))), ValueError, "4x4"),
        (lambda: kv_cv.resize(IMAGE, (4, 4), out=[]), TypeError, "out must be None"),
        (lambda: kv_cv.convert(IMAGE, "nv13"), ValueError, "unknown format"),
        (lambda: kv_cv.convert(IMAGE, None), TypeError, "to must be a string"),
        (lambda: kv_cv.rotate(IMAGE, 45), ValueError, "multiple of 90"),
        (lambda: kv_cv.rotate(IMAGE, 90.0), TypeError, "whole number of degrees"),
        (lambda: kv_cv.rotate(IMAGE, 90, angle=3), TypeError, "not both"),
        (lambda: kv_cv.rotate(IMAGE, rect=(0, 0, 4, 4)), TypeError, "rect= goes with angle="),
        (lambda: kv_cv.rotate(IMAGE, angle=float("nan")), ValueError, "finite"),
        (lambda: kv_cv.rotate(IMAGE, angle=10, rect=(0, 0, 0, 4)), ValueError, "positive width"),
        (lambda: kv_cv.rotate(kv_cv.Frame(format="nv12", size=(8, 8)), angle=10), ValueError, "chroma subsampling"),
        (lambda: kv_cv.rotate(kv_cv.Frame(format="yuyv", size=(8, 8))), kv_cv.Error, "Unsupported format"),
        (lambda: kv_cv.warp_affine(IMAGE, [[1, 0, 0]], (8, 8)), TypeError, "2x3"),
        (lambda: kv_cv.warp_affine(IMAGE, [[1, 0, 0], [0, 1, "x"]], (8, 8)), TypeError, "matrix must be a number"),
        (lambda: kv_cv.warp_affine(IMAGE, [[1, 0, 0], [2, 0, 0]], (8, 8)), kv_cv.Error, "Can't create context"),
        (lambda: kv_cv.warp_affine(IMAGE, np.eye(2, 3), (8, 8), "area"), ValueError, "'nearest' or 'bilinear'"),
        (lambda: kv_cv.warp_affine(kv_cv.Frame(format="i420", size=(8, 8)), np.eye(2, 3), (8, 8)), ValueError,
         "chroma subsampling"),
    ],
)
def test_bad_arguments_get_one_clear_sentence(call, kind, fragment):
    expect_error(call, kind, fragment)


@pytest.mark.parametrize("junk", [None, 3, "x", [], b"", object(), np.zeros(0, np.uint8), np.zeros((2, 2, 2, 2)),
                                  np.zeros((2, 0), np.uint8), np.zeros((2, 2), np.complex64)])
def test_junk_never_reaches_the_library(junk):
    calls = [lambda: kv_cv.resize(junk, (2, 2)), lambda: kv_cv.convert(junk, "bgr"), lambda: kv_cv.rotate(junk),
             lambda: kv_cv.warp_affine(junk, np.eye(2, 3), (2, 2)), lambda: kv_cv.resize(IMAGE, junk),
             lambda: kv_cv.resize(IMAGE, (2, 2), method=junk), lambda: kv_cv.resize(IMAGE, (2, 2), out=junk),
             lambda: kv_cv.convert(IMAGE, junk), lambda: kv_cv.rotate(IMAGE, junk),
             lambda: kv_cv.rotate(IMAGE, angle=junk), lambda: kv_cv.warp_affine(IMAGE, junk, (2, 2))]
    for call in calls:
        try:
            call()
        except (TypeError, ValueError):
            pass
