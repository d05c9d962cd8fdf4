"""kv_cv.dataset.build on Dask distributed: a local cluster of 2 worker processes against a plain loop
over the package's calls, a worker killed in the middle of a run, an interrupted run resumed, boxes
outside their images, and the command line against a running scheduler."""

import csv
import json
import os
import signal
import subprocess
import sys
import time

import numpy as np
import pytest
import zarr
from distributed import Client

import kv_cv
from kv_cv import dataset
from kv_cv.dataset import ItemError, Settings

from dataset_files import make_folder

# The engine is pure Python over the calls test_dataset.py runs under the sanitizers too; its worker
# processes under the preloaded AddressSanitizer would only spend the CI's time.
pytestmark = pytest.mark.skipif(bool(os.environ.get("KV_SANITIZE")), reason="worker processes under the sanitizers")

ITEM = dict(size=(48, 40), dtype="float32", mean=(120.0, 115.0, 105.0), std=(60.0, 58.0, 57.0))
CHUNK = 24
IMAGES = 240


@pytest.fixture(scope="module")
def folder(tmp_path_factory):
    root = tmp_path_factory.mktemp("photos")
    broken = make_folder(str(root), np.random.default_rng(1919), IMAGES)
    return str(root), broken


@pytest.fixture(scope="module")
def reference(folder):
    """The plain loop: the package's decode rule, kv_cv.resize and kv_cv.crop_and_resize, one item at a time."""
    settings = Settings(**ITEM)
    width, height = settings.size
    items = dataset.read_items(folder[0])
    images = np.zeros((len(items), 3, height, width), np.float32)
    reasons = {}
    for i, item in enumerate(items):
        try:
            decoded = dataset.decode(item.path, [None], settings)
        except ItemError as e:
            reasons[os.path.basename(item.path)] = str(e)
            continue
        image = decoded.image
        if image.shape[:2] != (height, width):
            image = kv_cv.resize(image, (width, height), method=settings.method)
        kv_cv.crop_and_resize(image, None, (1, 3, height, width), mean=settings.mean, std=settings.std,
                              out=images[i:i + 1])
    valid = np.array([os.path.basename(item.path) not in reasons for item in items])
    return [item.path for item in items], images, valid, reasons


@pytest.fixture(scope="module")
def client():
    with dataset.local_cluster(2) as cluster, Client(cluster) as c:
        yield c


def assert_store_equals(out, reference):
    paths, images, valid, _ = reference
    store = zarr.open_group(out, mode="r")
    assert list(store["source/path"][:]) == paths
    assert np.array_equal(store["valid"][:], valid)
    assert np.array_equal(store["images"][:], images)  # element by element; failed items stay zero
    assert store.attrs["complete"] and store.attrs["valid_items"] == valid.sum()


def markers(out):
    return {int(name): os.path.join(out, ".done", name) for name in os.listdir(os.path.join(out, ".done"))}


def tree_state(out):
    return {os.path.join(folder, f): os.stat(os.path.join(folder, f)).st_mtime_ns
            for folder, _, files in os.walk(out) for f in files}


def test_local_cluster_of_two_processes_equals_a_plain_loop(folder, reference, tmp_path):
    root, broken = folder
    out = str(tmp_path / "set.zarr")
    seen = []
    result = dataset.build(root, out, chunk=CHUNK, workers=2, progress=seen.append, **ITEM)
    total = IMAGES + len(broken)
    assert (result.items, result.valid, result.written, result.skipped) == (total, IMAGES, -(-total // CHUNK), 0)
    assert_store_equals(out, reference)
    # Every broken file is a failure with its reason, and nothing else is.
    store = zarr.open_group(out, mode="r")
    failures = {os.path.basename(f["path"]): f["reason"] for f in store.attrs["failures"]}
    assert failures == reference[3] and set(failures) == set(broken)
    for name, fragment in broken.items():
        assert fragment in failures[name], failures[name]
    assert store["images"].chunks == (CHUNK, 3, 40, 48) and store["images"].dtype == np.float32
    sizes, boxes = store["source/image_size"][:], store["source/box"][:]
    assert (boxes[:, :2] == 0).all() and np.array_equal(boxes[:, 2:], sizes)
    assert store.attrs["parameters"] == dict(Settings(**ITEM).as_dict(), chunk=CHUNK, sources=root, boxes=None)
    assert (store.attrs["decode"], store.attrs["library_version"]) == ("shrink-on-load", kv_cv.__version__)
    # Both worker processes made chunks, and the progress reached every item and failure.
    pids = {json.load(open(path))["pid"] for path in markers(out).values()}
    assert len(pids) == 2 and os.getpid() not in pids
    assert (seen[-1].done, seen[-1].total, seen[-1].failed) == (total, total, len(broken)) and seen[-1].rate > 0
    # A second run over the finished store starts no cluster, writes nothing and says so.
    before = tree_state(out)
    again = dataset.build(root, out, chunk=CHUNK, **ITEM)
    assert (again.written, again.skipped, again.valid) == (0, result.written, IMAGES)
    assert tree_state(out) == before
    # Other parameters are refused, naming the difference.
    with pytest.raises(dataset.StoreMismatch, match=r"size 48x40 -> 48x48.*overwrite"):
        dataset.build(root, out, chunk=CHUNK, **dict(ITEM, size=(48, 48)))
    with pytest.raises(dataset.StoreMismatch, match=r"chunk 24 -> 25"):
        dataset.build(root, out, chunk=CHUNK + 1, **ITEM)
    assert tree_state(out) == before


def test_a_worker_killed_mid_run_has_its_chunks_made_again(folder, reference, client, tmp_path):
    out = str(tmp_path / "killed.zarr")
    pids = client.run(os.getpid)
    killed = {}

    def kill_a_busy_worker(progress):
        if killed:
            return
        for address, keys in client.processing().items():
            if keys:
                killed.update(pid=pids[address], chunks={int(str(k).split("-")[3]) for k in keys})
                os.kill(pids[address], signal.SIGKILL)
                return

    dataset.build(folder[0], out, chunk=60, client=client, progress=kill_a_busy_worker, **ITEM)
    assert killed, "no task was running to kill"
    assert_store_equals(out, reference)
    for k in killed["chunks"]:  # made again by a live worker
        assert json.load(open(markers(out)[k]))["pid"] != killed["pid"]


def test_an_interrupted_run_resumes_writing_only_the_missing_chunks(folder, reference, client, tmp_path):
    out = str(tmp_path / "resumed.zarr")

    def interrupt(progress):
        if len(markers(out)) >= 2:
            raise KeyboardInterrupt

    with pytest.raises(KeyboardInterrupt):
        dataset.build(folder[0], out, chunk=CHUNK, client=client, progress=interrupt, **ITEM)
    deadline = time.monotonic() + 60
    while any(client.run(lambda dask_worker: len(dask_worker.active_threads)).values()):
        assert time.monotonic() < deadline, "cancelled tasks still running"
        time.sleep(0.1)
    chunks = -(-(IMAGES + len(folder[1])) // CHUNK)
    done = markers(out)
    assert 2 <= len(done) < chunks and not zarr.open_group(out, mode="r").attrs["complete"]
    # A chunk cut short: its rows written (here: garbage) but its marker not yet.
    torn = min(done)
    os.remove(done.pop(torn))
    with open(os.path.join(out, "images", f"{torn}.0.0.0"), "r+b") as f:
        f.write(b"\x7f" * 4096)
    kept = {path: mtime for path, mtime in tree_state(out).items()
            if any(path.endswith(os.sep + name) for k in done for name in (f"{k}.0.0.0", f"{k}"))}
    result = dataset.build(folder[0], out, chunk=CHUNK, client=client, **ITEM)
    assert (result.written, result.skipped) == (chunks - len(done), len(done))
    assert {path: os.stat(path).st_mtime_ns for path in kept} == kept
    assert_store_equals(out, reference)


def test_boxes_outside_their_images_are_clipped_or_recorded(folder, client, tmp_path):
    root = folder[0]
    paths = [p for p in dataset.list_images(root) if os.path.basename(p).startswith("img")][:30]
    rows = []
    rng = np.random.default_rng(7)
    for path in paths + [os.path.join(root, "cut.jpg")]:
        width, height = (400, 300) if path.endswith("cut.jpg") else dataset.decode(path)[2:]
        boxes = [(0, 0, width, height), (-width // 3, -5, width // 2, height), (width // 2, height // 3, width, 9),
                 (width + 1, 0, 10, 10), (-20, height - 3, 30, 20)]
        rows += [(os.path.relpath(path, root), *box, f"l{int(rng.integers(3))}") for box in boxes]
    csv_path = tmp_path / "boxes.csv"
    with open(csv_path, "w", newline="") as f:
        csv.writer(f).writerows([("path", "x", "y", "w", "h", "label")] + rows)
    settings = dict(size=(40, 32), dtype="uint8", layout="nhwc", order="bgr", letterbox=True)
    out = str(tmp_path / "boxes.zarr")
    result = dataset.build(root, out, boxes=csv_path, chunk=7, client=client, **settings)
    store = zarr.open_group(out, mode="r")
    # The plain loop: each image's items from its every box.
    expected = {}
    for path in dict.fromkeys(os.path.join(root, row[0]) for row in rows):
        mine = [i for i, row in enumerate(rows) if os.path.join(root, row[0]) == path]
        for i, item in zip(mine, dataset.load_items(path, [tuple(rows[i][1:5]) for i in mine], **settings)):
            expected[i] = item
    reasons = {f["index"]: f["reason"] for f in store.attrs["failures"]}
    for i in range(len(rows)):
        if isinstance(expected[i], ItemError):
            assert reasons[i] == str(expected[i]) and not store["valid"][i]
        else:
            assert np.array_equal(store["images"][i], expected[i]) and store["valid"][i], i
    outside = [i for i, row in enumerate(rows) if i % 5 == 3 and not row[0].startswith("cut")]
    assert len(outside) == 30 and all("lies outside the" in reasons[i] for i in outside)
    assert len(reasons) == 30 + 5 and result.valid == len(rows) - 35
    assert [tuple(b) for b in store["source/box"][:]] == [tuple(row[1:5]) for row in rows]
    assert list(store["source/label"][:]) == [row[5] for row in rows]


def test_command_line_on_a_running_cluster(folder, reference, client, tmp_path, capsys):
    from kv_cv.dataset.__main__ import main

    paths, images, valid, _ = reference
    chosen = list(range(0, len(paths), 9))
    listing = tmp_path / "chosen.txt"
    listing.write_text("".join(paths[i] + "\n" for i in chosen))
    out = str(tmp_path / "cli.zarr")
    item = ["--size", "48x40", "--dtype", "float32", "--mean", "120,115,105", "--std", "60,58,57", "--chunk", "8"]
    scheduler = client.scheduler.address
    done = subprocess.run([sys.executable, "-m", "kv_cv.dataset", "build", str(listing), out, *item,
                           "--scheduler", scheduler, "--quiet"], capture_output=True, text=True, timeout=120,
                          env=dict(os.environ, PYTHONPATH=os.pathsep.join(p for p in sys.path if p)))
    assert (done.returncode, done.stderr) == (0, "")
    store = zarr.open_group(out, mode="r")
    assert np.array_equal(store["images"][:], images[chosen]) and np.array_equal(store["valid"][:], valid[chosen])
    assert main(["build", str(listing), out, *item, "--scheduler", scheduler]) == 0
    assert "nothing to do" in capsys.readouterr().err
    assert main(["info", out]) == 0 and f"{len(chosen)} items, complete" in capsys.readouterr().out
    dask_config = pytest.importorskip("dask.config")
    with dask_config.set({"distributed.comm.timeouts.connect": "1s"}):
        for args, status, message in [(["--size", "40x40"], 2, "size 48x40 -> 40x40"),
                                      (["--workers", "2", "--scheduler", scheduler], 2, "does not go with"),
                                      (["--scheduler", "tcp://127.0.0.1:9"], 1, "cannot reach the Dask scheduler"),
                                      (["--chunk", "0"], 2, "chunk must be a positive integer")]:
            assert main(["build", str(listing), out, *item, *args]) == status
            assert message in capsys.readouterr().err
    with pytest.raises(SystemExit):
        main(["build", str(listing), out, "--size", "40"])
    assert "WxH" in capsys.readouterr().err
    assert main(["build", str(listing), str(listing / "set.zarr"), "--quiet"]) == 1  # a file where a folder goes
    assert capsys.readouterr().err.startswith("error: ")
