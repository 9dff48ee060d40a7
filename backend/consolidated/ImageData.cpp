#include "ImageData.h"

#include "ConfigReader.h"

ImageData::ImageData() = default;
ImageData::~ImageData() = default;

int ImageData::SetAttributes(ConfigReader* config, int source) {
    LOG_METHOD_START();
    if (config == nullptr) return 1;
    int width = config->GetIntOption("PIXELS_PER_LINE");
    int lines = config->GetIntOption("LINES");
    int stride = config->GetIntOption("BYTES_PER_LINE");

    TripletTypeEnum triplet = GRAY;
    // Compared with 3, not with the store's colour code 2: kept as it stands.
    if (config->GetIntOption("COLORDEPTH") == 3) {
        triplet = RGB;
        if (config->GetIntOption("BGRTORGB") != 0) triplet = BGR;
    }

    FlipEnum flip = FLIP_OFF;
    if (source != 0) {
        if (config->GetIntOption("ADFSIDEFLIP") != 0) flip = FLIP_ON;
    } else if (config->GetIntOption("FLATBEDSIDEFLIP") != 0) {
        flip = FLIP_ON;
    }

    CompressionModeEnum compression =
        config->GetIntOption("COMPRESSION") != 0 ? COMPRESSION_ON : COMPRESSION_OFF_RAW;
    int level = config->GetIntOption("COMPRESSIONLEVEL");
    SetAttributes(width, lines, stride, triplet, flip, compression, level);
    LOG_METHOD_END_INT(1);
    return 1;
}

int ImageData::SetAttributes(int width, int lines, int stride, TripletTypeEnum triplet, FlipEnum flip,
                             CompressionModeEnum compression, int level) {
    iScanWidth = width;
    iScanHeight = lines;
    iStride = stride;
    iTripletType = triplet;
    iSideFlip = flip;
    iCompressionMode = compression;
    iCompressionLevel = level;
    iNumOfChannels = (triplet == GRAY) ? 1 : 3;
    iTotalSize = 0;
    iProcessedDataSize = 0;
    iWholeImageSize = (long)stride * (long)lines;
    iInterleave = 0;
    iInterleaveWidth = 0;
    iInterleaveHeight = 0;
    iInterleaveOffsetX = 0;
    iInterleaveOffsetY = 0;
    iInterleaveTrim = 0;
    return 1;
}

void ImageData::SetInterleaveInfo(int width, int height, int offsetX, int offsetY, int trim) {
    iInterleave = 1;
    iInterleaveWidth = width;
    iInterleaveHeight = height;
    iInterleaveOffsetX = offsetX;
    iInterleaveOffsetY = offsetY;
    iInterleaveTrim = trim;
}
