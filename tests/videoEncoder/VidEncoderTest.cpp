#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <vector>

#include "platform/Clock.h"
#include "platform/System.h"
#include "recorder/CaptureObjects.h"
#include "tests/support/TestSupport.h"
#include "tests/videoEncoder/EncodedSlotConsumer.h"
#include "videoEncoder/VidEncoder.h"

namespace kestrium {
namespace {

constexpr uint32_t kPatience = 20000;

// Encodes a frame as its first 8 bytes, after a delay that varies from frame to
// frame, so that workers finish out of order.
class ShuffleEncoder : public VidEncoder {
 public:
  ~ShuffleEncoder() override { StopWorkers(); }

  uint32_t encodedSizeOverride = 0;  // when set, claims that many encoded bytes

 protected:
  void WorkerLoop(EncodeWorker& worker) override {
    while (WaitForWork(worker)) {
      platform::sleepMs((worker.position * 7919u) % 4);
      std::memcpy(worker.encoded.data(), worker.frame.data(), 8);
      worker.encodedSize = encodedSizeOverride != 0 ? encodedSizeOverride : 8;
      DeliverEncoded(worker);
    }
  }
};

using Consumer = test::EncodedSlotConsumer;

// The first 8 bytes of an encoded frame: the payload ShuffleEncoder copies.
uint64_t payload(const test::EncodedFrame& f) {
  uint64_t p = 0;
  std::memcpy(&p, f.bytes.data(), std::min<size_t>(8, f.bytes.size()));
  return p;
}

class VidEncoderTest : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override { platform::setObjectNamespace(test::uniqueNamespace()); }

  std::unique_ptr<ShuffleEncoder> open(int threads) {
    auto encoder = std::make_unique<ShuffleEncoder>();
    EXPECT_EQ(encoder->Init({"width", "64", "height", "64", "threads", std::to_string(threads), "shared_name",
                             "cap"}),
              1);
    return encoder;
  }

  static std::vector<std::byte> frame(uint64_t payload) {
    std::vector<std::byte> f(64 * 64 * 3);
    std::memcpy(f.data(), &payload, 8);
    return f;
  }

  // Offers a frame until a worker takes it.
  static void feed(ShuffleEncoder& encoder, uint32_t position) {
    const auto f = frame(0xF00D0000u + position);
    while (encoder.EncodeFrame(f, position % 2, position) == 0) platform::sleepMs(0);
  }
};

TEST_P(VidEncoderTest, FramesComeOutInTheOrderTheyWereTaken) {
  Consumer consumer(u"cap", 64, 64);
  auto encoder = open(GetParam());
  constexpr uint32_t kFrames = 2000;
  for (uint32_t i = 0; i < kFrames; ++i) feed(*encoder, i);
  encoder->Close();
  const auto taken = consumer.taken(kFrames);
  ASSERT_EQ(taken.size(), kFrames) << "Close delivers every frame it took";
  for (uint32_t i = 0; i < kFrames; ++i) {
    ASSERT_EQ(taken[i].position, i);
    ASSERT_EQ(taken[i].timed, i % 2);
    ASSERT_EQ(taken[i].bytes.size(), 8u);
    ASSERT_EQ(payload(taken[i]), 0xF00D0000u + i);
  }
}

// A consumer that does not free the slot stops the workers; EncodeFrame then
// refuses frames instead of blocking, and no more than a worker's worth of frames
// per thread (plus the one in the slot) is ever held.
TEST_P(VidEncoderTest, SlowConsumerMakesEncodeFrameRefuseWithoutBlocking) {
  const int threads = GetParam();
  Consumer consumer(u"cap", 64, 64);
  consumer.hold(true);
  auto encoder = open(threads);
  uint32_t accepted = 0;
  const uint64_t until = platform::monotonicNs() + uint64_t{kPatience} * 1000000;
  int refusals = 0;
  while (refusals < 200 && platform::monotonicNs() < until) {
    const auto f = frame(0xF00D0000u + accepted);
    if (encoder->EncodeFrame(f, 0, accepted) == 1) {
      ++accepted;
      refusals = 0;
    } else {
      ++refusals;
      platform::sleepMs(1);
    }
  }
  EXPECT_EQ(refusals, 200);
  EXPECT_LE(accepted, static_cast<uint32_t>(threads) + 1);
  EXPECT_GE(accepted, static_cast<uint32_t>(threads));

  consumer.hold(false);
  encoder->Close();
  const auto taken = consumer.taken(accepted);
  ASSERT_EQ(taken.size(), accepted);
  for (uint32_t i = 0; i < accepted; ++i) EXPECT_EQ(taken[i].position, i);
  EXPECT_EQ(encoder->EncodeFrame(frame(1), 0, 99), 0) << "a closed encoder takes nothing";
}

INSTANTIATE_TEST_SUITE_P(Workers, VidEncoderTest, ::testing::Values(1, 2, 3, 8),
                         [](const auto& info) { return std::to_string(info.param) + "Threads"; });

class VidEncoderEdgeTest : public VidEncoderTest {};

TEST_F(VidEncoderEdgeTest, NoThreadsRefusesEveryFrameAndClosesAtOnce) {
  Consumer consumer(u"cap", 64, 64);
  auto encoder = open(0);
  EXPECT_EQ(encoder->EncodeFrame(frame(1), 0, 0), 0);
  encoder->Close();
  EXPECT_EQ(consumer.count(), 0u);
}

TEST_F(VidEncoderEdgeTest, SourceLargerThanAFrameIsRefused) {
  Consumer consumer(u"cap", 64, 64);
  auto encoder = open(1);
  std::vector<std::byte> tooBig(64 * 64 * 3 + 1);
  EXPECT_EQ(encoder->EncodeFrame(tooBig, 0, 0), 0);
  feed(*encoder, 1);
  encoder->Close();
  EXPECT_EQ(consumer.count(), 1u);
}

TEST_F(VidEncoderEdgeTest, EncodedFrameThatDoesNotFitIsDeliveredEmpty) {
  Consumer consumer(u"cap", 64, 64);
  auto encoder = open(1);
  encoder->encodedSizeOverride = static_cast<uint32_t>(encoderBufferSize(64, 64)) + 1;
  feed(*encoder, 5);
  encoder->Close();
  const auto taken = consumer.taken(1);
  ASSERT_EQ(taken.size(), 1u);
  EXPECT_TRUE(taken[0].bytes.empty());
  EXPECT_EQ(taken[0].position, 5u) << "it still holds its place on the grid";
}

// An encoder torn down on an error path, with frames stuck behind a consumer
// that has stopped, still ends its threads.
TEST_F(VidEncoderEdgeTest, DestroyingWithoutCloseEndsTheWorkersEvenWhenStuck) {
  Consumer consumer(u"cap", 64, 64);
  auto encoder = open(4);
  feed(*encoder, 0);
  ASSERT_TRUE(consumer.waitForCount(1));
  consumer.hold(true);
  for (uint32_t i = 1; i < 4; ++i) feed(*encoder, i);
  encoder.reset();
  EXPECT_LE(consumer.count(), 2u);
}

}  // namespace
}  // namespace kestrium
