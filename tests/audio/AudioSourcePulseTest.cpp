// The Linux device source against a real sound server: devices found by the
// names users see, what is played comes back, and a device pulled out is told.

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "audio/AudioSourcePulse.h"
#include "platform/Text.h"
#include "server/Log.h"
#include "tests/audio/SoundServer.h"

namespace kestrium {
namespace {

class AudioSourcePulseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    processLog().open(folder_.path() / "Kestrium.txt", true);
    if (!server_.up()) GTEST_SKIP() << server_.why();
  }
  void TearDown() override { processLog().close(); }
  std::string log() const { return test::readLog(folder_.path() / "Kestrium.txt"); }

  test::TempFolder folder_;
  test::SoundServer server_;
};

// A microphone is a source; what a device plays is its sink's monitor. A mono
// microphone is front centre; a 5.1 device asked for stereo folds to two. A
// device that is nowhere is logged.
TEST_F(AudioSourcePulseTest, DevicesAreFoundByTheirDescription) {
  struct Found {
    const char16_t* name;
    bool loopback;
    uint32_t mask;
    bool stereo;
    uint16_t channels16;
  };
  const StereoMixSettings weights{1, {1.0f, 0.7f, 0.5f, 0.5f, 0.5f, 0.5f, 0.0f}};
  for (const Found& f : {Found{u"USB Microphone", false, 0x4, false, 1}, Found{u"Game Audio", true, 0x3, false, 2},
                         Found{u"Surround", true, 0x3F, false, 6}, Found{u"Surround", true, 0x3F, true, 2}}) {
    SCOPED_TRACE(platform::toUtf8(f.name) + (f.stereo ? " to stereo" : ""));
    AudioSourcePulse source(f.stereo ? std::optional(weights) : std::nullopt);
    ASSERT_EQ(source.Open(3, f.name, 1), 1) << log();
    EXPECT_EQ(source.loopback(), f.loopback);
    EXPECT_EQ(source.format().channelMask, f.stereo ? 0x3u : f.mask);
    EXPECT_EQ(source.format().samplesPerSec, 48000u);
    EXPECT_EQ(source.format16().channels, f.channels16);
    EXPECT_EQ(source.index(), 3);
  }
  AudioSourcePulse nowhere(std::nullopt);
  EXPECT_EQ(nowhere.Open(0, u"Studio Monitor 9000", 1), 0);
  EXPECT_NE(log().find("[Error]   *** Aud *** Cannot find source: Studio Monitor 9000\r\n"), std::string::npos)
      << log();
}

// What is played into a device comes back from its monitor at the device's
// pace, each channel on its own side; a device pulled out then stops growing
// and says so on every poll.
TEST_F(AudioSourcePulseTest, WhatIsPlayedComesBackUntilTheDeviceGoes) {
  AudioSourcePulse source(std::nullopt);
  ASSERT_EQ(source.Open(0, u"Game Audio", 1), 1);
  ASSERT_EQ(source.Start(), 1);
  server_.play("game", 2, 1000, 3.0, 48000, 0);  // the left speaker only
  const uint64_t until = platform::monotonicNs() + 10'000'000'000ull;
  double energy[2] = {0, 0};
  size_t counted = 0;
  while (counted < 48000 && platform::monotonicNs() < until) {
    platform::sleepMs(50);
    source.Poll(0);
    const auto block = source.block();
    for (size_t i = 0; i < block.size(); ++i) energy[i % 2] += double{block[i]} * block[i];
    counted += source.bufferFrames();
    source.DropFrames(source.bufferFrames());
  }
  ASSERT_GE(counted, 48000u) << "a second of sound within 10 s";
  // A sine at half scale: an RMS of 0.35, less what silence came before it.
  EXPECT_GT(std::sqrt(energy[0] / counted), 0.1) << "the left channel comes first";
  EXPECT_LT(std::sqrt(energy[1] / counted), 0.01) << "and the right stays silent";

  ASSERT_EQ(server_.unload("game"), 0);
  const uint64_t gone = platform::monotonicNs() + 5'000'000'000ull;
  while (log().find("Error getting buffer") == std::string::npos && platform::monotonicNs() < gone) {
    platform::sleepMs(50);
    source.Poll(0);
  }
  EXPECT_NE(log().find("[Error]   *** Aud *** Error getting buffer from CaptureClient"), std::string::npos) << log();
  source.DropFrames(source.bufferFrames());
  source.Poll(0);
  EXPECT_EQ(source.bufferFrames(), 0u) << "nothing more comes";
  EXPECT_EQ(source.Stop(), 1);
}

// A sound server that takes the connection and never answers (hung, or not a
// sound server at all) costs a capture start a few seconds and the device, not
// the server.
TEST(AudioSourcePulseSilentServerTest, ServerThatNeverAnswersIsGivenUp) {
  test::TempFolder folder;
  processLog().open(folder.path() / "Kestrium.txt", true);
  const std::string path = "/tmp/kestrium-mute-" + std::to_string(::getpid());
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(listener, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
  ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(::listen(listener, 4), 0);  // connections wait in the backlog, unanswered
  const char* before = std::getenv("PULSE_SERVER");
  const std::string saved = before != nullptr ? before : "";
  ::setenv("PULSE_SERVER", ("unix:" + path).c_str(), 1);

  AudioSourcePulse source(std::nullopt);
  EXPECT_EQ(source.Open(0, u"Game Audio", 1), 0);

  if (before != nullptr) {
    ::setenv("PULSE_SERVER", saved.c_str(), 1);
  } else {
    ::unsetenv("PULSE_SERVER");
  }
  ::close(listener);
  ::unlink(path.c_str());
  processLog().close();
  const std::string log = test::readLog(folder.path() / "Kestrium.txt");
  EXPECT_NE(log.find("[Error]   *** Aud *** Cannot connect to the sound server\r\n"), std::string::npos) << log;
}

}  // namespace
}  // namespace kestrium
