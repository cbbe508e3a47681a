#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace kestrium {

// AAC low complexity as this system writes it: the rates it takes, the two-byte
// AudioSpecificConfig that describes a stream, and the 7-byte ADTS header that
// lets a bare stream of frames play on its own.
namespace aac {

constexpr uint16_t kWaveFormatTag = 0x1610;
constexpr uint8_t kObjectTypeLC = 2;
constexpr size_t kAdtsHeaderBytes = 7;
// The largest frame an ADTS header can describe (13 bits of length).
constexpr size_t kAdtsMaxFrameBytes = 0x1FFF;

// Sampling frequency indices 0 to 11. 7350 Hz (index 12) is left out: no
// capture device runs at it and the recorder does not take it.
constexpr std::array<uint32_t, 12> kRates = {96000, 88200, 64000, 48000, 44100, 32000,
                                             24000, 22050, 16000, 12000, 11025, 8000};

constexpr std::optional<uint8_t> rateIndex(uint32_t rate) {
  for (size_t i = 0; i < kRates.size(); ++i) {
    if (kRates[i] == rate) return static_cast<uint8_t>(i);
  }
  return std::nullopt;
}

// The AudioSpecificConfig bytes: 5 bits object type, 4 bits rate index, 4 bits
// channel configuration, 3 zero bits.
constexpr std::array<uint8_t, 2> specificConfig(uint8_t rateIndex, uint8_t channels) {
  return {static_cast<uint8_t>((kObjectTypeLC << 3) | (rateIndex >> 1)),
          static_cast<uint8_t>(((rateIndex & 1) << 7) | ((channels & 0xF) << 3))};
}

// The ADTS header of one raw frame of payloadBytes: MPEG-4, no CRC, one raw
// data block. Channel configuration 7 stands for eight channels.
constexpr std::array<uint8_t, kAdtsHeaderBytes> adtsHeader(uint8_t rateIndex, uint8_t channels, size_t payloadBytes) {
  const uint8_t configuration = channels == 8 ? 7 : channels;
  const size_t length = payloadBytes + kAdtsHeaderBytes;
  return {0xFF,
          0xF1,
          static_cast<uint8_t>(((kObjectTypeLC - 1) << 6) | (rateIndex << 2) | ((configuration >> 2) & 1)),
          static_cast<uint8_t>(((configuration & 3) << 6) | ((length >> 11) & 3)),
          static_cast<uint8_t>((length >> 3) & 0xFF),
          static_cast<uint8_t>(((length & 7) << 5) | 0x1F),
          0xFC};
}

}  // namespace aac
}  // namespace kestrium
