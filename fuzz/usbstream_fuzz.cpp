// The USB scan data stream as IOComm reads it: records, escape-framed blocks,
// exact-length messages and compressed Wicket bands, all from the device.
//
// Input: byte 0 selects the command version (bits 0-1), compressed mode
// (bit 2), colour (bit 3) and exact-length message reads (bit 4); byte 1 is the
// line width in pixels less one, byte 2 the height in lines less three. The
// rest are device transfers, each a length byte followed by that many bytes.
//
// The fuzz build has no simulator, so a one-device libusb is defined here:
// bulk reads hand out the transfers, everything else succeeds.
#include <usb.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <vector>

#include "ConfigReader.h"
#include "DataBuffer.h"
#include "ICommand.h"
#include "IOComm.h"
#include "ImageData.h"

namespace {

struct FakeBus {
    struct usb_bus bus;
    struct usb_device dev;
    struct usb_config_descriptor config;
    struct usb_interface iface;
    struct usb_interface_descriptor alt;
    struct usb_endpoint_descriptor endpoints[2];
    std::deque<std::vector<unsigned char>> transfers;
    size_t pos = 0;

    FakeBus() {
        memset(&bus, 0, sizeof(bus));
        memset(&dev, 0, sizeof(dev));
        memset(&config, 0, sizeof(config));
        memset(&iface, 0, sizeof(iface));
        memset(&alt, 0, sizeof(alt));
        memset(endpoints, 0, sizeof(endpoints));
        strcpy(bus.dirname, "001");
        strcpy(dev.filename, "002");
        bus.devices = &dev;
        dev.bus = &bus;
        dev.descriptor.idVendor = 0x2f4a;
        dev.descriptor.idProduct = 0x0500;
        dev.descriptor.bNumConfigurations = 1;
        dev.config = &config;
        config.bNumInterfaces = 1;
        config.bConfigurationValue = 1;
        config.interface = &iface;
        iface.num_altsetting = 1;
        iface.altsetting = &alt;
        alt.bInterfaceClass = 255;
        alt.bNumEndpoints = 2;
        alt.endpoint = endpoints;
        endpoints[0].bEndpointAddress = 0x81;
        endpoints[1].bEndpointAddress = 0x02;
    }
};

FakeBus& fake() {
    static FakeBus b;
    return b;
}

char g_error[] = "fake";

}  // namespace

extern "C" {
void usb_init(void) {}
int usb_find_busses(void) { return 0; }
int usb_find_devices(void) { return 0; }
struct usb_bus* usb_get_busses(void) { return &fake().bus; }
usb_dev_handle* usb_open(struct usb_device*) { return reinterpret_cast<usb_dev_handle*>(&fake()); }
int usb_close(usb_dev_handle*) { return 0; }
int usb_get_string_simple(usb_dev_handle*, int, char*, size_t) { return -1; }
int usb_set_configuration(usb_dev_handle*, int) { return 0; }
int usb_claim_interface(usb_dev_handle*, int) { return 0; }
int usb_release_interface(usb_dev_handle*, int) { return 0; }
int usb_detach_kernel_driver_np(usb_dev_handle*, int) { return 0; }
int usb_reset(usb_dev_handle*) { return 0; }
char* usb_strerror(void) { return g_error; }
int usb_bulk_write(usb_dev_handle*, int, const char*, int size, int) { return size; }
int usb_bulk_read(usb_dev_handle*, int, char* bytes, int size, int) {
    FakeBus& b = fake();
    if (b.transfers.empty()) return -110;
    const std::vector<unsigned char>& t = b.transfers.front();
    size_t n = t.size() - b.pos;
    if (n > (size_t)size) n = (size_t)size;
    if (n > 0) memcpy(bytes, t.data() + b.pos, n);
    b.pos += n;
    if (b.pos >= t.size()) {
        b.transfers.pop_front();
        b.pos = 0;
    }
    return (int)n;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    static const int VERSIONS[4] = {326, 401, 402, 500};
    const int version = VERSIONS[data[0] & 3];
    const bool compressed = (data[0] & 4) != 0;  // with 500 only when its own rules say so
    FakeBus& b = fake();
    b.transfers.clear();
    b.pos = 0;
    for (size_t pos = 3; pos < size;) {
        size_t len = data[pos];
        if (len > size - pos - 1) len = size - pos - 1;
        b.transfers.emplace_back(data + pos + 1, data + pos + 1 + len);
        pos += 1 + len;
    }

    ConfigReader store;
    store.SetIntOption("CONNECTION", 1);
    store.SetIntOption("COMPRESSION", compressed ? 1 : 0);
    store.SetIntOption("COLORDEPTH", (data[0] & 8) ? 2 : 1);
    store.SetIntOption("PIXELS_PER_LINE", data[1] + 1);
    store.SetIntOption("LINES", data[2] + 3);
    std::unique_ptr<ICommand> cmd(ICommand::createCmdInstance(version, 1, 0));
    cmd->setConfigReader(&store);
    IOComm comm;
    char name[] = "V/P/libusb:001:002";
    comm.setDevice(name);
    comm.setConfigReader(&store);
    comm.setCommand(cmd.get());
    if (comm.openDevice() != 0) return 0;

    DataBuffer out;
    ImageData image;
    int n = 0;
    if (data[0] & 16) {
        // Exact-length messages until the transfers run out.
        unsigned char* msg = nullptr;
        unsigned int len = 0;
        while (comm.fetchMessage(&msg, &len) == 0) free(msg);
        return 0;
    }
    // Compressed mode collects and decodes the bands first; otherwise this
    // returns at once and ReadImage reads the framed stream.
    if (comm.readAndDecompressData() != 0) return 0;
    while (comm.ReadImage(&n, &out, &image) == 0) {
        if (out.GetRawDataSize() > 65536) out.Reset();
    }
    return 0;
}
