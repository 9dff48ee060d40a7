// The network transport. This first version has no network code at all: its
// discovery finds nothing and sends nothing, and the operations that would
// talk to a device do no I/O. Network discovery (the broadcast query) and the
// network scan job (the external scan program and its page files) come later.
#ifndef QUARTO_NETCOMM_H
#define QUARTO_NETCOMM_H

#include <string>

#include "CLogger.h"
#include "ICommunication.h"

// Room of the IP address field, terminator included.
const int NET_IP_ADDRESS_SIZE = 32;

class NetComm : public virtual ICommunication, public CLogger {
public:
    NetComm();
    ~NetComm() override;
    NetComm(const NetComm&) = delete;
    NetComm& operator=(const NetComm&) = delete;

    int Write(unsigned char* data, int length) override;
    int Read(unsigned char* buffer, int* length) override;
    int Read(unsigned char* buffer, int* length, long timeout) override;
    int ReadImage(int* length, DataBuffer* buffer, ImageData* image) override;
    int setDevice(char* name) override;
    int getVid() override;
    int getPid() override;
    int getScanners(char*** list, int* count, void* conf) override;
    int openDevice() override;
    int closeDevice() override;
    int getProductName(char* buffer, int size) override;
    int getVendorName(char* buffer, int size) override;
    int writeCommand(int commandId, CResponse* reply) override;
    int setCommand(ICommand* command) override;
    ICommand* getCommand() override;
    int isLocal() override;
    int clear() override;
    char* getIPAddress() override;
    int setIPAddress(const char* address) override;
    int readAndDecompressData() override;
    int consumeScannerData() override;
    int setConfigReader(ConfigReader* store) override;

    const std::string& getDeviceName() const { return szDeviceName; }
    ConfigReader* getConfigReader() const { return pCfgReader; }

private:
    std::string szDeviceName;
    char cIPAddress[NET_IP_ADDRESS_SIZE];
    ConfigReader* pCfgReader = nullptr;
    ICommand* pCommand = nullptr;
};

#endif
