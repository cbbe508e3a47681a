#pragma once

#include <memory>

#include "audio/AudioEncoder.h"

struct lame_global_struct;

namespace kestrium {

// MPEG layer 3 on LAME: frames of 1152 samples at 32 kHz and up, 576 below.
// LAME gives its bytes as it likes, holding some back; they are cut here into
// whole MPEG frames, one a packet, as a container that indexes each frame
// needs them.
class AudioEncoderMP3 : public AudioEncoder {
 public:
  static constexpr int32_t kHighestRate = 48000;

  AudioEncoderMP3(int32_t sourceRate, int32_t bitrate, int32_t channels, uint32_t channelMask);
  ~AudioEncoderMP3() override;

 protected:
  bool EncodeFrame(std::span<const int16_t> frame, std::vector<std::byte>& out) override;
  bool NextPacket(std::vector<std::byte>& out) override;
  bool stampsByCount() const override { return true; }
  bool engineOpen() const override { return lame_ != nullptr; }

 private:
  struct LameClose {
    void operator()(lame_global_struct* flags) const;
  };

  bool open();

  std::unique_ptr<lame_global_struct, LameClose> lame_;
  std::vector<int16_t> left_, right_;
  std::vector<std::byte> pending_;  // LAME's bytes not yet a whole frame
};

}  // namespace kestrium
