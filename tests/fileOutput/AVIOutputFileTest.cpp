// The layout of the AVI files we write, read back byte by byte.

#include <gtest/gtest.h>

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

// The id of the chunks of stream n as AVI readers take it: the stream number in
// two decimal digits, then "dc" or "wb".
std::string chunkId(int n) { return n == 0 ? "00dc" : std::string{char('0' + n / 10), char('0' + n % 10), 'w', 'b'}; }

struct Written {
  std::string id;
  uint32_t size;
  bool key;
  uint32_t seed;
};

// Writes video chunks (every third a key frame, odd and even sizes) with a chunk
// of every audio stream after each.
std::vector<Written> writeStream(AVIOutputFile& file, int frames, size_t videoSize, int audio, size_t audioSize) {
  std::vector<Written> written;
  for (int f = 0; f < frames; ++f) {
    const auto v = payload(videoSize + (f % 2), f);
    file.videoStream()->write(f % 3 == 0 ? kAviKeyFrame : 0, v, 1, 0);
    written.push_back({"00dc", static_cast<uint32_t>(v.size()), f % 3 == 0, static_cast<uint32_t>(f)});
    for (int a = 0; a < audio; ++a) {
      const uint32_t seed = 1000 + f * 16 + a;
      file.audioStream(a)->write(0, payload(audioSize, seed), 0, a + 1);
      written.push_back({chunkId(a + 1), static_cast<uint32_t>(audioSize), false, seed});
    }
  }
  return written;
}

class AVIOutputFileTest : public ::testing::Test {
 protected:
  std::filesystem::path path() const { return folder_.path() / "test.avi"; }
  std::unique_ptr<AVIOutputFile> open(int audio, int64_t limit, size_t formatSize = 40) {
    auto file = test::openAvi(path(), limit, kWidth, kHeight, fourcc("TMB2"), audio, formatSize);
    EXPECT_TRUE(file != nullptr);
    return file;
  }
  test::TempFolder folder_;
};

struct LayoutCase {
  const char* name;
  int audio;
  int64_t limit;
  int frames;
  size_t videoSize, audioSize;
};
void PrintTo(const LayoutCase& c, std::ostream* os) { *os << c.name; }

class AviLayoutTest : public AVIOutputFileTest, public ::testing::WithParamInterface<LayoutCase> {};

// RIFF segments follow each other, the first 'AVI ', the rest 'AVIX', none much
// over its limit; every chunk is there as written; the headers count the frames;
// idx1 indexes the chunks of the first RIFF by id, key flag, offset and size. A
// file past its first RIFF has standard index chunks in its last movi and
// super-indexes in the headers where a one-segment file keeps its reservations
// as JUNK. Streams 10 and up have their chunks and index chunks named with two
// digits.
TEST_P(AviLayoutTest, SegmentsHeadersAndIndexesLeadToEveryChunk) {
  const LayoutCase& c = GetParam();
  auto file = open(c.audio, c.limit);
  const auto written = writeStream(*file, c.frames, c.videoSize, c.audio, c.audioSize);
  ASSERT_EQ(file->finalize(), 1);
  const int segments = file->segments();
  file.reset();

  const AviFile avi(path());
  ASSERT_EQ(static_cast<int>(avi.top.size()), segments);
  ASSERT_EQ(segments > 1, c.limit != AVIOutputFile::kSegmentLimit);
  int64_t end = 0;
  for (size_t k = 0; k < avi.top.size(); ++k) {
    const AviChunk& riff = avi.top[k];
    EXPECT_EQ(riff.code + riff.type, k == 0 ? "RIFFAVI " : "RIFFAVIX");
    EXPECT_EQ(riff.position, end) << "segments follow each other";
    end = riff.position + 8 + riff.size;
    const AviChunk* movi = riff.find("LIST", "movi");
    ASSERT_NE(movi, nullptr);
    EXPECT_EQ(movi->position + 8 + movi->size, k == 0 ? riff.find("idx1")->position : end)
        << "idx1 follows movi and is not counted in it";
    EXPECT_LE(movi->size, static_cast<uint32_t>(c.limit) + 12) << "no segment much over its limit";
    EXPECT_EQ(riff.find("idx1") != nullptr, k == 0);
  }
  EXPECT_EQ(end, avi.size());
  const auto chunks = avi.moviChunks();
  ASSERT_EQ(chunks.size(), written.size());
  for (size_t i = 0; i < written.size(); ++i) {
    EXPECT_EQ(chunks[i]->code, written[i].id) << i;
    ASSERT_EQ(chunks[i]->size, written[i].size) << i;
    const auto expected = payload(written[i].size, written[i].seed);
    EXPECT_EQ(std::memcmp(avi.data(chunks[i]->position + 8), expected.data(), expected.size()), 0) << i;
  }

  const AviChunk& first = avi.top[0];
  const AviChunk* movi = first.find("LIST", "movi");
  EXPECT_EQ(movi->position % 2048, 0) << "movi begins on a 2048-byte boundary";
  const AviChunk* idx1 = first.find("idx1");
  ASSERT_EQ(idx1->size, 16 * movi->children.size());
  size_t videoInFirst = 0;
  for (size_t i = 0; i < movi->children.size(); ++i) {
    const int64_t e = idx1->dataPosition() + 16 * static_cast<int64_t>(i);
    videoInFirst += written[i].id == "00dc";
    EXPECT_EQ(avi.text(e, 4), written[i].id) << i;
    EXPECT_EQ(avi.u32(e + 4), written[i].key ? 0x10u : 0u) << i;
    EXPECT_EQ(avi.u32(e + 8), chunks[i]->position - (movi->position + 8)) << i;
    EXPECT_EQ(avi.u32(e + 12), written[i].size) << i;
  }

  const AviChunk* hdrl = first.find("LIST", "hdrl");
  const int64_t avih = hdrl->find("avih")->dataPosition();
  EXPECT_EQ(hdrl->find("avih")->size, 56u);
  EXPECT_EQ(avi.u32(avih), 33333u) << "microseconds a frame";
  EXPECT_EQ(avi.u32(avih + 12), 0x10130u);
  EXPECT_EQ(avi.u32(avih + 16), videoInFirst) << "dwTotalFrames: those of the first RIFF";
  EXPECT_EQ(avi.u32(avih + 24), c.audio + 1u) << "dwStreams";
  EXPECT_EQ(avi.u32(avih + 28), c.videoSize + 1) << "dwSuggestedBufferSize: the largest video chunk";
  EXPECT_EQ(std::pair(avi.u32(avih + 32), avi.u32(avih + 36)), std::pair(kWidth, kHeight));
  const auto strls = hdrl->all("LIST");
  ASSERT_EQ(strls.size(), static_cast<size_t>(c.audio) + 2) << "the stream lists and odml";
  const AviChunk* dmlh = strls.back()->find("dmlh");
  ASSERT_NE(dmlh, nullptr);
  EXPECT_EQ(strls.back()->type + std::to_string(dmlh->size), "odml248");
  EXPECT_EQ(avi.u32(dmlh->dataPosition()), static_cast<uint32_t>(c.frames)) << "dmlh counts all frames";

  const AviChunk& last = avi.top.back();
  for (int s = 0; s <= c.audio; ++s) {
    const std::string id = chunkId(s);
    const AviChunk& strl = *strls[s];
    ASSERT_EQ(strl.children.size(), 3u);
    EXPECT_EQ(strl.type + strl.children[0].code + std::to_string(strl.children[0].size), "strlstrh56");
    EXPECT_EQ(strl.children[1].code, "strf");
    const int64_t strh = strl.children[0].dataPosition();
    EXPECT_EQ(avi.u32(strh + 32), s == 0 ? size_t(c.frames) : c.frames * c.audioSize / 4) << id << " dwLength";
    if (s > 0) {
      EXPECT_EQ(std::pair(avi.u32(strh + 20), avi.u32(strh + 24)), std::pair(4u, 192000u))
          << "audio dwScale = nBlockAlign, dwRate = nAvgBytesPerSec";
    }
    EXPECT_EQ(strl.children[2].size, 4120u);
    if (segments == 1) {
      EXPECT_EQ(strl.children[2].code, "JUNK") << "a one-segment file keeps its reservations";
      EXPECT_TRUE(first.find("LIST", "movi")->all("ix").empty());
      continue;
    }
    ASSERT_EQ(strl.children[2].code, "indx") << id;
    const int64_t h = strl.children[2].dataPosition();
    EXPECT_EQ(avi.u16(h), 4);
    EXPECT_EQ(avi.u8(h + 3), 0) << "an index of indexes";
    EXPECT_EQ(avi.text(h + 8, 4), id);
    std::vector<const AviChunk*> streamChunks;
    for (const auto* chunk : chunks) {
      if (chunk->code == id) streamChunks.push_back(chunk);
    }
    size_t seen = 0;
    ASSERT_GE(avi.u32(h + 4), 1u);
    for (uint32_t b = 0; b < avi.u32(h + 4); ++b) {
      const int64_t e = h + 24 + 16 * b, ix = static_cast<int64_t>(avi.u64(e));
      EXPECT_EQ(avi.text(ix, 4), "ix" + id.substr(0, 2));
      EXPECT_GE(ix, last.position) << "index chunks lie in the last segment";
      const uint32_t n = avi.u32(ix + 12);
      EXPECT_EQ(avi.u32(e + 8), 8 * n + 32);
      EXPECT_EQ(avi.u32(e + 12), s == 0 ? n : n * c.audioSize / 4) << "duration";
      EXPECT_EQ(avi.u32(ix + 4), 24 + 8 * n);
      EXPECT_EQ(avi.u16(ix + 8), 2);
      EXPECT_EQ(avi.u8(ix + 11), 1) << "an index of chunks";
      EXPECT_EQ(avi.text(ix + 16, 4), id);
      const uint64_t base = avi.u64(ix + 20);
      for (uint32_t i = 0; i < n; ++i, ++seen) {
        ASSERT_LT(seen, streamChunks.size());
        EXPECT_EQ(static_cast<int64_t>(base + avi.u32(ix + 32 + 8 * i)), streamChunks[seen]->position + 8)
            << id << " entry " << seen;
        const uint32_t size = avi.u32(ix + 36 + 8 * i);
        EXPECT_EQ(size & 0x7FFFFFFF, streamChunks[seen]->size);
        EXPECT_EQ((size & 0x80000000) == 0, s == 0 && seen % 3 == 0) << id << " key flag of entry " << seen;
      }
    }
    EXPECT_EQ(seen, streamChunks.size()) << "every chunk of " << id << " is indexed";
  }
}

INSTANTIATE_TEST_SUITE_P(Files, AviLayoutTest,
                         ::testing::Values(LayoutCase{"OneSegment", 2, AVIOutputFile::kSegmentLimit, 10, 1000, 4800},
                                           LayoutCase{"Segments1Audio", 1, 16384, 40, 3000, 1200},
                                           LayoutCase{"Segments16Audio", 16, 64 * 1024, 40, 3000, 1200}),
                         [](const auto& info) { return std::string(info.param.name); });

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
  auto file = open(0, AVIOutputFile::kSegmentLimit, formatSize);
  writeStream(*file, 2, 100, 0, 0);
  file->finalize();
  file.reset();

  const AviFile avi(path());
  const AviChunk* movi = avi.top.at(0).find("LIST", "movi");
  const AviChunk* junk = avi.top.at(0).find("JUNK");
  ASSERT_NE(movi, nullptr);
  EXPECT_EQ((movi->position + (wanted == 0 ? 8 : 0)) % 2048, 0);
  ASSERT_EQ(junk == nullptr, wanted == 0);
  if (wanted == 0) return;
  EXPECT_EQ(junk->size, wanted);
  const std::string body = avi.text(junk->dataPosition(), wanted);
  EXPECT_TRUE(wanted <= 80 || body.substr(0, 17) == std::string("AVI AVI AVI AVI \0", 17)) << "a text mark";
  EXPECT_EQ(body.find_first_not_of('\0', wanted > 80 ? 17 : 0), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Lengths, JunkPaddingTest, ::testing::Values(0u, 2u, 80u, 82u, 2040u));

struct Boundary {
  uint32_t size;
  int chunksInFirst;
};

class SegmentBoundaryTest : public AVIOutputFileTest, public ::testing::WithParamInterface<Boundary> {};

// A chunk counts its size, its pad byte, its header and its index entry against
// the segment; one byte over the limit opens the next segment.
TEST_P(SegmentBoundaryTest, ChunkOneByteOverTheLimitOpensTheNextSegment) {
  auto file = open(0, 1000);
  for (int i = 0; i < 3; ++i) file->videoStream()->write(kAviKeyFrame, payload(GetParam().size, 1), 1, 0);
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
  auto file = open(0, AVIOutputFile::kSegmentLimit);
  file->videoStream()->write(kAviKeyFrame, payload(7, 3), 1, 0);
  file->videoStream()->write(0, {}, 1, 0);
  file->videoStream()->write(0, payload(7, 3), 1, 0);
  file->finalize();
  file.reset();
  const AviFile avi(path());
  const auto chunks = avi.moviChunks();
  ASSERT_EQ(chunks.size(), 3u);
  EXPECT_EQ(chunks[0]->size, 7u);
  EXPECT_EQ(avi.u8(chunks[0]->position + 15), 0) << "the pad byte";
  EXPECT_EQ(chunks[1]->position, chunks[0]->position + 16);
  EXPECT_EQ(chunks[1]->size, 0u);
  EXPECT_EQ(chunks[2]->position, chunks[1]->position + 8) << "an empty chunk has no data and no pad";
  const AviChunk* idx1 = avi.top[0].find("idx1");
  EXPECT_EQ(avi.u32(idx1->dataPosition() + 16 + 12), 0u);
  EXPECT_EQ(avi.u32(idx1->dataPosition() + 32 + 12), 7u) << "the index counts no pad byte";

  // Init without a video stream refuses; finalize without init has nothing to do.
  AVIOutputFile unopened;
  EXPECT_EQ(unopened.init(folder_.path() / "none.avi", 1, 1, 1, 0, 100000, 1), 0) << "no video stream yet";
  EXPECT_FALSE(std::filesystem::exists(folder_.path() / "none.avi")) << "a refused init leaves no file";
  EXPECT_EQ(unopened.initOutputStreams(), 1);
  EXPECT_EQ(unopened.finalize(), 1);
}

}  // namespace
}  // namespace kestrium
