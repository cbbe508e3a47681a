#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrium::platform {

// A process started from an executable file, for the client's and the tests' use.
// The destructor kills a child that still runs and collects it.
class ChildProcess {
 public:
  using Environment = std::vector<std::pair<std::string, std::string>>;

  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts program with the arguments (not counting the program itself). The
  // child inherits this environment with extraEnv set on top of it. With an
  // output file, the child's standard output and error go there (the file is
  // made anew); otherwise they are this process's. Under wine a Linux program
  // starts without a process to hold: running() is then false at once.
  bool start(const std::filesystem::path& program, const std::vector<std::string>& args,
             const Environment& extraEnv = {}, const std::filesystem::path& outputFile = {});

  bool running() const { return handle_ != kNone; }
  // The OS's process id, or 0 without a child.
  uint32_t id() const;

  // The exit status once the child has ended (it is then collected), or nothing if
  // it still runs after timeoutMs.
  std::optional<int> wait(uint32_t timeoutMs);

  // Ends the child at once, as SIGKILL or TerminateProcess do, without letting it
  // release anything itself. Returns false if there is no child.
  bool kill();

  // Asks the child to end the way a user would: SIGTERM on POSIX, a close of its
  // windows on Windows. False if there is no child or it has no way to be asked.
  bool requestStop();

 private:
  static constexpr intptr_t kNone = -1;
  intptr_t handle_ = kNone;  // a pid, or a process HANDLE
};

}  // namespace kestrium::platform
