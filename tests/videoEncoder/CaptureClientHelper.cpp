// Plays the client of one capture against a server-side encoder in another
// process: fills the source slot with numbered frames, waits for each encoded
// frame, checks it and frees the slot. Exit status 0 when every frame came back.
//   capture_client_helper SESSION WIDTH HEIGHT FRAMES

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/Clock.h"
#include "platform/Text.h"
#include "recorder/CaptureObjects.h"

using namespace kestrium;

namespace {

std::byte pixel(uint32_t frame, size_t i) { return std::byte((frame * 31 + i * 7) & 0xFF); }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const uint32_t width = static_cast<uint32_t>(std::atoi(argv[2]));
  const uint32_t height = static_cast<uint32_t>(std::atoi(argv[3]));
  const uint32_t frames = static_cast<uint32_t>(std::atoi(argv[4]));
  const size_t row = size_t{width} * 3, stride = (row + 3) / 4 * 4, size = row * height;

  CaptureObjects objects(platform::toUtf16(argv[1]));
  if (!objects.openCommonData() || !objects.openNewSource() || !objects.openNewEncoded() ||
      !objects.openSourceBuffer(size) || !objects.openEncoderBuffer(encoderBufferSize(width, height))) {
    return 10;
  }
  CommonData* common = objects.common();
  storeShared(common->encodedFree, 1u);
  storeShared(common->sourceFree, 1u);

  for (uint32_t f = 0; f < frames; ++f) {
    const uint64_t until = platform::monotonicNs() + 20'000'000'000ull;
    while (loadShared(common->sourceFree) == 0) {
      if (platform::monotonicNs() > until) return 11;
      platform::sleepMs(0);
    }
    for (size_t i = 0; i < size; ++i) objects.sourceBuffer.view()[i] = pixel(f, i);
    common->sourceSize = static_cast<uint32_t>(size);
    common->sourceTimed = 0;
    common->sourcePosition = f;
    storeShared(common->sourceFree, 0u);
    objects.newSource.set();

    while (objects.newEncoded.wait(20000) == platform::kWaitObject0 && loadShared(common->encodedFree) != 0) {
    }
    if (loadShared(common->encodedFree) != 0) return 12;
    if (common->encodedPosition != f || common->encodedSize != stride * height) return 13;
    for (size_t y = 0; y < height; ++y) {
      for (size_t x = 0; x < row; ++x) {
        if (objects.encoderBuffer.view()[y * stride + x] != pixel(f, y * row + x)) {
          std::fprintf(stderr, "frame %u differs at row %zu byte %zu\n", f, y, x);
          return 14;
        }
      }
    }
    storeShared(common->encodedFree, 1u);
  }
  return 0;
}
