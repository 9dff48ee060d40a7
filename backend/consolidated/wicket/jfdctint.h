// Accurate integer forward DCT of the IJG library, the counterpart of
// jpeg_idct: the output is scaled up by 8, which the quantisation tables
// (entries times 8) take out again.
#ifndef QUARTO_JFDCTINT_H
#define QUARTO_JFDCTINT_H

// In place on 64 level-shifted samples in natural order. Arithmetic wraps at 32 bits.
void jpeg_fdct(int* data);

#endif
