#pragma once

// RGB to YUV 4:2:0 with chroma averaged over 2 x 2 pixels: one matrix (that of
// analogue video, full range), one target layout, several processor tiers.
//
// The kernels name the source bytes R, G and B in memory order; which channel
// really stands there is the caller's business (the lossless encoder hands in
// blue first). Y is computed per pixel, U from the third byte and V from the
// first, both around 128:
//   y2 = (9798 R + 19235 G + 3736 B) >> 14          twice the luma, one fraction bit
//   Y  = y2 >> 1
//   U  = ((((B0+B1+B2+B3) >> 1) - m) * 16121 >> 16) + 128
//   V  = ((((R0+R1+R2+R3) >> 1) - m) * 28737 >> 16) + 128,  m = (sum of the four y2) >> 2
// Every tier computes exactly these values.

#include <cstddef>
#include <cstdint>

#include "codecs/CpuFeatures.h"

namespace kestrium {

// Results of the conversion entry points.
enum ConvertStatus : int32_t {
  kConvertDone = 0,
  kConvertOddSize = 35,      // done, but the last odd column or row was left alone
  kConvertBadSize = -6,      // width or height below 1
  kConvertNullPointer = -8,  // the source, the plane array or a plane is null
};

inline constexpr int32_t kLumaR = 9798;
inline constexpr int32_t kLumaG = 19235;
inline constexpr int32_t kLumaB = 3736;
inline constexpr int32_t kChromaU = 16121;
inline constexpr int32_t kChromaV = 28737;

// Converts `blocks` 2 x 2 blocks from two source rows into two luma rows and one
// row of each chroma plane. Vector kernels take a whole number of steps of
// blocksPerStep blocks; the driver runs the tail of a row through a padded copy.
using RgbToYuvRowPair = void (*)(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u,
                                 uint8_t* v, size_t blocks);

struct ColorConvertKernels {
  const char* name = "c";
  RgbToYuvRowPair unaligned = nullptr;
  // Used for a row pair when every address of it is a multiple of alignment.
  RgbToYuvRowPair aligned = nullptr;
  size_t alignment = 1;
  size_t blocksPerStep = 1;
};

// The kernels of the highest tier the flags allow, chosen down a ladder that stops
// at the first missing feature.
ColorConvertKernels colorConvertKernels(CpuFlags flags);
// The process-wide choice, made once from the processor's features.
const ColorConvertKernels& processColorConvertKernels();

// Packed form: source rows are 3 x width bytes apart, luma rows width, chroma
// rows width / 2. The arguments are checked in this order: source and planes,
// width and height, then each plane.
int32_t rgbToYuv420(const uint8_t* source, uint8_t* const* planes, int32_t width, int32_t height);

// Stepped form: the same with free distances in bytes between rows; a negative
// distance walks a picture stored the other way up.
int32_t rgbToYuv420Stepped(const uint8_t* source, ptrdiff_t sourceStep, uint8_t* const* planes,
                           const ptrdiff_t* planeSteps, int32_t width, int32_t height);

// The same, with the kernels given instead of the process-wide ones.
int32_t rgbToYuv420Stepped(const ColorConvertKernels& kernels, const uint8_t* source, ptrdiff_t sourceStep,
                           uint8_t* const* planes, const ptrdiff_t* planeSteps, int32_t width, int32_t height);

// NV12, the layout H.264 encoders take: a luma plane and one plane of Cb, Cr
// pairs interleaved, as players read them (BT.601, full range): the luma of the
// planar form, its chroma scaled to Cb = 0.564 (B - Y) and Cr = 0.713 (R - Y),
// with B and R the source's third and first bytes. The picture is covered whole:
// an odd width or height is rounded up by repeating the last column or row, so
// that an encoder that wants even sizes gets a full picture. The luma plane holds
// ((width + 1) & ~1) x ((height + 1) & ~1) bytes at lumaStep, the chroma plane
// (width + 1) / 2 pairs a row and (height + 1) / 2 rows at chromaStep. Returns
// kConvertDone, or the planar form's errors for a bad size or a null pointer.
int32_t rgbToNv12Stepped(const ColorConvertKernels& kernels, const uint8_t* source, ptrdiff_t sourceStep,
                         uint8_t* luma, ptrdiff_t lumaStep, uint8_t* chroma, ptrdiff_t chromaStep, int32_t width,
                         int32_t height);
int32_t rgbToNv12Stepped(const uint8_t* source, ptrdiff_t sourceStep, uint8_t* luma, ptrdiff_t lumaStep,
                         uint8_t* chroma, ptrdiff_t chromaStep, int32_t width, int32_t height);

// The scalar reference kernel, one block at a time.
void rgbToYuvRowPair_C(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1, uint8_t* u, uint8_t* v,
                       size_t blocks);

}  // namespace kestrium
