// The Windows test programs run under wine, and check what they write with the
// build machine's own ffprobe, ffmpeg and sox. wine starts a Linux program when
// asked to, but gives back no handle to wait on and no exit status: the program
// runs inside /bin/sh, which writes its status to a file once it has ended,
// and the caller waits for that file. Arguments that are Windows paths are
// turned into the Linux paths of the same files, which is what the tools read.

#include <windows.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "platform/ChildProcess.h"
#include "tests/support/TestSupport.h"

namespace kestrium::test {

namespace {

using UnixNameFunction = char*(CDECL*)(const wchar_t*);

// wine's own export: the Linux path of a Windows path. Empty when not under
// wine, or when the path has no Linux name.
std::string unixPathOf(const std::string& windowsPath) {
  static const auto convert = reinterpret_cast<UnixNameFunction>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
  if (convert == nullptr) return {};
  const std::u16string wide = platform::toUtf16(windowsPath);
  char* name = convert(reinterpret_cast<const wchar_t*>(wide.c_str()));
  if (name == nullptr) return {};
  std::string out(name);
  HeapFree(GetProcessHeap(), 0, name);
  return out;
}

bool looksLikeWindowsPath(const std::string& text) {
  return text.size() >= 3 && std::isalpha(static_cast<unsigned char>(text[0])) != 0 && text[1] == ':' &&
         (text[2] == '\\' || text[2] == '/');
}

}  // namespace

std::string hostPath(const std::filesystem::path& path) { return unixPathOf(path.string()); }

int runHostTool(const std::string& tool, const std::vector<std::string>& args, std::string& output) {
  const TempFolder folder("-host-tool");
  const std::filesystem::path outputFile = folder.path() / "output.txt";
  const std::filesystem::path statusFile = folder.path() / "status.txt";
  {
    std::ofstream touch(outputFile);
  }
  const std::string unixOutput = unixPathOf(outputFile.string());
  const std::string unixStatus = unixPathOf(statusFile.string());
  if (unixOutput.empty() || unixStatus.empty()) {
    output = "the Linux tools run only under wine";
    return -1;
  }
  // sh -c SCRIPT sh OUTPUT STATUS TOOL ARGS...: the status is written to a
  // second file and renamed, so that it is never read half-written.
  std::vector<std::string> shArgs{"-c", "o=$1; s=$2; shift 2; \"$@\" >\"$o\" 2>&1 </dev/null; echo $? >\"$s.part\"; mv \"$s.part\" \"$s\"",
                                  "sh", unixOutput, unixStatus, tool};
  for (const std::string& arg : args) {
    if (looksLikeWindowsPath(arg)) {
      const std::string unix = unixPathOf(arg);
      shArgs.push_back(unix.empty() ? arg : unix);
    } else {
      shArgs.push_back(arg);
    }
  }
  platform::ChildProcess shell;
  if (!shell.start("Z:\\bin\\sh", shArgs)) {
    output = "cannot start /bin/sh";
    return -1;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!std::filesystem::exists(statusFile)) {
    if (std::chrono::steady_clock::now() > deadline) {
      output = "timed out";
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::ifstream status(statusFile);
  int code = -1;
  status >> code;
  std::ifstream in(outputFile, std::ios::binary);
  output.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return code;
}

}  // namespace kestrium::test
