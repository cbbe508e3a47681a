#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "recorder/BroadcastInfo.h"

namespace kestrium::flv {

// Every body that goes to librtmp lies behind this many spare bytes, where the
// library writes its chunk header in place instead of copying the body.
inline constexpr size_t kReserved = 18;

// The five bytes in front of a video frame, and the two in front of audio.
inline constexpr size_t kVideoTagHeader = 5;
inline constexpr size_t kAudioTagHeader = 2;

// The body of a block (what follows the reserved bytes).
inline std::span<const std::byte> bodyOf(std::span<const std::byte> block) {
  return block.size() < kReserved ? std::span<const std::byte>{} : block.subspan(kReserved);
}

// "@setDataFrame" "onMetaData" and the stream's facts as an AMF0 object. Empty
// (with the log line) when the channel count is not one a player knows.
std::vector<std::byte> metadataBlock(const BroadcastInfo& info);

// The AAC sequence header: its AudioSpecificConfig, the two bytes of the word as
// they lie in memory (low byte first), which is how the encoder gave them.
std::vector<std::byte> audioHeaderBlock(uint16_t aacConfiguration);

// The AVC sequence header (an AVCDecoderConfigurationRecord behind its tag
// header) from parameter sets that each begin with a four-byte start code.
std::vector<std::byte> avcConfigurationBlock(std::span<const std::byte> sps, std::span<const std::byte> pps);

// A video frame of length-prefixed NAL units, behind its tag header.
std::vector<std::byte> videoFrameBlock(std::span<const std::byte> frame, bool keyFrame);

// A raw AAC frame behind its tag header.
std::vector<std::byte> audioFrameBlock(std::span<const std::byte> frame);

// Puts the stream header right behind the tag header of a video block. False
// when the block is too short to have one.
bool insertStreamHeader(std::vector<std::byte>& videoBlock, std::span<const std::byte> header);

}  // namespace kestrium::flv
