#pragma once

// Intel's media runtime as the server reaches it: the oneVPL dispatcher, loaded
// at run time through the vendor library table and never linked. The server
// uses its Media SDK calls (MFXInit and the session's), which the dispatcher
// still routes to every runtime, old and new.

#include <vpl/mfxvideo.h>

#include <string_view>

#include "platform/SharedLibrary.h"

namespace kestrium {

struct VplRuntime {
  platform::SharedLibrary library;
  decltype(&MFXInit) Init = nullptr;
  decltype(&MFXClose) Close = nullptr;
  decltype(&MFXQueryIMPL) QueryIMPL = nullptr;
  decltype(&MFXVideoCORE_SetHandle) SetHandle = nullptr;
  decltype(&MFXVideoCORE_SyncOperation) SyncOperation = nullptr;
  decltype(&MFXVideoENCODE_Query) EncodeQuery = nullptr;
  decltype(&MFXVideoENCODE_QueryIOSurf) EncodeQueryIOSurf = nullptr;
  decltype(&MFXVideoENCODE_Init) EncodeInit = nullptr;
  decltype(&MFXVideoENCODE_Close) EncodeClose = nullptr;
  decltype(&MFXVideoENCODE_GetVideoParam) EncodeGetVideoParam = nullptr;
  decltype(&MFXVideoENCODE_EncodeFrameAsync) EncodeFrameAsync = nullptr;

  // False when the dispatcher is not there (nothing logged: the ordinary case)
  // or lacks a call (logged).
  bool load();
};

// The API version the server asks every session for.
inline constexpr mfxVersion kQuickSyncApiVersion = {{1, 1}};

}  // namespace kestrium
