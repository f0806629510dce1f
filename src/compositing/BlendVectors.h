#ifndef KVIMAGE_SRC_COMPOSITING_BLENDVECTORS_H
#define KVIMAGE_SRC_COMPOSITING_BLENDVECTORS_H

// The blend results of BlendOperations.h on many pixels at once: one channel
// of eight pixels in the eight 32-bit lanes of an AVX2 register (or of sixteen
// in an AVX-512 register), every value in 0 .. 255. Each form gives exactly
// the byte its lookup table holds (the tables are built from the same integer
// arithmetic); modes without an exact integer form read the table lane by
// lane.

#include <immintrin.h>

#include <kvimage/support.h>

#include "support/PathChoice.h"

namespace kvo {
namespace image {

namespace blendvec {

// (n + 127) / 255 for 0 <= n + 127 < 65536: the multiply-shift by
// 2^23 / 255 rounded up is exact over that range. With the high half of each
// lane zero, the unsigned 16-bit high product is that product shifted by 16,
// one cheap multiply instead of a 32-bit one.
KV_TARGET_AVX2 inline __m256i RoundedQuotient255(__m256i n) {
  const __m256i rounded = _mm256_add_epi32(n, _mm256_set1_epi32(127));
  return _mm256_srli_epi32(_mm256_mulhi_epu16(rounded, _mm256_set1_epi32(0x8081)), 7);
}

// a * b for lanes within the signed 16-bit range, one of them not negative:
// the pair multiply-add's second product (of the high halves) is then 0.
KV_TARGET_AVX2 inline __m256i SmallProduct(__m256i a, __m256i b) { return _mm256_madd_epi16(a, b); }

// round(a * b / 255)
KV_TARGET_AVX2 inline __m256i Multiply(__m256i a, __m256i b) { return RoundedQuotient255(SmallProduct(a, b)); }

// round(((t + b) * 255 - t * b) / 255)
KV_TARGET_AVX2 inline __m256i Screen(__m256i t, __m256i b) {
  const __m256i sum255 = SmallProduct(_mm256_add_epi32(t, b), _mm256_set1_epi32(255));
  return RoundedQuotient255(_mm256_sub_epi32(sum255, SmallProduct(t, b)));
}

// Multiply by 2t below the middle, screen with u = 2t - 255 above. The
// screen is taken as 255 - round((255 - u) * (255 - b) / 255), which is the
// same integer: with m = (255 - u) * (255 - b) the screen's numerator is
// 65025 - m, and (65152 - m) / 255 rounded down is 255 - (m + 127) / 255
// rounded down. So both halves are one rounded product, of 2t and b below
// the middle and of 510 - 2t and 255 - b above, the latter taken from 255.
KV_TARGET_AVX2 inline __m256i HardLight(__m256i t, __m256i b) {
  const __m256i k255 = _mm256_set1_epi32(255);
  const __m256i twice = _mm256_add_epi32(t, t);
  const __m256i above = _mm256_cmpgt_epi32(twice, k255);
  const __m256i x = _mm256_blendv_epi8(twice, _mm256_sub_epi32(_mm256_set1_epi32(510), twice), above);
  const __m256i y = _mm256_blendv_epi8(b, _mm256_sub_epi32(k255, b), above);
  const __m256i product = Multiply(x, y);
  return _mm256_blendv_epi8(product, _mm256_sub_epi32(k255, product), above);
}

// Integer quotient of non-negative values below 2^16 by a divisor in
// 1 .. 255 through single precision: the correctly rounded float quotient is
// never close enough to the next integer to round up to it, so truncation
// gives the integer quotient.
KV_TARGET_AVX2 inline __m256i SmallQuotient(__m256i numerator, __m256i divisor) {
  return _mm256_cvttps_epi32(_mm256_div_ps(_mm256_cvtepi32_ps(numerator), _mm256_cvtepi32_ps(divisor)));
}

// Lanes where the divisor would be 0 are excluded by the callers' selects;
// they divide by 1 instead.
KV_TARGET_AVX2 inline __m256i ColorDodge(__m256i t, __m256i b) {
  const __m256i k255 = _mm256_set1_epi32(255);
  const __m256i gap = _mm256_sub_epi32(k255, t);
  const __m256i safeGap = _mm256_max_epi32(gap, _mm256_set1_epi32(1));
  const __m256i numerator = _mm256_add_epi32(_mm256_mullo_epi32(b, k255), _mm256_srli_epi32(gap, 1));
  __m256i result = _mm256_min_epi32(SmallQuotient(numerator, safeGap), k255);
  result = _mm256_blendv_epi8(result, k255, _mm256_cmpeq_epi32(t, k255));
  return _mm256_andnot_si256(_mm256_cmpeq_epi32(b, _mm256_setzero_si256()), result);
}

KV_TARGET_AVX2 inline __m256i ColorBurn(__m256i t, __m256i b) {
  const __m256i k255 = _mm256_set1_epi32(255);
  const __m256i zero = _mm256_setzero_si256();
  const __m256i safeT = _mm256_max_epi32(t, _mm256_set1_epi32(1));
  const __m256i numerator = _mm256_add_epi32(_mm256_mullo_epi32(_mm256_sub_epi32(k255, b), k255), _mm256_srli_epi32(t, 1));
  const __m256i burned = SmallQuotient(numerator, safeT);
  __m256i result = _mm256_andnot_si256(_mm256_cmpgt_epi32(burned, k255), _mm256_sub_epi32(k255, burned));
  result = _mm256_andnot_si256(_mm256_cmpeq_epi32(t, zero), result);
  return _mm256_blendv_epi8(result, k255, _mm256_cmpeq_epi32(b, k255));
}

// The same forms on the sixteen 32-bit lanes of an AVX-512 register.
KV_TARGET_AVX512VBMI inline __m512i RoundedQuotient255(__m512i n) {
  const __m512i rounded = _mm512_add_epi32(n, _mm512_set1_epi32(127));
  return _mm512_srli_epi32(_mm512_mulhi_epu16(rounded, _mm512_set1_epi32(0x8081)), 7);
}

KV_TARGET_AVX512VBMI inline __m512i SmallProduct(__m512i a, __m512i b) { return _mm512_madd_epi16(a, b); }

KV_TARGET_AVX512VBMI inline __m512i Multiply(__m512i a, __m512i b) { return RoundedQuotient255(SmallProduct(a, b)); }

KV_TARGET_AVX512VBMI inline __m512i Screen(__m512i t, __m512i b) {
  const __m512i sum255 = SmallProduct(_mm512_add_epi32(t, b), _mm512_set1_epi32(255));
  return RoundedQuotient255(_mm512_sub_epi32(sum255, SmallProduct(t, b)));
}

KV_TARGET_AVX512VBMI inline __m512i HardLight(__m512i t, __m512i b) {
  const __m512i k255 = _mm512_set1_epi32(255);
  const __m512i twice = _mm512_add_epi32(t, t);
  const __mmask16 above = _mm512_cmpgt_epi32_mask(twice, k255);
  const __m512i x = _mm512_mask_sub_epi32(twice, above, _mm512_set1_epi32(510), twice);
  const __m512i y = _mm512_mask_sub_epi32(b, above, k255, b);
  const __m512i product = Multiply(x, y);
  return _mm512_mask_sub_epi32(product, above, k255, product);
}

// Operation::Apply lane by lane, for the curves without an integer form.
template <class Operation>
KV_TARGET_AVX2 inline __m256i ScalarLanes(kvo::KVLookupTables& tables, __m256i t, __m256i b) {
  alignas(32) int top[8], bottom[8], result[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(top), t);
  _mm256_store_si256(reinterpret_cast<__m256i*>(bottom), b);
  for (int lane = 0; lane < 8; ++lane) result[lane] = Operation::Apply(tables, top[lane], bottom[lane]);
  return _mm256_load_si256(reinterpret_cast<const __m256i*>(result));
}

}  // namespace blendvec

}  // namespace image
}  // namespace kvo

#endif
