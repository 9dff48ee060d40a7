#include "CResponse.h"

#include <cstring>
#include <new>

#include "ICommand.h"
#include "util.h"

CResponse::CResponse() = default;
CResponse::~CResponse() = default;

int CResponse::byteAt(int off) {
    return (pData != nullptr && off >= 0 && off < iSize) ? pData[(size_t)off] : -1;
}

int CResponse::setHeader(unsigned char* data, int size) {
    LOG_METHOD_START();
    if (data == nullptr) return 2;
    if (size < REPLY_MIN_LEN) {
        LOG_DEBUG("message too short: %d bytes", size);
        return 3;
    }
    std::unique_ptr<unsigned char[]> copy(new (std::nothrow) unsigned char[(size_t)size]);
    if (copy == nullptr) return 2;
    memcpy(copy.get(), data, (size_t)size);
    pData = std::move(copy);
    iSize = size;
    int code = pData[2];
    if (code == REPLY_CODE_PROPERTIES || code == REPLY_CODE_SCAN_SIZES) processProps();
    LOG_METHOD_END_INT(0);
    return 0;
}

int CResponse::processProps() {
    LOG_METHOD_START();
    if (pData == nullptr) return 2;
    // The block length comes from the header; never more than the bytes held.
    int blockLen = (int)readLE16(pData.get(), iSize, 4);
    int held = iSize > CMD_HEADER_LEN ? iSize - CMD_HEADER_LEN : 0;
    if (blockLen > held) {
        LOG_DEBUG("data block truncated: %d of %d bytes", held, blockLen);
        blockLen = held;
    }
    property.reset(new CProps());
    int rc = property->setData(pData.get() + (iSize > CMD_HEADER_LEN ? CMD_HEADER_LEN : 0), blockLen);
    LOG_METHOD_END_INT(rc);
    return rc;
}

unsigned char* CResponse::getData(int* size) {
    if (size != nullptr) *size = iSize;
    return pData.get();
}

CProps* CResponse::getProperties() { return property.get(); }

int CResponse::getReply() {
    if (pData == nullptr || iSize < REPLY_MIN_LEN || pData[0] != ESC) return REPLY_CANCEL;
    int code = pData[2];
    if (pData[1] == ESC_D) return code == REPLY_CODE_WAKE ? REPLY_WAKE : REPLY_CANCEL;
    if (pData[1] != ESC_S) return REPLY_CANCEL;
    switch (code) {
    case REPLY_CODE_START: return REPLY_START;
    case REPLY_CODE_DATA: return REPLY_DATA;
    case REPLY_CODE_PROPERTIES: return REPLY_PROPERTIES;
    case REPLY_CODE_STATUS: return REPLY_STATUS;
    case REPLY_CODE_LOCK: return REPLY_LOCK;
    case REPLY_CODE_UNLOCK: return REPLY_UNLOCK;
    case REPLY_CODE_SCAN_SIZES: return REPLY_SCAN_SIZES;
    case REPLY_CODE_SCAN_PARAMS: return REPLY_SCAN_PARAMS;
    default: return REPLY_CANCEL;
    }
}

int CResponse::getStatus() {
    if (iSize < REPLY_MIN_LEN || byteAt(0) != ESC || byteAt(1) != ESC_S) return -1;
    return byteAt(6);
}

int CResponse::getADFStatus() { return byteAt(7); }

int CResponse::getRecordResponse() { return iSize < REPLY_MIN_LEN ? -1 : byteAt(8); }

int CResponse::isFlipped() { return byteAt(9) == 1 ? 1 : 0; }
