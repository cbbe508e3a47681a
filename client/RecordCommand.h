#pragma once

#include <string>
#include <vector>

namespace kestrium::client {

// kestrium-client record [options]: one whole capture as a client runs it.
int runRecord(const std::vector<std::u16string>& args);

// kestrium-client status NAME: the figures of a running capture, once.
int runStatus(const std::vector<std::u16string>& args);

}  // namespace kestrium::client
