#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "platform/Clock.h"
#include "platform/System.h"
#include "recorder/CaptureObjects.h"
#include "server/Log.h"
#include "tests/support/TestSupport.h"
#include "videoEncoder/VidEncoderMJPEG.h"

namespace kestrium {
namespace {

constexpr uint32_t kPatience = 20000;

// Takes one encoded frame out of the slot: its bytes.
std::vector<std::byte> takeEncoded(CaptureObjects& objects) {
  const uint64_t until = platform::monotonicNs() + uint64_t{kPatience} * 1000000;
  while (loadShared(objects.common()->encodedFree) != 0 && platform::monotonicNs() < until) {
    objects.newEncoded.wait(10);
  }
  const uint32_t size = objects.common()->encodedSize;
  std::vector<std::byte> frame(objects.encoderBuffer.view(), objects.encoderBuffer.view() + size);
  storeShared(objects.common()->encodedFree, 1u);
  return frame;
}

class VidEncoderMJPEGTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setObjectNamespace(test::uniqueNamespace());
    processLog().open(folder_.path() / "Kestrium.txt", true);
    ASSERT_TRUE(objects_.openCommonData());
    ASSERT_TRUE(objects_.openNewEncoded());
    ASSERT_TRUE(objects_.openEncoderBuffer(encoderBufferSize(kWidth, kHeight)));
    storeShared(objects_.common()->encodedFree, 1u);
  }
  void TearDown() override { processLog().close(); }

  std::unique_ptr<IVidEncoder> open(const OptionList& extra) {
    auto encoder = CreateVideoEncoder(u"mjpeg");
    EXPECT_NE(encoder, nullptr);
    OptionList options = {"width", std::to_string(kWidth), "height", std::to_string(kHeight), "threads", "2",
                          "shared_name", "mj"};
    options.insert(options.end(), extra.begin(), extra.end());
    EXPECT_EQ(encoder->Init(options), 1);
    return encoder;
  }

  static constexpr uint32_t kWidth = 96, kHeight = 64;
  test::TempFolder folder_;
  CaptureObjects objects_{u"mj"};
};

TEST_F(VidEncoderMJPEGTest, DescribesItselfAsTopDownBgrMjpgWithDefaultsFromTheFactory) {
  auto encoder = open({});
  auto* mjpeg = dynamic_cast<VidEncoderMJPEG*>(encoder.get());
  ASSERT_NE(mjpeg, nullptr);
  EXPECT_EQ(mjpeg->fullColorRange(), 1);
  EXPECT_EQ(mjpeg->fullColorSpace(), 1);
  EXPECT_EQ(mjpeg->quality(), 85);
  EXPECT_EQ(encoder->WantsTopDownRows(), 1);
  EXPECT_EQ(encoder->WantsRedFirst(), 0);
  EXPECT_EQ(encoder->HasKeyFrameFlags(), 0);
  BitmapInfoHeader h{};
  encoder->GetBitmapFormat(&h);
  EXPECT_EQ(h.biCompression, makeFourcc('M', 'J', 'P', 'G'));
  EXPECT_EQ(h.biSizeImage, 0u);
  EXPECT_EQ(h.biBitCount, 24);
  encoder->Close();
}

TEST_F(VidEncoderMJPEGTest, EachFrameIsAWholeJpeg) {
  auto encoder = open({"mjpeg_quality", "70", "full_color_space", "0"});
  std::vector<std::byte> frame(kWidth * kHeight * 3, std::byte{90});
  for (uint32_t n = 0; n < 3; ++n) {
    ASSERT_EQ(encoder->EncodeFrame(frame, 0, n), 1);
    const auto jpeg = takeEncoded(objects_);
    ASSERT_GT(jpeg.size(), 4u);
    EXPECT_EQ(std::to_integer<int>(jpeg[0]), 0xFF);
    EXPECT_EQ(std::to_integer<int>(jpeg[1]), 0xD8);
    EXPECT_EQ(std::to_integer<int>(jpeg[jpeg.size() - 2]), 0xFF);
    EXPECT_EQ(std::to_integer<int>(jpeg.back()), 0xD9);
    EXPECT_EQ(objects_.common()->encodedPosition, n);
  }
  encoder->Close();
}

}  // namespace
}  // namespace kestrium
