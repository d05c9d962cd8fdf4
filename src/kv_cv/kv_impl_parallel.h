// Row bands over the library's worker threads. An operation splits its
// destination rows into bands that do not depend on each other and hands
// them to parallelBands(), which runs them on up to getNumThreads() threads
// (the caller's among them) and returns when all are done. Bands are the
// only unit of work: each is a contiguous run of rows, so results cannot
// depend on how many threads ran them.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "kv_core/kv_exception.h"

#include "kv_core/kv_frame.h"

namespace kv {

class IRowProducer;

namespace impl {

// A non-owning reference to a callable: no allocation per call.
template <typename Signature>
class FunctionRef;

template <typename R, typename... Args>
class FunctionRef<R(Args...)> {
public:
    template <typename F, typename = std::enable_if_t<!std::is_same<std::decay_t<F>, FunctionRef>::value>>
    FunctionRef(F&& f)  // NOLINT(google-explicit-constructor): used like a function parameter
        : _object(const_cast<void*>(static_cast<const void*>(&f))),
          _call([](void* o, Args... a) -> R { return (*static_cast<std::remove_reference_t<F>*>(o))(a...); }) {}
    R operator()(Args... a) const { return _call(_object, a...); }

private:
    void* _object;
    R (*_call)(void*, Args...);
};

// Below this many output pixels (or samples) an operation stays on the
// calling thread: waking workers costs more than it saves.
constexpr int64_t kMinParallelPixels = 64 * 1024;

// How to cut `rows` rows of `pixels_per_row` pixels into bands: the number of
// bands (1 when the work is too small, the calling thread is inside a band
// already, or one thread is set), each a multiple of `align` rows (2 keeps
// 4:2:0 row pairs together) and at least `min_rows` rows.
int bandCount(int rows, int64_t pixels_per_row, int align = 1, int min_rows = 4);

// Band b of `bands` over `rows` rows: [first, last), boundaries on multiples
// of `align`; the last band takes what remains.
std::pair<int, int> bandRows(int rows, int bands, int b, int align = 1);

// Runs body(b) for b in 0..bands-1, on up to getNumThreads() threads, and
// returns when every band is done. The first exception a band throws is
// rethrown on the calling thread after all bands have finished. bands <= 1
// runs body(0) inline.
void parallelBands(int bands, FunctionRef<void(int)> body);

// Rows [first, last) of a producer's output into the same rows of `frame`
// (which has the producer's format and size): the producer is advanced past
// the rows before `first` without producing them. Scalers compute each row
// from its absolute index, so a band equals the same rows of a whole run.
// `first` is even, so that 4:2:0 row pairs stay together.
void produceRows(IRowProducer& producer, Frame& frame, int first, int last);

// An object's call over row bands of `rows` rows (boundaries on row pairs):
// fn(object, first, last) per band, band 0 on `self`, band b on others[b - 1]
// (created on first need and kept, then given self's settings by `prepare`).
// A band that fails hands the call back to one thread, which gives the
// call's own error (a band sees only its rows).
enum class BandRun { kNotSplit, kDone, kFailed };
template <typename T, typename Prepare, typename Fn>
BandRun runRowBands(T& self, std::vector<std::unique_ptr<T>>& others, int rows, int64_t pixels_per_row,
                    Prepare prepare, Fn&& fn) {
    const int bands = bandCount(rows, pixels_per_row, 2);
    if (bands <= 1) return BandRun::kNotSplit;
    while (int(others.size()) < bands - 1) others.emplace_back(new T);
    for (auto& o : others) prepare(*o);
    try {
        parallelBands(bands, [&](int b) {
            const std::pair<int, int> r = bandRows(rows, bands, b, 2);
            fn(b == 0 ? self : *others[size_t(b - 1)], r.first, r.second);
        });
    } catch (const Exception&) {
        return BandRun::kFailed;
    }
    return BandRun::kDone;
}

// True while the calling thread runs a band (nested calls then run inline).
bool insideBand();

}  // namespace impl
}  // namespace kv
