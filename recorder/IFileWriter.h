#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "codecs/AlignedBuffer.h"
#include "fileOutput/IAudioWriter.h"
#include "fileOutput/WaveFormat.h"
#include "platform/Clock.h"
#include "platform/System.h"
#include "platform/Thread.h"
#include "videoEncoder/BitmapInfoHeader.h"

namespace kestrium {

// One buffered packet of the pre-recording list, with its own copy of the data.
struct PrerecordEntry {
  AlignedBuffer data;
  uint32_t size = 0;
  uint32_t track = 0;  // 0 video; n audio track n
  uint32_t timed = 0;  // 0: position is a frame number; else milliseconds
  uint32_t position = 0;  // absolute, before the base time is taken off
  uint32_t key = 0;
};

// The base of the recording outputs. It keeps the facts of the capture, builds
// the output path, owns the side audio tracks, and holds the list of packets:
// while pre-recording, a sliding window of the last seconds, kept in memory
// until the user asks for the recording; from then on the packets on their way
// to the file. A thread of the writer's own writes them, in order, so that the
// recorder's thread, which takes the client's frames, never waits on the disk
// (a parallel writer can hold a write up for tens of milliseconds). Subclasses
// write the container, on that thread.
class IFileWriter {
 public:
  // How far the file may fall behind the capture, in bytes of packets not yet
  // written (beyond a pre-recorded backlog), before a new packet waits for the
  // disk: the list's memory stays bounded when the disk is slower than the
  // capture for long.
  static constexpr size_t kBehindBytes = size_t{64} << 20;

  using Clock = std::function<platform::LocalTime()>;
  using MemoryMeasure = std::function<platform::MemoryStatus()>;

  IFileWriter(bool sideTracks, float prerecordLimit, std::filesystem::path destination);
  virtual ~IFileWriter();
  IFileWriter(const IFileWriter&) = delete;
  IFileWriter& operator=(const IFileWriter&) = delete;

  // Makes the writer of the container named exactly "AVI" or "MP4", or logs why
  // not and gives null.
  static std::unique_ptr<IFileWriter> Create(bool sideTracks, float prerecordLimit, std::u16string_view container,
                                             const std::filesystem::path& destination);

  // The subclass's part. write takes a position relative to the base time and
  // keeps nothing of the data; track 0 is video, n from 1 audio track n.
  virtual int write(std::span<const std::byte> data, uint32_t track, uint32_t timed, uint32_t position,
                    uint32_t key) = 0;
  // Opens the file at the path with the subclass's extension; 1 on success.
  virtual int open() = 0;
  // Finishes the file, or deletes it (and the side tracks) with discard.
  virtual void close(bool discard) = 0;

  void setNames(std::u16string baseName, bool folderByName, bool folderByDate, uint32_t reservedFlag);
  void setVideoFormat(uint32_t width, uint32_t height, uint32_t frameRate, const BitmapInfoHeader& header);
  void setVideoParameters(uint32_t width, uint32_t height, uint32_t frameRate, uint32_t bitrate,
                          std::span<const std::byte> extraData);
  void addAudioFormat(const WaveFormat& format, uint16_t configuration);
  void setExtraData(std::span<const std::byte> extraData) { extraData_.assign(extraData.begin(), extraData.end()); }
  void setAudioSideBitrate(uint32_t kbps) { audioSideBitrate_ = kbps; }
  void setEncoderValue(uint32_t value) { encoderValue_ = value; }
  void setDelayedBegin() {
    idle_ = false;
    delayed_ = true;
  }

  // From pre-recording to writing: builds the path, opens the file and starts
  // the list at its first video key frame. 0 when the file cannot be opened.
  // Called again while writing, it finishes the file being written (whole, with
  // everything it was given) and goes on in a new one from the next video frame.
  int begin();

  // The way in for every packet: into the list while it holds anything or
  // pre-recording is on, else straight to the file.
  void writeWrapper(std::span<const std::byte> data, uint32_t track, uint32_t timed, uint32_t position,
                    uint32_t key);

  // Ends the recording: everything buffered reaches the file, or with
  // deleteFiles everything is thrown away.
  void finish(bool deleteFiles);

  // Returns once every packet given so far has reached the subclass (or was
  // dropped on its way); at once while pre-recording.
  void waitWritten();

  // The length of the list, for the client's figures.
  float bufferedSeconds();

  bool prerecording() const { return prerecording_; }
  uint32_t baseTime();
  bool delayed() const { return delayed_; }
  bool idle() const { return idle_; }
  bool takesTimeStamps() const { return takesTimeStamps_; }
  const std::filesystem::path& destination() const { return destination_; }
  // The output's path without its extension, as the subclass really made it.
  const std::filesystem::path& path() const { return path_; }
  uint64_t bytesWritten();
  float recordedSeconds();
  size_t listSize();
  uint32_t videoEntries();
  // The file could not be written: the recording cannot go on, and what it
  // holds is all there will be.
  bool outputFailed() const { return outputFailed_; }

  // For tests: the clock of the path's time stamp, the memory measure of the
  // pre-recording rule, and how far the file may fall behind (before begin).
  void setClock(Clock clock) { clock_ = std::move(clock); }
  void setMemoryMeasure(MemoryMeasure measure) { memoryMeasure_ = std::move(measure); }
  void setBehindLimit(size_t bytes) { behindBytes_ = bytes; }

 protected:
  void openSideTracks();
  void closeSideTracks(bool discard);
  // The subclass names the path it really used (a taken name gets a number).
  void setPath(std::filesystem::path path) { path_ = std::move(path); }
  void markOutputFailed() { outputFailed_ = true; }
  // Ends the writing thread, leaving what it had not written. A subclass calls
  // it first in its destructor: the thread calls the subclass.
  void stopWriting();

  bool takesTimeStamps_ = false;
  uint32_t width_ = 0;
  uint32_t height_ = 0;
  uint32_t bitrate_ = 0;
  uint32_t frameRate_ = 0;  // thousandths of a frame per second
  BitmapInfoHeader bitmapHeader_{};
  std::vector<std::byte> extraData_;
  bool sideTracks_;
  std::vector<WaveFormat> audioFormats_;
  uint32_t audioSideBitrate_ = 0;
  uint32_t encoderValue_ = 0;
  uint16_t audioConfiguration_ = 0;
  std::vector<std::unique_ptr<IAudioWriter>> sideWriters_;  // null for a track that failed
  // Written by the writing thread, read for the client's figures at any time.
  std::atomic<uint64_t> bytesWritten_{0};
  std::atomic<float> recordedSeconds_{-1.0f};
  uint32_t frameCounters_[3] = {0, 0, 0};

  void addLocked(std::span<const std::byte> data, uint32_t track, uint32_t timed, uint32_t position, uint32_t key);
  // Takes the list's head for the file (lock_ held): false when there is none.
  // Its position comes out relative to the base time; drop says that it has
  // no place in the file.
  bool takeHead(PrerecordEntry& entry, bool& drop);
  // A buffer of at least size bytes, a spare one where there is one (lock_ held).
  AlignedBuffer bufferFor(size_t size);
  // Keeps a buffer that is no longer needed for the next packets (lock_ held).
  void recycle(AlignedBuffer buffer);
  // Writes the list's head (lock_ and outputLock_ held); false when the list is empty.
  bool drainOne();
  void popOldest();
  void skipToKey();
  void writerLoop();

  std::deque<PrerecordEntry> list_;
  size_t listBytes_ = 0;
  // Buffers of packets gone, for the packets to come: a few, the largest.
  static constexpr size_t kSpares = 4;
  std::vector<AlignedBuffer> spares_;
  // Lock order: beginLock_, outputLock_, lock_. beginLock_ keeps two begins (the
  // client's and a delayed one) apart; outputLock_ is held for every write and
  // while begin replaces the output, so no packet reaches a closed file; lock_
  // guards the list, the pre-recording flag, the base time and the writing
  // thread's state. A packet that comes takes lock_ alone, briefly: never a
  // lock that a write holds.
  std::mutex beginLock_;
  std::mutex outputLock_;
  std::mutex lock_;
  std::condition_variable listChanged_;  // a packet came, one was written, or the thread is to end
  platform::Thread writerThread_;
  bool writerRunning_ = false;
  bool stopWriter_ = false;
  bool writerBusy_ = false;  // the thread writes a packet it took from the list
  size_t behindBytes_ = kBehindBytes;
  size_t roomLimit_ = kBehindBytes;
  std::atomic<bool> prerecording_{true};
  bool opened_ = false;  // begin opened the file
  bool rebase_ = false;  // the next video frame starts the grid of a new file
  uint32_t baseTime_ = 0;
  std::atomic<bool> delayed_{false};
  std::atomic<bool> idle_{true};
  std::atomic<bool> outputFailed_{false};
  std::u16string baseName_;
  std::filesystem::path destination_;
  float prerecordLimit_;
  std::filesystem::path path_;
  bool folderByName_ = false;
  bool folderByDate_ = false;
  uint32_t reservedFlag_ = 0;
  uint32_t videoEntries_ = 0;
  Clock clock_ = platform::localTime;
  MemoryMeasure memoryMeasure_ = platform::memoryStatus;
};

}  // namespace kestrium
