// One scan source record of the device properties: type, bar id, origin
// offset, width, height (32-bit little-endian) and its resolution records.
#ifndef QUARTO_CSOURCES_H
#define QUARTO_CSOURCES_H

#include <memory>
#include <vector>

#include "CLogger.h"
#include "CScanRes.h"

const int SOURCE_HEADER_LEN = 15;

class CSources : public CLogger {
public:
    CSources();
    ~CSources();

    // Parses the record at rec, of which len bytes are held, and reports its
    // size (15 + 9 x resolutions) in *size. 2 for null input; 3 when the
    // record does not fit in len bytes (nothing is kept then).
    int setData(const unsigned char* rec, int len, int* size);
    int getType();    // byte 0, -1 when empty
    int getBarId();   // byte 1
    int getNumOfRes();  // byte 14
    // Byte 9: the top byte of the width field, deliberately.
    int getDuplexSupport();
    // *v is set to 0 first; 0 on success, -1 when empty.
    int getOrgOffset(int* v);
    int getWidth(int* v);
    int getHeight(int* v);
    CScanRes* getScanRes(int index);  // null past the end
    int getSize();

private:
    int byteAt(int off);
    int field32(int off, int* v);

    std::vector<std::unique_ptr<CScanRes>> resolutions;
    std::vector<unsigned char> pdata;
    int size = 0;
};

#endif
