#pragma once

#include "fileOutput/FileSink.h"
#include "fileOutput/IAudioWriter.h"

namespace kestrium {

// PCM in RIFF/WAVE files. A file's sizes are written when it ends, so a part is
// always whole once it is closed; a new part starts before any write that would
// take the data past the part limit.
class WavWriter : public IAudioWriter {
 public:
  static constexpr uint64_t kPartLimit = 0x7D000000;

  WavWriter(std::filesystem::path basePath, uint32_t track, uint64_t partLimit = kPartLimit);
  ~WavWriter() override;

  int open(const WaveFormat* format) override;
  int close(bool discard) override;
  int write(std::span<const std::byte> data) override;

 private:
  bool startFile();
  void endFile();

  WaveFormat format_;
  FileSink sink_;
  int64_t riffStart_ = 0;
  int64_t dataStart_ = 0;
  uint64_t bytes_ = 0;  // data bytes of the current file
  uint64_t partLimit_;
};

}  // namespace kestrium
