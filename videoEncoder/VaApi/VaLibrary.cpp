#include "videoEncoder/VaApi/VaLibrary.h"

#include <vector>

#include "server/Log.h"

namespace kestrium {

namespace {

template <class Fn>
bool find(const platform::SharedLibrary& library, const char* name, Fn& into, std::u16string_view who) {
  into = library.function<Fn>(name);
  if (into == nullptr) {
    logLine(u"[Error]   *** %s *** libva has no %S; it cannot be used\n", who, name);
    return false;
  }
  return true;
}

}  // namespace

bool VaLibrary::load(std::u16string_view who) {
  if (!platform::loadVendorLibrary(platform::VendorLibrary::VaApi, va) ||
      !platform::loadVendorLibrary(platform::VendorLibrary::VaDrm, drm)) {
    return false;
  }
  return find(drm, "vaGetDisplayDRM", GetDisplayDRM, who) && find(va, "vaInitialize", Initialize, who) &&
         find(va, "vaTerminate", Terminate, who) && find(va, "vaQueryVendorString", QueryVendorString, who) &&
         find(va, "vaErrorStr", ErrorStr, who) && find(va, "vaMaxNumEntrypoints", MaxNumEntrypoints, who) &&
         find(va, "vaQueryConfigEntrypoints", QueryConfigEntrypoints, who) &&
         find(va, "vaGetConfigAttributes", GetConfigAttributes, who) &&
         find(va, "vaCreateConfig", CreateConfig, who) && find(va, "vaDestroyConfig", DestroyConfig, who) &&
         find(va, "vaCreateSurfaces", CreateSurfaces, who) && find(va, "vaDestroySurfaces", DestroySurfaces, who) &&
         find(va, "vaCreateContext", CreateContext, who) && find(va, "vaDestroyContext", DestroyContext, who) &&
         find(va, "vaCreateBuffer", CreateBuffer, who) && find(va, "vaDestroyBuffer", DestroyBuffer, who) &&
         find(va, "vaMapBuffer", MapBuffer, who) && find(va, "vaUnmapBuffer", UnmapBuffer, who) &&
         find(va, "vaDeriveImage", DeriveImage, who) && find(va, "vaDestroyImage", DestroyImage, who) &&
         find(va, "vaBeginPicture", BeginPicture, who) && find(va, "vaRenderPicture", RenderPicture, who) &&
         find(va, "vaEndPicture", EndPicture, who) && find(va, "vaSyncSurface", SyncSurface, who);
}

std::string_view VaLibrary::errorText(VAStatus status) const {
  const char* text = ErrorStr != nullptr ? ErrorStr(status) : nullptr;
  return text != nullptr ? text : "unknown error";
}

VaDisplay::~VaDisplay() { close(); }

bool VaDisplay::open(const VaLibrary& library, const std::string& node) {
  close();
  library_ = &library;
  if (!node_.open(node)) return false;
  VADisplay display = library.GetDisplayDRM(node_.descriptor());
  int major = 0;
  int minor = 0;
  if (display == nullptr || library.Initialize(display, &major, &minor) != VA_STATUS_SUCCESS) {
    node_ = {};
    return false;
  }
  display_ = display;
  return true;
}

void VaDisplay::close() {
  if (display_ != nullptr) library_->Terminate(display_);
  display_ = nullptr;
  node_ = {};
}

std::string VaDisplay::vendor() const {
  const char* text = display_ != nullptr ? library_->QueryVendorString(display_) : nullptr;
  return text != nullptr ? text : "";
}

bool VaDisplay::encodes(VAProfile profile) const {
  if (display_ == nullptr) return false;
  const int most = library_->MaxNumEntrypoints(display_);
  if (most <= 0) return false;
  std::vector<VAEntrypoint> entrypoints(static_cast<size_t>(most));
  int count = 0;
  if (library_->QueryConfigEntrypoints(display_, profile, entrypoints.data(), &count) != VA_STATUS_SUCCESS) {
    return false;
  }
  for (int i = 0; i < count && i < most; ++i) {
    if (entrypoints[static_cast<size_t>(i)] == VAEntrypointEncSlice) return true;
  }
  return false;
}

bool openDisplayPreferring(const VaLibrary& library, VaDisplay& display, std::string_view vendor) {
  std::string fallback;
  for (const std::string& node : platform::renderNodePaths()) {
    if (!display.open(library, node)) continue;
    if (display.vendor().find(vendor) != std::string::npos) return true;
    if (fallback.empty()) fallback = node;
    display.close();
  }
  return !fallback.empty() && display.open(library, fallback);
}

}  // namespace kestrium
