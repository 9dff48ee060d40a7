#include "Device.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "CLogger.h"
#include "ICommunication.h"
#include "IOComm.h"
#include "NetComm.h"
#include "SaneConfReader.h"

namespace {

// Transport types of the device list.
const int TYPE_NETWORK = 1;
const int TYPE_USB = 2;
const int TYPE_BOTH = 3;

void freeNames(char** names, int n) {
    if (names == nullptr) return;
    for (int i = 0; i < n; ++i) free(names[i]);
    free(names);
}

}  // namespace

ICommunication* Device::CreateInstance(const char* name, void*) {
    LOG_DEBUG("selected device is %s", name ? name : "NULL");
    // setDevice only reads the name; its result is not needed here.
    char* device = const_cast<char*>(name);
    if (isUSB(name)) {
        IOComm* comm = new IOComm();
        comm->setDevice(device);
        LOG_DEBUG("created iocomm instance");
        return comm;
    }
    NetComm* comm = new NetComm();
    comm->setDevice(device);
    LOG_DEBUG("created netcomm instance");
    return comm;
}

int Device::isUSB(const char* name) { return (name != nullptr && strstr(name, "libusb") != nullptr) ? 1 : 0; }

int Device::getScanners(char*** list, int* count, SaneConfReader* conf) { return getScanners(list, count, conf, TYPE_BOTH); }

int Device::getScanners(char*** list, int* count, SaneConfReader* conf, int type) {
    if (list == nullptr || count == nullptr) return 1;
    *list = nullptr;
    if (type == TYPE_BOTH) {
        const char* mode = conf != nullptr ? conf->getConfigValue("DEVICE_LIST_ORDER_MODE") : nullptr;
        int total = 0;
        int second = 0;
        if (mode != nullptr && strcmp(mode, "0") == 0) {
            getScanners(list, &total, conf, TYPE_USB, "DISCOVER_USB_FLAG");
            second = getScanners(list, &total, conf, TYPE_NETWORK, "DISCOVER_NET_FLAG");
        } else if (mode != nullptr && strcmp(mode, "1") == 0) {
            getScanners(list, &total, conf, TYPE_NETWORK, "DISCOVER_NET_FLAG");
            second = getScanners(list, &total, conf, TYPE_USB, "DISCOVER_USB_FLAG");
        }
        // Any other order mode gathers neither list and reports none.
        *count = total;
        // A second call that returns 1 has added a device, so this never fires;
        // kept as it stands on purpose.
        if (*count < 1 && second == 1) return 1;
        LOG_DEBUG("total: %d", *count);
        return 0;
    }
    int found = 0;
    int n;
    if (type == TYPE_USB)
        n = getScanners(list, &found, conf, TYPE_USB, "DISCOVER_USB_FLAG");
    else if (type == TYPE_NETWORK)
        n = getScanners(list, &found, conf, TYPE_NETWORK, "DISCOVER_NET_FLAG");
    else
        return 1;
    if (n < 0) return 1;
    *count = found;
    return 0;
}

int Device::getScanners(char*** list, int* count, SaneConfReader* conf, int type, const char* flagKey) {
    if (list == nullptr || count == nullptr) return -1;
    if (*count < 0) *count = 0;
    const char* flag = (conf != nullptr && flagKey != nullptr) ? conf->getConfigValue(flagKey) : nullptr;
    LOG_DEBUG("%s = %s", flagKey ? flagKey : "NULL", flag ? flag : "NULL");
    if (flag == nullptr || strcmp(flag, "1") != 0) {
        LOG_DEBUG("discovery is OFF");
        return 0;
    }

    ICommunication* comm;
    if (type == TYPE_NETWORK) {
        comm = new (std::nothrow) NetComm();
    } else if (type == TYPE_USB) {
        comm = new (std::nothrow) IOComm();
    } else {
        LOG_DEBUG("[ERROR] Invalid communication type");
        return -1;
    }
    if (comm == nullptr) {
        LOG_DEBUG("[ERROR] Error creating communication object");
        return -1;
    }

    char** found = nullptr;
    int n = 0;
    int rc = comm->getScanners(&found, &n, conf);
    LOG_DEBUG("scanners found: %d", n);
    // The names stay valid: from here on they belong to the list.
    delete comm;
    if (n < 0 || (found == nullptr && n > 0)) n = 0;
    if (rc != 0) {
        LOG_DEBUG("[ERROR] Error getting scanners");
        freeNames(found, n);
        return -1;
    }
    if (n > 0) {
        char** grown = (char**)realloc(*list, sizeof(char*) * (size_t)(*count + n));
        if (grown == nullptr) {
            freeNames(found, n);
            return -1;
        }
        *list = grown;
        for (int i = 0; i < n; ++i) {
            LOG_DEBUG("%s", found[i]);
            grown[*count + i] = found[i];
        }
        *count += n;
    }
    free(found);
    return n;
}
