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

IFileWriter::~IFileWriter() { stopWriting(); }

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
    {
      std::lock_guard guard(lock_);
      opened_ = true;
      prerecording_ = false;
      skipToKey();
      if (!list_.empty()) baseTime_ = list_.front().position;
      // The pre-recorded backlog is in memory already: the file may fall
      // behind by that much more.
      roomLimit_ = listBytes_ + behindBytes_;
      if (!writerRunning_) {
        stopWriter_ = false;
        writerRunning_ = writerThread_.start([this] { writerLoop(); }, "kestrium-write");
        if (!writerRunning_) {
          logLine(u"[Warning] *** CAP *** No thread for writing the file: the recorder writes it and may wait "
                  u"for the disk\n");
        }
      }
    }
    listChanged_.notify_all();
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
  std::unique_lock guard(lock_);
  // A disk that stays slower than the capture: the file is as far behind as it
  // may be, and the packet waits for room.
  listChanged_.wait(guard, [&] {
    return prerecording_ || !writerRunning_ || list_.empty() || listBytes_ + data.size() <= roomLimit_;
  });
  addLocked(data, track, timed, position, key);
  const bool here = !prerecording_ && !writerRunning_;
  guard.unlock();
  if (!here) {
    listChanged_.notify_all();
    return;
  }
  // Without the writing thread the packets go to the file on this one.
  std::lock_guard output(outputLock_);
  std::lock_guard again(lock_);
  while (drainOne()) {
  }
}

void IFileWriter::writerLoop() {
  for (;;) {
    {
      std::unique_lock guard(lock_);
      listChanged_.wait(guard, [this] { return stopWriter_ || (!prerecording_ && !list_.empty()); });
      if (stopWriter_) return;
    }
    // The output first, as everyone takes them: a begin that replaces the file
    // finds no packet half on its way.
    std::lock_guard output(outputLock_);
    PrerecordEntry entry;
    bool drop = false;
    {
      std::lock_guard guard(lock_);
      if (stopWriter_) return;
      if (prerecording_ || !takeHead(entry, drop)) continue;
      writerBusy_ = true;
    }
    // The packet taken has made room for one that waits.
    listChanged_.notify_all();
    // The write, which may wait on the disk, holds no lock that a packet takes.
    if (!drop && !outputFailed_) {
      write({entry.data.data(), entry.size}, entry.track, entry.timed, entry.position, entry.key);
    }
    {
      std::lock_guard guard(lock_);
      writerBusy_ = false;
      recycle(std::move(entry.data));
    }
    listChanged_.notify_all();
  }
}

void IFileWriter::stopWriting() {
  {
    std::lock_guard guard(lock_);
    if (!writerRunning_) return;
    stopWriter_ = true;
  }
  listChanged_.notify_all();
  writerThread_.join(platform::kInfinite);
  {
    std::lock_guard guard(lock_);
    writerRunning_ = false;
  }
  listChanged_.notify_all();
}

void IFileWriter::waitWritten() {
  std::unique_lock guard(lock_);
  listChanged_.wait(guard, [this] { return prerecording_ || !writerRunning_ || (list_.empty() && !writerBusy_); });
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
  entry.data = bufferFor(data.size());
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
  listBytes_ += entry.size;
  list_.push_back(std::move(entry));
  if (track == 0) ++videoEntries_;
}

AlignedBuffer IFileWriter::bufferFor(size_t size) {
  if (size == 0) return {};
  for (auto spare = spares_.begin(); spare != spares_.end(); ++spare) {
    if (spare->size() >= size) {
      AlignedBuffer buffer = std::move(*spare);
      spares_.erase(spare);
      return buffer;
    }
  }
  // Rounded up, so that a buffer serves the next frames too, whose sizes vary.
  constexpr size_t kGrain = size_t{64} << 10;
  return AlignedBuffer((size + kGrain - 1) / kGrain * kGrain);
}

void IFileWriter::recycle(AlignedBuffer buffer) {
  if (buffer.empty()) return;
  if (spares_.size() < kSpares) {
    spares_.push_back(std::move(buffer));
    return;
  }
  // Full: the larger buffers stay, which serve any frame.
  auto smallest = std::min_element(spares_.begin(), spares_.end(),
                                   [](const AlignedBuffer& a, const AlignedBuffer& b) { return a.size() < b.size(); });
  if (smallest->size() < buffer.size()) *smallest = std::move(buffer);
}

bool IFileWriter::takeHead(PrerecordEntry& entry, bool& drop) {
  if (list_.empty()) return false;
  entry = std::move(list_.front());
  popOldest();
  drop = false;
  if (rebase_) {
    // A new file starts its grid at the first video frame it gets; a timed
    // packet before that has no time in it yet.
    if (entry.track != 0 && entry.timed != 0) {
      drop = true;
      return true;
    }
    if (entry.track == 0) {
      baseTime_ = entry.position;
      rebase_ = false;
    }
  }
  drop = entry.timed != 0 && entry.position < baseTime_;
  entry.position -= baseTime_;
  return true;
}

bool IFileWriter::drainOne() {
  PrerecordEntry entry;
  bool drop = false;
  if (!takeHead(entry, drop)) return false;
  if (!drop && !outputFailed_) {
    write({entry.data.data(), entry.size}, entry.track, entry.timed, entry.position, entry.key);
  }
  recycle(std::move(entry.data));
  return !list_.empty();
}

void IFileWriter::popOldest() {
  if (list_.empty()) return;
  if (list_.front().track == 0) --videoEntries_;
  listBytes_ -= list_.front().size;
  // What leaves the window of a pre-recording (or the list, written) holds the
  // next packet: a frame costs a copy, not an allocation and its page faults.
  recycle(std::move(list_.front().data));
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
    for (const PrerecordEntry& e : kept) listBytes_ += e.size;
    list_.insert(list_.begin() + 1, std::make_move_iterator(kept.begin()), std::make_move_iterator(kept.end()));
  }
}

void IFileWriter::finish(bool deleteFiles) {
  {
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
    if (!idle_) close(deleteFiles);
  }
  stopWriting();
}

uint64_t IFileWriter::bytesWritten() { return bytesWritten_; }

float IFileWriter::recordedSeconds() { return recordedSeconds_; }

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
