// "h264.nvenc" in the real server and client, with the tests' fake NVIDIA driver
// in place of the real one: the server's probe finds the fake's card, a capture
// whose encoder the driver will not initialise is refused, and the next one
// records an MP4 that ffprobe and ffmpeg read whole.

#include <gtest/gtest.h>

#include "platform/SharedLibrary.h"
#include "platform/Text.h"
#include "tests/e2e/E2ESupport.h"
#include "tests/e2e/ServerHarness.h"

namespace kestrium::test {
namespace {

class NvencRecordingTest : public ServerTest {
 protected:
  void SetUp() override {
    for (auto library : {platform::VendorLibrary::Cuda, platform::VendorLibrary::Nvenc}) {
      platform::setEnvironmentVariable(platform::vendorLibraryEntry(library).overrideVariable,
                                       platform::toUtf16(KESTRIUM_FAKE_NVENC));
    }
    // The server's fake answers with the clip made for the tests, and refuses
    // the first encoder it is asked to initialise.
    platform::setEnvironmentVariable("FAKE_NVENC_CLIP", (harness.binary("nvenc-clip.h264")).u16string());
    platform::setEnvironmentVariable("FAKE_NVENC_FAIL", u"nvEncInitializeEncoder:12:1");
    ServerTest::SetUp();
  }
  void TearDown() override {
    ServerTest::TearDown();
    platform::setEnvironmentVariable("FAKE_NVENC_FAIL", u"");
  }
};

TEST_F(NvencRecordingTest, ARefusedSetupCostsOneCaptureAndTheNextRecordsAFileThatPlays) {
  ASSERT_EQ(harness.client({"features"}), 0);
  EXPECT_EQ(harness.clientOutput, "quicksync=0 nvenc=1 amdvce=0\n");
  EXPECT_NE(harness.log().find("  *** NVENC *** GPU 0 - Fake NVENC GPU has Compute SM 5.2, NVENC Available\r\n"),
            std::string::npos)
      << harness.log();

  // The clip's own size, so that the file's header and its stream agree.
  const std::vector<std::string> record = {"record", "--dir",   dir().string(), "--encoder", "h264.nvenc",
                                           "--size", "320x240", "--pace",       "max"};
  auto with = [&](std::vector<std::string> more) {
    more.insert(more.begin(), record.begin(), record.end());
    return more;
  };
  EXPECT_EQ(harness.client(with({"--name", "refused", "--frames", "5"})), 4) << harness.clientOutput;
  const std::string log = harness.log();
  EXPECT_NE(log.find("[Error]   nvEncoder Error: NVENC H.264 encoder initialization failed: 0000000C\r\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("[Error]   Cannot initialize NV Encoder\r\n"), std::string::npos) << log;
  EXPECT_FALSE(std::filesystem::exists(dir()) && !std::filesystem::is_empty(dir())) << "no file for a refused capture";

  ASSERT_EQ(harness.client(with({"--name", "good", "--frames", "40"})), 0) << harness.clientOutput << harness.log();
  const auto files = filesIn(harness.clientOutput);
  ASSERT_EQ(files.size(), 1u) << harness.clientOutput;
  EXPECT_EQ(files[0].extension(), ".mp4");
  EXPECT_TRUE(harness.waitForLog("CNvEncoder::ReleaseEncoderResources() m_RefCount == 0, releasing resources\r\n"));
  if (!haveTools()) return;
  expectVideo(files[0], {"h264", "320", "240", 40});
}

}  // namespace
}  // namespace kestrium::test
