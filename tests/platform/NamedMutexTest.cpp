#include <gtest/gtest.h>

#include "platform/NamedMutex.h"
#include "platform/Thread.h"
#include "tests/platform/PlatformTestSupport.h"

namespace kestrium::platform {
namespace {

constexpr uint32_t kPatience = 20000;

class NamedMutexTest : public ::testing::TestWithParam<bool> {
 protected:
  std::u16string name() const { return GetParam() ? test::uniquePrefix() : std::u16string(); }

  // What another thread gets when it tries the mutex without waiting.
  static LockStatus tryFromOtherThread(NamedMutex& m, bool releaseAfter = true) {
    LockStatus status = LockStatus::Failed;
    Thread t;
    EXPECT_TRUE(t.start([&] {
      status = m.wait(0);
      if (releaseAfter && owns(status)) m.release();
    }));
    EXPECT_EQ(t.join(kPatience), kWaitObject0);
    return status;
  }
};

TEST_P(NamedMutexTest, IsRecursiveAndOwnedByOneThread) {
  NamedMutex m;
  ASSERT_TRUE(m.create(name(), false));
  ASSERT_EQ(m.wait(0), LockStatus::Acquired);
  ASSERT_EQ(m.wait(kPatience), LockStatus::Acquired);
  EXPECT_EQ(tryFromOtherThread(m), LockStatus::Timeout);
  EXPECT_TRUE(m.release());
  EXPECT_EQ(tryFromOtherThread(m), LockStatus::Timeout) << "one level is still held";
  EXPECT_TRUE(m.release());
  EXPECT_FALSE(m.release()) << "releasing a mutex one does not own fails harmlessly";
  EXPECT_EQ(tryFromOtherThread(m), LockStatus::Acquired);
}

TEST_P(NamedMutexTest, ThreadThatEndsHoldingItAbandonsIt) {
  NamedMutex m;
  ASSERT_TRUE(m.create(name(), false));
  EXPECT_EQ(tryFromOtherThread(m, false), LockStatus::Acquired);
  EXPECT_EQ(m.wait(kPatience), LockStatus::Abandoned);
  EXPECT_TRUE(m.release());
  EXPECT_EQ(tryFromOtherThread(m), LockStatus::Acquired) << "usable again after the abandonment";
}

TEST_P(NamedMutexTest, ReleaseFromAnotherThreadFails) {
  NamedMutex m;
  ASSERT_TRUE(m.create(name(), true));
  bool released = true;
  Thread t;
  ASSERT_TRUE(t.start([&] { released = m.release(); }));
  ASSERT_EQ(t.join(kPatience), kWaitObject0);
  EXPECT_FALSE(released);
  EXPECT_TRUE(m.release());
}

TEST_P(NamedMutexTest, InvalidMutexFailsEverything) {
  NamedMutex m;
  EXPECT_FALSE(m.valid());
  EXPECT_EQ(m.wait(0), LockStatus::Failed);
  EXPECT_FALSE(m.release());
}

INSTANTIATE_TEST_SUITE_P(NamedAndUnnamed, NamedMutexTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Named" : "Unnamed"; });

// Like CreateMutexW: asking for initial ownership only counts for the creator, so
// a server opening the mutex a client made first does not take it from it.
TEST(NamedMutexOwnerTest, InitialOwnerTakesEffectOnlyWhenCreated) {
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
  EXPECT_TRUE(creator.release());
}

TEST(NamedMutexOwnerTest, HandlesOfOneNameShareOneMutex) {
  const std::u16string name = test::uniquePrefix();
  NamedMutex a, b;
  ASSERT_TRUE(a.create(name, false));
  ASSERT_TRUE(b.create(name, false));
  EXPECT_TRUE(b.existed());
  ASSERT_EQ(a.wait(0), LockStatus::Acquired);
  EXPECT_EQ(b.wait(0), LockStatus::Acquired) << "same thread, same mutex: recursion";
  a.close();  // closing one handle leaves the other working
  EXPECT_TRUE(b.release());
  EXPECT_TRUE(b.release());
  EXPECT_FALSE(b.release());
}

TEST(NamedMutexOwnerTest, MovedMutexKeepsItsObject) {
  NamedMutex a;
  ASSERT_TRUE(a.create(test::uniquePrefix(), true));
  NamedMutex b = std::move(a);
  EXPECT_FALSE(a.valid());
  EXPECT_TRUE(b.release());
}

}  // namespace
}  // namespace kestrium::platform
