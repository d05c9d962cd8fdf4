"""kv_cv.dataset: a folder of images (or a CSV of boxes in them) to one fixed-shape array that a
training job reads, on one machine or a Dask cluster, resumable, with every failure recorded.

    import kv_cv.dataset
    kv_cv.dataset.build("photos/", "photos.zarr", size=(224, 224), progress=True)

or from a shell, the same on a running cluster with --scheduler tcp://HOST:8786:

    python3 -m kv_cv.dataset build photos/ photos.zarr --size 224x224

The store (Zarr, one folder) holds `images` (N x 3 x H x W, or N x H x W x 3 with layout 'nhwc',
chunked along N), `valid` (N booleans), `source/path`, `source/box` (x, y, w, h in the file's pixels),
`source/image_size` and `source/label` (with a boxes CSV that has labels), and attributes that tell
how it was made: every parameter, the decode mode, the library version and the `failures` with
their reasons. Arrays are stored uncompressed, so a chunk file is the raw C-order bytes of `chunk`
items: numpy reads it without zarr.

A JPEG is decoded at the smallest reduced scale (1/2, 1/4, 1/8, libjpeg's scaled DCT) that still
leaves each of its items' regions at least as large as the output, then resized the rest of the way
with the antialiased method (DEFAULT_METHOD); full_decode=True decodes in full. load_items() makes
an image's items exactly as the store holds them; decode() and preprocess() are its two steps.
"""

from ._build import BuildError, BuildResult, Progress, build, local_cluster
from ._items import (DEFAULT_METHOD, MAX_PIXELS, Decoded, ItemError, Settings, clip_box, decode, decode_scale,
                     letterbox_rect, load_items, preprocess)
from ._sources import IMAGE_SUFFIXES, Item, list_images, read_boxes, read_items
from ._store import StoreMismatch

__all__ = ["build", "local_cluster", "load_items", "decode", "preprocess", "decode_scale", "clip_box", "letterbox_rect",
           "list_images", "read_boxes", "read_items", "Settings", "Decoded", "Item", "Progress", "BuildResult",
           "BuildError", "ItemError", "StoreMismatch", "DEFAULT_METHOD", "MAX_PIXELS", "IMAGE_SUFFIXES"]
