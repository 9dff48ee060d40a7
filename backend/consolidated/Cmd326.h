// The basic command class: the escape requests of the oldest protocol version,
// with a 24-byte settings block behind the two requests that carry scan
// settings (lock and start). Cmd401, Cmd402 and Cmd500 derive from it.
#ifndef QUARTO_CMD326_H
#define QUARTO_CMD326_H

#include "ICommand.h"

// Request lengths: a bare header, the lock request (id 3) of every class and
// the start request (id 4) of each class (iCmdLen).
const int CMD326_LOCK_LEN = 34;
const int CMD326_START_LEN = 32;
// Longest request any class appends settings to (Cmd402's start request).
const int CMD_SETTINGS_MAX_LEN = 43;
// Highest command id that has a request header.
const int CMD326_MAX_ID = 9;

class Cmd326 : public virtual ICommand {
public:
    Cmd326();
    ~Cmd326() override;
    // Builds the request of the current id: 8 header bytes, and for ids 3 and 4
    // the settings block. *out receives a malloc'ed block (free() it).
    int getCommand(unsigned char** out, int* len) override;
    int getCommandId() override;
    // Fills bytes 8-31 of a settings request (the buffer holds at least
    // CMD_SETTINGS_MAX_LEN bytes).
    int appendData(unsigned char** buf) override;

    void setCmdLen(int len) { iCmdLen = len; }
    int getCmdLen() const { return iCmdLen; }

protected:
    // The scan-sizes header the 401 and 402 classes build for id 9 before the
    // common request is built (wrapped in NPA when on); only its length is kept.
    void buildOwnSizesHeader(int* len);
    // Pixels per line as sent: rounded up to whole bytes for line art.
    int paddedPixelsPerLine(int colorCode);

    int iCmdLen = CMD326_START_LEN;
};

#endif
