// Network scans with scanimage through the simulated scan program: the command
// line the program receives, and every pixel of what the backend makes of the
// pages it leaves (rotation, interpolation, Wicket bands, numbered pages),
// computed here from the page formula and the image utilities' rules. Most
// cases scan the placeholder device given by its address, in a namespace of
// their own; a few scan a device found by discovery.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "net_e2e.h"

namespace {

using qt::NetArgs;
using qt::NetImage;
using qt::NetMode;

const char DEVICE_IP[] = "192.0.2.2";
const char PROFILE[] = "Job_7";
const char USER[] = "alice";

// Option settings per mode, and the values they put on the command line.
struct Preset {
    std::vector<std::string> vArgs;
    std::vector<std::pair<int NetArgs::*, int>> vValues;
};

const Preset COLOR_PRESET = {{"--brightness", "7", "--contrast", "4", "--orientation", "Landscape",
                              "--mirrorimage=yes", "--bkgremoval", "-2", "--original-size", "Letter"},
                             {{&NetArgs::iBrightness, 7}, {&NetArgs::iContrast, 4}, {&NetArgs::iOrientation, 1},
                              {&NetArgs::iMirror, 1}, {&NetArgs::iBkg, -2}, {&NetArgs::iSize, 0}}};
// "3.5x5 in" is entry 14 of the list and size 27 of the scan settings;
// "Auto/Other" is entry 9 and document source 10.
const Preset GRAY_PRESET = {{"--colordropout", "Green", "--colordropoutthreshold", "100", "--content-source",
                             "Auto/Other", "--original-size", "3.5x5 in", "--content-type", "Photo"},
                            {{&NetArgs::iDropout, 2}, {&NetArgs::iThreshold, 100}, {&NetArgs::iDocSource, 10},
                             {&NetArgs::iSize, 27}, {&NetArgs::iContent, 2}}};
const Preset LINEART_PRESET = {
    {"--negativeimage=yes", "--original-size", "Business Card", "--scan-now=no", "--content-type", "Text"},
    {{&NetArgs::iNegative, 1}, {&NetArgs::iSize, 14}, {&NetArgs::iStartNow, 0}, {&NetArgs::iContent, 0}}};

const Preset& presetFor(NetMode m) {
    return m == qt::NET_COLOR ? COLOR_PRESET : m == qt::NET_GRAY ? GRAY_PRESET : LINEART_PRESET;
}

// scanimage arguments for a scan of device in mode at dpi with the mode's preset.
std::vector<std::string> scanArgs(const std::string& device, NetMode mode, int dpi) {
    std::vector<std::string> a = {"-d", device, "-v", "--format=pnm"};
    if (device == e2e::PLACEHOLDER) a.insert(a.end(), {"--ip-address", DEVICE_IP});
    a.insert(a.end(), {"--scan-resolution", std::to_string(dpi), "--mode", e2e::modeName(e2e::e2eMode(mode)),
                       "--user-name", USER, "--profile-name", PROFILE});
    const Preset& p = presetFor(mode);
    a.insert(a.end(), p.vArgs.begin(), p.vArgs.end());
    return a;
}

NetArgs expectedArgs(const e2e::NetRig& rig, NetMode mode, int dpi, const std::string& ip = DEVICE_IP) {
    NetArgs a;
    a.szBinary = qt::NetScanDir::program();
    a.szFile = rig.dir.scanDir() + "/" + PROFILE + "scan.pxm";
    a.szIp = ip;
    a.szUser = USER;
    a.szProfile = PROFILE;
    a.iMode = mode;
    a.iDpi = dpi;
    for (const auto& v : presetFor(mode).vValues) a.*v.first = v.second;
    return a;
}

struct PageCase {
    const char* szName;
    NetMode eMode;
    int iDpi;  // requested
    int iWidth, iHeight, iFileDpi, iRotate, iFamily;
    // A job of several pages: what makes it one, the command line's
    // --scan-both-sides and --original-size (-1: the preset's), extra job statements.
    int iPages = 1;
    std::vector<std::string> vTrigger = {};
    int iBoth = 0, iSize = -1;
    const char* szFaults = "";
};

std::string jobText(const PageCase& c) {
    return "width " + std::to_string(c.iWidth) + "\nheight " + std::to_string(c.iHeight) + "\ndpi " +
           std::to_string(c.iFileDpi) + "\nrotate " + std::to_string(c.iRotate) + "\nfamily " +
           std::to_string(c.iFamily) + "\npages " + std::to_string(c.iPages) + "\n" + c.szFaults;
}

// Page p as the front end must receive it: Wicket bands for families 14 and 15
// from 1200 dpi in grey and colour; otherwise the zlib page, then (grey and
// colour only) rotation, then interpolation when the file's resolution is
// below the requested one.
NetImage expectedPage(const PageCase& c, int page = 1) {
    NetImage img = qt::netPage(c.eMode, c.iWidth, c.iHeight, page);
    if (c.eMode == qt::NET_LINEART) return img;
    if ((c.iFamily == 14 || c.iFamily == 15) && c.iDpi >= 1200) return qt::wicketPage(img, 75, 32);
    img = qt::rotatePage(img, c.iRotate);
    return c.iFileDpi < c.iDpi ? qt::resizePage(img, c.iFileDpi, c.iDpi) : img;
}

void PrintTo(const PageCase& c, std::ostream* os) { *os << c.szName; }

class NetPageScan : public ::testing::TestWithParam<PageCase> {};

// A single page goes to standard output; the pages of a job go to numbered
// files, from one run of the program, in order.
TEST_P(NetPageScan, ProgramGetsTheCommandLineFrontEndGetsThePages) {
    const PageCase& c = GetParam();
    e2e::NetRig rig(qt::NetLab::ISOLATED, e2e::netSwitches(false));
    NET_RIG_OR_SKIP(rig);
    rig.dir.setJob(jobText(c));
    std::vector<std::string> args = scanArgs(e2e::PLACEHOLDER, c.eMode, c.iDpi);
    args.insert(args.end(), c.vTrigger.begin(), c.vTrigger.end());
    if (c.iPages > 1)
        args.insert(args.end(), {"--batch=" + rig.dir.file("page%d.pnm"), "--batch-count=" + std::to_string(c.iPages)});
    std::string out, err;
    ASSERT_EQ(0, rig.scanimage(args, &out, &err)) << err;
    NetArgs a = expectedArgs(rig, c.eMode, c.iDpi);
    a.iBoth = c.iBoth;
    if (c.iSize >= 0) a.iSize = c.iSize;
    EXPECT_EQ(a.argv(), rig.onlyRun());
    if (c.iPages == 1) return e2e::expectFrame(out, err, expectedPage(c));
    for (int p = 1; p <= c.iPages; ++p) {
        SCOPED_TRACE("page " + std::to_string(p));
        e2e::expectImage(qt::readFile(rig.dir.file("page" + std::to_string(p) + ".pnm")), expectedPage(c, p));
    }
}

// Odd sizes where an off-by-one would show; the file resolution below the
// requested one forces interpolation (grey and colour only). "Book Original"
// is entry 27 of the list and size 15 of the scan settings, which the scan
// program treats as a job of several pages. A page without a side file keeps
// the first page's values (here the rotation).
INSTANTIATE_TEST_SUITE_P(
    Pages, NetPageScan,
    ::testing::Values(PageCase{"LineArt", qt::NET_LINEART, 300, 200, 40, 300, 0, 0},
                      PageCase{"LineArtNeitherRotatedNorInterpolated", qt::NET_LINEART, 300, 96, 32, 150, 90, 0},
                      PageCase{"Gray", qt::NET_GRAY, 150, 150, 70, 150, 0, 0},
                      PageCase{"GrayRotated180", qt::NET_GRAY, 300, 37, 11, 300, 180, 0},
                      PageCase{"ColorRotated180", qt::NET_COLOR, 300, 21, 9, 300, 180, 0},
                      PageCase{"ColorRotated90", qt::NET_COLOR, 300, 50, 31, 300, 90, 0},
                      PageCase{"GrayRotated270", qt::NET_GRAY, 300, 50, 31, 300, 270, 0},
                      PageCase{"GrayInterpolated150To300", qt::NET_GRAY, 300, 61, 21, 150, 0, 0},
                      // 1.5 times as wide, as high as before: the axes differ.
                      PageCase{"ColorInterpolated200To300", qt::NET_COLOR, 300, 60, 20, 200, 0, 0},
                      PageCase{"ColorRotated90Interpolated150To600", qt::NET_COLOR, 600, 40, 24, 150, 90, 0},
                      PageCase{"ColorWicketFamily14", qt::NET_COLOR, 1200, 64, 40, 1200, 0, 14},
                      PageCase{"GrayWicketFamily15", qt::NET_GRAY, 1200, 96, 48, 1200, 0, 15},
                      // compression 6 on the command line, but a zlib page for another family
                      PageCase{"Color1200OtherFamilyZlib", qt::NET_COLOR, 1200, 64, 16, 1200, 0, 31},
                      PageCase{"DuplexGray", qt::NET_GRAY, 300, 40, 16, 300, 0, 0, 2, {"--scan-both-sides=yes"}, 1},
                      PageCase{"FeederColorRotated180SecondPageWithoutSideFile", qt::NET_COLOR, 300, 23, 10, 300,
                               180, 0, 3, {"--source", "Multiple Pages"}, 0, -1, "no_side 2\n"},
                      PageCase{"BookOriginalGrayInterpolated", qt::NET_GRAY, 300, 30, 12, 150, 0, 0, 2,
                               {"--original-size", "Book Original"}, 0, 15}),
    [](const ::testing::TestParamInfo<PageCase>& info) { return std::string(info.param.szName); });

// ---- a device found by discovery: the lookup at open finds its address ----

TEST(NetDiscoveredScan, ScansFromTheAddressItsRepliesGive) {
    e2e::NetRig rig(qt::NetLab::WITH_DEVICE_HOST, e2e::netSwitches(true));
    NET_RIG_OR_SKIP(rig);
    qt::writeFile(rig.dir.file("net.scn"),
                  "reply\n  txt IPADDRESS 192.0.2.2\n  txt MACUAA 0080C2A1B3F4\n"
                  "  txt 1284STRID MFG:Tarvesk;MDL:Quarto 5100 Ethernet;\n"
                  "reply\n  txt IPADDRESS \"192.0.2.17\"\n  txt MACUAA A0B0C0D0E0F0\n"
                  "  txt 1284STRID MFG:Tarvesk;MDL:Quarto 4010 Ethernet;\n");
    ASSERT_TRUE(rig.lab.startResponder(rig.dir.file("net.scn"), rig.dir.file("netsim.log"))) << rig.lab.whyNot();
    const PageCase c = {"", qt::NET_COLOR, 300, 33, 14, 300, 270, 0};
    rig.dir.setJob(jobText(c));
    std::string out, err;
    // MACUAA A0B0C0D0E0F0 with each byte's bits reversed.
    ASSERT_EQ(0, rig.scanimage(scanArgs("quarto:libnet/050D030B070F", c.eMode, c.iDpi), &out, &err)) << err;
    EXPECT_EQ(expectedArgs(rig, c.eMode, c.iDpi, "192.0.2.17").argv(), rig.onlyRun());
    e2e::expectFrame(out, err, expectedPage(c));
}

}  // namespace
