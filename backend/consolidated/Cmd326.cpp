#include "Cmd326.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "util.h"

namespace {
// Escape header of each image data block and the bytes its length counts beyond the payload.
const int STRIP_SIZE = 9;
const int STRIP_MIN = 1;
// Request headers by command id. Ids 8 and 9 (scan parameters, scan sizes)
// use the headers the newer classes send, so every class answers them alike.
const unsigned char CMD326_HEADERS[CMD326_MAX_ID + 1][CMD_HEADER_LEN] = {
    {0x1B, 0x53, 0x0F, 0x00, 0x00, 0x00, 0x00, 0x00},
    {0x1B, 0x53, 0x04, 0x00, 0x00, 0x00, 0x80, 0x00},
    {0x1B, 0x53, 0x03, 0x00, 0x00, 0x00, 0x80, 0x00},
    {0x1B, 0x53, 0x05, 0x00, 0x18, 0x00, 0x80, 0x00},
    {0x1B, 0x53, 0x01, 0x00, 0x18, 0x00, 0x80, 0x00},
    {0x1B, 0x53, 0x06, 0x00, 0x00, 0x00, 0x80, 0x00},
    {0x1B, 0x44, 0x04, 0x00, 0x00, 0x00, 0x80, 0x00},
    {0x1B, 0x53, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00},
    {0x1B, 0x53, 0x0B, 0x00, 0x00, 0x00, 0x80, 0x00},
    {0x1B, 0x53, 0x0A, 0x00, 0x00, 0x00, 0x80, 0x00},
};
const int DEVICE_COLOR_LINEART = 1;
}  // namespace

Cmd326::Cmd326() {
    setVersion(CMD_VERSION_326);
    setStripSize(STRIP_SIZE);
    setStripMin(STRIP_MIN);
    setCmdLen(CMD326_START_LEN);
}

Cmd326::~Cmd326() = default;

int Cmd326::getCommandId() { return ICommand::getCommandId(); }

int Cmd326::getCommand(unsigned char** out, int* len) {
    LOG_DEBUG("Cmd326::getCommand");
    if (out == nullptr || len == nullptr) return CMD_ERR;
    int id = getCommandId();
    if (id < 0 || id > CMD326_MAX_ID) {
        *len = 0;
        return CMD_ERR;
    }
    int length = CMD_HEADER_LEN;
    if (id == CMD_ID_LOCK || id == CMD_ID_START) {
        length = id == CMD_ID_LOCK ? CMD326_LOCK_LEN : iCmdLen;
        iDataSize = 0;  // a new data stream follows
    }
    if (length < CMD_HEADER_LEN) {
        LOG_DEBUG("invalid command length %d", length);
        *len = 0;
        return CMD_ERR;
    }
    // The appenders write up to CMD_SETTINGS_MAX_LEN bytes whatever the length.
    std::vector<unsigned char> work((size_t)(length > CMD_SETTINGS_MAX_LEN ? length : CMD_SETTINGS_MAX_LEN), 0);
    memcpy(work.data(), CMD326_HEADERS[id], CMD_HEADER_LEN);
    if (length > CMD_HEADER_LEN) {
        unsigned char* p = work.data();
        appendData(&p);  // virtual: the subclass's settings run
    }
    unsigned char* result = nullptr;
    if (getNpa() == 1) {
        if (addNPA(&result, work.data(), &length) != CMD_OK) {
            *len = 0;
            return CMD_ERR;
        }
    } else {
        result = (unsigned char*)malloc((size_t)length);
        if (result == nullptr) {
            *len = 0;
            return CMD_ERR;
        }
        memcpy(result, work.data(), (size_t)length);
    }
    *out = result;
    *len = length;
    LOG_DEBUG("return now %d", length);
    return CMD_OK;
}

void Cmd326::buildOwnSizesHeader(int* len) {
    static const unsigned char OWN_SIZES_HEADER[CMD_HEADER_LEN] = {0x1B, 0x53, 0x0A, 0x00,
                                                                  0x00, 0x00, 0x80, 0x00};
    unsigned char header[CMD_HEADER_LEN];
    memcpy(header, OWN_SIZES_HEADER, CMD_HEADER_LEN);
    LOG_DEBUG("The header dumped is %2X", header[0]);
    int length = CMD_HEADER_LEN;
    if (getNpa() == 1) {
        unsigned char* wrapped = nullptr;
        if (addNPA(&wrapped, header, &length) == CMD_OK) free(wrapped);
    }
    // The request built next replaces this one; only the length is handed out.
    *len = length;
}

int Cmd326::paddedPixelsPerLine(int colorCode) {
    int64_t pixels = getPixelPerLine();
    if (colorCode == DEVICE_COLOR_LINEART) {
        LOG_DEBUG("1bit scan initiated. Chekc for padding required");
        if (pixels % 8 != 0) pixels += 8 - pixels % 8;
    }
    return (int)(uint32_t)pixels;
}

int Cmd326::appendData(unsigned char** buf) {
    if (buf == nullptr || *buf == nullptr) return CMD_ERR;
    unsigned char* p = *buf;
    LOG_DEBUG("Command ID: %d, append selected options", getCommandId());
    int colorDepth = getColorDepth();
    int compression = getCompression();
    int compressionLevel = getCompressionLevel();
    int filter = getFilter();
    int pixels = paddedPixelsPerLine(colorDepth);
    int lines = getLines();
    int offsetX = getScanOffsetX();
    int offsetY = getScanOffsetY();
    int dpi = getCurrentDPI();
    LOG_DEBUG("iColorDepth = %d", colorDepth);
    LOG_DEBUG("Compression = %d", compression);
    LOG_DEBUG("CompressionLevel = %d", compressionLevel);
    LOG_DEBUG("Filter = %d", filter);
    LOG_DEBUG("PixelsPerLine = %d", pixels);
    LOG_DEBUG("Lines = %d", lines);
    LOG_DEBUG("ScanOffsetX = %d", offsetX);
    LOG_DEBUG("ScanOffsetY = %d", offsetY);
    LOG_DEBUG("CurrentDPI = %d", dpi);
    p[8] = (unsigned char)colorDepth;
    p[9] = (unsigned char)compression;
    p[10] = (unsigned char)compressionLevel;
    p[11] = (unsigned char)filter;
    writeLE32(p + 12, (uint32_t)pixels);
    writeLE32(p + 16, (uint32_t)lines);
    writeLE32(p + 20, (uint32_t)offsetX);
    writeLE32(p + 24, (uint32_t)offsetY);
    writeLE16(p + 28, (unsigned)dpi & 0xFFFF);
    writeLE16(p + 30, (unsigned)dpi & 0xFFFF);
    return CMD_OK;
}
