#include <gtest/gtest.h>

#include "platform/Text.h"

namespace kestrium::platform {
namespace {

struct TextCase {
  std::u16string utf16;
  std::string utf8;
};

class TextRoundTripTest : public ::testing::TestWithParam<TextCase> {};

TEST_P(TextRoundTripTest, ConvertsBothWays) {
  EXPECT_EQ(toUtf8(GetParam().utf16), GetParam().utf8);
  EXPECT_EQ(toUtf16(GetParam().utf8), GetParam().utf16);
}

INSTANTIATE_TEST_SUITE_P(
    Characters, TextRoundTripTest,
    ::testing::Values(TextCase{u"", ""}, TextCase{u"capture_1", "capture_1"},
                      TextCase{u"\u007f\u0080\u07ff\u0800", "\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80"},
                      TextCase{u"\uffff\U00010000\U0010ffff", "\xef\xbf\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"},
                      TextCase{u"Mik\u00e9 \U0001F3AE", "Mik\xc3\xa9 \xf0\x9f\x8e\xae"}));

TEST(TextTest, UnpairedSurrogatesBecomeReplacementCharacters) {
  EXPECT_EQ(toUtf8(u"a\xD800"), "a\xef\xbf\xbd");
  EXPECT_EQ(toUtf8(u"\xDC00z"), "\xef\xbf\xbdz");
  EXPECT_EQ(toUtf8(std::u16string{u'\xD800', u'\xD800', u'\xDC00'}), "\xef\xbf\xbd\xf0\x90\x80\x80");
}

TEST(TextTest, ValidUtf16ReplacesOnlyUnpairedSurrogates) {
  EXPECT_EQ(validUtf16(u"game \U0001F3AE"), u"game \U0001F3AE");
  EXPECT_EQ(validUtf16(std::u16string{u'a', u'\xD800'}), u"a\uFFFD");
  EXPECT_EQ(validUtf16(std::u16string{u'\xDC00', u'\xD800', u'\xDC00'}), u"\uFFFD\U00010000");
}

// A client's text that no file system can name must be refused, never thrown
// at the file layer.
TEST(TextTest, PathsRefuseWhatCannotNameAFile) {
  EXPECT_TRUE(toPath(u"C:/Videos/Mik\u00e9 \U0001F3AE").has_value());
  EXPECT_TRUE(toPath(u"").has_value());
  EXPECT_FALSE(toPath(std::u16string{u'a', u'\xD800'}).has_value()) << "lone high surrogate";
  EXPECT_FALSE(toPath(std::u16string{u'\xDC00', u'a'}).has_value()) << "lone low surrogate";
  EXPECT_FALSE(toPath(std::u16string{u'a', u'\0', u'b'}).has_value()) << "a NUL would cut the name";
  EXPECT_EQ(toPath(u"rec/\u00e9")->u16string(), u"rec/\u00e9");
}

TEST(TextTest, MalformedUtf8BecomesReplacementCharacters) {
  EXPECT_EQ(toUtf16("\xc0\xaf"), u"\uFFFD\uFFFD") << "overlong";
  EXPECT_EQ(toUtf16("\xed\xa0\x80"), u"\uFFFD\uFFFD\uFFFD") << "encoded surrogate";
  EXPECT_EQ(toUtf16("\xf4\x90\x80\x80"), u"\uFFFD\uFFFD\uFFFD\uFFFD") << "past U+10FFFF";
  EXPECT_EQ(toUtf16("ab\xe2\x82"), u"ab\uFFFD\uFFFD") << "cut short";
  EXPECT_EQ(toUtf16("\x80x"), u"\uFFFDx") << "stray continuation";
}

}  // namespace
}  // namespace kestrium::platform
