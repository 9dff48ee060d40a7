// The transport interface: the only way the scan session reaches a device, over
// USB (IOComm) or the network (NetComm). Operations return the status numbers
// below; 0 is success everywhere.
#ifndef QUARTO_ICOMMUNICATION_H
#define QUARTO_ICOMMUNICATION_H

class CResponse;
class ConfigReader;
class DataBuffer;
class ICommand;
class ImageData;

// Transport status numbers.
const int COMM_STATUS_GOOD = 0;
const int COMM_STATUS_END_OF_DATA = 1;       // ReadImage: no more data
const int COMM_STATUS_BIND_FAILED = 1;       // network discovery socket not bound
const int COMM_STATUS_INVALID_ARG = 2;       // bad argument or out of memory
const int COMM_STATUS_DEVICE_CLOSED = 4;     // "device is closed, open first"
const int COMM_STATUS_BAD_COMMAND = 5;       // the command object built no command
const int COMM_STATUS_INVALID_ENDPOINT = 6;  // no valid IN or OUT endpoint
const int COMM_STATUS_NOT_PRESENT = 7;       // selected device not present or detached
const int COMM_STATUS_OPEN_FAILED = 8;       // usb_open failed; also "busy or failed"
const int COMM_STATUS_NO_PERMISSION = 9;     // set-configuration refused (EPERM)
const int COMM_STATUS_CLAIM_FAILED = 10;     // interface not claimed after the detach
const int COMM_STATUS_CLOSE_FAILED = 12;     // usb_close failed
const int COMM_STATUS_RELEASE_FAILED = 13;   // releasing the interface failed
const int COMM_STATUS_WRITE_FAILED = 14;     // bulk write failed
const int COMM_STATUS_READ_FAILED = 15;      // bulk read failed or returned nothing
const int COMM_STATUS_CACHED_PAGES = 19;     // deliver cached pages instead of scanning
const int COMM_STATUS_NO_MORE_PAGES = 20;    // network: the multi-page job has no further page
const int COMM_STATUS_SEND_FAILED = 99;      // network discovery query not sent

// Default timeout of reads and writes, in milliseconds.
const long COMM_DEFAULT_TIMEOUT_MS = 75000;

class ICommunication {
public:
    virtual ~ICommunication() {}

    virtual int Write(unsigned char* data, int length) = 0;
    // *length is the capacity on entry and the count read on return.
    virtual int Read(unsigned char* buffer, int* length) = 0;
    virtual int Read(unsigned char* buffer, int* length, long timeout) = 0;
    virtual int ReadImage(int* length, DataBuffer* buffer, ImageData* image) = 0;
    virtual int setDevice(char* name) = 0;
    virtual int getVid() = 0;
    virtual int getPid() = 0;
    // conf is the backend configuration reader (SaneConfReader). *list receives
    // a malloc'ed array of malloc'ed names that the caller frees.
    virtual int getScanners(char*** list, int* count, void* conf) = 0;
    virtual int openDevice() = 0;
    virtual int closeDevice() = 0;
    virtual int getProductName(char* buffer, int size) = 0;
    virtual int getVendorName(char* buffer, int size) = 0;
    virtual int writeCommand(int commandId, CResponse* reply) = 0;
    virtual int setCommand(ICommand* command) = 0;
    virtual ICommand* getCommand() = 0;
    virtual int isLocal() = 0;
    virtual int clear() = 0;
    virtual char* getIPAddress() = 0;
    virtual int setIPAddress(const char* address) = 0;
    virtual int readAndDecompressData() = 0;
    virtual int consumeScannerData() = 0;
    virtual int setConfigReader(ConfigReader* store) = 0;
};

#endif
