#pragma once

#include <cstddef>
#include <cstring>
#include <span>

namespace kestrium {

// The JPEG engine's byte stream.
class CBaseStream {
 public:
  virtual ~CBaseStream() = default;
  virtual int Close() { return 0; }
  virtual int Flush() { return 0; }
};

class CBaseStreamOutput : public CBaseStream {
 public:
  // Takes size bytes; written receives how many were taken. 0 on success.
  virtual int Write(const std::byte* data, size_t size, size_t* written) = 0;
};

// The sink of the MJPEG encoder: the bytes go straight into the worker's output
// buffer, and never past its end. What does not fit is refused, which the
// engine reports, so that an oversized frame is dropped instead of cut.
class CJPGOutput : public CBaseStreamOutput {
 public:
  void attach(std::span<std::byte> buffer) {
    buffer_ = buffer;
    count_ = 0;
  }
  size_t count() const { return count_; }

  int Write(const std::byte* data, size_t size, size_t* written) override {
    const size_t room = buffer_.size() - count_;
    const size_t n = size < room ? size : room;
    if (n != 0) std::memcpy(buffer_.data() + count_, data, n);
    count_ += n;
    *written = n;
    return 0;
  }

 private:
  std::span<std::byte> buffer_;
  size_t count_ = 0;
};

}  // namespace kestrium
