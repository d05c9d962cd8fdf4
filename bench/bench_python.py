#!/usr/bin/env python3
"""Speed of the kv_cv Python package, one thread, beside cv2 in the same run.

1. The binding's own cost per call: a 64x64 BGR bilinear resize from Python against the
   same backend call timed in a C++ loop (kv_cv._kv_cv._time_resize).
2. 1920x1080 conversions, resizes and crop-into-tensor from Python beside the cv2 calls a
   user would write instead (cv2.setNumThreads(1)); ratio = kv_cv time / cv2 time.
3. Two Python threads resizing 1080p frames against one thread doing both shares.

Every figure is the best of several repeats. Usage (after building into build/):
    /usr/bin/python3 bench/bench_python.py [--build build] [--quick]
"""

import argparse
import os
import pathlib
import sys
import threading
import time
import timeit

import numpy as np


def best_seconds(call, number, repeat):
    """Best time per call over `repeat` runs of `number` calls."""
    return min(timeit.repeat(call, number=number, repeat=repeat)) / number


def fmt(seconds):
    if seconds < 1e-6:
        return f"{seconds * 1e9:.0f} ns"
    if seconds < 1e-3:
        return f"{seconds * 1e6:.2f} us"
    return f"{seconds * 1e3:.3f} ms"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default=str(pathlib.Path(__file__).resolve().parents[1] / "build"),
                        help="build folder holding python/kv_cv (default: build)")
    parser.add_argument("--quick", action="store_true", help="fewer repeats")
    args = parser.parse_args()
    sys.path.insert(0, os.path.join(args.build, "python"))
    import cv2
    import kv_cv

    cv2.setNumThreads(1)
    repeat = 3 if args.quick else 7
    rng = np.random.default_rng(1)

    # ---- 1. binding overhead -----------------------------------------------------------------
    small = rng.integers(0, 256, (64, 64, 3), dtype=np.uint8)
    out = np.empty((48, 48, 3), np.uint8)
    n = 20000 if not args.quick else 5000
    cpp = min(kv_cv._kv_cv._time_resize(small, out, "bilinear", n) for _ in range(repeat))
    py_out = best_seconds(lambda: kv_cv.resize(small, (48, 48), out=out), n, repeat)
    py_new = best_seconds(lambda: kv_cv.resize(small, (48, 48)), n, repeat)
    py_cv2 = best_seconds(lambda: cv2.resize(small, (48, 48), interpolation=cv2.INTER_LINEAR), n, repeat)
    print(f"kv_cv {kv_cv.__version__}: binding overhead, 64x64 BGR -> 48x48 bilinear, one thread")
    print(f"  C++ loop (same backend call)        {fmt(cpp)}")
    print(f"  kv_cv.resize(..., out=out)          {fmt(py_out)}   overhead {fmt(py_out - cpp)}")
    print(f"  kv_cv.resize(...) new array         {fmt(py_new)}   overhead {fmt(py_new - cpp)}")
    print(f"  cv2.resize(...)                     {fmt(py_cv2)}")
    print()

    # ---- 2. 1080p calls beside cv2 -----------------------------------------------------------
    small_bgr = rng.integers(0, 256, (135, 240, 3), dtype=np.uint8)
    bgr = cv2.resize(small_bgr, (1920, 1080), interpolation=cv2.INTER_CUBIC)
    i420 = cv2.cvtColor(bgr, cv2.COLOR_BGR2YUV_I420)
    nv12 = np.empty_like(i420)
    nv12[:1080] = i420[:1080]
    nv12[1080:].reshape(540, 960, 2)[..., 0] = i420[1080:1350].reshape(540, 960)
    nv12[1080:].reshape(540, 960, 2)[..., 1] = i420[1350:].reshape(540, 960)
    frame_nv12 = kv_cv.Frame(nv12, format="nv12")
    frame_i420 = kv_cv.Frame(i420, format="i420")
    mean, std = (123.7, 116.3, 103.5), (58.4, 57.1, 57.4)
    cv_mean = np.float32(mean).reshape(1, 3, 1, 1)
    cv_std = np.float32(std).reshape(1, 3, 1, 1)
    out_tensor = np.empty((1, 3, 224, 224), np.float32)

    def cv2_tensor(image):
        blob = cv2.dnn.blobFromImage(image, 1.0, (224, 224), swapRB=True)  # resize, RGB, NCHW float
        return (blob - cv_mean) / cv_std

    cases = [
        ("convert NV12 -> BGR", lambda: kv_cv.convert(frame_nv12, "bgr"),
         lambda: cv2.cvtColor(nv12, cv2.COLOR_YUV2BGR_NV12)),
        ("convert I420 -> BGR", lambda: kv_cv.convert(frame_i420, "bgr"),
         lambda: cv2.cvtColor(i420, cv2.COLOR_YUV2BGR_I420)),
        ("convert BGR -> gray", lambda: kv_cv.convert(bgr, "gray"), lambda: cv2.cvtColor(bgr, cv2.COLOR_BGR2GRAY)),
        ("convert BGR -> I420", lambda: kv_cv.convert(bgr, "i420"),
         lambda: cv2.cvtColor(bgr, cv2.COLOR_BGR2YUV_I420)),
        ("resize BGR -> 640x360 bilinear", lambda: kv_cv.resize(bgr, (640, 360)),
         lambda: cv2.resize(bgr, (640, 360), interpolation=cv2.INTER_LINEAR)),
        ("resize BGR -> 480x270 area", lambda: kv_cv.resize(bgr, (480, 270), "area"),
         lambda: cv2.resize(bgr, (480, 270), interpolation=cv2.INTER_AREA)),
        ("resize BGR -> 2560x1440 bilinear", lambda: kv_cv.resize(bgr, (2560, 1440)),
         lambda: cv2.resize(bgr, (2560, 1440), interpolation=cv2.INTER_LINEAR)),
        ("crop_and_resize BGR -> 1x3x224x224 f32, mean/std",
         lambda: kv_cv.crop_and_resize(bgr, None, (1, 3, 224, 224), mean=mean, std=std, out=out_tensor),
         lambda: cv2_tensor(bgr)),
        ("crop_and_resize NV12 -> 1x3x224x224 f32, mean/std",
         lambda: kv_cv.crop_and_resize(frame_nv12, None, (1, 3, 224, 224), mean=mean, std=std, out=out_tensor),
         lambda: cv2_tensor(cv2.cvtColor(nv12, cv2.COLOR_YUV2BGR_NV12))),
        ("crop_and_resize BGR ROI 960x540 -> 1x3x224x224, letterbox",
         lambda: kv_cv.crop_and_resize(bgr, [(480, 270, 960, 540)], (1, 3, 224, 224), letterbox=True, mean=mean,
                                       std=std, out=out_tensor),
         lambda: cv2_tensor(cv2.copyMakeBorder(cv2.resize(bgr[270:810, 480:1440], (224, 126)), 49, 49, 0, 0,
                                               cv2.BORDER_CONSTANT))),
    ]
    print("1920x1080 from Python, one thread (ratio = kv_cv / cv2; below 1 is faster)")
    width = max(len(name) for name, _, _ in cases)
    print(f"  {'call'.ljust(width)}  {'kv_cv':>10}  {'cv2':>10}  ratio")
    for name, ours, theirs in cases:
        calls = 20 if not args.quick else 5
        ours(), theirs()  # warm-up
        t_ours = best_seconds(ours, calls, repeat)
        t_cv2 = best_seconds(theirs, calls, repeat)
        print(f"  {name.ljust(width)}  {fmt(t_ours):>10}  {fmt(t_cv2):>10}  {t_ours / t_cv2:5.2f}")
    print()

    # ---- 3. two threads ------------------------------------------------------------------------
    jobs = 40 if not args.quick else 10

    def work(count):
        for _ in range(count):
            kv_cv.resize(bgr, (1280, 720))

    work(2)
    best_one, best_two = float("inf"), float("inf")
    for _ in range(repeat):
        start = time.perf_counter()
        work(2 * jobs)
        best_one = min(best_one, time.perf_counter() - start)
        threads = [threading.Thread(target=work, args=(jobs,)) for _ in range(2)]
        start = time.perf_counter()
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        best_two = min(best_two, time.perf_counter() - start)
    print(f"threads: {2 * jobs} resizes 1080p -> 720p: one thread {fmt(best_one)}, two threads {fmt(best_two)}, "
          f"ratio {best_two / best_one:.2f} (0.5 is perfect scaling on {os.cpu_count()} cores)")


if __name__ == "__main__":
    main()
