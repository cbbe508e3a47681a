// The cost of the encoder framework's hand-off at 1920x1080: a frame copied into
// a worker and delivered to the encoded slot by a worker that does no encoding,
// against the two plain memcpy calls of the same bytes that it cannot beat.
// The ratio of their bytes_per_second is the framework's efficiency.

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "platform/Event.h"
#include "platform/System.h"
#include "platform/Thread.h"
#include "platform/Text.h"
#include "recorder/CaptureObjects.h"
#include "videoEncoder/VidEncoder.h"

using namespace kestrium;

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr size_t kFrameBytes = size_t{kWidth} * kHeight * 3;

class NullEncoder : public VidEncoder {
 public:
  ~NullEncoder() override { StopWorkers(); }

 protected:
  void WorkerLoop(EncodeWorker& worker) override {
    while (WaitForWork(worker)) {
      worker.encodedSize = static_cast<uint32_t>(kFrameBytes);
      DeliverEncoded(worker);
    }
  }
};

// Frees the encoded slot as soon as a frame lands in it, as a recorder does.
class SlotFreer {
 public:
  explicit SlotFreer(const std::u16string& session) : objects_(session) {
    objects_.openNewEncoded();
    objects_.openCommonData();
    stop_.create({}, true);
    freed.create({});
    storeShared(objects_.common()->encodedFree, 1u);
    thread_.start([this] {
      platform::Event* events[] = {&stop_, &objects_.newEncoded};
      while (platform::waitAny(events, platform::kInfinite) != 0) {
        storeShared(objects_.common()->encodedFree, 1u);
        freed.set();
      }
    });
  }
  platform::Event freed;  // a frame was taken out of the slot

  ~SlotFreer() {
    stop_.set();
    thread_.join(platform::kInfinite);
  }

 private:
  CaptureObjects objects_;
  platform::Event stop_;
  platform::Thread thread_;
};

void BM_TwoMemcpy(benchmark::State& state) {
  std::vector<std::byte> source(kFrameBytes, std::byte{1}), worker(kFrameBytes), slot(kFrameBytes);
  for (auto _ : state) {
    std::memcpy(worker.data(), source.data(), kFrameBytes);
    std::memcpy(slot.data(), worker.data(), kFrameBytes);
    benchmark::DoNotOptimize(slot.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFrameBytes));
}
BENCHMARK(BM_TwoMemcpy)->UseRealTime();

void BM_Handoff(benchmark::State& state) {
  const std::u16string session = u"bench" + platform::toUtf16(std::to_string(state.range(0)));
  SlotFreer freer(session);
  NullEncoder encoder;
  encoder.Init({"width", std::to_string(kWidth), "height", std::to_string(kHeight), "threads",
                std::to_string(state.range(0)), "shared_name", platform::toUtf8(session)});
  std::vector<std::byte> source(kFrameBytes, std::byte{1});
  uint32_t position = 0;
  for (auto _ : state) {
    // A refused frame is offered again once a frame has left the slot, as a
    // recorder offers the next one when it comes: nothing spins beside the
    // workers, as nothing does in the server.
    while (encoder.EncodeFrame(source, 0, position) == 0) freer.freed.wait(1);
    ++position;
  }
  encoder.Close();
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFrameBytes));
}
BENCHMARK(BM_Handoff)->Arg(1)->Arg(2)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  platform::setObjectNamespace(u"bench-handoff");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
