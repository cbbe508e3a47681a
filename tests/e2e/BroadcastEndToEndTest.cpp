// Broadcasts from the real server to a real RTMP server (nginx with its RTMP
// module), read back by ffprobe and ffmpeg: what the server records and what a
// player sees live, a slow uplink that forces drops, and servers that refuse,
// vanish or never were. In every case the capture's own file goes on.

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <thread>

#include "tests/audio/SoundServer.h"
#include "tests/e2e/E2ESupport.h"
#include "tests/e2e/RtmpServer.h"
#include "tests/e2e/ServerHarness.h"
#include "tests/e2e/ThrottledProxy.h"

namespace kestrium::test {
namespace {

// What the publisher says about a stream when it ends.
struct Figures {
  int64_t frames = -1;
  int64_t video = -1;
  int64_t dropped = -1;
};

// The number right behind the first "label" after at; -1 without one.
int64_t numberAfter(const std::string& text, size_t at, const std::string& label) {
  const size_t found = text.find(label, at);
  if (found == std::string::npos) return -1;
  const size_t start = found + label.size();
  return wholeNumber(text.substr(start, text.find_first_not_of("0123456789", start) - start));
}

Figures figuresIn(const std::string& log) {
  const size_t at = log.find("RTMP: frames ");
  if (at == std::string::npos) return {};
  return Figures{numberAfter(log, at, "frames "), numberAfter(log, at, "(video "), numberAfter(log, at, "dropped ")};
}

// Packets of one kind of stream in a file, read whole.
int64_t packetsOf(const std::filesystem::path& file, const std::string& stream) {
  return wholeNumber(field(ffprobe(file, {"-count_packets", "-select_streams", stream, "-show_entries",
                                          "stream=nb_read_packets", "-of", "default=nw=1"}),
                           "nb_read_packets"));
}

// Frames that ffmpeg decodes from the video of a file.
int64_t decodedFrames(const std::filesystem::path& file) {
  return wholeNumber(field(ffprobe(file, {"-count_frames", "-select_streams", "v:0", "-show_entries",
                                          "stream=nb_read_frames", "-of", "default=nw=1"}),
                           "nb_read_frames"));
}

// The time of the last packet of one kind of stream, in seconds; -1 without one.
double lastPacketSeconds(const std::filesystem::path& file, const std::string& stream) {
  double last = -1;
  std::istringstream lines(ffprobe(file, {"-select_streams", stream, "-show_entries", "packet=pts_time", "-of", "csv=p=0"}));
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty()) last = std::max(last, std::stod(line));
  }
  return last;
}

class BroadcastTest : public ServerTest {
 protected:
  void SetUp() override {
    if (!haveTools()) GTEST_SKIP() << "no ffmpeg";
    if (!RtmpServer::available()) GTEST_SKIP() << RtmpServer::whyUnavailable();
    ServerTest::SetUp();
    ASSERT_TRUE(rtmp_.start()) << rtmp_.why();
  }

  std::vector<std::string> recordArgs(const std::string& url, const std::string& key, double seconds,
                                      const std::string& size, int kbps) {
    return {"record",    "--dir",       dir().string(), "--encoder", "h264.x264", "--container", "mp4",
            "--size",    size,          "--fps",        "30",        "--bitrate", std::to_string(kbps),
            "--seconds", std::to_string(seconds), "--broadcast", url, "--stream", key};
  }

  // The capture's own MP4 file holds every frame the client fed.
  void expectLocalRecordingWhole() {
    const auto files = filesIn(harness.clientOutput, ".mp4");
    ASSERT_EQ(files.size(), 1u) << harness.clientOutput;
    const int64_t fed = wholeNumber(field(harness.clientOutput, "frames_fed"));
    EXPECT_EQ(probeVideo(files[0]).packets, fed) << harness.clientOutput;
  }

  RtmpServer rtmp_;
};

// With a sound server of its own, made before the capture server, which finds
// it through the environment.
class BroadcastWithSoundTest : public BroadcastTest {
 protected:
  void SetUp() override {
    if (!sound_.up()) GTEST_SKIP() << sound_.why();
    BroadcastTest::SetUp();
    sound_.play("game", 2, 1000, 40.0);
  }
  SoundServer sound_;
};

TEST_F(BroadcastWithSoundTest, TheServerRecordsH264AndAacThatPlayersReadLive) {
  std::vector<std::string> args = recordArgs(rtmp_.url(), "game", 20.0, "640x360", 2000);
  args.insert(args.end(), {"--audio", sound_.playback("Game Audio"), "--aac", "128"});

  // A player that joins while the capture runs reads the stream live. It comes
  // once the stream is up (which on a busy machine under wine may take more
  // than the first seconds), so the server's first connection is ours.
  std::string player;
  std::thread watcher([&] {
    if (rtmp_.waitForLog("publish: name='game'", 20000)) platform::sleepMs(2000);
    runTool(KESTRIUM_FFMPEG, {"-hide_banner", "-rtmp_live", "live", "-i", rtmp_.url() + "/game", "-t", "3", "-f", "null", "-"},
            player);
  });
  const int status = harness.client(args);
  watcher.join();
  ASSERT_EQ(status, 0) << harness.clientOutput;
  expectLocalRecordingWhole();
  // The client's figures show what went out: about 20 s at 2 Mbit/s.
  EXPECT_GT(wholeNumber(field(harness.clientOutput, "bytes_sent")), 3'000'000) << harness.clientOutput;
  EXPECT_NE(player.find("encoder         : Kestrium 5"), std::string::npos) << player;
  EXPECT_NE(player.find("Video: h264"), std::string::npos) << player;
  EXPECT_NE(player.find("640x360"), std::string::npos) << player;
  EXPECT_NE(player.find("Audio: aac"), std::string::npos) << player;

  ASSERT_TRUE(rtmp_.waitForRecordingClosed("game", 10000)) << rtmp_.errorLog();
  const std::filesystem::path flv = rtmp_.recordingOf("game");
  const std::string streams =
      ffprobe(flv, {"-show_entries", "stream=codec_name,width,height,sample_rate,channels", "-of", "default=nw=1"});
  EXPECT_NE(streams.find("codec_name=h264"), std::string::npos) << streams;
  EXPECT_NE(streams.find("width=640\nheight=360"), std::string::npos) << streams;
  EXPECT_NE(streams.find("codec_name=aac"), std::string::npos) << streams;
  EXPECT_NE(streams.find("sample_rate=48000\nchannels=2"), std::string::npos) << streams;

  // Every frame that went out arrived and decodes; so did every audio frame.
  const std::string log = harness.log();
  const Figures sent = figuresIn(log);
  ASSERT_GT(sent.video, 500) << log;
  ASSERT_GT(sent.frames, sent.video) << log;
  EXPECT_EQ(sent.dropped, 0);
  EXPECT_EQ(decodedFrames(flv), sent.video);
  EXPECT_EQ(packetsOf(flv, "a:0"), sent.frames - sent.video);
  // The server heard of the chunk size before the first command.
  const std::string server = rtmp_.errorLog();
  const size_t chunk = server.find("setting chunk_size=4096");
  ASSERT_NE(chunk, std::string::npos);
  EXPECT_LT(chunk, server.find("connect: app='live'"));
  EXPECT_NE(log.find("RTMP: Handshake time"), std::string::npos);
  // A link that keeps up ends in order, with nothing left behind.
  EXPECT_EQ(log.find("could not be sent"), std::string::npos) << log;
  EXPECT_EQ(log.find("[Error]"), std::string::npos) << log;
}

// An uplink too slow for the stream (1 Mbit/s for 4 Mbit/s) or one that stalls
// for 4 s and recovers costs video frames, never the capture's pace or its file,
// and the link's trouble is logged. What reached the server decodes from its
// first key frame on, and the sound kept flowing: the server has sound, without
// gaps, for as long as it has pictures, however few of those came. After a
// stall, pictures and sound from after it reached the server: the stream went
// on. (A stopped server, SIGSTOP, would not do for a stall: on loopback the
// kernel takes megabytes for it before a sender feels anything; the proxy's
// buffers are small, so a link that carries nothing stalls the sender within a
// second.)
class SlowLinkTest : public BroadcastWithSoundTest, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(Links, SlowLinkTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Stalling" : "Slow"; });

TEST_P(SlowLinkTest, LosesVideoFramesButNeitherSoundNorTheCapturesPace) {
  const bool stall = GetParam();
  ThrottledProxy uplink(rtmp_.port(), stall ? 0 : 125'000);
  ASSERT_TRUE(uplink.up()) << uplink.why();
  const std::string key = stall ? "stall" : "slow";
  std::vector<std::string> args = recordArgs(uplink.urlOf("live"), key, stall ? 14.0 : 12.0, "960x540", 4000);
  const std::vector<std::string> sound = {"--audio", sound_.playback("Game Audio"), "--aac", "128"};
  // The same capture without a broadcast first: how many frames this machine
  // lets the client skip anyway.
  std::vector<std::string> control(args.begin(), args.end() - 4);
  control.insert(control.end(), sound.begin(), sound.end());
  args.insert(args.end(), sound.begin(), sound.end());
  int64_t skippedAnyway = 0;
  if (!stall) {
    ASSERT_EQ(harness.client(control), 0) << harness.clientOutput;
    skippedAnyway = wholeNumber(field(harness.clientOutput, "frames_skipped"));
  }
  std::thread staller;
  if (stall) {
    staller = std::thread([&] {
      if (!harness.waitForLog("RTMP: Handshake time")) return;
      platform::sleepMs(3000);
      uplink.setRate(1);
      platform::sleepMs(4000);
      uplink.setRate(0);
    });
  }
  const int status = harness.client(args);
  if (staller.joinable()) staller.join();
  ASSERT_EQ(status, 0) << harness.clientOutput;
  if (!stall) {
    EXPECT_LE(wholeNumber(field(harness.clientOutput, "frames_skipped")), skippedAnyway + 15) << harness.clientOutput;
  }
  expectLocalRecordingWhole();

  const std::string log = harness.log();
  EXPECT_NE(log.find("[Warning] RTMP: the link is behind"), std::string::npos) << log;
  const Figures sent = figuresIn(log);
  EXPECT_GT(sent.dropped, 0) << log;
  ASSERT_TRUE(rtmp_.waitForRecordingClosed(key, 20000)) << rtmp_.errorLog();
  const std::filesystem::path flv = rtmp_.recordingOf(key);
  EXPECT_GT(decodedFrames(flv), 0);
  if (!stall) {
    EXPECT_LT(packetsOf(flv, "v:0"), sent.video);
  }
  const double videoSeconds = lastPacketSeconds(flv, "v:0");
  const double audioSeconds = static_cast<double>(packetsOf(flv, "a:0")) * 1024.0 / 48000.0;
  EXPECT_GT(videoSeconds, stall ? 9.0 : 3.0);
  EXPECT_GT(audioSeconds, videoSeconds - 1.0) << videoSeconds;
}

// How the far end fails, and what the log must then say.
struct FailureCase {
  std::string name;
  // Each entry: a line the log must hold, or lines of which it must hold one.
  std::vector<std::vector<std::string>> lines;
  std::string absent;  // a line that would mean the failure was taken for another
};

class BroadcastFailureTest : public BroadcastTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(BroadcastFailureTest, TheCaptureGoesOnAndEndsCleanly) {
  const std::string& name = GetParam().name;
  std::string url = rtmp_.url();
  if (name == "KeyRefused") rtmp_.refuseKey("game");
  if (name == "UnreadableAddress") url = "rtmp:/127.0.0.1";
  if (name == "TlsAddress") url = "rtmps://127.0.0.1:" + std::to_string(rtmp_.port()) + "/live";
  if (name == "NoServer") {
    const uint16_t port = rtmp_.port();
    ASSERT_TRUE(rtmp_.stop());
    url = "rtmp://127.0.0.1:" + std::to_string(port) + "/live";
  }
  std::thread closer;
  if (name == "ServerGoneMidStream") {
    closer = std::thread([&] {
      if (harness.waitForLog("RTMP: Handshake time")) platform::sleepMs(2000);
      rtmp_.stop();
    });
  }
  const int status = harness.client(recordArgs(url, "game", 6.0, "320x180", 500));
  if (closer.joinable()) closer.join();
  ASSERT_EQ(status, 0) << harness.clientOutput;
  expectLocalRecordingWhole();
  const std::string log = harness.log();
  for (const std::vector<std::string>& oneOf : GetParam().lines) {
    EXPECT_TRUE(std::ranges::any_of(oneOf, [&](const std::string& line) { return log.find(line) != std::string::npos; }))
        << oneOf.front() << "\n" << log;
  }
  EXPECT_EQ(log.find(GetParam().absent), std::string::npos) << GetParam().absent << "\n" << log;
  EXPECT_NE(log.find("Stopping capture"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    FarEnds, BroadcastFailureTest,
    ::testing::Values(
        FailureCase{"KeyRefused", {{"[Error]   Error 6\r\n"}, {"[Error]   Error 7\r\n"}}, "[Error]   Error 5\r\n"},
        FailureCase{"NoServer", {{"[Error]   Error 5\r\n"}, {"[Error]   Error 7\r\n"}}, "[Error]   Error 6\r\n"},
        // A stream that was up and is lost is no failed connection. The loss is
        // the server's close (11) or a send or read that fails (8), whichever the
        // socket meets first: a stopped server resets what was still in flight.
        FailureCase{"ServerGoneMidStream",
                    {{"[Error]   Error 11\r\n", "[Error]   Error 8\r\n"}, {"[Error]   Error 13\r\n"}},
                    "[Error]   Error 7\r\n"},
        FailureCase{"UnreadableAddress", {{"[Error]   Error 7\r\n"}}, "[Error]   Error 5\r\n"},
        // Over TLS the library's writes would pass by the send queue and its drops.
        FailureCase{"TlsAddress", {{"only rtmp:// and rtmpe:// addresses"}, {"[Error]   Error 7\r\n"}},
                    "[Error]   Error 5\r\n"}),
    [](const auto& info) { return info.param.name; });

TEST_F(BroadcastTest, AnEncoderWithoutH264RecordsOnly) {
  ASSERT_EQ(harness.client({"record", "--dir", dir().string(), "--encoder", "fast", "--size", "160x90", "--seconds", "2",
                            "--broadcast", rtmp_.url(), "--stream", "game"}),
            0)
      << harness.clientOutput;
  EXPECT_TRUE(harness.waitForLog("A broadcast carries H.264 video: the encoder fast makes none"));
  EXPECT_FALSE(filesIn(harness.clientOutput).empty());
  EXPECT_FALSE(std::filesystem::exists(rtmp_.recordingOf("game")));
}

}  // namespace
}  // namespace kestrium::test
