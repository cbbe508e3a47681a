// The recording writer when its user presses record again and again, when
// names are taken, and when the disk runs full: every file it made stays whole
// and readable by ffprobe, and no frame is written twice or lost between files.

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "fileOutput/FileWriterAVI.h"
#include "platform/System.h"
#include "server/Log.h"
#include "tests/fileOutput/AviParser.h"
#include "tests/support/TestSupport.h"

namespace kestrium {
namespace {

constexpr uint32_t kWidth = 64, kHeight = 36;
constexpr size_t kFrameBytes = size_t{kWidth} * kHeight * 3;  // rows of 192 bytes need no padding

std::vector<std::byte> frame(uint32_t number, size_t bytes = kFrameBytes) {
  std::vector<std::byte> f(bytes);
  for (size_t i = 0; i < f.size(); ++i) f[i] = std::byte((number * 31 + i) & 0xFF);
  return f;
}

// The non-empty video chunks of an AVI by their first bytes' frame, and all chunks.
struct Chunks {
  size_t frames = 0;
  size_t empty = 0;
};
Chunks videoChunks(const std::filesystem::path& avi) {
  const test::AviFile file(avi);
  Chunks c;
  for (const auto& riff : file.top) {
    if (const test::AviChunk* movi = riff.find("LIST", "movi")) {
      for (const auto& chunk : movi->children) {
        if (chunk.code == "00db") ++(chunk.size != 0 ? c.frames : c.empty);
      }
    }
  }
  return c;
}

bool haveTools() { return !std::string(KESTRIUM_FFPROBE).empty(); }

// ffprobe's count of the video packets; where ffprobe cannot run (under wine),
// our own count of non-empty chunks stands in.
int64_t probedPackets(const std::filesystem::path& avi, const char* entry = "nb_read_packets") {
  if (!haveTools()) return static_cast<int64_t>(videoChunks(avi).frames);
  std::string out;
  if (test::runTool(KESTRIUM_FFPROBE,
                    {"-v", "error", "-count_packets", "-select_streams", "v:0", "-show_entries",
                     std::string("stream=") + entry, "-of", "default=nw=1:nk=1", avi.string()},
                    out) != 0) {
    return -1;
  }
  return std::atoll(out.c_str());
}

class FileWriterFaultTest : public ::testing::Test {
 protected:
  void SetUp() override { processLog().open(folder_.path() / "Kestrium.txt", true); }
  void TearDown() override { processLog().close(); }

  std::unique_ptr<FileWriterAVI> writer(const std::filesystem::path& destination, bool sideTracks = false) {
    auto w = std::make_unique<FileWriterAVI>(sideTracks, 10.0f, destination);
    w->setNames(u"game.exe", false, false, 0);
    w->setVideoFormat(kWidth, kHeight, 30000,
                      makeBitmapHeader(kWidth, kHeight, 24, 0, static_cast<uint32_t>(kFrameBytes)));
    if (sideTracks) w->addAudioFormat(WaveFormat::pcm(48000, 2, 16), 0);
    // One second for every file: the names meet and must be numbered.
    w->setClock([] { return platform::LocalTime{2014, 11, 3, 5, 10, 20, 30, 0}; });
    return w;
  }

  std::vector<std::filesystem::path> filesIn(const std::filesystem::path& folder, const char* extension) const {
    std::vector<std::filesystem::path> files;
    for (const auto& e : std::filesystem::directory_iterator(folder)) {
      if (e.path().extension() == extension) files.push_back(e.path());
    }
    std::sort(files.begin(), files.end());
    return files;
  }

  test::TempFolder folder_;
};

// Each press finishes the file being written and starts the next one on a grid
// of its own: later frames leave no gap of empty frames behind them.
TEST_F(FileWriterFaultTest, BeginWhileWritingFinishesTheFileAndGoesOnInANewOne) {
  const auto out = folder_.path() / "out";
  auto w = writer(out, true);
  ASSERT_EQ(w->begin(), 1);
  const uint32_t counts[] = {10, 7, 5};
  uint32_t position = 0;
  for (size_t part = 0; part < std::size(counts); ++part) {
    if (part > 0) {
      ASSERT_EQ(w->begin(), 1);
    }
    for (uint32_t f = 0; f < counts[part]; ++f) {
      w->writeWrapper(frame(position), 0, 0, position, 1);
      w->writeWrapper(std::vector<std::byte>(6400), 1, 0, 0, 1);
      ++position;
    }
  }
  w->finish(false);

  const auto avis = filesIn(out, ".avi");
  ASSERT_EQ(avis.size(), 3u);
  EXPECT_EQ(avis[0].filename(), "game_2014-11-05_10-20-30 (2).avi");
  EXPECT_EQ(avis[1].filename(), "game_2014-11-05_10-20-30 (3).avi");
  EXPECT_EQ(avis[2].filename(), "game_2014-11-05_10-20-30.avi");
  const uint32_t inFile[] = {counts[1], counts[2], counts[0]};  // in the order of the names
  for (size_t i = 0; i < avis.size(); ++i) {
    const Chunks c = videoChunks(avis[i]);
    EXPECT_EQ(c.frames, inFile[i]) << avis[i];
    EXPECT_EQ(c.empty, 0u) << avis[i] << ": the grid starts again in every file";
    EXPECT_EQ(probedPackets(avis[i]), inFile[i]) << avis[i];
  }
  // The side tracks follow their recording's name, each from track 0 again.
  const auto wavs = filesIn(out, ".wav");
  ASSERT_EQ(wavs.size(), 3u);
  EXPECT_EQ(wavs[2].filename(), "game_2014-11-05_10-20-30.0.0.wav");
  EXPECT_EQ(std::filesystem::file_size(wavs[2]), 46u + counts[0] * 6400u);
}

// A side track never overwrites a file that is there, though its recording's
// own name was free.
TEST_F(FileWriterFaultTest, SideTrackOfATakenNameGetsANumber) {
  const auto out = folder_.path() / "out";
  std::filesystem::create_directories(out);
  std::ofstream(out / "game_2014-11-05_10-20-30.0.0.wav") << "older";
  auto w = writer(out, true);
  ASSERT_EQ(w->begin(), 1);
  w->writeWrapper(frame(0), 0, 0, 0, 1);
  w->writeWrapper(std::vector<std::byte>(6400), 1, 0, 0, 1);
  w->finish(false);
  EXPECT_EQ(std::filesystem::file_size(out / "game_2014-11-05_10-20-30.0.0.wav"), 5u);
  EXPECT_EQ(std::filesystem::file_size(out / "game_2014-11-05_10-20-30.0.0 (2).wav"), 46u + 6400u);
}

// The recorder's thread writes while the command thread presses record: no
// frame may reach a closed file, be written twice or be lost.
TEST_F(FileWriterFaultTest, BeginsDuringWritesLoseNoFrame) {
  const auto out = folder_.path() / "out";
  auto w = writer(out);
  ASSERT_EQ(w->begin(), 1);
  constexpr uint32_t kFrames = 400;
  std::atomic<bool> done{false};
  std::thread recorder([&] {
    for (uint32_t f = 0; f < kFrames; ++f) w->writeWrapper(frame(f), 0, 0, f, 1);
    done = true;
  });
  int begins = 0;
  while (!done && begins < 30) {
    EXPECT_EQ(w->begin(), 1);
    ++begins;
  }
  recorder.join();
  w->finish(false);
  size_t total = 0;
  for (const auto& avi : filesIn(out, ".avi")) total += videoChunks(avi).frames;
  EXPECT_EQ(total, kFrames);
  EXPECT_EQ(filesIn(out, ".avi").size(), static_cast<size_t>(begins) + 1);
}

// A full disk ends the file, not the process: every frame written before the
// failure is read back, with its index when that still fits and without it
// when not even that does.
class FullVolumeTest : public FileWriterFaultTest, public ::testing::WithParamInterface<bool> {};

TEST_P(FullVolumeTest, FullVolumeEndsTheFileReadably) {
  const bool noRoomForTheIndex = GetParam();
  const auto volume = folder_.path() / "small";
  std::filesystem::create_directories(volume);
  test::SmallVolume small(volume, 1 << 20);
  if (!small.mounted()) GTEST_SKIP() << small.why();

  auto w = writer(volume);
  ASSERT_EQ(w->begin(), 1);
  uint32_t written = 0;
  const auto writeUntilFailure = [&](size_t bytes) {
    for (uint32_t f = 0; f < 100000 && !w->outputFailed(); ++f) {
      // Each frame to the file before the next: the count is of those that got there.
      w->writeWrapper(frame(written, bytes), 0, 0, written, 1);
      w->waitWritten();
      if (!w->outputFailed()) ++written;
    }
  };
  if (noRoomForTheIndex) {
    // Many small frames make an index larger than any room a failed write can
    // give back; another file then takes all the room there is.
    for (; written < 1000; ++written) w->writeWrapper(frame(written, 200), 0, 0, written, 1);
    w->waitWritten();
    std::ofstream filler(volume / "filler", std::ios::binary);
    const std::vector<char> block(4096, 'x');
    while (filler.write(block.data(), static_cast<std::streamsize>(block.size())) && filler.flush()) {
    }
    writeUntilFailure(200);
  } else {
    writeUntilFailure(50000);
  }
  ASSERT_TRUE(w->outputFailed()) << "1 MB cannot hold it all";
  w->finish(false);
  const auto avis = filesIn(volume, ".avi");
  ASSERT_EQ(avis.size(), 1u);
  EXPECT_EQ(videoChunks(avis[0]).frames, written);
  EXPECT_EQ(probedPackets(avis[0]), written) << "ffprobe reads every whole frame";
  EXPECT_EQ(probedPackets(avis[0], "nb_frames"), written) << "and the header counts just those";
  const std::string log = test::readLog(folder_.path() / "Kestrium.txt");
  EXPECT_NE(log.find("*** AVI *** Writing the file failed (error "), std::string::npos) << log;
  EXPECT_EQ(log.find("left without its index") != std::string::npos, noRoomForTheIndex) << log;
}

INSTANTIATE_TEST_SUITE_P(Index, FullVolumeTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "NoRoomLeft" : "RoomForTheIndex"; });

}  // namespace
}  // namespace kestrium
