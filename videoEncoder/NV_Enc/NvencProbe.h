#pragma once

#include <string>
#include <vector>

namespace kestrium {

// A card whose encoder the server may use.
struct NvencDevice {
  std::string name;
  int number = 0;  // the CUDA device number
};

// Looks for NVIDIA cards with an H.264 encoder (compute capability 3.0 or above)
// and writes the answer into the NVENC word of the features block: 1 when there
// is one. Without the CUDA driver it writes nothing and logs nothing: most
// machines have no NVIDIA card. Returns the count of usable cards.
int probeNvencDevices();

// The usable cards the last probe found, in the driver's order.
std::vector<NvencDevice> nvencDevices();

}  // namespace kestrium
