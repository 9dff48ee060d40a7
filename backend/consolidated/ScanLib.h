// One open scanner: the scan session. It owns the transport, the command object,
// the option store, the buffers and the image pipeline of one device and carries
// out open, start, acquire, cancel and close. Every result is a SANE status number.
#ifndef QUARTO_SCANLIB_H
#define QUARTO_SCANLIB_H

#include <map>
#include <memory>
#include <string>

#include "CLogger.h"
#include "DemonDependency.h"

class ConfigReader;
class DataBuffer;
class DeCompHandler;
class ICommand;
class ICommunication;
class ImageData;
class RawDataHandler;
class InterleaveHandler;
class SaneConfReader;
class CSources;

// Session status numbers (the SANE ones).
enum {
    SL_STATUS_GOOD = 0,
    SL_STATUS_UNSUPPORTED = 1,
    SL_STATUS_CANCELLED = 2,
    SL_STATUS_DEVICE_BUSY = 3,
    SL_STATUS_INVAL = 4,
    SL_STATUS_EOF = 5,
    SL_STATUS_JAMMED = 6,
    SL_STATUS_NO_DOCS = 7,
    SL_STATUS_IO_ERROR = 9,
    SL_STATUS_NO_MEM = 10,
    SL_STATUS_CONF_NOT_LOADED = 17
};

class ScanLib : public CLogger {
public:
    ScanLib();
    ~ScanLib();
    ScanLib(const ScanLib&) = delete;
    ScanLib& operator=(const ScanLib&) = delete;

    int Open(const char* name);
    int Start();
    int AcquireImage(unsigned char* buf, int maxLen, int* len);
    int AcquireImage(unsigned char* buf, int* len);
    int Cancel();
    int CancelAndFlush();
    void AbortScanOperation();
    int Unlock();
    static int isValidName(const char* s);
    int MapToSLSTATUS(int code, int command);
    // Session status of a network openDevice result other than 8 and 19.
    static int NetworkOpenStatus(int comm);

    // Device capabilities and the settings check.
    int LoadScanDeviceProperties();
    int addResolutions(int count, CSources* source);
    int updateADFDpiLimit(CSources* source);
    int LoadScanSizes();
    int CheckScanSettings();

    static int GetScanners(char*** list, int* count);
    static void GetBackendName(char* buffer, int size);
    // The backend configuration file to read for a name under "/etc/sane.d/":
    // the same base name in a SANE_CONFIG_DIR directory when one has it.
    static std::string ResolveConfFile(const char* etcPath);

    // Replace the transport or the command object; the session takes ownership.
    // A null command is refused (the current one stays installed).
    void SetIO(ICommunication* comm);
    void SetComm(ICommand* cmd);

    int GetIntValue(const char* key);
    int SetIntValue(const char* key, int value);
    double GetDoubleValue(const char* key);
    int SetDoubleValue(const char* key, double value);
    const char* GetStringValue(const char* key);
    int SetStringValue(const char* key, const char* value);
    int GetIntListValue(const char* key, std::map<std::string, int>& out);
    int SetIntListValue(const char* key, const std::map<std::string, int>& list);
    int GetDoubleListValue(const char* key, std::map<std::string, double>& out);
    int SetDoubleListValue(const char* key, const std::map<std::string, double>& list);
    int GetStringListValue(const char* key, std::map<std::string, std::string>& out);
    int SetStringListValue(const char* key, const std::map<std::string, std::string>& list);

    static std::string toString(int value);
    static std::string toString(double value);

private:
    // Releases every owned object, in the order of the destructor.
    void releaseAll();
    // Open's steps after the start log; Open releases everything on failure.
    int openSteps(const char* name);
    // Start's device exchanges: wake, settings check, LOCK, START.
    int lockAndStart();
    // True when a cancel has arrived; the device is then closed (or the scan
    // aborted, which also unlocks and closes).
    bool closedOnCancel();
    bool abortedOnCancel();
    // Aborts a read that was cancelled and returns SL_STATUS_CANCELLED.
    int cancelledRead();
    // Reads and discards what the device still sends after an abort.
    void consumeAfterAbort();
    // Gives the command object the option store and the transport the command.
    void installCommand();

    // Owned; the destructor releases them in the order: transport, option store,
    // buffer, decompressor, command, image, pipeline, interleaver, configuration.
    std::unique_ptr<ConfigReader> pCfgReader;
    std::unique_ptr<DataBuffer> Buffer;
    std::unique_ptr<DeCompHandler> MyDecompressor;
    std::unique_ptr<ICommand> pCmd;
    std::unique_ptr<ICommunication> pComm;
    std::unique_ptr<ImageData> Image;
    std::unique_ptr<RawDataHandler> ImageHandler;
    std::unique_ptr<InterleaveHandler> Interleaver;
    std::unique_ptr<SaneConfReader> pSaneConfReader;
    DemonDependency Demon;
    // Written by Cancel, possibly from another thread, and polled by the running
    // operation between its device exchanges.
    volatile int AcquireImageStatus = 0;
    volatile int ScanInProgress = 0;
    volatile int CancelInProgress = 0;
};

#endif
