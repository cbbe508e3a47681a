// The stages of the TMB2 encoder on game-like 1920x1080 frames: the residual
// pass with its counts (per processor tier), the code construction, the coder
// (with and without its pair table), the whole frame, and the decoder for
// scale. bytes_per_second counts the bytes of the stage's input.

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <vector>

#include "codecs/ColorConvert.h"
#include "codecs/Tmb2.h"
#include "codecs/Tmb2FrameEncoder.h"
#include "tools/GameFrames.h"

using namespace kestrium;

namespace {

constexpr uint32_t kWidth = 1920, kHeight = 1080;

struct Fixture {
  std::vector<uint8_t> rgb;
  std::vector<uint8_t> planes;
  std::vector<uint8_t> residuals;
  int32_t counts[256];
  tmb2::FrameLayout layout;

  Fixture() : rgb(size_t{kWidth} * kHeight * 3), layout(tmb2::frameLayout(kWidth, kHeight)) {
    tools::renderGameFrame(kWidth, kHeight, 40, rgb.data());
    planes.resize(layout.planesSize);
    uint8_t* targets[3] = {planes.data(), planes.data() + layout.planes[1].offset,
                           planes.data() + layout.planes[2].offset};
    rgbToYuv420(rgb.data(), targets, kWidth, kHeight);
    residuals.resize(size_t{kWidth} * kHeight);
    tmb2::initCounts(counts);
    tmb2::planeResiduals(planes.data(), kWidth, kHeight, residuals.data(), counts,
                         tmb2::verticalResidualsKernel(processCpuFlags()));
  }
};

const Fixture& fixture() {
  static const Fixture f;
  return f;
}

void BM_Residuals(benchmark::State& state, uint32_t mask) {
  const CpuFlags flags = detectCpuFlags().masked(mask);
  if ((flags.bits & mask) != mask) {
    state.SkipWithError("this processor lacks the tier");
    return;
  }
  const Fixture& f = fixture();
  const tmb2::VerticalResiduals kernel = tmb2::verticalResidualsKernel(flags);
  std::vector<uint8_t> residuals(f.residuals.size());
  for (auto _ : state) {
    int32_t counts[256];
    tmb2::initCounts(counts);
    tmb2::planeResiduals(f.planes.data(), kWidth, kHeight, residuals.data(), counts, kernel);
    benchmark::DoNotOptimize(counts);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kWidth * kHeight);
}
BENCHMARK_CAPTURE(BM_Residuals, c, 0u);
BENCHMARK_CAPTURE(BM_Residuals, sse2, kCpuSSE2);
BENCHMARK_CAPTURE(BM_Residuals, avx2, kCpuSSE2 | kCpuSSSE3 | kCpuAVX2);

void BM_CodeLengths(benchmark::State& state) {
  const Fixture& f = fixture();
  for (auto _ : state) {
    uint8_t lengths[256];
    tmb2::buildCodeLengths(f.counts, lengths);
    benchmark::DoNotOptimize(lengths);
  }
}
BENCHMARK(BM_CodeLengths);

void BM_Coder(benchmark::State& state, bool pairs) {
  const Fixture& f = fixture();
  auto scratch = std::make_unique<tmb2::CoderScratch>();
  std::vector<uint8_t> out(f.residuals.size() * 4);
  size_t size = 0;
  for (auto _ : state) {
    size = tmb2::encodePlane(f.residuals.data(), static_cast<uint32_t>(f.residuals.size()), out.data(), out.size(),
                             f.counts, pairs ? scratch.get() : nullptr);
    benchmark::DoNotOptimize(size);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(f.residuals.size()));
  state.counters["bits_per_residual"] = static_cast<double>(size) * 8 / static_cast<double>(f.residuals.size());
}
BENCHMARK_CAPTURE(BM_Coder, singles, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Coder, pairs, true)->Unit(benchmark::kMillisecond);

void BM_Frame(benchmark::State& state) {
  const Fixture& f = fixture();
  tmb2::FrameEncoder encoder(kWidth, kHeight);
  std::vector<uint8_t> out(size_t{kWidth} * kHeight * 4);
  size_t size = 0;
  for (auto _ : state) {
    size = encoder.encode(f.rgb.data(), out.data(), out.size());
    benchmark::DoNotOptimize(size);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(f.rgb.size()));
  state.counters["bytes_per_frame"] = static_cast<double>(size);
}
BENCHMARK(BM_Frame)->Unit(benchmark::kMillisecond);

void BM_DecodeFrame(benchmark::State& state) {
  const Fixture& f = fixture();
  tmb2::FrameEncoder encoder(kWidth, kHeight);
  std::vector<uint8_t> frame(size_t{kWidth} * kHeight * 4);
  frame.resize(encoder.encode(f.rgb.data(), frame.data(), frame.size()));
  std::vector<uint8_t> planes(f.layout.planesSize), residuals(f.residuals.size());
  std::string error;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tmb2::decodeFrame(frame.data(), frame.size(), kWidth, kHeight, planes.data(),
                                               residuals.data(), error));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(f.rgb.size()));
}
BENCHMARK(BM_DecodeFrame)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
