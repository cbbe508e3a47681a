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

// AMF0 pieces spelled out: a 16-bit length and the characters, then a marker
// and the value; numbers as the eight bytes of their IEEE double, here the first
// three (the rest are zero for every value used).
void name(Bytes& b, const std::string& s) {
  b.insert(b.end(), {0, static_cast<uint8_t>(s.size())});
  b.insert(b.end(), s.begin(), s.end());
}
void number(Bytes& b, const std::string& n, uint8_t b0, uint8_t b1 = 0, uint8_t b2 = 0, uint8_t b3 = 0) {
  name(b, n);
  b.insert(b.end(), {0x00, b0, b1, b2, b3, 0, 0, 0, 0});
}
void string(Bytes& b, const std::string& n, const std::string& v) {
  if (!n.empty()) name(b, n);
  b.push_back(0x02);
  name(b, v);
}

BroadcastInfo sampleInfo(uint32_t channels = 2) {
  BroadcastInfo info;
  info.width = 1280;
  info.height = 720;
  info.videoBitrate = 4000;
  info.frameRate = 30;
  info.audioBitrate = 128;
  info.audioSampleRate = 44100;
  info.channels = channels;
  return info;
}

// The stream facts in their order, as an object (0x03), not an ECMA array (0x08);
// only mono and stereo are described.
TEST(FlvTagsTest, MetadataIsTheObjectOfTheStreamFactsInItsOrder) {
  for (const uint32_t channels : {1u, 2u}) {
    Bytes want;
    string(want, "", "@setDataFrame");
    string(want, "", "onMetaData");
    want.push_back(0x03);
    number(want, "duration", 0);
    number(want, "fileSize", 0);
    number(want, "width", 0x40, 0x94);
    number(want, "height", 0x40, 0x86, 0x80);
    string(want, "videocodecid", "avc1");
    number(want, "videodatarate", 0x40, 0xAF, 0x40);
    number(want, "framerate", 0x40, 0x3E);
    string(want, "audiocodecid", "mp4a");
    number(want, "audiodatarate", 0x40, 0x60);
    number(want, "audiosamplerate", 0x40, 0xE5, 0x88, 0x80);
    number(want, "audiosamplesize", 0x40, 0x30);
    number(want, "audiochannels", channels == 2 ? 0x40 : 0x3F, channels == 2 ? 0x00 : 0xF0);
    name(want, "stereo");
    want.insert(want.end(), {0x01, static_cast<uint8_t>(channels == 2)});
    string(want, "encoder", "Kestrium 5");
    want.insert(want.end(), {0x00, 0x00, 0x09});
    EXPECT_EQ(body(flv::metadataBlock(sampleInfo(channels))), want) << channels << " channels";
  }
  EXPECT_TRUE(flv::metadataBlock(sampleInfo(0)).empty());
  EXPECT_TRUE(flv::metadataBlock(sampleInfo(6)).empty());
}

TEST(FlvTagsTest, AvcConfigurationSkipsTheStartCodesAndTakesProfileFromTheSps) {
  const auto sps = raw({0, 0, 0, 1, 0x67, 0x64, 0x00, 0x1F, 0xAC, 0xD9});
  const auto pps = raw({0, 0, 0, 1, 0x68, 0xEB, 0xE3});
  const Bytes want = {0x17, 0x00, 0, 0, 0,                  // key frame, sequence header, composition time
                      0x01, 0x64, 0x00, 0x1F,               // version, profile, compatibility, level
                      0xFF, 0xE1, 0x00, 0x06,               // four-byte lengths, one SPS of 6 bytes
                      0x67, 0x64, 0x00, 0x1F, 0xAC, 0xD9,
                      0x01, 0x00, 0x03, 0x68, 0xEB, 0xE3};  // one PPS of 3 bytes
  EXPECT_EQ(body(flv::avcConfigurationBlock(sps, pps)), want);
  EXPECT_EQ(body(flv::avcConfigurationBlock({}, {})),
            (Bytes{0x17, 0x00, 0, 0, 0, 0x01, 0, 0, 0, 0xFF, 0xE1, 0x00, 0x00, 0x01, 0x00, 0x00}))
      << "without parameter sets, empty ones";
}

// Key and inter frames by their first nibble; the AAC configuration (the
// encoder's bytes 12 10, stored as the word 0x1012) low byte first.
TEST(FlvTagsTest, FramesGoBehindTheirTagHeaders) {
  const auto frame = raw({0, 0, 0, 2, 0x65, 0x88});
  EXPECT_EQ(body(flv::videoFrameBlock(frame, true)), (Bytes{0x17, 0x01, 0, 0, 0, 0, 0, 0, 2, 0x65, 0x88}));
  EXPECT_EQ(body(flv::videoFrameBlock(frame, false)), (Bytes{0x27, 0x01, 0, 0, 0, 0, 0, 0, 2, 0x65, 0x88}));
  EXPECT_EQ(body(flv::audioFrameBlock(raw({0x21, 0x10}))), (Bytes{0xAF, 0x01, 0x21, 0x10}));
  EXPECT_EQ(body(flv::audioHeaderBlock(0x1012)), (Bytes{0xAF, 0x00, 0x12, 0x10}));
  // The stream header goes right behind the video tag header.
  auto block = flv::videoFrameBlock(raw({0xAA}), true);
  ASSERT_TRUE(flv::insertStreamHeader(block, raw({0x01, 0x02})));
  EXPECT_EQ(body(block), (Bytes{0x17, 0x01, 0, 0, 0, 0x01, 0x02, 0xAA}));
  std::vector<std::byte> tooShort(flv::kReserved + 4);
  EXPECT_FALSE(flv::insertStreamHeader(tooShort, raw({0x01})));
}

}  // namespace
}  // namespace kestrium
