#include "platform/SharedLibrary.h"

#include <windows.h>

#include <utility>

#include "platform/Text.h"
#include "platform/win32/Win32Names.h"

namespace kestrium::platform {

bool SharedLibrary::load(const std::string& name) {
  unload();
  const std::u16string wideName = toUtf16(name);
  handle_ = LoadLibraryW(win32::wide(wideName));
  return handle_ != nullptr;
}

void SharedLibrary::unload() {
  if (handle_ == nullptr) return;
  FreeLibrary(static_cast<HMODULE>(handle_));
  handle_ = nullptr;
}

void* SharedLibrary::symbol(const char* name) const {
  if (handle_ == nullptr || name == nullptr) return nullptr;
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle_), name));
}

}  // namespace kestrium::platform
