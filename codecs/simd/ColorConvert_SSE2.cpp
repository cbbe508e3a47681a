// Colour conversion with SSE2 alone: without byte shuffles, each pixel is moved
// into a 32-bit lane by whole-register byte shifts, and masks split its bytes
// into the words that the multiply-adds take.

#include <emmintrin.h>

#include "codecs/ColorConvert.h"
#include "codecs/simd/SimdKernels.h"

namespace kestrium::simd {

namespace {

struct Constants {
  __m128i lowBytes = _mm_set1_epi32(0x00FF00FF);
  __m128i byte0 = _mm_set1_epi32(0xFF);
  __m128i kRB = _mm_set1_epi32(kLumaR | (kLumaB << 16));
  __m128i kG = _mm_set1_epi32(kLumaG);
  __m128i kVU = _mm_set1_epi32(kChromaV | (kChromaU << 16));
  __m128i k128 = _mm_set1_epi16(128);
};

// Four pixels at the start of g: their (R, B) words and their y2.
inline void group(const Constants& c, __m128i g, __m128i& rb, __m128i& y2) {
  const __m128i p01 = _mm_unpacklo_epi32(g, _mm_srli_si128(g, 3));
  const __m128i p23 = _mm_unpacklo_epi32(_mm_srli_si128(g, 6), _mm_srli_si128(g, 9));
  const __m128i px = _mm_unpacklo_epi64(p01, p23);
  rb = _mm_and_si128(px, c.lowBytes);
  const __m128i gg = _mm_and_si128(_mm_srli_epi32(px, 8), c.byte0);
  y2 = _mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(rb, c.kRB), _mm_madd_epi16(gg, c.kG)), 14);
}

// Sums of neighbouring lanes: (a0+a1, a2+a3, b0+b1, b2+b3).
inline __m128i pairSums(__m128i a, __m128i b) {
  const __m128 fa = _mm_castsi128_ps(a), fb = _mm_castsi128_ps(b);
  const __m128i even = _mm_castps_si128(_mm_shuffle_ps(fa, fb, _MM_SHUFFLE(2, 0, 2, 0)));
  const __m128i odd = _mm_castps_si128(_mm_shuffle_ps(fa, fb, _MM_SHUFFLE(3, 1, 3, 1)));
  return _mm_add_epi32(even, odd);
}

template <bool kAligned>
inline __m128i load(const uint8_t* p) {
  if constexpr (kAligned) return _mm_load_si128(reinterpret_cast<const __m128i*>(p));
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

template <bool kAligned>
inline void row(const Constants& c, const uint8_t* src, uint8_t* y, __m128i (&rbSum)[2], __m128i (&ySum)[2]) {
  __m128i g0, g1, g2, g3;
  if constexpr (kAligned) {
    const __m128i l0 = load<true>(src), l1 = load<true>(src + 16), l2 = load<true>(src + 32);
    g0 = l0;
    g1 = _mm_or_si128(_mm_srli_si128(l0, 12), _mm_slli_si128(l1, 4));
    g2 = _mm_or_si128(_mm_srli_si128(l1, 8), _mm_slli_si128(l2, 8));
    g3 = _mm_srli_si128(l2, 4);
  } else {
    g0 = load<false>(src);
    g1 = load<false>(src + 12);
    g2 = load<false>(src + 24);
    g3 = _mm_srli_si128(load<false>(src + 32), 4);
  }
  __m128i rb[4], y2[4];
  group(c, g0, rb[0], y2[0]);
  group(c, g1, rb[1], y2[1]);
  group(c, g2, rb[2], y2[2]);
  group(c, g3, rb[3], y2[3]);
  const __m128i lo = _mm_packs_epi32(_mm_srai_epi32(y2[0], 1), _mm_srai_epi32(y2[1], 1));
  const __m128i hi = _mm_packs_epi32(_mm_srai_epi32(y2[2], 1), _mm_srai_epi32(y2[3], 1));
  const __m128i luma = _mm_packus_epi16(lo, hi);
  if constexpr (kAligned) {
    _mm_store_si128(reinterpret_cast<__m128i*>(y), luma);
  } else {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(y), luma);
  }
  rbSum[0] = pairSums(rb[0], rb[1]);
  rbSum[1] = pairSums(rb[2], rb[3]);
  ySum[0] = pairSums(y2[0], y2[1]);
  ySum[1] = pairSums(y2[2], y2[3]);
}

inline __m128i chroma(const Constants& c, __m128i rbSum, __m128i ySum) {
  const __m128i half = _mm_srli_epi16(rbSum, 1);
  const __m128i m = _mm_srli_epi32(ySum, 2);
  const __m128i d = _mm_sub_epi16(half, _mm_or_si128(m, _mm_slli_epi32(m, 16)));
  return _mm_add_epi16(_mm_mulhi_epi16(d, c.kVU), c.k128);
}

// Frames come from memory, not the cache: the next steps of these rows go to
// the first-level cache, and the next row pair to the second, ahead of need.
inline void prefetch(const uint8_t* s0, const uint8_t* s1, ptrdiff_t step) {
  _mm_prefetch(reinterpret_cast<const char*>(s0 + 1024), _MM_HINT_T0);
  _mm_prefetch(reinterpret_cast<const char*>(s1 + 1024), _MM_HINT_T0);
  _mm_prefetch(reinterpret_cast<const char*>(s1 + step), _MM_HINT_T1);
  _mm_prefetch(reinterpret_cast<const char*>(s1 + 2 * step), _MM_HINT_T1);
}

template <bool kAligned>
void rowPair(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v,
             size_t blocks) {
  const Constants c;
  const ptrdiff_t step = row1 - row0;
  for (size_t b = 0; b < blocks; b += 8) {
    prefetch(row0 + b * 6, row1 + b * 6, step);
    __m128i rb0[2], ys0[2], rb1[2], ys1[2];
    row<kAligned>(c, row0 + b * 6, y0 + b * 2, rb0, ys0);
    row<kAligned>(c, row1 + b * 6, y1 + b * 2, rb1, ys1);
    const __m128i vu0 = chroma(c, _mm_add_epi32(rb0[0], rb1[0]), _mm_add_epi32(ys0[0], ys1[0]));
    const __m128i vu1 = chroma(c, _mm_add_epi32(rb0[1], rb1[1]), _mm_add_epi32(ys0[1], ys1[1]));
    // The words are signed and may stand outside 0..255 (pure red, pure green):
    // sign-extend each before the saturating packs.
    const __m128i v0 = _mm_srai_epi32(_mm_slli_epi32(vu0, 16), 16), v1 = _mm_srai_epi32(_mm_slli_epi32(vu1, 16), 16);
    const __m128i u0 = _mm_srai_epi32(vu0, 16), u1 = _mm_srai_epi32(vu1, 16);
    const __m128i uv = _mm_packus_epi16(_mm_packs_epi32(u0, u1), _mm_packs_epi32(v0, v1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(u + b), uv);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(v + b), _mm_unpackhi_epi64(uv, uv));
  }
}

}  // namespace

void rgbToYuvRowPair_SSE2(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                          uint8_t* v, size_t blocks) {
  rowPair<false>(row0, row1, y0, y1, u, v, blocks);
}

void rgbToYuvRowPairAligned_SSE2(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                                 uint8_t* v, size_t blocks) {
  rowPair<true>(row0, row1, y0, y1, u, v, blocks);
}

}  // namespace kestrium::simd
