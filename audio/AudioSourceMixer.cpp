#include "audio/AudioSourceMixer.h"

#include <algorithm>

#include "server/Log.h"

namespace kestrium {

AudioSourceMixer::AudioSourceMixer(ChildFactory makeChild, std::optional<StereoMixSettings> stereo)
    : makeChild_(std::move(makeChild)), stereo_(stereo) {
  computeFormat();
}

AudioSourceMixer::~AudioSourceMixer() = default;

int AudioSourceMixer::Open(int32_t index, std::u16string_view deviceName, int32_t verbose) {
  std::unique_ptr<AudioSource> child = makeChild_ ? makeChild_(stereo_) : nullptr;
  if (!child) {
    logLine(u"[Warning] *** AUD *** This build captures no audio devices: %s is left out\n", deviceName);
    return 0;
  }
  if (child->Open(index, deviceName, verbose) == 0) return 0;
  if (!recordable(child->format())) {
    logLine(u"[Error]   *** AUD *** %s gives no sound that can be recorded; it is left out\n", deviceName);
    child->Stop();
    return 0;
  }
  AddChild(std::move(child));
  return 1;
}

void AudioSourceMixer::AddChild(std::unique_ptr<AudioSource> child) {
  children_.push_back(std::move(child));
  computeFormat();
}

void AudioSourceMixer::computeFormat() {
  uint32_t rate = 0, mask = 0;
  for (const auto& child : children_) {
    rate = std::max(rate, child->format().samplesPerSec);
    mask |= channelMaskOf(child->format());
  }
  format_ = floatFormat(rate, mask);
  DeriveFormat16();
}

int AudioSourceMixer::Start() {
  // Twice a block: a block at the mix rate, and room for a shorter last one
  // read at full length.
  const size_t blockFrames = size_t{format_.samplesPerSec} * kBlockMs / 1000;
  mixBuffer_.assign(2 * blockFrames * channels(), 0.0f);
  for (auto& child : children_) child->Start();
  return 1;
}

int AudioSourceMixer::Stop() {
  stopped_ = true;
  for (auto& child : children_) child->Stop();
  mixBuffer_.clear();
  mixBuffer_.shrink_to_fit();
  return 1;
}

void AudioSourceMixer::DiscardHeld() {
  for (auto& child : children_) child->DiscardHeld();
  bufferFrames_ = 0;
}

void AudioSourceMixer::SetMuteMask(uint32_t mask) {
  for (auto& child : children_) child->SetMuteMask(mask);
}

void AudioSourceMixer::Poll(int32_t flush) {
  bool ready = !children_.empty();
  uint64_t blockMs = kBlockMs;
  for (auto& child : children_) {
    child->Poll(0);
    const uint32_t rate = child->format().samplesPerSec;
    const uint64_t ms = rate == 0 ? 0 : uint64_t{child->bufferFrames()} * 1000 / rate;
    if (flush == 0 && ms < kReadyMs) ready = false;
    blockMs = std::min(blockMs, ms);
  }
  // One child with nothing stops the mix, even at the end: a lost device
  // silences the mixed track rather than shifting the others against it.
  if (!children_.empty() && blockMs == 0) return;
  if (!ready || mixBuffer_.empty()) return;

  std::fill(mixBuffer_.begin(), mixBuffer_.end(), 0.0f);
  for (auto& child : children_) {
    const size_t frames = static_cast<size_t>(uint64_t{child->format().samplesPerSec} * blockMs / 1000);
    addIntoMix(*child, frames);
    child->DropFrames(frames);
  }
  const size_t out = static_cast<size_t>(uint64_t{format_.samplesPerSec} * blockMs / 1000);
  PushFrames(mixBuffer_, out);
}

void AudioSourceMixer::addIntoMix(const AudioSource& child, size_t frames) {
  const size_t n = size_t{format_.samplesPerSec} * kBlockMs / 1000;
  const uint32_t mixMask = channelMaskOf(format_);
  const uint32_t childMask = channelMaskOf(child.format());
  const size_t childChannels = child.format().channels;
  const std::span<const float> in = child.block();
  const bool sameRate = child.format().samplesPerSec == format_.samplesPerSec;
  for (size_t i = 0; i < n; ++i) {
    // A child at another rate gives the frame nearest in time: repetition, no filter.
    const size_t source = sameRate ? i : static_cast<size_t>(uint64_t{i} * frames / n);
    // Past what the child holds (the short last block) it adds nothing.
    if ((source + 1) * childChannels > in.size()) break;
    const float* sample = in.data() + source * childChannels;
    float* mixed = mixBuffer_.data() + i * channels();
    size_t c = 0, m = 0;
    for (uint32_t bit = 1; bit != 0 && (mixMask & ~(bit - 1)) != 0; bit <<= 1) {
      if ((mixMask & bit) == 0) continue;
      // Speakers meet by their bit: a mono centre microphone only adds to the centre.
      if ((childMask & bit) != 0) mixed[m] += sample[c++];
      ++m;
    }
  }
}

}  // namespace kestrium
