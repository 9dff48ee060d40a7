// Feeder batches with the real scanimage: --batch empties a loaded feeder into
// one file per sheet, on the 5100 as one multi-page job, on the 4200 one sheet
// per scan. Every page has the size the backend announced and the pixels of
// its own page of the formula, the batch ends on the empty feeder, and nothing
// is left in the temporary directory.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "WicketReference.h"
#include "e2e_scan.h"

namespace {

// The smallest size that the 5100 keeps when the source turns to the feeder.
const e2e::PageSize PHOTO_3X5 = {"3x5 Photo", 76.2, 127, 76.2};

struct FeederModel {
    const char* szName;
    const char* szDevice;
    const char* szScenario;  // under tests/data; "sheets N" is appended
    const char* szExtra;     // further scenario lines
    const e2e::PageSize* pSize;
    int iBoxKind;
    bool bOneJob;  // every sheet in one multi-page job
};

const FeederModel Q5100 = {"Q5100", "quarto:libusb/001/004", "e2e_q5100.scn", "  multipage on\n", &PHOTO_3X5, 1, true};
const FeederModel Q4200 = {"Q4200", "quarto:libusb/001/005", "e2e_q4200_feeder.scn", "", &e2e::BUSINESS_CARD, 0, false};

struct BatchRun {
    int iStatus = -1;
    std::string szErr;  // scanimage's standard error
    std::string szLog;  // the simulator's event log
};

// scanimage --batch into dir/page-N.pnm over the model's feeder loaded with
// `sheets` sheets, with TMPDIR at tmp.
BatchRun runBatch(const FeederModel& m, e2e::Mode mode, int dpi, int sheets, const qt::TempDir& dir,
                  const qt::TempDir& tmp, const std::string& scenarioExtra = "",
                  const std::string& extraEnv = "") {
    qt::writeFile(dir.file("sim.scn"), qt::readFile(e2e::dataFile(m.szScenario)) + "  sheets " +
                                           std::to_string(sheets) + "\n" + m.szExtra + scenarioExtra);
    qt::SaneEnv sane(e2e::MODELS_CONF, dir.file("sim.scn"));
    // The 5100 fills the feeder's size list only when opened with the feeder
    // selected, so its size goes before the source; on the 4200 the source
    // decides which sizes are offered, so it goes first.
    std::vector<std::string> args = {"-d", m.szDevice, "-v"};
    if (m.bOneJob) args.insert(args.end(), {"--original-size", m.pSize->szName});
    args.insert(args.end(), {"--source", "Automatic Document Feeder", "--format=pnm", "--batch=" + dir.file("page-%d.pnm"),
                             "--scan-resolution", std::to_string(dpi), "--mode", e2e::modeName(mode)});
    if (!m.bOneJob) args.insert(args.end(), {"--original-size", m.pSize->szName});
    std::vector<std::string> env = {"TMPDIR=" + tmp.path()};
    if (!extraEnv.empty()) env.push_back(extraEnv);
    BatchRun r;
    std::string out;
    r.iStatus = sane.scanimage(args, &out, &r.szErr, env, 120);
    r.szLog = qt::readFile(sane.simLogPath());
    return r;
}

// The end every batch shares: success, the empty feeder, one announced frame
// and one file per sheet (and no more), nothing left in TMPDIR.
void expectBatchEnd(const BatchRun& r, const qt::TempDir& dir, const qt::TempDir& tmp, int sheets, int pixels,
                    int lines) {
    EXPECT_EQ(0, r.iStatus) << r.szErr;
    EXPECT_NE(std::string::npos, r.szErr.find("sane_start: Document feeder out of documents")) << r.szErr;
    std::vector<std::string> sizes;
    const std::string key = "scanning image of size ";
    for (size_t p = r.szErr.find(key); p != std::string::npos; p = r.szErr.find(key, p + 1))
        sizes.push_back(r.szErr.substr(p + key.size(), r.szErr.find(" pixels", p) - p - key.size()));
    EXPECT_EQ(std::vector<std::string>((size_t)sheets, std::to_string(pixels) + "x" + std::to_string(lines)), sizes);
    std::vector<std::string> files;
    for (int p = 1; p <= sheets; ++p) files.push_back("page-" + std::to_string(p) + ".pnm");
    files.push_back("sim.scn");
    std::sort(files.begin(), files.end());
    EXPECT_EQ(files, qt::listDir(dir.path()));
    EXPECT_EQ(std::vector<std::string>{}, qt::listDir(tmp.path())) << "left in TMPDIR";
}

// Page p of a batch, parsed and of the announced size.
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

size_t countOf(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1)) ++n;
    return n;
}

const char* modeLabel(e2e::Mode m) { return m == e2e::LINEART ? "LineArt" : m == e2e::GRAY ? "Gray" : "Color"; }

using BatchCase = std::tuple<const FeederModel*, e2e::Mode, int>;

class FeederBatch : public ::testing::TestWithParam<BatchCase> {};

TEST_P(FeederBatch, OneFilePerSheetEachItsOwnPageThenTheFeederIsEmpty) {
    const FeederModel& m = *std::get<0>(GetParam());
    const e2e::Mode mode = std::get<1>(GetParam());
    const int sheets = std::get<2>(GetParam());
    qt::TempDir dir, tmp;
    const BatchRun r = runBatch(m, mode, 150, sheets, dir, tmp);
    const int pixels = e2e::pagePixels(*m.pSize, 150, m.iBoxKind);
    const int lines = e2e::pageLines(*m.pSize, 150, m.iBoxKind);
    expectBatchEnd(r, dir, tmp, sheets, pixels, lines);

    const e2e::Window w = e2e::lastWindow(r.szLog);
    ASSERT_TRUE(w.bFound) << r.szLog;
    // Line art widths go out padded to whole bytes by the 402 command class.
    EXPECT_EQ(mode == e2e::LINEART && !m.bOneJob ? (pixels + 7) / 8 * 8 : pixels, w.iWidth);
    EXPECT_EQ(4, w.iSource);
    for (int p = 1; p <= sheets; ++p) {
        e2e::Pnm img;
        ASSERT_TRUE(readBatchPage(dir, p, pixels, lines, &img));
        EXPECT_EQ(e2e::bitsPerPixel(mode), img.bitsPerPixel());
        const e2e::Window page = e2e::pageWindow(w, p);
        EXPECT_EQ("", e2e::compareLines(img, [&](int row) { return e2e::deviceLine(page, row); })) << "page " << p;
        EXPECT_NE(std::string::npos, r.szLog.find("feeder dev=0 sheet=" + std::to_string(p) + " ")) << r.szLog;
    }
    // One job for all the sheets, or one scan each; the scanner ends unlocked and released.
    EXPECT_EQ(m.bOneJob ? 1u : (size_t)sheets, countOf(r.szLog, "scan dev=0 start")) << r.szLog;
    const size_t scan = r.szLog.rfind("scan dev=0 start"), unlock = r.szLog.rfind("data=1b5306"),
                 release = r.szLog.rfind("release dev=0");
    EXPECT_TRUE(scan != std::string::npos && unlock != std::string::npos && release != std::string::npos &&
                scan < unlock && unlock < release)
        << r.szLog;
}

// Every mode and every sheet count on each model, not the whole grid.
INSTANTIATE_TEST_SUITE_P(Feeder, FeederBatch,
                         ::testing::Values(BatchCase{&Q5100, e2e::LINEART, 12}, BatchCase{&Q5100, e2e::GRAY, 1},
                                           BatchCase{&Q5100, e2e::COLOR, 3}, BatchCase{&Q4200, e2e::LINEART, 3},
                                           BatchCase{&Q4200, e2e::GRAY, 12}, BatchCase{&Q4200, e2e::COLOR, 1}),
                         [](const ::testing::TestParamInfo<BatchCase>& info) {
                             return std::string(std::get<0>(info.param)->szName) + "_" +
                                    modeLabel(std::get<1>(info.param)) + "_" +
                                    std::to_string(std::get<2>(info.param)) + "Sheets";
                         });

// At 75 dpi the 5100 asks for Wicket compression, and a feeder job carries
// each sheet's bands in its fragments. Every sheet still gives one file of the
// announced size, byte for byte what the reference decoder makes of the bands
// the device sent for that sheet, in the order of the sheets.
class CompressedFeederBatch : public ::testing::TestWithParam<e2e::Mode> {};

TEST_P(CompressedFeederBatch, EachSheetIsTheReferenceDecodingOfItsOwnBands) {
    const e2e::Mode mode = GetParam();
    const int sheets = 3;
    qt::TempDir dir, tmp;
    qt::TempDir bandDir;  // outside dir, whose listing is checked
    const BatchRun r = runBatch(Q5100, mode, 75, sheets, dir, tmp, "  wicket quality=75 band=32\n",
                                "QUARTO_USBSIM_BANDS=" + bandDir.file("bands"));
    const int pixels = e2e::pagePixels(PHOTO_3X5, 75, 1);
    const int lines = e2e::pageLines(PHOTO_3X5, 75, 1);
    expectBatchEnd(r, dir, tmp, sheets, pixels, lines);
    const e2e::Window w = e2e::lastWindow(r.szLog);
    ASSERT_TRUE(w.bFound);
    ASSERT_EQ(1, w.iCompression);

    const std::string bands = qt::readFile(bandDir.file("bands"));
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
}

INSTANTIATE_TEST_SUITE_P(Feeder, CompressedFeederBatch, ::testing::Values(e2e::COLOR, e2e::GRAY),
                         [](const ::testing::TestParamInfo<e2e::Mode>& info) { return std::string(modeLabel(info.param)); });

}  // namespace
