#include "videoEncoder/IntelQuickSync/VplRuntime.h"

#include "server/Log.h"

namespace kestrium {

namespace {

template <class Fn>
bool find(const platform::SharedLibrary& library, const char* name, Fn& into) {
  into = library.function<Fn>(name);
  if (into == nullptr) {
    logLine(u"[Error]   Intel QuickSync runtime has no %S; it cannot be used\n", name);
    return false;
  }
  return true;
}

}  // namespace

bool VplRuntime::load() {
  if (!platform::loadVendorLibrary(platform::VendorLibrary::QuickSync, library)) return false;
  return find(library, "MFXInit", Init) && find(library, "MFXClose", Close) &&
         find(library, "MFXQueryIMPL", QueryIMPL) && find(library, "MFXVideoCORE_SetHandle", SetHandle) &&
         find(library, "MFXVideoCORE_SyncOperation", SyncOperation) &&
         find(library, "MFXVideoENCODE_Query", EncodeQuery) &&
         find(library, "MFXVideoENCODE_QueryIOSurf", EncodeQueryIOSurf) &&
         find(library, "MFXVideoENCODE_Init", EncodeInit) && find(library, "MFXVideoENCODE_Close", EncodeClose) &&
         find(library, "MFXVideoENCODE_GetVideoParam", EncodeGetVideoParam) &&
         find(library, "MFXVideoENCODE_EncodeFrameAsync", EncodeFrameAsync);
}

}  // namespace kestrium
