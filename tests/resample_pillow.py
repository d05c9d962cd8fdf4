#!/usr/bin/env python3
"""kvcv resize with the antialiasing filters against Pillow's Image.resize.

Pictures no one here made: ImageMagick's built-in rose:, wizard:, logo: and
granite:, written as 8-bit RGB PNG. Each is reduced by 1.5, 2, 3, 3.7 and 8
and enlarged by 1.6 with box, triangle, cubic and lanczos3 through the tool,
and with Pillow's BOX, BILINEAR, BICUBIC and LANCZOS; the two must agree on
every sample (the resampler follows Pillow's arithmetic, so the difference is
0; the table printed shows the largest difference per filter and factor).

usage: resample_pillow.py KVCV WORK_DIR [--quick]
--quick (the sanitizer build): rose and granite at 2, 3.7 and x1.6 only.
Exit status 77 (a skip for ctest) when Pillow, NumPy, ImageMagick or the tool
is missing.
"""
import os
import shutil
import subprocess
import sys

SKIP = 77


def reexec_with_debian_python():
    """Debian's python3-pil lives in /usr/bin/python3's path; another python3
    first on PATH (pyenv, a venv) may lack it."""
    debian = "/usr/bin/python3"
    if os.path.realpath(sys.executable) != os.path.realpath(debian) and os.path.exists(debian):
        os.execv(debian, [debian] + sys.argv)


try:
    import numpy as np
    from PIL import Image
except ImportError:
    reexec_with_debian_python()
    print("skipped: Pillow and NumPy are needed (Debian python3-pil, python3-numpy)")
    sys.exit(SKIP)

PICTURES = ["rose", "wizard", "logo", "granite"]
FACTORS = [1.5, 2, 3, 3.7, 8, 1 / 1.6]
FILTERS = [("box", Image.BOX), ("triangle", Image.BILINEAR), ("cubic", Image.BICUBIC), ("lanczos3", Image.LANCZOS)]


def main():
    global PICTURES, FACTORS
    if len(sys.argv) not in (3, 4) or (len(sys.argv) == 4 and sys.argv[3] != "--quick"):
        print(__doc__)
        return 2
    kvcv, work = sys.argv[1], sys.argv[2]
    if len(sys.argv) == 4:
        PICTURES, FACTORS = ["rose", "granite"], [2, 3.7, 1 / 1.6]
    if not os.path.exists(kvcv):
        print(f"skipped: {kvcv} is not built")
        return SKIP
    convert = shutil.which("convert-im6.q16") or shutil.which("convert")
    if not convert:
        print("skipped: ImageMagick's convert is needed (Debian imagemagick)")
        return SKIP
    os.makedirs(work, exist_ok=True)
    worst = {}
    failures = 0
    for name in PICTURES:
        path = os.path.join(work, name + ".png")
        subprocess.run([convert, name + ":", "-alpha", "off", "PNG24:" + path], check=True)
        src = Image.open(path).convert("RGB")
        w, h = src.size
        for factor in FACTORS:
            size = (max(1, round(w / factor)), max(1, round(h / factor)))
            for method, pil_filter in FILTERS:
                out = os.path.join(work, f"{name}_{method}_{size[0]}x{size[1]}.png")
                subprocess.run([kvcv, "resize", path, out, "--size", f"{size[0]}x{size[1]}", "--method", method],
                               check=True, stdout=subprocess.DEVNULL)
                got = np.asarray(Image.open(out).convert("RGB"), dtype=np.int32)
                want = np.asarray(src.resize(size, pil_filter), dtype=np.int32)
                diff = int(np.abs(got - want).max()) if got.shape == want.shape else 999
                key = (method, factor)
                worst[key] = max(worst.get(key, 0), diff)
                if diff != 0:
                    failures += 1
                    print(f"FAIL {name} {w}x{h} -> {size[0]}x{size[1]} {method}: largest difference {diff}")
    print(f"largest difference to Pillow 9.4 over {', '.join(PICTURES)} (0: identical)")
    print("filter    " + "".join(f"{('x1/' + format(f, 'g')) if f >= 1 else 'x' + format(1 / f, 'g'):>9s}" for f in FACTORS))
    for method, _ in FILTERS:
        print(f"{method:10s}" + "".join(f"{worst[(method, f)]:9d}" for f in FACTORS))
    cases = len(PICTURES) * len(FACTORS) * len(FILTERS)
    print(f"{cases - failures} passed, {failures} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
