// Exchanges blue and red in every three-byte group of BGR lines.
#ifndef QUARTO_IMBGRTORGB_H
#define QUARTO_IMBGRTORGB_H

#include "CLogger.h"
#include "IManipulation.h"

class IMBGRtoRGB : public IManipulation, public CLogger {
public:
    IMBGRtoRGB();
    ~IMBGRtoRGB() override;
    int Perform(ImageData* image, int size) override;
};

#endif
