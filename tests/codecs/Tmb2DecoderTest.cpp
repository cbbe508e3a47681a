#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "codecs/Tmb2.h"
#include "codecs/Tmb2FrameEncoder.h"
#include "tests/codecs/CodecTestSupport.h"

namespace kestrium {
namespace {

using test::Picture;

void put32(std::vector<uint8_t>& b, size_t at, uint32_t v) { std::memcpy(&b[at], &v, 4); }

// Cuts a stream to its first n bytes (n never grows it).
void cut(std::vector<uint8_t>& b, size_t n) { b.erase(b.begin() + static_cast<ptrdiff_t>(std::min(n, b.size())), b.end()); }

std::vector<uint8_t> encodeStream(const std::vector<uint8_t>& residuals, const int32_t* counts = nullptr) {
  std::vector<uint8_t> out(residuals.size() * 4 + 256);
  const size_t size = tmb2::encodePlane(residuals.data(), static_cast<uint32_t>(residuals.size()), out.data(),
                                        out.size(), counts);
  out.resize(size);
  return out;
}

struct Damage {
  const char* what;
  void (*apply)(std::vector<uint8_t>&);
  const char* message;  // a part of the error expected
};
void PrintTo(const Damage& d, std::ostream* os) { *os << d.what; }

class Tmb2DecodePlaneTest : public ::testing::TestWithParam<Damage> {};

// Each kind of damage to a plane stream gives its own clear error.
TEST_P(Tmb2DecodePlaneTest, DamagedStreamIsRejected) {
  std::vector<uint8_t> residuals(300);
  std::mt19937 rng(4);
  for (auto& r : residuals) r = static_cast<uint8_t>(rng() % 8);
  std::vector<uint8_t> stream = encodeStream(residuals);
  std::vector<uint8_t> back(residuals.size());
  std::string error;
  ASSERT_TRUE(tmb2::decodePlane(stream.data(), stream.size(), 300, back.data(), error)) << error;
  GetParam().apply(stream);
  EXPECT_FALSE(tmb2::decodePlane(stream.data(), stream.size(), 300, back.data(), error)) << GetParam().what;
  EXPECT_NE(error.find(GetParam().message), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, Tmb2DecodePlaneTest,
    ::testing::Values(
        Damage{"count", [](std::vector<uint8_t>& s) { put32(s, 0, 299); }, "codes 299 residuals"},
        Damage{"short header", [](std::vector<uint8_t>& s) { cut(s, 3); }, "shorter than its header"},
        Damage{"table past the end", [](std::vector<uint8_t>& s) { cut(s, 1u + s[4]); }, "runs past"},
        Damage{"table size", [](std::vector<uint8_t>& s) { s[4] = static_cast<uint8_t>(s[4] + 4); },
               "table block size"},
        Damage{"table size not words", [](std::vector<uint8_t>& s) { s[4] = static_cast<uint8_t>(s[4] - 1); },
               "multiple of 4"},
        Damage{"odd tail", [](std::vector<uint8_t>& s) { s.push_back(0); }, "whole number of words"},
        Damage{"missing words", [](std::vector<uint8_t>& s) { cut(s, s.size() - 8); }, "words"},
        Damage{"extra word", [](std::vector<uint8_t>& s) { s.insert(s.end(), 4, uint8_t{0}); }, "words"},
        Damage{"first bit", [](std::vector<uint8_t>& s) { s[5 + s[4] + 3] |= 0x80; }, "top bit"},
        Damage{"no data", [](std::vector<uint8_t>& s) { cut(s, 5u + s[4]); }, "whole number of words"}),
    [](const auto& info) {
      std::string name = info.param.what;
      for (char& c : name) {
        if (c == ' ') c = '_';
      }
      return name;
    });

// A table may leave codes unused (one symbol: code 0 alone); bits that match no
// code are an error, not a guess.
TEST(Tmb2DecodePlaneEdgeTest, IncompleteCodeDecodesWhatItHasAndRejectsTheRest) {
  int32_t counts[256] = {};
  counts[9] = 1;
  const std::vector<uint8_t> residuals(40, 9);
  std::vector<uint8_t> stream = encodeStream(residuals, counts);
  std::vector<uint8_t> back(40);
  std::string error;
  ASSERT_TRUE(tmb2::decodePlane(stream.data(), stream.size(), 40, back.data(), error)) << error;
  EXPECT_EQ(back, residuals);
  stream[5 + stream[4]] |= 0x01;  // the first word's lowest bit: the 31st code
  EXPECT_FALSE(tmb2::decodePlane(stream.data(), stream.size(), 40, back.data(), error));
  EXPECT_NE(error.find("match no code"), std::string::npos) << error;
}

TEST(Tmb2DecodePlaneEdgeTest, NothingToCodeMeansAnEmptyStream) {
  std::string error;
  uint8_t r = 0;
  EXPECT_TRUE(tmb2::decodePlane(nullptr, 0, 0, &r, error));
  const uint8_t four[4] = {};
  EXPECT_FALSE(tmb2::decodePlane(four, 4, 0, &r, error));
  EXPECT_FALSE(tmb2::decodePlane(nullptr, 0, 5, &r, error));
}

TEST(Tmb2DecodeFrameTest, PlaneSizesMustFillTheFrame) {
  const std::vector<uint8_t> rgb = test::picture(Picture::Gradient, 32, 16);
  tmb2::FrameEncoder encoder(32, 16);
  std::vector<uint8_t> frame(32 * 16 * 4);
  frame.resize(encoder.encode(rgb.data(), frame.data(), frame.size()));
  std::vector<uint8_t> planes(encoder.layout().planesSize), residuals(32 * 16);
  std::string error;
  ASSERT_TRUE(tmb2::decodeFrame(frame.data(), frame.size(), 32, 16, planes.data(), residuals.data(), error));
  EXPECT_FALSE(tmb2::decodeFrame(frame.data(), frame.size() - 1, 32, 16, planes.data(), residuals.data(), error));
  EXPECT_NE(error.find("do not fill the frame"), std::string::npos) << error;
  EXPECT_FALSE(tmb2::decodeFrame(frame.data(), 11, 32, 16, planes.data(), residuals.data(), error));
  EXPECT_FALSE(tmb2::decodeFrame(frame.data(), frame.size(), 32, 18, planes.data(), residuals.data(), error))
      << "a frame of another size";
  EXPECT_NE(error.find("Y plane"), std::string::npos) << error;
}

// Mutations of valid frames: bit flips, bytes set to extremes, cuts, growth,
// and plane sizes moved between planes. The decoder must answer every one with
// success or an error; under the sanitizers any read or write outside its
// buffers fails the test.
TEST(Tmb2DecoderFuzzTest, MutatedFramesNeverCrash) {
  struct Source {
    Picture picture;
    uint32_t w, h;
  };
  const Source sources[] = {{Picture::Noise, 33, 17}, {Picture::Game, 64, 48}, {Picture::FewValues, 40, 30},
                            {Picture::Flat, 9, 7}};
  std::mt19937 rng(12345);
  size_t decoded = 0, rejected = 0;
  for (const Source& src : sources) {
    const std::vector<uint8_t> rgb = test::picture(src.picture, src.w, src.h, 3);
    tmb2::FrameEncoder encoder(src.w, src.h);
    std::vector<uint8_t> valid(size_t(src.w) * src.h * 4 + 1024);
    valid.resize(encoder.encode(rgb.data(), valid.data(), valid.size()));
    ASSERT_FALSE(valid.empty());
    std::vector<uint8_t> planes(encoder.layout().planesSize), residuals(size_t(src.w) * src.h);
    for (int round = 0; round < 6000; ++round) {
      std::vector<uint8_t> f = valid;
      const int edits = 1 + static_cast<int>(rng() % 4);
      for (int e = 0; e < edits && !f.empty(); ++e) {
        const size_t at = rng() % f.size();
        switch (rng() % 7) {
          case 0: f[at] ^= static_cast<uint8_t>(1u << (rng() % 8)); break;
          case 1: f[at] = (rng() & 1) != 0 ? 0xFF : 0x00; break;
          case 2: f.resize(at); break;
          case 3: f.insert(f.begin() + static_cast<ptrdiff_t>(at), static_cast<size_t>(1 + rng() % 8), uint8_t(rng())); break;
          case 4: f[at] = static_cast<uint8_t>(rng()); break;
          case 5:
            // Move bytes from one plane's size to another's, keeping the total.
            if (f.size() >= 12) {
              uint32_t a, b;
              std::memcpy(&a, &f[0], 4);
              std::memcpy(&b, &f[4], 4);
              const uint32_t d = rng() % 64;
              a -= d;
              b += d;
              std::memcpy(&f[0], &a, 4);
              std::memcpy(&f[4], &b, 4);
            }
            break;
          default:
            // A table block byte: the most sensitive place of a plane.
            if (f.size() > 20) f[12 + 5 + rng() % 8] = static_cast<uint8_t>(rng());
            break;
        }
      }
      std::string error;
      if (tmb2::decodeFrame(f.data(), f.size(), src.w, src.h, planes.data(), residuals.data(), error)) {
        ++decoded;
      } else {
        ASSERT_FALSE(error.empty());
        ++rejected;
      }
    }
  }
  EXPECT_GT(rejected, decoded) << "most mutations must be caught";
}

}  // namespace
}  // namespace kestrium
