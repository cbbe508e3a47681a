#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "codecs/Tmb2FrameEncoder.h"
#include "fileOutput/AVIOutputFile.h"
#include "platform/System.h"
#include "tests/codecs/CodecTestSupport.h"
#include "tests/support/TestSupport.h"
#include "tests/tools/TestAvi.h"
#include "tools/AviReader.h"
#include "tools/Tmb2Recording.h"
#include "videoEncoder/BitmapInfoHeader.h"

namespace kestrium {
namespace {

using test::Picture;
using test::TestAvi;

std::filesystem::path tool(const char* name) { return platform::executablePath().parent_path() / name; }

void writeFile(const std::filesystem::path& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                              static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> readFile(const std::filesystem::path& path) {
  const std::vector<char> bytes = test::readBytes(path);
  return {bytes.begin(), bytes.end()};
}

// Rows bottom-up and blue first: what the client hands the "fast" encoder.
std::vector<uint8_t> serverOrder(const std::vector<uint8_t>& rgb, uint32_t w, uint32_t h) {
  std::vector<uint8_t> out(rgb.size());
  for (uint32_t y = 0; y < h; ++y) {
    const uint8_t* s = &rgb[size_t(y) * w * 3];
    uint8_t* d = &out[size_t(h - 1 - y) * w * 3];
    for (uint32_t x = 0; x < w; ++x) {
      d[3 * x] = s[3 * x + 2];
      d[3 * x + 1] = s[3 * x + 1];
      d[3 * x + 2] = s[3 * x];
    }
  }
  return out;
}

// A recording as the server makes it: frames encoded by the "fast" encoder's
// frame encoder, written by the product's AVI muxer with an audio stream beside
// them, a dropped (empty) frame, and segments so small that the file goes on in
// 'AVIX' RIFFs.
struct Recording {
  std::vector<uint8_t> avi;
  std::vector<std::vector<uint8_t>> sources;  // rgb24, top-down, red first
  std::vector<std::vector<uint8_t>> planes;   // per frame in the file, the planes it decodes to
  int segments = 0;
};

Recording record(Picture picture, uint32_t w, uint32_t h, int frames, int64_t segmentLimit, int dropAt) {
  Recording r;
  const test::TempFolder folder("-avi");
  const auto path = folder.path() / "recording.avi";
  AVIOutputFile avi(segmentLimit);
  EXPECT_NE(avi.initOutputStreams(), 0);
  AVIVideoOutputStream& video = *avi.videoStream();
  video.header.fccType = fourcc("vids");
  video.header.fccHandler = tmb2::kFourcc;
  video.header.dwScale = 1000;
  video.header.dwRate = 30000;
  video.header.dwLength = 1;
  video.chunkId = fourcc("00dc");
  BitmapInfoHeader format{};
  format.biSize = 40;
  format.biWidth = static_cast<int32_t>(w);
  format.biHeight = static_cast<int32_t>(h);
  format.biPlanes = 1;
  format.biBitCount = 16;
  format.biCompression = tmb2::kFourcc;
  video.format.resize(sizeof format);
  std::memcpy(video.format.data(), &format, sizeof format);
  AVIAudioOutputStream& audio = *avi.audioStream(0);
  audio.header.fccType = fourcc("auds");
  audio.header.dwScale = 4;
  audio.header.dwRate = 192000;
  audio.header.dwSampleSize = 4;
  const uint8_t pcm[18] = {1, 0, 2, 0, 0x80, 0xBB, 0, 0, 0, 0xEE, 2, 0, 4, 0, 16, 0, 0, 0};  // 48 kHz stereo
  audio.format.assign(reinterpret_cast<const std::byte*>(pcm), reinterpret_cast<const std::byte*>(pcm) + 18);
  EXPECT_EQ(avi.init(path, w, h, 1, 1, 100000, 1), 1);

  tmb2::FrameEncoder encoder(w, h);
  std::vector<uint8_t> out(size_t(w) * h * 4 + 1024);
  const std::vector<std::byte> sound(640, std::byte{3});
  for (int i = 0; i < frames; ++i) {
    if (i == dropAt) {
      video.write(0, {}, 1, 0);
      r.planes.push_back(r.planes.back());
      continue;
    }
    r.sources.push_back(test::picture(picture, w, h, static_cast<uint32_t>(i * 4)));
    const std::vector<uint8_t> frame = serverOrder(r.sources.back(), w, h);
    const size_t size = encoder.encode(frame.data(), out.data(), out.size());
    video.write(0x10, std::as_bytes(std::span(out.data(), size)), 1, 0);
    audio.write(0x10, sound, 160, 1);
    r.planes.emplace_back(encoder.planes(), encoder.planes() + encoder.layout().planesSize);
  }
  EXPECT_EQ(avi.finalize(), 1);
  r.segments = avi.segments();
  r.avi = readFile(path);
  return r;
}

std::span<const std::byte> bytes(const std::vector<uint8_t>& v) { return std::as_bytes(std::span(v)); }

// ---- The AVI reader ----

TEST(AviReaderTest, FindsTheVideoChunksAcrossSegmentsInOrder) {
  TestAvi::Options o;
  o.audioFirst = true;  // video is stream 1: its chunks are "01dc"
  TestAvi avi(o);
  std::vector<std::vector<uint8_t>> frames;
  for (int i = 0; i < 9; ++i) {
    if (i == 3 || i == 6) avi.newSegment();
    frames.push_back(std::vector<uint8_t>(static_cast<size_t>(10 + i), static_cast<uint8_t>(i)));
    if (i == 4) avi.beginRec();
    avi.frame(frames.back());
    avi.audio(5);
    avi.junk(3);
    if (i == 5) avi.endRec();
    avi.frame({}, "00dc");  // the audio stream's number with "dc": not video
  }
  const std::vector<uint8_t> file = avi.finish();
  tools::MemorySource source(bytes(file));
  tools::AviReader reader;
  std::string error;
  ASSERT_TRUE(reader.open(source, error)) << error;
  EXPECT_EQ(reader.riffCount(), 3);
  EXPECT_EQ(reader.video().number, 1u);
  EXPECT_EQ(reader.video().width, 64);
  EXPECT_EQ(reader.video().compression, tmb2::kFourcc);
  EXPECT_EQ(reader.video().rate, 30u);
  ASSERT_EQ(reader.frames().size(), frames.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    const tools::AviChunk& c = reader.frames()[i];
    ASSERT_EQ(c.size, frames[i].size());
    EXPECT_EQ(0, std::memcmp(&file[c.offset], frames[i].data(), c.size)) << i;
  }
}

struct Damage {
  const char* what;
  void (*apply)(std::vector<uint8_t>&);
  const char* message;
};
void PrintTo(const Damage& d, std::ostream* os) { *os << d.what; }

size_t find(const std::vector<uint8_t>& b, const char* code, size_t from = 0) {
  for (size_t i = from; i + 4 <= b.size(); ++i) {
    if (std::memcmp(&b[i], code, 4) == 0) return i;
  }
  return b.size();
}

class AviReaderDamageTest : public ::testing::TestWithParam<Damage> {};

TEST_P(AviReaderDamageTest, DamagedFileGivesAClearError) {
  TestAvi avi({});
  for (int i = 0; i < 6; ++i) {
    if (i == 3) avi.newSegment();
    avi.frame(std::vector<uint8_t>(20, 1));
  }
  std::vector<uint8_t> file = avi.finish();
  GetParam().apply(file);
  tools::MemorySource source(bytes(file));
  tools::AviReader reader;
  std::string error;
  EXPECT_FALSE(reader.open(source, error)) << GetParam().what;
  EXPECT_NE(error.find(GetParam().message), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, AviReaderDamageTest,
    ::testing::Values(
        Damage{"cut short", [](std::vector<uint8_t>& f) { f.erase(f.end() - 30, f.end()); }, "cut short or was never closed"},
        Damage{"not riff", [](std::vector<uint8_t>& f) { std::memcpy(f.data(), "RIFX", 4); }, "not an AVI file"},
        Damage{"wave", [](std::vector<uint8_t>& f) { std::memcpy(&f[8], "WAVE", 4); }, "not an AVI file"},
        Damage{"second riff form",
               [](std::vector<uint8_t>& f) { std::memcpy(&f[find(f, "AVIX")], "AVI ", 4); }, "expected RIFF 'AVIX'"},
        Damage{"chunk past its list",
               [](std::vector<uint8_t>& f) { TestAvi::put32(f, find(f, "00dc") + 4, 5000); }, "runs past the end"},
        Damage{"no header", [](std::vector<uint8_t>& f) { std::memcpy(&f[find(f, "hdrl")], "hdrX", 4); },
               "'movi' list"},
        Damage{"no video", [](std::vector<uint8_t>& f) { std::memcpy(&f[find(f, "vids")], "txts", 4); },
               "no video stream"},
        Damage{"stray tail", [](std::vector<uint8_t>& f) { f.insert(f.end(), 5, uint8_t{0}); }, "stray 5 bytes"},
        Damage{"empty", [](std::vector<uint8_t>& f) { f.clear(); }, "empty"}),
    [](const auto& info) {
      std::string name = info.param.what;
      for (char& c : name) {
        if (c == ' ') c = '_';
      }
      return name;
    });

TEST(AviReaderTest, VideoFormatShorterThanABitmapHeader) {
  TestAvi::Options o;
  o.formatSize = 20;
  TestAvi avi(o);
  avi.frame(std::vector<uint8_t>(4));
  const std::vector<uint8_t> file = avi.finish();
  tools::MemorySource source(bytes(file));
  tools::AviReader reader;
  std::string error;
  EXPECT_FALSE(reader.open(source, error));
  EXPECT_NE(error.find("short of a BITMAPINFOHEADER"), std::string::npos) << error;
}

TEST(Tmb2RecordingTest, RejectsOtherCodecsAndImpossibleSizes) {
  for (auto [compression, width, message] :
       {std::tuple{0x47504A4Du, 64, "'MJPG', not TMB2"}, std::tuple{0x32424D54u, 0, "outside"},
        std::tuple{0x32424D54u, 20000, "outside"}}) {
    TestAvi::Options o;
    o.compression = compression;
    o.width = width;
    TestAvi avi(o);
    avi.frame(std::vector<uint8_t>(4));
    const std::vector<uint8_t> file = avi.finish();
    tools::MemorySource source(bytes(file));
    tools::Tmb2Recording recording;
    std::string error;
    EXPECT_FALSE(recording.open(source, error));
    EXPECT_NE(error.find(message), std::string::npos) << error;
  }
}

// Mutations of a whole recording: the reader and the decoder answer each with
// an error or frames, never a crash (the sanitizer builds watch every access).
TEST(Tmb2RecordingFuzzTest, MutatedRecordingsNeverCrash) {
  const Recording r = record(Picture::Game, 48, 32, 6, 5000, 3);
  ASSERT_GT(r.segments, 1);
  std::mt19937 rng(99);
  size_t opened = 0;
  for (int round = 0; round < 3000; ++round) {
    std::vector<uint8_t> f = r.avi;
    for (int e = 0; e < 1 + static_cast<int>(rng() % 3); ++e) {
      const size_t at = rng() % f.size();
      switch (rng() % 4) {
        case 0: f[at] ^= static_cast<uint8_t>(1u << (rng() % 8)); break;
        case 1: f[at] = static_cast<uint8_t>(rng()); break;
        case 2: f.resize(std::max<size_t>(at, 1)); break;
        default:
          // Sizes are where a reader goes wrong: hit the bytes of one.
          if (at + 4 <= f.size()) TestAvi::put32(f, at - at % 4, static_cast<uint32_t>(rng()));
          break;
      }
    }
    tools::MemorySource source(bytes(f));
    tools::Tmb2Recording recording;
    std::string error;
    if (!recording.open(source, error)) {
      ASSERT_FALSE(error.empty());
      continue;
    }
    ++opened;
    std::vector<uint8_t> planes;
    for (size_t i = 0; i < recording.frameCount(); ++i) {
      bool empty = false;
      recording.decodeFrame(i, planes, empty, error);
    }
  }
  EXPECT_GT(opened, 0u);
}

// ---- kestrium-tmb2 ----

class Tmb2ToolTest : public ::testing::Test {
 protected:
  test::TempFolder folder;
  std::string output;

  int run(const std::vector<std::string>& args) { return test::runTool(tool(KESTRIUM_TMB2_TOOL), args, output); }
};

TEST_F(Tmb2ToolTest, VerifyReportsAGoodRecording) {
  const Recording r = record(Picture::Game, 96, 64, 7, 15000, 4);
  ASSERT_GT(r.segments, 2);
  const auto file = folder.path() / "good.avi";
  writeFile(file, r.avi);
  EXPECT_EQ(run({"verify", file.string()}), 0) << output;
  EXPECT_NE(output.find("TMB2 96x64, 7 frames, " + std::to_string(r.segments) + " RIFF segments, 30000/1000"),
            std::string::npos)
      << output;
  EXPECT_NE(output.find("1 frames dropped"), std::string::npos) << output;
  EXPECT_NE(output.find("OK"), std::string::npos) << output;
}

TEST_F(Tmb2ToolTest, VerifyAndDecodeReportDamagedFrames) {
  Recording r = record(Picture::Gradient, 32, 32, 4, AVIOutputFile::kSegmentLimit, -1);
  // Break the second frame's Y stream count.
  const size_t second = find(r.avi, "00dc", find(r.avi, "00dc") + 8);
  TestAvi::put32(r.avi, second + 8 + 12, 7);
  const auto file = folder.path() / "damaged.avi";
  writeFile(file, r.avi);
  EXPECT_EQ(run({"verify", file.string()}), 1) << output;
  EXPECT_NE(output.find("frame 1: Y plane: plane codes 7 residuals"), std::string::npos) << output;
  EXPECT_NE(output.find("DAMAGED: 1 of 4"), std::string::npos) << output;
  EXPECT_EQ(run({"decode", file.string(), "-o", (folder.path() / "out.y4m").string()}), 1) << output;
  EXPECT_NE(output.find("frame 1:"), std::string::npos) << output;
}

TEST_F(Tmb2ToolTest, UsageAndUnreadableFiles) {
  EXPECT_EQ(run({}), 2);
  EXPECT_EQ(run({"decode", "x.avi"}), 2) << "no output";
  EXPECT_EQ(run({"verify", "x.avi", "--bogus"}), 2);
  EXPECT_EQ(run({"play", "x.avi"}), 2);
  EXPECT_EQ(run({"verify", (folder.path() / "missing.avi").string()}), 1);
  EXPECT_NE(output.find("cannot open"), std::string::npos) << output;
}

// --planes writes the stream's planes untouched: exactly what the encoder
// converted, frame after frame, a dropped frame repeating the one before.
TEST_F(Tmb2ToolTest, DecodePlanesGivesTheEncodersPlanes) {
  for (auto [w, h] : {std::pair{96u, 64u}, std::pair{37u, 21u}}) {
    const Recording r = record(Picture::Noise, w, h, 6, 25000, 2);
    const auto file = folder.path() / "planes.avi";
    const auto out = folder.path() / "planes.yuv";
    writeFile(file, r.avi);
    ASSERT_EQ(run({"decode", file.string(), "-o", out.string(), "--planes"}), 0) << output;
    // Each plane's own bytes: W x H, then (W/2) x (H/2) twice.
    const tmb2::FrameLayout layout = tmb2::frameLayout(w, h);
    std::vector<uint8_t> expected;
    for (const auto& p : r.planes) {
      for (const tmb2::PlaneLayout& pl : layout.planes) {
        expected.insert(expected.end(), p.begin() + static_cast<ptrdiff_t>(pl.offset),
                        p.begin() + static_cast<ptrdiff_t>(pl.offset + pl.width * pl.height));
      }
    }
    EXPECT_TRUE(readFile(out) == expected) << w << "x" << h;
  }
}

// Mean absolute difference per channel of two runs of rgb24 frames.
std::vector<double> channelErrors(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  std::vector<double> sum(3, 0.0);
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) sum[i % 3] += std::abs(int(a[i]) - int(b[i]));
  for (double& s : sum) s /= static_cast<double>(a.size() / 3);
  return sum;
}

// The y4m is the picture the client sent, upright and in its own colours, as
// ffmpeg, which knows nothing of TMB2, reads it: as close to the source as
// ffmpeg's own round trip of the source through yuv420p, where a flipped
// picture or red and blue swapped would be tens of levels off.
TEST_F(Tmb2ToolTest, DecodedVideoIsUprightInTheRightColoursForFfmpeg) {
  if (std::string(KESTRIUM_FFMPEG).empty()) GTEST_SKIP() << "ffmpeg does not run in this build";
  constexpr uint32_t w = 320, h = 180;
  const Recording r = record(Picture::Game, w, h, 3, AVIOutputFile::kSegmentLimit, -1);
  const auto file = folder.path() / "game.avi";
  const auto y4m = folder.path() / "game.y4m";
  const auto rgb = folder.path() / "game.rgb";
  writeFile(file, r.avi);
  ASSERT_EQ(run({"decode", file.string(), "-o", y4m.string()}), 0) << output;
  ASSERT_EQ(test::runTool(KESTRIUM_FFPROBE,
                          {"-v", "error", "-show_entries", "stream=width,height,pix_fmt,nb_read_frames",
                           "-count_frames", "-of", "compact", y4m.string()},
                          output),
            0);
  EXPECT_NE(output.find("width=320|height=180|pix_fmt=yuv420p"), std::string::npos) << output;
  EXPECT_NE(output.find("nb_read_frames=3"), std::string::npos) << output;
  ASSERT_EQ(test::runTool(KESTRIUM_FFMPEG,
                          {"-v", "error", "-y", "-i", y4m.string(), "-f", "rawvideo", "-pix_fmt", "rgb24", rgb.string()},
                          output),
            0)
      << output;
  const std::vector<uint8_t> back = readFile(rgb);

  // ffmpeg's own trip of the same frames through yuv420p and back.
  std::vector<uint8_t> sources;
  for (const auto& f : r.sources) sources.insert(sources.end(), f.begin(), f.end());
  const auto sourceFile = folder.path() / "source.rgb";
  const auto tripFile = folder.path() / "trip.rgb";
  writeFile(sourceFile, sources);
  ASSERT_EQ(test::runTool(KESTRIUM_FFMPEG,
                          {"-v", "error", "-y", "-f", "rawvideo", "-pix_fmt", "rgb24", "-s", "320x180", "-i",
                           sourceFile.string(), "-vf", "format=yuv420p,format=rgb24", "-f", "rawvideo",
                           tripFile.string()},
                          output),
            0)
      << output;
  ASSERT_EQ(back.size(), sources.size());
  const std::vector<double> ours = channelErrors(back, sources);
  const std::vector<double> theirs = channelErrors(readFile(tripFile), sources);
  for (int c = 0; c < 3; ++c) {
    EXPECT_LT(ours[c], theirs[c] * 1.25 + 1.0) << "channel " << c << ": ffmpeg's own trip is off by " << theirs[c];
  }
}

// ---- kestrium-bench ----

// The one line of figures: "fps=.. mb_per_s=.. bytes_per_frame=..", alone on its line.
bool figures(const std::string& output, double& fps, double& mbps, double& bytes) {
  const size_t at = output.rfind("fps=");
  if (at == std::string::npos || (at != 0 && output[at - 1] != '\n')) return false;
  char end = 0;
  return std::sscanf(output.c_str() + at, "fps=%lf mb_per_s=%lf bytes_per_frame=%lf%c", &fps, &mbps, &bytes, &end) ==
             4 &&
         (end == '\n' || end == '\r');
}

TEST(KestriumBenchTest, PrintsOneLineOfFiguresPerKernel) {
  test::TempFolder folder;
  const auto frames = folder.path() / "frames.rgb";
  std::string output;
  const auto bench = tool(KESTRIUM_BENCH_TOOL);
  ASSERT_EQ(test::runTool(bench, {"pattern", "--out", frames.string(), "--size", "64x48", "--frames", "3"}, output), 0)
      << output;
  ASSERT_EQ(std::filesystem::file_size(frames), 64u * 48 * 3 * 3);
  for (const char* kernel : {"copy", "convert", "tmb2"}) {
    ASSERT_EQ(test::runTool(bench, {kernel, "--input", frames.string(), "--size", "64x48", "--frames", "6"}, output), 0)
        << output;
    double fps = 0, mbps = 0, bytes = 0;
    ASSERT_TRUE(figures(output, fps, mbps, bytes)) << output;
    EXPECT_GT(fps, 0);
    EXPECT_GT(mbps, 0);
    const std::map<std::string, double> sizes = {{"copy", 9216}, {"convert", 4608}};
    if (sizes.contains(kernel)) {
      EXPECT_EQ(bytes, sizes.at(kernel));
    }
  }
  // The tmb2 figure is the size of the frames as the server would code them.
  const std::vector<uint8_t> raw = readFile(frames);
  tmb2::FrameEncoder encoder(64, 48);
  std::vector<uint8_t> out(64 * 48 * 4);
  size_t total = 0;
  for (size_t i = 0; i < 6; ++i) {
    const std::vector<uint8_t> one(raw.begin() + static_cast<ptrdiff_t>((i % 3) * 9216),
                                   raw.begin() + static_cast<ptrdiff_t>((i % 3 + 1) * 9216));
    const std::vector<uint8_t> frame = serverOrder(one, 64, 48);
    total += encoder.encode(frame.data(), out.data(), out.size());
  }
  ASSERT_EQ(test::runTool(bench, {"tmb2", "--input", frames.string(), "--size", "64x48", "--frames", "6"}, output), 0);
  char expected[64];
  std::snprintf(expected, sizeof(expected), "bytes_per_frame=%.0f", static_cast<double>(total) / 6);
  EXPECT_NE(output.find(expected), std::string::npos) << output << " expected " << expected;
  EXPECT_EQ(test::runTool(bench, {"tmb2", "--input", frames.string()}, output), 2) << "no size";
}

// Noise at quality 100 makes JPEGs larger than the frames: the figure is the
// size of those whole JPEGs, as the "mjpeg" encoder delivers them.
TEST(KestriumBenchTest, MjpegFigureIsTheSizeOfWholeFramesEvenWhenLargerThanTheSource) {
#if !KESTRIUM_WITH_MJPEG
  GTEST_SKIP() << "this build has no JPEG engine";
#else
  constexpr uint32_t kWidth = 64, kHeight = 48;
  test::TempFolder folder;
  const auto frames = folder.path() / "noise.rgb";
  std::vector<uint8_t> raw;
  for (uint32_t i = 0; i < 2; ++i) {
    const std::vector<uint8_t> one = test::picture(test::Picture::Noise, kWidth, kHeight, i + 1);
    raw.insert(raw.end(), one.begin(), one.end());
  }
  writeFile(frames, raw);
  std::string output;
  ASSERT_EQ(test::runTool(tool(KESTRIUM_BENCH_TOOL),
                          {"mjpeg", "--input", frames.string(), "--size", "64x48", "--frames", "4", "--quality", "100"},
                          output),
            0)
      << output;

  // Cut at an output of W x H x 3 bytes, every frame would count exactly that.
  double fps = 0, mbps = 0, bytes = 0;
  ASSERT_TRUE(figures(output, fps, mbps, bytes)) << output;
  EXPECT_GT(bytes, kWidth * kHeight * 4.0) << output;
  EXPECT_LT(bytes, kWidth * kHeight * 6.0) << output;
#endif
}

}  // namespace
}  // namespace kestrium
