// Threads: the library starts none of its own, and one object serves one
// thread, but independent objects on different threads share process-wide
// state: the one-time OpenCV thread setting, crop_and_resize's per-thread
// scratch frames, the function-local statics (emptyFrame, CPU dispatch) and a
// source frame read by all. Each thread here runs its own backends through
// crop_and_resize and the frame helpers on one shared source, and every
// thread's results must equal the same work done afterwards on one thread.
// The ThreadSanitizer build runs this file alone (kv_thread_tests), so that
// the threads make the process's first OpenCV calls.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "kv_core/kv_tensor.h"
#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_cv_helpers.h"
#include "test_util.h"

using namespace kv;

namespace {

struct Results {
    std::vector<uint8_t> tensors;  // both backends' tensors, bytes one after another
    Frame resized_bilinear, resized_float, converted, turned, tilted;
};

void appendTensor(std::vector<uint8_t>& out, const Tensor& t) {
    const auto* p = static_cast<const uint8_t*>(t.devicePtr().cpuData());
    out.insert(out.end(), p, p + t.byteSize());
}

// One thread's work: its own backends and frames, the shared source read only.
Results work(const Frame& src, int seed) {
    Results r;
    CvBackendBase base;
    CvBackendSimd fast;
    const std::vector<Rect> rois = {Rect(seed, 3, 41, 29), Rect(), Rect(10, 10, 7, 40)};
    const std::vector<Rect> letterbox = {Rect(0, 4, 24, 16), Rect(2, 0, 20, 24), Rect(8, 0, 8, 24)};
    for (ICvBackend* b : {static_cast<ICvBackend*>(&base), static_cast<ICvBackend*>(&fast)}) {
        Tensor f32(TensorLayout(TENSOR_FLOAT_32, TENSOR_NCHW, TensorSize{3, 3, 24, 24}, TensorSize(),
                                TENSOR_ORDER_RGB));
        crop_and_resize(*b, src, f32, rois, letterbox, -127.5f, 1.f / 127.5f);
        appendTensor(r.tensors, f32);
        Tensor u8(TensorLayout(TENSOR_UINT_8, TENSOR_NHWC, TensorSize{3, 16, 20, 3}, TensorSize(), TENSOR_ORDER_BGR));
        b->cropAndResize(src, u8, rois, {});
        appendTensor(r.tensors, u8);
    }
    resizeFrame(src, Size(37, 23), r.resized_bilinear, ResizeBilinear);
    // Float planes go to OpenCV: its one-time thread setting meets the other threads here.
    Frame f32;
    colorConvert(src, FRAME_FLOAT_32_C3, f32);
    resizeFrame(f32, Size(29, 31), r.resized_float, ResizeArea);
    colorConvert(src, FRAME_I420, r.converted);
    rotateFrame(src, Rotate90, r.turned);
    Rect placed;
    rotateFrame(src, Rect(5, 6, 40, 30), 17.5f + float(seed), r.tilted, placed);
    EXPECT_TRUE(emptyFrame().layout().planes == 0);
    return r;
}

TEST(Threads, IndependentBackendsOnOneSourceAgreeWithOneThread) {
    const Frame src = kvtest::randomFrame(FRAME_BGR_8, Size(97, 61), 14);
    constexpr int kThreads = 4;
    std::vector<Results> results(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&, i] {
            for (int round = 0; round < 3; ++round) results[size_t(i)] = work(src, i);
        });
    for (auto& t : threads) t.join();
    for (int i = 0; i < kThreads; ++i) {
        SCOPED_TRACE(i);
        const Results expected = work(src, i);
        const Results& got = results[size_t(i)];
        EXPECT_EQ(got.tensors, expected.tensors);
        EXPECT_TRUE(kvtest::framesEqual(got.resized_bilinear, expected.resized_bilinear));
        EXPECT_TRUE(kvtest::framesEqual(got.resized_float, expected.resized_float));
        EXPECT_TRUE(kvtest::framesEqual(got.converted, expected.converted));
        EXPECT_TRUE(kvtest::framesEqual(got.turned, expected.turned));
        EXPECT_TRUE(kvtest::framesEqual(got.tilted, expected.tilted));
    }
}

}  // namespace
