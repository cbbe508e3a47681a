#pragma once

// What the tests of the hardware H.264 encoders share: the clip the fake drivers
// answer with (made at build time by ffmpeg's libx264, an access unit delimiter
// ahead of each frame, an IDR frame every ten), and the ways to look at what an
// encoder delivered.

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "platform/SharedMapping.h"
#include "server/CommandBlock.h"
#include "tests/support/LogFixture.h"
#include "tests/videoEncoder/EncodedSlotConsumer.h"
#include "videoEncoder/IVidEncoder.h"

namespace kestrium::test {

using Bytes = std::vector<uint8_t>;
using Units = std::vector<Bytes>;

std::filesystem::path clipPath();
// The clip's access units, each from its delimiter (NAL type 9) to the next.
const Units& clipUnits();

// NAL units of an Annex B stream, without start codes.
Units nalUnits(std::span<const std::byte> annexB);
Units nalUnits(const Bytes& annexB);
// NAL units of a frame as the encoded slot holds it: each behind its length.
Units lengthPrefixedUnits(const Bytes& frame);
bool holdsIdr(const Bytes& accessUnit);

// Our conversion of an rgb24 source, packed: luma rows, then rows of U, V pairs.
Bytes packedNv12(const Bytes& rgb, uint32_t width, uint32_t height);

// Per-frame MD5 sums of ffmpeg's decoding of an H.264 stream.
std::vector<std::string> decodedFrameSums(const std::filesystem::path& stream);

// Writes the parameter sets (Annex B, start codes included) and the delivered
// frames as one Annex B stream, decodes it with ffmpeg, and expects frame i to
// be the clip's picture i modulo its length.
void expectDecodesToTheClip(const std::filesystem::path& stream, const Bytes& parameterSets,
                            const std::vector<EncodedFrame>& frames);

// The options of a capture of that size at 30 fps, Main profile, 2000 kbit/s,
// with more of them after.
OptionList h264Options(uint32_t width, uint32_t height, OptionList more = {});

// An encoder suite with the server's log and features block (held as the server
// holds it for its whole life, so a probe's word stays).
class HardwareEncoderTest : public LoggedTest {
 protected:
  void SetUp() override;
  FeaturesBlock& features() { return *features_.as<FeaturesBlock>(); }
  // The encoder of that name, initialised and open, or null.
  static std::unique_ptr<IVidEncoder> openEncoder(std::u16string_view name, const OptionList& options);
  // Feeds frames of a game-like picture at positions about 33 ms apart, closes,
  // and gives the frames the recorder's side took (waiting for expected of them).
  std::vector<EncodedFrame> record(IVidEncoder& encoder, EncodedSlotConsumer& consumer, uint32_t width,
                                   uint32_t height, uint32_t frames, size_t expected);

  // Feeds one picture over and over (at most `most` times, for at most
  // timeoutMs) until the encoder refuses it: how long a failing encoder takes
  // to give up. Returns the frames it took.
  static uint32_t feedUntilRefused(IVidEncoder& encoder, uint32_t width, uint32_t height, uint32_t most,
                                   uint32_t timeoutMs);

  platform::SharedMapping features_{std::u16string(kFeaturesName), sizeof(FeaturesBlock)};
  std::vector<Bytes> sources_;
  std::vector<uint32_t> positions_;
};

}  // namespace kestrium::test
