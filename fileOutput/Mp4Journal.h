#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kestrium::mp4journal {

// The journal an MP4 file keeps beside itself while it is written ("NAME.mp4"
// has "NAME.mp4.journal"): what its index will need and no frame holds. A
// server that dies leaves a file with its data and no "moov"; with the journal,
// kestrium-repair feeds the same samples to a new file in the same order and
// gets the index the writer would have made. The file is removed once the MP4
// is finished.
//
// Little-endian records behind a four-byte mark: the tracks' settings as they
// are set, then one record for each sample: where its data lie in the file,
// how long they are, and the time and kind the writer was given. A record that
// is cut off at the end is no record.

inline constexpr char kMark[4] = {'K', 'M', 'J', '1'};
inline constexpr char kSuffix[] = ".journal";

struct VideoTrack {
  uint32_t width = 0, height = 0, frameRate = 0;
  std::vector<std::byte> configuration;  // the AVC configuration record
};

struct AudioTrack {
  bool mp3 = false;
  uint32_t sampleRate = 0, bitrate = 0, samplesPerFrame = 0;
  uint16_t configuration = 0;
};

struct Sample {
  bool audio = false;
  bool key = false;
  uint32_t time = 0;  // milliseconds, as the writer was given it
  uint64_t position = 0;
  uint32_t size = 0;
};

struct Journal {
  std::optional<VideoTrack> video;
  std::optional<AudioTrack> audio;
  std::vector<Sample> samples;
};

void appendMark(std::vector<std::byte>& to);
void appendVideo(std::vector<std::byte>& to, const VideoTrack& track);
void appendAudio(std::vector<std::byte>& to, const AudioTrack& track);
void appendSample(std::vector<std::byte>& to, const Sample& sample);

// False, with the reason, when the bytes are no journal; a record cut off at
// the end is left out.
bool read(std::span<const std::byte> bytes, Journal& journal, std::string& error);

}  // namespace kestrium::mp4journal
