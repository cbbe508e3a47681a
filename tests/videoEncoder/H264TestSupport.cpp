#include "tests/videoEncoder/H264TestSupport.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "platform/System.h"
#include "tests/codecs/CodecTestSupport.h"
#include "tests/videoEncoder/FakeDriverSupport.h"
#include "tests/support/TestSupport.h"
#include "videoEncoder/H264Bitstream.h"
#include "videoEncoder/Nv12Frame.h"

namespace kestrium::test {

std::filesystem::path clipPath() { return platform::executablePath().parent_path() / "nvenc-clip.h264"; }

const Units& clipUnits() {
  static const Units units = [] {
    const std::vector<char> raw = readBytes(clipPath());
    return fake::accessUnitsOf(Bytes(raw.begin(), raw.end()));
  }();
  return units;
}

Units nalUnits(std::span<const std::byte> annexB) {
  Units units;
  AnnexBReader reader(annexB);
  for (std::span<const std::byte> unit; reader.next(unit);) {
    const auto* b = reinterpret_cast<const uint8_t*>(unit.data());
    units.emplace_back(b, b + unit.size());
  }
  return units;
}
Units nalUnits(const Bytes& annexB) { return nalUnits(std::as_bytes(std::span(annexB))); }

Units lengthPrefixedUnits(const Bytes& frame) {
  Units units;
  for (size_t at = 0; at < frame.size();) {
    const size_t n = at + 4 > frame.size() ? 0 : (size_t{frame[at]} << 24) | (size_t{frame[at + 1]} << 16) |
                                                     (frame[at + 2] << 8) | frame[at + 3];
    if (n == 0 || at + 4 + n > frame.size()) {
      ADD_FAILURE() << "a unit of " << n << " bytes at " << at << " of " << frame.size();
      break;
    }
    units.emplace_back(frame.begin() + static_cast<ptrdiff_t>(at + 4),
                       frame.begin() + static_cast<ptrdiff_t>(at + 4 + n));
    at += 4 + n;
  }
  return units;
}

bool holdsIdr(const Bytes& accessUnit) {
  for (const Bytes& nal : nalUnits(accessUnit)) {
    if (!nal.empty() && (nal[0] & 0x1F) == kNalTypeIdr) return true;
  }
  return false;
}

Bytes packedNv12(const Bytes& rgb, uint32_t width, uint32_t height) {
  Nv12Frame frame;
  EXPECT_TRUE(frame.allocate(static_cast<int32_t>(width), static_cast<int32_t>(height)));
  frame.convertFrom(rgb.data());
  const Nv12Picture& p = frame.picture();
  Bytes packed;
  for (int32_t y = 0; y < p.height; ++y) packed.insert(packed.end(), p.luma + y * p.lumaStep, p.luma + y * p.lumaStep + p.width);
  for (int32_t y = 0; y < p.height / 2; ++y) {
    packed.insert(packed.end(), p.chroma + y * p.chromaStep, p.chroma + y * p.chromaStep + p.width);
  }
  return packed;
}

std::vector<std::string> decodedFrameSums(const std::filesystem::path& stream) {
  std::string out;
  EXPECT_EQ(runTool(KESTRIUM_FFMPEG, {"-v", "error", "-f", "h264", "-i", stream.string(), "-f", "framemd5", "-"}, out),
            0)
      << out;
  std::vector<std::string> sums;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    sums.push_back(line.substr(line.rfind(',') + 2));
  }
  return sums;
}

Bytes annexBStream(const std::vector<std::byte>& sps, const std::vector<std::byte>& pps,
                   const std::vector<EncodedFrame>& frames) {
  Bytes out;
  for (const auto* set : {&sps, &pps}) {
    for (std::byte b : *set) out.push_back(std::to_integer<uint8_t>(b));
  }
  for (const EncodedFrame& f : frames) {
    for (const Bytes& nal : lengthPrefixedUnits(f.bytes)) {
      out.insert(out.end(), {0, 0, 0, 1});
      out.insert(out.end(), nal.begin(), nal.end());
    }
  }
  return out;
}

void writeFile(const std::filesystem::path& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void expectDecodesToTheClip(const std::filesystem::path& stream, const std::vector<std::byte>& sps,
                            const std::vector<std::byte>& pps, const std::vector<EncodedFrame>& frames) {
  if (std::string(KESTRIUM_FFMPEG).empty()) return;
  writeFile(stream, annexBStream(sps, pps, frames));
  const std::vector<std::string> delivered = decodedFrameSums(stream);
  const std::vector<std::string> original = decodedFrameSums(clipPath());
  ASSERT_EQ(original.size(), clipUnits().size());
  ASSERT_EQ(delivered.size(), frames.size());
  for (size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(delivered[i], original[i % original.size()]) << "frame " << i;
}

OptionList h264Options(uint32_t width, uint32_t height, OptionList more) {
  OptionList o = {"width", std::to_string(width), "height", std::to_string(height), "fps",     "30000",
                  "shared_name", "cap",           "profile", "1",                   "bitrate", "2000"};
  o.insert(o.end(), more.begin(), more.end());
  return o;
}

void HardwareEncoderTest::SetUp() {
  LoggedTest::SetUp();
  ASSERT_FALSE(clipUnits().empty()) << "the clip was made with the tests";
  ASSERT_TRUE(features_.open());
}

std::unique_ptr<IVidEncoder> HardwareEncoderTest::openEncoder(std::u16string_view name, const OptionList& options) {
  auto encoder = CreateVideoEncoder(name);
  if (encoder != nullptr && encoder->Init(options) != 1) encoder.reset();
  return encoder;
}

std::vector<EncodedFrame> HardwareEncoderTest::record(IVidEncoder& encoder, EncodedSlotConsumer& consumer,
                                                      uint32_t width, uint32_t height, uint32_t frames,
                                                      size_t expected) {
  for (uint32_t i = 0; i < frames; ++i) {
    sources_.push_back(picture(Picture::Game, width, height, i + 1));
    positions_.push_back(1000 + i * 33 + i % 3);
    EXPECT_EQ(encoder.EncodeFrame(std::as_bytes(std::span(sources_.back())), 1, positions_.back()), 1);
  }
  encoder.Close();
  return consumer.taken(expected);
}

uint32_t HardwareEncoderTest::feedUntilRefused(IVidEncoder& encoder, uint32_t width, uint32_t height, uint32_t most,
                                               uint32_t timeoutMs) {
  const Bytes frame = picture(Picture::Game, width, height, 1);
  const uint64_t until = platform::monotonicNs() + uint64_t{timeoutMs} * 1000000;
  uint32_t taken = 0;
  while (taken < most && platform::monotonicNs() < until &&
         encoder.EncodeFrame(std::as_bytes(std::span(frame)), 1, taken * 33) != 0) {
    ++taken;
    platform::sleepMs(5);
  }
  return taken;
}

}  // namespace kestrium::test
