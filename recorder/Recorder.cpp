#include "recorder/Recorder.h"

#include <algorithm>

#include "platform/Clock.h"
#include "platform/System.h"
#include "recorder/BroadcastInfo.h"
#include "server/Log.h"

namespace kestrium {

namespace {

// A request to end that was delivered but not acted on may have been overwritten
// by another sender: it is sent again after this long.
constexpr uint64_t kEndRequestRepeatNs = 2'000'000'000;
// One that could not be delivered (the channel was busy) is tried again sooner.
constexpr uint64_t kEndRequestRetryNs = 500'000'000;

}  // namespace

Recorder::Recorder(std::u16string name) : name_(std::move(name)), objects_(name_) { pauseEvent_.create({}); }

Recorder::~Recorder() {
  // A recorder is stopped before it goes; this covers one whose start failed.
  if (thread_.joinable()) Stop(true);
}

bool Recorder::Start(EmergencyStop emergencyStop) {
  emergencyStop_ = std::move(emergencyStop);
  return stopEvent_.create({}) && thread_.start([this] { run(); }, "kestrium-record");
}

bool Recorder::setUp() {
  // A client may have made any of these names as something else: a capture
  // whose objects are not what they should be ends here, with its reason.
  const bool opened = objects_.openClientAlive(true) && objects_.openNewSource() && objects_.openNewEncoded() &&
                      objects_.openCommonData() && (!encoder || objects_.openEncoderBuffer(encoder->EncodedCapacity()));
  CommonData* common = objects_.common();
  if (!opened || common == nullptr) {
    logLine(u"[Error]   *** CAP *** Cannot open the shared objects of %s; the capture ends\n", name_);
    return false;
  }
  common->topDownRows = encoder ? static_cast<uint32_t>(encoder->WantsTopDownRows()) : 0;
  common->redFirst = encoder ? static_cast<uint32_t>(encoder->WantsRedFirst()) : 0;
  common->megabytesWritten = 0;
  common->bytesSent = 0;
  storeShared(common->bufferedSeconds, -1.0f);
  storeShared(common->recordedSeconds, -1.0f);
  if (audio) audio->Start();
  return true;
}

void Recorder::run() {
  if (!setUp()) {
    waitsFailed_ = true;
    endWanted_ = true;
  }
  platform::Event* events[] = {&stopEvent_, &objects_.newSource, &objects_.newEncoded, &pauseEvent_};
  for (;;) {
    if (waitsFailed_) {
      // Nothing but the stop is left to wait for; until it comes, the server is
      // asked for it on every pass.
      if (stopEvent_.wait(kPassMs) == platform::kWaitObject0) break;
      askToEnd();
      continue;
    }
    const uint32_t result = platform::waitAny(events, kPassMs);
    if (result == platform::kWaitFailed) {
      // A wait that fails at once would fail on every pass: the thread would spin
      // and never see its stop.
      logLine(u"[Error]   *** CAP *** Waiting for the events of %s failed; the capture ends\n", name_);
      waitsFailed_ = true;
      endWanted_ = true;
      continue;
    }
    CommonData* common = objects_.common();
    // The encoder's Close delivers its last frame before the stop is set; the
    // stop, whose event comes first, must not leave that frame in the slot.
    if (result == 0 && objects_.newEncoded.wait(0) == platform::kWaitObject0) onNewEncoded();
    if (result == 0 || result == 3) {
      pumpAudio(common->audioPosition, true);
      if (result == 0) break;
      paused_ = !paused_;
      if (audio) audio->SetPaused(paused_ ? 1 : 0);
    } else if (result == 1) {
      onNewSource();
    } else if (result == 2) {
      onNewEncoded();
    }
    if (started_) pumpAudio(common->audioPosition, false);
    if (writer && writer->outputFailed() && !endWanted_) {
      logLine(u"[Error]   *** CAP *** The file of %s cannot be written any more; the capture ends\n", name_);
      endWanted_ = true;
    }
    publishFigures();
    checkClient();
    askToEnd();
  }
  tearDown();
}

void Recorder::onNewSource() {
  CommonData* common = objects_.common();
  // The events are hints: the free word decides.
  if (loadShared(common->sourceFree) != 0) return;
  if (!sawSource_) {
    // The tracks start with the first picture: what the devices gave while the
    // game had shown nothing would put the sound behind the video.
    sawSource_ = true;
    if (audio) audio->DropPending();
  }
  // An encoded frame that waits is taken before the next source frame goes in:
  // an H.264 encoder's EncodeFrame waits for its one input slot, whose frame its
  // thread takes only once it has put the frame before into the encoded slot.
  if (objects_.newEncoded.wait(0) == platform::kWaitObject0) onNewEncoded();
  const uint64_t largest = encoderBufferSize(static_cast<uint32_t>(encoder->width()), static_cast<uint32_t>(encoder->height()));
  if (!objects_.sourceBuffer.isOpen()) {
    // Sized once, by the first frame: a later change of the word does not resize it.
    const uint32_t size = common->sourceSize;
    if (size != 0 && size <= largest) objects_.openSourceBuffer(size);
  }
  const uint64_t size = common->sourceSize;
  if (!objects_.sourceBuffer.isOpen() || size > objects_.sourceBuffer.size()) {
    if (!warnedSource_) {
      logLine(u"[Error]   *** CAP *** Source frame of %u bytes does not fit the source buffer of %s; such frames are "
              u"dropped\n",
              static_cast<uint32_t>(size), name_);
      warnedSource_ = true;
    }
    ++framesRefused_;
  } else if (encoder->EncodeFrame({objects_.sourceBuffer.view(), static_cast<size_t>(size)}, common->sourceTimed,
                                  common->sourcePosition) != 0) {
    ++framesEncoded_;
  } else {
    // Lost without a count in the shared record: the client sees it as a gap.
    ++framesRefused_;
  }
  storeShared(common->sourceFree, 1u);
}

void Recorder::onNewEncoded() {
  CommonData* common = objects_.common();
  if (loadShared(common->encodedFree) != 0) return;
  if (!started_ && encoder->HeadersAfterFirstFrame() != 0) {
    const std::vector<std::byte> extra = encoder->GetStreamHeader();
    if (!extra.empty()) writer->setExtraData(extra);
    std::vector<std::byte> sps, pps;
    if (encoder->GetParameterSets(sps, pps) != 0) {
      SharedBroadcastInfo& shared = broadcastInfo();
      std::lock_guard guard(shared.lock);
      shared.info.sps = std::move(sps);
      shared.info.pps = std::move(pps);
    }
    // Only while still waiting: a client's begin may have opened the file first.
    if (writer->delayed() && !writer->idle() && writer->prerecording()) writer->begin();
  }
  started_ = true;
  const uint32_t key = encoder->HasKeyFrameFlags() != 0 ? common->encodedKey : 1;
  uint32_t size = common->encodedSize;
  if (size > objects_.encoderBuffer.size()) {
    if (!warnedEncoded_) {
      logLine(u"[Error]   *** CAP *** Encoded frame of %u bytes is larger than its buffer in %s\n", size, name_);
      warnedEncoded_ = true;
    }
    size = 0;
  }
  const std::span<const std::byte> frame(objects_.encoderBuffer.view(), size);
  writer->writeWrapper(frame, 0, common->encodedTimed, common->encodedPosition, key);
  if (publisher) {
    std::vector<std::byte> header;
    if (encoder->GetFrameExtra(header) != 0) publisher->setStreamHeader(header);
    publisher->sendFrame(frame, common->encodedPosition, key != 0 ? NetworkStream::kKeyFrame : NetworkStream::kVideo);
  }
  storeShared(common->encodedFree, 1u);
}

void Recorder::pumpAudio(uint32_t position, bool flush) {
  if (!audio || !writer) return;
  const bool timed = writer->takesTimeStamps();
  uint32_t timeStamp = 0;  // carried from track to track; only reads overwrite it
  for (int32_t track = 0; track < audio->GetSourceCount(); ++track) {
    audio->SetMuteMask(track, position);
    const int32_t read = audio->Read(track, audioBuffer_, timed ? &timeStamp : nullptr, flush ? 1 : 0);
    if (read == 0) continue;
    const uint32_t writerTrack = static_cast<uint32_t>(track) + 1;
    if (read > 0) {
      const std::span<const std::byte> pcm(audioBuffer_.data(), std::min<size_t>(static_cast<size_t>(read), audioBuffer_.size()));
      writer->writeWrapper(pcm, writerTrack, timed ? 1 : 0, timeStamp, 1);
      if (publisher) publisher->sendFrame(pcm, timeStamp, NetworkStream::kAudio);
      continue;
    }
    for (int32_t size; (size = audio->GetEncoded(track, audioPacket_, &timeStamp)) > 0;) {
      const std::span<const std::byte> packet(audioPacket_.data(), std::min<size_t>(static_cast<size_t>(size), audioPacket_.size()));
      // Into the list while it holds anything, else into the file; a packet from
      // before the file's first frame has no place in it.
      writer->writeWrapper(packet, writerTrack, timed ? 1 : 0, timeStamp, 1);
      if (publisher) publisher->sendFrame(packet, timeStamp, NetworkStream::kAudio);
    }
  }
}

void Recorder::publishFigures() {
  CommonData* common = objects_.common();
  if (writer) {
    storeShared(common->bufferedSeconds, writer->bufferedSeconds());
    // -1.0 until the file is being written: a client tells a running
    // pre-recording by its buffered seconds.
    const float recorded = writer->prerecording() ? -1.0f : std::max(writer->recordedSeconds(), 0.0f);
    storeShared(common->recordedSeconds, recorded);
    storeShared(common->megabytesWritten, static_cast<uint32_t>(writer->bytesWritten() >> 20));
    const auto free = platform::diskFreeBytes(writer->destination());
    storeShared(common->freeMegabytes, free ? static_cast<uint32_t>(*free >> 20) : 0u);
  }
  storeShared(common->bytesSent, publisher ? static_cast<uint32_t>(publisher->bytesSent()) : 0u);
}

void Recorder::checkClient() {
  if (!objects_.clientAlive.valid()) return;
  // The client holds the mutex for the whole capture; getting it means the
  // client let go or died. A dead client's mutex comes back abandoned first,
  // which gives it to this thread, and the next pass finds it free.
  if (objects_.clientAlive.wait(0) != platform::LockStatus::Acquired) return;
  endWanted_ = true;
  while (objects_.clientAlive.release()) {
  }
  objects_.clientAlive.close();
}

void Recorder::askToEnd() {
  if (!endWanted_ || stopping_ || !emergencyStop_) return;
  const uint64_t now = platform::monotonicNs();
  if (now < nextEndRequestNs_) return;
  // The request goes through the command channel like any client's, and can be
  // lost there (the channel busy, or the block overwritten by the next sender
  // before the server read it): it is repeated until the stop has begun.
  const bool delivered = emergencyStop_(*this);
  nextEndRequestNs_ = now + (delivered ? kEndRequestRepeatNs : kEndRequestRetryNs);
}

void Recorder::tearDown() {
  if (audio) audio->Stop();
  objects_.encoderBuffer.close();
  objects_.sourceBuffer.close();
  objects_.commonData.close();
  objects_.newEncoded.close();
  objects_.newSource.close();
  if (objects_.clientAlive.valid()) {
    while (objects_.clientAlive.release()) {
    }
    objects_.clientAlive.close();
  }
}

bool Recorder::Stop(bool deleteFiles) {
  stopping_ = true;
  // The thread still runs here and takes the last encoded frames.
  if (encoder) encoder->Close();
  if (thread_.joinable()) {
    stopEvent_.set();
    const uint32_t result = thread_.join(kThreadPatienceMs);
    if (result != platform::kWaitObject0) {
      logLine(u"[Warning] Problems waiting recorder shutdown %s:%d\n", name_, result);
      thread_.terminate();
      // Where the thread could only be abandoned it may still be using the
      // encoder, the writer and this object: none of them may go.
      logLine(u"[Error]   *** CAP *** The thread of %s did not end; its file is left as it stands\n", name_);
      return false;
    }
  }
  stopEvent_.close();
  if (framesEncoded_ != 0 || framesRefused_ != 0) {
    logLine(u"  *** CAP *** Frames encoded %u, refused %u for %s\n", framesEncoded_.load(), framesRefused_.load(), name_);
  }
  if (encoder && encoder->AbandonedThreads()) {
    // A worker that would not end still runs in the encoder's code.
    static_cast<void>(encoder.release());
  }
  encoder.reset();
  audio.reset();
  audioBuffer_.clear();
  if (writer) writer->finish(deleteFiles);
  writer.reset();
  publisher.reset();
  return true;
}

void Recorder::Retire(std::unique_ptr<Recorder> recorder, bool deleteFiles) {
  if (recorder && !recorder->Stop(deleteFiles)) static_cast<void>(recorder.release());
}

}  // namespace kestrium
