// kestrium-bench: runs one kernel of the product on raw frames in a loop and
// prints one line "fps=.. mb_per_s=.. bytes_per_frame=..", so that it can be set
// against a peer measured in the same run.
//
//   kestrium-bench KERNEL --input FILE --size WxH [--frames N] [--threads N]
//                  [--cpu c|sse2|ssse3|avx2] [--pix-fmt rgb24|yuv420p] [--as-is]
//   kestrium-bench pattern --out FILE --size WxH --frames N
//   kestrium-bench aac|mp3 --input FILE [--rate HZ] [--channels N] [--bitrate KBPS] [--loops N]
//
// Kernels: convert (RGB to YUV 4:2:0), tmb2 (the whole job of the "fast"
// encoder: conversion and coding; with --pix-fmt yuv420p the coder alone, on
// planes), mjpeg (one baseline JPEG a frame, as the "mjpeg" encoder makes them;
// --quality 1..100, --subsample 444|420), copy (a plain memcpy of each frame:
// the memory-speed yardstick), x264 (the whole job of "h264.x264" on one stream:
// conversion to NV12, coding, length prefixes; --threads are libx264's, and
// --profile, --bitrate, --target-usage, --low-latency, --fps are the capture's
// options; the frames are taken as they are, top-down and red first), vfw (the
// whole job of "vfw" with the installed codec of --fourcc, on the recorder's
// thread: row re-spacing, the codec's pixel conversion and coding).
// Input frames are rgb24, rows top-down, red first, as ffmpeg writes them; they
// are put into the order the server receives them in (rows bottom-up, blue
// first; for mjpeg top-down, blue first) before timing starts, unless --as-is. Frames are taken in turn, so a
// file larger than the caches makes every frame come from memory. mb_per_s
// counts input bytes. `pattern` writes the game-like frames the benchmarks use.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "codecs/AlignedBuffer.h"
#include "codecs/ColorConvert.h"
#include "codecs/CpuFeatures.h"
#include "codecs/Tmb2FrameEncoder.h"
#include "recorder/CaptureObjects.h"
#if KESTRIUM_WITH_MJPEG
#include "codecs/jpeg/JPEGEncoder.h"
#endif
#include "tools/GameFrames.h"
#include "videoEncoder/OptionList.h"
#if KESTRIUM_WITH_X264
#include "tools/X264Bench.h"
#endif
#if KESTRIUM_WITH_AUDIO_ENCODERS
#include "tools/AudioBench.h"
#endif
#if KESTRIUM_WITH_VFW
#include "tools/VfwBench.h"
#endif

using namespace kestrium;

namespace {

int usage() {
  std::cerr << "usage: kestrium-bench convert|tmb2|mjpeg|copy|x264|vfw --input FILE --size WxH [--frames N] [--threads N]\n"
               "                      [--cpu c|sse2|ssse3|avx2] [--pix-fmt rgb24|yuv420p] [--as-is]\n"
               "                      [--quality 1..100] [--subsample 444|420]   (mjpeg)\n"
               "                      [--profile N] [--bitrate KBPS] [--target-usage N] [--low-latency N] [--fps F]"
               "   (x264)\n"
               "                      [--fourcc CODE]   (vfw)\n"
               "       kestrium-bench pattern --out FILE --size WxH --frames N\n"
               "       kestrium-bench aac|mp3 --input FILE [--rate HZ] [--channels N] [--bitrate KBPS] [--loops N]\n";
  return 2;
}

struct Options {
  std::string kernel, input, out, pixFmt = "rgb24";
  uint32_t width = 0, height = 0;
  size_t frames = 0;
  int threads = 1;
  bool asIs = false;
  bool cpuSet = false;
  uint32_t cpuMask = ~0u;
  int quality = 85;
  bool subsample = false;  // 4:2:0 instead of 4:4:4
  OptionList h264;         // the capture's options for x264
  uint32_t fourcc = 0;     // the codec of vfw
};

bool parseSize(const std::string& s, uint32_t& w, uint32_t& h) {
  unsigned a = 0, b = 0;
  char x = 0;
  if (std::sscanf(s.c_str(), "%u%c%u", &a, &x, &b) != 3 || x != 'x' || a == 0 || b == 0 || a > 16384 || b > 16384) {
    return false;
  }
  w = a;
  h = b;
  return true;
}

// One worker's state, made before the clock starts.
struct Worker {
  std::unique_ptr<tmb2::FrameEncoder> encoder;
#if KESTRIUM_WITH_MJPEG
  std::unique_ptr<CJPEGEncoder> jpeg;
  CJPGOutput jpegOut;
  JpegSource jpegSource;
#endif
  AlignedBuffer out;
  uint64_t outBytes = 0;
  uint64_t failed = 0;  // frames that did not fit out: no bytes of theirs are counted
};

// Blue first, rows as they are: the frame as the client hands it to "mjpeg".
void swapRedAndBlue(uint8_t* frame, uint32_t width, uint32_t height) {
  for (size_t i = 0; i < size_t{width} * height * 3; i += 3) std::swap(frame[i], frame[i + 2]);
}

int writePattern(const Options& o) {
  std::ofstream out(o.out, std::ios::binary | std::ios::trunc);
  if (!out) {
    std::cerr << o.out << ": cannot create the file\n";
    return 1;
  }
  std::vector<uint8_t> frame(size_t{o.width} * o.height * 3);
  for (size_t i = 0; i < o.frames; ++i) {
    // Four game frames apart, as a game at 240 frames/s recorded at 60 would be.
    tools::renderGameFrame(o.width, o.height, static_cast<uint32_t>(i * 4), frame.data());
    out.write(reinterpret_cast<const char*>(frame.data()), static_cast<std::streamsize>(frame.size()));
  }
  return out ? 0 : 1;
}

// Rows bottom-up and blue first: the frame as the client hands it to "fast".
void toServerOrder(uint8_t* frame, uint32_t width, uint32_t height) {
  const size_t row = size_t{width} * 3;
  std::vector<uint8_t> tmp(row);
  for (uint32_t y = 0; y < height / 2; ++y) {
    uint8_t* a = frame + y * row;
    uint8_t* b = frame + (height - 1 - y) * row;
    std::memcpy(tmp.data(), a, row);
    std::memcpy(a, b, row);
    std::memcpy(b, tmp.data(), row);
  }
  for (size_t i = 0; i < row * height; i += 3) std::swap(frame[i], frame[i + 2]);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return usage();
  if (args[0] == "aac" || args[0] == "mp3") {
#if KESTRIUM_WITH_AUDIO_ENCODERS
    return tools::audioBenchMain(args);
#else
    std::cerr << "this build has no audio encoders\n";
    return 1;
#endif
  }
  Options o;
  o.kernel = args[0];
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool hasValue = i + 1 < args.size();
    if (a == "--input" && hasValue) {
      o.input = args[++i];
    } else if (a == "--out" && hasValue) {
      o.out = args[++i];
    } else if (a == "--size" && hasValue) {
      if (!parseSize(args[++i], o.width, o.height)) return usage();
    } else if (a == "--frames" && hasValue) {
      o.frames = std::strtoull(args[++i].c_str(), nullptr, 10);
    } else if (a == "--threads" && hasValue) {
      o.threads = std::max(1, std::atoi(args[++i].c_str()));
    } else if (a == "--cpu" && hasValue) {
      if (!cpuMaskForTier(args[++i].c_str(), o.cpuMask)) return usage();
      o.cpuSet = true;
    } else if (a == "--pix-fmt" && hasValue) {
      o.pixFmt = args[++i];
      if (o.pixFmt != "rgb24" && o.pixFmt != "yuv420p") return usage();
    } else if (a == "--as-is") {
      o.asIs = true;
    } else if (a == "--quality" && hasValue) {
      o.quality = std::atoi(args[++i].c_str());
      if (o.quality < 1 || o.quality > 100) return usage();
    } else if ((a == "--profile" || a == "--bitrate" || a == "--target-usage" || a == "--low-latency") && hasValue) {
      std::string key = a.substr(2);
      std::replace(key.begin(), key.end(), '-', '_');
      o.h264.insert(o.h264.end(), {key, args[++i]});
    } else if (a == "--fps" && hasValue) {
      o.h264.insert(o.h264.end(), {"fps", std::to_string(std::llround(std::strtod(args[++i].c_str(), nullptr) * 1000))});
    } else if (a == "--fourcc" && hasValue) {
      const std::string v = args[++i];
      if (v.size() != 4) return usage();
      for (size_t c = 0; c < 4; ++c) o.fourcc |= static_cast<uint32_t>(static_cast<uint8_t>(v[c])) << (8 * c);
    } else if (a == "--subsample" && hasValue) {
      const std::string v = args[++i];
      if (v != "444" && v != "420") return usage();
      o.subsample = v == "420";
    } else {
      std::cerr << "unknown option " << a << "\n";
      return usage();
    }
  }
  if (o.width == 0) return usage();
  if (o.kernel == "pattern") {
    if (o.out.empty() || o.frames == 0) return usage();
    return writePattern(o);
  }
  if (o.input.empty() || (o.kernel != "convert" && o.kernel != "tmb2" && o.kernel != "mjpeg" && o.kernel != "copy" &&
                          o.kernel != "x264" && o.kernel != "vfw")) {
    return usage();
  }
#if !KESTRIUM_WITH_X264
  if (o.kernel == "x264") {
    std::cerr << "this build has no libx264\n";
    return 1;
  }
#endif
#if !KESTRIUM_WITH_VFW
  if (o.kernel == "vfw") {
    std::cerr << "this build has no vfw encoder on libavcodec\n";
    return 1;
  }
#endif
#if !KESTRIUM_WITH_MJPEG
  if (o.kernel == "mjpeg") {
    std::cerr << "this build has no JPEG engine\n";
    return 1;
  }
#endif
  const bool planar = o.pixFmt == "yuv420p";
  if (planar && (o.kernel != "tmb2" || o.width % 2 != 0 || o.height % 2 != 0)) {
    std::cerr << "--pix-fmt yuv420p is for the tmb2 kernel and an even size\n";
    return 2;
  }
  setCpuFlagsMask(o.cpuMask);

  const size_t pixels = size_t{o.width} * o.height;
  const size_t frameBytes = planar ? pixels * 3 / 2 : pixels * 3;
  std::ifstream in(o.input, std::ios::binary | std::ios::ate);
  if (!in) {
    std::cerr << o.input << ": cannot open the file\n";
    return 1;
  }
  const auto fileBytes = static_cast<size_t>(in.tellg());
  const size_t inputFrames = fileBytes / frameBytes;
  if (inputFrames == 0) {
    std::cerr << o.input << ": holds no whole frame of " << frameBytes << " bytes\n";
    return 1;
  }
  AlignedBuffer input(inputFrames * frameBytes);
  in.seekg(0);
  in.read(reinterpret_cast<char*>(input.data()), static_cast<std::streamsize>(input.size()));
  if (!in) {
    std::cerr << o.input << ": cannot read the file\n";
    return 1;
  }
  auto* frames = reinterpret_cast<uint8_t*>(input.data());
  const size_t total = o.frames != 0 ? o.frames : inputFrames;
#if KESTRIUM_WITH_X264
  if (o.kernel == "x264") {
    OptionList options = {"width", std::to_string(o.width), "height", std::to_string(o.height), "threads",
                          std::to_string(o.threads)};
    options.insert(options.end(), o.h264.begin(), o.h264.end());
    const tools::X264BenchResult r =
        tools::runX264(options, reinterpret_cast<const uint8_t*>(input.data()), inputFrames, total);
    if (!r.ok) {
      std::cerr << "kestrium-bench: the encoder failed; its log lines say why\n";
      return 1;
    }
    const double fps = static_cast<double>(total) / r.seconds;
    std::fprintf(stderr, "kestrium-bench: x264, %zu frames of %ux%u, %d thread%s, kernels %s\n", total, o.width,
                 o.height, o.threads, o.threads == 1 ? "" : "s", cpuTierName(processCpuFlags()));
    std::printf("fps=%.2f mb_per_s=%.1f bytes_per_frame=%.0f\n", fps, fps * static_cast<double>(frameBytes) / 1e6,
                static_cast<double>(r.bytes) / static_cast<double>(r.frames));
    return 0;
  }
#endif
  if (!planar && !o.asIs) {
    for (size_t f = 0; f < inputFrames; ++f) {
      if (o.kernel == "mjpeg") {
        swapRedAndBlue(frames + f * frameBytes, o.width, o.height);
      } else {
        toServerOrder(frames + f * frameBytes, o.width, o.height);
      }
    }
  }

#if KESTRIUM_WITH_VFW
  if (o.kernel == "vfw") {
    const tools::VfwBenchResult r = tools::runVfw(o.fourcc, o.width, o.height, frames, inputFrames, total);
    if (!r.ok) {
      std::cerr << "kestrium-bench: the codec did not open or failed\n";
      return 1;
    }
    const double fps = static_cast<double>(total) / r.seconds;
    std::printf("fps=%.2f mb_per_s=%.1f bytes_per_frame=%.0f\n", fps, fps * static_cast<double>(frameBytes) / 1e6,
                r.frames != 0 ? static_cast<double>(r.bytes) / static_cast<double>(r.frames) : 0.0);
    return 0;
  }
#endif
  std::vector<Worker> workers(static_cast<size_t>(o.threads));
  for (Worker& w : workers) {
    if (o.kernel == "tmb2") {
      w.encoder = std::make_unique<tmb2::FrameEncoder>(o.width, o.height, processCpuFlags());
      // The "fast" encoder's output: what does not fit there is no frame.
      w.out = AlignedBuffer(static_cast<size_t>(encoderBufferSize(o.width, o.height)));
      if (!w.encoder->valid()) return 1;
#if KESTRIUM_WITH_MJPEG
    } else if (o.kernel == "mjpeg") {
      // Prepared once, as each worker of the encoder is, with an output as large
      // as the encoder's.
      const int sampling = o.subsample ? CJPEGEncoder::kSampling2x2 : CJPEGEncoder::kSampling444;
      w.out = AlignedBuffer(static_cast<size_t>(
          std::max(CJPEGEncoder::MaxOutputSize(static_cast<int>(o.width), static_cast<int>(o.height), sampling),
                   encoderBufferSize(o.width, o.height))));
      w.jpeg = std::make_unique<CJPEGEncoder>();
      w.jpegSource.data = input.data();
      w.jpegSource.width = static_cast<int>(o.width);
      w.jpegSource.height = static_cast<int>(o.height);
      w.jpegSource.lineStep = static_cast<int>(o.width * 3);
      w.jpeg->SetSource(w.jpegSource, 1);
      w.jpeg->SetParameters(sampling, o.quality);
      if (w.jpeg->Prepare(&w.jpegOut) != CJPEGEncoder::kOk) return 1;
#endif
    } else {
      w.out = AlignedBuffer(frameBytes + 64);
    }
    if (w.out.empty()) return 1;
  }
  const ColorConvertKernels& convert = processColorConvertKernels();
  const auto runFrame = [&](Worker& w, size_t index) {
    const uint8_t* frame = frames + (index % inputFrames) * frameBytes;
    auto* out = reinterpret_cast<uint8_t*>(w.out.data());
    if (o.kernel == "copy") {
      std::memcpy(out, frame, frameBytes);
      w.outBytes += frameBytes;
    } else if (o.kernel == "convert") {
      uint8_t* const planes[3] = {out, out + pixels, out + pixels + pixels / 4};
      const ptrdiff_t steps[3] = {static_cast<ptrdiff_t>(o.width), static_cast<ptrdiff_t>(o.width / 2),
                                  static_cast<ptrdiff_t>(o.width / 2)};
      rgbToYuv420Stepped(convert, frame, 3 * static_cast<ptrdiff_t>(o.width), planes, steps,
                         static_cast<int32_t>(o.width), static_cast<int32_t>(o.height));
      w.outBytes += pixels + pixels / 2;
#if KESTRIUM_WITH_MJPEG
    } else if (o.kernel == "mjpeg") {
      w.jpegSource.data = reinterpret_cast<const std::byte*>(frame);
      w.jpeg->SetSource(w.jpegSource, 1);
      w.jpegOut.attach(w.out.span());
      int result = w.jpeg->WriteHeader();
      if (result == CJPEGEncoder::kOk) result = w.jpeg->WriteData();
      // A frame that failed would be dropped by the encoder: what it wrote
      // before it stopped is no frame.
      if (result == CJPEGEncoder::kOk) {
        w.outBytes += w.jpegOut.count();
      } else {
        ++w.failed;
      }
#endif
    } else {
      const size_t size =
          planar ? w.encoder->encodePlanes(frame, out, w.out.size()) : w.encoder->encode(frame, out, w.out.size());
      w.outBytes += size;
      w.failed += size == 0;
    }
  };

  // One untimed frame per worker, then all start together.
  for (size_t t = 0; t < workers.size(); ++t) {
    runFrame(workers[t], t);
    workers[t].outBytes = 0;
    workers[t].failed = 0;
  }
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (size_t t = 1; t < workers.size(); ++t) {
    threads.emplace_back([&, t] {
      ready.fetch_add(1);
      while (!go.load()) std::this_thread::yield();
      for (size_t i = t; i < total; i += workers.size()) runFrame(workers[t], i);
    });
  }
  while (ready.load() != static_cast<int>(threads.size())) std::this_thread::yield();
  const auto start = std::chrono::steady_clock::now();
  go.store(true);
  for (size_t i = 0; i < total; i += workers.size()) runFrame(workers[0], i);
  for (std::thread& th : threads) th.join();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  uint64_t outBytes = 0, failed = 0;
  for (const Worker& w : workers) {
    outBytes += w.outBytes;
    failed += w.failed;
  }
  const double fps = static_cast<double>(total) / seconds;
  std::fprintf(stderr, "kestrium-bench: %s, %zu frames of %ux%u, %d thread%s, kernels %s\n", o.kernel.c_str(), total,
               o.width, o.height, o.threads, o.threads == 1 ? "" : "s", cpuTierName(processCpuFlags()));
  if (failed != 0) {
    std::fprintf(stderr, "kestrium-bench: %llu frames did not fit the output buffer; bytes_per_frame leaves them out\n",
                 static_cast<unsigned long long>(failed));
  }
  // The size of the frames that were made; a failed frame has none.
  const uint64_t made = total - failed;
  std::printf("fps=%.2f mb_per_s=%.1f bytes_per_frame=%.0f\n", fps, fps * static_cast<double>(frameBytes) / 1e6,
              made != 0 ? static_cast<double>(outBytes) / static_cast<double>(made) : 0.0);
  return 0;
}
