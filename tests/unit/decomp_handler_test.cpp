// The decompression stage: one Wicket chunk of the raw data replaced by its
// decoded lines, with the option store giving the geometry.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ConfigReader.h"
#include "DataBuffer.h"
#include "DeCompHandler.h"
#include "ImageData.h"
#include "WicketEncoder.h"
#include "WicketReference.h"

namespace {

using Bytes = std::vector<uint8_t>;

const int WIDTH = 100;  // pixels; bands of 16 lines
const int BAND = 16;

// A USB scan of WIDTH x lines pixels at 254 dpi (10 pixels a millimetre).
void configure(ConfigReader& c, int compression, int technique, int depth, int lines) {
    c.SetIntOption("CONNECTION", 1);
    c.SetIntOption("CURRENTDPI", 254);
    c.SetIntOption("SCAN_SOURCE", 0);
    c.SetDoubleOption("FLATBEDWIDTHLIMIT", 8.5);
    c.SetDoubleOption("CURRENTTLX", 0.0);
    c.SetDoubleOption("CURRENTTLY", 0.0);
    c.SetDoubleOption("CURRENTBRX", WIDTH / 10.0);
    c.SetDoubleOption("CURRENTBRY", lines / 10.0);
    c.SetIntOption("COLORDEPTH", depth);
    c.SetIntOption("COMPRESSION", compression);
    c.SetIntOption("COMPRESSIONTECH", technique);
    c.SetIntOption("COMPRESSIONLEVEL", 75);
}

Bytes bandImage(int channels, int lines, int seed) {
    Bytes img(size_t(WIDTH) * lines * channels);
    for (size_t i = 0; i < img.size(); ++i) img[i] = uint8_t((i * 7 + seed * 31 + (i / 300) * 5) % 200 + 20);
    return img;
}

Bytes encode(const Bytes& img, int channels, int lines) {
    return wicketEncodeBand(img.data(), WIDTH, lines, long(WIDTH) * channels, channels, 75, true);
}

// The lines the reference decoder gives for one chunk, unpadded.
Bytes referenceLines(const Bytes& chunk, int channels, int lines) {
    int padded = (WIDTH + 7) / 8 * 8, paddedLines = (lines + 7) / 8 * 8;
    Bytes band(size_t(padded) * paddedLines * channels);
    wicketref::Decoder ref(true);
    ref.setQuality(75, 75);
    int produced;
    long bits;
    EXPECT_EQ(ref.decode(chunk.data() + 16, int(chunk.size()) - 16, band.data(), padded, paddedLines, channels,
                         &produced, &bits),
              0);
    Bytes out;
    for (int y = 0; y < lines; ++y) {
        const uint8_t* row = band.data() + size_t(y) * padded * channels;
        out.insert(out.end(), row, row + WIDTH * channels);
    }
    return out;
}

Bytes contents(DataBuffer& b) {
    Bytes all(size_t(b.GetAllDataSize()));
    if (!all.empty()) b.GetAllData(all.data(), int(all.size()));
    return all;
}

struct StageCase {
    int depth, channels;
};
class DecompressionStage : public ::testing::TestWithParam<StageCase> {};

TEST_P(DecompressionStage, OneAndAHalfChunksGiveTheFirstBandAndKeepTheRest) {
    const int ch = GetParam().channels;
    ConfigReader config;
    configure(config, 1, 2, GetParam().depth, 2 * BAND);
    ASSERT_EQ(config.GetIntOption("BYTES_PER_LINE"), WIDTH * ch);
    DeCompHandler stage;
    ASSERT_EQ(stage.Initialize(&config), 1);

    Bytes img1 = bandImage(ch, BAND, 1), img2 = bandImage(ch, BAND, 2);
    Bytes c1 = encode(img1, ch, BAND), c2 = encode(img2, ch, BAND);
    const Bytes earlier = {1, 2, 3, 4, 5, 6, 7};  // already processed, waiting for delivery
    DataBuffer buf;
    ImageData image;
    buf.SetRawData(earlier.data(), int(earlier.size()));
    buf.SetProcessedDataSize(int(earlier.size()));
    buf.SetRawData(c1.data(), int(c1.size()));
    size_t half = c2.size() / 2;
    buf.SetRawData(c2.data(), int(half));

    ASSERT_EQ(stage.Decompress(&buf, &image), 1);
    Bytes lines1 = referenceLines(c1, ch, BAND);
    Bytes expected = earlier;
    expected.insert(expected.end(), lines1.begin(), lines1.end());
    EXPECT_EQ(buf.GetProcessedDataSize(), int(expected.size()));
    expected.insert(expected.end(), c2.begin(), c2.begin() + long(half));
    EXPECT_EQ(contents(buf), expected);

    // Half a chunk is not enough: nothing changes.
    EXPECT_EQ(stage.Decompress(&buf, &image), 0);
    EXPECT_EQ(contents(buf), expected);

    buf.SetRawData(c2.data() + half, int(c2.size() - half));
    ASSERT_EQ(stage.Decompress(&buf, &image), 1);
    Bytes lines2 = referenceLines(c2, ch, BAND);
    expected.resize(earlier.size() + lines1.size());
    expected.insert(expected.end(), lines2.begin(), lines2.end());
    EXPECT_EQ(contents(buf), expected);
    EXPECT_EQ(buf.GetProcessedDataSize(), buf.GetAllDataSize());
    EXPECT_EQ(stage.Decompress(&buf, &image), 0);  // nothing raw left
}

INSTANTIATE_TEST_SUITE_P(Depths, DecompressionStage,
                         ::testing::Values(StageCase{2, 3}, StageCase{1, 1}),
                         [](const ::testing::TestParamInfo<StageCase>& i) {
                             return std::string(i.param.channels == 3 ? "colour" : "grey");
                         });

struct PassCase {
    const char* name;
    int compression, technique, interleaved;
};
class PassThrough : public ::testing::TestWithParam<PassCase> {};

TEST_P(PassThrough, MarksEveryRawByteProcessed) {
    ConfigReader config;
    configure(config, GetParam().compression, GetParam().technique, 2, BAND);
    DeCompHandler stage;
    EXPECT_EQ(stage.Initialize(&config), 1);
    ImageData image;
    if (GetParam().interleaved) image.SetInterleaveInfo(200, 10, 0, 0, 0);
    DataBuffer buf;
    Bytes raw(250, 0x5A);
    buf.SetRawData(raw.data(), int(raw.size()));
    EXPECT_EQ(stage.Decompress(&buf, &image), 1);
    EXPECT_EQ(buf.GetProcessedDataSize(), 250);
    EXPECT_EQ(contents(buf), raw);
}

INSTANTIATE_TEST_SUITE_P(Cases, PassThrough,
                         ::testing::Values(PassCase{"off", 0, 2, 0}, PassCase{"otherTechnique", 1, 3, 0},
                                           PassCase{"interleaved", 1, 2, 1}),
                         [](const ::testing::TestParamInfo<PassCase>& i) { return std::string(i.param.name); });

// A colour Wicket scan of two bands.
class DecompressionStageFaults : public ::testing::Test {
protected:
    void SetUp() override {
        configure(config, 1, 2, 2, BAND);
        ASSERT_EQ(stage.Initialize(&config), 1);
    }
    ConfigReader config;
    DeCompHandler stage;
    ImageData image;
};

TEST_F(DecompressionStageFaults, NothingRawOrTooShortWaitsForMoreData) {
    DataBuffer buf;
    EXPECT_EQ(stage.Decompress(&buf, &image), 0);
    const Bytes header = {0x00, 0x00, 0x10, 0x00, 0, 0, 0, 16, 0, 0, 0, 100, 0, 0, 0, 75, 0xAA};
    for (size_t n = 1; n <= header.size(); ++n) {
        buf.Reset();
        buf.SetRawData(header.data(), int(n));
        EXPECT_EQ(stage.Decompress(&buf, &image), 0) << n;
        EXPECT_EQ(buf.GetAllDataSize(), int(n));
        EXPECT_EQ(buf.GetProcessedDataSize(), 0);
    }
    // A size with the top bit set reads as negative.
    const Bytes negative = {0x80, 0, 0, 0, 0, 0, 0, 16, 0, 0, 0, 100, 0, 0, 0, 75};
    buf.Reset();
    buf.SetRawData(negative.data(), 16);
    EXPECT_EQ(stage.Decompress(&buf, &image), 0);
    EXPECT_EQ(buf.GetAllDataSize(), 16);
}

TEST_F(DecompressionStageFaults, CorruptChunkIsDroppedAndShortChunkDropsTheRawData) {
    Bytes chunk = encode(bandImage(3, BAND, 3), 3, BAND);
    std::fill(chunk.begin() + 16, chunk.end(), 0xFF);  // every bit 1: no code matches
    const Bytes after = {9, 8, 7};
    DataBuffer buf;
    buf.SetRawData(chunk.data(), int(chunk.size()));
    buf.SetRawData(after.data(), 3);
    EXPECT_EQ(stage.Decompress(&buf, &image), 1);
    // The band's lines arrive blank, then the bytes that followed the chunk.
    Bytes expected(size_t(WIDTH) * 3 * BAND, 0);
    expected.insert(expected.end(), after.begin(), after.end());
    EXPECT_EQ(contents(buf), expected);
    EXPECT_EQ(buf.GetProcessedDataSize(), WIDTH * 3 * BAND);

    // A size smaller than a header cannot be decoded nor skipped: the raw bytes
    // go, the processed ones stay.
    const Bytes tiny = {0, 0, 0, 8, 0, 0, 0, 16, 0, 0, 0, 100, 0, 0, 0, 75, 1, 2};
    DataBuffer held;
    held.SetRawData(after.data(), 3);
    held.SetProcessedDataSize(3);
    held.SetRawData(tiny.data(), int(tiny.size()));
    EXPECT_EQ(stage.Decompress(&held, &image), 0);
    EXPECT_EQ(contents(held), after);
    EXPECT_EQ(held.GetProcessedDataSize(), 3);
}

}  // namespace
