// "h264.quicksync" and "h264.amdvce" in the real server and client, with the
// tests' fakes of the oneVPL dispatcher and of libva in place of the real ones:
// the probes find the fake GPU, and each encoder records an MP4 that ffprobe and
// ffmpeg read whole. AMD's encoder tells its headers with the first frame, so
// its file begins after it.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "platform/System.h"
#include "platform/Text.h"
#include "tests/e2e/E2ESupport.h"
#include "tests/e2e/ServerHarness.h"

namespace kestrium::test {
namespace {

class VaapiRecordingTest : public ServerTest {
 protected:
  void SetUp() override {
    for (const char* name : {"KESTRIUM_LIB_VA", "KESTRIUM_LIB_VA_DRM"}) {
      platform::setEnvironmentVariable(name, platform::toUtf16(KESTRIUM_FAKE_VA));
    }
    platform::setEnvironmentVariable("KESTRIUM_LIB_QUICKSYNC", platform::toUtf16(KESTRIUM_FAKE_VPL));
    platform::setEnvironmentVariable("KESTRIUM_RENDER_NODE", u"/dev/null");
    for (const char* name : {"FAKE_VA_CLIP", "FAKE_VPL_CLIP"}) {
      platform::setEnvironmentVariable(name, harness.binary("nvenc-clip.h264").u16string());
    }
    ServerTest::SetUp();
  }
  void TearDown() override {
    ServerTest::TearDown();
    ::unsetenv("KESTRIUM_RENDER_NODE");
  }
};

TEST_F(VaapiRecordingTest, BothEncodersAreFoundAndRecordFilesThatPlay) {
  ASSERT_EQ(harness.client({"features"}), 0);
  EXPECT_EQ(harness.clientOutput, "quicksync=1 nvenc=0 amdvce=1\n") << harness.log();

  for (const char* encoder : {"h264.amdvce", "h264.quicksync"}) {
    SCOPED_TRACE(encoder);
    const auto folder = dir() / encoder;
    // The clip's own size, so that the file's header and its stream agree.
    ASSERT_EQ(harness.client({"record", "--dir", folder.string(), "--encoder", encoder, "--container", "mp4", "--size",
                              "320x240", "--pace", "max", "--frames", "40", "--name", encoder}),
              0)
        << harness.clientOutput << harness.log();
    const auto files = filesIn(harness.clientOutput);
    ASSERT_EQ(files.size(), 1u) << harness.clientOutput;
    if (!haveTools()) continue;
    expectVideo(files[0], {"h264", "320", "", 40});
  }
  const std::string log = harness.log();
  EXPECT_NE(log.find("[Warning] *** CAP *** Delayed recording\r\n"), std::string::npos) << log;
  EXPECT_NE(log.find("  Trying QS VA display...\r\n"), std::string::npos) << log;
}

// The real oneVPL dispatcher and libva of this machine: a runtime that opens
// sessions without a GPU must not make the server offer Quick Sync.
class RealRuntimesTest : public ServerTest {
 protected:
  void SetUp() override {
    std::error_code error;
    if (std::filesystem::exists("/dev/dri", error)) GTEST_SKIP() << "this machine has a GPU";
    for (const char* name : {"KESTRIUM_LIB_QUICKSYNC", "KESTRIUM_LIB_VA", "KESTRIUM_LIB_VA_DRM", "KESTRIUM_RENDER_NODE"}) {
      ::unsetenv(name);
    }
    ServerTest::SetUp();
  }
};

TEST_F(RealRuntimesTest, WithoutAGpuNoEncoderIsOffered) {
  ASSERT_EQ(harness.client({"features"}), 0);
  EXPECT_EQ(harness.clientOutput, "quicksync=0 nvenc=0 amdvce=0\n");
  // Intel's runtime opens a hardware session here all the same; the probe finds
  // no display to code on.
  EXPECT_NE(harness.log().find("  Intel QuickSync runtime found, but no GPU render node gives a VA display\r\n"),
            std::string::npos)
      << harness.log();
}

}  // namespace
}  // namespace kestrium::test
