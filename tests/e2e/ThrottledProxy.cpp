#include "tests/e2e/ThrottledProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/Clock.h"

namespace kestrium::test {

namespace {

sockaddr_in loopback(uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  return addr;
}

void setBuffers(int s, int bytes) {
  setsockopt(s, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
  setsockopt(s, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

// Closes with a reset rather than a FIN: the peer sees the connection fail.
void reset(int s) {
  const linger now{1, 0};
  setsockopt(s, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  ::close(s);
}

bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

}  // namespace

// One proxied connection and the bytes on their way in each direction.
struct ThrottledProxy::Pipe {
  struct Way {
    std::vector<uint8_t> bytes;
    size_t from = 0;  // bytes before this are sent
    bool ended = false;  // the sender closed its side
    size_t pending() const { return bytes.size() - from; }
  };
  int client = -1;
  int server = -1;
  Way up;    // client to server
  Way down;  // server to client
  bool broken = false;
};

ThrottledProxy::ThrottledProxy(uint16_t targetPort, uint64_t bytesPerSecond, int socketBuffer)
    : targetPort_(targetPort), socketBuffer_(socketBuffer), rate_(bytesPerSecond) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  wake_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (listener_ < 0 || wake_ < 0) {
    why_ = std::string("socket: ") + std::strerror(errno);
    return;
  }
  // Set on the listening socket, so that accepted connections start with them
  // (the receive window is fixed at the handshake).
  setBuffers(listener_, socketBuffer_);
  // Segments of an Ethernet path instead of loopback's 64 KiB: a sender's
  // kernel sizes its send buffer by its congestion window in segments, and
  // with loopback's segments it would take in megabytes before it blocks.
  const int segment = 1448;
  setsockopt(listener_, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment);
  sockaddr_in addr = loopback(0);
  socklen_t len = sizeof addr;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(listener_, 8) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    why_ = std::string("cannot listen on loopback: ") + std::strerror(errno);
    return;
  }
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread([this] { run(); });
}

ThrottledProxy::~ThrottledProxy() {
  stopping_ = true;
  if (thread_.joinable()) {
    const uint64_t one = 1;
    (void)!::write(wake_, &one, sizeof one);
    thread_.join();
  }
  if (listener_ >= 0) ::close(listener_);
  if (wake_ >= 0) ::close(wake_);
}

std::string ThrottledProxy::urlOf(const std::string& application) const {
  return "rtmp://127.0.0.1:" + std::to_string(port_) + "/" + application;
}

void ThrottledProxy::cutAll() {
  cut_ = true;
  const uint64_t one = 1;
  (void)!::write(wake_, &one, sizeof one);
}

void ThrottledProxy::run() {
  std::vector<Pipe> pipes;
  std::vector<pollfd> fds;
  // The token bucket: bytes the client may still send now. It holds at most
  // 10 ms of the rate, so a connection that was idle cannot burst past it.
  double tokens = 0;
  uint64_t last = platform::monotonicNs();
  const size_t limit = static_cast<size_t>(socketBuffer_);

  auto closePipe = [this](Pipe& p, bool hard) {
    if (hard) {
      reset(p.client);
      reset(p.server);
    } else {
      ::close(p.client);
      ::close(p.server);
    }
    p.client = p.server = -1;
    --open_;
  };

  // Sends what is pending on one way; false when the receiver is gone.
  auto flush = [](int to, Pipe::Way& way, std::atomic<uint64_t>& count) {
    while (way.pending() > 0) {
      const ssize_t n = ::send(to, way.bytes.data() + way.from, way.pending(), MSG_NOSIGNAL);
      if (n < 0) return wouldBlock();
      way.from += static_cast<size_t>(n);
      count += static_cast<uint64_t>(n);
    }
    way.bytes.clear();
    way.from = 0;
    return true;
  };

  // Reads at most room bytes onto a way; false when the connection failed.
  auto fill = [](int from, Pipe::Way& way, size_t room) {
    if (room == 0) return true;
    way.bytes.erase(way.bytes.begin(), way.bytes.begin() + static_cast<ptrdiff_t>(way.from));
    way.from = 0;
    const size_t at = way.bytes.size();
    way.bytes.resize(at + room);
    const ssize_t n = ::recv(from, way.bytes.data() + at, room, 0);
    way.bytes.resize(at + static_cast<size_t>(std::max<ssize_t>(n, 0)));
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
    fds.push_back({wake_, POLLIN, 0});
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
    // While the bucket is empty, wake every millisecond to let the next bytes in.
    if (::poll(fds.data(), fds.size(), starved ? 1 : -1) < 0 && errno != EINTR) break;

    if (fds[0].revents & POLLIN) {
      uint64_t count = 0;
      (void)!::read(wake_, &count, sizeof count);
      if (stopping_) break;
      if (cut_.exchange(false)) {
        for (Pipe& p : pipes) {
          if (p.client >= 0) closePipe(p, true);
        }
      }
    }
    if (fds[1].revents & POLLIN) {
      const int client = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (client >= 0) {
        ++accepted_;
        setBuffers(client, socketBuffer_);
        const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in to = loopback(targetPort_);
        if (server >= 0) setBuffers(server, socketBuffer_);
        // A blocking connect: on loopback it ends at once, taken or refused.
        if (server >= 0 && ::connect(server, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0) {
          const int one = 1;
          setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
          setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
          Pipe p;
          p.client = client;
          p.server = server;
          ++open_;
          pipes.push_back(std::move(p));
        } else {
          if (server >= 0) ::close(server);
          reset(client);
        }
      }
    }

    // Pipes accepted in this pass have no poll entries yet.
    for (size_t i = 0; 3 + 2 * i < fds.size(); ++i) {
      Pipe& p = pipes[i];
      if (p.client < 0) continue;
      const short clientEvents = fds[2 + 2 * i].revents;
      const short serverEvents = fds[3 + 2 * i].revents;
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
      ok = ok && flush(p.server, p.up, up_) && flush(p.client, p.down, down_);
      if (!ok) {
        closePipe(p, true);
      } else if ((p.up.ended && p.up.pending() == 0) || (p.down.ended && p.down.pending() == 0)) {
        // One side closed and all it sent is through: close the other too.
        closePipe(p, false);
      }
    }
    std::erase_if(pipes, [](const Pipe& p) { return p.client < 0; });
  }
  for (Pipe& p : pipes) {
    if (p.client >= 0) closePipe(p, true);
  }
}

}  // namespace kestrium::test
