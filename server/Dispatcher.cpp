#include "server/Dispatcher.h"

#include <algorithm>
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
  logLine(u"  *** CAP *** Stopping dispatcher...\n");
  stopEvent_.set();
  if (thread_.joinable()) {
    const uint32_t result = thread_.join(kThreadPatienceMs);
    if (result != platform::kWaitObject0) {
      logLine(u"[Warning] Problem with waiting dispatcher thread %d\n", result);
      thread_.terminate();
    }
  }
  stopEvent_.close();
  std::lock_guard guard(lock_);
  for (auto& recorder : recorders_) recorder->Stop(false);
  recorders_.clear();
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
  if (!command.create(kCommandEventName) || !reply.create(kCommandReplyName) || !block.open() ||
      block.size() < sizeof(CommandBlock)) {
    logLine(u"[Error]   *** CAP *** Cannot open the command channel\n");
  }
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
  (*it)->Stop(params.deleteFiles != 0);
  recorders_.erase(it);
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

void Dispatcher::SendStopCommand(const Recorder& recorder) {
  if (!recorder.hasWriter()) return;
  logLine(u"[Warning] Emergency stop for %s\n", recorder.name());
  // A capture that never left pre-recording is thrown away; one that was writing is kept.
  const CommandBlock block = namedCommand(kCommandStop, recorder.name(), recorder.writerPrerecording() ? 1 : 0);

  platform::NamedMutex mutex;
  const bool created = mutex.create(kCommandMutexName, false);
  if (!created || mutex.wait(kCommandMutexPatienceMs) != platform::LockStatus::Acquired ||
      !deliverCommand(block, true)) {
    logLine(u"[Error]   Error sending command to capture server\n");
  }
  // Also after a time-out, when it is not held: that release fails harmlessly.
  if (created) mutex.release();
}

}  // namespace kestrium
