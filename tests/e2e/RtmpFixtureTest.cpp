// The fixture of the broadcast tests, proved before they rely on it, so that a
// broadcast test that fails points at the publisher and not at the fixture:
// nginx comes up, records what a plain librtmp publisher sends, refuses the keys
// it is told to and leaves nothing behind; the throttling proxy delivers every
// byte both ways, holds the uplink to its rate and passes a close on.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <librtmp/log.h>
#include <librtmp/rtmp.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <random>
#include <sstream>
#include <thread>

#include "platform/Clock.h"
#include "tests/e2e/RtmpServer.h"
#include "tests/e2e/ThrottledProxy.h"

namespace kestrium::test {
namespace {

std::vector<uint8_t> randomBytes(size_t size, uint32_t seed) {
  std::mt19937 gen(seed);
  std::vector<uint8_t> bytes(size);
  for (auto& b : bytes) b = static_cast<uint8_t>(gen());
  return bytes;
}

int connectTo(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) return fd;
  ::close(fd);
  return -1;
}

// Up to size bytes, waiting at most timeoutMs for each read.
std::vector<uint8_t> receive(int fd, size_t size, int timeoutMs) {
  std::vector<uint8_t> got(size);
  size_t have = 0;
  for (pollfd p{fd, POLLIN, 0}; have < size && ::poll(&p, 1, timeoutMs) > 0;) {
    const ssize_t n = ::recv(fd, got.data() + have, size - have, 0);
    if (n <= 0) break;
    have += static_cast<size_t>(n);
  }
  got.resize(have);
  return got;
}

bool sendAll(int fd, const std::vector<uint8_t>& bytes) {
  for (size_t at = 0; at < bytes.size();) {
    const ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
    if (n <= 0) return false;
    at += static_cast<size_t>(n);
  }
  return true;
}

// A publisher written with plain librtmp calls: connect, announce chunks of
// 4096 bytes, publish, and tags of 100 ms of 44.1 kHz 16-bit PCM; whether the
// publish went through and how many tags went out.
std::pair<bool, int> publishPcm(const std::string& url, int tags) {
  signal(SIGPIPE, SIG_IGN);  // librtmp sends without MSG_NOSIGNAL
  RTMP_LogSetLevel(RTMP_LOGCRIT);
  std::string link = url;  // librtmp points into it: it outlives the RTMP object
  RTMP* r = RTMP_Alloc();
  RTMP_Init(r);
  r->Link.timeout = 5;
  bool published = false;
  int sent = 0;
  if (RTMP_SetupURL(r, link.data())) {
    RTMP_EnableWrite(r);
    const bool connected = RTMP_Connect(r, nullptr) != 0;
    RTMPPacket chunkSize{};
    char body[RTMP_MAX_HEADER_SIZE + 4] = {};
    chunkSize.m_nChannel = 2;
    chunkSize.m_headerType = RTMP_PACKET_SIZE_LARGE;
    chunkSize.m_packetType = RTMP_PACKET_TYPE_CHUNK_SIZE;
    chunkSize.m_nBodySize = 4;
    chunkSize.m_body = body + RTMP_MAX_HEADER_SIZE;
    AMF_EncodeInt32(chunkSize.m_body, chunkSize.m_body + 4, 4096);
    if (connected && RTMP_SendPacket(r, &chunkSize, FALSE)) r->m_outChunkSize = 4096;
    published = connected && RTMP_ConnectStream(r, 0) != 0;
    constexpr uint32_t kBody = 1 + 4410 * 2;
    const std::vector<uint8_t> samples = randomBytes(kBody - 1, 7);
    for (; published && sent < tags; ++sent) {
      const uint32_t ms = static_cast<uint32_t>(sent) * 100, size = 11 + kBody;
      std::vector<uint8_t> tag = {8, uint8_t(kBody >> 16), uint8_t(kBody >> 8), uint8_t(kBody), uint8_t(ms >> 16),
                                  uint8_t(ms >> 8), uint8_t(ms), uint8_t(ms >> 24), 0, 0, 0, 0x3E};
      tag.insert(tag.end(), samples.begin(), samples.end());
      tag.insert(tag.end(), {uint8_t(size >> 24), uint8_t(size >> 16), uint8_t(size >> 8), uint8_t(size)});
      if (RTMP_Write(r, reinterpret_cast<const char*>(tag.data()), static_cast<int>(tag.size())) <= 0) break;
    }
  }
  RTMP_Close(r);
  RTMP_Free(r);
  return {published, sent};
}

// Published straight or through a throttled proxy, as the broadcast tests do:
// every tag is in the key's FLV as ffprobe reads it, nginx counts the very bytes
// the proxy says it passed up, a refused key records nothing, and a stopped
// server leaves neither its process nor its folder. One that cannot start says
// why in nginx's own words.
TEST(RtmpServerTest, RecordsWhatIsPublishedRefusesKeysAndLeavesNothing) {
  if (!RtmpServer::available()) GTEST_SKIP() << RtmpServer::whyUnavailable();
  if (std::string(KESTRIUM_FFPROBE).empty()) GTEST_SKIP() << "no ffprobe";
  RtmpServer broken;
  EXPECT_FALSE(broken.start("no_such_directive on;"));
  EXPECT_NE(broken.why().find("unknown directive \"no_such_directive\""), std::string::npos) << broken.why();

  std::optional<RtmpServer> rtmp(std::in_place);
  ASSERT_TRUE(rtmp->start()) << rtmp->why();
  ThrottledProxy uplink(rtmp->port(), 500'000);
  ASSERT_TRUE(uplink.up()) << uplink.why();
  for (const std::string& url : {rtmp->url() + "/game", uplink.urlOf("live") + "/slow"}) {
    EXPECT_EQ(publishPcm(url, 30), std::make_pair(true, 30)) << url << rtmp->errorLog();
  }
  rtmp->refuseKey("refused");
  EXPECT_FALSE(publishPcm(rtmp->url() + "/refused", 5).first);
  EXPECT_FALSE(std::filesystem::exists(rtmp->recordingOf("refused")));
  for (const char* key : {"game", "slow"}) {
    ASSERT_TRUE(rtmp->waitForRecordingClosed(key, 10000)) << rtmp->errorLog();
    std::string out;
    EXPECT_EQ(runTool(KESTRIUM_FFPROBE,
                      {"-v", "error", "-count_packets", "-show_entries", "stream=codec_name,sample_rate,nb_read_packets",
                       "-of", "default=nw=1", rtmp->recordingOf(key).string()},
                      out),
              0);
    EXPECT_EQ(out, "codec_name=pcm_s16le\nsample_rate=44100\nnb_read_packets=30\n") << key;
  }
  EXPECT_TRUE(rtmp->waitForLog("setting chunk_size=4096", 1000)) << "the debug log shows what arrived";
  // nginx writes a session's line when its connection is gone, and leaves the
  // handshake out of its count: C0, C1 and C2.
  const std::string line = " PUBLISH \"live\" \"slow\" \"\" - ";
  for (int i = 0; i < 500 && rtmp->accessLog().find(line) == std::string::npos; ++i) platform::sleepMs(10);
  const std::string log = rtmp->accessLog();
  ASSERT_NE(log.find(line), std::string::npos) << log;
  uint64_t received = 0;
  std::istringstream(log.substr(log.find(line) + line.size())) >> received;
  EXPECT_EQ(uplink.bytesUp(), received + 1 + 1536 + 1536) << log;

  const uint32_t pid = rtmp->pid();
  const std::filesystem::path folder = rtmp->folder();
  const uint16_t port = rtmp->port();
  ASSERT_TRUE(rtmp->stop());
  EXPECT_FALSE(std::filesystem::exists("/proc/" + std::to_string(pid)));
  EXPECT_EQ(connectTo(port), -1) << "nothing listens any more";
  rtmp.reset();
  EXPECT_FALSE(std::filesystem::exists(folder));
}

// Between a client and a plain loopback server of the test's own, the uplink
// runs at its rate (give or take a quarter, on a busy machine) after the rate
// changed under way, and the proxy holds only a few small buffers of the bytes:
// the rest waits in the client's own socket, where its sends block. (That every
// byte arrives both ways and that a close is passed on behind the last bytes,
// the publish through the proxy above shows.)
TEST(ThrottledProxyTest, HoldsTheUplinkToItsRate) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ::listen(listener, 4);
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len);
  ThrottledProxy proxy(ntohs(addr.sin_port), 125'000);
  ASSERT_TRUE(proxy.up()) << proxy.why();
  const int client = connectTo(proxy.port());
  ASSERT_GE(client, 0);
  pollfd p{listener, POLLIN, 0};
  ASSERT_EQ(::poll(&p, 1, 5000), 1);
  const int server = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);

  std::atomic<bool> sending{true}, sinking{true};
  std::atomic<uint64_t> handed{0};
  std::thread sender([&] {
    const std::vector<uint8_t> block = randomBytes(4096, 3);
    while (sending && sendAll(client, block)) handed += block.size();
  });
  std::thread sink([&] {
    while (sinking) receive(server, 65536, 100);
  });
  platform::sleepMs(500);  // past the start, when the buffers on the way fill
  proxy.setRate(500'000);
  platform::sleepMs(100);
  const uint64_t from = proxy.bytesUp(), start = platform::monotonicNs();
  platform::sleepMs(2000);
  const double rate = double(proxy.bytesUp() - from) * 1e9 / double(platform::monotonicNs() - start);
  int queued = 0;  // in the client's send buffer, not yet taken by the proxy
  ioctl(client, TIOCOUTQ, &queued);
  const int64_t inProxy = int64_t(handed) - int64_t(proxy.bytesUp()) - queued;
  EXPECT_NEAR(rate, 500'000.0, 0.25 * 500'000);
  EXPECT_LT(inProxy, 8 * 16384) << queued << " bytes queued in the client";
  sending = false;
  ::shutdown(client, SHUT_RDWR);
  sender.join();
  sinking = false;
  sink.join();
  ::close(client);
  ::close(server);
  ::close(listener);
}

}  // namespace
}  // namespace kestrium::test
