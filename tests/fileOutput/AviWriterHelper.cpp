// Writes an uncompressed AVI and then waits to be killed, for the test of what a
// recording cut off by the death of its process leaves on disk.
//   avi_writer_helper FILE FRAMES
// After FRAMES frames it makes a file "written" beside FILE and sleeps.

#include <cstdlib>

#include "platform/Clock.h"
#include "tests/fileOutput/AviParser.h"

using namespace kestrium;

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::filesystem::path file = argv[1];
  constexpr uint32_t kWidth = 32, kHeight = 16;
  auto avi = test::openAvi(file, AVIOutputFile::kSegmentLimit, kWidth, kHeight, 0);
  if (avi == nullptr) return 3;
  for (int f = 0; f < std::atoi(argv[2]); ++f) {
    std::vector<std::byte> frame(kWidth * 3 * kHeight);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = std::byte((f * 37 + i / 96 * 5 + i % 96 * 3) & 0xFF);
    avi->videoStream()->write(kAviKeyFrame, frame, 1, 0);
  }
  platform::File marker;
  marker.open(file.parent_path() / "written", platform::File::Mode::CreateAlways);
  marker.close();
  for (;;) platform::sleepMs(1000);
}
