// scanimage -L with network discovery, inside network namespaces: the query on
// the wire, which answering devices are listed, under which names, in which
// order beside the USB devices, and how long the collection lasts.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "net_e2e.h"

namespace {

// The discovery query, byte for byte.
const char QUERY_HEX[] =
    "0000000000010000000000000c5f686f73742d636f6e666967045f756470056c6f63616c0000210001";

// A USB Quarto 5100 in the USB simulator.
const char USB_SCENARIO[] =
    "bus 001\ndevice 001 004 vid=0x2f4a pid=0x0500\nmanufacturer Tarvesk\nproduct Quarto 5100\nversion 500\n";
const char USB_CONF[] = "usb 0x2f4a 0x0500 @MODELDIR@/quarto5100.conf Quarto_5100\n";
const char USB_DEVICE[] = "device `quarto:libusb/001/004' is a Tarvesk Quarto 5100 Scanner";

// A listed network device; mac is the reply's MACUAA with each byte's bits reversed.
std::string netDevice(const std::string& mac, const std::string& vendor, const std::string& model) {
    return "device `quarto:libnet/" + mac + "' is a " + vendor + " " + model + " Scanner";
}

// One reply of the responder, sent delayMs after the one before it.
std::string reply(const std::string& ip, const std::string& macuaa, const std::string& model,
                  const std::string& extra = std::string(), int delayMs = 0) {
    return "reply delay=" + std::to_string(delayMs) + "\n  txt IPADDRESS \"" + ip + "\"\n  txt MACUAA " + macuaa +
           "\n  txt 1284STRID " + model + "\n" + extra;
}

const char MODEL_5100[] = "MFG:Tarvesk;MDL:Quarto 5100 Ethernet;";
const char MODEL_4010[] = "MFG:Tarvesk;MDL:Quarto 4010 Ethernet;";
const char VELMARSK[] = "MFG:Velmarsk;MDL:VX 5100 Ethernet;";
const char QUINDORRA[] = "MFG:Quindorra;MDL:Q 40 Ethernet;";

std::string bigReply() {
    std::string big;
    for (int i = 0; i < 4; ++i) big += "  txt PAD" + std::to_string(i) + " " + std::string(240, 'x') + "\n";
    return "reply\n  txt IPADDRESS 192.0.2.8\n  txt 1284STRID " + std::string(MODEL_5100) + "\n" + big +
           "  txt MACUAA 0102030405DD\n";  // MAC beyond the 1024 bytes read
}

struct ListCase {
    const char* szName;
    bool bUsb;  // a USB Quarto 5100 beside the network devices
    std::string szSwitches;
    std::string szScenario;
    std::vector<std::string> vExpected;
    double dMinSeconds, dMaxSeconds;
};

void PrintTo(const ListCase& c, std::ostream* os) { *os << c.szName; }

class NetListing : public ::testing::TestWithParam<ListCase> {};

// Every listing sends one query, exactly the documented bytes, from port 5353
// of the backend's side, and collects the replies for one 5-second window.
TEST_P(NetListing, ListsTheAcceptedRepliesAfterOneQuery) {
    const ListCase& c = GetParam();
    e2e::NetRig rig(qt::NetLab::WITH_DEVICE_HOST, (c.bUsb ? USB_CONF : "") + c.szSwitches, "",
                    c.bUsb ? USB_SCENARIO : "");
    NET_RIG_OR_SKIP(rig);
    qt::writeFile(rig.dir.file("net.scn"), c.szScenario);
    ASSERT_TRUE(rig.lab.startResponder(rig.dir.file("net.scn"), rig.dir.file("netsim.log"))) << rig.lab.whyNot();
    int rc = -1;
    std::string err;
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(c.vExpected, rig.sane.listDevices(&rc, &err));
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_EQ(0, rc) << err;
    EXPECT_GT(seconds, c.dMinSeconds);
    EXPECT_LT(seconds, c.dMaxSeconds);
    const std::string log = qt::readFile(rig.dir.file("netsim.log"));
    EXPECT_NE(std::string::npos,
              log.find(std::string("packet from=192.0.2.1:5353 len=41 query=1 data=") + QUERY_HEX + "\n"))
        << log;
    EXPECT_EQ(log.find("packet from="), log.rfind("packet from=")) << log;
}

// Network devices after the USB ones, duplicates kept; replies of other
// makers, of USB models, cut, of a query, without an address or with counts
// past their end are not listed. Network first, the placeholder heading the
// network list: without the MANUFACTURER key the manufacturer text comes from
// the file name quarto.conf, which names no brand, so the partner brands are
// listed and the maker's are not; the window is not renewed by the replies (a
// reply 3 s after the first is listed, one 3 s after that is not). No answer:
// an empty list after the whole window.
INSTANTIATE_TEST_SUITE_P(
    Cases, NetListing,
    ::testing::Values(
        ListCase{"UsbFirstDuplicatesKept", true, e2e::netSwitches(true, 0, false, "Tarvesk", true),
                 reply("192.0.2.2", "0080C2A1B3F4", MODEL_5100, "  questions 1\n") +
                     reply("192.0.2.3", "001122334455", "MFG:Zentrik;MDL:ZX 100 Ethernet;") +
                     reply("192.0.2.4", "00AA00AA00AA", "MFG:Tarvesk;MDL:Quarto 4200 USB;") +
                     reply("192.0.2.2", "0080C2A1B3F4", MODEL_5100) +
                     reply("192.0.2.5", "0102030405AA", MODEL_5100, "  flags 0x0400\n") +
                     // cut inside the MAC entry, before its blank
                     "reply\n  txt IPADDRESS 192.0.2.6\n  txt 1284STRID " + MODEL_5100 +
                     "\n  txt MACUAA 0102030405BB\n  truncate 125\n" +
                     "raw 00 00 84 00 00 00 00 01 00 00 00 00\n" +  // twelve bytes
                     // the vendor comes from the last of 1284STRID and PRINTERVIDPID
                     reply("192.0.2.7", "A0B0C0D0E0F0", MODEL_4010, "  txt PRINTERVIDPID 12340001\n") +
                     "reply\n  txt MACUAA 0102030405CC\n  txt 1284STRID " + MODEL_5100 + "\n" + bigReply() +
                     "reply\n  answers 65535\n  rdlength 65535\n  txt IPADDRESS 192.0.2.9\n",
                 {USB_DEVICE, netDevice("00014385CD2F", "Tarvesk", MODEL_5100),
                  netDevice("00014385CD2F", "Tarvesk", MODEL_5100),
                  netDevice("050D030B070F", "Manufacturer", MODEL_4010)},
                 0, 7.5},
        ListCase{"NetworkFirstPartnerBrandsOneWindow", true, e2e::netSwitches(true, 1, true, "", true),
                 reply("192.0.2.2", "0080C2A1B3F4", MODEL_5100) + reply("192.0.2.3", "112233445566", VELMARSK) +
                     reply("192.0.2.4", "F0F0F0F0F0F0", QUINDORRA, "", 3000) +
                     reply("192.0.2.5", "0F0F0F0F0F0F", VELMARSK, "", 3000),
                 {"device `quarto:libnet/SPECIFY_DEVICE' is a MFP Network Scanner",
                  netDevice("8844CC22AA66", "Velmarsk", VELMARSK), netDevice("0F0F0F0F0F0F", "Quindorra", QUINDORRA),
                  USB_DEVICE},
                 0, 7.5},
        ListCase{"NoAnswerEmptyAfterTheWindow", false, e2e::netSwitches(true), "# no reply\n", {}, 4.5, 7.5}),
    [](const ::testing::TestParamInfo<ListCase>& info) { return std::string(info.param.szName); });

}  // namespace
