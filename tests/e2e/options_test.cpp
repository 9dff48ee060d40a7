// The options as scanimage shows them, against the simulated scanners of
// tests/data/options.scn.
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

}  // namespace
