/* Test colour-correction library. ScanCorrect replaces each pixel byte of each
 * line by lut[byte]; the padding after the pixels of a line is left alone.
 * Returns 0, or an error number: 1 for a table shorter than 256 bytes, 2 for
 * inconsistent geometry. */
#include <stddef.h>

#define SCANCORRECT_TABLE_SIZE 256
#define SCANCORRECT_ERR_TABLE 1
#define SCANCORRECT_ERR_GEOMETRY 2

int ScanCorrect(unsigned char* data, int pixelsPerLine, int lines, int bytesPerLine, int isColor,
                unsigned char* lut, int lutLen) {
    long lineBytes = (long)pixelsPerLine * (isColor ? 3 : 1);
    if (lut == NULL || lutLen < SCANCORRECT_TABLE_SIZE) return SCANCORRECT_ERR_TABLE;
    if (data == NULL || lines < 0 || bytesPerLine <= 0 || pixelsPerLine < 0 || lineBytes > bytesPerLine)
        return SCANCORRECT_ERR_GEOMETRY;
    for (long l = 0; l < lines; ++l) {
        unsigned char* p = data + l * bytesPerLine;
        for (long i = 0; i < lineBytes; ++i) p[i] = lut[p[i]];
    }
    return 0;
}
