// kestrium-repair's AVI side on files cut where a killed writer can leave them:
// at a chunk's end, inside its data and inside its header, in one segment and
// across 'AVIX' segments. The repaired file is read by the strict reader, and
// its legacy index is checked for the key frames of H.264.

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "tests/fileOutput/AviParser.h"
#include "tests/support/TestSupport.h"
#include "tools/AviReader.h"
#include "tools/Repair.h"

namespace kestrium {
namespace {

struct Written {
  bool video;
  bool key;
  uint64_t end;  // where its data end in the file, before a pad byte
};

class AviRepairTest : public ::testing::TestWithParam<int64_t> {
 protected:
  // 40 frames of H.264 (an IDR picture every tenth, odd sizes among them) with
  // an audio chunk after every other, as a writer leaves them that never closed
  // the file.
  std::vector<char> killedFile(std::vector<Written>& written) {
    const auto path = folder_.path() / "killed.avi";
    auto avi = test::openAvi(path, GetParam(), 64, 48, fourcc("H264"), 1);
    EXPECT_TRUE(avi != nullptr);
    for (int i = 0; i < 40 && avi != nullptr; ++i) {
      const bool key = i % 10 == 0;
      const size_t size = 301 + static_cast<size_t>(i) * 37;
      // An H.264 frame behind a start code: an IDR picture or another slice.
      std::vector<std::byte> frame(size, std::byte{0x5A});
      frame[3] = std::byte{1};
      frame[4] = std::byte{static_cast<uint8_t>(key ? 0x65 : 0x41)};
      frame[0] = frame[1] = frame[2] = std::byte{0};
      avi->videoStream()->write(key ? kAviKeyFrame : 0, frame, 1, 0);
      written.push_back({true, key, std::filesystem::file_size(path) - (size & 1)});
      if (i % 2 == 1) {
        avi->audioStream(0)->write(0, std::vector<std::byte>(400, std::byte{7}), 0, 1);
        written.push_back({false, false, static_cast<uint64_t>(std::filesystem::file_size(path))});
      }
    }
    return test::readBytes(path);  // before the writer closes it: what a kill leaves
  }

  test::TempFolder folder_;
};

TEST_P(AviRepairTest, EveryWholeChunkBeforeTheCutIsKept) {
  std::vector<Written> written;
  const std::vector<char> killed = killedFile(written);
  const size_t last = written.size() - 1;
  for (const uint64_t cut : {written[last].end, written[last].end - 1, written[last - 1].end + 4,
                             written[last - 6].end + 9, written[last - 6].end, written[last - 6].end + 1}) {
    SCOPED_TRACE("cut at " + std::to_string(cut) + " of " + std::to_string(killed.size()));
    const auto cutPath = folder_.path() / "cut.avi", repaired = folder_.path() / "cut.repaired.avi";
    {
      std::ofstream out(cutPath, std::ios::binary | std::ios::trunc);
      out.write(killed.data(), static_cast<std::streamsize>(cut));
    }
    std::vector<bool> keys;
    size_t audio = 0;
    for (const Written& w : written) {
      // A chunk whose pad byte was cut off is whole.
      if (w.end > cut) break;
      if (w.video) keys.push_back(w.key);
      audio += w.video ? 0 : 1;
    }
    const tools::RepairReport report = tools::repairRecording(cutPath, repaired);
    ASSERT_TRUE(report.ok) << report.error;
    EXPECT_EQ(report.videoFrames, keys.size());
    EXPECT_EQ(report.audioChunks, audio);

    tools::FileSource source;
    ASSERT_TRUE(source.open(repaired));
    tools::AviReader reader;
    std::string error;
    ASSERT_TRUE(reader.open(source, error)) << error;
    EXPECT_EQ(reader.frames().size(), keys.size());
    EXPECT_EQ(reader.video().length, keys.size());
    // The legacy index covers the first segment, with the key flags of its frames.
    const test::AviFile file(repaired);
    const test::AviChunk* idx1 = file.top.at(0).find("idx1");
    ASSERT_NE(idx1, nullptr);
    std::vector<bool> indexed;
    for (int64_t e = idx1->dataPosition(); e + 16 <= idx1->dataPosition() + idx1->size; e += 16) {
      if (file.text(e, 4) == "00dc") indexed.push_back((file.u32(e + 4) & kAviKeyFrame) != 0);
    }
    ASSERT_FALSE(indexed.empty());
    EXPECT_EQ(indexed, std::vector<bool>(keys.begin(), keys.begin() + static_cast<ptrdiff_t>(indexed.size())));
  }
}

// One segment, and segments of some 6 KB, which the writer closes as it goes.
INSTANTIATE_TEST_SUITE_P(Segments, AviRepairTest, ::testing::Values(AVIOutputFile::kSegmentLimit, 6000),
                         [](const auto& info) { return info.index == 0 ? "One" : "Many"; });

// Sizes that no writer makes, where a step past a chunk must not wrap: a
// header chunk that claims all but 8 bytes of 4 GB ends the walk, it does not
// send it back to the same place for ever.
TEST(AviRepairHostileTest, SizeNearFourGigabytesEndsTheWalk) {
  const test::TempFolder folder;
  for (const uint32_t size : {0xFFFFFFF8u, 0xFFFFFFF7u, 0xFFFFFFFFu}) {
    std::vector<uint32_t> words = {fourcc("RIFF"), 0, fourcc("AVI "), fourcc("LIST"), 28,
                                   fourcc("hdrl"), fourcc("JUNK"), size, 0, 0, 0, 0, 0};
    const auto input = folder.path() / "hostile.avi";
    std::ofstream(input, std::ios::binary)
        .write(reinterpret_cast<const char*>(words.data()), static_cast<std::streamsize>(words.size() * 4));
    const tools::RepairReport report = tools::repairRecording(input, folder.path() / "out.avi");
    EXPECT_FALSE(report.ok) << size;
    EXPECT_EQ(report.error, "no stream headers") << size;
  }
}

}  // namespace
}  // namespace kestrium
