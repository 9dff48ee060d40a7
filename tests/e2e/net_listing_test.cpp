// scanimage -L with network discovery, inside network namespaces: the query on
// the wire, which answering devices are listed, under which names, in which
// order beside the USB devices, and how long the collection lasts.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "net_e2e.h"

namespace {

// The query as the discovery part's table gives it.
const char QUERY_HEX[] =
    "0000000000010000000000000c5f686f73742d636f6e666967045f756470056c6f63616c0000210001";

// A USB Quarto 5100 in the USB simulator beside the network devices.
const char USB_SCENARIO[] =
    "bus 001\ndevice 001 004 vid=0x2f4a pid=0x0500\nmanufacturer Tarvesk\nproduct Quarto 5100\nversion 500\n";
const char USB_CONF[] = "usb 0x2f4a 0x0500 @MODELDIR@/quarto5100.conf Quarto_5100\n";
const char USB_DEVICE[] = "device `quarto:libusb/001/004' is a Tarvesk Quarto 5100 Scanner";

// Bit 0 of each byte becomes bit 7 and so on: the MAC as the backend shows it.
std::string reversedMac(const std::string& hex) {
    std::string mac;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        unsigned v = (unsigned)std::stoul(hex.substr(i, 2), nullptr, 16), r = 0;
        for (int b = 0; b < 8; ++b) r |= ((v >> b) & 1u) << (7 - b);
        char buf[3];
        snprintf(buf, sizeof(buf), "%02X", r);
        mac += buf;
    }
    return mac;
}

std::string netDevice(const std::string& macuaa, const std::string& vendor, const std::string& model) {
    return "device `quarto:libnet/" + reversedMac(macuaa) + "' is a " + vendor + " " + model + " Scanner";
}

// One reply of the responder, sent delayMs after the one before it.
std::string reply(const std::string& ip, const std::string& macuaa, const std::string& model,
                  const std::string& extra = std::string(), int delayMs = 0) {
    return "reply delay=" + std::to_string(delayMs) + "\n  txt IPADDRESS \"" + ip + "\"\n  txt MACUAA " + macuaa +
           "\n  txt 1284STRID " + model + "\n" + extra;
}

class NetListing : public ::testing::Test {
protected:
    // Lists with the responder answering scenario; the elapsed seconds too.
    std::vector<std::string> list(e2e::NetRig& rig, const std::string& scenario, double* seconds) {
        qt::writeFile(rig.dir.file("net.scn"), scenario);
        EXPECT_TRUE(rig.lab.startResponder(rig.dir.file("net.scn"), rig.dir.file("netsim.log")))
            << rig.lab.whyNot();
        int rc = -1;
        std::string err;
        const auto t0 = std::chrono::steady_clock::now();
        std::vector<std::string> lines = rig.sane.listDevices(&rc, &err);
        *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        EXPECT_EQ(0, rc) << err;
        return lines;
    }
};

const char MODEL_5100[] = "MFG:Tarvesk;MDL:Quarto 5100 Ethernet;";
const char MODEL_4010[] = "MFG:Tarvesk;MDL:Quarto 4010 Ethernet;";

TEST_F(NetListing, AcceptedRepliesInOrderAfterUsbDevicesDuplicatesKept) {
    e2e::NetRig rig(qt::NetLab::WITH_DEVICE_HOST, USB_CONF + e2e::netSwitches(true, 0, false, "Tarvesk", true), "",
                    USB_SCENARIO);
    NET_RIG_OR_SKIP(rig);
    std::string big;
    for (int i = 0; i < 4; ++i) big += "  txt PAD" + std::to_string(i) + " " + std::string(240, 'x') + "\n";
    const std::string scenario =
        reply("192.0.2.2", "0080C2A1B3F4", MODEL_5100, "  questions 1\n") +
        reply("192.0.2.3", "001122334455", "MFG:Zentrik;MDL:ZX 100 Ethernet;") +  // another maker
        reply("192.0.2.4", "00AA00AA00AA", "MFG:Tarvesk;MDL:Quarto 4200 USB;") +  // no "Ethernet"
        reply("192.0.2.2", "0080C2A1B3F4", MODEL_5100) +                          // the same device again
        reply("192.0.2.5", "0102030405AA", MODEL_5100, "  flags 0x0400\n") +     // a query, not a response
        // cut inside the MAC entry, before its blank
        "reply\n  txt IPADDRESS 192.0.2.6\n  txt 1284STRID " + MODEL_5100 + "\n  txt MACUAA 0102030405BB\n"
        "  truncate 125\n" +
        "raw 00 00 84 00 00 00 00 01 00 00 00 00\n" +  // twelve bytes
        // the vendor comes from the last of 1284STRID and PRINTERVIDPID
        reply("192.0.2.7", "A0B0C0D0E0F0", MODEL_4010, "  txt PRINTERVIDPID 12340001\n") +
        "reply\n  txt MACUAA 0102030405CC\n  txt 1284STRID " + MODEL_5100 + "\n" +  // no address
        "reply\n  txt IPADDRESS 192.0.2.8\n  txt 1284STRID " + MODEL_5100 + "\n" + big +
        "  txt MACUAA 0102030405DD\n" +                      // MAC beyond the 1024 bytes read
        "reply\n  answers 65535\n  rdlength 65535\n  txt IPADDRESS 192.0.2.9\n";  // counts past the end
    double seconds = 0;
    const std::vector<std::string> expected = {
        USB_DEVICE,
        netDevice("0080C2A1B3F4", "Tarvesk", MODEL_5100),
        netDevice("0080C2A1B3F4", "Tarvesk", MODEL_5100),
        netDevice("A0B0C0D0E0F0", "Manufacturer", MODEL_4010),
    };
    EXPECT_EQ(expected, list(rig, scenario, &seconds));
    // One query, exactly the documented bytes, from port 5353 of the backend's side.
    const std::string log = qt::readFile(rig.dir.file("netsim.log"));
    EXPECT_NE(std::string::npos,
              log.find(std::string("packet from=192.0.2.1:5353 len=41 query=1 data=") + QUERY_HEX + "\n"))
        << log;
    EXPECT_EQ(log.find("packet from="), log.rfind("packet from=")) << log;
}

// Network first, the placeholder heading the network list. Without the
// MANUFACTURER key the manufacturer text comes from the file name quarto.conf,
// which names no brand: devices of the partner brands are listed, the maker's
// are not. The 5-second window is not renewed by the replies: a reply 3 s after
// the first is listed, one 3 s after that is not.
TEST_F(NetListing, NetworkFirstWithPlaceholderPartnerBrandsWithinOneWindow) {
    e2e::NetRig rig(qt::NetLab::WITH_DEVICE_HOST, USB_CONF + e2e::netSwitches(true, 1, true, "", true), "",
                    USB_SCENARIO);
    NET_RIG_OR_SKIP(rig);
    const std::string velmarsk = "MFG:Velmarsk;MDL:VX 5100 Ethernet;";
    const std::string quindorra = "MFG:Quindorra;MDL:Q 40 Ethernet;";
    const std::string scenario = reply("192.0.2.2", "0080C2A1B3F4", MODEL_5100) +
                                 reply("192.0.2.3", "112233445566", velmarsk) +
                                 reply("192.0.2.4", "F0F0F0F0F0F0", quindorra, "", 3000) +
                                 reply("192.0.2.5", "0F0F0F0F0F0F", velmarsk, "", 3000);
    double seconds = 0;
    const std::vector<std::string> expected = {
        "device `quarto:libnet/SPECIFY_DEVICE' is a MFP Network Scanner",
        netDevice("112233445566", "Velmarsk", velmarsk),
        netDevice("F0F0F0F0F0F0", "Quindorra", quindorra),
        USB_DEVICE,
    };
    EXPECT_EQ(expected, list(rig, scenario, &seconds));
    EXPECT_LT(seconds, 7.5);
}

TEST_F(NetListing, NoAnswerEndsAfterTheWindowWithAnEmptyList) {
    e2e::NetRig rig(qt::NetLab::WITH_DEVICE_HOST, e2e::netSwitches(true));
    NET_RIG_OR_SKIP(rig);
    double seconds = 0;
    EXPECT_TRUE(list(rig, "# no reply\n", &seconds).empty());
    EXPECT_GT(seconds, 4.5);
    EXPECT_LT(seconds, 7.5);
    EXPECT_NE(std::string::npos, qt::readFile(rig.dir.file("netsim.log")).find("query=1")) << "no query arrived";
}

}  // namespace
