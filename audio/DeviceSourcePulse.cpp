#include "audio/AudioSourcePulse.h"
#include "audio/DeviceSource.h"

namespace kestrium {

std::unique_ptr<AudioSource> makeDeviceSource(const std::optional<StereoMixSettings>& stereo) {
  return std::make_unique<AudioSourcePulse>(stereo);
}

}  // namespace kestrium
