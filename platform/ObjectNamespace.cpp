#include <mutex>
#include <optional>

#include "platform/System.h"

namespace kestrium::platform {

namespace {

std::mutex namespaceMutex;
std::optional<std::u16string> currentNamespace;

}  // namespace

std::u16string objectNamespace() {
  std::lock_guard lock(namespaceMutex);
  if (!currentNamespace) currentNamespace = environmentVariable("KESTRIUM_NAMESPACE").value_or(u"");
  return *currentNamespace;
}

void setObjectNamespace(std::u16string ns) {
  std::lock_guard lock(namespaceMutex);
  currentNamespace = std::move(ns);
}

}  // namespace kestrium::platform
