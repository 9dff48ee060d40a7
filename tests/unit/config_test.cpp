// The option store (computed keys, setters, lists), the feature-file reader and
// the backend configuration file reader.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "ConfigReader.h"
#include "FlatFileReader.h"
#include "SaneConfReader.h"
#include "testutil.h"

namespace {

// ---------------------------------------------------------------- option store

// One scan setup; connection, dpi, limits and measured sizes 0 and depth and
// source -1 leave the key unset.
struct Setup {
    int connection = 1, dpi = 300, depth = -1, source = -1, boxKind = 0;
    double tlx = 0, tly = 0, brx = 0, bry = 0;
    double flatbedLimit = 0, adfLimit = 0;
    int widthScan = 0, heightScan = 0;
};

void apply(ConfigReader& c, const Setup& s) {
    if (s.connection) c.SetIntOption("CONNECTION", s.connection);
    if (s.dpi) c.SetIntOption("CURRENTDPI", s.dpi);
    if (s.depth >= 0) c.SetIntOption("COLORDEPTH", s.depth);
    if (s.source >= 0) c.SetIntOption("SCAN_SOURCE", s.source);
    if (s.boxKind) c.SetIntOption("BOXKIND", s.boxKind);
    c.SetDoubleOption("CURRENTTLX", s.tlx);
    c.SetDoubleOption("CURRENTTLY", s.tly);
    c.SetDoubleOption("CURRENTBRX", s.brx);
    c.SetDoubleOption("CURRENTBRY", s.bry);
    if (s.flatbedLimit) c.SetDoubleOption("FLATBEDWIDTHLIMIT", s.flatbedLimit);
    if (s.adfLimit) c.SetDoubleOption("ADFWIDTHLIMIT", s.adfLimit);
    if (s.widthScan) c.SetIntOption("WIDTH_SCAN", s.widthScan);
    if (s.heightScan) c.SetIntOption("HEIGHT_SCAN", s.heightScan);
}

Setup usb(int dpi, double tlx, double tly, double brx, double bry) {
    Setup s;
    s.dpi = dpi;
    s.tlx = tlx, s.tly = tly, s.brx = brx, s.bry = bry;
    return s;
}

Setup with(Setup s, int depth, int source, int boxKind, double flatbedLimit, double adfLimit = 0) {
    s.depth = depth, s.source = source, s.boxKind = boxKind;
    s.flatbedLimit = flatbedLimit, s.adfLimit = adfLimit;
    return s;
}

// The rectangle is ignored off USB.
Setup network(int dpi, int widthScan, int heightScan, int connection = 0) {
    Setup s = usb(dpi, 25.4, 25.4, 100, 100);
    s.connection = connection, s.widthScan = widthScan, s.heightScan = heightScan;
    return s;
}

struct ComputedCase {
    const char* name;
    Setup setup;
    const char* key;
    int expected;
};

class ComputedKeys : public ::testing::TestWithParam<ComputedCase> {};

TEST_P(ComputedKeys, GiveTheDerivedPixelValue) {
    const ComputedCase& c = GetParam();
    ConfigReader store;
    apply(store, c.setup);
    EXPECT_EQ(c.expected, store.GetIntOption(c.key));
    EXPECT_EQ(c.expected, store.GetComputedOption(c.key));
}

// 215.9 mm is 8.5 in: 2550 pixels at 300 dpi. 12.7 mm is exactly half an inch,
// so 5 dpi gives 2.5 pixels (round 3, floor 2) and -12.7 mm gives -2.5 (round -3).
const double LETTER_MM = 215.9;
const Setup LETTER = usb(300, 0, 0, LETTER_MM, 10);
const Setup HALF = usb(5, 0, 0, 12.7, 0);
const Setup HALF_HIGH = usb(5, 0, 12.7, 0, 25.4);
const Setup NET = network(300, 1700, 2200);
const Setup NET_LETTER = network(300, 2550, 3300);
const char PPL[] = "PIXELS_PER_LINE";
const char BPL[] = "BYTES_PER_LINE";
INSTANTIATE_TEST_SUITE_P(
    Store, ComputedKeys,
    ::testing::Values(
        ComputedCase{"OffsetXOneInch", usb(300, 25.4, 0, 100, 100), "SCANOFFSETX", 300},
        ComputedCase{"OffsetHalfRoundsUp", usb(5, 12.7, 0, 100, 100), "SCANOFFSETX", 3},
        ComputedCase{"OffsetNegativeHalfRoundsAwayFromZero", usb(5, -12.7, 0, 100, 100), "SCANOFFSETX", -3},
        ComputedCase{"HeightIsTheBottomEdge", usb(100, 0, 25.4, 0, 50.8), "SCANHEIGHT", 200},
        ComputedCase{"PixelsLetterAtLimit", with(LETTER, 2, 0, 0, 8.5), PPL, 2550},
        ComputedCase{"PixelsClampedToFloorOfLimit", with(LETTER, 2, 0, 0, 8.49), PPL, 2547},
        ComputedCase{"PixelsNoFlatbedLimitIsZero", with(LETTER, 2, 0, 0, 0), PPL, 0},
        ComputedCase{"PixelsFeederUsesFeederLimit", with(LETTER, 2, 1, 0, 100, 1.0), PPL, 300},
        ComputedCase{"PixelsUnknownSourceHasNoLimit", with(LETTER, 2, 2, 0, 1.0, 1.0), PPL, 2550},
        ComputedCase{"PixelsHalfRounds", with(HALF, 1, 0, 0, 100), PPL, 3},
        ComputedCase{"PixelsHalfCutWithBoxKind", with(HALF, 1, 0, 1, 100), PPL, 2},
        ComputedCase{"PixelsUseWidthNotRightEdge", with(usb(100, 25.4, 0, 76.2, 0), 1, 0, 0, 100), PPL, 200},
        ComputedCase{"LinesHalfRounds", with(HALF_HIGH, 1, 0, 0, 0), "LINES", 3},
        ComputedCase{"LinesHalfCutWithBoxKind", with(HALF_HIGH, 1, 0, 1, 0), "LINES", 2},
        ComputedCase{"BytesLineArt", with(LETTER, 0, 0, 0, 8.5), BPL, 319},
        ComputedCase{"BytesColour", with(LETTER, 2, 0, 0, 8.5), BPL, 7650},
        ComputedCase{"BytesIllegalDepthKeepsPixels", with(LETTER, 7, 0, 0, 8.5), BPL, 2550},
        ComputedCase{"BytesIgnoreLimit", with(LETTER, 1, 0, 0, 1.0), BPL, 2550},
        ComputedCase{"BytesIgnoreBoxKind", with(HALF, 1, 0, 1, 100), BPL, 3},
        ComputedCase{"NetWidthIsMeasured", NET, "SCANWIDTH", 1700},
        ComputedCase{"NetLinesAreMeasuredHeight", NET, "LINES", 2200},
        ComputedCase{"NetBytesAreMeasuredWidthWhateverTheDepth", with(NET, 2, 0, 0, 0), BPL, 1700},
        ComputedCase{"NetOffsetIsZero", NET, "SCANOFFSETX", 0},
        ComputedCase{"NetConnectionTwoIsNetwork", network(300, 1700, 2200, 2), "SCANWIDTH", 1700},
        // 2550 px at 300 dpi is 215.9 mm, rounded to 216 mm, back to 2551.18 px.
        ComputedCase{"NetPixelsGoThroughWholeMillimetres", with(NET_LETTER, 2, 0, 0, 100), PPL, 2551},
        ComputedCase{"NetPixelsClamped", with(NET_LETTER, 2, 0, 0, 8.5), PPL, 2550},
        ComputedCase{"NetZeroDpiGivesZero", with(network(0, 2550, 3300), 2, 0, 0, 100), PPL, 0},
        ComputedCase{"HugeBoxClampsToIntMax", with(usb(300, 0, 0, 1e300, 1e300), 1, 2, 0, 0), PPL, INT_MAX},
        ComputedCase{"HugeNegativeBoxClampsToIntMin", with(usb(300, 0, -1e300, 0, 0), 1, 2, 0, 0), "SCANOFFSETY",
                     INT_MIN}),
    [](const ::testing::TestParamInfo<ComputedCase>& info) { return std::string(info.param.name); });

TEST(Store, ScanWidthUsesStaleOperandsWhileScanHeightRefreshes) {
    ConfigReader store;
    apply(store, usb(100, 12.7, 0, 25.4, 25.4));
    // A fresh store has never refreshed its operands. Once refreshed, SCANWIDTH
    // is the right edge (100), not the width (50).
    EXPECT_EQ(0, store.GetIntOption("SCANWIDTH"));
    EXPECT_EQ(100, store.GetIntOption("SCANHEIGHT"));
    EXPECT_EQ(100, store.GetIntOption("SCANWIDTH"));
    store.SetDoubleOption("CURRENTBRX", 50.8);
    store.SetDoubleOption("CURRENTBRY", 76.2);
    EXPECT_EQ(100, store.GetIntOption("SCANWIDTH"));
    EXPECT_EQ(300, store.GetIntOption("SCANHEIGHT"));
    EXPECT_EQ(200, store.GetIntOption("SCANWIDTH"));
}

TEST(Store, ComputedZeroFallsThroughToStoredValue) {
    ConfigReader store;
    apply(store, usb(300, 0, 0, 0, 0));
    store.SetIntOption("SCANOFFSETX", 77);
    EXPECT_EQ(77, store.GetIntOption("SCANOFFSETX"));
    EXPECT_EQ(0, store.GetComputedOption("SCANOFFSETX"));
    store.SetDoubleOption("CURRENTTLX", 25.4);
    EXPECT_EQ(300, store.GetIntOption("SCANOFFSETX"));  // a computed value hides the stored one
    EXPECT_EQ(0, store.GetComputedOption("CURRENTDPI"));
}

// New (1) or replaced (2); a string value is copied; a list is replaced whole.
TEST(Store, SettersReportNewOrReplacedAndCopy) {
    ConfigReader store;
    EXPECT_EQ(1, store.SetIntOption("A", 1));
    EXPECT_EQ(2, store.SetIntOption("A", 2));
    char text[] = "abc";
    store.SetStringOption("T", text);
    text[0] = 'z';
    EXPECT_STREQ("abc", store.GetStringOption("T"));
    std::map<std::string, int> out;
    EXPECT_EQ(1, store.SetIntListOption("RESOLUTIONS_LIST", {{"0", 100}, {"1", 200}}));
    EXPECT_EQ(2, store.SetIntListOption("RESOLUTIONS_LIST", {{"2", 300}}));
    EXPECT_EQ(1, store.GetIntListOption("RESOLUTIONS_LIST", out));
    EXPECT_EQ((std::map<std::string, int>{{"2", 300}}), out);
}

TEST(Store, DisplayLogsEveryScalarAndTheSevenComputedKeysInOrder) {
    qt::ScopedEnv env("ENABLE_SL_LOG", "1");
    ConfigReader store;
    apply(store, with(usb(300, 25.4, 0, LETTER_MM, 50.8), 1, 0, 0, 8.5));
    store.SetStringOption("BINARY", "/opt/x");
    store.SetIntListOption("L", {{"hidden", 1}});
    qt::StderrCapture cap;
    store.DisplayConfig();
    store.DisplayComputedValues();
    std::string log = cap.finish();
    size_t pos = 0;
    for (const char* line : {"Display Config Options", "Integer Options", "COLORDEPTH = 1", "SCAN_SOURCE = 0",
                             "Double Options", "CURRENTBRX = 215.900000", "String Options", "BINARY = /opt/x",
                             "Display Computed Values:", "Computed option: SCANOFFSETX = 300",
                             "Computed option: SCANOFFSETY = 0", "Computed option: SCANWIDTH = 2550",
                             "Computed option: SCANHEIGHT = 600", "Computed option: PIXELS_PER_LINE = 2250",
                             "Computed option: LINES = 600", "Computed option: BYTES_PER_LINE = 2250"}) {
        size_t at = log.find("-- " + std::string(line) + "\n", pos);
        ASSERT_NE(std::string::npos, at) << "missing or out of order: " << line << "\nlog:\n" << log;
        pos = at;
    }
    EXPECT_EQ(std::string::npos, log.find("hidden"));
}

// --------------------------------------------------------- feature file reader

struct FeatureCase {
    const char* name;
    std::string content;
    std::vector<std::pair<const char*, int>> ints;
    std::vector<std::pair<const char*, double>> doubles;
    std::vector<std::pair<const char*, const char*>> strings;  // nullptr: absent
};

class FeatureFile : public ::testing::TestWithParam<FeatureCase> {};

TEST_P(FeatureFile, StoresTheTypedPairs) {
    const FeatureCase& c = GetParam();
    qt::TempDir dir;
    std::string path = dir.file("model.ini");
    qt::writeFile(path, c.content);
    FlatFileReader reader;
    ASSERT_EQ(1, reader.LoadConfig(path.c_str()));
    for (const auto& e : c.ints) EXPECT_EQ(e.second, reader.GetIntOption(e.first)) << e.first;
    for (const auto& e : c.doubles) EXPECT_DOUBLE_EQ(e.second, reader.GetDoubleOption(e.first)) << e.first;
    for (const auto& e : c.strings) {
        const char* got = reader.GetStringOption(e.first);
        if (e.second == nullptr)
            EXPECT_EQ(nullptr, got) << e.first << " = " << got;
        else
            EXPECT_STREQ(e.second, got) << e.first;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Reader, FeatureFile,
    ::testing::Values(
        FeatureCase{"ThreeSections",
                    "[INTEGERS]\nCOMMANDVERSION=500\n[DOUBLES]\nFLATBEDWIDTHLIMIT=8.5\n[STRINGS]\nBINARY=/opt/b\n",
                    {{"COMMANDVERSION", 500}}, {{"FLATBEDWIDTHLIMIT", 8.5}}, {{"BINARY", "/opt/b"}}},
        FeatureCase{"SeveralPairsOnOneLineAndAKeyWithoutValue", "[STRINGS]\nA=1=B=2=C\n", {}, {},
                    {{"A", "1"}, {"B", "2"}, {"C", nullptr}}},
        FeatureCase{"BlanksAroundEqualsStayInKeyAndValue",
                    "[INTEGERS]\nCURRENTDPI = 300\n[STRINGS]\nUSERNAME = joe bloggs \n",
                    {{"CURRENTDPI ", 300}, {"CURRENTDPI", 0}}, {},
                    {{"USERNAME ", " joe bloggs"}, {"USERNAME", nullptr}}},
        FeatureCase{"LinesBeforeTheFirstSectionAreIgnored", "A=1\nB=2\n[INTEGERS]\nC=3\n",
                    {{"A", 0}, {"B", 0}, {"C", 3}}, {}, {}},
        FeatureCase{"LowerCaseHeaderIsAKeyLineOfTheCurrentSection", "[INTEGERS]\n[doubles]\nX=2.75\n[Strings]=4\n",
                    {{"X", 2}, {"[Strings]", 4}}, {{"X", 0.0}}, {}},
        FeatureCase{"HeadersAndLinesAreTrimmed", "  \t[DOUBLES]  \r\n   LIMIT=1.25 \t\r\n", {}, {{"LIMIT", 1.25}}, {}},
        FeatureCase{"CommentsAndBlankLines", "# head\n[STRINGS]\n# A=1\n   # B=2\n\n   \nC=a#b\n", {}, {},
                    {{"A", nullptr}, {"# A", nullptr}, {" B", nullptr}, {"C", "a#b"}}},
        FeatureCase{"AtoiAndAtofTakeTheLeadingNumber",
                    "[INTEGERS]\nA=12abc\nB=abc\nC=  -7\nD=0x10\n[DOUBLES]\nE=2.5mm\nF=x\nG= -1e2\n",
                    {{"A", 12}, {"B", 0}, {"C", -7}, {"D", 0}}, {{"E", 2.5}, {"F", 0.0}, {"G", -100.0}}, {}},
        FeatureCase{"LaterValueReplacesEarlier", "[INTEGERS]\nA=1\nA=2\n[INTEGERS]\nA=3\n", {{"A", 3}}, {}, {}}),
    [](const ::testing::TestParamInfo<FeatureCase>& info) { return std::string(info.param.name); });

TEST(FeatureFileReader, LongLineIsCutAndItsRestReadAsALineOfItsOwn) {
    qt::TempDir dir;
    std::string path = dir.file("long.ini");
    // 4095 characters fill the buffer.
    qt::writeFile(path, "[STRINGS]\nK=" + std::string(4093, 'x') + "Z=9\nL=" + std::string(5000, 'y') + "\nN=1\n");
    FlatFileReader reader;
    ASSERT_EQ(1, reader.LoadConfig(path.c_str()));
    EXPECT_EQ(std::string(4093, 'x'), reader.GetStringOption("K"));
    EXPECT_STREQ("9", reader.GetStringOption("Z"));
    ASSERT_NE(nullptr, reader.GetStringOption("L"));
    EXPECT_EQ(4093u, strlen(reader.GetStringOption("L")));
    EXPECT_STREQ("1", reader.GetStringOption("N"));
}

TEST(FeatureFileReader, MissingOrUnopenableFileIsReportedAndLoadingNeverClearsTheStore) {
    qt::ScopedEnv env("ENABLE_SL_LOG", "1");
    qt::TempDir dir;
    std::string path = dir.file("absent.ini"), sock = dir.file("sock");
    // A socket exists for stat but cannot be opened, even by root.
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(sock.size(), sizeof(addr.sun_path));
    memcpy(addr.sun_path, sock.c_str(), sock.size() + 1);
    ASSERT_EQ(0, bind(fd, (sockaddr*)&addr, sizeof(addr)));
    FlatFileReader reader;
    reader.SetIntOption("A", 1);
    qt::StderrCapture cap;
    EXPECT_EQ(0, reader.LoadConfig(path.c_str()));
    EXPECT_EQ(0, reader.LoadConfig(sock.c_str()));
    std::string log = cap.finish();
    close(fd);
    EXPECT_NE(std::string::npos,
              log.find("-- virtual int FlatFileReader::LoadConfig(const char*): The file " + path + " does not exist.\n"))
        << log;
    // Names the fixed path whatever file was asked for.
    EXPECT_NE(std::string::npos, log.find("-- Error opening /tmp/Temp.conf file.\n")) << log;
    qt::writeFile(path, "[INTEGERS]\nB=2\n");
    ASSERT_EQ(1, reader.LoadConfig(path.c_str()));
    EXPECT_EQ(1, reader.GetIntOption("A"));
    EXPECT_EQ(2, reader.GetIntOption("B"));
}

// ------------------------------------------------ backend configuration reader

class ConfFile : public ::testing::Test {
protected:
    int load(const std::string& content, const std::string& name = "backend.conf") {
        std::string path = dir.file(name);
        qt::writeFile(path, content);
        return reader.LoadConf(path.c_str());
    }
    qt::TempDir dir;
    SaneConfReader reader;
};

TEST_F(ConfFile, DeviceLinesMalformedOnesSkippedFirstMatchWins) {
    ASSERT_EQ(1, load("usb 0x1234 5678 /usr/share/quarto/x100.ini Model_X100\n"
                      "  usb 0XABCD 0x00ef /f2.ini Two__Under_  extra words\n"
                      "usb 0x1 0x2 /only-four\nusb zz 0x2 /f M\nusb 0x1 zz /f M\nlonely\n"
                      "# usb 0x1 0x2 /f M\n   #usb 0x3 0x4 /f M\n"
                      "usb 0x1234 0x5678 /second.ini C\n"));
    const std::vector<ScannerInfo>& list = reader.GetScannerList();
    ASSERT_EQ(3u, list.size());
    EXPECT_EQ(0x1234, list[0].iVID);
    EXPECT_EQ(0x5678, list[0].iPID);
    EXPECT_EQ("/usr/share/quarto/x100.ini", list[0].szFeaturePathFname);
    EXPECT_EQ("Model X100", list[0].szModelName);
    EXPECT_EQ(0xABCD, list[1].iVID);
    EXPECT_EQ(0xEF, list[1].iPID);
    EXPECT_EQ("Two  Under ", list[1].szModelName);
    EXPECT_EQ(0, reader.isFound(0x5678, 0x1234));
    EXPECT_EQ(0, reader.isFound(0x1, 0x2));
    EXPECT_STREQ("/usr/share/quarto/x100.ini", reader.GetFeatureFile(0x1234, 0x5678));
    EXPECT_STREQ("/f2.ini", reader.GetFeatureFile(0xABCD, 0xEF));
    EXPECT_EQ(nullptr, reader.GetFeatureFile(0x1234, 0xEF));
}

TEST_F(ConfFile, KeyLinesLastPieceWinsAndBlanksStay) {
    EXPECT_STREQ("Tarvesk", reader.GetManufacturer());  // the maker before any load
    EXPECT_EQ(nullptr, reader.getConfigValue("DISCOVER_NET_FLAG"));
    ASSERT_EQ(1, load("DEVICE_LIST_ORDER_MODE=1\n"
                      "A=B=C\n"
                      "SPACED = on \n"
                      "DISCOVER_USB_FLAG==1\n"
                      "usb=0x1 0x2 /f M\n"));
    EXPECT_STREQ("1", reader.getConfigValue("DEVICE_LIST_ORDER_MODE"));
    EXPECT_STREQ("C", reader.getConfigValue("A"));
    EXPECT_EQ(nullptr, reader.getConfigValue("B"));
    EXPECT_STREQ(" on", reader.getConfigValue("SPACED "));
    EXPECT_STREQ("1", reader.getConfigValue("DISCOVER_USB_FLAG"));
    EXPECT_STREQ("0x1 0x2 /f M", reader.getConfigValue("usb"));  // a line with '=' is never a device line
    EXPECT_TRUE(reader.GetScannerList().empty());
    // The discovery flags read empty once a file is loaded; other unknown keys stay null.
    EXPECT_STREQ("", reader.getConfigValue("DISCOVER_NET_FLAG"));
    EXPECT_EQ(nullptr, reader.getConfigValue("SHOW_PSEUDO_NETWORK_FLAG"));
}

TEST_F(ConfFile, MissingFileReturnsZeroAndKeepsContents) {
    ASSERT_EQ(1, load("usb 0x1 0x2 /f M\nK=V\n", "velmarsk.conf"));
    qt::ScopedEnv env("ENABLE_SL_LOG", "1");
    qt::StderrCapture cap;
    EXPECT_EQ(0, reader.LoadConf(dir.file("tarvesk-missing.conf").c_str()));
    std::string log = cap.finish();
    EXPECT_NE(std::string::npos, log.find("-- [ERROR] Error opening configuration file.\n")) << log;
    EXPECT_EQ(1, reader.isFound(0x1, 0x2));
    EXPECT_STREQ("V", reader.getConfigValue("K"));
    EXPECT_STREQ("Velmarsk", reader.GetManufacturer());  // the file name of the last successful load
}

// A MANUFACTURER line overrides what the file name gives, wherever it stands;
// without one the name decides.
TEST_F(ConfFile, ManufacturerKeyOverridesTheFileName) {
    auto manufacturer = [this](const std::string& text, const std::string& name) {
        SaneConfReader fresh;
        qt::writeFile(dir.file(name), text);
        EXPECT_EQ(1, fresh.LoadConf(dir.file(name).c_str()));
        return std::string(fresh.GetManufacturer());
    };
    EXPECT_EQ("Velmarsk", manufacturer("MANUFACTURER=Velmarsk\nK=V\n", "quarto.conf"));
    EXPECT_EQ("Tarvesk", manufacturer("K=V\nMANUFACTURER=tarvesk\n", "velmarsk.conf"));
    EXPECT_EQ("Velmarsk,Quindorra,Ostrevin,Bra", manufacturer("MANUFACTURER=Ostrevin\n", "tarvesk.conf"));
}

class Manufacturer : public ::testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(Manufacturer, PushPicksMakerThenPartnerThenTheCutList) {
    SaneConfReader reader;
    EXPECT_EQ(0, reader.PushManufacturer(GetParam().first));
    EXPECT_STREQ(GetParam().second, reader.GetManufacturer());
}

// The full partner list is longer than the 31 characters the field keeps.
const char CUT_LIST[] = "Velmarsk,Quindorra,Ostrevin,Bra";
static_assert(sizeof(CUT_LIST) == 32, "31 characters and the terminator");

INSTANTIATE_TEST_SUITE_P(Brands, Manufacturer,
                         ::testing::Values(std::make_pair("/etc/sane.d/Tarvesk_1_0_0.conf", "Tarvesk"),
                                           std::make_pair("xtArVeSkx", "Tarvesk"),
                                           std::make_pair("/etc/sane.d/velmarsk.conf", "Velmarsk"),
                                           std::make_pair("VELMARSK-tarvesk", "Tarvesk"),
                                           std::make_pair("/etc/sane.d/other.conf", CUT_LIST),
                                           std::make_pair("Tarves", CUT_LIST), std::make_pair(nullptr, CUT_LIST)));

}  // namespace
