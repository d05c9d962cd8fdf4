"""The row pipeline from Python: chains equal the generic backend's separate steps,
sources stay alive, chains drain again, out= in place, errors and concurrent use."""

import gc
import threading

import numpy as np
import pytest

import kv_cv
from conftest import expect_error, smooth_image


@pytest.mark.parametrize("method", ["nearest", "bilinear", "area"])
@pytest.mark.parametrize("source_format, size, to", [("nv12", (96, 72), "bgr"), ("bgr", (63, 41), "i420"),
                                                     ("bgr", (50, 38), "gray"), ("i420", (64, 48), "bgr"),
                                                     ("bgr", (64, 48), "rgb")])
def test_scaler_then_converter_equals_the_base_backend_in_two_steps(rng, method, source_format, size, to):
    image = smooth_image(rng, 98, 130)
    source = image if source_format == "bgr" else kv_cv.convert(image, source_format)
    chain = kv_cv.FormatConverter(kv_cv.Scaler(source, size, method), to)
    assert (chain.format, chain.size) == (to, size)
    scaled = kv_cv.resize(source, size, method, backend="base")
    expected = kv_cv.convert(scaled, to, backend="base")
    produced = kv_cv.produce_frame(chain)
    if isinstance(expected, kv_cv.Frame):
        for ours, theirs in zip(produced.planes, expected.planes):
            np.testing.assert_array_equal(ours, theirs)
    else:
        np.testing.assert_array_equal(produced, expected)


def test_converter_then_scaler(rng):
    image = smooth_image(rng, 40, 60)
    chain = kv_cv.Scaler(kv_cv.FormatConverter(image, "gray"), (30, 20), "area")
    expected = kv_cv.resize(kv_cv.convert(image, "gray", backend="base"), (30, 20), "area", backend="base")
    np.testing.assert_array_equal(kv_cv.produce_frame(chain), expected)


def test_chain_keeps_its_sources_alive_and_drains_again(rng):
    def build():
        image = smooth_image(rng, 40, 60)
        return kv_cv.FormatConverter(kv_cv.Scaler(kv_cv.Frame(image), (30, 20)), "rgb"), image.copy()

    chain, copy = build()  # the array, the Frame and the Scaler now live only through the chain
    gc.collect()
    first = kv_cv.produce_frame(chain)
    np.testing.assert_array_equal(first, kv_cv.resize(copy, (30, 20), backend="base")[..., ::-1])
    np.testing.assert_array_equal(kv_cv.produce_frame(chain), first)
    # The chain reads the source at each drain: changed pixels show.
    source = np.asarray(chain.source.source)
    source[:] = 0
    assert not kv_cv.produce_frame(chain).any()


def test_produce_frame_writes_out_in_place(rng):
    image = smooth_image(rng, 40, 60)
    out = np.empty((20, 30, 3), np.uint8)
    scaler = kv_cv.Scaler(image, (30, 20))
    assert kv_cv.produce_frame(scaler, out=out) is out
    np.testing.assert_array_equal(out, kv_cv.resize(image, (30, 20), backend="base"))
    frame = kv_cv.Frame(format="nv12", size=(60, 40))
    assert kv_cv.produce_frame(kv_cv.FormatConverter(image, "nv12"), out=frame) is frame
    np.testing.assert_array_equal(frame.planes[0], kv_cv.convert(image, "nv12", backend="base").planes[0])


@pytest.mark.parametrize(
    "call, kind, fragment",
    [
        (lambda: kv_cv.Scaler(np.zeros((4, 4), np.uint8), (0, 2)), ValueError, "between (1, 1)"),
        (lambda: kv_cv.Scaler(np.zeros((4, 4), np.uint8), (2, 2), "lanczos"), ValueError, "'area'"),
        (lambda: kv_cv.produce_frame(kv_cv.Scaler(kv_cv.Frame(format="f32c3", size=(4, 4)), (2, 2))), kv_cv.Error,
         "unsupported frame format"),
        (lambda: kv_cv.Scaler("image", (2, 2)), TypeError, "source must be"),
        (lambda: kv_cv.FormatConverter(np.zeros((4, 4), np.uint8), "nv13"), ValueError, "unknown format"),
        (lambda: kv_cv.FormatConverter(kv_cv.Frame(format="f32", size=(4, 4)), "nv12"), kv_cv.Error, "status"),
        (lambda: kv_cv.produce_frame(np.zeros((4, 4), np.uint8)), TypeError, "kv_cv.Scaler or"),
        (lambda: kv_cv.produce_frame(kv_cv.Scaler(np.zeros((4, 4), np.uint8), (2, 2)), out=np.zeros((2, 3), np.uint8)),
         ValueError, "shape (2, 2)"),
        (lambda: kv_cv.RowProducer(), TypeError, "No constructor"),
    ],
)
def test_pipeline_errors(call, kind, fragment):
    expect_error(call, kind, fragment)


def test_a_chain_drained_by_two_threads_at_once_is_refused_not_raced(rng):
    image = smooth_image(rng, 1080, 1920)
    chain = kv_cv.FormatConverter(kv_cv.Scaler(image, (1280, 720)), "nv12")
    expected = kv_cv.produce_frame(chain).planes[0].copy()
    outcomes = []

    def drain():
        for _ in range(5):
            try:
                outcomes.append(np.array_equal(kv_cv.produce_frame(chain).planes[0], expected))
            except RuntimeError as error:
                assert "in use by another thread" in str(error)
                outcomes.append("refused")

    threads = [threading.Thread(target=drain) for _ in range(2)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert len(outcomes) == 10 and False not in outcomes
