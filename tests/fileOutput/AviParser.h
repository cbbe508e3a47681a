#pragma once

// What the AVI tests share: the product's muxer set up as the recording output
// sets it up, and a reader of the file back chunk by chunk, with every chunk's
// place in the file, so that tests can check the layout byte by byte.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "fileOutput/AVIOutputFile.h"
#include "fileOutput/WaveFormat.h"
#include "videoEncoder/BitmapInfoHeader.h"

namespace kestrium::test {

// An AVIOutputFile of width x height frames of the given codec at 30 fps, with
// `audio` streams of 48 kHz stereo PCM, writing to path (open for others to read,
// as a killed writer leaves it).
inline std::unique_ptr<AVIOutputFile> openAvi(const std::filesystem::path& path, int64_t segmentLimit, uint32_t width,
                                              uint32_t height, uint32_t compression, int audio = 0,
                                              size_t formatSize = 40) {
  auto avi = std::make_unique<AVIOutputFile>(segmentLimit);
  avi->initOutputStreams();
  AVIVideoOutputStream& video = *avi->videoStream();
  video.header.fccType = fourcc("vids");
  video.header.fccHandler = compression;
  video.header.dwScale = 1000;
  video.header.dwRate = 30000;
  video.header.dwLength = 1;
  video.chunkId = fourcc(compression == 0 ? "00db" : "00dc");
  const BitmapInfoHeader bi = makeBitmapHeader(static_cast<int32_t>(width), static_cast<int32_t>(height),
                                               compression == 0 ? 24 : 16, compression, 0);
  video.format.assign(formatSize, std::byte{0});
  std::memcpy(video.format.data(), &bi, std::min(formatSize, sizeof bi));
  const WaveFormat pcm = WaveFormat::pcm(48000, 2, 16);
  for (int i = 0; i < audio; ++i) {
    AVIAudioOutputStream& a = *avi->audioStream(i);
    a.header.fccType = fourcc("auds");
    a.header.dwScale = 4;
    a.header.dwRate = 192000;
    a.header.dwLength = 1;
    a.header.dwSampleSize = 4;
    a.format.assign(pcm.bytes().begin(), pcm.bytes().end());
  }
  platform::File file;
  if (!file.open(path, platform::File::Mode::CreateAlways) ||
      avi->init(std::move(file), path, width, height, 1, (1u << audio) - 1, 100000, 1) != 1) {
    return nullptr;
  }
  return avi;
}

struct AviChunk {
  std::string code;  // "RIFF", "LIST", "00dc", ...
  std::string type;  // the form or list type of RIFF and LIST
  int64_t position = 0;  // of the chunk header
  uint32_t size = 0;
  std::vector<AviChunk> children;

  int64_t dataPosition() const { return position + (type.empty() ? 8 : 12); }
  const AviChunk* find(const std::string& c, const std::string& t = {}) const {
    for (const auto& child : children) {
      if (child.code == c && (t.empty() || child.type == t)) return &child;
    }
    return nullptr;
  }
  std::vector<const AviChunk*> all(const std::string& c) const {
    std::vector<const AviChunk*> out;
    for (const auto& child : children) {
      if (child.code == c || (c.size() == 2 && child.code.compare(2, 2, c) == 0)) out.push_back(&child);
    }
    return out;
  }
};

class AviFile {
 public:
  explicit AviFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    int64_t at = 0;
    while (at + 8 <= size()) {
      AviChunk chunk = parse(at, size());
      const int64_t next = chunk.size == 0 ? size() : chunk.position + 8 + chunk.size + (chunk.size & 1);
      top.push_back(std::move(chunk));
      if (next <= at) break;
      at = next;
    }
  }

  int64_t size() const { return static_cast<int64_t>(bytes_.size()); }
  uint32_t u32(int64_t at) const {
    uint32_t v = 0;
    if (at >= 0 && at + 4 <= size()) std::memcpy(&v, bytes_.data() + at, 4);
    return v;
  }
  uint64_t u64(int64_t at) const { return u32(at) | (uint64_t{u32(at + 4)} << 32); }
  uint16_t u16(int64_t at) const { return static_cast<uint16_t>(u32(at) & 0xFFFF); }
  uint8_t u8(int64_t at) const { return static_cast<uint8_t>(bytes_[static_cast<size_t>(at)]); }
  std::string text(int64_t at, size_t n) const {
    return at + static_cast<int64_t>(n) <= size() ? std::string(bytes_.data() + at, n) : std::string();
  }
  const char* data(int64_t at) const { return bytes_.data() + at; }
  // Every data chunk of every movi list (index chunks left out), in file order.
  std::vector<const AviChunk*> moviChunks() const {
    std::vector<const AviChunk*> out;
    for (const auto& riff : top) {
      if (const AviChunk* movi = riff.find("LIST", "movi")) {
        for (const auto& c : movi->children) {
          if (c.code.rfind("ix", 0) != 0) out.push_back(&c);
        }
      }
    }
    return out;
  }

  std::vector<AviChunk> top;

 private:
  AviChunk parse(int64_t at, int64_t end) const {
    AviChunk chunk;
    chunk.position = at;
    chunk.code = text(at, 4);
    chunk.size = u32(at + 4);
    if (chunk.code == "RIFF" || chunk.code == "LIST") {
      chunk.type = text(at + 8, 4);
      // A list whose size was never patched (0, or a placeholder past the end)
      // runs to the end of the file.
      const int64_t listEnd = chunk.size == 0 ? end : std::min<int64_t>(at + 8 + chunk.size, end);
      int64_t child = at + 12;
      while (child + 8 <= listEnd) {
        AviChunk c = parse(child, listEnd);
        const int64_t next = c.position + 8 + c.size + (c.size & 1);
        chunk.children.push_back(std::move(c));
        if (next <= child) break;
        child = next;
      }
    }
    return chunk;
  }

  std::vector<char> bytes_;
};

}  // namespace kestrium::test
