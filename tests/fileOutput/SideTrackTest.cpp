#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "fileOutput/MP3Writer.h"
#include "fileOutput/WavWriter.h"
#include "platform/System.h"
#include "recorder/IFileWriter.h"
#include "server/Log.h"
#include "tests/support/TestSupport.h"

namespace kestrium {
namespace {

// One second of a 440 Hz tone, 16-bit stereo at 48 kHz.
std::vector<std::byte> tone(uint32_t rate = 48000, uint32_t seconds = 1) {
  std::vector<std::byte> pcm(size_t{rate} * seconds * 4);
  for (size_t i = 0; i < size_t{rate} * seconds; ++i) {
    const auto v = static_cast<int16_t>(8000 * std::sin(2 * 3.14159265 * 440 * static_cast<double>(i) / rate));
    for (int c = 0; c < 2; ++c) {
      pcm[i * 4 + c * 2] = std::byte(v & 0xFF);
      pcm[i * 4 + c * 2 + 1] = std::byte((v >> 8) & 0xFF);
    }
  }
  return pcm;
}

uint32_t le32(const std::vector<char>& b, size_t at) {
  return static_cast<uint8_t>(b[at]) | (static_cast<uint8_t>(b[at + 1]) << 8) | (static_cast<uint8_t>(b[at + 2]) << 16) |
         (static_cast<uint32_t>(static_cast<uint8_t>(b[at + 3])) << 24);
}

// Checks the RIFF layout of one part and gives the size of its data.
uint32_t checkWaveFile(const std::filesystem::path& file, const WaveFormat& format) {
  const std::vector<char> b = test::readBytes(file);
  EXPECT_GE(b.size(), 44u);
  if (b.size() < 44) return 0;
  EXPECT_EQ(std::string(b.data(), 4), "RIFF");
  EXPECT_EQ(le32(b, 4), b.size() - 8) << "RIFF size";
  EXPECT_EQ(std::string(b.data() + 8, 8), "WAVEfmt ");
  EXPECT_EQ(le32(b, 16), format.bytes().size());
  EXPECT_EQ(std::memcmp(b.data() + 20, format.bytes().data(), format.bytes().size()), 0);
  const size_t data = 20 + format.bytes().size();
  EXPECT_EQ(std::string(b.data() + data, 4), "data");
  EXPECT_EQ(le32(b, data + 4) + data + 8, b.size());
  return le32(b, data + 4);
}

class SideTrackTest : public ::testing::Test {
 protected:
  test::TempFolder folder_;
  const WaveFormat format_ = WaveFormat::pcm(48000, 2, 16);
};

// Each part stays below the limit, is a whole WAV of its own with the format
// chunk, and the parts together hold every byte in order.
TEST_F(SideTrackTest, StreamPastThePartLimitSplitsIntoWholeParts) {
  const auto pcm = tone(48000, 2);
  constexpr uint64_t kLimit = 80000;
  WavWriter writer(folder_.path() / "rec", 3, kLimit);
  ASSERT_EQ(writer.open(&format_), 1);
  for (size_t at = 0; at < 3 * 76800; at += 9600) ASSERT_EQ(writer.write(std::span(pcm).subspan(at, 9600)), 1);
  writer.close(false);
  ASSERT_EQ(writer.files().size(), 3u);
  std::vector<char> joined;
  for (size_t part = 0; part < 3; ++part) {
    const auto& file = writer.files()[part];
    EXPECT_EQ(file.filename(), "rec.3." + std::to_string(part) + ".wav");
    const uint32_t size = checkWaveFile(file, format_);
    EXPECT_LT(size, kLimit);
    const std::vector<char> b = test::readBytes(file);
    joined.insert(joined.end(), b.end() - size, b.end());
  }
  ASSERT_EQ(joined.size(), 3u * 76800);
  EXPECT_EQ(std::memcmp(joined.data(), pcm.data(), joined.size()), 0);

  WavWriter again(folder_.path() / "rec", 3, kLimit);
  ASSERT_EQ(again.open(&format_), 1);
  for (size_t at = 0; at < 3 * 76800; at += 9600) again.write(std::span(pcm).subspan(at, 9600));
  again.close(true);
  for (const auto& file : again.files()) EXPECT_FALSE(std::filesystem::exists(file)) << file;
}

// Empty or null writes do nothing, to either kind of track; an MP3 track is the
// frames as given, in one part, without a header.
TEST_F(SideTrackTest, EmptyWritesDoNothingAndMp3IsTheFramesAsGiven) {
  WavWriter wav(folder_.path() / "rec", 0);
  MP3Writer mp3(folder_.path() / "rec", 1);
  const std::byte one[1] = {};
  EXPECT_EQ(wav.write(one), 0) << "not open yet";
  EXPECT_EQ(wav.open(nullptr), 0);
  ASSERT_EQ(wav.open(&format_), 1);
  ASSERT_EQ(mp3.open(nullptr), 1);
  for (IAudioWriter* w : std::initializer_list<IAudioWriter*>{&wav, &mp3}) {
    EXPECT_EQ(w->write({}), 0);
    EXPECT_EQ(w->write(std::span<const std::byte>(one, size_t{0})), 0);
    EXPECT_EQ(w->write(std::span<const std::byte>(static_cast<const std::byte*>(nullptr), size_t{0})), 0);
  }
  const std::byte a[3] = {std::byte{0xFF}, std::byte{0xFB}, std::byte{0x90}}, b[2] = {std::byte{1}, std::byte{2}};
  EXPECT_EQ(mp3.write(a), 1);
  EXPECT_EQ(mp3.write(b), 1);
  wav.close(false);
  mp3.close(false);
  EXPECT_EQ(checkWaveFile(folder_.path() / "rec.0.0.wav", format_), 0u);
  EXPECT_EQ(test::readBytes(folder_.path() / "rec.1.0.mp3"), (std::vector<char>{char(0xFF), char(0xFB), char(0x90), 1, 2}));
  mp3.close(true);
  EXPECT_FALSE(std::filesystem::exists(folder_.path() / "rec.1.0.mp3"));
}

struct OnDiskCase {
  const char* name;
  bool wav;  // else MP3 frames, which have no header
  WaveFormat format;
  size_t piece;  // bytes a write, as the audio pump hands them over
};
void PrintTo(const OnDiskCase& c, std::ostream* os) { *os << c.name; }

class SideTrackOnDiskTest : public ::testing::TestWithParam<OnDiskCase> {
 protected:
  test::TempFolder folder_;
};

// A server that is killed loses what its side tracks hold in memory. After
// every write of a second of audio, the file on disk, not yet closed, holds all
// but at most a quarter second of it (by the format's byte rate), byte for byte,
// and its sizes say how much it holds.
TEST_P(SideTrackOnDiskTest, AllButAQuarterSecondIsOnDiskBeforeTheFileIsClosed) {
  const OnDiskCase& c = GetParam();
  std::unique_ptr<IAudioWriter> writer;
  if (c.wav) writer = std::make_unique<WavWriter>(folder_.path() / "rec", 0);
  if (!c.wav) writer = std::make_unique<MP3Writer>(folder_.path() / "rec", 0);
  ASSERT_EQ(writer->open(&c.format), 1);
  const auto file = writer->files().at(0);
  const size_t second = c.format.avgBytesPerSec();
  const size_t lagAllowed = c.wav ? second / 4 : 0;
  const size_t header = c.wav ? 20 + c.format.bytes().size() + 8 : 0;
  std::vector<std::byte> audio(second);
  for (size_t i = 0; i < audio.size(); ++i) audio[i] = std::byte((i * 7 + i / 251) & 0xFF);

  for (size_t written = 0; written < second;) {
    const size_t n = std::min(c.piece, second - written);
    ASSERT_EQ(writer->write(std::span(audio).subspan(written, n)), 1);
    written += n;
    const std::vector<char> disk = test::readBytes(file);
    const size_t onDisk = disk.size() > header ? disk.size() - header : 0;
    ASSERT_GE(onDisk + lagAllowed, written) << "after " << written << " bytes, " << onDisk << " are on disk";
    ASSERT_LE(onDisk, written);
    ASSERT_EQ(std::memcmp(disk.data() + header, audio.data(), onDisk), 0) << "after " << written << " bytes";
    if (c.wav && onDisk > 0) {
      ASSERT_EQ(le32(disk, 4), disk.size() - 8) << "RIFF size after " << written << " bytes";
      ASSERT_EQ(le32(disk, header - 4), onDisk) << "data size after " << written << " bytes";
    }
  }
  const bool tools = !std::string(KESTRIUM_FFPROBE).empty();
  std::string out;
  const auto probe = [&](const char* entries) {
    ASSERT_EQ(test::runTool(KESTRIUM_FFPROBE, {"-v", "error", "-show_entries", entries, "-of", "default=nw=1", file.string()},
                            out),
              0)
        << out;
  };
  // As a player would find it after a crash: at least three quarters of the second.
  if (c.wav && tools) {
    probe("stream=duration");
    const double seconds = std::stod(out.substr(out.find('=') + 1));
    EXPECT_GE(seconds, 0.75) << out;
    EXPECT_LE(seconds, 1.0) << out;
  }
  writer->close(false);
  if (!c.wav) return;
  // Closed, the file is whole, and ffprobe and sox read the format and the second.
  EXPECT_EQ(checkWaveFile(file, c.format), second);
  if (!tools) return;
  const std::string rate = std::to_string(c.format.samplesPerSec()), channels = std::to_string(c.format.channels());
  probe("stream=codec_name,sample_rate,channels,duration");
  for (const std::string& want : {"codec_name=pcm_s" + std::to_string(c.format.bitsPerSample()) + "le",
                                  "sample_rate=" + rate, "channels=" + channels, std::string("duration=1.000000")}) {
    EXPECT_NE(out.find(want), std::string::npos) << want << " in " << out;
  }
  ASSERT_EQ(test::runTool(KESTRIUM_SOX, {"--i", file.string()}, out), 0) << out;
  for (const std::string& want : {"Channels       : " + channels, "Sample Rate    : " + rate,
                                  "Duration       : 00:00:01.00 = " + rate + " samples"}) {
    EXPECT_NE(out.find(want), std::string::npos) << want << " in " << out;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, SideTrackOnDiskTest,
    ::testing::Values(OnDiskCase{"Stereo48kIn10ms", true, WaveFormat::pcm(48000, 2, 16), 1920},
                      OnDiskCase{"Mono8kIn10ms", true, WaveFormat::pcm(8000, 1, 16), 160},
                      OnDiskCase{"Stereo44kIn21ms", true, WaveFormat::pcm(44100, 2, 16), 3700},
                      OnDiskCase{"Surround96k24BitIn5ms", true, WaveFormat::pcm(96000, 6, 24), 8640},
                      OnDiskCase{"Stereo48kInHalfSeconds", true, WaveFormat::pcm(48000, 2, 16), 96000},
                      OnDiskCase{"Mp3Frames", false, WaveFormat::pcm(48000, 2, 16), 417}),
    [](const auto& info) { return std::string(info.param.name); });

// A writer whose side tracks open and close them through the base.
class SideTrackOutput : public IFileWriter {
 public:
  using IFileWriter::IFileWriter;
  ~SideTrackOutput() override { stopWriting(); }
  int write(std::span<const std::byte> data, uint32_t track, uint32_t, uint32_t, uint32_t) override {
    if (track >= 1 && track <= sideWriters_.size() && sideWriters_[track - 1]) sideWriters_[track - 1]->write(data);
    return 1;
  }
  int open() override {
    openSideTracks();
    return 1;
  }
  void close(bool discard) override { closeSideTracks(discard); }
  size_t openTracks() const {
    size_t n = 0;
    for (const auto& w : sideWriters_) n += w != nullptr;
    return n;
  }
};

TEST_F(SideTrackTest, TrackThatCannotBeCreatedIsLoggedAndTheOthersGoOn) {
  platform::setObjectNamespace(test::uniqueNamespace());
  processLog().open(folder_.path() / "Kestrium.txt", true);
  SideTrackOutput output(true, 10.0f, folder_.path());
  output.addAudioFormat(format_, 0);
  output.addAudioFormat(format_, 0);
  output.setNames(u"game", false, false, 0);
  // A folder where the second track's file should go blocks it.
  output.setClock([] { return platform::LocalTime{2014, 11, 3, 5, 10, 20, 30, 0}; });
  std::filesystem::create_directories(folder_.path() / "game_2014-11-05_10-20-30.1.0.wav");
  ASSERT_EQ(output.begin(), 1);
  EXPECT_EQ(output.openTracks(), 1u);
  const auto pcm = tone();
  output.writeWrapper(std::span(pcm).first(4800), 1, 0, 0, 1);
  output.writeWrapper(std::span(pcm).first(4800), 2, 0, 0, 1);
  output.finish(false);
  processLog().close();
  EXPECT_EQ(checkWaveFile(folder_.path() / "game_2014-11-05_10-20-30.0.0.wav", format_), 4800u);
  const std::string log = test::readLog(folder_.path() / "Kestrium.txt");
  for (const char* want :
       {"[Error]   Cannot start wave ", "game_2014-11-05_10-20-30 track 1\r\n", "[Error]   *** WAV *** open file "}) {
    EXPECT_NE(log.find(want), std::string::npos) << log;
  }
}

}  // namespace
}  // namespace kestrium
