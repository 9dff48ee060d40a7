// Abstract base of every request sent to a scanner. It holds the per-session
// state all command kinds share, turns option-store keys into protocol values,
// and implements the framing common to all kinds: the NPA packet envelope
// (addNPA) and the removal of the escape headers that open each block of image
// data (removeESC / getESCDataSize). createCmdInstance picks the concrete class
// from the model's command version.
#ifndef QUARTO_ICOMMAND_H
#define QUARTO_ICOMMAND_H

#include "CLogger.h"

class ConfigReader;
class DataBuffer;

// Bytes of every request and reply header.
const int CMD_HEADER_LEN = 8;
const unsigned char ESC = 0x1B;
const unsigned char ESC_S = 0x53;  // 'S': scanner requests and replies
const unsigned char ESC_D = 0x44;  // 'D': data messages
// First three bytes of the header that opens each block of image data.
const unsigned char ESC_DATA_BLOCK = 0x02;
// Bytes of a data-block header up to and including its 16-bit length field.
const int ESC_HEADER_MIN_LEN = 6;

// Command ids (setCommandId); the same numbers as the selectors of writeCommand.
const int CMD_ID_CANCEL = 0;
const int CMD_ID_STATUS = 1;
const int CMD_ID_PROPERTIES = 2;
const int CMD_ID_LOCK = 3;
const int CMD_ID_START = 4;
const int CMD_ID_UNLOCK = 5;
const int CMD_ID_WAKE = 6;
const int CMD_ID_DATA = 7;
const int CMD_ID_SCAN_PARAMS = 8;
const int CMD_ID_SCAN_SIZES = 9;

// Command versions the factory knows.
const int CMD_VERSION_326 = 326;
const int CMD_VERSION_401 = 401;
const int CMD_VERSION_402 = 402;
const int CMD_VERSION_500 = 500;

// Result codes of the command family.
const int CMD_OK = 0;
const int CMD_ERR = 2;  // null argument, allocation failure or refused id

// NPA packet envelope.
const unsigned char NPA_START = 0xA5;
const unsigned char NPA_BYTE3 = 0x10;
const unsigned char NPA_BYTE4 = 0x01;
const unsigned char NPA_BYTE5 = 0x83;
const unsigned char NPA_MAGIC[4] = {0xAA, 0xBB, 0xCC, 0xDD};
const unsigned char NPA_TRAILER_WORDS = 0x02;
const int NPA_OVERHEAD = 20;   // 12 header bytes + 8 trailer bytes
const int NPA_HEADER_LEN = 12;

class ICommand : public CLogger {
public:
    ICommand();
    virtual ~ICommand();
    ICommand(const ICommand&) = delete;
    ICommand& operator=(const ICommand&) = delete;

    // Builds the command for cmdVersion (401, 402, 500; anything else gives
    // 326), then sets the local flag and box kind. The caller owns the result.
    static ICommand* createCmdInstance(int cmdVersion, int local, int boxKind);

    virtual int setConfigReader(ConfigReader* cr);
    virtual ConfigReader* getConfigReader();
    virtual void setCommandId(int id);
    virtual void setNpa(int n);
    virtual void setVersion(int v);
    virtual void setStripSize(int n);
    virtual void setStripMin(int n);
    virtual void setLocal(int n);
    // Wraps the *len bytes of cmd in an NPA packet. *out receives a malloc'ed
    // block that the caller frees with free(); *len becomes its length.
    virtual int addNPA(unsigned char** out, unsigned char* cmd, int* len);
    // Marks the image payload of the raw bytes in buf as processed and drops
    // the escape headers. The caller takes the processed bytes out after each
    // call (as the read loop does) and calls again while the result is 1.
    virtual int removeESC(DataBuffer* buf);
    virtual int getNpa();
    virtual int getCommandId();
    virtual int getPixelPerLine();
    virtual int getLines();
    virtual int getScanOffsetX();
    virtual int getScanOffsetY();
    virtual int getCurrentDPI();
    virtual int getCompression();
    virtual int getCompressionLevel();
    virtual int getFilter();
    virtual int getColorDepth();
    virtual int getVersion();
    virtual int getSource();
    virtual int getLocal();
    virtual int getHeaderLen();
    virtual int getBoxKind();
    virtual void setBoxKind(int kind);
    // Data length in bytes 4-5 of a message header, -1 when buf is no header.
    virtual int getESCDataSize(unsigned char* buf, int len);
    // Builds the request for the current command id. *out receives a malloc'ed
    // block that the caller frees with free().
    virtual int getCommand(unsigned char** out, int* len) = 0;
    virtual int appendData(unsigned char** buf) = 0;
    virtual int prepareScanCommand(unsigned char* params, int len, int adf);

protected:
    // Integer option, 0 when no store is set.
    int intOption(const char* key);

    ConfigReader* pConfigReader = nullptr;
    int iDataSize = 0;
    int iCmd = 0;
    int iNPA = 0;
    int iVer = 0;
    int iStrip = 9;
    int iStripMin = 1;
    int iLocal = 0;
    int iBoxKind = 0;
};

#endif
