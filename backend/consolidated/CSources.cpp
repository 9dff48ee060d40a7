#include "CSources.h"

#include "util.h"

CSources::CSources() = default;
CSources::~CSources() = default;

int CSources::setData(const unsigned char* rec, int len, int* recSize) {
    if (rec == nullptr || recSize == nullptr) return 2;
    if (len < SOURCE_HEADER_LEN) {
        LOG_DEBUG("source record truncated: %d bytes", len);
        return 3;
    }
    int count = rec[14];
    int need = SOURCE_HEADER_LEN + SCANRES_RECORD_LEN * count;
    if (len < need) {
        LOG_DEBUG("source record truncated: %d of %d bytes", len, need);
        return 3;
    }
    resolutions.clear();
    for (int i = 0; i < count; ++i) {
        std::unique_ptr<CScanRes> res(new CScanRes());
        res->setData(rec + SOURCE_HEADER_LEN + SCANRES_RECORD_LEN * i, SCANRES_RECORD_LEN);
        resolutions.push_back(std::move(res));
    }
    pdata.assign(rec, rec + need);
    size = need;
    *recSize = need;
    return 0;
}

int CSources::byteAt(int off) { return off >= 0 && off < (int)pdata.size() ? pdata[(size_t)off] : -1; }

int CSources::field32(int off, int* v) {
    if (v == nullptr) return -1;
    *v = 0;
    if (pdata.empty()) return -1;
    *v = (int)readLE32(pdata.data(), (long)pdata.size(), off);
    return 0;
}

int CSources::getType() { return byteAt(0); }
int CSources::getBarId() { return byteAt(1); }
int CSources::getNumOfRes() { return byteAt(14); }
int CSources::getDuplexSupport() { return byteAt(9); }
int CSources::getOrgOffset(int* v) { return field32(2, v); }
int CSources::getWidth(int* v) { return field32(6, v); }
int CSources::getHeight(int* v) { return field32(10, v); }
int CSources::getSize() { return size; }

CScanRes* CSources::getScanRes(int index) {
    if (index < 0 || index >= (int)resolutions.size()) return nullptr;
    return resolutions[(size_t)index].get();
}
