// The kernel objects one process uses: events and mutexes as the capture loop
// and the command channel rely on them, then the contract every kind of named
// object shares (one object per name until its last handle closes, names kept
// apart, a name owned by one kind), run over each kind.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/Clock.h"
#include "platform/Event.h"
#include "platform/NamedMutex.h"
#include "platform/SharedMapping.h"
#include "platform/Thread.h"
#include "tests/platform/PlatformTestSupport.h"

namespace kestrium::platform {
namespace {

constexpr uint32_t kPatience = 20000;

std::u16string nameFor(bool named, const char* suffix = "") {
  return named ? test::uniquePrefix() + toUtf16(suffix) : std::u16string();
}
const auto kNamedOrNot = [](const auto& info) { return info.param ? "Named" : "Unnamed"; };

// --- events: every case on a named event (shared memory on POSIX) and an unnamed one.

class EventTest : public ::testing::TestWithParam<bool> {
 protected:
  Event make(bool manualReset, const char* suffix = "") {
    Event e;
    EXPECT_TRUE(e.create(nameFor(GetParam(), suffix), manualReset));
    return e;
  }
};

// A second set before any wait is the same one signal; manual reset stays set.
TEST_P(EventTest, AutoResetIsConsumedByOneWaitAndManualResetStaysSet) {
  Event e = make(false, ".auto");
  EXPECT_EQ(e.wait(0), kWaitTimeout);
  ASSERT_TRUE(e.set());
  ASSERT_TRUE(e.set());
  EXPECT_EQ(e.wait(0), kWaitObject0);
  EXPECT_EQ(e.wait(0), kWaitTimeout);
  Event m = make(true, ".manual");
  ASSERT_TRUE(m.set());
  EXPECT_EQ(m.wait(0), kWaitObject0);
  EXPECT_EQ(m.wait(10), kWaitObject0);
  ASSERT_TRUE(m.reset());
  EXPECT_EQ(m.wait(0), kWaitTimeout);
}

// One set of an auto-reset event wakes one waiter; a manual-reset one wakes them all.
TEST_P(EventTest, AutoResetReleasesOneWaiterPerSetAndManualResetAll) {
  Event e = make(false, ".e");
  Event stop = make(true, ".stop");
  constexpr int kThreads = 4;
  std::atomic<int> woken{0}, stopped{0};
  std::vector<Thread> threads(kThreads);
  for (auto& t : threads) {
    ASSERT_TRUE(t.start([&] {
      Event* both[] = {&stop, &e};
      const uint32_t r = waitAny(both, kPatience);
      if (r == 1) ++woken;
      if (r == 0) ++stopped;
    }));
  }
  for (int expected = 1; expected <= 2; ++expected) {
    e.set();
    const uint64_t until = monotonicNs() + uint64_t{kPatience} * 1000000;
    while (woken.load() < expected && monotonicNs() < until) sleepMs(1);
    sleepMs(30);  // room for a wrong second wake to show
    EXPECT_EQ(woken.load(), expected);
  }
  stop.set();
  for (auto& t : threads) ASSERT_EQ(t.join(kPatience), kWaitObject0);
  EXPECT_EQ(woken.load(), 2);
  EXPECT_EQ(stopped.load(), kThreads - 2) << "the manual-reset stop must release every other waiter";
}

// A thread waiting on two events must not swallow the wake-up of a thread that
// waits on only one of them. With a wake of one waiter per set, the second
// thread here sleeps through its set event now and then.
TEST_P(EventTest, NoWaiterSleepsThroughASetEvent) {
  // Long enough for any honest wake-up, short enough that a lost one fails soon.
  constexpr uint32_t kPatience = 3000;
  Event a = make(false, ".a");
  Event b = make(false, ".b");
  for (int round = 0; round < 200; ++round) {
    uint32_t first = kWaitFailed, second = kWaitFailed;
    Thread t1, t2;
    ASSERT_TRUE(t1.start([&] {
      Event* ab[] = {&a, &b};
      first = waitAny(ab, kPatience);
    }));
    ASSERT_TRUE(t2.start([&] { second = b.wait(kPatience); }));
    sleepMs(1);  // let both block in the kernel, where the race lies
    a.set();
    b.set();
    ASSERT_EQ(t1.join(kPatience), kWaitObject0);
    ASSERT_EQ(t2.join(kPatience), kWaitObject0);
    ASSERT_EQ(first, 0u) << "round " << round;
    ASSERT_EQ(second, kWaitObject0) << "round " << round;
  }
  Event* ab[] = {&a, &b};
  EXPECT_EQ(waitAny(ab, 0), kWaitTimeout) << "each wake consumed the event it reported";
}

INSTANTIATE_TEST_SUITE_P(NamedAndUnnamed, EventTest, ::testing::Bool(), kNamedOrNot);

TEST(EventTest, WaitAnyRefusesWhatItCannotWaitOn) {
  EXPECT_EQ(waitSupportProblem(), "") << "this machine cannot wait on several events";
  Event valid, invalid;
  ASSERT_TRUE(valid.create({}));
  Event* withInvalid[] = {&valid, &invalid};
  EXPECT_EQ(waitAny(withInvalid, 0), kWaitFailed);
  EXPECT_EQ(waitAny({}, 0), kWaitFailed);
  std::vector<Event*> tooMany(65, &valid);
  EXPECT_EQ(waitAny(tooMany, 0), kWaitFailed);
  EXPECT_EQ(invalid.wait(0), kWaitFailed);
  EXPECT_FALSE(invalid.set());
}

// --- mutexes: recursive, owned by one thread, abandoned by a thread that ends holding them.

// What another thread gets when it tries the mutex without waiting.
LockStatus tryFromOtherThread(NamedMutex& m, bool releaseAfter = true) {
  LockStatus status = LockStatus::Failed;
  Thread t;
  EXPECT_TRUE(t.start([&] {
    status = m.wait(0);
    if (releaseAfter && owns(status)) m.release();
  }));
  EXPECT_EQ(t.join(kPatience), kWaitObject0);
  return status;
}

class NamedMutexTest : public ::testing::TestWithParam<bool> {};

TEST_P(NamedMutexTest, IsRecursiveAndOwnedByOneThread) {
  NamedMutex m;
  ASSERT_TRUE(m.create(nameFor(GetParam()), false));
  ASSERT_EQ(m.wait(0), LockStatus::Acquired);
  ASSERT_EQ(m.wait(kPatience), LockStatus::Acquired);
  EXPECT_EQ(tryFromOtherThread(m), LockStatus::Timeout);
  EXPECT_TRUE(m.release());
  EXPECT_EQ(tryFromOtherThread(m), LockStatus::Timeout) << "one level is still held";
  bool releasedElsewhere = true;
  Thread t;
  ASSERT_TRUE(t.start([&] { releasedElsewhere = m.release(); }));
  ASSERT_EQ(t.join(kPatience), kWaitObject0);
  EXPECT_FALSE(releasedElsewhere) << "only the owner releases";
  EXPECT_TRUE(m.release());
  EXPECT_FALSE(m.release()) << "releasing a mutex one does not own fails harmlessly";
  EXPECT_EQ(tryFromOtherThread(m), LockStatus::Acquired);
}

TEST_P(NamedMutexTest, ThreadThatEndsHoldingItAbandonsIt) {
  NamedMutex m;
  ASSERT_TRUE(m.create(nameFor(GetParam()), false));
  EXPECT_EQ(tryFromOtherThread(m, false), LockStatus::Acquired);
  EXPECT_EQ(m.wait(kPatience), LockStatus::Abandoned);
  EXPECT_TRUE(m.release());
  EXPECT_EQ(tryFromOtherThread(m), LockStatus::Acquired) << "usable again after the abandonment";
}

INSTANTIATE_TEST_SUITE_P(NamedAndUnnamed, NamedMutexTest, ::testing::Bool(), kNamedOrNot);

// Like CreateMutexW: asking for initial ownership only counts for the creator, so
// a server opening the mutex a client made first does not take it from it. A
// moved mutex keeps its object; an empty one fails everything.
TEST(NamedMutexTest, InitialOwnerTakesEffectOnlyWhenCreated) {
  const std::u16string name = test::uniquePrefix();
  NamedMutex creator;
  ASSERT_TRUE(creator.create(name, true));
  EXPECT_FALSE(creator.existed());
  NamedMutex opener;
  LockStatus fromOpenerThread = LockStatus::Failed;
  bool existed = false;
  Thread t;
  ASSERT_TRUE(t.start([&] {
    opener.create(name, true);
    existed = opener.existed();
    fromOpenerThread = opener.wait(0);
  }));
  ASSERT_EQ(t.join(kPatience), kWaitObject0);
  EXPECT_TRUE(existed);
  EXPECT_EQ(fromOpenerThread, LockStatus::Timeout) << "the creator's thread holds it";
  NamedMutex moved = std::move(creator);
  EXPECT_FALSE(creator.valid());
  EXPECT_EQ(creator.wait(0), LockStatus::Failed);
  EXPECT_FALSE(creator.release());
  EXPECT_TRUE(moved.release());
}

// --- the contract of every named kind ------------------------------------------

// One handle of some kind, with a state that a second handle of the same
// object sees and a handle of another object does not.
class Handle {
 public:
  virtual ~Handle() = default;
  // The creator makes the object; others open it (and may ask otherwise).
  virtual bool open(const std::u16string& name, bool creator) = 0;
  virtual bool existed() const = 0;
  virtual void mark() = 0;
  virtual bool marked() = 0;
};

class MappingHandle : public Handle {
 public:
  bool open(const std::u16string& name, bool) override {
    map_ = SharedMapping(name, 16);
    return map_.open();
  }
  bool existed() const override { return map_.existed(); }
  void mark() override { map_.view()[0] = std::byte{1}; }
  bool marked() override { return map_.view()[0] == std::byte{1}; }

 private:
  SharedMapping map_;
};

// Created manual-reset, opened auto-reset: an opener keeps the creator's mode.
class EventHandle : public Handle {
 public:
  bool open(const std::u16string& name, bool creator) override { return event_.create(name, creator); }
  bool existed() const override { return event_.existed(); }
  void mark() override { event_.set(); }
  bool marked() override { return event_.wait(0) == kWaitObject0 && event_.wait(0) == kWaitObject0; }

 private:
  Event event_;
};

// Marked by a thread that ended holding it: the next waiter finds it abandoned.
class MutexHandle : public Handle {
 public:
  bool open(const std::u16string& name, bool) override { return mutex_.create(name, false); }
  bool existed() const override { return mutex_.existed(); }
  void mark() override { tryFromOtherThread(mutex_, false); }
  bool marked() override {
    const LockStatus status = mutex_.wait(0);
    if (owns(status)) mutex_.release();
    return status == LockStatus::Abandoned;
  }

 private:
  NamedMutex mutex_;
};

enum class Kind { Mapping, Event, Mutex };
std::unique_ptr<Handle> handle(Kind kind) {
  if (kind == Kind::Mapping) return std::make_unique<MappingHandle>();
  if (kind == Kind::Event) return std::make_unique<EventHandle>();
  return std::make_unique<MutexHandle>();
}

// Names are the client's: any characters, any length, and names that differ
// only in characters a file system treats specially stay different objects.
const std::u16string kNames[] = {u"plain", u"with space", u"slash/and%percent", u"dots...",
                                 u"\u00e9t\u00e9\u4e2d\u6587", std::u16string(150, u'n'), std::u16string(150, u'\u00e9')};

class NamedObjectTest : public ::testing::TestWithParam<std::tuple<Kind, int>> {
 protected:
  Kind kind() const { return std::get<0>(GetParam()); }
  std::unique_ptr<Handle> open(const std::u16string& name, bool existed) {
    auto h = handle(kind());
    EXPECT_TRUE(h->open(name, !existed));
    EXPECT_EQ(h->existed(), existed) << (existed ? "a second handle" : "a new object");
    return h;
  }
};

TEST_P(NamedObjectTest, ANameIsOneObjectUntilItsLastHandleCloses) {
  const std::u16string base = test::uniquePrefix() + kNames[std::get<1>(GetParam())];
  auto a = open(base, false);
  auto b = open(base, true);
  auto x = open(base + u"x", false);
  auto underscore = open(base + u"_", false);
  a->mark();
  EXPECT_TRUE(b->marked()) << "one object behind both handles";
  EXPECT_FALSE(x->marked());
  EXPECT_FALSE(underscore->marked());
  b->mark();
  a.reset();
  b.reset();
  auto again = open(base, false);
  EXPECT_FALSE(again->marked()) << "the closed object comes back fresh";
  // Unnamed objects are private to their handle.
  auto first = open(u"", false), second = open(u"", false);
  first->mark();
  EXPECT_FALSE(second->marked());
}

// As on Windows, a name belongs to one kind of object at a time.
TEST(NamedObjectKindTest, ANameInUseByAnotherKindCannotBeOpened) {
  for (const Kind kind : {Kind::Mapping, Kind::Event, Kind::Mutex}) {
    const std::u16string name = test::uniquePrefix() + toUtf16(std::to_string(static_cast<int>(kind)));
    auto owner = handle(kind);
    ASSERT_TRUE(owner->open(name, true));
    for (const Kind other : {Kind::Mapping, Kind::Event, Kind::Mutex}) {
      if (other != kind) {
        EXPECT_FALSE(handle(other)->open(name, true)) << static_cast<int>(other) << " on " << static_cast<int>(kind);
      }
    }
  }
}

std::string kindAndName(const ::testing::TestParamInfo<std::tuple<Kind, int>>& info) {
  static const char* const kinds[] = {"Mapping", "Event", "Mutex"};
  return kinds[static_cast<int>(std::get<0>(info.param))] + std::string("Name") + std::to_string(std::get<1>(info.param));
}
INSTANTIATE_TEST_SUITE_P(Kinds, NamedObjectTest,
                         ::testing::Combine(::testing::Values(Kind::Mapping, Kind::Event, Kind::Mutex),
                                            ::testing::Range(0, 7)),
                         kindAndName);

// What only a mapping has: a zero-filled view of at least one byte, and an
// attached view of the existing size whatever size it asked for.
TEST(SharedMappingTest, ViewsAreZeroFilledAndAttachAtTheExistingSize) {
  const std::u16string name = test::uniquePrefix();
  SharedMapping creator(name, 100000);
  ASSERT_TRUE(creator.open());
  EXPECT_EQ(creator.size(), 100000u);
  EXPECT_TRUE(std::all_of(creator.view(), creator.view() + 100000, [](std::byte b) { return b == std::byte{0}; }));
  std::memset(creator.view(), 0x5A, 100000);  // the last byte is ours to write
  SharedMapping attached(name, 16);
  ASSERT_TRUE(attached.open());
  ASSERT_GE(attached.size(), 100000u);
  EXPECT_EQ(attached.view()[99999], std::byte{0x5A});
  SharedMapping tiny(test::uniquePrefix() + u".tiny", 0);
  ASSERT_TRUE(tiny.open());
  EXPECT_EQ(tiny.size(), 1u);
  // A move takes the view along.
  std::byte* view = creator.view();
  SharedMapping moved = std::move(creator);
  EXPECT_EQ(moved.view(), view);
  EXPECT_FALSE(creator.isOpen());
  SharedMapping assigned;
  assigned = std::move(moved);
  EXPECT_EQ(assigned.view(), view);
  EXPECT_EQ(assigned.size(), 100000u);
}

}  // namespace
}  // namespace kestrium::platform
