#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrium {

// The 40-byte BITMAPINFOHEADER that describes a video stream in an AVI file.
struct BitmapInfoHeader {
  uint32_t biSize;
  int32_t biWidth;
  int32_t biHeight;
  uint16_t biPlanes;
  uint16_t biBitCount;
  uint32_t biCompression;  // a fourcc, or 0 for uncompressed
  uint32_t biSizeImage;
  int32_t biXPelsPerMeter;
  int32_t biYPelsPerMeter;
  uint32_t biClrUsed;
  uint32_t biClrImportant;
};
static_assert(sizeof(BitmapInfoHeader) == 40);
static_assert(offsetof(BitmapInfoHeader, biCompression) == 16);
static_assert(offsetof(BitmapInfoHeader, biSizeImage) == 20);

constexpr uint32_t makeFourcc(char a, char b, char c, char d) {
  return static_cast<uint32_t>(static_cast<uint8_t>(a)) | (static_cast<uint32_t>(static_cast<uint8_t>(b)) << 8) |
         (static_cast<uint32_t>(static_cast<uint8_t>(c)) << 16) | (static_cast<uint32_t>(static_cast<uint8_t>(d)) << 24);
}

// The header every encoder here describes its output with; they differ in the
// bits a pixel, the compression and the image size only.
constexpr BitmapInfoHeader makeBitmapHeader(int32_t width, int32_t height, uint16_t bitCount, uint32_t compression,
                                            uint32_t sizeImage) {
  BitmapInfoHeader h{};
  h.biSize = sizeof(BitmapInfoHeader);
  h.biWidth = width;
  h.biHeight = height;
  h.biPlanes = 1;
  h.biBitCount = bitCount;
  h.biCompression = compression;
  h.biSizeImage = sizeImage;
  return h;
}

}  // namespace kestrium
