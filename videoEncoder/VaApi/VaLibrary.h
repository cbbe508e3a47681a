#pragma once

// VA-API as the server reaches it: libva and its DRM half, loaded at run time
// through the vendor library table and never linked, so the server runs on every
// machine and uses a GPU's encoder where there is one. Quick Sync hands the
// runtime a display of it; AMD's encoder codes through it.

#include <va/va.h>
#include <va/va_drm.h>

#include <memory>
#include <string>
#include <string_view>

#include "platform/RenderNode.h"
#include "platform/SharedLibrary.h"

namespace kestrium {

// The calls of libva the server makes.
struct VaLibrary {
  platform::SharedLibrary va;
  platform::SharedLibrary drm;
  decltype(&vaGetDisplayDRM) GetDisplayDRM = nullptr;
  decltype(&vaInitialize) Initialize = nullptr;
  decltype(&vaTerminate) Terminate = nullptr;
  decltype(&vaQueryVendorString) QueryVendorString = nullptr;
  decltype(&vaErrorStr) ErrorStr = nullptr;
  decltype(&vaMaxNumEntrypoints) MaxNumEntrypoints = nullptr;
  decltype(&vaQueryConfigEntrypoints) QueryConfigEntrypoints = nullptr;
  decltype(&vaGetConfigAttributes) GetConfigAttributes = nullptr;
  decltype(&vaCreateConfig) CreateConfig = nullptr;
  decltype(&vaDestroyConfig) DestroyConfig = nullptr;
  decltype(&vaCreateSurfaces) CreateSurfaces = nullptr;
  decltype(&vaDestroySurfaces) DestroySurfaces = nullptr;
  decltype(&vaCreateContext) CreateContext = nullptr;
  decltype(&vaDestroyContext) DestroyContext = nullptr;
  decltype(&vaCreateBuffer) CreateBuffer = nullptr;
  decltype(&vaDestroyBuffer) DestroyBuffer = nullptr;
  decltype(&vaMapBuffer) MapBuffer = nullptr;
  decltype(&vaUnmapBuffer) UnmapBuffer = nullptr;
  decltype(&vaDeriveImage) DeriveImage = nullptr;
  decltype(&vaDestroyImage) DestroyImage = nullptr;
  decltype(&vaBeginPicture) BeginPicture = nullptr;
  decltype(&vaRenderPicture) RenderPicture = nullptr;
  decltype(&vaEndPicture) EndPicture = nullptr;
  decltype(&vaSyncSurface) SyncSurface = nullptr;

  // False when a library is not there (nothing logged: the ordinary case) or
  // lacks a call (logged, with who wanted it).
  bool load(std::u16string_view who);
  // The library's text for a status ("invalid VASurfaceID").
  std::string_view errorText(VAStatus status) const;
};

// One VA display on a render node: initialised when open, terminated and the
// node closed when this object goes.
class VaDisplay {
 public:
  VaDisplay() = default;
  ~VaDisplay();
  VaDisplay(const VaDisplay&) = delete;
  VaDisplay& operator=(const VaDisplay&) = delete;

  // False, nothing logged, when the node does not open or gives no display.
  bool open(const VaLibrary& library, const std::string& node);
  void close();
  bool isOpen() const { return display_ != nullptr; }
  VADisplay handle() const { return display_; }
  // The driver's vendor text ("Mesa Gallium driver ... for AMD Radeon ...").
  std::string vendor() const;
  // Whether the driver codes this profile (VAEntrypointEncSlice).
  bool encodes(VAProfile profile) const;

 private:
  const VaLibrary* library_ = nullptr;
  platform::RenderNode node_;
  VADisplay display_ = nullptr;
};

// Opens on `display` the first render node whose driver's vendor text names
// `vendor` (a machine may have an Intel and an AMD GPU), or else the first that
// gives a display at all. False when none does.
bool openDisplayPreferring(const VaLibrary& library, VaDisplay& display, std::string_view vendor);

}  // namespace kestrium
