#include "ScanLib.h"

#include <execinfo.h>
#include <strings.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "Device.h"
#include "SaneConfReader.h"

namespace {
const char kDefaultConf[] = "/etc/sane.d/Tarvesk_1_0_0.conf";
const char kEtcDir[] = "/etc/sane.d/";

const char* strcasestrPortable(const char* hay, const char* needle) {
    size_t n = strlen(needle);
    for (const char* p = hay; *p; ++p)
        if (strncasecmp(p, needle, n) == 0) return p;
    return nullptr;
}
}  // namespace

void ScanLib::GetBackendName(char* buffer, int size) {
    void* frames[10];
    int n = backtrace(frames, 10);
    char** symbols = backtrace_symbols(frames, n);
    if (symbols == nullptr) {
        if (buffer && size > 0) buffer[0] = '\0';
        return;
    }
    int matched = -1;
    for (int i = 0; i < n; ++i) {
        if (strcasestrPortable(symbols[i], "libsane-") != nullptr) {
            matched = i;
            break;
        }
        // Clears as many bytes as frames were taken, not the buffer size: kept so
        // (bounded by the buffer here).
        if (buffer) memset(buffer, 0, (size_t)(n < size ? n : size));
    }
    if (matched >= 0 && buffer != nullptr && size > 0) {
        std::string frame = symbols[matched];
        std::string component;
        size_t start = 0;
        while (start <= frame.size()) {
            size_t slash = frame.find('/', start);
            std::string part = frame.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
            if (strcasestrPortable(part.c_str(), "libsane-") != nullptr) {
                component = part;
                break;
            }
            if (slash == std::string::npos) break;
            start = slash + 1;
        }
        size_t dash = component.find('-');
        std::string name = dash == std::string::npos ? std::string() : component.substr(dash + 1);
        size_t dot = name.find('.');
        if (dot != std::string::npos) name.resize(dot);
        snprintf(buffer, (size_t)size, "%s%s.conf", kEtcDir, name.c_str());
    }
    free(symbols);
}

std::string ScanLib::ResolveConfFile(const char* etcPath) {
    std::string path = etcPath ? etcPath : "";
    const char* dirs = getenv("SANE_CONFIG_DIR");
    if (dirs == nullptr || path.compare(0, strlen(kEtcDir), kEtcDir) != 0) return path;
    std::string base = path.substr(strlen(kEtcDir));
    std::string all = dirs;
    size_t start = 0;
    while (start <= all.size()) {
        size_t colon = all.find(':', start);
        std::string dir = all.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
        if (!dir.empty()) {
            std::string candidate = dir + "/" + base;
            struct stat st;
            if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode)) return candidate;
        }
        if (colon == std::string::npos) break;
        start = colon + 1;
    }
    return path;
}

int ScanLib::GetScanners(char*** list, int* count) {
    LOG_METHOD_START();
    std::unique_ptr<SaneConfReader> reader(new (std::nothrow) SaneConfReader());
    if (!reader) return 1;
    char buffer[128];
    memset(buffer, 0, sizeof(buffer));
    GetBackendName(buffer, sizeof(buffer));
    std::string file = ResolveConfFile(buffer[0] == '\0' ? kDefaultConf : buffer);
    if (reader->LoadConf(file.c_str()) != 1) {
        LOG_DEBUG("unable to load configuration file %s", file.c_str());
        LOG_METHOD_END_INT(17);
        return 17;
    }
    int rc = Device::getScanners(list, count, reader.get());
    LOG_METHOD_END_INT(rc);
    return rc;
}
