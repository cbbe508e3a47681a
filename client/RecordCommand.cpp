#include "client/RecordCommand.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "client/ClientMain.h"
#include "client/FrameSource.h"
#include "platform/Clock.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "recorder/CaptureObjects.h"
#include "server/CommandBlock.h"
#include "server/CommandChannel.h"

namespace kestrium::client {

namespace {

constexpr uint32_t kReplyPatienceMs = 10000;
constexpr uint64_t kComeUpPatienceNs = 5'000'000'000ull;
// A recorder takes every source frame at once, even one its encoder refuses: a
// frame not taken for this long means the server ended the capture.
constexpr uint64_t kTakePatienceNs = 5'000'000'000ull;

struct RecordOptions {
  std::u16string name = u"capture";
  std::filesystem::path dir = "recordings";
  std::u16string base = u"kestrium.exe";
  std::u16string encoder = u"fast";
  std::optional<bool> mp4;  // unset: MP4 for H.264 encoders, AVI for the others
  uint32_t width = 1280;
  uint32_t height = 720;
  double fps = 30.0;
  uint32_t threads = 2;
  std::optional<double> seconds;
  std::optional<uint32_t> frames;
  bool realtime = true;
  std::string source = "pattern";
  std::optional<double> prerecord, beginAfter, pauseAt, resumeAt, dieAfter, releaseAfter;
  bool folderByName = false, folderByDate = false, deleteFiles = false, noStop = false, stuckEncoded = false;
  uint32_t profile = 0, bitrate = 0, targetUsage = 0, useHw = 1, fullColor = 0, lowLatency = 0;
  uint32_t fullColorRange = 1, fullColorSpace = 1, quality = 85, vfw = 0;
  std::vector<std::pair<std::u16string, uint32_t>> audio;
  uint32_t aacKbps = 0;
  std::optional<StereoMixSettings> stereo;
  bool mixer = false, sideTracks = false;
  std::u16string sideTrackKind;
  uint32_t muteMask = 0;
  std::u16string broadcastUrl, streamKey;
};

int fail(const std::string& problem, int status = kExitUsage) {
  std::fprintf(stderr, "kestrium-client: %s\n", problem.c_str());
  return status;
}

std::optional<double> toNumber(const std::u16string& text) {
  const std::string s = platform::toUtf8(text);
  char* end = nullptr;
  const double v = std::strtod(s.c_str(), &end);
  if (s.empty() || end != s.c_str() + s.size() || !std::isfinite(v) || v < 0) return std::nullopt;
  return v;
}

std::optional<uint32_t> toWhole(const std::u16string& text) {
  const auto v = toNumber(text);
  if (!v || *v != std::floor(*v) || *v > 4294967295.0) return std::nullopt;
  return static_cast<uint32_t>(*v);
}

// Reads the options; an empty string when they all made sense, else the problem.
std::string parse(const std::vector<std::u16string>& args, RecordOptions& o) {
  const std::set<std::u16string> flags = {u"--folder-by-name", u"--folder-by-date", u"--mixer",
                                          u"--delete", u"--no-stop", u"--stuck-encoded"};
  for (size_t i = 1; i < args.size(); ++i) {
    const std::u16string& key = args[i];
    if (flags.count(key) != 0) {
      if (key == u"--folder-by-name") o.folderByName = true;
      if (key == u"--folder-by-date") o.folderByDate = true;
      if (key == u"--mixer") o.mixer = true;
      if (key == u"--delete") o.deleteFiles = true;
      if (key == u"--no-stop") o.noStop = true;
      if (key == u"--stuck-encoded") o.stuckEncoded = true;
      continue;
    }
    if (i + 1 >= args.size()) return platform::toUtf8(key) + " needs a value";
    const std::u16string& value = args[++i];
    const std::string k = platform::toUtf8(key);
    auto number = [&](std::optional<double>& into) {
      into = toNumber(value);
      return into ? std::string() : k + " takes a number of seconds";
    };
    auto whole = [&](uint32_t& into) {
      const auto v = toWhole(value);
      if (v) into = *v;
      return v ? std::string() : k + " takes a whole number";
    };
    std::string problem;
    if (key == u"--name") {
      o.name = value;
    } else if (key == u"--dir") {
      o.dir = std::filesystem::path(value);
    } else if (key == u"--base") {
      o.base = value;
    } else if (key == u"--encoder") {
      o.encoder = value;
    } else if (key == u"--container") {
      if (value != u"avi" && value != u"mp4") problem = "--container is avi or mp4";
      o.mp4 = value == u"mp4";
    } else if (key == u"--size") {
      const size_t x = value.find(u'x');
      const auto w = x == std::u16string::npos ? std::nullopt : toWhole(value.substr(0, x));
      const auto h = x == std::u16string::npos ? std::nullopt : toWhole(value.substr(x + 1));
      if (!w || !h) problem = "--size takes WIDTHxHEIGHT";
      o.width = w.value_or(0);
      o.height = h.value_or(0);
    } else if (key == u"--fps") {
      const auto v = toNumber(value);
      if (!v || *v <= 0) problem = "--fps takes a frame rate above 0";
      o.fps = v.value_or(0);
    } else if (key == u"--threads") {
      problem = whole(o.threads);
    } else if (key == u"--seconds") {
      problem = number(o.seconds);
    } else if (key == u"--frames") {
      uint32_t n = 0;
      problem = whole(n);
      o.frames = n;
    } else if (key == u"--pace") {
      if (value != u"realtime" && value != u"max") problem = "--pace is realtime or max";
      o.realtime = value == u"realtime";
    } else if (key == u"--source") {
      o.source = platform::toUtf8(value);
      if (o.source != "pattern" && o.source.rfind("raw:", 0) != 0) problem = "--source is pattern or raw:FILE";
    } else if (key == u"--prerecord") {
      problem = number(o.prerecord);
    } else if (key == u"--begin-after") {
      problem = number(o.beginAfter);
    } else if (key == u"--pause-at") {
      problem = number(o.pauseAt);
    } else if (key == u"--resume-at") {
      problem = number(o.resumeAt);
    } else if (key == u"--die-after") {
      problem = number(o.dieAfter);
    } else if (key == u"--release-after") {
      problem = number(o.releaseAfter);
    } else if (key == u"--profile") {
      problem = whole(o.profile);
    } else if (key == u"--bitrate") {
      problem = whole(o.bitrate);
    } else if (key == u"--target-usage") {
      problem = whole(o.targetUsage);
    } else if (key == u"--use-hw") {
      problem = whole(o.useHw);
    } else if (key == u"--full-color") {
      problem = whole(o.fullColor);
    } else if (key == u"--low-latency") {
      problem = whole(o.lowLatency);
    } else if (key == u"--full-color-range") {
      problem = whole(o.fullColorRange);
    } else if (key == u"--full-color-space") {
      problem = whole(o.fullColorSpace);
    } else if (key == u"--quality") {
      problem = whole(o.quality);
    } else if (key == u"--vfw") {
      if (value.size() != 4) problem = "--vfw takes a four-character code";
      for (size_t c = 0; c < value.size() && c < 4; ++c) o.vfw |= (static_cast<uint32_t>(value[c]) & 0xFF) << (8 * c);
    } else if (key == u"--audio") {
      if (o.audio.size() == 16) problem = "at most 16 --audio sources";
      const size_t colon = value.rfind(u':');
      const auto volume = colon == std::u16string::npos ? std::nullopt : toWhole(value.substr(colon + 1));
      o.audio.emplace_back(volume ? value.substr(0, colon) : value, volume.value_or(100));
    } else if (key == u"--side-tracks") {
      if (value != u"wav" && value != u"mp3") problem = "--side-tracks takes wav or mp3";
      o.sideTracks = true;
      o.sideTrackKind = value;
    } else if (key == u"--mute-mask") {
      problem = whole(o.muteMask);
    } else if (key == u"--aac") {
      problem = whole(o.aacKbps);
    } else if (key == u"--stereo") {
      StereoMixSettings s{};
      std::vector<std::u16string> parts;
      for (size_t start = 0;;) {
        const size_t comma = value.find(u',', start);
        parts.push_back(value.substr(start, comma - start));
        if (comma == std::u16string::npos) break;
        start = comma + 1;
      }
      const auto normalize = parts.empty() ? std::nullopt : toWhole(parts[0]);
      if (!normalize || parts.size() > 8) problem = "--stereo takes N,W1..W7";
      s.normalize = normalize.value_or(0);
      for (size_t w = 1; w < parts.size() && w <= 7; ++w) {
        const std::string text = platform::toUtf8(parts[w]);
        s.weights[w - 1] = std::strtof(text.c_str(), nullptr);
      }
      o.stereo = s;
    } else if (key == u"--broadcast") {
      o.broadcastUrl = value;
    } else if (key == u"--stream") {
      o.streamKey = value;
    } else {
      problem = "unknown option " + k;
    }
    if (!problem.empty()) return problem;
  }
  if (o.width == 0 || o.height == 0) return "--size must not be 0";
  // H.264 is what MP4 is made for; every other encoder records into AVI.
  if (!o.mp4) o.mp4 = o.encoder.rfind(u"h264", 0) == 0;
  // The server makes encoded side tracks whenever the sound is encoded: the
  // kind follows from --aac, and the option only states it.
  if (o.sideTrackKind == u"mp3" && o.aacKbps == 0) return "--side-tracks mp3 needs --aac KBPS";
  if (o.sideTrackKind == u"wav" && o.aacKbps != 0) return "--side-tracks wav records PCM: leave out --aac";
  return {};
}

uint32_t framesToRecord(const RecordOptions& o) {
  if (o.frames) return *o.frames;
  return static_cast<uint32_t>(std::llround(o.seconds.value_or(10.0) * o.fps));
}

std::unique_ptr<CommandBlock> startBlock(const RecordOptions& o, const std::filesystem::path& destination) {
  auto block = std::make_unique<CommandBlock>();
  *block = {};
  block->command = kCommandStart;
  block->replyWanted = 1;
  StartParameters& p = block->start;
  setWireString(p.recorderName, o.name);
  setWireString(p.destinationFolder, destination.u16string());
  setWireString(p.baseName, o.base);
  setWireString(p.encoder, o.encoder);
  p.container = *o.mp4 ? 1 : 0;
  p.width = o.width;
  p.height = o.height;
  p.frameRate = static_cast<uint32_t>(std::llround(o.fps * 1000.0));
  p.threads = o.threads;
  p.prerecordLimit = static_cast<float>(o.prerecord.value_or(0.0));
  p.writeAtOnce = o.prerecord ? 0 : 1;
  p.folderByName = o.folderByName ? 1 : 0;
  p.folderByDate = o.folderByDate ? 1 : 0;
  p.profile = o.profile;
  p.bitrate = o.bitrate;
  p.targetUsage = o.targetUsage;
  p.useHardware = o.useHw;
  p.fullColor = o.fullColor;
  p.lowLatency = o.lowLatency;
  p.fullColorRange = o.fullColorRange;
  p.fullColorSpace = o.fullColorSpace;
  p.mjpegQuality = o.quality;
  p.vfwCodec = o.vfw;
  p.audioEncoding = o.aacKbps != 0 ? 1 : 0;
  p.audioBitrate = o.aacKbps;
  p.stereoMode = o.stereo ? 1 : 0;
  if (o.stereo) p.stereoSettings = *o.stereo;
  p.mixer = o.mixer ? 1 : 0;
  p.sideTracks = o.sideTracks ? 1 : 0;
  for (size_t i = 0; i < o.audio.size(); ++i) {
    setWireString(p.audioSources[i].deviceId, o.audio[i].first);
    p.audioSources[i].volume = o.audio[i].second;
  }
  p.broadcast = o.broadcastUrl.empty() ? 0 : 1;
  setWireString(p.broadcastAddress, o.broadcastUrl);
  setWireString(p.broadcastStream, o.streamKey);
  return block;
}

std::string figures(CommonData& c) {
  char line[256];
  std::snprintf(line, sizeof line, "recorded_seconds=%.2f buffered_seconds=%.2f mb_written=%u free_mb=%u bytes_sent=%u",
                static_cast<double>(loadShared(c.recordedSeconds)), static_cast<double>(loadShared(c.bufferedSeconds)),
                loadShared(c.megabytesWritten), loadShared(c.freeMegabytes), loadShared(c.bytesSent));
  return line;
}

std::set<std::filesystem::path> filesUnder(const std::filesystem::path& dir) {
  std::set<std::filesystem::path> files;
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(dir, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_regular_file(ec)) files.insert(it->path());
  }
  return files;
}

// A capture in progress, from the client's side.
class Session {
 public:
  Session(const RecordOptions& options, FrameSource& source) : o_(options), source_(source), objects_(options.name) {}

  int run() {
    const std::filesystem::path destination = std::filesystem::absolute(o_.dir);
    std::error_code ec;
    std::filesystem::create_directories(destination, ec);
    const std::set<std::filesystem::path> before = filesUnder(destination);

    if (const std::string problem = openObjects(); !problem.empty()) return fail(problem);
    if (sendCommand(*startBlock(o_, destination), kReplyPatienceMs) != SendResult::Replied) {
      return fail("no reply from a capture server within 10 s", kExitNoReply);
    }
    if (!waitForRecorder()) {
      return fail("the recorder did not come up; the server's log says why", kExitRecorderDown);
    }
    // Before the first frame is due: feeding is then a copy.
    source_.prepare(framesToRecord(o_), layout_);
    feed();
    if (o_.noStop && !ended_) {
      // For shutdown tests: hold on to the capture until interrupted.
      for (;;) platform::sleepMs(1000);
    }
    // A last frame never taken means the capture ended under it.
    if (!ended_ && !waitForSourceTaken()) ended_ = true;
    // A capture that the server ended is gone: there is nothing left to stop.
    if (!ended_ && sendCommand(namedCommand(kCommandStop, o_.name, o_.deleteFiles ? 1 : 0), kReplyPatienceMs) !=
                       SendResult::Replied) {
      return fail("no reply to the stop command within 10 s", kExitNoReply);
    }
    if (platform::stdoutIsTerminal()) std::printf("\n");
    std::printf("%s %s\n", figures(*common_).c_str(), frameFigures().c_str());
    for (const auto& file : filesUnder(destination)) {
      if (before.count(file) == 0) std::printf("%s\n", file.string().c_str());
    }
    std::fflush(stdout);
    if (ended_) return fail("the server ended the capture; its log says why", kExitCaptureEnded);
    return kExitOk;
  }

 private:
  std::string openObjects() {
    if (!objects_.openClientAlive(true) || !platform::owns(objects_.clientAlive.wait(0))) {
      return "another client is recording under this name";
    }
    if (!objects_.openCommonData() || !objects_.openNewSource() || !objects_.openNewEncoded() ||
        !objects_.openSourceBuffer(uint64_t{o_.width} * o_.height * 3)) {
      return "cannot make the shared objects of the capture";
    }
    common_ = objects_.common();
    *common_ = {};
    common_->recordedSeconds = -1.0f;
    common_->bufferedSeconds = -1.0f;
    // A client that never frees the encoded slot, for tests of a stuck consumer.
    storeShared(common_->encodedFree, o_.stuckEncoded ? 0u : 1u);
    storeShared(common_->sourceFree, 1u);
    // Bit n mutes audio source n; the recorder reads it on every pass.
    storeShared(common_->audioPosition, o_.muteMask);
    return {};
  }

  // Up once it has published its figures: recorded seconds while it writes, or
  // buffered seconds while it pre-records.
  bool waitForRecorder() {
    const uint64_t until = platform::monotonicNs() + kComeUpPatienceNs;
    while (loadShared(common_->recordedSeconds) == -1.0f && loadShared(common_->bufferedSeconds) == -1.0f) {
      if (platform::monotonicNs() > until) return false;
      platform::sleepMs(10);
    }
    layout_ = {loadShared(common_->topDownRows) != 0, loadShared(common_->redFirst) != 0};
    return true;
  }

  double elapsed() const { return static_cast<double>(platform::monotonicNs() - start_) / 1e9; }

  // The timed actions of the options, each once, when its time has come.
  void actOnSchedule() {
    const double now = elapsed();
    auto due = [now](std::optional<double>& at) {
      if (!at || now < *at) return false;
      at.reset();
      return true;
    };
    if (due(beginAfter_)) sendCommand(namedCommand(kCommandEndPrerecording, o_.name, 0), kReplyPatienceMs);
    // A paused game shows nothing: no frames go while paused, and the frames
    // after it come as if the pause had not been.
    if (due(pauseAt_)) {
      sendCommand(namedCommand(kCommandPause, o_.name, 1), kReplyPatienceMs);
      pausedSince_ = platform::monotonicNs();
    }
    if (due(resumeAt_)) {
      sendCommand(namedCommand(kCommandPause, o_.name, 0), kReplyPatienceMs);
      if (pausedSince_) pausedNs_ += platform::monotonicNs() - *pausedSince_;
      pausedSince_.reset();
    }
    if (due(releaseAfter_)) {
      while (objects_.clientAlive.release()) {
      }
    }
    if (due(dieAfter_)) {
      std::fflush(stdout);
      std::_Exit(0);  // without letting go of anything: the server must notice
    }
    if (platform::stdoutIsTerminal() && now >= nextProgress_) {
      nextProgress_ = now + 0.5;
      std::printf("\r%s %s ", figures(*common_).c_str(), frameFigures().c_str());
      std::fflush(stdout);
    }
  }

  std::string frameFigures() const {
    char line[160];
    std::snprintf(line, sizeof line, "frames_fed=%u frames_skipped=%u frames_late=%u frames_busy=%u", fed_, skipped_,
                  late_, busy_);
    return line;
  }

  void give(uint32_t number) {
    const bool timedMs = *o_.mp4 || o_.encoder.rfind(u"h264", 0) == 0;
    source_.fill(number, {objects_.sourceBuffer.view(), size_t{o_.width} * o_.height * 3}, layout_);
    common_->sourceSize = o_.width * o_.height * 3;
    common_->sourceTimed = timedMs ? 1 : 0;
    common_->sourcePosition = timedMs ? static_cast<uint32_t>(std::llround(number * 1000.0 / o_.fps)) : number;
    storeShared(common_->sourceFree, 0u);
    objects_.newSource.set();
    givenAt_ = platform::monotonicNs();
    ++fed_;
  }

  // The last frame given was never taken: the recorder is gone.
  bool recorderGone() {
    if (loadShared(common_->sourceFree) != 0 || platform::monotonicNs() - givenAt_ < kTakePatienceNs) return false;
    ended_ = true;
    return true;
  }

  void feed() {
    beginAfter_ = o_.beginAfter;
    pauseAt_ = o_.pauseAt;
    resumeAt_ = o_.resumeAt;
    releaseAfter_ = o_.releaseAfter;
    dieAfter_ = o_.dieAfter;
    start_ = platform::monotonicNs();
    const uint32_t total = framesToRecord(o_);
    for (uint32_t number = 0; number < total; ++number) {
      while (pausedSince_ && resumeAt_) {
        actOnSchedule();
        platform::sleepMs(5);
      }
      if (o_.realtime) {
        const uint64_t due = start_ + pausedNs_ + static_cast<uint64_t>(number * 1e9 / o_.fps);
        while (platform::monotonicNs() < due) {
          actOnSchedule();
          const uint64_t left = due - std::min(due, platform::monotonicNs());
          platform::sleepMs(static_cast<uint32_t>(std::min<uint64_t>(left / 1000000, 5)));
        }
        actOnSchedule();
        if (pausedForGood()) continue;  // the stop still comes on time
        // A frame given more than a frame's time after it was due is the
        // client's own delay, whatever becomes of it; a frame on time that
        // finds the slot busy is one the server did not take in time.
        const bool late = platform::monotonicNs() > due + static_cast<uint64_t>(1e9 / o_.fps);
        late_ += late ? 1 : 0;
        if (loadShared(common_->sourceFree) == 0) {
          if (recorderGone()) return;
          ++skipped_;
          busy_ += late ? 0 : 1;
          continue;
        }
        give(number);
      } else {
        for (int round = 0; loadShared(common_->sourceFree) == 0; ++round) {
          if (recorderGone()) return;
          actOnSchedule();
          platform::sleepMs(round < 100 ? 0 : 1);
        }
        actOnSchedule();
        if (pausedForGood()) break;
        give(number);
      }
    }
    // Timed actions still due after the last frame happen on time all the same.
    while (beginAfter_ || pauseAt_ || resumeAt_ || releaseAfter_ || dieAfter_) {
      actOnSchedule();
      platform::sleepMs(5);
    }
  }

  // Paused with no resume to come: the pause lasts to the stop, and a paused
  // game shows nothing.
  bool pausedForGood() const { return pausedSince_ && !resumeAt_; }

  bool waitForSourceTaken() {
    const uint64_t until = platform::monotonicNs() + kTakePatienceNs;
    while (loadShared(common_->sourceFree) == 0 && platform::monotonicNs() < until) platform::sleepMs(1);
    return loadShared(common_->sourceFree) != 0;
  }

  const RecordOptions& o_;
  FrameSource& source_;
  CaptureObjects objects_;
  CommonData* common_ = nullptr;
  FrameLayout layout_;
  uint64_t start_ = 0;
  double nextProgress_ = 0;
  uint32_t fed_ = 0;
  uint32_t skipped_ = 0;  // not given: the slot was busy
  uint32_t late_ = 0;     // given, or skipped, more than a frame's time late
  uint32_t busy_ = 0;     // on time, and skipped: the slot was busy
  uint64_t givenAt_ = 0;
  bool ended_ = false;  // the server ended the capture
  std::optional<double> beginAfter_, pauseAt_, resumeAt_, releaseAfter_, dieAfter_;
  std::optional<uint64_t> pausedSince_;  // while paused, since when
  uint64_t pausedNs_ = 0;                 // all the pauses so far
};

}  // namespace

int runRecord(const std::vector<std::u16string>& args) {
  RecordOptions options;
  if (const std::string problem = parse(args, options); !problem.empty()) return fail(problem);
  std::unique_ptr<FrameSource> source;
  if (options.source == "pattern") {
    source = std::make_unique<PatternSource>(options.width, options.height);
  } else {
    auto raw = std::make_unique<RawFileSource>(platform::toUtf16(options.source.substr(4)), options.width,
                                               options.height);
    if (!raw->ok()) return fail("cannot read whole frames from " + options.source.substr(4));
    source = std::move(raw);
  }
  Session session(options, *source);
  return session.run();
}

int runStatus(const std::vector<std::u16string>& args) {
  if (args.size() != 2) return fail("status takes a recorder name");
  CaptureObjects objects(args[1]);
  if (!objects.openCommonData() || !objects.commonData.existed()) {
    return fail("no capture named " + platform::toUtf8(args[1]) + " is running", kExitNoReply);
  }
  std::printf("%s\n", figures(*objects.common()).c_str());
  return kExitOk;
}

}  // namespace kestrium::client
