"""Every call that touches pixels releases the GIL, and threads never share a backend."""

import os
import threading
import time

import numpy as np
import pytest

import kv_cv

BIG = np.random.default_rng(7).integers(0, 256, (3000, 4000, 3), dtype=np.uint8)
BIG_NV12 = kv_cv.Frame(np.zeros((3000 * 3 // 2, 4000), np.uint8), format="nv12")
HALVES = np.zeros(32_000_000, np.float16)
SINGLES = np.zeros(32_000_000, np.float32)

CALLS = {
    "convert": lambda: kv_cv.convert(BIG_NV12, "bgr"),
    "resize": lambda: kv_cv.resize(BIG, (3900, 2900)),
    "resize base": lambda: kv_cv.resize(BIG, (3900, 2900), backend="base"),
    "rotate": lambda: kv_cv.rotate(BIG[:2000, :2000], 90),
    "rotate angle": lambda: kv_cv.rotate(BIG, angle=10, rect=(500, 500, 2000, 1500)),
    "warp_affine": lambda: kv_cv.warp_affine(BIG, [[1, 0.1, 0], [0.1, 1, 0]], (4000, 3000)),
    "crop_and_resize": lambda: kv_cv.crop_and_resize(BIG, None, (1, 3, 2000, 2000), mean=1, std=2),
    "produce_frame": lambda: kv_cv.produce_frame(kv_cv.FormatConverter(kv_cv.Scaler(BIG, (3000, 2000)), "i420")),
    "fp16_to_fp32": lambda: kv_cv.fp16_to_fp32(HALVES),
    "fp32_to_fp16": lambda: kv_cv.fp32_to_fp16(SINGLES),
}


@pytest.mark.skipif(bool(os.environ.get("KV_SANITIZE")), reason="timing of large calls; the release run checks it")
@pytest.mark.parametrize("name", sorted(CALLS))
def test_python_runs_while_the_call_works(name):
    """Runs the call repeatedly in a thread while this thread keeps stamping the time.
    Holding the GIL would stop the stamps for each whole call (the longest gap is
    the call); released, they keep coming. A loaded machine can hold this thread
    off the processor for a good part of a call, so the test asks only that
    Python ran during most calls, which a held GIL never allows."""
    call = CALLS[name]
    call()  # warm-up: first-call tables and allocations
    spans, stamps = [], []
    done = threading.Event()

    def worker():
        finish = time.perf_counter() + 0.3
        while len(spans) < 3 or time.perf_counter() < finish:
            start = time.perf_counter()
            call()
            spans.append((start, time.perf_counter()))
        done.set()

    thread = threading.Thread(target=worker)
    thread.start()
    while not done.is_set():
        stamps.append(time.perf_counter())
    thread.join()
    stamps = np.array(stamps)
    ratios = []
    for start, end in spans:
        inside = stamps[(stamps >= start) & (stamps <= end)]
        ratios.append(np.diff(np.concatenate([[start], inside, [end]])).max() / (end - start))
    assert np.median(ratios) < 0.9, f"{name}: Python stood still for {np.median(ratios):.0%} of each call"


def test_threads_get_the_same_results_as_one_thread():
    rng = np.random.default_rng(3)
    images = [rng.integers(0, 256, (97 + 13 * i, 151 + 7 * i, 3), dtype=np.uint8) for i in range(4)]
    sizes = [(64, 48), (130, 90), (47, 33), (200, 150)]
    jobs = [(image, size, method) for image in images for size in sizes for method in ("bilinear", "area")]
    expected = [kv_cv.resize(image, size, method) for image, size, method in jobs]
    failures = []

    def work(offset):
        for round_ in range(5):
            for i in range(len(jobs)):
                j = (i + offset + round_) % len(jobs)  # threads interleave different shapes
                image, size, method = jobs[j]
                if not np.array_equal(kv_cv.resize(image, size, method), expected[j]):
                    failures.append(j)

    threads = [threading.Thread(target=work, args=(k * 3,)) for k in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert not failures


def test_calls_split_over_threads_give_the_bytes_of_one():
    """set_num_threads(n) splits a call over n threads; every output stays the same."""
    rng = np.random.default_rng(3)
    bgr = rng.integers(0, 256, (721, 1283, 3), dtype=np.uint8)
    nv12 = kv_cv.convert(bgr[:720, :1282], "nv12")
    calls = [
        lambda: kv_cv.convert(bgr, "i420"),
        lambda: kv_cv.convert(nv12, "bgr"),
        lambda: kv_cv.resize(bgr, (640, 361), method="area"),
        lambda: kv_cv.resize(bgr, (1901, 1003), backend="base"),
        lambda: kv_cv.rotate(bgr, 90),
        lambda: kv_cv.warp_affine(bgr, [[1, 0.1, 0], [0.1, 1, 0]], (1200, 700)),
        lambda: kv_cv.crop_and_resize(bgr, [(0, 0, 600, 400), (10, 20, 900, 700), (0, 0, 1283, 721)], (3, 3, 224, 224)),
    ]
    assert kv_cv.get_num_threads() == 1
    def planes(result):
        if isinstance(result, kv_cv.Frame):
            return [p.copy() for p in result.planes]
        return [np.asarray(result).copy()]

    want = [planes(c()) for c in calls]
    try:
        for n in (2, 3, 0):
            kv_cv.set_num_threads(n)
            assert kv_cv.get_num_threads() >= 1
            for c, w in zip(calls, want):
                for got, expected in zip(planes(c()), w):
                    np.testing.assert_array_equal(got, expected)
    finally:
        kv_cv.set_num_threads(1)
    with pytest.raises(kv_cv.Error):
        kv_cv.set_num_threads(-1)
    assert kv_cv.get_num_threads() == 1
