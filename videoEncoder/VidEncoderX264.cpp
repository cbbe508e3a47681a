#include "videoEncoder/VidEncoderX264.h"

#include "server/Log.h"
#include "videoEncoder/X264Session.h"

namespace kestrium {

std::unique_ptr<H264Session> VidEncoderX264::MakeSession() {
  const H264Settings& s = settings();
  const char* profile = X264Session::profileName(s.profile);
  logLine(u"  *** x264 *** %S profile, preset %S%S, %u kbps, %d threads, an IDR frame every %u frames\n",
          profile != nullptr ? profile : "the encoder's", X264Session::presetFor(s.targetUsage),
          s.lowLatency ? ", zero latency" : "", s.bitrateKbps, s.threads, s.keyInterval);
  return std::make_unique<X264Session>();
}

}  // namespace kestrium
