#!/usr/bin/env python3
"""Times the antialiasing filters of kvcv against Pillow on the same picture in
one run, one thread, and prints the ratios (kv time / Pillow time; the goal
is at most 1/8) and triangle against OpenCV's INTER_AREA.

The picture is a 1920x1080 BGR frame: ImageMagick's built-in logo: scaled up
(the same file for every library), resized to 640x360 and to 700x500.
Pillow and OpenCV are timed in this process, kvcv with `resize --repeat`
(tables and buffers set up once, as a user reusing a scaler gets). Every time
is the calling thread's CPU time (on a busy machine, wall time punishes the
longer runs with more preemptions), the best of several runs; the libraries
take turns so that the machine's state affects them alike.

usage: bench/resample_vs_pillow.py [KVCV] [--rounds N]
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time


def reexec_with_debian_python():
    debian = "/usr/bin/python3"
    if os.path.realpath(sys.executable) != os.path.realpath(debian) and os.path.exists(debian):
        os.execv(debian, [debian] + sys.argv)


try:
    from PIL import Image
except ImportError:
    reexec_with_debian_python()
    sys.exit("Pillow is needed (Debian python3-pil)")
try:
    import cv2
except ImportError:
    cv2 = None

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FILTERS = [("box", Image.BOX), ("triangle", Image.BILINEAR), ("cubic", Image.BICUBIC), ("lanczos3", Image.LANCZOS)]
SIZES = [(640, 360), (700, 500)]


def best_of(fn, repeat):
    best = float("inf")
    for _ in range(repeat):
        t = time.thread_time()
        fn()
        best = min(best, time.thread_time() - t)
    return best


def kv_time(kvcv, src, size, method, repeat, work):
    out = subprocess.run([kvcv, "resize", src, os.path.join(work, "out.png"), "--size", f"{size[0]}x{size[1]}",
                          "--method", method, "--repeat", str(repeat)], check=True, capture_output=True, text=True).stdout
    return float(re.search(r"best of \d+: ([0-9.]+) ms", out).group(1)) / 1e3


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("kvcv", nargs="?", default=os.path.join(ROOT, "build", "tools", "kvcv"))
    ap.add_argument("--rounds", type=int, default=3, help="turns each library takes (default 3)")
    args = ap.parse_args()
    if not os.path.exists(args.kvcv):
        sys.exit(f"{args.kvcv} not found: build the tool first (scripts/test or cmake --build build --target kvcv)")
    convert = shutil.which("convert-im6.q16") or shutil.which("convert")
    if cv2 is not None:
        cv2.setNumThreads(1)
    with tempfile.TemporaryDirectory() as work:
        src = os.path.join(work, "frame.png")
        if convert:
            subprocess.run([convert, "logo:", "-alpha", "off", "-resize", "1920x1080!", "PNG24:" + src], check=True)
        else:  # a synthetic frame when ImageMagick is missing
            Image.radial_gradient("L").resize((1920, 1080)).convert("RGB").save(src)
        pil = Image.open(src).convert("RGB")
        pil.load()
        bgr = cv2.imread(src, cv2.IMREAD_COLOR) if cv2 is not None else None
        results = {}
        for _ in range(args.rounds):
            for size in SIZES:
                for method, pil_filter in FILTERS:
                    p = best_of(lambda: pil.resize(size, pil_filter), 5)
                    k = kv_time(args.kvcv, src, size, method, 40, work)
                    r = results.setdefault((size, method), [p, k])
                    r[0], r[1] = min(r[0], p), min(r[1], k)
                if bgr is not None:
                    a = best_of(lambda: cv2.resize(bgr, size, interpolation=cv2.INTER_AREA), 20)
                    r = results.setdefault((size, "opencv_area"), [a])
                    r[0] = min(r[0], a)
    print("1920x1080 BGR, one thread, best CPU times; ratio = kv / Pillow (goal <= 0.125)")
    print(f"{'size':9s} {'kv filter':10s} {'Pillow filter':14s} {'Pillow ms':>10s} {'kv ms':>8s} {'ratio':>7s}")
    pil_names = {"box": "BOX", "triangle": "BILINEAR", "cubic": "BICUBIC", "lanczos3": "LANCZOS"}
    worst = 0.0
    for size in SIZES:
        for method, _ in FILTERS:
            p, k = results[(size, method)]
            worst = max(worst, k / p)
            print(f"{size[0]}x{size[1]:<5d} {method:10s} {pil_names[method]:14s} {p * 1e3:10.2f} {k * 1e3:8.3f} {k / p:7.3f}")
    if bgr is not None:
        print("\ntriangle against OpenCV INTER_AREA (goal <= 1)")
        for size in SIZES:
            a = results[(size, "opencv_area")][0]
            k = results[(size, "triangle")][1]
            print(f"{size[0]}x{size[1]:<5d} INTER_AREA {a * 1e3:.3f} ms, triangle {k * 1e3:.3f} ms, ratio {k / a:.2f}")
    print(f"\nlargest ratio to Pillow: {worst:.3f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
