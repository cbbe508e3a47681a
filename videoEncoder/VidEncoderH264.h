#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "codecs/AlignedBuffer.h"
#include "platform/Event.h"
#include "platform/Thread.h"
#include "recorder/CaptureObjects.h"
#include "videoEncoder/H264Bitstream.h"
#include "videoEncoder/H264Session.h"
#include "videoEncoder/IVidEncoder.h"
#include "videoEncoder/Nv12Frame.h"

namespace kestrium {

// The front that every H.264 encoder of the server stands on; an encoder adds
// only its session (the library that codes pictures).
//
// One source frame at a time: EncodeFrame waits until the one input slot is free,
// copies the frame in and wakes the encoder's own thread, which converts it to
// NV12, has the session code it, and publishes every coded frame into the
// capture's encoded slot as length-prefixed NAL units with its key flag and the
// position (milliseconds) its source frame came with. So the recorder's thread
// does the copy and nothing else, and the slot hands frames over without a queue.
//
// Never a hang: EncodeFrame gives up on a frame when the slot has not been taken
// for kDrainPatienceMs (an encoder stuck behind a consumer that stopped), and
// Close gives the consumer as long to take the frames still in the encoder.
class VidEncoderH264 : public IVidEncoder {
 public:
  ~VidEncoderH264() override;

  int Init(const OptionList& options) override;
  int Open() override;
  int EncodeFrame(std::span<const std::byte> source, uint32_t timed, uint32_t position) override;
  void Close() override;
  bool AbandonedThreads() const override { return abandoned_; }

  int HasBitmapFormat() override { return 0; }
  // The AVC configuration record of the session's SPS and PPS.
  std::vector<std::byte> GetStreamHeader() override;
  // SPS and PPS, each behind a 4-byte start code.
  int GetParameterSets(std::vector<std::byte>& sps, std::vector<std::byte>& pps) override;
  int WantsTopDownRows() override { return 1; }
  int WantsRedFirst() override { return 1; }
  int HasKeyFrameFlags() override { return 1; }

  // The settings the options come to, the same for every H.264 encoder.
  static H264Settings settingsFor(const OptionList& options);
  // Frames per second as a fraction: a whole rate (within 0.0001) as n/1, any
  // other in ten-thousandths, so 29.97 is 299700/10000.
  static void frameRate(uint32_t thousandths, uint32_t& num, uint32_t& den);
  // Frames from one IDR frame to the next: the whole frames of a second, at least 1.
  static uint32_t keyFrameInterval(uint32_t thousandths);
  // The bitrate of a capture that asks for none (kbit/s): by the pixels a second,
  // interpolated between tried points and scaled by the target usage (1 full, 7
  // half, any other three quarters), at most 65535.
  static uint32_t defaultBitrateKbps(int32_t width, int32_t height, uint32_t thousandths, uint32_t targetUsage);

  const H264Settings& settings() const { return settings_; }

 protected:
  // The session this encoder codes with.
  virtual std::unique_ptr<H264Session> MakeSession() = 0;

 private:
  class Publisher : public CodedFrameSink {
   public:
    explicit Publisher(VidEncoderH264& owner) : owner_(owner) {}
    void deliver(std::span<const std::byte> annexB, uint32_t position, bool key) override;

   private:
    VidEncoderH264& owner_;
  };

  void run();
  bool takeFrame();
  void catchParameterSets(std::span<const std::byte> annexB);
  void stopThread();

  H264Settings settings_;
  uint32_t fullColor_ = 0;   // kept; our conversion has one range
  std::unique_ptr<H264Session> session_;
  std::mutex headersLock_;  // parameterSets_, when the first frame brings them
  std::optional<ParameterSets> parameterSets_;
  bool caughtParameterSets_ = false;  // by the encoder thread

  CaptureObjects objects_{u""};
  Publisher publisher_{*this};
  std::vector<std::byte> lengthPrefixed_;  // the frame being published, reused

  // The input slot: busy_ is 1 from EncodeFrame's copy until the encoder thread
  // has converted the frame.
  AlignedBuffer slot_;
  uint32_t slotPosition_ = 0;
  std::atomic<uint32_t> busy_{0};
  platform::Event frameEvent_;
  Nv12Frame picture_;

  platform::Thread thread_;
  std::atomic<bool> ready_{false};   // Open succeeded: the thread runs
  std::mutex lock_;                  // closing_ against a frame going into the slot
  std::atomic<bool> closing_{false};  // no frame is taken any more
  std::atomic<bool> stop_{false};     // the thread drains and ends
  std::atomic<bool> failed_{false};   // the session failed: the thread has ended
  std::atomic<uint64_t> drainUntilNs_{0};
  std::atomic<bool> abandoned_{false};
  uint32_t droppedAtClose_ = 0;                // by the encoder thread, read once it has ended
  std::atomic<uint32_t> refusedSources_{0};    // by the recorder's thread
  std::atomic<uint32_t> droppedWaiting_{0};    // by the recorder's thread
};

}  // namespace kestrium
