#pragma once

#include <list>
#include <memory>
#include <mutex>
#include <string_view>

#include "platform/Event.h"
#include "platform/Thread.h"
#include "recorder/Recorder.h"
#include "server/CommandBlock.h"

namespace kestrium {

// The server's only inbound door: one thread that owns the command block and its
// events, runs each command a client sends, and owns the running recorders.
class Dispatcher {
 public:
  // More captures than anyone records at once: the next start is refused, so
  // that a client that starts without end cannot exhaust the machine.
  static constexpr size_t kMostCaptures = 16;

  Dispatcher();
  // Stops the command thread, then every recorder, keeping their files. False
  // when the command thread would not end: it was abandoned and may still use
  // this object, which must then never be destroyed.
  bool Shutdown();
  // Shuts down, if that was not done.
  ~Dispatcher();
  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  // Asks this server, through its own command channel, to stop recorder: the
  // recorder's thread calls it when its client has gone. It does not wait for
  // the reply, so the calling thread stays free to be stopped.
  // True when the command was delivered.
  static bool SendStopCommand(const Recorder& recorder);

  // Appends a running recorder to the list.
  void addRecorder(std::unique_ptr<Recorder> recorder);
  size_t recorderCount();

 private:
  void commandThread();
  void handle(const CommandBlock& block);
  void handleStart(const StartParameters& params);
  void handleStop(const StopParameters& params);
  void handleEndPrerecording(const EndPrerecordingParameters& params);
  void handlePause(const PauseParameters& params);
  // The first recorder of that name; the caller holds lock_.
  std::list<std::unique_ptr<Recorder>>::iterator find(std::u16string_view name);

  platform::Thread thread_;
  platform::Event stopEvent_;
  platform::Event ready_;  // the command thread has made its objects
  // Guards recorders_. Timed, so that a command thread abandoned while it held
  // the lock cannot hang the shutdown.
  std::timed_mutex lock_;
  std::list<std::unique_ptr<Recorder>> recorders_;
  bool shutDown_ = false;
};

}  // namespace kestrium
