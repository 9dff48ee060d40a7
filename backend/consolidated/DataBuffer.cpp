#include "DataBuffer.h"

#include <cstdlib>
#include <cstring>
#include <new>

DataBuffer::DataBuffer() = default;

DataBuffer::~DataBuffer() { free(pImage); }

void DataBuffer::Reset() {
    free(pImage);
    pImage = nullptr;
    iTotalSize = 0;
    iProcessedDataSize = 0;
    iCapacity = 0;
}

int DataBuffer::SetRawData(const unsigned char* data, int n) {
    if (data == nullptr || n <= 0) return 0;
    long need = (long)iTotalSize + n;
    if (need > 0x7FFFFFFF) return 0;
    if (need > iCapacity) {
        // Grow geometrically so that a stream of small appends stays linear.
        long cap = iCapacity > 0 ? iCapacity : 4096;
        while (cap < need) cap *= 2;
        if (cap > 0x7FFFFFFF) cap = need;
        unsigned char* grown = (unsigned char*)realloc(pImage, (size_t)cap);
        if (grown == nullptr) throw std::bad_alloc();
        pImage = grown;
        iCapacity = (int)cap;
    }
    memmove(pImage + iTotalSize, data, (size_t)n);
    iTotalSize += n;
    return 1;
}

unsigned char* DataBuffer::GetRawDataPtr() {
    if (pImage == nullptr || iTotalSize == 0) {
        LOG_DEBUG("iTotalSize is %d", iTotalSize);
        return nullptr;
    }
    if (iProcessedDataSize >= iTotalSize) return nullptr;
    return pImage + iProcessedDataSize;
}

int DataBuffer::GetRawDataSize() const { return iTotalSize - iProcessedDataSize; }

int DataBuffer::GetProcessedData(unsigned char* out, int n) {
    if (n > iProcessedDataSize) n = iProcessedDataSize;
    if (n <= 0 || out == nullptr || iProcessedDataSize == 0) return 0;
    memcpy(out, pImage, (size_t)n);
    memmove(pImage, pImage + n, (size_t)(iTotalSize - n));
    iTotalSize -= n;
    iProcessedDataSize -= n;
    return n;
}

int DataBuffer::GetProcessedData(DataBuffer* dest, int n) {
    if (n > iProcessedDataSize) n = iProcessedDataSize;
    if (n <= 0 || dest == nullptr) return 0;
    dest->SetRawData(pImage, n);
    memmove(pImage, pImage + n, (size_t)(iTotalSize - n));
    iTotalSize -= n;
    iProcessedDataSize -= n;
    return n;
}

int DataBuffer::GetAllData(unsigned char* out, int n) {
    if (out == nullptr || pImage == nullptr || iTotalSize == 0 || n < iTotalSize) return 0;
    memcpy(out, pImage, (size_t)iTotalSize);
    return iTotalSize;
}

int DataBuffer::SetProcessedDataSize(int n) {
    if (n < 0) return 0;
    long v = (long)iProcessedDataSize + n;
    if (v > iTotalSize) v = iTotalSize;
    iProcessedDataSize = (int)v;
    return 1;
}
