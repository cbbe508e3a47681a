#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace kestrium::tools {

// What a repair did: the file it wrote and what went into it, or why it wrote
// nothing.
struct RepairReport {
  bool ok = false;
  std::string error;
  std::filesystem::path output;
  uint64_t videoFrames = 0;  // frames in the new file, empty ones among them
  uint64_t audioChunks = 0;  // audio chunks (AVI) or samples (MP4)
  uint64_t lostBytes = 0;    // bytes at the end of the data that no whole frame holds
};

// The recording of a server that was killed, made playable: every whole frame
// and audio chunk it wrote, in its order, with new indexes, sizes and counts,
// into output (which must not be input). An AVI is read as far as its chunks go
// whole (a last one that was cut off is left out, and with it whatever follows);
// its key frames are found in the frames (H.264 IDR pictures; every other
// codec's frames are key frames unless empty). An MP4 is rebuilt from the
// journal it keeps beside itself while written (NAME.mp4.journal): the samples
// wholly in the file, fed to a new file in the same order.
RepairReport repairRecording(const std::filesystem::path& input, const std::filesystem::path& output);

// Where a repair goes by default: beside the input, "NAME.repaired.EXT".
std::filesystem::path repairedPath(const std::filesystem::path& input);

}  // namespace kestrium::tools
