#include "Cmd401.h"

namespace {
// Escape header of each image data block and the bytes its length counts beyond the payload.
const int STRIP_SIZE = 10;
const int STRIP_MIN = 2;
const int CMD401_LEN = 34;
const unsigned char CMD401_DATA_LEN = 26;  // header byte 4 of both settings requests
}  // namespace

Cmd401::Cmd401() {
    setVersion(CMD_VERSION_401);
    setStripSize(STRIP_SIZE);
    setStripMin(STRIP_MIN);
    setCmdLen(CMD401_LEN);
}

Cmd401::~Cmd401() = default;

int Cmd401::getCommand(unsigned char** out, int* len) {
    LOG_DEBUG("401 getCommand");
    if (out == nullptr || len == nullptr) return CMD_ERR;
    if (getCommandId() == CMD_ID_SCAN_SIZES) buildOwnSizesHeader(len);
    return Cmd326::getCommand(out, len);
}

int Cmd401::appendData(unsigned char** buf) {
    if (Cmd326::appendData(buf) != CMD_OK) return CMD_ERR;
    unsigned char* p = *buf;
    LOG_DEBUG("%s -> append selected options", __func__);
    p[4] = CMD401_DATA_LEN;
    p[32] = (unsigned char)getSource();
    p[33] = 0;
    return CMD_OK;
}
