#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "audio/AudioSource.h"

namespace kestrium {

// A device source on Windows, through the audio session interfaces (WASAPI) in
// shared mode. The device is found by its friendly name: among capture
// endpoints first (microphones), then among render endpoints, which are
// captured in loopback (what the computer plays) while a silent stream of our
// own keeps the endpoint running. It captures the device's mix format as it
// is, folded to stereo when asked and needed. It owns no thread: Poll takes
// what the device holds and returns.
class AudioSourceCoreAudio : public AudioSource {
 public:
  explicit AudioSourceCoreAudio(std::optional<StereoMixSettings> stereo);
  ~AudioSourceCoreAudio() override;

  int Open(int32_t index, std::u16string_view deviceName, int32_t verbose) override;
  int Start() override;
  int Stop() override;
  void Poll(int32_t flush) override;

  bool loopback() const { return loopback_; }
  bool stereoEnabled() const { return stereoEnabled_; }

  struct Streams;

 private:
  bool openStreams(std::u16string_view deviceName, int32_t verbose);

  std::optional<StereoMixSettings> stereo_;
  StereoMixSettings weights_{};
  bool stereoEnabled_ = false;
  bool loopback_ = false;
  // This object initialised COM on its thread and owes it the matching
  // CoUninitialize.
  bool comInitialised_ = false;
  uint32_t comThread_ = 0;
  uint32_t deviceMask_ = 0;      // the speakers of the raw packets
  uint16_t deviceChannels_ = 0;  // the samples in one raw frame
  bool floatPackets_ = false;    // the device delivers 32-bit float frames
  // The device position of the first packet since Start. Kept for a look in
  // a debugger: the track's clock is its frame count, never the device's.
  uint64_t firstDevicePosition_ = 0;
  std::unique_ptr<Streams> streams_;
  std::vector<float> folded_;
};

}  // namespace kestrium
