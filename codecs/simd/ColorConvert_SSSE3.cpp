// Colour conversion with SSSE3: byte shuffles spread each pixel into a 32-bit
// lane, two multiply-adds give the luma sum exactly, and horizontal adds pair
// neighbouring pixels for the chroma of each 2 x 2 block.

#include <tmmintrin.h>

#include "codecs/ColorConvert.h"
#include "codecs/simd/SimdKernels.h"

namespace kestrium::simd {

namespace {

// Pixel i of a 12-byte group goes to lane i as the words (R, B) and (G, 0); the
// second set starts 4 bytes further in, for the last group of a step, which is
// read from 4 bytes early so that no load passes the 48 bytes of the step.
inline __m128i shuffleRB(int at) {
  return _mm_setr_epi8(static_cast<char>(at), -1, static_cast<char>(at + 2), -1, static_cast<char>(at + 3), -1,
                       static_cast<char>(at + 5), -1, static_cast<char>(at + 6), -1, static_cast<char>(at + 8), -1,
                       static_cast<char>(at + 9), -1, static_cast<char>(at + 11), -1);
}
inline __m128i shuffleG(int at) {
  return _mm_setr_epi8(static_cast<char>(at + 1), -1, -1, -1, static_cast<char>(at + 4), -1, -1, -1,
                       static_cast<char>(at + 7), -1, -1, -1, static_cast<char>(at + 10), -1, -1, -1);
}

struct Constants {
  __m128i rb0 = shuffleRB(0), g0 = shuffleG(0), rb4 = shuffleRB(4), g4 = shuffleG(4);
  __m128i kRB = _mm_set1_epi32(kLumaR | (kLumaB << 16));
  __m128i kG = _mm_set1_epi32(kLumaG);
  __m128i kVU = _mm_set1_epi32(kChromaV | (kChromaU << 16));
  __m128i k128 = _mm_set1_epi16(128);
  __m128i splitUV = _mm_setr_epi8(1, 3, 5, 7, 9, 11, 13, 15, 0, 2, 4, 6, 8, 10, 12, 14);
};

// Four pixels: their (R, B) words and their y2.
inline void group(const Constants& c, __m128i g, __m128i shufRB, __m128i shufG, __m128i& rb, __m128i& y2) {
  rb = _mm_shuffle_epi8(g, shufRB);
  const __m128i gg = _mm_shuffle_epi8(g, shufG);
  y2 = _mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(rb, c.kRB), _mm_madd_epi16(gg, c.kG)), 14);
}

template <bool kAligned>
inline __m128i load(const uint8_t* p) {
  if constexpr (kAligned) return _mm_load_si128(reinterpret_cast<const __m128i*>(p));
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

template <bool kAligned>
inline void store(uint8_t* p, __m128i v) {
  if constexpr (kAligned) {
    _mm_store_si128(reinterpret_cast<__m128i*>(p), v);
  } else {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
  }
}

// One row of a step: writes 16 luma bytes and returns the pair sums of (R, B)
// and of y2 for the 8 blocks, in two vectors each.
template <bool kAligned>
inline void row(const Constants& c, const uint8_t* src, uint8_t* y, __m128i (&rbSum)[2], __m128i (&ySum)[2]) {
  __m128i g0, g1, g2, g3;
  if constexpr (kAligned) {
    // Three aligned loads, realigned to the 12-byte groups in registers.
    const __m128i l0 = load<true>(src), l1 = load<true>(src + 16), l2 = load<true>(src + 32);
    g0 = l0;
    g1 = _mm_alignr_epi8(l1, l0, 12);
    g2 = _mm_alignr_epi8(l2, l1, 8);
    g3 = l2;
  } else {
    g0 = load<false>(src);
    g1 = load<false>(src + 12);
    g2 = load<false>(src + 24);
    g3 = load<false>(src + 32);
  }
  __m128i rb[4], y2[4];
  group(c, g0, c.rb0, c.g0, rb[0], y2[0]);
  group(c, g1, c.rb0, c.g0, rb[1], y2[1]);
  group(c, g2, c.rb0, c.g0, rb[2], y2[2]);
  group(c, g3, c.rb4, c.g4, rb[3], y2[3]);
  const __m128i lo = _mm_packs_epi32(_mm_srai_epi32(y2[0], 1), _mm_srai_epi32(y2[1], 1));
  const __m128i hi = _mm_packs_epi32(_mm_srai_epi32(y2[2], 1), _mm_srai_epi32(y2[3], 1));
  store<kAligned>(y, _mm_packus_epi16(lo, hi));
  // Neighbouring pixels summed; each word stays below 2^11, so the 32-bit adds
  // never carry from the R word into the B word.
  rbSum[0] = _mm_hadd_epi32(rb[0], rb[1]);
  rbSum[1] = _mm_hadd_epi32(rb[2], rb[3]);
  ySum[0] = _mm_hadd_epi32(y2[0], y2[1]);
  ySum[1] = _mm_hadd_epi32(y2[2], y2[3]);
}

// Four blocks: (V, U) words from the block sums of (R, B) and of y2.
inline __m128i chroma(const Constants& c, __m128i rbSum, __m128i ySum) {
  const __m128i half = _mm_srli_epi16(rbSum, 1);
  const __m128i m = _mm_srli_epi32(ySum, 2);
  const __m128i d = _mm_sub_epi16(half, _mm_or_si128(m, _mm_slli_epi32(m, 16)));
  // The high half of a 16 x 16 product is the arithmetic shift by 16.
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
    const __m128i uv = _mm_shuffle_epi8(_mm_packus_epi16(vu0, vu1), c.splitUV);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(u + b), uv);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(v + b), _mm_unpackhi_epi64(uv, uv));
  }
}

}  // namespace

void rgbToYuvRowPair_SSSE3(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                           uint8_t* v, size_t blocks) {
  rowPair<false>(row0, row1, y0, y1, u, v, blocks);
}

void rgbToYuvRowPairAligned_SSSE3(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                                  uint8_t* v, size_t blocks) {
  rowPair<true>(row0, row1, y0, y1, u, v, blocks);
}

}  // namespace kestrium::simd
