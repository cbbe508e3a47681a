// The parts of SharedLibrary that do not depend on the OS; each backend has the rest.
#include "platform/SharedLibrary.h"

#include <iterator>
#include <utility>

#include "platform/System.h"
#include "platform/Text.h"

namespace kestrium::platform {

SharedLibrary::~SharedLibrary() { unload(); }

SharedLibrary::SharedLibrary(SharedLibrary&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}

SharedLibrary& SharedLibrary::operator=(SharedLibrary&& other) noexcept {
  if (this != &other) {
    unload();
    handle_ = std::exchange(other.handle_, nullptr);
  }
  return *this;
}

namespace {

#if defined(_WIN32)
#if defined(_WIN64)
constexpr std::string_view kNvencName = "nvEncodeAPI64.dll";
constexpr std::string_view kQuickSyncName = "libmfxhw64.dll";
constexpr std::string_view kOpenVideoName = "OpenVideo64.dll";
#else
constexpr std::string_view kNvencName = "nvEncodeAPI.dll";
constexpr std::string_view kQuickSyncName = "libmfxhw32.dll";
constexpr std::string_view kOpenVideoName = "OpenVideo.dll";
#endif
constexpr VendorLibraryEntry kVendorLibraries[] = {
    {"nvcuda.dll", "KESTRIUM_LIB_CUDA"},   {kNvencName, "KESTRIUM_LIB_NVENC"},
    {kQuickSyncName, "KESTRIUM_LIB_QUICKSYNC"}, {"", "KESTRIUM_LIB_VA"}, {"", "KESTRIUM_LIB_VA_DRM"},
    {kOpenVideoName, "KESTRIUM_LIB_OPENVIDEO"}, {"OpenCL.dll", "KESTRIUM_LIB_OPENCL"},
};
#else
// OpenVideo never existed outside Windows.
constexpr VendorLibraryEntry kVendorLibraries[] = {
    {"libcuda.so.1", "KESTRIUM_LIB_CUDA"}, {"libnvidia-encode.so.1", "KESTRIUM_LIB_NVENC"},
    {"libvpl.so.2", "KESTRIUM_LIB_QUICKSYNC"}, {"libva.so.2", "KESTRIUM_LIB_VA"},
    {"libva-drm.so.2", "KESTRIUM_LIB_VA_DRM"},  {"", "KESTRIUM_LIB_OPENVIDEO"},         {"libOpenCL.so.1", "KESTRIUM_LIB_OPENCL"},
};
#endif
static_assert(std::size(kVendorLibraries) == static_cast<size_t>(VendorLibrary::OpenCl) + 1);

}  // namespace

VendorLibraryEntry vendorLibraryEntry(VendorLibrary library) {
  return kVendorLibraries[static_cast<size_t>(library)];
}

std::string vendorLibraryFile(VendorLibrary library) {
  const VendorLibraryEntry entry = vendorLibraryEntry(library);
  if (auto path = environmentVariable(entry.overrideVariable)) return toUtf8(*path);
  return std::string(entry.name);
}

bool loadVendorLibrary(VendorLibrary library, SharedLibrary& into) {
  into.unload();
  const std::string file = vendorLibraryFile(library);
  return !file.empty() && into.load(file);
}

}  // namespace kestrium::platform
