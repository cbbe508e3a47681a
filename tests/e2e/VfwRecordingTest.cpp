// Recordings through "vfw" with the real server and client, the files read back
// by ffprobe and ffmpeg. On Linux libavcodec's encoders are the installed codecs;
// on Windows the Video Compression Manager's, where the tests install an MJPEG
// compressor of their own (wine has none that takes 24-bit frames).

#include <gtest/gtest.h>

#include "platform/SharedLibrary.h"
#include "tests/e2e/E2ESupport.h"
#include "tests/e2e/ServerHarness.h"

namespace kestrium::test {
namespace {

// A capture's server, and on Windows the tests' compressor, installed as the
// machine's "vidc.mjpg" while a suite runs, unless another one is installed
// already, which then serves.
class VfwTest : public ServerTest {
 protected:
#ifdef _WIN32
  static void SetUpTestSuite() {
    platform::SharedLibrary codec;
    ASSERT_TRUE(codec.load(codecPath().string())) << codecPath();
    auto install = codec.function<int (*)()>("kestriumInstallCodec");
    ASSERT_NE(install, nullptr);
    installed_ = install();
    ASSERT_GE(installed_, 0) << "the registry refused the test codec";
  }
  static void TearDownTestSuite() {
    platform::SharedLibrary codec;
    if (installed_ == 1 && codec.load(codecPath().string())) {
      codec.function<void (*)()>("kestriumUninstallCodec")();
    }
  }
  void SetUp() override {
    ASSERT_GE(installed_, 0);
    ServerTest::SetUp();
  }

 private:
  static std::filesystem::path codecPath() {
    return platform::executablePath().parent_path() / KESTRIUM_TEST_VFW_CODEC;
  }
  static inline int installed_ = -1;
#endif
};

// A width whose 24-bit bitmap rows need padding (642 x 3 is no multiple of 4).
constexpr uint32_t kWidth = 642, kHeight = 362, kFrames = 20;

struct VfwCase {
  const char* fourcc;
  const char* codec;    // as ffprobe names it
  bool lossless;        // decodes to exactly the client's frames
};
void PrintTo(const VfwCase& c, std::ostream* os) { *os << c.fourcc; }

class VfwRecordingTest : public VfwTest, public ::testing::WithParamInterface<VfwCase> {};

TEST_P(VfwRecordingTest, EveryFrameIsReadAndDecoded) {
  if (!haveTools()) GTEST_SKIP() << "ffprobe and ffmpeg are not available in this build";
  const auto raw = patternFile(harness.folder() / "frames.rgb", kWidth, kHeight, kFrames, 7);
  ASSERT_EQ(harness.client({"record", "--dir", dir().string(), "--encoder", "vfw", "--vfw", GetParam().fourcc,
                            "--size", "642x362", "--frames", std::to_string(kFrames), "--pace", "max", "--source",
                            "raw:" + raw.string()}),
            0)
      << harness.clientOutput << harness.log();
  const auto files = filesIn(harness.clientOutput);
  ASSERT_EQ(files.size(), 1u) << harness.clientOutput;
  expectVideo(files[0], {GetParam().codec, "642", "362", kFrames});
  EXPECT_EQ(probeVideo(files[0]).frames, kFrames);

  // Decoded whole, without a complaint, to as many pictures as were sent.
  const auto decoded = harness.folder() / "decoded.rgb";
  std::string out;
  ASSERT_EQ(runTool(KESTRIUM_FFMPEG, {"-v", "error", "-i", files[0].string(), "-f", "rawvideo", "-pix_fmt", "rgb24",
                                      decoded.string()},
                    out),
            0)
      << out;
  EXPECT_TRUE(out.empty()) << out;
  const std::vector<char> picture = readBytes(decoded);
  const std::vector<char> sent = readBytes(raw);
  ASSERT_EQ(picture.size(), sent.size());
  if (GetParam().lossless) {
    EXPECT_TRUE(picture == sent) << "the codec's RGB keeps every bit of the client's frames";
  } else {
    // Upright and in its colours: close to the source on average.
    double error = 0;
    for (size_t i = 0; i < sent.size(); ++i) {
      error += std::abs(int(static_cast<uint8_t>(picture[i])) - int(static_cast<uint8_t>(sent[i])));
    }
    EXPECT_LT(error / static_cast<double>(sent.size()), 4.0);
  }
}

#ifdef _WIN32
const VfwCase kCodecs[] = {{"MJPG", "mjpeg", false}};
#else
const VfwCase kCodecs[] = {{"MJPG", "mjpeg", false}, {"FFV1", "ffv1", true}};
#endif
INSTANTIATE_TEST_SUITE_P(Codecs, VfwRecordingTest, ::testing::ValuesIn(kCodecs),
                         [](const auto& info) { return std::string(info.param.fourcc); });

struct VfwRefusal {
  const char* fourcc;
  const char* size;
  const char* line;
};
void PrintTo(const VfwRefusal& c, std::ostream* os) { *os << c.fourcc << " at " << c.size; }

class VfwRefusalTest : public VfwTest, public ::testing::WithParamInterface<VfwRefusal> {};

// A codec that does not exist or will not take the capture leaves no recorder and
// no file, says why, and the next capture through a good codec records.
TEST_P(VfwRefusalTest, IsRefusedCleanlyAndTheNextCaptureRecords) {
  EXPECT_EQ(harness.client({"record", "--name", "refused", "--dir", dir().string(), "--encoder", "vfw", "--vfw",
                            GetParam().fourcc, "--size", GetParam().size, "--frames", "5", "--pace", "max"}),
            4)
      << harness.clientOutput;
  const std::string log = harness.log();
  EXPECT_NE(log.find(GetParam().line), std::string::npos) << log;
  EXPECT_NE(log.find("[Error]   *** CAP *** Error starting capture\r\n"), std::string::npos) << log;
  EXPECT_TRUE(filesUnder(dir()).empty()) << "left behind: " << filesUnder(dir())[0];
  ASSERT_EQ(harness.client({"stop", "refused"}), 0);
  EXPECT_NE(harness.log().find("Cannot find recorder to delete refused"), std::string::npos) << "no recorder stays";

  ASSERT_EQ(harness.client({"record", "--name", "good", "--dir", dir().string(), "--encoder", "vfw", "--vfw", "MJPG",
                            "--size", "160x90", "--frames", "5", "--pace", "max"}),
            0)
      << harness.clientOutput;
  EXPECT_EQ(filesIn(harness.clientOutput).size(), 1u);
}

const VfwRefusal kRefusals[] = {
    {"ZZZZ", "642x362", "[Error]   *** VFW *** No installed codec opens with the four-character code ZZZZ\r\n"},
#ifdef _WIN32
    // Wine's Cinepak decodes only: it has no format to compress to.
    {"cvid", "642x362",
     "[Error]   *** VFW *** Codec cvid gives an output format of -1 bytes for 642x362; it cannot record\r\n"},
#else
    // Cinepak takes sizes in multiples of 4 only.
    {"cvid", "642x362", "[Error]   *** VFW *** Codec cvid refuses to compress 642x362 (-2)\r\n"},
    // Huffyuv's decoder needs tables that only the stream format could carry.
    {"HFYU", "160x90",
     "[Error]   *** VFW *** Codec HFYU (huffyuv) needs headers in the stream format; it cannot record\r\n"},
#endif
};
INSTANTIATE_TEST_SUITE_P(Codecs, VfwRefusalTest, ::testing::ValuesIn(kRefusals),
                         [](const auto& info) { return std::string(info.param.fourcc); });

}  // namespace
}  // namespace kestrium::test
