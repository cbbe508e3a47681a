// The audio graph as a listener meets it, with sources whose device is the
// test: how samples are clipped into 16 bits, that silence and mute keep the
// frame count in step, that no source is ever amplified, how several speakers
// fold into two, how the mixer puts every device's sound in one track, and what
// the processor hands the recorder, when, and with which time.

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <map>

#include "audio/AudioProcessor.h"
#include "audio/AudioSource.h"
#include "audio/AudioSourceMixer.h"

namespace kestrium {
namespace {

// A source whose device is the test: hold() fills its block at once, queue()
// for its next poll. "missing" opens nowhere; "integer" opens with a format no
// track can be made of (a device giving integers).
class FakeSource : public AudioSource {
 public:
  using Registry = std::map<std::u16string, FakeSource*>;
  FakeSource(uint32_t rate, uint32_t mask, int32_t index = 0, Registry* registry = nullptr) : registry_(registry) {
    format_ = floatFormat(rate, mask);
    index_ = index;
    DeriveFormat16();
  }
  int Open(int32_t index, std::u16string_view name, int32_t) override {
    if (name == u"missing") return 0;
    if (name == u"integer") format_ = {};
    index_ = index;
    if (registry_ != nullptr) (*registry_)[std::u16string(name)] = this;
    return 1;
  }
  int Start() override { return 1; }
  int Stop() override { return 1; }
  void Poll(int32_t) override {
    if (!queued_.empty()) PushFrames(queued_, queued_.size() / channels());
    queued_.clear();
  }
  // ms of a constant value on every channel.
  void hold(uint32_t ms, float value) {
    const size_t frames = size_t{format_.samplesPerSec} * ms / 1000;
    PushFrames(std::vector<float>(frames * channels(), value), frames);
  }
  void queue(uint32_t ms, float value) {
    queued_.insert(queued_.end(), size_t{format_.samplesPerSec} * ms / 1000 * channels(), value);
  }

 private:
  Registry* registry_;
  std::vector<float> queued_;
};

// Full scale clips, the rest truncates toward zero, and whatever a broken
// device hands over stays out of the file as noise.
TEST(AudioSourceTest, ReadFrames16ClipsToFullScaleAndTruncatesTowardZero) {
  constexpr float kNaN = std::numeric_limits<float>::quiet_NaN(), kInf = std::numeric_limits<float>::infinity();
  const std::vector<float> in = {1.5f, -1.5f, 0.5f, -0.5f, 1.0f, 0.0f, kNaN, kInf, -kInf, -1.0f};
  const std::vector<int16_t> want = {32767, -32767, 16383, -16383, 32767, 0, -32767, 32767, -32767, -32767};
  FakeSource source(48000, 0x3);
  source.PushFrames(in, 5);
  std::vector<int16_t> out(in.size(), 123);
  ASSERT_TRUE(source.ReadFrames16(out, 5));
  EXPECT_EQ(out, want);
  EXPECT_EQ(source.bufferFrames(), 0u);
  // Asking for more than the block holds takes nothing; the rest of a read
  // moves to the front.
  source.PushFrames(in, 3);
  EXPECT_FALSE(source.ReadFrames16(out, 4));
  EXPECT_EQ(source.bufferFrames(), 3u);
  ASSERT_TRUE(source.ReadFrames16(out, 2));
  EXPECT_EQ(source.bufferFrames(), 1u);
  EXPECT_FLOAT_EQ(source.block()[0], 1.0f);
}

// Silence and mute keep the frame count in step; the mute bit tested is the
// source's own index, modulo 32.
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

  FakeSource far(48000, 0x3, 33);
  far.SetMuteMask(1u << 1);
  EXPECT_TRUE(far.muted()) << "index 33 tests bit 1";
  far.SetMuteMask(1u << 0);
  EXPECT_FALSE(far.muted());
}

// --- a device's pace: silence for the time it gave nothing, at 48 kHz.

// Polls every `everyMs` up to `untilMs`, the device giving `frames` on every
// `givesEvery`-th poll.
struct Stretch {
  uint32_t untilMs, everyMs;
  size_t frames;
  uint32_t givesEvery = 1;
};
struct PaceCase {
  const char* name;
  std::vector<Stretch> stretches;
  size_t silence;  // filled in all
};

class DevicePaceTest : public ::testing::TestWithParam<PaceCase> {};

TEST_P(DevicePaceTest, FillsOnlyWhatAQuietDeviceOwesTheClock) {
  DevicePace pace;
  pace.restart(0);
  size_t silence = 0;
  uint64_t ms = 0;
  for (const Stretch& s : GetParam().stretches) {
    for (uint32_t poll = 1; ms + s.everyMs <= s.untilMs; ++poll) {
      ms += s.everyMs;
      silence += pace.silenceAfter(ms * 1'000'000, poll % s.givesEvery == 0 ? s.frames : 0, 48000);
    }
  }
  EXPECT_EQ(silence, GetParam().silence);
}

INSTANTIATE_TEST_SUITE_P(
    Devices, DevicePaceTest,
    ::testing::Values(
        // Its drift waits for a quiet moment: silence within sound is a dropout.
        PaceCase{"SlowerThanTheClockButNeverQuiet", {{2000, 10, 470}}, 0},
        PaceCase{"PolledMoreOftenThanItGives", {{2000, 5, 960, 4}}, 0},
        PaceCase{"QuietJustUnderTheIdleTime", {{190, 190, 0}}, 0},
        PaceCase{"QuietForTheIdleTime", {{200, 200, 0}}, 9600},
        PaceCase{"QuietInTheMiddle", {{1000, 10, 480}, {2000, 50, 0}, {3000, 10, 480}}, 48000},
        PaceCase{"DriftMadeUpWhenQuiet", {{10000, 10, 470}, {10300, 100, 0}}, 494400 - 470000},
        PaceCase{"AheadOfTheClockWaitsForIt", {{300, 300, 96000}, {2500, 100, 0}}, 120000 - 96000}),
    [](const auto& info) { return std::string(info.param.name); });

// The count starts at the first picture, and nothing is filled before it,
// however long the clock has run.
TEST(DevicePaceTest, CountsFromItsLastRestartOnly) {
  DevicePace pace;
  EXPECT_EQ(pace.silenceAfter(5'000'000'000, 0, 48000), 0u);
  pace.restart(5'000'000'000);
  EXPECT_EQ(pace.silenceAfter(6'000'000'000, 0, 48000), 48000u);
  pace.restart(6'000'000'000);
  EXPECT_EQ(pace.silenceAfter(6'100'000'000, 0, 48000), 0u);
  EXPECT_EQ(pace.silenceAfter(6'500'000'000, 0, 48000), 24000u);
}

TEST(AudioSourceTest, VolumeOnlyEverLowers) {
  for (const float volume : {0.995f, 1.0f, 1.5f, 0.5f}) {
    std::vector<float> s = {0.5f, -0.25f};
    applyVolume(s, volume);
    const float gain = volume == 0.5f ? 0.5f : 1.0f;
    EXPECT_EQ(s, (std::vector<float>{0.5f * gain, -0.25f * gain})) << volume;
  }
}

// The 16-bit format of the same speakers: 18 bytes plus the extra size as the
// writers take the record, the extensible one beyond two channels.
TEST(AudioSourceTest, SixteenBitFormatOfTheSameSpeakers) {
  struct Case {
    uint32_t mask;
    uint16_t tag, blockAlign;
  };
  for (const Case c : {Case{0x4, kWaveFormatPcm, 2}, Case{0x3, kWaveFormatPcm, 4}, Case{0x7, kWaveFormatExtensibleTag, 6},
                       Case{0x3F, kWaveFormatExtensibleTag, 12}}) {
    const FakeSource source(44100, c.mask);
    const WaveFormatExtensible& f = source.format16();
    EXPECT_EQ(f.formatTag, c.tag) << c.mask;
    EXPECT_EQ(f.bitsPerSample, 16);
    EXPECT_EQ(f.blockAlign, c.blockAlign) << c.mask;
    EXPECT_EQ(f.avgBytesPerSec, 44100u * c.blockAlign) << c.mask;
    EXPECT_EQ(f.cbSize, c.tag == kWaveFormatPcm ? 0 : 22) << c.mask;
    EXPECT_EQ(toWaveFormat(f).bytes().size(), 18u + f.cbSize) << c.mask;
  }
}

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

// The centre goes equally left and right at its weight; speakers above side
// right (a top speaker, 0x800) are skipped, not shifted into the next slot.
TEST(StereoFoldTest, EachSpeakerLandsOnItsSideAtItsWeight) {
  const StereoMixSettings w{0, {1.0f, 0.7f, 0.0f, 0.5f, 0.0f, 0.0f, 0.25f}};
  // 5.1 frames: FL FR C LFE BL BR; a tone only in the centre, then all differ.
  const std::vector<float> in = {0, 0, 1.0f, 0, 0, 0, 0.2f, 0.4f, 0, 0.8f, 0.6f, 0.1f};
  std::vector<float> out(4);
  foldToStereo(in, 0x3F, 2, w, out);
  EXPECT_EQ(out, (std::vector<float>{0.7f, 0.7f, 0.2f + 0.8f * 0.25f + 0.6f * 0.5f, 0.4f + 0.8f * 0.25f + 0.1f * 0.5f}));
  foldToStereo(std::vector<float>{0.1f, 0.2f, 9.0f, 0.3f, 0.4f, 9.0f}, 0x803, 2, {0, {1.0f, 0, 0, 0, 0, 0, 0}}, out);
  EXPECT_EQ(out, (std::vector<float>{0.1f, 0.2f, 0.3f, 0.4f}));
}

// --- mixer: in step, moved in 200 ms blocks once all hold 250 ms, the tail at the end.

struct Child {
  uint32_t rate, mask, heldMs;
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

// The speakers of all children at the highest rate, with the 16-bit record
// that three channels need.
TEST(MixerTest, FormatHasTheSpeakersOfAllChildrenAtTheHighestRate) {
  AudioSourceMixer mixer(nullptr, std::nullopt);
  mixer.AddChild(std::make_unique<FakeSource>(44100, 0x3));
  mixer.AddChild(std::make_unique<FakeSource>(48000, 0x4));
  EXPECT_EQ(mixer.format().samplesPerSec, 48000u);
  EXPECT_EQ(mixer.format().channelMask, 0x7u);
  EXPECT_EQ(mixer.format().channels, 3);
  EXPECT_EQ(mixer.format16().formatTag, kWaveFormatExtensibleTag);
}

// A mono microphone at front centre and two stereo devices make a
// three-channel track in which each keeps its own speakers, and full scale
// adds up past 1.0 to be clipped only when read.
TEST(MixerTest, EachChildKeepsItsSpeakersAndSumsClipWhenRead) {
  AudioSourceMixer mixer(nullptr, std::nullopt);
  for (const auto& [mask, level] : {std::pair{0x3u, 1.0f}, {0x4u, 0.5f}, {0x3u, 1.0f}}) {
    auto child = std::make_unique<FakeSource>(48000, mask);
    child->hold(300, level);
    mixer.AddChild(std::move(child));
  }
  mixer.Start();
  mixer.Poll(0);
  ASSERT_EQ(mixer.bufferFrames(), 9600u);
  EXPECT_EQ(std::vector<float>(mixer.block().begin(), mixer.block().begin() + 3), (std::vector<float>{2.0f, 2.0f, 0.5f}));
  int16_t out[3];
  ASSERT_TRUE(mixer.ReadFrames16(out, 1));
  EXPECT_EQ(out[0], 32767);
  EXPECT_EQ(out[2], 16383) << "the centre microphone only in the centre";
}

// 44.1 kHz beside 48 kHz: the slower device's 8,820 frames of a block are spread
// over the mix's 9,600 by repeating the nearest one.
TEST(MixerTest, OtherRateIsStretchedByRepetition) {
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
  for (size_t i : {size_t{0}, size_t{1}, size_t{12}, size_t{5000}, size_t{9599}}) {
    EXPECT_FLOAT_EQ(mixer.block()[i], static_cast<float>(i * 8820 / 9600)) << "output frame " << i;
  }
}

TEST(MixerTest, MuteReachesEveryChildByItsOwnIndex) {
  AudioSourceMixer mixer([](const auto&) { return std::make_unique<FakeSource>(48000, 0x3); }, std::nullopt);
  ASSERT_EQ(mixer.Open(0, u"Game Audio", 1), 1);
  ASSERT_EQ(mixer.Open(1, u"USB Microphone", 1), 1);
  mixer.SetMuteMask(0x2);
  EXPECT_FALSE(mixer.children()[0]->muted());
  EXPECT_TRUE(mixer.children()[1]->muted());
  EXPECT_FALSE(mixer.muted());
}

// --- processor: one track per device or one mixed track, as the recorder pumps it.

class AudioProcessorTest : public ::testing::Test {
 protected:
  AudioProcessor::SourceFactory factory() {
    return [this](const auto&) { return std::make_unique<FakeSource>(48000, 0x3, 0, &devices_); };
  }
  int16_t first() const {
    int16_t v;
    std::memcpy(&v, buffer_.data(), 2);
    return v;
  }
  FakeSource::Registry devices_;
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
  EXPECT_EQ(first(), 16383);
}

// The clock of a track is the frames taken over its rate: a block carries the
// time of its first frame; a read without a time, or a paused one, moves nothing.
TEST_F(AudioProcessorTest, TheClockCountsFramesAndStandsStillWhilePaused) {
  AudioProcessor audio(false, std::nullopt, factory());
  ASSERT_EQ(audio.AddSource(u"Mic", 100, 0), 1);
  FakeSource& mic = *devices_[u"Mic"];
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

// Separate tracks, or one mix of every device, each device with its own
// volume; a device that is not there, or gives no float block, makes no track.
TEST_F(AudioProcessorTest, OneTrackPerDeviceOrOneMixOfAll) {
  const auto addDevices = [](AudioProcessor& processor) {
    EXPECT_EQ(processor.AddSource(u"Game Audio", 100, 0), 1);
    EXPECT_EQ(processor.AddSource(u"missing", 100, 1), 0);
    EXPECT_EQ(processor.AddSource(u"integer", 100, 3), 0);
    EXPECT_EQ(processor.AddSource(u"USB Microphone", 50, 2), 1);
  };
  AudioProcessor audio(false, std::nullopt, factory());
  addDevices(audio);
  ASSERT_EQ(audio.GetSourceCount(), 2);
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

  AudioProcessor mixed(true, std::nullopt, factory());
  addDevices(mixed);
  EXPECT_EQ(mixed.GetSourceCount(), 1);
  auto& mixer = static_cast<AudioSourceMixer&>(*mixed.source(0));
  ASSERT_EQ(mixer.children().size(), 2u);
  EXPECT_FLOAT_EQ(mixer.children()[1]->volume(), 0.5f) << "the volume goes to the device it was given for";
  mixed.Start();
  devices_[u"Game Audio"]->queue(300, 0.25f);
  devices_[u"USB Microphone"]->queue(300, 0.25f);
  uint32_t time = 0;
  EXPECT_EQ(mixed.Read(0, buffer_, &time, 0), 200 * 48 * 4) << "one 200 ms block of the mix";
  EXPECT_EQ(first(), 16383) << "0.25 + 0.25";
}

class DropPendingTest : public AudioProcessorTest, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(SeparateAndMixed, DropPendingTest, ::testing::Bool());

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
  EXPECT_EQ(first(), mixer ? 16383 : 8191) << "the new sound, not the old";
}

// Without a bit rate there is no encoder: reads give PCM. With encoders every
// track reports the codec's format, a read hands over packets instead, each
// encoder follows its own device's rate, and after the stop no encoder is
// touched again.
TEST_F(AudioProcessorTest, EncodedTracksGivePacketsUntilTheStop) {
  AudioProcessor pcm(false, std::nullopt, factory());
  ASSERT_EQ(pcm.AddSource(u"Game Audio", 100, 0), 1);
  uint16_t extra = 0;
  EXPECT_EQ(pcm.InitEncoders(u"aac", 0, &extra), 0);
  devices_[u"Game Audio"]->queue(250, 0.5f);
  EXPECT_GT(pcm.Read(0, buffer_, nullptr, 0), 0) << "PCM, not packets";
#if defined(KESTRIUM_WITH_AUDIO_ENCODERS)
  AudioProcessor audio(false, std::nullopt, factory());
  ASSERT_EQ(audio.AddSource(u"Game Audio", 100, 0), 1);
  ASSERT_EQ(audio.AddSource(u"Mic", 100, 1), 1);
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
#endif
}

}  // namespace
}  // namespace kestrium
