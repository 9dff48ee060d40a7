#include "Cmd402.h"

#include "util.h"

namespace {
// Escape header of each image data block and the bytes its length counts beyond the payload.
const int STRIP_SIZE = 10;
const int STRIP_MIN = 23;
const int CMD402_LEN = 43;
const unsigned char CMD402_LOCK_DATA_LEN = 26;
const unsigned char CMD402_START_DATA_LEN = 35;
const unsigned char MIRROR_ON = 3;
const int COLORDEPTH_COLOUR = 2;
// Dropout bytes when no channel is dropped.
const unsigned char DROPOUT_CHANNEL_OFF = 0xFF;
const unsigned char DROPOUT_THRESHOLD_OFF = 0xFE;
}  // namespace

Cmd402::Cmd402() {
    setVersion(CMD_VERSION_402);
    setStripSize(STRIP_SIZE);
    setStripMin(STRIP_MIN);
    setCmdLen(CMD402_LEN);
}

Cmd402::~Cmd402() = default;

int Cmd402::getCommand(unsigned char** out, int* len) {
    if (out == nullptr || len == nullptr) return CMD_ERR;
    if (getCommandId() == CMD_ID_SCAN_SIZES) buildOwnSizesHeader(len);
    return Cmd326::getCommand(out, len);
}

int Cmd402::appendData(unsigned char** buf) {
    int dpi = getCurrentDPI();
    if (Cmd326::appendData(buf) != CMD_OK) return CMD_ERR;
    unsigned char* p = *buf;
    LOG_DEBUG("%s -> append selected options", __func__);
    bool start = getCommandId() == CMD_ID_START;
    p[4] = start ? CMD402_START_DATA_LEN : CMD402_LOCK_DATA_LEN;
    p[32] = (unsigned char)getSource();
    p[33] = 0;
    writeLE16(p + 30, (unsigned)dpi & 0xFFFF);
    if (!start) return CMD_OK;

    p[34] = intOption("MIRRORIMAGE") != 0 ? MIRROR_ON : 0;
    p[35] = (unsigned char)intOption("NEGATIVEIMAGE");
    int dropout = intOption("COLORDROPOUT");
    LOG_DEBUG("///////////////////////////////////////////////%d", dropout);
    if (intOption("COLORDEPTH") == COLORDEPTH_COLOUR) {
        for (int i = 36; i <= 40; ++i) p[i] = 0;
    } else if (dropout == 0) {
        p[36] = 0;
        p[37] = p[38] = p[39] = DROPOUT_CHANNEL_OFF;
        p[40] = DROPOUT_THRESHOLD_OFF;
    } else {
        unsigned char threshold = (unsigned char)intOption("COLORDROPOUTTHRESHOLD");
        p[36] = 1;
        p[37] = dropout == 1 ? threshold : 0;
        p[38] = dropout == 2 ? threshold : 0;
        p[39] = dropout == 3 ? threshold : 0;
        p[40] = threshold;
    }
    int background = intOption("BKGREMOVAL");
    p[41] = background != 0 ? 1 : 0;
    p[42] = (unsigned char)(background != 0 ? background : 0);
    return CMD_OK;
}
