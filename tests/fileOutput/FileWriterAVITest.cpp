// Recordings into AVI as the recorder makes them, checked by their own bytes and
// by ffprobe and ffmpeg.

#include <gtest/gtest.h>

#include <cstdlib>
#include <iomanip>
#include <sstream>

#include "fileOutput/FileWriterAVI.h"
#include "platform/ChildProcess.h"
#include "platform/System.h"
#include "server/Log.h"
#include "tests/fileOutput/AviParser.h"
#include "tests/support/TestSupport.h"

namespace kestrium {
namespace {

using test::AviChunk;
using test::AviFile;

// A bottom-up BGR frame, as the uncompressed encoder delivers it, rows padded to 4 bytes.
std::vector<std::byte> bitmapFrame(uint32_t width, uint32_t height, uint32_t number) {
  const size_t stride = (width * 3 + 3) & ~size_t{3};
  std::vector<std::byte> frame(stride * height);
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width * 3; ++x) frame[y * stride + x] = std::byte((number * 37 + y * 5 + x * 3) & 0xFF);
  }
  return frame;
}

// The checksum ffmpeg's framecrc prints for a frame (Adler-32 started from 0)
// of the frame as a decoder gives it: top-down rows without padding.
uint32_t decodedChecksum(const std::vector<std::byte>& bitmap, uint32_t width, uint32_t height) {
  const size_t stride = (width * 3 + 3) & ~size_t{3};
  uint32_t a = 0, b = 0;
  for (uint32_t row = 0; row < height; ++row) {
    const std::byte* line = bitmap.data() + (height - 1 - row) * stride;
    for (size_t x = 0; x < width * 3; ++x) {
      a = (a + std::to_integer<uint32_t>(line[x])) % 65521;
      b = (b + a) % 65521;
    }
  }
  return (b << 16) | a;
}

BitmapInfoHeader bitmapHeader(uint32_t width, uint32_t height) {
  return makeBitmapHeader(static_cast<int32_t>(width), static_cast<int32_t>(height), 24, 0,
                          static_cast<uint32_t>(((width * 3 + 3) & ~3u) * height));
}

class FileWriterAVITest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setObjectNamespace(test::uniqueNamespace());
    processLog().open(folder_.path() / "Kestrium.txt", true);
  }
  void TearDown() override { processLog().close(); }

  std::unique_ptr<FileWriterAVI> begin(uint32_t width, uint32_t height, uint32_t frameRate, int audioTracks,
                                       bool sideTracks = false, int64_t segmentLimit = AVIOutputFile::kSegmentLimit) {
    auto writer = std::make_unique<FileWriterAVI>(sideTracks, 10.0f, folder_.path() / "out", segmentLimit);
    writer->setNames(u"game.exe", false, false, 0);
    writer->setVideoFormat(width, height, frameRate, bitmapHeader(width, height));
    for (int i = 0; i < audioTracks; ++i) writer->addAudioFormat(WaveFormat::pcm(48000, 2, 16), 0);
    EXPECT_EQ(writer->begin(), 1);
    return writer;
  }

  // Frames 0..frames-1 and, for each, 1/fps seconds of audio on every track.
  static void record(FileWriterAVI& writer, uint32_t width, uint32_t height, uint32_t frames, int audioTracks,
                     uint32_t fps = 30) {
    const std::vector<std::byte> silence(48000 / fps * 4);
    for (uint32_t f = 0; f < frames; ++f) {
      writer.writeWrapper(bitmapFrame(width, height, f), 0, 0, f, 1);
      for (int t = 1; t <= audioTracks; ++t) writer.writeWrapper(silence, static_cast<uint32_t>(t), 0, 0, 1);
    }
  }

  static std::string probe(const std::filesystem::path& file) {
    std::string out;
    EXPECT_EQ(test::runTool(KESTRIUM_FFPROBE,
                            {"-v", "error", "-count_packets", "-show_entries",
                             "stream=index,codec_type,codec_name,nb_frames,nb_read_packets,r_frame_rate,duration,width,"
                             "height",
                             "-of", "default=nw=1", file.string()},
                            out),
              0)
        << out;
    return out;
  }

  // The checksums ffmpeg computes of each decoded video frame.
  static std::vector<uint32_t> decodedChecksums(const std::filesystem::path& file) {
    std::string out;
    EXPECT_EQ(test::runTool(KESTRIUM_FFMPEG,
                            {"-v", "error", "-i", file.string(), "-map", "0:v", "-pix_fmt", "bgr24", "-f", "framecrc", "-"},
                            out),
              0)
        << out;
    std::vector<uint32_t> sums;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      if (line.empty() || line[0] == '#') continue;
      const size_t x = line.rfind("0x");
      if (x != std::string::npos) sums.push_back(static_cast<uint32_t>(std::stoul(line.substr(x), nullptr, 16)));
    }
    return sums;
  }

  static bool haveTools() { return !std::string(KESTRIUM_FFPROBE).empty(); }

  // One "name=value" line of ffprobe's report.
  static std::string field(const std::string& text, const std::string& name) {
    const size_t at = text.find(name + "=");
    if (at == std::string::npos) return {};
    const size_t start = at + name.size() + 1;
    return text.substr(start, text.find('\n', start) - start);
  }

  // ffprobe's report cut into its streams, in order.
  static std::vector<std::string> streamsOf(const std::string& info) {
    std::vector<std::string> streams;
    for (size_t at = info.find("index="); at != std::string::npos;) {
      const size_t next = info.find("index=", at + 1);
      streams.push_back(info.substr(at, next - at));
      at = next;
    }
    return streams;
  }

  test::TempFolder folder_;
};

struct ProbeCase {
  uint32_t width;
  uint32_t height;
  int audioTracks;
  int64_t segmentLimit;
  uint32_t frames;
};

class ReadByFfmpegTest : public FileWriterAVITest, public ::testing::WithParamInterface<ProbeCase> {};

// ffprobe sees the streams, the frame count, the rate and the audio's length;
// ffmpeg decodes every frame to exactly what was written.
TEST_P(ReadByFfmpegTest, FfprobeAndFfmpegReadEveryFrame) {
  if (!haveTools()) {
    GTEST_SKIP() << "ffprobe and ffmpeg are not available in this build";
  }
  const ProbeCase& c = GetParam();
  auto writer = begin(c.width, c.height, 30000, c.audioTracks, false, c.segmentLimit);
  record(*writer, c.width, c.height, c.frames, c.audioTracks);
  writer->finish(false);
  const auto file = writer->filePath();
  if (c.segmentLimit != AVIOutputFile::kSegmentLimit) {
    EXPECT_GT(AviFile(file).top.size(), 3u) << "meant to span several segments";
  }

  const std::string info = probe(file);
  EXPECT_EQ(test::countOf(info, "codec_type=video"), 1u) << info;
  EXPECT_EQ(test::countOf(info, "codec_type=audio"), static_cast<size_t>(c.audioTracks)) << info;
  EXPECT_NE(info.find("codec_name=rawvideo"), std::string::npos) << info;
  EXPECT_NE(info.find("width=" + std::to_string(c.width)), std::string::npos) << info;
  EXPECT_NE(info.find("r_frame_rate=30/1"), std::string::npos) << info;
  EXPECT_NE(info.find("nb_frames=" + std::to_string(c.frames)), std::string::npos) << info;
  EXPECT_NE(info.find("nb_read_packets=" + std::to_string(c.frames)), std::string::npos) << info;
  std::ostringstream videoDuration;
  videoDuration << "duration=" << std::fixed << std::setprecision(6) << c.frames / 30.0;
  EXPECT_EQ(test::countOf(info, videoDuration.str()), 1u) << info;
  // PCM in AVI counts its length in samples: 1600 a frame at 48 kHz and 30 fps.
  EXPECT_EQ(test::countOf(info, "nb_frames=" + std::to_string(c.frames * 1600) + "\n"),
            static_cast<size_t>(c.audioTracks))
      << info;
  // ffprobe finds the packets of a stream by the stream number in its chunk
  // ids: every track holds the same audio, so every track has as many packets
  // as the first, which ffmpeg cuts from one chunk a frame.
  const std::vector<std::string> streams = streamsOf(info);
  ASSERT_EQ(streams.size(), 1u + c.audioTracks) << info;
  const std::string packets = field(streams.at(1), "nb_read_packets");
  EXPECT_GE(std::stoul(packets), c.frames) << streams[1];
  for (int s = 1; s <= c.audioTracks; ++s) {
    EXPECT_EQ(field(streams[s], "index"), std::to_string(s));
    EXPECT_EQ(field(streams[s], "codec_type"), "audio") << streams[s];
    EXPECT_EQ(field(streams[s], "nb_read_packets"), packets) << "stream " << s << ": " << streams[s];
  }

  const auto sums = decodedChecksums(file);
  ASSERT_EQ(sums.size(), c.frames);
  for (uint32_t f = 0; f < c.frames; ++f) {
    ASSERT_EQ(sums[f], decodedChecksum(bitmapFrame(c.width, c.height, f), c.width, c.height)) << "frame " << f;
  }
}

INSTANTIATE_TEST_SUITE_P(Files, ReadByFfmpegTest,
                         ::testing::Values(ProbeCase{64, 48, 1, AVIOutputFile::kSegmentLimit, 60},
                                           ProbeCase{37, 21, 2, AVIOutputFile::kSegmentLimit, 45},
                                           ProbeCase{64, 48, 2, 64 * 1024, 120},
                                           // Streams 10 to 16 need ids of two digits.
                                           ProbeCase{64, 48, 16, AVIOutputFile::kSegmentLimit, 30},
                                           ProbeCase{64, 48, 16, 1024 * 1024, 60}),
                         [](const auto& info) { return "Case" + std::to_string(info.index); });

// Frame numbers place frames on the grid: a skipped number leaves empty frames,
// which come after the late frame itself; a number at or below the grid only
// appends.
TEST_F(FileWriterAVITest, GapsInFrameNumbersBecomeEmptyFrames) {
  auto writer = begin(16, 8, 30000, 0);
  for (uint32_t number : {0u, 1u, 5u}) writer->writeWrapper(bitmapFrame(16, 8, number), 0, 0, number, 1);
  writer->waitWritten();
  EXPECT_EQ(writer->framesWritten(), 3u);
  EXPECT_EQ(writer->emptyFramesWritten(), 2u);
  EXPECT_EQ(writer->gridPosition(), 5u);
  writer->writeWrapper(bitmapFrame(16, 8, 9), 0, 0, 4, 1);  // behind the grid
  writer->waitWritten();
  EXPECT_EQ(writer->emptyFramesWritten(), 2u);
  EXPECT_EQ(writer->gridPosition(), 6u);
  for (uint32_t f = 6; f < 75; ++f) writer->writeWrapper(bitmapFrame(16, 8, f), 0, 0, f, 1);
  writer->waitWritten();
  EXPECT_FLOAT_EQ(writer->recordedSeconds(), 2.0f) << "75 frames at 30 fps: whole seconds";
  writer->finish(false);

  const AviFile avi(writer->filePath());
  const auto chunks = avi.top[0].find("LIST", "movi")->children;
  ASSERT_GE(chunks.size(), 6u);
  const uint32_t frameSize = static_cast<uint32_t>(bitmapFrame(16, 8, 0).size());
  const std::vector<uint32_t> sizes = {frameSize, frameSize, frameSize, 0, 0, frameSize};
  for (size_t i = 0; i < sizes.size(); ++i) {
    EXPECT_EQ(chunks[i].code, "00db");
    EXPECT_EQ(chunks[i].size, sizes[i]) << i;
  }
  EXPECT_EQ(std::memcmp(avi.data(chunks[2].position + 8), bitmapFrame(16, 8, 5).data(), frameSize), 0)
      << "the late frame comes before its gap";
}

// An H.264 capture: no bitmap format, but a configuration record, which goes
// behind the stream's header, and frames timed in milliseconds, each put in the
// grid place nearest its time (a missed one leaves an empty frame as ever).
TEST_F(FileWriterAVITest, H264FramesTimedInMillisecondsTakeTheirGridPlaces) {
  auto writer = std::make_unique<FileWriterAVI>(false, 10.0f, folder_.path() / "out");
  writer->setNames(u"game.exe", false, false, 0);
  const std::vector<std::byte> record = {std::byte{1}, std::byte{0x64}, std::byte{0}, std::byte{0x1F}, std::byte{0xFF},
                                         std::byte{0xE1}, std::byte{0},    std::byte{1}, std::byte{0x67}, std::byte{1},
                                         std::byte{0},    std::byte{1},    std::byte{0x68}};
  writer->setVideoParameters(64, 48, 29970, 2000, record);
  ASSERT_EQ(writer->begin(), 1);
  // 29.97 frames a second: the frame at 267 ms (grid place 8) comes after the one
  // at 100 ms (place 3), so three empty frames follow it, as for any late frame.
  const std::vector<std::byte> frame(10, std::byte{0x42});
  for (uint32_t ms : {0u, 33u, 67u, 100u, 267u, 300u}) writer->writeWrapper(frame, 0, 1, ms, ms == 0 ? 1 : 0);
  writer->waitWritten();
  EXPECT_EQ(writer->framesWritten(), 6u);
  EXPECT_EQ(writer->emptyFramesWritten(), 3u);
  EXPECT_EQ(writer->gridPosition(), 9u);
  writer->finish(false);

  const AviFile avi(writer->filePath());
  const AviChunk* strl = avi.top[0].find("LIST", "hdrl")->find("LIST", "strl");
  ASSERT_NE(strl, nullptr);
  EXPECT_EQ(avi.text(strl->find("strh")->dataPosition() + 4, 4), "H264") << "fccHandler";
  const AviChunk* strf = strl->find("strf");
  ASSERT_EQ(strf->size, 40u + record.size());
  EXPECT_EQ(avi.u32(strf->dataPosition()), 40u) << "biSize";
  EXPECT_EQ(avi.u32(strf->dataPosition() + 4), 64u);
  EXPECT_EQ(avi.text(strf->dataPosition() + 16, 4), "H264") << "biCompression";
  EXPECT_EQ(std::memcmp(avi.data(strf->dataPosition() + 40), record.data(), record.size()), 0);
  std::vector<uint32_t> sizes;
  for (const auto& c : avi.top[0].find("LIST", "movi")->children) {
    EXPECT_EQ(c.code, "00dc");
    sizes.push_back(c.size);
  }
  EXPECT_EQ(sizes, (std::vector<uint32_t>{10, 10, 10, 10, 10, 0, 0, 0, 10}));
}

TEST_F(FileWriterAVITest, SideTracksLeaveTheAviWithVideoAlone) {
  auto writer = begin(16, 8, 30000, 1, true);
  record(*writer, 16, 8, 30, 1);
  writer->finish(false);
  const AviFile avi(writer->filePath());
  const AviChunk* hdrl = avi.top[0].find("LIST", "hdrl");
  EXPECT_EQ(avi.u32(hdrl->find("avih")->dataPosition() + 24), 1u) << "dwStreams";
  auto wav = writer->filePath();
  wav.replace_extension(".0.0.wav");
  EXPECT_TRUE(std::filesystem::exists(wav)) << wav;
  EXPECT_EQ(std::filesystem::file_size(wav), 46u + 30 * 6400) << "an 18-byte format chunk";
}

TEST_F(FileWriterAVITest, DiscardDeletesTheFileAndItsSideTracks) {
  auto writer = begin(16, 8, 30000, 1, true);
  record(*writer, 16, 8, 5, 1);
  writer->finish(true);
  EXPECT_FALSE(std::filesystem::exists(writer->filePath()));
  EXPECT_TRUE(std::filesystem::is_empty(writer->filePath().parent_path()));
}

TEST_F(FileWriterAVITest, ZeroSizeLeavesTheVideoHeaderEmpty) {
  auto writer = begin(0, 0, 30000, 0);
  writer->finish(false);
  const AviFile avi(writer->filePath());
  const AviChunk* strl = avi.top[0].find("LIST", "hdrl")->find("LIST", "strl");
  ASSERT_NE(strl, nullptr);
  const int64_t strh = strl->find("strh")->dataPosition();
  EXPECT_EQ(avi.u32(strh), 0u) << "fccType";
  EXPECT_EQ(avi.u32(strh + 24), 0u) << "dwRate";
}

TEST_F(FileWriterAVITest, WriteWithoutAFileIsLoggedAndDropped) {
  FileWriterAVI writer(false, 1.0f, folder_.path());
  const std::byte data[4] = {};
  EXPECT_EQ(writer.write(data, 0, 0, 0, 1), 0);
  processLog().close();
  EXPECT_NE(test::readLog(folder_.path() / "Kestrium.txt").find("[Error]   ZERO AVI pointer\r\n"), std::string::npos);
}

// A recording cut off by the death of its process: the header stands as init
// wrote it, the first movi says 0x7FFFFFFF, and every chunk written before the
// kill is whole. A repair tool walks the chunks from the 2048-aligned movi.
TEST_F(FileWriterAVITest, KilledWriterLeavesTheHeaderOfInitAndWholeChunks) {
  const auto file = folder_.path() / "killed.avi";
  platform::ChildProcess writer;
  ASSERT_TRUE(writer.start(platform::executablePath().parent_path() / KESTRIUM_AVI_WRITER_HELPER,
                           {file.string(), "50"}, {}, folder_.path() / "helper.txt"));
  const uint64_t until = platform::monotonicNs() + 20'000'000'000ull;
  while (!std::filesystem::exists(folder_.path() / "written") && platform::monotonicNs() < until) {
    platform::sleepMs(5);
  }
  ASSERT_TRUE(writer.kill());
  writer.wait(20000);

  const AviFile avi(file);
  ASSERT_EQ(avi.top.size(), 1u);
  EXPECT_EQ(avi.top[0].size, 0u) << "RIFF size as at init";
  const AviChunk* hdrl = avi.top[0].find("LIST", "hdrl");
  ASSERT_NE(hdrl, nullptr);
  EXPECT_EQ(avi.u32(hdrl->find("avih")->dataPosition() + 16), 1u) << "dwTotalFrames as at init";
  EXPECT_EQ(avi.u32(hdrl->all("LIST").back()->find("dmlh")->dataPosition()), 0u);
  const AviChunk* movi = avi.top[0].find("LIST", "movi");
  ASSERT_NE(movi, nullptr);
  EXPECT_EQ(movi->size, 0x7FFFFFFFu);
  EXPECT_EQ(movi->position % 2048, 0);
  ASSERT_GE(movi->children.size(), 50u);
  for (size_t i = 0; i < 50; ++i) {
    const AviChunk& c = movi->children[i];
    ASSERT_EQ(c.code, "00db");
    ASSERT_EQ(std::memcmp(avi.data(c.position + 8), bitmapFrame(32, 16, static_cast<uint32_t>(i)).data(), c.size), 0);
  }
}

// A real file past 2 GiB, at the real segment limit. Slow: run with --long.
TEST_F(FileWriterAVITest, FilePastTwoGigabytesIsReadWhole) {
  if (std::getenv("KESTRIUM_LONG_TESTS") == nullptr || !haveTools()) {
    GTEST_SKIP() << "a long test: scripts/test.sh --long runs it";
  }
  constexpr uint32_t kWidth = 1920, kHeight = 1080, kFrames = 360;
  auto writer = begin(kWidth, kHeight, 30000, 1);
  record(*writer, kWidth, kHeight, kFrames, 1);
  writer->finish(false);
  const auto file = writer->filePath();
  EXPECT_GT(std::filesystem::file_size(file), uint64_t{2} << 30);
  const AviFile avi(file);
  EXPECT_EQ(avi.top.size(), 2u);
  EXPECT_EQ(avi.top[1].type, "AVIX");
  const std::string info = probe(file);
  EXPECT_NE(info.find("nb_frames=360"), std::string::npos) << info;
  EXPECT_NE(info.find("nb_read_packets=360"), std::string::npos) << info;
  const auto sums = decodedChecksums(file);
  ASSERT_EQ(sums.size(), kFrames);
  for (uint32_t f = 0; f < kFrames; f += 1) {
    ASSERT_EQ(sums[f], decodedChecksum(bitmapFrame(kWidth, kHeight, f), kWidth, kHeight)) << "frame " << f;
  }
  std::filesystem::remove(file);
}

}  // namespace
}  // namespace kestrium
