// Mirrors lines left to right; the padding at the end of a line stays in place.
#ifndef QUARTO_IMSIDEFLIP_H
#define QUARTO_IMSIDEFLIP_H

#include "CLogger.h"
#include "IManipulation.h"

class IMSideFlip : public IManipulation, public CLogger {
public:
    IMSideFlip();
    ~IMSideFlip() override;
    int Perform(ImageData* image, int size) override;
};

#endif
