// The AAC and MP3 encoders, driven directly: their format records, how PCM is
// gathered into frames and stamped, and streams that readers we did not write
// (ffmpeg, ffprobe, sox) decode to the right length and tone at every rate a
// capture device may run at, on their own and as the audio track of an MP4
// file beside real H.264.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <numbers>
#include <sstream>

#include "audio/IAudioEncoder.h"
#include "fileOutput/MP3Writer.h"
#include "fileOutput/MP4Container.h"
#include "platform/File.h"
#include "tests/fileOutput/Mp4TestSupport.h"
#include "tests/support/LogFixture.h"

namespace kestrium {
namespace {

constexpr double kToneHz = 440.0;
constexpr double kPlayedDb = -6.02;  // a sine at half scale

std::vector<int16_t> tone(int32_t rate, int32_t channels, double seconds) {
  const size_t frames = static_cast<size_t>(rate * seconds);
  std::vector<int16_t> pcm(frames * static_cast<size_t>(channels));
  for (size_t i = 0; i < frames; ++i) {
    const auto v = static_cast<int16_t>(16384.0 * std::sin(2.0 * std::numbers::pi * kToneHz * double(i) / rate));
    for (int32_t c = 0; c < channels; ++c) pcm[i * static_cast<size_t>(channels) + static_cast<size_t>(c)] = v;
  }
  return pcm;
}

struct Packet {
  std::vector<std::byte> data;
  uint32_t timeMs;
};

std::vector<uint8_t> recordOf(IAudioEncoder& encoder) {
  const auto bytes = encoder.GetFormat()->bytes();
  const auto* at = reinterpret_cast<const uint8_t*>(bytes.data());
  return {at, at + bytes.size()};
}

std::vector<Packet> drain(IAudioEncoder& encoder) {
  std::vector<Packet> out;
  Packet p;
  while (encoder.GetPacket(p.data, &p.timeMs) > 0) out.push_back(p);
  return out;
}

// The level of the tone in the first channel of interleaved samples, in dB of
// full scale: the median over blocks of 100 ms, so that the codecs' start-up
// and end weigh nothing.
double toneDb(const std::vector<int16_t>& samples, uint32_t channels, uint32_t rate) {
  const size_t block = rate / 10;
  const double step = 2.0 * std::numbers::pi * kToneHz / rate;
  std::vector<double> levels;
  for (size_t at = 0; channels > 0 && (at + block) * channels <= samples.size(); at += block) {
    std::complex<double> sum;
    for (size_t i = at; i < at + block; ++i) sum += samples[i * channels] / 32767.0 * std::polar(1.0, -step * double(i));
    levels.push_back(20.0 * std::log10(std::max(2.0 * std::abs(sum) / double(block), 1e-10)));
  }
  if (levels.empty()) return -200.0;
  std::nth_element(levels.begin(), levels.begin() + static_cast<ptrdiff_t>(levels.size() / 2), levels.end());
  return levels[levels.size() / 2];
}

std::vector<int16_t> asSamples(const std::vector<char>& bytes) {
  std::vector<int16_t> samples(bytes.size() / 2);
  std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
  return samples;
}

class AudioEncoderTest : public test::LoggedTest {
 protected:
  // The packets as a side track holds them (ADTS-framed when AAC).
  std::filesystem::path writeTrack(IAudioEncoder& encoder, const std::vector<Packet>& packets) {
    MP3Writer writer(folder_.path() / ("track" + std::to_string(tracks_++)), 0);
    EXPECT_EQ(writer.open(encoder.GetFormat()), 1);
    for (const auto& p : packets) EXPECT_EQ(writer.write(p.data), 1);
    writer.close(false);
    return writer.files().front();
  }

  struct Decoded {
    uint32_t rate = 0, channels = 0;
    std::vector<int16_t> samples;
    std::string errors;
    double seconds() const { return channels == 0 ? 0.0 : double(samples.size()) / channels / rate; }
  };
  // The file's sound as ffprobe and ffmpeg find it.
  Decoded decode(const std::filesystem::path& file) {
    Decoded d;
    std::string info;
    EXPECT_EQ(test::runTool(KESTRIUM_FFPROBE,
                            {"-v", "error", "-select_streams", "a", "-show_entries", "stream=sample_rate,channels", "-of", "csv=p=0",
                             file.string()},
                            info),
              0)
        << info;
    std::sscanf(info.c_str(), "%u,%u", &d.rate, &d.channels);
    const auto raw = folder_.path() / "decoded.raw";
    test::runTool(KESTRIUM_FFMPEG, {"-v", "error", "-y", "-i", file.string(), "-map", "0:a", "-f", "s16le", "-acodec", "pcm_s16le", raw.string()},
                  d.errors);
    d.samples = asSamples(test::readBytes(raw));
    return d;
  }

  int tracks_ = 0;
};

// The records the outputs store as the streams' formats, byte for byte: the
// AAC one names the engine's rate, the MP3 one the source's and its frame length.
TEST_F(AudioEncoderTest, FormatRecordsAreTheWaveFormatsReadersExpect) {
  auto aac = CreateAudioEncoder(u"aac", 48000, 160000, 2, 3);
  const std::vector<uint8_t> aacRecord = {0x10, 0x16, 2, 0, 0x80, 0xBB, 0, 0, 0x20, 0x4E, 0, 0, 1, 0, 16,
                                          0,    12,   0, 1, 0,    0xFE, 0, 0, 0,    0,    0,    0, 0, 0, 0};
  EXPECT_EQ(recordOf(*aac), aacRecord);
  EXPECT_EQ(aac->GetFrameSamples(), 1024);
  // 48 kHz stereo LC: 0x11 0x90, in that order in memory.
  const uint16_t extra = aac->GetExtraData();
  EXPECT_EQ(extra & 0xFF, 0x11);
  EXPECT_EQ(extra >> 8, 0x90);

  auto mp3 = CreateAudioEncoder(u"mp3", 96000, 128000, 1, 4);
  const std::vector<uint8_t> mp3Record = {0x55, 0,  1, 0, 0x00, 0x77, 1, 0, 0x80, 0x3E, 0, 0, 0x80, 4, 0,
                                          0,    12, 0, 1, 0,    2,    0, 0, 0,    0x80, 4, 1, 0,    0, 0};
  EXPECT_EQ(recordOf(*mp3), mp3Record);
  EXPECT_EQ(mp3->GetExtraData(), 0);
  EXPECT_EQ(CreateAudioEncoder(u"mp3", 22050, 64000, 2, 3)->GetFrameSamples(), 576);
}

// PCM of any length is gathered into whole frames; the rest waits for the
// next block. Each packet carries its block's time plus one frame's length
// for every frame made before it from that block.
TEST_F(AudioEncoderTest, AacGathersFramesAndStampsThemFromTheirBlock) {
  auto aac = CreateAudioEncoder(u"aac", 48000, 160000, 2, 3);
  const std::vector<int16_t> pcm = tone(48000, 2, 1.0);
  EXPECT_EQ(aac->Encode(pcm.data(), 5000, 0), 1);
  EXPECT_EQ(drain(*aac).size(), 1u) << "4096 bytes make a frame, 904 wait";
  EXPECT_EQ(aac->Encode(pcm.data(), 3191, 500), 1);
  EXPECT_EQ(drain(*aac).size(), 0u) << "one byte short of the second frame";
  EXPECT_EQ(aac->Encode(pcm.data(), 4 + 2 * 4096, 1000), 1);
  const auto packets = drain(*aac);
  ASSERT_EQ(packets.size(), 3u);
  EXPECT_EQ(packets[0].timeMs, 1000u);
  EXPECT_EQ(packets[1].timeMs, 1021u);
  EXPECT_EQ(packets[2].timeMs, 1042u);
  // A null time still takes the packet.
  aac->Encode(pcm.data(), 4096, 2000);
  std::vector<std::byte> data;
  EXPECT_GT(aac->GetPacket(data, nullptr), 0);
  EXPECT_EQ(aac->GetPacket(data, nullptr), 0);
}

// LAME hands out its bytes as it likes; the packets are whole MPEG frames
// (at 128 kbit/s and 48 kHz, 384 bytes behind a frame header), since a
// container that indexes the frames gives each one to the decoder on its own.
// LAME holds sound back and then hands out several frames at once: each
// packet is stamped by where its sound stood in the blocks it came in.
TEST_F(AudioEncoderTest, Mp3PacketsAreWholeFramesStampedFromTheirBlock) {
  auto mp3 = CreateAudioEncoder(u"mp3", 48000, 128000, 2, 3);
  const std::vector<int16_t> pcm = tone(48000, 2, 1.0);
  // Two blocks of 0.5 s, the second after 200 ms of lost sound.
  mp3->Encode(pcm.data(), static_cast<uint32_t>(pcm.size()), 700);
  mp3->Encode(pcm.data(), static_cast<uint32_t>(pcm.size()), 1400);
  const auto packets = drain(*mp3);
  ASSERT_GT(packets.size(), 30u);
  const size_t first = 24000 / 1152 + 1;  // packets that start in the first block
  for (size_t i = 0; i < packets.size(); ++i) {
    ASSERT_EQ(packets[i].data.size(), 384u) << "packet " << i;
    EXPECT_EQ(std::to_integer<int>(packets[i].data[0]), 0xFF);
    EXPECT_EQ(std::to_integer<int>(packets[i].data[1]) & 0xFE, 0xFA) << "MPEG-1 layer III";
    EXPECT_EQ(packets[i].timeMs, i < first ? 700 + 24 * i : 1400 + (1152 * i - 24000) / 48) << "packet " << i;
  }
}

// Above the codec's highest rate every other frame is dropped and the stream
// is made at the highest rate, which the log tells; at or below it, no word.
TEST_F(AudioEncoderTest, RatesAboveTheCodecsHighestAreBroughtDown) {
  auto aac192 = CreateAudioEncoder(u"aac", 192000, 160000, 2, 3);
  EXPECT_EQ(aac192->GetFormat()->samplesPerSec(), 96000u);
  auto aac96 = CreateAudioEncoder(u"aac", 96000, 160000, 2, 3);
  const std::string text = log();
  EXPECT_EQ(test::countOf(text, "Resampling audio source from 192000 to 96000"), 1u) << text;
  EXPECT_EQ(test::countOf(text, "Resampling"), 1u) << text;
  // 2 s at 192 kHz: as many packets as 2 s at 96 kHz give.
  const std::vector<int16_t> pcm = tone(192000, 2, 2.0);
  aac192->Encode(pcm.data(), static_cast<uint32_t>(pcm.size() * 2), 0);
  EXPECT_EQ(drain(*aac192).size(), size_t{96000 * 2 / 1024});
}

// What no engine takes: the line of the codec, an encoder that stands and
// gives nothing, and no crash whatever comes in.
struct Refused {
  const char16_t* name;
  int32_t rate, bitrate, channels;
  const char* logged;
};
class RefusedEncoderTest : public AudioEncoderTest, public ::testing::WithParamInterface<Refused> {};
INSTANTIATE_TEST_SUITE_P(Inputs, RefusedEncoderTest,
                         ::testing::Values(Refused{u"aac", 7350, 64000, 2, "Error initializing AAC 7350 64000 2 03"},
                                           Refused{u"aac", 48000, 160000, 0, "Error initializing AAC 48000 160000 0 03"},
                                           Refused{u"aac", 48000, 160000, 9, "Error initializing AAC 48000 160000 9 03"},
                                           Refused{u"aac", 0, 160000, 2, "Error initializing AAC 0 160000 2 03"},
                                           Refused{u"mp3", 48000, 0, 2, "Error initializing MP3 48000 0 2 03"},
                                           Refused{u"mp3", 48000, 128000, 0, "Error initializing MP3 48000 128000 0 03"}));

TEST_P(RefusedEncoderTest, LogsAndMakesNoPackets) {
  auto encoder = CreateAudioEncoder(GetParam().name, GetParam().rate, GetParam().bitrate, GetParam().channels, 3);
  ASSERT_NE(encoder, nullptr);
  const std::vector<int16_t> pcm = tone(48000, 2, 0.5);
  EXPECT_EQ(encoder->Encode(pcm.data(), static_cast<uint32_t>(pcm.size() * 2), 0), 1);
  EXPECT_EQ(encoder->Encode(nullptr, 4096, 0), 1);
  EXPECT_TRUE(drain(*encoder).empty());
  EXPECT_EQ(test::countOf(log(), GetParam().logged), 1u) << log();
}

// Every rate a device may run at, mono and stereo, through both codecs: the
// stream decodes whole to the length that went in, at the tone's level, or the
// engine refused it and said so.
struct RateCase {
  const char16_t* name;
  int32_t rate;
  int32_t channels;
};
std::string rateCaseName(const ::testing::TestParamInfo<RateCase>& info) {
  return std::string(info.param.name[0] == u'a' ? "aac" : "mp3") + "_" + std::to_string(info.param.rate) + "_" +
         std::to_string(info.param.channels) + "ch";
}
std::vector<RateCase> rateCases() {
  std::vector<RateCase> cases;
  for (const char16_t* name : {u"aac", u"mp3"}) {
    for (int32_t rate : {8000, 11025, 16000, 22050, 32000, 44100, 48000, 88200, 96000}) {
      for (int32_t channels : {1, 2}) cases.push_back({name, rate, channels});
    }
  }
  return cases;
}
class EncoderRateTest : public AudioEncoderTest, public ::testing::WithParamInterface<RateCase> {};
INSTANTIATE_TEST_SUITE_P(DeviceRates, EncoderRateTest, ::testing::ValuesIn(rateCases()), rateCaseName);

TEST_P(EncoderRateTest, DecodesToTheLengthAndToneThatWentIn) {
  if (std::string(KESTRIUM_FFMPEG).empty()) GTEST_SKIP() << "no ffmpeg in this build";
  const RateCase c = GetParam();
  auto encoder = CreateAudioEncoder(c.name, c.rate, 128000, c.channels, c.channels == 1 ? 4 : 3);
  ASSERT_NE(encoder, nullptr);
  constexpr double kSeconds = 2.0;
  const std::vector<int16_t> pcm = tone(c.rate, c.channels, kSeconds);
  // In blocks of 200 ms, as the recorder hands them over.
  const size_t block = static_cast<size_t>(c.rate / 5 * c.channels);
  for (size_t at = 0; at < pcm.size(); at += block) {
    const size_t n = std::min(block, pcm.size() - at);
    ASSERT_EQ(encoder->Encode(pcm.data() + at, static_cast<uint32_t>(n * 2), static_cast<uint32_t>(at / block * 200)), 1);
  }
  const auto packets = drain(*encoder);
  if (log().find("Error initializing") != std::string::npos) {
    EXPECT_TRUE(packets.empty());
    return;
  }
  ASSERT_FALSE(packets.empty());
  const Decoded d = decode(writeTrack(*encoder, packets));
  EXPECT_EQ(d.errors, "");
  const int32_t made = c.name[0] == u'a' ? std::min(c.rate, 96000) : std::min(c.rate, 48000);
  EXPECT_EQ(d.rate, static_cast<uint32_t>(made));
  EXPECT_EQ(d.channels, static_cast<uint32_t>(c.channels));
  // What the engines hold back at the end (and AAC's silent lead-in) is a few
  // frames at most: for MP3, LAME's delay and the frame it has begun to hand
  // over, which goes out only whole.
  const double frame = double(encoder->GetFrameSamples()) / made;
  EXPECT_NEAR(d.seconds(), kSeconds, 4 * frame);
  EXPECT_NEAR(toneDb(d.samples, d.channels, d.rate), kPlayedDb, 1.0);
}

// The MP3 stream on its own, as a file: ffprobe and sox both read it, with the
// length that went in.
TEST_F(AudioEncoderTest, Mp3StreamIsReadByFfprobeAndSox) {
  if (std::string(KESTRIUM_SOX).empty()) GTEST_SKIP() << "no sox in this build";
  auto mp3 = CreateAudioEncoder(u"mp3", 44100, 128000, 2, 3);
  const std::vector<int16_t> pcm = tone(44100, 2, 3.0);
  mp3->Encode(pcm.data(), static_cast<uint32_t>(pcm.size() * 2), 0);
  const auto file = writeTrack(*mp3, drain(*mp3));
  std::string probe;
  ASSERT_EQ(test::runTool(KESTRIUM_FFPROBE,
                          {"-v", "error", "-show_entries", "stream=codec_name,sample_rate,channels:format=duration", "-of",
                           "default=nw=1", file.string()},
                          probe),
            0);
  EXPECT_NE(probe.find("codec_name=mp3\nsample_rate=44100\nchannels=2\n"), std::string::npos) << probe;
  std::string soxInfo;
  ASSERT_EQ(test::runTool(KESTRIUM_SOX, {"--i", "-D", file.string()}, soxInfo), 0) << soxInfo;
  // Short by what LAME still holds (a few frames; nothing flushes it at the
  // end of a capture), and by sox's reader leaving out the decoder's delay.
  EXPECT_NEAR(std::atof(soxInfo.c_str()), 3.0, 4 * 1152.0 / 44100) << soxInfo;
  const Decoded d = decode(file);
  EXPECT_NEAR(toneDb(d.samples, d.channels, d.rate), kPlayedDb, 1.0);
}

// --- the packets as the audio track of an MP4 file, driven as the recorder
// drives them: the tables give a continuous sound no gaps, ffprobe finds both
// tracks with the lengths of what they hold, ffmpeg decodes them without a
// word, and the sound keeps its tone.

using namespace mp4test;

constexpr int32_t kRate = 48000, kChannels = 2, kBitrate = 128000;
constexpr size_t kVideoFrames = 150;                  // 5 s at 30 a second
constexpr uint32_t kSoundMs = 5000, kBlockMs = 200;  // the recorder hands sound over in blocks of 200 ms

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

// An MP4 file of the frames (the GOP over and over), 30 a second, with the
// encoder's sound beside them as the recorder writes it: each block of sound is
// encoded once the video reaches its time, and its packets go in among the
// frames by their times, a packet or two between frames. soundAt gives the
// block from a time on, none past the end of the sound.
void writeMp4(const std::filesystem::path& path, const Bytes& avcRecord, const std::vector<std::pair<Bytes, bool>>& gop,
              size_t frames, IAudioEncoder& encoder, bool mp3,
              const std::function<std::span<const int16_t>(uint32_t)>& soundAt) {
  MP4Container mp4;
  platform::File file;
  ASSERT_TRUE(file.open(path, platform::File::Mode::CreateAlways));
  ASSERT_EQ(mp4.open(std::move(file)), 1);
  ASSERT_TRUE(mp4.setVideoTrack(160, 120, 30000, asBytes(avcRecord)));
  mp4.setAudioTrack(mp3, kRate, kBitrate, static_cast<uint32_t>(encoder.GetFrameSamples()), encoder.GetExtraData());
  std::deque<std::pair<std::vector<std::byte>, uint32_t>> pending;
  uint32_t soundMs = 0;
  const auto writeAudioUpTo = [&](uint32_t time) {
    for (; !pending.empty() && pending.front().second <= time; pending.pop_front()) {
      mp4.addSample(1, pending.front().second, pending.front().first, false);
    }
  };
  for (size_t i = 0; i < frames && !mp4.failed(); ++i) {
    const auto time = static_cast<uint32_t>(i * 1000 / 30);
    for (std::span<const int16_t> block; soundMs <= time && !(block = soundAt(soundMs)).empty(); soundMs += kBlockMs) {
      encoder.Encode(block.data(), static_cast<uint32_t>(block.size() * 2), soundMs);
      std::vector<std::byte> packet;
      for (uint32_t stamp = 0; encoder.GetPacket(packet, &stamp) > 0;) pending.emplace_back(packet, stamp);
    }
    writeAudioUpTo(time);
    mp4.addSample(0, time, asBytes(gop[i % gop.size()].first), gop[i % gop.size()].second);
  }
  writeAudioUpTo(UINT32_MAX);
  ASSERT_FALSE(mp4.failed()) << "write error " << mp4.error();
  ASSERT_EQ(mp4.videoSamples(), frames);
  ASSERT_GT(mp4.audioSamples(), frames);
  ASSERT_EQ(mp4.finalize(), 1);
}

struct Codec {
  const char* name;
  bool mp3;
};
void PrintTo(const Codec& c, std::ostream* os) { *os << c.name; }

class Mp4AudioTrackTest : public AudioEncoderTest, public ::testing::WithParamInterface<Codec> {};

TEST_P(Mp4AudioTrackTest, ReadersFindBothTracksWholeAndTheToneInTheSound) {
  if (std::string(KESTRIUM_FFMPEG).empty()) GTEST_SKIP() << "no ffmpeg in this build";
  const Codec codec = GetParam();
  H264 h264;
  ASSERT_NO_FATAL_FAILURE(makeH264(folder_.path(), kVideoFrames, 30, h264));
  const std::u16string name(codec.name, codec.name + std::strlen(codec.name));
  const auto encoder = CreateAudioEncoder(name, kRate, kBitrate, kChannels, 3);
  ASSERT_NE(encoder, nullptr);
  const uint32_t frameSamples = static_cast<uint32_t>(encoder->GetFrameSamples());

  const auto path = folder_.path() / "recording.mp4";
  const std::vector<int16_t> pcm = tone(kRate, kChannels, kSoundMs / 1000.0);
  const size_t blockValues = size_t{kRate} * kBlockMs / 1000 * kChannels;
  ASSERT_NO_FATAL_FAILURE(writeMp4(path, h264.record(), h264.frames, kVideoFrames, *encoder, codec.mp3, [&](uint32_t ms) {
    const size_t at = std::min(size_t{ms} * kRate / 1000 * kChannels, pcm.size());
    return std::span(pcm).subspan(at, std::min(blockValues, pcm.size() - at));
  }));
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
  const Decoded d = decode(path);
  EXPECT_EQ(d.errors, "");
  const int64_t decodedFrames = static_cast<int64_t>(d.samples.size() / kChannels);

  // What the engines hold back at the end (and their lead-in) is a few frames
  // at most; LAME's last frame goes out only whole.
  EXPECT_NEAR(double(decodedFrames) / kRate, kSoundMs / 1000.0, 4.0 * frameSamples / kRate) << "the packets are all in";
  // The track says it lasts as long as the sound it holds: a track longer
  // than its sound drifts from the video by the difference.
  EXPECT_EQ(audio["time_base"], "1/48000");
  EXPECT_LE(std::llabs(std::atoll(audio["duration_ts"].c_str()) - decodedFrames), int64_t{frameSamples})
      << "track " << audio["duration_ts"] << " samples, decoded " << decodedFrames;
  EXPECT_NEAR(toneDb(d.samples, kChannels, kRate), kPlayedDb, 1.0);
}

INSTANTIATE_TEST_SUITE_P(Codecs, Mp4AudioTrackTest, ::testing::Values(Codec{"aac", false}, Codec{"mp3", true}),
                         [](const auto& info) { return std::string(info.param.name); });

// --- a real MP4 file past 4 GiB: chunks behind the reach of 32-bit offsets
// take 64-bit ones, and readers find every frame and decode the last. Only
// with KESTRIUM_LONG_TESTS: it writes some 4.4 GB.

constexpr uint64_t k4GiB = uint64_t{1} << 32;
constexpr size_t kGop = 30, kFiller = 1 << 20;
// Whole GOPs of a mebibyte a frame, some 100 frames past 4 GiB.
constexpr size_t kLargeFrames = (k4GiB / kFiller + 100 + kGop - 1) / kGop * kGop;

// The top-level boxes by their headers alone, and the moov read whole: the
// file is too large to hold.
Mp4 readMoov(const std::filesystem::path& path, std::vector<std::string>& top) {
  std::ifstream in(path, std::ios::binary);
  const uint64_t end = std::filesystem::file_size(path);
  for (uint64_t at = 0; at + 8 <= end;) {
    Bytes head(16);
    in.seekg(static_cast<std::streamoff>(at));
    in.read(reinterpret_cast<char*>(head.data()), static_cast<std::streamsize>(std::min<uint64_t>(16, end - at)));
    uint64_t size = read(head, 0, 4);
    top.emplace_back(head.begin() + 4, head.begin() + 8);
    if (size == 1) size = read(head, 8, 8);
    if (size < 8 || size > end - at) throw std::runtime_error("box '" + top.back() + "' overruns the file");
    if (top.back() == "moov") {
      Bytes moov(size);
      in.seekg(static_cast<std::streamoff>(at));
      in.read(reinterpret_cast<char*>(moov.data()), static_cast<std::streamsize>(size));
      // Nothing may follow the index.
      if (at + size != end) top.emplace_back("past the moov");
      return Mp4{moov, at};
    }
    at += size;
  }
  throw std::runtime_error("no moov");
}

TEST(Mp4LargeFileTest, ChunksPast4GiBTakeWideOffsetsAndEveryFrameIsRead) {
  if (!platform::environmentVariable("KESTRIUM_LONG_TESTS")) {
    GTEST_SKIP() << "writes a file of 4.4 GB: set KESTRIUM_LONG_TESTS to run it";
  }
  if (std::string(KESTRIUM_FFMPEG).empty()) GTEST_SKIP() << "no ffmpeg in this build";
  const test::TempFolder folder;
  // One closed GOP, repeated: each repetition starts with its IDR frame. A
  // length-prefixed filler-data NAL unit (decoders skip it) fattens each frame
  // without changing the picture.
  H264 h264;
  ASSERT_NO_FATAL_FAILURE(makeH264(folder.path(), kGop, kGop, h264));
  ASSERT_TRUE(h264.frames.front().second);
  Bytes filler(kFiller, 0xFF);
  filler.front() = 0x0C;
  filler.back() = 0x80;
  std::vector<std::pair<Bytes, bool>> gop;
  for (const auto& frame : h264.frames) gop.emplace_back(cat({frame.first, sized(filler, 4)}), gop.empty());

  // Silence from the AAC encoder, so that the video's chunks are many and the
  // last ones lie past 4 GiB.
  const auto aac = CreateAudioEncoder(u"aac", kRate, kBitrate, kChannels, 3);
  ASSERT_NE(aac, nullptr);
  const std::vector<int16_t> silence(size_t{kRate} * kBlockMs / 1000 * kChannels);
  const auto path = folder.path() / "large.mp4";
  ASSERT_NO_FATAL_FAILURE(
      writeMp4(path, h264.record(), gop, kLargeFrames, *aac, false, [&](uint32_t) { return std::span(silence); }));
  ASSERT_GT(std::filesystem::file_size(path), k4GiB + 50 * kFiller);

  std::vector<std::string> top;
  const Mp4 moov = readMoov(path, top);
  EXPECT_EQ(top, (std::vector<std::string>{"ftyp", "free", "mdat", "moov"}));
  for (const char* trak : {"moov/trak[0]", "moov/trak[1]"}) {
    SCOPED_TRACE(trak);
    const Box stbl = moov[std::string(trak) + "/mdia/minf/stbl"];
    const std::vector<std::string> tables = codes(children(stbl));
    EXPECT_NE(std::find(tables.begin(), tables.end(), "co64"), tables.end());
    const std::vector<uint64_t> offsets = chunkOffsets(stbl);
    ASSERT_GT(offsets.size(), kLargeFrames / 2) << "the tracks take turns";
    EXPECT_GT(offsets.back(), k4GiB);
    EXPECT_TRUE(std::is_sorted(offsets.begin(), offsets.end()));
  }

  // Every frame is found, the last ones past 4 GiB, and they decode.
  std::string out;
  ASSERT_EQ(test::runTool(KESTRIUM_FFPROBE,
                          {"-v", "error", "-select_streams", "v", "-count_packets", "-show_entries",
                           "stream=nb_read_packets:packet=pos", "-of", "default=nw=1", path.string()},
                          out),
            0)
      << out.substr(0, 2000);
  EXPECT_NE(out.find("nb_read_packets=" + std::to_string(kLargeFrames) + "\n"), std::string::npos)
      << out.substr(out.size() - std::min<size_t>(out.size(), 500));
  const size_t lastPos = out.rfind("pos=");
  ASSERT_NE(lastPos, std::string::npos);
  EXPECT_GT(std::stoull(out.substr(lastPos + 4)), k4GiB);

  ASSERT_EQ(test::runTool(KESTRIUM_FFMPEG,
                          {"-v", "error", "-sseof", "-3", "-i", path.string(), "-map", "0:v", "-f", "framecrc", "-"},
                          out),
            0)
      << out.substr(0, 2000);
  // One line per decoded frame, and nothing else.
  std::istringstream lines(out);
  size_t decoded = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    EXPECT_EQ(line.rfind("0,", 0), 0u) << line;
    ++decoded;
  }
  EXPECT_GE(decoded, 60u) << "the last three seconds";
}

}  // namespace
}  // namespace kestrium
