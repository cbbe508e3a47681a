#include "platform/SharedMapping.h"

#include <utility>

#include "platform/posix/KernelObject.h"

namespace kestrium::platform {

struct SharedMapping::Impl {
  std::shared_ptr<posix::Segment> segment;
};

SharedMapping::SharedMapping() = default;

SharedMapping::SharedMapping(std::u16string name, uint64_t size) : name_(std::move(name)), size_(size) {}

SharedMapping::~SharedMapping() { close(); }

SharedMapping::SharedMapping(SharedMapping&& other) noexcept { swap(other); }

SharedMapping& SharedMapping::operator=(SharedMapping&& other) noexcept {
  if (this != &other) {
    close();
    swap(other);
  }
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
  auto opened = posix::openSegment(name_, posix::ObjectKind::Mapping, size_, {});
  if (!opened.segment) return false;
  impl_ = std::make_unique<Impl>();
  impl_->segment = std::move(opened.segment);
  view_ = impl_->segment->data;
  size_ = impl_->segment->dataSize;
  existed_ = opened.existed;
  return true;
}

void SharedMapping::close() {
  if (impl_) posix::releaseSegment(impl_->segment);
  impl_.reset();
  view_ = nullptr;
  existed_ = false;
}

}  // namespace kestrium::platform
