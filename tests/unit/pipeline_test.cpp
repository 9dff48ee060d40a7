// Raw-data pipeline: buffers, image attributes, the manipulation chain, colour
// correction through a loaded library, and the rebuild of interleaved lines.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "ConfigReader.h"
#include "DataBuffer.h"
#include "IMBGRtoRGB.h"
#include "IMColorCorrect.h"
#include "IMSideFlip.h"
#include "ImageData.h"
#include "InterleaveHandler.h"
#include "RawDataHandler.h"
#include "testutil.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::string testLibrary() { return qt::binaryDir() + "/tests/libs/libquarto_testcorrect.so"; }
std::string lutPath(const char* name) { return qt::sourceDir() + "/tests/data/colorcorrect/" + name; }

Bytes rawBytes(ImageData& image) {
    int n = image.GetRawDataSize();
    return n > 0 ? Bytes(image.GetRawDataPtr(), image.GetRawDataPtr() + n) : Bytes();
}
// An image of the given geometry holding `raw` as unprocessed bytes.
void fill(ImageData& image, int width, int stride, TripletTypeEnum triplet, FlipEnum flip, const Bytes& raw) {
    image.SetAttributes(width, 4, stride, triplet, flip, COMPRESSION_OFF_RAW, 0);
    if (!raw.empty()) image.SetRawData(raw.data(), (int)raw.size());
}
Bytes allBytes(DataBuffer& buffer) {
    Bytes out((size_t)buffer.GetAllDataSize());
    if (!out.empty()) buffer.GetAllData(out.data(), (int)out.size());
    return out;
}

// Runs f with debug logging on and returns what it wrote to standard error.
template <class F>
std::string logOf(F f) {
    qt::ScopedEnv env("ENABLE_SL_LOG", "1");
    qt::StderrCapture err;
    f();
    return err.finish();
}

// --- DataBuffer ---------------------------------------------------------------

TEST(DataBufferTest, ProcessedSizeAddsClampsAndRejectsNegative) {
    DataBuffer b;
    Bytes data(150, 7);
    ASSERT_EQ(1, b.SetRawData(data.data(), 150));
    EXPECT_EQ(1, b.SetProcessedDataSize(100));
    EXPECT_EQ(100, b.GetProcessedDataSize());
    EXPECT_EQ(1, b.SetProcessedDataSize(100));
    EXPECT_EQ(150, b.GetProcessedDataSize());
    EXPECT_EQ(nullptr, b.GetRawDataPtr());  // everything processed
    EXPECT_EQ(0, b.SetProcessedDataSize(-5));
    EXPECT_EQ(150, b.GetProcessedDataSize());
    EXPECT_EQ(0, b.SetRawData(data.data(), 0));
    EXPECT_EQ(0, b.SetRawData(data.data(), -1));
    EXPECT_EQ(0, b.SetRawData(nullptr, 4));
    EXPECT_EQ(150, b.GetAllDataSize());
    unsigned char out[150];
    EXPECT_EQ(0, b.GetAllData(out, 149));  // needs room for everything
    EXPECT_EQ(150, b.GetAllData(out, 150));
    EXPECT_EQ(data, Bytes(out, out + 150));
    EXPECT_EQ(150, b.GetAllDataSize());  // and keeps the bytes
    b.Reset();
    EXPECT_EQ(0, b.GetAllDataSize() + b.GetProcessedDataSize());
    EXPECT_EQ(0, b.GetAllData(out, 8));
}

TEST(DataBufferTest, GetProcessedDataCopiesRemovesAndShifts) {
    DataBuffer b;
    const Bytes data = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09};
    b.SetRawData(data.data(), 10);
    b.SetProcessedDataSize(6);
    unsigned char out[16] = {0};
    EXPECT_EQ(0, b.GetProcessedData(out, 0) + b.GetProcessedData(out, -3) +
                     b.GetProcessedData((unsigned char*)nullptr, 4));
    ASSERT_EQ(4, b.GetProcessedData(out, 4));
    EXPECT_EQ(Bytes({0x00, 0x01, 0x02, 0x03}), Bytes(out, out + 4));
    EXPECT_EQ(2, b.GetProcessedDataSize());
    EXPECT_EQ(Bytes({0x04, 0x05, 0x06, 0x07, 0x08, 0x09}), allBytes(b));
    ASSERT_NE(nullptr, b.GetRawDataPtr());
    EXPECT_EQ(0x06, *b.GetRawDataPtr());
    // More than is processed is cut to the processed bytes.
    ASSERT_EQ(2, b.GetProcessedData(out, 16));
    EXPECT_EQ(Bytes({0x04, 0x05}), Bytes(out, out + 2));
    EXPECT_EQ(0, b.GetProcessedData(out, 16));  // nothing processed now
    EXPECT_EQ(4, b.GetRawDataSize());
    // Into another buffer: appended there as raw data, after what it held.
    DataBuffer dest;
    dest.SetRawData(data.data(), 1);
    b.SetProcessedDataSize(3);
    EXPECT_EQ(3, b.GetProcessedData(&dest, 5));
    EXPECT_EQ(Bytes({0x00, 0x06, 0x07, 0x08}), allBytes(dest));
}

// ReplaceRawData splices bytes in place of the first raw ones: the processed
// prefix stays, the new bytes join it, the rest of the raw bytes follow them.
// Dropping a header and growing a chunk after processed bytes are what the
// command tests' removeESC and the decompression stage's tests do with it.
struct SpliceCase {
    const char* name;
    int processed;  // of the 8 bytes 00..07 held
    int n;          // raw bytes replaced
    Bytes insert;
    int result;
    Bytes after;
    int processedAfter;
};
void PrintTo(const SpliceCase& c, std::ostream* os) { *os << c.name; }
class DataBufferSplice : public ::testing::TestWithParam<SpliceCase> {};

TEST_P(DataBufferSplice, ReplacesTheFrontOfTheRawBytes) {
    const SpliceCase& c = GetParam();
    DataBuffer b;
    const Bytes held = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07};
    b.SetRawData(held.data(), 8);
    b.SetProcessedDataSize(c.processed);
    EXPECT_EQ(c.result, b.ReplaceRawData(c.n, c.insert.empty() ? nullptr : c.insert.data(), (int)c.insert.size()));
    EXPECT_EQ(c.after, allBytes(b));
    EXPECT_EQ(c.processedAfter, b.GetProcessedDataSize());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DataBufferSplice,
    ::testing::Values(
        SpliceCase{"shrinkInTheMiddle", 1, 4, {0xB0}, 1, {0x00, 0xB0, 0x05, 0x06, 0x07}, 2},
        SpliceCase{"moreThanRawIsCut", 6, 100, {0xC0}, 1, {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0xC0}, 7},
        SpliceCase{"allProcessedAppends", 8, 2, {0xD0, 0xD1}, 1,
                   {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0xD0, 0xD1}, 10},
        SpliceCase{"negativeRefused", 0, -1, {}, 0, {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07}, 0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DataBufferTest, SpliceIntoAnEmptyBufferAndNullDataRefused) {
    DataBuffer b;
    const Bytes bytes = {0x11, 0x22};
    EXPECT_EQ(0, b.ReplaceRawData(0, nullptr, 2));
    EXPECT_EQ(1, b.ReplaceRawData(5, bytes.data(), 2));
    EXPECT_EQ(bytes, allBytes(b));
    EXPECT_EQ(2, b.GetProcessedDataSize());
}

// --- ImageData::SetAttributes from the option store ----------------------------

// A USB selection of 1 x 0.5 mm at 254 dpi: 10 pixels by 5 lines.
void setGeometry(ConfigReader& c, int colorDepth) {
    c.SetIntOption("CONNECTION", 1);
    c.SetIntOption("CURRENTDPI", 254);
    c.SetIntOption("SCAN_SOURCE", 0);
    c.SetIntOption("COLORDEPTH", colorDepth);
    c.SetDoubleOption("FLATBEDWIDTHLIMIT", 1.0);
    c.SetDoubleOption("CURRENTTLX", 0.0);
    c.SetDoubleOption("CURRENTTLY", 0.0);
    c.SetDoubleOption("CURRENTBRX", 1.0);
    c.SetDoubleOption("CURRENTBRY", 0.5);
}

struct AttrCase {
    int colorDepth, bgrToRgb, source, adfFlip, flatbedFlip, compression;
    TripletTypeEnum triplet;
    int channels, stride;
    FlipEnum flip;
    CompressionModeEnum mode;
};
class AttributesFromConfig : public ::testing::TestWithParam<AttrCase> {};

TEST_P(AttributesFromConfig, Derived) {
    const AttrCase& t = GetParam();
    ConfigReader c;
    setGeometry(c, t.colorDepth);
    c.SetIntOption("BGRTORGB", t.bgrToRgb);
    c.SetIntOption("ADFSIDEFLIP", t.adfFlip);
    c.SetIntOption("FLATBEDSIDEFLIP", t.flatbedFlip);
    c.SetIntOption("COMPRESSION", t.compression);
    c.SetIntOption("COMPRESSIONLEVEL", 7);
    ImageData image;
    const Bytes old(4, 1);
    image.SetRawData(old.data(), 4);
    image.SetInterleaveInfo(20, 5, 1, 0, 2);
    EXPECT_EQ(1, image.SetAttributes(&c, t.source));
    EXPECT_EQ(10, image.GetScanWidth());
    EXPECT_EQ(5, image.GetScanHeight());
    EXPECT_EQ(t.stride, image.GetStride());
    EXPECT_EQ(5L * t.stride, image.GetWholeImageSize());
    EXPECT_EQ(t.triplet, image.GetTripletType());
    EXPECT_EQ(t.channels, image.GetNumOfChannels());
    EXPECT_EQ(t.flip, image.GetSideFlip());
    EXPECT_EQ(t.mode, image.GetCompressionMode());
    EXPECT_EQ(7, image.GetCompressionLevel());
    EXPECT_EQ(0, image.GetAllDataSize());
    EXPECT_EQ(0, image.GetInterleave());
    EXPECT_EQ(0, image.GetInterleaveTrim());
}

INSTANTIATE_TEST_SUITE_P(
    Options, AttributesFromConfig,
    ::testing::Values(
        // Only the depth value 3 counts as colour; the store's colour code 2 reads as grey.
        AttrCase{2, 0, 0, 0, 0, 0, GRAY, 1, 30, FLIP_OFF, COMPRESSION_OFF_RAW},
        AttrCase{2, 1, 0, 0, 0, 1, GRAY, 1, 30, FLIP_OFF, COMPRESSION_ON},
        AttrCase{3, 0, 0, 0, 0, 0, RGB, 3, 10, FLIP_OFF, COMPRESSION_OFF_RAW},
        AttrCase{3, 1, 0, 0, 0, 0, BGR, 3, 10, FLIP_OFF, COMPRESSION_OFF_RAW},
        // The flip follows the source: feeder flag for the feeder, flatbed flag otherwise.
        AttrCase{1, 0, 1, 1, 0, 0, GRAY, 1, 10, FLIP_ON, COMPRESSION_OFF_RAW},
        AttrCase{1, 0, 1, 0, 1, 0, GRAY, 1, 10, FLIP_OFF, COMPRESSION_OFF_RAW},
        AttrCase{1, 0, 0, 1, 0, 0, GRAY, 1, 10, FLIP_OFF, COMPRESSION_OFF_RAW},
        AttrCase{1, 0, 0, 0, 1, 5, GRAY, 1, 10, FLIP_ON, COMPRESSION_ON}));

// --- Chain construction -------------------------------------------------------

struct ChainCase {
    int bgr, flatbedFlip, adfFlip, colorCorrect;
    const char* kinds;  // B: BGR swap, F: side flip, C: colour correction, in chain order
};
class ChainFromOptions : public ::testing::TestWithParam<ChainCase> {};

char kindOf(IManipulation* m) {
    if (dynamic_cast<IMBGRtoRGB*>(m)) return 'B';
    if (dynamic_cast<IMSideFlip*>(m)) return 'F';
    if (dynamic_cast<IMColorCorrect*>(m)) return 'C';
    return '?';
}

TEST_P(ChainFromOptions, BuiltInOrderWithLogLines) {
    const ChainCase& t = GetParam();
    ConfigReader c;
    c.SetIntOption("BGRTORGB", t.bgr);
    c.SetIntOption("FLATBEDSIDEFLIP", t.flatbedFlip);
    c.SetIntOption("ADFSIDEFLIP", t.adfFlip);
    c.SetIntOption("COLORCORRECT", t.colorCorrect);
    RawDataHandler handler;
    const std::string text = logOf([&] {
        handler.SetUp(&c);
        handler.SetUp(&c);  // a second set-up replaces the chain
    });
    std::string kinds;
    for (int i = 0; i < handler.GetManipulationCount(); ++i) kinds += kindOf(handler.GetManipulation(i));
    EXPECT_EQ(t.kinds, kinds);
    const std::string kindsStr(t.kinds);
    EXPECT_EQ(kindsStr.find('B') != std::string::npos, text.find("BGR to RGB object created.") != std::string::npos);
    EXPECT_EQ(kindsStr.find('F') != std::string::npos, text.find("SideFlip object created.") != std::string::npos);
    EXPECT_EQ(kindsStr.find('C') != std::string::npos, text.find("Color Correct object created.") != std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Options, ChainFromOptions,
                         ::testing::Values(ChainCase{0, 0, 0, 0, ""}, ChainCase{1, 0, 0, 0, "B"},
                                           ChainCase{0, 1, 0, 0, "F"}, ChainCase{0, 0, 1, 0, "F"},
                                           ChainCase{0, 0, 0, 1, "C"}, ChainCase{1, 1, 1, 1, "BFC"}));

// --- RawDataHandler::Perform --------------------------------------------------

// 2.5 BGR lines of two pixels (stride 6).
const Bytes TWO_AND_HALF_LINES = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x11, 0x12,
                                  0x13, 0x14, 0x15, 0x16, 0x21, 0x22, 0x23};

TEST(RawDataHandlerTest, ChainHandlesWholeLinesAndKeepsTheRest) {
    ConfigReader c;
    c.SetIntOption("BGRTORGB", 1);
    RawDataHandler handler;
    handler.SetUp(&c);
    ImageData image;
    fill(image, 2, 6, BGR, FLIP_OFF, TWO_AND_HALF_LINES);
    EXPECT_EQ(1, handler.Perform(&image));
    EXPECT_EQ(12, image.GetProcessedDataSize());
    EXPECT_EQ(Bytes({0x03, 0x02, 0x01, 0x06, 0x05, 0x04, 0x13, 0x12, 0x11, 0x16, 0x15, 0x14, 0x21, 0x22, 0x23}),
              allBytes(image));
    // The half line waits for the rest of its bytes.
    EXPECT_EQ(0, handler.Perform(&image));
    EXPECT_EQ(12, image.GetProcessedDataSize());
    const Bytes rest = {0x24, 0x25, 0x26};
    image.SetRawData(rest.data(), 3);
    EXPECT_EQ(1, handler.Perform(&image));
    EXPECT_EQ(18, image.GetProcessedDataSize());
    const Bytes all = allBytes(image);
    EXPECT_EQ(Bytes({0x23, 0x22, 0x21, 0x26, 0x25, 0x24}), Bytes(all.begin() + 12, all.end()));
}

TEST(RawDataHandlerTest, EmptyChainMarksEverythingAtOnce) {
    ConfigReader c;
    RawDataHandler handler;
    handler.SetUp(&c);
    ImageData image;
    fill(image, 2, 6, BGR, FLIP_ON, TWO_AND_HALF_LINES);
    EXPECT_EQ(1, handler.Perform(&image));
    EXPECT_EQ(15, image.GetProcessedDataSize());
    EXPECT_EQ(TWO_AND_HALF_LINES, allBytes(image));
}

// --- Manipulations on whole lines ---------------------------------------------

struct LineCase {
    const char* name;
    int width, stride;
    TripletTypeEnum triplet;
    FlipEnum flip;
    Bytes in, expected;
    int result;
};
void PrintTo(const LineCase& c, std::ostream* os) { *os << c.name; }

class BgrSwap : public ::testing::TestWithParam<LineCase> {};
class SideFlip : public ::testing::TestWithParam<LineCase> {};

template <class M>
void runLineCase(const LineCase& t) {
    ImageData image;
    fill(image, t.width, t.stride, t.triplet, t.flip, t.in);
    M m;
    EXPECT_EQ(t.result, m.Perform(&image, (int)t.in.size()));
    EXPECT_EQ(t.expected, rawBytes(image));
}
TEST_P(BgrSwap, Bytes) { runLineCase<IMBGRtoRGB>(GetParam()); }
TEST_P(SideFlip, Bytes) { runLineCase<IMSideFlip>(GetParam()); }

INSTANTIATE_TEST_SUITE_P(
    Lines, BgrSwap,
    ::testing::Values(
        // Unpadded lines are covered by the handler test above. Stride 8 for 6 pixel bytes: line L ends its groups below L x 6 counted from the
        // buffer start, so line 2 is swapped whole, line 3 only in pixel 0, line 4 not at all.
        LineCase{"paddedBound", 2, 8, BGR, FLIP_OFF,
                 {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0xE1, 0xE2, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0xE3, 0xE4,
                  0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0xE5, 0xE6, 0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0xE7, 0xE8},
                 {0x03, 0x02, 0x01, 0x06, 0x05, 0x04, 0xE1, 0xE2, 0x13, 0x12, 0x11, 0x16, 0x15, 0x14, 0xE3, 0xE4,
                  0x23, 0x22, 0x21, 0x24, 0x25, 0x26, 0xE5, 0xE6, 0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0xE7, 0xE8},
                 1},
        LineCase{"rgbUntouched", 2, 6, RGB, FLIP_OFF, {1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6}, 0},
        // A stride shorter than the pixels: line 2 starts inside the groups of line 1 and
        // swaps again; no group reaches past the end of the data.
        LineCase{"strideShort", 3, 4, BGR, FLIP_OFF, {1, 2, 3, 4, 5, 6, 7, 8}, {3, 2, 1, 6, 7, 4, 5, 8}, 1}),
    [](const auto& info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Lines, SideFlip,
    ::testing::Values(
        LineCase{"greyPadded", 5, 8, GRAY, FLIP_ON,
                 {0x01, 0x02, 0x03, 0x04, 0x05, 0xAA, 0xBB, 0xCC, 0x11, 0x12, 0x13, 0x14, 0x15, 0xDD, 0xEE, 0xFF},
                 {0x05, 0x04, 0x03, 0x02, 0x01, 0xAA, 0xBB, 0xCC, 0x15, 0x14, 0x13, 0x12, 0x11, 0xDD, 0xEE, 0xFF}, 1},
        LineCase{"colourPadded", 3, 11, RGB, FLIP_ON,
                 {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0xEE, 0xFF},
                 {0x07, 0x08, 0x09, 0x04, 0x05, 0x06, 0x01, 0x02, 0x03, 0xEE, 0xFF}, 1},
        LineCase{"colourEven", 2, 6, BGR, FLIP_ON,
                 {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16},
                 {0x04, 0x05, 0x06, 0x01, 0x02, 0x03, 0x14, 0x15, 0x16, 0x11, 0x12, 0x13}, 1},
        LineCase{"flipOff", 5, 8, GRAY, FLIP_OFF, {1, 2, 3, 4, 5, 6, 7, 8}, {1, 2, 3, 4, 5, 6, 7, 8}, 0},
        // Width larger than the line: only the pixels the line holds are mirrored.
        LineCase{"widthOverStride", 4, 7, RGB, FLIP_ON, {1, 2, 3, 4, 5, 6, 7}, {4, 5, 6, 1, 2, 3, 7}, 1}),
    [](const auto& info) { return std::string(info.param.name); });

// --- Colour correction through the test library -------------------------------

void setCorrection(ConfigReader& c, const std::string& lib, const char* func, const std::string& color,
                   const std::string& gray) {
    c.SetIntOption("COLORCORRECT", 1);
    if (!lib.empty()) c.SetStringOption("SCLIB", lib.c_str());
    if (func != nullptr) c.SetStringOption("SCFUNC", func);
    if (!color.empty()) c.SetStringOption("COLORLUT", color.c_str());
    if (!gray.empty()) c.SetStringOption("GRAYLUT", gray.c_str());
}

struct CorrectCase {
    const char* name;
    int width, stride, scanbar;
    TripletTypeEnum triplet;
    Bytes in, expected;  // in holds 1.5 lines; only the whole line is corrected
};
void PrintTo(const CorrectCase& c, std::ostream* os) { *os << c.name; }
class ColorCorrect : public ::testing::TestWithParam<CorrectCase> {};

TEST_P(ColorCorrect, PixelsMappedThroughTheTable) {
    const CorrectCase& t = GetParam();
    ASSERT_EQ(0, access(testLibrary().c_str(), R_OK)) << testLibrary();
    ConfigReader c;
    setCorrection(c, testLibrary(), "ScanCorrect", lutPath("lutc0.bin"), lutPath("lutg0.bin"));
    c.SetIntOption("SCANBARID", t.scanbar);
    RawDataHandler handler;
    handler.SetUp(&c);
    ImageData image;
    fill(image, t.width, t.stride, t.triplet, FLIP_OFF, t.in);
    EXPECT_NE(std::string::npos, logOf([&] { EXPECT_EQ(1, handler.Perform(&image)); }).find("Scan Correct successful."));
    EXPECT_EQ(t.stride, image.GetProcessedDataSize());
    EXPECT_EQ(t.expected, allBytes(image));
}

INSTANTIATE_TEST_SUITE_P(
    Tables, ColorCorrect,
    ::testing::Values(
        // lutc0: 255 - v; the padding after the pixels is not touched by the library.
        CorrectCase{"colourInverted", 2, 8, 0, RGB,
                    {0x00, 0x10, 0x20, 0x30, 0x40, 0xFF, 0x55, 0x66, 0x01, 0x02, 0x03, 0x04},
                    {0xFF, 0xEF, 0xDF, 0xCF, 0xBF, 0x00, 0x55, 0x66, 0x01, 0x02, 0x03, 0x04}},
        // Scan bar 2 selects lutc2: (v + 16) mod 256. (The grey tables are checked
        // through scanimage.)
        CorrectCase{"colourBar2", 1, 3, 2, BGR, {0x00, 0xF0, 0x7F, 0x09}, {0x10, 0x00, 0x8F, 0x09}}),
    [](const auto& info) { return std::string(info.param.name); });

struct FailCase {
    const char* name;
    std::string lib;
    const char* func;
    std::string color, gray;
    const char* logText = "Scan Correct failed.";
};
void PrintTo(const FailCase& c, std::ostream* os) { *os << c.name; }
class ColorCorrectFails : public ::testing::TestWithParam<FailCase> {};

TEST_P(ColorCorrectFails, ImagePassesUncorrected) {
    const FailCase& t = GetParam();
    ConfigReader c;
    setCorrection(c, t.lib, t.func, t.color, t.gray);
    RawDataHandler handler;
    handler.SetUp(&c);
    ASSERT_EQ(1, handler.GetManipulationCount());
    const Bytes line = {0x00, 0x10, 0x20, 0x30, 0x40, 0x50};
    ImageData image;
    fill(image, 2, 6, RGB, FLIP_OFF, line);
    EXPECT_NE(std::string::npos, logOf([&] { EXPECT_EQ(1, handler.Perform(&image)); }).find(t.logText));
    EXPECT_EQ(6, image.GetProcessedDataSize());
    EXPECT_EQ(line, allBytes(image));
}

const std::string LUTC = lutPath("lutc0.bin"), LUTG = lutPath("lutg0.bin");

// Table files that must never be read: one byte more than the largest table
// (sparse), and a pipe that nobody writes to (reading it would wait forever).
std::string unusableTable(const char* name) {
    static qt::TempDir dir;
    std::string path = dir.file(name);
    if (strcmp(name, "pipe") == 0) {
        mkfifo(path.c_str(), 0600);
    } else {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd >= 0 && ftruncate(fd, IMColorCorrect::MAX_TABLE_SIZE + 1) != 0) path += ".unmade";
        if (fd >= 0) close(fd);
    }
    return path;
}
INSTANTIATE_TEST_SUITE_P(
    Missing, ColorCorrectFails,
    ::testing::Values(FailCase{"noLibrary", "/nonexistent/libnone.so", "ScanCorrect", LUTC, LUTG},
                      FailCase{"noLibraryKey", "", "ScanCorrect", LUTC, LUTG},
                      FailCase{"noEntryPoint", testLibrary(), "NoSuchEntry", LUTC, LUTG},
                      FailCase{"noColourTable", testLibrary(), "ScanCorrect", lutPath("absent.bin"), LUTG},
                      FailCase{"noGreyTableKey", testLibrary(), "ScanCorrect", LUTC, ""},
                      FailCase{"emptyTable", testLibrary(), "ScanCorrect", "/dev/null", LUTG},
                      FailCase{"tableIsDirectory", testLibrary(), "ScanCorrect", lutPath(""), LUTG},
                      FailCase{"colourTableTooLarge", testLibrary(), "ScanCorrect", unusableTable("huge.bin"), LUTG},
                      FailCase{"tableIsAPipe", testLibrary(), "ScanCorrect", unusableTable("pipe"), LUTG},
                      // The library refuses a table shorter than 256 bytes; its error is only logged.
                      FailCase{"libraryError", testLibrary(), "ScanCorrect", lutPath("lutshort.bin"), LUTG,
                               "Scan Correct error = 1."}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ColorCorrectDefault, DefaultLibraryAbsentMeansNoCorrection) {
    IMColorCorrect m;
    ImageData image;
    const Bytes px = {0x42};
    fill(image, 1, 1, GRAY, FLIP_OFF, px);
    EXPECT_EQ(0, m.Perform(&image, 1));
    EXPECT_EQ(px, rawBytes(image));
}

// --- Scan bar table selection -------------------------------------------------

struct BarCase {
    int bar;
    const char *color, *gray, *colorOut, *grayOut;
};
class Scanbars : public ::testing::TestWithParam<BarCase> {};

TEST_P(Scanbars, TableDigitReplaced) {
    const BarCase& t = GetParam();
    ConfigReader c;
    c.SetIntOption("SCANBARID", t.bar);
    if (t.color) c.SetStringOption("COLORLUT", t.color);
    if (t.gray) c.SetStringOption("GRAYLUT", t.gray);
    RawDataHandler handler;
    EXPECT_EQ(0, handler.CheckForMultipleScanbars(&c));
    const char* color = c.GetStringOption("COLORLUT");
    const char* gray = c.GetStringOption("GRAYLUT");
    EXPECT_EQ(std::string(t.colorOut ? t.colorOut : "(null)"), std::string(color ? color : "(null)"));
    EXPECT_EQ(std::string(t.grayOut ? t.grayOut : "(null)"), std::string(gray ? gray : "(null)"));
}

INSTANTIATE_TEST_SUITE_P(
    Paths, Scanbars,
    ::testing::Values(BarCase{2, "/t/lutc0.bin", "/t/lutg0.bin", "/t/lutc2.bin", "/t/lutg2.bin"},
                      BarCase{12, "/t/lutc0.bin", "/t/lutg0.bin", "/t/lutc1.bin", "/t/lutg1.bin"},
                      BarCase{0, "/t/lutc0.bin", "/t/lutg0.bin", "/t/lutc0.bin", "/t/lutg0.bin"},
                      BarCase{3, "abcde", "abcd", "3bcde", "abcd"}, BarCase{7, "", nullptr, "", nullptr},
                      BarCase{-4, "/t/c0.bin", "x", "/t/c-.bin", "x"}));

// --- Interleaved lines --------------------------------------------------------

struct InterleaveCase {
    const char* name;
    int width, channels, stride, offsetX, trim;
    Bytes line, expected;
};
void PrintTo(const InterleaveCase& c, std::ostream* os) { *os << c.name; }
class Interleave : public ::testing::TestWithParam<InterleaveCase> {};

// Source with 2.5 copies of the line, all processed; each whole copy is rebuilt.
TEST_P(Interleave, RebuildsWholeLines) {
    const InterleaveCase& t = GetParam();
    ImageData image;
    fill(image, t.width, t.stride, t.channels == 3 ? RGB : GRAY, FLIP_OFF, {});
    image.SetInterleaveInfo(t.width, 2, t.offsetX, 0, t.trim);
    ASSERT_EQ(1, image.GetInterleave());
    DataBuffer source;
    Bytes in = t.line;
    in.insert(in.end(), t.line.begin(), t.line.end());
    in.insert(in.end(), t.line.begin(), t.line.begin() + t.line.size() / 2);
    source.SetRawData(in.data(), (int)in.size());
    source.SetProcessedDataSize((int)in.size());
    InterleaveHandler handler;
    EXPECT_EQ(1, handler.DoInterleave(&source, &image));
    Bytes expected = t.expected;
    expected.insert(expected.end(), t.expected.begin(), t.expected.end());
    EXPECT_EQ(expected, allBytes(image));
    EXPECT_EQ(0, image.GetProcessedDataSize());
    EXPECT_EQ((int)t.line.size() / 2, source.GetAllDataSize());
    // One line at a time gives the same bytes.
    DataBuffer one;
    one.SetRawData(t.line.data(), (int)t.line.size());
    one.SetProcessedDataSize((int)t.line.size());
    ImageData single;
    fill(single, t.width, t.stride, t.channels == 3 ? RGB : GRAY, FLIP_OFF, {});
    single.SetInterleaveInfo(t.width, 1, t.offsetX, 0, t.trim);
    handler.InterleaveLine(&one, &single);
    EXPECT_EQ(t.expected, allBytes(single));
    EXPECT_EQ(0, one.GetAllDataSize());
}

INSTANTIATE_TEST_SUITE_P(
    Lines, Interleave,
    ::testing::Values(
        // Half A holds the even pixels 10..13, half B the odd ones 20..23; the
        // trim runs past the end of the halves: missing pixels come out as 0.
        // (Offsets and trims within the halves are checked through scanimage.)
        InterleaveCase{"greyPastHalf", 8, 1, 6, 2, 1, {0x10, 0x11, 0x12, 0x13, 0x20, 0x21, 0x22, 0x23},
                       {0x12, 0x22, 0x13, 0x23, 0x00, 0x00}},
        // A line length that is not whole pixels ends in the first byte of the next pixel.
        InterleaveCase{"colourPartialPixel", 4, 3, 7, 0, 0,
                       {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16},
                       {0x01, 0x02, 0x03, 0x11, 0x12, 0x13, 0x04}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(InterleaveHandlerTest, ShortOrPlainSourcesAreMovedOrLeft) {
    InterleaveHandler handler;
    const Bytes data = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    DataBuffer source;
    source.SetRawData(data.data(), 9);
    source.SetProcessedDataSize(7);

    ImageData image;
    fill(image, 8, 8, GRAY, FLIP_OFF, {});
    image.SetInterleaveInfo(8, 1, 0, 0, 0);
    EXPECT_EQ(-1, handler.DoInterleave(&source, &image));  // 7 processed < 8 per line
    EXPECT_EQ(0, image.GetAllDataSize());
    EXPECT_EQ(7, source.GetProcessedDataSize());
    EXPECT_EQ(9, source.GetAllDataSize());

    // Not interleaved: every processed byte moves over as raw data; the raw rest stays.
    ImageData plain;
    fill(plain, 8, 8, GRAY, FLIP_OFF, {});
    EXPECT_EQ(0, handler.DoInterleave(&source, &plain));
    EXPECT_EQ(Bytes({1, 2, 3, 4, 5, 6, 7}), allBytes(plain));
    EXPECT_EQ(0, plain.GetProcessedDataSize());
    EXPECT_EQ(Bytes({8, 9}), allBytes(source));
}

}  // namespace
