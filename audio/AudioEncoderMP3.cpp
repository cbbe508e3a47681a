#include "audio/AudioEncoderMP3.h"

#include <lame/lame.h>

#include <cstdio>

#include "server/Log.h"

namespace kestrium {

namespace {

constexpr uint16_t kWaveFormatMp3 = 0x0055;

// LAME's warnings and errors go to the server's log, not to stderr.
void logFromLame(const char* format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  std::string_view line(text);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (!line.empty()) logLine(u"[Warning] *** MP3 *** %S\n", line);
}

// MPEGLAYER3WAVEFORMAT. It names the source's rate even when the stream was
// made at a lower one; readers take the rate from the frames themselves.
WaveFormat mp3Format(int32_t channels, int32_t sourceRate, int32_t bitrate, int32_t frameSamples) {
  WaveFormat f = WaveFormat::zeroed(30);
  f.put16(0, kWaveFormatMp3);
  f.put16(2, static_cast<uint16_t>(channels));
  f.put32(4, static_cast<uint32_t>(sourceRate));
  f.put32(8, static_cast<uint32_t>(bitrate / 8));
  f.put16(12, static_cast<uint16_t>(frameSamples));
  f.put16(16, 12);
  f.put16(18, 1);  // MPEGLAYER3_ID_MPEG
  f.put32(20, 2);  // MPEGLAYER3_FLAG_PADDING_OFF
  f.put16(24, static_cast<uint16_t>(frameSamples));
  f.put16(26, 1);
  return f;
}

// The length of the MPEG audio layer III frame whose header starts data, or 0
// where no whole header of one stands.
size_t frameLength(std::span<const std::byte> data) {
  static constexpr uint16_t kMpeg1Kbps[16] = {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0};
  static constexpr uint16_t kMpeg2Kbps[16] = {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0};
  static constexpr uint32_t kRates[4][3] = {{11025, 12000, 8000}, {0, 0, 0}, {22050, 24000, 16000}, {44100, 48000, 32000}};
  if (data.size() < 4) return 0;
  const auto b1 = std::to_integer<uint32_t>(data[1]), b2 = std::to_integer<uint32_t>(data[2]);
  if (std::to_integer<uint32_t>(data[0]) != 0xFF || (b1 & 0xE0) != 0xE0 || ((b1 >> 1) & 3) != 1) return 0;
  const uint32_t version = (b1 >> 3) & 3, rateIndex = (b2 >> 2) & 3;
  if (version == 1 || rateIndex == 3) return 0;
  const uint32_t kbps = version == 3 ? kMpeg1Kbps[b2 >> 4] : kMpeg2Kbps[b2 >> 4];
  if (kbps == 0) return 0;
  const uint32_t perFrame = version == 3 ? 144000 : 72000;
  return perFrame * kbps / kRates[version][rateIndex] + ((b2 >> 1) & 1);
}

}  // namespace

void AudioEncoderMP3::LameClose::operator()(lame_global_struct* flags) const { lame_close(flags); }

AudioEncoderMP3::AudioEncoderMP3(int32_t sourceRate, int32_t bitrate, int32_t channels, uint32_t channelMask)
    : AudioEncoder(sourceRate, kHighestRate, bitrate, channels) {
  if (!open()) {
    lame_.reset();
    logLine(u"[Error]   Error initializing MP3 %d %d %d %02X\n", sourceRate, bitrate, channels, channelMask);
  }
  const int32_t frameSamples = lame_ ? lame_get_framesize(lame_.get()) : 0;
  finishSetup(frameSamples, mp3Format(channels, sourceRate, bitrate, frameSamples));
  left_.resize(static_cast<size_t>(frameSamples));
  right_.resize(static_cast<size_t>(frameSamples));
}

AudioEncoderMP3::~AudioEncoderMP3() = default;

bool AudioEncoderMP3::open() {
  if (channels_ < 1 || engineRate_ <= 0 || bitrate_ < 1000) return false;
  lame_.reset(lame_init());
  if (!lame_) return false;
  lame_global_flags* l = lame_.get();
  lame_set_errorf(l, logFromLame);
  lame_set_debugf(l, nullptr);
  lame_set_msgf(l, nullptr);
  lame_set_in_samplerate(l, engineRate_);
  lame_set_out_samplerate(l, engineRate_);
  // Two channels at most: of a wider source the first two are kept.
  lame_set_num_channels(l, channels_ == 1 ? 1 : 2);
  // Joint stereo: game sound is mostly alike on both sides, and LAME codes it
  // about half again as fast as two separate channels, with fewer bits.
  lame_set_mode(l, channels_ == 1 ? MONO : JOINT_STEREO);
  lame_set_brate(l, bitrate_ / 1000);
  lame_set_bWriteVbrTag(l, 0);
  return lame_init_params(l) >= 0 && lame_get_framesize(l) > 0;
}

bool AudioEncoderMP3::EncodeFrame(std::span<const int16_t> frame, std::vector<std::byte>& out) {
  const size_t channels = static_cast<size_t>(channels_);
  const size_t samples = left_.size();
  for (size_t i = 0; i < samples; ++i) {
    left_[i] = frame[i * channels];
    right_[i] = frame[i * channels + (channels > 1 ? 1 : 0)];
  }
  // LAME's own bound for one call: 1.25 × samples + 7200 bytes.
  out.resize(samples * 5 / 4 + 7200);
  const int made = lame_encode_buffer(lame_.get(), left_.data(), channels > 1 ? right_.data() : nullptr,
                                      static_cast<int>(samples), reinterpret_cast<unsigned char*>(out.data()),
                                      static_cast<int>(out.size()));
  if (made < 0) {
    out.clear();
    return false;
  }
  pending_.insert(pending_.end(), out.begin(), out.begin() + made);
  if (!NextPacket(out)) out.clear();
  return true;
}

bool AudioEncoderMP3::NextPacket(std::vector<std::byte>& out) {
  // LAME starts each of its outputs on a frame header; a byte that is none
  // would only come of a fault, and is passed over to the next header.
  size_t skip = 0;
  while (skip + 4 <= pending_.size() && frameLength(std::span(pending_).subspan(skip)) == 0) ++skip;
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(skip));
  const size_t length = frameLength(pending_);
  if (length == 0 || pending_.size() < length) return false;
  out.assign(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(length));
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(length));
  return true;
}

}  // namespace kestrium
