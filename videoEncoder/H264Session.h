#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kestrium {

// What an H.264 encoder is asked for, decided once by the front from the capture's
// options, the same way for every encoder.
struct H264Settings {
  int32_t width = 0;   // of the picture; the coded picture is rounded up to even
  int32_t height = 0;
  uint32_t rateNum = 30;  // frames per second as a fraction
  uint32_t rateDen = 1;
  uint32_t keyInterval = 30;  // frames from one IDR frame to the next: one second
  int32_t profile = 0;        // 0 Baseline, 1 Main, 2 High; anything else: the encoder's choice
  uint32_t bitrateKbps = 0;   // average, with a one-second buffer
  uint32_t targetUsage = 0;   // 1 best quality .. 7 fastest; 0 the balanced middle
  bool lowLatency = false;    // no frame held back for lookahead
  int32_t threads = 1;        // the encoder's own threads
  bool useHardware = true;    // false: a vendor's software runtime, where it has one
};

// One picture in NV12: a luma plane and a plane of interleaved U, V pairs, of the
// picture's size rounded up to even.
struct Nv12Picture {
  uint8_t* luma = nullptr;
  ptrdiff_t lumaStep = 0;
  uint8_t* chroma = nullptr;
  ptrdiff_t chromaStep = 0;
  int32_t width = 0;
  int32_t height = 0;
};

// Where a session puts each coded frame: an Annex B stream of the frame's NAL
// units, the position its picture came with, and whether it is a key frame.
class CodedFrameSink {
 public:
  virtual ~CodedFrameSink() = default;
  virtual void deliver(std::span<const std::byte> annexB, uint32_t position, bool key) = 0;
};

// One H.264 encoder library behind the front: opened once, then fed pictures on
// one thread. Failures are logged where they happen and reported as false.
class H264Session {
 public:
  virtual ~H264Session() = default;
  // Opens the encoder; headers receives the Annex B stream of its parameter sets
  // (SPS and PPS, and whatever else the library puts there), which the frames do
  // not repeat.
  virtual bool open(const H264Settings& settings, std::vector<std::byte>& headers) = 0;
  // Codes one picture; every frame that comes out goes to the sink (none while
  // the encoder still looks ahead, never more than one).
  virtual bool encode(const Nv12Picture& picture, uint32_t position, CodedFrameSink& sink) = 0;
  // Hands the sink every frame the encoder still holds.
  virtual bool drain(CodedFrameSink& sink) = 0;
};

}  // namespace kestrium
