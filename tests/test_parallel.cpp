// setNumThreads: one call split over n threads gives the bytes of one thread,
// for every operation, format and method, at n = 2, 3, 7 and 16; errors are
// the same errors; callers with threads of their own get the same results;
// the pool starts only when asked. The ThreadSanitizer build runs this file
// (on fewer formats and counts, it is slower there).
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "frame_compare.h"
#include "kv_core/kv_exception.h"
#include "kv_core/kv_tensor.h"
#include "kv_cv/kv_cv_backend_base.h"
#include "kv_cv/kv_cv_backend_simd.h"
#include "kv_cv/kv_cv_helpers.h"
#include "kv_cv/kv_impl_parallel.h"
#include "kv_cv/kv_scaler_resample.h"
#include "kv_cv/kv_threads.h"
#include "test_util.h"

using namespace kv;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

const FrameFormat kAllFormats[] = {
    FRAME_GRAY_8,  FRAME_RGB_8,   FRAME_RGB_8_PLANAR, FRAME_BGR_8,         FRAME_BGR_8_PLANAR,     FRAME_I420,
    FRAME_YV12,    FRAME_NV12,    FRAME_NV21,         FRAME_YV16,          FRAME_YUYV,             FRAME_UYVY,
    FRAME_NV16,    FRAME_YUV444,  FRAME_YUV444_PLANAR, FRAME_C2_8,         FRAME_C3_8,             FRAME_C4_8,
    FRAME_GRAY_16, FRAME_GRAY_FLOAT_32, FRAME_FLOAT_32, FRAME_FLOAT_32_C3, FRAME_FLOAT_32_C3_PLANAR,
};
const FrameFormat kFewFormats[] = {FRAME_BGR_8, FRAME_I420, FRAME_NV12, FRAME_FLOAT_32_C3};

std::vector<FrameFormat> formats() {
    if (kSanitized) return std::vector<FrameFormat>(std::begin(kFewFormats), std::end(kFewFormats));
    return std::vector<FrameFormat>(std::begin(kAllFormats), std::end(kAllFormats));
}

std::vector<int> threadCounts() { return kSanitized ? std::vector<int>{3} : std::vector<int>{2, 3, 7, 16}; }

struct ThreadSetting {
    explicit ThreadSetting(int n) { setNumThreads(n); }
    ~ThreadSetting() { setNumThreads(1); }
};

// What one call gave: its output bytes, or its error.
struct Outcome {
    std::vector<Frame> frames;
    std::vector<uint8_t> bytes;
    std::string error;
};

template <typename Call>
Outcome runAt(int threads, Call call) {
    ThreadSetting setting(threads);
    Outcome o;
    try {
        call(o);
    } catch (const Exception& e) {
        o.error = std::to_string(int(e.status())) + " " + e.message();
    }
    return o;
}

std::string difference(const Outcome& got, const Outcome& want) {
    if (got.error != want.error) return "error '" + got.error + "' where one thread gives '" + want.error + "'";
    if (!want.error.empty()) return "";
    if (got.bytes != want.bytes) return "bytes differ";
    for (size_t i = 0; i < want.frames.size(); ++i) {
        const std::string d = kvtest::frameDifference(got.frames[i], want.frames[i]);
        if (!d.empty()) return d;
    }
    return "";
}

// Runs `call` at one thread and at every count; returns "" or the first
// difference.
template <typename Call>
std::string sameAtEveryCount(Call call) {
    const Outcome one = runAt(1, call);
    for (int n : threadCounts()) {
        const std::string d = difference(runAt(n, call), one);
        if (!d.empty()) return "at " + std::to_string(n) + " threads: " + d;
    }
    return "";
}

// Frames big enough to be split (over 64K pixels), with odd sides, one pixel
// wide, and a region at odd offsets.
struct Case {
    Size size;
    Rect roi;
};
const Case kCases[] = {{{400, 301}, Rect()}, {{400, 301}, Rect(3, 5, 381, 281)}, {{1, 70001}, Rect()}};

ICvBackend& backendOf(int kind) {
    thread_local CvBackendBase base;
    thread_local CvBackendSimd fast;
    return kind == 0 ? static_cast<ICvBackend&>(base) : static_cast<ICvBackend&>(fast);
}

TEST(Parallel, SettingAndBands) {
    EXPECT_EQ(getNumThreads(), 1);
    try {
        setNumThreads(-1);
        ADD_FAILURE() << "no exception";
    } catch (const Exception& e) {
        EXPECT_EQ(int(e.status()), 5);
    }
    EXPECT_EQ(getNumThreads(), 1);
    {
        ThreadSetting all(0);
        EXPECT_EQ(getNumThreads(), int(std::max(1u, std::thread::hardware_concurrency())));
    }
    ThreadSetting seven(7);
    EXPECT_EQ(impl::bandCount(1000, 10), 1) << "10K pixels stay on the caller";
    EXPECT_EQ(impl::bandCount(1000, 1000), 7);
    EXPECT_EQ(impl::bandCount(9, 100000, 2, 4), 2) << "bands of at least 4 rows";
    for (int rows : {1, 2, 7, 64, 1081})
        for (int bands : {1, 2, 3, 7, 16})
            for (int align : {1, 2, 32}) {
                int next = 0;
                for (int b = 0; b < bands; ++b) {
                    const auto r = impl::bandRows(rows, bands, b, align);
                    EXPECT_EQ(r.first, next);
                    EXPECT_TRUE(r.first % align == 0 || r.first == rows);
                    EXPECT_LE(r.first, r.second);
                    next = r.second;
                }
                EXPECT_EQ(next, rows) << rows << " rows in " << bands << " bands of " << align;
            }
}

TEST(Parallel, ColorCvtEqualsOneThread) {
    for (int kind : {0, 1})
        for (const Case& c : kCases)
            for (FrameFormat sf : formats()) {
                if (kSanitized && c.roi.empty()) continue;  // the region case covers the split there
                const Frame src = kvtest::randomFrame(sf, c.size, uint32_t(sf) + 7);
                const Size out = c.roi.empty() ? c.size : c.roi.size();
                for (FrameFormat df : formats()) {
                    const std::string d = sameAtEveryCount([&](Outcome& o) {
                        Frame dst(df, out);
                        dst.setZero();  // bytes no call writes (odd packed widths) compare equal
                        o.frames.push_back(dst);
                        backendOf(kind).colorCvt(src, dst, c.roi);
                    });
                    EXPECT_EQ(d, "") << (kind ? "fast " : "base ") << toString(sf) << " -> " << toString(df) << " "
                                     << c.size.width << "x" << c.size.height;
                }
            }
}

TEST(Parallel, ResizeAndConvertEqualOneThread) {
    std::vector<Size> sizes = {{333, 257}, {701, 523}, {200, 150}, {133, 100}, {3, 40000}};
    if (kSanitized) sizes.resize(2);
    const int methods[2][3] = {{KV_SCALE_NEAREST, KV_SCALE_BILINEAR, KV_SCALE_AREA},
                               {ResizeNearestNeighbour, ResizeBilinear, ResizeArea}};
    for (int kind : {0, 1})
        for (FrameFormat f : formats()) {
            const Frame src = kvtest::randomFrame(f, Size(400, 301), uint32_t(f));
            for (int m : methods[kind])
                for (Size to : sizes) {
                    backendOf(kind).setIntProperty(ICvBackend::kPropertyResizeMethod, m);
                    const std::string d = sameAtEveryCount([&](Outcome& o) {
                        Frame dst(f, to);
                        dst.setZero();  // bytes no call writes (odd packed widths) compare equal
                        o.frames.push_back(dst);
                        backendOf(kind).resize(src, dst, Rect(1, 3, 397, 297), Rect());
                    });
                    EXPECT_EQ(d, "") << (kind ? "fast " : "base ") << "resize " << toString(f) << " method " << m
                                     << " to " << to.width << "x" << to.height;
                }
            // A destination region, and convert into every other format.
            backendOf(kind).setIntProperty(ICvBackend::kPropertyResizeMethod, methods[kind][1]);
            EXPECT_EQ(sameAtEveryCount([&](Outcome& o) {
                          Frame dst = kvtest::randomFrame(f, Size(640, 480), 3);
                          o.frames.push_back(dst);
                          backendOf(kind).resize(src, dst, Rect(), Rect(11, 7, 600, 451));
                      }),
                      "")
                << toString(f);
            for (FrameFormat df : formats())
                EXPECT_EQ(sameAtEveryCount([&](Outcome& o) {
                              Frame dst(df, Size(357, 263));
                              dst.setZero();  // bytes no call writes (odd packed widths) compare equal
                              o.frames.push_back(dst);
                              backendOf(kind).convert(src, dst, Rect(2, 2, 390, 290));
                          }),
                          "")
                    << (kind ? "fast " : "base ") << "convert " << toString(f) << " -> " << toString(df);
        }
}

TEST(Parallel, ArithmeticWarpRotationAndHalfFloatEqualOneThread) {
    for (int kind : {0, 1})
        for (FrameFormat f : {FRAME_FLOAT_32, FRAME_FLOAT_32_C3, FRAME_FLOAT_32_C3_PLANAR, FRAME_BGR_8})
            for (Rect roi : {Rect(), Rect(5, 3, 390, 290)})
                EXPECT_EQ(sameAtEveryCount([&](Outcome& o) {
                              Frame frame = kvtest::randomFrame(f, Size(400, 301), 9);
                              o.frames.push_back(frame);
                              backendOf(kind).add(frame, -0.37f, roi);
                              backendOf(kind).mul(frame, 1.0f / 3.0f, roi);
                          }),
                          "")
                    << toString(f);
    const float turn[2][3] = {{0.8f, -0.45f, 90.25f}, {0.45f, 0.8f, -30.5f}};
    for (FrameFormat f : formats())
        for (bool inverse : {false, true})
            for (int method : {ResizeNearestNeighbour, ResizeBilinear}) {
                const Frame src = kvtest::randomFrame(f, Size(400, 301), 5);
                backendOf(1).setIntProperty(ICvBackend::kPropertyResizeMethod, method);
                EXPECT_EQ(sameAtEveryCount([&](Outcome& o) {
                              Frame dst(f, Size(351, 299));
                              dst.setZero();  // bytes no call writes (odd packed widths) compare equal
                              o.frames.push_back(dst);
                              backendOf(1).warpAffine(src, dst, turn, Rect(), inverse);
                          }),
                          "")
                    << "warp " << toString(f);
            }
    for (FrameFormat f : formats())
        for (ResampleFilter filter : {KV_RESAMPLE_BOX, KV_RESAMPLE_LANCZOS3})
            for (Size to : {Size(333, 257), Size(701, 523)}) {
                const Frame src = kvtest::randomFrame(f, Size(400, 301), 6);
                EXPECT_EQ(sameAtEveryCount([&](Outcome& o) {
                              Frame dst;
                              resampleFrame(src, to, dst, filter);
                              o.frames.push_back(dst);
                          }),
                          "")
                    << "resample " << toString(f) << " " << toString(filter);
            }
    for (FrameFormat f : formats())
        for (FixedRotation r : {Rotate0, Rotate90, Rotate180, Rotate270}) {
            const Frame src = kvtest::randomFrame(f, Size(402, 301), 2);
            EXPECT_EQ(sameAtEveryCount([&](Outcome& o) {
                          Frame dst;
                          rotateFrame(src, r, dst);
                          o.frames.push_back(dst);
                      }),
                      "")
                << "rotate " << toString(f) << " " << int(r);
        }
    std::vector<uint16_t> halves(300001);
    for (size_t i = 0; i < halves.size(); ++i) halves[i] = uint16_t(i * 2654435761u >> 7);
    EXPECT_EQ(sameAtEveryCount([&](Outcome& o) {
                  std::vector<float> floats(halves.size());
                  convertFp16ToFp32(halves.data(), halves.size(), floats.data());
                  std::vector<uint16_t> back(halves.size());
                  convertFp32ToFp16(floats.data(), floats.size(), back.data());
                  const auto* p = reinterpret_cast<const uint8_t*>(floats.data());
                  o.bytes.assign(p, p + floats.size() * 4);
                  o.bytes.insert(o.bytes.end(), reinterpret_cast<const uint8_t*>(back.data()),
                                 reinterpret_cast<const uint8_t*>(back.data() + back.size()));
              }),
              "");
}

void appendTensor(std::vector<uint8_t>& out, const Tensor& t) {
    const auto* p = static_cast<const uint8_t*>(t.devicePtr().cpuData());
    out.insert(out.end(), p, p + t.byteSize());
}

// Regions spread over the threads (each with its own backend), or one big
// region spread by rows; letterboxed targets and both tensor layouts.
void cropAndResizeBatch(Outcome& o, ICvBackend& b, const Frame& src, int count) {
    std::vector<Rect> rois, targets;
    for (int i = 0; i < count; ++i) {
        rois.push_back(i == 0 ? Rect() : Rect(7 * i, 5 * i, 300 - 9 * i, 200 + 3 * i));
        targets.push_back(i % 3 == 1 ? Rect(0, 20, 224, 180) : Rect());
    }
    Tensor f32(TensorLayout(TENSOR_FLOAT_32, TENSOR_NCHW, TensorSize{count, 3, 224, 224}, TensorSize(),
                            TENSOR_ORDER_RGB));
    crop_and_resize(b, src, f32, rois, targets, -127.5f, 1.f / 127.5f);
    appendTensor(o.bytes, f32);
    Tensor u8(TensorLayout(TENSOR_UINT_8, TENSOR_NHWC, TensorSize{count, 224, 224, 3}, TensorSize(),
                           TENSOR_ORDER_BGR));
    crop_and_resize(b, src, u8, rois, {}, 0.f, 1.f);
    appendTensor(o.bytes, u8);
}

TEST(Parallel, CropAndResizeEqualsOneThread) {
    for (int kind : {0, 1})
        for (FrameFormat f : {FRAME_BGR_8, FRAME_NV12, FRAME_I420})
            for (int count : {1, 2, 7}) {
                const Frame src = kvtest::randomFrame(f, Size(640, 480), 4);
                EXPECT_EQ(sameAtEveryCount([&](Outcome& o) { cropAndResizeBatch(o, backendOf(kind), src, count); }),
                          "")
                    << (kind ? "fast " : "base ") << toString(f) << " x" << count;
            }
}

// Callers running their own threads, each asking for 2 threads per call, get
// what one thread gives: no deadlock, no shared scratch.
TEST(Parallel, CallersWithThreadsOfTheirOwn) {
    const Frame src = kvtest::randomFrame(FRAME_NV12, Size(640, 480), 8);
    Outcome want[2];
    for (int kind : {0, 1}) cropAndResizeBatch(want[kind], backendOf(kind), src, 3);
    ThreadSetting two(2);
    std::vector<Outcome> got(4);
    std::vector<std::thread> callers;
    for (size_t i = 0; i < got.size(); ++i)
        callers.emplace_back([&, i] {
            for (int round = 0; round < 3; ++round) {
                got[i] = Outcome();
                cropAndResizeBatch(got[i], backendOf(int(i % 2)), src, 3);
            }
        });
    for (auto& t : callers) t.join();
    for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(difference(got[i], want[i % 2]), "") << i;
}

int processThreads() {
    std::ifstream status("/proc/self/status");
    std::string key;
    while (status >> key)
        if (key == "Threads:") {
            int n = 0;
            status >> n;
            return n;
        }
    return -1;
}

// One thread starts nothing; n threads start at most n - 1 workers.
TEST(Parallel, WorkersStartOnlyWhenAsked) {
    const Frame src = kvtest::randomFrame(FRAME_BGR_8, Size(1920, 1080), 1);
    Frame dst(FRAME_I420, src.size());
    const int before = processThreads();
    backendOf(1).colorCvt(src, dst, Rect());
    backendOf(0).colorCvt(src, dst, Rect());
    EXPECT_EQ(processThreads(), before);
    ThreadSetting three(3);
    backendOf(1).colorCvt(src, dst, Rect());
    EXPECT_LE(processThreads(), std::max(before, 3 + 1)) << "the caller, the gtest main thread and 2 workers at most";
}

}  // namespace
