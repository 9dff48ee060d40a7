// Wicket encoder for test data and the quarto-wicket tool: forward DCT,
// quantisation by the decoder's scaled tables, Huffman coding with the Annex K
// tables, optional byte stuffing, and the 16-byte big-endian chunk headers.
// Every chunk ends with the 16 bits of look-ahead the decoder needs after the
// last symbol: the last byte is filled up with 1 bits, then two zero bytes
// follow (WICKET_LOOKAHEAD_BYTES).
#ifndef QUARTO_WICKETENCODER_H
#define QUARTO_WICKETENCODER_H

#include <cstdint>
#include <vector>

class HuffCodec;

const int WICKET_LOOKAHEAD_BYTES = 2;

// Bit-level writer of one chunk's entropy-coded data.
class WicketBitWriter {
public:
    explicit WicketBitWriter(bool stuffing);

    void put(uint32_t code, int length);
    // Writes one block of quantised coefficients (natural order) with the DC
    // difference against predictor, which is updated. Values beyond what the
    // codes can carry (AC 10 bits, DC differences 11 bits) are clamped.
    void encodeBlock(const int* quantised, const HuffCodec& codec, int& predictor);
    // Fills the last byte with 1 bits and appends the look-ahead bytes.
    std::vector<uint8_t> finish();

private:
    void emitByte(uint8_t b);

    bool bStuffing;
    uint32_t uAcc = 0;
    int iBits = 0;
    std::vector<uint8_t> vBytes;
};

struct WicketEncodeOptions {
    int iQuality = 75;
    int iBandLines = 32;
    bool bStuffing = true;
};

// Quantised coefficients of one 8 x 8 block of level-shifted samples.
void wicketQuantiseBlock(const int* samples, const int* quantTable, int* quantised);

// One chunk (header included) for lines rows of width pixels starting at
// pixels (stride bytes per row, channels 1 or 3). The band is padded as the
// decoder pads it, by repeating the last column and row.
std::vector<uint8_t> wicketEncodeBand(const uint8_t* pixels, int width, int lines, long stride, int channels,
                                      int quality, bool stuffing);

// A whole image as consecutive chunks of options.iBandLines rows.
std::vector<uint8_t> wicketEncodeImage(const uint8_t* pixels, int width, int height, int channels,
                                       const WicketEncodeOptions& options);

// A chunk header for the given fields.
void wicketPutHeader(uint8_t* header, uint32_t size, uint32_t lines, uint32_t width, uint32_t quality);

#endif
