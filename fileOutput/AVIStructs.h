#pragma once

// The fixed records of an AVI file, in file layout (little-endian, as the
// processors this runs on are).

#include <bit>
#include <cstddef>
#include <cstdint>

namespace kestrium {

static_assert(std::endian::native == std::endian::little, "AVI records are written as they lie in memory");

struct AVIMainHeader {
  uint32_t dwMicroSecPerFrame;
  uint32_t dwMaxBytesPerSec;
  uint32_t dwPaddingGranularity;
  uint32_t dwFlags;
  uint32_t dwTotalFrames;
  uint32_t dwInitialFrames;
  uint32_t dwStreams;
  uint32_t dwSuggestedBufferSize;
  uint32_t dwWidth;
  uint32_t dwHeight;
  uint32_t dwReserved[4];
};
static_assert(sizeof(AVIMainHeader) == 56);

struct AVIStreamHeader {
  uint32_t fccType;
  uint32_t fccHandler;
  uint32_t dwFlags;
  uint16_t wPriority;
  uint16_t wLanguage;
  uint32_t dwInitialFrames;
  uint32_t dwScale;
  uint32_t dwRate;
  uint32_t dwStart;
  uint32_t dwLength;
  uint32_t dwSuggestedBufferSize;
  uint32_t dwQuality;
  uint32_t dwSampleSize;
  int16_t rcFrame[4];  // left, top, right, bottom
};
static_assert(sizeof(AVIStreamHeader) == 56);
static_assert(offsetof(AVIStreamHeader, dwScale) == 20);
static_assert(offsetof(AVIStreamHeader, dwLength) == 32);
static_assert(offsetof(AVIStreamHeader, dwSampleSize) == 44);

inline constexpr uint32_t kAviKeyFrame = 0x10;          // writeChunk flag and idx1 flag
inline constexpr uint32_t kAviNotKeyFrameBit = 0x80000000;  // in index entry sizes
inline constexpr uint32_t kAvifInterleavedFlags = 0x10130;
inline constexpr uint32_t kAvifFlags = 0x10030;
// "has an index" and "must use the index": cleared on a file left without one.
inline constexpr uint32_t kAvifIndexFlags = 0x30;

constexpr uint32_t fourcc(const char (&code)[5]) {
  return static_cast<uint32_t>(static_cast<uint8_t>(code[0])) |
         (static_cast<uint32_t>(static_cast<uint8_t>(code[1])) << 8) |
         (static_cast<uint32_t>(static_cast<uint8_t>(code[2])) << 16) |
         (static_cast<uint32_t>(static_cast<uint8_t>(code[3])) << 24);
}

}  // namespace kestrium
