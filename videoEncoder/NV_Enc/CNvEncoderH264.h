#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/Event.h"
#include "platform/Thread.h"
#include "videoEncoder/H264Session.h"
#include "videoEncoder/NV_Enc/NvencDriver.h"

namespace kestrium {

// The session's parameters, as the capture's options set them; the rate
// control and the GOP stay the preset's (picture types are the encoder's).
struct EncodeConfig {
  uint32_t profile = 77;  // 66 Baseline, 77 Main, 100 High, 0 the encoder's choice
  uint32_t level = 0;     // the encoder's choice
  uint32_t width = 1920;
  uint32_t height = 1080;
  uint32_t maxwidth = 1920;
  uint32_t maxheight = 1080;
  uint32_t frameRateNum = 30000;
  uint32_t frameRateDen = 1001;
  uint32_t bitrate = 0;  // bit/s
  uint32_t maxbitrate = 0;
  uint32_t numBFrames = 0;
  uint32_t fieldMode = 0;
  uint32_t numSlices = 1;
  uint32_t enablePtd = 1;  // the encoder decides the picture types, and so the GOP
  uint32_t preset = 3;     // an index into the driver's list of presets
  uint32_t syncMode = 0;

  // From the front's settings: profile, size, frame rate, bitrate, preset.
  static EncodeConfig from(const H264Settings& settings);
};

// H.264 on an NVIDIA card: a CUDA context on the card the probe found, an NVENC
// session on it, and a ring of I/O buffers (an NV12 surface in system memory and
// a bitstream each). encode uploads the front's NV12 picture into a free buffer
// and submits it; the output thread "Encoder Output Thread" takes the buffers in
// order, locks each bitstream, hands the frame to the sink and frees the buffer.
//
// Where completion events are OS objects (Windows) the driver runs
// asynchronously and signals one per buffer; elsewhere the driver is
// synchronous only, and the output thread's bitstream lock blocks until the
// frame is done. Either way encoding and retrieval overlap.
//
// Failures are logged with the driver's own words and fail the capture at
// setup; a frame the driver refuses is lost and the stream goes on.
class CNvEncoderH264 : public H264Session {
 public:
  explicit CNvEncoderH264(int deviceNumber);
  ~CNvEncoderH264() override;

  bool open(const H264Settings& settings, std::vector<std::byte>& headers) override;
  bool encode(const Nv12Picture& picture, uint32_t position, CodedFrameSink& sink) override;
  bool drain(CodedFrameSink& sink) override;

  // The preset's index in the driver's list: target usage 0, 1, 2 against low
  // latency; any other target usage keeps the default.
  static uint32_t presetIndex(uint32_t targetUsage, bool lowLatency);
  // I/O buffers for a picture size: 16 from 8160 macroblocks on (1920 x 1080), to
  // bound the card's memory, else 32.
  static uint32_t bufferCount(uint32_t width, uint32_t height);

 private:
  struct IoBuffer {
    NV_ENC_INPUT_PTR input = nullptr;
    NV_ENC_OUTPUT_PTR bitstream = nullptr;
    platform::Event completion;
    bool registered = false;
  };
  // An entry of the output queue: a buffer submitted, or the end of the stream.
  struct Submitted {
    size_t buffer = 0;
    CodedFrameSink* sink = nullptr;  // null: the end of the stream
  };

  bool openSession();
  bool checkSupport(const EncodeConfig& config);
  bool initializeEncoder(const EncodeConfig& config);
  bool allocateBuffers(const EncodeConfig& config);
  bool readSequenceParams(std::vector<std::byte>& headers);
  void outputThread();
  void retrieve(IoBuffer& buffer, CodedFrameSink& sink);
  void endStream();
  void destroy();

  size_t takeFreeBuffer();
  void releaseBuffer(size_t index);

  const int deviceNumber_;
  CudaDriver cuda_;
  NvencRuntime nvenc_;
  CUcontext context_ = nullptr;
  void* encoder_ = nullptr;
  bool initialized_ = false;
  bool asynchronous_ = false;
  GUID presetGuid_{};
  NV_ENC_PRESET_CONFIG presetConfig_{};
  NV_ENC_INITIALIZE_PARAMS initParams_{};
  uint32_t width_ = 0;  // of the encoded picture
  uint32_t height_ = 0;

  std::vector<std::unique_ptr<IoBuffer>> buffers_;
  std::mutex queueLock_;
  std::condition_variable queueChanged_;
  std::deque<size_t> free_;
  std::deque<Submitted> submitted_;
  platform::Thread output_;
  bool ended_ = false;  // the end-of-stream picture went to the driver

  uint32_t lostFrames_ = 0;   // refused by the driver, on the encoder thread
  uint32_t lostOutputs_ = 0;  // not retrieved, on the output thread
};

}  // namespace kestrium
