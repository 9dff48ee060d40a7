// Small tools for finished page images: nearest-neighbour resizing, grey to
// black-and-white conversion, and the headers of PXM files (magics P4, P5 and
// P6) with the one comment line of this system's own ("#QVTRES=<dpi>").
#ifndef QUARTO_IMAGEUTIL_H
#define QUARTO_IMAGEUTIL_H

#include <cstdio>

struct IMAGE_HEADER {
    char id[3];        // the magic, such as "P5"
    int colordepth;    // the maximum sample value line
    int width;
    int height;
    char extra[100];   // the system's comment line, empty when absent
};

// The header lines and the comment line copied into extra.
const int PXM_LINE_SIZE = 1024;
const int PXM_EXTRA_SIZE = 100;
// The buffer writePxmHeader formats the header into.
const int PXM_HEADER_BUFFER = 126;
// Largest image resizeNearest makes (bytes).
const long long RESIZE_MAX_BYTES = 1LL << 30;

class ImageUtil {
public:
    // Scales src (srcWidth x srcHeight pixels of bytesPerPixel bytes) from
    // srcDpi to dstDpi. The new buffer (malloc'ed, the caller frees it) and its
    // geometry are returned through the pointers; *dst is null when nothing
    // could be made.
    static void resizeNearest(const unsigned char* src, int srcWidth, int srcHeight, unsigned char** dst,
                              int* dstWidth, int* dstHeight, unsigned short srcDpi, unsigned short dstDpi,
                              unsigned char bytesPerPixel);
    // Packs a grey image into rows of whole bytes, one bit a pixel (1 for light);
    // returns the size of the new buffer (malloc'ed), 0 with *dst null on failure.
    static int convertGrayToBlackWhite(const unsigned char* src, int width, int height, unsigned char threshold,
                                       unsigned char** dst);
    static int readPxmHeader(FILE* f, IMAGE_HEADER* header);
    // Number of characters written, negative on a formatting error.
    static int writePxmHeader(FILE* f, IMAGE_HEADER* header, int withExtra);
    static int asciiToInt(const char* text);
};

#endif
