// The parts of SharedLibrary that do not depend on the OS; each backend has the rest.
#include "platform/SharedLibrary.h"

#include <utility>

namespace kestrium::platform {

SharedLibrary::~SharedLibrary() { unload(); }

SharedLibrary::SharedLibrary(SharedLibrary&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}

SharedLibrary& SharedLibrary::operator=(SharedLibrary&& other) noexcept {
  if (this != &other) {
    unload();
    handle_ = std::exchange(other.handle_, nullptr);
  }
  return *this;
}

}  // namespace kestrium::platform
