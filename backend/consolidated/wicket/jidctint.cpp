#include "jidctint.h"

#include <cstdint>

namespace {

// One 8-point inverse transform over in[0], in[step], ... in[7*step].
void idct1D(const int32_t* in, int step, int32_t* out, int outStep, int shift) {
    int32_t z2 = in[2 * step], z3 = in[6 * step];
    int32_t z1 = wmul(wadd(z2, z3), FIX_0_541196100);
    int32_t tmp2 = wadd(z1, wmul(z3, -FIX_1_847759065));
    int32_t tmp3 = wadd(z1, wmul(z2, FIX_0_765366865));
    z2 = in[0];
    z3 = in[4 * step];
    int32_t tmp0 = wshl(wadd(z2, z3), IDCT_CONST_BITS);
    int32_t tmp1 = wshl(wsub(z2, z3), IDCT_CONST_BITS);
    int32_t tmp10 = wadd(tmp0, tmp3), tmp13 = wsub(tmp0, tmp3);
    int32_t tmp11 = wadd(tmp1, tmp2), tmp12 = wsub(tmp1, tmp2);

    int32_t o0 = in[7 * step], o1 = in[5 * step], o2 = in[3 * step], o3 = in[step];
    dctOddRotation(o0, o1, o2, o3);

    out[0] = descale(wadd(tmp10, o3), shift);
    out[7 * outStep] = descale(wsub(tmp10, o3), shift);
    out[1 * outStep] = descale(wadd(tmp11, o2), shift);
    out[6 * outStep] = descale(wsub(tmp11, o2), shift);
    out[2 * outStep] = descale(wadd(tmp12, o1), shift);
    out[5 * outStep] = descale(wsub(tmp12, o1), shift);
    out[3 * outStep] = descale(wadd(tmp13, o0), shift);
    out[4 * outStep] = descale(wsub(tmp13, o0), shift);
}

}  // namespace

void jpeg_idct(const int* in, int* out) {
    int32_t ws[64];
    // Pass 1: columns, keeping PASS1_BITS extra bits.
    for (int c = 0; c < 8; ++c)
        idct1D(reinterpret_cast<const int32_t*>(in) + c, 8, ws + c, 8, IDCT_CONST_BITS - IDCT_PASS1_BITS);
    // Pass 2: rows, removing the extra bits and the factor 8 of the transform.
    for (int r = 0; r < 8; ++r)
        idct1D(ws + 8 * r, 1, reinterpret_cast<int32_t*>(out) + 8 * r, 1,
               IDCT_CONST_BITS + IDCT_PASS1_BITS + 3);
}
