// Accurate integer inverse DCT of the IJG library (13 constant bits, 2 extra
// bits in the column pass, descaled by 11 and then by 18 bits with rounding).
#ifndef QUARTO_JIDCTINT_H
#define QUARTO_JIDCTINT_H

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

// 64 dequantised coefficients in natural (row) order to 64 signed samples,
// without level shift or range limiting. All arithmetic wraps at 32 bits, so
// any input gives a defined result.
void jpeg_idct(const int* in, int* out);

#endif
