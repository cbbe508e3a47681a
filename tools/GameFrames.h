#pragma once

#include <cstdint>

namespace kestrium::tools {

// Renders frame `index` of a deterministic game-like scene (sky, terrain in
// perspective, lit objects, a HUD) as width x height rgb24 pixels, rows top-down,
// red first: the raw frames the benchmarks and codec tests work on.
void renderGameFrame(uint32_t width, uint32_t height, uint32_t index, uint8_t* rgb);

}  // namespace kestrium::tools
