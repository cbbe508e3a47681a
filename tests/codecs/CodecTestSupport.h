#pragma once

// Helpers of the codec suites: the processor tiers to run every kernel on, and
// the pictures to feed them.

#include <cstdint>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "codecs/CpuFeatures.h"
#include "tools/GameFrames.h"

namespace kestrium::test {

// A tier is the set of features a kernel table is built from; masking the
// processor's features down to it makes the ladder stop there.
struct Tier {
  const char* name;
  uint32_t mask;
};
inline void PrintTo(const Tier& t, std::ostream* os) { *os << t.name; }

inline std::vector<Tier> tiers() {
  return {{"c", 0},
          {"sse2", kCpuSSE2},
          {"ssse3", kCpuSSE2 | kCpuSSSE3},
          {"avx2", kCpuSSE2 | kCpuSSSE3 | kCpuAVX2}};
}

inline bool tierAvailable(const Tier& t) { return (detectCpuFlags().bits & t.mask) == t.mask; }

// The first 64-byte boundary at least `guard` bytes into v. Buffers are made 64
// bytes larger than their guards and contents, so that offsets from here say
// exactly how (mis)aligned an address is.
inline uint8_t* alignedIn(std::vector<uint8_t>& v, size_t guard) {
  const auto at = reinterpret_cast<uintptr_t>(v.data() + guard);
  return v.data() + guard + ((64 - (at & 63)) & 63);
}

enum class Picture { Noise, Flat, Gradient, Game, FewValues };

inline const char* pictureName(Picture p) {
  switch (p) {
    case Picture::Noise: return "Noise";
    case Picture::Flat: return "Flat";
    case Picture::Gradient: return "Gradient";
    case Picture::Game: return "Game";
    case Picture::FewValues: return "FewValues";
  }
  return "?";
}

// A width x height rgb24 picture of the given kind.
inline std::vector<uint8_t> picture(Picture kind, uint32_t width, uint32_t height, uint32_t seed = 1) {
  std::vector<uint8_t> rgb(size_t(width) * height * 3);
  std::mt19937 rng(seed);
  switch (kind) {
    case Picture::Noise:
      for (auto& b : rgb) b = static_cast<uint8_t>(rng());
      break;
    case Picture::Flat:
      for (size_t i = 0; i < rgb.size(); i += 3) {
        rgb[i] = 40;
        rgb[i + 1] = 170;
        rgb[i + 2] = 90;
      }
      break;
    case Picture::Gradient:
      for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
          uint8_t* p = &rgb[(size_t(y) * width + x) * 3];
          p[0] = static_cast<uint8_t>(x * 255 / std::max(1u, width));
          p[1] = static_cast<uint8_t>(y * 255 / std::max(1u, height));
          p[2] = static_cast<uint8_t>((x + y) / 2);
        }
      }
      break;
    case Picture::Game:
      tools::renderGameFrame(width, height, seed, rgb.data());
      break;
    case Picture::FewValues:
      // Blocks of a handful of colours: residuals of few distinct values.
      for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
          const uint8_t v = static_cast<uint8_t>(((x / 5 + y / 3) % 3) * 60);
          std::memset(&rgb[(size_t(y) * width + x) * 3], v, 3);
        }
      }
      break;
  }
  return rgb;
}

}  // namespace kestrium::test
