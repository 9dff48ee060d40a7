// A byte buffer with a processed prefix (ready for delivery) and a raw rest
// (not yet manipulated). Appending reallocates; removing shifts the rest forward;
// ReplaceRawData splices decoded bytes in place of raw ones.
#ifndef QUARTO_DATABUFFER_H
#define QUARTO_DATABUFFER_H

#include "CLogger.h"

class DataBuffer : public CLogger {
public:
    DataBuffer();
    virtual ~DataBuffer();
    DataBuffer(const DataBuffer&) = delete;
    DataBuffer& operator=(const DataBuffer&) = delete;

    void Reset();
    int SetRawData(const unsigned char* data, int n);
    unsigned char* GetRawDataPtr();
    int GetRawDataSize() const;
    int GetProcessedData(unsigned char* out, int n);
    int GetProcessedData(DataBuffer* dest, int n);
    int GetAllData(unsigned char* out, int n);
    int SetProcessedDataSize(int n);
    // Replaces the first n raw bytes (n cut to the raw size) by len bytes of
    // data, which count as processed; the raw bytes after them move once.
    // With len 0 the n bytes are simply dropped. Returns 1, or 0 for a
    // negative argument or null data with len > 0.
    int ReplaceRawData(int n, const unsigned char* data, int len);
    int GetProcessedDataSize() const { return iProcessedDataSize; }
    int GetAllDataSize() const { return iTotalSize; }

protected:
    // Room for need bytes in all; false when that cannot be an int size.
    bool Reserve(long need);

    unsigned char* pImage = nullptr;
    int iTotalSize = 0;
    int iProcessedDataSize = 0;
    int iCapacity = 0;  // bytes allocated behind pImage (>= iTotalSize)
};

#endif
