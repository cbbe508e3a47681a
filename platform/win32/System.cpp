#include "platform/System.h"

#include <windows.h>
#include <shellapi.h>
#include <shlobj.h>

#include <string>

#include "platform/Text.h"
#include "platform/win32/Win32Names.h"

namespace kestrium::platform {

namespace {

bool isExistingDirectory(const std::filesystem::path& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

}  // namespace

std::filesystem::path documentsFolder() {
  wchar_t buffer[MAX_PATH + 1] = {};
  if (!SHGetSpecialFolderPathW(nullptr, buffer, CSIDL_PERSONAL, FALSE)) return {};
  return std::filesystem::path(buffer);
}

std::optional<uint64_t> diskFreeBytes(const std::filesystem::path& path) {
  // The folder a recording goes to may not exist yet; its volume is the one of
  // the nearest folder above it that does.
  std::filesystem::path existing = path;
  while (!existing.empty() && !isExistingDirectory(existing)) {
    std::filesystem::path parent = existing.parent_path();
    if (parent == existing) break;
    existing = parent;
  }
  ULARGE_INTEGER freeToCaller{}, total{}, totalFree{};
  if (!GetDiskFreeSpaceExW(existing.empty() ? nullptr : existing.c_str(), &freeToCaller, &total, &totalFree)) {
    return std::nullopt;
  }
  return freeToCaller.QuadPart;
}

bool isFatVolume(const std::filesystem::path& path) {
  const std::wstring root = win32::volumeRoot(path.native());
  wchar_t fileSystem[MAX_PATH + 1] = {};
  if (!GetVolumeInformationW(root.empty() ? nullptr : root.c_str(), nullptr, 0, nullptr, nullptr, nullptr, fileSystem,
                             MAX_PATH + 1)) {
    return false;
  }
  // FAT, FAT16 and FAT32 all end files at 4 GiB; exFAT and NTFS do not.
  auto upper = [](wchar_t c) { return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - L'a' + L'A') : c; };
  return upper(fileSystem[0]) == L'F' && upper(fileSystem[1]) == L'A' && upper(fileSystem[2]) == L'T';
}

MemoryStatus memoryStatus() {
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof status;
  if (!GlobalMemoryStatusEx(&status)) return {};
#ifdef _WIN64
  return {status.ullAvailPhys, status.ullTotalPhys};
#else
  // A 32-bit process runs out of its 2-4 GiB of address space long before RAM.
  return {status.ullAvailVirtual, status.ullTotalVirtual};
#endif
}

std::filesystem::path executablePath() {
  std::wstring buffer(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
    if (length == 0) return {};
    // A full buffer means the path was cut; try again with more room.
    if (length < buffer.size()) {
      buffer.resize(length);
      return std::filesystem::path(buffer);
    }
    if (buffer.size() >= 32768) return {};
    buffer.resize(buffer.size() * 2);
  }
}

void debugOutput(std::u16string_view text) {
  const std::u16string terminated(text);
  OutputDebugStringW(win32::wide(terminated));
}

uint32_t lastError() { return GetLastError(); }

// The kernel ends every object with its last handle, a killed process's included:
// nothing is ever left to reclaim.
ReclaimedObjects reclaimAbandonedObjects() { return {}; }

void fatalStop() {
  TerminateProcess(GetCurrentProcess(), 3);
  // Not reached: terminating the own process does not return.
  __builtin_trap();
}

std::optional<std::u16string> environmentVariable(std::string_view name) {
  const std::u16string wideName = toUtf16(name);
  const DWORD needed = GetEnvironmentVariableW(win32::wide(wideName), nullptr, 0);
  if (needed == 0) return std::nullopt;
  std::u16string value(needed, u'\0');
  const DWORD length = GetEnvironmentVariableW(win32::wide(wideName), win32::wide(value.data()), needed);
  if (length >= needed) return std::nullopt;
  value.resize(length);
  return value;
}

bool setEnvironmentVariable(std::string_view name, std::u16string_view value) {
  const std::u16string wideName = toUtf16(name);
  const std::u16string wideValue(value);
  return SetEnvironmentVariableW(win32::wide(wideName), win32::wide(wideValue)) != 0;
}

std::u16string commandLine(int /*argc*/, char** /*argv*/) {
  return reinterpret_cast<const char16_t*>(GetCommandLineW());
}

std::vector<std::u16string> commandArguments(int /*argc*/, char** /*argv*/) {
  // The narrow argv went through the ANSI code page; split the wide line instead.
  std::vector<std::u16string> args;
  int count = 0;
  LPWSTR* list = CommandLineToArgvW(GetCommandLineW(), &count);
  if (list == nullptr) return args;
  for (int i = 1; i < count; ++i) args.emplace_back(reinterpret_cast<const char16_t*>(list[i]));
  LocalFree(list);
  return args;
}

bool stdoutIsTerminal() {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != 0;
}

void showMessage(std::u16string_view text, std::u16string_view title) {
  // A process started with its standard error redirected (a script, a test) gets
  // the text there; a box would wait for a click that never comes.
  const HANDLE err = GetStdHandle(STD_ERROR_HANDLE);
  if (err != nullptr && err != INVALID_HANDLE_VALUE && GetFileType(err) != FILE_TYPE_UNKNOWN) {
    const std::string line = toUtf8(text) + "\n";
    DWORD written = 0;
    WriteFile(err, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    return;
  }
  const std::u16string wideText(text), wideTitle(title);
  MessageBoxW(nullptr, win32::wide(wideText), win32::wide(wideTitle), MB_ICONINFORMATION);
}

}  // namespace kestrium::platform
