#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "fileOutput/Mp4Journal.h"
#include "fileOutput/Serializer.h"
#include "platform/File.h"

namespace kestrium {

// One sample as the tables remember it: where it lies, how long it is and its
// time in milliseconds.
struct MP4Sample {
  uint64_t position;
  uint32_t size;
  uint32_t time;
};
static_assert(sizeof(MP4Sample) == 16);

// Writes an MP4 file with one H.264 video track and at most one audio track
// (AAC or MP3). Samples go into one growing "mdat" as they come, in the order
// they come; the tables stay in memory until finalize puts "moov" behind the
// data and patches the size of "mdat". Every key frame carries the parameter
// sets in front of it, so that a file cut anywhere can still be decoded from
// any key frame on. Not locked: its owner serialises the calls.
class MP4Container {
 public:
  // Seconds since 1970, for the boxes' creation times.
  using Clock = std::function<uint64_t()>;

  // What the tables of one track come to at the end of the file.
  struct TrackTables {
    std::vector<uint64_t> chunkOffsets;
    std::vector<std::pair<uint32_t, uint32_t>> stsc;  // first chunk, samples per chunk
    std::vector<std::pair<uint32_t, uint32_t>> stts;  // sample count, delta
    uint64_t audioPosition = 0;                       // in samples; audio only
  };

  static constexpr uint64_t kMdatHeaderSize = 16;

  explicit MP4Container(Clock clock = nullptr);
  ~MP4Container();
  MP4Container(const MP4Container&) = delete;
  MP4Container& operator=(const MP4Container&) = delete;

  // Writes the head of the file into a file the caller has made. 0 when the
  // file is not open.
  int open(platform::File file);
  // The same into any sink (tests count bytes instead of keeping them).
  int open(std::unique_ptr<Serializer> sink);

  // The AVC configuration record as the encoder gives it. False, and no
  // parameter sets, when it is too short for what it says it holds.
  bool setVideoTrack(uint32_t width, uint32_t height, uint32_t frameRate, std::span<const std::byte> extraData);
  // bitrate in bits a second; configuration: the two bytes of the AAC
  // AudioSpecificConfig in memory order.
  void setAudioTrack(bool mp3, uint32_t sampleRate, uint32_t bitrate, uint32_t samplesPerFrame,
                     uint16_t configuration);

  // Keeps the journal (fileOutput/Mp4Journal.h) in this sink from here on: the
  // tracks as they are set and every sample that was written, handed to the
  // sink whenever more of the file's data has reached the file, so that what is
  // in the file is in the journal. Set it before the tracks.
  void keepJournal(std::unique_ptr<Serializer> journal);

  // Track 0 is video, any other audio. Times in milliseconds.
  int addSample(uint32_t track, uint32_t time, std::span<const std::byte> data, bool key);

  // Writes "moov" and closes the file. 0 if it never opened.
  int finalize();

  bool isOpen() const { return open_; }
  // A write failed: what came after it is not in the file.
  bool failed() const { return sink_ && !sink_->ok(); }
  uint32_t error() const { return sink_ ? sink_->error() : 0; }
  size_t videoSamples() const { return video_.size(); }
  size_t audioSamples() const { return audio_.size(); }
  size_t syncSamples() const { return sync_.size(); }

  // The tables as the file will have them: the chunk rule and the time-to-sample
  // steps over the samples in the order they came.
  TrackTables videoTables() const;
  TrackTables audioTables() const;
  // The whole "moov" box as finalize writes it.
  std::vector<std::byte> buildMoov(uint64_t secondsSince1970) const;

 private:
  enum Kind { kVideo = 0, kKey = 3, kAudio = 4 };

  void writeSample(std::span<const std::byte> data, uint32_t time, int kind);
  void writeVideo(std::span<const std::byte> data, uint32_t time, bool key);
  void writeAudio(std::span<const std::byte> data, uint32_t time);
  // After a failed write: the samples that did not wholly reach the file go.
  void dropLostSamples(uint64_t durable);
  // The journal's record of a sample whose data begin at position.
  void note(bool audio, bool key, uint32_t time, uint64_t position, size_t size);
  // Hands the journal's records to its sink once more data are in the file.
  void writeJournal(bool now);
  // Drops the samples that end past limit and cuts the file behind the rest;
  // the new end of the data.
  uint64_t cutTo(uint64_t limit);

  Clock clock_;
  std::unique_ptr<Serializer> sink_;
  bool open_ = false;

  uint32_t width_ = 0, height_ = 0, frameRate_ = 0;  // thousandths of a frame per second
  std::vector<uint8_t> sps_, pps_;

  bool audioSet_ = false;
  bool mp3_ = false;
  uint32_t sampleRate_ = 0, samplesPerFrame_ = 0, bitrate_ = 0;
  uint8_t configuration_[2] = {0, 0};

  std::vector<MP4Sample> video_, audio_;
  std::vector<uint32_t> sync_;  // 1-based numbers of the key frames
  // Video samples that took a second write for their instant, with the size
  // of their first: the next frame is not where the chunk expected it.
  std::vector<std::pair<size_t, uint32_t>> merged_;
  uint32_t lastRelativeTime_ = 0;
  uint32_t firstVideoTime_ = 0xFFFFFFFF;
  uint64_t mdatPosition_ = 0;
  uint32_t timesBack_ = 0;      // video times earlier than the one before
  uint32_t audioDropped_ = 0;   // audio samples without a declared track

  std::unique_ptr<Serializer> journal_;
  std::vector<std::byte> journalRecords_;  // not yet handed to the journal
  uint64_t journaledData_ = 0;             // the file's durable bytes when it last was
};

}  // namespace kestrium
