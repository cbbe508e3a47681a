#pragma once

// The vector kernels, one translation unit per instruction set. Only that unit is
// built with its instruction set enabled; nothing here may be called unless the
// processor has it, which the dispatch ladders see to.

#include <cstddef>
#include <cstdint>

namespace kestrium::simd {

// Colour conversion, 8 blocks (16 pixels of two rows) a step. The aligned forms
// need every address on a 16-byte boundary.
void rgbToYuvRowPair_SSE2(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                          uint8_t* v, size_t blocks);
void rgbToYuvRowPairAligned_SSE2(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                                 uint8_t* v, size_t blocks);
void rgbToYuvRowPair_SSSE3(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                           uint8_t* v, size_t blocks);
void rgbToYuvRowPairAligned_SSSE3(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                                  uint8_t* v, size_t blocks);
void rgbToYuvRowPair_AVX2(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                          uint8_t* v, size_t blocks);
void rgbToYuvRowPairAligned_AVX2(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                                 uint8_t* v, size_t blocks);

// Vertical residuals of the lossless codec: out[i] = above[i] - below[i] for a
// whole number of 8-byte groups, and a histogram of bytes 0, 2, 4 and 6 of every
// group added to hist (four tables of 256, summed by the caller).
void verticalResiduals_SSE2(const uint8_t* above, const uint8_t* below, uint8_t* out, size_t groups,
                            uint32_t (*hist)[256]);
void verticalResiduals_AVX2(const uint8_t* above, const uint8_t* below, uint8_t* out, size_t groups,
                            uint32_t (*hist)[256]);

}  // namespace kestrium::simd
