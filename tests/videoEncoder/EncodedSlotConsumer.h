#pragma once

// The recorder's side of a capture's encoded slot, for the encoder suites: a
// thread that copies every encoded frame out with its words and frees the slot,
// unless held back.

#include <atomic>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/Clock.h"
#include "platform/Thread.h"
#include "platform/Wait.h"
#include "recorder/CaptureObjects.h"

namespace kestrium::test {

struct EncodedFrame {
  uint32_t timed = 0;
  uint32_t position = 0;
  uint32_t key = 0;
  std::vector<uint8_t> bytes;
};

class EncodedSlotConsumer {
 public:
  static constexpr uint32_t kPatienceMs = 20000;

  // Opens the slot with the size an encoder of that size gets at least; the
  // encoder, which makes it, may give it more.
  EncodedSlotConsumer(const std::u16string& session, uint32_t width, uint32_t height) : objects_(session) {
    objects_.openNewEncoded();
    objects_.openCommonData();
    objects_.openEncoderBuffer(encoderBufferSize(width, height));
    stop_.create({}, true);
    // The client's duty: the slot starts free.
    storeShared(objects_.common()->encodedFree, 1u);
    thread_.start([this] { run(); });
  }
  ~EncodedSlotConsumer() {
    stop_.set();
    thread_.join(kPatienceMs);
  }
  EncodedSlotConsumer(const EncodedSlotConsumer&) = delete;
  EncodedSlotConsumer& operator=(const EncodedSlotConsumer&) = delete;

  // A held consumer leaves frames in the slot, as a client that stopped would.
  void hold(bool on) { held_ = on; }

  // What the consumer has copied out, once it holds at least expected frames
  // (an encoder's Close returns when the last frame is in the slot, which this
  // thread then still has to take) or the patience is over.
  std::vector<EncodedFrame> taken(size_t expected = 0) {
    waitForCount(expected);
    std::lock_guard guard(mutex_);
    return taken_;
  }
  size_t count() {
    std::lock_guard guard(mutex_);
    return taken_.size();
  }
  bool waitForCount(size_t n) {
    const uint64_t until = platform::monotonicNs() + uint64_t{kPatienceMs} * 1000000;
    while (count() < n) {
      if (platform::monotonicNs() > until) return false;
      platform::sleepMs(1);
    }
    return true;
  }

 private:
  void run() {
    platform::Event* events[] = {&stop_, &objects_.newEncoded};
    // Only a frame announced by the event is whole: the encoder clears the free
    // word before it writes. One announced while held waits for the release.
    bool announced = false;
    for (;;) {
      const uint32_t woken = platform::waitAny(events, 5);
      if (woken == 0) return;
      if (woken == 1) announced = true;
      CommonData* common = objects_.common();
      if (!announced || held_ || loadShared(common->encodedFree) != 0) continue;
      announced = false;
      const auto* data = reinterpret_cast<const uint8_t*>(objects_.encoderBuffer.view());
      EncodedFrame frame{common->encodedTimed, common->encodedPosition, common->encodedKey,
                         std::vector<uint8_t>(data, data + common->encodedSize)};
      {
        std::lock_guard guard(mutex_);
        taken_.push_back(std::move(frame));
      }
      storeShared(common->encodedFree, 1u);
    }
  }

  CaptureObjects objects_;
  platform::Event stop_;
  platform::Thread thread_;
  std::atomic<bool> held_{false};
  std::mutex mutex_;
  std::vector<EncodedFrame> taken_;
};

}  // namespace kestrium::test
