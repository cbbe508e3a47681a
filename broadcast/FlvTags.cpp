#include "broadcast/FlvTags.h"

#include <bit>
#include <cstring>
#include <string_view>

#include "server/Log.h"

namespace kestrium::flv {

namespace {

// AMF0 type markers.
constexpr uint8_t kNumber = 0x00;
constexpr uint8_t kBoolean = 0x01;
constexpr uint8_t kString = 0x02;
constexpr uint8_t kObject = 0x03;
constexpr uint8_t kObjectEnd = 0x09;

// FLV tag header bytes: codec 7 (AVC) with frame kind 1 (key) or 2 (inter);
// sound format 10 (AAC), 44 kHz, 16 bit, stereo, which is what AAC always says.
constexpr uint8_t kVideoKey = 0x17;
constexpr uint8_t kVideoInter = 0x27;
constexpr uint8_t kAac = 0xAF;
constexpr uint8_t kSequenceHeader = 0x00;
constexpr uint8_t kPayload = 0x01;

class Writer {
 public:
  // Sized for the whole block up front: the frame path allocates once.
  explicit Writer(size_t bodyBytes) {
    bytes_.reserve(kReserved + bodyBytes);
    bytes_.resize(kReserved);
  }
  void w8(uint8_t v) { bytes_.push_back(std::byte(v)); }
  void wb16(uint16_t v) {
    w8(static_cast<uint8_t>(v >> 8));
    w8(static_cast<uint8_t>(v));
  }
  void wb24(uint32_t v) {
    w8(static_cast<uint8_t>(v >> 16));
    wb16(static_cast<uint16_t>(v));
  }
  void wb64(uint64_t v) {
    for (int shift = 56; shift >= 0; shift -= 8) w8(static_cast<uint8_t>(v >> shift));
  }
  void bytes(std::span<const std::byte> b) { bytes_.insert(bytes_.end(), b.begin(), b.end()); }
  void text(std::string_view s) {
    wb16(static_cast<uint16_t>(s.size()));
    bytes(std::as_bytes(std::span(s.data(), s.size())));
  }
  void amfString(std::string_view s) {
    w8(kString);
    text(s);
  }
  void namedNumber(std::string_view name, double v) {
    text(name);
    w8(kNumber);
    wb64(std::bit_cast<uint64_t>(v));
  }
  void namedString(std::string_view name, std::string_view v) {
    text(name);
    amfString(v);
  }
  void namedBoolean(std::string_view name, bool v) {
    text(name);
    w8(kBoolean);
    w8(v ? 1 : 0);
  }
  std::vector<std::byte> take() { return std::move(bytes_); }

 private:
  std::vector<std::byte> bytes_;
};

}  // namespace

std::vector<std::byte> metadataBlock(const BroadcastInfo& info) {
  if (info.channels != 1 && info.channels != 2) {
    logLine(u"[Error]   Incorrect audio channels number: %d\n", info.channels);
    return {};
  }
  Writer w(512);
  w.amfString("@setDataFrame");
  w.amfString("onMetaData");
  // An object, not an ECMA array: some servers read only the one they expect.
  w.w8(kObject);
  w.namedNumber("duration", 0);
  w.namedNumber("fileSize", 0);
  w.namedNumber("width", info.width);
  w.namedNumber("height", info.height);
  w.namedString("videocodecid", "avc1");
  w.namedNumber("videodatarate", info.videoBitrate);
  w.namedNumber("framerate", info.frameRate);
  w.namedString("audiocodecid", "mp4a");
  w.namedNumber("audiodatarate", info.audioBitrate);
  w.namedNumber("audiosamplerate", info.audioSampleRate);
  w.namedNumber("audiosamplesize", 16);
  w.namedNumber("audiochannels", info.channels);
  w.namedBoolean("stereo", info.channels == 2);
  w.namedString("encoder", "Kestrium 5");
  w.wb16(0);
  w.w8(kObjectEnd);
  return w.take();
}

std::vector<std::byte> audioHeaderBlock(uint16_t aacConfiguration) {
  Writer w(4);
  w.w8(kAac);
  w.w8(kSequenceHeader);
  w.w8(static_cast<uint8_t>(aacConfiguration));
  w.w8(static_cast<uint8_t>(aacConfiguration >> 8));
  return w.take();
}

std::vector<std::byte> avcConfigurationBlock(std::span<const std::byte> sps, std::span<const std::byte> pps) {
  constexpr size_t kStartCode = 4;
  // Without parameter sets the record still goes out, with empty ones: a player
  // may then find them in the stream.
  const std::span<const std::byte> spsBody = sps.size() > kStartCode ? sps.subspan(kStartCode) : std::span<const std::byte>{};
  const std::span<const std::byte> ppsBody = pps.size() > kStartCode ? pps.subspan(kStartCode) : std::span<const std::byte>{};
  auto at = [&](size_t i) { return i < spsBody.size() ? static_cast<uint8_t>(spsBody[i]) : uint8_t{0}; };
  Writer w(16 + spsBody.size() + ppsBody.size());
  w.w8(kVideoKey);
  w.w8(kSequenceHeader);
  w.wb24(0);
  w.w8(1);      // configuration version
  w.w8(at(1));  // profile, compatibility, level: the bytes behind the NAL header
  w.w8(at(2));
  w.w8(at(3));
  w.w8(0xFF);  // four-byte NAL lengths
  w.w8(0xE1);  // one SPS
  w.wb16(static_cast<uint16_t>(spsBody.size()));
  w.bytes(spsBody);
  w.w8(1);  // one PPS
  w.wb16(static_cast<uint16_t>(ppsBody.size()));
  w.bytes(ppsBody);
  return w.take();
}

std::vector<std::byte> videoFrameBlock(std::span<const std::byte> frame, bool keyFrame) {
  Writer w(kVideoTagHeader + frame.size());
  w.w8(keyFrame ? kVideoKey : kVideoInter);
  w.w8(kPayload);
  w.wb24(0);  // composition time: the encoders make no B-frames for broadcast
  w.bytes(frame);
  return w.take();
}

std::vector<std::byte> audioFrameBlock(std::span<const std::byte> frame) {
  Writer w(kAudioTagHeader + frame.size());
  w.w8(kAac);
  w.w8(kPayload);
  w.bytes(frame);
  return w.take();
}

bool insertStreamHeader(std::vector<std::byte>& videoBlock, std::span<const std::byte> header) {
  const size_t at = kReserved + kVideoTagHeader;
  if (videoBlock.size() < at) return false;
  videoBlock.insert(videoBlock.begin() + static_cast<ptrdiff_t>(at), header.begin(), header.end());
  return true;
}

}  // namespace kestrium::flv
