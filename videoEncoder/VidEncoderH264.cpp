#include "videoEncoder/VidEncoderH264.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "platform/Clock.h"
#include "server/Log.h"

namespace kestrium {

namespace {

// The encoder thread looks at its stop flag at least this often.
constexpr uint32_t kFrameWaitMs = 1000;

uint64_t msFromNow(uint32_t ms) { return platform::monotonicNs() + uint64_t{ms} * 1000000; }

}  // namespace

VidEncoderH264::~VidEncoderH264() {
  // Owners call Close first; this covers an encoder dropped on an error path.
  closing_ = true;
  drainUntilNs_ = platform::monotonicNs();
  stopThread();
  // A thread that could only be abandoned still uses the session.
  if (abandoned_) static_cast<void>(session_.release());
}

H264Settings VidEncoderH264::settingsFor(const OptionList& options) {
  H264Settings s;
  uint32_t fps = 30000;
  bool bitrateGiven = false;
  walkOptions(options, [&](std::string_view key, std::string_view value) {
    if (key == "width") {
      s.width = optionInt(value);
    } else if (key == "height") {
      s.height = optionInt(value);
    } else if (key == "threads") {
      s.threads = optionInt(value);
    } else if (key == "profile") {
      s.profile = optionInt(value);
    } else if (key == "bitrate") {
      s.bitrateKbps = static_cast<uint32_t>(std::max(optionInt(value), 0));
      bitrateGiven = true;
    } else if (key == "target_usage") {
      s.targetUsage = static_cast<uint32_t>(std::max(optionInt(value), 0));
    } else if (key == "fps") {
      fps = static_cast<uint32_t>(std::max(optionInt(value), 0));
    } else if (key == "low_latency") {
      s.lowLatency = optionInt(value) != 0;
    } else if (key == "use_hw") {
      s.useHardware = optionInt(value) != 0;
    } else {
      return false;
    }
    return true;
  });
  frameRate(fps, s.rateNum, s.rateDen);
  s.keyInterval = keyFrameInterval(fps);
  if (!bitrateGiven || s.bitrateKbps == 0) s.bitrateKbps = defaultBitrateKbps(s.width, s.height, fps, s.targetUsage);
  s.threads = std::max(s.threads, 1);
  return s;
}

void VidEncoderH264::frameRate(uint32_t thousandths, uint32_t& num, uint32_t& den) {
  const double rate = thousandths / 1000.0;
  const auto whole = static_cast<uint32_t>(rate + 0.5);
  if (std::fabs(whole - rate) < 0.0001) {
    num = whole;
    den = 1;
  } else {
    num = static_cast<uint32_t>(rate * 10000.0 + 0.5);
    den = 10000;
  }
}

uint32_t VidEncoderH264::keyFrameInterval(uint32_t thousandths) { return std::max(thousandths / 1000, 1u); }

uint32_t VidEncoderH264::defaultBitrateKbps(int32_t width, int32_t height, uint32_t thousandths,
                                            uint32_t targetUsage) {
  // Pixels a second over 30, against kbit/s.
  static constexpr double kPoints[][2] = {{0, 0}, {25344, 225}, {101376, 1000}, {414720, 4000}, {2058240, 5000}};
  const double x = double(std::max(width, 0)) * std::max(height, 0) * (thousandths / 1000.0) / 30.0;
  size_t segment = 1;
  while (segment + 1 < std::size(kPoints) && x > kPoints[segment][0]) ++segment;
  const double* a = kPoints[segment - 1];
  const double* b = kPoints[segment];
  const double kbps = a[1] + (x - a[0]) * (b[1] - a[1]) / (b[0] - a[0]);
  const double scale = targetUsage == 1 ? 1.0 : targetUsage == 7 ? 0.5 : 0.75;
  return static_cast<uint32_t>(std::min(kbps * scale, 65535.0));
}

int VidEncoderH264::Init(const OptionList& options) {
  walkOptions(options, [this](std::string_view key, std::string_view value) {
    if (key == "full_color") {
      fullColor_ = static_cast<uint32_t>(optionInt(value));
    } else {
      return false;
    }
    return true;
  });
  settings_ = settingsFor(options);
  return IVidEncoder::Init(options);
}

int VidEncoderH264::Open() {
  objects_ = CaptureObjects(sessionName_);
  if (width_ <= 0 || height_ <= 0) {
    logLine(u"[Error]   *** H264 *** Frame size %dx%d cannot be encoded\n", width_, height_);
    return 0;
  }
  if (settings_.rateNum == 0) {
    logLine(u"[Error]   *** H264 *** Frame rate %u/%u cannot be encoded\n", settings_.rateNum, settings_.rateDen);
    return 0;
  }
  if (!objects_.openNewEncoded() || !objects_.openCommonData() || !objects_.openEncoderBuffer(EncodedCapacity())) {
    logLine(u"[Error]   *** H264 *** Cannot open the shared objects of %s\n", sessionName_);
    return 0;
  }
  slot_ = AlignedBuffer(static_cast<size_t>(width_) * height_ * 3);
  if (slot_.empty() || !picture_.allocate(width_, height_) || !frameEvent_.create({})) {
    logLine(u"[Error]   *** H264 *** No memory for the frames of %dx%d\n", width_, height_);
    return 0;
  }

  session_ = MakeSession();
  std::vector<std::byte> headers;
  if (!session_ || !session_->open(settings_, headers)) {
    logLine(u"[Error]   *** H264 *** Cannot start the encoder of %s\n", sessionName_);
    return 0;
  }
  parameterSets_ = findParameterSets(headers);
  // An encoder that tells its headers with the first frame has them caught there.
  if (!parameterSets_ && !(headers.empty() && HeadersAfterFirstFrame() != 0)) {
    logLine(u"[Error]   *** H264 *** The encoder's headers hold no SPS and PPS\n");
    return 0;
  }
  caughtParameterSets_ = parameterSets_.has_value();
  lengthPrefixed_.reserve(static_cast<size_t>(EncodedCapacity()));
  if (!thread_.start([this] { run(); }, "kestrium-h264")) {
    logLine(u"[Error]   *** H264 *** Cannot start the encoder thread\n");
    return 0;
  }
  ready_ = true;
  return 1;
}

int VidEncoderH264::EncodeFrame(std::span<const std::byte> source, uint32_t /*timed*/, uint32_t position) {
  // The position is in milliseconds whatever the time word says: H.264 goes to
  // containers that run on time, not on a frame grid.
  if (!ready_ || closing_ || failed_) return 0;
  if (source.size() != slot_.size()) {
    if (refusedSources_++ == 0) {
      logLine(u"[Error]   *** H264 *** Source frame of %u bytes is not a %dx%d picture; such frames are dropped\n",
              static_cast<uint32_t>(source.size()), width_, height_);
    }
    return 0;
  }
  const uint64_t until = msFromNow(kDrainPatienceMs);
  while (busy_.load(std::memory_order_acquire) != 0) {
    if (closing_ || failed_) return 0;
    if (platform::monotonicNs() > until) {
      // The encoder is stuck behind a consumer that stopped: the recorder's
      // thread goes back to its other duties, and the frame is lost.
      if (droppedWaiting_++ == 0) {
        logLine(u"[Warning] *** H264 *** The encoder of %s has not taken a frame for %u ms; frames are dropped\n",
                sessionName_, kDrainPatienceMs);
      }
      return 0;
    }
    platform::sleepMs(1);
  }
  std::lock_guard guard(lock_);
  if (closing_ || failed_) return 0;
  std::memcpy(slot_.data(), source.data(), source.size());
  slotPosition_ = position;
  busy_.store(1, std::memory_order_release);
  frameEvent_.set();
  return 1;
}

bool VidEncoderH264::takeFrame() {
  if (busy_.load(std::memory_order_acquire) == 0) return true;
  picture_.convertFrom(reinterpret_cast<const uint8_t*>(slot_.data()));
  const uint32_t position = slotPosition_;
  // Converted: the slot may take the next frame while this one is coded.
  busy_.store(0, std::memory_order_release);
  return session_->encode(picture_.picture(), position, publisher_);
}

void VidEncoderH264::run() {
  for (;;) {
    // Read before the slot is looked at: a frame that went in before Close is
    // then taken too.
    const bool stopping = stop_.load(std::memory_order_acquire);
    if (!takeFrame()) {
      logLine(u"[Error]   *** H264 *** The encoder of %s failed; the capture goes on without video\n", sessionName_);
      failed_ = true;
      return;
    }
    if (stopping) break;
    frameEvent_.wait(kFrameWaitMs);
  }
  if (!session_->drain(publisher_)) failed_ = true;
}

void VidEncoderH264::Publisher::deliver(std::span<const std::byte> annexB, uint32_t position, bool key) {
  VidEncoderH264& e = owner_;
  if (!e.caughtParameterSets_) {
    e.catchParameterSets(annexB);
    // Without them no file or broadcast can begin: the video ends here.
    if (!e.caughtParameterSets_) {
      if (!e.failed_.exchange(true)) {
        logLine(u"[Error]   *** H264 *** The first frame of %s holds no SPS and PPS; the capture goes on without video\n",
                e.sessionName_);
      }
      return;
    }
  }
  e.lengthPrefixed_.clear();
  appendLengthPrefixed(annexB, e.lengthPrefixed_);
  CommonData* common = e.objects_.common();
  for (int round = 0; loadShared(common->encodedFree) == 0; ++round) {
    if (e.stop_ && platform::monotonicNs() > e.drainUntilNs_) {
      ++e.droppedAtClose_;
      return;
    }
    // A few yields first: the recorder usually frees the slot at once.
    platform::sleepMs(round < 64 ? 0 : 1);
  }
  storeShared(common->encodedFree, 0u);
  size_t size = e.lengthPrefixed_.size();
  if (size > e.objects_.encoderBuffer.size()) {
    // Never written past the slot: the frame goes as an empty one.
    logLine(u"[Error]   *** H264 *** Coded frame of %u bytes does not fit the encoder buffer; delivered empty\n",
            static_cast<uint32_t>(size));
    size = 0;
  }
  std::memcpy(e.objects_.encoderBuffer.view(), e.lengthPrefixed_.data(), size);
  common->encodedSize = static_cast<uint32_t>(size);
  common->encodedTimed = 1;
  common->encodedKey = key ? 1 : 0;
  storeShared(common->encodedPosition, position);
  e.objects_.newEncoded.set();
}

void VidEncoderH264::Close() {
  {
    std::lock_guard guard(lock_);
    closing_ = true;
  }
  // The consumer still runs and takes what the encoder holds; one that stopped
  // costs those frames after this long.
  drainUntilNs_ = msFromNow(kDrainPatienceMs);
  stopThread();
  if (droppedAtClose_ != 0) {
    logLine(u"[Warning] *** H264 *** Encoder of %s: the encoded slot was not freed for %u ms; %u frames are dropped\n",
            sessionName_, kDrainPatienceMs, droppedAtClose_);
    droppedAtClose_ = 0;
  }
  if (droppedWaiting_ > 1) {
    logLine(u"[Warning] *** H264 *** %u frames of %s were dropped waiting for the encoder\n", droppedWaiting_.load(),
            sessionName_);
  }
  if (!abandoned_) objects_.closeAll();
}

void VidEncoderH264::stopThread() {
  if (!thread_.joinable()) return;
  stop_.store(true, std::memory_order_release);
  frameEvent_.set();
  if (!JoinEncoderThread(thread_)) abandoned_ = true;
}

void VidEncoderH264::catchParameterSets(std::span<const std::byte> annexB) {
  std::lock_guard guard(headersLock_);
  if (!parameterSets_) parameterSets_.emplace();
  AnnexBReader reader(annexB);
  for (std::span<const std::byte> unit; reader.next(unit);) {
    // The first of each is kept; the stream carries the rest as it comes.
    if (nalType(unit) == kNalTypeSps && parameterSets_->sps.empty()) parameterSets_->sps.assign(unit.begin(), unit.end());
    if (nalType(unit) == kNalTypePps && parameterSets_->pps.empty()) parameterSets_->pps.assign(unit.begin(), unit.end());
  }
  caughtParameterSets_ = !parameterSets_->sps.empty() && !parameterSets_->pps.empty();
}

std::vector<std::byte> VidEncoderH264::GetStreamHeader() {
  std::lock_guard guard(headersLock_);
  if (!parameterSets_ || parameterSets_->sps.empty() || parameterSets_->pps.empty()) return {};
  return avcConfigurationRecord(parameterSets_->sps, parameterSets_->pps);
}

int VidEncoderH264::GetParameterSets(std::vector<std::byte>& sps, std::vector<std::byte>& pps) {
  std::lock_guard guard(headersLock_);
  if (!parameterSets_ || parameterSets_->sps.empty() || parameterSets_->pps.empty()) {
    return IVidEncoder::GetParameterSets(sps, pps);
  }
  sps = withStartCode(parameterSets_->sps);
  pps = withStartCode(parameterSets_->pps);
  return 1;
}

}  // namespace kestrium
