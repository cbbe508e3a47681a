// Colour conversion with AVX2. The two rows of a row pair travel together, one in
// each 128-bit lane: the in-lane shuffles, packs and horizontal adds of AVX2 then
// keep each row's pixels in order, and only the chroma, which needs both rows,
// crosses lanes.

#include <immintrin.h>

#include "codecs/ColorConvert.h"
#include "codecs/simd/SimdKernels.h"

namespace kestrium::simd {

namespace {

constexpr size_t kPrefetchAhead = 1024;

inline __m256i shuffleRB(int at) {
  const auto b = [](int i) { return static_cast<char>(i); };
  return _mm256_setr_epi8(b(at), -1, b(at + 2), -1, b(at + 3), -1, b(at + 5), -1, b(at + 6), -1, b(at + 8), -1,
                          b(at + 9), -1, b(at + 11), -1, b(at), -1, b(at + 2), -1, b(at + 3), -1, b(at + 5), -1,
                          b(at + 6), -1, b(at + 8), -1, b(at + 9), -1, b(at + 11), -1);
}
inline __m256i shuffleG(int at) {
  const auto b = [](int i) { return static_cast<char>(i); };
  return _mm256_setr_epi8(b(at + 1), -1, -1, -1, b(at + 4), -1, -1, -1, b(at + 7), -1, -1, -1, b(at + 10), -1, -1,
                          -1, b(at + 1), -1, -1, -1, b(at + 4), -1, -1, -1, b(at + 7), -1, -1, -1, b(at + 10), -1,
                          -1, -1);
}

struct Constants {
  __m256i rb0 = shuffleRB(0), g0 = shuffleG(0), rb4 = shuffleRB(4), g4 = shuffleG(4);
  __m256i kRB = _mm256_set1_epi32(kLumaR | (kLumaB << 16));
  __m256i kG = _mm256_set1_epi32(kLumaG);
  __m256i kVU = _mm256_set1_epi32(kChromaV | (kChromaU << 16));
  __m256i k128 = _mm256_set1_epi16(128);
  __m256i ones = _mm256_set1_epi16(1);
  // Per lane: the U bytes of its four blocks, then the V bytes.
  __m256i splitUV = _mm256_setr_epi8(1, 3, 5, 7, 0, 2, 4, 6, -1, -1, -1, -1, -1, -1, -1, -1, 1, 3, 5, 7, 0, 2, 4, 6,
                                     -1, -1, -1, -1, -1, -1, -1, -1);
  __m256i gatherUV = _mm256_setr_epi32(0, 4, 1, 5, 2, 3, 6, 7);
};

template <bool kAligned>
inline __m128i load(const uint8_t* p) {
  if constexpr (kAligned) return _mm_load_si128(reinterpret_cast<const __m128i*>(p));
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// Row 0's bytes at offset in the low lane, row 1's in the high lane.
template <bool kAligned>
inline __m256i loadPair(const uint8_t* row0, const uint8_t* row1, size_t offset) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(load<kAligned>(row0 + offset)),
                                 load<kAligned>(row1 + offset), 1);
}

inline void group(const Constants& c, __m256i g, __m256i shufRB, __m256i shufG, __m256i& rb, __m256i& y2) {
  rb = _mm256_shuffle_epi8(g, shufRB);
  const __m256i gg = _mm256_shuffle_epi8(g, shufG);
  y2 = _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(rb, c.kRB), _mm256_madd_epi16(gg, c.kG)), 14);
}

template <bool kAligned>
inline void store(uint8_t* p, __m128i v) {
  if constexpr (kAligned) {
    _mm_store_si128(reinterpret_cast<__m128i*>(p), v);
  } else {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
  }
}

template <bool kAligned>
void rowPair(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v,
             size_t blocks) {
  const Constants c;
  const ptrdiff_t step = row1 - row0;
  for (size_t b = 0; b < blocks; b += 8) {
    const uint8_t* s0 = row0 + b * 6;
    const uint8_t* s1 = row1 + b * 6;
    // Frames come from memory, not the cache: the next steps of these rows go
    // to the first-level cache, and the next row pair to the second, well ahead
    // of need. Without it the loads wait for memory half of the time.
    _mm_prefetch(reinterpret_cast<const char*>(s0 + kPrefetchAhead), _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char*>(s1 + kPrefetchAhead), _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char*>(s1 + step), _MM_HINT_T1);
    _mm_prefetch(reinterpret_cast<const char*>(s1 + 2 * step), _MM_HINT_T1);
    __m256i g0, g1, g2, g3;
    if constexpr (kAligned) {
      const __m256i l0 = loadPair<true>(s0, s1, 0), l1 = loadPair<true>(s0, s1, 16), l2 = loadPair<true>(s0, s1, 32);
      g0 = l0;
      g1 = _mm256_alignr_epi8(l1, l0, 12);
      g2 = _mm256_alignr_epi8(l2, l1, 8);
      g3 = l2;
    } else {
      g0 = loadPair<false>(s0, s1, 0);
      g1 = loadPair<false>(s0, s1, 12);
      g2 = loadPair<false>(s0, s1, 24);
      g3 = loadPair<false>(s0, s1, 32);
    }
    __m256i rb[4], y2[4];
    group(c, g0, c.rb0, c.g0, rb[0], y2[0]);
    group(c, g1, c.rb0, c.g0, rb[1], y2[1]);
    group(c, g2, c.rb0, c.g0, rb[2], y2[2]);
    group(c, g3, c.rb4, c.g4, rb[3], y2[3]);

    // y2 is at most 510: as words it packs without loss, and Y is half of it.
    const __m256i lo = _mm256_packs_epi32(y2[0], y2[1]);
    const __m256i hi = _mm256_packs_epi32(y2[2], y2[3]);
    const __m256i luma = _mm256_packus_epi16(_mm256_srli_epi16(lo, 1), _mm256_srli_epi16(hi, 1));
    store<kAligned>(y0 + b * 2, _mm256_castsi256_si128(luma));
    store<kAligned>(y1 + b * 2, _mm256_extracti128_si256(luma, 1));

    // Pair sums per row (blocks 0-3 and 4-7), then row 0 plus row 1 per block.
    const __m256i rbA = _mm256_hadd_epi32(rb[0], rb[1]), rbB = _mm256_hadd_epi32(rb[2], rb[3]);
    const __m256i yA = _mm256_madd_epi16(lo, c.ones), yB = _mm256_madd_epi16(hi, c.ones);
    const __m256i rbSum = _mm256_add_epi32(_mm256_permute2x128_si256(rbA, rbB, 0x20),
                                           _mm256_permute2x128_si256(rbA, rbB, 0x31));
    const __m256i ySum =
        _mm256_add_epi32(_mm256_permute2x128_si256(yA, yB, 0x20), _mm256_permute2x128_si256(yA, yB, 0x31));

    const __m256i half = _mm256_srli_epi16(rbSum, 1);
    const __m256i m = _mm256_srli_epi32(ySum, 2);
    const __m256i d = _mm256_sub_epi16(half, _mm256_or_si256(m, _mm256_slli_epi32(m, 16)));
    const __m256i vu = _mm256_add_epi16(_mm256_mulhi_epi16(d, c.kVU), c.k128);
    const __m256i bytes = _mm256_shuffle_epi8(_mm256_packus_epi16(vu, vu), c.splitUV);
    const __m128i uv = _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(bytes, c.gatherUV));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(u + b), uv);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(v + b), _mm_unpackhi_epi64(uv, uv));
  }
}

}  // namespace

void rgbToYuvRowPair_AVX2(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                          uint8_t* v, size_t blocks) {
  rowPair<false>(row0, row1, y0, y1, u, v, blocks);
}

void rgbToYuvRowPairAligned_AVX2(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                                 uint8_t* v, size_t blocks) {
  rowPair<true>(row0, row1, y0, y1, u, v, blocks);
}

}  // namespace kestrium::simd
