#include "videoEncoder/NV_Enc/NvencDriver.h"

#include <iterator>
#include <utility>

#include "server/Log.h"

namespace kestrium {

namespace {

template <class Fn>
bool find(const platform::SharedLibrary& library, const char* name, Fn*& into) {
  into = library.function<Fn*>(name);
  if (into == nullptr) {
    logLine(u"[Error]   *** NVENC *** The CUDA driver has no %S; it cannot be used\n", name);
    return false;
  }
  return true;
}

// The text a table gives a code, or the fallback for a code it lacks.
template <size_t N>
std::string_view textOf(const std::pair<int, std::string_view> (&table)[N], int code, std::string_view fallback) {
  for (const auto& [c, text] : table) {
    if (c == code) return text;
  }
  return fallback;
}

}  // namespace

bool CudaDriver::load() {
  if (!platform::loadVendorLibrary(platform::VendorLibrary::Cuda, library)) return false;
  return find(library, "cuInit", cuInit) && find(library, "cuDeviceGetCount", cuDeviceGetCount) &&
         find(library, "cuDeviceGet", cuDeviceGet) && find(library, "cuDeviceGetName", cuDeviceGetName) &&
         find(library, "cuDeviceComputeCapability", cuDeviceComputeCapability) &&
         find(library, "cuCtxCreate_v2", cuCtxCreate_v2) && find(library, "cuCtxPopCurrent_v2", cuCtxPopCurrent_v2) &&
         find(library, "cuCtxDestroy_v2", cuCtxDestroy_v2);
}

bool NvencRuntime::load() {
  if (!platform::loadVendorLibrary(platform::VendorLibrary::Nvenc, library)) {
    logLine(u"[Error]   CNvEncoder::CNvEncoder() failed to load %S!\n",
            platform::vendorLibraryFile(platform::VendorLibrary::Nvenc));
    return false;
  }
  using CreateInstance = NVENCSTATUS(NVENCAPI*)(NV_ENCODE_API_FUNCTION_LIST*);
  const auto create = library.function<CreateInstance>("NvEncodeAPICreateInstance");
  if (create == nullptr) {
    logLine(u"[Error]   CNvEncoder::CNvEncoder() failed to load %S!\n",
            platform::vendorLibraryFile(platform::VendorLibrary::Nvenc));
    return false;
  }
  api = {};
  api.version = NV_ENCODE_API_FUNCTION_LIST_VER;
  if (const NVENCSTATUS status = create(&api); status != NV_ENC_SUCCESS) {
    logNvencError(status, __LINE__, "NvEncodeAPICreateInstance(&api)");
    return false;
  }
  return true;
}

std::string_view nvencStatusText(int status) {
  static constexpr std::pair<int, std::string_view> kTexts[] = {
      {0, "NVENC Success"},
      {1, "NVENC No Available Encoding Device"},
      {2, "NVENC that devices pass by the client is not supported"},
      {3, "NVENC this indicates that the encoder device supplied by the client is not valid"},
      {4, "NVENC this indicates that device passed to the API call is invalid"},
      {5,
       "NVENC This indicates that device passed to the API call is no longer available and needs to be "
       "reinitialized."},
      {6, "NVENC one or more of the pointers passed to the API call is invalid."},
      {7, "NVENC indicates that completion event passed in ::NvEncEncodePicture() call is invalid."},
      {8, "NVENC indicates that one or more of the parameter passed to the API call is invalid."},
      {9, "NVENC indicates that an API call was made in wrong sequence/order."},
      {10,
       "NVENC indicates that the API call failed because it was unable to allocate enough memory to perform the "
       "requested operation."},
      {11,
       "NVENC indicates that the encoder has not been initialized with::NvEncInitializeEncoder() or that "
       "initialization has failed."},
      {12, "NVENC  that an unsupported parameter was passed by the client."},
      {13, "NVENC indicates that the ::NvEncLockBitstream() failed to lock the output  buffer."},
      {14,
       "NVENC indicates that the size of the user buffer passed by the client is insufficient for the requested "
       "operation"},
      {15, "NVENC indicates that an invalid struct version was used by the client"},
      {16, "NVENC NvEncMapInputResource() API failed to map the client provided input resource."},
      {17, "NVENC HW encode driver requires more input buffers to produce an output bitstream"},
      {18,
       "NVENC HW encoder is busy encoding and is unable to encode the input. The client should call "
       "::NvEncEncodePicture() again after few milliseconds."},
      {19,
       "NVENC completion event passed in ::NvEncEncodePicture() API has not been registered with encoder driver "
       "using ::NvEncRegisterAsyncEvent()"},
      {20, "NVENC unknown internal error"},
      {22, "NVENC Feature has not been implemented yet."},
      {23, "NVENC NvEncRegisterResource failed to register resource."},
      {24, "NVENC Client is attempting to unregister resource that hasn't been registered."},
      {25, "NVENC Client is attempting to unmap resource that hasn't been mapped."},
  };
  return textOf(kTexts, status, "<unknown>");
}

std::string_view cudaErrorName(int status) {
  static constexpr std::pair<int, std::string_view> kNames[] = {
      {0, "CUDA_SUCCESS"},
      {1, "CUDA_ERROR_INVALID_VALUE"},
      {2, "CUDA_ERROR_OUT_OF_MEMORY"},
      {3, "CUDA_ERROR_NOT_INITIALIZED"},
      {4, "CUDA_ERROR_DEINITIALIZED"},
      {34, "CUDA_ERROR_STUB_LIBRARY"},
      {100, "CUDA_ERROR_NO_DEVICE"},
      {101, "CUDA_ERROR_INVALID_DEVICE"},
      {102, "CUDA_ERROR_DEVICE_NOT_LICENSED"},
      {200, "CUDA_ERROR_INVALID_IMAGE"},
      {201, "CUDA_ERROR_INVALID_CONTEXT"},
      {202, "CUDA_ERROR_CONTEXT_ALREADY_CURRENT"},
      {216, "CUDA_ERROR_CONTEXT_ALREADY_IN_USE"},
      {304, "CUDA_ERROR_OPERATING_SYSTEM"},
      {600, "CUDA_ERROR_NOT_READY"},
      {702, "CUDA_ERROR_LAUNCH_TIMEOUT"},
      {709, "CUDA_ERROR_CONTEXT_IS_DESTROYED"},
      {800, "CUDA_ERROR_NOT_PERMITTED"},
      {801, "CUDA_ERROR_NOT_SUPPORTED"},
      {999, "CUDA_ERROR_UNKNOWN"},
  };
  return textOf(kNames, status, "CUDA_ERROR_UNKNOWN");
}

void logCudaError(int status, std::string_view call) {
  logLine(u"[Error]   checkCudaErrors() Driver API error = %04d \"%S\" from file <%S>, in %S\n", status,
          cudaErrorName(status), kNvencSourceName, call);
}

void logNvencError(int status, int line, std::string_view call) {
  logLine(u"[Error]   NVENC error at %S:%d code=%d(%S) \"%S\" \n", kNvencSourceName, line, status,
          nvencStatusText(status), call);
}

}  // namespace kestrium
