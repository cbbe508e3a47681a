#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "recorder/NetworkStream.h"

namespace kestrium {

// The broadcast output: takes the recorder's encoded H.264 and AAC frames and
// publishes them to an RTMP server. It never blocks the recorder on the
// network. Frames pass three stages: an interleave queue that sorts audio into
// the video, a send queue on which frames are dropped when the link falls
// behind, and a byte buffer under librtmp that a socket thread drains. It
// connects on the first frame, in a thread of its own, and never reconnects:
// a lost connection is logged and the capture goes on without it.
class RTMPPublisher final : public NetworkStream {
 public:
  struct Settings {
    // Nagle's algorithm stays on by default: fewer, fuller packets on a slow
    // uplink. Turned off only to measure what it costs.
    bool noDelay = false;
    // How long the end of a broadcast waits for the server to take the last
    // bytes and to close its side.
    uint32_t closeWaitMs = 2000;
  };

  RTMPPublisher();
  explicit RTMPPublisher(Settings settings);
  ~RTMPPublisher() override;
  RTMPPublisher(const RTMPPublisher&) = delete;
  RTMPPublisher& operator=(const RTMPPublisher&) = delete;

  void setStreamHeader(std::span<const std::byte> header) override;
  void sendFrame(std::span<const std::byte> data, uint32_t timestamp, int type) override;
  double bufferFill() override;
  uint64_t bytesSent() override;
  uint32_t framesDropped() override;
  uint32_t framesSent() override;

  // The interleave stage for a finished block (reserved bytes, then the body).
  void queueFrame(std::vector<std::byte> block, uint32_t timestamp, int type);
  // Opening packets, the drop rules, and a wake-up for the send thread.
  void serviceQueue();
  void clearInterleaveQueue();
  // A request for a key frame soon: no encoder takes one, so it does nothing.
  void wantKeyFrame(uint32_t milliseconds);

  // True once the stream is up (the server said publish may start).
  bool connected() const;
  // True once the connection failed for good, or the publisher is stopping.
  bool stopping() const;
  // Milliseconds from the start of the connection to the server's go-ahead to
  // publish, and to the first media packet handed to the socket (which waits
  // for the interleave queue to fill too); 0 until then.
  uint32_t connectToPublishMs() const;
  uint32_t connectToFirstPacketMs() const;

  struct Core;

 private:
  std::unique_ptr<Core> core_;
};

}  // namespace kestrium
