// The Windows server's sound, end to end: under wine its WASAPI sources capture
// from the sound server of scripts/wine-ctest.sh, whose devices play a 1 kHz
// sine at half scale all the time, the game on its left channel only and the
// microphone in mono (tests/audio/wine-sound-devices.pa). wine 8 cannot capture
// a playback device in loopback; it shows the game's device as the capture
// device "Monitor of Game Audio", which is what is recorded here. The
// recordings are read back by the build machine's ffprobe and ffmpeg: each
// device's tone must be in its own place, at the level it was played, and
// nowhere else.

#include <gtest/gtest.h>

#include "tests/e2e/AudioTrack.h"
#include "tests/e2e/E2ESupport.h"
#include "tests/e2e/ServerHarness.h"

namespace kestrium::test {
namespace {

constexpr double kTone = 1000.0;
// Through AAC at 160 kbit/s a half-scale sine keeps its level within a dB or so;
// a channel that should be silent stays far below.
constexpr double kLevelDb = 1.5;
constexpr double kSilentDb = -40.0;

// Where each device's tone must be heard: the track, and per channel of it
// whether the tone is there.
struct WasapiCase {
  const char* name;
  std::vector<std::string> extra;
  std::string streams;  // ffprobe: codec|type|rate|channels per audio stream
  std::vector<std::vector<bool>> toneIn;
};

class WasapiRecordingTest : public ServerTest, public ::testing::WithParamInterface<WasapiCase> {
 protected:
  void SetUp() override {
    if (std::getenv("PULSE_SERVER") == nullptr) GTEST_SKIP() << "no sound server (scripts/wine-ctest.sh starts one)";
    ServerTest::SetUp();
  }
};

INSTANTIATE_TEST_SUITE_P(
    Devices, WasapiRecordingTest,
    ::testing::Values(
        // A track each, in AAC.
        WasapiCase{"TrackEachInAac", {"--aac", "160"}, "aac|audio|48000|2\naac|audio|48000|1\n", {{true, false}, {true}}},
        // The mixer: the game's two channels and the microphone as a third, in
        // PCM (a three-channel AAC track in AVI carries no channel
        // configuration that decoders read the same way).
        WasapiCase{"MixedIntoOneTrack", {"--mixer"}, "pcm_s16le|audio|48000|3\n", {{true, false, true}}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_P(WasapiRecordingTest, MicrophoneAndPlaybackDeviceHoldTheirTonesInAac) {
  const WasapiCase& c = GetParam();
  std::vector<std::string> args = {"record",  "--dir",     dir().string(),          "--encoder", "no_compression",
                                   "--size",  "160x90",    "--fps",                 "30",        "--seconds",
                                   "3.0",     "--audio",   "Monitor of Game Audio", "--audio",   "USB Microphone"};
  args.insert(args.end(), c.extra.begin(), c.extra.end());
  ASSERT_EQ(harness.client(args), 0) << harness.clientOutput << harness.log();
  std::filesystem::path avi;
  for (const auto& file : filesIn(harness.clientOutput)) {
    if (file.extension() == ".avi") avi = file;
  }
  ASSERT_FALSE(avi.empty()) << harness.clientOutput;

  std::string streams;
  ASSERT_EQ(runTool(KESTRIUM_FFPROBE,
                    {"-v", "error", "-select_streams", "a", "-show_entries", "stream=codec_name,codec_type,sample_rate,channels",
                     "-of", "compact=p=0:nk=1", avi.string()},
                    streams),
            0)
      << streams;
  EXPECT_EQ(streams, c.streams) << harness.log();
  const Probe video = probeVideo(avi);
  ASSERT_GT(video.frames, 0) << video.text;

  for (size_t stream = 0; stream < c.toneIn.size(); ++stream) {
    const Track track = decodeTrack(avi, static_cast<int>(stream), harness.folder() / "track.raw");
    ASSERT_EQ(track.channels, c.toneIn[stream].size()) << "stream " << stream;
    // wine's sound driver hands over its first packets some 0.4 s after the
    // capture starts, and the track starts with them.
    EXPECT_NEAR(track.seconds(), double(video.frames) / 30.0, 0.6) << "stream " << stream;
    for (uint32_t ch = 0; ch < track.channels; ++ch) {
      if (c.toneIn[stream][ch]) {
        EXPECT_NEAR(track.toneDb(ch, kTone), kPlayedDb, kLevelDb) << "stream " << stream << " channel " << ch;
      } else {
        EXPECT_LT(track.toneDb(ch, kTone), kSilentDb) << "stream " << stream << " channel " << ch;
      }
    }
  }
}

}  // namespace
}  // namespace kestrium::test
