// Recordings into AVI as the recorder makes them, checked by their own bytes and
// by ffprobe and ffmpeg; and the writer when its user presses record again and
// again, when names are taken, when the disk runs full and when its process is
// killed: every file it made stays whole and readable, and no frame is written
// twice or lost between files.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <iomanip>
#include <sstream>
#include <thread>

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

bool haveTools() { return !std::string(KESTRIUM_FFPROBE).empty(); }

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
uint32_t decodedChecksum(uint32_t width, uint32_t height, uint32_t number) {
  const std::vector<std::byte> bitmap = bitmapFrame(width, height, number);
  const size_t stride = (width * 3 + 3) & ~size_t{3};
  uint32_t a = 0, b = 0;
  for (uint32_t row = 0; row < height; ++row) {
    for (size_t x = 0; x < width * 3; ++x) {
      a = (a + std::to_integer<uint32_t>(bitmap[(height - 1 - row) * stride + x])) % 65521;
      b = (b + a) % 65521;
    }
  }
  return (b << 16) | a;
}

// ffprobe's report of the streams, "name=value" a line.
std::string probe(const std::filesystem::path& file, const std::string& entries) {
  std::string out;
  EXPECT_EQ(test::runTool(KESTRIUM_FFPROBE,
                          {"-v", "error", "-count_packets", "-show_entries", "stream=" + entries, "-of", "default=nw=1",
                           file.string()},
                          out),
            0)
      << out;
  return out;
}

// One "name=value" line of ffprobe's report.
std::string field(const std::string& text, const std::string& name) {
  const size_t at = text.find(name + "=");
  if (at == std::string::npos) return {};
  const size_t start = at + name.size() + 1;
  return text.substr(start, text.find('\n', start) - start);
}

// The checksums ffmpeg computes of each decoded video frame.
std::vector<uint32_t> decodedChecksums(const std::filesystem::path& file) {
  std::string out;
  EXPECT_EQ(test::runTool(KESTRIUM_FFMPEG,
                          {"-v", "error", "-i", file.string(), "-map", "0:v", "-pix_fmt", "bgr24", "-f", "framecrc", "-"},
                          out),
            0)
      << out;
  std::vector<uint32_t> sums;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    const size_t x = line.rfind("0x");
    if (!line.empty() && line[0] != '#' && x != std::string::npos) sums.push_back(static_cast<uint32_t>(std::stoul(line.substr(x), nullptr, 16)));
  }
  return sums;
}

// The video chunks of an AVI with data, and those without (empty frames).
std::pair<size_t, size_t> videoChunks(const std::filesystem::path& path) {
  const AviFile file(path);
  std::pair<size_t, size_t> counts;
  for (const AviChunk* chunk : file.moviChunks()) {
    if (chunk->code == "00db") ++(chunk->size != 0 ? counts.first : counts.second);
  }
  return counts;
}

// ffprobe's count of the video packets (or the header's count of frames); where
// ffprobe cannot run (under wine), our own count of chunks with data stands in.
int64_t probedPackets(const std::filesystem::path& avi, const std::string& entry = "nb_read_packets") {
  if (!haveTools()) return static_cast<int64_t>(videoChunks(avi).first);
  const std::string out = probe(avi, entry);
  return out.empty() ? -1 : std::atoll(field(out, entry).c_str());
}

std::vector<std::filesystem::path> filesIn(const std::filesystem::path& folder, const char* extension) {
  std::vector<std::filesystem::path> files;
  for (const auto& e : std::filesystem::directory_iterator(folder)) {
    if (e.path().extension() == extension) files.push_back(e.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

class FileWriterAVITest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setObjectNamespace(test::uniqueNamespace());
    processLog().open(folder_.path() / "Kestrium.txt", true);
  }
  void TearDown() override { processLog().close(); }

  std::unique_ptr<FileWriterAVI> writer(uint32_t width, uint32_t height, int audioTracks, bool sideTracks = false,
                                        int64_t segmentLimit = AVIOutputFile::kSegmentLimit) {
    auto w = std::make_unique<FileWriterAVI>(sideTracks, 10.0f, out(), segmentLimit);
    w->setNames(u"game.exe", false, false, 0);
    w->setVideoFormat(width, height, 30000,
                      makeBitmapHeader(static_cast<int32_t>(width), static_cast<int32_t>(height), 24, 0,
                                       static_cast<uint32_t>(((width * 3 + 3) & ~3u) * height)));
    for (int i = 0; i < audioTracks; ++i) w->addAudioFormat(WaveFormat::pcm(48000, 2, 16), 0);
    // One second for every file: the names meet and must be numbered.
    w->setClock([] { return platform::LocalTime{2014, 11, 3, 5, 10, 20, 30, 0}; });
    return w;
  }
  std::unique_ptr<FileWriterAVI> begin(uint32_t width, uint32_t height, int audioTracks, bool sideTracks = false,
                                       int64_t segmentLimit = AVIOutputFile::kSegmentLimit) {
    auto w = writer(width, height, audioTracks, sideTracks, segmentLimit);
    EXPECT_EQ(w->begin(), 1);
    return w;
  }
  // Frames first..first+frames-1 and, for each, 1/30 s of audio on every track.
  static void record(FileWriterAVI& w, uint32_t width, uint32_t height, uint32_t frames, int audioTracks,
                     uint32_t first = 0) {
    for (uint32_t f = first; f < first + frames; ++f) {
      w.writeWrapper(bitmapFrame(width, height, f), 0, 0, f, 1);
      for (int t = 1; t <= audioTracks; ++t) w.writeWrapper(std::vector<std::byte>(6400), t, 0, 0, 1);
    }
  }
  std::filesystem::path out() const { return folder_.path() / "out"; }
  std::string log() {
    processLog().close();
    return test::readLog(folder_.path() / "Kestrium.txt");
  }

  test::TempFolder folder_;
};

struct ProbeCase {
  uint32_t width, height;
  int audioTracks;
  int64_t segmentLimit;
  uint32_t frames;
};

class ReadByFfmpegTest : public FileWriterAVITest, public ::testing::WithParamInterface<ProbeCase> {};

// ffprobe sees the streams, the frame count, the rate and the audio's length;
// ffmpeg decodes every frame to exactly what was written.
TEST_P(ReadByFfmpegTest, FfprobeAndFfmpegReadEveryFrame) {
  if (!haveTools()) GTEST_SKIP() << "ffprobe and ffmpeg are not available in this build";
  const ProbeCase& c = GetParam();
  auto w = begin(c.width, c.height, c.audioTracks, false, c.segmentLimit);
  record(*w, c.width, c.height, c.frames, c.audioTracks);
  w->finish(false);
  const auto file = w->filePath();
  if (c.segmentLimit != AVIOutputFile::kSegmentLimit) {
    EXPECT_GT(AviFile(file).top.size(), 3u) << "meant to span several segments";
  }

  const std::string info = probe(file, "index,codec_type,codec_name,nb_frames,nb_read_packets,r_frame_rate,duration,width");
  EXPECT_EQ(test::countOf(info, "codec_type=video"), 1u) << info;
  EXPECT_NE(info.find("codec_name=rawvideo"), std::string::npos) << info;
  EXPECT_NE(info.find("width=" + std::to_string(c.width)), std::string::npos) << info;
  EXPECT_NE(info.find("r_frame_rate=30/1"), std::string::npos) << info;
  EXPECT_NE(info.find("nb_frames=" + std::to_string(c.frames)), std::string::npos) << info;
  EXPECT_NE(info.find("nb_read_packets=" + std::to_string(c.frames)), std::string::npos) << info;
  std::ostringstream videoDuration;
  videoDuration << "duration=" << std::fixed << std::setprecision(6) << c.frames / 30.0;
  EXPECT_EQ(test::countOf(info, videoDuration.str()), 1u) << info;
  // PCM in AVI counts its length in samples: 1600 a frame at 48 kHz and 30 fps.
  EXPECT_EQ(test::countOf(info, "nb_frames=" + std::to_string(c.frames * 1600) + "\n"), size_t(c.audioTracks)) << info;
  // ffprobe finds the packets of a stream by the stream number in its chunk
  // ids: every track holds the same audio, so every track has as many packets
  // as the first, which ffmpeg cuts from one chunk a frame.
  std::vector<std::string> streams;
  for (size_t at = info.find("index="); at != std::string::npos;) {
    const size_t next = info.find("index=", at + 1);
    streams.push_back(info.substr(at, next - at));
    at = next;
  }
  ASSERT_EQ(streams.size(), 1u + c.audioTracks) << info;
  const std::string packets = field(streams.at(1), "nb_read_packets");
  EXPECT_GE(std::stoul(packets), c.frames) << streams[1];
  for (int s = 1; s <= c.audioTracks; ++s) {
    EXPECT_EQ(field(streams[s], "index") + field(streams[s], "codec_type"), std::to_string(s) + "audio");
    EXPECT_EQ(field(streams[s], "nb_read_packets"), packets) << "stream " << s << ": " << streams[s];
  }

  const auto sums = decodedChecksums(file);
  ASSERT_EQ(sums.size(), c.frames);
  for (uint32_t f = 0; f < c.frames; ++f) ASSERT_EQ(sums[f], decodedChecksum(c.width, c.height, f)) << "frame " << f;
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
  auto w = begin(16, 8, 0);
  for (uint32_t number : {0u, 1u, 5u}) w->writeWrapper(bitmapFrame(16, 8, number), 0, 0, number, 1);
  w->waitWritten();
  EXPECT_EQ(std::tuple(w->framesWritten(), w->emptyFramesWritten(), w->gridPosition()), std::tuple(3u, 2u, 5u));
  w->writeWrapper(bitmapFrame(16, 8, 9), 0, 0, 4, 1);  // behind the grid
  w->waitWritten();
  EXPECT_EQ(std::tuple(w->emptyFramesWritten(), w->gridPosition()), std::tuple(2u, 6u));
  record(*w, 16, 8, 69, 0, 6);
  w->waitWritten();
  EXPECT_FLOAT_EQ(w->recordedSeconds(), 2.0f) << "75 frames at 30 fps: whole seconds";
  w->finish(false);

  const AviFile avi(w->filePath());
  const auto chunks = avi.top[0].find("LIST", "movi")->children;
  ASSERT_GE(chunks.size(), 6u);
  const uint32_t frameSize = static_cast<uint32_t>(bitmapFrame(16, 8, 0).size());
  const std::vector<uint32_t> sizes = {frameSize, frameSize, frameSize, 0, 0, frameSize};
  for (size_t i = 0; i < sizes.size(); ++i) EXPECT_EQ(chunks[i].code + std::to_string(chunks[i].size), "00db" + std::to_string(sizes[i])) << i;
  EXPECT_EQ(std::memcmp(avi.data(chunks[2].position + 8), bitmapFrame(16, 8, 5).data(), frameSize), 0)
      << "the late frame comes before its gap";
}

// An H.264 capture: no bitmap format, but a configuration record, which goes
// behind the stream's header, and frames timed in milliseconds, each put in the
// grid place nearest its time (a missed one leaves an empty frame as ever).
TEST_F(FileWriterAVITest, H264FramesTimedInMillisecondsTakeTheirGridPlaces) {
  auto w = std::make_unique<FileWriterAVI>(false, 10.0f, out());
  w->setNames(u"game.exe", false, false, 0);
  std::vector<std::byte> config(13);
  const uint8_t bytes[13] = {1, 0x64, 0, 0x1F, 0xFF, 0xE1, 0, 1, 0x67, 1, 0, 1, 0x68};
  std::memcpy(config.data(), bytes, 13);
  w->setVideoParameters(64, 48, 29970, 2000, config);
  ASSERT_EQ(w->begin(), 1);
  // 29.97 frames a second: the frame at 267 ms (grid place 8) comes after the one
  // at 100 ms (place 3), so three empty frames follow it, as for any late frame.
  for (uint32_t ms : {0u, 33u, 67u, 100u, 267u, 300u}) {
    w->writeWrapper(std::vector<std::byte>(10, std::byte{0x42}), 0, 1, ms, ms == 0 ? 1 : 0);
  }
  w->waitWritten();
  EXPECT_EQ(std::tuple(w->framesWritten(), w->emptyFramesWritten(), w->gridPosition()), std::tuple(6u, 3u, 9u));
  w->finish(false);

  const AviFile avi(w->filePath());
  const AviChunk* strl = avi.top[0].find("LIST", "hdrl")->find("LIST", "strl");
  ASSERT_NE(strl, nullptr);
  EXPECT_EQ(avi.text(strl->find("strh")->dataPosition() + 4, 4), "H264") << "fccHandler";
  const AviChunk* strf = strl->find("strf");
  ASSERT_EQ(strf->size, 40u + config.size());
  EXPECT_EQ(std::pair(avi.u32(strf->dataPosition()), avi.u32(strf->dataPosition() + 4)), std::pair(40u, 64u))
      << "biSize, biWidth";
  EXPECT_EQ(avi.text(strf->dataPosition() + 16, 4), "H264") << "biCompression";
  EXPECT_EQ(std::memcmp(avi.data(strf->dataPosition() + 40), config.data(), config.size()), 0);
  std::string chunks;
  for (const auto& c : avi.top[0].find("LIST", "movi")->children) chunks += c.code + std::to_string(c.size) + " ";
  EXPECT_EQ(chunks, "00dc10 00dc10 00dc10 00dc10 00dc10 00dc0 00dc0 00dc0 00dc10 ");
}

// Side tracks leave the AVI with the video alone; discarding a recording deletes
// it and its side tracks; a recording of size 0 has an empty video header; a
// write without a file is logged and dropped.
TEST_F(FileWriterAVITest, SideTracksDiscardZeroSizeAndNoFile) {
  auto w = begin(16, 8, 1, true);
  record(*w, 16, 8, 30, 1);
  w->finish(false);
  const AviFile avi(w->filePath());
  EXPECT_EQ(avi.u32(avi.top[0].find("LIST", "hdrl")->find("avih")->dataPosition() + 24), 1u) << "dwStreams";
  EXPECT_EQ(std::filesystem::file_size(std::filesystem::path(w->filePath()).replace_extension(".0.0.wav")),
            46u + 30 * 6400)
      << "an 18-byte format chunk";
  std::filesystem::remove_all(out());

  w = begin(16, 8, 1, true);
  record(*w, 16, 8, 5, 1);
  w->finish(true);
  EXPECT_TRUE(std::filesystem::is_empty(out()));

  w = begin(0, 0, 0);
  w->finish(false);
  const AviFile empty(w->filePath());
  const int64_t strh = empty.top[0].find("LIST", "hdrl")->find("LIST", "strl")->find("strh")->dataPosition();
  EXPECT_EQ(std::pair(empty.u32(strh), empty.u32(strh + 24)), std::pair(0u, 0u)) << "fccType, dwRate";

  FileWriterAVI none(false, 1.0f, folder_.path());
  const std::byte data[4] = {};
  EXPECT_EQ(none.write(data, 0, 0, 0, 1), 0);
  EXPECT_NE(log().find("[Error]   ZERO AVI pointer\r\n"), std::string::npos);
}

// A recording cut off by the death of its process: the header stands as init
// wrote it, the first movi says 0x7FFFFFFF, and every chunk written before the
// kill is whole. A repair tool walks the chunks from the 2048-aligned movi.
TEST_F(FileWriterAVITest, KilledWriterLeavesTheHeaderOfInitAndWholeChunks) {
  const auto file = folder_.path() / "killed.avi";
  platform::ChildProcess child;
  ASSERT_TRUE(child.start(platform::executablePath().parent_path() / KESTRIUM_AVI_WRITER_HELPER, {file.string(), "50"},
                          {}, folder_.path() / "helper.txt"));
  const uint64_t until = platform::monotonicNs() + 20'000'000'000ull;
  while (!std::filesystem::exists(folder_.path() / "written") && platform::monotonicNs() < until) platform::sleepMs(5);
  ASSERT_TRUE(child.kill());
  child.wait(20000);

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
  for (uint32_t i = 0; i < 50; ++i) {
    const AviChunk& c = movi->children[i];
    ASSERT_EQ(c.code, "00db");
    ASSERT_EQ(std::memcmp(avi.data(c.position + 8), bitmapFrame(32, 16, i).data(), c.size), 0);
  }
}

// A real file past 2 GiB, at the real segment limit. Slow: run with --long.
TEST_F(FileWriterAVITest, FilePastTwoGigabytesIsReadWhole) {
  if (std::getenv("KESTRIUM_LONG_TESTS") == nullptr || !haveTools()) {
    GTEST_SKIP() << "a long test: scripts/test.sh --long runs it";
  }
  auto w = begin(1920, 1080, 1);
  record(*w, 1920, 1080, 360, 1);
  w->finish(false);
  const auto file = w->filePath();
  EXPECT_GT(std::filesystem::file_size(file), uint64_t{2} << 30);
  const AviFile avi(file);
  EXPECT_EQ(avi.top.size(), 2u);
  EXPECT_EQ(avi.top[1].type, "AVIX");
  EXPECT_EQ(probedPackets(file), 360);
  EXPECT_EQ(probedPackets(file, "nb_frames"), 360);
  const auto sums = decodedChecksums(file);
  ASSERT_EQ(sums.size(), 360u);
  for (uint32_t f = 0; f < 360; ++f) ASSERT_EQ(sums[f], decodedChecksum(1920, 1080, f)) << "frame " << f;
  std::filesystem::remove(file);
}

// Each press finishes the file being written and starts the next one on a grid
// of its own: later frames leave no gap of empty frames behind them. The side
// tracks follow their recording's name, each from track 0 again, and never
// overwrite a file that is there, though its recording's own name was free.
TEST_F(FileWriterAVITest, BeginWhileWritingFinishesTheFileAndGoesOnInANewOne) {
  std::filesystem::create_directories(out());
  std::ofstream(out() / "game_2014-11-05_10-20-30 (3).0.0.wav") << "older";
  auto w = writer(64, 36, 1, true);
  const uint32_t counts[] = {10, 7, 5};
  uint32_t position = 0;
  for (uint32_t count : counts) {
    ASSERT_EQ(w->begin(), 1);
    record(*w, 64, 36, count, 1, position);
    position += count;
  }
  w->finish(false);

  const auto avis = filesIn(out(), ".avi");
  ASSERT_EQ(avis.size(), 3u);
  const char* names[] = {"game_2014-11-05_10-20-30 (2)", "game_2014-11-05_10-20-30 (3)", "game_2014-11-05_10-20-30"};
  const uint32_t inFile[] = {counts[1], counts[2], counts[0]};  // in the order of the names
  for (size_t i = 0; i < avis.size(); ++i) {
    EXPECT_EQ(avis[i].filename(), std::string(names[i]) + ".avi");
    EXPECT_EQ(videoChunks(avis[i]), std::pair(size_t{inFile[i]}, size_t{0}))
        << avis[i] << ": the grid starts again in every file";
    EXPECT_EQ(probedPackets(avis[i]), inFile[i]) << avis[i];
    EXPECT_EQ(std::filesystem::file_size(out() / (std::string(names[i]) + (i == 1 ? ".0.0 (2).wav" : ".0.0.wav"))),
              46u + inFile[i] * 6400u);
  }
  EXPECT_EQ(std::filesystem::file_size(out() / "game_2014-11-05_10-20-30 (3).0.0.wav"), 5u);
}

// The recorder's thread writes while the command thread presses record: no
// frame may reach a closed file, be written twice or be lost.
TEST_F(FileWriterAVITest, BeginsDuringWritesLoseNoFrame) {
  auto w = begin(64, 36, 0);
  std::atomic<bool> done{false};
  std::thread recorder([&] {
    record(*w, 64, 36, 400, 0);
    done = true;
  });
  int begins = 0;
  for (; !done && begins < 30; ++begins) EXPECT_EQ(w->begin(), 1);
  recorder.join();
  w->finish(false);
  size_t total = 0;
  for (const auto& avi : filesIn(out(), ".avi")) total += videoChunks(avi).first;
  EXPECT_EQ(total, 400u);
  EXPECT_EQ(filesIn(out(), ".avi").size(), static_cast<size_t>(begins) + 1);
}

// A full disk ends the file, not the process: every frame written before the
// failure is read back, with its index when that still fits and without it
// when not even that does.
class FullVolumeTest : public FileWriterAVITest, public ::testing::WithParamInterface<bool> {};

TEST_P(FullVolumeTest, FullVolumeEndsTheFileReadably) {
  const bool noRoomForTheIndex = GetParam();
  std::filesystem::create_directories(out());
  test::SmallVolume small(out(), 1 << 20);
  if (!small.mounted()) GTEST_SKIP() << small.why();

  auto w = begin(64, 36, 0);
  uint32_t written = 0;
  const auto writeUntilFailure = [&](size_t bytes) {
    for (uint32_t f = 0; f < 100000 && !w->outputFailed(); ++f) {
      // Each frame to the file before the next: the count is of those that got there.
      w->writeWrapper(std::vector<std::byte>(bytes, std::byte(written)), 0, 0, written, 1);
      w->waitWritten();
      if (!w->outputFailed()) ++written;
    }
  };
  if (noRoomForTheIndex) {
    // Many small frames make an index larger than any room a failed write can
    // give back; another file then takes all the room there is.
    for (; written < 1000; ++written) w->writeWrapper(std::vector<std::byte>(200), 0, 0, written, 1);
    w->waitWritten();
    std::ofstream filler(out() / "filler", std::ios::binary);
    const std::vector<char> block(4096, 'x');
    while (filler.write(block.data(), static_cast<std::streamsize>(block.size())) && filler.flush()) {
    }
    writeUntilFailure(200);
  } else {
    writeUntilFailure(50000);
  }
  ASSERT_TRUE(w->outputFailed()) << "1 MB cannot hold it all";
  w->finish(false);
  const auto avis = filesIn(out(), ".avi");
  ASSERT_EQ(avis.size(), 1u);
  EXPECT_EQ(videoChunks(avis[0]).first, written);
  EXPECT_EQ(probedPackets(avis[0]), written) << "ffprobe reads every whole frame";
  EXPECT_EQ(probedPackets(avis[0], "nb_frames"), written) << "and the header counts just those";
  const std::string text = log();
  EXPECT_NE(text.find("*** AVI *** Writing the file failed (error "), std::string::npos) << text;
  EXPECT_EQ(text.find("left without its index") != std::string::npos, noRoomForTheIndex) << text;
}

INSTANTIATE_TEST_SUITE_P(Index, FullVolumeTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "NoRoomLeft" : "RoomForTheIndex"; });

}  // namespace
}  // namespace kestrium
