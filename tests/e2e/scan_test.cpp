// Scans with the real scanimage through the SANE dll loader, against the
// simulated scanners of all four command versions, and checks every pixel of
// the PNM it writes against the simulator's page formula.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "e2e_scan.h"

namespace {

using e2e::Bytes;
using e2e::Mode;

struct Model {
    const char* szName;
    const char* szDevice;
    int iVersion;
    int iBoxKind;
};

const Model Q3260 = {"Q3260", "quarto:libusb/001/002", 326, 0};
const Model Q4010 = {"Q4010", "quarto:libusb/001/003", 401, 0};
const Model Q4200 = {"Q4200", "quarto:libusb/001/005", 402, 0};
const Model Q5100 = {"Q5100", "quarto:libusb/001/004", 500, 1};

struct ScanCase {
    const Model* pModel;
    Mode eMode;
    const e2e::PageSize* pSize;
    int iDpi;
};

std::string caseName(const ::testing::TestParamInfo<ScanCase>& info) {
    const ScanCase& c = info.param;
    std::string size = c.pSize->szName;
    size.erase(std::remove(size.begin(), size.end(), ' '), size.end());
    const char* mode = c.eMode == e2e::LINEART ? "LineArt" : c.eMode == e2e::GRAY ? "Gray" : "Color";
    return std::string(c.pModel->szName) + "_" + mode + "_" + size + "_" + std::to_string(c.iDpi);
}

void PrintTo(const ScanCase& c, std::ostream* os) { *os << caseName({c, 0}); }

class ScanMatrix : public ::testing::TestWithParam<ScanCase> {};

TEST_P(ScanMatrix, FrameMatchesAnnouncedGeometryAndPageFormula) {
    const ScanCase& c = GetParam();
    const Model& m = *c.pModel;
    qt::SaneEnv sane(e2e::MODELS_CONF, e2e::dataFile("e2e_models.scn"));
    std::string out, err;
    int rc = sane.scanimage(e2e::scanArgs(m.szDevice, c.eMode, *c.pSize, c.iDpi), &out, &err, {}, 120);
    ASSERT_EQ(0, rc) << err;

    // get_parameters, from the option store's formulas: width cut down (BOXKIND
    // 1) or rounded, never wider than the bed; lines likewise.
    const int pixels = e2e::pagePixels(*c.pSize, c.iDpi, m.iBoxKind);
    const int lines = e2e::pageLines(*c.pSize, c.iDpi, m.iBoxKind);
    e2e::Announced a = e2e::announced(err);
    ASSERT_TRUE(a.bFound) << err;
    EXPECT_EQ(pixels, a.iPixels);
    EXPECT_EQ(lines, a.iLines);
    EXPECT_EQ(e2e::bitsPerPixel(c.eMode), a.iBits);
    EXPECT_EQ(e2e::bytesPerLine(c.eMode, pixels) * lines, a.lBytesRead) << err;

    e2e::Pnm img;
    std::string why;
    ASSERT_TRUE(e2e::parsePnm(out, &img, &why)) << why;
    EXPECT_EQ(pixels, img.iWidth);
    EXPECT_EQ(lines, img.iHeight);
    EXPECT_EQ(e2e::bitsPerPixel(c.eMode), img.bitsPerPixel());

    // The window on the wire: line art widths go out padded to whole bytes by
    // the 326/401/402 command classes, not by the 500 one.
    e2e::Window w = e2e::lastWindow(qt::readFile(sane.simLogPath()));
    ASSERT_TRUE(w.bFound) << qt::readFile(sane.simLogPath());
    const bool padded = c.eMode == e2e::LINEART && m.iVersion != 500;
    EXPECT_EQ(e2e::wireColor(c.eMode), w.iColor);
    EXPECT_EQ(padded ? (pixels + 7) / 8 * 8 : pixels, w.iWidth);
    EXPECT_EQ(lines, w.iLines);
    EXPECT_EQ(0, w.iX);
    EXPECT_EQ(0, w.iY);
    EXPECT_EQ(c.iDpi, w.iXres);
    EXPECT_EQ(c.iDpi, w.iYres);
    EXPECT_EQ(0, w.iCompression);
    if (m.iVersion != 326) {
        EXPECT_EQ(1, w.iSource);
    }

    EXPECT_EQ("", e2e::compareLines(img, [&](int row) { return e2e::deviceLine(w, row); }));
}

// Every version in every mode; sizes and resolutions spread over them. The
// 5100 compresses at 75 and 1200 dpi, so it is scanned at 150 to 600 only.
INSTANTIATE_TEST_SUITE_P(
    Models, ScanMatrix,
    ::testing::Values(ScanCase{&Q3260, e2e::LINEART, &e2e::A4, 300},
                      ScanCase{&Q3260, e2e::GRAY, &e2e::LETTER, 150},
                      ScanCase{&Q3260, e2e::COLOR, &e2e::A5, 600},
                      ScanCase{&Q4010, e2e::COLOR, &e2e::A4, 150},
                      ScanCase{&Q4010, e2e::GRAY, &e2e::BUSINESS_CARD, 600},
                      ScanCase{&Q4010, e2e::LINEART, &e2e::LETTER, 600},
                      ScanCase{&Q4200, e2e::GRAY, &e2e::A4, 300},
                      ScanCase{&Q4200, e2e::COLOR, &e2e::BUSINESS_CARD, 300},
                      ScanCase{&Q4200, e2e::LINEART, &e2e::BUSINESS_CARD, 150},
                      ScanCase{&Q5100, e2e::COLOR, &e2e::A4, 300},
                      ScanCase{&Q5100, e2e::GRAY, &e2e::LETTER, 600},
                      ScanCase{&Q5100, e2e::LINEART, &e2e::BUSINESS_CARD, 150},
                      ScanCase{&Q5100, e2e::COLOR, &e2e::A5, 150}),
    caseName);

// ---- the per-line manipulations and the interleaved stream, on a Quarto 4200 ----

const char* const Q4200_DEVICE = "quarto:libusb/001/005";

// A 4200 with scan bar `bar` and extra scenario lines.
std::string q4200Scenario(int bar, const std::string& extra) {
    return "bus 001\n"
           "device 001 005 vid=0x2F4A pid=0x0402 class=0\n"
           "  manufacturer Tarvesk\n  product Quarto 4200\n  version 402\n"
           "  props major=5 minor=2 codeset=1 compression=0 align_color=4 align_gray=4 support=0x07 types=0x0F\n"
           "  source type=1 bar=" +
           std::to_string(bar) +
           " origin=0 width=10200 height=14031\n"
           "  res 150 150 0\n  res 300 300 0\n  res 600 600 0\n" +
           extra;
}

// A configuration directory whose 4200 uses the feature file `feature` (in
// tests/data; @LIBDIR@ and @DATADIR@ in it are filled in) and the scenario.
class PipelineRig {
public:
    PipelineRig(const std::string& feature, const std::string& scenario)
        : sane("usb 0x2f4a 0x0402 " + dir.file("model.conf") + " Quarto_4200\nDISCOVER_USB_FLAG=1\n"
                                                               "DISCOVER_NET_FLAG=0\n",
               dir.file("sim.scn")) {
        std::string text = qt::SaneEnv::expand(qt::readFile(e2e::dataFile(feature)));
        const std::string libdir = "@LIBDIR@";
        for (size_t p = text.find(libdir); p != std::string::npos; p = text.find(libdir))
            text.replace(p, libdir.size(), qt::binaryDir() + "/tests/libs");
        qt::writeFile(dir.file("model.conf"), text);
        qt::writeFile(dir.file("sim.scn"), scenario);
    }

    // Scans and parses; a failure is reported through gtest and leaves img empty.
    void scan(Mode mode, const e2e::PageSize& size, int dpi, e2e::Pnm* img, e2e::Window* w) {
        std::string out, err;
        int rc = sane.scanimage(e2e::scanArgs(Q4200_DEVICE, mode, size, dpi), &out, &err, {}, 120);
        ASSERT_EQ(0, rc) << err;
        std::string why;
        ASSERT_TRUE(e2e::parsePnm(out, img, &why)) << why;
        *w = e2e::lastWindow(qt::readFile(sane.simLogPath()));
        ASSERT_TRUE(w->bFound);
    }

private:
    qt::TempDir dir;  // declared before sane: its files are named in sane's configuration
    qt::SaneEnv sane;
};

Bytes lookupTable(const std::string& name) {
    std::string t = qt::readFile(e2e::dataFile("colorcorrect/" + name));
    return Bytes(t.begin(), t.end());
}

// How the pipeline treats the lines. Its channel count comes from a comparison
// of the colour depth with 3, which the store's colour code 2 never equals: a
// USB colour line is handled as one channel of `pixels` bytes. So the blue/red
// swap never acts, the side flip reverses the first `pixels` bytes of a colour
// line (the whole line in grey; the whole byte line in line art, whose stride
// is shorter than its pixel count), and colour correction runs the grey table
// over those same bytes.
enum Treatment { AS_SENT, REVERSED, THROUGH_TABLE };

struct PipelineCase {
    const char* szName;
    const char* szFeature;
    int iBar;
    const char* szScenarioExtra;
    Mode eMode;
    const e2e::PageSize* pSize;
    int iDpi;
    Treatment eTreatment;
    const char* szTable;  // grey lookup table for THROUGH_TABLE
    bool bSentBgr;
};

void PrintTo(const PipelineCase& c, std::ostream* os) { *os << c.szName; }

class Pipeline : public ::testing::TestWithParam<PipelineCase> {};

TEST_P(Pipeline, LinesAreTreatedAsThePipelineDefines) {
    const PipelineCase& c = GetParam();
    PipelineRig rig(c.szFeature, q4200Scenario(c.iBar, c.szScenarioExtra));
    e2e::Pnm img;
    e2e::Window w;
    ASSERT_NO_FATAL_FAILURE(rig.scan(c.eMode, *c.pSize, c.iDpi, &img, &w));
    const int pixels = e2e::pagePixels(*c.pSize, c.iDpi, 0);
    ASSERT_EQ(pixels, img.iWidth);
    ASSERT_EQ(e2e::pageLines(*c.pSize, c.iDpi, 0), img.iHeight);

    const Bytes table = c.szTable ? lookupTable(c.szTable) : Bytes();
    ASSERT_TRUE(c.eTreatment != THROUGH_TABLE || table.size() == 256);
    EXPECT_EQ("", e2e::compareLines(img, [&](int row) {
                  Bytes line = e2e::deviceLine(w, row, c.bSentBgr);
                  const size_t n = std::min(line.size(), (size_t)pixels);
                  if (c.eTreatment == REVERSED) std::reverse(line.begin(), line.begin() + (long)n);
                  if (c.eTreatment == THROUGH_TABLE)
                      for (size_t i = 0; i < n; ++i) line[i] = table[line[i]];
                  return line;
              }));
}

// Letter is a whole number of pixels wide at these resolutions, so the
// pipeline's stride equals the length of the lines the device sends.
INSTANTIATE_TEST_SUITE_P(
    Quarto4200, Pipeline,
    ::testing::Values(
        PipelineCase{"BgrSentStaysBgr", "e2e_bgr.conf", 0, "  bgr on\n", e2e::COLOR, &e2e::LETTER, 150, AS_SENT,
                     nullptr, true},
        PipelineCase{"SideFlipColor", "e2e_sideflip.conf", 0, "", e2e::COLOR, &e2e::LETTER, 150, REVERSED, nullptr,
                     false},
        PipelineCase{"SideFlipGray", "e2e_sideflip.conf", 0, "", e2e::GRAY, &e2e::LETTER, 150, REVERSED, nullptr,
                     false},
        PipelineCase{"SideFlipLineArt", "e2e_sideflip.conf", 0, "", e2e::LINEART, &e2e::LETTER, 300, REVERSED,
                     nullptr, false},
        PipelineCase{"CorrectColorBar0", "e2e_colorcorrect.conf", 0, "", e2e::COLOR, &e2e::LETTER, 150,
                     THROUGH_TABLE, "lutg0.bin", false},
        // Scan bar 2 selects the tables whose names end in 2 (grey here, colour above with bar 0).
        PipelineCase{"CorrectGrayBar2", "e2e_colorcorrect.conf", 2, "", e2e::GRAY, &e2e::LETTER, 150, THROUGH_TABLE,
                     "lutg2.bin", false},
        // Grey lines sent as two interleaved halves come out whole, with the
        // junk pixels of the offset and the trim removed (odd and even full lines).
        PipelineCase{"InterleavedGrayOddLine", "e2e_bgr.conf", 0, "  interleave 4 3\n", e2e::GRAY, &e2e::LETTER, 150,
                     AS_SENT, nullptr, false},
        PipelineCase{"InterleavedGrayEvenLine", "e2e_sideflip.conf", 0, "  interleave 5 0\n", e2e::GRAY,
                     &e2e::LETTER, 150, REVERSED, nullptr, false}),
    [](const ::testing::TestParamInfo<PipelineCase>& info) { return std::string(info.param.szName); });

// Interleaved colour lines meet the one-channel view of the pipeline: each
// device line (2 x half pixels of 3 bytes) is cut into three pieces of 2 x
// half bytes, and each piece is rebuilt as if it were a grey line: byte k of
// the output line (k from the offset x on) is byte trim + k/2 of the piece's
// first half when k is even, of its second half when odd, 0 past a half's end.
// So the front end receives three lines of stride bytes per device line.
TEST(PipelineInterleave, ColorLinesAreRebuiltAsOneChannel) {
    const int offsetX = 5, trim = 2;
    PipelineRig rig("e2e_bgr.conf", q4200Scenario(0, "  interleave 5 2\n"));
    e2e::Pnm img;
    e2e::Window w;
    ASSERT_NO_FATAL_FAILURE(rig.scan(e2e::COLOR, e2e::LETTER, 150, &img, &w));
    ASSERT_EQ(1275, w.iWidth);

    // The device's line: offset x junk pixels, then the window; sent as two
    // halves (even and odd pixels), each led by trim junk pixels (0xEE).
    const long full = offsetX + w.iWidth;
    ASSERT_EQ(0, full % 2);
    const long half = trim + full / 2;
    const long stride = 3L * w.iWidth;  // BYTES_PER_LINE: Letter is 1275 whole pixels
    Bytes expected;
    expected.reserve((size_t)(3 * stride * w.iLines));
    Bytes sent((size_t)(6 * half));
    for (int row = 0; row < w.iLines; ++row) {
        Bytes window = e2e::deviceLine(w, row);
        for (long j = 0; j < 2 * half; ++j) {
            const long p = j < half ? 2 * (j - trim) : 2 * (j - half - trim) + 1;  // pixel of the full line
            const bool junk = (j % half) < trim || p < offsetX;
            for (int b = 0; b < 3; ++b)
                sent[(size_t)(j * 3 + b)] = junk ? 0xEE : window[(size_t)((p - offsetX) * 3 + b)];
        }
        for (int piece = 0; piece < 3; ++piece) {
            const unsigned char* a = sent.data() + piece * 2 * half;
            const unsigned char* b = a + half;
            for (long k = offsetX; k < offsetX + stride; ++k) {
                const long idx = trim + k / 2;
                expected.push_back(idx < half ? ((k % 2) ? b : a)[idx] : 0);
            }
        }
    }
    ASSERT_EQ(expected.size(), img.szData.size());
    EXPECT_TRUE(memcmp(expected.data(), img.szData.data(), expected.size()) == 0);
}

}  // namespace
