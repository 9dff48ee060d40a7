// Diagnostic logger. Every class logs through its own inherited instance; the
// LOG_* macros build the line prefix and skip all formatting when a level is off.
#ifndef QUARTO_CLOGGER_H
#define QUARTO_CLOGGER_H

#include <pthread.h>
#include <cstdarg>
#include <unistd.h>

class CLogger {
public:
    CLogger();

    void log_debug(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void log_info(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void log_error(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    [[noreturn]] void log_fatal(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void log_dump(const unsigned char* data, int size);
    static void do_percentm(char* out, const char* fmt);

    // Level switches, read from the environment on every call.
    static bool debugEnabled();   // ENABLE_SL_LOG == "1" (debug, error, fatal)
    static bool infoEnabled();    // ENABLE_INFO_LOG == "1"
    // File name without its directories, for the line prefix.
    static const char* baseName(const char* path);

    // The logger the LOG_* macros write through: inside a class derived from
    // CLogger this member is found first, elsewhere the free function below.
    CLogger& logSelf() { return *this; }

private:
    void emit(const char* fmt, va_list ap, bool doubled);

    char mbuf[1024];
    char fbuf[1024];
};

// Logger for code outside any CLogger-derived class (one per thread).
CLogger& logSelf();

#define QUARTO_LOG_PREFIX "[P:%d T:0x%X] %-10.10s:%-5d %-20.20s -- "
#define QUARTO_LOG_ARGS \
    (int)getpid(), (unsigned)(unsigned long)pthread_self(), CLogger::baseName(__FILE__), __LINE__, __func__

#define LOG_DEBUG(fmt, ...)                                                              \
    do {                                                                                 \
        if (CLogger::debugEnabled())                                                     \
            logSelf().log_debug(QUARTO_LOG_PREFIX fmt, QUARTO_LOG_ARGS, ##__VA_ARGS__);  \
    } while (0)
#define LOG_ERROR(fmt, ...)                                                              \
    do {                                                                                 \
        if (CLogger::debugEnabled())                                                     \
            logSelf().log_error(QUARTO_LOG_PREFIX fmt, QUARTO_LOG_ARGS, ##__VA_ARGS__);  \
    } while (0)
#define LOG_INFO(fmt, ...)                                                               \
    do {                                                                                 \
        if (CLogger::infoEnabled())                                                      \
            logSelf().log_info(QUARTO_LOG_PREFIX fmt, QUARTO_LOG_ARGS, ##__VA_ARGS__);   \
    } while (0)
#define LOG_FATAL(fmt, ...) logSelf().log_fatal(QUARTO_LOG_PREFIX fmt, QUARTO_LOG_ARGS, ##__VA_ARGS__)
#define LOG_DUMP(data, size)                                                             \
    do {                                                                                 \
        if (CLogger::debugEnabled()) logSelf().log_dump((data), (size));                 \
    } while (0)

#define LOG_METHOD_START() LOG_DEBUG("::::::::::::::: METHOD START ::::::::::::::: ")
#define LOG_METHOD_END() LOG_DEBUG("::::::::::::::: METHOD END ::::::::::::::: ")
#define LOG_METHOD_END_INT(v) LOG_DEBUG("::::::::::::::: METHOD END ::::::::::::::: %d", (int)(v))
#define LOG_METHOD_END_STR(s) \
    LOG_DEBUG("::::::::::::::: METHOD END ::::::::::::::: %s", (s) ? (const char*)(s) : "NULL")

#endif
