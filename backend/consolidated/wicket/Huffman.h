// Entropy decoding of the Wicket codec: the two table pairs (luminance for
// plane 0, chrominance for planes 1 and 2) and the bit reader over one chunk.
#ifndef QUARTO_HUFFMAN_H
#define QUARTO_HUFFMAN_H

#include <cstdint>
#include <cstring>

#include "HuffCodec.h"

const int HUFF_ERROR_NO_CODE = 261;         // no code matches the next bits
const int HUFF_ERROR_DATA_EXHAUSTED = 513;  // the data ran out before the bits needed
const int HUFF_PEEK_BITS = 16;              // look-ahead every symbol needs
const unsigned char STUFFED_BYTE = 0xFF;    // with byte stuffing, the byte after it is skipped

// Reader state. The accumulator holds iBits valid bits, most significant first;
// bits below them are either zero or copies of the next input bits.
struct HuffBitState {
    const unsigned char* pNext = nullptr;  // next byte not yet shifted in
    const unsigned char* pEnd = nullptr;
    uint64_t uAccumulator = 0;
    int iBits = 0;
    int iStuffedData = 0;
    long iSkipped = 0;  // stuffing bytes passed over
};

// Shifts whole bytes in, most significant bit first, until more than 56 bits are
// held or the data ends. A byte 0xFF with stuffing on swallows the byte after it.
inline void huffRefillChecked(HuffBitState& s) {
    if (s.iBits > 56) return;
    s.uAccumulator = s.iBits ? (s.uAccumulator & (~0ull << (64 - s.iBits))) : 0;
    while (s.iBits <= 56 && s.pNext < s.pEnd) {
        unsigned b = *s.pNext++;
        if (b == STUFFED_BYTE && s.iStuffedData && s.pNext < s.pEnd) {
            ++s.pNext;
            ++s.iSkipped;
        }
        s.uAccumulator |= (uint64_t)b << (56 - s.iBits);
        s.iBits += 8;
    }
}

inline uint64_t huffLoadBE64(const unsigned char* p) {
    uint64_t v;
    memcpy(&v, p, 8);
    return __builtin_bswap64(v);
}

inline bool huffHasStuffedByte(uint64_t v) {
    uint64_t t = ~v;
    return ((t - 0x0101010101010101ull) & ~t & 0x8080808080808080ull) != 0;
}

// Refill for the decoder's fast path: the caller guarantees that at least
// HUFF_FAST_MARGIN bytes follow pNext, so eight bytes are loaded at once unless
// one of them needs stuffing treatment. STUFFED must match s.iStuffedData.
const long HUFF_FAST_MARGIN = 512;
template <bool STUFFED>
inline void huffRefillFast(HuffBitState& s) {
    uint64_t v = huffLoadBE64(s.pNext);
    if (!STUFFED || !huffHasStuffedByte(v)) {
        s.uAccumulator |= v >> s.iBits;
        s.pNext += (63 - s.iBits) >> 3;
        s.iBits |= 56;
    } else {
        huffRefillChecked(s);
    }
}

// JPEG value extension: n bits v with a top bit of 0 stand for v - (2^n - 1).
// Without a branch: the sign of v - 2^(n-1) selects the correction.
inline int huffExtend(unsigned v, int n) {
    int32_t below = int32_t(v - (1u << (n - 1))) >> 31;
    return int32_t(v) + (below & (int32_t(~0u << n) + 1));
}

// Takes the next n (0..16) bits of the accumulator as a JPEG value, without a
// branch: the top bit (set for positive values) decides whether 2^n - 1 is
// subtracted; n = 0 gives 0.
inline int huffTakeValue(uint64_t& acc, int n) {
    int32_t positive = int32_t(int64_t(acc) >> 63);
    int32_t v = int32_t((acc >> 1) >> (63 - n));
    acc <<= n;
    return v + (~positive & (int32_t(~0u << n) + 1));
}

class Huffman {
public:
    Huffman();

    // Builds both table pairs from Annex K; 0 or the table error code.
    int Init();
    const HuffCodec& Codec(int plane) const { return plane == 0 ? m_Luminance : m_Chrominance; }

    void SetInput(const unsigned char* data, int len);
    // One DC difference: 0, HUFF_ERROR_NO_CODE or HUFF_ERROR_DATA_EXHAUSTED.
    int DecodeDC(const HuffCodec& codec, int* diff);
    // One AC symbol with its value (0 for end of block and the run of 16).
    int DecodeAC(const HuffCodec& codec, unsigned* symbol, int* value);
    int DecodeVLI(int n, int* value);
    // Bits taken by symbols and values since SetInput.
    long GetBitsUsed() const;

    HuffCodec m_Luminance;
    HuffCodec m_Chrominance;
    HuffBitState m_State;
    const unsigned char* pInputStart = nullptr;
    int iStuffedData = 0;

private:
    int need(int n);
};

#endif
