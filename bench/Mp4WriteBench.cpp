// The MP4 writer on the recording path and at its end.
//
// BM_Mp4Write writes one second of a 1080p60 recording a pass (60 H.264 frames
// at 20 Mbit/s, a key frame among them, and 47 AAC packets at 160 kbit/s,
// interleaved as they come) through MP4Container into a file. Its peers write
// the same bytes in the same order to the same disk: BM_PlainWriteBuffered in
// blocks of 1 MiB (the least any writer can do), BM_PlainWritePerSample with a
// write for each sample. The ratio of bytes_per_second is the muxer's cost.
//
// BM_MoovBuild times finalize for a recording of an hour at 60 fps with AAC:
// the tables of 216,000 frames and 168,750 audio packets made into moov and
// written, into a sink that only counts.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <vector>

#include "fileOutput/MP4Container.h"
#include "platform/File.h"

using namespace kestrium;

namespace {

constexpr size_t kFrameBytes = 20'000'000 / 8 / 60;
constexpr size_t kKeyBytes = 8 * kFrameBytes;
constexpr size_t kAudioBytes = 160'000 / 8 * 1024 / 48000;
constexpr int kFps = 60;
constexpr int kAudioPerSecond = 47;
constexpr int kSeconds = 120;

std::filesystem::path scratch(const char* name) { return std::filesystem::temp_directory_path() / name; }

// One second of samples in the order they reach the writer: the sound comes in
// bursts of about 200 ms, between frames.
struct Sample {
  bool audio;
  bool key;
  size_t size;
};
std::vector<Sample> oneSecond() {
  std::vector<Sample> order;
  int audio = 0;
  for (int frame = 0; frame < kFps; ++frame) {
    order.push_back({false, frame == 0, frame == 0 ? kKeyBytes : kFrameBytes});
    if (frame % 12 == 11) {
      for (int i = 0; i < kAudioPerSecond / 5 + (frame == 59 ? kAudioPerSecond % 5 : 0); ++i, ++audio) {
        order.push_back({true, false, kAudioBytes});
      }
    }
  }
  return order;
}

const std::vector<std::byte>& payload() {
  static const std::vector<std::byte> bytes(kKeyBytes, std::byte{0x5A});
  return bytes;
}

int64_t bytesPerSecond() {
  int64_t total = 0;
  for (const Sample& s : oneSecond()) total += static_cast<int64_t>(s.size);
  return total;
}

void BM_PlainWriteBuffered(benchmark::State& state) {
  const auto order = oneSecond();
  const auto path = scratch("kestrium-bench-plain.bin");
  platform::File file;
  file.open(path, platform::File::Mode::CreateAlways);
  std::vector<std::byte> block;
  block.reserve(1 << 20);
  for (auto _ : state) {
    for (const Sample& s : order) {
      if (block.size() + s.size > block.capacity()) {
        file.write(block);
        block.clear();
      }
      block.insert(block.end(), payload().begin(), payload().begin() + static_cast<ptrdiff_t>(s.size));
    }
  }
  file.write(block);
  file.close();
  std::filesystem::remove(path);
  state.SetBytesProcessed(state.iterations() * bytesPerSecond());
}
BENCHMARK(BM_PlainWriteBuffered)->Iterations(kSeconds)->UseRealTime();

void BM_PlainWritePerSample(benchmark::State& state) {
  const auto order = oneSecond();
  const auto path = scratch("kestrium-bench-plain.bin");
  platform::File file;
  file.open(path, platform::File::Mode::CreateAlways);
  for (auto _ : state) {
    for (const Sample& s : order) file.write(std::span(payload()).first(s.size));
  }
  file.close();
  std::filesystem::remove(path);
  state.SetBytesProcessed(state.iterations() * bytesPerSecond());
}
BENCHMARK(BM_PlainWritePerSample)->Iterations(kSeconds)->UseRealTime();

void BM_Mp4Write(benchmark::State& state) {
  const auto order = oneSecond();
  const auto path = scratch("kestrium-bench.mp4");
  platform::File file;
  file.open(path, platform::File::Mode::CreateAlways);
  MP4Container mp4;
  mp4.open(std::move(file));
  mp4.setAudioTrack(false, 48000, 160000, 1024, 0x9011);
  uint32_t frame = 0, packet = 0;
  for (auto _ : state) {
    for (const Sample& s : order) {
      const auto bytes = std::span(payload()).first(s.size);
      if (s.audio) {
        mp4.addSample(1, static_cast<uint32_t>(uint64_t{packet++} * 1024 * 1000 / 48000), bytes, true);
      } else {
        mp4.addSample(0, frame++ * 1000 / kFps, bytes, s.key);
      }
    }
  }
  mp4.finalize();
  std::filesystem::remove(path);
  state.SetBytesProcessed(state.iterations() * bytesPerSecond());
}
BENCHMARK(BM_Mp4Write)->Iterations(kSeconds)->UseRealTime();

// Keeps no bytes: the position only moves on.
class CountingSink : public Serializer {
 public:
  void write(std::span<const std::byte> data) override { position_ += data.size(); }
  void seek(int64_t offset, Origin) override { position_ = static_cast<uint64_t>(offset); }
  uint64_t tell() const override { return position_; }

 private:
  uint64_t position_ = 0;
};

void BM_MoovBuild(benchmark::State& state) {
  const auto order = oneSecond();
  const std::vector<std::byte> small(1);
  size_t moovBytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    MP4Container mp4;
    auto sink = std::make_unique<CountingSink>();
    mp4.open(std::move(sink));
    mp4.setAudioTrack(false, 48000, 160000, 1024, 0x9011);
    uint32_t frame = 0, packet = 0;
    for (int second = 0; second < 3600; ++second) {
      for (const Sample& s : order) {
        if (s.audio) {
          mp4.addSample(1, static_cast<uint32_t>(uint64_t{packet++} * 1024 * 1000 / 48000), small, true);
        } else {
          mp4.addSample(0, frame++ * 1000 / kFps, small, s.key);
        }
      }
    }
    moovBytes = mp4.buildMoov(0).size();
    state.ResumeTiming();
    mp4.finalize();
  }
  state.counters["moov_bytes"] = static_cast<double>(moovBytes);
}
BENCHMARK(BM_MoovBuild)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
