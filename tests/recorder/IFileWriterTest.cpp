#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "recorder/IFileWriter.h"
#include "tests/support/TestSupport.h"

namespace kestrium {
namespace {

struct Written {
  uint32_t track;
  uint32_t timed;
  uint32_t position;  // as the subclass got it: relative to the base time
  uint32_t key;
  uint32_t payload;   // the first 4 bytes, which the tests number
  bool operator==(const Written&) const = default;
};

// Records every call the base makes of its subclass.
class RecordingWriter : public IFileWriter {
 public:
  using IFileWriter::IFileWriter;
  ~RecordingWriter() override { stopWriting(); }

  int write(std::span<const std::byte> data, uint32_t track, uint32_t timed, uint32_t position, uint32_t key) override {
    uint32_t payload = 0;
    std::memcpy(&payload, data.data(), std::min<size_t>(4, data.size()));
    if (onWrite) onWrite();
    writes.push_back({track, timed, position, key, payload});
    return 1;
  }
  int open() override {
    ++opens;
    return openResult;
  }
  void close(bool discard) override { closes.push_back(discard); }

  std::function<void()> onWrite;  // called in each write, on the writing thread
  std::vector<Written> writes;
  int opens = 0;
  int openResult = 1;
  std::vector<bool> closes;
};

platform::MemoryStatus plentyOfMemory() { return {8ull << 30, 16ull << 30}; }

class IFileWriterTest : public ::testing::Test {
 protected:
  std::unique_ptr<RecordingWriter> make(float limit, uint32_t frameRate = 30000) {
    auto w = std::make_unique<RecordingWriter>(false, limit, folder_.path());
    w->setVideoFormat(64, 64, frameRate, BitmapInfoHeader{});
    w->setMemoryMeasure(plentyOfMemory);
    return w;
  }

  // A packet whose bytes carry its number.
  static void put(IFileWriter& w, uint32_t number, uint32_t track, uint32_t timed, uint32_t position,
                  uint32_t key = 0) {
    std::byte data[8] = {};
    std::memcpy(data, &number, 4);
    w.writeWrapper(data, track, timed, position, key);
  }

  test::TempFolder folder_;
};

TEST_F(IFileWriterTest, TimeLimitKeepsUnderItsFramesAndDropsHeadAudioOneByOne) {
  auto w = make(10.0f);
  for (uint32_t i = 0; i < 3; ++i) put(*w, 1000 + i, 1, 0, i);
  for (uint32_t f = 0; f < 300; ++f) put(*w, f, 0, 0, f, f % 30 == 0);
  EXPECT_EQ(w->videoEntries(), 300u) << "300 frames are exactly 10 s: not yet trimmed";
  EXPECT_EQ(w->listSize(), 303u);
  put(*w, 300, 0, 0, 300);
  // The three audio packets at the head went one at a time, then one frame.
  EXPECT_EQ(w->videoEntries(), 300u);
  EXPECT_EQ(w->listSize(), 300u);
  for (uint32_t f = 301; f < 1000; ++f) {
    put(*w, f, 0, 0, f, f % 30 == 0);
    ASSERT_LE(w->videoEntries(), 300u);
  }
  EXPECT_TRUE(w->writes.empty()) << "nothing reaches the file before begin";
  auto zero = make(0.0f);
  for (uint32_t i = 0; i < 10; ++i) put(*zero, i, i % 2, 0, i, 1);
  EXPECT_EQ(zero->listSize(), 1u) << "a zero limit keeps one packet";
}

// The file starts at the first key frame of the list, whose time becomes the
// base; timed packets from before it are dropped on their way to the file,
// untimed ones are not, and the order of arrival is kept, backlog first.
TEST_F(IFileWriterTest, BeginStartsAtTheFirstKeyFrameAndWritesInOrder) {
  auto w = make(100.0f);
  put(*w, 1, 1, 1, 0);       // audio, dropped by the skip
  put(*w, 2, 0, 1, 10);      // video, not a key frame
  put(*w, 3, 1, 1, 20);
  put(*w, 4, 0, 1, 40, 1);   // the first key frame: base time 40
  put(*w, 5, 1, 1, 30);      // timed audio before the base: dropped
  put(*w, 6, 1, 0, 35);      // untimed, before the base: kept
  put(*w, 7, 0, 1, 70);
  put(*w, 8, 1, 1, 60);
  ASSERT_EQ(w->begin(), 1);
  EXPECT_EQ(w->baseTime(), 40u);
  EXPECT_FALSE(w->prerecording());
  for (uint32_t n = 9; n <= 14; ++n) put(*w, n, n == 10 ? 1 : 0, 1, 100 + (n - 9) * 33);
  put(*w, 15, 1, 1, 39);  // timed and before the base: dropped
  w->waitWritten();
  EXPECT_EQ(w->listSize(), 0u);

  std::vector<uint32_t> order;
  for (const auto& written : w->writes) order.push_back(written.payload);
  EXPECT_EQ(order, (std::vector<uint32_t>{4, 6, 7, 8, 9, 10, 11, 12, 13, 14}));
  EXPECT_EQ(w->writes[0], (Written{0, 1, 0, 1, 4}));
  EXPECT_EQ(w->writes[2], (Written{0, 1, 30, 0, 7}));
  EXPECT_EQ(w->writes.back().position, 225u);
  w->finish(false);
  EXPECT_EQ(w->closes, std::vector<bool>{false});
}

// A write that waits on the disk holds up no packet that comes meanwhile,
// unless the file is already as far behind as it may be: then the packet waits
// for room, and the list's memory stays bounded. Everything reaches the file,
// in order, once the disk goes on.
TEST_F(IFileWriterTest, SlowDiskHoldsUpNoPacketUntilTheFileIsTooFarBehind) {
  auto w = make(100.0f);
  constexpr size_t kPacket = 1000;
  w->setBehindLimit(5 * kPacket);
  std::atomic<bool> diskGoesOn{false};  // until then the disk hangs
  w->onWrite = [&diskGoesOn] {
    while (!diskGoesOn) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  };
  const auto putBig = [&w](uint32_t number) {
    std::vector<std::byte> data(kPacket);
    std::memcpy(data.data(), &number, 4);
    w->writeWrapper(data, 0, 0, number, 1);
  };
  putBig(0);
  ASSERT_EQ(w->begin(), 1);
  // The thread has taken packet 0 and waits in its write; six more fit.
  for (uint32_t n = 1; n <= 6; ++n) putBig(n);
  std::atomic<uint32_t> given{6};
  std::thread game([&] {
    for (uint32_t n = 7; n <= 9; ++n) {
      putBig(n);
      given = n;
    }
  });
  for (int i = 0; i < 200 && w->listSize() < 6; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(given, 6u) << "a packet beyond the limit waits for the disk";
  EXPECT_EQ(w->listSize(), 6u);
  diskGoesOn = true;
  game.join();
  w->waitWritten();
  std::vector<uint32_t> order;
  for (const auto& written : w->writes) order.push_back(written.payload);
  EXPECT_EQ(order, (std::vector<uint32_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
  w->finish(false);
}

TEST_F(IFileWriterTest, ListWithoutAKeyFrameIsEmptiedAndTheBaseStays) {
  auto w = make(100.0f);
  for (uint32_t i = 0; i < 5; ++i) put(*w, i, 0, 0, 50 + i, 0);
  ASSERT_EQ(w->begin(), 1);
  EXPECT_EQ(w->listSize(), 0u);
  EXPECT_EQ(w->baseTime(), 0u);
  put(*w, 9, 0, 0, 60, 1);
  w->waitWritten();
  ASSERT_EQ(w->writes.size(), 1u);
  EXPECT_EQ(w->writes[0].position, 60u);
}

TEST_F(IFileWriterTest, AudioOnlyListIsBoundOnlyByMemory) {
  auto w = make(1.0f);
  platform::MemoryStatus memory = plentyOfMemory();
  w->setMemoryMeasure([&memory] { return memory; });
  for (uint32_t i = 0; i < 1000; ++i) put(*w, i, 1, 1, i);
  EXPECT_EQ(w->listSize(), 1000u) << "no video: the time limit never fires";
  memory = {14ull << 20, 100ull << 20};  // 14 % free
  for (uint32_t i = 0; i < 100; ++i) put(*w, 2000 + i, 1, 1, 2000 + i);
  EXPECT_EQ(w->listSize(), 900u) << "below 15 % free two go for every one that comes";
  memory = {15ull << 20, 100ull << 20};
  put(*w, 3000, 1, 1, 3000);
  EXPECT_EQ(w->listSize(), 901u) << "at 15 % the list grows again";
}

TEST_F(IFileWriterTest, BufferedSecondsFollowTheVideoAtTheEnds) {
  auto timedList = make(100.0f);
  EXPECT_EQ(timedList->bufferedSeconds(), 0.0f);
  put(*timedList, 0, 1, 1, 0);
  put(*timedList, 1, 0, 1, 500);
  EXPECT_EQ(timedList->bufferedSeconds(), 0.0f) << "fewer than 3 entries";
  put(*timedList, 2, 0, 1, 2750);
  put(*timedList, 3, 1, 1, 9000);
  EXPECT_FLOAT_EQ(timedList->bufferedSeconds(), 2.25f);

  auto numbered = make(100.0f, 30000);
  for (uint32_t f = 0; f < 91; ++f) put(*numbered, f, 0, 0, f);
  EXPECT_FLOAT_EQ(numbered->bufferedSeconds(), 3.0f);

  auto audioOnly = make(100.0f);
  for (uint32_t i = 0; i < 5; ++i) put(*audioOnly, i, 1, 1, i * 100);
  EXPECT_EQ(audioOnly->bufferedSeconds(), 0.0f);
}

// A failed open leaves prerecording on with the list kept; a stop with delete
// during prerecording never opens a file.
TEST_F(IFileWriterTest, PrerecordingEndsOnlyInAnOpenFile) {
  auto w = make(10.0f);
  w->openResult = 0;
  for (uint32_t i = 0; i < 50; ++i) put(*w, i, 0, 0, i, 1);
  EXPECT_EQ(w->begin(), 0);
  EXPECT_TRUE(w->prerecording());
  EXPECT_EQ(w->listSize(), 50u);
  auto stopped = make(10.0f);
  for (uint32_t i = 0; i < 50; ++i) put(*stopped, i, 0, 0, i, 1);
  stopped->finish(true);
  EXPECT_EQ(stopped->opens, 0);
  EXPECT_TRUE(stopped->closes.empty());
  EXPECT_TRUE(stopped->writes.empty());
  EXPECT_EQ(stopped->listSize(), 0u);
}

struct PathCase {
  std::u16string baseName;
  bool byName;
  bool byDate;
  std::string expected;  // relative to the destination, with '/' between parts
};

class OutputPathTest : public IFileWriterTest, public ::testing::WithParamInterface<PathCase> {};

TEST_P(OutputPathTest, PathComesFromNameDateAndFolders) {
  auto w = make(10.0f);
  w->setClock([] { return platform::LocalTime{2014, 11, 3, 5, 10, 20, 30, 0}; });
  w->setNames(GetParam().baseName, GetParam().byName, GetParam().byDate, 0);
  ASSERT_EQ(w->begin(), 1);
  const std::filesystem::path expected = folder_.path() / std::filesystem::path(GetParam().expected);
  EXPECT_EQ(w->path(), expected);
  EXPECT_TRUE(std::filesystem::is_directory(expected.parent_path()));
}

INSTANTIATE_TEST_SUITE_P(
    Names, OutputPathTest,
    ::testing::Values(PathCase{u"game.exe", true, true, "game_2014-11-05/game_2014-11-05_10-20-30"},
                      PathCase{u"game.exe", false, true, "2014-11-05/game_2014-11-05_10-20-30"},
                      PathCase{u"game.exe", true, false, "game/game_2014-11-05_10-20-30"},
                      PathCase{u"game.exe", false, false, "game_2014-11-05_10-20-30"},
                      PathCase{u"game", false, false, "game_2014-11-05_10-20-30"},
                      PathCase{u"my.game.exe", false, false, "my.game_2014-11-05_10-20-30"},
                      PathCase{u".profile", false, false, ".profile_2014-11-05_10-20-30"},
                      PathCase{u"", false, false, "_2014-11-05_10-20-30"},
                      PathCase{u"", true, true, "2014-11-05/_2014-11-05_10-20-30"}),
    [](const auto& info) { return "Case" + std::to_string(info.index); });

}  // namespace
}  // namespace kestrium
