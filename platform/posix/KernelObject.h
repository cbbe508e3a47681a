#pragma once

// Named kernel objects emulated on POSIX shared memory. Each named mutex, event or
// mapping is one shm object whose first page is a header; a mapping's bytes follow
// it. The Win32 lifetime rule holds: an object lives while some process has a
// handle to it, and a name that no live process holds is fresh and zeroed for the
// next creator, so stale objects of a killed process never block anything.
//
// How: every process that holds an object keeps a shared flock on its descriptor.
// Creating or opening runs under a per-namespace lock file; whoever can take the
// object's flock exclusively there knows no one else holds it and initialises it
// anew. The last handle to close unlinks the name, and the namespace's lock file
// when it was the namespace's last object. A process that ends without closing
// leaves its names behind, which reclaimAbandoned() removes.

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/System.h"

namespace kestrium::platform::posix {

enum class ObjectKind : uint32_t { Mutex = 1, Event = 2, Mapping = 3 };

inline constexpr uint32_t kObjectMagic = 0x424F534B;  // "KSOB"
inline constexpr size_t kHeaderSize = 4096;

struct ObjectHeader {
  uint32_t magic;  // written last, once the object is initialised
  uint32_t kind;
  uint64_t dataSize;
  uint32_t manualReset;
  uint32_t eventWord;  // the futex word of an event: 1 signalled, 0 not
  alignas(64) pthread_mutex_t mutex;
};
static_assert(sizeof(ObjectHeader) <= kHeaderSize);

// One opened object, shared by every handle of this process to the same name, so
// that each object is mapped once per process. glibc threads its robust-mutex list
// through the mutexes themselves: a second mapping, or unmapping one that a thread
// still holds, would corrupt that list.
struct Segment {
  std::string shmName;   // empty for a private object
  std::string lockName;  // the namespace lock of the namespace it was made in
  ObjectKind kind = ObjectKind::Mapping;
  int fd = -1;
  pid_t ownerPid = 0;
  void* base = nullptr;
  size_t length = 0;
  ObjectHeader* header = nullptr;
  std::byte* data = nullptr;
  uint64_t dataSize = 0;
  int refs = 0;
  // Locks of the mutex that threads of this process hold (recursion counts).
  std::atomic<int> held{0};
};

struct OpenedSegment {
  std::shared_ptr<Segment> segment;  // null on failure
  bool existed = false;
};

// Creates or opens the object. init runs on a fresh object (zero-filled, header
// kind and size set) before any other process can see it; it runs on the calling
// thread, so a mutex locked there belongs to the caller. An empty name gives a
// private object of the same shape.
OpenedSegment openSegment(std::u16string_view name, ObjectKind kind, uint64_t dataSize,
                          const std::function<void(Segment&)>& init);

// Drops one handle; the last one of this process unmaps (unless a thread here
// still holds its mutex), and the last one anywhere unlinks the name.
void releaseSegment(std::shared_ptr<Segment>& segment);

// Removes the objects of the current namespace that no live process holds.
ReclaimedObjects reclaimAbandoned();

// The shm name of an object: "/kestrium.<uid>.<namespace>.<name>", escaped and,
// past the length limit, cut and hashed.
std::string objectShmName(std::u16string_view name);
// The lock file that serialises creating and closing objects of the current namespace.
std::string namespaceLockName();

}  // namespace kestrium::platform::posix
