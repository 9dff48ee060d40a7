// Every resolution that each simulated model offers scans through scanimage:
// the option lists the device's resolutions, and a small grey page at each
// one ends well with the size get_parameters announced (the 5100's 75 and
// 1200 dpi go compressed).
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "e2e_scan.h"

namespace {

struct ModelResolutions {
    const char* szName;
    const char* szDevice;
    int iBoxKind;
    std::vector<int> vDpis;  // what the scenario's last source lists
};

void PrintTo(const ModelResolutions& m, std::ostream* os) { *os << m.szName; }

// The values of "--scan-resolution 75|150|300dpi [300]" in scanimage -A.
std::vector<int> offeredResolutions(const std::string& help) {
    std::vector<int> dpis;
    const std::string key = "--scan-resolution ";
    size_t p = help.find(key);
    if (p == std::string::npos) return dpis;
    std::istringstream in(help.substr(p + key.size(), help.find("dpi", p) - p - key.size()));
    for (std::string v; std::getline(in, v, '|');) dpis.push_back(atoi(v.c_str()));
    return dpis;
}

class EveryResolution : public ::testing::TestWithParam<ModelResolutions> {};

TEST_P(EveryResolution, ScansWithTheAnnouncedSize) {
    const ModelResolutions& m = GetParam();
    qt::SaneEnv sane(e2e::MODELS_CONF, e2e::dataFile("e2e_models.scn"));
    std::string out, err;
    ASSERT_EQ(0, sane.scanimage({"-d", m.szDevice, "-A"}, &out, &err)) << err;
    const std::vector<int> dpis = offeredResolutions(out);
    ASSERT_EQ(m.vDpis, dpis) << out;
    for (int dpi : dpis) {
        SCOPED_TRACE(std::to_string(dpi) + " dpi");
        int rc = sane.scanimage(e2e::scanArgs(m.szDevice, e2e::GRAY, e2e::BUSINESS_CARD, dpi), &out, &err, {}, 120);
        ASSERT_EQ(0, rc) << err;
        EXPECT_EQ(std::string::npos, err.find("WARNING")) << err;
        const int pixels = e2e::pagePixels(e2e::BUSINESS_CARD, dpi, m.iBoxKind);
        const int lines = e2e::pageLines(e2e::BUSINESS_CARD, dpi, m.iBoxKind);
        e2e::Announced a = e2e::announced(err);
        ASSERT_TRUE(a.bFound) << err;
        EXPECT_EQ(pixels, a.iPixels);
        EXPECT_EQ(lines, a.iLines);
        EXPECT_EQ(long(pixels) * lines, a.lBytesRead);
        e2e::Pnm img;
        std::string why;
        ASSERT_TRUE(e2e::parsePnm(out, &img, &why)) << why;
        EXPECT_EQ(pixels, img.iWidth);
        EXPECT_EQ(lines, img.iHeight);
        EXPECT_EQ(size_t(pixels) * size_t(lines), img.szData.size());
    }
}

// The backend lists the resolutions in the order of the device's records.
INSTANTIATE_TEST_SUITE_P(
    Models, EveryResolution,
    ::testing::Values(ModelResolutions{"Q3260", "quarto:libusb/001/002", 0, {75, 150, 300, 600}},
                      ModelResolutions{"Q4010", "quarto:libusb/001/003", 0, {75, 150, 300, 600}},
                      ModelResolutions{"Q4200", "quarto:libusb/001/005", 0, {75, 150, 300, 600}},
                      ModelResolutions{"Q5100", "quarto:libusb/001/004", 1, {75, 150, 300, 600, 1200}}),
    [](const ::testing::TestParamInfo<ModelResolutions>& info) { return std::string(info.param.szName); });

}  // namespace
