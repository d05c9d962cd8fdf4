// The thread count setting and the band runner. The setting is one process-wide
// value; worker threads start on the first call that needs them. Each call
// takes up to n - 1 of the pool's workers besides its own thread, so callers
// that run their own threads never get more than n threads per call, and a
// band that calls the library again runs that call inline.
#include "kv_impl_parallel.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "kv_core/kv_exception.h"
#include "kv_cv/kv_row_producer.h"
#include "kv_cv/kv_row_writer.h"
#include "kv_cv/kv_threads.h"

#define KV_SOURCE_FILE "src/kv_cv/kv_impl_parallel"

namespace kv {

namespace {

std::atomic<int> g_threads{1};

int hardwareThreads() {
    const unsigned n = std::thread::hardware_concurrency();
    return n == 0 ? 1 : int(n);
}

thread_local bool t_inside_band = false;

struct InsideBand {
    InsideBand() : _was(t_inside_band) { t_inside_band = true; }
    ~InsideBand() { t_inside_band = _was; }
    bool _was;
};

// ---- a pool on std::thread ----------------------------------------------------

// One parallelBands call, on the caller's stack: bands are claimed by index
// until none is left. The caller returns only when every band is done and
// no worker is still inside the job.
struct Job {
    impl::FunctionRef<void(int)>* body;
    int bands = 0;
    int helpers_allowed = 0;
    std::atomic<int> next{0};
    std::atomic<int> joined{0};  // workers that took the job (under the pool's mutex)
    std::mutex mutex;            // guards active, done, error
    std::condition_variable finished;
    int active = 0;  // workers inside work()
    int done = 0;
    std::exception_ptr error;

    void work() {
        for (int b = next.fetch_add(1); b < bands; b = next.fetch_add(1)) {
            std::exception_ptr failure;
            try {
                InsideBand inside;
                (*body)(b);
            } catch (...) {
                failure = std::current_exception();
            }
            std::lock_guard<std::mutex> lock(mutex);
            if (failure && !error) error = failure;
            if (++done == bands) finished.notify_all();
        }
    }
};

class ThreadPool {
public:
    ~ThreadPool() {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _stop = true;
        }
        _wake.notify_all();
        for (std::thread& t : _workers) t.join();
    }

    void run(int bands, int threads, impl::FunctionRef<void(int)>& body) {
        Job job;
        job.body = &body;
        job.bands = bands;
        job.helpers_allowed = std::min(threads, bands) - 1;
        {
            std::lock_guard<std::mutex> lock(_mutex);
            while (int(_workers.size()) < threads - 1) _workers.emplace_back([this] { _loop(); });
            _jobs.push_back(&job);
            _listed.fetch_add(1, std::memory_order_relaxed);
        }
        for (int i = 0; i < job.helpers_allowed; ++i) _wake.notify_one();
        job.work();
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _jobs.erase(std::find(_jobs.begin(), _jobs.end(), &job));
            _listed.fetch_sub(1, std::memory_order_relaxed);
        }
        std::unique_lock<std::mutex> lock(job.mutex);
        job.finished.wait(lock, [&] { return job.done == job.bands && job.active == 0; });
        if (job.error) std::rethrow_exception(job.error);
    }

private:
    void _loop() {
        std::unique_lock<std::mutex> lock(_mutex);
        for (;;) {
            Job* job = nullptr;
            // A short spin before sleeping: calls that follow each other (a
            // frame loop) find the worker awake instead of waking it.
            lock.unlock();
            for (int i = 0; i < kSpins && _listed.load(std::memory_order_relaxed) == 0; ++i) pause();
            lock.lock();
            _wake.wait(lock, [&] {
                if (_stop) return true;
                for (Job* j : _jobs)
                    if (j->next.load() < j->bands && j->joined.load() < j->helpers_allowed) {
                        job = j;
                        return true;
                    }
                return false;
            });
            if (_stop) return;
            // Registered while the pool's mutex keeps the job listed, so the
            // caller waits for this worker to leave.
            job->joined.fetch_add(1);
            {
                std::lock_guard<std::mutex> inside(job->mutex);
                ++job->active;
            }
            lock.unlock();
            job->work();
            {
                std::lock_guard<std::mutex> inside(job->mutex);
                if (--job->active == 0) job->finished.notify_all();
            }
            lock.lock();
        }
    }

    std::mutex _mutex;
    std::condition_variable _wake;
    std::deque<Job*> _jobs;
    std::vector<std::thread> _workers;
    bool _stop = false;
    std::atomic<int> _listed{0};  // jobs in _jobs, read without the mutex by spinning workers
    static constexpr int kSpins = 4000;  // about 50 us

    static void pause() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
};

ThreadPool& threadPool() {
    static ThreadPool pool;
    return pool;
}

}  // namespace

void setNumThreads(int n) {
    if (n < 0)
        KV_THROW(KV_STATUS_OUT_OF_RANGE, "kv::setNumThreads",
                 "Failure in setNumThreads(...) : parameter 'n' is negative (%d).", n);
    g_threads.store(n == 0 ? hardwareThreads() : n);
}

int getNumThreads() { return g_threads.load(); }

namespace impl {

bool insideBand() { return t_inside_band; }

int bandCount(int rows, int64_t pixels_per_row, int align, int min_rows) {
    const int threads = getNumThreads();
    if (threads <= 1 || t_inside_band || rows <= 0 || int64_t(rows) * pixels_per_row < kMinParallelPixels) return 1;
    align = std::max(align, 1);
    min_rows = std::max(min_rows, align);
    const int by_rows = rows / min_rows;
    return std::max(1, std::min(threads, by_rows));
}

std::pair<int, int> bandRows(int rows, int bands, int b, int align) {
    align = std::max(align, 1);
    const int units = (rows + align - 1) / align;
    const int first = int(int64_t(units) * b / bands) * align;
    const int last = b + 1 == bands ? rows : int(int64_t(units) * (b + 1) / bands) * align;
    return {std::min(first, rows), std::min(last, rows)};
}

void parallelBands(int bands, FunctionRef<void(int)> body) {
    const int threads = getNumThreads();
    if (bands <= 1 || threads <= 1 || t_inside_band) {
        for (int b = 0; b < std::max(bands, 1); ++b) body(b);
        return;
    }
    threadPool().run(bands, threads, body);
}

void produceRows(IRowProducer& producer, Frame& frame, int first, int last) {
    KV_ASSERT(first % 2 == 0 && 0 <= first && first < last && last <= frame.size().height &&
                  frame.format() == producer.layout().format && frame.size() == producer.layout().size,
              "kv::impl::produceRows");
    for (int r = 0; r < first; ++r) producer.next();
    Frame band = getRegion(frame, Rect(0, first, frame.size().width, last - first));
    RowWriter writer;
    writer.reuse(band);
    do {
        producer.produce(writer.data());
        producer.next();
    } while (writer.next());
}

}  // namespace impl
}  // namespace kv
