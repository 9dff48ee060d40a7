// 32-bit two's complement arithmetic that wraps instead of overflowing, so the
// codec gives a defined result (the same in every code path) for any input.
#ifndef QUARTO_WRAPINT_H
#define QUARTO_WRAPINT_H

#include <cstdint>

inline int32_t wadd(int32_t a, int32_t b) { return int32_t(uint32_t(a) + uint32_t(b)); }
inline int32_t wsub(int32_t a, int32_t b) { return int32_t(uint32_t(a) - uint32_t(b)); }
inline int32_t wmul(int32_t a, int32_t c) { return int32_t(uint32_t(a) * uint32_t(c)); }
inline int32_t wshl(int32_t a, int n) { return int32_t(uint32_t(a) << n); }
// Right shift by n with rounding (the IJG DESCALE).
inline int32_t descale(int32_t x, int n) { return wadd(x, int32_t(1) << (n - 1)) >> n; }

#endif
