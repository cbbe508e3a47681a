// "h264.x264" through the real encoder front, with a thread that plays the
// recorder: the frames it takes are put back into an Annex B stream from the
// parameter sets and the length prefixes, and ffmpeg, which no one here wrote,
// decodes and describes it.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/System.h"
#include "server/Log.h"
#include "tests/codecs/CodecTestSupport.h"
#include "tests/support/LogFixture.h"
#include "tests/support/TestSupport.h"
#include "tests/videoEncoder/EncodedSlotConsumer.h"
#include "tests/videoEncoder/H264TestSupport.h"
#include "videoEncoder/H264Bitstream.h"
#include "videoEncoder/VidEncoderH264.h"

namespace kestrium {
namespace {

struct X264Case {
  const char* name;
  uint32_t width;
  uint32_t height;
  uint32_t fps;  // thousandths
  uint32_t frames;
  OptionList options;  // beyond size, threads, fps and name
  int profileIdc;      // what the SPS must say
};
void PrintTo(const X264Case& c, std::ostream* os) { *os << c.name; }

// Frame i shows a flat grey band at the top whose level says i, so that order and
// row order show in the decoded luma; below it the game-like picture, with a red
// and a blue patch whose chroma must come out on the right side of 128. The
// levels of frames near each other lie far apart: a change of a few levels in a
// flat area is the first thing a coder at a low rate leaves out.
constexpr uint32_t kBandRows = 64;
uint8_t bandLevel(uint32_t i) { return static_cast<uint8_t>(30 + (i * 67) % 190); }

struct Patch {
  uint32_t x, y, size;
  uint8_t rgb[3];
};
constexpr Patch kRed{32, 128, 64, {230, 20, 20}};
constexpr Patch kBlue{160, 128, 64, {20, 20, 230}};

bool hasPatches(uint32_t width, uint32_t height) { return width >= 224 && height >= 192; }

// Rows top-down, red first: the order the encoder asks its client for.
std::vector<uint8_t> sourceFrame(uint32_t width, uint32_t height, uint32_t i) {
  std::vector<uint8_t> rgb = test::picture(test::Picture::Game, width, height, i + 1);
  const uint32_t band = std::min(kBandRows, height);
  std::fill(rgb.begin(), rgb.begin() + size_t{width} * band * 3, bandLevel(i));
  if (hasPatches(width, height)) {
    for (const Patch& p : {kRed, kBlue}) {
      for (uint32_t y = p.y; y < p.y + p.size; ++y) {
        for (uint32_t x = p.x; x < p.x + p.size; ++x) std::memcpy(&rgb[(size_t{y} * width + x) * 3], p.rgb, 3);
      }
    }
  }
  return rgb;
}

// The value of a syntax element in ffmpeg's trace of the headers, or -1.
int64_t traced(const std::string& trace, const std::string& element) {
  std::istringstream lines(trace);
  for (std::string line; std::getline(lines, line);) {
    const size_t at = line.find(" " + element + " ");
    if (at == std::string::npos) continue;
    return std::stoll(line.substr(line.rfind('=') + 1));
  }
  return -1;
}

double mean(const uint8_t* plane, size_t stride, uint32_t x0, uint32_t y0, uint32_t w, uint32_t h) {
  double sum = 0;
  for (uint32_t y = y0; y < y0 + h; ++y) {
    for (uint32_t x = x0; x < x0 + w; ++x) sum += plane[y * stride + x];
  }
  return sum / (double(w) * h);
}

// Objects of the test's own, and the log in its folder.
using X264Fixture = test::LoggedTest;

class VidEncoderX264Test : public X264Fixture, public ::testing::WithParamInterface<X264Case> {
 protected:
  void SetUp() override {
    if (std::string(KESTRIUM_FFMPEG).empty()) GTEST_SKIP() << "ffmpeg is not available in this build";
    X264Fixture::SetUp();
  }
};

TEST_P(VidEncoderX264Test, EveryFrameDecodesInOrderWithKeyFramesOnceASecond) {
  const X264Case& c = GetParam();
  test::EncodedSlotConsumer consumer(u"cap", c.width, c.height);
  auto encoder = CreateVideoEncoder(u"h264.x264");
  ASSERT_NE(encoder, nullptr);
  OptionList options = {"width", std::to_string(c.width), "height", std::to_string(c.height), "fps",
                        std::to_string(c.fps), "shared_name", "cap"};
  options.insert(options.end(), c.options.begin(), c.options.end());
  ASSERT_EQ(encoder->Init(options), 1);
  std::vector<std::byte> sps, pps;
  ASSERT_EQ(encoder->GetParameterSets(sps, pps), 1);
  ASSERT_GT(sps.size(), 8u);
  ASSERT_GT(pps.size(), 4u);
  EXPECT_EQ(nalType(std::span(sps).subspan(4)), kNalTypeSps);
  EXPECT_EQ(nalType(std::span(pps).subspan(4)), kNalTypePps);
  EXPECT_EQ(encoder->GetStreamHeader(), avcConfigurationRecord(std::span(sps).subspan(4), std::span(pps).subspan(4)));

  // Positions as a client's clock gives them, not a frame count: they must come
  // back as they went in.
  std::vector<uint32_t> positions;
  for (uint32_t i = 0; i < c.frames; ++i) {
    positions.push_back(1000 + static_cast<uint32_t>(std::llround(i * 1e6 / c.fps)) + i % 3);
    const std::vector<uint8_t> frame = sourceFrame(c.width, c.height, i);
    ASSERT_EQ(encoder->EncodeFrame(std::as_bytes(std::span(frame)), 1, positions.back()), 1)
        << "an H.264 encoder waits for its slot, it never refuses";
  }
  encoder->Close();
  const std::vector<test::EncodedFrame> taken = consumer.taken(c.frames);
  ASSERT_EQ(taken.size(), c.frames) << "Close delivers every frame the encoder held";

  const uint32_t keyInterval = VidEncoderH264::keyFrameInterval(c.fps);
  for (uint32_t i = 0; i < c.frames; ++i) {
    EXPECT_EQ(taken[i].position, positions[i]) << "frame " << i;
    EXPECT_EQ(taken[i].timed, 1u);
    EXPECT_EQ(taken[i].key, i % keyInterval == 0 ? 1u : 0u) << "frame " << i;
  }

  const auto stream = folder_.path() / "stream.h264";
  test::writeFile(stream, test::annexBStream(sps, pps, taken));
  // Decoded as it comes (full-range 4:2:0), at the coded size: rounded up to even.
  const auto decoded = folder_.path() / "decoded.yuv";
  std::string out;
  ASSERT_EQ(test::runTool(KESTRIUM_FFMPEG, {"-v", "error", "-i", stream.string(), "-f", "rawvideo", decoded.string()},
                          out),
            0)
      << out;
  EXPECT_EQ(out, "") << "ffmpeg complains";
  const uint32_t w = (c.width + 1) & ~1u, h = (c.height + 1) & ~1u;
  const size_t lumaSize = size_t{w} * h, frameSize = lumaSize * 3 / 2;
  const std::vector<char> yuv = test::readBytes(decoded);
  ASSERT_EQ(yuv.size(), c.frames * frameSize) << "every frame decodes, at " << w << "x" << h;
  const uint32_t bandRows = std::min(kBandRows, c.height) - (c.height > kBandRows ? 8 : 0);
  for (uint32_t i = 0; i < c.frames; ++i) {
    const auto* luma = reinterpret_cast<const uint8_t*>(yuv.data() + i * frameSize);
    EXPECT_NEAR(mean(luma, w, 0, 0, c.width, bandRows), bandLevel(i), 8.0) << "frame " << i << " is in its place";
    if (!hasPatches(c.width, c.height)) continue;
    const uint8_t* chroma = luma + lumaSize;
    auto patchChroma = [&](const Patch& p, int which) {
      const uint8_t* plane = chroma + which * lumaSize / 4;
      return mean(plane, w / 2, p.x / 2 + 4, p.y / 2 + 4, p.size / 2 - 8, p.size / 2 - 8);
    };
    EXPECT_GT(patchChroma(kRed, 1), 170) << "red shows red, frame " << i;
    EXPECT_LT(patchChroma(kRed, 0), 110) << "frame " << i;
    EXPECT_GT(patchChroma(kBlue, 0), 170) << "blue shows blue, frame " << i;
  }

  std::string frames;
  ASSERT_EQ(test::runTool(KESTRIUM_FFPROBE,
                          {"-v", "error", "-show_entries", "frame=key_frame,pict_type", "-of", "csv=p=0",
                           stream.string()},
                          frames),
            0)
      << frames;
  std::istringstream lines(frames);
  uint32_t i = 0;
  for (std::string line; std::getline(lines, line) && i < c.frames; ++i) {
    EXPECT_EQ(line.rfind(taken[i].key != 0 ? "1,I" : "0,P", 0), 0u) << "frame " << i << ": " << line;
  }
  EXPECT_EQ(i, c.frames);

  std::string trace;
  ASSERT_EQ(test::runTool(KESTRIUM_FFMPEG, {"-hide_banner", "-i", stream.string(), "-c", "copy", "-bsf:v",
                                           "trace_headers", "-frames:v", "1", "-f", "null", "-"},
                          trace),
            0)
      << trace;
  EXPECT_EQ(traced(trace, "profile_idc"), c.profileIdc) << trace;
  const int64_t value = traced(trace, "bit_rate_value_minus1[0]"), scale = traced(trace, "bit_rate_scale");
  ASSERT_GE(value, 0) << "the SPS carries the rate";
  const uint32_t kbps = static_cast<VidEncoderH264*>(encoder.get())->settings().bitrateKbps;
  EXPECT_NEAR(double((value + 1) << (6 + scale)), kbps * 1000.0, kbps * 10.0) << "bit/s in the SPS";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, VidEncoderX264Test,
    ::testing::Values(
        X264Case{"High642x362", 642, 362, 30000, 40, {"profile", "2", "bitrate", "1500", "threads", "2"}, 100},
        // Zero latency codes each frame in two slices on two threads.
        X264Case{"MainLowLatencySliced642x362",
                 642,
                 362,
                 30000,
                 35,
                 {"profile", "1", "low_latency", "1", "threads", "2", "target_usage", "7"},
                 77},
        X264Case{"Baseline33x17", 33, 17, 30000, 35, {"profile", "0", "threads", "1", "bitrate", "200"}, 66},
        X264Case{"Baseline33x17LowLatency",
                 33,
                 17,
                 30000,
                 32,
                 {"profile", "0", "low_latency", "1", "threads", "2", "target_usage", "1", "bitrate", "200"},
                 66},
        // 29.97 frames a second: an IDR frame every 29 frames, and the default bitrate.
        X264Case{"High29_97", 320, 240, 29970, 62, {"profile", "2", "threads", "2", "bitrate", "0"}, 100}),
    [](const auto& info) { return std::string(info.param.name); });

class VidEncoderX264EdgeTest : public X264Fixture {};

struct BadStart {
  const char* name;
  OptionList options;
  const char* logged;
};
void PrintTo(const BadStart& c, std::ostream* os) { *os << c.name; }

class VidEncoderX264BadStartTest : public VidEncoderX264EdgeTest, public ::testing::WithParamInterface<BadStart> {};

// Options no encoder can work with are refused at Init with their reason, and
// the encoder closes cleanly after.
TEST_P(VidEncoderX264BadStartTest, IsRefusedWithItsReason) {
  auto encoder = CreateVideoEncoder(u"h264.x264");
  ASSERT_NE(encoder, nullptr);
  OptionList options = {"shared_name", "bad", "threads", "1"};
  options.insert(options.end(), GetParam().options.begin(), GetParam().options.end());
  EXPECT_EQ(encoder->Init(options), 0);
  encoder->Close();
  const std::vector<std::byte> frame(48);
  EXPECT_EQ(encoder->EncodeFrame(frame, 1, 0), 0);
  EXPECT_NE(log().find(GetParam().logged), std::string::npos) << log();
}

INSTANTIATE_TEST_SUITE_P(
    Starts, VidEncoderX264BadStartTest,
    ::testing::Values(BadStart{"NegativeHeight", {"width", "4", "height", "-4"}, "Frame size 4x-4 cannot be encoded"},
                      BadStart{"NoFrameRate", {"width", "64", "height", "64", "fps", "0"},
                               "Frame rate 0/1 cannot be encoded"}),
    [](const auto& info) { return std::string(info.param.name); });

// A frame that is not a picture of the capture's size is dropped with one line,
// and the frames around it go on.
TEST_F(VidEncoderX264EdgeTest, SourceOfTheWrongSizeIsDroppedWithALine) {
  test::EncodedSlotConsumer consumer(u"cap", 64, 48);
  auto encoder = CreateVideoEncoder(u"h264.x264");
  ASSERT_EQ(encoder->Init({"width", "64", "height", "48", "threads", "1", "shared_name", "cap"}), 1);
  const std::vector<uint8_t> frame = sourceFrame(64, 48, 0);
  const auto bytes = std::as_bytes(std::span(frame));
  EXPECT_EQ(encoder->EncodeFrame(bytes, 1, 0), 1);
  EXPECT_EQ(encoder->EncodeFrame(bytes.first(bytes.size() - 1), 1, 33), 0);
  EXPECT_EQ(encoder->EncodeFrame(bytes, 1, 67), 1);
  encoder->Close();
  const auto taken = consumer.taken(2);
  ASSERT_EQ(taken.size(), 2u);
  EXPECT_EQ(taken[1].position, 67u);
  EXPECT_EQ(test::countOf(log(), "is not a 64x48 picture"), 1u);
}

// A consumer that stopped taking frames: the recorder's thread, waiting in
// EncodeFrame for the slot, is let go by Close, and Close gives up on the frames
// held after the patience instead of hanging.
TEST_F(VidEncoderX264EdgeTest, CloseEndsAnEncodeFrameStuckBehindAConsumerThatStopped) {
  test::EncodedSlotConsumer consumer(u"cap", 64, 48);
  consumer.hold(true);
  auto encoder = CreateVideoEncoder(u"h264.x264");
  ASSERT_EQ(encoder->Init({"width", "64", "height", "48", "threads", "1", "low_latency", "1", "shared_name", "cap"}), 1);
  const std::vector<uint8_t> frame = sourceFrame(64, 48, 0);
  std::atomic<uint32_t> accepted{0};
  std::atomic<bool> refused{false};
  std::thread feeder([&] {
    for (uint32_t i = 0; i < 10 && !refused; ++i) {
      if (encoder->EncodeFrame(std::as_bytes(std::span(frame)), 1, i) == 1) {
        ++accepted;
      } else {
        refused = true;
      }
    }
  });
  // One frame in the encoded slot, one coded and waiting for it, one in the
  // input slot: then the feeder waits. Both frames the encoder holds are lost.
  const uint64_t until = platform::monotonicNs() + 2'000'000'000ull;
  while (accepted < 3 && platform::monotonicNs() < until) platform::sleepMs(1);
  platform::sleepMs(50);
  EXPECT_EQ(accepted, 3u);
  EXPECT_FALSE(refused);
  encoder->Close();
  feeder.join();
  EXPECT_TRUE(refused) << "EncodeFrame gives up once the encoder closes";
  EXPECT_EQ(consumer.count(), 0u);
  EXPECT_NE(log().find("the encoded slot was not freed for 3000 ms; 2 frames are dropped"), std::string::npos) << log();
}

}  // namespace
}  // namespace kestrium
