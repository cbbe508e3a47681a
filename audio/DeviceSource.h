#pragma once

#include <memory>
#include <optional>

#include "audio/AudioSource.h"

namespace kestrium {

// The source of one sound device on this OS, not yet opened; the settings fold
// it to stereo when given. Null where the build captures no devices.
std::unique_ptr<AudioSource> makeDeviceSource(const std::optional<StereoMixSettings>& stereo);

}  // namespace kestrium
