// Single-page feeder scans on the Quarto 4200: scanimage --batch over a feeder
// loaded with N sheets writes exactly N files, page p being the page formula
// shifted by 64 (p - 1) columns, and stops with "Document feeder out of
// documents" when the feeder reports itself empty.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>

#include <set>
#include <string>
#include <vector>

#include "e2e_scan.h"

namespace {

const char* const DEVICE = "quarto:libusb/001/005";
const int DPI = 150;

struct FeederCase {
    e2e::Mode eMode;
    int iSheets;
};

std::string caseName(const ::testing::TestParamInfo<FeederCase>& info) {
    const FeederCase& c = info.param;
    const char* mode = c.eMode == e2e::LINEART ? "LineArt" : c.eMode == e2e::GRAY ? "Gray" : "Color";
    return std::string(mode) + "_" + std::to_string(c.iSheets) + "Sheets";
}

void PrintTo(const FeederCase& c, std::ostream* os) { *os << caseName({c, 0}); }

std::set<std::string> filesIn(const std::string& dir) {
    std::set<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d))
            if (e->d_name[0] != '.') names.insert(e->d_name);
        closedir(d);
    }
    return names;
}

// Every "scanning image of size WxH pixels at B bits/pixel" of a batch.
std::vector<std::string> announcedSizes(const std::string& err) {
    std::vector<std::string> sizes;
    const std::string key = "scanning image of size ";
    for (size_t p = err.find(key); p != std::string::npos; p = err.find(key, p + 1))
        sizes.push_back(err.substr(p + key.size(), err.find(" pixels", p) - p - key.size()));
    return sizes;
}

class FeederBatch : public ::testing::TestWithParam<FeederCase> {};

TEST_P(FeederBatch, OneFilePerSheetEachItsOwnPage) {
    const FeederCase& c = GetParam();
    qt::TempDir dir;
    qt::writeFile(dir.file("sim.scn"),
                  qt::readFile(e2e::dataFile("e2e_q4200_feeder.scn")) + "  sheets " + std::to_string(c.iSheets) + "\n");
    const std::string outDir = dir.file("out");
    ASSERT_EQ(0, mkdir(outDir.c_str(), 0700));
    qt::SaneEnv sane(e2e::MODELS_CONF, dir.file("sim.scn"));
    std::string out, err;
    // The source goes first: it decides which page sizes are offered.
    int rc = sane.scanimage({"-d", DEVICE, "-v", "--source", "Automatic Document Feeder", "--format=pnm",
                             "--batch=" + outDir + "/page-%d.pnm", "--scan-resolution", std::to_string(DPI), "--mode",
                             e2e::modeName(c.eMode), "--original-size", e2e::BUSINESS_CARD.szName},
                            &out, &err, {}, 120);
    EXPECT_EQ(0, rc) << err;
    EXPECT_NE(std::string::npos, err.find("Document feeder out of documents")) << err;

    std::set<std::string> expectedFiles;
    for (int p = 1; p <= c.iSheets; ++p) expectedFiles.insert("page-" + std::to_string(p) + ".pnm");
    ASSERT_EQ(expectedFiles, filesIn(outDir)) << err;

    const int pixels = e2e::pagePixels(e2e::BUSINESS_CARD, DPI, 0);
    const int lines = e2e::pageLines(e2e::BUSINESS_CARD, DPI, 0);
    const std::string size = std::to_string(pixels) + "x" + std::to_string(lines);
    EXPECT_EQ(std::vector<std::string>((size_t)c.iSheets, size), announcedSizes(err));

    const std::string log = qt::readFile(sane.simLogPath());
    e2e::Window w = e2e::lastWindow(log);
    ASSERT_TRUE(w.bFound) << log;
    EXPECT_EQ(4, w.iSource);
    for (int p = 1; p <= c.iSheets; ++p) {
        SCOPED_TRACE("page " + std::to_string(p));
        e2e::Pnm img;
        std::string why;
        ASSERT_TRUE(e2e::parsePnm(qt::readFile(outDir + "/page-" + std::to_string(p) + ".pnm"), &img, &why)) << why;
        EXPECT_EQ(pixels, img.iWidth);
        EXPECT_EQ(lines, img.iHeight);
        EXPECT_EQ(e2e::bitsPerPixel(c.eMode), img.bitsPerPixel());
        const e2e::Window page = e2e::pageWindow(w, p);
        EXPECT_EQ("", e2e::compareLines(img, [&](int row) { return e2e::deviceLine(page, row); }));
        EXPECT_NE(std::string::npos, log.find("feeder dev=0 sheet=" + std::to_string(p) + " ")) << log;
    }
}

INSTANTIATE_TEST_SUITE_P(Quarto4200, FeederBatch,
                         ::testing::Values(FeederCase{e2e::LINEART, 1}, FeederCase{e2e::LINEART, 3},
                                           FeederCase{e2e::LINEART, 12}, FeederCase{e2e::GRAY, 1},
                                           FeederCase{e2e::GRAY, 3}, FeederCase{e2e::GRAY, 12},
                                           FeederCase{e2e::COLOR, 1}, FeederCase{e2e::COLOR, 3},
                                           FeederCase{e2e::COLOR, 12}),
                         caseName);

}  // namespace
