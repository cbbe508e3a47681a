#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "platform/File.h"

namespace kestrium {

// A big-endian byte sink with 64-bit positions, the way ISO media files are
// written. A failed write is sticky: nothing more is written and ok() stays
// false, so the owner checks once, where it can still do something about it.
class Serializer {
 public:
  enum class Origin { Begin, Current, End };

  virtual ~Serializer() = default;

  virtual void write(std::span<const std::byte> data) = 0;
  // Moves the write position; a target before the start is taken as the start.
  virtual void seek(int64_t offset, Origin origin) = 0;
  // Where the next byte goes.
  virtual uint64_t tell() const = 0;
  virtual bool ok() const { return true; }
  // The system's error number of the first failed write, 0 while none failed.
  virtual uint32_t error() const { return 0; }
  // Bytes known to be in the target, from its start.
  virtual uint64_t durable() const { return tell(); }
  // Cuts the target at size and writes on from there, the failure behind it;
  // false where that cannot be done.
  virtual bool truncate(uint64_t /*size*/) { return false; }
  // Everything written so far reaches its target; false if it did not.
  virtual bool flush() { return ok(); }
  // Everything written reaches its target, which is then closed.
  virtual void close() {}

  void w8(uint8_t v);
  void wb16(uint16_t v);
  void wb24(uint32_t v);
  void wb32(uint32_t v);
  void wb64(uint64_t v);
  void fourcc(std::string_view code);  // exactly four characters
  void zeros(size_t count);
  void bytes(std::span<const uint8_t> data);
};

// Writes a file through a buffer of 1 MiB, so that the file sees few and large
// writes while frames come in small pieces. The bytes in the buffer are not in
// the file until it is flushed: a process that dies loses them.
class XFileOutputSerializer : public Serializer {
 public:
  static constexpr size_t kBufferSize = 0x100000;

  explicit XFileOutputSerializer(platform::File file, size_t bufferSize = kBufferSize);
  ~XFileOutputSerializer() override;

  void write(std::span<const std::byte> data) override;
  void seek(int64_t offset, Origin origin) override;
  uint64_t tell() const override { return position_ + buffer_.size(); }
  bool ok() const override { return error_ == 0; }
  uint32_t error() const override { return error_; }
  uint64_t durable() const override { return durable_; }
  bool truncate(uint64_t size) override;
  // Flushes, pushes the file to the disk and closes it.
  void close() override;
  bool flush() override;

 private:
  void fail();

  platform::File file_;
  std::vector<std::byte> buffer_;
  size_t capacity_;
  uint64_t position_ = 0;  // where the buffer's first byte goes in the file
  uint64_t durable_ = 0;
  uint32_t error_ = 0;
};

// Writes into a byte vector that someone else owns, growing it as needed.
class BufferOutputSerializer : public Serializer {
 public:
  explicit BufferOutputSerializer(std::vector<std::byte>& target) : target_(target) {}

  void write(std::span<const std::byte> data) override;
  void seek(int64_t offset, Origin origin) override;
  uint64_t tell() const override { return position_; }

  // Overwrites 4 bytes at an earlier position, big-endian.
  void patchB32(uint64_t at, uint32_t v);

 private:
  std::vector<std::byte>& target_;
  uint64_t position_ = 0;
};

}  // namespace kestrium
