#include <gtest/gtest.h>

#include "platform/ChildProcess.h"
#include "platform/NamedMutex.h"
#include "platform/System.h"
#include "platform/Thread.h"
#include "server/Log.h"
#include "tests/support/TestSupport.h"

namespace kestrium {
namespace {

// A Saturday, 21 November 2026.
platform::LocalTime at(uint16_t hour, uint16_t minute, uint16_t second, uint16_t ms = 0) {
  return {2026, 11, 6, 21, hour, minute, second, ms};
}

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override { platform::setObjectNamespace(test::uniqueNamespace()); }

  std::filesystem::path path() const { return folder_.path() / "Kestrium.txt"; }
  std::u16string text() const { return test::readUtf16(path()); }

  platform::LocalTime now_ = at(12, 0, 10);
  Log log_{[this] { return now_; }};
  test::TempFolder folder_;
};

// The first line of the day follows the byte order mark without a blank line;
// a line has its time and the process name right-aligned.
TEST_F(LogTest, LineHasTimeAndRightAlignedProcessName) {
  log_.open(path(), true);
  now_ = at(0, 0, 1);
  log_(u"early\n");
  now_ = at(9, 5, 7, 42);
  log_(u"  Kestrium capture server (%S) is starting\n", "Nov  5 2014");
  EXPECT_EQ(text(), u"\xFEFF" u"00:00:01.000 |     kestriumcapture32.exe | early\r\n"
                    u"\n09:05:07.042 |     kestriumcapture32.exe |   Kestrium capture server (Nov  5 2014) is "
                    u"starting\r\n");
}

struct Gap {
  platform::LocalTime first, second;
  bool blankLine;
};

class LogGapTest : public LogTest, public ::testing::WithParamInterface<Gap> {};

// A pause of two seconds or more, or a new minute, shows as a blank line.
TEST_P(LogGapTest, BlankLineMarksAPauseOrANewMinute) {
  log_.open(path(), true);
  now_ = GetParam().first;
  log_(u"one\n");
  now_ = GetParam().second;
  log_(u"two\n");
  const std::u16string all = text();
  const size_t second = all.find(u"two");
  ASSERT_NE(second, std::u16string::npos);
  const size_t lineStart = all.rfind(u"\r\n", second) + 2;
  EXPECT_EQ(all[lineStart] == u'\n', GetParam().blankLine);
}

INSTANTIATE_TEST_SUITE_P(Times, LogGapTest,
                         ::testing::Values(Gap{at(12, 0, 10, 0), at(12, 0, 10, 999), false},
                                           Gap{at(12, 0, 10, 999), at(12, 0, 11, 0), false},
                                           Gap{at(12, 0, 10, 0), at(12, 0, 12, 0), true},
                                           Gap{at(12, 0, 59, 900), at(12, 1, 0, 100), true},
                                           Gap{at(12, 0, 30), at(13, 0, 30), true},
                                           Gap{at(12, 0, 30), at(12, 0, 20), false}));

TEST_F(LogTest, BodyLineFeedsGetCarriageReturnsButThePrefixFeedStaysBare) {
  log_.open(path(), false);
  log_(u"a\nb\r\nc\n");
  const std::u16string all = text();
  EXPECT_EQ(all.substr(0, 2), u"\n1") << "the blank line before the first line is a bare LF";
  EXPECT_NE(all.find(u" | a\r\nb\r\r\nc\r\n"), std::u16string::npos);
}

TEST_F(LogTest, LongBodyIsCutAndStaysValidUtf16) {
  log_.open(path(), true);
  // A surrogate pair straddles the cut at 4095 characters.
  std::u16string body(4094, u'x');
  body += u"\U0001F3AE";
  body += std::u16string(1000, u'y');
  log_(u"%s", body);
  const std::u16string all = text();
  const size_t start = all.find(u"exe | ") + 6;
  const std::u16string written = all.substr(start);
  EXPECT_EQ(written, std::u16string(4094, u'x'));
  for (char16_t c : written) ASSERT_FALSE(c >= 0xD800 && c <= 0xDFFF);
}

TEST_F(LogTest, StartWithoutRecreateAppendsAndNeverAddsAByteOrderMark) {
  log_.open(path(), false);
  log_(u"first\n");
  EXPECT_NE(text()[0], u'\xFEFF') << "a file made by an append has no byte order mark";
  Log again([this] { return now_; });
  again.open(path(), false);
  again(u"second\n");
  EXPECT_NE(text().find(u"first"), std::u16string::npos);
  EXPECT_NE(text().find(u"second"), std::u16string::npos);

  Log fresh([this] { return now_; });
  fresh.open(path(), true);
  EXPECT_EQ(text(), u"\xFEFF") << "an interactive start begins a new file";
}

// A line is lost before the log opens, after it closes, and when the mutex was
// abandoned; logging goes on after the abandonment.
TEST_F(LogTest, LinesAreLostBeforeOpenAfterCloseAndOnAnAbandonedMutex) {
  log_(u"too early %d\n", 1);
  EXPECT_FALSE(std::filesystem::exists(path()));
  log_.open(path(), true);
  platform::Thread holder;
  ASSERT_TRUE(holder.start([] {
    platform::NamedMutex m;
    m.create(Log::kMutexName, false);
    m.wait(0);  // and end without releasing
  }));
  ASSERT_EQ(holder.join(10000), platform::kWaitObject0);
  log_(u"too bad\n");
  log_(u"kept\n");
  log_.close();
  log_(u"too late\n");
  EXPECT_EQ(text().find(u"too"), std::u16string::npos);
  EXPECT_NE(text().find(u"kept"), std::u16string::npos);
}

// Two processes logging at once must never cut into each other's lines.
TEST_F(LogTest, TwoProcessesInterleaveWholeLinesOnly) {
  constexpr int kLines = 300;
  std::vector<platform::ChildProcess> writers(2);
  const auto helper = platform::executablePath().parent_path() / KESTRIUM_LOG_WRITER;
  const platform::ChildProcess::Environment env{
      {"KESTRIUM_NAMESPACE", platform::toUtf8(platform::objectNamespace())}};
  for (size_t i = 0; i < writers.size(); ++i) {
    ASSERT_TRUE(writers[i].start(helper, {platform::toUtf8(path().u16string()), std::to_string(kLines),
                                          std::string(1, static_cast<char>('A' + i))},
                                 env));
  }
  for (auto& w : writers) ASSERT_EQ(w.wait(60000), 0);

  // Every line is whole: the prefix, then one writer's text, then nothing else.
  const std::string all = test::readLog(path());
  constexpr std::string_view kPrefixTail = " |     kestriumcapture32.exe | writer ";
  int seen[2] = {0, 0};
  size_t start = 0;
  while (start < all.size()) {
    size_t end = all.find('\n', start);
    if (end == std::string::npos) end = all.size();
    const std::string text = all.substr(start, end - start);
    start = end + 1;
    if (text.empty()) continue;  // the blank lines of pauses
    ASSERT_EQ(text.substr(12, kPrefixTail.size()), kPrefixTail) << "mangled line: " << text;
    const std::string rest = text.substr(12 + kPrefixTail.size());
    ASSERT_TRUE(rest.size() > 2 && (rest[0] == 'A' || rest[0] == 'B')) << "mangled line: " << text;
    const int who = rest[0] - 'A';
    const std::string expected = std::string(1, rest[0]) + " line " + std::to_string(seen[who]) + " of a few words\r";
    ASSERT_EQ(rest, expected) << "lines of one writer stay whole and in order";
    ++seen[who];
  }
  EXPECT_EQ(seen[0], kLines);
  EXPECT_EQ(seen[1], kLines);
}

}  // namespace
}  // namespace kestrium
