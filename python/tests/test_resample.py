"""The antialiasing filters of resize and Scaler against Pillow's Image.resize on the same
arrays (8-bit: sample for sample; float: to float rounding), and on frames of other formats."""

import cv2
import numpy as np
import pytest
from PIL import Image

import kv_cv
from conftest import expect_error, max_diff, nv12_from_i420, smooth_image

PILLOW = {"box": Image.BOX, "triangle": Image.BILINEAR, "cubic": Image.BICUBIC, "lanczos3": Image.LANCZOS}
FILTERS = ["box", "triangle", "cubic", "lanczos2", "lanczos3", "mitchell"]
# Reductions by 1.5, 3.7 and 8 on each axis (unequal), an enlargement, one axis unchanged.
SIZES = [(214, 101), (87, 41), (40, 19), (517, 243), (321, 60)]


@pytest.mark.parametrize("method", sorted(PILLOW))
@pytest.mark.parametrize("channels", [1, 3])
@pytest.mark.parametrize("backend", ["fast", "base"])
def test_bytes_equal_pillow(rng, method, channels, backend):
    # Noise shows every difference in weights, support, normalisation and rounding.
    image = rng.integers(0, 256, (151, 321, 3)[:2 + (channels == 3)], dtype=np.uint8)
    pil = Image.fromarray(image)  # the filters treat channels alike: BGR resizes as RGB does
    for size in SIZES:
        ours = kv_cv.resize(image, size, method, backend=backend)
        assert ours.shape == (size[1], size[0]) + image.shape[2:]
        np.testing.assert_array_equal(ours, np.asarray(pil.resize(size, PILLOW[method])), err_msg=f"{size}")


@pytest.mark.parametrize("method", sorted(PILLOW))
def test_float_gray_close_to_pillow(rng, method):
    image = rng.random((97, 133), dtype=np.float32) * 255
    frame = kv_cv.Frame(image, format="grayf32")
    for size in [(50, 31), (211, 140)]:
        ours = kv_cv.resize(frame, size, method)
        want = np.asarray(Image.fromarray(image, mode="F").resize(size, PILLOW[method]))
        np.testing.assert_allclose(np.asarray(ours), want, atol=2e-3)


@pytest.mark.parametrize("method", FILTERS)
def test_flat_image_stays_flat_and_out_is_filled(rng, method):
    flat = np.full((61, 83, 3), (200, 30, 90), np.uint8)
    for size in [(1, 1), (20, 13), (150, 100)]:
        np.testing.assert_array_equal(kv_cv.resize(flat, size, method), np.full((size[1], size[0], 3), (200, 30, 90)))
    out = np.zeros((13, 20, 3), np.uint8)
    assert kv_cv.resize(smooth_image(rng, 61, 83), None, method, out=out) is out
    assert out.any()


@pytest.mark.parametrize("method", FILTERS)
def test_row_pipeline_equals_resize_on_nv12(rng, method):
    # 4:2:0 chroma is resampled in its own plane: 64x48 chroma of a 128x96 frame to 27x17.
    i420 = cv2.cvtColor(smooth_image(rng, 96, 128), cv2.COLOR_BGR2YUV_I420)
    frame = kv_cv.Frame(nv12_from_i420(i420, 128, 96), format="nv12")
    whole = kv_cv.resize(frame, (53, 33), method)
    assert isinstance(whole, kv_cv.Frame) and whole.format == "nv12" and whole.size == (53, 33)
    np.testing.assert_array_equal(whole.planes[0], kv_cv.resize(frame.planes[0], (53, 33), method))
    chained = kv_cv.produce_frame(kv_cv.FormatConverter(kv_cv.Scaler(frame, (53, 33), method), "bgr"))
    assert max_diff(chained, kv_cv.convert(whole, "bgr", backend="base")) == 0


def test_antialiasing_removes_what_bilinear_aliases():
    # Stripes of period 2.5 pixels, reduced 5.4 times: far above the output's Nyquist limit, so
    # away from the borders (where the clipped kernel no longer cancels them) the filters leave
    # grey; bilinear samples the stripes into a strong false pattern.
    x = np.arange(500)
    stripes = np.tile((127.5 + 127.5 * np.cos(2 * np.pi * x / 2.5)).astype(np.uint8), (40, 1))
    for method in ["triangle", "cubic", "lanczos2", "lanczos3", "mitchell"]:
        assert np.ptp(kv_cv.resize(stripes, (93, 8), method)[:, 3:-3]) <= 3, method
    assert np.ptp(kv_cv.resize(stripes, (93, 8), "bilinear")[:, 3:-3]) >= 100


def test_unknown_method_lists_the_filters():
    expect_error(lambda: kv_cv.resize(np.zeros((4, 4), np.uint8), (2, 2), "bicubic"), ValueError, "lanczos3")
