// The AAC and MP3 encoders' packets as the audio track of an MP4 file beside
// real H.264, driven as the recorder drives them: the tables give a
// continuous sound no gaps, ffprobe finds both tracks with the
// lengths of what they hold, ffmpeg decodes them without a word, and the sound
// keeps its tone.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <numbers>
#include <sstream>

#include "audio/IAudioEncoder.h"
#include "fileOutput/MP4Container.h"
#include "platform/File.h"
#include "tests/fileOutput/Mp4TestSupport.h"
#include "tests/support/LogFixture.h"

namespace kestrium {
namespace {

using namespace mp4test;

constexpr int32_t kRate = 48000, kChannels = 2, kBitrate = 128000;
constexpr double kToneHz = 1000.0;
constexpr double kPlayedDb = -6.02;  // a sine at half scale
constexpr size_t kVideoFrames = 150;  // 5 s at 30 a second
constexpr uint32_t kSoundMs = 5000, kBlockMs = 200;  // the recorder hands sound over in blocks of 200 ms

std::vector<int16_t> tone(size_t frames) {
  std::vector<int16_t> pcm(frames * kChannels);
  for (size_t i = 0; i < frames; ++i) {
    const auto v = static_cast<int16_t>(16384.0 * std::sin(2.0 * std::numbers::pi * kToneHz * double(i) / kRate));
    std::fill_n(pcm.begin() + static_cast<ptrdiff_t>(i * kChannels), kChannels, v);
  }
  return pcm;
}

// The tone's level in the first channel, in dB of full scale: the median over
// blocks of 100 ms, so that the codecs' start-up and end weigh nothing.
double toneDb(const std::vector<int16_t>& samples) {
  constexpr size_t kBlock = kRate / 10;
  const double step = 2.0 * std::numbers::pi * kToneHz / kRate;
  std::vector<double> levels;
  for (size_t at = 0; (at + kBlock) * kChannels <= samples.size(); at += kBlock) {
    std::complex<double> sum;
    for (size_t i = at; i < at + kBlock; ++i) {
      sum += samples[i * kChannels] / 32767.0 * std::polar(1.0, -step * double(i));
    }
    levels.push_back(20.0 * std::log10(std::max(2.0 * std::abs(sum) / kBlock, 1e-10)));
  }
  if (levels.empty()) return -200.0;
  std::nth_element(levels.begin(), levels.begin() + static_cast<ptrdiff_t>(levels.size() / 2), levels.end());
  return levels[levels.size() / 2];
}

// Each stream ffprobe finds, by codec_type, as its key=value lines.
std::map<std::string, std::map<std::string, std::string>> probeStreams(const std::filesystem::path& file) {
  std::string out;
  EXPECT_EQ(test::runTool(KESTRIUM_FFPROBE,
                          {"-v", "error", "-show_entries",
                           "stream=codec_type,codec_name,sample_rate,channels,time_base,duration_ts,duration,nb_frames",
                           file.string()},
                          out),
            0)
      << out;
  std::map<std::string, std::map<std::string, std::string>> streams;
  std::map<std::string, std::string> stream;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    if (line == "[/STREAM]") {
      const std::string type = stream["codec_type"];
      streams[type] = std::exchange(stream, {});
    }
    if (const size_t eq = line.find('='); eq != std::string::npos) stream[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return streams;
}

// The length of the MPEG-1 Layer III frame whose header starts s; 0 where
// none starts.
size_t mp3FrameLength(std::span<const uint8_t> s) {
  static constexpr uint32_t kKbits[16] = {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0};
  static constexpr uint32_t kRates[4] = {44100, 48000, 32000, 0};
  if (s.size() < 4 || s[0] != 0xFF || (s[1] & 0xFE) != 0xFA) return 0;
  const uint32_t kbits = kKbits[s[2] >> 4], rate = kRates[(s[2] >> 2) & 3];
  return kbits == 0 || rate == 0 ? 0 : 144000 * kbits / rate + ((s[2] >> 1) & 1);
}

struct Codec {
  const char* name;
  bool mp3;
};
void PrintTo(const Codec& c, std::ostream* os) { *os << c.name; }

class Mp4AudioTrackTest : public test::LoggedTest, public ::testing::WithParamInterface<Codec> {};

TEST_P(Mp4AudioTrackTest, ReadersFindBothTracksWholeAndTheToneInTheSound) {
  if (std::string(KESTRIUM_FFMPEG).empty()) GTEST_SKIP() << "no ffmpeg in this build";
  const Codec codec = GetParam();
  H264 h264;
  ASSERT_NO_FATAL_FAILURE(makeH264(folder_.path(), kVideoFrames, 30, h264));
  const std::u16string name(codec.name, codec.name + std::strlen(codec.name));
  const auto encoder = CreateAudioEncoder(name, kRate, kBitrate, kChannels, 3);
  ASSERT_NE(encoder, nullptr);
  const uint32_t frameSamples = static_cast<uint32_t>(encoder->GetFrameSamples());

  // The sound goes in as the recorder gives it: each block when the video
  // reaches its time, its packets with their times among the frames.
  const auto path = folder_.path() / "recording.mp4";
  const std::vector<int16_t> pcm = tone(size_t{kRate} * kSoundMs / 1000);
  const size_t blockValues = size_t{kRate} * kBlockMs / 1000 * kChannels;
  {
    MP4Container mp4;
    platform::File file;
    ASSERT_TRUE(file.open(path, platform::File::Mode::CreateAlways));
    ASSERT_EQ(mp4.open(std::move(file)), 1);
    ASSERT_TRUE(mp4.setVideoTrack(160, 120, 30000, asBytes(h264.record())));
    mp4.setAudioTrack(codec.mp3, kRate, kBitrate, frameSamples, encoder->GetExtraData());
    std::deque<std::pair<std::vector<std::byte>, uint32_t>> pending;
    uint32_t soundMs = 0;
    auto writeAudioUpTo = [&](uint32_t time) {
      for (; !pending.empty() && pending.front().second <= time; pending.pop_front()) {
        mp4.addSample(1, pending.front().second, pending.front().first, false);
      }
    };
    for (size_t i = 0; i < kVideoFrames; ++i) {
      const auto time = static_cast<uint32_t>(i * 1000 / 30);
      for (; soundMs <= time && soundMs < kSoundMs; soundMs += kBlockMs) {
        const size_t at = size_t{soundMs} * kRate / 1000 * kChannels;
        encoder->Encode(pcm.data() + at, static_cast<uint32_t>(std::min(blockValues, pcm.size() - at) * 2), soundMs);
        std::vector<std::byte> packet;
        for (uint32_t stamp = 0; encoder->GetPacket(packet, &stamp) > 0;) pending.emplace_back(packet, stamp);
      }
      writeAudioUpTo(time);
      mp4.addSample(0, time, asBytes(h264.frames[i].first), h264.frames[i].second);
    }
    writeAudioUpTo(UINT32_MAX);
    ASSERT_GT(mp4.audioSamples(), 0u);
    ASSERT_EQ(mp4.finalize(), 1);
  }
  EXPECT_EQ(test::countOf(log(), "[Error]"), 0u) << log();

  // The tables first, as our own walker finds them: a sound without breaks
  // makes a track without gaps, and an MP3
  // sample is one whole frame, since a reader that trusts the tables hands
  // each to the decoder as it stands.
  const std::vector<char> file = test::readBytes(path);
  const Mp4 f{Bytes(file.begin(), file.end())};
  // A track whose last chunk holds one sample gives that sample no time entry.
  size_t videoTimed = 0;
  for (const std::string trak : {"moov/trak[0]", "moov/trak[1]"}) {
    size_t timed = 0;
    for (auto [count, delta] : pairsOf(f[trak + "/mdia/minf/stbl/stts"])) timed += count;
    const size_t samples = numbersOf(f[trak + "/mdia/minf/stbl/stsz"], 8).size();
    EXPECT_TRUE(timed == samples || timed + 1 == samples) << trak << ": " << timed << " of " << samples << " timed";
    videoTimed = timed;
  }
  std::vector<std::string> gaps, broken;
  for (auto [count, delta] : pairsOf(f["moov/trak[0]/mdia/minf/stbl/stts"])) {
    if (delta != frameSamples) gaps.push_back(std::to_string(count) + " x " + std::to_string(delta));
  }
  EXPECT_TRUE(gaps.empty()) << "steps other than " << frameSamples << ": " << ::testing::PrintToString(gaps);
  const auto samples = sampleBytes(f, f["moov/trak[0]/mdia/minf/stbl"]);
  for (size_t i = 0; i < samples.size() && codec.mp3; ++i) {
    if (mp3FrameLength(samples[i]) != samples[i].size()) {
      broken.push_back(std::to_string(i) + ": " + std::to_string(samples[i].size()) + " bytes from " +
                       hex({samples[i].begin(), samples[i].begin() + std::min<ptrdiff_t>(4, ssize(samples[i]))}));
    }
  }
  EXPECT_TRUE(broken.empty()) << broken.size() << " of " << samples.size() << " samples, first " << broken.front()
                              << ", last " << broken.back();

  auto streams = probeStreams(path);
  auto& audio = streams["audio"];
  auto& video = streams["video"];
  EXPECT_EQ(audio["codec_name"], codec.name);
  EXPECT_EQ(audio["sample_rate"], "48000");
  EXPECT_EQ(audio["channels"], "2");
  EXPECT_EQ(video["codec_name"], "h264");
  EXPECT_EQ(video["nb_frames"], std::to_string(videoTimed));
  // Within one frame, and the millisecond the frames' times lose to rounding.
  EXPECT_NEAR(std::atof(video["duration"].c_str()), kVideoFrames / 30.0, 1.0 / 30 + 0.001) << video["duration"];

  std::string errors;
  EXPECT_EQ(test::runTool(KESTRIUM_FFMPEG, {"-v", "error", "-i", path.string(), "-f", "null", "-"}, errors), 0);
  EXPECT_EQ(errors, "") << "the decoders complain about either track";
  const auto raw = folder_.path() / "decoded.raw";
  EXPECT_EQ(test::runTool(KESTRIUM_FFMPEG,
                          {"-v", "error", "-i", path.string(), "-map", "0:a", "-f", "s16le", "-acodec", "pcm_s16le",
                           raw.string()},
                          errors),
            0);
  EXPECT_EQ(errors, "");
  const std::vector<char> bytes = test::readBytes(raw);
  std::vector<int16_t> decoded(bytes.size() / 2);
  std::memcpy(decoded.data(), bytes.data(), decoded.size() * 2);
  const int64_t decodedFrames = static_cast<int64_t>(decoded.size() / kChannels);

  // What the engines hold back at the end (and their lead-in) is a few frames
  // at most; LAME's last frame goes out only whole.
  EXPECT_NEAR(double(decodedFrames) / kRate, kSoundMs / 1000.0, 4.0 * frameSamples / kRate) << "the packets are all in";
  // The track says it lasts as long as the sound it holds: a track longer
  // than its sound drifts from the video by the difference.
  EXPECT_EQ(audio["time_base"], "1/48000");
  EXPECT_LE(std::llabs(std::atoll(audio["duration_ts"].c_str()) - decodedFrames), int64_t{frameSamples})
      << "track " << audio["duration_ts"] << " samples, decoded " << decodedFrames;
  EXPECT_NEAR(toneDb(decoded), kPlayedDb, 1.0);
}

INSTANTIATE_TEST_SUITE_P(Codecs, Mp4AudioTrackTest, ::testing::Values(Codec{"aac", false}, Codec{"mp3", true}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kestrium
