#pragma once

#include <string>
#include <string_view>

namespace kestrium::platform {

// UTF-16 to UTF-8 and back. Unpaired surrogates and malformed bytes become U+FFFD,
// so any wire string can be logged or turned into a path.
std::string toUtf8(std::u16string_view text);
std::u16string toUtf16(std::string_view text);

}  // namespace kestrium::platform
