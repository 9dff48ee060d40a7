// The per-block kernels of the Wicket decoder (inverse DCT to samples, colour
// conversion), in a scalar form and in SSE2 and AVX2 forms that give the same
// bytes. The vector forms are chosen at run time; the library runs on any
// x86-64 and builds elsewhere with the scalar form only.
#ifndef QUARTO_WICKETKERNELS_H
#define QUARTO_WICKETKERNELS_H

#include <cstdint>

const int WICKET_SIMD_SCALAR = 0;
const int WICKET_SIMD_SSE2 = 1;
const int WICKET_SIMD_AVX2 = 2;

// The inverse DCT kernels require every coefficient c to satisfy
// -WICKET_KERNEL_COEF_LIMIT <= c < WICKET_KERNEL_COEF_LIMIT. Within that range no
// intermediate value leaves 16 bits where the vector forms keep 16 bits, so they
// match jpeg_idct exactly; blocks outside it take the scalar route.
const int WICKET_KERNEL_COEF_LIMIT = 1024;

// The rounding adder of the colour formulas (kept at 128, not half of 1024).
const int WICKET_RGB_SHIFT_BITS = 10;
const int WICKET_ROUND_ADDER = 128;
const int WICKET_CR_TO_R = 1436;
const int WICKET_CB_TO_G = -352;
const int WICKET_CR_TO_G = -731;
const int WICKET_CB_TO_B = 1815;

// The inverse DCT kernels leave the coefficients they read set to zero, ready
// for the next block to be decoded into.
struct WicketKernels {
    int iLevel;
    // 64 coefficients (natural order) to 8 rows of 8 signed samples.
    void (*idctS16)(int32_t* coef, int16_t* out, int stride);
    void (*idctS16Pair)(int32_t* coefA, int32_t* coefB, int16_t* outA, int16_t* outB, int stride);
    // 64 coefficients to 8 rows of 8 grey bytes (sample + 128, clamped).
    void (*idctU8)(int32_t* coef, uint8_t* out, int stride);
    void (*idctU8Pair)(int32_t* coefA, int32_t* coefB, uint8_t* outA, uint8_t* outB, int stride);
    // One row of width pixels (a multiple of 8) from Y, Cb, Cr samples to R, G, B bytes.
    void (*yccRow)(const int16_t* y, const int16_t* cb, const int16_t* cr, uint8_t* rgb, int width);
};

// The best level this processor runs.
int wicketBestSimdLevel();
// The kernels of a level, lowered to what the processor runs.
const WicketKernels& wicketKernels(int level);

// The colour formulas for one pixel, in wrapping 32-bit arithmetic.
void wicketYccPixel(int32_t y, int32_t cb, int32_t cr, uint8_t* rgb);

#endif
