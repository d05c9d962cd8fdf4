"""The package itself: version, docs and stubs for every public name, and an installed
copy that imports without LD_LIBRARY_PATH."""

import ast
import inspect
import os
import pathlib
import subprocess
import sys

import numpy as np
import pytest

import kv_cv

PACKAGE = pathlib.Path(kv_cv.__file__).parent


def test_version_is_the_projects():
    cmake = pathlib.Path(__file__).resolve().parents[2] / "CMakeLists.txt"
    assert f"project(kv_cv VERSION {kv_cv.__version__} " in cmake.read_text()


def test_every_public_name_has_a_docstring_a_signature_and_a_stub():
    stub = ast.parse((PACKAGE / "__init__.pyi").read_text())
    stubbed = {node.name for node in stub.body if isinstance(node, (ast.FunctionDef, ast.ClassDef))}
    assert (PACKAGE / "py.typed").exists()
    for name in kv_cv.__all__:
        obj = getattr(kv_cv, name)
        assert name in stubbed, f"{name} has no stub"
        assert obj.__doc__ and len(obj.__doc__.strip()) > 40, f"{name} has no docstring"
        if inspect.isbuiltin(obj) or inspect.isfunction(obj):
            assert list(inspect.signature(obj).parameters)[0] in ("src", "rects", "a", "producer"), name
    assert str(inspect.signature(kv_cv.resize)) == "(src, size, method='bilinear', backend='fast', out=None)"
    assert str(inspect.signature(kv_cv.Frame)) == "(data=None, format=None, size=None)"
    assert str(inspect.signature(kv_cv.Scaler)) == "(source, size, method='bilinear')"
    assert "cv2.INTER_AREA" in kv_cv.resize.__doc__


@pytest.mark.skipif(not os.environ.get("KV_BUILD_DIR") or os.environ.get("KV_SANITIZE"),
                    reason="needs the build tree (run through ctest), not a sanitizer build")
def test_installed_package_finds_its_libraries(tmp_path):
    prefix = tmp_path / "prefix"
    subprocess.run(["cmake", "--install", os.environ["KV_BUILD_DIR"], "--prefix", str(prefix)], check=True,
                   stdout=subprocess.DEVNULL)
    site = prefix / "lib" / "python3" / "dist-packages"
    env = {k: v for k, v in os.environ.items() if k not in ("LD_LIBRARY_PATH", "PYTHONPATH")}
    env["PYTHONPATH"] = str(site)
    script = ("import kv_cv, numpy as np; print(kv_cv.__file__); "
              "print(kv_cv.resize(np.zeros((8, 8, 3), np.uint8), (4, 4)).shape)")
    done = subprocess.run([sys.executable, "-c", script], env=env, capture_output=True, text=True, cwd=tmp_path)
    assert done.returncode == 0, done.stderr
    path, shape = done.stdout.split("\n")[:2]
    assert path.startswith(str(site)) and shape == "(4, 4, 3)"
    assert (site / "kv_cv" / "__init__.pyi").exists()


def test_result_arrays_are_ordinary_numpy_arrays():
    out = kv_cv.resize(np.zeros((8, 8, 3), np.uint8), (4, 4))
    assert type(out) is np.ndarray and out.flags.owndata and out.flags.c_contiguous
