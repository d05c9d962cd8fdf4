// The extension module kv_cv._kv_cv: kv_cv.Error for the library's
// exceptions, the version, and the families of calls registered by the other
// files. A timing helper runs a resize loop in C++, so the benchmark can tell
// the binding's own cost per call.
#include <chrono>
#include <string>

#include "kvpy.h"

#include "kv_core/kv_exception.h"

#ifndef KV_CV_VERSION
#error "KV_CV_VERSION must be defined by the build"
#endif

namespace kvpy {

namespace {

PyObject* g_error = nullptr;  // kv_cv.Error; lives as long as the process

const char kErrorDoc[] =
    "An error reported by the kv_cv library (a kv::Exception).\n\n"
    "Attributes: status (the library's status number: 2 assertion, 5 out of range, 6 invalid\n"
    "value, 8 unsupported, 14 empty input, ...), message (the library's message), function\n"
    "(the throwing function, such as 'kv::CvBackendSimd::colorCvt'), file and line (its source).";

void raiseError(const kv::Exception& e) {
    const std::string text = e.message() + " (" + e.function() + ", status " + std::to_string(int(e.status())) + ")";
    py::object error = py::reinterpret_borrow<py::object>(g_error)(text);
    error.attr("status") = int(e.status());
    error.attr("message") = e.message();
    error.attr("function") = e.function();
    error.attr("file") = e.file();
    error.attr("line") = e.line();
    PyErr_SetObject(g_error, error.ptr());
}

// Seconds per call of the fast backend's resize from `src` into `dst`,
// over `iterations` calls: the same work kv_cv.resize does, without Python.
double timeResize(py::handle src, py::handle dst, py::handle method, int iterations) {
    const kv::Frame s = imageArg(src, "src");
    const kv::Frame d = imageArg(dst, "dst");
    Result r = resultFor(dst, s.format(), d.size(), "dst");
    const ResizeMethod& m = resizeMethodArg(method);
    if (iterations < 1) throw py::value_error("iterations must be positive");
    py::gil_scoped_release nogil;
    kv::ICvBackend& b = fastBackend();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < iterations; ++i) m.run(b, m.param, s, r.frame);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / iterations;
}

}  // namespace

void registerErrors(py::module_& m) {
    g_error = PyErr_NewExceptionWithDoc("kv_cv.Error", kErrorDoc, PyExc_RuntimeError, nullptr);
    if (!g_error) throw py::error_already_set();
    for (const char* name : {"status", "message", "function", "file", "line"})
        if (PyObject_SetAttrString(g_error, name, Py_None) != 0) throw py::error_already_set();
    m.add_object("Error", py::handle(g_error));
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const kv::Exception& e) {
            raiseError(e);
        }
    });
}

}  // namespace kvpy

PYBIND11_MODULE(_kv_cv, m) {
    namespace py = pybind11;
    // Every docstring starts with its own signature line (in the form
    // inspect.signature reads); pybind11's would only say "object".
    py::options options;
    options.disable_function_signatures();
    m.doc() = "The kv_cv image library's compiled core; import kv_cv instead.";
    m.attr("__version__") = KV_CV_VERSION;
    kvpy::registerErrors(m);
    kvpy::registerFrame(m);
    kvpy::registerImageOps(m);
    kvpy::registerTensorOps(m);
    kvpy::registerPipeline(m);
    // The public names, for `from kv_cv._kv_cv import *`.
    py::list names;
    for (py::handle name : m.attr("__dict__").attr("keys")())
        if (name.cast<std::string>()[0] != '_') names.append(name);
    names.attr("sort")();
    m.attr("__all__") = names;
    m.def("_time_resize", &kvpy::timeResize, R"doc(_time_resize(src, dst, method, iterations)
--

Seconds per call of the fast backend resizing src into dst, timed in C++ (benchmarks).)doc",
          py::arg("src"), py::arg("dst"), py::arg("method"), py::arg("iterations"));
}
