// A real MP4 file past 4 GiB: chunks behind the reach of 32-bit offsets take
// 64-bit ones, and readers we did not write find every frame and decode the
// last. Only with KESTRIUM_LONG_TESTS: it writes some 4.4 GB.

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <fstream>
#include <sstream>

#include "audio/IAudioEncoder.h"
#include "fileOutput/MP4Container.h"
#include "platform/File.h"
#include "tests/fileOutput/Mp4TestSupport.h"
#include "tests/support/TestSupport.h"

namespace kestrium {
namespace {

using namespace mp4test;

constexpr uint64_t k4GiB = uint64_t{1} << 32;
constexpr size_t kGop = 30, kFiller = 1 << 20;
// Whole GOPs of a mebibyte a frame, some 100 frames past 4 GiB.
constexpr size_t kFrames = (k4GiB / kFiller + 100 + kGop - 1) / kGop * kGop;

// A length-prefixed filler-data NAL unit: decoders skip it, so it fattens a
// frame without changing the picture.
Bytes filler(size_t size) {
  Bytes nal(size, 0xFF);
  nal.front() = 0x0C;
  nal.back() = 0x80;
  return sized(nal, 4);
}

// The top-level boxes by their headers alone, and the moov read whole: the
// file is too large to hold.
Mp4 readMoov(const std::filesystem::path& path, std::vector<std::string>& top) {
  std::ifstream in(path, std::ios::binary);
  const uint64_t end = std::filesystem::file_size(path);
  for (uint64_t at = 0; at + 8 <= end;) {
    Bytes head(16);
    in.seekg(static_cast<std::streamoff>(at));
    in.read(reinterpret_cast<char*>(head.data()), static_cast<std::streamsize>(std::min<uint64_t>(16, end - at)));
    uint64_t size = read(head, 0, 4);
    top.emplace_back(head.begin() + 4, head.begin() + 8);
    if (size == 1) size = read(head, 8, 8);
    if (size < 8 || size > end - at) throw std::runtime_error("box '" + top.back() + "' overruns the file");
    if (top.back() == "moov") {
      Bytes moov(size);
      in.seekg(static_cast<std::streamoff>(at));
      in.read(reinterpret_cast<char*>(moov.data()), static_cast<std::streamsize>(size));
      // Nothing may follow the index.
      if (at + size != end) top.emplace_back("past the moov");
      return Mp4{moov, at};
    }
    at += size;
  }
  throw std::runtime_error("no moov");
}

TEST(Mp4LargeFileTest, ChunksPast4GiBTakeWideOffsetsAndEveryFrameIsRead) {
  if (!platform::environmentVariable("KESTRIUM_LONG_TESTS")) {
    GTEST_SKIP() << "writes a file of 4.4 GB: set KESTRIUM_LONG_TESTS to run it";
  }
  if (std::string(KESTRIUM_FFMPEG).empty()) GTEST_SKIP() << "no ffmpeg in this build";
  const test::TempFolder folder;
  // One closed GOP, repeated: each repetition starts with its IDR frame.
  H264 h264;
  ASSERT_NO_FATAL_FAILURE(makeH264(folder.path(), kGop, kGop, h264));
  ASSERT_TRUE(h264.frames.front().second);
  std::vector<Bytes> samples;
  for (const auto& frame : h264.frames) samples.push_back(cat({frame.first, filler(kFiller)}));

  // Silence from the AAC encoder, a packet or two between frames, so that the
  // video's chunks are many and the last ones lie past 4 GiB.
  const auto aac = CreateAudioEncoder(u"aac", 48000, 128000, 2, 3);
  ASSERT_NE(aac, nullptr);
  const std::vector<int16_t> silence(48000 / 5 * 2);
  const auto path = folder.path() / "large.mp4";
  {
    MP4Container mp4;
    platform::File file;
    ASSERT_TRUE(file.open(path, platform::File::Mode::CreateAlways));
    ASSERT_EQ(mp4.open(std::move(file)), 1);
    ASSERT_TRUE(mp4.setVideoTrack(160, 120, 30000, asBytes(h264.record())));
    mp4.setAudioTrack(false, 48000, 128000, static_cast<uint32_t>(aac->GetFrameSamples()), aac->GetExtraData());
    std::deque<std::pair<std::vector<std::byte>, uint32_t>> pending;
    uint32_t soundMs = 0;
    for (size_t i = 0; i < kFrames && !mp4.failed(); ++i) {
      const auto time = static_cast<uint32_t>(i * 1000 / 30);
      for (; soundMs <= time; soundMs += 200) {
        aac->Encode(silence.data(), static_cast<uint32_t>(silence.size() * 2), soundMs);
        std::vector<std::byte> packet;
        for (uint32_t stamp = 0; aac->GetPacket(packet, &stamp) > 0;) pending.emplace_back(packet, stamp);
      }
      for (; !pending.empty() && pending.front().second <= time; pending.pop_front()) {
        mp4.addSample(1, pending.front().second, pending.front().first, false);
      }
      mp4.addSample(0, time, asBytes(samples[i % kGop]), i % kGop == 0);
    }
    ASSERT_FALSE(mp4.failed()) << "write error " << mp4.error();
    ASSERT_EQ(mp4.videoSamples(), kFrames);
    ASSERT_GT(mp4.audioSamples(), kFrames);
    ASSERT_EQ(mp4.finalize(), 1);
  }
  ASSERT_GT(std::filesystem::file_size(path), k4GiB + 50 * kFiller);

  std::vector<std::string> top;
  const Mp4 moov = readMoov(path, top);
  EXPECT_EQ(top, (std::vector<std::string>{"ftyp", "free", "mdat", "moov"}));
  for (const char* trak : {"moov/trak[0]", "moov/trak[1]"}) {
    SCOPED_TRACE(trak);
    const Box stbl = moov[std::string(trak) + "/mdia/minf/stbl"];
    const std::vector<std::string> tables = codes(children(stbl));
    EXPECT_NE(std::find(tables.begin(), tables.end(), "co64"), tables.end());
    const std::vector<uint64_t> offsets = chunkOffsets(stbl);
    ASSERT_GT(offsets.size(), kFrames / 2) << "the tracks take turns";
    EXPECT_GT(offsets.back(), k4GiB);
    EXPECT_TRUE(std::is_sorted(offsets.begin(), offsets.end()));
  }

  // Every frame is found, the last ones past 4 GiB, and they decode.
  std::string out;
  ASSERT_EQ(test::runTool(KESTRIUM_FFPROBE,
                          {"-v", "error", "-select_streams", "v", "-count_packets", "-show_entries",
                           "stream=nb_read_packets:packet=pos", "-of", "default=nw=1", path.string()},
                          out),
            0)
      << out.substr(0, 2000);
  EXPECT_NE(out.find("nb_read_packets=" + std::to_string(kFrames) + "\n"), std::string::npos)
      << out.substr(out.size() - std::min<size_t>(out.size(), 500));
  const size_t lastPos = out.rfind("pos=");
  ASSERT_NE(lastPos, std::string::npos);
  EXPECT_GT(std::stoull(out.substr(lastPos + 4)), k4GiB);

  ASSERT_EQ(test::runTool(KESTRIUM_FFMPEG,
                          {"-v", "error", "-sseof", "-3", "-i", path.string(), "-map", "0:v", "-f", "framecrc", "-"},
                          out),
            0)
      << out.substr(0, 2000);
  // One line per decoded frame, and nothing else.
  std::istringstream lines(out);
  size_t decoded = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    EXPECT_EQ(line.rfind("0,", 0), 0u) << line;
    ++decoded;
  }
  EXPECT_GE(decoded, 60u) << "the last three seconds";
}

}  // namespace
}  // namespace kestrium
