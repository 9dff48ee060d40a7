#include "DecompWicket.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <vector>

#include "util.h"

namespace {

const char DUMP_DIRECTORY[] = "/tmp/";

long roundUp(long v, long m) { return (v + m - 1) / m * m; }

}  // namespace

CDecompWicket::CDecompWicket(int byteStuffing)
    : m_pWicket(new Wicket(byteStuffing)), m_ByteStuffing(byteStuffing) {}

CDecompWicket::~CDecompWicket() = default;

int CDecompWicket::StartDecomp(int width, int height, int channels, int bitsPerPixel) {
    LOG_METHOD_START();
    m_Width = width;
    m_Height = height;
    // The stage passes the colour depth code as the channel count: only 1 is one
    // plane (grey); every other code is colour at three bytes a pixel.
    m_NumChannels = channels == 1 ? 1 : 3;
    m_BytesPerChannel = (channels > 0 && bitsPerPixel >= 8 * channels) ? bitsPerPixel / (8 * channels) : 1;
    m_InputIndex = 0;
    // Padding to the decoder's line alignment; without stuffing this equals
    // 48 - (width * channels mod 48) bytes for one or three channels.
    long align = wicketLineAlign(m_ByteStuffing, m_NumChannels);
    m_iNumPadBytesPerLine = width > 0 ? int((roundUp(width, align) - width) * m_NumChannels) : 0;
    LOG_DEBUG("width = %d, height = %d, channels = %d, pad bytes per line = %d", m_Width, m_Height, m_NumChannels,
              m_iNumPadBytesPerLine);
    LOG_METHOD_END_INT(DECOMP_DONE);
    return DECOMP_DONE;
}

int CDecompWicket::EndDecomp() {
    m_InputIndex = 0;
    return DECOMP_DONE;
}

int CDecompWicket::SetQualityFactor(int quality) {
    m_iQualityFactor = quality;  // stored only: every chunk carries its own
    return DECOMP_DONE;
}

int CDecompWicket::Decomp(unsigned char* in, int inLen, int* consumed, unsigned char* out, int outLen,
                          int* produced) {
    LOG_METHOD_START();
    if (in == nullptr || consumed == nullptr || out == nullptr || produced == nullptr) {
        LOG_DEBUG("Null pointer passed!");
        if (consumed) *consumed = 0;
        if (produced) *produced = 0;
        LOG_METHOD_END_INT(DECOMP_ERROR);
        return DECOMP_ERROR;
    }
    *consumed = 0;
    *produced = 0;
    if (inLen < WICKET_HEADER_SIZE) {
        LOG_DEBUG("%d bytes cannot hold a chunk header", inLen);
        LOG_METHOD_END_INT(HUFF_ERROR_DATA_EXHAUSTED);
        return HUFF_ERROR_DATA_EXHAUSTED;
    }
    if (m_InputIndex < 0 || m_InputIndex >= inLen) m_InputIndex %= inLen;
    if (m_InputIndex < 0) m_InputIndex += inLen;

    // The header, assembled across the end of the ring when it wraps.
    unsigned char header[WICKET_HEADER_SIZE];
    int tail = inLen - m_InputIndex;
    if (tail >= WICKET_HEADER_SIZE) {
        memcpy(header, in + m_InputIndex, WICKET_HEADER_SIZE);
    } else {
        memcpy(header, in + m_InputIndex, tail);
        memcpy(header + tail, in, WICKET_HEADER_SIZE - tail);
    }
    uint32_t size = readBE32(header, WICKET_HEADER_SIZE, WICKET_HEADER_SIZE_OFFSET);
    uint32_t height = readBE32(header, WICKET_HEADER_SIZE, WICKET_HEADER_HEIGHT_OFFSET);
    uint32_t width = readBE32(header, WICKET_HEADER_SIZE, WICKET_HEADER_WIDTH_OFFSET);
    uint32_t quality = readBE32(header, WICKET_HEADER_SIZE, WICKET_HEADER_QUALITY_OFFSET);
    LOG_DEBUG("chunk at %d: size = %u, height = %u, width = %u, quality = %u", m_InputIndex, size, height, width,
              quality);
    if (size < (uint32_t)WICKET_HEADER_SIZE) {
        LOG_DEBUG("chunk size %u is smaller than its header", size);
        LOG_METHOD_END_INT(DECOMP_ERROR);
        return DECOMP_ERROR;
    }
    if (size > (uint32_t)inLen) {
        LOG_DEBUG("chunk size %u exceeds the %d bytes held", size, inLen);
        LOG_METHOD_END_INT(HUFF_ERROR_DATA_EXHAUSTED);
        return HUFF_ERROR_DATA_EXHAUSTED;
    }

    // The chunk in place, or copied out of the ring when it wraps.
    std::vector<unsigned char> wrapped;
    const unsigned char* chunk = in + m_InputIndex;
    if (size > (uint32_t)tail) {
        wrapped.resize(size);
        memcpy(wrapped.data(), in + m_InputIndex, tail);
        memcpy(wrapped.data() + tail, in, size - tail);
        chunk = wrapped.data();
    }

    // Quality factors above INT_MAX read as negative, which scales like 0.
    m_pWicket->QualityFactor(int(quality));
    int rc = 0;
    if (width > 0 && height > 0) {
        if (width > (uint32_t)INT_MAX || height > (uint32_t)INT_MAX - WICKET_BLOCK) {
            LOG_DEBUG("chunk geometry %u x %u out of range", width, height);
            rc = WICKET_ERROR_WIDTH;
        } else {
            long paddedHeight = roundUp(height, WICKET_BLOCK);
            long paddedWidth = roundUp(width, wicketLineAlign(m_ByteStuffing, m_NumChannels));
            long rowBytes = paddedWidth * m_NumChannels;
            if (paddedWidth > INT_MAX || paddedHeight > outLen / rowBytes) {
                LOG_DEBUG("band of %ld x %ld does not fit in %d output bytes", paddedWidth, paddedHeight, outLen);
                rc = WICKET_ERROR_WIDTH;
            } else {
                long bandBytes = rowBytes * paddedHeight;
                int bandProduced = 0, used = 0;
                const unsigned char* data = chunk + WICKET_HEADER_SIZE;
                int dataLen = int(size) - WICKET_HEADER_SIZE;
                if (m_NumChannels == 1)
                    rc = m_pWicket->DecompressOnePlane(data, dataLen, out, outLen, int(paddedWidth),
                                                       int(paddedHeight), &bandProduced, &used);
                else
                    rc = m_pWicket->DecompressThreePlanes(data, dataLen, out, outLen, int(paddedWidth),
                                                          int(paddedHeight), &bandProduced, &used);
                // Rows the decoder did not reach read as zero, never as stale bytes.
                if (bandProduced < bandBytes) memset(out + bandProduced, 0, size_t(bandBytes - bandProduced));
                long bytes = long(m_Width > 0 ? m_Width : 0) * m_NumChannels * long(height);
                if (bytes > outLen) bytes = outLen;
                *produced = int(bytes);
            }
        }
    }
    *consumed = int(size);
    m_InputIndex += int(size);
    if (m_InputIndex >= inLen) m_InputIndex -= inLen;

    int result = rc;
    if (rc == WICKET_OK)
        result = DECOMP_LINE_COMPLETED;
    else if (rc == WICKET_ERROR_WIDTH || rc == WICKET_ERROR_HEIGHT || rc == WICKET_ERROR_COEF_OVERRUN)
        result = DECOMP_ERROR;
    if (rc != WICKET_OK) LOG_DEBUG("Wicket Error : %d", rc);
    LOG_METHOD_END_INT(result);
    return result;
}

int CDecompWicket::DumpCompressedData(const unsigned char* data, int dataLen, int index) {
    LOG_METHOD_START();
    if (data == nullptr || dataLen < WICKET_HEADER_SIZE) {
        LOG_METHOD_END_INT(-1);
        return -1;
    }
    uint32_t size = readBE32(data, dataLen, WICKET_HEADER_SIZE_OFFSET);
    if (size > (uint32_t)dataLen) size = (uint32_t)dataLen;
    char name[64];
    snprintf(name, sizeof(name), "%sdump%02d.dat", DUMP_DIRECTORY, index);
    int fd = open(name, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        LOG_DEBUG("cannot open %s", name);
        LOG_METHOD_END_INT(-1);
        return -1;
    }
    int rc = writeDataToFile(fd, data, size);
    close(fd);
    LOG_METHOD_END_INT(rc);
    return rc;
}
