#include "platform/System.h"

#include <windows.h>
#include <shlobj.h>

#include <string>

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

void fatalStop() {
  TerminateProcess(GetCurrentProcess(), 3);
  // Not reached: terminating the own process does not return.
  __builtin_trap();
}

const std::u16string& objectNamespace() {
  static const std::u16string ns = [] {
    const wchar_t* variable = L"KESTRIUM_NAMESPACE";
    const DWORD needed = GetEnvironmentVariableW(variable, nullptr, 0);
    if (needed == 0) return std::u16string();
    std::u16string value(needed, u'\0');
    const DWORD length = GetEnvironmentVariableW(variable, win32::wide(value.data()), needed);
    if (length == 0 || length >= needed) return std::u16string();
    value.resize(length);
    return value;
  }();
  return ns;
}

}  // namespace kestrium::platform
