#include "util.h"

#include <sys/mman.h>
#include <sys/select.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int utilCopyMacTextToBytes(const char* text, unsigned char* out) {
    if (text == nullptr) return 0;
    int len = (int)strlen(text);
    // Every character maps to a nibble; nothing is rejected. An odd length takes
    // the terminator (0) as the last low nibble.
    auto nibble = [](unsigned char c) -> unsigned {
        if (isalpha(c)) return (unsigned)(toupper(c) - 55) & 0x0F;
        return (unsigned)(c - 48) & 0x0F;
    };
    for (int i = 0; i < len; i += 2) {
        unsigned hi = nibble((unsigned char)text[i]);
        unsigned lo = nibble((unsigned char)text[i + 1]);
        out[i / 2] = (unsigned char)(hi << 4 | lo);
    }
    return len;
}

int utilInitFastMutex(pthread_mutex_t* mutex) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
    int rc = pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    return rc;
}

int utilInitConditionVariable(pthread_cond_t* cond) { return pthread_cond_init(cond, nullptr); }

int utilWaitOnConditionVariable(pthread_cond_t* cond, pthread_mutex_t* mutex) {
    return pthread_cond_wait(cond, mutex);
}

int utilInformOnConditionVariable(pthread_cond_t* cond, pthread_mutex_t* mutex) {
    pthread_mutex_lock(mutex);
    int rc = pthread_cond_broadcast(cond);
    pthread_mutex_unlock(mutex);
    return rc;
}

int utilCreateByteFromTwoChars(const char* text, long* value) {
    if (text == nullptr || value == nullptr) return -1;
    char* end = nullptr;
    errno = 0;
    long v = strtol(text, &end, 16);
    if (end == text) return -1;
    if (errno == ERANGE) return -1;
    if (errno != 0 && v == 0) return -1;
    *value = v;
    return 1;
}

unsigned char* utilCreateBytesFromText(const char* text, int* count) {
    if (count) *count = 0;
    if (text == nullptr) return nullptr;
    unsigned char* bytes = nullptr;
    int n = 0;
    char pair[3] = {0, 0, 0};
    int have = 0;
    for (const char* p = text; *p; ++p) {
        if (p[0] == '/' && p[1] == '*') {
            const char* close = strstr(p + 2, "*/");
            if (close == nullptr) break;  // an unterminated comment runs to the end
            p = close + 1;
            continue;
        }
        if (!isxdigit((unsigned char)*p)) continue;
        pair[have++] = *p;
        if (have == 2) {
            long v = 0;
            if (utilCreateByteFromTwoChars(pair, &v) == 1) {
                unsigned char* grown = (unsigned char*)realloc(bytes, (size_t)n + 1);
                if (grown == nullptr) break;
                bytes = grown;
                bytes[n++] = (unsigned char)v;
            }
            have = 0;
        }
    }
    if (count) *count = n;
    if (bytes == nullptr) bytes = (unsigned char*)calloc(1, 1);
    return bytes;
}

int utilCreateTextFromBytes(const unsigned char* data, int n, char** text) {
    if (n < 0) n = 0;
    size_t size = (size_t)n / 32 + 3 * (size_t)n + 3;
    char* out = (char*)calloc(size, 1);
    if (text) *text = out;
    if (out == nullptr) return 0;
    size_t pos = 0;
    for (int i = 0; i < n; ++i) {
        if (i % 32 == 0) out[pos++] = '\n';
        pos += snprintf(out + pos, size - pos, "%.2x ", data[i]);
    }
    return n / 32 + 3 * n + 2;
}

void utilHexDump(const unsigned char* data, int n) {
    char* text = nullptr;
    utilCreateTextFromBytes(data, n, &text);
    printf("(size: %d) %s\n", n, text ? text : "");
    free(text);
}

void utilThreadSleep(long seconds, long microseconds) {
    struct timeval tv;
    tv.tv_sec = seconds;
    tv.tv_usec = microseconds;
    select(0, nullptr, nullptr, nullptr, &tv);
}

uint64_t utilGetBEIntValue(const unsigned char* p) {
    return (uint64_t)((uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | (uint32_t)p[3]);
}

int writeDataToFile(int fd, const unsigned char* data, unsigned int len) {
    unsigned int done = 0;
    while (done < len) {
        ssize_t w = write(fd, data + done, len - done);
        if (w < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (w == 0) return -1;
        done += (unsigned int)w;
    }
    return 0;
}

void utilAdviseHugePages(void* p, size_t len) {
    const uintptr_t huge = uintptr_t(2) << 20;
    const uintptr_t start = ((uintptr_t)p + huge - 1) & ~(huge - 1);
    const uintptr_t end = ((uintptr_t)p + len) & ~(huge - 1);
    if (end > start) madvise((void*)start, end - start, MADV_HUGEPAGE);
}

std::string utilShellQuote(const std::string& value) {
    std::string out = "'";
    for (char c : value) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    out += "'";
    return out;
}
