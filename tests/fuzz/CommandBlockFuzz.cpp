// The server's command handling on blocks no client of ours would send: the
// real dispatcher, reached through the real channel as a client reaches it.
// Every command must be answered, and nothing may read or write outside what
// the block holds. Starts find no objects of their capture (none are made
// here), so they are refused after their fields have been read, checked and
// logged, or run (their files go to a scratch folder); the other commands name
// captures that run or do not.
//
// Input: the command block's bytes (shorter inputs are padded with zeros).

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/NoDestructor.h"
#include "server/CommandChannel.h"
#include "server/Dispatcher.h"
#include "server/Log.h"
#include "tests/fuzz/FuzzSupport.h"

namespace {

void startDispatcher() {
  static const bool started = [] {
    // Every line is formatted and written, to nowhere: the fields a client
    // sends end up in the log's format code.
    kestrium::processLog().open("/dev/null", false);
    // Its objects go in the namespace that scripts/fuzz.sh sets, and clears
    // after a crash. Never destroyed, since libFuzzer may end the process from
    // inside a run; shut down at a normal exit, which gives the objects back.
    static kestrium::platform::NoDestructor<kestrium::Dispatcher> dispatcher;
    std::atexit([] { dispatcher->Shutdown(); });
    return true;
  }();
  static_cast<void>(started);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kestrium;
  startDispatcher();
  // On the heap, at its own size: a read past its end is seen.
  auto block = std::make_unique<CommandBlock>();
  std::memset(block.get(), 0, sizeof(CommandBlock));
  std::memcpy(block.get(), data, std::min(size, sizeof(CommandBlock)));
  block->replyWanted = 1;
  // A start can succeed (its capture's objects are made as it opens them):
  // its files go to the scratch folder, never where a mutated path points. A
  // folder that is no full path stays, for the server to refuse.
  if (block->command == kCommandStart && block->start.destinationFolder[0] == u'/') {
    setWireString(block->start.destinationFolder, fuzz::scratchFolder().u16string());
  }
  const SendResult result = sendCommand(*block, 10000);
  if (result != SendResult::Replied) {
    std::fprintf(stderr, "command %u got no reply (%d)\n", block->command, static_cast<int>(result));
    std::abort();
  }
  return 0;
}
