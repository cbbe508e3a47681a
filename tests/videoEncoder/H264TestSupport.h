#pragma once

// What the tests of the hardware H.264 encoders share: the clip the fake drivers
// answer with (made at build time by ffmpeg's libx264, an access unit delimiter
// ahead of each frame, an IDR frame every ten), and the ways to look at what an
// encoder delivered.

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "platform/SharedMapping.h"
#include "recorder/CommonData.h"
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

// The stream a decoder takes: the parameter sets (Annex B), then every unit of
// every delivered frame behind a 4-byte start code instead of its length. A
// length that runs past its frame fails the test.
Bytes annexBStream(const std::vector<std::byte>& sps, const std::vector<std::byte>& pps,
                   const std::vector<EncodedFrame>& frames);
void writeFile(const std::filesystem::path& path, const Bytes& bytes);

// Writes that stream, decodes it with ffmpeg, and expects frame i to be the
// clip's picture i modulo its length.
void expectDecodesToTheClip(const std::filesystem::path& stream, const std::vector<std::byte>& sps,
                            const std::vector<std::byte>& pps, const std::vector<EncodedFrame>& frames);

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

// A hardware encoder and its fake driver, for the suites that every one of them
// runs (HardwareEncoderTest.cpp); each encoder's file instantiates them.
struct HardwareDriver {
  std::u16string_view encoder;
  void (*useFake)();  // the fakes as they start, answering with the clip, in place of the driver
  int (*probe)();     // the server's probe for this encoder
  bool probeFirst;    // whether the encoder opens only on what the probe found
  const char* (*violations)();
  void (*fail)(const char* call, int status, int occurrence);
  int (*pictureCount)();
  // The driver's picture i: its pixels packed as packedNv12 packs them, and its time stamp.
  void (*picture)(int i, uint32_t width, uint32_t height, Bytes& nv12, uint64_t& stamp);
  uint64_t stampsPerMs;     // the unit of the driver's time stamps; 0: it takes none
  const char* refusedLine;  // the log's line for a capture the driver refused
  // What else the driver must have been told of the frames recorded, or null.
  void (*moreChecks)(uint32_t width, uint32_t height, uint32_t frames);
  int (*idrPictures)();  // IDR pictures coded so far, where the encoder chooses them; or null
  uint32_t FeaturesBlock::*word;  // what the probe publishes
  const char* library;            // the variable naming the library the probe loads first
  const char* logTag;             // in every line the probe writes
  const char* (*callLog)();       // of that library
};

// A case of the suite: a driver, a picture size, and a call made to fail.
struct HardwareCase {
  const char* name;
  const HardwareDriver* driver;
  uint32_t width = 642, height = 362;
  const char* call = nullptr;
  int status = 0, occurrence = 1;
  const char* line = nullptr;   // that the log must hold
  void (*arrange)() = nullptr;  // another way the driver is set up
};
inline void PrintTo(const HardwareCase& c, std::ostream* os) { *os << c.name; }
inline std::string caseName(const ::testing::TestParamInfo<HardwareCase>& info) { return info.param.name; }

class HardwareConformanceTest : public HardwareEncoderTest, public ::testing::WithParamInterface<HardwareCase> {
 protected:
  void SetUp() override;
  void TearDown() override;
  const HardwareDriver& driver() const { return *GetParam().driver; }
};
class HardwareEncodeTest : public HardwareConformanceTest {};
class HardwareSetupFailureTest : public HardwareConformanceTest {};
class HardwareFrameFailureTest : public HardwareConformanceTest {};
// Cases: the arrangement of the machine, the line the probe logs (null: it says
// nothing), and the word it publishes as the status.
class HardwareProbeTest : public HardwareConformanceTest {};
// Cases: a driver whose library is missing.
class HardwareAbsenceTest : public HardwareConformanceTest {};

// An encoder's own suite on its fakes: the driver's rules kept, nothing left open.
template <const HardwareDriver& kFake>
class FakeDriverTest : public HardwareEncoderTest {
 protected:
  void SetUp() override {
    HardwareEncoderTest::SetUp();
    kFake.useFake();
  }
  void TearDown() override {
    EXPECT_STREQ(kFake.violations(), "") << "the driver's rules are kept and nothing is left open";
    HardwareEncoderTest::TearDown();
  }
  uint32_t featureWord() { return loadShared(features().*kFake.word); }
};

}  // namespace kestrium::test
