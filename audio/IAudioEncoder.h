#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "fileOutput/WaveFormat.h"

namespace kestrium {

// An audio encoder: takes blocks of interleaved 16-bit PCM of any length,
// gathers them into codec frames and queues each compressed frame as a packet
// with its time, for the recorder to collect.
class IAudioEncoder {
 public:
  virtual ~IAudioEncoder() = default;

  // Always 1: a block the engine cannot take yields no packets, never a failure.
  virtual int32_t Encode(const void* pcm, uint32_t bytes, uint32_t timeMs) = 0;
  // The oldest packet, moved into data: its size, or 0 (and nothing touched)
  // when the queue is empty.
  virtual int32_t GetPacket(std::vector<std::byte>& data, uint32_t* timeMs) = 0;
  // The compressed stream's wave format record, as the output stores it.
  virtual const WaveFormat* GetFormat() = 0;
  // PCM frames of each channel in one codec frame.
  virtual int32_t GetFrameSamples() = 0;
  // The codec's two configuration bytes in memory order, 0 when it has none.
  virtual uint16_t GetExtraData() { return 0; }
};

// "aac" gives the AAC encoder, any other name the MP3 encoder. Null only when
// this build has no encoders at all (the Windows builds); an engine that will
// not open still gives an encoder, which logs why and makes no packets.
std::unique_ptr<IAudioEncoder> CreateAudioEncoder(std::u16string_view name, int32_t sourceRate, int32_t bitrate,
                                                  int32_t channels, uint32_t channelMask);

}  // namespace kestrium
