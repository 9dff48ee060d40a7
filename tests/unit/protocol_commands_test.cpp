// Request bytes of the four command classes, NPA framing and escape-header
// removal. Expected bytes are the wire tables written out by hand.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Cmd326.h"
#include "Cmd401.h"
#include "Cmd402.h"
#include "Cmd500.h"
#include "ConfigReader.h"
#include "DataBuffer.h"
#include "protocol_testutil.h"

using proto::build;
using proto::Bytes;
using proto::hex;

namespace {

std::unique_ptr<ICommand> make(int version, int local = 0, int boxKind = 0) {
    return std::unique_ptr<ICommand>(ICommand::createCmdInstance(version, local, boxKind));
}

// An option store holding the given integer and real options.
std::unique_ptr<ConfigReader> store(const std::map<std::string, int>& ints,
                                    const std::map<std::string, double>& reals = {}) {
    std::unique_ptr<ConfigReader> cr(new ConfigReader());
    for (const auto& kv : ints) cr->SetIntOption(kv.first.c_str(), kv.second);
    for (const auto& kv : reals) cr->SetDoubleOption(kv.first.c_str(), kv.second);
    return cr;
}

// Request headers by id; the settings requests (3, 4) differ per class in
// their length and byte 4.
const char* const HEADERS[10] = {"1B 53 0F 00 00 00 00 00", "1B 53 04 00 00 00 80 00", "1B 53 03 00 00 00 80 00",
                                 "1B 53 05 00 00 00 80 00", "1B 53 01 00 00 00 80 00", "1B 53 06 00 00 00 80 00",
                                 "1B 44 04 00 00 00 80 00", "1B 53 02 00 00 00 00 00", "1B 53 0B 00 00 00 80 00",
                                 "1B 53 0A 00 00 00 80 00"};

struct ClassCase {
    int version, expectVer, strip, stripMin, lockLen, lockByte4, startLen, startByte4;
};
class Classes : public ::testing::TestWithParam<ClassCase> {};

TEST_P(Classes, FactoryHeadersOfEveryIdAndStripValues) {
    const ClassCase& c = GetParam();
    auto cmd = make(c.version, 1, 7);
    EXPECT_EQ(std::vector<int>({cmd->getVersion(), cmd->getLocal(), cmd->getBoxKind(), cmd->getNpa()}),
              std::vector<int>({c.expectVer, 1, 7, 0}));
    for (int id = 0; id <= 9; ++id) {
        Bytes want = hex(HEADERS[id]);
        int len = 8;
        if (id == 3) want[4] = (unsigned char)c.lockByte4, len = c.lockLen;
        if (id == 4) want[4] = (unsigned char)c.startByte4, len = c.startLen;
        proto::Request r = build(cmd.get(), id);
        ASSERT_EQ(r.rc, 0) << id;
        ASSERT_EQ(r.len, len) << id;
        EXPECT_EQ(Bytes(r.bytes.begin(), r.bytes.begin() + 8), want) << id;
    }
    for (int id : {-1, 10, 11, 99}) {
        proto::Request r = build(cmd.get(), id);
        EXPECT_EQ(r.rc, 2) << id;
        EXPECT_EQ(r.len, 0) << id;
    }
    // Strip size and strip min show in how a block header is consumed.
    DataBuffer buf;
    Bytes block(c.strip, 0);
    block[0] = 0x1B, block[1] = 0x53, block[2] = 0x02, block[4] = (unsigned char)(c.stripMin + 2);
    block.push_back(0xA1), block.push_back(0xA2), block.push_back(0xA3);
    buf.SetRawData(block.data(), (int)block.size());
    cmd->removeESC(&buf);
    EXPECT_EQ(buf.GetProcessedDataSize(), 2);
    EXPECT_EQ(buf.GetAllDataSize(), 3);
}

// Unknown versions (0, 403) get the basic class.
INSTANTIATE_TEST_SUITE_P(Versions, Classes,
                         ::testing::Values(ClassCase{326, 326, 9, 1, 34, 0x18, 32, 0x18},
                                           ClassCase{401, 401, 10, 2, 34, 0x1A, 34, 0x1A},
                                           ClassCase{402, 402, 10, 23, 34, 0x1A, 43, 0x23},
                                           ClassCase{403, 326, 9, 1, 34, 0x18, 32, 0x18},
                                           ClassCase{500, 500, 31, 23, 55, 0x2F, 8, 0x00}));

TEST(CommandState, NpaFlagAndDefaultsWithoutStore) {
    auto cmd = make(326);
    cmd->setNpa(5);
    EXPECT_EQ(cmd->getNpa(), 1);
    cmd->setNpa(-1);
    EXPECT_EQ(cmd->getNpa(), 0);
    EXPECT_EQ(cmd->getPixelPerLine() + cmd->getLines() + cmd->getCurrentDPI() + cmd->getSource(), 0);
    EXPECT_EQ(cmd->getFilter(), 3);
    EXPECT_EQ(cmd->getColorDepth(), 3);
    EXPECT_EQ(cmd->setConfigReader(nullptr), 2);
    unsigned char one = 0x40;
    int len = 1;
    unsigned char* out = nullptr;
    EXPECT_EQ(cmd->addNPA(nullptr, &one, &len), 2);
    EXPECT_EQ(cmd->addNPA(&out, nullptr, &len), 2);
}

struct MapCase {
    std::map<std::string, int> opts;
    int local;
    int filter;
    int color;
    int source;
};
class ValueMappings : public ::testing::TestWithParam<MapCase> {};

TEST_P(ValueMappings, FilterColourAndSourceCodes) {
    const MapCase& c = GetParam();
    auto cr = store(c.opts);
    auto cmd = make(326, c.local);
    cmd->setConfigReader(cr.get());
    EXPECT_EQ(cmd->getFilter(), c.filter);
    EXPECT_EQ(cmd->getColorDepth(), c.color);
    EXPECT_EQ(cmd->getSource(), c.source);
}

INSTANTIATE_TEST_SUITE_P(
    Options, ValueMappings,
    ::testing::Values(
        MapCase{{{"CONTENTTYPE", 0}, {"COLORDEPTH", 0}}, 1, 1, 1, 1},
        MapCase{{{"CONTENTTYPE", 1}, {"COLORDEPTH", 1}, {"SCAN_SOURCE", 1}}, 1, 3, 2, 4},
        MapCase{{{"CONTENTTYPE", 2}, {"COLORDEPTH", 2}, {"SCAN_SOURCE", 1}, {"USB_MULTIPAGE_FLAG", 1}}, 1, 2, 3, 3},
        MapCase{{{"CONTENTTYPE", 9}, {"COLORDEPTH", 5}, {"CONNECTION", 1}}, 1, 3, 2, 1},
        MapCase{{{"PREVIEW", 1}, {"CONTENTTYPE", 0}, {"COLORDEPTH", 2}, {"CONNECTION", 1}}, 0, 4, 3, 0},
        // Not local: no device reply is consulted, so the source is 0 either way.
        MapCase{{{"SCAN_SOURCE", 1}}, 0, 1, 1, 0}));

using Ints = std::map<std::string, int>;
// A USB line-art selection: 1001 pixels (84.75 mm at 300 dpi) by 300 lines,
// starting 30 pixels right and 60 pixels down.
const Ints LINEART = {{"CONNECTION", 1}, {"CURRENTDPI", 300}, {"COLORDEPTH", 0}, {"CONTENTTYPE", 0}};
const std::map<std::string, double> LINEART_WINDOW = {{"CURRENTTLX", 2.54}, {"CURRENTTLY", 5.08}, {"CURRENTBRX", 87.29},
                                                      {"CURRENTBRY", 30.48}, {"FLATBEDWIDTHLIMIT", 8.5}};
const Ints GREY402 = {{"PIXELS_PER_LINE", 1001}, {"LINES", 7}, {"SCANOFFSETX", 0x102}, {"SCANOFFSETY", 0x30405},
                      {"CURRENTDPI", 600}, {"COLORDEPTH", 1}, {"CONTENTTYPE", 1}, {"COMPRESSION", 1},
                      {"COMPRESSIONLEVEL", 75}, {"SCAN_SOURCE", 1}, {"MIRRORIMAGE", 1}, {"NEGATIVEIMAGE", 1},
                      {"COLORDROPOUT", 2}, {"COLORDROPOUTTHRESHOLD", 40}, {"BKGREMOVAL", -2}};

struct FullCase {
    const char* name;
    int version, local, boxKind;
    Ints ints;
    bool window;  // the line-art selection window as well
    int id;
    const char* bytes;
};
void PrintTo(const FullCase& c, std::ostream* os) { *os << c.name; }
class SettingsRequest : public ::testing::TestWithParam<FullCase> {};

TEST_P(SettingsRequest, WholeRequest) {
    const FullCase& c = GetParam();
    auto cr = store(c.ints, c.window ? LINEART_WINDOW : std::map<std::string, double>());
    auto cmd = make(c.version, c.local, c.boxKind);
    cmd->setConfigReader(cr.get());
    EXPECT_EQ(build(cmd.get(), c.id).bytes, hex(c.bytes));
}

INSTANTIATE_TEST_SUITE_P(
    Classes, SettingsRequest,
    ::testing::Values(
        // Line art pads the odd width to 1008.
        FullCase{"cmd326Start", 326, 0, 0, LINEART, true, 4,
                 "1B 53 01 00 18 00 80 00 | 01 00 00 01 | F0 03 00 00 | 2C 01 00 00 | 1E 00 00 00 | 3C 00 00 00 |"
                 "2C 01 2C 01"},
        FullCase{"cmd326Lock", 326, 0, 0, LINEART, true, 3,
                 "1B 53 05 00 18 00 80 00 | 01 00 00 01 | F0 03 00 00 | 2C 01 00 00 | 1E 00 00 00 | 3C 00 00 00 |"
                 "2C 01 2C 01 | 00 00"},
        FullCase{"cmd401AddsSource", 401, 1, 0, LINEART, true, 4,
                 "1B 53 01 00 1A 00 80 00 | 01 00 00 01 | F0 03 00 00 | 2C 01 00 00 | 1E 00 00 00 | 3C 00 00 00 |"
                 "2C 01 2C 01 | 01 00"},
        FullCase{"cmd402GreyAllOptions", 402, 1, 0, GREY402, false, 4,
                 "1B 53 01 00 23 00 80 00 | 02 01 4B 03 | E9 03 00 00 | 07 00 00 00 | 02 01 00 00 | 05 04 03 00 |"
                 "58 02 58 02 | 04 00 | 03 01 | 01 00 28 00 28 | 01 FE"},
        // The lock request stops after the source.
        FullCase{"cmd402Lock", 402, 1, 0, GREY402, false, 3,
                 "1B 53 05 00 1A 00 80 00 | 02 01 4B 03 | E9 03 00 00 | 07 00 00 00 | 02 01 00 00 | 05 04 03 00 |"
                 "58 02 58 02 | 04 00"},
        FullCase{"cmd500BoxOneCompressedColour", 500, 1, 1,
                 {{"CONNECTION", 1}, {"COLORDEPTH", 2}, {"CURRENTDPI", 1200}, {"CONTENTTYPE", 2},
                  {"PIXELS_PER_LINE", 2550}, {"LINES", 3300}, {"SCANOFFSETX", 12}, {"SCANOFFSETY", 34},
                  {"SCAN_SOURCE", 0}, {"DOCUMENTSOURCE", 3}, {"BRIGHTNESS", 2}, {"CONTRAST", 1}},
                 false, 3,
                 "1B 53 05 00 2F 00 80 00 | 03 01 4B 02 | F6 09 00 00 | E4 0C 00 00 | 0C 00 00 00 | 22 00 00 00 |"
                 "B0 04 B0 04 | 01 | 00 00 00 00 00 00 00 00 | 00 01 | 00 00 | 05 04 08 00 | 00 00 00 00 00 00"},
        // Box kind 0: brightness, contrast and sharpness offsets of its own.
        FullCase{"cmd500BoxZeroGreyFromFeeder", 500, 1, 0,
                 {{"CONNECTION", 1}, {"COLORDEPTH", 1}, {"CURRENTDPI", 600}, {"CONTENTTYPE", 0},
                  {"PIXELS_PER_LINE", 0x01020304}, {"LINES", 5}, {"SCAN_SOURCE", 1}, {"DOCUMENTSOURCE", 9},
                  {"BRIGHTNESS", 2}, {"CONTRAST", 1}, {"BKGREMOVAL", -2}},
                 false, 3,
                 "1B 53 05 00 2F 00 80 00 | 02 00 00 01 | 04 03 02 01 | 05 00 00 00 | 00 00 00 00 | 00 00 00 00 |"
                 "58 02 58 02 | 04 | 00 00 00 00 00 00 00 00 | 01 FE | 00 00 | 06 01 09 03 | 00 00 00 00 00 00"}),
    [](const auto& info) { return std::string(info.param.name); });

struct DropoutCase {
    int depth;
    int dropout;
    const char* bytes36to40;
};
class Cmd402Dropout : public ::testing::TestWithParam<DropoutCase> {};

TEST_P(Cmd402Dropout, Bytes36To40) {
    const DropoutCase& c = GetParam();
    auto cr = store({{"COLORDEPTH", c.depth}, {"COLORDROPOUT", c.dropout}, {"COLORDROPOUTTHRESHOLD", 40}});
    auto cmd = make(402);
    cmd->setConfigReader(cr.get());
    Bytes b = build(cmd.get(), 4).bytes;
    ASSERT_EQ(b.size(), 43u);
    EXPECT_EQ(Bytes(b.begin() + 36, b.begin() + 41), hex(c.bytes36to40));
}

INSTANTIATE_TEST_SUITE_P(Channels, Cmd402Dropout,
                         ::testing::Values(DropoutCase{1, 1, "01 28 00 00 28"}, DropoutCase{1, 2, "01 00 28 00 28"},
                                           DropoutCase{0, 3, "01 00 00 28 28"}, DropoutCase{1, 0, "00 FF FF FF FE"},
                                           DropoutCase{2, 3, "00 00 00 00 00"}, DropoutCase{0, 7, "01 00 00 00 28"}));

struct BkgCase {
    int boxKind;
    int setting;
    const char* cmd402;  // bytes 41-42 of the 402 start request
    const char* cmd500;  // bytes 33-34 of the 500 scan-lock record
};
class BackgroundRemoval : public ::testing::TestWithParam<BkgCase> {};

TEST_P(BackgroundRemoval, FlagAndParamBytes) {
    const BkgCase& c = GetParam();
    auto cr = store({{"BKGREMOVAL", c.setting}});
    auto c402 = make(402, 0, c.boxKind);
    c402->setConfigReader(cr.get());
    Bytes b = build(c402.get(), 4).bytes;
    ASSERT_EQ(b.size(), 43u);
    EXPECT_EQ(Bytes(b.begin() + 41, b.end()), hex(c.cmd402));
    auto c500 = make(500, 0, c.boxKind);
    c500->setConfigReader(cr.get());
    b = build(c500.get(), 3).bytes;
    ASSERT_EQ(b.size(), 55u);
    EXPECT_EQ(Bytes(b.begin() + 8 + 33, b.begin() + 8 + 35), hex(c.cmd500));
}

INSTANTIATE_TEST_SUITE_P(
    Settings, BackgroundRemoval,
    ::testing::Values(BkgCase{0, -4, "01 FC", "01 FC"}, BkgCase{0, 0, "00 00", "00 00"}, BkgCase{0, 1, "01 01", "01 01"},
                      BkgCase{1, 0, "00 00", "00 01"}, BkgCase{1, 1, "01 01", "01 00"}, BkgCase{1, 2, "01 02", "01 02"}));

struct NpaCase {
    int cmdLen;
    int total;
    int pad;
};
class NpaFraming : public ::testing::TestWithParam<NpaCase> {};

TEST_P(NpaFraming, PadsToFourAndStoresLengthBigEndian) {
    const NpaCase& c = GetParam();
    Bytes cmdBytes(c.cmdLen);
    for (int i = 0; i < c.cmdLen; ++i) cmdBytes[i] = (unsigned char)(0x40 + i);
    auto cmd = make(326);
    unsigned char* out = nullptr;
    int len = c.cmdLen;
    ASSERT_EQ(cmd->addNPA(&out, cmdBytes.data(), &len), 0);
    std::unique_ptr<unsigned char, decltype(&free)> hold(out, &free);
    ASSERT_EQ(len, c.total);
    Bytes b(out, out + len);
    EXPECT_EQ(b[0], 0xA5);
    EXPECT_EQ(b[1] << 8 | b[2], c.total - 3);
    EXPECT_EQ(Bytes(b.begin() + 3, b.begin() + 11), hex("10 01 83 AA BB CC DD 02"));
    EXPECT_EQ(b[11], c.pad);
    EXPECT_EQ(Bytes(b.begin() + 12, b.begin() + 12 + c.pad), Bytes(c.pad, 0));
    EXPECT_EQ(Bytes(b.begin() + 12 + c.pad, b.end() - 8), cmdBytes);
    EXPECT_EQ(Bytes(b.end() - 8, b.end()), hex("AA BB CC DD AA BB CC DD"));
}

INSTANTIATE_TEST_SUITE_P(Lengths, NpaFraming,
                         ::testing::Values(NpaCase{1, 24, 3}, NpaCase{8, 28, 0}, NpaCase{14, 36, 2},
                                           NpaCase{15, 36, 1}, NpaCase{300, 320, 0}));

TEST(NpaRequests, ScanLockIsWrappedWithItsLengthField) {
    auto cmd = make(500);
    cmd->setNpa(1);
    Bytes b = build(cmd.get(), 3).bytes;
    ASSERT_EQ(b.size(), 76u);
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 21), hex("A5 00 49 10 01 83 AA BB CC DD 02 01 00 | 1B 53 05 00 2F 00 80 00"));
    EXPECT_EQ(Bytes(b.end() - 8, b.end()), hex("AA BB CC DD AA BB CC DD"));
}

// Device scan parameters: header, then the 34-byte record.
Bytes deviceParams(unsigned char dpiAndSize, unsigned char button, unsigned char scanSize, unsigned char filter,
                   unsigned char background) {
    Bytes p = hex("1B 53 0B 00 22 00 00 00");
    Bytes rec = hex("00 00 00 09 00 00 00 21 00 00 00 00 00 00 00 31 32 33 34 35 36 37 00 41 42 43 44 45 46 47 48 49 4A 4B");
    rec[0] = dpiAndSize, rec[4] = button, rec[11] = scanSize, rec[12] = filter, rec[22] = background;
    p.insert(p.end(), rec.begin(), rec.end());
    return p;
}

TEST(ScanLock, DeviceParametersOverrideTheStore) {
    auto cr = store({{"CONNECTION", 1}, {"COLORDEPTH", 2}, {"CURRENTDPI", 1200}, {"CONTENTTYPE", 2},
                     {"PIXELS_PER_LINE", 2550}, {"LINES", 3300}, {"SCANOFFSETX", 12}, {"SCANOFFSETY", 34},
                     {"DOCUMENTSOURCE", 3}, {"BRIGHTNESS", 2}, {"CONTRAST", 1}, {"BKGREMOVAL", 3}});
    auto cmd = make(500, 1, 1);
    cmd->setConfigReader(cr.get());
    Bytes params = deviceParams(0x14, 12, 9, 3, 1);
    EXPECT_EQ(cmd->prepareScanCommand(params.data(), (int)params.size(), 2), 0);
    EXPECT_EQ(cr->GetIntOption("CURRENTDPI"), 600);
    EXPECT_EQ(cr->GetIntOption("COLORDEPTH"), 0);
    EXPECT_EQ(cr->GetIntOption("ORIGINALSIZE"), 13);
    // 600 dpi is not compressed; colour, filter, source, the seven imaging bytes,
    // descreen, brightness, contrast, document source, temperature, saturation
    // and balance come from the device; background removal 1 clears only the flag.
    EXPECT_EQ(build(cmd.get(), 3).bytes,
              hex("1B 53 05 00 2F 00 80 00 | 02 00 00 05 | F6 09 00 00 | E4 0C 00 00 | 0C 00 00 00 | 22 00 00 00 |"
                  "58 02 58 02 | 04 00 | 31 32 33 34 35 36 37 | 00 03 | 00 41 | 21 42 43 00 | 45 46 47 48 49 4A"));
}

struct ParamCase {
    unsigned char dpiAndSize, button, scanSize, filter, background;
    int adf;
    int dpi, depth, size;
    const char* recordBytes;  // bytes 0-3, 24 and 33-34 of the record
};
class DeviceParams : public ::testing::TestWithParam<ParamCase> {};

TEST_P(DeviceParams, StoredOptionsAndRecord) {
    const ParamCase& c = GetParam();
    auto cr = store({{"CONTENTTYPE", 2}, {"BKGREMOVAL", 4}});
    auto cmd = make(500, 1, 0);
    cmd->setConfigReader(cr.get());
    Bytes params = deviceParams(c.dpiAndSize, c.button, c.scanSize, c.filter, c.background);
    cmd->prepareScanCommand(params.data(), (int)params.size(), c.adf);
    EXPECT_EQ(cr->GetIntOption("CURRENTDPI"), c.dpi);
    EXPECT_EQ(cr->GetIntOption("COLORDEPTH"), c.depth);
    EXPECT_EQ(cr->GetIntOption("ORIGINALSIZE"), c.size);
    Bytes b = build(cmd.get(), 3).bytes;
    ASSERT_EQ(b.size(), 55u);
    Bytes got(b.begin() + 8, b.begin() + 12);
    got.push_back(b[8 + 24]);
    got.push_back(b[8 + 33]);
    got.push_back(b[8 + 34]);
    EXPECT_EQ(got, hex(c.recordBytes));
}

INSTANTIATE_TEST_SUITE_P(
    Panel, DeviceParams,
    ::testing::Values(ParamCase{0x12, 3, 15, 0, 2, 1, 150, 1, 13, "03 00 00 03 01 01 02"},
                      ParamCase{0x05, 2, 22, 1, 0, 2, 1200, 0, 7, "02 00 00 02 04 01 00"},
                      ParamCase{0x01, 17, 20, 2, 1, 0, 75, 0, 1, "02 00 00 01 01 00 04"},
                      ParamCase{0x07, 1, 23, 4, 5, 2, 4800, 1, 0, "03 00 00 06 04 01 05"},
                      // Unmapped device filter: the store's filter (content type 2) stays.
                      ParamCase{0x0F, 16, 1, 7, 1, 1, 150, 0, 0, "02 00 00 02 01 00 04"}));

TEST(ScanLock, ShortDeviceReplyReadsAsZeros) {
    auto cr = store({{"CURRENTDPI", 600}, {"ORIGINALSIZE", 5}});
    auto cmd = make(500);
    cmd->setConfigReader(cr.get());
    Bytes params = hex("1B 53 0B 00 22 00 00 00 03");
    cmd->prepareScanCommand(params.data(), (int)params.size(), 0);
    EXPECT_EQ(cr->GetIntOption("CURRENTDPI"), 300);
    EXPECT_EQ(cr->GetIntOption("ORIGINALSIZE"), 0);
    EXPECT_EQ(cr->GetIntOption("COLORDEPTH"), 1);
    Bytes big(500, 0x55);
    cmd->prepareScanCommand(big.data(), (int)big.size(), 0);
    EXPECT_EQ(cr->GetIntOption("CURRENTDPI"), 1200);
}

struct Getter500Case {
    int boxKind;
    int dpi;
    int depth;
    int compression;
    int level;
};
class Cmd500Compression : public ::testing::TestWithParam<Getter500Case> {};

TEST_P(Cmd500Compression, ByBoxKindResolutionAndDepth) {
    const Getter500Case& c = GetParam();
    auto cr = store({{"CURRENTDPI", c.dpi}, {"COLORDEPTH", c.depth}});
    auto cmd = make(500, 0, c.boxKind);
    cmd->setConfigReader(cr.get());
    EXPECT_EQ(cmd->getCompression(), c.compression);
    EXPECT_EQ(cmd->getCompressionLevel(), c.level);
}

INSTANTIATE_TEST_SUITE_P(Cases, Cmd500Compression,
                         ::testing::Values(Getter500Case{1, 75, 1, 1, 75}, Getter500Case{1, 1200, 0, 0, 75},
                                           Getter500Case{1, 600, 2, 0, 0}, Getter500Case{0, 1200, 2, 0, 0}));

TEST(Cmd500Getters, DocumentSourceMapping) {
    const int expected[12] = {0, 1, 2, 8, 3, 4, 5, 6, 7, 9, 10, -1};  // for settings 0..10, -1
    Cmd500 cmd;
    EXPECT_EQ(cmd.getDocumentSource(), 0);
    ConfigReader cr;
    cmd.setConfigReader(&cr);
    for (int i = 0; i < 12; ++i) {
        cr.SetIntOption("DOCUMENTSOURCE", i < 11 ? i : -1);
        EXPECT_EQ(cmd.getDocumentSource(), expected[i]) << i;
    }
    EXPECT_FALSE(isDpiSubjectForCompression(600));
    EXPECT_TRUE(isDpiSubjectForCompression(1200));
}

// Two blocks in the 9/1 framing: 5 and 3 payload bytes.
const char* const STREAM_326 = "1B 53 02 00 06 00 00 00 00 | A1 A2 A3 A4 A5 | 1B 53 02 00 04 00 00 00 00 | B1 B2 B3";
// Two blocks in the 31/23 framing: 4 and 2 payload bytes.
const char* const STREAM_500 =
    "1B 53 02 00 1B 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 | C1 C2 C3 C4 |"
    "1B 53 02 00 19 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 | D1 D2";

struct EscCase {
    int version;
    const char* stream;
    std::vector<int> chunks;  // chunk lengths; the rest goes in a last chunk
    const char* payload;
};
class RemoveEsc : public ::testing::TestWithParam<EscCase> {};

// Feeds the chunks as the USB reader does: append, then strip and drain while
// removeESC asks to go on.
TEST_P(RemoveEsc, DeliversOnlyPayload) {
    const EscCase& c = GetParam();
    auto cmd = make(c.version);
    Bytes stream = hex(c.stream);
    std::vector<int> chunks = c.chunks;
    int used = 0;
    for (int n : chunks) used += n;
    chunks.push_back((int)stream.size() - used);
    DataBuffer buf;
    Bytes payload;
    size_t pos = 0;
    for (int n : chunks) {
        buf.SetRawData(stream.data() + pos, n);
        pos += (size_t)n;
        int more;
        do {
            more = cmd->removeESC(&buf);
            Bytes out((size_t)buf.GetProcessedDataSize());
            buf.GetProcessedData(out.data(), (int)out.size());
            payload.insert(payload.end(), out.begin(), out.end());
        } while (more);
    }
    EXPECT_EQ(payload, hex(c.payload));
    EXPECT_EQ(buf.GetAllDataSize(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Chunks, RemoveEsc,
    ::testing::Values(EscCase{326, STREAM_326, {}, "A1 A2 A3 A4 A5 B1 B2 B3"},        // two blocks in one chunk
                      EscCase{326, STREAM_326, std::vector<int>(25, 1), "A1 A2 A3 A4 A5 B1 B2 B3"},  // byte by byte
                      EscCase{326, "10 20 30 40 50 60 70 80 90 A0 B0", {}, "10 20 30 40 50 60 70 80 90 A0 B0"},
                      EscCase{500, STREAM_500, {33, 20}, "C1 C2 C3 C4 D1 D2"}));

// Length 3 with strip min 23: the header goes, no byte is payload. (Short headers
// and headers ending a chunk are covered by the chunk splits above.)
TEST(RemoveEscEdges, LengthBelowStripMinGivesNoPayload) {
    auto cmd = make(500);
    EXPECT_EQ(cmd->removeESC(nullptr), 0);
    DataBuffer buf;
    Bytes block(31, 0);
    block[0] = 0x1B, block[1] = 0x53, block[2] = 0x02, block[4] = 3;
    block.push_back(0xEE);
    buf.SetRawData(block.data(), (int)block.size());
    EXPECT_EQ(cmd->removeESC(&buf), 0);
    EXPECT_EQ(buf.GetProcessedDataSize(), 0);
    EXPECT_EQ(buf.GetAllDataSize(), 1);
}

TEST(RemoveEscEdges, NewRequestRestartsTheStream) {
    auto cmd = make(326);
    DataBuffer buf;
    Bytes part = hex("1B 53 02 00 06 00 00 00 00 A1");
    buf.SetRawData(part.data(), (int)part.size());
    cmd->removeESC(&buf);
    buf.GetProcessedData(part.data(), 1);
    // Four payload bytes are still expected; a lock request forgets them.
    build(cmd.get(), 3);
    Bytes next = hex("1B 53 02 00 02 00 00 00 00 C1");
    buf.SetRawData(next.data(), (int)next.size());
    cmd->removeESC(&buf);
    EXPECT_EQ(buf.GetProcessedDataSize(), 1);
    EXPECT_EQ(buf.GetAllDataSize(), 1);
}

TEST(EscDataSize, HeaderLengthField) {
    auto cmd = make(326);
    Bytes h = hex("1B 53 02 00 34 12 00 00");
    const int expected[9] = {-1, -1, -1, -1, -1, -1, 0x1234, 0x1234, 0x1234};
    for (int len = 0; len <= 8; ++len) EXPECT_EQ(cmd->getESCDataSize(h.data(), len), expected[len]) << len;
    EXPECT_EQ(cmd->getESCDataSize(nullptr, 8), -1);
    h[0] = 0x1C;
    EXPECT_EQ(cmd->getESCDataSize(h.data(), 8), -1);
}

}  // namespace
