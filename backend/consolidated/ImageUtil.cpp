#include "ImageUtil.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "CLogger.h"

namespace {

const int BLACK_WHITE_LEVEL = 180;
const int BITS_PER_BYTE = 8;

bool isAsciiAlnum(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool isBlank(char c) { return c == ' ' || c == '\t'; }

// The second word of a line: past the first word and the blanks after it.
const char* secondWord(const char* line) {
    const char* p = line;
    while (isBlank(*p)) ++p;
    while (*p != '\0' && !isBlank(*p)) ++p;
    while (isBlank(*p)) ++p;
    return p;
}

}  // namespace

void ImageUtil::resizeNearest(const unsigned char* src, int srcWidth, int srcHeight, unsigned char** dst,
                              int* dstWidth, int* dstHeight, unsigned short srcDpi, unsigned short dstDpi,
                              unsigned char bytesPerPixel) {
    LOG_METHOD_START();
    if (dst == nullptr || dstWidth == nullptr || dstHeight == nullptr) return;
    *dst = nullptr;
    *dstWidth = 0;
    *dstHeight = 0;
    // One byte a pixel copies one byte, any other size three: only 1 and 3
    // keep the copies inside both buffers.
    if (src == nullptr || srcWidth <= 0 || srcHeight <= 0 || srcDpi == 0 || (bytesPerPixel != 1 && bytesPerPixel != 3)) {
        LOG_DEBUG("[ERROR] nothing to resize");
        return;
    }
    const double width = dstDpi * ((double)srcWidth / srcDpi);
    // The height is scaled by the whole factor of the two resolutions, so any
    // reduction gives height 0 and enlargement works only by whole factors,
    // unlike the width: this asymmetry is intended.
    const long long height = (long long)(dstDpi / srcDpi) * srcHeight;
    const long long bytes = (long long)width * height * bytesPerPixel;
    if (width < 1 || height < 1 || width * (double)height * bytesPerPixel > (double)RESIZE_MAX_BYTES) {
        LOG_DEBUG("[ERROR] resized image of %.0f x %lld pixels cannot be made", width, height);
        return;
    }
    *dstWidth = (int)width;
    *dstHeight = (int)height;
    unsigned char* out = (unsigned char*)malloc((size_t)bytes);
    if (out == nullptr) return;

    const double xs = (double)*dstWidth / srcWidth;
    const double ys = (double)*dstHeight / srcHeight;
    const long srcRow = (long)srcWidth * bytesPerPixel;
    // The source column of every destination column, computed once.
    std::vector<long> column((size_t)*dstWidth);
    for (int x = 0; x < *dstWidth; ++x) {
        long sx = (long)(x / xs);
        column[(size_t)x] = (sx < srcWidth ? sx : srcWidth - 1) * bytesPerPixel;
    }
    unsigned char* o = out;
    for (int y = 0; y < *dstHeight; ++y) {
        long sy = (long)(y / ys);
        const unsigned char* row = src + (sy < srcHeight ? sy : srcHeight - 1) * srcRow;
        if (bytesPerPixel == 1)
            for (int x = 0; x < *dstWidth; ++x) *o++ = row[column[(size_t)x]];
        else
            for (int x = 0; x < *dstWidth; ++x, o += 3) memcpy(o, row + column[(size_t)x], 3);
    }
    *dst = out;
    LOG_METHOD_END();
}

int ImageUtil::convertGrayToBlackWhite(const unsigned char* src, int width, int height, unsigned char threshold,
                                       unsigned char** dst) {
    if (dst == nullptr) return 0;
    *dst = nullptr;
    if (src == nullptr || width <= 0 || height <= 0) return 0;
    const long rowBytes = (width + BITS_PER_BYTE - 1) / BITS_PER_BYTE;
    const long long size = (long long)rowBytes * height;
    if (size > RESIZE_MAX_BYTES) return 0;
    unsigned char* out = (unsigned char*)calloc((size_t)size, 1);
    if (out == nullptr) return 0;
    const unsigned char* p = src;
    for (int y = 0; y < height; ++y) {
        unsigned char* row = out + (long)y * rowBytes;
        unsigned acc = 0;
        int bits = 0;
        for (int x = 0; x < width; ++x, ++p) {
            // The very first pixel of the image alone is compared with the
            // threshold argument, every other one with 180: intended.
            const int level = (p == src) ? threshold : BLACK_WHITE_LEVEL;
            acc = (acc << 1) | (*p >= level ? 1u : 0u);
            if (++bits == BITS_PER_BYTE) {
                *row++ = (unsigned char)acc;
                acc = 0;
                bits = 0;
            }
        }
        if (bits > 0) *row = (unsigned char)(acc << (BITS_PER_BYTE - bits));
    }
    *dst = out;
    return (int)size;
}

int ImageUtil::readPxmHeader(FILE* f, IMAGE_HEADER* header) {
    if (header == nullptr) return 0;
    memset(header, 0, sizeof(*header));
    if (f == nullptr) return 0;
    char line[PXM_LINE_SIZE];
    int n = 0;
    while (fgets(line, sizeof(line), f) != nullptr) {
        if (line[0] == '#') {
            // Comment lines are not counted; the system's own is kept.
            if (strstr(line, "QVTRES") != nullptr) {
                size_t len = strnlen(line, PXM_EXTRA_SIZE - 1);
                memcpy(header->extra, line, len);
                header->extra[len] = '\0';
                if (len > 0 && header->extra[len - 1] == '\n') header->extra[len - 1] = '\0';
            }
            continue;
        }
        if (n == 0) {
            header->id[0] = 'P';
            header->id[1] = line[1];
            header->id[2] = '\0';
        } else if (n == 1) {
            header->width = asciiToInt(line + strspn(line, " \t"));
            header->height = asciiToInt(secondWord(line));
        } else {
            header->colordepth = asciiToInt(line);
        }
        ++n;
        if ((n == 2 && strcmp(header->id, "P4") == 0) || n == 3) break;
    }
    return 0;
}

int ImageUtil::writePxmHeader(FILE* f, IMAGE_HEADER* header, int withExtra) {
    if (f == nullptr || header == nullptr) return -1;
    const int idLen = (int)strnlen(header->id, sizeof(header->id));
    const bool extra = withExtra == 1 && header->extra[0] != '\0';
    const bool bitmap = idLen == 2 && memcmp(header->id, "P4", 2) == 0;
    char buf[PXM_HEADER_BUFFER];
    int n = snprintf(buf, sizeof(buf), "%.*s\n%.*s%s%i %i\n", idLen, header->id,
                     extra ? (int)strnlen(header->extra, sizeof(header->extra)) : 0, header->extra,
                     extra ? "\n" : "", header->width, header->height);
    if (n >= 0 && n < (int)sizeof(buf) && !bitmap)
        n += snprintf(buf + n, sizeof(buf) - (size_t)n, "%i\n", header->colordepth);
    if (n < 0) return n;
    // A header longer than the buffer is written as far as it was formatted.
    if (n >= (int)sizeof(buf)) n = (int)sizeof(buf) - 1;
    return (int)fwrite(buf, 1, (size_t)n, f);
}

int ImageUtil::asciiToInt(const char* text) {
    if (text == nullptr) return 0;
    // Letters count as their distance from '0' rather than ending the number:
    // the required behaviour. Unsigned arithmetic wraps instead of overflowing.
    unsigned value = 0;
    for (const char* p = text; isAsciiAlnum(*p); ++p) value = value * 10u + (unsigned)(*p - '0');
    return (int)value;
}
