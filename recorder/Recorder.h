#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Event.h"
#include "platform/Thread.h"
#include "recorder/CaptureObjects.h"
#include "recorder/IAudProcessor.h"
#include "recorder/IFileWriter.h"
#include "recorder/NetworkStream.h"
#include "videoEncoder/IVidEncoder.h"

namespace kestrium {

// One named capture. Its thread sleeps on four events and does short pieces of
// work when one rings: a source frame goes to the encoder, an encoded frame to
// the writer (and the publisher), audio is pumped, and the figures go back to
// the client. Encoding runs on the encoder's threads; the file is written here.
class Recorder {
 public:
  // How the recorder's thread asks its server to stop it when the capture cannot
  // go on (its client has gone, its file cannot be written); true when the
  // request was delivered.
  using EmergencyStop = std::function<bool(const Recorder&)>;

  explicit Recorder(std::u16string name);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  const std::u16string& name() const { return name_; }

  // Parts of the capture, owned from here on.
  std::unique_ptr<IVidEncoder> encoder;
  std::unique_ptr<IAudProcessor> audio;
  std::unique_ptr<IFileWriter> writer;
  std::unique_ptr<NetworkStream> publisher;

  // Starts the thread; false when it cannot run.
  bool Start(EmergencyStop emergencyStop);

  // Ends the capture, on the command thread: the encoder delivers what it took,
  // the thread ends, the file is finished, or discarded with deleteFiles. False
  // when the thread would not end and had to be abandoned: everything it can
  // reach, this object included, must then stay alive.
  bool Stop(bool deleteFiles);

  // Stops the recorder and frees it, unless its thread had to be abandoned: the
  // recorder is then left alive for that thread, and the log says so.
  static void Retire(std::unique_ptr<Recorder> recorder, bool deleteFiles);

  // The period of the thread's passes, and how long a stop waits for it to end.
  static constexpr uint32_t kPassMs = 500;
  static constexpr uint32_t kThreadPatienceMs = 10000;

  // Flipped only by the recorder's own thread, when its pause event rings.
  bool paused() const { return paused_; }
  platform::Event& pauseEvent() { return pauseEvent_; }

  // The writer's side, as the command channel needs it.
  bool hasWriter() const { return writer != nullptr; }
  bool writerPrerecording() const { return writer != nullptr && writer->prerecording(); }
  int beginWriting() { return writer != nullptr ? writer->begin() : 0; }

  uint32_t framesEncoded() const { return framesEncoded_; }
  uint32_t framesRefused() const { return framesRefused_; }

 private:
  void run();
  bool setUp();
  void onNewSource();
  void onNewEncoded();
  void pumpAudio(uint32_t position, bool flush);
  void publishFigures();
  void checkClient();
  void askToEnd();
  void tearDown();

  std::u16string name_;
  CaptureObjects objects_;
  platform::Thread thread_;
  platform::Event stopEvent_;
  platform::Event pauseEvent_;
  EmergencyStop emergencyStop_;
  std::atomic<bool> paused_{false};
  std::atomic<bool> stopping_{false};  // Stop has begun: no more requests to end
  bool waitsFailed_ = false;           // the events cannot be waited on: only the stop is
  bool endWanted_ = false;             // the capture cannot go on: ask the server to stop it
  uint64_t nextEndRequestNs_ = 0;
  bool sawSource_ = false;  // the first source frame came: the sound starts there
  bool started_ = false;  // the first encoded frame came: audio may be read
  std::vector<std::byte> audioBuffer_;
  std::vector<std::byte> audioPacket_;
  std::atomic<uint32_t> framesEncoded_{0};
  std::atomic<uint32_t> framesRefused_{0};
  bool warnedSource_ = false;
  bool warnedEncoded_ = false;
};

}  // namespace kestrium
