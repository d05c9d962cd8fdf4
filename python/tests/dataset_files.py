"""Image files for the data set tests: seeded photographs in several formats, and broken files."""

import os

import cv2
import numpy as np


def photo(rng, width, height, detail=True, feature=16):
    """A seeded picture with smooth areas of about `feature` pixels, and fine detail."""
    small = rng.integers(0, 256, (max(height // feature, 2), max(width // feature, 2), 3), dtype=np.uint8)
    image = cv2.resize(small, (width, height), interpolation=cv2.INTER_CUBIC)
    if not detail:
        return image
    noise = rng.integers(-12, 13, image.shape)
    return np.clip(image.astype(np.int16) + noise, 0, 255).astype(np.uint8)


# (suffix, imwrite parameters, how the pixels are stored)
FORMATS = [(".jpg", [cv2.IMWRITE_JPEG_QUALITY, 90], "bgr"), (".jpg", [cv2.IMWRITE_JPEG_PROGRESSIVE, 1], "bgr"),
           (".png", [], "bgr"), (".png", [], "gray"), (".png", [], "bgra16"), (".bmp", [], "bgr"),
           (".tif", [], "bgr"), (".webp", [cv2.IMWRITE_WEBP_QUALITY, 101], "bgr"), (".JPEG", [], "bgr")]


def write_photo(path, image, params=(), kind="bgr"):
    if kind == "gray":
        image = cv2.cvtColor(image, cv2.COLOR_BGR2GRAY)
    elif kind == "bgra16":
        image = cv2.cvtColor(image, cv2.COLOR_BGR2BGRA).astype(np.uint16) * 257
    assert cv2.imwrite(str(path), image, list(params)), path


def make_folder(root, rng, count, sizes=(16, 480)):
    """`count` photographs of random sizes and every format under root (a third in subfolders), and
    broken files beside them. Returns {file name: words of its failure reason} for the broken ones."""
    for i in range(count):
        suffix, params, kind = FORMATS[i % len(FORMATS)]
        folder = os.path.join(root, f"part{i % 3}") if i % 3 else root
        os.makedirs(folder, exist_ok=True)
        width, height = (int(v) for v in rng.integers(sizes[0], sizes[1], 2))
        write_photo(os.path.join(folder, f"img{i:04d}{suffix}"), photo(rng, width, height), params, kind)
    good = cv2.imencode(".jpg", photo(rng, 300, 200))[1].tobytes()
    png = cv2.imencode(".png", photo(rng, 120, 90))[1].tobytes()
    broken = {
        "cut.jpg": (good[:len(good) * 2 // 3], "truncated JPEG"),
        "header-only.jpg": (good[:300], "truncated JPEG"),
        "cut.png": (png[:len(png) // 2], "cannot decode"),
        "empty.png": (b"", "empty file"),
        "notes.jpg": (b"this is not an image\n" * 10, "cannot decode"),
        "huge.png": (_huge_png(), "over the limit"),
    }
    for name, (data, _) in broken.items():
        with open(os.path.join(root, name), "wb") as f:
            f.write(data)
    with open(os.path.join(root, "readme.txt"), "w") as f:
        f.write("not a source: its suffix is not an image's")
    return {name: reason for name, (_, reason) in broken.items()}


def _huge_png():
    """A small file whose header claims 30000 x 30000 pixels."""
    return cv2.imencode(".png", np.zeros((30000, 1), np.uint8))[1].tobytes().replace(
        (1).to_bytes(4, "big") + (30000).to_bytes(4, "big"), (30000).to_bytes(4, "big") * 2, 1)
