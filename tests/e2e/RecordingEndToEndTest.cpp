// Whole recordings: the real server, the real client, and the files they make,
// read back by ffprobe and ffmpeg (and by our own parser where those cannot run).

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

#include "client/FrameSource.h"
#include "codecs/ColorConvert.h"
#include "server/CommandChannel.h"
#include "platform/SharedMapping.h"
#include "platform/Text.h"
#include "tests/e2e/E2ESupport.h"
#include "tests/e2e/ServerHarness.h"
#include "tests/fileOutput/AviParser.h"

namespace kestrium::test {
namespace {

constexpr uint32_t kWidth = 640, kHeight = 360;
constexpr size_t kFrameBytes = size_t{kWidth} * kHeight * 3;

class RecordingEndToEndTest : public ServerTest {
 protected:

  std::filesystem::path rawFrames(uint32_t n) {
    return patternFile(harness.folder() / "frames.rgb", kWidth, kHeight, n, 5);
  }

  static std::vector<std::byte> rawFrame(const std::filesystem::path& raw, uint32_t number) {
    std::ifstream in(raw, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(number * kFrameBytes));
    std::vector<std::byte> frame(kFrameBytes);
    in.read(reinterpret_cast<char*>(frame.data()), static_cast<std::streamsize>(frame.size()));
    return frame;
  }

  // The video chunks of an AVI written by a "no_compression" capture, each turned
  // back into rgb24 top-down (empty chunks stay empty).
  static std::vector<std::vector<std::byte>> videoFrames(const std::filesystem::path& avi) {
    const AviFile file(avi);
    std::vector<std::vector<std::byte>> frames;
    for (const auto& riff : file.top) {
      const AviChunk* movi = riff.find("LIST", "movi");
      if (movi == nullptr) continue;
      for (const auto& c : movi->children) {
        if (c.code != "00db") continue;
        std::vector<std::byte> rgb;
        if (c.size == kFrameBytes) {
          rgb.resize(kFrameBytes);
          client::convertLayout({reinterpret_cast<const std::byte*>(file.data(c.position + 8)), kFrameBytes}, kWidth,
                                kHeight, rgb, {false, false});
        }
        frames.push_back(std::move(rgb));
      }
    }
    return frames;
  }

  int record(const std::vector<std::string>& extra) {
    std::vector<std::string> args = {"record", "--dir", dir().string(), "--encoder", "no_compression",
                                     "--size", std::to_string(kWidth) + "x" + std::to_string(kHeight)};
    args.insert(args.end(), extra.begin(), extra.end());
    return harness.client(args);
  }

};

TEST_F(RecordingEndToEndTest, RealTimeRecordingHoldsEveryFrameBitExact) {
  const auto raw = rawFrames(150);
  ASSERT_EQ(record({"--frames", "150", "--source", "raw:" + raw.string(), "--pace", "realtime"}), 0)
      << harness.clientOutput;
  EXPECT_EQ(field(harness.clientOutput, "frames_fed"), "150");
  EXPECT_EQ(field(harness.clientOutput, "frames_skipped"), "0");
  const auto files = filesIn(harness.clientOutput);
  ASSERT_EQ(files.size(), 1u) << harness.clientOutput;
  EXPECT_EQ(files[0].extension(), ".avi");

  const auto frames = videoFrames(files[0]);
  ASSERT_EQ(frames.size(), 150u);
  for (uint32_t f = 0; f < 150; ++f) ASSERT_EQ(frames[f], rawFrame(raw, f)) << "frame " << f;

  if (haveTools()) {
    const Probe p = probeVideo(files[0]);
    EXPECT_EQ(p.frames, 150) << p.text;
    EXPECT_EQ(p.packets, 150) << p.text;
    const auto decoded = harness.folder() / "decoded.rgb";
    std::string out;
    ASSERT_EQ(runTool(KESTRIUM_FFMPEG,
                      {"-v", "error", "-i", files[0].string(), "-f", "rawvideo", "-pix_fmt", "rgb24", decoded.string()},
                      out),
              0)
        << out;
    EXPECT_EQ(readBytes(decoded), readBytes(raw)) << "ffmpeg decodes exactly what the client sent";
  }
  EXPECT_NE(harness.log().find("  *** CAP *** Frames encoded 150, refused 0 for capture\r\n"), std::string::npos);
}

// The lossless codec end to end: what the decoder gives back are exactly the
// planes the conversion makes of the frames the client sent.
TEST_F(RecordingEndToEndTest, FastRecordingDecodesToTheConversionOfTheClientsFrames) {
  constexpr uint32_t kBigWidth = 1920, kBigHeight = 1080, kFrames = 20;
  ASSERT_EQ(harness.client({"record", "--dir", dir().string(), "--encoder", "fast", "--size", "1920x1080", "--fps",
                            "10", "--frames", std::to_string(kFrames), "--pace", "realtime"}),
            0)
      << harness.clientOutput;
  EXPECT_EQ(field(harness.clientOutput, "frames_skipped"), "0");
  const auto files = filesIn(harness.clientOutput);
  ASSERT_EQ(files.size(), 1u);
  const auto planesFile = harness.folder() / "decoded.planes";
  std::string out;
  ASSERT_EQ(runTool(harness.binary(KESTRIUM_TMB2_TOOL), {"decode", files[0].string(), "-o", planesFile.string(), "--planes"},
                    out),
            0)
      << out;
  const std::vector<char> decoded = readBytes(planesFile);
  const size_t lumaSize = size_t{kBigWidth} * kBigHeight, chromaSize = lumaSize / 4;
  ASSERT_EQ(decoded.size(), kFrames * (lumaSize + 2 * chromaSize));

  client::PatternSource source(kBigWidth, kBigHeight);
  std::vector<std::byte> frame(lumaSize * 3);
  std::vector<uint8_t> planes(lumaSize + 2 * chromaSize);
  for (uint32_t f = 0; f < kFrames; ++f) {
    // The layout this encoder asks for: rows bottom-up, blue first.
    source.fill(f, frame, {false, false});
    uint8_t* planePointers[3] = {planes.data(), planes.data() + lumaSize, planes.data() + lumaSize + chromaSize};
    ASSERT_EQ(rgbToYuv420(reinterpret_cast<const uint8_t*>(frame.data()), planePointers, kBigWidth, kBigHeight), 0);
    ASSERT_EQ(std::memcmp(decoded.data() + f * planes.size(), planes.data(), planes.size()), 0) << "frame " << f;
  }
}

struct EncoderCase {
  const char* name;
  std::vector<std::string> args;
  uint32_t frames;  // at 30 frames a second
  uint32_t kbps;    // checked against the size of the video; 0: not checked
  const char* codec;
  uint32_t keyEvery;
  int profileIdc;  // what the SPS says; 0: no H.264
};
void PrintTo(const EncoderCase& c, std::ostream* os) { *os << c.name; }

class EncoderRecordingTest : public RecordingEndToEndTest, public ::testing::WithParamInterface<EncoderCase> {};

// Compressed recordings read whole and decoded by ffmpeg. H.264 from
// "h264.x264", as fast as the server takes the frames, in an AVI, whose frame
// grid the frames' milliseconds are put on: the encoder never refuses a frame,
// and the recorder takes a waiting encoded frame before it hands the encoder the
// next source frame (else the two wait for each other, which a tiny picture at
// full speed brings about), so every frame is there, with an IDR frame each
// second, the profile asked for in the SPS, and the video within 15 % of the
// rate asked for. MJPEG at real pace: a slow build may find the slot or every
// worker busy now and then; the file then holds an empty frame in that place,
// which shows the frame before again and which readers count as no packet, so
// every frame is accounted for and the packets are those the server took.
TEST_P(EncoderRecordingTest, EveryFrameIsReadAndDecoded) {
  const EncoderCase& c = GetParam();
#if !KESTRIUM_WITH_X264
  if (c.profileIdc != 0) GTEST_SKIP() << "this build has no libx264";
#endif
#if !KESTRIUM_WITH_MJPEG
  if (c.profileIdc == 0) GTEST_SKIP() << "this build has no JPEG engine";
#endif
  if (!haveTools()) GTEST_SKIP() << "ffprobe and ffmpeg are not available in this build";
  std::vector<std::string> args = {"record", "--dir", dir().string(), "--fps", "30", "--frames",
                                   std::to_string(c.frames)};
  args.insert(args.end(), c.args.begin(), c.args.end());
  ASSERT_EQ(harness.client(args), 0) << harness.clientOutput;
  const auto files = filesIn(harness.clientOutput);
  ASSERT_EQ(files.size(), 1u) << harness.clientOutput;
  EXPECT_EQ(files[0].extension(), ".avi");
  const std::string log = harness.log();
  const int64_t refused = frameCount(log, "capture", "refused");
  const int64_t skipped = wholeNumber(field(harness.clientOutput, "frames_skipped"));
  EXPECT_EQ(framesEncoded(log, "capture") + refused + skipped, c.frames) << log << harness.clientOutput;
  if (c.profileIdc != 0) {
    EXPECT_EQ(refused, 0);
  }

  const uint64_t bytes = expectVideo(files[0], {c.codec, "", "", c.frames, c.keyEvery, refused + skipped});
  if (c.kbps != 0) {
    const double expected = c.kbps * 1000.0 / 8 * c.frames / 30;
    EXPECT_NEAR(double(bytes), expected, expected * 0.15);
  }
  if (c.profileIdc == 0) return;
  std::string out;
  ASSERT_EQ(runTool(KESTRIUM_FFMPEG, {"-hide_banner", "-i", files[0].string(), "-c", "copy", "-bsf:v", "trace_headers",
                                     "-frames:v", "1", "-f", "null", "-"},
                    out),
            0);
  const size_t at = out.find(" profile_idc ");
  ASSERT_NE(at, std::string::npos) << out;
  EXPECT_EQ(std::stoi(out.substr(out.find('=', at) + 1)), c.profileIdc) << out;
}

INSTANTIATE_TEST_SUITE_P(
    Encoders, EncoderRecordingTest,
    ::testing::Values(
        EncoderCase{"H264At720p", {"--encoder", "h264.x264", "--container", "avi", "--size", "1280x720", "--pace",
                                   "max", "--profile", "2", "--bitrate", "2000"}, 600, 2000, "h264", 30, 100},
        EncoderCase{"H264At33x17", {"--encoder", "h264.x264", "--container", "avi", "--size", "33x17", "--pace",
                                    "max", "--profile", "0"}, 300, 0, "h264", 30, 66},
        EncoderCase{"MjpegAt720p", {"--encoder", "mjpeg", "--size", "1280x720", "--pace", "realtime"}, 60, 0, "mjpeg",
                    1, 0}),
    [](const auto& info) { return std::string(info.param.name); });

class TinyRecordingTest : public RecordingEndToEndTest, public ::testing::WithParamInterface<const char*> {};

// A picture of 17 x 9 pixels: odd in both directions, and so small that a
// frame's headers and code tables outweigh its pixels. Every frame the client
// fed is in the file, whole, and decodes.
TEST_P(TinyRecordingTest, EveryFrameOfAnOddTinyPictureDecodes) {
  constexpr uint32_t kTinyWidth = 17, kTinyHeight = 9, kFrames = 10;
  const std::string encoder = GetParam();
#if !KESTRIUM_WITH_MJPEG
  if (encoder == "mjpeg") GTEST_SKIP() << "this build has no JPEG engine";
#endif
  ASSERT_EQ(harness.client({"record", "--dir", dir().string(), "--encoder", encoder, "--size", "17x9", "--frames",
                            std::to_string(kFrames), "--pace", "realtime"}),
            0)
      << harness.clientOutput;
  EXPECT_EQ(field(harness.clientOutput, "frames_skipped"), "0");
  const auto files = filesIn(harness.clientOutput);
  ASSERT_EQ(files.size(), 1u) << harness.clientOutput;

  const AviFile avi(files[0]);
  size_t chunks = 0;
  for (const auto& c : avi.top.at(0).find("LIST", "movi")->children) {
    if (c.code != "00dc" && c.code != "00db") continue;
    EXPECT_GT(c.size, 0u) << "frame " << chunks << " was recorded empty";
    ++chunks;
  }
  // Under load a worker may still be busy when a frame comes: that frame is
  // refused, never recorded empty. Every frame the server took is in the file.
  const int64_t encoded = framesEncoded(harness.log(), "capture");
  EXPECT_EQ(static_cast<int64_t>(chunks), encoded);
  EXPECT_GE(encoded, static_cast<int64_t>(kFrames) - 2);

  std::string out;
  if (encoder == "fast") {
    EXPECT_EQ(runTool(harness.binary(KESTRIUM_TMB2_TOOL), {"verify", files[0].string()}, out), 0) << out;
    EXPECT_NE(out.find("TMB2 17x9, " + std::to_string(chunks) + " frames"), std::string::npos) << out;
    EXPECT_NE(out.find("OK: every frame decodes"), std::string::npos) << out;
    EXPECT_EQ(out.find("dropped"), std::string::npos) << out;
    return;
  }
  if (!haveTools()) GTEST_SKIP() << "ffprobe and ffmpeg are not available in this build";
  expectVideo(files[0], {encoder == "mjpeg" ? "mjpeg" : "rawvideo", "17", "9", static_cast<int64_t>(chunks), 1});
  const auto decoded = harness.folder() / "decoded.rgb";
  ASSERT_EQ(runTool(KESTRIUM_FFMPEG,
                    {"-v", "error", "-i", files[0].string(), "-f", "rawvideo", "-pix_fmt", "rgb24", decoded.string()},
                    out),
            0)
      << out;
  const std::vector<char> frames = readBytes(decoded);
  constexpr size_t kTinyFrame = size_t{kTinyWidth} * kTinyHeight * 3;
  ASSERT_EQ(frames.size(), chunks * kTinyFrame);
  if (encoder != "no_compression" || chunks != kFrames) return;
  // Uncompressed, the file holds exactly the client's pattern.
  std::vector<std::byte> pattern(kTinyFrame);
  for (uint32_t f = 0; f < kFrames; ++f) {
    client::PatternSource::render(kTinyWidth, kTinyHeight, f, pattern);
    EXPECT_EQ(std::memcmp(frames.data() + f * kTinyFrame, pattern.data(), kTinyFrame), 0) << "frame " << f;
  }
}

INSTANTIATE_TEST_SUITE_P(Encoders, TinyRecordingTest, ::testing::Values("fast", "mjpeg", "no_compression"),
                         [](const auto& info) { return std::string(info.param); });

// As fast as the server takes frames: refused frames leave gaps, which the
// frame grid fills, and every frame that is there is the one it stands for.
TEST_F(RecordingEndToEndTest, MaxPaceRecordingPutsEveryTakenFrameOnItsGridPlace) {
  const auto raw = rawFrames(120);
  ASSERT_EQ(record({"--frames", "120", "--source", "raw:" + raw.string(), "--pace", "max", "--fps", "60"}), 0)
      << harness.clientOutput;
  const auto files = filesIn(harness.clientOutput);
  ASSERT_EQ(files.size(), 1u);
  const auto frames = videoFrames(files[0]);
  uint32_t grid = 0, next = 0, taken = 0;
  for (size_t i = 0; i < frames.size();) {
    ASSERT_FALSE(frames[i].empty()) << "an empty chunk only follows a frame";
    // The frame this chunk holds: the next one of the source that matches.
    uint32_t number = next;
    while (number < 120 && frames[i] != rawFrame(raw, number)) ++number;
    ASSERT_LT(number, 120u) << "chunk " << i << " is none of the frames sent";
    size_t empties = 0;
    while (i + 1 + empties < frames.size() && frames[i + 1 + empties].empty()) ++empties;
    const int64_t gap = int64_t{number} - grid - 1;
    EXPECT_EQ(static_cast<int64_t>(empties), std::max<int64_t>(gap, 0)) << "after frame " << number;
    ++taken;
    grid += 1 + static_cast<uint32_t>(empties);
    next = number + 1;
    i += 1 + empties;
  }
  EXPECT_GT(taken, 0u);
  if (haveTools()) {
    EXPECT_EQ(probeVideo(files[0]).frames, static_cast<int64_t>(frames.size()));
  }
}

TEST_F(RecordingEndToEndTest, PrerecordingKeepsTheSecondsBeforeThePress) {
  ASSERT_EQ(record({"--prerecord", "3", "--begin-after", "5", "--seconds", "7"}), 0) << harness.clientOutput;
  const auto files = filesIn(harness.clientOutput);
  ASSERT_EQ(files.size(), 1u) << harness.clientOutput;
  const AviFile avi(files[0]);
  const auto frames = videoFrames(files[0]);
  EXPECT_NEAR(frames.size() / 30.0, 5.0, 0.5) << "3 s from before the press and 2 s after it";
  const AviChunk* idx1 = avi.top.at(0).find("idx1");
  ASSERT_NE(idx1, nullptr);
  EXPECT_EQ(avi.u32(idx1->dataPosition() + 4), 0x10u) << "the file begins with a key frame";
  EXPECT_NE(harness.log().find("** PRE-RECORDING IS OFF ** for capture"), std::string::npos);
}

struct Abandon {
  std::vector<std::string> args;
  double seconds;  // of frames the kept file holds; 0: no file is kept
};

class ClientGoneTest : public RecordingEndToEndTest, public ::testing::WithParamInterface<Abandon> {};

// A client that dies or lets go of its capture stops it: a recording that was
// writing keeps its file, up to the client's last frame, one still in
// pre-recording leaves nothing.
TEST_P(ClientGoneTest, ServerStopsTheCaptureOfAClientThatIsGone) {
  std::vector<std::string> args = {"--seconds", "4"};
  args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
  record(args);
  ASSERT_TRUE(harness.waitForLog("[Warning] Emergency stop for capture\r\n", 5000)) << harness.log();
  ASSERT_TRUE(harness.waitForLog("  *** CAP *** Stopping capture, recorder name    capture\r\n", 5000));
  const std::string log = harness.log();
  if (std::find(args.begin(), args.end(), "--pause-at") != args.end()) {
    EXPECT_LT(log.find("** PAUSED ** for capture"), log.find("Emergency stop for capture")) << log;
    EXPECT_EQ(log.find("UNPAUSED"), std::string::npos) << "the client died while paused: " << log;
  }
  EXPECT_EQ(harness.client({"pause", "capture", "on"}), 0);
  EXPECT_NE(harness.log().find("Cannot toggle pause video capture"), std::string::npos) << "the recorder is gone";

  const auto avis = filesUnder(dir(), ".avi");
  if (GetParam().seconds == 0) {
    EXPECT_TRUE(avis.empty());
    return;
  }
  ASSERT_EQ(avis.size(), 1u);
  const size_t frames = videoFrames(avis[0]).size();
  EXPECT_NEAR(frames / 30.0, GetParam().seconds, 0.6);
  if (haveTools()) {
    EXPECT_EQ(probeVideo(avis[0]).packets, static_cast<int64_t>(frames));
  }
}

INSTANTIATE_TEST_SUITE_P(Ways, ClientGoneTest,
                         ::testing::Values(Abandon{{"--die-after", "2"}, 2.0}, Abandon{{"--release-after", "2"}, 2.0},
                                           Abandon{{"--prerecord", "10", "--die-after", "2"}, 0},
                                           // A paused game shows nothing: the client feeds nothing
                                           // from the pause to its death.
                                           Abandon{{"--pause-at", "1", "--die-after", "2"}, 1.0}),
                         [](const auto& info) { return "Case" + std::to_string(info.index); });

TEST_F(RecordingEndToEndTest, StopWithDeleteLeavesNoFile) {
  ASSERT_EQ(record({"--seconds", "1", "--delete"}), 0);
  EXPECT_TRUE(filesIn(harness.clientOutput).empty());
  EXPECT_TRUE(std::filesystem::is_empty(dir()));
  EXPECT_NE(harness.log().find("  *** CAP *** Deleting recorded files...\r\n"), std::string::npos);
}

TEST_F(RecordingEndToEndTest, ShutdownWithACaptureRunningKeepsAValidFile) {
  platform::ChildProcess client = harness.startClient(
      {"record", "--dir", dir().string(), "--encoder", "no_compression", "--size", "320x180", "--seconds", "1",
       "--no-stop"},
      harness.folder() / "client.txt");
  ASSERT_TRUE(harness.waitForLog("Frame size:            320x180"));
  platform::sleepMs(2000);
  TearDown();
  client.kill();
  client.wait(kPatience);
  // The killed client could not close its objects, and no server starts after it
  // to reclaim them.
  platform::reclaimAbandonedObjects();
  const auto avis = filesUnder(dir());
  ASSERT_EQ(avis.size(), 1u);
  const AviFile avi(avis[0]);
  ASSERT_EQ(avi.top.size(), 1u);
  EXPECT_EQ(avi.top[0].size, avi.size() - 8) << "finished: the sizes are patched";
  EXPECT_NE(avi.top[0].find("idx1"), nullptr);
  if (haveTools()) {
    EXPECT_EQ(probeVideo(avis[0]).packets, 30);
  }
}

TEST_F(RecordingEndToEndTest, FiguresComeUpAndGrow) {
  platform::ChildProcess client = harness.startClient(
      {"record", "--dir", dir().string(), "--encoder", "no_compression", "--size", "320x180", "--seconds", "3"},
      harness.folder() / "client.txt");
  std::vector<double> recorded;
  std::string last;
  const uint64_t until = platform::monotonicNs() + 20'000'000'000ull;
  while (!client.wait(0) && platform::monotonicNs() < until) {
    if (harness.client({"status", "capture"}) == 0) {
      last = harness.clientOutput;
      recorded.push_back(std::stod(field(last, "recorded_seconds")));
    }
    platform::sleepMs(100);
  }
  ASSERT_FALSE(recorded.empty());
  for (double r : recorded) EXPECT_TRUE(r == -1.0 || r >= 0.0) << r;
  // -1.0 is "not yet": the client sets it on the zeros of a fresh record, so a
  // status between the two may read 0 first.
  std::erase(recorded, -1.0);
  for (size_t i = 1; i < recorded.size(); ++i) EXPECT_GE(recorded[i], recorded[i - 1]) << "figures only grow";
  EXPECT_GT(recorded.back(), 1.0);
  EXPECT_GT(std::stoul(field(last, "free_mb")), 0u);
  const uint32_t megabytes = static_cast<uint32_t>(std::stoul(field(last, "mb_written")));
  // Recorded seconds of an AVI are whole seconds of its frame grid.
  const double perSecond = 30.0 * 320 * 180 * 3 / 1048576.0;
  EXPECT_GE(megabytes + 1, recorded.back() * perSecond);
  EXPECT_LE(megabytes, (recorded.back() + 1) * perSecond + 1);
  EXPECT_EQ(field(last, "buffered_seconds"), "0.00");
}

// A program of the user that made one of a capture's names first, as
// something else; it holds the object until the start was answered.
std::unique_ptr<platform::SharedMapping> squatter;

struct BadStart {
  const char* what;
  void (*spoil)(StartParameters&, const std::filesystem::path& folder);
  const char* line;
};

extern const BadStart kBadStarts[17];

// Starts the server cannot honour, one after the other: each is refused with its
// reason in the log and leaves no recorder and no file; then a good capture
// records, no thread is left behind, and the log, written by the server and read
// by other programs, is still UTF-16 whatever text the clients sent.
TEST_F(RecordingEndToEndTest, BadStartsAreRefusedAndTheServerGoesOn) {
  const auto threadsBefore = settledThreads(server_.id());
  for (const BadStart& bad : kBadStarts) {
    SCOPED_TRACE(bad.what);
    RawCapture start(u"bad", 64, 48, dir());  // its objects are never made
    bad.spoil(start.params(), harness.folder());
    const size_t before = harness.log().size();
    ASSERT_EQ(start.start(kPatience), SendResult::Replied);
    squatter.reset();
    const std::string log = harness.log();
    EXPECT_NE(log.find(bad.line, before), std::string::npos) << log.substr(before);
    EXPECT_NE(log.find("[Error]   *** CAP *** Error starting capture\r\n", before), std::string::npos);
    EXPECT_TRUE(filesUnder(dir()).empty()) << "left behind: " << filesUnder(dir())[0];
    ASSERT_EQ(harness.client({"stop", "bad"}), 0);
    EXPECT_NE(harness.log().find("Cannot find recorder to delete bad", before), std::string::npos) << "no recorder stays";
  }
  ASSERT_EQ(record({"--seconds", "1", "--size", "160x90"}), 0) << harness.clientOutput;
  EXPECT_EQ(filesIn(harness.clientOutput).size(), 1u);
  EXPECT_EQ(threadsAfterSettling(server_.id(), threadsBefore, kPatience), threadsBefore) << "no thread is left behind";
  const std::u16string text = readUtf16(harness.logPath());
  EXPECT_EQ(platform::validUtf16(text), text);
}

const BadStart kBadStarts[17] = {
    {"zero width", [](StartParameters& p, const auto&) { p.width = 0; },
     "[Error]   *** CAP *** Frame size 0x48 cannot be recorded\r\n"},
    {"zero height", [](StartParameters& p, const auto&) { p.height = 0; },
     "[Error]   *** CAP *** Frame size 64x0 cannot be recorded\r\n"},
    {"frame rate 0", [](StartParameters& p, const auto&) { p.frameRate = 0; },
     "[Error]   *** CAP *** Frame rate 0 cannot be recorded\r\n"},
    {"MP4 without H.264", [](StartParameters& p, const auto&) { p.container = 1; },
     "[Error]   *** CAP *** An MP4 file holds H.264 video: the encoder no_compression makes none\r\n"},
    {"no name", [](StartParameters& p, const auto&) { p.recorderName[0] = u'\0'; },
     "[Error]   *** CAP *** Capture name is missing or has no end\r\n"},
    {"unterminated name", [](StartParameters& p, const auto&) { std::ranges::fill(p.recorderName, u'b'); },
     "[Error]   *** CAP *** Capture name is missing or has no end\r\n"},
    {"destination under a file",
     [](StartParameters& p, const std::filesystem::path& folder) {
       std::ofstream(folder / "plain-file") << "x";
       setWireString(p.destinationFolder, (folder / "plain-file" / "rec").u16string());
     },
     "Cannot create file "},
    {"unpaired surrogate in the folder",
     [](StartParameters& p, const std::filesystem::path& folder) {
       setWireString(p.destinationFolder, (folder / "rec").u16string() + u"\xD800x");
     },
     "[Error]   *** CAP *** The destination folder \""},
    {"relative destination", [](StartParameters& p, const auto&) { setWireString(p.destinationFolder, u"rec"); },
     "[Error]   *** CAP *** The destination folder \"rec\" is not a full path\r\n"},
    {"empty destination", [](StartParameters& p, const auto&) { setWireString(p.destinationFolder, u""); },
     "[Error]   *** CAP *** The destination folder \"\" is not a full path\r\n"},
    {"audio bit rate beyond any codec",
     [](StartParameters& p, const auto&) { p.audioEncoding = 1, p.audioBitrate = 0xE0E0E0E0; },
     "[Error]   *** CAP *** Audio bit rate 3772834016 kbps is above 4096 kbps\r\n"},
    {"unpaired surrogate in the base name",
     [](StartParameters& p, const auto&) { setWireString(p.baseName, u"game\xDC00.exe"); },
     "[Error]   *** CAP *** The base name \"game\xEF\xBF\xBD.exe\" cannot name a file\r\n"},
    {"surrogate in pre-recording",
     [](StartParameters& p, const auto&) {
       p.writeAtOnce = 0;
       p.prerecordLimit = 5.0f;
       setWireString(p.baseName, u"\xD83D.exe");
     },
     "cannot name a file\r\n"},
    {"frame rate above 1000 fps", [](StartParameters& p, const auto&) { p.frameRate = 1000001; },
     "[Error]   *** CAP *** Frame rate 1000.001 fps is above 1000 fps\r\n"},
    {"more memory than the machine has",
     [](StartParameters& p, const auto&) { p.width = p.height = 16384, p.threads = 64; },
     "[Error]   *** CAP *** The capture needs about 165888 MB of memory and "},
    {"an object of the wrong kind",
     [](StartParameters&, const auto&) {
       squatter = std::make_unique<platform::SharedMapping>(u"bad_new_source", 64);
       squatter->open();
     },
     "[Error]   *** CAP *** The shared objects of capture bad are missing or not what they should be\r\n"},
    {"encoder that cannot open", [](StartParameters& p, const auto&) { setWireString(p.encoder, u"h264.nvenc"); },
     "[Error]   *** NVENC *** This machine has no NVIDIA encoder that the server can use\r\n"}};

}  // namespace
}  // namespace kestrium::test
