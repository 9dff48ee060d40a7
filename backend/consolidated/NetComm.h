// The network transport. Discovery sends one DNS-format query for the
// _host-config._udp.local service by UDP broadcast to port 5353 and lists the
// answering devices of the configured manufacturer from their TXT records. A
// scan runs the external scan program (the option BINARY) with a command line
// built from the session's options; the program leaves the page(s) as PXM
// files with a side file each in TEMPDIRECTORY, which this transport decodes,
// turns and scales and hands to the session. It never speaks the device
// protocol itself: the operations that would do so do no I/O.
//
// Everything it receives is untrusted: replies are parsed within their length,
// the address on the command line must be a dotted IPv4 address, every other
// value is shell-quoted, page paths stay inside a temporary directory private
// to the user, and the page readers are bounded by what the files hold.
#ifndef QUARTO_NETCOMM_H
#define QUARTO_NETCOMM_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "CLogger.h"
#include "ICommunication.h"
#include "NValueObjects.h"
#include "util.h"

// Room of the IP address field, terminator included.
const int NET_IP_ADDRESS_SIZE = 32;
// Discovery: the port queried and listened on, the length of the query, the
// largest reply read, the time the collection lasts in all, and the room of a
// device name.
const int NET_DISCOVERY_PORT = 5353;
const int NET_QUERY_LENGTH = 41;
const int NET_REPLY_SIZE = 1024;
const int NET_DISCOVERY_SECONDS = 5;
const int NET_DEVICE_NAME_SIZE = 255;
// Most devices one discovery lists (duplicates included): a flood of replies
// cannot grow the list without end.
const int NET_MAX_DEVICES = 256;
// USB identifiers given to every network device.
const uint32_t NET_DEVICE_ID = 0xFFFF;
// Family identifiers of the devices whose high-resolution pages hold Wicket bands.
const int NET_FAMILY_WICKET_A = 14;
const int NET_FAMILY_WICKET_B = 15;
// Pieces ReadImage hands out.
const int NET_READ_PIECE = 16384;
// Largest decoded page accepted (bytes).
const long long NET_MAX_PAGE_BYTES = 1LL << 30;
// Longest argument text and command line the program is started with.
const size_t NET_MAX_ARGUMENTS = 600;
const size_t NET_MAX_COMMAND = 1056;

// Index in the front end's page-size or document-source list to the size or
// document-source code the network scan program takes.
extern const int sane_size_kestrel_size_mapping[38];
extern const int isd_sane_size_kestrel_size_mapping[32];
extern const int pssd_sane_docsource_kestrel_docsource_mapping[10];
extern const int isd_sane_docsource_kestrel_docsource_mapping[9];

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

    // "libnet:" + MAC to the IP address of every device listed in this process.
    static std::map<std::string, std::string> macToIpMap;

    // Discovery pieces.
    // The 41-byte query (malloc'ed, the caller frees it); returns its length.
    int createMdnsPacket(unsigned char** packet);
    // Applies the TXT records of one reply to out; false for a reply that is
    // not a usable DNS response or does not fit in its length.
    bool parsePacket(const unsigned char* data, int length, NValueObjects* out);
    // The string behind the length byte at p, of which available bytes exist;
    // length receives the length byte. Cut at a zero byte and at the end.
    std::string extractString(const unsigned char* p, int available, unsigned short& length);
    void parseText(std::string& entry, NValueObjects* out);
    static void removeQuotes(std::string& s);
    static unsigned char reverse(unsigned char b);
    static uint64_t hexStringLong(const char* s);
    // Whether a parsed device is listed for the configured manufacturer.
    static bool acceptDevice(const NValueObjects& device, const char* manufacturer);
    static bool malformedModel(const std::string& model);
    // One discovery pass for the device whose MAC occurs in name (owned by the
    // caller), or null.
    NValueObjects* getScanner(char* name);
    // The devices the last discovery accepted, in reply order.
    const std::vector<NValueObjects>& getDevices() const { return vDevices; }
    void addDevice(const NValueObjects& device) { vDevices.push_back(device); }
    // The front end's list of the accepted devices (placeholder first when
    // asked for); records every address in macToIpMap.
    int makeDeviceList(bool placeholder, char*** list, int* count);

    // Scan job pieces.
    // Checks the options and builds the program's command line, the first page
    // file's name and whether the job will have further pages. 0, or 2 when a
    // value is refused (nothing has run then).
    int buildScanCommand(std::string& command, std::string& pageFile, bool& morePages);
    // Runs the program and prepares its first page: 19 when the page is ready.
    int scan();
    // Opens the page file and post-processes it: 19 when ready, 15 when the
    // page cannot be read or decoded (the job then ends).
    int processPage(const std::string& path, bool firstPage);
    // Opens path as the page to post-process; false when it cannot be read.
    bool openPage(const std::string& path);
    // Decodes, turns and scales the open page; 0 on success.
    int postProcess(bool firstPage);
    // Reads the PXM header of the open page; 0 on success.
    int dumpHeaders(int* fileDpi);
    // Applies the lines of the side file (FAMILYID=, ROTATE=).
    void readSideFile(const std::string& path, bool firstPage);
    // Decodes the Wicket bands of the open page; 0 on success.
    int wicket_decompress();
    // Removes TEMPDIRECTORY; 1 on failure.
    int removeDir();
    // Writes data into a new file at path (never through a link) and returns
    // it open for reading and writing at its start, or null.
    FILE* writeDataToFile(const unsigned char* data, long length, const std::string& path);
    // Stores the turned page's size.
    void updateImageDimension(int height, int width);

    int getCounter() const { return counter; }
    const std::string& getDeviceName() const { return szDeviceName; }
    ConfigReader* getConfigReader() const { return pCfgReader; }
    long getImageSize() const { return iImageSize; }
    int getImageWidth() const { return iWidth; }
    int getImageHeight() const { return iHeight; }
    int getFamilyId() const { return iFamily; }
    int getRotation() const { return iRotate; }

private:
    struct FileCloser {
        void operator()(FILE* f) const { fclose(f); }
    };

    // Sends the query to 255.255.255.255:5353; the result of sendto.
    ssize_t sendQuery(int fd);
    int optionInt(const char* key) const;
    const char* optionString(const char* key) const;
    // The next page of a multi-page job.
    int nextPage();
    // Whether the options say the job has further pages.
    bool jobHasMorePages(int mappedSize);
    // Makes TEMPDIRECTORY if needed and checks that it is private; 0 when usable.
    int prepareTempDirectory();
    // Ends the job: the counter goes back to 0 and the directory is removed.
    void endJob();
    int decodeZlibPage(int* fileDpi);
    int rotatePage();
    int interpolatePage(int fileDpi, int requestedDpi);
    void setImage(unsigned char* data, long size, int width, int height);

    std::string szDeviceName;
    char cIPAddress[NET_IP_ADDRESS_SIZE];
    ConfigReader* pCfgReader = nullptr;
    ICommand* pCommand = nullptr;
    std::vector<NValueObjects> vDevices;

    std::string szImageFile;
    std::unique_ptr<FILE, FileCloser> pImageFile;
    int counter = 0;
    // The decoded page and the read position of ReadImage.
    std::unique_ptr<unsigned char, FreeDeleter> pImage;
    long iImageSize = 0;
    long iImagePos = 0;
    int iWidth = 0;
    int iHeight = 0;
    // Side-file values of the job (a later page without a side file keeps them).
    int iFamily = 0;
    int iRotate = 0;
    bool bInterpolate = false;
};

#endif
