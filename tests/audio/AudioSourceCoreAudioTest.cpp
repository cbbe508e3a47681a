// The Windows device source against a real audio stack: wine's WASAPI over the
// PulseAudio daemon of scripts/wine-ctest.sh, whose devices (in
// wine-sound-devices.pa) play a 1 kHz sine at half scale in known channels.
// Devices are found by the names users see, and what they play comes back in
// the right channels, at its level and pace. wine cannot capture a playback
// device in loopback: that path is only asked to fail cleanly here.

#include <objbase.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <optional>
#include <vector>

#include "audio/AudioSourceCoreAudio.h"
#include "platform/Clock.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "server/Log.h"
#include "tests/support/TestSupport.h"

namespace kestrium {
namespace {

using namespace std::string_literals;

constexpr size_t kRate = 48000;
constexpr double kHertz = 1000.0;
constexpr double kToneRms = 0.5 / std::numbers::sqrt2;
constexpr size_t kSkip = kRate / 50;      // after the first sound, which may start mid-packet
constexpr size_t kMeasured = kRate / 10;  // 100 cycles of the tone

class AudioSourceCoreAudioTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!platform::environmentVariable("PULSE_SERVER")) {
      GTEST_SKIP() << "no sound server: these tests run through scripts/wine-ctest.sh";
    }
    processLog().open(folder_.path() / "Kestrium.txt", true);
  }
  void TearDown() override { processLog().close(); }
  std::string log() const { return test::readLog(folder_.path() / "Kestrium.txt"); }

  test::TempFolder folder_;
};

// The first frame of the block in which some channel reaches the level.
std::optional<size_t> onsetOf(const AudioSource& source, double level) {
  const auto block = source.block();
  for (size_t i = 0; i < block.size(); ++i) {
    if (std::fabs(block[i]) >= level) return i / source.format().channels;
  }
  return std::nullopt;
}

struct Device {
  const char16_t* name;
  std::optional<StereoMixSettings> stereo;
  bool folds;
  uint32_t mask;            // of the block
  const char* caps;         // the format line of the device itself
  std::vector<double> rms;  // of each channel of the block, at unity gain
};
void PrintTo(const Device& d, std::ostream* os) { *os << platform::toUtf8(d.name) << (d.stereo ? " to stereo" : ""); }

class CoreAudioDeviceTest : public AudioSourceCoreAudioTest, public ::testing::WithParamInterface<Device> {};

// A device is found by its friendly name and captured in its own format, or
// folded to stereo where that is asked for and needed. What it plays comes
// back in the right channels at its level and at the device's pace; a twin
// source at half volume gets half of it, and a muted one as many frames of
// silence as the others get sound.
TEST_P(CoreAudioDeviceTest, WhatTheDevicePlaysComesBack) {
  const Device& d = GetParam();
  const float volumes[] = {1.0f, 0.5f, 1.0f};
  constexpr int kMuted = 2;
  std::vector<std::unique_ptr<AudioSourceCoreAudio>> sources;
  for (int i = 0; i < 3; ++i) {
    sources.push_back(std::make_unique<AudioSourceCoreAudio>(d.stereo));
    ASSERT_EQ(sources[i]->Open(i + 4, d.name, 1), 1) << log();
    sources[i]->setVolume(volumes[i]);
    sources[i]->SetMuteMask(1u << (kMuted + 4));
  }
  const AudioSourceCoreAudio& first = *sources[0];
  const size_t channels = d.rms.size();
  EXPECT_FALSE(first.loopback());
  EXPECT_EQ(first.stereoEnabled(), d.folds);
  ASSERT_EQ(first.format().channels, channels);
  EXPECT_EQ(first.format().channelMask, d.mask);
  EXPECT_EQ(first.format().avgBytesPerSec, kRate * channels * 4);
  EXPECT_EQ(first.format16().blockAlign, channels * 2);
  const std::string text = log();
  for (const std::string& line : {"Audio source: " + platform::toUtf8(d.name), "Format tag:  FFFE"s,
                                  "Device caps: "s + d.caps, "ext format subtype: IEEE float"s}) {
    EXPECT_NE(text.find(line + "\r\n"), std::string::npos) << line << "\n" << text;
  }

  for (auto& s : sources) ASSERT_EQ(s->Start(), 1);
  const double loudest = *std::max_element(d.rms.begin(), d.rms.end());
  const size_t loudChannel = static_cast<size_t>(std::max_element(d.rms.begin(), d.rms.end()) - d.rms.begin());
  // Where the tone's measured stretch begins in source i, once it is all there.
  const auto measurable = [&](int i) -> std::optional<size_t> {
    const auto onset = onsetOf(*sources[i], 0.5 * loudest * volumes[i]);
    if (!onset || sources[i]->bufferFrames() < *onset + kSkip + kMeasured) return std::nullopt;
    return *onset + kSkip;
  };
  const uint64_t until = platform::monotonicNs() + 10'000'000'000ull;
  while (!(measurable(0) && measurable(1)) && platform::monotonicNs() < until) {
    platform::sleepMs(10);
    for (auto& s : sources) s->Poll(0);
  }

  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE("volume " + std::to_string(volumes[i]));
    const auto start = measurable(i);
    ASSERT_TRUE(start) << "not enough of the tone within 10 s";
    const float* from = sources[i]->block().data() + *start * channels;
    for (size_t c = 0; c < channels; ++c) {
      double energy = 0;
      for (size_t f = 0; f < kMeasured; ++f) energy += double{from[f * channels + c]} * from[f * channels + c];
      const double expected = d.rms[c] * volumes[i];
      EXPECT_NEAR(std::sqrt(energy / kMeasured), expected, 0.05 * expected + 0.002) << "channel " << c;
    }
    // Two zero crossings a cycle: no frame lost or doubled.
    size_t crossings = 0;
    for (size_t f = 1; f < kMeasured; ++f) {
      crossings += (from[(f - 1) * channels + loudChannel] < 0) != (from[f * channels + loudChannel] < 0);
    }
    EXPECT_NEAR(static_cast<double>(crossings), 2.0 * kHertz * kMeasured / kRate, 2.0);
  }

  const auto muted = sources[kMuted]->block();
  EXPECT_TRUE(std::all_of(muted.begin(), muted.end(), [](float s) { return s == 0.0f; }));
  // Started together with its twins: within a quarter of their frames.
  const auto frames = static_cast<double>(sources[0]->bufferFrames());
  EXPECT_NEAR(static_cast<double>(sources[kMuted]->bufferFrames()), frames, 0.25 * frames);
}

// With normalisation, the weights of the speaker groups that five point one
// has (front, centre, low frequency, back: 1 + 1 + 1 + 1) share out 1.0; the
// others (5) are left out of the sum.
constexpr StereoMixSettings kNormalized{1, {1.0f, 1.0f, 5.0f, 1.0f, 5.0f, 5.0f, 1.0f}};
// A stereo device has nothing to fold: these weights must not touch it.
constexpr StereoMixSettings kHalf{0, {0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f}};

INSTANTIATE_TEST_SUITE_P(
    Devices, CoreAudioDeviceTest,
    ::testing::Values(
        Device{u"USB Microphone", std::nullopt, false, 0x4, "48000 Hz / 1 channels / 32 bits", {kToneRms}},
        Device{u"Monitor of Game Audio", std::nullopt, false, 0x3, "48000 Hz / 2 channels / 32 bits", {kToneRms, 0}},
        Device{u"Monitor of Game Audio", kHalf, false, 0x3, "48000 Hz / 2 channels / 32 bits", {kToneRms, 0}},
        Device{u"Monitor of Surround", std::nullopt, false, 0x3F, "48000 Hz / 6 channels / 32 bits",
               {0, 0, kToneRms, 0, 0, 0}},
        Device{u"Monitor of Surround", kNormalized, true, 0x3, "48000 Hz / 6 channels / 32 bits",
               {0.25 * kToneRms, 0.25 * kToneRms}},
        // A microphone and a playback device of one name: the microphone.
        Device{u"Headset", std::nullopt, false, 0x4, "48000 Hz / 1 channels / 32 bits", {kToneRms}}),
    [](const auto& info) { return "Case" + std::to_string(info.index); });

TEST_F(AudioSourceCoreAudioTest, DeviceThatIsNowhereIsLogged) {
  AudioSourceCoreAudio source(std::nullopt);
  EXPECT_EQ(source.Open(0, u"Studio Monitor 9000", 1), 0);
  EXPECT_NE(log().find("[Error]   *** Aud *** Cannot find source: Studio Monitor 9000\r\n"), std::string::npos)
      << log();
  EXPECT_EQ(source.Start(), 0);
}

// Stop gives everything back: the device opens and delivers again, a stopped
// source keeps its block but takes nothing more, and COM is left as the
// thread had it.
TEST_F(AudioSourceCoreAudioTest, OpenStartStopTwiceInARow) {
  AudioSourceCoreAudio source(std::nullopt);
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    ASSERT_EQ(source.Open(0, u"USB Microphone", 1), 1) << log();
    EXPECT_EQ(source.bufferFrames(), 0u) << "frames of the device opened before";
    ASSERT_EQ(source.Start(), 1);
    const size_t wanted = kRate / 10;
    const uint64_t until = platform::monotonicNs() + 10'000'000'000ull;
    while (source.bufferFrames() < wanted && platform::monotonicNs() < until) {
      platform::sleepMs(10);
      source.Poll(0);
    }
    EXPECT_EQ(source.Stop(), 1);
    const size_t held = source.bufferFrames();
    EXPECT_GE(held, wanted);
    source.Poll(0);
    EXPECT_EQ(source.bufferFrames(), held);
    EXPECT_EQ(source.Start(), 0);
  }
  const HRESULT com = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  EXPECT_EQ(com, S_OK) << "COM that a source initialised was left behind";
  if (SUCCEEDED(com)) CoUninitialize();
}

// wine 8 cannot capture a playback device in loopback. What is asked here is
// only that the attempt fails as a device that cannot be opened does: logged,
// and nothing in the block.
TEST_F(AudioSourceCoreAudioTest, LoopbackThatTheSystemRefusesFailsCleanly) {
  AudioSourceCoreAudio source(std::nullopt);
  const int opened = source.Open(0, u"Game Audio", 1);
  EXPECT_TRUE(source.loopback());
  EXPECT_EQ(log().find("*** Aud *** - "), std::string::npos) << "the silent stream failed:\n" << log();
  if (opened == 0) {
    EXPECT_NE(log().find("[Error]   *** Aud *** "), std::string::npos) << log();
    EXPECT_EQ(source.Start(), 0);
  }
  source.Poll(0);
  EXPECT_EQ(source.bufferFrames(), 0u);
  EXPECT_EQ(source.Stop(), 1);
}

}  // namespace
}  // namespace kestrium
