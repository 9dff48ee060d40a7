#include "Huffman.h"

Huffman::Huffman() = default;

int Huffman::Init() {
    int rc = m_Luminance.Build(ANNEXK_DC_LUMINANCE_COUNTS, ANNEXK_AC_LUMINANCE_COUNTS,
                               ANNEXK_AC_LUMINANCE_SYMBOLS, HUFF_AC_SYMBOLS);
    if (rc != 0) return rc;
    return m_Chrominance.Build(ANNEXK_DC_CHROMINANCE_COUNTS, ANNEXK_AC_CHROMINANCE_COUNTS,
                               ANNEXK_AC_CHROMINANCE_SYMBOLS, HUFF_AC_SYMBOLS);
}

void Huffman::SetInput(const unsigned char* data, int len) {
    m_State = HuffBitState();
    if (data == nullptr || len < 0) len = 0;
    pInputStart = data;
    m_State.pNext = data;
    m_State.pEnd = data ? data + len : data;
    m_State.iStuffedData = iStuffedData;
}

long Huffman::GetBitsUsed() const {
    long loaded = (long)(m_State.pNext - pInputStart) - m_State.iSkipped;
    return loaded * 8 - m_State.iBits;
}

int Huffman::need(int n) {
    if (m_State.iBits < n) huffRefillChecked(m_State);
    return m_State.iBits < n ? HUFF_ERROR_DATA_EXHAUSTED : 0;
}

int Huffman::DecodeVLI(int n, int* value) {
    *value = 0;
    if (n <= 0) return 0;
    if (need(n) != 0) return HUFF_ERROR_DATA_EXHAUSTED;
    unsigned v = unsigned(m_State.uAccumulator >> (64 - n));
    m_State.uAccumulator <<= n;
    m_State.iBits -= n;
    *value = huffExtend(v, n);
    return 0;
}

int Huffman::DecodeDC(const HuffCodec& codec, int* diff) {
    *diff = 0;
    if (need(HUFF_PEEK_BITS) != 0) return HUFF_ERROR_DATA_EXHAUSTED;
    int len = 0;
    int category = codec.DecodeDC(unsigned(m_State.uAccumulator >> 48), &len);
    if (category < 0) return HUFF_ERROR_NO_CODE;
    m_State.uAccumulator <<= len;
    m_State.iBits -= len;
    return DecodeVLI(category, diff);
}

int Huffman::DecodeAC(const HuffCodec& codec, unsigned* symbol, int* value) {
    *symbol = 0;
    *value = 0;
    if (need(HUFF_PEEK_BITS) != 0) return HUFF_ERROR_DATA_EXHAUSTED;
    unsigned e = codec.ACLookup()[m_State.uAccumulator >> 48];
    if (e == 0) return HUFF_ERROR_NO_CODE;
    int len = int(e & 0x1F);
    m_State.uAccumulator <<= len;
    m_State.iBits -= len;
    *symbol = e >> 8;
    return DecodeVLI(int(*symbol & 0x0F), value);
}
