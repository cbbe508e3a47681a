// How long a broadcast takes from the start of its connection to its first media
// packet on the socket, with Nagle's algorithm left on (as the publisher runs)
// and with TCP_NODELAY, against a real RTMP server on loopback; the counter
// to_publish_ms is the part up to the server's go-ahead (handshake, connect,
// createStream, publish). Frames come every millisecond, so that the interleave
// queue (ten frames deep) adds about 10 ms; at 30 fps it would add 300. The
// server's URL comes from KESTRIUM_RTMP_URL (bench/broadcast_peers.sh starts one).

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "broadcast/RTMPPublisher.h"
#include "platform/Clock.h"
#include "platform/Socket.h"
#include "platform/Text.h"
#include "recorder/BroadcastInfo.h"

namespace kestrium {
namespace {

std::vector<std::byte> bytes(std::initializer_list<uint8_t> values) {
  std::vector<std::byte> out;
  for (uint8_t v : values) out.push_back(std::byte(v));
  return out;
}

void BM_ConnectToFirstPacket(benchmark::State& state) {
  const char* url = std::getenv("KESTRIUM_RTMP_URL");
  if (url == nullptr) {
    state.SkipWithError("KESTRIUM_RTMP_URL is not set");
    return;
  }
  const bool noDelay = state.range(0) != 0;
  // A key frame of one small IDR slice: the server takes any bytes.
  const std::vector<std::byte> frame(4000, std::byte{0x11});
  int round = 0;
  double publishMs = 0;
  for (auto _ : state) {
    {
      SharedBroadcastInfo& shared = broadcastInfo();
      std::lock_guard guard(shared.lock);
      shared.info.address = platform::toUtf16(url);
      shared.info.stream = platform::toUtf16("bench" + std::to_string(round++));
      shared.info.videoBitrate = 2000;
      shared.info.frameRate = 30;
      shared.info.width = 640;
      shared.info.height = 360;
      shared.info.sps = bytes({0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E});
      shared.info.pps = bytes({0, 0, 0, 1, 0x68, 0xCE});
    }
    RTMPPublisher publisher(RTMPPublisher::Settings{noDelay, 500});
    uint32_t ms = 0;
    for (uint32_t t = 0; t < 10000 && ms == 0; ++t) {
      publisher.sendFrame(frame, t, NetworkStream::kKeyFrame);
      platform::sleepMs(1);
      ms = publisher.connectToFirstPacketMs();
    }
    if (ms == 0) {
      state.SkipWithError("no packet went out: is the server up?");
      return;
    }
    state.SetIterationTime(ms / 1000.0);
    publishMs += publisher.connectToPublishMs();
  }
  state.counters["to_publish_ms"] = benchmark::Counter(publishMs, benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_ConnectToFirstPacket)->ArgName("nodelay")->Arg(0)->Arg(1)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kestrium

int main(int argc, char** argv) {
  kestrium::platform::ignoreBrokenPipe();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
