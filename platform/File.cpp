// The parts of File that do not depend on the OS; each backend has the rest.
#include "platform/File.h"

#include <string>
#include <system_error>
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

std::filesystem::path File::createNumbered(const std::filesystem::path& stem, std::string_view extension,
                                           Share share) {
  // Enough for any real folder; a bound keeps a folder of a million names from
  // turning one start into a million system calls.
  constexpr int kMostNumbers = 1000;
  for (int n = 1; n <= kMostNumbers; ++n) {
    std::filesystem::path name = stem;
    if (n > 1) name += " (" + std::to_string(n) + ")";
    name += std::string(extension);
    if (open(name, Mode::CreateNew, share)) return name;
    // Only a name that another file has taken sends us to the next number; any
    // other failure (no folder, no rights, a full disk, a folder in the way of
    // the file) is the destination's and would fail there too.
    std::error_code ec;
    const std::filesystem::file_status status = std::filesystem::symlink_status(name, ec);
    if (!std::filesystem::exists(status) || std::filesystem::is_directory(status)) return {};
  }
  return {};
}

}  // namespace kestrium::platform
