// The fake oneVPL dispatcher (see FakeVpl.h). Every entry point takes the one
// lock, logs itself, answers an injected failure if the test set one, and
// otherwise checks what it is given the way the runtime would, recording each
// rule broken. Sessions and sync points are addresses of records that stay
// allocated until the next reset, so a handle used after its close or sync is
// recognised instead of being mistaken for a newer record at the same address.

#include "FakeVpl.h"

#include "tests/videoEncoder/FakeDriverSupport.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#define FAKE_EXPORT __attribute__((visibility("default")))

// The header leaves both types opaque; here they are the records.
struct _mfxSession {
  // A picture the encoder accepted and has not given back yet: its surface
  // stays locked (Data.Locked counted up) until its frame is synced or the
  // encoder closed.
  struct Held {
    mfxFrameSurface1* surface;
    uint64_t timeStamp;  // the surface's when it was accepted
    uint32_t unit;       // the clip's unit it is answered with
  };
  int id;
  bool alive = true;
  void* vaDisplay = nullptr;
  bool initialized = false, lost = false;
  mfxVideoParam params{};  // as Init accepted them, ExtParam cleared
  int delay = 0;
  uint32_t pictures = 0;  // the next picture's index: clip units restart with each Init
  std::deque<Held> held;  // accepted, no sync point yet (the encoder's delay)
  std::vector<_mfxSyncPoint*> pending;  // handed out, not synced yet
};

struct _mfxSyncPoint {
  int id;
  _mfxSession* session;
  enum { Pending, Synced, Dropped } state = Pending;
  _mfxSession::Held picture;
  mfxBitstream* bitstream;
};

namespace {

struct Recorded {
  FakeVplPicture picture;
  std::vector<uint8_t> nv12;
};

// Everything a reset returns to its start.
struct World : kestrium::fake::Journal {
  bool noGpu = false, requireVaDisplay = true;
  int suggestedSurfaces = 4, delay = 0;
  int bufferSizeInKB = 0;  // what GetVideoParam says; 0: room for any frame
  std::deque<Recorded> pictures;        // a deque, so the handed-out pixels never move
  bool haveInit = false;
  mfxVideoParam init{};
  mfxIMPL lastImpl = MFX_IMPL_AUTO;
  void* lastVaDisplay = nullptr;

  int nextId = 1;
  std::vector<std::unique_ptr<_mfxSession>> sessions;
  std::map<const _mfxSyncPoint*, std::unique_ptr<_mfxSyncPoint>> syncPoints;
};

struct State {
  std::mutex mutex;
  World world;
};

// A server process that an end-to-end test starts is out of reach of the
// control functions: there the environment sets the fake up as it loads.
// FAKE_VPL_CLIP names an Annex B file whose access units (each behind its
// delimiter, NAL type 9) become the clip; FAKE_VPL_FAIL is "call:status:occurrence";
// FAKE_VPL_NOGPU=1 plays a machine without the GPU.
void arrangeFromEnvironment(World& w) {
  w.clip = kestrium::fake::clipFromEnvironment("FAKE_VPL_CLIP");
  w.failures.addFromEnvironment("FAKE_VPL_FAIL");
  if (const char* noGpu = std::getenv("FAKE_VPL_NOGPU")) w.noGpu = std::strcmp(noGpu, "1") == 0;
}

// Never destroyed: a server thread may still call in while the process exits.
State& state() {
  static State* s = [] {
    auto* made = new State;
    arrangeFromEnvironment(made->world);
    return made;
  }();
  return *s;
}

using kestrium::fake::num;

// The session a handle names, or null with the rule recorded.
_mfxSession* findSession(World& w, const char* call, mfxSession handle) {
  std::string what = handle ? "unknown session handle" : "null session";
  for (auto& s : w.sessions)
    if (s.get() == handle) {
      if (s->alive) return s.get();
      what = "session " + num(s->id) + " used after MFXClose";
    }
  w.rule(call, what, MFX_ERR_NONE);
  return nullptr;
}

// The runtime counts a surface's Data.Locked from its own threads while the
// server may be looking at it, so the count changes atomically.
void countLock(mfxFrameSurface1* surface, bool locking) {
  std::atomic_ref<mfxU16> locked(surface->Data.Locked);
  if (locking) ++locked;
  else if (locked.load()) --locked;
}

// The encoder gives back every picture it holds: held ones and those whose
// sync point was not synced. Their surfaces are unlocked as the runtime does
// when it drops a task; the server must not have freed them yet.
void closeEncoder(_mfxSession& s) {
  for (_mfxSyncPoint* sp : s.pending) {
    sp->state = _mfxSyncPoint::Dropped;
    countLock(sp->picture.surface, false);
  }
  for (const _mfxSession::Held& h : s.held) countLock(h.surface, false);
  s.pending.clear();
  s.held.clear();
  s.initialized = s.lost = false;
  s.pictures = 0;
}

// An injected MFX_ERR_DEVICE_LOST or _DEVICE_FAILED from EncodeFrameAsync or
// SyncOperation (the calls that pass their session) takes the encoder's
// pictures with it: it answers MFX_ERR_DEVICE_LOST until closed and initialised.
mfxStatus injected(World& w, mfxSession handle, int status) {
  if (status == MFX_ERR_DEVICE_LOST || status == MFX_ERR_DEVICE_FAILED)
    for (auto& s : w.sessions)
      if (s.get() == handle && s->alive && s->initialized) s->lost = true;
  return static_cast<mfxStatus>(status);
}

#define FAKE_LOCK()                                \
  std::lock_guard<std::mutex> lock(state().mutex); \
  World& w = state().world

// The function name doubles as the log entry; __func__ is the plain name.
#define FAKE_INJECT(handle) \
  if (const std::optional<int> status = w.enter(__func__)) return injected(w, handle, *status)

#define FAKE_SESSION(handle)                         \
  _mfxSession* s = findSession(w, __func__, handle); \
  if (!s) return MFX_ERR_INVALID_HANDLE

// The entry of a call on a session; only the _LOSING ones lose the device.
#define FAKE_ENTER(handle) \
  FAKE_LOCK();             \
  FAKE_INJECT(nullptr);    \
  FAKE_SESSION(handle)

#define FAKE_ENTER_LOSING(handle) \
  FAKE_LOCK();                    \
  FAKE_INJECT(handle);            \
  FAKE_SESSION(handle)

#define FAKE_RULE(what, status) w.rule(__func__, what, status)

// What the runtime answers before the encoder looks at any parameter: nothing
// on a machine without the GPU, nothing on Linux before it has a VA display.
#define FAKE_DEVICE(noGpuStatus)            \
  if (w.noGpu) return noGpuStatus;          \
  if (w.requireVaDisplay && !s->vaDisplay) return MFX_ERR_NOT_INITIALIZED

// Records every field of the encoder's parameters the server must set
// otherwise; true when there was none. The clip has no B frames and one slice,
// so the parameters must not ask for them.
bool validParams(World& w, const char* call, const mfxVideoParam& p) {
  const mfxFrameInfo& f = p.mfx.FrameInfo;
  bool valid = true;
  auto check = [&](bool ok, const std::string& what) {
    if (!ok) valid = false, w.rule(call, what, MFX_ERR_NONE);
  };
  const std::string size = std::to_string(f.Width) + "x" + std::to_string(f.Height);
  check(p.IOPattern == MFX_IOPATTERN_IN_SYSTEM_MEMORY, "IOPattern is not MFX_IOPATTERN_IN_SYSTEM_MEMORY");
  check(p.mfx.CodecId == MFX_CODEC_AVC, "CodecId is not MFX_CODEC_AVC");
  check(f.FourCC == MFX_FOURCC_NV12, "FourCC is not NV12");
  check(f.ChromaFormat == MFX_CHROMAFORMAT_YUV420, "ChromaFormat is not 4:2:0");
  check(f.PicStruct == MFX_PICSTRUCT_PROGRESSIVE, "PicStruct is not progressive");
  check(f.Width && f.Height && f.Width % 16 == 0 && f.Height % 16 == 0,
        "frame " + size + " is not a non-zero multiple of 16");
  check(f.CropW && f.CropH && f.CropX + f.CropW <= f.Width && f.CropY + f.CropH <= f.Height,
        "crop " + std::to_string(f.CropW) + "x" + std::to_string(f.CropH) + " is empty or outside the frame " + size);
  check(f.FrameRateExtN && f.FrameRateExtD, "no frame rate");
  check(p.mfx.RateControlMethod == MFX_RATECONTROL_VBR, "RateControlMethod is not VBR");
  check(p.mfx.TargetKbps && p.mfx.MaxKbps >= p.mfx.TargetKbps, "VBR without TargetKbps, or MaxKbps below it");
  check(p.mfx.GopPicSize > 0, "GopPicSize is 0");
  check(p.mfx.GopRefDist == 1, "GopRefDist is not 1");
  check(p.AsyncDepth > 0, "AsyncDepth is 0");
  check(p.mfx.NumSlice == 1, "NumSlice is not 1");
  return valid;
}

using kestrium::fake::findNal;

// Room for any coded frame of the clip and for a frame that would not compress
// at all, in the units of BufferSizeInKB.
uint16_t bufferSizeInKB(const World& w, const mfxVideoParam& p) {
  if (w.bufferSizeInKB > 0) return static_cast<uint16_t>(w.bufferSizeInKB);
  size_t bytes = static_cast<size_t>(p.mfx.FrameInfo.Width) * p.mfx.FrameInfo.Height * 4;
  for (const auto& unit : w.clip) bytes = std::max(bytes, unit.size());
  const size_t multiplier = std::max<size_t>(1, p.mfx.BRCParamMultiplier);
  return static_cast<uint16_t>(std::min<size_t>(65535, (bytes + 1000 * multiplier - 1) / (1000 * multiplier)));
}

// The caller's extension buffers stay its own.
void copyParams(mfxVideoParam& to, const mfxVideoParam& from) {
  mfxExtBuffer** const ext = to.ExtParam;
  const mfxU16 count = to.NumExtParam;
  to = from;
  to.ExtParam = ext;
  to.NumExtParam = count;
}

mfxStatus initSession(World& w, const char* call, mfxIMPL impl, const mfxVersion* ver, mfxSession* session) {
  if (!session) return w.rule(call, "null session pointer", MFX_ERR_NULL_PTR);
  *session = nullptr;
  if (!ver) return w.rule(call, "null version", MFX_ERR_NULL_PTR);
  if (ver->Major > 2)
    return w.rule(call, "version " + std::to_string(ver->Major) + "." + std::to_string(ver->Minor) + " asked for",
                MFX_ERR_UNSUPPORTED);
  const mfxIMPL base = MFX_IMPL_BASETYPE(impl);
  if (base == MFX_IMPL_SOFTWARE) return MFX_ERR_UNSUPPORTED;  // only the GPU runtime is installed
  if (base > MFX_IMPL_HARDWARE4) return w.rule(call, "implementation " + std::to_string(impl), MFX_ERR_UNSUPPORTED);
  auto s = std::make_unique<_mfxSession>();
  s->id = w.nextId++;
  *session = s.get();
  w.sessions.push_back(std::move(s));
  return MFX_ERR_NONE;
}

}  // namespace

extern "C" {

// The implementation is recorded even when the call is made to fail: a test
// asks what the server tried last.
FAKE_EXPORT mfxStatus MFXInit(mfxIMPL impl, mfxVersion* ver, mfxSession* session) {
  FAKE_LOCK();
  w.lastImpl = impl;
  FAKE_INJECT(nullptr);
  return initSession(w, __func__, impl, ver, session);
}

FAKE_EXPORT mfxStatus MFXInitEx(mfxInitParam par, mfxSession* session) {
  FAKE_LOCK();
  w.lastImpl = par.Implementation;
  FAKE_INJECT(nullptr);
  return initSession(w, __func__, par.Implementation, &par.Version, session);
}

FAKE_EXPORT mfxStatus MFXClose(mfxSession session) {
  FAKE_ENTER(session);
  if (s->initialized) {
    FAKE_RULE("session " + num(s->id) + " closed with its encoder initialised", MFX_ERR_NONE);
    closeEncoder(*s);
  }
  s->alive = false;
  return MFX_ERR_NONE;
}

FAKE_EXPORT mfxStatus MFXQueryIMPL(mfxSession session, mfxIMPL* impl) {
  FAKE_ENTER(session);
  if (!impl) return FAKE_RULE("null implementation pointer", MFX_ERR_NULL_PTR);
  *impl = MFX_IMPL_HARDWARE | MFX_IMPL_VIA_VAAPI;
  return MFX_ERR_NONE;
}

FAKE_EXPORT mfxStatus MFXQueryVersion(mfxSession session, mfxVersion* version) {
  FAKE_ENTER(session);
  if (!version) return FAKE_RULE("null version pointer", MFX_ERR_NULL_PTR);
  version->Major = MFX_VERSION_MAJOR;
  version->Minor = MFX_VERSION_MINOR;
  return MFX_ERR_NONE;
}

FAKE_EXPORT mfxStatus MFXVideoCORE_SetHandle(mfxSession session, mfxHandleType type, mfxHDL hdl) {
  FAKE_ENTER(session);
  if (type != MFX_HANDLE_VA_DISPLAY)
    return FAKE_RULE("handle type " + std::to_string(type) + " is not MFX_HANDLE_VA_DISPLAY", MFX_ERR_INVALID_HANDLE);
  if (!hdl) return FAKE_RULE("null VA display", MFX_ERR_INVALID_HANDLE);
  if (s->vaDisplay)
    return FAKE_RULE("VA display set twice on session " + num(s->id), MFX_ERR_UNDEFINED_BEHAVIOR);
  s->vaDisplay = hdl;
  w.lastVaDisplay = hdl;
  return MFX_ERR_NONE;
}

FAKE_EXPORT mfxStatus MFXVideoENCODE_Query(mfxSession session, mfxVideoParam* in, mfxVideoParam* out) {
  FAKE_ENTER(session);
  if (!out) return FAKE_RULE("null output parameters", MFX_ERR_NULL_PTR);
  FAKE_DEVICE(MFX_ERR_UNSUPPORTED);
  if (!in) return MFX_ERR_NONE;
  // What the encoder supports of what was asked: all of it, for H.264.
  copyParams(*out, *in);
  if (in->mfx.CodecId == MFX_CODEC_AVC) return MFX_ERR_NONE;
  out->mfx.CodecId = 0;
  return MFX_ERR_UNSUPPORTED;
}

FAKE_EXPORT mfxStatus MFXVideoENCODE_QueryIOSurf(mfxSession session, mfxVideoParam* par,
                                                 mfxFrameAllocRequest* request) {
  FAKE_ENTER(session);
  if (!par || !request) return FAKE_RULE("null parameters or request", MFX_ERR_NULL_PTR);
  FAKE_DEVICE(MFX_ERR_INVALID_VIDEO_PARAM);
  if (!validParams(w, __func__, *par)) return MFX_ERR_INVALID_VIDEO_PARAM;
  *request = mfxFrameAllocRequest{};
  request->Info = par->mfx.FrameInfo;
  request->Type = MFX_MEMTYPE_FROM_ENCODE | MFX_MEMTYPE_SYSTEM_MEMORY | MFX_MEMTYPE_EXTERNAL_FRAME;
  request->NumFrameMin = request->NumFrameSuggested = static_cast<mfxU16>(w.suggestedSurfaces);
  return MFX_ERR_NONE;
}

FAKE_EXPORT mfxStatus MFXVideoENCODE_Init(mfxSession session, mfxVideoParam* par) {
  FAKE_ENTER(session);
  if (!par) return FAKE_RULE("null parameters", MFX_ERR_NULL_PTR);
  if (s->initialized)
    return FAKE_RULE("encoder of session " + num(s->id) + " initialised twice", MFX_ERR_UNDEFINED_BEHAVIOR);
  FAKE_DEVICE(MFX_ERR_INVALID_VIDEO_PARAM);
  if (!validParams(w, __func__, *par)) return MFX_ERR_INVALID_VIDEO_PARAM;
  s->initialized = w.haveInit = true;
  s->params = *par;
  s->params.ExtParam = nullptr;
  s->delay = w.delay;
  w.init = s->params;
  return MFX_ERR_NONE;
}

FAKE_EXPORT mfxStatus MFXVideoENCODE_Close(mfxSession session) {
  FAKE_ENTER(session);
  if (!s->initialized) return MFX_ERR_NOT_INITIALIZED;
  closeEncoder(*s);
  return MFX_ERR_NONE;
}

FAKE_EXPORT mfxStatus MFXVideoENCODE_GetVideoParam(mfxSession session, mfxVideoParam* par) {
  FAKE_ENTER(session);
  if (!par) return FAKE_RULE("null parameters", MFX_ERR_NULL_PTR);
  if (!s->initialized) return FAKE_RULE("encoder not initialised", MFX_ERR_NOT_INITIALIZED);
  if (par->NumExtParam && !par->ExtParam) return FAKE_RULE("NumExtParam without ExtParam", MFX_ERR_NULL_PTR);
  mfxExtCodingOptionSPSPPS* headers = nullptr;
  for (mfxU16 i = 0; i < par->NumExtParam; ++i) {
    if (!par->ExtParam[i]) return FAKE_RULE("null extension buffer", MFX_ERR_NULL_PTR);
    if (par->ExtParam[i]->BufferId == MFX_EXTBUFF_CODING_OPTION_SPSPPS)
      headers = reinterpret_cast<mfxExtCodingOptionSPSPPS*>(par->ExtParam[i]);
  }
  if (headers) {
    if (w.clip.empty()) return FAKE_RULE("no clip to take the SPS and PPS from", MFX_ERR_UNDEFINED_BEHAVIOR);
    if (!headers->SPSBuffer || !headers->PPSBuffer) return FAKE_RULE("null SPSBuffer or PPSBuffer", MFX_ERR_NULL_PTR);
    const std::vector<uint8_t> sps = findNal(w.clip[0], 7), pps = findNal(w.clip[0], 8);
    if (headers->SPSBufSize < sps.size() || headers->PPSBufSize < pps.size()) return MFX_ERR_NOT_ENOUGH_BUFFER;
    std::copy(sps.begin(), sps.end(), headers->SPSBuffer);
    std::copy(pps.begin(), pps.end(), headers->PPSBuffer);
    headers->SPSBufSize = static_cast<mfxU16>(sps.size());
    headers->PPSBufSize = static_cast<mfxU16>(pps.size());
  }
  copyParams(*par, s->params);
  par->mfx.BufferSizeInKB = bufferSizeInKB(w, s->params);
  return MFX_ERR_NONE;
}

FAKE_EXPORT mfxStatus MFXVideoENCODE_EncodeFrameAsync(mfxSession session, mfxEncodeCtrl*, mfxFrameSurface1* surface,
                                                      mfxBitstream* bs, mfxSyncPoint* syncp) {
  FAKE_ENTER_LOSING(session);
  // Without the GPU no Init succeeds, so this is also that machine's answer;
  // encoding after a failed Init is the server's mistake all the same.
  if (!s->initialized) return FAKE_RULE("encoder not initialised", MFX_ERR_NOT_INITIALIZED);
  if (s->lost) return MFX_ERR_DEVICE_LOST;
  if (!bs || !syncp) return FAKE_RULE("null bitstream or sync point pointer", MFX_ERR_NULL_PTR);
  *syncp = nullptr;
  if (w.clip.empty()) return FAKE_RULE("no clip to answer with", MFX_ERR_UNDEFINED_BEHAVIOR);

  const mfxFrameInfo& want = s->params.mfx.FrameInfo;
  uint32_t pitch = 0;
  if (surface) {
    const mfxFrameInfo& got = surface->Info;
    if (got.Width != want.Width || got.Height != want.Height || got.CropW != want.CropW || got.CropH != want.CropH ||
        got.FourCC != want.FourCC)
      return FAKE_RULE("surface " + std::to_string(got.Width) + "x" + std::to_string(got.Height) + " crop " +
                           std::to_string(got.CropW) + "x" + std::to_string(got.CropH) +
                           " or its FourCC is not what the encoder was initialised with",
                       MFX_ERR_INVALID_VIDEO_PARAM);
    if (!surface->Data.Y || !surface->Data.UV) return FAKE_RULE("surface without Y or UV", MFX_ERR_UNDEFINED_BEHAVIOR);
    pitch = static_cast<uint32_t>(surface->Data.PitchHigh) << 16 | surface->Data.PitchLow;
    if (pitch < got.Width)
      return FAKE_RULE("pitch " + std::to_string(pitch) + " below the width " + std::to_string(got.Width),
                       MFX_ERR_UNDEFINED_BEHAVIOR);
    if (surface->Data.Locked)
      return FAKE_RULE("surface still locked by the encoder handed over again", MFX_ERR_UNDEFINED_BEHAVIOR);
  }

  // A picture comes out once the encoder holds more than its delay; a drain
  // gives the held ones one per call.
  const bool comesOut = surface ? s->held.size() >= static_cast<size_t>(s->delay) : !s->held.empty();
  if (!surface && !comesOut) return MFX_ERR_MORE_DATA;
  if (comesOut) {
    if (s->pending.size() >= s->params.AsyncDepth) return MFX_WRN_DEVICE_BUSY;
    const uint32_t unit = s->held.empty() ? s->pictures % w.clip.size() : s->held.front().unit;
    if (!bs->Data && bs->MaxLength) return FAKE_RULE("bitstream without Data", MFX_ERR_NULL_PTR);
    if (static_cast<uint64_t>(bs->DataOffset) + bs->DataLength > bs->MaxLength)
      return FAKE_RULE("bitstream DataOffset + DataLength beyond MaxLength", MFX_ERR_UNDEFINED_BEHAVIOR);
    if (bs->MaxLength - bs->DataOffset - bs->DataLength < w.clip[unit].size()) return MFX_ERR_NOT_ENOUGH_BUFFER;
    for (const _mfxSyncPoint* sp : s->pending)
      if (sp->bitstream == bs)
        return FAKE_RULE("bitstream already holds the frame of unsynced sync point " + num(sp->id),
                         MFX_ERR_UNDEFINED_BEHAVIOR);
  }

  if (surface) {
    const uint32_t index = s->pictures++;
    const _mfxSession::Held picture{surface, surface->Data.TimeStamp, static_cast<uint32_t>(index % w.clip.size())};
    Recorded& r = w.pictures.emplace_back();
    const mfxFrameInfo& f = surface->Info;
    r.picture = FakeVplPicture{picture.timeStamp, f.Width, f.Height, f.CropW, f.CropH, surface->Data.Pitch,
                               nullptr, 0, picture.unit};
    r.nv12 = kestrium::fake::packNv12(surface->Data.Y + size_t{f.CropY} * pitch + f.CropX,
                                      surface->Data.UV + size_t{f.CropY / 2u} * pitch + (f.CropX & ~1u), pitch,
                                      f.CropW, f.CropH);
    r.picture.nv12 = r.nv12.data();
    r.picture.nv12Size = r.nv12.size();
    countLock(surface, true);
    s->held.push_back(picture);
  }
  if (!comesOut) return MFX_ERR_MORE_DATA;

  auto sp = std::make_unique<_mfxSyncPoint>(_mfxSyncPoint{w.nextId++, s, _mfxSyncPoint::Pending, s->held.front(), bs});
  s->held.pop_front();
  s->pending.push_back(sp.get());
  *syncp = sp.get();
  w.syncPoints.emplace(sp.get(), std::move(sp));
  return MFX_ERR_NONE;
}

FAKE_EXPORT mfxStatus MFXVideoCORE_SyncOperation(mfxSession session, mfxSyncPoint syncp, mfxU32) {
  FAKE_ENTER_LOSING(session);
  if (s->lost) return MFX_ERR_DEVICE_LOST;
  if (!syncp) return FAKE_RULE("null sync point", MFX_ERR_NULL_PTR);
  const auto found = w.syncPoints.find(syncp);
  if (found == w.syncPoints.end()) return FAKE_RULE("unknown sync point", MFX_ERR_NULL_PTR);
  _mfxSyncPoint& sp = *found->second;
  if (sp.session != s) return FAKE_RULE("sync point " + num(sp.id) + " of another session", MFX_ERR_NULL_PTR);
  if (sp.state == _mfxSyncPoint::Synced)
    return FAKE_RULE("sync point " + num(sp.id) + " synced twice", MFX_ERR_NULL_PTR);
  if (sp.state == _mfxSyncPoint::Dropped)
    return FAKE_RULE("sync point " + num(sp.id) + " synced after its encoder was closed", MFX_ERR_NULL_PTR);

  // The coded frame goes behind what the bitstream already holds. Enough room
  // was there at EncodeFrameAsync; the server must not have touched it since.
  mfxBitstream& bs = *sp.bitstream;
  const std::vector<uint8_t>& unit = w.clip[sp.picture.unit % w.clip.size()];
  if (static_cast<uint64_t>(bs.DataOffset) + bs.DataLength + unit.size() > bs.MaxLength)
    return FAKE_RULE("bitstream of sync point " + num(sp.id) + " changed before the sync", MFX_ERR_UNDEFINED_BEHAVIOR);
  if (!unit.empty()) std::memcpy(bs.Data + bs.DataOffset + bs.DataLength, unit.data(), unit.size());
  bs.DataLength += static_cast<mfxU32>(unit.size());
  bs.TimeStamp = sp.picture.timeStamp;
  bs.DecodeTimeStamp = static_cast<mfxI64>(sp.picture.timeStamp);  // no B frames: decode order is display order
  bs.FrameType = findNal(unit, 5).empty() ? MFX_FRAMETYPE_P | MFX_FRAMETYPE_REF
                                          : MFX_FRAMETYPE_I | MFX_FRAMETYPE_REF | MFX_FRAMETYPE_IDR;
  bs.PicStruct = MFX_PICSTRUCT_PROGRESSIVE;
  countLock(sp.picture.surface, false);
  sp.state = _mfxSyncPoint::Synced;
  s->pending.erase(std::find(s->pending.begin(), s->pending.end(), &sp));
  return MFX_ERR_NONE;
}

// ---------------------------------------------------------------------------
// Control

void FakeVpl_Reset(void) { FAKE_LOCK(); w = World{}; }
void FakeVpl_SetNoGpu(int noGpu) { FAKE_LOCK(); w.noGpu = noGpu != 0; }
void FakeVpl_SetRequireVaDisplay(int required) { FAKE_LOCK(); w.requireVaDisplay = required != 0; }
void FakeVpl_SetSuggestedSurfaces(int count) { FAKE_LOCK(); w.suggestedSurfaces = std::clamp(count, 0, 65535); }
void FakeVpl_SetDelay(int pictures) { FAKE_LOCK(); w.delay = std::max(pictures, 0); }
void FakeVpl_SetBufferSizeInKB(int kb) { FAKE_LOCK(); w.bufferSizeInKB = std::clamp(kb, 0, 65535); }

void FakeVpl_Fail(const char* call, int status, int occurrence) { FAKE_LOCK(); w.fail(call, status, occurrence); }

void FakeVpl_AddAccessUnit(const uint8_t* annexB, size_t size) { FAKE_LOCK(); w.addAccessUnit(annexB, size); }

const char* FakeVpl_CallLog(void) { FAKE_LOCK(); return w.callLog(); }

int FakeVpl_InitParams(mfxVideoParam* params) {
  FAKE_LOCK();
  if (!w.haveInit) return 0;
  if (params) *params = w.init;
  return 1;
}

mfxIMPL FakeVpl_LastInitImpl(void) { FAKE_LOCK(); return w.lastImpl; }
void* FakeVpl_VaDisplay(void) { FAKE_LOCK(); return w.lastVaDisplay; }
int FakeVpl_PictureCount(void) { FAKE_LOCK(); return static_cast<int>(w.pictures.size()); }

int FakeVpl_Picture(int index, FakeVplPicture* out) {
  FAKE_LOCK();
  return kestrium::fake::pictureAt(w.pictures, index, out);
}

const char* FakeVpl_Violations(void) {
  FAKE_LOCK();
  w.violationsCopy = w.violations;
  for (const auto& s : w.sessions)
    if (s->alive) {
      w.violationsCopy += "session " + num(s->id) + " not closed\n";
      if (s->initialized) w.violationsCopy += "encoder of session " + num(s->id) + " still initialised\n";
    }
  return w.violationsCopy.c_str();
}

}  // extern "C"
