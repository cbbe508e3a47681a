#pragma once

// A real sound server for one test: a headless PulseAudio daemon in a folder of
// its own, with null sinks and a remapped source named like real devices, that
// this process and its children reach through PULSE_SERVER. It is stopped by
// its pid at the end.

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "platform/ChildProcess.h"
#include "platform/Clock.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "tests/support/TestSupport.h"

namespace kestrium::test {

class SoundServer {
 public:
  SoundServer() {
    const std::string dir = folder_.path().string();
    // A socket's path must fit in 108 bytes, which a test's folder may not: the
    // socket gets a short folder of its own.
    socketDir_ = std::filesystem::path("/tmp") / ("kestrium-pa-" + std::to_string(std::random_device()()));
    std::filesystem::create_directories(socketDir_);
    const std::string socket = (socketDir_ / "native").string();
    {
      std::ofstream config(folder_.path() / "default.pa");
      config << "load-module module-native-protocol-unix auth-anonymous=1 socket=" << socket << "\n"
             << "load-module module-null-sink sink_name=game rate=48000 channels=2 "
                "sink_properties=device.description=\"Game\\ Audio\"\n"
             << "load-module module-null-sink sink_name=micsink rate=48000 channels=1 "
                "sink_properties=device.description=MicSink\n"
             << "load-module module-remap-source source_name=usbmic master=micsink.monitor channels=1 "
                "channel_map=mono source_properties=device.description=\"USB\\ Microphone\"\n"
             << "load-module module-null-sink sink_name=surround rate=48000 channels=6 "
                "channel_map=front-left,front-right,front-center,lfe,rear-left,rear-right "
                "sink_properties=device.description=Surround\n";
    }
    env_ = {{"XDG_RUNTIME_DIR", dir}, {"HOME", dir}, {"PULSE_RUNTIME_PATH", dir + "/runtime"}};
    if (!daemon_.start("/usr/bin/pulseaudio",
                       // No shared memory: a test must leave /dev/shm as it found it.
                       {"-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=false", "--disable-shm=true",
                        "-F", (folder_.path() / "default.pa").string(), "--log-target=file:" + dir + "/log.txt"},
                       env_, folder_.path() / "daemon.txt")) {
      why_ = "no PulseAudio daemon could start";
      return;
    }
    server_ = "unix:" + socket;
    platform::setEnvironmentVariable("PULSE_SERVER", platform::toUtf16(server_));
    env_.emplace_back("PULSE_SERVER", server_);
    const uint64_t until = platform::monotonicNs() + 10'000'000'000ull;
    while (platform::monotonicNs() < until) {
      if (run("/usr/bin/pactl", {"info"}) == 0) {
        up_ = true;
        return;
      }
      platform::sleepMs(20);
    }
    why_ = "the PulseAudio daemon did not come up";
  }
  ~SoundServer() {
    for (auto& child : players_) {
      child.kill();
      child.wait(5000);
    }
    // Asked, so that it removes what it made; killed only if it will not go.
    daemon_.requestStop();
    if (!daemon_.wait(5000)) {
      daemon_.kill();
      daemon_.wait(5000);
    }
    std::error_code ec;
    std::filesystem::remove_all(socketDir_, ec);
  }
  SoundServer(const SoundServer&) = delete;
  SoundServer& operator=(const SoundServer&) = delete;

  bool up() const { return up_; }
  const std::string& why() const { return why_; }

  int run(const std::string& tool, const std::vector<std::string>& args) {
    platform::ChildProcess child;
    if (!child.start(tool, args, env_, folder_.path() / "tool.txt")) return -1;
    return child.wait(20000).value_or(-1);
  }

  // Plays a sine of that frequency into the sink for some seconds, and keeps
  // its monitor read so that its first data comes at once.
  void play(const std::string& sink, int channels, int hertz, double seconds) {
    const auto tone = folder_.path() / (sink + ".raw");
    std::string out;
    runTool(KESTRIUM_SOX, {"-n", "-r", "48000", "-c", std::to_string(channels), "-e", "floating-point", "-b", "32",
                           tone.string(), "synth", std::to_string(seconds), "sine", std::to_string(hertz), "vol", "0.5"},
            out);
    players_.emplace_back();
    players_.back().start("/usr/bin/parec", {"--device=" + sink + ".monitor", "--latency-msec=10"}, env_,
                          folder_.path() / "monitor.raw");
    players_.emplace_back();
    players_.back().start("/usr/bin/pacat", {"--device=" + sink, "--format=float32le", "--rate=48000",
                                             "--channels=" + std::to_string(channels), "--latency-msec=10",
                                             tone.string()},
                          env_, folder_.path() / "pacat.txt");
  }

  // Unplugs a sink, as a USB headset pulled out.
  int unload(const std::string& sink) {
    return run("/bin/sh", {"-c", "pactl list short modules | grep 'sink_name=" + sink +
                                     " ' | cut -f1 | xargs -r pactl unload-module"});
  }

 private:
  TempFolder folder_{"-pulse"};
  platform::ChildProcess::Environment env_;
  platform::ChildProcess daemon_;
  std::vector<platform::ChildProcess> players_;
  std::filesystem::path socketDir_;
  std::string server_;
  std::string why_;
  bool up_ = false;
};

}  // namespace kestrium::test
