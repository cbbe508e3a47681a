// The lossless codec's residual pass with AVX2: 32 residuals per subtraction, and
// a histogram of the sampled bytes, skipped for stretches whose sampled bytes
// are all 0 (the codec never counts a sampled 0, and flat areas are common).

#include <immintrin.h>

#include "codecs/simd/SimdKernels.h"

namespace kestrium::simd {

void verticalResiduals_AVX2(const uint8_t* above, const uint8_t* below, uint8_t* out, size_t groups,
                            uint32_t (*hist)[256]) {
  const size_t n = groups * 8;
  const __m256i sampled = _mm256_set1_epi16(0x00FF);
  size_t i = 0;
  for (; i + 32 <= n; i += 32) {
    const __m256i r = _mm256_sub_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(above + i)),
                                      _mm256_loadu_si256(reinterpret_cast<const __m256i*>(below + i)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i), r);
    if (_mm256_testz_si256(r, sampled)) continue;
    for (size_t k = i; k < i + 32; k += 8) {
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
