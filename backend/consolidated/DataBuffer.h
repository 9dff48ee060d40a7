// A byte buffer with a processed prefix (ready for delivery) and a raw rest
// (not yet manipulated). Appending reallocates; removing shifts the rest forward.
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
    int GetProcessedDataSize() const { return iProcessedDataSize; }
    int GetAllDataSize() const { return iTotalSize; }

protected:
    unsigned char* pImage = nullptr;
    int iTotalSize = 0;
    int iProcessedDataSize = 0;
    int iCapacity = 0;  // bytes allocated behind pImage (>= iTotalSize)
};

#endif
