#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Socket.h"

struct RTMP;

namespace kestrium {

// librtmp with what a publisher needs beyond the library's usual interface, met
// beside it: our own socket (so that Nagle's algorithm may stay on, and a bind
// address can be given), the stream key as the play path, a Set Chunk Size
// before `connect`, and a hook that takes the library's writes once the stream
// is up. librtmp is not thread-safe: one thread at a time calls into an object
// of this class, apart from abort().
class RtmpConnection {
 public:
  struct Options {
    bool noDelay = false;           // Nagle off: lower latency, more small packets
    int32_t chunkSize = 4096;       // the outgoing chunk size, told before `connect`
    std::string bindAddress;        // IPv4 literal; empty: the OS chooses
    uint32_t timeoutMs = 30000;     // connect, handshake and every reply
  };

  RtmpConnection();
  ~RtmpConnection();
  RtmpConnection(const RtmpConnection&) = delete;
  RtmpConnection& operator=(const RtmpConnection&) = delete;

  // Parses the URL and keeps the key as the play path. False for a URL that
  // librtmp cannot read.
  bool setup(std::string url, std::string key);
  // TCP connect, handshake, Set Chunk Size, `connect`. False with librtmp's or
  // the socket's reason in the log.
  bool connect(const Options& options);
  // createStream and publish, up to the server's go-ahead.
  bool connectStream();

  // Sends one packet whose body lies at flv::kReserved of block.
  bool sendPacket(int headerType, int packetType, int channel, uint32_t timestamp, std::vector<std::byte>& block);
  bool isConnected() const;

  // From here on the library's writes go to hook (see platform::installSendHook).
  bool installHook(platform::SendHook hook, void* context);
  void removeHook();

  // The connection itself, for the thread that writes what the hook took.
  platform::TcpSocket& socket() { return socket_; }

  // From any thread: makes a connection attempt in progress fail at once.
  void abort();

  // The orderly end: deleteStream, the sending side shut, the server's last
  // bytes read until it closes (at most waitMs), then the library's close.
  // Without orderly (the connection is gone, or the stream was cut short) only
  // the last step.
  void close(uint32_t waitMs, bool orderly = true);

  // Milliseconds from the start of connect() to the end of the handshake.
  uint32_t handshakeMs() const { return handshakeMs_; }

 private:
  bool sendConnect();

  RTMP* rtmp_ = nullptr;
  // librtmp points into these; they live as long as the RTMP object.
  std::string url_;
  std::string key_;
  std::string bindAddress_;
  platform::TcpSocket socket_;
  intptr_t libraryDescriptor_ = -1;  // librtmp's own copy of the socket
  bool hooked_ = false;
  bool closed_ = false;
  std::mutex abortLock_;
  std::atomic<bool> aborted_{false};
  uint32_t handshakeMs_ = 0;
};

// librtmp's error lines of this process since the last clear, one a line.
std::string rtmpErrorText();
void clearRtmpErrorText();

}  // namespace kestrium
