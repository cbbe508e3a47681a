#include "fileOutput/FileWriterMP4.h"

#include "server/Log.h"

namespace kestrium {

namespace {

constexpr uint16_t kWaveFormatMp3 = 0x55;
// The journal gets a record for each sample and is written whenever data reach
// the file (at every key frame, and each time the file's buffer is full): a
// small buffer suffices.
constexpr size_t kJournalBuffer = 0x10000;

}  // namespace

FileWriterMP4::FileWriterMP4(bool sideTracks, float prerecordLimit, std::filesystem::path destination)
    : IFileWriter(sideTracks, prerecordLimit, std::move(destination)) {
  takesTimeStamps_ = true;
}

// The writing thread calls this object: it ends before the object does.
FileWriterMP4::~FileWriterMP4() { stopWriting(); }

std::filesystem::path FileWriterMP4::journalPath() const {
  std::filesystem::path journal = filePath_;
  journal += mp4journal::kSuffix;
  return journal;
}

int FileWriterMP4::open() {
  untimed_ = 0;
  // Never over an existing file: two captures that start in the same second
  // with the same name get two files.
  platform::File file;
  filePath_ = file.createNumbered(path(), ".mp4");
  if (filePath_.empty()) {
    logLine(u"Cannot create file %d\r\n", platform::lastError());
    logLine(u"[Error]   Error initializing MP4 file\n");
    return 0;
  }
  std::filesystem::path stem = filePath_;
  setPath(stem.replace_extension());
  logLine(u"  *** MP4 *** MP4 file: %s\n", filePath_.u16string());
  mp4_ = std::make_unique<MP4Container>();
  if (mp4_->open(std::move(file)) == 0) {
    logLine(u"[Error]   Error initializing MP4 file\n");
    mp4_.reset();
    return 0;
  }
  // Without its journal a file whose server dies cannot be repaired; it still
  // records.
  platform::File journal;
  if (journal.open(journalPath(), platform::File::Mode::CreateAlways)) {
    mp4_->keepJournal(std::make_unique<XFileOutputSerializer>(std::move(journal), kJournalBuffer));
  } else {
    logLine(u"[Warning] *** MP4 *** No journal beside the file (error %u): it cannot be repaired if the server dies\n",
            platform::lastError());
  }
  if (!extraData_.empty() && !mp4_->setVideoTrack(width_, height_, frameRate_, extraData_)) {
    logLine(u"[Error]   *** MP4 *** The encoder's configuration record holds no whole parameter sets\n");
  }
  if (sideTracks_) {
    openSideTracks();
  } else if (!audioFormats_.empty()) {
    const WaveFormat& first = audioFormats_.front();
    mp4_->setAudioTrack(first.formatTag() == kWaveFormatMp3, first.samplesPerSec(), audioSideBitrate_ * 1000,
                        encoderValue_, audioConfiguration_);
    if (audioFormats_.size() > 1) {
      logLine(u"[Warning] *** MP4 *** An MP4 file holds one audio track: the sound of %u more devices is left out "
              u"(the mixer or side tracks keep it)\n",
              static_cast<uint32_t>(audioFormats_.size() - 1));
    }
  }
  return 1;
}

int FileWriterMP4::write(std::span<const std::byte> data, uint32_t track, uint32_t timed, uint32_t position,
                         uint32_t key) {
  if (timed == 0) {
    // The writer asks for times; a packet without one has no place in the file.
    if (untimed_++ == 0) logLine(u"[Error]   MP4 frame without time stamp\n");
    return 0;
  }
  if (!mp4_) {
    logLine(u"[Error]   ZERO MP4 pointer\n");
    return 0;
  }
  if (mp4_->failed()) return 0;
  if (track == 0) {
    mp4_->addSample(0, position, data, key != 0);
    ++frameCounters_[0];
    recordedSeconds_ = static_cast<float>(position / 1000.0);
  } else if (sideTracks_) {
    if (track <= sideWriters_.size() && sideWriters_[track - 1]) sideWriters_[track - 1]->write(data);
  } else if (track == 1) {
    mp4_->addSample(track + 1, position, data, true);
  } else {
    return 0;
  }
  if (mp4_->failed()) {
    logLine(u"[Error]   *** MP4 *** Writing the file failed (error %u): the recording of this file ends\n",
            mp4_->error());
    markOutputFailed();
    return 0;
  }
  bytesWritten_ += data.size();
  return 1;
}

void FileWriterMP4::close(bool discard) {
  if (untimed_ > 1) logLine(u"[Error]   *** MP4 *** %u packets without a time stamp were dropped\n", untimed_);
  untimed_ = 0;
  if (mp4_) {
    mp4_->finalize();
    mp4_.reset();
    platform::File::remove(journalPath());
    if (discard) platform::File::remove(filePath_);
  }
  if (sideTracks_) closeSideTracks(discard);
}

}  // namespace kestrium
