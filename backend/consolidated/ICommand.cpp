#include "ICommand.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "CResponse.h"
#include "Cmd326.h"
#include "Cmd401.h"
#include "Cmd402.h"
#include "Cmd500.h"
#include "ConfigReader.h"
#include "DataBuffer.h"
#include "util.h"

namespace {
// Device filter codes (getFilter).
const int FILTER_PREVIEW = 4;
const int FILTER_DEFAULT = 3;
// Device colour codes (getColorDepth).
const int DEVICE_COLOR_LINEART = 1;
const int DEVICE_COLOR_GREY = 2;
const int DEVICE_COLOR_COLOUR = 3;
// Device source codes (getSource).
const int DEVICE_SOURCE_FLATBED = 1;
const int DEVICE_SOURCE_ADF_SIMPLEX = 2;
const int DEVICE_SOURCE_ADF_MULTIPAGE = 3;
const int DEVICE_SOURCE_ADF = 4;
const int USB_CONNECTION = 1;
}  // namespace

ICommand::ICommand() = default;

ICommand::~ICommand() = default;

ICommand* ICommand::createCmdInstance(int cmdVersion, int local, int boxKind) {
    using ::logSelf;  // static member: log through the free logger
    ICommand* pCommand = nullptr;
    switch (cmdVersion) {
    case CMD_VERSION_401:
        pCommand = new Cmd401();
        break;
    case CMD_VERSION_402:
        pCommand = new Cmd402();
        break;
    case CMD_VERSION_500:
        pCommand = new Cmd500();
        break;
    default:
        pCommand = new Cmd326();
        break;
    }
    pCommand->setLocal(local);
    pCommand->setBoxKind(boxKind);
    LOG_DEBUG("%s: pCommand->getLocal() = %d", __func__, pCommand->getLocal());
    return pCommand;
}

int ICommand::setConfigReader(ConfigReader* cr) {
    if (cr == nullptr) return CMD_ERR;
    pConfigReader = cr;
    LOG_DEBUG("Command Version = %d", pConfigReader->GetIntOption("COMMANDVERSION"));
    LOG_DEBUG("%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%% %d",
              pConfigReader->GetIntOption("RESOLUTIONS"));
    LOG_DEBUG("%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%%% %d",
              pConfigReader->GetIntOption("RESOLUTIONS_0"));
    return CMD_OK;
}

ConfigReader* ICommand::getConfigReader() { return pConfigReader; }

void ICommand::setCommandId(int id) {
    // Every id is stored as given, also ids outside 0..7: intended.
    iCmd = id;
}

void ICommand::setNpa(int n) { iNPA = n > 0 ? 1 : 0; }
void ICommand::setVersion(int v) { iVer = v; }
void ICommand::setStripSize(int n) { iStrip = n; }
void ICommand::setStripMin(int n) { iStripMin = n; }
void ICommand::setLocal(int n) { iLocal = n; }
int ICommand::getNpa() { return iNPA; }
int ICommand::getCommandId() { return iCmd; }
int ICommand::getVersion() { return iVer; }
int ICommand::getLocal() { return iLocal; }
int ICommand::getHeaderLen() { return CMD_HEADER_LEN; }
int ICommand::getBoxKind() { return iBoxKind; }
void ICommand::setBoxKind(int kind) { iBoxKind = kind; }

int ICommand::intOption(const char* key) {
    return pConfigReader != nullptr ? pConfigReader->GetIntOption(key) : 0;
}

int ICommand::addNPA(unsigned char** out, unsigned char* cmd, int* len) {
    if (out == nullptr || cmd == nullptr || len == nullptr || *len < 0 || *len > 0x7FFFFF00)
        return CMD_ERR;
    int total = *len + NPA_OVERHEAD;
    int pad = (total % 4 == 0) ? 0 : 4 - total % 4;
    total += pad;
    unsigned char* packet = (unsigned char*)malloc((size_t)total);
    if (packet == nullptr) return CMD_ERR;
    memset(packet, 0, (size_t)total);
    packet[0] = NPA_START;
    packet[1] = (unsigned char)(((total - 3) >> 8) & 0xFF);  // big-endian, unlike the device blocks
    packet[2] = (unsigned char)((total - 3) & 0xFF);
    packet[3] = NPA_BYTE3;
    packet[4] = NPA_BYTE4;
    packet[5] = NPA_BYTE5;
    memcpy(packet + 6, NPA_MAGIC, sizeof NPA_MAGIC);
    packet[10] = NPA_TRAILER_WORDS;
    packet[11] = (unsigned char)pad;
    memcpy(packet + NPA_HEADER_LEN + pad, cmd, (size_t)*len);
    unsigned char* trailer = packet + NPA_HEADER_LEN + pad + *len;
    for (int i = 0; i < packet[10] * 4; ++i) trailer[i] = NPA_MAGIC[i % 4];
    *out = packet;
    *len = total;
    return CMD_OK;
}

int ICommand::removeESC(DataBuffer* buf) {
    if (buf == nullptr) return 0;
    // A header always holds its length field; a smaller strip size would leave
    // headers in the buffer and the read loop calling forever.
    int strip = iStrip < ESC_HEADER_MIN_LEN ? ESC_HEADER_MIN_LEN : iStrip;
    const unsigned char* chunk = buf->GetRawDataPtr();
    int rawSize = chunk != nullptr ? buf->GetRawDataSize() : 0;
    if (iDataSize == 0) {
        static const unsigned char blockStart[3] = {ESC, ESC_S, ESC_DATA_BLOCK};
        int seen = rawSize < 3 ? rawSize : 3;
        // A chunk of one or two bytes that matches the start of a header is a
        // header still on its way, like any other header shorter than the strip.
        bool header = seen > 0 && memcmp(chunk, blockStart, (size_t)seen) == 0;
        if (header) {
            if (rawSize < strip) return 0;
            long long expected = (long long)readLE16(chunk, rawSize, 4) - iStripMin;
            iDataSize = expected > INT_MAX ? INT_MAX : expected < INT_MIN ? INT_MIN : (int)expected;
            // The header is taken out of the buffer and discarded.
            buf->ReplaceRawData(strip, nullptr, 0);
            rawSize = buf->GetRawDataSize();
        } else {
            iDataSize = rawSize;
        }
    }
    int n = rawSize < iDataSize ? rawSize : iDataSize;
    buf->SetProcessedDataSize(n);
    iDataSize -= n;
    return buf->GetRawDataSize() > strip ? 1 : 0;
}

int ICommand::getESCDataSize(unsigned char* buf, int len) {
    // A header too short to hold its length field is no header either.
    if (buf == nullptr || len < 6 || buf[0] != ESC) return -1;
    return (int)readLE16(buf, len, 4);
}

int ICommand::getPixelPerLine() {
    int v = intOption("PIXELS_PER_LINE");
    LOG_DEBUG("%s -> Pixel Per Line = %d", __func__, v);
    return v;
}

int ICommand::getLines() {
    int v = intOption("LINES");
    LOG_DEBUG("%s -> Lines = %d", __func__, v);
    return v;
}

int ICommand::getScanOffsetX() {
    int v = intOption("SCANOFFSETX");
    LOG_DEBUG("%s -> Scan Offset X = %d", __func__, v);
    return v;
}

int ICommand::getScanOffsetY() {
    int v = intOption("SCANOFFSETY");
    LOG_DEBUG("%s -> Scan Offset Y = %d", __func__, v);
    return v;
}

int ICommand::getCurrentDPI() {
    int v = intOption("CURRENTDPI");
    LOG_DEBUG("%s -> Current DPI = %d", __func__, v);
    return v;
}

int ICommand::getCompression() {
    int v = intOption("COMPRESSION");
    LOG_DEBUG("Command -> Compression = %d", v);
    return v;
}

int ICommand::getCompressionLevel() {
    int v = intOption("COMPRESSIONLEVEL");
    LOG_DEBUG("Command -> Compression Level = %d", v);
    return v;
}

int ICommand::getFilter() {
    int filter = FILTER_DEFAULT;
    if (pConfigReader != nullptr) {
        if (pConfigReader->GetIntOption("PREVIEW") != 0) {
            filter = FILTER_PREVIEW;
        } else {
            switch (pConfigReader->GetIntOption("CONTENTTYPE")) {
            case 0: filter = 1; break;
            case 1: filter = 3; break;
            case 2: filter = 2; break;
            default: filter = FILTER_DEFAULT; break;
            }
        }
    }
    LOG_DEBUG("%s -> Filter = %d", __func__, filter);
    return filter;
}

int ICommand::getColorDepth() {
    int code = DEVICE_COLOR_COLOUR;
    if (pConfigReader != nullptr) {
        int depth = pConfigReader->GetIntOption("COLORDEPTH");
        bool usb = pConfigReader->GetIntOption("CONNECTION") == USB_CONNECTION;
        if (usb) LOG_DEBUG("the color depth is now %d", depth);
        switch (depth) {
        case 0: code = DEVICE_COLOR_LINEART; break;
        case 1: code = DEVICE_COLOR_GREY; break;
        case 2: code = DEVICE_COLOR_COLOUR; break;
        default: code = usb ? DEVICE_COLOR_GREY : DEVICE_COLOR_COLOUR; break;
        }
    }
    LOG_DEBUG("%s -> Color Depth = = %d", __func__, code);
    return code;
}

int ICommand::getSource() {
    LOG_METHOD_START();
    LOG_DEBUG("iLocal = %d", iLocal);
    // An empty reply, so the feeder status is always -1: no device is asked here.
    CResponse response;
    int adfStatus = response.getADFStatus();
    LOG_DEBUG("response.getADFStatus() = %d", adfStatus);
    int source = 0;
    if (pConfigReader != nullptr) {
        int scanSource = pConfigReader->GetIntOption("SCAN_SOURCE");
        if (getLocal() != 0) {
            if (scanSource == 0)
                source = DEVICE_SOURCE_FLATBED;
            else if (pConfigReader->GetIntOption("USB_MULTIPAGE_FLAG") == 1)
                source = DEVICE_SOURCE_ADF_MULTIPAGE;
            else
                source = DEVICE_SOURCE_ADF;
        } else if (scanSource == 0 && adfStatus == 1) {
            source = DEVICE_SOURCE_FLATBED;
        } else if (scanSource == 0 && adfStatus == 2) {
            source = DEVICE_SOURCE_ADF;
        } else if (scanSource == 1 && adfStatus == 1) {
            source = DEVICE_SOURCE_ADF_SIMPLEX;
        } else if (scanSource == 1 && adfStatus == 2) {
            source = DEVICE_SOURCE_ADF_MULTIPAGE;
        }
    }
    LOG_DEBUG("::::::::::::::: METHOD END ::::::::::::::: source: %d", source);
    return source;
}

int ICommand::prepareScanCommand(unsigned char* /*params*/, int /*len*/, int /*adf*/) {
    LOG_DEBUG("prepareScanCommand is not used by command version %d", iVer);
    return 0;
}
