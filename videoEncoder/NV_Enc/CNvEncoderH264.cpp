#include "videoEncoder/NV_Enc/CNvEncoderH264.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/Wait.h"
#include "server/Log.h"

namespace kestrium {

namespace {

// How long the output thread waits for a completion event before it asks the
// driver anyway: a frame takes milliseconds, so this only guards a lost signal.
constexpr uint32_t kCompletionPatienceMs = 5000;
constexpr uint32_t kSequenceParamsRoom = 1000;
// The error the session gives when the card lacks the codec or the profile.
constexpr int kNotOffered = static_cast<int>(0x80004005u);

bool sameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

bool offered(const std::vector<GUID>& list, const GUID& wanted) {
  return std::any_of(list.begin(), list.end(), [&](const GUID& g) { return sameGuid(g, wanted); });
}

const GUID* profileGuid(uint32_t profile) {
  switch (profile) {
    case 66: return &NV_ENC_H264_PROFILE_BASELINE_GUID;
    case 77: return &NV_ENC_H264_PROFILE_MAIN_GUID;
    case 100: return &NV_ENC_H264_PROFILE_HIGH_GUID;
    default: return nullptr;
  }
}

// The enumeration errors name their call and the place, as support reads them.
void logEnumerationError(const char* call, int line, NVENCSTATUS status) {
  logLine(u"File: %S, Line: %d, %S() returned with error %d\n", kNvencSourceName, line, call, static_cast<int>(status));
}

}  // namespace

EncodeConfig EncodeConfig::from(const H264Settings& s) {
  EncodeConfig c;
  static constexpr uint32_t kProfiles[] = {66, 77, 100};
  c.profile = s.profile >= 0 && s.profile < 3 ? kProfiles[s.profile] : 0;
  // 4:2:0 wants even sizes: the front's picture comes padded so.
  c.width = c.maxwidth = static_cast<uint32_t>(s.width + 1) & ~1u;
  c.height = c.maxheight = static_cast<uint32_t>(s.height + 1) & ~1u;
  c.frameRateNum = s.rateNum;
  c.frameRateDen = s.rateDen;
  // In bit/s the driver's word ends at 4.29 Gbit/s: a larger wish is the most
  // it can say, not a wrap to next to nothing.
  c.bitrate = c.maxbitrate = std::min<uint32_t>(s.bitrateKbps, UINT32_MAX / 1000) * 1000;
  c.preset = CNvEncoderH264::presetIndex(s.targetUsage, s.lowLatency);
  return c;
}

uint32_t CNvEncoderH264::presetIndex(uint32_t targetUsage, bool lowLatency) {
  static constexpr uint32_t kPresets[3][2] = {{2, 6}, {0, 1}, {3, 5}};
  return targetUsage < 3 ? kPresets[targetUsage][lowLatency ? 1 : 0] : EncodeConfig{}.preset;
}

uint32_t CNvEncoderH264::bufferCount(uint32_t width, uint32_t height) {
  const uint64_t macroblocks = uint64_t{(width + 15) / 16} * ((height + 15) / 16);
  return macroblocks >= 8160 ? 16 : 32;
}

CNvEncoderH264::CNvEncoderH264(int deviceNumber) : deviceNumber_(deviceNumber) {}

CNvEncoderH264::~CNvEncoderH264() { destroy(); }

bool CNvEncoderH264::open(const H264Settings& settings, std::vector<std::byte>& headers) {
  EncodeConfig config = EncodeConfig::from(settings);
  bool ok = false;
  if (!cuda_.load()) {
    logLine(u"[Error]   CNvEncoder::CNvEncoder() failed to load %S!\n",
            platform::vendorLibraryFile(platform::VendorLibrary::Cuda));
  } else if (nvenc_.load()) {
    // The driver signals completion through OS events where events are OS
    // objects; elsewhere it runs synchronously only.
    platform::Event probe;
    asynchronous_ = probe.create({}) && probe.nativeHandle() != nullptr;
    config.syncMode = asynchronous_ ? 0 : 1;
    ok = openSession() && checkSupport(config) && initializeEncoder(config) && allocateBuffers(config) &&
         readSequenceParams(headers);
  }
  if (!ok) {
    destroy();
    logLine(u"[Error]   Cannot initialize NV Encoder\n");
    return false;
  }
  logLine(u"  *** NVENC *** %ux%u at %u/%u fps, profile %u, preset %u, %u kbps, %u buffers, %S\n", width_, height_,
          config.frameRateNum, config.frameRateDen, config.profile, config.preset, config.bitrate / 1000,
          static_cast<uint32_t>(buffers_.size()), asynchronous_ ? "asynchronous" : "synchronous");
  return true;
}

bool CNvEncoderH264::openSession() {
  if (CUresult status = cuda_.cuInit(0); status != CUDA_SUCCESS) {
    logCudaError(status, "cuInit(0)");
    return false;
  }
  CUdevice device = 0;
  if (CUresult status = cuda_.cuDeviceGet(&device, deviceNumber_); status != CUDA_SUCCESS) {
    logCudaError(status, "cuDeviceGet(&device, deviceID)");
    return false;
  }
  if (CUresult status = cuda_.cuCtxCreate_v2(&context_, 0, device); status != CUDA_SUCCESS) {
    context_ = nullptr;
    logCudaError(status, "cuCtxCreate(&m_cuContext, 0, device)");
    return false;
  }
  CUcontext current = nullptr;
  if (CUresult status = cuda_.cuCtxPopCurrent_v2(&current); status != CUDA_SUCCESS) {
    logCudaError(status, "cuCtxPopCurrent(&cuContextCurr)");
    return false;
  }
  NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS params{};
  params.version = NV_ENC_OPEN_ENCODE_SESSION_EX_PARAMS_VER;
  params.deviceType = NV_ENC_DEVICE_TYPE_CUDA;
  params.device = context_;
  params.apiVersion = NVENCAPI_VERSION;
  void* encoder = nullptr;
  if (NVENCSTATUS status = nvenc_.api.nvEncOpenEncodeSessionEx(&params, &encoder); status != NV_ENC_SUCCESS) {
    logEnumerationError("nvEncOpenEncodeSessionEx", __LINE__, status);
    return false;
  }
  encoder_ = encoder;
  return true;
}

namespace {

// One of the driver's lists: its count, then its items. A failure names the
// call that failed, in the form support knows for that list.
template <class T, class Count, class List>
bool driverList(std::vector<T>& items, const char* countCall, Count count, const char* listCall, List list,
                bool enumerationForm) {
  auto failed = [&](const char* call, NVENCSTATUS s) {
    if (enumerationForm) {
      logEnumerationError(call, __LINE__, s);
    } else {
      logNvencError(s, __LINE__, std::string("m_pEncodeAPI->") + call + "(m_hEncoder, ...)");
    }
    return false;
  };
  uint32_t n = 0;
  if (NVENCSTATUS s = count(&n); s != NV_ENC_SUCCESS) return failed(countCall, s);
  items.assign(n, T{});
  uint32_t got = 0;
  if (NVENCSTATUS s = list(items.data(), n, &got); s != NV_ENC_SUCCESS) return failed(listCall, s);
  items.resize(std::min(got, n));
  return true;
}

}  // namespace

bool CNvEncoderH264::checkSupport(const EncodeConfig& config) {
  const NV_ENCODE_API_FUNCTION_LIST& api = nvenc_.api;
  void* e = encoder_;
  const GUID h264 = NV_ENC_CODEC_H264_GUID;

  std::vector<GUID> codecs;
  if (!driverList(
          codecs, "nvEncGetEncodeGUIDCount", [&](uint32_t* n) { return api.nvEncGetEncodeGUIDCount(e, n); },
          "nvEncGetEncodeGUIDs",
          [&](GUID* g, uint32_t n, uint32_t* got) { return api.nvEncGetEncodeGUIDs(e, g, n, got); }, true)) {
    return false;
  }
  if (!offered(codecs, h264)) {
    logLine(u"[Error]   *** NVENC *** The card offers no H.264 encoder (0x%08X)\n", static_cast<uint32_t>(kNotOffered));
    return false;
  }

  std::vector<GUID> presets;
  if (!driverList(
          presets, "nvEncGetEncodePresetCount", [&](uint32_t* n) { return api.nvEncGetEncodePresetCount(e, h264, n); },
          "nvEncGetEncodePresetGUIDs",
          [&](GUID* g, uint32_t n, uint32_t* got) { return api.nvEncGetEncodePresetGUIDs(e, h264, g, n, got); },
          false)) {
    return false;
  }
  if (config.preset >= presets.size()) {
    logLine(u"\n Wrong preset Value. Exiting \n");
    return false;
  }
  presetGuid_ = presets[config.preset];
  presetConfig_ = {};
  presetConfig_.version = NV_ENC_PRESET_CONFIG_VER;
  presetConfig_.presetCfg.version = NV_ENC_CONFIG_VER;
  if (NVENCSTATUS s = api.nvEncGetEncodePresetConfig(e, h264, presetGuid_, &presetConfig_); s != NV_ENC_SUCCESS) {
    logNvencError(s, __LINE__, "m_pEncodeAPI->nvEncGetEncodePresetConfig(m_hEncoder, encodeGUID, presetGUID, ...)");
    return false;
  }

  std::vector<GUID> profiles;
  if (!driverList(
          profiles, "nvEncGetEncodeProfileGUIDCount",
          [&](uint32_t* n) { return api.nvEncGetEncodeProfileGUIDCount(e, h264, n); }, "nvEncGetEncodeProfileGUIDs",
          [&](GUID* g, uint32_t n, uint32_t* got) { return api.nvEncGetEncodeProfileGUIDs(e, h264, g, n, got); },
          true)) {
    return false;
  }
  if (const GUID* wanted = profileGuid(config.profile); wanted != nullptr && !offered(profiles, *wanted)) {
    logLine(u"[Error]   *** NVENC *** The card offers no H.264 profile %u (0x%08X)\n", config.profile,
            static_cast<uint32_t>(kNotOffered));
    return false;
  }

  std::vector<NV_ENC_BUFFER_FORMAT> formats;
  if (!driverList(
          formats, "nvEncGetInputFormatCount", [&](uint32_t* n) { return api.nvEncGetInputFormatCount(e, h264, n); },
          "nvEncGetInputFormats",
          [&](NV_ENC_BUFFER_FORMAT* f, uint32_t n, uint32_t* got) {
            return api.nvEncGetInputFormats(e, h264, f, n, got);
          },
          true)) {
    return false;
  }
  if (std::find(formats.begin(), formats.end(), NV_ENC_BUFFER_FORMAT_NV12) == formats.end()) {
    logLine(u"[Error]   *** NVENC *** The card takes no NV12 pictures\n");
    return false;
  }
  return true;
}

bool CNvEncoderH264::initializeEncoder(const EncodeConfig& config) {
  width_ = config.width;
  height_ = config.height;
  NV_ENC_CONFIG& c = presetConfig_.presetCfg;
  if (const GUID* profile = profileGuid(config.profile)) {
    c.profileGUID = *profile;
    if (config.level != 0) c.encodeCodecConfig.h264Config.level = config.level;
  }
  c.rcParams.averageBitRate = config.bitrate;
  c.rcParams.maxBitRate = config.maxbitrate;
  c.monoChromeEncoding = 0;
  c.frameFieldMode =
      config.fieldMode != 0 ? NV_ENC_PARAMS_FRAME_FIELD_MODE_FIELD : NV_ENC_PARAMS_FRAME_FIELD_MODE_FRAME;
  // Frames leave in the order they came: our files and broadcasts carry no
  // composition offsets, so a preset's B-frames would play out of order.
  c.frameIntervalP = static_cast<int32_t>(config.numBFrames) + 1;
  NV_ENC_CONFIG_H264& h264 = c.encodeCodecConfig.h264Config;
  h264.disableSPSPPS = 0;
  h264.bdirectMode = config.numBFrames > 0 ? NV_ENC_H264_BDIRECT_MODE_TEMPORAL : NV_ENC_H264_BDIRECT_MODE_DISABLE;
  h264.sliceMode = 3;
  h264.sliceModeData = config.numSlices;

  initParams_ = {};
  initParams_.version = NV_ENC_INITIALIZE_PARAMS_VER;
  initParams_.encodeGUID = NV_ENC_CODEC_H264_GUID;
  initParams_.presetGUID = presetGuid_;
  initParams_.encodeWidth = initParams_.darWidth = config.width;
  initParams_.encodeHeight = initParams_.darHeight = config.height;
  initParams_.maxEncodeWidth = config.maxwidth;
  initParams_.maxEncodeHeight = config.maxheight;
  initParams_.frameRateNum = config.frameRateNum;
  initParams_.frameRateDen = config.frameRateDen;
  initParams_.enableEncodeAsync = config.syncMode == 0 ? 1 : 0;
  initParams_.enablePTD = config.enablePtd;
  initParams_.encodeConfig = &c;
  if (NVENCSTATUS s = nvenc_.api.nvEncInitializeEncoder(encoder_, &initParams_); s != NV_ENC_SUCCESS) {
    logLine(u"[Error]   nvEncoder Error: NVENC H.264 encoder initialization failed: %08X\n", static_cast<uint32_t>(s));
    return false;
  }
  initialized_ = true;
  return true;
}

bool CNvEncoderH264::allocateBuffers(const EncodeConfig& config) {
  const uint32_t count = bufferCount(config.width, config.height);
  for (uint32_t i = 0; i < count; ++i) {
    auto buffer = std::make_unique<IoBuffer>();
    // The surface has the picture's own size: where the chroma plane starts is
    // then the same whether a driver reckons it from the surface or from the
    // picture.
    NV_ENC_CREATE_INPUT_BUFFER input{};
    input.version = NV_ENC_CREATE_INPUT_BUFFER_VER;
    input.width = width_;
    input.height = height_;
    input.bufferFmt = NV_ENC_BUFFER_FORMAT_NV12;
    if (NVENCSTATUS s = nvenc_.api.nvEncCreateInputBuffer(encoder_, &input); s != NV_ENC_SUCCESS) {
      logNvencError(s, __LINE__, "m_pEncodeAPI->nvEncCreateInputBuffer(m_hEncoder, &createInputBufferParams)");
      return false;
    }
    buffer->input = input.inputBuffer;
    buffers_.push_back(std::move(buffer));
    IoBuffer& b = *buffers_.back();

    NV_ENC_CREATE_BITSTREAM_BUFFER bitstream{};
    bitstream.version = NV_ENC_CREATE_BITSTREAM_BUFFER_VER;
    if (NVENCSTATUS s = nvenc_.api.nvEncCreateBitstreamBuffer(encoder_, &bitstream); s != NV_ENC_SUCCESS) {
      logNvencError(s, __LINE__, "m_pEncodeAPI->nvEncCreateBitstreamBuffer(m_hEncoder, &createBitstreamBufferParams)");
      return false;
    }
    b.bitstream = bitstream.bitstreamBuffer;

    if (asynchronous_) {
      if (!b.completion.create({})) {
        logLine(u"[Error]   *** NVENC *** Cannot make the completion event of buffer %u\n", i);
        return false;
      }
      NV_ENC_EVENT_PARAMS event{};
      event.version = NV_ENC_EVENT_PARAMS_VER;
      event.completionEvent = b.completion.nativeHandle();
      if (NVENCSTATUS s = nvenc_.api.nvEncRegisterAsyncEvent(encoder_, &event); s != NV_ENC_SUCCESS) {
        logNvencError(s, __LINE__, "m_pEncodeAPI->nvEncRegisterAsyncEvent(m_hEncoder, &eventParams)");
        return false;
      }
      b.registered = true;
    }
  }
  std::printf(" > System Memory with %d buffers.\n", static_cast<int>(count));
  std::fflush(stdout);
  {
    std::lock_guard guard(queueLock_);
    free_.clear();
    for (size_t i = 0; i < buffers_.size(); ++i) free_.push_back(i);
  }
  if (!output_.start([this] { outputThread(); }, "Encoder Output Thread")) {
    logLine(u"[Error]   *** NVENC *** Cannot start the encoder's output thread\n");
    return false;
  }
  return true;
}

bool CNvEncoderH264::readSequenceParams(std::vector<std::byte>& headers) {
  headers.assign(kSequenceParamsRoom, std::byte{0});
  uint32_t size = 0;
  NV_ENC_SEQUENCE_PARAM_PAYLOAD payload{};
  payload.version = NV_ENC_SEQUENCE_PARAM_PAYLOAD_VER;
  payload.inBufferSize = kSequenceParamsRoom;
  payload.spsppsBuffer = headers.data();
  payload.outSPSPPSPayloadSize = &size;
  if (NVENCSTATUS s = nvenc_.api.nvEncGetSequenceParams(encoder_, &payload); s != NV_ENC_SUCCESS) {
    logNvencError(s, __LINE__, "m_pEncodeAPI->nvEncGetSequenceParams(m_hEncoder, &payload)");
    return false;
  }
  headers.resize(std::min(size, kSequenceParamsRoom));
  return true;
}

size_t CNvEncoderH264::takeFreeBuffer() {
  std::unique_lock guard(queueLock_);
  // Waited for, never refused: the output thread gives every buffer back.
  queueChanged_.wait(guard, [this] { return !free_.empty(); });
  const size_t index = free_.front();
  free_.pop_front();
  return index;
}

void CNvEncoderH264::releaseBuffer(size_t index) {
  {
    std::lock_guard guard(queueLock_);
    free_.push_back(index);
  }
  queueChanged_.notify_all();
}

bool CNvEncoderH264::encode(const Nv12Picture& picture, uint32_t position, CodedFrameSink& sink) {
  if (static_cast<uint32_t>(picture.width) != width_ || static_cast<uint32_t>(picture.height) != height_) {
    logLine(u"[Error]   *** NVENC *** A picture of %dx%d reached the encoder of %ux%u\n", picture.width, picture.height,
            width_, height_);
    return false;
  }
  const NV_ENCODE_API_FUNCTION_LIST& api = nvenc_.api;
  const size_t index = takeFreeBuffer();
  IoBuffer& b = *buffers_[index];
  // A frame the driver refuses is lost; the next one may well go through.
  auto lose = [&](const char* call, NVENCSTATUS s) {
    if (lostFrames_++ == 0) {
      logLine(u"[Error]   *** NVENC *** %S failed on the frame at %u ms: code=%d(%S); the frame is lost\n", call,
              position, static_cast<int>(s), nvencStatusText(s));
    }
    releaseBuffer(index);
    return true;
  };

  NV_ENC_LOCK_INPUT_BUFFER lock{};
  lock.version = NV_ENC_LOCK_INPUT_BUFFER_VER;
  lock.inputBuffer = b.input;
  if (NVENCSTATUS s = api.nvEncLockInputBuffer(encoder_, &lock); s != NV_ENC_SUCCESS) {
    return lose("nvEncLockInputBuffer", s);
  }
  auto* surface = static_cast<uint8_t*>(lock.bufferDataPtr);
  const size_t pitch = lock.pitch;
  for (uint32_t y = 0; y < height_; ++y) {
    std::memcpy(surface + y * pitch, picture.luma + y * picture.lumaStep, width_);
  }
  uint8_t* chroma = surface + pitch * height_;
  for (uint32_t y = 0; y < height_ / 2; ++y) {
    std::memcpy(chroma + y * pitch, picture.chroma + y * picture.chromaStep, width_);
  }
  if (NVENCSTATUS s = api.nvEncUnlockInputBuffer(encoder_, b.input); s != NV_ENC_SUCCESS) {
    return lose("nvEncUnlockInputBuffer", s);
  }

  NV_ENC_PIC_PARAMS params{};
  params.version = NV_ENC_PIC_PARAMS_VER;
  params.inputWidth = width_;
  params.inputHeight = height_;
  params.inputPitch = lock.pitch;
  params.inputBuffer = b.input;
  params.outputBitstream = b.bitstream;
  params.completionEvent = asynchronous_ ? b.completion.nativeHandle() : nullptr;
  params.bufferFmt = NV_ENC_BUFFER_FORMAT_NV12;
  params.pictureStruct = NV_ENC_PIC_STRUCT_FRAME;
  params.inputTimeStamp = position;
  if (NVENCSTATUS s = api.nvEncEncodePicture(encoder_, &params); s != NV_ENC_SUCCESS) {
    return lose("nvEncEncodePicture", s);
  }
  {
    std::lock_guard guard(queueLock_);
    submitted_.push_back({index, &sink});
  }
  queueChanged_.notify_all();
  return true;
}

void CNvEncoderH264::outputThread() {
  for (;;) {
    Submitted next;
    {
      std::unique_lock guard(queueLock_);
      queueChanged_.wait(guard, [this] { return !submitted_.empty(); });
      next = submitted_.front();
      submitted_.pop_front();
    }
    if (next.sink == nullptr) return;
    retrieve(*buffers_[next.buffer], *next.sink);
    releaseBuffer(next.buffer);
  }
}

void CNvEncoderH264::retrieve(IoBuffer& b, CodedFrameSink& sink) {
  if (asynchronous_ && b.completion.wait(kCompletionPatienceMs) != platform::kWaitObject0) {
    logLine(u"[Warning] *** NVENC *** No completion signal after %u ms; asking for the frame anyway\n",
            kCompletionPatienceMs);
  }
  NV_ENC_LOCK_BITSTREAM lock{};
  lock.version = NV_ENC_LOCK_BITSTREAM_VER;
  lock.outputBitstream = b.bitstream;
  if (NVENCSTATUS s = nvenc_.api.nvEncLockBitstream(encoder_, &lock); s != NV_ENC_SUCCESS) {
    if (lostOutputs_++ == 0) {
      logLine(u"[Error]   *** NVENC *** nvEncLockBitstream failed: code=%d(%S); the frame is lost\n",
              static_cast<int>(s), nvencStatusText(s));
    }
    return;
  }
  // An I picture starts a sequence as well as an IDR one: nothing after it
  // refers to a frame before it, as there are no B-frames.
  const bool key = lock.pictureType == NV_ENC_PIC_TYPE_IDR || lock.pictureType == NV_ENC_PIC_TYPE_I;
  if (lock.bitstreamSizeInBytes >= 4 && lock.bitstreamBufferPtr != nullptr) {
    sink.deliver({static_cast<const std::byte*>(lock.bitstreamBufferPtr), lock.bitstreamSizeInBytes},
                 static_cast<uint32_t>(lock.outputTimeStamp), key);
  }
  if (NVENCSTATUS s = nvenc_.api.nvEncUnlockBitstream(encoder_, b.bitstream); s != NV_ENC_SUCCESS) {
    logNvencError(s, __LINE__, "m_pEncodeAPI->nvEncUnlockBitstream(m_hEncoder, pOutputBitstream)");
  }
}

void CNvEncoderH264::endStream() {
  if (initialized_ && !ended_) {
    ended_ = true;
    NV_ENC_PIC_PARAMS params{};
    params.version = NV_ENC_PIC_PARAMS_VER;
    params.encodePicFlags = NV_ENC_PIC_FLAG_EOS;
    if (NVENCSTATUS s = nvenc_.api.nvEncEncodePicture(encoder_, &params); s != NV_ENC_SUCCESS) {
      logNvencError(s, __LINE__, "m_pEncodeAPI->nvEncEncodePicture(m_hEncoder, &encPicParams)");
    }
  }
  if (!output_.joinable()) return;
  {
    std::lock_guard guard(queueLock_);
    submitted_.push_back({});
  }
  queueChanged_.notify_all();
  // The output thread ends once it has handed over every frame before the end:
  // the front bounds how long a hand-over may wait for its consumer.
  while (output_.join(1000) == platform::kWaitTimeout) {
  }
}

bool CNvEncoderH264::drain(CodedFrameSink& /*sink*/) {
  endStream();
  if (lostFrames_ > 1 || lostOutputs_ > 1) {
    logLine(u"[Warning] *** NVENC *** %u frames were refused and %u lost on the way out\n", lostFrames_, lostOutputs_);
  }
  return true;
}

void CNvEncoderH264::destroy() {
  endStream();
  const NV_ENCODE_API_FUNCTION_LIST& api = nvenc_.api;
  for (auto& b : buffers_) {
    if (b->registered) {
      NV_ENC_EVENT_PARAMS event{};
      event.version = NV_ENC_EVENT_PARAMS_VER;
      event.completionEvent = b->completion.nativeHandle();
      api.nvEncUnregisterAsyncEvent(encoder_, &event);
    }
    if (b->input != nullptr) api.nvEncDestroyInputBuffer(encoder_, b->input);
    if (b->bitstream != nullptr) api.nvEncDestroyBitstreamBuffer(encoder_, b->bitstream);
  }
  buffers_.clear();
  const bool held = encoder_ != nullptr || context_ != nullptr;
  if (encoder_ != nullptr) {
    api.nvEncDestroyEncoder(encoder_);
    encoder_ = nullptr;
  }
  if (context_ != nullptr) {
    cuda_.cuCtxDestroy_v2(context_);
    context_ = nullptr;
  }
  initialized_ = false;
  if (held) logLine(u"CNvEncoder::ReleaseEncoderResources() m_RefCount == 0, releasing resources\n");
}

}  // namespace kestrium
