#include "audio/DeviceSource.h"

namespace kestrium {

// A build without a device back end records video only; the capture start
// says so for every device it was given.
std::unique_ptr<AudioSource> makeDeviceSource(const std::optional<StereoMixSettings>& /*stereo*/) { return nullptr; }

}  // namespace kestrium
