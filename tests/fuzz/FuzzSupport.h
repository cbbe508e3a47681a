#pragma once

#include <cstdlib>
#include <filesystem>
#include <span>

#include "platform/File.h"

namespace kestrium::fuzz {

// Where a target keeps the files it hands to the code under test: a folder
// in the temporary folder that scripts/fuzz.sh gives each target, and clears.
inline const std::filesystem::path& scratchFolder() {
  static const std::filesystem::path path = [] {
    auto p = std::filesystem::temp_directory_path() / "kestrium-fuzz";
    std::filesystem::create_directories(p);
    return p;
  }();
  return path;
}

inline void writeFile(const std::filesystem::path& path, std::span<const std::byte> bytes) {
  platform::File file;
  if (!file.open(path, platform::File::Mode::CreateAlways) || !file.write(bytes)) std::abort();
}

}  // namespace kestrium::fuzz
