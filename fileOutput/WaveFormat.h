#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace kestrium {

// An audio format as a WAVEFORMATEX record: 18 bytes, then cbSize bytes of
// format-specific data. Kept as the bytes themselves, since that is how it goes
// into files.
class WaveFormat {
 public:
  static constexpr size_t kBaseSize = 18;
  static constexpr uint16_t kPcm = 1;

  WaveFormat() = default;
  // A copy of the record at bytes: 18 bytes plus the cbSize it names. Empty when
  // bytes are too few.
  static WaveFormat fromBytes(std::span<const std::byte> bytes) {
    WaveFormat f;
    if (bytes.size() < kBaseSize) return f;
    const size_t extra = static_cast<size_t>(bytes[16]) | (static_cast<size_t>(bytes[17]) << 8);
    if (bytes.size() < kBaseSize + extra) return f;
    f.bytes_.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(kBaseSize + extra));
    return f;
  }
  static WaveFormat pcm(uint32_t sampleRate, uint16_t channels, uint16_t bitsPerSample) {
    WaveFormat f;
    f.bytes_.resize(kBaseSize);
    const uint16_t blockAlign = static_cast<uint16_t>(channels * bitsPerSample / 8);
    f.put16(0, kPcm);
    f.put16(2, channels);
    f.put32(4, sampleRate);
    f.put32(8, sampleRate * blockAlign);
    f.put16(12, blockAlign);
    f.put16(14, bitsPerSample);
    f.put16(16, 0);
    return f;
  }

  // A record of bytes zero bytes, its fields to be set one by one: the
  // compressed formats, whose extra bytes each codec lays out its own way.
  static WaveFormat zeroed(size_t bytes) {
    WaveFormat f;
    f.bytes_.resize(bytes);
    return f;
  }
  void put16(size_t at, uint16_t v) {
    bytes_[at] = std::byte(v & 0xFF);
    bytes_[at + 1] = std::byte(v >> 8);
  }
  void put32(size_t at, uint32_t v) {
    put16(at, static_cast<uint16_t>(v));
    put16(at + 2, static_cast<uint16_t>(v >> 16));
  }

  bool empty() const { return bytes_.empty(); }
  std::span<const std::byte> bytes() const { return bytes_; }
  uint16_t formatTag() const { return get16(0); }
  uint16_t channels() const { return get16(2); }
  uint32_t samplesPerSec() const { return get32(4); }
  uint32_t avgBytesPerSec() const { return get32(8); }
  uint16_t blockAlign() const { return get16(12); }
  uint16_t bitsPerSample() const { return get16(14); }
  uint16_t cbSize() const { return get16(16); }

 private:
  uint16_t get16(size_t at) const {
    return bytes_.size() < at + 2 ? 0 : static_cast<uint16_t>(std::to_integer<uint16_t>(bytes_[at]) | (std::to_integer<uint16_t>(bytes_[at + 1]) << 8));
  }
  uint32_t get32(size_t at) const { return get16(at) | (static_cast<uint32_t>(get16(at + 2)) << 16); }

  std::vector<std::byte> bytes_;
};

}  // namespace kestrium
