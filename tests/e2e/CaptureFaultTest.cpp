// Captures that go wrong, one at a time or several at once, against the real
// server and client: each ends alone (or is refused) with its reason in the log,
// the files that were made are whole, and the server and its other captures go on.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <optional>
#include <set>

#include "fileOutput/FileWriterAVI.h"
#include "platform/Event.h"
#include "platform/SharedMapping.h"
#include "server/Dispatcher.h"
#include "tests/audio/SoundServer.h"
#include "tests/e2e/E2ESupport.h"
#include "tests/e2e/ServerHarness.h"
#include "tests/fileOutput/AviParser.h"

namespace kestrium::test {
namespace {

constexpr uint32_t kWidth = 320, kHeight = 180;
constexpr size_t kFrameBytes = size_t{kWidth} * kHeight * 3;

std::string sizeText() { return std::to_string(kWidth) + "x" + std::to_string(kHeight); }

// Non-empty video chunks of an AVI, whatever their stream's code.
std::vector<std::string> videoChunks(const std::filesystem::path& avi) {
  const AviFile file(avi);
  std::vector<std::string> chunks;
  for (const auto& riff : file.top) {
    const AviChunk* movi = riff.find("LIST", "movi");
    if (movi == nullptr) continue;
    for (const auto& c : movi->children) {
      if (c.code.rfind("00d", 0) == 0 && c.size != 0) chunks.push_back(file.text(c.position + 8, c.size));
    }
  }
  return chunks;
}

class CaptureFaultTest : public ServerTest {
 protected:

  // rgb24 frames, each stamped with its number so that no two are alike.
  std::filesystem::path stampedFrames(uint32_t n) {
    const auto path = harness.folder() / "frames.rgb";
    std::ofstream out(path, std::ios::binary);
    std::vector<char> frame(kFrameBytes);
    for (uint32_t f = 0; f < n; ++f) {
      for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<char>((i * 7 + f) & 0xFF);
      std::memcpy(frame.data(), &f, sizeof f);
      out.write(frame.data(), static_cast<std::streamsize>(frame.size()));
    }
    return path;
  }

  std::vector<std::string> recordArgs(const std::string& name, const std::vector<std::string>& extra) const {
    std::vector<std::string> args = {"record", "--name", name, "--dir", dir().string(), "--encoder", "no_compression",
                                     "--size", sizeText(), "--threads", "2"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  }

  ServerHarness::Background startRecording(const std::string& name, const std::vector<std::string>& extra) {
    return harness.background(recordArgs(name, extra), name);
  }
  std::optional<uint64_t> serverResidentKb() const { return processStatus(server_.id(), "VmRSS"); }
};

// Pressing record again and again while recording: each press finishes the file
// being written, whole, and the recording goes on in a new one. Every frame the
// server encoded is in exactly one file.
TEST_F(CaptureFaultTest, BeginsWhileWritingLeaveEveryFileWholeAndEveryFrameOnce) {
  const auto raw = stampedFrames(200);
  auto rec = startRecording("begins", {"--seconds", "6", "--fps", "30", "--source", "raw:" + raw.string()});
  ASSERT_TRUE(harness.waitForLog("AVI file"));
  platform::sleepMs(500);  // frames are coming
  // Up to 40 presses, all while the capture still writes: a slow machine (or
  // wine, where a client takes longer to start) presses fewer times.
  const uint64_t until = platform::monotonicNs() + 4'500'000'000ull;
  size_t begun = 0;
  while (begun < 40 && platform::monotonicNs() < until) {
    ASSERT_EQ(harness.client({"begin", "begins"}), 0);
    ++begun;
    platform::sleepMs(100);
  }
  EXPECT_GE(begun, 10u);
  ASSERT_EQ(rec.finish(), 0) << rec.text();

  const std::string log = harness.log();
  EXPECT_EQ(countOf(log, "** PRE-RECORDING IS OFF ** for begins"), begun) << log;
  const auto files = filesIn(rec.text());
  EXPECT_EQ(files.size(), begun + 1) << rec.text();
  std::multiset<std::string> seen;
  for (const auto& file : files) {
    std::vector<std::string> chunks = videoChunks(file);
    if (haveTools()) {
      // A file that got no frame between two presses is still a file ffprobe reads.
      const Probe p = probeVideo(file);
      EXPECT_EQ(p.frames, std::max<int64_t>(static_cast<int64_t>(chunks.size()), 1)) << file << " " << p.text;
      if (!chunks.empty()) {
        EXPECT_EQ(p.packets, static_cast<int64_t>(chunks.size())) << file << " is read whole";
      }
    }
    for (auto& chunk : chunks) seen.insert(std::move(chunk));
  }
  EXPECT_EQ(static_cast<int64_t>(seen.size()), framesEncoded(log, "begins")) << "every encoded frame is in a file";
  EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()).size(), seen.size()) << "no frame is in two files";
}

// A client that never frees the encoded slot costs its own frames in flight,
// not the server: its stop is answered, the capture beside it records every
// frame, and the server still shuts down.
TEST_F(CaptureFaultTest, StuckEncodedSlotEndsThatCaptureAlone) {
  // Encoders whose workers wait for the slot: frames are in flight when it stops.
  auto normal = startRecording("normal", {"--frames", "150", "--fps", "30", "--encoder", "fast"});
  auto stuck = startRecording(
      "stuck", {"--frames", "30", "--fps", "30", "--encoder", "fast", "--stuck-encoded", "--dir", (harness.folder() / "stuck").string()});
  EXPECT_EQ(stuck.finish(), 0) << "the stop is answered: " << stuck.text();
  ASSERT_EQ(normal.finish(), 0) << normal.text();

  const std::string log = harness.log();
  EXPECT_NE(log.find("Encoder of stuck: the encoded slot was not freed"), std::string::npos) << log;
  const auto files = filesIn(normal.text());
  ASSERT_EQ(files.size(), 1u) << normal.text();
  EXPECT_EQ(static_cast<int64_t>(videoChunks(files[0]).size()), wholeNumber(field(normal.text(), "frames_fed")));
  EXPECT_EQ(framesEncoded(log, "normal"), wholeNumber(field(normal.text(), "frames_fed")));
}

// A client that shows nothing for a while (a game on a loading screen) but
// lives holds its capture: the server never takes the silence for a dead
// client, and the frames after it go into the same file, which the stop
// finishes whole.
TEST_F(CaptureFaultTest, SilentClientKeepsItsCapture) {
  RawCapture capture(u"silent", 64, 48, dir());
  ASSERT_TRUE(capture.open());
  ASSERT_EQ(capture.start(), SendResult::Replied);
  for (uint32_t f = 0; f < 30; ++f) {
    if (f == 15) {
      platform::sleepMs(4000);
      EXPECT_EQ(harness.log().find("Emergency stop"), std::string::npos) << harness.log();
    }
    ASSERT_TRUE(capture.give(f, static_cast<uint8_t>(f)));
  }
  ASSERT_TRUE(capture.waitFree(5000));
  EXPECT_EQ(capture.stop(), SendResult::Replied);
  const std::string log = harness.log();
  EXPECT_EQ(log.find("Emergency stop"), std::string::npos) << log;
  EXPECT_EQ(framesEncoded(log, "silent"), 30) << log;
  const auto files = filesUnder(dir());
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(videoChunks(files[0]).size(), 30u);
  if (haveTools()) {
    EXPECT_EQ(probeVideo(files[0]).packets, 30);
  }
}

// Two captures that start together with one base name into one folder each
// get a file of their own, which the log names; a base name that holds folders
// cannot place a recording elsewhere.
TEST_F(CaptureFaultTest, SameBaseNameInOneFolderGivesTwoFilesThere) {
  auto a = startRecording("first", {"--frames", "45", "--base", "../../same.exe"});
  auto b = startRecording("second", {"--frames", "45", "--base", "../../same.exe"});
  ASSERT_EQ(a.finish(), 0) << a.text();
  ASSERT_EQ(b.finish(), 0) << b.text();
  const auto files = filesUnder(dir());
  ASSERT_EQ(files.size(), 2u);
  const std::string log = harness.log();
  for (const auto& file : files) {
    EXPECT_EQ(file.parent_path(), std::filesystem::absolute(dir()));
    EXPECT_EQ(file.filename().string().rfind("same_", 0), 0u) << file;
    EXPECT_EQ(videoChunks(file).size(), 45u) << file;
    EXPECT_NE(log.find(file.filename().string()), std::string::npos) << "the log names " << file;
    if (haveTools()) {
      EXPECT_EQ(probeVideo(file).packets, 45) << file;
    }
  }
}

// A frame number far ahead of the last is a new start of the frame grid, never
// hours of empty frames: the file holds the frames given and the stop comes at once.
class FrameJumpTest : public CaptureFaultTest, public ::testing::WithParamInterface<bool> {};

TEST_P(FrameJumpTest, FarJumpRestartsTheGrid) {
  const bool prerecord = GetParam();
  const auto residentBefore = serverResidentKb();
  RawCapture capture(u"jump", 64, 48, dir());
  ASSERT_TRUE(capture.open());
  capture.params().writeAtOnce = prerecord ? 0 : 1;
  capture.params().prerecordLimit = 30.0f;
  ASSERT_EQ(capture.start(), SendResult::Replied);
  for (uint32_t position : {0u, 4000000000u, 4000000001u, 4000000004u}) {
    ASSERT_TRUE(capture.give(position, static_cast<uint8_t>(position)));
  }
  ASSERT_TRUE(capture.waitFree(5000));
  platform::sleepMs(200);  // the last frame through the encoder
  if (prerecord) {
    EXPECT_EQ(capture.begin(), SendResult::Replied);
  }
  EXPECT_EQ(capture.stop(), SendResult::Replied);

  const std::string log = harness.log();
  EXPECT_NE(log.find("Frame number 4000000000 jumps 3999999999 frames ahead; the frame grid starts again there"),
            std::string::npos)
      << log;
  const auto files = filesUnder(dir());
  ASSERT_EQ(files.size(), 1u);
  // 0, then 4000000000 on the next place and the grid from there: 4000000004
  // comes after one empty frame.
  EXPECT_EQ(videoChunks(files[0]).size(), 4u);
  if (haveTools()) {
    // ffmpeg reads an empty chunk as a dropped frame: counted, not a packet.
    const Probe p = probeVideo(files[0]);
    EXPECT_EQ(p.frames, 5) << p.text;
    EXPECT_EQ(p.packets, 4) << p.text;
  }
  if (residentBefore) {
    EXPECT_LT(*serverResidentKb(), *residentBefore + 64 * 1024) << "no gap was filled in memory";
  }
}

INSTANTIATE_TEST_SUITE_P(Writing, FrameJumpTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "InPrerecording" : "WhileWriting"; });

// Starts whose clients are gone before their recorders run stop themselves,
// even when the channel is crowded: a sender that asks for no reply may
// overwrite a recorder's stop before the server read it, and the recorder must
// ask again. At most a bounded number of captures run at once, and the threads
// they took are all given back.
TEST_F(CaptureFaultTest, BurstOfDeadClientsEndsEveryCapture) {
  const auto threadsBefore = settledThreads(server_.id());
  constexpr int kStarts = 200;
  std::vector<std::unique_ptr<RawCapture>> captures;
  for (int i = 0; i < kStarts; ++i) {
    auto capture = std::make_unique<RawCapture>(u"dead" + platform::toUtf16(std::to_string(i)), 64, 48, dir());
    ASSERT_TRUE(capture->open(false));
    capture->params().threads = 2;
    capture->params().writeAtOnce = i % 2;  // kept and thrown away alike
    EXPECT_NE(capture->start(0), SendResult::NoServer);
    captures.push_back(std::move(capture));
    platform::sleepMs(1);
  }
  // Every start the server took ends in a stop; the others were refused.
  const auto settled = [](const std::string& log, size_t& running) {
    const size_t started = countOf(log, "Starting capture, recorder name dead") -
                           (countOf(log, "Error starting capture") - countOf(log, "no more are started"));
    const size_t stopped = countOf(log, "Stopping capture, recorder name    dead");
    running = started - stopped;
    return started > 0 && stopped == started;
  };
  const uint64_t until = platform::monotonicNs() + uint64_t{kPatience} * 1000000;
  std::string log;
  size_t running = 0;
  while (!settled(log = harness.log(), running) && platform::monotonicNs() < until) platform::sleepMs(50);
  EXPECT_EQ(running, 0u) << "captures left running:\n" << log;
  EXPECT_EQ(threadsAfterSettling(server_.id(), threadsBefore, kPatience), threadsBefore) << "threads left running";
  EXPECT_EQ(harness.client({"stop", "nobody"}), 0) << "the server still answers";
}

TEST_F(CaptureFaultTest, SeventeenthLiveCaptureIsRefused) {
  std::vector<std::unique_ptr<RawCapture>> captures;
  for (size_t i = 0; i <= Dispatcher::kMostCaptures; ++i) {
    auto capture = std::make_unique<RawCapture>(u"live" + platform::toUtf16(std::to_string(i)), 32, 32, dir());
    ASSERT_TRUE(capture->open());
    capture->params().writeAtOnce = 0;  // pre-recording: no files
    ASSERT_EQ(capture->start(), SendResult::Replied);
    captures.push_back(std::move(capture));
  }
  EXPECT_NE(harness.log().find("[Error]   *** CAP *** 16 captures run already; no more are started\r\n"),
            std::string::npos);
  for (auto& capture : captures) EXPECT_EQ(capture->stop(true), SendResult::Replied);
  EXPECT_EQ(countOf(harness.log(), "Stopping capture, recorder name    live"), Dispatcher::kMostCaptures);
}

// A full disk ends the capture that writes to it, with its file readable up to
// the failure, and so its AAC side tracks, which the full disk cuts off as well.
// Under an MP4 the index still goes in behind the frames that reached the disk
// whole (the last frames give way to it where nothing else would make room), so
// it plays. A capture on another file system goes on to its end.
enum class Full { Avi, AviWithSideTracks, Mp4 };
class FullDiskTest : public CaptureFaultTest, public ::testing::WithParamInterface<Full> {
 protected:
  void SetUp() override {
    if (GetParam() == Full::AviWithSideTracks) {
      // Before the server starts: it finds the sound server by its environment.
      if (!haveTools()) GTEST_SKIP() << "no ffmpeg";
      sound_.emplace();
      if (!sound_->up()) GTEST_SKIP() << sound_->why();
    }
    CaptureFaultTest::SetUp();
  }
  std::optional<SoundServer> sound_;
};
constexpr const char* kFullNames[] = {"Avi", "AviWithAacSideTracks", "Mp4"};
INSTANTIATE_TEST_SUITE_P(Files, FullDiskTest, ::testing::Values(Full::Avi, Full::AviWithSideTracks, Full::Mp4),
                         [](const auto& info) { return std::string(kFullNames[static_cast<int>(info.param)]); });

TEST_P(FullDiskTest, FullDiskEndsOneCaptureAndTheOtherRecordsWhole) {
  const bool mp4 = GetParam() == Full::Mp4;
#if !KESTRIUM_WITH_X264
  if (mp4) GTEST_SKIP() << "this build has no libx264";
#endif
  const auto small = harness.folder() / "small";
  std::filesystem::create_directories(small);
  SmallVolume volume(small, mp4 ? 2 << 20 : 4 << 20);
  if (!volume.mounted()) GTEST_SKIP() << volume.why();
  const int64_t frames = mp4 ? 150 : 120;
  std::vector<std::string> fullArgs = {"--frames", std::to_string(frames), "--fps", "30", "--dir",
                                       (small / "rec").string()};
  if (mp4) fullArgs.insert(fullArgs.end(), {"--encoder", "h264.x264", "--size", "1280x720", "--bitrate", "20000"});
  if (sound_) {
    sound_->play("game", 2, 1000, 12.0);
    sound_->play("micsink", 1, 440, 12.0);
    fullArgs.insert(fullArgs.end(), {"--audio", sound_->playback("Game Audio"), "--audio",
                                     sound_->capture("USB Microphone"), "--aac", "128", "--side-tracks", "mp3"});
  }

  auto whole = startRecording("whole", {"--frames", "120", "--fps", "30"});
  auto full = startRecording("full", fullArgs);
  EXPECT_EQ(full.finish(), 5) << "the client sees its capture end: " << full.text();
  ASSERT_EQ(whole.finish(), 0) << whole.text();

  const std::string log = harness.log();
  EXPECT_NE(log.find(std::string(mp4 ? "*** MP4 ***" : "*** AVI ***") + " Writing the file failed (error "),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("The file of full cannot be written any more; the capture ends"), std::string::npos) << log;
  EXPECT_EQ(log.find("The index could not be written"), std::string::npos) << log;
  const auto fullFiles = filesIn(full.text());
  ASSERT_EQ(fullFiles.size(), sound_ ? 3u : 1u) << full.text();
  const std::string extension = mp4 ? ".mp4" : ".avi";
  const auto video = std::find_if(fullFiles.begin(), fullFiles.end(),
                                  [&](const auto& f) { return f.extension() == extension; });
  ASSERT_NE(video, fullFiles.end()) << full.text();
  int64_t kept = mp4 ? -1 : static_cast<int64_t>(videoChunks(*video).size());
  if (haveTools()) {
    const int64_t packets = probeVideo(*video).packets;
    if (!mp4) {
      EXPECT_EQ(packets, kept);
    }
    kept = packets;
    for (const auto& file : fullFiles) {
      EXPECT_EQ(ffprobe(file, {"-show_entries", "stream=codec_name", "-of", "csv=p=0"}),
                file.extension() == ".avi" ? "rawvideo\n" : mp4 ? "h264\n" : "aac\n");
      expectDecodes(file);
    }
  }
  if (kept >= 0) {
    EXPECT_GT(kept, mp4 ? 10 : 5);
    EXPECT_LT(kept, frames);
  }

  const auto wholeFiles = filesIn(whole.text());
  ASSERT_EQ(wholeFiles.size(), 1u);
  // Every frame the server took: a busy machine may have the client skip some.
  const int64_t taken = framesEncoded(log, "whole");
  EXPECT_GE(taken, 90) << whole.text();
  EXPECT_EQ(static_cast<int64_t>(videoChunks(wholeFiles[0]).size()), taken) << whole.text();
  if (haveTools()) {
    EXPECT_EQ(probeVideo(wholeFiles[0]).packets, taken);
  }
}

// A program that made the command block first, too small, leaves the server
// without a channel to read, never one that reads past the block.
TEST(CommandChannelFaultTest, CommandBlockTooSmallIsNeverRead) {
  ServerHarness harness;
  platform::SharedMapping squatter(std::u16string(kCommandMappingName), 64);
  ASSERT_TRUE(squatter.open());
  platform::ChildProcess server = harness.startServerProcess({});
  ASSERT_TRUE(harness.waitForLog("[Error]   *** CAP *** Cannot open the command channel"));
  platform::Event command, reply;
  ASSERT_TRUE(command.create(kCommandEventName));
  ASSERT_TRUE(reply.create(kCommandReplyName));
  ASSERT_TRUE(command.set());
  EXPECT_EQ(reply.wait(kPatience), platform::kWaitObject0) << "the ring is answered";
  platform::ChildProcess request;
  ASSERT_TRUE(request.start(harness.binary(KESTRIUM_SERVER), {"/shutdown"}));
  request.wait(kPatience);
  EXPECT_EQ(server.wait(kPatience), 0) << "the server ends normally";
}

}  // namespace
}  // namespace kestrium::test
