// A one-device libusb-0.1 for the fuzz targets of the USB stream (the fuzz
// build has no simulator): bulk reads hand out the queued transfers one after
// another, a read with nothing queued times out, everything else succeeds.
// Included by one target per executable.
#ifndef QUARTO_FAKEUSB_H
#define QUARTO_FAKEUSB_H

#include <usb.h>

#include <cstdint>
#include <memory>
#include <cstring>
#include <deque>
#include <vector>

#include "ConfigReader.h"
#include "ICommand.h"
#include "IOComm.h"

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

// Queues the transfers of a fuzz input: each a length byte followed by that
// many bytes (cut at the end of the input).
inline void queueTransfers(const uint8_t* data, size_t size) {
    FakeBus& b = fake();
    b.transfers.clear();
    b.pos = 0;
    for (size_t pos = 0; pos < size;) {
        size_t len = data[pos];
        if (len > size - pos - 1) len = size - pos - 1;
        b.transfers.emplace_back(data + pos + 1, data + pos + 1 + len);
        pos += 1 + len;
    }
}

// The fake device's transport with a command object of the version over the
// store; opened, or null when the open failed.
struct FakeDevice {
    std::unique_ptr<ICommand> cmd;
    std::unique_ptr<IOComm> comm;
};

inline FakeDevice openFakeDevice(int version, ConfigReader& store) {
    FakeDevice d;
    d.cmd.reset(ICommand::createCmdInstance(version, 1, 0));
    d.cmd->setConfigReader(&store);
    d.comm.reset(new IOComm());
    char name[] = "V/P/libusb:001:002";
    d.comm->setDevice(name);
    d.comm->setConfigReader(&store);
    d.comm->setCommand(d.cmd.get());
    if (d.comm->openDevice() != 0) d.comm.reset();
    return d;
}

#endif
