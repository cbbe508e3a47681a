#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/ChildProcess.h"
#include "platform/System.h"
#include "recorder/CaptureObjects.h"
#include "server/Log.h"
#include "tests/support/TestSupport.h"
#include "videoEncoder/VidEncoderLoseless.h"

namespace kestrium {
namespace {

constexpr uint32_t kPatience = 20000;

std::unique_ptr<IVidEncoder> openLoseless(int width, int height, const std::string& session) {
  auto encoder = CreateVideoEncoder(u"no_compression");
  EXPECT_NE(encoder, nullptr);
  EXPECT_EQ(encoder->Init({"width", std::to_string(width), "height", std::to_string(height), "threads", "0",
                           "shared_name", session}),
            1);
  return encoder;
}

class LoselessTest : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override { platform::setObjectNamespace(test::uniqueNamespace()); }
};

// Rows arrive packed; the bitmap spaces them at 3 x width rounded up to 4 bytes,
// and its padding bytes are left as they were.
TEST_P(LoselessTest, RowsLandAtThePaddedStride) {
  const int width = GetParam();
  constexpr int kHeight = 3;
  CaptureObjects recorder(u"cap");
  ASSERT_TRUE(recorder.openCommonData());
  ASSERT_TRUE(recorder.openEncoderBuffer(encoderBufferSize(width, kHeight)));
  std::memset(recorder.encoderBuffer.view(), 0xEE, recorder.encoderBuffer.size());
  storeShared(recorder.common()->encodedFree, 1u);

  auto encoder = openLoseless(width, kHeight, "cap");
  const size_t row = static_cast<size_t>(width) * 3;
  const size_t stride = (row + 3) / 4 * 4;
  std::vector<std::byte> source(row * kHeight);
  for (size_t i = 0; i < source.size(); ++i) source[i] = std::byte(i % 251);
  ASSERT_EQ(encoder->EncodeFrame(source, 0, 42), 1);

  const CommonData& common = *recorder.common();
  EXPECT_EQ(common.encodedFree, 0u);
  EXPECT_EQ(common.encodedSize, stride * kHeight);
  EXPECT_EQ(common.encodedPosition, 42u);
  const std::byte* out = recorder.encoderBuffer.view();
  for (int y = 0; y < kHeight; ++y) {
    EXPECT_EQ(std::memcmp(out + y * stride, source.data() + y * row, row), 0) << "row " << y;
    for (size_t pad = row; pad < stride; ++pad) EXPECT_EQ(out[y * stride + pad], std::byte{0xEE});
  }
  BitmapInfoHeader header{};
  encoder->GetBitmapFormat(&header);
  EXPECT_EQ(header.biWidth, width);
  EXPECT_EQ(header.biSizeImage, stride * kHeight);

  EXPECT_EQ(encoder->EncodeFrame(source, 0, 43), 0) << "the slot is still taken";
  encoder->Close();
}

INSTANTIATE_TEST_SUITE_P(Widths, LoselessTest, ::testing::Values(1, 2, 3, 4, 5, 7, 1919, 1920));

// The recorder's thread still encodes while the command thread closes the
// encoder: a frame either goes whole into the slot or is refused, never into a
// slot that is being closed.
TEST_F(LoselessTest, CloseWhileTheRecorderEncodesIsSafe) {
  constexpr int kWidth = 320, kHeight = 180;
  CaptureObjects recorder(u"race");
  ASSERT_TRUE(recorder.openCommonData());
  const std::vector<std::byte> source(size_t{kWidth} * kHeight * 3, std::byte{7});
  for (int round = 0; round < 50; ++round) {
    auto encoder = openLoseless(kWidth, kHeight, "race");
    std::atomic<bool> closed{false};
    std::thread encoding([&] {
      while (!closed) {
        storeShared(recorder.common()->encodedFree, 1u);
        encoder->EncodeFrame(source, 0, 0);
      }
    });
    platform::sleepMs(static_cast<uint32_t>(round % 3));
    encoder->Close();
    closed = true;
    encoding.join();
    EXPECT_EQ(encoder->EncodeFrame(source, 0, 0), 0) << "a closed encoder takes nothing";
  }
}

TEST_F(LoselessTest, ShortSourceIsRefused) {
  CaptureObjects recorder(u"cap");
  ASSERT_TRUE(recorder.openCommonData());
  storeShared(recorder.common()->encodedFree, 1u);
  auto encoder = openLoseless(8, 8, "cap");
  std::vector<std::byte> shortFrame(8 * 8 * 3 - 1);
  EXPECT_EQ(encoder->EncodeFrame(shortFrame, 0, 0), 0);
  EXPECT_EQ(recorder.common()->encodedFree, 1u) << "the slot stays free";
}

// A second process plays the client against the encoder in this one, which plays
// the recorder: the whole slot hand-shake across processes.
TEST_F(LoselessTest, ClientInAnotherProcessGetsEveryFrameBack) {
  constexpr int kWidth = 37, kHeight = 21, kFrames = 300;
  CaptureObjects recorder(u"xcap");
  ASSERT_TRUE(recorder.openNewSource());
  ASSERT_TRUE(recorder.openCommonData());
  auto encoder = openLoseless(kWidth, kHeight, "xcap");

  platform::ChildProcess client;
  ASSERT_TRUE(client.start(platform::executablePath().parent_path() / KESTRIUM_CAPTURE_CLIENT_HELPER,
                           {"xcap", std::to_string(kWidth), std::to_string(kHeight), std::to_string(kFrames)},
                           {{"KESTRIUM_NAMESPACE", platform::toUtf8(platform::objectNamespace())}}));
  std::optional<int> status;
  int encoded = 0;
  const uint64_t until = platform::monotonicNs() + uint64_t{60000} * 1000000;
  while (!(status = client.wait(0)) && platform::monotonicNs() < until) {
    if (recorder.newSource.wait(10) != platform::kWaitObject0) continue;
    CommonData* common = recorder.common();
    if (loadShared(common->sourceFree) != 0) continue;
    if (!recorder.sourceBuffer.isOpen()) {
      ASSERT_TRUE(recorder.openSourceBuffer(common->sourceSize));
    }
    const size_t size = std::min<uint64_t>(common->sourceSize, recorder.sourceBuffer.size());
    encoded += encoder->EncodeFrame({recorder.sourceBuffer.view(), size}, common->sourceTimed, common->sourcePosition);
    storeShared(common->sourceFree, 1u);
  }
  EXPECT_EQ(status, 0) << "the client checks each frame it gets back";
  EXPECT_EQ(encoded, kFrames);
  encoder->Close();
}

struct FactoryCase {
  std::u16string name;
  bool made;
};

class EncoderFactoryTest : public ::testing::TestWithParam<FactoryCase> {};

TEST_P(EncoderFactoryTest, OnlyTheExactNameMakesAnEncoder) {
  test::TempFolder folder;
  platform::setObjectNamespace(test::uniqueNamespace());
  processLog().open(folder.path() / "Kestrium.txt", true);
  const auto encoder = CreateVideoEncoder(GetParam().name);
  processLog().close();
  EXPECT_EQ(encoder != nullptr, GetParam().made);
  const std::string log = test::readLog(folder.path() / "Kestrium.txt");
  const std::string line = " | [Error]   Cannot create video encoder " + platform::toUtf8(GetParam().name) + "\r\n";
  EXPECT_EQ(log.find(line) != std::string::npos, !GetParam().made) << log;
}

INSTANTIATE_TEST_SUITE_P(Names, EncoderFactoryTest,
                         ::testing::Values(FactoryCase{u"no_compression", true}, FactoryCase{u"No_compression", false},
                                           FactoryCase{u"no_compression ", false}, FactoryCase{u"Fast", false},
                                           FactoryCase{u"MJPEG", false}, FactoryCase{u"H264.quicksync", false},
                                           FactoryCase{u"Vfw", false}, FactoryCase{u"", false}),
                         [](const auto& info) { return "Case" + std::to_string(info.index); });

}  // namespace
}  // namespace kestrium
