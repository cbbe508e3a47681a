#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "audio/AudioSource.h"

namespace kestrium {

// A device source on Linux, through the PulseAudio client library (which also
// serves PipeWire). The device is found by its description: among sources that
// are not monitors first (microphones), then among sinks, whose monitor is
// captured (what the computer plays). It captures float frames at the device's
// own rate, with its speakers in the order of the Windows speaker bits. The
// library's own thread fills a locked queue; Poll only takes what is there.
class AudioSourcePulse : public AudioSource {
 public:
  explicit AudioSourcePulse(std::optional<StereoMixSettings> stereo);
  ~AudioSourcePulse() override;

  int Open(int32_t index, std::u16string_view deviceName, int32_t verbose) override;
  int Start() override;
  int Stop() override;
  void Poll(int32_t flush) override;

  bool loopback() const { return loopback_; }

  struct Connection;

 private:
  std::optional<StereoMixSettings> stereo_;
  StereoMixSettings weights_{};
  bool stereoEnabled_ = false;
  uint32_t deviceMask_ = 0;  // the speakers the device delivers
  bool loopback_ = false;
  std::string deviceName_;  // the PulseAudio name of the source the stream records
  std::unique_ptr<Connection> connection_;
  std::vector<float> taken_;
  std::vector<float> folded_;
};

}  // namespace kestrium
