#include "platform/posix/KernelObject.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "platform/NoDestructor.h"
#include "platform/System.h"
#include "platform/Text.h"

namespace kestrium::platform::posix {

namespace {

// The bytes after the slash of a shm name become a file name in /dev/shm.
constexpr size_t kMaxNameBytes = NAME_MAX;
constexpr size_t kHashHexDigits = 32;

void appendEscaped(std::string& out, std::string_view utf8, bool escapeDot) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (char ch : utf8) {
    const auto b = static_cast<unsigned char>(ch);
    if (b < 0x20 || b == 0x7F || b == '/' || b == '%' || (escapeDot && b == '.')) {
      out.push_back('%');
      out.push_back(kHex[b >> 4]);
      out.push_back(kHex[b & 15]);
    } else {
      out.push_back(ch);
    }
  }
}

uint64_t fnv1a(std::string_view bytes, uint64_t basis) {
  uint64_t h = basis;
  for (char ch : bytes) {
    h ^= static_cast<unsigned char>(ch);
    h *= 0x100000001B3ull;
  }
  return h;
}

std::string namespacePrefix() {
  std::string prefix = "/kestrium." + std::to_string(geteuid()) + ".";
  // Dots are escaped in the namespace so that no namespace and name pair can
  // spell the same file as another pair.
  appendEscaped(prefix, toUtf8(objectNamespace()), true);
  prefix.push_back('.');
  return prefix;
}

int retryEintr(const std::function<int()>& call) {
  int r;
  do {
    r = call();
  } while (r == -1 && errno == EINTR);
  return r;
}

// A shm descriptor is ours only if we own it and nobody else may read it: otherwise
// another user could create the name first, with mode 0666, and read every frame.
bool ownedPrivately(int fd) {
  struct stat st {};
  return fstat(fd, &st) == 0 && st.st_uid == geteuid() && (st.st_mode & 077) == 0;
}

// Where shm_open keeps its objects, as files named after them.
constexpr const char* kShmDirectory = "/dev/shm";

std::string shmPath(const std::string& shmName) { return kShmDirectory + shmName; }

// The lock of a namespace is a file too, and the last process to leave the
// namespace removes it. A process that opened the old file before then and waits
// in flock wins a lock on a file no one else will ever take, while a third makes
// a new file under the name and locks that: two holders at once. So whoever gets
// the lock checks that its file is still the one under the name, and starts again
// on the new one if not. Only a holder removes the file, so a check passed while
// holding stays true until the lock is given up.
class NamespaceLock {
 public:
  explicit NamespaceLock(std::string lockName) : name_(std::move(lockName)) {
    for (;;) {
      const int fd = shm_open(name_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
      if (fd < 0) return;
      if (!ownedPrivately(fd) || retryEintr([fd] { return flock(fd, LOCK_EX); }) != 0) {
        ::close(fd);
        return;
      }
      const Naming naming = stillNamed(fd);
      if (naming == Naming::Current) {
        fd_ = fd;
        return;
      }
      ::close(fd);
      if (naming == Naming::Unknown) return;
    }
  }
  // Closing drops the lock; never LOCK_UN, which in a forked child would drop the
  // parent's lock on the same open file.
  ~NamespaceLock() {
    if (fd_ >= 0) ::close(fd_);
  }
  NamespaceLock(const NamespaceLock&) = delete;
  NamespaceLock& operator=(const NamespaceLock&) = delete;

  bool held() const { return fd_ >= 0; }

  // Removes the lock file; the lock itself is held until this object goes.
  void removeFile() {
    if (fd_ >= 0) shm_unlink(name_.c_str());
  }

 private:
  enum class Naming { Current, Replaced, Unknown };

  Naming stillNamed(int fd) const {
    struct stat locked {}, named {};
    if (fstat(fd, &locked) != 0) return Naming::Unknown;
    if (locked.st_nlink == 0) return Naming::Replaced;
    if (lstat(shmPath(name_).c_str(), &named) != 0) return errno == ENOENT ? Naming::Replaced : Naming::Unknown;
    return locked.st_dev == named.st_dev && locked.st_ino == named.st_ino ? Naming::Current : Naming::Replaced;
  }

  std::string name_;
  int fd_ = -1;
};

class UniqueFd {
 public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_;
};

struct DirectoryCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

// The objects of a namespace are the files whose names extend the name of its
// lock file. No other namespace's names do: the namespace is escaped so that it
// never holds a dot, and the dot that ends it is part of the lock file's name.
bool isObjectOf(std::string_view fileName, std::string_view lockFile) {
  return fileName.size() > lockFile.size() && fileName.starts_with(lockFile);
}

std::string_view fileNameOf(const std::string& shmName) { return std::string_view(shmName).substr(1); }

// True when /dev/shm holds any object of the namespace, also when that cannot be
// told: the lock file then stays, which costs a few bytes and nothing else.
bool namespaceHasObjects(const std::string& lockName) {
  const Directory dir(opendir(kShmDirectory));
  if (!dir) return true;
  while (const dirent* entry = readdir(dir.get())) {
    if (isObjectOf(entry->d_name, fileNameOf(lockName))) return true;
  }
  return false;
}

// Segments this process holds, by shm name. Guarded by registryMutex, which is
// always taken before the namespace lock. Never destroyed: handles in static
// objects may close after every other static is gone.
std::mutex registryMutex;
using Registry = std::unordered_map<std::string, std::shared_ptr<Segment>>;
Registry& registry() {
  static NoDestructor<Registry> map;
  return *map;
}

void* mapShared(int fd, size_t length) {
  void* base = mmap(nullptr, length, PROT_READ | PROT_WRITE, fd < 0 ? MAP_SHARED | MAP_ANONYMOUS : MAP_SHARED,
                    fd, 0);
  if (base == MAP_FAILED) return nullptr;
  // A fork without exec must not keep the object alive or let the child touch it.
  madvise(base, length, MADV_DONTFORK);
  return base;
}

void finishHeader(Segment& seg, const std::function<void(Segment&)>& init) {
  seg.header->kind = static_cast<uint32_t>(seg.kind);
  seg.header->dataSize = seg.dataSize;
  if (init) init(seg);
  std::atomic_ref<uint32_t>(seg.header->magic).store(kObjectMagic, std::memory_order_release);
}

void layOut(Segment& seg) {
  seg.header = static_cast<ObjectHeader*>(seg.base);
  seg.data = seg.kind == ObjectKind::Mapping ? static_cast<std::byte*>(seg.base) + kHeaderSize : nullptr;
}

OpenedSegment openPrivate(ObjectKind kind, uint64_t dataSize, const std::function<void(Segment&)>& init) {
  auto seg = std::make_shared<Segment>();
  seg->kind = kind;
  seg->dataSize = kind == ObjectKind::Mapping ? dataSize : 0;
  seg->length = kHeaderSize + seg->dataSize;
  seg->ownerPid = getpid();
  seg->refs = 1;
  seg->base = mapShared(-1, seg->length);
  if (seg->base == nullptr) return {};
  layOut(*seg);
  finishHeader(*seg, init);
  return {seg, false};
}

// Fresh object: no live holder. Whatever a dead process left is discarded.
bool initialiseFresh(Segment& seg, const std::function<void(Segment&)>& init) {
  seg.length = kHeaderSize + seg.dataSize;
  if (ftruncate(seg.fd, 0) != 0 || ftruncate(seg.fd, static_cast<off_t>(seg.length)) != 0) return false;
  // Reserve the pages now: a full /dev/shm then fails here, with an error the
  // caller can report, instead of a SIGBUS in the middle of a frame.
  if (posix_fallocate(seg.fd, 0, static_cast<off_t>(seg.length)) != 0) return false;
  seg.base = mapShared(seg.fd, seg.length);
  if (seg.base == nullptr) return false;
  layOut(seg);
  finishHeader(seg, init);
  // Initialised before anyone else can open it: downgrade to a holder's lock.
  return retryEintr([&] { return flock(seg.fd, LOCK_SH | LOCK_NB); }) == 0;
}

bool attachExisting(Segment& seg) {
  if (retryEintr([&] { return flock(seg.fd, LOCK_SH | LOCK_NB); }) != 0) return false;
  struct stat st {};
  if (fstat(seg.fd, &st) != 0 || static_cast<uint64_t>(st.st_size) < kHeaderSize) return false;
  ObjectHeader probe{};
  if (pread(seg.fd, &probe, sizeof probe, 0) != static_cast<ssize_t>(sizeof probe)) return false;
  // A holder that is still initialising can't exist (that happens under the
  // namespace lock), so a missing magic means a foreign or damaged object.
  if (probe.magic != kObjectMagic || probe.kind != static_cast<uint32_t>(seg.kind)) return false;
  if (probe.dataSize > static_cast<uint64_t>(st.st_size) - kHeaderSize) return false;
  seg.dataSize = probe.dataSize;
  seg.length = kHeaderSize + seg.dataSize;
  seg.base = mapShared(seg.fd, seg.length);
  if (seg.base == nullptr) return false;
  layOut(seg);
  return true;
}

bool holdsObjectOf(const std::string& lockName) {
  for (const auto& [name, seg] : registry()) {
    if (seg->lockName == lockName) return true;
  }
  return false;
}

// The last object of a namespace to go takes the namespace's lock file with it, so
// that namespaces used once (every test's) leave nothing behind. The scan of
// /dev/shm is done only when this process holds nothing else in the namespace,
// and objects are made and closed a few times per capture, never per frame.
void removeLockIfLast(NamespaceLock& nsLock, const std::string& lockName) {
  if (!holdsObjectOf(lockName) && !namespaceHasObjects(lockName)) nsLock.removeFile();
}

void unmap(Segment& seg) {
  // A mutex that a thread of this process still holds stays mapped: glibc's robust
  // list points into it. The page is given up rather than risking a crash.
  if (seg.kind == ObjectKind::Mutex && seg.held.load() > 0) return;
  if (seg.base != nullptr) munmap(seg.base, seg.length);
  seg.base = nullptr;
}

}  // namespace

std::string namespaceLockName() { return namespacePrefix(); }

std::string objectShmName(std::u16string_view name) {
  std::string shmName = namespacePrefix();
  appendEscaped(shmName, toUtf8(name), false);
  if (shmName.size() - 1 <= kMaxNameBytes) return shmName;
  // Too long for a file name: keep what fits and make the rest a hash of the whole.
  const uint64_t h1 = fnv1a(shmName, 0xCBF29CE484222325ull);
  const uint64_t h2 = fnv1a(shmName, 0x84222325CBF29CE4ull);
  char hex[kHashHexDigits + 1];
  snprintf(hex, sizeof hex, "%016llx%016llx", static_cast<unsigned long long>(h1),
           static_cast<unsigned long long>(h2));
  shmName.resize(1 + kMaxNameBytes - kHashHexDigits - 1);
  shmName += '#';
  shmName += hex;
  return shmName;
}

OpenedSegment openSegment(std::u16string_view name, ObjectKind kind, uint64_t dataSize,
                          const std::function<void(Segment&)>& init) {
  if (kind != ObjectKind::Mapping) dataSize = 0;
  if (dataSize > static_cast<uint64_t>(SIZE_MAX) - kHeaderSize) return {};
  if (name.empty()) return openPrivate(kind, dataSize, init);

  const std::string shmName = objectShmName(name);
  std::lock_guard guard(registryMutex);
  if (auto it = registry().find(shmName); it != registry().end()) {
    // This process holds it already, so it is alive: share the one mapping.
    if (it->second->kind != kind) return {};
    ++it->second->refs;
    return {it->second, true};
  }

  auto seg = std::make_shared<Segment>();
  seg->lockName = namespaceLockName();
  NamespaceLock nsLock(seg->lockName);
  if (!nsLock.held()) return {};
  seg->shmName = shmName;
  seg->kind = kind;
  seg->dataSize = dataSize;
  seg->ownerPid = getpid();
  seg->fd = shm_open(shmName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (seg->fd < 0) {
    // The lock file may have been made for this call alone.
    removeLockIfLast(nsLock, seg->lockName);
    return {};
  }
  bool existed = false;
  bool ok = ownedPrivately(seg->fd);
  if (ok) {
    if (flock(seg->fd, LOCK_EX | LOCK_NB) == 0) {
      ok = initialiseFresh(*seg, init);
      // A half-made object must not be found by the next opener.
      if (!ok) shm_unlink(shmName.c_str());
    } else {
      existed = true;
      ok = errno == EWOULDBLOCK && attachExisting(*seg);
    }
  }
  if (!ok) {
    if (seg->base != nullptr) munmap(seg->base, seg->length);
    ::close(seg->fd);
    removeLockIfLast(nsLock, seg->lockName);
    return {};
  }
  seg->refs = 1;
  registry().emplace(shmName, seg);
  return {seg, existed};
}

void releaseSegment(std::shared_ptr<Segment>& segment) {
  if (!segment) return;
  const std::shared_ptr<Segment> seg = std::move(segment);
  if (seg->shmName.empty()) {
    unmap(*seg);  // private objects belong to their one handle
    return;
  }
  std::lock_guard guard(registryMutex);
  if (--seg->refs > 0) return;
  registry().erase(seg->shmName);
  NamespaceLock nsLock(seg->lockName);
  // In a forked child the descriptor shares its lock with the parent: only close.
  const bool last = nsLock.held() && seg->ownerPid == getpid() && flock(seg->fd, LOCK_EX | LOCK_NB) == 0;
  if (last) shm_unlink(seg->shmName.c_str());
  unmap(*seg);
  ::close(seg->fd);
  if (last) removeLockIfLast(nsLock, seg->lockName);
}

// An object whose file can be locked exclusively has no live holder: every holder
// keeps a shared lock on its own open file, this process's handles included, and
// makes or attaches only under the namespace lock, which is held here.
ReclaimedObjects reclaimAbandoned() {
  const std::string lockName = namespaceLockName();
  std::lock_guard guard(registryMutex);
  NamespaceLock nsLock(lockName);
  if (!nsLock.held()) return {};
  const Directory dir(opendir(kShmDirectory));
  if (!dir) return {};
  const uid_t uid = geteuid();
  ReclaimedObjects reclaimed;
  while (const dirent* entry = readdir(dir.get())) {
    if (!isObjectOf(entry->d_name, fileNameOf(lockName))) continue;
    // O_NOFOLLOW: a link planted under one of our names is never followed to what
    // it points at. O_NONBLOCK: a FIFO planted there cannot hang the open.
    const UniqueFd fd(openat(dirfd(dir.get()), entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != uid) continue;
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) continue;
    if (unlinkat(dirfd(dir.get()), entry->d_name, 0) != 0) continue;
    ++reclaimed.count;
    // The pages the file held: what its removal gives back to memory.
    reclaimed.bytes += static_cast<uint64_t>(st.st_blocks) * 512;
  }
  removeLockIfLast(nsLock, lockName);
  return reclaimed;
}

}  // namespace kestrium::platform::posix

namespace kestrium::platform {

ReclaimedObjects reclaimAbandonedObjects() { return posix::reclaimAbandoned(); }

}  // namespace kestrium::platform
