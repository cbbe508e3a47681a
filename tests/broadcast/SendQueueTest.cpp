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

constexpr int kInter = NetworkStream::kVideo, kRef = NetworkStream::kReferenceVideo;
constexpr int kKey = NetworkStream::kKeyFrame, kAudio = NetworkStream::kAudio;

// A frame whose block says which one it is, so that order can be checked.
QueuedFrame frame(uint32_t timestamp, int type, uint8_t tag = 0) {
  std::vector<std::byte> block(flv::kReserved + 5 + 1);
  block.back() = std::byte(tag);
  return QueuedFrame{std::move(block), timestamp, type, 0};
}
uint8_t tagOf(const QueuedFrame& f) { return static_cast<uint8_t>(f.block.back()); }

// A queue as "tag@time tag@time ...", in its order.
template <typename Queue>
std::string render(const Queue& q) {
  std::string out;
  for (size_t i = 0; i < q.size(); ++i) {
    out += (out.empty() ? "" : " ") + std::to_string(tagOf(q[i])) + "@" + std::to_string(q[i].timestamp);
  }
  return out;
}

// --- interleave queue -------------------------------------------------------

struct Push {
  uint32_t time;
  int type;
  bool connected;
  uint8_t tag;
};
struct InterleaveCase {
  const char* name;
  std::vector<Push> pushes;
  std::string released, queued;
};

class InterleaveTest : public ::testing::TestWithParam<InterleaveCase> {};

TEST_P(InterleaveTest, ReleasesAndQueuesInTimeOrder) {
  InterleaveQueue queue;
  std::vector<QueuedFrame> out;
  for (const Push& p : GetParam().pushes) queue.push(frame(p.time, p.type, p.tag), p.connected, out);
  EXPECT_EQ(render(out), GetParam().released);
  EXPECT_EQ(render(queue), GetParam().queued);
}

constexpr uint32_t kWrap = 0xFFFFFF00u;
INSTANTIATE_TEST_SUITE_P(
    Scripts, InterleaveTest,
    ::testing::Values(
        // Before the connection only the latest key frame waits; a first frame of sound is dropped.
        InterleaveCase{"BeforeTheConnectionOnlyTheLatestKeyFrameWaits",
                       {{100, kAudio, false, 0}, {133, kKey, false, 1}, {166, kInter, false, 0},
                        {200, kKey, false, 2}, {210, kAudio, false, 0}},
                       "", "2@200"},
        // The connection came up between the two: the stream opens at 0, and the next frame counts from itself.
        InterleaveCase{"KeyFrameWaitingAtConnectionOpensTheStreamAtZero",
                       {{5000, kKey, false, 1}, {5033, kInter, true, 2}}, "1@0", "2@0"},
        InterleaveCase{"KeyFrameAtConnectionReplacesTheWaitingOne",
                       {{5000, kKey, false, 1}, {5033, kKey, true, 2}}, "", "2@0"},
        // Equal stamps keep their order of arrival.
        InterleaveCase{"AudioIsSortedInAfterVideoOfTheSameTime",
                       {{0, kKey, true, 1}, {33, kInter, true, 2}, {66, kInter, true, 3}, {33, kAudio, true, 4},
                        {10, kAudio, true, 5}},
                       "", "1@0 5@10 2@33 4@33 3@66"},
        InterleaveCase{"TimeStampsThatWrapStayInOrder",
                       {{kWrap, kKey, true, 1}, {kWrap + 0x80, kInter, true, 2}, {kWrap + 0x100, kInter, true, 3},
                        {kWrap + 0xF0, kAudio, true, 4}},
                       "", "1@0 2@128 4@240 3@256"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(InterleaveQueueTest, AFrameLeavesAfterNineOthersCame) {
  InterleaveQueue q;
  std::vector<QueuedFrame> out;
  for (uint8_t i = 0; i < 10; ++i) q.push(frame(1000 + 33 * i, i == 0 ? kKey : kInter, i), true, out);
  EXPECT_TRUE(out.empty());
  q.push(frame(1330, kInter, 10), true, out);
  EXPECT_EQ(render(out), "0@0");
  EXPECT_EQ(q.size(), InterleaveQueue::kDepth);
}

TEST(InterleaveQueueTest, AudioOffsetIsMeasuredOnceFromTheFirstAudioInAFullQueue) {
  InterleaveQueue q;
  std::vector<QueuedFrame> out;
  // Video from 1000 ms, audio on a clock that is 300 ms ahead.
  q.push(frame(1000, kKey, 1), true, out);
  for (uint32_t i = 1; i < 8; ++i) q.push(frame(1000 + 33 * i, kInter), true, out);
  q.push(frame(1300, kAudio, 2), true, out);
  q.push(frame(1323, kAudio, 3), true, out);
  EXPECT_FALSE(q.offsetMeasured());
  q.push(frame(1264, kInter), true, out);
  ASSERT_TRUE(q.offsetMeasured());
  EXPECT_EQ(q.audioOffset(), 300u);
  // The audio moved back to 0 and 23, right behind the key frame; later audio
  // has the offset taken off on the way in (46, behind the video frame at 33).
  EXPECT_EQ(render(out), "1@0");
  EXPECT_EQ(render(q).substr(0, 9), "2@0 3@23 ");
  q.push(frame(1346, kAudio, 4), true, out);
  EXPECT_NE(render(q).find(" 0@33 4@46 "), std::string::npos) << render(q);
}

// --- send queue ---------------------------------------------------------------

TEST(SendQueueTest, NothingGoesBeforeTheFirstKeyFrameAndTheFirstAudioIsAtZero) {
  SendQueue q;
  EXPECT_FALSE(q.admit(frame(10, kAudio), {}));
  EXPECT_FALSE(q.admit(frame(20, kInter), {}));
  for (const auto& [t, type] : {std::pair{33u, kKey}, {40u, kAudio}, {63u, kAudio}}) {
    EXPECT_TRUE(q.admit(frame(t, type), {}));
  }
  EXPECT_EQ(render(q), "0@0 0@33 0@63");  // the first audio at 0
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
  // The first audio goes at 0: behind the key frame at 0.
  for (const auto& [t, type, tag] : {std::tuple{0u, kKey, 1}, {12u, kAudio, 5}, {33u, kInter, 2}, {33u, kAudio, 3},
                                     {20u, kAudio, 4}}) {
    q.admit(frame(t, type, static_cast<uint8_t>(tag)), {});
  }
  EXPECT_EQ(render(q), "1@0 5@0 4@20 2@33 3@33");
  // Each new entry takes the distance of the last entry + 1, wherever it lands.
  std::vector<uint32_t> distances;
  for (size_t i = 0; i < q.size(); ++i) distances.push_back(q[i].distance);
  EXPECT_EQ(distances, (std::vector<uint32_t>{10000, 10001, 10004, 10002, 10003}));
}

// A queue whose opening key frame and first audio (which goes out at 0,
// whatever its stamp) the send thread has taken, then a key frame at base and
// inter frames every 33 ms with audio in between, spanning spanMs.
SendQueue congested(uint32_t spanMs, uint32_t base = 1000) {
  SendQueue q;
  q.admit(frame(0, kKey), {});
  q.admit(frame(0, kAudio), {});
  for (QueuedFrame f; q.takeFirst(f);) {
  }
  if (spanMs == 0) return q;
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
  uint32_t spanMs, sinceLastPartialMs, audioOffset;
  bool dropsInter, setsMark;
};

class DropRules : public ::testing::TestWithParam<SpanCase> {};

TEST_P(DropRules, ARoundRemovesEveryInterFrameOnceTheSpanIsReached) {
  const SpanCase& c = GetParam();
  SendQueue q = congested(c.spanMs, 1000);
  const size_t audio = countOf(q, kAudio);
  q.setLastPartialDrop(50000 - c.sinceLastPartialMs);
  q.applyDropRules(50000, c.audioOffset);
  EXPECT_EQ(countOf(q, kInter) == 0, c.dropsInter);
  EXPECT_EQ(countOf(q, kKey), 1u);  // key frames and sound are never thrown away
  EXPECT_EQ(countOf(q, kAudio), audio);
  EXPECT_EQ(q.lastDropMark() != 0, c.setsMark);
  if (c.dropsInter) {
    EXPECT_EQ(q.counters().droppedOther, (c.spanMs + 32) / 33);
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
  for (QueuedFrame f; q.size() > 0 && !after(q[0].timestamp, mark);) q.takeFirst(f);
  q.applyDropRules(100000, 0);
  EXPECT_EQ(countOf(q, kInter), 0u);

  SendQueue wrapped = congested(700, 0xFFFFFE00u);  // the stamps wrap inside the queue
  wrapped.setLastDropMark(0xFFFFFD00u);
  wrapped.applyDropRules(0, 0);
  EXPECT_EQ(countOf(wrapped, kInter), 0u);
  EXPECT_EQ(wrapped.lastDropMark(), 0xFFFFFE00u + 700u);
}

TEST(DropRulesTest, AReferenceFrameTakesEveryFrameUpToTheNextKeyFrameWithIt) {
  SendQueue q = congested(0);
  for (const auto& [t, type, tag] : {std::tuple{100u, kKey, 0}, {200u, kRef, 1}, {233u, kInter, 2}, {250u, kAudio, 3},
                                     {266u, kRef, 4}, {300u, kKey, 5}, {333u, kRef, 6}, {366u, kInter, 7},
                                     {800u, kAudio, 8}}) {
    q.admit(frame(t, type, static_cast<uint8_t>(tag)), {});
  }
  q.applyDropRules(0, 0);
  // Inter frames go first; then the reference frame before the key frame at 200
  // goes alone, the one before it with what followed, and the last one, with no
  // key frame behind it, leaves the later frames to be kept out.
  EXPECT_EQ(render(q), "0@100 3@250 5@300 8@800");
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
