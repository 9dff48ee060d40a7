// Decompression stage of the read loop: replaces one compressed chunk at the
// raw end of the session's buffer by the decoded image lines.
#ifndef QUARTO_DECOMPHANDLER_H
#define QUARTO_DECOMPHANDLER_H

#include <memory>

#include "CLogger.h"

class CDecomp;
class ConfigReader;
class DataBuffer;
class ImageData;

const int COMPRESSION_TECH_WICKET = 2;

class DeCompHandler : public CLogger {
public:
    DeCompHandler();
    ~DeCompHandler();
    DeCompHandler(const DeCompHandler&) = delete;
    DeCompHandler& operator=(const DeCompHandler&) = delete;

    int Initialize(ConfigReader* config);
    // 1 when the buffer is ready for the next stage, 0 when nothing could be done yet.
    int Decompress(DataBuffer* buffer, ImageData* image);

private:
    std::unique_ptr<CDecomp> DeCompressor;
    int CompressionType = 0;
    int width = 0;
    int height = 0;
    int channels = 0;
    int complevel = 0;
    int bits_per_channel = 0;
    int stride = 0;
};

#endif
