#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

namespace kestrium {

// One frame on its way to the server: its block (reserved bytes, then the FLV
// body), its time stamp in milliseconds and its kind (NetworkStream::FrameType).
struct QueuedFrame {
  std::vector<std::byte> block;
  uint32_t timestamp = 0;
  int type = 0;
  uint32_t distance = 0;  // in the send queue: how far from the nearest drop
};

// Time stamps are unsigned 32-bit milliseconds that wrap after 49.7 days: a is
// after b when the difference, taken modulo 2^32, is a positive half-range value.
inline bool after(uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b) > 0; }

// Sorts audio into the video by time stamp before anything is sent. Audio and
// video come from different clocks and the audio arrives in bursts; holding the
// last ten frames is enough to hand the server monotonic time stamps. Used by
// the recorder's thread alone.
class InterleaveQueue {
 public:
  static constexpr size_t kDepth = 10;

  // Takes one frame (its time stamp as the recorder gave it) and appends to
  // released the frames that leave for the send stage, in order, with their
  // time stamps relative to the first frame after the connection.
  void push(QueuedFrame frame, bool connected, std::vector<QueuedFrame>& released);
  void clear() { entries_.clear(); }

  size_t size() const { return entries_.size(); }
  const QueuedFrame& operator[](size_t i) const { return entries_[i]; }
  uint32_t audioOffset() const { return audioOffset_; }
  bool offsetMeasured() const { return offsetMeasured_; }

 private:
  void measureAudioOffset();
  void insertAudio(QueuedFrame frame);

  std::deque<QueuedFrame> entries_;
  uint32_t firstTimestamp_ = 0;
  uint32_t audioOffset_ = 0;
  bool offsetMeasured_ = false;
  bool waitingForFirstFrame_ = true;
};

// The frames that wait for the send thread, sorted by time stamp, and the rules
// by which they are thrown away when the network cannot keep up: the queue's
// span in time says how far behind the link is. Not locked: its owner holds
// the send queue lock around every call.
class SendQueue {
 public:
  static constexpr uint32_t kFullDropMs = 600;
  static constexpr uint32_t kPartialDropMs = 400;
  static constexpr uint32_t kEmptyDistance = 10000;

  struct Counters {
    uint32_t framesSeen = 0;
    uint32_t videoFramesSeen = 0;
    uint32_t droppedReference = 0;  // type 2 and above
    uint32_t droppedOther = 0;      // under type 2
  };

  // The send stage after the connection came up: throws away what cannot be
  // sent yet (anything before the first key frame, frames under the minimum
  // priority), puts the stream header in front of the first key frame, and
  // inserts the rest by time stamp. False when the frame was discarded.
  bool admit(QueuedFrame frame, std::span<const std::byte> streamHeader);

  // Runs the drop rules on the queue as it stands: now is a millisecond clock
  // that paces the partial rounds, audioOffset widens the thresholds by what the
  // audio was shifted. True when a full round left the minimum priority above 1
  // (dependent frames were dropped and a key frame would help).
  bool applyDropRules(uint32_t now, uint32_t audioOffset);

  // The first frame for the send thread; false when the queue is empty.
  bool takeFirst(QueuedFrame& frame);

  bool empty() const { return entries_.empty(); }
  size_t size() const { return entries_.size(); }
  const QueuedFrame& operator[](size_t i) const { return entries_[i]; }
  uint64_t bytesQueued() const { return bytesQueued_; }
  int minimumPriority() const { return minimumPriority_; }
  const Counters& counters() const { return counters_; }
  uint32_t lastDropMark() const { return lastDropMark_; }

  // For tests that start from a given state.
  void setLastDropMark(uint32_t mark) { lastDropMark_ = mark; }
  void setLastPartialDrop(uint32_t time) { lastPartialDrop_ = time; }

 private:
  bool dropOne(bool partial);
  void remove(size_t index);
  void countDrop(int type);

  std::vector<QueuedFrame> entries_;
  uint64_t bytesQueued_ = 0;
  int minimumPriority_ = 0;
  bool firstKeyFrameSent_ = false;
  bool firstAudioSent_ = false;
  uint32_t lastDropMark_ = 0;
  uint32_t lastPartialDrop_ = 0;
  Counters counters_;
};

}  // namespace kestrium
