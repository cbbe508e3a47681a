#pragma once

#include <memory>

#include "fileOutput/MP4Container.h"
#include "recorder/IFileWriter.h"

namespace kestrium {

// Records into MP4: H.264 video placed by its time in milliseconds, and one
// audio track (AAC or MP3), or side tracks instead of it when the recording
// asks for them. An MP4 holds one audio track: with more devices than one and
// no mixer, the first device's sound goes into the file and the others' is
// left out, with a log line that says so.
class FileWriterMP4 : public IFileWriter {
 public:
  FileWriterMP4(bool sideTracks, float prerecordLimit, std::filesystem::path destination);
  ~FileWriterMP4() override;

  int write(std::span<const std::byte> data, uint32_t track, uint32_t timed, uint32_t position,
            uint32_t key) override;
  int open() override;
  void close(bool discard) override;

  const std::filesystem::path& filePath() const { return filePath_; }
  // Beside the file while it is written: what kestrium-repair needs.
  std::filesystem::path journalPath() const;
  uint32_t framesWritten() const { return frameCounters_[0]; }

 private:
  std::unique_ptr<MP4Container> mp4_;
  std::filesystem::path filePath_;
  uint32_t untimed_ = 0;  // packets without a time, dropped
};

}  // namespace kestrium
