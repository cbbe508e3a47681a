#include "videoEncoder/amd_vce/VceConfig.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "videoEncoder/VidEncoderH264.h"

namespace kestrium {

namespace {

constexpr std::pair<std::string_view, int32_t> kDefaults[] = {
    {"pictureHeight", 144},
    {"pictureWidth", 176},
    {"EncodeMode", 1},
    {"level", 30},
    {"profile", 66},
    {"pictureFormat", 1},
    {"requestedPriority", 1},
    {"useConstrainedIntraPred", 0},
    {"CABACEnable", 1},
    {"CABACIDC", 0},
    {"loopFilterDisable", 0},
    {"encLFBetaOffset", 0},
    {"encLFAlphaC0Offset", 0},
    {"encIDRPeriod", 30},
    {"encIPicPeriod", 0},
    {"encHeaderInsertionSpacing", 30},
    {"encCropLeftOffset", 0},
    {"encCropRightOffset", 0},
    {"encCropTopOffset", 0},
    {"encCropBottomOffset", 0},
    {"encNumMBsPerSlice", 99},
    {"encNumSlicesPerFrame", 1},
    {"encForceIntraRefresh", 0},
    {"encForceIMBPeriod", 0},
    {"encInsertVUIParam", 0},
    {"encInsertSEIMsg", 0},
    {"encRateControlMethod", 3},
    {"encRateControlTargetBitRate", 768000},
    {"encRateControlPeakBitRate", 0},
    {"encRateControlFrameRateNumerator", 30},
    {"encGOPSize", 0},
    {"encRCOptions", 0},
    {"encRateControlFrameRateDenominator", 1},
    {"IMEDecimationSearch", 1},
    {"motionEstHalfPixel", 1},
    {"motionEstQuarterPixel", 1},
    {"disableFavorPMVPoint", 0},
    {"forceZeroPointCenter", 1},
    {"LSMVert", 0},
    {"encSearchRangeX", 16},
    {"encSearchRangeY", 16},
    {"encSearch1RangeX", 0},
    {"encSearch1RangeY", 0},
    {"disable16x16Frame1", 0},
    {"disableSATD", 0},
    {"enableAMD", 0},
    {"encDisableSubMode", 0},
    {"encIMESkipX", 0},
    {"encIMESkipY", 0},
    {"encEnImeOverwDisSubm", 0},
    {"encImeOverwDisSubmNo", 0},
    {"encIME2SearchRangeX", 4},
    {"encIME2SearchRangeY", 4},
    {"encDisableTbePredIFrame", 0},
    {"encDisableTbePredPFrame", 0},
    {"useFmeInterpolY", 0},
    {"useFmeInterpolUV", 0},
    {"enc16x16CostAdj", 0},
    {"encSkipCostAdj", 0},
    {"encForce16x16skip", 0},
    {"encQP_I", 22},
    {"encQP_P", 22},
    {"encQP_B", 0},
    {"encVBVBufferSize", 768000},
};

constexpr int32_t kProfileBaseline = 66;
constexpr int32_t kProfileMain = 77;
constexpr int32_t kProfileHigh = 100;

// Table A-1 of H.264: level, most macroblocks a frame, most macroblocks a second.
struct Level {
  uint8_t idc;
  uint32_t frameMbs;
  uint32_t mbsPerSecond;
};
constexpr Level kLevels[] = {{10, 99, 1485},        {11, 396, 3000},       {12, 396, 6000},
                             {13, 396, 11880},      {20, 396, 11880},      {21, 792, 19800},
                             {22, 1620, 20250},     {30, 1620, 40500},     {31, 3600, 108000},
                             {32, 5120, 216000},    {40, 8192, 245760},    {41, 8192, 245760},
                             {42, 8704, 522240},    {50, 22080, 589824},   {51, 36864, 983040},
                             {52, 36864, 2073600},  {60, 139264, 4177920}, {61, 139264, 8355840},
                             {62, 139264, 16711680}};

}  // namespace

VceConfig::VceConfig() : entries_(std::begin(kDefaults), std::end(kDefaults)) {}

int32_t VceConfig::operator[](std::string_view key) const {
  for (const auto& [name, value] : entries_) {
    if (name == key) return value;
  }
  return 0;
}

void VceConfig::set(std::string_view key, int32_t value) {
  for (auto& [name, v] : entries_) {
    if (name == key) v = value;
  }
}

VceConfig VceConfig::forCapture(const H264Settings& s) {
  VceConfig c;
  c.set("pictureWidth", s.width);
  c.set("pictureHeight", s.height);
  // bit/s in a signed word: a bitrate beyond it is the most it can say.
  c.set("encRateControlTargetBitRate", static_cast<int32_t>(std::min<uint64_t>(uint64_t{s.bitrateKbps} * 1000, INT32_MAX)));
  c.set("encRateControlFrameRateNumerator", static_cast<int32_t>(s.rateNum));
  c.set("encRateControlFrameRateDenominator", static_cast<int32_t>(s.rateDen));
  c.set("encIDRPeriod", static_cast<int32_t>(s.keyInterval));
  c.set("encHeaderInsertionSpacing", static_cast<int32_t>(s.keyInterval));
  c.set("profile", s.profile == 1 ? kProfileMain : s.profile == 2 ? kProfileHigh : kProfileBaseline);
  c.set("level", 0);
  return c;
}

uint8_t h264LevelFor(int32_t widthMbs, int32_t heightMbs, double frameRate) {
  const double frameMbs = double(widthMbs) * heightMbs;
  for (const Level& level : kLevels) {
    if (frameMbs <= level.frameMbs && frameMbs * frameRate <= level.mbsPerSecond) return level.idc;
  }
  return kLevels[std::size(kLevels) - 1].idc;
}

VceVaSetup vceVaSetup(const VceConfig& c, int32_t width, int32_t height, uint32_t qualityRange) {
  VceVaSetup v;
  const int32_t profile = c["profile"];
  v.profile = profile == kProfileHigh   ? VAProfileH264High
              : profile == kProfileMain ? VAProfileH264Main
                                        : VAProfileH264ConstrainedBaseline;
  const int32_t method = c["encRateControlMethod"];
  v.rateControl = method == 0 ? VA_RC_CQP : method == 1 ? VA_RC_CBR : VA_RC_VBR;
  const int32_t widthMbs = (width + 15) / 16;
  const int32_t heightMbs = (height + 15) / 16;
  v.codedWidth = widthMbs * 16;
  v.codedHeight = heightMbs * 16;

  uint32_t num = static_cast<uint32_t>(std::max(c["encRateControlFrameRateNumerator"], 1));
  uint32_t den = static_cast<uint32_t>(std::max(c["encRateControlFrameRateDenominator"], 1));
  const uint32_t common = std::gcd(num, den);
  num /= common;
  den /= common;
  const uint32_t idrPeriod = static_cast<uint32_t>(std::max(c["encIDRPeriod"], 1));
  const uint32_t target = static_cast<uint32_t>(std::max(c["encRateControlTargetBitRate"], 1));
  const uint32_t peak = std::max(static_cast<uint32_t>(std::max(c["encRateControlPeakBitRate"], 0)), target);

  VAEncSequenceParameterBufferH264& s = v.sequence;
  s.seq_parameter_set_id = 0;
  s.level_idc = c["level"] != 0 ? static_cast<uint8_t>(c["level"]) : h264LevelFor(widthMbs, heightMbs, double(num) / den);
  s.intra_period = idrPeriod;
  s.intra_idr_period = idrPeriod;
  s.ip_period = 1;  // no B-frames
  s.bits_per_second = peak;
  s.max_num_ref_frames = 1;
  s.picture_width_in_mbs = static_cast<uint16_t>(widthMbs);
  s.picture_height_in_mbs = static_cast<uint16_t>(heightMbs);
  s.seq_fields.bits.chroma_format_idc = 1;
  s.seq_fields.bits.frame_mbs_only_flag = 1;
  s.seq_fields.bits.direct_8x8_inference_flag = 1;
  // frame_num and the picture order count run from one IDR frame to the next.
  uint32_t log2 = 4;
  while ((1u << log2) <= idrPeriod && log2 < 16) ++log2;
  s.seq_fields.bits.log2_max_frame_num_minus4 = log2 - 4;
  s.seq_fields.bits.pic_order_cnt_type = 0;
  s.seq_fields.bits.log2_max_pic_order_cnt_lsb_minus4 = std::min(log2 + 1, 16u) - 4;
  s.frame_cropping_flag = (v.codedWidth != width || v.codedHeight != height) ? 1 : 0;
  s.frame_crop_right_offset = static_cast<uint32_t>(v.codedWidth - width) / 2;
  s.frame_crop_bottom_offset = static_cast<uint32_t>(v.codedHeight - height) / 2;
  s.vui_parameters_present_flag = 1;
  s.vui_fields.bits.timing_info_present_flag = 1;
  s.vui_fields.bits.fixed_frame_rate_flag = 1;
  s.num_units_in_tick = den;
  s.time_scale = num * 2;

  v.rate.bits_per_second = peak;
  v.rate.target_percentage = static_cast<uint32_t>(uint64_t{target} * 100 / peak);
  v.rate.window_size = 1000;
  v.rate.initial_qp = static_cast<uint32_t>(c["encQP_I"]);
  // Two 16-bit halves: the rate in ten-thousandths is reduced to fit.
  while (num > 0xFFFF || den > 0xFFFF) {
    num = (num + 1) / 2;
    den = (den + 1) / 2;
  }
  v.frameRate.framerate = num | (den << 16);
  // The buffer holds at least a second at the bitrate: the preset's own buffer
  // was made for its own 768 kbit/s and would starve the first frames of a
  // capture at a higher rate.
  v.hrd.buffer_size = std::max(static_cast<uint32_t>(std::max(c["encVBVBufferSize"], 0)), peak);
  v.hrd.initial_buffer_fullness = v.hrd.buffer_size / 2;

  // The preset's motion search as the driver's quality level (1 best): no
  // quarter-pel is the fast preset, a wider search the quality one, and the
  // rest is the balance in the middle of the driver's range.
  const uint32_t range = std::max(qualityRange, 1u);
  if (c["motionEstQuarterPixel"] == 0) {
    v.quality.quality_level = range;
  } else if (c["encSearchRangeX"] > 16) {
    v.quality.quality_level = 1;
  } else {
    v.quality.quality_level = (range + 1) / 2;
  }

  v.initialQp = static_cast<uint32_t>(c["encQP_I"]);
  v.cabac = c["CABACEnable"] != 0 && v.profile != VAProfileH264ConstrainedBaseline;
  v.transform8x8 = v.profile == VAProfileH264High;
  v.deblockingIdc = c["loopFilterDisable"] != 0 ? 1 : 0;
  v.alphaOffset = c["encLFAlphaC0Offset"];
  v.betaOffset = c["encLFBetaOffset"];
  v.cabacInitIdc = c["CABACIDC"];
  return v;
}

}  // namespace kestrium
