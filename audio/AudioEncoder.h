#pragma once

#include <deque>
#include <span>

#include "audio/IAudioEncoder.h"

namespace kestrium {

// What the AAC and MP3 encoders share: the packet queue, the gathering of PCM
// into whole codec frames, and the drop-sample step that brings a source rate
// above the codec's highest down to it.
class AudioEncoder : public IAudioEncoder {
 public:
  int32_t Encode(const void* pcm, uint32_t bytes, uint32_t timeMs) final;
  int32_t GetPacket(std::vector<std::byte>& data, uint32_t* timeMs) final;
  const WaveFormat* GetFormat() final { return &format_; }
  int32_t GetFrameSamples() final { return frameSamples_; }

  int32_t engineRate() const { return engineRate_; }

 protected:
  // How packets are stamped: running on from the block's time by one frame's
  // length for each frame already made from the block (AAC), or all with the
  // block's time (MP3).
  enum class Stamps { Running, BlockTime };

  AudioEncoder(int32_t sourceRate, int32_t highestRate, int32_t bitrate, int32_t channels, Stamps stamps);

  // Called by the codec's constructor once its engine is open (or not), with
  // the engine's frame length. Logs the resampling and sizes the buffers.
  void finishSetup(int32_t frameSamples, WaveFormat format);

  // One whole frame of interleaved PCM at engineRate into out (emptied first);
  // false when the engine cannot take it. out may stay empty: the engine is
  // still holding the sound back.
  virtual bool EncodeFrame(std::span<const int16_t> frame, std::vector<std::byte>& out) = 0;
  virtual bool engineOpen() const = 0;

  const int32_t sourceRate_;
  const int32_t engineRate_;
  const int32_t bitrate_;
  const int32_t channels_;

 private:
  struct AudioPacket {
    std::vector<std::byte> data;
    uint32_t timeMs;
  };

  std::span<const int16_t> resample(std::span<const int16_t> input);

  const Stamps stamps_;
  WaveFormat format_;
  int32_t frameSamples_ = 0;
  uint64_t frameDuration_ = 0;  // one frame in units of 10 ns, at the source rate
  std::vector<int16_t> frameBuffer_;
  size_t frameFill_ = 0;  // samples (not frames) gathered in frameBuffer_
  std::vector<int16_t> resampleBuffer_;
  std::vector<std::byte> outBuffer_;
  std::deque<AudioPacket> packets_;
};

}  // namespace kestrium
