// What every hardware H.264 encoder owes the recorder, whatever its driver: the
// driver's frames in the encoded slot in order, with key flags and positions,
// the driver given our conversion of each frame at the right time stamp, a
// stream a player decodes to the clip's pictures; a capture the driver refuses
// is refused with its reason and leaves nothing open; a frame the driver loses
// costs that frame only; the probe publishes whether the GPU encodes and says
// why, and without the library it touches nothing. Each encoder's file
// instantiates the suites with its fake driver and its cases.

#include <gtest/gtest.h>

#include "platform/System.h"
#include "tests/videoEncoder/H264TestSupport.h"
#include "videoEncoder/H264Bitstream.h"

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(HardwareSetupFailureTest);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(HardwareFrameFailureTest);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(HardwareProbeTest);

namespace kestrium::test {

void HardwareConformanceTest::SetUp() {
  HardwareEncoderTest::SetUp();
  driver().useFake();
}

void HardwareConformanceTest::TearDown() {
  EXPECT_STREQ(driver().violations(), "") << "the driver's rules are kept and nothing is left open";
  HardwareEncoderTest::TearDown();
}

TEST_P(HardwareEncodeTest, TheDriversFramesReachTheRecorderInOrderWithKeyFlagsPositionsAndOurPictures) {
  const HardwareCase& c = GetParam();
  const auto [width, height] = std::pair(c.width, c.height);
  if (c.arrange != nullptr) c.arrange();
  if (driver().probeFirst) driver().probe();
  const Units& clip = clipUnits();
  constexpr uint32_t kFrames = 32;  // the clip starts over, and an encoder's own second IDR comes at 30
  EncodedSlotConsumer consumer(u"cap", width, height);
  auto encoder = openEncoder(driver().encoder, h264Options(width, height));
  ASSERT_NE(encoder, nullptr) << log();
  const bool late = encoder->HeadersAfterFirstFrame() != 0;
  std::vector<std::byte> sps, pps;
  if (late) {
    EXPECT_TRUE(encoder->GetStreamHeader().empty()) << "known only after the first frame";
  } else {
    ASSERT_EQ(encoder->GetParameterSets(sps, pps), 1);
  }
  const std::vector<EncodedFrame> taken = record(*encoder, consumer, width, height, kFrames, kFrames);
  ASSERT_EQ(taken.size(), kFrames) << "the frames the driver holds come out at the close";
  for (uint32_t i = 0; i < kFrames; ++i) {
    const Bytes& unit = clip[i % clip.size()];
    EXPECT_EQ(lengthPrefixedUnits(taken[i].bytes), nalUnits(unit)) << "frame " << i;
    EXPECT_EQ(taken[i].key, holdsIdr(unit) ? 1u : 0u) << "frame " << i;
    EXPECT_EQ(taken[i].position, positions_[i]) << "frame " << i;
  }
  if (late) {
    const std::optional<ParameterSets> sets = findParameterSets(std::as_bytes(std::span(clip[0])));
    ASSERT_TRUE(sets.has_value());
    EXPECT_EQ(encoder->GetStreamHeader(), avcConfigurationRecord(sets->sps, sets->pps));
  }

  // The driver got our conversion of each frame, whatever its surfaces' pitch.
  ASSERT_EQ(driver().pictureCount(), static_cast<int>(kFrames));
  for (uint32_t i = 0; i < kFrames; ++i) {
    Bytes nv12;
    uint64_t stamp = 0;
    driver().picture(static_cast<int>(i), width, height, nv12, stamp);
    ASSERT_EQ(nv12, packedNv12(sources_[i], width, height)) << "surface of frame " << i;
    if (driver().stampsPerMs != 0) {
      EXPECT_EQ(stamp, positions_[i] * driver().stampsPerMs) << "frame " << i;
    }
  }
  if (driver().moreChecks != nullptr) driver().moreChecks(width, height, kFrames);
  // What a player sees: the parameter sets and every delivered unit decode to
  // the very pictures of the clip.
  expectDecodesToTheClip(folder_.path() / "delivered.h264", sps, pps, taken);
}

TEST_P(HardwareSetupFailureTest, TheCaptureIsRefusedWithAReasonNothingStaysOpenAndTheNextOneRecords) {
  const HardwareCase& c = GetParam();
  if (driver().probeFirst) driver().probe();
  {
    EncodedSlotConsumer consumer(u"cap", 642, 362);
    if (c.call != nullptr) driver().fail(c.call, c.status, c.occurrence);
    if (c.arrange != nullptr) c.arrange();
    EXPECT_EQ(openEncoder(driver().encoder, h264Options(642, 362, {"target_usage", "0", "profile", "2"})), nullptr);
  }
  const std::string text = log();
  EXPECT_NE(text.find(c.line), std::string::npos) << text;
  EXPECT_NE(text.find(driver().refusedLine), std::string::npos) << text;
  EXPECT_STREQ(driver().violations(), "") << "every object made before the failure is gone";

  driver().useFake();
  EncodedSlotConsumer consumer(u"cap", 642, 362);
  auto encoder = openEncoder(driver().encoder, h264Options(642, 362));
  ASSERT_NE(encoder, nullptr) << "the next capture opens";
  EXPECT_EQ(record(*encoder, consumer, 642, 362, 5, 5).size(), 5u);
}

TEST_P(HardwareFrameFailureTest, AFrameTheDriverRefusesIsLostAndTheStreamGoesOn) {
  const HardwareCase& c = GetParam();
  if (driver().probeFirst) driver().probe();
  EncodedSlotConsumer consumer(u"cap", 642, 362);
  auto encoder = openEncoder(driver().encoder, h264Options(642, 362));
  ASSERT_NE(encoder, nullptr) << log();
  driver().fail(c.call, c.status, c.occurrence);
  const std::vector<EncodedFrame> taken = record(*encoder, consumer, 642, 362, 10, 9);
  ASSERT_EQ(taken.size(), 9u);
  for (size_t i = 0; i < taken.size(); ++i) EXPECT_EQ(taken[i].position, positions_[i < 2 ? i : i + 1]);
  EXPECT_NE(log().find(c.line), std::string::npos) << log();
  // Where the encoder chooses its IDR pictures, the one after the loss is one:
  // a lost picture is no reference.
  if (driver().idrPictures != nullptr) {
    EXPECT_EQ(driver().idrPictures(), 2);
  }
}

TEST_P(HardwareProbeTest, ThePublishedWordSaysWhetherTheGpuEncodesAndTheLogSaysWhy) {
  const HardwareCase& c = GetParam();
  storeShared(features().*driver().word, 7u);
  if (c.arrange != nullptr) c.arrange();
  EXPECT_EQ(driver().probe(), c.status);
  EXPECT_EQ(loadShared(features().*driver().word), static_cast<uint32_t>(c.status));
  const std::string text = log();
  if (c.line != nullptr) {
    EXPECT_NE(text.find(c.line), std::string::npos) << text;
  } else {
    EXPECT_EQ(text.find(driver().logTag), std::string::npos) << text;
  }
}

TEST_P(HardwareAbsenceTest, WithoutTheLibraryTheProbeWritesNothingAndSaysNothing) {
  platform::setEnvironmentVariable(driver().library, (folder_.path() / "no-library-here").u16string());
  storeShared(features().*driver().word, 7u);
  EXPECT_EQ(driver().probe(), 0);
  EXPECT_EQ(loadShared(features().*driver().word), 7u) << "the word is not touched";
  EXPECT_EQ(log().find(driver().logTag), std::string::npos) << log();
  EXPECT_STREQ(driver().callLog(), "");
}

}  // namespace kestrium::test
