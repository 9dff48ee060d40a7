// One message from a scanner: the 8-byte reply header and an optional data
// block. Classifies the reply and, for the properties and scan sizes replies,
// parses the block into a CProps. Every read stays within the bytes held.
#ifndef QUARTO_CRESPONSE_H
#define QUARTO_CRESPONSE_H

#include <memory>

#include "CLogger.h"
#include "CProps.h"

// Reply codes (byte 2 of an ESC "S" message).
const int REPLY_CODE_START = 1;
const int REPLY_CODE_DATA = 2;
const int REPLY_CODE_PROPERTIES = 3;
const int REPLY_CODE_STATUS = 4;
const int REPLY_CODE_LOCK = 5;
const int REPLY_CODE_UNLOCK = 6;
const int REPLY_CODE_SCAN_SIZES = 10;
const int REPLY_CODE_SCAN_PARAMS = 11;
const int REPLY_CODE_CANCEL = 15;
const int REPLY_CODE_WAKE = 4;  // of an ESC "D" message

// Reply kinds of getReply: the id of the request that the reply answers.
const int REPLY_CANCEL = 0;
const int REPLY_STATUS = 1;
const int REPLY_PROPERTIES = 2;
const int REPLY_LOCK = 3;
const int REPLY_START = 4;
const int REPLY_UNLOCK = 5;
const int REPLY_WAKE = 6;
const int REPLY_DATA = 7;
const int REPLY_SCAN_PARAMS = 8;
const int REPLY_SCAN_SIZES = 9;

// Shortest message setHeader accepts.
const int REPLY_MIN_LEN = 6;

class CResponse : public CLogger {
public:
    CResponse();
    ~CResponse();
    CResponse(const CResponse&) = delete;
    CResponse& operator=(const CResponse&) = delete;

    // Copies the message (replacing an earlier one) and parses the block of a
    // properties or scan sizes reply. 2 for null data or no memory, 3 for a
    // message shorter than 6 bytes (the previous contents stay).
    int setHeader(unsigned char* data, int size);
    // Parses the block behind the header (at most the bytes held) into a new
    // CProps, replacing the previous one.
    int processProps();
    // The message held (owned by this object) and its length; null and -1 when empty.
    unsigned char* getData(int* size);
    CProps* getProperties();  // null before a block reply
    int getReply();
    int getStatus();          // byte 6 of an ESC "S" message, else -1
    int getADFStatus();       // byte 7, -1 when absent
    int getRecordResponse();  // byte 8, -1 when absent
    int isFlipped();          // 1 when byte 9 is 1, else 0

private:
    int byteAt(int off);

    std::unique_ptr<unsigned char[]> pData;
    std::unique_ptr<CProps> property;
    int iSize = -1;
};

#endif
