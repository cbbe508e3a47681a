#pragma once

#include <filesystem>
#include <functional>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "platform/Clock.h"
#include "platform/NamedMutex.h"
#include "server/LogFormat.h"

namespace kestrium {

// The server's text log: UTF-16LE lines with a time and process prefix, shared by
// every process of the tool under one named mutex. Each line opens the file,
// appends and closes it, so a crash loses nothing already logged. Writing before
// open() or after close() does nothing.
class Log {
 public:
  using Clock = std::function<platform::LocalTime()>;

  static constexpr std::u16string_view kMutexName = u"Kestrium5LogMutex";
  static constexpr std::u16string_view kProcessName = u"kestriumcapture32.exe";
  static constexpr size_t kBodyLimit = 4095;

  explicit Log(Clock clock = platform::localTime);

  // recreate (an interactive start) truncates the file and writes the byte order
  // mark; otherwise the file is appended to as it stands.
  void open(const std::filesystem::path& path, bool recreate);
  void close();
  bool isOpen() const;

  void write(std::u16string_view format, std::span<const LogArg> args);

  template <class... Args>
  void operator()(std::u16string_view format, const Args&... args) {
    const LogArg list[] = {LogArg(args)..., LogArg(0)};
    write(format, std::span<const LogArg>(list, sizeof...(Args)));
  }

  // The documents folder's "Kestrium.txt", or "c:\\Kestrium.txt" where the
  // folder is unknown.
  static std::filesystem::path defaultPath();

 private:
  Clock clock_;
  mutable std::shared_mutex state_;  // open/close against writers of this process
  std::filesystem::path path_;
  platform::NamedMutex mutex_;
  platform::LocalTime last_{};  // touched only while mutex_ is held
};

// The log of this process.
Log& processLog();

template <class... Args>
void logLine(std::u16string_view format, const Args&... args) {
  processLog()(format, args...);
}

}  // namespace kestrium
