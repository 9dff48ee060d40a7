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

// One band of WIDTH x BAND pixels, encoded as the device sends it.
Bytes chunkOf(int channels, int seed) {
    Bytes img(size_t(WIDTH) * BAND * channels);
    for (size_t i = 0; i < img.size(); ++i) img[i] = uint8_t((i * 7 + seed * 31 + (i / 300) * 5) % 200 + 20);
    return wicketEncodeBand(img.data(), WIDTH, BAND, long(WIDTH) * channels, channels, 75, true);
}

// The lines the reference decoder gives for one chunk, unpadded (BAND is a
// whole number of blocks; a line is 104 pixels wide with its padding).
Bytes referenceLines(const Bytes& chunk, int channels) {
    const int padded = 104;
    Bytes band(size_t(padded) * BAND * channels), out;
    wicketref::Decoder ref(true);
    ref.setQuality(75, 75);
    int produced;
    long bits;
    EXPECT_EQ(ref.decode(chunk.data() + 16, int(chunk.size()) - 16, band.data(), padded, BAND, channels, &produced,
                         &bits),
              0);
    for (int y = 0; y < BAND; ++y) {
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
    ImageData image;
    Bytes c1 = chunkOf(ch, 1), c2 = chunkOf(ch, 2), lines1 = referenceLines(c1, ch);
    const int half = int(c2.size() / 2);
    const Bytes earlier = {1, 2, 3, 4, 5, 6, 7};  // already processed, waiting for delivery
    DataBuffer buf;
    buf.SetRawData(earlier.data(), int(earlier.size()));
    buf.SetProcessedDataSize(int(earlier.size()));
    buf.SetRawData(c1.data(), int(c1.size()));
    buf.SetRawData(c2.data(), half);

    ASSERT_EQ(stage.Decompress(&buf, &image), 1);
    Bytes expected = earlier;
    expected.insert(expected.end(), lines1.begin(), lines1.end());
    EXPECT_EQ(buf.GetProcessedDataSize(), int(expected.size()));
    expected.insert(expected.end(), c2.begin(), c2.begin() + half);
    EXPECT_EQ(contents(buf), expected);
    EXPECT_EQ(stage.Decompress(&buf, &image), 0);  // half a chunk is not enough: nothing changes
    EXPECT_EQ(contents(buf), expected);

    buf.SetRawData(c2.data() + half, int(c2.size()) - half);
    ASSERT_EQ(stage.Decompress(&buf, &image), 1);
    Bytes lines2 = referenceLines(c2, ch);
    expected.resize(earlier.size() + lines1.size());
    expected.insert(expected.end(), lines2.begin(), lines2.end());
    EXPECT_EQ(contents(buf), expected);
    EXPECT_EQ(buf.GetProcessedDataSize(), buf.GetAllDataSize());
    EXPECT_EQ(stage.Decompress(&buf, &image), 0);  // nothing raw left
}

INSTANTIATE_TEST_SUITE_P(ColourAndGrey, DecompressionStage, ::testing::Values(StageCase{2, 3}, StageCase{1, 1}));

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

// A colour Wicket scan of one band.
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

TEST_F(DecompressionStageFaults, ShortChunksWaitAndChunksBelowAHeaderAreDropped) {
    const Bytes before = {9, 8, 7};  // processed, waiting for delivery: always kept
    const Bytes header = {0x00, 0x00, 0x10, 0x00, 0, 0, 0, 16, 0, 0, 0, 100, 0, 0, 0, 75, 0xAA};
    struct Case {
        Bytes raw;
        bool dropped;
    };
    std::vector<Case> cases;
    for (size_t n = 0; n <= header.size(); ++n)
        cases.push_back({Bytes(header.begin(), header.begin() + long(n)), false});
    // A size with the top bit set reads as negative: waits.
    cases.push_back({{0x80, 0, 0, 0, 0, 0, 0, 16, 0, 0, 0, 100, 0, 0, 0, 75}, false});
    // A size smaller than a header can be neither decoded nor skipped: the raw bytes go.
    cases.push_back({{0, 0, 0, 8, 0, 0, 0, 16, 0, 0, 0, 100, 0, 0, 0, 75, 1, 2}, true});
    for (const Case& c : cases) {
        DataBuffer buf;
        buf.SetRawData(before.data(), 3);
        buf.SetProcessedDataSize(3);
        if (!c.raw.empty()) buf.SetRawData(c.raw.data(), int(c.raw.size()));
        EXPECT_EQ(stage.Decompress(&buf, &image), 0) << c.raw.size();
        Bytes expected = before;
        if (!c.dropped) expected.insert(expected.end(), c.raw.begin(), c.raw.end());
        EXPECT_EQ(contents(buf), expected) << c.raw.size();
        EXPECT_EQ(buf.GetProcessedDataSize(), 3);
    }
}

TEST_F(DecompressionStageFaults, CorruptChunkGivesBlankLinesAndKeepsWhatFollows) {
    Bytes chunk = chunkOf(3, 3);
    std::fill(chunk.begin() + 16, chunk.end(), 0xFF);  // every bit 1: no code matches
    const Bytes after = {9, 8, 7};
    DataBuffer buf;
    buf.SetRawData(chunk.data(), int(chunk.size()));
    buf.SetRawData(after.data(), 3);
    EXPECT_EQ(stage.Decompress(&buf, &image), 1);
    Bytes expected(size_t(WIDTH) * 3 * BAND, 0);
    expected.insert(expected.end(), after.begin(), after.end());
    EXPECT_EQ(contents(buf), expected);
    EXPECT_EQ(buf.GetProcessedDataSize(), WIDTH * 3 * BAND);
}

}  // namespace
