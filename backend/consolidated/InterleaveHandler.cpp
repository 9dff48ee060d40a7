#include "InterleaveHandler.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "ImageData.h"

namespace {

// Copies `pixels` pixels of the rebuilt line, from pixel `first` on, to out. Pixel
// k comes from half A when k is even and from half B when odd, at pixel trim + k/2
// of that half. Bytes a half does not hold are written as 0.
void rebuildPixelsChecked(const unsigned char* a, const unsigned char* b, long half, long trim, long first,
                          long pixels, int ch, unsigned char* out) {
    for (long k = first; k < first + pixels; ++k, out += ch) {
        const long off = (trim + (k >> 1)) * ch;
        if (k >= 0 && off >= 0 && off + ch <= half)
            memcpy(out, ((k & 1) ? b : a) + off, (size_t)ch);
        else
            memset(out, 0, (size_t)ch);
    }
}

// The same for an even first pixel whose pairs all lie inside both halves:
// the halves are simply zipped, pixel by pixel.
template <int CH>
void zipPixelPairs(const unsigned char* a, const unsigned char* b, long firstPair, long pairs, int channels,
                   unsigned char* out) {
    const int ch = CH > 0 ? CH : channels;
    const unsigned char* pa = a + firstPair * ch;
    const unsigned char* pb = b + firstPair * ch;
    for (long n = 0; n < pairs; ++n, pa += ch, pb += ch, out += 2 * ch) {
        if (CH == 3) {
            out[0] = pa[0];
            out[1] = pa[1];
            out[2] = pa[2];
            out[3] = pb[0];
            out[4] = pb[1];
            out[5] = pb[2];
        } else if (CH == 1) {
            out[0] = pa[0];
            out[1] = pb[0];
        } else {
            memcpy(out, pa, (size_t)ch);
            memcpy(out + ch, pb, (size_t)ch);
        }
    }
}

void rebuildPixels(const unsigned char* a, const unsigned char* b, long half, long trim, long first, long pixels,
                   int ch, unsigned char* out) {
    const long end = first + pixels;
    // Pixels k in [lo, hi) read inside both halves: k >= 0, trim + k/2 >= 0 and
    // (trim + k/2 + 1) x ch <= half.
    long lo = std::max(first, std::max(0L, -2 * trim));
    if (lo & 1) ++lo;
    long hi = std::min(end, 2 * (half / ch - trim));
    if (hi < lo) hi = lo = std::min(lo, end);
    const long pairs = (hi - lo) / 2;
    hi = lo + 2 * pairs;

    rebuildPixelsChecked(a, b, half, trim, first, lo - first, ch, out);
    unsigned char* mid = out + (lo - first) * ch;
    if (ch == 3)
        zipPixelPairs<3>(a, b, trim + lo / 2, pairs, ch, mid);
    else if (ch == 1)
        zipPixelPairs<1>(a, b, trim + lo / 2, pairs, ch, mid);
    else
        zipPixelPairs<0>(a, b, trim + lo / 2, pairs, ch, mid);
    rebuildPixelsChecked(a, b, half, trim, hi, end - hi, ch, out + (hi - first) * ch);
}

}  // namespace

InterleaveHandler::InterleaveHandler() = default;
InterleaveHandler::~InterleaveHandler() = default;

int InterleaveHandler::InterleavedLineSize(const ImageData* image) {
    const long n = (long)image->GetInterleaveWidth() * image->GetNumOfChannels();
    return (n > 0 && n <= INT_MAX) ? (int)n : 0;
}

void InterleaveHandler::LogGeometry(const ImageData* image) {
    LOG_DEBUG("fullWidth = %d", image->GetInterleaveWidth());
    LOG_DEBUG("channel = %d", image->GetNumOfChannels());
    LOG_DEBUG("croppedWidth = %d", image->GetStride());
    LOG_DEBUG("horizontalOffset = %d", image->GetInterleaveOffsetX());
    LOG_DEBUG("trimmedPixel = %d", image->GetInterleaveTrim());
}

int InterleaveHandler::DoInterleave(DataBuffer* source, ImageData* image) {
    if (source == nullptr || image == nullptr) return -1;
    if (image->GetInterleave() == 0) {
        source->GetProcessedData(image, source->GetProcessedDataSize());
        return 0;
    }
    const int n = InterleavedLineSize(image);
    if (n == 0 || source->GetProcessedDataSize() < n) return -1;

    // All whole lines leave the source in one move, so the rest of the source is
    // shifted once per call rather than once per line.
    const int lines = source->GetProcessedDataSize() / n;
    const int bytes = lines * n;
    if ((int)vInLines.size() < bytes) vInLines.resize((size_t)bytes);
    source->GetProcessedData(vInLines.data(), bytes);
    LogGeometry(image);
    for (int l = 0; l < lines; ++l) RebuildLine(vInLines.data() + (long)l * n, n, image);
    return 1;
}

void InterleaveHandler::InterleaveLine(DataBuffer* source, ImageData* image) {
    LOG_METHOD_START();
    if (source == nullptr || image == nullptr) return;
    LogGeometry(image);
    const int n = InterleavedLineSize(image);
    if (n == 0 || source->GetProcessedDataSize() < n) return;
    if ((int)vInLines.size() < n) vInLines.resize((size_t)n);
    source->GetProcessedData(vInLines.data(), n);
    RebuildLine(vInLines.data(), n, image);
    LOG_METHOD_END();
}

void InterleaveHandler::RebuildLine(const unsigned char* line, int lineSize, ImageData* image) {
    const int stride = image->GetStride();
    const int ch = image->GetNumOfChannels();
    if (stride <= 0 || ch <= 0) return;
    if ((int)vOutLine.size() < stride) vOutLine.resize((size_t)stride);

    const long half = lineSize / 2;
    const unsigned char* a = line;
    const unsigned char* b = line + half;
    const long trim = image->GetInterleaveTrim();
    const long first = image->GetInterleaveOffsetX();
    const long whole = stride / ch;
    unsigned char* out = vOutLine.data();
    rebuildPixels(a, b, half, trim, first, whole, ch, out);

    // A line length that is not a whole number of pixels ends in part of one more pixel.
    const int rest = stride - (int)(whole * ch);
    if (rest > 0) {
        unsigned char pixel[16] = {0};
        if (ch <= (int)sizeof(pixel)) {
            rebuildPixelsChecked(a, b, half, trim, first + whole, 1, ch, pixel);
            memcpy(out + whole * ch, pixel, (size_t)rest);
        } else {
            memset(out + whole * ch, 0, (size_t)rest);
        }
    }
    image->SetRawData(vOutLine.data(), stride);
}
