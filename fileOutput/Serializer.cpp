#include "fileOutput/Serializer.h"

#include <algorithm>
#include <cstring>

#include "platform/System.h"

namespace kestrium {

void Serializer::w8(uint8_t v) { write({reinterpret_cast<const std::byte*>(&v), 1}); }

void Serializer::wb16(uint16_t v) {
  const uint8_t b[2] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
  bytes(b);
}

void Serializer::wb24(uint32_t v) {
  const uint8_t b[3] = {static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
  bytes(b);
}

void Serializer::wb32(uint32_t v) {
  const uint8_t b[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
                        static_cast<uint8_t>(v)};
  bytes(b);
}

void Serializer::wb64(uint64_t v) {
  wb32(static_cast<uint32_t>(v >> 32));
  wb32(static_cast<uint32_t>(v));
}

void Serializer::fourcc(std::string_view code) { write(std::as_bytes(std::span(code.data(), 4))); }

void Serializer::zeros(size_t count) {
  static constexpr std::byte kZeros[64] = {};
  while (count > 0) {
    const size_t n = std::min(count, sizeof kZeros);
    write({kZeros, n});
    count -= n;
  }
}

void Serializer::bytes(std::span<const uint8_t> data) { write(std::as_bytes(data)); }

XFileOutputSerializer::XFileOutputSerializer(platform::File file, size_t bufferSize)
    : file_(std::move(file)), capacity_(bufferSize) {
  buffer_.reserve(capacity_);
}

XFileOutputSerializer::~XFileOutputSerializer() { close(); }

void XFileOutputSerializer::fail() {
  if (error_ == 0) error_ = std::max<uint32_t>(platform::lastError(), 1);
}

bool XFileOutputSerializer::flush() {
  if (error_ != 0 || !file_.isOpen()) return false;
  if (buffer_.empty()) return true;
  if (!file_.writeAt(position_, buffer_)) {
    fail();
    return false;
  }
  position_ += buffer_.size();
  durable_ = std::max(durable_, position_);
  buffer_.clear();
  return true;
}

void XFileOutputSerializer::write(std::span<const std::byte> data) {
  if (error_ != 0) return;
  if (buffer_.size() + data.size() > capacity_) {
    if (!flush()) return;
    if (data.size() >= capacity_) {
      // A block as large as the buffer goes straight to the file.
      if (!file_.writeAt(position_, data)) {
        fail();
        return;
      }
      position_ += data.size();
      durable_ = std::max(durable_, position_);
      return;
    }
  }
  buffer_.insert(buffer_.end(), data.begin(), data.end());
}

void XFileOutputSerializer::seek(int64_t offset, Origin origin) {
  if (!flush()) return;
  int64_t base = 0;
  if (origin == Origin::Current) base = static_cast<int64_t>(position_);
  if (origin == Origin::End) base = file_.size();
  position_ = static_cast<uint64_t>(std::max<int64_t>(base + offset, 0));
}

bool XFileOutputSerializer::truncate(uint64_t size) {
  buffer_.clear();
  position_ = size;
  durable_ = std::min(durable_, size);
  if (file_.seek(static_cast<int64_t>(size)) < 0 || !file_.setEndOfFile()) return false;
  // The failure is behind us: what follows is written at the cut.
  error_ = 0;
  return true;
}

void XFileOutputSerializer::close() {
  if (!file_.isOpen()) return;
  flush();
  if (durable_ != 0) file_.flush();
  file_.close();
  buffer_ = {};
}

void BufferOutputSerializer::write(std::span<const std::byte> data) {
  if (data.empty()) return;
  if (target_.size() < position_ + data.size()) target_.resize(position_ + data.size());
  std::memcpy(target_.data() + position_, data.data(), data.size());
  position_ += data.size();
}

void BufferOutputSerializer::seek(int64_t offset, Origin origin) {
  int64_t base = 0;
  if (origin == Origin::Current) base = static_cast<int64_t>(position_);
  if (origin == Origin::End) base = static_cast<int64_t>(target_.size());
  position_ = static_cast<uint64_t>(std::max<int64_t>(base + offset, 0));
}

void BufferOutputSerializer::patchB32(uint64_t at, uint32_t v) {
  const uint64_t here = position_;
  position_ = at;
  wb32(v);
  position_ = here;
}

}  // namespace kestrium
