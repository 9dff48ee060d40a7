// Decompressor for a Wicket stream: one chunk (16-byte big-endian header, then
// the entropy-coded band) per call, read from a ring buffer.
#ifndef QUARTO_DECOMPWICKET_H
#define QUARTO_DECOMPWICKET_H

#include <memory>

#include "CLogger.h"
#include "Decomp.h"
#include "Wicket.h"

// Chunk header: four 32-bit big-endian fields.
const int WICKET_HEADER_SIZE = 16;
const int WICKET_HEADER_SIZE_OFFSET = 0;
const int WICKET_HEADER_HEIGHT_OFFSET = 4;
const int WICKET_HEADER_WIDTH_OFFSET = 8;
const int WICKET_HEADER_QUALITY_OFFSET = 12;
const int WICKET_LINES_PER_BAND = 32;

class CDecompWicket : public CDecomp, public CLogger {
public:
    explicit CDecompWicket(int byteStuffing);
    ~CDecompWicket() override;

    int StartDecomp(int width, int height, int channels, int bitsPerPixel) override;
    int EndDecomp() override;
    int Decomp(unsigned char* in, int inLen, int* consumed, unsigned char* out, int outLen,
               int* produced) override;
    int SetQualityFactor(int quality) override;
    int GetMaxLinesPerBand() override { return WICKET_LINES_PER_BAND; }

    // Diagnostic: writes the chunk at data (its size from its header, at most
    // dataLen bytes) to "/tmp/dumpNN.dat".
    int DumpCompressedData(const unsigned char* data, int dataLen, int index);

    Wicket* GetWicket() { return m_pWicket.get(); }
    int GetInputIndex() const { return m_InputIndex; }

private:
    std::unique_ptr<Wicket> m_pWicket;
    int m_Height = 0;
    int m_Width = 0;
    int m_NumChannels = 0;
    int m_BytesPerChannel = 0;
    int m_InputIndex = 0;
    int m_iQualityFactor = 0;
    int m_ByteStuffing = 0;
};

#endif
