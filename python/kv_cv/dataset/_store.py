"""The Zarr store of a data set: its layout, the check that a rerun matches it, and the per-chunk done
markers that make a build resumable."""

import hashlib
import json
import os
import shutil
import uuid
from typing import Dict, List, Optional

import numcodecs
import numpy as np
import zarr

import kv_cv

from ._items import Settings
from ._sources import Item

FORMAT = 1
DONE = ".done"  # one marker per chunk, written after the chunk's arrays: the chunk is complete
_KEY = "kv_cv.dataset"


class StoreMismatch(ValueError):
    """The output folder holds a different data set (or something else): refused unless overwritten."""


def fingerprint(items: List[Item]) -> str:
    h = hashlib.sha256()
    for item in items:
        h.update(f"{item.path}\t{item.box}\t{item.label}\n".encode("utf-8", "surrogateescape"))
    return h.hexdigest()


def description(items: List[Item], settings: Settings, chunk: int, sources: str, boxes: Optional[str]) -> dict:
    """Everything that decides the store's content: compared on every rerun."""
    return {
        "parameters": dict(settings.as_dict(), chunk=chunk, sources=sources, boxes=boxes),
        "decode": "full" if settings.full_decode else "shrink-on-load",
        "library_version": kv_cv.__version__,
        "items": len(items),
        "fingerprint": fingerprint(items),
    }


def read_attrs(out: str) -> Optional[dict]:
    try:
        with open(os.path.join(out, ".zattrs"), encoding="utf-8") as f:
            attrs = json.load(f)
    except (OSError, ValueError):
        return None
    return attrs if isinstance(attrs, dict) and _KEY in attrs else None


def _differences(old: dict, new: dict) -> List[str]:
    diffs = []
    for key in sorted(set(old["parameters"]) | set(new["parameters"])):
        a, b = old["parameters"].get(key), new["parameters"].get(key)
        if a != b:
            diffs.append(f"{key} {_show(a)} -> {_show(b)}")
    for key, what in (("library_version", "kv_cv version"), ("items", "item count")):
        if old.get(key) != new[key]:
            diffs.append(f"{what} {old.get(key)} -> {new[key]}")
    if not diffs and old.get("fingerprint") != new["fingerprint"]:
        diffs.append("the list of images or boxes")
    return diffs


def _show(value) -> str:
    if isinstance(value, list) and len(value) == 2 and all(isinstance(v, int) for v in value):
        return f"{value[0]}x{value[1]}"
    return str(value)


def open_store(out: str, desc: dict, items: List[Item], chunk: int, settings: Settings, overwrite: bool) -> bool:
    """Makes `out` hold the data set `desc` describes: creates it, or keeps a store of the same
    description to resume. Returns True when the store already existed. Raises StoreMismatch for a
    store of another description (removed first with overwrite=True) or a folder that is not a store."""
    if os.path.isdir(out) and not os.listdir(out):
        os.rmdir(out)
    if os.path.lexists(out):
        attrs = read_attrs(out)
        if attrs is None:
            raise StoreMismatch(f"{out} exists and is not a kv_cv data set; choose another output folder")
        diffs = _differences(attrs, desc)
        if not diffs:
            return True
        if not overwrite:
            raise StoreMismatch(f"{out} holds a data set made differently ({'; '.join(diffs)}); "
                                "pass overwrite=True (--overwrite) to rebuild it, or choose another output folder")
        shutil.rmtree(out)
    _create(out, desc, items, chunk, settings)
    return False


def _create(out: str, desc: dict, items: List[Item], chunk: int, settings: Settings):
    # Made beside `out` and renamed into place, so that a store is whole or absent.
    parent = os.path.dirname(os.path.abspath(out))
    os.makedirs(parent, exist_ok=True)
    temp = os.path.join(parent, f".{os.path.basename(os.path.abspath(out))}.{uuid.uuid4().hex[:8]}.tmp")
    try:
        root = zarr.group(store=zarr.DirectoryStore(temp))
        n = len(items)
        root.create_dataset("images", shape=(n,) + settings.item_shape, chunks=(chunk,) + settings.item_shape,
                            dtype=settings.dtype, compressor=None, fill_value=0, write_empty_chunks=True)
        root.create_dataset("valid", shape=(n,), chunks=(chunk,), dtype=bool, compressor=None, fill_value=False,
                            write_empty_chunks=True)
        source = root.create_group("source")
        strings = dict(dtype=object, object_codec=numcodecs.VLenUTF8(), chunks=(chunk,))
        source.array("path", np.array([item.path for item in items], dtype=object), **strings)
        if any(item.label is not None for item in items):
            source.array("label", np.array([item.label or "" for item in items], dtype=object), **strings)
        source.create_dataset("box", shape=(n, 4), chunks=(chunk, 4), dtype="int32", compressor=None, fill_value=0,
                              write_empty_chunks=True)
        source.create_dataset("image_size", shape=(n, 2), chunks=(chunk, 2), dtype="int32", compressor=None,
                              fill_value=0, write_empty_chunks=True)
        root.attrs.put(dict(desc, **{_KEY: FORMAT, "complete": False, "failures": [], "valid_items": None}))
        os.mkdir(os.path.join(temp, DONE))
        os.rename(temp, out)
    except BaseException:
        shutil.rmtree(temp, ignore_errors=True)
        raise


def marker_path(out: str, k: int) -> str:
    return os.path.join(out, DONE, str(k))


def done_chunks(out: str) -> Dict[int, dict]:
    """The markers of the chunks written whole, by chunk index."""
    done = {}
    folder = os.path.join(out, DONE)
    for name in os.listdir(folder):
        if name.isdigit():
            try:
                with open(os.path.join(folder, name), encoding="utf-8") as f:
                    done[int(name)] = json.load(f)
            except (OSError, ValueError):
                pass  # a marker cut short: its chunk is written again
    return done


def write_marker(out: str, k: int, record: dict):
    path = marker_path(out, k)
    temp = f"{path}.{uuid.uuid4().hex[:8]}.tmp"
    with open(temp, "w", encoding="utf-8") as f:
        json.dump(record, f)
    os.replace(temp, path)


def finish(out: str, items: List[Item], markers: Dict[int, dict]) -> dict:
    """Gathers the chunks' failures into the store's attributes and marks it complete; writes nothing
    when they already say so. Returns the attributes."""
    group = zarr.open_group(zarr.DirectoryStore(out), mode="r+")
    failures = []
    for k in sorted(markers):
        for index, reason in markers[k]["failures"]:
            item = items[index]
            failures.append({"index": index, "path": item.path, "box": list(item.box) if item.box else None,
                             "reason": reason})
    wanted = {"complete": True, "failures": failures, "valid_items": len(items) - len(failures)}
    attrs = group.attrs.asdict()
    if any(attrs.get(k) != v for k, v in wanted.items()):
        attrs.update(wanted)
        group.attrs.put(attrs)
    return attrs
