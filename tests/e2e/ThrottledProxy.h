#pragma once

// A TCP proxy on a free loopback port that forwards every connection to a port
// on loopback, and lets the client's bytes through to the server no faster than
// a set rate: a slow uplink between a publisher and its RTMP server. The
// server's bytes go back to the client as fast as they come. On Winsock too,
// for the Windows tests under wine.
//
//   RtmpServer rtmp; ... rtmp.start();
//   ThrottledProxy uplink(rtmp.port(), 125'000);     // 1 Mbit/s
//   ASSERT_TRUE(uplink.up()) << uplink.why();
//   publish to uplink.urlOf("live") instead of rtmp.url()
//
// The proxy itself holds few bytes, so that a sender feels the limit within
// a fraction of a second: it reads from the client only as fast as the rate
// allows, its receive buffer towards the client is small, and it announces
// Ethernet-sized segments (TCP_MAXSEG 1448) instead of loopback's 64 KiB. What
// queues up is the sender's own socket send buffer plus about 2 x socketBuffer
// here. Measured here: a sender that leaves SO_SNDBUF alone gets its buffer
// grown by the kernel to about 1 MiB behind a 1 Mbit/s uplink, some 8 seconds
// of sends that return at once before one blocks; with SO_SNDBUF set it is
// that (doubled by the kernel) instead. TIOCOUTQ on the sender's socket tells
// how much is still queued there.

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace kestrium::test {

#ifdef _WIN32
using Socket = std::uintptr_t;  // Winsock's SOCKET
inline constexpr Socket kNoSocket = ~Socket{0};
#else
using Socket = int;
inline constexpr Socket kNoSocket = -1;
#endif

class ThrottledProxy {
 public:
  // Listens at once. bytesPerSecond 0: no limit. socketBuffer: SO_RCVBUF and
  // SO_SNDBUF of both sockets of each connection, and the most the proxy holds
  // in each direction.
  ThrottledProxy(uint16_t targetPort, uint64_t bytesPerSecond, int socketBuffer = 16 * 1024);
  // Closes every connection and the listening socket.
  ~ThrottledProxy();
  ThrottledProxy(const ThrottledProxy&) = delete;
  ThrottledProxy& operator=(const ThrottledProxy&) = delete;

  bool up() const { return port_ != 0; }
  const std::string& why() const { return why_; }
  uint16_t port() const { return port_; }
  // rtmp://127.0.0.1:PORT/application, through the proxy.
  std::string urlOf(const std::string& application) const;

  // Changes the limit from now on, e.g. to let a congestion clear.
  void setRate(uint64_t bytesPerSecond) { rate_ = bytesPerSecond; }

 private:
  struct Pipe;
  void run();

  Socket listener_ = kNoSocket;
#ifdef _WIN32
  bool winsock_ = false;
#endif
  uint16_t targetPort_;
  int socketBuffer_;
  uint16_t port_ = 0;
  std::string why_;
  std::atomic<uint64_t> rate_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace kestrium::test
