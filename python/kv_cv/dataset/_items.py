"""One data set item: the decode rule (shrink-on-load for JPEG) and the preprocessing of a region
into an item of the store, with the package's own calls."""

import dataclasses
import io
import math
from typing import List, NamedTuple, Optional, Sequence, Tuple

import cv2
import numpy as np

import kv_cv

Box = Tuple[int, int, int, int]

MAX_PIXELS = 100_000_000
"""Images with more pixels than this are refused unread (the header tells their size)."""

DTYPES = ("uint8", "float32", "float16")
LAYOUTS = ("nchw", "nhwc")
ORDERS = ("rgb", "bgr")

# libjpeg's scaled decode: a factor of the DCT per reduced flag, largest first.
_REDUCED_FLAGS = ((8, cv2.IMREAD_REDUCED_COLOR_8), (4, cv2.IMREAD_REDUCED_COLOR_4),
                  (2, cv2.IMREAD_REDUCED_COLOR_2), (1, cv2.IMREAD_COLOR))
# EXIF orientation is ignored, as PIL and most training loaders do, so that boxes
# address the stored pixels and the header's size is the decoded size.
_PLAIN = cv2.IMREAD_IGNORE_ORIENTATION
_JPEG_SOF = frozenset(range(0xC0, 0xD0)) - {0xC4, 0xC8, 0xCC}
_PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"


def _probe_method(name: str) -> bool:
    """Whether kv_cv.resize accepts method=name."""
    try:
        kv_cv.resize(np.zeros((4, 4, 3), np.uint8), (2, 2), method=name)
        return True
    except (ValueError, TypeError, kv_cv.Error):
        return False


DEFAULT_METHOD = "lanczos3" if _probe_method("lanczos3") else "area"
"""The best antialiased shrink kv_cv.resize offers in this build: 'lanczos3' where the library has
it, else 'area'."""


class ItemError(ValueError):
    """An item that cannot be made: the file cannot be read or decoded, or its box misses the image.
    str(error) is the reason recorded in the store's failures."""


@dataclasses.dataclass(frozen=True)
class Settings:
    """How every item of a data set is made; validated on construction (ValueError, TypeError)."""

    size: Tuple[int, int] = (224, 224)
    dtype: str = "uint8"
    layout: str = "nchw"
    order: str = "rgb"
    letterbox: bool = False
    mean: Optional[Tuple[float, float, float]] = None
    std: Optional[Tuple[float, float, float]] = None
    method: str = DEFAULT_METHOD
    full_decode: bool = False
    max_pixels: int = MAX_PIXELS

    def __post_init__(self):
        set_ = lambda name, value: object.__setattr__(self, name, value)  # noqa: E731 (frozen)
        size = self.size
        if isinstance(size, str):
            size = parse_size(size)
        if (not isinstance(size, (tuple, list)) or len(size) != 2
                or not all(isinstance(v, (int, np.integer)) and not isinstance(v, bool) for v in size)):
            raise TypeError(f"size must be (width, height), two integers, got {self.size!r}")
        if not all(1 <= v <= 32767 for v in size):
            raise ValueError(f"size must hold two integers in 1..32767, got {tuple(size)}")
        set_("size", (int(size[0]), int(size[1])))
        dtype = np.dtype(self.dtype).name if not isinstance(self.dtype, str) else self.dtype
        for name, value, allowed in (("dtype", dtype, DTYPES), ("layout", self.layout, LAYOUTS),
                                     ("order", self.order, ORDERS)):
            if value not in allowed:
                raise ValueError(f"{name} must be one of {', '.join(allowed)}; got {value!r}")
        set_("dtype", dtype)
        for name in ("mean", "std"):
            set_(name, _per_channel(getattr(self, name), name))
        if (self.mean is not None or self.std is not None) and dtype == "uint8":
            raise ValueError("mean and std need dtype float32 or float16 (a uint8 item holds the pixel values)")
        if self.std is not None and 0.0 in self.std:
            raise ValueError("std must not be 0")
        if not isinstance(self.method, str) or not _probe_method(self.method):
            raise ValueError(f"method {self.method!r} is not one kv_cv.resize accepts")
        if not isinstance(self.max_pixels, (int, np.integer)) or self.max_pixels < 1:
            raise ValueError(f"max_pixels must be a positive integer, got {self.max_pixels!r}")
        set_("letterbox", bool(self.letterbox))
        set_("full_decode", bool(self.full_decode))
        set_("max_pixels", int(self.max_pixels))

    @property
    def item_shape(self) -> Tuple[int, int, int]:
        width, height = self.size
        return (3, height, width) if self.layout == "nchw" else (height, width, 3)

    def as_dict(self) -> dict:
        d = dataclasses.asdict(self)
        d["size"] = list(self.size)
        d["mean"] = list(self.mean) if self.mean is not None else None
        d["std"] = list(self.std) if self.std is not None else None
        return d


def parse_size(text: str) -> Tuple[int, int]:
    """'224x224' -> (224, 224): WxH, as the kvcv tool writes sizes."""
    parts = text.lower().split("x")
    try:
        width, height = (int(p) for p in parts)
    except ValueError:
        raise ValueError(f"a size is WxH, such as 224x224; got {text!r}") from None
    return width, height


def _per_channel(value, name) -> Optional[Tuple[float, float, float]]:
    if value is None:
        return None
    if isinstance(value, str):
        value = [v for v in value.split(",") if v.strip()]
    try:
        values = [float(v) for v in (value if isinstance(value, (list, tuple, np.ndarray)) else [value])]
    except (TypeError, ValueError):
        raise ValueError(f"{name} must be one number or one per channel, got {value!r}") from None
    if len(values) == 1:
        values *= 3
    if len(values) != 3 or not all(math.isfinite(v) for v in values):
        raise ValueError(f"{name} needs 1 or 3 finite values, got {value!r}")
    return tuple(values)


class Decoded(NamedTuple):
    """A decoded image: BGR pixels at 1/scale of the file's width x height."""

    image: np.ndarray
    scale: int
    width: int
    height: int


def clip_box(box: Optional[Box], width: int, height: int) -> Optional[Box]:
    """The part of box inside a width x height image (the whole image for None), as
    kv_cv.crop_and_resize clips its regions; None when nothing is left."""
    if box is None:
        return (0, 0, width, height)
    x, y, w, h = box
    x0, y0, x1, y1 = max(x, 0), max(y, 0), min(x + w, width), min(y + h, height)
    return (x0, y0, x1 - x0, y1 - y0) if x1 > x0 and y1 > y0 else None


def letterbox_rect(region: Tuple[int, int], size: Tuple[int, int]) -> Box:
    """Where a region of this (width, height) lands in an output of `size` with letterbox: the largest
    rectangle of its aspect ratio, centred (kv_cv.crop_and_resize's own rule)."""
    s = min(size[0] / region[0], size[1] / region[1])
    w = max(1, min(size[0], math.floor(region[0] * s + 0.5)))
    h = max(1, min(size[1], math.floor(region[1] * s + 0.5)))
    return ((size[0] - w) // 2, (size[1] - h) // 2, w, h)


def _target(region: Tuple[int, int], settings: Settings) -> Box:
    return letterbox_rect(region, settings.size) if settings.letterbox else (0, 0) + settings.size


def decode_scale(width: int, height: int, boxes: Sequence[Optional[Box]], settings: Settings) -> int:
    """The largest JPEG reduction (8, 4, 2 or 1) that leaves every box's crop at least as large as the
    region it fills in its item. Boxes outside the image do not count."""
    if settings.full_decode:
        return 1
    best = 8
    for box in boxes:
        clipped = clip_box(box, width, height)
        if clipped is None:
            continue
        _, _, tw, th = _target(clipped[2:], settings)
        fits = (s for s, _ in _REDUCED_FLAGS if clipped[2] >= tw * s and clipped[3] >= th * s)
        best = min(best, next(fits, 1))  # a region smaller than its output is enlarged from full size
        if best == 1:
            break
    return best


def _jpeg_header(data: bytes) -> Tuple[int, int, int]:
    """(width, height, offset of the first scan) from a JPEG's markers."""
    i, size, n = 2, None, len(data)
    while i + 4 <= n:
        if data[i] != 0xFF:
            raise ItemError("corrupt JPEG: bad marker")
        marker = data[i + 1]
        if marker == 0xFF:
            i += 1
            continue
        if marker == 0x01 or 0xD0 <= marker <= 0xD8:
            i += 2
            continue
        length = (data[i + 2] << 8) | data[i + 3]
        if marker in _JPEG_SOF and i + 9 <= n:
            size = ((data[i + 7] << 8) | data[i + 8], (data[i + 5] << 8) | data[i + 6])
        if marker == 0xDA:
            if size is None:
                break
            return size[0], size[1], i
        i += 2 + length
    raise ItemError("truncated JPEG: no image data")


def _header_size(data: bytes) -> Optional[Tuple[int, int]]:
    """(width, height) from a PNG or any header Pillow reads, without decoding; None if unknown."""
    if data.startswith(_PNG_SIGNATURE) and len(data) >= 24 and data[12:16] == b"IHDR":
        return int.from_bytes(data[16:20], "big"), int.from_bytes(data[20:24], "big")
    try:
        from PIL import Image

        with Image.open(io.BytesIO(data)) as image:
            return image.size
    except Exception:  # noqa: BLE001 (a header Pillow cannot read: OpenCV decides)
        return None


def _check_pixels(width: int, height: int, limit: int):
    if width * height > limit:
        raise ItemError(f"{width}x{height} image has {width * height} pixels, over the limit of {limit}")


def decode(source, boxes: Sequence[Optional[Box]] = (None,), settings: Optional[Settings] = None) -> Decoded:
    """Decodes an image file (a path, or its bytes) to BGR, as the data set does: a JPEG at the
    smallest reduced scale (1/2, 1/4, 1/8) that still leaves every one of `boxes` (the image's
    items in the data set; None is the whole image) at least as large as its output, unless
    settings.full_decode; every other format in full. Raises ItemError with the reason for a file
    that is missing, empty, truncated, not an image or over settings.max_pixels."""
    settings = settings or Settings()
    if isinstance(source, (bytes, bytearray, memoryview)):
        data = bytes(source)
    else:
        try:
            with open(source, "rb") as f:
                data = f.read()
        except OSError as e:
            raise ItemError(f"cannot read: {e.strerror or e}") from None
    if not data:
        raise ItemError("empty file")
    scale = 1
    if data.startswith(b"\xff\xd8\xff"):
        width, height, scan = _jpeg_header(data)
        _check_pixels(width, height, settings.max_pixels)
        # Entropy-coded data never holds 0xFFD9, so a JPEG without it after the first scan is cut short
        # (libjpeg would fill the rest with grey and only warn). Searched from the end, where it is.
        if data.rfind(b"\xff\xd9", scan) < 0:
            raise ItemError("truncated JPEG: no end-of-image marker")
        scale = decode_scale(width, height, boxes, settings)
    else:
        size = _header_size(data)
        if size is not None:
            _check_pixels(*size, settings.max_pixels)
    flags = _PLAIN | next(flag for s, flag in _REDUCED_FLAGS if s == scale)
    try:
        image = cv2.imdecode(np.frombuffer(data, np.uint8), flags)
    except cv2.error as e:
        raise ItemError(f"cannot decode: {str(e).strip().splitlines()[-1]}") from None
    if image is None or image.size == 0:
        raise ItemError("cannot decode: truncated, corrupt or not an image")
    if image.ndim == 2:  # a decoder that ignored IMREAD_COLOR
        image = cv2.cvtColor(image, cv2.COLOR_GRAY2BGR)
    if scale == 1:
        height, width = image.shape[:2]
        _check_pixels(width, height, settings.max_pixels)
    return Decoded(image, scale, width, height)


def preprocess(decoded: Decoded, box: Optional[Box] = None, settings: Optional[Settings] = None,
               out: Optional[np.ndarray] = None) -> np.ndarray:
    """Makes one item from a decoded image: the box (None: the whole image; in the file's pixels,
    clipped to the image as kv_cv.crop_and_resize clips) resized with settings.method into the
    output (or its letterbox rectangle, between black bars), then laid out, ordered and normalised
    by kv_cv.crop_and_resize. Writes into `out` (an array of settings.item_shape) when given.
    Raises ItemError when the box lies wholly outside the image."""
    settings = settings or Settings()
    clipped = clip_box(box, decoded.width, decoded.height)
    if clipped is None:
        raise ItemError(f"box {tuple(box)} lies outside the {decoded.width}x{decoded.height} image")
    x, y, w, h = clipped
    s, image = decoded.scale, decoded.image
    crop = image[y // s:min(-(-(y + h) // s), image.shape[0]), x // s:min(-(-(x + w) // s), image.shape[1])]
    tx, ty, tw, th = _target((w, h), settings)
    resized = crop if crop.shape[:2] == (th, tw) else kv_cv.resize(crop, (tw, th), method=settings.method)
    width, height = settings.size
    if (tw, th) != (width, height):
        canvas = np.zeros((height, width, 3), np.uint8)
        canvas[ty:ty + th, tx:tx + tw] = resized
        resized = canvas
    if out is None:
        out = np.empty(settings.item_shape, settings.dtype)
    tensor_dtype = np.uint8 if settings.dtype == "uint8" else np.float32
    target = out[None] if settings.dtype != "float16" else None
    tensor = kv_cv.crop_and_resize(resized, None, (1,) + settings.item_shape, dtype=tensor_dtype,
                                   layout=settings.layout, order=settings.order, mean=settings.mean,
                                   std=settings.std, out=target)
    if settings.dtype == "float16":
        out[...] = kv_cv.fp32_to_fp16(tensor[0])
    return out


def load_items(path, boxes: Sequence[Optional[Box]] = (None,), settings: Optional[Settings] = None,
               **parameters) -> List[object]:
    """The items of one image file exactly as kv_cv.dataset.build stores them: one per box (None: the
    whole image), each an array of the item's shape or the ItemError that made it invalid. Pass the
    image's every box in the data set: they decide the JPEG reduction. `parameters` are Settings
    fields (size, dtype, layout, ...), for a call without a Settings."""
    settings = settings or Settings(**parameters)
    boxes = list(boxes)
    try:
        decoded = decode(path, boxes, settings)
    except ItemError as e:
        return [e for _ in boxes]
    items: List[object] = []
    for box in boxes:
        try:
            items.append(preprocess(decoded, box, settings))
        except ItemError as e:
            items.append(e)
    return items
