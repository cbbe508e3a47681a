// The diversion of a library's socket writes. The libraries are linked into the
// executable, and all of its calls of Winsock's send() go through one slot of
// its import table: pointing that slot at our function diverts them all. Ours
// hands the writes on a hooked socket to its hook and passes all others to
// Winsock unchanged.

#include <winsock2.h>
#include <windows.h>

#include <cstring>
#include <mutex>

#include "platform/SendHookTable.h"
#include "platform/Socket.h"

namespace kestrium::platform {

namespace {

using SendFunction = int(WSAAPI*)(SOCKET, const char*, int, int);

// Winsock's own send(), as the import table held it before the diversion.
std::atomic<SendFunction> winsockSend{nullptr};

int WSAAPI divertedSend(SOCKET socket, const char* data, int size, int flags) {
  detail::HookSlot slot;
  if (detail::findHook(static_cast<intptr_t>(socket), slot)) {
    // The hook is called without the table's lock: it may wait for room.
    const int64_t taken =
        slot.hook(slot.context, reinterpret_cast<const std::byte*>(data), size < 0 ? 0 : static_cast<size_t>(size));
    if (taken < 0) {
      WSASetLastError(WSAECONNRESET);
      return SOCKET_ERROR;
    }
    return static_cast<int>(taken);
  }
  return winsockSend.load(std::memory_order_acquire)(socket, data, size, flags);
}

template <typename T>
T* at(HMODULE module, DWORD offset) {
  return reinterpret_cast<T*>(reinterpret_cast<BYTE*>(module) + offset);
}

// Points the executable's imports of ws2_32.dll's send() at divertedSend (the
// linker may have made more than one table for the library). False when the
// executable does not import it by name: then nothing could be diverted.
bool divertImport() {
  bool diverted = false;
  const HMODULE self = GetModuleHandleW(nullptr);
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(self);
  if (dos->e_magic != IMAGE_DOS_SIGNATURE) return false;
  const auto* nt = at<const IMAGE_NT_HEADERS>(self, static_cast<DWORD>(dos->e_lfanew));
  const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  if (imports.VirtualAddress == 0) return false;
  for (auto* library = at<IMAGE_IMPORT_DESCRIPTOR>(self, imports.VirtualAddress); library->Name != 0; ++library) {
    if (_stricmp(at<const char>(self, library->Name), "ws2_32.dll") != 0) continue;
    if (library->OriginalFirstThunk == 0) continue;
    auto* names = at<IMAGE_THUNK_DATA>(self, library->OriginalFirstThunk);
    auto* slots = at<IMAGE_THUNK_DATA>(self, library->FirstThunk);
    for (; names->u1.AddressOfData != 0; ++names, ++slots) {
      if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
      const auto* byName = at<const IMAGE_IMPORT_BY_NAME>(self, static_cast<DWORD>(names->u1.AddressOfData));
      if (std::strcmp(reinterpret_cast<const char*>(byName->Name), "send") != 0) continue;
      if (slots->u1.Function == reinterpret_cast<ULONG_PTR>(&divertedSend)) continue;
      DWORD protection = 0;
      if (!VirtualProtect(&slots->u1.Function, sizeof slots->u1.Function, PAGE_READWRITE, &protection)) return false;
      winsockSend.store(reinterpret_cast<SendFunction>(slots->u1.Function), std::memory_order_release);
      slots->u1.Function = reinterpret_cast<ULONG_PTR>(&divertedSend);
      VirtualProtect(&slots->u1.Function, sizeof slots->u1.Function, protection, &protection);
      diverted = true;
    }
  }
  return diverted;
}

bool diverted() {
  static std::once_flag once;
  static bool done = false;
  std::call_once(once, [] { done = divertImport(); });
  return done;
}

}  // namespace

bool installSendHook(intptr_t descriptor, SendHook hook, void* context) {
  return diverted() && detail::addHook(descriptor, hook, context);
}

void removeSendHook(intptr_t descriptor) { detail::dropHook(descriptor); }

bool sendHookEffective() { return diverted(); }

}  // namespace kestrium::platform
