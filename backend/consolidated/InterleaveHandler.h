// Rebuilds lines that the device sends as two interleaved half-lines (even
// pixels first, odd pixels second) and crops them to the image's line length.
#ifndef QUARTO_INTERLEAVEHANDLER_H
#define QUARTO_INTERLEAVEHANDLER_H

#include <vector>

#include "CLogger.h"

class DataBuffer;
class ImageData;

class InterleaveHandler : public CLogger {
public:
    InterleaveHandler();
    ~InterleaveHandler();

    // 0: not interleaved, all processed bytes moved as they are; -1: less than one
    // interleaved line processed in source, nothing moved; 1: whole lines rebuilt.
    int DoInterleave(DataBuffer* source, ImageData* image);
    // Takes one interleaved line from source and appends the rebuilt line to image.
    void InterleaveLine(DataBuffer* source, ImageData* image);

private:
    // Bytes in one interleaved line of the image, 0 when the geometry is unusable.
    static int InterleavedLineSize(const ImageData* image);
    void LogGeometry(const ImageData* image);
    // Rebuilds one line from `line` (lineSize bytes) into vOutLine and appends it.
    void RebuildLine(const unsigned char* line, int lineSize, ImageData* image);

    std::vector<unsigned char> vInLines;  // interleaved lines taken from the source
    std::vector<unsigned char> vOutLine;  // one rebuilt, cropped line
};

#endif
