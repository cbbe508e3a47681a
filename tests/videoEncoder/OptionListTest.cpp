#include <gtest/gtest.h>

#include "videoEncoder/IVidEncoder.h"

namespace kestrium {
namespace {

// Reads the common options and opens nothing.
class OptionProbe : public IVidEncoder {
 public:
  int Open() override { return 7; }
  int EncodeFrame(std::span<const std::byte>, uint32_t, uint32_t) override { return 0; }
  void Close() override {}
};

struct WalkCase {
  OptionList options;
  int width;
  int height;
  int threads;
  std::u16string session;
};

class OptionWalkTest : public ::testing::TestWithParam<WalkCase> {};

TEST_P(OptionWalkTest, CommonKeysAreReadAndUnknownOnesSkippedOneAtATime) {
  OptionProbe probe;
  EXPECT_EQ(probe.Init(GetParam().options), 7) << "Init ends by opening";
  EXPECT_EQ(probe.width(), GetParam().width);
  EXPECT_EQ(probe.height(), GetParam().height);
  EXPECT_EQ(probe.threads(), GetParam().threads);
  EXPECT_EQ(probe.sessionName(), GetParam().session);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, OptionWalkTest,
    ::testing::Values(
        WalkCase{{"width", "1280", "height", "720", "threads", "4", "shared_name", "game"}, 1280, 720, 4, u"game"},
        WalkCase{{"fps", "60000", "width", "640", "vfw_codec", "0"}, 640, 0, 0, u""},
        // An unknown key's value that equals a known key is taken for that key.
        WalkCase{{"mjpeg_quality", "width", "5", "height", "6"}, 5, 6, 0, u""},
        // A known key takes the next element as its value, whatever it is.
        WalkCase{{"width", "height", "7"}, 0, 0, 0, u""},
        WalkCase{{"threads"}, 0, 0, 0, u""},
        WalkCase{{"shared_name", "caf\xc3\xa9 \xe4\xb8\xad"}, 0, 0, 0, u"caf\u00e9 \u4e2d"},
        WalkCase{{"width", "-3", "width", "9"}, 9, 0, 0, u""}));

struct IntCase {
  const char* text;
  int value;
};

class OptionIntTest : public ::testing::TestWithParam<IntCase> {};

TEST_P(OptionIntTest, FollowsTheCRule) { EXPECT_EQ(optionInt(GetParam().text), GetParam().value); }

INSTANTIATE_TEST_SUITE_P(Texts, OptionIntTest,
                         ::testing::Values(IntCase{"42", 42}, IntCase{"  \t42", 42}, IntCase{"-7", -7},
                                           IntCase{"+3", 3}, IntCase{"12abc", 12}, IntCase{"abc", 0}, IntCase{"", 0},
                                           IntCase{"- 5", 0}, IntCase{"4294967295", 2147483647},
                                           IntCase{"99999999999999999999", 2147483647},
                                           IntCase{"-2147483648", -2147483647 - 1},
                                           IntCase{"-99999999999", -2147483647 - 1}));

}  // namespace
}  // namespace kestrium
