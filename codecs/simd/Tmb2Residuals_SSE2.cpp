// The lossless codec's residual pass with SSE2: 16 residuals per subtraction, and
// a histogram of the sampled bytes, skipped for stretches whose sampled bytes
// are all 0 (the codec never counts a sampled 0, and flat areas are common).

#include <emmintrin.h>

#include "codecs/simd/SimdKernels.h"

namespace kestrium::simd {

void verticalResiduals_SSE2(const uint8_t* above, const uint8_t* below, uint8_t* out, size_t groups,
                            uint32_t (*hist)[256]) {
  const size_t n = groups * 8;
  const __m128i sampled = _mm_set1_epi16(0x00FF);
  size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    const __m128i r = _mm_sub_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(above + i)),
                                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(below + i)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), r);
    if (_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_and_si128(r, sampled), _mm_setzero_si128())) == 0xFFFF) continue;
    for (size_t k = i; k < i + 16; k += 8) {
      ++hist[0][out[k]];
      ++hist[1][out[k + 2]];
      ++hist[2][out[k + 4]];
      ++hist[3][out[k + 6]];
    }
  }
  for (; i < n; i += 8) {
    for (size_t k = i; k < i + 8; ++k) out[k] = static_cast<uint8_t>(above[k] - below[k]);
    ++hist[0][out[i]];
    ++hist[1][out[i + 2]];
    ++hist[2][out[i + 4]];
    ++hist[3][out[i + 6]];
  }
}

}  // namespace kestrium::simd
