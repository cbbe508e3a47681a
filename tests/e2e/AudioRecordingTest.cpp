// Recordings with sound from a real sound server, read back by ffmpeg: each
// track holds its own device's tone at the level it was played, lasts as long
// as the video, and follows the user's volume, mute, pause and mixer choices.

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <fstream>
#include <numbers>
#include <sstream>
#include <thread>

#include "tests/audio/SoundServer.h"
#include "tests/e2e/AudioTrack.h"
#include "tests/e2e/E2ESupport.h"
#include "tests/e2e/ServerHarness.h"

namespace kestrium::test {
namespace {

constexpr double kFps = 30.0;

class AudioRecordingTest : public ServerTest {
 protected:
  void SetUp() override {
    if (!haveTools()) GTEST_SKIP() << "no ffmpeg";
    if (!sound_.up()) GTEST_SKIP() << sound_.why();
    ServerTest::SetUp();
  }

  int record(double seconds, const std::vector<std::string>& extra) {
    std::vector<std::string> args = {"record",  "--dir",    dir().string(), "--encoder", "no_compression", "--size",
                                     "160x90", "--fps",    "30",           "--seconds", std::to_string(seconds)};
    args.insert(args.end(), extra.begin(), extra.end());
    return harness.client(args);
  }

  std::vector<std::filesystem::path> filesWith(const std::string& extension) {
    return filesIn(harness.clientOutput, extension);
  }

  std::filesystem::path onlyFile(const std::string& extension) {
    const auto found = filesWith(extension);
    EXPECT_EQ(found.size(), 1u) << harness.clientOutput;
    return found.empty() ? std::filesystem::path() : found.front();
  }

  static std::string probeStreams(const std::filesystem::path& file) {
    return ffprobe(file, {"-show_entries", "stream=codec_type,codec_name,channels,sample_rate", "-of", "compact=p=0:nk=1"});
  }

  Track decode(const std::filesystem::path& file, int stream) {
    return decodeTrack(file, stream, harness.folder() / ("track" + std::to_string(decoded_++) + ".raw"));
  }

  double videoSeconds(const std::filesystem::path& file) {
    const Probe p = probeVideo(file);
    EXPECT_GT(p.frames, 0) << p.text;
    return double(p.frames) / kFps;
  }

  // The bit rate of one stream as ffprobe reads it from the file.
  static long bitrateOf(const std::filesystem::path& file, int stream) {
    return std::atol(ffprobe(file, {"-select_streams", "a:" + std::to_string(stream), "-show_entries", "stream=bit_rate",
                                    "-of", "default=nw=1:nk=1"}).c_str());
  }

  std::string playback(const std::string& description) const { return sound_.playback(description); }
  std::string mic() const { return sound_.capture("USB Microphone"); }

  SoundServer sound_;
  int decoded_ = 0;
};

// The two devices of a game recording: what the game plays and the player's
// microphone, each on its own track, each holding its own tone at the level it
// was played (within the loss of the codec) and none of the other's, each as
// long as the video. As PCM and as AAC, which readers we did not write take with
// the rate, channels and bit rate of the sources and the request; and in side
// tracks, a file for each device beside the video, named after it: WAV in the
// very format the streams of the video file would have, or with a bit rate AAC
// behind ADTS headers under the names of MP3 side tracks, which players open on
// their own and decode whole (a header that lied about a length would show).
struct TwoDeviceCase {
  const char* name;
  double seconds;
  std::vector<std::string> extra;
  std::string codec;
  long bitrate;        // of each audio stream as ffprobe reads it; 0: not checked
  double levelDb;      // how far the tone's level may move
  double otherToneDb;  // the most of the other device's tone that may show
  std::string side;    // the side tracks' extension; empty: the tracks are in the video file
  double slack;        // how far a track's length may be from the video's
};
class TwoDeviceTest : public AudioRecordingTest, public ::testing::WithParamInterface<TwoDeviceCase> {};
INSTANTIATE_TEST_SUITE_P(
    Tracks, TwoDeviceTest,
    ::testing::Values(TwoDeviceCase{"Pcm", 10.0, {}, "pcm_s16le", 0, 0.5, -60.0, "", 0.3},
                      TwoDeviceCase{"Aac", 3.0, {"--aac", "160"}, "aac", 160000, 1.0, -40.0, "", 0.3},
                      TwoDeviceCase{"WavSideTracks", 3.0, {"--side-tracks", "wav"}, "pcm_s16le", 0, 0.5, -60.0, ".wav", 0.3},
                      TwoDeviceCase{"AacSideTracks", 3.0, {"--aac", "128", "--side-tracks", "mp3"}, "aac", 0, 1.0, -40.0,
                                    ".mp3", 0.1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_P(TwoDeviceTest, GiveTwoTracksOfTheirOwnSound) {
  const TwoDeviceCase& c = GetParam();
  sound_.play("game", 2, 1000, 20.0);
  sound_.play("micsink", 1, 440, 20.0);
  std::vector<std::string> args = {"--audio", playback("Game Audio"), "--audio", mic()};
  args.insert(args.end(), c.extra.begin(), c.extra.end());
  ASSERT_EQ(record(c.seconds, args), 0) << harness.clientOutput << harness.log();
  const auto avi = onlyFile(".avi");
  const double video = videoSeconds(avi);
  EXPECT_NEAR(video, c.seconds, 0.5);
  std::vector<std::pair<std::filesystem::path, int>> tracks = {{avi, 0}, {avi, 1}};
  const std::string audio = c.codec + "|audio|48000|";
  if (c.side.empty()) {
    EXPECT_EQ(probeStreams(avi), "rawvideo|video\n" + audio + "2\n" + audio + "1\n");
  } else {
    EXPECT_EQ(probeStreams(avi), "rawvideo|video\n");
    const auto files = filesWith(c.side);
    ASSERT_EQ(files.size(), 2u) << harness.clientOutput;
    EXPECT_EQ(files[0].filename(), avi.stem().string() + ".0.0" + c.side);
    EXPECT_EQ(probeStreams(files[0]), audio + "2\n");
    EXPECT_EQ(probeStreams(files[1]), audio + "1\n");
    for (const auto& file : files) expectDecodes(file);
    tracks = {{files[0], 0}, {files[1], 0}};
  }
  if (c.bitrate != 0) {
    EXPECT_EQ(bitrateOf(avi, 0), c.bitrate);
    EXPECT_EQ(bitrateOf(avi, 1), c.bitrate);
  }
  const Track game = decode(tracks[0].first, tracks[0].second);
  const Track mic = decode(tracks[1].first, tracks[1].second);
  EXPECT_NEAR(game.seconds(), video, c.slack);
  EXPECT_NEAR(mic.seconds(), video, c.slack);
  for (uint32_t ch = 0; ch < 2; ++ch) {
    EXPECT_NEAR(game.toneDb(ch, 1000), kPlayedDb, c.levelDb) << "channel " << ch;
    EXPECT_LT(game.toneDb(ch, 440), c.otherToneDb) << "channel " << ch;
  }
  EXPECT_NEAR(mic.toneDb(0, 440), kPlayedDb, c.levelDb);
  EXPECT_LT(mic.toneDb(0, 1000), c.otherToneDb);
}

// The mixer makes one track wide enough for every speaker of its devices: a
// stereo device and a mono (front centre) microphone give three channels, and a
// device at 44.1 kHz joins the 48 kHz mix.
TEST_F(AudioRecordingTest, MixerPutsEveryDeviceIntoOneTrack) {
  sound_.play("game", 2, 1000, 12.0);
  sound_.play("micsink", 1, 440, 12.0);
  sound_.play("headset", 2, 2500, 12.0, 44100);
  ASSERT_EQ(record(4.0, {"--mixer", "--audio", playback("Game Audio"), "--audio", mic(), "--audio", playback("Headset")}), 0)
      << harness.clientOutput << harness.log();
  const auto avi = onlyFile(".avi");
  const Track mix = decode(avi, 0);
  ASSERT_EQ(mix.channels, 3u) << probeStreams(avi);
  EXPECT_EQ(mix.rate, 48000u);
  EXPECT_NEAR(mix.seconds(), videoSeconds(avi), 0.3);
  for (uint32_t c = 0; c < 2; ++c) {
    EXPECT_NEAR(mix.toneDb(c, 1000), kPlayedDb, 0.5) << "channel " << c;
    // Stretched by repeating frames: the tone is there, with some loss.
    EXPECT_NEAR(mix.toneDb(c, 2500), kPlayedDb, 1.5) << "channel " << c;
    EXPECT_LT(mix.toneDb(c, 440), -60.0) << "channel " << c;
  }
  EXPECT_NEAR(mix.toneDb(2, 440), kPlayedDb, 0.5);
  EXPECT_LT(mix.toneDb(2, 1000), -60.0);
}

// A 5.1 device folded to stereo: a tone in the centre only reaches left and
// right alike, at the centre's share of the weights of the speakers present
// (front, centre, back and low frequency: 1 + 1 + 1 + 0).
TEST_F(AudioRecordingTest, SurroundFoldsToStereoByTheWeights) {
  sound_.play("surround", 6, 1000, 12.0, 48000, 2);
  ASSERT_EQ(record(3.0, {"--audio", playback("Surround"), "--stereo", "1,1,1,0,1,0,0,0"}), 0)
      << harness.clientOutput << harness.log();
  const Track folded = decode(onlyFile(".avi"), 0);
  ASSERT_EQ(folded.channels, 2u);
  const double expected = kPlayedDb + 20.0 * std::log10(1.0 / 3.0);
  EXPECT_NEAR(folded.toneDb(0, 1000), expected, 0.5);
  EXPECT_NEAR(folded.toneDb(1, 1000), expected, 0.5);
}

// Volume 50 halves the level; a muted device gives silence as long as the
// video; a device that exists nowhere is logged and the others still record.
TEST_F(AudioRecordingTest, VolumeMuteAndAMissingDevice) {
  sound_.play("game", 2, 1000, 12.0);
  sound_.play("micsink", 1, 440, 12.0);
  // Entry 2 is the microphone, whatever became of entry 1.
  ASSERT_EQ(record(3.0, {"--audio", playback("Game Audio") + ":50", "--audio", "Studio Monitor 9000", "--audio", mic(),
                         "--mute-mask", "4"}),
            0)
      << harness.clientOutput << harness.log();
  EXPECT_NE(harness.log().find("[Error]   *** Aud *** Cannot find source: Studio Monitor 9000\r\n"),
            std::string::npos)
      << harness.log();
  const auto avi = onlyFile(".avi");
  const double video = videoSeconds(avi);
  const Track game = decode(avi, 0);
  const Track mic = decode(avi, 1);
  EXPECT_NEAR(game.toneDb(0, 1000), kPlayedDb - 6.02, 0.5);
  EXPECT_NEAR(game.seconds(), video, 0.3);
  EXPECT_EQ(mic.peak(), 0);
  EXPECT_NEAR(mic.seconds(), video, 0.3);
}

// While paused the game shows nothing, and no sound is kept either: the
// sound of the pause would push the rest of the track behind the pictures. The
// pause and the resume are logged, and the recording goes on to its end.
TEST_F(AudioRecordingTest, PauseLeavesNoSound) {
  sound_.play("game", 2, 1000, 12.0);
  ASSERT_EQ(record(3.0, {"--audio", playback("Game Audio"), "--pause-at", "1", "--resume-at", "2.5"}), 0)
      << harness.clientOutput << harness.log();
  const std::string log = harness.log();
  EXPECT_NE(log.find("  *** CAP *** ** PAUSED ** for capture\r\n"), std::string::npos) << log;
  EXPECT_NE(log.find("  *** CAP *** ** UNPAUSED ** for capture\r\n"), std::string::npos) << log;
  const auto avi = onlyFile(".avi");
  const double video = videoSeconds(avi);
  EXPECT_NEAR(video, 3.0, 0.2);
  EXPECT_NEAR(decode(avi, 0).seconds(), video, 0.3);
}

// A headset pulled out mid-recording: its track ends, the log says why, and the
// video and the other track go on to the end.
TEST_F(AudioRecordingTest, UnpluggedDeviceLeavesTheRestWhole) {
  sound_.play("game", 2, 1000, 12.0);
  sound_.play("micsink", 1, 440, 12.0);
  // Two seconds into the recording: once the devices are open, which may take
  // a while on a busy machine.
  std::thread unplug([this] {
    if (harness.waitForLog("  *** Aud *** Audio source: ")) platform::sleepMs(2000);
    sound_.unload("game");
  });
  const int status = record(4.0, {"--audio", playback("Game Audio"), "--audio", mic()});
  unplug.join();
  ASSERT_EQ(status, 0) << harness.clientOutput << harness.log();
  EXPECT_NE(harness.log().find("[Error]   *** Aud *** Error getting buffer from CaptureClient"), std::string::npos);
  const auto avi = onlyFile(".avi");
  const double video = videoSeconds(avi);
  EXPECT_NEAR(video, 4.0, 0.4);
  EXPECT_LT(decode(avi, 0).seconds(), video - 1.0);
  const Track mic = decode(avi, 1);
  EXPECT_NEAR(mic.seconds(), video, 0.3);
  EXPECT_NEAR(mic.toneDb(0, 440), kPlayedDb, 0.5);
}

// A device that goes quiet for a while (an idle sink suspends; a loopback gives
// nothing while nothing plays) keeps its track as long as the video, and in a
// mix it does not hold up the other device's sound with its own.
class QuietDeviceTest : public AudioRecordingTest, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(OwnTrackOrMixed, QuietDeviceTest, ::testing::Bool());

TEST_P(QuietDeviceTest, KeepsTheTrackAsLongAsTheVideo) {
  sound_.play("game", 2, 1000, 12.0);
  sound_.play("micsink", 1, 440, 12.0);
  std::thread quiet([this] {
    if (harness.waitForLog("  *** Aud *** Audio source: ")) platform::sleepMs(1000);
    sound_.suspend("game", true);
    platform::sleepMs(1500);
    sound_.suspend("game", false);
  });
  std::vector<std::string> devices = {"--audio", playback("Game Audio"), "--audio", mic()};
  if (GetParam()) devices.insert(devices.begin(), "--mixer");
  const int status = record(4.0, devices);
  quiet.join();
  ASSERT_EQ(status, 0) << harness.clientOutput << harness.log();
  const auto avi = onlyFile(".avi");
  const double video = videoSeconds(avi);
  EXPECT_NEAR(video, 4.0, 0.4);
  for (int track = 0; track < (GetParam() ? 1 : 2); ++track) {
    EXPECT_NEAR(decode(avi, track).seconds(), video, 0.3) << "track " << track;
  }
}

// The top-level boxes of an MP4 file, in order: their codes and sizes.
std::vector<std::pair<std::string, uint64_t>> topLevelBoxes(const std::filesystem::path& file) {
  const std::vector<char> bytes = readBytes(file);
  std::vector<std::pair<std::string, uint64_t>> boxes;
  auto b = [&](size_t at) { return uint64_t(static_cast<unsigned char>(bytes[at])); };
  for (size_t at = 0; at + 8 <= bytes.size();) {
    uint64_t size = b(at) << 24 | b(at + 1) << 16 | b(at + 2) << 8 | b(at + 3);
    if (size == 1 && at + 16 <= bytes.size()) {
      size = 0;
      for (size_t i = 8; i < 16; ++i) size = size << 8 | b(at + i);
    }
    boxes.emplace_back(std::string(&bytes[at + 4], 4), size);
    if (size < 8) break;
    at += size;
  }
  return boxes;
}

struct Mp4Case {
  const char* name;
  std::vector<std::string> extra;
  double seconds;  // what the file holds
};
class Mp4RecordingTest : public AudioRecordingTest, public ::testing::WithParamInterface<Mp4Case> {};
INSTANTIATE_TEST_SUITE_P(
    Ways, Mp4RecordingTest,
    ::testing::Values(Mp4Case{"Plain", {"--seconds", "30"}, 30.0},
                      // The press comes 6 s in, with up to 4 s kept from before it.
                      Mp4Case{"Prerecorded", {"--seconds", "9", "--prerecord", "4", "--begin-after", "6"}, 7.0},
                      Mp4Case{"Paused", {"--seconds", "6", "--pause-at", "2", "--resume-at", "3.5"}, 6.0}),
    [](const auto& info) { return std::string(info.param.name); });

// H.264 from "h264.x264" and AAC into MP4, the way users share recordings:
// readers we did not write find both tracks with their lengths, decode every
// frame, and hear the tone at its level. The file starts with a key frame at
// time 0, holds a key frame each second, and has its index behind the data.
// The video's last sample has no time of its own in the tables, so readers
// count one frame fewer than the encoder delivered.
TEST_P(Mp4RecordingTest, HoldsH264AndAacThatPlayFromTheStart) {
#if !KESTRIUM_WITH_X264
  GTEST_SKIP() << "this build has no libx264";
#endif
  const Mp4Case& c = GetParam();
  sound_.play("game", 2, 1000, c.seconds + 30.0);
  std::vector<std::string> args = {"record", "--dir", dir().string(), "--encoder", "h264.x264", "--size", "1280x720",
                                   "--fps", "30", "--bitrate", "2000", "--audio", playback("Game Audio"), "--aac", "160"};
  args.insert(args.end(), c.extra.begin(), c.extra.end());
  ASSERT_EQ(harness.client(args), 0) << harness.clientOutput << harness.log();
  const auto mp4 = onlyFile(".mp4");
  ASSERT_FALSE(mp4.empty());
  EXPECT_NE(harness.log().find("  *** MP4 *** MP4 file: " + mp4.string() + "\r\n"), std::string::npos);

  const auto boxes = topLevelBoxes(mp4);
  ASSERT_EQ(boxes.size(), 4u);
  EXPECT_EQ(boxes[0].first + boxes[1].first + boxes[2].first + boxes[3].first, "ftypfreemdatmoov");
  EXPECT_EQ(boxes[0].second + boxes[1].second + boxes[2].second + boxes[3].second, std::filesystem::file_size(mp4));
  EXPECT_EQ(probeStreams(mp4), "aac|audio|48000|2\nh264|video\n");
  // Readers measure an MP4 track's rate from its bytes and length.
  EXPECT_NEAR(bitrateOf(mp4, 0), 160000, 8000);

  std::istringstream lines(ffprobe(mp4, {"-select_streams", "v:0", "-show_entries", "packet=pts_time", "-of", "csv=p=0"}));
  std::vector<double> times;
  for (std::string line; std::getline(lines, line);) times.push_back(std::stod(line));
  ASSERT_FALSE(times.empty());
  EXPECT_EQ(times.front(), 0.0) << "the file plays from its first frame";
  EXPECT_NEAR(double(times.size()) / kFps, c.seconds, 1.0);
  if (c.extra.size() == 2) {
    // All the encoder delivered is in the file.
    EXPECT_EQ(times.size(), uint64_t(framesEncoded(harness.log(), "capture"))) << harness.log();
  }
  expectVideo(mp4, {"h264", "1280", "720", static_cast<int64_t>(times.size()), 30});

  const std::string durations = ffprobe(mp4, {"-show_entries", "stream=duration", "-of", "csv=p=0"});
  std::istringstream d(durations);
  double audioDuration = 0, videoDuration = 0;
  d >> audioDuration >> videoDuration;
  // Frames lie on their milliseconds: a frame the encoder could not take in
  // time (the sanitizer build on a busy machine) leaves a gap, not a shorter
  // track, so the track lasts to its last frame's time and one frame more.
  EXPECT_NEAR(videoDuration, times.back() + 1.0 / kFps, 1.0 / kFps + 1e-3) << durations;
  const Track sound = decode(mp4, 0);
  // The track's time in the tables is the sound it holds, to one AAC frame.
  EXPECT_NEAR(audioDuration, sound.seconds(), 1024.0 / 48000 + 1e-3) << durations;
  EXPECT_NEAR(sound.seconds(), videoDuration, 0.3);
  for (uint32_t ch = 0; ch < 2; ++ch) EXPECT_NEAR(sound.toneDb(ch, 1000), kPlayedDb, 1.0) << "channel " << ch;
}

// An MP4 audio track needs a codec with a bit rate: PCM is refused at the
// start with a reason, unless it goes to side tracks, where the MP4 keeps the
// video and WAV files beside it keep the sound.
TEST_F(AudioRecordingTest, Mp4TakesPcmOnlyInSideTracks) {
#if !KESTRIUM_WITH_X264
  GTEST_SKIP() << "this build has no libx264";
#endif
  sound_.play("game", 2, 1000, 12.0);
  const std::vector<std::string> args = {"record", "--dir", dir().string(), "--encoder", "h264.x264", "--size",
                                         "320x180", "--fps", "30", "--seconds", "2", "--audio", playback("Game Audio")};
  EXPECT_EQ(harness.client(args), 4) << harness.clientOutput;
  EXPECT_NE(harness.log().find("[Error]   *** CAP *** An MP4 file holds AAC or MP3 sound: give the sound a bit rate, "
                               "or record it in side tracks\r\n"),
            std::string::npos)
      << harness.log();

  auto sideTracks = args;
  sideTracks.insert(sideTracks.end(), {"--side-tracks", "wav"});
  ASSERT_EQ(harness.client(sideTracks), 0) << harness.clientOutput << harness.log();
  const auto mp4 = onlyFile(".mp4");
  EXPECT_EQ(probeStreams(mp4), "h264|video\n");
  const auto wavs = filesWith(".wav");
  ASSERT_EQ(wavs.size(), 1u);
  EXPECT_EQ(wavs[0].filename(), mp4.stem().string() + ".0.0.wav");
  EXPECT_NEAR(decode(wavs[0], 0).toneDb(0, 1000), kPlayedDb, 0.5);
}

}  // namespace
}  // namespace kestrium::test
