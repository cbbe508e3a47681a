#include "audio/AudioProcessor.h"

#include <cstring>

#include "server/Log.h"

namespace kestrium {

AudioProcessor::AudioProcessor(bool mixer, std::optional<StereoMixSettings> stereo, SourceFactory makeSource)
    : mixer_(mixer), stereo_(stereo), makeSource_(std::move(makeSource)) {
  if (stereo_) logLine(u"  *** AUD *** Stereo mode:  ENABLED\n");
  if (mixer_) {
    sources_.push_back(std::make_unique<AudioSourceMixer>(makeSource_, stereo_));
    sampleCounters_.push_back(0);
    logLine(u"  *** AUD *** Mixer:        ENABLED\n");
  }
}

AudioProcessor::~AudioProcessor() = default;

int32_t AudioProcessor::AddSource(std::u16string_view deviceName, int32_t volumePercent, int32_t index) {
  logLine(u"  \n");
  const float volume = static_cast<float>(volumePercent) / 100.0f;
  if (mixer_) {
    auto& mixer = static_cast<AudioSourceMixer&>(*sources_[0]);
    if (mixer.Open(index, deviceName, 1) == 0) return 0;
    // The child just added: its place is its index only while no device failed
    // before it, so the newest one is the one to set.
    mixer.children().back()->setVolume(volume);
    return 1;
  }
  std::unique_ptr<AudioSource> source = makeSource_ ? makeSource_(stereo_) : nullptr;
  if (!source) {
    logLine(u"[Warning] *** AUD *** This build captures no audio devices: %s is left out\n", deviceName);
    return 0;
  }
  if (source->Open(index, deviceName, 1) == 0) return 0;
  if (!recordable(source->format())) {
    // A device whose sound has no channels or no rate would make a track no
    // player can read.
    logLine(u"[Error]   *** AUD *** %s gives no sound that can be recorded; it is left out\n", deviceName);
    source->Stop();
    return 0;
  }
  source->setVolume(volume);
  sources_.push_back(std::move(source));
  sampleCounters_.push_back(0);
  return 1;
}

int32_t AudioProcessor::InitEncoders(const std::u16string& encoderName, int32_t bitrateKbps, uint16_t* extraData) {
  if (bitrateKbps == 0) return 0;
  std::vector<std::unique_ptr<IAudioEncoder>> made;
  int32_t frameSamples = 0;
  for (const auto& source : sources_) {
    const WaveFormatExtensible& format = source->format16();
    std::unique_ptr<IAudioEncoder> encoder = CreateAudioEncoder(
        encoderName, static_cast<int32_t>(format.samplesPerSec), bitrateKbps * 1000, format.channels, format.channelMask);
    if (!encoder) {
      // A build without encoders (Windows, for now): the tracks stay PCM.
      logLine(u"[Warning] *** AUD *** No %s encoder in this build; the audio is recorded as PCM\n", encoderName);
      return 0;
    }
    frameSamples = encoder->GetFrameSamples();
    if (extraData != nullptr) *extraData = encoder->GetExtraData();
    made.push_back(std::move(encoder));
  }
  encoders_ = std::move(made);
  logLine(u"  *** AUD *** Encoding:     ENABLED\n");
  return frameSamples;
}

const WaveFormat* AudioProcessor::GetFormat(int32_t index) {
  if (!valid(index)) return nullptr;
  if (IAudioEncoder* encoder = this->encoder(index)) return encoder->GetFormat();
  formats_.resize(sources_.size());
  formats_[static_cast<size_t>(index)] = toWaveFormat(sources_[static_cast<size_t>(index)]->format16());
  return &formats_[static_cast<size_t>(index)];
}

int32_t AudioProcessor::Start() {
  for (auto& source : sources_) source->Start();
  return 1;
}

void AudioProcessor::DropPending() {
  for (auto& source : sources_) source->DiscardHeld();
}

int32_t AudioProcessor::Stop() {
  for (auto& source : sources_) source->Stop();
  // The entries stay, empty: a track's encoder is never used after the stop.
  for (auto& encoder : encoders_) encoder.reset();
  return 1;
}

int32_t AudioProcessor::Read(int32_t index, std::vector<std::byte>& buffer, uint32_t* timeMs, int32_t flush) {
  if (!valid(index)) return 0;
  AudioSource& source = *sources_[static_cast<size_t>(index)];
  source.Poll(flush);
  const size_t frames = source.bufferFrames();
  const uint32_t rate = source.format16().samplesPerSec;
  if (frames < 1 || rate == 0) return 0;
  // Sound moves in pieces of at least 200 ms, unless this is the last of it.
  if (flush == 0 && uint64_t{frames} * 1000 / rate < kLeastReadMs) return 0;
  uint64_t& counter = sampleCounters_[static_cast<size_t>(index)];
  if (timeMs != nullptr && !paused_) {
    // A block is stamped with the time of its first frame.
    *timeMs = static_cast<uint32_t>(counter * 1000 / rate);
    counter += frames;
  }
  const size_t bytes = size_t{source.format16().blockAlign} * frames;
  if (pcmScratch_.size() * sizeof(int16_t) < bytes) pcmScratch_.resize(bytes / sizeof(int16_t));
  source.ReadFrames16(pcmScratch_, frames);
  // While paused the devices are still read, so that nothing builds up, and
  // what they gave is dropped without moving the clock.
  if (paused_) return 0;
  if (!encoders_.empty()) {
    // A compressed track takes no PCM, also after its encoder is gone.
    IAudioEncoder* encoder = this->encoder(index);
    if (encoder == nullptr) return 0;
    if (encoder->Encode(pcmScratch_.data(), static_cast<uint32_t>(bytes), timeMs != nullptr ? *timeMs : 0) == 0) {
      logLine(u"[Error]   *** AUD *** Error encoding audio\n");
      return 0;
    }
    return -1;
  }
  if (buffer.size() < bytes) buffer.resize(bytes);
  std::memcpy(buffer.data(), pcmScratch_.data(), bytes);
  return static_cast<int32_t>(bytes);
}

int32_t AudioProcessor::GetEncoded(int32_t index, std::vector<std::byte>& packet, uint32_t* timeMs) {
  IAudioEncoder* encoder = this->encoder(index);
  return encoder != nullptr ? encoder->GetPacket(packet, timeMs) : 0;
}

void AudioProcessor::SetMuteMask(int32_t index, uint32_t mask) {
  if (valid(index)) sources_[static_cast<size_t>(index)]->SetMuteMask(mask);
}

}  // namespace kestrium
