#pragma once

// A real sound server for one test, with null sinks and a remapped source named
// like real devices, reached through PULSE_SERVER: on Linux a headless
// PulseAudio daemon of the test's own in a folder of its own, stopped by its pid
// at the end.
//
// Under wine a program's sound driver (winepulse) reaches the daemon that
// PULSE_SERVER named when wine started it, whatever the Windows environment
// says later, so the Windows tests share the daemon of scripts/wine-ctest.sh:
// each loads its devices into it under names apart from the daemon's own, and
// unloads them at the end. They take turns (ctest's lock "sound_devices", whose
// filter in tests/e2e/CMakeLists.txt names every suite with sound: a new one
// goes there too), so one set of names serves them all, which also keeps
// wine's list of known devices from growing with every test; a set that a test
// before left behind is unloaded first.
//
// Everything here is a Linux program run through /bin/sh, which finds the
// test's folder by its Linux path on both.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "tests/support/TestSupport.h"

namespace kestrium::test {

class SoundServer {
 public:
  SoundServer() {
#ifdef _WIN32
    const auto shared = platform::environmentVariable("PULSE_SERVER");
    if (!shared) {
      why_ = "no sound server (scripts/wine-ctest.sh starts one)";
      return;
    }
    server_ = platform::toUtf8(*shared);
    nameSuffix_ = "-test";
    descriptionSuffix_ = " Test";
#endif
    // The devices as pactl load-module takes them: a module's name, then its
    // arguments as one text, where a value with spaces is quoted.
    const std::string& n = nameSuffix_;
    const auto described = [this](const char* what, const std::string& description) {
      return std::string(what) + "_properties='device.description=\"" + description + descriptionSuffix_ + "\"'";
    };
    {
      std::ofstream devices(folder_.path() / "devices");
      devices << "module-null-sink sink_name=game" << n << " rate=48000 channels=2 " << described("sink", "Game Audio")
              << "\n"
              << "module-null-sink sink_name=micsink" << n << " rate=48000 channels=1 " << described("sink", "MicSink")
              << "\n"
              << "module-remap-source source_name=usbmic" << n << " master=micsink" << n
              << ".monitor channels=1 channel_map=mono " << described("source", "USB Microphone") << "\n"
              << "module-null-sink sink_name=surround" << n
              << " rate=48000 channels=6 channel_map=front-left,front-right,front-center,lfe,rear-left,rear-right "
              << described("sink", "Surround") << "\n"
              << "module-null-sink sink_name=headset" << n << " rate=44100 channels=2 " << described("sink", "Headset")
              << "\n";
    }
    std::string out;
    if (server_.empty()) {
      // A socket's path must fit in 108 bytes, which a test's folder may not:
      // the socket gets a short folder of its own. No shared memory: a test must
      // leave /dev/shm as it found it.
      if (shell("d=$(mktemp -d /tmp/kestrium-pa-XXXXXX) || exit 1\n"
                "echo \"load-module module-native-protocol-unix auth-anonymous=1 socket=$d/native\" >\"$f/default.pa\"\n"
                "export HOME=\"$f\" XDG_RUNTIME_DIR=\"$f\" PULSE_RUNTIME_PATH=\"$f/runtime\" PULSE_SERVER=\"unix:$d/native\"\n"
                "pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=false --disable-shm=true \\\n"
                "  -F \"$f/default.pa\" --log-target=file:\"$f/log.txt\" </dev/null >\"$f/daemon.txt\" 2>&1 &\n"
                "pid=$!\n"
                "echo \"$pid $d\" >\"$f/daemon\"\n"
                "for i in $(seq 500); do\n"
                "  pactl info >/dev/null 2>&1 && { echo \"unix:$d/native\"; exit 0; }\n"
                "  kill -0 $pid 2>/dev/null || break\n"
                "  sleep 0.02\n"
                "done\n"
                "exit 1\n",
                out) != 0) {
        why_ = "no PulseAudio daemon came up: " + out;
        return;
      }
      server_ = out.substr(0, out.find('\n'));
      platform::setEnvironmentVariable("PULSE_SERVER", platform::toUtf16(server_));
    }
    // An idle null sink works in blocks of two seconds and takes a reader's
    // wish for a short latency only at the end of its block, so a new reader
    // would get its first data that late: a reader on every monitor from the
    // start keeps them all short (a trickle of 8-bit mono is enough to ask for
    // it).
    if (shell((nameSuffix_.empty() ? std::string()
                                   : "pactl list short modules | grep -E '_name=[a-z]+" + nameSuffix_ +
                                         " ' | cut -f1 | xargs -r -n1 pactl unload-module\n") +
              "while read -r module arguments; do\n"
              "  pactl load-module \"$module\" \"$arguments\" >>\"$f/modules\" || exit 1\n"
              "done <\"$f/devices\"\n"
              "for sink in game micsink surround headset; do\n"
              "  parec --device=$sink" + n + ".monitor --latency-msec=10 --format=u8 --channels=1 --rate=8000 \\\n"
              "    </dev/null >\"$f/$sink.monitor.raw\" 2>/dev/null &\n"
              "  echo $! >>\"$f/players\"\n"
              "done\n",
              out) != 0) {
      why_ = "the test's sound devices could not be made: " + out;
      return;
    }
    up_ = true;
  }
  ~SoundServer() {
    // The devices go with a daemon of our own. It is asked to go, so that it
    // removes what it made, and killed only if it will not.
    std::string out;
    shell(
        "[ -f \"$f/players\" ] && kill $(cat \"$f/players\") 2>/dev/null\n"
        "if [ ! -f \"$f/daemon\" ]; then\n"
        "  [ -f \"$f/modules\" ] && for m in $(cat \"$f/modules\"); do pactl unload-module $m 2>/dev/null; done\n"
        "  exit 0\n"
        "fi\n"
        "read pid d <\"$f/daemon\"\n"
        "kill $pid 2>/dev/null\n"
        "for i in $(seq 250); do kill -0 $pid 2>/dev/null || break; sleep 0.02; done\n"
        "kill -9 $pid 2>/dev/null\n"
        "rm -rf \"$d\"\n",
        out);
  }
  SoundServer(const SoundServer&) = delete;
  SoundServer& operator=(const SoundServer&) = delete;

  // What a server is asked to record for the capture device of that
  // description.
  std::string capture(const std::string& description) const { return description + descriptionSuffix_; }
  // And for the playback device of that description: the device itself, in
  // loopback, or under wine, which cannot capture a playback device in
  // loopback, the sink's monitor, which it shows as a capture device.
  std::string playback(const std::string& description) const {
#ifdef _WIN32
    return "Monitor of " + capture(description);
#else
    return capture(description);
#endif
  }

  bool up() const { return up_; }
  const std::string& why() const { return why_; }

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
    std::ostringstream pacat;
    pacat << "pacat --device=" << sink << nameSuffix_ << " --format=float32le --rate=" << rate << " --channels=" << channels
          // Room against a stumble when the machine is busy.
          << " --latency-msec=200";
    if (channels == 6) pacat << " --channel-map=front-left,front-right,front-center,lfe,rear-left,rear-right";
    pacat << " \"$f/" << sink << ".raw\" </dev/null >/dev/null 2>&1 &\n"
          << "echo $! >>\"$f/players\"\n";
    const auto monitor = folder_.path() / (sink + ".monitor.raw");
    const uint64_t until = platform::monotonicNs() + 5'000'000'000ull;
    std::error_code ec;
    while (std::filesystem::file_size(monitor, ec) == 0 && platform::monotonicNs() < until) platform::sleepMs(10);
    shell(pacat.str(), out);
  }

  // Suspends a sink or wakes it up: while suspended its monitor gives nothing,
  // as an idle device may.
  int suspend(const std::string& sink, bool suspended) {
    std::string out;
    return shell("pactl suspend-sink " + sink + nameSuffix_ + (suspended ? " 1" : " 0") + "\n", out);
  }

  // Unplugs a sink, as a USB headset pulled out.
  int unload(const std::string& sink) {
    std::string out;
    return shell("pactl list short modules | grep 'sink_name=" + sink + nameSuffix_ + " ' | cut -f1 | xargs -r pactl unload-module\n",
                 out);
  }

 private:
  // Runs a script with $f the Linux path of the test's folder and PULSE_SERVER
  // the daemon's, once it has one.
  int shell(const std::string& script, std::string& out) const {
    const std::string prelude = server_.empty() ? "f=$1\n" : "f=$1\nexport PULSE_SERVER='" + server_ + "'\n";
    return runShell(prelude + script, {folder_.path().string()}, out);
  }

  TempFolder folder_{"-pulse"};
  std::string server_;
  // What tells this test's devices from those of others on a shared daemon.
  std::string nameSuffix_;
  std::string descriptionSuffix_;
  std::string why_;
  bool up_ = false;
};

}  // namespace kestrium::test
