#include "WicketKernels.h"

#include <cstring>

#include "WrapInt.h"
#include "jidctint.h"

#if defined(__x86_64__) || defined(__i386__)
#define WICKET_HAVE_X86 1
#include <immintrin.h>
#endif

void wicketYccPixel(int32_t y, int32_t cb, int32_t cr, uint8_t* rgb) {
    const int S = WICKET_RGB_SHIFT_BITS;
    int32_t yy = wshl(wadd(y, WICKET_ROUND_ADDER), S);
    int32_t v[3];
    v[0] = wadd(wadd(yy, wmul(WICKET_CR_TO_R, cr)), WICKET_ROUND_ADDER) >> S;
    v[1] = wadd(wadd(wadd(yy, wmul(WICKET_CB_TO_G, cb)), wmul(WICKET_CR_TO_G, cr)), WICKET_ROUND_ADDER) >> S;
    v[2] = wadd(wadd(yy, wmul(WICKET_CB_TO_B, cb)), WICKET_ROUND_ADDER) >> S;
    for (int i = 0; i < 3; ++i) rgb[i] = (uint8_t)(v[i] < 0 ? 0 : v[i] > 255 ? 255 : v[i]);
}

namespace {

void idctS16Scalar(int32_t* coef, int16_t* out, int stride) {
    int s[64];
    jpeg_idct(reinterpret_cast<const int*>(coef), s);
    memset(coef, 0, 64 * sizeof(int32_t));
    for (int r = 0; r < 8; ++r)
        for (int c = 0; c < 8; ++c) out[r * stride + c] = (int16_t)s[8 * r + c];
}

void idctS16PairScalar(int32_t* coefA, int32_t* coefB, int16_t* outA, int16_t* outB, int stride) {
    idctS16Scalar(coefA, outA, stride);
    idctS16Scalar(coefB, outB, stride);
}

void idctU8Scalar(int32_t* coef, uint8_t* out, int stride) {
    int s[64];
    jpeg_idct(reinterpret_cast<const int*>(coef), s);
    memset(coef, 0, 64 * sizeof(int32_t));
    for (int r = 0; r < 8; ++r)
        for (int c = 0; c < 8; ++c) {
            int32_t v = wadd(s[8 * r + c], WICKET_ROUND_ADDER);
            out[r * stride + c] = (uint8_t)(v < 0 ? 0 : v > 255 ? 255 : v);
        }
}

void idctU8PairScalar(int32_t* coefA, int32_t* coefB, uint8_t* outA, uint8_t* outB, int stride) {
    idctU8Scalar(coefA, outA, stride);
    idctU8Scalar(coefB, outB, stride);
}

void yccRowScalar(const int16_t* y, const int16_t* cb, const int16_t* cr, uint8_t* rgb, int width) {
    for (int x = 0; x < width; ++x) wicketYccPixel(y[x], cb[x], cr[x], rgb + 3 * x);
}

const WicketKernels SCALAR_KERNELS = {WICKET_SIMD_SCALAR, idctS16Scalar, idctS16PairScalar,
                                      idctU8Scalar,       idctU8PairScalar, yccRowScalar};

#ifdef WICKET_HAVE_X86
#include "WicketSimd.inl"

void idctS16PairSse2(int32_t* coefA, int32_t* coefB, int16_t* outA, int16_t* outB, int stride) {
    idctS16Vec(coefA, outA, stride);
    idctS16Vec(coefB, outB, stride);
}

void idctU8PairSse2(int32_t* coefA, int32_t* coefB, uint8_t* outA, uint8_t* outB, int stride) {
    idctU8Vec(coefA, outA, stride);
    idctU8Vec(coefB, outB, stride);
}

inline void store32(uint8_t* p, __m128i v) {
    int32_t w = _mm_cvtsi128_si32(v);
    memcpy(p, &w, 4);
}

void yccRowSse2(const int16_t* y, const int16_t* cb, const int16_t* cr, uint8_t* rgb, int width) {
    const __m128i zero = _mm_setzero_si128();
    for (int x = 0; x < width; x += 8) {
        __m128i r16, g16, b16;
        yccToRgb16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(y + x)),
                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(cb + x)),
                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(cr + x)), r16, g16, b16);
        // R0 G0 R1 G1 ... and B0 0 B1 0 ..., then one 4-byte group R G B 0 per pixel.
        __m128i rg = _mm_unpacklo_epi8(_mm_packus_epi16(r16, r16), _mm_packus_epi16(g16, g16));
        __m128i b0 = _mm_unpacklo_epi8(_mm_packus_epi16(b16, b16), zero);
        __m128i lo = _mm_unpacklo_epi16(rg, b0), hi = _mm_unpackhi_epi16(rg, b0);
        // 4-byte stores 3 bytes apart: each one's zero byte is overwritten by the next.
        uint8_t* o = rgb + 3 * x;
        store32(o, lo);
        store32(o + 3, _mm_srli_si128(lo, 4));
        store32(o + 6, _mm_srli_si128(lo, 8));
        store32(o + 9, _mm_srli_si128(lo, 12));
        store32(o + 12, hi);
        store32(o + 15, _mm_srli_si128(hi, 4));
        store32(o + 18, _mm_srli_si128(hi, 8));
        if (x + 8 < width) {
            store32(o + 21, _mm_srli_si128(hi, 12));
        } else {  // the row's last pixel: nothing may be written after it
            int32_t w = _mm_cvtsi128_si32(_mm_srli_si128(hi, 12));
            memcpy(o + 21, &w, 3);
        }
    }
}

const WicketKernels SSE2_KERNELS = {WICKET_SIMD_SSE2, idctS16Vec,     idctS16PairSse2,
                                    idctU8Vec,        idctU8PairSse2, yccRowSse2};
#endif

}  // namespace

#ifdef WICKET_HAVE_X86
const WicketKernels& wicketAvx2Kernels();  // WicketKernelsAvx2.cpp
#endif

int wicketBestSimdLevel() {
#ifdef WICKET_HAVE_X86
    static const int best = __builtin_cpu_supports("avx2") ? WICKET_SIMD_AVX2 : WICKET_SIMD_SSE2;
    return best;
#else
    return WICKET_SIMD_SCALAR;
#endif
}

const WicketKernels& wicketKernels(int level) {
    if (level > wicketBestSimdLevel()) level = wicketBestSimdLevel();
#ifdef WICKET_HAVE_X86
    if (level >= WICKET_SIMD_AVX2) return wicketAvx2Kernels();
    if (level == WICKET_SIMD_SSE2) return SSE2_KERNELS;
#endif
    return SCALAR_KERNELS;
}
