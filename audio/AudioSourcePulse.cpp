#include "audio/AudioSourcePulse.h"
#include "audio/DeviceSource.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <atomic>
#include <bit>

#include "platform/Text.h"
#include "server/Log.h"

namespace kestrium {

namespace {

// Windows speaker bits of the PulseAudio positions. A mono device is a front
// centre speaker, as a mono microphone is on Windows.
struct Position {
  pa_channel_position_t position;
  uint32_t bit;
};
constexpr Position kPositions[] = {
    {PA_CHANNEL_POSITION_MONO, 0x4},
    {PA_CHANNEL_POSITION_FRONT_LEFT, 0x1},
    {PA_CHANNEL_POSITION_FRONT_RIGHT, 0x2},
    {PA_CHANNEL_POSITION_FRONT_CENTER, 0x4},
    {PA_CHANNEL_POSITION_LFE, 0x8},
    {PA_CHANNEL_POSITION_REAR_LEFT, 0x10},
    {PA_CHANNEL_POSITION_REAR_RIGHT, 0x20},
    {PA_CHANNEL_POSITION_FRONT_LEFT_OF_CENTER, 0x40},
    {PA_CHANNEL_POSITION_FRONT_RIGHT_OF_CENTER, 0x80},
    {PA_CHANNEL_POSITION_REAR_CENTER, 0x100},
    {PA_CHANNEL_POSITION_SIDE_LEFT, 0x200},
    {PA_CHANNEL_POSITION_SIDE_RIGHT, 0x400},
    {PA_CHANNEL_POSITION_TOP_CENTER, 0x800},
    {PA_CHANNEL_POSITION_TOP_FRONT_LEFT, 0x1000},
    {PA_CHANNEL_POSITION_TOP_FRONT_CENTER, 0x2000},
    {PA_CHANNEL_POSITION_TOP_FRONT_RIGHT, 0x4000},
    {PA_CHANNEL_POSITION_TOP_REAR_LEFT, 0x8000},
    {PA_CHANNEL_POSITION_TOP_REAR_CENTER, 0x10000},
    {PA_CHANNEL_POSITION_TOP_REAR_RIGHT, 0x20000},
};

uint32_t bitOf(pa_channel_position_t p) {
  for (const Position& k : kPositions) {
    if (k.position == p) return k.bit;
  }
  return 0;
}

pa_channel_position_t positionOf(uint32_t bit) {
  for (const Position& k : kPositions) {
    if (k.bit == bit && k.position != PA_CHANNEL_POSITION_MONO) return k.position;
  }
  return PA_CHANNEL_POSITION_INVALID;
}

struct Device {
  std::string name;  // what a stream connects to: a source, or a sink's monitor
  pa_sample_spec spec{};
  pa_channel_map map{};
};

}  // namespace

// The client library's objects, driven by its own thread.
struct AudioSourcePulse::Connection {
  // A sound server that takes the connection and then says nothing must not
  // hold up the capture start, and with it every other command.
  static constexpr pa_usec_t kAnswerUs = 3'000'000;

  pa_threaded_mainloop* loop = nullptr;
  pa_context* context = nullptr;
  pa_stream* stream = nullptr;
  pa_time_event* deadline = nullptr;
  std::atomic<bool> expired = false;  // the server did not answer in time (set by the library's thread)
  std::mutex lock;  // the queue and the flag, between the library's thread and Poll
  std::vector<float> queue;
  bool failed = false;

  ~Connection() {
    if (loop != nullptr) pa_threaded_mainloop_stop(loop);
    if (deadline != nullptr) pa_threaded_mainloop_get_api(loop)->time_free(deadline);
    if (stream != nullptr) {
      pa_stream_disconnect(stream);
      pa_stream_unref(stream);
    }
    if (context != nullptr) {
      pa_context_disconnect(context);
      pa_context_unref(context);
    }
    if (loop != nullptr) pa_threaded_mainloop_free(loop);
  }

  // Gives the server kAnswerUs from now; the caller holds the loop's lock.
  void armDeadline() {
    pa_mainloop_api* api = pa_threaded_mainloop_get_api(loop);
    timeval when{};
    pa_timeval_add(pa_gettimeofday(&when), kAnswerUs);
    expired = false;
    if (deadline != nullptr) {
      api->time_restart(deadline, &when);
    } else {
      deadline = api->time_new(
          api, &when,
          [](pa_mainloop_api*, pa_time_event*, const timeval*, void* data) {
            auto* self = static_cast<Connection*>(data);
            self->expired = true;
            pa_threaded_mainloop_signal(self->loop, 0);
          },
          this);
    }
  }

  // Runs an operation to its end, or gives it up when the server is too slow;
  // the caller holds the loop's lock.
  void await(pa_operation* op) {
    if (op == nullptr) return;
    armDeadline();
    while (pa_operation_get_state(op) == PA_OPERATION_RUNNING && !expired) pa_threaded_mainloop_wait(loop);
    // Cancelled, its callback is never called with what this frame holds.
    if (pa_operation_get_state(op) == PA_OPERATION_RUNNING) pa_operation_cancel(op);
    pa_operation_unref(op);
  }

  bool connect() {
    loop = pa_threaded_mainloop_new();
    if (loop == nullptr) return false;
    context = pa_context_new(pa_threaded_mainloop_get_api(loop), "Kestrium capture server");
    if (context == nullptr) return false;
    pa_context_set_state_callback(
        context, [](pa_context*, void* self) { pa_threaded_mainloop_signal(static_cast<Connection*>(self)->loop, 0); },
        this);
    if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) return false;
    if (pa_threaded_mainloop_start(loop) < 0) return false;
    pa_threaded_mainloop_lock(loop);
    armDeadline();
    pa_context_state_t state;
    while ((state = pa_context_get_state(context)) != PA_CONTEXT_READY && PA_CONTEXT_IS_GOOD(state) && !expired) {
      pa_threaded_mainloop_wait(loop);
    }
    pa_threaded_mainloop_unlock(loop);
    return state == PA_CONTEXT_READY;
  }

  // A device by its description: sources that are not monitors, then sinks
  // (whose monitor is what they play). The second says loopback.
  std::optional<std::pair<Device, bool>> find(const std::string& description) {
    struct Search {
      Connection* self;
      const std::string* description;
      std::optional<Device> found;
    } search{this, &description, std::nullopt};
    pa_threaded_mainloop_lock(loop);
    await(pa_context_get_source_info_list(
        context,
        [](pa_context*, const pa_source_info* info, int eol, void* data) {
          auto* s = static_cast<Search*>(data);
          if (eol == 0 && info != nullptr && !s->found && info->monitor_of_sink == PA_INVALID_INDEX &&
              info->description != nullptr && *s->description == info->description) {
            s->found = Device{info->name, info->sample_spec, info->channel_map};
          }
          pa_threaded_mainloop_signal(s->self->loop, 0);
        },
        &search));
    const bool capture = search.found.has_value();
    if (!capture && !expired) {
      await(pa_context_get_sink_info_list(
          context,
          [](pa_context*, const pa_sink_info* info, int eol, void* data) {
            auto* s = static_cast<Search*>(data);
            if (eol == 0 && info != nullptr && !s->found && info->description != nullptr &&
                *s->description == info->description && info->monitor_source_name != nullptr) {
              s->found = Device{info->monitor_source_name, info->sample_spec, info->channel_map};
            }
            pa_threaded_mainloop_signal(s->self->loop, 0);
          },
          &search));
    }
    pa_threaded_mainloop_unlock(loop);
    if (!search.found) return std::nullopt;
    return std::make_pair(*search.found, !capture);
  }

  // Takes what the server has into the queue; a hole is silence.
  static void onRead(pa_stream* stream, size_t, void* data) {
    auto* self = static_cast<Connection*>(data);
    for (;;) {
      const void* bytes = nullptr;
      size_t size = 0;
      if (pa_stream_peek(stream, &bytes, &size) < 0 || size == 0) return;
      {
        std::lock_guard guard(self->lock);
        const size_t samples = size / sizeof(float);
        if (bytes == nullptr) {
          self->queue.insert(self->queue.end(), samples, 0.0f);
        } else {
          const auto* f = static_cast<const float*>(bytes);
          self->queue.insert(self->queue.end(), f, f + samples);
        }
      }
      pa_stream_drop(stream);
    }
  }

  static void onState(pa_stream* stream, void* data) {
    auto* self = static_cast<Connection*>(data);
    const pa_stream_state_t state = pa_stream_get_state(stream);
    if (state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED) {
      std::lock_guard guard(self->lock);
      self->failed = true;
    }
    pa_threaded_mainloop_signal(self->loop, 0);
  }
};

AudioSourcePulse::AudioSourcePulse(std::optional<StereoMixSettings> stereo) : stereo_(stereo) {}

AudioSourcePulse::~AudioSourcePulse() { Stop(); }

int AudioSourcePulse::Open(int32_t index, std::u16string_view deviceName, int32_t verbose) {
  index_ = index;
  connection_ = std::make_unique<Connection>();
  if (!connection_->connect()) {
    logLine(u"[Error]   *** Aud *** Cannot connect to the sound server\n");
    connection_.reset();
    return 0;
  }
  const auto found = connection_->find(platform::toUtf8(deviceName));
  if (!found && connection_->expired) {
    logLine(u"[Error]   *** Aud *** The sound server did not answer in time: %s is left out\n", deviceName);
    connection_.reset();
    return 0;
  }
  if (!found) {
    logLine(u"[Error]   *** Aud *** Cannot find source: %s\n", deviceName);
    connection_.reset();
    return 0;
  }
  const auto& [device, loopback] = *found;
  loopback_ = loopback;

  // The device's speakers, asked for in the order of the Windows speaker bits.
  deviceMask_ = 0;
  for (uint8_t c = 0; c < device.map.channels; ++c) deviceMask_ |= bitOf(device.map.map[c]);
  if (deviceMask_ == 0) deviceMask_ = 0x3;
  pa_channel_map map{};
  for (uint32_t bit = 1; bit != 0 && map.channels < PA_CHANNELS_MAX; bit <<= 1) {
    if ((deviceMask_ & bit) != 0) map.map[map.channels++] = positionOf(bit);
  }
  const uint32_t rate = device.spec.rate;
  if (verbose != 0) {
    logLine(u"  *** Aud *** Audio source: %s\n", deviceName);
    logLine(u"  *** Aud ***  Format tag:  %04X\n", kWaveFormatExtensibleTag);
    logLine(u"  *** Aud ***  Device caps: %d Hz / %d channels / %d bits\n", rate, map.channels, 32);
    logLine(u"  *** Aud ***   ext format: Mask %02X, Valid bps %d\n", deviceMask_, 32);
    logLine(u"  *** Aud ***   ext format subtype: IEEE float\n");
  }
  format_ = floatFormat(rate, deviceMask_);
  stereoEnabled_ = stereo_.has_value() && deviceMask_ != 0x3;
  if (stereoEnabled_) {
    weights_ = normalizedWeights(*stereo_, deviceMask_);
    format_ = floatFormat(rate, 0x3);
  }

  const pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, rate, map.channels};
  pa_threaded_mainloop_lock(connection_->loop);
  connection_->stream = pa_stream_new(connection_->context, "Kestrium capture", &spec, &map);
  if (connection_->stream != nullptr) {
    pa_stream_set_read_callback(connection_->stream, &Connection::onRead, connection_.get());
    pa_stream_set_state_callback(connection_->stream, &Connection::onState, connection_.get());
  }
  pa_threaded_mainloop_unlock(connection_->loop);
  if (connection_->stream == nullptr) {
    logLine(u"[Error]   *** Aud *** Initialize2\n");
    connection_.reset();
    return 0;
  }
  deviceName_ = device.name;
  DeriveFormat16();
  return 1;
}

int AudioSourcePulse::Start() {
  if (!connection_ || connection_->stream == nullptr) return 0;
  const pa_sample_spec* spec = pa_stream_get_sample_spec(connection_->stream);
  // Small fragments: the recorder polls at least twice a second, and a short
  // fragment keeps what a killed server loses short too.
  pa_buffer_attr attr{};
  attr.maxlength = static_cast<uint32_t>(-1);
  attr.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(10000, spec));
  pa_threaded_mainloop_lock(connection_->loop);
  // Never moved to another device when this one goes: a track holds the sound
  // of the device the user chose, or none.
  const int result = pa_stream_connect_record(connection_->stream, deviceName_.c_str(), &attr,
                                              static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY |
                                                                             PA_STREAM_DONT_MOVE));
  pa_threaded_mainloop_unlock(connection_->loop);
  return result < 0 ? 0 : 1;
}

int AudioSourcePulse::Stop() {
  connection_.reset();
  return 1;
}

void AudioSourcePulse::Poll(int32_t /*flush*/) {
  if (!connection_) return;
  bool failed;
  taken_.clear();
  {
    std::lock_guard guard(connection_->lock);
    taken_.swap(connection_->queue);
    failed = connection_->failed;
  }
  if (failed) {
    // The device is gone: its track stops growing, and the log says so on
    // every poll, as it would for a device that fails to deliver.
    logLine(u"[Error]   *** Aud *** Error getting buffer from CaptureClient %08X\n", 0x88890004u);
  }
  const size_t deviceChannels = static_cast<size_t>(std::popcount(deviceMask_));
  const size_t frames = taken_.size() / deviceChannels;
  if (frames > 0 && muted_ != 0) {
    PushSilence(frames);
  } else if (frames > 0) {
    std::span<float> samples(taken_.data(), frames * deviceChannels);
    if (stereoEnabled_) {
      folded_.resize(2 * frames);
      foldToStereo(samples, deviceMask_, frames, weights_, folded_);
      samples = folded_;
    }
    applyVolume(samples, volume_);
    PushFrames(samples, frames);
  }
  // A device that is gone is not filled: its track stops where its sound did.
  if (!failed) keepPace(frames);
}

std::unique_ptr<AudioSource> makeDeviceSource(const std::optional<StereoMixSettings>& stereo) {
  return std::make_unique<AudioSourcePulse>(stereo);
}

}  // namespace kestrium
