// "h264.amdvce" against a fake libva that plays an AMD GPU, as strict as a
// driver, answering with real H.264 (the clip) and noting every call, every
// parameter buffer and every rule broken.

#include <gtest/gtest.h>

#include "platform/System.h"
#include "platform/Text.h"
#include "recorder/CommonData.h"
#include "tests/codecs/CodecTestSupport.h"
#include "tests/videoEncoder/H264TestSupport.h"
#include "tests/videoEncoder/fakeVa/FakeVa.h"
#include "videoEncoder/H264Bitstream.h"
#include "videoEncoder/amd_vce/AmdVceProbe.h"

namespace kestrium {
namespace {

using test::Bytes;
using test::clipUnits;
using test::HardwareAbsenceTest;
using test::HardwareCase;
using test::HardwareEncodeTest;
using test::HardwareFrameFailureTest;
using test::HardwareProbeTest;
using test::HardwareSetupFailureTest;

constexpr const char16_t* kName = u"h264.amdvce";

void setVariable(std::string_view name, const std::string& value) {
  platform::setEnvironmentVariable(name, platform::toUtf16(value));
}

const test::HardwareDriver kDriver{
    kName,
    [] {
      FakeVa_Reset();
      setVariable("KESTRIUM_LIB_VA", KESTRIUM_FAKE_VA);
      setVariable("KESTRIUM_LIB_VA_DRM", KESTRIUM_FAKE_VA);
      setVariable("KESTRIUM_RENDER_NODE", "/dev/null");
      for (const Bytes& unit : clipUnits()) FakeVa_AddAccessUnit(unit.data(), unit.size());
    },
    probeAmdEncoder,
    true,
    FakeVa_Violations,
    FakeVa_Fail,
    FakeVa_PictureCount,
    [](int i, uint32_t width, uint32_t height, Bytes& nv12, uint64_t&) {
      FakeVaPicture got{};
      ASSERT_EQ(FakeVa_Picture(i, &got), 1);
      // The surface has whole blocks of rows; its chroma starts after all of them.
      for (uint32_t y = 0; y < height + height / 2; ++y) {
        const size_t row = y < height ? y : got.height + (y - height);
        nv12.insert(nv12.end(), got.nv12 + row * got.width, got.nv12 + row * got.width + width);
      }
    },
    0,
    "[Error]   *** AMD_VCE *** Cannot initialize AMD VCE Encoder\r\n",
    // The encoder makes its own parameters: an IDR picture a second, with the
    // sequence, frame numbers from it, IDR pictures in a row told apart.
    [](uint32_t width, uint32_t height, uint32_t frames) {
      VAEncSequenceParameterBufferH264 sequence{};
      ASSERT_EQ(FakeVa_Sequence(&sequence), 1);
      EXPECT_EQ(sequence.picture_width_in_mbs, (width + 15) / 16);
      EXPECT_EQ(sequence.picture_height_in_mbs, (height + 15) / 16);
      EXPECT_EQ(sequence.frame_crop_right_offset, ((width + 15) / 16 * 16 - width) / 2);
      EXPECT_EQ(sequence.frame_crop_bottom_offset, ((height + 15) / 16 * 16 - height) / 2);
      std::vector<FakeVaPicture> got(frames);
      for (uint32_t i = 0; i < frames; ++i) {
        ASSERT_EQ(FakeVa_Picture(static_cast<int>(i), &got[i]), 1);
        const bool idr = i % 30 == 0;
        EXPECT_EQ(got[i].picture.pic_fields.bits.idr_pic_flag, idr ? 1u : 0u) << "frame " << i;
        EXPECT_EQ(got[i].sequenceSent, idr ? 1 : 0) << "frame " << i;
        EXPECT_EQ(got[i].picture.frame_num, i % 30) << "frame " << i;
      }
      EXPECT_NE(got[0].slice.idr_pic_id, got[30].slice.idr_pic_id) << "IDR pictures in a row are told apart";
    },
    [] {
      int idr = 0;
      for (int i = 0; i < FakeVa_PictureCount(); ++i) {
        FakeVaPicture got{};
        FakeVa_Picture(i, &got);
        idr += got.picture.pic_fields.bits.idr_pic_flag;
      }
      return idr;
    },
    &FeaturesBlock::amdVce,
    "KESTRIUM_LIB_VA",
    "AMD",
    FakeVa_CallLog};

class AmdTest : public test::FakeDriverTest<kDriver> {
 protected:
  // An encoder on the GPU the probe found.
  std::unique_ptr<IVidEncoder> probeAndOpen(const OptionList& options) {
    probeAmdEncoder();
    return openEncoder(kName, options);
  }
};

// --- the probe -----------------------------------------------------------------

HardwareCase machine(const char* name, void (*arrange)(), const char* line, int word = 0) {
  return {name, &kDriver, 642, 362, nullptr, word, 0, line, arrange};
}

INSTANTIATE_TEST_SUITE_P(
    Amd, HardwareProbeTest,
    ::testing::Values(
        machine("Radeon", nullptr, "  *** AMD_VCE *** AMD VCE Hardware Acceleration devices available: 1\r\n", 1),
        machine("IntelGpu", [] { FakeVa_SetVendor("Intel iHD driver for Intel(R) Gen Graphics - 23.1.1 ()"); },
                "[Error]   *** AMD_VCE *** Couldn't find AMD platform, cannot proceed.\r\n"),
        machine("RadeonWithoutEncoder", [] { FakeVa_SetEncodeProfiles(nullptr, 0); },
                "[Error]   *** AMD_VCE *** No suitable devices found!\r\n"),
        machine("NoDisplay", [] { FakeVa_Fail("vaInitialize", VA_STATUS_ERROR_UNKNOWN, 0); },
                "Couldn't find AMD platform")),
    test::caseName);

INSTANTIATE_TEST_SUITE_P(Amd, HardwareAbsenceTest, ::testing::Values(HardwareCase{"NoLibva", &kDriver}),
                         test::caseName);

TEST_F(AmdTest, WithoutTheProbesWordTheEncoderOpensNothing) {
  storeShared(features().amdVce, 0u);
  test::EncodedSlotConsumer consumer(u"cap", 64, 64);
  EXPECT_EQ(openEncoder(kName, test::h264Options(64, 64)), nullptr);
  EXPECT_STREQ(FakeVa_CallLog(), "") << "no driver call without the probe's word";
  EXPECT_EQ(log().find("AMD"), std::string::npos) << "the probe has said why";
}

// --- the suite every hardware encoder runs ------------------------------------------

INSTANTIATE_TEST_SUITE_P(Amd, HardwareEncodeTest,
                         ::testing::Values(HardwareCase{"Laptop1366x768", &kDriver, 1366, 768},
                                           HardwareCase{"Odd642x362", &kDriver, 642, 362}),
                         test::caseName);

HardwareCase failing(const char* call, int status, int occurrence, const char* line) {
  return {call, &kDriver, 642, 362, call, status, occurrence, line};
}

INSTANTIATE_TEST_SUITE_P(
    Amd, HardwareSetupFailureTest,
    ::testing::Values(
        failing("vaGetConfigAttributes", VA_STATUS_ERROR_ALLOCATION_FAILED, 1,
                "[Error]   *** AMD_VCE *** vaGetConfigAttributes failed: "),
        failing("vaCreateConfig", VA_STATUS_ERROR_ALLOCATION_FAILED, 1,
                "[Error]   *** AMD_VCE *** vaCreateConfig failed: "),
        failing("vaCreateSurfaces", VA_STATUS_ERROR_ALLOCATION_FAILED, 1,
                "[Error]   *** AMD_VCE *** vaCreateSurfaces failed: "),
        failing("vaCreateContext", VA_STATUS_ERROR_ALLOCATION_FAILED, 1,
                "[Error]   *** AMD_VCE *** vaCreateContext failed: "),
        failing("vaCreateBuffer", VA_STATUS_ERROR_ALLOCATION_FAILED, 1,
                "[Error]   *** AMD_VCE *** vaCreateBuffer failed: ")),
    test::caseName);

// The call on the third frame.
INSTANTIATE_TEST_SUITE_P(
    Amd, HardwareFrameFailureTest,
    ::testing::Values(
        failing("vaDeriveImage", VA_STATUS_ERROR_OPERATION_FAILED, 3,
                "[Error]   *** AMD_VCE *** vaDeriveImage failed: "),
        failing("vaEndPicture", VA_STATUS_ERROR_OPERATION_FAILED, 3,
                "[Error]   *** AMD_VCE *** vaEndPicture failed: "),
        failing("vaSyncSurface", VA_STATUS_ERROR_OPERATION_FAILED, 3,
                "[Error]   *** AMD_VCE *** vaSyncSurface failed: ")),
    test::caseName);

TEST_F(AmdTest, AGpuWithoutTheAskedProfileCodesInTheNearestItHas) {
  const VAProfile high = VAProfileH264High;
  FakeVa_SetEncodeProfiles(&high, 1);
  test::EncodedSlotConsumer consumer(u"cap", 642, 362);
  auto encoder = probeAndOpen(test::h264Options(642, 362));  // Main
  ASSERT_NE(encoder, nullptr) << log();
  EXPECT_EQ(record(*encoder, consumer, 642, 362, 3, 3).size(), 3u);
  VAProfile profile{};
  VAEntrypoint entrypoint{};
  uint32_t rtFormat = 0, rateControl = 0;
  ASSERT_EQ(FakeVa_Config(&profile, &entrypoint, &rtFormat, &rateControl), 1);
  EXPECT_EQ(profile, VAProfileH264High);
  EXPECT_NE(log().find("[Warning] *** AMD_VCE *** The GPU codes no H.264 profile 77; profile 100 instead\r\n"),
            std::string::npos)
      << log();
}

TEST_F(AmdTest, AFirstFrameWithoutParameterSetsEndsTheVideo) {
  FakeVa_Reset();
  for (size_t i = 1; i < clipUnits().size(); ++i) FakeVa_AddAccessUnit(clipUnits()[i].data(), clipUnits()[i].size());
  test::EncodedSlotConsumer consumer(u"cap", 642, 362);
  auto encoder = probeAndOpen(test::h264Options(642, 362));
  ASSERT_NE(encoder, nullptr) << log();
  EXPECT_GE(feedUntilRefused(*encoder, 642, 362, 1000, 10000), 1u);
  encoder->Close();
  EXPECT_TRUE(consumer.taken().empty()) << "nothing a file could begin with";
  EXPECT_TRUE(encoder->GetStreamHeader().empty());
  EXPECT_NE(log().find("[Error]   *** H264 *** The first frame of cap holds no SPS and PPS; the capture goes on "
                       "without video\r\n"),
            std::string::npos)
      << log();
}

TEST_F(AmdTest, AGpuThatRefusesEveryFrameEndsTheVideo) {
  test::EncodedSlotConsumer consumer(u"cap", 642, 362);
  auto encoder = probeAndOpen(test::h264Options(642, 362));
  ASSERT_NE(encoder, nullptr) << log();
  FakeVa_Fail("vaEndPicture", VA_STATUS_ERROR_OPERATION_FAILED, 0);
  const uint32_t accepted = feedUntilRefused(*encoder, 642, 362, 100, 60000);
  encoder->Close();
  EXPECT_GE(accepted, 30u);
  EXPECT_LT(accepted, 100u);
  EXPECT_NE(log().find("[Error]   *** AMD_VCE *** The GPU refused 30 frames in a row\r\n"), std::string::npos) << log();
}

// --- start parameters against what the driver is told -------------------------------

struct ParameterCase {
  const char* name;
  uint32_t width, height;
  const char* profile;
  const char* fps;
  uint32_t kbps;
  VAProfile vaProfile;
  bool cabac;
  uint32_t framerate;  // VA's 16-bit halves
  uint32_t idrPeriod;
  uint8_t level;
};
void PrintTo(const ParameterCase& c, std::ostream* os) { *os << c.name; }

class AmdParameterTest : public AmdTest, public ::testing::WithParamInterface<ParameterCase> {};

TEST_P(AmdParameterTest, TheStartParametersReachTheDriver) {
  const ParameterCase& c = GetParam();
  test::EncodedSlotConsumer consumer(u"cap", c.width, c.height);
  auto encoder = probeAndOpen({"width", std::to_string(c.width), "height", std::to_string(c.height), "fps", c.fps,
                               "shared_name", "cap", "profile", c.profile, "bitrate", std::to_string(c.kbps)});
  ASSERT_NE(encoder, nullptr) << log();
  EXPECT_EQ(record(*encoder, consumer, c.width, c.height, 2, 2).size(), 2u);
  VAProfile profile{};
  VAEntrypoint entrypoint{};
  uint32_t rtFormat = 0, rateControl = 0;
  ASSERT_EQ(FakeVa_Config(&profile, &entrypoint, &rtFormat, &rateControl), 1);
  EXPECT_EQ(profile, c.vaProfile);
  EXPECT_EQ(entrypoint, VAEntrypointEncSlice);
  EXPECT_EQ(rtFormat, static_cast<uint32_t>(VA_RT_FORMAT_YUV420));
  EXPECT_EQ(rateControl, static_cast<uint32_t>(VA_RC_VBR));
  VAEncSequenceParameterBufferH264 s{};
  ASSERT_EQ(FakeVa_Sequence(&s), 1);
  EXPECT_EQ(s.intra_idr_period, c.idrPeriod) << "an IDR frame a second";
  EXPECT_EQ(s.ip_period, 1u) << "no B-frames";
  EXPECT_EQ(s.level_idc, c.level);
  EXPECT_EQ(s.bits_per_second, c.kbps * 1000);
  EXPECT_EQ(s.time_scale, 2 * (c.framerate & 0xFFFF));
  EXPECT_EQ(s.num_units_in_tick, c.framerate >> 16);
  VAEncMiscParameterFrameRate rate{};
  ASSERT_EQ(FakeVa_FrameRate(&rate), 1);
  EXPECT_EQ(rate.framerate, c.framerate);
  VAEncMiscParameterRateControl control{};
  ASSERT_EQ(FakeVa_RateControl(&control), 1);
  EXPECT_EQ(control.bits_per_second, c.kbps * 1000);
  VAEncMiscParameterHRD hrd{};
  ASSERT_EQ(FakeVa_Hrd(&hrd), 1);
  EXPECT_EQ(hrd.buffer_size, std::max(c.kbps * 1000, 768000u)) << "at least a second at the bitrate";
  VAEncMiscParameterBufferQualityLevel quality{};
  ASSERT_EQ(FakeVa_QualityLevel(&quality), 1);
  EXPECT_EQ(quality.quality_level, 4u) << "the balanced preset: the middle of the driver's 1..7";
  FakeVaPicture first{};
  ASSERT_EQ(FakeVa_Picture(0, &first), 1);
  EXPECT_EQ(first.picture.pic_fields.bits.entropy_coding_mode_flag, c.cabac ? 1u : 0u);
  int width = 0, height = 0;
  ASSERT_EQ(FakeVa_ContextSize(&width, &height), 1);
  EXPECT_EQ(width, static_cast<int>((c.width + 15) & ~15u));
  EXPECT_EQ(height, static_cast<int>((c.height + 15) & ~15u));
  EXPECT_EQ(FakeVa_SurfacesCreated(), 6) << "four inputs in turn and two reconstructed pictures";
}

INSTANTIATE_TEST_SUITE_P(
    StartParameters, AmdParameterTest,
    ::testing::Values(
        ParameterCase{"FullHd60High", 1920, 1080, "2", "60000", 8000, VAProfileH264High, true, 60 | (1 << 16), 60, 42},
        ParameterCase{"NtscLaptopMain", 1366, 768, "1", "29970", 2500, VAProfileH264Main, true, 2997 | (100 << 16),
                      29, 32},
        ParameterCase{"SmallBaselineLowRate", 642, 362, "0", "30000", 500, VAProfileH264ConstrainedBaseline, false,
                      30 | (1 << 16), 30, 30}),
    [](const ::testing::TestParamInfo<ParameterCase>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kestrium
