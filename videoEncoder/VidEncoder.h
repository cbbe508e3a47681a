#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "codecs/AlignedBuffer.h"
#include "platform/Event.h"
#include "platform/Thread.h"
#include "recorder/CaptureObjects.h"
#include "videoEncoder/IVidEncoder.h"

namespace kestrium {

class VidEncoder;

// One worker thread of a VidEncoder, with the buffers it owns for its life.
struct EncodeWorker {
  platform::Thread thread;
  platform::Event event;          // work (or the stop request) is there
  std::atomic<uint32_t> stop{0};  // asks the thread to end
  AlignedBuffer frame;            // copy of the source frame
  uint32_t timed = 0;
  uint32_t position = 0;
  int32_t width = 0;
  int32_t height = 0;
  AlignedBuffer encoded;  // the worker's output
  uint32_t encodedSize = 0;
  VidEncoder* owner = nullptr;
};

// The base of the software encoders: frames are spread over worker threads,
// encoded in parallel, and delivered to the encoded slot strictly in the order
// EncodeFrame took them. EncodeFrame never blocks: with no idle worker it
// refuses the frame, which is the whole of the back-pressure.
//
// Owners call Close() before they destroy an encoder. A subclass's destructor
// calls StopWorkers(), so that no worker runs WorkerLoop on a half-destroyed object.
class VidEncoder : public IVidEncoder {
 public:
  ~VidEncoder() override;

  int Open() override;
  int EncodeFrame(std::span<const std::byte> source, uint32_t timed, uint32_t position) override;
  void Close() override;
  bool AbandonedThreads() const override { return abandoned_; }

 protected:
  // Runs on each worker's thread: set up, then encode frames until told to stop:
  //   while (WaitForWork(worker)) { ...encode frame into encoded...; DeliverEncoded(worker); }
  virtual void WorkerLoop(EncodeWorker& worker) = 0;

  // Waits for the next frame; false once the worker is to end.
  bool WaitForWork(EncodeWorker& worker);

  // Puts the worker's encoded frame into the encoded slot when it is the
  // frame's turn and the slot is free, then returns the worker to the idle list.
  // A worker told to stop gives up waiting for its turn.
  void DeliverEncoded(EncodeWorker& worker);

  // Ends the worker threads without delivering what they hold.
  void StopWorkers();

 private:
  CaptureObjects objects_{u""};
  std::mutex lock_;  // the lists, the stopping flag and the encoded slot
  bool stopping_ = false;
  std::atomic<bool> abandoned_{false};
  std::vector<std::unique_ptr<EncodeWorker>> workers_;
  // Both lists hold at most all workers and are reserved for that, so moving a
  // worker between them never allocates.
  std::vector<EncodeWorker*> idle_;
  std::vector<EncodeWorker*> inFlight_;
};

}  // namespace kestrium
