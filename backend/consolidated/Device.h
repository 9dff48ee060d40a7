// The transport factory and the device list that joins USB and network scanners.
#ifndef QUARTO_DEVICE_H
#define QUARTO_DEVICE_H

class ICommunication;
class SaneConfReader;

class Device {
public:
    Device() = default;
    virtual ~Device() = default;

    static ICommunication* CreateInstance(const char* name, void* unused);
    static int isUSB(const char* name);
    static int getScanners(char*** list, int* count, SaneConfReader* conf);
    static int getScanners(char*** list, int* count, SaneConfReader* conf, int type);
    static int getScanners(char*** list, int* count, SaneConfReader* conf, int type, const char* flagKey);
};

#endif
