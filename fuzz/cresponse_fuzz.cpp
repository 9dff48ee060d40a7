// Device replies: classification, the properties and scan sizes blocks, every
// accessor of the parsed sources and resolutions, and the custom-size readers
// at arbitrary positions.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "CProps.h"
#include "CResponse.h"

namespace {

volatile long sink;

void readSources(CProps* p) {
    int count = p->getNumOfSources();
    for (int i = -1; i <= count + 1; ++i) {
        CSources* s = p->getSource(i);
        if (s == nullptr) continue;
        int v = 0;
        sink += s->getType() + s->getBarId() + s->getNumOfRes() + s->getDuplexSupport() + s->getSize();
        sink += s->getOrgOffset(&v) + v;
        sink += s->getWidth(&v) + v;
        sink += s->getHeight(&v) + v;
        for (int r = -1; r <= s->getNumOfRes() + 1; ++r) {
            CScanRes* res = s->getScanRes(r);
            if (res == nullptr) continue;
            sink += res->getHorRes(&v) + v;
            sink += res->getVerRes(&v) + v;
            sink += res->getColorDepth() + res->isEqual();
        }
    }
}

void readProps(CProps* p, const uint8_t* data, size_t size) {
    if (p == nullptr) return;
    sink += p->getMajor() + p->getMinor() + p->getCodeset() + p->getCompression() + p->getAlignmentClr() +
            p->getAlignmentGry() + p->ImageProcessingSupport() + p->OriginalDocumentSupport();
    sink += p->isMirrorImageModificationSupported() + p->isNegativeImageModificationSupported() +
            p->isColorDropoutSupported() + p->isDescreenSupported() + p->isTemperatureSupported() +
            p->isColorSaturationSupported() + p->isColorBalanceSupported() + p->isBackgroundRemovalSupported() +
            p->isPSSDBrightnessSupported() + p->isPSSDContrastSupported() + p->isISDBrightnessSupported() +
            p->isISDContrastSupported() + p->isDuplexSupported();
    readSources(p);
    p->GetSupportedOriginalTypes();
    ClearSupportedOriginalTypes();

    // Walk the custom sizes as the capability loader does, then read at
    // positions and lengths taken from the input itself.
    int pos = 1;
    int sizes = p->getNumOfCustomSizes();
    for (int i = 0; i < sizes; ++i) {
        int len = p->getPaperNameLength(pos);
        pos += 2;
        std::unique_ptr<char[]> name(p->getPaperName(pos, len));
        sink += name[0];
        pos += len;
        sink += (long)p->customScanSizeWidth(pos);
        pos += 2;
        sink += (long)p->customScanSizeLength(pos);
        pos += 3;
    }
    for (size_t i = 0; i + 2 < size && i < 64; i += 3) {
        int at = (int8_t)data[i] * 4 + data[i + 1];
        int len = (int8_t)data[i + 2] * 16;
        std::unique_ptr<char[]> name(p->getPaperName(at, len));
        sink += name[0] + p->getPaperNameLength(at);
        sink += (long)(p->customScanSizeWidth(at) + p->customScanSizeLength(at - 1));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    std::vector<unsigned char> copy(data, data + size);

    CResponse response;
    if (response.setHeader(copy.data(), (int)copy.size()) == 0) {
        sink += response.getReply() + response.getStatus() + response.getADFStatus() +
                response.getRecordResponse() + response.isFlipped();
        int held = 0;
        sink += response.getData(&held) != nullptr ? held : 0;
        readProps(response.getProperties(), data, size);
        // A second reply replaces the first and its properties.
        response.setHeader(copy.data(), (int)copy.size());
    }

    // The same bytes as a bare properties block.
    CProps props;
    props.setData(copy.data(), (int)copy.size());
    readProps(&props, data, size);
    return 0;
}
