#pragma once

namespace kestrium {

// Looks for an AMD GPU that codes H.264 (an AMD vendor string on a VA display
// with an H.264 encode entry point) and writes the answer into the AMD word of
// the features block. Without libva it writes nothing and logs nothing. Returns
// the count of such displays.
int probeAmdEncoder();

}  // namespace kestrium
