#include "platform/SharedMapping.h"

#include <windows.h>

#include <utility>

#include "platform/win32/Win32Names.h"

namespace kestrium::platform {

struct SharedMapping::Impl {
  explicit Impl(HANDLE h) : mapping(h) {}
  ~Impl() { CloseHandle(mapping); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  HANDLE mapping;
};

SharedMapping::SharedMapping() = default;

SharedMapping::SharedMapping(std::u16string name, uint64_t size) : name_(std::move(name)), size_(size) {}

SharedMapping::~SharedMapping() { close(); }

SharedMapping::SharedMapping(SharedMapping&& other) noexcept { swap(other); }

SharedMapping& SharedMapping::operator=(SharedMapping&& other) noexcept {
  // Whatever this object held goes with the temporary; other is left empty.
  SharedMapping taken(std::move(other));
  swap(taken);
  return *this;
}

void SharedMapping::swap(SharedMapping& other) noexcept {
  std::swap(name_, other.name_);
  std::swap(size_, other.size_);
  std::swap(view_, other.view_);
  std::swap(impl_, other.impl_);
  std::swap(existed_, other.existed_);
}

bool SharedMapping::open() {
  if (view_ != nullptr) return true;
  if (size_ == 0) size_ = 1;

  const std::u16string kernelName = win32::kernelObjectName(name_);
  HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, static_cast<DWORD>(size_ >> 32),
                                      static_cast<DWORD>(size_), win32::wideNameOrNull(kernelName));
  // The only way Win32 tells "opened" from "created"; nothing may run in between.
  const bool alreadyExisted = GetLastError() == ERROR_ALREADY_EXISTS;
  if (mapping == nullptr) return false;

  // Size 0 maps the whole object, which for an existing one is the creator's size,
  // not ours.
  void* view = MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0);
  if (view == nullptr) {
    CloseHandle(mapping);
    return false;
  }

  if (alreadyExisted) {
    // Win32 does not report a section's size to a handle that opened it; the
    // view covers all of it, rounded up to whole pages.
    MEMORY_BASIC_INFORMATION info{};
    if (VirtualQuery(view, &info, sizeof info) == 0) {
      UnmapViewOfFile(view);
      CloseHandle(mapping);
      return false;
    }
    size_ = info.RegionSize;
  }

  impl_ = std::make_unique<Impl>(mapping);
  view_ = static_cast<std::byte*>(view);
  existed_ = alreadyExisted;
  return true;
}

void SharedMapping::close() {
  if (view_ != nullptr) UnmapViewOfFile(view_);
  view_ = nullptr;
  impl_.reset();
  existed_ = false;
}

}  // namespace kestrium::platform
