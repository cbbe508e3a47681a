// The child of the Win32-only process tests: it reports what it received (its
// arguments as the C runtime split them, its environment) to a file, or plays a
// scenario and reports through its exit status. A wide entry point, so that the
// arguments arrive as the C runtime parsed them, not through a code page.

#include <windows.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/File.h"
#include "platform/NamedMutex.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "platform/Thread.h"

using namespace kestrium::platform;

namespace {

std::u16string u16(const wchar_t* text) { return reinterpret_cast<const char16_t*>(text); }

bool writeFile(const wchar_t* path, const std::string& text) {
  File out;
  return out.open(std::filesystem::path(path), File::Mode::CreateAlways) &&
         out.write(std::as_bytes(std::span(text.data(), text.size())));
}

// Each argument after the output path, 0-terminated.
int reportArguments(int argc, wchar_t** argv) {
  std::string text;
  for (int i = 3; i < argc; ++i) {
    text += toUtf8(u16(argv[i]));
    text.push_back('\0');
  }
  return writeFile(argv[2], text) ? 0 : 1;
}

// For each name: how many entries of the block carry it (ignoring case), and the
// value GetEnvironmentVariableW gives, as "count:value", 0-terminated.
int reportEnvironment(int argc, wchar_t** argv) {
  std::vector<std::wstring> entries;
  if (wchar_t* block = GetEnvironmentStringsW()) {
    for (const wchar_t* p = block; *p != L'\0'; p += entries.back().size() + 1) entries.emplace_back(p);
    FreeEnvironmentStringsW(block);
  }
  std::string text;
  for (int i = 3; i < argc; ++i) {
    const std::wstring name = argv[i];
    int count = 0;
    for (const auto& e : entries) {
      if (e.size() > name.size() && e[name.size()] == L'=' &&
          CompareStringOrdinal(e.c_str(), static_cast<int>(name.size()), name.c_str(), static_cast<int>(name.size()),
                               TRUE) == CSTR_EQUAL) {
        ++count;
      }
    }
    wchar_t value[1024] = {};
    GetEnvironmentVariableW(name.c_str(), value, 1024);
    text += std::to_string(count) + ":" + toUtf8(u16(value));
    text.push_back('\0');
  }
  return writeFile(argv[2], text) ? 0 : 1;
}

const wchar_t* exitMarker = nullptr;

// Ends through fatalStop(); the exit handler leaves a mark if anything ran.
int stopFatally(wchar_t** argv) {
  exitMarker = argv[2];
  std::atexit([] { writeFile(exitMarker, "exit handlers ran"); });
  fatalStop();
}

// 1 if the named mutex existed already, 0 if this call created it.
int mutexExisted(wchar_t** argv) {
  NamedMutex m;
  if (!m.create(u16(argv[2]), false)) return 2;
  return m.existed() ? 1 : 0;
}

// Starts and at once terminates threads, then returns normally: the process
// must still be able to end.
int terminateThreads(wchar_t** argv) {
  const int count = _wtoi(argv[2]);
  for (int i = 0; i < count; ++i) {
    Thread t;
    if (!t.start([] { sleepMs(kInfinite); })) return 1;
    t.terminate();
  }
  return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc < 3) return 100;
  const std::wstring scenario = argv[1];
  if (scenario == L"args") return reportArguments(argc, argv);
  if (scenario == L"env") return reportEnvironment(argc, argv);
  if (scenario == L"fatal") return stopFatally(argv);
  if (scenario == L"mutex") return mutexExisted(argv);
  if (scenario == L"threads") return terminateThreads(argv);
  if (scenario == L"exit") return _wtoi(argv[2]);
  if (scenario == L"sleep") sleepMs(kInfinite);
  return 100;
}
