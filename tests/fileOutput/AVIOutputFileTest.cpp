// The layout of the AVI files we write, read back byte by byte.

#include <gtest/gtest.h>

#include <numeric>

#include "fileOutput/AVIOutputFile.h"
#include "fileOutput/WaveFormat.h"
#include "tests/fileOutput/AviParser.h"
#include "tests/support/TestSupport.h"

namespace kestrium {
namespace {

using test::AviChunk;
using test::AviFile;

constexpr uint32_t kWidth = 16, kHeight = 8;

std::vector<std::byte> payload(size_t size, uint32_t seed) {
  std::vector<std::byte> data(size);
  for (size_t i = 0; i < size; ++i) data[i] = std::byte((seed * 131 + i * 7) & 0xFF);
  return data;
}

// An AVIOutputFile with a video stream and `audio` PCM streams, set up as the
// recording output sets them up.
std::unique_ptr<AVIOutputFile> makeFile(const std::filesystem::path& path, int audio, int64_t limit,
                                        size_t videoFormatSize = 40) {
  auto file = std::make_unique<AVIOutputFile>(limit);
  EXPECT_EQ(file->initOutputStreams(), 1);
  AVIVideoOutputStream& video = *file->videoStream();
  video.header.fccType = fourcc("vids");
  video.header.dwScale = 1000;
  video.header.dwRate = 30000;
  video.header.dwLength = 1;
  video.chunkId = fourcc("00dc");
  video.format.assign(videoFormatSize, std::byte{0});
  video.format[0] = std::byte{40};
  const WaveFormat pcm = WaveFormat::pcm(48000, 2, 16);
  for (int i = 0; i < audio; ++i) {
    AVIAudioOutputStream& a = *file->audioStream(i);
    a.header.fccType = fourcc("auds");
    a.header.dwScale = 4;
    a.header.dwRate = 192000;
    a.header.dwLength = 1;
    a.header.dwSampleSize = 4;
    a.format.assign(pcm.bytes().begin(), pcm.bytes().end());
  }
  EXPECT_EQ(file->init(path, kWidth, kHeight, 1, (1u << audio) - 1, 100000, 1), 1);
  return file;
}

// The id of the chunks of audio stream n (1 to 16) as AVI readers take it: the
// stream number in two decimal digits, then "wb".
std::string audioId(int n) {
  return std::string{static_cast<char>('0' + n / 10), static_cast<char>('0' + n % 10)} + "wb";
}

struct Written {
  uint32_t chunkId;
  uint32_t size;
  bool key;
  uint32_t seed;
};

// Writes video chunks (every third a key frame) with an audio chunk after each.
std::vector<Written> writeStream(AVIOutputFile& file, int frames, size_t videoSize, int audio,
                                 size_t audioSize = 4800) {
  std::vector<Written> written;
  for (int f = 0; f < frames; ++f) {
    const bool key = f % 3 == 0;
    const auto v = payload(videoSize + (f % 2), f);
    file.videoStream()->write(key ? kAviKeyFrame : 0, v, 1, 0);
    written.push_back({fourcc("00dc"), static_cast<uint32_t>(v.size()), key, static_cast<uint32_t>(f)});
    for (int a = 0; a < audio; ++a) {
      const auto pcm = payload(audioSize, 1000 + f * 16 + a);
      file.audioStream(a)->write(0, pcm, 0, a + 1);
      uint32_t id = 0;
      std::memcpy(&id, audioId(a + 1).data(), 4);
      written.push_back({id, static_cast<uint32_t>(audioSize), false,
                         static_cast<uint32_t>(1000 + f * 16 + a)});
    }
  }
  return written;
}

std::string code(uint32_t id) { return std::string(reinterpret_cast<const char*>(&id), 4); }

// Every data chunk of every movi list, in file order.
std::vector<const AviChunk*> dataChunks(const AviFile& avi) {
  std::vector<const AviChunk*> out;
  for (const auto& riff : avi.top) {
    const AviChunk* movi = riff.find("LIST", "movi");
    if (movi == nullptr) continue;
    for (const auto& c : movi->children) {
      if (c.code.rfind("ix", 0) != 0) out.push_back(&c);
    }
  }
  return out;
}

void expectChunksAsWritten(const AviFile& avi, const std::vector<Written>& written) {
  const auto chunks = dataChunks(avi);
  ASSERT_EQ(chunks.size(), written.size());
  for (size_t i = 0; i < written.size(); ++i) {
    EXPECT_EQ(chunks[i]->code, code(written[i].chunkId)) << i;
    ASSERT_EQ(chunks[i]->size, written[i].size) << i;
    const auto expected = payload(written[i].size, written[i].seed);
    EXPECT_EQ(std::memcmp(avi.data(chunks[i]->position + 8), expected.data(), expected.size()), 0) << i;
  }
}

class AVIOutputFileTest : public ::testing::Test {
 protected:
  std::filesystem::path path() const { return folder_.path() / "test.avi"; }
  test::TempFolder folder_;
};

TEST_F(AVIOutputFileTest, OneSegmentFileHasHeaderLegacyIndexAndNothingMore) {
  auto file = makeFile(path(), 2, AVIOutputFile::kSegmentLimit);
  const auto written = writeStream(*file, 10, 1000, 2);
  ASSERT_EQ(file->finalize(), 1);
  file.reset();

  const AviFile avi(path());
  ASSERT_EQ(avi.top.size(), 1u);
  const AviChunk& riff = avi.top[0];
  EXPECT_EQ(riff.code, "RIFF");
  EXPECT_EQ(riff.type, "AVI ");
  EXPECT_EQ(riff.size, avi.size() - 8);

  const AviChunk* hdrl = riff.find("LIST", "hdrl");
  ASSERT_NE(hdrl, nullptr);
  const AviChunk* avih = hdrl->find("avih");
  ASSERT_NE(avih, nullptr);
  EXPECT_EQ(avih->size, 56u);
  const int64_t m = avih->dataPosition();
  EXPECT_EQ(avi.u32(m), 33333u) << "microseconds a frame";
  EXPECT_EQ(avi.u32(m + 12), 0x10130u);
  EXPECT_EQ(avi.u32(m + 16), 10u) << "dwTotalFrames";
  EXPECT_EQ(avi.u32(m + 24), 3u) << "dwStreams";
  EXPECT_EQ(avi.u32(m + 28), 1001u) << "dwSuggestedBufferSize: the largest video chunk";
  EXPECT_EQ(avi.u32(m + 32), kWidth);
  EXPECT_EQ(avi.u32(m + 36), kHeight);

  const auto strls = hdrl->all("LIST");
  ASSERT_EQ(strls.size(), 4u) << "three stream lists and odml";
  for (int s = 0; s < 3; ++s) {
    const AviChunk& strl = *strls[s];
    EXPECT_EQ(strl.type, "strl");
    ASSERT_EQ(strl.children.size(), 3u);
    EXPECT_EQ(strl.children[0].code, "strh");
    EXPECT_EQ(strl.children[0].size, 56u);
    EXPECT_EQ(strl.children[1].code, "strf");
    EXPECT_EQ(strl.children[2].code, "JUNK") << "a one-segment file keeps its reservations";
    EXPECT_EQ(strl.children[2].size, 4120u);
  }
  const int64_t videoStrh = strls[0]->children[0].dataPosition();
  EXPECT_EQ(avi.u32(videoStrh + 32), 10u) << "video dwLength";
  const int64_t audioStrh = strls[1]->children[0].dataPosition();
  EXPECT_EQ(avi.u32(audioStrh + 20), 4u) << "audio dwScale = nBlockAlign";
  EXPECT_EQ(avi.u32(audioStrh + 24), 192000u) << "audio dwRate = nAvgBytesPerSec";
  EXPECT_EQ(avi.u32(audioStrh + 32), 10u * 4800 / 4) << "audio dwLength in blocks";
  EXPECT_EQ(strls[3]->type, "odml");
  const AviChunk* dmlh = strls[3]->find("dmlh");
  ASSERT_NE(dmlh, nullptr);
  EXPECT_EQ(dmlh->size, 248u);
  EXPECT_EQ(avi.u32(dmlh->dataPosition()), 10u);

  const AviChunk* movi = riff.find("LIST", "movi");
  ASSERT_NE(movi, nullptr);
  EXPECT_EQ(movi->position % 2048, 0) << "movi begins on a 2048-byte boundary";
  expectChunksAsWritten(avi, written);
  EXPECT_TRUE(movi->all("ix").empty());

  const AviChunk* idx1 = riff.find("idx1");
  ASSERT_NE(idx1, nullptr);
  EXPECT_EQ(idx1->position, movi->position + 8 + movi->size) << "idx1 follows movi and is not counted in it";
  ASSERT_EQ(idx1->size, 16u * written.size());
  const auto chunks = dataChunks(avi);
  for (size_t i = 0; i < written.size(); ++i) {
    const int64_t e = idx1->dataPosition() + 16 * static_cast<int64_t>(i);
    EXPECT_EQ(avi.u32(e), written[i].chunkId) << i;
    EXPECT_EQ(avi.u32(e + 4), written[i].key ? 0x10u : 0u) << i;
    EXPECT_EQ(avi.u32(e + 8), chunks[i]->position - (movi->position + 8)) << i;
    EXPECT_EQ(avi.u32(e + 12), written[i].size) << i;
  }
}

// The JUNK after the header makes the movi list begin on a 2048-byte boundary:
// none when the header already ends 8 bytes before one, a text-marked one when
// it is longer than 80 bytes.
class JunkPaddingTest : public AVIOutputFileTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(JunkPaddingTest, PaddingFollowsTheLengthRule) {
  const uint32_t wanted = GetParam();
  // Header bytes before the padding with one video stream and a format of F bytes.
  const auto headerEnd = [](size_t f) { return 12 + 12 + 64 + 12 + 64 + 8 + (f + f % 2) + 4128 + 12 + 256; };
  size_t formatSize = 40;
  while (((-8 - static_cast<int64_t>(headerEnd(formatSize))) & 0x7FF) != wanted) formatSize += 2;
  auto file = makeFile(path(), 0, AVIOutputFile::kSegmentLimit, formatSize);
  writeStream(*file, 2, 100, 0);
  file->finalize();
  file.reset();

  const AviFile avi(path());
  const AviChunk& riff = avi.top.at(0);
  const AviChunk* movi = riff.find("LIST", "movi");
  ASSERT_NE(movi, nullptr);
  const AviChunk* junk = riff.find("JUNK");
  if (wanted == 0) {
    EXPECT_EQ(junk, nullptr);
    EXPECT_EQ((movi->position + 8) % 2048, 0) << "the movi list starts 8 bytes before a boundary";
    return;
  }
  ASSERT_NE(junk, nullptr);
  EXPECT_EQ(junk->size, wanted);
  EXPECT_EQ(movi->position % 2048, 0);
  const std::string body = avi.text(junk->dataPosition(), wanted);
  if (wanted > 80) {
    EXPECT_EQ(body.substr(0, 17), std::string("AVI AVI AVI AVI \0", 17));
  }
  const size_t zerosFrom = wanted > 80 ? 17 : 0;
  EXPECT_EQ(body.find_first_not_of('\0', zerosFrom), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Lengths, JunkPaddingTest, ::testing::Values(0u, 2u, 80u, 82u, 2040u));

struct SegmentedCase {
  int audio;
  int64_t limit;
};

class MultiSegmentTest : public AVIOutputFileTest, public ::testing::WithParamInterface<SegmentedCase> {};

// A file past its first RIFF: AVIX segments, standard index chunks in the last
// movi, super-indexes in the headers, idx1 for the first RIFF only. Streams 10
// and up have their chunks and index chunks named with two digits.
TEST_P(MultiSegmentTest, MultiSegmentFileIndexesEveryChunkByPositionAndSize) {
  const auto [audio, limit] = GetParam();
  auto file = makeFile(path(), audio, limit);
  const auto written = writeStream(*file, 40, 3000, audio, 1200);
  ASSERT_EQ(file->finalize(), 1);
  const int segments = file->segments();
  file.reset();

  const AviFile avi(path());
  ASSERT_EQ(static_cast<int>(avi.top.size()), segments);
  ASSERT_GT(segments, 4);
  int64_t end = 0;
  for (size_t k = 0; k < avi.top.size(); ++k) {
    const AviChunk& riff = avi.top[k];
    EXPECT_EQ(riff.code, "RIFF");
    EXPECT_EQ(riff.type, k == 0 ? "AVI " : "AVIX");
    EXPECT_EQ(riff.position, end) << "segments follow each other";
    end = riff.position + 8 + riff.size;
    const AviChunk* movi = riff.find("LIST", "movi");
    ASSERT_NE(movi, nullptr);
    EXPECT_EQ(movi->position + 8 + movi->size, k == 0 ? riff.find("idx1")->position : end);
    EXPECT_LE(movi->size, static_cast<uint32_t>(limit) + 12) << "no segment much over its limit";
    EXPECT_EQ(riff.find("idx1") != nullptr, k == 0);
  }
  EXPECT_EQ(end, avi.size());
  expectChunksAsWritten(avi, written);

  // idx1 holds the chunks of the first RIFF alone, and dwTotalFrames counts them.
  const AviChunk& first = avi.top[0];
  const size_t inFirst = first.find("LIST", "movi")->children.size();
  EXPECT_EQ(first.find("idx1")->size, 16 * inFirst);
  const AviChunk* hdrl = first.find("LIST", "hdrl");
  size_t videoInFirst = 0;
  for (const auto& c : first.find("LIST", "movi")->children) videoInFirst += c.code == "00dc";
  EXPECT_EQ(avi.u32(hdrl->find("avih")->dataPosition() + 16), videoInFirst);
  EXPECT_EQ(avi.u32(hdrl->all("LIST").back()->find("dmlh")->dataPosition()), 40u) << "dmlh counts all frames";

  const auto chunks = dataChunks(avi);
  const AviChunk& last = avi.top.back();
  const auto strls = hdrl->all("LIST");
  ASSERT_EQ(strls.size(), static_cast<size_t>(audio) + 2) << "the stream lists and odml";
  for (int s = 0; s <= audio; ++s) {
    const std::string id = s == 0 ? "00dc" : audioId(s);
    const AviChunk* indx = strls[s]->find("indx");
    ASSERT_NE(indx, nullptr) << id;
    EXPECT_EQ(indx->size, 4120u);
    const int64_t h = indx->dataPosition();
    EXPECT_EQ(avi.u16(h), 4);
    EXPECT_EQ(avi.u8(h + 3), 0) << "an index of indexes";
    EXPECT_EQ(avi.text(h + 8, 4), id);
    const uint32_t blocks = avi.u32(h + 4);
    ASSERT_GE(blocks, 1u);
    size_t seen = 0;
    std::vector<const AviChunk*> streamChunks;
    for (const auto* c : chunks) {
      if (c->code == id) streamChunks.push_back(c);
    }
    for (uint32_t b = 0; b < blocks; ++b) {
      const int64_t e = h + 24 + 16 * b;
      const int64_t ixAt = static_cast<int64_t>(avi.u64(e));
      EXPECT_EQ(avi.text(ixAt, 4), "ix" + id.substr(0, 2));
      EXPECT_GE(ixAt, last.position) << "index chunks lie in the last segment";
      const uint32_t n = avi.u32(ixAt + 12);
      EXPECT_EQ(avi.u32(e + 8), 8 * n + 32);
      EXPECT_EQ(avi.u32(ixAt + 4), 24 + 8 * n);
      EXPECT_EQ(avi.u16(ixAt + 8), 2);
      EXPECT_EQ(avi.u8(ixAt + 11), 1) << "an index of chunks";
      EXPECT_EQ(avi.text(ixAt + 16, 4), id);
      const uint64_t base = avi.u64(ixAt + 20);
      for (uint32_t i = 0; i < n; ++i, ++seen) {
        ASSERT_LT(seen, streamChunks.size());
        const uint64_t dataAt = base + avi.u32(ixAt + 32 + 8 * i);
        EXPECT_EQ(static_cast<int64_t>(dataAt), streamChunks[seen]->position + 8) << id << " entry " << seen;
        const uint32_t size = avi.u32(ixAt + 36 + 8 * i);
        EXPECT_EQ(size & 0x7FFFFFFF, streamChunks[seen]->size);
        const bool key = id == "00dc" && seen % 3 == 0;
        EXPECT_EQ((size & 0x80000000) == 0, key) << id << " entry " << seen;
      }
      const uint32_t duration = avi.u32(e + 12);
      EXPECT_EQ(duration, s == 0 ? n : n * 1200 / 4);
    }
    EXPECT_EQ(seen, streamChunks.size()) << "every chunk of " << id << " is indexed";
  }
}

INSTANTIATE_TEST_SUITE_P(Streams, MultiSegmentTest,
                         ::testing::Values(SegmentedCase{1, 16384}, SegmentedCase{16, 64 * 1024}),
                         [](const auto& info) { return std::to_string(info.param.audio) + "Audio"; });

struct Boundary {
  uint32_t size;
  int chunksInFirst;
};

class SegmentBoundaryTest : public AVIOutputFileTest, public ::testing::WithParamInterface<Boundary> {};

// A chunk counts its size, its pad byte, its header and its index entry against
// the segment; one byte over the limit opens the next segment.
TEST_P(SegmentBoundaryTest, ChunkOneByteOverTheLimitOpensTheNextSegment) {
  auto file = makeFile(path(), 0, 1000);
  const auto data = payload(GetParam().size, 1);
  for (int i = 0; i < 3; ++i) file->videoStream()->write(kAviKeyFrame, data, 1, 0);
  file->finalize();
  file.reset();
  const AviFile avi(path());
  ASSERT_GE(avi.top.size(), 2u);
  EXPECT_EQ(static_cast<int>(avi.top[0].find("LIST", "movi")->children.size()), GetParam().chunksInFirst);
  EXPECT_EQ(avi.top[0].find("idx1")->size, 16u * GetParam().chunksInFirst);
}

INSTANTIATE_TEST_SUITE_P(Sizes, SegmentBoundaryTest,
                         ::testing::Values(Boundary{484, 2},    // 2 x 500 = 1000: exactly the limit
                                           Boundary{483, 2},    // odd: its pad byte makes it 500 too
                                           Boundary{485, 1},    // 502 each: the second is over
                                           Boundary{486, 1}));

TEST_F(AVIOutputFileTest, OddChunksArePaddedAndEmptyChunksHaveOnlyAHeader) {
  auto file = makeFile(path(), 0, AVIOutputFile::kSegmentLimit);
  const auto odd = payload(7, 3);
  file->videoStream()->write(kAviKeyFrame, odd, 1, 0);
  file->videoStream()->write(0, {}, 1, 0);
  file->videoStream()->write(0, odd, 1, 0);
  file->finalize();
  file.reset();
  const AviFile avi(path());
  const auto chunks = dataChunks(avi);
  ASSERT_EQ(chunks.size(), 3u);
  EXPECT_EQ(chunks[0]->size, 7u);
  EXPECT_EQ(avi.u8(chunks[0]->position + 15), 0) << "the pad byte";
  EXPECT_EQ(chunks[1]->position, chunks[0]->position + 16);
  EXPECT_EQ(chunks[1]->size, 0u);
  EXPECT_EQ(chunks[2]->position, chunks[1]->position + 8) << "an empty chunk has no data and no pad";
  const AviChunk* idx1 = avi.top[0].find("idx1");
  EXPECT_EQ(avi.u32(idx1->dataPosition() + 16 + 12), 0u);
  EXPECT_EQ(avi.u32(idx1->dataPosition() + 32 + 12), 7u) << "the index counts no pad byte";
}

TEST_F(AVIOutputFileTest, FinalizeWithoutInitDoesNothing) {
  AVIOutputFile file;
  EXPECT_EQ(file.initOutputStreams(), 1);
  EXPECT_EQ(file.finalize(), 1);
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(AVIOutputFileTest, InitRefusesAnAudioStreamItDoesNotHave) {
  AVIOutputFile file;
  EXPECT_EQ(file.init(path(), 1, 1, 1, 0, 100000, 1), 0) << "no video stream yet";
}

}  // namespace
}  // namespace kestrium
