// The rules of every audio source that a listener would hear: how samples are
// clipped into 16 bits, that silence and mute keep the frame count in step, that
// no source is ever amplified, and how several speakers fold into two.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "audio/AudioSource.h"

namespace kestrium {
namespace {

// A source whose device is the test: frames are pushed straight into its block.
class FakeSource : public AudioSource {
 public:
  FakeSource(uint32_t rate, uint32_t mask, int32_t index = 0) {
    format_ = floatFormat(rate, mask);
    index_ = index;
    DeriveFormat16();
  }
  int Open(int32_t, std::u16string_view, int32_t) override { return 1; }
  int Start() override { return 1; }
  int Stop() override { return 1; }
  void Poll(int32_t) override {}
};

struct ClipCase {
  float in;
  int16_t out;
};

class ReadFrames16Test : public ::testing::TestWithParam<ClipCase> {};

TEST_P(ReadFrames16Test, ClipsToFullScaleAndTruncatesTowardZero) {
  FakeSource source(48000, 0x4);
  const float in[] = {GetParam().in};
  source.PushFrames(in, 1);
  int16_t out[1] = {123};
  ASSERT_TRUE(source.ReadFrames16(out, 1));
  EXPECT_EQ(out[0], GetParam().out);
  EXPECT_EQ(source.bufferFrames(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Samples, ReadFrames16Test,
    ::testing::Values(ClipCase{1.5f, 32767}, ClipCase{-1.5f, -32767}, ClipCase{0.5f, 16383}, ClipCase{-0.5f, -16383},
                      ClipCase{1.0f, 32767}, ClipCase{0.0f, 0},
                      // Whatever a broken device hands over stays out of the file as noise.
                      ClipCase{std::numeric_limits<float>::quiet_NaN(), -32767},
                      ClipCase{std::numeric_limits<float>::infinity(), 32767},
                      ClipCase{-std::numeric_limits<float>::infinity(), -32767}),
    [](const auto& info) { return "Case" + std::to_string(info.index); });

TEST(AudioSourceTest, ReadingMoreThanTheBlockHoldsChangesNothing) {
  FakeSource source(48000, 0x3);
  const float in[] = {0.1f, 0.2f, 0.3f, 0.4f};
  source.PushFrames(in, 2);
  int16_t out[6] = {};
  EXPECT_FALSE(source.ReadFrames16(out, 3));
  EXPECT_EQ(source.bufferFrames(), 2u);
  ASSERT_TRUE(source.ReadFrames16(out, 1));
  EXPECT_EQ(source.bufferFrames(), 1u);
  EXPECT_FLOAT_EQ(source.block()[0], 0.3f) << "the rest moves to the front";
}

TEST(AudioSourceTest, SilenceAndMuteKeepTheFrameCountInStep) {
  FakeSource source(48000, 0x3, 5);
  std::vector<float> loud(2 * 480, 0.8f);
  source.PushFrames(loud, 480);
  source.PushSilence(240);
  source.SetMuteMask(1u << 5);
  EXPECT_TRUE(source.muted());
  source.PushFrames(loud, 480);
  EXPECT_EQ(source.bufferFrames(), 1200u);
  const auto block = source.block();
  EXPECT_FLOAT_EQ(block[2 * 479], 0.8f);
  for (size_t i = 2 * 480; i < block.size(); ++i) ASSERT_EQ(block[i], 0.0f) << i;
}

TEST(AudioSourceTest, MuteBitsAreTestedByTheSourcesOwnIndex) {
  FakeSource source(48000, 0x3, 33);
  source.SetMuteMask(1u << 1);
  EXPECT_TRUE(source.muted()) << "index 33 tests bit 1";
  source.SetMuteMask(1u << 0);
  EXPECT_FALSE(source.muted());
}

TEST(AudioSourceTest, VolumeOnlyEverLowers) {
  for (const float volume : {0.995f, 1.0f, 1.5f}) {
    std::vector<float> s = {0.5f, -0.25f};
    applyVolume(s, volume);
    EXPECT_EQ(s, (std::vector<float>{0.5f, -0.25f})) << volume;
  }
  std::vector<float> s = {0.5f, -0.25f};
  applyVolume(s, 0.5f);
  EXPECT_EQ(s, (std::vector<float>{0.25f, -0.125f})) << "50 halves the level";
}

struct Format16Case {
  uint32_t mask;
  uint16_t tag;
  uint16_t blockAlign;
};

class DeriveFormat16Test : public ::testing::TestWithParam<Format16Case> {};

TEST_P(DeriveFormat16Test, SixteenBitFormatOfTheSameSpeakers) {
  const FakeSource source(44100, GetParam().mask);
  const WaveFormatExtensible& f = source.format16();
  EXPECT_EQ(f.formatTag, GetParam().tag);
  EXPECT_EQ(f.bitsPerSample, 16);
  EXPECT_EQ(f.blockAlign, GetParam().blockAlign);
  EXPECT_EQ(f.avgBytesPerSec, 44100u * GetParam().blockAlign);
  EXPECT_EQ(f.cbSize, GetParam().tag == kWaveFormatPcm ? 0 : 22);
  // The writers take the record as its bytes: 18 plus the extra size.
  EXPECT_EQ(toWaveFormat(f).bytes().size(), 18u + f.cbSize);
}

INSTANTIATE_TEST_SUITE_P(Speakers, DeriveFormat16Test,
                         ::testing::Values(Format16Case{0x4, kWaveFormatPcm, 2}, Format16Case{0x3, kWaveFormatPcm, 4},
                                           Format16Case{0x7, kWaveFormatExtensibleTag, 6},
                                           Format16Case{0x3F, kWaveFormatExtensibleTag, 12}),
                         [](const auto& info) { return "Mask" + std::to_string(info.param.mask); });

TEST(StereoFoldTest, NormalisationCountsOnlyTheGroupsTheDeviceHas) {
  StereoMixSettings s{1, {1.0f, 0.5f, 9.0f, 0.5f, 9.0f, 9.0f, 1.0f}};
  const StereoMixSettings n = normalizedWeights(s, 0x3F);  // 5.1: front, centre, low frequency, back
  const float sum = 1.0f + 0.5f + 0.5f + 1.0f;
  EXPECT_FLOAT_EQ(n.weights[0], 1.0f / sum);
  EXPECT_FLOAT_EQ(n.weights[1], 0.5f / sum);
  EXPECT_FLOAT_EQ(n.weights[3], 0.5f / sum);
  EXPECT_FLOAT_EQ(n.weights[6], 1.0f / sum);
  EXPECT_FLOAT_EQ(n.weights[2], 9.0f) << "absent groups stay as they are";
  s.normalize = 0;
  EXPECT_FLOAT_EQ(normalizedWeights(s, 0x3F).weights[0], 1.0f);
}

TEST(StereoFoldTest, CentreGoesEquallyLeftAndRightAtItsWeight) {
  const StereoMixSettings w{0, {1.0f, 0.7f, 0.0f, 0.5f, 0.0f, 0.0f, 0.25f}};
  // 5.1 frames: FL FR C LFE BL BR.
  const std::vector<float> in = {0, 0, 1.0f, 0, 0, 0,  // a tone only in the centre
                                 0.2f, 0.4f, 0, 0.8f, 0.6f, 0.1f};
  std::vector<float> out(4);
  foldToStereo(in, 0x3F, 2, w, out);
  EXPECT_FLOAT_EQ(out[0], 0.7f);
  EXPECT_FLOAT_EQ(out[1], 0.7f);
  EXPECT_FLOAT_EQ(out[2], 0.2f + 0.8f * 0.25f + 0.6f * 0.5f);
  EXPECT_FLOAT_EQ(out[3], 0.4f + 0.8f * 0.25f + 0.1f * 0.5f);
}

TEST(StereoFoldTest, SpeakersAboveSideRightAreSkippedNotShifted) {
  const StereoMixSettings w{0, {1.0f, 0, 0, 0, 0, 0, 0}};
  // Front left, front right and a top speaker (0x800): three samples a frame.
  const std::vector<float> in = {0.1f, 0.2f, 9.0f, 0.3f, 0.4f, 9.0f};
  std::vector<float> out(4);
  foldToStereo(in, 0x803, 2, w, out);
  EXPECT_EQ(out, (std::vector<float>{0.1f, 0.2f, 0.3f, 0.4f}));
}

}  // namespace
}  // namespace kestrium
