// The layout of the MP4 files we write, read back box by box and byte by byte.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "fileOutput/MP4Container.h"
#include "fileOutput/Mp4Journal.h"
#include "platform/File.h"
#include "tests/fileOutput/Mp4TestSupport.h"
#include "tests/support/LogFixture.h"
#include "tests/support/TestSupport.h"

namespace kestrium {
namespace {

using namespace mp4test;

constexpr uint32_t kWidth = 160, kHeight = 120, kRate = 30000;  // thousandths of a frame a second
// In 2042 the seconds since 1904 no longer fit 32 bits: the boxes keep the low bits.
constexpr uint64_t kNow = 2300000000;
constexpr uint32_t kCreated = static_cast<uint32_t>(kNow + 2082844800);
constexpr uint64_t kMdat = 40, kFirstSample = 56;  // behind ftyp and free; behind the mdat header
const Bytes kMatrix = cat({u32(0x10000), zeros(12), u32(0x10000), zeros(12), u32(0x40000000)});
const Bytes kSps = {0x67, 0x64, 0x00, 0x0C, 0xAC, 0xD9, 0x41};
const Bytes kPps = {0x68, 0xEB, 0xE3, 0xCB};

Bytes payload(size_t size, size_t seed) {
  Bytes data(size);
  for (size_t i = 0; i < size; ++i) data[i] = static_cast<uint8_t>(seed * 131 + i * 7);
  return data;
}
const Bytes kRecord = avcRecord(kSps, kPps);
// A key frame as it lands in the file: the parameter sets go in front of it.
Bytes withSets(const Bytes& frame) { return cat({sized(kSps, 4), sized(kPps, 4), frame}); }
// The two AAC configuration bytes go in as a uint16_t whose bytes in memory they are.
uint16_t memoryOrder(uint8_t first, uint8_t second) {
  const uint8_t b[2] = {first, second};
  uint16_t v;
  std::memcpy(&v, b, 2);
  return v;
}

std::vector<std::string> samplesOf(const Mp4& f, const Box& stbl) {
  std::vector<std::string> out;
  for (std::span<const uint8_t> s : sampleBytes(f, stbl)) out.push_back(hex({s.begin(), s.end()}));
  return out;
}

// A file in memory. Writes of dropFrom bytes or more only move the position on,
// so that a test passes 4 GiB without holding them. A write past the capacity
// keeps what fits and fails, as a full file system does; cutting the file
// frees the space.
class MemorySink : public Serializer {
 public:
  struct Stored {
    Bytes bytes;                                         // without the dropped writes
    std::vector<std::pair<uint64_t, uint64_t>> dropped;  // where, how long
    bool closed = false;
    uint64_t index(uint64_t position) const {
      uint64_t skipped = 0;
      for (auto [where, n] : dropped) skipped += position >= where + n ? n : 0;
      return position - skipped;
    }
    Bytes read(uint64_t at, size_t n) const {
      Bytes out;
      for (uint64_t i = index(at); i < index(at) + n; ++i) out.push_back(bytes.at(i));
      return out;
    }
  };

  MemorySink(std::shared_ptr<Stored> stored, size_t dropFrom, uint64_t capacity = UINT64_MAX)
      : stored_(std::move(stored)), dropFrom_(dropFrom), capacity_(capacity) {}
  void write(std::span<const std::byte> data) override {
    if (data.size() >= dropFrom_) stored_->dropped.emplace_back(position_, data.size()), position_ += data.size();
    for (size_t i = 0; i < data.size() && data.size() < dropFrom_ && error_ == 0; ++i) {
      if (position_ >= capacity_) {
        error_ = 28;
        break;
      }
      const uint64_t at = stored_->index(position_++);
      if (stored_->bytes.size() <= at) stored_->bytes.resize(at + 1);
      stored_->bytes[at] = std::to_integer<uint8_t>(data[i]);
    }
    durable_ = std::max(durable_, position_);
  }
  void seek(int64_t offset, Origin origin) override {
    const uint64_t base = origin == Origin::Begin ? 0 : origin == Origin::Current ? position_ : durable_;
    position_ = static_cast<uint64_t>(std::max<int64_t>(0, static_cast<int64_t>(base) + offset));
  }
  uint64_t tell() const override { return position_; }
  bool ok() const override { return error_ == 0; }
  uint32_t error() const override { return error_; }
  uint64_t durable() const override { return durable_; }
  bool truncate(uint64_t size) override {
    stored_->bytes.resize(stored_->index(size));
    position_ = durable_ = size;
    error_ = 0;
    return true;
  }
  void close() override { stored_->closed = true; }

 private:
  std::shared_ptr<Stored> stored_;
  size_t dropFrom_;
  uint64_t capacity_, position_ = 0, durable_ = 0;
  uint32_t error_ = 0;
};

struct Recording {
  explicit Recording(size_t dropFrom = SIZE_MAX) {
    EXPECT_EQ(mp4.open(std::make_unique<MemorySink>(stored, dropFrom)), 1);
    EXPECT_TRUE(mp4.setVideoTrack(kWidth, kHeight, kRate, asBytes(kRecord)));
  }
  // 128 kbit/s: 320 bytes last 20 ms. 1024 samples a frame at 48 kHz.
  void aac() { mp4.setAudioTrack(false, 48000, 128000, 1024, memoryOrder(0x11, 0x90)); }
  Mp4 finish() {
    EXPECT_EQ(mp4.finalize(), 1);
    EXPECT_TRUE(stored->closed);
    return Mp4{stored->bytes};
  }
  std::shared_ptr<MemorySink::Stored> stored = std::make_shared<MemorySink::Stored>();
  MP4Container mp4{[] { return kNow; }};
};

enum class Audio { None, Aac, Mp3 };
void PrintTo(Audio a, std::ostream* os) { *os << (a == Audio::None ? "NoAudio" : a == Audio::Aac ? "Aac" : "Mp3"); }

class MP4HeaderTest : public ::testing::TestWithParam<Audio> {};

TEST_P(MP4HeaderTest, BoxesHoldTheirFixedValues) {
  const Audio kind = GetParam();
  Recording r;
  const uint32_t rate = kind == Audio::Mp3 ? 44100 : 48000, perFrame = kind == Audio::Mp3 ? 1152 : 1024;
  if (kind != Audio::None) r.mp4.setAudioTrack(kind == Audio::Mp3, rate, 128999, perFrame, memoryOrder(0x11, 0x90));
  // Video times start at 1000: the tables count from the first frame. The
  // audio samples end before their frames' worth of samples would, so the
  // clock stretches none of them.
  for (uint32_t i = 0; i < 3; ++i) {
    r.mp4.addSample(0, 1000 + 33 * i, asBytes(payload(100, i)), i == 0);
    if (kind != Audio::None) r.mp4.addSample(1, 21 * i, asBytes(payload(320, 10 + i)), false);
  }
  const Mp4 f = r.finish();

  // ftyp, free, mdat with its size in 64 bits, then moov to the end of the file.
  ASSERT_EQ(codes(f.top), (std::vector<std::string>{"ftyp", "free", "mdat", "moov"}));
  EXPECT_EQ(hex({f.data.begin(), f.data.begin() + kFirstSample}),
            hex(cat({u32(32), str("ftypisom"), u32(0x200), str("isomiso2avc1mp41"), u32(8), str("free"), u32(1),
                     str("mdat"), u64(f["moov"].position - kMdat)})));
  EXPECT_EQ(f["moov"].position + f["moov"].header + f["moov"].body.size(), f.data.size());

  // The last frame's time from the first, and one frame more.
  const uint32_t d = 66 + 1000000 / kRate;
  EXPECT_EQ(f["moov/mvhd"].hex(), hex(cat({u32(0), u32(kCreated), u32(kCreated), u32(1000), u32(d), u32(0x10000),
                                           u16(0x100), zeros(10), kMatrix, zeros(24), u32(3)})));
  EXPECT_EQ(codes(children(f["moov"])), kind == Audio::None
                                            ? (std::vector<std::string>{"mvhd", "trak", "udta"})
                                            : (std::vector<std::string>{"mvhd", "trak", "trak", "udta"}));
  const std::string dinf = hex(cat({u32(28), str("dref"), u32(0), u32(1), u32(12), str("url "), u32(1)}));

  const std::string v = kind == Audio::None ? "moov/trak/" : "moov/trak[1]/";
  EXPECT_EQ(f[v + "tkhd"].hex(), hex(cat({u32(7), u32(kCreated), u32(kCreated), u32(2), u32(0), u32(d), zeros(16),
                                          kMatrix, u32(kWidth << 16), u32(kHeight << 16)})));
  EXPECT_EQ(f[v + "mdia/mdhd"].hex(),
            hex(cat({u32(0), u32(kCreated), u32(kCreated), u32(1000), u32(d), u32(0x55C40000)})));
  EXPECT_EQ(f[v + "mdia/hdlr"].hex(), hex(cat({u32(0), u32(0), str("vide"), zeros(12), str("Video track"), u8(0)})));
  EXPECT_EQ(f[v + "mdia/minf/vmhd"].hex(), hex(cat({u32(1), zeros(8)})));
  EXPECT_EQ(f[v + "mdia/minf/dinf"].hex(), dinf);
  EXPECT_EQ(f[v + "mdia/minf/stbl/stsd/avc1"].hex(78),
            hex(cat({zeros(6), u16(1), zeros(16), u16(kWidth), u16(kHeight), u32(0x480000), u32(0x480000), u32(0),
                     u16(1), u8(9), str("H.264/AVC"), zeros(22), u16(0x18), u16(0xFFFF)})));

  if (kind != Audio::None) {
    const std::string a = "moov/trak[0]/";
    EXPECT_EQ(f[a + "tkhd"].hex(), hex(cat({u32(7), u32(kCreated), u32(kCreated), u32(1), u32(0), u32(66), zeros(12),
                                            u16(0x100), u16(0), kMatrix, u32(0), u32(0)})))
        << "the audio track lasts to the last frame's time";
    // Three samples in chunks of one: the position counts two frames.
    EXPECT_EQ(f[a + "mdia/mdhd"].hex(), hex(cat({u32(0), u32(kCreated), u32(kCreated), u32(rate), u32(2 * perFrame),
                                                 u32(kind == Audio::Mp3 ? 0x55C40000 : 0x15C70000)})));
    EXPECT_EQ(f[a + "mdia/hdlr"].hex(), hex(cat({u32(0), u32(0), str("soun"), zeros(12), str("Audio track"), u8(0)})));
    EXPECT_EQ(f[a + "mdia/minf/smhd"].hex(), hex(zeros(8)));
    EXPECT_EQ(f[a + "mdia/minf/dinf"].hex(), dinf);
    EXPECT_EQ(f[a + "mdia/minf/stbl/stsd/mp4a"].hex(28),
              hex(cat({zeros(6), u16(1), zeros(8), u16(0), u16(16), u32(0), u32(rate << 16)})));
    // Each descriptor's length covers the ones inside it; bit rates in whole kbit.
    EXPECT_EQ(f[a + "mdia/minf/stbl/stsd/mp4a/esds"].hex(),
              hex(cat({u32(0), Bytes{3, 25, 0, 0, 0, 4, 17, uint8_t(kind == Audio::Mp3 ? 0x6B : 0x40), 0x15, 0, 6, 0},
                       u32(128000), u32(128000), Bytes{5, 2, 0x11, 0x90, 6, 1, 2}})));
  }

  EXPECT_EQ(f["moov/udta"].hex(), hex(cat({u32(85), str("meta"), u32(0), u32(33), str("hdlr"), u32(0), u32(0),
                                           str("mdirappl"), zeros(9), u32(40), str("ilst"), u32(32), str("\xA9too"),
                                           u32(24), str("data"), u32(1), u32(0), str("Kestrium")})));
}

INSTANTIATE_TEST_SUITE_P(Audio, MP4HeaderTest, ::testing::Values(Audio::None, Audio::Aac, Audio::Mp3),
                         [](const auto& info) { return ::testing::PrintToString(info.param); });

struct RecordCase {
  const char* name;
  Bytes record;
  bool valid;
};
void PrintTo(const RecordCase& c, std::ostream* os) { *os << c.name; }

Bytes edited(Bytes b, size_t size, std::initializer_list<std::pair<size_t, uint8_t>> changes = {}) {
  b.resize(size);
  for (auto [at, value] : changes) b[at] = value;
  return b;
}

class MP4ParameterSetTest : public ::testing::TestWithParam<RecordCase> {};

TEST_P(MP4ParameterSetTest, KeyFramesCarryTheSetsOfTheRecord) {
  const RecordCase& c = GetParam();
  Recording r;
  EXPECT_EQ(r.mp4.setVideoTrack(kWidth, kHeight, kRate, asBytes(c.record)), c.valid);
  const Bytes key = payload(50, 1), other = payload(40, 2);
  r.mp4.addSample(0, 0, asBytes(key), true);
  r.mp4.addSample(0, 33, asBytes(other), false);
  r.mp4.addSample(0, 66, asBytes(key), true);
  const Mp4 f = r.finish();

  const Bytes sps = c.valid ? kSps : Bytes{}, pps = c.valid ? kPps : Bytes{};
  EXPECT_EQ(f["moov/trak/mdia/minf/stbl/stsd/avc1/avcC"].hex(),
            hex(cat({Bytes{1, 0x64, 0x00, 0x1F, 0xFF, 0xE1}, sized(sps, 2), u8(1), sized(pps, 2)})))
      << "profile 100, level 3.1 whatever the record says";
  const std::vector<std::string> samples = samplesOf(f, f["moov/trak/mdia/minf/stbl"]);
  ASSERT_EQ(samples.size(), 3u);
  EXPECT_EQ(samples[1], hex(other)) << "other frames stay as they are";
  if (c.valid) {
    EXPECT_EQ(samples[0], hex(withSets(key)));
    EXPECT_EQ(samples[2], hex(withSets(key)));
  }
}

const size_t kPpsLengthAt = 9 + kSps.size();
INSTANTIATE_TEST_SUITE_P(
    Records, MP4ParameterSetTest,
    ::testing::Values(RecordCase{"Whole", kRecord, true},
                      // The set counts are not read: one SPS and one PPS are taken as they stand.
                      RecordCase{"CountsIgnored", edited(kRecord, kRecord.size(), {{5, 0xE0}, {kPpsLengthAt - 1, 0}}),
                                 true},
                      RecordCase{"PpsOneByteShort", edited(kRecord, kRecord.size() - 1), false},
                      RecordCase{"SpsLengthPastTheEnd", edited(kRecord, kRecord.size(), {{7, 200}}), false},
                      RecordCase{"Empty", {}, false}),
    [](const auto& info) { return std::string(info.param.name); });

struct TrackTables {
  Pairs stts, stsc;
  size_t chunks;
};
struct TableCase {
  const char* name;
  // In the order they come: K key frame, V other frame (80 bytes), A audio
  // (320 bytes, 20 ms), each with its time.
  const char* events;
  TrackTables video;
  std::vector<uint32_t> stss;
  TrackTables audio{};  // none: the track is set up but has no samples
  uint32_t audioDuration = 0;
};
void PrintTo(const TableCase& c, std::ostream* os) { *os << c.name; }

void expectTrack(const Mp4& f, const std::string& trak, const TrackTables& want, const std::vector<Bytes>& samples) {
  SCOPED_TRACE(trak);
  const Box stbl = f[trak + "/mdia/minf/stbl"];
  EXPECT_EQ(pairsOf(find(children(stbl), "stts")), want.stts);
  EXPECT_EQ(pairsOf(find(children(stbl), "stsc")), want.stsc);
  EXPECT_EQ(chunkOffsets(stbl).size(), want.chunks);
  std::vector<uint32_t> sizes;
  std::vector<std::string> given;
  for (const Bytes& s : samples) sizes.push_back(static_cast<uint32_t>(s.size())), given.push_back(hex(s));
  EXPECT_EQ(numbersOf(find(children(stbl), "stsz"), 8), sizes);
  EXPECT_EQ(samplesOf(f, stbl), given) << "chunk offsets and sizes lead to each sample's bytes";
}

class MP4SampleTableTest : public ::testing::TestWithParam<TableCase> {};

TEST_P(MP4SampleTableTest, TablesLeadToEverySample) {
  const TableCase& c = GetParam();
  Recording r;
  r.aac();
  std::vector<Bytes> video, audio;
  std::optional<uint32_t> lastVideoTime;
  std::istringstream events(c.events);
  char kind;
  uint32_t time;
  for (size_t i = 0; events >> kind >> time; ++i) {
    const Bytes data = payload(kind == 'A' ? 320 : 80, i);
    r.mp4.addSample(kind == 'A' ? 1 : 0, time, asBytes(data), kind == 'K');
    if (kind == 'A') {
      audio.push_back(data);
    } else if (lastVideoTime == time) {  // one instant, one sample
      video.back() = cat({video.back(), kind == 'K' ? withSets(data) : data});
    } else {
      video.push_back(kind == 'K' ? withSets(data) : data);
    }
    if (kind != 'A') lastVideoTime = time;
  }
  const Mp4 f = r.finish();

  const std::string v = audio.empty() ? "moov/trak" : "moov/trak[1]";
  expectTrack(f, v, c.video, video);
  EXPECT_EQ(numbersOf(f[v + "/mdia/minf/stbl/stss"], 4), c.stss);
  if (audio.empty()) {
    EXPECT_EQ(children(f["moov"]).size(), 3u) << "no audio trak without audio samples";
    return;
  }
  expectTrack(f, "moov/trak[0]", c.audio, audio);
  EXPECT_EQ(f["moov/trak[0]/mdia/mdhd"].u32(16), c.audioDuration) << "the position, without the last delta";
}

INSTANTIATE_TEST_SUITE_P(
    Recordings, MP4SampleTableTest,
    ::testing::Values(
        // One chunk of three: the last frame gets the delta before it.
        TableCase{"VideoOnly", "K0 V33 V66", {{{3, 33}}, {{1, 3}}, 1}, {1}},
        TableCase{"OneFrame", "K500", {{}, {{1, 1}}, 1}, {1}},
        TableCase{"NoKeyFrame", "V0 V40", {{{2, 40}}, {{1, 2}}, 1}, {}},
        TableCase{
            "DeltasRunLengthCoded", "K0 V33 V67 V100 K133 V166", {{{1, 33}, {1, 34}, {4, 33}}, {{1, 6}}, 1}, {1, 5}},
        TableCase{"LastInstantWrittenTwice", "K0 V33 V33", {{{2, 33}}, {{1, 2}}, 1}, {1}},
        // The second write of an instant adds to its sample, but the chunk
        // still expects the next sample where the first write ended: the next
        // frame starts a chunk.
        TableCase{"SameTimeIsOneSample", "K0 V0 V33 V66", {{{3, 33}}, {{1, 1}, {2, 2}}, 2}, {1}},
        // Chunks of one sample: no closing entry, one stts sample fewer than stsz.
        TableCase{
            "Interleaved", "K0 A0 V33 A21 V66 A43", {{{2, 33}}, {{1, 1}}, 3}, {1}, {{{2, 1024}}, {{1, 1}}, 3}, 2048},
        TableCase{"RunsOfAudio",
                  "A0 A21 K0 A43 A64 A85 V33 A107",
                  {{{1, 33}}, {{1, 1}}, 2},
                  {1},
                  {{{5, 1024}}, {{1, 2}, {2, 3}, {3, 1}}, 3},
                  5120},
        // The first sample plays at once; the one behind it is placed at its time.
        TableCase{"AudioStartsLate",
                  "K0 A100 A121 A142",
                  {{}, {{1, 1}}, 1},
                  {1},
                  {{{1, 5808}, {2, 1024}}, {{1, 3}}, 1},
                  6832},
        // 157 ms without sound: the sample before the gap stretches, so that
        // those after it keep their times. A packet up to a frame late is no gap.
        TableCase{"AudioGap",
                  "K0 A0 A21 A43 A200 A221 A243",
                  {{}, {{1, 1}}, 1},
                  {1},
                  {{{2, 1024}, {1, 7552}, {3, 1024}}, {{1, 6}}, 1},
                  11648}),
    [](const auto& info) { return std::string(info.param.name); });

// One track has a chunk behind 4 GiB of the other's samples and needs 64-bit
// offsets; the other keeps 32-bit ones.
class MP4LargeOffsetTest : public ::testing::TestWithParam<bool> {};

TEST_P(MP4LargeOffsetTest, EachTrackChoosesItsOffsetWidth) {
  const bool audioPasses = GetParam();
  constexpr size_t kBig = 64 << 20;
  Recording r(1 << 20);
  r.aac();
  const auto big = std::make_unique_for_overwrite<std::byte[]>(kBig);  // never read: the sink only counts it
  const Bytes small = payload(400, 1);
  const uint32_t passer = audioPasses ? 1 : 0, filler = audioPasses ? 0 : 1;
  r.mp4.addSample(passer, 0, asBytes(small), true);
  for (uint32_t i = 0; i < 64; ++i) r.mp4.addSample(filler, 33 * i, {big.get(), kBig}, i == 0);
  r.mp4.addSample(passer, 3000, asBytes(small), false);
  ASSERT_EQ(r.mp4.finalize(), 1);

  const uint64_t sets = withSets({}).size();
  const uint64_t first = kFirstSample + small.size() + (audioPasses ? 0 : sets);
  const uint64_t last = first + 64 * kBig + (audioPasses ? sets : 0);
  const uint64_t mdatEnd = last + small.size();
  ASSERT_GT(last, 0xFFFFFFFFu);
  EXPECT_EQ(hex(r.stored->read(kMdat, 16)), hex(cat({u32(1), str("mdat"), u64(mdatEnd - kMdat)})));
  EXPECT_EQ(hex(r.stored->read(last, small.size())), hex(small));
  const Mp4 f{r.stored->read(mdatEnd, read(r.stored->read(mdatEnd, 4), 0, 4)), mdatEnd};

  const std::string passerTrak = audioPasses ? "moov/trak[0]" : "moov/trak[1]";
  const std::string fillerTrak = audioPasses ? "moov/trak[1]" : "moov/trak[0]";
  EXPECT_EQ(f[passerTrak + "/mdia/minf/stbl/co64"].hex(), hex(cat({u32(0), u32(2), u64(kFirstSample), u64(last)})));
  EXPECT_EQ(f[fillerTrak + "/mdia/minf/stbl/stco"].hex(), hex(cat({u32(0), u32(1), u32(uint32_t(first))})));
  EXPECT_EQ(numbersOf(f[fillerTrak + "/mdia/minf/stbl/stsz"], 8).at(63), kBig);
}

INSTANTIATE_TEST_SUITE_P(Tracks, MP4LargeOffsetTest, ::testing::Bool(),
                         [](const auto& info) { return std::string(info.param ? "AudioPasses" : "VideoPasses"); });

class MP4FullDiskTest : public test::LoggedTest, public ::testing::WithParamInterface<size_t> {};

// A full disk ends the data at the last whole frame, and the index still goes
// in behind it: where the disk has no room left for it, the last frames (about
// 64 KiB of them) give way to it.
TEST_P(MP4FullDiskTest, FileKeepsWholeFramesAndItsIndex) {
  const size_t room = GetParam();  // what the disk holds behind the last frame that fits
  const Bytes frame = payload(10000, 3);
  constexpr size_t kFit = 40;
  const auto file = std::make_shared<MemorySink::Stored>();
  MP4Container mp4([] { return kNow; });
  ASSERT_EQ(mp4.open(std::make_unique<MemorySink>(file, SIZE_MAX, kFirstSample + kFit * frame.size() + room)), 1);
  for (uint32_t i = 0; i < 60 && !mp4.failed(); ++i) mp4.addSample(0, 33 * i, asBytes(frame), false);
  EXPECT_EQ(mp4.error(), 28u);
  ASSERT_EQ(mp4.finalize(), 1);

  const Mp4 f{file->bytes};
  ASSERT_EQ(codes(f.top), (std::vector<std::string>{"ftyp", "free", "mdat", "moov"})) << log();
  const std::vector<std::string> samples = samplesOf(f, f["moov/trak/mdia/minf/stbl"]);
  for (const std::string& s : samples) EXPECT_EQ(s, hex(frame));
  EXPECT_EQ(f["moov"].position, kFirstSample + samples.size() * frame.size()) << "the index right behind the data";
  const bool gaveWay = log().find("frames give way to the index") != std::string::npos;
  if (room >= 2000) {
    EXPECT_EQ(samples.size(), kFit);
    EXPECT_FALSE(gaveWay);
  } else {
    EXPECT_LT(samples.size(), kFit - 6);
    EXPECT_GT(samples.size(), kFit - 10);
    EXPECT_TRUE(gaveWay);
  }
}

// The index of 40 frames takes well under 2000 bytes.
INSTANTIATE_TEST_SUITE_P(Disks, MP4FullDiskTest, ::testing::Values(0, 300, 2000));

// The journal of a file, as far as it is in the journal's file.
mp4journal::Journal readJournal(const std::filesystem::path& path) {
  const std::vector<char> bytes = test::readBytes(path);
  mp4journal::Journal journal;
  std::string error;
  EXPECT_TRUE(mp4journal::read(std::as_bytes(std::span(bytes)), journal, error)) << error;
  return journal;
}

class MP4JournalTest : public test::LoggedTest, public ::testing::WithParamInterface<size_t> {};

// Whenever the writer dies, every sample wholly in the file has its record in
// the journal, and the records give the samples as they were handed over: the
// data at their places are the samples' own. The parameter is the file's buffer.
TEST_P(MP4JournalTest, EverySampleInTheFileIsInTheJournal) {
  test::TempFolder folder;
  const auto dataPath = folder.path() / "a.mp4", journalPath = folder.path() / "a.mp4.journal";
  platform::File data, journal;
  ASSERT_TRUE(data.open(dataPath, platform::File::Mode::CreateAlways));
  ASSERT_TRUE(journal.open(journalPath, platform::File::Mode::CreateAlways));
  MP4Container mp4([] { return kNow; });
  ASSERT_EQ(mp4.open(std::make_unique<XFileOutputSerializer>(std::move(data), GetParam())), 1);
  mp4.keepJournal(std::make_unique<XFileOutputSerializer>(std::move(journal), 4096));
  ASSERT_TRUE(mp4.setVideoTrack(kWidth, kHeight, kRate, asBytes(kRecord)));
  mp4.setAudioTrack(false, 48000, 128000, 1024, memoryOrder(0x11, 0x90));

  std::vector<mp4journal::Sample> given;
  std::vector<Bytes> payloads;
  std::vector<std::pair<size_t, uint64_t>> moments;  // records in the journal, bytes in the file
  for (uint32_t i = 0; i < 120; ++i) {
    const bool audio = i % 3 == 2;
    const bool key = !audio && i % 30 == 0;
    payloads.push_back(payload(audio ? 300 + i : 1000 + (i * 397) % 6000, i));
    given.push_back({audio, key, i * 11, 0, static_cast<uint32_t>(payloads.back().size())});
    mp4.addSample(audio ? 1 : 0, i * 11, asBytes(payloads.back()), key);
    moments.emplace_back(readJournal(journalPath).samples.size(), std::filesystem::file_size(dataPath));
  }
  ASSERT_EQ(mp4.finalize(), 1);

  const mp4journal::Journal whole = readJournal(journalPath);
  ASSERT_TRUE(whole.video && whole.audio);
  EXPECT_TRUE(std::ranges::equal(whole.video->configuration, asBytes(kRecord)));
  EXPECT_EQ(whole.audio->sampleRate, 48000u);
  EXPECT_EQ(whole.audio->configuration, memoryOrder(0x11, 0x90));
  ASSERT_EQ(whole.samples.size(), given.size());
  const std::vector<char> file = test::readBytes(dataPath);
  for (size_t i = 0; i < given.size(); ++i) {
    const auto& s = whole.samples[i];
    EXPECT_EQ(std::tie(s.audio, s.key, s.time, s.size), std::tie(given[i].audio, given[i].key, given[i].time, given[i].size));
    ASSERT_LE(s.position + s.size, file.size());
    EXPECT_TRUE(std::equal(payloads[i].begin(), payloads[i].end(), file.begin() + static_cast<ptrdiff_t>(s.position),
                           [](uint8_t a, char b) { return a == static_cast<uint8_t>(b); }))
        << "sample " << i;
  }
  for (const auto& [records, inFile] : moments) {
    for (size_t i = records; i < given.size(); ++i) {
      EXPECT_GT(whole.samples[i].position + whole.samples[i].size, inFile)
          << "sample " << i << " was in the file without its record";
    }
  }
}

// A buffer smaller than one sample, a few samples, and a megabyte (the
// writer's, where only key frames send the data to the file).
INSTANTIATE_TEST_SUITE_P(Buffers, MP4JournalTest, ::testing::Values(256, 16384, 0x100000));

// A journal cut anywhere reads as the records before the cut; one that is not
// a journal, or holds a record of no known kind, does not read.
TEST(MP4JournalReadTest, CutJournalReadsAsItsWholeRecords) {
  std::vector<std::byte> bytes;
  mp4journal::appendMark(bytes);
  mp4journal::appendVideo(bytes, {640, 360, 30000, {std::byte{1}, std::byte{2}}});
  for (uint32_t i = 0; i < 5; ++i) mp4journal::appendSample(bytes, {i == 3, i == 0, i * 33, 56 + i * 100u, 100});
  std::vector<size_t> counts;
  for (size_t cut = 4; cut <= bytes.size(); ++cut) {
    mp4journal::Journal journal;
    std::string error;
    ASSERT_TRUE(mp4journal::read(std::span(bytes).first(cut), journal, error)) << cut << ": " << error;
    counts.push_back(journal.samples.size());
    for (size_t i = 0; i < journal.samples.size(); ++i) {
      EXPECT_EQ(journal.samples[i].time, i * 33);
      EXPECT_EQ(journal.samples[i].audio, i == 3);
    }
  }
  EXPECT_TRUE(std::is_sorted(counts.begin(), counts.end()));
  EXPECT_EQ(counts.back(), 5u);

  for (const std::string& broken : {std::string("KMJ"), std::string("MOOV") + 's', std::string("KMJ1") + 'x'}) {
    mp4journal::Journal journal;
    std::string error;
    EXPECT_FALSE(mp4journal::read(std::as_bytes(std::span(broken)), journal, error)) << broken;
    EXPECT_FALSE(error.empty());
  }
}

}  // namespace
}  // namespace kestrium
