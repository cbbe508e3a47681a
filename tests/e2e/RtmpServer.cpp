#include "tests/e2e/RtmpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "platform/Clock.h"

namespace kestrium::test {

namespace {

// A port that no one listened on a moment ago. Another process may take it
// before nginx does: start() then tries again with another.
uint16_t freeLoopbackPort() {
  const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s < 0) return 0;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  uint16_t port = 0;
  if (::bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      ::getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
    port = ntohs(addr.sin_port);
  }
  ::close(s);
  return port;
}

// A path as one argument of a directive, whatever the temporary folder holds.
std::string quoted(const std::filesystem::path& path) {
  std::string out = "\"";
  for (const char c : path.string()) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

std::string textOf(const std::filesystem::path& file) {
  const std::vector<char> bytes = readBytes(file);
  return {bytes.begin(), bytes.end()};
}

// The last lines of a long log, enough to show why nginx gave up.
std::string tailOf(const std::string& text, size_t lines = 30) {
  size_t at = text.size();
  while (lines-- > 0 && at > 0) {
    at = text.rfind('\n', at - 1);
    if (at == std::string::npos) return text;
  }
  return text.substr(at + 1);
}

}  // namespace

std::string RtmpServer::whyUnavailable() {
  if (!std::filesystem::exists(kNginx)) return std::string("no nginx at ") + kNginx + " (Debian: nginx-light)";
  if (!std::filesystem::exists(kModule)) {
    return std::string("no RTMP module at ") + kModule + " (Debian: libnginx-mod-rtmp)";
  }
  return {};
}

RtmpServer::~RtmpServer() { stop(); }

std::string RtmpServer::urlOf(const std::string& application) const {
  return "rtmp://127.0.0.1:" + std::to_string(port_) + "/" + application;
}

std::filesystem::path RtmpServer::recordingOf(const std::string& key) const {
  return recordingsFolder() / (key + ".flv");
}

std::string RtmpServer::errorLog() const { return textOf(folder_.path() / "error.log"); }
std::string RtmpServer::accessLog() const { return textOf(folder_.path() / "access.log"); }

bool RtmpServer::waitForLog(const std::string& text, uint32_t timeoutMs) const {
  const uint64_t until = platform::monotonicNs() + uint64_t{timeoutMs} * 1'000'000;
  for (;;) {
    if (errorLog().find(text) != std::string::npos) return true;
    if (platform::monotonicNs() >= until) return false;
    platform::sleepMs(10);
  }
}

bool RtmpServer::start(const std::string& extraLiveDirectives, uint32_t timeoutMs) {
  if (running()) return true;
  if (!available()) {
    why_ = whyUnavailable();
    return false;
  }
  std::filesystem::create_directories(recordingsFolder());
  std::filesystem::create_directories(refusedFolder());
  std::filesystem::create_directories(folder_.path() / "temp");
  // A port taken between our look and nginx's bind makes nginx give up (after
  // its own retries, about 2.5 s): try another a few times.
  for (int attempt = 0; attempt < 5; ++attempt) {
    bool portTaken = false;
    if (startOnce(extraLiveDirectives, timeoutMs, portTaken)) return true;
    if (!portTaken) return false;
  }
  return false;
}

bool RtmpServer::startOnce(const std::string& extraLiveDirectives, uint32_t timeoutMs, bool& portTaken) {
  port_ = freeLoopbackPort();
  notifyPort_ = freeLoopbackPort();
  if (port_ == 0 || notifyPort_ == 0 || port_ == notifyPort_) {
    why_ = "no free loopback ports";
    portTaken = port_ == notifyPort_;
    return false;
  }
  const std::filesystem::path dir = folder_.path();
  const auto config = dir / "nginx.conf";
  const auto pidFile = dir / "nginx.pid";
  const auto errorFile = dir / "error.log";
  const std::filesystem::path temp = dir / "temp";
  std::filesystem::remove(pidFile);
  std::filesystem::remove(errorFile);
  {
    std::ofstream out(config);
    // One process (no master, no workers, no daemon), so that its pid is the
    // child we started and SIGSTOP freezes all of it.
    out << "load_module " << kModule << ";\n"
        << "daemon off;\n"
        << "master_process off;\n"
        << "pid " << quoted(pidFile) << ";\n"
        << "error_log " << quoted(errorFile) << " debug;\n"
        << "events { worker_connections 256; }\n"
        // The RTMP module asks this http server whether a key may publish
        // (on_publish): a refused key is a file of that name in the refused
        // folder. It listens on loopback only, keeps its temporary files in
        // the folder and logs no requests.
        << "http {\n"
        << "  access_log off;\n"
        << "  client_body_temp_path " << quoted(temp / "body") << ";\n"
        << "  proxy_temp_path " << quoted(temp / "proxy") << ";\n"
        << "  fastcgi_temp_path " << quoted(temp / "fastcgi") << ";\n"
        << "  uwsgi_temp_path " << quoted(temp / "uwsgi") << ";\n"
        << "  scgi_temp_path " << quoted(temp / "scgi") << ";\n"
        << "  server {\n"
        << "    listen 127.0.0.1:" << notifyPort_ << ";\n"
        << "    location /publish {\n"
        << "      if (-f " << quoted(refusedFolder() / "$arg_name") << ") { return 403; }\n"
        << "      return 200;\n"
        << "    }\n"
        << "  }\n"
        << "}\n"
        << "rtmp {\n"
        << "  access_log " << quoted(dir / "access.log") << ";\n"
        << "  server {\n"
        << "    listen 127.0.0.1:" << port_ << ";\n"
        << "    chunk_size 4096;\n"
        << "    application live {\n"
        << "      live on;\n"
        << "      notify_method get;\n"
        << "      on_publish http://127.0.0.1:" << notifyPort_ << "/publish;\n"
        << "      record all;\n"
        << "      record_path " << quoted(recordingsFolder()) << ";\n"
        << "      record_unique off;\n"
        << "      meta copy;\n"
        << "      " << extraLiveDirectives << "\n"
        << "    }\n"
        << "  }\n"
        << "}\n";
    if (!out) {
      why_ = "cannot write " + config.string();
      return false;
    }
  }
  // -p with a trailing slash: nginx joins relative paths to it as they are.
  // -e: the log it writes before it has read the configuration, which would
  // otherwise be /var/log/nginx/error.log.
  if (!nginx_.start(kNginx, {"-p", dir.string() + "/", "-c", config.string(), "-e", errorFile.string()}, {},
                    dir / "nginx.out")) {
    why_ = std::string("cannot run ") + kNginx;
    return false;
  }
  const uint64_t until = platform::monotonicNs() + uint64_t{timeoutMs} * 1'000'000;
  while (platform::monotonicNs() < until) {
    if (const auto status = nginx_.wait(0)) {
      const std::string log = errorLog() + textOf(dir / "nginx.out");
      portTaken = log.find("Address already in use") != std::string::npos;
      why_ = "nginx ended at start with status " + std::to_string(*status) + ":\n" + tailOf(log);
      return false;
    }
    // nginx writes its pid file after it has bound and listens on every port
    // of the configuration: from then on connections are taken.
    std::ifstream in(pidFile);
    uint32_t pid = 0;
    if (in >> pid && pid == nginx_.id()) return true;
    platform::sleepMs(5);
  }
  why_ = "nginx did not come up within " + std::to_string(timeoutMs) + " ms:\n" + tailOf(errorLog());
  stop();
  return false;
}

bool RtmpServer::stop(uint32_t timeoutMs) {
  if (!running()) return true;
  // A stopped process keeps SIGTERM pending until it runs again.
  resume();
  // Asked first, so that it closes its recordings and removes its pid file.
  nginx_.requestStop();
  if (nginx_.wait(timeoutMs)) return true;
  nginx_.kill();
  return nginx_.wait(timeoutMs).has_value();
}

void RtmpServer::refuseKey(const std::string& key) { std::ofstream(refusedFolder() / key).put('\n'); }

void RtmpServer::acceptKey(const std::string& key) {
  std::error_code ec;
  std::filesystem::remove(refusedFolder() / key, ec);
}

bool RtmpServer::pause() {
  if (!running() || ::kill(static_cast<pid_t>(pid()), SIGSTOP) != 0) return false;
  paused_ = true;
  return true;
}

bool RtmpServer::resume() {
  if (!running() || !paused_) return false;
  if (::kill(static_cast<pid_t>(pid()), SIGCONT) != 0) return false;
  paused_ = false;
  return true;
}

bool RtmpServer::holdsOpen(const std::filesystem::path& file) const {
  if (!running()) return false;
  std::error_code ec;
  const auto target = std::filesystem::weakly_canonical(file, ec);
  for (const auto& fd : std::filesystem::directory_iterator("/proc/" + std::to_string(pid()) + "/fd", ec)) {
    std::error_code linkError;
    if (std::filesystem::read_symlink(fd.path(), linkError) == target) return true;
  }
  return false;
}

bool RtmpServer::waitForRecordingClosed(const std::string& key, uint32_t timeoutMs) const {
  const auto file = recordingOf(key);
  const uint64_t until = platform::monotonicNs() + uint64_t{timeoutMs} * 1'000'000;
  for (;;) {
    if (std::filesystem::exists(file) && !holdsOpen(file)) return true;
    if (platform::monotonicNs() >= until) return false;
    platform::sleepMs(10);
  }
}

}  // namespace kestrium::test
