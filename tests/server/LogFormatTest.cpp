#include <gtest/gtest.h>

#include "platform/Text.h"
#include "server/LogFormat.h"

namespace kestrium {
namespace {

struct FormatCase {
  std::u16string expected;
  std::u16string actual;
};

class LogFormatTest : public ::testing::TestWithParam<FormatCase> {};

TEST_P(LogFormatTest, FormatsAsTheWideCRuntimeDoes) {
  EXPECT_EQ(platform::toUtf8(GetParam().actual), platform::toUtf8(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(
    Conversions, LogFormatTest,
    ::testing::Values(
        FormatCase{u"a 5 b", formatWide(u"a %d b", 5)},
        // %d prints the 32-bit value signed, whatever type carried it.
        FormatCase{u"-1", formatWide(u"%d", uint32_t{0xFFFFFFFF})},
        FormatCase{u"4294967295", formatWide(u"%u", uint32_t{0xFFFFFFFF})},
        FormatCase{u"258", formatWide(u"%d", 258u)},
        FormatCase{u"9007199254740993", formatWide(u"%I64d", int64_t{9007199254740993})},
        FormatCase{u"-3 ff FF 007", formatWide(u"%lld %x %X %03d", int64_t{-3}, 255, 255u, 7)},
        FormatCase{u"29.97 fps", formatWide(u"%.2f fps", 29970 / 1000.0)},
        FormatCase{u"10 seconds", formatWide(u"%.0f seconds", 10.0f)},
        FormatCase{u"wide \u00e9 and narrow x", formatWide(u"wide %s and narrow %S", u"\u00e9", "x")},
        FormatCase{u"|    kestriumcapture32.exe|", formatWide(u"|%3s%22s|", u"", u" kestriumcapture32.exe")},
        FormatCase{u"[ab   ] [   ab] [abc]", formatWide(u"[%-5s] [%5s] [%.3s]", u"ab", "ab", u"abcdef")},
        FormatCase{u"100% done A", formatWide(u"100%% done %c", 65)},
        // Wrong or missing arguments never read past what was given.
        FormatCase{u"? and  and", formatWide(u"%d and %s and", u"text")},
        FormatCase{u"cut at end ", formatWide(u"cut at end %")},
        FormatCase{u"Nov  5 2014", formatWide(u"%S", "Nov  5 2014")}));

// The log is read by other programs as UTF-16: text from clients, or a cut
// through a pair, must not make it invalid.
TEST(LogFormatWideTest, ClientTextLeavesTheLogValidUtf16) {
  EXPECT_EQ(formatWide(u"[%s]", std::u16string{u'a', u'\xD800', u'b'}), u"[a\uFFFDb]");
  EXPECT_EQ(formatWide(u"[%s]", std::u16string{u'\xDC00'}), u"[\uFFFD]");
  EXPECT_EQ(formatWide(u"[%.2s]", u"a\U0001F3AE"), u"[a]") << "never half a pair at the cut";
  EXPECT_EQ(formatWide(u"[%c]", 0xD800), u"[\uFFFD]");
  EXPECT_EQ(formatWide(u"[%s]", u"\U0001F3AE"), u"[\U0001F3AE]");
}

}  // namespace
}  // namespace kestrium
