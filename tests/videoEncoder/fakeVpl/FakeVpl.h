#pragma once

// The control side of the fake oneVPL dispatcher that the Quick Sync tests load
// in place of libvpl. It exports the dispatcher's calls the server makes and is
// as strict as the real runtime on Linux: what it is asked, and every rule
// broken, it records for the test to read.
//
// The test links this library and points KESTRIUM_LIB_QUICKSYNC at the same
// file, so the server's run-time load finds the very instance the test controls.

#include <vpl/mfxvideo.h>

#include <cstddef>
#include <cstdint>

#define FAKE_VPL_API __attribute__((visibility("default")))

extern "C" {

// One picture that MFXVideoENCODE_EncodeFrameAsync accepted.
struct FakeVplPicture {
  uint64_t timeStamp;        // the surface's Data.TimeStamp
  uint16_t width, height;    // the surface's Info.Width, Height
  uint16_t cropW, cropH;     // the surface's Info.CropW, CropH
  uint16_t pitch;            // the surface's Data.Pitch
  const uint8_t* nv12;       // the visible picture, packed: cropW x cropH luma, then cropH / 2 rows of
  size_t nv12Size;           // cropW bytes of interleaved chroma
  uint32_t accessUnit;       // index of the clip's access unit it was answered with
};

// Back to the start: a hardware implementation that encodes (MFXInit with a
// hardware implementation succeeds and MFXQueryIMPL says MFX_IMPL_HARDWARE |
// MFX_IMPL_VIA_VAAPI; MFX_IMPL_SOFTWARE is MFX_ERR_UNSUPPORTED); a VA display
// required before the encoder is queried or initialised; 4 surfaces suggested;
// no delay; no failures, no clip, nothing recorded, no sessions alive. Pointers
// handed out before are invalid afterwards.
FAKE_VPL_API void FakeVpl_Reset(void);

// The runtime of a machine without the GPU: MFXInit succeeds, and
// MFXVideoENCODE_Query, _QueryIOSurf, _Init and _EncodeFrameAsync fail as the
// real one does there (MFX_ERR_UNSUPPORTED, MFX_ERR_INVALID_VIDEO_PARAM).
FAKE_VPL_API void FakeVpl_SetNoGpu(int noGpu);
// Whether a hardware session needs MFXVideoCORE_SetHandle(MFX_HANDLE_VA_DISPLAY)
// before MFXVideoENCODE_Query/_QueryIOSurf/_Init (MFX_ERR_NOT_INITIALIZED
// without); 1 after a reset.
FAKE_VPL_API void FakeVpl_SetRequireVaDisplay(int required);
// NumFrameSuggested (and NumFrameMin) that MFXVideoENCODE_QueryIOSurf answers.
FAKE_VPL_API void FakeVpl_SetSuggestedSurfaces(int count);
// The encoder holds this many pictures before the first coded frame comes out
// (MFX_ERR_MORE_DATA for each of them); a drain with a null surface gives them.
FAKE_VPL_API void FakeVpl_SetDelay(int pictures);
// The BufferSizeInKB that MFXVideoENCODE_GetVideoParam answers, smaller than a
// frame may need (MFX_ERR_NOT_ENOUGH_BUFFER then asks for a larger bitstream);
// 0, after a reset: room for any frame.
FAKE_VPL_API void FakeVpl_SetBufferSizeInKB(int kb);

// The call of that name ("MFXInit", "MFXVideoENCODE_Init", ...) returns status
// on its occurrence-th call from now on (1: the next one), or on every call when
// occurrence is 0. A call made to fail has no other effect, except that
// MFX_ERR_DEVICE_LOST and MFX_ERR_DEVICE_FAILED from
// MFXVideoENCODE_EncodeFrameAsync or MFXVideoCORE_SyncOperation also lose every
// picture in flight, as a lost device does: their sync points are invalid and
// the encoder answers only MFX_ERR_DEVICE_LOST until it is closed and
// initialised again.
FAKE_VPL_API void FakeVpl_Fail(const char* call, int status, int occurrence);

// Appends one access unit (Annex B, start codes included) to the clip the
// encoder answers with: the n-th picture of a session gets unit n modulo the
// count. A unit with a NAL unit of type 5 comes out with FrameType
// MFX_FRAMETYPE_I | MFX_FRAMETYPE_REF | MFX_FRAMETYPE_IDR, any other with
// MFX_FRAMETYPE_P | MFX_FRAMETYPE_REF. GetVideoParam's mfxExtCodingOptionSPSPPS
// gives the SPS and PPS of the first unit, each behind 00 00 00 01.
FAKE_VPL_API void FakeVpl_AddAccessUnit(const uint8_t* annexB, size_t size);

// Every call made, by name, in order, one per line ("MFXInit\nMFXQueryIMPL\n...").
// Valid until the next call of the fake.
FAKE_VPL_API const char* FakeVpl_CallLog(void);

// What MFXVideoENCODE_Init last accepted (ExtParam cleared). 0 when it never did.
FAKE_VPL_API int FakeVpl_InitParams(mfxVideoParam* params);
// The implementation of the last MFXInit call and the VA display handed over by
// the last MFXVideoCORE_SetHandle (null when none).
FAKE_VPL_API mfxIMPL FakeVpl_LastInitImpl(void);
FAKE_VPL_API void* FakeVpl_VaDisplay(void);

// Pictures accepted, in order, across sessions since the reset.
FAKE_VPL_API int FakeVpl_PictureCount(void);
FAKE_VPL_API int FakeVpl_Picture(int index, FakeVplPicture* out);

// Every rule broken since the reset, one per line, and then every session or
// encoder still alive, or "" when all is well. Valid until the next call.
FAKE_VPL_API const char* FakeVpl_Violations(void);

}  // extern "C"
