#pragma once

#include <string>
#include <string_view>

namespace kestrium::platform {

// A run-time loaded library (LoadLibrary / dlopen), freed when this object goes.
class SharedLibrary {
 public:
  SharedLibrary() = default;
  ~SharedLibrary();
  SharedLibrary(SharedLibrary&& other) noexcept;
  SharedLibrary& operator=(SharedLibrary&& other) noexcept;
  SharedLibrary(const SharedLibrary&) = delete;
  SharedLibrary& operator=(const SharedLibrary&) = delete;

  // The OS's own name of the library ("nvcuda.dll", "libcuda.so.1"), searched the
  // OS's usual way.
  bool load(const std::string& name);
  bool isLoaded() const { return handle_ != nullptr; }
  void unload();

  // Address of an exported symbol, or null.
  void* symbol(const char* name) const;

  template <class Fn>
  Fn function(const char* name) const {
    return reinterpret_cast<Fn>(symbol(name));
  }

 private:
  void* handle_ = nullptr;
};

// The vendor runtimes that hardware encoders load when the machine has them.
// VaDrm is libva's DRM half, which opens a display on a render node.
enum class VendorLibrary { Cuda, Nvenc, QuickSync, VaApi, VaDrm, OpenVideo, OpenCl };

// Each vendor library has its OS's name in one table ("nvcuda.dll",
// "libcuda.so.1"; empty where the OS has no such library) and an environment
// variable (KESTRIUM_LIB_CUDA, ...) that names another file to load in its place,
// so that tests load fakes and never depend on what the machine has installed.
// The variable set but empty means the library is absent.
struct VendorLibraryEntry {
  std::string_view name;
  std::string_view overrideVariable;
};
VendorLibraryEntry vendorLibraryEntry(VendorLibrary library);

// The file that loadVendorLibrary tries: the override if set, else the table's
// name. Empty when there is none to try.
std::string vendorLibraryFile(VendorLibrary library);

// Loads the vendor library into `into`; false, and nothing logged, when it is
// not there: a missing runtime is the ordinary case on most machines.
bool loadVendorLibrary(VendorLibrary library, SharedLibrary& into);

}  // namespace kestrium::platform
