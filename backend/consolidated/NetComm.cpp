#include "NetComm.h"

#include <cstring>

NetComm::NetComm() { memset(cIPAddress, 0, sizeof(cIPAddress)); }

NetComm::~NetComm() = default;

// The operations that would exchange data with a device do no I/O.
int NetComm::Write(unsigned char*, int) {
    LOG_DEBUG("Write");
    return COMM_STATUS_GOOD;
}

int NetComm::Read(unsigned char*, int* length) {
    LOG_DEBUG("Read");
    if (length != nullptr) *length = 0;
    return COMM_STATUS_GOOD;
}

int NetComm::Read(unsigned char*, int* length, long) {
    LOG_DEBUG("Read");
    if (length != nullptr) *length = 0;
    return COMM_STATUS_GOOD;
}

int NetComm::ReadImage(int* length, DataBuffer*, ImageData*) {
    // No scan job has produced a page, so there is never image data to hand out.
    LOG_DEBUG("ReadImage");
    if (length != nullptr) *length = 0;
    return COMM_STATUS_END_OF_DATA;
}

int NetComm::setDevice(char* name) {
    LOG_METHOD_START();
    if (name == nullptr) {
        LOG_METHOD_END_INT(COMM_STATUS_INVALID_ARG);
        return COMM_STATUS_INVALID_ARG;
    }
    szDeviceName = name;
    LOG_METHOD_END_INT(COMM_STATUS_GOOD);
    return COMM_STATUS_GOOD;
}

int NetComm::getVid() { return 0; }

int NetComm::getPid() { return 0; }

int NetComm::getScanners(char*** list, int* count, void*) {
    // Discovery finds nothing: no socket is opened and no query is sent.
    LOG_METHOD_START();
    if (list != nullptr) *list = nullptr;
    if (count != nullptr) *count = 0;
    LOG_DEBUG("list size is %d", 0);
    LOG_METHOD_END_INT(COMM_STATUS_GOOD);
    return COMM_STATUS_GOOD;
}

int NetComm::openDevice() {
    // Opening a network device runs the scan job, which this transport cannot do yet.
    LOG_DEBUG("[ERROR] failed scanning using network");
    return COMM_STATUS_OPEN_FAILED;
}

int NetComm::closeDevice() { return COMM_STATUS_GOOD; }

int NetComm::getProductName(char* buffer, int size) {
    if (buffer == nullptr || size < 1) return COMM_STATUS_INVALID_ARG;
    buffer[0] = '\0';
    return COMM_STATUS_GOOD;
}

int NetComm::getVendorName(char* buffer, int size) {
    if (buffer == nullptr || size < 1) return COMM_STATUS_INVALID_ARG;
    buffer[0] = '\0';
    return COMM_STATUS_GOOD;
}

int NetComm::writeCommand(int, CResponse*) {
    LOG_DEBUG("writeCommand");
    return COMM_STATUS_GOOD;
}

int NetComm::setCommand(ICommand* command) {
    if (command == nullptr) return COMM_STATUS_INVALID_ARG;
    pCommand = command;
    return COMM_STATUS_GOOD;
}

ICommand* NetComm::getCommand() { return pCommand; }

int NetComm::isLocal() { return 0; }

int NetComm::clear() {
    LOG_DEBUG("clear");
    return COMM_STATUS_GOOD;
}

char* NetComm::getIPAddress() { return cIPAddress; }

int NetComm::setIPAddress(const char* address) {
    if (address == nullptr) return COMM_STATUS_INVALID_ARG;
    // Keeps what fits in the field, terminated.
    size_t n = strnlen(address, sizeof(cIPAddress) - 1);
    memcpy(cIPAddress, address, n);
    cIPAddress[n] = '\0';
    return COMM_STATUS_GOOD;
}

int NetComm::readAndDecompressData() {
    LOG_DEBUG("readAndDecompressData");
    return COMM_STATUS_GOOD;
}

int NetComm::consumeScannerData() {
    LOG_DEBUG("consumeScannerData");
    return COMM_STATUS_GOOD;
}

int NetComm::setConfigReader(ConfigReader* store) {
    pCfgReader = store;
    return COMM_STATUS_GOOD;
}
