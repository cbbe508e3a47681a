// kestrium-repair's AVI side on files cut where a killed writer can leave them:
// at a chunk's end, inside its data and inside its header, in one segment and
// across 'AVIX' segments. The repaired file is read by the strict reader, and
// its legacy index is checked for the key frames of H.264.

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string_view>

#include "fileOutput/AVIOutputFile.h"
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

// An H.264 frame behind a start code: an IDR picture or another slice.
std::vector<std::byte> h264Frame(bool idr, size_t size) {
  std::vector<std::byte> frame(size, std::byte{0x5A});
  const uint8_t head[5] = {0, 0, 0, 1, static_cast<uint8_t>(idr ? 0x65 : 0x41)};
  std::memcpy(frame.data(), head, 5);
  return frame;
}

// The key flags of the video entries of a file's legacy index.
std::vector<bool> indexedKeys(const std::vector<char>& bytes) {
  std::vector<bool> keys;
  const auto* data = reinterpret_cast<const std::byte*>(bytes.data());
  const size_t at = std::string_view(bytes.data(), bytes.size()).rfind("idx1");
  if (at == std::string_view::npos) return keys;
  const uint32_t size = tools::readLe32(data + at + 4);
  for (size_t e = at + 8; e + 16 <= at + 8 + size; e += 16) {
    if (std::memcmp(data + e, "00dc", 4) == 0) keys.push_back((tools::readLe32(data + e + 4) & kAviKeyFrame) != 0);
  }
  return keys;
}

class AviRepairTest : public ::testing::TestWithParam<int64_t> {
 protected:
  // 40 frames of H.264 (an IDR picture every tenth, odd sizes among them) with
  // an audio chunk after every other, as a writer leaves them that never closed
  // the file.
  std::vector<char> killedFile(std::vector<Written>& written) {
    const auto path = folder_.path() / "killed.avi";
    platform::File file;
    EXPECT_TRUE(file.open(path, platform::File::Mode::CreateAlways));
    AVIOutputFile avi(GetParam());
    EXPECT_EQ(avi.initOutputStreams(), 1);
    AVIVideoOutputStream& video = *avi.videoStream();
    video.header.fccType = fourcc("vids");
    video.header.fccHandler = fourcc("H264");
    video.header.dwScale = 1000;
    video.header.dwRate = 30000;
    video.format.assign(40, std::byte{0});
    const uint32_t bi[5] = {40, 64, 48, 1 | (24u << 16), fourcc("H264")};
    std::memcpy(video.format.data(), bi, sizeof bi);
    AVIAudioOutputStream& audio = *avi.audioStream(0);
    audio.header.fccType = fourcc("auds");
    audio.header.dwScale = 4;
    audio.header.dwRate = 192000;
    audio.header.dwSampleSize = 4;
    const uint16_t wave[8] = {1, 2, 48000 & 0xFFFF, 0, 0xEE00, 2, 4, 16};  // PCM, 2 channels, 48 kHz
    audio.format.assign(reinterpret_cast<const std::byte*>(wave), reinterpret_cast<const std::byte*>(wave) + 16);
    EXPECT_EQ(avi.init(std::move(file), path, 64, 48, 1, 1, 100000, 1), 1);
    for (int i = 0; i < 40; ++i) {
      const bool key = i % 10 == 0;
      const size_t size = 301 + static_cast<size_t>(i) * 37;
      video.write(key ? kAviKeyFrame : 0, h264Frame(key, size), 1, 0);
      written.push_back({true, key, std::filesystem::file_size(path) - (size & 1)});
      if (i % 2 == 1) {
        audio.write(0, std::vector<std::byte>(400, std::byte{7}), 0, 1);
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
    // The legacy index covers the first segment.
    const std::vector<bool> indexed = indexedKeys(test::readBytes(repaired));
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
