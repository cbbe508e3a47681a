#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string_view>
#include <vector>

#include "codecs/AlignedBuffer.h"
#include "videoEncoder/H264Session.h"
#include "videoEncoder/IntelQuickSync/VplRuntime.h"
#include "videoEncoder/VaApi/VaLibrary.h"

namespace kestrium {

// Where the runtime's surfaces live and how it reaches the GPU. On Linux the
// frames stay in system memory either way; a VA display is what most runtimes
// need to find the GPU at all.
enum class QsMemory : uint32_t { System = 0, VaDisplay = 1 };

// What the encoder asks of the pipeline, decided once from the capture's options.
struct QsParams {
  uint16_t targetUsage = 0;  // 1 best quality .. 7 fastest; 0 the runtime's balance
  uint16_t width = 0;        // of the picture, even
  uint16_t height = 0;
  double frameRate = 30.0;
  uint32_t bitrateKbps = 0;
  uint16_t keyInterval = 30;  // frames from one I frame to the next: a second
  QsMemory memory = QsMemory::System;
  bool useHardware = true;
};

// The session's video parameters for these: one closed GOP a second without
// B-frames, VBR at the bitrate, NV12 in frames of 16-pixel blocks cropped to the
// picture, system-memory input, 4 frames in flight. A bitrate beyond 16 bits
// goes through the runtime's multiplier instead of wrapping.
mfxVideoParam qsVideoParams(const QsParams& params);

// The runtime's rule for a frame rate as a fraction: a whole rate as n/1, the
// NTSC kind as n x 1000/1001, any other in ten-thousandths.
void qsFrameRate(double rate, mfxU32& num, mfxU32& den);

// H.264 on Intel's media hardware through the Media SDK calls of the oneVPL
// dispatcher. open tries, logging each attempt, a session with a VA display,
// one in system memory, and the software runtime (with use_hw 0 only the last);
// the first that initialises codes the capture.
//
// A frame is copied into a free surface (the picture's rows, the surface's
// padding left as it was made) and submitted into a task of its own; the tasks
// are synchronised and handed to the sink in order once the pool of eight is
// full, and all of them at the drain. A lost device is reset and coding goes on
// with the next frame; any other failure ends the session.
class CEncodingPipeline : public H264Session {
 public:
  explicit CEncodingPipeline(bool useHardware);
  ~CEncodingPipeline() override;

  bool open(const H264Settings& settings, std::vector<std::byte>& headers) override;
  bool encode(const Nv12Picture& picture, uint32_t position, CodedFrameSink& sink) override;
  bool drain(CodedFrameSink& sink) override;

  static constexpr mfxU16 kAsyncDepth = 4;
  // How long a frame may take: a free surface, a finished task, a busy device.
  // A GPU that takes longer hangs, and the session is reset or ended while the
  // capture's threads still wait for it.
  static constexpr uint32_t kWaitMs = 5000;

 private:
  struct Surface {
    mfxFrameSurface1 frame{};
    AlignedBuffer memory;
  };
  struct Task {
    mfxBitstream bitstream{};
    std::vector<mfxU8> buffer;
    mfxSyncPoint sync = nullptr;
  };

  bool init(const QsParams& params);  // one attempt
  void close();
  bool resetStep();
  bool allocateSurfaces(const mfxFrameAllocRequest& request);
  bool readHeaders(std::vector<std::byte>& headers);
  Task* freeTask(CodedFrameSink& sink, bool& ok);
  Surface* freeSurface(CodedFrameSink& sink, bool& ok);
  bool submit(mfxFrameSurface1* surface, Task& task, bool& more, CodedFrameSink& sink);
  bool syncOldest(CodedFrameSink& sink);
  // A lost device is reset (true: coding goes on); anything else ends the session.
  bool recover(mfxStatus status, int line);
  bool fail(mfxStatus status, int line);

  bool useHardware_;
  VplRuntime runtime_;
  VaLibrary va_;
  VaDisplay display_;
  mfxSession session_ = nullptr;
  mfxVideoParam params_{};
  std::vector<Surface> surfaces_;
  std::vector<Task> tasks_;
  std::deque<Task*> pending_;  // submitted, in order
  uint32_t generation_ = 0;     // of the tasks and surfaces: a reset makes new ones
};

}  // namespace kestrium
