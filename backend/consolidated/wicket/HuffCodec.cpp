#include "HuffCodec.h"

#include <cstring>

#include "CLogger.h"

// ITU T.81 Annex K.1 and K.2: quantisation tables, natural (row) order.
const int ANNEXK_LUMINANCE_QUANT[64] = {
    16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
    14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
    18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
    49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};
const int ANNEXK_CHROMINANCE_QUANT[64] = {
    17, 18, 24, 47, 99, 99, 99, 99, 18, 21, 26, 66, 99, 99, 99, 99,
    24, 26, 56, 99, 99, 99, 99, 99, 47, 66, 99, 99, 99, 99, 99, 99,
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};

// K.3: DC code-length counts (lengths 1 to 16); the symbols are categories 0..11.
const unsigned char ANNEXK_DC_LUMINANCE_COUNTS[16] = {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};
const unsigned char ANNEXK_DC_CHROMINANCE_COUNTS[16] = {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0};

// K.5: AC luminance counts and symbols.
const unsigned char ANNEXK_AC_LUMINANCE_COUNTS[16] = {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7d};
const unsigned char ANNEXK_AC_LUMINANCE_SYMBOLS[HUFF_AC_SYMBOLS] = {
    0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61,
    0x07, 0x22, 0x71, 0x14, 0x32, 0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52,
    0xd1, 0xf0, 0x24, 0x33, 0x62, 0x72, 0x82, 0x09, 0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25,
    0x26, 0x27, 0x28, 0x29, 0x2a, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45,
    0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63, 0x64,
    0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83,
    0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99,
    0x9a, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6,
    0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3,
    0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8,
    0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};

// K.6: AC chrominance counts and symbols.
const unsigned char ANNEXK_AC_CHROMINANCE_COUNTS[16] = {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77};
const unsigned char ANNEXK_AC_CHROMINANCE_SYMBOLS[HUFF_AC_SYMBOLS] = {
    0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61,
    0x71, 0x13, 0x22, 0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33,
    0x52, 0xf0, 0x15, 0x62, 0x72, 0xd1, 0x0a, 0x16, 0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18,
    0x19, 0x1a, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44,
    0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63,
    0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a,
    0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97,
    0x98, 0x99, 0x9a, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4,
    0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca,
    0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7,
    0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};

int huffAcSymbolIndex(unsigned rs) {
    if (rs == 0x00) return HUFF_AC_INDEX_EOB;
    if (rs == 0xF0) return HUFF_AC_INDEX_ZRL;
    unsigned run = rs >> 4, size = rs & 0x0F;
    if (rs > 0xFF || size < 1 || size > 10) return -1;
    return int((size - 1) * 16 + run);
}

namespace {

// Canonical code assignment (ITU T.81 Annex C): consecutive codes within a
// length, doubling when moving to the next length. Fills codes/lengths in code
// order; returns the number of codes, or -1 when a code does not fit its length.
int canonicalCodes(const unsigned char counts[16], int maxCodes, unsigned* codes, unsigned char* lengths) {
    unsigned code = 0;
    int n = 0;
    for (int len = 1; len <= HUFF_MAX_CODE_LENGTH; ++len) {
        for (int i = 0; i < counts[len - 1]; ++i) {
            if (code >= (1u << len)) return -1;
            if (n < maxCodes) {
                codes[n] = code;
                lengths[n] = (unsigned char)len;
            }
            ++n;
            ++code;
        }
        code <<= 1;
    }
    return n;
}

}  // namespace

HuffCodec::HuffCodec() : pACLookup(new uint16_t[HUFF_AC_LOOKUP_SIZE]()) {
    memset(aiDCCode, 0, sizeof(aiDCCode));
    memset(aiDCLength, 0, sizeof(aiDCLength));
    memset(aiACCode, 0, sizeof(aiACCode));
    memset(aiACLength, 0, sizeof(aiACLength));
    memset(aDCLookup, 0, sizeof(aDCLookup));
}

int HuffCodec::Build(const unsigned char dcCounts[16], const unsigned char acCounts[16],
                     const unsigned char* acSymbols, int acSymbolCount) {
    memset(aiDCCode, 0, sizeof(aiDCCode));
    memset(aiDCLength, 0, sizeof(aiDCLength));
    memset(aiACCode, 0, sizeof(aiACCode));
    memset(aiACLength, 0, sizeof(aiACLength));
    memset(aDCLookup, 0, sizeof(aDCLookup));
    uint16_t* ac = pACLookup.get();
    memset(ac, 0, sizeof(uint16_t) * HUFF_AC_LOOKUP_SIZE);

    unsigned dcCodes[HUFF_DC_CATEGORIES];
    unsigned char dcLengths[HUFF_DC_CATEGORIES];
    if (dcCounts == nullptr ||
        canonicalCodes(dcCounts, HUFF_DC_CATEGORIES, dcCodes, dcLengths) != HUFF_DC_CATEGORIES) {
        LOG_DEBUG("DC table does not yield %d codes", HUFF_DC_CATEGORIES);
        return HUFF_ERROR_DC_COUNT;
    }
    unsigned acCodes[HUFF_AC_SYMBOLS];
    unsigned char acLengths[HUFF_AC_SYMBOLS];
    if (acCounts == nullptr || acSymbols == nullptr || acSymbolCount != HUFF_AC_SYMBOLS ||
        canonicalCodes(acCounts, HUFF_AC_SYMBOLS, acCodes, acLengths) != HUFF_AC_SYMBOLS) {
        LOG_DEBUG("AC table does not yield %d codes", HUFF_AC_SYMBOLS);
        return HUFF_ERROR_AC_COUNT;
    }
    bool assigned[HUFF_AC_SYMBOLS] = {};
    for (int i = 0; i < HUFF_AC_SYMBOLS; ++i) {
        int idx = huffAcSymbolIndex(acSymbols[i]);
        if (idx < 0) {
            LOG_DEBUG("AC symbol 0x%02X out of range", acSymbols[i]);
            memset(aiACLength, 0, sizeof(aiACLength));
            return HUFF_ERROR_AC_SYMBOL_RANGE;
        }
        if (assigned[idx]) {
            LOG_DEBUG("AC symbol 0x%02X assigned twice", acSymbols[i]);
            memset(aiACLength, 0, sizeof(aiACLength));
            return HUFF_ERROR_AC_ASSIGNMENT;
        }
        assigned[idx] = true;
        aiACCode[idx] = acCodes[i];
        aiACLength[idx] = acLengths[i];
    }
    // 162 distinct valid symbols cover all 162 slots; kept as a guard.
    for (int i = 0; i < HUFF_AC_SYMBOLS; ++i) {
        if (!assigned[i]) {
            memset(aiACLength, 0, sizeof(aiACLength));
            return HUFF_ERROR_AC_ASSIGNMENT;
        }
    }

    for (int c = 0; c < HUFF_DC_CATEGORIES; ++c) {
        aiDCCode[c] = dcCodes[c];
        aiDCLength[c] = dcLengths[c];
        int len = dcLengths[c];
        if (len <= HUFF_DC_LOOKUP_BITS) {
            unsigned first = dcCodes[c] << (HUFF_DC_LOOKUP_BITS - len);
            unsigned n = 1u << (HUFF_DC_LOOKUP_BITS - len);
            for (unsigned j = 0; j < n; ++j) aDCLookup[first + j] = (unsigned char)(c << 4 | len);
        }
    }
    for (int i = 0; i < HUFF_AC_SYMBOLS; ++i) {
        unsigned rs = acSymbols[i];
        int len = acLengths[i];
        unsigned first = acCodes[i] << (HUFF_MAX_CODE_LENGTH - len);
        unsigned n = 1u << (HUFF_MAX_CODE_LENGTH - len);
        uint16_t entry = (uint16_t)(rs << 8 | (unsigned)len);
        for (unsigned j = 0; j < n; ++j) ac[first + j] = entry;
    }
    return 0;
}

int HuffCodec::FindDC(unsigned peek16, int* len) const {
    for (int c = 0; c < HUFF_DC_CATEGORIES; ++c) {
        int l = aiDCLength[c];
        if (l > 0 && (peek16 >> (HUFF_MAX_CODE_LENGTH - l)) == aiDCCode[c]) {
            *len = l;
            return c;
        }
    }
    return -1;
}
