// The USB transport and the device list against the in-process simulated
// scanner: enumeration, open/claim/close statuses, re-plug, the command
// exchange with its exact bytes, and the scan data stream.
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <usb.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "CResponse.h"
#include "ConfigReader.h"
#include "DataBuffer.h"
#include "Device.h"
#include "ICommand.h"
#include "IOComm.h"
#include "ImageData.h"
#include "SaneConfReader.h"
#include "WicketEncoder.h"
#include "WicketReference.h"
#include "netns.h"
#include "testutil.h"
#include "usbsim.h"

using Bytes = std::vector<unsigned char>;

// ----------------------------------------------------------------------------
// Faults the simulator cannot produce (a failing usb_close, a claim refused
// with something other than busy), a device that never stops sending, and a
// look at the signal mask during a bulk write: these libusb calls are wrapped
// here and pass through unless armed.
namespace {
int g_babbleReads = 0;   // non-zero: the next bulk reads return this many full chunks of data
int g_closeResult = 0;   // non-zero: usb_close closes, then reports this
int g_claimResult = 0;   // non-zero: usb_claim_interface reports this
bool g_writeSawAllBlocked = false;
int g_writesSeen = 0;

template <typename F>
F realFunction(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}
}  // namespace

extern "C" int usb_bulk_read(usb_dev_handle* h, int ep, char* bytes, int size, int timeout) {
    static auto real = realFunction<int (*)(usb_dev_handle*, int, char*, int, int)>("usb_bulk_read");
    if (g_babbleReads > 0) {
        --g_babbleReads;
        memset(bytes, 0x55, (size_t)size);
        return size;
    }
    return real(h, ep, bytes, size, timeout);
}

extern "C" int usb_close(usb_dev_handle* h) {
    static auto real = realFunction<int (*)(usb_dev_handle*)>("usb_close");
    int rc = real(h);
    return g_closeResult != 0 ? g_closeResult : rc;
}

extern "C" int usb_claim_interface(usb_dev_handle* h, int iface) {
    static auto real = realFunction<int (*)(usb_dev_handle*, int)>("usb_claim_interface");
    return g_claimResult != 0 ? g_claimResult : real(h, iface);
}

extern "C" int usb_bulk_write(usb_dev_handle* h, int ep, const char* bytes, int size, int timeout) {
    static auto real = realFunction<int (*)(usb_dev_handle*, int, const char*, int, int)>("usb_bulk_write");
    sigset_t now;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    g_writeSawAllBlocked = sigismember(&now, SIGINT) == 1 && sigismember(&now, SIGTERM) == 1 &&
                           sigismember(&now, SIGALRM) == 1 && sigismember(&now, SIGUSR1) == 1;
    ++g_writesSeen;
    return real(h, ep, bytes, size, timeout);
}

namespace {

const int VID = 0x2f4a;

// One Tarvesk device on bus 001 as file 004, vendor-class interface 0 with
// bulk endpoints 0x81/0x02, plus the extra scenario lines.
std::string oneDevice(int version, const std::string& extra = "") {
    return "bus 001\ndevice 001 004 vid=0x2f4a pid=0x0500 class=0\ninterface class=255 ep=0x81,0x02\n"
           "manufacturer Tarvesk\nproduct Quarto 5100\nversion " + std::to_string(version) + "\n" + extra;
}

char kName[] = "Tarvesk/Quarto 5100/libusb:001:004";

class UsbTest : public ::testing::Test {
protected:
    void TearDown() override {
        comm.reset();
        g_closeResult = g_claimResult = g_writesSeen = g_babbleReads = 0;
        usbsim_reset();
    }

    void load(const std::string& scenario) { ASSERT_EQ(0, usbsim_load_text(scenario.c_str())); }

    // Loads the scenario and makes a transport for the device 001/004.
    IOComm* make(const std::string& scenario) {
        load(scenario);
        comm.reset(new IOComm());
        comm->setDevice(kName);
        comm->setConfigReader(&store);
        return comm.get();
    }

    // A command object of the given version over the test's option store.
    ICommand* command(int version) {
        cmd.reset(ICommand::createCmdInstance(version, 1, 0));
        cmd->setConfigReader(&store);
        cmd->setNpa(0);
        comm->setCommand(cmd.get());
        return cmd.get();
    }

    void options(std::initializer_list<std::pair<const char*, int>> values) {
        for (const auto& kv : values) store.SetIntOption(kv.first, kv.second);
    }
    // Compressed mode with the image geometry the band decoder reads.
    void compressedImage(int pixels, int lines, int depth) {
        options({{"COMPRESSION", 1}, {"PIXELS_PER_LINE", pixels}, {"LINES", lines}, {"COLORDEPTH", depth}});
    }

    std::string events() { return usbsim_events(); }
    bool hasEvent(const std::string& e) { return countEvents(e) > 0; }
    int countEvents(const std::string& e) {
        std::string ev = events();
        int n = 0;
        for (size_t p = ev.find(e); p != std::string::npos; p = ev.find(e, p + 1)) ++n;
        return n;
    }

    Bytes write(int index) {
        Bytes b(256);
        int n = usbsim_get_write(0, index, b.data(), (int)b.size());
        b.resize(n > 0 ? (size_t)n : 0);
        return b;
    }

    void inject(const Bytes& b) { ASSERT_EQ(0, usbsim_inject(0, b.data(), (int)b.size())); }

    ConfigReader store;
    std::unique_ptr<ICommand> cmd;
    std::unique_ptr<IOComm> comm;
};

std::vector<std::string> takeNames(char** list, int count) {
    std::vector<std::string> v;
    for (int i = 0; i < count; ++i) {
        v.push_back(list[i]);
        free(list[i]);
    }
    free(list);
    return v;
}

// Everything a DataBuffer holds, taken out.
Bytes drain(DataBuffer& b) {
    Bytes got((size_t)b.GetRawDataSize());
    b.SetProcessedDataSize(b.GetRawDataSize());
    b.GetProcessedData(got.data(), (int)got.size());
    return got;
}

// A 326 device with a 326 command object, opened.
class Open326 : public UsbTest {
protected:
    void SetUp() override {
        make(oneDevice(326));
        command(326);
        ASSERT_EQ(0, comm->openDevice());
    }
};

// ---------------------------------------------------------------- enumeration

TEST_F(UsbTest, EnumerationNamesQualifyingInterfacesInBusOrder) {
    load("bus 001\nbus 002\n"
         // renamed vendor, vendor-class device: listed once
         "device 002 007 vid=0x2f4a pid=0x0402 class=0\ninterface class=255\n"
         "manufacturer Tarvesk International\nproduct Quarto 4200\n"
         // two qualifying interfaces (class 16 and class 0): listed twice
         "device 001 003 vid=0x2f4a pid=0x0500 class=0\ninterface class=16\ninterface class=0\n"
         "manufacturer Tarvesk\nproduct Quarto 5100\n"
         // identifiers not in the configuration: skipped
         "device 001 004 vid=0x1234 pid=0x0500 class=0\ninterface class=255\n"
         // a printer interface does not qualify, the second does; no strings at all
         "device 001 005 vid=0x2f4a pid=0x0401 class=0\ninterface class=7\ninterface class=255\n"
         // an interface without alternate settings does not qualify
         "device 001 009 vid=0x2f4a pid=0x0500 class=0\ninterface class=255 alts=0\n"
         // a hub-class device never qualifies
         "device 001 006 vid=0x2f4a pid=0x0326 class=9\ninterface class=255\n"
         // vendor device class: every interface qualifies; string indices without strings
         "device 002 008 vid=0x2f4a pid=0x0326 class=255\ninterface class=7\nimanufacturer 5\niproduct 6\n"
         // cannot be opened: strings unreadable
         "device 002 010 vid=0x2f4a pid=0x0401 class=0\ninterface class=255\nmanufacturer Tarvesk\n"
         "product Quarto 4010\nfault open_fail 1\n");
    SaneConfReader conf;
    conf.Add(VID, 0x0500, "a.conf", "Quarto 5100");
    conf.Add(VID, 0x0402, "b.conf", "Quarto 4200");
    conf.Add(VID, 0x0401, "c.conf", "Quarto 4010");
    conf.Add(VID, 0x0326, "d.conf", "Quarto 3260");
    IOComm comm;
    char** list = nullptr;
    int count = -1;
    ASSERT_EQ(0, comm.getScanners(&list, &count, &conf));
    std::vector<std::string> expected = {
        "Tarvesk/Quarto 5100/libusb:001:003", "Tarvesk/Quarto 5100/libusb:001:003", "//libusb:001:005",
        "Tarvesk/Quarto 4200/libusb:002:007", "Unknown Vendor/Unknown Scanner/libusb:002:008",
        "Unknown Vendor/Unknown Scanner/libusb:002:010"};
    EXPECT_EQ(expected, takeNames(list, count));
}

// ---------------------------------------------------------------- device list

struct ListCase {
    const char* order;
    const char* usbFlag;
    const char* netFlag;
    int expected;  // devices listed (the scenario has two)
};
class DeviceList : public ::testing::TestWithParam<ListCase> {};

TEST_P(DeviceList, OrderModeAndFlagsDecideWhatIsGathered) {
    const ListCase& c = GetParam();
    // Network discovery sends its query inside a namespace without a route,
    // where it fails at once and lists nothing.
    std::string why;
    if (!qt::privateNetwork(false, &why)) GTEST_SKIP() << why;
    ASSERT_EQ(0, usbsim_load_text(("bus 001\ndevice 001 002 vid=0x2f4a pid=0x0500\nmanufacturer Tarvesk\n"
                                   "product A\ndevice 001 003 vid=0x2f4a pid=0x0326\nmanufacturer Tarvesk\n"
                                   "product B\n")));
    qt::TempDir dir;
    std::string text = "usb 0x2f4a 0x0500 /x/a.conf A\nusb 0x2f4a 0x0326 /x/b.conf B\n";
    if (c.order) text += std::string("DEVICE_LIST_ORDER_MODE=") + c.order + "\n";
    if (c.usbFlag) text += std::string("DISCOVER_USB_FLAG=") + c.usbFlag + "\n";
    if (c.netFlag) text += std::string("DISCOVER_NET_FLAG=") + c.netFlag + "\n";
    qt::writeFile(dir.file("quarto.conf"), text);
    SaneConfReader conf;
    ASSERT_EQ(1, conf.LoadConf(dir.file("quarto.conf").c_str()));
    char** list = reinterpret_cast<char**>(1);
    int count = -7;
    ASSERT_EQ(0, Device::getScanners(&list, &count, &conf));
    ASSERT_EQ(c.expected, count);
    if (c.expected == 0) {
        EXPECT_EQ(nullptr, list);
    }
    std::vector<std::string> names = takeNames(count > 0 ? list : nullptr, count);
    if (c.expected == 2) {
        EXPECT_EQ((std::vector<std::string>{"Tarvesk/A/libusb:001:002", "Tarvesk/B/libusb:001:003"}), names);
    }
    usbsim_reset();
}
INSTANTIATE_TEST_SUITE_P(Modes, DeviceList,
                         ::testing::Values(ListCase{"0", "1", "1", 2}, ListCase{"1", "1", "1", 2},
                                           ListCase{"2", "1", "1", 0}, ListCase{nullptr, "1", "0", 0},
                                           ListCase{"0", nullptr, "0", 0}, ListCase{"0", "yes", "0", 0}));

// Gathering both lists relies on the per-transport form appending to what
// the list already holds.
TEST_F(UsbTest, PerTransportListingAppends) {
    load("bus 001\ndevice 001 002 vid=0x2f4a pid=0x0500\n");
    SaneConfReader conf;
    qt::TempDir dir;
    qt::writeFile(dir.file("q.conf"), "usb 0x2f4a 0x0500 /x/a.conf A\nDISCOVER_USB_FLAG=1\n");
    ASSERT_EQ(1, conf.LoadConf(dir.file("q.conf").c_str()));
    char** list = nullptr;
    int count = 0;
    EXPECT_EQ(1, Device::getScanners(&list, &count, &conf, 2, "DISCOVER_USB_FLAG"));
    EXPECT_EQ(1, Device::getScanners(&list, &count, &conf, 2, "DISCOVER_USB_FLAG"));
    EXPECT_EQ((std::vector<std::string>{"//libusb:001:002", "//libusb:001:002"}), takeNames(list, count));
}

// ---------------------------------------------------------------- open/close

TEST_F(UsbTest, OpenClaimsTheFirstQualifyingInterfaceAndCloseResetsOnlyWhenAsked) {
    make("bus 001\ndevice 001 004 vid=0x2f4a pid=0x0500 class=0\n"
         "interface class=7 ep=0x81,0x02\ninterface class=255 ep=0x83,0x04\nconfig 3\n");
    ASSERT_EQ(0, comm->openDevice());
    EXPECT_EQ(VID, comm->getVid());
    EXPECT_EQ(0x0500, comm->getPid());
    EXPECT_TRUE(hasEvent("setconfig dev=0 value=3 rc=0")) << events();
    EXPECT_TRUE(hasEvent("claim dev=0 iface=1 rc=0")) << events();
    unsigned char b[2] = {1, 2};
    ASSERT_EQ(0, comm->Write(b, 2));
    EXPECT_EQ(0x04, usbsim_write_endpoint(0, 0));
    EXPECT_EQ(0, comm->openDevice()) << "an open device opens again with 0";
    EXPECT_EQ(0, comm->closeDevice());
    EXPECT_TRUE(hasEvent("release dev=0 iface=1 rc=0")) << events();
    EXPECT_EQ(0, comm->closeDevice()) << "closing a closed device is 0";
    EXPECT_FALSE(hasEvent("reset dev=0"));
    store.SetIntOption("USB_RESET_FLAG", 1);
    ASSERT_EQ(0, comm->openDevice());
    ASSERT_EQ(0, comm->closeDevice());
    EXPECT_TRUE(hasEvent("reset dev=0 rc=0")) << events();
}

// A device none of whose interfaces qualifies is not present for this
// transport: nothing is claimed, neither interface 0 nor the number of the
// device opened before it.
TEST_F(UsbTest, DeviceWithoutAQualifyingInterfaceIsNotPresentAndNothingIsClaimed) {
    make("bus 001\ndevice 001 004 vid=0x2f4a pid=0x0500 class=0\n"
         "interface class=7 ep=0x81,0x02\ninterface class=255 ep=0x83,0x04\n"
         "device 001 005 vid=0x2f4a pid=0x0500 class=0\ninterface class=7 ep=0x81,0x02\n"
         "interface class=8 ep=0x83,0x04\n");
    ASSERT_EQ(0, comm->openDevice());
    ASSERT_TRUE(hasEvent("claim dev=0 iface=1 rc=0")) << events();
    ASSERT_EQ(0, comm->closeDevice());
    char second[] = "Tarvesk/Quarto 5100/libusb:001:005";
    comm->setDevice(second);
    EXPECT_EQ(7, comm->openDevice());
    EXPECT_FALSE(hasEvent("claim dev=1")) << events();

    for (char* name : {second, kName}) {
        IOComm fresh;
        fresh.setConfigReader(&store);
        fresh.setDevice(name);
        EXPECT_EQ(name == second ? 7 : 0, fresh.openDevice()) << name;
        unsigned char b[2] = {1, 2};
        EXPECT_EQ(name == second ? 4 : 0, fresh.Write(b, 2)) << "a refused device stays closed";
    }
    EXPECT_FALSE(hasEvent("claim dev=1")) << events();
    EXPECT_EQ(countEvents("open dev=1"), countEvents("close dev=1")) << "each handle opened to look is closed again: "
                                                                     << events();
}

TEST_F(UsbTest, WriteBlocksEverySignalAndRestoresTheMask) {
    make(oneDevice(500));
    sigset_t before;
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    unsigned char b[3] = {7, 8, 9};
    ASSERT_EQ(0, comm->Write(b, 3));
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(1, g_writesSeen);
    EXPECT_TRUE(g_writeSawAllBlocked);
    EXPECT_EQ(sigismember(&before, SIGINT), sigismember(&after, SIGINT));
    EXPECT_EQ(0, sigismember(&after, SIGUSR1));
    EXPECT_EQ((Bytes{7, 8, 9}), write(0));
}

struct OpenCase {
    const char* label;
    std::string extra;  // scenario lines
    int expected;
    bool closed;        // the device ends closed (a read reports 4)
    int detaches;       // detach attempts expected
};
class OpenStatus : public UsbTest, public ::testing::WithParamInterface<OpenCase> {};

TEST_P(OpenStatus, OpenReportsEachFailure) {
    const OpenCase& c = GetParam();
    make(oneDevice(500, c.extra));
    EXPECT_EQ(c.expected, comm->openDevice()) << events();
    unsigned char buf[16];
    int len = sizeof(buf);
    if (c.closed)
        EXPECT_EQ(4, comm->Read(buf, &len));
    else
        EXPECT_NE(4, comm->Read(buf, &len));
    EXPECT_EQ(c.detaches, countEvents("detach dev=0")) << events();
}
INSTANTIATE_TEST_SUITE_P(
    Faults, OpenStatus,
    ::testing::Values(OpenCase{"open_fails", "fault open_fail 1\n", 8, true, 0},
                      OpenCase{"eperm_closes", "fault setconfig_eperm 1\n", 9, true, 0},
                      OpenCase{"driver_detached_once", "fault busy 1\n", 0, false, 1},
                      OpenCase{"claim_busy_after_detach", "fault busy 3\n", 10, true, 1},
                      OpenCase{"detach_refused_stays_open", "fault busy 2\n", -EPERM, false, 1}),
    [](const ::testing::TestParamInfo<OpenCase>& i) { return std::string(i.param.label); });

TEST_F(UsbTest, ClaimRefusedForAnotherReasonIsPassedOnAndTheDeviceStaysOpen) {
    make(oneDevice(500));
    g_claimResult = -EACCES;
    EXPECT_EQ(-EACCES, comm->openDevice());
    EXPECT_FALSE(hasEvent("detach")) << events();
    g_claimResult = 0;
    unsigned char buf[8];
    int len = sizeof(buf);
    EXPECT_EQ(15, comm->Read(buf, &len)) << "still open: the read reaches the bus";
}

TEST_F(UsbTest, MissingDeviceAndClosedDevice) {
    make(oneDevice(500));
    char gone[] = "Tarvesk/Quarto 5100/libusb:001:099";
    comm->setDevice(gone);
    EXPECT_EQ(7, comm->openDevice());
    EXPECT_EQ(2, comm->setDevice(nullptr));
    unsigned char b[4] = {1, 2, 3, 4};
    EXPECT_EQ(4, comm->Write(b, 4));
    EXPECT_EQ(0, usbsim_write_count(0)) << "nothing reaches the bus";
    int len = 4;
    EXPECT_EQ(4, comm->Read(b, &len));
}

TEST_F(UsbTest, EndpointsMissingForOneDirection) {
    make("bus 001\ndevice 001 004 vid=0x2f4a pid=0x0500\ninterface class=255 ep=0x81\n");
    unsigned char b[4] = {0};
    EXPECT_EQ(6, comm->Write(b, 4));
    comm.reset();
    usbsim_reset();
    make("bus 001\ndevice 001 004 vid=0x2f4a pid=0x0500\ninterface class=255 ep=0x02\n");
    ASSERT_EQ(0, comm->openDevice());
    int len = 4;
    EXPECT_EQ(6, comm->Read(b, &len));
}

TEST_F(UsbTest, BulkFailures) {
    make(oneDevice(500, "fault write_fail 0\nfault read_timeout 0\n"));
    unsigned char b[8] = {1};
    EXPECT_EQ(14, comm->Write(b, 8));
    int len = 8;
    EXPECT_EQ(15, comm->Read(b, &len));
    EXPECT_EQ(0, len);
    command(500);
    EXPECT_EQ(14, comm->writeCommand(1, nullptr));
}

TEST_F(UsbTest, CloseFailures) {
    make(oneDevice(500));
    ASSERT_EQ(0, comm->openDevice());
    g_closeResult = -EIO;
    EXPECT_EQ(12, comm->closeDevice());
    g_closeResult = 0;
    // The handle is gone even so: the next open opens afresh.
    ASSERT_EQ(0, comm->openDevice());
    EXPECT_EQ(2, countEvents("open dev=0")) << events();
    ASSERT_EQ(0, usbsim_unplug(0));
    EXPECT_EQ(13, comm->closeDevice());
}

TEST_F(UsbTest, ReplugAdoptsTheNewNumbersAndAGoneDeviceIsNotPresent) {
    make(oneDevice(500));
    ASSERT_EQ(0, comm->openDevice());
    ASSERT_EQ(0, comm->closeDevice());
    ASSERT_EQ(0, usbsim_replug(0, "003", "011"));
    ASSERT_EQ(0, comm->openDevice());
    EXPECT_STREQ("003", comm->getBus());
    EXPECT_STREQ("011", comm->getDev());
    EXPECT_TRUE(hasEvent("open dev=0 bus=003 file=011")) << events();
    ASSERT_EQ(0, comm->closeDevice());
    ASSERT_EQ(0, usbsim_unplug(0));
    EXPECT_EQ(7, comm->openDevice());
}

// ----------------------------------------------------------- command exchange

struct ReplyCase {
    const char* fault;
    int value;
    int expected;  // writeCommand's result for a status request (id 1)
    int leftQueued;
};
class ReplyRetries : public UsbTest, public ::testing::WithParamInterface<ReplyCase> {};

TEST_P(ReplyRetries, ReadsAtMostThreeRepliesForTheExpectedId) {
    const ReplyCase& c = GetParam();
    make(oneDevice(500, std::string("fault ") + c.fault + " " + std::to_string(c.value) + "\n"));
    command(500);
    CResponse reply;
    EXPECT_EQ(c.expected, comm->writeCommand(1, &reply));
    EXPECT_EQ(c.leftQueued, usbsim_queued(0));
    EXPECT_EQ((Bytes{0x1B, 0x53, 0x04, 0x00, 0x00, 0x00, 0x80, 0x00}), write(0));
}
INSTANTIATE_TEST_SUITE_P(Faults, ReplyRetries,
                         ::testing::Values(ReplyCase{"wrong_code", 0, 1, 0}, ReplyCase{"wrong_code", 2, 1, 0},
                                           // a status request answered with the unlock code (kind 5)
                                           ReplyCase{"wrong_code", 3, 5, 1}, ReplyCase{"wrong_code", 4, 5, 2},
                                           ReplyCase{"short_reply", 5, 15, 0}, ReplyCase{"read_timeout", 0, 15, 1}),
                         [](const ::testing::TestParamInfo<ReplyCase>& i) {
                             return std::string(i.param.fault) + "_" + std::to_string(i.param.value);
                         });

TEST_F(UsbTest, CommandWithoutObjectOrWithoutBytes) {
    make(oneDevice(326));
    EXPECT_EQ(2, comm->writeCommand(1, nullptr));
    command(326);
    EXPECT_EQ(5, comm->writeCommand(99, nullptr));
    EXPECT_EQ(0, usbsim_write_count(0));
}

TEST_F(UsbTest, CancelIsSentWithoutWaitingAndPropertiesFillTheReply) {
    make(oneDevice(402, "props major=5 support=3\nsource type=1 width=10200 height=14040\nres 300 300 3\n"));
    command(402);
    EXPECT_EQ(0, comm->writeCommand(0, nullptr));
    EXPECT_EQ((Bytes{0x1B, 0x53, 0x0F, 0x00, 0x00, 0x00, 0x00, 0x00}), write(0));
    CResponse reply;
    EXPECT_EQ(2, comm->writeCommand(2, &reply));
    EXPECT_EQ((Bytes{0x1B, 0x53, 0x03, 0x00, 0x00, 0x00, 0x80, 0x00}), write(1));
    ASSERT_NE(nullptr, reply.getProperties());
    EXPECT_EQ(5, reply.getProperties()->getMajor());
}

Bytes join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

// ------------------------------------------------------------ exact fetches

TEST_F(Open326, FetchDataKeepsTheSurplusAndRereadsItsStart) {
    inject({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
    inject({10, 11, 12, 13, 14, 15});
    Bytes out(8, 0xFF);
    ASSERT_EQ(0, comm->fetchData(4, out.data()));
    EXPECT_EQ((Bytes{0, 1, 2, 3}), Bytes(out.begin(), out.begin() + 4));
    ASSERT_EQ(0, comm->fetchData(3, out.data()));
    EXPECT_EQ((Bytes{4, 5, 6}), Bytes(out.begin(), out.begin() + 3));
    // Three surplus bytes are left; they are taken from the start of the
    // surplus again (deliberately), then the next chunk follows.
    ASSERT_EQ(0, comm->fetchData(5, out.data()));
    EXPECT_EQ((Bytes{4, 5, 6, 10, 11}), Bytes(out.begin(), out.begin() + 5));
    ASSERT_EQ(0, comm->fetchData(4, out.data()));
    EXPECT_EQ((Bytes{12, 13, 14, 15}), Bytes(out.begin(), out.begin() + 4));
    EXPECT_EQ(15, comm->fetchData(1, out.data()));
}

// A message whose data part never comes fails whole: nothing is handed out.
// (Messages split over transfers are read by the multi-page reader's tests.)
TEST_F(Open326, FetchMessageWhoseDataPartNeverCompletesFails) {
    inject({0x1B, 0x53, 0x02, 0x00, 0x05, 0x00, 0x80, 0x00, 0x01});
    unsigned char* msg = nullptr;
    unsigned int len = 0;
    EXPECT_EQ(15, comm->fetchMessage(&msg, &len)) << "the data part never completes";
    EXPECT_EQ(nullptr, msg);
}

// ------------------------------------------------------------ scan data stream

// Transfers in, expected result and image bytes out (Cmd326: 9-byte headers,
// length field = payload + 1).
struct StreamCase {
    const char* label;
    std::vector<Bytes> transfers;
    std::vector<int> results;  // one per ReadImage call
    Bytes image;
};
class ReadStream : public Open326, public ::testing::WithParamInterface<StreamCase> {};

TEST_P(ReadStream, ReadImageStripsHeadersAndReturnsRecordCodes) {
    const StreamCase& c = GetParam();
    for (const Bytes& t : c.transfers) inject(t);
    DataBuffer out;
    ImageData image;
    int total = 0;
    for (size_t i = 0; i < c.results.size(); ++i) {
        int n = -1;
        EXPECT_EQ(c.results[i], comm->ReadImage(&n, &out, &image)) << "call " << i;
        if (c.results[i] == 0) total += n;
    }
    Bytes got = drain(out);
    EXPECT_EQ(c.image, got);
    EXPECT_EQ((int)c.image.size(), total);
    EXPECT_EQ(0, image.GetInterleave());
}
const Bytes H5 = {0x1B, 0x53, 0x02, 0x00, 0x06, 0x00, 0x00, 0x00, 0x00};  // 5 payload bytes
const Bytes H3 = {0x1B, 0x53, 0x02, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00};  // 3 payload bytes
Bytes record(unsigned char status) { return {0x1B, 0x53, 0x02, 0x00, 0x02, 0x00, 0x00, 0x00, status, 0x00}; }
INSTANTIATE_TEST_SUITE_P(
    Streams, ReadStream,
    ::testing::Values(
        StreamCase{"two_blocks_in_one_chunk", {join({H5, {1, 2, 3, 4, 5}, H3, {6, 7, 8}})}, {0}, {1, 2, 3, 4, 5, 6, 7, 8}},
        StreamCase{"second_header_split",
                   {join({H5, {1, 2, 3, 4, 5}, {0x1B, 0x53, 0x02}}), {0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 6, 7, 8}},
                   {0, 0},
                   {1, 2, 3, 4, 5, 6, 7, 8}},
        // a status-0 record is framed data: its length field (2) covers the byte after the header
        StreamCase{"status_zero_record_is_data", {record(0), join({H3, {6, 7, 8}})}, {0, 0}, {0, 6, 7, 8}},
        StreamCase{"complete", {join({H3, {6, 7, 8}}), record(1)}, {0, 1}, {6, 7, 8}},
        StreamCase{"jam", {record(5)}, {5}, {}},
        StreamCase{"page_start_without_interleave", {record(9)}, {9}, {}},
        // byte 10 says interleave, but the record ends before the fields
        StreamCase{"interleave_cut_short", {join({record(9), {0x01, 0x10, 0x00}})}, {9}, {}},
        StreamCase{"short_record_is_data", {{0x1B, 0x53, 0x02, 0x00, 0x04}, {0x00, 0x00, 0x00, 0x00, 6, 7, 8}},
                   {0, 0},
                   {6, 7, 8}},
        StreamCase{"read_failure", {}, {15}, {}}),
    [](const ::testing::TestParamInfo<StreamCase>& i) { return std::string(i.param.label); });

TEST_F(Open326, InterleaveRecordFillsTheImageAttributes) {
    inject({0x1B, 0x53, 0x02, 0x00, 0x17, 0x00, 0x00, 0x00, 0x09, 0x00, 0x01, 0x40, 0x01, 0x00, 0x00, 0xC8, 0x00,
            0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00});
    DataBuffer out;
    ImageData image;
    int n = 0;
    EXPECT_EQ(9, comm->ReadImage(&n, &out, &image));
    EXPECT_EQ(1, image.GetInterleave());
    EXPECT_EQ(320, image.GetInterleaveWidth());
    EXPECT_EQ(200, image.GetInterleaveHeight());
    EXPECT_EQ(3, image.GetInterleaveOffsetX());
    EXPECT_EQ(2, image.GetInterleaveOffsetY());
    EXPECT_EQ(5, image.GetInterleaveTrim());
    EXPECT_EQ(0, out.GetAllDataSize());
}

// ------------------------------------------------------------ compressed mode

// A page of Wicket bands made by the project's encoder (byte stuffing, as a
// device sends them) and what the plain reference decoder makes of them.
struct EncodedPage {
    Bytes bands;
    Bytes image;  // lines of width x planes bytes
    std::vector<size_t> bandStarts;
};

EncodedPage encodePage(int width, int lines, int depth, int bandLines, int seed) {
    const int planes = depth == 2 ? 3 : 1;
    Bytes pixels((size_t)width * (size_t)lines * (size_t)planes);
    for (size_t i = 0; i < pixels.size(); ++i) {
        const size_t x = i / (size_t)planes % (size_t)width, y = i / (size_t)planes / (size_t)width;
        pixels[i] = (unsigned char)(x * 5 + y * 3 + (i % (size_t)planes) * 70 + (size_t)seed * 40);
    }
    WicketEncodeOptions options;
    options.iBandLines = bandLines;
    std::vector<uint8_t> bands = wicketEncodeImage(pixels.data(), width, lines, planes, options);
    EncodedPage page;
    page.bands.assign(bands.begin(), bands.end());
    for (size_t pos = 0; pos + 16 <= page.bands.size();) {
        page.bandStarts.push_back(pos);
        pos += (size_t)page.bands[pos] << 24 | (size_t)page.bands[pos + 1] << 16 | (size_t)page.bands[pos + 2] << 8 |
               page.bands[pos + 3];
    }
    std::vector<uint8_t> image;
    int decodedWidth = 0;
    EXPECT_EQ(0, wicketref::decodeStream(bands.data(), bands.size(), planes, &image, &decodedWidth));
    page.image.assign(image.begin(), image.end());
    return page;
}

// Overwrites the coded data of band `index` with 1 bits (0xFF, each followed by
// its stuffed 0x00): no DC code is all ones, so decoding fails with 261.
void breakBand(EncodedPage& page, size_t index) {
    const size_t start = page.bandStarts.at(index);
    const size_t end = index + 1 < page.bandStarts.size() ? page.bandStarts[index + 1] : page.bands.size();
    for (size_t i = start + 16; i < end; ++i) page.bands[i] = (i - start) % 2 == 0 ? 0xFF : 0x00;
}

// The reference image cut or widened with zeros to pixels x lines.
Bytes fitImage(const Bytes& image, int width, int planes, int pixels, int lines) {
    const size_t from = (size_t)width * (size_t)planes, to = (size_t)pixels * (size_t)planes;
    const size_t have = image.size() / from;
    Bytes out((size_t)lines * to, 0);
    for (size_t y = 0; y < (size_t)lines && y < have; ++y)
        std::copy_n(image.begin() + (long)(y * from), std::min(from, to), out.begin() + (long)(y * to));
    return out;
}

class CompressedJob : public Open326 {
protected:
    // Collects a job of these bytes ended by the completion record.
    int collect(const Bytes& bands) {
        inject(bands);
        inject(record(1));
        return comm->readAndDecompressData();
    }
    // Reads pieces into got until ReadImage returns something else than 0 or
    // `calls` pieces came; returns that result (0 when stopped by the count).
    int readOut(Bytes* got, int calls = 1000000, std::vector<int>* pieces = nullptr) {
        DataBuffer out;
        int rc = 0;
        for (int i = 0; i < calls; ++i) {
            int n = -1;
            if ((rc = comm->ReadImage(&n, &out, nullptr)) != 0) break;
            if (pieces != nullptr) pieces->push_back(n);
        }
        Bytes part = drain(out);
        got->insert(got->end(), part.begin(), part.end());
        return rc;
    }
};

TEST_F(CompressedJob, CollectsUntilCompleteAndHandsOutPieces) {
    compressedImage(100, 70, 2);
    inject(record(8));
    inject(record(9));
    inject(Bytes(16, 0));  // a band whose size field is 0 ends decoding
    for (unsigned char status : {0, 7, 1}) inject(record(status));
    inject({0xEE});  // not read: collection stops at the completion record
    ASSERT_EQ(0, comm->readAndDecompressData());
    EXPECT_EQ(1, usbsim_queued(0));
    Bytes got;
    std::vector<int> pieces;
    EXPECT_EQ(1, readOut(&got, 1000000, &pieces));
    EXPECT_EQ((std::vector<int>{16384, 100 * 70 * 3 - 16384}), pieces);
    EXPECT_EQ(100u * 70u * 3u, got.size());
    EXPECT_EQ(1, readOut(&got));
}

// A device that keeps sending without ever completing the job is read only
// up to a bound (for a small image the initial 42,000,000-byte estimate): the
// collection then fails instead of growing with whatever the device sends.
TEST_F(CompressedJob, JobThatNeverEndsIsCutAtABound) {
    compressedImage(8, 8, 1);
    const Bytes junk(8192, 0x11);
    for (int i = 0; i < 42000000 / 8192 + 2; ++i) inject(junk);
    inject(record(1));
    EXPECT_NE(0, comm->readAndDecompressData());
    EXPECT_EQ(2, usbsim_queued(0)) << "read on past the bound";
    Bytes got;
    EXPECT_EQ(1, readOut(&got)) << "nothing to hand out";
}

TEST_F(CompressedJob, EndsWithTheRecordOrTheReadStatus) {
    store.SetIntOption("COMPRESSION", 1);
    inject({1, 2, 3});
    inject(record(5));
    EXPECT_EQ(5, comm->readAndDecompressData());
    inject({1, 2, 3});
    EXPECT_EQ(15, comm->readAndDecompressData());
    store.SetIntOption("COMPRESSION", 0);
    inject({1, 2, 3});
    EXPECT_EQ(0, comm->readAndDecompressData());
    EXPECT_EQ(1, usbsim_queued(0)) << "nothing is read without compression";
}

// Bands that cannot be decoded fail the collection and leave nothing to read.
TEST_F(CompressedJob, UndecodableBandsFailTheCollection) {
    compressedImage(16, 8, 1);
    Bytes cut = encodePage(16, 8, 1, 8, 1).bands;
    cut.resize(cut.size() - 3);
    const std::vector<Bytes> jobs = {
        // 4000 bytes and a width of 2^31 claimed; neither is there.
        {0x00, 0x00, 0x0F, 0xA0, 0x00, 0x00, 0x00, 0x08, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x32, 0x12},
        // Width and lines near 2^32: refused by the dimensions before any size is worked out.
        {0x00, 0x00, 0x00, 0x20, 0xFF, 0x00, 0x00, 0x28, 0xFF, 0xFF, 0xFF, 0xF7, 0x00, 0x00, 0x00, 0x32,
         0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0, 0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0},
        // Size 8: 8 lines of 16 pixels and no data to decode them from.
        {0, 0, 0, 8, 0, 0, 0, 8, 0, 0, 0, 16, 0, 0, 0, 50, 0, 0, 0, 0, 0, 0, 0, 0},
        cut};  // cut short by the end of the job
    for (size_t i = 0; i < jobs.size(); ++i) {
        EXPECT_EQ(1, collect(jobs[i])) << "job " << i;
        Bytes got;
        EXPECT_EQ(1, readOut(&got)) << "job " << i;
        EXPECT_TRUE(got.empty()) << "job " << i;
    }
}

// Band width and lines as encoded, image width and lines as the options give them.
struct PageGeometry {
    const char* label;
    int depth;
    int width;
    int lines;
    int bandLines;
    int pixels;
    int imageLines;
};
class CompressedPages : public CompressedJob, public ::testing::WithParamInterface<PageGeometry> {};

TEST_P(CompressedPages, ComeOutAsTheReferenceDecodesTheBandsInPiecesOf16384AtMost) {
    const PageGeometry& c = GetParam();
    const int planes = c.depth == 2 ? 3 : 1;
    compressedImage(c.pixels, c.imageLines, c.depth);
    EncodedPage page = encodePage(c.width, c.lines, c.depth, c.bandLines, 1);
    ASSERT_EQ(0, collect(page.bands));
    Bytes got;
    std::vector<int> pieces;
    EXPECT_EQ(1, readOut(&got, 1000000, &pieces));
    const Bytes want = fitImage(page.image, c.width, planes, c.pixels, c.imageLines);
    ASSERT_EQ(want.size(), got.size());
    EXPECT_TRUE(want == got) << "first difference at byte "
                             << std::mismatch(want.begin(), want.end(), got.begin()).first - want.begin();
    for (int n : pieces) EXPECT_TRUE(n > 0 && n <= 16384) << n;
}

INSTANTIATE_TEST_SUITE_P(
    Geometry, CompressedPages,
    ::testing::Values(
        // Bands wider than the image lose what lies beyond it.
        PageGeometry{"colour_bands_wider_than_the_image", 2, 48, 24, 8, 41, 24},
        // The last band reaches below the image; below the last band, zeros.
        PageGeometry{"colour_more_lines_sent_than_the_image_holds", 2, 40, 24, 16, 40, 20},
        PageGeometry{"grey_fewer_lines_sent_than_the_image_holds", 1, 40, 24, 8, 40, 30},
        // Bands narrower than the image leave the rest of each line blank.
        PageGeometry{"grey_bands_narrower_than_the_image", 1, 32, 16, 8, 40, 16}),
    [](const ::testing::TestParamInfo<PageGeometry>& i) { return std::string(i.param.label); });

TEST_F(CompressedJob, BandThatFailsInMidPageEndsTheReadAndTheNextScanIsWhole) {
    compressedImage(40, 32, 2);
    EncodedPage page = encodePage(40, 32, 2, 8, 1);
    ASSERT_EQ(4u, page.bandStarts.size());
    EncodedPage broken = page;
    breakBand(broken, 1);
    ASSERT_EQ(0, collect(broken.bands)) << "the headers are sound; the data is decoded when read";
    Bytes got;
    int rc;
    std::string log;
    {
        qt::ScopedEnv env("ENABLE_SL_LOG", "1");
        qt::StderrCapture capture;
        rc = readOut(&got);
        log = capture.finish();
    }
    EXPECT_EQ(15, rc);
    EXPECT_EQ(Bytes(page.image.begin(), page.image.begin() + 8 * 40 * 3), got) << "the first band, whole";
    EXPECT_NE(std::string::npos, log.find("Wicket Error : 261")) << log;
    Bytes after;
    EXPECT_EQ(1, readOut(&after));
    EXPECT_TRUE(after.empty());

    ASSERT_EQ(0, collect(page.bands));
    got.clear();
    EXPECT_EQ(1, readOut(&got));
    EXPECT_TRUE(page.image == got);
}

TEST_F(CompressedJob, BrokenBandBelowTheImageIsReportedAfterTheImage) {
    compressedImage(40, 16, 1);
    EncodedPage page = encodePage(40, 24, 1, 8, 1);
    breakBand(page, 2);
    ASSERT_EQ(0, collect(page.bands));
    Bytes got;
    EXPECT_EQ(15, readOut(&got));
    EXPECT_TRUE(Bytes(page.image.begin(), page.image.begin() + 16 * 40) == got);
}

// A job read in part, then cut off as a session does it; the transport holds
// nothing of it afterwards and the next job comes out whole.
enum class Cut { Clear, Close, NewJob, FailedJob };
class CutJob : public CompressedJob, public ::testing::WithParamInterface<Cut> {};

TEST_P(CutJob, DropsTheRestAndTheNextJobIsWhole) {
    compressedImage(6001, 20, 2);
    EncodedPage first = encodePage(6001, 20, 2, 8, 1);
    EncodedPage second = encodePage(6001, 20, 2, 8, 2);
    ASSERT_EQ(0, collect(first.bands));
    Bytes got;
    ASSERT_EQ(0, readOut(&got, 3));
    ASSERT_TRUE(Bytes(first.image.begin(), first.image.begin() + (long)got.size()) == got);
    Bytes rest;
    switch (GetParam()) {
    case Cut::Clear:
        EXPECT_EQ(0, comm->clear());
        EXPECT_EQ(1, readOut(&rest));
        break;
    case Cut::Close:  // what the session's abort does after cancel and unlock
        EXPECT_EQ(0, comm->closeDevice());
        EXPECT_EQ(1, readOut(&rest));
        ASSERT_EQ(0, comm->openDevice());
        break;
    case Cut::NewJob:
        break;
    case Cut::FailedJob:  // a new job that ends with a paper jam leaves nothing to read either
        inject(record(5));
        EXPECT_EQ(5, comm->readAndDecompressData());
        EXPECT_EQ(1, readOut(&rest));
        break;
    }
    EXPECT_TRUE(rest.empty());
    ASSERT_EQ(0, collect(second.bands));
    got.clear();
    EXPECT_EQ(1, readOut(&got));
    EXPECT_TRUE(second.image == got);
}

std::string cutName(const ::testing::TestParamInfo<Cut>& i) {
    static const char* const NAMES[] = {"clear", "close", "new_job", "failed_job"};
    return NAMES[(int)i.param];
}
INSTANTIATE_TEST_SUITE_P(Ways, CutJob, ::testing::Values(Cut::Clear, Cut::Close, Cut::NewJob, Cut::FailedJob),
                         cutName);

TEST_F(Open326, ClearDrainsUpToTheCompletionRecord) {
    inject(Bytes(9000, 0x55));
    inject(record(7));
    inject(record(1));
    inject({1, 2});
    EXPECT_EQ(0, comm->clear());
    EXPECT_EQ(1, usbsim_queued(0));
    EXPECT_EQ(0, comm->clear());
    EXPECT_EQ(0, usbsim_queued(0));
}

// A device that never stops sending: the drain gives up after a bounded
// number of chunks instead of holding the front end forever.
TEST_F(Open326, ClearOfADeviceThatNeverStopsSendingIsBounded) {
    const int endless = 70000;
    g_babbleReads = endless;
    EXPECT_EQ(0, comm->clear());
    EXPECT_EQ(endless - 65536, g_babbleReads);
    g_babbleReads = 0;
}

}  // namespace
