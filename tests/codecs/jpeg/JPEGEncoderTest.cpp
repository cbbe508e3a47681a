// The JPEG stream of the MJPEG encoder, read back marker by marker and decoded
// by libjpeg, which did not write it here through this path.

#include <gtest/gtest.h>

#include <csetjmp>
#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include <jpeglib.h>

#include "codecs/jpeg/JPEGEncoder.h"

namespace kestrium {
namespace {

// The tables of the JPEG standard (Annex K.1 and K.2), in natural order.
constexpr uint8_t kLuma[64] = {16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
                               14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
                               18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
                               49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};
constexpr uint8_t kChroma[64] = {17, 18, 24, 47, 99, 99, 99, 99, 18, 21, 26, 66, 99, 99, 99, 99,
                                 24, 26, 56, 99, 99, 99, 99, 99, 47, 66, 99, 99, 99, 99, 99, 99,
                                 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
                                 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};
// Zig-zag position k holds the natural-order entry kZigzag[k].
constexpr int kZigzag[64] = {0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,  12, 19, 26, 33, 40, 48,
                             41, 34, 27, 20, 13, 6,  7,  14, 21, 28, 35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23,
                             30, 37, 44, 51, 58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

struct Frame {
  int width, height;
  std::vector<std::byte> bgr;  // top-down, blue first
};

Frame pattern(int width, int height) {
  Frame f{width, height, std::vector<std::byte>(static_cast<size_t>(width) * height * 3)};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::byte* p = f.bgr.data() + (static_cast<size_t>(y) * width + x) * 3;
      p[0] = std::byte((x * 255) / std::max(1, width - 1));
      p[1] = std::byte((y * 255) / std::max(1, height - 1));
      p[2] = std::byte(((x / 8 + y / 8) % 2) * 160 + 40);
    }
  }
  return f;
}

Frame noise(int width, int height) {
  Frame f{width, height, std::vector<std::byte>(static_cast<size_t>(width) * height * 3)};
  std::mt19937 random(7);
  for (auto& b : f.bgr) b = std::byte(random() & 0xFF);
  return f;
}

// Encodes one frame; the result code and the stream.
std::pair<int, std::vector<std::byte>> encode(const Frame& f, int sampling, int quality, int fullRange = 1,
                                              size_t capacity = 0) {
  CJPEGEncoder engine;
  CJPGOutput out;
  std::vector<std::byte> buffer(capacity != 0 ? capacity : f.bgr.size() + 4096);
  JpegSource source;
  source.data = f.bgr.data();
  source.width = f.width;
  source.height = f.height;
  source.lineStep = f.width * 3;
  EXPECT_EQ(engine.SetSource(source, fullRange), 0);
  EXPECT_EQ(engine.SetParameters(sampling, quality), 0);
  EXPECT_EQ(engine.Prepare(&out), 0);
  int result = 0;
  // Twice, as a worker does: the second frame must come out whole as well.
  for (int pass = 0; pass < 2; ++pass) {
    out.attach(buffer);
    result = engine.WriteHeader();
    if (result == 0) result = engine.WriteData();
  }
  buffer.resize(out.count());
  return {result, buffer};
}

struct Segment {
  uint8_t marker;
  std::vector<uint8_t> body;  // without the length
};

// The marker segments up to SOS, then SOS, then EOI.
std::vector<Segment> segments(const std::vector<std::byte>& jpeg) {
  std::vector<Segment> out;
  const auto* b = reinterpret_cast<const uint8_t*>(jpeg.data());
  size_t i = 0;
  while (i + 1 < jpeg.size()) {
    if (b[i] != 0xFF) break;
    const uint8_t m = b[i + 1];
    i += 2;
    if (m == 0xD8 || m == 0xD9) {
      out.push_back({m, {}});
      continue;
    }
    const size_t length = (b[i] << 8) | b[i + 1];
    out.push_back({m, std::vector<uint8_t>(b + i + 2, b + i + length)});
    i += length;
    if (m == 0xDA) {
      // Skip the entropy-coded data to the EOI at the end.
      if (jpeg.size() >= 2 && b[jpeg.size() - 2] == 0xFF && b[jpeg.size() - 1] == 0xD9) out.push_back({0xD9, {}});
      break;
    }
  }
  return out;
}

std::vector<uint8_t> scaledZigzag(const uint8_t (&table)[64], int quality) {
  const int s = quality < 50 ? 5000 / quality : 200 - 2 * quality;
  std::vector<uint8_t> out(64);
  for (int k = 0; k < 64; ++k) out[k] = static_cast<uint8_t>(std::clamp((table[kZigzag[k]] * s + 50) / 100, 1, 255));
  return out;
}

struct Decoded {
  int width = 0, height = 0;
  std::vector<uint8_t> pixels;  // three samples a pixel
};

struct DecodeErrors {
  jpeg_error_mgr pub;
  std::jmp_buf jump;
};

// Decodes with libjpeg, to RGB or to its YCbCr samples.
Decoded decode(const std::vector<std::byte>& jpeg, bool ycc) {
  Decoded d;
  jpeg_decompress_struct cinfo{};
  DecodeErrors errors{};
  cinfo.err = jpeg_std_error(&errors.pub);
  errors.pub.error_exit = [](j_common_ptr c) { std::longjmp(reinterpret_cast<DecodeErrors*>(c->err)->jump, 1); };
  if (setjmp(errors.jump) != 0) {
    jpeg_destroy_decompress(&cinfo);
    return {};
  }
  jpeg_create_decompress(&cinfo);
  jpeg_mem_src(&cinfo, reinterpret_cast<const unsigned char*>(jpeg.data()), jpeg.size());
  jpeg_read_header(&cinfo, TRUE);
  cinfo.out_color_space = ycc ? JCS_YCbCr : JCS_EXT_BGR;
  jpeg_start_decompress(&cinfo);
  d.width = static_cast<int>(cinfo.output_width);
  d.height = static_cast<int>(cinfo.output_height);
  d.pixels.resize(static_cast<size_t>(d.width) * d.height * 3);
  while (cinfo.output_scanline < cinfo.output_height) {
    JSAMPROW row = d.pixels.data() + static_cast<size_t>(cinfo.output_scanline) * d.width * 3;
    jpeg_read_scanlines(&cinfo, &row, 1);
  }
  jpeg_finish_decompress(&cinfo);
  jpeg_destroy_decompress(&cinfo);
  return d;
}

double psnr(const Frame& f, const Decoded& d) {
  double sum = 0;
  for (size_t i = 0; i < f.bgr.size(); ++i) {
    const double e = std::to_integer<int>(f.bgr[i]) - d.pixels[i];
    sum += e * e;
  }
  const double mse = sum / static_cast<double>(f.bgr.size());
  return mse == 0 ? 99.0 : 10 * std::log10(255.0 * 255.0 / mse);
}

struct HeaderCase {
  int sampling;
  int quality;
};

class JPEGHeaderTest : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(JPEGHeaderTest, MarkersComeInOrderWithTheStandardTablesScaled) {
  const auto [sampling, quality] = GetParam();
  const auto [result, jpeg] = encode(pattern(64, 32), sampling, quality);
  ASSERT_EQ(result, 0);
  const auto s = segments(jpeg);
  std::vector<uint8_t> order;
  for (const auto& seg : s) order.push_back(seg.marker);
  EXPECT_EQ(order, (std::vector<uint8_t>{0xD8, 0xE0, 0xDB, 0xDB, 0xC0, 0xC4, 0xC4, 0xC4, 0xC4, 0xDA, 0xD9}))
      << "SOI APP0 DQT DQT SOF0 DHT x4 SOS EOI: no COM, no DRI";

  EXPECT_EQ(s[1].body, (std::vector<uint8_t>{'J', 'F', 'I', 'F', 0, 1, 2, 0, 0, 1, 0, 1, 0, 0}));

  for (int t = 0; t < 2; ++t) {
    const auto& dqt = s[2 + t].body;
    ASSERT_EQ(dqt.size(), 65u);
    EXPECT_EQ(dqt[0], t) << "8-bit precision, table id";
    EXPECT_EQ(std::vector<uint8_t>(dqt.begin() + 1, dqt.end()), scaledZigzag(t == 0 ? kLuma : kChroma, quality))
        << "table " << t;
  }

  const uint8_t luma = sampling == CJPEGEncoder::kSampling2x2 ? 0x22 : 0x11;
  EXPECT_EQ(s[4].body, (std::vector<uint8_t>{8, 0, 32, 0, 64, 3, 0, luma, 0, 1, 0x11, 1, 2, 0x11, 1}));
  // DC 0, AC 0, DC 1, AC 1, each in a segment of its own.
  const uint8_t classes[4] = {0x00, 0x10, 0x01, 0x11};
  for (int h = 0; h < 4; ++h) EXPECT_EQ(s[5 + h].body.at(0), classes[h]);
  EXPECT_EQ(s[9].body, (std::vector<uint8_t>{3, 0, 0x00, 1, 0x11, 2, 0x11, 0, 63, 0}));
}

INSTANTIATE_TEST_SUITE_P(Settings, JPEGHeaderTest,
                         ::testing::Values(HeaderCase{CJPEGEncoder::kSampling444, 85},
                                           HeaderCase{CJPEGEncoder::kSampling2x2, 85},
                                           HeaderCase{CJPEGEncoder::kSampling444, 50},
                                           HeaderCase{CJPEGEncoder::kSampling444, 100},
                                           HeaderCase{CJPEGEncoder::kSampling444, 10}));

struct QualityCase {
  int width, height, sampling, fullRange;
  double minimumPsnr;
};

class JPEGDecodeTest : public ::testing::TestWithParam<QualityCase> {};

// Decoded at its true size, close to the source.
TEST_P(JPEGDecodeTest, DecodesAtItsTrueSizeCloseToTheSource) {
  const auto c = GetParam();
  const Frame f = pattern(c.width, c.height);
  const auto [result, jpeg] = encode(f, c.sampling, 85, c.fullRange);
  ASSERT_EQ(result, 0);
  const Decoded d = decode(jpeg, false);
  ASSERT_EQ(d.width, c.width);
  ASSERT_EQ(d.height, c.height);
  EXPECT_GT(psnr(f, d), c.minimumPsnr);
}

INSTANTIATE_TEST_SUITE_P(Sizes, JPEGDecodeTest,
                         ::testing::Values(QualityCase{64, 32, CJPEGEncoder::kSampling444, 1, 33.0},
                                           QualityCase{64, 32, CJPEGEncoder::kSampling2x2, 1, 25.0},
                                           QualityCase{37, 21, CJPEGEncoder::kSampling444, 1, 33.0},
                                           QualityCase{37, 21, CJPEGEncoder::kSampling2x2, 1, 25.0},
                                           QualityCase{1, 1, CJPEGEncoder::kSampling2x2, 1, 30.0},
                                           QualityCase{1921, 17, CJPEGEncoder::kSampling444, 1, 33.0}));

struct RangeCase {
  uint8_t value;
  int sampling;
  int fullRange;
  int luma;
};

class JPEGRangeTest : public ::testing::TestWithParam<RangeCase> {};

// Without the full range, luma goes from 16 to 235; chroma stays centred.
TEST_P(JPEGRangeTest, LumaOfBlackAndWhite) {
  const auto c = GetParam();
  const auto [result, jpeg] = encode(Frame{40, 24, std::vector<std::byte>(40 * 24 * 3, std::byte{c.value})}, c.sampling, 90, c.fullRange);
  ASSERT_EQ(result, 0);
  const Decoded d = decode(jpeg, true);
  ASSERT_EQ(d.pixels.size(), 40u * 24 * 3);
  for (size_t i = 0; i < d.pixels.size(); i += 3) {
    ASSERT_NEAR(d.pixels[i], c.luma, 1) << i;
    ASSERT_NEAR(d.pixels[i + 1], 128, 1);
    ASSERT_NEAR(d.pixels[i + 2], 128, 1);
  }
}

INSTANTIATE_TEST_SUITE_P(Ranges, JPEGRangeTest,
                         ::testing::Values(RangeCase{255, CJPEGEncoder::kSampling444, 0, 235},
                                           RangeCase{0, CJPEGEncoder::kSampling444, 0, 16},
                                           RangeCase{255, CJPEGEncoder::kSampling2x2, 0, 235},
                                           RangeCase{0, CJPEGEncoder::kSampling2x2, 0, 16},
                                           RangeCase{255, CJPEGEncoder::kSampling444, 1, 255},
                                           RangeCase{0, CJPEGEncoder::kSampling444, 1, 0}));

// Bad parameters are refused; a stream larger than the sink's buffer is
// reported, and nothing goes past the buffer.
TEST(JPEGRefusalTest, BadParametersAndAStreamLargerThanTheBuffer) {
  CJPEGEncoder engine;
  CJPGOutput out;
  EXPECT_EQ(engine.SetSource({}, 1), CJPEGEncoder::kBadParameter);
  EXPECT_EQ(engine.SetParameters(1, 85), CJPEGEncoder::kBadParameter);
  EXPECT_EQ(engine.SetParameters(0, 0), CJPEGEncoder::kBadParameter);
  EXPECT_EQ(engine.SetParameters(0, 101), CJPEGEncoder::kBadParameter);
  EXPECT_EQ(engine.Prepare(&out), CJPEGEncoder::kBadParameter) << "no source yet";
  EXPECT_EQ(engine.WriteHeader(), CJPEGEncoder::kBadParameter);

  const Frame f = noise(64, 64);
  const auto [result, jpeg] = encode(f, CJPEGEncoder::kSampling444, 100, 1, 5000);
  EXPECT_EQ(result, CJPEGEncoder::kSinkShort);
  EXPECT_LE(jpeg.size(), 5000u);
  const auto [fits, whole] = encode(f, CJPEGEncoder::kSampling444, 100, 1, 64 * 64 * 3 * 2);
  EXPECT_EQ(fits, 0);
  EXPECT_GT(whole.size(), 5000u);
}

}  // namespace
}  // namespace kestrium
