// Feeder jobs with the real scanimage: --batch empties a loaded feeder of the
// 5100, which scans it as one multi-page job, into one file per sheet; every
// page has the size the backend announced and the pixels of its own page of
// the formula, the batch ends on the empty feeder, and the job leaves nothing
// in the temporary directory.
#include <dirent.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "WicketReference.h"
#include "e2e_scan.h"

namespace {

const char* const DEVICE = "quarto:libusb/001/004";
// The smallest size that the 5100 keeps when the source turns to the feeder.
const e2e::PageSize PHOTO_3X5 = {"3x5 Photo", 76.2, 127, 76.2};


// Page p of a batch written into dir, parsed, its size checked against the
// announced one; false (with a failure) when it is missing or malformed.
bool readBatchPage(const qt::TempDir& dir, int p, int pixels, int lines, e2e::Pnm* img) {
    std::string why;
    if (!e2e::parsePnm(qt::readFile(dir.file("page-" + std::to_string(p) + ".pnm")), img, &why)) {
        ADD_FAILURE() << "page " << p << ": " << why;
        return false;
    }
    EXPECT_EQ(pixels, img->iWidth) << "page " << p;
    EXPECT_EQ(lines, img->iHeight) << "page " << p;
    return true;
}

struct BatchCase {
    e2e::Mode eMode;
    int iSheets;
};

std::string batchName(const ::testing::TestParamInfo<BatchCase>& info) {
    const char* mode = info.param.eMode == e2e::LINEART ? "LineArt" : info.param.eMode == e2e::GRAY ? "Gray" : "Color";
    return std::string(mode) + "_" + std::to_string(info.param.iSheets) + "Sheets";
}

class FeederBatch : public ::testing::TestWithParam<BatchCase> {};

TEST_P(FeederBatch, OneFilePerSheetEachItsOwnPageThenTheFeederIsEmpty) {
    const BatchCase& c = GetParam();
    qt::TempDir dir;
    qt::TempDir tmp;  // the backend's temporary directory
    qt::writeFile(dir.file("sim.scn"), qt::readFile(e2e::dataFile("e2e_q5100.scn")) + "  sheets " +
                                           std::to_string(c.iSheets) + "\n  multipage on\n");
    qt::SaneEnv sane(e2e::MODELS_CONF, dir.file("sim.scn"));
    // The size is chosen before the source: the feeder's own size list is
    // filled only when the device is opened with the feeder selected.
    std::vector<std::string> args = {"-d", DEVICE, "-v", "--format=pnm", "--original-size", PHOTO_3X5.szName,
                                     "--source", "Automatic Document Feeder", "--scan-resolution", "150", "--mode",
                                     e2e::modeName(c.eMode), "--batch=" + dir.file("page-%d.pnm")};
    std::string out, err;
    int rc = sane.scanimage(args, &out, &err, {"TMPDIR=" + tmp.path()}, 120);
    EXPECT_EQ(0, rc) << err;
    EXPECT_NE(std::string::npos, err.find("sane_start: Document feeder out of documents")) << err;

    const int pixels = e2e::pagePixels(PHOTO_3X5, 150, 1);
    const int lines = e2e::pageLines(PHOTO_3X5, 150, 1);
    e2e::Announced a = e2e::announced(err);
    ASSERT_TRUE(a.bFound) << err;
    EXPECT_EQ(pixels, a.iPixels);
    EXPECT_EQ(lines, a.iLines);
    e2e::Window w = e2e::lastWindow(qt::readFile(sane.simLogPath()));
    ASSERT_TRUE(w.bFound);
    EXPECT_EQ(pixels, w.iWidth);
    for (int p = 1; p <= c.iSheets; ++p) {
        e2e::Pnm img;
        ASSERT_TRUE(readBatchPage(dir, p, pixels, lines, &img));
        EXPECT_EQ(e2e::bitsPerPixel(c.eMode), img.bitsPerPixel());
        const e2e::Window page = e2e::pageWindow(w, p);
        EXPECT_EQ("", e2e::compareLines(img, [&](int row) { return e2e::deviceLine(page, row); })) << "page " << p;
    }
    EXPECT_FALSE(qt::fileExists(dir.file("page-" + std::to_string(c.iSheets + 1) + ".pnm")));
    EXPECT_TRUE(qt::listDir(tmp.path()).empty()) << "left in TMPDIR: " << qt::listDir(tmp.path())[0];

    // One job for all the sheets; the scanner ends unlocked and released.
    const std::string log = qt::readFile(sane.simLogPath());
    size_t starts = 0;
    for (size_t pos = log.find("scan dev=0 start"); pos != std::string::npos; pos = log.find("scan dev=0 start", pos + 1))
        ++starts;
    EXPECT_EQ(1u, starts) << log;
    const size_t unlock = log.rfind("data=1b5306"), release = log.rfind("release dev=0");
    EXPECT_NE(std::string::npos, unlock);
    EXPECT_TRUE(release != std::string::npos && release > unlock) << log;
}

INSTANTIATE_TEST_SUITE_P(Feeder, FeederBatch,
                         ::testing::Values(BatchCase{e2e::LINEART, 1}, BatchCase{e2e::LINEART, 3},
                                           BatchCase{e2e::LINEART, 12}, BatchCase{e2e::GRAY, 1},
                                           BatchCase{e2e::GRAY, 3}, BatchCase{e2e::GRAY, 12},
                                           BatchCase{e2e::COLOR, 1}, BatchCase{e2e::COLOR, 3},
                                           BatchCase{e2e::COLOR, 12}),
                         batchName);

// At 75 dpi the 5100 asks for Wicket compression, and a feeder job carries
// each sheet's bands in its fragments. Every sheet still gives one file of the
// announced size, byte for byte what the reference decoder makes of the bands
// the device sent for that sheet, in the order of the sheets.
class CompressedFeederBatch : public ::testing::TestWithParam<e2e::Mode> {};

TEST_P(CompressedFeederBatch, EachSheetIsTheReferenceDecodingOfItsOwnBands) {
    const e2e::Mode mode = GetParam();
    const int sheets = 3;
    qt::TempDir dir;
    qt::TempDir tmp;
    qt::writeFile(dir.file("sim.scn"), qt::readFile(e2e::dataFile("e2e_q5100.scn")) + "  sheets " +
                                           std::to_string(sheets) + "\n  multipage on\n  wicket quality=75 band=32\n");
    qt::SaneEnv sane(e2e::MODELS_CONF, dir.file("sim.scn"));
    std::vector<std::string> args = {"-d", DEVICE, "-v", "--format=pnm", "--original-size", PHOTO_3X5.szName,
                                     "--source", "Automatic Document Feeder", "--scan-resolution", "75", "--mode",
                                     e2e::modeName(mode), "--batch=" + dir.file("page-%d.pnm")};
    std::string out, err;
    int rc = sane.scanimage(args, &out, &err, {"TMPDIR=" + tmp.path(), "QUARTO_USBSIM_BANDS=" + dir.file("bands")},
                            120);
    EXPECT_EQ(0, rc) << err;
    EXPECT_NE(std::string::npos, err.find("sane_start: Document feeder out of documents")) << err;
    e2e::Window w = e2e::lastWindow(qt::readFile(sane.simLogPath()));
    ASSERT_TRUE(w.bFound);
    ASSERT_EQ(1, w.iCompression);

    const int pixels = e2e::pagePixels(PHOTO_3X5, 75, 1);
    const int lines = e2e::pageLines(PHOTO_3X5, 75, 1);
    const std::string bands = qt::readFile(dir.file("bands"));
    std::vector<uint8_t> decoded;
    int bandWidth = 0;
    ASSERT_EQ(0, wicketref::decodeStream(reinterpret_cast<const uint8_t*>(bands.data()), bands.size(),
                                         mode == e2e::COLOR ? 3 : 1, &decoded, &bandWidth));
    EXPECT_EQ(pixels, bandWidth);
    const size_t pageBytes = (size_t)e2e::bytesPerLine(mode, pixels) * (size_t)lines;
    ASSERT_EQ(pageBytes * sheets, decoded.size()) << "the device sent the bands of every sheet";
    for (int p = 1; p <= sheets; ++p) {
        e2e::Pnm img;
        ASSERT_TRUE(readBatchPage(dir, p, pixels, lines, &img));
        ASSERT_EQ(pageBytes, img.szData.size()) << "page " << p;
        EXPECT_TRUE(memcmp(img.szData.data(), decoded.data() + pageBytes * (p - 1), pageBytes) == 0)
            << "page " << p << " is not the reference decoding of its sheet's bands";
    }
    EXPECT_FALSE(qt::fileExists(dir.file("page-" + std::to_string(sheets + 1) + ".pnm")));
    EXPECT_TRUE(qt::listDir(tmp.path()).empty()) << "left in TMPDIR: " << qt::listDir(tmp.path())[0];
}

INSTANTIATE_TEST_SUITE_P(Feeder, CompressedFeederBatch, ::testing::Values(e2e::COLOR, e2e::GRAY),
                         [](const ::testing::TestParamInfo<e2e::Mode>& info) {
                             return std::string(info.param == e2e::GRAY ? "Gray" : "Color");
                         });

}  // namespace
