#include "server/LogFormat.h"

#include <cstdio>

#include "platform/Text.h"

namespace kestrium {

namespace {

struct Spec {
  std::string flags;
  int width = -1;
  int precision = -1;
  bool wide64 = false;  // ll, I64
  char conversion = 0;
};

void pad(std::u16string& out, std::u16string_view text, const Spec& spec) {
  const bool left = spec.flags.find('-') != std::string::npos;
  const size_t width = spec.width > 0 ? static_cast<size_t>(spec.width) : 0;
  const size_t fill = width > text.size() ? width - text.size() : 0;
  if (!left) out.append(fill, u' ');
  out.append(text);
  if (left) out.append(fill, u' ');
}

// Numbers go through the C library's own formatting, so that flags, width and
// precision mean exactly what they mean in C.
std::string cFormat(const Spec& spec, const char* length, char conversion, auto value) {
  std::string f = "%" + spec.flags;
  if (spec.width >= 0) f += std::to_string(spec.width);
  if (spec.precision >= 0) f += "." + std::to_string(spec.precision);
  f += length;
  f += conversion;
  char buffer[512];
  const int n = std::snprintf(buffer, sizeof buffer, f.c_str(), value);
  return n < 0 ? std::string() : std::string(buffer, std::min<size_t>(static_cast<size_t>(n), sizeof buffer - 1));
}

std::u16string widen(std::string_view ascii) { return std::u16string(ascii.begin(), ascii.end()); }

std::u16string formatOne(const Spec& spec, const LogArg& arg) {
  const bool isInteger = arg.kind() == LogArg::Kind::Signed || arg.kind() == LogArg::Kind::Unsigned;
  switch (spec.conversion) {
    case 'd':
    case 'i':
      if (!isInteger) return u"?";
      return spec.wide64 ? widen(cFormat(spec, "ll", 'd', static_cast<long long>(arg.integer())))
                         : widen(cFormat(spec, "", 'd', static_cast<int32_t>(arg.integer())));
    case 'u':
    case 'x':
    case 'X':
    case 'o':
      if (!isInteger) return u"?";
      return spec.wide64
                 ? widen(cFormat(spec, "ll", spec.conversion, static_cast<unsigned long long>(arg.integer())))
                 : widen(cFormat(spec, "", spec.conversion, static_cast<uint32_t>(arg.integer())));
    case 'c':
      if (!isInteger) return u"?";
      return platform::validUtf16(std::u16string(1, static_cast<char16_t>(arg.integer())));
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
      if (arg.kind() == LogArg::Kind::Real) return widen(cFormat(spec, "", spec.conversion, arg.real()));
      if (isInteger) return widen(cFormat(spec, "", spec.conversion, static_cast<double>(arg.integer())));
      return u"?";
    case 's':
    case 'S': {
      std::u16string text;
      // Names come from clients: the log stays valid UTF-16 whatever they hold.
      if (arg.kind() == LogArg::Kind::Wide) text = platform::validUtf16(arg.wide());
      else if (arg.kind() == LogArg::Kind::Narrow) text = platform::toUtf16(arg.narrow());
      else return u"?";
      if (spec.precision >= 0 && text.size() > static_cast<size_t>(spec.precision)) {
        text.resize(spec.precision);
        // Never half a pair at the cut.
        if (!text.empty() && text.back() >= 0xD800 && text.back() <= 0xDBFF) text.pop_back();
      }
      return text;
    }
    default:
      return u"?";
  }
}

}  // namespace

std::u16string formatWide(std::u16string_view format, std::span<const LogArg> args) {
  std::u16string out;
  out.reserve(format.size() + 32);
  size_t next = 0;
  size_t i = 0;
  while (i < format.size()) {
    const char16_t c = format[i++];
    if (c != u'%') {
      out.push_back(c);
      continue;
    }
    if (i < format.size() && format[i] == u'%') {
      out.push_back(u'%');
      ++i;
      continue;
    }
    Spec spec;
    while (i < format.size() && std::u16string_view(u"-+ #0").find(format[i]) != std::u16string_view::npos) {
      spec.flags.push_back(static_cast<char>(format[i++]));
    }
    auto number = [&] {
      int v = 0;
      while (i < format.size() && format[i] >= u'0' && format[i] <= u'9' && v < 10000) v = v * 10 + (format[i++] - u'0');
      return v;
    };
    if (i < format.size() && format[i] >= u'0' && format[i] <= u'9') spec.width = number();
    if (i < format.size() && format[i] == u'.') {
      ++i;
      spec.precision = number();
    }
    for (;;) {
      if (i < format.size() && (format[i] == u'h' || format[i] == u'z' || format[i] == u'L')) {
        ++i;
      } else if (i < format.size() && format[i] == u'l') {
        ++i;
        if (i < format.size() && format[i] == u'l') {
          spec.wide64 = true;
          ++i;
        }
      } else if (format.substr(i, 3) == u"I64") {
        spec.wide64 = true;
        i += 3;
      } else {
        break;
      }
    }
    if (i >= format.size()) break;
    spec.conversion = static_cast<char>(format[i++]);
    if (next >= args.size()) continue;
    pad(out, formatOne(spec, args[next++]), spec);
  }
  return out;
}

}  // namespace kestrium
