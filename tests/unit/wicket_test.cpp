// The Wicket codec: tables, entropy decoding, the transforms and their vector
// forms, band decoding against the plain reference decoder, the chunk
// decompressor's ring buffer and the quarto-wicket tool.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "DecompWicket.h"
#include "HuffCodec.h"
#include "Wicket.h"
#include "WicketEncoder.h"
#include "WicketKernels.h"
#include "WicketReference.h"
#include "jfdctint.h"
#include "jidctint.h"
#include "testutil.h"
#include "util.h"

namespace {

using Bytes = std::vector<uint8_t>;

// ITU T.81 Annex K.1 and K.2, natural order.
const int K1_LUMINANCE[64] = {
    0x10, 0x0b, 0x0a, 0x10, 0x18, 0x28, 0x33, 0x3d, 0x0c, 0x0c, 0x0e, 0x13, 0x1a, 0x3a, 0x3c, 0x37,
    0x0e, 0x0d, 0x10, 0x18, 0x28, 0x39, 0x45, 0x38, 0x0e, 0x11, 0x16, 0x1d, 0x33, 0x57, 0x50, 0x3e,
    0x12, 0x16, 0x25, 0x38, 0x44, 0x6d, 0x67, 0x4d, 0x18, 0x23, 0x37, 0x40, 0x51, 0x68, 0x71, 0x5c,
    0x31, 0x40, 0x4e, 0x57, 0x67, 0x79, 0x78, 0x65, 0x48, 0x5c, 0x5f, 0x62, 0x70, 0x64, 0x67, 0x63};
const int K2_CHROMINANCE[64] = {
    0x11, 0x12, 0x18, 0x2f, 0x63, 0x63, 0x63, 0x63, 0x12, 0x15, 0x1a, 0x42, 0x63, 0x63, 0x63, 0x63,
    0x18, 0x1a, 0x38, 0x63, 0x63, 0x63, 0x63, 0x63, 0x2f, 0x42, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63,
    0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63,
    0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63, 0x63};

// Test-side bit string to bytes: '0'/'1' characters, the last byte filled with
// 1 bits, a 0x00 inserted after every 0xFF when stuffing, then lookahead zeros.
Bytes bitsToBytes(const std::string& bits, bool stuffing, int lookahead = 2) {
    std::string b = bits;
    while (b.size() % 8) b += '1';
    Bytes out;
    for (size_t i = 0; i < b.size(); i += 8) {
        uint8_t v = uint8_t(std::stoi(b.substr(i, 8), nullptr, 2));
        out.push_back(v);
        if (stuffing && v == 0xFF) out.push_back(0x00);
    }
    out.insert(out.end(), size_t(lookahead), 0x00);
    return out;
}

std::string repeatBits(const std::string& s, int n) {
    std::string r;
    for (int i = 0; i < n; ++i) r += s;
    return r;
}

// A scan-like test image: gradients, a ripple, sharp dark strokes and noise.
Bytes makeImage(int width, int height, int channels, unsigned seed, int noiseLevel = 12) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> noise(-noiseLevel, noiseLevel);
    Bytes img(size_t(width) * height * channels);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < channels; ++c) {
                int v = 60 + (x * 150) / (width + 1) + (y * 40) / (height + 1) + ((x / 3 + y / 5 + c * 7) % 17) * 2;
                if ((x / 6 + y / 9) % 5 == 0 && x % 6 < 2) v = 20 + 10 * c;  // strokes
                v += noise(rng);
                img[(size_t(y) * width + x) * channels + c] = uint8_t(v < 0 ? 0 : v > 255 ? 255 : v);
            }
    return img;
}

struct Decoded {
    int rc = 0, produced = 0, used = 0;
    Bytes out;
};

Decoded decodeWithLibrary(Wicket& w, const Bytes& data, int width, int height, int planes) {
    Decoded d;
    d.out.assign(size_t(width) * height * planes, 0xCD);
    d.rc = planes == 3 ? w.DecompressThreePlanes(data.data(), int(data.size()), d.out.data(), long(d.out.size()),
                                                 width, height, &d.produced, &d.used)
                       : w.DecompressOnePlane(data.data(), int(data.size()), d.out.data(), long(d.out.size()), width,
                                              height, &d.produced, &d.used);
    return d;
}

Decoded decodeWithReference(bool stuffing, int quality, const Bytes& data, int width, int height, int planes) {
    wicketref::Decoder ref(stuffing);
    ref.setQuality(quality, quality);
    Decoded d;
    d.out.assign(size_t(width) * height * planes, 0xCD);
    long bits = 0;
    d.rc = ref.decode(data.data(), int(data.size()), d.out.data(), width, height, planes, &d.produced, &bits);
    d.used = int(planes == 3 ? ((bits + 511) / 512) * 64 : ((bits + 511) / 64) * 512);
    return d;
}

void expectSame(const Decoded& lib, const Decoded& ref, const std::string& what) {
    EXPECT_EQ(lib.rc, ref.rc) << what;
    EXPECT_EQ(lib.produced, ref.produced) << what;
    EXPECT_EQ(lib.used, ref.used) << what;
    ASSERT_EQ(lib.out.size(), ref.out.size()) << what;
    size_t first = 0;
    while (first < lib.out.size() && lib.out[first] == ref.out[first]) ++first;
    EXPECT_EQ(first, lib.out.size()) << what << ": first differing byte " << first;
}

// Test names from the case's name field.
const auto byName = [](const auto& info) { return std::string(info.param.name); };

Bytes chunkData(const Bytes& chunk) { return Bytes(chunk.begin() + WICKET_HEADER_SIZE, chunk.end()); }

// ------------------------------------------------------------------ tables

TEST(WicketTables, QualityFiftyIsAnnexKAndConstructionUsesEighty) {
    Wicket w(1);
    EXPECT_EQ(w.iStatus, 0);
    EXPECT_EQ(w.m_aiLuminanceDequantTable[0], 6);  // quality 80
    w.QualityFactor(50, 100);
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(w.m_aiLuminanceDequantTable[i], K1_LUMINANCE[i]) << i;
        EXPECT_EQ(w.m_aiChrominanceDequantTable[i], 1) << i;
    }
    w.QualityFactor(100, 50);
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(w.m_aiChrominanceDequantTable[i], K2_CHROMINANCE[i]) << i;
        EXPECT_EQ(w.m_aiLuminanceDequantTable[i], 1) << i;
    }
}

struct CodeCase {
    bool chroma, dc;
    unsigned symbol;
    const char* code;
};
class CanonicalCodes : public ::testing::TestWithParam<CodeCase> {};

TEST_P(CanonicalCodes, MatchAnnexKCodeTables) {
    const CodeCase& c = GetParam();
    Huffman h;
    ASSERT_EQ(h.Init(), 0);
    const HuffCodec& codec = c.chroma ? h.m_Chrominance : h.m_Luminance;
    int len = int(strlen(c.code));
    unsigned code = unsigned(std::stoul(c.code, nullptr, 2));
    if (c.dc) {
        EXPECT_EQ(codec.aiDCLength[c.symbol], len);
        EXPECT_EQ(codec.aiDCCode[c.symbol], code);
        unsigned peek = (code << (16 - len)) | ((1u << (16 - len)) - 1);  // any continuation
        if (len <= 8) {
            EXPECT_EQ(codec.aDCLookup[peek >> 8], c.symbol << 4 | unsigned(len));
        } else {
            int l = 0;
            EXPECT_EQ(codec.aDCLookup[peek >> 8], 0u);
            EXPECT_EQ(codec.FindDC(peek, &l), int(c.symbol));
            EXPECT_EQ(l, len);
        }
    } else {
        int idx = huffAcSymbolIndex(c.symbol);
        ASSERT_GE(idx, 0);
        EXPECT_EQ(codec.aiACLength[idx], len);
        EXPECT_EQ(codec.aiACCode[idx], code);
        unsigned first = code << (16 - len), last = first | ((1u << (16 - len)) - 1);
        EXPECT_EQ(codec.ACLookup()[first], c.symbol << 8 | unsigned(len));
        EXPECT_EQ(codec.ACLookup()[last], c.symbol << 8 | unsigned(len));
    }
}

INSTANTIATE_TEST_SUITE_P(
    AnnexK, CanonicalCodes,
    ::testing::Values(CodeCase{false, true, 0, "00"}, CodeCase{false, true, 6, "1110"},
                      CodeCase{false, true, 11, "111111110"}, CodeCase{true, true, 2, "10"},
                      CodeCase{true, true, 11, "11111111110"}, CodeCase{false, false, 0x00, "1010"},
                      CodeCase{false, false, 0x82, "111111111000000"}, CodeCase{false, false, 0xFA, "1111111111111110"},
                      CodeCase{true, false, 0x01, "01"}, CodeCase{true, false, 0xF0, "1111111010"}));

struct TableErrorCase {
    const char* name;
    int expected;
};
class TableErrors : public ::testing::TestWithParam<TableErrorCase> {};

TEST_P(TableErrors, ReportTheirCode) {
    std::string name = GetParam().name;
    unsigned char dc[16], ac[16], sym[HUFF_AC_SYMBOLS];
    memcpy(dc, ANNEXK_DC_LUMINANCE_COUNTS, 16);
    memcpy(ac, ANNEXK_AC_LUMINANCE_COUNTS, 16);
    memcpy(sym, ANNEXK_AC_LUMINANCE_SYMBOLS, sizeof(sym));
    if (name == "dc11") dc[8] = 0;                     // 11 DC codes
    if (name == "dcOverfull") dc[0] = 3;               // three codes of length 1 cannot exist
    if (name == "ac161") ac[15] = 0x7c;                // 161 AC codes
    if (name == "acTwice") sym[5] = sym[6];            // one symbol twice, one never
    if (name == "acSize11") sym[161] = 0x0B;           // size 11 has no slot
    if (name == "acRunNoSize") sym[161] = 0x10;        // run 1, size 0 has no slot
    HuffCodec codec;
    EXPECT_EQ(codec.Build(dc, ac, sym, HUFF_AC_SYMBOLS), GetParam().expected);
    if (GetParam().expected != 0) {
        EXPECT_EQ(codec.ACLookup()[0], 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, TableErrors,
                         ::testing::Values(TableErrorCase{"annexK", 0}, TableErrorCase{"dc11", 257},
                                           TableErrorCase{"dcOverfull", 257}, TableErrorCase{"ac161", 258},
                                           TableErrorCase{"acTwice", 259}, TableErrorCase{"acSize11", 1},
                                           TableErrorCase{"acRunNoSize", 1}),
                         byName);

// ------------------------------------------------------- hand-made streams

// Grey band of two blocks, quality 100 (every dequantisation entry 1):
// block 1: DC category 11 "111111110", value 1024 "10000000000", EOB "1010";
// block 2: DC category 10 "11111110", value -1023 "0000000000", EOB "1010".
// Block 1 is flat 128 + 128 -> 255; block 2 has DC 1 -> flat 128.
const Bytes TWO_BLOCKS_STUFFED = {0xFF, 0x00, 0x40, 0x0A, 0xFE, 0x00, 0x2B, 0x00, 0x00};

TEST(WicketStreams, ByteStuffingSkipsTheByteAfterFF) {
    // 16 pixels is a valid one-plane width only with stuffing (else 48: four
    // more flat blocks, DC 0 "00" and EOB "1010", follow the two).
    const Bytes plain = bitsToBytes("111111110" "10000000000" "1010" "11111110" "0000000000" "1010" +
                                        repeatBits("00" "1010", 4), false);
    for (int stuffing = 0; stuffing < 2; ++stuffing) {
        Wicket w(stuffing);
        w.QualityFactor(100);
        int width = stuffing ? 16 : 48;
        Decoded d = decodeWithLibrary(w, stuffing ? TWO_BLOCKS_STUFFED : plain, width, 8, 1);
        ASSERT_EQ(d.rc, 0) << stuffing;
        EXPECT_EQ(d.produced, width * 8);
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 16; ++x) EXPECT_EQ(d.out[y * width + x], x < 8 ? 0xFF : 0x80) << x << "," << y;
        if (stuffing) {
            EXPECT_EQ(d.used, 4096);  // 46 bits on the one-plane scale: ((46 + 511) / 64) * 512
        }
    }
}

// One colour MCU, quality 100: Y DC 80 (category 7 "11110", "1010000", EOB
// "1010"), Cb DC -160 (category 8 "11111110", "01011111", EOB "00"), Cr DC 240
// ("11111110", "11110000", EOB "00"). Samples Y 10, Cb -20, Cr 30 give
// R = (138*1024 + 1436*30 + 128) >> 10 = 180, G = 123, B = 102 (103 with a
// rounding adder of 512: the 128 is what the format uses).
const Bytes ONE_MCU = {0xF5, 0x0A, 0xFE, 0x5F, 0x3F, 0xBC, 0x0F, 0x00, 0x00};

TEST(WicketStreams, ThreePlaneColourFormulaAndDcPredictionPerPlaneRestartingEveryBand) {
    // ONE_MCU, then a second MCU of zero DC differences ("00", EOB) that must
    // show the same colour; decoding twice gives the same band.
    Bytes data = bitsToBytes("11110" "1010000" "1010" "11111110" "01011111" "00" "11111110" "11110000" "00"
                             "00" "1010" "00" "00" "00" "00", true);
    for (int level = WICKET_SIMD_SCALAR; level <= WICKET_SIMD_AVX2; ++level) {
        Wicket w(1);
        w.SetSimdLevel(level);
        w.QualityFactor(100);
        for (int round = 0; round < 2; ++round) {
            Decoded d = decodeWithLibrary(w, data, 16, 8, 3);
            ASSERT_EQ(d.rc, 0);
            EXPECT_EQ(d.produced, 384);
            EXPECT_EQ(d.used, 64);  // 66 bits on the three-plane scale: ((66 + 511) / 512) * 64
            for (int i = 0; i < 128; ++i) {
                ASSERT_EQ(d.out[3 * i], 0xB4) << level << ":" << round << ":" << i;
                ASSERT_EQ(d.out[3 * i + 1], 0x7B) << level << ":" << round << ":" << i;
                ASSERT_EQ(d.out[3 * i + 2], 0x66) << level << ":" << round << ":" << i;
            }
        }
    }
}

struct BlockCase {
    const char* name;
    std::string bits;  // after a DC of category 0
    int rc;
    std::vector<std::pair<int, int>> coefs;  // zig-zag index, value
};
class BlockDecoding : public ::testing::TestWithParam<BlockCase> {};

TEST_P(BlockDecoding, CoefficientsAndOverruns) {
    const BlockCase& c = GetParam();
    // Then a flat block (DC 0, EOB) so a missing EOB would be noticed.
    Bytes data = bitsToBytes("00" + c.bits + "00" "1010", true);
    Wicket w(1);
    w.QualityFactor(100);
    w.m_Huff.SetInput(data.data(), int(data.size()));
    int samples[64];
    ASSERT_EQ(w.DecompressBlock(samples, 0), c.rc);
    if (c.rc != 0) return;
    int32_t coef[64] = {}, expected[64];
    for (auto& zc : c.coefs) coef[wicketref::zigzag()[zc.first]] = zc.second;
    wicketref::idct(coef, expected);
    for (int i = 0; i < 64; ++i) EXPECT_EQ(samples[i], expected[i]) << i;
    ASSERT_EQ(w.DecompressBlock(samples, 0), 0);
    for (int i = 0; i < 64; ++i) EXPECT_EQ(samples[i], 0);
}

std::vector<std::pair<int, int>> allOnes() {
    std::vector<std::pair<int, int>> v;
    for (int k = 1; k < 64; ++k) v.push_back({k, 1});
    return v;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BlockDecoding,
    ::testing::Values(
        // 0/1 "00" + "1" on all 63 positions: no EOB follows a full block.
        BlockCase{"all63", repeatBits("001", 63), 0, allOnes()},
        // Three runs of 16 ("11111111001"), then 0/1 "00" value -1 "0" at 49, EOB.
        BlockCase{"zrl", repeatBits("11111111001", 3) + "00" "0" "1010", 0, {{49, -1}}},
        // 0/2 "01" value 3 "11" at 1, 5/1 "1111010" value 1 at 7, EOB.
        BlockCase{"run", "01" "11" "1111010" "1" "1010", 0, {{1, 3}, {7, 1}}},
        // Four runs of 16 from position 1 reach 65.
        BlockCase{"zrlOverrun", repeatBits("11111111001", 4), 771, {}},
        // 3 x 16 zeros, then 15 more plus a value lands at 64.
        BlockCase{"runOverrun", repeatBits("11111111001", 3) + "1111111111110101" "1", 771, {}},
        // Sixteen 1 bits: no AC code.
        BlockCase{"noCode", "1111111111111111", 261, {}}),
    byName);

TEST(WicketStreams, RunningOutOfDataIs513AtEveryLength) {
    // The two-block band cut short anywhere, the 16 look-ahead bits included.
    for (size_t len = 0; len < TWO_BLOCKS_STUFFED.size(); ++len) {
        Wicket w(1);
        w.QualityFactor(100);
        Bytes cut(TWO_BLOCKS_STUFFED.begin(), TWO_BLOCKS_STUFFED.begin() + long(len));
        Decoded d = decodeWithLibrary(w, cut, 16, 8, 1);
        EXPECT_EQ(d.rc, 513) << len;
        EXPECT_EQ(d.produced, 0) << len;
        expectSame(d, decodeWithReference(true, 100, cut, 16, 8, 1), "length " + std::to_string(len));
    }
    // A long band (fast path) cut at many places.
    Bytes img = makeImage(256, 32, 3, 7);
    Bytes chunk = chunkData(wicketEncodeBand(img.data(), 256, 32, 256 * 3, 3, 75, true));
    for (size_t len = 0; len < chunk.size(); len += 97) {
        Wicket w(1);
        w.QualityFactor(75);
        Bytes cut(chunk.begin(), chunk.begin() + long(len));
        Decoded d = decodeWithLibrary(w, cut, 256, 32, 3);
        EXPECT_EQ(d.rc, 513);
        expectSame(d, decodeWithReference(true, 75, cut, 256, 32, 3), "cut " + std::to_string(len));
    }
}

struct GeometryCase {
    int stuffing, planes, width, height, rc;
};
class Geometry : public ::testing::TestWithParam<GeometryCase> {};

TEST_P(Geometry, ChecksHeightThenWidth) {
    const GeometryCase& c = GetParam();
    Wicket w(c.stuffing);
    Bytes data(4096, 0x00), out(size_t(c.width > 0 ? c.width : 1) * (c.height > 0 ? c.height : 1) * c.planes);
    int produced, used;
    int rc = c.planes == 3 ? w.DecompressThreePlanes(data.data(), 4096, out.data(), long(out.size()), c.width,
                                                     c.height, &produced, &used)
                           : w.DecompressOnePlane(data.data(), 4096, out.data(), long(out.size()), c.width, c.height,
                                                  &produced, &used);
    // Data of zeros decodes (DC 0 and 0/1 values) until it runs out.
    if (c.rc == 0)
        EXPECT_TRUE(rc == 0 || rc == 513 || rc == 771) << rc;
    else
        EXPECT_EQ(rc, c.rc);
}

INSTANTIATE_TEST_SUITE_P(Cases, Geometry,
                         ::testing::Values(GeometryCase{1, 3, 8, 12, 770}, GeometryCase{1, 3, 12, 8, 769},
                                           GeometryCase{1, 3, 12, 12, 770}, GeometryCase{1, 1, 8, -8, 770},
                                           GeometryCase{1, 1, 104, 8, 0}, GeometryCase{0, 3, 24, 8, 769},
                                           GeometryCase{0, 1, 32, 8, 769}, GeometryCase{1, 1, 0, 8, 0}));

TEST(WicketStreams, OutputTooSmallIsRefusedBeforeDecoding) {
    Wicket w(1);
    Bytes out(8 * 8 * 3 - 1, 0xCD);
    int produced, used;
    EXPECT_EQ(w.DecompressThreePlanes(ONE_MCU.data(), int(ONE_MCU.size()), out.data(), long(out.size()), 8, 8,
                                      &produced, &used),
              769);
    EXPECT_EQ(out[0], 0xCD);
    EXPECT_EQ(w.DecompressOnePlane(ONE_MCU.data(), 9, nullptr, 0, 8, 8, &produced, &used), 769);
    // The forms without a size trust the geometry, but not one no buffer can hold.
    Bytes data = ONE_MCU;
    Bytes big(8 * 8 * 3, 0xCD);
    w.QualityFactor(100);
    EXPECT_EQ(w.DecompressThreePlanes(data.data(), int(data.size()), big.data(), 8, 8, &produced, &used), 0);
    EXPECT_EQ(big[0], 0xB4);
    EXPECT_EQ(w.DecompressThreePlanes(data.data(), int(data.size()), big.data(), 0x7FFFFFF8, 0x7FFFFFF8, &produced,
                                      &used),
              769);
    EXPECT_EQ(w.DecompressOnePlane(data.data(), int(data.size()), big.data(), 0x40000000, 16, &produced, &used), 769);
}

// ------------------------------------------- fast paths against the reference

struct PathCase {
    int level;
    bool stuffing;
    int planes;
};
class FastPaths : public ::testing::TestWithParam<PathCase> {
protected:
    void check(const Bytes& data, int width, int height, int quality, const std::string& what) {
        const PathCase& c = GetParam();
        Wicket w(c.stuffing ? 1 : 0);
        w.SetSimdLevel(c.level);
        w.QualityFactor(quality);
        expectSame(decodeWithLibrary(w, data, width, height, c.planes),
                   decodeWithReference(c.stuffing, quality, data, width, height, c.planes), what);
    }
    int alignedWidth(int w) const {
        int a = GetParam().stuffing ? 8 : GetParam().planes == 3 ? 16 : 48;
        return (w + a - 1) / a * a;
    }
};

TEST_P(FastPaths, EncodedImagesMatchTheReference) {
    const PathCase& c = GetParam();
    const int widths[] = {48, 96, 200, 336};
    const int qualities[] = {1, 30, 75, 100};
    unsigned seed = 1;
    for (int width : widths)
        for (int q : qualities) {
            Bytes img = makeImage(width, 40, c.planes, seed++);
            Bytes data = chunkData(wicketEncodeBand(img.data(), width, 40, long(width) * c.planes, c.planes, q,
                                                    c.stuffing));
            check(data, alignedWidth(width), 40, q, "width " + std::to_string(width) + " q " + std::to_string(q));
        }
}

INSTANTIATE_TEST_SUITE_P(Levels, FastPaths,
                         ::testing::Values(PathCase{WICKET_SIMD_SCALAR, true, 3}, PathCase{WICKET_SIMD_SSE2, true, 3},
                                           PathCase{WICKET_SIMD_AVX2, true, 3}, PathCase{WICKET_SIMD_SSE2, true, 1},
                                           PathCase{WICKET_SIMD_AVX2, true, 1}, PathCase{WICKET_SIMD_AVX2, false, 3},
                                           PathCase{WICKET_SIMD_AVX2, false, 1}, PathCase{WICKET_SIMD_SSE2, false, 1}),
                         [](const ::testing::TestParamInfo<PathCase>& i) {
                             return "level" + std::to_string(i.param.level) + (i.param.stuffing ? "_stuffed" : "_plain") +
                                    (i.param.planes == 3 ? "_colour" : "_grey");
                         });

// ------------------------------------------------------------- the kernels

class Kernels : public ::testing::TestWithParam<int> {};

// Coefficient blocks within the kernels' range: random, sparse, and sign
// patterns that drive single outputs of the first pass to their extremes.
std::vector<std::vector<int32_t>> kernelBlocks() {
    std::vector<std::vector<int32_t>> blocks;
    std::mt19937 rng(5);
    for (int i = 0; i < 400; ++i) {
        std::vector<int32_t> b(64, 0);
        for (int k = 0; k < 64; ++k) {
            if (i % 3 == 0 || rng() % 5 == 0) b[k] = int32_t(rng() % 2048) - 1024;
        }
        blocks.push_back(b);
    }
    for (int sign = 0; sign < 16; ++sign) {
        std::vector<int32_t> b(64);
        for (int k = 0; k < 64; ++k) {
            int row = k / 8, col = k % 8;
            bool neg = ((sign >> (row % 4)) ^ (col * sign)) & 1;
            b[k] = neg ? -1024 : 1023;
        }
        blocks.push_back(b);
    }
    blocks.push_back(std::vector<int32_t>(64, -1024));
    blocks.push_back(std::vector<int32_t>(64, 1023));
    return blocks;
}

TEST_P(Kernels, InverseDctMatchesTheReferenceBitForBit) {
    const WicketKernels& k = wicketKernels(GetParam());
    const std::vector<int32_t> zero(64, 0);
    auto clamp = [](int v) { return v < 0 ? 0 : v > 255 ? 255 : v; };
    auto blocks = kernelBlocks();
    for (size_t i = 0; i + 1 < blocks.size(); i += 2) {
        int32_t ref[2][64];
        wicketref::idct(blocks[i].data(), ref[0]);
        wicketref::idct(blocks[i + 1].data(), ref[1]);
        int16_t s16[2][8 * 24], single[64];
        uint8_t u8[2][8 * 24], singleU8[64];
        // Each kernel clears the coefficients it read: every call gets copies.
        auto a = blocks[i], b = blocks[i + 1];
        k.idctS16Pair(a.data(), b.data(), s16[0] + 3, s16[1] + 5, 24);
        EXPECT_TRUE(a == zero && b == zero) << i;
        a = blocks[i], b = blocks[i + 1];
        k.idctU8Pair(a.data(), b.data(), u8[0] + 3, u8[1] + 5, 24);
        EXPECT_EQ(b, zero) << i;
        a = blocks[i], b = blocks[i + 1];
        k.idctS16(a.data(), single, 8);
        k.idctU8(b.data(), singleU8, 8);
        EXPECT_EQ(a, zero) << i;
        for (int p = 0; p < 64; ++p) {
            int at = (p / 8) * 24 + p % 8;
            ASSERT_EQ(s16[0][at + 3], ref[0][p]) << i << ":" << p;
            ASSERT_EQ(s16[1][at + 5], ref[1][p]) << i << ":" << p;
            ASSERT_EQ(single[p], ref[0][p]) << i << ":" << p;
            ASSERT_EQ(u8[0][at + 3], clamp(ref[0][p] + 128)) << i << ":" << p;
            ASSERT_EQ(u8[1][at + 5], clamp(ref[1][p] + 128)) << i << ":" << p;
            ASSERT_EQ(singleU8[p], clamp(ref[1][p] + 128)) << i << ":" << p;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Levels, Kernels, ::testing::Values(WICKET_SIMD_SCALAR, WICKET_SIMD_SSE2, WICKET_SIMD_AVX2));

TEST(WicketTransforms, ScalarInverseDctWrapsLikeTheReferenceForAnyInput) {
    std::mt19937 rng(3);
    for (int i = 0; i < 2000; ++i) {
        int32_t in[64], ref[64];
        int out[64];
        for (int k = 0; k < 64; ++k) {
            uint32_t r = rng();
            in[k] = i % 4 == 0 ? int32_t(r) : i % 4 == 1 ? int32_t(r % 600000) - 300000 : (r % 3 ? 0 : INT32_MIN);
        }
        wicketref::idct(in, ref);
        jpeg_idct(reinterpret_cast<int*>(in), out);
        for (int k = 0; k < 64; ++k) ASSERT_EQ(out[k], ref[k]) << i << ":" << k;
    }
}

// ------------------------------------------------------ chunk decompressor

Bytes makeChunk(int width, int height, int channels, int quality, bool stuffing, unsigned seed) {
    Bytes img = makeImage(width, height, channels, seed);
    return wicketEncodeBand(img.data(), width, height, long(width) * channels, channels, quality, stuffing);
}

TEST(DecompWicketRing, HeaderAndDataAreReadAcrossTheWrapAtEveryOffset) {
    Bytes chunk = makeChunk(24, 16, 3, 75, true, 3);
    const int C = int(chunk.size());
    Bytes expected(24 * 16 * 3);
    {
        CDecompWicket direct(1);
        direct.StartDecomp(24, 16, 3, 24);
        int consumed, produced;
        ASSERT_EQ(direct.Decomp(chunk.data(), C, &consumed, expected.data(), int(expected.size()), &produced),
                  CDecomp::DECOMP_LINE_COMPLETED);
    }
    const int N = C + 20;
    for (int start = WICKET_HEADER_SIZE; start < N; ++start) {
        CDecompWicket dec(1);
        dec.StartDecomp(24, 16, 3, 24);
        Bytes ring(N, 0xEE), out(24 * 16 * 3, 0);
        // A spacer chunk of no pixels moves the read position to start.
        wicketPutHeader(ring.data(), uint32_t(start), 0, 0, 75);
        int consumed = -1, produced = -1;
        ASSERT_EQ(dec.Decomp(ring.data(), N, &consumed, out.data(), int(out.size()), &produced),
                  CDecomp::DECOMP_LINE_COMPLETED);
        EXPECT_EQ(consumed, start);
        EXPECT_EQ(produced, 0);
        for (int i = 0; i < C; ++i) ring[(start + i) % N] = chunk[i];
        ASSERT_EQ(dec.Decomp(ring.data(), N, &consumed, out.data(), int(out.size()), &produced),
                  CDecomp::DECOMP_LINE_COMPLETED)
            << "start " << start;
        EXPECT_EQ(consumed, C);
        EXPECT_EQ(produced, 24 * 3 * 16);
        EXPECT_EQ(dec.GetInputIndex(), (start + C) % N);
        ASSERT_EQ(out, expected) << "start " << start;
    }
}

struct DecompCase {
    const char* name;
    int result;
    int consumed;  // -1: the chunk size
};
class DecompResults : public ::testing::TestWithParam<DecompCase> {};

TEST_P(DecompResults, MapCodesAndNeverOverrun) {
    std::string name = GetParam().name;
    Bytes chunk = makeChunk(16, 8, 1, 75, true, 9);
    int outLen = 16 * 8;
    int inLen = int(chunk.size());
    if (name == "claimsMore") inLen -= 1;                                  // size field exceeds what is held
    if (name == "belowHeader") wicketPutHeader(chunk.data(), 15, 8, 16, 75);
    if (name == "truncatedData") {                                         // size covers half the data
        wicketPutHeader(chunk.data(), uint32_t(chunk.size() / 2), 8, 16, 75);
        inLen = int(chunk.size() / 2);
    }
    if (name == "noCode") std::fill(chunk.begin() + 16, chunk.end(), 0xFF);  // stuffed 0xFF: all 1 bits
    if (name == "outputTooSmall") outLen -= 1;
    if (name == "hugeWidth") wicketPutHeader(chunk.data(), uint32_t(chunk.size()), 8, 0x7FFFFFFF, 75);
    if (name == "hugeHeight") wicketPutHeader(chunk.data(), uint32_t(chunk.size()), 0xFFFFFFF0u, 16, 75);
    if (name == "noLines") wicketPutHeader(chunk.data(), uint32_t(chunk.size()), 0, 16, 75);
    if (name == "hugeBoth") wicketPutHeader(chunk.data(), uint32_t(chunk.size()), 0x40000000, 0x40000000, 75);
    CDecompWicket dec(1);
    dec.StartDecomp(16, 8, 1, 8);
    Bytes out(size_t(outLen) + 64, 0xCD);
    int consumed = -1, produced = -1;
    int rc = dec.Decomp(chunk.data(), inLen, &consumed, out.data(), outLen, &produced);
    EXPECT_EQ(rc, GetParam().result);
    EXPECT_EQ(consumed, GetParam().consumed < 0 ? int(readBE32(chunk.data(), 16, 0)) : GetParam().consumed);
    for (size_t i = size_t(outLen); i < out.size(); ++i) ASSERT_EQ(out[i], 0xCD) << "written past the output";
    if (name == "noCode") {  // rows not decoded read as zero
        EXPECT_EQ(produced, 16 * 8);
        for (int i = 0; i < outLen; ++i) ASSERT_EQ(out[i], 0) << i;
    }
    if (rc == CDecomp::DECOMP_ERROR || rc == 513) {
        EXPECT_TRUE(produced == 0 || name == "truncatedData");
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, DecompResults,
                         ::testing::Values(DecompCase{"ok", CDecomp::DECOMP_LINE_COMPLETED, -1},
                                           DecompCase{"claimsMore", 513, 0}, DecompCase{"belowHeader", -1, 0},
                                           DecompCase{"truncatedData", 513, -1}, DecompCase{"noCode", 261, -1},
                                           DecompCase{"outputTooSmall", -1, -1}, DecompCase{"hugeWidth", -1, -1},
                                           DecompCase{"hugeHeight", -1, -1}, DecompCase{"hugeBoth", -1, -1},
                                           DecompCase{"noLines", CDecomp::DECOMP_LINE_COMPLETED, -1}),
                         byName);

TEST(DecompWicketRing, NullArgumentsAreRefusedAndBandsHoldUpTo32Lines) {
    CDecompWicket dec(1);
    int consumed = 5, produced = 5;
    unsigned char b[32] = {};
    EXPECT_EQ(dec.Decomp(nullptr, 32, &consumed, b, 32, &produced), CDecomp::DECOMP_ERROR);
    EXPECT_EQ(dec.Decomp(b, 32, nullptr, b, 32, &produced), CDecomp::DECOMP_ERROR);
    EXPECT_EQ(dec.Decomp(b, 32, &consumed, nullptr, 32, &produced), CDecomp::DECOMP_ERROR);
    EXPECT_EQ(consumed, 0);
    EXPECT_EQ(dec.GetMaxLinesPerBand(), 32);
}

TEST(DecompWicketRing, EveryChunkAppliesItsOwnQuality) {
    Bytes a = makeChunk(16, 8, 1, 90, true, 4), b = a;
    wicketPutHeader(b.data(), uint32_t(b.size()), 8, 16, 20);  // same data read at quality 20
    Bytes ring = a;
    ring.insert(ring.end(), b.begin(), b.end());
    CDecompWicket dec(1);
    dec.StartDecomp(16, 8, 1, 8);
    dec.SetQualityFactor(55);  // stored only
    for (int i = 0; i < 2; ++i) {
        Bytes out(16 * 8);
        int consumed, produced;
        ASSERT_EQ(dec.Decomp(ring.data(), int(ring.size()), &consumed, out.data(), int(out.size()), &produced),
                  CDecomp::DECOMP_LINE_COMPLETED);
        EXPECT_EQ(out, decodeWithReference(true, i ? 20 : 90, chunkData(a), 16, 8, 1).out) << i;
    }
}

TEST(DecompWicketRing, DumpWritesOneChunkAndRefusesSymbolicLinks) {
    Bytes chunk = makeChunk(16, 8, 1, 75, true, 2), held = chunk;
    held.insert(held.end(), 100, 0xAB);  // more bytes than the chunk
    const std::string name = "/tmp/dump97.dat";
    unlink(name.c_str());
    CDecompWicket dec(1);
    ASSERT_EQ(dec.DumpCompressedData(held.data(), int(held.size()), 97), 0);
    EXPECT_EQ(qt::readFile(name), std::string(chunk.begin(), chunk.end()));
    struct stat st;
    ASSERT_EQ(stat(name.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    // A header claiming more than is held writes only what is held.
    ASSERT_EQ(dec.DumpCompressedData(held.data(), 20, 97), 0);
    EXPECT_EQ(qt::readFile(name).size(), 20u);
    unlink(name.c_str());

    qt::TempDir dir;
    qt::writeFile(dir.file("target"), "keep");
    ASSERT_EQ(symlink(dir.file("target").c_str(), name.c_str()), 0);
    EXPECT_EQ(dec.DumpCompressedData(held.data(), int(held.size()), 97), -1);
    EXPECT_EQ(qt::readFile(dir.file("target")), "keep");
    unlink(name.c_str());
}

// ------------------------------------------------------------ the tool

std::string toolPath() { return qt::binaryDir() + "/tools/wicket/quarto-wicket"; }

std::string pnm(const Bytes& px, int w, int h, int channels) {
    return std::string(channels == 3 ? "P6\n" : "P5\n") + std::to_string(w) + " " + std::to_string(h) + "\n255\n" +
           std::string(px.begin(), px.end());
}

class Tool : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(qt::fileExists(toolPath())) << "build quarto-wicket first: " << toolPath(); }
    int run(const std::vector<std::string>& args, std::string* out = nullptr, std::string* err = nullptr) {
        std::vector<std::string> argv{toolPath()};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string o, e;
        return qt::runProgram(argv, {}, out ? out : &o, err ? err : &e, 60);
    }
    // Names in the directory, sorted.
    std::vector<std::string> files() {
        std::vector<std::string> names;
        DIR* d = opendir(dir.path().c_str());
        while (struct dirent* e = d ? readdir(d) : nullptr)
            if (e->d_name[0] != '.') names.push_back(e->d_name);
        if (d) closedir(d);
        std::sort(names.begin(), names.end());
        return names;
    }
    qt::TempDir dir;
};

// The output replaces what is at OUT, a symbolic link included, and never
// writes through it.
TEST_F(Tool, EncodesAndDecodesAnImageFile) {
    qt::writeFile(dir.file("target"), "keep");
    for (int channels : {1, 3}) {
        Bytes img = makeImage(70, 45, channels, 8, 0);
        qt::writeFile(dir.file("in.pnm"), pnm(img, 70, 45, channels));
        ASSERT_EQ(run({"encode", "--quality", "90", "--band-lines", "16", dir.file("in.pnm"), dir.file("s.wkt")}), 0);
        std::string ch = std::to_string(channels);
        unlink(dir.file("out.pnm").c_str());
        ASSERT_EQ(symlink(dir.file("target").c_str(), dir.file("out.pnm").c_str()), 0);
        ASSERT_EQ(run({"decode", "--channels", ch, dir.file("s.wkt"), dir.file("out.pnm")}), 0);
        EXPECT_EQ(qt::readFile(dir.file("target")), "keep");
        EXPECT_EQ(files(), (std::vector<std::string>{"in.pnm", "out.pnm", "s.wkt", "target"}));
        std::string out = qt::readFile(dir.file("out.pnm"));
        std::string head = std::string(channels == 3 ? "P6" : "P5") + "\n70 45\n255\n";
        ASSERT_EQ(out.compare(0, head.size(), head), 0);
        ASSERT_EQ(out.size(), head.size() + img.size());
        long err = 0;
        for (size_t i = 0; i < img.size(); ++i) err += std::abs(int(uint8_t(out[head.size() + i])) - int(img[i]));
        EXPECT_LE(err * 100 / long(img.size()), 300) << channels;
        std::string stream = qt::readFile(dir.file("s.wkt"));
        EXPECT_EQ(readBE32(reinterpret_cast<const uint8_t*>(stream.data()), 16, 4), 16u);  // band lines
    }
}

struct ToolFailure {
    const char* name;
    const char* message;
};
class ToolFailures : public Tool, public ::testing::WithParamInterface<ToolFailure> {};

TEST_P(ToolFailures, NameTheChunkAndOffsetAndWriteNothing) {
    Bytes img = makeImage(40, 40, 3, 6);
    WicketEncodeOptions opt;
    opt.iBandLines = 16;
    Bytes s = wicketEncodeImage(img.data(), 40, 40, 3, opt);
    uint32_t first = readBE32(s.data(), 16, 0);
    std::string name = GetParam().name;
    if (name == "truncatedHeader") s.resize(first + 7);
    if (name == "truncatedChunk") s.resize(s.size() - 30);
    if (name == "corruptData") std::fill(s.begin() + first + 16, s.begin() + first + 40, 0xFF);
    if (name == "corruptSize") wicketPutHeader(s.data() + first, 3, 16, 40, 75);
    if (name == "hugeGeometry") wicketPutHeader(s.data(), first, 0x7FFFFFF0, 0x7FFFFFF0, 75);
    if (name == "otherWidth") wicketPutHeader(s.data() + first, readBE32(s.data() + first, 16, 0), 16, 48, 75);
    if (name == "cutLookAhead") {  // the second chunk loses its look-ahead bytes
        uint32_t second = readBE32(s.data() + first, 16, 0);
        s.erase(s.begin() + first + second - 2, s.begin() + first + second);
        wicketPutHeader(s.data() + first, second - 2, 16, 40, 75);
        s.resize(first + second - 2);
    }
    qt::writeFile(dir.file("bad.wkt"), std::string(s.begin(), s.end()));
    std::string err;
    EXPECT_EQ(run({"decode", dir.file("bad.wkt"), dir.file("out.ppm")}, nullptr, &err), 1);
    EXPECT_NE(err.find(GetParam().message), std::string::npos) << err;
    EXPECT_EQ(files(), std::vector<std::string>{"bad.wkt"});  // no output, no temporary file
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ToolFailures,
    ::testing::Values(ToolFailure{"truncatedHeader", "chunk 1 at byte offset"},
                      ToolFailure{"truncatedChunk", "chunk 2 at byte offset"},
                      ToolFailure{"corruptData", "chunk 1 at byte offset"},
                      ToolFailure{"corruptSize", "size 3 is below 16"},
                      ToolFailure{"otherWidth", "width 48 differs"},
                      ToolFailure{"hugeGeometry", "chunk 0 at byte offset 0: image too large"},
                      ToolFailure{"cutLookAhead", "(513)"}),
    byName);

TEST_F(Tool, HelpAndUsageErrors) {
    std::string out, err;
    EXPECT_EQ(run({"--help"}, &out), 0);
    EXPECT_NE(out.find("quarto-wicket decode"), std::string::npos);
    EXPECT_NE(out.find("quarto-wicket encode"), std::string::npos);
    EXPECT_EQ(run({"decode", "--channels", "2", "a", "b"}, nullptr, &err), 2);
    EXPECT_EQ(run({"encode", "--quality", "0", "a", "b"}), 2);
    EXPECT_EQ(run({"frobnicate"}), 2);
    qt::writeFile(dir.file("bad.pnm"), "P6\n10 10\n255\nshort");
    EXPECT_EQ(run({"encode", dir.file("bad.pnm"), dir.file("x")}, nullptr, &err), 1);
    EXPECT_NE(err.find("fewer pixels"), std::string::npos) << err;
    EXPECT_EQ(run({"decode", dir.file("missing"), dir.file("x")}), 1);
}

}  // namespace
