#pragma once

#include <concepts>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kestrium {

// One argument of a printf-style log line. Typed, so that a format that does not
// match its arguments prints something odd instead of reading garbage.
class LogArg {
 public:
  enum class Kind { Signed, Unsigned, Real, Wide, Narrow };

  template <std::signed_integral T>
  LogArg(T v) : kind_(Kind::Signed), integer_(static_cast<int64_t>(v)) {}
  template <std::unsigned_integral T>
  LogArg(T v) : kind_(Kind::Unsigned), integer_(static_cast<int64_t>(static_cast<uint64_t>(v))) {}
  LogArg(double v) : kind_(Kind::Real), real_(v) {}
  LogArg(float v) : kind_(Kind::Real), real_(v) {}
  LogArg(std::u16string_view v) : kind_(Kind::Wide), wide_(v) {}
  LogArg(const std::u16string& v) : kind_(Kind::Wide), wide_(v) {}
  LogArg(const char16_t* v) : kind_(Kind::Wide), wide_(v != nullptr ? v : u"(null)") {}
  LogArg(std::string_view v) : kind_(Kind::Narrow), narrow_(v) {}
  LogArg(const std::string& v) : kind_(Kind::Narrow), narrow_(v) {}
  LogArg(const char* v) : kind_(Kind::Narrow), narrow_(v != nullptr ? v : "(null)") {}

  Kind kind() const { return kind_; }
  int64_t integer() const { return integer_; }
  double real() const { return real_; }
  std::u16string_view wide() const { return wide_; }
  std::string_view narrow() const { return narrow_; }

 private:
  Kind kind_;
  int64_t integer_ = 0;
  double real_ = 0;
  std::u16string_view wide_;
  std::string_view narrow_;
};

// Formats like the wide printf of the Windows C runtime: %s is a wide string and
// %S a narrow one; %d prints a 32-bit value signed, %u unsigned (so an unsigned
// word may print negative under %d, as it always has); flags, width and precision
// as in C; l, ll, h, z and I64 size prefixes are accepted (ll and I64 print all 64
// bits). A missing argument prints as nothing.
std::u16string formatWide(std::u16string_view format, std::span<const LogArg> args);

template <class... Args>
std::u16string formatWide(std::u16string_view format, const Args&... args) {
  const LogArg list[] = {LogArg(args)..., LogArg(0)};
  return formatWide(format, std::span<const LogArg>(list, sizeof...(Args)));
}

}  // namespace kestrium
