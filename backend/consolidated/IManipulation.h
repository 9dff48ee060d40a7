// One in-place step of the raw-data chain. Perform works on the first size bytes
// at the image's first unprocessed byte (whole lines) and returns 1 when it acted.
#ifndef QUARTO_IMANIPULATION_H
#define QUARTO_IMANIPULATION_H

class ImageData;

class IManipulation {
public:
    virtual ~IManipulation() {}
    virtual int Perform(ImageData* image, int size) = 0;
};

#endif
