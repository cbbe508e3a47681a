#pragma once

// NVIDIA's driver as the server reaches it: the CUDA driver and the NVENC
// runtime, both loaded at run time through the vendor library table and never
// linked, so the server runs on every machine and uses the card where there is
// one.

#include <dynlink_cuda.h>
#include <nvEncodeAPI.h>

#include <string_view>

#include "platform/SharedLibrary.h"

namespace kestrium {

// The calls of the CUDA driver the server makes.
struct CudaDriver {
  platform::SharedLibrary library;
  tcuInit* cuInit = nullptr;
  tcuDeviceGetCount* cuDeviceGetCount = nullptr;
  tcuDeviceGet* cuDeviceGet = nullptr;
  tcuDeviceGetName* cuDeviceGetName = nullptr;
  tcuDeviceComputeCapability* cuDeviceComputeCapability = nullptr;
  tcuCtxCreate_v2* cuCtxCreate_v2 = nullptr;
  tcuCtxPopCurrent_v2* cuCtxPopCurrent_v2 = nullptr;
  tcuCtxDestroy_v2* cuCtxDestroy_v2 = nullptr;

  // False when the library is not there (nothing logged: the ordinary case) or
  // lacks a call (logged).
  bool load();
};

// The NVENC runtime: its function list, filled by the runtime itself.
struct NvencRuntime {
  platform::SharedLibrary library;
  NV_ENCODE_API_FUNCTION_LIST api{};

  // False, with a log line, when the library is missing or refuses to give its
  // functions to this version of the API.
  bool load();
};

// The text of an NVENC status, "<unknown>" for a value the API does not define.
std::string_view nvencStatusText(int status);
// The name of a CUDA driver error ("CUDA_ERROR_INVALID_DEVICE").
std::string_view cudaErrorName(int status);

// The source named in the error lines of the encoder, as users and support know
// it from every log.
inline constexpr std::string_view kNvencSourceName = "videoEncoder\\NV_Enc\\CNVEncoder";

// Log lines of a failed call: CUDA's and NVENC's.
void logCudaError(int status, std::string_view call);
void logNvencError(int status, int line, std::string_view call);

}  // namespace kestrium
