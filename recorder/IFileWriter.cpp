#include "recorder/IFileWriter.h"

#include <algorithm>
#include <cstring>
#include <system_error>

#include "fileOutput/MP3Writer.h"
#include "fileOutput/WavWriter.h"
#include "server/Log.h"

namespace kestrium {

namespace {

// The base name without its extension. A "." at the very start is part of the
// name, not an extension.
std::u16string cutName(const std::u16string& baseName) {
  const size_t dot = baseName.rfind(u'.');
  return dot == std::u16string::npos || dot == 0 ? baseName : baseName.substr(0, dot);
}

// The file name part of a base name. Clients send a program's name, but one
// that holds a folder ("..\\..\\x.exe", "/tmp/x.exe", "C:x.exe") must never
// place the recording outside its destination folder.
std::u16string fileNamePart(const std::u16string& baseName) {
  const size_t cut = baseName.find_last_of(u"/\\:");
  std::u16string name = cut == std::u16string::npos ? baseName : baseName.substr(cut + 1);
  if (name == u"." || name == u"..") name.clear();
  return name;
}

std::u16string dateText(const platform::LocalTime& t) {
  return formatWide(u"%04d-%02d-%02d", t.year, t.month, t.day);
}

}  // namespace

IFileWriter::IFileWriter(bool sideTracks, float prerecordLimit, std::filesystem::path destination)
    : sideTracks_(sideTracks), destination_(std::move(destination)), prerecordLimit_(prerecordLimit) {}

IFileWriter::~IFileWriter() = default;

void IFileWriter::setNames(std::u16string baseName, bool folderByName, bool folderByDate, uint32_t reservedFlag) {
  baseName_ = fileNamePart(baseName);
  if (baseName_ != baseName) {
    logLine(u"[Warning] *** CAP *** Base name %s names a folder; the recording is named by \"%s\"\n", baseName,
            baseName_);
  }
  folderByName_ = folderByName;
  folderByDate_ = folderByDate;
  reservedFlag_ = reservedFlag;
}

void IFileWriter::setVideoFormat(uint32_t width, uint32_t height, uint32_t frameRate,
                                 const BitmapInfoHeader& header) {
  width_ = width;
  height_ = height;
  frameRate_ = frameRate;
  bitmapHeader_ = header;
}

void IFileWriter::setVideoParameters(uint32_t width, uint32_t height, uint32_t frameRate, uint32_t bitrate,
                                     std::span<const std::byte> extraData) {
  if (width != 0 && height != 0) {
    width_ = width;
    height_ = height;
    frameRate_ = frameRate;
    bitrate_ = bitrate;
  }
  if (extraData.data() != nullptr && !extraData.empty()) setExtraData(extraData);
}

void IFileWriter::addAudioFormat(const WaveFormat& format, uint16_t configuration) {
  audioFormats_.push_back(format);
  audioConfiguration_ = configuration;
}

int IFileWriter::begin() {
  std::lock_guard beginGuard(beginLock_);
  idle_ = false;
  logLine(u"  \n");
  const platform::LocalTime now = clock_();
  const std::u16string name = cutName(baseName_);

  std::filesystem::path folder = destination_;
  if (folderByName_ || folderByDate_) {
    std::u16string sub = folderByName_ ? name : std::u16string();
    if (folderByDate_) sub += (sub.empty() ? u"" : u"_") + dateText(now);
    folder /= sub;
  }
  std::error_code ignored;
  std::filesystem::create_directories(folder, ignored);
  path_ = folder / (name + formatWide(u"_%04d-%02d-%02d_%02d-%02d-%02d", now.year, now.month, now.day, now.hour,
                                      now.minute, now.second));

  if (!opened_) {
    // Until pre-recording ends every packet goes to the list, so nothing is
    // written while the file opens and the recorder's thread never waits for it.
    if (open() == 0) return 0;
    std::lock_guard guard(lock_);
    opened_ = true;
    prerecording_ = false;
    skipToKey();
    if (!list_.empty()) baseTime_ = list_.front().position;
    return 1;
  }

  // Already writing: the recorder's thread waits at outputLock_ while the file
  // it was writing is finished and the next one is opened.
  std::lock_guard output(outputLock_);
  {
    std::lock_guard guard(lock_);
    while (drainOne()) {
    }
    rebase_ = true;
  }
  close(false);
  frameCounters_[0] = frameCounters_[1] = frameCounters_[2] = 0;
  recordedSeconds_ = -1.0f;
  if (open() == 0) {
    // The finished file is whole; with nowhere to write, the capture ends.
    markOutputFailed();
    return 0;
  }
  return 1;
}

void IFileWriter::writeWrapper(std::span<const std::byte> data, uint32_t track, uint32_t timed, uint32_t position,
                               uint32_t key) {
  std::lock_guard output(outputLock_);
  std::unique_lock guard(lock_);
  if (!prerecording_ && list_.empty()) {
    if (rebase_) {
      // A new file starts its grid at the first video frame it gets; a timed
      // packet before that has no time in it yet.
      if (track != 0 && timed != 0) return;
      if (track == 0) {
        baseTime_ = position;
        rebase_ = false;
      }
    }
    guard.unlock();
    writeDirect(data, track, timed, position, key);
    return;
  }
  addLocked(data, track, timed, position, key);
}

void IFileWriter::writeDirect(std::span<const std::byte> data, uint32_t track, uint32_t timed, uint32_t position,
                              uint32_t key) {
  if (outputFailed_) return;
  if (timed != 0 && position < baseTime_) return;
  write(data, track, timed, position - baseTime_, key);
}

void IFileWriter::addLocked(std::span<const std::byte> data, uint32_t track, uint32_t timed, uint32_t position,
                            uint32_t key) {
  if (prerecording_ && !list_.empty()) {
    // The window is measured by its video frames at the capture's rate, not by
    // the time stamps.
    while (!list_.empty() &&
           static_cast<float>(videoEntries_) * 1000.0f / static_cast<float>(frameRate_) >= prerecordLimit_) {
      popOldest();
    }
  }
  if (prerecording_) {
    const platform::MemoryStatus memory = memoryMeasure_();
    const uint64_t free = memory.availableBytes >> 20, total = memory.totalBytes >> 20;
    // Below 15 % free, two go for every one that comes: the list shrinks.
    if (total != 0 && free * 100 / total < 15) {
      popOldest();
      popOldest();
    }
  }

  PrerecordEntry entry;
  entry.data = AlignedBuffer(data.size());
  if (!data.empty() && entry.data.empty()) {
    const platform::MemoryStatus memory = memoryMeasure_();
    logLine(u"[Error]   Error allocation pre-recording buffer\n");
    logLine(u"  Total heap memory %d Mbytes,  free %d Mbytes\n", memory.totalBytes >> 20, memory.availableBytes >> 20);
    return;
  }
  if (!data.empty()) std::memcpy(entry.data.data(), data.data(), data.size());
  entry.size = static_cast<uint32_t>(data.size());
  entry.track = track;
  entry.timed = timed;
  entry.position = position;
  entry.key = key;
  list_.push_back(std::move(entry));
  if (track == 0) ++videoEntries_;

  // After begin each packet that joins the list takes two from its head: the
  // backlog shrinks by one a packet, in order, without a pause.
  if (!prerecording_ && !list_.empty() && drainOne()) drainOne();
}

bool IFileWriter::drainOne() {
  if (list_.empty()) return false;
  const PrerecordEntry& head = list_.front();
  writeDirect({head.data.data(), head.size}, head.track, head.timed, head.position, head.key);
  popOldest();
  return !list_.empty();
}

void IFileWriter::popOldest() {
  if (list_.empty()) return;
  if (list_.front().track == 0) --videoEntries_;
  list_.pop_front();
}

void IFileWriter::skipToKey() {
  auto isKey = [](const PrerecordEntry& e) { return e.track == 0 && e.key != 0; };
  const auto key = std::find_if(list_.begin(), list_.end(), isKey);
  const bool haveKey = key != list_.end();
  const uint32_t keyPosition = haveKey ? key->position : 0;
  // Timed sound can reach the list before the frame of its time, which the
  // encoder still held: what is stamped at or after the key frame belongs to
  // the file, right behind the key frame. Untimed sound has its place by order
  // alone and goes.
  std::vector<PrerecordEntry> kept;
  while (!list_.empty() && !isKey(list_.front())) {
    PrerecordEntry& front = list_.front();
    if (haveKey && front.track != 0 && front.timed != 0 && front.position >= keyPosition) {
      kept.push_back(std::move(front));
    }
    popOldest();
  }
  if (!list_.empty()) {
    list_.insert(list_.begin() + 1, std::make_move_iterator(kept.begin()), std::make_move_iterator(kept.end()));
  }
}

void IFileWriter::finish(bool deleteFiles) {
  std::lock_guard begin(beginLock_);
  std::lock_guard output(outputLock_);
  {
    std::lock_guard guard(lock_);
    // Without an open file there is nowhere to write the backlog to.
    if (!deleteFiles && opened_) {
      while (drainOne()) {
      }
    }
    while (!list_.empty()) popOldest();
  }
  if (idle_) return;
  close(deleteFiles);
}

uint64_t IFileWriter::bytesWritten() {
  std::lock_guard output(outputLock_);
  return bytesWritten_;
}

float IFileWriter::recordedSeconds() {
  std::lock_guard output(outputLock_);
  return recordedSeconds_;
}

uint32_t IFileWriter::baseTime() {
  std::lock_guard guard(lock_);
  return baseTime_;
}

size_t IFileWriter::listSize() {
  std::lock_guard guard(lock_);
  return list_.size();
}

uint32_t IFileWriter::videoEntries() {
  std::lock_guard guard(lock_);
  return videoEntries_;
}

float IFileWriter::bufferedSeconds() {
  std::lock_guard guard(lock_);
  if (list_.size() < 3) return 0.0f;
  auto first = list_.begin();
  while (first != list_.end() && first->track != 0) ++first;
  auto last = list_.end();
  do {
    --last;
  } while (last != list_.begin() && last->track != 0);
  if (first == list_.end() || last->track != 0 || first >= last) return 0.0f;
  const float difference = static_cast<float>(last->position - first->position);
  if (first->timed != 0) return difference / 1000.0f;
  return difference * 1000.0f / static_cast<float>(frameRate_);
}

void IFileWriter::openSideTracks() {
  for (size_t index = 0; index < audioFormats_.size(); ++index) {
    std::unique_ptr<IAudioWriter> writer;
    if (audioSideBitrate_ != 0) {
      writer = std::make_unique<MP3Writer>(path_, static_cast<uint32_t>(index));
    } else {
      writer = std::make_unique<WavWriter>(path_, static_cast<uint32_t>(index));
    }
    if (writer->open(&audioFormats_[index]) == 0) {
      logLine(u"[Error]   Cannot start wave %s track %d\n", path_.u16string(), static_cast<uint32_t>(index));
      writer.reset();
    }
    sideWriters_.push_back(std::move(writer));
  }
}

void IFileWriter::closeSideTracks(bool discard) {
  for (auto& writer : sideWriters_) {
    if (writer) writer->close(discard);
  }
  // A following file opens its own tracks from index 0 again.
  sideWriters_.clear();
}

}  // namespace kestrium
