// The fake CUDA driver and NVENC runtime (see FakeNvenc.h). Every entry point
// takes the one lock, logs itself, answers an injected failure if the test set
// one, and otherwise checks what it is given the way a driver would, recording
// each rule broken. Handles are addresses of objects that stay allocated until
// the next reset, so a handle used after its destroy is recognised instead of
// being mistaken for a newer object at the same address.

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#endif

#include "FakeNvenc.h"

#include "tests/videoEncoder/FakeDriverSupport.h"

#include <dynlink_cuda.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#if defined(_WIN32)
#define FAKE_EXPORT __declspec(dllexport)
#else
#define FAKE_EXPORT __attribute__((visibility("default")))
#endif

// The header leaves the context type opaque; here it is the context's record.
struct CUctx_st {
  int id;
  CUdevice device;
  bool alive;
};

namespace {

struct InputBuffer {
  int id;
  bool alive = true, locked = false;
  uint32_t width, height, pitch;
  NV_ENC_BUFFER_FORMAT format;
  std::vector<uint8_t> memory;  // exactly the surface, so a sanitizer sees a client overrun
};

struct OutputBuffer {
  int id;
  bool alive = true, locked = false;
  bool pending = false;  // holds an encoded picture not yet locked and unlocked
  uint32_t unit = 0, frameIdx = 0;
  uint64_t timeStamp = 0, duration = 0;
  NV_ENC_PIC_TYPE type = NV_ENC_PIC_TYPE_P;
  // Handed out by the lock and freed by the unlock: a client reading the bytes
  // after the unlock reads freed memory, which the sanitizers report.
  std::unique_ptr<uint8_t[]> lockedBytes;
};

struct Session {
  int id;
  bool alive = true;
  CUctx_st* context;
  bool initialized = false, async = false;
  bool ended = false;  // end of stream sent
  uint32_t width = 0, height = 0;
  uint32_t pictures = 0;  // the next picture's index: clip units restart with each session
  std::vector<std::unique_ptr<InputBuffer>> inputs;
  std::vector<std::unique_ptr<OutputBuffer>> outputs;
  std::vector<void*> events;
};

struct Recorded {
  FakeNvPicture picture;
  std::vector<uint8_t> nv12;
};

const GUID kPresets[] = {NV_ENC_PRESET_P1_GUID, NV_ENC_PRESET_P2_GUID, NV_ENC_PRESET_P3_GUID, NV_ENC_PRESET_P4_GUID,
                         NV_ENC_PRESET_P5_GUID, NV_ENC_PRESET_P6_GUID, NV_ENC_PRESET_P7_GUID};
constexpr int kPresetTotal = static_cast<int>(sizeof kPresets / sizeof kPresets[0]);
const GUID kCodecs[] = {NV_ENC_CODEC_H264_GUID, NV_ENC_CODEC_HEVC_GUID};
constexpr uint32_t kCodecCount = 2;

// Everything a reset returns to its start.
struct World : kestrium::fake::Journal {
  std::vector<FakeNvDevice> devices{FakeNvDevice{"Fake NVENC GPU", 5, 2}};
  int presetCount = kPresetTotal;
  std::vector<GUID> profiles{NV_ENC_CODEC_PROFILE_AUTOSELECT_GUID, NV_ENC_H264_PROFILE_BASELINE_GUID,
                             NV_ENC_H264_PROFILE_MAIN_GUID, NV_ENC_H264_PROFILE_HIGH_GUID};
  std::vector<NV_ENC_BUFFER_FORMAT> formats{NV_ENC_BUFFER_FORMAT_NV12, NV_ENC_BUFFER_FORMAT_YV12,
                                            NV_ENC_BUFFER_FORMAT_ARGB};
  std::deque<Recorded> pictures;        // a deque, so the handed-out pixels never move
  bool haveInit = false;
  NV_ENC_INITIALIZE_PARAMS init{};
  NV_ENC_CONFIG config{};
  int inputsCreated = 0, outputsCreated = 0;

  bool cudaInitialized = false;
  int nextId = 1;
  std::vector<std::unique_ptr<CUctx_st>> contexts;
  std::map<std::thread::id, std::vector<CUctx_st*>> current;  // per thread, so a reset can clear them all
  std::vector<std::unique_ptr<Session>> sessions;
};

struct State {
  std::mutex mutex;
  World world;
};

// A server process that an end-to-end test starts is out of reach of the
// control functions: there the environment sets the fake up as it loads.
// FAKE_NVENC_CLIP names an Annex B file whose access units (each behind its
// delimiter, NAL type 9) become the clip; FAKE_NVENC_FAIL is "call:status:occurrence".
void arrangeFromEnvironment(World& w) {
  w.clip = kestrium::fake::clipFromEnvironment("FAKE_NVENC_CLIP");
  w.failures.addFromEnvironment("FAKE_NVENC_FAIL");
}

// Never destroyed: a server thread may still call in while the process exits.
State& state() {
  static State* s = [] {
#if defined(_WIN32)
    // Loaded for good, like a driver: a server frees the library after each
    // capture, and what the environment set up would start over at a reload.
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<LPCWSTR>(&arrangeFromEnvironment), &self);
#endif
    auto* made = new State;
    arrangeFromEnvironment(made->world);
    return made;
  }();
  return *s;
}

bool same(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

bool codecOffered(const GUID& g) { return same(g, kCodecs[0]) || same(g, kCodecs[1]); }

int presetIndex(const World& w, const GUID& g) {
  for (int i = 0; i < w.presetCount; ++i)
    if (same(g, kPresets[i])) return i;
  return -1;
}

bool profileOffered(const World& w, const GUID& g) {
  for (const GUID& p : w.profiles)
    if (same(g, p)) return true;
  return false;
}

bool formatOffered(const World& w, NV_ENC_BUFFER_FORMAT f) {
  for (NV_ENC_BUFFER_FORMAT o : w.formats)
    if (o == f) return true;
  return false;
}

int32_t presetGop(int i) { return 100 + 10 * i; }

using kestrium::fake::num;

template <typename T>
void assign(std::vector<T>& to, const T* from, int count) {
  to.assign(from, from + (from && count > 0 ? count : 0));
}

// The function name doubles as the log entry; __func__ is the plain name.
#define FAKE_ENTER(Result)                                    \
  std::lock_guard<std::mutex> lock(state().mutex);            \
  World& w = state().world;                                   \
  if (const std::optional<int> injected = w.enter(__func__)) \
  return static_cast<Result>(*injected)

#define FAKE_RULE(what, status) w.rule(__func__, what, status)

// What a session leaves behind if destroyed now, one line each.
std::vector<std::string> leftovers(const Session& s) {
  std::vector<std::string> out;
  for (const auto& b : s.inputs)
    if (b->alive)
      out.push_back("input buffer " + num(b->id) + " of session " + num(s.id) + " not destroyed" +
                    (b->locked ? ", still locked" : ""));
  for (const auto& b : s.outputs)
    if (b->alive)
      out.push_back("bitstream buffer " + num(b->id) + " of session " + num(s.id) + " not destroyed" +
                    (b->locked ? ", still locked" : "") + (b->pending ? ", output not retrieved" : ""));
  for (size_t i = 0; i < s.events.size(); ++i)
    out.push_back("completion event still registered with session " + num(s.id));
  return out;
}

// ---------------------------------------------------------------------------
// CUDA

const CUresult kCuInvalidValue = static_cast<CUresult>(FAKE_CUDA_ERROR_INVALID_VALUE);
const CUresult kCuNotInitialized = static_cast<CUresult>(FAKE_CUDA_ERROR_NOT_INITIALIZED);
const CUresult kCuInvalidDevice = static_cast<CUresult>(FAKE_CUDA_ERROR_INVALID_DEVICE);
const CUresult kCuInvalidContext = static_cast<CUresult>(FAKE_CUDA_ERROR_INVALID_CONTEXT);

bool validDevice(const World& w, CUdevice d) { return d >= 0 && d < static_cast<int>(w.devices.size()); }

CUctx_st* liveContext(World& w, const void* handle) {
  for (auto& c : w.contexts)
    if (c.get() == handle) return c->alive ? c.get() : nullptr;
  return nullptr;
}

}  // namespace

#define FAKE_NEED_INIT() \
  if (!w.cudaInitialized) return FAKE_RULE("called before cuInit", kCuNotInitialized)

extern "C" {

FAKE_EXPORT CUresult CUDAAPI cuInit(unsigned int flags) {
  FAKE_ENTER(CUresult);
  if (flags != 0) return FAKE_RULE("flags must be 0", kCuInvalidValue);
  w.cudaInitialized = true;
  return CUDA_SUCCESS;
}

FAKE_EXPORT CUresult CUDAAPI cuDeviceGetCount(int* count) {
  FAKE_ENTER(CUresult);
  FAKE_NEED_INIT();
  if (!count) return FAKE_RULE("null count", kCuInvalidValue);
  *count = static_cast<int>(w.devices.size());
  return CUDA_SUCCESS;
}

FAKE_EXPORT CUresult CUDAAPI cuDeviceGet(CUdevice* device, int ordinal) {
  FAKE_ENTER(CUresult);
  FAKE_NEED_INIT();
  if (!device) return FAKE_RULE("null device", kCuInvalidValue);
  if (!validDevice(w, ordinal)) return FAKE_RULE("no device of ordinal " + std::to_string(ordinal), kCuInvalidDevice);
  *device = ordinal;
  return CUDA_SUCCESS;
}

FAKE_EXPORT CUresult CUDAAPI cuDeviceGetName(char* name, int len, CUdevice device) {
  FAKE_ENTER(CUresult);
  FAKE_NEED_INIT();
  if (!validDevice(w, device)) return FAKE_RULE("invalid device " + std::to_string(device), kCuInvalidDevice);
  if (!name || len <= 0) return FAKE_RULE("no room for the name", kCuInvalidValue);
  // Cut to fit, always terminated, as the driver does.
  const char* n = w.devices[static_cast<size_t>(device)].name;
  const size_t size = strnlen(n, sizeof w.devices[0].name);
  const size_t copied = size < static_cast<size_t>(len) ? size : static_cast<size_t>(len) - 1;
  std::memcpy(name, n, copied);
  name[copied] = '\0';
  return CUDA_SUCCESS;
}

FAKE_EXPORT CUresult CUDAAPI cuDeviceComputeCapability(int* major, int* minor, CUdevice device) {
  FAKE_ENTER(CUresult);
  FAKE_NEED_INIT();
  if (!validDevice(w, device)) return FAKE_RULE("invalid device " + std::to_string(device), kCuInvalidDevice);
  if (!major || !minor) return FAKE_RULE("null major or minor", kCuInvalidValue);
  *major = w.devices[static_cast<size_t>(device)].major;
  *minor = w.devices[static_cast<size_t>(device)].minor;
  return CUDA_SUCCESS;
}

FAKE_EXPORT CUresult CUDAAPI cuCtxCreate_v2(CUcontext* context, unsigned int flags, CUdevice device) {
  FAKE_ENTER(CUresult);
  FAKE_NEED_INIT();
  if (!context) return FAKE_RULE("null context", kCuInvalidValue);
  // Scheduling, host mapping and local-memory flags are all there is.
  if (flags & ~0x1Fu) return FAKE_RULE("unknown flags " + std::to_string(flags), kCuInvalidValue);
  if (!validDevice(w, device)) return FAKE_RULE("invalid device " + std::to_string(device), kCuInvalidDevice);
  w.contexts.push_back(std::make_unique<CUctx_st>(CUctx_st{w.nextId++, device, true}));
  w.current[std::this_thread::get_id()].push_back(w.contexts.back().get());
  *context = w.contexts.back().get();
  return CUDA_SUCCESS;
}

FAKE_EXPORT CUresult CUDAAPI cuCtxPopCurrent_v2(CUcontext* context) {
  FAKE_ENTER(CUresult);
  FAKE_NEED_INIT();
  std::vector<CUctx_st*>& stack = w.current[std::this_thread::get_id()];
  if (stack.empty()) return FAKE_RULE("no context current on this thread", kCuInvalidContext);
  if (context) *context = stack.back();
  stack.pop_back();
  return CUDA_SUCCESS;
}

FAKE_EXPORT CUresult CUDAAPI cuCtxDestroy_v2(CUcontext context) {
  FAKE_ENTER(CUresult);
  FAKE_NEED_INIT();
  CUctx_st* c = liveContext(w, context);
  if (!c) return FAKE_RULE("unknown or destroyed context", kCuInvalidContext);
  // The driver destroys it whatever thread has it current; the encoder on it
  // is what breaks.
  for (const auto& s : w.sessions)
    if (s->alive && s->context == c)
      FAKE_RULE("context " + num(c->id) + " destroyed under the open encode session " + num(s->id), CUDA_SUCCESS);
  c->alive = false;
  for (auto& [thread, stack] : w.current) std::erase(stack, c);
  return CUDA_SUCCESS;
}

}  // extern "C"

static_assert(std::is_same_v<decltype(&cuInit), tcuInit*>);
static_assert(std::is_same_v<decltype(&cuDeviceGetCount), tcuDeviceGetCount*>);
static_assert(std::is_same_v<decltype(&cuDeviceGet), tcuDeviceGet*>);
static_assert(std::is_same_v<decltype(&cuDeviceGetName), tcuDeviceGetName*>);
static_assert(std::is_same_v<decltype(&cuDeviceComputeCapability), tcuDeviceComputeCapability*>);
static_assert(std::is_same_v<decltype(&cuCtxCreate_v2), tcuCtxCreate_v2*>);
static_assert(std::is_same_v<decltype(&cuCtxPopCurrent_v2), tcuCtxPopCurrent_v2*>);
static_assert(std::is_same_v<decltype(&cuCtxDestroy_v2), tcuCtxDestroy_v2*>);

// ---------------------------------------------------------------------------
// NVENC

namespace {

// The session a handle names, or null with the rule recorded.
Session* findSession(World& w, const char* call, void* encoder) {
  for (auto& s : w.sessions)
    if (s.get() == encoder) {
      if (s->alive) return s.get();
      w.rule(call, "session " + num(s->id) + " used after destroy", 0);
      return nullptr;
    }
  w.rule(call, "unknown session handle (used after destroy?)", 0);
  return nullptr;
}

InputBuffer* findInput(Session& s, void* handle) {
  for (auto& b : s.inputs)
    if (b.get() == handle && b->alive) return b.get();
  return nullptr;
}

OutputBuffer* findOutput(Session& s, void* handle) {
  for (auto& b : s.outputs)
    if (b.get() == handle && b->alive) return b.get();
  return nullptr;
}

#define FAKE_SESSION(encoder)                     \
  Session* s = findSession(w, __func__, encoder); \
  if (!s) return NV_ENC_ERR_INVALID_ENCODERDEVICE

#define FAKE_VERSION(got, want, what) \
  if ((got) != (want)) return FAKE_RULE(std::string(what) + " has the wrong version", NV_ENC_ERR_INVALID_VERSION)

// The parameters every call but a few takes: there, and of the header's version.
#define FAKE_PARAMS(wanted, what)                                      \
  if (!p) return FAKE_RULE("null parameters", NV_ENC_ERR_INVALID_PTR); \
  FAKE_VERSION(p->version, wanted, what)

#define FAKE_INITIALIZED() \
  if (!s->initialized) return FAKE_RULE("encoder not initialized", NV_ENC_ERR_ENCODER_NOT_INITIALIZED)

NVENCSTATUS NVENCAPI nvEncOpenEncodeSessionEx(NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS* p, void** encoder) {
  FAKE_ENTER(NVENCSTATUS);
  if (!p || !encoder) return FAKE_RULE("null parameters or encoder", NV_ENC_ERR_INVALID_PTR);
  FAKE_VERSION(p->version, NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS_VER, "NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS");
  if (p->apiVersion != NVENCAPI_VERSION) return FAKE_RULE("wrong apiVersion", NV_ENC_ERR_INVALID_VERSION);
  if (p->deviceType != NV_ENC_DEVICE_TYPE_CUDA) return FAKE_RULE("device type not CUDA", NV_ENC_ERR_UNSUPPORTED_DEVICE);
  CUctx_st* c = liveContext(w, p->device);
  if (!c) return FAKE_RULE("device is not a live CUDA context", NV_ENC_ERR_INVALID_DEVICE);
  auto session = std::make_unique<Session>();
  session->id = w.nextId++;
  session->context = c;
  *encoder = session.get();
  w.sessions.push_back(std::move(session));
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncGetEncodeGUIDCount(void* encoder, uint32_t* count) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  if (!count) return FAKE_RULE("null count", NV_ENC_ERR_INVALID_PTR);
  *count = kCodecCount;
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncGetEncodeGUIDs(void* encoder, GUID* guids, uint32_t size, uint32_t* count) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  if (!guids || !count) return FAKE_RULE("null array or count", NV_ENC_ERR_INVALID_PTR);
  if (size < kCodecCount) return FAKE_RULE("array too small", NV_ENC_ERR_INVALID_PARAM);
  for (uint32_t i = 0; i < kCodecCount; ++i) guids[i] = kCodecs[i];
  *count = kCodecCount;
  return NV_ENC_SUCCESS;
}

// The count and list calls for presets, profiles and input formats share
// their rules: a live session, an offered codec, room enough.
NVENCSTATUS listCount(World& w, const char* call, void* encoder, const GUID& codec, size_t n, uint32_t* count) {
  if (!findSession(w, call, encoder)) return NV_ENC_ERR_INVALID_ENCODERDEVICE;
  if (!count) return w.rule(call, "null count", NV_ENC_ERR_INVALID_PTR);
  if (!codecOffered(codec)) return w.rule(call, "encode GUID not offered", NV_ENC_ERR_UNSUPPORTED_PARAM);
  *count = static_cast<uint32_t>(n);
  return NV_ENC_SUCCESS;
}

template <typename T>
NVENCSTATUS listItems(World& w, const char* call, void* encoder, const GUID& codec, const T* items, size_t n, T* out,
                      uint32_t size, uint32_t* count) {
  if (!findSession(w, call, encoder)) return NV_ENC_ERR_INVALID_ENCODERDEVICE;
  if (!out || !count) return w.rule(call, "null array or count", NV_ENC_ERR_INVALID_PTR);
  if (!codecOffered(codec)) return w.rule(call, "encode GUID not offered", NV_ENC_ERR_UNSUPPORTED_PARAM);
  if (size < n) return w.rule(call, "array too small", NV_ENC_ERR_INVALID_PARAM);
  for (size_t i = 0; i < n; ++i) out[i] = items[i];
  *count = static_cast<uint32_t>(n);
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncGetEncodePresetCount(void* encoder, GUID codec, uint32_t* count) {
  FAKE_ENTER(NVENCSTATUS);
  return listCount(w, __func__, encoder, codec, static_cast<size_t>(w.presetCount), count);
}

NVENCSTATUS NVENCAPI nvEncGetEncodePresetGUIDs(void* encoder, GUID codec, GUID* guids, uint32_t size, uint32_t* count) {
  FAKE_ENTER(NVENCSTATUS);
  return listItems(w, __func__, encoder, codec, kPresets, static_cast<size_t>(w.presetCount), guids, size, count);
}

NVENCSTATUS NVENCAPI nvEncGetEncodeProfileGUIDCount(void* encoder, GUID codec, uint32_t* count) {
  FAKE_ENTER(NVENCSTATUS);
  return listCount(w, __func__, encoder, codec, w.profiles.size(), count);
}

NVENCSTATUS NVENCAPI nvEncGetEncodeProfileGUIDs(void* encoder, GUID codec, GUID* guids, uint32_t size,
                                                uint32_t* count) {
  FAKE_ENTER(NVENCSTATUS);
  return listItems(w, __func__, encoder, codec, w.profiles.data(), w.profiles.size(), guids, size, count);
}

NVENCSTATUS NVENCAPI nvEncGetInputFormatCount(void* encoder, GUID codec, uint32_t* count) {
  FAKE_ENTER(NVENCSTATUS);
  return listCount(w, __func__, encoder, codec, w.formats.size(), count);
}

NVENCSTATUS NVENCAPI nvEncGetInputFormats(void* encoder, GUID codec, NV_ENC_BUFFER_FORMAT* formats, uint32_t size,
                                          uint32_t* count) {
  FAKE_ENTER(NVENCSTATUS);
  return listItems(w, __func__, encoder, codec, w.formats.data(), w.formats.size(), formats, size, count);
}

NVENCSTATUS NVENCAPI nvEncGetEncodePresetConfig(void* encoder, GUID codec, GUID preset, NV_ENC_PRESET_CONFIG* p) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  if (!p) return FAKE_RULE("null preset configuration", NV_ENC_ERR_INVALID_PTR);
  FAKE_VERSION(p->version, NV_ENC_PRESET_CONFIG_VER, "NV_ENC_PRESET_CONFIG");
  FAKE_VERSION(p->presetCfg.version, NV_ENC_CONFIG_VER, "presetCfg");
  if (!codecOffered(codec)) return FAKE_RULE("encode GUID not offered", NV_ENC_ERR_UNSUPPORTED_PARAM);
  const int i = presetIndex(w, preset);
  if (i < 0) return FAKE_RULE("preset not offered", NV_ENC_ERR_UNSUPPORTED_PARAM);
  NV_ENC_CONFIG& c = p->presetCfg;
  c = NV_ENC_CONFIG{};
  c.version = NV_ENC_CONFIG_VER;
  c.profileGUID = NV_ENC_CODEC_PROFILE_AUTOSELECT_GUID;
  c.gopLength = static_cast<uint32_t>(presetGop(i));
  c.frameIntervalP = 1;
  c.frameFieldMode = NV_ENC_PARAMS_FRAME_FIELD_MODE_FRAME;
  c.mvPrecision = NV_ENC_MV_PRECISION_QUARTER_PEL;
  c.rcParams.version = NV_ENC_RC_PARAMS_VER;
  c.rcParams.rateControlMode = NV_ENC_PARAMS_RC_CBR;
  c.rcParams.averageBitRate = 5000000;
  if (same(codec, NV_ENC_CODEC_H264_GUID)) {
    c.encodeCodecConfig.h264Config.idrPeriod = c.gopLength;
    c.encodeCodecConfig.h264Config.chromaFormatIDC = 1;
  } else {
    c.encodeCodecConfig.hevcConfig.idrPeriod = c.gopLength;
    c.encodeCodecConfig.hevcConfig.chromaFormatIDC = 1;
  }
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncInitializeEncoder(void* encoder, NV_ENC_INITIALIZE_PARAMS* p) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  if (!p) return FAKE_RULE("null parameters", NV_ENC_ERR_INVALID_PTR);
  if (s->initialized) return FAKE_RULE("session " + num(s->id) + " initialized twice", NV_ENC_ERR_INVALID_CALL);
  FAKE_VERSION(p->version, NV_ENC_INITIALIZE_PARAMS_VER, "NV_ENC_INITIALIZE_PARAMS");
  if (!p->encodeConfig) return FAKE_RULE("null encodeConfig", NV_ENC_ERR_INVALID_PTR);
  FAKE_VERSION(p->encodeConfig->version, NV_ENC_CONFIG_VER, "encodeConfig");
  FAKE_VERSION(p->encodeConfig->rcParams.version, NV_ENC_RC_PARAMS_VER, "encodeConfig->rcParams");
  if (!codecOffered(p->encodeGUID)) return FAKE_RULE("encode GUID not offered", NV_ENC_ERR_UNSUPPORTED_PARAM);
  if (presetIndex(w, p->presetGUID) < 0) return FAKE_RULE("preset not offered", NV_ENC_ERR_UNSUPPORTED_PARAM);
  const GUID& profile = p->encodeConfig->profileGUID;
  if (!same(profile, NV_ENC_CODEC_PROFILE_AUTOSELECT_GUID) && !profileOffered(w, profile))
    return FAKE_RULE("profile not offered", NV_ENC_ERR_UNSUPPORTED_PARAM);
  if (p->encodeWidth == 0 || p->encodeHeight == 0) return FAKE_RULE("empty picture size", NV_ENC_ERR_INVALID_PARAM);
  if ((p->maxEncodeWidth && p->encodeWidth > p->maxEncodeWidth) ||
      (p->maxEncodeHeight && p->encodeHeight > p->maxEncodeHeight))
    return FAKE_RULE("picture larger than maxEncodeWidth/Height", NV_ENC_ERR_INVALID_PARAM);
  if (p->frameRateNum == 0 || p->frameRateDen == 0) return FAKE_RULE("no frame rate", NV_ENC_ERR_INVALID_PARAM);
#if !defined(_WIN32)
  // The driver encodes synchronously only, outside Windows.
  if (p->enableEncodeAsync) return FAKE_RULE("asynchronous mode outside Windows", NV_ENC_ERR_UNSUPPORTED_PARAM);
#endif
  s->initialized = true;
  s->async = p->enableEncodeAsync != 0;
  s->width = p->encodeWidth;
  s->height = p->encodeHeight;
  w.haveInit = true;
  w.init = *p;
  w.init.encodeConfig = nullptr;
  w.config = *p->encodeConfig;
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncCreateInputBuffer(void* encoder, NV_ENC_CREATE_INPUT_BUFFER* p) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  FAKE_PARAMS(NV_ENC_CREATE_INPUT_BUFFER_VER, "NV_ENC_CREATE_INPUT_BUFFER");
  FAKE_INITIALIZED();
  if (p->width == 0 || p->height == 0 || p->width > 16384 || p->height > 16384)
    return FAKE_RULE("buffer size " + std::to_string(p->width) + "x" + std::to_string(p->height),
                     NV_ENC_ERR_INVALID_PARAM);
  if (!formatOffered(w, p->bufferFmt)) return FAKE_RULE("buffer format not offered", NV_ENC_ERR_UNSUPPORTED_PARAM);
  auto b = std::make_unique<InputBuffer>();
  b->id = w.nextId++;
  b->width = p->width;
  b->height = p->height;
  b->format = p->bufferFmt;
  uint32_t bytesPerPixel = 1;
  uint64_t rows = p->height + (p->height + 1) / 2;  // 4:2:0, planar or not
  switch (p->bufferFmt) {
    case NV_ENC_BUFFER_FORMAT_ARGB:
    case NV_ENC_BUFFER_FORMAT_ARGB10:
    case NV_ENC_BUFFER_FORMAT_AYUV:
    case NV_ENC_BUFFER_FORMAT_ABGR:
    case NV_ENC_BUFFER_FORMAT_ABGR10: bytesPerPixel = 4; rows = p->height; break;
    case NV_ENC_BUFFER_FORMAT_YUV444: rows = 3ull * p->height; break;
    case NV_ENC_BUFFER_FORMAT_YUV420_10BIT: bytesPerPixel = 2; break;
    case NV_ENC_BUFFER_FORMAT_YUV444_10BIT: bytesPerPixel = 2; rows = 3ull * p->height; break;
    default: break;
  }
  // Always wider than a row of pixels, even when those fill whole 256-byte
  // blocks, so a client that writes rows back to back is caught.
  b->pitch = (p->width * bytesPerPixel / 256 + 1) * 256;
  b->memory.assign(static_cast<size_t>(b->pitch * rows), 0xEE);
  p->inputBuffer = b.get();
  ++w.inputsCreated;
  s->inputs.push_back(std::move(b));
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncDestroyInputBuffer(void* encoder, NV_ENC_INPUT_PTR buffer) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  InputBuffer* b = findInput(*s, buffer);
  if (!b) return FAKE_RULE("unknown or destroyed input buffer", NV_ENC_ERR_INVALID_PARAM);
  if (b->locked) return FAKE_RULE("input buffer " + num(b->id) + " destroyed while locked", NV_ENC_ERR_LOCK_BUSY);
  b->alive = false;
  std::vector<uint8_t>().swap(b->memory);  // a client still writing through the old pointer now hits freed memory
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncCreateBitstreamBuffer(void* encoder, NV_ENC_CREATE_BITSTREAM_BUFFER* p) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  FAKE_PARAMS(NV_ENC_CREATE_BITSTREAM_BUFFER_VER, "NV_ENC_CREATE_BITSTREAM_BUFFER");
  FAKE_INITIALIZED();
  auto b = std::make_unique<OutputBuffer>();
  b->id = w.nextId++;
  p->bitstreamBuffer = b.get();
  ++w.outputsCreated;
  s->outputs.push_back(std::move(b));
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncDestroyBitstreamBuffer(void* encoder, NV_ENC_OUTPUT_PTR buffer) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  OutputBuffer* b = findOutput(*s, buffer);
  if (!b) return FAKE_RULE("unknown or destroyed bitstream buffer", NV_ENC_ERR_INVALID_PARAM);
  if (b->locked) return FAKE_RULE("bitstream buffer " + num(b->id) + " destroyed while locked", NV_ENC_ERR_LOCK_BUSY);
  if (b->pending)
    return FAKE_RULE("bitstream buffer " + num(b->id) + " destroyed with its output not retrieved",
                     NV_ENC_ERR_INVALID_CALL);
  b->alive = false;
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncRegisterAsyncEvent(void* encoder, NV_ENC_EVENT_PARAMS* p) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  FAKE_PARAMS(NV_ENC_EVENT_PARAMS_VER, "NV_ENC_EVENT_PARAMS");
  if (!p->completionEvent) return FAKE_RULE("null completion event", NV_ENC_ERR_INVALID_PTR);
#if !defined(_WIN32)
  return FAKE_RULE("completion events outside Windows", NV_ENC_ERR_UNSUPPORTED_PARAM);
#else
  for (void* e : s->events)
    if (e == p->completionEvent) return FAKE_RULE("completion event registered twice", NV_ENC_ERR_INVALID_PARAM);
  s->events.push_back(p->completionEvent);
  return NV_ENC_SUCCESS;
#endif
}

NVENCSTATUS NVENCAPI nvEncUnregisterAsyncEvent(void* encoder, NV_ENC_EVENT_PARAMS* p) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  FAKE_PARAMS(NV_ENC_EVENT_PARAMS_VER, "NV_ENC_EVENT_PARAMS");
  if (!p->completionEvent) return FAKE_RULE("null completion event", NV_ENC_ERR_INVALID_PTR);
  for (auto it = s->events.begin(); it != s->events.end(); ++it)
    if (*it == p->completionEvent) {
      s->events.erase(it);
      return NV_ENC_SUCCESS;
    }
  return FAKE_RULE("completion event not registered", NV_ENC_ERR_EVENT_NOT_REGISTERD);
}

NVENCSTATUS NVENCAPI nvEncLockInputBuffer(void* encoder, NV_ENC_LOCK_INPUT_BUFFER* p) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  FAKE_PARAMS(NV_ENC_LOCK_INPUT_BUFFER_VER, "NV_ENC_LOCK_INPUT_BUFFER");
  InputBuffer* b = findInput(*s, p->inputBuffer);
  if (!b) return FAKE_RULE("unknown or destroyed input buffer", NV_ENC_ERR_INVALID_PARAM);
  if (b->locked) return FAKE_RULE("input buffer " + num(b->id) + " locked twice", NV_ENC_ERR_LOCK_BUSY);
  b->locked = true;
  p->bufferDataPtr = b->memory.data();
  p->pitch = b->pitch;
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncUnlockInputBuffer(void* encoder, NV_ENC_INPUT_PTR buffer) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  InputBuffer* b = findInput(*s, buffer);
  if (!b) return FAKE_RULE("unknown or destroyed input buffer", NV_ENC_ERR_INVALID_PARAM);
  if (!b->locked) return FAKE_RULE("input buffer " + num(b->id) + " not locked", NV_ENC_ERR_INVALID_CALL);
  b->locked = false;
  return NV_ENC_SUCCESS;
}

bool registered(const Session& s, void* event) {
  for (void* e : s.events)
    if (e == event) return true;
  return false;
}

void signal([[maybe_unused]] void* event) {
#if defined(_WIN32)
  SetEvent(static_cast<HANDLE>(event));
#endif
}

NVENCSTATUS NVENCAPI nvEncEncodePicture(void* encoder, NV_ENC_PIC_PARAMS* p) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  FAKE_PARAMS(NV_ENC_PIC_PARAMS_VER, "NV_ENC_PIC_PARAMS");
  FAKE_INITIALIZED();
  if (s->ended) return FAKE_RULE("picture after the end of stream", NV_ENC_ERR_INVALID_CALL);
  if (p->encodePicFlags & NV_ENC_PIC_FLAG_EOS) {
    if (p->inputBuffer) return FAKE_RULE("end of stream with an input buffer", NV_ENC_ERR_INVALID_PARAM);
    if (s->async && p->completionEvent) {
      if (!registered(*s, p->completionEvent))
        return FAKE_RULE("completion event not registered", NV_ENC_ERR_EVENT_NOT_REGISTERD);
      signal(p->completionEvent);
    }
    s->ended = true;
    return NV_ENC_SUCCESS;
  }
  InputBuffer* in = findInput(*s, p->inputBuffer);
  if (!in) return FAKE_RULE("unknown or destroyed input buffer", NV_ENC_ERR_INVALID_PARAM);
  if (in->locked) return FAKE_RULE("input buffer " + num(in->id) + " encoded while locked", NV_ENC_ERR_LOCK_BUSY);
  OutputBuffer* out = findOutput(*s, p->outputBitstream);
  if (!out) return FAKE_RULE("unknown or destroyed bitstream buffer", NV_ENC_ERR_INVALID_PARAM);
  if (out->pending)
    return FAKE_RULE("bitstream buffer " + num(out->id) + " still holds a picture not retrieved",
                     NV_ENC_ERR_INVALID_CALL);
  if (p->inputWidth != s->width || p->inputHeight != s->height)
    return FAKE_RULE("input " + std::to_string(p->inputWidth) + "x" + std::to_string(p->inputHeight) +
                         " is not the encode size " + std::to_string(s->width) + "x" + std::to_string(s->height),
                     NV_ENC_ERR_INVALID_PARAM);
  if (p->inputWidth > in->width || p->inputHeight > in->height)
    return FAKE_RULE("input larger than its buffer", NV_ENC_ERR_INVALID_PARAM);
  if (p->inputPitch != in->pitch)
    return FAKE_RULE("inputPitch " + std::to_string(p->inputPitch) + " is not the buffer's pitch " +
                         std::to_string(in->pitch),
                     NV_ENC_ERR_INVALID_PARAM);
  if (p->bufferFmt != in->format) return FAKE_RULE("bufferFmt is not the buffer's format", NV_ENC_ERR_INVALID_PARAM);
  if (p->pictureStruct != NV_ENC_PIC_STRUCT_FRAME) return FAKE_RULE("picture is not a frame", NV_ENC_ERR_INVALID_PARAM);
  if (s->async && !registered(*s, p->completionEvent))
    return FAKE_RULE("completion event not registered", NV_ENC_ERR_EVENT_NOT_REGISTERD);

  const uint32_t index = s->pictures++;
  Recorded& r = w.pictures.emplace_back();
  r.picture.inputTimeStamp = p->inputTimeStamp;
  r.picture.encodePicFlags = p->encodePicFlags;
  r.picture.inputWidth = p->inputWidth;
  r.picture.inputHeight = p->inputHeight;
  r.picture.inputPitch = p->inputPitch;
  // The chroma plane of the surface starts after the buffer's full height of luma rows.
  if (in->format == NV_ENC_BUFFER_FORMAT_NV12)
    r.nv12 = kestrium::fake::packNv12(in->memory.data(), in->memory.data() + size_t{in->pitch} * in->height, in->pitch,
                                      p->inputWidth, p->inputHeight);
  r.picture.nv12 = r.nv12.empty() ? nullptr : r.nv12.data();
  r.picture.nv12Size = r.nv12.size();

  out->pending = true;
  out->frameIdx = index;
  out->timeStamp = p->inputTimeStamp;
  out->duration = p->inputDuration;
  out->type = NV_ENC_PIC_TYPE_P;
  out->unit = w.clip.empty() ? 0 : static_cast<uint32_t>(index % w.clip.size());
  if (!w.clip.empty() && !kestrium::fake::findNal(w.clip[out->unit], 5).empty()) out->type = NV_ENC_PIC_TYPE_IDR;
  r.picture.accessUnit = out->unit;
  r.picture.pictureType = out->type;
  if (s->async) signal(p->completionEvent);
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncLockBitstream(void* encoder, NV_ENC_LOCK_BITSTREAM* p) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  FAKE_PARAMS(NV_ENC_LOCK_BITSTREAM_VER, "NV_ENC_LOCK_BITSTREAM");
  OutputBuffer* b = findOutput(*s, p->outputBitstream);
  if (!b) return FAKE_RULE("unknown or destroyed bitstream buffer", NV_ENC_ERR_INVALID_PARAM);
  if (b->locked) return FAKE_RULE("bitstream buffer " + num(b->id) + " locked twice", NV_ENC_ERR_LOCK_BUSY);
  if (!b->pending)
    return FAKE_RULE("bitstream buffer " + num(b->id) + " holds no picture (a driver would wait forever)",
                     NV_ENC_ERR_INVALID_CALL);
  const size_t size = w.clip.empty() ? 0 : w.clip[b->unit].size();
  b->lockedBytes = std::make_unique<uint8_t[]>(size ? size : 1);
  if (size) std::memcpy(b->lockedBytes.get(), w.clip[b->unit].data(), size);
  b->locked = true;
  p->bitstreamBufferPtr = b->lockedBytes.get();
  p->bitstreamSizeInBytes = static_cast<uint32_t>(size);
  p->outputTimeStamp = b->timeStamp;
  p->outputDuration = b->duration;
  p->pictureType = b->type;
  p->pictureStruct = NV_ENC_PIC_STRUCT_FRAME;
  p->frameIdx = b->frameIdx;
  p->hwEncodeStatus = 0;
  p->numSlices = 1;
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncUnlockBitstream(void* encoder, NV_ENC_OUTPUT_PTR buffer) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  OutputBuffer* b = findOutput(*s, buffer);
  if (!b) return FAKE_RULE("unknown or destroyed bitstream buffer", NV_ENC_ERR_INVALID_PARAM);
  if (!b->locked) return FAKE_RULE("bitstream buffer " + num(b->id) + " not locked", NV_ENC_ERR_INVALID_CALL);
  b->locked = false;
  b->pending = false;
  b->lockedBytes.reset();
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncGetSequenceParams(void* encoder, NV_ENC_SEQUENCE_PARAM_PAYLOAD* p) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  FAKE_PARAMS(NV_ENC_SEQUENCE_PARAM_PAYLOAD_VER, "NV_ENC_SEQUENCE_PARAM_PAYLOAD");
  FAKE_INITIALIZED();
  if (!p->spsppsBuffer || !p->outSPSPPSPayloadSize) return FAKE_RULE("null buffer or size", NV_ENC_ERR_INVALID_PTR);
  std::vector<uint8_t> payload;
  for (int type : {7, 8}) {
    const std::vector<uint8_t> nal = w.clip.empty() ? std::vector<uint8_t>{} : kestrium::fake::findNal(w.clip[0], type);
    payload.insert(payload.end(), nal.begin(), nal.end());
  }
  if (p->inBufferSize < payload.size())
    return FAKE_RULE("buffer of " + std::to_string(p->inBufferSize) + " bytes for " + std::to_string(payload.size()),
                     NV_ENC_ERR_INVALID_PARAM);
  if (!payload.empty()) std::memcpy(p->spsppsBuffer, payload.data(), payload.size());
  *p->outSPSPPSPayloadSize = static_cast<uint32_t>(payload.size());
  return NV_ENC_SUCCESS;
}

NVENCSTATUS NVENCAPI nvEncDestroyEncoder(void* encoder) {
  FAKE_ENTER(NVENCSTATUS);
  FAKE_SESSION(encoder);
  for (const std::string& line : leftovers(*s)) FAKE_RULE(line, 0);
  s->alive = false;
  s->inputs.clear();
  s->outputs.clear();
  s->events.clear();
  return NV_ENC_SUCCESS;
}

}  // namespace

extern "C" {

FAKE_EXPORT NVENCSTATUS NVENCAPI NvEncodeAPICreateInstance(NV_ENCODE_API_FUNCTION_LIST* f) {
  FAKE_ENTER(NVENCSTATUS);
  if (!f) return FAKE_RULE("null function list", NV_ENC_ERR_INVALID_PTR);
  FAKE_VERSION(f->version, NV_ENCODE_API_FUNCTION_LIST_VER, "NV_ENCODE_API_FUNCTION_LIST");
  // Only what the server uses; the rest stay as the caller left them (null).
  f->nvEncGetEncodeGUIDCount = nvEncGetEncodeGUIDCount;
  f->nvEncGetEncodeProfileGUIDCount = nvEncGetEncodeProfileGUIDCount;
  f->nvEncGetEncodeProfileGUIDs = nvEncGetEncodeProfileGUIDs;
  f->nvEncGetEncodeGUIDs = nvEncGetEncodeGUIDs;
  f->nvEncGetInputFormatCount = nvEncGetInputFormatCount;
  f->nvEncGetInputFormats = nvEncGetInputFormats;
  f->nvEncGetEncodePresetCount = nvEncGetEncodePresetCount;
  f->nvEncGetEncodePresetGUIDs = nvEncGetEncodePresetGUIDs;
  f->nvEncGetEncodePresetConfig = nvEncGetEncodePresetConfig;
  f->nvEncInitializeEncoder = nvEncInitializeEncoder;
  f->nvEncCreateInputBuffer = nvEncCreateInputBuffer;
  f->nvEncDestroyInputBuffer = nvEncDestroyInputBuffer;
  f->nvEncCreateBitstreamBuffer = nvEncCreateBitstreamBuffer;
  f->nvEncDestroyBitstreamBuffer = nvEncDestroyBitstreamBuffer;
  f->nvEncEncodePicture = nvEncEncodePicture;
  f->nvEncLockBitstream = nvEncLockBitstream;
  f->nvEncUnlockBitstream = nvEncUnlockBitstream;
  f->nvEncLockInputBuffer = nvEncLockInputBuffer;
  f->nvEncUnlockInputBuffer = nvEncUnlockInputBuffer;
  f->nvEncGetSequenceParams = nvEncGetSequenceParams;
  f->nvEncRegisterAsyncEvent = nvEncRegisterAsyncEvent;
  f->nvEncUnregisterAsyncEvent = nvEncUnregisterAsyncEvent;
  f->nvEncDestroyEncoder = nvEncDestroyEncoder;
  f->nvEncOpenEncodeSessionEx = nvEncOpenEncodeSessionEx;
  return NV_ENC_SUCCESS;
}

// ---------------------------------------------------------------------------
// Control

#define FAKE_CONTROL()                             \
  std::lock_guard<std::mutex> lock(state().mutex); \
  World& w = state().world

void FakeNv_Reset(void) { FAKE_CONTROL(); w = World{}; }
void FakeNv_SetDevices(const FakeNvDevice* devices, int count) { FAKE_CONTROL(); assign(w.devices, devices, count); }
void FakeNv_SetProfiles(const GUID* profiles, int count) { FAKE_CONTROL(); assign(w.profiles, profiles, count); }
void FakeNv_SetInputFormats(const NV_ENC_BUFFER_FORMAT* formats, int count) {
  FAKE_CONTROL();
  assign(w.formats, formats, count);
}

void FakeNv_SetPresetCount(int count) {
  FAKE_CONTROL();
  w.presetCount = count < 0 ? 0 : count > kPresetTotal ? kPresetTotal : count;
}

void FakeNv_Fail(const char* call, int status, int occurrence) { FAKE_CONTROL(); w.fail(call, status, occurrence); }

void FakeNv_AddAccessUnit(const uint8_t* annexB, size_t size) { FAKE_CONTROL(); w.addAccessUnit(annexB, size); }

const char* FakeNv_CallLog(void) { FAKE_CONTROL(); return w.callLog(); }

int FakeNv_InitializeParams(NV_ENC_INITIALIZE_PARAMS* params, NV_ENC_CONFIG* config) {
  FAKE_CONTROL();
  if (!w.haveInit) return 0;
  if (params) *params = w.init;
  if (config) *config = w.config;
  return 1;
}

const GUID* FakeNv_PresetGuids(int* count) {
  FAKE_CONTROL();
  if (count) *count = w.presetCount;
  return kPresets;
}

int32_t FakeNv_PresetGopLength(int i) { return presetGop(i); }
int FakeNv_InputBuffersCreated(void) { FAKE_CONTROL(); return w.inputsCreated; }
int FakeNv_BitstreamBuffersCreated(void) { FAKE_CONTROL(); return w.outputsCreated; }
int FakeNv_PictureCount(void) { FAKE_CONTROL(); return static_cast<int>(w.pictures.size()); }


int FakeNv_Picture(int index, FakeNvPicture* out) {
  FAKE_CONTROL();
  return kestrium::fake::pictureAt(w.pictures, index, out);
}

const char* FakeNv_Violations(void) {
  FAKE_CONTROL();
  w.violationsCopy = w.violations;
  for (const auto& c : w.contexts)
    if (c->alive) w.violationsCopy += "CUDA context " + num(c->id) + " not destroyed\n";
  for (const auto& s : w.sessions)
    if (s->alive) {
      w.violationsCopy += "encode session " + num(s->id) + " not destroyed\n";
      for (const std::string& line : leftovers(*s)) w.violationsCopy += line + '\n';
    }
  return w.violationsCopy.c_str();
}

}  // extern "C"
