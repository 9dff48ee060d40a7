// scanimage -T, the front end's own conformance test (reads of one line, one
// byte and stepped sizes, then cancel and close), for every simulated model in
// line art, grey and colour. The frame it announces must be the window the
// device was asked for, and the device must be released; the next scan of the
// same device, which starts with the scan that -T left unfinished, must give
// the page formula.
#include <gtest/gtest.h>

#include "e2e_scan.h"

namespace {

using namespace e2e;

struct Model {
    const char* szDevice;
    const char* szName;
};

const Model MODELS[] = {{"quarto:libusb/001/002", "Quarto3260"},
                        {"quarto:libusb/001/003", "Quarto4010"},
                        {"quarto:libusb/001/005", "Quarto4200"},
                        {"quarto:libusb/001/004", "Quarto5100"}};

class ScanimageSelfTest : public ::testing::TestWithParam<std::tuple<Model, Mode>> {};

size_t countOf(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) ++n;
    return n;
}

TEST_P(ScanimageSelfTest, PassesAndLeavesTheDeviceUsable) {
    const Model& model = std::get<0>(GetParam());
    const Mode mode = std::get<1>(GetParam());
    qt::SaneEnv env(MODELS_CONF, dataFile("e2e_models.scn"));
    std::vector<std::string> args = scanArgs(model.szDevice, mode, BUSINESS_CARD, 150);
    args.push_back("-T");

    std::string out, err;
    ASSERT_EQ(env.scanimage(args, &out, &err), 0) << err;
    // One line, one byte, then stepped reads up and down in size: each passes.
    const size_t steps = countOf(err, "scanimage: reading ") + countOf(err, "scanimage: stepped read");
    EXPECT_GE(steps, 5u) << err;
    EXPECT_EQ(countOf(err, "PASS"), steps) << err;
    EXPECT_EQ(countOf(err, "FAIL"), 0u) << err;

    std::string log = qt::readFile(env.simLogPath());
    Window w = lastWindow(log);
    ASSERT_TRUE(w.bFound) << log;
    EXPECT_EQ(w.iColor, wireColor(mode));
    Announced a = announced(err);
    ASSERT_TRUE(a.bFound) << err;
    // Line art widths may go out padded to whole bytes: the bytes of a line agree.
    EXPECT_EQ(bytesPerLine(mode, a.iPixels), bytesPerLine(mode, w.iWidth));
    EXPECT_EQ(a.iLines, w.iLines);
    EXPECT_EQ(a.iBits, bitsPerPixel(mode));
    EXPECT_NE(log.find("close dev="), std::string::npos) << "the device was not closed";

    // The same device again, in a new process: a whole page by the formula.
    args.pop_back();
    std::string page;
    ASSERT_EQ(env.scanimage(args, &page, &err), 0) << err;
    Pnm img;
    std::string why;
    ASSERT_TRUE(parsePnm(page, &img, &why)) << why;
    Window again = lastWindow(qt::readFile(env.simLogPath()));
    EXPECT_EQ(img.lineBytes(), bytesPerLine(mode, again.iWidth));
    EXPECT_EQ(img.iHeight, again.iLines);
    EXPECT_EQ(compareLines(img, [&](int row) { return deviceLine(again, row); }), "");
}

INSTANTIATE_TEST_SUITE_P(Models, ScanimageSelfTest,
                         ::testing::Combine(::testing::ValuesIn(MODELS), ::testing::Values(LINEART, GRAY, COLOR)),
                         [](const ::testing::TestParamInfo<std::tuple<Model, Mode>>& info) {
                             const Mode m = std::get<1>(info.param);
                             return std::string(std::get<0>(info.param).szName) +
                                    (m == LINEART ? "_LineArt" : m == GRAY ? "_Grey" : "_Colour");
                         });

}  // namespace
