#include "videoEncoder/IVidEncoder.h"

#include <algorithm>

#include "platform/Text.h"
#include "platform/Thread.h"
#include "recorder/CaptureObjects.h"
#include "server/Log.h"
#include "videoEncoder/VidEncoderFast.h"
#include "videoEncoder/VidEncoderLoseless.h"
#if KESTRIUM_WITH_MJPEG
#include "videoEncoder/VidEncoderMJPEG.h"
#endif
#if KESTRIUM_WITH_X264
#include "videoEncoder/VidEncoderX264.h"
#endif
#if KESTRIUM_WITH_VFW
#include "videoEncoder/VidEncoderVFW.h"
#endif
#if KESTRIUM_WITH_NVENC
#include "videoEncoder/NV_Enc/VidEncoderNVENC.h"
#endif
#if KESTRIUM_WITH_QUICKSYNC
#include "videoEncoder/IntelQuickSync/VidEncoderQuickSync.h"
#endif
#if KESTRIUM_WITH_AMDVCE
#include "videoEncoder/amd_vce/VidEncoderAMD.h"
#endif

namespace kestrium {

int IVidEncoder::Init(const OptionList& options) {
  walkOptions(options, [this](std::string_view key, std::string_view value) {
    if (key == "width") {
      width_ = optionInt(value);
    } else if (key == "height") {
      height_ = optionInt(value);
    } else if (key == "threads") {
      threads_ = optionInt(value);
    } else if (key == "shared_name") {
      // The name travels as UTF-8, so that any recorder name comes back whole
      // and the encoder opens exactly the recorder's objects.
      sessionName_ = platform::toUtf16(value);
    } else {
      return false;
    }
    return true;
  });
  return Open();
}

uint64_t IVidEncoder::EncodedCapacity() const {
  return encoderBufferSize(static_cast<uint32_t>(std::max(width_, 0)), static_cast<uint32_t>(std::max(height_, 0)));
}

bool IVidEncoder::JoinEncoderThread(platform::Thread& thread) {
  const uint32_t result = thread.join(kThreadPatienceMs);
  if (result == platform::kWaitObject0) return true;
  logLine(u"[Warning] Problems waiting encoder thread to exit: %d\n", result);
  thread.terminate();
  return false;
}

std::unique_ptr<IVidEncoder> CreateVideoEncoder(std::u16string_view name) {
  if (name == u"no_compression") return std::make_unique<VidEncoderLoseless>();
  if (name == u"fast") return std::make_unique<VidEncoderFast>();
#if KESTRIUM_WITH_MJPEG
  if (name == u"mjpeg") return std::make_unique<VidEncoderMJPEG>();
#endif
#if KESTRIUM_WITH_VFW
  if (name == u"vfw") return std::make_unique<VidEncoderVFW>();
#endif
#if KESTRIUM_WITH_X264
  if (name == u"h264.x264") return std::make_unique<VidEncoderX264>();
#endif
#if KESTRIUM_WITH_NVENC
  if (name == u"h264.nvenc") return std::make_unique<VidEncoderNVENC>();
#endif
#if KESTRIUM_WITH_QUICKSYNC
  if (name == u"h264.quicksync") return std::make_unique<VidEncoderQuickSync>();
#endif
#if KESTRIUM_WITH_AMDVCE
  if (name == u"h264.amdvce") return std::make_unique<VidEncoderAMD>();
#endif
  logLine(u"[Error]   Cannot create video encoder %s\n", name);
  return nullptr;
}

}  // namespace kestrium
