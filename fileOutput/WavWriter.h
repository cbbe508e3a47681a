#pragma once

#include "fileOutput/FileSink.h"
#include "fileOutput/IAudioWriter.h"

namespace kestrium {

// PCM in RIFF/WAVE files. A new part starts before any write that would take
// the data past the part limit. At least every quarter second of audio the
// buffered bytes go to the file and its sizes are brought up to them, so that a
// server that dies loses no more than that and leaves a file that reads whole;
// a part is complete once it is closed.
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
  // Writes what is buffered and sets the RIFF and data sizes to what the file holds.
  void flushToDisk();

  WaveFormat format_;
  FileSink sink_;
  int64_t riffStart_ = 0;
  int64_t dataStart_ = 0;
  uint64_t bytes_ = 0;  // data bytes of the current file
  uint64_t partLimit_;
  size_t flushEvery_ = 1;  // bytes of a quarter second at the format's byte rate
};

}  // namespace kestrium
