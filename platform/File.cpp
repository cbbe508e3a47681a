// The parts of File that do not depend on the OS; each backend has the rest.
#include "platform/File.h"

#include <utility>

namespace kestrium::platform {

File::~File() { close(); }

File::File(File&& other) noexcept : handle_(std::exchange(other.handle_, kInvalid)) {}

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    close();
    handle_ = std::exchange(other.handle_, kInvalid);
  }
  return *this;
}

}  // namespace kestrium::platform
