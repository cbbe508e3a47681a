#include "tests/e2e/ThrottledProxy.h"

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/Clock.h"

namespace kestrium::test {

namespace {

#ifdef _WIN32
constexpr int kNoSignal = 0;
void closeSocket(Socket s) { ::closesocket(s); }
bool wouldBlock() { return WSAGetLastError() == WSAEWOULDBLOCK || WSAGetLastError() == WSAEINTR; }
std::string lastError() { return "error " + std::to_string(WSAGetLastError()); }
int pollSockets(pollfd* fds, size_t count, int timeoutMs) {
  return ::WSAPoll(fds, static_cast<ULONG>(count), timeoutMs);
}
void setNonBlocking(Socket s) {
  u_long on = 1;
  ::ioctlsocket(s, FIONBIO, &on);
}
Socket openSocket() {
  return ::WSASocketW(AF_INET, SOCK_STREAM, 0, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
}
Socket acceptSocket(Socket listener) {
  const Socket s = ::accept(listener, nullptr, nullptr);
  if (s != kNoSocket) ::SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  return s;
}
#else
constexpr int kNoSignal = MSG_NOSIGNAL;
void closeSocket(Socket s) { ::close(s); }
bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }
std::string lastError() { return std::strerror(errno); }
int pollSockets(pollfd* fds, size_t count, int timeoutMs) { return ::poll(fds, count, timeoutMs); }
void setNonBlocking(Socket s) { ::fcntl(s, F_SETFL, ::fcntl(s, F_GETFL) | O_NONBLOCK); }
Socket openSocket() { return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }
Socket acceptSocket(Socket listener) { return ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC); }
#endif
// Every socket is kept from the programs a test starts meanwhile (the tools,
// the servers' shells): one that held a connection's end would keep it open
// after the proxy closed it.

template <typename T>
void setOption(Socket s, int level, int name, const T& value) {
  ::setsockopt(s, level, name, reinterpret_cast<const char*>(&value), sizeof value);
}

sockaddr_in loopback(uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  return addr;
}

void setBuffers(Socket s, int bytes) {
  setOption(s, SOL_SOCKET, SO_RCVBUF, bytes);
  setOption(s, SOL_SOCKET, SO_SNDBUF, bytes);
}

// Closes with a reset rather than a FIN: the peer sees the connection fail.
void reset(Socket s) {
  const linger now{1, 0};
  setOption(s, SOL_SOCKET, SO_LINGER, now);
  closeSocket(s);
}

}  // namespace

// One proxied connection and the bytes on their way in each direction.
struct ThrottledProxy::Pipe {
  struct Way {
    std::vector<uint8_t> bytes;
    size_t from = 0;  // bytes before this are sent
    bool ended = false;  // the sender closed its side
    size_t pending() const { return bytes.size() - from; }
  };
  Socket client = kNoSocket;
  Socket server = kNoSocket;
  Way up;    // client to server
  Way down;  // server to client
  bool broken = false;
};

ThrottledProxy::ThrottledProxy(uint16_t targetPort, uint64_t bytesPerSecond, int socketBuffer)
    : targetPort_(targetPort), socketBuffer_(socketBuffer), rate_(bytesPerSecond) {
#ifdef _WIN32
  WSADATA data;
  winsock_ = ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
#endif
  listener_ = openSocket();
  if (listener_ == kNoSocket) {
    why_ = "socket: " + lastError();
    return;
  }
  setNonBlocking(listener_);
  // Set on the listening socket, so that accepted connections start with them
  // (the receive window is fixed at the handshake).
  setBuffers(listener_, socketBuffer_);
  // Segments of an Ethernet path instead of loopback's 64 KiB: a sender's
  // kernel sizes its send buffer by its congestion window in segments, and
  // with loopback's segments it would take in megabytes before it blocks.
  // (Windows has no such option: there the send buffer is what was set.)
#ifdef TCP_MAXSEG
  setOption(listener_, IPPROTO_TCP, TCP_MAXSEG, 1448);
#endif
  sockaddr_in addr = loopback(0);
  socklen_t len = sizeof addr;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(listener_, 8) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    why_ = "cannot listen on loopback: " + lastError();
    return;
  }
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread([this] { run(); });
}

ThrottledProxy::~ThrottledProxy() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
  if (listener_ != kNoSocket) closeSocket(listener_);
#ifdef _WIN32
  if (winsock_) ::WSACleanup();
#endif
}

std::string ThrottledProxy::urlOf(const std::string& application) const {
  return "rtmp://127.0.0.1:" + std::to_string(port_) + "/" + application;
}

void ThrottledProxy::run() {
  std::vector<Pipe> pipes;
  std::vector<pollfd> fds;
  // The token bucket: bytes the client may still send now. It holds at most
  // 10 ms of the rate, so a connection that was idle cannot burst past it.
  double tokens = 0;
  uint64_t last = platform::monotonicNs();
  const size_t limit = static_cast<size_t>(socketBuffer_);

  auto closePipe = [](Pipe& p, bool hard) {
    if (hard) {
      reset(p.client);
      reset(p.server);
    } else {
      closeSocket(p.client);
      closeSocket(p.server);
    }
    p.client = p.server = kNoSocket;
  };

  // Sends what is pending on one way; false when the receiver is gone.
  auto flush = [](Socket to, Pipe::Way& way) {
    while (way.pending() > 0) {
      const auto n = ::send(to, reinterpret_cast<const char*>(way.bytes.data() + way.from),
                            static_cast<int>(way.pending()), kNoSignal);
      if (n < 0) return wouldBlock();
      way.from += static_cast<size_t>(n);
    }
    way.bytes.clear();
    way.from = 0;
    return true;
  };

  // Reads at most room bytes onto a way; false when the connection failed.
  auto fill = [](Socket from, Pipe::Way& way, size_t room) {
    if (room == 0) return true;
    way.bytes.erase(way.bytes.begin(), way.bytes.begin() + static_cast<ptrdiff_t>(way.from));
    way.from = 0;
    const size_t at = way.bytes.size();
    way.bytes.resize(at + room);
    const auto n = ::recv(from, reinterpret_cast<char*>(way.bytes.data() + at), static_cast<int>(room), 0);
    way.bytes.resize(at + static_cast<size_t>(std::max<decltype(n)>(n, 0)));
    if (n == 0) way.ended = true;
    return n >= 0 || wouldBlock();
  };

  while (!stopping_) {
    const uint64_t rate = rate_;
    const uint64_t now = platform::monotonicNs();
    if (rate == 0) {
      tokens = static_cast<double>(limit);
    } else {
      const double most = std::max(static_cast<double>(rate) / 100.0, 1.0);
      tokens = std::min(most, tokens + static_cast<double>(rate) * static_cast<double>(now - last) / 1e9);
    }
    last = now;

    fds.clear();
    fds.push_back({listener_, POLLIN, 0});
    bool starved = false;
    for (const Pipe& p : pipes) {
      const bool wantUp = !p.up.ended && p.up.pending() < limit;
      if (wantUp && tokens < 1.0) starved = true;
      fds.push_back({p.client, static_cast<short>((wantUp && tokens >= 1.0 ? POLLIN : 0) |
                                                  (p.down.pending() > 0 ? POLLOUT : 0)),
                     0});
      fds.push_back({p.server, static_cast<short>((!p.down.ended && p.down.pending() < limit ? POLLIN : 0) |
                                                  (p.up.pending() > 0 ? POLLOUT : 0)),
                     0});
    }
    // While the bucket is empty, wake every millisecond to let the next bytes
    // in; otherwise often enough to see the end soon.
    if (pollSockets(fds.data(), fds.size(), starved ? 1 : 20) < 0 && !wouldBlock()) break;

    if (fds[0].revents & POLLIN) {
      const Socket client = acceptSocket(listener_);
      if (client != kNoSocket) {
        setNonBlocking(client);
        setBuffers(client, socketBuffer_);
        const Socket server = openSocket();
        const sockaddr_in to = loopback(targetPort_);
        if (server != kNoSocket) setBuffers(server, socketBuffer_);
        // A blocking connect: on loopback it ends at once, taken or refused.
        if (server != kNoSocket && ::connect(server, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0) {
          setNonBlocking(server);
          setOption(server, IPPROTO_TCP, TCP_NODELAY, 1);
          setOption(client, IPPROTO_TCP, TCP_NODELAY, 1);
          Pipe p;
          p.client = client;
          p.server = server;
          pipes.push_back(std::move(p));
        } else {
          if (server != kNoSocket) closeSocket(server);
          reset(client);
        }
      }
    }

    // Pipes accepted in this pass have no poll entries yet.
    for (size_t i = 0; 2 + 2 * i < fds.size(); ++i) {
      Pipe& p = pipes[i];
      if (p.client == kNoSocket) continue;
      const short clientEvents = fds[1 + 2 * i].revents;
      const short serverEvents = fds[2 + 2 * i].revents;
      bool ok = !((clientEvents | serverEvents) & POLLERR);
      if (ok && (clientEvents & (POLLIN | POLLHUP))) {
        const size_t room = std::min(limit - std::min(limit, p.up.pending()), static_cast<size_t>(tokens));
        const size_t before = p.up.bytes.size();
        ok = fill(p.client, p.up, room);
        tokens -= static_cast<double>(p.up.bytes.size() - before);
      }
      if (ok && (serverEvents & (POLLIN | POLLHUP))) {
        ok = fill(p.server, p.down, limit - std::min(limit, p.down.pending()));
      }
      ok = ok && flush(p.server, p.up) && flush(p.client, p.down);
      if (!ok) {
        closePipe(p, true);
      } else if ((p.up.ended && p.up.pending() == 0) || (p.down.ended && p.down.pending() == 0)) {
        // One side closed and all it sent is through: close the other too.
        closePipe(p, false);
      }
    }
    std::erase_if(pipes, [](const Pipe& p) { return p.client == kNoSocket; });
  }
  for (Pipe& p : pipes) {
    if (p.client != kNoSocket) closePipe(p, true);
  }
}

}  // namespace kestrium::test
