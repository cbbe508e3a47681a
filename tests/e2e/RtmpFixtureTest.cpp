// The fixture of the broadcast tests, proved before they rely on it: nginx comes
// up on loopback, records what a publisher sends, refuses the keys it is told
// to, freezes and thaws, and leaves nothing behind.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <librtmp/log.h>
#include <librtmp/rtmp.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <random>
#include <set>
#include <thread>

#include "platform/Clock.h"
#include "tests/e2e/RtmpServer.h"

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
// 16-bit PCM, close. Returns how many tags went out before an error.
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

// What a publisher sends to "live" under a key is in that key's FLV once the
// publisher is gone, as ffprobe reads it: every tag, the full duration.
TEST_F(RtmpServerTest, RecordsAPublishedStreamUnderItsKey) {
  signal(SIGPIPE, SIG_IGN);  // librtmp sends without MSG_NOSIGNAL
  const Publish p = publishPcm(rtmp_.url() + "/game", 30);
  ASSERT_TRUE(p.published) << rtmp_.errorLog();
  EXPECT_EQ(p.tagsSent, 30);
  ASSERT_TRUE(rtmp_.waitForRecordingClosed("game", 10000)) << rtmp_.errorLog();
  // The debug log shows what arrived, for the tests of a publisher's own.
  EXPECT_NE(rtmp_.errorLog().find("setting chunk_size=4096"), std::string::npos);
  if (std::string(KESTRIUM_FFPROBE).empty()) GTEST_SKIP() << "no ffprobe";
  std::string out;
  ASSERT_EQ(runTool(KESTRIUM_FFPROBE,
                    {"-v", "error", "-count_packets", "-show_entries",
                     "stream=codec_name,sample_rate,channels,nb_read_packets:format=duration", "-of", "default=nw=1",
                     rtmp_.recordingOf("game").string()},
                    out),
            0)
      << out;
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

}  // namespace
}  // namespace kestrium::test
