"""Type stubs of kv_cv: image pre-processing on numpy arrays (see help(kv_cv))."""

from typing import Literal, Optional, Sequence, Tuple, Union, overload

import numpy as np
import numpy.typing as npt

__version__: str

FormatName = str
"""A pixel format name: 'gray', 'rgb', 'bgr', 'rgbp', 'bgrp', 'i420', 'yv12', 'nv12', 'nv21',
'yv16', 'nv16', 'yuyv', 'uyvy', 'yuv444', 'yuv444p', 'c2_8', 'c3_8', 'c4_8', 'gray16',
'grayf32', 'f32', 'f32c3', 'f32c3p', or a full name such as 'FRAME_NV12' (any case)."""

SizeLike = Tuple[int, int]
RectLike = Tuple[int, int, int, int]
Method = Literal["nearest", "bilinear", "area"]
Backend = Literal["fast", "base"]
Image = Union[npt.NDArray[np.uint8], npt.NDArray[np.float32], "Frame"]
Result = Union[np.ndarray, "Frame"]

class Error(RuntimeError):
    """An error reported by the kv_cv library (a kv::Exception)."""

    status: int
    message: str
    function: str
    file: str
    line: int

class Frame:
    """An image in any pixel format, viewing caller memory without a copy."""

    def __init__(
        self,
        data: Union[np.ndarray, bytes, bytearray, memoryview, Sequence[np.ndarray], None] = None,
        format: Optional[FormatName] = None,
        size: Optional[SizeLike] = None,
    ) -> None: ...
    @property
    def format(self) -> str: ...
    @property
    def size(self) -> Tuple[int, int]: ...
    @property
    def planes(self) -> Tuple[np.ndarray, ...]: ...
    def __array__(self, dtype: Optional[npt.DTypeLike] = None) -> np.ndarray: ...

class RowProducer:
    """The row producers' common base: Scaler and FormatConverter."""

    @property
    def format(self) -> str: ...
    @property
    def size(self) -> Tuple[int, int]: ...
    @property
    def source(self) -> Union[Image, "RowProducer"]: ...

class Scaler(RowProducer):
    """A row producer that resizes (kv::Scaler)."""

    def __init__(self, source: Union[Image, RowProducer], size: SizeLike, method: Method = "bilinear") -> None: ...

class FormatConverter(RowProducer):
    """A row producer that converts the pixel format (kv::FormatConverter)."""

    def __init__(self, source: Union[Image, RowProducer], to: FormatName) -> None: ...

def convert(src: Image, to: FormatName, backend: Backend = "fast") -> Result:
    """Converts an image to another pixel format of the same size."""

@overload
def resize(src: np.ndarray, size: Optional[SizeLike], method: Method = "bilinear", backend: Backend = "fast",
           out: Optional[np.ndarray] = None) -> np.ndarray: ...
@overload
def resize(src: Frame, size: Optional[SizeLike], method: Method = "bilinear", backend: Backend = "fast",
           out: Optional[Result] = None) -> Result: ...
def rotate(src: Image, by: int = 90, *, angle: Optional[float] = None, rect: Optional[RectLike] = None) -> Result:
    """Rotates counter-clockwise: by quarter turns, or by any angle about rect's centre."""

def warp_affine(src: Image, matrix: npt.ArrayLike, size: SizeLike,
                interpolation: Literal["nearest", "bilinear"] = "bilinear", inverse: bool = False) -> Result:
    """Applies a 2x3 affine transform, as cv2.warpAffine with a black border."""

def crop_and_resize(
    src: Image,
    rois: Union[Sequence[RectLike], RectLike, npt.NDArray[np.integer], None],
    shape: Tuple[int, int, int, int],
    dtype: npt.DTypeLike = np.float32,
    layout: Literal["nchw", "nhwc"] = "nchw",
    order: Literal["rgb", "bgr"] = "rgb",
    letterbox: bool = False,
    mean: Union[float, Sequence[float], None] = None,
    std: Union[float, Sequence[float], None] = None,
    out: Optional[np.ndarray] = None,
) -> np.ndarray:
    """Fills a model's input tensor from regions of an image."""

@overload
def group_rectangles(
    rects: Union[Sequence[RectLike], npt.NDArray[np.integer]],
    threshold: int,
    eps: float = 0.2,
    weights: Optional[Sequence[int]] = None,
    levels: Optional[Sequence[int]] = None,
    level_weights: None = None,
) -> Tuple[npt.NDArray[np.int32], npt.NDArray[np.int32]]: ...
@overload
def group_rectangles(
    rects: Union[Sequence[RectLike], npt.NDArray[np.integer]],
    threshold: int,
    eps: float = 0.2,
    weights: Optional[Sequence[int]] = None,
    levels: Optional[Sequence[int]] = None,
    *,
    level_weights: Sequence[float],
) -> Tuple[npt.NDArray[np.int32], npt.NDArray[np.int32], npt.NDArray[np.float64]]: ...
def fp16_to_fp32(a: npt.NDArray[np.float16]) -> npt.NDArray[np.float32]:
    """Converts a float16 array of any shape to float32."""

def fp32_to_fp16(a: npt.NDArray[np.float32]) -> npt.NDArray[np.float16]:
    """Converts a float32 array of any shape to float16, rounding to nearest even."""

def produce_frame(producer: RowProducer, out: Optional[Result] = None) -> Result:
    """Runs a producer chain into an image (an array, or a Frame for multi-plane formats)."""
