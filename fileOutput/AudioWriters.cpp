#include <algorithm>
#include <cstring>

#include "fileOutput/AacConfig.h"

#include "fileOutput/MP3Writer.h"
#include "fileOutput/WavWriter.h"
#include "platform/System.h"
#include "server/Log.h"

namespace kestrium {

std::filesystem::path IAudioWriter::createNextFile(platform::File& file, const char* extension) {
  std::filesystem::path stem = basePath_;
  stem += "." + std::to_string(track_) + "." + std::to_string(part_++);
  // New, so that nothing is overwritten, but open to readers: a player may
  // follow the sound of a recording while it goes on.
  std::filesystem::path name = file.createNumbered(stem, extension, platform::File::Share::All);
  if (!name.empty()) files_.push_back(name);
  return name;
}

void IAudioWriter::deleteFiles() {
  for (const auto& file : files_) platform::File::remove(file);
}

WavWriter::WavWriter(std::filesystem::path basePath, uint32_t track, uint64_t partLimit)
    : IAudioWriter(std::move(basePath), track), partLimit_(partLimit) {}

WavWriter::~WavWriter() { endFile(); }

int WavWriter::open(const WaveFormat* format) {
  if (format == nullptr || format->empty()) return 0;
  format_ = *format;
  // Writes of a few milliseconds each stay in memory; a quarter second of them
  // goes to the file at once. A format without a byte rate flushes every write.
  flushEvery_ = std::max<size_t>(format_.avgBytesPerSec() / 4, 1);
  return startFile() ? 1 : 0;
}

bool WavWriter::startFile() {
  platform::File file;
  const std::filesystem::path name = createNextFile(file, ".wav");
  if (name.empty()) {
    logLine(u"[Error]   *** WAV *** open file %d\n", platform::lastError());
    return false;
  }
  logLine(u"  *** WAV *** new file    : %s\n", name.u16string());
  sink_.open(std::move(file));
  riffStart_ = sink_.beginList("RIFF", "WAVE");
  const int64_t fmt = sink_.beginChunk("fmt ");
  sink_.write(format_.bytes());
  if (!sink_.ok()) logLine(u"[Error]   *** WAV *** writing wave format chunk\n");
  sink_.endChunk(fmt);
  dataStart_ = sink_.beginChunk("data");
  bytes_ = 0;
  return sink_.ok();
}

void WavWriter::endFile() {
  if (!sink_.isOpen()) return;
  sink_.endChunk(dataStart_);
  sink_.endChunk(riffStart_);
  if (!sink_.close()) logLine(u"[Error]   *** WAV *** closing file %d\n", platform::lastError());
}

int WavWriter::write(std::span<const std::byte> data) {
  if (!sink_.isOpen() || data.data() == nullptr || data.empty()) return 0;
  // A new part comes before the write that would take this one to the limit.
  if (bytes_ > 0 && bytes_ + data.size() >= partLimit_) {
    endFile();
    if (!startFile()) return 0;
  }
  const int64_t inFile = sink_.inFile();
  sink_.write(data);
  bytes_ += data.size();
  // A sink that wrote to the file by itself (its buffer was full) leaves the
  // sizes behind: they follow at once.
  if (sink_.buffered() >= flushEvery_ || sink_.inFile() != inFile) flushToDisk();
  return sink_.ok() ? 1 : 0;
}

void WavWriter::flushToDisk() {
  if (!sink_.flush()) return;
  // Two small writes in place: a reader of a file cut off here finds every byte
  // up to now, and no more than there is.
  const int64_t end = sink_.position();
  sink_.patchL32(riffStart_ + 4, static_cast<uint32_t>(end - riffStart_ - 8));
  sink_.patchL32(dataStart_ + 4, static_cast<uint32_t>(end - dataStart_ - 8));
}

int WavWriter::close(bool discard) {
  endFile();
  format_ = {};
  if (discard) deleteFiles();
  return 1;
}

int MP3Writer::open(const WaveFormat* format) {
  if (format != nullptr && format->formatTag() == aac::kWaveFormatTag) {
    adtsRateIndex_ = aac::rateIndex(format->samplesPerSec());
    adtsChannels_ = static_cast<uint8_t>(format->channels());
    // A rate ADTS cannot name, or a layout past eight channels: the frames go
    // as they are, as for any other format.
    if (adtsChannels_ < 1 || adtsChannels_ > 8) adtsRateIndex_.reset();
  }
  const std::filesystem::path name = createNextFile(file_, ".mp3");
  if (name.empty()) {
    logLine(u"[Error]   *** MP3 *** open file %d\n", platform::lastError());
    return 0;
  }
  logLine(u"  *** MP3 *** new file    : %s\n", name.u16string());
  return 1;
}

int MP3Writer::write(std::span<const std::byte> data) {
  if (!file_.isOpen() || data.data() == nullptr || data.empty()) return 0;
  if (adtsRateIndex_ && data.size() + aac::kAdtsHeaderBytes <= aac::kAdtsMaxFrameBytes) {
    // One write for header and frame: a file cut off by a crash never ends
    // on a header without its frame.
    const auto header = aac::adtsHeader(*adtsRateIndex_, adtsChannels_, data.size());
    framed_.resize(header.size() + data.size());
    std::memcpy(framed_.data(), header.data(), header.size());
    std::memcpy(framed_.data() + header.size(), data.data(), data.size());
    data = framed_;
  }
  if (!file_.write(data)) return 0;
  bytes_ += data.size();
  return 1;
}

int MP3Writer::close(bool discard) {
  file_.close();
  if (discard) deleteFiles();
  return 1;
}

}  // namespace kestrium
