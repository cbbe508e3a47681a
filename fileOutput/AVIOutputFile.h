#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <vector>

#include "fileOutput/AVIIndex.h"
#include "fileOutput/AVIStructs.h"
#include "platform/File.h"

namespace kestrium {

class AVIOutput;

// One stream of an AVI file: its header and format, filled by the caller before
// the file's init, and its way of writing chunks.
class AVIOutputStream {
 public:
  explicit AVIOutputStream(AVIOutput* owner) : owner_(owner) {}
  virtual ~AVIOutputStream() = default;
  AVIOutputStream(const AVIOutputStream&) = delete;
  AVIOutputStream& operator=(const AVIOutputStream&) = delete;

  // Appends one chunk of this stream. flags 0x10 marks a key frame.
  virtual void write(uint32_t flags, std::span<const std::byte> data, uint32_t samples, uint32_t streamNumber) = 0;
  // Settles the header's length (and rate, for audio) from what was written.
  virtual int finalize() = 0;
  int flush() { return 1; }

  AVIStreamHeader header{};
  std::vector<std::byte> format;  // the body of "strf"

 protected:
  AVIOutput* owner_;
};

class AVIVideoOutputStream : public AVIOutputStream {
 public:
  using AVIOutputStream::AVIOutputStream;
  // A chunk of size 0 is a dropped frame: an empty chunk with an index entry.
  void write(uint32_t flags, std::span<const std::byte> data, uint32_t samples, uint32_t streamNumber) override;
  int finalize() override;

  uint32_t samples = 0;
  uint32_t chunkId = fourcc("00dc");
};

class AVIAudioOutputStream : public AVIOutputStream {
 public:
  using AVIOutputStream::AVIOutputStream;
  void write(uint32_t flags, std::span<const std::byte> data, uint32_t samples, uint32_t streamNumber) override;
  int finalize() override;

  uint64_t bytes = 0;
  uint64_t chunks = 0;
};

// Audio chunk ids: the stream number in two decimal digits and "wb", "01wb" for
// the first audio stream to "16wb" for the last. AVI readers (ffmpeg's among
// them) take the two leading digits of a chunk id as its stream number.
constexpr uint32_t audioChunkId(uint32_t streamNumber) {
  const uint32_t tens = '0' + streamNumber / 10 % 10, ones = '0' + streamNumber % 10;
  return tens | (ones << 8) | (static_cast<uint32_t>('w') << 16) | (static_cast<uint32_t>('b') << 24);
}

// The stream number of a chunk id, read back the way the ids are made: its first
// two characters as decimal digits. -1 when they are not digits.
constexpr int chunkStream(uint32_t chunkId) {
  const uint32_t tens = (chunkId & 0xFF) - '0', ones = ((chunkId >> 8) & 0xFF) - '0';
  return tens <= 9 && ones <= 9 ? static_cast<int>(tens * 10 + ones) : -1;
}

class AVIOutput {
 public:
  static constexpr int kAudioStreams = 16;

  virtual ~AVIOutput() = default;
  virtual int initOutputStreams() = 0;
  virtual int init(const std::filesystem::path& fileName, uint32_t width, uint32_t height, int hasVideo,
                   uint32_t audioMask, uint32_t bufferSize, int interleaved) = 0;
  virtual int finalize() = 0;
  virtual void writeChunk(uint32_t chunkId, uint32_t flags, std::span<const std::byte> data) = 0;
  // Nothing more is written: a write failed, or the file reached a limit.
  virtual bool failed() const { return false; }

  AVIVideoOutputStream* videoStream() const { return video_.get(); }
  AVIAudioOutputStream* audioStream(int index) const { return audio_[index].get(); }

 protected:
  std::unique_ptr<AVIVideoOutputStream> video_;
  std::array<std::unique_ptr<AVIAudioOutputStream>, kAudioStreams> audio_;
};

// One AVI file, written as it comes: an OpenDML file that goes past 2 GiB in
// further 'AVIX' segments, with a legacy idx1 in the first RIFF and standard
// index chunks and super-indexes when there is more than one segment. Chunks are
// written at once and never reordered; only the indexes and the header stay in
// memory until finalize. A failed write (a full disk) ends this file, not the
// process: every whole chunk before it stays, later writes are dropped, and
// finalize makes the file readable as far as the disk allows.
class AVIOutputFile : public AVIOutput {
 public:
  static constexpr int64_t kSegmentLimit = 0x7F000000;
  static constexpr int kMaxSegments = 64;
  static constexpr int kMaxIndexBlocks = 256;
  static constexpr size_t kReservation = 4128;

  // segmentLimit is a parameter so that tests can make many segments small.
  explicit AVIOutputFile(int64_t segmentLimit = kSegmentLimit);
  ~AVIOutputFile() override;

  int initOutputStreams() override;
  int init(const std::filesystem::path& fileName, uint32_t width, uint32_t height, int hasVideo, uint32_t audioMask,
           uint32_t bufferSize, int interleaved) override;
  // The same on a file the caller has made already (fileName names it).
  int init(platform::File file, const std::filesystem::path& fileName, uint32_t width, uint32_t height, int hasVideo,
           uint32_t audioMask, uint32_t bufferSize, int interleaved);
  int finalize() override;
  void writeChunk(uint32_t chunkId, uint32_t flags, std::span<const std::byte> data) override;

  int segments() const { return segmentCount_; }
  bool failed() const override { return failed_; }

 private:
  static constexpr int kStreams = 1 + kAudioStreams;

  struct StreamBook {
    int64_t first = 0;
    int64_t last = 0;
    int32_t largestGap = 0;
    int32_t count = 0;
  };

  AVIOutputStream* streamAt(int index) const;
  void writeBytes(std::span<const std::byte> bytes);
  void patch32(int64_t at, uint32_t v);
  // Ends the writing of this file with a log line; error is the OS's, or 0.
  void fail(const char16_t* what, uint32_t error);
  void buildHeader();
  void openSegment();
  void closeSegment(bool withIndex = true);
  void writeLegacyIndex();
  void writeStandardIndexes(int stream, std::vector<std::byte>& superIndex);
  void estimateSize(uint32_t size, int64_t position);

  int64_t segmentLimit_;
  platform::File file_;
  bool open_ = false;
  int64_t position_ = 0;
  int64_t highest_ = 0;
  int64_t segmentBytes_ = 0;
  std::array<int64_t, kMaxSegments> moviPosition_{};
  std::array<int64_t, kMaxSegments> moviSize_{};
  std::array<int64_t, kMaxSegments> riffPosition_{};
  std::array<int64_t, kMaxSegments> riffSize_{};
  int segmentCount_ = 0;  // segments closed

  // Where the records that finalize rewrites lie in the header.
  int64_t avihAt_ = 0;
  std::array<int64_t, kStreams> strhAt_{};
  std::array<int64_t, kStreams> strfAt_{};
  std::array<int64_t, kStreams> reservationAt_{};
  int64_t dmlhAt_ = 0;

  std::unique_ptr<AVIIndex> legacyIndex_;
  std::array<AVIIndex, kStreams> indexes_;
  std::vector<std::byte> header_;
  AVIMainHeader mainHeader_{};
  std::array<StreamBook, kStreams> books_{};
  bool onFat_ = false;
  int64_t indexEstimate_ = 0;
  int64_t sizeEstimate_ = 0;
  bool failed_ = false;
  bool warnedStream_ = false;
  int64_t wholeEnd_ = 0;  // the end of the last whole chunk (or header) written
};

}  // namespace kestrium
