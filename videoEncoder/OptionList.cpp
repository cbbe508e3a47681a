#include "videoEncoder/OptionList.h"

#include <cstdint>
#include <limits>

namespace kestrium {

void walkOptions(const OptionList& options, const std::function<bool(std::string_view, std::string_view)>& take) {
  size_t i = 0;
  while (i < options.size()) {
    // A key at the very end has no value: there is nothing to take.
    if (i + 1 < options.size() && take(options[i], options[i + 1])) {
      i += 2;
    } else {
      i += 1;
    }
  }
}

int optionInt(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  int64_t value = 0;
  constexpr int64_t kLimit = int64_t{std::numeric_limits<int32_t>::max()} + 1;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
    value = value * 10 + (text[i++] - '0');
    if (value > kLimit) value = kLimit;
  }
  if (negative) return static_cast<int>(-value);
  return static_cast<int>(value > std::numeric_limits<int32_t>::max() ? std::numeric_limits<int32_t>::max() : value);
}

}  // namespace kestrium
