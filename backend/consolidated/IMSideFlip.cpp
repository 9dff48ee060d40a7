#include "IMSideFlip.h"

#include <algorithm>

#include "ImageData.h"

IMSideFlip::IMSideFlip() = default;
IMSideFlip::~IMSideFlip() = default;

namespace {

// Reverses the order of the first `pixels` three-byte pixels of a line; the byte
// order inside a pixel stays. Swapping from both ends gives the same bytes as
// going through a reversed copy of the line, without the copy.
inline void reversePixels3(unsigned char* line, long pixels) {
    unsigned char* a = line;
    unsigned char* b = line + (pixels - 1) * 3;
    for (; a < b; a += 3, b -= 3) {
        const unsigned char a0 = a[0], a1 = a[1], a2 = a[2];
        a[0] = b[0];
        a[1] = b[1];
        a[2] = b[2];
        b[0] = a0;
        b[1] = a1;
        b[2] = a2;
    }
}

}  // namespace

int IMSideFlip::Perform(ImageData* image, int size) {
    if (image == nullptr || size < 1 || image->GetSideFlip() != FLIP_ON) return 0;
    unsigned char* data = image->GetRawDataPtr();
    const long stride = image->GetStride();
    if (data == nullptr || stride <= 0) return 0;
    if (size > image->GetRawDataSize()) size = image->GetRawDataSize();

    const int channels = image->GetNumOfChannels();
    if (channels != 1 && channels != 3) return 0;
    // Pixels mirrored per line: the width, but never more than the line holds.
    long pixels = image->GetScanWidth();
    if (pixels * channels > stride) pixels = stride / channels;
    if (pixels < 2) return 1;

    const long lines = size / stride;
    unsigned char* line = data;
    // Only the pixels are mirrored; the padding of a padded line stays at its end: intended.
    if (channels == 1) {
        for (long l = 0; l < lines; ++l, line += stride) std::reverse(line, line + pixels);
    } else {
        for (long l = 0; l < lines; ++l, line += stride) reversePixels3(line, pixels);
    }
    return 1;
}
