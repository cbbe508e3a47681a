// Writing 1080p-sized chunks through AVIOutputFile against a plain sequential
// write of the same bytes to the same disk. The ratio of their bytes_per_second
// is the muxer's cost on the recording path.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <vector>

#include "fileOutput/AVIOutputFile.h"
#include "platform/File.h"

using namespace kestrium;

namespace {

constexpr size_t kFrameBytes = size_t{1920} * 1080 * 3;
constexpr int kFrames = 200;

std::filesystem::path scratch(const char* name) { return std::filesystem::temp_directory_path() / name; }

void BM_PlainWrite(benchmark::State& state) {
  const std::vector<std::byte> frame(kFrameBytes, std::byte{7});
  const auto path = scratch("kestrium-bench-plain.bin");
  platform::File file;
  file.open(path, platform::File::Mode::CreateAlways);
  for (auto _ : state) file.write(frame);
  file.close();
  std::filesystem::remove(path);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFrameBytes));
}
BENCHMARK(BM_PlainWrite)->Iterations(kFrames)->UseRealTime();

void BM_AviWrite(benchmark::State& state) {
  const std::vector<std::byte> frame(kFrameBytes, std::byte{7});
  const auto path = scratch("kestrium-bench-avi.avi");
  AVIOutputFile avi;
  avi.initOutputStreams();
  AVIVideoOutputStream& video = *avi.videoStream();
  video.header.fccType = fourcc("vids");
  video.header.dwScale = 1000;
  video.header.dwRate = 60000;
  video.header.dwLength = 1;
  video.format.assign(40, std::byte{0});
  avi.init(path, 1920, 1080, 1, 0, 100000, 1);
  for (auto _ : state) video.write(kAviKeyFrame, frame, 1, 0);
  avi.finalize();
  std::filesystem::remove(path);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFrameBytes));
}
BENCHMARK(BM_AviWrite)->Iterations(kFrames)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
