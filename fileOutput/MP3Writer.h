#pragma once

#include <optional>

#include "fileOutput/IAudioWriter.h"
#include "platform/File.h"

namespace kestrium {

// The frames of the audio encoder in one file, with no file header: complete
// up to its last write whatever happens. MP3 frames carry their own headers;
// bare AAC frames do not, so each gets a 7-byte ADTS header and the file plays.
class MP3Writer : public IAudioWriter {
 public:
  using IAudioWriter::IAudioWriter;

  int open(const WaveFormat* format) override;
  int close(bool discard) override;
  int write(std::span<const std::byte> data) override;

 private:
  platform::File file_;
  uint64_t bytes_ = 0;
  // Set when the track is AAC: the rate index and channels of its ADTS headers.
  std::optional<uint8_t> adtsRateIndex_;
  uint8_t adtsChannels_ = 0;
  std::vector<std::byte> framed_;
};

}  // namespace kestrium
