"""kv_cv.dataset.build: the driver, which plans one Dask task per output chunk, and the task, which
makes and writes its chunk on a worker."""

import logging
import os
import sys
import threading
import time
import uuid
from collections import OrderedDict
from typing import Callable, Dict, List, NamedTuple, Optional, Sequence, Tuple, Union

import numpy as np

import kv_cv

from . import _store
from ._items import DEFAULT_METHOD, MAX_PIXELS, ItemError, Settings, decode, preprocess
from ._sources import PathLike, read_items

_PROGRESS_EVERY = 0.5  # seconds between a task's progress events
_tuned = False


class Progress(NamedTuple):
    """Where a build stands: items made so far in this run (of `total` to make), failures among them,
    seconds since the tasks started, and items per second."""

    done: int
    total: int
    failed: int
    elapsed: float
    rate: float
    skipped_chunks: int = 0


class BuildResult(NamedTuple):
    """What build() did: the store's item count, valid items and failures (each a dict with index,
    path, box, reason), chunks written in this run and chunks found already written."""

    out: str
    items: int
    valid: int
    failures: List[dict]
    chunks: int
    written: int
    skipped: int
    seconds: float


class BuildError(RuntimeError):
    """Chunks that could not be built (their task failed): the others are kept; run again to retry."""


# ---- the task: one chunk ------------------------------------------------------------------------


_M_TRIM_THRESHOLD, _M_MMAP_THRESHOLD = -1, -3  # glibc's mallopt parameters


def _tune_process():
    """Prepares a worker process for items, once. Library threads 1 (kv_cv and cv2): tasks are the
    parallelism. glibc's malloc thresholds: Dask's nanny starts workers with
    MALLOC_TRIM_THRESHOLD_=65536, which also freezes the mmap threshold at 128 KiB, so that every
    decoded image and resize buffer is fresh pages from the kernel and an item costs about twice as
    much; here buffers up to 16 MiB come from the heap again and up to 64 MiB of free heap is kept."""
    global _tuned
    if _tuned:
        return
    _tuned = True
    if hasattr(kv_cv, "set_num_threads"):
        kv_cv.set_num_threads(1)
    import cv2

    cv2.setNumThreads(1)
    try:
        import ctypes

        libc = ctypes.CDLL(None)
        libc.mallopt(_M_MMAP_THRESHOLD, 16 << 20)
        libc.mallopt(_M_TRIM_THRESHOLD, 64 << 20)
    except (OSError, AttributeError):  # not glibc
        pass


_thread = threading.local()


def _scratch(shape: tuple, dtype: str) -> np.ndarray:
    """The calling thread's chunk buffer, kept from task to task: a new one would cost a page fault
    per 4 KiB written (about 1 ms per 224x224 float32 item here)."""
    buffers = getattr(_thread, "buffers", {})
    size = int(np.prod(shape)) * np.dtype(dtype).itemsize
    buffer = buffers.get("images")
    if buffer is None or buffer.nbytes < size:
        buffers["images"] = buffer = np.empty(size, np.uint8)
        _thread.buffers = buffers
    return buffer[:size].view(dtype).reshape(shape)


def build_chunk(out: str, k: int, start: int, items: Sequence[Tuple[str, Optional[tuple]]],
                peers: Dict[str, list], settings: dict, topic: Optional[str] = None) -> dict:
    """Makes items start.. of chunk k and writes the chunk's rows of every array, then its done
    marker. `peers` holds every box of each path (they decide its JPEG reduction). Item failures
    are recorded, never raised. Returns a small summary (no pixel data)."""
    import zarr

    _tune_process()
    began, began_cpu = time.perf_counter(), time.thread_time()
    settings = Settings(**{key: tuple(v) if isinstance(v, list) else v for key, v in settings.items()})
    n = len(items)
    images = _scratch((n,) + settings.item_shape, settings.dtype)
    valid = np.zeros(n, bool)
    boxes = np.zeros((n, 4), np.int32)
    sizes = np.zeros((n, 2), np.int32)
    failures = []
    report = _reporter(topic, k)
    by_path: Dict[str, List[int]] = OrderedDict()
    for i, (path, _) in enumerate(items):
        by_path.setdefault(path, []).append(i)
    finished = 0
    for path, indices in by_path.items():
        try:
            decoded = decode(path, peers[path], settings)
        except ItemError as e:
            decoded, error = None, e
        except Exception as e:  # noqa: BLE001 (any fault of one file is that file's failure)
            decoded, error = None, ItemError(f"{type(e).__name__}: {e}")
        for i in indices:
            box = items[i][1]
            if box is not None:
                boxes[i] = box
            if decoded is None:
                images[i] = 0
                failures.append([start + i, str(error)])
                continue
            sizes[i] = decoded.width, decoded.height
            if box is None:
                boxes[i] = 0, 0, decoded.width, decoded.height
            try:
                preprocess(decoded, box, settings, out=images[i])
                valid[i] = True
            except Exception as e:  # noqa: BLE001
                images[i] = 0
                reason = str(e) if isinstance(e, ItemError) else f"{type(e).__name__}: {e}"
                failures.append([start + i, reason])
        finished += len(indices)
        report(finished, len(failures))
    del decoded
    stop = start + n
    group = zarr.open_group(zarr.DirectoryStore(out), mode="r+")
    group["images"][start:stop] = images
    group["valid"][start:stop] = valid
    group["source/box"][start:stop] = boxes
    group["source/image_size"][start:stop] = sizes
    seconds, cpu = time.perf_counter() - began, time.thread_time() - began_cpu
    record = {"chunk": k, "start": start, "items": n, "failures": failures, "seconds": seconds, "cpu": cpu,
              "host": os.uname().nodename, "pid": os.getpid()}
    _store.write_marker(out, k, record)
    report(n, len(failures), final=True)
    return {key: record[key] for key in ("chunk", "items", "seconds", "pid")} | {"failed": len(failures)}


def _reporter(topic: Optional[str], k: int) -> Callable:
    """Sends (chunk, attempt, done, failed, worker) events to the driver at most every half second."""
    if topic is None:
        return lambda *args, **kwargs: None
    from distributed import get_worker

    try:
        worker = get_worker()
    except ValueError:  # not inside a worker
        return lambda *args, **kwargs: None
    attempt = uuid.uuid4().hex
    last = [0.0]

    def report(done, failed, final=False):
        now = time.monotonic()
        if final or now - last[0] >= _PROGRESS_EVERY:
            last[0] = now
            worker.log_event(topic, {"chunk": k, "attempt": attempt, "done": done, "failed": failed,
                                     "worker": worker.address, "pid": os.getpid(), "final": final})

    report(0, 0, final=True)  # the chunk has started here
    return report


# ---- the driver ---------------------------------------------------------------------------------


class _Events:
    """Progress events of the running tasks: the latest attempt of each chunk counts."""

    def __init__(self):
        self.lock = threading.Lock()
        self.chunks: Dict[int, dict] = {}

    def __call__(self, event):
        msg = event[1] if isinstance(event, tuple) else event
        with self.lock:
            self.chunks[msg["chunk"]] = msg

    def totals(self) -> Tuple[int, int]:
        with self.lock:
            return sum(m["done"] for m in self.chunks.values()), sum(m["failed"] for m in self.chunks.values())


def _positive(value, name: str) -> int:
    if not isinstance(value, (int, np.integer)) or isinstance(value, bool) or value < 1:
        raise ValueError(f"{name} must be a positive integer, got {value!r}")
    return int(value)


def local_cluster(workers: Optional[int] = None):
    """A dask.distributed.LocalCluster as build() starts one: `workers` processes (default one per
    core) of one thread each, on 127.0.0.1, without a dashboard. To build several stores on one
    cluster: `with local_cluster() as cluster, Client(cluster) as client: build(..., client=client)`."""
    import dask
    from distributed import LocalCluster

    n = _positive(workers, "workers") if workers is not None else os.cpu_count() or 1
    with dask.config.set(_QUIET_CLUSTER):  # read by the nannies as they start, and handed to their workers
        return LocalCluster(n_workers=n, threads_per_worker=1, processes=True, host="127.0.0.1",
                            dashboard_address=":0", scheduler_kwargs={"dashboard": False}, silence_logs=logging.ERROR)


# Dask's defaults wake every process every 20 ms (event loop check), sample each worker's stack every 10 ms
# and poll memory every 100 ms: an idle 2-worker cluster took 130 ms of CPU per second here, 25 with these.
_QUIET_CLUSTER = {"distributed.worker.profile.enabled": False, "distributed.admin.tick.interval": "1s",
                  "distributed.admin.system-monitor.interval": "2s",
                  "distributed.worker.memory.monitor-interval": "1s"}


def _connect(scheduler: str):
    from distributed import Client

    try:
        return Client(scheduler)
    except (OSError, TimeoutError) as e:
        raise ConnectionError(f"cannot reach the Dask scheduler at {scheduler}: {e}") from None


def build(sources: Union[PathLike, Sequence[PathLike]], out: PathLike, size=(224, 224), dtype="uint8",
          layout="nchw", order="rgb", letterbox=False, mean=None, std=None, method=DEFAULT_METHOD, boxes=None,
          chunk=512, client=None, *, workers: Optional[int] = None, full_decode=False, max_pixels=MAX_PIXELS,
          overwrite=False, progress: Union[None, bool, Callable[[Progress], None]] = None) -> BuildResult:
    """Builds (or finishes) a data set store at `out`: every item of `sources` decoded, cropped,
    resized and normalised into one fixed-shape array, by Dask distributed tasks of one chunk each.

    sources: a folder (recursively, sorted), a glob, an image, a text file of paths, or a list of these.
    out: the Zarr store (a folder) to make; an existing store of the same build is finished (only the
      chunks not written whole are made) and one of a different build is refused, or rebuilt with
      overwrite=True.
    size: the item's (width, height). dtype: 'uint8', 'float32' or 'float16'. layout: 'nchw' or
      'nhwc'. order: 'rgb' or 'bgr'. letterbox, mean, std: as kv_cv.crop_and_resize (mean and std
      need a float dtype). method: kv_cv.resize's method for the shrink (default DEFAULT_METHOD).
    boxes: a CSV path,x,y,w,h[,label]: one item per row instead of one per image.
    chunk: items per chunk of the store and per task.
    client: a dask.distributed.Client of a running cluster whose workers see the same files; None
      starts local_cluster(workers): `workers` processes (default one per core). Every task runs the
      library with one thread.
    full_decode: decode JPEGs at full size (no shrink-on-load). max_pixels: larger images are failures.
    progress: True for a bar on stderr, or a callable receiving Progress tuples.

    Returns a BuildResult. Raises ValueError or TypeError for bad arguments, StoreMismatch (a
    ValueError) for an output of another build, BuildError when tasks failed (the chunks they did not
    write are made by the next run)."""
    began = time.perf_counter()
    settings = Settings(size=size, dtype=dtype, layout=layout, order=order, letterbox=letterbox, mean=mean,
                        std=std, method=method, full_decode=full_decode, max_pixels=max_pixels)
    chunk = _positive(chunk, "chunk")
    if workers is not None:
        _positive(workers, "workers")
    out = os.path.abspath(os.fspath(out))
    items = read_items(sources, boxes)
    source_names = ([os.path.abspath(s) for s in sources] if isinstance(sources, (list, tuple))
                    else os.path.abspath(sources))
    desc = _store.description(items, settings, chunk, source_names,
                              os.path.abspath(boxes) if boxes is not None else None)
    _store.open_store(out, desc, items, chunk, settings, overwrite)
    chunks = -(-len(items) // chunk)
    markers = _store.done_chunks(out)
    missing = [k for k in range(chunks) if k not in markers]
    report = _TerminalProgress() if progress is True else (progress or None)
    if missing:
        markers.update(_run(out, items, chunk, settings, missing, client, workers, report, chunks - len(missing)))
    attrs = _store.finish(out, items, markers)
    return BuildResult(out, len(items), attrs["valid_items"], attrs["failures"], chunks, len(missing),
                       chunks - len(missing), time.perf_counter() - began)


def _run(out, items, chunk, settings, missing, client, workers, report, skipped) -> Dict[int, dict]:
    """Runs the tasks of the missing chunks; returns the markers they wrote."""
    peers: Dict[str, list] = {}
    for item in items:
        peers.setdefault(item.path, []).append(item.box)
    own = None
    if client is None:
        from distributed import Client

        own = local_cluster(workers)
        client = Client(own)
    topic = f"kv-dataset-{uuid.uuid4().hex}"
    events = _Events()
    futures = {}
    total = sum(min(chunk, len(items) - k * chunk) for k in missing)
    try:
        client.subscribe_topic(topic, events)
        params = settings.as_dict()
        for k in missing:
            start = k * chunk
            part = items[start:start + chunk]
            task_items = [(item.path, item.box) for item in part]
            task_peers = {path: peers[path] for path in {item.path for item in part}}
            futures[client.submit(build_chunk, out, k, start, task_items, task_peers, params, topic,
                                  key=f"kv-dataset-chunk-{k}-{topic[-12:]}", pure=False, retries=0)] = k
        started = time.perf_counter()
        pending = dict(futures)
        finished: Dict[int, dict] = {}
        errors: Dict[int, BaseException] = {}
        last_report = 0.0
        while pending:
            time.sleep(0.1)
            for future in [f for f in pending if f.done()]:
                k = pending.pop(future)
                if future.status == "finished":
                    finished[k] = future.result()
                else:
                    errors[k] = future.exception()
            if report is not None and (time.monotonic() - last_report >= 0.25 or not pending):
                last_report = time.monotonic()
                done, failed = events.totals()
                done = max(done, sum(r["items"] for r in finished.values()))
                failed = max(failed, sum(r["failed"] for r in finished.values()))
                elapsed = time.perf_counter() - started
                report(Progress(done, total, failed, elapsed, done / elapsed if elapsed > 0 else 0.0, skipped))
        if errors:
            k, error = sorted(errors.items())[0]
            raise BuildError(f"{len(errors)} of {len(missing)} chunks could not be built (chunk {k}: "
                             f"{type(error).__name__}: {error}); the store keeps the others: run again to retry")
    finally:
        if futures:
            client.cancel(list(futures))
        try:
            client.unsubscribe_topic(topic)
        except Exception:  # noqa: BLE001 (a client already gone)
            pass
        if own is not None:
            client.close()
            own.close()
        if isinstance(report, _TerminalProgress):
            report.close()
    markers = _store.done_chunks(out)
    return {k: markers[k] for k in missing if k in markers}


class _TerminalProgress:
    """A one-line bar on stderr: items done of total, items per second, failures, time left. Off a
    terminal, one line every ten seconds."""

    def __init__(self, stream=None):
        self.stream = stream or sys.stderr
        self.tty = self.stream.isatty()
        self.last = 0.0
        self.line = ""

    def __call__(self, p: Progress):
        now = time.monotonic()
        if not self.line and p.skipped_chunks:
            self.stream.write(f"resuming: {p.skipped_chunks} chunks were already written\n")
        if not self.tty and now - self.last < 10 and p.done < p.total:
            return
        self.last = now
        share = p.done / p.total if p.total else 1.0
        bar = "#" * int(share * 24)
        left = (p.total - p.done) / p.rate if p.rate > 0 else float("nan")
        eta = f"{int(left // 60)}:{int(left % 60):02d} left" if left == left else "--:-- left"
        self.line = (f"[{bar:<24}] {p.done}/{p.total} items {share:4.0%}  {p.rate:.1f} items/s  "
                     f"{p.failed} failed  {eta}")
        self.stream.write(("\r" + self.line + "\x1b[K") if self.tty else self.line + "\n")
        self.stream.flush()

    def close(self):
        if self.tty and self.line:
            self.stream.write("\n")
            self.stream.flush()
