#include "fileOutput/FileSink.h"

#include <cstring>

namespace kestrium {

FileSink::FileSink(size_t bufferSize) : capacity_(bufferSize) { buffer_.reserve(capacity_); }

FileSink::~FileSink() { close(); }

bool FileSink::open(const std::filesystem::path& path) {
  close();
  buffer_.clear();
  flushed_ = 0;
  ok_ = file_.open(path, platform::File::Mode::CreateAlways);
  return ok_;
}

bool FileSink::open(platform::File file) {
  close();
  buffer_.clear();
  flushed_ = 0;
  file_ = std::move(file);
  ok_ = file_.isOpen();
  return ok_;
}

bool FileSink::close() {
  if (!file_.isOpen()) return ok_;
  flush();
  file_.close();
  return ok_;
}

bool FileSink::flush() {
  if (!ok_) return false;
  if (!buffer_.empty()) {
    ok_ = file_.writeAt(static_cast<uint64_t>(flushed_), buffer_);
    flushed_ += static_cast<int64_t>(buffer_.size());
    buffer_.clear();
  }
  return ok_;
}

void FileSink::put(const void* data, size_t size) {
  if (!ok_) return;
  if (buffer_.size() + size > capacity_) {
    if (!flush()) return;
    if (size >= capacity_) {
      // Large blocks go straight to the file: no copy through the buffer.
      ok_ = file_.writeAt(static_cast<uint64_t>(flushed_), {static_cast<const std::byte*>(data), size});
      flushed_ += static_cast<int64_t>(size);
      return;
    }
  }
  const auto* bytes = static_cast<const std::byte*>(data);
  buffer_.insert(buffer_.end(), bytes, bytes + size);
}

void FileSink::w8(uint8_t v) { put(&v, 1); }

void FileSink::wl16(uint16_t v) {
  const uint8_t b[2] = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)};
  put(b, 2);
}

void FileSink::wl32(uint32_t v) {
  const uint8_t b[4] = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
                        static_cast<uint8_t>(v >> 24)};
  put(b, 4);
}

void FileSink::wl64(uint64_t v) {
  wl32(static_cast<uint32_t>(v));
  wl32(static_cast<uint32_t>(v >> 32));
}

void FileSink::wb16(uint16_t v) {
  const uint8_t b[2] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
  put(b, 2);
}

void FileSink::wb32(uint32_t v) {
  const uint8_t b[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
                        static_cast<uint8_t>(v)};
  put(b, 4);
}

void FileSink::wb64(uint64_t v) {
  wb32(static_cast<uint32_t>(v >> 32));
  wb32(static_cast<uint32_t>(v));
}

void FileSink::fourcc(std::string_view code) {
  char b[4] = {' ', ' ', ' ', ' '};
  std::memcpy(b, code.data(), code.size() < 4 ? code.size() : 4);
  put(b, 4);
}

void FileSink::write(std::span<const std::byte> data) { put(data.data(), data.size()); }

void FileSink::zeros(size_t count) {
  static constexpr std::byte kZeros[4096] = {};
  while (count > 0 && ok_) {
    const size_t n = count < sizeof kZeros ? count : sizeof kZeros;
    put(kZeros, n);
    count -= n;
  }
}

void FileSink::patch(int64_t at, const std::byte* bytes, size_t size) {
  if (!ok_) return;
  for (size_t i = 0; i < size; ++i) {
    const int64_t where = at + static_cast<int64_t>(i);
    if (where >= flushed_) {
      buffer_[static_cast<size_t>(where - flushed_)] = bytes[i];
    } else {
      ok_ = file_.writeAt(static_cast<uint64_t>(where), {bytes + i, 1}) && ok_;
    }
  }
}

void FileSink::patchL32(int64_t at, uint32_t v) {
  const std::byte b[4] = {std::byte(v), std::byte(v >> 8), std::byte(v >> 16), std::byte(v >> 24)};
  if (at + 4 <= flushed_) {
    if (ok_) ok_ = file_.writeAt(static_cast<uint64_t>(at), b);
    return;
  }
  patch(at, b, 4);
}

void FileSink::patchB32(int64_t at, uint32_t v) {
  const std::byte b[4] = {std::byte(v >> 24), std::byte(v >> 16), std::byte(v >> 8), std::byte(v)};
  if (at + 4 <= flushed_) {
    if (ok_) ok_ = file_.writeAt(static_cast<uint64_t>(at), b);
    return;
  }
  patch(at, b, 4);
}

int64_t FileSink::beginChunk(std::string_view code) {
  const int64_t start = position();
  fourcc(code);
  wl32(0);
  return start;
}

int64_t FileSink::beginList(std::string_view code, std::string_view type) {
  const int64_t start = beginChunk(code);
  fourcc(type);
  return start;
}

void FileSink::endChunk(int64_t start) {
  const int64_t size = position() - start - 8;
  if (size % 2 != 0) w8(0);
  patchL32(start + 4, static_cast<uint32_t>(size));
}

}  // namespace kestrium
