#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "audio/StereoMixSettings.h"
#include "fileOutput/WaveFormat.h"

namespace kestrium {

// A WAVEFORMATEXTENSIBLE record, as audio formats travel between the sources,
// the mixer and the writers: 18 bytes of WAVEFORMATEX, then valid bits, the
// speaker mask and the sub-format.
#pragma pack(push, 1)
struct WaveFormatExtensible {
  uint16_t formatTag;
  uint16_t channels;
  uint32_t samplesPerSec;
  uint32_t avgBytesPerSec;
  uint16_t blockAlign;
  uint16_t bitsPerSample;
  uint16_t cbSize;
  uint16_t validBitsPerSample;
  uint32_t channelMask;
  std::array<uint8_t, 16> subFormat;
};
#pragma pack(pop)
static_assert(sizeof(WaveFormatExtensible) == 40);
static_assert(offsetof(WaveFormatExtensible, channelMask) == 20);
static_assert(offsetof(WaveFormatExtensible, subFormat) == 24);

inline constexpr uint16_t kWaveFormatPcm = 1;
inline constexpr uint16_t kWaveFormatIeeeFloat = 3;
inline constexpr uint16_t kWaveFormatExtensibleTag = 0xFFFE;
// KSDATAFORMAT_SUBTYPE_PCM and _IEEE_FLOAT: the format tag in the first two
// bytes, then the fixed tail of the Windows audio GUIDs.
std::array<uint8_t, 16> subFormatOf(uint16_t tag);

// The format of a float block of that rate and speaker mask.
WaveFormatExtensible floatFormat(uint32_t rate, uint32_t channelMask);
// The speaker mask a format stands for: its own when it has one, else front
// left and right for two channels and front centre for one.
uint32_t channelMaskOf(const WaveFormatExtensible& format);
// As the writers take it: the record's bytes, 18 plus its extra size.
WaveFormat toWaveFormat(const WaveFormatExtensible& format);


// The weights divided by the sum of those whose speakers the mask holds; the
// others stay as they are. Only with normalize set.
StereoMixSettings normalizedWeights(const StereoMixSettings& settings, uint32_t channelMask);

// Folds frames of the speakers in channelMask into stereo by the weights, in
// speaker-bit order; out holds 2 x frames samples. Nothing is clipped here.
void foldToStereo(std::span<const float> in, uint32_t channelMask, size_t frames, const StereoMixSettings& weights,
                  std::span<float> out);

// A float block that a track can be made of: some channels at some rate.
bool recordable(const WaveFormatExtensible& format);

// A volume of 0.995 or more is unity: no source is ever amplified.
void applyVolume(std::span<float> samples, float volume);

// Where a device's frame count should stand by the clock. A device that gives
// nothing for a while (an idle sink's monitor, which starts late; a loopback
// while nothing plays) would otherwise have its later sound counted from where
// the block stopped: early against the pictures, and in a mix it would hold up
// every other device. So once a device has been quiet for kIdleNs, silence
// brings the count up to the clock. A device that keeps giving, even a little
// slower than the clock, is never filled: silence in the middle of sound is a
// dropout, and its drift is made up at its next quiet moment. A device ahead of
// the clock waits for it.
class DevicePace {
 public:
  static constexpr uint64_t kIdleNs = 200'000'000;

  // The block's time 0: the first picture.
  void restart(uint64_t nowNs);
  // After a poll that took `given` frames at `rate`: the frames of silence that
  // go into the block behind them.
  size_t silenceAfter(uint64_t nowNs, size_t given, uint32_t rate);

 private:
  uint64_t originNs_ = 0;
  uint64_t lastSoundNs_ = 0;
  uint64_t frames_ = 0;  // given and filled since the origin
  bool running_ = false;  // nothing is filled before the first restart
};

// The producer of audio: a growing block of interleaved float frames in
// `format`, read out as 16-bit frames of `format16`. Device sources fill it in
// Poll; the audio processor reads it. It owns no thread.
class AudioSource {
 public:
  virtual ~AudioSource() = default;
  AudioSource() = default;
  AudioSource(const AudioSource&) = delete;
  AudioSource& operator=(const AudioSource&) = delete;

  // Finds and opens the device by its name; 1 opened, 0 failed (logged).
  virtual int Open(int32_t index, std::u16string_view deviceName, int32_t verbose) = 0;
  virtual int Start() = 0;
  virtual int Stop() = 0;
  // Moves everything the device has into the block; never blocks.
  virtual void Poll(int32_t flush) = 0;
  // Muted while bit (index mod 32) of mask is set.
  virtual void SetMuteMask(uint32_t mask);
  // Takes what the device has and throws it away with all the block holds: the
  // sound from before the first picture has no place in the recording.
  virtual void DiscardHeld();

  // Appends frames (zeros instead while muted), or silence that keeps the
  // block's frame count in step.
  void PushFrames(std::span<const float> data, size_t frames);
  void PushSilence(size_t frames);
  // Converts and removes the first frames, clipped to -1.0..1.0; nothing happens
  // when the block holds fewer. false then.
  bool ReadFrames16(std::span<int16_t> out, size_t frames);
  // Removes the first frames without reading them, where there are as many.
  void DropFrames(size_t frames);
  void DeriveFormat16();

  const WaveFormatExtensible& format() const { return format_; }
  const WaveFormatExtensible& format16() const { return format16_; }
  size_t bufferFrames() const { return bufferFrames_; }
  std::span<const float> block() const { return {buffer_.data(), bufferFrames_ * channels()}; }
  int32_t index() const { return index_; }
  bool muted() const { return muted_ != 0; }
  float volume() const { return volume_; }
  void setVolume(float volume) { volume_ = volume; }

 protected:
  size_t channels() const { return format_.channels; }
  // Room for at least frames more frames, grown to exactly what is needed.
  void reserveFrames(size_t frames);
  // Device sources call this after each poll of a device that works, with the
  // frames it gave. The pace runs from the first picture (DiscardHeld): what
  // comes before is thrown away, so filling it would only cost memory.
  void keepPace(size_t given);

  WaveFormatExtensible format_{};
  WaveFormatExtensible format16_{};
  std::vector<float> buffer_;
  size_t bufferFrames_ = 0;
  int32_t index_ = 0;
  int32_t muted_ = 0;
  float volume_ = 1.0f;
  DevicePace pace_;
};

}  // namespace kestrium
