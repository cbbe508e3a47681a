#pragma once

#include "fileOutput/IAudioWriter.h"
#include "platform/File.h"

namespace kestrium {

// The raw frames of an MP3 encoder in one file, with no header: complete up to
// its last write whatever happens.
class MP3Writer : public IAudioWriter {
 public:
  using IAudioWriter::IAudioWriter;

  int open(const WaveFormat* format) override;
  int close(bool discard) override;
  int write(std::span<const std::byte> data) override;

 private:
  platform::File file_;
  uint64_t bytes_ = 0;
};

}  // namespace kestrium
