// The AVX2 forms of the Wicket kernels. Every function of this file is compiled
// for AVX2 and is only reached after wicketBestSimdLevel() found AVX2; all
// headers are included before the target switch so that no shared inline code
// is built for AVX2 by accident.
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include <cstdint>

#include "WicketKernels.h"
#include "jidctint.h"

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif

namespace {

#define WICKET_SIMD_WITH_AVX2 1
#include "WicketSimd.inl"

// Byte shuffles that interleave 8 pixels: rg holds R0..R7 G0..G7, bb B0..B7;
// "first" builds output bytes 0-15, "last" bytes 16-23.
inline void interleaveMasks(__m128i& m0rg, __m128i& m0b, __m128i& m1rg, __m128i& m1b) {
    m0rg = _mm_setr_epi8(0, 8, -1, 1, 9, -1, 2, 10, -1, 3, 11, -1, 4, 12, -1, 5);
    m0b = _mm_setr_epi8(-1, -1, 0, -1, -1, 1, -1, -1, 2, -1, -1, 3, -1, -1, 4, -1);
    m1rg = _mm_setr_epi8(13, -1, 6, 14, -1, 7, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    m1b = _mm_setr_epi8(-1, 5, -1, -1, 6, -1, -1, 7, -1, -1, -1, -1, -1, -1, -1, -1);
}

void yccRowAvx2(const int16_t* y, const int16_t* cb, const int16_t* cr, uint8_t* rgb, int width) {
    __m128i m0rg, m0b, m1rg, m1b;
    interleaveMasks(m0rg, m0b, m1rg, m1b);
    const __m256i M0rg = _mm256_broadcastsi128_si256(m0rg), M0b = _mm256_broadcastsi128_si256(m0b);
    const __m256i M1rg = _mm256_broadcastsi128_si256(m1rg), M1b = _mm256_broadcastsi128_si256(m1b);
    int x = 0;
    for (; x + 16 <= width; x += 16) {
        __m256i r16, g16, b16;
        yccToRgb16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(y + x)),
                   _mm256_loadu_si256(reinterpret_cast<const __m256i*>(cb + x)),
                   _mm256_loadu_si256(reinterpret_cast<const __m256i*>(cr + x)), r16, g16, b16);
        // Per lane: rg = R0..7 G0..7, bb = B0..7 (pixels 0-7 low lane, 8-15 high lane).
        __m256i rg = _mm256_packus_epi16(r16, g16), bb = _mm256_packus_epi16(b16, b16);
        __m256i first = _mm256_or_si256(_mm256_shuffle_epi8(rg, M0rg), _mm256_shuffle_epi8(bb, M0b));
        __m256i last = _mm256_or_si256(_mm256_shuffle_epi8(rg, M1rg), _mm256_shuffle_epi8(bb, M1b));
        uint8_t* o = rgb + 3 * x;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(o), _mm256_castsi256_si128(first));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(o + 16), _mm256_castsi256_si128(last));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 24), _mm256_extracti128_si256(first, 1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(o + 40), _mm256_extracti128_si256(last, 1));
    }
    for (; x < width; x += 8) {
        __m128i r16, g16, b16;
        yccToRgb16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(y + x)),
                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(cb + x)),
                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(cr + x)), r16, g16, b16);
        __m128i rg = _mm_packus_epi16(r16, g16), bb = _mm_packus_epi16(b16, b16);
        uint8_t* o = rgb + 3 * x;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(o),
                         _mm_or_si128(_mm_shuffle_epi8(rg, m0rg), _mm_shuffle_epi8(bb, m0b)));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(o + 16),
                         _mm_or_si128(_mm_shuffle_epi8(rg, m1rg), _mm_shuffle_epi8(bb, m1b)));
    }
}

const WicketKernels AVX2_KERNELS = {WICKET_SIMD_AVX2, idctS16Vec,    idctS16PairVec,
                                    idctU8Vec,        idctU8PairVec, yccRowAvx2};

}  // namespace

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

const WicketKernels& wicketAvx2Kernels() { return AVX2_KERNELS; }

#endif
