// Hostile values on the way to the scan program's command line: an address,
// user name, profile name or scan directory holding shell syntax never runs a
// command (one would create the file "m" in the front end's working
// directory, the test's own) nor touches a file outside the scan directory.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "net_e2e.h"

namespace {

const char MARKER[] = "m";

std::vector<std::string> grayScan(const std::string& device, const std::vector<std::string>& extra) {
    std::vector<std::string> a = {"-d", device, "-v", "--format=pnm", "--mode", "8-bit Grayscale", "--scan-resolution",
                                  "300"};
    a.insert(a.end(), extra.begin(), extra.end());
    return a;
}

// Files the scan may add outside the scan directory: the program's record.
std::vector<std::string> withoutRecord(const e2e::NetRig& rig) {
    std::vector<std::string> files = rig.dir.filesOutsideScanDir();
    files.erase(std::remove(files.begin(), files.end(), rig.dir.recordFile()), files.end());
    return files;
}

// Runs the scan; it must be refused without the program running. When
// refusal is given, the backend's log must say so.
void expectRefusedWithoutCommand(const e2e::NetRig& rig, const std::vector<std::string>& args,
                                 const std::string& refusal = "") {
    const std::vector<std::string> before = withoutRecord(rig);
    std::string out, err;
    const int rc = rig.scanimage(args, &out, &err, refusal.empty() ? std::vector<std::string>{}
                                                                     : std::vector<std::string>{"ENABLE_SL_LOG=1"});
    if (!refusal.empty()) {
        EXPECT_NE(std::string::npos, err.find(refusal)) << err.substr(0, 8000);
    }
    EXPECT_NE(0, rc) << err;
    EXPECT_LT(rc, 128) << "scanimage ended by a signal\n" << err;
    EXPECT_NE(std::string::npos, err.find("Invalid argument")) << err;
    EXPECT_TRUE(rig.dir.runs().empty()) << "the scan program ran\n" << err;
    EXPECT_FALSE(qt::fileExists(rig.dir.file(MARKER))) << "an injected command ran";
    EXPECT_EQ(before, withoutRecord(rig));
}

struct Hostile {
    const char* szName;
    std::vector<std::string> vArgs;
    const char* szFeature;  // a [STRINGS] line of the feature file
};

void PrintTo(const Hostile& h, std::ostream* os) { *os << h.szName; }

class NetHostile : public ::testing::TestWithParam<Hostile> {};

// Addresses that are not dotted IPv4 are refused at scan time; user and
// profile names other than letters, digits and "_" when they are set, or,
// given by the feature file, when the scan starts. (The rest of the address
// forms: NetRefused of the scan job test.)
TEST_P(NetHostile, RefusedAndNothingRuns) {
    const Hostile& h = GetParam();
    const std::string feature = *h.szFeature ? std::string("\n[STRINGS]\n") + h.szFeature + "\n" : "";
    e2e::NetRig rig(qt::NetLab::ISOLATED, e2e::netSwitches(false), feature);
    NET_RIG_OR_SKIP(rig);
    std::vector<std::string> extra = h.vArgs;
    if (extra.empty() || extra[0] != "--ip-address") extra.insert(extra.end(), {"--ip-address", "192.0.2.2"});
    expectRefusedWithoutCommand(rig, grayScan(e2e::PLACEHOLDER, extra));
}

INSTANTIATE_TEST_SUITE_P(
    Values, NetHostile,
    ::testing::Values(Hostile{"AddressSemicolon", {"--ip-address", "192.0.2.2;touch m"}, ""},
                      Hostile{"AddressBackquotes", {"--ip-address", "`touch m`"}, ""},
                      Hostile{"AddressNewline", {"--ip-address", "192.0.2.2\ntouch m"}, ""},
                      Hostile{"AddressOutOfRange", {"--ip-address", "192.0.2.256"}, ""},
                      Hostile{"UserSemicolon", {"--user-name", "a;touch m"}, ""},
                      Hostile{"UserBlank", {"--user-name", "x y"}, ""},
                      Hostile{"ProfileDotDot", {"--profile-name", "../m"}, ""},
                      Hostile{"ProfileQuote", {"--profile-name", "a'b"}, ""},
                      Hostile{"FeatureProfile", {}, "PROFILENAME=x;touch m"},
                      Hostile{"FeatureUser", {}, "USERNAME=$(touch m)"}),
    [](const ::testing::TestParamInfo<Hostile>& info) { return std::string(info.param.szName); });

// A scan directory whose name holds shell syntax works as any other: the
// program gets the exact page path, and nothing runs or appears elsewhere.
TEST(NetHostileScanDir, QuotedNotInterpreted) {
    const std::string name = "scan dir;touch m $(touch m) `touch m` 'q\" & touch m";
    e2e::NetRig rig(qt::NetLab::ISOLATED, e2e::netSwitches(false), "", "", name);
    NET_RIG_OR_SKIP(rig);
    rig.dir.setJob("width 16\nheight 4\n");
    const std::vector<std::string> before = withoutRecord(rig);
    std::string out, err;
    ASSERT_EQ(0, rig.scanimage(grayScan(e2e::PLACEHOLDER, {"--ip-address", "192.0.2.2"}), &out, &err)) << err;
    const std::vector<std::string> run = rig.onlyRun();
    ASSERT_GT(run.size(), 1u);
    EXPECT_EQ("--filename=" + rig.dir.scanDir() + "/Defaultscan.pxm", run[1]);
    EXPECT_FALSE(qt::fileExists(rig.dir.file(MARKER))) << "an injected command ran";
    EXPECT_EQ(before, withoutRecord(rig));
    e2e::expectFrame(out, err, qt::netPage(qt::NET_GRAY, 16, 4));
}

// A reply whose address holds shell syntax lists a device that cannot be
// scanned: the address the listing recorded is refused when the scan starts.
TEST(NetHostileReply, AddressRefusedAtScanTime) {
    e2e::NetRig rig(qt::NetLab::WITH_DEVICE_HOST, e2e::netSwitches(true));
    NET_RIG_OR_SKIP(rig);
    qt::writeFile(rig.dir.file("net.scn"),
                  "reply\n  txt IPADDRESS 192.0.2.9;touch m\n  txt MACUAA 0080C2A1B3F4\n"
                  "  txt 1284STRID MFG:Tarvesk;MDL:Quarto 5100 Ethernet;\n");
    ASSERT_TRUE(rig.lab.startResponder(rig.dir.file("net.scn"), rig.dir.file("netsim.log"))) << rig.lab.whyNot();
    expectRefusedWithoutCommand(rig, grayScan("quarto:libnet/00014385CD2F", {}),
                                "ip address [192.0.2.9;touch m] is not a dotted IPv4 address");
}

}  // namespace
