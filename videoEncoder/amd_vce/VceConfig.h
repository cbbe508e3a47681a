#pragma once

#include <va/va.h>
#include <va/va_enc_h264.h>

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "videoEncoder/H264Session.h"

namespace kestrium {

// The AMD encoder's configuration: the OpenVideo encoder's fields by name, with
// the defaults of its balanced quality preset, then what the capture sets
// (size, bitrate, frame rate, one IDR frame with headers a second, profile, and
// level 0 for the encoder's choice). VA-API takes it from here.
class VceConfig {
 public:
  // Every field in its order, at its default.
  VceConfig();
  // The defaults with the capture's settings over them.
  static VceConfig forCapture(const H264Settings& settings);

  int32_t operator[](std::string_view key) const;
  void set(std::string_view key, int32_t value);
  const std::vector<std::pair<std::string_view, int32_t>>& entries() const { return entries_; }

 private:
  std::vector<std::pair<std::string_view, int32_t>> entries_;
};

// What VA-API is given for a configuration. The sequence, rate control, frame
// rate, HRD and quality go with every IDR frame.
struct VceVaSetup {
  VAProfile profile = VAProfileH264Main;
  uint32_t rateControl = VA_RC_VBR;  // the VA_RC_ bit
  int32_t codedWidth = 0;            // the picture in whole macroblocks
  int32_t codedHeight = 0;
  VAEncSequenceParameterBufferH264 sequence{};
  VAEncMiscParameterRateControl rate{};
  VAEncMiscParameterFrameRate frameRate{};
  VAEncMiscParameterHRD hrd{};
  VAEncMiscParameterBufferQualityLevel quality{};
  uint32_t initialQp = 26;
  bool cabac = true;
  bool transform8x8 = false;
  int32_t deblockingIdc = 0;
  int32_t alphaOffset = 0;
  int32_t betaOffset = 0;
  int32_t cabacInitIdc = 0;
};

// The mapping; qualityRange is the driver's highest quality level (1 is best).
// The OpenVideo rate control methods are 0 constant QP, 1 CBR, 2 and 3 VBR
// (peak- and latency-constrained).
VceVaSetup vceVaSetup(const VceConfig& config, int32_t width, int32_t height, uint32_t qualityRange);

// The lowest H.264 level whose frame size and macroblock rate hold the picture.
uint8_t h264LevelFor(int32_t widthMbs, int32_t heightMbs, double frameRate);

}  // namespace kestrium
