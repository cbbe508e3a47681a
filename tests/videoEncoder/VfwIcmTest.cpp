// The encoder of "vfw" against the Video Compression Manager: a compressor of
// this process's own, installed as a function, sees every message the encoder
// sends and answers with frames the test can recognise in the encoded slot.

#include <gtest/gtest.h>

// clang-format off
#include <windows.h>
#include <vfw.h>
// clang-format on

#include <cstring>
#include <string>
#include <vector>

#include "platform/ChildProcess.h"
#include "server/Dispatcher.h"
#include "server/Log.h"
#include "tests/support/TestSupport.h"
#include "tests/videoEncoder/EncodedSlotConsumer.h"
#include "tools/AviReader.h"
#include "videoEncoder/VidEncoderVFW.h"

namespace kestrium {
namespace {

enum class Behaviour { Works, SizeZero, SizeNegative, RefusesBegin };

struct TestCodec {
  uint32_t fourcc;
  Behaviour behaviour;
};
// Codes no real codec has; the driver knows which one it was opened as.
constexpr TestCodec kCodecs[] = {{makeFourcc('K', 'T', 'S', 'T'), Behaviour::Works},
                                 {makeFourcc('K', 'T', 'S', '0'), Behaviour::SizeZero},
                                 {makeFourcc('K', 'T', 'S', 'N'), Behaviour::SizeNegative},
                                 {makeFourcc('K', 'T', 'S', 'B'), Behaviour::RefusesBegin}};
constexpr uint32_t kWorking = kCodecs[0].fourcc;
constexpr int32_t kXPels = 4321;  // marks the format as the one the driver filled

struct CompressCall {
  ICCOMPRESS message;  // its pointers only compared with null afterwards
  DWORD sizeOnEntry;
  uint32_t outputCompression;
  std::vector<uint8_t> input;
  std::vector<uint8_t> payload;
  bool key;
};

// What the driver was told, in order; one driver at a time, on the test's thread.
struct Seen {
  DWORD openType = 0, openHandler = 0, openFlags = 0;
  std::vector<UINT> messages;  // everything after the open
  std::vector<bool> formatWithOutput;
  BITMAPINFOHEADER begunInput{};
  BITMAPINFOHEADER filled{};
  std::vector<CompressCall> compresses;
};
Seen seen;

uint64_t checksum(const uint8_t* bytes, size_t size) {
  uint64_t h = 14695981039346656037ull;
  for (size_t i = 0; i < size; ++i) h = (h ^ bytes[i]) * 1099511628211ull;
  return h;
}

LRESULT compress(const ICCOMPRESS& c) {
  const size_t inputBytes = c.lpbiOutput->biSizeImage;
  const auto* bits = static_cast<const uint8_t*>(c.lpInput);
  CompressCall& call = seen.compresses.emplace_back();
  call.message = c;
  call.sizeOnEntry = c.lpbiOutput->biSizeImage;
  call.outputCompression = c.lpbiOutput->biCompression;
  call.input.assign(bits, bits + inputBytes);
  call.key = c.lFrameNum % 2 == 0;
  // The frame number, the input's checksum and a few bytes from the end of its
  // first row on (its padding among them), as many as the frame number says, so
  // that sizes differ too.
  const uint64_t sum = checksum(bits, inputBytes);
  call.payload.resize(12 + 1 + static_cast<size_t>(c.lFrameNum) % 7);
  std::memcpy(call.payload.data(), &c.lFrameNum, 4);
  std::memcpy(call.payload.data() + 4, &sum, 8);
  const size_t rowEnd = static_cast<size_t>(c.lpbiInput->biWidth) * 3 - 1;
  std::memcpy(call.payload.data() + 12, bits + rowEnd, call.payload.size() - 12);
  std::memcpy(c.lpOutput, call.payload.data(), call.payload.size());
  c.lpbiOutput->biSizeImage = static_cast<DWORD>(call.payload.size());
  if (call.key) *c.lpdwFlags |= AVIIF_KEYFRAME;
  return ICERR_OK;
}

LRESULT CALLBACK testDriver(DWORD_PTR id, HDRVR, UINT msg, LPARAM lp1, LPARAM lp2) {
  switch (msg) {
    case DRV_LOAD:
    case DRV_ENABLE:
    case DRV_DISABLE:
    case DRV_FREE:
      return 1;
    case DRV_OPEN: {
      const auto* open = reinterpret_cast<const ICOPEN*>(lp2);
      seen.openType = open->fccType;
      seen.openHandler = open->fccHandler;
      seen.openFlags = open->dwFlags;
      for (size_t i = 0; i < std::size(kCodecs); ++i) {
        if (kCodecs[i].fourcc == open->fccHandler) return static_cast<LRESULT>(i + 1);
      }
      return 0;
    }
    default:
      break;
  }
  seen.messages.push_back(msg);
  const Behaviour behaviour = kCodecs[id - 1].behaviour;
  switch (msg) {
    case DRV_CLOSE:
      return 1;
    case ICM_COMPRESS_GET_FORMAT: {
      const auto* in = reinterpret_cast<const BITMAPINFOHEADER*>(lp1);
      auto* out = reinterpret_cast<BITMAPINFOHEADER*>(lp2);
      seen.formatWithOutput.push_back(out != nullptr);
      if (out == nullptr) {
        if (behaviour == Behaviour::SizeZero) return 0;
        if (behaviour == Behaviour::SizeNegative) return ICERR_BADFORMAT;
        return sizeof(BITMAPINFOHEADER);
      }
      *out = {};
      out->biSize = sizeof(BITMAPINFOHEADER);
      out->biWidth = in->biWidth;
      out->biHeight = in->biHeight;
      out->biPlanes = 1;
      out->biBitCount = 24;
      out->biCompression = kCodecs[id - 1].fourcc;
      out->biXPelsPerMeter = kXPels;
      seen.filled = *out;
      return ICERR_OK;
    }
    case ICM_COMPRESS_BEGIN:
      seen.begunInput = *reinterpret_cast<const BITMAPINFOHEADER*>(lp1);
      return behaviour == Behaviour::RefusesBegin ? ICERR_BADFORMAT : ICERR_OK;
    case ICM_COMPRESS:
      return compress(*reinterpret_cast<const ICCOMPRESS*>(lp1));
    case ICM_COMPRESS_END:
      return ICERR_OK;
    default:
      return ICERR_UNSUPPORTED;
  }
}

constexpr int32_t kWidth = 642, kHeight = 362;  // 1926-byte rows, padded to 1928
constexpr uint32_t kStride = 1928;

class VfwIcmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setObjectNamespace(namespace_);
    processLog().open(folder_.path() / "Kestrium.txt", true);
    seen = {};
    for (const TestCodec& codec : kCodecs) {
      ASSERT_TRUE(
          ICInstall(ICTYPE_VIDEO, codec.fourcc, reinterpret_cast<LPARAM>(testDriver), nullptr, ICINSTALL_FUNCTION));
    }
  }
  void TearDown() override {
    for (const TestCodec& codec : kCodecs) ICRemove(ICTYPE_VIDEO, codec.fourcc, 0);
    processLog().close();
  }

  static OptionList options(uint32_t fourcc) {
    return {
        "width",     std::to_string(kWidth), "height", std::to_string(kHeight), "threads", "0", "shared_name", "vfw",
        "vfw_codec", std::to_string(fourcc)};
  }
  std::string log() const { return test::readLog(folder_.path() / "Kestrium.txt"); }

  test::TempFolder folder_;
  const std::u16string namespace_ = test::uniqueNamespace();
};

// Packed source rows, different in every frame and in every row.
std::vector<std::byte> sourceFrame(uint32_t n) {
  std::vector<std::byte> frame(size_t{kWidth} * kHeight * 3);
  uint32_t x = 0x9E3779B9u * (n + 1);
  for (std::byte& b : frame) {
    x = x * 1664525u + 1013904223u;
    b = static_cast<std::byte>(x >> 24);
  }
  return frame;
}

// The same rows as a 24-bit bitmap holds them: each starts on a 4-byte boundary,
// with zero padding.
std::vector<uint8_t> driverRows(const std::vector<std::byte>& source) {
  std::vector<uint8_t> rows(size_t{kStride} * kHeight, 0);
  for (size_t y = 0; y < kHeight; ++y) std::memcpy(&rows[y * kStride], &source[y * kWidth * 3], kWidth * 3);
  return rows;
}

TEST_F(VfwIcmTest, FramesGoThroughTheInstalledCompressorIntoTheEncodedSlot) {
  constexpr uint32_t kFrames = 5;
  test::EncodedSlotConsumer consumer(u"vfw", kWidth, kHeight);
  VidEncoderVFW encoder;
  ASSERT_EQ(encoder.Init(options(kWorking)), 1) << log();
  EXPECT_EQ(seen.openType, ICTYPE_VIDEO);
  EXPECT_EQ(seen.openHandler, kWorking);
  EXPECT_EQ(seen.openFlags, DWORD{ICMODE_FASTCOMPRESS});
  EXPECT_EQ(seen.formatWithOutput, (std::vector<bool>{false, true}));
  const BITMAPINFOHEADER& in = seen.begunInput;
  EXPECT_EQ(in.biSize, 40u);
  EXPECT_EQ(in.biWidth, kWidth);
  EXPECT_EQ(in.biHeight, kHeight);
  EXPECT_EQ(in.biPlanes, 1);
  EXPECT_EQ(in.biBitCount, 24);
  EXPECT_EQ(in.biCompression, 0u);
  EXPECT_EQ(in.biSizeImage, uint32_t{kWidth} * kHeight * 3);
  // The file's header is taken at the start, before any frame.
  BitmapInfoHeader format{};
  encoder.GetBitmapFormat(&format);
  EXPECT_EQ(std::memcmp(&format, &seen.filled, sizeof(format)), 0);
  EXPECT_EQ(format.biXPelsPerMeter, kXPels);

  std::vector<std::vector<std::byte>> sources;
  for (uint32_t n = 0; n < kFrames; ++n) {
    ASSERT_TRUE(consumer.waitForCount(n));
    sources.push_back(sourceFrame(n));
    ASSERT_EQ(encoder.EncodeFrame(sources.back(), 1000 + n, 7 + n), 1);
  }
  const auto taken = consumer.taken(kFrames);
  encoder.Close();

  ASSERT_EQ(seen.compresses.size(), kFrames);
  ASSERT_EQ(taken.size(), kFrames);
  for (uint32_t n = 0; n < kFrames; ++n) {
    SCOPED_TRACE(n);
    const CompressCall& call = seen.compresses[n];
    EXPECT_EQ(call.message.dwFlags, 0u);
    EXPECT_EQ(call.sizeOnEntry, kStride * kHeight);
    EXPECT_EQ(call.outputCompression, kWorking);
    EXPECT_EQ(call.message.lFrameNum, static_cast<LONG>(n));
    EXPECT_EQ(call.message.dwFrameSize, 0u);
    EXPECT_EQ(call.message.dwQuality, 0u);
    EXPECT_EQ(call.message.lpbiPrev, nullptr);
    EXPECT_EQ(call.message.lpPrev, nullptr);
    EXPECT_EQ(call.message.lpckid, nullptr);
    EXPECT_TRUE(call.input == driverRows(sources[n])) << "the driver reads the source rows at its own stride";
    EXPECT_EQ(taken[n].bytes, call.payload);
    EXPECT_EQ(taken[n].key, call.key ? 1u : 0u);
    EXPECT_EQ(taken[n].timed, 1000 + n);
    EXPECT_EQ(taken[n].position, 7 + n);
  }
  ASSERT_GE(seen.messages.size(), 2u);
  const std::vector<UINT> tail(seen.messages.end() - 2, seen.messages.end());
  EXPECT_EQ(tail, (std::vector<UINT>{ICM_COMPRESS_END, DRV_CLOSE}));
}

// The whole way: the reference client feeds a capture of a server in this
// process, whose encoder finds the compressor installed here; the file's video
// chunks are what the compressor made, in order.
TEST_F(VfwIcmTest, TheRecordingHoldsTheCompressorsFramesAsItsVideoChunks) {
  auto dispatcher = std::make_unique<Dispatcher>();
  const auto dir = folder_.path() / "recordings";
  const auto output = folder_.path() / "client-output.txt";
  platform::ChildProcess client;
  ASSERT_TRUE(client.start(platform::executablePath().parent_path() / KESTRIUM_CLIENT,
                           {"record", "--encoder", "vfw", "--vfw", "KTST", "--size", "642x362", "--frames", "10",
                            "--pace", "max", "--dir", dir.string(), "--name", "vfwcapture"},
                           {{"KESTRIUM_NAMESPACE", platform::toUtf8(namespace_)}}, output));
  const std::optional<int> status = client.wait(60000);
  const std::vector<char> said = test::readBytes(output);
  ASSERT_EQ(status, 0) << std::string(said.begin(), said.end()) << log();
  dispatcher.reset();  // the recorder's thread, which drove the compressor, has ended

  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir)) {
    if (entry.path().extension() == ".avi") files.push_back(entry.path());
  }
  ASSERT_EQ(files.size(), 1u);
  tools::FileSource source;
  ASSERT_TRUE(source.open(files[0]));
  tools::AviReader reader;
  std::string error;
  ASSERT_TRUE(reader.open(source, error)) << error;
  EXPECT_EQ(reader.video().compression, kWorking);
  EXPECT_EQ(reader.video().width, kWidth);
  EXPECT_EQ(reader.video().height, kHeight);
  // Frames the client skipped for a busy slot may stand in the file as empty
  // chunks; every frame the compressor made is there.
  std::vector<std::vector<uint8_t>> chunks;
  for (const tools::AviChunk& chunk : reader.frames()) {
    if (chunk.size == 0) continue;
    std::vector<uint8_t> bytes(chunk.size);
    ASSERT_TRUE(source.read(chunk.offset, std::as_writable_bytes(std::span(bytes))));
    chunks.push_back(std::move(bytes));
  }
  ASSERT_FALSE(seen.compresses.empty());
  ASSERT_EQ(chunks.size(), seen.compresses.size());
  for (size_t n = 0; n < chunks.size(); ++n) EXPECT_EQ(chunks[n], seen.compresses[n].payload) << n;
}

struct Refusal {
  const char* name;
  uint32_t fourcc;
  const char* line;
};
void PrintTo(const Refusal& r, std::ostream* os) { *os << r.name; }

class VfwIcmRefusalTest : public VfwIcmTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(VfwIcmRefusalTest, ACompressorThatCannotRecordFailsTheStartWithAReason) {
  test::EncodedSlotConsumer consumer(u"vfw", kWidth, kHeight);
  {
    VidEncoderVFW encoder;
    EXPECT_EQ(encoder.Init(options(GetParam().fourcc)), 0);
    const std::vector<std::byte> frame(size_t{kWidth} * kHeight * 3);
    EXPECT_EQ(encoder.EncodeFrame(frame, 0, 0), 0);
  }
  EXPECT_NE(log().find(GetParam().line), std::string::npos) << log();
  EXPECT_TRUE(seen.compresses.empty());
  // A compressor that was opened is closed again.
  EXPECT_TRUE(seen.messages.empty() || seen.messages.back() == DRV_CLOSE);
}

INSTANTIATE_TEST_SUITE_P(
    Drivers, VfwIcmRefusalTest,
    ::testing::Values(
        Refusal{"SizeZero", kCodecs[1].fourcc, "[Error]   *** VFW *** Codec KTS0 gives an output format of 0 bytes"},
        Refusal{"SizeNegative", kCodecs[2].fourcc,
                "[Error]   *** VFW *** Codec KTSN gives an output format of -2 bytes"},
        Refusal{"BeginRefused", kCodecs[3].fourcc, "[Error]   *** VFW *** Codec KTSB refuses to compress 642x362 (-2)"},
        Refusal{"NotInstalled", makeFourcc('Z', 'Z', 'Z', 'Z'),
                "[Error]   *** VFW *** No installed codec opens with the four-character code ZZZZ\r\n"},
        Refusal{"NotInstalledUnprintable", makeFourcc('Z', '\x01', 'Z', '\x7F'),
                "[Error]   *** VFW *** No installed codec opens with the four-character code Z?Z?\r\n"}),
    [](const ::testing::TestParamInfo<Refusal>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kestrium
