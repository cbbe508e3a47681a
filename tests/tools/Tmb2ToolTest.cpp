// The AVI reader of the tools, the TMB2 recording reader and the kestrium-tmb2
// and kestrium-bench programs.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "codecs/Tmb2FrameEncoder.h"
#include "platform/System.h"
#include "tests/codecs/CodecTestSupport.h"
#include "tests/fileOutput/AviParser.h"
#include "tests/support/TestSupport.h"
#include "tools/AviReader.h"
#include "tools/Tmb2Recording.h"

namespace kestrium {
namespace {

using test::Picture;
using Bytes = std::vector<uint8_t>;

std::filesystem::path tool(const char* name) { return platform::executablePath().parent_path() / name; }

void writeFile(const std::filesystem::path& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}
Bytes readFile(const std::filesystem::path& path) {
  const std::vector<char> bytes = test::readBytes(path);
  return {bytes.begin(), bytes.end()};
}
void put32(Bytes& b, size_t at, uint32_t v) { std::memcpy(&b[at], &v, 4); }
size_t find(const Bytes& b, const char* code, size_t from = 0) {
  for (size_t i = from; i + 4 <= b.size(); ++i) {
    if (std::memcmp(&b[i], code, 4) == 0) return i;
  }
  return b.size();
}

// An AVI writer of the tests' own, for files the product's muxer does not make:
// streams in another order, 'rec ' lists, JUNK between chunks, small 'AVIX'
// segments, and files damaged on purpose.
class TestAvi {
 public:
  struct Options {
    int32_t width = 64;
    uint32_t compression = tmb2::kFourcc;
    bool audioFirst = false;  // the video then is stream 1: chunks "01dc"
    size_t formatSize = 40;   // bytes of the video 'strf'
  };

  explicit TestAvi(Options o) : o_(o) {
    begin("RIFF", "AVI ");
    begin("LIST", "hdrl");
    chunk("avih", Bytes(56));
    if (o.audioFirst) {
      begin("LIST", "strl");
      Bytes strh(56);
      std::memcpy(strh.data(), "auds", 4);
      chunk("strh", strh);
      chunk("strf", Bytes(18, 1));
      end();
    }
    begin("LIST", "strl");
    Bytes strh(56);
    std::memcpy(strh.data(), "vids", 4);
    put32(strh, 20, 1);
    put32(strh, 24, 30);
    lengthAt_ = bytes_.size() + 8 + 32;  // dwLength, patched at the end
    chunk("strh", strh);
    const BitmapInfoHeader bi = makeBitmapHeader(o.width, 48, 16, o.compression, 0);
    Bytes format(reinterpret_cast<const uint8_t*>(&bi), reinterpret_cast<const uint8_t*>(&bi) + sizeof bi);
    format.resize(o.formatSize);
    chunk("strf", format);
    chunk("JUNK", Bytes(24));
    end();
    end();
    chunk("JUNK", Bytes(100));
    begin("LIST", "movi");
  }

  void frame(const Bytes& data, const char* id = nullptr) {
    chunk(id != nullptr ? id : (o_.audioFirst ? "01dc" : "00dc"), data);
    ++frames_;
  }
  void chunk(const char* id, const Bytes& data) {
    bytes_.insert(bytes_.end(), id, id + 4);
    bytes_.resize(bytes_.size() + 4);
    put32(bytes_, bytes_.size() - 4, static_cast<uint32_t>(data.size()));
    bytes_.insert(bytes_.end(), data.begin(), data.end());
    if (data.size() % 2 != 0) bytes_.push_back(0);
  }
  void begin(const char* id, const char* type) {
    bytes_.insert(bytes_.end(), id, id + 4);
    open_.push_back(bytes_.size());
    bytes_.resize(bytes_.size() + 4);
    bytes_.insert(bytes_.end(), type, type + 4);
  }
  void end() {
    put32(bytes_, open_.back(), static_cast<uint32_t>(bytes_.size() - open_.back() - 4));
    open_.pop_back();
  }
  // Closes this segment's movi (the first time with an idx1 after it) and RIFF,
  // and opens an 'AVIX' RIFF with its own movi.
  void newSegment() {
    end();
    if (segments_++ == 0) chunk("idx1", Bytes(16));
    end();
    begin("RIFF", "AVIX");
    begin("LIST", "movi");
  }
  Bytes finish() {
    if (segments_ > 0) chunk("ix00", Bytes(32));
    end();
    if (segments_ == 0) chunk("idx1", Bytes(16));
    end();
    put32(bytes_, lengthAt_, frames_);
    return bytes_;
  }

 private:
  Options o_;
  Bytes bytes_;
  std::vector<size_t> open_;
  size_t lengthAt_ = 0;
  uint32_t frames_ = 0;
  int segments_ = 0;
};

// Rows bottom-up and blue first: what the client hands the "fast" encoder.
Bytes serverOrder(const Bytes& rgb, uint32_t w, uint32_t h) {
  Bytes out(rgb.size());
  for (size_t i = 0; i < rgb.size(); ++i) {
    const size_t y = i / 3 / w, rest = i % (size_t(w) * 3);
    out[(h - 1 - y) * w * 3 + rest] = rgb[i - i % 3 + 2 - i % 3];
  }
  return out;
}

// A recording as the server makes it: frames of the "fast" encoder's frame
// encoder in the product's AVI muxer with an audio stream beside them, a dropped
// (empty) frame, and segments so small that the file goes on in 'AVIX' RIFFs.
struct Recording {
  Bytes avi;
  std::vector<Bytes> sources;  // rgb24, top-down, red first
  std::vector<Bytes> planes;   // per frame in the file, the planes it decodes to
  int segments = 0;
};

Recording record(Picture picture, uint32_t w, uint32_t h, int frames, int64_t segmentLimit, int dropAt) {
  Recording r;
  const test::TempFolder folder("-avi");
  const auto path = folder.path() / "recording.avi";
  auto avi = test::openAvi(path, segmentLimit, w, h, tmb2::kFourcc, 1);
  EXPECT_TRUE(avi != nullptr);
  if (avi == nullptr) return r;
  tmb2::FrameEncoder encoder(w, h);
  Bytes out(size_t(w) * h * 4 + 1024);
  for (int i = 0; i < frames; ++i) {
    if (i == dropAt) {
      avi->videoStream()->write(0, {}, 1, 0);
      r.planes.push_back(r.planes.back());
      continue;
    }
    r.sources.push_back(test::picture(picture, w, h, static_cast<uint32_t>(i * 4)));
    const Bytes frame = serverOrder(r.sources.back(), w, h);
    const size_t size = encoder.encode(frame.data(), out.data(), out.size());
    avi->videoStream()->write(0x10, std::as_bytes(std::span(out.data(), size)), 1, 0);
    avi->audioStream(0)->write(0x10, std::vector<std::byte>(640, std::byte{3}), 160, 1);
    r.planes.emplace_back(encoder.planes(), encoder.planes() + encoder.layout().planesSize);
  }
  EXPECT_EQ(avi->finalize(), 1);
  r.segments = avi->segments();
  avi.reset();
  r.avi = readFile(path);
  return r;
}

std::string openError(const Bytes& file, bool asTmb2) {
  tools::MemorySource source(std::as_bytes(std::span(file)));
  std::string error;
  tools::AviReader reader;
  tools::Tmb2Recording recording;
  const bool ok = asTmb2 ? recording.open(source, error) : reader.open(source, error);
  return ok ? "" : error.empty() ? "an error without a message" : error;
}

// ---- The AVI reader ----

TEST(AviReaderTest, FindsTheVideoChunksAcrossSegmentsInOrder) {
  TestAvi avi({.audioFirst = true});
  std::vector<Bytes> frames;
  for (int i = 0; i < 9; ++i) {
    if (i == 3 || i == 6) avi.newSegment();
    frames.push_back(Bytes(static_cast<size_t>(10 + i), static_cast<uint8_t>(i)));
    if (i == 4) avi.begin("LIST", "rec ");
    avi.frame(frames.back());
    avi.chunk("00wb", Bytes(5, 0x55));
    avi.chunk("JUNK", Bytes(3));
    if (i == 5) avi.end();
    avi.chunk("00dc", {});  // the audio stream's number with "dc": not video
  }
  const Bytes file = avi.finish();
  tools::MemorySource source(std::as_bytes(std::span(file)));
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
    ASSERT_EQ(reader.frames()[i].size, frames[i].size());
    EXPECT_EQ(0, std::memcmp(&file[reader.frames()[i].offset], frames[i].data(), frames[i].size())) << i;
  }
}

struct Damage {
  const char* what;
  void (*apply)(Bytes&);
  const char* message;
  TestAvi::Options options = {};
  bool asTmb2 = false;  // opened as a TMB2 recording, not only as an AVI
};
void PrintTo(const Damage& d, std::ostream* os) { *os << d.what; }

class AviReaderDamageTest : public ::testing::TestWithParam<Damage> {};

TEST_P(AviReaderDamageTest, DamagedOrForeignFileGivesAClearError) {
  TestAvi avi(GetParam().options);
  for (int i = 0; i < 6; ++i) {
    if (i == 3) avi.newSegment();
    avi.frame(Bytes(20, 1));
  }
  Bytes file = avi.finish();
  GetParam().apply(file);
  EXPECT_NE(openError(file, GetParam().asTmb2).find(GetParam().message), std::string::npos)
      << openError(file, GetParam().asTmb2);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, AviReaderDamageTest,
    ::testing::Values(
        Damage{"CutShort", [](Bytes& f) { f.erase(f.end() - 30, f.end()); }, "cut short or was never closed"},
        Damage{"NotRiff", [](Bytes& f) { std::memcpy(f.data(), "RIFX", 4); }, "not an AVI file"},
        Damage{"Wave", [](Bytes& f) { std::memcpy(&f[8], "WAVE", 4); }, "not an AVI file"},
        Damage{"SecondRiffForm", [](Bytes& f) { std::memcpy(&f[find(f, "AVIX")], "AVI ", 4); },
               "expected RIFF 'AVIX'"},
        Damage{"ChunkPastItsList", [](Bytes& f) { put32(f, find(f, "00dc") + 4, 5000); }, "runs past the end"},
        Damage{"NoHeader", [](Bytes& f) { std::memcpy(&f[find(f, "hdrl")], "hdrX", 4); }, "'movi' list"},
        Damage{"NoVideo", [](Bytes& f) { std::memcpy(&f[find(f, "vids")], "txts", 4); }, "no video stream"},
        Damage{"StrayTail", [](Bytes& f) { f.insert(f.end(), 5, uint8_t{0}); }, "stray 5 bytes"},
        Damage{"Empty", [](Bytes& f) { f.clear(); }, "empty"},
        Damage{"FormatShorterThanABitmapHeader", [](Bytes&) {}, "short of a BITMAPINFOHEADER", {.formatSize = 20}},
        Damage{"OtherCodec", [](Bytes&) {}, "'MJPG', not TMB2", {.compression = 0x47504A4Du}, true},
        Damage{"ZeroWidth", [](Bytes&) {}, "outside", {.width = 0}, true},
        Damage{"HugeWidth", [](Bytes&) {}, "outside", {.width = 20000}, true}),
    [](const auto& info) { return std::string(info.param.what); });

// Mutations of a whole recording: the reader and the decoder answer each with
// an error or frames, never a crash (the sanitizer builds watch every access).
TEST(Tmb2RecordingFuzzTest, MutatedRecordingsNeverCrash) {
  const Recording r = record(Picture::Game, 48, 32, 6, 5000, 3);
  ASSERT_GT(r.segments, 1);
  std::mt19937 rng(99);
  size_t opened = 0;
  for (int round = 0; round < 3000; ++round) {
    Bytes f = r.avi;
    for (int e = 0; e < 1 + static_cast<int>(rng() % 3); ++e) {
      const size_t at = rng() % f.size();
      switch (rng() % 4) {
        case 0: f[at] ^= static_cast<uint8_t>(1u << (rng() % 8)); break;
        case 1: f[at] = static_cast<uint8_t>(rng()); break;
        case 2: f.resize(std::max<size_t>(at, 1)); break;
        default:  // sizes are where a reader goes wrong: hit the bytes of one
          if (at + 4 <= f.size()) put32(f, at - at % 4, static_cast<uint32_t>(rng()));
          break;
      }
    }
    tools::MemorySource source(std::as_bytes(std::span(f)));
    tools::Tmb2Recording recording;
    std::string error;
    if (!recording.open(source, error)) {
      ASSERT_FALSE(error.empty());
      continue;
    }
    ++opened;
    Bytes planes;
    bool empty = false;
    for (size_t i = 0; i < recording.frameCount(); ++i) recording.decodeFrame(i, planes, empty, error);
  }
  EXPECT_GT(opened, 0u);
}

// ---- kestrium-tmb2 ----

class Tmb2ToolTest : public ::testing::Test {
 protected:
  int run(const std::vector<std::string>& args) { return test::runTool(tool(KESTRIUM_TMB2_TOOL), args, output); }
  std::filesystem::path file(const char* name, const Bytes& bytes) {
    writeFile(folder.path() / name, bytes);
    return folder.path() / name;
  }
  bool says(const std::string& text) const { return output.find(text) != std::string::npos; }

  test::TempFolder folder;
  std::string output;
};

TEST_F(Tmb2ToolTest, VerifyReportsGoodAndDamagedRecordingsAndDecodeRefusesDamage) {
  const Recording good = record(Picture::Game, 96, 64, 7, 15000, 4);
  ASSERT_GT(good.segments, 2);
  EXPECT_EQ(run({"verify", file("good.avi", good.avi).string()}), 0) << output;
  EXPECT_TRUE(says("TMB2 96x64, 7 frames, " + std::to_string(good.segments) + " RIFF segments, 30000/1000")) << output;
  EXPECT_TRUE(says("1 frames dropped")) << output;
  EXPECT_TRUE(says("OK")) << output;

  Recording r = record(Picture::Gradient, 32, 32, 4, AVIOutputFile::kSegmentLimit, -1);
  put32(r.avi, find(r.avi, "00dc", find(r.avi, "00dc") + 8) + 8 + 12, 7);  // the second frame's Y count
  const auto damaged = file("damaged.avi", r.avi);
  EXPECT_EQ(run({"verify", damaged.string()}), 1) << output;
  EXPECT_TRUE(says("frame 1: Y plane: plane codes 7 residuals")) << output;
  EXPECT_TRUE(says("DAMAGED: 1 of 4")) << output;
  EXPECT_EQ(run({"decode", damaged.string(), "-o", (folder.path() / "out.y4m").string()}), 1) << output;
  EXPECT_TRUE(says("frame 1:")) << output;
}

TEST_F(Tmb2ToolTest, UsageAndUnreadableFiles) {
  EXPECT_EQ(run({}), 2);
  EXPECT_EQ(run({"decode", "x.avi"}), 2) << "no output";
  EXPECT_EQ(run({"verify", "x.avi", "--bogus"}), 2);
  EXPECT_EQ(run({"play", "x.avi"}), 2);
  EXPECT_EQ(run({"verify", (folder.path() / "missing.avi").string()}), 1);
  EXPECT_TRUE(says("cannot open")) << output;
}

// --planes writes the stream's planes untouched: exactly what the encoder
// converted, frame after frame, a dropped frame repeating the one before.
TEST_F(Tmb2ToolTest, DecodePlanesGivesTheEncodersPlanes) {
  for (auto [w, h] : {std::pair{96u, 64u}, std::pair{37u, 21u}}) {
    const Recording r = record(Picture::Noise, w, h, 6, 25000, 2);
    const auto out = folder.path() / "planes.yuv";
    ASSERT_EQ(run({"decode", file("planes.avi", r.avi).string(), "-o", out.string(), "--planes"}), 0) << output;
    Bytes expected;  // each plane's own bytes: W x H, then (W/2) x (H/2) twice
    for (const auto& p : r.planes) {
      for (const tmb2::PlaneLayout& pl : tmb2::frameLayout(w, h).planes) {
        expected.insert(expected.end(), p.begin() + static_cast<ptrdiff_t>(pl.offset),
                        p.begin() + static_cast<ptrdiff_t>(pl.offset + pl.width * pl.height));
      }
    }
    EXPECT_TRUE(readFile(out) == expected) << w << "x" << h;
  }
}

// The y4m is the picture the client sent, upright and in its own colours, as
// ffmpeg, which knows nothing of TMB2, reads it: as close to the source as
// ffmpeg's own round trip of the source through yuv420p, where a flipped
// picture or red and blue swapped would be tens of levels off.
TEST_F(Tmb2ToolTest, DecodedVideoIsUprightInTheRightColoursForFfmpeg) {
  if (std::string(KESTRIUM_FFMPEG).empty()) GTEST_SKIP() << "ffmpeg does not run in this build";
  const Recording r = record(Picture::Game, 320, 180, 3, AVIOutputFile::kSegmentLimit, -1);
  const auto y4m = folder.path() / "game.y4m", rgb = folder.path() / "game.rgb", trip = folder.path() / "trip.rgb";
  ASSERT_EQ(run({"decode", file("game.avi", r.avi).string(), "-o", y4m.string()}), 0) << output;
  ASSERT_EQ(test::runTool(KESTRIUM_FFPROBE,
                          {"-v", "error", "-show_entries", "stream=width,height,pix_fmt,nb_read_frames",
                           "-count_frames", "-of", "compact", y4m.string()},
                          output),
            0);
  EXPECT_TRUE(says("width=320|height=180|pix_fmt=yuv420p")) << output;
  EXPECT_TRUE(says("nb_read_frames=3")) << output;
  ASSERT_EQ(test::runTool(KESTRIUM_FFMPEG, {"-v", "error", "-y", "-i", y4m.string(), "-f", "rawvideo", "-pix_fmt",
                                            "rgb24", rgb.string()},
                          output),
            0)
      << output;
  Bytes sources;
  for (const auto& f : r.sources) sources.insert(sources.end(), f.begin(), f.end());
  ASSERT_EQ(test::runTool(KESTRIUM_FFMPEG,
                          {"-v", "error", "-y", "-f", "rawvideo", "-pix_fmt", "rgb24", "-s", "320x180", "-i",
                           file("source.rgb", sources).string(), "-vf", "format=yuv420p,format=rgb24", "-f",
                           "rawvideo", trip.string()},
                          output),
            0)
      << output;
  // Mean absolute difference per channel from the sources.
  const auto errors = [&](const Bytes& a) {
    std::vector<double> sum(3, 0.0);
    for (size_t i = 0; i < a.size() && i < sources.size(); ++i) sum[i % 3] += std::abs(int(a[i]) - int(sources[i]));
    for (double& s : sum) s /= static_cast<double>(sources.size() / 3);
    return sum;
  };
  const Bytes back = readFile(rgb);
  ASSERT_EQ(back.size(), sources.size());
  const std::vector<double> ours = errors(back), theirs = errors(readFile(trip));
  for (int c = 0; c < 3; ++c) {
    EXPECT_LT(ours[c], theirs[c] * 1.25 + 1.0) << "channel " << c << ": ffmpeg's own trip is off by " << theirs[c];
  }
}

// ---- kestrium-bench ----

// The one line of figures, "fps=.. mb_per_s=.. bytes_per_frame=..", alone on its
// line, with every figure above 0; its bytes_per_frame.
double bytesPerFrame(const std::string& output) {
  const size_t at = output.rfind("fps=");
  double fps = 0, mbps = 0, bytes = -1;
  char end = 0;
  const bool line = at != std::string::npos && (at == 0 || output[at - 1] == '\n') &&
                    std::sscanf(output.c_str() + at, "fps=%lf mb_per_s=%lf bytes_per_frame=%lf%c", &fps, &mbps, &bytes,
                                &end) == 4 &&
                    (end == '\n' || end == '\r');
  EXPECT_TRUE(line && fps > 0 && mbps > 0) << output;
  return bytes;
}

TEST(KestriumBenchTest, PrintsOneLineOfFiguresPerKernel) {
  test::TempFolder folder;
  const auto frames = folder.path() / "frames.rgb";
  const auto bench = tool(KESTRIUM_BENCH_TOOL);
  std::string output;
  ASSERT_EQ(test::runTool(bench, {"pattern", "--out", frames.string(), "--size", "64x48", "--frames", "3"}, output), 0)
      << output;
  ASSERT_EQ(std::filesystem::file_size(frames), 64u * 48 * 3 * 3);
  // The tmb2 figure is the size of the frames as the server would code them.
  const Bytes raw = readFile(frames);
  tmb2::FrameEncoder encoder(64, 48);
  Bytes out(64 * 48 * 4);
  size_t total = 0;
  for (size_t i = 0; i < 6; ++i) {
    const Bytes frame = serverOrder(Bytes(raw.begin() + static_cast<ptrdiff_t>((i % 3) * 9216),
                                          raw.begin() + static_cast<ptrdiff_t>((i % 3 + 1) * 9216)),
                                    64, 48);
    total += encoder.encode(frame.data(), out.data(), out.size());
  }
  for (const auto& [kernel, bytes] : std::initializer_list<std::pair<const char*, double>>{
           {"copy", 9216.0}, {"convert", 4608.0}, {"tmb2", static_cast<double>(total) / 6}}) {
    ASSERT_EQ(test::runTool(bench, {kernel, "--input", frames.string(), "--size", "64x48", "--frames", "6"}, output), 0)
        << output;
    EXPECT_EQ(bytesPerFrame(output), std::nearbyint(bytes)) << kernel;  // printf rounds half to even too
  }
  EXPECT_EQ(test::runTool(bench, {"tmb2", "--input", frames.string()}, output), 2) << "no size";
}

// Noise at quality 100 makes JPEGs larger than the frames: the figure is the
// size of those whole JPEGs, as the "mjpeg" encoder delivers them (cut at an
// output of W x H x 3 bytes, every frame would count exactly that).
TEST(KestriumBenchTest, MjpegFigureIsTheSizeOfWholeFramesEvenWhenLargerThanTheSource) {
#if !KESTRIUM_WITH_MJPEG
  GTEST_SKIP() << "this build has no JPEG engine";
#else
  test::TempFolder folder;
  Bytes raw = test::picture(Picture::Noise, 64, 48, 1);
  const Bytes second = test::picture(Picture::Noise, 64, 48, 2);
  raw.insert(raw.end(), second.begin(), second.end());
  writeFile(folder.path() / "noise.rgb", raw);
  std::string output;
  ASSERT_EQ(test::runTool(tool(KESTRIUM_BENCH_TOOL),
                          {"mjpeg", "--input", (folder.path() / "noise.rgb").string(), "--size", "64x48", "--frames",
                           "4", "--quality", "100"},
                          output),
            0)
      << output;
  const double bytes = bytesPerFrame(output);
  EXPECT_GT(bytes, 64 * 48 * 4.0) << output;
  EXPECT_LT(bytes, 64 * 48 * 6.0) << output;
#endif
}

}  // namespace
}  // namespace kestrium
