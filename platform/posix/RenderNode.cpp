#include "platform/RenderNode.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "platform/System.h"
#include "platform/Text.h"

namespace kestrium::platform {

RenderNode::~RenderNode() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

RenderNode::RenderNode(RenderNode&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

RenderNode& RenderNode::operator=(RenderNode&& other) noexcept {
  if (this != &other) {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = std::exchange(other.descriptor_, -1);
  }
  return *this;
}

bool RenderNode::open(const std::string& path) {
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  return descriptor_ >= 0;
}

std::vector<std::string> renderNodePaths() {
  if (auto node = environmentVariable("KESTRIUM_RENDER_NODE")) return {toUtf8(*node)};
  std::vector<std::string> nodes;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/dri", error)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("renderD", 0) == 0) nodes.push_back(entry.path().string());
  }
  // renderD128 is the first GPU; names have the same length, so text order is theirs.
  std::sort(nodes.begin(), nodes.end());
  return nodes;
}

}  // namespace kestrium::platform
