#pragma once

// The control side of the fake NVIDIA driver library that the NVENC tests load in
// place of the CUDA driver and the NVENC runtime. One library plays both: it
// exports the CUDA driver calls the server uses and NvEncodeAPICreateInstance,
// and it is as strict as a driver. What it is asked, and every rule broken, it
// records for the test to read.
//
// The test links this library and points KESTRIUM_LIB_CUDA and KESTRIUM_LIB_NVENC
// at the same file, so the server's run-time load finds the very instance the
// test controls.

#include <nvEncodeAPI.h>

#include <cstddef>
#include <cstdint>

#if defined(_WIN32)
#if defined(FAKE_NVENC_BUILDING)
#define FAKE_NVENC_API __declspec(dllexport)
#else
#define FAKE_NVENC_API __declspec(dllimport)
#endif
#else
#define FAKE_NVENC_API __attribute__((visibility("default")))
#endif

// The CUDA driver's error codes the fake answers with (dynlink_cuda.h names
// none of them), for FakeNv_Fail and for checking what the server reports.
constexpr int FAKE_CUDA_ERROR_INVALID_VALUE = 1;
constexpr int FAKE_CUDA_ERROR_NOT_INITIALIZED = 3;
constexpr int FAKE_CUDA_ERROR_NO_DEVICE = 100;
constexpr int FAKE_CUDA_ERROR_INVALID_DEVICE = 101;
constexpr int FAKE_CUDA_ERROR_INVALID_CONTEXT = 201;

extern "C" {

struct FakeNvDevice {
  char name[100];
  int major;  // compute capability
  int minor;
};

// One picture that nvEncEncodePicture accepted with an input buffer.
struct FakeNvPicture {
  uint64_t inputTimeStamp;
  uint32_t encodePicFlags;
  uint32_t inputWidth;
  uint32_t inputHeight;
  uint32_t inputPitch;       // as the picture parameters gave it
  const uint8_t* nv12;       // the surface at encode time, packed: inputWidth x inputHeight
  size_t nv12Size;           // luma rows, then inputHeight / 2 rows of interleaved chroma
  uint32_t accessUnit;       // index of the clip's access unit it was answered with
  NV_ENC_PIC_TYPE pictureType;
};

// Back to the start: one device "Fake NVENC GPU" of compute capability 5.2; the
// presets P1..P7 in that order; the profiles autoselect, baseline, main, high;
// the input formats NV12, YV12, ARGB; no failures, no clip, nothing recorded,
// no objects alive. Pointers handed out before are invalid afterwards.
FAKE_NVENC_API void FakeNv_Reset(void);

FAKE_NVENC_API void FakeNv_SetDevices(const FakeNvDevice* devices, int count);
// Offers only the first count presets of P1..P7.
FAKE_NVENC_API void FakeNv_SetPresetCount(int count);
FAKE_NVENC_API void FakeNv_SetProfiles(const GUID* profiles, int count);
FAKE_NVENC_API void FakeNv_SetInputFormats(const NV_ENC_BUFFER_FORMAT* formats, int count);

// The call of that name ("cuInit", "nvEncOpenEncodeSessionEx",
// "NvEncodeAPICreateInstance", ...) returns status on its occurrence-th call from
// now on (1: the next one), or on every call when occurrence is 0. A call made to
// fail has no other effect. Several calls may be set to fail at once.
FAKE_NVENC_API void FakeNv_Fail(const char* call, int status, int occurrence);

// Appends one access unit (Annex B, start codes included) to the clip the
// encoder answers with: the n-th picture gets unit n modulo the count. Its
// picture type is IDR when it holds a NAL unit of type 5, else P. The sequence
// parameters are the SPS and PPS of the first unit, each behind 00 00 00 01.
FAKE_NVENC_API void FakeNv_AddAccessUnit(const uint8_t* annexB, size_t size);

// Every call made, by name, in order, one per line ("cuInit\ncuDeviceGet\n...").
// The text stays valid until the next call of the fake.
FAKE_NVENC_API const char* FakeNv_CallLog(void);

// What nvEncInitializeEncoder last accepted: the parameters and a copy of the
// configuration they pointed to (the pointer in params is cleared). 0 when it
// was never called successfully.
FAKE_NVENC_API int FakeNv_InitializeParams(NV_ENC_INITIALIZE_PARAMS* params, NV_ENC_CONFIG* config);

// The GUIDs of the presets, in the order the fake offers them.
FAKE_NVENC_API const GUID* FakeNv_PresetGuids(int* count);
// The gopLength of the configuration nvEncGetEncodePresetConfig gives for preset
// index i (each preset has a different one, so a test can tell them apart).
FAKE_NVENC_API int32_t FakeNv_PresetGopLength(int i);

// Input buffers and bitstream buffers created since the reset. An input buffer's pitch is always wider than
// its rows of pixels (the row bytes rounded up to the next multiple of 256,
// never equal), and an NV12 buffer's chroma starts after pitch x its height.
FAKE_NVENC_API int FakeNv_InputBuffersCreated(void);
FAKE_NVENC_API int FakeNv_BitstreamBuffersCreated(void);

// Pictures encoded with an input buffer, in order. Only NV12 pictures carry
// pixels (nv12 is null for the other formats). Each session numbers its
// pictures from 0, so a new session starts again from the clip's first unit.
FAKE_NVENC_API int FakeNv_PictureCount(void);
FAKE_NVENC_API int FakeNv_Picture(int index, FakeNvPicture* out);

// Every rule broken since the reset, one per line, and then every object still
// alive (context, session, buffer, registered event, lock), or "" when all is
// well. Valid until the next call of the fake.
FAKE_NVENC_API const char* FakeNv_Violations(void);

}  // extern "C"
