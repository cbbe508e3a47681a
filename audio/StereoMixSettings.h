#pragma once

#include <cstdint>

namespace kestrium {

// The weights with which several speakers fold into two: a 32-byte record of
// the capture command, handed to the audio graph as it is.
struct StereoMixSettings {
  uint32_t normalize;
  // front, centre, left and right of centre, back, back centre, side, low frequency
  float weights[7];
};
static_assert(sizeof(StereoMixSettings) == 32);

}  // namespace kestrium
