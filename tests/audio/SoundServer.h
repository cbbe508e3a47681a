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
                "sink_properties=device.description=Surround\n"
             << "load-module module-null-sink sink_name=headset rate=44100 channels=2 "
                "sink_properties=device.description=Headset\n";
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
        keepMonitorsRead();
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

  // Plays a sine of that frequency at half scale into the sink for some
  // seconds, once its monitor gives sound at a short latency.
  // With onlyChannel the other channels stay silent. A six-channel sink takes
  // its channels in the order front left, right, centre, low frequency, back
  // left, right.
  void play(const std::string& sink, int channels, int hertz, double seconds, int rate = 48000,
            int onlyChannel = -1) {
    const auto tone = folder_.path() / (sink + ".raw");
    std::string out;
    std::vector<std::string> sox = {"-n",  "-r", std::to_string(rate),   "-c",    std::to_string(channels),
                                    "-e",  "floating-point", "-b", "32", tone.string(),
                                    "synth", std::to_string(seconds), "sine", std::to_string(hertz), "vol", "0.5"};
    if (onlyChannel >= 0) {
      sox.push_back("remix");
      for (int c = 0; c < channels; ++c) sox.push_back(c == onlyChannel ? "1" : "0");
    }
    runTool(KESTRIUM_SOX, sox, out);
    std::vector<std::string> pacat = {"--device=" + sink, "--format=float32le", "--rate=" + std::to_string(rate),
                                      "--channels=" + std::to_string(channels),
                                      // Room against a stumble when the machine is busy.
                                      "--latency-msec=200"};
    if (channels == 6) pacat.push_back("--channel-map=front-left,front-right,front-center,lfe,rear-left,rear-right");
    pacat.push_back(tone.string());
    const auto monitor = folder_.path() / (sink + ".monitor.raw");
    const uint64_t until = platform::monotonicNs() + 5'000'000'000ull;
    std::error_code ec;
    while (std::filesystem::file_size(monitor, ec) == 0 && platform::monotonicNs() < until) platform::sleepMs(10);
    players_.emplace_back();
    players_.back().start("/usr/bin/pacat", pacat, env_, folder_.path() / "pacat.txt");
  }

  // Unplugs a sink, as a USB headset pulled out.
  int unload(const std::string& sink) {
    return run("/bin/sh", {"-c", "pactl list short modules | grep 'sink_name=" + sink +
                                     " ' | cut -f1 | xargs -r pactl unload-module"});
  }

 private:
  // An idle null sink works in blocks of two seconds, and takes a reader's wish
  // for a short latency only at the end of its block: a new reader would get
  // its first data that late. A reader on every monitor from the start keeps
  // them all short (a trickle of 8-bit mono is enough to ask for it).
  void keepMonitorsRead() {
    for (const char* sink : {"game", "micsink", "surround", "headset"}) {
      players_.emplace_back();
      players_.back().start("/usr/bin/parec",
                            {std::string("--device=") + sink + ".monitor", "--latency-msec=10", "--format=u8",
                             "--channels=1", "--rate=8000"},
                            env_, folder_.path() / (std::string(sink) + ".monitor.raw"));
    }
  }

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
