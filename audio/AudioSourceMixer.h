#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "audio/AudioSource.h"

namespace kestrium {

// One track made of several sources: it takes equal durations from every child
// in blocks of 200 ms, once each holds at least 250 ms (the margin against the
// slowest device), adds them in float, speaker by speaker, into a format wide
// enough for all of them, and keeps the sum in its own block. A child at another
// rate is stretched to the mix by repeating the nearest frame. Nothing corrects
// drift: the slowest device sets the pace, and a faster one's surplus waits in
// its own block.
class AudioSourceMixer : public AudioSource {
 public:
  // Makes the source of one device; the settings fold it to stereo when given.
  using ChildFactory = std::function<std::unique_ptr<AudioSource>(const std::optional<StereoMixSettings>&)>;

  static constexpr uint32_t kBlockMs = 200;
  static constexpr uint32_t kReadyMs = 250;

  AudioSourceMixer(ChildFactory makeChild, std::optional<StereoMixSettings> stereo);
  ~AudioSourceMixer() override;

  // Adds one child, opened on the device of that name; 1 when it joined.
  int Open(int32_t index, std::u16string_view deviceName, int32_t verbose) override;
  int Start() override;
  int Stop() override;
  void Poll(int32_t flush) override;
  // Every child tests its own bit; the mix itself is never muted.
  void SetMuteMask(uint32_t mask) override;
  void DiscardHeld() override;

  // Adds a child that is open already (for the processor and for tests).
  void AddChild(std::unique_ptr<AudioSource> child);
  const std::vector<std::unique_ptr<AudioSource>>& children() const { return children_; }

 private:
  void computeFormat();
  void addIntoMix(const AudioSource& child, size_t frames);

  ChildFactory makeChild_;
  std::optional<StereoMixSettings> stereo_;
  std::vector<std::unique_ptr<AudioSource>> children_;
  std::vector<float> mixBuffer_;
  bool stopped_ = false;
};

}  // namespace kestrium
