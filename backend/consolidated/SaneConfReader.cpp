#include "SaneConfReader.h"

#include <cstdio>
#include <cstring>

#include "FlatFileReader.h"

namespace {

void copyManufacturer(char* dst, size_t size, const char* text) {
    // Keeps what fits, terminated; the rest of a longer text is dropped.
    size_t n = strnlen(text, size - 1);
    memcpy(dst, text, n);
    dst[n] = '\0';
}

}  // namespace

SaneConfReader::SaneConfReader() { memset(cBackend, 0, sizeof(cBackend)); }

SaneConfReader::~SaneConfReader() = default;

int SaneConfReader::LoadConf(const char* fileName) {
    LOG_METHOD_START();
    FILE* file = fileName ? fopen(fileName, "r") : nullptr;
    if (file == nullptr) {
        LOG_DEBUG("[ERROR] Error opening configuration file.");
        LOG_METHOD_END_INT(0);
        return 0;
    }
    PushManufacturer(fileName);

    const int size = FlatFileReader::LINE_BUFFER_SIZE;
    char buf[size];
    char* line;
    while ((line = FlatFileReader::ReadTrimmedLine(file, buf, size)) != nullptr) {
        if (line[0] == '\0' || line[0] == '#') continue;

        if (strchr(line, '=') != nullptr) {
            // Every later piece is assigned in turn, so the last one wins.
            std::vector<std::string> pieces = FlatFileReader::SplitAtEquals(line);
            for (size_t i = 1; i < pieces.size(); ++i) {
                configPairs[pieces[0]] = pieces[i];
                LOG_DEBUG("key: %s, value: %s", pieces[0].c_str(), pieces[i].c_str());
            }
            continue;
        }

        // The conversions are bounded by the line buffer, so none can overrun.
        static_assert(size == 4096, "the %4095s widths below are the line buffer size less one");
        char first[size];
        char featureFile[size];
        char model[size];
        unsigned int vid = 0;
        unsigned int pid = 0;
        if (sscanf(line, "%4095s %x %x %4095s %4095s", first, &vid, &pid, featureFile, model) != 5) continue;
        for (char* p = model; *p; ++p)
            if (*p == '_') *p = ' ';
        Add((int)vid, (int)pid, featureFile, model);
    }
    fclose(file);

    // The look-up inserts an empty value for a key the file did not give, so these
    // two keys never read as absent afterwards: intended. It runs outside the log
    // macros, whose arguments are not evaluated while logging is off.
    const std::string& usbFlag = configPairs["DISCOVER_USB_FLAG"];
    const std::string& netFlag = configPairs["DISCOVER_NET_FLAG"];
    LOG_DEBUG("DISCOVER_USB_FLAG: %s", usbFlag.c_str());
    LOG_DEBUG("DISCOVER_NET_FLAG: %s", netFlag.c_str());
    // A manufacturer given in the file overrides the one derived from its name.
    auto manufacturer = configPairs.find("MANUFACTURER");
    if (manufacturer != configPairs.end()) {
        LOG_DEBUG("MANUFACTURER: %s", manufacturer->second.c_str());
        PushManufacturer(manufacturer->second.c_str());
    }
    LOG_METHOD_END_INT(1);
    return 1;
}

void SaneConfReader::Add(int vid, int pid, const char* featureFile, const char* model) {
    ScannerInfo info;
    info.iVID = vid;
    info.iPID = pid;
    info.szFeaturePathFname = featureFile ? featureFile : "";
    info.szModelName = model ? model : "";
    LOG_DEBUG("vid: 0x%4.4x, pid: 0x%4.4x, name: %s, model :%s,", vid, pid, info.szFeaturePathFname.c_str(),
              info.szModelName.c_str());
    ScannerList.push_back(info);
}

const ScannerInfo* SaneConfReader::findScanner(int vid, int pid) const {
    for (const ScannerInfo& info : ScannerList)
        if (info.iVID == vid && info.iPID == pid) return &info;
    return nullptr;
}

int SaneConfReader::isFound(int vid, int pid) { return findScanner(vid, pid) != nullptr ? 1 : 0; }

const char* SaneConfReader::GetFeatureFile(int vid, int pid) {
    const ScannerInfo* info = findScanner(vid, pid);
    if (info == nullptr) {
        LOG_DEBUG("return: NULL");
        return nullptr;
    }
    return info->szFeaturePathFname.c_str();
}

const char* SaneConfReader::getConfigValue(const char* key) {
    if (key == nullptr) return nullptr;
    auto it = configPairs.find(key);
    return it == configPairs.end() ? nullptr : it->second.c_str();
}

const char* SaneConfReader::GetManufacturer() {
    if (cBackend[0] == '\0') copyManufacturer(cBackend, sizeof(cBackend), MAKER_NAME);
    return cBackend;
}

int SaneConfReader::PushManufacturer(const char* text) {
    if (text != nullptr && strcasestr(text, MAKER_NAME) != nullptr)
        copyManufacturer(cBackend, sizeof(cBackend), MAKER_NAME);
    else if (text != nullptr && strcasestr(text, PARTNER_BRAND) != nullptr)
        copyManufacturer(cBackend, sizeof(cBackend), PARTNER_BRAND);
    else  // the list is longer than cBackend holds and is cut to 31 characters: intended
        copyManufacturer(cBackend, sizeof(cBackend), PARTNER_BRAND_LIST);
    return 0;
}
