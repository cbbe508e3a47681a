#include "server/Log.h"

#include <cstdio>
#include <mutex>
#include <vector>

#include "platform/File.h"
#include "platform/NoDestructor.h"
#include "platform/System.h"

namespace kestrium {

namespace {

constexpr uint32_t kMutexPatienceMs = 5000;

void appendUtf16le(std::vector<std::byte>& out, char16_t c) {
  out.push_back(static_cast<std::byte>(c & 0xFF));
  out.push_back(static_cast<std::byte>(c >> 8));
}

std::u16string prefixOf(const platform::LocalTime& t) {
  char time[16];
  std::snprintf(time, sizeof time, "%02u:%02u:%02u", t.hour % 100u, t.minute % 100u, t.second % 100u);
  return formatWide(u"%S.%03d |%s %22s | ", time, t.milliseconds, u"   ", Log::kProcessName);
}

}  // namespace

Log::Log(Clock clock) : clock_(std::move(clock)) {}

void Log::open(const std::filesystem::path& path, bool recreate) {
  std::unique_lock lock(state_);
  path_ = path;
  if (recreate) {
    platform::File file;
    if (file.open(path, platform::File::Mode::CreateAlways)) {
      const std::byte bom[] = {std::byte{0xFF}, std::byte{0xFE}};
      file.write(bom);
    }
  }
  mutex_.create(kMutexName, false);
}

void Log::close() {
  std::unique_lock lock(state_);
  mutex_.close();
}

bool Log::isOpen() const {
  std::shared_lock lock(state_);
  return mutex_.valid();
}

void Log::write(std::u16string_view format, std::span<const LogArg> args) {
  std::shared_lock lock(state_);
  if (!mutex_.valid()) return;
  const platform::LockStatus status = mutex_.wait(kMutexPatienceMs);
  if (status == platform::LockStatus::Timeout) {
    platform::debugOutput(u"Kestrium 5 wait log mutex timeout\n");
    return;
  }
  if (status != platform::LockStatus::Acquired) {
    // An abandoned mutex is ours now and stays held: the line is still dropped.
    platform::debugOutput(formatWide(u"Kestrium 5 wait log mutex error %d\n", static_cast<uint32_t>(status)));
    return;
  }

  const platform::LocalTime now = clock_();
  // Same hour and minute and under two seconds on: the line follows directly.
  // Anything else shows as a blank line, which marks pauses in the log.
  const bool follows = now.hour == last_.hour && now.minute == last_.minute &&
                       static_cast<int>(now.second) - static_cast<int>(last_.second) < 2;
  last_ = now;

  std::u16string body = formatWide(format, args);
  if (body.size() > kBodyLimit) {
    body.resize(kBodyLimit);
    // Never end on half a surrogate pair: the file must stay valid UTF-16.
    if (body.back() >= 0xD800 && body.back() <= 0xDBFF) body.pop_back();
  }

  std::vector<std::byte> line;
  line.reserve((body.size() * 2 + 64) * 2);
  if (!follows) appendUtf16le(line, u'\n');
  for (char16_t c : prefixOf(now)) appendUtf16le(line, c);
  for (char16_t c : body) {
    if (c == u'\n') appendUtf16le(line, u'\r');
    appendUtf16le(line, c);
  }

  platform::File file;
  if (file.open(path_, platform::File::Mode::OpenAlways) && file.seek(0, platform::File::Origin::End) >= 0) {
    file.write(line);
  }
  file.close();
  mutex_.release();
}

std::filesystem::path Log::defaultPath() {
  const std::filesystem::path documents = platform::documentsFolder();
  if (documents.empty()) return std::filesystem::path(u"c:\\" + std::u16string(u"\\Kestrium.txt"));
  return documents / "Kestrium.txt";
}

Log& processLog() {
  // Never destroyed: threads and static objects may log until the process ends.
  static platform::NoDestructor<Log> log;
  return *log;
}

}  // namespace kestrium
