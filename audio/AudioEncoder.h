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
  // Packets are stamped running on from the block's time by one frame's length
  // for each packet already made from the block, or by count.
  AudioEncoder(int32_t sourceRate, int32_t highestRate, int32_t bitrate, int32_t channels);

  // Called by the codec's constructor once its engine is open (or not), with
  // the engine's frame length. Logs the resampling and sizes the buffers.
  void finishSetup(int32_t frameSamples, WaveFormat format);

  // One whole frame of interleaved PCM at engineRate into out (emptied first);
  // false when the engine cannot take it. out may stay empty: the engine is
  // still holding the sound back.
  virtual bool EncodeFrame(std::span<const int16_t> frame, std::vector<std::byte>& out) = 0;
  // A further packet the last frame of sound completed, into out; false when
  // there is none. An engine that holds sound back can finish two at once.
  virtual bool NextPacket(std::vector<std::byte>& /*out*/) { return false; }
  // True for an engine whose packets do not keep step with the frames it is
  // given (it holds sound back, then hands out several): its packets are
  // stamped by where the n-th frame of sound stood in the blocks it came in.
  virtual bool stampsByCount() const { return false; }
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

  WaveFormat format_;
  int32_t frameSamples_ = 0;
  uint64_t frameDuration_ = 0;  // one frame in units of 10 ns, at the source rate
  std::vector<int16_t> frameBuffer_;
  size_t frameFill_ = 0;  // samples (not frames) gathered in frameBuffer_
  std::vector<int16_t> resampleBuffer_;
  std::vector<std::byte> outBuffer_;
  std::deque<AudioPacket> packets_;
  // For stamps by count: the blocks that may still hold a packet's first
  // sound, by their first frame at the engine's rate.
  struct Block {
    uint64_t start;
    uint32_t timeMs;
  };
  std::deque<Block> blocks_;
  uint64_t received_ = 0;  // frames of sound taken at the engine's rate
  uint64_t emitted_ = 0;   // packets made
};

}  // namespace kestrium
