#include "audio/AudioEncoderAAC.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}

#include "codecs/LibavLog.h"
#include "fileOutput/AacConfig.h"
#include "server/Log.h"

namespace kestrium {

namespace {

WaveFormat aacFormat(int32_t channels, int32_t rate, int32_t bitrate) {
  // WAVEFORMATEX with HEAACWAVEINFO: raw AAC (payload type 1), no profile
  // level given (0xFE), no AudioSpecificConfig after it.
  WaveFormat f = WaveFormat::zeroed(30);
  f.put16(0, aac::kWaveFormatTag);
  f.put16(2, static_cast<uint16_t>(channels));
  f.put32(4, static_cast<uint32_t>(rate));
  f.put32(8, static_cast<uint32_t>(bitrate / 8));
  f.put16(12, 1);
  f.put16(14, 16);
  f.put16(16, 12);
  f.put16(18, 1);
  f.put16(20, 0x00FE);
  return f;
}

}  // namespace

void AudioEncoderAAC::ContextFree::operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
void AudioEncoderAAC::FrameFree::operator()(AVFrame* f) const { av_frame_free(&f); }
void AudioEncoderAAC::PacketFree::operator()(AVPacket* p) const { av_packet_free(&p); }

AudioEncoderAAC::AudioEncoderAAC(int32_t sourceRate, int32_t bitrate, int32_t channels, uint32_t channelMask)
    : AudioEncoder(sourceRate, kHighestRate, bitrate, channels) {
  routeLibavLog();
  if (!open()) {
    context_.reset();
    logLine(u"[Error]   Error initializing AAC %d %d %d %02X\n", sourceRate, bitrate, channels, channelMask);
  }
  finishSetup(kFrameSamples, aacFormat(channels, engineRate_, bitrate));
}

AudioEncoderAAC::~AudioEncoderAAC() = default;

bool AudioEncoderAAC::open() {
  // libavcodec also opens 7350 Hz and others; the stream's rate must be one
  // that a reader of the format record and the ADTS side tracks can name.
  const std::optional<uint8_t> rateIndex = aac::rateIndex(static_cast<uint32_t>(engineRate_));
  if (!rateIndex || channels_ < 1 || channels_ > 8 || bitrate_ <= 0) return false;
  const AVCodec* codec = avcodec_find_encoder_by_name("aac");
  if (codec == nullptr) return false;
  context_.reset(avcodec_alloc_context3(codec));
  frame_.reset(av_frame_alloc());
  packet_.reset(av_packet_alloc());
  if (!context_ || !frame_ || !packet_) return false;
  AVCodecContext& c = *context_;
  c.sample_fmt = AV_SAMPLE_FMT_FLTP;
  c.sample_rate = engineRate_;
  c.bit_rate = bitrate_;
  c.profile = FF_PROFILE_AAC_LOW;
  c.time_base = AVRational{1, engineRate_};
  av_channel_layout_default(&c.ch_layout, channels_);
  if (avcodec_open2(&c, codec, nullptr) < 0 || c.frame_size != kFrameSamples) return false;

  frame_->format = AV_SAMPLE_FMT_FLTP;
  frame_->nb_samples = kFrameSamples;
  frame_->sample_rate = engineRate_;
  if (av_channel_layout_copy(&frame_->ch_layout, &c.ch_layout) < 0 || av_frame_get_buffer(frame_.get(), 0) < 0) {
    return false;
  }
  if (c.extradata != nullptr && c.extradata_size >= 2) {
    configuration_ = static_cast<uint16_t>(c.extradata[0] | (c.extradata[1] << 8));
  }
  // The encoder answers its first frame only after the second: one frame of
  // silence now makes every frame of sound give one packet from the start.
  // The stream thus opens with 1024 samples of silence after the priming.
  const std::vector<int16_t> silence(static_cast<size_t>(kFrameSamples) * static_cast<size_t>(channels_), 0);
  if (!send(silence)) return false;
  return avcodec_receive_packet(&c, packet_.get()) == AVERROR(EAGAIN);
}

bool AudioEncoderAAC::send(std::span<const int16_t> pcm) {
  if (av_frame_make_writable(frame_.get()) < 0) return false;
  const size_t channels = static_cast<size_t>(channels_);
  for (size_t ch = 0; ch < channels; ++ch) {
    auto* plane = reinterpret_cast<float*>(frame_->extended_data[ch]);
    for (size_t i = 0; i < static_cast<size_t>(kFrameSamples); ++i) plane[i] = float(pcm[i * channels + ch]) * (1.0f / 32768.0f);
  }
  frame_->pts = nextPts_;
  nextPts_ += kFrameSamples;
  return avcodec_send_frame(context_.get(), frame_.get()) >= 0;
}

bool AudioEncoderAAC::EncodeFrame(std::span<const int16_t> pcm, std::vector<std::byte>& out) {
  out.clear();
  if (!send(pcm)) return false;
  const int result = avcodec_receive_packet(context_.get(), packet_.get());
  if (result == AVERROR(EAGAIN)) return true;
  if (result < 0) return false;
  const auto* data = reinterpret_cast<const std::byte*>(packet_->data);
  out.assign(data, data + packet_->size);
  av_packet_unref(packet_.get());
  return true;
}

}  // namespace kestrium
