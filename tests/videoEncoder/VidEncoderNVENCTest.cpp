// "h264.nvenc" against a fake NVIDIA driver that is as strict as the real one and
// answers with real H.264: a clip that ffmpeg's libx264 made at build time, cut
// into access units. The fake notes every call and every rule broken.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "platform/SharedLibrary.h"
#include "platform/SharedMapping.h"
#include "platform/System.h"
#include "recorder/CommonData.h"
#include "server/CommandBlock.h"
#include "tests/codecs/CodecTestSupport.h"
#include "tests/support/LogFixture.h"
#include "tests/support/TestSupport.h"
#include "tests/videoEncoder/EncodedSlotConsumer.h"
#include "tests/videoEncoder/H264TestSupport.h"
#include "tests/videoEncoder/fakeNvenc/FakeNvenc.h"
#include "videoEncoder/H264Bitstream.h"
#include "videoEncoder/IVidEncoder.h"
#include "videoEncoder/NV_Enc/NvencProbe.h"

namespace kestrium {
namespace {

using test::Bytes;
using test::clipUnits;
using test::HardwareAbsenceTest;
using test::HardwareCase;
using test::HardwareEncodeTest;
using test::HardwareFrameFailureTest;
using test::HardwareSetupFailureTest;

bool sameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

// The fake as it starts, answering with the clip, in place of both libraries.
const test::HardwareDriver kDriver{
    u"h264.nvenc",
    [] {
      FakeNv_Reset();
      for (auto library : {platform::VendorLibrary::Cuda, platform::VendorLibrary::Nvenc}) {
        // Windows finds the DLL beside the test program; dlopen wants the path.
        platform::setEnvironmentVariable(platform::vendorLibraryEntry(library).overrideVariable,
                                         platform::toUtf16(KESTRIUM_FAKE_NVENC));
      }
      for (const Bytes& unit : clipUnits()) FakeNv_AddAccessUnit(unit.data(), unit.size());
    },
    probeNvencDevices,
    true,
    FakeNv_Violations,
    FakeNv_Fail,
    FakeNv_PictureCount,
    [](int i, uint32_t, uint32_t, Bytes& nv12, uint64_t& stamp) {
      FakeNvPicture got{};
      ASSERT_EQ(FakeNv_Picture(i, &got), 1);
      nv12.assign(got.nv12, got.nv12 + got.nv12Size);
      stamp = got.inputTimeStamp;
    },
    1,
    "[Error]   Cannot initialize NV Encoder\r\n",
    nullptr,
    nullptr,
    &FeaturesBlock::nvenc,
    "KESTRIUM_LIB_CUDA",
    "NVENC",
    FakeNv_CallLog};

using NvencTest = test::FakeDriverTest<kDriver>;

// --- the probe -------------------------------------------------------------

struct ProbeCase {
  const char* name;
  std::vector<FakeNvDevice> devices;
  uint32_t word;
  int firstUsable;  // device number, or -1
  std::vector<const char*> lines;
  const char* failing = nullptr;  // a call that fails
  int status = 0;
};
void PrintTo(const ProbeCase& c, std::ostream* os) { *os << c.name; }

class NvencProbeTest : public NvencTest, public ::testing::WithParamInterface<ProbeCase> {};

TEST_P(NvencProbeTest, TheProbeLogsWhatItFindsAndPublishesWhetherACardCanEncode) {
  const ProbeCase& c = GetParam();
  FakeNv_SetDevices(c.devices.data(), static_cast<int>(c.devices.size()));
  if (c.failing != nullptr) FakeNv_Fail(c.failing, c.status, 1);
  probeNvencDevices();
  EXPECT_EQ(featureWord(), c.word);
  const std::string text = log();
  for (const char* line : c.lines) EXPECT_NE(text.find(line), std::string::npos) << line << "\nin\n" << text;
  const std::vector<NvencDevice> usable = nvencDevices();
  EXPECT_EQ(usable.empty() ? -1 : usable.front().number, c.firstUsable);
}

const FakeNvDevice kMaxwell{"GeForce GTX 970", 5, 2};
const FakeNvDevice kFermi{"GeForce GTX 580", 2, 1};
const FakeNvDevice kKepler{"GeForce GTX 680", 3, 0};

INSTANTIATE_TEST_SUITE_P(
    Machines, NvencProbeTest,
    ::testing::Values(
        ProbeCase{"OneCard", {kMaxwell}, 1, 0,
                  {"  *** NVENC *** has detected 1 CUDA capable GPU device(s)\r\n",
                   "  *** NVENC *** GPU 0 - GeForce GTX 970 has Compute SM 5.2, NVENC Available\r\n"}},
        ProbeCase{"FirstWithEncoder", {kKepler}, 1, 0, {"Compute SM 3.0, NVENC Available"}},
        ProbeCase{"TooOld", {kFermi}, 0, -1, {"GPU 0 - GeForce GTX 580 has Compute SM 2.1, NVENC Not Available"}},
        ProbeCase{"OldThenNew", {kFermi, kMaxwell}, 1, 1, {"detected 2 CUDA", "GPU 1 - GeForce GTX 970"}},
        ProbeCase{"NoDevices", {}, 0, -1, {"[Error]   *** NVENC *** no devices available that support CUDA\r\n"}},
        ProbeCase{"InitFails", {kMaxwell}, 0, -1, {"[Error]   *** NVENC *** cuInit() failed error:0x64\r\n"},
                  "cuInit", 100},
        ProbeCase{"CountFails", {kMaxwell}, 0, -1,
                  {"[Error]   *** NVENC *** cuDeviceGetCount() failed error:0x3\r\n"}, "cuDeviceGetCount", 3},
        ProbeCase{"FirstDeviceFails", {kMaxwell, kMaxwell}, 1, 1,
                  {"[Error]   *** NVENC *** Error getting device 0\r\n", "GPU 1 - GeForce GTX 970"}, "cuDeviceGet",
                  101},
        ProbeCase{"NameFails", {kMaxwell}, 0, -1, {"[Error]   *** NVENC *** Error getting device name 0\r\n"},
                  "cuDeviceGetName", 101},
        ProbeCase{"CapabilityFails", {kMaxwell}, 0, -1,
                  {"[Error]   *** NVENC *** Error getting device compute capabilities 0\r\n"},
                  "cuDeviceComputeCapability", 101}),
    [](const ::testing::TestParamInfo<ProbeCase>& info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(Nvenc, HardwareAbsenceTest, ::testing::Values(HardwareCase{"NoCuda", &kDriver}),
                         test::caseName);

TEST_F(NvencTest, WithoutAUsableCardTheEncoderOpensNothing) {
  FakeNvDevice old = kFermi;
  FakeNv_SetDevices(&old, 1);
  probeNvencDevices();
  const std::string callsOfTheProbe = FakeNv_CallLog();
  test::EncodedSlotConsumer consumer(u"cap", 64, 64);
  EXPECT_EQ(openEncoder(u"h264.nvenc", test::h264Options(64, 64)), nullptr);
  EXPECT_EQ(FakeNv_CallLog(), callsOfTheProbe) << "no driver call";
  EXPECT_NE(log().find("[Error]   *** NVENC *** This machine has no NVIDIA encoder"), std::string::npos);
}

// --- start parameters against what the driver is told ---------------------------

struct ParameterCase {
  const char* name;
  uint32_t width, height;
  const char* profile;
  uint32_t kbps;
  const char* targetUsage;
  const char* lowLatency;
  const char* fps;
  int preset;               // index in the driver's list
  const GUID* profileGuid;  // null: the preset's own choice
  uint32_t rateNum, rateDen;
  int buffers;
};
void PrintTo(const ParameterCase& c, std::ostream* os) { *os << c.name; }

class NvencParameterTest : public NvencTest, public ::testing::WithParamInterface<ParameterCase> {};

TEST_P(NvencParameterTest, TheStartParametersReachTheDriver) {
  const ParameterCase& c = GetParam();
  probeNvencDevices();
  test::EncodedSlotConsumer consumer(u"cap", c.width, c.height);
  auto encoder = openEncoder(u"h264.nvenc", {"width", std::to_string(c.width), "height", std::to_string(c.height),
                                             "fps", c.fps, "shared_name", "cap", "profile", c.profile, "bitrate",
                                             std::to_string(c.kbps), "target_usage", c.targetUsage, "low_latency",
                                             c.lowLatency});
  ASSERT_NE(encoder, nullptr) << log();
  NV_ENC_INITIALIZE_PARAMS p{};
  NV_ENC_CONFIG config{};
  ASSERT_EQ(FakeNv_InitializeParams(&p, &config), 1);
  int presets = 0;
  const GUID* guids = FakeNv_PresetGuids(&presets);
  ASSERT_LT(c.preset, presets);
  EXPECT_TRUE(sameGuid(p.presetGUID, guids[c.preset])) << "preset index " << c.preset;
  EXPECT_EQ(config.gopLength, static_cast<uint32_t>(FakeNv_PresetGopLength(c.preset))) << "the preset's GOP holds";
  EXPECT_TRUE(
      sameGuid(config.profileGUID, c.profileGuid != nullptr ? *c.profileGuid : NV_ENC_CODEC_PROFILE_AUTOSELECT_GUID));
  const uint32_t bitrate = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{c.kbps} * 1000, UINT32_MAX / 1000 * 1000));
  EXPECT_EQ(config.rcParams.averageBitRate, bitrate);
  EXPECT_EQ(config.rcParams.maxBitRate, bitrate);
  EXPECT_EQ(config.frameIntervalP, 1) << "no B-frames: frames leave in order";
  EXPECT_EQ(config.encodeCodecConfig.h264Config.sliceMode, 3u);
  EXPECT_EQ(config.encodeCodecConfig.h264Config.sliceModeData, 1u);
  EXPECT_EQ(p.frameRateNum, c.rateNum);
  EXPECT_EQ(p.frameRateDen, c.rateDen);
  const uint32_t w = (c.width + 1) & ~1u, h = (c.height + 1) & ~1u;
  EXPECT_EQ(p.encodeWidth, w);
  EXPECT_EQ(p.encodeHeight, h);
  EXPECT_EQ(p.maxEncodeWidth, w);
  EXPECT_EQ(p.maxEncodeHeight, h);
  EXPECT_EQ(p.enablePTD, 1u);
  EXPECT_EQ(FakeNv_InputBuffersCreated(), c.buffers);
  EXPECT_EQ(FakeNv_BitstreamBuffersCreated(), c.buffers);
  encoder->Close();
}

INSTANTIATE_TEST_SUITE_P(
    StartParameters, NvencParameterTest,
    ::testing::Values(ParameterCase{"FullHdHigh", 1920, 1080, "2", 6000, "0", "0", "30000", 2,
                                    &NV_ENC_H264_PROFILE_HIGH_GUID, 30, 1, 16},
                      ParameterCase{"JustUnderFullHdBaseline", 1920, 1072, "0", 4000, "1", "0", "29970", 0,
                                    &NV_ENC_H264_PROFILE_BASELINE_GUID, 299700, 10000, 32},
                      ParameterCase{"LaptopMainLowLatency", 1366, 768, "1", 2500, "2", "1", "59940", 5,
                                    &NV_ENC_H264_PROFILE_MAIN_GUID, 599400, 10000, 32},
                      ParameterCase{"OddSizeFastLowLatency", 641, 361, "1", 1000, "0", "1", "60000", 6,
                                    &NV_ENC_H264_PROFILE_MAIN_GUID, 60, 1, 32},
                      ParameterCase{"QualityLowLatency", 642, 362, "1", 1000, "1", "1", "30000", 1,
                                    &NV_ENC_H264_PROFILE_MAIN_GUID, 30, 1, 32},
                      ParameterCase{"OtherTargetUsageKeepsTheDefault", 642, 362, "1", 1000, "5", "0", "30000", 3,
                                    &NV_ENC_H264_PROFILE_MAIN_GUID, 30, 1, 32},
                      ParameterCase{"BitrateBeyondTheDriversWord", 642, 362, "1", 5000000, "2", "0", "30000", 3,
                                    &NV_ENC_H264_PROFILE_MAIN_GUID, 30, 1, 32},
                      ParameterCase{"UnknownProfileIsTheEncodersChoice", 642, 362, "7", 1000, "2", "0", "30000", 3,
                                    nullptr, 30, 1, 32}),
    [](const ::testing::TestParamInfo<ParameterCase>& info) { return std::string(info.param.name); });

// --- the suite every hardware encoder runs -------------------------------------

INSTANTIATE_TEST_SUITE_P(Nvenc, HardwareEncodeTest,
                         ::testing::Values(HardwareCase{"Laptop1366x768", &kDriver, 1366, 768},
                                           HardwareCase{"Odd642x362", &kDriver, 642, 362}),
                         test::caseName);

HardwareCase failing(const char* name, const char* call, int status, const char* line, int occurrence = 1) {
  return {name, &kDriver, 642, 362, call, status, occurrence, line};
}
HardwareCase refusing(const char* name, void (*arrange)(), const char* line) {
  return {name, &kDriver, 642, 362, nullptr, 0, 0, line, arrange};
}

INSTANTIATE_TEST_SUITE_P(
    Nvenc, HardwareSetupFailureTest,
    ::testing::Values(
        refusing("NoRuntime", [] { platform::setEnvironmentVariable("KESTRIUM_LIB_NVENC", u"no-nvenc-runtime-here"); },
                 "[Error]   CNvEncoder::CNvEncoder() failed to load "),
        failing("CudaInit", "cuInit", 3,
                "[Error]   checkCudaErrors() Driver API error = 0003 \"CUDA_ERROR_NOT_INITIALIZED\" from file "
                "<videoEncoder\\NV_Enc\\CNVEncoder>"),
        failing("Device", "cuDeviceGet", 101, "error = 0101 \"CUDA_ERROR_INVALID_DEVICE\""),
        failing("Context", "cuCtxCreate_v2", 2, "error = 0002 \"CUDA_ERROR_OUT_OF_MEMORY\""),
        failing("PopContext", "cuCtxPopCurrent_v2", 201, "error = 0201 \"CUDA_ERROR_INVALID_CONTEXT\""),
        failing("FunctionList", "NvEncodeAPICreateInstance", 15,
                "[Error]   NVENC error at videoEncoder\\NV_Enc\\CNVEncoder:"),
        failing("Session", "nvEncOpenEncodeSessionEx", 1, "File: videoEncoder\\NV_Enc\\CNVEncoder, Line: "),
        failing("CodecCount", "nvEncGetEncodeGUIDCount", 20, "nvEncGetEncodeGUIDCount() returned with error 20\r\n"),
        failing("Codecs", "nvEncGetEncodeGUIDs", 8, "nvEncGetEncodeGUIDs() returned with error 8\r\n"),
        failing("PresetCount", "nvEncGetEncodePresetCount", 8,
                "code=8(NVENC indicates that one or more of the parameter passed to the API call is invalid.)"),
        failing("Presets", "nvEncGetEncodePresetGUIDs", 6, "code=6(NVENC one or more of the pointers"),
        failing("PresetConfig", "nvEncGetEncodePresetConfig", 15, "code=15(NVENC indicates that an invalid struct"),
        failing("ProfileCount", "nvEncGetEncodeProfileGUIDCount", 8,
                "nvEncGetEncodeProfileGUIDCount() returned with error 8\r\n"),
        failing("Profiles", "nvEncGetEncodeProfileGUIDs", 8, "nvEncGetEncodeProfileGUIDs() returned with error 8\r\n"),
        failing("FormatCount", "nvEncGetInputFormatCount", 8, "nvEncGetInputFormatCount() returned with error 8\r\n"),
        failing("Formats", "nvEncGetInputFormats", 8, "nvEncGetInputFormats() returned with error 8\r\n"),
        failing("Initialize", "nvEncInitializeEncoder", 12,
                "[Error]   nvEncoder Error: NVENC H.264 encoder initialization failed: 0000000C\r\n"),
        failing("FifthSurface", "nvEncCreateInputBuffer", 10, "code=10(NVENC indicates that the API call failed", 5),
        failing("ThirdBitstream", "nvEncCreateBitstreamBuffer", 10, "code=10(", 3),
        failing("SequenceParams", "nvEncGetSequenceParams", 14, "code=14("),
        refusing("PresetNotOffered", [] { FakeNv_SetPresetCount(2); }, "\n Wrong preset Value. Exiting "),
        refusing("ProfileNotOffered",
                 [] {
                   const GUID profiles[] = {NV_ENC_CODEC_PROFILE_AUTOSELECT_GUID, NV_ENC_H264_PROFILE_MAIN_GUID};
                   FakeNv_SetProfiles(profiles, 2);
                 },
                 "[Error]   *** NVENC *** The card offers no H.264 profile 100"),
        refusing("NoNv12",
                 [] {
                   const NV_ENC_BUFFER_FORMAT formats[] = {NV_ENC_BUFFER_FORMAT_ARGB};
                   FakeNv_SetInputFormats(formats, 1);
                 },
                 "[Error]   *** NVENC *** The card takes no NV12 pictures")),
    test::caseName);

INSTANTIATE_TEST_SUITE_P(
    Nvenc, HardwareFrameFailureTest,
    ::testing::Values(failing("Encode", "nvEncEncodePicture", 18,
                              "[Error]   *** NVENC *** nvEncEncodePicture failed on the frame at 1068 ms: "
                              "code=18(NVENC HW encoder is busy",
                              3),
                      failing("LockSurface", "nvEncLockInputBuffer", 13,
                              "[Error]   *** NVENC *** nvEncLockInputBuffer failed on the frame at 1068 ms", 3)),
    test::caseName);

}  // namespace
}  // namespace kestrium
