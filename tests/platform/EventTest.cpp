#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "platform/Clock.h"
#include "platform/Event.h"
#include "platform/Thread.h"
#include "tests/platform/PlatformTestSupport.h"

namespace kestrium::platform {
namespace {

constexpr uint32_t kPatience = 20000;

// Every case runs on a named event (shared memory on POSIX) and an unnamed one.
class EventTest : public ::testing::TestWithParam<bool> {
 protected:
  Event make(bool manualReset, const char* suffix = "") {
    Event e;
    EXPECT_TRUE(e.create(GetParam() ? test::uniquePrefix() + toUtf16(suffix) : std::u16string(), manualReset));
    return e;
  }
};

TEST_P(EventTest, AutoResetIsConsumedByExactlyOneWait) {
  Event e = make(false);
  EXPECT_EQ(e.wait(0), kWaitTimeout);
  ASSERT_TRUE(e.set());
  ASSERT_TRUE(e.set());  // a second set before any wait is the same one signal
  EXPECT_EQ(e.wait(0), kWaitObject0);
  EXPECT_EQ(e.wait(0), kWaitTimeout);
}

TEST_P(EventTest, ManualResetStaysSetUntilReset) {
  Event e = make(true);
  ASSERT_TRUE(e.set());
  EXPECT_EQ(e.wait(0), kWaitObject0);
  EXPECT_EQ(e.wait(10), kWaitObject0);
  ASSERT_TRUE(e.reset());
  EXPECT_EQ(e.wait(0), kWaitTimeout);
}

TEST_P(EventTest, ManualResetReleasesEveryWaiter) {
  Event e = make(true);
  constexpr int kThreads = 6;
  std::atomic<int> woken{0};
  std::vector<Thread> threads(kThreads);
  for (auto& t : threads) {
    ASSERT_TRUE(t.start([&] {
      if (e.wait(kPatience) == kWaitObject0) ++woken;
    }));
  }
  sleepMs(20);
  e.set();
  for (auto& t : threads) ASSERT_EQ(t.join(kPatience), kWaitObject0);
  EXPECT_EQ(woken.load(), kThreads);
}

TEST_P(EventTest, AutoResetReleasesOneWaiterPerSet) {
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
}

TEST_P(EventTest, SetFromAnotherThreadWakesABlockedWaitAny) {
  Event e0 = make(false, ".0"), e1 = make(false, ".1"), e2 = make(false, ".2");
  Event* all[] = {&e0, &e1, &e2};
  Thread setter;
  ASSERT_TRUE(setter.start([&] {
    sleepMs(20);
    e1.set();
  }));
  EXPECT_EQ(waitAny(all, kPatience), 1u);
  ASSERT_EQ(setter.join(kPatience), kWaitObject0);
  EXPECT_EQ(waitAny(all, 0), kWaitTimeout);
}

INSTANTIATE_TEST_SUITE_P(NamedAndUnnamed, EventTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Named" : "Unnamed"; });

TEST(EventOpenTest, OpeningAnExistingEventKeepsItsResetModeAndState) {
  const std::u16string name = test::uniquePrefix();
  Event creator, opener;
  ASSERT_TRUE(creator.create(name, true));
  ASSERT_TRUE(creator.set());
  ASSERT_TRUE(opener.create(name, false));
  EXPECT_TRUE(opener.existed());
  EXPECT_EQ(opener.wait(0), kWaitObject0);
  EXPECT_EQ(opener.wait(0), kWaitObject0) << "still manual-reset";
}

TEST(EventOpenTest, WaitAnyRefusesWhatItCannotWaitOn) {
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

TEST(EventOpenTest, ThisMachineCanWaitOnSeveralEvents) { EXPECT_EQ(waitSupportProblem(), ""); }

}  // namespace
}  // namespace kestrium::platform
