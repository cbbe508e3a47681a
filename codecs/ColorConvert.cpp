#include "codecs/ColorConvert.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "codecs/simd/SimdKernels.h"

namespace kestrium {

namespace {

constexpr size_t kMaxBlocksPerStep = 8;

inline uint8_t saturate(int32_t v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); }

bool aligned(const void* p, size_t alignment) { return (reinterpret_cast<uintptr_t>(p) & (alignment - 1)) == 0; }

// One row pair: whole steps straight from the caller's memory, the rest of the
// row through a zero-padded copy, so that no kernel needs a tail of its own and
// none reads or writes a byte past the row.
void convertRowPair(const ColorConvertKernels& k, const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1,
                    uint8_t* u, uint8_t* v, size_t blocks) {
  const size_t step = k.blocksPerStep;
  const size_t body = blocks - blocks % step;
  if (body != 0) {
    const size_t a = k.alignment;
    const bool useAligned = k.aligned != nullptr && aligned(row0, a) && aligned(row1, a) && aligned(y0, a) &&
                            aligned(y1, a) && aligned(u, a) && aligned(v, a);
    (useAligned ? k.aligned : k.unaligned)(row0, row1, y0, y1, u, v, body);
  }
  const size_t rest = blocks - body;
  if (rest == 0) return;
  alignas(32) uint8_t src[2][kMaxBlocksPerStep * 6] = {};
  alignas(32) uint8_t luma[2][kMaxBlocksPerStep * 2];
  alignas(32) uint8_t chroma[2][kMaxBlocksPerStep * 2];
  std::memcpy(src[0], row0 + body * 6, rest * 6);
  std::memcpy(src[1], row1 + body * 6, rest * 6);
  (k.aligned != nullptr ? k.aligned : k.unaligned)(src[0], src[1], luma[0], luma[1], chroma[0], chroma[1], step);
  std::memcpy(y0 + body * 2, luma[0], rest * 2);
  std::memcpy(y1 + body * 2, luma[1], rest * 2);
  std::memcpy(u + body, chroma[0], rest);
  std::memcpy(v + body, chroma[1], rest);
}

// Chroma rows are converted planar a piece at a time, in buffers small enough to
// stay in the first-level cache, and then interleaved; a multiple of every
// kernel's step, so that only a row's last piece has a tail.
constexpr size_t kPieceBlocks = 512;
static_assert(kPieceBlocks % kMaxBlocksPerStep == 0);

// The planar form's chroma is that of analogue video, U = 0.492 (B - Y) and
// V = 0.877 (R - Y); an H.264 player reads Cb = 0.564 (B - Y) and
// Cr = 0.713 (R - Y) (BT.601, full range). Each byte is scaled on its way into
// the pairs, by a table: the pictures would otherwise play with reds too strong
// and blues too weak.
struct ChromaTable {
  std::array<uint8_t, 256> bytes{};
  constexpr ChromaTable(int32_t numerator, int32_t denominator) {
    for (int32_t c = 0; c < 256; ++c) {
      const int32_t scaled = (c - 128) * numerator;
      // Rounded to nearest, halves away from zero.
      const int32_t rounded = (scaled >= 0 ? scaled + denominator / 2 : scaled - denominator / 2) / denominator;
      bytes[static_cast<size_t>(c)] = static_cast<uint8_t>(std::clamp(rounded + 128, 0, 255));
    }
  }
};
// 0.5 / 0.886 over 0.492, and 0.5 / 0.701 over 0.877, in ten-thousandths.
constexpr ChromaTable kCbOfU(11470, 10000);
constexpr ChromaTable kCrOfV(8133, 10000);

void interleave(const uint8_t* u, const uint8_t* v, uint8_t* uv, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    uv[2 * i] = kCbOfU.bytes[u[i]];
    uv[2 * i + 1] = kCrOfV.bytes[v[i]];
  }
}

}  // namespace

void rgbToYuvRowPair_C(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v,
                       size_t blocks) {
  for (size_t b = 0; b < blocks; ++b) {
    const uint8_t* p[4] = {row0 + b * 6, row0 + b * 6 + 3, row1 + b * 6, row1 + b * 6 + 3};
    int32_t y2[4];
    int32_t sumR = 0, sumB = 0;
    for (int i = 0; i < 4; ++i) {
      y2[i] = (kLumaR * p[i][0] + kLumaG * p[i][1] + kLumaB * p[i][2]) >> 14;
      sumR += p[i][0];
      sumB += p[i][2];
    }
    y0[b * 2] = saturate(y2[0] >> 1);
    y0[b * 2 + 1] = saturate(y2[1] >> 1);
    y1[b * 2] = saturate(y2[2] >> 1);
    y1[b * 2 + 1] = saturate(y2[3] >> 1);
    const int32_t m = (y2[0] + y2[1] + y2[2] + y2[3]) >> 2;
    u[b] = saturate((((sumB >> 1) - m) * kChromaU >> 16) + 128);
    v[b] = saturate((((sumR >> 1) - m) * kChromaV >> 16) + 128);
  }
}

ColorConvertKernels colorConvertKernels(CpuFlags flags) {
  ColorConvertKernels k;
  k.name = "c";
  k.unaligned = rgbToYuvRowPair_C;
  k.aligned = nullptr;
  k.alignment = 1;
  k.blocksPerStep = 1;
#if defined(__x86_64__) || defined(__i386__)
  if (!flags.has(kCpuSSE2)) return k;
  k = {"sse2", simd::rgbToYuvRowPair_SSE2, simd::rgbToYuvRowPairAligned_SSE2, 16, 8};
  if (!flags.has(kCpuSSSE3)) return k;
  k = {"ssse3", simd::rgbToYuvRowPair_SSSE3, simd::rgbToYuvRowPairAligned_SSSE3, 16, 8};
  if (!flags.has(kCpuAVX2)) return k;
  k = {"avx2", simd::rgbToYuvRowPair_AVX2, simd::rgbToYuvRowPairAligned_AVX2, 16, 8};
#else
  static_cast<void>(flags);
#endif
  return k;
}

const ColorConvertKernels& processColorConvertKernels() {
  static const ColorConvertKernels kernels = colorConvertKernels(processCpuFlags());
  return kernels;
}

int32_t rgbToYuv420Stepped(const ColorConvertKernels& kernels, const uint8_t* source, ptrdiff_t sourceStep,
                           uint8_t* const* planes, const ptrdiff_t* planeSteps, int32_t width, int32_t height) {
  if (source == nullptr || planes == nullptr || planeSteps == nullptr) return kConvertNullPointer;
  if (width < 1 || height < 1) return kConvertBadSize;
  if (planes[0] == nullptr || planes[1] == nullptr || planes[2] == nullptr) return kConvertNullPointer;
  const size_t blocks = static_cast<size_t>(width) / 2;
  const ptrdiff_t pairs = height / 2;
  if (blocks != 0) {
    for (ptrdiff_t pair = 0; pair < pairs; ++pair) {
      const uint8_t* row0 = source + 2 * pair * sourceStep;
      uint8_t* y0 = planes[0] + 2 * pair * planeSteps[0];
      convertRowPair(kernels, row0, row0 + sourceStep, y0, y0 + planeSteps[0], planes[1] + pair * planeSteps[1],
                     planes[2] + pair * planeSteps[2], blocks);
    }
  }
  return ((width | height) & 1) != 0 ? kConvertOddSize : kConvertDone;
}

int32_t rgbToYuv420Stepped(const uint8_t* source, ptrdiff_t sourceStep, uint8_t* const* planes,
                           const ptrdiff_t* planeSteps, int32_t width, int32_t height) {
  return rgbToYuv420Stepped(processColorConvertKernels(), source, sourceStep, planes, planeSteps, width, height);
}

int32_t rgbToNv12Stepped(const ColorConvertKernels& kernels, const uint8_t* source, ptrdiff_t sourceStep,
                         uint8_t* luma, ptrdiff_t lumaStep, uint8_t* chroma, ptrdiff_t chromaStep, int32_t width,
                         int32_t height) {
  if (source == nullptr || luma == nullptr || chroma == nullptr) return kConvertNullPointer;
  if (width < 1 || height < 1) return kConvertBadSize;
  const size_t blocks = static_cast<size_t>(width) / 2;
  const ptrdiff_t pairs = (static_cast<ptrdiff_t>(height) + 1) / 2;
  for (ptrdiff_t pair = 0; pair < pairs; ++pair) {
    const uint8_t* row0 = source + 2 * pair * sourceStep;
    // A last row of its own is paired with itself: the padding row repeats it.
    const uint8_t* row1 = 2 * pair + 1 < height ? row0 + sourceStep : row0;
    uint8_t* y0 = luma + 2 * pair * lumaStep;
    uint8_t* y1 = y0 + lumaStep;
    uint8_t* uv = chroma + pair * chromaStep;
    for (size_t start = 0; start < blocks; start += kPieceBlocks) {
      const size_t n = std::min(kPieceBlocks, blocks - start);
      alignas(64) uint8_t u[kPieceBlocks];
      alignas(64) uint8_t v[kPieceBlocks];
      convertRowPair(kernels, row0 + start * 6, row1 + start * 6, y0 + start * 2, y1 + start * 2, u, v, n);
      interleave(u, v, uv + start * 2, n);
    }
    if ((width & 1) != 0) {
      // The last column as a block of its own, each pixel twice.
      const uint8_t* last0 = row0 + (static_cast<size_t>(width) - 1) * 3;
      const uint8_t* last1 = row1 + (static_cast<size_t>(width) - 1) * 3;
      const uint8_t twice0[6] = {last0[0], last0[1], last0[2], last0[0], last0[1], last0[2]};
      const uint8_t twice1[6] = {last1[0], last1[1], last1[2], last1[0], last1[1], last1[2]};
      uint8_t u = 0, v = 0;
      rgbToYuvRowPair_C(twice0, twice1, y0 + width - 1, y1 + width - 1, &u, &v, 1);
      interleave(&u, &v, uv + 2 * blocks, 1);
    }
  }
  return kConvertDone;
}

int32_t rgbToNv12Stepped(const uint8_t* source, ptrdiff_t sourceStep, uint8_t* luma, ptrdiff_t lumaStep,
                         uint8_t* chroma, ptrdiff_t chromaStep, int32_t width, int32_t height) {
  return rgbToNv12Stepped(processColorConvertKernels(), source, sourceStep, luma, lumaStep, chroma, chromaStep, width,
                          height);
}

int32_t rgbToYuv420(const uint8_t* source, uint8_t* const* planes, int32_t width, int32_t height) {
  // The distances come from the width alone; a bad width is reported by the
  // stepped form's own checks, which run in the same order.
  const ptrdiff_t w = width > 0 ? width : 0;
  const ptrdiff_t steps[3] = {w, w / 2, w / 2};
  return rgbToYuv420Stepped(source, 3 * w, planes, steps, width, height);
}

}  // namespace kestrium
