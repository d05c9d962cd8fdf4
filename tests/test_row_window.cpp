// RowWindow: window sizes and their errors, frame and producer modes giving
// the same rows under any pattern of slides, which rows a producer is asked
// for (skips, subsampled planes), buffer and `pulled` retention on reuse.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "kv_cv/kv_row_copier.h"
#include "kv_cv/kv_row_window.h"
#include "test_util.h"

namespace {

using kv::Frame;
using kv::Size;

// A producer over a frame that records, per produce(), the frame row and
// which plane slots were non-null.
class RecordingProducer : public kv::IRowProducer {
public:
    explicit RecordingProducer(const Frame& f) : _frame(f) {}
    const kv::FrameLayout& layout() override { return _frame.layout(); }
    void produce(kv::RowData& dst) override {
        const kv::FrameLayout& l = _frame.layout();
        uint32_t slots = 0;
        for (uint32_t p = 0; p < l.planes; ++p) {
            if (!dst.plane[p]) continue;
            slots |= 1u << p;
            const int mask = kv::subsamplingMask(l.size.height, l.plane[p].size.height);
            std::memcpy(dst.plane[p], _frame.rowCpuData(p, _row / (mask + 1)), l.plane[p].row_bytes);
        }
        produced.push_back({_row, slots});
    }
    bool next() override {
        ++nexts;
        if (_row >= _frame.size().height) return false;
        return ++_row < _frame.size().height;
    }
    struct Call {
        int row;
        uint32_t slots;
    };
    std::vector<Call> produced;
    int nexts = 0;

private:
    const Frame& _frame;
    int _row = 0;
};

// Row pointers of frame row r, as a RowReader gives them.
bool rowMatches(const Frame& f, const kv::RowData& d, int r) {
    const kv::FrameLayout& l = f.layout();
    for (uint32_t p = 0; p < l.planes; ++p) {
        const int mask = kv::subsamplingMask(l.size.height, l.plane[p].size.height);
        if (std::memcmp(d.plane[p], f.rowCpuData(p, r / (mask + 1)), l.plane[p].row_bytes) != 0) return false;
    }
    return true;
}

TEST(RowWindow, WindowSizeRange) {
    const Frame f = kvtest::randomFrame(kv::FRAME_GRAY_8, Size(4, 6), 1);
    for (int ws : {0, -1, 7}) {
        kv::RowWindow w;
        EXPECT_KV_THROW(w.reuse(f, ws), 5, "Parameter 'window_size' is out of range.");
        kv::RowCopier c;
        c.reuse(f);
        EXPECT_KV_THROW(w.reuse(c, ws), 5, "Parameter 'window_size' is out of range.");
        EXPECT_FALSE(w.initialized());
    }
    kv::RowWindow w;
    w.reuse(f, 6);  // the whole height is accepted; the window cannot slide
    EXPECT_FALSE(w.next());
    EXPECT_EQ(w.startRow(), 0);
    EXPECT_TRUE(rowMatches(f, w.rowData(5), 5));
    try {
        w.reuse(f, 7);
    } catch (const kv::Exception& e) {
        EXPECT_EQ(e.function(), "kv::RowWindow::reuse");
        EXPECT_EQ(e.file(), "src/kv_cv/kv_row_window");
        EXPECT_EQ(e.line(), 123);
    }
    kv::RowCopier c;
    c.reuse(f);
    try {
        w.reuse(c, 0);
    } catch (const kv::Exception& e) {
        EXPECT_EQ(e.line(), 59);
    }
}

TEST(RowWindow, UninitializedSources) {
    kv::RowWindow w;
    EXPECT_KV_THROW(w.reuse(Frame(), 1), 14, "Frame is not initialized.");
    kv::RowCopier none;
    EXPECT_KV_THROW(w.reuse(none, 1), 14, "Row producer is not initialized.");
    try {
        w.reuse(none, 1);
    } catch (const kv::Exception& e) {
        EXPECT_EQ(e.line(), 50);
    }
}

TEST(RowWindow, RowIndexOutsideWindow) {
    const Frame f = kvtest::randomFrame(kv::FRAME_GRAY_8, Size(4, 6), 1);
    kv::RowWindow w;
    w.reuse(f, 3);
    for (int i : {-1, 3}) {
        EXPECT_KV_THROW(w.rowData(i), 2,
                        "Assertion failed: 0 <= row_index_in_window && row_index_in_window < _window_size");
        try {
            w.rowData(i);
        } catch (const kv::Exception& e) {
            EXPECT_EQ(e.function(), "kv::RowWindow::rowData");
            EXPECT_EQ(e.line(), 184);
        }
    }
}

// Random slide patterns (several next() between reads, reads of every row)
// give the same rows from a frame and from a producer, for every plane shape.
TEST(RowWindow, FrameAndProducerAgree) {
    std::mt19937 rng(5);
    for (kv::FrameFormat fmt : {kv::FRAME_GRAY_8, kv::FRAME_BGR_8, kv::FRAME_I420, kv::FRAME_NV12, kv::FRAME_NV16})
        for (int h : {1, 2, 5, 9, 16})
            for (int ws = 1; ws <= std::min(h, 5); ++ws) {
                SCOPED_TRACE(::testing::Message() << kv::toString(fmt) << " h " << h << " window " << ws);
                const Frame f = kvtest::randomFrame(fmt, Size(7, h), uint32_t(h * 10 + ws));
                kv::RowWindow wf, wp;
                RecordingProducer prod(f);
                wf.reuse(f, ws);
                wp.reuse(prod, ws);
                for (int step = 0; step < 40; ++step) {
                    const int slides = int(rng() % 4);
                    for (int s = 0; s < slides; ++s) EXPECT_EQ(wf.next(), wp.next());
                    ASSERT_EQ(wf.startRow(), wp.startRow());
                    for (int i = 0; i < ws; ++i) {
                        const int r = wf.startRow() + i;
                        ASSERT_TRUE(rowMatches(f, wf.rowData(i), r)) << "frame mode row " << r;
                        ASSERT_TRUE(rowMatches(f, wp.rowData(i), r)) << "producer mode row " << r;
                    }
                }
                // Every row is produced at most once.
                for (size_t i = 1; i < prod.produced.size(); ++i)
                    EXPECT_LT(prod.produced[i - 1].row, prod.produced[i].row);
            }
}

// Window 3 over 10 rows slid twice before the first read: rows 0 and 1 are
// skipped with next() alone, rows 2..4 are produced.
TEST(RowWindow, SkippedRowsAreNotProduced) {
    const Frame f = kvtest::randomFrame(kv::FRAME_GRAY_8, Size(4, 10), 2);
    RecordingProducer prod(f);
    kv::RowWindow w;
    w.reuse(prod, 3);
    EXPECT_TRUE(w.next());
    EXPECT_TRUE(w.next());
    w.rowData(0);
    ASSERT_EQ(prod.produced.size(), 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(prod.produced[size_t(i)].row, 2 + i);
    EXPECT_EQ(prod.nexts, 5);
    EXPECT_EQ(w.pulled(), 5);
    EXPECT_TRUE(w.next());  // one row on: only row 5 is new
    w.rowData(2);
    ASSERT_EQ(prod.produced.size(), 4u);
    EXPECT_EQ(prod.produced[3].row, 5);
}

// 4:2:0: frame rows 2k and 2k+1 share a chroma pointer; chroma is produced
// on even rows only, and for a window that starts on an odd row after a jump
// the chroma row above it is produced alone.
TEST(RowWindow, SubsampledPlanesIn420) {
    const Frame f = kvtest::randomFrame(kv::FRAME_I420, Size(6, 8), 3);
    RecordingProducer prod(f);
    kv::RowWindow w;
    w.reuse(prod, 4);
    const kv::RowData r0 = w.rowData(0), r1 = w.rowData(1), r2 = w.rowData(2);
    EXPECT_EQ(r0.plane[1], r1.plane[1]);
    EXPECT_EQ(r0.plane[2], r1.plane[2]);
    EXPECT_NE(r1.plane[1], r2.plane[1]);
    for (const auto& c : prod.produced) EXPECT_EQ(c.slots, c.row % 2 == 0 ? 7u : 1u) << c.row;
    const Frame g = kvtest::randomFrame(kv::FRAME_I420, Size(6, 8), 4);
    RecordingProducer jump(g);
    kv::RowWindow wj;
    wj.reuse(jump, 2);
    for (int i = 0; i < 3; ++i) wj.next();
    EXPECT_TRUE(rowMatches(g, wj.rowData(0), 3));
    ASSERT_EQ(jump.produced.size(), 3u);
    EXPECT_EQ(jump.produced[0].row, 2);
    EXPECT_EQ(jump.produced[0].slots, 6u);  // chroma only
}

// A new producer of the same layout and window size keeps the buffers and
// the pulled count (the skip logic then compares against the old count).
TEST(RowWindow, ProducerReuseKeepsBuffersAndPulled) {
    const Frame f = kvtest::randomFrame(kv::FRAME_GRAY_8, Size(4, 6), 6);
    RecordingProducer a(f), b(f);
    kv::RowWindow w;
    w.reuse(a, 2);
    const uint8_t* slot = w.rowData(0).plane[0];
    while (w.next()) w.rowData(0);
    const int pulled = w.pulled();
    EXPECT_EQ(pulled, 6);
    w.reuse(b, 2);
    EXPECT_EQ(w.startRow(), 0);
    EXPECT_EQ(w.pulled(), pulled);
    const kv::RowData r = w.rowData(0);
    EXPECT_TRUE(r.plane[0] == slot || r.plane[0] == slot + 64);  // one of the same two ring slots
    EXPECT_TRUE(rowMatches(f, r, 0));
    w.clear();
    EXPECT_FALSE(w.initialized());
    EXPECT_EQ(w.pulled(), 8);  // clear() keeps it too
}

// Over a frame the window points into the frame itself; after clear() it is
// not initialized and a new reuse starts again at row 0.
TEST(RowWindow, FrameModePointsIntoFrame) {
    Frame f = kvtest::randomFrame(kv::FRAME_NV12, Size(6, 7), 7);
    kv::RowWindow w;
    w.reuse(f, 3);
    EXPECT_EQ(w.rowData(0).plane[0], f.planeCpuData(0));
    EXPECT_TRUE(w.next());
    EXPECT_TRUE(w.next());
    EXPECT_EQ(w.rowData(2).plane[0], f.rowCpuData(0, 4));
    EXPECT_EQ(w.rowData(2).plane[1], f.rowCpuData(1, 2));
    EXPECT_EQ(w.layout().size, Size(6, 7));
    w.clear();
    EXPECT_FALSE(w.initialized());
    EXPECT_EQ(w.windowSize(), 0);
    w.reuse(f, 2);
    EXPECT_EQ(w.startRow(), 0);
    EXPECT_EQ(w.rowData(1).plane[0], f.rowCpuData(0, 1));
}

}  // namespace
