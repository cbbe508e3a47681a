#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "platform/File.h"

namespace kestrium::tools {

// A little-endian word of a RIFF file, wherever it lies.
inline uint32_t readLe32(const std::byte* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

// " at byte N", for the messages that say where a file goes wrong.
inline std::string atByte(uint64_t offset) { return " at byte " + std::to_string(offset); }

// Where the bytes of a file come from: the file itself, or memory in tests.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  virtual uint64_t size() const = 0;
  // Reads exactly out.size() bytes at offset; false if they are not all there.
  virtual bool read(uint64_t offset, std::span<std::byte> out) = 0;
};

class FileSource : public ByteSource {
 public:
  bool open(const std::filesystem::path& path);
  uint64_t size() const override { return size_; }
  bool read(uint64_t offset, std::span<std::byte> out) override;

 private:
  platform::File file_;
  uint64_t size_ = 0;
};

class MemorySource : public ByteSource {
 public:
  explicit MemorySource(std::span<const std::byte> bytes) : bytes_(bytes) {}
  uint64_t size() const override { return bytes_.size(); }
  bool read(uint64_t offset, std::span<std::byte> out) override;

 private:
  std::span<const std::byte> bytes_;
};

// The video stream of an AVI file, as its headers describe it.
struct AviVideoStream {
  uint32_t number = 0;       // place among the streams: its chunks are "NNdc" or "NNdb"
  uint32_t handler = 0;      // strh fccHandler
  uint32_t scale = 0;        // frames per second = rate / scale
  uint32_t rate = 0;
  uint32_t length = 0;       // frames, as the header says
  int32_t width = 0;         // strf BITMAPINFOHEADER
  int32_t height = 0;
  uint16_t bitCount = 0;
  uint32_t compression = 0;  // fourcc
};

// Where one frame's data lies in the file.
struct AviChunk {
  uint64_t offset;
  uint32_t size;
};

// Reads the structure of an AVI file, including OpenDML files that continue in
// further 'AVIX' RIFFs: the headers of its first video stream and the place of
// every chunk of that stream, in file order. Index chunks (idx1, ixNN), JUNK,
// other streams' chunks and unknown chunks are passed over. Anything that does
// not fit together (a chunk past its list, a RIFF past the end of the file, a
// missing header) is an error with a message that says where.
class AviReader {
 public:
  // False, with the reason in error, for a file that is not a well-formed AVI.
  bool open(ByteSource& source, std::string& error);

  const AviVideoStream& video() const { return video_; }
  const std::vector<AviChunk>& frames() const { return frames_; }
  int riffCount() const { return riffs_; }

 private:
  bool walkList(uint64_t begin, uint64_t end, uint32_t listType, std::string& error, int depth);
  bool readStreamList(uint64_t begin, uint64_t end, std::string& error);

  ByteSource* source_ = nullptr;
  AviVideoStream video_;
  bool haveVideo_ = false;
  uint32_t streams_ = 0;
  bool haveHeader_ = false;
  bool haveMovi_ = false;
  int riffs_ = 0;
  std::vector<AviChunk> frames_;
  // Chunks ending in "dc"/"db", with their stream digits, until the headers have
  // said which stream is the video.
  std::vector<std::pair<uint16_t, AviChunk>> candidates_;
};

}  // namespace kestrium::tools
