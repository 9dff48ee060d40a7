// The USB transport over libusb-0.1 bulk transfers: enumerates the configured
// scanners, opens and claims one (following it when it was re-plugged under new
// bus and device numbers), exchanges commands and replies, and reads the scan
// data stream in its ordinary (escape-framed), compressed (Wicket band) and
// multi-page (feeder job into the page cache) modes.
#ifndef QUARTO_IOCOMM_H
#define QUARTO_IOCOMM_H

#include <usb.h>

#include <memory>
#include <string>
#include <vector>

#include "CLogger.h"
#include "ICommunication.h"
#include "util.h"

// Chunk size of every scan data read.
const int USB_CHUNK_SIZE = 8192;
// Largest reply to a command.
const int USB_REPLY_SIZE = 512;
// Largest piece of decoded image that ReadImage hands out at once.
const int USB_DECOMP_PIECE = 16384;
// Initial size of the buffer that collects a compressed job.
const long USB_COMPRESSED_ESTIMATE = 42000000;
// Timeouts (milliseconds) of the drain after a cancel and of the drain after
// a completed multi-page job.
const long USB_CLEAR_TIMEOUT_MS = 100;
const long USB_CONSUME_TIMEOUT_MS = 5000;
// Most chunks the drain after a multi-page job reads (512 MiB), so that a
// device that never stops sending cannot hold the session forever.
const int USB_CONSUME_MAX_CHUNKS = 65536;
// Most messages in a row without page bytes that the multi-page reader takes.
// A job sends at most a page end and a page start between two pages' data, so
// a longer run comes from a device that would otherwise hold the session for
// as long as it keeps sending markers.
const int USB_MAX_EMPTY_MESSAGES = 1024;
// Bytes of each page fragment shown in the log.
const int USB_FRAGMENT_DUMP = 100;
// Room of the bus and device file names (16 characters and the terminator).
const int USB_PATH_FIELD = 17;
// Buffer sizes of the device name and of the vendor and product strings.
const int USB_DEVICE_NAME_SIZE = 255;
const int USB_STRING_SIZE = 100;
// Longest part of a device name that setDevice splits.
const int USB_SPLIT_NAME_SIZE = 256;

// getNameDev kinds and the results for a device without that string.
const int USB_NAME_VENDOR = 98;
const int USB_NAME_PRODUCT = 99;
const int USB_NO_VENDOR_STRING = 96;
const int USB_NO_PRODUCT_STRING = 97;

class IOComm : public virtual ICommunication, public CLogger {
public:
    IOComm();
    ~IOComm() override;
    IOComm(const IOComm&) = delete;
    IOComm& operator=(const IOComm&) = delete;

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

    // Exact-length reads over the bulk pipe. fetchMessage hands out a malloc'ed
    // message (header and data part) that the caller frees.
    int fetchMessage(unsigned char** message, unsigned int* length);
    int fetchData(unsigned int length, unsigned char* destination);
    // Drains the device after a cancel, up to the scan-complete record.
    int clearData();
    // The multi-page reader: every page of a feeder job into the page cache;
    // 0 when the job completed, 1 otherwise.
    int readImagesIntoFiles();
    // The private directory of this transport's multi-page jobs (empty until
    // the first job).
    const std::string& getJobDirectory() const { return szJobDir; }

    const char* getBus() const { return cBus; }
    const char* getDev() const { return cDev; }

private:
    // Reads a vendor (98) or product (99) string of dev into buffer.
    int getNameDev(struct usb_device* dev, usb_dev_handle* handle, char* buffer, int size, int kind);
    void refreshBusses();
    struct usb_device* findDevice(const char* bus, const char* dev);
    bool isSelectedDeviceActive();
    // The first device on the bus with the open device's identifiers, and its bus.
    struct usb_device* findDeviceByIds(struct usb_bus** busOut);
    bool isDevicePresent();
    void changeUSBDeviceInfo();
    void closeHandle();
    // Pages left by an earlier multi-page job.
    unsigned int cachedPageCount();
    int takeCachedPage(std::unique_ptr<unsigned char, FreeDeleter>& page, unsigned int* size);
    int readCachedPage(int* length, DataBuffer* buffer);
    int readCompressedCachedPage(int* length, DataBuffer* buffer);
    // A feeder job with the multi-page flag: its pages go to the page cache.
    bool isMultiPageJob();
    // Most bytes the device may send for one image of the frame.
    long imageByteLimit();
    // The job directory: made on the first multi-page job, removed with the
    // transport. The page cache and the progress display serve this
    // transport only while their base path is its directory.
    bool prepareJobDirectory();
    void removeJobDirectory();
    bool ownsPageCache();
    bool ownsDisplay();
    // Reads what the device still sends after a completed job.
    void consumeAfterJob();
    int readOrdinaryImage(int* length, DataBuffer* buffer, ImageData* image);
    int readDecompressedImage(int* length, DataBuffer* buffer);
    // Compressed mode. usb_wicket_decompress checks the band headers of a
    // collected job and prepares reading; the bands are decoded from data as
    // ReadImage hands the image out, so data must stay valid until then
    // (readAndDecompressData keeps it in the band stream).
    struct BandHeader;
    struct BandStream;
    int usb_wicket_decompress(unsigned char* data, unsigned int length);
    int decodeBand(const BandHeader& band, unsigned int pos);
    int decodeNextBand();
    int fillDecompBuffer();
    bool reserveDecompBuffer(long bytes);
    // Frees what a compressed job holds: its bands, the decoder and the band buffer.
    void endCompressedScan();
    int optionInt(const char* key);
    void dropPending();

    struct usb_bus* pBusses = nullptr;
    struct usb_device* usbDev = nullptr;
    usb_dev_handle* usbHandle = nullptr;
    int iOpen = 0;
    int iIfaceNum = 0;
    int iEndPointIn = -1;
    int iEndPointOut = -1;
    int iVid = 0;
    int iPid = 0;
    char cBus[USB_PATH_FIELD];
    char cDev[USB_PATH_FIELD];
    std::string szDeviceName;
    ConfigReader* pConfigReader = nullptr;
    ICommand* pCommand = nullptr;
    std::unique_ptr<DataBuffer> pDataBuffer;
    // Bytes read beyond what the last fetchData needed.
    std::vector<unsigned char> pPendingData;
    unsigned int iPendingLen = 0;
    bool bCachedPageGiven = false;
    bool bMultiPage = false;
    // A compressed job: the collected bands and the decoder, the band buffer
    // with the decoded lines of the current band, the read position in it and
    // the bytes of the image's lines in it still to hand out, and the bytes of
    // the image still to deliver.
    std::unique_ptr<BandStream> pBands;
    std::vector<unsigned char> pDecompData;
    unsigned char* pDecompDataPtr = nullptr;
    long iBandLeft = 0;
    long iDecompSize = 0;
    // One chunk of the scan data stream.
    std::vector<unsigned char> aChunk;
    std::string szJobDir;
};

#endif
