#pragma once

#include <string>

#include "platform/Event.h"

namespace kestrium {

// One named capture. The command channel finds it by name and acts on it; the
// capture itself (its thread, encoder and writer) is built by the start command.
class Recorder {
 public:
  explicit Recorder(std::u16string name);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  const std::u16string& name() const { return name_; }

  // Ends the capture; with deleteFiles what was recorded is discarded.
  void Stop(bool deleteFiles);

  // Flipped only by the recorder's own thread, when its pause event rings.
  bool paused() const { return paused_; }
  platform::Event& pauseEvent() { return pauseEvent_; }

  // The writer's side, as the command channel needs it: whether there is one,
  // whether it still holds back in pre-recording, and its begin (non-zero when
  // the file was started).
  bool hasWriter() const { return false; }
  bool writerPrerecording() const { return false; }
  int beginWriting() { return 0; }

 private:
  std::u16string name_;
  bool paused_ = false;
  platform::Event pauseEvent_;
};

}  // namespace kestrium
