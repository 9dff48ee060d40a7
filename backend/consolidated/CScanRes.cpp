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

int CScanRes::field32(int off, int* v) {
    if (v == nullptr) return -1;
    *v = 0;
    if (pdata.empty()) return -1;
    *v = (int)readLE32(pdata.data(), (long)pdata.size(), off);
    return 0;
}

int CScanRes::getHorRes(int* res) { return field32(0, res); }
int CScanRes::getVerRes(int* res) { return field32(4, res); }

int CScanRes::getColorDepth() { return pdata.empty() ? -1 : pdata[8]; }

int CScanRes::isEqual() {
    int hor = 0;
    int ver = 0;
    if (getHorRes(&hor) != 0 || getVerRes(&ver) != 0) return 0;
    return hor == ver ? 1 : 0;
}
