#include "videoEncoder/NV_Enc/NvencProbe.h"

#include <mutex>

#include "platform/SharedMapping.h"
#include "recorder/CommonData.h"
#include "server/CommandBlock.h"
#include "server/Log.h"
#include "videoEncoder/NV_Enc/NvencDriver.h"

namespace kestrium {

namespace {

// Compute capability as major * 16 + minor: NVENC came with 3.0.
constexpr int kFirstWithEncoder = 3 * 16 + 0;

std::mutex& devicesLock() {
  static std::mutex lock;
  return lock;
}
std::vector<NvencDevice>& devicesFound() {
  static std::vector<NvencDevice> devices;
  return devices;
}

std::vector<NvencDevice> findDevices(CudaDriver& cuda) {
  std::vector<NvencDevice> usable;
  if (const CUresult status = cuda.cuInit(0); status != CUDA_SUCCESS) {
    logLine(u"[Error]   *** NVENC *** cuInit() failed error:0x%x\n", static_cast<uint32_t>(status));
    return usable;
  }
  int count = 0;
  if (const CUresult status = cuda.cuDeviceGetCount(&count); status != CUDA_SUCCESS) {
    logLine(u"[Error]   *** NVENC *** cuDeviceGetCount() failed error:0x%x\n", static_cast<uint32_t>(status));
    return usable;
  }
  if (count <= 0) {
    logLine(u"[Error]   *** NVENC *** no devices available that support CUDA\n");
    return usable;
  }
  logLine(u"  *** NVENC *** has detected %d CUDA capable GPU device(s)\n", count);
  for (int number = 0; number < count; ++number) {
    CUdevice device = 0;
    if (cuda.cuDeviceGet(&device, number) != CUDA_SUCCESS) {
      logLine(u"[Error]   *** NVENC *** Error getting device %d\n", number);
      continue;
    }
    char name[100] = {};
    if (cuda.cuDeviceGetName(name, sizeof name, device) != CUDA_SUCCESS) {
      logLine(u"[Error]   *** NVENC *** Error getting device name %d\n", number);
      continue;
    }
    name[sizeof name - 1] = '\0';  // a driver that fills the whole room ends the name here
    int major = 0;
    int minor = 0;
    if (cuda.cuDeviceComputeCapability(&major, &minor, device) != CUDA_SUCCESS) {
      logLine(u"[Error]   *** NVENC *** Error getting device compute capabilities %d\n", number);
      continue;
    }
    const bool available = major * 16 + minor >= kFirstWithEncoder;
    logLine(u"  *** NVENC *** GPU %d - %S has Compute SM %d.%d, NVENC %S\n", number, name, major, minor,
            available ? "Available" : "Not Available");
    if (available) usable.push_back({name, number});
  }
  return usable;
}

}  // namespace

int probeNvencDevices() {
  CudaDriver cuda;
  if (!cuda.load()) return 0;
  platform::SharedMapping features(std::u16string(kFeaturesName), sizeof(FeaturesBlock));
  std::vector<NvencDevice> usable = findDevices(cuda);
  const int count = static_cast<int>(usable.size());
  if (features.open()) {
    if (auto* block = features.as<FeaturesBlock>()) storeShared(block->nvenc, count > 0 ? 1u : 0u);
  } else {
    logLine(u"[Error]   *** NVENC *** Cannot open the features block to publish %d devices\n", count);
  }
  std::lock_guard guard(devicesLock());
  devicesFound() = std::move(usable);
  return count;
}

std::vector<NvencDevice> nvencDevices() {
  std::lock_guard guard(devicesLock());
  return devicesFound();
}

}  // namespace kestrium
