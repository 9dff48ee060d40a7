// scanimage -L through the SANE dll loader against simulated USB scanners:
// which devices are listed, under which names, in which order.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e_scan.h"
#include "sanerun.h"
#include "testutil.h"

namespace {

const char CONF_HEAD[] =
    "usb 0x2f4a 0x0500 @MODELDIR@/quarto5100.conf Quarto_5100\n"
    "usb 0x2f4a 0x0402 @MODELDIR@/quarto4200.conf Quarto_4200\n"
    "usb 0x2f4a 0x0326 @MODELDIR@/quarto3260.conf Quarto_3260\n"
    "DISCOVER_NET_FLAG=0\n"
    "DEVICE_LIST_ORDER_MODE=0\n";

std::vector<std::string> listed(const qt::SaneEnv& sane) {
    int rc = 0;
    std::string err;
    std::vector<std::string> lines = sane.listDevices(&rc, &err);
    EXPECT_EQ(0, rc) << err;
    return lines;
}

TEST(Listing, DevicesInBusOrderWithVendorAndModel) {
    qt::TempDir dir;
    std::string scenario = dir.file("list.scn");
    qt::writeFile(scenario,
                  "bus 001\nbus 003\n"
                  "device 003 002 vid=0x2f4a pid=0x0326\nmanufacturer Tarvesk\nproduct Quarto 3260\nversion 326\n"
                  "device 001 007 vid=0x2f4a pid=0x0402\nmanufacturer Tarvesk International\nproduct Quarto 4200\n"
                  "version 402\n"
                  // not in quarto.conf
                  "device 001 008 vid=0x2f4a pid=0x0999\nmanufacturer Tarvesk\nproduct Quarto 9990\n"
                  "device 001 009 vid=0x2f4a pid=0x0500\nmanufacturer Tarvesk\nproduct Quarto 5100\n");
    qt::SaneEnv sane(std::string(CONF_HEAD) + "DISCOVER_USB_FLAG=1\n", scenario);
    std::vector<std::string> expected = {
        "device `quarto:libusb/001/007' is a Tarvesk Quarto 4200 Scanner",
        "device `quarto:libusb/001/009' is a Tarvesk Quarto 5100 Scanner",
        "device `quarto:libusb/003/002' is a Tarvesk Quarto 3260 Scanner",
    };
    EXPECT_EQ(expected, listed(sane));
}

// A device that has no manufacturer or no product string lists with that piece
// empty, under its bus and device numbers, and opens and scans like any other.
TEST(Listing, DeviceWithoutVendorOrProductStringListsAndScans) {
    qt::TempDir dir;
    std::string scenario = dir.file("nostrings.scn");
    const char* const props = "props major=4 minor=1 codeset=1 compression=0 align_color=4 align_gray=4\n"
                              "source type=1 bar=0 origin=0 width=10200 height=14031\nres 150 150 0\n";
    qt::writeFile(scenario, std::string("bus 001\n") +
                                "device 001 004 vid=0x2f4a pid=0x0326\nproduct Quarto 3260\nversion 326\n" + props +
                                "device 001 005 vid=0x2f4a pid=0x0326\nmanufacturer Tarvesk\nversion 326\n" + props +
                                "device 001 006 vid=0x2f4a pid=0x0326\nversion 326\n" + props);
    qt::SaneEnv sane(std::string(CONF_HEAD) + "DISCOVER_USB_FLAG=1\n", scenario);
    std::vector<std::string> expected = {
        "device `quarto:libusb/001/004' is a  Quarto 3260 Scanner",
        "device `quarto:libusb/001/005' is a Tarvesk  Scanner",
        "device `quarto:libusb/001/006' is a   Scanner",
    };
    EXPECT_EQ(expected, listed(sane));

    for (const char* device : {"quarto:libusb/001/004", "quarto:libusb/001/006"}) {
        std::string out, err;
        ASSERT_EQ(0, sane.scanimage(e2e::scanArgs(device, e2e::GRAY, e2e::BUSINESS_CARD, 150), &out, &err, {}, 60))
            << device << ": " << err;
        e2e::Pnm img;
        std::string why;
        ASSERT_TRUE(e2e::parsePnm(out, &img, &why)) << why;
        EXPECT_EQ(e2e::pagePixels(e2e::BUSINESS_CARD, 150, 0), img.iWidth) << device;
        EXPECT_EQ(e2e::pageLines(e2e::BUSINESS_CARD, 150, 0), img.iHeight) << device;
        e2e::Window w = e2e::lastWindow(qt::readFile(sane.simLogPath()));
        EXPECT_EQ("", e2e::compareLines(img, [&](int row) { return e2e::deviceLine(w, row); })) << device;
    }
}

TEST(Listing, UnknownIdentifiersAndUsbDiscoveryOffListNothing) {
    qt::TempDir dir;
    std::string scenario = dir.file("unknown.scn");
    qt::writeFile(scenario, "bus 001\ndevice 001 004 vid=0x2f4b pid=0x0500\nmanufacturer Tarvesk\nproduct X\n");
    qt::SaneEnv unknown(std::string(CONF_HEAD) + "DISCOVER_USB_FLAG=1\n", scenario);
    EXPECT_TRUE(listed(unknown).empty());

    std::string known = dir.file("known.scn");
    qt::writeFile(known, "bus 001\ndevice 001 004 vid=0x2f4a pid=0x0500\nmanufacturer Tarvesk\nproduct X\n");
    qt::SaneEnv off(std::string(CONF_HEAD) + "DISCOVER_USB_FLAG=0\n", known);
    EXPECT_TRUE(listed(off).empty());
}

TEST(Listing, DemoScenarioMatchesTheDemoConfiguration) {
    qt::SaneEnv sane(qt::readFile(qt::sourceDir() + "/etc/demo/quarto.conf.in"),
                     qt::sourceDir() + "/sim/scenarios/demo.scn");
    std::vector<std::string> expected = {
        "device `quarto:libusb/001/004' is a Tarvesk Quarto 5100 Scanner",
        "device `quarto:libusb/001/005' is a Tarvesk Quarto 4200 Scanner",
    };
    EXPECT_EQ(expected, listed(sane));
}

}  // namespace
