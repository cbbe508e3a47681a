#include "audio/AudioEncoder.h"

#include <algorithm>
#include <cstring>

#include "server/Log.h"

namespace kestrium {

namespace {
constexpr uint64_t kUnitsPerMs = 100000;  // the clock of a block runs in 10 ns units
}

AudioEncoder::AudioEncoder(int32_t sourceRate, int32_t highestRate, int32_t bitrate, int32_t channels)
    : sourceRate_(sourceRate),
      engineRate_(std::min(sourceRate, highestRate)),
      bitrate_(bitrate),
      channels_(channels) {}

void AudioEncoder::finishSetup(int32_t frameSamples, WaveFormat format) {
  if (engineRate_ != sourceRate_) {
    logLine(u"  Resampling audio source from %d to %d\n", sourceRate_, engineRate_);
  }
  format_ = std::move(format);
  frameSamples_ = frameSamples;
  const size_t channels = static_cast<size_t>(std::max(channels_, 0));
  frameBuffer_.resize(static_cast<size_t>(std::max(frameSamples, 0)) * channels);
  // Room for one second at the nominal rate: far more than any frame.
  outBuffer_.reserve(static_cast<size_t>(std::max(bitrate_, 0)) / 8);
  if (sourceRate_ > 0) frameDuration_ = uint64_t(std::max(frameSamples, 0)) * kUnitsPerMs * 1000 / uint64_t(sourceRate_);
}

// Drop-sample: output frame i is input frame i * in / out. No filter: rates
// above the codec's highest are rare enough (and their sound, above 20 kHz,
// inaudible) that the aliasing is accepted. Whole frames are copied, so any
// channel count comes through in its place.
std::span<const int16_t> AudioEncoder::resample(std::span<const int16_t> input) {
  const size_t channels = static_cast<size_t>(channels_);
  const uint64_t inFrames = input.size() / channels;
  // The product in 64 bits; what comes out is no more than a block's worth of
  // frames, which fits a size_t on any build.
  const auto outFrames = static_cast<size_t>(uint64_t(engineRate_) * inFrames / uint64_t(sourceRate_));
  if (resampleBuffer_.size() < outFrames * channels) resampleBuffer_.resize(outFrames * channels);
  for (size_t i = 0; i < outFrames; ++i) {
    const auto from = static_cast<size_t>(uint64_t(i) * inFrames / outFrames);
    std::memcpy(&resampleBuffer_[i * channels], &input[from * channels], channels * sizeof(int16_t));
  }
  return {resampleBuffer_.data(), outFrames * channels};
}

int32_t AudioEncoder::Encode(const void* pcm, uint32_t bytes, uint32_t timeMs) {
  if (!engineOpen() || pcm == nullptr || channels_ <= 0 || frameBuffer_.empty()) return 1;
  const size_t channels = static_cast<size_t>(channels_);
  // Only whole PCM frames: a torn one would shift every channel after it.
  std::span<const int16_t> input(static_cast<const int16_t*>(pcm), bytes / sizeof(int16_t) / channels * channels);
  if (engineRate_ != sourceRate_) input = resample(input);

  uint64_t clock = uint64_t{timeMs} * kUnitsPerMs;
  const bool counted = stampsByCount();
  if (counted && !input.empty()) {
    blocks_.push_back({received_, timeMs});
    received_ += input.size() / channels;
  }
  // The time of the sound the next packet starts with, by its place in the
  // blocks it came in.
  auto countedStamp = [&]() -> uint32_t {
    const uint64_t s = emitted_++ * static_cast<uint64_t>(frameSamples_);
    while (blocks_.size() > 1 && blocks_[1].start <= s) blocks_.pop_front();
    const Block& b = blocks_.front();
    return b.timeMs + static_cast<uint32_t>((s - std::min(s, b.start)) * 1000 / static_cast<uint64_t>(engineRate_));
  };
  while (!input.empty()) {
    const size_t take = std::min(frameBuffer_.size() - frameFill_, input.size());
    std::copy_n(input.begin(), take, frameBuffer_.begin() + static_cast<std::ptrdiff_t>(frameFill_));
    frameFill_ += take;
    input = input.subspan(take);
    // A short frame waits for the next block.
    if (frameFill_ < frameBuffer_.size()) break;
    frameFill_ = 0;
    if (!EncodeFrame(frameBuffer_, outBuffer_)) continue;
    for (bool more = !outBuffer_.empty(); more; more = NextPacket(outBuffer_)) {
      const uint32_t stamp = counted ? countedStamp() : static_cast<uint32_t>(clock / kUnitsPerMs);
      packets_.push_back({std::vector<std::byte>(outBuffer_.begin(), outBuffer_.end()), stamp});
      clock += frameDuration_;
    }
  }
  return 1;
}

int32_t AudioEncoder::GetPacket(std::vector<std::byte>& data, uint32_t* timeMs) {
  if (packets_.empty()) return 0;
  AudioPacket packet = std::move(packets_.front());
  packets_.pop_front();
  const auto size = static_cast<int32_t>(packet.data.size());
  data = std::move(packet.data);
  if (timeMs != nullptr) *timeMs = packet.timeMs;
  return size;
}

}  // namespace kestrium
