#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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

// The OS's error code of the last failed call on this thread (errno or
// GetLastError), for log lines.
uint32_t lastError();

// Ends the process at once, without unwinding, leaving files as they stand.
[[noreturn]] void fatalStop();

// Prefixed to every kernel object name, so that test runs never meet each other
// or a user's server: KESTRIUM_NAMESPACE unless set here. Objects keep the
// namespace they were made in.
std::u16string objectNamespace();
void setObjectNamespace(std::u16string ns);

// What reclaimAbandonedObjects() removed: how many objects, and the memory they held.
struct ReclaimedObjects {
  int count = 0;
  uint64_t bytes = 0;
};

// Removes the named kernel objects of the current namespace that no live process
// holds any more. Windows ends an object with its last handle, even when a
// process is killed, so there this does nothing. The POSIX emulation can only
// unlink a name at a close, so the objects of a process that ended without
// closing them keep their memory until someone calls this.
ReclaimedObjects reclaimAbandonedObjects();

// An environment variable, or nothing when it is not set.
std::optional<std::u16string> environmentVariable(std::string_view name);
// Sets one for this process and the children it starts from now on.
bool setEnvironmentVariable(std::string_view name, std::u16string_view value);

// The process's whole command line as one string: on Windows as the OS gives it,
// elsewhere the arguments after the program name, joined by blanks.
std::u16string commandLine(int argc, char** argv);

// The program's arguments after its name, in UTF-16 whatever the OS's code page.
std::vector<std::u16string> commandArguments(int argc, char** argv);

// True when standard output is a terminal, where a live progress line belongs.
bool stdoutIsTerminal();

// Tells the user something when there is no other way: a message box on Windows
// (or standard error, when the process has one), standard error elsewhere.
void showMessage(std::u16string_view text, std::u16string_view title);

}  // namespace kestrium::platform
