// The bytes the publisher puts on the wire, against vectors written out by hand
// from the FLV and AMF0 layouts: a wrong marker, order or byte order shows here
// before any server or player sees it.

#include "broadcast/FlvTags.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace kestrium {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes body(const std::vector<std::byte>& block) {
  EXPECT_GE(block.size(), flv::kReserved);
  Bytes out;
  for (size_t i = flv::kReserved; i < block.size(); ++i) out.push_back(static_cast<uint8_t>(block[i]));
  return out;
}

std::vector<std::byte> raw(std::initializer_list<uint8_t> values) {
  std::vector<std::byte> out;
  for (uint8_t v : values) out.push_back(std::byte(v));
  return out;
}

// AMF0 pieces spelled out: a 16-bit length and the characters; numbers as the
// eight bytes of their IEEE double, written here as literals.
void add(Bytes& b, std::initializer_list<uint8_t> v) { b.insert(b.end(), v); }
void name(Bytes& b, const std::string& s) {
  b.push_back(0);
  b.push_back(static_cast<uint8_t>(s.size()));
  b.insert(b.end(), s.begin(), s.end());
}
void number(Bytes& b, const std::string& n, std::initializer_list<uint8_t> ieee) {
  name(b, n);
  b.push_back(0x00);
  b.insert(b.end(), ieee);
}
void string(Bytes& b, const std::string& n, const std::string& v) {
  name(b, n);
  b.push_back(0x02);
  name(b, v);
}

BroadcastInfo sampleInfo() {
  BroadcastInfo info;
  info.width = 1280;
  info.height = 720;
  info.videoBitrate = 4000;
  info.frameRate = 30;
  info.audioBitrate = 128;
  info.audioSampleRate = 44100;
  info.channels = 2;
  return info;
}

TEST(FlvTagsTest, MetadataIsTheObjectOfTheStreamFactsInItsOrder) {
  Bytes want;
  want.push_back(0x02);
  name(want, "@setDataFrame");
  want.push_back(0x02);
  name(want, "onMetaData");
  want.push_back(0x03);  // an object, not an ECMA array (0x08)
  number(want, "duration", {0, 0, 0, 0, 0, 0, 0, 0});
  number(want, "fileSize", {0, 0, 0, 0, 0, 0, 0, 0});
  number(want, "width", {0x40, 0x94, 0, 0, 0, 0, 0, 0});
  number(want, "height", {0x40, 0x86, 0x80, 0, 0, 0, 0, 0});
  string(want, "videocodecid", "avc1");
  number(want, "videodatarate", {0x40, 0xAF, 0x40, 0, 0, 0, 0, 0});
  number(want, "framerate", {0x40, 0x3E, 0, 0, 0, 0, 0, 0});
  string(want, "audiocodecid", "mp4a");
  number(want, "audiodatarate", {0x40, 0x60, 0, 0, 0, 0, 0, 0});
  number(want, "audiosamplerate", {0x40, 0xE5, 0x88, 0x80, 0, 0, 0, 0});
  number(want, "audiosamplesize", {0x40, 0x30, 0, 0, 0, 0, 0, 0});
  number(want, "audiochannels", {0x40, 0x00, 0, 0, 0, 0, 0, 0});
  name(want, "stereo");
  add(want, {0x01, 0x01});
  string(want, "encoder", "Kestrium 5");
  add(want, {0x00, 0x00, 0x09});
  EXPECT_EQ(body(flv::metadataBlock(sampleInfo())), want);
}

struct ChannelCase {
  uint32_t channels;
  bool built;
  uint8_t stereo;
};

class MetadataChannels : public ::testing::TestWithParam<ChannelCase> {};

TEST_P(MetadataChannels, OnlyMonoAndStereoAreDescribed) {
  BroadcastInfo info = sampleInfo();
  info.channels = GetParam().channels;
  const std::vector<std::byte> block = flv::metadataBlock(info);
  if (!GetParam().built) {
    EXPECT_TRUE(block.empty());
    return;
  }
  const Bytes got = body(block);
  // Behind the value of "stereo": the "encoder" entry (name, marker, string) and the end.
  const size_t tail = (2 + 7) + 1 + (2 + 10) + 3;
  ASSERT_GT(got.size(), tail);
  EXPECT_EQ(got[got.size() - tail - 1], GetParam().stereo);
}

INSTANTIATE_TEST_SUITE_P(Channels, MetadataChannels,
                         ::testing::Values(ChannelCase{1, true, 0}, ChannelCase{2, true, 1}, ChannelCase{0, false, 0},
                                           ChannelCase{6, false, 0}));

TEST(FlvTagsTest, AudioHeaderCarriesTheConfigurationLowByteFirst) {
  // 0x1210 as AAC LC, 44.1 kHz, stereo: the encoder's bytes 12 10 stored as the
  // word 0x1012.
  EXPECT_EQ(body(flv::audioHeaderBlock(0x1012)), (Bytes{0xAF, 0x00, 0x12, 0x10}));
}

TEST(FlvTagsTest, AvcConfigurationSkipsTheStartCodesAndTakesProfileFromTheSps) {
  const auto sps = raw({0, 0, 0, 1, 0x67, 0x64, 0x00, 0x1F, 0xAC, 0xD9});
  const auto pps = raw({0, 0, 0, 1, 0x68, 0xEB, 0xE3});
  const Bytes want = {0x17, 0x00, 0, 0, 0,           // key frame, sequence header, composition time
                      0x01, 0x64, 0x00, 0x1F,        // version, profile, compatibility, level
                      0xFF, 0xE1, 0x00, 0x06,        // four-byte lengths, one SPS of 6 bytes
                      0x67, 0x64, 0x00, 0x1F, 0xAC, 0xD9,
                      0x01, 0x00, 0x03, 0x68, 0xEB, 0xE3};  // one PPS of 3 bytes
  EXPECT_EQ(body(flv::avcConfigurationBlock(sps, pps)), want);
}

TEST(FlvTagsTest, AvcConfigurationWithoutParameterSetsHasEmptyOnes) {
  const Bytes want = {0x17, 0x00, 0, 0, 0, 0x01, 0, 0, 0, 0xFF, 0xE1, 0x00, 0x00, 0x01, 0x00, 0x00};
  EXPECT_EQ(body(flv::avcConfigurationBlock({}, {})), want);
}

TEST(FlvTagsTest, FramesGoBehindTheirTagHeaders) {
  const auto frame = raw({0, 0, 0, 2, 0x65, 0x88});
  EXPECT_EQ(body(flv::videoFrameBlock(frame, true)), (Bytes{0x17, 0x01, 0, 0, 0, 0, 0, 0, 2, 0x65, 0x88}));
  EXPECT_EQ(body(flv::videoFrameBlock(frame, false)), (Bytes{0x27, 0x01, 0, 0, 0, 0, 0, 0, 2, 0x65, 0x88}));
  EXPECT_EQ(body(flv::audioFrameBlock(raw({0x21, 0x10}))), (Bytes{0xAF, 0x01, 0x21, 0x10}));
}

TEST(FlvTagsTest, StreamHeaderGoesRightBehindTheVideoTagHeader) {
  auto block = flv::videoFrameBlock(raw({0xAA}), true);
  ASSERT_TRUE(flv::insertStreamHeader(block, raw({0x01, 0x02})));
  EXPECT_EQ(body(block), (Bytes{0x17, 0x01, 0, 0, 0, 0x01, 0x02, 0xAA}));
  std::vector<std::byte> tooShort(flv::kReserved + 4);
  EXPECT_FALSE(flv::insertStreamHeader(tooShort, raw({0x01})));
}

}  // namespace
}  // namespace kestrium
