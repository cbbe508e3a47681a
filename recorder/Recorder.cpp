#include "recorder/Recorder.h"

namespace kestrium {

Recorder::Recorder(std::u16string name) : name_(std::move(name)) { pauseEvent_.create({}); }

Recorder::~Recorder() = default;

void Recorder::Stop(bool /*deleteFiles*/) {}

}  // namespace kestrium
