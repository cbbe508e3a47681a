#include "platform/SharedLibrary.h"

#include <dlfcn.h>

#include <utility>

namespace kestrium::platform {

bool SharedLibrary::load(const std::string& name) {
  unload();
  handle_ = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
  return handle_ != nullptr;
}

void SharedLibrary::unload() {
  if (handle_ != nullptr) dlclose(handle_);
  handle_ = nullptr;
}

void* SharedLibrary::symbol(const char* name) const {
  return handle_ != nullptr ? dlsym(handle_, name) : nullptr;
}

}  // namespace kestrium::platform
