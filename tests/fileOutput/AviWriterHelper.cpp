// Writes an uncompressed AVI and then waits to be killed, for the test of what a
// recording cut off by the death of its process leaves on disk.
//   avi_writer_helper FILE FRAMES
// After FRAMES frames it makes a file "written" beside FILE and sleeps.

#include <cstdlib>
#include <filesystem>
#include <vector>

#include "fileOutput/AVIOutputFile.h"
#include "platform/Clock.h"
#include "platform/File.h"

using namespace kestrium;

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::filesystem::path file = argv[1];
  const int frames = std::atoi(argv[2]);
  constexpr uint32_t kWidth = 32, kHeight = 16;
  AVIOutputFile avi;
  avi.initOutputStreams();
  AVIVideoOutputStream& video = *avi.videoStream();
  video.header.fccType = fourcc("vids");
  video.header.dwScale = 1000;
  video.header.dwRate = 30000;
  video.header.dwLength = 1;
  video.chunkId = fourcc("00db");
  video.format.assign(40, std::byte{0});
  if (avi.init(file, kWidth, kHeight, 1, 0, 100000, 1) == 0) return 3;
  for (int f = 0; f < frames; ++f) {
    std::vector<std::byte> frame(kWidth * 3 * kHeight);
    for (uint32_t y = 0; y < kHeight; ++y) {
      for (uint32_t x = 0; x < kWidth * 3; ++x) {
        frame[y * kWidth * 3 + x] = std::byte((f * 37 + y * 5 + x * 3) & 0xFF);
      }
    }
    video.write(kAviKeyFrame, frame, 1, 0);
  }
  platform::File marker;
  marker.open(file.parent_path() / "written", platform::File::Mode::CreateAlways);
  marker.close();
  for (;;) platform::sleepMs(1000);
}
