#pragma once

#include <memory>

#include "fileOutput/AVIOutputFile.h"
#include "recorder/IFileWriter.h"

namespace kestrium {

// Records into AVI. Video lies on a fixed frame grid: a frame number that skips
// ahead leaves empty frames for the ones that never came, so each frame plays at
// its number over the rate however late it arrived. A frame timed in
// milliseconds (the H.264 encoders' frames) takes the grid place nearest its
// time. Audio goes into the AVI, or into side tracks when the recording asks for
// them.
class FileWriterAVI : public IFileWriter {
 public:
  FileWriterAVI(bool sideTracks, float prerecordLimit, std::filesystem::path destination,
                int64_t segmentLimit = AVIOutputFile::kSegmentLimit);
  ~FileWriterAVI() override;

  int write(std::span<const std::byte> data, uint32_t track, uint32_t timed, uint32_t position,
            uint32_t key) override;
  int open() override;
  void close(bool discard) override;

  const std::filesystem::path& filePath() const { return filePath_; }
  uint32_t framesWritten() const { return frameCounters_[0]; }
  uint32_t emptyFramesWritten() const { return frameCounters_[1]; }
  uint32_t gridPosition() const { return frameCounters_[2]; }

 private:
  void writeVideo(std::span<const std::byte> data, uint32_t position, uint32_t key);
  // The frame number of a time in milliseconds, at the capture's rate.
  uint32_t gridPlace(uint32_t milliseconds) const;

  std::unique_ptr<AVIOutputFile> avi_;
  std::filesystem::path filePath_;
  int64_t segmentLimit_;
  uint32_t jumps_ = 0;       // frame numbers that jumped too far
  uint32_t gridOrigin_ = 0;  // the frame number of grid place 0 after the last jump
};

}  // namespace kestrium
