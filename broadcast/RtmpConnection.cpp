#include "broadcast/RtmpConnection.h"

#include <librtmp/amf.h>
#include <librtmp/log.h>
#include <librtmp/rtmp.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "broadcast/FlvTags.h"
#include "platform/Clock.h"
#include "platform/NoDestructor.h"
#include "platform/Text.h"
#include "server/Log.h"

namespace kestrium {

namespace {

// What servers expect of a live encoder: they tell publishers from players by it.
char kFlashVersion[] = "FMLE/3.0 (compatible; FMSc/1.0)";
constexpr int kDefaultPort = 1935;
constexpr size_t kLogLineBytes = 1023;

struct ErrorText {
  std::mutex lock;
  std::string text;
};
ErrorText& errorText() {
  static platform::NoDestructor<ErrorText> t;
  return *t;
}

// librtmp's own complaints go into the server's log, critical and error only.
void logHook(int level, const char* format, va_list args) {
  if (level > RTMP_LOGERROR) return;
  char line[kLogLineBytes + 1];
  std::vsnprintf(line, sizeof line, format, args);
  logLine(u"[Error]   rtmp : %s\n", platform::toUtf16(line));
  ErrorText& t = errorText();
  std::lock_guard guard(t.lock);
  t.text += line;
  t.text += '\n';
}

AVal aval(const char* text) { return AVal{const_cast<char*>(text), static_cast<int>(std::strlen(text))}; }

}  // namespace

std::string rtmpErrorText() {
  ErrorText& t = errorText();
  std::lock_guard guard(t.lock);
  return t.text;
}

void clearRtmpErrorText() {
  ErrorText& t = errorText();
  std::lock_guard guard(t.lock);
  t.text.clear();
}

RtmpConnection::RtmpConnection() {
  // The library's log callback is process-wide state: set once, and objects are
  // made one at a time, whichever capture's connection thread asks.
  static std::once_flag logOnce;
  std::call_once(logOnce, [] { RTMP_LogSetCallback(logHook); });
  static platform::NoDestructor<std::mutex> creation;
  std::lock_guard guard(*creation);
  rtmp_ = RTMP_Alloc();
  if (rtmp_ != nullptr) RTMP_Init(rtmp_);
}

RtmpConnection::~RtmpConnection() {
  removeHook();
  if (rtmp_ != nullptr) {
    // The library closes its own copy of the socket; ours closes with socket_.
    if (!closed_) RTMP_Close(rtmp_);
    RTMP_Free(rtmp_);
  }
}

bool RtmpConnection::setup(std::string url, std::string key) {
  if (rtmp_ == nullptr) return false;
  url_ = std::move(url);
  key_ = std::move(key);
  if (RTMP_SetupURL(rtmp_, url_.data()) == 0) return false;
  // Over TLS or HTTP the library does not write through send(), so the byte
  // buffer and its drops could not stand under it: such addresses are refused.
  if ((rtmp_->Link.protocol & (RTMP_FEATURE_HTTP | RTMP_FEATURE_SSL | RTMP_FEATURE_MFP)) != 0) {
    logLine(u"[Error]   rtmp : %S\n", "only rtmp:// and rtmpe:// addresses can be published to: " + url_);
    return false;
  }
  // The key is the play path as it stands, whatever the URL's last part says.
  if (!key_.empty()) rtmp_->Link.playpath = AVal{key_.data(), static_cast<int>(key_.size())};
  RTMP_EnableWrite(rtmp_);
  rtmp_->Link.swfUrl = rtmp_->Link.tcUrl;
  rtmp_->Link.flashVer = AVal{kFlashVersion, static_cast<int>(sizeof kFlashVersion - 1)};
  return true;
}

bool RtmpConnection::connect(const Options& options) {
  if (rtmp_ == nullptr) return false;
  const uint64_t start = platform::monotonicNs();
  const std::string host(rtmp_->Link.hostname.av_val, static_cast<size_t>(rtmp_->Link.hostname.av_len));
  const uint16_t port = rtmp_->Link.port != 0 ? rtmp_->Link.port : kDefaultPort;
  {
    std::lock_guard guard(abortLock_);
    if (aborted_) return false;
    if (!socket_.open()) return false;
  }
  if (!socket_.connect(host, port, options.bindAddress, options.timeoutMs)) {
    logLine(u"[Error]   rtmp : %S\n", "cannot connect to " + host + ":" + std::to_string(port) + ": " + socket_.error());
    return false;
  }
  // librtmp sets TCP_NODELAY on sockets it makes; on ours the choice is ours.
  socket_.setNoDelay(options.noDelay);
  socket_.setReceiveTimeout(options.timeoutMs);
  socket_.setSendTimeout(options.timeoutMs);
  // librtmp gets a descriptor of its own: whatever it closes, the number the
  // hook and our threads know stays ours until we close it.
  libraryDescriptor_ = socket_.duplicate();
  if (libraryDescriptor_ < 0) return false;
  // From here the library owns its copy, and closes it with the RTMP object.
  rtmp_->m_sb.sb_socket = static_cast<int>(libraryDescriptor_);
  if (aborted_) return false;
  rtmp_->m_outChunkSize = options.chunkSize;

  // The Set Chunk Size goes in the place of `connect`, which we then send
  // ourselves: the server knows the chunk size from the first command on.
  char buffer[flv::kReserved + 4];
  RTMPPacket chunkSize{};
  chunkSize.m_nChannel = 0x02;
  chunkSize.m_headerType = RTMP_PACKET_SIZE_LARGE;
  chunkSize.m_packetType = RTMP_PACKET_TYPE_CHUNK_SIZE;
  chunkSize.m_body = buffer + flv::kReserved;
  chunkSize.m_nBodySize = 4;
  AMF_EncodeInt32(chunkSize.m_body, chunkSize.m_body + 4, options.chunkSize);
  const bool handshaken = RTMP_Connect1(rtmp_, &chunkSize) != 0;
  handshakeMs_ = static_cast<uint32_t>((platform::monotonicNs() - start) / 1000000);
  if (!handshaken) {
    // The library closed its descriptor on the way out.
    libraryDescriptor_ = rtmp_->m_sb.sb_socket;
    return false;
  }
  return sendConnect();
}

bool RtmpConnection::sendConnect() {
  char buffer[4096];
  char* const body = buffer + flv::kReserved;
  char* const end = buffer + sizeof buffer;
  const RTMP_LNK& link = rtmp_->Link;
  AVal command = aval("connect");
  AVal app = aval("app"), type = aval("type"), nonprivate = aval("nonprivate"), flashVer = aval("flashVer"),
       swfUrl = aval("swfUrl"), tcUrl = aval("tcUrl");
  // The encoders give null where the value does not fit, and take no null:
  // a long address must fail the connection, not write through it.
  char* p = AMF_EncodeString(body, end, &command);
  if (p != nullptr) p = AMF_EncodeNumber(p, end, ++rtmp_->m_numInvokes);
  if (p == nullptr || p >= end) return false;
  *p++ = AMF_OBJECT;
  if (p != nullptr) p = AMF_EncodeNamedString(p, end, &app, &link.app);
  if (p != nullptr) p = AMF_EncodeNamedString(p, end, &type, &nonprivate);
  if (p != nullptr) p = AMF_EncodeNamedString(p, end, &flashVer, &link.flashVer);
  if (p != nullptr && link.swfUrl.av_len > 0) p = AMF_EncodeNamedString(p, end, &swfUrl, &link.swfUrl);
  if (p != nullptr && link.tcUrl.av_len > 0) p = AMF_EncodeNamedString(p, end, &tcUrl, &link.tcUrl);
  if (p == nullptr || p + 3 > end) {
    logLine(u"[Error]   rtmp : %S\n", "the address is too long for the connect command: " + url_);
    return false;
  }
  *p++ = 0;
  *p++ = 0;
  *p++ = AMF_OBJECT_END;
  RTMPPacket packet{};
  packet.m_nChannel = 0x03;
  packet.m_headerType = RTMP_PACKET_SIZE_LARGE;
  packet.m_packetType = RTMP_PACKET_TYPE_INVOKE;
  packet.m_body = body;
  packet.m_nBodySize = static_cast<uint32_t>(p - body);
  // Queued, so that the library knows the server's answer when it comes.
  return RTMP_SendPacket(rtmp_, &packet, 1) != 0;
}

bool RtmpConnection::connectStream() { return rtmp_ != nullptr && RTMP_ConnectStream(rtmp_, 0) != 0; }

bool RtmpConnection::sendPacket(int headerType, int packetType, int channel, uint32_t timestamp,
                                std::vector<std::byte>& block) {
  if (rtmp_ == nullptr || block.size() < flv::kReserved) return false;
  RTMPPacket packet{};
  packet.m_headerType = static_cast<uint8_t>(headerType);
  packet.m_packetType = static_cast<uint8_t>(packetType);
  packet.m_hasAbsTimestamp = 1;
  packet.m_nChannel = channel;
  packet.m_nTimeStamp = timestamp;
  packet.m_nInfoField2 = rtmp_->m_stream_id;
  packet.m_nBodySize = static_cast<uint32_t>(block.size() - flv::kReserved);
  packet.m_body = reinterpret_cast<char*>(block.data()) + flv::kReserved;
  return RTMP_SendPacket(rtmp_, &packet, 0) != 0;
}

bool RtmpConnection::isConnected() const { return rtmp_ != nullptr && RTMP_IsConnected(rtmp_) != 0; }

bool RtmpConnection::installHook(platform::SendHook hook, void* context) {
  if (hooked_ || libraryDescriptor_ < 0) return false;
  hooked_ = platform::installSendHook(libraryDescriptor_, hook, context);
  return hooked_;
}

void RtmpConnection::removeHook() {
  if (!hooked_) return;
  platform::removeSendHook(libraryDescriptor_);
  hooked_ = false;
}

void RtmpConnection::abort() {
  std::lock_guard guard(abortLock_);
  aborted_ = true;
  socket_.abort();
}

void RtmpConnection::close(uint32_t waitMs, bool orderly) {
  if (rtmp_ == nullptr || closed_) return;
  closed_ = true;
  removeHook();
  if (orderly && isConnected()) {
    socket_.setSendTimeout(waitMs);
    RTMP_DeleteStream(rtmp_);
    socket_.shutdownSend();
    // The server's last words are read and dropped until it closes its side.
    const uint64_t deadline = platform::monotonicNs() + uint64_t{waitMs} * 1000000;
    std::byte scrap[1024];
    for (;;) {
      const uint64_t now = platform::monotonicNs();
      if (now >= deadline) break;
      const uint32_t seen = socket_.wait(false, static_cast<uint32_t>((deadline - now) / 1000000) + 1);
      if ((seen & (platform::kSocketReadable | platform::kSocketHungUp | platform::kSocketError)) == 0) {
        // A wake-up left over from the stream's last writes is no answer.
        if ((seen & platform::kSocketWoken) != 0) continue;
        break;
      }
      size_t got = 0;
      const platform::SocketStatus s = socket_.receive(scrap, got);
      if (s == platform::SocketStatus::Closed || s == platform::SocketStatus::Failed) break;
    }
  }
  // The stream is deleted and our side shut (or the connection is gone): the
  // library's close must not try to say more on a socket that cannot send.
  if (rtmp_->m_sb.sb_socket >= 0) {
    platform::closeDescriptor(rtmp_->m_sb.sb_socket);
    rtmp_->m_sb.sb_socket = -1;
  }
  RTMP_Close(rtmp_);
}

}  // namespace kestrium
