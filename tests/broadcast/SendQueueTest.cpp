// The queues of the broadcast, run without a network: what reaches the send
// stage and with which time stamps, what congestion throws away, and in which
// order, with the clock in the test's hand.

#include "broadcast/SendQueue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "broadcast/FlvTags.h"
#include "recorder/NetworkStream.h"

namespace kestrium {
namespace {

constexpr int kInter = NetworkStream::kVideo;
constexpr int kRef = NetworkStream::kReferenceVideo;
constexpr int kKey = NetworkStream::kKeyFrame;
constexpr int kAudio = NetworkStream::kAudio;

// A frame whose block says which one it is, so that order can be checked.
QueuedFrame frame(uint32_t timestamp, int type, uint8_t tag = 0) {
  std::vector<std::byte> block(flv::kReserved + 5 + 1);
  block.back() = std::byte(tag);
  return QueuedFrame{std::move(block), timestamp, type, 0};
}
uint8_t tagOf(const QueuedFrame& f) { return static_cast<uint8_t>(f.block.back()); }

// --- interleave queue -------------------------------------------------------

struct Interleave {
  InterleaveQueue queue;
  std::vector<QueuedFrame> out;
  void push(uint32_t t, int type, bool connected, uint8_t tag = 0) { queue.push(frame(t, type, tag), connected, out); }
};

TEST(InterleaveQueueTest, BeforeTheConnectionOnlyTheLatestKeyFrameWaits) {
  Interleave q;
  q.push(100, kAudio, false);  // the very first frame may be sound: it is dropped
  q.push(133, kKey, false, 1);
  q.push(166, kInter, false);
  q.push(200, kKey, false, 2);
  q.push(210, kAudio, false);
  ASSERT_EQ(q.queue.size(), 1u);
  EXPECT_EQ(tagOf(q.queue[0]), 2);
  EXPECT_TRUE(q.out.empty());
}

TEST(InterleaveQueueTest, KeyFrameWaitingAtConnectionOpensTheStreamAtZero) {
  Interleave q;
  q.push(5000, kKey, false, 1);
  q.push(5033, kInter, true, 2);  // the connection came up between the two
  ASSERT_EQ(q.out.size(), 1u);
  EXPECT_EQ(tagOf(q.out[0]), 1);
  EXPECT_EQ(q.out[0].timestamp, 0u);
  ASSERT_EQ(q.queue.size(), 1u);
  EXPECT_EQ(q.queue[0].timestamp, 0u);  // counted from itself
}

TEST(InterleaveQueueTest, KeyFrameAtConnectionReplacesTheWaitingOne) {
  Interleave q;
  q.push(5000, kKey, false, 1);
  q.push(5033, kKey, true, 2);
  EXPECT_TRUE(q.out.empty());
  ASSERT_EQ(q.queue.size(), 1u);
  EXPECT_EQ(tagOf(q.queue[0]), 2);
  EXPECT_EQ(q.queue[0].timestamp, 0u);
}

TEST(InterleaveQueueTest, AFrameLeavesAfterNineOthersCame) {
  Interleave q;
  for (uint32_t i = 0; i < 10; ++i) q.push(1000 + 33 * i, i == 0 ? kKey : kInter, true, static_cast<uint8_t>(i));
  EXPECT_TRUE(q.out.empty());
  q.push(1330, kInter, true, 10);
  ASSERT_EQ(q.out.size(), 1u);
  EXPECT_EQ(tagOf(q.out[0]), 0);
  EXPECT_EQ(q.queue.size(), InterleaveQueue::kDepth);
}

TEST(InterleaveQueueTest, AudioIsSortedInAfterVideoOfTheSameTime) {
  Interleave q;
  q.push(0, kKey, true, 1);
  q.push(33, kInter, true, 2);
  q.push(66, kInter, true, 3);
  q.push(33, kAudio, true, 4);  // equal stamps keep their order of arrival
  q.push(10, kAudio, true, 5);
  std::vector<uint8_t> order;
  for (size_t i = 0; i < q.queue.size(); ++i) order.push_back(tagOf(q.queue[i]));
  EXPECT_EQ(order, (std::vector<uint8_t>{1, 5, 2, 4, 3}));
}

TEST(InterleaveQueueTest, AudioOffsetIsMeasuredOnceFromTheFirstAudioInAFullQueue) {
  Interleave q;
  // Video from 1000 ms, audio on a clock that is 300 ms ahead.
  q.push(1000, kKey, true, 1);
  for (uint32_t i = 1; i < 8; ++i) q.push(1000 + 33 * i, kInter, true);
  q.push(1300, kAudio, true, 2);
  q.push(1323, kAudio, true, 3);
  EXPECT_FALSE(q.queue.offsetMeasured());
  q.push(1264, kInter, true);
  ASSERT_TRUE(q.queue.offsetMeasured());
  EXPECT_EQ(q.queue.audioOffset(), 300u);
  // The audio moved back to 0 and 23, right behind the key frame.
  ASSERT_EQ(q.out.size(), 1u);
  EXPECT_EQ(tagOf(q.out[0]), 1);
  EXPECT_EQ(tagOf(q.queue[0]), 2);
  EXPECT_EQ(q.queue[0].timestamp, 0u);
  EXPECT_EQ(tagOf(q.queue[1]), 3);
  EXPECT_EQ(q.queue[1].timestamp, 23u);
  // Later audio has the offset taken off on the way in.
  q.push(1346, kAudio, true, 4);
  bool found = false;
  for (size_t i = 0; i < q.queue.size(); ++i) {
    if (tagOf(q.queue[i]) == 4) {
      found = true;
      EXPECT_EQ(q.queue[i].timestamp, 46u);
      EXPECT_EQ(tagOf(q.queue[i - 1]), 0);  // behind the video frame at 33
    }
  }
  EXPECT_TRUE(found);
}

TEST(InterleaveQueueTest, TimeStampsThatWrapStayInOrder) {
  Interleave q;
  const uint32_t start = 0xFFFFFF00u;
  q.push(start, kKey, true, 1);
  q.push(start + 0x80, kInter, true, 2);
  q.push(start + 0x100, kInter, true, 3);  // wrapped to 0
  q.push(start + 0xF0, kAudio, true, 4);
  std::vector<uint8_t> order;
  for (size_t i = 0; i < q.queue.size(); ++i) order.push_back(tagOf(q.queue[i]));
  EXPECT_EQ(order, (std::vector<uint8_t>{1, 2, 4, 3}));
  EXPECT_EQ(q.queue[3].timestamp, 0x100u);
}

// --- send queue ---------------------------------------------------------------

TEST(SendQueueTest, NothingGoesBeforeTheFirstKeyFrameAndTheFirstAudioIsAtZero) {
  SendQueue q;
  EXPECT_FALSE(q.admit(frame(10, kAudio), {}));
  EXPECT_FALSE(q.admit(frame(20, kInter), {}));
  EXPECT_TRUE(q.admit(frame(33, kKey), {}));
  EXPECT_TRUE(q.admit(frame(40, kAudio), {}));
  EXPECT_TRUE(q.admit(frame(63, kAudio), {}));
  ASSERT_EQ(q.size(), 3u);
  EXPECT_EQ(q[0].timestamp, 0u);  // the first audio
  EXPECT_EQ(q[1].timestamp, 33u);
  EXPECT_EQ(q[2].timestamp, 63u);
  EXPECT_EQ(q.counters().framesSeen, 3u);
  EXPECT_EQ(q.counters().videoFramesSeen, 1u);
}

TEST(SendQueueTest, OnlyTheFirstKeyFrameCarriesTheStreamHeader) {
  SendQueue q;
  const std::vector<std::byte> header(7, std::byte{0x5A});
  ASSERT_TRUE(q.admit(frame(0, kKey), header));
  ASSERT_TRUE(q.admit(frame(33, kKey), header));
  EXPECT_EQ(q[0].block.size(), frame(0, kKey).block.size() + header.size());
  EXPECT_EQ(q[0].block[flv::kReserved + flv::kVideoTagHeader], std::byte{0x5A});
  EXPECT_EQ(q[1].block.size(), frame(0, kKey).block.size());
  EXPECT_EQ(q.bytesQueued(), q[0].block.size() + q[1].block.size());
}

TEST(SendQueueTest, DistancesCountFromTenThousandAndEqualStampsKeepArrivalOrder) {
  SendQueue q;
  q.admit(frame(0, kKey, 1), {});
  q.admit(frame(12, kAudio, 5), {});  // the first audio, at 0: behind the key frame at 0
  q.admit(frame(33, kInter, 2), {});
  q.admit(frame(33, kAudio, 3), {});
  q.admit(frame(20, kAudio, 4), {});
  std::vector<uint8_t> order;
  std::vector<uint32_t> distances;
  for (size_t i = 0; i < q.size(); ++i) {
    order.push_back(tagOf(q[i]));
    distances.push_back(q[i].distance);
  }
  EXPECT_EQ(order, (std::vector<uint8_t>{1, 5, 4, 2, 3}));
  // Each new entry takes the distance of the last entry + 1, wherever it lands.
  EXPECT_EQ(distances, (std::vector<uint32_t>{10000, 10001, 10004, 10002, 10003}));
}

// A queue whose opening key frame and first audio (which goes out at 0,
// whatever its stamp) have already been taken by the send thread.
SendQueue started() {
  SendQueue q;
  q.admit(frame(0, kKey), {});
  q.admit(frame(0, kAudio), {});
  QueuedFrame f;
  while (q.takeFirst(f)) {
  }
  return q;
}

// A key frame at base, then inter frames every 33 ms with audio in between,
// spanning spanMs.
SendQueue congested(uint32_t spanMs, uint32_t base = 1000) {
  SendQueue q = started();
  q.admit(frame(base, kKey, 0), {});
  uint8_t tag = 1;
  for (uint32_t t = 33; t < spanMs; t += 33) {
    q.admit(frame(base + t, kInter, tag++), {});
    if (t + 10 < spanMs) q.admit(frame(base + t + 10, kAudio), {});
  }
  q.admit(frame(base + spanMs, kInter, tag), {});
  return q;
}

size_t countOf(const SendQueue& q, int type) {
  size_t n = 0;
  for (size_t i = 0; i < q.size(); ++i) n += q[i].type == type ? 1 : 0;
  return n;
}

struct SpanCase {
  std::string name;
  uint32_t spanMs;
  uint32_t sinceLastPartialMs;
  uint32_t audioOffset;
  bool dropsInter;
  bool setsMark;
};

class DropRules : public ::testing::TestWithParam<SpanCase> {};

TEST_P(DropRules, ARoundRemovesEveryInterFrameOnceTheSpanIsReached) {
  const SpanCase& c = GetParam();
  SendQueue q = congested(c.spanMs, 1000);
  const size_t audio = countOf(q, kAudio);
  const uint32_t now = 50000;
  q.setLastPartialDrop(now - c.sinceLastPartialMs);
  q.applyDropRules(now, c.audioOffset);
  EXPECT_EQ(countOf(q, kInter) == 0, c.dropsInter);
  EXPECT_EQ(countOf(q, kKey), 1u);  // key frames and sound are never thrown away
  EXPECT_EQ(countOf(q, kAudio), audio);
  EXPECT_EQ(q.lastDropMark() != 0, c.setsMark);
  if (c.dropsInter) {
    EXPECT_EQ(q.counters().droppedOther, c.spanMs / 33 + (c.spanMs % 33 != 0 ? 1 : 0));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Spans, DropRules,
    ::testing::Values(SpanCase{"Span399", 399, 10000, 0, false, false},
                      SpanCase{"Span400Paced", 400, 600, 0, true, false},
                      SpanCase{"Span400TooSoonAfterTheLastRound", 400, 599, 0, false, false},
                      SpanCase{"Span599", 599, 600, 0, true, false},
                      SpanCase{"Span600FullRoundWhateverThePace", 600, 0, 0, true, true},
                      SpanCase{"OffsetWidensTheThresholds", 600, 10000, 250, false, false},
                      SpanCase{"OffsetWidenedFullRound", 850, 0, 250, true, true},
                      // Sound that trails the pictures must not wrap the thresholds away.
                      SpanCase{"SoundBehindThePicturesWidensNothing", 600, 0, uint32_t(-1000), true, true},
                      SpanCase{"SoundBehindThePicturesPartialRound", 400, 600, uint32_t(-450), true, false}),
    [](const auto& info) { return info.param.name; });

TEST(DropRulesTest, TheDropMarkHoldsOffRoundsUntilTheQueuedFramesHaveLeft) {
  SendQueue q = congested(700);
  q.applyDropRules(0, 0);
  const uint32_t mark = q.lastDropMark();
  EXPECT_EQ(mark, 1700u);
  // New frames pile up to a full span again, but the first entry is still
  // before the mark: nothing goes.
  for (uint32_t t = 1733; t <= 2500; t += 33) q.admit(frame(t, kInter), {});
  q.applyDropRules(100000, 0);
  EXPECT_GT(countOf(q, kInter), 20u);
  // Once the send thread has taken the frames up to the mark, rounds run again.
  QueuedFrame f;
  while (q.size() > 0 && !after(q[0].timestamp, mark)) q.takeFirst(f);
  q.applyDropRules(100000, 0);
  EXPECT_EQ(countOf(q, kInter), 0u);
}

TEST(DropRulesTest, TheDropMarkComparesAcrossTheWrapOfTheClock) {
  SendQueue q = congested(700, 0xFFFFFE00u);  // the stamps wrap inside the queue
  q.setLastDropMark(0xFFFFFD00u);
  q.applyDropRules(0, 0);
  EXPECT_EQ(countOf(q, kInter), 0u);
  EXPECT_EQ(q.lastDropMark(), 0xFFFFFE00u + 700u);
}

TEST(DropRulesTest, AReferenceFrameTakesEveryFrameUpToTheNextKeyFrameWithIt) {
  SendQueue q = started();
  q.admit(frame(100, kKey, 0), {});
  q.admit(frame(200, kRef, 1), {});
  q.admit(frame(233, kInter, 2), {});
  q.admit(frame(250, kAudio, 3), {});
  q.admit(frame(266, kRef, 4), {});
  q.admit(frame(300, kKey, 5), {});
  q.admit(frame(333, kRef, 6), {});
  q.admit(frame(366, kInter, 7), {});
  q.admit(frame(800, kAudio, 8), {});
  q.applyDropRules(0, 0);
  std::vector<uint8_t> left;
  for (size_t i = 0; i < q.size(); ++i) left.push_back(tagOf(q[i]));
  // Inter frames go first; then the reference frame before the key frame at 200
  // goes alone, the one before it with what followed, and the last one, with no
  // key frame behind it, leaves the later frames to be kept out.
  EXPECT_EQ(left, (std::vector<uint8_t>{0, 3, 5, 8}));
  EXPECT_EQ(q.counters().droppedReference, 3u);
  EXPECT_EQ(q.counters().droppedOther, 2u);
  EXPECT_EQ(q.minimumPriority(), kKey);
  // Until the next key frame, video is discarded at the door; sound is not.
  EXPECT_FALSE(q.admit(frame(833, kInter), {}));
  EXPECT_FALSE(q.admit(frame(866, kRef), {}));
  EXPECT_TRUE(q.admit(frame(870, kAudio), {}));
  EXPECT_TRUE(q.admit(frame(900, kKey), {}));
  EXPECT_EQ(q.minimumPriority(), 0);
  EXPECT_TRUE(q.admit(frame(933, kInter), {}));
  EXPECT_EQ(q.counters().droppedReference, 4u);
  EXPECT_EQ(q.counters().droppedOther, 3u);
}

}  // namespace
}  // namespace kestrium
