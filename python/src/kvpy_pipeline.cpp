// The row pipeline from Python: Scaler and FormatConverter wrap the library's
// producers, each holding its source (a frame, or the upstream producer's
// Python object, so the C++ chain's non-owning pointers stay valid), and
// produce_frame drains a chain into an array or Frame.
//
// Producers are single-threaded objects. produce_frame takes a flag on every
// producer of the chain for the whole call (the GIL is released meanwhile),
// so a second thread draining any part of the same chain gets a RuntimeError
// instead of a data race. Each drain re-runs reuse() down the chain first, so
// a chain can be drained any number of times; unchanged sizes keep the tables.
#include <atomic>
#include <string>

#include "kvpy.h"

#include "kv_cv/kv_format_converter.h"
#include "kv_cv/kv_row_producer.h"
#include "kv_cv/kv_scaler.h"

namespace kvpy {

namespace {

// Deep chains would only exhaust the stack of reuseChain.
constexpr int kMaxChain = 64;

class PyProducer {
public:
    virtual ~PyProducer() = default;
    virtual kv::IRowProducer& producer() = 0;
    // Reconfigures this producer; its upstream has just been reused.
    virtual void reuse() = 0;

    PyProducer* upstream = nullptr;  // null when the source is a frame
    kv::Frame source;                // the source frame when upstream is null
    py::object source_object;        // keeps the source alive
    int depth = 1;
    std::atomic<bool> busy{false};
    kv::FrameFormat format = kv::FRAME_UNDEFINED;  // output, fixed once built
    kv::Size size;
};

class PyScaler : public PyProducer {
public:
    kv::IRowProducer& producer() override { return scaler; }
    void reuse() override {
        if (upstream)
            scaler.reuse(upstream->producer(), dst_size, method);
        else
            scaler.reuse(source, dst_size, method);
    }
    kv::Scaler scaler;
    kv::Size dst_size;
    kv::ScaleMethod method = kv::KV_SCALE_BILINEAR;
};

class PyConverter : public PyProducer {
public:
    kv::IRowProducer& producer() override { return converter; }
    void reuse() override {
        if (upstream)
            converter.reuse(upstream->producer(), to);
        else
            converter.reuse(source, to);
    }
    kv::FormatConverter converter;
    kv::FrameFormat to = kv::FRAME_UNDEFINED;
};

// Holds the busy flag of every producer from `head` up the chain.
class ChainLock {
public:
    explicit ChainLock(PyProducer* head) : _head(head) {
        for (PyProducer* p = head; p; p = p->upstream) {
            if (p->busy.exchange(true)) {
                for (PyProducer* q = head; q != p; q = q->upstream) q->busy = false;
                throw std::runtime_error("this producer chain is in use by another thread; give each thread its own");
            }
        }
    }
    ~ChainLock() {
        for (PyProducer* p = _head; p; p = p->upstream) p->busy = false;
    }
    ChainLock(const ChainLock&) = delete;
    ChainLock& operator=(const ChainLock&) = delete;

private:
    PyProducer* _head;
};

void reuseChain(PyProducer* p) {
    if (p->upstream) reuseChain(p->upstream);
    p->reuse();
}

PyProducer* asProducer(py::handle value) {
    return py::isinstance<PyProducer>(value) ? &value.cast<PyProducer&>() : nullptr;
}

// Takes the source, configures the chain once (so bad arguments fail here),
// and records the output layout.
void build(PyProducer& node, py::handle source) {
    if (PyProducer* up = asProducer(source)) {
        if (up->depth >= kMaxChain)
            throw py::value_error("a producer chain holds at most " + std::to_string(kMaxChain) + " producers");
        node.upstream = up;
        node.depth = up->depth + 1;
    } else {
        node.source = imageArg(source, "source");
    }
    node.source_object = py::reinterpret_borrow<py::object>(source);
    ChainLock lock(&node);
    py::gil_scoped_release nogil;
    reuseChain(&node);
    const kv::FrameLayout& l = node.producer().layout();
    node.format = l.format;
    node.size = l.size;
}

PyScaler* makeScaler(py::handle source, py::handle size, py::handle method) {
    const ResizeMethod& m = resizeMethodArg(method);
    if (m.scaler < 0)
        throw py::value_error(std::string("method '") + m.name + "' is not available in the row pipeline");
    std::unique_ptr<PyScaler> s(new PyScaler);
    s->dst_size = sizeArg(size, "size");
    s->method = static_cast<kv::ScaleMethod>(m.scaler);
    build(*s, source);
    return s.release();
}

PyConverter* makeConverter(py::handle source, py::handle to) {
    std::unique_ptr<PyConverter> c(new PyConverter);
    c->to = parseFormat(to, "to");
    build(*c, source);
    return c.release();
}

py::object produceFrame(py::handle producer, py::handle out) {
    PyProducer* p = asProducer(producer);
    if (!p) throw py::type_error("producer must be a kv_cv.Scaler or kv_cv.FormatConverter, got " + describe(producer));
    Result r = resultFor(out, p->format, p->size);
    ChainLock lock(p);
    {
        py::gil_scoped_release nogil;
        reuseChain(p);
        kv::produceFrame(p->producer(), r.frame);
    }
    return r.object;
}

}  // namespace

void registerPipeline(py::module_& m) {
    py::class_<PyProducer>(m, "RowProducer", R"doc(The row producers' common base: Scaler and FormatConverter.

A producer hands out an image one row at a time; producers chain (a Scaler reading a
FormatConverter reading a Frame) with no whole intermediate image, and produce_frame
drains a chain into an image. A producer keeps its source alive. Producers are
single-threaded: a chain drained by two threads at once raises RuntimeError.

Attributes: format (the output format's name), size ((width, height) of the output),
source (what it reads).)doc")
        .def_property_readonly(
            "format", [](const PyProducer& p) { return formatName(p.format); }, "The output format's short name.")
        .def_property_readonly(
            "size", [](const PyProducer& p) { return py::make_tuple(p.size.width, p.size.height); },
            "(width, height) of the output.")
        .def_property_readonly(
            "source", [](const PyProducer& p) { return p.source_object; },
            "The Frame, array or producer this one reads.")
        .def("__repr__", [](const PyProducer& p) {
            return std::string(dynamic_cast<const PyScaler*>(&p) ? "kv_cv.Scaler" : "kv_cv.FormatConverter") + "(-> " +
                   formatName(p.format) + " " + std::to_string(p.size.width) + "x" + std::to_string(p.size.height) +
                   ")";
        });

    py::class_<PyScaler, PyProducer>(m, "Scaler", R"doc(Scaler(source, size, method='bilinear')
--

A row producer that resizes: the library's kv::Scaler.

source: a kv_cv.Frame, an image array, or another producer (Scaler, FormatConverter).
size: (width, height) of the output.
method: 'nearest', 'bilinear' or 'area' (area only reduces). Equal sizes copy rows.

The output keeps the source's format. Drain it with produce_frame(scaler).

Raises kv_cv.Error when the library cannot scale the source's format with this method
(here, or from produce_frame when the scaler finds out only then); TypeError or ValueError
for bad arguments.)doc")
        .def(py::init(&makeScaler), R"doc(__init__(self, source, size, method='bilinear')
--

Scales source to size (see help(kv_cv.Scaler)).)doc",
             py::arg("source"), py::arg("size"), py::arg("method") = "bilinear");

    py::class_<PyConverter, PyProducer>(m, "FormatConverter", R"doc(FormatConverter(source, to)
--

A row producer that converts the pixel format: the library's kv::FormatConverter.

source: a kv_cv.Frame, an image array, or another producer (Scaler, FormatConverter).
to: the output format's name, such as 'bgr', 'i420', 'nv12', 'f32c3'.

The output has the source's size. Drain it with produce_frame(converter).

Raises kv_cv.Error when the library cannot convert between the two formats; TypeError or
ValueError for bad arguments.)doc")
        .def(py::init(&makeConverter), R"doc(__init__(self, source, to)
--

Converts source to the format `to` (see help(kv_cv.FormatConverter)).)doc",
             py::arg("source"), py::arg("to"));

    m.def("produce_frame", &produceFrame, R"doc(produce_frame(producer, out=None)
--

Runs a producer chain from its first row to its last into an image.

producer: a Scaler or FormatConverter (the end of a chain).
out: None, or an array or Frame of the producer's format and size to write into; then
  nothing is allocated and out is returned.

Returns a new numpy array for one-plane formats, a kv_cv.Frame for multi-plane ones.
Each call starts the chain afresh, so a chain can be drained again (for instance after the
source's pixels changed). Raises RuntimeError when another thread is draining any
producer of the chain. Releases the GIL while producing.)doc",
          py::arg("producer"), py::arg("out") = py::none());
}

}  // namespace kvpy
