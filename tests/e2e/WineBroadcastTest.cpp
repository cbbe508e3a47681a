// The Windows server broadcasting under wine to the real RTMP server that
// scripts/wine-ctest.sh starts for the run (nginx with its RTMP module, on
// loopback): the Winsock connection, librtmp's writes through the send()
// diversion, and the stream as the build machine's ffprobe and ffmpeg read it
// from nginx's recording, with sound from the run's sound server.

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "tests/e2e/E2ESupport.h"
#include "tests/e2e/ServerHarness.h"

namespace kestrium::test {
namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

class WineBroadcastTest : public ServerTest {
 protected:
  void SetUp() override {
    url_ = environment("KESTRIUM_RTMP_URL");
    folder_ = environment("KESTRIUM_RTMP_FOLDER");
    if (url_.empty() || folder_.empty()) GTEST_SKIP() << "no RTMP server (scripts/wine-ctest.sh starts one)";
    if (std::getenv("PULSE_SERVER") == nullptr) GTEST_SKIP() << "no sound server (scripts/wine-ctest.sh starts one)";
    ServerTest::SetUp();
  }

  // The run's server folder is a Linux path: wine shows it on drive Z:.
  std::filesystem::path onZ(const std::string& linuxPath) const {
    std::string path = "Z:" + linuxPath;
    for (char& c : path) {
      if (c == '/') c = '\\';
    }
    return path;
  }

  // nginx writes a session's access line once its connection has ended, after
  // it closed the recording.
  bool waitForSessionEnd(const std::string& key, uint32_t timeoutMs) const {
    const std::string line = "PUBLISH \"live\" \"" + key + "\"";
    const uint64_t until = platform::monotonicNs() + uint64_t{timeoutMs} * 1'000'000;
    while (platform::monotonicNs() < until) {
      const std::vector<char> log = readBytes(onZ(folder_ + "/access.log"));
      if (std::string(log.begin(), log.end()).find(line) != std::string::npos) return true;
      platform::sleepMs(20);
    }
    return false;
  }

  std::string url_;
  std::string folder_;
};

TEST_F(WineBroadcastTest, H264AndAacReachTheServerWholeAndPlay) {
  // A key of this test's own: the server records each key in one file.
  const std::string key = "wine" + std::to_string(std::random_device()() % 1000000);
  const std::vector<std::string> args = {
      "record", "--dir",       dir().string(), "--encoder", "h264.x264", "--container", "mp4",  "--size",
      "640x360", "--fps",      "30",           "--bitrate", "1500",      "--seconds",   "6.0",  "--broadcast",
      url_,     "--stream",    key,            "--audio",   "USB Microphone", "--aac", "128"};
  ASSERT_EQ(harness.client(args), 0) << harness.clientOutput << harness.log();

  // The capture's own file holds every frame.
  std::filesystem::path mp4;
  for (const auto& file : filesIn(harness.clientOutput)) {
    if (file.extension() == ".mp4") mp4 = file;
  }
  ASSERT_FALSE(mp4.empty()) << harness.clientOutput;
  const int64_t fed = wholeNumber(field(harness.clientOutput, "frames_fed"));
  EXPECT_EQ(probeVideo(mp4).packets, fed) << harness.clientOutput;

  ASSERT_TRUE(waitForSessionEnd(key, 10000)) << harness.log();
  const std::string flv = folder_ + "/recordings/" + key + ".flv";
  std::string streams;
  ASSERT_EQ(runTool(KESTRIUM_FFPROBE,
                    {"-v", "error", "-show_entries", "stream=codec_name,width,height,sample_rate,channels", "-of",
                     "default=nw=1", flv},
                    streams),
            0)
      << streams;
  EXPECT_NE(streams.find("codec_name=h264\nwidth=640\nheight=360"), std::string::npos) << streams;
  EXPECT_NE(streams.find("codec_name=aac\nsample_rate=48000\nchannels=1"), std::string::npos) << streams;

  // Every video frame that went out (those from the moment the stream was
  // up) arrived and decodes without a complaint: on loopback nothing is
  // dropped.
  const std::string log = harness.log();
  EXPECT_NE(log.find("RTMP: Handshake time"), std::string::npos) << log;
  EXPECT_EQ(log.find("[Error]"), std::string::npos) << log;
  const size_t figures = log.find("RTMP: frames ");
  ASSERT_NE(figures, std::string::npos) << log;
  const size_t videoAt = log.find("(video ", figures) + 7;
  const int64_t sent = wholeNumber(log.substr(videoAt, log.find(')', videoAt) - videoAt));
  EXPECT_GT(sent, fed * 2 / 3) << log;
  EXPECT_NE(log.find("dropped 0 ", figures), std::string::npos) << log;
  std::string counted;
  ASSERT_EQ(runTool(KESTRIUM_FFPROBE,
                    {"-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries", "stream=nb_read_frames",
                     "-of", "default=nw=1:nk=1", flv},
                    counted),
            0)
      << counted;
  EXPECT_EQ(wholeNumber(counted.substr(0, counted.find('\n'))), sent) << counted << log;
  std::string errors;
  EXPECT_EQ(runTool(KESTRIUM_FFMPEG, {"-v", "error", "-i", flv, "-f", "null", "-"}, errors), 0);
  EXPECT_EQ(errors, "");
}

}  // namespace
}  // namespace kestrium::test
