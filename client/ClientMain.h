#pragma once

#include <string>
#include <vector>

namespace kestrium::client {

// Exit statuses of kestrium-client.
inline constexpr int kExitOk = 0;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitNoReply = 3;
inline constexpr int kExitRecorderDown = 4;
// record: the server ended the capture before the client stopped it.
inline constexpr int kExitCaptureEnded = 5;

// Runs one verb with its arguments (the program name left out).
int runClient(const std::vector<std::u16string>& args);

}  // namespace kestrium::client
