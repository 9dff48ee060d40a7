// The libusb-0.1 API over simulated devices, and the control and recording API
// of usbsim.h. Nothing here touches real USB, the network, or blocks: a read
// with nothing queued is a simulated time-out that returns at once.
#include <usb.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "Scenario.h"
#include "SimDevice.h"
#include "usbsim.h"

using usbsim::DeviceConfig;
using usbsim::SimDevice;
using usbsim::textf;

namespace {

// One connection of a device to the bus: the structures libusb hands out.
// They are never freed while the process runs, so a host holding a stale
// pointer after an unplug reads old but valid memory.
struct Incarnation {
    struct usb_device dev {};
    struct usb_config_descriptor config {};
    std::vector<struct usb_interface> interfaces;
    std::vector<std::vector<struct usb_interface_descriptor>> alts;
    std::vector<std::vector<struct usb_endpoint_descriptor>> endpoints;
};

struct Slot {
    std::unique_ptr<SimDevice> engine;
    std::string szBus;
    std::string szFile;
    Incarnation* pInc = nullptr;     // current connection; null while unplugged
    Incarnation* pListed = nullptr;  // connection in the published bus list
    bool bDriverAttached = false;    // a kernel driver holds the interfaces
    std::vector<std::pair<int, std::vector<unsigned char>>> writes;
};

constexpr size_t MAX_EVENTS_TEXT = 8u << 20;
constexpr int MAX_WRITE_HEX = 4096;
constexpr long MAX_SCENARIO_FILE = 1L << 20;
constexpr unsigned char LANGID_EN_US[2] = {0x09, 0x04};
constexpr const char* SIM_KERNEL_DRIVER = "simdrv";

struct State {
    std::mutex mtx;
    bool bLoaded = false;
    unsigned uGeneration = 1;
    std::vector<std::string> busNames;
    std::vector<Slot> slots;
    std::map<std::string, struct usb_bus*> busByName;
    std::set<struct usb_bus*> listedBusses;
    std::vector<std::unique_ptr<struct usb_bus>> busStore;
    std::vector<std::unique_ptr<Incarnation>> incStore;
    std::set<usb_dev_handle*> handles;
    std::string events;
    std::string eventsView;
    bool bEventsCut = false;
    int iLogFd = -1;
    bool bLogChecked = false;
    int iBandFd = -1;           // where the bands of compressed scans are copied
    bool bBandChecked = false;  // QUARTO_USBSIM_BANDS looked at
    char szLastError[256] = "no error";
};

// Created once and never destroyed: a host may call libusb from its own
// static destructors, after ours would have run.
State& st() {
    static State* s = new State;
    return *s;
}

// A file for the simulator's records: appended to, created 0600, never
// through a symbolic link, and only a regular file of this user.
int openRecordFile(const char* path, const char* what) {
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    struct stat sb;
    if (fd >= 0 && (fstat(fd, &sb) != 0 || !S_ISREG(sb.st_mode) || sb.st_uid != geteuid())) {
        close(fd);
        fd = -1;
        errno = EPERM;
    }
    if (fd < 0) fprintf(stderr, "usbsim: cannot open the %s %s: %s\n", what, path, strerror(errno));
    return fd;
}

void writeAll(int fd, const unsigned char* p, size_t n) {
    while (n > 0) {
        ssize_t rc = write(fd, p, n);
        if (rc < 0 && errno == EINTR) continue;
        if (rc <= 0) return;  // a lost record must not change what the host sees
        p += rc;
        n -= static_cast<size_t>(rc);
    }
}

void openLogLocked() {
    State& s = st();
    if (s.bLogChecked) return;
    s.bLogChecked = true;
    const char* path = getenv("QUARTO_USBSIM_LOG");
    if (!path || !*path) return;
    s.iLogFd = openRecordFile(path, "event log");
}

// Copies a band of a compressed scan, as the device sends it, to the band file.
void addBand(const unsigned char* p, size_t n) {
    State& s = st();
    if (!s.bBandChecked) {
        s.bBandChecked = true;
        const char* path = getenv("QUARTO_USBSIM_BANDS");
        if (path && *path) s.iBandFd = openRecordFile(path, "band file");
    }
    if (s.iBandFd >= 0) writeAll(s.iBandFd, p, n);
}

void addEvent(const std::string& line) {
    State& s = st();
    openLogLocked();
    if (s.events.size() + line.size() < MAX_EVENTS_TEXT) {
        s.events += line;
        s.events += '\n';
    } else if (!s.bEventsCut) {
        s.bEventsCut = true;
        s.events += "events cut: log full\n";
    }
    if (s.iLogFd >= 0) {
        std::string l = line + "\n";
        writeAll(s.iLogFd, reinterpret_cast<const unsigned char*>(l.data()), l.size());
    }
}

int fail(int rc, const std::string& what) {
    State& s = st();
    snprintf(s.szLastError, sizeof s.szLastError, "%s: %s", what.c_str(), strerror(-rc));
    errno = -rc;
    return rc;
}

struct usb_bus* busFor(const std::string& name) {
    State& s = st();
    auto it = s.busByName.find(name);
    if (it != s.busByName.end()) return it->second;
    s.busStore.emplace_back(new struct usb_bus());
    struct usb_bus* b = s.busStore.back().get();
    snprintf(b->dirname, sizeof b->dirname, "%s", name.c_str());
    b->location = static_cast<uint32_t>(strtoul(name.c_str(), nullptr, 10));
    s.busByName[name] = b;
    return b;
}

void addBusName(const std::string& name) {
    for (const auto& b : st().busNames)
        if (b == name) return;
    st().busNames.push_back(name);
}

Incarnation* makeIncarnation(Slot& slot) {
    State& s = st();
    const DeviceConfig& c = slot.engine->cfg;
    s.incStore.emplace_back(new Incarnation());
    Incarnation* inc = s.incStore.back().get();
    std::vector<usbsim::InterfaceConfig> ifcs = c.interfaces;
    if (ifcs.empty()) ifcs.emplace_back();
    inc->alts.resize(ifcs.size());
    inc->endpoints.resize(ifcs.size());
    inc->interfaces.resize(ifcs.size());
    unsigned total = USB_DT_CONFIG_SIZE;
    for (size_t i = 0; i < ifcs.size(); ++i) {
        for (unsigned char addr : ifcs[i].endpoints) {
            struct usb_endpoint_descriptor e {};
            e.bLength = USB_DT_ENDPOINT_SIZE;
            e.bDescriptorType = USB_DT_ENDPOINT;
            e.bEndpointAddress = addr;
            e.bmAttributes = USB_ENDPOINT_TYPE_BULK;
            e.wMaxPacketSize = 512;
            inc->endpoints[i].push_back(e);
        }
        for (int a = 0; a < ifcs[i].iAlts; ++a) {
            struct usb_interface_descriptor d {};
            d.bLength = USB_DT_INTERFACE_SIZE;
            d.bDescriptorType = USB_DT_INTERFACE;
            d.bInterfaceNumber = static_cast<uint8_t>(i);
            d.bAlternateSetting = static_cast<uint8_t>(a);
            d.bNumEndpoints = static_cast<uint8_t>(ifcs[i].endpoints.size());
            d.bInterfaceClass = static_cast<uint8_t>(ifcs[i].iClass);
            d.bInterfaceSubClass = static_cast<uint8_t>(ifcs[i].iSubClass);
            d.bInterfaceProtocol = static_cast<uint8_t>(ifcs[i].iProtocol);
            d.endpoint = inc->endpoints[i].empty() ? nullptr : inc->endpoints[i].data();
            inc->alts[i].push_back(d);
            total += USB_DT_INTERFACE_SIZE + USB_DT_ENDPOINT_SIZE * static_cast<unsigned>(ifcs[i].endpoints.size());
        }
        inc->interfaces[i].altsetting = inc->alts[i].empty() ? nullptr : inc->alts[i].data();
        inc->interfaces[i].num_altsetting = ifcs[i].iAlts;
    }
    struct usb_config_descriptor& cf = inc->config;
    cf.bLength = USB_DT_CONFIG_SIZE;
    cf.bDescriptorType = USB_DT_CONFIG;
    cf.wTotalLength = static_cast<uint16_t>(total);
    cf.bNumInterfaces = static_cast<uint8_t>(ifcs.size());
    cf.bConfigurationValue = static_cast<uint8_t>(c.iConfigValue);
    cf.bmAttributes = 0xC0;
    cf.MaxPower = 50;
    cf.interface = inc->interfaces.data();

    struct usb_device& d = inc->dev;
    snprintf(d.filename, sizeof d.filename, "%s", slot.szFile.c_str());
    d.bus = busFor(slot.szBus);
    d.descriptor.bLength = USB_DT_DEVICE_SIZE;
    d.descriptor.bDescriptorType = USB_DT_DEVICE;
    d.descriptor.bcdUSB = 0x0200;
    d.descriptor.bDeviceClass = static_cast<uint8_t>(c.iClass);
    d.descriptor.bDeviceSubClass = static_cast<uint8_t>(c.iSubClass);
    d.descriptor.bDeviceProtocol = static_cast<uint8_t>(c.iProtocol);
    d.descriptor.bMaxPacketSize0 = 64;
    d.descriptor.idVendor = static_cast<uint16_t>(c.iVendor);
    d.descriptor.idProduct = static_cast<uint16_t>(c.iProduct);
    d.descriptor.bcdDevice = static_cast<uint16_t>(c.iBcdDevice);
    d.descriptor.iManufacturer = static_cast<uint8_t>(c.iManufacturer);
    d.descriptor.iProduct = static_cast<uint8_t>(c.iProductString);
    d.descriptor.iSerialNumber = static_cast<uint8_t>(c.iSerial);
    d.descriptor.bNumConfigurations = 1;
    d.config = &inc->config;
    d.devnum = static_cast<uint8_t>(strtoul(slot.szFile.c_str(), nullptr, 10));
    return inc;
}

int slotIndex(const Slot& slot) { return static_cast<int>(&slot - st().slots.data()); }

void unplugLocked(Slot& slot) {
    slot.pInc = nullptr;
    slot.engine->dropAll();
    addEvent(textf("unplug dev=%d", slotIndex(slot)));
}

void replugLocked(Slot& slot, const std::string& bus, const std::string& file) {
    slot.szBus = bus;
    slot.szFile = file;
    addBusName(bus);
    slot.engine->dropAll();
    slot.pInc = makeIncarnation(slot);
    slot.bDriverAttached = slot.engine->cfg.faults[usbsim::FAULT_BUSY] != 0;
    addEvent(textf("replug dev=%d bus=%s file=%s", slotIndex(slot), bus.c_str(), file.c_str()));
}

// Brings the published bus list (usb_busses) in line with what is plugged in.
void syncLocked(int* busChanges, int* devChanges) {
    State& s = st();
    struct usb_bus* prevBus = nullptr;
    usb_busses = nullptr;
    *busChanges = 0;
    *devChanges = 0;
    for (const std::string& name : s.busNames) {
        struct usb_bus* b = busFor(name);
        if (s.listedBusses.insert(b).second) ++*busChanges;
        b->prev = prevBus;
        b->next = nullptr;
        if (prevBus) prevBus->next = b;
        else usb_busses = b;
        prevBus = b;
        struct usb_device* prevDev = nullptr;
        b->devices = nullptr;
        for (Slot& slot : s.slots) {
            if (!slot.pInc || slot.szBus != name) continue;
            struct usb_device* d = &slot.pInc->dev;
            d->prev = prevDev;
            d->next = nullptr;
            if (prevDev) prevDev->next = d;
            else b->devices = d;
            prevDev = d;
        }
    }
    for (Slot& slot : s.slots) {
        if (slot.pListed == slot.pInc) continue;
        *devChanges += (slot.pListed ? 1 : 0) + (slot.pInc ? 1 : 0);
        slot.pListed = slot.pInc;
    }
}

void resetLocked() {
    State& s = st();
    ++s.uGeneration;  // open handles of the old simulation now fail with -ENODEV
    s.slots.clear();
    s.busNames.clear();
    s.listedBusses.clear();
    usb_busses = nullptr;
    s.events.clear();
    s.eventsView.clear();
    s.bEventsCut = false;
    if (s.iLogFd >= 0) close(s.iLogFd);
    s.iLogFd = -1;
    s.bLogChecked = false;
    s.bLoaded = false;
}

int loadLocked(const std::string& text, const std::string& origin) {
    State& s = st();
    resetLocked();
    usbsim::Scenario scn;
    std::string errors;
    int n = usbsim::parseScenario(text, scn, errors);
    if (n) {
        size_t pos = 0;
        while (pos < errors.size()) {
            size_t e = errors.find('\n', pos);
            fprintf(stderr, "usbsim: %s: %s\n", origin.c_str(), errors.substr(pos, e - pos).c_str());
            pos = e == std::string::npos ? errors.size() : e + 1;
        }
    }
    s.busNames = scn.busses;
    s.slots.resize(scn.devices.size());
    for (size_t i = 0; i < scn.devices.size(); ++i) {
        Slot& slot = s.slots[i];
        slot.engine.reset(new SimDevice(scn.devices[i], static_cast<int>(i), addEvent, addBand));
        slot.szBus = scn.devices[i].szBus;
        slot.szFile = scn.devices[i].szFile;
        slot.pInc = makeIncarnation(slot);
        slot.bDriverAttached = scn.devices[i].faults[usbsim::FAULT_BUSY] != 0;
    }
    s.bLoaded = true;
    addEvent(textf("load devices=%zu errors=%d", scn.devices.size(), n));
    for (Slot& slot : s.slots) {
        DeviceConfig& c = slot.engine->cfg;
        if (c.faults[usbsim::FAULT_UNPLUG] == 0) {
            c.faults[usbsim::FAULT_UNPLUG] = -1;
            unplugLocked(slot);
        }
        if (c.iReplugAfter == 0) {
            c.iReplugAfter = -1;
            replugLocked(slot, c.szReplugBus, c.szReplugFile);
        }
    }
    return n;
}

bool readWholeFile(const char* path, std::string& out) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buf[8192];
    bool ok = true;
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || out.size() + static_cast<size_t>(n) > static_cast<size_t>(MAX_SCENARIO_FILE)) {
            ok = false;
            break;
        }
        if (n == 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return ok;
}

int loadFileLocked(const char* path) {
    std::string text;
    if (!path || !readWholeFile(path, text)) {
        fprintf(stderr, "usbsim: cannot read scenario %s (missing, unreadable or over 1 MiB)\n", path ? path : "(null)");
        resetLocked();
        st().bLoaded = true;
        addEvent("load devices=0 errors=1");
        return -1;
    }
    return loadLocked(text, path);
}

// 0 and the slot when h is an open handle of a connected device; -EINVAL for
// an unknown handle, -ENODEV when its device is gone.
int checkHandle(usb_dev_handle* h, Slot*& slot);

int slotOf(int dev, Slot*& slot) {
    State& s = st();
    if (dev < 0 || static_cast<size_t>(dev) >= s.slots.size()) return -1;
    slot = &s.slots[static_cast<size_t>(dev)];
    return 0;
}

// The interface number that owns endpoint address ep, or -1.
int interfaceOfEndpoint(const Incarnation* inc, int ep) {
    for (size_t i = 0; i < inc->endpoints.size(); ++i)
        for (const auto& e : inc->endpoints[i])
            if (e.bEndpointAddress == ep) return static_cast<int>(i);
    return -1;
}

const std::string* findString(const DeviceConfig& c, int index) {
    for (const auto& s : c.strings)
        if (s.first == index) return &s.second;
    return nullptr;
}

// A string descriptor (index 0: the language list) into buf; bytes copied or an error.
int stringDescriptor(const DeviceConfig& c, int index, unsigned char* buf, size_t buflen) {
    std::vector<unsigned char> d;
    if (index == 0) {
        d = {4, USB_DT_STRING, LANGID_EN_US[0], LANGID_EN_US[1]};
    } else {
        const std::string* s = findString(c, index);
        if (!s) return -EPIPE;
        d = {static_cast<unsigned char>(2 + 2 * s->size()), USB_DT_STRING};
        for (unsigned char ch : *s) {
            d.push_back(ch);
            d.push_back(0);
        }
    }
    size_t n = std::min(buflen, d.size());
    memcpy(buf, d.data(), n);
    return static_cast<int>(n);
}

std::vector<unsigned char> configBytes(const Incarnation* inc) {
    const struct usb_config_descriptor& c = inc->config;
    std::vector<unsigned char> v = {c.bLength, c.bDescriptorType, static_cast<unsigned char>(c.wTotalLength),
                                    static_cast<unsigned char>(c.wTotalLength >> 8), c.bNumInterfaces,
                                    c.bConfigurationValue, c.iConfiguration, c.bmAttributes, c.MaxPower};
    for (size_t i = 0; i < inc->alts.size(); ++i)
        for (const auto& a : inc->alts[i]) {
            v.insert(v.end(), {a.bLength, a.bDescriptorType, a.bInterfaceNumber, a.bAlternateSetting, a.bNumEndpoints,
                               a.bInterfaceClass, a.bInterfaceSubClass, a.bInterfaceProtocol, a.iInterface});
            for (const auto& e : inc->endpoints[i])
                v.insert(v.end(), {e.bLength, e.bDescriptorType, e.bEndpointAddress, e.bmAttributes,
                                   static_cast<unsigned char>(e.wMaxPacketSize),
                                   static_cast<unsigned char>(e.wMaxPacketSize >> 8), e.bInterval});
        }
    return v;
}

int descriptorLocked(Slot& slot, unsigned char type, unsigned char index, void* buf, int size) {
    if (!buf || size < 0) return fail(-EINVAL, "usb_get_descriptor");
    std::vector<unsigned char> d;
    if (type == USB_DT_DEVICE) {
        d.resize(USB_DT_DEVICE_SIZE);
        memcpy(d.data(), &slot.pInc->dev.descriptor, USB_DT_DEVICE_SIZE);
    } else if (type == USB_DT_CONFIG && index == 0) {
        d = configBytes(slot.pInc);
    } else if (type == USB_DT_STRING) {
        return stringDescriptor(slot.engine->cfg, index, static_cast<unsigned char*>(buf), static_cast<size_t>(size));
    } else {
        return fail(-EPIPE, "usb_get_descriptor");
    }
    size_t n = std::min(static_cast<size_t>(size), d.size());
    memcpy(buf, d.data(), n);
    return static_cast<int>(n);
}

}  // namespace

struct usb_dev_handle {
    int iSlot;
    unsigned uGeneration;
    Incarnation* pInc;
    unsigned uClaimed;  // bit per claimed interface
};

namespace {

int checkHandle(usb_dev_handle* h, Slot*& slot) {
    State& s = st();
    if (!h || !s.handles.count(h)) return -EINVAL;
    if (h->uGeneration != s.uGeneration || h->iSlot < 0 || static_cast<size_t>(h->iSlot) >= s.slots.size())
        return -ENODEV;
    slot = &s.slots[static_cast<size_t>(h->iSlot)];
    if (slot->pInc != h->pInc) return -ENODEV;
    return 0;
}

// Handle check with the failure recorded as the last error.
int useHandle(usb_dev_handle* h, Slot*& slot, const char* what) {
    int rc = checkHandle(h, slot);
    return rc ? fail(rc, what) : 0;
}

// Bulk transfers need the interface of the endpoint, which a kernel driver
// may hold; the kernel claims it for the caller otherwise.
int endpointCheck(Slot& slot, usb_dev_handle* h, int ep, const char* what) {
    int iface = interfaceOfEndpoint(slot.pInc, ep);
    if (iface < 0) return fail(-EINVAL, what);
    if (slot.bDriverAttached && !(h->uClaimed & (1u << iface))) return fail(-EBUSY, what);
    return 0;
}

// Endpoint resets succeed on a connected device and are only recorded.
int endpointReset(usb_dev_handle* h, unsigned int ep, const char* what, const char* eventName) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, what)) return rc;
    addEvent(textf("%s dev=%d ep=0x%02x", eventName, h->iSlot, ep));
    return 0;
}

}  // namespace

// ------------------------------------------------------------------ libusb-0.1

struct usb_bus* usb_busses = nullptr;

extern "C" {

void usb_init(void) {
    std::lock_guard<std::mutex> g(st().mtx);
    if (!st().bLoaded) {
        const char* path = getenv("QUARTO_USBSIM");
        if (path && *path) loadFileLocked(path);
        else {
            st().bLoaded = true;
            addEvent("load devices=0 errors=0");
        }
    }
    addEvent("init");
}

void usb_set_debug(int) {}

int usb_find_busses(void) {
    std::lock_guard<std::mutex> g(st().mtx);
    int busses = 0, devices = 0;
    syncLocked(&busses, &devices);
    return busses;
}

int usb_find_devices(void) {
    std::lock_guard<std::mutex> g(st().mtx);
    int busses = 0, devices = 0;
    syncLocked(&busses, &devices);
    return devices;
}

struct usb_bus* usb_get_busses(void) {
    std::lock_guard<std::mutex> g(st().mtx);
    return usb_busses;
}

usb_dev_handle* usb_open(struct usb_device* dev) {
    std::lock_guard<std::mutex> g(st().mtx);
    State& s = st();
    for (Slot& slot : s.slots) {
        if (!slot.pInc || &slot.pInc->dev != dev) continue;
        int i = slotIndex(slot);
        if (slot.engine->cfg.faults[usbsim::FAULT_OPEN_FAIL]) {
            addEvent(textf("open dev=%d failed: open_fail", i));
            fail(-EACCES, "usb_open");
            return nullptr;
        }
        usb_dev_handle* h = new usb_dev_handle{i, s.uGeneration, slot.pInc, 0};
        s.handles.insert(h);
        addEvent(textf("open dev=%d bus=%s file=%s", i, slot.szBus.c_str(), slot.szFile.c_str()));
        return h;
    }
    addEvent("open failed: no such device");
    fail(-ENODEV, "usb_open");
    return nullptr;
}

int usb_close(usb_dev_handle* h) {
    std::lock_guard<std::mutex> g(st().mtx);
    State& s = st();
    if (!h || !s.handles.count(h)) {
        addEvent("close failed: invalid handle");
        return fail(-EINVAL, "usb_close");
    }
    addEvent(textf("close dev=%d", h->iSlot));
    s.handles.erase(h);
    delete h;
    return 0;
}

struct usb_device* usb_device(usb_dev_handle* h) {
    std::lock_guard<std::mutex> g(st().mtx);
    if (!h || !st().handles.count(h)) return nullptr;
    return &h->pInc->dev;
}

int usb_get_string(usb_dev_handle* h, int index, int, char* buf, size_t buflen) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, "usb_get_string")) return rc;
    if (!buf || index < 0 || index > 255) return fail(-EINVAL, "usb_get_string");
    int rc = stringDescriptor(slot->engine->cfg, index, reinterpret_cast<unsigned char*>(buf), buflen);
    return rc < 0 ? fail(rc, "usb_get_string") : rc;
}

int usb_get_string_simple(usb_dev_handle* h, int index, char* buf, size_t buflen) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, "usb_get_string_simple")) return rc;
    if (!buf || buflen == 0 || index <= 0 || index > 255) return fail(-EINVAL, "usb_get_string_simple");
    const std::string* str = findString(slot->engine->cfg, index);
    addEvent(textf("string dev=%d index=%d rc=%d", h->iSlot, index, str ? static_cast<int>(str->size()) : -EPIPE));
    if (!str) return fail(-EPIPE, "usb_get_string_simple");
    size_t n = std::min(buflen - 1, str->size());
    for (size_t i = 0; i < n; ++i) buf[i] = static_cast<unsigned char>((*str)[i]) < 0x80 ? (*str)[i] : '?';
    buf[n] = '\0';
    return static_cast<int>(n);
}

int usb_get_descriptor_by_endpoint(usb_dev_handle* h, int, unsigned char type, unsigned char index, void* buf,
                                   int size) {
    return usb_get_descriptor(h, type, index, buf, size);
}

int usb_get_descriptor(usb_dev_handle* h, unsigned char type, unsigned char index, void* buf, int size) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, "usb_get_descriptor")) return rc;
    return descriptorLocked(*slot, type, index, buf, size);
}

int usb_bulk_write(usb_dev_handle* h, int ep, const char* bytes, int size, int) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, "usb_bulk_write")) return rc;
    if (!bytes || size < 0) return fail(-EINVAL, "usb_bulk_write");
    ep &= ~USB_ENDPOINT_IN;  // libusb-0.1 forces the direction bit
    if (int rc = endpointCheck(*slot, h, ep, "usb_bulk_write")) return rc;
    DeviceConfig& c = slot->engine->cfg;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(bytes);
    const int i = h->iSlot;
    if (c.faults[usbsim::FAULT_WRITE_FAIL] == 0) {
        addEvent(textf("write dev=%d ep=0x%02x len=%d rc=%d data=%s", i, ep, size, -EIO,
                     usbsim::hexText(p, size, MAX_WRITE_HEX).c_str()));
        return fail(-EIO, "usb_bulk_write");
    }
    if (c.faults[usbsim::FAULT_WRITE_FAIL] > 0) --c.faults[usbsim::FAULT_WRITE_FAIL];
    slot->writes.emplace_back(ep, std::vector<unsigned char>(p, p + size));
    addEvent(textf("write dev=%d ep=0x%02x len=%d data=%s", i, ep, size, usbsim::hexText(p, size, MAX_WRITE_HEX).c_str()));
    slot->engine->handleWrite(p, size);
    if (c.faults[usbsim::FAULT_UNPLUG] > 0 && --c.faults[usbsim::FAULT_UNPLUG] == 0) {
        c.faults[usbsim::FAULT_UNPLUG] = -1;
        unplugLocked(*slot);
    }
    if (c.iReplugAfter > 0 && --c.iReplugAfter == 0) {
        c.iReplugAfter = -1;
        replugLocked(*slot, c.szReplugBus, c.szReplugFile);
    }
    return size;
}

int usb_bulk_read(usb_dev_handle* h, int ep, char* bytes, int size, int) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, "usb_bulk_read")) return rc;
    if (!bytes || size <= 0) return fail(-EINVAL, "usb_bulk_read");
    ep |= USB_ENDPOINT_IN;  // libusb-0.1 forces the direction bit
    if (int rc = endpointCheck(*slot, h, ep, "usb_bulk_read")) return rc;
    int& timeoutAfter = slot->engine->cfg.faults[usbsim::FAULT_READ_TIMEOUT];
    if (timeoutAfter == 0) return fail(-ETIMEDOUT, "usb_bulk_read");
    int n = slot->engine->read(reinterpret_cast<unsigned char*>(bytes), size);
    if (n == SimDevice::READ_UNPLUG) {
        unplugLocked(*slot);
        return fail(-ENODEV, "usb_bulk_read");
    }
    if (n < 0) return fail(-ETIMEDOUT, "usb_bulk_read");
    if (timeoutAfter > 0) --timeoutAfter;
    return n;
}

int usb_interrupt_write(usb_dev_handle* h, int, const char*, int, int) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, "usb_interrupt_write")) return rc;
    return fail(-EPIPE, "usb_interrupt_write");
}

int usb_interrupt_read(usb_dev_handle* h, int, char*, int, int) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, "usb_interrupt_read")) return rc;
    return fail(-ETIMEDOUT, "usb_interrupt_read");
}

int usb_control_msg(usb_dev_handle* h, int requesttype, int request, int value, int index, char* bytes, int size,
                    int) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, "usb_control_msg")) return rc;
    int rc = -EPIPE;
    if (requesttype == (USB_ENDPOINT_IN | USB_TYPE_STANDARD | USB_RECIP_DEVICE) && request == USB_REQ_GET_DESCRIPTOR)
        rc = descriptorLocked(*slot, static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value), bytes,
                              size);
    addEvent(textf("control dev=%d type=0x%02x request=0x%02x value=0x%04x index=%d rc=%d", h->iSlot, requesttype,
                 request, value, index, rc));
    return rc < 0 ? fail(rc, "usb_control_msg") : rc;
}

int usb_set_configuration(usb_dev_handle* h, int configuration) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, "usb_set_configuration")) return rc;
    int rc = 0;
    if (slot->engine->cfg.faults[usbsim::FAULT_SETCONFIG_EPERM]) rc = -EPERM;
    else if (slot->bDriverAttached) rc = -EBUSY;  // a kernel driver holds an interface
    else if (configuration != slot->pInc->config.bConfigurationValue) rc = -EINVAL;
    addEvent(textf("setconfig dev=%d value=%d rc=%d", h->iSlot, configuration, rc));
    return rc ? fail(rc, "usb_set_configuration") : 0;
}

int usb_claim_interface(usb_dev_handle* h, int interface) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, "usb_claim_interface")) return rc;
    int rc = 0;
    if (interface < 0 || interface >= slot->pInc->config.bNumInterfaces) rc = -EINVAL;
    else if (slot->bDriverAttached) rc = -EBUSY;
    else h->uClaimed |= 1u << interface;
    addEvent(textf("claim dev=%d iface=%d rc=%d", h->iSlot, interface, rc));
    return rc ? fail(rc, "usb_claim_interface") : 0;
}

int usb_release_interface(usb_dev_handle* h, int interface) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    int rc = checkHandle(h, slot);
    if (rc == 0) {
        if (interface < 0 || interface >= 32 || !(h->uClaimed & (1u << interface))) rc = -EINVAL;
        else h->uClaimed &= ~(1u << interface);
    }
    addEvent(textf("release dev=%d iface=%d rc=%d", h && st().handles.count(h) ? h->iSlot : -1, interface, rc));
    return rc ? fail(rc, "usb_release_interface") : 0;
}

int usb_set_altinterface(usb_dev_handle* h, int alternate) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, "usb_set_altinterface")) return rc;
    for (int i = 0; i < slot->pInc->config.bNumInterfaces; ++i)
        if ((h->uClaimed & (1u << i)) && alternate >= 0 && alternate < slot->pInc->interfaces[i].num_altsetting)
            return 0;
    return fail(-EINVAL, "usb_set_altinterface");
}

int usb_resetep(usb_dev_handle* h, unsigned int ep) { return endpointReset(h, ep, "usb_resetep", "resetep"); }

int usb_clear_halt(usb_dev_handle* h, unsigned int ep) { return endpointReset(h, ep, "usb_clear_halt", "clear_halt"); }

int usb_reset(usb_dev_handle* h) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    int rc = checkHandle(h, slot);
    if (rc == 0) slot->engine->dropAll();
    addEvent(textf("reset dev=%d rc=%d", h && st().handles.count(h) ? h->iSlot : -1, rc));
    return rc ? fail(rc, "usb_reset") : 0;
}

int usb_get_driver_np(usb_dev_handle* h, int interface, char* name, unsigned int namelen) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, "usb_get_driver_np")) return rc;
    if (interface < 0 || interface >= slot->pInc->config.bNumInterfaces) return fail(-EINVAL, "usb_get_driver_np");
    if (!slot->bDriverAttached) return fail(-ENODATA, "usb_get_driver_np");
    if (name && namelen > 0) snprintf(name, namelen, "%s", SIM_KERNEL_DRIVER);
    return 0;
}

int usb_detach_kernel_driver_np(usb_dev_handle* h, int interface) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (int rc = useHandle(h, slot, "usb_detach_kernel_driver_np")) return rc;
    int rc = 0;
    const int busy = slot->engine->cfg.faults[usbsim::FAULT_BUSY];
    if (interface < 0 || interface >= slot->pInc->config.bNumInterfaces) rc = -EINVAL;
    else if (!slot->bDriverAttached) rc = -ENODATA;
    else if (busy == 2) rc = -EPERM;
    else if (busy != 3) slot->bDriverAttached = false;  // busy 3: reports success, stays attached
    addEvent(textf("detach dev=%d iface=%d rc=%d", h->iSlot, interface, rc));
    return rc ? fail(rc, "usb_detach_kernel_driver_np") : 0;
}

char* usb_strerror(void) {
    std::lock_guard<std::mutex> g(st().mtx);
    return st().szLastError;
}

// -------------------------------------------------------------- control API

int usbsim_load_text(const char* scenario) {
    std::lock_guard<std::mutex> g(st().mtx);
    return loadLocked(scenario ? scenario : "", "scenario text");
}

int usbsim_load_file(const char* path) {
    std::lock_guard<std::mutex> g(st().mtx);
    return loadFileLocked(path);
}

void usbsim_reset(void) {
    std::lock_guard<std::mutex> g(st().mtx);
    resetLocked();
}

int usbsim_device_count(void) {
    std::lock_guard<std::mutex> g(st().mtx);
    return static_cast<int>(st().slots.size());
}

int usbsim_write_count(int dev) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    return slotOf(dev, slot) ? -1 : static_cast<int>(slot->writes.size());
}

int usbsim_get_write(int dev, int index, unsigned char* buf, int cap) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (slotOf(dev, slot) || index < 0 || static_cast<size_t>(index) >= slot->writes.size()) return -1;
    const std::vector<unsigned char>& w = slot->writes[static_cast<size_t>(index)].second;
    if (buf && cap > 0) memcpy(buf, w.data(), std::min(w.size(), static_cast<size_t>(cap)));
    return static_cast<int>(w.size());
}

int usbsim_write_endpoint(int dev, int index) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (slotOf(dev, slot) || index < 0 || static_cast<size_t>(index) >= slot->writes.size()) return -1;
    return slot->writes[static_cast<size_t>(index)].first;
}

const char* usbsim_events(void) {
    std::lock_guard<std::mutex> g(st().mtx);
    st().eventsView = st().events;
    return st().eventsView.c_str();
}

void usbsim_clear_record(void) {
    std::lock_guard<std::mutex> g(st().mtx);
    st().events.clear();
    st().eventsView.clear();
    st().bEventsCut = false;
    for (Slot& slot : st().slots) slot.writes.clear();
}

int usbsim_last_window(int dev, struct usbsim_window* w) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    usbsim::Window win;
    if (!w || slotOf(dev, slot) || !slot->engine->lastWindow(win)) return -1;
    *w = usbsim_window{};
    w->color = win.iColor;
    w->compression = win.iCompression;
    w->compression_level = win.iCompressionLevel;
    w->filter = win.iFilter;
    w->width = win.uWidth;
    w->lines = win.uLines;
    w->offset_x = win.uOffsetX;
    w->offset_y = win.uOffsetY;
    w->xres = win.iXRes;
    w->yres = win.iYRes;
    w->source = win.iSource;
    w->request = win.iRequest;
    w->data_len = static_cast<int>(win.data.size());
    memcpy(w->data, win.data.data(), std::min(win.data.size(), sizeof w->data));
    return 0;
}

int usbsim_set_fault(int dev, const char* name, int value) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    int f = usbsim::faultIndex(name);
    if (slotOf(dev, slot) || f < 0 || !usbsim::faultValueValid(f, value)) return -1;
    slot->engine->cfg.faults[f] = value;
    addEvent(textf("fault dev=%d %s=%d", dev, name, value));
    if (f == usbsim::FAULT_BUSY) slot->bDriverAttached = value != 0;
    if (f == usbsim::FAULT_UNPLUG && value == 0) {
        slot->engine->cfg.faults[f] = -1;
        if (slot->pInc) unplugLocked(*slot);
    }
    return 0;
}

int usbsim_get_fault(int dev, const char* name) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    int f = usbsim::faultIndex(name);
    if (slotOf(dev, slot) || f < 0) return -2;
    return slot->engine->cfg.faults[f];
}

int usbsim_unplug(int dev) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (slotOf(dev, slot) || !slot->pInc) return -1;
    unplugLocked(*slot);
    return 0;
}

int usbsim_replug(int dev, const char* bus, const char* devfile) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (slotOf(dev, slot) || !bus || !devfile || !usbsim::validName(bus) || !usbsim::validName(devfile)) return -1;
    replugLocked(*slot, bus, devfile);
    return 0;
}

int usbsim_inject(int dev, const unsigned char* data, int len) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (slotOf(dev, slot) || (!data && len > 0) || len < 0) return -1;
    slot->engine->inject(data, len);
    addEvent(textf("inject dev=%d len=%d", dev, len));
    return 0;
}

int usbsim_load_feeder(int dev, int sheets) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    if (slotOf(dev, slot) || sheets < -1 || sheets > usbsim::MAX_SHEETS) return -1;
    slot->engine->loadFeeder(sheets);
    return 0;
}

int usbsim_feeder_sheets(int dev) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    return slotOf(dev, slot) ? -2 : slot->engine->sheetsLeft();
}

int usbsim_set_band_file(const char* path) {
    std::lock_guard<std::mutex> g(st().mtx);
    State& s = st();
    if (s.iBandFd >= 0) close(s.iBandFd);
    s.iBandFd = -1;
    s.bBandChecked = true;  // the variable no longer counts
    if (!path || !*path) return 0;
    s.iBandFd = openRecordFile(path, "band file");
    return s.iBandFd >= 0 ? 0 : -1;
}

int usbsim_queued(int dev) {
    std::lock_guard<std::mutex> g(st().mtx);
    Slot* slot = nullptr;
    return slotOf(dev, slot) ? -1 : slot->engine->queuedTransfers();
}

}  // extern "C"
