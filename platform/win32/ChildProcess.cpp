#include "platform/ChildProcess.h"

#include <windows.h>

#include <algorithm>
#include <utility>

#include "platform/Text.h"
#include "platform/win32/Win32Names.h"

namespace kestrium::platform {

namespace {

HANDLE toHandle(intptr_t h) { return reinterpret_cast<HANDLE>(h); }

// Appends one argument so that the child's C runtime splits it back out
// unchanged: quoted when it has blanks or quotes or is empty, with the
// backslashes that precede a quote (or the closing quote) doubled.
void appendArgument(std::u16string& commandLine, std::u16string_view arg) {
  commandLine.push_back(u' ');
  if (!arg.empty() && arg.find_first_of(u" \t\n\v\"") == std::u16string_view::npos) {
    commandLine.append(arg);
    return;
  }
  commandLine.push_back(u'"');
  size_t backslashes = 0;
  for (char16_t c : arg) {
    if (c == u'\\') {
      ++backslashes;
      continue;
    }
    if (c == u'"') {
      commandLine.append(backslashes * 2 + 1, u'\\');
    } else {
      commandLine.append(backslashes, u'\\');
    }
    backslashes = 0;
    commandLine.push_back(c);
  }
  commandLine.append(backslashes * 2, u'\\');
  commandLine.push_back(u'"');
}

// A variable's name: up to the first '=' that is not the first character (the
// hidden per-drive entries look like "=C:=C:\dir").
std::u16string_view variableName(std::u16string_view entry) {
  const size_t equals = entry.find(u'=', 1);
  return entry.substr(0, equals == std::u16string_view::npos ? entry.size() : equals);
}

bool sameName(std::u16string_view a, std::u16string_view b) {
  return CompareStringOrdinal(reinterpret_cast<LPCWCH>(a.data()), static_cast<int>(a.size()),
                              reinterpret_cast<LPCWCH>(b.data()), static_cast<int>(b.size()), TRUE) == CSTR_EQUAL;
}

bool nameLess(std::u16string_view a, std::u16string_view b) {
  return CompareStringOrdinal(reinterpret_cast<LPCWCH>(a.data()), static_cast<int>(a.size()),
                              reinterpret_cast<LPCWCH>(b.data()), static_cast<int>(b.size()),
                              TRUE) == CSTR_LESS_THAN;
}

// This process's environment with extra set on top, as the double-0-terminated
// block CreateProcessW takes.
std::u16string environmentBlock(const ChildProcess::Environment& extra) {
  std::vector<std::u16string> entries;
  if (wchar_t* strings = GetEnvironmentStringsW()) {
    for (const wchar_t* p = strings; *p != L'\0';) {
      std::u16string entry(reinterpret_cast<const char16_t*>(p));
      p += entry.size() + 1;
      entries.push_back(std::move(entry));
    }
    FreeEnvironmentStringsW(strings);
  }
  for (const auto& [name, value] : extra) {
    const std::u16string wideName = toUtf16(name);
    std::erase_if(entries, [&](const std::u16string& e) { return sameName(variableName(e), wideName); });
    entries.push_back(wideName + u'=' + toUtf16(value));
  }
  // Windows keeps its environment sorted by name, ignoring case.
  std::stable_sort(entries.begin(), entries.end(),
                   [](const std::u16string& a, const std::u16string& b) { return nameLess(variableName(a), variableName(b)); });

  std::u16string block;
  for (const auto& e : entries) {
    block += e;
    block.push_back(u'\0');
  }
  // An empty environment still needs both terminating zeros.
  if (entries.empty()) block.push_back(u'\0');
  block.push_back(u'\0');
  return block;
}

// Kills the child if it still runs, waits until it is gone and lets go of it.
void reap(intptr_t handle) {
  HANDLE h = toHandle(handle);
  if (WaitForSingleObject(h, 0) == WAIT_TIMEOUT) {
    TerminateProcess(h, 1);
    WaitForSingleObject(h, INFINITE);
  }
  CloseHandle(h);
}

}  // namespace

ChildProcess::~ChildProcess() {
  if (running()) reap(handle_);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept : handle_(std::exchange(other.handle_, kNone)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    if (running()) reap(handle_);
    handle_ = std::exchange(other.handle_, kNone);
  }
  return *this;
}

bool ChildProcess::start(const std::filesystem::path& program, const std::vector<std::string>& args,
                         const Environment& extraEnv, const std::filesystem::path& outputFile) {
  if (running()) return false;

  // The program comes first and always quoted: the C runtime takes the first
  // token literally up to the closing quote, and a path holds no quotes.
  std::u16string commandLine = u"\"" + program.u16string() + u"\"";
  for (const auto& arg : args) appendArgument(commandLine, toUtf16(arg));
  std::u16string environment = environmentBlock(extraEnv);

  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  // Only the output file is inherited, and only when there is one: the child
  // opens the named objects it needs itself.
  HANDLE output = INVALID_HANDLE_VALUE;
  if (!outputFile.empty()) {
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    output = CreateFileW(outputFile.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         &inherit, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (output == INVALID_HANDLE_VALUE) return false;
    startup.dwFlags |= STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = output;
    startup.hStdError = output;
  }
  PROCESS_INFORMATION info{};
  const BOOL made = CreateProcessW(nullptr, win32::wide(commandLine.data()), nullptr, nullptr,
                                   output != INVALID_HANDLE_VALUE, CREATE_UNICODE_ENVIRONMENT, environment.data(),
                                   nullptr, &startup, &info);
  if (output != INVALID_HANDLE_VALUE) CloseHandle(output);
  if (!made) return false;
  if (info.hProcess == nullptr) {
    // wine starting a Linux program: it gives no process to hold, and what it
    // leaves in hThread is no handle of ours (closing it could close another).
    return true;
  }
  CloseHandle(info.hThread);
  handle_ = reinterpret_cast<intptr_t>(info.hProcess);
  return true;
}

std::optional<int> ChildProcess::wait(uint32_t timeoutMs) {
  if (!running()) return std::nullopt;
  HANDLE h = toHandle(handle_);
  if (WaitForSingleObject(h, timeoutMs) != WAIT_OBJECT_0) return std::nullopt;
  DWORD code = 0;
  const bool known = GetExitCodeProcess(h, &code) != 0;
  CloseHandle(h);
  handle_ = kNone;
  if (!known) return std::nullopt;
  return static_cast<int>(code);
}

uint32_t ChildProcess::id() const { return running() ? GetProcessId(toHandle(handle_)) : 0; }

bool ChildProcess::kill() {
  if (!running()) return false;
  HANDLE h = toHandle(handle_);
  // A child that has already ended but was not collected yet counts as killed,
  // as a zombie does for kill(2).
  return TerminateProcess(h, 1) != 0 || WaitForSingleObject(h, 0) == WAIT_OBJECT_0;
}

namespace {

struct CloseRequest {
  DWORD processId;
  bool posted;
};

BOOL CALLBACK closeWindowOf(HWND window, LPARAM param) {
  auto* request = reinterpret_cast<CloseRequest*>(param);
  DWORD owner = 0;
  GetWindowThreadProcessId(window, &owner);
  if (owner == request->processId && PostMessageW(window, WM_CLOSE, 0, 0)) request->posted = true;
  return TRUE;
}

}  // namespace

bool ChildProcess::requestStop() {
  if (!running()) return false;
  CloseRequest request{GetProcessId(toHandle(handle_)), false};
  EnumWindows(closeWindowOf, reinterpret_cast<LPARAM>(&request));
  return request.posted;
}

}  // namespace kestrium::platform
