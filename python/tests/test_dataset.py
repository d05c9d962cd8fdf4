"""kv_cv.dataset without a cluster: sources and boxes, the decode rule, one item against cv2 and the
package's own calls, and the errors for bad arguments."""

import os

import cv2
import numpy as np
import pytest

import kv_cv
from kv_cv import dataset
from kv_cv.dataset import ItemError, Settings

from dataset_files import make_folder, photo

cv2.setNumThreads(1)


@pytest.fixture
def rng():
    return np.random.default_rng(19)


def jpeg_bytes(image, **params):
    flags = [cv2.IMWRITE_JPEG_QUALITY, 92] + [v for k, v in params.items() for v in (getattr(cv2, k), v)]
    return cv2.imencode(".jpg", image, flags)[1].tobytes()


# ---- sources and boxes ------------------------------------------------------------------------


def test_sources_folder_glob_and_list(tmp_path, rng):
    broken = make_folder(tmp_path, rng, 12, sizes=(8, 20))
    folder = dataset.list_images(tmp_path)
    names = [os.path.relpath(p, tmp_path) for p in folder]
    assert names == sorted(names) and len(names) == 12 + len(broken)  # recursive, sorted, readme.txt left out
    assert os.path.join("part1", "img0001.jpg") in names and os.path.join("part2", "img0008.JPEG") in names
    assert dataset.list_images(str(tmp_path / "**" / "*.png")) == [p for p in folder if p.endswith(".png")]
    listing = tmp_path / "list.txt"
    listing.write_text("# chosen\npart2/img0002.jpg\n\n" + folder[0] + "\n")
    assert dataset.list_images(listing) == [str(tmp_path / "part2" / "img0002.jpg"), folder[0]]
    assert dataset.list_images([listing, folder[1]]) == [str(tmp_path / "part2" / "img0002.jpg"), folder[0],
                                                        folder[1]]
    (tmp_path / "nothing").mkdir()
    (tmp_path / "comments.txt").write_text("# nothing yet\n\n")
    for bad, fragment in [(tmp_path / "missing", "no such file, folder or pattern"),
                          (tmp_path / "nothing", "holds no image files"), (str(tmp_path / "*.gif"), "matches no file"),
                          (tmp_path / "comments.txt", "names no image")]:
        with pytest.raises(ValueError, match=fragment):
            dataset.list_images(bad)


def test_boxes_csv(tmp_path):
    csv = tmp_path / "boxes.csv"
    csv.write_text("path,x,y,w,h,label\na.jpg,1,2,30,40,cat\nsub/b.png,-5.4,10.5,7.6,8,\n\n")
    items = dataset.read_items(tmp_path, csv)
    assert items == [dataset.Item(str(tmp_path / "a.jpg"), (1, 2, 30, 40), "cat"),
                     dataset.Item(str(tmp_path / "sub" / "b.png"), (-5, 11, 8, 8), "")]
    # Without a folder as sources, relative paths start from the CSV's folder.
    assert dataset.read_items(str(tmp_path / "*.jpg"), csv)[0].path == str(tmp_path / "a.jpg")
    cases = [("path,x,y,w\na.jpg,1,2,3\n", "first line must be the header"),
             ("path,x,y,w,h\na.jpg,1,2,3\n", ":2: 4 fields where the header has 5"),
             ("path,x,y,w,h\na.jpg,1,2,3,4\nb.jpg,one,2,3,4\n", ":3: x, y, w, h must be numbers"),
             ("path,x,y,w,h\na.jpg,1,2,0,4\n", ":2: w and h must be at least 1"),
             ("path,x,y,w,h\n,1,2,3,4\n", ":2: the path is empty"),
             ("path,x,y,w,h\n", "no boxes below the header")]
    for text, fragment in cases:
        csv.write_text(text)
        with pytest.raises(ValueError, match=fragment):
            dataset.read_items(tmp_path, csv)


def test_settings_refuse_bad_arguments():
    cases = [(dict(size=(0, 10)), ValueError, "1..32767"), (dict(size="224"), ValueError, "WxH"),
             (dict(size=(2.5, 3)), TypeError, "two integers"), (dict(dtype="int16"), ValueError, "dtype must be"),
             (dict(layout="chw"), ValueError, "layout must be"), (dict(order="rbg"), ValueError, "order must be"),
             (dict(mean=1.0), ValueError, "need dtype float32"),
             (dict(dtype="float32", std=(1, 0, 1)), ValueError, "std must not be 0"),
             (dict(dtype="float32", mean=(1, 2)), ValueError, "1 or 3 finite values"),
             (dict(method="sinc"), ValueError, "not one kv_cv.resize accepts"),
             (dict(max_pixels=0), ValueError, "max_pixels")]
    for kwargs, kind, fragment in cases:
        with pytest.raises(kind, match=fragment):
            Settings(**kwargs)
    s = Settings(size="32x24", dtype=np.float32, mean="1,2,3", std=2)
    assert (s.size, s.dtype, s.mean, s.std, s.item_shape) == ((32, 24), "float32", (1, 2, 3), (2, 2, 2), (3, 24, 32))
    assert dataset.DEFAULT_METHOD in ("lanczos3", "area")


# ---- the decode rule ------------------------------------------------------------------------------


def test_decode_scale_is_the_largest_that_keeps_every_region_at_least_output_size():
    full_hd = Settings(size=(224, 224))
    cases = [  # (image w, h, boxes, settings, scale)
        (1920, 1080, [None], full_hd, 4),  # 1080 / 4 = 270 >= 224; / 8 = 135 is not
        (1920, 1080, [None], Settings(size=(224, 224), full_decode=True), 1),
        (4000, 3000, [None], Settings(size=(64, 64)), 8),
        (1920, 1080, [None, (100, 100, 500, 500)], full_hd, 2),  # the smaller box decides
        (1920, 1080, [(100, 100, 500, 500), (5000, 0, 10, 10)], full_hd, 2),  # a box outside does not count
        (1920, 1080, [(1800, 0, 500, 1080)], full_hd, 1),  # clipped to 120 wide: enlarged from full size
        (100, 80, [None], full_hd, 1),
        (1920, 1080, [None], Settings(size=(224, 448)), 2),
        (1920, 480, [None], Settings(size=(224, 224), letterbox=True), 8),  # lands as 224 x 56
        (1920, 480, [None], Settings(size=(224, 224)), 2),
    ]
    for width, height, boxes, settings, scale in cases:
        assert dataset.decode_scale(width, height, boxes, settings) == scale, (width, height, boxes)


def test_decode_reduces_jpegs_only_and_as_libjpeg_does(tmp_path, rng):
    image = photo(rng, 1001, 603)
    settings = Settings(size=(120, 70))
    for data, scale in [(jpeg_bytes(image), 8), (jpeg_bytes(image, IMWRITE_JPEG_PROGRESSIVE=1), 8),
                        (cv2.imencode(".png", image)[1].tobytes(), 1)]:
        decoded = dataset.decode(data, [None], settings)
        assert decoded.scale == scale and (decoded.width, decoded.height) == (1001, 603)
        assert decoded.image.shape == (-(-603 // scale), -(-1001 // scale), 3)
    path = tmp_path / "photo.jpg"
    path.write_bytes(jpeg_bytes(image))
    reduced = dataset.decode(path, [(0, 0, 400, 400)], settings).image
    expected = cv2.imread(str(path), cv2.IMREAD_REDUCED_COLOR_2 | cv2.IMREAD_IGNORE_ORIENTATION)
    assert np.array_equal(reduced, expected)


def test_undecodable_files_give_their_reason(tmp_path, rng):
    broken = make_folder(tmp_path, rng, 0)
    for name, reason in broken.items():
        with pytest.raises(ItemError, match=reason):
            dataset.decode(tmp_path / name)
    with pytest.raises(ItemError, match="cannot read: No such file"):
        dataset.decode(tmp_path / "missing.jpg")
    data = jpeg_bytes(photo(rng, 200, 100))
    with pytest.raises(ItemError, match="200x100 image has 20000 pixels, over the limit of 19999"):
        dataset.decode(data, settings=Settings(max_pixels=19999))
    assert dataset.load_items(tmp_path / "empty.png", [None, (0, 0, 5, 5)])[1].args == ("empty file",)


# ---- one item -----------------------------------------------------------------------------------


def test_item_equals_cv2_for_an_integer_shrink_in_every_layout_and_type(rng):
    image = photo(rng, 448, 336)
    decoded = dataset.Decoded(image, 1, 448, 336)
    area = cv2.resize(image, (224, 168), interpolation=cv2.INTER_AREA)  # kv_cv's area equals it for 2x
    rgb = area[..., ::-1]
    mean, std = (120.0, 110.0, 100.0), (60.0, 55.0, 50.0)
    normalised = (rgb.astype(np.float32) - np.float32(mean)) / np.float32(std)
    cases = [(dict(), rgb.transpose(2, 0, 1)), (dict(layout="nhwc"), rgb), (dict(order="bgr", layout="nhwc"), area),
             (dict(dtype="float32", mean=mean, std=std), normalised.transpose(2, 0, 1)),
             (dict(dtype="float16", mean=mean, std=std, layout="nhwc"), normalised.astype(np.float16))]
    for kwargs, expected in cases:
        item = dataset.preprocess(decoded, None, Settings(size=(224, 168), method="area", **kwargs))
        assert item.dtype == expected.dtype and item.shape == expected.shape, kwargs
        np.testing.assert_allclose(item.astype(np.float32), expected.astype(np.float32), rtol=1e-6, atol=1e-6)


def test_boxes_are_clipped_like_crop_and_resize_or_refused(rng):
    image = photo(rng, 200, 150)
    decoded = dataset.Decoded(image, 1, 200, 150)
    settings = Settings(size=(40, 30), method="area", layout="nhwc", order="bgr")
    item = lambda box: dataset.preprocess(decoded, box, settings)  # noqa: E731
    assert np.array_equal(item((-40, -30, 120, 90)), item((0, 0, 80, 60)))
    assert np.array_equal(item((160, 120, 200, 200)), kv_cv.resize(np.ascontiguousarray(image[120:, 160:]),
                                                                   (40, 30), method="area"))
    for box in [(200, 0, 10, 10), (-10, 5, 10, 10), (0, 150, 5, 5)]:
        with pytest.raises(ItemError, match=r"lies outside the 200x150 image"):
            item(box)


def test_letterbox_places_regions_where_crop_and_resize_does():
    for region, size in [((160, 90), (64, 64)), ((90, 160), (64, 48)), ((33, 7), (50, 50)), ((7, 300), (20, 31)),
                         ((101, 100), (100, 100))]:
        white = np.full((region[1], region[0], 3), 255, np.uint8)
        tensor = kv_cv.crop_and_resize(white, None, (1, 1, size[1], size[0]), dtype=np.uint8, letterbox=True)[0, 0]
        ys, xs = np.nonzero(tensor)
        found = (xs.min(), ys.min(), xs.max() - xs.min() + 1, ys.max() - ys.min() + 1)
        assert dataset.letterbox_rect(region, size) == found, (region, size)
    decoded = dataset.Decoded(np.full((90, 160, 3), 200, np.uint8), 1, 160, 90)
    item = dataset.preprocess(decoded, None, Settings(size=(64, 64), letterbox=True, layout="nhwc"))
    x, y, w, h = dataset.letterbox_rect((160, 90), (64, 64))
    assert (item[y:y + h, x:x + w] == 200).all() and item.sum() == 200 * 3 * w * h


def test_shrink_on_load_stays_close_to_a_full_decode(rng):
    data = jpeg_bytes(photo(rng, 1200, 900, detail=False, feature=40))
    settings = Settings(size=(96, 64), dtype="float32", layout="nhwc")
    boxes = [None, (301, 207, 500, 350), (-100, 650, 700, 400)]
    assert dataset.decode(data, boxes, settings).scale == 2
    full = dataset.load_items(data, boxes, Settings(size=(96, 64), dtype="float32", layout="nhwc", full_decode=True))
    # Each box lands on the same pixels of the picture (a shift of 1 pixel of the file costs about 2 here).
    for a, b in zip(dataset.load_items(data, boxes, settings), full):
        assert np.abs(a - b).mean() < 2.0
