#include "platform/Socket.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Text.h"
#include "platform/Wait.h"

namespace kestrium::platform {

// Winsock reports a write to a closed connection as an error: there is no signal
// to ignore.
void ignoreBrokenPipe() {}

namespace {

std::string errorText(int code) {
  wchar_t* text = nullptr;
  const DWORD length = FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
      static_cast<DWORD>(code), 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  std::string out;
  if (length > 0 && text != nullptr) {
    out = toUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(text), length));
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == ' ')) out.pop_back();
  }
  if (text != nullptr) LocalFree(text);
  return (out.empty() ? "error" : out) + " (" + std::to_string(code) + ")";
}

// Winsock is started once for the program and never stopped: sockets may live
// until the process ends.
bool startWinsock(std::string& error) {
  static std::once_flag once;
  static int status = 0;
  std::call_once(once, [] {
    WSADATA data{};
    status = WSAStartup(MAKEWORD(2, 2), &data);
  });
  if (status != 0) error = "WSAStartup: " + errorText(status);
  return status == 0;
}

timeval timevalOf(uint32_t ms) {
  timeval t{};
  t.tv_sec = static_cast<long>(ms / 1000);
  t.tv_usec = static_cast<long>((ms % 1000) * 1000);
  return t;
}

}  // namespace

// The wake-up channel is a UDP socket connected to itself on loopback: one
// datagram makes it readable, so select() waits on the connection and on it
// together, as poll() does on POSIX with an eventfd.
struct TcpSocket::Impl {
  // Atomic: abort() may come from another thread while connect() makes it.
  std::atomic<SOCKET> socket{INVALID_SOCKET};
  SOCKET wake = INVALID_SOCKET;
  // The descriptors made by duplicate(): a shutdown does not end a read that
  // blocks on one of them, cancelling its I/O does.
  std::mutex copiesLock;
  std::vector<SOCKET> copies;
};

namespace {

// Both ends of a connection, which tell it from any other.
struct Ends {
  sockaddr_in local{};
  sockaddr_in peer{};
  bool operator==(const Ends& other) const {
    return std::memcmp(&local, &other.local, sizeof local) == 0 && std::memcmp(&peer, &other.peer, sizeof peer) == 0;
  }
};

bool endsOf(SOCKET s, Ends& ends) {
  int length = sizeof ends.local;
  if (::getsockname(s, reinterpret_cast<sockaddr*>(&ends.local), &length) != 0) return false;
  length = sizeof ends.peer;
  return ::getpeername(s, reinterpret_cast<sockaddr*>(&ends.peer), &length) == 0;
}

}  // namespace

namespace {

SOCKET makeWakeChannel(std::string& error) {
  const SOCKET s = ::WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, WSA_FLAG_NO_HANDLE_INHERIT);
  if (s == INVALID_SOCKET) {
    error = "socket: " + errorText(WSAGetLastError());
    return INVALID_SOCKET;
  }
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int length = sizeof local;
  u_long nonBlocking = 1;
  if (::bind(s, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
      ::getsockname(s, reinterpret_cast<sockaddr*>(&local), &length) != 0 ||
      ::connect(s, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
      ::ioctlsocket(s, FIONBIO, &nonBlocking) != 0) {
    error = "wake-up channel: " + errorText(WSAGetLastError());
    ::closesocket(s);
    return INVALID_SOCKET;
  }
  return s;
}

void drainWake(SOCKET wake) {
  char scrap[64];
  while (::recv(wake, scrap, sizeof scrap, 0) > 0) {
  }
}

// select() with a bounded or endless wait.
int selectFor(fd_set* readable, fd_set* writable, fd_set* failed, uint32_t timeoutMs) {
  timeval t = timevalOf(timeoutMs);
  return ::select(0, readable, writable, failed, timeoutMs == kInfinite ? nullptr : &t);
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
  if (!startWinsock(error_)) return false;
  impl_ = std::make_unique<Impl>();
  impl_->wake = makeWakeChannel(error_);
  if (impl_->wake == INVALID_SOCKET) {
    impl_.reset();
    return false;
  }
  return true;
}

bool TcpSocket::connect(std::string_view host, uint16_t port, std::string_view bindAddress, uint32_t timeoutMs) {
  if ((!impl_ || impl_->socket != INVALID_SOCKET) && !open()) return false;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const std::string name(host);
  const int lookup = ::getaddrinfo(name.c_str(), nullptr, &hints, &found);
  if (lookup != 0 || found == nullptr) {
    error_ = "cannot resolve " + name + ": " + errorText(lookup);
    return false;
  }
  sockaddr_in address{};
  std::memcpy(&address, found->ai_addr, sizeof address);
  ::freeaddrinfo(found);
  address.sin_port = htons(port);

  impl_->socket = ::WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_NO_HANDLE_INHERIT);
  const SOCKET s = impl_->socket;
  if (s == INVALID_SOCKET) {
    error_ = "socket: " + errorText(WSAGetLastError());
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
    if (::bind(s, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
      error_ = "bind: " + errorText(WSAGetLastError());
      return false;
    }
  }
  // Non-blocking while connecting, so that the wait can be bounded and woken.
  setNonBlocking(true);
  if (::connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int code = WSAGetLastError();
    if (code != WSAEWOULDBLOCK) {
      error_ = "connect: " + errorText(code);
      return false;
    }
    fd_set readable, writable, failed;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    FD_ZERO(&failed);
    FD_SET(impl_->wake, &readable);
    FD_SET(s, &writable);
    // Winsock tells a failed connection attempt through the exception set.
    FD_SET(s, &failed);
    const int ready = selectFor(&readable, &writable, &failed, timeoutMs);
    if (ready == 0) {
      error_ = "connect: timed out";
      return false;
    }
    if (ready < 0 || FD_ISSET(impl_->wake, &readable)) {
      error_ = ready < 0 ? "select: " + errorText(WSAGetLastError()) : "connect: abandoned";
      return false;
    }
    int failure = 0;
    int length = sizeof failure;
    ::getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&failure), &length);
    if (failure != 0 || FD_ISSET(s, &failed)) {
      error_ = "connect: " + errorText(failure != 0 ? failure : WSAECONNREFUSED);
      return false;
    }
  }
  setNonBlocking(false);
  return true;
}

bool TcpSocket::valid() const { return impl_ != nullptr && impl_->socket != INVALID_SOCKET; }

intptr_t TcpSocket::descriptor() const { return valid() ? static_cast<intptr_t>(impl_->socket.load()) : -1; }

intptr_t TcpSocket::duplicate() const {
  if (!valid()) return -1;
  WSAPROTOCOL_INFOW info{};
  if (::WSADuplicateSocketW(impl_->socket, GetCurrentProcessId(), &info) != 0) return -1;
  const SOCKET copy = ::WSASocketW(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, &info, 0,
                                   WSA_FLAG_NO_HANDLE_INHERIT);
  if (copy == INVALID_SOCKET) return -1;
  std::lock_guard guard(impl_->copiesLock);
  impl_->copies.push_back(copy);
  return static_cast<intptr_t>(copy);
}

bool TcpSocket::setNoDelay(bool on) {
  const BOOL value = on ? TRUE : FALSE;
  return valid() && ::setsockopt(impl_->socket, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&value),
                                 sizeof value) == 0;
}

bool TcpSocket::setSendBuffer(int bytes) {
  return valid() &&
         ::setsockopt(impl_->socket, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<const char*>(&bytes), sizeof bytes) == 0;
}

int TcpSocket::sendBuffer() const {
  int value = 0;
  int length = sizeof value;
  if (!valid() || ::getsockopt(impl_->socket, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<char*>(&value), &length) != 0) {
    return 0;
  }
  return value;
}

// Winsock takes these timeouts as milliseconds in a DWORD.
bool TcpSocket::setReceiveTimeout(uint32_t ms) {
  const DWORD value = ms;
  return valid() && ::setsockopt(impl_->socket, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&value),
                                 sizeof value) == 0;
}

bool TcpSocket::setSendTimeout(uint32_t ms) {
  const DWORD value = ms;
  return valid() && ::setsockopt(impl_->socket, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&value),
                                 sizeof value) == 0;
}

bool TcpSocket::setNonBlocking(bool on) {
  u_long value = on ? 1 : 0;
  return valid() && ::ioctlsocket(impl_->socket, FIONBIO, &value) == 0;
}

SocketStatus TcpSocket::send(std::span<const std::byte> data, size_t& sent) {
  sent = 0;
  if (!valid()) return SocketStatus::Failed;
  if (data.empty()) return SocketStatus::Done;
  // WSASend, not send: this program's send() is the diversion of a library's
  // writes. The socket may be blocking: the caller asked select() for room.
  WSABUF buffer{static_cast<ULONG>(std::min<size_t>(data.size(), 0x7FFFFFFF)),
                const_cast<char*>(reinterpret_cast<const char*>(data.data()))};
  DWORD moved = 0;
  if (::WSASend(impl_->socket, &buffer, 1, &moved, 0, nullptr, nullptr) == 0) {
    sent = moved;
    return moved > 0 ? SocketStatus::Done : SocketStatus::Closed;
  }
  const int code = WSAGetLastError();
  if (code == WSAEWOULDBLOCK) return SocketStatus::WouldBlock;
  if (code == WSAECONNRESET || code == WSAECONNABORTED || code == WSAESHUTDOWN) return SocketStatus::Closed;
  return SocketStatus::Failed;
}

SocketStatus TcpSocket::receive(std::span<std::byte> into, size_t& received) {
  received = 0;
  if (!valid()) return SocketStatus::Failed;
  const int n = ::recv(impl_->socket, reinterpret_cast<char*>(into.data()),
                       static_cast<int>(std::min<size_t>(into.size(), 0x7FFFFFFF)), 0);
  if (n > 0) {
    received = static_cast<size_t>(n);
    return SocketStatus::Done;
  }
  if (n == 0) return SocketStatus::Closed;
  const int code = WSAGetLastError();
  if (code == WSAEWOULDBLOCK || code == WSAETIMEDOUT) return SocketStatus::WouldBlock;
  if (code == WSAECONNRESET || code == WSAECONNABORTED || code == WSAESHUTDOWN) return SocketStatus::Closed;
  return SocketStatus::Failed;
}

uint32_t TcpSocket::wait(bool wantWritable, uint32_t timeoutMs) {
  if (!valid()) return kSocketError;
  const SOCKET s = impl_->socket;
  fd_set readable, writable, failed;
  FD_ZERO(&readable);
  FD_ZERO(&writable);
  FD_ZERO(&failed);
  FD_SET(s, &readable);
  FD_SET(impl_->wake, &readable);
  if (wantWritable) FD_SET(s, &writable);
  FD_SET(s, &failed);
  const int ready = selectFor(&readable, &writable, &failed, timeoutMs);
  if (ready < 0) return kSocketError;
  if (ready == 0) return kSocketTimedOut;
  uint32_t seen = 0;
  // A connection closed by the peer reads as readable; its recv() says 0.
  if (FD_ISSET(s, &readable)) seen |= kSocketReadable;
  if (FD_ISSET(s, &writable)) seen |= kSocketWritable;
  if (FD_ISSET(s, &failed)) seen |= kSocketError;
  if (FD_ISSET(impl_->wake, &readable)) {
    drainWake(impl_->wake);
    seen |= kSocketWoken;
  }
  return seen;
}

void TcpSocket::wake() {
  if (!impl_ || impl_->wake == INVALID_SOCKET) return;
  const char one = 1;
  ::send(impl_->wake, &one, 1, 0);
}

void TcpSocket::shutdownSend() {
  if (valid()) ::shutdown(impl_->socket, SD_SEND);
}

void TcpSocket::abort() {
  if (!impl_) return;
  const SOCKET s = impl_->socket.load();
  if (s != INVALID_SOCKET) {
    ::shutdown(s, SD_BOTH);
    CancelIoEx(reinterpret_cast<HANDLE>(s), nullptr);
  }
  {
    // A copy that its taker has closed may have lent its number to another
    // handle since: only a handle of this very connection is cancelled.
    Ends ours;
    std::lock_guard guard(impl_->copiesLock);
    if (s != INVALID_SOCKET && endsOf(s, ours)) {
      for (const SOCKET copy : impl_->copies) {
        Ends theirs;
        if (endsOf(copy, theirs) && theirs == ours) CancelIoEx(reinterpret_cast<HANDLE>(copy), nullptr);
      }
    }
  }
  wake();
}

void TcpSocket::close() {
  if (!impl_) return;
  if (impl_->socket != INVALID_SOCKET) ::closesocket(impl_->socket);
  if (impl_->wake != INVALID_SOCKET) ::closesocket(impl_->wake);
  impl_.reset();
}

void closeDescriptor(intptr_t descriptor) {
  if (descriptor >= 0) ::closesocket(static_cast<SOCKET>(descriptor));
}

}  // namespace kestrium::platform
