#include "WicketReference.h"

#include <cstring>

#include "HuffCodec.h"

namespace wicketref {

namespace {

int32_t wrap32(int64_t v) { return int32_t(uint32_t(uint64_t(v))); }

// The IJG accurate inverse DCT on one line of 8, exact in 64 bits; the result
// is reduced to 32 bits before the rounding shift, as the 32-bit code computes it.
void idctLine(const int64_t* d, int64_t* out, int shift) {
    const int64_t c0298 = 2446, c0390 = 3196, c0541 = 4433, c0765 = 6270, c0899 = 7373, c1175 = 9633,
                  c1501 = 12299, c1847 = 15137, c1961 = 16069, c2053 = 16819, c2562 = 20995, c3072 = 25172;
    int64_t z1 = (d[2] + d[6]) * c0541;
    int64_t t2 = z1 - d[6] * c1847;
    int64_t t3 = z1 + d[2] * c0765;
    int64_t t0 = (d[0] + d[4]) * 8192;
    int64_t t1 = (d[0] - d[4]) * 8192;
    int64_t e10 = t0 + t3, e13 = t0 - t3, e11 = t1 + t2, e12 = t1 - t2;
    int64_t z5 = (d[7] + d[3] + d[5] + d[1]) * c1175;
    int64_t q1 = -(d[7] + d[1]) * c0899, q2 = -(d[5] + d[3]) * c2562;
    int64_t q3 = -(d[7] + d[3]) * c1961 + z5, q4 = -(d[5] + d[1]) * c0390 + z5;
    int64_t o0 = d[7] * c0298 + q1 + q3, o1 = d[5] * c2053 + q2 + q4;
    int64_t o2 = d[3] * c3072 + q2 + q3, o3 = d[1] * c1501 + q1 + q4;
    int64_t r[8] = {e10 + o3, e11 + o2, e12 + o1, e13 + o0, e13 - o0, e12 - o1, e11 - o2, e10 - o3};
    for (int i = 0; i < 8; ++i) out[i] = wrap32(int64_t(wrap32(r[i])) + (int64_t(1) << (shift - 1))) >> shift;
}

}  // namespace

const int* zigzag() {
    static int order[64];
    static bool made = false;
    if (!made) {
        int k = 0;
        for (int s = 0; s < 15; ++s) {
            // Odd diagonals run top-right to bottom-left, even ones the other way.
            for (int i = 0; i <= s; ++i) {
                int row = (s % 2) ? i : s - i;
                int col = s - row;
                if (row < 8 && col < 8) order[k++] = row * 8 + col;
            }
        }
        made = true;
    }
    return order;
}

int scaledEntry(int base, int quality) {
    int scale = quality <= 0 ? 10000 : quality < 50 ? 5000 / quality : 200 - 2 * quality;
    int v = (base * scale + 50) / 100;
    return v < 1 ? 1 : v > 255 ? 255 : v;
}

void idct(const int32_t* in, int32_t* out) {
    int64_t ws[64], line[8], res[8];
    for (int c = 0; c < 8; ++c) {
        for (int r = 0; r < 8; ++r) line[r] = in[r * 8 + c];
        idctLine(line, res, 11);
        for (int r = 0; r < 8; ++r) ws[r * 8 + c] = res[r];
    }
    for (int r = 0; r < 8; ++r) {
        idctLine(ws + r * 8, res, 18);
        for (int c = 0; c < 8; ++c) out[r * 8 + c] = int32_t(res[c]);
    }
}

void yccToRgb(int32_t y, int32_t cb, int32_t cr, uint8_t* rgb) {
    int64_t yp = int64_t(y) + 128;
    int64_t v[3] = {yp * 1024 + 1436 * int64_t(cr) + 128, yp * 1024 - 352 * int64_t(cb) - 731 * int64_t(cr) + 128,
                    yp * 1024 + 1815 * int64_t(cb) + 128};
    for (int i = 0; i < 3; ++i) {
        int32_t x = wrap32(v[i]) >> 10;
        rgb[i] = uint8_t(x < 0 ? 0 : x > 255 ? 255 : x);
    }
}

Table makeTable(const unsigned char* counts, const unsigned char* symbols, int nSymbols) {
    Table t;
    int code = 0, k = 0;
    for (int len = 1; len <= 16; ++len) {
        t.valPtr[len] = k;
        t.minCode[len] = code;
        code += counts[len - 1];
        k += counts[len - 1];
        t.maxCode[len] = counts[len - 1] ? code - 1 : -1;
        code <<= 1;
    }
    if (k != nSymbols) return t;
    t.values.assign(symbols, symbols + nSymbols);
    return t;
}

Decoder::Decoder(bool stuffing) : bStuffing(stuffing) {
    unsigned char categories[12];
    for (int i = 0; i < 12; ++i) categories[i] = (unsigned char)i;
    dcTable[0] = makeTable(ANNEXK_DC_LUMINANCE_COUNTS, categories, 12);
    dcTable[1] = makeTable(ANNEXK_DC_CHROMINANCE_COUNTS, categories, 12);
    acTable[0] = makeTable(ANNEXK_AC_LUMINANCE_COUNTS, ANNEXK_AC_LUMINANCE_SYMBOLS, 162);
    acTable[1] = makeTable(ANNEXK_AC_CHROMINANCE_COUNTS, ANNEXK_AC_CHROMINANCE_SYMBOLS, 162);
    setQuality(80, 80);
}

void Decoder::setQuality(int qLuminance, int qChrominance) {
    for (int i = 0; i < 64; ++i) {
        dequant[0][i] = scaledEntry(ANNEXK_LUMINANCE_QUANT[i], qLuminance);
        dequant[1][i] = scaledEntry(ANNEXK_CHROMINANCE_QUANT[i], qChrominance);
    }
}

void Decoder::start(const uint8_t* data, int len) {
    pData = data;
    iLen = len;
    iPos = 0;
    uAcc = 0;
    iBits = 0;
    iUsed = 0;
    aiPred[0] = aiPred[1] = aiPred[2] = 0;
}

// Shifts bytes in until n bits are held: 513 if the data ends first.
int Decoder::fill(int n) {
    while (iBits < n) {
        if (iPos >= iLen) return 513;
        uint8_t b = pData[iPos++];
        if (bStuffing && b == 0xFF) ++iPos;
        uAcc = (uAcc << 8) | b;
        iBits += 8;
    }
    return 0;
}

int Decoder::bits(int n, uint32_t* v) {
    *v = 0;
    if (n == 0) return 0;
    if (fill(n)) return 513;
    *v = (uAcc >> (iBits - n)) & ((1u << n) - 1);
    iBits -= n;
    iUsed += n;
    return 0;
}

// Annex F DECODE on the 16 peeked bits.
int Decoder::decodeSymbol(const Table& t, int* symbol) {
    if (fill(16)) return 513;
    uint32_t peek = (uAcc >> (iBits - 16)) & 0xFFFF;
    for (int len = 1; len <= 16; ++len) {
        int code = int(peek >> (16 - len));
        if (t.maxCode[len] >= 0 && code <= t.maxCode[len] && code >= t.minCode[len]) {
            *symbol = t.values[t.valPtr[len] + code - t.minCode[len]];
            iBits -= len;
            iUsed += len;
            return 0;
        }
    }
    return 261;
}

int Decoder::decodeBlock(int plane, int32_t* coef) {
    const int* zz = zigzag();
    const int* q = dequant[plane ? 1 : 0];
    int t = plane ? 1 : 0;
    memset(coef, 0, 64 * sizeof(int32_t));
    int cat;
    if (int rc = decodeSymbol(dcTable[t], &cat)) return rc;
    uint32_t v;
    if (bits(cat, &v)) return 513;
    int diff = 0;
    if (cat) diff = (v < (1u << (cat - 1))) ? int(v) - int((1u << cat) - 1) : int(v);
    aiPred[plane] = wrap32(int64_t(aiPred[plane]) + diff);
    coef[0] = wrap32(int64_t(aiPred[plane]) * q[0]);
    int k = 1;
    while (k < 64) {
        int rs;
        if (int rc = decodeSymbol(acTable[t], &rs)) return rc;
        int r = rs >> 4, s = rs & 15;
        if (rs == 0x00) break;
        if (bits(s, &v)) return 513;
        if (rs == 0xF0) {
            for (int i = 0; i < 16; ++i, ++k)
                if (k > 63) return 771;
            continue;
        }
        k += r;
        if (k > 63) return 771;
        int val = (v < (1u << (s - 1))) ? int(v) - int((1u << s) - 1) : int(v);
        coef[zz[k]] = val * q[zz[k]];
        ++k;
    }
    return 0;
}

int Decoder::decode(const uint8_t* data, int len, uint8_t* out, int width, int height, int planes, int* produced,
                    long* bitsUsed) {
    *produced = 0;
    *bitsUsed = 0;
    if (height < 0 || height % 8) return 770;
    int align = bStuffing ? 8 : planes == 3 ? 16 : 48;
    if (width < 0 || width % align) return 769;
    start(data, len);
    long rowBytes = long(width) * planes;
    int32_t coef[3][64], pix[3][64];
    for (int by = 0; by < height / 8; ++by) {
        for (int bx = 0; bx < width / 8; ++bx) {
            for (int p = 0; p < planes; ++p) {
                int rc = decodeBlock(p, coef[p]);
                if (rc) {
                    *bitsUsed = iUsed;
                    return rc;
                }
                idct(coef[p], pix[p]);
            }
            for (int i = 0; i < 64; ++i) {
                uint8_t* o = out + (by * 8 + i / 8) * rowBytes + (bx * 8 + i % 8) * planes;
                if (planes == 3) {
                    yccToRgb(pix[0][i], pix[1][i], pix[2][i], o);
                } else {
                    int32_t g = wrap32(int64_t(pix[0][i]) + 128);
                    *o = uint8_t(g < 0 ? 0 : g > 255 ? 255 : g);
                }
            }
        }
        *produced = int((by + 1) * 8 * rowBytes);
    }
    *bitsUsed = iUsed;
    return 0;
}

static uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

int decodeStream(const uint8_t* data, size_t len, int planes, std::vector<uint8_t>* image, int* width) {
    const size_t HEADER = 16;
    Decoder ref(true);
    std::vector<uint8_t> band;
    *width = -1;
    for (size_t pos = 0; pos < len;) {
        if (len - pos < HEADER) return -1;
        const uint8_t* h = data + pos;
        const uint32_t size = be32(h), lines = be32(h + 4), w = be32(h + 8), quality = be32(h + 12);
        if (size < HEADER || size > len - pos || lines == 0 || lines > 65536 || w == 0 || w > 65536) return -1;
        if (*width < 0) *width = int(w);
        if (int(w) != *width) return -1;
        const long padded = (long(w) + 7) / 8 * 8, paddedLines = (long(lines) + 7) / 8 * 8;
        band.assign(size_t(padded * paddedLines * planes), 0);
        ref.setQuality(int(quality), int(quality));
        int produced;
        long bits;
        int rc = ref.decode(h + HEADER, int(size - HEADER), band.data(), int(padded), int(paddedLines), planes,
                            &produced, &bits);
        if (rc) return rc;
        for (uint32_t y = 0; y < lines; ++y) {
            const uint8_t* row = band.data() + y * padded * planes;
            image->insert(image->end(), row, row + long(w) * planes);
        }
        pos += size;
    }
    return 0;
}

}  // namespace wicketref
