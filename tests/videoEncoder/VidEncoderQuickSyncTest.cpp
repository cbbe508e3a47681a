// "h264.quicksync" against fakes of the oneVPL dispatcher and of libva that are
// as strict as the real ones; the runtime's fake answers with real H.264 (the
// clip), and notes every call and every rule broken.

#include <gtest/gtest.h>


#include "platform/SharedLibrary.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "recorder/CommonData.h"
#include "tests/codecs/CodecTestSupport.h"
#include "tests/support/TestSupport.h"
#include "tests/videoEncoder/H264TestSupport.h"
#include "tests/videoEncoder/fakeVa/FakeVa.h"
#include "tests/videoEncoder/fakeVpl/FakeVpl.h"
#include "videoEncoder/IntelQuickSync/QuickSyncProbe.h"

namespace kestrium {
namespace {

using test::Bytes;
using test::clipUnits;
using test::HardwareAbsenceTest;
using test::HardwareCase;
using test::HardwareEncodeTest;
using test::HardwareProbeTest;
using test::HardwareSetupFailureTest;

constexpr const char16_t* kName = u"h264.quicksync";

void setVariable(std::string_view name, const std::string& value) {
  platform::setEnvironmentVariable(name, platform::toUtf16(value));
}

const test::HardwareDriver kDriver{
    kName,
    // Both fakes as they start, on a render node that any machine has.
    [] {
      FakeVpl_Reset();
      FakeVa_Reset();
      setVariable("KESTRIUM_LIB_QUICKSYNC", KESTRIUM_FAKE_VPL);
      setVariable("KESTRIUM_LIB_VA", KESTRIUM_FAKE_VA);
      setVariable("KESTRIUM_LIB_VA_DRM", KESTRIUM_FAKE_VA);
      setVariable("KESTRIUM_RENDER_NODE", "/dev/null");
      for (const Bytes& unit : clipUnits()) FakeVpl_AddAccessUnit(unit.data(), unit.size());
    },
    probeQuickSyncEncoder,
    false,
    [] {
      // Every display the runtime was given is terminated too.
      static std::string both;
      both = std::string(FakeVpl_Violations()) + FakeVa_Violations();
      return both.c_str();
    },
    FakeVpl_Fail,
    FakeVpl_PictureCount,
    // Surfaces of whole blocks, cropped to the picture, stamped at 90 kHz.
    [](int i, uint32_t width, uint32_t height, Bytes& nv12, uint64_t& stamp) {
      FakeVplPicture got{};
      ASSERT_EQ(FakeVpl_Picture(i, &got), 1);
      EXPECT_EQ(got.width, (width + 15) & ~15u);
      EXPECT_EQ(got.height, (height + 15) & ~15u);
      EXPECT_EQ(got.cropW, width);
      EXPECT_EQ(got.cropH, height);
      nv12.assign(got.nv12, got.nv12 + got.nv12Size);
      stamp = got.timeStamp;
    },
    90,
    "[Error]   Cannot initialize Intel QuickSync\r\n",
    nullptr,
    nullptr,
    &FeaturesBlock::quickSync,
    "KESTRIUM_LIB_QUICKSYNC",
    "QuickSync",
    FakeVpl_CallLog};

using QuickSyncTest = test::FakeDriverTest<kDriver>;

// --- the probe -----------------------------------------------------------------

HardwareCase machine(const char* name, void (*arrange)(), const char* line, int word = 0) {
  return {name, &kDriver, 642, 362, nullptr, word, 0, line, arrange};
}

INSTANTIATE_TEST_SUITE_P(
    QuickSync, HardwareProbeTest,
    ::testing::Values(
        machine("Gpu", nullptr, "  Intel QuickSync hardware acceleration is available\r\n", 1),
        machine("RuntimeWithoutGpu", [] { FakeVpl_SetNoGpu(1); },
                "  Intel QuickSync runtime found, but it cannot code H.264 here (-3)\r\n"),
        machine("NoSession", [] { FakeVpl_Fail("MFXInit", MFX_ERR_UNSUPPORTED, 0); }, nullptr),
        machine("NoDisplay", [] { FakeVa_Fail("vaInitialize", VA_STATUS_ERROR_UNKNOWN, 0); },
                "  Intel QuickSync runtime found, but no GPU render node gives a VA display\r\n"),
        machine("NoRenderNode", [] { setVariable("KESTRIUM_RENDER_NODE", "/no/such/renderD128"); },
                "but no GPU render node gives a VA display"),
        machine("NoVaLibrary", [] { setVariable("KESTRIUM_LIB_VA", "/no/such/libva.so"); },
                "  Intel QuickSync runtime found, but no VA-API library to reach a GPU\r\n"),
        machine("FrameNotCoded", [] { FakeVpl_Fail("MFXVideoENCODE_EncodeFrameAsync", MFX_ERR_DEVICE_FAILED, 0); },
                "it cannot code H.264 here (-17)")),
    test::caseName);

INSTANTIATE_TEST_SUITE_P(QuickSync, HardwareAbsenceTest,
                         ::testing::Values(HardwareCase{"NoRuntime", &kDriver}), test::caseName);

// --- the suite every hardware encoder runs ---------------------------------------

INSTANTIATE_TEST_SUITE_P(QuickSync, HardwareEncodeTest,
                         ::testing::Values(HardwareCase{"Laptop1366x768", &kDriver, 1366, 768},
                                           // Pictures held back before the first frame, in buffers too small.
                                           HardwareCase{"Odd642x362HeldBackInSmallBuffers", &kDriver, 642, 362,
                                                        nullptr, 0, 0, nullptr,
                                                        [] {
                                                          FakeVpl_SetDelay(3);
                                                          FakeVpl_SetBufferSizeInKB(1);
                                                        }}),
                         test::caseName);

// --- which session, and with what -------------------------------------------------

struct AttemptCase {
  const char* name;
  const char* useHw;
  void (*arrange)();
  std::vector<const char*> tried;  // the attempts, in order
  bool opens;
  mfxIMPL impl;  // of the session that codes
};
void PrintTo(const AttemptCase& c, std::ostream* os) { *os << c.name; }

class QuickSyncAttemptTest : public QuickSyncTest, public ::testing::WithParamInterface<AttemptCase> {};

TEST_P(QuickSyncAttemptTest, TheAttemptsGoInOrderUntilOneCodes) {
  const AttemptCase& c = GetParam();
  if (c.arrange != nullptr) c.arrange();
  test::EncodedSlotConsumer consumer(u"cap", 642, 362);
  auto encoder = openEncoder(kName, test::h264Options(642, 362, {"use_hw", c.useHw}));
  EXPECT_EQ(encoder != nullptr, c.opens);
  const std::string text = log();
  size_t at = 0;
  for (const char* attempt : c.tried) {
    at = text.find(std::string("  Trying QS ") + attempt + "...\r\n", at);
    ASSERT_NE(at, std::string::npos) << attempt << " in\n" << text;
  }
  EXPECT_EQ(test::countOf(text, "  Trying QS "), c.tried.size()) << text;
  if (!c.opens) {
    EXPECT_NE(text.find("[Error]   Cannot initialize Intel QuickSync\r\n"), std::string::npos) << text;
    return;
  }
  EXPECT_EQ(FakeVpl_LastInitImpl(), c.impl);
  EXPECT_EQ(record(*encoder, consumer, 642, 362, 3, 3).size(), 3u);
}

INSTANTIATE_TEST_SUITE_P(
    Sessions, QuickSyncAttemptTest,
    ::testing::Values(
        AttemptCase{"VaDisplayFirst", "1", nullptr, {"VA display"}, true, MFX_IMPL_HARDWARE_ANY | MFX_IMPL_VIA_VAAPI},
        AttemptCase{"TheFirstHardwareThenAnother",
                    "1",
                    [] { FakeVpl_Fail("MFXInit", MFX_ERR_UNSUPPORTED, 1); },
                    {"VA display"},
                    true,
                    MFX_IMPL_HARDWARE},
        AttemptCase{"NoDisplayThenSystemMemory",
                    "1",
                    [] {
                      FakeVa_Fail("vaInitialize", VA_STATUS_ERROR_UNKNOWN, 0);
                      FakeVpl_SetRequireVaDisplay(0);
                    },
                    {"VA display", "system memory"},
                    true,
                    MFX_IMPL_HARDWARE_ANY},
        AttemptCase{"NothingCodes",
                    "1",
                    [] { FakeVa_Fail("vaInitialize", VA_STATUS_ERROR_UNKNOWN, 0); },
                    {"VA display", "system memory", "software"},
                    false,
                    0},
        AttemptCase{"SoftwareOnlyWhenAsked", "0", nullptr, {"software"}, false, 0}),
    [](const ::testing::TestParamInfo<AttemptCase>& info) { return std::string(info.param.name); });

struct ParameterCase {
  const char* name;
  uint32_t width, height;
  const char* fps;
  uint32_t kbps;
  const char* targetUsage;
  mfxU32 rateNum, rateDen;
  mfxU16 gop, targetKbps, multiplier;
};
void PrintTo(const ParameterCase& c, std::ostream* os) { *os << c.name; }

class QuickSyncParameterTest : public QuickSyncTest, public ::testing::WithParamInterface<ParameterCase> {};

TEST_P(QuickSyncParameterTest, TheStartParametersReachTheRuntime) {
  const ParameterCase& c = GetParam();
  test::EncodedSlotConsumer consumer(u"cap", c.width, c.height);
  auto encoder = openEncoder(kName, {"width", std::to_string(c.width), "height", std::to_string(c.height), "fps",
                                     c.fps, "shared_name", "cap", "bitrate", std::to_string(c.kbps), "target_usage",
                                     c.targetUsage, "use_hw", "1"});
  ASSERT_NE(encoder, nullptr) << log();
  mfxVideoParam p{};
  ASSERT_EQ(FakeVpl_InitParams(&p), 1);
  const mfxInfoMFX& m = p.mfx;
  EXPECT_EQ(m.CodecId, static_cast<mfxU32>(MFX_CODEC_AVC));
  EXPECT_EQ(m.TargetUsage, std::stoi(c.targetUsage));
  EXPECT_EQ(m.GopPicSize, c.gop) << "an I frame a second";
  EXPECT_EQ(m.GopRefDist, 1) << "no B-frames";
  EXPECT_EQ(m.GopOptFlag, MFX_GOP_CLOSED);
  EXPECT_EQ(m.RateControlMethod, MFX_RATECONTROL_VBR);
  EXPECT_EQ(m.TargetKbps, c.targetKbps);
  EXPECT_EQ(m.MaxKbps, c.targetKbps);
  EXPECT_EQ(m.BRCParamMultiplier, c.multiplier);
  EXPECT_EQ(m.NumSlice, 1);
  EXPECT_EQ(p.AsyncDepth, 4);
  EXPECT_EQ(p.IOPattern, MFX_IOPATTERN_IN_SYSTEM_MEMORY);
  EXPECT_EQ(m.FrameInfo.FrameRateExtN, c.rateNum);
  EXPECT_EQ(m.FrameInfo.FrameRateExtD, c.rateDen);
  EXPECT_EQ(m.FrameInfo.Width, (c.width + 15) & ~15u);
  EXPECT_EQ(m.FrameInfo.Height, (c.height + 15) & ~15u);
  EXPECT_EQ(m.FrameInfo.CropW, c.width);
  EXPECT_EQ(m.FrameInfo.CropH, c.height);
  encoder->Close();
}

INSTANTIATE_TEST_SUITE_P(
    StartParameters, QuickSyncParameterTest,
    ::testing::Values(ParameterCase{"FullHd60Quality", 1920, 1080, "60000", 8000, "1", 60, 1, 60, 8000, 0},
                      ParameterCase{"NtscLaptopFastest", 1366, 768, "29970", 2500, "7", 30000, 1001, 29, 2500, 0},
                      ParameterCase{"Film", 642, 362, "23976", 1500, "4", 24000, 1001, 23, 1500, 0},
                      ParameterCase{"OtherRate", 642, 362, "12500", 1500, "4", 125000, 10000, 12, 1500, 0},
                      // 1280 x 720 x 30: between the tried points at 414720 and 2058240 pixels
                      // a second, at three quarters for the balanced usage.
                      ParameterCase{"DefaultBitrate", 1280, 720, "30000", 0, "0", 30, 1, 30, 3231, 0},
                      ParameterCase{"BitrateBeyondSixteenBits", 642, 362, "30000", 100000, "4", 30, 1, 30, 50000, 2}),
    [](const ::testing::TestParamInfo<ParameterCase>& info) { return std::string(info.param.name); });

// --- failures ----------------------------------------------------------------------

HardwareCase failing(const char* call, int status, const char* line) {
  return {call, &kDriver, 642, 362, call, status, 0, line};
}

INSTANTIATE_TEST_SUITE_P(
    QuickSync, HardwareSetupFailureTest,
    ::testing::Values(failing("MFXInit", MFX_ERR_UNSUPPORTED, "[Error]   QS MFXInit failed: -3\r\n"),
                      failing("MFXVideoCORE_SetHandle", MFX_ERR_INVALID_HANDLE,
                              "[Error]   QS MFXVideoCORE_SetHandle failed: -6\r\n"),
                      failing("MFXVideoENCODE_QueryIOSurf", MFX_ERR_INVALID_VIDEO_PARAM,
                              "[Error]   QS MFXVideoENCODE_QueryIOSurf failed: -15\r\n"),
                      failing("MFXVideoENCODE_Init", MFX_ERR_INVALID_VIDEO_PARAM,
                              "[Error]   QS MFXVideoENCODE_Init failed: -15\r\n"),
                      failing("MFXVideoENCODE_GetVideoParam", MFX_ERR_UNKNOWN,
                              "[Error]   QS MFXVideoENCODE_GetVideoParam failed: -1\r\n")),
    test::caseName);

struct LossCase {
  const char* call;  // that reports the loss
  int occurrence;
};
void PrintTo(const LossCase& c, std::ostream* os) { *os << c.call; }

class QuickSyncLossTest : public QuickSyncTest, public ::testing::WithParamInterface<LossCase> {};

TEST_P(QuickSyncLossTest, ALostDeviceCostsTheFramesInFlightAndCodingGoesOn) {
  test::EncodedSlotConsumer consumer(u"cap", 642, 362);
  auto encoder = openEncoder(kName, test::h264Options(642, 362));
  ASSERT_NE(encoder, nullptr) << log();
  FakeVpl_Fail(GetParam().call, MFX_ERR_DEVICE_LOST, GetParam().occurrence);
  testing::internal::CaptureStdout();
  const std::vector<test::EncodedFrame> taken = record(*encoder, consumer, 642, 362, 30, 21);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("\nERROR: Hardware device was lost or returned an unexpected error. Recovering...\n"),
            std::string::npos)
      << out;
  // One gap: the frame that met the loss and those in flight (at most the pool
  // of eight) are gone with the device; every frame before and after arrives.
  ASSERT_GE(taken.size(), 30u - 9);
  ASSERT_LT(taken.size(), 30u);
  const size_t lost = 30 - taken.size();
  size_t gap = 0;
  while (gap < taken.size() && taken[gap].position == positions_[gap]) ++gap;
  ASSERT_LT(gap, taken.size());
  for (size_t i = gap; i < taken.size(); ++i) EXPECT_EQ(taken[i].position, positions_[i + lost]) << "frame " << i;
  EXPECT_EQ(taken[gap].key, 1u) << "the reset encoder starts on a key frame";
  EXPECT_NE(log().find("[Warning] QS: the device was lost (-13); the frames in flight are lost"), std::string::npos);
}

// The loss found as a frame goes in, or as the oldest comes out (while the
// next frame waits for a task, a surface or a busy device).
INSTANTIATE_TEST_SUITE_P(Runtime, QuickSyncLossTest,
                         ::testing::Values(LossCase{"MFXVideoENCODE_EncodeFrameAsync", 12},
                                           LossCase{"MFXVideoCORE_SyncOperation", 5}),
                         [](const ::testing::TestParamInfo<LossCase>& info) { return std::string(info.param.call); });

struct EndingFailure {
  const char* name;
  const char* call;
  int status;
  int occurrence;
  const char* output;  // on the standard output
  const char* line;    // of the pipeline, in the log
};
void PrintTo(const EndingFailure& c, std::ostream* os) { *os << c.name; }

class QuickSyncEndingTest : public QuickSyncTest, public ::testing::WithParamInterface<EndingFailure> {};

TEST_P(QuickSyncEndingTest, AFailureOtherThanALostDeviceEndsTheVideoButNotTheCapture) {
  const EndingFailure& c = GetParam();
  test::EncodedSlotConsumer consumer(u"cap", 642, 362);
  auto encoder = openEncoder(kName, test::h264Options(642, 362));
  ASSERT_NE(encoder, nullptr) << log();
  FakeVpl_Fail(c.call, c.status, c.occurrence);
  testing::internal::CaptureStdout();
  feedUntilRefused(*encoder, 642, 362, 1000, 20000);
  encoder->Close();
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find(c.output), std::string::npos) << out;
  const std::string text = log();
  EXPECT_NE(text.find(c.line), std::string::npos) << text;
  EXPECT_NE(text.find("[Error]   *** H264 *** The encoder of cap failed; the capture goes on without video\r\n"),
            std::string::npos)
      << text;
  EXPECT_TRUE(consumer.taken().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Runtime, QuickSyncEndingTest,
    ::testing::Values(
        // The ninth frame needs a task and so waits for the first: the session ends there.
        EndingFailure{"FrameAborted", "MFXVideoCORE_SyncOperation", MFX_ERR_ABORTED, 1,
                      "\nReturn on error: error code -12,\t", ""},
        EndingFailure{"GpuStaysBusy", "MFXVideoENCODE_EncodeFrameAsync", MFX_WRN_DEVICE_BUSY, 0,
                      "\nReturn on error: error code -21,\t",
                      "[Error]   QS: the device has been busy for 5000 ms with no frame in flight\r\n"}),
    [](const ::testing::TestParamInfo<EndingFailure>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kestrium
