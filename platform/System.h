#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace kestrium::platform {

// The user's documents folder, or an empty path when the OS cannot tell.
std::filesystem::path documentsFolder();

// Free bytes on the volume of path that the calling user may use.
std::optional<uint64_t> diskFreeBytes(const std::filesystem::path& path);

// True when path lies on a FAT volume, whose files end at 4 GiB.
bool isFatVolume(const std::filesystem::path& path);

// The memory that runs out first for this process: its address space in a 32-bit
// process, otherwise physical memory (within its control group's limit, if any).
struct MemoryStatus {
  uint64_t availableBytes = 0;
  uint64_t totalBytes = 0;
};
MemoryStatus memoryStatus();

std::filesystem::path executablePath();

// The text of a debug message (OutputDebugString): the debugger on Windows,
// standard error elsewhere.
void debugOutput(std::u16string_view text);

// Ends the process at once, without unwinding, leaving files as they stand.
[[noreturn]] void fatalStop();

// KESTRIUM_NAMESPACE, read once: prefixed to every kernel object name so that test
// runs never meet each other or a user's server.
const std::u16string& objectNamespace();

}  // namespace kestrium::platform
