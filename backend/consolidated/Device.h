// The transport factory and the device list that joins USB and network scanners
// in the configured order.
#ifndef QUARTO_DEVICE_H
#define QUARTO_DEVICE_H

class ICommunication;
class SaneConfReader;

class Device {
public:
    Device() = default;
    virtual ~Device() = default;

    // IOComm for a name containing "libusb", NetComm otherwise; the caller owns it.
    static ICommunication* CreateInstance(const char* name, void* unused);
    static int isUSB(const char* name);
    // Both transports in the order of DEVICE_LIST_ORDER_MODE. *list receives a
    // malloc'ed array of malloc'ed names (or null), *count their number.
    static int getScanners(char*** list, int* count, SaneConfReader* conf);
    // type 1 network only, 2 USB only, 3 both.
    static int getScanners(char*** list, int* count, SaneConfReader* conf, int type);
    // Appends one transport's scanners when flagKey is "1" in the configuration;
    // returns the number added, 0 when discovery is off, -1 on error.
    static int getScanners(char*** list, int* count, SaneConfReader* conf, int type, const char* flagKey);
};

#endif
