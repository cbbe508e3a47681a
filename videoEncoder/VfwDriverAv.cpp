// The installed codecs of a system without a Video Compression Manager: the
// encoders of libavcodec, found by the four-character code that AVI files name
// them with, behind the same five driver operations.

#include "videoEncoder/VfwDriver.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "codecs/LibavLog.h"
#include "server/Log.h"

namespace kestrium {

namespace {

std::string errorText(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(error, text, sizeof text);
  return text;
}

// The pixel format the codec gets: the one its list loses least in from 8-bit
// BGR (FFV1 takes BGR0 and stays lossless, MJPEG takes full-range 4:4:4).
// H.264 and HEVC are the exception: at 4:4:4 they need a profile that few
// players decode, so they get 4:2:0 when they take it.
AVPixelFormat pixelFormatFor(const AVCodec& codec) {
  if (codec.pix_fmts == nullptr) return AV_PIX_FMT_BGR24;
  if (codec.id == AV_CODEC_ID_H264 || codec.id == AV_CODEC_ID_HEVC) {
    for (const AVPixelFormat* f = codec.pix_fmts; *f != AV_PIX_FMT_NONE; ++f) {
      if (*f == AV_PIX_FMT_YUV420P) return *f;
    }
  }
  return avcodec_find_best_pix_fmt_of_list(codec.pix_fmts, AV_PIX_FMT_BGR24, 0, nullptr);
}

struct ScalerFormat {
  AVPixelFormat planes;
  bool fullRange;
};
ScalerFormat scalerFormat(AVPixelFormat format) {
  switch (format) {
    case AV_PIX_FMT_YUVJ420P: return {AV_PIX_FMT_YUV420P, true};
    case AV_PIX_FMT_YUVJ422P: return {AV_PIX_FMT_YUV422P, true};
    case AV_PIX_FMT_YUVJ444P: return {AV_PIX_FMT_YUV444P, true};
    case AV_PIX_FMT_YUVJ440P: return {AV_PIX_FMT_YUV440P, true};
    case AV_PIX_FMT_YUVJ411P: return {AV_PIX_FMT_YUV411P, true};
    default: return {format, false};
  }
}

// An input the encoder of "vfw" hands over: a bottom-up 24-bit bitmap.
bool isBitmap24(const BitmapInfoHeader& input) {
  return input.biSize >= sizeof(BitmapInfoHeader) && input.biWidth > 0 && input.biHeight > 0 &&
         input.biBitCount == 24 && input.biCompression == 0;
}

uint32_t bitmapStride(int32_t width) { return (static_cast<uint32_t>(width) * 3 + 3) & ~3u; }

class VfwDriverAv final : public VfwDriver {
 public:
  VfwDriverAv(uint32_t fourcc, const AVCodec& codec) : fourcc_(fourcc), codec_(codec) {}
  ~VfwDriverAv() override { release(); }

  int64_t FormatSize(const BitmapInfoHeader& input) override {
    return isBitmap24(input) ? static_cast<int64_t>(sizeof(BitmapInfoHeader)) : kBadFormat;
  }

  std::span<std::byte> AllocateFormat(size_t bytes) override {
    format_.assign(bytes, std::byte{0});
    return format_;
  }

  int64_t GetFormat(const BitmapInfoHeader& input, std::span<std::byte> format) override {
    if (!isBitmap24(input) || format.size() < sizeof(BitmapInfoHeader)) return kBadFormat;
    // The codec's headers travel inside its key frames: the stream format is
    // the bitmap header alone, which is all an AVI stream's format keeps here.
    const BitmapInfoHeader out = makeBitmapHeader(
        input.biWidth, input.biHeight, 24, fourcc_,
        static_cast<uint32_t>(uint64_t{static_cast<uint32_t>(input.biWidth)} * input.biHeight * 3));
    std::memcpy(format.data(), &out, sizeof out);
    return kOk;
  }

  int64_t Begin(const BitmapInfoHeader& input, std::span<const std::byte> /*format*/) override {
    release();
    if (!isBitmap24(input)) return kBadFormat;
    width_ = input.biWidth;
    height_ = input.biHeight;
    context_ = avcodec_alloc_context3(&codec_);
    frame_ = av_frame_alloc();
    packet_ = av_packet_alloc();
    if (context_ == nullptr || frame_ == nullptr || packet_ == nullptr) return kError;

    context_->width = width_;
    context_->height = height_;
    context_->pix_fmt = pixelFormatFor(codec_);
    // The driver is not told the frame rate; the stamps are frame numbers.
    context_->time_base = AVRational{1, 30};
    context_->framerate = AVRational{30, 1};
    // The recorder takes every frame of this encoder for a key frame (cuts,
    // seeks and the pre-recording trim start anywhere), and a compress call
    // must give its frame back at once: every frame stands alone, nothing is
    // held back for reordering or look-ahead, and no frame threads.
    context_->gop_size = 1;
    context_->max_b_frames = 0;
    context_->thread_count = 1;
    // Above 720x576 FFV1 picks a version whose decoder needs headers from the
    // stream format; version 1 keeps them in every key frame.
    if (codec_.id == AV_CODEC_ID_FFV1) context_->level = 1;
    // Quality rather than the library's default 200 kbit/s for the codecs that
    // take a fixed quantiser. Those with a constant-quality factor of their own
    // (x264, x265) keep their default one, and tuned for latency they give each
    // frame back from the call that took it.
    if (codec_.priv_class != nullptr && av_opt_find(context_->priv_data, "crf", nullptr, 0, 0) != nullptr) {
      av_opt_set(context_->priv_data, "tune", "zerolatency", 0);
    } else {
      context_->flags |= AV_CODEC_FLAG_QSCALE;
      context_->global_quality = FF_QP2LAMBDA * 3;
    }
    const int opened = avcodec_open2(context_, &codec_, nullptr);
    if (opened < 0) {
      logLine(u"[Error]   *** VFW *** Codec %S (%S) cannot compress %dx%d: %S\n", fourccText(fourcc_), codec_.name,
              width_, height_, errorText(opened));
      release();
      return kBadFormat;
    }
    if (context_->extradata_size > 0) {
      // Its decoder would need headers that only the stream format could carry,
      // and a recording's format is the bitmap header alone: refused, rather
      // than a file no player opens.
      logLine(u"[Error]   *** VFW *** Codec %S (%S) needs headers in the stream format; it cannot record\n",
              fourccText(fourcc_), codec_.name);
      release();
      return kBadFormat;
    }
    frame_->format = context_->pix_fmt;
    frame_->width = width_;
    frame_->height = height_;
    if (av_frame_get_buffer(frame_, 0) < 0) return kError;
    if (context_->pix_fmt != AV_PIX_FMT_BGR24) {
      // The JPEG formats are their plain twins at full range; told so, the
      // scaler makes the same planes without its warning about them.
      const auto [planes, fullRange] = scalerFormat(context_->pix_fmt);
      scaler_ = sws_getContext(width_, height_, AV_PIX_FMT_BGR24, width_, height_, planes,
                               SWS_POINT | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr, nullptr);
      if (scaler_ != nullptr && fullRange) {
        const int* coefficients = sws_getCoefficients(SWS_CS_ITU601);
        sws_setColorspaceDetails(scaler_, coefficients, 1, coefficients, 1, 0, 1 << 16, 1 << 16);
      }
      if (scaler_ == nullptr) {
        logLine(u"[Error]   *** VFW *** No conversion from BGR to %S for codec %S\n",
                av_get_pix_fmt_name(context_->pix_fmt), fourccText(fourcc_));
        return kBadFormat;
      }
    }
    return kOk;
  }

  int64_t Compress(std::span<std::byte> format, std::span<std::byte> output, const BitmapInfoHeader& input,
                   std::span<const std::byte> frame, uint32_t& flags, int32_t frameNumber) override {
    if (context_ == nullptr || format.size() < sizeof(BitmapInfoHeader)) return kError;
    BitmapInfoHeader out;
    std::memcpy(&out, format.data(), sizeof out);
    out.biSizeImage = 0;
    std::memcpy(format.data(), &out, sizeof out);
    const uint32_t stride = bitmapStride(width_);
    if (input.biWidth != width_ || input.biHeight != height_ || frame.size() < uint64_t{stride} * height_) {
      return kBadFormat;
    }
    if (av_frame_make_writable(frame_) < 0) return kError;

    // The bitmap's last row is the picture's top: read it upwards.
    const auto* bottomUp = reinterpret_cast<const uint8_t*>(frame.data()) + uint64_t{stride} * (height_ - 1);
    if (scaler_ != nullptr) {
      const uint8_t* planes[1] = {bottomUp};
      const int strides[1] = {-static_cast<int>(stride)};
      sws_scale(scaler_, planes, strides, 0, height_, frame_->data, frame_->linesize);
    } else {
      for (int32_t row = 0; row < height_; ++row) {
        std::memcpy(frame_->data[0] + static_cast<ptrdiff_t>(row) * frame_->linesize[0], bottomUp - uint64_t{stride} * row,
                    static_cast<size_t>(width_) * 3);
      }
    }
    frame_->pts = frameNumber;
    // A fixed quantiser is taken from each frame, not from the context.
    frame_->quality = context_->global_quality;

    int result = avcodec_send_frame(context_, frame_);
    if (result >= 0) result = avcodec_receive_packet(context_, packet_);
    if (result == AVERROR(EAGAIN)) {
      // A codec that keeps frames back gives this one later: it goes as an empty
      // frame now, and the stream has one frame fewer at its end.
      return kOk;
    }
    if (result < 0) {
      logLine(u"[Error]   *** VFW *** Codec %S failed frame %d: %S\n", fourccText(fourcc_), frameNumber,
              errorText(result));
      return kError;
    }
    const size_t size = static_cast<size_t>(packet_->size);
    if (size > output.size()) {
      av_packet_unref(packet_);
      return kError;
    }
    std::memcpy(output.data(), packet_->data, size);
    if ((packet_->flags & AV_PKT_FLAG_KEY) != 0) flags |= kKeyFrameFlag;
    av_packet_unref(packet_);
    out.biSizeImage = static_cast<uint32_t>(size);
    std::memcpy(format.data(), &out, sizeof out);
    return kOk;
  }

  int64_t End() override {
    release();
    return kOk;
  }

 private:
  void release() {
    sws_freeContext(scaler_);
    scaler_ = nullptr;
    av_packet_free(&packet_);
    av_frame_free(&frame_);
    avcodec_free_context(&context_);
  }

  uint32_t fourcc_;
  const AVCodec& codec_;
  std::vector<std::byte> format_;
  int32_t width_ = 0;
  int32_t height_ = 0;
  AVCodecContext* context_ = nullptr;
  AVFrame* frame_ = nullptr;
  AVPacket* packet_ = nullptr;
  SwsContext* scaler_ = nullptr;
};

}  // namespace

std::unique_ptr<VfwDriver> OpenVfwDriver(uint32_t fourcc) {
  routeLibavLog();
  const AVCodecTag* const tables[] = {avformat_get_riff_video_tags(), nullptr};
  const AVCodecID id = fourcc != 0 ? av_codec_get_id(tables, fourcc) : AV_CODEC_ID_NONE;
  const AVCodec* codec = id != AV_CODEC_ID_NONE ? avcodec_find_encoder(id) : nullptr;
  if (codec == nullptr || codec->type != AVMEDIA_TYPE_VIDEO) {
    logLine(u"[Error]   *** VFW *** No installed codec opens with the four-character code %S\n", fourccText(fourcc));
    return nullptr;
  }
  logLine(u"  *** VFW *** Codec %S is libavcodec's %S\n", fourccText(fourcc), codec->name);
  return std::make_unique<VfwDriverAv>(fourcc, *codec);
}

}  // namespace kestrium
