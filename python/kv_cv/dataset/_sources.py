"""What a data set is made of: image files from a folder, a glob or a list, and boxes from a CSV."""

import csv
import glob
import math
import os
from typing import List, NamedTuple, Optional, Sequence, Tuple, Union

IMAGE_SUFFIXES = frozenset((".jpg", ".jpeg", ".jpe", ".png", ".bmp", ".dib", ".tif", ".tiff", ".webp", ".ppm",
                            ".pgm", ".pbm", ".pnm", ".pxm", ".jp2", ".sr", ".ras"))

PathLike = Union[str, os.PathLike]


class Item(NamedTuple):
    """One item of a data set: an image file and its box (None: the whole image), with a label."""

    path: str
    box: Optional[Tuple[int, int, int, int]] = None
    label: Optional[str] = None


def _is_image(name: str) -> bool:
    return os.path.splitext(name)[1].lower() in IMAGE_SUFFIXES


def list_images(sources: Union[PathLike, Sequence[PathLike]]) -> List[str]:
    """Absolute paths of the images `sources` names: a folder (searched recursively, sorted, files
    with a common image suffix), a glob pattern (sorted; ** reaches into subfolders), an image file,
    or a text file of paths (one a line, in its order; blank lines and lines starting with # are
    skipped; relative paths are relative to the list's folder). A list or tuple joins several."""
    if isinstance(sources, (list, tuple)):
        return [p for s in sources for p in list_images(s)]
    source = os.fspath(sources)
    if os.path.isdir(source):
        found = []
        for folder, subfolders, files in os.walk(source):
            subfolders.sort()
            found.extend(os.path.join(folder, f) for f in files if _is_image(f))
        if not found:
            raise ValueError(f"{source}: the folder holds no image files ({', '.join(sorted(IMAGE_SUFFIXES))})")
        return sorted(os.path.abspath(p) for p in found)
    if os.path.isfile(source):
        if _is_image(source):
            return [os.path.abspath(source)]
        return _read_list(source)
    if glob.has_magic(source):
        found = sorted(os.path.abspath(p) for p in glob.glob(source, recursive=True) if os.path.isfile(p))
        if not found:
            raise ValueError(f"{source}: the pattern matches no file")
        return found
    raise ValueError(f"{source}: no such file, folder or pattern")


def _read_list(path: str) -> List[str]:
    base = os.path.dirname(os.path.abspath(path))
    try:
        with open(path, encoding="utf-8") as f:
            lines = [line.strip() for line in f]
    except (OSError, UnicodeDecodeError) as e:
        raise ValueError(f"{path}: cannot read the list of images: {e}") from None
    paths = [os.path.abspath(os.path.join(base, line)) for line in lines if line and not line.startswith("#")]
    if not paths:
        raise ValueError(f"{path}: the list names no image")
    return paths


def read_boxes(path: PathLike, base: PathLike) -> List[Item]:
    """Items from a CSV whose header line is path,x,y,w,h (a label column may follow): one item per
    row, in the file's order. Relative paths are relative to `base`. Coordinates are pixels of the
    image file; decimals are rounded to the nearest integer; w and h must be at least 1."""
    path, base = os.fspath(path), os.fspath(base)
    try:
        with open(path, newline="", encoding="utf-8") as f:
            rows = list(csv.reader(f))
    except (OSError, UnicodeDecodeError, csv.Error) as e:
        raise ValueError(f"{path}: cannot read the boxes: {e}") from None
    header = [c.strip().lower() for c in rows[0]] if rows else []
    if header not in (["path", "x", "y", "w", "h"], ["path", "x", "y", "w", "h", "label"]):
        raise ValueError(f"{path}: the first line must be the header path,x,y,w,h or path,x,y,w,h,label; "
                         f"got {','.join(header) or 'nothing'}")
    items = []
    for line, row in enumerate(rows[1:], start=2):
        if not row or (len(row) == 1 and not row[0].strip()):
            continue
        if len(row) != len(header):
            raise ValueError(f"{path}:{line}: {len(row)} fields where the header has {len(header)}")
        try:
            x, y, w, h = (math.floor(float(v) + 0.5) for v in row[1:5])
        except (ValueError, OverflowError):
            raise ValueError(f"{path}:{line}: x, y, w, h must be numbers, got {','.join(row[1:5])}") from None
        if w < 1 or h < 1:
            raise ValueError(f"{path}:{line}: w and h must be at least 1, got {w} and {h}")
        if not row[0].strip():
            raise ValueError(f"{path}:{line}: the path is empty")
        label = row[5] if len(row) > 5 else None
        items.append(Item(os.path.abspath(os.path.join(base, row[0].strip())), (x, y, w, h), label))
    if not items:
        raise ValueError(f"{path}: no boxes below the header")
    return items


def read_items(sources: Union[PathLike, Sequence[PathLike]], boxes: Optional[PathLike] = None) -> List[Item]:
    """The items of a data set: one per image of `sources`, or with `boxes` one per row of that CSV,
    whose relative paths are relative to `sources` when it is a folder, else to the CSV's folder."""
    if boxes is None:
        return [Item(p) for p in list_images(sources)]
    single = not isinstance(sources, (list, tuple))
    base = os.fspath(sources) if single and os.path.isdir(sources) else os.path.dirname(os.path.abspath(boxes))
    return read_boxes(boxes, base)
