#include "platform/File.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace kestrium::platform {

namespace {

int fdOf(intptr_t handle) { return static_cast<int>(handle); }

}  // namespace

bool File::open(const std::filesystem::path& path, Mode mode, Share share) {
  close();
  int flags = O_CLOEXEC;
  // An exclusive open truncates only once it holds the file, so that it never
  // empties a file that someone else is writing.
  const bool truncate = mode == Mode::CreateAlways;
  switch (mode) {
    case Mode::CreateAlways: flags |= O_RDWR | O_CREAT | (share == Share::Exclusive ? 0 : O_TRUNC); break;
    case Mode::CreateNew: flags |= O_RDWR | O_CREAT | O_EXCL; break;
    case Mode::OpenExisting: flags |= O_RDWR; break;
    case Mode::OpenAlways: flags |= O_RDWR | O_CREAT; break;
    case Mode::ReadOnly: flags |= O_RDONLY; break;
  }
  int fd;
  do {
    fd = ::open(path.c_str(), flags, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return false;
  if (share == Share::Exclusive) {
    // Windows refuses a second open of a file opened without sharing; a lock
    // that lives as long as the descriptor does the same between our opens.
    int r;
    do {
      r = flock(fd, LOCK_EX | LOCK_NB);
    } while (r != 0 && errno == EINTR);
    if (r != 0 || (truncate && ftruncate(fd, 0) != 0)) {
      const int error = r != 0 ? EBUSY : errno;
      ::close(fd);
      errno = error;
      return false;
    }
  }
  handle_ = fd;
  return true;
}

void File::close() {
  if (handle_ == kInvalid) return;
  ::close(fdOf(handle_));
  handle_ = kInvalid;
}

bool File::write(std::span<const std::byte> data) {
  if (handle_ == kInvalid) return false;
  while (!data.empty()) {
    const ssize_t n = ::write(fdOf(handle_), data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data = data.subspan(static_cast<size_t>(n));
  }
  return true;
}

bool File::writeAt(uint64_t offset, std::span<const std::byte> data) {
  if (handle_ == kInvalid) return false;
  while (!data.empty()) {
    const ssize_t n = ::pwrite(fdOf(handle_), data.data(), data.size(), static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data = data.subspan(static_cast<size_t>(n));
    offset += static_cast<uint64_t>(n);
  }
  return true;
}

int64_t File::read(std::span<std::byte> data) {
  if (handle_ == kInvalid) return -1;
  ssize_t n;
  do {
    n = ::read(fdOf(handle_), data.data(), data.size());
  } while (n < 0 && errno == EINTR);
  return n;
}

int64_t File::readAt(uint64_t offset, std::span<std::byte> data) {
  if (handle_ == kInvalid) return -1;
  ssize_t n;
  do {
    n = ::pread(fdOf(handle_), data.data(), data.size(), static_cast<off_t>(offset));
  } while (n < 0 && errno == EINTR);
  return n;
}

int64_t File::seek(int64_t offset, Origin origin) {
  if (handle_ == kInvalid) return -1;
  const int whence = origin == Origin::Begin ? SEEK_SET : origin == Origin::Current ? SEEK_CUR : SEEK_END;
  return ::lseek(fdOf(handle_), static_cast<off_t>(offset), whence);
}

int64_t File::position() { return seek(0, Origin::Current); }

int64_t File::size() {
  struct stat st {};
  if (handle_ == kInvalid || fstat(fdOf(handle_), &st) != 0) return -1;
  return st.st_size;
}

bool File::setEndOfFile() {
  const int64_t at = position();
  return at >= 0 && ftruncate(fdOf(handle_), static_cast<off_t>(at)) == 0;
}

bool File::flush() { return handle_ != kInvalid && fsync(fdOf(handle_)) == 0; }

bool File::remove(const std::filesystem::path& path) { return ::unlink(path.c_str()) == 0; }

}  // namespace kestrium::platform
