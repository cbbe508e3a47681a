#include "platform/File.h"

#include <windows.h>

#include <algorithm>
#include <utility>

namespace kestrium::platform {

namespace {

HANDLE toHandle(intptr_t h) { return reinterpret_cast<HANDLE>(h); }

// The largest piece a single ReadFile/WriteFile call takes.
constexpr size_t kMaxIo = 0x40000000;

bool writeAll(HANDLE h, std::span<const std::byte> data) {
  while (!data.empty()) {
    const DWORD chunk = static_cast<DWORD>(std::min(data.size(), kMaxIo));
    DWORD written = 0;
    if (!WriteFile(h, data.data(), chunk, &written, nullptr) || written == 0) return false;
    data = data.subspan(written);
  }
  return true;
}

int64_t readSome(HANDLE h, std::span<std::byte> data) {
  const DWORD chunk = static_cast<DWORD>(std::min(data.size(), kMaxIo));
  DWORD got = 0;
  if (!ReadFile(h, data.data(), chunk, &got, nullptr)) return -1;
  return got;
}

bool pointer(HANDLE h, int64_t distance, DWORD method, int64_t* result) {
  LARGE_INTEGER move;
  move.QuadPart = distance;
  LARGE_INTEGER now{};
  if (!SetFilePointerEx(h, move, &now, method)) return false;
  if (result != nullptr) *result = now.QuadPart;
  return true;
}

// Runs io at offset and puts the file pointer back where it was, so that the
// positional calls leave the sequential writer's position alone.
template <class Io>
auto atOffset(HANDLE h, uint64_t offset, Io io, decltype(io()) failure) {
  int64_t saved = 0;
  if (!pointer(h, 0, FILE_CURRENT, &saved)) return failure;
  if (!pointer(h, static_cast<int64_t>(offset), FILE_BEGIN, nullptr)) return failure;
  auto result = io();
  if (!pointer(h, saved, FILE_BEGIN, nullptr)) return failure;
  return result;
}

}  // namespace

bool File::open(const std::filesystem::path& path, Mode mode, Share share) {
  close();
  DWORD access = GENERIC_READ | GENERIC_WRITE;
  DWORD disposition = OPEN_EXISTING;
  switch (mode) {
    case Mode::CreateAlways:
      disposition = CREATE_ALWAYS;
      break;
    case Mode::CreateNew:
      disposition = CREATE_NEW;
      break;
    case Mode::OpenExisting:
      disposition = OPEN_EXISTING;
      break;
    case Mode::OpenAlways:
      disposition = OPEN_ALWAYS;
      break;
    case Mode::ReadOnly:
      access = GENERIC_READ;
      disposition = OPEN_EXISTING;
      break;
  }
  const DWORD sharing = share == Share::Exclusive ? 0 : FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  HANDLE h = CreateFileW(path.c_str(), access, sharing, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  handle_ = reinterpret_cast<intptr_t>(h);
  return true;
}

void File::close() {
  if (handle_ == kInvalid) return;
  CloseHandle(toHandle(handle_));
  handle_ = kInvalid;
}

bool File::write(std::span<const std::byte> data) { return isOpen() && writeAll(toHandle(handle_), data); }

bool File::writeAt(uint64_t offset, std::span<const std::byte> data) {
  if (!isOpen()) return false;
  HANDLE h = toHandle(handle_);
  return atOffset(h, offset, [&] { return writeAll(h, data); }, false);
}

int64_t File::read(std::span<std::byte> data) { return isOpen() ? readSome(toHandle(handle_), data) : -1; }

int64_t File::readAt(uint64_t offset, std::span<std::byte> data) {
  if (!isOpen()) return -1;
  HANDLE h = toHandle(handle_);
  return atOffset(h, offset, [&] { return readSome(h, data); }, int64_t{-1});
}

int64_t File::seek(int64_t offset, Origin origin) {
  if (!isOpen()) return -1;
  DWORD method = FILE_BEGIN;
  if (origin == Origin::Current) method = FILE_CURRENT;
  if (origin == Origin::End) method = FILE_END;
  int64_t result = -1;
  return pointer(toHandle(handle_), offset, method, &result) ? result : -1;
}

int64_t File::position() { return seek(0, Origin::Current); }

int64_t File::size() {
  if (!isOpen()) return -1;
  LARGE_INTEGER size{};
  return GetFileSizeEx(toHandle(handle_), &size) ? size.QuadPart : -1;
}

bool File::setEndOfFile() { return isOpen() && SetEndOfFile(toHandle(handle_)) != 0; }

bool File::flush() { return isOpen() && FlushFileBuffers(toHandle(handle_)) != 0; }

bool File::remove(const std::filesystem::path& path) { return DeleteFileW(path.c_str()) != 0; }

}  // namespace kestrium::platform
