// The audio graph as the recorder pumps it: what a read hands over, when, and
// with which time, for one track per device or one mixed track.

#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "audio/AudioProcessor.h"

namespace kestrium {
namespace {

// A device whose next poll delivers what the test queued; "missing" is absent.
class ScriptedSource : public AudioSource {
 public:
  explicit ScriptedSource(std::map<std::u16string, ScriptedSource*>& registry) : registry_(registry) {
    format_ = floatFormat(48000, 0x3);
    DeriveFormat16();
  }
  int Open(int32_t index, std::u16string_view name, int32_t) override {
    if (name == u"missing") return 0;
    // Opens, but with a format no track can be made of (a device giving integers).
    if (name == u"integer") format_ = {};
    index_ = index;
    registry_[std::u16string(name)] = this;
    return 1;
  }
  int Start() override { return 1; }
  int Stop() override { return 1; }
  void Poll(int32_t) override {
    PushFrames(queued_, queued_.size() / 2);
    queued_.clear();
  }
  void queue(uint32_t ms, float value) { queued_.insert(queued_.end(), size_t{48} * ms * 2, value); }

 private:
  std::map<std::u16string, ScriptedSource*>& registry_;
  std::vector<float> queued_;
};

class AudioProcessorTest : public ::testing::Test {
 protected:
  AudioProcessor::SourceFactory factory() {
    return [this](const auto&) { return std::make_unique<ScriptedSource>(devices_); };
  }
  std::map<std::u16string, ScriptedSource*> devices_;
  std::vector<std::byte> buffer_;
};

TEST_F(AudioProcessorTest, SoundMovesInPiecesOfAtLeast200MsUnlessFlushed) {
  AudioProcessor audio(false, std::nullopt, factory());
  ASSERT_EQ(audio.AddSource(u"Game Audio", 100, 0), 1);
  devices_[u"Game Audio"]->queue(199, 0.5f);
  uint32_t time = 77;
  EXPECT_EQ(audio.Read(0, buffer_, &time, 0), 0) << "199 ms wait for more";
  EXPECT_EQ(time, 77u);
  EXPECT_EQ(audio.Read(0, buffer_, &time, 1), 199 * 48 * 4) << "the flush takes them";
  EXPECT_EQ(time, 0u);
  int16_t first;
  std::memcpy(&first, buffer_.data(), 2);
  EXPECT_EQ(first, 16383);
}

// The clock of a track is the frames taken over its rate: a block carries the
// time of its first frame; a read without a time, or a paused one, moves nothing.
TEST_F(AudioProcessorTest, TheClockCountsFramesAndStandsStillWhilePaused) {
  AudioProcessor audio(false, std::nullopt, factory());
  ASSERT_EQ(audio.AddSource(u"Mic", 100, 0), 1);
  ScriptedSource& mic = *devices_[u"Mic"];
  uint32_t time = 0;
  mic.queue(1000, 0.1f);
  EXPECT_GT(audio.Read(0, buffer_, &time, 0), 0);
  EXPECT_EQ(time, 0u);
  mic.queue(250, 0.1f);
  EXPECT_GT(audio.Read(0, buffer_, &time, 0), 0);
  EXPECT_EQ(time, 1000u) << "48,000 frames at 48 kHz";
  mic.queue(300, 0.1f);
  EXPECT_GT(audio.Read(0, buffer_, nullptr, 0), 0);
  audio.SetPaused(1);
  mic.queue(400, 0.1f);
  EXPECT_EQ(audio.Read(0, buffer_, &time, 0), 0) << "paused: read and dropped";
  EXPECT_EQ(mic.bufferFrames(), 0u) << "nothing builds up while paused";
  audio.SetPaused(0);
  mic.queue(200, 0.1f);
  EXPECT_GT(audio.Read(0, buffer_, &time, 0), 0);
  EXPECT_EQ(time, 1250u) << "neither the untimed read nor the paused one moved the clock";
}

TEST_F(AudioProcessorTest, OneTrackPerDeviceThatOpensWithItsOwnVolume) {
  AudioProcessor audio(false, std::nullopt, factory());
  EXPECT_EQ(audio.AddSource(u"Game Audio", 100, 0), 1);
  EXPECT_EQ(audio.AddSource(u"missing", 100, 1), 0);
  EXPECT_EQ(audio.AddSource(u"USB Microphone", 50, 2), 1);
  ASSERT_EQ(audio.GetSourceCount(), 2) << "a device that is not there leaves no track";
  EXPECT_FLOAT_EQ(audio.source(1)->volume(), 0.5f);
  EXPECT_EQ(audio.source(1)->index(), 2) << "its mute bit is its own index";
  const WaveFormat* format = audio.GetFormat(0);
  ASSERT_NE(format, nullptr);
  EXPECT_EQ(format->formatTag(), kWaveFormatPcm);
  EXPECT_EQ(format->bitsPerSample(), 16);
  EXPECT_EQ(format->samplesPerSec(), 48000u);
  EXPECT_EQ(audio.GetFormat(2), nullptr);
  EXPECT_EQ(audio.Read(5, buffer_, nullptr, 1), 0) << "a track that does not exist reads nothing";
  audio.SetMuteMask(7, 1);  // and takes no mask
}

class DropPendingTest : public AudioProcessorTest, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(SeparateAndMixed, DropPendingTest, ::testing::Bool());

TEST_F(AudioProcessorTest, MixerMakesOneTrackOfEveryDevice) {
  AudioProcessor audio(true, std::nullopt, factory());
  EXPECT_EQ(audio.AddSource(u"Game Audio", 100, 0), 1);
  EXPECT_EQ(audio.AddSource(u"missing", 100, 1), 0);
  EXPECT_EQ(audio.AddSource(u"USB Microphone", 50, 2), 1);
  EXPECT_EQ(audio.GetSourceCount(), 1);
  auto& mixer = static_cast<AudioSourceMixer&>(*audio.source(0));
  ASSERT_EQ(mixer.children().size(), 2u);
  EXPECT_FLOAT_EQ(mixer.children()[1]->volume(), 0.5f) << "the volume goes to the device it was given for";
  audio.Start();
  devices_[u"Game Audio"]->queue(300, 0.25f);
  devices_[u"USB Microphone"]->queue(300, 0.25f);
  uint32_t time = 0;
  EXPECT_EQ(audio.Read(0, buffer_, &time, 0), 200 * 48 * 4) << "one 200 ms block of the mix";
  int16_t first;
  std::memcpy(&first, buffer_.data(), 2);
  EXPECT_EQ(first, 16383) << "0.25 + 0.25";
}

// What the devices gave before the first picture is dropped, in the mixer's
// children too, and the clock starts from there.
TEST_P(DropPendingTest, TracksStartAtTheFirstPicture) {
  const bool mixer = GetParam();
  AudioProcessor audio(mixer, std::nullopt, factory());
  ASSERT_EQ(audio.AddSource(u"Game Audio", 100, 0), 1);
  ASSERT_EQ(audio.AddSource(u"Mic", 100, 1), 1);
  audio.Start();
  devices_[u"Game Audio"]->queue(700, 0.5f);
  devices_[u"Mic"]->queue(300, 0.5f);
  uint32_t time = 77;
  if (mixer) {
    EXPECT_EQ(audio.Read(0, buffer_, &time, 0), 200 * 48 * 4) << "the mix moved a block already";
  }
  audio.DropPending();
  devices_[u"Game Audio"]->queue(250, 0.25f);
  devices_[u"Mic"]->queue(250, 0.25f);
  // The mix moves at most a block of 200 ms at a time.
  EXPECT_EQ(audio.Read(0, buffer_, &time, 1), (mixer ? 200 : 250) * 48 * 4);
  EXPECT_EQ(time, mixer ? 200u : 0u);
  int16_t first;
  std::memcpy(&first, buffer_.data(), 2);
  EXPECT_EQ(first, mixer ? 16383 : 8191) << "the new sound, not the old";
}

TEST_F(AudioProcessorTest, DeviceThatGivesNoFloatBlockMakesNoTrack) {
  AudioProcessor separate(false, std::nullopt, factory());
  EXPECT_EQ(separate.AddSource(u"integer", 100, 0), 0);
  EXPECT_EQ(separate.GetSourceCount(), 0);
  AudioProcessor mixed(true, std::nullopt, factory());
  EXPECT_EQ(mixed.AddSource(u"integer", 100, 0), 0);
  EXPECT_EQ(static_cast<AudioSourceMixer&>(*mixed.source(0)).children().size(), 0u);
}

TEST_F(AudioProcessorTest, WithoutABitrateThereIsNoEncoder) {
  AudioProcessor audio(false, std::nullopt, factory());
  ASSERT_EQ(audio.AddSource(u"Game Audio", 100, 0), 1);
  uint16_t extra = 0;
  EXPECT_EQ(audio.InitEncoders(u"aac", 0, &extra), 0);
  devices_[u"Game Audio"]->queue(250, 0.5f);
  EXPECT_GT(audio.Read(0, buffer_, nullptr, 0), 0) << "PCM, not packets";
}

#if defined(KESTRIUM_WITH_AUDIO_ENCODERS)
// With encoders every track reports the codec's format, a read hands over
// packets instead of PCM, each encoder follows its own device's rate, and
// after the stop no encoder is touched again.
TEST_F(AudioProcessorTest, EncodedTracksGivePacketsUntilTheStop) {
  AudioProcessor audio(false, std::nullopt, factory());
  ASSERT_EQ(audio.AddSource(u"Game Audio", 100, 0), 1);
  ASSERT_EQ(audio.AddSource(u"Mic", 100, 1), 1);
  uint16_t extra = 0;
  EXPECT_EQ(audio.InitEncoders(u"aac", 160, &extra), 1024);
  EXPECT_EQ(extra, 0x9011) << "48 kHz stereo LC, 0x11 0x90 in memory";
  for (int32_t track = 0; track < 2; ++track) {
    EXPECT_EQ(audio.GetFormat(track)->formatTag(), 0x1610);
    EXPECT_EQ(audio.GetFormat(track)->avgBytesPerSec(), 20000u);
  }
  devices_[u"Game Audio"]->queue(1000, 0.5f);
  uint32_t time = 0;
  EXPECT_EQ(audio.Read(0, buffer_, &time, 0), -1);
  std::vector<std::byte> packet;
  int packets = 0;
  while (audio.GetEncoded(0, packet, &time) > 0) ++packets;
  EXPECT_EQ(packets, 48000 / 1024) << "one packet for every whole frame of the second";
  EXPECT_EQ(audio.GetEncoded(1, packet, &time), 0) << "the microphone gave nothing";
  EXPECT_EQ(audio.GetEncoded(2, packet, &time), 0) << "no such track";

  audio.Stop();
  devices_[u"Game Audio"]->queue(1000, 0.5f);
  EXPECT_EQ(audio.Read(0, buffer_, &time, 1), 0) << "neither packets nor PCM";
  EXPECT_EQ(audio.GetEncoded(0, packet, &time), 0);
}
#endif

}  // namespace
}  // namespace kestrium
