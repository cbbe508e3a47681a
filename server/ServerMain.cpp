#include "server/ServerMain.h"

#include <atomic>
#include <memory>
#include <string>

#include "platform/Event.h"
#include "platform/MessageWindow.h"
#include "platform/NamedMutex.h"
#include "platform/SharedMapping.h"
#include "platform/Socket.h"
#include "platform/System.h"
#include "platform/Thread.h"
#include "server/CommandBlock.h"
#include "server/Dispatcher.h"
#include "server/FeatureProbes.h"
#include "server/Log.h"

namespace kestrium {

namespace {

// The objects every process of the server makes first, before it even reads its
// command line, and gives up last.
struct ProcessObjects {
  ProcessObjects() {
    instanceMutex.create(kInstanceMutexName, true);
    instanceExisted = instanceMutex.existed();
    shutdownEvent.create(kShutdownEventName);
    features.open();
  }
  ~ProcessObjects() { instanceMutex.release(); }
  ProcessObjects(const ProcessObjects&) = delete;
  ProcessObjects& operator=(const ProcessObjects&) = delete;

  platform::NamedMutex instanceMutex;
  bool instanceExisted = false;
  platform::Event shutdownEvent;
  // Kept open for the whole life of the process, so that clients can read it.
  platform::SharedMapping features{std::u16string(kFeaturesName), sizeof(FeaturesBlock)};
};

bool contains(std::u16string_view text, std::u16string_view word) {
  return text.find(word) != std::u16string_view::npos;
}

}  // namespace

int runServer(int argc, char** argv) {
  // Before any socket: a broadcast's server that goes away must not end us.
  platform::ignoreBrokenPipe();
  ProcessObjects objects;

  // Switches are found anywhere in the command line, even inside a longer word.
  bool interactiveStart = true;
  const std::u16string commandLine = platform::commandLine(argc, argv);
  if (!commandLine.empty()) {
    // Tested first, so that it works while another copy runs: that is how the
    // other copy is told to end.
    if (contains(commandLine, u"/shutdown") || contains(commandLine, u"--shutdown")) {
      objects.shutdownEvent.set();
      return 0;
    }
    if (contains(commandLine, u"/start") || contains(commandLine, u"--start")) interactiveStart = false;
  }

  if (objects.instanceExisted) {
    platform::showMessage(u"One copy of Kestrium capture server is running already", u"Kestrium 5");
    return -1;
  }

  // Both ways of ending, a window closed (or a signal) and a shutdown request,
  // come through here.
  platform::MessageWindow window;
  std::atomic<bool> windowClosing{false};
  const bool made = window.create(kWindowName, interactiveStart, [&] {
    windowClosing = true;
    objects.shutdownEvent.set();
    window.quit(0);
  });
  if (!made) return 0;
  window.destroyOnTerminationSignals();

  processLog().open(Log::defaultPath(), interactiveStart);
  logLine(u"  Kestrium capture server (%S) is starting\n", __DATE__);
  if (const std::string_view problem = platform::waitSupportProblem(); !problem.empty()) {
    logLine(u"[Error]   %S\n", problem);
  }

  // Objects of servers and clients that were killed, or ended without closing
  // them, stay in memory until someone removes them; this is the only server of
  // the namespace, so the one to do it. Objects that a live client holds stay.
  if (const platform::ReclaimedObjects reclaimed = platform::reclaimAbandonedObjects(); reclaimed.count > 0) {
    logLine(u"  *** CAP *** Reclaimed %d shared objects (%I64d MB) left by ended processes\n", reclaimed.count,
            reclaimed.bytes >> 20);
  }

  probeQuickSync();
  probeNvenc();
  probeAmdVce();

  auto dispatcher = std::make_unique<Dispatcher>();

  platform::Thread watcher;
  watcher.start(
      [&] {
        objects.shutdownEvent.wait(platform::kInfinite);
        if (!windowClosing) window.postDestroy();
      },
      "kestrium-shutdown");

  const int exitCode = window.run();

  // A dispatcher whose command thread would not end is left to that thread.
  if (!dispatcher->Shutdown()) static_cast<void>(dispatcher.release());
  dispatcher.reset();
  objects.instanceMutex.release();
  logLine(u"  Shutdown completed\n");
  processLog().close();
  return exitCode;
}

}  // namespace kestrium
