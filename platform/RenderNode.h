#pragma once

#include <string>
#include <vector>

namespace kestrium::platform {

// A GPU's render node (/dev/dri/renderD128, ...), open for a video API to work
// on; closed when this object goes. Only where the OS has them (not Windows).
class RenderNode {
 public:
  RenderNode() = default;
  ~RenderNode();
  RenderNode(RenderNode&& other) noexcept;
  RenderNode& operator=(RenderNode&& other) noexcept;
  RenderNode(const RenderNode&) = delete;
  RenderNode& operator=(const RenderNode&) = delete;

  bool open(const std::string& path);
  bool isOpen() const { return descriptor_ >= 0; }
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
};

// The render nodes of this machine in their order, or the one file that
// KESTRIUM_RENDER_NODE names: tests whose video library is a fake point it at
// any file that opens, so they never depend on the machine's GPUs.
std::vector<std::string> renderNodePaths();

}  // namespace kestrium::platform
