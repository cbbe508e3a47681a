#include "videoEncoder/VidEncoderFast.h"

#include <algorithm>

#include "codecs/Tmb2FrameEncoder.h"
#include "server/Log.h"

namespace kestrium {

VidEncoderFast::~VidEncoderFast() { StopWorkers(); }

BitmapInfoHeader* VidEncoderFast::GetBitmapFormat(BitmapInfoHeader* header) {
  *header = makeBitmapHeader(width_, height_, 16, tmb2::kFourcc, 0);
  return header;
}

void VidEncoderFast::WorkerLoop(EncodeWorker& worker) {
  // Everything a frame needs is allocated here, once for the thread's life.
  tmb2::FrameEncoder encoder(static_cast<uint32_t>(std::max(worker.width, 0)),
                             static_cast<uint32_t>(std::max(worker.height, 0)));
  if (!encoder.valid()) {
    logLine(u"[Error]   Cannot allocate the buffers of a fast encoder worker for %dx%d\n", worker.width,
            worker.height);
  }
  bool warned = false;
  while (WaitForWork(worker)) {
    const auto* frame = reinterpret_cast<const uint8_t*>(worker.frame.data());
    auto* out = reinterpret_cast<uint8_t*>(worker.encoded.data());
    const size_t size = encoder.encode(frame, out, worker.encoded.size());
    if (size == 0 && !warned) {
      // Nothing larger than the encoder buffer can be delivered: a frame made to
      // defeat the code. It goes out empty and the file shows a dropped frame.
      logLine(u"[Error]   Fast encoder: a frame does not fit in the %u bytes of the encoder buffer; such frames "
              u"are delivered empty\n",
              static_cast<uint32_t>(worker.encoded.size()));
      warned = true;
    }
    worker.encodedSize = static_cast<uint32_t>(size);
    DeliverEncoded(worker);
  }
}

}  // namespace kestrium
