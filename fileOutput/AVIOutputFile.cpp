#include "fileOutput/AVIOutputFile.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>

#include "platform/System.h"
#include "server/Log.h"

namespace kestrium {

namespace {

constexpr int64_t k4GiB = int64_t{1} << 32;
constexpr uint32_t kMoviPlaceholder = 0x7FFFFFFF;
constexpr size_t kDmlhSize = 248;
constexpr size_t kEntriesPerBatch = 64;

// Appends little-endian values and codes to a byte vector.
class Bytes {
 public:
  explicit Bytes(std::vector<std::byte>& out) : out_(out) {}
  int64_t size() const { return static_cast<int64_t>(out_.size()); }
  void raw(const void* p, size_t n) {
    const auto* b = static_cast<const std::byte*>(p);
    out_.insert(out_.end(), b, b + n);
  }
  void u8(uint8_t v) { raw(&v, 1); }
  void u16(uint16_t v) { raw(&v, 2); }
  void u32(uint32_t v) { raw(&v, 4); }
  void u64(uint64_t v) { raw(&v, 8); }
  void code(const char (&c)[5]) { u32(fourcc(c)); }
  void zeros(size_t n) { out_.insert(out_.end(), n, std::byte{0}); }
  // A "LIST" with its type; returns where its size goes.
  int64_t beginList(const char (&type)[5]) {
    code("LIST");
    const int64_t at = size();
    u32(0);
    code(type);
    return at;
  }
  void endList(int64_t sizeAt) {
    const uint32_t listSize = static_cast<uint32_t>(size() - sizeAt - 4);
    std::memcpy(out_.data() + sizeAt, &listSize, 4);
  }

 private:
  std::vector<std::byte>& out_;
};

uint32_t mulDiv(uint32_t a, uint32_t b, uint32_t c) {
  if (c == 0) return 0xFFFFFFFFu;
  return static_cast<uint32_t>((uint64_t{a} * b + c / 2) / c);
}

}  // namespace

void AVIVideoOutputStream::write(uint32_t flags, std::span<const std::byte> data, uint32_t count,
                                 uint32_t /*streamNumber*/) {
  owner_->writeChunk(chunkId, flags, data);
  // The header counts only what the file holds.
  if (!owner_->failed()) samples += count;
}

int AVIVideoOutputStream::finalize() {
  header.dwLength = samples != 0 ? samples : 1;
  return 1;
}

void AVIAudioOutputStream::write(uint32_t flags, std::span<const std::byte> data, uint32_t /*samples*/,
                                 uint32_t streamNumber) {
  owner_->writeChunk(audioChunkId(streamNumber), flags, data);
  if (!owner_->failed()) {
    bytes += data.size();
    ++chunks;
  }
}

int AVIAudioOutputStream::finalize() {
  // A stream of whole frames (no sample size): one chunk is one frame, and its
  // scale and rate stay those of a frame.
  if (header.dwSampleSize == 0) {
    header.dwLength = chunks != 0 ? static_cast<uint32_t>(chunks) : 1;
    return 1;
  }
  // The format's block size and byte rate give the stream its length and rate.
  uint16_t blockAlign = 0;
  uint32_t avgBytes = 0;
  if (format.size() >= 14) {
    std::memcpy(&avgBytes, format.data() + 8, 4);
    std::memcpy(&blockAlign, format.data() + 12, 2);
  }
  header.dwLength = bytes != 0 && blockAlign != 0 ? static_cast<uint32_t>(bytes / blockAlign) : 1;
  header.dwRate = avgBytes;
  header.dwScale = blockAlign;
  return 1;
}

AVIOutputFile::AVIOutputFile(int64_t segmentLimit) : segmentLimit_(segmentLimit) {}

AVIOutputFile::~AVIOutputFile() {
  if (!open_) return;
  // Never finalized: the file keeps what was written and the sizes of init.
  file_.seek(highest_);
  file_.setEndOfFile();
  file_.close();
}

int AVIOutputFile::initOutputStreams() {
  video_ = std::make_unique<AVIVideoOutputStream>(this);
  for (auto& stream : audio_) stream = std::make_unique<AVIAudioOutputStream>(this);
  return 1;
}

AVIOutputStream* AVIOutputFile::streamAt(int index) const {
  return index == 0 ? static_cast<AVIOutputStream*>(video_.get()) : audio_[index - 1].get();
}

void AVIOutputFile::fail(const char16_t* what, uint32_t error) {
  if (failed_) return;
  failed_ = true;
  // The file keeps every whole chunk written before; finalize makes the rest of
  // it as readable as the disk allows. The other captures go on.
  if (error != 0) {
    logLine(u"[Error]   *** AVI *** %s (error %u): the recording of this file ends\n", what, error);
  } else {
    logLine(u"[Error]   *** AVI *** %s: the recording of this file ends\n", what);
  }
}

void AVIOutputFile::writeBytes(std::span<const std::byte> bytes) {
  if (failed_) return;
  if (!file_.write(bytes)) {
    fail(u"Writing the file failed", platform::lastError());
    return;
  }
  position_ += static_cast<int64_t>(bytes.size());
  highest_ = std::max(highest_, position_);
}

void AVIOutputFile::patch32(int64_t at, uint32_t v) {
  // In place: it needs no room, so it is tried even after a failed append.
  if (!file_.writeAt(static_cast<uint64_t>(at), std::as_bytes(std::span(&v, 1)))) {
    fail(u"Patching a size failed", platform::lastError());
  }
}

int AVIOutputFile::init(const std::filesystem::path& fileName, uint32_t width, uint32_t height, int hasVideo,
                        uint32_t audioMask, uint32_t bufferSize, int interleaved) {
  // Streams that were never made refuse the file before it is created: a refused
  // init leaves nothing on the disk.
  if (!video_) return 0;
  platform::File file;
  if (!file.open(fileName, platform::File::Mode::CreateAlways, platform::File::Share::Exclusive)) {
    // The path comes from the client: a folder that cannot be made refuses this
    // capture, not the server and its other captures.
    logLine(u"Cannot create file %d\r\n", platform::lastError());
    return 0;
  }
  return init(std::move(file), fileName, width, height, hasVideo, audioMask, bufferSize, interleaved);
}

int AVIOutputFile::init(platform::File file, const std::filesystem::path& fileName, uint32_t width, uint32_t height,
                        int /*hasVideo*/, uint32_t audioMask, uint32_t /*bufferSize*/, int interleaved) {
  if (!video_ || !file.isOpen()) return 0;
  for (int i = 0; i < kAudioStreams; ++i) {
    if ((audioMask >> i) & 1) {
      if (!audio_[i]) return 0;
    } else {
      audio_[i].reset();
    }
  }
  onFat_ = platform::isFatVolume(fileName.parent_path());
  file_ = std::move(file);
  failed_ = false;

  mainHeader_ = {};
  mainHeader_.dwMicroSecPerFrame = mulDiv(video_->header.dwScale, 1000000, video_->header.dwRate);
  mainHeader_.dwFlags = interleaved != 0 ? kAvifInterleavedFlags : kAvifFlags;
  mainHeader_.dwTotalFrames = video_->header.dwLength;
  mainHeader_.dwStreams = 1 + static_cast<uint32_t>(std::popcount(audioMask & 0xFFFFu));
  mainHeader_.dwWidth = width;
  mainHeader_.dwHeight = height;

  buildHeader();
  writeBytes(header_);
  if (failed_) {
    file_.close();
    return 0;
  }
  open_ = true;
  legacyIndex_ = std::make_unique<AVIIndex>();
  openSegment();
  wholeEnd_ = position_;
  sizeEstimate_ = file_.size() > 0 ? file_.size() : 0;
  return 1;
}

void AVIOutputFile::buildHeader() {
  header_.clear();
  // Room for the largest header: 17 stream lists with their reservations.
  header_.reserve(0x10000 + kStreams * (kReservation + 200));
  Bytes b(header_);
  b.code("RIFF");
  b.u32(0);
  b.code("AVI ");
  const int64_t hdrl = b.beginList("hdrl");
  b.code("avih");
  b.u32(sizeof mainHeader_);
  avihAt_ = b.size();
  b.raw(&mainHeader_, sizeof mainHeader_);
  for (int s = 0; s < kStreams; ++s) {
    const AVIOutputStream* stream = streamAt(s);
    if (stream == nullptr) continue;
    const int64_t strl = b.beginList("strl");
    b.code("strh");
    b.u32(sizeof(AVIStreamHeader));
    strhAt_[s] = b.size();
    b.raw(&stream->header, sizeof stream->header);
    b.code("strf");
    b.u32(static_cast<uint32_t>(stream->format.size()));
    strfAt_[s] = b.size();
    b.raw(stream->format.data(), stream->format.size());
    if (stream->format.size() % 2 != 0) b.u8(0);
    // Room for a super-index, in case the file grows past its first RIFF.
    reservationAt_[s] = b.size();
    b.code("JUNK");
    b.u32(kReservation - 8);
    b.zeros(kReservation - 8);
    b.endList(strl);
  }
  const int64_t odml = b.beginList("odml");
  b.code("dmlh");
  b.u32(kDmlhSize);
  dmlhAt_ = b.size();
  b.zeros(kDmlhSize);
  b.endList(odml);
  b.endList(hdrl);

  // Padding so that the movi list begins on a 2048-byte boundary.
  const uint32_t pad = static_cast<uint32_t>(-8 - b.size()) & 0x7FF;
  if (pad != 0) {
    b.code("JUNK");
    b.u32(pad);
    if (pad > 80) {
      static constexpr char kText[] = "AVI AVI AVI AVI ";
      b.raw(kText, sizeof kText);  // with its terminating zero
      b.zeros(pad - sizeof kText);
    } else {
      b.zeros(pad);
    }
  }
}

void AVIOutputFile::openSegment() {
  const int k = segmentCount_;
  if (k >= kMaxSegments) {
    fail(u"The file would pass 64 segments", 0);
    return;
  }
  if (k > 0) {
    riffPosition_[k] = position_;
    std::vector<std::byte> head;
    Bytes b(head);
    b.code("RIFF");
    b.u32(static_cast<uint32_t>(kSegmentLimit));
    b.code("AVIX");
    b.code("LIST");
    b.u32(static_cast<uint32_t>(kSegmentLimit));
    b.code("movi");
    writeBytes(head);
    moviPosition_[k] = position_ - 12;
  } else {
    riffPosition_[0] = 0;
    moviPosition_[0] = position_;
    std::vector<std::byte> head;
    Bytes b(head);
    b.code("LIST");
    b.u32(kMoviPlaceholder);
    b.code("movi");
    writeBytes(head);
  }
}

void AVIOutputFile::closeSegment(bool withIndex) {
  const int k = segmentCount_;
  moviSize_[k] = position_ - moviPosition_[k] - 8;
  if (k == 0) {
    // The first RIFF's own frame count; dmlh holds the whole file's.
    mainHeader_.dwTotalFrames = video_->samples;
    if (legacyIndex_ && withIndex) {
      writeLegacyIndex();
      legacyIndex_.reset();
    }
  }
  riffSize_[k] = position_ - riffPosition_[k] - 8;
  ++segmentCount_;
  segmentBytes_ = 0;
}

void AVIOutputFile::writeLegacyIndex() {
  const uint64_t count = legacyIndex_->count();
  std::vector<AVIIndexEntry> entries = legacyIndex_->flatten();
  if (entries.size() != count) {
    fail(u"No memory for the index", 0);
    return;
  }
  std::vector<std::byte> out;
  out.reserve(8 + 16 * entries.size());
  Bytes b(out);
  b.code("idx1");
  b.u32(static_cast<uint32_t>(16 * entries.size()));
  for (const AVIIndexEntry& e : entries) {
    b.u32(e.chunkId);
    b.u32((e.size & kAviNotKeyFrameBit) != 0 ? 0 : kAviKeyFrame);
    b.u32(static_cast<uint32_t>(e.position));
    b.u32(e.size & ~kAviNotKeyFrameBit);
  }
  writeBytes(out);
}

void AVIOutputFile::estimateSize(uint32_t size, int64_t position) {
  int64_t blocks = 0;
  int64_t entries = 0;
  for (const StreamBook& book : books_) {
    entries += book.count;
    if (book.largestGap != 0) {
      const int64_t m = std::min<int64_t>(k4GiB / book.largestGap, 3072);
      blocks = (book.count - 1 + m) / m;  // only the last such stream's count is kept
    }
  }
  indexEstimate_ = blocks * 32 + 8 + 16 * entries;
  const int64_t end = indexEstimate_ + size + position + 6166;
  if (onFat_ && end >= k4GiB) fail(u"The file would pass 4 GiB on a FAT volume", 0);
  if (end > sizeEstimate_) sizeEstimate_ = end & ~int64_t{2047};
}

void AVIOutputFile::writeChunk(uint32_t chunkId, uint32_t flags, std::span<const std::byte> data) {
  if (failed_ || !open_) return;
  const int stream = chunkStream(chunkId);
  if (stream < 0 || stream >= kStreams || streamAt(stream) == nullptr) {
    // A caller's mistake costs that chunk, not the file.
    if (!warnedStream_) logLine(u"[Error]   *** AVI *** A chunk of a stream the file does not have is left out\n");
    warnedStream_ = true;
    return;
  }
  const uint32_t size = static_cast<uint32_t>(data.size());
  const int64_t share = size + (size & 1) + 16;
  const bool newSegment = segmentBytes_ + share > segmentLimit_;
  const int64_t position = newSegment ? position_ + 24 : position_;

  StreamBook& book = books_[stream];
  if (book.first == 0) book.first = position;
  book.largestGap = static_cast<int32_t>(std::max<int64_t>(book.largestGap, std::min<int64_t>(position - book.last, INT32_MAX)));
  ++book.count;
  book.last = position;
  estimateSize(size, position);
  if (failed_) return;

  if (newSegment) {
    closeSegment();
    openSegment();
  }
  const int64_t relative = position_ - moviPosition_[0] - 8;
  const uint32_t chunkHeader[2] = {chunkId, size};
  writeBytes(std::as_bytes(std::span(chunkHeader)));
  if (size != 0) writeBytes(data);
  if (size & 1) writeBytes(std::array<std::byte, 1>{});
  // Only a whole chunk is indexed: finalize cuts the file after the last one.
  if (failed_) return;
  segmentBytes_ += share;
  wholeEnd_ = position_;
  AVIStreamHeader& header = streamAt(stream)->header;
  header.dwSuggestedBufferSize = std::max(header.dwSuggestedBufferSize, size);

  const AVIIndexEntry entry{relative, chunkId, size | ((flags & kAviKeyFrame) != 0 ? 0 : kAviNotKeyFrameBit)};
  if (!indexes_[stream].add(entry) || (legacyIndex_ && !legacyIndex_->add(entry))) fail(u"No memory for the index", 0);
}

void AVIOutputFile::writeStandardIndexes(int stream, std::vector<std::byte>& superIndex) {
  if (indexes_[stream].count() == 0) return;
  const uint64_t count = indexes_[stream].count();
  std::vector<AVIIndexEntry> entries = indexes_[stream].flatten();
  if (entries.size() != count) {
    fail(u"No memory for the index", 0);
    return;
  }
  const uint32_t chunkId = entries.front().chunkId;
  // The index chunk takes its name and its stream from the chunks' id: "ix16"
  // for the chunks of "16wb".
  const AVIOutputStream* owner = streamAt(chunkStream(chunkId));
  const uint32_t sampleSize = owner->header.dwSampleSize;

  // The largest block size for which every group of entries lies within 4 GiB
  // of its first, as a standard index's 32-bit offsets need.
  size_t perBlock = 3072;
  for (;;) {
    bool fits = true;
    for (size_t g = 0; g < entries.size() && fits; g += perBlock) {
      for (size_t i = g; i < std::min(entries.size(), g + perBlock) && fits; ++i) {
        fits = entries[i].position - entries[g].position < k4GiB;
      }
    }
    if (fits || perBlock == 1) break;
    --perBlock;
  }

  const uint32_t ixCode = static_cast<uint32_t>('i') | (static_cast<uint32_t>('x') << 8) | ((chunkId & 0xFFFF) << 16);
  std::vector<std::byte> superEntries;
  Bytes super(superEntries);
  uint32_t blocks = 0;
  size_t next = 0;
  while (next < entries.size()) {
    if (blocks == kMaxIndexBlocks) {
      fail(u"A stream would need more than 256 index blocks", 0);
      return;
    }
    size_t n = std::min(entries.size() - next, perBlock);
    size_t within = 0;
    while (within < n && entries[next + within].position - entries[next].position < k4GiB) ++within;
    n = within;
    // The index block stays inside one RIFF.
    if (static_cast<int64_t>(8 * n) + segmentBytes_ + 32 > segmentLimit_) {
      closeSegment();
      openSegment();
    }
    const int64_t at = position_;
    const int64_t base = entries[next].position;
    std::vector<std::byte> out;
    out.reserve(32 + 8 * kEntriesPerBatch);
    Bytes b(out);
    b.u32(ixCode);
    b.u32(static_cast<uint32_t>(24 + 8 * n));
    b.u16(2);
    b.u8(0);
    b.u8(1);
    b.u32(static_cast<uint32_t>(n));
    b.u32(chunkId);
    b.u64(static_cast<uint64_t>(base));
    b.u32(0);
    writeBytes(out);
    for (size_t i = 0; i < n; i += kEntriesPerBatch) {
      out.clear();
      for (size_t j = i; j < std::min(n, i + kEntriesPerBatch); ++j) {
        const AVIIndexEntry& e = entries[next + j];
        b.u32(static_cast<uint32_t>(e.position - base + 16 + moviPosition_[0]));
        b.u32(e.size);
      }
      writeBytes(out);
    }
    segmentBytes_ += static_cast<int64_t>(8 * n) + 32;

    // Audio counts its duration in samples, from the block's first chunk alone.
    const uint32_t duration =
        sampleSize == 0 ? static_cast<uint32_t>(n)
                        : static_cast<uint32_t>(n * (entries[next].size & ~kAviNotKeyFrameBit) / sampleSize);
    super.u64(static_cast<uint64_t>(at));
    super.u32(static_cast<uint32_t>(8 * n + 32));
    super.u32(duration);
    ++blocks;
    next += n;
  }

  superIndex.clear();
  Bytes head(superIndex);
  head.code("indx");
  head.u32(kReservation - 8);
  head.u16(4);
  head.u8(0);
  head.u8(0);
  head.u32(blocks);
  head.u32(chunkId);
  head.zeros(12);
  head.raw(superEntries.data(), superEntries.size());
  head.zeros(kReservation - superIndex.size());
}

int AVIOutputFile::finalize() {
  if (!open_) return 1;
  int result = video_->finalize();
  for (auto& stream : audio_) {
    if (stream && stream->finalize() == 0) result = 0;
  }

  // After a failed write the file ends at its last whole chunk: whatever a write
  // left behind it goes, which also gives the indexes back some room.
  const bool failedBefore = failed_;
  const int segmentsAtEnd = segmentCount_;
  position_ = wholeEnd_;
  if (failedBefore) {
    file_.seek(position_);
    file_.setEndOfFile();
    // The indexes are worth a try: a full disk may have room for them now.
    failed_ = false;
  }
  std::array<std::vector<std::byte>, kStreams> superIndexes;
  if (segmentCount_ > 0) {
    for (int s = 0; s < kStreams && !failed_; ++s) {
      if (streamAt(s) != nullptr) writeStandardIndexes(s, superIndexes[s]);
    }
  }
  if (!failed_) closeSegment();
  if (failed_) {
    // No room for the indexes: the file keeps its chunks without them, and
    // readers find the chunks by walking the movi list.
    logLine(u"[Warning] *** AVI *** The file is left without its index\n");
    segmentCount_ = segmentsAtEnd;
    // A segment whose own header did not fit before the end holds nothing.
    while (segmentCount_ > 0 && riffPosition_[segmentCount_] + 24 > wholeEnd_) --segmentCount_;
    position_ = wholeEnd_;
    closeSegment(false);
    mainHeader_.dwFlags &= ~kAvifIndexFlags;
    for (auto& super : superIndexes) super.clear();
  }
  failed_ = failed_ || failedBefore;
  if (failed_) result = 0;
  if (file_.seek(position_) != position_ || !file_.setEndOfFile()) fail(u"Ending the file failed", platform::lastError());

  mainHeader_.dwSuggestedBufferSize = video_->header.dwSuggestedBufferSize;
  std::memcpy(header_.data() + avihAt_, &mainHeader_, sizeof mainHeader_);
  for (int s = 0; s < kStreams; ++s) {
    const AVIOutputStream* stream = streamAt(s);
    if (stream == nullptr) continue;
    std::memcpy(header_.data() + strhAt_[s], &stream->header, sizeof stream->header);
    if (s > 0) std::memcpy(header_.data() + strfAt_[s], stream->format.data(), stream->format.size());
    // A stream without a chunk keeps its JUNK: there is nothing to index.
    if (segmentCount_ > 1 && superIndexes[s].size() == kReservation) {
      std::memcpy(header_.data() + reservationAt_[s], superIndexes[s].data(), kReservation);
    }
  }
  std::memcpy(header_.data() + dmlhAt_, &video_->header.dwLength, 4);
  if (!file_.writeAt(0, header_)) {
    fail(u"Rewriting the header failed", platform::lastError());
    result = 0;
  }

  for (int k = 0; k < segmentCount_; ++k) {
    patch32(riffPosition_[k] + 4, static_cast<uint32_t>(riffSize_[k]));
    patch32(moviPosition_[k] + 4, static_cast<uint32_t>(moviSize_[k]));
  }
  file_.close();
  open_ = false;
  return result;
}

}  // namespace kestrium
