#include "server/Dispatcher.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "platform/Clock.h"
#include "platform/NamedMutex.h"
#include "platform/SharedMapping.h"
#include "server/CaptureStart.h"
#include "server/CommandChannel.h"
#include "server/Log.h"

namespace kestrium {

namespace {

constexpr uint32_t kThreadPatienceMs = 10000;
constexpr uint32_t kReadyPatienceMs = 5000;

}  // namespace

Dispatcher::Dispatcher() {
  logLine(u"  *** CAP *** Starting dispatcher...\n");
  stopEvent_.create({});
  ready_.create({}, true);
  if (!thread_.start([this] { commandThread(); }, "kestrium-command")) {
    logLine(u"[Error]   *** CAP *** Cannot start the dispatcher thread\n");
    return;
  }
  // Clients may send as soon as the server is up: have the channel made first.
  ready_.wait(kReadyPatienceMs);
}

Dispatcher::~Dispatcher() {
  if (!shutDown_) Shutdown();
}

bool Dispatcher::Shutdown() {
  shutDown_ = true;
  logLine(u"  *** CAP *** Stopping dispatcher...\n");
  stopEvent_.set();
  bool ended = true;
  if (thread_.joinable()) {
    const uint32_t result = thread_.join(kThreadPatienceMs);
    if (result != platform::kWaitObject0) {
      logLine(u"[Warning] Problem with waiting dispatcher thread %d\n", result);
      thread_.terminate();
      ended = false;
    }
  }
  if (ended) stopEvent_.close();
  // A command thread that was given up on may hold the lock for ever (on Windows
  // it is terminated wherever it stood): its recorders are then left to it.
  std::unique_lock guard(lock_, std::defer_lock);
  if (!guard.try_lock_for(std::chrono::milliseconds(kThreadPatienceMs))) {
    logLine(u"[Error]   *** CAP *** The recorders could not be stopped: the command thread holds them\n");
    return false;
  }
  while (!recorders_.empty()) {
    std::unique_ptr<Recorder> recorder = std::move(recorders_.front());
    recorders_.pop_front();
    Recorder::Retire(std::move(recorder), false);
  }
  return ended;
}

void Dispatcher::addRecorder(std::unique_ptr<Recorder> recorder) {
  std::lock_guard guard(lock_);
  recorders_.push_back(std::move(recorder));
}

size_t Dispatcher::recorderCount() {
  std::lock_guard guard(lock_);
  return recorders_.size();
}

void Dispatcher::commandThread() {
  platform::Event command, reply;
  platform::SharedMapping block(std::u16string(kCommandMappingName), sizeof(CommandBlock));
  const bool haveEvents = command.create(kCommandEventName) && reply.create(kCommandReplyName);
  // A block that could not be made (or that a squatter made too small) is never
  // read: the channel answers, but carries no command.
  const bool haveBlock = block.open() && block.size() >= sizeof(CommandBlock);
  if (!haveEvents || !haveBlock) logLine(u"[Error]   *** CAP *** Cannot open the command channel\n");
  ready_.set();

  platform::Event* handles[] = {&stopEvent_, &command};
  for (;;) {
    const uint32_t result = platform::waitAny(handles, platform::kInfinite);
    if (result == 0) break;
    if (result != 1) {
      logLine(u"[Warning] *** CAP *** Problem waiting capture dispatcher event %d\n", result);
      // A channel that could not be made fails every wait: don't spin on it.
      platform::sleepMs(100);
      continue;
    }
    // Work on a copy: a client that rewrites the block while its command runs
    // must not change the command under our feet.
    if (!haveBlock) {
      reply.set();
      continue;
    }
    CommandBlock copy;
    std::memcpy(&copy, block.view(), sizeof copy);
    handle(copy);
    if (copy.replyWanted != 0) reply.set();
  }
}

void Dispatcher::handle(const CommandBlock& block) {
  switch (block.command) {
    case kCommandStart:
      handleStart(block.start);
      break;
    case kCommandStop:
      handleStop(block.stop);
      break;
    case kCommandEndPrerecording:
      handleEndPrerecording(block.endPrerecording);
      break;
    case kCommandPause:
      handlePause(block.pause);
      break;
    default:
      logLine(u"[Warning] *** CAP *** Unknown dispatcher command %d\n", block.command);
      break;
  }
}

std::list<std::unique_ptr<Recorder>>::iterator Dispatcher::find(std::u16string_view name) {
  return std::find_if(recorders_.begin(), recorders_.end(), [name](const auto& r) { return r->name() == name; });
}

void Dispatcher::handleStart(const StartParameters& params) {
  std::lock_guard guard(lock_);
  if (recorders_.size() >= kMostCaptures) {
    logLine(u"[Error]   *** CAP *** %u captures run already; no more are started\n",
            static_cast<uint32_t>(recorders_.size()));
    logLine(u"[Error]   *** CAP *** Error starting capture\n");
    return;
  }
  if (auto recorder = startCapture(params)) recorders_.push_back(std::move(recorder));
}

void Dispatcher::handleStop(const StopParameters& params) {
  std::lock_guard guard(lock_);
  const std::u16string_view name = wireString(params.recorderName);
  const auto it = find(name);
  if (it == recorders_.end()) {
    logLine(u"[Error]   *** CAP *** Cannot find recorder to delete %s\n", name);
    return;
  }
  logLine(u"  *** CAP *** Stopping capture, recorder name    %s\n", name);
  if (params.deleteFiles != 0) logLine(u"  *** CAP *** Deleting recorded files...\n");
  std::unique_ptr<Recorder> recorder = std::move(*it);
  recorders_.erase(it);
  Recorder::Retire(std::move(recorder), params.deleteFiles != 0);
}

void Dispatcher::handleEndPrerecording(const EndPrerecordingParameters& params) {
  std::lock_guard guard(lock_);
  const std::u16string_view name = wireString(params.recorderName);
  const auto it = find(name);
  if (it != recorders_.end() && (*it)->beginWriting() != 0) {
    logLine(u"  *** CAP *** ** PRE-RECORDING IS OFF ** for %s\n", name);
    return;
  }
  logLine(u"[Error]   *** CAP *** Cannot begin writing pre-recorded video %s\n", name);
}

void Dispatcher::handlePause(const PauseParameters& params) {
  std::lock_guard guard(lock_);
  const std::u16string_view name = wireString(params.recorderName);
  const auto it = find(name);
  if (it == recorders_.end()) {
    logLine(u"[Error]   *** CAP *** Cannot toggle pause video %s\n", name);
    return;
  }
  if ((*it)->paused() != (params.paused != 0)) {
    // The event means "toggle"; the recorder's thread flips the flag itself.
    (*it)->pauseEvent().set();
    platform::sleepMs(50);
  }
  logLine(params.paused != 0 ? u"  *** CAP *** ** PAUSED ** for %s\n" : u"  *** CAP *** ** UNPAUSED ** for %s\n", name);
}

bool Dispatcher::SendStopCommand(const Recorder& recorder) {
  if (!recorder.hasWriter()) return false;
  logLine(u"[Warning] Emergency stop for %s\n", recorder.name());
  // A capture that never left pre-recording is thrown away; one that was writing is kept.
  const CommandBlock block = namedCommand(kCommandStop, recorder.name(), recorder.writerPrerecording() ? 1 : 0);

  platform::NamedMutex mutex;
  const bool created = mutex.create(kCommandMutexName, false);
  // An abandoned mutex is owned all the same: its sender died, the channel is free.
  const bool delivered =
      created && platform::owns(mutex.wait(kCommandMutexPatienceMs)) && deliverCommand(block, true);
  if (!delivered) logLine(u"[Error]   Error sending command to capture server\n");
  // Also after a time-out, when it is not held: that release fails harmlessly.
  if (created) mutex.release();
  return delivered;
}

}  // namespace kestrium
