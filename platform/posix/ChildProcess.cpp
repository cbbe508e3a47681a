#include "platform/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/Clock.h"
#include "platform/Wait.h"

extern char** environ;

namespace kestrium::platform {

namespace {

pid_t pidOf(intptr_t handle) { return static_cast<pid_t>(handle); }

int exitStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

}  // namespace

ChildProcess::~ChildProcess() {
  if (running()) {
    kill();
    wait(kInfinite);
  }
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept : handle_(std::exchange(other.handle_, kNone)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    if (running()) {
      kill();
      wait(kInfinite);
    }
    handle_ = std::exchange(other.handle_, kNone);
  }
  return *this;
}

bool ChildProcess::start(const std::filesystem::path& program, const std::vector<std::string>& args,
                         const Environment& extraEnv, const std::filesystem::path& outputFile) {
  if (running()) return false;
  std::vector<std::string> argStrings;
  argStrings.push_back(program.string());
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : argStrings) argv.push_back(a.data());
  argv.push_back(nullptr);

  std::vector<std::string> envStrings;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string_view entry(*e);
    const auto eq = entry.find('=');
    const std::string_view key = entry.substr(0, eq);
    bool replaced = false;
    for (const auto& [k, v] : extraEnv) replaced = replaced || k == key;
    if (!replaced) envStrings.emplace_back(entry);
  }
  for (const auto& [k, v] : extraEnv) envStrings.push_back(k + "=" + v);
  std::vector<char*> envp;
  for (auto& e : envStrings) envp.push_back(e.data());
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (!outputFile.empty()) {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  }
  pid_t pid = 0;
  const int r = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (r != 0) return false;
  handle_ = pid;
  return true;
}

std::optional<int> ChildProcess::wait(uint32_t timeoutMs) {
  if (!running()) return std::nullopt;
  const uint64_t deadline = monotonicNs() + static_cast<uint64_t>(timeoutMs) * 1000000ull;
  for (;;) {
    int status = 0;
    const pid_t r = waitpid(pidOf(handle_), &status, timeoutMs == kInfinite ? 0 : WNOHANG);
    if (r == pidOf(handle_)) {
      handle_ = kNone;
      return exitStatus(status);
    }
    if (r < 0 && errno != EINTR) {
      handle_ = kNone;  // not our child any more: nothing left to collect
      return -1;
    }
    if (timeoutMs != kInfinite && monotonicNs() >= deadline) return std::nullopt;
    if (r == 0) sleepMs(1);
  }
}

bool ChildProcess::kill() { return running() && ::kill(pidOf(handle_), SIGKILL) == 0; }

uint32_t ChildProcess::id() const { return running() ? static_cast<uint32_t>(pidOf(handle_)) : 0; }

bool ChildProcess::requestStop() { return running() && ::kill(pidOf(handle_), SIGTERM) == 0; }

}  // namespace kestrium::platform
