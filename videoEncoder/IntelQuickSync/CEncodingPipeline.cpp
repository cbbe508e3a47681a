#include "videoEncoder/IntelQuickSync/CEncodingPipeline.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "platform/Clock.h"
#include "server/Log.h"

namespace kestrium {

namespace {

// Named in the error lines on the standard output, as support knows them.
constexpr const char* kSourceName = "videoEncoder\\IntelQuickSync\\CEncodingPipeline.cpp";

constexpr size_t kTaskCount = CEncodingPipeline::kAsyncDepth * 2;
constexpr mfxU16 kExtBufferSize = 100;  // the room for the SPS and the PPS each

mfxU16 roundUp16(uint32_t n) { return static_cast<mfxU16>((n + 15) & ~15u); }

bool lostDevice(mfxStatus status) {
  return status == MFX_ERR_DEVICE_LOST || status == MFX_ERR_DEVICE_FAILED || status == MFX_ERR_GPU_HANG;
}

// The runtime increments a surface's lock count while it holds the surface,
// from its own threads.
bool surfaceLocked(mfxFrameSurface1& surface) {
  return std::atomic_ref<mfxU16>(surface.Data.Locked).load(std::memory_order_acquire) != 0;
}

}  // namespace

void qsFrameRate(double rate, mfxU32& num, mfxU32& den) {
  auto whole = static_cast<mfxU32>(rate + 0.5);
  if (std::fabs(whole - rate) < 0.0001) {
    num = whole;
    den = 1;
    return;
  }
  whole = static_cast<mfxU32>(rate * 1.001 + 0.5);
  if (std::fabs(whole * 1000.0 - rate * 1001.0) < 10.0) {
    num = whole * 1000;
    den = 1001;
    return;
  }
  num = static_cast<mfxU32>(rate * 10000.0 + 0.5);
  den = 10000;
}

mfxVideoParam qsVideoParams(const QsParams& p) {
  mfxVideoParam v{};
  v.AsyncDepth = CEncodingPipeline::kAsyncDepth;
  v.mfx.CodecId = MFX_CODEC_AVC;
  v.mfx.TargetUsage = p.targetUsage;
  v.mfx.GopPicSize = std::max<mfxU16>(p.keyInterval, 1);
  v.mfx.GopRefDist = 1;
  v.mfx.GopOptFlag = MFX_GOP_CLOSED;
  v.mfx.RateControlMethod = MFX_RATECONTROL_VBR;
  // The kbit/s words are 16 bits; beyond them the multiplier scales every one.
  const uint32_t multiplier = std::max<uint32_t>((p.bitrateKbps + 65534) / 65535, 1);
  v.mfx.BRCParamMultiplier = static_cast<mfxU16>(multiplier > 1 ? multiplier : 0);
  v.mfx.TargetKbps = static_cast<mfxU16>(p.bitrateKbps / multiplier);
  v.mfx.MaxKbps = v.mfx.TargetKbps;
  v.mfx.NumSlice = 1;
  v.mfx.EncodedOrder = 0;
  mfxFrameInfo& f = v.mfx.FrameInfo;
  qsFrameRate(p.frameRate, f.FrameRateExtN, f.FrameRateExtD);
  f.FourCC = MFX_FOURCC_NV12;
  f.ChromaFormat = MFX_CHROMAFORMAT_YUV420;
  f.PicStruct = MFX_PICSTRUCT_PROGRESSIVE;
  f.Width = roundUp16(p.width);
  f.Height = roundUp16(p.height);
  f.CropW = p.width;
  f.CropH = p.height;
  v.IOPattern = MFX_IOPATTERN_IN_SYSTEM_MEMORY;
  return v;
}

CEncodingPipeline::CEncodingPipeline(bool useHardware) : useHardware_(useHardware) {}

CEncodingPipeline::~CEncodingPipeline() { close(); }

bool CEncodingPipeline::open(const H264Settings& settings, std::vector<std::byte>& headers) {
  if (!runtime_.load()) {
    logLine(u"[Error]   Cannot load the Intel QuickSync runtime %S\n",
            platform::vendorLibraryFile(platform::VendorLibrary::QuickSync));
    logLine(u"[Error]   Cannot initialize Intel QuickSync\n");
    return false;
  }
  QsParams params;
  params.targetUsage = static_cast<uint16_t>(settings.targetUsage & 0xFFFF);
  params.width = static_cast<uint16_t>((settings.width + 1) & ~1);
  params.height = static_cast<uint16_t>((settings.height + 1) & ~1);
  params.frameRate = double(settings.rateNum) / settings.rateDen;
  params.bitrateKbps = settings.bitrateKbps;
  params.keyInterval = static_cast<uint16_t>(std::min<uint32_t>(settings.keyInterval, 0xFFFF));

  struct Attempt {
    std::u16string_view line;
    QsMemory memory;
    bool hardware;
  };
  const Attempt attempts[] = {{u"  Trying QS VA display...\n", QsMemory::VaDisplay, useHardware_},
                              {u"  Trying QS system memory...\n", QsMemory::System, useHardware_},
                              {u"  Trying QS software...\n", QsMemory::System, false}};
  for (size_t i = useHardware_ ? 0 : std::size(attempts) - 1; i < std::size(attempts); ++i) {
    logLine(attempts[i].line);
    params.memory = attempts[i].memory;
    params.useHardware = attempts[i].hardware;
    if (init(params) && readHeaders(headers)) return true;
    close();
  }
  logLine(u"[Error]   Cannot initialize Intel QuickSync\n");
  return false;
}

bool CEncodingPipeline::init(const QsParams& params) {
  mfxVersion version = kQuickSyncApiVersion;
  mfxStatus status = MFX_ERR_UNSUPPORTED;
  if (params.useHardware) {
    const mfxIMPL first = MFX_IMPL_HARDWARE_ANY | (params.memory == QsMemory::VaDisplay ? MFX_IMPL_VIA_VAAPI : 0);
    status = runtime_.Init(first, &version, &session_);
    if (status != MFX_ERR_NONE) status = runtime_.Init(MFX_IMPL_HARDWARE, &version, &session_);
  } else {
    status = runtime_.Init(MFX_IMPL_SOFTWARE, &version, &session_);
  }
  if (status != MFX_ERR_NONE) {
    session_ = nullptr;
    logLine(u"[Error]   QS MFXInit failed: %d\n", static_cast<int>(status));
    return false;
  }
  mfxIMPL impl = 0;
  runtime_.QueryIMPL(session_, &impl);
  if (params.memory == QsMemory::VaDisplay) {
    if (!va_.load(u"QS")) {
      logLine(u"[Error]   QS: no VA-API library (%S) to reach the GPU\n",
              platform::vendorLibraryFile(platform::VendorLibrary::VaApi));
      return false;
    }
    if (!openDisplayPreferring(va_, display_, "Intel")) {
      logLine(u"[Error]   QS: no GPU render node gives a VA display\n");
      return false;
    }
    // A software session has no use for the GPU's display.
    if (MFX_IMPL_BASETYPE(impl) != MFX_IMPL_SOFTWARE) {
      status = runtime_.SetHandle(session_, MFX_HANDLE_VA_DISPLAY, display_.handle());
      if (status != MFX_ERR_NONE) {
        logLine(u"[Error]   QS MFXVideoCORE_SetHandle failed: %d\n", static_cast<int>(status));
        return false;
      }
    }
  }
  params_ = qsVideoParams(params);
  return resetStep();
}

bool CEncodingPipeline::resetStep() {
  const mfxStatus closed = runtime_.EncodeClose(session_);
  if (closed != MFX_ERR_NONE && closed != MFX_ERR_NOT_INITIALIZED) {
    logLine(u"[Error]   QS MFXVideoENCODE_Close failed: %d\n", static_cast<int>(closed));
  }
  surfaces_.clear();
  tasks_.clear();
  pending_.clear();
  ++generation_;
  mfxFrameAllocRequest request{};
  mfxStatus status = runtime_.EncodeQueryIOSurf(session_, &params_, &request);
  if (status < MFX_ERR_NONE) {
    logLine(u"[Error]   QS MFXVideoENCODE_QueryIOSurf failed: %d\n", static_cast<int>(status));
    return false;
  }
  if (!allocateSurfaces(request)) return false;
  status = runtime_.EncodeInit(session_, &params_);
  if (status == MFX_WRN_PARTIAL_ACCELERATION) {
    logLine(u"  QS: partial acceleration\n");
  } else if (status != MFX_ERR_NONE) {
    logLine(u"[Error]   QS MFXVideoENCODE_Init failed: %d\n", static_cast<int>(status));
    return false;
  }
  // A task's buffer starts at the runtime's own bound for a coded frame and
  // grows if a frame ever needs more.
  mfxVideoParam current{};
  status = runtime_.EncodeGetVideoParam(session_, &current);
  size_t bytes = size_t{params_.mfx.FrameInfo.Width} * params_.mfx.FrameInfo.Height * 3 / 2;
  if (status == MFX_ERR_NONE && current.mfx.BufferSizeInKB != 0) {
    bytes = size_t{current.mfx.BufferSizeInKB} * 1000 * std::max<mfxU16>(current.mfx.BRCParamMultiplier, 1);
  }
  tasks_.resize(kTaskCount);
  for (Task& task : tasks_) {
    task.buffer.assign(bytes, 0);
    task.bitstream.Data = task.buffer.data();
    task.bitstream.MaxLength = static_cast<mfxU32>(bytes);
  }
  return true;
}

bool CEncodingPipeline::allocateSurfaces(const mfxFrameAllocRequest& request) {
  const size_t count = size_t{request.NumFrameSuggested} + kAsyncDepth - 1;
  const mfxFrameInfo& info = params_.mfx.FrameInfo;
  const size_t lumaBytes = size_t{info.Width} * info.Height;
  surfaces_ = std::vector<Surface>(count);
  for (Surface& s : surfaces_) {
    s.memory = AlignedBuffer(lumaBytes * 3 / 2);
    if (s.memory.empty()) {
      logLine(u"[Error]   QS: no memory for %u surfaces of %ux%u\n", static_cast<uint32_t>(count), info.Width,
              info.Height);
      return false;
    }
    // The padding beyond the picture stays black: it is coded, then cropped.
    auto* bytes = reinterpret_cast<mfxU8*>(s.memory.data());
    std::memset(bytes, 16, lumaBytes);
    std::memset(bytes + lumaBytes, 128, lumaBytes / 2);
    s.frame.Info = info;
    s.frame.Data.Y = bytes;
    s.frame.Data.UV = bytes + lumaBytes;
    s.frame.Data.Pitch = info.Width;
  }
  return true;
}

bool CEncodingPipeline::readHeaders(std::vector<std::byte>& headers) {
  mfxU8 sps[kExtBufferSize] = {};
  mfxU8 pps[kExtBufferSize] = {};
  mfxExtCodingOptionSPSPPS sets{};
  sets.Header.BufferId = MFX_EXTBUFF_CODING_OPTION_SPSPPS;
  sets.Header.BufferSz = sizeof sets;
  sets.SPSBuffer = sps;
  sets.SPSBufSize = kExtBufferSize;
  sets.PPSBuffer = pps;
  sets.PPSBufSize = kExtBufferSize;
  mfxExtBuffer* list[] = {&sets.Header};
  mfxVideoParam current{};
  current.ExtParam = list;
  current.NumExtParam = 1;
  if (const mfxStatus status = runtime_.EncodeGetVideoParam(session_, &current); status != MFX_ERR_NONE) {
    logLine(u"[Error]   QS MFXVideoENCODE_GetVideoParam failed: %d\n", static_cast<int>(status));
    return false;
  }
  const auto* s = reinterpret_cast<const std::byte*>(sps);
  const auto* p = reinterpret_cast<const std::byte*>(pps);
  headers.assign(s, s + std::min(sets.SPSBufSize, kExtBufferSize));
  headers.insert(headers.end(), p, p + std::min(sets.PPSBufSize, kExtBufferSize));
  return true;
}

void CEncodingPipeline::close() {
  if (session_ != nullptr) {
    runtime_.EncodeClose(session_);
    runtime_.Close(session_);
    session_ = nullptr;
  }
  pending_.clear();
  tasks_.clear();
  surfaces_.clear();
  display_.close();
}

CEncodingPipeline::Task* CEncodingPipeline::freeTask(CodedFrameSink& sink, bool& ok) {
  ok = true;
  if (pending_.size() == tasks_.size() && !tasks_.empty()) ok = syncOldest(sink);
  if (!ok) return nullptr;
  for (Task& task : tasks_) {
    if (task.sync == nullptr && std::find(pending_.begin(), pending_.end(), &task) == pending_.end()) return &task;
  }
  return nullptr;
}

CEncodingPipeline::Surface* CEncodingPipeline::freeSurface(CodedFrameSink& sink, bool& ok) {
  ok = true;
  const uint64_t until = platform::monotonicNs() + uint64_t{kWaitMs} * 1000000;
  for (;;) {
    for (Surface& s : surfaces_) {
      if (!surfaceLocked(s.frame)) return &s;
    }
    // The runtime lets go of a surface when its frame is done: take the oldest.
    if (!pending_.empty()) {
      if (!(ok = syncOldest(sink))) return nullptr;
      continue;
    }
    if (platform::monotonicNs() > until) {
      logLine(u"[Error]   QS: no free surface in %u ms\n", kWaitMs);
      ok = recover(MFX_ERR_MEMORY_ALLOC, __LINE__);
      return nullptr;
    }
    platform::sleepMs(10);
  }
}

// Submits one frame (null: one step of the drain). more is false when the
// runtime has nothing more to give for it (a frame held for later, or the end
// of the drain). A busy device gets the oldest frame taken, which goes to the sink.
bool CEncodingPipeline::submit(mfxFrameSurface1* surface, Task& task, bool& more, CodedFrameSink& sink) {
  more = false;
  const uint32_t generation = generation_;
  const uint64_t busyUntil = platform::monotonicNs() + uint64_t{kWaitMs} * 1000000;
  for (;;) {
    const mfxStatus status = runtime_.EncodeFrameAsync(session_, nullptr, surface, &task.bitstream, &task.sync);
    if (status == MFX_WRN_DEVICE_BUSY) {
      // The device works on what it has: taking the oldest frame makes room.
      if (pending_.empty()) {
        // Busy with nothing of ours in flight, for as long as a frame may
        // take: the GPU hangs.
        if (platform::monotonicNs() > busyUntil) {
          logLine(u"[Error]   QS: the device has been busy for %u ms with no frame in flight\n", kWaitMs);
          return fail(MFX_ERR_GPU_HANG, __LINE__);
        }
        platform::sleepMs(1);
      } else if (!syncOldest(sink)) {
        return false;
      } else if (generation != generation_) {
        return true;  // reset on the way: this frame is lost
      }
      continue;
    }
    if (status == MFX_ERR_NOT_ENOUGH_BUFFER) {
      mfxVideoParam current{};
      runtime_.EncodeGetVideoParam(session_, &current);
      const size_t bound = size_t{current.mfx.BufferSizeInKB} * 1000 * std::max<mfxU16>(current.mfx.BRCParamMultiplier, 1);
      const size_t wanted = std::max(bound, task.buffer.size() * 2);
      task.buffer.resize(wanted);
      task.bitstream.Data = task.buffer.data();
      task.bitstream.MaxLength = static_cast<mfxU32>(wanted);
      continue;
    }
    if (status == MFX_ERR_MORE_DATA) return true;
    if (status >= MFX_ERR_NONE && task.sync != nullptr) {
      pending_.push_back(&task);
      more = true;
      return true;
    }
    if (status >= MFX_ERR_NONE) return true;
    task.sync = nullptr;
    return recover(status, __LINE__);
  }
}

bool CEncodingPipeline::syncOldest(CodedFrameSink& sink) {
  Task& task = *pending_.front();
  pending_.pop_front();
  mfxStatus status = runtime_.SyncOperation(session_, task.sync, kWaitMs);
  task.sync = nullptr;
  if (status == MFX_WRN_IN_EXECUTION) status = MFX_ERR_GPU_HANG;  // not done in all that time
  if (status != MFX_ERR_NONE) return recover(status, __LINE__);
  mfxBitstream& b = task.bitstream;
  if (b.DataLength != 0) {
    const auto* data = reinterpret_cast<const std::byte*>(b.Data + b.DataOffset);
    // Positions travel as 90 kHz time stamps.
    const auto position = static_cast<uint32_t>(static_cast<uint64_t>(b.TimeStamp) * 1000 / 90000);
    sink.deliver({data, b.DataLength}, position, (b.FrameType & MFX_FRAMETYPE_I) != 0);
  }
  b.DataLength = 0;
  b.DataOffset = 0;
  return true;
}

bool CEncodingPipeline::recover(mfxStatus status, int line) {
  if (lostDevice(status)) {
    std::printf("\nERROR: Hardware device was lost or returned an unexpected error. Recovering...\n");
    std::fflush(stdout);
    logLine(u"[Warning] QS: the device was lost (%d); the frames in flight are lost and the encoder starts again\n",
            static_cast<int>(status));
    // The frames in flight are gone with the device; the display stays, as a
    // session cannot be given another one.
    if (resetStep()) return true;
    status = MFX_ERR_DEVICE_FAILED;
  }
  return fail(status, line);
}

bool CEncodingPipeline::fail(mfxStatus status, int line) {
  std::printf("\nReturn on error: error code %d,\t%s\t%d\n\n", static_cast<int>(status), kSourceName, line);
  std::fflush(stdout);
  return false;
}

bool CEncodingPipeline::encode(const Nv12Picture& picture, uint32_t position, CodedFrameSink& sink) {
  bool ok = true;
  Task* task = freeTask(sink, ok);
  if (!ok) return false;
  const uint32_t generation = generation_;
  Surface* surface = freeSurface(sink, ok);
  if (!ok) return false;
  // A device reset on the way made new tasks and surfaces: this frame is lost.
  if (task == nullptr || surface == nullptr || generation != generation_) return true;
  mfxFrameSurface1& frame = surface->frame;
  const mfxFrameInfo& info = frame.Info;
  // Only the picture is read: its rows, not the surface's rounded size.
  for (int32_t y = 0; y < info.CropH; ++y) {
    std::memcpy(frame.Data.Y + ptrdiff_t{y} * frame.Data.Pitch, picture.luma + y * picture.lumaStep, info.CropW);
  }
  for (int32_t y = 0; y < info.CropH / 2; ++y) {
    std::memcpy(frame.Data.UV + ptrdiff_t{y} * frame.Data.Pitch, picture.chroma + y * picture.chromaStep,
                info.CropW);
  }
  frame.Data.TimeStamp = static_cast<mfxU64>(position) * 90000 / 1000;
  bool more = false;
  return submit(&frame, *task, more, sink);
}

bool CEncodingPipeline::drain(CodedFrameSink& sink) {
  for (bool more = true; more;) {
    bool ok = true;
    Task* task = freeTask(sink, ok);
    if (!ok) return false;
    if (task == nullptr) break;
    if (!submit(nullptr, *task, more, sink)) return false;
  }
  while (!pending_.empty()) {
    if (!syncOldest(sink)) return false;
  }
  return true;
}

}  // namespace kestrium
