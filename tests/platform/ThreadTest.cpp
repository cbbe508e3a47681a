#include <gtest/gtest.h>

#include <atomic>

#include "platform/Clock.h"
#include "platform/Event.h"
#include "platform/Thread.h"

namespace kestrium::platform {
namespace {

constexpr uint32_t kPatience = 20000;

TEST(ThreadTest, JoinWaitsForTheBodyOrTimesOut) {
  Event release;
  ASSERT_TRUE(release.create({}, true));
  std::atomic<bool> finished{false};
  Thread t;
  ASSERT_TRUE(t.start(
      [&] {
        release.wait(kPatience);
        finished = true;
      },
      "kestrium-test-worker-with-a-long-name"));
  EXPECT_TRUE(t.joinable());
  EXPECT_EQ(t.join(10), kWaitTimeout);
  EXPECT_TRUE(t.joinable()) << "a timed-out join leaves the thread to us";
  release.set();
  EXPECT_EQ(t.join(kPatience), kWaitObject0);
  EXPECT_TRUE(finished.load());
  EXPECT_FALSE(t.joinable());
  EXPECT_EQ(t.join(0), kWaitFailed);
  Thread once;
  ASSERT_TRUE(once.start([] {}));
  EXPECT_FALSE(once.start([] {})) << "a thread is started once";
  EXPECT_EQ(once.join(kPatience), kWaitObject0);
}

TEST(ThreadTest, TerminatedThreadIsNoLongerOurs) {
  Event release;
  ASSERT_TRUE(release.create({}, true));
  Thread t;
  ASSERT_TRUE(t.start([&release] { release.wait(kPatience); }));
  t.terminate();
  EXPECT_FALSE(t.joinable());
  EXPECT_EQ(t.join(0), kWaitFailed);
  // Where the thread is only abandoned, let it end before the event goes.
  release.set();
  sleepMs(20);
}

TEST(ThreadTest, DestructorAndMoveWaitForTheThread) {
  std::atomic<int> done{0};
  {
    Thread a;
    ASSERT_TRUE(a.start([&] {
      sleepMs(20);
      ++done;
    }));
    Thread b = std::move(a);
    EXPECT_FALSE(a.joinable());
    EXPECT_TRUE(b.joinable());
  }
  EXPECT_EQ(done.load(), 1);
}

}  // namespace
}  // namespace kestrium::platform
