#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>
#include <vector>

#include "platform/File.h"

namespace kestrium {

// A buffered little-endian byte writer over a new file, with RIFF chunks opened
// by writing a zero size and closed by patching it. Errors are sticky: after the
// first failed write every call does nothing and ok() stays false, so a caller
// checks once, where a failure matters.
class FileSink {
 public:
  explicit FileSink(size_t bufferSize = 256 * 1024);
  ~FileSink();
  FileSink(const FileSink&) = delete;
  FileSink& operator=(const FileSink&) = delete;

  // Creates (or empties) the file.
  bool open(const std::filesystem::path& path);
  // Takes over a file the caller has made.
  bool open(platform::File file);
  // Writes what is buffered and closes; false if anything failed.
  bool close();
  bool isOpen() const { return file_.isOpen(); }
  bool ok() const { return ok_; }
  bool flush();

  // Bytes written so far, buffered ones included.
  int64_t position() const { return flushed_ + static_cast<int64_t>(buffer_.size()); }
  // Bytes held in memory, not yet in the file, and bytes already in the file.
  size_t buffered() const { return buffer_.size(); }
  int64_t inFile() const { return flushed_; }

  void w8(uint8_t v);
  void wl16(uint16_t v);
  void wl32(uint32_t v);
  void wl64(uint64_t v);
  void wb16(uint16_t v);
  void wb32(uint32_t v);
  void wb64(uint64_t v);
  void fourcc(std::string_view code);  // exactly four characters
  void write(std::span<const std::byte> data);
  void zeros(size_t count);

  // Overwrites 4 bytes at an earlier position, little- or big-endian.
  void patchL32(int64_t at, uint32_t v);
  void patchB32(int64_t at, uint32_t v);

  // Opens a chunk: code and a zero size. Returns where it starts.
  int64_t beginChunk(std::string_view code);
  // Opens a "RIFF" or "LIST" chunk with its form type.
  int64_t beginList(std::string_view code, std::string_view type);
  // Pads the chunk to an even length and patches its size.
  void endChunk(int64_t start);

 private:
  void put(const void* data, size_t size);
  void patch(int64_t at, const std::byte* bytes, size_t size);

  platform::File file_;
  std::vector<std::byte> buffer_;
  size_t capacity_;
  int64_t flushed_ = 0;  // bytes already in the file
  bool ok_ = false;
};

}  // namespace kestrium
