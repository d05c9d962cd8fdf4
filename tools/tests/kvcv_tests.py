#!/usr/bin/env python3
"""End-to-end tests of the kvcv tool on small images generated here.

Usage: kvcv_tests.py --list
       kvcv_tests.py KVCV TEST WORKDIR

Each test runs the built tool and checks its files with independent readers
(PNG and .npy are decoded here with the standard library).
"""
import os
import shutil
import struct
import subprocess
import sys
import zlib

class Failure(Exception):
    pass


def check(cond, message):
    if not cond:
        raise Failure(message)


# ---- PNG and .npy, standard library only -------------------------------------------

def write_png(path, width, height, pixel, channels=3):
    """pixel(x, y) -> tuple of `channels` bytes (R, G, B or gray)."""
    raw = bytearray()
    for y in range(height):
        raw.append(0)
        for x in range(width):
            raw.extend(pixel(x, y))
    color_type = 2 if channels == 3 else 0

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)

    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n")
        f.write(chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, color_type, 0, 0, 0)))
        f.write(chunk(b"IDAT", zlib.compress(bytes(raw))))
        f.write(chunk(b"IEND", b""))


def read_png(path):
    """Returns (width, height, channels, rows) for 8-bit gray/RGB/RGBA, non-interlaced."""
    with open(path, "rb") as f:
        data = f.read()
    check(data[:8] == b"\x89PNG\r\n\x1a\n", f"{path} is not a PNG")
    pos, idat, header = 8, b"", None
    while pos < len(data):
        (length,) = struct.unpack(">I", data[pos:pos + 4])
        kind = data[pos + 4:pos + 8]
        body = data[pos + 8:pos + 8 + length]
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            idat += body
        pos += 12 + length
    width, height, depth, color_type, _, _, interlace = header
    check(depth == 8 and interlace == 0, f"{path}: unexpected PNG depth {depth} / interlace {interlace}")
    channels = {0: 1, 2: 3, 6: 4}[color_type]
    raw = zlib.decompress(idat)
    stride = width * channels
    rows, prev = [], bytearray(stride)
    for y in range(height):
        kind = raw[y * (stride + 1)]
        line = bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - channels] if i >= channels else 0
            b = prev[i]
            c = prev[i - channels] if i >= channels else 0
            if kind == 1:
                line[i] = (line[i] + a) & 255
            elif kind == 2:
                line[i] = (line[i] + b) & 255
            elif kind == 3:
                line[i] = (line[i] + (a + b) // 2) & 255
            elif kind == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                pred = a if pa <= pb and pa <= pc else (b if pb <= pc else c)
                line[i] = (line[i] + pred) & 255
        rows.append(bytes(line))
        prev = line
    return width, height, channels, rows


def read_npy(path):
    with open(path, "rb") as f:
        data = f.read()
    check(data[:6] == b"\x93NUMPY", f"{path} is not a .npy file")
    (hlen,) = struct.unpack("<H", data[8:10])
    header = data[10:10 + hlen].decode("latin1")
    check((10 + hlen) % 64 == 0, ".npy header is not padded to 64 bytes")
    meta = eval(header, {"__builtins__": {}}, {"False": False, "True": True})  # a Python dict literal
    count = 1
    for d in meta["shape"]:
        count *= d
    body = data[10 + hlen:]
    if meta["descr"] == "<f4":
        check(len(body) == 4 * count, ".npy body size")
        values = list(struct.unpack(f"<{count}f", body))
    else:
        check(meta["descr"] == "|u1" and len(body) == count, ".npy dtype or body size")
        values = list(body)
    check(meta["fortran_order"] is False, ".npy must be C order")
    return meta["shape"], meta["descr"], values


# ---- running the tool ---------------------------------------------------------------

class Tool:
    def __init__(self, exe, work):
        self.exe, self.work = exe, work

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    def run(self, *args, expect=0):
        proc = subprocess.run([self.exe] + [str(a) for a in args], capture_output=True, text=True, timeout=100)
        for bad in ("Traceback", "terminate called", "Segmentation", "AddressSanitizer", "runtime error",
                    "ThreadSanitizer", "LeakSanitizer"):
            check(bad not in proc.stderr, f"kvcv {' '.join(map(str, args))} crashed:\n{proc.stderr}")
        if expect is not None and proc.returncode != expect:
            raise Failure(f"kvcv {' '.join(map(str, args))}: exit {proc.returncode}, expected {expect}\n"
                          f"stdout: {proc.stdout}\nstderr: {proc.stderr}")
        return proc


def smooth(w, h):
    """A smooth colour image, at most 2 levels per pixel, so chroma subsampling loses little."""
    return lambda x, y: (60 + 2 * x * 30 // max(w - 1, 1), 70 + 2 * y * 20 // max(h - 1, 1), 180 - (x + y) * 40 // (w + h))


def busy(x, y):
    """Every pixel different, so a swapped or shifted channel shows."""
    return ((x * 37 + y * 11) & 255, (x * 5 + y * 71 + 3) & 255, (x * y + 101) & 255)


# Image decoders print their own complaints; the tool hides them, except in
# sanitizer builds, which never hide stderr.
DECODER_NOISE = ("libpng", "libjpeg", "Corrupt JPEG", "Premature end of JPEG", "TIFF", "Not a JPEG")


def message_lines(stderr):
    return [l for l in stderr.strip().splitlines() if not l.startswith(DECODER_NOISE)]


def max_diff(rows_a, rows_b):
    return max(abs(a - b) for ra, rb in zip(rows_a, rows_b) for a, b in zip(ra, rb))


# ---- tests ------------------------------------------------------------------------

def test_help(t):
    top = t.run("--help")
    check("usage:" in top.stdout, "kvcv --help prints no usage")
    for cmd in ("demo", "convert", "resize", "rotate", "tensor", "batch", "bench"):
        p = t.run(cmd, "--help")
        check(p.stdout.startswith("usage: kvcv " + cmd), f"kvcv {cmd} --help: {p.stdout[:80]}")


def test_bad_arguments(t):
    write_png(t.path("in.png"), 8, 6, busy)
    write_png(t.path("in2.png"), 8, 6, busy)
    os.makedirs(t.path("dir"), exist_ok=True)
    cases = [
        [],
        ["frobnicate"],
        ["resize", t.path("in.png"), t.path("o.png")],
        ["resize", t.path("in.png"), t.path("o.png"), "--size", "0x5"],
        ["resize", t.path("in.png"), t.path("o.png"), "--size", "12"],
        ["resize", t.path("in.png"), t.path("o.png"), "--size", "99999x5"],
        ["resize", t.path("in.png"), t.path("o.png"), "--size", "4x4", "--method", "cubic"],
        ["resize", t.path("in.png"), t.path("o.png"), "--size", "4x4", "--backend", "gpu"],
        ["resize", t.path("in.png"), t.path("o.png"), "--size", "4x4", "--colour", "red"],
        ["resize", t.path("in.png"), "--size", "4x4"],
        ["resize", t.path("in.png"), t.path("o.png"), t.path("extra.png"), "--size", "4x4"],
        ["resize", t.path("in.png"), t.path("o.png"), "--size"],
        ["convert", t.path("in.png"), t.path("o.raw"), "--to", "nv13"],
        ["convert", t.path("in.png"), t.path("o.raw"), "--in-format", "nv12"],
        ["convert", t.path("in.png"), t.path("o.raw"), "--in-size", "8x6"],
        ["convert", t.path("in.png"), t.path("o.raw"), "--to", "nv12", "--out-format", "i420"],
        ["rotate", t.path("in.png"), t.path("o.png")],
        ["rotate", t.path("in.png"), t.path("o.png"), "--by", "90", "--angle", "3"],
        ["rotate", t.path("in.png"), t.path("o.png"), "--by", "45"],
        ["rotate", t.path("in.png"), t.path("o.png"), "--angle", "ten"],
        ["rotate", t.path("in.png"), t.path("o.png"), "--by", "90", "--rect", "0,0,4,4"],
        ["rotate", t.path("in.png"), t.path("o.png"), "--angle", "10", "--rect", "0,0,4"],
        ["tensor", t.path("in.png"), t.path("o.npy")],
        ["tensor", t.path("in.png"), t.path("o.npy"), "--shape", "1x5x8x8"],
        ["tensor", t.path("in.png"), t.path("o.npy"), "--shape", "1x3x8"],
        ["tensor", t.path("in.png"), t.path("o.npy"), "--shape", "2x3x8x8"],
        ["tensor", t.path("in.png"), t.path("o.npy"), "--shape", "1x3x8x8", "--type", "f16"],
        ["tensor", t.path("in.png"), t.path("o.npy"), "--shape", "1x3x8x8", "--type", "u8", "--mean", "1"],
        ["tensor", t.path("in.png"), t.path("o.npy"), "--shape", "1x3x8x8", "--mean", "1,2"],
        ["tensor", t.path("in.png"), t.path("o.npy"), "--shape", "1x3x8x8", "--std", "0"],
        ["tensor", t.path("in.png"), t.path("o.npy"), "--shape", "1x3x8x8", "--rois", "0,0,4,4;1,1,2,2"],
        ["tensor", t.path("in.png"), t.path("o.npy"), "--shape", "1x3x8x8", "--rois", "0,0,-4,4"],
        ["batch", t.path("dir")],
        ["batch", t.path("dir"), t.path("out")],
        ["batch", t.path("dir"), t.path("out"), "--size", "4x4", "--jobs", "0"],
        ["batch", t.path("dir"), t.path("dir"), "--size", "4x4"],
        ["bench", "--min-time", "-1"],
        ["bench", "extra"],
        ["demo", "--size", "8x8"],
    ]
    for args in cases:
        p = t.run(*args, expect=2)
        lines = message_lines(p.stderr)
        check(len(lines) == 1, f"kvcv {' '.join(args)}: want one line on stderr, got:\n{p.stderr}")
        check(p.stdout == "", f"kvcv {' '.join(args)}: unexpected stdout {p.stdout!r}")
        check(not os.path.exists(t.path("o.png")), "a failed command wrote its output")


def test_unreadable_files(t):
    write_png(t.path("good.png"), 8, 6, busy)
    with open(t.path("corrupt.png"), "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n" + bytes(range(200)))
    with open(t.path("short.nv12"), "wb") as f:
        f.write(bytes(10))
    with open(t.path("empty.jpg"), "wb") as f:
        pass
    cases = [
        ["convert", t.path("missing.png"), t.path("o.png")],
        ["convert", t.path("corrupt.png"), t.path("o.png")],
        ["convert", t.path("empty.jpg"), t.path("o.png")],
        ["resize", t.path("corrupt.png"), t.path("o.png"), "--size", "4x4"],
        ["tensor", t.path("corrupt.png"), t.path("o.npy"), "--shape", "1x3x4x4"],
        ["rotate", t.path("missing.png"), t.path("o.png"), "--by", "90"],
        ["convert", t.path("short.nv12"), t.path("o.png"), "--in-format", "nv12", "--in-size", "8x6"],
        ["convert", t.path("good.png"), t.path("no", "such", "dir", "o.png")],
        ["convert", t.path("good.png"), t.path("no", "such", "dir", "o.raw"), "--to", "rgb"],
        ["batch", t.path("missing"), t.path("out"), "--size", "4x4"],
    ]
    for args in cases:
        p = t.run(*args, expect=1)
        lines = message_lines(p.stderr)
        check(len(lines) == 1, f"kvcv {' '.join(args)}: want one line on stderr, got:\n{p.stderr}")
    # A raw frame given without its format is not decodable, and the message says what to do.
    p = t.run("convert", t.path("short.nv12"), t.path("o.png"), expect=1)
    check("--in-format" in p.stderr, "no hint about --in-format: " + p.stderr)


def _png_claiming(width, height):
    """A PNG whose header claims width x height over one tiny IDAT chunk."""
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(b"\x00" * 64)) + chunk(b"IEND", b""))


def test_hostile_files(t):
    # Every hostile input ends with exit 1, one line on stderr, no output file and no temporary left.
    write_png(t.path("good.png"), 40, 30, busy)
    t.run("convert", t.path("good.png"), t.path("good.jpg"))
    with open(t.path("good.png"), "rb") as f:
        png = f.read()
    with open(t.path("good.jpg"), "rb") as f:
        jpg = f.read()
    check(jpg.endswith(b"\xff\xd9"), "the JPEG written ends with its EOI marker")
    files = {
        "huge.png": _png_claiming(100000, 100000),
        "cut_iend.png": png[:-12],
        "cut_idat.png": png[:len(png) // 2],
        "cut.jpg": jpg[:len(jpg) * 2 // 3],
        "cut_eoi.jpg": jpg[:-2],
        "empty.png": b"",
        "odd.gray": bytes(40 * 30 + 1),
    }
    for name, data in files.items():
        with open(t.path(name), "wb") as f:
            f.write(data)
    os.makedirs(t.path("folder.png"), exist_ok=True)
    cases = [
        (["resize", t.path("huge.png"), t.path("o.png"), "--size", "4x4"], "more than the limit"),
        (["convert", t.path("cut_iend.png"), t.path("o.png")], "truncated"),
        (["convert", t.path("cut_idat.png"), t.path("o.bgr"), "--to", "bgr"], "truncated"),
        (["resize", t.path("cut.jpg"), t.path("o.png"), "--size", "4x4"], "truncated"),
        (["resize", t.path("cut_eoi.jpg"), t.path("o.png"), "--size", "4x4"], "truncated"),
        (["tensor", t.path("empty.png"), t.path("o.npy"), "--shape", "1x3x4x4"], "empty"),
        (["rotate", t.path("folder.png"), t.path("o.png"), "--by", "90"], "directory"),
        (["convert", t.path("odd.gray"), t.path("o.png"), "--in-format", "gray", "--in-size", "40x30"], "1201 bytes"),
        (["convert", t.path("odd.gray"), t.path("o.png"), "--in-format", "gray", "--in-size", "30000x30000"],
         "more than the limit"),
        (["convert", t.path("good.png"), t.path("o.png"), "--max-pixels", "1199"], "--max-pixels"),
    ]
    for args, words in cases:
        p = t.run(*args, expect=1)
        lines = message_lines(p.stderr)
        check(len(lines) == 1 and words in lines[0], f"kvcv {' '.join(args)}: want one line with '{words}':\n{p.stderr}")
        check(not any(os.path.exists(t.path(o)) for o in ("o.png", "o.bgr", "o.npy")),
              f"kvcv {' '.join(args)} left an output file")
    check(not [n for n in os.listdir(t.work) if n.startswith(".kvcv-")], "a temporary file was left behind")
    # The limit can be raised; a JPEG with bytes after its EOI marker is whole.
    t.run("convert", t.path("good.png"), t.path("o.png"), "--max-pixels", "1200")
    with open(t.path("tail.jpg"), "wb") as f:
        f.write(jpg + b"trailing bytes")
    t.run("resize", t.path("tail.jpg"), t.path("tail.png"), "--size", "4x4")
    check(read_png(t.path("tail.png"))[:2] == (4, 4), "JPEG with trailing bytes")
    t.run("convert", t.path("good.png"), t.path("o.png"), "--max-pixels", "many", expect=2)
    # batch reports each hostile file and resizes the rest.
    os.makedirs(t.path("in"), exist_ok=True)
    for name in ("huge.png", "cut.jpg", "empty.png", "good.png"):
        shutil.copy(t.path(name), t.path("in", name))
    p = t.run("batch", t.path("in"), t.path("out"), "--size", "8x8", "--jobs", "2", expect=1)
    check("3 of 4 files failed" in p.stderr, p.stderr)
    check(os.listdir(t.path("out")) == ["good.png"], f"batch wrote {os.listdir(t.path('out'))}")


def test_convert_raw_roundtrip_exact(t):
    # RGB and BGR raw frames are byte-exact re-arrangements of the PNG.
    w, h = 13, 7
    write_png(t.path("in.png"), w, h, busy)
    _, _, _, rows = read_png(t.path("in.png"))
    t.run("convert", t.path("in.png"), t.path("out.rgb"), "--to", "rgb")
    with open(t.path("out.rgb"), "rb") as f:
        check(f.read() == b"".join(rows), "raw RGB differs from the image")
    t.run("convert", t.path("in.png"), t.path("out.bgr"), "--to", "bgr")
    with open(t.path("out.bgr"), "rb") as f:
        data = f.read()
    swapped = bytearray(b"".join(rows))
    swapped[0::3], swapped[2::3] = swapped[2::3], swapped[0::3]
    check(data == bytes(swapped), "raw BGR is not the image with R and B swapped")
    for fmt in ("rgb", "bgr"):
        t.run("convert", t.path("out." + fmt), t.path("back_" + fmt + ".png"), "--in-format", fmt,
              "--in-size", f"{w}x{h}")
        bw, bh, _, back = read_png(t.path("back_" + fmt + ".png"))
        check((bw, bh) == (w, h) and back == rows, f"{fmt} raw -> PNG does not give the image back")


def test_convert_yuv_roundtrips(t):
    # Odd and even sizes; raw sizes follow the format; the round trip stays close on a smooth image.
    sizes = {"nv12": lambda w, h: w * h + 2 * ((w + 1) // 2) * ((h + 1) // 2),
             "i420": lambda w, h: w * h + 2 * ((w + 1) // 2) * ((h + 1) // 2),
             "yuv444p": lambda w, h: 3 * w * h,
             "gray": lambda w, h: w * h}
    for w, h in ((32, 20), (33, 21)):
        name = f"in_{w}x{h}.png"
        write_png(t.path(name), w, h, smooth(w, h))
        _, _, _, rows = read_png(t.path(name))
        for fmt, size in sizes.items():
            raw = t.path(f"out_{w}x{h}.{fmt}")
            t.run("convert", t.path(name), raw, "--to", fmt)
            check(os.path.getsize(raw) == size(w, h), f"{fmt} {w}x{h}: {os.path.getsize(raw)} bytes")
            back = t.path(f"back_{w}x{h}_{fmt}.png")
            t.run("convert", raw, back, "--in-format", fmt, "--in-size", f"{w}x{h}")
            bw, bh, channels, back_rows = read_png(back)
            check((bw, bh) == (w, h), f"{fmt}: round trip size {bw}x{bh}")
            if fmt == "gray":
                check(channels == 1, "a gray frame is written as a gray PNG")
                continue
            check(max_diff(rows, back_rows) <= 12, f"{fmt} {w}x{h}: round trip error {max_diff(rows, back_rows)}")
    # Image to image through a format: the PNG shows the NV12 version.
    t.run("convert", t.path("in_32x20.png"), t.path("shown.png"), "--to", "nv12")
    check(read_png(t.path("shown.png"))[:2] == (32, 20), "image output through NV12")


def test_resize_sizes(t):
    # Every method on both backends gives the asked size, and a constant image stays constant.
    write_png(t.path("busy.png"), 23, 17, busy)
    write_png(t.path("flat.png"), 23, 17, lambda x, y: (200, 30, 90))
    for backend in ("base", "fast"):
        for method in ("nearest", "bilinear", "area"):
            for w, h in ((1, 1), (7, 5), (11, 17), (23, 3)):
                out = t.path(f"r_{backend}_{method}_{w}x{h}.png")
                t.run("resize", t.path("busy.png"), out, "--size", f"{w}x{h}", "--method", method,
                      "--backend", backend)
                check(read_png(out)[:2] == (w, h), f"{backend} {method} {w}x{h}: wrong size")
                flat = t.path(f"f_{backend}_{method}_{w}x{h}.png")
                t.run("resize", t.path("flat.png"), flat, "--size", f"{w}x{h}", "--method", method,
                      "--backend", backend)
                rows = read_png(flat)[3]
                # The generic area scaler truncates its fixed-point weights and sums (no rounding
                # term), so a flat image may come out up to one level darker per pass there.
                slack = 2 if (backend, method) == ("base", "area") else 0
                check(all(abs(v - e) <= slack for r in rows for v, e in zip(r, bytes((200, 30, 90)) * w)),
                      f"{backend} {method}: flat image changed")
            # Enlarging: bilinear and nearest on every backend.
            if method != "area":
                out = t.path(f"up_{backend}_{method}.png")
                t.run("resize", t.path("busy.png"), out, "--size", "40x31", "--method", method,
                      "--backend", backend)
                check(read_png(out)[:2] == (40, 31), "enlarged size")
    # A raw NV12 frame is resized as NV12.
    with open(t.path("cam.nv12"), "wb") as f:
        f.write(bytes((i * 7) & 255 for i in range(17 * 11 + 2 * 9 * 6)))
    t.run("resize", t.path("cam.nv12"), t.path("small.nv12"), "--in-format", "nv12", "--in-size", "17x11",
          "--size", "8x5")
    check(os.path.getsize(t.path("small.nv12")) == 8 * 5 + 2 * 4 * 3, "resized NV12 raw size")


def test_rotate(t):
    w, h = 9, 5
    write_png(t.path("in.png"), w, h, busy)
    _, _, _, rows = read_png(t.path("in.png"))
    px = lambda r, x, y: r[y][3 * x:3 * x + 3]
    t.run("rotate", t.path("in.png"), t.path("r90.png"), "--by", "90")
    rw, rh, _, r90 = read_png(t.path("r90.png"))
    check((rw, rh) == (h, w), "a quarter turn swaps width and height")
    # Counter-clockwise: the top-right corner comes to the top-left.
    for y in range(rh):
        for x in range(rw):
            check(px(r90, x, y) == px(rows, w - 1 - y, x), f"rotated pixel {x},{y}")
    t.run("rotate", t.path("r90.png"), t.path("back.png"), "--by", "270")
    check(read_png(t.path("back.png"))[3] == rows, "90 then 270 is not the identity")
    t.run("rotate", t.path("in.png"), t.path("r180.png"), "--by", "180")
    r180 = read_png(t.path("r180.png"))[3]
    check(all(px(r180, x, y) == px(rows, w - 1 - x, h - 1 - y) for y in range(h) for x in range(w)), "180")
    p = t.run("rotate", t.path("in.png"), t.path("r30.png"), "--angle", "30")
    aw, ah, _, _ = read_png(t.path("r30.png"))
    check(aw >= w and ah >= h, f"rotation by an angle must hold the whole image, got {aw}x{ah}")
    check("lies at" in p.stdout, "the rectangle's place is reported")
    t.run("rotate", t.path("in.png"), t.path("r10.png"), "--angle", "10", "--rect", "2,1,5,3")
    check(os.path.exists(t.path("r10.png")), "rectangle rotation")
    # A rectangle reaching outside the image is refused, not read outside the image.
    for rect in ("-2,0,4,4", "6,2,4,4", "0,0,10,5"):
        p = t.run("rotate", t.path("in.png"), t.path("bad.png"), "--angle", "10", "--rect", rect, expect=2)
        check("inside" in p.stderr, p.stderr)


def _tensor_image(t):
    # Left half one colour, right half another: 40x20.
    left, right = (10, 120, 250), (200, 50, 0)
    write_png(t.path("halves.png"), 40, 20, lambda x, y: left if x < 20 else right)
    return left, right


def test_tensor_values(t):
    left, right = _tensor_image(t)
    # Two regions, one per half, NCHW float RGB: every value is that half's colour.
    t.run("tensor", t.path("halves.png"), t.path("a.npy"), "--shape", "2x3x6x5", "--type", "f32",
          "--rois", "0,0,20,20;20,0,20,20")
    shape, descr, v = read_npy(t.path("a.npy"))
    check(shape == (2, 3, 6, 5) and descr == "<f4", f"shape {shape} {descr}")
    for n, colour in enumerate((left, right)):
        for c in range(3):
            block = v[(n * 3 + c) * 30:(n * 3 + c + 1) * 30]
            check(all(abs(x - colour[c]) < 1e-3 for x in block), f"image {n} channel {c}: {block[:5]}")
    # NHWC, BGR order, u8.
    t.run("tensor", t.path("halves.png"), t.path("b.npy"), "--shape", "1x4x4x3", "--type", "u8", "--order", "bgr",
          "--rois", "20,0,20,20")
    shape, descr, v = read_npy(t.path("b.npy"))
    check(shape == (1, 4, 4, 3) and descr == "|u1", f"shape {shape} {descr}")
    check(v == list(right[::-1]) * 16, f"NHWC BGR values {v[:6]}")
    # Per-channel mean and std.
    mean, std = (10.0, 20.0, 30.0), (2.0, 4.0, 5.0)
    t.run("tensor", t.path("halves.png"), t.path("c.npy"), "--shape", "1x3x4x4", "--rois", "0,0,20,20",
          "--mean", ",".join(map(str, mean)), "--std", ",".join(map(str, std)))
    _, _, v = read_npy(t.path("c.npy"))
    for c in range(3):
        want = (left[c] - mean[c]) / std[c]
        check(all(abs(x - want) < 1e-4 for x in v[c * 16:(c + 1) * 16]), f"normalised channel {c}")


def test_tensor_letterbox(t):
    left, right = _tensor_image(t)
    # The 40x20 image into 8x8 keeps 2:1: rows 2..5 hold the image, the rest is black (0, then normalised).
    t.run("tensor", t.path("halves.png"), t.path("l.npy"), "--shape", "1x3x8x8", "--letterbox", "--mean", "4",
          "--std", "2")
    shape, _, v = read_npy(t.path("l.npy"))
    check(shape == (1, 3, 8, 8), f"shape {shape}")
    for c in range(3):
        for y in range(8):
            row = v[c * 64 + y * 8:c * 64 + y * 8 + 8]
            if y < 2 or y >= 6:
                check(all(abs(x - (0 - 4) / 2) < 1e-4 for x in row), f"bar row {y} channel {c}: {row}")
            else:
                # Away from the seam between the halves the colours are exact.
                check(abs(row[0] - (left[c] - 4) / 2) < 1e-3 and abs(row[7] - (right[c] - 4) / 2) < 1e-3,
                      f"image row {y} channel {c}: {row}")
    # Without letterbox the whole tensor is image.
    t.run("tensor", t.path("halves.png"), t.path("s.npy"), "--shape", "1x1x8x8", "--type", "u8")
    shape, _, v = read_npy(t.path("s.npy"))
    check(shape == (1, 1, 8, 8) and min(v) > 0, "stretched gray tensor has no black bars")


def test_batch_with_corrupt_file(t):
    src, dst = t.path("in"), t.path("out")
    os.makedirs(src, exist_ok=True)
    sizes = [(31, 17), (8, 8), (64, 5), (3, 40), (20, 20)]
    for i, (w, h) in enumerate(sizes):
        write_png(os.path.join(src, f"img{i}.png"), w, h, busy)
    with open(os.path.join(src, "broken.png"), "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n" + b"\x00" * 50)
    with open(os.path.join(src, "notes.txt"), "w") as f:
        f.write("not an image\n")
    p = t.run("batch", src, dst, "--size", "12x9", "--jobs", "3", expect=1)
    check("broken.png" in p.stderr, "the corrupt file is not named:\n" + p.stderr)
    check("1 of 6 files failed" in p.stderr, "no failure count:\n" + p.stderr)
    check("6/6" in p.stderr, "no final progress line:\n" + p.stderr)
    written = sorted(os.listdir(dst))
    check(written == [f"img{i}.png" for i in range(len(sizes))], f"written: {written}")
    for name in written:
        check(read_png(os.path.join(dst, name))[:2] == (12, 9), f"{name}: wrong size")
    # Without the corrupt file everything succeeds.
    os.remove(os.path.join(src, "broken.png"))
    shutil.rmtree(dst)
    t.run("batch", src, dst, "--size", "5x7", "--method", "area", "--jobs", "2", expect=0)
    check(len(os.listdir(dst)) == len(sizes), "second batch")
    # An empty folder is not an error.
    os.makedirs(t.path("empty"), exist_ok=True)
    t.run("batch", t.path("empty"), t.path("out2"), "--size", "5x5", expect=0)


def test_demo(t):
    p = t.run("demo", "--out", t.path("demo"), "--size", "33x25", "--min-time", "0")
    check(read_png(t.path("demo", "chart.png"))[:2] == (33, 25), "chart size")
    check("operation" in p.stdout and "base vs fast" in p.stdout, "no table:\n" + p.stdout)
    pngs = [n for n in os.listdir(t.path("demo")) if n.endswith(".png")]
    check(f"wrote {len(pngs)} PNG files" in p.stdout, "file count in the summary")


def test_bench_plot(t):
    # Runs every case once on a tiny image; only the output is checked, never a time.
    p = t.run("bench", "--size", "24x16", "--min-time", "0", "--plot", t.path("bench.png"))
    check("OpenCV" in p.stdout, "no table:\n" + p.stdout)
    # Both backends crop and resize into a tensor; only a missing operation reads "n/a".
    crop = [line for line in p.stdout.splitlines() if line.startswith("crop+resize")]
    check(len(crop) == 1 and "n/a" not in crop[0], "crop+resize row:\n" + p.stdout)
    w, h, _, _ = read_png(t.path("bench.png"))
    check(w > 100 and h > 100, "plot size")


TESTS = {name[5:]: fn for name, fn in sorted(globals().items()) if name.startswith("test_")}


def main():
    if sys.argv[1:] == ["--list"]:
        print("\n".join(TESTS))
        return 0
    if len(sys.argv) != 4 or sys.argv[2] not in TESTS:
        print("usage: kvcv_tests.py --list | KVCV TEST WORKDIR", file=sys.stderr)
        return 2
    exe, name, work = sys.argv[1:]
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    try:
        TESTS[name](Tool(exe, work))
    except Failure as e:
        print(f"FAILED: {e}")
        return 1
    print("passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
