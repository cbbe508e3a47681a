#include "audio/AudioSource.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

#include "platform/Clock.h"

namespace kestrium {

namespace {

// The speakers in the order their samples stand in a frame, with where each
// goes in a stereo fold: weight index, and whether it adds to left and right.
struct Speaker {
  uint32_t bit;
  int weight;
  bool left;
  bool right;
};
constexpr Speaker kSpeakers[] = {
    {0x001, 0, true, false},  {0x002, 0, false, true}, {0x004, 1, true, true},  {0x008, 6, true, true},
    {0x010, 3, true, false},  {0x020, 3, false, true}, {0x040, 2, true, false}, {0x080, 2, false, true},
    {0x100, 4, true, true},   {0x200, 5, true, false}, {0x400, 5, false, true},
};

// A group of speakers shares one weight and counts once in the normalisation.
struct WeightGroup {
  uint32_t mask;
  int weight;
};
constexpr WeightGroup kGroups[] = {{0x003, 0}, {0x004, 1}, {0x008, 6}, {0x030, 3},
                                   {0x0C0, 2}, {0x100, 4}, {0x600, 5}};

}  // namespace

std::array<uint8_t, 16> subFormatOf(uint16_t tag) {
  std::array<uint8_t, 16> guid = {0, 0, 0, 0, 0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
  guid[0] = static_cast<uint8_t>(tag & 0xFF);
  guid[1] = static_cast<uint8_t>(tag >> 8);
  return guid;
}

WaveFormatExtensible floatFormat(uint32_t rate, uint32_t channelMask) {
  WaveFormatExtensible f{};
  f.formatTag = kWaveFormatExtensibleTag;
  f.channels = static_cast<uint16_t>(std::popcount(channelMask));
  f.samplesPerSec = rate;
  f.bitsPerSample = 32;
  f.blockAlign = static_cast<uint16_t>(32 * f.channels / 8);
  f.avgBytesPerSec = f.blockAlign * rate;
  f.cbSize = 22;
  f.validBitsPerSample = 32;
  f.channelMask = channelMask;
  f.subFormat = subFormatOf(kWaveFormatIeeeFloat);
  return f;
}

uint32_t channelMaskOf(const WaveFormatExtensible& format) {
  if (format.formatTag == kWaveFormatExtensibleTag) return format.channelMask;
  return format.channels == 2 ? 3u : 1u;
}

WaveFormat toWaveFormat(const WaveFormatExtensible& format) {
  const auto* bytes = reinterpret_cast<const std::byte*>(&format);
  return WaveFormat::fromBytes({bytes, sizeof format});
}

StereoMixSettings normalizedWeights(const StereoMixSettings& settings, uint32_t channelMask) {
  StereoMixSettings out = settings;
  if (settings.normalize == 0) return out;
  float sum = 0.0f;
  for (const WeightGroup& g : kGroups) {
    if ((channelMask & g.mask) != 0) sum += settings.weights[g.weight];
  }
  for (const WeightGroup& g : kGroups) {
    if ((channelMask & g.mask) != 0) out.weights[g.weight] = settings.weights[g.weight] / sum;
  }
  return out;
}

void foldToStereo(std::span<const float> in, uint32_t channelMask, size_t frames, const StereoMixSettings& weights,
                  std::span<float> out) {
  const size_t channels = static_cast<size_t>(std::popcount(channelMask & 0x7FF));
  const size_t stride = static_cast<size_t>(std::popcount(channelMask));
  for (size_t f = 0; f < frames && (f + 1) * stride <= in.size() && 2 * f + 1 < out.size(); ++f) {
    const float* sample = in.data() + f * stride;
    float left = 0.0f, right = 0.0f;
    size_t used = 0;
    for (const Speaker& s : kSpeakers) {
      if ((channelMask & s.bit) == 0 || used == channels) continue;
      const float v = sample[used++] * weights.weights[s.weight];
      if (s.left) left += v;
      if (s.right) right += v;
    }
    out[2 * f] = left;
    out[2 * f + 1] = right;
  }
}

void applyVolume(std::span<float> samples, float volume) {
  if (!(0.995f > volume)) return;
  for (float& s : samples) s *= volume;
}

void AudioSource::SetMuteMask(uint32_t mask) { muted_ = (mask >> (static_cast<uint32_t>(index_) % 32)) & 1; }

void AudioSource::reserveFrames(size_t frames) {
  const size_t needed = (bufferFrames_ + frames) * channels();
  if (needed <= buffer_.size()) return;
  // Exactly what is needed: the block follows the sound, with no slack.
  std::vector<float> grown(needed);
  std::copy_n(buffer_.begin(), bufferFrames_ * channels(), grown.begin());
  buffer_.swap(grown);
}

void AudioSource::PushFrames(std::span<const float> data, size_t frames) {
  const size_t samples = frames * channels();
  if (channels() == 0 || data.size() < samples) return;
  reserveFrames(frames);
  float* at = buffer_.data() + bufferFrames_ * channels();
  if (muted_ != 0) {
    std::fill_n(at, samples, 0.0f);
  } else {
    std::copy_n(data.begin(), samples, at);
  }
  bufferFrames_ += frames;
}

void AudioSource::PushSilence(size_t frames) {
  if (channels() == 0) return;
  reserveFrames(frames);
  std::fill_n(buffer_.data() + bufferFrames_ * channels(), frames * channels(), 0.0f);
  bufferFrames_ += frames;
}

bool AudioSource::ReadFrames16(std::span<int16_t> out, size_t frames) {
  const size_t samples = frames * channels();
  if (frames > bufferFrames_ || out.size() < samples) return false;
  for (size_t i = 0; i < samples; ++i) {
    float s = buffer_[i];
    // NaN compares false both ways: it lands on -1.0, never in the output as noise.
    if (!(s > -1.0f)) s = -1.0f;
    if (!(s < 1.0f)) s = 1.0f;
    out[i] = static_cast<int16_t>(s * 32767.0f);
  }
  DropFrames(frames);
  return true;
}

void AudioSource::DiscardHeld() {
  Poll(0);
  bufferFrames_ = 0;
  pace_.restart(platform::monotonicNs());
}

void AudioSource::keepPace(size_t given) {
  const size_t silence = pace_.silenceAfter(platform::monotonicNs(), given, format_.samplesPerSec);
  if (silence > 0) PushSilence(silence);
}

void DevicePace::restart(uint64_t nowNs) {
  originNs_ = nowNs;
  lastSoundNs_ = nowNs;
  frames_ = 0;
  running_ = true;
}

size_t DevicePace::silenceAfter(uint64_t nowNs, size_t given, uint32_t rate) {
  if (!running_) return 0;
  if (given > 0) {
    frames_ += given;
    lastSoundNs_ = nowNs;
    return 0;
  }
  if (nowNs < lastSoundNs_ + kIdleNs) return 0;
  // In microseconds, so that days at the highest rates stay within 64 bits.
  const uint64_t due = (nowNs - originNs_) / 1000 * rate / 1'000'000;
  if (due <= frames_) return 0;
  const uint64_t silence = due - frames_;
  frames_ = due;
  return static_cast<size_t>(silence);
}

bool recordable(const WaveFormatExtensible& format) {
  return format.channels > 0 && format.samplesPerSec > 0 && format.bitsPerSample == 32 &&
         format.blockAlign == format.channels * sizeof(float);
}

void AudioSource::DropFrames(size_t frames) {
  if (frames > bufferFrames_) return;
  const size_t samples = frames * channels();
  std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(samples),
            buffer_.begin() + static_cast<std::ptrdiff_t>(bufferFrames_ * channels()), buffer_.begin());
  bufferFrames_ -= frames;
}

void AudioSource::DeriveFormat16() {
  format16_ = format_;
  if (format16_.formatTag == kWaveFormatExtensibleTag) {
    format16_.validBitsPerSample = 16;
    format16_.subFormat = subFormatOf(kWaveFormatPcm);
    if (format16_.channels < 3) {
      format16_.formatTag = kWaveFormatPcm;
      format16_.cbSize = 0;
    }
  }
  format16_.bitsPerSample = 16;
  format16_.blockAlign = static_cast<uint16_t>(format16_.channels * 2);
  format16_.avgBytesPerSec = format16_.blockAlign * format16_.samplesPerSec;
}

}  // namespace kestrium
