// The encoder of "vfw" against a driver of the test's own that notes every call,
// so that what the encoder asks of any installed codec is checked on every OS.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "recorder/CaptureObjects.h"
#include "server/Log.h"
#include "tests/support/TestSupport.h"
#include "videoEncoder/VidEncoderVFW.h"

namespace kestrium {
namespace {

struct DriverScript {
  int64_t formatSize = sizeof(BitmapInfoHeader);
  int64_t beginResult = VfwDriver::kOk;
  int64_t compressResult = VfwDriver::kOk;
  uint32_t payload = 16;  // bytes each compress call makes; more than the slot is a broken driver
};

struct DriverNotes {
  std::vector<std::string> calls;
  uint32_t openedWith = 0xFFFFFFFF;
  BitmapInfoHeader beginInput{};
  std::vector<int32_t> frameNumbers;
  std::vector<uint32_t> sizeOnEntry;
  std::vector<std::vector<std::byte>> frames;  // the input as the driver saw it
};

class NotingDriver final : public VfwDriver {
 public:
  NotingDriver(const DriverScript& script, DriverNotes& notes) : script_(script), notes_(notes) {}
  ~NotingDriver() override { notes_.calls.push_back("close"); }

  int64_t FormatSize(const BitmapInfoHeader&) override {
    notes_.calls.push_back("size");
    return script_.formatSize;
  }
  std::span<std::byte> AllocateFormat(size_t bytes) override {
    notes_.calls.push_back("allocate");
    block_.assign(bytes, std::byte{0});
    return block_;
  }
  int64_t GetFormat(const BitmapInfoHeader& input, std::span<std::byte> format) override {
    notes_.calls.push_back("format");
    const BitmapInfoHeader out = makeBitmapHeader(input.biWidth, input.biHeight, 24, makeFourcc('K', 'T', 'S', 'T'), 0);
    std::memcpy(format.data(), &out, sizeof out);
    return kOk;
  }
  int64_t Begin(const BitmapInfoHeader& input, std::span<const std::byte>) override {
    notes_.calls.push_back("begin");
    notes_.beginInput = input;
    return script_.beginResult;
  }
  int64_t Compress(std::span<std::byte> format, std::span<std::byte> output, const BitmapInfoHeader&,
                   std::span<const std::byte> frame, uint32_t& flags, int32_t frameNumber) override {
    notes_.calls.push_back("compress");
    BitmapInfoHeader* out = reinterpret_cast<BitmapInfoHeader*>(format.data());
    notes_.frameNumbers.push_back(frameNumber);
    notes_.sizeOnEntry.push_back(out->biSizeImage);
    notes_.frames.emplace_back(frame.begin(), frame.end());
    // The frame number in every byte, and a key frame every other frame.
    const uint32_t made = std::min<uint32_t>(script_.payload, static_cast<uint32_t>(output.size()));
    std::memset(output.data(), frameNumber & 0xFF, made);
    out->biSizeImage = script_.payload;
    if (frameNumber % 2 == 0) flags |= kKeyFrameFlag;
    return script_.compressResult;
  }
  int64_t End() override {
    notes_.calls.push_back("end");
    return kOk;
  }

 private:
  DriverScript script_;
  DriverNotes& notes_;
  std::vector<std::byte> block_;
};

class VidEncoderVFWTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setObjectNamespace(test::uniqueNamespace());
    processLog().open(folder_.path() / "Kestrium.txt", true);
  }
  void TearDown() override { processLog().close(); }

  // Opens an encoder of that size on the noting driver, with the slot free.
  std::unique_ptr<VidEncoderVFW> open(int32_t width, int32_t height, OptionList extra = {"vfw_codec", "1414747211"}) {
    objects_ = CaptureObjects(u"vfw");
    objects_.openCommonData();
    objects_.openNewEncoded();
    objects_.openEncoderBuffer(encoderBufferSize(width, height));
    storeShared(objects_.common()->encodedFree, 1u);
    auto encoder = std::make_unique<VidEncoderVFW>([this](uint32_t fourcc) {
      notes_.openedWith = fourcc;
      return std::make_unique<NotingDriver>(script_, notes_);
    });
    OptionList options = {"width", std::to_string(width), "height", std::to_string(height), "threads", "0",
                          "shared_name", "vfw"};
    options.insert(options.end(), extra.begin(), extra.end());
    opened_ = encoder->Init(options);
    return encoder;
  }

  // What the encoder left in the slot, which is then free again.
  std::vector<std::byte> take() {
    CommonData* common = objects_.common();
    EXPECT_EQ(loadShared(common->encodedFree), 0u);
    const uint32_t size = common->encodedSize;
    std::vector<std::byte> bytes(objects_.encoderBuffer.view(), objects_.encoderBuffer.view() + size);
    storeShared(common->encodedFree, 1u);
    return bytes;
  }

  std::string log() const { return test::readLog(folder_.path() / "Kestrium.txt"); }

  test::TempFolder folder_;
  CaptureObjects objects_{u"vfw"};
  DriverScript script_;
  DriverNotes notes_;
  int opened_ = -1;
};

TEST_F(VidEncoderVFWTest, OpensBeginsAndEndsInTheOrderADriverExpects) {
  auto encoder = open(64, 48);
  ASSERT_EQ(opened_, 1);
  EXPECT_EQ(notes_.openedWith, makeFourcc('K', 'T', 'S', 'T'));
  const BitmapInfoHeader& in = notes_.beginInput;
  EXPECT_EQ(in.biSize, 40u);
  EXPECT_EQ(in.biWidth, 64);
  EXPECT_EQ(in.biHeight, 48);
  EXPECT_EQ(in.biPlanes, 1);
  EXPECT_EQ(in.biBitCount, 24);
  EXPECT_EQ(in.biCompression, 0u);
  EXPECT_EQ(in.biSizeImage, 64u * 48 * 3);
  BitmapInfoHeader format{};
  encoder->GetBitmapFormat(&format);
  EXPECT_EQ(format.biCompression, makeFourcc('K', 'T', 'S', 'T')) << "the format is the driver's";
  EXPECT_EQ(encoder->HasKeyFrameFlags(), 0);
  EXPECT_EQ(encoder->WantsTopDownRows(), 0);
  EXPECT_EQ(encoder->WantsRedFirst(), 0);

  encoder->Close();
  encoder->Close();
  EXPECT_EQ(notes_.calls, (std::vector<std::string>{"size", "allocate", "format", "begin", "end", "close"}));
}

TEST_F(VidEncoderVFWTest, WithoutACodecOptionTheDriverIsAskedForCodeZero) {
  auto encoder = open(16, 16, {});
  EXPECT_EQ(notes_.openedWith, 0u);
}

// Each row of the client's frame lands at the start of a 24-bit bitmap row, at
// widths whose rows need 0 to 3 bytes of padding; the frame the driver reads is
// as long as its header says, and the copy never reads past the source (the
// source is exactly as long as the client's frame, for the sanitizers to see).
class VfwStrideTest : public VidEncoderVFWTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(VfwStrideTest, RowsArePaddedToTheBitmapStrideAndTheSourceIsReadToItsEndOnly) {
  const int32_t width = GetParam(), height = 7;
  auto encoder = open(width, height);
  ASSERT_EQ(opened_, 1);
  const size_t row = size_t(width) * 3;
  const uint32_t stride = VidEncoderVFW::DriverStride(width);
  EXPECT_EQ(stride % 4, 0u);
  EXPECT_LT(stride - row, 4u);

  std::vector<std::byte> source(row * height);
  for (size_t i = 0; i < source.size(); ++i) source[i] = std::byte(i * 7 + 1);
  ASSERT_EQ(encoder->EncodeFrame(source, 0, 0), 1);
  ASSERT_EQ(notes_.frames.size(), 1u);
  EXPECT_EQ(notes_.sizeOnEntry[0], stride * height);
  const auto& seen = notes_.frames[0];
  ASSERT_EQ(seen.size(), size_t(stride) * height);
  for (int32_t y = 0; y < height; ++y) {
    EXPECT_EQ(std::memcmp(seen.data() + size_t(y) * stride, source.data() + y * row, row), 0) << "row " << y;
    for (size_t pad = row; pad < stride; ++pad) EXPECT_EQ(seen[size_t(y) * stride + pad], std::byte{0});
  }

  // A short frame from a client is copied as far as it goes; the rest is black.
  take();
  const size_t part = row - 1;
  source.resize(row * 2 + part);
  ASSERT_EQ(encoder->EncodeFrame(source, 0, 1), 1);
  const auto& shortSeen = notes_.frames[1];
  EXPECT_EQ(std::memcmp(shortSeen.data() + stride, source.data() + row, row), 0);
  EXPECT_EQ(std::memcmp(shortSeen.data() + 2 * stride, source.data() + 2 * row, part), 0);
  for (size_t i = 2 * stride + part; i < shortSeen.size(); ++i) ASSERT_EQ(shortSeen[i], std::byte{0}) << i;
}

INSTANTIATE_TEST_SUITE_P(Widths, VfwStrideTest, ::testing::Values(1, 2, 3, 4, 642, 1366));

TEST_F(VidEncoderVFWTest, FramesGoToTheSlotInTurnAndTheCounterSkipsNoRefusedFrame) {
  auto encoder = open(32, 16);
  ASSERT_EQ(opened_, 1);
  std::vector<std::byte> source(32 * 16 * 3, std::byte{9});
  ASSERT_EQ(encoder->EncodeFrame(source, 1, 100), 1);
  // The recorder has not taken the frame yet: the next ones are lost, and the
  // driver never hears of them.
  EXPECT_EQ(encoder->EncodeFrame(source, 1, 133), 0);
  EXPECT_EQ(encoder->EncodeFrame(source, 1, 166), 0);
  EXPECT_EQ(objects_.common()->encodedPosition, 100u);
  EXPECT_EQ(objects_.common()->encodedKey, 1u);
  EXPECT_EQ(take(), std::vector<std::byte>(16, std::byte{0}));

  ASSERT_EQ(encoder->EncodeFrame(source, 1, 200), 1);
  EXPECT_EQ(objects_.common()->encodedTimed, 1u);
  EXPECT_EQ(objects_.common()->encodedPosition, 200u);
  EXPECT_EQ(objects_.common()->encodedKey, 0u);
  EXPECT_EQ(take(), std::vector<std::byte>(16, std::byte{1}));
  EXPECT_EQ(notes_.frameNumbers, (std::vector<int32_t>{0, 1}));
}

// What a broken driver leaves is never handed on: the frame is recorded empty
// (a dropped frame in the file), the capture goes on, and the log says so once.
struct BrokenFrame {
  const char* what;
  int64_t result;
  uint32_t payload;
};
class VfwBrokenFrameTest : public VidEncoderVFWTest, public ::testing::WithParamInterface<BrokenFrame> {};

TEST_P(VfwBrokenFrameTest, IsRecordedEmptyWithOneLogLine) {
  script_.compressResult = GetParam().result;
  script_.payload = GetParam().payload;
  auto encoder = open(16, 16);
  ASSERT_EQ(opened_, 1);
  std::vector<std::byte> source(16 * 16 * 3);
  for (uint32_t f = 0; f < 3; ++f) {
    ASSERT_EQ(encoder->EncodeFrame(source, 0, f), 1);
    EXPECT_TRUE(take().empty()) << GetParam().what;
  }
  encoder->Close();
  const std::string text = log();
  EXPECT_EQ(test::countOf(text, "[Error]   *** VFW *** Codec KTST failed frame 0"), 1u) << text;
  EXPECT_NE(text.find("[Error]   *** VFW *** Codec KTST failed 3 frames"), std::string::npos) << text;
}

INSTANTIATE_TEST_SUITE_P(Drivers, VfwBrokenFrameTest,
                         ::testing::Values(BrokenFrame{"an error", VfwDriver::kError, 16},
                                           BrokenFrame{"more than the slot", VfwDriver::kOk, 1u << 30}),
                         [](const auto& info) { return info.param.result == 0 ? "TooLarge" : "Error"; });

// A driver that cannot describe its output or will not begin: no capture, a
// log line that says why, and the driver closed.
struct Refusal {
  const char* name;
  int64_t formatSize;
  int64_t beginResult;
  const char* line;
};
class VfwRefusalTest : public VidEncoderVFWTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(VfwRefusalTest, OpenFailsWithItsReason) {
  script_.formatSize = GetParam().formatSize;
  script_.beginResult = GetParam().beginResult;
  auto encoder = open(64, 48);
  EXPECT_EQ(opened_, 0);
  encoder->Close();
  EXPECT_NE(log().find(GetParam().line), std::string::npos) << log();
  ASSERT_FALSE(notes_.calls.empty());
  EXPECT_EQ(notes_.calls.back(), "close");
  EXPECT_EQ(std::count(notes_.calls.begin(), notes_.calls.end(), "compress"), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Drivers, VfwRefusalTest,
    ::testing::Values(
        Refusal{"ZeroFormat", 0, VfwDriver::kOk, "Codec KTST gives an output format of 0 bytes for 64x48"},
        Refusal{"NegativeFormat", -2, VfwDriver::kOk, "Codec KTST gives an output format of -2 bytes"},
        Refusal{"FormatShorterThanAHeader", 39, VfwDriver::kOk, "gives an output format of 39 bytes"},
        Refusal{"HugeFormat", int64_t{1} << 32, VfwDriver::kOk, "gives an output format of 4294967296 bytes"},
        Refusal{"NoBegin", 40, VfwDriver::kBadFormat, "[Error]   *** VFW *** Codec KTST refuses to compress 64x48 (-2)"}),
    [](const auto& info) { return info.param.name; });

TEST_F(VidEncoderVFWTest, NoDriverMeansNoEncoder) {
  auto encoder = std::make_unique<VidEncoderVFW>([](uint32_t) { return nullptr; });
  EXPECT_EQ(encoder->Init({"width", "16", "height", "16", "shared_name", "vfw", "vfw_codec", "1"}), 0);
  encoder->Close();
  std::vector<std::byte> source(16 * 16 * 3);
  EXPECT_EQ(encoder->EncodeFrame(source, 0, 0), 0);
}

}  // namespace
}  // namespace kestrium
