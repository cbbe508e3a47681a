// Four captures at once for a long time, the way a user runs the server for an
// evening: lossless "fast", mjpeg, H.264 to MP4 with sound, and H.264
// broadcast to a real RTMP server. The server's memory must level off after
// the first minute, its threads must go back to what they were, it must end
// cleanly (under the sanitizers: no leak), and every file must read whole.
//
// Ten minutes with KESTRIUM_LONG_TESTS; a few seconds otherwise, which checks
// all but the level of memory.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "tests/audio/SoundServer.h"
#include "tests/e2e/E2ESupport.h"
#include "tests/e2e/RtmpServer.h"
#include "tests/e2e/ServerHarness.h"

namespace kestrium::test {
namespace {

#ifndef _WIN32

struct Sample {
  uint32_t second;
  uint64_t residentKb;
  uint64_t threads;
};

#endif

TEST(SoakTest, FourCapturesKeepMemoryLevelAndEveryFileWhole) {
#ifdef _WIN32
  GTEST_SKIP() << "the server's memory and threads are read in /proc";
#else
  if (!haveTools()) GTEST_SKIP() << "ffprobe and ffmpeg are not available in this build";
  if (!RtmpServer::available()) GTEST_SKIP() << RtmpServer::whyUnavailable();
  const bool longRun = platform::environmentVariable("KESTRIUM_LONG_TESTS").has_value();
  const uint32_t seconds = longRun ? 600 : 8;
  const uint32_t every = longRun ? 10 : 2;

  SoundServer sound;
  if (!sound.up()) GTEST_SKIP() << sound.why();
  RtmpServer rtmp;
  ASSERT_TRUE(rtmp.start()) << rtmp.why();
  ServerHarness harness;
  // Under AddressSanitizer freed memory waits in a quarantine of 256 MB, which
  // this load fills in some two minutes: a small one fills within the first.
  if (const auto asan = platform::environmentVariable("ASAN_OPTIONS")) {
    platform::setEnvironmentVariable("ASAN_OPTIONS", *asan + u":quarantine_size_mb=16");
  }
  platform::ChildProcess server = harness.startServer();
  const std::optional<uint64_t> idleThreads = settledThreads(server.id());
  ASSERT_TRUE(idleThreads.has_value());

  struct Capture {
    std::string name;
    std::vector<std::string> args;
    ServerHarness::Background client;
  };
  std::vector<Capture> captures;
  captures.push_back({"fast", {"--encoder", "fast"}, {}});
  captures.push_back({"mjpeg", {"--encoder", "mjpeg"}, {}});
  captures.push_back(
      {"mp4", {"--encoder", "h264.x264", "--audio", sound.playback("Game Audio"), "--aac", "128"}, {}});
  captures.push_back({"live", {"--encoder", "h264.x264", "--broadcast", rtmp.url(), "--stream", "soak"}, {}});
  for (Capture& c : captures) {
    std::vector<std::string> args = {"record", "--name",  c.name,        "--dir", (harness.folder() / c.name).string(),
                                     "--size", "640x360", "--fps",       "30",    "--threads",
                                     "2",      "--seconds", std::to_string(seconds)};
    args.insert(args.end(), c.args.begin(), c.args.end());
    c.client = harness.background(args, c.name);
  }

  std::vector<Sample> samples;
  const uint64_t start = platform::monotonicNs();
  for (uint32_t second = every; second <= seconds; second += every) {
    while (platform::monotonicNs() - start < uint64_t{second} * 1000000000) platform::sleepMs(50);
    samples.push_back({second, processStatus(server.id(), "VmRSS").value_or(0),
                       processStatus(server.id(), "Threads").value_or(0)});
  }
  for (Capture& c : captures) {
    EXPECT_EQ(c.client.finish(), 0) << c.name << ": " << c.client.text();
  }

  // What the closing note reports: memory and threads over time, frames refused.
  std::printf("soak: %u s, four captures at 640x360, 30 fps\n", seconds);
  for (const Sample& s : samples) {
    std::printf("soak: %4u s  resident %6.1f MB  threads %3llu\n", s.second, s.residentKb / 1024.0,
                static_cast<unsigned long long>(s.threads));
  }
  const std::string log = harness.log();
  for (const Capture& c : captures) {
    std::printf("soak: %-5s encoded %lld refused %lld\n", c.name.c_str(),
                static_cast<long long>(framesEncoded(log, c.name)),
                static_cast<long long>(frameCount(log, c.name, "refused")));
    EXPECT_GT(framesEncoded(log, c.name), 0) << c.name;
  }

  // After the first minute the server holds what it holds from then on, but
  // for the files' indexes, which grow with the recording (well under 64
  // bytes a frame): a leak of a frame's worth a second would show tenfold.
#if !defined(__SANITIZE_ADDRESS__)
  // Under AddressSanitizer its allocator's own bookkeeping grows beside the
  // indexes: the sanitizer run checks for leaks, this one for the level.
  if (longRun) {
    const auto minute = std::find_if(samples.begin(), samples.end(), [](const Sample& s) { return s.second >= 60; });
    ASSERT_NE(minute, samples.end());
    const uint64_t highest =
        std::max_element(minute, samples.end(), [](const Sample& a, const Sample& b) {
          return a.residentKb < b.residentKb;
        })->residentKb;
    const uint64_t indexesKb = captures.size() * uint64_t{seconds - minute->second} * 30 * 64 / 1024;
    EXPECT_LE(highest, minute->residentKb + minute->residentKb / 20 + indexesKb)
        << "resident memory after the first minute grows";
  }
#endif
  EXPECT_EQ(threadsAfterSettling(server.id(), idleThreads, 5000), idleThreads) << "every capture's threads end";

  // Every file whole: read by ffprobe to its end and decoded by ffmpeg (the
  // lossless "fast" by our own decoder, which ffmpeg does not know).
  for (const Capture& c : captures) {
    const auto files = filesIn(c.client.text());
    ASSERT_EQ(files.size(), 1u) << c.name << ": " << c.client.text();
    const Probe probe = probeVideo(files[0]);
    // An AVI holds an empty chunk for each frame the grid had to repeat.
    EXPECT_GE(probe.packets, framesEncoded(log, c.name)) << c.name << ": " << probe.text;
    if (c.name == "fast") {
      // Ten minutes of it take our decoder longer than a tool may run here:
      // the long run has ffprobe's reading of every packet.
      std::string out;
      if (!longRun) {
        EXPECT_EQ(runTool(harness.binary(KESTRIUM_TMB2_TOOL), {"verify", files[0].string()}, out), 0) << out;
      }
    } else {
      expectDecodes(files[0]);
    }
  }
  ASSERT_TRUE(rtmp.waitForRecordingClosed("soak", 10000)) << rtmp.errorLog();
  EXPECT_GT(probeVideo(rtmp.recordingOf("soak")).packets, 0);
  expectDecodes(rtmp.recordingOf("soak"));

  // A clean end, which under the sanitizers includes finding no leak.
  platform::ChildProcess request;
  ASSERT_TRUE(request.start(harness.binary(KESTRIUM_SERVER), {"/shutdown"}));
  request.wait(kPatience);
  EXPECT_EQ(server.wait(kPatience).value_or(-1), 0) << harness.log();
#endif
}

}  // namespace
}  // namespace kestrium::test
