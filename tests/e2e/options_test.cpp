// The options as scanimage shows and sets them, against the simulated
// scanners of tests/data/options.scn.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "sanerun.h"
#include "testutil.h"

namespace {

const char CONF[] =
    "usb 0x2f4a 0x0500 @MODELDIR@/quarto5100.conf Quarto_5100\n"
    "usb 0x2f4a 0x0402 @MODELDIR@/quarto4200.conf Quarto_4200\n"
    "DISCOVER_USB_FLAG=1\nDISCOVER_NET_FLAG=0\nDEVICE_LIST_ORDER_MODE=0\n";

std::string scenario() { return qt::sourceDir() + "/tests/data/options.scn"; }

// The lines of `scanimage -A` that name a group or an option (descriptions,
// which scanimage wraps to the terminal, left out).
std::vector<std::string> optionLines(const std::string& out) {
    std::vector<std::string> lines;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("    --", 0) == 0 || (line.rfind("  ", 0) == 0 && line.rfind("   ", 0) != 0)) lines.push_back(line);
    return lines;
}

// The listing of a USB device (the 5100, the family whose options differ most
// from the defaults): option 0 is not listed by scanimage, nor is "interface"
// (never selectable or detectable); the five groups and the twenty other
// options are, with their lists, ranges, defaults and inactive states. The
// per-model differences are pinned by the unit tests of the option table.
TEST(Listing, ShowsEveryOptionWithListsRangesAndInactiveStates) {
    qt::SaneEnv sane(CONF, scenario());
    std::string out, err;
    ASSERT_EQ(0, sane.scanimage({"-A", "-d", "quarto:libusb/001/004"}, &out, &err)) << err;
    const std::vector<std::string> want = {
        "  Scanner:",
        "    --ip-address <string> [inactive]",
        "  Profile Information:",
        "    --user-name <string> [inactive]",
        "    --profile-name <string> [inactive]",
        "  Image Settings:",
        "    --content-type Text|Text/Graphics|Photo [Text/Graphics]",
        "    --scan-resolution 75|182|300|600dpi [300]",
        "    --mode 1-bit Black & White|8-bit Grayscale|24-bit Color [24-bit Color]",
        "    --content-source Black and White Laser|Color Laser|Inkjet Plain|Inkjet Glossy|Retail "
        "Photo|Magazine|Newspaper|Brochure [Black and White Laser]",
        "    --original-size Letter|Executive|Legal|A4|A5|A6|B5|Folio|Statement|3x5 Photo|4x6 Photo|3.5x5 in|4x8 "
        "in|5x7 in|8x10 in|L|2L|Hagaki|9x13 cm|10x15 cm|10x20 cm|13x18 cm|20x25 cm|Business "
        "Card|Oficio (M\xC3\xA9xico)|Index Card|A name much longer than the option value can hold [A4]",
        "    --orientation Portrait [Portrait]",
        "    --scan-both-sides[=(yes|no)] [inactive]",
        "    --scan-now[=(yes|no)] [inactive]",
        "    --source Flatbed|Automatic Document Feeder [Flatbed]",
        "  Advanced Settings:",
        "    --brightness -2..2 (in steps of 1) [0]",
        "    --contrast -2..2 (in steps of 1) [0]",
        "  Advance Imaging:",
        "    --mirrorimage[=(yes|no)] [yes]",
        "    --negativeimage[=(yes|no)] [inactive]",
        "    --colordropout None|Red|Green|Blue [inactive]",
        "    --colordropoutthreshold 0..254 (in steps of 1) [inactive]",
        "    --bkgremoval Off|Auto|Mild|Moderate|Strong [inactive]",
        "    --reset [inactive]"};
    EXPECT_EQ(want, optionLines(out)) << out;
}

struct ScanCase {
    const char* device;
    std::vector<std::string> options;
    const char* window;  // the scan window the simulator logged
    const char* header;  // of the image scanimage wrote
    size_t size;         // bytes of the image after that header
};

class SetThroughScanimage : public ::testing::TestWithParam<ScanCase> {};

TEST_P(SetThroughScanimage, ReachesTheDeviceAndShapesTheImage) {
    const ScanCase& c = GetParam();
    qt::SaneEnv sane(CONF, scenario());
    std::vector<std::string> args = {"-d", c.device, "--format=pnm"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    std::string out, err;
    ASSERT_EQ(0, sane.scanimage(args, &out, &err)) << err;
    std::string log = qt::readFile(sane.simLogPath());
    EXPECT_NE(std::string::npos, log.find(c.window)) << log.substr(0, 4000);
    const std::string header = c.header;
    EXPECT_EQ(header, out.substr(0, header.size()));
    EXPECT_EQ(header.size() + c.size, out.size());
}

INSTANTIATE_TEST_SUITE_P(
    Models, SetThroughScanimage,
    ::testing::Values(
        // 51 x 89 mm: at 150 dpi 301.2 x 525.6 pixels, rounded on the 4200; at
        // 182 dpi 365.4 x 637.7, cut down on the 5100.
        ScanCase{"quarto:libusb/001/005",
                 {"--scan-resolution", "150", "--mode", "8-bit Grayscale", "--original-size", "Business Card"},
                 "window dev=1 color=2 width=301 lines=526 x=0 y=0 xres=150 yres=150 ",
                 "P5\n# SANE data follows\n301 526\n255\n",
                 301 * 526},
        ScanCase{"quarto:libusb/001/004",
                 {"--scan-resolution", "182", "--mode", "24-bit Color", "--original-size", "Business Card"},
                 "window dev=0 color=3 width=365 lines=637 x=0 y=0 xres=182 yres=182 ",
                 "P6\n# SANE data follows\n365 637\n255\n",
                 3 * 365 * 637},
        // Statement at 182 dpi is 1001 pixels wide: 126 bytes a line-art line.
        ScanCase{"quarto:libusb/001/004",
                 {"--scan-resolution", "182", "--mode", "1-bit Black & White", "--original-size", "Statement"},
                 "window dev=0 color=1 width=1001 lines=1547 x=0 y=0 xres=182 yres=182 ",
                 "P4\n# SANE data follows\n1001 1547\n",
                 126 * 1547}));

TEST(SetThroughScanimage, ValueOutsideTheListIsRefusedBeforeAnyScan) {
    qt::SaneEnv sane(CONF, scenario());
    std::string out, err;
    EXPECT_NE(0, sane.scanimage({"-d", "quarto:libusb/001/004", "--mode", "Sepia"}, &out, &err));
    EXPECT_NE(std::string::npos, err.find("setting of option --mode failed")) << err;
    EXPECT_EQ(std::string::npos, qt::readFile(sane.simLogPath()).find("window ")) << "a scan was started";
}

}  // namespace
