#include "audio/IAudioEncoder.h"

#if defined(KESTRIUM_WITH_AUDIO_ENCODERS)
#include "audio/AudioEncoderAAC.h"
#include "audio/AudioEncoderMP3.h"
#endif

namespace kestrium {

std::unique_ptr<IAudioEncoder> CreateAudioEncoder(std::u16string_view name, int32_t sourceRate, int32_t bitrate,
                                                  int32_t channels, uint32_t channelMask) {
#if defined(KESTRIUM_WITH_AUDIO_ENCODERS)
  if (name == u"aac") return std::make_unique<AudioEncoderAAC>(sourceRate, bitrate, channels, channelMask);
  return std::make_unique<AudioEncoderMP3>(sourceRate, bitrate, channels, channelMask);
#else
  (void)name, (void)sourceRate, (void)bitrate, (void)channels, (void)channelMask;
  return nullptr;
#endif
}

}  // namespace kestrium
