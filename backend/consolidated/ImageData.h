// A DataBuffer that also knows the geometry and format of the scan in it.
#ifndef QUARTO_IMAGEDATA_H
#define QUARTO_IMAGEDATA_H

#include "DataBuffer.h"

class ConfigReader;

enum TripletTypeEnum { BGR = 0, RGB = 1, GRAY = 2, UNKNOWN = 3 };
enum FlipEnum { FLIP_OFF = 0, FLIP_ON = 1 };
enum CompressionModeEnum { COMPRESSION_OFF_RAW = 0, COMPRESSION_ON = 1, COMPRESSION_OFF_JPEG = 2 };

class ImageData : public DataBuffer {
public:
    ImageData();
    ~ImageData() override;

    int SetRawData(const unsigned char* data, int n) { return DataBuffer::SetRawData(data, n); }

    int SetAttributes(ConfigReader* config, int source);
    int SetAttributes(int width, int lines, int stride, TripletTypeEnum triplet, FlipEnum flip,
                      CompressionModeEnum compression, int level);
    void SetInterleaveInfo(int width, int height, int offsetX, int offsetY, int trim);

    int GetScanWidth() const { return iScanWidth; }
    int GetScanHeight() const { return iScanHeight; }
    long GetWholeImageSize() const { return iWholeImageSize; }
    int GetNumOfChannels() const { return iNumOfChannels; }
    int GetStride() const { return iStride; }
    TripletTypeEnum GetTripletType() const { return iTripletType; }
    FlipEnum GetSideFlip() const { return iSideFlip; }
    CompressionModeEnum GetCompressionMode() const { return iCompressionMode; }
    int GetCompressionLevel() const { return iCompressionLevel; }
    int GetInterleave() const { return iInterleave; }
    int GetInterleaveWidth() const { return iInterleaveWidth; }
    int GetInterleaveHeight() const { return iInterleaveHeight; }
    int GetInterleaveOffsetX() const { return iInterleaveOffsetX; }
    int GetInterleaveOffsetY() const { return iInterleaveOffsetY; }
    int GetInterleaveTrim() const { return iInterleaveTrim; }

private:
    long iWholeImageSize = 0;
    int iScanWidth = 0;
    int iScanHeight = 0;
    int iNumOfChannels = 0;
    int iStride = 0;
    TripletTypeEnum iTripletType = UNKNOWN;
    FlipEnum iSideFlip = FLIP_OFF;
    CompressionModeEnum iCompressionMode = COMPRESSION_OFF_RAW;
    int iCompressionLevel = 0;
    int iInterleave = 0;
    int iInterleaveWidth = 0;
    int iInterleaveHeight = 0;
    int iInterleaveOffsetX = 0;
    int iInterleaveOffsetY = 0;
    int iInterleaveTrim = 0;
};

#endif
