#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fileOutput/WaveFormat.h"

namespace kestrium {

// The audio graph of a capture as the recorder drives it: sources added at the
// start, then, on every pass of the recorder's thread, one read per track.
// Audio has no thread of its own.
class IAudProcessor {
 public:
  virtual ~IAudProcessor() = default;

  // Non-zero when the device was found and opened.
  virtual int32_t AddSource(std::u16string_view deviceName, int32_t volumePercent, int32_t index) = 0;
  // The number of tracks.
  virtual int32_t GetSourceCount() = 0;
  // Puts an encoder ("aac") behind every track. Returns the samples per frame of
  // the last encoder, 0 if none; extraData receives the AAC configuration word.
  virtual int32_t InitEncoders(const std::u16string& encoderName, int32_t bitrateKbps, uint16_t* extraData) = 0;
  // The format of track index, or null.
  virtual const WaveFormat* GetFormat(int32_t index) = 0;
  virtual int32_t Start() = 0;
  virtual int32_t Stop() = 0;
  // Reads what track index has: bytes of PCM into buffer (grown as needed), 0 for
  // nothing, or a negative number when encoded packets wait, to be taken with
  // GetEncoded. timeMs, when given, receives the time of the data.
  virtual int32_t Read(int32_t index, std::vector<std::byte>& buffer, uint32_t* timeMs, int32_t flush) = 0;
  // The next encoded packet of track index: its size, 0 when none is left.
  virtual int32_t GetEncoded(int32_t index, std::vector<std::byte>& packet, uint32_t* timeMs) = 0;
  // The client's mute mask, handed on every pass.
  virtual void SetMuteMask(int32_t index, uint32_t mask) = 0;
  virtual void SetPaused(int32_t paused) = 0;
  // Throws away what the devices gave so far, at the capture's first picture:
  // the tracks start where the video does.
  virtual void DropPending() = 0;
};

}  // namespace kestrium
