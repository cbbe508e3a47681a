#pragma once

// A real RTMP server for one test: nginx with its RTMP module, in a folder of
// its own, listening on a free loopback port. It records every stream published
// to its "live" application as an FLV file, refuses the stream keys a test
// names, and is stopped by its pid at the end. It runs on the build machine,
// started and stopped through /bin/sh, for the Windows tests under wine too.
//
//   RtmpServer rtmp;
//   if (!RtmpServer::available()) GTEST_SKIP() << RtmpServer::whyUnavailable();
//   ASSERT_TRUE(rtmp.start()) << rtmp.why();
//   ... publish to rtmp.url() with stream key "game" ...
//   ASSERT_TRUE(rtmp.waitForRecordingClosed("game", 10000)) << rtmp.errorLog();
//   probe rtmp.recordingOf("game") with ffprobe
//
// nginx's error log is written at debug level (Debian builds nginx with
// --with-debug): it shows every RTMP message that arrived, in order. A
// publisher's Set Chunk Size shows as "RTMP recv chunk_size" followed by
// "setting chunk_size=4096"; its connect as "connect: app='live' ..." and its
// publish as "publish: name='KEY' ...". Every connection starts with
// "setting chunk_size=128", nginx's own default for what it reads.

#include <cstdint>
#include <filesystem>
#include <string>

#include "tests/support/TestSupport.h"

namespace kestrium::test {

class RtmpServer {
 public:
  static constexpr const char* kNginx = "/usr/sbin/nginx";
  static constexpr const char* kModule = "/usr/lib/nginx/modules/ngx_rtmp_module.so";

  // Whether nginx and its RTMP module are installed; if not, the reason, for
  // GTEST_SKIP.
  static bool available() { return whyUnavailable().empty(); }
  static std::string whyUnavailable();

  RtmpServer() = default;
  // Stops the server if it still runs: SIGTERM, then SIGKILL if it will not go.
  ~RtmpServer();
  RtmpServer(const RtmpServer&) = delete;
  RtmpServer& operator=(const RtmpServer&) = delete;

  // Writes the configuration, starts nginx and waits until its port takes
  // connections. False with why() set if it did not come up within timeoutMs.
  bool start(uint32_t timeoutMs = 10000);
  // Stops it now (as the destructor does): the pid is gone when this returns
  // true. A recording is whole once its publisher has gone and
  // waitForRecordingClosed() said so: stop after that, not before.
  bool stop(uint32_t timeoutMs = 5000);

  bool running() const { return pid_ != 0; }
  uint16_t port() const { return port_; }
  // rtmp://127.0.0.1:PORT/live: the application that takes any stream key and
  // records it.
  std::string url() const { return urlOf("live"); }
  std::string urlOf(const std::string& application) const;

  // From now on, publishing under key to "live" is refused:
  // connect, createStream and the publish command go through, then nginx
  // closes the connection without sending NetStream.Publish.Start, and records
  // nothing. A publisher already on that key is not dropped. (Behind it: the
  // RTMP module's on_publish asks nginx's own http server on a second loopback
  // port, which answers 403 for a key with a file in the refused folder.)
  void refuseKey(const std::string& key);

  // The FLV file that "live" writes for a stream key: KEY.flv in the
  // recordings folder. It appears at publish and is made anew by each publish
  // of the same key.
  std::filesystem::path recordingOf(const std::string& key) const;
  std::filesystem::path recordingsFolder() const { return folder_.path() / "recordings"; }
  std::filesystem::path refusedFolder() const { return folder_.path() / "refused"; }
  // True once the recording of key exists and nginx no longer holds it open:
  // nginx closes it when the publisher unpublishes or its connection ends (or,
  // with a silent publisher, after drop_idle_publisher). False after timeoutMs.
  // Use a key once per test: a file left from an earlier publish of the same
  // key counts as closed until the next publish has reached nginx.
  bool waitForRecordingClosed(const std::string& key, uint32_t timeoutMs) const;

  // The text of nginx's error log so far (debug level).
  std::string errorLog() const;
  // True once the error log holds text, e.g. "publish: name='game'" when nginx
  // has taken a publish command; false after timeoutMs.
  bool waitForLog(const std::string& text, uint32_t timeoutMs) const;
  const std::string& why() const { return why_; }

 private:
  bool startOnce(uint32_t timeoutMs, bool& portTaken);

  TempFolder folder_{"-nginx"};
  uint32_t pid_ = 0;  // nginx's, on the build machine; 0 when it does not run
  uint16_t port_ = 0;
  uint16_t notifyPort_ = 0;
  std::string why_;
};

}  // namespace kestrium::test
