#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <vector>

#include "codecs/ColorConvert.h"
#include "codecs/Tmb2.h"
#include "platform/Clock.h"
#include "platform/System.h"
#include "platform/Thread.h"
#include "platform/Wait.h"
#include "recorder/CaptureObjects.h"
#include "tests/codecs/CodecTestSupport.h"
#include "tests/support/TestSupport.h"
#include "tests/videoEncoder/EncodedSlotConsumer.h"
#include "videoEncoder/VidEncoderFast.h"

namespace kestrium {
namespace {

constexpr uint32_t kPatience = 20000;

using Consumer = test::EncodedSlotConsumer;

std::unique_ptr<IVidEncoder> openFast(uint32_t width, uint32_t height, int threads) {
  auto encoder = CreateVideoEncoder(u"fast");
  EXPECT_NE(dynamic_cast<VidEncoderFast*>(encoder.get()), nullptr);
  EXPECT_EQ(encoder->Init({"width", std::to_string(width), "height", std::to_string(height), "threads",
                           std::to_string(threads), "shared_name", "cap"}),
            1);
  return encoder;
}

struct Case {
  uint32_t width;
  uint32_t height;
  int threads;
};
void PrintTo(const Case& c, std::ostream* os) { *os << c.width << "x" << c.height << ", " << c.threads << " threads"; }

class VidEncoderFastTest : public ::testing::TestWithParam<Case> {
 protected:
  void SetUp() override { platform::setObjectNamespace(test::uniqueNamespace()); }
};

// Frames go in bottom-up and blue first, as the client sends them for "fast",
// every third one noise (as large as a frame gets), to workers that code them
// side by side; each comes out as a TMB2 frame that decodes to exactly the conversion of the
// frame as it stands, in the order the frames were taken.
TEST_P(VidEncoderFastTest, EveryFrameDecodesToTheConversionOfItsSource) {
  const auto [w, h, threads] = GetParam();
  Consumer consumer(u"cap", w, h);
  auto encoder = openFast(w, h, threads);
  constexpr uint32_t kFrames = 12;
  std::vector<std::vector<uint8_t>> sources;
  for (uint32_t i = 0; i < kFrames; ++i) {
    sources.push_back(test::picture(i % 3 == 0 ? test::Picture::Noise : test::Picture::Game, w, h, i));
    const std::span<const std::byte> frame = std::as_bytes(std::span(sources.back()));
    const uint64_t until = platform::monotonicNs() + uint64_t{kPatience} * 1000000;
    while (encoder->EncodeFrame(frame, 0, 100 + i) == 0) {
      ASSERT_LT(platform::monotonicNs(), until) << "no worker took frame " << i;
      platform::sleepMs(1);
    }
  }
  encoder->Close();

  const std::vector<test::EncodedFrame> taken = consumer.taken(kFrames);
  ASSERT_EQ(taken.size(), kFrames);
  const tmb2::FrameLayout layout = tmb2::frameLayout(w, h);
  std::vector<uint8_t> planes(layout.planesSize), expected(layout.planesSize), residuals(size_t(w) * h);
  for (uint32_t i = 0; i < kFrames; ++i) {
    ASSERT_EQ(taken[i].position, 100 + i) << "frame " << i << " of " << taken[i].bytes.size() << " bytes";
    std::string error;
    ASSERT_TRUE(tmb2::decodeFrame(taken[i].bytes.data(), taken[i].bytes.size(), w, h, planes.data(),
                                  residuals.data(), error))
        << "frame " << i << ": " << error;
    std::fill(expected.begin(), expected.end(), uint8_t{0});
    uint8_t* targets[3] = {expected.data(), expected.data() + layout.planes[1].offset,
                           expected.data() + layout.planes[2].offset};
    rgbToYuv420(sources[i].data(), targets, static_cast<int32_t>(w), static_cast<int32_t>(h));
    for (const tmb2::PlaneLayout& p : layout.planes) {
      ASSERT_EQ(0, std::memcmp(planes.data() + p.offset, expected.data() + p.offset, p.width * p.height))
          << "frame " << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, VidEncoderFastTest,
                         // Sizes where the headers and code tables outweigh the pixels, odd
                         // ones with a last column and row of their own in the chroma.
                         ::testing::Values(Case{1, 1, 2}, Case{17, 9, 2}, Case{37, 21, 2}, Case{64, 48, 1},
                                           Case{320, 240, 3}, Case{642, 362, 2}, Case{1920, 1080, 2}),
                         [](const auto& info) {
                           return std::to_string(info.param.width) + "x" + std::to_string(info.param.height) + "_" +
                                  std::to_string(info.param.threads) + "Threads";
                         });

}  // namespace
}  // namespace kestrium
