#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "platform/File.h"

#include "fileOutput/WaveFormat.h"

namespace kestrium {

// One side audio track: a file of its own beside the video file, named after the
// recording's path with ".<track>.<part>" and its extension.
class IAudioWriter {
 public:
  IAudioWriter(std::filesystem::path basePath, uint32_t track) : basePath_(std::move(basePath)), track_(track) {}
  virtual ~IAudioWriter() = default;
  IAudioWriter(const IAudioWriter&) = delete;
  IAudioWriter& operator=(const IAudioWriter&) = delete;

  // Starts the first file; non-zero on success.
  virtual int open(const WaveFormat* format) = 0;
  // Ends the file; with discard every file made is deleted. Returns 1.
  virtual int close(bool discard) = 0;
  // 1 when written; 0 if there is no file, no data, or the write failed.
  virtual int write(std::span<const std::byte> data) = 0;

  // Every file made so far, in order.
  const std::vector<std::filesystem::path>& files() const { return files_; }

 protected:
  // Makes the next part's file, new and unshared, in file: the name, or
  // " (2)" and so on before the extension when that is taken (an older
  // recording's track is never overwritten). The name made joins the list; empty
  // when no file could be made.
  std::filesystem::path createNextFile(platform::File& file, const char* extension);
  void deleteFiles();

  std::filesystem::path basePath_;
  uint32_t track_;
  uint32_t part_ = 0;
  std::vector<std::filesystem::path> files_;
};

}  // namespace kestrium
