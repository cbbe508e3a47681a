#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "videoEncoder/BitmapInfoHeader.h"
#include "videoEncoder/OptionList.h"

namespace kestrium {

namespace platform {
class Thread;
}

// What every video encoder of the server offers the recorder. An encoder is made
// by the factory, given its options by Init (which opens it), fed one source frame
// at a time, and closed; it hands each encoded frame over through the capture's
// encoded slot (the _encoder_buffer and the encoded words of CommonData).
class IVidEncoder {
 public:
  virtual ~IVidEncoder() = default;

  // Creates the shared objects and the encoder's machinery; non-zero when ready.
  virtual int Open() = 0;
  // Reads the options, then opens. Subclasses read their own keys first and
  // then call this.
  virtual int Init(const OptionList& options);
  // Offers one source frame: 1 when taken (the source may be reused at once),
  // 0 when not. timed and position are handed on with the frame.
  virtual int EncodeFrame(std::span<const std::byte> source, uint32_t timed, uint32_t position) = 0;
  // Delivers every frame taken, then stops. Bounded: a consumer that stops
  // taking encoded frames costs the frames still in flight, never a hang.
  virtual void Close() = 0;
  // True when Close had to leave a thread of the encoder running: the encoder
  // must then never be destroyed, since that thread still uses it.
  virtual bool AbandonedThreads() const { return false; }

  // 1: the stream is described by GetBitmapFormat; 0: by GetStreamHeader.
  virtual int HasBitmapFormat() { return 1; }
  virtual BitmapInfoHeader* GetBitmapFormat(BitmapInfoHeader* header) {
    *header = {};
    return header;
  }
  // The stream's decoder configuration; empty when there is none.
  virtual std::vector<std::byte> GetStreamHeader() { return {}; }
  // Data that goes ahead of the frames on the broadcast path; 0 when none.
  virtual int GetFrameExtra(std::vector<std::byte>& /*bytes*/) { return 0; }
  virtual int GetParameterSets(std::vector<std::byte>& sps, std::vector<std::byte>& pps) {
    sps.clear();
    pps.clear();
    return 0;
  }
  // The row and channel order this encoder wants its source frames in; the
  // recorder publishes them to the client.
  virtual int WantsTopDownRows() { return 0; }
  virtual int WantsRedFirst() { return 0; }
  // 1: the key word of the encoded slot is valid; 0: every frame is a key frame.
  virtual int HasKeyFrameFlags() { return 0; }
  // 1: the headers can be read only after the first encoded frame.
  virtual int HeadersAfterFirstFrame() { return 0; }

  // Bytes of the encoded slot and of each worker's output: room for the largest
  // frame this encoder makes at its size. The encoder makes the slot with this
  // size and the recorder opens it with the same. By default W x H x 4 and at
  // least kMinEncoderBuffer; an encoder whose frames can grow larger says so.
  virtual uint64_t EncodedCapacity() const;

  // How long Close waits for the consumer to take the frames still in an
  // encoder, and how long an H.264 encoder's input slot may stay taken.
  static constexpr uint32_t kDrainPatienceMs = 3000;
  // How long an encoder's thread gets to end once told to.
  static constexpr uint32_t kThreadPatienceMs = 10000;

  const std::u16string& sessionName() const { return sessionName_; }
  int32_t width() const { return width_; }
  int32_t height() const { return height_; }
  int32_t threads() const { return threads_; }

 protected:
  // Ends one of the encoder's threads, told to stop already: false (with a log
  // line) when it would not end in kThreadPatienceMs and had to be abandoned;
  // it may then still use the encoder, which must never be destroyed.
  static bool JoinEncoderThread(platform::Thread& thread);

  std::u16string sessionName_;
  int32_t width_ = 0;
  int32_t height_ = 0;
  int32_t threads_ = 0;
};

// Makes the encoder named by its exact string, or logs why not and gives null.
std::unique_ptr<IVidEncoder> CreateVideoEncoder(std::u16string_view name);

}  // namespace kestrium
