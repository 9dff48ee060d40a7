#include "CLogger.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {
bool envIsOne(const char* name) {
    const char* v = getenv(name);
    return v != nullptr && strcmp(v, "1") == 0;
}
}  // namespace

CLogger::CLogger() {
    mbuf[0] = '\0';
    fbuf[0] = '\0';
}

bool CLogger::debugEnabled() { return envIsOne("ENABLE_SL_LOG"); }
bool CLogger::infoEnabled() { return envIsOne("ENABLE_INFO_LOG"); }

const char* CLogger::baseName(const char* path) {
    if (path == nullptr) return "";
    const char* slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

CLogger& logSelf() {
    static thread_local CLogger logger;
    return logger;
}

void CLogger::do_percentm(char* out, const char* fmt) {
    // %m is never looked up: it always reads "<unknown error>".
    static const char kUnknown[] = "<unknown error>";
    const size_t kMax = 1023;
    size_t n = 0;
    bool afterPercent = false;
    for (const char* p = fmt; p && *p; ++p) {
        if (afterPercent && *p == 'm') {
            --n;  // overwrite the '%' already copied
            size_t len = sizeof(kUnknown) - 1;
            if (n + len > kMax) break;
            memcpy(out + n, kUnknown, len);
            n += len;
            afterPercent = false;
            continue;
        }
        if (n + 1 > kMax) break;
        afterPercent = (*p == '%') && !afterPercent;
        out[n++] = *p;
    }
    out[n] = '\0';
}

void CLogger::emit(const char* fmt, va_list ap, bool doubled) {
    do_percentm(fbuf, fmt);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    vsnprintf(mbuf, sizeof(mbuf), fbuf, ap);
#pragma GCC diagnostic pop
    // The info level writes its text twice, the second time with the newline: intended.
    if (doubled) fprintf(stderr, "%s", mbuf);
    fprintf(stderr, "%s\n", mbuf);
}

void CLogger::log_debug(const char* fmt, ...) {
    if (!debugEnabled()) return;
    va_list ap;
    va_start(ap, fmt);
    emit(fmt, ap, false);
    va_end(ap);
}

void CLogger::log_error(const char* fmt, ...) {
    if (!debugEnabled()) return;
    va_list ap;
    va_start(ap, fmt);
    emit(fmt, ap, false);
    va_end(ap);
}

void CLogger::log_info(const char* fmt, ...) {
    if (!infoEnabled()) return;
    va_list ap;
    va_start(ap, fmt);
    emit(fmt, ap, true);
    va_end(ap);
}

void CLogger::log_fatal(const char* fmt, ...) {
    if (debugEnabled()) {
        va_list ap;
        va_start(ap, fmt);
        emit(fmt, ap, false);
        va_end(ap);
    }
    exit(1);
}

void CLogger::log_dump(const unsigned char* data, int size) {
    const char* v = getenv("ENABLE_SL_LOG");
    if (v != nullptr && strcmp(v, "1") != 0) return;
    log_debug("(size: %d)", size);
    if (data == nullptr) return;
    char line[106];
    memset(line, 0, sizeof(line));
    size_t used = 0;
    for (int i = 0; i < size; ++i) {
        used += snprintf(line + used, sizeof(line) - used, "%.2x ", data[i]);
        if (used > 96 || i == size - 1) {
            // The line text is itself the format; it holds only hex digits and blanks.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
            log_debug(line);
#pragma GCC diagnostic pop
            memset(line, 0, sizeof(line));
            used = 0;
        }
    }
}
