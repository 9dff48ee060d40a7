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

bool DataBuffer::Reserve(long need) {
    if (need > 0x7FFFFFFF) return false;
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
    return true;
}

int DataBuffer::SetRawData(const unsigned char* data, int n) {
    if (data == nullptr || n <= 0) return 0;
    if (!Reserve((long)iTotalSize + n)) return 0;
    memmove(pImage + iTotalSize, data, (size_t)n);
    iTotalSize += n;
    return 1;
}

int DataBuffer::ReplaceRawData(int n, const unsigned char* data, int len) {
    if (n < 0 || len < 0 || (data == nullptr && len > 0)) return 0;
    const int raw = GetRawDataSize();
    if (n > raw) n = raw;
    const long total = (long)iTotalSize - n + len;
    if (!Reserve(total)) return 0;
    unsigned char* at = pImage != nullptr ? pImage + iProcessedDataSize : nullptr;
    if (at != nullptr && raw > n) memmove(at + len, at + n, (size_t)(raw - n));
    if (len > 0) memcpy(at, data, (size_t)len);
    iTotalSize = (int)total;
    iProcessedDataSize += len;
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
