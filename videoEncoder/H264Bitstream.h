#pragma once

// The H.264 byte formats every H.264 encoder of the server deals in. Encoders
// give their frames as an Annex B byte stream (each NAL unit behind a start code,
// 00 00 01 or 00 00 00 01); files and broadcasts want each NAL unit behind its
// length, and the decoder configuration in an AVC configuration record.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kestrium {

inline constexpr uint8_t kNalTypeIdr = 5;
inline constexpr uint8_t kNalTypeSei = 6;
inline constexpr uint8_t kNalTypeSps = 7;
inline constexpr uint8_t kNalTypePps = 8;

// The type of a NAL unit: the low five bits of its first byte.
inline uint8_t nalType(std::span<const std::byte> unit) {
  return unit.empty() ? 0 : static_cast<uint8_t>(std::to_integer<uint8_t>(unit[0]) & 0x1F);
}

// Walks the NAL units of an Annex B stream. A unit starts behind a start code and
// ends where the next one begins, or at the end of the stream. Zero bytes at the
// end of a unit are the stream's padding (a unit never ends in 00; the leading
// 00 of a 4-byte start code is such a byte), so they are left out. Bytes before
// the first start code belong to no unit, and units left empty are skipped.
class AnnexBReader {
 public:
  explicit AnnexBReader(std::span<const std::byte> stream);
  // The next unit; false when there is none.
  bool next(std::span<const std::byte>& unit);

 private:
  std::span<const std::byte> stream_;
  size_t at_;  // the first byte behind the last start code found
};

// Appends each NAL unit of an Annex B stream to out as its length, 4 bytes
// big-endian, and its bytes. Returns the bytes appended. out keeps its capacity,
// so a buffer reused frame after frame grows only for a larger frame than before.
size_t appendLengthPrefixed(std::span<const std::byte> annexB, std::vector<std::byte>& out);

// The sequence and picture parameter sets, without start codes.
struct ParameterSets {
  std::vector<std::byte> sps;
  std::vector<std::byte> pps;
};

// The first SPS and PPS of an Annex B stream (an encoder's headers); anything
// else there, an SEI say, is left out. Nothing when either is missing.
std::optional<ParameterSets> findParameterSets(std::span<const std::byte> annexB);

// The AVCDecoderConfigurationRecord of one SPS and one PPS: version 1; the
// profile, compatibility and level bytes of the SPS; 0xFF (4-byte lengths);
// 0xE1 (one SPS); its length, 16 bits big-endian; the SPS; 1 (one PPS); its
// length; the PPS. Empty when the SPS is shorter than its first four bytes, the
// PPS is empty, or either is longer than 16 bits can say.
std::vector<std::byte> avcConfigurationRecord(std::span<const std::byte> sps, std::span<const std::byte> pps);

// A parameter set with the 4-byte start code ahead of it, as the broadcast path
// takes them.
std::vector<std::byte> withStartCode(std::span<const std::byte> unit);

}  // namespace kestrium
