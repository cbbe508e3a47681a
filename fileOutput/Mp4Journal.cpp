#include "fileOutput/Mp4Journal.h"

#include <cstring>

namespace kestrium::mp4journal {

namespace {

enum : uint8_t { kVideo = 'v', kAudio = 'a', kSample = 's' };
enum : uint8_t { kAudioFlag = 1, kKeyFlag = 2 };

template <class T>
void put(std::vector<std::byte>& to, T value) {
  const auto* bytes = reinterpret_cast<const std::byte*>(&value);
  to.insert(to.end(), bytes, bytes + sizeof value);
}

// Reads values off the front of the bytes; false once they run out.
class Reader {
 public:
  explicit Reader(std::span<const std::byte> bytes) : bytes_(bytes) {}
  template <class T>
  bool get(T& value) {
    if (bytes_.size() - at_ < sizeof value) return false;
    std::memcpy(&value, bytes_.data() + at_, sizeof value);
    at_ += sizeof value;
    return true;
  }
  bool get(std::vector<std::byte>& value, uint32_t size) {
    if (bytes_.size() - at_ < size) return false;
    value.assign(bytes_.begin() + static_cast<ptrdiff_t>(at_), bytes_.begin() + static_cast<ptrdiff_t>(at_ + size));
    at_ += size;
    return true;
  }
  size_t at() const { return at_; }
  bool done() const { return at_ == bytes_.size(); }

 private:
  std::span<const std::byte> bytes_;
  size_t at_ = 0;
};

}  // namespace

void appendMark(std::vector<std::byte>& to) {
  to.insert(to.end(), reinterpret_cast<const std::byte*>(kMark), reinterpret_cast<const std::byte*>(kMark) + 4);
}

void appendVideo(std::vector<std::byte>& to, const VideoTrack& track) {
  put<uint8_t>(to, kVideo);
  put(to, track.width);
  put(to, track.height);
  put(to, track.frameRate);
  put(to, static_cast<uint32_t>(track.configuration.size()));
  to.insert(to.end(), track.configuration.begin(), track.configuration.end());
}

void appendAudio(std::vector<std::byte>& to, const AudioTrack& track) {
  put<uint8_t>(to, kAudio);
  put<uint8_t>(to, track.mp3 ? 1 : 0);
  put(to, track.sampleRate);
  put(to, track.bitrate);
  put(to, track.samplesPerFrame);
  put(to, track.configuration);
}

void appendSample(std::vector<std::byte>& to, const Sample& sample) {
  put<uint8_t>(to, kSample);
  put<uint8_t>(to, static_cast<uint8_t>((sample.audio ? kAudioFlag : 0) | (sample.key ? kKeyFlag : 0)));
  put(to, sample.time);
  put(to, sample.position);
  put(to, sample.size);
}

bool read(std::span<const std::byte> bytes, Journal& journal, std::string& error) {
  journal = {};
  if (bytes.size() < 4 || std::memcmp(bytes.data(), kMark, 4) != 0) {
    error = "not an MP4 journal: it does not start with " + std::string(kMark, 4);
    return false;
  }
  Reader in(bytes.subspan(4));
  while (!in.done()) {
    const size_t start = in.at();
    uint8_t type = 0;
    in.get(type);
    bool whole = false;
    if (type == kVideo) {
      VideoTrack track;
      uint32_t size = 0;
      whole = in.get(track.width) && in.get(track.height) && in.get(track.frameRate) && in.get(size) &&
              in.get(track.configuration, size);
      if (whole) journal.video = std::move(track);
    } else if (type == kAudio) {
      AudioTrack track;
      uint8_t mp3 = 0;
      whole = in.get(mp3) && in.get(track.sampleRate) && in.get(track.bitrate) && in.get(track.samplesPerFrame) &&
              in.get(track.configuration);
      track.mp3 = mp3 != 0;
      if (whole) journal.audio = track;
    } else if (type == kSample) {
      Sample sample;
      uint8_t flags = 0;
      whole = in.get(flags) && in.get(sample.time) && in.get(sample.position) && in.get(sample.size);
      sample.audio = (flags & kAudioFlag) != 0;
      sample.key = (flags & kKeyFlag) != 0;
      if (whole) journal.samples.push_back(sample);
    } else {
      error = "unknown record " + std::to_string(type) + " at byte " + std::to_string(start + 4) + " of the journal";
      return false;
    }
    // The writer died in the middle of its last record.
    if (!whole) break;
  }
  return true;
}

}  // namespace kestrium::mp4journal
