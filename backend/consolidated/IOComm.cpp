#include "IOComm.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "CResponse.h"
#include "ConfigReader.h"
#include "DataBuffer.h"
#include "ICommand.h"
#include "ImageData.h"
#include "SaneConfReader.h"
#include "ScanReadStatusDisplayMgr.h"
#include "ScanRecordDataMgr.h"
#include "Wicket.h"
#include "util.h"

namespace {

// Device and interface classes that mark a scanner interface.
const int DEVICE_CLASS_PER_INTERFACE = 0;
const int DEVICE_CLASS_VENDOR = 255;
const int IFACE_CLASS_SCANNER = 16;
const int IFACE_CLASS_NONE = 0;
const int IFACE_CLASS_VENDOR = 255;
// Bit 7 of an endpoint address marks an IN endpoint.
const int ENDPOINT_DIR_IN = 0x80;
// usb_claim_interface result while a kernel driver holds the interface.
const int USB_RESULT_BUSY = -16;

// Scan records: 0x1B 'S' 0x02, the status at offset 8.
const int RECORD_STATUS_OFFSET = 8;
const int RECORD_KIND_OFFSET = 10;
const unsigned RECORD_SCAN_COMPLETE = 1;
const unsigned RECORD_PAGE_END = 7;
const unsigned RECORD_JOB_START = 8;
const unsigned RECORD_PAGE_START = 9;
const unsigned RECORD_IN_PROGRESS = 0;
const unsigned RECORD_OUT_OF_MEMORY = 2;
const unsigned RECORD_HOST_ABORT = 3;
const unsigned RECORD_DEVICE_ABORT = 4;
const unsigned RECORD_PAPER_JAM = 5;
const unsigned RECORD_COMM_ERROR = 6;
// A multi-page message carries its page fragment from offset 10.
const int RECORD_PAYLOAD_OFFSET = 10;
// A page-start record with byte 10 = 1 carries the interleave information:
// five 32-bit little-endian values from offset 11.
const unsigned RECORD_HAS_INTERLEAVE = 1;
const int INTERLEAVE_WIDTH_OFFSET = 11;
const int INTERLEAVE_HEIGHT_OFFSET = 15;
const int INTERLEAVE_OFFSETX_OFFSET = 19;
const int INTERLEAVE_OFFSETY_OFFSET = 23;
const int INTERLEAVE_TRIM_OFFSET = 27;
const int INTERLEAVE_RECORD_LEN = 31;

// Wicket band header: four 32-bit big-endian values.
const int BAND_HEADER_LEN = 16;
const int BAND_LINES_OFFSET = 4;
const int BAND_WIDTH_OFFSET = 8;
const int BAND_QUALITY_OFFSET = 12;
// Largest band accepted: a device sends bands of a few dozen lines of one
// page width, so a header asking for more is malformed.
const unsigned MAX_BAND_DIMENSION = 1u << 16;
const long MAX_BAND_BYTES = 1L << 26;
// Largest decoded image accepted (bytes).
const long MAX_IMAGE_BYTES = 1L << 31;
// Most bytes the device may send for one image per byte of the decoded
// image, and in all: even a band of one line coded at the highest quality
// stays far below it, so an image that passes it comes from a device that
// never ends it.
const long MAX_SENT_PER_DECODED = 16;
const long MAX_SENT_BYTES = MAX_IMAGE_BYTES;

const char MAKER_FULL_NAME[] = "Tarvesk International";
const char MAKER_SHORT_NAME[] = "Tarvesk";
const char UNKNOWN_VENDOR[] = "Unknown Vendor";
const char UNKNOWN_PRODUCT[] = "Unknown Scanner";

// Directory name of a multi-page job under $TMPDIR (or /tmp).
const char JOB_DIR_TEMPLATE[] = "/quarto-job-XXXXXX";
const char DEFAULT_TMPDIR[] = "/tmp";

// The status byte of a scan record, or -1 when the bytes are no record or too
// short to carry a status.
int recordStatus(const unsigned char* p, int len) {
    if (len <= RECORD_STATUS_OFFSET || p[0] != ESC || p[1] != ESC_S || p[2] != ESC_DATA_BLOCK) return -1;
    return p[RECORD_STATUS_OFFSET];
}

// Copies text into buffer of size bytes, terminated, cut when it does not fit.
void copyText(char* buffer, int size, const char* text) {
    if (buffer == nullptr || size < 1) return;
    size_t n = strnlen(text, (size_t)size - 1);
    memcpy(buffer, text, n);
    buffer[n] = '\0';
}

bool interfaceClassQualifies(const struct usb_interface& itf) {
    if (itf.num_altsetting < 1 || itf.altsetting == nullptr) return false;
    int c = itf.altsetting[0].bInterfaceClass;
    return c == IFACE_CLASS_SCANNER || c == IFACE_CLASS_NONE || c == IFACE_CLASS_VENDOR;
}

// Number of interfaces of the first configuration.
int interfaceCount(const struct usb_device* dev) {
    if (dev->descriptor.bNumConfigurations == 0 || dev->config == nullptr) return 0;
    return dev->config[0].bNumInterfaces;
}

// The class test of enumeration and of the interface choice at open.
bool interfaceQualifies(const struct usb_device* dev, int i) {
    if (i < 0 || i >= interfaceCount(dev)) return false;
    switch (dev->descriptor.bDeviceClass) {
    case DEVICE_CLASS_PER_INTERFACE:
        return dev->config[0].interface != nullptr && interfaceClassQualifies(dev->config[0].interface[i]);
    case DEVICE_CLASS_VENDOR:
        return true;
    default:
        return false;
    }
}

unsigned roundUp8(unsigned v) { return (v + 7u) & ~7u; }

// Widens the first lines of a band narrower than the image, decoded into buf
// with lines of bandStride bytes, to lines of the image's rowBytes, each
// followed by zeros. The last line moves first, so none is overwritten before
// it moved.
void widenLines(unsigned char* buf, long lines, long bandStride, long rowBytes) {
    for (long l = lines - 1; l >= 0; --l) {
        memmove(buf + l * rowBytes, buf + l * bandStride, (size_t)bandStride);
        memset(buf + l * rowBytes + bandStride, 0, (size_t)(rowBytes - bandStride));
    }
}

}  // namespace

// One band header of a compressed job.
struct IOComm::BandHeader {
    int iSize = 0;  // the size field, header included
    unsigned int iLines = 0;
    unsigned int iWidth = 0;
    int iQuality = 0;
    // What the band takes of the stream: its size, cut to the bytes collected.
    unsigned int iBytes = 0;
};

// The collected bands of a compressed job, their decoder and how far reading is.
struct IOComm::BandStream {
    std::unique_ptr<unsigned char, FreeDeleter> pOwned;  // the collected job, once handed over
    const unsigned char* pData = nullptr;
    unsigned int iLength = 0;
    unsigned int iPos = 0;  // the next band to decode
    unsigned int iEnd = 0;  // the end of the bands the start accepted
    Wicket wicket{1};
    bool bColour = false;
    long iBpp = 1;
    long iRowBytes = 0;   // one line of the image
    long iLinesLeft = 0;  // lines of the image no band has reached yet
    // Handing out: the bytes of the current line already handed out, and the
    // bytes between the end of a line in the band buffer and the next line
    // (the padding of a band at least as wide as the image).
    long iLinePos = 0;
    long iLineGap = 0;

    // The band header at pos; false when fewer bytes than a header are left.
    bool headerAt(unsigned int pos, BandHeader* band) const {
        if (pos >= iLength || iLength - pos < (unsigned int)BAND_HEADER_LEN) return false;
        const unsigned char* head = pData + pos;
        band->iSize = (int)readBE32(head, BAND_HEADER_LEN, 0);
        band->iLines = readBE32(head, BAND_HEADER_LEN, BAND_LINES_OFFSET);
        band->iWidth = readBE32(head, BAND_HEADER_LEN, BAND_WIDTH_OFFSET);
        band->iQuality = (int)readBE32(head, BAND_HEADER_LEN, BAND_QUALITY_OFFSET);
        const unsigned int available = iLength - pos;
        band->iBytes = band->iSize > 0 && (unsigned int)band->iSize < available ? (unsigned int)band->iSize : available;
        return true;
    }
    // Bytes a decoded band takes, its width and lines padded to whole blocks;
    // -1 for a band larger than any device sends.
    long decodedBytes(const BandHeader& band) const {
        // The dimensions are checked first: two values of a malformed header
        // near 2^32 have a product that fits in no integer.
        if (band.iWidth > MAX_BAND_DIMENSION || band.iLines > MAX_BAND_DIMENSION) return -1;
        const long bytes = (long)roundUp8(band.iWidth) * (long)roundUp8(band.iLines) * iBpp;
        return bytes > MAX_BAND_BYTES ? -1 : bytes;
    }
};

IOComm::IOComm() : pDataBuffer(new DataBuffer()), aChunk(USB_CHUNK_SIZE) {
    LOG_METHOD_START();
    memset(cBus, 0, sizeof(cBus));
    memset(cDev, 0, sizeof(cDev));
    usb_init();
    refreshBusses();
    LOG_METHOD_END();
}

IOComm::~IOComm() {
    LOG_METHOD_START();
    // The display and the cache are process-wide: a transport that never ran a
    // job (such as the short-lived ones of device enumeration) leaves another
    // transport's window and pages alone.
    LOG_DEBUG("closing progress dialog(if any)");
    if (ownsDisplay()) ScanReadStatusDisplayMgr::getInstance()->stop();
    if (iOpen) closeDevice();
    // closeDevice keeps a device whose interface could not be released marked
    // open; the handle is still ours to close.
    if (iOpen) closeHandle();
    LOG_DEBUG("clearing cached page(if any)");
    if (ownsPageCache()) ScanRecordDataMgr::getInstance()->clearPages();
    removeJobDirectory();
    LOG_METHOD_END();
}

void IOComm::refreshBusses() {
    usb_find_busses();
    usb_find_devices();
    pBusses = usb_get_busses();
}

int IOComm::optionInt(const char* key) { return pConfigReader != nullptr ? pConfigReader->GetIntOption(key) : 0; }

// ---------------------------------------------------------------- enumeration

int IOComm::getNameDev(struct usb_device* dev, usb_dev_handle* handle, char* buffer, int size, int kind) {
    if (dev == nullptr || buffer == nullptr || size < 1) return 0;
    if (kind == USB_NAME_VENDOR) {
        if (dev->descriptor.iManufacturer == 0) return USB_NO_VENDOR_STRING;
        if (handle == nullptr || usb_get_string_simple(handle, dev->descriptor.iManufacturer, buffer, size) < 0) {
            copyText(buffer, size, UNKNOWN_VENDOR);
        } else {
            buffer[size - 1] = '\0';
            if (strcmp(buffer, MAKER_FULL_NAME) == 0) copyText(buffer, size, MAKER_SHORT_NAME);
        }
    } else if (kind == USB_NAME_PRODUCT) {
        if (dev->descriptor.iProduct == 0) return USB_NO_PRODUCT_STRING;
        if (handle == nullptr || usb_get_string_simple(handle, dev->descriptor.iProduct, buffer, size) < 0)
            copyText(buffer, size, UNKNOWN_PRODUCT);
        else
            buffer[size - 1] = '\0';
    }
    return 0;
}

int IOComm::getScanners(char*** list, int* count, void* conf) {
    LOG_METHOD_START();
    if (list == nullptr || count == nullptr) {
        LOG_METHOD_END_INT(COMM_STATUS_INVALID_ARG);
        return COMM_STATUS_INVALID_ARG;
    }
    *list = nullptr;
    *count = 0;
    SaneConfReader* reader = static_cast<SaneConfReader*>(conf);
    auto known = [reader](const struct usb_device* dev) {
        return reader != nullptr && reader->isFound(dev->descriptor.idVendor, dev->descriptor.idProduct) == 1;
    };

    // Pass 1 counts. A device is counted once per qualifying interface, so a
    // device with two such interfaces is listed twice: intended.
    int total = 0;
    for (struct usb_bus* bus = pBusses; bus != nullptr; bus = bus->next)
        for (struct usb_device* dev = bus->devices; dev != nullptr; dev = dev->next)
            for (int i = 0; i < interfaceCount(dev); ++i)
                if (interfaceQualifies(dev, i) && known(dev)) ++total;
    LOG_DEBUG("scanners found: %d", total);

    char** names = (char**)malloc(sizeof(char*) * (size_t)(total > 0 ? total : 1));
    if (names == nullptr) {
        LOG_METHOD_END_INT(COMM_STATUS_INVALID_ARG);
        return COMM_STATUS_INVALID_ARG;
    }

    // Pass 2 walks the same busses again and names each counted entry.
    int n = 0;
    for (struct usb_bus* bus = pBusses; bus != nullptr && n < total; bus = bus->next) {
        for (struct usb_device* dev = bus->devices; dev != nullptr && n < total; dev = dev->next) {
            for (int i = 0; i < interfaceCount(dev) && n < total; ++i) {
                if (!interfaceQualifies(dev, i) || !known(dev)) continue;
                char* name = (char*)malloc(USB_DEVICE_NAME_SIZE);
                if (name == nullptr) {
                    for (int k = 0; k < n; ++k) free(names[k]);
                    free(names);
                    LOG_METHOD_END_INT(COMM_STATUS_INVALID_ARG);
                    return COMM_STATUS_INVALID_ARG;
                }
                usb_dev_handle* handle = usb_open(dev);
                char vendor[USB_STRING_SIZE] = {0};
                char product[USB_STRING_SIZE] = {0};
                getNameDev(dev, handle, vendor, sizeof(vendor), USB_NAME_VENDOR);
                getNameDev(dev, handle, product, sizeof(product), USB_NAME_PRODUCT);
                int written = snprintf(name, USB_DEVICE_NAME_SIZE, "%s/%s/libusb:%s:%s", vendor, product,
                                       bus->dirname, dev->filename);
                // A name longer than the buffer is cut, as the buffer size dictates.
                if (written >= USB_DEVICE_NAME_SIZE) LOG_DEBUG("device name cut to %d bytes", USB_DEVICE_NAME_SIZE - 1);
                if (handle != nullptr) usb_close(handle);
                LOG_DEBUG("%s", name);
                names[n++] = name;
            }
        }
    }
    *list = names;
    *count = n;
    LOG_METHOD_END_INT(COMM_STATUS_GOOD);
    return COMM_STATUS_GOOD;
}

// ------------------------------------------------------------- device choice

int IOComm::setDevice(char* name) {
    LOG_METHOD_START();
    if (name == nullptr) {
        LOG_METHOD_END_INT(COMM_STATUS_INVALID_ARG);
        return COMM_STATUS_INVALID_ARG;
    }
    szDeviceName = name;
    if (strstr(name, "libusb") != nullptr) {
        // Fields split at ':': vendor/product/libusb, bus, device.
        char copy[USB_SPLIT_NAME_SIZE + 1];
        copyText(copy, sizeof(copy), name);
        char* save = nullptr;
        int index = 0;
        for (char* tok = strtok_r(copy, ":", &save); tok != nullptr; tok = strtok_r(nullptr, ":", &save), ++index) {
            if (index == 1) {
                copyText(cBus, sizeof(cBus), tok);
                LOG_DEBUG("USB bus number = %s", cBus);
            } else if (index == 2) {
                copyText(cDev, sizeof(cDev), tok);
                LOG_DEBUG("USB device number = %s", cDev);
            }
        }
    }
    LOG_METHOD_END_INT(COMM_STATUS_GOOD);
    return COMM_STATUS_GOOD;
}

int IOComm::getVid() { return iVid; }

int IOComm::getPid() { return iPid; }

struct usb_device* IOComm::findDevice(const char* bus, const char* dev) {
    for (struct usb_bus* b = pBusses; b != nullptr; b = b->next) {
        if (strcmp(b->dirname, bus) != 0) continue;
        for (struct usb_device* d = b->devices; d != nullptr; d = d->next)
            if (strcmp(d->filename, dev) == 0) return d;
    }
    return nullptr;
}

bool IOComm::isSelectedDeviceActive() {
    refreshBusses();
    return findDevice(cBus, cDev) != nullptr;
}

struct usb_device* IOComm::findDeviceByIds(struct usb_bus** busOut) {
    for (struct usb_bus* b = pBusses; b != nullptr; b = b->next)
        for (struct usb_device* d = b->devices; d != nullptr; d = d->next)
            if (d->descriptor.idVendor == iVid && d->descriptor.idProduct == iPid) {
                if (busOut != nullptr) *busOut = b;
                return d;
            }
    return nullptr;
}

bool IOComm::isDevicePresent() {
    if (findDeviceByIds(nullptr) == nullptr) return false;
    LOG_DEBUG("device present but on another interface");
    return true;
}

void IOComm::changeUSBDeviceInfo() {
    struct usb_bus* b = nullptr;
    struct usb_device* d = findDeviceByIds(&b);
    if (d == nullptr) return;
    copyText(cBus, sizeof(cBus), b->dirname);
    copyText(cDev, sizeof(cDev), d->filename);
    LOG_DEBUG("USB bus number = %s", cBus);
    LOG_DEBUG("USB device number = %s", cDev);
}

unsigned int IOComm::cachedPageCount() {
    if (!ownsPageCache()) return 0;
    int pages = ScanRecordDataMgr::getInstance()->getTotalPages();
    return pages > 0 ? (unsigned int)pages : 0u;
}

bool IOComm::ownsPageCache() {
    return !szJobDir.empty() && ScanRecordDataMgr::getInstance()->getBasePath() == szJobDir;
}

bool IOComm::ownsDisplay() {
    return !szJobDir.empty() && ScanReadStatusDisplayMgr::getInstance()->getBasePath() == szJobDir;
}

bool IOComm::prepareJobDirectory() {
    if (szJobDir.empty()) {
        // A private directory (mode 0700) of this transport's own, so that no
        // other user can read the pages or put anything where they are written.
        const char* tmp = getenv("TMPDIR");
        std::string base = (tmp != nullptr && tmp[0] == '/') ? tmp : DEFAULT_TMPDIR;
        std::vector<char> name(base.begin(), base.end());
        name.insert(name.end(), JOB_DIR_TEMPLATE, JOB_DIR_TEMPLATE + sizeof(JOB_DIR_TEMPLATE));
        if (name.size() > PATH_MAX || mkdtemp(name.data()) == nullptr) {
            LOG_ERROR("[ERROR] unable to create the job directory under %s", base.c_str());
            return false;
        }
        szJobDir = name.data();
        LOG_DEBUG("job directory: %s", szJobDir.c_str());
    }
    // Both services now work for this transport; setBasePath drops whatever
    // an earlier job left queued.
    ScanRecordDataMgr::getInstance()->setBasePath(&szJobDir[0]);
    ScanReadStatusDisplayMgr::getInstance()->setBasePath(&szJobDir[0]);
    return true;
}

void IOComm::removeJobDirectory() {
    if (szJobDir.empty()) return;
    // Whatever is left in the directory (a page that could not be deleted, a
    // data file the display kept) is ours and goes with it; nothing outside
    // it is touched and no link is followed.
    int dirFd = open(szJobDir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dirFd >= 0) {
        DIR* dir = fdopendir(dirFd);
        if (dir == nullptr) {
            close(dirFd);
        } else {
            while (struct dirent* e = readdir(dir)) {
                if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
                unlinkat(dirfd(dir), e->d_name, 0);
            }
            closedir(dir);
        }
    }
    if (rmdir(szJobDir.c_str()) != 0) LOG_ERROR("[ERROR] unable to remove the job directory %s", szJobDir.c_str());
    szJobDir.clear();
}

void IOComm::closeHandle() {
    if (usbHandle != nullptr) usb_close(usbHandle);
    usbHandle = nullptr;
    usbDev = nullptr;
    iOpen = 0;
}

int IOComm::openDevice() {
    LOG_METHOD_START();
    int status = COMM_STATUS_GOOD;
    if (!isSelectedDeviceActive()) {
        if (!isDevicePresent()) {
            LOG_DEBUG("Selected device not present");
            LOG_METHOD_END_INT(COMM_STATUS_NOT_PRESENT);
            return COMM_STATUS_NOT_PRESENT;
        }
        // Re-plugged: the same identifiers under new bus and device numbers.
        changeUSBDeviceInfo();
    }

    if (!iOpen) {
        usbDev = findDevice(cBus, cDev);
        if (usbDev == nullptr) {
            LOG_DEBUG(" -> unable to open selected device, device maybe                     detached");
            LOG_METHOD_END_INT(COMM_STATUS_NOT_PRESENT);
            return COMM_STATUS_NOT_PRESENT;
        }
        iVid = usbDev->descriptor.idVendor;
        iPid = usbDev->descriptor.idProduct;
        usbHandle = usb_open(usbDev);
        if (usbHandle == nullptr) {
            usbDev = nullptr;
            LOG_DEBUG(" -> device open failed");
            LOG_METHOD_END_INT(COMM_STATUS_OPEN_FAILED);
            return COMM_STATUS_OPEN_FAILED;
        }
        iOpen = 1;

        int interfaces = interfaceCount(usbDev);
        bool matched = false;
        for (int i = 0; i < interfaces && !matched; ++i) {
            if (interfaceQualifies(usbDev, i)) {
                iIfaceNum = i;
                matched = true;
            }
        }
        if (!matched) {
            // Without a qualifying interface there is nothing of ours to claim;
            // the number of an earlier device would name someone else's.
            LOG_DEBUG(" -> no scanner interface on usb %s/%s", cBus, cDev);
            closeHandle();
            LOG_METHOD_END_INT(COMM_STATUS_NOT_PRESENT);
            return COMM_STATUS_NOT_PRESENT;
        }
        // Endpoints of an earlier device must not survive into this one.
        iEndPointIn = -1;
        iEndPointOut = -1;
        if (iIfaceNum < interfaces && usbDev->config[0].interface != nullptr) {
            const struct usb_interface& itf = usbDev->config[0].interface[iIfaceNum];
            if (itf.num_altsetting >= 1 && itf.altsetting != nullptr && itf.altsetting[0].endpoint != nullptr) {
                const struct usb_interface_descriptor& alt = itf.altsetting[0];
                for (int e = 0; e < alt.bNumEndpoints; ++e) {
                    int address = alt.endpoint[e].bEndpointAddress;
                    if (address & ENDPOINT_DIR_IN)
                        iEndPointIn = address;
                    else
                        iEndPointOut = address;
                }
            }
        }

        if (interfaceCount(usbDev) > 0) {
            errno = 0;
            int rc = usb_set_configuration(usbHandle, usbDev->config[0].bConfigurationValue);
            if (rc != 0 && (errno == EPERM || rc == -EPERM)) {
                LOG_DEBUG(" -> unable to set configuration %s", usb_strerror());
                closeHandle();
                LOG_METHOD_END_INT(COMM_STATUS_NO_PERMISSION);
                return COMM_STATUS_NO_PERMISSION;
            }
            // Any other failure to set the configuration is ignored.
        }

        int rc = usb_claim_interface(usbHandle, iIfaceNum);
        if (rc == USB_RESULT_BUSY) {
            // A kernel driver holds the interface: detach it once and retry.
            int detach = usb_detach_kernel_driver_np(usbHandle, iIfaceNum);
            if (detach != 0) {
                LOG_DEBUG(" -> unable to release kernel lock                                     on usb %s",
                          usb_strerror());
                // The device stays open and openDevice reports libusb's result.
                status = detach;
            } else if (usb_claim_interface(usbHandle, iIfaceNum) != 0) {
                closeHandle();
                LOG_METHOD_END_INT(COMM_STATUS_CLAIM_FAILED);
                return COMM_STATUS_CLAIM_FAILED;
            } else {
                LOG_DEBUG(" -> usb interface claimed");
            }
        } else if (rc != 0) {
            // Any other refusal is passed on as libusb's result; the device stays open.
            status = rc;
        } else {
            LOG_DEBUG(" -> usb interface claimed");
        }
    } else {
        LOG_DEBUG(" -> usb device opened");
    }

    if (status == COMM_STATUS_GOOD) {
        unsigned int pages = cachedPageCount();
        LOG_DEBUG("Total cached pages: %u", pages);
        bCachedPageGiven = false;
        bMultiPage = false;
        if (pages > 0) {
            bMultiPage = true;
            LOG_DEBUG("Cached pages still exist, must bypass actual device scanning...");
            status = COMM_STATUS_CACHED_PAGES;
        }
    }
    LOG_METHOD_END_INT(status);
    return status;
}

int IOComm::closeDevice() {
    LOG_METHOD_START();
    // A closed device ends the scan (the session closes it after a cancel):
    // an unread compressed job is dropped.
    endCompressedScan();
    if (!iOpen) {
        LOG_METHOD_END_INT(COMM_STATUS_GOOD);
        return COMM_STATUS_GOOD;
    }
    if (usb_release_interface(usbHandle, iIfaceNum) != 0) {
        LOG_DEBUG(" -> Unable to release interface %s interface num %d", usb_strerror(), iIfaceNum);
        LOG_METHOD_END_INT(COMM_STATUS_RELEASE_FAILED);
        return COMM_STATUS_RELEASE_FAILED;
    }
    int reset = optionInt("USB_RESET_FLAG");
    LOG_DEBUG("usb reset flag: %d", reset);
    if (reset == 1) {
        LOG_DEBUG("PID: %d", getPid());
        LOG_DEBUG("calling usb_reset()");
        usb_reset(usbHandle);
    }
    const int closed = usb_close(usbHandle);
    // libusb releases the handle whatever usb_close reports, so it is never
    // used again.
    usbHandle = nullptr;
    closeHandle();
    if (closed != 0) {
        LOG_DEBUG(" -> unable to close device");
        LOG_METHOD_END_INT(COMM_STATUS_CLOSE_FAILED);
        return COMM_STATUS_CLOSE_FAILED;
    }
    LOG_METHOD_END_INT(COMM_STATUS_GOOD);
    return COMM_STATUS_GOOD;
}

int IOComm::getVendorName(char* buffer, int size) {
    if (buffer == nullptr || size < 1) return COMM_STATUS_INVALID_ARG;
    if (usbHandle != nullptr && usbDev != nullptr) return getNameDev(usbDev, usbHandle, buffer, size, USB_NAME_VENDOR);
    // Not open: the vendor part of the name as enumeration built it.
    std::string vendor = szDeviceName.substr(0, szDeviceName.find('/'));
    copyText(buffer, size, vendor.c_str());
    return COMM_STATUS_GOOD;
}

int IOComm::getProductName(char* buffer, int size) {
    if (buffer == nullptr || size < 1) return COMM_STATUS_INVALID_ARG;
    if (usbHandle != nullptr && usbDev != nullptr)
        return getNameDev(usbDev, usbHandle, buffer, size, USB_NAME_PRODUCT);
    size_t first = szDeviceName.find('/');
    std::string product;
    if (first != std::string::npos) {
        size_t second = szDeviceName.find('/', first + 1);
        product = szDeviceName.substr(first + 1, second == std::string::npos ? std::string::npos : second - first - 1);
    }
    copyText(buffer, size, product.c_str());
    return COMM_STATUS_GOOD;
}

// ------------------------------------------------------------- bulk transfers

int IOComm::Write(unsigned char* data, int length) {
    LOG_METHOD_START();
    // openDevice also follows a re-plugged device; for an open device it is 0
    // unless pages are cached. Cached pages (19) come from an open, claimed
    // device whose job has ended, so the write goes ahead: the session must be
    // able to unlock or cancel while it hands out the pages of a feeder job.
    int opened = openDevice();
    if (opened != COMM_STATUS_GOOD && opened != COMM_STATUS_CACHED_PAGES) {
        LOG_DEBUG(" -> device is closed, open first");
        LOG_METHOD_END_INT(COMM_STATUS_DEVICE_CLOSED);
        return COMM_STATUS_DEVICE_CLOSED;
    }
    if (iEndPointOut == -1) {
        LOG_DEBUG(" -> endpoint invalid");
        LOG_METHOD_END_INT(COMM_STATUS_INVALID_ENDPOINT);
        return COMM_STATUS_INVALID_ENDPOINT;
    }
    LOG_DEBUG("HEX DUMP OUTGOING DATA: usb_bulk_write %d bytes with %d timeout", length, (int)COMM_DEFAULT_TIMEOUT_MS);
    LOG_DUMP(data, length);
    // No signal may interrupt the transfer halfway.
    sigset_t all;
    sigset_t saved;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    int rc = usb_bulk_write(usbHandle, iEndPointOut, (const char*)data, length, (int)COMM_DEFAULT_TIMEOUT_MS);
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    if (rc < 0) {
        LOG_DEBUG(" -> write error %d = %s", rc, usb_strerror());
        LOG_METHOD_END_INT(COMM_STATUS_WRITE_FAILED);
        return COMM_STATUS_WRITE_FAILED;
    }
    // A short write is not detected.
    LOG_METHOD_END_INT(COMM_STATUS_GOOD);
    return COMM_STATUS_GOOD;
}

int IOComm::Read(unsigned char* buffer, int* length) { return Read(buffer, length, COMM_DEFAULT_TIMEOUT_MS); }

int IOComm::Read(unsigned char* buffer, int* length, long timeout) {
    LOG_METHOD_START();
    if (buffer == nullptr || length == nullptr) {
        LOG_METHOD_END_INT(COMM_STATUS_INVALID_ARG);
        return COMM_STATUS_INVALID_ARG;
    }
    if (!iOpen) {
        LOG_DEBUG(" -> device is closed, open first");
        LOG_METHOD_END_INT(COMM_STATUS_DEVICE_CLOSED);
        return COMM_STATUS_DEVICE_CLOSED;
    }
    if (iEndPointIn == -1) {
        LOG_DEBUG(" -> invalid read endpoint");
        LOG_METHOD_END_INT(COMM_STATUS_INVALID_ENDPOINT);
        return COMM_STATUS_INVALID_ENDPOINT;
    }
    int rc = usb_bulk_read(usbHandle, iEndPointIn, (char*)buffer, *length, (int)timeout);
    if (rc > 0) {
        // A device claiming more than was asked for is cut to the capacity.
        if (rc > *length) rc = *length;
        LOG_DUMP(buffer, rc);
        *length = rc;
        LOG_METHOD_END_INT(COMM_STATUS_GOOD);
        return COMM_STATUS_GOOD;
    }
    LOG_DEBUG(" -> read error %d = %s", rc, usb_strerror());
    *length = 0;
    LOG_METHOD_END_INT(COMM_STATUS_READ_FAILED);
    return COMM_STATUS_READ_FAILED;
}

// ----------------------------------------------------------- command exchange

int IOComm::writeCommand(int commandId, CResponse* reply) {
    LOG_METHOD_START();
    if (pCommand == nullptr) {
        LOG_DEBUG(" -> command object NULL");
        LOG_METHOD_END_INT(COMM_STATUS_INVALID_ARG);
        return COMM_STATUS_INVALID_ARG;
    }
    if (commandId == CMD_ID_START) pDataBuffer.reset(new DataBuffer());

    pCommand->setCommandId(commandId);
    unsigned char* raw = nullptr;
    int len = 0;
    if (pCommand->getCommand(&raw, &len) != 0 || raw == nullptr || len <= 0) {
        free(raw);
        LOG_DEBUG(" -> invalid command");
        LOG_METHOD_END_INT(COMM_STATUS_BAD_COMMAND);
        return COMM_STATUS_BAD_COMMAND;
    }
    std::unique_ptr<unsigned char, FreeDeleter> bytes(raw);
    if (CLogger::debugEnabled())
        for (int i = 0; i < len; ++i) LOG_DEBUG("%2X %d", raw[i], i);
    if (Write(raw, len) != COMM_STATUS_GOOD) {
        LOG_DEBUG(" -> unable to write command");
        LOG_METHOD_END_INT(COMM_STATUS_WRITE_FAILED);
        return COMM_STATUS_WRITE_FAILED;
    }

    int status = COMM_STATUS_GOOD;
    int expected = pCommand->getCommandId();
    if (expected >= CMD_ID_STATUS && expected <= CMD_ID_SCAN_SIZES) {
        LOG_DEBUG("waiting for response...");
        std::unique_ptr<CResponse> own;
        if (reply == nullptr) {
            own.reset(new CResponse());
            reply = own.get();
        }
        unsigned char answer[USB_REPLY_SIZE];
        for (int retries = 3; retries > 0; --retries) {
            LOG_DEBUG("retries remaining: %d", retries);
            int got = sizeof(answer);
            if (Read(answer, &got) != COMM_STATUS_GOOD || reply->setHeader(answer, got) != 0) {
                // A reply too short to be one counts as no reply.
                status = COMM_STATUS_READ_FAILED;
                LOG_DEBUG("waiting for response failed");
                continue;
            }
            status = reply->getReply();
            LOG_DEBUG("expected command ID: %d;  command ID from response data: %d", expected, status);
            if (status == expected) {
                LOG_DEBUG("expected reply found");
                break;
            }
        }
    }
    LOG_METHOD_END_INT(status);
    return status;
}

int IOComm::setCommand(ICommand* command) {
    if (command == nullptr) return COMM_STATUS_INVALID_ARG;
    pCommand = command;
    return COMM_STATUS_GOOD;
}

ICommand* IOComm::getCommand() { return pCommand; }

int IOComm::isLocal() { return 1; }

char* IOComm::getIPAddress() { return nullptr; }

int IOComm::setIPAddress(const char*) { return COMM_STATUS_GOOD; }

int IOComm::setConfigReader(ConfigReader* store) {
    pConfigReader = store;
    return COMM_STATUS_GOOD;
}

// ----------------------------------------------------------- scan data stream

void IOComm::dropPending() {
    pPendingData.clear();
    pPendingData.shrink_to_fit();
    iPendingLen = 0;
}

int IOComm::fetchData(unsigned int length, unsigned char* destination) {
    if (destination == nullptr && length > 0) return COMM_STATUS_INVALID_ARG;
    unsigned int copied = 0;
    if (iPendingLen > 0) {
        unsigned int take = length < iPendingLen ? length : iPendingLen;
        // The pending read position is not advanced when only part of the
        // pending bytes is taken, so a later fetch copies from the same start
        // again: intended. take never exceeds the bytes the buffer holds.
        memcpy(destination, pPendingData.data(), take);
        iPendingLen -= take;
        copied = take;
        if (iPendingLen == 0) dropPending();
    }
    while (copied < length) {
        int got = USB_CHUNK_SIZE;
        int rc = Read(aChunk.data(), &got);
        if (rc != COMM_STATUS_GOOD) {
            LOG_DEBUG("[ERROR] unable to read from device. status: %d", rc);
            return rc;
        }
        unsigned int wanted = length - copied;
        unsigned int take = (unsigned int)got < wanted ? (unsigned int)got : wanted;
        memcpy(destination + copied, aChunk.data(), take);
        copied += take;
        if ((unsigned int)got > take) {
            pPendingData.assign(aChunk.begin() + take, aChunk.begin() + got);
            iPendingLen = (unsigned int)got - take;
            break;
        }
    }
    return COMM_STATUS_GOOD;
}

int IOComm::fetchMessage(unsigned char** message, unsigned int* length) {
    if (message == nullptr || length == nullptr || pCommand == nullptr) return COMM_STATUS_INVALID_ARG;
    *message = nullptr;
    *length = 0;
    int headerLen = pCommand->getHeaderLen();
    if (headerLen <= 0) return COMM_STATUS_INVALID_ARG;
    LOG_DEBUG("fetching message header(size: %d)...", headerLen);
    std::vector<unsigned char> header((size_t)headerLen);
    int rc = fetchData((unsigned int)headerLen, header.data());
    if (rc != COMM_STATUS_GOOD) {
        LOG_DEBUG("[ERROR] unable to fetch message header. %d", rc);
        return rc;
    }
    int dataLen = pCommand->getESCDataSize(header.data(), headerLen);
    LOG_DEBUG("data part len indicated in message header: %d", dataLen);
    // A header that carries no length is a message without a data part.
    if (dataLen < 0) dataLen = 0;
    unsigned char* whole = (unsigned char*)malloc((size_t)headerLen + (size_t)dataLen);
    if (whole == nullptr) {
        LOG_DEBUG("[ERROR] unable to allocate memory to store data part");
        return COMM_STATUS_INVALID_ARG;
    }
    memcpy(whole, header.data(), (size_t)headerLen);
    LOG_DEBUG("fetching data part(size: %d)...", dataLen);
    rc = fetchData((unsigned int)dataLen, whole + headerLen);
    if (rc != COMM_STATUS_GOOD) {
        LOG_DEBUG("[ERROR] unable to fetch data part. %d", rc);
        free(whole);
        return rc;
    }
    *message = whole;
    *length = (unsigned int)(headerLen + dataLen);
    return COMM_STATUS_GOOD;
}

int IOComm::clearData() {
    LOG_METHOD_START();
    // Bounded like the consume loops, so a device that never stops sending
    // cannot hold the front end here.
    for (int chunk = 0;; ++chunk) {
        if (chunk == USB_CONSUME_MAX_CHUNKS) {
            LOG_DEBUG("[WARN] device still sending after %d chunks; stopped draining", chunk);
            break;
        }
        int got = USB_CHUNK_SIZE;
        int rc = Read(aChunk.data(), &got, USB_CLEAR_TIMEOUT_MS);
        if (rc != COMM_STATUS_GOOD) {
            LOG_DEBUG("Unable to read from USB %d", rc);
            break;
        }
        if (recordStatus(aChunk.data(), got) == (int)RECORD_SCAN_COMPLETE) {
            LOG_DEBUG("We're done consuming");
            break;
        }
    }
    LOG_METHOD_END_INT(COMM_STATUS_GOOD);
    return COMM_STATUS_GOOD;
}

int IOComm::clear() {
    LOG_METHOD_START();
    dropPending();
    // The job is drained: what was collected of it is no longer read.
    endCompressedScan();
    int rc = clearData();
    LOG_METHOD_END_INT(rc);
    return rc;
}

// What the device may send for one image of the frame, coded or raw: at
// least the initial estimate of a compressed job, at most the largest image
// accepted. Past it the image is refused rather than the process's memory
// (or the page cache's disk) given to whatever the device keeps sending.
long IOComm::imageByteLimit() {
    const long pixels = std::max(optionInt("PIXELS_PER_LINE"), 0);
    const long lines = std::max(optionInt("LINES"), 0);
    const long decodedBytes = (long)roundUp8((unsigned)pixels) * (long)roundUp8((unsigned)lines) * 3;
    return std::min(MAX_SENT_BYTES, std::max(USB_COMPRESSED_ESTIMATE, MAX_SENT_PER_DECODED * decodedBytes));
}

bool IOComm::isMultiPageJob() {
    return optionInt("USB_MULTIPAGE_FLAG") == 1 && optionInt("SCAN_SOURCE") != 0;
}

int IOComm::consumeScannerData() {
    LOG_METHOD_START();
    int multiPage = optionInt("USB_MULTIPAGE_FLAG");
    int source = optionInt("SCAN_SOURCE");
    LOG_DEBUG("USB multi-page flag: %d", multiPage);
    LOG_DEBUG("scan source: %d", source);
    int rc = COMM_STATUS_GOOD;
    if (multiPage == 1 && source != 0) {
        LOG_DEBUG("USB multi-page is enabled and scan source is ADF");
        bMultiPage = true;
        rc = readImagesIntoFiles();
    }
    LOG_METHOD_END_INT(rc);
    return rc;
}

int IOComm::readImagesIntoFiles() {
    LOG_METHOD_START();
    if (pCommand == nullptr || !prepareJobDirectory()) {
        LOG_METHOD_END_INT(1);
        return 1;
    }
    ScanRecordDataMgr* cache = ScanRecordDataMgr::getInstance();
    ScanReadStatusDisplayMgr* display = nullptr;
    if (optionInt("READ_STATUS_DISPLAY_FLAG") == 1) {
        LOG_DEBUG("read display is enabled");
        display = ScanReadStatusDisplayMgr::getInstance();
        const char* binary = pConfigReader->GetStringOption("DISPLAYBINARY");
        LOG_DEBUG("read display binary: %s", binary != nullptr ? binary : "");
        display->setProgressWindowAppCommand(binary);
        display->start();
    }

    bool completed = false;
    bool stop = false;
    int pageCounter = 0;
    // A page is taken back whole into memory, at most INT_MAX bytes.
    const unsigned long pageLimit = (unsigned long)std::min(imageByteLimit(), (long)INT_MAX);
    unsigned long pageBytes = 0;
    int emptyRun = 0;  // messages in a row that brought no page bytes
    while (!stop) {
        unsigned char* raw = nullptr;
        unsigned int len = 0;
        // A failed fetch ends the job (there is no message to look at).
        if (fetchMessage(&raw, &len) != COMM_STATUS_GOOD) break;
        std::unique_ptr<unsigned char, FreeDeleter> message(raw);
        int status = recordStatus(raw, (int)len);
        if (status < 0) {
            LOG_DEBUG("[ERROR] Non scan record message received.");
            break;
        }
        LOG_DEBUG("scan record status: 0x%x", status);
        unsigned int fragment = 0;
        switch ((unsigned)status) {
        case RECORD_IN_PROGRESS: {
            LOG_DEBUG("scan in progress");
            fragment = len > (unsigned)RECORD_PAYLOAD_OFFSET ? len - RECORD_PAYLOAD_OFFSET : 0u;
            LOG_DEBUG("page fragment first 100 bytes");
            LOG_DUMP(raw + RECORD_PAYLOAD_OFFSET, (int)std::min(fragment, (unsigned)USB_FRAGMENT_DUMP));
            pageBytes += fragment;
            if (pageBytes > pageLimit) {
                LOG_ERROR("[ERROR] page larger than %lu bytes: job ended", pageLimit);
                stop = true;
            } else if (!cache->putPageFragment(raw + (fragment > 0 ? RECORD_PAYLOAD_OFFSET : 0), fragment)) {
                // A page that cannot be written whole ends the job rather than
                // giving the front end a short page.
                LOG_ERROR("[ERROR] unable to write page fragment to the page cache");
                stop = true;
            }
            break;
        }
        case RECORD_SCAN_COMPLETE:
            LOG_DEBUG("scan completed successfully");
            cache->endPage();
            pageBytes = 0;
            completed = true;
            stop = true;
            break;
        case RECORD_OUT_OF_MEMORY:
            LOG_DEBUG("job end marker: scan aborted; out of memory in device");
            stop = true;
            break;
        case RECORD_HOST_ABORT:
            LOG_DEBUG("job end marker: scan aborted; host-initiated abort");
            stop = true;
            break;
        case RECORD_DEVICE_ABORT:
            LOG_DEBUG("job end marker: scan aborted; device-initiated abort");
            stop = true;
            break;
        case RECORD_PAPER_JAM:
            LOG_DEBUG("job end marker: scan aborted; paper jam");
            stop = true;
            break;
        case RECORD_COMM_ERROR:
            LOG_DEBUG("job end marker: communications error");
            stop = true;
            break;
        case RECORD_PAGE_END:
            LOG_DEBUG("page end marker");
            cache->endPage();
            pageBytes = 0;
            break;
        case RECORD_JOB_START:
            LOG_DEBUG("job start marker");
            break;
        case RECORD_PAGE_START:
            LOG_DEBUG("page start marker");
            if (display != nullptr && display->isRunning()) {
                std::string text = std::to_string(++pageCounter);
                LOG_DEBUG("updating display: %s", text.c_str());
                display->update(text.c_str());
            }
            break;
        default:
            LOG_DEBUG("unknown status");
            stop = true;
            break;
        }
        if (fragment > 0) {
            emptyRun = 0;
        } else if (!stop && ++emptyRun == USB_MAX_EMPTY_MESSAGES) {
            LOG_ERROR("[ERROR] %d messages in a row without page data: job ended", emptyRun);
            stop = true;
        }
    }

    if (completed) {
        consumeAfterJob();
    } else {
        // The pages already ended stay queued; a page the job broke off in
        // the middle of is not one of them.
        cache->discardCurrentPage();
    }
    // Bytes of this job still held from the last read belong to no later read.
    dropPending();
    if (display != nullptr) display->stop();
    int result = completed ? 0 : 1;
    LOG_METHOD_END_INT(result);
    return result;
}

void IOComm::consumeAfterJob() {
    LOG_DEBUG("starting consume loop");
    int status = COMM_STATUS_GOOD;
    for (int i = 0; i < USB_CONSUME_MAX_CHUNKS && status == COMM_STATUS_GOOD; ++i) {
        int size = USB_CHUNK_SIZE;
        LOG_DEBUG("reading chunk (size: %d) from device...", size);
        status = Read(aChunk.data(), &size, USB_CONSUME_TIMEOUT_MS);
    }
    LOG_DEBUG("nothing more to consume. status: %d", status);
    LOG_DEBUG("end of consume loop");
}

int IOComm::ReadImage(int* length, DataBuffer* buffer, ImageData* image) {
    LOG_METHOD_START();
    if (length == nullptr || buffer == nullptr) {
        LOG_METHOD_END_INT(COMM_STATUS_INVALID_ARG);
        return COMM_STATUS_INVALID_ARG;
    }
    if (pCommand == nullptr) {
        LOG_DEBUG(" -> command object NULL");
        LOG_METHOD_END_INT(COMM_STATUS_INVALID_ARG);
        return COMM_STATUS_INVALID_ARG;
    }
    int rc;
    // Bands being handed out (a compressed job collected at the start, or the
    // cached page of a compressed feeder job taken in this session) are read
    // out without asking the command object again for every piece: the mode
    // was decided with the same question when they were collected or taken,
    // and its option look-ups and log lines cost more than handing the piece
    // out. Otherwise the command object decides; a cached page of a
    // compressed job is its band stream, decoded as it is handed out.
    if (pBands != nullptr)
        rc = readDecompressedImage(length, buffer);
    else if (pCommand->getCompression() == COMPRESSION_ON)
        rc = bMultiPage ? readCompressedCachedPage(length, buffer) : readDecompressedImage(length, buffer);
    else if (bMultiPage)
        rc = readCachedPage(length, buffer);
    else
        rc = readOrdinaryImage(length, buffer, image);
    LOG_METHOD_END_INT(rc);
    return rc;
}

// The page of this session from the page cache: 0 with the page, 1 when the
// session had its page or none is left, 15 when it cannot be read.
int IOComm::takeCachedPage(std::unique_ptr<unsigned char, FreeDeleter>& page, unsigned int* size) {
    if (bCachedPageGiven) {
        LOG_DEBUG("cached page has already been given for this session");
        LOG_DEBUG("indicating no more page to give");
        return COMM_STATUS_END_OF_DATA;
    }
    unsigned int pages = cachedPageCount();
    LOG_DEBUG("Total cached pages: %d", (int)pages);
    if (pages == 0) {
        LOG_DEBUG("no more cached pages found");
        return COMM_STATUS_END_OF_DATA;
    }
    unsigned char* raw = nullptr;
    if (!ScanRecordDataMgr::getInstance()->takePage(&raw, size)) {
        LOG_DEBUG("[ERROR] reading cached page failed");
        return COMM_STATUS_READ_FAILED;
    }
    page.reset(raw);
    LOG_DEBUG("cached page size: %u", *size);
    bCachedPageGiven = true;
    return COMM_STATUS_GOOD;
}

int IOComm::readCachedPage(int* length, DataBuffer* buffer) {
    std::unique_ptr<unsigned char, FreeDeleter> page;
    unsigned int size = 0;
    const int rc = takeCachedPage(page, &size);
    if (rc != COMM_STATUS_GOOD) return rc;
    // takePage hands out at most INT_MAX bytes.
    buffer->SetRawData(page.get(), (int)size);
    *length = (int)size;
    LOG_DEBUG("handing over cached page...");
    return COMM_STATUS_GOOD;
}

// The cached page of a compressed feeder job is its band stream: taken as an
// uncompressed one is, one per session, its bands then go out as those of a
// compressed scan do, decoded as they are handed out.
int IOComm::readCompressedCachedPage(int* length, DataBuffer* buffer) {
    std::unique_ptr<unsigned char, FreeDeleter> page;
    unsigned int size = 0;
    const int rc = takeCachedPage(page, &size);
    if (rc != COMM_STATUS_GOOD) return rc;
    if (usb_wicket_decompress(page.get(), size) != 0) {
        LOG_DEBUG("[ERROR] reading cached page failed");
        return COMM_STATUS_READ_FAILED;
    }
    pBands->pOwned = std::move(page);
    LOG_DEBUG("handing over cached page...");
    return readDecompressedImage(length, buffer);
}

int IOComm::readOrdinaryImage(int* length, DataBuffer* buffer, ImageData* image) {
    unsigned char* chunk = aChunk.data();
    int got = USB_CHUNK_SIZE;
    int rc = Read(chunk, &got);
    if (rc != COMM_STATUS_GOOD) return rc;

    int status = recordStatus(chunk, got);
    if (status > 0) {
        // A record too short for the interleave fields does not carry them.
        if (status == (int)RECORD_PAGE_START && readU8(chunk, got, RECORD_KIND_OFFSET) == RECORD_HAS_INTERLEAVE &&
            got >= INTERLEAVE_RECORD_LEN) {
            int width = (int)readLE32(chunk, got, INTERLEAVE_WIDTH_OFFSET);
            int height = (int)readLE32(chunk, got, INTERLEAVE_HEIGHT_OFFSET);
            int offsetX = (int)readLE32(chunk, got, INTERLEAVE_OFFSETX_OFFSET);
            int offsetY = (int)readLE32(chunk, got, INTERLEAVE_OFFSETY_OFFSET);
            int trim = (int)readLE32(chunk, got, INTERLEAVE_TRIM_OFFSET);
            LOG_DEBUG(" ---------------------> width = %d", width);
            LOG_DEBUG(" ---------------------> height = %d", height);
            LOG_DEBUG(" ---------------------> offsetx = %d", offsetX);
            LOG_DEBUG(" ---------------------> offsety = %d", offsetY);
            LOG_DEBUG(" ---------------------> trim = %d", trim);
            if (image != nullptr) image->SetInterleaveInfo(width, height, offsetX, offsetY, trim);
        }
        CResponse response;
        response.setHeader(chunk, got);
        return response.getRecordResponse();
    }

    // Image data (a record with status 0 too): strip the block headers and
    // move the payload to the caller's buffer.
    *length = 0;
    pDataBuffer->SetRawData(chunk, got);
    int more;
    do {
        more = pCommand->removeESC(pDataBuffer.get());
        int ready = pDataBuffer->GetProcessedDataSize();
        if (ready > 0) *length += pDataBuffer->GetProcessedData(buffer, ready);
    } while (more != 0);
    return COMM_STATUS_GOOD;
}

// ------------------------------------------------------------ compressed mode

int IOComm::readAndDecompressData() {
    LOG_METHOD_START();
    // Whatever an earlier compressed job left unread goes before a new one starts.
    endCompressedScan();
    if (pCommand == nullptr || pCommand->getCompression() != COMPRESSION_ON) {
        LOG_METHOD_END_INT(COMM_STATUS_GOOD);
        return COMM_STATUS_GOOD;
    }
    if (isMultiPageJob()) {
        // A feeder job sends its pages as scan records whatever the
        // compression: collected here, every page would be dropped as a
        // record and the job lost. The multi-page reader caches each page's
        // bands, and they are decoded as the page is handed out.
        LOG_DEBUG("compressed pages of a multi-page job are decoded as each is handed out");
        LOG_METHOD_END_INT(COMM_STATUS_GOOD);
        return COMM_STATUS_GOOD;
    }
    const size_t limit = (size_t)imageByteLimit();
    size_t capacity = (size_t)USB_COMPRESSED_ESTIMATE;
    std::unique_ptr<unsigned char, FreeDeleter> collected((unsigned char*)calloc(capacity, 1));
    if (!collected) {
        LOG_METHOD_END_INT(COMM_STATUS_INVALID_ARG);
        return COMM_STATUS_INVALID_ARG;
    }
    size_t used = 0;
    unsigned char* chunk = aChunk.data();
    for (;;) {
        int got = USB_CHUNK_SIZE;
        int rc = Read(chunk, &got);
        if (rc != COMM_STATUS_GOOD) {
            LOG_DEBUG(" -> unable to read image %d", rc);
            LOG_METHOD_END_INT(rc);
            return rc;
        }
        int status = recordStatus(chunk, got);
        if (status >= 0) {
            CResponse response;
            response.setHeader(chunk, got);
            int type = response.getRecordResponse();
            if (type == (int)RECORD_SCAN_COMPLETE) {
                LOG_DEBUG("We're done scanning. About to decompress data");
                int result = usb_wicket_decompress(collected.get(), (unsigned int)used);
                // The bands are decoded from the collected bytes as the image
                // is read, so the band stream keeps them until then.
                if (result == 0)
                    pBands->pOwned = std::move(collected);
                else
                    collected.reset();
                LOG_DEBUG("Wicket Decompression returned %d", result);
                LOG_METHOD_END_INT(result);
                return result;
            }
            if (type == (int)RECORD_IN_PROGRESS || type == (int)RECORD_PAGE_END || type == (int)RECORD_JOB_START ||
                type == (int)RECORD_PAGE_START)
                continue;
            LOG_METHOD_END_INT(type);
            return type;
        }
        if (used + (size_t)got > limit) {
            LOG_ERROR("[ERROR] compressed job larger than %ld bytes: not read further", (long)limit);
            LOG_METHOD_END_INT(1);
            return 1;
        }
        if (used + (size_t)got > capacity) {
            LOG_DEBUG("memory estimation for compressed buffer not enough!");
            // Doubling keeps the number of copies (and of log lines) logarithmic.
            size_t need = std::min(std::max(used + (size_t)got, capacity * 2), limit);
            unsigned char* grown = (unsigned char*)realloc(collected.get(), need);
            if (grown == nullptr) {
                LOG_METHOD_END_INT(COMM_STATUS_INVALID_ARG);
                return COMM_STATUS_INVALID_ARG;
            }
            collected.release();
            collected.reset(grown);
            capacity = need;
        }
        memcpy(collected.get() + used, chunk, (size_t)got);
        used += (size_t)got;
    }
}

// Decoding happens at read time, one band at a time, into one band buffer
// kept for the whole job: a scan then holds a band instead of the whole page
// (some hundred megabytes at the highest resolution), and no page-sized
// buffer has to be touched for the first time, which cost more than a third
// of the scan. The bytes handed out are the same. What can be found without
// decoding is checked here, so a malformed job fails at the start as before.
int IOComm::usb_wicket_decompress(unsigned char* data, unsigned int length) {
    LOG_METHOD_START();
    endCompressedScan();
    int pixels = optionInt("PIXELS_PER_LINE");
    // The frame announced LINES lines and the device sends that many.
    // SCANHEIGHT is the area's bottom edge, one line more where it rounds up
    // and more again below a top margin, so the image would overrun the frame.
    int lines = optionInt("LINES");
    int depth = optionInt("COLORDEPTH");
    LOG_DEBUG("the colordepth %d", depth);
    const bool colour = depth == 2;
    const long bpp = colour ? 3 : 1;
    if (pixels < 0) pixels = 0;
    if (lines < 0) lines = 0;
    const long rowBytes = (long)pixels * bpp;
    const long roundedLines = (long)roundUp8((unsigned)lines);
    const long imageBytes = (long)roundUp8((unsigned)pixels) * roundedLines * bpp;
    if (imageBytes > MAX_IMAGE_BYTES) {
        LOG_DEBUG("Wicket Error : %d", -1);
        LOG_METHOD_END_INT(1);
        return 1;
    }
    pBands.reset(new BandStream());
    BandStream& stream = *pBands;
    stream.pData = data;
    stream.iLength = length;
    stream.bColour = colour;
    stream.iBpp = bpp;
    stream.iRowBytes = rowBytes;
    stream.iLinesLeft = lines;
    iDecompSize = rowBytes * lines;

    // The band buffer holds the largest band, as decoded or widened to the
    // image's lines, and the zeros handed out for lines no band reaches.
    long bufferBytes = std::min(iDecompSize, (long)USB_DECOMP_PIECE);
    long linesLeft = lines;
    long outLine = 0;
    unsigned int bandWidth = 0;
    unsigned int pos = 0;
    int result = 0;
    BandHeader band;
    while (stream.headerAt(pos, &band)) {
        if (band.iSize < 1) {
            LOG_DEBUG("BandSize <= 0!");
            break;
        }
        bandWidth = band.iWidth;
        const long decoded = stream.decodedBytes(band);
        if (decoded < 0) {
            LOG_DEBUG("Wicket Error : %d", -1);
            result = 1;
            break;
        }
        const long placed = std::min((long)band.iLines, linesLeft);
        bufferBytes = std::max(bufferBytes, std::max(decoded, placed * rowBytes));
        if (band.iSize < BAND_HEADER_LEN || (unsigned int)band.iSize != band.iBytes) {
            // A band shorter than its header or cut off by the end of the job
            // is decoded now, so that one the decoder refuses fails the start.
            if (!reserveDecompBuffer(decoded)) {
                result = COMM_STATUS_INVALID_ARG;
                break;
            }
            const int err = decodeBand(band, pos);
            if (err != 0) {
                LOG_DEBUG("Wicket Error : %d", err);
                result = 1;
                break;
            }
        }
        linesLeft -= placed;
        outLine = std::min(outLine + (long)band.iLines, roundedLines);
        pos += band.iBytes;
    }
    stream.iEnd = pos;
    if (result == 0 && !reserveDecompBuffer(bufferBytes)) result = COMM_STATUS_INVALID_ARG;
    if (result != 0) {
        endCompressedScan();
        LOG_METHOD_END_INT(result);
        return result;
    }
    LOG_DEBUG("----INFO from WICKET START----");
    LOG_DEBUG("Width = %d, Height = %d", (int)bandWidth, (int)outLine);
    LOG_DEBUG("Total decompressed data size = %d", (int)iDecompSize);
    LOG_DEBUG("----INFO from WICKET END----");
    LOG_METHOD_END_INT(0);
    return 0;
}

bool IOComm::reserveDecompBuffer(long bytes) {
    if ((long)pDecompData.size() >= bytes) return true;
    try {
        pDecompData.resize((size_t)bytes);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

// Decodes the band at pos into the band buffer, lines of its padded width.
int IOComm::decodeBand(const BandHeader& band, unsigned int pos) {
    BandStream& stream = *pBands;
    stream.wicket.QualityFactor(band.iQuality);
    const int paddedWidth = (int)roundUp8(band.iWidth);
    const int paddedLines = (int)roundUp8(band.iLines);
    const unsigned char* coded = stream.pData + pos + BAND_HEADER_LEN;
    const unsigned int codedBytes = band.iBytes > (unsigned int)BAND_HEADER_LEN ? band.iBytes - BAND_HEADER_LEN : 0u;
    const int codedLen = codedBytes < (unsigned int)INT_MAX ? (int)codedBytes : INT_MAX;
    unsigned char* out = pDecompData.data();
    const long outLen = (long)pDecompData.size();
    int produced = 0;
    int consumed = 0;
    return stream.bColour ? stream.wicket.DecompressThreePlanes(coded, codedLen, out, outLen, paddedWidth,
                                                                paddedLines, &produced, &consumed)
                          : stream.wicket.DecompressOnePlane(coded, codedLen, out, outLen, paddedWidth, paddedLines,
                                                             &produced, &consumed);
}

// Decodes the next band; iBandLeft is then the bytes of its lines that the
// image still takes (0 for a band past the image's end). A band at least as
// wide as the image stays as decoded, and handing out skips the rest of each
// of its lines; a narrower one is widened with zeros to the image's lines.
int IOComm::decodeNextBand() {
    BandStream& stream = *pBands;
    BandHeader band;
    if (!stream.headerAt(stream.iPos, &band)) {
        stream.iPos = stream.iEnd;
        return 0;
    }
    const int err = decodeBand(band, stream.iPos);
    stream.iPos += band.iBytes;
    if (err != 0) return err;
    const long lines = std::min((long)band.iLines, stream.iLinesLeft);
    const long bandStride = (long)roundUp8(band.iWidth) * stream.iBpp;
    stream.iLinesLeft -= lines;
    if (bandStride < stream.iRowBytes) {
        widenLines(pDecompData.data(), lines, bandStride, stream.iRowBytes);
        stream.iLineGap = 0;
    } else {
        stream.iLineGap = bandStride - stream.iRowBytes;
    }
    pDecompDataPtr = pDecompData.data();
    iBandLeft = lines * stream.iRowBytes;
    return 0;
}

// Makes the next lines ready to hand out once the last ones are gone: the
// next band that reaches lines of the image, or, when the bands are used up,
// zeros for the lines no band reached. After the image's last line the bands
// left over are decoded as well, though nothing of them is delivered, so a
// broken one is still reported.
int IOComm::fillDecompBuffer() {
    while (pBands && iBandLeft == 0) {
        if (pBands->iPos < pBands->iEnd) {
            const int err = decodeNextBand();
            if (err != 0) return err;
        } else if (iDecompSize > 0) {
            iBandLeft = std::min(iDecompSize, (long)USB_DECOMP_PIECE);
            memset(pDecompData.data(), 0, (size_t)iBandLeft);
            pDecompDataPtr = pDecompData.data();
            pBands->iLineGap = 0;
        } else {
            break;
        }
    }
    return 0;
}

int IOComm::readDecompressedImage(int* length, DataBuffer* buffer) {
    LOG_DEBUG("Total decompressed data size = %d", (int)iDecompSize);
    const int err = fillDecompBuffer();
    if (err != 0) {
        LOG_DEBUG("Wicket Error : %d", err);
        endCompressedScan();
        return COMM_STATUS_READ_FAILED;
    }
    if (iBandLeft > 0) {
        BandStream& stream = *pBands;
        const int n = iBandLeft < USB_DECOMP_PIECE ? (int)iBandLeft : USB_DECOMP_PIECE;
        // The piece goes line by line, so the padding behind a line is skipped.
        for (long left = n; left > 0;) {
            const long take = std::min(left, stream.iRowBytes - stream.iLinePos);
            buffer->SetRawData(pDecompDataPtr, (int)take);
            pDecompDataPtr += take;
            stream.iLinePos += take;
            left -= take;
            if (stream.iLinePos == stream.iRowBytes) {
                pDecompDataPtr += stream.iLineGap;
                stream.iLinePos = 0;
            }
        }
        iBandLeft -= n;
        iDecompSize -= n;
        *length = n;
        return COMM_STATUS_GOOD;
    }
    endCompressedScan();
    return COMM_STATUS_END_OF_DATA;
}

void IOComm::endCompressedScan() {
    pBands.reset();
    std::vector<unsigned char>().swap(pDecompData);
    pDecompDataPtr = nullptr;
    iBandLeft = 0;
    iDecompSize = 0;
}
