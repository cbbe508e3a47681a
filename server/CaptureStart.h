#pragma once

#include <memory>

#include "recorder/Recorder.h"
#include "server/CommandBlock.h"

namespace kestrium {

// Turns a start command into a running capture: the encoder, the writer and
// the recorder with its thread. On any failure nothing is left behind (no
// recorder, no file) and the log says why; the result is then null.
std::unique_ptr<Recorder> startCapture(const StartParameters& params);

}  // namespace kestrium
