// The row spine: RowIndex, RowReader, RowWriter, produceFrame, copyRowData
// and RowCopier over frames of every format.
#include <gtest/gtest.h>

#include <vector>

#include "kv_cv/kv_row_copier.h"
#include "kv_cv/kv_row_writer.h"
#include "test_util.h"

using namespace kv;

namespace {

// A producer that records which plane slots it was asked to write, and
// writes the frame row number into every byte it writes.
class RecordingProducer : public IRowProducer {
public:
    explicit RecordingProducer(FrameLayout l) : _layout(l) {}
    const FrameLayout& layout() override { return _layout; }
    void produce(RowData& dst) override {
        std::vector<bool> slots;
        for (uint32_t p = 0; p < 4; ++p) {
            slots.push_back(dst.plane[p] != nullptr);
            if (p < _layout.planes && dst.plane[p])
                std::memset(dst.plane[p], 100 + _row, _layout.plane[p].rowBytes());
        }
        calls.push_back(slots);
    }
    bool next() override { return ++_row < _layout.size.height; }
    std::vector<std::vector<bool>> calls;

private:
    FrameLayout _layout;
    int _row = 0;
};

}  // namespace

TEST(RowIndexTest, FollowsChromaRowsOfOddHeight) {
    RowIndex idx;
    idx.reuse(FrameLayout(FRAME_I420, Size(6, 5)));
    EXPECT_EQ(idx.mask(1), 1);
    EXPECT_EQ(idx.mask(2), 1);
    const int chroma[] = {0, 0, 1, 1, 2};
    for (int r = 0; r < 5; ++r) {
        EXPECT_EQ(idx.row(0), r);
        EXPECT_EQ(idx.row(1), chroma[r]);
        EXPECT_EQ(idx.next(), r < 4);
    }
    // Past the last row nothing moves.
    const int r0 = idx.row(0), r1 = idx.row(1);
    EXPECT_FALSE(idx.next());
    EXPECT_EQ(idx.row(0), r0);
    EXPECT_EQ(idx.row(1), r1);
    // A full-height second plane advances every row.
    idx.reuse(FrameLayout(FRAME_NV16, Size(4, 3)));
    EXPECT_EQ(idx.mask(1), 0);
    idx.next();
    EXPECT_EQ(idx.row(1), 1);
}

TEST(RowReaderTest, HalfHeightPlaneSharesRows) {
    Frame f(FRAME_I420, Size(8, 4));
    RowReader reader;
    EXPECT_FALSE(reader.initialized());
    reader.reuse(f);
    ASSERT_TRUE(reader.initialized());
    const int chroma[] = {0, 0, 1, 1};
    const bool more[] = {true, true, true, false};
    for (int r = 0; r < 4; ++r) {
        EXPECT_EQ(reader.data().plane[0], f.rowCpuData(0, r));
        EXPECT_EQ(reader.data().plane[1], f.rowCpuData(1, chroma[r]));
        EXPECT_EQ(reader.data().plane[2], f.rowCpuData(2, chroma[r]));
        EXPECT_EQ(reader.data().plane[3], nullptr);
        EXPECT_EQ(reader.next(), more[r]);
    }
    EXPECT_FALSE(reader.next());
    EXPECT_EQ(reader.row(), 4);
}

TEST(RowWriterTest, SubsampledSlotsOnFirstRowOfEachPlaneRow) {
    Frame f(FRAME_I420, Size(8, 4));
    RowWriter writer;
    writer.reuse(f);
    for (int r = 0; r < 4; ++r) {
        EXPECT_EQ(writer.data().plane[0], f.rowCpuData(0, r));
        if (r % 2 == 0) {
            EXPECT_EQ(writer.data().plane[1], f.rowCpuData(1, r / 2));
            EXPECT_EQ(writer.data().plane[2], f.rowCpuData(2, r / 2));
        } else {
            EXPECT_EQ(writer.data().plane[1], nullptr);
            EXPECT_EQ(writer.data().plane[2], nullptr);
        }
        EXPECT_EQ(writer.data().plane[3], nullptr);
        writer.next();
    }
    EXPECT_FALSE(writer.next());
    for (auto* p : writer.data().plane) EXPECT_EQ(p, nullptr);
}

TEST(RowSpineErrors, UninitialisedFrames) {
    const Frame empty;
    Frame empty_mut;
    RowReader reader;
    RowWriter writer;
    for (int which = 0; which < 2; ++which) {
        try {
            if (which == 0)
                reader.reuse(empty);
            else
                writer.reuse(empty_mut);
            FAIL();
        } catch (const Exception& e) {
            EXPECT_EQ(e.status(), 14);
            // The reader deliberately reports the writer's text.
            EXPECT_EQ(e.message(), "Failure in RowWriter::RowWriter(...) : frame is not initialized.");
            EXPECT_EQ(e.function(), which == 0 ? "kv::RowReader::reuse" : "kv::RowWriter::reuse");
            EXPECT_EQ(e.file(), which == 0 ? "src/kv_cv/kv_row_reader" : "src/kv_cv/kv_row_writer");
            EXPECT_EQ(e.line(), 44);
        }
    }
    EXPECT_FALSE(reader.initialized());
    EXPECT_FALSE(writer.initialized());

    RowCopier copier;
    try {
        copier.reuse(empty);
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.status(), 2);
        EXPECT_EQ(e.message(), "Assertion failed: src_frame.initialized()");
        EXPECT_EQ(e.function(), "kv::RowCopier::reuse");
        EXPECT_EQ(e.line(), 39);
    }
    FrameLayout zero_width(FRAME_GRAY_8, Size(4, 4));
    zero_width.size.width = 0;
    RecordingProducer bad(zero_width);
    try {
        copier.reuse(bad);
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.message(), "Assertion failed: !src_producer.layout().size.empty()");
        EXPECT_EQ(e.line(), 49);
    }
}

TEST(ProduceFrameTest, OddHeightChromaWrittenOncePerPlaneRow) {
    RecordingProducer producer(FrameLayout(FRAME_I420, Size(4, 5)));
    Frame out;
    produceFrame(producer, out);
    ASSERT_EQ(out.format(), FRAME_I420);
    ASSERT_EQ(out.size(), Size(4, 5));
    ASSERT_EQ(producer.calls.size(), 5u);
    for (int r = 0; r < 5; ++r) {
        EXPECT_TRUE(producer.calls[r][0]);
        EXPECT_EQ(producer.calls[r][1], r % 2 == 0) << r;
        EXPECT_EQ(producer.calls[r][2], r % 2 == 0) << r;
        EXPECT_FALSE(producer.calls[r][3]);
    }
    for (int cr = 0; cr < 3; ++cr) EXPECT_EQ(out.rowCpuData(1, cr)[0], 100 + 2 * cr);
}

TEST(ProduceFrameTest, InPlaceVersusReallocation) {
    Frame src = kvtest::randomFrame(FRAME_BGR_8, Size(7, 3), 5);
    RowCopier copier;
    // Same format and size, other pitch: written in place.
    Frame padded(FRAME_BGR_8, Size(7, 3), 256);
    const uint8_t* where = padded.planeCpuData(0);
    copier.reuse(src);
    produceFrame(copier, padded);
    EXPECT_EQ(padded.planeCpuData(0), where);
    EXPECT_EQ(padded.layout().plane[0].step, 256u);
    EXPECT_TRUE(kvtest::framesEqual(src, padded));
    // Another format or size: reallocated with the producer's layout.
    for (Frame other : {Frame(FRAME_GRAY_8, Size(7, 3)), Frame(FRAME_BGR_8, Size(7, 4)), Frame()}) {
        copier.reuse(src);
        produceFrame(copier, other);
        EXPECT_TRUE(kvtest::framesEqual(src, other));
    }
}

TEST(CopyRowDataTest, NullSlotsAreSkipped) {
    Frame src = kvtest::randomFrame(FRAME_NV12, Size(6, 2), 9);
    Frame dst(FRAME_NV12, Size(6, 2));
    dst.setZero();
    RowData s, d;
    s.plane[0] = src.rowCpuData(0, 0);
    s.plane[1] = src.rowCpuData(1, 0);
    d.plane[0] = dst.rowCpuData(0, 0);
    copyRowData(dst.layout(), s, d);
    EXPECT_EQ(std::memcmp(dst.rowCpuData(0, 0), src.rowCpuData(0, 0), 6), 0);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(dst.rowCpuData(1, 0)[i], 0);
}

// Every format, odd and even sizes, padded source and destination pitches:
// the copy reproduces the frame and never writes the padding.
TEST(RowCopierTest, RoundTripEveryFormatPaddingUntouched) {
    const FrameFormat formats[] = {FRAME_GRAY_8, FRAME_RGB_8, FRAME_RGB_8_PLANAR, FRAME_BGR_8, FRAME_BGR_8_PLANAR,
                                   FRAME_I420, FRAME_YV12, FRAME_NV12, FRAME_NV21, FRAME_YV16, FRAME_YUYV, FRAME_UYVY,
                                   FRAME_NV16, FRAME_YUV444, FRAME_YUV444_PLANAR, FRAME_C2_8, FRAME_C3_8, FRAME_C4_8,
                                   FRAME_GRAY_16, FRAME_GRAY_FLOAT_32, FRAME_FLOAT_32, FRAME_FLOAT_32_C3,
                                   FRAME_FLOAT_32_C3_PLANAR};
    for (FrameFormat f : formats) {
        for (Size s : {Size(1, 1), Size(7, 5), Size(8, 6), Size(33, 3)}) {
            SCOPED_TRACE(std::string(toString(f)) + " " + std::to_string(s.width) + "x" + std::to_string(s.height));
            Frame src = kvtest::randomFrame(f, s, 11, 128);
            // Destination in caller memory with 9 bytes of padding per row, filled with a sentinel.
            FrameLayout l(f, s, 1);
            std::vector<std::vector<uint8_t>> mem(l.planes);
            void* planes[4] = {};
            size_t steps[4] = {};
            for (uint32_t p = 0; p < l.planes; ++p) {
                steps[p] = l.plane[p].rowBytes() + 9;
                mem[p].assign(steps[p] * l.plane[p].size.height, 0xA5);
                planes[p] = mem[p].data();
            }
            Frame dst = Frame::wrap(f, s, planes, steps);
            RowCopier copier;
            copier.reuse(src);
            EXPECT_TRUE(copier.initialized());
            produceFrame(copier, dst);
            EXPECT_TRUE(kvtest::framesEqual(src, dst));
            for (uint32_t p = 0; p < l.planes; ++p)
                for (int y = 0; y < l.plane[p].size.height; ++y)
                    for (size_t i = l.plane[p].rowBytes(); i < steps[p]; ++i)
                        ASSERT_EQ(mem[p][y * steps[p] + i], 0xA5) << "plane " << p << " row " << y;

            // Producer mode passes the rows of another producer unchanged.
            RowCopier inner, outer;
            inner.reuse(src);
            outer.reuse(inner);
            Frame again;
            produceFrame(outer, again);
            EXPECT_TRUE(kvtest::framesEqual(src, again));
            outer.clear();
            EXPECT_FALSE(outer.initialized());
        }
    }
}
