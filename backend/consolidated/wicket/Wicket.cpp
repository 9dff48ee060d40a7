#include "Wicket.h"

#include <climits>
#include <cstring>

#include "WicketKernels.h"
#include "WrapInt.h"
#include "jidctint.h"

const int WICKET_NATURAL_ORDER[64] = {
    0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,  12, 19, 26, 33, 40, 48,
    41, 34, 27, 20, 13, 6,  7,  14, 21, 28, 35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23,
    30, 37, 44, 51, 58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

namespace {

const int GROUP_MCUS = 16;  // MCUs decoded before their pixels are produced
const int GROUP_WIDTH = GROUP_MCUS * WICKET_BLOCK;
const unsigned char EOB_SYMBOL = 0x00;
const unsigned char ZRL_SYMBOL = 0xF0;
const int ZRL_RUN = 16;
const int ALIGN_STUFFED = 8;
const int ALIGN_THREE_PLANES = 16;
const int ALIGN_ONE_PLANE = 48;

// How a decoded block is turned into samples.
enum BlockKind : unsigned char {
    KIND_DC_ONLY = 0,  // every AC coefficient zero: all 64 samples equal
    KIND_FULL = 1,     // coefficients within the vector kernels' range
    KIND_WIDE = 2,     // bit set when some coefficient is outside it: scalar transform
};

// The range check word of a block: bit 11 when the DC coefficient is outside
// the kernels' range; each AC coefficient c adds c + 1024 + 2^31, which sets
// bit 31 when c is in range and some bit from 11 to 30 when it is not (AC
// coefficients stay within 2^18 in magnitude).
const uint32_t RANGE_DC_WIDE = 1u << 11;
const uint32_t RANGE_AC_BIAS = 0x80000000u + WICKET_KERNEL_COEF_LIMIT;
const uint32_t RANGE_ANY_AC = 0x80000000u;
const uint32_t RANGE_WIDE_BITS = 0x7FFFF800u;

inline uint32_t dcRangeCheck(int32_t dc) {
    return uint32_t(dc) + WICKET_KERNEL_COEF_LIMIT >= 2u * WICKET_KERNEL_COEF_LIMIT ? RANGE_DC_WIDE : 0u;
}

inline unsigned char blockKind(uint32_t rangeCheck) {
    unsigned anyAC = (rangeCheck & RANGE_ANY_AC) != 0, wide = (rangeCheck & RANGE_WIDE_BITS) != 0;
    return (unsigned char)(anyAC | wide << 1);
}

// The value jpeg_idct gives at every position of a block whose only non-zero
// coefficient is the DC one.
inline int32_t dcOnlySample(int32_t dc) {
    int32_t pass1 = descale(wshl(dc, IDCT_CONST_BITS), IDCT_CONST_BITS - IDCT_PASS1_BITS);
    return descale(wshl(pass1, IDCT_CONST_BITS), IDCT_CONST_BITS + IDCT_PASS1_BITS + 3);
}

inline unsigned char clampByte(int32_t v) { return (unsigned char)(v < 0 ? 0 : v > 255 ? 255 : v); }

const int AC_BLOCK_DONE = -1;
const int ZIGZAG_DEQUANT_SHIFT = 8;
const uint32_t ZIGZAG_POSITION_MASK = 0xFF;

// One AC symbol of the fast path: 0 to go on, AC_BLOCK_DONE when the block is
// complete, or an error code. Needs 26 bits in the accumulator.
inline int acStep(HuffBitState& s, const uint16_t* acLookup, const uint32_t* zigzag, int32_t* coef, int& k,
                  uint32_t& rangeCheck) {
    unsigned entry = acLookup[s.uAccumulator >> 48];
    if (entry == 0) return HUFF_ERROR_NO_CODE;
    s.uAccumulator <<= (entry & 0x1F);
    s.iBits -= int(entry & 0x1F);
    unsigned rs = entry >> 8;
    int size = int(rs & 0x0F);
    k += int(rs >> 4);
    if (size != 0) {
        int v = huffTakeValue(s.uAccumulator, size);
        s.iBits -= size;
        if (k > 63) return WICKET_ERROR_COEF_OVERRUN;
        uint32_t z = zigzag[k];
        int32_t c = v * int32_t(z >> ZIGZAG_DEQUANT_SHIFT);
        coef[z & ZIGZAG_POSITION_MASK] = c;
        rangeCheck |= uint32_t(c) + RANGE_AC_BIAS;
        return ++k == 64 ? AC_BLOCK_DONE : 0;
    }
    if (rs != ZRL_SYMBOL) return AC_BLOCK_DONE;  // end of block
    ++k;  // the run of 15 was added above: 16 zeros in all
    if (k > 64) return WICKET_ERROR_COEF_OVERRUN;
    return k == 64 ? AC_BLOCK_DONE : 0;
}

// Decodes one block on the fast path. The caller guarantees HUFF_FAST_MARGIN
// bytes of input after s.pNext, more than one block can consume, so the refill
// never looks past the end and the data cannot run out inside the block. A
// refill leaves at least 56 bits: enough for the DC symbol and its value (27)
// and one AC symbol, or for two AC symbols with their values (2 x 26), so the
// refills come at fixed places instead of behind a data-dependent branch.
// Same results as Wicket::decodeCoefficients, which checks every step.
template <bool STUFFED>
inline int decodeBlockFast(HuffBitState& s, const HuffCodec& hc, const uint16_t* acLookup,
                           const uint32_t* zigzag, int& predictor, int32_t* coef, unsigned char* kind) {
    huffRefillFast<STUFFED>(s);
    int len = 0;
    int category = hc.DecodeDC(unsigned(s.uAccumulator >> 48), &len);
    if (category < 0) return HUFF_ERROR_NO_CODE;
    s.uAccumulator <<= len;
    s.iBits -= len + category;
    predictor = wadd(predictor, huffTakeValue(s.uAccumulator, category));
    int32_t dc = wmul(predictor, int32_t(zigzag[0] >> ZIGZAG_DEQUANT_SHIFT));
    coef[0] = dc;
    uint32_t rangeCheck = dcRangeCheck(dc);

    int k = 1;
    int rc = acStep(s, acLookup, zigzag, coef, k, rangeCheck);
    while (rc == 0) {
        huffRefillFast<STUFFED>(s);
        rc = acStep(s, acLookup, zigzag, coef, k, rangeCheck);
        if (rc != 0) break;
        rc = acStep(s, acLookup, zigzag, coef, k, rangeCheck);
    }
    if (rc != AC_BLOCK_DONE) return rc;
    *kind = blockKind(rangeCheck);
    return 0;
}

}  // namespace

struct Wicket::Scratch {
    alignas(32) int32_t coef[GROUP_MCUS][WICKET_MAX_PLANES][WICKET_BLOCK_COEFS];
    alignas(32) int16_t samples[WICKET_MAX_PLANES][WICKET_BLOCK][GROUP_WIDTH];
    unsigned char kind[GROUP_MCUS][WICKET_MAX_PLANES];
};

int wicketLineAlign(int byteStuffing, int planes) {
    return byteStuffing ? ALIGN_STUFFED : planes == 3 ? ALIGN_THREE_PLANES : ALIGN_ONE_PLANE;
}

void wicketScaleTable(const int* base, int quality, int* quant, int* dequant) {
    long scale;
    if (quality <= 0)
        scale = 10000;
    else if (quality < 50)
        scale = 5000 / quality;
    else
        scale = 200 - 2L * quality;
    for (int i = 0; i < 64; ++i) {
        long v = (base[i] * scale + 50) / 100;
        if (v < 1) v = 1;
        if (v > 255) v = 255;
        dequant[i] = int(v);
        quant[i] = int(v) * 8;
    }
}

Wicket::Wicket(int byteStuffing)
    : iStatus(0),
      aiPreviousDC{0, 0, 0},
      m_iRGBShiftBits(WICKET_RGB_SHIFT_BITS),
      m_iRoundAdder(WICKET_ROUND_ADDER),
      m_iNumBytesGenerated(0),
      m_ByteStuffing(byteStuffing),
      m_iSimdLevel(wicketBestSimdLevel()),
      m_pScratch(new Scratch()) {
    iStatus = m_Huff.Init();
    if (iStatus != 0) LOG_DEBUG("Huffman table construction failed: %d", iStatus);
    QualityFactor(WICKET_DEFAULT_QUALITY);
    m_Huff.iStuffedData = byteStuffing;
}

Wicket::~Wicket() = default;

int Wicket::QualityFactor(int q) { return QualityFactor(q, q); }

int Wicket::QualityFactor(int qLuminance, int qChrominance) {
    wicketScaleTable(ANNEXK_LUMINANCE_QUANT, qLuminance, m_aiLuminanceQuantTable, m_aiLuminanceDequantTable);
    wicketScaleTable(ANNEXK_CHROMINANCE_QUANT, qChrominance, m_aiChrominanceQuantTable,
                     m_aiChrominanceDequantTable);
    for (int k = 0; k < 64; ++k) {
        unsigned n = unsigned(WICKET_NATURAL_ORDER[k]);
        m_auZigzag[0][k] = uint32_t(m_aiLuminanceDequantTable[n]) << ZIGZAG_DEQUANT_SHIFT | n;
        m_auZigzag[1][k] = uint32_t(m_aiChrominanceDequantTable[n]) << ZIGZAG_DEQUANT_SHIFT | n;
    }
    return 0;
}

void Wicket::SetSimdLevel(int level) {
    if (level < WICKET_SIMD_SCALAR) level = WICKET_SIMD_SCALAR;
    m_iSimdLevel = wicketKernels(level).iLevel;
}

// The output size a caller of the unchecked forms sized from the same width and
// height; 0 when that size cannot exist, so that the band is refused.
static long impliedOutputSize(int width, int height, int planes) {
    if (width <= 0 || height <= 0 || long(height) > INT_MAX / (long(width) * planes)) return 0;
    return long(width) * height * planes;
}

int Wicket::DecompressThreePlanes(unsigned char* data, int dataLen, unsigned char* out, int width, int height,
                                  int* produced, int* used) {
    return decodeBand(data, dataLen, out, impliedOutputSize(width, height, 3), width, height, 3, produced, used);
}

int Wicket::DecompressOnePlane(unsigned char* data, int dataLen, unsigned char* out, int width, int height,
                               int* produced, int* used) {
    return decodeBand(data, dataLen, out, impliedOutputSize(width, height, 1), width, height, 1, produced, used);
}

int Wicket::DecompressThreePlanes(const unsigned char* data, int dataLen, unsigned char* out, long outLen,
                                  int width, int height, int* produced, int* used) {
    return decodeBand(data, dataLen, out, outLen, width, height, 3, produced, used);
}

int Wicket::DecompressOnePlane(const unsigned char* data, int dataLen, unsigned char* out, long outLen,
                               int width, int height, int* produced, int* used) {
    return decodeBand(data, dataLen, out, outLen, width, height, 1, produced, used);
}

int Wicket::DecompressBlock(int* out, int plane) {
    if (out == nullptr || plane < 0 || plane >= WICKET_MAX_PLANES) return WICKET_ERROR_COEF_OVERRUN;
    if (iStatus != 0) return iStatus;
    int32_t coef[WICKET_BLOCK_COEFS] = {};
    unsigned char kind;
    int rc = decodeCoefficients(plane, coef, &kind);
    if (rc != 0) return rc;
    jpeg_idct(reinterpret_cast<const int*>(coef), out);
    return 0;
}

// Decodes one block's coefficients through the checked reader of m_Huff: the
// DC difference added to the plane's predictor, then the AC symbols in zig-zag
// order, all dequantised into coef (which must be zero on entry).
int Wicket::decodeCoefficients(int plane, int32_t* coef, unsigned char* kind) {
    const HuffCodec& codec = m_Huff.Codec(plane);
    const uint32_t* zigzag = m_auZigzag[plane == 0 ? 0 : 1];
    int diff;
    int rc = m_Huff.DecodeDC(codec, &diff);
    if (rc != 0) return rc;
    aiPreviousDC[plane] = wadd(aiPreviousDC[plane], diff);
    int32_t dc = wmul(aiPreviousDC[plane], int32_t(zigzag[0] >> ZIGZAG_DEQUANT_SHIFT));
    coef[0] = dc;
    uint32_t rangeCheck = dcRangeCheck(dc);
    int k = 1;
    while (k < 64) {
        unsigned symbol;
        int value;
        rc = m_Huff.DecodeAC(codec, &symbol, &value);
        if (rc != 0) return rc;
        if (symbol == EOB_SYMBOL) break;
        if (symbol == ZRL_SYMBOL) {
            if (k + ZRL_RUN > 64) return WICKET_ERROR_COEF_OVERRUN;
            k += ZRL_RUN;
            continue;
        }
        k += int(symbol >> 4);
        if (k > 63) return WICKET_ERROR_COEF_OVERRUN;
        int32_t c = value * int32_t(zigzag[k] >> ZIGZAG_DEQUANT_SHIFT);
        coef[zigzag[k] & ZIGZAG_POSITION_MASK] = c;
        rangeCheck |= uint32_t(c) + RANGE_AC_BIAS;
        ++k;
    }
    *kind = blockKind(rangeCheck);
    return 0;
}

// Decodes up to mcus MCUs (one block per plane each) into the scratch area;
// *done receives the number decoded completely.
int Wicket::decodeGroup(int planes, int mcus, int* done) {
    Scratch& sc = *m_pScratch;
    const uint16_t* acLookup[2] = {m_Huff.m_Luminance.ACLookup(), m_Huff.m_Chrominance.ACLookup()};
    HuffBitState s = m_Huff.m_State;
    int rc = 0, m = 0;
    for (; m < mcus && rc == 0; ++m) {
        for (int p = 0; p < planes; ++p) {
            int t = p == 0 ? 0 : 1;
            if (s.pEnd - s.pNext >= HUFF_FAST_MARGIN) {
                rc = s.iStuffedData ? decodeBlockFast<true>(s, m_Huff.Codec(p), acLookup[t], m_auZigzag[t],
                                                            aiPreviousDC[p], sc.coef[m][p], &sc.kind[m][p])
                                    : decodeBlockFast<false>(s, m_Huff.Codec(p), acLookup[t], m_auZigzag[t],
                                                             aiPreviousDC[p], sc.coef[m][p], &sc.kind[m][p]);
            } else {
                m_Huff.m_State = s;
                rc = decodeCoefficients(p, sc.coef[m][p], &sc.kind[m][p]);
                s = m_Huff.m_State;
            }
            if (rc != 0) break;
        }
    }
    m_Huff.m_State = s;
    *done = rc == 0 ? m : m - 1;
    return rc;
}

// Inverse DCT of each plane into the sample rows, then colour conversion of the
// 8 rows. An MCU with a block outside the kernels' range is left to 32-bit
// scalar arithmetic, which overwrites what the vector pass wrote for it. Every
// block's coefficients end up cleared for the next group.
void Wicket::renderColourGroup(int mcus, unsigned char* out, long rowBytes) {
    Scratch& sc = *m_pScratch;
    const WicketKernels& kern = wicketKernels(m_iSimdLevel);
    bool wide[GROUP_MCUS], anyWide = false;
    for (int m = 0; m < mcus; ++m) {
        wide[m] = ((sc.kind[m][0] | sc.kind[m][1] | sc.kind[m][2]) & KIND_WIDE) != 0;
        anyWide = anyWide || wide[m];
    }
    for (int p = 0; p < WICKET_MAX_PLANES; ++p) {
        int pending = -1;
        for (int m = 0; m < mcus; ++m) {
            if (wide[m]) continue;
            int16_t* dst = &sc.samples[p][0][m * WICKET_BLOCK];
            if (sc.kind[m][p] == KIND_FULL) {
                if (pending < 0) {
                    pending = m;
                } else {
                    kern.idctS16Pair(sc.coef[pending][p], sc.coef[m][p], &sc.samples[p][0][pending * WICKET_BLOCK],
                                     dst, GROUP_WIDTH);
                    pending = -1;
                }
            } else {
                int16_t v = int16_t(dcOnlySample(sc.coef[m][p][0]));
                sc.coef[m][p][0] = 0;
                for (int r = 0; r < WICKET_BLOCK; ++r)
                    for (int c = 0; c < WICKET_BLOCK; ++c) dst[r * GROUP_WIDTH + c] = v;
            }
        }
        if (pending >= 0) kern.idctS16(sc.coef[pending][p], &sc.samples[p][0][pending * WICKET_BLOCK], GROUP_WIDTH);
    }
    for (int r = 0; r < WICKET_BLOCK; ++r)
        kern.yccRow(sc.samples[0][r], sc.samples[1][r], sc.samples[2][r], out + r * rowBytes, mcus * WICKET_BLOCK);
    if (!anyWide) return;
    for (int m = 0; m < mcus; ++m) {
        if (!wide[m]) continue;
        int s[WICKET_MAX_PLANES][WICKET_BLOCK_COEFS];
        for (int p = 0; p < WICKET_MAX_PLANES; ++p) {
            jpeg_idct(reinterpret_cast<const int*>(sc.coef[m][p]), s[p]);
            memset(sc.coef[m][p], 0, sizeof(sc.coef[m][p]));
        }
        for (int i = 0; i < WICKET_BLOCK_COEFS; ++i)
            wicketYccPixel(s[0][i], s[1][i], s[2][i],
                           out + (i / WICKET_BLOCK) * rowBytes + (m * WICKET_BLOCK + i % WICKET_BLOCK) * 3);
    }
}

void Wicket::renderGreyGroup(int blocks, unsigned char* out, long rowBytes) {
    Scratch& sc = *m_pScratch;
    const WicketKernels& kern = wicketKernels(m_iSimdLevel);
    int pending = -1;
    int stride = int(rowBytes);
    for (int m = 0; m < blocks; ++m) {
        unsigned char* dst = out + m * WICKET_BLOCK;
        int32_t* coef = sc.coef[m][0];
        unsigned char kind = sc.kind[m][0];
        if (kind == KIND_FULL) {
            if (pending < 0) {
                pending = m;
            } else {
                kern.idctU8Pair(sc.coef[pending][0], coef, out + pending * WICKET_BLOCK, dst, stride);
                pending = -1;
            }
        } else if (kind == KIND_DC_ONLY) {
            unsigned char v = clampByte(wadd(dcOnlySample(coef[0]), WICKET_ROUND_ADDER));
            coef[0] = 0;
            for (int r = 0; r < WICKET_BLOCK; ++r) memset(dst + r * rowBytes, v, WICKET_BLOCK);
        } else {
            int s[WICKET_BLOCK_COEFS];
            jpeg_idct(reinterpret_cast<const int*>(coef), s);
            memset(coef, 0, sizeof(sc.coef[m][0]));
            for (int i = 0; i < WICKET_BLOCK_COEFS; ++i)
                dst[(i / WICKET_BLOCK) * rowBytes + i % WICKET_BLOCK] = clampByte(wadd(s[i], WICKET_ROUND_ADDER));
        }
    }
    if (pending >= 0) kern.idctU8(sc.coef[pending][0], out + pending * WICKET_BLOCK, stride);
}

int Wicket::decodeBand(const unsigned char* data, int dataLen, unsigned char* out, long outLen, int width,
                       int height, int planes, int* produced, int* used) {
    int producedLocal, usedLocal;
    if (produced == nullptr) produced = &producedLocal;
    if (used == nullptr) used = &usedLocal;
    *produced = 0;
    *used = 0;
    if (iStatus != 0) return iStatus;
    if (height < 0 || height % WICKET_BLOCK != 0) {
        LOG_DEBUG("band height %d is not a multiple of 8", height);
        return WICKET_ERROR_HEIGHT;
    }
    int align = wicketLineAlign(m_ByteStuffing, planes);
    if (width < 0 || width % align != 0) {
        LOG_DEBUG("band width %d is not a multiple of %d", width, align);
        return WICKET_ERROR_WIDTH;
    }
    long rowBytes = long(width) * planes;
    bool fits = rowBytes == 0 || (height <= outLen / rowBytes && height <= INT_MAX / rowBytes);
    long total = fits ? rowBytes * height : 0;
    if (!fits || (total > 0 && out == nullptr)) {
        LOG_DEBUG("band of %d x %d x %d does not fit in %ld bytes", width, height, planes, outLen);
        return WICKET_ERROR_WIDTH;
    }
    if (data == nullptr || dataLen < 0) dataLen = 0;

    for (int& dc : aiPreviousDC) dc = 0;
    m_Huff.SetInput(data, dataLen);
    int mcuCols = width / WICKET_BLOCK, mcuRows = height / WICKET_BLOCK;
    int rc = 0;
    long rowsDone = 0;
    for (int by = 0; by < mcuRows && rc == 0; ++by) {
        for (int gx = 0; gx < mcuCols; gx += GROUP_MCUS) {
            int n = mcuCols - gx < GROUP_MCUS ? mcuCols - gx : GROUP_MCUS;
            int done = 0;
            rc = decodeGroup(planes, n, &done);
            unsigned char* dst = out + by * WICKET_BLOCK * rowBytes + long(gx) * WICKET_BLOCK * planes;
            if (planes == 3)
                renderColourGroup(done, dst, rowBytes);
            else
                renderGreyGroup(done, dst, rowBytes);
            if (rc != 0) {
                Scratch& sc = *m_pScratch;
                memset(sc.coef, 0, sizeof(sc.coef));
                break;
            }
        }
        if (rc == 0) ++rowsDone;
    }
    long bits = m_Huff.GetBitsUsed();
    long usedBytes = planes == 3 ? ((bits + 511) / 512) * 64 : ((bits + 511) / 64) * 512;
    *used = usedBytes > INT_MAX ? INT_MAX : int(usedBytes);
    *produced = int(rowsDone * WICKET_BLOCK * rowBytes);
    m_iNumBytesGenerated = *produced;
    if (rc != 0) LOG_DEBUG("band decoding failed: %d after %ld block rows", rc, rowsDone);
    return rc;
}
