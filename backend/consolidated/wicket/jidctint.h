// Accurate integer inverse DCT of the IJG library (13 constant bits, 2 extra
// bits in the column pass, descaled by 11 and then by 18 bits with rounding).
#ifndef QUARTO_JIDCTINT_H
#define QUARTO_JIDCTINT_H

#include <cstdint>

#include "WrapInt.h"

// The IJG fixed-point constants, FIX(x) = round(x * 2^13).
const int IDCT_CONST_BITS = 13;
const int IDCT_PASS1_BITS = 2;
const int FIX_0_298631336 = 2446;
const int FIX_0_390180644 = 3196;
const int FIX_0_541196100 = 4433;
const int FIX_0_765366865 = 6270;
const int FIX_0_899976223 = 7373;
const int FIX_1_175875602 = 9633;
const int FIX_1_501321110 = 12299;
const int FIX_1_847759065 = 15137;
const int FIX_1_961570560 = 16069;
const int FIX_2_053119869 = 16819;
const int FIX_2_562915447 = 20995;
const int FIX_3_072711026 = 25172;

// The rotation of the odd half that both transforms share: the four odd inputs
// (x7, x5, x3, x1 of the inverse transform, tmp4 to tmp7 of the forward one)
// become the four odd terms, in place.
inline void dctOddRotation(int32_t& t0, int32_t& t1, int32_t& t2, int32_t& t3) {
    int32_t z1 = wadd(t0, t3), z2 = wadd(t1, t2), z3 = wadd(t0, t2), z4 = wadd(t1, t3);
    int32_t z5 = wmul(wadd(z3, z4), FIX_1_175875602);
    z1 = wmul(z1, -FIX_0_899976223);
    z2 = wmul(z2, -FIX_2_562915447);
    z3 = wadd(wmul(z3, -FIX_1_961570560), z5);
    z4 = wadd(wmul(z4, -FIX_0_390180644), z5);
    t0 = wadd(wmul(t0, FIX_0_298631336), wadd(z1, z3));
    t1 = wadd(wmul(t1, FIX_2_053119869), wadd(z2, z4));
    t2 = wadd(wmul(t2, FIX_3_072711026), wadd(z2, z3));
    t3 = wadd(wmul(t3, FIX_1_501321110), wadd(z1, z4));
}

// 64 dequantised coefficients in natural (row) order to 64 signed samples,
// without level shift or range limiting. All arithmetic wraps at 32 bits, so
// any input gives a defined result.
void jpeg_idct(const int* in, int* out);

#endif
