#include "videoEncoder/VidEncoderMJPEG.h"

#include <algorithm>

#include "codecs/jpeg/JPEGEncoder.h"
#include "server/Log.h"

namespace kestrium {

VidEncoderMJPEG::~VidEncoderMJPEG() { StopWorkers(); }

int VidEncoderMJPEG::Init(const OptionList& options) {
  walkOptions(options, [this](std::string_view key, std::string_view value) {
    if (key == "full_color_range") {
      fullColorRange_ = optionInt(value);
    } else if (key == "full_color_space") {
      fullColorSpace_ = optionInt(value);
    } else if (key == "mjpeg_quality") {
      quality_ = optionInt(value);
    } else {
      return false;
    }
    return true;
  });
  if (quality_ < 1 || quality_ > 100) {
    logLine(u"[Warning] MJPEG quality %d is outside 1 to 100; %d is used\n", quality_, std::clamp(quality_, 1, 100));
    quality_ = std::clamp(quality_, 1, 100);
  }
  return IVidEncoder::Init(options);
}

BitmapInfoHeader* VidEncoderMJPEG::GetBitmapFormat(BitmapInfoHeader* header) {
  *header = makeBitmapHeader(width_, height_, 24, makeFourcc('M', 'J', 'P', 'G'), 0);
  return header;
}

uint64_t VidEncoderMJPEG::EncodedCapacity() const {
  const int sampling = fullColorSpace_ != 0 ? CJPEGEncoder::kSampling444 : CJPEGEncoder::kSampling2x2;
  return std::max(IVidEncoder::EncodedCapacity(), CJPEGEncoder::MaxOutputSize(width_, height_, sampling));
}

void VidEncoderMJPEG::WorkerLoop(EncodeWorker& worker) {
  CJPEGEncoder engine;
  CJPGOutput output;
  JpegSource source;
  source.data = worker.frame.data();
  source.width = worker.width;
  source.height = worker.height;
  source.lineStep = worker.width * 3;
  engine.SetSource(source, fullColorRange_);
  engine.SetParameters(fullColorSpace_ != 0 ? CJPEGEncoder::kSampling444 : CJPEGEncoder::kSampling2x2, quality_);
  engine.Prepare(&output);
  while (WaitForWork(worker)) {
    engine.SetSource(source, fullColorRange_);
    output.attach(worker.encoded.span());
    int result = engine.WriteHeader();
    if (result == CJPEGEncoder::kOk) result = engine.WriteData();
    if (result == CJPEGEncoder::kOk) {
      worker.encodedSize = static_cast<uint32_t>(output.count());
    } else {
      // Never a cut JPEG: the frame goes as an empty one, a dropped frame.
      worker.encodedSize = 0;
      if (dropped_++ == 0) {
        logLine(u"[Error]   *** MJPEG *** Frame %u does not fit its %u-byte buffer (%d); it is dropped\n",
                worker.position, static_cast<uint32_t>(worker.encoded.size()), result);
      }
    }
    DeliverEncoded(worker);
  }
}

void VidEncoderMJPEG::Close() {
  VidEncoder::Close();
  if (dropped_ > 1) logLine(u"[Error]   *** MJPEG *** %u frames did not fit their buffer\n", dropped_.load());
}

}  // namespace kestrium
