#include "tools/Repair.h"

#include <cstring>
#include <optional>
#include <vector>

#include "fileOutput/AVIOutputFile.h"
#include "fileOutput/MP4Container.h"
#include "fileOutput/Mp4Journal.h"
#include "tools/AviReader.h"
#include "videoEncoder/BitmapInfoHeader.h"

namespace kestrium::tools {

namespace {

// A stream's chunk: two digits and a kind in two small letters ("dc", "db",
// "wb", ...).
std::optional<int> streamOf(uint32_t id) {
  const int stream = chunkStream(id);
  const auto letter = [](uint32_t c) { return c >= 'a' && c <= 'z'; };
  if (stream < 0 || !letter((id >> 16) & 0xFF) || !letter(id >> 24)) return std::nullopt;
  return stream;
}

// Chunks the movi list holds besides the streams' own.
bool isKnownChunk(uint32_t id) {
  return id == fourcc("JUNK") || id == fourcc("LIST") || (id & 0xFFFF) == (fourcc("ix00") & 0xFFFF);
}

struct StreamHeaders {
  AVIStreamHeader header{};
  std::vector<std::byte> format;
};

struct Chunk {
  int stream;
  uint64_t offset;
  uint32_t size;
};

// What a killed server's AVI holds: its stream headers (written first, whole)
// and every chunk that lies whole in the file, in file order. The sizes of the
// RIFF and movi lists are not trusted: the writer patches them only when it
// closes a segment or the file.
class AviSalvage {
 public:
  bool read(ByteSource& source, std::string& error) {
    source_ = &source;
    std::byte head[12];
    if (!source.read(0, head) || readLe32(head) != fourcc("RIFF") || readLe32(head + 8) != fourcc("AVI ")) {
      error = "not an AVI file";
      return false;
    }
    uint64_t pos = 12;
    const uint64_t end = source.size();
    while (pos + 8 <= end && source.read(pos, std::span(head, 8))) {
      const uint32_t id = readLe32(head), size = readLe32(head + 4);
      if (id == fourcc("RIFF")) {
        // The next segment: its chunks follow its 12-byte head.
        pos += 12;
        continue;
      }
      if (id == fourcc("LIST") && pos + 12 <= end && source.read(pos + 8, std::span(head + 8, 4))) {
        const uint32_t type = readLe32(head + 8);
        if (type == fourcc("hdrl")) {
          if (pos + 8 + size > end || !readHeaders(pos + 12, pos + 8 + size, error)) {
            if (error.empty()) error = "the header list" + atByte(pos) + " is cut off";
            return false;
          }
        } else if (type == fourcc("movi")) {
          pos = walkMovi(pos + 12);
          if (stopped_) break;
          continue;
        }
      }
      const uint64_t next = pos + 8 + size + (size & 1);
      if (next > end) break;
      pos = next;
    }
    if (streams_.empty()) {
      error = "no stream headers";
      return false;
    }
    if (streams_[0].header.fccType != fourcc("vids")) {
      error = "the first stream is no video stream";
      return false;
    }
    return true;
  }

  const std::vector<StreamHeaders>& streams() const { return streams_; }
  const std::vector<Chunk>& chunks() const { return chunks_; }
  uint64_t dataEnd() const { return dataEnd_; }

 private:
  bool readHeaders(uint64_t begin, uint64_t end, std::string& error) {
    for (uint64_t pos = begin; pos + 12 <= end;) {
      std::byte head[12];
      if (!source_->read(pos, head)) return false;
      const uint32_t size = readLe32(head + 4);
      if (readLe32(head) == fourcc("LIST") && readLe32(head + 8) == fourcc("strl")) {
        StreamHeaders stream;
        bool haveHeader = false;
        for (uint64_t at = pos + 12; at + 8 <= pos + 8 + size;) {
          std::byte item[8];
          if (!source_->read(at, item)) return false;
          const uint32_t itemSize = readLe32(item + 4);
          if (readLe32(item) == fourcc("strh") && itemSize >= sizeof(AVIStreamHeader)) {
            haveHeader = source_->read(at + 8, std::as_writable_bytes(std::span(&stream.header, 1)));
          } else if (readLe32(item) == fourcc("strf") && itemSize <= 0x10000) {
            stream.format.resize(itemSize);
            if (!source_->read(at + 8, stream.format)) return false;
          }
          at += 8 + uint64_t{itemSize} + (itemSize & 1);
        }
        if (!haveHeader || stream.format.empty()) {
          error = "stream " + std::to_string(streams_.size()) + " lacks its header or format";
          return false;
        }
        streams_.push_back(std::move(stream));
      }
      // In 64 bits: a size near 4 GB must not wrap the step to nothing.
      pos += 8 + uint64_t{size} + (size & 1);
    }
    return true;
  }

  // The chunks of one movi list from begin; where the walk ended. It stops for
  // good at a chunk that is cut off or that no writer of ours makes.
  uint64_t walkMovi(uint64_t begin) {
    uint64_t pos = begin;
    const uint64_t fileEnd = source_->size();
    while (pos + 8 <= fileEnd) {
      std::byte head[8];
      if (!source_->read(pos, head)) break;
      const uint32_t id = readLe32(head), size = readLe32(head + 4);
      // The next segment or the first one's index: the list ended here, whatever
      // size it claims (the writer patches it last).
      if (id == fourcc("RIFF") || id == fourcc("idx1")) return pos;
      const std::optional<int> stream = streamOf(id);
      const uint64_t next = pos + 8 + size + (size & 1);
      if ((!stream && !isKnownChunk(id)) || pos + 8 + size > fileEnd) break;
      if (id == fourcc("LIST")) {
        pos += 12;  // a "rec " list: its chunks follow
        continue;
      }
      if (stream && *stream < static_cast<int>(streams_.size())) {
        chunks_.push_back({*stream, pos + 8, size});
        dataEnd_ = std::min(next, fileEnd);
      }
      pos = next;
    }
    stopped_ = true;
    return pos;
  }

  ByteSource* source_ = nullptr;
  std::vector<StreamHeaders> streams_;
  std::vector<Chunk> chunks_;
  uint64_t dataEnd_ = 0;
  bool stopped_ = false;
};

bool isH264(uint32_t compression) {
  for (uint32_t code : {fourcc("H264"), fourcc("h264"), fourcc("X264"), fourcc("x264"), fourcc("avc1"), fourcc("AVC1")}) {
    if (compression == code) return true;
  }
  return false;
}

// Whether an H.264 frame holds an IDR picture, its units behind start codes or
// behind four-byte lengths.
bool holdsIdr(std::span<const std::byte> frame) {
  const auto* p = reinterpret_cast<const uint8_t*>(frame.data());
  const size_t n = frame.size();
  const bool annexB = n >= 4 && p[0] == 0 && p[1] == 0 && (p[2] == 1 || (p[2] == 0 && p[3] == 1));
  if (annexB) {
    for (size_t i = 0; i + 3 < n; ++i) {
      if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1 && (p[i + 3] & 0x1F) == 5) return true;
    }
    return false;
  }
  for (size_t i = 0; i + 4 < n;) {
    const size_t length = (size_t{p[i]} << 24) | (size_t{p[i + 1]} << 16) | (size_t{p[i + 2]} << 8) | p[i + 3];
    if ((p[i + 4] & 0x1F) == 5) return true;
    i += 4 + length;
  }
  return false;
}

RepairReport repairAvi(FileSource& source, const std::filesystem::path& output) {
  RepairReport report;
  AviSalvage salvage;
  if (!salvage.read(source, report.error)) return report;
  const auto& streams = salvage.streams();
  if (streams.size() > 1 + AVIOutput::kAudioStreams) {
    report.error = "more streams than an AVI of ours holds";
    return report;
  }
  // Players read the picture's size and code from it: a file made without
  // one whole would be no AVI anyone reads.
  if (streams[0].format.size() < sizeof(BitmapInfoHeader)) {
    report.error = "the video stream's format ('strf') of " + std::to_string(streams[0].format.size()) +
                   " bytes is short of a BITMAPINFOHEADER";
    return report;
  }

  AVIOutputFile avi;
  if (avi.initOutputStreams() == 0) {
    report.error = "no memory";
    return report;
  }
  AVIVideoOutputStream& video = *avi.videoStream();
  video.header = streams[0].header;
  video.header.dwLength = 1;
  video.format = streams[0].format;
  uint32_t compression = 0;
  int32_t width = 0, height = 0;
  std::memcpy(&width, video.format.data() + 4, 4);
  std::memcpy(&height, video.format.data() + 8, 4);
  compression = readLe32(video.format.data() + 16);
  video.chunkId = compression != 0 ? fourcc("00dc") : fourcc("00db");
  uint32_t audioMask = 0;
  for (size_t i = 1; i < streams.size(); ++i) {
    AVIAudioOutputStream& audio = *avi.audioStream(static_cast<int>(i - 1));
    audio.header = streams[i].header;
    audio.header.dwLength = 1;
    audio.format = streams[i].format;
    audioMask |= 1u << (i - 1);
  }
  if (avi.init(output, static_cast<uint32_t>(width), static_cast<uint32_t>(height < 0 ? -height : height), 1,
               audioMask, 100000, 1) == 0) {
    report.error = "cannot create " + output.string();
    return report;
  }
  const bool h264 = isH264(compression);
  std::vector<std::byte> data;
  for (const Chunk& chunk : salvage.chunks()) {
    data.resize(chunk.size);
    if (!source.read(chunk.offset, data)) {
      report.error = "cannot read the chunk" + atByte(chunk.offset);
      avi.finalize();
      return report;
    }
    if (chunk.stream == 0) {
      const bool key = !data.empty() && (!h264 || holdsIdr(data));
      video.write(key ? kAviKeyFrame : 0, data, 1, 0);
      ++report.videoFrames;
    } else {
      avi.audioStream(chunk.stream - 1)->write(0, data, 0, static_cast<uint32_t>(chunk.stream));
      ++report.audioChunks;
    }
    if (avi.failed()) {
      report.error = "writing " + output.string() + " failed";
      avi.finalize();
      return report;
    }
  }
  avi.finalize();
  report.lostBytes = source.size() - std::min(source.size(), salvage.dataEnd());
  report.ok = report.videoFrames != 0;
  if (!report.ok) report.error = "no whole frame reached the file";
  return report;
}

RepairReport repairMp4(FileSource& source, const std::filesystem::path& input, const std::filesystem::path& output) {
  RepairReport report;
  std::filesystem::path journalPath = input;
  journalPath += mp4journal::kSuffix;
  FileSource journalFile;
  if (!journalFile.open(journalPath)) {
    report.error = "no journal " + journalPath.string() +
                   " beside it: an MP4 that was closed needs no repair, and one without its journal cannot have one";
    return report;
  }
  std::vector<std::byte> bytes(journalFile.size());
  mp4journal::Journal journal;
  if (!journalFile.read(0, bytes) || !mp4journal::read(bytes, journal, report.error)) {
    if (report.error.empty()) report.error = "cannot read " + journalPath.string();
    return report;
  }

  platform::File file;
  if (!file.open(output, platform::File::Mode::CreateAlways)) {
    report.error = "cannot create " + output.string();
    return report;
  }
  MP4Container mp4;
  mp4.open(std::move(file));
  if (journal.video) {
    const auto& v = *journal.video;
    mp4.setVideoTrack(v.width, v.height, v.frameRate, v.configuration);
  }
  if (journal.audio) {
    const auto& a = *journal.audio;
    mp4.setAudioTrack(a.mp3, a.sampleRate, a.bitrate, a.samplesPerFrame, a.configuration);
  }
  std::vector<std::byte> data;
  uint64_t end = 0;
  for (const mp4journal::Sample& sample : journal.samples) {
    // The journal runs ahead of the data: what the file lacks was never written.
    if (sample.position > source.size() || sample.size > source.size() - sample.position) break;
    data.resize(sample.size);
    if (!source.read(sample.position, data)) break;
    mp4.addSample(sample.audio ? 1 : 0, sample.time, data, sample.key);
    ++(sample.audio ? report.audioChunks : report.videoFrames);
    end = std::max(end, sample.position + sample.size);
    if (mp4.failed()) {
      report.error = "writing " + output.string() + " failed";
      mp4.finalize();
      return report;
    }
  }
  mp4.finalize();
  report.lostBytes = source.size() - std::min(source.size(), end);
  report.ok = report.videoFrames != 0;
  if (!report.ok) report.error = "no whole frame reached the file";
  return report;
}

}  // namespace

std::filesystem::path repairedPath(const std::filesystem::path& input) {
  std::filesystem::path out = input;
  out.replace_extension();
  out += ".repaired";
  out += input.extension();
  return out;
}

RepairReport repairRecording(const std::filesystem::path& input, const std::filesystem::path& output) {
  RepairReport report;
  report.output = output;
  std::error_code sameError;
  if (std::filesystem::equivalent(input, output, sameError)) {
    report.error = "the repair must go to another file";
    return report;
  }
  FileSource source;
  if (!source.open(input)) {
    report.error = "cannot open " + input.string();
    return report;
  }
  std::byte head[12] = {};
  source.read(0, head);
  if (readLe32(head) == fourcc("RIFF")) {
    report = repairAvi(source, output);
  } else if (readLe32(head + 4) == fourcc("ftyp")) {
    report = repairMp4(source, input, output);
  } else {
    report.error = "neither an AVI nor an MP4 file";
  }
  report.output = output;
  return report;
}

}  // namespace kestrium::tools
