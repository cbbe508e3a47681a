#include <gtest/gtest.h>

#include "platform/Clock.h"
#include "platform/System.h"
#include "server/CommandChannel.h"
#include "server/Dispatcher.h"
#include "server/Log.h"
#include "tests/support/TestSupport.h"

namespace kestrium {
namespace {

constexpr uint32_t kPatience = 10000;

// A Dispatcher in this process, reached through the same channel a client uses.
class DispatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setObjectNamespace(test::uniqueNamespace());
    processLog().open(folder_.path() / "Kestrium.txt", true);
    dispatcher_ = std::make_unique<Dispatcher>();
  }
  void TearDown() override {
    dispatcher_.reset();
    processLog().close();
  }

  Recorder* add(const std::u16string& name) {
    auto recorder = std::make_unique<Recorder>(name);
    Recorder* raw = recorder.get();
    dispatcher_->addRecorder(std::move(recorder));
    return raw;
  }

  std::string log() const { return test::readLog(folder_.path() / "Kestrium.txt"); }

  test::TempFolder folder_;
  std::unique_ptr<Dispatcher> dispatcher_;
};

TEST_F(DispatcherTest, UnknownCommandGetsItsReplyAndAWarning) {
  EXPECT_EQ(sendCommand(namedCommand(9, u"x", 0), kPatience), SendResult::Replied);
  EXPECT_NE(log().find(" | [Warning] *** CAP *** Unknown dispatcher command 9\r\n"), std::string::npos);
}

TEST_F(DispatcherTest, CommandWithoutReplyWordIsStillHandled) {
  CommandBlock block = namedCommand(kCommandStop, u"quiet", 0);
  block.replyWanted = 0;
  EXPECT_EQ(sendCommand(block, kPatience), SendResult::Sent);
  // Nothing tells the sender when it has run; the log does, soon.
  const uint64_t until = platform::monotonicNs() + uint64_t{kPatience} * 1000000;
  while (log().find("Cannot find recorder to delete quiet") == std::string::npos && platform::monotonicNs() < until) {
    platform::sleepMs(5);
  }
  EXPECT_NE(log().find("Cannot find recorder to delete quiet"), std::string::npos);
}

struct UnknownName {
  uint32_t command;
  const char* line;
};

class DispatcherUnknownNameTest : public DispatcherTest, public ::testing::WithParamInterface<UnknownName> {};

TEST_P(DispatcherUnknownNameTest, CommandOnAnUnknownNameLogsItsErrorAndTouchesNoOther) {
  add(u"running");
  EXPECT_EQ(sendCommand(namedCommand(GetParam().command, u"nosuch", 1), kPatience), SendResult::Replied);
  EXPECT_NE(log().find(std::string(" | ") + GetParam().line + "nosuch\r\n"), std::string::npos) << log();
  EXPECT_EQ(dispatcher_->recorderCount(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Commands, DispatcherUnknownNameTest,
                         ::testing::Values(UnknownName{kCommandStop, "[Error]   *** CAP *** Cannot find recorder to delete "},
                                           UnknownName{kCommandEndPrerecording,
                                                       "[Error]   *** CAP *** Cannot begin writing pre-recorded video "},
                                           UnknownName{kCommandPause, "[Error]   *** CAP *** Cannot toggle pause video "}));

TEST_F(DispatcherTest, StopRemovesTheFirstRecorderOfTheNameOnly) {
  add(u"twin");
  add(u"twin");
  add(u"other");
  EXPECT_EQ(sendCommand(namedCommand(kCommandStop, u"twin", 1), kPatience), SendResult::Replied);
  EXPECT_EQ(dispatcher_->recorderCount(), 2u);
  const std::string text = log();
  const size_t stopping = text.find("  *** CAP *** Stopping capture, recorder name    twin\r\n");
  const size_t deleting = text.find("  *** CAP *** Deleting recorded files...\r\n");
  ASSERT_NE(stopping, std::string::npos);
  ASSERT_NE(deleting, std::string::npos);
  EXPECT_LT(stopping, deleting);
  EXPECT_EQ(sendCommand(namedCommand(kCommandStop, u"twin", 0), kPatience), SendResult::Replied);
  EXPECT_EQ(dispatcher_->recorderCount(), 1u);
}

// The pause event means "toggle": it is rung only when the wanted state differs,
// and the line is logged either way.
TEST_F(DispatcherTest, PauseRingsOnlyWhenTheStateChanges) {
  Recorder* recorder = add(u"cap");
  EXPECT_EQ(sendCommand(namedCommand(kCommandPause, u"cap", 1), kPatience), SendResult::Replied);
  EXPECT_EQ(recorder->pauseEvent().wait(0), platform::kWaitObject0);
  EXPECT_EQ(sendCommand(namedCommand(kCommandPause, u"cap", 0), kPatience), SendResult::Replied);
  EXPECT_EQ(recorder->pauseEvent().wait(0), platform::kWaitTimeout) << "not paused, and asked not to be";
  const std::string text = log();
  EXPECT_NE(text.find("  *** CAP *** ** PAUSED ** for cap\r\n"), std::string::npos);
  EXPECT_NE(text.find("  *** CAP *** ** UNPAUSED ** for cap\r\n"), std::string::npos);
}

TEST_F(DispatcherTest, NameWithoutTerminatorIsReadToTheEndOfItsField) {
  CommandBlock block = namedCommand(kCommandStop, u"", 0);
  std::fill(std::begin(block.stop.recorderName), std::end(block.stop.recorderName), u'n');
  EXPECT_EQ(sendCommand(block, kPatience), SendResult::Replied);
  EXPECT_NE(log().find("Cannot find recorder to delete " + std::string(1024, 'n') + "\r\n"), std::string::npos);
}

TEST_F(DispatcherTest, ShutdownLogsAndStopsTheRecordersItHolds) {
  add(u"a");
  add(u"b");
  dispatcher_.reset();
  EXPECT_NE(log().find("  *** CAP *** Stopping dispatcher...\r\n"), std::string::npos);
  EXPECT_EQ(sendCommand(namedCommand(9, u"x", 0), 200), SendResult::NoServer) << "the channel went with the dispatcher";
}

}  // namespace
}  // namespace kestrium
