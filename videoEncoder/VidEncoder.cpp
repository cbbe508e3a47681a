#include "videoEncoder/VidEncoder.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "platform/Clock.h"
#include "server/Log.h"

namespace kestrium {

namespace {

// A worker waiting for its turn yields this many times before it sleeps between
// looks, so that a slow consumer does not cost the game a whole core.
constexpr int kYieldsBeforeSleeping = 64;

void pause(int round) { platform::sleepMs(round < kYieldsBeforeSleeping ? 0 : 1); }

}  // namespace

VidEncoder::~VidEncoder() { StopWorkers(); }

int VidEncoder::Open() {
  objects_ = CaptureObjects(sessionName_);
  objects_.openNewEncoded();
  objects_.openCommonData();
  // The slot and the workers' outputs are sized alike: a frame that fits one
  // fits the other.
  const uint64_t capacity = EncodedCapacity();
  objects_.openEncoderBuffer(capacity);

  const size_t frameSize = static_cast<size_t>(std::max(width_, 0)) * std::max(height_, 0) * 3;
  const size_t encodedSize = static_cast<size_t>(std::min<uint64_t>(capacity, SIZE_MAX));
  const int count = std::max(threads_, 0);
  idle_.reserve(count);
  inFlight_.reserve(count);
  for (int i = 0; i < count; ++i) {
    auto worker = std::make_unique<EncodeWorker>();
    worker->frame = AlignedBuffer(frameSize);
    worker->encoded = AlignedBuffer(encodedSize);
    worker->width = width_;
    worker->height = height_;
    worker->owner = this;
    EncodeWorker* raw = worker.get();
    if (!worker->event.create({}) || (frameSize != 0 && (raw->frame.empty() || raw->encoded.empty())) ||
        !worker->thread.start([this, raw] { WorkerLoop(*raw); }, "kestrium-encode")) {
      logLine(u"[Error]   Cannot start encoder worker %d of %d\n", i + 1, count);
      continue;
    }
    std::lock_guard guard(lock_);
    idle_.push_back(raw);
    workers_.push_back(std::move(worker));
  }
  // Without a single worker every frame would be refused: better no capture.
  return count == 0 || !workers_.empty() ? 1 : 0;
}

int VidEncoder::EncodeFrame(std::span<const std::byte> source, uint32_t timed, uint32_t position) {
  EncodeWorker* worker = nullptr;
  {
    std::lock_guard guard(lock_);
    if (idle_.empty() || stopping_) return 0;
    worker = idle_.front();
    // A frame larger than the worker's buffer is the client's mistake; refusing
    // it keeps the copy inside the buffer.
    if (source.size() > worker->frame.size()) return 0;
    idle_.erase(idle_.begin());
    inFlight_.push_back(worker);
  }
  // Outside the lock, but before returning: the caller may reuse the source then.
  std::memcpy(worker->frame.data(), source.data(), source.size());
  worker->timed = timed;
  worker->position = position;
  worker->event.set();
  return 1;
}

bool VidEncoder::WaitForWork(EncodeWorker& worker) {
  worker.event.wait(platform::kInfinite);
  return worker.stop.load() == 0;
}

void VidEncoder::DeliverEncoded(EncodeWorker& worker) {
  CommonData* common = objects_.common();
  for (int round = 0; worker.stop.load() == 0; ++round) {
    if (round > 0) pause(round);
    std::unique_lock guard(lock_);
    const bool myTurn = !inFlight_.empty() && inFlight_.front() == &worker;
    if (!myTurn || common == nullptr || loadShared(common->encodedFree) == 0) continue;

    storeShared(common->encodedFree, 0u);
    uint32_t size = worker.encodedSize;
    if (size > objects_.encoderBuffer.size() || size > worker.encoded.size()) {
      // Never write past the slot: the frame goes as an empty one, which the
      // writer shows as a dropped frame.
      logLine(u"[Error]   Encoded frame of %u bytes does not fit the encoder buffer; delivered empty\n", size);
      size = 0;
    }
    std::memcpy(objects_.encoderBuffer.view(), worker.encoded.data(), size);
    common->encodedSize = size;
    common->encodedTimed = worker.timed;
    storeShared(common->encodedPosition, worker.position);
    inFlight_.erase(inFlight_.begin());
    idle_.push_back(&worker);
    objects_.newEncoded.set();
    return;
  }
}

void VidEncoder::Close() {
  // Every frame that was taken is delivered, not thrown away, while the consumer
  // takes them. One that stopped taking them (a client that never frees the
  // encoded slot) costs those frames, not a server that hangs.
  const uint64_t until = platform::monotonicNs() + uint64_t{kDrainPatienceMs} * 1000000;
  for (;;) {
    size_t left = 0;
    {
      std::lock_guard guard(lock_);
      stopping_ = true;
      left = inFlight_.size();
    }
    if (left == 0) break;
    if (platform::monotonicNs() >= until) {
      logLine(u"[Warning] Encoder of %s: the encoded slot was not freed for %u ms; %u frames in flight are dropped\n",
              sessionName_, kDrainPatienceMs, static_cast<uint32_t>(left));
      break;
    }
    platform::sleepMs(10);
  }
  StopWorkers();
  objects_.closeAll();
}

void VidEncoder::StopWorkers() {
  std::vector<std::unique_ptr<EncodeWorker>> workers;
  {
    std::lock_guard guard(lock_);
    stopping_ = true;
    workers.swap(workers_);
    idle_.clear();
    inFlight_.clear();
  }
  // Joined outside the lock: a worker that is still delivering needs it.
  for (auto& worker : workers) {
    worker->stop = 1;
    worker->event.set();
    if (!JoinEncoderThread(worker->thread)) {
      // Where the thread could only be abandoned it still uses its record and
      // this encoder, which must then outlive it.
      static_cast<void>(worker.release());
      abandoned_ = true;
    }
  }
}

}  // namespace kestrium
