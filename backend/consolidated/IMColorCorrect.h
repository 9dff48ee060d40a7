// Colour correction through an external library: its ScanCorrect entry point
// corrects the lines in place with a lookup table read from a file.
#ifndef QUARTO_IMCOLORCORRECT_H
#define QUARTO_IMCOLORCORRECT_H

#include <memory>

#include "CLogger.h"
#include "IManipulation.h"

// data, pixels per line, lines, bytes per line, 1 colour / 0 grey, table, table length.
typedef int (*SCANCORRECT)(unsigned char*, int, int, int, int, unsigned char*, int);

class IMColorCorrect : public IManipulation, public CLogger {
public:
    static constexpr const char* DEFAULT_LIBRARY = "/usr/corvwell/qvt08/lib/libCS_ScanCorrect.so";
    static constexpr const char* DEFAULT_FUNCTION = "ScanCorrect";
    static constexpr const char* DEFAULT_COLOR_LUT = "/usr/corvwell/qvt08/etc/qvdmSCc0.bin";
    static constexpr const char* DEFAULT_GRAY_LUT = "/usr/corvwell/qvt08/etc/qvdmSCg0.bin";
    // The largest table file read: well above any lookup table the correction
    // library takes, small enough that a wrong path cannot exhaust memory.
    static constexpr long MAX_TABLE_SIZE = 4L * 1024 * 1024;

    IMColorCorrect();
    // Loads nothing if any of the four is null.
    IMColorCorrect(const char* library, const char* function, const char* colorLut, const char* grayLut);
    ~IMColorCorrect() override;
    IMColorCorrect(const IMColorCorrect&) = delete;
    IMColorCorrect& operator=(const IMColorCorrect&) = delete;

    int Perform(ImageData* image, int size) override;

private:
    void Load(const char* library, const char* function, const char* colorLut, const char* grayLut);
    // Reads a whole regular file of at most MAX_TABLE_SIZE bytes; null (and
    // size 0) when it is missing, not a regular file, empty, too large or short.
    std::unique_ptr<unsigned char[]> ReadTable(const char* path, int* size);

    void* hScanCorrectHandle = nullptr;
    SCANCORRECT fpScanCorrect = nullptr;
    std::unique_ptr<unsigned char[]> pLutColor;
    int pLutColorSize = 0;
    std::unique_ptr<unsigned char[]> pLutGray;
    int pLutGraySize = 0;
};

#endif
