#include "server/CommandChannel.h"

#include <atomic>
#include <cstring>

#include "platform/Event.h"
#include "platform/NamedMutex.h"
#include "platform/SharedMapping.h"

namespace kestrium {

namespace {

// The command block, or a closed mapping when no server holds it. A block
// nobody held before us has no server behind it; ours goes again when closed.
platform::SharedMapping openServersCommandBlock() {
  platform::SharedMapping mapping(std::u16string(kCommandMappingName), sizeof(CommandBlock));
  if (!mapping.open() || !mapping.existed() || mapping.size() < sizeof(CommandBlock)) return {};
  return mapping;
}

}  // namespace

bool commandChannelIsOpen() { return openServersCommandBlock().isOpen(); }

bool deliverCommand(const CommandBlock& block, bool clearReplyWord) {
  platform::SharedMapping mapping = openServersCommandBlock();
  if (!mapping.isOpen()) return false;
  std::memcpy(mapping.view(), &block, sizeof block);
  if (clearReplyWord) {
    std::atomic_ref<uint32_t>(mapping.as<CommandBlock>()->replyWanted).store(0, std::memory_order_relaxed);
  }
  platform::Event command;
  return command.create(kCommandEventName) && command.set();
}

SendResult sendCommand(const CommandBlock& block, uint32_t replyTimeoutMs) {
  platform::NamedMutex mutex;
  if (!mutex.create(kCommandMutexName, false)) return SendResult::Busy;
  // An abandoned mutex means a sender died mid-way; the block is ours to overwrite.
  if (!platform::owns(mutex.wait(kCommandMutexPatienceMs))) return SendResult::Busy;

  platform::Event reply;
  const bool wantReply = block.replyWanted != 0 && reply.create(kCommandReplyName);
  // A reply left over from a sender that gave up must not answer this command.
  if (wantReply) reply.wait(0);

  SendResult result = SendResult::Sent;
  if (!deliverCommand(block, false)) {
    result = SendResult::NoServer;
  } else if (wantReply) {
    result = reply.wait(replyTimeoutMs) == platform::kWaitObject0 ? SendResult::Replied : SendResult::NoReply;
  }
  mutex.release();
  return result;
}

}  // namespace kestrium
