#include "CProps.h"

#include <cstdlib>
#include <cstring>

#include "util.h"

char* pssd_usb_doc_source_list[PSSD_USB_DOC_SOURCE_LIST_SIZE + 1] = {nullptr};

void ClearSupportedOriginalTypes() {
    for (int i = 0; i < PSSD_USB_DOC_SOURCE_LIST_SIZE + 1; ++i) {
        free(pssd_usb_doc_source_list[i]);
        pssd_usb_doc_source_list[i] = nullptr;
    }
}

namespace {
// Original-document type names by bit of the support byte.
const char* const DOC_TYPE_NAMES[9] = {
    "Auto/Other", "Black and White Laser", "Color Laser", "Inkjet Plain", "Photo",
    "Magazine",   "Newspaper",             "Press",       "Inkjet Glossy",
};
const int OFF_SUPPORT_BITS = 6;
const int OFF_DUPLEX = 9;
const int OFF_DOC_TYPES = 10;
const int OFF_SOURCE_COUNT = 6;  // plus offset
const int OFF_MIRROR_BIT = 0;
const int OFF_NEGATIVE_BIT = 1;
const int OFF_DROPOUT_BIT = 2;
const int OFF_DESCREEN_BIT = 4;
const int OFF_TEMPERATURE_BIT = 5;
const int OFF_SATURATION_BIT = 6;
const int OFF_BALANCE_BIT = 7;
}  // namespace

CProps::CProps() = default;
CProps::~CProps() = default;

int CProps::byteAt(long off) { return off >= 0 && off < (long)pdata.size() ? pdata[(size_t)off] : -1; }

bool CProps::isVersion5() { return getMajor() >= PROPS_V5_MAJOR; }

int CProps::setData(const unsigned char* block, int len) {
    LOG_METHOD_START();
    if (block == nullptr) return 2;
    pdata.assign(block, block + (len > 0 ? len : 0));
    sources.clear();
    LOG_DEBUG("protocol major version: %d  minor version: %d", getMajor(), getMinor());
    offset = isVersion5() ? PROPS_V5_OFFSET : 0;
    int count = byteAt(OFF_SOURCE_COUNT + offset);
    long pos = OFF_SOURCE_COUNT + offset + 1;
    for (int i = 0; i < count; ++i) {
        std::unique_ptr<CSources> source(new CSources());
        int recSize = 0;
        long held = (long)pdata.size() - pos;
        if (held <= 0 || source->setData(pdata.data() + pos, (int)held, &recSize) != 0) break;
        pos += recSize + (isVersion5() ? 1 : 0);  // major 5+: one byte follows each record
        sources.push_back(std::move(source));
    }
    LOG_METHOD_END_INT(0);
    return 0;
}

int CProps::getMajor() { return byteAt(0); }
int CProps::getMinor() { return byteAt(1); }
int CProps::getCodeset() { return byteAt(2); }
int CProps::getCompression() { return byteAt(3); }
int CProps::getAlignmentClr() { return byteAt(4); }
int CProps::getAlignmentGry() { return byteAt(5); }

int CProps::getNumOfSources() {
    int count = byteAt(OFF_SOURCE_COUNT + offset);
    return count < 0 || count <= (int)sources.size() ? count : (int)sources.size();
}

CSources* CProps::getSource(int index) {
    LOG_DEBUG("finding source for id: %d", index);
    if (index < 0 || index >= (int)sources.size()) return nullptr;
    return sources[(size_t)index].get();
}

int CProps::ImageProcessingSupport() { return isVersion5() ? byteAt(OFF_SUPPORT_BITS) : -1; }
int CProps::OriginalDocumentSupport() { return isVersion5() ? byteAt(OFF_DOC_TYPES) : -1; }

int CProps::supportBit(int bit) {
    int bits = ImageProcessingSupport();
    if (bits < 0) return 0;
    // The support field is one byte wide, so bits 8 and above are never set: intended.
    return ((unsigned)bits >> bit) & 1u;
}

int CProps::isMirrorImageModificationSupported() { return supportBit(OFF_MIRROR_BIT); }
int CProps::isNegativeImageModificationSupported() { return supportBit(OFF_NEGATIVE_BIT); }
int CProps::isColorDropoutSupported() { return supportBit(OFF_DROPOUT_BIT); }
int CProps::isDescreenSupported() { return supportBit(OFF_DESCREEN_BIT); }
int CProps::isTemperatureSupported() { return supportBit(OFF_TEMPERATURE_BIT); }
int CProps::isColorSaturationSupported() { return supportBit(OFF_SATURATION_BIT); }
int CProps::isColorBalanceSupported() { return supportBit(OFF_BALANCE_BIT); }
int CProps::isBackgroundRemovalSupported() { return supportBit(8) | supportBit(12); }
int CProps::isPSSDBrightnessSupported() { return supportBit(10); }
int CProps::isPSSDContrastSupported() { return supportBit(11); }
int CProps::isISDBrightnessSupported() { return supportBit(14); }
int CProps::isISDContrastSupported() { return supportBit(15); }
int CProps::isDuplexSupported() { return byteAt(OFF_DUPLEX) > 0 ? 1 : 0; }

void CProps::GetSupportedOriginalTypes() {
    LOG_METHOD_START();
    int mask = byteAt(OFF_DOC_TYPES);
    if (mask < 0) mask = 0;
    int next = 0;
    // Bit 8 ("Inkjet Glossy") lies outside the one-byte mask and is never set: intended.
    for (int bit = 0; bit < 9; ++bit) {
        if (((unsigned)mask >> bit & 1u) == 0) continue;
        while (next < PSSD_USB_DOC_SOURCE_LIST_SIZE && pssd_usb_doc_source_list[next] != nullptr) ++next;
        if (next >= PSSD_USB_DOC_SOURCE_LIST_SIZE) break;  // list full: further names dropped
        char* name = (char*)calloc(PSSD_DOC_TYPE_NAME_LEN, 1);
        if (name == nullptr) break;
        strncpy(name, DOC_TYPE_NAMES[bit], PSSD_DOC_TYPE_NAME_LEN - 1);
        pssd_usb_doc_source_list[next] = name;
        LOG_DEBUG("the document type value %s", name);
    }
    LOG_METHOD_END();
}

int CProps::getNumOfCustomSizes() {
    int count = byteAt(0);
    LOG_DEBUG("the no of scan sizes %d", count);
    return count;
}

int CProps::getPaperNameLength(int pos) {
    int len = byteAt(pos);
    return len < 0 ? 0 : len;
}

char* CProps::getPaperName(int pos, int len) {
    char* name = new char[PSSD_DOC_TYPE_NAME_LEN]();
    if (len > PSSD_DOC_TYPE_NAME_LEN - 1) len = PSSD_DOC_TYPE_NAME_LEN - 1;  // keep the terminator
    for (int i = 0; i < len; ++i) {
        int c = byteAt((long)pos + i);
        if (c < 0) break;
        name[i] = (char)c;
    }
    return name;
}

// Widths and lengths are both thousandths of an inch in a 16-bit field.
double CProps::customScanSizeWidth(int pos) { return readLE16(pdata.data(), (long)pdata.size(), pos) / 1000.0; }
double CProps::customScanSizeLength(int pos) { return customScanSizeWidth(pos); }
