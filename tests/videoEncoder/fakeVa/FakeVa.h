#pragma once

// The control side of the fake VA-API library that the AMD and Quick Sync tests
// load in place of libva and libva-drm (the real libva refuses a file that is
// not a DRM node, so a fake driver cannot go through it). It exports the calls
// the server makes, plays one GPU with an H.264 encoder, and is as strict as a
// driver: what it is asked, and every rule broken, it records for the test.
//
// The test links this library and points KESTRIUM_LIB_VA and KESTRIUM_LIB_VA_DRM
// at the same file, so the server's run-time load finds the very instance the
// test controls.

#include <va/va.h>
#include <va/va_enc_h264.h>

#include <cstddef>
#include <cstdint>

#define FAKE_VA_API __attribute__((visibility("default")))

extern "C" {

// One picture that vaEndPicture coded.
struct FakeVaPicture {
  VAEncPictureParameterBufferH264 picture;
  VAEncSliceParameterBufferH264 slice;  // the first slice
  int slices;                           // slice parameter buffers rendered with it
  int sequenceSent;                     // a sequence parameter buffer came with this picture
  VASurfaceID source;                   // vaBeginPicture's render target
  uint32_t width, height;               // of the source surface
  const uint8_t* nv12;                  // the source surface at vaEndPicture, packed: width x height
  size_t nv12Size;                      // luma, then height / 2 rows of width bytes of U, V pairs
  uint32_t accessUnit;                  // index of the clip's access unit it was answered with
};

// Back to the start: a display whose vendor string is "Mesa Gallium driver
// 23.1.1 for AMD Radeon RX 6600 (fake)"; H.264 encoding (VAEntrypointEncSlice)
// for VAProfileH264ConstrainedBaseline, Main and High; rate control CBR, VBR
// and CQP; quality levels 1..7; no packed headers; no failures, no clip, nothing
// recorded, nothing alive. Pointers handed out before are invalid afterwards.
FAKE_VA_API void FakeVa_Reset(void);

FAKE_VA_API void FakeVa_SetVendor(const char* vendor);
// The profiles that have VAEntrypointEncSlice; every profile keeps VAEntrypointVLD.
FAKE_VA_API void FakeVa_SetEncodeProfiles(const VAProfile* profiles, int count);

// The call of that name ("vaInitialize", "vaCreateContext", ...) returns status
// on its occurrence-th call from now on (1: the next one), or on every call when
// occurrence is 0. For vaGetDisplayDRM any non-zero status makes it return null.
// A call made to fail has no other effect.
FAKE_VA_API void FakeVa_Fail(const char* call, int status, int occurrence);

// Appends one access unit (Annex B, start codes included) to the clip the
// encoder answers with: the n-th picture of a context gets unit n modulo the
// count, in the coded buffer as two segments (split in the middle).
FAKE_VA_API void FakeVa_AddAccessUnit(const uint8_t* annexB, size_t size);

// Every call made, by name, in order, one per line. Valid until the next call.
FAKE_VA_API const char* FakeVa_CallLog(void);

// The last vaCreateConfig that succeeded: its profile, entry point, and the
// values of its VAConfigAttribRTFormat and VAConfigAttribRateControl attributes
// (0 when not given). 0 when there was none.
FAKE_VA_API int FakeVa_Config(VAProfile* profile, VAEntrypoint* entrypoint, uint32_t* rtFormat,
                              uint32_t* rateControl);
// The last sequence parameters rendered; 0 when none were.
FAKE_VA_API int FakeVa_Sequence(VAEncSequenceParameterBufferH264* out);
// The last miscellaneous parameters of each kind rendered; 0 when none were.
FAKE_VA_API int FakeVa_RateControl(VAEncMiscParameterRateControl* out);
FAKE_VA_API int FakeVa_FrameRate(VAEncMiscParameterFrameRate* out);
FAKE_VA_API int FakeVa_Hrd(VAEncMiscParameterHRD* out);
FAKE_VA_API int FakeVa_QualityLevel(VAEncMiscParameterBufferQualityLevel* out);
// Surfaces made by vaCreateSurfaces since the reset, and the last context's size.
FAKE_VA_API int FakeVa_SurfacesCreated(void);
FAKE_VA_API int FakeVa_ContextSize(int* width, int* height);

// Pictures coded since the reset, in order.
FAKE_VA_API int FakeVa_PictureCount(void);
FAKE_VA_API int FakeVa_Picture(int index, FakeVaPicture* out);

// Every rule broken since the reset, one per line, and then every object still
// alive (display, config, surface, context, buffer, image, mapping), or "" when
// all is well. Valid until the next call.
FAKE_VA_API const char* FakeVa_Violations(void);

}  // extern "C"
