"""kv_cv: image pre-processing for models on numpy arrays, as cv2 does it, faster.

Images are numpy arrays as in cv2: HxWx3 uint8 is BGR, HxW uint8 is gray, HxWx3 float32
is FRAME_FLOAT_32_C3. Every other pixel format (nv12, i420, yuyv, planar RGB, ...) goes
through kv_cv.Frame, which views the caller's memory without copying; an RGB array is
kv_cv.Frame(a, format="rgb"). Calls that touch pixels release the GIL and run on the
calling thread with that thread's own backend, so threads scale across cores.

    import numpy as np, kv_cv
    camera = kv_cv.Frame(nv12_bytes, format="nv12", size=(1920, 1080))
    tensor = kv_cv.crop_and_resize(camera, [(640, 360, 640, 360)], (1, 3, 224, 224),
                                   mean=(123.7, 116.3, 103.5), std=(58.4, 57.1, 57.4))

Calls: convert, resize, rotate, warp_affine, crop_and_resize, group_rectangles,
fp16_to_fp32, fp32_to_fp16; the row pipeline Scaler, FormatConverter and produce_frame.
Library errors raise kv_cv.Error (a RuntimeError with .status, .message, .function);
bad arguments raise TypeError or ValueError. help(kv_cv.resize) and friends tell the rest.
"""

from ._kv_cv import *  # noqa: F401,F403  (every public name of the compiled core)
from ._kv_cv import __all__, __version__  # noqa: F401
