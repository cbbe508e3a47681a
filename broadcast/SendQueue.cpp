#include "broadcast/SendQueue.h"

#include <algorithm>

#include "broadcast/FlvTags.h"
#include "recorder/NetworkStream.h"

namespace kestrium {

namespace {

constexpr int kKey = NetworkStream::kKeyFrame;
constexpr int kAudio = NetworkStream::kAudio;
constexpr int kReference = NetworkStream::kReferenceVideo;
constexpr size_t kNone = static_cast<size_t>(-1);

}  // namespace

void InterleaveQueue::push(QueuedFrame frame, bool connected, std::vector<QueuedFrame>& released) {
  const bool key = frame.type == kKey;
  if (!connected) {
    // Until the server is ready only the latest key frame is worth keeping: a
    // stream can start at it and at nothing else.
    if (!key) return;
    entries_.clear();
    entries_.push_back(std::move(frame));
    return;
  }
  if (waitingForFirstFrame_) {
    waitingForFirstFrame_ = false;
    firstTimestamp_ = frame.timestamp;
    if (!key && entries_.size() == 1) {
      // The key frame that waited for the connection opens the stream at 0;
      // the frame that follows it counts from itself, so it is 0 too.
      QueuedFrame waiting = std::move(entries_.front());
      entries_.clear();
      waiting.timestamp = 0;
      released.push_back(std::move(waiting));
    } else {
      entries_.clear();
    }
  }
  if (entries_.size() == kDepth) {
    if (!offsetMeasured_) {
      measureAudioOffset();
      offsetMeasured_ = true;
    }
    released.push_back(std::move(entries_.front()));
    entries_.pop_front();
  }
  frame.timestamp -= firstTimestamp_;
  if (frame.type == kAudio) {
    frame.timestamp -= audioOffset_;
    insertAudio(std::move(frame));
  } else {
    entries_.push_back(std::move(frame));
  }
}

void InterleaveQueue::insertAudio(QueuedFrame frame) {
  const auto at = std::find_if(entries_.begin(), entries_.end(),
                               [&](const QueuedFrame& e) { return after(e.timestamp, frame.timestamp); });
  entries_.insert(at, std::move(frame));
}

void InterleaveQueue::measureAudioOffset() {
  // The audio clock starts elsewhere than the video's: the first audio in the
  // queue sets how far, and every audio frame is moved back by it.
  bool found = false;
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].type != kAudio) continue;
    if (!found) {
      audioOffset_ = entries_[i].timestamp;
      found = true;
    }
    entries_[i].timestamp -= audioOffset_;
    const uint32_t t = entries_[i].timestamp;
    size_t to = 0;
    while (to < i && !after(entries_[to].timestamp, t)) ++to;
    if (to < i) {
      const auto first = entries_.begin() + static_cast<ptrdiff_t>(to);
      const auto from = entries_.begin() + static_cast<ptrdiff_t>(i);
      std::rotate(first, from, from + 1);
    }
  }
}

bool SendQueue::admit(QueuedFrame frame, std::span<const std::byte> streamHeader) {
  const bool key = frame.type == kKey;
  // Nothing can be decoded before the first key frame, not even the sound that
  // would play over nothing.
  if (!firstKeyFrameSent_ && !key) return false;
  if (frame.type == kAudio && !firstAudioSent_) {
    frame.timestamp = 0;
    firstAudioSent_ = true;
  }
  ++counters_.framesSeen;
  if (frame.type != kAudio) ++counters_.videoFramesSeen;
  if (frame.type < minimumPriority_) {
    countDrop(frame.type);
    return false;
  }
  if (frame.type != kAudio) minimumPriority_ = 0;
  if (key && !firstKeyFrameSent_) {
    if (!streamHeader.empty()) flv::insertStreamHeader(frame.block, streamHeader);
    firstKeyFrameSent_ = true;
  }
  bytesQueued_ += frame.block.size();
  frame.distance = entries_.empty() ? kEmptyDistance : entries_.back().distance + 1;
  const uint32_t t = frame.timestamp;
  const auto at = std::find_if(entries_.begin(), entries_.end(), [&](const QueuedFrame& e) { return after(e.timestamp, t); });
  entries_.insert(at, std::move(frame));
  return true;
}

bool SendQueue::applyDropRules(uint32_t now, uint32_t audioOffset) {
  if (entries_.empty() || !after(entries_.front().timestamp, lastDropMark_)) return false;
  // Sound that trails the first picture gives an offset below zero, which as an
  // unsigned widening would push the thresholds past any span and switch the
  // drops off: only sound ahead of the pictures widens them.
  if (static_cast<int32_t>(audioOffset) < 0) audioOffset = 0;
  const uint32_t span = entries_.back().timestamp - entries_.front().timestamp;
  if (span >= kFullDropMs + audioOffset) {
    // Far behind: everything that may go goes, and no further round runs until
    // the frames queued now have left.
    lastDropMark_ = entries_.back().timestamp;
    while (dropOne(false)) {
    }
    return minimumPriority_ > 1;
  }
  if (span >= kPartialDropMs + audioOffset && now - lastPartialDrop_ >= kFullDropMs + audioOffset) {
    while (dropOne(true)) {
    }
    lastPartialDrop_ = now;
  }
  return false;
}

bool SendQueue::dropOne(bool partial) {
  const int highest = partial ? 1 : 2;
  for (int priority = 0; priority <= highest; ++priority) {
    size_t pick = kNone;
    if (priority < kReference) {
      // The frame farthest from the drops made so far, the earliest at a tie,
      // so that the gaps spread over the queue.
      for (size_t i = 0; i < entries_.size(); ++i) {
        if (entries_[i].type <= priority && (pick == kNone || entries_[i].distance > entries_[pick].distance)) pick = i;
      }
    } else {
      // A reference frame just before a key frame takes the fewest frames with
      // it; otherwise the latest one.
      size_t latest = kNone;
      bool passedKey = false;
      for (size_t i = entries_.size(); i-- > 0;) {
        if (entries_[i].type == kKey) {
          passedKey = true;
        } else if (entries_[i].type == kReference) {
          if (latest == kNone) latest = i;
          if (passedKey) {
            pick = i;
            break;
          }
        }
      }
      if (pick == kNone) pick = latest;
    }
    if (pick != kNone) {
      remove(pick);
      return true;
    }
  }
  return false;
}

void SendQueue::remove(size_t index) {
  const int type = entries_[index].type;
  // Each frame's distance becomes its distance from the nearest gap.
  for (size_t k = 1; index + k < entries_.size() && entries_[index + k].distance > k; ++k) {
    entries_[index + k].distance = static_cast<uint32_t>(k);
  }
  for (size_t k = 1; k <= index && entries_[index - k].distance > k; ++k) {
    entries_[index - k].distance = static_cast<uint32_t>(k);
  }
  // Frames that depend on the dropped one: after a reference frame, every
  // video frame up to the next key frame.
  std::vector<size_t> doomed{index};
  bool reachedEnd = true;
  for (size_t j = index + 1; j < entries_.size(); ++j) {
    const int t = entries_[j].type;
    if (t == kAudio) continue;
    if (type >= kReference) {
      if (t == kKey) {
        reachedEnd = false;
        break;
      }
      doomed.push_back(j);
    } else if (t >= type) {
      reachedEnd = false;
      break;
    }
  }
  for (size_t k = doomed.size(); k-- > 0;) {
    const size_t i = doomed[k];
    bytesQueued_ -= entries_[i].block.size();
    countDrop(entries_[i].type);
    entries_.erase(entries_.begin() + static_cast<ptrdiff_t>(i));
  }
  // What depends on the dropped frame may still be on its way: the send stage
  // keeps it out.
  if (reachedEnd) {
    if (type < kReference) {
      minimumPriority_ = std::max(minimumPriority_, type);
    } else {
      minimumPriority_ = kKey;
    }
  }
}

void SendQueue::countDrop(int type) {
  if (type >= kReference) {
    ++counters_.droppedReference;
  } else {
    ++counters_.droppedOther;
  }
}

bool SendQueue::takeFirst(QueuedFrame& frame) {
  if (entries_.empty()) return false;
  frame = std::move(entries_.front());
  entries_.erase(entries_.begin());
  bytesQueued_ -= frame.block.size();
  return true;
}

}  // namespace kestrium
