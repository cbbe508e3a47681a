// The fake VA-API (see FakeVa.h). Every entry point takes the one lock, logs
// itself, answers an injected failure if the test set one, and otherwise checks
// what it is given the way a driver would, recording each rule broken. Every
// kind of object takes its ID from one counter and its record stays until the
// next reset, so an ID of the wrong kind, or one used after its destroy, is
// recognised instead of being mistaken for a newer object.

#include "FakeVa.h"

#include "tests/videoEncoder/FakeDriverSupport.h"

#include <va/va_drm.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#define FAKE_EXPORT __attribute__((visibility("default")))

namespace {

struct Display {
  VAGenericID id = 0;
  bool initialized = false, terminated = false;
  std::string vendor;  // what vaQueryVendorString hands out: stays put until the reset
};

struct Object {
  const char* kind = "";
  VAGenericID id = 0;
  Display* display = nullptr;
  bool alive = true;
  virtual ~Object() = default;
  // The record stays; what it held is freed, so a client still using a pointer
  // into it is caught by the sanitizers.
  virtual void drop() { alive = false; }
};

struct Config : Object {
  static constexpr const char* kKind = "config";
  VAProfile profile = VAProfileNone;
  VAEntrypoint entrypoint = VAEntrypointVLD;
  uint32_t rtFormat = 0, rateControl = 0;
};

struct Surface : Object {
  static constexpr const char* kKind = "surface";
  uint32_t width = 0, height = 0, pitch = 0, chroma = 0;  // the layout vaDeriveImage describes
  std::vector<uint8_t> pixels;
  int images = 0;  // derived images alive
  // The coded buffers, with their picture, of pictures from this source that
  // no vaSyncSurface has waited for.
  std::vector<std::pair<VABufferID, uint32_t>> unsynced;
  void drop() override { alive = false, std::vector<uint8_t>().swap(pixels); }
};

struct Context : Object {
  static constexpr const char* kKind = "context";
  const Config* config = nullptr;
  uint32_t width = 0, height = 0;
  std::vector<VASurfaceID> targets;
  uint32_t pictures = 0, sinceIdr = 0;        // coded so far, and since the last IDR picture
  VASurfaceID previous = VA_INVALID_SURFACE;  // the last picture's CurrPic
  std::optional<VAEncSequenceParameterBufferH264> seq;  // the latest
  // The open picture: its source, and copies of what was rendered with it.
  bool open = false, refused = false;  // refused: a render the test made fail
  VASurfaceID source = VA_INVALID_SURFACE;
  std::vector<VABufferID> rendered;
  std::vector<VAEncSequenceParameterBufferH264> seqs;
  std::vector<VAEncPictureParameterBufferH264> pics;
  std::vector<VAEncSliceParameterBufferH264> slices;
  bool renders(VASurfaceID s) const { return std::find(targets.begin(), targets.end(), s) != targets.end(); }
};

struct Buffer : Object {
  static constexpr const char* kKind = "buffer";
  VABufferType type = VABufferTypeMax;
  Context* context = nullptr;  // null for an image's buffer
  Surface* surface = nullptr;  // an image's buffer: whose pixels it holds
  std::vector<uint8_t> data;   // exactly the size asked for, so a sanitizer sees a client overrun
  bool mapped = false;
  // A coded buffer: the picture it holds, and whether its source was synced since.
  bool holds = false, synced = false;
  uint32_t picture = 0, codedSize = 0;
  // Made by the map and freed by the unmap, so bytes read after it are freed memory.
  std::unique_ptr<VACodedBufferSegment[]> segments;
  std::unique_ptr<uint8_t[]> bytes;
  void drop() override {
    alive = mapped = false;
    std::vector<uint8_t>().swap(data);
    segments.reset(), bytes.reset();
  }
};

struct Image : Object {
  static constexpr const char* kKind = "image";
  Surface* surface = nullptr;
  Buffer* buffer = nullptr;
};

struct Recorded {
  FakeVaPicture picture{};
  std::vector<uint8_t> nv12;
};

const VAProfile kProfiles[] = {VAProfileH264ConstrainedBaseline, VAProfileH264Main, VAProfileH264High};
constexpr uint32_t kMaxSize = 4096;  // the largest picture this GPU's H.264 encoder takes

// Everything a reset returns to its start.
struct World : kestrium::fake::Journal {
  std::string vendor = "Mesa Gallium driver 23.1.1 for AMD Radeon RX 6600 (fake)";
  std::vector<VAProfile> encodeProfiles{std::begin(kProfiles), std::end(kProfiles)};
  std::deque<Recorded> pictures;        // a deque, so the handed-out pixels never move
  const Config* config = nullptr;       // the last one made
  std::optional<VAEncSequenceParameterBufferH264> sequence;
  std::optional<VAEncMiscParameterRateControl> rateControl;
  std::optional<VAEncMiscParameterFrameRate> frameRate;
  std::optional<VAEncMiscParameterHRD> hrd;
  std::optional<VAEncMiscParameterBufferQualityLevel> qualityLevel;
  int surfacesCreated = 0;
  std::optional<std::pair<int, int>> contextSize;

  VAGenericID nextId = 1;
  std::vector<std::unique_ptr<Display>> displays;
  std::map<VAGenericID, std::unique_ptr<Object>> objects;
};

struct State {
  std::mutex mutex;
  World world;
};

// A server process that an end-to-end test starts is out of reach of the
// control functions: there the environment sets the fake up as it loads.
// FAKE_VA_CLIP names an Annex B file whose access units (each behind its
// delimiter, NAL type 9) become the clip; FAKE_VA_FAIL is "call:status:occurrence";
// FAKE_VA_VENDOR is the vendor string.
void arrangeFromEnvironment(World& w) {
  w.clip = kestrium::fake::clipFromEnvironment("FAKE_VA_CLIP");
  w.failures.addFromEnvironment("FAKE_VA_FAIL");
  if (const char* vendor = std::getenv("FAKE_VA_VENDOR")) w.vendor = vendor;
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
std::string dims(uint32_t width, uint32_t height) { return std::to_string(width) + "x" + std::to_string(height); }

// The display a handle names, or null with the rule recorded. Only vaInitialize
// takes one not initialised yet.
Display* findDisplay(World& w, const char* call, VADisplay dpy, bool initialized = true) {
  for (auto& d : w.displays) {
    if (d.get() != dpy) continue;
    if (d->terminated) return w.rule(call, "display " + num(d->id) + " used after vaTerminate", nullptr);
    if (initialized && !d->initialized) return w.rule(call, "display " + num(d->id) + " not initialised", nullptr);
    return d.get();
  }
  return w.rule(call, "unknown display handle", nullptr);
}

// The live object of the display that an ID names, or null with the rule recorded.
template <typename T>
T* live(World& w, const char* call, const Display* d, VAGenericID id) {
  const auto it = w.objects.find(id);
  T* o = it == w.objects.end() ? nullptr : dynamic_cast<T*>(it->second.get());
  std::string what = std::string(T::kKind) + " " + num(id);
  if (!o)
    what = "no " + what + (it == w.objects.end() ? "" : std::string(": that is a ") + it->second->kind);
  else if (!o->alive)
    what += " used after destroy";
  else if (o->display != d)
    what += " is of another display";
  else
    return o;
  return w.rule(call, what, nullptr);
}

template <typename T>
T& make(World& w, Display* d) {
  auto o = std::make_unique<T>();
  o->kind = T::kKind, o->id = w.nextId++, o->display = d;
  T& made = *o;
  w.objects[made.id] = std::move(o);
  return made;
}

// What a display holds still, one line each.
std::vector<std::string> leftovers(const World& w, const Display* d) {
  std::vector<std::string> out;
  for (const auto& [id, o] : w.objects) {
    if (!o->alive || o->display != d) continue;
    const auto* b = dynamic_cast<const Buffer*>(o.get());
    // An image's buffer goes with the image.
    if (!b || !b->surface) out.push_back(std::string(o->kind) + " " + num(id) + " not destroyed");
    if (b && b->mapped) out.push_back("buffer " + num(id) + " still mapped");
  }
  return out;
}

std::vector<VAProfile> profiles(const World& w) {
  std::vector<VAProfile> all(std::begin(kProfiles), std::end(kProfiles));
  for (VAProfile p : w.encodeProfiles)
    if (std::find(all.begin(), all.end(), p) == all.end()) all.push_back(p);
  return all;
}

bool encodes(const World& w, VAProfile p) {
  return std::find(w.encodeProfiles.begin(), w.encodeProfiles.end(), p) != w.encodeProfiles.end();
}

// What the GPU says of a profile and entry point: a real answer, no rule broken.
VAStatus support(const World& w, VAProfile p, VAEntrypoint e) {
  const std::vector<VAProfile> all = profiles(w);
  if (std::find(all.begin(), all.end(), p) == all.end()) return VA_STATUS_ERROR_UNSUPPORTED_PROFILE;
  return e == VAEntrypointVLD || (e == VAEntrypointEncSlice && encodes(w, p)) ? VA_STATUS_SUCCESS
                                                                               : VA_STATUS_ERROR_UNSUPPORTED_ENTRYPOINT;
}

uint32_t attribute(VAEntrypoint e, VAConfigAttribType type) {
  if (type == VAConfigAttribRTFormat) return VA_RT_FORMAT_YUV420;
  if (e != VAEntrypointEncSlice) return VA_ATTRIB_NOT_SUPPORTED;
  switch (type) {
    case VAConfigAttribRateControl: return VA_RC_CBR | VA_RC_VBR | VA_RC_CQP;
    case VAConfigAttribEncQualityRange: return 7;
    case VAConfigAttribEncPackedHeaders: return VA_ENC_PACKED_HEADER_NONE;
    case VAConfigAttribEncMaxRefFrames: return 1 | (0 << 16);  // one reference in list 0, none in list 1
    default: return VA_ATTRIB_NOT_SUPPORTED;
  }
}

// Whether vaCreateConfig may be given the attribute: one of the values offered.
bool acceptable(VAEntrypoint e, const VAConfigAttrib& a) {
  const uint32_t offered = attribute(e, a.type), v = a.value;
  if (offered == VA_ATTRIB_NOT_SUPPORTED) return false;
  if (a.type == VAConfigAttribRTFormat) return v == VA_RT_FORMAT_YUV420;
  if (a.type == VAConfigAttribRateControl) return v != 0 && (v & (v - 1)) == 0 && (v & offered) != 0;
  return a.type == VAConfigAttribEncPackedHeaders && v == VA_ENC_PACKED_HEADER_NONE;
}

template <typename T>
T copyOf(const uint8_t* data) {
  T out;
  std::memcpy(&out, data, sizeof out);
  return out;
}

uint32_t miscType(const uint8_t* data) { return copyOf<uint32_t>(data); }

size_t miscSize(uint32_t type) {
  switch (type) {
    case VAEncMiscParameterTypeFrameRate: return sizeof(VAEncMiscParameterFrameRate);
    case VAEncMiscParameterTypeRateControl: return sizeof(VAEncMiscParameterRateControl);
    case VAEncMiscParameterTypeHRD: return sizeof(VAEncMiscParameterHRD);
    case VAEncMiscParameterTypeQualityLevel: return sizeof(VAEncMiscParameterBufferQualityLevel);
    default: return 0;
  }
}

// What is wrong with a parameter buffer, "" when nothing. A miscellaneous
// buffer's size depends on its header, which a client may write through
// vaMapBuffer after making the buffer empty: until then any size passes.
std::string paramFault(VABufferType type, size_t bytes, unsigned count, const uint8_t* data) {
  std::string what = "buffer type " + std::to_string(type);
  size_t want = 0;
  switch (type) {
    case VAEncSequenceParameterBufferType: want = sizeof(VAEncSequenceParameterBufferH264); break;
    case VAEncPictureParameterBufferType: want = sizeof(VAEncPictureParameterBufferH264); break;
    case VAEncSliceParameterBufferType:
      want = sizeof(VAEncSliceParameterBufferH264);
      count = count ? 1 : 0;  // several slices may share a buffer
      break;
    case VAEncMiscParameterBufferType:
      want = std::max(bytes, sizeof(VAEncMiscParameterBuffer));
      if (!data || bytes < want) break;
      what = "miscellaneous parameter type " + std::to_string(miscType(data));
      if (!miscSize(miscType(data))) return what + " not supported";
      want = sizeof(VAEncMiscParameterBuffer) + miscSize(miscType(data));
      break;
    default: return what + " not supported";
  }
  if (bytes == want && count == 1) return "";
  return std::to_string(count) + " x " + std::to_string(bytes) + " bytes for " + what + ", not 1 x " +
         std::to_string(want);
}

// What is wrong with sequence parameters for the context, one line each.
std::vector<std::string> sequenceFaults(const Context& c, const VAEncSequenceParameterBufferH264& s) {
  std::vector<std::string> out;
  if (s.picture_width_in_mbs != c.width / 16 || s.picture_height_in_mbs != c.height / 16)
    out.push_back("sequence of " + dims(s.picture_width_in_mbs, s.picture_height_in_mbs) +
                  " macroblocks for a context of " + dims(c.width, c.height));
  if (s.intra_idr_period == 0) out.push_back("intra_idr_period 0");
  if (s.ip_period < 1) out.push_back("ip_period 0");
  if (s.bits_per_second == 0 && c.config->rateControl != VA_RC_CQP) out.push_back("bits_per_second 0");
  if (s.time_scale == 0 || s.num_units_in_tick == 0) out.push_back("no time_scale or num_units_in_tick");
  if (s.level_idc == 0) out.push_back("level_idc 0");
  if (s.seq_fields.bits.chroma_format_idc != 1) out.push_back("chroma_format_idc is not 4:2:0");
  const bool cropped =
      s.frame_crop_left_offset || s.frame_crop_right_offset || s.frame_crop_top_offset || s.frame_crop_bottom_offset;
  if (cropped != (s.frame_cropping_flag != 0)) out.push_back("frame_cropping_flag does not match the crop offsets");
  return out;
}

const char* errorText(VAStatus status) {
  static const std::pair<VAStatus, const char*> kTexts[] = {
      {VA_STATUS_SUCCESS, "success (no error)"},
      {VA_STATUS_ERROR_OPERATION_FAILED, "operation failed"},
      {VA_STATUS_ERROR_ALLOCATION_FAILED, "resource allocation failed"},
      {VA_STATUS_ERROR_INVALID_DISPLAY, "invalid VADisplay"},
      {VA_STATUS_ERROR_UNSUPPORTED_PROFILE, "the requested VAProfile is not supported"},
      {VA_STATUS_ERROR_UNSUPPORTED_ENTRYPOINT, "the requested VAEntryPoint is not supported"},
      {VA_STATUS_ERROR_INVALID_PARAMETER, "invalid parameter"}};
  for (const auto& [s, text] : kTexts)
    if (s == status) return text;
  return "unknown libva error";
}

// The context an ID names when it is in a picture; for a call made to fail,
// which records no rule.
Context* openContext(World& w, VAContextID id) {
  const auto it = w.objects.find(id);
  auto* c = it == w.objects.end() ? nullptr : dynamic_cast<Context*>(it->second.get());
  return c && c->alive && c->open ? c : nullptr;
}

template <typename T>
int give(const std::optional<T>& value, T* out) {
  if (value && out) *out = *value;
  return value ? 1 : 0;
}

}  // namespace

#define FAKE_LOCK()                                \
  std::lock_guard<std::mutex> lock(state().mutex); \
  World& w = state().world

// The function name doubles as the log entry; __func__ is the plain name.
#define FAKE_ENTER()                                          \
  FAKE_LOCK();                                                \
  if (const std::optional<int> injected = w.enter(__func__)) \
  return static_cast<VAStatus>(*injected)

// The calls that answer with no status: an injected failure makes them answer
// null or 0, as libva does for a display it refuses.
#define FAKE_ENTER_OR(value) \
  FAKE_LOCK();               \
  if (w.enter(__func__).value_or(0) != 0) return value

#define FAKE_RULE(what, status) w.rule(__func__, what, status)

#define FAKE_DISPLAY(fail)                    \
  Display* d = findDisplay(w, __func__, dpy); \
  if (!d) return fail

// How almost every call starts: logged, perhaps made to fail, on a live display.
#define FAKE_ON_DISPLAY() \
  FAKE_ENTER();           \
  FAKE_DISPLAY(VA_STATUS_ERROR_INVALID_DISPLAY)

#define FAKE_FIND(var, Type, id, status)      \
  Type* var = live<Type>(w, __func__, d, id); \
  if (!var) return status

extern "C" {

FAKE_EXPORT VADisplay vaGetDisplayDRM(int fd) {
  FAKE_ENTER_OR(nullptr);
  if (fd < 0) return FAKE_RULE("file descriptor " + std::to_string(fd), nullptr);
  w.displays.push_back(std::make_unique<Display>());
  w.displays.back()->id = w.nextId++;
  return w.displays.back().get();
}

FAKE_EXPORT VAStatus vaInitialize(VADisplay dpy, int* major, int* minor) {
  FAKE_ENTER();
  Display* d = findDisplay(w, __func__, dpy, false);
  if (!d) return VA_STATUS_ERROR_INVALID_DISPLAY;
  if (d->initialized) return FAKE_RULE("display initialised twice", VA_STATUS_ERROR_OPERATION_FAILED);
  if (!major || !minor) return FAKE_RULE("null version", VA_STATUS_ERROR_INVALID_PARAMETER);
  d->initialized = true;
  d->vendor = w.vendor;
  *major = 1, *minor = 17;
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaTerminate(VADisplay dpy) {
  FAKE_ON_DISPLAY();
  for (const std::string& line : leftovers(w, d)) FAKE_RULE(line, 0);
  // The driver goes with everything it held, so each leftover is told once.
  for (auto& [id, o] : w.objects)
    if (o->display == d) o->drop();
  d->terminated = true;
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT const char* vaQueryVendorString(VADisplay dpy) {
  FAKE_ENTER_OR(nullptr);
  FAKE_DISPLAY(nullptr);
  return d->vendor.c_str();
}

FAKE_EXPORT const char* vaErrorStr(VAStatus status) {
  FAKE_ENTER_OR(nullptr);
  return errorText(status);
}

FAKE_EXPORT int vaMaxNumProfiles(VADisplay dpy) {
  FAKE_ENTER_OR(0);
  FAKE_DISPLAY(0);
  return static_cast<int>(profiles(w).size());
}

FAKE_EXPORT VAStatus vaQueryConfigProfiles(VADisplay dpy, VAProfile* list, int* count) {
  FAKE_ON_DISPLAY();
  if (!list || !count) return FAKE_RULE("null list or count", VA_STATUS_ERROR_INVALID_PARAMETER);
  const std::vector<VAProfile> all = profiles(w);
  std::copy(all.begin(), all.end(), list);
  *count = static_cast<int>(all.size());
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT int vaMaxNumEntrypoints(VADisplay dpy) {
  FAKE_ENTER_OR(0);
  FAKE_DISPLAY(0);
  return 2;
}

FAKE_EXPORT VAStatus vaQueryConfigEntrypoints(VADisplay dpy, VAProfile profile, VAEntrypoint* list, int* count) {
  FAKE_ON_DISPLAY();
  if (!list || !count) return FAKE_RULE("null list or count", VA_STATUS_ERROR_INVALID_PARAMETER);
  *count = 0;
  if (const VAStatus s = support(w, profile, VAEntrypointVLD)) return s;
  list[(*count)++] = VAEntrypointVLD;
  if (encodes(w, profile)) list[(*count)++] = VAEntrypointEncSlice;
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaGetConfigAttributes(VADisplay dpy, VAProfile profile, VAEntrypoint entrypoint,
                                           VAConfigAttrib* attribs, int count) {
  FAKE_ON_DISPLAY();
  if (count < 0 || (count > 0 && !attribs)) return FAKE_RULE("no attribute list", VA_STATUS_ERROR_INVALID_PARAMETER);
  if (const VAStatus s = support(w, profile, entrypoint)) return s;
  for (int i = 0; i < count; ++i) attribs[i].value = attribute(entrypoint, attribs[i].type);
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaCreateConfig(VADisplay dpy, VAProfile profile, VAEntrypoint entrypoint, VAConfigAttrib* attribs,
                                    int count, VAConfigID* id) {
  FAKE_ON_DISPLAY();
  if (!id || count < 0 || (count > 0 && !attribs))
    return FAKE_RULE("null config ID or attribute list", VA_STATUS_ERROR_INVALID_PARAMETER);
  if (const VAStatus s = support(w, profile, entrypoint)) return s;
  for (int i = 0; i < count; ++i)
    if (!acceptable(entrypoint, attribs[i]))
      return FAKE_RULE("attribute " + std::to_string(attribs[i].type) + " of value " +
                           std::to_string(attribs[i].value) + " not offered",
                       VA_STATUS_ERROR_ATTR_NOT_SUPPORTED);
  Config& c = make<Config>(w, d);
  c.profile = profile, c.entrypoint = entrypoint;
  for (int i = 0; i < count; ++i) {
    if (attribs[i].type == VAConfigAttribRTFormat) c.rtFormat = attribs[i].value;
    if (attribs[i].type == VAConfigAttribRateControl) c.rateControl = attribs[i].value;
  }
  w.config = &c;
  *id = c.id;
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaDestroyConfig(VADisplay dpy, VAConfigID id) {
  FAKE_ON_DISPLAY();
  FAKE_FIND(c, Config, id, VA_STATUS_ERROR_INVALID_CONFIG);
  c->drop();
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaCreateSurfaces(VADisplay dpy, unsigned int format, unsigned int width, unsigned int height,
                                      VASurfaceID* ids, unsigned int count, VASurfaceAttrib* attribs,
                                      unsigned int attribCount) {
  FAKE_ON_DISPLAY();
  if (!ids || count == 0 || (attribCount > 0 && !attribs))
    return FAKE_RULE("no surface IDs or attribute list", VA_STATUS_ERROR_INVALID_PARAMETER);
  if (format != VA_RT_FORMAT_YUV420)
    return FAKE_RULE("format " + std::to_string(format) + " is not 4:2:0", VA_STATUS_ERROR_UNSUPPORTED_RT_FORMAT);
  if (width == 0 || height == 0 || width % 2 || height % 2)
    return FAKE_RULE("surface size " + dims(width, height), VA_STATUS_ERROR_INVALID_PARAMETER);
  if (width > kMaxSize || height > kMaxSize) return VA_STATUS_ERROR_RESOLUTION_NOT_SUPPORTED;
  for (unsigned i = 0; i < count; ++i) {
    Surface& s = make<Surface>(w, d);
    s.width = width, s.height = height;
    // Always wider than a row of pixels, even when those fill whole 256-byte
    // blocks, so a client that writes rows back to back is caught; the chroma
    // starts after the height rounded up to whole macroblocks.
    s.pitch = (width / 256 + 1) * 256;
    s.chroma = s.pitch * ((height + 15) / 16 * 16);
    s.pixels.assign(s.chroma + s.chroma / 2, 0xEE);
    ids[i] = s.id;
  }
  w.surfacesCreated += static_cast<int>(count);
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaDestroySurfaces(VADisplay dpy, VASurfaceID* ids, int count) {
  FAKE_ON_DISPLAY();
  if (!ids || count <= 0) return FAKE_RULE("no surfaces given", VA_STATUS_ERROR_INVALID_PARAMETER);
  for (int i = 0; i < count; ++i) {
    FAKE_FIND(s, Surface, ids[i], VA_STATUS_ERROR_INVALID_SURFACE);
    for (auto& [id, o] : w.objects)
      if (const auto* c = dynamic_cast<const Context*>(o.get()); c && c->alive && c->renders(s->id))
        FAKE_RULE("surface " + num(s->id) + " destroyed before context " + num(id) + " that renders to it", 0);
    if (s->images) FAKE_RULE("surface " + num(s->id) + " destroyed with a derived image alive", 0);
    s->drop();
  }
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaCreateContext(VADisplay dpy, VAConfigID config, int width, int height, int flag,
                                     VASurfaceID* targets, int count, VAContextID* id) {
  FAKE_ON_DISPLAY();
  FAKE_FIND(cfg, Config, config, VA_STATUS_ERROR_INVALID_CONFIG);
  if (cfg->entrypoint != VAEntrypointEncSlice)
    return FAKE_RULE("config " + num(cfg->id) + " does not encode", VA_STATUS_ERROR_INVALID_CONFIG);
  if (!id || !targets || count <= 0)
    return FAKE_RULE("null context ID or no render targets", VA_STATUS_ERROR_INVALID_PARAMETER);
  const auto cw = static_cast<uint32_t>(width), ch = static_cast<uint32_t>(height);
  if (width <= 0 || height <= 0 || cw % 16 || ch % 16)
    return FAKE_RULE("coded size " + dims(cw, ch) + " is not in whole macroblocks", VA_STATUS_ERROR_INVALID_PARAMETER);
  if (flag != VA_PROGRESSIVE) return FAKE_RULE("flag is not VA_PROGRESSIVE", VA_STATUS_ERROR_FLAG_NOT_SUPPORTED);
  for (int i = 0; i < count; ++i) {
    FAKE_FIND(s, Surface, targets[i], VA_STATUS_ERROR_INVALID_SURFACE);
    if (s->width < cw || s->height < ch)
      return FAKE_RULE("render target " + num(s->id) + " of " + dims(s->width, s->height) + " is smaller than " +
                           dims(cw, ch),
                       VA_STATUS_ERROR_INVALID_SURFACE);
  }
  Context& c = make<Context>(w, d);
  c.config = cfg, c.width = cw, c.height = ch;
  c.targets.assign(targets, targets + count);
  w.contextSize = {width, height};
  *id = c.id;
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaDestroyContext(VADisplay dpy, VAContextID id) {
  FAKE_ON_DISPLAY();
  FAKE_FIND(c, Context, id, VA_STATUS_ERROR_INVALID_CONTEXT);
  if (c->open) FAKE_RULE("context " + num(c->id) + " destroyed with a picture begun", 0);
  c->drop();
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaCreateBuffer(VADisplay dpy, VAContextID context, VABufferType type, unsigned int size,
                                    unsigned int count, void* data, VABufferID* id) {
  FAKE_ON_DISPLAY();
  FAKE_FIND(c, Context, context, VA_STATUS_ERROR_INVALID_CONTEXT);
  if (!id) return FAKE_RULE("null buffer ID", VA_STATUS_ERROR_INVALID_PARAMETER);
  const auto* in = static_cast<const uint8_t*>(data);
  if (type == VAEncCodedBufferType) {
    if (data || size == 0 || count != 1)
      return FAKE_RULE("a coded buffer takes no data, a size and one element", VA_STATUS_ERROR_INVALID_PARAMETER);
  } else if (const std::string fault = paramFault(type, size, count, in); !fault.empty()) {
    return FAKE_RULE(fault, fault.starts_with("buffer type") ? VA_STATUS_ERROR_UNSUPPORTED_BUFFERTYPE
                                                             : VA_STATUS_ERROR_INVALID_PARAMETER);
  }
  Buffer& b = make<Buffer>(w, d);
  b.type = type, b.context = c;
  b.data.assign(static_cast<size_t>(size) * count, 0);
  if (in) std::memcpy(b.data.data(), in, b.data.size());
  *id = b.id;
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaDestroyBuffer(VADisplay dpy, VABufferID id) {
  FAKE_ON_DISPLAY();
  FAKE_FIND(b, Buffer, id, VA_STATUS_ERROR_INVALID_BUFFER);
  if (b->surface) return FAKE_RULE("buffer " + num(id) + " is an image's", VA_STATUS_ERROR_INVALID_BUFFER);
  if (b->mapped) FAKE_RULE("buffer " + num(id) + " destroyed while mapped", 0);
  const Context& c = *b->context;
  if (c.alive && c.open && std::find(c.rendered.begin(), c.rendered.end(), id) != c.rendered.end())
    FAKE_RULE("buffer " + num(id) + " destroyed before vaEndPicture of the picture it was rendered with", 0);
  b->drop();
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaMapBuffer(VADisplay dpy, VABufferID id, void** out) {
  FAKE_ON_DISPLAY();
  FAKE_FIND(b, Buffer, id, VA_STATUS_ERROR_INVALID_BUFFER);
  if (!out) return FAKE_RULE("null pointer for the mapping", VA_STATUS_ERROR_INVALID_PARAMETER);
  if (b->mapped) return FAKE_RULE("buffer " + num(id) + " mapped twice", VA_STATUS_ERROR_OPERATION_FAILED);
  b->mapped = true;
  *out = b->data.data();
  if (b->type != VAEncCodedBufferType) return VA_STATUS_SUCCESS;
  if (!b->holds)
    FAKE_RULE("coded buffer " + num(id) + " holds no picture", 0);
  else if (!b->synced)
    FAKE_RULE("coded buffer " + num(id) + " mapped before vaSyncSurface of its picture's source (a driver would block)",
              0);
  b->bytes = std::make_unique<uint8_t[]>(b->codedSize);  // exactly the unit, so reading past it is caught
  std::memcpy(b->bytes.get(), b->data.data(), b->codedSize);
  b->segments = std::make_unique<VACodedBufferSegment[]>(2);  // zeroed: status 0, bit_offset 0
  const uint32_t half = b->codedSize / 2;
  b->segments[0].size = half;
  b->segments[0].buf = b->bytes.get();
  b->segments[0].next = &b->segments[1];
  b->segments[1].size = b->codedSize - half;
  b->segments[1].buf = b->bytes.get() + half;
  *out = b->segments.get();
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaUnmapBuffer(VADisplay dpy, VABufferID id) {
  FAKE_ON_DISPLAY();
  FAKE_FIND(b, Buffer, id, VA_STATUS_ERROR_INVALID_BUFFER);
  if (!b->mapped) return FAKE_RULE("buffer " + num(id) + " not mapped", VA_STATUS_ERROR_OPERATION_FAILED);
  b->mapped = false;
  b->segments.reset(), b->bytes.reset();
  // On a GPU an image's buffer is the surface's memory; here what was written
  // reaches the surface when the client lets go of it.
  if (b->surface && b->surface->alive) b->surface->pixels = b->data;
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaDeriveImage(VADisplay dpy, VASurfaceID surface, VAImage* image) {
  FAKE_ON_DISPLAY();
  FAKE_FIND(s, Surface, surface, VA_STATUS_ERROR_INVALID_SURFACE);
  if (!image) return FAKE_RULE("null image", VA_STATUS_ERROR_INVALID_PARAMETER);
  Buffer& b = make<Buffer>(w, d);
  b.type = VAImageBufferType, b.surface = s, b.data = s->pixels;
  Image& i = make<Image>(w, d);
  i.surface = s, i.buffer = &b;
  ++s->images;
  *image = VAImage{};
  image->image_id = i.id;
  image->format.fourcc = VA_FOURCC_NV12;
  image->format.byte_order = VA_LSB_FIRST;
  image->format.bits_per_pixel = 12;
  image->buf = b.id;
  image->width = static_cast<uint16_t>(s->width);
  image->height = static_cast<uint16_t>(s->height);
  image->data_size = static_cast<uint32_t>(b.data.size());
  image->num_planes = 2;
  image->pitches[0] = image->pitches[1] = s->pitch;
  image->offsets[1] = s->chroma;
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaDestroyImage(VADisplay dpy, VAImageID id) {
  FAKE_ON_DISPLAY();
  FAKE_FIND(i, Image, id, VA_STATUS_ERROR_INVALID_IMAGE);
  if (i->buffer->mapped) FAKE_RULE("image " + num(id) + " destroyed while its buffer is mapped", 0);
  i->buffer->drop();
  i->drop();
  --i->surface->images;
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaBeginPicture(VADisplay dpy, VAContextID context, VASurfaceID target) {
  FAKE_ON_DISPLAY();
  FAKE_FIND(c, Context, context, VA_STATUS_ERROR_INVALID_CONTEXT);
  FAKE_FIND(s, Surface, target, VA_STATUS_ERROR_INVALID_SURFACE);
  if (c->open) return FAKE_RULE("context " + num(c->id) + " already in a picture", VA_STATUS_ERROR_OPERATION_FAILED);
  if (!c->renders(s->id))
    return FAKE_RULE("surface " + num(s->id) + " is not a render target of context " + num(c->id),
                     VA_STATUS_ERROR_INVALID_SURFACE);
  if (s->images) FAKE_RULE("surface " + num(s->id) + " coded with a derived image still alive", 0);
  c->open = true, c->refused = false;
  c->source = s->id;
  c->rendered.clear(), c->seqs.clear(), c->pics.clear(), c->slices.clear();
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaRenderPicture(VADisplay dpy, VAContextID context, VABufferID* ids, int count) {
  FAKE_LOCK();
  if (const std::optional<int> injected = w.enter(__func__)) {
    if (Context* c = openContext(w, context); c && *injected) c->refused = true;
    return *injected;
  }
  FAKE_DISPLAY(VA_STATUS_ERROR_INVALID_DISPLAY);
  FAKE_FIND(c, Context, context, VA_STATUS_ERROR_INVALID_CONTEXT);
  if (!c->open) return FAKE_RULE("no vaBeginPicture", VA_STATUS_ERROR_OPERATION_FAILED);
  if (!ids || count <= 0) return FAKE_RULE("no buffers", VA_STATUS_ERROR_INVALID_PARAMETER);
  for (int i = 0; i < count; ++i) {
    FAKE_FIND(b, Buffer, ids[i], VA_STATUS_ERROR_INVALID_BUFFER);
    const std::string name = "buffer " + num(b->id);
    if (b->context != c) return FAKE_RULE(name + " is not of this context", VA_STATUS_ERROR_INVALID_BUFFER);
    if (b->type == VAEncCodedBufferType)
      return FAKE_RULE("coded " + name + " rendered (it belongs in coded_buf)", VA_STATUS_ERROR_INVALID_BUFFER);
    if (std::find(c->rendered.begin(), c->rendered.end(), b->id) != c->rendered.end())
      return FAKE_RULE(name + " rendered twice in one picture", VA_STATUS_ERROR_INVALID_BUFFER);
    if (b->mapped) FAKE_RULE(name + " rendered while mapped", 0);
    const uint8_t* data = b->data.data();
    if (b->type == VAEncMiscParameterBufferType) {
      if (const std::string fault = paramFault(b->type, b->data.size(), 1, data); !fault.empty())
        return FAKE_RULE(fault, VA_STATUS_ERROR_INVALID_PARAMETER);
      const uint8_t* p = data + sizeof(VAEncMiscParameterBuffer);
      switch (miscType(data)) {
        case VAEncMiscParameterTypeFrameRate: w.frameRate = copyOf<VAEncMiscParameterFrameRate>(p); break;
        case VAEncMiscParameterTypeRateControl: w.rateControl = copyOf<VAEncMiscParameterRateControl>(p); break;
        case VAEncMiscParameterTypeHRD: w.hrd = copyOf<VAEncMiscParameterHRD>(p); break;
        default: w.qualityLevel = copyOf<VAEncMiscParameterBufferQualityLevel>(p); break;
      }
    } else if (b->type == VAEncSequenceParameterBufferType) {
      c->seqs.push_back(copyOf<VAEncSequenceParameterBufferH264>(data));
      w.sequence = c->seqs.back();
    } else if (b->type == VAEncPictureParameterBufferType) {
      c->pics.push_back(copyOf<VAEncPictureParameterBufferH264>(data));
    } else {
      for (size_t k = 0; k < b->data.size(); k += sizeof(VAEncSliceParameterBufferH264))
        c->slices.push_back(copyOf<VAEncSliceParameterBufferH264>(data + k));
    }
    c->rendered.push_back(b->id);
  }
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaEndPicture(VADisplay dpy, VAContextID context) {
  FAKE_LOCK();
  if (const std::optional<int> injected = w.enter(__func__)) {
    // The picture is lost, but over: a client has no other way out of it.
    if (Context* c = openContext(w, context)) c->open = false;
    return *injected;
  }
  FAKE_DISPLAY(VA_STATUS_ERROR_INVALID_DISPLAY);
  FAKE_FIND(c, Context, context, VA_STATUS_ERROR_INVALID_CONTEXT);
  if (!c->open) return FAKE_RULE("no vaBeginPicture", VA_STATUS_ERROR_OPERATION_FAILED);
  c->open = false;
  if (c->refused) return VA_STATUS_ERROR_OPERATION_FAILED;  // a driver that refused a render codes nothing
  const char* call = __func__;  // a lambda's own __func__ is not the call's
  auto fault = [&](const std::string& what) {
    w.rule(call, "picture " + std::to_string(c->pictures) + " of context " + num(c->id) + ": " + what, 0);
  };
  if (c->pics.size() != 1) fault(std::to_string(c->pics.size()) + " picture parameter buffers, not one");
  if (c->pics.empty()) return VA_STATUS_ERROR_INVALID_PARAMETER;
  const VAEncPictureParameterBufferH264& pic = c->pics.back();
  const bool idr = pic.pic_fields.bits.idr_pic_flag;

  if (c->seqs.size() > 1) fault("more than one sequence parameter buffer");
  if (!c->seqs.empty()) {
    c->seq = c->seqs.back();
    for (const std::string& f : sequenceFaults(*c, *c->seq)) fault(f);
  } else if (c->pictures == 0 || idr) {
    fault(c->pictures == 0 ? "the context's first picture came without sequence parameters"
                           : "an IDR picture came without sequence parameters");
  }

  const auto found = w.objects.find(pic.coded_buf);
  auto* out = found == w.objects.end() ? nullptr : dynamic_cast<Buffer*>(found->second.get());
  if (!out || !out->alive || out->context != c || out->type != VAEncCodedBufferType) {
    fault("coded_buf " + std::to_string(pic.coded_buf) + " is not a live coded buffer of the context");
    return VA_STATUS_ERROR_INVALID_BUFFER;
  }
  if (out->mapped) fault("coded buffer " + num(out->id) + " is mapped");

  const VASurfaceID recon = pic.CurrPic.picture_id, reference = pic.ReferenceFrames[0].picture_id;
  if (!c->renders(recon) || recon == c->source)
    fault("CurrPic " + std::to_string(recon) + " is not a render target other than the source");
  if (!idr && c->previous == VA_INVALID_SURFACE) fault("the context's first picture is not IDR");
  if (!idr && c->previous != VA_INVALID_SURFACE && reference != c->previous)
    fault("ReferenceFrames[0] " + std::to_string(reference) + " is not the last CurrPic " +
          std::to_string(c->previous));
  if (!idr && reference == recon) fault("CurrPic is its own reference");
  const uint32_t frameNum = idr ? 0 : c->sinceIdr;
  if (c->seq) {
    const uint32_t wrapped = frameNum % (1u << (c->seq->seq_fields.bits.log2_max_frame_num_minus4 + 4));
    if (pic.frame_num != wrapped)
      fault("frame_num " + std::to_string(pic.frame_num) + ", not " + std::to_string(wrapped));
  }
  if (c->config->profile == VAProfileH264ConstrainedBaseline && pic.pic_fields.bits.entropy_coding_mode_flag)
    fault("CABAC in Constrained Baseline");

  uint32_t next = 0, covered = 0;
  for (const VAEncSliceParameterBufferH264& s : c->slices) {
    if (s.macroblock_address != next)
      fault("slice at macroblock " + std::to_string(s.macroblock_address) + ", not " + std::to_string(next));
    next = s.macroblock_address + s.num_macroblocks;
    covered += s.num_macroblocks;
    const bool intra = s.slice_type == 2 || s.slice_type == 7, predicted = s.slice_type == 0 || s.slice_type == 5;
    if (idr ? !intra : !predicted)
      fault("slice_type " + std::to_string(s.slice_type) + (idr ? " in an IDR picture" : " in a P picture"));
  }
  if (const uint32_t macroblocks = (c->width / 16) * (c->height / 16); covered != macroblocks)
    fault("slices cover " + std::to_string(covered) + " macroblocks of " + std::to_string(macroblocks));

  // The record: the parameters, and the source surface's rows packed.
  Surface& src = dynamic_cast<Surface&>(*w.objects.at(c->source));
  if (!src.alive) fault("source surface " + num(src.id) + " destroyed before vaEndPicture");
  const auto index = static_cast<uint32_t>(w.pictures.size());
  Recorded& r = w.pictures.emplace_back();
  FakeVaPicture& p = r.picture;
  p.picture = pic;
  p.slice = c->slices.empty() ? VAEncSliceParameterBufferH264{} : c->slices.front();
  p.slices = static_cast<int>(c->slices.size());
  p.sequenceSent = !c->seqs.empty();
  p.source = src.id, p.width = src.width, p.height = src.height;
  if (src.alive)
    r.nv12 = kestrium::fake::packNv12(src.pixels.data(), src.pixels.data() + src.chroma, src.pitch, src.width,
                                      src.height);
  p.nv12 = r.nv12.empty() ? nullptr : r.nv12.data();
  p.nv12Size = r.nv12.size();

  // The answer: the clip's unit, cut to the coded buffer if it must be.
  if (w.clip.empty()) fault("no clip to answer with");
  p.accessUnit = w.clip.empty() ? 0 : static_cast<uint32_t>(c->pictures % w.clip.size());
  const std::vector<uint8_t> none;
  const std::vector<uint8_t>& unit = w.clip.empty() ? none : w.clip[p.accessUnit];
  if (unit.size() > out->data.size())
    fault("access unit of " + std::to_string(unit.size()) + " bytes cut to coded buffer " + num(out->id) + " of " +
          std::to_string(out->data.size()));
  out->codedSize = static_cast<uint32_t>(std::min(unit.size(), out->data.size()));
  std::copy_n(unit.begin(), out->codedSize, out->data.begin());
  out->holds = true, out->synced = false;
  out->picture = index;
  src.unsynced.emplace_back(out->id, index);
  ++c->pictures;
  c->previous = recon;
  c->sinceIdr = frameNum + 1;
  return VA_STATUS_SUCCESS;
}

FAKE_EXPORT VAStatus vaSyncSurface(VADisplay dpy, VASurfaceID surface) {
  FAKE_ON_DISPLAY();
  FAKE_FIND(s, Surface, surface, VA_STATUS_ERROR_INVALID_SURFACE);
  for (const auto& [id, picture] : s->unsynced) {
    auto& b = dynamic_cast<Buffer&>(*w.objects.at(id));
    if (b.picture == picture) b.synced = true;  // not a later picture coded into the same buffer
  }
  s->unsynced.clear();
  return VA_STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Control

void FakeVa_Reset(void) { FAKE_LOCK(); w = World{}; }
void FakeVa_SetVendor(const char* vendor) { FAKE_LOCK(); w.vendor = vendor ? vendor : ""; }

void FakeVa_SetEncodeProfiles(const VAProfile* profiles, int count) {
  FAKE_LOCK();
  w.encodeProfiles.assign(profiles, profiles + (profiles && count > 0 ? count : 0));
}

void FakeVa_Fail(const char* call, int status, int occurrence) { FAKE_LOCK(); w.fail(call, status, occurrence); }

void FakeVa_AddAccessUnit(const uint8_t* annexB, size_t size) { FAKE_LOCK(); w.addAccessUnit(annexB, size); }

const char* FakeVa_CallLog(void) { FAKE_LOCK(); return w.callLog(); }

int FakeVa_Config(VAProfile* profile, VAEntrypoint* entrypoint, uint32_t* rtFormat, uint32_t* rateControl) {
  FAKE_LOCK();
  if (!w.config) return 0;
  if (profile) *profile = w.config->profile;
  if (entrypoint) *entrypoint = w.config->entrypoint;
  if (rtFormat) *rtFormat = w.config->rtFormat;
  if (rateControl) *rateControl = w.config->rateControl;
  return 1;
}

int FakeVa_Sequence(VAEncSequenceParameterBufferH264* out) { FAKE_LOCK(); return give(w.sequence, out); }
int FakeVa_RateControl(VAEncMiscParameterRateControl* out) { FAKE_LOCK(); return give(w.rateControl, out); }
int FakeVa_FrameRate(VAEncMiscParameterFrameRate* out) { FAKE_LOCK(); return give(w.frameRate, out); }
int FakeVa_Hrd(VAEncMiscParameterHRD* out) { FAKE_LOCK(); return give(w.hrd, out); }
int FakeVa_QualityLevel(VAEncMiscParameterBufferQualityLevel* out) { FAKE_LOCK(); return give(w.qualityLevel, out); }
int FakeVa_SurfacesCreated(void) { FAKE_LOCK(); return w.surfacesCreated; }

int FakeVa_ContextSize(int* width, int* height) {
  FAKE_LOCK();
  if (!w.contextSize) return 0;
  if (width) *width = w.contextSize->first;
  if (height) *height = w.contextSize->second;
  return 1;
}

int FakeVa_PictureCount(void) { FAKE_LOCK(); return static_cast<int>(w.pictures.size()); }

int FakeVa_Picture(int index, FakeVaPicture* out) {
  FAKE_LOCK();
  return kestrium::fake::pictureAt(w.pictures, index, out);
}

const char* FakeVa_Violations(void) {
  FAKE_LOCK();
  w.violationsCopy = w.violations;
  for (const auto& d : w.displays)
    if (d->initialized && !d->terminated) {
      w.violationsCopy += "display " + num(d->id) + " not terminated\n";
      for (const std::string& line : leftovers(w, d.get())) w.violationsCopy += line + '\n';
    }
  return w.violationsCopy.c_str();
}

}  // extern "C"
