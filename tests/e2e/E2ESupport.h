#pragma once

// What the end-to-end suites share: reading the client's output, probing files
// with ffprobe, the server's own figures, and a capture client written by hand,
// which can do what any program of the user could do to a capture's objects.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "client/FrameSource.h"
#include "recorder/CaptureObjects.h"
#include "server/CommandBlock.h"
#include "server/CommandChannel.h"
#include "tests/support/TestSupport.h"

namespace kestrium::test {

inline bool haveTools() { return !std::string(KESTRIUM_FFPROBE).empty(); }

// Every file the client says it made, from the end of its output.
inline std::vector<std::filesystem::path> filesIn(const std::string& clientOutput) {
  std::vector<std::filesystem::path> files;
  std::istringstream lines(clientOutput);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();  // text mode on Windows
    if (!line.empty() && line.find('=') == std::string::npos && line.rfind("kestrium-client:", 0) != 0) {
      files.emplace_back(line);
    }
  }
  return files;
}

// Those of them with that extension, in order of name.
inline std::vector<std::filesystem::path> filesIn(const std::string& clientOutput, const std::string& extension) {
  std::vector<std::filesystem::path> files = filesIn(clientOutput);
  std::erase_if(files, [&](const auto& file) { return file.extension() != extension; });
  std::sort(files.begin(), files.end());
  return files;
}

// The files under a folder (with that extension, if given), in order of name.
inline std::vector<std::filesystem::path> filesUnder(const std::filesystem::path& folder,
                                                     const std::string& extension = {}) {
  std::vector<std::filesystem::path> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder, error)) {
    if (entry.is_regular_file() && (extension.empty() || entry.path().extension() == extension)) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

// What ffprobe says of a file with these options (quietly, errors aside).
inline std::string ffprobe(const std::filesystem::path& file, std::vector<std::string> options) {
  options.insert(options.begin(), {"-v", "error"});
  options.push_back(file.string());
  std::string out;
  EXPECT_EQ(runTool(KESTRIUM_FFPROBE, options, out), 0) << file << ": " << out;
  return out;
}

// ffmpeg decodes the whole file without a word.
inline void expectDecodes(const std::filesystem::path& file) {
  std::string out;
  EXPECT_EQ(runTool(KESTRIUM_FFMPEG, {"-v", "error", "-i", file.string(), "-f", "null", "-"}, out), 0) << out;
  EXPECT_EQ(out, "") << file << " decodes whole";
}

inline std::string field(const std::string& text, const std::string& name) {
  const size_t at = text.find(name + "=");
  if (at == std::string::npos) return {};
  const size_t start = at + name.size() + 1;
  return text.substr(start, text.find_first_of(" \n", start) - start);
}

// A decimal number in a tool's output, or -1 where there is none.
inline int64_t wholeNumber(const std::string& text) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return -1;
  return std::stoll(text);
}

// A count the server logs for a capture at its stop, in its line "Frames
// encoded N, refused M for NAME": which names the number ("encoded", "refused").
inline int64_t frameCount(const std::string& log, const std::string& name, const std::string& which) {
  const std::string tail = " for " + name + "\r\n";
  for (size_t end = log.find(tail); end != std::string::npos; end = log.find(tail, end + 1)) {
    const size_t start = log.rfind("Frames encoded ", end);
    if (start == std::string::npos || log.find('\n', start) < end) continue;
    const std::string line = log.substr(start, end - start);
    const size_t at = line.find(which + " ");
    if (at == std::string::npos) return -1;
    const size_t from = at + which.size() + 1;
    return wholeNumber(line.substr(from, line.find_first_of(", ", from) - from));
  }
  return -1;
}
inline int64_t framesEncoded(const std::string& log, const std::string& name) {
  return frameCount(log, name, "encoded");
}

// ffprobe's count of the video stream's packets and frames, read whole; -1 when
// it cannot read the file.
struct Probe {
  int64_t frames = -1;
  int64_t packets = -1;
  std::string text;
};
inline Probe probeVideo(const std::filesystem::path& file) {
  Probe p;
  if (runTool(KESTRIUM_FFPROBE,
              {"-v", "error", "-count_packets", "-select_streams", "v:0", "-show_entries",
               "stream=nb_frames,nb_read_packets", "-of", "default=nw=1", file.string()},
              p.text) != 0) {
    return p;
  }
  p.frames = wholeNumber(field(p.text, "nb_frames"));
  p.packets = wholeNumber(field(p.text, "nb_read_packets"));
  return p;
}

// n frames of the client's pattern (frame f drawn as pattern frame f * step),
// rgb24 top-down, as the client reads them with --source raw:FILE.
inline std::filesystem::path patternFile(const std::filesystem::path& file, uint32_t width, uint32_t height,
                                         uint32_t n, uint32_t step) {
  std::ofstream out(file, std::ios::binary);
  std::vector<std::byte> frame(size_t{width} * height * 3);
  for (uint32_t f = 0; f < n; ++f) {
    client::PatternSource::render(width, height, f * step, frame);
    out.write(reinterpret_cast<const char*>(frame.data()), static_cast<std::streamsize>(frame.size()));
  }
  return file;
}

// A recording's video as readers we did not write see it: ffprobe finds the
// codec (and the size, where given) and reads every packet, the first and then
// exactly every keyEvery-th a key frame (with keyEvery 0 unchecked), and ffmpeg
// decodes each packet to a frame without a complaint. The packets' bytes.
struct VideoExpected {
  std::string codec, width, height;
  int64_t packets = -1;  // -1: any number
  uint32_t keyEvery = 0;
  int64_t shortBy = 0;   // up to this many empty frames, which readers skip
};
inline uint64_t expectVideo(const std::filesystem::path& file, const VideoExpected& e) {
  std::string info, out;
  EXPECT_EQ(runTool(KESTRIUM_FFPROBE, {"-v", "error", "-select_streams", "v:0", "-show_entries",
                                       "stream=codec_name,width,height", "-of", "default=nw=1", file.string()},
                    info),
            0)
      << info;
  EXPECT_EQ(field(info, "codec_name"), e.codec) << info;
  if (!e.width.empty()) {
    EXPECT_EQ(field(info, "width"), e.width) << info;
  }
  if (!e.height.empty()) {
    EXPECT_EQ(field(info, "height"), e.height) << info;
  }
  EXPECT_EQ(runTool(KESTRIUM_FFPROBE, {"-v", "error", "-select_streams", "v:0", "-show_entries", "packet=size,flags",
                                       "-of", "csv=p=0", file.string()},
                    out),
            0)
      << out;
  std::istringstream lines(out);
  uint64_t bytes = 0;
  int64_t packets = 0;
  for (std::string line; std::getline(lines, line) && !line.empty(); ++packets) {
    bytes += std::stoull(line);
    if (e.keyEvery != 0) {
      EXPECT_EQ(line.find('K') != std::string::npos, packets % e.keyEvery == 0) << "packet " << packets << ": " << line;
    }
  }
  if (e.packets >= 0) {
    EXPECT_LE(packets, e.packets) << file;
    EXPECT_GE(packets, e.packets - e.shortBy) << file;
  }
  EXPECT_EQ(runTool(KESTRIUM_FFMPEG, {"-v", "error", "-i", file.string(), "-map", "0:v:0", "-f", "framecrc", "-"}, out),
            0);
  int64_t decoded = 0;
  std::string complaints;
  std::istringstream crcs(out);
  for (std::string line; std::getline(crcs, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (std::isdigit(static_cast<unsigned char>(line[0]))) ++decoded;
    else complaints += line + "\n";
  }
  EXPECT_EQ(decoded, packets) << "every packet decodes";
  EXPECT_EQ(complaints, "") << file;
  return bytes;
}

// Threads and resident memory of a process, where the OS tells (Linux).
inline std::optional<uint64_t> processStatus(uint32_t pid, const std::string& key) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(key + ":", 0) == 0) return std::stoull(line.substr(key.size() + 1));
  }
  return std::nullopt;
}

// A process's thread count once it has stopped changing (a server that has just
// opened its command channel is still starting its last threads).
inline std::optional<uint64_t> settledThreads(uint32_t pid) {
  std::optional<uint64_t> last = processStatus(pid, "Threads");
  for (int round = 0; round < 50; ++round) {
    platform::sleepMs(50);
    const std::optional<uint64_t> now = processStatus(pid, "Threads");
    if (now == last) return now;
    last = now;
  }
  return last;
}

// Waits until a process is back to the thread count it had (nothing to wait for
// where the OS does not tell), doing meanwhile between looks; the count at the end.
inline std::optional<uint64_t> threadsAfterSettling(uint32_t pid, std::optional<uint64_t> expected, uint64_t ms,
                                                    const std::function<void()>& meanwhile = {}) {
  const uint64_t until = platform::monotonicNs() + ms * 1000000;
  while (expected && processStatus(pid, "Threads") != expected && platform::monotonicNs() < until) {
    if (meanwhile) meanwhile();
    platform::sleepMs(20);
  }
  return processStatus(pid, "Threads");
}

// The client side of one capture, made by hand.
class RawCapture {
 public:
  RawCapture(std::u16string name, uint32_t width, uint32_t height, const std::filesystem::path& folder = {})
      : objects_(name), width_(width), height_(height), block_(std::make_unique<CommandBlock>()) {
    *block_ = {};
    block_->command = kCommandStart;
    block_->replyWanted = 1;
    StartParameters& p = block_->start;
    setWireString(p.recorderName, name);
    setWireString(p.baseName, u"game.exe");
    setWireString(p.encoder, u"no_compression");
    setWireString(p.destinationFolder, folder.u16string());
    p.width = width;
    p.height = height;
    p.frameRate = 30000;
    p.threads = 1;
    p.writeAtOnce = 1;
  }

  StartParameters& params() { return block_->start; }

  // Makes the objects as a client does; without holdClientAlive the capture
  // looks like one whose client died before the start.
  bool open(bool holdClientAlive = true) {
    if (holdClientAlive && (!objects_.openClientAlive(true) || !platform::owns(objects_.clientAlive.wait(0)))) {
      return false;
    }
    if (!objects_.openCommonData() || !objects_.openNewSource() || !objects_.openNewEncoded() ||
        !objects_.openSourceBuffer(uint64_t{width_} * height_ * 3)) {
      return false;
    }
    CommonData* c = objects_.common();
    *c = {};
    c->recordedSeconds = c->bufferedSeconds = -1.0f;
    storeShared(c->encodedFree, 1u);
    storeShared(c->sourceFree, 1u);
    return true;
  }

  // With replyMs 0 the start asks for no reply, as a sender that cannot wait.
  SendResult start(uint32_t replyMs = 10000) {
    block_->replyWanted = replyMs != 0 ? 1 : 0;
    return sendCommand(*block_, replyMs);
  }
  SendResult stop(bool deleteFiles = false) {
    return sendCommand(namedCommand(kCommandStop, objects_.session(), deleteFiles ? 1 : 0), 10000);
  }
  SendResult begin() { return sendCommand(namedCommand(kCommandEndPrerecording, objects_.session(), 0), 10000); }

  // One frame at that position, once the previous one has gone all the way
  // through (taken, encoded and written), so that none is refused for a busy
  // slot; false if that takes longer than ms.
  bool give(uint32_t position, uint8_t fill, uint32_t ms = 5000) {
    CommonData* c = objects_.common();
    if (!waitFree(ms)) return false;
    std::memset(objects_.sourceBuffer.view(), fill, size_t{width_} * height_ * 3);
    c->sourceSize = width_ * height_ * 3;
    c->sourceTimed = 0;
    c->sourcePosition = position;
    storeShared(c->sourceFree, 0u);
    objects_.newSource.set();
    return true;
  }

  bool waitFree(uint32_t ms) {
    const uint64_t until = platform::monotonicNs() + uint64_t{ms} * 1000000;
    const CommonData* c = objects_.common();
    while (loadShared(c->sourceFree) == 0 || loadShared(c->encodedFree) == 0) {
      if (platform::monotonicNs() > until) return false;
      platform::sleepMs(1);
    }
    return true;
  }

  CaptureObjects& objects() { return objects_; }

 private:
  CaptureObjects objects_;
  uint32_t width_, height_;
  std::unique_ptr<CommandBlock> block_;
};

}  // namespace kestrium::test
