#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Event.h"
#include "platform/NamedMutex.h"
#include "platform/SharedMapping.h"
#include "recorder/CommonData.h"

namespace kestrium {

// The suffixes that make a capture's object names from its recorder name.
inline constexpr std::u16string_view kClientAliveSuffix = u"_mutex_in_record";
inline constexpr std::u16string_view kNewSourceSuffix = u"_new_source";
inline constexpr std::u16string_view kNewEncodedSuffix = u"_new_encoded";
inline constexpr std::u16string_view kCommonDataSuffix = u"_common_data";
inline constexpr std::u16string_view kEncoderBufferSuffix = u"_encoder_buffer";
inline constexpr std::u16string_view kSourceBufferSuffix = u"_source_buffer";

// The named objects of one capture, as both sides open them: the client, the
// recorder's thread and the encoder each open the ones they use, by the same
// names. Every open creates the object or attaches to the one that exists.
class CaptureObjects {
 public:
  explicit CaptureObjects(std::u16string session) : session_(std::move(session)) {}

  const std::u16string& session() const { return session_; }
  std::u16string name(std::u16string_view suffix) const { return session_ + std::u16string(suffix); }

  bool openClientAlive(bool initialOwner) { return clientAlive.create(name(kClientAliveSuffix), initialOwner); }
  bool openNewSource() { return newSource.create(name(kNewSourceSuffix)); }
  bool openNewEncoded() { return newEncoded.create(name(kNewEncodedSuffix)); }
  bool openCommonData();
  // The encoded slot of size bytes: the encoder's EncodedCapacity(). A slot that
  // exists already keeps the size it was made with.
  bool openEncoderBuffer(uint64_t size);
  bool openSourceBuffer(uint64_t size);

  // The shared record, or null before openCommonData().
  CommonData* common() const { return commonData.as<CommonData>(); }

  void closeAll();

  platform::NamedMutex clientAlive;
  platform::Event newSource;
  platform::Event newEncoded;
  platform::SharedMapping commonData;
  platform::SharedMapping encoderBuffer;
  platform::SharedMapping sourceBuffer;

 private:
  std::u16string session_;
};

// The least an encoded slot holds: a frame of a few pixels is mostly headers and
// code tables (a JPEG's come to about 620 bytes, a TMB2 frame's to about 630),
// which W x H x 4 bytes cannot hold below some 13 x 13 pixels.
inline constexpr uint64_t kMinEncoderBuffer = 64 * 1024;

// Bytes of the encoded slot of a capture of that size for the encoders whose
// frames stay within 4 bytes a pixel (the uncompressed bitmap, TMB2), and the
// least any encoder gets.
inline uint64_t encoderBufferSize(uint32_t width, uint32_t height) {
  return std::max(uint64_t{width} * height * 4, kMinEncoderBuffer);
}

}  // namespace kestrium
