#include "WicketEncoder.h"

#include <algorithm>
#include <cstdlib>

#include "HuffCodec.h"
#include "Wicket.h"
#include "jfdctint.h"

namespace {

const uint8_t STUFFING_ZERO = 0x00;
const int MAX_AC_BITS = 10;
const int MAX_DC_BITS = 11;

int bitLength(int v) {
    unsigned a = unsigned(v < 0 ? -v : v);
    int n = 0;
    while (a) {
        ++n;
        a >>= 1;
    }
    return n;
}

int clampMagnitude(int v, int bits) {
    int limit = (1 << bits) - 1;
    return v > limit ? limit : v < -limit ? -limit : v;
}

// The n low bits that carry v (negative values as v - 1, the JPEG convention).
uint32_t valueBits(int v, int n) { return uint32_t(v < 0 ? v - 1 : v) & ((1u << n) - 1); }

struct Tables {
    HuffCodec lum, chrom;
    Tables() {
        lum.Build(ANNEXK_DC_LUMINANCE_COUNTS, ANNEXK_AC_LUMINANCE_COUNTS, ANNEXK_AC_LUMINANCE_SYMBOLS,
                  HUFF_AC_SYMBOLS);
        chrom.Build(ANNEXK_DC_CHROMINANCE_COUNTS, ANNEXK_AC_CHROMINANCE_COUNTS, ANNEXK_AC_CHROMINANCE_SYMBOLS,
                    HUFF_AC_SYMBOLS);
    }
};

long roundUp(long v, long m) { return (v + m - 1) / m * m; }

}  // namespace

WicketBitWriter::WicketBitWriter(bool stuffing) : bStuffing(stuffing) {}

void WicketBitWriter::emitByte(uint8_t b) {
    vBytes.push_back(b);
    if (bStuffing && b == 0xFF) vBytes.push_back(STUFFING_ZERO);
}

void WicketBitWriter::put(uint32_t code, int length) {
    for (int i = length - 1; i >= 0; --i) {
        uAcc = (uAcc << 1) | ((code >> i) & 1u);
        if (++iBits == 8) {
            emitByte(uint8_t(uAcc));
            uAcc = 0;
            iBits = 0;
        }
    }
}

void WicketBitWriter::encodeBlock(const int* quantised, const HuffCodec& codec, int& predictor) {
    int dc = quantised[0];
    int diff = clampMagnitude(dc - predictor, MAX_DC_BITS);
    predictor += diff;
    int cat = bitLength(diff);
    put(codec.aiDCCode[cat], codec.aiDCLength[cat]);
    put(valueBits(diff, cat), cat);
    int run = 0;
    for (int k = 1; k < 64; ++k) {
        int v = clampMagnitude(quantised[WICKET_NATURAL_ORDER[k]], MAX_AC_BITS);
        if (v == 0) {
            ++run;
            continue;
        }
        while (run > 15) {
            put(codec.aiACCode[HUFF_AC_INDEX_ZRL], codec.aiACLength[HUFF_AC_INDEX_ZRL]);
            run -= 16;
        }
        int size = bitLength(v);
        int idx = huffAcSymbolIndex(unsigned(run << 4 | size));
        put(codec.aiACCode[idx], codec.aiACLength[idx]);
        put(valueBits(v, size), size);
        run = 0;
    }
    if (run > 0) put(codec.aiACCode[HUFF_AC_INDEX_EOB], codec.aiACLength[HUFF_AC_INDEX_EOB]);
}

std::vector<uint8_t> WicketBitWriter::finish() {
    if (iBits > 0) put(0xFFu, 8 - iBits);
    for (int i = 0; i < WICKET_LOOKAHEAD_BYTES; ++i) vBytes.push_back(0x00);
    std::vector<uint8_t> out;
    out.swap(vBytes);
    return out;
}

void wicketQuantiseBlock(const int* samples, const int* quantTable, int* quantised) {
    int d[64];
    for (int i = 0; i < 64; ++i) d[i] = samples[i];
    jpeg_fdct(d);
    for (int i = 0; i < 64; ++i) {
        int q = quantTable[i];
        int a = std::abs(d[i]);
        int v = (a + q / 2) / q;
        quantised[i] = d[i] < 0 ? -v : v;
    }
}

void wicketPutHeader(uint8_t* header, uint32_t size, uint32_t lines, uint32_t width, uint32_t quality) {
    uint32_t f[4] = {size, lines, width, quality};
    for (int i = 0; i < 4; ++i)
        for (int b = 0; b < 4; ++b) header[4 * i + b] = uint8_t(f[i] >> (24 - 8 * b));
}

std::vector<uint8_t> wicketEncodeBand(const uint8_t* pixels, int width, int lines, long stride, int channels,
                                      int quality, bool stuffing) {
    static const Tables tables;
    int quant[2][64], dequant[2][64];
    wicketScaleTable(ANNEXK_LUMINANCE_QUANT, quality, quant[0], dequant[0]);
    wicketScaleTable(ANNEXK_CHROMINANCE_QUANT, quality, quant[1], dequant[1]);
    int planes = channels == 1 ? 1 : 3;
    long paddedWidth = roundUp(width, wicketLineAlign(stuffing ? 1 : 0, planes));
    long paddedLines = roundUp(lines, WICKET_BLOCK);

    WicketBitWriter writer(stuffing);
    int predictor[3] = {0, 0, 0};
    int samples[3][64], quantised[64];
    for (long by = 0; by < paddedLines; by += 8) {
        for (long bx = 0; bx < paddedWidth; bx += 8) {
            for (int i = 0; i < 64; ++i) {
                long y = by + i / 8, x = bx + i % 8;
                if (y >= lines) y = lines - 1;
                if (x >= width) x = width - 1;
                const uint8_t* p = pixels + y * stride + x * channels;
                if (planes == 1) {
                    samples[0][i] = p[0] - 128;
                    continue;
                }
                int r = p[0], g = p[1], b = p[2];
                samples[0][i] = ((19595 * r + 38470 * g + 7471 * b + 32768) >> 16) - 128;
                samples[1][i] = (-11059 * r - 21709 * g + 32768 * b + 32768) >> 16;
                samples[2][i] = (32768 * r - 27439 * g - 5329 * b + 32768) >> 16;
            }
            for (int p = 0; p < planes; ++p) {
                wicketQuantiseBlock(samples[p], quant[p ? 1 : 0], quantised);
                writer.encodeBlock(quantised, p ? tables.chrom : tables.lum, predictor[p]);
            }
        }
    }
    std::vector<uint8_t> data = writer.finish();
    std::vector<uint8_t> chunk(16 + data.size());
    wicketPutHeader(chunk.data(), uint32_t(chunk.size()), uint32_t(lines), uint32_t(width), uint32_t(quality));
    std::copy(data.begin(), data.end(), chunk.begin() + 16);
    return chunk;
}

std::vector<uint8_t> wicketEncodeImage(const uint8_t* pixels, int width, int height, int channels,
                                       const WicketEncodeOptions& options) {
    std::vector<uint8_t> out;
    long stride = long(width) * channels;
    int band = options.iBandLines > 0 ? options.iBandLines : 32;
    for (int y = 0; y < height; y += band) {
        int lines = height - y < band ? height - y : band;
        std::vector<uint8_t> chunk =
            wicketEncodeBand(pixels + y * stride, width, lines, stride, channels, options.iQuality, options.bStuffing);
        out.insert(out.end(), chunk.begin(), chunk.end());
    }
    return out;
}
