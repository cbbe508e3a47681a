#include "tools/VfwBench.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>

#include "platform/Clock.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "recorder/CaptureObjects.h"
#include "server/Log.h"
#include "videoEncoder/VidEncoderVFW.h"

namespace kestrium::tools {

namespace {

// The server's log lines of a run, shown when the codec would not work: they
// say why.
class RunLog {
 public:
  explicit RunLog(const std::string& name)
      : path_(std::filesystem::temp_directory_path() / (name + ".txt")) {
    processLog().open(path_, true);
  }
  ~RunLog() {
    processLog().close();
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  void show() const {
    std::ifstream in(path_, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::u16string text(bytes.size() / 2, u'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * 2);
    std::fputs(platform::toUtf8(text).c_str(), stderr);
  }

 private:
  std::filesystem::path path_;
};

}  // namespace

VfwBenchResult runVfw(uint32_t fourcc, uint32_t width, uint32_t height, const uint8_t* frames, size_t inputFrames,
                      size_t total) {
  VfwBenchResult result;
  // The capture's shared objects, in a namespace of this run's own.
  const std::string name = "kestrium-bench-" + std::to_string(platform::monotonicNs());
  platform::setObjectNamespace(platform::toUtf16(name));
  const RunLog log(name);
  const VfwBenchResult failed;
  CaptureObjects slot(u"bench");
  if (!slot.openCommonData() || !slot.openNewEncoded() || !slot.openEncoderBuffer(encoderBufferSize(width, height))) {
    return result;
  }
  CommonData* common = slot.common();
  storeShared(common->encodedFree, 1u);

  VidEncoderVFW encoder;
  if (encoder.Init({"width", std::to_string(width), "height", std::to_string(height), "threads", "0", "shared_name",
                    "bench", "vfw_codec", std::to_string(fourcc)}) == 0) {
    encoder.Close();
    log.show();
    return failed;
  }
  const size_t frameBytes = size_t{width} * height * 3;
  const auto encode = [&](size_t i) {
    const auto* frame = reinterpret_cast<const std::byte*>(frames + (i % inputFrames) * frameBytes);
    if (encoder.EncodeFrame(std::span(frame, frameBytes), 0, static_cast<uint32_t>(i)) == 0) return false;
    const uint32_t size = common->encodedSize;
    result.bytes += size;
    result.frames += size != 0;
    storeShared(common->encodedFree, 1u);
    return true;
  };
  // One untimed frame: the codec's first call sets up its tables.
  if (!encode(0)) return failed;
  result.bytes = 0;
  result.frames = 0;
  const auto start = std::chrono::steady_clock::now();
  for (size_t i = 0; i < total; ++i) {
    if (!encode(i)) return failed;
  }
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  encoder.Close();
  if (result.frames != total) log.show();
  result.ok = true;
  return result;
}

}  // namespace kestrium::tools
