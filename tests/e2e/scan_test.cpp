// Scans with the real scanimage through the SANE dll loader, against the
// simulated scanners of all four command versions, and checks every pixel of
// the PNM it writes against the simulator's page formula.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "e2e_scan.h"

namespace {

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

}  // namespace
