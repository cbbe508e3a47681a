#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrium {

// Encoder options: narrow keys and values in turn, in one flat list. Every
// encoder gets the whole list and reads what it knows.
using OptionList = std::vector<std::string>;

// Walks the list from the front. take(key, value) returns true when it knows the
// key; the walk then steps over the value too. An unknown key is passed one
// element at a time, so a value that equals a known key is taken for that key.
void walkOptions(const OptionList& options, const std::function<bool(std::string_view, std::string_view)>& take);

// The C rule of string to integer: leading blanks, a sign, digits up to the
// first non-digit; nothing readable gives 0, and a value past the 32-bit range
// gives the nearest end of it.
int optionInt(std::string_view text);

}  // namespace kestrium
