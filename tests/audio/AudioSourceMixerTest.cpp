// The mixer as a listener meets it: every device's sound in one track, in step,
// moved in 200 ms blocks once all hold 250 ms, and the tail at the end.

#include <gtest/gtest.h>

#include "audio/AudioSourceMixer.h"

namespace kestrium {
namespace {

class FakeSource : public AudioSource {
 public:
  FakeSource(uint32_t rate, uint32_t mask) {
    format_ = floatFormat(rate, mask);
    DeriveFormat16();
  }
  int Open(int32_t index, std::u16string_view, int32_t) override {
    index_ = index;
    return 1;
  }
  int Start() override { return 1; }
  int Stop() override { return 1; }
  void Poll(int32_t) override {}
  // ms of a constant value on every channel.
  void hold(uint32_t ms, float value) {
    const size_t frames = size_t{format_.samplesPerSec} * ms / 1000;
    PushFrames(std::vector<float>(frames * channels(), value), frames);
  }
};

struct Child {
  uint32_t rate;
  uint32_t mask;
  uint32_t heldMs;
};

struct MixCase {
  const char* name;
  std::vector<Child> children;
  bool flush;
  uint32_t movedMs;  // what the mix gains, at its rate
  std::vector<uint32_t> leftMs;
};

class MixerTest : public ::testing::TestWithParam<MixCase> {};

TEST_P(MixerTest, MovesEqualDurationsOnceEveryChildHoldsEnough) {
  AudioSourceMixer mixer(nullptr, std::nullopt);
  std::vector<FakeSource*> children;
  for (const Child& c : GetParam().children) {
    auto child = std::make_unique<FakeSource>(c.rate, c.mask);
    child->hold(c.heldMs, 0.25f);
    children.push_back(child.get());
    mixer.AddChild(std::move(child));
  }
  mixer.Start();
  mixer.Poll(GetParam().flush ? 1 : 0);
  EXPECT_EQ(mixer.bufferFrames(), size_t{mixer.format().samplesPerSec} * GetParam().movedMs / 1000);
  for (size_t i = 0; i < children.size(); ++i) {
    EXPECT_EQ(children[i]->bufferFrames(), size_t{children[i]->format().samplesPerSec} * GetParam().leftMs[i] / 1000)
        << "child " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Blocks, MixerTest,
    ::testing::Values(MixCase{"NoChildren", {}, false, 0, {}},
                      MixCase{"OneShortOfTheMargin", {{48000, 3, 240}, {48000, 3, 900}}, false, 0, {240, 900}},
                      MixCase{"BothReady", {{48000, 3, 250}, {48000, 3, 900}}, false, 200, {50, 700}},
                      MixCase{"FlushTakesTheShortest", {{48000, 3, 120}, {48000, 3, 900}}, true, 120, {0, 780}},
                      MixCase{"EmptyChildStopsTheMix", {{48000, 3, 0}, {48000, 3, 900}}, true, 0, {0, 900}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(MixerFormatTest, SpeakersOfAllChildrenAtTheHighestRate) {
  AudioSourceMixer mixer(nullptr, std::nullopt);
  mixer.AddChild(std::make_unique<FakeSource>(44100, 0x3));
  mixer.AddChild(std::make_unique<FakeSource>(48000, 0x4));
  EXPECT_EQ(mixer.format().samplesPerSec, 48000u);
  EXPECT_EQ(mixer.format().channelMask, 0x7u);
  EXPECT_EQ(mixer.format().channels, 3);
  EXPECT_EQ(mixer.format16().formatTag, kWaveFormatExtensibleTag) << "three channels need the extensible record";

  AudioSourceMixer pair(nullptr, std::nullopt);
  pair.AddChild(std::make_unique<FakeSource>(48000, 0x1));
  pair.AddChild(std::make_unique<FakeSource>(48000, 0x2));
  EXPECT_EQ(pair.format().channels, 2);
  EXPECT_EQ(pair.format16().formatTag, kWaveFormatPcm);
}

// A mono microphone at front centre and a stereo device make a three-channel
// track in which each keeps its own speakers, and full scale adds up past 1.0
// to be clipped only when read.
TEST(MixerSoundTest, EachChildKeepsItsSpeakersAndSumsClipWhenRead) {
  AudioSourceMixer mixer(nullptr, std::nullopt);
  auto stereo = std::make_unique<FakeSource>(48000, 0x3);
  auto centre = std::make_unique<FakeSource>(48000, 0x4);
  auto second = std::make_unique<FakeSource>(48000, 0x3);
  stereo->hold(300, 1.0f);
  centre->hold(300, 0.5f);
  second->hold(300, 1.0f);
  mixer.AddChild(std::move(stereo));
  mixer.AddChild(std::move(centre));
  mixer.AddChild(std::move(second));
  mixer.Start();
  mixer.Poll(0);
  ASSERT_EQ(mixer.bufferFrames(), 9600u);
  const auto block = mixer.block();
  EXPECT_FLOAT_EQ(block[0], 2.0f);
  EXPECT_FLOAT_EQ(block[1], 2.0f);
  EXPECT_FLOAT_EQ(block[2], 0.5f) << "the centre microphone only in the centre";
  int16_t out[3];
  ASSERT_TRUE(mixer.ReadFrames16(out, 1));
  EXPECT_EQ(out[0], 32767);
  EXPECT_EQ(out[2], 16383);
}

// 44.1 kHz beside 48 kHz: the slower device's 8,820 frames of a block are spread
// over the mix's 9,600 by repeating the nearest one.
TEST(MixerSoundTest, OtherRateIsStretchedByRepetition) {
  AudioSourceMixer mixer(nullptr, std::nullopt);
  auto slow = std::make_unique<FakeSource>(44100, 0x4);
  const size_t held = 44100 * 300 / 1000;
  std::vector<float> ramp(held);
  for (size_t i = 0; i < held; ++i) ramp[i] = static_cast<float>(i);
  slow->PushFrames(ramp, held);
  auto fast = std::make_unique<FakeSource>(48000, 0x4);
  fast->hold(300, 0.0f);
  FakeSource* slowChild = slow.get();
  mixer.AddChild(std::move(slow));
  mixer.AddChild(std::move(fast));
  mixer.Start();
  mixer.Poll(0);
  ASSERT_EQ(mixer.bufferFrames(), 9600u);
  EXPECT_EQ(slowChild->bufferFrames(), held - 8820);
  const auto block = mixer.block();
  for (size_t i : {size_t{0}, size_t{1}, size_t{12}, size_t{5000}, size_t{9599}}) {
    EXPECT_FLOAT_EQ(block[i], static_cast<float>(i * 8820 / 9600)) << "output frame " << i;
  }
}

TEST(MixerSoundTest, MuteReachesEveryChildByItsOwnIndex) {
  AudioSourceMixer mixer([](const auto&) { return std::make_unique<FakeSource>(48000, 0x3); }, std::nullopt);
  ASSERT_EQ(mixer.Open(0, u"Game Audio", 1), 1);
  ASSERT_EQ(mixer.Open(1, u"USB Microphone", 1), 1);
  mixer.SetMuteMask(0x2);
  EXPECT_FALSE(mixer.children()[0]->muted());
  EXPECT_TRUE(mixer.children()[1]->muted());
  EXPECT_FALSE(mixer.muted());
}

}  // namespace
}  // namespace kestrium
