#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "audio/AudioSourceMixer.h"
#include "audio/IAudioEncoder.h"
#include "recorder/IAudProcessor.h"

namespace kestrium {

// The audio of one capture: its sources (one for each device, or one mixer of
// them all) and the clock of each track, which is the count of frames taken
// from it over its rate. It has no thread and no pace of its own: sound moves
// when the recorder reads, in pieces of at least 200 ms unless flushed.
class AudioProcessor : public IAudProcessor {
 public:
  using SourceFactory = AudioSourceMixer::ChildFactory;

  static constexpr uint32_t kLeastReadMs = 200;

  AudioProcessor(bool mixer, std::optional<StereoMixSettings> stereo, SourceFactory makeSource);
  ~AudioProcessor() override;

  int32_t AddSource(std::u16string_view deviceName, int32_t volumePercent, int32_t index) override;
  int32_t GetSourceCount() override { return static_cast<int32_t>(sources_.size()); }
  int32_t InitEncoders(const std::u16string& encoderName, int32_t bitrateKbps, uint16_t* extraData) override;
  const WaveFormat* GetFormat(int32_t index) override;
  int32_t Start() override;
  int32_t Stop() override;
  int32_t Read(int32_t index, std::vector<std::byte>& buffer, uint32_t* timeMs, int32_t flush) override;
  int32_t GetEncoded(int32_t index, std::vector<std::byte>& packet, uint32_t* timeMs) override;
  void SetMuteMask(int32_t index, uint32_t mask) override;
  void SetPaused(int32_t paused) override { paused_ = paused != 0; }
  void DropPending() override;

  AudioSource* source(int32_t index) { return valid(index) ? sources_[static_cast<size_t>(index)].get() : nullptr; }

 private:
  bool valid(int32_t index) const { return index >= 0 && static_cast<size_t>(index) < sources_.size(); }
  // The encoder of track index, or null: none made, or already destroyed by Stop.
  IAudioEncoder* encoder(int32_t index) const {
    return index >= 0 && static_cast<size_t>(index) < encoders_.size() ? encoders_[static_cast<size_t>(index)].get() : nullptr;
  }

  bool mixer_;
  std::optional<StereoMixSettings> stereo_;
  SourceFactory makeSource_;
  std::vector<std::unique_ptr<AudioSource>> sources_;
  std::vector<uint64_t> sampleCounters_;
  std::vector<WaveFormat> formats_;
  std::vector<int16_t> pcmScratch_;
  // Empty when the sound is recorded as PCM; entry i serves sources_[i].
  std::vector<std::unique_ptr<IAudioEncoder>> encoders_;
  bool paused_ = false;
};

}  // namespace kestrium
