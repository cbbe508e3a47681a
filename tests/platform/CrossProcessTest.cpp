// Two processes meeting through named objects: this test and platform_helper,
// which it starts. The same cases run natively on POSIX and on Win32 under wine.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "platform/ChildProcess.h"
#include "platform/Clock.h"
#include "platform/Event.h"
#include "platform/NamedMutex.h"
#include "platform/SharedMapping.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "platform/Thread.h"
#include "tests/platform/PlatformTestSupport.h"

namespace kestrium::platform {
namespace {

constexpr uint32_t kPatience = 20000;

class CrossProcessTest : public ::testing::Test {
 protected:
  std::u16string name(const char* suffix) const { return prefix_ + toUtf16(suffix); }

  Event event(const char* suffix) {
    Event e;
    EXPECT_TRUE(e.create(name(suffix)));
    return e;
  }

  ChildProcess start(const std::string& scenario, const std::string& arg = {},
                     const ChildProcess::Environment& env = {}) {
    ChildProcess child;
    std::vector<std::string> args{scenario, toUtf8(prefix_)};
    if (!arg.empty()) args.push_back(arg);
    EXPECT_TRUE(child.start(executablePath().parent_path() / KESTRIUM_PLATFORM_HELPER, args, env));
    return child;
  }

  // Runs a scenario to its end and gives its exit status.
  int run(const std::string& scenario, const std::string& arg = {}, const ChildProcess::Environment& env = {}) {
    ChildProcess child = start(scenario, arg, env);
    return child.wait(kPatience).value_or(-1);
  }

  const std::u16string prefix_ = test::uniquePrefix();
};

TEST_F(CrossProcessTest, MappingCarriesBytesBothWays) {
  SharedMapping map(name(".map"), 4096);
  ASSERT_TRUE(map.open());
  EXPECT_FALSE(map.existed());
  for (size_t i = 0; i < 2048; ++i) map.view()[i] = std::byte((i * 7 + 1) & 0xFF);
  Event done = event(".done");

  ChildProcess child = start("mapping");
  ASSERT_EQ(done.wait(kPatience), kWaitObject0);
  for (size_t i = 2048; i < 4096; ++i) ASSERT_EQ(map.view()[i], std::byte((i * 13 + 5) & 0xFF)) << i;
  EXPECT_EQ(child.wait(kPatience), 0);
}

TEST_F(CrossProcessTest, NamedEventsWakeEachOther) {
  constexpr int kRounds = 300;
  Event ping = event(".ping");
  Event pong = event(".pong");
  ChildProcess child = start("pingpong", std::to_string(kRounds));
  for (int i = 0; i < kRounds; ++i) {
    ASSERT_TRUE(ping.set());
    ASSERT_EQ(pong.wait(kPatience), kWaitObject0) << "round " << i;
  }
  EXPECT_EQ(child.wait(kPatience), 0);
}

// The helper sets e2 first, then e1: the lower index still wins, and each wait
// consumes only the one it reports; a blocked waiter wakes when it sets one.
TEST_F(CrossProcessTest, WaitOnSeveralReturnsLowestSignalledIndex) {
  Event e0 = event(".e0"), e1 = event(".e1"), e2 = event(".e2"), go = event(".go");
  Event* all[] = {&e0, &e1, &e2};
  ASSERT_EQ(run("setlater"), 0);
  ASSERT_EQ(go.wait(kPatience), kWaitObject0);
  EXPECT_EQ(waitAny(all, 0), 1u);
  EXPECT_EQ(waitAny(all, 0), 2u);
  EXPECT_EQ(waitAny(all, 0), kWaitTimeout);
  ChildProcess child = start("setafter", "100");
  EXPECT_EQ(waitAny(all, kPatience), 2u);
  EXPECT_EQ(child.wait(kPatience), 0);
}

TEST_F(CrossProcessTest, MutexOfKilledProcessIsAbandonedToNextWaiter) {
  NamedMutex mutex;
  ASSERT_TRUE(mutex.create(name(".mtx"), false));
  Event held = event(".held");
  ChildProcess child = start("holdmutex");
  ASSERT_EQ(held.wait(kPatience), kWaitObject0);
  EXPECT_EQ(mutex.wait(0), LockStatus::Timeout);

  ASSERT_TRUE(child.kill());
  ASSERT_TRUE(child.wait(kPatience).has_value());
  EXPECT_EQ(mutex.wait(kPatience), LockStatus::Abandoned);
  // The waiter owns it now, recursively, and can hand it on.
  EXPECT_EQ(mutex.wait(0), LockStatus::Acquired);
  EXPECT_TRUE(mutex.release());
  EXPECT_TRUE(mutex.release());
  EXPECT_FALSE(mutex.release());
}

// "exists" gives 64 plus a bit for each object that existed already (mutex 1,
// event 2, mapping 4) and 8 for a mapping that held anything but zeroes.
TEST_F(CrossProcessTest, ExistedIsReportedExactlyWhenALiveProcessOfTheNamespaceHoldsTheName) {
  EXPECT_EQ(run("exists"), 64) << "nobody holds the names yet";
  {
    NamedMutex m;
    Event e;
    SharedMapping map(name(".obj.map"), 4096);
    ASSERT_TRUE(m.create(name(".obj.m"), true));
    ASSERT_TRUE(e.create(name(".obj.e")));
    ASSERT_TRUE(map.open());
    std::memset(map.view(), 0x77, 4096);
    EXPECT_EQ(run("exists"), 64 | 1 | 2 | 4 | 8) << "the same namespace sees them and their bytes";
    const std::string other = toUtf8(objectNamespace()) + "-other";
    EXPECT_EQ(run("exists", {}, {{"KESTRIUM_NAMESPACE", other}}), 64) << "another namespace sees nothing";
  }
  EXPECT_EQ(run("exists"), 64) << "the last holder closed them";
}

TEST_F(CrossProcessTest, NamesOfAKilledProcessComeBackFresh) {
  Event ready = event(".ready");
  ChildProcess child = start("fillhold");
  ASSERT_EQ(ready.wait(kPatience), kWaitObject0);
  ASSERT_TRUE(child.kill());
  ASSERT_TRUE(child.wait(kPatience).has_value());

  SharedMapping map(name(".stale"), 65536);
  ASSERT_TRUE(map.open());
  EXPECT_FALSE(map.existed());
  EXPECT_TRUE(std::all_of(map.view(), map.view() + 65536, [](std::byte b) { return b == std::byte{0}; }));
  NamedMutex m;
  ASSERT_TRUE(m.create(name(".stale.m"), false));
  EXPECT_FALSE(m.existed());
  EXPECT_EQ(m.wait(0), LockStatus::Acquired) << "a fresh mutex, neither held nor abandoned";
  EXPECT_TRUE(m.release());
  Event e;
  ASSERT_TRUE(e.create(name(".stale.e")));
  EXPECT_FALSE(e.existed());
  EXPECT_EQ(e.wait(0), kWaitTimeout);
}

class WaitTimeoutTest : public ::testing::TestWithParam<uint32_t> {};

// The one place where time is the behaviour under test: a wait with nothing to
// wake it ends after its time-out, not much before and not far after.
TEST_P(WaitTimeoutTest, WaitsEndWithinAMarginOfTheirTimeout) {
  const uint32_t timeout = GetParam();
  Event named, unnamed;
  ASSERT_TRUE(named.create(test::uniquePrefix()));
  ASSERT_TRUE(unnamed.create({}));
  Event* both[] = {&named, &unnamed};
  NamedMutex mutex;
  ASSERT_TRUE(mutex.create(test::uniquePrefix() + u".m", false));

  const uint64_t start = monotonicNs();
  EXPECT_EQ(waitAny(both, timeout), kWaitTimeout);
  const uint64_t elapsedMs = (monotonicNs() - start) / 1000000;
  // Windows timers tick every 15.6 ms and may end a wait that much early.
  EXPECT_GE(elapsedMs + 16, timeout);
  EXPECT_LT(elapsedMs, timeout + 1500u);

  // A mutex held by another thread times out the same way.
  ASSERT_EQ(mutex.wait(0), LockStatus::Acquired);
  LockStatus other = LockStatus::Failed;
  uint64_t otherMs = 0;
  Thread t;
  ASSERT_TRUE(t.start([&] {
    const uint64_t s = monotonicNs();
    other = mutex.wait(timeout);
    otherMs = (monotonicNs() - s) / 1000000;
  }));
  ASSERT_EQ(t.join(kPatience), kWaitObject0);
  EXPECT_EQ(other, LockStatus::Timeout);
  EXPECT_GE(otherMs + 16, timeout);
  EXPECT_LT(otherMs, timeout + 1500u);
  EXPECT_TRUE(mutex.release());
}

INSTANTIATE_TEST_SUITE_P(Timeouts, WaitTimeoutTest, ::testing::Values(0u, 40u, 250u));

}  // namespace
}  // namespace kestrium::platform
