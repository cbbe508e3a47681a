#include "platform/Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/Clock.h"
#include "platform/Wait.h"

namespace kestrium::platform {

void ignoreBrokenPipe() {
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(SIGPIPE, &ignore, nullptr);
}

struct TcpSocket::Impl {
  // Atomic: abort() may come from another thread while connect() makes it.
  std::atomic<int> fd{-1};
  int wakeFd = -1;
};

namespace {

std::string errorText(int code) { return std::string(std::strerror(code)) + " (" + std::to_string(code) + ")"; }

timeval timevalOf(uint32_t ms) {
  timeval t{};
  t.tv_sec = static_cast<time_t>(ms / 1000);
  t.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
  return t;
}

int pollTimeout(uint32_t ms) { return ms == kInfinite ? -1 : static_cast<int>(std::min<uint32_t>(ms, 0x7FFFFFFF)); }

void drainWake(int wakeFd) {
  uint64_t count = 0;
  while (::read(wakeFd, &count, sizeof count) > 0) {
  }
}

}  // namespace

TcpSocket::TcpSocket() = default;
TcpSocket::~TcpSocket() { close(); }
TcpSocket::TcpSocket(TcpSocket&& other) noexcept = default;
TcpSocket& TcpSocket::operator=(TcpSocket&& other) noexcept {
  if (this != &other) {
    close();
    impl_ = std::move(other.impl_);
    error_ = std::move(other.error_);
  }
  return *this;
}

bool TcpSocket::open() {
  close();
  impl_ = std::make_unique<Impl>();
  impl_->wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (impl_->wakeFd < 0) {
    error_ = "eventfd: " + errorText(errno);
    impl_.reset();
    return false;
  }
  return true;
}

bool TcpSocket::connect(std::string_view host, uint16_t port, std::string_view bindAddress, uint32_t timeoutMs) {
  if ((!impl_ || impl_->fd >= 0) && !open()) return false;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const std::string name(host);
  const int lookup = ::getaddrinfo(name.c_str(), nullptr, &hints, &found);
  if (lookup != 0 || found == nullptr) {
    error_ = "cannot resolve " + name + ": " + ::gai_strerror(lookup);
    return false;
  }
  sockaddr_in address{};
  std::memcpy(&address, found->ai_addr, sizeof address);
  ::freeaddrinfo(found);
  address.sin_port = htons(port);

  impl_->fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (impl_->fd < 0) {
    error_ = "socket: " + errorText(errno);
    return false;
  }
  if (!bindAddress.empty()) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    const std::string text(bindAddress);
    if (::inet_pton(AF_INET, text.c_str(), &local.sin_addr) != 1) {
      error_ = "cannot parse the bind address " + text;
      return false;
    }
    if (::bind(impl_->fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
      error_ = "bind: " + errorText(errno);
      return false;
    }
  }
  // Non-blocking while connecting, so that the wait can be bounded and woken.
  setNonBlocking(true);
  if (::connect(impl_->fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno != EINPROGRESS) {
      error_ = "connect: " + errorText(errno);
      return false;
    }
    pollfd fds[2] = {{impl_->fd.load(), POLLOUT, 0}, {impl_->wakeFd, POLLIN, 0}};
    int ready;
    while ((ready = ::poll(fds, 2, pollTimeout(timeoutMs))) < 0 && errno == EINTR) {
    }
    if (ready == 0) {
      error_ = "connect: timed out";
      return false;
    }
    if (ready < 0 || (fds[1].revents & POLLIN) != 0) {
      error_ = ready < 0 ? "poll: " + errorText(errno) : "connect: abandoned";
      return false;
    }
    int failure = 0;
    socklen_t length = sizeof failure;
    ::getsockopt(impl_->fd, SOL_SOCKET, SO_ERROR, &failure, &length);
    if (failure != 0) {
      error_ = "connect: " + errorText(failure);
      return false;
    }
  }
  setNonBlocking(false);
  return true;
}

bool TcpSocket::valid() const { return impl_ != nullptr && impl_->fd >= 0; }
intptr_t TcpSocket::descriptor() const { return valid() ? impl_->fd.load() : -1; }
intptr_t TcpSocket::duplicate() const { return valid() ? ::fcntl(impl_->fd.load(), F_DUPFD_CLOEXEC, 0) : -1; }

bool TcpSocket::setNoDelay(bool on) {
  const int value = on ? 1 : 0;
  return valid() && ::setsockopt(impl_->fd, IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) == 0;
}

bool TcpSocket::setSendBuffer(int bytes) {
  return valid() && ::setsockopt(impl_->fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes) == 0;
}

int TcpSocket::sendBuffer() const {
  int value = 0;
  socklen_t length = sizeof value;
  if (!valid() || ::getsockopt(impl_->fd, SOL_SOCKET, SO_SNDBUF, &value, &length) != 0) return 0;
  // Linux reports twice what was asked: half is its own bookkeeping.
  return value / 2;
}

bool TcpSocket::setReceiveTimeout(uint32_t ms) {
  const timeval t = timevalOf(ms);
  return valid() && ::setsockopt(impl_->fd, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t) == 0;
}

bool TcpSocket::setSendTimeout(uint32_t ms) {
  const timeval t = timevalOf(ms);
  return valid() && ::setsockopt(impl_->fd, SOL_SOCKET, SO_SNDTIMEO, &t, sizeof t) == 0;
}

bool TcpSocket::setNonBlocking(bool on) {
  if (!valid()) return false;
  const int flags = ::fcntl(impl_->fd, F_GETFL);
  return flags >= 0 && ::fcntl(impl_->fd, F_SETFL, on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK)) == 0;
}

SocketStatus TcpSocket::send(std::span<const std::byte> data, size_t& sent) {
  sent = 0;
  if (!valid()) return SocketStatus::Failed;
  for (;;) {
    // sendto, not send: this program's send() is the diversion of a library's writes.
    const ssize_t n = ::sendto(impl_->fd, data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT, nullptr, 0);
    if (n > 0) {
      sent = static_cast<size_t>(n);
      return SocketStatus::Done;
    }
    if (n == 0) return data.empty() ? SocketStatus::Done : SocketStatus::Closed;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return SocketStatus::WouldBlock;
    return SocketStatus::Failed;
  }
}

SocketStatus TcpSocket::receive(std::span<std::byte> into, size_t& received) {
  received = 0;
  if (!valid()) return SocketStatus::Failed;
  for (;;) {
    const ssize_t n = ::recv(impl_->fd, into.data(), into.size(), MSG_DONTWAIT);
    if (n > 0) {
      received = static_cast<size_t>(n);
      return SocketStatus::Done;
    }
    if (n == 0) return SocketStatus::Closed;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return SocketStatus::WouldBlock;
    return SocketStatus::Failed;
  }
}

uint32_t TcpSocket::wait(bool wantWritable, uint32_t timeoutMs) {
  if (!valid()) return kSocketError;
  pollfd fds[2] = {{impl_->fd.load(), static_cast<short>(POLLIN | (wantWritable ? POLLOUT : 0)), 0},
                   {impl_->wakeFd, POLLIN, 0}};
  int ready;
  while ((ready = ::poll(fds, 2, pollTimeout(timeoutMs))) < 0 && errno == EINTR) {
  }
  if (ready < 0) return kSocketError;
  if (ready == 0) return kSocketTimedOut;
  uint32_t seen = 0;
  if ((fds[0].revents & POLLIN) != 0) seen |= kSocketReadable;
  if ((fds[0].revents & POLLOUT) != 0) seen |= kSocketWritable;
  if ((fds[0].revents & (POLLHUP | POLLRDHUP)) != 0) seen |= kSocketHungUp;
  if ((fds[0].revents & (POLLERR | POLLNVAL)) != 0) seen |= kSocketError;
  if ((fds[1].revents & POLLIN) != 0) {
    drainWake(impl_->wakeFd);
    seen |= kSocketWoken;
  }
  return seen;
}

void TcpSocket::wake() {
  if (!impl_ || impl_->wakeFd < 0) return;
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t n = ::write(impl_->wakeFd, &one, sizeof one);
}

void TcpSocket::shutdownSend() {
  if (valid()) ::shutdown(impl_->fd, SHUT_WR);
}

void TcpSocket::abort() {
  if (!impl_) return;
  const int fd = impl_->fd.load();
  if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
  wake();
}

void TcpSocket::close() {
  if (!impl_) return;
  if (impl_->fd >= 0) ::close(impl_->fd);
  if (impl_->wakeFd >= 0) ::close(impl_->wakeFd);
  impl_.reset();
}

void closeDescriptor(intptr_t descriptor) {
  if (descriptor >= 0) ::close(static_cast<int>(descriptor));
}

}  // namespace kestrium::platform
