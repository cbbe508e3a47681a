#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace kestrium::platform {

// A block of memory shared between processes by name: the one helper for every
// named memory object of the server. open() creates the object or attaches to an
// existing one without telling the two apart to the caller that doesn't ask; an
// attached view has the size the creator gave it. A fresh object is zero-filled.
// An empty name makes private memory.
class SharedMapping {
 public:
  SharedMapping();
  SharedMapping(std::u16string name, uint64_t size);
  ~SharedMapping();
  SharedMapping(SharedMapping&& other) noexcept;
  SharedMapping& operator=(SharedMapping&& other) noexcept;
  SharedMapping(const SharedMapping&) = delete;
  SharedMapping& operator=(const SharedMapping&) = delete;

  // A size of 0 is taken as 1. On failure the view stays null; open() reports no
  // reason, so callers that care log their own line.
  bool open();
  void close();

  bool isOpen() const { return view_ != nullptr; }
  std::byte* view() const { return view_; }
  // Bytes that may be touched through view(): the requested size for a new object,
  // the creator's size (at least) for an attached one.
  uint64_t size() const { return size_; }
  const std::u16string& name() const { return name_; }
  bool existed() const { return existed_; }

  template <class T>
  T* as() const {
    return size_ >= sizeof(T) ? reinterpret_cast<T*>(view_) : nullptr;
  }

  struct Impl;

 private:
  void swap(SharedMapping& other) noexcept;

  std::u16string name_;
  uint64_t size_ = 0;
  std::byte* view_ = nullptr;
  std::unique_ptr<Impl> impl_;
  bool existed_ = false;
};

}  // namespace kestrium::platform
