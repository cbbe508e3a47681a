#include "fileOutput/FileWriterAVI.h"

#include <cstring>
#include <optional>

#include "fileOutput/AacConfig.h"

#include "server/Log.h"

namespace kestrium {

namespace {

// A frame number that jumps further than this many seconds ahead of the grid
// is not a pause but a client that started counting anew (or a broken one):
// filling it would cost memory and disk for nothing. The grid starts again there.
constexpr uint64_t kLongestGapSeconds = 300;

constexpr uint16_t kWaveFormatExtensible = 0xFFFE;
constexpr uint16_t kWaveFormatMp3 = 0x55;
// Raw AAC as AVI readers know it: the base record and the AudioSpecificConfig.
constexpr uint16_t kWaveFormatRawAac = 0x00FF;

// An AAC track goes into the AVI as a stream of whole frames, one a chunk, each
// 1024 samples long, under the raw AAC tag with the stream's configuration:
// the form AVI readers decode. The encoder's own record (HE-AAC wave info)
// names no configuration, so it is made here from the track's rate and channels.
bool aviAacStream(const WaveFormat& format, AVIAudioOutputStream& audio) {
  const std::optional<uint8_t> rateIndex = aac::rateIndex(format.samplesPerSec());
  if (format.formatTag() != aac::kWaveFormatTag || !rateIndex) return false;
  const auto configuration = aac::specificConfig(*rateIndex, static_cast<uint8_t>(format.channels()));
  std::vector<std::byte> bytes(format.bytes().begin(), format.bytes().begin() + WaveFormat::kBaseSize);
  bytes[0] = std::byte(kWaveFormatRawAac & 0xFF);
  bytes[1] = std::byte(kWaveFormatRawAac >> 8);
  bytes[16] = std::byte(configuration.size());
  bytes[17] = std::byte(0);
  for (uint8_t b : configuration) bytes.push_back(std::byte(b));
  audio.format = std::move(bytes);
  audio.header.dwScale = 1024;
  audio.header.dwRate = format.samplesPerSec();
  audio.header.dwSampleSize = 0;
  return true;
}

}  // namespace

FileWriterAVI::FileWriterAVI(bool sideTracks, float prerecordLimit, std::filesystem::path destination,
                             int64_t segmentLimit)
    : IFileWriter(sideTracks, prerecordLimit, std::move(destination)), segmentLimit_(segmentLimit) {
  takesTimeStamps_ = false;
}

// The writing thread calls this object: it ends before the object does.
FileWriterAVI::~FileWriterAVI() { stopWriting(); }

int FileWriterAVI::open() {
  gridOrigin_ = 0;
  avi_ = std::make_unique<AVIOutputFile>(segmentLimit_);
  if (avi_->initOutputStreams() == 0) {
    avi_.reset();
    return 0;
  }
  AVIVideoOutputStream& video = *avi_->videoStream();
  if (width_ != 0 && height_ != 0) {
    // An encoder without a bitmap format describes its stream by a configuration
    // record (H.264): the stream is "H264" with the record behind the header,
    // where readers find a codec's extra data.
    const bool h264 = bitmapHeader_.biSize == 0 && !extraData_.empty();
    BitmapInfoHeader format = bitmapHeader_;
    if (h264) {
      format = makeBitmapHeader(static_cast<int32_t>(width_), static_cast<int32_t>(height_), 24,
                                makeFourcc('H', '2', '6', '4'), width_ * height_ * 3);
    }
    AVIStreamHeader& h = video.header;
    h.fccType = fourcc("vids");
    h.fccHandler = format.biCompression;
    h.dwScale = 1000;
    h.dwRate = frameRate_;
    h.dwLength = 1;
    h.dwSuggestedBufferSize = width_ * height_ * 3;
    h.dwQuality = 0xFFFFFFFF;
    h.rcFrame[2] = static_cast<int16_t>(width_);
    h.rcFrame[3] = static_cast<int16_t>(height_);
    video.chunkId = format.biCompression != 0 ? fourcc("00dc") : fourcc("00db");
    video.format.resize(sizeof format);
    std::memcpy(video.format.data(), &format, sizeof format);
    if (h264) video.format.insert(video.format.end(), extraData_.begin(), extraData_.end());
  }

  uint32_t audioMask = 0;
  if (!sideTracks_) {
    for (size_t i = 0; i < audioFormats_.size() && i < AVIOutput::kAudioStreams; ++i) {
      const WaveFormat& format = audioFormats_[i];
      AVIAudioOutputStream& audio = *avi_->audioStream(static_cast<int>(i));
      audio.header = {};
      audio.header.fccType = fourcc("auds");
      audio.header.dwScale = format.blockAlign();
      audio.header.dwRate = format.avgBytesPerSec();
      audio.header.dwLength = 1;
      audio.header.dwSampleSize = format.blockAlign();
      audioMask |= 1u << i;
      if (aviAacStream(format, audio)) continue;
      // Only these two formats carry bytes after the base record that a reader needs.
      const bool withExtra = format.formatTag() == kWaveFormatExtensible || format.formatTag() == kWaveFormatMp3;
      const auto bytes = format.bytes().first(withExtra ? format.bytes().size() : WaveFormat::kBaseSize);
      audio.format.assign(bytes.begin(), bytes.end());
    }
  }

  // Never over an existing file: two captures that start in the same second
  // with the same name get two files.
  platform::File file;
  filePath_ = file.createNumbered(path(), ".avi");
  if (filePath_.empty()) {
    logLine(u"Cannot create file %d\r\n", platform::lastError());
    avi_.reset();
    return 0;
  }
  std::filesystem::path stem = filePath_;
  setPath(stem.replace_extension());
  logLine(u"  *** AVI *** AVI file    : %s\n", filePath_.u16string());
  if (sideTracks_) openSideTracks();
  if (avi_->init(std::move(file), filePath_, static_cast<uint16_t>(video.header.rcFrame[2]),
                 static_cast<uint16_t>(video.header.rcFrame[3]), 1, audioMask, 100000, 1) == 0) {
    avi_.reset();
    return 0;
  }
  return 1;
}

int FileWriterAVI::write(std::span<const std::byte> data, uint32_t track, uint32_t timed, uint32_t position,
                         uint32_t key) {
  if (!avi_) {
    logLine(u"[Error]   ZERO AVI pointer\n");
    return 0;
  }
  if (avi_->failed()) return 0;
  if (track == 0) {
    writeVideo(data, timed != 0 ? gridPlace(position) : position, key);
  } else if (sideTracks_) {
    if (track <= sideWriters_.size() && sideWriters_[track - 1]) sideWriters_[track - 1]->write(data);
  } else if (track <= AVIOutput::kAudioStreams && avi_->audioStream(static_cast<int>(track) - 1) != nullptr) {
    avi_->audioStream(static_cast<int>(track) - 1)->write(0, data, 0, track);
  } else {
    return 0;
  }
  if (avi_->failed()) {
    // The file keeps every whole chunk before the failure; the capture ends.
    markOutputFailed();
    return 0;
  }
  bytesWritten_ += data.size();
  return 1;
}

uint32_t FileWriterAVI::gridPlace(uint32_t milliseconds) const {
  if (frameRate_ == 0) return milliseconds;
  return static_cast<uint32_t>((uint64_t{milliseconds} * frameRate_ + 500000) / 1000000);
}

void FileWriterAVI::writeVideo(std::span<const std::byte> data, uint32_t position, uint32_t key) {
  AVIVideoOutputStream& video = *avi_->videoStream();
  // The frame first, then the empties of the gap before it: a late frame is
  // shown a little early, and the length stays right.
  video.write(key != 0 ? kAviKeyFrame : 0, data, 1, 0);
  ++frameCounters_[0];
  const int64_t grid = frameCounters_[2];
  int64_t missing = static_cast<int64_t>(position - gridOrigin_) - grid - 1;
  const int64_t longest = static_cast<int64_t>(kLongestGapSeconds * frameRate_ / 1000);
  if (missing > longest || missing < -longest) {
    if (jumps_++ == 0) {
      logLine(u"[Warning] *** AVI *** Frame number %u jumps %I64d frames ahead; the frame grid starts again there\n",
              position, missing + 1);
    }
    // This frame takes the place it was written to; later numbers count from it.
    gridOrigin_ = position - static_cast<uint32_t>(grid);
    missing = 0;
  }
  for (; missing > 0; --missing) {
    video.write(0, {}, 1, 0);
    ++frameCounters_[1];
  }
  frameCounters_[2] = frameCounters_[0] + frameCounters_[1];
  if (frameRate_ != 0) {
    recordedSeconds_ = static_cast<float>(uint64_t{frameCounters_[2]} * 1000 / frameRate_);
  }
}

void FileWriterAVI::close(bool discard) {
  if (jumps_ > 1) logLine(u"[Warning] *** AVI *** The frame grid started again %u times\n", jumps_);
  jumps_ = 0;
  if (avi_) {
    avi_->finalize();
    avi_.reset();
    if (discard) platform::File::remove(filePath_);
  }
  if (sideTracks_) closeSideTracks(discard);
}

}  // namespace kestrium
