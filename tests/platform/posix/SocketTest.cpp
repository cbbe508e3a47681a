// The socket layer under the broadcast: a thread blocked on a connection can be
// got out of it from another thread (that is how a stopping capture ends a
// connection attempt), and the diversion of send() takes the writes of exactly
// the descriptor it was given.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/Socket.h"

namespace kestrium::platform {
namespace {

// A listening socket on a free loopback port, accepting one connection.
class Listener {
 public:
  Listener() {
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
    if (peer_ >= 0) ::close(peer_);
    ::close(fd_);
  }
  uint16_t port() const { return port_; }
  int accept() { return peer_ = ::accept(fd_, nullptr, nullptr); }

 private:
  int fd_ = -1;
  int peer_ = -1;
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
  ASSERT_GE(listener.accept(), 0);
  // A library reads on its own copy of the descriptor, blocking, as librtmp does.
  const int copy = static_cast<int>(socket.duplicate());
  ASSERT_GE(copy, 0);
  std::atomic<ssize_t> got{1};
  std::thread reader([&] {
    char byte;
    got = ::recv(copy, &byte, 1, 0);
  });
  ::usleep(100000);
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
    ::usleep(50000);
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
  const int peer = listener.accept();
  ASSERT_GE(peer, 0);
  const int hooked = static_cast<int>(socket.duplicate());
  static std::vector<std::byte> taken;
  taken.clear();
  auto hook = [](void*, const std::byte* data, size_t size) -> int64_t {
    taken.insert(taken.end(), data, data + size);
    return static_cast<int64_t>(size);
  };
  ASSERT_TRUE(installSendHook(hooked, hook, nullptr));
  EXPECT_EQ(::send(hooked, "abc", 3, 0), 3);
  // The other descriptor of the same connection still reaches the peer.
  EXPECT_EQ(::send(static_cast<int>(socket.descriptor()), "xy", 2, 0), 2);
  removeSendHook(hooked);
  EXPECT_EQ(::send(hooked, "z", 1, 0), 1);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(taken.data()), taken.size()), "abc");
  char got[8] = {};
  size_t have = 0;
  while (have < 3) {
    const ssize_t n = ::recv(peer, got + have, sizeof got - have, 0);
    ASSERT_GT(n, 0);
    have += static_cast<size_t>(n);
  }
  EXPECT_EQ(std::string(got, have), "xyz");
  closeDescriptor(hooked);
}

}  // namespace
}  // namespace kestrium::platform
