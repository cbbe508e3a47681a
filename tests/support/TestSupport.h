#pragma once

// Helpers shared by the suites: names and folders unique to one test, and the
// UTF-16LE log read back as UTF-8 text.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "platform/ChildProcess.h"
#include "platform/Clock.h"
#include "platform/System.h"
#include "platform/Text.h"

namespace kestrium::test {

// Unique to this test in this run: safe as a kernel object name, a namespace and
// a folder name.
inline std::string uniqueName() {
  static const std::string run = [] {
    std::random_device rd;
    return std::to_string(rd() % 100000) + "-" + std::to_string(platform::monotonicNs() % 100000);
  }();
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = std::string(info->test_suite_name()) + "." + info->name() + "." + run;
  for (char& c : name) {
    if (c == '/') c = '-';
  }
  return name;
}

// A kernel-object namespace of this test's own, inside the one the run was
// started with (KESTRIUM_NAMESPACE), so that a run can tell what it left behind
// in /dev/shm from another run's objects.
inline std::u16string uniqueNamespace() {
  // Taken once: the end-to-end harness sets the variable for its servers.
  static const std::u16string run = platform::environmentVariable("KESTRIUM_NAMESPACE").value_or(u"");
  return run + u"-" + platform::toUtf16(uniqueName());
}

// A folder of its own for one test, removed with everything in it at the end.
class TempFolder {
 public:
  explicit TempFolder(const std::string& suffix = {})
      : path_(std::filesystem::temp_directory_path() / ("kestrium-" + uniqueName() + suffix)) {
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~TempFolder() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline std::vector<char> readBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
inline std::string readText(const std::filesystem::path& path) {
  const std::vector<char> bytes = readBytes(path);
  return {bytes.begin(), bytes.end()};
}

// The text of a UTF-16LE file as UTF-16, byte order mark included if present.
inline std::u16string readUtf16(const std::filesystem::path& path) {
  const std::vector<char> bytes = readBytes(path);
  std::u16string text;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    text.push_back(static_cast<char16_t>(static_cast<uint8_t>(bytes[i]) | (static_cast<uint8_t>(bytes[i + 1]) << 8)));
  }
  return text;
}

// The log as UTF-8 without its byte order mark.
inline std::string readLog(const std::filesystem::path& path) {
  std::u16string text = readUtf16(path);
  if (!text.empty() && text[0] == u'\xFEFF') text.erase(0, 1);
  return platform::toUtf8(text);
}

inline size_t countOf(std::string_view text, std::string_view what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string_view::npos; at = text.find(what, at + what.size())) ++n;
  return n;
}

// The independent checkers (ffprobe, ffmpeg, sox) as the build found them: the
// build machine's, which the Windows builds run through wine.
#ifndef KESTRIUM_FFPROBE
#define KESTRIUM_FFPROBE ""
#endif
#ifndef KESTRIUM_FFMPEG
#define KESTRIUM_FFMPEG ""
#endif
#ifndef KESTRIUM_SOX
#define KESTRIUM_SOX ""
#endif

#ifdef _WIN32
// A Linux program run from a Windows test program under wine, with arguments
// that are Windows paths given as the same files' Linux paths (HostTool.cpp).
int runHostTool(const std::string& tool, const std::vector<std::string>& args, std::string& output);
// The Linux path of a file, for the build machine's programs; empty when not
// under wine (HostTool.cpp).
std::string hostPath(const std::filesystem::path& path);
#else
inline std::string hostPath(const std::filesystem::path& path) { return path.string(); }
#endif

// Runs a tool to its end; its standard output and error land in output. Returns
// its exit status, or -1 when it could not run or did not end within a minute.
inline int runTool(const std::filesystem::path& tool, const std::vector<std::string>& args, std::string& output) {
#ifdef _WIN32
  if (tool.string().starts_with('/')) return runHostTool(tool.string(), args, output);
#endif
  const TempFolder folder("-tool");
  const auto file = folder.path() / "tool-output.txt";
  platform::ChildProcess child;
  if (!child.start(tool, args, {}, file)) return -1;
  const int status = child.wait(60000).value_or(-1);
  const std::vector<char> bytes = readBytes(file);
  output.assign(bytes.begin(), bytes.end());
  return status;
}

// Runs a script in the build machine's /bin/sh, under wine too, with args as
// $1, $2, ...: how the tests start and stop the servers they need (a sound
// server, an RTMP server) on both. Returns the script's exit status.
inline int runShell(const std::string& script, const std::vector<std::string>& args, std::string& output) {
  std::vector<std::string> all{"-c", script, "sh"};
  all.insert(all.end(), args.begin(), args.end());
  return runTool("/bin/sh", all, output);
}

// A small file system of its own at folder, for tests of a full disk: a tmpfs
// mounted for the test's life where that is allowed (root on Linux).
class SmallVolume {
 public:
  SmallVolume(const std::filesystem::path& folder, uint64_t bytes) : folder_(folder) {
    std::string out;
    const int status =
        runTool("/bin/mount", {"-t", "tmpfs", "-o", "size=" + std::to_string(bytes), "kestrium-test", folder.string()},
                out);
    mounted_ = status == 0;
    if (!mounted_) why_ = "a small tmpfs cannot be mounted here (it needs root on Linux): " + out;
  }
  ~SmallVolume() {
    if (!mounted_) return;
    std::string out;
    // Lazily: a file a test still holds open must not keep the volume mounted.
    runTool("/bin/umount", {"-l", folder_.string()}, out);
  }
  SmallVolume(const SmallVolume&) = delete;
  SmallVolume& operator=(const SmallVolume&) = delete;
  bool mounted() const { return mounted_; }
  const std::string& why() const { return why_; }

 private:
  std::filesystem::path folder_;
  bool mounted_ = false;
  std::string why_;
};

}  // namespace kestrium::test
