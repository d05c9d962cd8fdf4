"""kv_cv.Frame: format names, zero-copy views of every memory layout, owners kept
alive, plane views, and a clear error for every way data can fail to hold a frame."""

import gc

import numpy as np
import pytest

import kv_cv
from conftest import expect_error, smooth_image


@pytest.mark.parametrize(
    "name, expected",
    [("nv12", "nv12"), ("NV12", "nv12"), ("FRAME_NV12", "nv12"), ("frame_bgr_8", "bgr"), ("Gray", "gray"),
     ("yuv420p", "i420"), ("YUV444_PLANAR", "yuv444p"), ("FRAME_FLOAT_32_C3", "f32c3"), ("yuy2", "yuyv")],
)
def test_format_names_as_kvcv_spells_them(name, expected):
    assert kv_cv.Frame(format=name, size=(4, 2)).format == expected


def test_image_arrays_imply_their_format():
    assert kv_cv.Frame(np.zeros((3, 5), np.uint8)).format == "gray"
    assert kv_cv.Frame(np.zeros((3, 5, 3), np.uint8)).format == "bgr"
    assert kv_cv.Frame(np.zeros((3, 5, 3), np.float32)).format == "f32c3"
    assert kv_cv.Frame(np.zeros((3, 5, 3), np.uint8)).size == (5, 3)


def test_nv12_array_is_viewed_in_place(rng):
    data = rng.integers(0, 256, (6 * 3 // 2, 8), dtype=np.uint8)
    frame = kv_cv.Frame(data, format="nv12")
    assert frame.size == (8, 6)
    y, uv = frame.planes
    assert y.shape == (6, 8) and uv.shape == (3, 4, 2)
    assert np.shares_memory(y, data) and np.shares_memory(uv, data)
    np.testing.assert_array_equal(uv, data[6:].reshape(3, 4, 2))
    y[0, 0] = 17
    assert data[0, 0] == 17  # writes go to the caller's memory


def test_sliced_array_keeps_its_row_pitch(rng):
    # A camera buffer of pitch 64 holding a 40x20 NV12 image; the slice has pitch 64 too.
    buffer = rng.integers(0, 256, (30, 64), dtype=np.uint8)
    sliced = buffer[:, :40]
    frame = kv_cv.Frame(sliced, format="nv12", size=(40, 20))
    y, uv = frame.planes
    assert y.strides[0] == 64 and np.shares_memory(y, buffer)
    np.testing.assert_array_equal(y, buffer[:20, :40])
    np.testing.assert_array_equal(uv, buffer[20:30, :40].reshape(10, 20, 2))
    packed = kv_cv.Frame(np.ascontiguousarray(sliced), format="nv12")
    np.testing.assert_array_equal(kv_cv.convert(frame, "bgr"), kv_cv.convert(packed, "bgr"))


def test_planar_chroma_uses_half_the_pitch(rng):
    # I420 in rows of pitch 32: U and V rows at pitch 16, as Frame.wrap lays them.
    buffer = rng.integers(0, 256, (12, 32), dtype=np.uint8)
    frame = kv_cv.Frame(buffer, format="i420", size=(16, 8))
    y, u, v = frame.planes
    flat = buffer.reshape(-1)
    np.testing.assert_array_equal(u, flat[8 * 32:8 * 32 + 4 * 16].reshape(4, 16)[:, :8])
    np.testing.assert_array_equal(v, flat[8 * 32 + 4 * 16:8 * 32 + 8 * 16].reshape(4, 16)[:, :8])
    # Cut to 16 columns, the last V row would lie beyond the slice.
    expect_error(lambda: kv_cv.Frame(buffer[:, :16], format="i420", size=(16, 8)), ValueError, "too small")


def test_flat_buffer_and_plane_list_describe_the_same_frame(rng):
    width, height = 10, 6
    y = rng.integers(0, 256, (height, width), dtype=np.uint8)
    uv = rng.integers(0, 256, (height // 2, width // 2, 2), dtype=np.uint8)
    flat = kv_cv.Frame(y.tobytes() + uv.tobytes(), format="nv12", size=(width, height))
    padded_y = np.zeros((height, 32), np.uint8)
    padded_y[:, :width] = y
    planes = kv_cv.Frame([padded_y[:, :width], uv], format="nv12")
    assert planes.size == (width, height)
    np.testing.assert_array_equal(kv_cv.convert(flat, "bgr"), kv_cv.convert(planes, "bgr"))
    assert not flat.planes[0].flags.writeable  # bytes are read-only
    assert planes.planes[0].flags.writeable


def test_full_size_planar_arrays_are_plane_first(rng):
    bgr = smooth_image(rng, 7, 9)
    planar = np.ascontiguousarray(bgr.transpose(2, 0, 1))
    frame = kv_cv.Frame(planar, format="bgrp")
    assert frame.size == (9, 7)
    np.testing.assert_array_equal(kv_cv.convert(frame, "bgr"), bgr)
    for p in range(3):
        assert np.shares_memory(frame.planes[p], planar)


def test_owner_outlives_every_python_reference(rng):
    data = rng.integers(0, 256, (12, 8), dtype=np.uint8)
    expected = data.copy()
    frame = kv_cv.Frame(data, format="nv12")
    plane = frame.planes[1]
    del data, frame
    gc.collect()
    np.testing.assert_array_equal(plane, expected[8:].reshape(4, 4, 2))  # the view holds frame and array

    result = kv_cv.convert(smooth_image(rng, 8, 8), "i420")  # a frame owning its memory
    u = result.planes[1]
    del result
    gc.collect()
    assert u.shape == (4, 4) and int(u.sum()) > 0


def test_asarray_gives_the_one_plane(rng):
    image = smooth_image(rng, 5, 7)
    frame = kv_cv.Frame(image)
    view = np.asarray(frame)
    assert view.shape == (5, 7, 3) and np.shares_memory(view, image)
    np.testing.assert_array_equal(np.asarray(frame, dtype=np.float32), image.astype(np.float32))
    expect_error(lambda: np.asarray(kv_cv.Frame(format="nv12", size=(4, 4))), ValueError, "frame.planes")


def test_allocated_frames_start_black_and_report_themselves():
    frame = kv_cv.Frame(format="yuyv", size=(5, 3))
    (plane,) = frame.planes
    assert plane.shape == (3, 6, 2) and not plane.any()  # odd width: the last pair is whole
    assert "yuyv" in repr(frame) and "5x3" in repr(frame)


@pytest.mark.parametrize(
    "make, kind, fragment",
    [
        (lambda: kv_cv.Frame(np.zeros((6, 4), np.uint8), format="nv13"), ValueError, "unknown format 'nv13'"),
        (lambda: kv_cv.Frame(np.zeros((6, 4), np.uint8), format=8), TypeError, "format must be a string"),
        (lambda: kv_cv.Frame(b"\0" * 10, format="nv12", size=(4, 4)), ValueError, "holds 10 bytes"),
        (lambda: kv_cv.Frame(b"\0" * 24, format="nv12"), TypeError, "size=(width, height) is needed"),
        (lambda: kv_cv.Frame(np.zeros((4, 4), np.float64)), TypeError, "format= is needed"),
        (lambda: kv_cv.Frame(np.zeros((6, 4), np.uint8)[::-1], format="nv12"), ValueError, "negative strides"),
        (lambda: kv_cv.Frame(np.zeros((7, 4), np.uint8), format="nv12"), ValueError, "cannot tell the size"),
        (lambda: kv_cv.Frame(np.zeros((6, 4), np.uint8), format="nv12", size=(4, 8)), ValueError, "too small"),
        (lambda: kv_cv.Frame(np.zeros((6, 4), np.uint8), format="nv12", size=(6, 4)), ValueError, "needs 6"),
        (lambda: kv_cv.Frame(np.zeros((4, 8), np.uint8)[:, ::2], format="gray"), ValueError, "contiguous"),
        (lambda: kv_cv.Frame(np.zeros((4, 4, 3), np.uint16), format="bgr"), TypeError, "uint8 samples"),
        (lambda: kv_cv.Frame(np.zeros((4, 4), ">f4"), format="f32"), ValueError, "byte order"),
        (lambda: kv_cv.Frame(np.zeros(4 * 4 * 12 + 1, np.uint8)[1:], format="f32c3", size=(4, 4)), ValueError,
         "aligned"),
        (lambda: kv_cv.Frame(np.zeros((40000, 2), np.uint8)), ValueError, "up to 32767"),
        (lambda: kv_cv.Frame(np.zeros((0, 4), np.uint8)), ValueError, "empty"),
        (lambda: kv_cv.Frame(np.lib.stride_tricks.as_strided(np.zeros(4, np.uint8), (4, 4), (0, 1))), ValueError,
         "rows overlap"),
        (lambda: kv_cv.Frame([np.zeros((4, 4), np.uint8)], format="nv12"), ValueError, "2 planes"),
        (lambda: kv_cv.Frame([np.zeros((4, 4), np.uint8), np.zeros((2, 1, 2), np.uint8)], format="nv12"),
         ValueError, "must have shape (2, 2, 2)"),
        (lambda: kv_cv.Frame([np.zeros((4, 4), np.uint8), "uv"], format="nv12"), TypeError, "numpy array"),
        (lambda: kv_cv.Frame(format="nv12"), TypeError, "needs format= and size="),
        (lambda: kv_cv.Frame(np.zeros((4, 4), np.uint8), size=(0, 4)), ValueError, "between (1, 1)"),
        (lambda: kv_cv.Frame(np.zeros((4, 4), np.uint8), size="4x4"), TypeError, "(width, height) pair"),
        (lambda: kv_cv.Frame("pixels", format="gray"), TypeError, "data must be"),
    ],
)
def test_bad_data_gets_one_clear_sentence(make, kind, fragment):
    expect_error(make, kind, fragment)
