// Backend configuration files of any content.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "FuzzTempFile.h"
#include "SaneConfReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzTempFile file("backend.conf");
    SaneConfReader reader;
    if (reader.LoadConf(file.write(data, size)) != 1) abort();
    for (const ScannerInfo& info : reader.GetScannerList()) {
        if (!reader.isFound(info.iVID, info.iPID)) abort();
        const char* feature = reader.GetFeatureFile(info.iVID, info.iPID);
        if (feature == nullptr) abort();
        (void)strlen(feature);
    }
    // Always present after a load, if only as empty texts.
    if (reader.getConfigValue("DISCOVER_USB_FLAG") == nullptr) abort();
    if (reader.getConfigValue("DISCOVER_NET_FLAG") == nullptr) abort();
    if (strlen(reader.GetManufacturer()) > 31) abort();
    return 0;
}
