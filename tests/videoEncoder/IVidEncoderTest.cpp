// The software encoders that make AVI frames through the real encoder machinery
// and the encoded slot, at the sizes where a frame is mostly headers and on
// frames made to be as large as the format allows: each frame must come out
// whole and decode by ffmpeg from an AVI ("fast" has VidEncoderFastTest). And
// what each encoder tells its client and the file writer of itself.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "fileOutput/AVIOutputFile.h"
#include "platform/Clock.h"
#include "platform/System.h"
#include "recorder/CaptureObjects.h"
#include "tests/codecs/CodecTestSupport.h"
#include "tests/support/TestSupport.h"
#include "videoEncoder/IVidEncoder.h"

namespace kestrium {
namespace {

constexpr uint32_t kPatience = 20000;
constexpr uint32_t kFrames = 3;

struct EncoderCase {
  const char* encoder;
  uint32_t width;
  uint32_t height;
  test::Picture picture;
  OptionList options;  // beyond size, threads and name
  double minimumPsnr;  // of what ffmpeg decodes from a JPEG; 0: not compared
};

void PrintTo(const EncoderCase& c, std::ostream* os) {
  *os << c.encoder << " " << c.width << "x" << c.height << " " << test::pictureName(c.picture);
  for (const auto& o : c.options) *os << " " << o;
}

class IVidEncoderTest : public ::testing::TestWithParam<EncoderCase> {
 protected:
  void SetUp() override {
#if !KESTRIUM_WITH_MJPEG
    if (std::string(GetParam().encoder) == "mjpeg") GTEST_SKIP() << "no JPEG engine in this build";
#endif
    platform::setObjectNamespace(platform::toUtf16(test::uniqueName()));
  }

  // Feeds one frame, waits for it in the encoded slot, copies it out and frees
  // the slot, as the recorder does.
  std::vector<uint8_t> encodeOne(IVidEncoder& encoder, CaptureObjects& slot, const std::vector<uint8_t>& source,
                                 uint32_t position) {
    const uint64_t until = platform::monotonicNs() + uint64_t{kPatience} * 1000000;
    while (encoder.EncodeFrame(std::as_bytes(std::span(source)), 0, position) == 0) {
      if (platform::monotonicNs() > until) {
        ADD_FAILURE() << "the encoder never took frame " << position;
        return {};
      }
      platform::sleepMs(1);
    }
    // The event tells that the frame in the slot is whole; the encoder clears the
    // free word before it writes.
    CommonData* common = slot.common();
    while (slot.newEncoded.wait(10) != platform::kWaitObject0 || loadShared(common->encodedFree) != 0) {
      if (platform::monotonicNs() > until) {
        ADD_FAILURE() << "frame " << position << " never reached the slot";
        return {};
      }
    }
    EXPECT_EQ(common->encodedPosition, position);
    const auto* data = reinterpret_cast<const uint8_t*>(slot.encoderBuffer.view());
    std::vector<uint8_t> frame(data, data + common->encodedSize);
    storeShared(common->encodedFree, 1u);
    return frame;
  }

  test::TempFolder folder_;
};

// What a decoder shows of a source frame handed over as it stands: rows top-down
// or bottom-up as the encoder takes them, and the first byte of a pixel blue.
std::vector<uint8_t> shownAsRgb(const std::vector<uint8_t>& source, uint32_t width, uint32_t height, bool topDown) {
  std::vector<uint8_t> rgb(source.size());
  const size_t row = size_t{width} * 3;
  for (uint32_t y = 0; y < height; ++y) {
    const uint8_t* from = source.data() + (topDown ? y : height - 1 - y) * row;
    uint8_t* to = rgb.data() + y * row;
    for (size_t x = 0; x < row; x += 3) {
      to[x] = from[x + 2];
      to[x + 1] = from[x + 1];
      to[x + 2] = from[x];
    }
  }
  return rgb;
}

double psnr(const uint8_t* a, const uint8_t* b, size_t size) {
  double sum = 0;
  for (size_t i = 0; i < size; ++i) sum += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
  return sum == 0 ? 99.0 : 10 * std::log10(255.0 * 255.0 * static_cast<double>(size) / sum);
}

// The frames put in an AVI as the recording output writes them, then decoded by
// ffmpeg into rgb24; anything ffmpeg complains of fails the test.
std::vector<uint8_t> decodeWithFfmpeg(const std::filesystem::path& file,
                                      const std::vector<std::vector<uint8_t>>& frames, const BitmapInfoHeader& format,
                                      bool uncompressed) {
  {
    AVIOutputFile avi;
    EXPECT_EQ(avi.initOutputStreams(), 1);
    AVIVideoOutputStream& video = *avi.videoStream();
    video.header.fccType = fourcc("vids");
    video.header.fccHandler = format.biCompression;
    video.header.dwScale = 1000;
    video.header.dwRate = 30000;
    video.header.dwLength = 1;
    video.chunkId = fourcc(uncompressed ? "00db" : "00dc");
    const auto* bytes = reinterpret_cast<const std::byte*>(&format);
    video.format.assign(bytes, bytes + sizeof format);
    EXPECT_EQ(avi.init(file, static_cast<uint32_t>(format.biWidth), static_cast<uint32_t>(format.biHeight), 1, 0,
                       100000, 1),
              1);
    for (const auto& f : frames) video.write(kAviKeyFrame, std::as_bytes(std::span(f)), 1, 0);
    EXPECT_EQ(avi.finalize(), 1);
  }
  const auto decoded = file.parent_path() / "decoded.rgb";
  std::string out;
  const int status = test::runTool(KESTRIUM_FFMPEG,
                                   {"-v", "error", "-i", file.string(), "-f", "rawvideo", "-pix_fmt", "rgb24", "-y",
                                    decoded.string()},
                                   out);
  EXPECT_EQ(status, 0) << out;
  EXPECT_EQ(out, "") << "ffmpeg complains";
  const std::vector<char> bytes = test::readBytes(decoded);
  return {bytes.begin(), bytes.end()};
}

TEST_P(IVidEncoderTest, EveryFrameComesOutWholeAndDecodes) {
  const EncoderCase& c = GetParam();
  const std::string name = c.encoder;
  auto encoder = CreateVideoEncoder(platform::toUtf16(name));
  ASSERT_NE(encoder, nullptr);
  OptionList options = {"width", std::to_string(c.width), "height", std::to_string(c.height), "threads", "2",
                        "shared_name", "cap"};
  options.insert(options.end(), c.options.begin(), c.options.end());
  ASSERT_EQ(encoder->Init(options), 1);
  // The recorder's side opens the slot after the encoder made it, as it does in
  // the server, and so sees the size the encoder chose.
  CaptureObjects slot(u"cap");
  ASSERT_TRUE(slot.openNewEncoded());
  ASSERT_TRUE(slot.openCommonData());
  ASSERT_TRUE(slot.openEncoderBuffer(encoder->EncodedCapacity()));
  storeShared(slot.common()->encodedFree, 1u);

  std::vector<std::vector<uint8_t>> sources, encoded;
  for (uint32_t i = 0; i < kFrames; ++i) {
    sources.push_back(test::picture(c.picture, c.width, c.height, i + 1));
    encoded.push_back(encodeOne(*encoder, slot, sources.back(), i));
    ASSERT_FALSE(encoded.back().empty()) << "frame " << i << " was delivered empty";
  }
  BitmapInfoHeader format{};
  encoder->GetBitmapFormat(&format);
  const bool topDown = encoder->WantsTopDownRows() != 0;
  encoder->Close();

  const size_t frameBytes = size_t{c.width} * c.height * 3;
  if (std::string(KESTRIUM_FFMPEG).empty()) GTEST_SKIP() << "ffmpeg is not available in this build";
  const bool uncompressed = name == "no_compression";
  const std::vector<uint8_t> decoded = decodeWithFfmpeg(folder_.path() / "frames.avi", encoded, format, uncompressed);
  ASSERT_EQ(decoded.size(), kFrames * frameBytes) << "every frame decodes at its size";
  for (uint32_t i = 0; i < kFrames; ++i) {
    const std::vector<uint8_t> shown = shownAsRgb(sources[i], c.width, c.height, topDown);
    const uint8_t* got = decoded.data() + i * frameBytes;
    if (uncompressed) {
      ASSERT_EQ(0, std::memcmp(got, shown.data(), frameBytes)) << "frame " << i;
    } else if (c.minimumPsnr > 0) {
      EXPECT_GT(psnr(got, shown.data(), frameBytes), c.minimumPsnr) << "frame " << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Encoders, IVidEncoderTest,
    ::testing::Values(
        // Sizes where the headers and code tables outweigh the pixels, odd ones
        // with a last column and row of their own in the chroma.
        EncoderCase{"mjpeg", 1, 1, test::Picture::Game, {}, 30},
        EncoderCase{"mjpeg", 17, 9, test::Picture::Gradient, {}, 38},
        EncoderCase{"mjpeg", 17, 9, test::Picture::Gradient, {"full_color_space", "0"}, 30},
        EncoderCase{"mjpeg", 32, 32, test::Picture::Game, {"full_color_range", "0"}, 0},
        EncoderCase{"no_compression", 1, 1, test::Picture::Game, {}, 0},
        EncoderCase{"no_compression", 17, 9, test::Picture::Game, {}, 0},
        EncoderCase{"no_compression", 32, 32, test::Picture::Noise, {}, 0},
        // Pure noise at the highest quality: a JPEG larger than W x H x 4.
        EncoderCase{"mjpeg", 642, 362, test::Picture::Noise, {"mjpeg_quality", "100"}, 40},
        EncoderCase{"mjpeg", 642, 362, test::Picture::Noise, {"mjpeg_quality", "100", "full_color_range", "0"}, 0}),
    [](const auto& info) {
      std::string name = std::string(info.param.encoder) + "_" + std::to_string(info.param.width) + "x" +
                         std::to_string(info.param.height) + "_" + test::pictureName(info.param.picture);
      for (size_t i = 0; i + 1 < info.param.options.size(); i += 2) {
        name += "_" + info.param.options[i].substr(info.param.options[i].rfind('_') + 1) + info.param.options[i + 1];
      }
      return name;
    });

struct Description {
  const char* encoder;
  int topDown, redFirst, keyFlags;
  uint32_t fourcc;  // of the bitmap format; 0: uncompressed
  uint16_t bitCount;
};
void PrintTo(const Description& c, std::ostream* os) { *os << c.encoder; }

class EncoderDescriptionTest : public ::testing::TestWithParam<Description> {
 protected:
  void SetUp() override { platform::setObjectNamespace(platform::toUtf16(test::uniqueName())); }
};

// The client sends rows and colours in the order the encoder asks for, and the
// writer marks key frames and describes the track by what it says here.
TEST_P(EncoderDescriptionTest, TellsTheClientAndTheWriterWhatItTakesAndMakes) {
  const Description& c = GetParam();
  auto encoder = CreateVideoEncoder(platform::toUtf16(c.encoder));
  ASSERT_NE(encoder, nullptr);
  ASSERT_EQ(encoder->Init({"width", "1280", "height", "720", "threads", "1", "shared_name", "cap"}), 1);
  EXPECT_EQ(encoder->WantsTopDownRows(), c.topDown);
  EXPECT_EQ(encoder->WantsRedFirst(), c.redFirst);
  EXPECT_EQ(encoder->HasKeyFrameFlags(), c.keyFlags);
  EXPECT_EQ(encoder->HeadersAfterFirstFrame(), 0);
  EXPECT_TRUE(encoder->GetStreamHeader().empty());
  EXPECT_EQ(encoder->HasBitmapFormat(), 1);
  BitmapInfoHeader format;
  std::memset(&format, 0xCC, sizeof format);
  encoder->GetBitmapFormat(&format);
  EXPECT_EQ(format.biSize, 40u);
  EXPECT_EQ(format.biWidth, 1280);
  EXPECT_EQ(format.biHeight, 720);
  EXPECT_EQ(format.biPlanes, 1);
  EXPECT_EQ(format.biBitCount, c.bitCount);
  EXPECT_EQ(format.biCompression, c.fourcc);
  EXPECT_EQ(format.biSizeImage, c.fourcc == 0 ? 1280u * 720 * 3 : 0u);
  EXPECT_EQ(format.biClrUsed, 0u);
  encoder->Close();
}

INSTANTIATE_TEST_SUITE_P(Encoders, EncoderDescriptionTest,
                         ::testing::Values(Description{"fast", 0, 0, 0, makeFourcc('T', 'M', 'B', '2'), 16},
#if KESTRIUM_WITH_MJPEG
                                           Description{"mjpeg", 1, 0, 0, makeFourcc('M', 'J', 'P', 'G'), 24},
#endif
                                           Description{"no_compression", 0, 0, 0, 0, 24}),
                         [](const auto& info) { return std::string(info.param.encoder); });

}  // namespace
}  // namespace kestrium
