#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "platform/Event.h"
#include "platform/NamedMutex.h"
#include "platform/SharedMapping.h"
#include "tests/platform/PlatformTestSupport.h"

namespace kestrium::platform {
namespace {

bool allZero(const SharedMapping& m) {
  return std::all_of(m.view(), m.view() + m.size(), [](std::byte b) { return b == std::byte{0}; });
}

TEST(SharedMappingTest, NewObjectIsZeroFilledAtTheRequestedSize) {
  SharedMapping m(test::uniquePrefix(), 100000);
  ASSERT_TRUE(m.open());
  EXPECT_FALSE(m.existed());
  EXPECT_EQ(m.size(), 100000u);
  EXPECT_TRUE(allZero(m));
  m.view()[99999] = std::byte{1};  // the last byte is ours to write
}

TEST(SharedMappingTest, SizeZeroBecomesOne) {
  SharedMapping m(test::uniquePrefix(), 0);
  ASSERT_TRUE(m.open());
  EXPECT_EQ(m.size(), 1u);
}

TEST(SharedMappingTest, AttachingMapsTheExistingSizeAndBytes) {
  const std::u16string name = test::uniquePrefix();
  SharedMapping creator(name, 8192);
  ASSERT_TRUE(creator.open());
  std::memset(creator.view(), 0x5A, 8192);

  SharedMapping attached(name, 16);
  ASSERT_TRUE(attached.open());
  EXPECT_TRUE(attached.existed());
  ASSERT_GE(attached.size(), 8192u);
  EXPECT_EQ(attached.view()[8191], std::byte{0x5A});
  attached.view()[0] = std::byte{1};
  EXPECT_EQ(creator.view()[0], std::byte{1});
}

TEST(SharedMappingTest, UnnamedMappingsArePrivate) {
  SharedMapping a(u"", 64), b(u"", 64);
  ASSERT_TRUE(a.open());
  ASSERT_TRUE(b.open());
  EXPECT_FALSE(b.existed());
  a.view()[0] = std::byte{7};
  EXPECT_EQ(b.view()[0], std::byte{0});
}

TEST(SharedMappingTest, MoveTakesTheViewAlong) {
  SharedMapping a(test::uniquePrefix(), 32);
  ASSERT_TRUE(a.open());
  std::byte* view = a.view();
  SharedMapping b = std::move(a);
  EXPECT_EQ(b.view(), view);
  EXPECT_EQ(b.size(), 32u);
  EXPECT_FALSE(a.isOpen());
  SharedMapping c;
  c = std::move(b);
  EXPECT_EQ(c.view(), view);
}

TEST(SharedMappingTest, ClosedObjectComesBackFresh) {
  const std::u16string name = test::uniquePrefix();
  {
    SharedMapping m(name, 4096);
    ASSERT_TRUE(m.open());
    std::memset(m.view(), 0xFF, 4096);
  }
  SharedMapping again(name, 4096);
  ASSERT_TRUE(again.open());
  EXPECT_FALSE(again.existed());
  EXPECT_TRUE(allZero(again));
}

// Names are the client's: any characters, any length, and names that differ
// only in characters a file system treats specially stay different objects.
class MappingNameTest : public ::testing::TestWithParam<std::u16string> {};

TEST_P(MappingNameTest, DistinctNamesGiveDistinctObjects) {
  const std::u16string base = test::uniquePrefix() + GetParam();
  SharedMapping a(base, 16), b(base + u"x", 16), c(base + u"_", 16);
  ASSERT_TRUE(a.open());
  ASSERT_TRUE(b.open());
  ASSERT_TRUE(c.open());
  EXPECT_FALSE(b.existed());
  EXPECT_FALSE(c.existed());
  a.view()[0] = std::byte{1};
  EXPECT_EQ(b.view()[0], std::byte{0});
  EXPECT_EQ(c.view()[0], std::byte{0});
  SharedMapping again(base, 16);
  ASSERT_TRUE(again.open());
  EXPECT_TRUE(again.existed());
  EXPECT_EQ(again.view()[0], std::byte{1});
}

INSTANTIATE_TEST_SUITE_P(Names, MappingNameTest,
                         ::testing::Values(u"plain", u"with space", u"slash/and%percent", u"dots...",
                                           u"\u00e9t\u00e9\u4e2d\u6587", std::u16string(150, u'n'),
                                           std::u16string(150, u'\u00e9')),
                         [](const auto& info) { return "Name" + std::to_string(info.index); });

// As on Windows, a name belongs to one kind of object at a time.
TEST(KernelObjectKindTest, ANameInUseByAnotherKindCannotBeOpened) {
  const std::u16string name = test::uniquePrefix();
  SharedMapping map(name, 16);
  ASSERT_TRUE(map.open());
  NamedMutex mutex;
  EXPECT_FALSE(mutex.create(name, false));
  Event event;
  EXPECT_FALSE(event.create(name));
}

}  // namespace
}  // namespace kestrium::platform
