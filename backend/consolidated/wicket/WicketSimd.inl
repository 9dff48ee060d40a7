// Vector bodies of the Wicket kernels, written once over a vector type V:
// __m128i holds one block (a row of 8 samples per register), __m256i holds two
// blocks side by side (one per 128-bit lane). Every operation used works within
// a 128-bit lane, so both types run the same algorithm.
//
// Included by WicketKernels.cpp (SSE2) and WicketKernelsAvx2.cpp (AVX2, with
// WICKET_SIMD_WITH_AVX2 defined), inside an unnamed namespace of each. The
// passes are forced inline so that the rows stay in registers.

#define WICKET_INLINE inline __attribute__((always_inline))

inline __m128i vadd32(__m128i a, __m128i b) { return _mm_add_epi32(a, b); }
inline __m128i vsub32(__m128i a, __m128i b) { return _mm_sub_epi32(a, b); }
inline __m128i vmadd(__m128i a, __m128i b) { return _mm_madd_epi16(a, b); }
inline __m128i vunpacklo16(__m128i a, __m128i b) { return _mm_unpacklo_epi16(a, b); }
inline __m128i vunpackhi16(__m128i a, __m128i b) { return _mm_unpackhi_epi16(a, b); }
inline __m128i vunpacklo32(__m128i a, __m128i b) { return _mm_unpacklo_epi32(a, b); }
inline __m128i vunpackhi32(__m128i a, __m128i b) { return _mm_unpackhi_epi32(a, b); }
inline __m128i vunpacklo64(__m128i a, __m128i b) { return _mm_unpacklo_epi64(a, b); }
inline __m128i vunpackhi64(__m128i a, __m128i b) { return _mm_unpackhi_epi64(a, b); }
inline __m128i vpacks32(__m128i a, __m128i b) { return _mm_packs_epi32(a, b); }
inline __m128i vpackus16(__m128i a, __m128i b) { return _mm_packus_epi16(a, b); }
template <int N> inline __m128i vsrai32(__m128i a) { return _mm_srai_epi32(a, N); }
template <class V> V vsplat32(int32_t v);
template <> inline __m128i vsplat32<__m128i>(int32_t v) { return _mm_set1_epi32(v); }

#ifdef WICKET_SIMD_WITH_AVX2
inline __m256i vadd32(__m256i a, __m256i b) { return _mm256_add_epi32(a, b); }
inline __m256i vsub32(__m256i a, __m256i b) { return _mm256_sub_epi32(a, b); }
inline __m256i vmadd(__m256i a, __m256i b) { return _mm256_madd_epi16(a, b); }
inline __m256i vunpacklo16(__m256i a, __m256i b) { return _mm256_unpacklo_epi16(a, b); }
inline __m256i vunpackhi16(__m256i a, __m256i b) { return _mm256_unpackhi_epi16(a, b); }
inline __m256i vunpacklo32(__m256i a, __m256i b) { return _mm256_unpacklo_epi32(a, b); }
inline __m256i vunpackhi32(__m256i a, __m256i b) { return _mm256_unpackhi_epi32(a, b); }
inline __m256i vunpacklo64(__m256i a, __m256i b) { return _mm256_unpacklo_epi64(a, b); }
inline __m256i vunpackhi64(__m256i a, __m256i b) { return _mm256_unpackhi_epi64(a, b); }
inline __m256i vpacks32(__m256i a, __m256i b) { return _mm256_packs_epi32(a, b); }
inline __m256i vpackus16(__m256i a, __m256i b) { return _mm256_packus_epi16(a, b); }
template <int N> inline __m256i vsrai32(__m256i a) { return _mm256_srai_epi32(a, N); }
template <> inline __m256i vsplat32<__m256i>(int32_t v) { return _mm256_set1_epi32(v); }
#endif

// Two 16-bit multipliers for vmadd: lo applies to the first register of an
// unpack, hi to the second.
template <class V> inline V vpair(int lo, int hi) {
    return vsplat32<V>(int32_t(uint32_t(uint16_t(int16_t(lo))) | uint32_t(uint16_t(int16_t(hi))) << 16));
}

// One pass of the IJG accurate inverse DCT over the 8 registers in[0..7]
// (register k holds input k of eight transforms, one per 16-bit element).
// Products are summed in 32 bits exactly as jpeg_idct does modulo 2^32; the
// rounding constant is added before the shift, the results packed to 16 bits.
template <class V, int SHIFT>
WICKET_INLINE void idctPass(const V* in, V* out, int32_t round) {
    const V kTmp0 = vpair<V>(1 << IDCT_CONST_BITS, 1 << IDCT_CONST_BITS);   // (d0, d4)
    const V kTmp1 = vpair<V>(1 << IDCT_CONST_BITS, -(1 << IDCT_CONST_BITS));
    const V kTmp3 = vpair<V>(FIX_0_541196100 + FIX_0_765366865, FIX_0_541196100);  // (d2, d6)
    const V kTmp2 = vpair<V>(FIX_0_541196100, FIX_0_541196100 - FIX_1_847759065);
    const int a = FIX_1_175875602 - FIX_1_961570560, b = FIX_1_175875602,
              c = FIX_1_175875602 - FIX_0_390180644;
    const V kZ3a = vpair<V>(a, b), kZ3b = vpair<V>(b, a);  // (d7, d1), (d5, d3)
    const V kZ4a = vpair<V>(b, c), kZ4b = vpair<V>(c, b);
    const V kO0 = vpair<V>(FIX_0_298631336 - FIX_0_899976223, -FIX_0_899976223);  // (d7, d1)
    const V kO3 = vpair<V>(-FIX_0_899976223, FIX_1_501321110 - FIX_0_899976223);
    const V kO1 = vpair<V>(FIX_2_053119869 - FIX_2_562915447, -FIX_2_562915447);  // (d5, d3)
    const V kO2 = vpair<V>(-FIX_2_562915447, FIX_3_072711026 - FIX_2_562915447);
    const V rnd = vsplat32<V>(round);

    V res[2][8];
    for (int half = 0; half < 2; ++half) {
        V p04 = half ? vunpackhi16(in[0], in[4]) : vunpacklo16(in[0], in[4]);
        V p26 = half ? vunpackhi16(in[2], in[6]) : vunpacklo16(in[2], in[6]);
        V p71 = half ? vunpackhi16(in[7], in[1]) : vunpacklo16(in[7], in[1]);
        V p53 = half ? vunpackhi16(in[5], in[3]) : vunpacklo16(in[5], in[3]);

        V tmp0 = vadd32(vmadd(p04, kTmp0), rnd);
        V tmp1 = vadd32(vmadd(p04, kTmp1), rnd);
        V tmp3 = vmadd(p26, kTmp3);
        V tmp2 = vmadd(p26, kTmp2);
        V t10 = vadd32(tmp0, tmp3), t13 = vsub32(tmp0, tmp3);
        V t11 = vadd32(tmp1, tmp2), t12 = vsub32(tmp1, tmp2);

        V z3 = vadd32(vmadd(p71, kZ3a), vmadd(p53, kZ3b));
        V z4 = vadd32(vmadd(p71, kZ4a), vmadd(p53, kZ4b));
        V o0 = vadd32(vmadd(p71, kO0), z3);
        V o3 = vadd32(vmadd(p71, kO3), z4);
        V o1 = vadd32(vmadd(p53, kO1), z4);
        V o2 = vadd32(vmadd(p53, kO2), z3);

        V* r = res[half];
        r[0] = vsrai32<SHIFT>(vadd32(t10, o3));
        r[7] = vsrai32<SHIFT>(vsub32(t10, o3));
        r[1] = vsrai32<SHIFT>(vadd32(t11, o2));
        r[6] = vsrai32<SHIFT>(vsub32(t11, o2));
        r[2] = vsrai32<SHIFT>(vadd32(t12, o1));
        r[5] = vsrai32<SHIFT>(vsub32(t12, o1));
        r[3] = vsrai32<SHIFT>(vadd32(t13, o0));
        r[4] = vsrai32<SHIFT>(vsub32(t13, o0));
    }
    for (int k = 0; k < 8; ++k) out[k] = vpacks32(res[0][k], res[1][k]);
}

// Transposes the 8 x 8 16-bit matrix held in r[0..7] (per 128-bit lane).
template <class V>
WICKET_INLINE void transpose8x8(V* r) {
    V a0 = vunpacklo16(r[0], r[1]), a1 = vunpackhi16(r[0], r[1]);
    V a2 = vunpacklo16(r[2], r[3]), a3 = vunpackhi16(r[2], r[3]);
    V a4 = vunpacklo16(r[4], r[5]), a5 = vunpackhi16(r[4], r[5]);
    V a6 = vunpacklo16(r[6], r[7]), a7 = vunpackhi16(r[6], r[7]);
    V b0 = vunpacklo32(a0, a2), b1 = vunpackhi32(a0, a2);
    V b2 = vunpacklo32(a1, a3), b3 = vunpackhi32(a1, a3);
    V b4 = vunpacklo32(a4, a6), b5 = vunpackhi32(a4, a6);
    V b6 = vunpacklo32(a5, a7), b7 = vunpackhi32(a5, a7);
    r[0] = vunpacklo64(b0, b4);
    r[1] = vunpackhi64(b0, b4);
    r[2] = vunpacklo64(b1, b5);
    r[3] = vunpackhi64(b1, b5);
    r[4] = vunpacklo64(b2, b6);
    r[5] = vunpackhi64(b2, b6);
    r[6] = vunpacklo64(b3, b7);
    r[7] = vunpackhi64(b3, b7);
}

// Both passes: rows[] holds the 8 coefficient rows on entry and the 8 sample
// rows on return, each plus levelShift.
template <class V>
WICKET_INLINE void idctBlock(V* rows, int levelShift) {
    V t[8];
    idctPass<V, IDCT_CONST_BITS - IDCT_PASS1_BITS>(rows, t, 1 << (IDCT_CONST_BITS - IDCT_PASS1_BITS - 1));
    transpose8x8(t);
    const int shift2 = IDCT_CONST_BITS + IDCT_PASS1_BITS + 3;
    idctPass<V, shift2>(t, rows, (1 << (shift2 - 1)) + (levelShift << shift2));
    transpose8x8(rows);
}

// Loads the 8 coefficient rows as 16-bit values and clears the block.
WICKET_INLINE void loadCoefRows(int32_t* coef, __m128i* rows) {
    const __m128i zero = _mm_setzero_si128();
    for (int r = 0; r < 8; ++r) {
        __m128i* p = reinterpret_cast<__m128i*>(coef + 8 * r);
        rows[r] = _mm_packs_epi32(_mm_loadu_si128(p), _mm_loadu_si128(p + 1));
        _mm_storeu_si128(p, zero);
        _mm_storeu_si128(p + 1, zero);
    }
}

void idctS16Vec(int32_t* coef, int16_t* out, int stride) {
    __m128i rows[8];
    loadCoefRows(coef, rows);
    idctBlock(rows, 0);
    for (int r = 0; r < 8; ++r) _mm_storeu_si128(reinterpret_cast<__m128i*>(out + r * stride), rows[r]);
}

void idctU8Vec(int32_t* coef, uint8_t* out, int stride) {
    __m128i rows[8];
    loadCoefRows(coef, rows);
    idctBlock(rows, 128);
    for (int r = 0; r < 8; r += 2) {
        __m128i b = _mm_packus_epi16(rows[r], rows[r + 1]);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + r * stride), b);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + (r + 1) * stride), _mm_unpackhi_epi64(b, b));
    }
}

#ifdef WICKET_SIMD_WITH_AVX2
WICKET_INLINE void loadCoefRowsPair(int32_t* a, int32_t* b, __m256i* rows) {
    const __m256i zero = _mm256_setzero_si256();
    for (int r = 0; r < 8; ++r) {
        __m256i* pa = reinterpret_cast<__m256i*>(a + 8 * r);
        __m256i* pb = reinterpret_cast<__m256i*>(b + 8 * r);
        __m256i va = _mm256_loadu_si256(pa), vb = _mm256_loadu_si256(pb);
        _mm256_storeu_si256(pa, zero);
        _mm256_storeu_si256(pb, zero);
        // packs gives [a0-3 b0-3 | a4-7 b4-7]; the permute puts block a in the low lane.
        rows[r] = _mm256_permute4x64_epi64(_mm256_packs_epi32(va, vb), 0xD8);
    }
}

void idctS16PairVec(int32_t* coefA, int32_t* coefB, int16_t* outA, int16_t* outB, int stride) {
    __m256i rows[8];
    loadCoefRowsPair(coefA, coefB, rows);
    idctBlock(rows, 0);
    for (int r = 0; r < 8; ++r) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(outA + r * stride), _mm256_castsi256_si128(rows[r]));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(outB + r * stride), _mm256_extracti128_si256(rows[r], 1));
    }
}

void idctU8PairVec(int32_t* coefA, int32_t* coefB, uint8_t* outA, uint8_t* outB, int stride) {
    __m256i rows[8];
    loadCoefRowsPair(coefA, coefB, rows);
    idctBlock(rows, 128);
    for (int r = 0; r < 8; r += 2) {
        __m256i b = _mm256_packus_epi16(rows[r], rows[r + 1]);
        __m128i lo = _mm256_castsi256_si128(b), hi = _mm256_extracti128_si256(b, 1);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(outA + r * stride), lo);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(outA + (r + 1) * stride), _mm_unpackhi_epi64(lo, lo));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(outB + r * stride), hi);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(outB + (r + 1) * stride), _mm_unpackhi_epi64(hi, hi));
    }
}
#endif

// Colour conversion of 8 (V = __m128i) or 16 (__m256i) pixels to R, G, B as
// 16-bit values. With Y' = Y + 128 folded into the constant:
//   R = (Y*1024 + 1436*Cr + 131200) >> 10
//   G = (Y*1024 - 352*Cb) + (-731*Cr + 128*1025)) >> 10
//   B = (Y*1024 + 1815*Cb + 131200) >> 10
// 131200 = 128*1024 + 128. Products of 16-bit samples cannot overflow 32 bits,
// and the saturating packs clamp exactly as the scalar formula does.
template <class V>
WICKET_INLINE void yccToRgb16(V y, V cb, V cr, V& r16, V& g16, V& b16) {
    const int32_t bias = (WICKET_ROUND_ADDER << WICKET_RGB_SHIFT_BITS) + WICKET_ROUND_ADDER;
    const V kR = vpair<V>(1 << WICKET_RGB_SHIFT_BITS, WICKET_CR_TO_R);        // (Y, Cr)
    const V kG1 = vpair<V>(1 << WICKET_RGB_SHIFT_BITS, WICKET_CB_TO_G);       // (Y, Cb)
    const V kG2 = vpair<V>(WICKET_CR_TO_G, bias / WICKET_ROUND_ADDER);        // (Cr, 128)
    const V kB = vpair<V>(1 << WICKET_RGB_SHIFT_BITS, WICKET_CB_TO_B);        // (Y, Cb)
    const V vBias = vsplat32<V>(bias);
    const V c128 = vpair<V>(WICKET_ROUND_ADDER, WICKET_ROUND_ADDER);
    V ycrL = vunpacklo16(y, cr), ycrH = vunpackhi16(y, cr);
    V ycbL = vunpacklo16(y, cb), ycbH = vunpackhi16(y, cb);
    V cr1L = vunpacklo16(cr, c128), cr1H = vunpackhi16(cr, c128);
    const int S = WICKET_RGB_SHIFT_BITS;
    r16 = vpacks32(vsrai32<S>(vadd32(vmadd(ycrL, kR), vBias)), vsrai32<S>(vadd32(vmadd(ycrH, kR), vBias)));
    g16 = vpacks32(vsrai32<S>(vadd32(vmadd(ycbL, kG1), vmadd(cr1L, kG2))),
                   vsrai32<S>(vadd32(vmadd(ycbH, kG1), vmadd(cr1H, kG2))));
    b16 = vpacks32(vsrai32<S>(vadd32(vmadd(ycbL, kB), vBias)), vsrai32<S>(vadd32(vmadd(ycbH, kB), vBias)));
}
