#include "jfdctint.h"

#include <cstdint>

#include "jidctint.h"

namespace {

// One 8-point forward transform in place over d[0], d[step], ... d[7*step].
// evenShift < 0 scales the even outputs up by PASS1_BITS (first pass); otherwise
// it is the descale of the even outputs (second pass).
void fdct1D(int32_t* d, int step, int oddShift, int evenShift) {
    int32_t tmp0 = wadd(d[0], d[7 * step]), tmp7 = wsub(d[0], d[7 * step]);
    int32_t tmp1 = wadd(d[step], d[6 * step]), tmp6 = wsub(d[step], d[6 * step]);
    int32_t tmp2 = wadd(d[2 * step], d[5 * step]), tmp5 = wsub(d[2 * step], d[5 * step]);
    int32_t tmp3 = wadd(d[3 * step], d[4 * step]), tmp4 = wsub(d[3 * step], d[4 * step]);

    int32_t tmp10 = wadd(tmp0, tmp3), tmp13 = wsub(tmp0, tmp3);
    int32_t tmp11 = wadd(tmp1, tmp2), tmp12 = wsub(tmp1, tmp2);
    if (evenShift < 0) {
        d[0] = wshl(wadd(tmp10, tmp11), IDCT_PASS1_BITS);
        d[4 * step] = wshl(wsub(tmp10, tmp11), IDCT_PASS1_BITS);
    } else {
        d[0] = descale(wadd(tmp10, tmp11), evenShift);
        d[4 * step] = descale(wsub(tmp10, tmp11), evenShift);
    }
    int32_t z1 = wmul(wadd(tmp12, tmp13), FIX_0_541196100);
    d[2 * step] = descale(wadd(z1, wmul(tmp13, FIX_0_765366865)), oddShift);
    d[6 * step] = descale(wadd(z1, wmul(tmp12, -FIX_1_847759065)), oddShift);

    dctOddRotation(tmp4, tmp5, tmp6, tmp7);
    d[7 * step] = descale(tmp4, oddShift);
    d[5 * step] = descale(tmp5, oddShift);
    d[3 * step] = descale(tmp6, oddShift);
    d[1 * step] = descale(tmp7, oddShift);
}

}  // namespace

void jpeg_fdct(int* data) {
    int32_t* d = reinterpret_cast<int32_t*>(data);
    for (int r = 0; r < 8; ++r) fdct1D(d + 8 * r, 1, IDCT_CONST_BITS - IDCT_PASS1_BITS, -1);
    for (int c = 0; c < 8; ++c) fdct1D(d + c, 8, IDCT_CONST_BITS + IDCT_PASS1_BITS, IDCT_PASS1_BITS);
}
