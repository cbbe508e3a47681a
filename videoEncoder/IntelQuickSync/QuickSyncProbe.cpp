#include "videoEncoder/IntelQuickSync/QuickSyncProbe.h"

#include <vector>

#include "platform/SharedMapping.h"
#include "recorder/CommonData.h"
#include "server/CommandBlock.h"
#include "server/Log.h"
#include "videoEncoder/IntelQuickSync/CEncodingPipeline.h"
#include "videoEncoder/IntelQuickSync/VplRuntime.h"
#include "videoEncoder/VaApi/VaLibrary.h"

namespace kestrium {

namespace {

// The picture the probe codes: small, grey, one frame.
constexpr uint16_t kProbeWidth = 320;
constexpr uint16_t kProbeHeight = 240;

// One frame through the session, start to finish.
mfxStatus codeOneFrame(VplRuntime& vpl, mfxSession session) {
  QsParams params;
  params.width = kProbeWidth;
  params.height = kProbeHeight;
  params.bitrateKbps = 1000;
  mfxVideoParam video = qsVideoParams(params);
  mfxVideoParam answer = video;
  if (const mfxStatus status = vpl.EncodeQuery(session, &video, &answer); status < MFX_ERR_NONE) return status;
  if (const mfxStatus status = vpl.EncodeInit(session, &video); status < MFX_ERR_NONE) return status;
  std::vector<mfxU8> pixels(size_t{kProbeWidth} * kProbeHeight * 3 / 2, 128);
  mfxFrameSurface1 surface{};
  surface.Info = video.mfx.FrameInfo;
  surface.Data.Y = pixels.data();
  surface.Data.UV = pixels.data() + size_t{kProbeWidth} * kProbeHeight;
  surface.Data.Pitch = kProbeWidth;
  std::vector<mfxU8> coded(pixels.size() * 4);
  mfxBitstream bitstream{};
  bitstream.Data = coded.data();
  bitstream.MaxLength = static_cast<mfxU32>(coded.size());
  mfxSyncPoint sync = nullptr;
  mfxStatus status = vpl.EncodeFrameAsync(session, nullptr, &surface, &bitstream, &sync);
  if (status == MFX_ERR_MORE_DATA) status = vpl.EncodeFrameAsync(session, nullptr, nullptr, &bitstream, &sync);
  if (status >= MFX_ERR_NONE && sync != nullptr) status = vpl.SyncOperation(session, sync, 10000);
  if (status >= MFX_ERR_NONE && bitstream.DataLength == 0) status = MFX_ERR_UNKNOWN;
  vpl.EncodeClose(session);
  return status;
}

bool canEncode(VplRuntime& vpl, mfxSession session, VaDisplay& display, VaLibrary& va) {
  if (!va.load(u"QS")) {
    logLine(u"  Intel QuickSync runtime found, but no VA-API library to reach a GPU\n");
    return false;
  }
  if (!openDisplayPreferring(va, display, "Intel")) {
    logLine(u"  Intel QuickSync runtime found, but no GPU render node gives a VA display\n");
    return false;
  }
  mfxStatus status = vpl.SetHandle(session, MFX_HANDLE_VA_DISPLAY, display.handle());
  if (status == MFX_ERR_NONE) status = codeOneFrame(vpl, session);
  if (status < MFX_ERR_NONE) {
    logLine(u"  Intel QuickSync runtime found, but it cannot code H.264 here (%d)\n", static_cast<int>(status));
    return false;
  }
  return true;
}

}  // namespace

int probeQuickSyncEncoder() {
  VplRuntime vpl;
  if (!vpl.load()) return 0;
  platform::SharedMapping features(std::u16string(kFeaturesName), sizeof(FeaturesBlock));
  auto* block = features.open() ? features.as<FeaturesBlock>() : nullptr;
  // The display outlives the session that was handed it.
  VaLibrary va;
  VaDisplay display;
  mfxVersion version = kQuickSyncApiVersion;
  mfxSession session = nullptr;
  bool available = false;
  if (vpl.Init(MFX_IMPL_HARDWARE_ANY | MFX_IMPL_VIA_ANY, &version, &session) == MFX_ERR_NONE) {
    available = canEncode(vpl, session, display, va);
    vpl.Close(session);
  }
  if (block != nullptr) storeShared(block->quickSync, available ? 1u : 0u);
  if (available) logLine(u"  Intel QuickSync hardware acceleration is available\n");
  return available ? 1 : 0;
}

}  // namespace kestrium
