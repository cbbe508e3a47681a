#pragma once

// The sound of a recording as ffmpeg decodes it, and the level of a tone in it:
// what the recordings with sound from a real sound server are checked by.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <filesystem>
#include <numbers>
#include <string>
#include <vector>

#include "tests/e2e/E2ESupport.h"

namespace kestrium::test {

// One audio stream of a file as ffmpeg decodes it: 16-bit frames, interleaved.
struct Track {
  uint32_t rate = 0;
  uint32_t channels = 0;
  std::vector<int16_t> samples;

  double seconds() const { return channels == 0 ? 0.0 : double(samples.size()) / channels / rate; }
  // The level of a sine of that frequency in one channel, in dB of full scale
  // (a full-scale sine is 0 dB): the median over blocks of 100 ms, so that a
  // player that stumbled for a moment under load does not count.
  double toneDb(uint32_t channel, double hertz) const {
    const size_t frames = samples.size() / channels;
    const size_t block = rate / 10;
    const double step = 2.0 * std::numbers::pi * hertz / rate;
    std::vector<double> levels;
    for (size_t start = 0; start + block <= frames; start += block) {
      std::complex<double> sum;
      for (size_t i = start; i < start + block; ++i) {
        sum += double(samples[i * channels + channel]) / 32767.0 * std::polar(1.0, -step * double(i));
      }
      levels.push_back(20.0 * std::log10(std::max(2.0 * std::abs(sum) / double(block), 1e-10)));
    }
    if (levels.empty()) return -200.0;
    std::nth_element(levels.begin(), levels.begin() + levels.size() / 2, levels.end());
    return levels[levels.size() / 2];
  }
  int16_t peak() const {
    int16_t most = 0;
    for (int16_t s : samples) most = std::max<int16_t>(most, static_cast<int16_t>(std::abs(int{s})));
    return most;
  }
};

// A sine at half scale: -6 dB.
constexpr double kPlayedDb = -6.02;

// Stream `stream` of the file's audio, decoded by ffmpeg through the raw file.
inline Track decodeTrack(const std::filesystem::path& file, int stream, const std::filesystem::path& raw) {
  Track t;
  const std::string info = ffprobe(file, {"-select_streams", "a:" + std::to_string(stream), "-show_entries",
                                          "stream=sample_rate,channels", "-of", "default=nw=1"});
  t.rate = static_cast<uint32_t>(wholeNumber(field(info, "sample_rate")));
  t.channels = static_cast<uint32_t>(wholeNumber(field(info, "channels")));
  std::string out;
  EXPECT_EQ(runTool(KESTRIUM_FFMPEG, {"-v", "error", "-y", "-i", file.string(), "-map", "0:a:" + std::to_string(stream),
                                      "-f", "s16le", "-acodec", "pcm_s16le", raw.string()},
                    out),
            0)
      << out;
  const std::vector<char> bytes = readBytes(raw);
  t.samples.resize(bytes.size() / 2);
  std::memcpy(t.samples.data(), bytes.data(), t.samples.size() * 2);
  return t;
}

}  // namespace kestrium::test
