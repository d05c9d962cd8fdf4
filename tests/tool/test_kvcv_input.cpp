// The kvcv tool's input side (kvcv_input): image headers read before any
// decoding, as each decoder reads them; the refusals of hostile files; and
// the argument parsers at their limits. Files are built here byte by byte.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "kvcv_input.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(const std::string& s) { return Bytes(s.begin(), s.end()); }

Bytes encode(const std::string& ext, int width, int height, int type = CV_8UC3) {
    cv::Mat m(height, width, type);
    cv::randu(m, 0, 255);
    std::vector<uint8_t> out;
    EXPECT_TRUE(cv::imencode(ext, m, out));
    return out;
}

// The message of the RunError that decoding `bytes` throws ("" when none).
std::string refusal(const Bytes& bytes, const kvcv::InputSpec& wanted = kvcv::InputSpec()) {
    try {
        kvcv::decodeImage(std::make_shared<Bytes>(bytes), "in", wanted);
    } catch (const kvcv::RunError& e) {
        return e.what();
    }
    return std::string();
}

TEST(KvcvInput, HeadersOfEveryReadFormat) {
    struct Case {
        const char* ext;
        const char* kind;
    } cases[] = {{".png", "PNG"}, {".jpg", "JPEG"}, {".bmp", "BMP"}, {".tif", "TIFF"},
                 {".webp", "WebP"}, {".ppm", "PNM"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.ext);
        for (const auto& size : {std::make_pair(1, 1), std::make_pair(37, 5), std::make_pair(5, 301)}) {
            const Bytes file = encode(c.ext, size.first, size.second);
            const kvcv::ImageHeader h = kvcv::readImageHeader(file.data(), file.size());
            ASSERT_STREQ(h.kind, c.kind);
            EXPECT_TRUE(h.sized && h.complete);
            EXPECT_EQ(h.width, uint64_t(size.first));
            EXPECT_EQ(h.height, uint64_t(size.second));
            const kvcv::Image image = kvcv::decodeImage(std::make_shared<Bytes>(file), "in", kvcv::InputSpec());
            EXPECT_EQ(image.frame.size(), kv::Size(size.first, size.second));
        }
    }
}

// Truncated files are refused although OpenCV decodes them; bytes after a
// complete image are not truncation.
TEST(KvcvInput, TruncationIsRefused) {
    const Bytes png = encode(".png", 40, 30), jpg = encode(".jpg", 40, 30);
    for (const Bytes& whole : {png, jpg}) {
        for (size_t cut : {size_t(2), whole.size() / 3, whole.size() - 12}) {
            const Bytes part(whole.begin(), whole.end() - std::ptrdiff_t(cut));
            const std::string why = refusal(part);
            EXPECT_TRUE(why.find("truncated") != std::string::npos || why.find("damaged") != std::string::npos)
                << cut << ": " << why;
        }
        Bytes longer = whole;
        longer.insert(longer.end(), {'t', 'a', 'i', 'l'});
        EXPECT_EQ(refusal(longer), "");
    }
}

TEST(KvcvInput, PixelLimitBeforeDecoding) {
    // A PNG header claiming 100000 x 100000 over nothing.
    Bytes huge = bytesOf(std::string("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\x01\x86\xa0\0\x01\x86\xa0\x08\x02\0\0\0", 29));
    EXPECT_EQ(refusal(huge),
              "'in': its PNG header claims a 100000x100000 image, 10000000000 pixels, more than the limit of 134217728 "
              "(raise it with --max-pixels)");
    kvcv::InputSpec small;
    small.max_pixels = 1199;
    EXPECT_NE(refusal(encode(".jpg", 40, 30), small).find("1200 pixels"), std::string::npos);
    small.max_pixels = 1200;
    EXPECT_EQ(refusal(encode(".jpg", 40, 30), small), "");
    // Raw frames: the size is checked before the bytes.
    kvcv::InputSpec raw;
    raw.raw_format = kv::FRAME_NV12;
    raw.raw_size = kv::Size(4, 3);
    EXPECT_EQ(refusal(Bytes(17), raw), "'in' holds 17 bytes, a NV12 frame of 4x3 needs 20");
    EXPECT_EQ(refusal(Bytes(20), raw), "");
    raw.raw_size = kv::Size(32767, 32767);
    EXPECT_NE(refusal(Bytes(20), raw).find("more than the limit"), std::string::npos);
}

// Formats whose size is not read are not decoded at all; nor is nothing.
TEST(KvcvInput, UnreadFormatsAndEmptyFiles) {
    EXPECT_EQ(refusal(Bytes()), "cannot read 'in': the file is empty");
    EXPECT_EQ(refusal(bytesOf("GIF89a\x01\0\x01\0")),
              "cannot read 'in': not an image format kvcv reads (PNG, JPEG, BMP, TIFF, WebP, PNM) (for a raw frame "
              "give --in-format and --in-size)");
    EXPECT_EQ(refusal(bytesOf("\x89PNG\r\n\x1a\n1234")), "cannot read 'in': the PNG header is damaged or incomplete");
}

// A PNM header as OpenCV's decoder reads it: the character after a number is
// consumed with it, whatever it is. Read otherwise, "P4\n1335\xee" "244866"
// had no size here while the decoder allocated 1335 x 244866 bits and took
// seconds (found by fuzz_tool_input).
TEST(KvcvInput, PnmNumbersReadAsTheDecoderReadsThem) {
    const Bytes file = bytesOf(std::string("P4\n000001335\xee" "244866\n2'/Fk"));
    const kvcv::ImageHeader h = kvcv::readImageHeader(file.data(), file.size());
    ASSERT_TRUE(h.sized);
    EXPECT_EQ(h.width, 1335u);
    EXPECT_EQ(h.height, 244866u);
    EXPECT_NE(refusal(file).find("more than the limit"), std::string::npos);
    const Bytes commented = bytesOf("P5 # a comment\n 3\n2 255\nabcdef");
    const kvcv::ImageHeader c = kvcv::readImageHeader(commented.data(), commented.size());
    EXPECT_TRUE(c.sized && c.width == 3 && c.height == 2);
}

// A classic TIFF entry holds 4 value bytes: a LONG8 entry last in the file
// must not be read as 8 (it once read past the end of the file's bytes).
TEST(KvcvInput, ClassicTiffEntryOfLong8AtTheEnd) {
    for (const bool little : {true, false}) {
        Bytes file = little ? Bytes{'I', 'I', 42, 0, 8, 0, 0, 0, 1, 0} : Bytes{'M', 'M', 0, 42, 0, 0, 0, 8, 0, 1};
        const Bytes entry = little ? Bytes{0, 1, 16, 0, 1, 0, 0, 0, 7, 0, 0, 0} : Bytes{1, 0, 0, 16, 0, 0, 0, 1, 0, 0, 0, 7};
        file.insert(file.end(), entry.begin(), entry.end());
        auto exact = std::make_unique<uint8_t[]>(file.size());  // no slack after the last byte
        std::memcpy(exact.get(), file.data(), file.size());
        const kvcv::ImageHeader h = kvcv::readImageHeader(exact.get(), file.size());
        EXPECT_STREQ(h.kind, "TIFF");
        EXPECT_FALSE(h.sized);
    }
}

// The shortest WebP read is 30 bytes, and a VP8X chunk's 24-bit height ends
// exactly there: it must be read as 3 bytes, not 4 (found by fuzz_tool_input).
TEST(KvcvInput, ShortestExtendedWebp) {
    Bytes file = bytesOf("RIFF");
    const Bytes rest{22, 0, 0, 0, 'W', 'E', 'B', 'P', 'V', 'P', '8', 'X', 10, 0, 0, 0,
                     0, 0, 0, 0, 0x3F, 0x01, 0x00, 0xFF, 0xFF, 0x00};
    file.insert(file.end(), rest.begin(), rest.end());
    ASSERT_EQ(file.size(), 30u);
    auto exact = std::make_unique<uint8_t[]>(file.size());
    std::memcpy(exact.get(), file.data(), file.size());
    const kvcv::ImageHeader h = kvcv::readImageHeader(exact.get(), file.size());
    EXPECT_STREQ(h.kind, "WebP");
    EXPECT_TRUE(h.sized && h.complete);
    EXPECT_EQ(h.width, 320u);
    EXPECT_EQ(h.height, 65536u);
}

TEST(KvcvInput, ParsersAtTheirLimits) {
    EXPECT_EQ(kvcv::parseSize("32767X1", "--size"), kv::Size(32767, 1));
    EXPECT_THROW(kvcv::parseSize("32768x1", "--size"), kvcv::UsageError);
    EXPECT_THROW(kvcv::parseSize("99999999999999999999x1", "--size"), kvcv::UsageError);
    EXPECT_THROW(kvcv::parseSize("x", "--size"), kvcv::UsageError);
    EXPECT_EQ(kvcv::parseRect("-32767,0,1,32767", "--rect"), kv::Rect(-32767, 0, 1, 32767));
    EXPECT_THROW(kvcv::parseRect("0,0,1", "--rect"), kvcv::UsageError);
    EXPECT_EQ(kvcv::parseRects(";;1,2,3,4;", "--rois").size(), 1u);
    EXPECT_THROW(kvcv::parseRects(";", "--rois"), kvcv::UsageError);
    EXPECT_THROW(kvcv::parseFloats("1,nan", "--mean"), kvcv::UsageError);
    EXPECT_THROW(kvcv::parseInt("-9223372036854775809", "--jobs", 1, 256), kvcv::UsageError);
    EXPECT_EQ(kvcv::parseFormat("FRAME_nv12", "--to"), kv::FRAME_NV12);
    EXPECT_THROW(kvcv::parseFormat("frame_", "--to"), kvcv::UsageError);
    char a0[] = "--max-pixels=0";
    char* argv[] = {a0};
    const kvcv::Args args(1, argv, {"max-pixels"}, {});
    EXPECT_THROW(kvcv::inputSpec(args), kvcv::UsageError);
}

}  // namespace
