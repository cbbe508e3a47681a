#include "broadcast/RTMPPublisher.h"

#include <librtmp/rtmp.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <semaphore>
#include <string>

#include "broadcast/FlvTags.h"
#include "broadcast/RtmpConnection.h"
#include "broadcast/SendQueue.h"
#include "platform/Clock.h"
#include "platform/Socket.h"
#include "platform/Text.h"
#include "platform/Thread.h"
#include "platform/Wait.h"
#include "recorder/BroadcastInfo.h"
#include "server/Log.h"

namespace kestrium {

namespace {

// RTMP message types and the chunk streams the media go on.
constexpr int kAudioMessage = 8;
constexpr int kVideoMessage = 9;
constexpr int kDataMessage = 18;
constexpr int kDataChannel = 3;
constexpr int kVideoChannel = 4;
constexpr int kAudioChannel = 5;
constexpr int kLargeHeader = 0;
constexpr int kMediumHeader = 1;

constexpr int32_t kChunkSize = 4096;
constexpr int kLeastSendBuffer = 65536;
constexpr size_t kLeastByteBuffer = 0x20000;
constexpr size_t kReadBlock = 16384;
// The socket thread stops writing when this little is left: the rest goes with
// the next packet, in a fuller segment.
constexpr size_t kSendRemainder = 1000;

// How long the end of a broadcast waits for each thread before it gives up on it.
constexpr uint32_t kSendThreadPatienceMs = 50000;
constexpr uint32_t kSendThreadGraceMs = 10000;
constexpr uint32_t kSocketThreadPatienceMs = 60000;
// At the end, what is still in the byte buffer gets this long to leave; a link
// that takes nothing any more must not hold up the end of the capture.
constexpr uint32_t kDrainMs = 5000;
constexpr uint32_t kDropLogMs = 10000;
// A server that takes nothing for this long while bytes wait (it hangs, or its
// window stays shut) is given up: the send queue, which keeps key frames and
// sound whatever the drops do, would otherwise grow for as long as the capture runs.
constexpr uint32_t kStallGiveUpMs = 30000;
// The byte buffer holds a second of the stream, up to this rate.
constexpr uint64_t kLargestKbps = 100000;

}  // namespace

struct RTMPPublisher::Core {
  explicit Core(Settings s) : settings(s) {
    // Where to and how fast are taken now: the block is the process's, and the
    // next capture that starts a broadcast writes its own into it.
    SharedBroadcastInfo& shared = broadcastInfo();
    std::lock_guard guard(shared.lock);
    address = shared.info.address;
    stream = shared.info.stream;
    kbps = uint64_t{shared.info.videoBitrate} + shared.info.audioBitrate;
  }

  Settings settings;
  std::u16string address, stream;
  uint64_t kbps = 0;

  // The recorder's thread alone.
  InterleaveQueue interleave;
  std::vector<std::byte> streamHeader;

  // Under queueLock.
  std::mutex queueLock;
  SendQueue sendQueue;
  std::vector<std::byte> avcConfiguration;
  bool metadataSent = false;
  uint32_t dropsLogged = 0;  // drops counted in the log so far
  uint32_t lastDropLog = 0;
  std::counting_semaphore<0x7FFFFFFF> sendSignal{0};

  std::atomic<bool> connectionStarted{false};
  std::atomic<bool> connectionRunning{false};  // the connection thread's body has not returned
  std::atomic<bool> connected{false};
  std::atomic<bool> stopping{false};
  std::atomic<bool> sendLoopExit{false};
  std::atomic<bool> socketLoopExit{false};
  // The connection is gone (closed by the server, or a write failed): what the
  // library still writes vanishes, and nothing waits for room any more.
  std::atomic<bool> linkLost{false};

  // Guards the creation and the end of the connection while it is being made.
  std::mutex rtmpLock;
  std::unique_ptr<RtmpConnection> rtmp;

  platform::Thread connectionThread;
  platform::Thread sendThread;
  platform::Thread socketThread;
  bool abandoned = false;

  // The byte buffer under librtmp.
  std::mutex bufferLock;
  std::condition_variable bufferSpace;
  std::vector<std::byte> buffer;
  size_t bufferBytes = 0;
  bool discardedAtEnd = false;  // the end cut a packet short: no orderly close

  // Counters, read by the recorder's thread without a lock.
  std::atomic<uint64_t> bytesSent{0};
  std::atomic<double> fillPercent{0.0};
  std::atomic<uint32_t> dropped{0};
  std::atomic<uint32_t> videoFramesSent{0};
  // Send statistics.
  uint32_t stalls = 0;
  uint64_t bytesStalled = 0;
  uint32_t packetsLost = 0;

  // Low-latency pacing of the socket thread: nothing selects it, so mode 0.
  int lowLatencyMode = 0;
  int lowLatencyFactor = 0;

  uint64_t connectStartNs = 0;
  std::atomic<uint32_t> publishMs{0};
  std::atomic<uint32_t> firstPacketMs{0};

  // --- recorder's thread ---------------------------------------------------

  void queueFrame(std::vector<std::byte> block, uint32_t timestamp, int type) {
    if (!connected && !connectionStarted && !stopping) {
      connectionStarted = true;
      connectionRunning = true;
      if (!connectionThread.start([this] { connect(); }, "kestrium-rtmpcon")) {
        logLine(u"[Error]   RTMP: creating thread\n");
        connectionRunning = false;
        stopping = true;
      }
    }
    std::vector<QueuedFrame> released;
    interleave.push(QueuedFrame{std::move(block), timestamp, type, 0}, connected, released);
    for (QueuedFrame& f : released) sendStage(std::move(f));
  }

  void sendStage(QueuedFrame frame) {
    std::lock_guard guard(queueLock);
    if (avcConfiguration.empty()) {
      SharedBroadcastInfo& shared = broadcastInfo();
      std::lock_guard infoGuard(shared.lock);
      avcConfiguration = flv::avcConfigurationBlock(shared.info.sps, shared.info.pps);
    }
    if (!connected) return;
    serviceQueue();
    // The frame goes out as soon as the send thread can take it, not with the next one.
    if (sendQueue.admit(std::move(frame), streamHeader)) sendSignal.release();
    videoFramesSent = sendQueue.counters().videoFramesSeen;
    dropped = sendQueue.counters().droppedReference + sendQueue.counters().droppedOther;
  }

  // Under queueLock.
  void serviceQueue() {
    if (!metadataSent) {
      if (stopping) {
        if (!sendQueue.empty()) sendSignal.release();
        return;
      }
      sendOpening();
      metadataSent = true;
    }
    if (!stopping && !sendQueue.empty()) {
      const uint32_t before = sendQueue.counters().droppedReference + sendQueue.counters().droppedOther;
      const bool wantKey = sendQueue.applyDropRules(platform::tickCountMs(), interleave.audioOffset());
      const uint32_t after = sendQueue.counters().droppedReference + sendQueue.counters().droppedOther;
      if (after != before) noteDrops(after);
      if (wantKey) wantKeyFrame(1000);
    }
    if (!sendQueue.empty()) sendSignal.release();
  }

  // Under lasting congestion a round of drops runs every second or so: the log
  // hears of them at most every ten seconds.
  void noteDrops(uint32_t total) {
    const uint32_t now = platform::tickCountMs();
    if (dropsLogged != 0 && now - lastDropLog < kDropLogMs) return;
    logLine(u"[Warning] RTMP: the link is behind: %u frames dropped (%u in all)\n", total - dropsLogged, total);
    dropsLogged = total;
    lastDropLog = now;
  }

  // The three packets that open the stream, sent at once, each on its own:
  // one that fails is logged and the stream goes on without it.
  void sendOpening() {
    BroadcastInfo info;
    {
      SharedBroadcastInfo& shared = broadcastInfo();
      std::lock_guard guard(shared.lock);
      info = shared.info;
    }
    std::vector<std::byte> metadata = flv::metadataBlock(info);
    if (metadata.empty() || !rtmp->sendPacket(kLargeHeader, kDataMessage, kDataChannel, 0, metadata)) {
      logLine(u"[Error]   Error 1\n");
      return;
    }
    std::vector<std::byte> audioHeader = flv::audioHeaderBlock(info.aacConfiguration);
    // A capture without sound has no configuration: an AAC header that names
    // none makes players refuse the whole stream, so none goes out.
    if (info.aacConfiguration != 0 && !rtmp->sendPacket(kLargeHeader, kAudioMessage, kAudioChannel, 0, audioHeader)) {
      logLine(u"[Error]   Error 2\n");
      return;
    }
    if (!rtmp->sendPacket(kLargeHeader, kVideoMessage, kVideoChannel, 0, avcConfiguration)) {
      logLine(u"[Error]   Error 3\n");
    }
  }

  // No encoder here takes a request for a key frame.
  void wantKeyFrame(uint32_t) {}

  // --- connection thread ---------------------------------------------------

  void connect() {
    attemptConnection();
    std::lock_guard guard(rtmpLock);
    connectionRunning = false;
  }

  void attemptConnection() {
    connectStartNs = platform::monotonicNs();
    {
      std::lock_guard guard(rtmpLock);
      rtmp = std::make_unique<RtmpConnection>();
    }
    if (!rtmp->setup(platform::toUtf8(address), platform::toUtf8(stream))) return fail();
    // No bind address: the OS picks the interface by its routes. (Nor is the
    // route looked up beforehand: nothing would use what it found.)
    RtmpConnection::Options options;
    options.noDelay = settings.noDelay;
    options.chunkSize = kChunkSize;
    if (stopping || !rtmp->connect(options)) {
      logLine(u"[Error]   Error 5\n");
      return fail();
    }
    logLine(u"  RTMP: Handshake time %d\n", rtmp->handshakeMs());
    if (stopping || !rtmp->connectStream()) {
      logLine(u"[Error]   Error 6\n");
      return fail();
    }
    publishMs = std::max<uint32_t>(1, static_cast<uint32_t>((platform::monotonicNs() - connectStartNs) / 1000000));
    wantKeyFrame(1000);
    if (!startMachinery()) return fail();
    connected = true;
    connectionStarted = false;
  }

  void fail() {
    {
      std::lock_guard guard(rtmpLock);
      rtmp.reset();
      connectionRunning = false;
    }
    logLine(u"[Error]   Error 7\n");
    stopping = true;
  }

  // False when the stream cannot be carried: without the hook librtmp would
  // write to a socket that the socket thread keeps non-blocking, and without
  // either thread nothing would leave the send queue, which would only grow.
  bool startMachinery() {
    if (!platform::sendHookEffective() || !rtmp->installHook(&Core::hook, this)) {
      logLine(u"[Error]   RTMP: the send hook cannot be put in place\n");
      return false;
    }
    platform::TcpSocket& socket = rtmp->socket();
    if (socket.sendBuffer() < kLeastSendBuffer) socket.setSendBuffer(kLeastSendBuffer);
    // Clamped: the bit rates come from the client, and a wild one must not
    // ask for gigabytes.
    const uint64_t rate = std::min(kbps, kLargestKbps);
    buffer.resize(std::max<size_t>(static_cast<size_t>(rate / 8 * 1024), kLeastByteBuffer));
    if (!sendThread.start([this] { sendLoop(); }, "kestrium-rtmpsnd")) {
      logLine(u"RTMPPublisher: Could not create send thread");
      return false;
    }
    if (!socketThread.start([this] { socketLoop(); }, "kestrium-rtmpsck")) {
      logLine(u"[Error]   RTMP: creating thread\n");
      return false;
    }
    return true;
  }

  // --- send thread ---------------------------------------------------------

  void sendLoop() {
    for (;;) {
      sendSignal.acquire();
      std::unique_lock guard(queueLock);
      QueuedFrame frame;
      while (!stopping && sendQueue.takeFirst(frame)) {
        guard.unlock();
        const bool audio = frame.type == NetworkStream::kAudio;
        const bool sent = rtmp->sendPacket(kMediumHeader, audio ? kAudioMessage : kVideoMessage,
                                           audio ? kAudioChannel : kVideoChannel, frame.timestamp, frame.block);
        if (!sent || linkLost) packetLost(sent);
        if (firstPacketMs == 0) {
          firstPacketMs = std::max<uint32_t>(1, static_cast<uint32_t>((platform::monotonicNs() - connectStartNs) / 1000000));
        }
        frame.block = {};
        guard.lock();
      }
      if (stopping && sendLoopExit) return;
    }
  }

  void packetLost(bool libraryTookIt) {
    // Logged once: after the connection is gone every packet would fail alike.
    if (packetsLost++ != 0) return;
    if (!libraryTookIt) logLine(u"  Error sending packet...\n");
    if (linkLost || !rtmp->isConnected()) logLine(u"[Error]   Error 13\n");
  }

  // librtmp's writes, once the stream is up: into the byte buffer, waiting for
  // room while it is full. This is where a slow link holds up the send thread,
  // so that the send queue grows and its drop rules see it.
  static int64_t hook(void* context, const std::byte* data, size_t size) {
    Core& c = *static_cast<Core*>(context);
    if (c.linkLost) return static_cast<int64_t>(size);
    std::unique_lock guard(c.bufferLock);
    bool counted = false;
    for (;;) {
      if (c.linkLost) return static_cast<int64_t>(size);
      const size_t room = c.buffer.size() - c.bufferBytes;
      // A write larger than the whole buffer goes in pieces, like any send().
      const size_t take = size < c.buffer.size() ? (size < room ? size : 0) : std::min(size, room);
      if (take > 0) {
        std::memcpy(c.buffer.data() + c.bufferBytes, data, take);
        c.bufferBytes += take;
        c.fillPercent = 100.0 * static_cast<double>(c.bufferBytes) / static_cast<double>(c.buffer.size());
        guard.unlock();
        c.rtmp->socket().wake();
        return static_cast<int64_t>(take);
      }
      if (c.sendLoopExit) {
        // The end of the broadcast: a link too slow to take the rest of this
        // packet must not hold up the end of the capture. The stream is cut
        // short, so it is not closed in order.
        c.discardedAtEnd = true;
        return static_cast<int64_t>(size);
      }
      if (!counted) {
        ++c.stalls;
        c.bytesStalled += size;
        counted = true;
      }
      c.bufferSpace.wait(guard);
    }
  }

  // --- socket thread -------------------------------------------------------

  void loseLink(bool report, const char16_t* line) {
    if (report && !stopping) logLine(line);
    linkLost = true;
    // Shut, not closed: the descriptor's number stays ours (and the hook's)
    // until the end.
    rtmp->socket().abort();
    std::lock_guard guard(bufferLock);
    bufferBytes = 0;
    fillPercent = 0.0;
    bufferSpace.notify_all();
  }

  void socketLoop() {
    platform::TcpSocket& socket = rtmp->socket();
    socket.setNonBlocking(true);
    // Linux has no notice of an ideal send backlog: it sizes the send buffer
    // itself from the link's measured rate, unless SO_SNDBUF was set, which is
    // done once above. So there is nothing to re-arm here.
    bool maySend = true;
    uint64_t drainDeadline = 0;
    uint64_t lastProgressNs = platform::monotonicNs();
    uint64_t sentBefore = bytesSent;
    std::vector<std::byte> scrap(kReadBlock);
    for (;;) {
      size_t pending;
      {
        std::lock_guard guard(bufferLock);
        pending = bufferBytes;
      }
      const uint64_t nowNs = platform::monotonicNs();
      if (pending == 0 || bytesSent != sentBefore) {
        lastProgressNs = nowNs;
        sentBefore = bytesSent;
      } else if (nowNs - lastProgressNs >= uint64_t{kStallGiveUpMs} * 1000000 && !stopping) {
        logLine(u"[Error]   RTMP: the server took nothing for %u s: the connection is given up\n", kStallGiveUpMs / 1000);
        loseLink(true, u"[Error]   Error 8\n");
        return;
      }
      if (stopping && socketLoopExit) {
        if (pending == 0) return;
        const uint64_t now = platform::monotonicNs();
        if (drainDeadline == 0) drainDeadline = now + uint64_t{kDrainMs} * 1000000;
        if (now >= drainDeadline) {
          logLine(u"[Warning] RTMP: %u bytes could not be sent before the end\n", static_cast<uint32_t>(pending));
          std::lock_guard guard(bufferLock);
          discardedAtEnd = true;
          bufferBytes = 0;
          bufferSpace.notify_all();
          return;
        }
      }
      // While bytes wait, the thread looks up each second to see whether any left.
      const uint32_t timeout = drainDeadline != 0 ? 100 : pending > 0 ? 1000 : platform::kInfinite;
      const uint32_t seen = socket.wait(!maySend && pending > 0, timeout);
      if ((seen & platform::kSocketError) != 0 && (seen & platform::kSocketReadable) == 0) {
        // The wait itself failed (or the socket reports an error with nothing to read).
        loseLink(true, u"[Error]   Error 9\n");
        return;
      }
      if ((seen & platform::kSocketWritable) != 0) maySend = true;
      if ((seen & (platform::kSocketReadable | platform::kSocketHungUp)) != 0) {
        // Nothing the server says after the start is of use; it is read so that
        // its window never fills.
        for (;;) {
          size_t got = 0;
          const platform::SocketStatus s = socket.receive(scrap, got);
          if (s == platform::SocketStatus::Done) continue;
          if (s == platform::SocketStatus::WouldBlock) break;
          if (s == platform::SocketStatus::Closed) {
            loseLink(true, u"[Error]   Error 11\n");
          } else {
            loseLink(true, u"[Error]   Error 8\n");
          }
          return;
        }
      }
      if (maySend && !drainOnce(socket, maySend)) return;
    }
  }

  // Writes from the byte buffer until it holds little or the socket is full.
  // False when the connection is lost.
  bool drainOnce(platform::TcpSocket& socket, bool& maySend) {
    size_t perSend = 0;
    uint32_t pauseMs = 0;
    for (;;) {
      std::unique_lock guard(bufferLock);
      if (bufferBytes == 0) break;
      perSend = bufferBytes;
      if (lowLatencyMode == 2) {
        perSend = std::min<size_t>(bufferBytes, 1460);
        pauseMs = static_cast<uint32_t>(1400 / std::max<size_t>(1, buffer.size() / 1000));
      } else if (lowLatencyMode == 1 && lowLatencyFactor > 2) {
        perSend = std::min<size_t>(bufferBytes, buffer.size() / static_cast<size_t>(lowLatencyFactor - 2));
        pauseMs = static_cast<uint32_t>(1000 / lowLatencyFactor);
      }
      size_t sent = 0;
      const platform::SocketStatus s = socket.send(std::span(buffer.data(), perSend), sent);
      if (s == platform::SocketStatus::WouldBlock) {
        maySend = false;
        break;
      }
      if (s != platform::SocketStatus::Done || sent == 0) {
        guard.unlock();
        loseLink(true, u"[Error]   Error 8\n");
        return false;
      }
      std::memmove(buffer.data(), buffer.data() + sent, bufferBytes - sent);
      bufferBytes -= sent;
      bytesSent += sent;
      fillPercent = 100.0 * static_cast<double>(bufferBytes) / static_cast<double>(buffer.size());
      bufferSpace.notify_all();
      if (bufferBytes <= kSendRemainder) break;
    }
    if (pauseMs != 0) platform::sleepMs(pauseMs);
    return true;
  }

  // --- the end -------------------------------------------------------------

  // False when a thread had to be abandoned: it may still use this object,
  // which must then stay alive.
  bool shutDown() {
    stopping = true;
    if (connectionThread.joinable()) {
      // Only an attempt still under way is cut short: a finished one leaves the
      // connection that the stream is on.
      {
        std::lock_guard guard(rtmpLock);
        if (rtmp && connectionRunning) rtmp->abort();
      }
      connectionThread.join(platform::kInfinite);
    }
    interleave.clear();
    if (sendThread.joinable()) {
      wakeSendThread();
      if (sendThread.join(kSendThreadPatienceMs) != platform::kWaitObject0) {
        loseLink(false, u"");
        wakeSendThread();
        if (sendThread.join(kSendThreadGraceMs) != platform::kWaitObject0) abandon(sendThread, u"send");
      }
    }
    if (socketThread.joinable()) {
      socketLoopExit = true;
      rtmp->socket().wake();
      if (socketThread.join(kSocketThreadPatienceMs) != platform::kWaitObject0) abandon(socketThread, u"socket");
    }
    if (abandoned) return false;
    logFigures();
    if (connected && rtmp) {
      const bool orderly = !linkLost && !discardedAtEnd;
      if (orderly) finishStream();
      rtmp->close(settings.closeWaitMs, orderly);
    }
    rtmp.reset();
    return true;
  }

  void wakeSendThread() {
    sendLoopExit = true;
    sendSignal.release();
    std::lock_guard guard(bufferLock);
    bufferSpace.notify_all();
  }

  void abandon(platform::Thread& thread, const char16_t* which) {
    logLine(u"[Warning] RTMP: the %s thread would not end and is left behind\n", std::u16string(which));
    thread.terminate();
    abandoned = true;
  }

  // What the socket thread left in the byte buffer goes out before the stream
  // is deleted, with the socket blocking again but within a bound.
  void finishStream() {
    platform::TcpSocket& socket = rtmp->socket();
    socket.setNonBlocking(true);
    const uint64_t deadline = platform::monotonicNs() + uint64_t{settings.closeWaitMs} * 1000000;
    size_t at = 0;
    while (at < bufferBytes && platform::monotonicNs() < deadline) {
      size_t sent = 0;
      const platform::SocketStatus s = socket.send(std::span(buffer.data() + at, bufferBytes - at), sent);
      if (s == platform::SocketStatus::Done) {
        at += sent;
        bytesSent += sent;
      } else if (s == platform::SocketStatus::WouldBlock) {
        socket.wait(true, 50);
      } else {
        break;
      }
    }
    bufferBytes = 0;
    socket.setNonBlocking(false);
  }

  void logFigures() {
    if (!connected) return;
    const SendQueue::Counters& c = sendQueue.counters();
    logLine(u"  RTMP: frames %u (video %u), dropped %u (of them reference or key frames %u), bytes sent %u, stalls %u "
            u"(%u bytes)\n",
            c.framesSeen, c.videoFramesSeen, c.droppedOther + c.droppedReference, c.droppedReference,
            static_cast<uint32_t>(bytesSent.load()), stalls, static_cast<uint32_t>(bytesStalled));
    if (packetsLost != 0) logLine(u"[Error]   RTMP: %u packets were not sent: the connection was gone\n", packetsLost);
  }
};

RTMPPublisher::RTMPPublisher() : RTMPPublisher(Settings{}) {}

RTMPPublisher::RTMPPublisher(Settings settings) : core_(std::make_unique<Core>(settings)) { clearRtmpErrorText(); }

RTMPPublisher::~RTMPPublisher() {
  if (!core_->shutDown()) {
    // A thread that had to be left behind still uses the core.
    static_cast<void>(core_.release());
    return;
  }
  clearRtmpErrorText();
}

void RTMPPublisher::setStreamHeader(std::span<const std::byte> header) {
  core_->streamHeader.assign(header.begin(), header.end());
}

void RTMPPublisher::sendFrame(std::span<const std::byte> data, uint32_t timestamp, int type) {
  if (core_->stopping) return;
  std::vector<std::byte> block =
      type == kAudio ? flv::audioFrameBlock(data) : flv::videoFrameBlock(data, type == kKeyFrame);
  queueFrame(std::move(block), timestamp, type);
}

void RTMPPublisher::queueFrame(std::vector<std::byte> block, uint32_t timestamp, int type) {
  core_->queueFrame(std::move(block), timestamp, type);
}

void RTMPPublisher::serviceQueue() {
  std::lock_guard guard(core_->queueLock);
  core_->serviceQueue();
}

void RTMPPublisher::clearInterleaveQueue() { core_->interleave.clear(); }
void RTMPPublisher::wantKeyFrame(uint32_t) {}
double RTMPPublisher::bufferFill() { return core_->fillPercent; }
uint64_t RTMPPublisher::bytesSent() { return core_->bytesSent; }
uint32_t RTMPPublisher::framesDropped() { return core_->dropped; }
uint32_t RTMPPublisher::framesSent() { return core_->videoFramesSent; }
bool RTMPPublisher::connected() const { return core_->connected; }
bool RTMPPublisher::stopping() const { return core_->stopping; }
uint32_t RTMPPublisher::connectToPublishMs() const { return core_->publishMs; }
uint32_t RTMPPublisher::connectToFirstPacketMs() const { return core_->firstPacketMs; }

}  // namespace kestrium
