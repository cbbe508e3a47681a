#include "tests/e2e/RtmpServer.h"

#include <fstream>
#include <random>
#include <sstream>

#include "platform/Clock.h"

namespace kestrium::test {

namespace {

// A loopback port to try. Another process may have it: nginx then fails to
// bind, and start() tries again with another.
uint16_t somePort() {
  static std::mt19937 pick{std::random_device()()};
  return static_cast<uint16_t>(std::uniform_int_distribution<int>(20000, 59999)(pick));
}

// Whether the build machine has that file, seen from here.
bool hostHas(const std::string& path) {
#ifdef _WIN32
  return std::filesystem::exists("Z:" + path);
#else
  return std::filesystem::exists(path);
#endif
}

// Polls of 10 ms for that many milliseconds.
std::string polls(uint32_t timeoutMs) { return std::to_string(timeoutMs / 10 + 1); }

// A path as one argument of a directive, whatever the temporary folder holds.
std::string quoted(const std::filesystem::path& path) {
  std::string out = "\"";
  for (const char c : hostPath(path)) {
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
  if (!hostHas(kNginx)) return std::string("no nginx at ") + kNginx + " (Debian: nginx-light)";
  if (!hostHas(kModule)) {
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

bool RtmpServer::waitForLog(const std::string& text, uint32_t timeoutMs) const {
  const uint64_t until = platform::monotonicNs() + uint64_t{timeoutMs} * 1'000'000;
  for (;;) {
    if (errorLog().find(text) != std::string::npos) return true;
    if (platform::monotonicNs() >= until) return false;
    platform::sleepMs(10);
  }
}

bool RtmpServer::start(uint32_t timeoutMs) {
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
    if (startOnce(timeoutMs, portTaken)) return true;
    if (!portTaken) return false;
  }
  return false;
}

bool RtmpServer::startOnce(uint32_t timeoutMs, bool& portTaken) {
  port_ = somePort();
  do {
    notifyPort_ = somePort();
  } while (notifyPort_ == port_);
  const std::filesystem::path dir = folder_.path();
  const auto config = dir / "nginx.conf";
  const auto pidFile = dir / "nginx.pid";
  const auto errorFile = dir / "error.log";
  const std::filesystem::path temp = dir / "temp";
  {
    std::ofstream out(config);
    // One process (no master, no workers, no daemon), so that its pid is the
    // child we started.
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
        << "  access_log off;\n"
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
        << "    }\n"
        << "  }\n"
        << "}\n";
    if (!out) {
      why_ = "cannot write " + config.string();
      return false;
    }
  }
  // nginx runs in a shell of its own that keeps its exit status. -p with a
  // trailing slash: nginx joins relative paths to it as they are. -e: the log
  // it writes before it has read the configuration, which would otherwise be
  // /var/log/nginx/error.log. nginx writes its pid file after it has bound and
  // listens on every port of the configuration: from then on connections are
  // taken.
  std::string out;
  const int status = runShell(
      "d=$1\n"
      "rm -f \"$d/nginx.pid\" \"$d/error.log\" \"$d/child\" \"$d/status\"\n"
      "( \"$2\" -p \"$d/\" -c \"$d/nginx.conf\" -e \"$d/error.log\" </dev/null >\"$d/nginx.out\" 2>&1 &\n"
      "  echo $! >\"$d/child.part\"; mv \"$d/child.part\" \"$d/child\"\n"
      "  wait $!; echo $? >\"$d/status\" ) </dev/null >/dev/null 2>&1 &\n"
      "i=0\n"
      "while [ $i -lt $3 ]; do\n"
      "  if [ -f \"$d/child\" ]; then\n"
      "    pid=$(cat \"$d/child\")\n"
      "    [ \"$(cat \"$d/nginx.pid\" 2>/dev/null)\" = \"$pid\" ] && { echo $pid; exit 0; }\n"
      "  fi\n"
      "  [ -f \"$d/status\" ] && { echo \"status $(cat \"$d/status\")\"; exit 3; }\n"
      "  sleep 0.01; i=$((i+1))\n"
      "done\n"
      "cat \"$d/child\" 2>/dev/null\n"
      "exit 4\n",
      {hostPath(dir), kNginx, polls(timeoutMs)}, out);
  if (status == 3) {
    const std::string log = errorLog() + textOf(dir / "nginx.out");
    portTaken = log.find("Address already in use") != std::string::npos;
    why_ = "nginx ended at start with " + out + ":\n" + tailOf(log);
    return false;
  }
  pid_ = static_cast<uint32_t>(std::atol(out.c_str()));
  if (status == 0 && pid_ != 0) return true;
  why_ = "nginx did not come up within " + std::to_string(timeoutMs) + " ms (" + std::to_string(status) + " " + out +
         "):\n" + tailOf(errorLog());
  stop();
  return false;
}

bool RtmpServer::stop(uint32_t timeoutMs) {
  if (!running()) return true;
  // Asked first, so that it closes its recordings and removes its pid file.
  std::string out;
  const int status = runShell(
      "kill -0 $1 2>/dev/null || exit 0\n"
      "for signal in TERM KILL; do\n"
      "  kill -$signal $1 2>/dev/null\n"
      "  i=0\n"
      "  while [ $i -lt $2 ]; do kill -0 $1 2>/dev/null || exit 0; sleep 0.01; i=$((i+1)); done\n"
      "done\n"
      "exit 1\n",
      {std::to_string(pid_), polls(timeoutMs)}, out);
  if (status != 0) return false;
  pid_ = 0;
  return true;
}

void RtmpServer::refuseKey(const std::string& key) { std::ofstream(refusedFolder() / key).put('\n'); }

bool RtmpServer::waitForRecordingClosed(const std::string& key, uint32_t timeoutMs) const {
  // Closed once no descriptor of nginx's leads to the file.
  std::string out;
  return runShell("end=$(($(date +%s%N) / 1000000 + $3))\n"
                  "while [ $(($(date +%s%N) / 1000000)) -lt $end ]; do\n"
                  "  if [ -e \"$1\" ]; then\n"
                  "    ls -l /proc/$2/fd 2>/dev/null | grep -qF -- \"-> $(readlink -f \"$1\")\" || exit 0\n"
                  "  fi\n"
                  "  sleep 0.01\n"
                  "done\n"
                  "exit 1\n",
                  {hostPath(recordingOf(key)), std::to_string(pid_), std::to_string(timeoutMs)}, out) == 0;
}

}  // namespace kestrium::test
