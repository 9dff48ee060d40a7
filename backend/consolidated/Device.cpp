// Minimal device factory: no transport exists yet, so every list is empty.
#include "Device.h"

#include <cstring>

#include "CLogger.h"

ICommunication* Device::CreateInstance(const char* name, void*) {
    LOG_DEBUG("selected device is %s", name ? name : "NULL");
    return nullptr;
}

int Device::isUSB(const char* name) { return (name != nullptr && strstr(name, "libusb") != nullptr) ? 1 : 0; }

int Device::getScanners(char*** list, int* count, SaneConfReader* conf) { return getScanners(list, count, conf, 3); }

int Device::getScanners(char*** list, int* count, SaneConfReader*, int) {
    if (list) *list = nullptr;
    if (count) *count = 0;
    LOG_DEBUG("total: %d", 0);
    return 0;
}

int Device::getScanners(char***, int*, SaneConfReader*, int, const char*) { return 0; }
