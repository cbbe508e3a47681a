#include "platform/win32/Win32Names.h"

#include "platform/System.h"

namespace kestrium::platform::win32 {

std::u16string kernelObjectName(std::u16string_view name) {
  if (name.empty()) return {};
  const std::u16string ns = objectNamespace();
  if (ns.empty()) return std::u16string(name);

  // A backslash would make the kernel look for a namespace directory ("Global\")
  // and a colon would make the prefix ambiguous, so neither survives in the prefix.
  std::u16string result;
  result.reserve(ns.size() + 1 + name.size());
  for (char16_t c : ns) result.push_back(c == u'\\' || c == u':' ? u'_' : c);
  result.push_back(u':');
  result.append(name);
  return result;
}

namespace {
bool isSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }
bool isDriveLetter(wchar_t c) { return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z'); }
}  // namespace

std::wstring volumeRoot(std::wstring_view path) {
  if (path.size() >= 2 && isDriveLetter(path[0]) && path[1] == L':') {
    return std::wstring(path.substr(0, 2)) + L'\\';
  }
  if (path.size() > 2 && isSeparator(path[0]) && isSeparator(path[1])) {
    const size_t serverEnd = path.find_first_of(L"\\/", 2);
    if (serverEnd == std::wstring_view::npos || serverEnd == 2) return {};
    size_t shareEnd = path.find_first_of(L"\\/", serverEnd + 1);
    if (shareEnd == std::wstring_view::npos) shareEnd = path.size();
    if (shareEnd == serverEnd + 1) return {};
    std::wstring root = L"\\\\";
    root.append(path.substr(2, serverEnd - 2));
    root.push_back(L'\\');
    root.append(path.substr(serverEnd + 1, shareEnd - serverEnd - 1));
    root.push_back(L'\\');
    return root;
  }
  return {};
}

}  // namespace kestrium::platform::win32
