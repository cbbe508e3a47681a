#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrium {

// What a broadcast takes from the recorder: encoded frames with their time and
// kind, queued and sent by the publisher's own threads.
class NetworkStream {
 public:
  // The kind of a frame, which is also its priority when the line is congested.
  enum FrameType : int {
    kDroppable = 0,
    kVideo = 1,           // a video frame that is not a key frame
    kReferenceVideo = 2,  // known to the queue, not sent by the recorder
    kKeyFrame = 3,
    kAudio = 4,
  };

  virtual ~NetworkStream() = default;

  // Replaces the stored stream header with a copy; an empty one clears it.
  virtual void setStreamHeader(std::span<const std::byte> header) = 0;
  // Wraps one encoded frame for the stream and queues it.
  virtual void sendFrame(std::span<const std::byte> data, uint32_t timestamp, int type) = 0;
  // Fill of the send buffer, in per cent.
  virtual double bufferFill() = 0;
  virtual uint64_t bytesSent() = 0;
  virtual uint32_t framesDropped() = 0;
  virtual uint32_t framesSent() = 0;
};

}  // namespace kestrium
