// The socket layer under the broadcast: a thread blocked on a connection can be
// got out of it from another thread (that is how a stopping capture ends a
// connection attempt), and the diversion of send() takes the writes of exactly
// the descriptor it was given.

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/Clock.h"
#include "platform/Socket.h"
#include "platform/Wait.h"

namespace kestrium::platform {
namespace {

// The OS's own calls, as a library such as librtmp makes them on a descriptor.
#ifdef _WIN32
using Raw = SOCKET;
constexpr Raw kNoRaw = INVALID_SOCKET;
void closeRaw(Raw s) { ::closesocket(s); }
#else
using Raw = int;
constexpr Raw kNoRaw = -1;
void closeRaw(Raw s) { ::close(s); }
#endif
Raw raw(intptr_t descriptor) { return static_cast<Raw>(descriptor); }
int rawSend(Raw s, const char* data, int size) { return static_cast<int>(::send(s, data, size, 0)); }
int rawRecv(Raw s, char* into, int size) { return static_cast<int>(::recv(s, into, size, 0)); }

// A listening socket on a free loopback port, accepting one connection.
class Listener {
 public:
  Listener() {
#ifdef _WIN32
    WSADATA data;
    ::WSAStartup(MAKEWORD(2, 2), &data);
#endif
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd_, reinterpret_cast<sockaddr*>(&address), length);
    ::listen(fd_, 4);
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~Listener() {
    if (peer_ != kNoRaw) closeRaw(peer_);
    closeRaw(fd_);
#ifdef _WIN32
    ::WSACleanup();
#endif
  }
  uint16_t port() const { return port_; }
  Raw accept() { return peer_ = ::accept(fd_, nullptr, nullptr); }

 private:
  Raw fd_ = kNoRaw;
  Raw peer_ = kNoRaw;
  uint16_t port_ = 0;
};

TEST(SocketTest, ARefusedConnectionSaysWhy) {
  uint16_t port;
  {
    Listener gone;
    port = gone.port();
  }
  TcpSocket socket;
  EXPECT_FALSE(socket.connect("127.0.0.1", port, {}, 5000));
  EXPECT_NE(socket.error().find("refused"), std::string::npos) << socket.error();
}

TEST(SocketTest, AbortEndsABlockingReadOnAnotherDescriptorOfTheConnection) {
  Listener listener;
  TcpSocket socket;
  ASSERT_TRUE(socket.connect("127.0.0.1", listener.port(), {}, 5000)) << socket.error();
  ASSERT_NE(listener.accept(), kNoRaw);
  // A library reads on its own copy of the descriptor, blocking, as librtmp does.
  const intptr_t copy = socket.duplicate();
  ASSERT_GE(copy, 0);
  std::atomic<int> got{1};
  std::thread reader([&] {
    char byte;
    got = rawRecv(raw(copy), &byte, 1);
  });
  sleepMs(100);
  socket.abort();
  reader.join();
  EXPECT_LE(got.load(), 0);
  closeDescriptor(copy);
}

TEST(SocketTest, WakeEndsAWaitAndIsKeptWhenNobodyWaits) {
  Listener listener;
  TcpSocket socket;
  ASSERT_TRUE(socket.connect("127.0.0.1", listener.port(), {}, 5000)) << socket.error();
  socket.wake();
  EXPECT_EQ(socket.wait(false, kInfinite) & kSocketWoken, uint32_t{kSocketWoken});
  EXPECT_EQ(socket.wait(false, 50), uint32_t{kSocketTimedOut});
  std::thread waker([&] {
    sleepMs(50);
    socket.wake();
  });
  EXPECT_EQ(socket.wait(false, kInfinite) & kSocketWoken, uint32_t{kSocketWoken});
  waker.join();
}

TEST(SocketTest, TheSendDiversionTakesOnlyItsDescriptor) {
  ASSERT_TRUE(sendHookEffective());
  Listener listener;
  TcpSocket socket;
  ASSERT_TRUE(socket.connect("127.0.0.1", listener.port(), {}, 5000)) << socket.error();
  const Raw peer = listener.accept();
  ASSERT_NE(peer, kNoRaw);
  const intptr_t hooked = socket.duplicate();
  ASSERT_GE(hooked, 0);
  static std::vector<std::byte> taken;
  taken.clear();
  auto hook = [](void*, const std::byte* data, size_t size) -> int64_t {
    taken.insert(taken.end(), data, data + size);
    return static_cast<int64_t>(size);
  };
  ASSERT_TRUE(installSendHook(hooked, hook, nullptr));
  EXPECT_EQ(rawSend(raw(hooked), "abc", 3), 3);
  // The other descriptor of the same connection still reaches the peer.
  EXPECT_EQ(rawSend(raw(socket.descriptor()), "xy", 2), 2);
  removeSendHook(hooked);
  EXPECT_EQ(rawSend(raw(hooked), "z", 1), 1);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(taken.data()), taken.size()), "abc");
  char got[8] = {};
  int have = 0;
  while (have < 3) {
    const int n = rawRecv(peer, got + have, static_cast<int>(sizeof got) - have);
    ASSERT_GT(n, 0);
    have += n;
  }
  EXPECT_EQ(std::string(got, static_cast<size_t>(have)), "xyz");
  closeDescriptor(hooked);
}

}  // namespace
}  // namespace kestrium::platform
