#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "platform/Wait.h"

namespace kestrium::platform {

// A write to a socket whose peer has gone must come back as an error, not end
// the process: called once at start, before the first socket, by every program
// that publishes (some libraries send without asking the kernel to spare us).
void ignoreBrokenPipe();

// What a wait on a socket saw. kWoken: another thread called wake().
enum SocketEvents : uint32_t {
  kSocketReadable = 1,
  kSocketWritable = 2,
  kSocketHungUp = 4,
  kSocketError = 8,
  kSocketWoken = 16,
  kSocketTimedOut = 32,
};

enum class SocketStatus { Done, WouldBlock, Closed, Failed };

// A TCP client socket over IPv4, owned: closed with the object. Besides its
// descriptor it holds a wake-up channel, so that a thread blocked in connect()
// or wait() can be woken from another thread.
class TcpSocket {
 public:
  TcpSocket();
  ~TcpSocket();
  TcpSocket(TcpSocket&&) noexcept;
  TcpSocket& operator=(TcpSocket&&) noexcept;
  TcpSocket(const TcpSocket&) = delete;
  TcpSocket& operator=(const TcpSocket&) = delete;

  // Makes the wake-up channel: from here on abort() and wake() reach connect().
  bool open();
  // Resolves host, makes the socket, binds it to bindAddress (an IPv4 literal;
  // empty: no bind) and connects within timeoutMs. wake() or abort() from
  // another thread ends the attempt. False with a reason in error().
  bool connect(std::string_view host, uint16_t port, std::string_view bindAddress, uint32_t timeoutMs);

  bool valid() const;
  // The OS descriptor, for a library that does its own reads and writes.
  intptr_t descriptor() const;
  // A second descriptor of the same connection, owned by whoever takes it: a
  // library may close its copy without closing ours.
  intptr_t duplicate() const;

  bool setNoDelay(bool on);
  bool setSendBuffer(int bytes);
  int sendBuffer() const;
  bool setReceiveTimeout(uint32_t ms);
  bool setSendTimeout(uint32_t ms);
  bool setNonBlocking(bool on);

  // Never raises SIGPIPE. sent/received tell how much moved with Done.
  SocketStatus send(std::span<const std::byte> data, size_t& sent);
  SocketStatus receive(std::span<std::byte> into, size_t& received);

  // Waits until the socket is readable (always asked), writable (when asked),
  // hung up, woken, or timeoutMs (kInfinite: no limit) has passed. A mask of
  // SocketEvents.
  uint32_t wait(bool wantWritable, uint32_t timeoutMs);
  // Wakes the thread in wait() or connect(); a wake with nobody waiting is kept
  // for the next wait.
  void wake();

  void shutdownSend();
  // Ends the connection in both directions at once, from any thread: blocked
  // reads and writes of every descriptor of it return. The descriptor stays
  // open (and its number taken) until close().
  void abort();
  void close();

  // The OS's text for the last failure of connect().
  const std::string& error() const { return error_; }

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
  std::string error_;
};

// Closes a descriptor returned by duplicate() that its taker did not close.
void closeDescriptor(intptr_t descriptor);

// Diverts a library's writes on one descriptor: its calls of the C library's
// send() on that descriptor go to hook instead, which returns how many bytes it
// took (or -1 for an error). Writes on other descriptors pass through untouched.
// Only programs that link the code that installs a hook carry the diversion.
using SendHook = int64_t (*)(void* context, const std::byte* data, size_t size);
bool installSendHook(intptr_t descriptor, SendHook hook, void* context);
void removeSendHook(intptr_t descriptor);
// True when the library's send() calls really reach the diversion in this
// process (false, for one, in a build where the OS cannot divert them).
bool sendHookEffective();

}  // namespace kestrium::platform
