// FormatConverter behaviour: every supported pair against a per-pixel model
// written from the format table and the conversion formulas, the worked
// values, pass-through, chains through other producers, and the errors.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "kv_cv/kv_format_converter.h"
#include "kv_cv/kv_row_copier.h"
#include "kv_cv/kv_impl_cpu.h"
#include "kv_cv/kv_impl_format_converter.h"
#include "test_util.h"

namespace {

using namespace kv;

// ---- a pixel model of the formats -------------------------------------------

using kvtest::chromaAt;
using kvtest::isYuv;
using kvtest::lumaAt;
using kvtest::YuvModel;
using kvtest::yuvModel;

// Channel c (memory order) of pixel (x, y) of an RGB-like 8-bit frame.
uint8_t channelAt(const Frame& f, int c, int x, int y) {
    if (f.layout().planes == 3) return f.rowCpuData(c, y)[x];
    if (f.format() == FRAME_GRAY_8) return f.rowCpuData(0, y)[x];
    return f.rowCpuData(0, y)[3 * x + c];
}

void setFloat(Frame& f, int plane, int y, int i, float v) { std::memcpy(f.rowCpuData(plane, y) + 4 * i, &v, 4); }
float getFloat(const Frame& f, int plane, int y, int i) {
    float v;
    std::memcpy(&v, f.rowCpuData(plane, y) + 4 * i, 4);
    return v;
}

int uTermOf(int b, int g, int r) { return 112 * b - 74 * g - 38 * r + 32768; }
int vTermOf(int b, int g, int r) { return 112 * r - 94 * g - 18 * b + 32768; }
uint8_t clampByte(int v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); }

// The converted frame as the formulas define it, pixel by pixel.
Frame expectedFrame(const Frame& src, FrameFormat dst_format) {
    const int w = src.size().width, h = src.size().height;
    Frame dst(dst_format, src.size());
    dst.setZero();  // also the Y byte of a packed pair's missing pixel
    const FrameFormat sf = src.format();
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            if (sf == FRAME_FLOAT_32_C3) {  // only to BGR: truncate, keep the low byte
                for (int c = 0; c < 3; ++c)
                    dst.rowCpuData(0, y)[3 * x + c] = uint8_t(int32_t(getFloat(src, 0, y, 3 * x + c)));
                continue;
            }
            if (isYuv(sf)) {
                const YuvModel m = yuvModel(sf);
                const int yy = lumaAt(src, x, y);
                const int u = chromaAt(src, false, x / m.xs, y / m.ys);
                const int v = chromaAt(src, true, x / m.xs, y / m.ys);
                if (dst_format == FRAME_GRAY_8) {
                    dst.rowCpuData(0, y)[x] = uint8_t(yy);
                } else if (dst_format == FRAME_BGR_8) {
                    const int c = (yy - 16) * 297;
                    uint8_t* p = dst.rowCpuData(0, y) + 3 * x;
                    p[0] = clampByte(((u - 128) * 516 + c) / 256);
                    p[1] = clampByte((c - 100 * u - 207 * v + 39296) / 256);
                    p[2] = clampByte(((v - 128) * 408 + c) / 256);
                } else {
                    lumaAt(dst, x, y) = uint8_t(yy);
                }
                continue;
            }
            // 8-bit RGB-like sources.
            const uint8_t c0 = channelAt(src, 0, x, y), c1 = channelAt(src, 1, x, y), c2 = channelAt(src, 2, x, y);
            const bool bgr_order = sf == FRAME_BGR_8 || sf == FRAME_BGR_8_PLANAR;
            const int b = bgr_order ? c0 : c2, g = c1, r = bgr_order ? c2 : c0;
            switch (dst_format) {
                case FRAME_GRAY_8: dst.rowCpuData(0, y)[x] = uint8_t((76 * (r + 2 * g) + 28 * b) >> 8); break;
                case FRAME_RGB_8:
                case FRAME_BGR_8: {
                    uint8_t* p = dst.rowCpuData(0, y) + 3 * x;
                    const bool want_bgr = dst_format == FRAME_BGR_8;
                    if (sf == FRAME_GRAY_8) {
                        p[0] = p[1] = p[2] = c0;
                    } else {
                        p[0] = uint8_t(want_bgr ? b : r);
                        p[1] = uint8_t(g);
                        p[2] = uint8_t(want_bgr ? r : b);
                    }
                    break;
                }
                case FRAME_RGB_8_PLANAR:
                case FRAME_BGR_8_PLANAR:  // order kept
                    dst.rowCpuData(0, y)[x] = c0;
                    dst.rowCpuData(1, y)[x] = c1;
                    dst.rowCpuData(2, y)[x] = c2;
                    break;
                case FRAME_FLOAT_32_C3:
                    for (int c = 0; c < 3; ++c) setFloat(dst, 0, y, 3 * x + c, float(channelAt(src, c, x, y)));
                    break;
                case FRAME_FLOAT_32_C3_PLANAR:
                    for (int c = 0; c < 3; ++c) setFloat(dst, c, y, x, float(channelAt(src, c, x, y)));
                    break;
                default:  // YUV: luma here, chroma below
                    lumaAt(dst, x, y) = sf == FRAME_GRAY_8 ? c0 : uint8_t((25 * b + 129 * g + 65 * r + 4096) >> 8);
                    break;
            }
        }
    if (!isYuv(dst_format)) return dst;
    // Chroma: each destination sample from the pixels it covers.
    const YuvModel dm = yuvModel(dst_format);
    for (int cy = 0; cy * dm.ys < h; ++cy)
        for (int cx = 0; cx * dm.xs < w; ++cx) {
            int su = 0, sv = 0, n = 0;
            for (int y = cy * dm.ys; y < std::min(h, (cy + 1) * dm.ys); ++y)
                for (int x = cx * dm.xs; x < std::min(w, (cx + 1) * dm.xs); ++x, ++n) {
                    if (sf == FRAME_GRAY_8) continue;
                    if (isYuv(sf)) {
                        const YuvModel m = yuvModel(sf);
                        su += chromaAt(src, false, x / m.xs, y / m.ys);
                        sv += chromaAt(src, true, x / m.xs, y / m.ys);
                    } else {
                        const int b = channelAt(src, 0, x, y), g = channelAt(src, 1, x, y), r = channelAt(src, 2, x, y);
                        su += uTermOf(b, g, r);
                        sv += vTermOf(b, g, r);
                    }
                }
            uint8_t u = 0, v = 0;  // gray gives chroma 0
            if (isYuv(sf)) {
                u = uint8_t(su / n);  // truncated mean
                v = uint8_t(sv / n);
            } else if (sf != FRAME_GRAY_8) {
                const int shift = 8 + (n == 4 ? 2 : n == 2 ? 1 : 0);
                u = uint8_t(su >> shift);
                v = uint8_t(sv >> shift);
            }
            chromaAt(dst, false, cx, cy) = u;
            chromaAt(dst, true, cx, cy) = v;
        }
    return dst;
}

// ---- helpers -----------------------------------------------------------------

using kvtest::IsaCap;

const char* const kConverterFile = "src/kv_cv/kv_format_converter";
const char* const kImplFile = "src/kv_cv/kv_impl_format_converter";

Frame convert(const Frame& src, FrameFormat dst_format) {
    FormatConverter c;
    c.reuse(src, dst_format);
    Frame out;
    produceFrame(c, out);
    return out;
}

const FrameFormat kAllFormats[] = {
    FRAME_GRAY_8, FRAME_RGB_8,  FRAME_RGB_8_PLANAR, FRAME_BGR_8,         FRAME_BGR_8_PLANAR,  FRAME_I420,
    FRAME_YV12,   FRAME_NV12,   FRAME_NV21,         FRAME_YV16,          FRAME_YUYV,          FRAME_UYVY,
    FRAME_NV16,   FRAME_YUV444, FRAME_YUV444_PLANAR, FRAME_C2_8,         FRAME_C3_8,          FRAME_C4_8,
    FRAME_GRAY_16, FRAME_GRAY_FLOAT_32, FRAME_FLOAT_32, FRAME_FLOAT_32_C3, FRAME_FLOAT_32_C3_PLANAR};

bool supported(FrameFormat s, FrameFormat d) {
    if (s == FRAME_GRAY_8) return d == FRAME_BGR_8 || isYuv(d);
    if (s == FRAME_RGB_8) return d == FRAME_RGB_8_PLANAR || d == FRAME_BGR_8 || d == FRAME_FLOAT_32_C3_PLANAR;
    if (s == FRAME_RGB_8_PLANAR) return d == FRAME_RGB_8;
    if (s == FRAME_BGR_8)
        return d == FRAME_GRAY_8 || d == FRAME_RGB_8 || d == FRAME_BGR_8_PLANAR || isYuv(d) ||
               d == FRAME_FLOAT_32_C3 || d == FRAME_FLOAT_32_C3_PLANAR;
    if (s == FRAME_BGR_8_PLANAR) return d == FRAME_BGR_8;
    if (isYuv(s)) return d == FRAME_GRAY_8 || d == FRAME_BGR_8 || isYuv(d);
    if (s == FRAME_FLOAT_32_C3) return d == FRAME_BGR_8;
    return false;
}

// ---- every supported pair against the model ----------------------------------

class FormatConvertModel : public ::testing::TestWithParam<impl::Isa> {};

TEST_P(FormatConvertModel, EveryPairMatchesThePixelModel) {
    IsaCap cap(GetParam());
    const Size sizes[] = {{1, 1}, {2, 2}, {1, 4}, {3, 5}, {6, 1}, {7, 3}, {37, 7}, {66, 4}, {67, 5}};
    uint32_t seed = 1;
    for (FrameFormat s : kAllFormats)
        for (FrameFormat d : kAllFormats) {
            if (s == d || !supported(s, d)) continue;
            for (const Size& size : sizes) {
                Frame src = kvtest::randomFrame(s, size, seed++);
                const Frame got = convert(src, d);
                const Frame want = expectedFrame(src, d);
                ASSERT_TRUE(kvtest::framesEqual(got, want))
                    << toString(s) << " -> " << toString(d) << " " << size.width << "x" << size.height;
            }
        }
}

TEST_P(FormatConvertModel, EveryOtherPairIsRejected) {
    IsaCap cap(GetParam());
    for (FrameFormat s : kAllFormats)
        for (FrameFormat d : kAllFormats) {
            if (s == d || supported(s, d)) continue;
            const Frame src(s, Size(4, 4));
            FormatConverter c;
            EXPECT_THROW(c.reuse(src, d), kv::Exception) << toString(s) << " -> " << toString(d);
            EXPECT_FALSE(c.initialized());
        }
}

INSTANTIATE_TEST_SUITE_P(Isa, FormatConvertModel, ::testing::ValuesIn(kvtest::availableIsas()),
                         [](const ::testing::TestParamInfo<impl::Isa>& i) { return impl::isaName(i.param); });

// ---- worked values -------------------------------------------------------------

Frame solidBgr(Size size, uint8_t b, uint8_t g, uint8_t r) {
    Frame f(FRAME_BGR_8, size);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) {
            uint8_t* p = f.rowCpuData(0, y) + 3 * x;
            p[0] = b;
            p[1] = g;
            p[2] = r;
        }
    return f;
}

TEST(FormatConvert, WorkedValues) {
    for (impl::Isa isa : kvtest::availableIsas()) {
        IsaCap cap(isa);
        const Size size(35, 3);  // a vector block and a tail
        struct {
            uint8_t b, g, r, y, u, v, gray;
        } const bgr_cases[] = {{0, 0, 0, 16, 128, 128, 0}, {255, 255, 255, 234, 128, 128, 255},
                               {0, 0, 255, 80, 90, 239, 75}};
        for (const auto& c : bgr_cases)
            for (FrameFormat yuv : {FRAME_I420, FRAME_NV12, FRAME_YUYV, FRAME_YUV444}) {
                Frame out = convert(solidBgr(size, c.b, c.g, c.r), yuv);
                for (int y = 0; y < size.height; ++y)
                    for (int x = 0; x < size.width; ++x) EXPECT_EQ(lumaAt(out, x, y), c.y);
                const YuvModel m = yuvModel(yuv);
                for (int cy = 0; cy < (size.height + m.ys - 1) / m.ys; ++cy)
                    for (int cx = 0; cx < (size.width + m.xs - 1) / m.xs; ++cx) {
                        EXPECT_EQ(chromaAt(out, false, cx, cy), c.u) << toString(yuv);
                        EXPECT_EQ(chromaAt(out, true, cx, cy), c.v) << toString(yuv);
                    }
                Frame gray = convert(solidBgr(size, c.b, c.g, c.r), FRAME_GRAY_8);
                EXPECT_EQ(gray.rowCpuData(0, 2)[34], c.gray);
            }
        // Y 16, 235, 236 with neutral chroma: black, 254 (219 * 297 / 256 truncates), white.
        const struct {
            uint8_t y, out;
        } yuv_cases[] = {{16, 0}, {235, 254}, {236, 255}, {0, 0}, {255, 255}};
        for (const auto& c : yuv_cases)
            for (FrameFormat yuv : {FRAME_I420, FRAME_NV21, FRAME_UYVY, FRAME_YUV444_PLANAR}) {
                Frame src(yuv, size);
                for (int y = 0; y < size.height; ++y)
                    for (int x = 0; x < size.width; ++x) lumaAt(src, x, y) = c.y;
                const YuvModel m = yuvModel(yuv);
                for (int cy = 0; cy < (size.height + m.ys - 1) / m.ys; ++cy)
                    for (int cx = 0; cx < (size.width + m.xs - 1) / m.xs; ++cx)
                        chromaAt(src, false, cx, cy) = chromaAt(src, true, cx, cy) = 128;
                const Frame out = convert(src, FRAME_BGR_8);
                for (int y = 0; y < size.height; ++y)
                    for (int i = 0; i < 3 * size.width; ++i)
                        ASSERT_EQ(out.rowCpuData(0, y)[i], c.out) << toString(yuv) << " Y " << int(c.y);
            }
        // Gray into YUV: chroma bytes are 0, not 128.
        Frame gray(FRAME_GRAY_8, size);
        std::memset(gray.rowCpuData(0, 0), 200, gray.layout().plane[0].step * size.height);
        Frame nv12 = convert(gray, FRAME_NV12);
        for (int cy = 0; cy < 2; ++cy)
            for (int cx = 0; cx < 18; ++cx) EXPECT_EQ(chromaAt(nv12, false, cx, cy) | chromaAt(nv12, true, cx, cy), 0);
        EXPECT_EQ(lumaAt(nv12, 34, 2), 200);
    }
}

TEST(FormatConvert, FloatToBytesTruncatesWithoutSaturation) {
    const float in[] = {255.9f, 300.0f, 256.0f, -1.0f, 0.99f, -0.5f, 1e10f, -1e10f, std::nanf("")};
    const uint8_t want[] = {255, 44, 0, 255, 0, 0, 0, 0, 0};
    constexpr int kCount = sizeof(in) / sizeof(in[0]);
    for (impl::Isa isa : kvtest::availableIsas()) {
        IsaCap cap(isa);
        for (int width : {3, 40}) {  // tail only, and a vector block
            Frame src(FRAME_FLOAT_32_C3, Size(width, 1));
            for (int i = 0; i < 3 * width; ++i) setFloat(src, 0, 0, i, in[i % kCount]);
            const Frame out = convert(src, FRAME_BGR_8);
            for (int i = 0; i < 3 * width; ++i) EXPECT_EQ(out.rowCpuData(0, 0)[i], want[i % kCount]) << in[i % kCount];
        }
    }
}

// Width 1 and an odd height into 4:2:0: the single column shifts by 9 with
// two rows and by 8 on the last row, which has one source row.
TEST(FormatConvert, SingleColumnAndLastOddRowChroma) {
    Frame src(FRAME_BGR_8, Size(1, 3));
    const uint8_t px[3][3] = {{10, 200, 30}, {250, 5, 90}, {77, 77, 200}};
    for (int y = 0; y < 3; ++y) std::memcpy(src.rowCpuData(0, y), px[y], 3);
    for (FrameFormat f : {FRAME_I420, FRAME_YV12, FRAME_NV12, FRAME_NV21}) {
        Frame out = convert(src, f);
        const auto u = [&](int y) { return uTermOf(px[y][0], px[y][1], px[y][2]); };
        const auto v = [&](int y) { return vTermOf(px[y][0], px[y][1], px[y][2]); };
        EXPECT_EQ(chromaAt(out, false, 0, 0), (u(0) + u(1)) >> 9) << toString(f);
        EXPECT_EQ(chromaAt(out, true, 0, 0), (v(0) + v(1)) >> 9) << toString(f);
        EXPECT_EQ(chromaAt(out, false, 0, 1), u(2) >> 8) << toString(f);
        EXPECT_EQ(chromaAt(out, true, 0, 1), v(2) >> 8) << toString(f);
    }
}

// ---- pass-through, reuse, chains -------------------------------------------------

TEST(FormatConvert, SameFormatPassesRowsThrough) {
    for (FrameFormat f : {FRAME_BGR_8, FRAME_NV12, FRAME_YUYV, FRAME_GRAY_16, FRAME_FLOAT_32_C3_PLANAR}) {
        const Frame src = kvtest::randomFrame(f, Size(13, 5), 7);
        FormatConverter c;
        c.reuse(src, f);
        EXPECT_EQ(c.layout().plane[0].step, src.layout().plane[0].step);  // the source's rows, not copies
        Frame out;
        produceFrame(c, out);
        EXPECT_TRUE(kvtest::framesEqual(out, src)) << toString(f);
    }
}

TEST(FormatConvert, ReuseSwitchesModesAndRepeats) {
    const Frame bgr = kvtest::randomFrame(FRAME_BGR_8, Size(41, 7), 3);
    const Frame want = expectedFrame(bgr, FRAME_NV12);
    FormatConverter c;
    for (int round = 0; round < 2; ++round) {
        c.reuse(bgr, FRAME_NV12);
        Frame out;
        produceFrame(c, out);
        EXPECT_TRUE(kvtest::framesEqual(out, want));
        c.reuse(bgr, FRAME_BGR_8);  // pass-through takes precedence
        produceFrame(c, out);
        EXPECT_TRUE(kvtest::framesEqual(out, bgr));
    }
}

TEST(FormatConvert, NextCountsPastTheLastRow) {
    const Frame src(FRAME_BGR_8, Size(4, 2));
    FormatConverter c;
    c.reuse(src, FRAME_I420);
    EXPECT_TRUE(c.next());
    EXPECT_TRUE(c.next());  // moved past the last row
    EXPECT_FALSE(c.next());
}

// Chains run in one pass and match the same steps done frame by frame; the
// converters over producers read through RowWindow rings (two rows for 4:2:0).
TEST(FormatConvert, ChainsMatchFrameByFrame) {
    for (impl::Isa isa : kvtest::availableIsas()) {
        IsaCap cap(isa);
        for (const Size size : {Size(1, 1), Size(35, 7), Size(64, 6), Size(67, 9)}) {
            const Frame nv12 = kvtest::randomFrame(FRAME_NV12, size, 11);
            const Frame bgr = convert(nv12, FRAME_BGR_8);
            // NV12 -> BGR -> I420 -> YUYV -> BGR -> gray, chained.
            const FrameFormat steps[] = {FRAME_BGR_8, FRAME_I420, FRAME_YUYV, FRAME_BGR_8, FRAME_GRAY_8};
            Frame whole = nv12;
            for (FrameFormat f : steps) whole = convert(whole, f);
            RowCopier copier;
            copier.reuse(nv12);
            FormatConverter chain[5];
            chain[0].reuse(copier, steps[0]);
            for (int i = 1; i < 5; ++i) chain[i].reuse(chain[i - 1], steps[i]);
            Frame out;
            produceFrame(chain[4], out);
            EXPECT_TRUE(kvtest::framesEqual(out, whole)) << size.width << "x" << size.height;
            // A converter feeding a RowCopier.
            FormatConverter first;
            first.reuse(nv12, FRAME_BGR_8);
            RowCopier tail;
            tail.reuse(first);
            produceFrame(tail, out);
            EXPECT_TRUE(kvtest::framesEqual(out, bgr));
            // A converter over a same-format (pass-through) converter.
            FormatConverter same, to_i420;
            same.reuse(bgr, FRAME_BGR_8);
            to_i420.reuse(same, FRAME_I420);
            produceFrame(to_i420, out);
            EXPECT_TRUE(kvtest::framesEqual(out, convert(bgr, FRAME_I420)));
        }
    }
}

// ---- errors ----------------------------------------------------------------------

TEST(FormatConvert, ErrorsCarryStatusFunctionLineAndMessage) {
    constexpr const char* kReuse = "kv::FormatConverter::reuse";
    FormatConverter c;
    const Frame empty;
    const Frame bgr(FRAME_BGR_8, Size(4, 4));
    const char* const kNoFrame = "Parameter 'frame' is not initialized.";
    const char* const kBadFormat = "Invalid value for parameter 'dst_format'.";
    EXPECT_KV_THROW_AT(c.reuse(empty, FRAME_BGR_8), 6, kNoFrame, kReuse, kConverterFile, 81);
    EXPECT_KV_THROW_AT(c.reuse(empty, FRAME_UNDEFINED), 6, kNoFrame, kReuse, kConverterFile, 81);
    EXPECT_KV_THROW_AT(c.reuse(bgr, FRAME_UNDEFINED), 29, kBadFormat, kReuse, kConverterFile, 88);
    FormatConverter unready;
    EXPECT_KV_THROW_AT(c.reuse(unready, FRAME_BGR_8), 6, "Parameter 'producer' is not initialized.", kReuse,
                       kConverterFile, 119);
    RowCopier copier;
    copier.reuse(bgr);
    EXPECT_KV_THROW_AT(c.reuse(copier, FRAME_UNDEFINED), 29, kBadFormat, kReuse, kConverterFile, 126);
    RowData row;
    const char* const kNotReady = "FormatConverter is not initialized. Call FormatConverter::reuse(...) first.";
    EXPECT_KV_THROW_AT(unready.produce(row), 7, kNotReady, "kv::FormatConverter::produce", kConverterFile, 166);
    EXPECT_FALSE(unready.next());

    constexpr const char* kGet = "kv::Impl::ImplFormatConverter::get_context";
    constexpr const char* kInfo = "kv::Impl::ImplFormatConverter::getFormatInfo";
    constexpr const char* kMsg = "Failure in ImplFormatConverter::get_context(...) : unsupported format.";
    const struct {
        FrameFormat src, dst;
        int status;
        const char* function;
        int line;
    } cases[] = {
        {FRAME_GRAY_8, FRAME_RGB_8, 8, kGet, 183},
        {FRAME_GRAY_8, FRAME_GRAY_8, 8, kGet, 183},
        {FRAME_RGB_8, FRAME_FLOAT_32_C3, 8, kGet, 273},
        {FRAME_RGB_8_PLANAR, FRAME_BGR_8, 8, kGet, 288},
        {FRAME_BGR_8, FRAME_BGR_8, 8, kGet, 237},
        {FRAME_BGR_8_PLANAR, FRAME_RGB_8, 8, kGet, 252},
        {FRAME_FLOAT_32_C3, FRAME_RGB_8, 8, kGet, 417},
        {FRAME_FLOAT_32_C3_PLANAR, FRAME_BGR_8, 29, kGet, 425},
        {FRAME_C3_8, FRAME_BGR_8, 29, kInfo, 143},
        {FRAME_BGR_8, FRAME_C3_8, 29, kInfo, 143},
        {FRAME_NV12, FRAME_FLOAT_32, 29, kInfo, 143},
        {FRAME_BGR_8, FRAME_UNDEFINED, 29, kInfo, 143},
        {FrameFormat(22), FRAME_BGR_8, 29, kInfo, 143},
    };
    for (const auto& k : cases) {
        Impl::ImplFormatConverter impl;
        int window = 0;
        EXPECT_KV_THROW_AT(impl.reuse(k.src, k.dst, 4, &window), k.status, kMsg, k.function, kImplFile, k.line);
        EXPECT_FALSE(impl.ready());
    }
    Impl::ImplFormatConverter impl;
    EXPECT_KV_THROW_AT(impl.reuse(FRAME_BGR_8, FRAME_I420, 4, nullptr), 29,
                       "Failure in ImplFormatConverter::reuse(...) : Null pointer to window size.",
                       "kv::Impl::ImplFormatConverter::reuse", kImplFile, 41);
    // Through the producer, unsupported pairs pass the same errors on.
    EXPECT_KV_THROW(c.reuse(bgr, FRAME_C4_8), 29, kMsg);
    EXPECT_KV_THROW(c.reuse(Frame(FRAME_RGB_8_PLANAR, Size(4, 4)), FRAME_GRAY_8), 8, kMsg);
    // A YUV source into a format without a YUV description gets no window.
    EXPECT_KV_THROW(c.reuse(Frame(FRAME_NV12, Size(4, 4)), FRAME_RGB_8), 5, "Parameter 'window_size' is out of range.");
    EXPECT_FALSE(c.initialized());
    EXPECT_KV_THROW(c.produce(row), 7, kNotReady);
}

TEST(FormatConvert, WindowSizes) {
    const struct {
        FrameFormat src, dst;
        int window;
    } cases[] = {{FRAME_BGR_8, FRAME_I420, 2},  {FRAME_BGR_8, FRAME_NV21, 2}, {FRAME_BGR_8, FRAME_YUYV, 1},
                 {FRAME_NV12, FRAME_I420, 2},   {FRAME_NV12, FRAME_NV16, 1}, {FRAME_YUYV, FRAME_YV12, 2},
                 {FRAME_I420, FRAME_BGR_8, 1},  {FRAME_GRAY_8, FRAME_NV12, 1}, {FRAME_NV12, FRAME_FLOAT_32_C3, 0}};
    for (const auto& k : cases) {
        Impl::ImplFormatConverter impl;
        int window = -1;
        impl.reuse(k.src, k.dst, 8, &window);
        EXPECT_EQ(window, k.window) << toString(k.src) << " -> " << toString(k.dst);
    }
}

}  // namespace
