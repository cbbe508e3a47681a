#pragma once

#include <memory>

#include "videoEncoder/H264Session.h"

struct x264_t;

namespace kestrium {

// H.264 in software on libx264, for any machine without an encoder in its
// graphics hardware. The settings map as they do on the hardware encoders:
// profile 0/1/2 to Baseline/Main/High, the bitrate as an average with a
// one-second buffer (signalled in the SPS), target usage 1..7 to the presets from
// "fast" to "ultrafast", low latency to the zero-latency tune. One IDR frame a
// second and nowhere else, no B-frames (MP4 and FLV here carry no composition
// offsets), parameter sets only in the headers.
class X264Session : public H264Session {
 public:
  X264Session();
  ~X264Session() override;

  bool open(const H264Settings& settings, std::vector<std::byte>& headers) override;
  bool encode(const Nv12Picture& picture, uint32_t position, CodedFrameSink& sink) override;
  bool drain(CodedFrameSink& sink) override;

  // The preset of a target usage: 1 the slowest and best, 7 the fastest; 0 and
  // anything unknown the middle.
  static const char* presetFor(uint32_t targetUsage);
  static const char* profileName(int32_t profile);

 private:
  struct Closer {
    void operator()(x264_t* encoder) const;
  };
  std::unique_ptr<x264_t, Closer> encoder_;
  int64_t pictures_ = 0;  // the time stamps x264 sees: strictly rising, whatever the client sends
};

}  // namespace kestrium
