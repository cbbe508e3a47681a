// A server killed at a random moment of a recording, and kestrium-repair on what
// it left: ffprobe reads the repaired file whole and ffmpeg decodes it, with the
// frames that had reached the disk, and the next server starts at once. Two
// trials a container, twenty with KESTRIUM_LONG_TESTS.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <sstream>

#include "fileOutput/Mp4Journal.h"
#include "platform/File.h"
#include "tests/audio/SoundServer.h"
#include "tests/e2e/E2ESupport.h"
#include "tests/e2e/ServerHarness.h"
#include "tools/AviReader.h"

namespace kestrium::test {
namespace {

struct RepairCase {
  const char* container;
  const char* encoder;
};
void PrintTo(const RepairCase& c, std::ostream* os) { *os << c.container; }


// The frames and audio chunks wholly in a killed server's file.
struct OnDisk {
  int64_t video = 0, audio = 0;
};

// An AVI's: its chunks one after the other from the first "movi" on, as far as
// they go. An empty video chunk (a frame the server could not take, shown as
// the one before) is no packet to a reader and is not counted.
OnDisk aviOnDisk(const std::filesystem::path& file) {
  const std::vector<char> bytes = readBytes(file);
  const std::string_view text(bytes.data(), bytes.size());
  OnDisk found;
  for (size_t at = text.find("movi") + 4; at + 8 <= bytes.size();) {
    const uint32_t size = tools::readLe32(reinterpret_cast<const std::byte*>(text.data() + at + 4));
    if (at + 8 + size > bytes.size()) break;
    if (text.substr(at, 4) == "00dc" && size != 0) ++found.video;
    if (text.substr(at + 2, 2) == "wb") ++found.audio;
    at += 8 + size + (size & 1);
  }
  return found;
}

// An MP4's, as its journal lists them.
OnDisk mp4OnDisk(const std::filesystem::path& file) {
  std::filesystem::path journalPath = file;
  journalPath += mp4journal::kSuffix;
  const std::vector<char> bytes = readBytes(journalPath);
  mp4journal::Journal journal;
  std::string error;
  EXPECT_TRUE(mp4journal::read(std::as_bytes(std::span(bytes)), journal, error)) << error;
  const uint64_t size = std::filesystem::file_size(file);
  OnDisk found;
  for (const auto& sample : journal.samples) {
    if (sample.position + sample.size <= size) ++(sample.audio ? found.audio : found.video);
  }
  return found;
}

// ffprobe's count of the packets of the video and the audio stream (-1 where
// there is none), in whatever order the file has them.
OnDisk packetsIn(const std::filesystem::path& file, std::string& text) {
  OnDisk counts{-1, -1};
  text = ffprobe(file, {"-count_packets", "-show_entries", "stream=codec_type,nb_read_packets", "-of", "csv=p=0"});
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const size_t comma = line.find(',');
    if (comma == std::string::npos) continue;
    const int64_t count = wholeNumber(line.substr(comma + 1, line.find('\r') - comma - 1));
    (line.rfind("video", 0) == 0 ? counts.video : counts.audio) = count;
  }
  return counts;
}

class RepairTest : public ServerTest, public ::testing::WithParamInterface<RepairCase> {
 protected:
  void SetUp() override {
    if (!haveTools()) GTEST_SKIP() << "no ffprobe";
    ServerTest::SetUp();
  }

  // One recording, its server killed after killAfterMs: the file it left.
  std::filesystem::path recordAndKill(const std::filesystem::path& folder, uint32_t killAfterMs) {
    std::vector<std::string> args = {"record",      "--dir",    folder.string(), "--encoder", GetParam().encoder,
                                     "--container", GetParam().container, "--size", "640x360", "--seconds", "60"};
    if (sound_.up()) args.insert(args.end(), {"--audio", sound_.playback("Game Audio"), "--aac", "128"});
    platform::ChildProcess client = harness.startClient(args, harness.folder() / "client.txt");
    EXPECT_TRUE(harness.waitForLog(std::string(" file") + (GetParam().container == std::string("avi") ? "    : " : ": ")));
    platform::sleepMs(killAfterMs);
    EXPECT_TRUE(server_.kill());
    server_.wait(kPatience);
    // The client's wait for a server that is gone is not what this tests.
    client.kill();
    client.wait(kPatience);
    const auto files = filesUnder(folder, std::string(".") + GetParam().container);
    EXPECT_EQ(files.size(), 1u);
    return files.empty() ? std::filesystem::path() : files[0];
  }

  SoundServer sound_;
};

TEST_P(RepairTest, KilledServersFileIsRepairedWithEveryFrameOnDisk) {
  const bool avi = GetParam().container == std::string("avi");
  const int trials = platform::environmentVariable("KESTRIUM_LONG_TESTS") ? 20 : 2;
  std::mt19937 random(std::random_device{}());
  for (int trial = 0; trial < trials && !HasFatalFailure(); ++trial) {
    const uint32_t killAfter = std::uniform_int_distribution<uint32_t>(1000, 5000)(random);
    SCOPED_TRACE("trial " + std::to_string(trial) + ", killed after " + std::to_string(killAfter) + " ms");
    // The next server starts at once, whatever the one before left behind.
    if (trial > 0) server_ = harness.startServer();
    const auto folder = dir() / std::to_string(trial);
    const std::filesystem::path file = recordAndKill(folder, killAfter);
    ASSERT_FALSE(file.empty());
    const OnDisk onDisk = avi ? aviOnDisk(file) : mp4OnDisk(file);

    platform::ChildProcess repair;
    const auto saidFile = harness.folder() / "repair.txt";
    ASSERT_TRUE(repair.start(harness.binary(KESTRIUM_REPAIR), {file.string()}, {}, saidFile));
    const std::optional<int> status = repair.wait(kClientPatience);
    const std::string said = readText(saidFile);
    if (onDisk.video == 0) {
      // Killed before its first frame reached the disk: nothing to repair.
      EXPECT_EQ(status, 1) << said;
      EXPECT_NE(said.find("no whole frame reached the file"), std::string::npos) << said;
      continue;
    }
    ASSERT_EQ(status, 0) << said;
    const auto repaired = file.parent_path() / (file.stem().string() + ".repaired" + file.extension().string());
    ASSERT_TRUE(std::filesystem::exists(repaired)) << said;
    std::string info;
    const OnDisk packets = packetsIn(repaired, info);
    EXPECT_GE(packets.video * 100, onDisk.video * 99) << info << " of " << onDisk.video << " frames on disk; " << said;
    // An audio stream none of whose chunks reached the disk has no count.
    EXPECT_GE(std::max<int64_t>(packets.audio, 0) * 100, onDisk.audio * 99) << info << " of " << onDisk.audio << " audio chunks; " << said;
    expectDecodes(repaired);
  }
  server_ = harness.startServer();
  ASSERT_EQ(harness.client({"record", "--dir", (dir() / "after").string(), "--encoder", GetParam().encoder,
                            "--container", GetParam().container, "--size", "160x90", "--frames", "10"}),
            0)
      << harness.clientOutput;
}

#if KESTRIUM_WITH_X264 && KESTRIUM_WITH_MJPEG
INSTANTIATE_TEST_SUITE_P(Containers, RepairTest,
                         ::testing::Values(RepairCase{"avi", "mjpeg"}, RepairCase{"mp4", "h264.x264"}),
                         [](const auto& info) { return std::string(info.param.container); });
#endif

}  // namespace
}  // namespace kestrium::test
