#include "platform/System.h"

#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "platform/Text.h"

namespace kestrium::platform {

namespace {

std::filesystem::path nearestExisting(std::filesystem::path path) {
  std::error_code ec;
  path = std::filesystem::absolute(path, ec);
  while (!path.empty() && !std::filesystem::exists(path, ec)) {
    if (path == path.root_path()) break;
    path = path.parent_path();
  }
  return path;
}

const char* nonEmptyEnv(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && value[0] != '\0' ? value : nullptr;
}

// Available and total memory from /proc/meminfo, in one read.
MemoryStatus meminfo() {
  std::ifstream in("/proc/meminfo");
  MemoryStatus status;
  std::string name, rest;
  uint64_t kib = 0;
  while ((status.availableBytes == 0 || status.totalBytes == 0) && in >> name >> kib) {
    std::getline(in, rest);
    if (name == "MemAvailable:") status.availableBytes = kib * 1024;
    if (name == "MemTotal:") status.totalBytes = kib * 1024;
  }
  return status;
}

uint64_t readNumber(const std::filesystem::path& file) {
  std::ifstream in(file);
  uint64_t value = 0;
  return (in >> value) ? value : 0;  // "max" reads as no limit
}

// The tightest memory limit of this process's control group and its parents, with
// the usage counted against it; nothing when no limit is set.
struct CgroupMemory {
  uint64_t limit = 0;
  uint64_t usage = 0;
};
// The control groups from this process's up to the root that can limit its
// memory. The hierarchy stays as it is while the process runs, so it is looked
// up once: the memory rule asks for every pre-recorded packet.
const std::vector<std::filesystem::path>& limitingGroups() {
  static const std::vector<std::filesystem::path> groups = [] {
    std::vector<std::filesystem::path> found;
    std::ifstream in("/proc/self/cgroup");
    std::error_code ec;
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("0::", 0) != 0) continue;
      std::filesystem::path group = std::filesystem::path("/sys/fs/cgroup") / line.substr(4);
      for (;;) {
        if (std::filesystem::exists(group / "memory.max", ec)) found.push_back(group);
        if (group == "/sys/fs/cgroup" || !group.has_parent_path()) break;
        group = group.parent_path();
      }
    }
    return found;
  }();
  return groups;
}

CgroupMemory cgroupMemory() {
  CgroupMemory best;
  for (const auto& group : limitingGroups()) {
    const uint64_t limit = readNumber(group / "memory.max");
    if (limit == 0) continue;
    const uint64_t usage = readNumber(group / "memory.current");
    if (best.limit == 0 || limit - std::min(limit, usage) < best.limit - std::min(best.limit, best.usage)) {
      best = {limit, usage};
    }
  }
  return best;
}

}  // namespace

std::filesystem::path documentsFolder() {
  if (const char* xdg = nonEmptyEnv("XDG_DOCUMENTS_DIR")) return xdg;
  if (const char* home = nonEmptyEnv("HOME")) {
    std::error_code ec;
    std::filesystem::path documents = std::filesystem::path(home) / "Documents";
    if (std::filesystem::is_directory(documents, ec)) return documents;
    return home;
  }
  return "/tmp";
}

std::optional<uint64_t> diskFreeBytes(const std::filesystem::path& path) {
  struct statvfs st {};
  if (statvfs(nearestExisting(path).c_str(), &st) != 0) return std::nullopt;
  return static_cast<uint64_t>(st.f_bavail) * st.f_frsize;
}

bool isFatVolume(const std::filesystem::path& path) {
  struct statfs st {};
  return statfs(nearestExisting(path).c_str(), &st) == 0 && st.f_type == MSDOS_SUPER_MAGIC;
}

MemoryStatus memoryStatus() {
  // A 64-bit process never runs out of address space; physical memory, or the
  // control group's share of it, is what runs out.
  MemoryStatus status = meminfo();
  const CgroupMemory group = cgroupMemory();
  if (group.limit != 0 && group.limit < status.totalBytes) {
    status.totalBytes = group.limit;
    status.availableBytes = std::min(status.availableBytes, group.limit - std::min(group.limit, group.usage));
  }
  return status;
}

std::filesystem::path executablePath() {
  std::error_code ec;
  return std::filesystem::read_symlink("/proc/self/exe", ec);
}

void debugOutput(std::u16string_view text) {
  const std::string utf8 = toUtf8(text);
  size_t done = 0;
  while (done < utf8.size()) {
    const ssize_t n = ::write(STDERR_FILENO, utf8.data() + done, utf8.size() - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
}

void fatalStop() { std::abort(); }

uint32_t lastError() { return static_cast<uint32_t>(errno); }

std::optional<std::u16string> environmentVariable(std::string_view name) {
  const char* value = std::getenv(std::string(name).c_str());
  if (value == nullptr) return std::nullopt;
  return toUtf16(value);
}

bool setEnvironmentVariable(std::string_view name, std::u16string_view value) {
  return setenv(std::string(name).c_str(), toUtf8(value).c_str(), 1) == 0;
}

std::u16string commandLine(int argc, char** argv) {
  // The program's own path is left out: a folder such as /opt/start/ would
  // otherwise read as a switch.
  std::u16string line;
  for (int i = 1; i < argc; ++i) {
    if (i > 1) line.push_back(u' ');
    line += toUtf16(argv[i]);
  }
  return line;
}

std::vector<std::u16string> commandArguments(int argc, char** argv) {
  std::vector<std::u16string> args;
  for (int i = 1; i < argc; ++i) args.push_back(toUtf16(argv[i]));
  return args;
}

bool stdoutIsTerminal() { return isatty(STDOUT_FILENO) == 1; }

void showMessage(std::u16string_view text, std::u16string_view /*title*/) {
  debugOutput(std::u16string(text) + u"\n");
}

}  // namespace kestrium::platform
