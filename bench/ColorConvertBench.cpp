// Colour conversion of 1920x1080 rgb24 frames, one registration per processor
// tier, against a plain memcpy of the same frames. "Cold" takes the frames in
// turn from a set larger than the caches, as a recorder meets them; "Hot"
// converts one frame again and again. The ratio of the bytes_per_second of a
// conversion and of the memcpy of the same kind says how near memory speed it is.

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "codecs/AlignedBuffer.h"
#include "codecs/ColorConvert.h"
#include "codecs/CpuFeatures.h"
#include "tools/GameFrames.h"

using namespace kestrium;

namespace {

constexpr uint32_t kWidth = 1920, kHeight = 1080;
constexpr size_t kFrameBytes = size_t{kWidth} * kHeight * 3;
constexpr size_t kColdFrames = 24;  // 149 MB: far past any cache

const uint8_t* frames() {
  static AlignedBuffer buffer = [] {
    AlignedBuffer b(kFrameBytes * kColdFrames);
    std::vector<uint8_t> one(kFrameBytes);
    for (size_t f = 0; f < kColdFrames; ++f) {
      tools::renderGameFrame(kWidth, kHeight, static_cast<uint32_t>(f * 4), one.data());
      std::memcpy(b.data() + f * kFrameBytes, one.data(), kFrameBytes);
    }
    return b;
  }();
  return reinterpret_cast<const uint8_t*>(buffer.data());
}

void BM_Convert(benchmark::State& state, uint32_t mask, bool cold) {
  const CpuFlags flags = detectCpuFlags().masked(mask);
  if ((flags.bits & mask) != mask) {
    state.SkipWithError("this processor lacks the tier");
    return;
  }
  const ColorConvertKernels kernels = colorConvertKernels(flags);
  AlignedBuffer out(kFrameBytes / 2);
  auto* y = reinterpret_cast<uint8_t*>(out.data());
  uint8_t* const planes[3] = {y, y + kWidth * kHeight, y + kWidth * kHeight * 5 / 4};
  const ptrdiff_t steps[3] = {kWidth, kWidth / 2, kWidth / 2};
  const uint8_t* src = frames();
  size_t f = 0;
  for (auto _ : state) {
    const uint8_t* frame = src + (cold ? f++ % kColdFrames : 0) * kFrameBytes;
    benchmark::DoNotOptimize(rgbToYuv420Stepped(kernels, frame, 3 * kWidth, planes, steps, kWidth, kHeight));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kFrameBytes));
  state.SetLabel(kernels.name);
}

void BM_Memcpy(benchmark::State& state, bool cold) {
  AlignedBuffer out(kFrameBytes);
  const uint8_t* src = frames();
  size_t f = 0;
  for (auto _ : state) {
    std::memcpy(out.data(), src + (cold ? f++ % kColdFrames : 0) * kFrameBytes, kFrameBytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kFrameBytes));
}

BENCHMARK_CAPTURE(BM_Memcpy, cold, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Convert, cold_c, 0u, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Convert, cold_sse2, kCpuSSE2, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Convert, cold_ssse3, kCpuSSE2 | kCpuSSSE3, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Convert, cold_avx2, kCpuSSE2 | kCpuSSSE3 | kCpuAVX2, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Memcpy, hot, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Convert, hot_avx2, kCpuSSE2 | kCpuSSSE3 | kCpuAVX2, false)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
