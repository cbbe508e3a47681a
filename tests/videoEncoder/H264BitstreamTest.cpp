// The byte formats of the H.264 front on vectors made by hand, and the settings
// every H.264 encoder derives from the capture's options.

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "videoEncoder/H264Bitstream.h"
#include "videoEncoder/VidEncoderH264.h"

namespace kestrium {
namespace {

// Bytes from hex text: "00 00 01 65".
std::vector<std::byte> hex(const std::string& text) {
  std::vector<std::byte> out;
  std::istringstream in(text);
  for (std::string b; in >> b;) out.push_back(std::byte(std::stoul(b, nullptr, 16)));
  return out;
}

std::vector<std::byte> lengthPrefixed(const std::vector<std::string>& units) {
  std::vector<std::byte> out;
  for (const auto& u : units) {
    const auto bytes = hex(u);
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(std::byte((bytes.size() >> shift) & 0xFF));
    out.insert(out.end(), bytes.begin(), bytes.end());
  }
  return out;
}

struct StreamCase {
  const char* name;
  std::string annexB;
  std::vector<std::string> units;
};
void PrintTo(const StreamCase& c, std::ostream* os) { *os << c.name; }

class AnnexBTest : public ::testing::TestWithParam<StreamCase> {};

TEST_P(AnnexBTest, EachUnitGoesBehindItsLength) {
  const StreamCase& c = GetParam();
  const auto stream = hex(c.annexB);
  std::vector<std::byte> out = hex("AB");  // what the buffer held before stays
  const size_t appended = appendLengthPrefixed(stream, out);
  auto expected = hex("AB");
  const auto units = lengthPrefixed(c.units);
  expected.insert(expected.end(), units.begin(), units.end());
  EXPECT_EQ(out, expected);
  EXPECT_EQ(appended, units.size());
}

INSTANTIATE_TEST_SUITE_P(
    Streams, AnnexBTest,
    ::testing::Values(
        StreamCase{"FourByteCodes", "00 00 00 01 67 42 00 1F 00 00 00 01 68 CE 3C 80", {"67 42 00 1F", "68 CE 3C 80"}},
        StreamCase{"ThreeByteCodes", "00 00 01 65 88 84 00 00 01 41 9A", {"65 88 84", "41 9A"}},
        // Two slices of one frame from sliced threads: the second behind 3 bytes.
        StreamCase{"MixedCodes", "00 00 00 01 06 05 11 00 00 00 01 65 AA 00 00 01 65 BB 00 00 00 01 41 CC",
                   {"06 05 11", "65 AA", "65 BB", "41 CC"}},
        StreamCase{"ThreeByteCodeEndingFourBytesBeforeTheEnd", "00 00 01 65 11 00 00 01 41 22 33 44",
                   {"65 11", "41 22 33 44"}},
        StreamCase{"FourByteCodeEndingFourBytesBeforeTheEnd", "00 00 00 01 65 11 00 00 00 01 41 22 33 44",
                   {"65 11", "41 22 33 44"}},
        StreamCase{"OneByteUnitBetween", "00 00 01 09 00 00 01 65 88", {"09", "65 88"}},
        StreamCase{"OneByteUnitAtTheEnd", "00 00 01 65 88 00 00 01 0C", {"65 88", "0C"}},
        StreamCase{"OneByteStream", "00 00 00 01 0C", {"0C"}},
        StreamCase{"EmptyUnitBetweenThreeByteCodes", "00 00 01 00 00 01 65 88", {"65 88"}},
        StreamCase{"EmptyUnitBetweenFourByteCodes", "00 00 00 01 00 00 00 01 65", {"65"}},
        StreamCase{"CodeAtTheVeryEnd", "00 00 01 65 88 00 00 01", {"65 88"}},
        StreamCase{"FourByteCodeAtTheVeryEnd", "00 00 01 65 88 00 00 00 01", {"65 88"}},
        StreamCase{"BytesBeforeTheFirstCode", "12 34 00 00 01 65", {"65"}},
        StreamCase{"TrailingZeros", "00 00 01 65 88 00 00", {"65 88"}},
        // 00 00 03 is the escape inside a unit, no start code.
        StreamCase{"EscapedZerosStayInTheUnit", "00 00 01 65 00 00 03 00 01 02", {"65 00 00 03 00 01 02"}},
        StreamCase{"NoStartCode", "65 88 99 00 01", {}},
        StreamCase{"ShorterThanACode", "00 00", {}},
        StreamCase{"OnlyACode", "00 00 01", {}},
        StreamCase{"Nothing", "", {}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ParameterSetsTest, FirstSpsAndPpsOfTheHeadersWithoutWhatElseIsThere) {
  // SPS, PPS and the library's SEI, as an encoder's headers come.
  const auto headers = hex("00 00 00 01 67 64 00 1F AC 00 00 00 01 68 EE 3C 80 00 00 01 06 05 FF 80 "
                           "00 00 01 67 4D 00 00 00 00 01 68 99");
  const auto sets = findParameterSets(headers);
  ASSERT_TRUE(sets);
  EXPECT_EQ(sets->sps, hex("67 64 00 1F AC"));
  EXPECT_EQ(sets->pps, hex("68 EE 3C 80"));
  EXPECT_EQ(withStartCode(sets->sps), hex("00 00 00 01 67 64 00 1F AC"));
  EXPECT_FALSE(findParameterSets(hex("00 00 01 67 64 00 1F 00 00 01 06 05"))) << "no PPS";
  EXPECT_FALSE(findParameterSets(hex("00 00 01 68 EE 3C 80"))) << "no SPS";
  EXPECT_FALSE(findParameterSets({}));
}

struct RecordCase {
  const char* name;
  std::vector<std::byte> sps;
  std::vector<std::byte> pps;
  std::vector<std::byte> record;  // empty: refused
};
void PrintTo(const RecordCase& c, std::ostream* os) { *os << c.name; }

std::vector<std::byte> repeated(size_t n, uint8_t first) {
  std::vector<std::byte> v(n, std::byte{0x11});
  v[0] = std::byte{first};
  return v;
}

class AvcConfigurationRecordTest : public ::testing::TestWithParam<RecordCase> {};

TEST_P(AvcConfigurationRecordTest, HoldsBothSetsBehindTheirLengths) {
  const RecordCase& c = GetParam();
  EXPECT_EQ(avcConfigurationRecord(c.sps, c.pps), c.record);
}

std::vector<std::byte> longestRecord() {
  std::vector<std::byte> r = hex("01 11 11 11 FF E1 FF FF");
  const auto sps = repeated(0xFFFF, 0x67);
  r.insert(r.end(), sps.begin(), sps.end());
  const auto tail = hex("01 00 01 68");
  r.insert(r.end(), tail.begin(), tail.end());
  return r;
}

INSTANTIATE_TEST_SUITE_P(
    Records, AvcConfigurationRecordTest,
    ::testing::Values(RecordCase{"HighProfile", hex("67 64 00 1F AC D9"), hex("68 EE 3C 80"),
                                 hex("01 64 00 1F FF E1 00 06 67 64 00 1F AC D9 01 00 04 68 EE 3C 80")},
                      RecordCase{"ShortestSpsAndOneBytePps", hex("67 42 C0 0D"), hex("68"),
                                 hex("01 42 C0 0D FF E1 00 04 67 42 C0 0D 01 00 01 68")},
                      RecordCase{"LongestSps", repeated(0xFFFF, 0x67), hex("68"), longestRecord()},
                      RecordCase{"SpsWithoutItsLevel", hex("67 42 C0"), hex("68 CE"), {}},
                      RecordCase{"NoPps", hex("67 42 C0 0D"), {}, {}},
                      RecordCase{"SpsLongerThanALength", repeated(0x10000, 0x67), hex("68"), {}},
                      RecordCase{"PpsLongerThanALength", hex("67 42 C0 0D"), repeated(0x10000, 0x68), {}}),
    [](const auto& info) { return std::string(info.param.name); });

struct RateCase {
  uint32_t thousandths;
  uint32_t num;
  uint32_t den;
  uint32_t keyInterval;
};
void PrintTo(const RateCase& c, std::ostream* os) { *os << c.thousandths; }

class FrameRateTest : public ::testing::TestWithParam<RateCase> {};

// A whole rate is n/1; any other is kept in ten-thousandths (29.97 is not made
// 30000/1001); an IDR frame comes every whole second's frames, at least every frame.
TEST_P(FrameRateTest, FractionAndKeyInterval) {
  const RateCase& c = GetParam();
  uint32_t num = 0, den = 0;
  VidEncoderH264::frameRate(c.thousandths, num, den);
  EXPECT_EQ(num, c.num);
  EXPECT_EQ(den, c.den);
  EXPECT_EQ(VidEncoderH264::keyFrameInterval(c.thousandths), c.keyInterval);
}

INSTANTIATE_TEST_SUITE_P(Rates, FrameRateTest,
                         ::testing::Values(RateCase{30000, 30, 1, 30}, RateCase{60000, 60, 1, 60},
                                           RateCase{29970, 299700, 10000, 29}, RateCase{59940, 599400, 10000, 59},
                                           RateCase{23976, 239760, 10000, 23}, RateCase{500, 5000, 10000, 1},
                                           RateCase{1, 10, 10000, 1}, RateCase{144000, 144, 1, 144}),
                         [](const auto& info) { return std::to_string(info.param.thousandths); });

struct BitrateCase {
  int32_t width;
  int32_t height;
  uint32_t thousandths;
  uint32_t targetUsage;
  uint32_t kbps;
};
void PrintTo(const BitrateCase& c, std::ostream* os) {
  *os << c.width << "x" << c.height << "@" << c.thousandths << " tu" << c.targetUsage;
}

class DefaultBitrateTest : public ::testing::TestWithParam<BitrateCase> {};

TEST_P(DefaultBitrateTest, FollowsTheCurveScaledByTargetUsage) {
  const BitrateCase& c = GetParam();
  EXPECT_EQ(VidEncoderH264::defaultBitrateKbps(c.width, c.height, c.thousandths, c.targetUsage), c.kbps);
}

INSTANTIATE_TEST_SUITE_P(
    Points, DefaultBitrateTest,
    ::testing::Values(
        // On points of the curve, between them (at 29.97 too), and past the last
        // one on its line.
        BitrateCase{176, 144, 30000, 1, 225}, BitrateCase{1920, 1072, 30000, 1, 5000},
        BitrateCase{1280, 720, 30000, 1, 4308}, BitrateCase{176, 144, 29970, 1, 224},
        BitrateCase{1920, 1080, 60000, 1, 6271},
        // The target usage's scale: 7 half, anything but 1 and 7 three quarters.
        BitrateCase{720, 576, 30000, 7, 2000}, BitrateCase{720, 576, 30000, 0, 3000},
        BitrateCase{720, 576, 30000, 9, 3000},
        // Nothing to encode, and far more than 16 bits can say.
        BitrateCase{0, 720, 30000, 1, 0}, BitrateCase{16384, 16384, 1000000, 1, 65535}),
    [](const auto& info) {
      return std::to_string(info.param.width) + "x" + std::to_string(info.param.height) + "_" +
             std::to_string(info.param.thousandths) + "_tu" + std::to_string(info.param.targetUsage);
    });

}  // namespace
}  // namespace kestrium
