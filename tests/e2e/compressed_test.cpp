// The Quarto 5100 asks for Wicket compression at 75 and 1200 dpi. Through the
// real scanimage, the image must have the size get_parameters announced and be,
// byte for byte, what the plain reference decoder of the tests makes of the
// bands the simulated scanner sent (its band file); its distance to the page
// formula is reported as a PSNR and must stay above a floor for the quality.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "WicketReference.h"
#include "e2e_scan.h"

namespace {

const char* const DEVICE = "quarto:libusb/001/004";
const int BOXKIND = 1;  // the 5100's family cuts pixel counts down

// The scenario's custom size "Tile": 1.013 x 1.211 inch.
const e2e::PageSize TILE = {"Tile", 25.4 * 1.013, 25.4 * 1.211, 25.4 * 1.013};

struct CompressedCase {
    const char* szName;
    e2e::Mode eMode;
    const e2e::PageSize* pSize;
    int iDpi;
    int iQuality;
    int iBandLines;
    double dMinPsnr;  // dB against the formula
};

void PrintTo(const CompressedCase& c, std::ostream* os) { *os << c.szName; }

// Peak signal-to-noise ratio of the image against the formula, in dB.
double psnr(const e2e::Pnm& img, const e2e::Window& w) {
    double sum = 0;
    const long n = img.lineBytes();
    for (int row = 0; row < img.iHeight; ++row) {
        const e2e::Bytes want = e2e::deviceLine(w, row);
        const unsigned char* got = img.line(row);
        for (long i = 0; i < n; ++i) {
            const double d = double(got[i]) - double(want[(size_t)i]);
            sum += d * d;
        }
    }
    const double mse = sum / (double(n) * img.iHeight);
    return mse == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
}

class CompressedScan : public ::testing::TestWithParam<CompressedCase> {};

TEST_P(CompressedScan, ImageIsTheReferenceDecodingOfTheBandsSent) {
    const CompressedCase& c = GetParam();
    qt::TempDir dir;
    qt::writeFile(dir.file("sim.scn"), qt::readFile(e2e::dataFile("e2e_q5100.scn")) + "  wicket quality=" +
                                           std::to_string(c.iQuality) + " band=" + std::to_string(c.iBandLines) +
                                           "\n  block 20000\n");
    qt::SaneEnv sane(e2e::MODELS_CONF, dir.file("sim.scn"));
    std::string out, err;
    int rc = sane.scanimage(e2e::scanArgs(DEVICE, c.eMode, *c.pSize, c.iDpi), &out, &err,
                            {"QUARTO_USBSIM_BANDS=" + dir.file("bands")}, 120);
    ASSERT_EQ(0, rc) << err;
    EXPECT_EQ(std::string::npos, err.find("WARNING")) << err;  // e.g. more data than announced

    const int pixels = e2e::pagePixels(*c.pSize, c.iDpi, BOXKIND);
    const int lines = e2e::pageLines(*c.pSize, c.iDpi, BOXKIND);
    e2e::Announced a = e2e::announced(err);
    ASSERT_TRUE(a.bFound) << err;
    EXPECT_EQ(pixels, a.iPixels);
    EXPECT_EQ(lines, a.iLines);
    EXPECT_EQ(e2e::bytesPerLine(c.eMode, pixels) * lines, a.lBytesRead);
    e2e::Pnm img;
    std::string why;
    ASSERT_TRUE(e2e::parsePnm(out, &img, &why)) << why;
    ASSERT_EQ(pixels, img.iWidth);
    ASSERT_EQ(lines, img.iHeight);
    ASSERT_EQ(size_t(img.lineBytes()) * size_t(lines), img.szData.size());

    e2e::Window w = e2e::lastWindow(qt::readFile(sane.simLogPath()));
    ASSERT_TRUE(w.bFound);
    EXPECT_EQ(1, w.iCompression);
    EXPECT_EQ(pixels, w.iWidth);
    EXPECT_EQ(lines, w.iLines);

    const std::string bands = qt::readFile(dir.file("bands"));
    std::vector<uint8_t> decoded;
    int bandWidth = 0;
    ASSERT_EQ(0, wicketref::decodeStream(reinterpret_cast<const uint8_t*>(bands.data()), bands.size(),
                                         c.eMode == e2e::COLOR ? 3 : 1, &decoded, &bandWidth));
    EXPECT_EQ(pixels, bandWidth);
    ASSERT_EQ(img.szData.size(), decoded.size());
    EXPECT_TRUE(memcmp(img.szData.data(), decoded.data(), decoded.size()) == 0)
        << "the image differs from the reference decoding of the bands sent";

    const double db = psnr(img, w);
    RecordProperty("psnr_db", std::to_string(db));
    printf("%s: %dx%d, quality %d, PSNR %.2f dB against the page formula\n", c.szName, pixels, lines, c.iQuality, db);
    EXPECT_GT(db, c.dMinPsnr);
}

// Colour and grey at both resolutions on the small tile (1215 x 1453 pixels at
// 1200 dpi, not a whole number of blocks; 75 x 90 at 75 dpi, one line less
// than the area's rounded bottom edge), with bands that are not a multiple of
// 8 lines. The floors lie 3 to 4 dB below what the
// codec reaches on the formula's ramps at each quality (41.8 dB colour at 75,
// 49.4 at 90); a wrong channel order or page falls far below them.
INSTANTIATE_TEST_SUITE_P(
    Quarto5100, CompressedScan,
    ::testing::Values(CompressedCase{"Color1200", e2e::COLOR, &TILE, 1200, 75, 32, 38},
                      CompressedCase{"Gray1200", e2e::GRAY, &TILE, 1200, 75, 20, 39},
                      CompressedCase{"Color75", e2e::COLOR, &TILE, 75, 90, 12, 45},
                      CompressedCase{"Gray75", e2e::GRAY, &TILE, 75, 50, 32, 44}),
    [](const ::testing::TestParamInfo<CompressedCase>& info) { return std::string(info.param.szName); });

}  // namespace
