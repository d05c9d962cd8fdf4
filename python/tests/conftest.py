"""Shared helpers of the kv_cv Python tests: seeded images and format models."""

import cv2
import numpy as np
import pytest

import kv_cv

cv2.setNumThreads(1)


@pytest.fixture
def rng():
    return np.random.default_rng(20240611)


def smooth_image(rng, height, width, channels=3):
    """A smooth seeded image (cubic upsampling of noise), so resamplers agree closely."""
    small = rng.integers(0, 256, (max(height // 8, 2), max(width // 8, 2), channels), dtype=np.uint8)
    image = cv2.resize(small, (width, height), interpolation=cv2.INTER_CUBIC)
    return image.reshape(height, width, channels) if channels == 3 else image.reshape(height, width)


def nv12_from_i420(i420, width, height):
    """cv2's (H * 3 / 2, W) I420 layout re-packed as NV12."""
    nv12 = np.empty_like(i420)
    nv12[:height] = i420[:height]
    chroma = nv12[height:].reshape(height // 2, width // 2, 2)
    chroma[..., 0] = i420[height:height + height // 4].reshape(height // 2, width // 2)
    chroma[..., 1] = i420[height + height // 4:].reshape(height // 2, width // 2)
    return nv12


def bt601_yuv(bgr):
    """Per-pixel BT.601 limited-range Y, U, V as floats."""
    b, g, r = (bgr[..., i].astype(np.float64) for i in range(3))
    y = 16 + (65.481 * r + 128.553 * g + 24.966 * b) / 255
    u = 128 + (-37.797 * r - 74.203 * g + 112.0 * b) / 255
    v = 128 + (112.0 * r - 93.786 * g - 18.214 * b) / 255
    return y, u, v


def max_diff(a, b):
    return int(np.abs(np.asarray(a, dtype=np.int32) - np.asarray(b, dtype=np.int32)).max())


def expect_error(call, kind, fragment):
    """`call` raises `kind` with `fragment` in its one-line message."""
    with pytest.raises(kind) as info:
        call()
    message = str(info.value)
    assert fragment in message, message
    assert "\n" not in message, message
    return info.value


__all__ = ["kv_cv", "smooth_image", "nv12_from_i420", "bt601_yuv", "max_diff", "expect_error"]
