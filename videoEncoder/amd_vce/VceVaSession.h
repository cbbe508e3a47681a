#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "videoEncoder/H264Session.h"
#include "videoEncoder/VaApi/VaLibrary.h"
#include "videoEncoder/amd_vce/VceConfig.h"

namespace kestrium {

// The first AMD display that codes H.264, opened on `display`; the count of
// AMD displays and of those with an encoder go to the counters when given.
// False when there is none.
bool openAmdEncoderDisplay(const VaLibrary& va, VaDisplay& display, int* amdDisplays = nullptr,
                           int* encoders = nullptr);

// H.264 on an AMD GPU through VA-API: the configuration of VceConfig on the
// first AMD display with an H.264 encoder, four input surfaces in turn, two
// reconstructed pictures (the one being made and its reference) and one coded
// buffer. Each frame is coded before the next is taken; an IDR frame a second
// brings the sequence with it, and the driver puts SPS and PPS in its stream,
// so the headers are known after the first frame. A frame the driver refuses
// is lost with a log line and the next one starts afresh with an IDR frame;
// thirty refused in a row end the session.
class VceVaSession : public H264Session {
 public:
  ~VceVaSession() override;

  bool open(const H264Settings& settings, std::vector<std::byte>& headers) override;
  bool encode(const Nv12Picture& picture, uint32_t position, CodedFrameSink& sink) override;
  bool drain(CodedFrameSink& sink) override { return static_cast<void>(sink), true; }

  static constexpr int kInputSurfaces = 4;
  static constexpr uint32_t kMostLostInARow = 30;

 private:
  bool setUp(const H264Settings& settings);
  void release();
  bool check(VAStatus status, const char* call);
  bool upload(VASurfaceID surface, const Nv12Picture& picture);
  bool renderParameters(bool idr);
  bool addBuffer(VABufferType type, const void* data, size_t size);
  template <class Misc>
  bool addMisc(VAEncMiscParameterType type, const Misc& misc);
  void destroyParameters();
  bool takeCoded(uint32_t position, CodedFrameSink& sink);

  VaLibrary va_;
  VaDisplay display_;
  VceVaSetup setup_;
  int32_t width_ = 0;
  int32_t height_ = 0;
  VAConfigID config_ = VA_INVALID_ID;
  VAContextID context_ = VA_INVALID_ID;
  std::array<VASurfaceID, kInputSurfaces + 2> surfaces_{};  // inputs, then the two reconstructed
  bool surfacesMade_ = false;
  VABufferID coded_ = VA_INVALID_ID;
  std::vector<VABufferID> parameters_;  // of the picture being coded
  std::vector<std::byte> frame_;        // the coded frame, gathered from the buffer's segments

  uint32_t frames_ = 0;          // coded, for the input surface's turn
  uint32_t sinceIdr_ = 0;        // frames since the last IDR frame
  uint16_t idrId_ = 0;
  int reference_ = 0;            // which reconstructed surface holds the reference
  bool forceIdr_ = true;
  uint32_t lostInARow_ = 0;
};

}  // namespace kestrium
