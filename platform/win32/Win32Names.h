#pragma once

// Internal to the Win32 backend: the helpers that turn the portable names of
// kernel objects and paths into what the W functions take.

#include <string>
#include <string_view>

namespace kestrium::platform::win32 {

// UTF-16 text is handed to the W functions as it is, without conversion.
static_assert(sizeof(wchar_t) == sizeof(char16_t), "the Win32 backend needs a 16-bit wchar_t");

// The name under which the kernel knows an object: the caller's name, prefixed
// with "<namespace>:" when KESTRIUM_NAMESPACE is set. Empty for an empty name,
// which asks for an unnamed object.
std::u16string kernelObjectName(std::u16string_view name);

inline const wchar_t* wide(const std::u16string& text) { return reinterpret_cast<const wchar_t*>(text.c_str()); }
inline wchar_t* wide(char16_t* text) { return reinterpret_cast<wchar_t*>(text); }

// The name argument of the Create*W functions: null makes an unnamed object.
inline const wchar_t* wideNameOrNull(const std::u16string& name) { return name.empty() ? nullptr : wide(name); }

// The root of the volume path lies on, as GetVolumeInformationW wants it: "X:\"
// for a drive-letter path, "\\server\share\" for a UNC path (either slash), empty
// for any other path, which lies on the current directory's volume.
std::wstring volumeRoot(std::wstring_view path);

}  // namespace kestrium::platform::win32
