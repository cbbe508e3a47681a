#pragma once

#include <cstddef>
#include <new>
#include <span>
#include <utility>

namespace kestrium {

// A byte buffer aligned for the widest vector loads, allocated once and owned.
// The frame buffers of encoders and converters live as long as their worker.
class AlignedBuffer {
 public:
  static constexpr size_t kAlignment = 64;

  AlignedBuffer() = default;
  // Allocation failure leaves the buffer empty rather than throwing.
  explicit AlignedBuffer(size_t size)
      : data_(size != 0 ? static_cast<std::byte*>(::operator new(size, std::align_val_t{kAlignment}, std::nothrow))
                        : nullptr),
        size_(data_ != nullptr ? size : 0) {}
  ~AlignedBuffer() { release(); }
  AlignedBuffer(AlignedBuffer&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  AlignedBuffer& operator=(AlignedBuffer&& other) noexcept {
    if (this != &other) {
      release();
      data_ = std::exchange(other.data_, nullptr);
      size_ = std::exchange(other.size_, 0);
    }
    return *this;
  }
  AlignedBuffer(const AlignedBuffer&) = delete;
  AlignedBuffer& operator=(const AlignedBuffer&) = delete;

  std::byte* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  std::span<std::byte> span() const { return {data_, size_}; }

 private:
  void release() {
    if (data_ != nullptr) ::operator delete(data_, std::align_val_t{kAlignment});
    data_ = nullptr;
    size_ = 0;
  }

  std::byte* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace kestrium
