#include "audio/AudioSourceCoreAudio.h"
#include "audio/DeviceSource.h"

// clang-format off
#include <windows.h>
#include <objbase.h>
#include <mmreg.h>
#include <mmdeviceapi.h>
#include <audioclient.h>
// clang-format on

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>

#include "server/Log.h"

namespace kestrium {

namespace {

static_assert(sizeof(wchar_t) == sizeof(char16_t), "device names are compared as UTF-16");

// One counted reference to a COM object, released when it goes.
template <class T>
class ComPtr {
 public:
  ComPtr() = default;
  ~ComPtr() { reset(); }
  ComPtr(const ComPtr&) = delete;
  ComPtr& operator=(const ComPtr&) = delete;
  ComPtr(ComPtr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  ComPtr& operator=(ComPtr&& other) noexcept {
    if (this != &other) {
      reset();
      p_ = std::exchange(other.p_, nullptr);
    }
    return *this;
  }

  void reset() {
    if (p_ != nullptr) std::exchange(p_, nullptr)->Release();
  }
  T* get() const { return p_; }
  T* operator->() const { return p_; }
  explicit operator bool() const { return p_ != nullptr; }
  // For the calls that hand out a new reference.
  T** put() {
    reset();
    return &p_;
  }
  void** putVoid() { return reinterpret_cast<void**>(put()); }

 private:
  T* p_ = nullptr;
};

struct CoTaskMemFreer {
  void operator()(void* p) const { CoTaskMemFree(p); }
};
// A format the audio client allocated for us.
using MixFormat = std::unique_ptr<WAVEFORMATEX, CoTaskMemFreer>;

// A property value, cleared when it goes.
class PropVariant {
 public:
  PropVariant() { PropVariantInit(&value_); }
  ~PropVariant() { PropVariantClear(&value_); }
  PropVariant(const PropVariant&) = delete;
  PropVariant& operator=(const PropVariant&) = delete;
  PROPVARIANT* put() {
    PropVariantClear(&value_);
    return &value_;
  }
  const PROPVARIANT& get() const { return value_; }

 private:
  PROPVARIANT value_;
};

// PKEY_Device_FriendlyName: "Speakers (USB Headset)", the name users see and
// configure. Defined here, so that no GUID library has to be linked for it.
const PROPERTYKEY kFriendlyName = {{0xa45c254e, 0xdf1c, 0x4efd, {0x80, 0x20, 0x67, 0xd1, 0x46, 0xa8, 0x50, 0xe0}}, 14};

// Both streams get one second of buffer: that is how long the caller may go
// between two polls without losing sound.
constexpr REFERENCE_TIME kOneSecond = 10'000'000;

bool hasFriendlyName(IMMDevice* device, std::u16string_view name) {
  ComPtr<IPropertyStore> store;
  if (FAILED(device->OpenPropertyStore(STGM_READ, store.put()))) return false;
  PropVariant value;
  if (FAILED(store->GetValue(kFriendlyName, value.put()))) return false;
  if (value.get().vt != VT_LPWSTR || value.get().pwszVal == nullptr) return false;
  return std::u16string_view(reinterpret_cast<const char16_t*>(value.get().pwszVal)) == name;
}

// The first active endpoint of that exact name: capture endpoints first, so a
// microphone wins over a playback device of the same name. A playback device
// found is captured in loopback.
ComPtr<IMMDevice> findDevice(IMMDeviceEnumerator* enumerator, std::u16string_view name, bool& loopback) {
  for (const EDataFlow flow : {eCapture, eRender}) {
    ComPtr<IMMDeviceCollection> devices;
    if (FAILED(enumerator->EnumAudioEndpoints(flow, DEVICE_STATE_ACTIVE, devices.put()))) continue;
    UINT count = 0;
    if (FAILED(devices->GetCount(&count))) continue;
    for (UINT i = 0; i < count; ++i) {
      ComPtr<IMMDevice> device;
      if (FAILED(devices->Item(i, device.put()))) continue;
      if (hasFriendlyName(device.get(), name)) {
        loopback = flow == eRender;
        return device;
      }
    }
  }
  return {};
}

bool isSubFormat(const WaveFormatExtensible& format, uint16_t tag) {
  return format.subFormat == subFormatOf(tag);
}

}  // namespace

// The COM objects of one open device, declared in the reverse of the order in
// which they are released.
struct AudioSourceCoreAudio::Streams {
  ComPtr<IMMDeviceEnumerator> enumerator;
  ComPtr<IMMDevice> device;
  ComPtr<IAudioCaptureClient> captureClient;
  ComPtr<IAudioClient> renderAudioClient;  // the silent stream of a loopback source
  ComPtr<IAudioClient> audioClient;        // the capture stream
  ComPtr<IAudioRenderClient> renderClient;
  uint32_t renderBufferFrames = 0;
};

namespace {

// A loopback capture gets no packets while the endpoint plays nothing: a
// stream of silence of our own keeps it running. Its buffer is filled once and
// never again.
bool startSilence(AudioSourceCoreAudio::Streams& s) {
  if (FAILED(s.device->Activate(__uuidof(IAudioClient), CLSCTX_ALL, nullptr, s.renderAudioClient.putVoid()))) {
    logLine(u"[Error]   *** Aud *** - Activate\n");
    return false;
  }
  WAVEFORMATEX* raw = nullptr;
  if (FAILED(s.renderAudioClient->GetMixFormat(&raw))) {
    logLine(u"[Error]   *** Aud *** - GetMixFormat\n");
    return false;
  }
  MixFormat format(raw);
  if (FAILED(s.renderAudioClient->Initialize(AUDCLNT_SHAREMODE_SHARED, 0, kOneSecond, 0, format.get(), nullptr))) {
    logLine(u"[Error]   *** Aud *** - Initialize\n");
    return false;
  }
  const size_t blockAlign = format->nBlockAlign;
  format.reset();
  UINT32 frames = 0;
  if (FAILED(s.renderAudioClient->GetBufferSize(&frames))) {
    logLine(u"[Error]   *** Aud *** - GetBufferSize\n");
    return false;
  }
  s.renderBufferFrames = frames;
  if (FAILED(s.renderAudioClient->GetService(__uuidof(IAudioRenderClient), s.renderClient.putVoid()))) {
    logLine(u"[Error]   *** Aud *** - GetService\n");
    return false;
  }
  BYTE* data = nullptr;
  if (FAILED(s.renderClient->GetBuffer(frames, &data))) {
    logLine(u"[Error]   *** Aud *** - GetBuffer\n");
    return false;
  }
  std::memset(data, 0, frames * blockAlign);
  if (FAILED(s.renderClient->ReleaseBuffer(frames, 0))) {
    logLine(u"[Error]   *** Aud *** - ReleaseBuffer\n");
    return false;
  }
  return true;
}

}  // namespace

AudioSourceCoreAudio::AudioSourceCoreAudio(std::optional<StereoMixSettings> stereo) : stereo_(stereo) {}

AudioSourceCoreAudio::~AudioSourceCoreAudio() { Stop(); }

int AudioSourceCoreAudio::Open(int32_t index, std::u16string_view deviceName, int32_t verbose) {
  // A source opened again starts from nothing: what it held was of the
  // device it had.
  Stop();
  bufferFrames_ = 0;
  index_ = index;
  format_ = {};
  format16_ = {};
  loopback_ = false;
  stereoEnabled_ = stereo_.has_value();
  streams_ = std::make_unique<Streams>();
  if (!openStreams(deviceName, verbose)) {
    // Whatever was made goes; COM stays initialised until Stop or the
    // destructor, which the caller reaches next.
    streams_.reset();
    return 0;
  }
  DeriveFormat16();
  return 1;
}

bool AudioSourceCoreAudio::openStreams(std::u16string_view deviceName, int32_t verbose) {
  Streams& s = *streams_;
  if (FAILED(CoCreateInstance(__uuidof(MMDeviceEnumerator), nullptr, CLSCTX_ALL, __uuidof(IMMDeviceEnumerator),
                              s.enumerator.putVoid()))) {
    // This thread has no COM yet: the source brings it, and takes it away
    // again in Stop.
    if (FAILED(CoInitialize(nullptr))) {
      logLine(u"[Error]   *** Aud *** CoInitialize");
      return false;
    }
    comInitialised_ = true;
    comThread_ = GetCurrentThreadId();
    if (FAILED(CoCreateInstance(__uuidof(MMDeviceEnumerator), nullptr, CLSCTX_ALL, __uuidof(IMMDeviceEnumerator),
                                s.enumerator.putVoid()))) {
      logLine(u"[Error]   *** Aud *** CoCreateInstance");
      return false;
    }
  }

  s.device = findDevice(s.enumerator.get(), deviceName, loopback_);
  if (!s.device) {
    logLine(u"[Error]   *** Aud *** Cannot find source: %s\n", deviceName);
    return false;
  }
  if (loopback_ && !startSilence(s)) return false;

  if (FAILED(s.device->Activate(__uuidof(IAudioClient), CLSCTX_ALL, nullptr, s.audioClient.putVoid()))) {
    logLine(u"[Error]   *** Aud *** - Activate2\n");
    return false;
  }
  WAVEFORMATEX* raw = nullptr;
  if (FAILED(s.audioClient->GetMixFormat(&raw))) {
    logLine(u"[Error]   *** Aud *** - GetMixFormat\n");
    return false;
  }
  // The device's own mix format, taken as it is: a shared stream runs at the
  // mix format, and any other would need a converter in between.
  const MixFormat mix(raw);
  WaveFormatExtensible captured{};
  std::memcpy(&captured, mix.get(), std::min<size_t>(sizeof captured, sizeof(WAVEFORMATEX) + mix->cbSize));

  if (verbose != 0) {
    logLine(u"  *** Aud *** Audio source: %s\n", deviceName);
    logLine(u"  *** Aud ***  Format tag:  %04X\n", captured.formatTag);
    // The two complaints below leave the source open with no stream and an
    // empty format: it makes no track, and the line is the only report.
    if (captured.formatTag != WAVE_FORMAT_EXTENSIBLE) {
      logLine(u"[Error]   *** Aud *** - Unknown wave format\n");
      return true;
    }
    logLine(u"  *** Aud ***  Device caps: %d Hz / %d channels / %d bits\n", captured.samplesPerSec, captured.channels,
            captured.bitsPerSample);
    logLine(u"  *** Aud ***   ext format: Mask %02X, Valid bps %d\n", captured.channelMask, captured.validBitsPerSample);
    if (isSubFormat(captured, kWaveFormatPcm)) {
      logLine(u"[Error]   *** Aud ***   ext format subtype: PCM\n");
      logLine(u"[Error]   *** Aud *** - Unknown format subtype format\n");
      return true;
    }
    if (isSubFormat(captured, kWaveFormatIeeeFloat)) logLine(u"  *** Aud ***   ext format subtype: IEEE float\n");
  }

  const DWORD flags = loopback_ ? AUDCLNT_STREAMFLAGS_LOOPBACK : 0;
  if (FAILED(s.audioClient->Initialize(AUDCLNT_SHAREMODE_SHARED, flags, kOneSecond, 0, mix.get(), nullptr))) {
    logLine(u"[Error]   *** Aud *** Initialize2\n");
    return false;
  }
  if (FAILED(s.audioClient->GetService(__uuidof(IAudioCaptureClient), s.captureClient.putVoid()))) {
    logLine(u"[Error]   *** Aud *** GetService2");
    return false;
  }

  format_ = captured;
  deviceChannels_ = captured.channels;
  deviceMask_ = captured.channelMask;
  floatPackets_ = captured.bitsPerSample == 32 && captured.blockAlign == captured.channels * sizeof(float);
  if (stereoEnabled_ && captured.channels == 2 && captured.channelMask == 0x3) stereoEnabled_ = false;
  if (stereoEnabled_) {
    weights_ = normalizedWeights(*stereo_, deviceMask_);
    format_.channels = 2;
    format_.blockAlign = static_cast<uint16_t>(format_.bitsPerSample * 2 / 8);
    format_.channelMask = 0x3;
    format_.avgBytesPerSec = format_.blockAlign * format_.samplesPerSec;
  }
  return true;
}

int AudioSourceCoreAudio::Start() {
  if (!streams_ || !streams_->audioClient) return 0;
  // The silence first, so that a loopback endpoint runs when its capture
  // begins. A silent stream that does not start only costs the packets of
  // the quiet moments, so its result is not looked at.
  if (streams_->renderAudioClient) (void)streams_->renderAudioClient->Start();
  if (FAILED(streams_->audioClient->Start())) return 0;
  firstDevicePosition_ = 0;
  return 1;
}

int AudioSourceCoreAudio::Stop() {
  if (streams_) {
    if (streams_->audioClient) (void)streams_->audioClient->Stop();
    if (streams_->renderAudioClient) (void)streams_->renderAudioClient->Stop();
    streams_.reset();
  }
  folded_ = {};
  if (comInitialised_) {
    // Only on the thread that initialised it: on another thread the call
    // would take away COM that belongs to someone else there.
    if (comThread_ == GetCurrentThreadId()) CoUninitialize();
    comInitialised_ = false;
  }
  return 1;
}

void AudioSourceCoreAudio::Poll(int32_t /*flush*/) {
  if (!streams_ || !streams_->captureClient) return;
  IAudioCaptureClient* capture = streams_->captureClient.get();
  size_t given = 0;
  for (;;) {
    BYTE* data = nullptr;
    UINT32 frames = 0;
    DWORD flags = 0;
    UINT64 devicePosition = 0;
    const HRESULT hr = capture->GetBuffer(&data, &frames, &flags, &devicePosition, nullptr);
    if (FAILED(hr)) {
      // A device that is gone fails here on every poll: its track stops
      // growing, and the log says so each time.
      logLine(u"[Error]   *** Aud *** Error getting buffer from CaptureClient %08X\n", static_cast<uint32_t>(hr));
      (void)capture->ReleaseBuffer(0);
      return;
    }
    if (firstDevicePosition_ == 0) firstDevicePosition_ = devicePosition;
    // Integer packets are never converted (the format checks refuse them
    // when they run): as silence they at least keep the block in step.
    if ((flags & AUDCLNT_BUFFERFLAGS_SILENT) != 0 || !floatPackets_) data = nullptr;
    if (frames == 0) {
      // Empty is the usual end. A success that holds nothing would come back
      // the same on every round, so it ends the poll too, handed back.
      if (hr != AUDCLNT_S_BUFFER_EMPTY) (void)capture->ReleaseBuffer(0);
      keepPace(given);
      return;
    }
    if (data == nullptr || muted_ != 0) {
      // Silence and a muted source count like sound: the block's frame count
      // is the track's clock.
      PushSilence(frames);
    } else {
      // Volume is applied in place, in the device's buffer or the folded one.
      std::span<float> samples(reinterpret_cast<float*>(data), size_t{frames} * deviceChannels_);
      if (stereoEnabled_) {
        if (folded_.size() < 2 * size_t{frames}) folded_.resize(2 * size_t{frames});
        foldToStereo(samples, deviceMask_, frames, weights_, folded_);
        samples = std::span<float>(folded_).first(2 * size_t{frames});
      }
      applyVolume(samples, volume_);
      PushFrames(samples, frames);
    }
    (void)capture->ReleaseBuffer(frames);
    given += frames;
  }
}

std::unique_ptr<AudioSource> makeDeviceSource(const std::optional<StereoMixSettings>& stereo) {
  return std::make_unique<AudioSourceCoreAudio>(stereo);
}

}  // namespace kestrium
