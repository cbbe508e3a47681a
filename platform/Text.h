#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace kestrium::platform {

// UTF-16 to UTF-8 and back. Unpaired surrogates and malformed bytes become U+FFFD,
// so any wire string can be logged or turned into a path.
std::string toUtf8(std::u16string_view text);
std::u16string toUtf16(std::string_view text);

// The text with every unpaired surrogate replaced by U+FFFD: what can be written
// into a UTF-16 file that other programs must read.
std::u16string validUtf16(std::u16string_view text);

// The text as a path, or nothing when it cannot be one: an unpaired surrogate
// (no file system can name it) or a NUL character (which would cut the name).
std::optional<std::filesystem::path> toPath(std::u16string_view text);

}  // namespace kestrium::platform
