#pragma once

#include <memory>

#include "audio/AudioEncoder.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace kestrium {

// AAC low complexity on libavcodec's native encoder: raw frames of 1024
// samples, the stream's AudioSpecificConfig as the extra data.
class AudioEncoderAAC : public AudioEncoder {
 public:
  static constexpr int32_t kHighestRate = 96000;
  static constexpr int32_t kFrameSamples = 1024;

  AudioEncoderAAC(int32_t sourceRate, int32_t bitrate, int32_t channels, uint32_t channelMask);
  ~AudioEncoderAAC() override;

  uint16_t GetExtraData() override { return configuration_; }

 protected:
  bool EncodeFrame(std::span<const int16_t> frame, std::vector<std::byte>& out) override;
  bool engineOpen() const override { return context_ != nullptr; }

 private:
  struct ContextFree {
    void operator()(AVCodecContext* c) const;
  };
  struct FrameFree {
    void operator()(AVFrame* f) const;
  };
  struct PacketFree {
    void operator()(AVPacket* p) const;
  };

  bool open();
  bool send(std::span<const int16_t> frame);

  std::unique_ptr<AVCodecContext, ContextFree> context_;
  std::unique_ptr<AVFrame, FrameFree> frame_;
  std::unique_ptr<AVPacket, PacketFree> packet_;
  int64_t nextPts_ = 0;
  uint16_t configuration_ = 0;
};

}  // namespace kestrium
