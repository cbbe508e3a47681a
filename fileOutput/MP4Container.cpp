#include "fileOutput/MP4Container.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "server/Log.h"

namespace kestrium {

namespace {

// Seconds from 1904, where MP4 times begin, to 1970.
constexpr uint64_t kSeconds1904To1970 = 2082844800;
constexpr uint32_t kMatrix[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};
constexpr uint32_t kLanguageUnd = 0x55C40000;
constexpr uint32_t kLanguageEng = 0x15C70000;

uint32_t readB16(std::span<const std::byte> data, size_t at) {
  return (std::to_integer<uint32_t>(data[at]) << 8) | std::to_integer<uint32_t>(data[at + 1]);
}

// Boxes are opened by writing a zero size and their code, and closed by
// patching the size, innermost first.
class BoxWriter {
 public:
  explicit BoxWriter(std::vector<std::byte>& target) : out(target) {}

  void open(std::string_view code) {
    starts_.push_back(out.tell());
    out.wb32(0);
    out.fourcc(code);
  }
  void openFull(std::string_view code, uint32_t versionAndFlags) {
    open(code);
    out.wb32(versionAndFlags);
  }
  void close() {
    const uint64_t start = starts_.back();
    starts_.pop_back();
    out.patchB32(start, static_cast<uint32_t>(out.tell() - start));
  }
  void matrix() {
    for (uint32_t v : kMatrix) out.wb32(v);
  }

  BufferOutputSerializer out;

 private:
  std::vector<uint64_t> starts_;
};

// One track's chunks: a chunk is a run of samples of the track with nothing of
// the other track between them.
void chunkTables(std::span<const MP4Sample> samples, std::span<const std::pair<size_t, uint32_t>> merged,
                 MP4Container::TrackTables& t, uint32_t& lastChunkCount) {
  uint64_t chunkPosition = 0, expected = 0;
  uint32_t count = 0;
  auto nextMerged = merged.begin();
  auto endChunk = [&] {
    t.chunkOffsets.push_back(chunkPosition);
    if (t.stsc.empty() || t.stsc.back().second != count) {
      t.stsc.emplace_back(static_cast<uint32_t>(t.chunkOffsets.size()), count);
    }
  };
  for (size_t i = 0; i < samples.size(); ++i) {
    const MP4Sample& s = samples[i];
    if (i == 0) {
      chunkPosition = s.position;
      count = 1;
    } else if (s.position != expected) {
      endChunk();
      chunkPosition = s.position;
      count = 1;
    } else {
      ++count;
    }
    // A sample that took a second write for its instant ends its chunk where
    // its first write ended.
    uint32_t size = s.size;
    if (nextMerged != merged.end() && nextMerged->first == i) size = (nextMerged++)->second;
    expected = s.position + size;
  }
  if (!samples.empty()) endChunk();
  lastChunkCount = count;
}

void sttsStep(std::vector<std::pair<uint32_t, uint32_t>>& stts, uint32_t delta) {
  if (!stts.empty() && stts.back().second == delta) {
    ++stts.back().first;
  } else {
    stts.emplace_back(1, delta);
  }
}

// The sample's closing entry: the last sample plays as long as the one before.
// Only a track whose last chunk holds more than one sample gets it.
void closingEntry(MP4Container::TrackTables& t, uint32_t lastChunkCount) {
  if (lastChunkCount > 1 && !t.stts.empty()) ++t.stts.back().first;
}

void sampleTables(BoxWriter& box, const MP4Container::TrackTables& t, std::span<const MP4Sample> samples,
                  std::span<const uint32_t> sync, bool video) {
  box.openFull("stts", 0);
  box.out.wb32(static_cast<uint32_t>(t.stts.size()));
  for (auto [count, delta] : t.stts) {
    box.out.wb32(count);
    box.out.wb32(delta);
  }
  box.close();
  if (video) {
    box.openFull("stss", 0);
    box.out.wb32(static_cast<uint32_t>(sync.size()));
    for (uint32_t number : sync) box.out.wb32(number);
    box.close();
  }
  box.openFull("stsc", 0);
  box.out.wb32(static_cast<uint32_t>(t.stsc.size()));
  for (auto [first, perChunk] : t.stsc) {
    box.out.wb32(first);
    box.out.wb32(perChunk);
    box.out.wb32(1);
  }
  box.close();
  box.openFull("stsz", 0);
  box.out.wb32(0);
  box.out.wb32(static_cast<uint32_t>(samples.size()));
  for (const MP4Sample& s : samples) box.out.wb32(s.size);
  box.close();
  // 64-bit offsets only where a track needs them, so that files under 4 GiB
  // stay as every reader knows them.
  const bool wide = !t.chunkOffsets.empty() && t.chunkOffsets.back() > 0xFFFFFFFFu;
  box.openFull(wide ? "co64" : "stco", 0);
  box.out.wb32(static_cast<uint32_t>(t.chunkOffsets.size()));
  for (uint64_t offset : t.chunkOffsets) {
    if (wide) {
      box.out.wb64(offset);
    } else {
      box.out.wb32(static_cast<uint32_t>(offset));
    }
  }
  box.close();
}

void dataReference(BoxWriter& box) {
  box.open("dinf");
  box.openFull("dref", 0);
  box.out.wb32(1);
  box.openFull("url ", 1);  // the data is in this file
  box.close();
  box.close();
  box.close();
}

void trackHeader(BoxWriter& box, uint32_t created, uint32_t id, uint32_t duration, uint16_t volume, uint32_t width,
                 uint32_t height) {
  box.openFull("tkhd", 7);  // enabled, in the movie, in the preview
  box.out.wb32(created);
  box.out.wb32(created);
  box.out.wb32(id);
  box.out.wb32(0);
  box.out.wb32(duration);
  box.out.zeros(8);
  box.out.wb16(0);  // layer
  box.out.wb16(0);  // alternate group
  box.out.wb16(volume);
  box.out.wb16(0);
  box.matrix();
  box.out.wb32(width << 16);
  box.out.wb32(height << 16);
  box.close();
}

void mediaHeader(BoxWriter& box, uint32_t created, uint32_t timescale, uint32_t duration, uint32_t language) {
  box.openFull("mdhd", 0);
  box.out.wb32(created);
  box.out.wb32(created);
  box.out.wb32(timescale);
  box.out.wb32(duration);
  box.out.wb32(language);
  box.close();
}

void handler(BoxWriter& box, std::string_view type, std::string_view name) {
  box.openFull("hdlr", 0);
  box.out.wb32(0);
  box.out.fourcc(type);
  box.out.zeros(12);
  box.out.write(std::as_bytes(std::span(name.data(), name.size())));
  box.out.w8(0);
  box.close();
}

}  // namespace

MP4Container::MP4Container(Clock clock) : clock_(std::move(clock)) {
  if (!clock_) {
    clock_ = [] {
      return static_cast<uint64_t>(
          std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
              .count());
    };
  }
}

MP4Container::~MP4Container() = default;

int MP4Container::open(platform::File file) {
  if (!file.isOpen()) return 0;
  return open(std::make_unique<XFileOutputSerializer>(std::move(file)));
}

int MP4Container::open(std::unique_ptr<Serializer> sink) {
  if (!sink) return 0;
  sink_ = std::move(sink);
  Serializer& out = *sink_;
  out.wb32(32);
  out.fourcc("ftyp");
  out.fourcc("isom");
  out.wb32(0x00000200);
  for (std::string_view brand : {"isom", "iso2", "avc1", "mp41"}) out.fourcc(brand);
  out.wb32(8);
  out.fourcc("free");
  mdatPosition_ = out.tell();
  // Size 1: the real size is the 64-bit field behind the code, patched at the
  // end. Until then it is 0, which says "to the end of the file" to a reader
  // that finds the file of a recording that never ended.
  out.wb32(1);
  out.fourcc("mdat");
  out.wb64(0);
  open_ = out.ok();
  return open_ ? 1 : 0;
}

bool MP4Container::setVideoTrack(uint32_t width, uint32_t height, uint32_t frameRate,
                                 std::span<const std::byte> extraData) {
  width_ = width;
  height_ = height;
  frameRate_ = frameRate;
  sps_.clear();
  pps_.clear();
  // configurationVersion, profile, compatibility, level, length size, SPS count,
  // then each set behind its 16-bit length.
  if (extraData.size() < 8) return false;
  const size_t spsLength = readB16(extraData, 6);
  if (extraData.size() < 11 + spsLength) return false;
  const size_t ppsLength = readB16(extraData, 9 + spsLength);
  if (extraData.size() < 11 + spsLength + ppsLength) return false;
  const auto* bytes = reinterpret_cast<const uint8_t*>(extraData.data());
  sps_.assign(bytes + 8, bytes + 8 + spsLength);
  pps_.assign(bytes + 11 + spsLength, bytes + 11 + spsLength + ppsLength);
  if (journal_) {
    mp4journal::appendVideo(journalRecords_,
                            {width, height, frameRate, std::vector<std::byte>(extraData.begin(), extraData.end())});
    writeJournal(true);
  }
  return true;
}

void MP4Container::setAudioTrack(bool mp3, uint32_t sampleRate, uint32_t bitrate, uint32_t samplesPerFrame,
                                 uint16_t configuration) {
  mp3_ = mp3;
  sampleRate_ = sampleRate;
  bitrate_ = bitrate;
  samplesPerFrame_ = samplesPerFrame;
  std::memcpy(configuration_, &configuration, 2);
  // Without a rate or a frame length no sample could be given a time.
  audioSet_ = sampleRate != 0 && samplesPerFrame != 0 && bitrate / 1000 != 0;
  if (journal_ && audioSet_) {
    mp4journal::appendAudio(journalRecords_, {mp3, sampleRate, bitrate, samplesPerFrame, configuration});
    writeJournal(true);
  }
}

void MP4Container::keepJournal(std::unique_ptr<Serializer> journal) {
  journal_ = std::move(journal);
  journalRecords_.clear();
  // The head goes to the file at once: a file that a repair can recognise.
  if (journal_ && sink_) sink_->flush();
  if (journal_) mp4journal::appendMark(journalRecords_);
  writeJournal(true);
}

void MP4Container::note(bool audio, bool key, uint32_t time, uint64_t position, size_t size) {
  if (!journal_) return;
  mp4journal::appendSample(journalRecords_, {audio, key, time, position, static_cast<uint32_t>(size)});
  writeJournal(false);
}

void MP4Container::writeJournal(bool now) {
  // The records go out with the data they describe: when the file's buffer has
  // gone to the file, every sample in it has its record written too. A record
  // may come before its data; the repair leaves out what the file lacks.
  if (!journal_ || journalRecords_.empty() || (!now && sink_ && sink_->durable() == journaledData_)) return;
  if (sink_) journaledData_ = sink_->durable();
  journal_->write(journalRecords_);
  journal_->flush();
  journalRecords_.clear();
}

int MP4Container::addSample(uint32_t track, uint32_t time, std::span<const std::byte> data, bool key) {
  writeSample(data, time, track != 0 ? kAudio : (key ? kKey : kVideo));
  return 1;
}

void MP4Container::writeSample(std::span<const std::byte> data, uint32_t time, int kind) {
  if (!open_ || !sink_->ok()) return;
  if (kind == kAudio) {
    writeAudio(data, time);
  } else {
    writeVideo(data, time, kind == kKey);
  }
}

void MP4Container::writeVideo(std::span<const std::byte> data, uint32_t time, bool key) {
  Serializer& out = *sink_;
  if (key && journal_) {
    // A file with a journal is repairable up to what is in it: each key frame
    // sends what came before to the file, so that a server that dies loses at
    // most the group of pictures it was writing, not a megabyte of buffer.
    out.flush();
    writeJournal(false);
  }
  const uint64_t position = out.tell();
  if (firstVideoTime_ == 0xFFFFFFFF) firstVideoTime_ = time;
  if (key) {
    // Empty sets would be NAL units of no length, which decoders reject.
    for (const auto* set : {&sps_, &pps_}) {
      if (set->empty()) continue;
      out.wb32(static_cast<uint32_t>(set->size()));
      out.bytes(*set);
    }
  }
  const uint64_t dataPosition = out.tell();
  out.write(data);
  if (!out.ok()) return;
  note(false, key, time, dataPosition, data.size());
  const auto size = static_cast<uint32_t>(out.tell() - position);
  uint32_t relative = time - firstVideoTime_;
  if (time < firstVideoTime_ || (!video_.empty() && relative < lastRelativeTime_)) {
    // A clock that went back: the frame plays right after the one before
    // instead of making a time that no table can hold.
    if (timesBack_++ == 0) {
      logLine(u"[Warning] *** MP4 *** Video time %u ms comes before the frame before it\n", time);
    }
    relative = lastRelativeTime_ + 1;
  }
  if (!video_.empty() && relative == lastRelativeTime_) {
    // A second write for one instant is part of the same sample.
    if (merged_.empty() || merged_.back().first != video_.size() - 1) {
      merged_.emplace_back(video_.size() - 1, video_.back().size);
    }
    video_.back().size += size;
    return;
  }
  if (key) sync_.push_back(static_cast<uint32_t>(video_.size() + 1));
  video_.push_back({position, size, relative});
  lastRelativeTime_ = relative;
}

void MP4Container::writeAudio(std::span<const std::byte> data, uint32_t time) {
  if (!audioSet_) {
    if (audioDropped_++ == 0) {
      logLine(u"[Error]   *** MP4 *** Audio sample without an audio track: the file keeps no sound\n");
    }
    return;
  }
  Serializer& out = *sink_;
  const uint64_t position = out.tell();
  out.write(data);
  if (!out.ok()) return;
  note(true, false, time, position, data.size());
  audio_.push_back({position, static_cast<uint32_t>(data.size()), time});
}

MP4Container::TrackTables MP4Container::videoTables() const {
  TrackTables t;
  uint32_t lastChunkCount = 0;
  chunkTables(video_, merged_, t, lastChunkCount);
  for (size_t i = 1; i < video_.size(); ++i) sttsStep(t.stts, video_[i].time - video_[i - 1].time);
  closingEntry(t, lastChunkCount);
  return t;
}

MP4Container::TrackTables MP4Container::audioTables() const {
  TrackTables t;
  uint32_t lastChunkCount = 0;
  chunkTables(audio_, {}, t, lastChunkCount);
  // The track follows the clock: where sound is missing, the sample before
  // the gap lasts longer, so that the samples after it stay at their times
  // instead of moving forward. A packet's time is that of its first sound,
  // to the millisecond and as the encoder saw it, which may run up to a frame
  // ahead of the count; only a whole frame ahead is a gap. (The end of a
  // packet by the bit rate is no clock: AAC packets vary in size, and each
  // large one would stretch a sample for sound that was never missing.)
  const uint64_t f = samplesPerFrame_;
  uint64_t& p = t.audioPosition;
  for (size_t n = 1; n < audio_.size(); ++n) {
    uint64_t next = p + f;
    const uint64_t clock = uint64_t{sampleRate_} * audio_[n].time / 1000;
    if (clock >= next + f && clock <= 0xFFFFFFFFu) next = clock;
    sttsStep(t.stts, static_cast<uint32_t>(next - p));
    p = next;
  }
  closingEntry(t, lastChunkCount);
  return t;
}

std::vector<std::byte> MP4Container::buildMoov(uint64_t secondsSince1970) const {
  const auto created = static_cast<uint32_t>(secondsSince1970 + kSeconds1904To1970);
  const uint32_t frameMs = frameRate_ != 0 ? 1000000 / frameRate_ : 0;
  const uint32_t duration = lastRelativeTime_ + frameMs;
  const TrackTables video = videoTables();
  const bool withAudio = !audio_.empty();
  const TrackTables audio = withAudio ? audioTables() : TrackTables{};

  std::vector<std::byte> moov;
  moov.reserve(0x20000 + 20 * (video_.size() + audio_.size()));
  BoxWriter box(moov);
  Serializer& out = box.out;
  box.open("moov");

  box.openFull("mvhd", 0);
  out.wb32(created);
  out.wb32(created);
  out.wb32(1000);
  out.wb32(duration);
  out.wb32(0x00010000);
  out.wb16(0x0100);
  out.zeros(10);
  box.matrix();
  out.zeros(24);
  out.wb32(3);
  box.close();

  if (withAudio) {
    box.open("trak");
    trackHeader(box, created, 1, lastRelativeTime_, 0x0100, 0, 0);
    box.open("mdia");
    mediaHeader(box, created, sampleRate_, static_cast<uint32_t>(audio.audioPosition),
                mp3_ ? kLanguageUnd : kLanguageEng);
    handler(box, "soun", "Audio track");
    box.open("minf");
    box.openFull("smhd", 0);
    out.wb32(0);
    box.close();
    dataReference(box);
    box.open("stbl");
    box.openFull("stsd", 0);
    out.wb32(1);
    box.open("mp4a");
    out.zeros(6);
    out.wb16(1);
    out.wb16(0);
    out.wb16(0);
    out.wb32(0);
    out.wb16(0);  // channels: readers take them from the stream
    out.wb16(16);
    out.wb16(0);
    out.wb16(0);
    out.wb32((sampleRate_ & 0xFFFF) << 16);
    // The descriptors nest: each length covers those inside it, so the
    // innermost is made first.
    std::vector<std::byte> decoderConfig;
    {
      BufferOutputSerializer d(decoderConfig);
      const uint32_t rate = bitrate_ / 1000 * 1000;
      d.w8(mp3_ ? 0x6B : 0x40);
      d.w8(0x15);
      d.wb24(0x000600);
      d.wb32(rate);
      d.wb32(rate);
      d.w8(5);
      d.w8(2);
      d.bytes(configuration_);
    }
    box.openFull("esds", 0);
    out.w8(3);
    out.w8(static_cast<uint8_t>(3 + 2 + decoderConfig.size() + 3));
    out.wb16(0);
    out.w8(0);
    out.w8(4);
    out.w8(static_cast<uint8_t>(decoderConfig.size()));
    out.write(decoderConfig);
    out.w8(6);
    out.w8(1);
    out.w8(2);
    box.close();
    box.close();  // mp4a
    box.close();  // stsd
    sampleTables(box, audio, audio_, {}, false);
    box.close();  // stbl
    box.close();  // minf
    box.close();  // mdia
    box.close();  // trak
  }

  box.open("trak");
  trackHeader(box, created, 2, duration, 0, width_, height_);
  box.open("mdia");
  mediaHeader(box, created, 1000, duration, kLanguageUnd);
  handler(box, "vide", "Video track");
  box.open("minf");
  box.openFull("vmhd", 1);
  out.zeros(8);
  box.close();
  dataReference(box);
  box.open("stbl");
  box.openFull("stsd", 0);
  out.wb32(1);
  box.open("avc1");
  out.zeros(6);
  out.wb16(1);
  out.wb16(0);
  out.wb16(0);
  out.zeros(12);
  out.wb16(static_cast<uint16_t>(width_));
  out.wb16(static_cast<uint16_t>(height_));
  out.wb32(0x00480000);
  out.wb32(0x00480000);
  out.wb32(0);
  out.wb16(1);
  static constexpr char kCompressor[] = "H.264/AVC";
  out.w8(sizeof kCompressor - 1);
  out.write(std::as_bytes(std::span(kCompressor, sizeof kCompressor - 1)));
  out.zeros(31 - (sizeof kCompressor - 1));
  out.wb16(0x0018);
  out.wb16(0xFFFF);
  box.open("avcC");
  out.bytes(std::to_array<uint8_t>({1, 0x64, 0x00, 0x1F, 0xFF, 0xE1}));
  out.wb16(static_cast<uint16_t>(sps_.size()));
  out.bytes(sps_);
  out.w8(1);
  out.wb16(static_cast<uint16_t>(pps_.size()));
  out.bytes(pps_);
  box.close();  // avcC
  box.close();  // avc1
  box.close();  // stsd
  sampleTables(box, video, video_, sync_, true);
  box.close();  // stbl
  box.close();  // minf
  box.close();  // mdia
  box.close();  // trak

  box.open("udta");
  box.openFull("meta", 0);
  box.openFull("hdlr", 0);
  out.wb32(0);
  out.fourcc("mdir");
  out.fourcc("appl");
  out.wb32(0);
  out.wb32(0);
  out.w8(0);
  box.close();
  box.open("ilst");
  box.open("\xA9too");
  box.open("data");
  out.wb32(1);  // UTF-8
  out.wb32(0);
  out.fourcc("Kest");
  out.fourcc("rium");
  box.close();
  box.close();
  box.close();
  box.close();  // meta
  box.close();  // udta

  box.close();  // moov
  return moov;
}

void MP4Container::dropLostSamples(uint64_t durable) {
  auto lost = [durable](const MP4Sample& s) { return s.position + s.size > durable; };
  while (!video_.empty() && lost(video_.back())) video_.pop_back();
  while (!audio_.empty() && lost(audio_.back())) audio_.pop_back();
  while (!sync_.empty() && sync_.back() > video_.size()) sync_.pop_back();
  while (!merged_.empty() && merged_.back().first >= video_.size()) merged_.pop_back();
  lastRelativeTime_ = video_.empty() ? 0 : video_.back().time;
}

uint64_t MP4Container::cutTo(uint64_t limit) {
  dropLostSamples(limit);
  uint64_t end = mdatPosition_ + kMdatHeaderSize;
  for (const auto* track : {&video_, &audio_}) {
    if (!track->empty()) end = std::max(end, track->back().position + track->back().size);
  }
  sink_->truncate(end);
  return end;
}

int MP4Container::finalize() {
  if (!open_) return 0;
  open_ = false;
  Serializer& out = *sink_;
  uint64_t mdatEnd = out.tell();
  // After a failed write the tables keep what is wholly in the file, and the
  // file is cut behind it: that frees what the failed write left.
  if (!out.ok()) mdatEnd = cutTo(out.durable());
  if (timesBack_ > 1) logLine(u"[Warning] *** MP4 *** %u video times came before the frame before them\n", timesBack_);
  if (audioDropped_ > 1) logLine(u"[Warning] *** MP4 *** %u audio samples had no track\n", audioDropped_);

  const uint64_t now = clock_();
  for (int attempt = 0;; ++attempt) {
    const std::vector<std::byte> moov = buildMoov(now);
    out.write(moov);
    if (out.flush()) break;
    const uint32_t error = out.error();
    if (attempt == 2 || !out.truncate(mdatEnd)) {
      logLine(u"[Error]   *** MP4 *** The index could not be written (error %u): the file holds its data without it\n",
              error);
      out.truncate(mdatEnd);
      break;
    }
    // A full disk: a file without its index plays nowhere, so the last
    // samples give way to it, with room to spare for its growth.
    const size_t frames = video_.size();
    const uint64_t room = moov.size() + 0x10000;
    mdatEnd = cutTo(mdatEnd > room ? mdatEnd - room : 0);
    logLine(u"[Warning] *** MP4 *** The disk is full (error %u): the last %u frames give way to the index\n", error,
            static_cast<uint32_t>(frames - video_.size()));
  }
  // The size of "mdat" last: a file with it set has its index behind the data.
  out.seek(static_cast<int64_t>(mdatPosition_ + 8), Serializer::Origin::Begin);
  out.wb64(mdatEnd - mdatPosition_);
  out.close();
  // The file has its index: its owner removes the journal, whole.
  writeJournal(true);
  if (journal_) journal_->close();
  journal_.reset();
  return 1;
}

}  // namespace kestrium
