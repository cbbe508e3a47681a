#pragma once

#include <string>

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

}  // namespace kestrium::platform
