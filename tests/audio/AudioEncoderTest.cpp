// The AAC and MP3 encoders, driven directly: their format records, how PCM is
// gathered into frames and stamped, and streams that readers we did not write
// (ffmpeg, ffprobe, sox) decode to the right length and tone at every rate a
// capture device may run at.

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>

#include "audio/IAudioEncoder.h"
#include "fileOutput/AacConfig.h"
#include "fileOutput/MP3Writer.h"
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
// full scale, over everything after the first tenth of a second (the codecs'
// start-up).
double toneDb(const std::vector<int16_t>& samples, uint32_t channels, uint32_t rate) {
  const size_t frames = samples.size() / channels;
  const size_t start = rate / 10;
  if (frames <= start) return -200.0;
  std::complex<double> sum;
  const double step = 2.0 * std::numbers::pi * kToneHz / rate;
  for (size_t i = start; i < frames; ++i) sum += double(samples[i * channels]) / 32767.0 * std::polar(1.0, -step * double(i));
  return 20.0 * std::log10(std::max(2.0 * std::abs(sum) / double(frames - start), 1e-10));
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
  Decoded decode(const std::filesystem::path& file) {
    Decoded d;
    std::string info;
    EXPECT_EQ(test::runTool(KESTRIUM_FFPROBE,
                            {"-v", "error", "-show_entries", "stream=sample_rate,channels", "-of", "csv=p=0", file.string()},
                            info),
              0)
        << info;
    std::sscanf(info.c_str(), "%u,%u", &d.rate, &d.channels);
    const auto raw = folder_.path() / "decoded.raw";
    test::runTool(KESTRIUM_FFMPEG, {"-v", "error", "-y", "-i", file.string(), "-f", "s16le", "-acodec", "pcm_s16le", raw.string()},
                  d.errors);
    const std::vector<char> bytes = test::readBytes(raw);
    d.samples.resize(bytes.size() / 2);
    std::memcpy(d.samples.data(), bytes.data(), d.samples.size() * 2);
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

}  // namespace
}  // namespace kestrium
