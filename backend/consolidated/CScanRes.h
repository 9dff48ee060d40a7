// One resolution record of a scan source: horizontal and vertical resolution
// (32-bit little-endian each) and a colour-depth byte, 9 bytes in all.
#ifndef QUARTO_CSCANRES_H
#define QUARTO_CSCANRES_H

#include <vector>

#include "CLogger.h"

const int SCANRES_RECORD_LEN = 9;

class CScanRes : public CLogger {
public:
    CScanRes();
    ~CScanRes();

    // Copies the record; 2 for null input, 3 when len is below 9 (nothing kept).
    int setData(const unsigned char* rec, int len);
    // 0 and the value in *res; -1 (and 0 in *res) when no record is held.
    int getHorRes(int* res);
    int getVerRes(int* res);
    int getColorDepth();  // -1 when empty
    int isEqual();        // 1 when both resolutions are equal, else 0

private:
    int field32(int off, int* v);

    std::vector<unsigned char> pdata;
};

#endif
