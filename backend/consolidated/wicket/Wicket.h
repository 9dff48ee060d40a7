// The Wicket band decoder: quantisation tables, DC predictors and the block
// decoding of one chunk's entropy-coded data into grey or RGB pixels.
#ifndef QUARTO_WICKET_H
#define QUARTO_WICKET_H

#include <cstdint>
#include <memory>

#include "CLogger.h"
#include "Huffman.h"

const int WICKET_OK = 0;
const int WICKET_ERROR_WIDTH = 769;
const int WICKET_ERROR_HEIGHT = 770;
const int WICKET_ERROR_COEF_OVERRUN = 771;
const int WICKET_DEFAULT_QUALITY = 80;
const int WICKET_BLOCK = 8;
const int WICKET_BLOCK_COEFS = 64;
const int WICKET_MAX_PLANES = 3;

// Natural (row-order) position of each zig-zag index.
extern const int WICKET_NATURAL_ORDER[64];

// Pixels a band line is padded to: 8 with byte stuffing, else 16 in colour and
// 48 in grey (three planes or one).
int wicketLineAlign(int byteStuffing, int planes);

// Quality scaling of one base table: the dequantisation entries v in 1..255 and
// the quantisation entries 8v (the forward DCT output is scaled up by 8).
void wicketScaleTable(const int* base, int quality, int* quant, int* dequant);

class Wicket : public CLogger {
public:
    explicit Wicket(int byteStuffing);
    ~Wicket();
    Wicket(const Wicket&) = delete;
    Wicket& operator=(const Wicket&) = delete;

    int QualityFactor(int q);
    int QualityFactor(int qLuminance, int qChrominance);

    // Decode one band whose width and height are already padded. The output must
    // hold width * height * 3 (three planes) or width * height (one plane) bytes.
    // produced: bytes written; used: bits consumed, ((bits + 511) / 512) * 64 for
    // three planes and ((bits + 511) / 64) * 512 for one plane (two different
    // scales, kept as they stand).
    int DecompressThreePlanes(unsigned char* data, int dataLen, unsigned char* out, int width, int height,
                              int* produced, int* used);
    int DecompressOnePlane(unsigned char* data, int dataLen, unsigned char* out, int width, int height,
                           int* produced, int* used);
    // The same with the size of the output checked first: a band that does not
    // fit in outLen bytes is refused with WICKET_ERROR_WIDTH.
    int DecompressThreePlanes(const unsigned char* data, int dataLen, unsigned char* out, long outLen,
                              int width, int height, int* produced, int* used);
    int DecompressOnePlane(const unsigned char* data, int dataLen, unsigned char* out, long outLen, int width,
                           int height, int* produced, int* used);

    // Decodes the next block of the current input (after SetInput on m_Huff and
    // with the plane's DC predictor) into 64 signed samples.
    int DecompressBlock(int* out, int plane);

    // Kernel level used for the inverse DCT and colour conversion; lowered to
    // what the processor runs. Every level gives the same bytes.
    void SetSimdLevel(int level);
    int GetSimdLevel() const { return m_iSimdLevel; }

    int iStatus;
    int aiPreviousDC[WICKET_MAX_PLANES];
    int m_iRGBShiftBits;
    int m_iRoundAdder;
    int m_aiLuminanceQuantTable[64];
    int m_aiChrominanceQuantTable[64];
    int m_aiLuminanceDequantTable[64];
    int m_aiChrominanceDequantTable[64];
    int m_iNumBytesGenerated;
    Huffman m_Huff;
    int m_ByteStuffing;

private:
    struct Scratch;

    int decodeBand(const unsigned char* data, int dataLen, unsigned char* out, long outLen, int width,
                   int height, int planes, int* produced, int* used);
    int decodeCoefficients(int plane, int32_t* coef, unsigned char* kind);
    int decodeGroup(int planes, int mcus, int* done);
    void renderColourGroup(int mcus, unsigned char* out, long rowBytes);
    void renderGreyGroup(int blocks, unsigned char* out, long rowBytes);

    int m_iSimdLevel;
    // Per zig-zag index, luminance and chrominance: dequantisation << 8 | natural position.
    uint32_t m_auZigzag[2][64];
    std::unique_ptr<Scratch> m_pScratch;
};

#endif
