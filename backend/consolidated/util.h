// Small byte, text, file and synchronisation helpers, plus the bounds-checked
// field readers every parser of untrusted input uses.
#ifndef QUARTO_UTIL_H
#define QUARTO_UTIL_H

#include <pthread.h>
#include <cstdint>
#include <cstdlib>
#include <string>

// Deleter of a std::unique_ptr that owns a malloc'ed block, such as one an
// interface hands across for the receiver to free.
struct FreeDeleter {
    void operator()(void* p) const { free(p); }
};

int utilCopyMacTextToBytes(const char* text, unsigned char* out);
int utilInitFastMutex(pthread_mutex_t* mutex);
int utilInitConditionVariable(pthread_cond_t* cond);
int utilWaitOnConditionVariable(pthread_cond_t* cond, pthread_mutex_t* mutex);
int utilInformOnConditionVariable(pthread_cond_t* cond, pthread_mutex_t* mutex);
int utilCreateByteFromTwoChars(const char* text, long* value);
unsigned char* utilCreateBytesFromText(const char* text, int* count);
int utilCreateTextFromBytes(const unsigned char* data, int n, char** text);
void utilHexDump(const unsigned char* data, int n);
void utilThreadSleep(long seconds, long microseconds);
uint64_t utilGetBEIntValue(const unsigned char* p);
int writeDataToFile(int fd, const unsigned char* data, unsigned int len);

// Asks the kernel to back the 2 MB-aligned part of a large fresh buffer with
// huge pages where it allows that (a no-op where it does not): a decoded page
// of some hundred megabytes then costs one fault per 2 MB, not one per 4 kB.
void utilAdviseHugePages(void* p, size_t len);

// Shell-quotes one value for a command line: 'text' with ' written as '\''.
std::string utilShellQuote(const std::string& value);

// Bounds-checked field readers: 0 when the buffer is too short to hold the field.
inline unsigned readU8(const unsigned char* p, long len, long off) {
    return (p != nullptr && off >= 0 && off + 1 <= len) ? p[off] : 0u;
}
inline unsigned readLE16(const unsigned char* p, long len, long off) {
    return (p != nullptr && off >= 0 && off + 2 <= len) ? unsigned(p[off] | p[off + 1] << 8) : 0u;
}
inline uint32_t readLE32(const unsigned char* p, long len, long off) {
    return (p != nullptr && off >= 0 && off + 4 <= len)
               ? uint32_t(p[off]) | uint32_t(p[off + 1]) << 8 | uint32_t(p[off + 2]) << 16 |
                     uint32_t(p[off + 3]) << 24
               : 0u;
}
inline unsigned readBE16(const unsigned char* p, long len, long off) {
    return (p != nullptr && off >= 0 && off + 2 <= len) ? unsigned(p[off] << 8 | p[off + 1]) : 0u;
}
inline uint32_t readBE32(const unsigned char* p, long len, long off) {
    return (p != nullptr && off >= 0 && off + 4 <= len)
               ? uint32_t(p[off]) << 24 | uint32_t(p[off + 1]) << 16 | uint32_t(p[off + 2]) << 8 |
                     uint32_t(p[off + 3])
               : 0u;
}
inline void writeLE16(unsigned char* p, unsigned v) {
    p[0] = (unsigned char)(v & 0xFF);
    p[1] = (unsigned char)((v >> 8) & 0xFF);
}
inline void writeLE32(unsigned char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = (unsigned char)((v >> (8 * i)) & 0xFF);
}

#endif
