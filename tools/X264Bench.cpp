#include "tools/X264Bench.h"

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "videoEncoder/H264Bitstream.h"
#include "videoEncoder/Nv12Frame.h"
#include "videoEncoder/VidEncoderH264.h"
#include "videoEncoder/X264Session.h"

namespace kestrium::tools {

namespace {

class CountingSink : public CodedFrameSink {
 public:
  void deliver(std::span<const std::byte> annexB, uint32_t /*position*/, bool /*key*/) override {
    out_.clear();
    bytes += appendLengthPrefixed(annexB, out_);
    ++frames;
  }
  uint64_t bytes = 0;
  uint64_t frames = 0;

 private:
  std::vector<std::byte> out_;
};

// The options libx264 writes into the SEI of its headers: "cabac=1 ref=1 ...".
std::string x264Options(const std::vector<std::byte>& headers) {
  const std::string text(reinterpret_cast<const char*>(headers.data()), headers.size());
  const size_t at = text.find("options: ");
  if (at == std::string::npos) return {};
  const size_t end = text.find('\0', at);
  return text.substr(at + 9, end == std::string::npos ? std::string::npos : end - at - 9);
}

}  // namespace

X264BenchResult runX264(const OptionList& options, const uint8_t* frames, size_t inputFrames, size_t total) {
  X264BenchResult result;
  const H264Settings s = VidEncoderH264::settingsFor(options);
  X264Session session;
  std::vector<std::byte> headers;
  if (!session.open(s, headers)) return result;
  std::fprintf(stderr, "kestrium-bench: x264 options: %s\n", x264Options(headers).c_str());

  Nv12Frame picture;
  if (!picture.allocate(s.width, s.height)) return result;
  const size_t frameBytes = size_t(s.width) * s.height * 3;

  CountingSink sink;
  const auto start = std::chrono::steady_clock::now();
  for (size_t i = 0; i < total; ++i) {
    picture.convertFrom(frames + (i % inputFrames) * frameBytes);
    if (!session.encode(picture.picture(), static_cast<uint32_t>(i * 1000 * s.rateDen / s.rateNum), sink)) return result;
  }
  if (!session.drain(sink)) return result;
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  result.ok = sink.frames == total;
  result.bytes = sink.bytes;
  result.frames = sink.frames;
  return result;
}

}  // namespace kestrium::tools
