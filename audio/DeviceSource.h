#pragma once

#include <memory>
#include <optional>

#include "audio/AudioSource.h"

namespace kestrium {

// The device source of this OS, folding to stereo with the settings when given;
// null where this build captures no devices.
std::unique_ptr<AudioSource> makeDeviceSource(const std::optional<StereoMixSettings>& stereo);

}  // namespace kestrium
