#include "server/CaptureStart.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>

#include "audio/AudioProcessor.h"
#include "audio/DeviceSource.h"
#include "platform/NamedMutex.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "recorder/BroadcastInfo.h"
#include "server/Dispatcher.h"
#include "server/Log.h"
#include "videoEncoder/VfwDriver.h"

#if KESTRIUM_WITH_RTMP
#include "broadcast/RTMPPublisher.h"
#endif

namespace kestrium {

namespace {

constexpr uint32_t kLargestSide = 16384;
constexpr uint32_t kMostThreads = 64;
// Far above any client's rate (thousandths of a frame per second); a rate
// beyond it only makes every grid computation overflow.
constexpr uint32_t kFastestRate = 1000 * 1000;
// Far above any rate of AAC or MP3, and low enough that bits per second fit
// the encoders' integers.
constexpr uint32_t kHighestAudioKbps = 4096;
// What one encoder worker holds per pixel: the source copy (3 bytes), the
// largest encoded frame (4) and the encoder's own planes; plus the two shared
// slots of the capture (4 each).
constexpr uint64_t kWorkerBytesPerPixel = 10;
constexpr uint64_t kSharedBytesPerPixel = 8;
constexpr uint32_t kDibFourcc = 0x20424944;  // "DIB ": uncompressed

std::string decimal(uint32_t v) { return std::to_string(static_cast<int32_t>(v)); }

void logEncoderSettings(const StartParameters& p, std::u16string_view encoder) {
  if (encoder == u"vfw") {
    logLine(u"  *** CAP *** ** VFW fourcc:           %S\n", fourccText(p.vfwCodec));
  } else if (encoder == u"h264.quicksync") {
    logLine(u"  *** CAP *** ** Preset:               %d\n", p.targetUsage);
    logLine(u"  *** CAP *** ** Bitrate:              %d kbps\n", p.bitrate);
    logLine(u"  *** CAP *** ** Hardware acc:         %s\n", p.useHardware != 0 ? u"ON" : u"OFF");
    logLine(u"  *** CAP *** ** FullColorRange:       %d\n", p.fullColor);
  } else if (encoder == u"h264.nvenc" || encoder == u"h264.amdvce" || encoder == u"h264.x264") {
    logLine(u"  *** CAP *** ** Profile:              %d\n", p.profile);
    logLine(u"  *** CAP *** ** Preset:               %d\n", p.targetUsage);
    logLine(u"  *** CAP *** ** Bitrate:              %d kbps\n", p.bitrate);
  } else if (encoder == u"mjpeg") {
    logLine(u"  *** CAP *** ** FullColorRange:   %d\n", p.fullColorRange);
    logLine(u"  *** CAP *** ** YUV411:           %d\n", p.fullColorSpace == 0 ? 1 : 0);
    logLine(u"  *** CAP *** ** Quality:          %d\n", p.mjpegQuality);
  }
}

OptionList optionsOf(const StartParameters& p, std::u16string_view name) {
  return {"width",          decimal(p.width),
          "height",         decimal(p.height),
          "threads",        decimal(p.threads),
          "shared_name",    platform::toUtf8(name),
          "full_color_range", decimal(p.fullColorRange),
          "full_color_space", decimal(p.fullColorSpace),
          "mjpeg_quality",  decimal(p.mjpegQuality),
          "profile",        decimal(p.profile),
          "bitrate",        decimal(p.bitrate),
          "target_usage",   decimal(p.targetUsage),
          "use_hw",         decimal(p.useHardware),
          "fps",            decimal(p.frameRate),
          "full_color",     decimal(p.fullColor),
          "low_latency",    decimal(p.lowLatency),
          "vfw_codec",      std::to_string(p.vfwCodec)};
}

// What no encoder or writer would survive, refused before anything is made.
bool acceptable(const StartParameters& p) {
  if (p.width == 0 || p.height == 0 || p.width > kLargestSide || p.height > kLargestSide) {
    logLine(u"[Error]   *** CAP *** Frame size %ux%u cannot be recorded\n", p.width, p.height);
    return false;
  }
  if (p.frameRate == 0) {
    logLine(u"[Error]   *** CAP *** Frame rate 0 cannot be recorded\n");
    return false;
  }
  if (p.frameRate > kFastestRate) {
    logLine(u"[Error]   *** CAP *** Frame rate %.3f fps is above %u fps\n", p.frameRate / 1000.0, kFastestRate / 1000);
    return false;
  }
  if (p.threads > kMostThreads) {
    logLine(u"[Error]   *** CAP *** %u encoder threads are more than %u\n", p.threads, kMostThreads);
    return false;
  }
  if (p.audioEncoding != 0 && p.audioBitrate > kHighestAudioKbps) {
    logLine(u"[Error]   *** CAP *** Audio bit rate %u kbps is above %u kbps\n", p.audioBitrate, kHighestAudioKbps);
    return false;
  }
  if (!(p.prerecordLimit >= 0.0f)) {
    logLine(u"[Error]   *** CAP *** Pre-record limit %f is not a time\n", static_cast<double>(p.prerecordLimit));
    return false;
  }
  // Refused before anything is allocated: on a system that overcommits, a start
  // that does not fit would not fail, it would have the server killed later.
  const uint64_t pixels = uint64_t{p.width} * p.height;
  const uint64_t needed = pixels * (std::max(p.threads, 1u) * kWorkerBytesPerPixel + kSharedBytesPerPixel);
  const uint64_t available = platform::memoryStatus().availableBytes;
  if (available != 0 && needed > available) {
    logLine(u"[Error]   *** CAP *** The capture needs about %I64u MB of memory and %I64u MB are free\n", needed >> 20,
            available >> 20);
    return false;
  }
  return true;
}

// The text of the client as a path, or nothing with a log line.
std::optional<std::filesystem::path> pathOf(std::u16string_view text, const char16_t* what) {
  std::optional<std::filesystem::path> path = platform::toPath(text);
  if (!path) logLine(u"[Error]   *** CAP *** The %s \"%s\" cannot name a file\n", what, text);
  return path;
}

// Any program of the user can make a capture's names first, as something else:
// a capture whose objects are not what they must be is refused before it runs.
// The encoded slot must also hold the largest frame of the capture's encoder.
bool captureObjectsUsable(std::u16string_view name, uint64_t encodedCapacity) {
  CaptureObjects objects{std::u16string(name)};
  platform::NamedMutex clientAlive;  // only looked at: the client owns it
  const bool usable = clientAlive.create(objects.name(kClientAliveSuffix), false) && objects.openNewSource() &&
                      objects.openNewEncoded() && objects.openCommonData() &&
                      objects.openEncoderBuffer(encodedCapacity) && objects.encoderBuffer.size() >= encodedCapacity;
  if (!usable) {
    logLine(u"[Error]   *** CAP *** The shared objects of capture %s are missing or not what they should be\n", name);
  }
  return usable;
}

// The sound of the capture: a source for each device, or one mix of them all.
// A device that cannot be opened is logged and left out, and the capture goes
// on with the others; with none left it has no sound.
std::unique_ptr<IAudProcessor> makeAudio(const StartParameters& p, uint16_t& configuration, int32_t& encoderValue) {
  if (p.audioSources[0].deviceId[0] == u'\0') return nullptr;
  std::optional<StereoMixSettings> stereo;
  if (p.stereoMode != 0) stereo = p.stereoSettings;
  auto audio = std::make_unique<AudioProcessor>(p.mixer != 0, stereo, makeDeviceSource);
  for (int32_t i = 0; i < static_cast<int32_t>(std::size(p.audioSources)); ++i) {
    const AudioSourceEntry& entry = p.audioSources[i];
    const std::u16string_view device = wireString(entry.deviceId);
    if (device.empty()) break;
    // Above 100 % is unity anyway; the cap keeps a wild value from turning negative.
    audio->AddSource(device, static_cast<int32_t>(std::min<uint32_t>(entry.volume, 100)), i);
  }
  if (p.audioEncoding != 0) {
    encoderValue = audio->InitEncoders(u"aac", static_cast<int32_t>(p.audioBitrate), &configuration);
  }
  const WaveFormat* first = audio->GetSourceCount() > 0 ? audio->GetFormat(0) : nullptr;
  if (first == nullptr || first->channels() == 0 || first->samplesPerSec() == 0) {
    logLine(u"[Warning] *** CAP *** None of the audio devices could be opened: the capture has no sound\n");
    return nullptr;
  }
  return audio;
}

void fillBroadcastInfo(const StartParameters& p, IVidEncoder& encoder, IAudProcessor* audio, uint16_t configuration) {
  SharedBroadcastInfo& shared = broadcastInfo();
  std::lock_guard guard(shared.lock);
  BroadcastInfo& info = shared.info;
  info.videoBitrate = p.bitrate;
  info.frameRate = p.frameRate / 1000;
  info.audioBitrate = p.audioBitrate;
  info.width = p.width;
  info.height = p.height;
  const WaveFormat* sound = audio != nullptr ? audio->GetFormat(0) : nullptr;
  info.audioSampleRate = sound != nullptr ? sound->samplesPerSec() : 0;
  info.channels = 2;
  info.aacConfiguration = configuration;
  std::vector<std::byte> sps, pps;
  if (encoder.GetParameterSets(sps, pps) != 0) {
    info.sps = std::move(sps);
    info.pps = std::move(pps);
  }
  info.address = wireString(p.broadcastAddress);
  info.stream = wireString(p.broadcastStream);
}

// The publisher of a broadcast, or null when this capture cannot have one: the
// stream carries H.264 and AAC, and nothing else. A capture whose broadcast is
// refused still records.
std::unique_ptr<NetworkStream> makePublisher(IVidEncoder& video, std::u16string_view encoderName, bool pcmSound) {
#if KESTRIUM_WITH_RTMP
  if (video.HasBitmapFormat() != 0) {
    logLine(u"[Warning] *** CAP *** A broadcast carries H.264 video: the encoder %s makes none; the capture is "
            u"recorded only\n",
            encoderName);
    return nullptr;
  }
  if (pcmSound) {
    logLine(u"[Warning] *** CAP *** A broadcast carries AAC sound: give the sound a bit rate; the capture is recorded "
            u"only\n");
    return nullptr;
  }
  return std::make_unique<RTMPPublisher>();
#else
  static_cast<void>(video);
  static_cast<void>(encoderName);
  static_cast<void>(pcmSound);
  logLine(u"[Warning] *** CAP *** This build cannot broadcast: the capture is recorded only\n");
  return nullptr;
#endif
}

std::unique_ptr<Recorder> fail(std::unique_ptr<Recorder> recorder) {
  // Whatever was recorded is discarded: a failed start leaves no file.
  Recorder::Retire(std::move(recorder), true);
  logLine(u"[Error]   *** CAP *** Error starting capture\n");
  return nullptr;
}

}  // namespace

std::unique_ptr<Recorder> startCapture(const StartParameters& params) {
  const std::u16string_view name = wireString(params.recorderName);
  if (name.empty() || name.size() == std::size(params.recorderName)) {
    logLine(u"[Error]   *** CAP *** Capture name is missing or has no end\n");
    return fail(nullptr);
  }
  std::u16string encoderName(wireString(params.encoder));
  logLine(u"  *** CAP *** Starting capture, recorder name %s\n", name);
  logLine(u"  *** CAP *** Destination folder:    %s\n", wireString(params.destinationFolder));
  logLine(u"  *** CAP *** Encoder:               %s\n", encoderName);
  logEncoderSettings(params, encoderName);
  // A "DIB " codec is no codec at all: the lossless copy records it.
  if (encoderName == u"vfw" && params.vfwCodec == kDibFourcc) encoderName = u"no_compression";
  logLine(u"  *** CAP *** Num threads:           %d\n", params.threads);
  logLine(u"  *** CAP *** Frame size:            %dx%d\n", params.width, params.height);
  logLine(u"  *** CAP *** Frame rate:            %.2f fps\n", params.frameRate / 1000.0);
  logLine(u"  \n");
  if (!acceptable(params)) return fail(nullptr);
  const auto destination = pathOf(wireString(params.destinationFolder), u"destination folder");
  const std::u16string_view baseName = wireString(params.baseName);
  if (!destination || !pathOf(baseName, u"base name")) return fail(nullptr);
  // A relative folder would land wherever the server happened to start.
  if (!destination->is_absolute()) {
    logLine(u"[Error]   *** CAP *** The destination folder \"%s\" is not a full path\n",
            wireString(params.destinationFolder));
    return fail(nullptr);
  }
  // Before the encoder opens them, with the smallest slot any encoder needs.
  if (!captureObjectsUsable(name, encoderBufferSize(params.width, params.height))) return fail(nullptr);

  auto recorder = std::make_unique<Recorder>(std::u16string(name));
  std::unique_ptr<IVidEncoder> encoder = CreateVideoEncoder(encoderName);
  if (!encoder) return fail(std::move(recorder));
  if (encoder->Init(optionsOf(params, name)) == 0) {
    encoder->Close();
    return fail(std::move(recorder));
  }
  recorder->encoder = std::move(encoder);
  IVidEncoder& video = *recorder->encoder;
  if (!captureObjectsUsable(name, video.EncodedCapacity())) return fail(std::move(recorder));

  if (params.container != 0 && video.HasBitmapFormat() != 0) {
    logLine(u"[Error]   *** CAP *** An MP4 file holds H.264 video: the encoder %s makes none\n", encoderName);
    return fail(std::move(recorder));
  }

  uint16_t audioConfiguration = 0;
  int32_t audioEncoderValue = 0;
  recorder->audio = makeAudio(params, audioConfiguration, audioEncoderValue);
  // An MP4 audio track places each packet by the bit rate of its codec; PCM has
  // none. In side tracks PCM goes to WAV files and the MP4 holds no sound.
  if (params.container != 0 && params.sideTracks == 0 && recorder->audio && audioEncoderValue == 0) {
    logLine(u"[Error]   *** CAP *** An MP4 file holds AAC or MP3 sound: give the sound a bit rate, or record it "
            u"in side tracks\n");
    return fail(std::move(recorder));
  }

  std::unique_ptr<IFileWriter> writer = IFileWriter::Create(params.sideTracks != 0, params.prerecordLimit,
                                                            params.container != 0 ? u"MP4" : u"AVI", *destination);
  if (!writer) return fail(std::move(recorder));
  writer->setNames(std::u16string(baseName), params.folderByName != 0, params.folderByDate != 0, params.reservedFlag);
  if (video.HasBitmapFormat() != 0) {
    BitmapInfoHeader header{};
    video.GetBitmapFormat(&header);
    writer->setVideoFormat(params.width, params.height, params.frameRate, header);
  } else {
    const std::vector<std::byte> extra = video.GetStreamHeader();
    writer->setVideoParameters(params.width, params.height, params.frameRate, params.bitrate, extra);
  }
  if (IAudProcessor* audio = recorder->audio.get()) {
    if (params.audioEncoding != 0) writer->setAudioSideBitrate(params.audioBitrate);
    for (int32_t track = 0; track < audio->GetSourceCount(); ++track) {
      writer->addAudioFormat(*audio->GetFormat(track), audioConfiguration);
    }
    writer->setEncoderValue(static_cast<uint32_t>(audioEncoderValue));
  }
  recorder->writer = std::move(writer);

  if (params.broadcast != 0) {
    logLine(u"  *** CAP *** Creating broadcaster...\n");
    // The publisher takes its address from the block as it is made.
    fillBroadcastInfo(params, video, recorder->audio.get(), audioConfiguration);
    recorder->publisher = makePublisher(video, encoderName, recorder->audio != nullptr && audioEncoderValue == 0);
  }

  if (!recorder->Start([](const Recorder& r) { return Dispatcher::SendStopCommand(r); })) {
    logLine(u"[Error]   *** CAP *** Cannot start the recorder thread\n");
    return fail(std::move(recorder));
  }

  if (params.writeAtOnce == 0) {
    logLine(u"  *** CAP *** ** PRE-RECORDING IS ON **\n");
    logLine(u"  *** CAP *** Prerecord limit:       %.0f seconds\n", static_cast<double>(params.prerecordLimit));
  } else if (video.HeadersAfterFirstFrame() != 0) {
    // The file can only begin once the encoder has told its headers.
    recorder->writer->setDelayedBegin();
    logLine(u"[Warning] *** CAP *** Delayed recording\n");
  } else if (recorder->writer->begin() == 0) {
    return fail(std::move(recorder));
  }
  return recorder;
}

}  // namespace kestrium
