#include "audio/DeviceSource.h"

namespace kestrium {

// This build has no device back end yet: every device is absent, and the
// capture goes on without its sound.
std::unique_ptr<AudioSource> makeDeviceSource(const std::optional<StereoMixSettings>& /*stereo*/) { return nullptr; }

}  // namespace kestrium
