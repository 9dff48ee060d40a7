// One Huffman table pair of the Wicket codec (a DC table and an AC table), with
// canonical codes and the look-up tables the decoder indexes with the next 16 bits.
#ifndef QUARTO_HUFFCODEC_H
#define QUARTO_HUFFCODEC_H

#include <cstdint>
#include <memory>

// Table-building results (0 is success).
const int HUFF_ERROR_AC_SYMBOL_RANGE = 1;  // an AC symbol that has no slot
const int HUFF_ERROR_DC_COUNT = 257;       // the DC table does not yield 12 codes
const int HUFF_ERROR_AC_COUNT = 258;       // the AC table does not yield 162 codes
const int HUFF_ERROR_AC_ASSIGNMENT = 259;  // an AC symbol assigned twice or never

const int HUFF_DC_CATEGORIES = 12;
const int HUFF_AC_SYMBOLS = 162;
const int HUFF_AC_INDEX_EOB = 160;  // symbol 0x00
const int HUFF_AC_INDEX_ZRL = 161;  // symbol 0xF0
const int HUFF_MAX_CODE_LENGTH = 16;
const int HUFF_DC_LOOKUP_BITS = 8;
const int HUFF_AC_LOOKUP_SIZE = 1 << 16;

// Index of an AC symbol RS (run in the high nibble, size in the low one) in the
// per-symbol arrays, or -1 when the symbol has no slot.
int huffAcSymbolIndex(unsigned rs);

class HuffCodec {
public:
    HuffCodec();

    // Builds canonical codes from code-length counts (counts[i] = codes of length
    // i + 1) and, for AC, the symbol values in code order. Returns 0 or one of the
    // HUFF_ERROR_* codes; on error the look-ups stay empty.
    int Build(const unsigned char dcCounts[16], const unsigned char acCounts[16],
              const unsigned char* acSymbols, int acSymbolCount);

    // Code and length per DC category 0..11.
    unsigned aiDCCode[HUFF_DC_CATEGORIES];
    unsigned char aiDCLength[HUFF_DC_CATEGORIES];
    // Code and length per AC symbol index (see huffAcSymbolIndex).
    unsigned aiACCode[HUFF_AC_SYMBOLS];
    unsigned char aiACLength[HUFF_AC_SYMBOLS];

    // DC look-up by the top 8 of the next 16 bits: (category << 4) | length for a
    // code of up to 8 bits, 0 when the code is longer (searched instead).
    unsigned char aDCLookup[1 << HUFF_DC_LOOKUP_BITS];
    // The category whose code longer than 8 bits prefixes the 16 peeked bits
    // (categories searched in order), or -1; its length in *len.
    int FindDC(unsigned peek16, int* len) const;
    // The DC category coded at the start of the 16 peeked bits: the 256-entry
    // look-up for codes of up to 8 bits, else the search. -1 when none matches.
    int DecodeDC(unsigned peek16, int* len) const {
        unsigned e = aDCLookup[peek16 >> 8];
        if (e == 0) return FindDC(peek16, len);
        *len = int(e & 0x0F);
        return int(e >> 4);
    }

    // AC look-up by the next 16 bits: (symbol << 8) | length, 0 when no code matches.
    const uint16_t* ACLookup() const { return pACLookup.get(); }

private:
    std::unique_ptr<uint16_t[]> pACLookup;
};

// The tables of JPEG (ITU T.81) Annex K.
extern const unsigned char ANNEXK_DC_LUMINANCE_COUNTS[16];
extern const unsigned char ANNEXK_DC_CHROMINANCE_COUNTS[16];
extern const unsigned char ANNEXK_AC_LUMINANCE_COUNTS[16];
extern const unsigned char ANNEXK_AC_LUMINANCE_SYMBOLS[HUFF_AC_SYMBOLS];
extern const unsigned char ANNEXK_AC_CHROMINANCE_COUNTS[16];
extern const unsigned char ANNEXK_AC_CHROMINANCE_SYMBOLS[HUFF_AC_SYMBOLS];
extern const int ANNEXK_LUMINANCE_QUANT[64];    // natural order
extern const int ANNEXK_CHROMINANCE_QUANT[64];  // natural order

#endif
