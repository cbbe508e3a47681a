#include "platform/Text.h"

#include <cstdint>

namespace kestrium::platform {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void appendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

void appendUtf16(std::u16string& out, char32_t c) {
  if (c < 0x10000) {
    out.push_back(static_cast<char16_t>(c));
  } else {
    c -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 | (c >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 | (c & 0x3FF)));
  }
}

bool isHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool isLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

}  // namespace

std::string toUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (isHighSurrogate(c) && i + 1 < text.size() && isLowSurrogate(text[i + 1])) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (isHighSurrogate(c) || isLowSurrogate(c)) {
      c = kReplacement;
    }
    appendUtf8(out, c);
  }
  return out;
}

std::u16string toUtf16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<uint8_t>(text[i]);
    size_t length = 0;
    char32_t c = 0;
    char32_t minimum = 0;
    if (lead < 0x80) {
      length = 1;
      c = lead;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2;
      c = lead & 0x1F;
      minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3;
      c = lead & 0x0F;
      minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4;
      c = lead & 0x07;
      minimum = 0x10000;
    }
    bool ok = length != 0 && i + length <= text.size();
    for (size_t k = 1; ok && k < length; ++k) {
      const auto next = static_cast<uint8_t>(text[i + k]);
      ok = (next & 0xC0) == 0x80;
      c = (c << 6) | (next & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not characters.
    ok = ok && c >= minimum && c <= 0x10FFFF && !(c >= 0xD800 && c <= 0xDFFF);
    if (ok) {
      appendUtf16(out, c);
      i += length;
    } else {
      appendUtf16(out, kReplacement);
      ++i;
    }
  }
  return out;
}

std::u16string validUtf16(std::u16string_view text) {
  std::u16string out(text);
  for (size_t i = 0; i < out.size(); ++i) {
    if (isHighSurrogate(out[i]) && i + 1 < out.size() && isLowSurrogate(out[i + 1])) {
      ++i;
    } else if (isHighSurrogate(out[i]) || isLowSurrogate(out[i])) {
      out[i] = static_cast<char16_t>(kReplacement);
    }
  }
  return out;
}

std::optional<std::filesystem::path> toPath(std::u16string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == u'\0') return std::nullopt;
    if (isHighSurrogate(text[i]) && i + 1 < text.size() && isLowSurrogate(text[i + 1])) {
      ++i;
    } else if (isHighSurrogate(text[i]) || isLowSurrogate(text[i])) {
      return std::nullopt;
    }
  }
  // Valid UTF-16 converts to the OS's encoding without fail.
  return std::filesystem::path(std::u16string(text));
}

}  // namespace kestrium::platform
