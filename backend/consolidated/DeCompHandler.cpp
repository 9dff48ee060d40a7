#include "DeCompHandler.h"

#include <cstdlib>
#include <cstring>

#include "ConfigReader.h"
#include "DataBuffer.h"
#include "DecompWicket.h"
#include "ImageData.h"
#include "util.h"

namespace {

const int BYTE_STUFFING_ON = 1;
const int BITS_PER_CHANNEL = 8;
const long OUTPUT_EXPANSION = 5;  // output area = (pad + chunk) x lines per band x 5

}  // namespace

DeCompHandler::DeCompHandler() = default;
DeCompHandler::~DeCompHandler() = default;

int DeCompHandler::Initialize(ConfigReader* config) {
    LOG_METHOD_START();
    LOG_DEBUG("DeCompHandler Initialize called");
    if (config == nullptr) {
        LOG_METHOD_END_INT(1);
        return 1;
    }
    CompressionType = config->GetIntOption("COMPRESSIONTECH");
    if (config->GetIntOption("COMPRESSION") == 1) {
        LOG_DEBUG("Compression is on");
        if (CompressionType == COMPRESSION_TECH_WICKET) {
            DeCompressor.reset(new CDecompWicket(BYTE_STUFFING_ON));
            LOG_DEBUG("Type is Wicket4");
        }
    }
    if (!DeCompressor) {
        LOG_METHOD_END_INT(1);
        return 1;
    }
    width = config->GetIntOption("PIXELS_PER_LINE");
    height = config->GetIntOption("LINES");
    channels = config->GetIntOption("COLORDEPTH");
    complevel = config->GetIntOption("COMPRESSIONLEVEL");
    bits_per_channel = BITS_PER_CHANNEL;
    stride = config->GetIntOption("BYTES_PER_LINE");
    LOG_DEBUG("width = %d", width);
    LOG_DEBUG("height = %d", height);
    LOG_DEBUG("channels = %d", channels);
    DeCompressor->SetQualityFactor(complevel);
    DeCompressor->StartDecomp(width, height, channels, bits_per_channel * channels);
    LOG_METHOD_END_INT(1);
    return 1;
}

int DeCompHandler::Decompress(DataBuffer* buffer, ImageData* image) {
    LOG_METHOD_START();
    if (buffer == nullptr) {
        LOG_METHOD_END_INT(0);
        return 0;
    }
    if (!DeCompressor) {
        LOG_DEBUG("Decompression is not needed.");
        buffer->SetProcessedDataSize(buffer->GetRawDataSize());
        LOG_METHOD_END_INT(1);
        return 1;
    }
    if (image != nullptr && image->GetInterleave() != 0) {
        LOG_DEBUG("Data needs interleaving so no decompression needed.");
        buffer->SetProcessedDataSize(buffer->GetRawDataSize());
        LOG_METHOD_END_INT(1);
        return 1;
    }
    int n = buffer->GetRawDataSize();
    unsigned char* raw = buffer->GetRawDataPtr();
    if (n <= 0 || raw == nullptr) {
        LOG_DEBUG("There's nothing to decompress.");
        LOG_METHOD_END_INT(0);
        return 0;
    }
    int chunkLen = n;
    if (CompressionType == COMPRESSION_TECH_WICKET) {
        if (n < WICKET_HEADER_SIZE) {
            LOG_DEBUG("cannot decompress ... not enough data");
            LOG_METHOD_END_INT(0);
            return 0;
        }
        chunkLen = (int)readBE32(raw, n, WICKET_HEADER_SIZE_OFFSET);
    }
    if (chunkLen < 0) {
        LOG_DEBUG("CHUNKSIZE = %d", chunkLen);
        LOG_METHOD_END_INT(0);
        return 0;
    }
    if (chunkLen > n) {
        LOG_DEBUG("cannot decompress ... not enough data");
        LOG_METHOD_END_INT(0);
        return 0;
    }
    // A chunk shorter than its own header can never be decoded and the stream
    // cannot be re-synchronised after it: the raw bytes are dropped rather than
    // waited on forever.
    bool unusable = CompressionType == COMPRESSION_TECH_WICKET && chunkLen < WICKET_HEADER_SIZE;
    if (unusable) {
        LOG_DEBUG("CHUNKSIZE = %d", chunkLen);
        chunkLen = n;
    }

    int pad = DeCompressor->GetNumPadBytesPerLine();
    int lines = DeCompressor->GetMaxLinesPerBand();
    long outSize = ((long)pad + chunkLen) * lines * OUTPUT_EXPANSION;
    std::unique_ptr<unsigned char, FreeDeleter> out;
    if (!unusable) {
        if (outSize > 0 && outSize <= 0x7FFFFFFF) out.reset((unsigned char*)calloc((size_t)outSize, 1));
        if (!out) LOG_DEBUG("malloc failed");
    }

    int consumed = 0, produced = 0;
    if (out) {
        DeCompressor->Decomp(raw, chunkLen, &consumed, out.get(), (int)outSize, &produced);
        LOG_DEBUG("BytesGen = %d", produced);
        LOG_DEBUG("BytesConverted = %d", consumed);
        const unsigned char* o = out.get();
        LOG_DEBUG("%2X %2X %2X %2X %2X %2X %2X %2X %2X %2X", o[0], o[1], o[2], o[3], o[4], o[5], o[6], o[7], o[8],
                  o[9]);
    }

    // Rebuild: processed bytes first, then the decoded lines (each processed at
    // once), then the raw bytes that followed the chunk. The chunk itself is
    // dropped whether or not it decoded. The lines are packed in the output area
    // first (they lie stride + pad apart), then spliced in place of the chunk.
    int lineCount = stride > 0 ? produced / stride : 0;
    long step = (long)stride + pad;
    int packed = 0;
    for (int i = 0; i < lineCount; ++i) {
        if ((long)i * step + stride > outSize) break;
        LOG_DEBUG("LinesPerBand = %d", lineCount - i);
        if (step != stride) memmove(out.get() + (long)i * stride, out.get() + (long)i * step, (size_t)stride);
        ++packed;
    }
    buffer->ReplaceRawData(chunkLen, out.get(), (int)((long)packed * stride));
    if (unusable) {
        LOG_METHOD_END_INT(0);
        return 0;
    }
    LOG_DEBUG("Decompression successful!");
    LOG_METHOD_END_INT(1);
    return 1;
}
