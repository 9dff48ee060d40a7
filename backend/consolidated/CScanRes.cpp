#include "CScanRes.h"

#include "util.h"

CScanRes::CScanRes() = default;
CScanRes::~CScanRes() = default;

int CScanRes::setData(const unsigned char* rec, int len) {
    if (rec == nullptr) return 2;
    if (len < SCANRES_RECORD_LEN) return 3;
    pdata.assign(rec, rec + SCANRES_RECORD_LEN);
    return 0;
}

int CScanRes::getHorRes(int* res) {
    if (res == nullptr) return -1;
    *res = 0;
    if (pdata.empty()) return -1;
    *res = (int)readLE32(pdata.data(), (long)pdata.size(), 0);
    return 0;
}

int CScanRes::getVerRes(int* res) {
    if (res == nullptr) return -1;
    *res = 0;
    if (pdata.empty()) return -1;
    *res = (int)readLE32(pdata.data(), (long)pdata.size(), 4);
    return 0;
}

int CScanRes::getColorDepth() { return pdata.empty() ? -1 : pdata[8]; }

int CScanRes::isEqual() {
    int hor = 0;
    int ver = 0;
    if (getHorRes(&hor) != 0 || getVerRes(&ver) != 0) return 0;
    return hor == ver ? 1 : 0;
}
