#pragma once

#include <cstdint>

#include "server/CommandBlock.h"

namespace kestrium {

enum class SendResult {
  Replied,   // the server handled it
  Sent,      // delivered; no reply was asked for
  Busy,      // another sender held the channel for too long
  NoServer,  // no server has the channel open
  NoReply,   // delivered, but no reply came in time
};

// How long a sender waits for another sender to finish.
inline constexpr uint32_t kCommandMutexPatienceMs = 5000;

// A client's side of the command channel, in the order a sender must keep: take
// the command mutex, copy the block in, ring the server, wait for the reply when
// the block asks for one, let go of the mutex.
SendResult sendCommand(const CommandBlock& block, uint32_t replyTimeoutMs);

// True while a server holds the command channel open. The server opens it last,
// once its dispatcher runs, after it has filled its features block.
bool commandChannelIsOpen();

// Copies block into the server's command block and rings the command event. The
// caller holds the command mutex. With clearReplyWord the reply word in the
// shared block is zeroed after the copy, for a sender that must not wait. False
// when no server has the channel open.
bool deliverCommand(const CommandBlock& block, bool clearReplyWord);

}  // namespace kestrium
