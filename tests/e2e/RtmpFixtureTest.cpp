// The fixture of the broadcast tests, proved before they rely on it: nginx comes
// up on loopback, records what a publisher sends, refuses the keys it is told
// to, freezes and thaws, and leaves nothing behind; the throttling proxy
// delivers every byte both ways, holds the uplink to its rate, and passes a
// close on.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <librtmp/log.h>
#include <librtmp/rtmp.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "platform/Clock.h"
#include "tests/e2e/RtmpServer.h"
#include "tests/e2e/ThrottledProxy.h"

namespace kestrium::test {
namespace {

// A loopback TCP socket, closed at the end.
class Socket {
 public:
  explicit Socket(int fd = -1) : fd_(fd) {}
  ~Socket() { close(); }
  Socket(Socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    close();
    fd_ = std::exchange(other.fd_, -1);
    return *this;
  }
  int fd() const { return fd_; }
  void close() {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }
  // Ends both directions at once, which also wakes a thread blocked in send.
  void shutdown() const { ::shutdown(fd_, SHUT_RDWR); }

  static Socket connectTo(uint16_t port) {
    Socket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in addr = loopbackAddress(port);
    if (::connect(s.fd(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) s.close();
    return s;
  }
  static sockaddr_in loopbackAddress(uint16_t port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(port);
    return addr;
  }

  bool sendAll(const uint8_t* data, size_t size) const {
    while (size > 0) {
      const ssize_t n = ::send(fd_, data, size, MSG_NOSIGNAL);
      if (n <= 0) return false;
      data += n;
      size -= static_cast<size_t>(n);
    }
    return true;
  }
  // Up to size bytes, waiting at most timeoutMs for each read: fewer at an end
  // of the stream or a timeout.
  std::vector<uint8_t> receive(size_t size, int timeoutMs) const {
    std::vector<uint8_t> got(size);
    size_t have = 0;
    while (have < size) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, timeoutMs) <= 0) break;
      const ssize_t n = ::recv(fd_, got.data() + have, size - have, 0);
      if (n <= 0) break;
      have += static_cast<size_t>(n);
    }
    got.resize(have);
    return got;
  }
  // Whether the peer closed (an end of stream or a reset) within timeoutMs,
  // discarding whatever arrives before.
  bool closedWithin(int timeoutMs) const {
    const uint64_t until = platform::monotonicNs() + uint64_t(timeoutMs) * 1'000'000;
    uint8_t sink[4096];
    while (platform::monotonicNs() < until) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 10) <= 0) continue;
      if (::recv(fd_, sink, sizeof sink, 0) <= 0) return true;
    }
    return false;
  }

 private:
  int fd_;
};

// A listening socket on a free loopback port: the far end of the proxy.
class Listener {
 public:
  Listener() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in addr = Socket::loopbackAddress(0);
    socklen_t len = sizeof addr;
    ::bind(socket_.fd(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::listen(socket_.fd(), 4);
    ::getsockname(socket_.fd(), reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
  }
  uint16_t port() const { return port_; }
  Socket accept(int timeoutMs = 5000) const {
    pollfd p{socket_.fd(), POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) <= 0) return Socket();
    return Socket(::accept4(socket_.fd(), nullptr, nullptr, SOCK_CLOEXEC));
  }

 private:
  Socket socket_;
  uint16_t port_ = 0;
};

bool waitUntil(const std::function<bool()>& done, int timeoutMs) {
  const uint64_t until = platform::monotonicNs() + uint64_t(timeoutMs) * 1'000'000;
  while (!done()) {
    if (platform::monotonicNs() >= until) return false;
    platform::sleepMs(5);
  }
  return true;
}

std::vector<uint8_t> randomBytes(size_t size, uint32_t seed) {
  std::mt19937 gen(seed);
  std::vector<uint8_t> bytes(size);
  for (auto& b : bytes) b = static_cast<uint8_t>(gen());
  return bytes;
}

// The start of an RTMP handshake, C0 and C1: a server that runs answers with
// S0 (the version, 3) at once.
bool answersHandshake(uint16_t port, int timeoutMs) {
  const Socket s = Socket::connectTo(port);
  std::vector<uint8_t> c0c1(1 + 1536, 0);
  c0c1[0] = 3;
  if (!s.sendAll(c0c1.data(), c0c1.size())) return false;
  const std::vector<uint8_t> s0 = s.receive(1, timeoutMs);
  return s0.size() == 1 && s0[0] == 3;
}

std::set<std::string> sharedMemoryNames() {
  std::set<std::string> names;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ec)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

// Sockets a process holds: nginx's listening socket and its connections.
int socketsOf(uint32_t pid) {
  int n = 0;
  std::error_code ec;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec)) {
    std::error_code linkError;
    n += std::filesystem::read_symlink(fd.path(), linkError).string().rfind("socket:", 0) == 0;
  }
  return n;
}

class RtmpServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!RtmpServer::available()) GTEST_SKIP() << RtmpServer::whyUnavailable();
    ASSERT_TRUE(rtmp_.start()) << rtmp_.why();
  }
  RtmpServer rtmp_;
};

// Up, it answers on its loopback port and listens nowhere else; stopped, its
// process is gone and so, with the object, is its folder; nothing of it is
// left in /dev/shm.
TEST_F(RtmpServerTest, AnswersOnItsPortAndLeavesNothingBehind) {
  const std::set<std::string> shmBefore = sharedMemoryNames();
  std::optional<RtmpServer> other(std::in_place);
  ASSERT_TRUE(other->start()) << other->why();
  const uint32_t pid = other->pid();
  const std::filesystem::path folder = other->folder();
  EXPECT_NE(other->port(), rtmp_.port());
  EXPECT_EQ(other->url(), "rtmp://127.0.0.1:" + std::to_string(other->port()) + "/live");
  EXPECT_EQ(socketsOf(pid), 2) << "nginx listens on more than its RTMP port and the port it asks about keys";
  EXPECT_TRUE(answersHandshake(other->port(), 5000)) << other->errorLog();
  EXPECT_NE(other->errorLog().find("[debug]"), std::string::npos) << "no debug log";

  ASSERT_TRUE(other->stop());
  EXPECT_FALSE(other->running());
  EXPECT_FALSE(std::filesystem::exists("/proc/" + std::to_string(pid)));
  EXPECT_FALSE(std::filesystem::exists(folder / "nginx.pid"));
  EXPECT_FALSE(answersHandshake(other->port(), 200));
  other.reset();
  EXPECT_FALSE(std::filesystem::exists(folder));
  for (const std::string& name : sharedMemoryNames()) {
    // Other tests of this run make kernel objects of their own meanwhile.
    if (!shmBefore.contains(name) && name.rfind("kestrium.", 0) != 0) ADD_FAILURE() << "left in /dev/shm: " << name;
  }
}

// A server that cannot start says why, with nginx's own words, and leaves no
// process behind.
TEST(RtmpServerStartTest, SaysWhyItDidNotStart) {
  if (!RtmpServer::available()) GTEST_SKIP() << RtmpServer::whyUnavailable();
  RtmpServer broken;
  EXPECT_FALSE(broken.start("no_such_directive on;"));
  EXPECT_NE(broken.why().find("unknown directive \"no_such_directive\""), std::string::npos) << broken.why();
  EXPECT_FALSE(broken.running());
}

// Paused, the kernel still takes the connection but nothing answers; resumed,
// the waiting handshake is answered. The destructor stops a paused server too.
TEST_F(RtmpServerTest, PauseFreezesItUntilResume) {
  ASSERT_TRUE(rtmp_.pause());
  const Socket s = Socket::connectTo(rtmp_.port());
  ASSERT_GE(s.fd(), 0);
  std::vector<uint8_t> c0c1(1 + 1536, 0);
  c0c1[0] = 3;
  ASSERT_TRUE(s.sendAll(c0c1.data(), c0c1.size()));
  EXPECT_TRUE(s.receive(1, 300).empty());
  ASSERT_TRUE(rtmp_.resume());
  const std::vector<uint8_t> s0 = s.receive(1, 5000);
  ASSERT_EQ(s0.size(), 1u);
  EXPECT_EQ(s0[0], 3);
  ASSERT_TRUE(rtmp_.pause());
}

// A publisher written with plain librtmp calls: connect, publish, a few tags of
// 16-bit PCM, close. It reports how far it got, and how many tags went out
// before an error.
struct Publish {
  bool connected = false;
  bool published = false;
  int tagsSent = 0;
};
Publish publishPcm(const std::string& url, int tags) {
  RTMP_LogSetLevel(RTMP_LOGCRIT);
  Publish result;
  std::string link = url;  // librtmp points into it: it outlives the RTMP object
  RTMP* r = RTMP_Alloc();
  RTMP_Init(r);
  r->Link.timeout = 5;
  if (RTMP_SetupURL(r, link.data())) {
    RTMP_EnableWrite(r);
    result.connected = RTMP_Connect(r, nullptr) != 0;
    // Chunks of 4096 bytes instead of 128, announced before they are used.
    RTMPPacket chunkSize{};
    char body[RTMP_MAX_HEADER_SIZE + 4] = {};
    chunkSize.m_nChannel = 2;
    chunkSize.m_headerType = RTMP_PACKET_SIZE_LARGE;
    chunkSize.m_packetType = RTMP_PACKET_TYPE_CHUNK_SIZE;
    chunkSize.m_nBodySize = 4;
    chunkSize.m_body = body + RTMP_MAX_HEADER_SIZE;
    AMF_EncodeInt32(chunkSize.m_body, chunkSize.m_body + 4, 4096);
    if (result.connected && RTMP_SendPacket(r, &chunkSize, FALSE)) r->m_outChunkSize = 4096;
    result.published = result.connected && RTMP_ConnectStream(r, 0) != 0;
    // 100 ms of 44.1 kHz 16-bit mono each (sound format 3: PCM, little-endian).
    constexpr uint32_t kBody = 1 + 4410 * 2;
    const std::vector<uint8_t> samples = randomBytes(kBody - 1, 7);
    for (int i = 0; result.published && i < tags; ++i) {
      const uint32_t ms = static_cast<uint32_t>(i) * 100;
      std::vector<uint8_t> tag = {8,
                                  uint8_t(kBody >> 16), uint8_t(kBody >> 8), uint8_t(kBody),
                                  uint8_t(ms >> 16),    uint8_t(ms >> 8),    uint8_t(ms), uint8_t(ms >> 24),
                                  0, 0, 0,
                                  0x3E};
      tag.insert(tag.end(), samples.begin(), samples.end());
      const uint32_t size = 11 + kBody;
      tag.insert(tag.end(), {uint8_t(size >> 24), uint8_t(size >> 16), uint8_t(size >> 8), uint8_t(size)});
      if (RTMP_Write(r, reinterpret_cast<const char*>(tag.data()), static_cast<int>(tag.size())) <= 0) break;
      ++result.tagsSent;
    }
  }
  RTMP_Close(r);
  RTMP_Free(r);
  return result;
}

bool haveFfprobe() { return !std::string(KESTRIUM_FFPROBE).empty(); }

// The audio stream of a recording and its packets, as ffprobe reads them.
std::string probeRecording(const std::filesystem::path& file) {
  std::string out;
  EXPECT_EQ(runTool(KESTRIUM_FFPROBE,
                    {"-v", "error", "-count_packets", "-show_entries",
                     "stream=codec_name,sample_rate,channels,nb_read_packets", "-of", "default=nw=1", file.string()},
                    out),
            0)
      << out;
  return out;
}

// What a publisher sends to "live" under a key is in that key's FLV once the
// publisher is gone, as ffprobe reads it: every tag, in the format it was sent.
TEST_F(RtmpServerTest, RecordsAPublishedStreamUnderItsKey) {
  signal(SIGPIPE, SIG_IGN);  // librtmp sends without MSG_NOSIGNAL
  const Publish p = publishPcm(rtmp_.url() + "/game", 30);
  ASSERT_TRUE(p.published) << rtmp_.errorLog();
  EXPECT_EQ(p.tagsSent, 30);
  ASSERT_TRUE(rtmp_.waitForRecordingClosed("game", 10000)) << rtmp_.errorLog();
  // The debug log shows what arrived, for the tests of a publisher's own.
  EXPECT_TRUE(rtmp_.waitForLog("setting chunk_size=4096", 1000));
  if (!haveFfprobe()) GTEST_SKIP() << "no ffprobe";
  const std::string out = probeRecording(rtmp_.recordingOf("game"));
  EXPECT_NE(out.find("codec_name=pcm_s16le"), std::string::npos) << out;
  EXPECT_NE(out.find("sample_rate=44100"), std::string::npos) << out;
  EXPECT_NE(out.find("nb_read_packets=30"), std::string::npos) << out;
  EXPECT_NE(rtmp_.accessLog().find("game"), std::string::npos) << rtmp_.accessLog();
}

// A refused key is refused before the stream starts: no Publish.Start, no
// recording; accepted again, the same key publishes.
TEST_F(RtmpServerTest, RefusesAKeyUntilAcceptedAgain) {
  signal(SIGPIPE, SIG_IGN);
  rtmp_.refuseKey("game");
  const Publish refused = publishPcm(rtmp_.url() + "/game", 5);
  EXPECT_TRUE(refused.connected) << rtmp_.errorLog();
  EXPECT_FALSE(refused.published) << rtmp_.errorLog();
  EXPECT_FALSE(std::filesystem::exists(rtmp_.recordingOf("game")));
  EXPECT_TRUE(publishPcm(rtmp_.url() + "/other", 1).published) << rtmp_.errorLog();
  rtmp_.acceptKey("game");
  EXPECT_TRUE(publishPcm(rtmp_.url() + "/game", 1).published) << rtmp_.errorLog();
}

// ---------------------------------------------------------------------------
// The proxy, between a client and a plain loopback server of the test's own.

struct Connected {
  Listener far;
  std::unique_ptr<ThrottledProxy> proxy;
  Socket client;
  Socket server;
};
void connectThrough(Connected& c, uint64_t rate) {
  c.proxy = std::make_unique<ThrottledProxy>(c.far.port(), rate);
  ASSERT_TRUE(c.proxy->up()) << c.proxy->why();
  c.client = Socket::connectTo(c.proxy->port());
  ASSERT_GE(c.client.fd(), 0);
  c.server = c.far.accept();
  ASSERT_GE(c.server.fd(), 0);
}

// Every byte arrives, in order, both ways at once, throttled or not; the
// counters say how many went each way.
class ProxyRateTest : public ::testing::TestWithParam<uint64_t> {};
INSTANTIATE_TEST_SUITE_P(Rates, ProxyRateTest, ::testing::Values(0u, 2'000'000u),
                         [](const auto& info) { return info.param == 0 ? "Unlimited" : "Throttled"; });

TEST_P(ProxyRateTest, ForwardsEveryByteBothWays) {
  Connected c;
  ASSERT_NO_FATAL_FAILURE(connectThrough(c, GetParam()));
  const std::vector<uint8_t> up = randomBytes(1 << 20, 1);
  const std::vector<uint8_t> down = randomBytes(3 << 20, 2);
  std::vector<uint8_t> gotUp;
  std::vector<uint8_t> gotDown;
  std::thread serverSide([&] {
    std::thread reader([&] { gotUp = c.server.receive(up.size(), 5000); });
    c.server.sendAll(down.data(), down.size());
    reader.join();
  });
  std::thread clientReader([&] { gotDown = c.client.receive(down.size(), 5000); });
  EXPECT_TRUE(c.client.sendAll(up.data(), up.size()));
  clientReader.join();
  serverSide.join();
  EXPECT_TRUE(gotUp == up) << gotUp.size() << " of " << up.size() << " bytes up";
  EXPECT_TRUE(gotDown == down) << gotDown.size() << " of " << down.size() << " bytes down";
  // The proxy counts a byte once its send returned, which may be after the
  // receiver has it.
  waitUntil([&] { return c.proxy->bytesUp() >= up.size() && c.proxy->bytesDown() >= down.size(); }, 5000);
  EXPECT_EQ(c.proxy->bytesUp(), up.size());
  EXPECT_EQ(c.proxy->bytesDown(), down.size());
  EXPECT_EQ(c.proxy->accepted(), 1u);
}

// A client that sends as fast as it can gets through at the rate, give or
// take a quarter (a behaviour check of the throttle, on a busy machine), also
// after the rate changed under way; and the proxy holds only a few small
// buffers of its bytes: the rest waits in the client's own socket, where its
// sends block.
struct RateCase {
  const char* name;
  uint64_t first;  // the rate the connection starts with
  uint64_t rate;   // the rate set before the measurement
};
class ProxyThrottleTest : public ::testing::TestWithParam<RateCase> {};
INSTANTIATE_TEST_SUITE_P(Uplinks, ProxyThrottleTest,
                         ::testing::Values(RateCase{"OneMegabit", 125'000, 125'000},
                                           RateCase{"RaisedToFourMegabits", 125'000, 500'000}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(ProxyThrottleTest, HoldsTheUplinkToItsRate) {
  const RateCase& r = GetParam();
  const uint64_t kRate = r.rate;
  Connected c;
  ASSERT_NO_FATAL_FAILURE(connectThrough(c, r.first));
  std::atomic<bool> done{false};
  std::atomic<uint64_t> handed{0};
  std::thread sender([&] {
    const std::vector<uint8_t> block = randomBytes(4096, 3);
    while (!done && c.client.sendAll(block.data(), block.size())) handed += block.size();
  });
  std::thread sink([&] {
    while (!done) c.server.receive(65536, 100);
  });
  platform::sleepMs(500);  // past the start, when the buffers on the way fill
  c.proxy->setRate(kRate);
  platform::sleepMs(100);
  const uint64_t from = c.proxy->bytesUp();
  const uint64_t start = platform::monotonicNs();
  platform::sleepMs(2000);
  const double rate = double(c.proxy->bytesUp() - from) * 1e9 / double(platform::monotonicNs() - start);
  int queued = 0;  // in the client's send buffer, not yet taken by the proxy
  ioctl(c.client.fd(), TIOCOUTQ, &queued);
  const int64_t inProxy = int64_t(handed) - int64_t(c.proxy->bytesUp()) - queued;
  done = true;
  c.client.shutdown();
  sender.join();
  sink.join();
  EXPECT_NEAR(rate, double(kRate), 0.25 * kRate);
  EXPECT_LT(inProxy, 8 * 16384) << queued << " bytes queued in the client";
}

// A close at either end, or a cut by the proxy, reaches the other end; the
// proxy then has no connection open.
enum class Closer { Client, Server, Cut };
constexpr const char* kCloserNames[] = {"Client", "Server", "Cut"};
class ProxyCloseTest : public ::testing::TestWithParam<Closer> {};
INSTANTIATE_TEST_SUITE_P(Ends, ProxyCloseTest, ::testing::Values(Closer::Client, Closer::Server, Closer::Cut),
                         [](const auto& info) { return kCloserNames[static_cast<int>(info.param)]; });

TEST_P(ProxyCloseTest, ReachesTheOtherEnd) {
  Connected c;
  ASSERT_NO_FATAL_FAILURE(connectThrough(c, 125'000));
  const std::vector<uint8_t> hello = randomBytes(1000, 4);
  ASSERT_TRUE(c.client.sendAll(hello.data(), hello.size()));
  ASSERT_EQ(c.server.receive(hello.size(), 5000), hello);
  EXPECT_EQ(c.proxy->open(), 1u);
  switch (GetParam()) {
    case Closer::Client: {
      // The last bytes before the close still arrive, through the throttle,
      // ahead of the close: a publisher's last tags.
      const std::vector<uint8_t> last = randomBytes(40'000, 5);
      ASSERT_TRUE(c.client.sendAll(last.data(), last.size()));
      c.client.close();
      EXPECT_EQ(c.server.receive(last.size(), 5000), last);
      EXPECT_TRUE(c.server.closedWithin(5000));
      break;
    }
    case Closer::Server:
      c.server.close();
      EXPECT_TRUE(c.client.closedWithin(5000));
      break;
    case Closer::Cut:
      c.proxy->cutAll();
      EXPECT_TRUE(c.client.closedWithin(5000));
      EXPECT_TRUE(c.server.closedWithin(5000));
      break;
  }
  EXPECT_TRUE(waitUntil([&] { return c.proxy->open() == 0; }, 5000));
}

// The proxy in front of the real server, as the broadcast tests use it: a
// publish through it is recorded whole, and nginx counts the very bytes the
// proxy says it passed up.
TEST_F(RtmpServerTest, RecordsThroughAThrottledUplink) {
  signal(SIGPIPE, SIG_IGN);
  ThrottledProxy uplink(rtmp_.port(), 500'000);
  ASSERT_TRUE(uplink.up()) << uplink.why();
  ASSERT_TRUE(publishPcm(uplink.urlOf("live") + "/game", 30).published) << rtmp_.errorLog();
  ASSERT_TRUE(rtmp_.waitForRecordingClosed("game", 10000)) << rtmp_.errorLog();
  // nginx writes the session's line when the connection is gone.
  const std::string line = " PUBLISH \"live\" \"game\" \"\" - ";
  ASSERT_TRUE(waitUntil([&] { return rtmp_.accessLog().find(line) != std::string::npos; }, 5000))
      << rtmp_.accessLog();
  const std::string log = rtmp_.accessLog();
  std::istringstream counts(log.substr(log.find(line) + line.size()));
  uint64_t received = 0;
  counts >> received;
  // nginx leaves out the handshake: C0, C1 and C2. (Its count of bytes sent
  // takes in the last status messages, which it writes after the publisher
  // has gone, so that one cannot be compared.)
  EXPECT_EQ(uplink.bytesUp(), received + 1 + 1536 + 1536) << log;
  EXPECT_TRUE(waitUntil([&] { return uplink.open() == 0; }, 5000));
  if (!haveFfprobe()) GTEST_SKIP() << "no ffprobe";
  EXPECT_NE(probeRecording(rtmp_.recordingOf("game")).find("nb_read_packets=30"), std::string::npos);
}

}  // namespace
}  // namespace kestrium::test
