#include "client/ClientMain.h"

#include <cstdio>
#include <cstring>
#include <optional>

#include "client/RecordCommand.h"
#include "platform/SharedMapping.h"
#include "platform/Text.h"
#include "server/CommandBlock.h"
#include "server/CommandChannel.h"

namespace kestrium::client {

namespace {

constexpr uint32_t kReplyPatienceMs = 10000;

constexpr const char* kUsage =
    "usage: kestrium-client VERB [options]\n"
    "  features                                   hardware encoders the server found\n"
    "  send N [--name NAME] [--value U32] [--no-reply]\n"
    "                                             send raw command N\n"
    "  stop NAME [--delete]                       stop a capture (and discard its files)\n"
    "  begin NAME                                 end a capture's pre-recording\n"
    "  pause NAME on|off                          pause or resume a capture\n"
    "  status NAME                                the figures of a running capture\n"
    "  record [options]                           run one whole capture (see README.md)\n";

int usage(const char* problem = nullptr) {
  if (problem != nullptr) std::fprintf(stderr, "kestrium-client: %s\n", problem);
  std::fputs(kUsage, stderr);
  return kExitUsage;
}

std::optional<uint32_t> parseU32(std::u16string_view text) {
  if (text.empty() || text.size() > 10) return std::nullopt;
  uint64_t value = 0;
  for (char16_t c : text) {
    if (c < u'0' || c > u'9') return std::nullopt;
    value = value * 10 + (c - u'0');
  }
  if (value > 0xFFFFFFFFu) return std::nullopt;
  return static_cast<uint32_t>(value);
}

int send(const CommandBlock& block) {
  switch (sendCommand(block, kReplyPatienceMs)) {
    case SendResult::Replied:
    case SendResult::Sent:
      return kExitOk;
    case SendResult::NoServer:
      std::fputs("kestrium-client: no capture server is running\n", stderr);
      return kExitNoReply;
    case SendResult::Busy:
      std::fputs("kestrium-client: another client held the command channel for too long\n", stderr);
      return kExitNoReply;
    case SendResult::NoReply:
      std::fputs("kestrium-client: no reply from the capture server within 10 s\n", stderr);
      return kExitNoReply;
  }
  return kExitNoReply;
}

int features() {
  // The server makes the features block before it probes the hardware, and
  // opens its command channel once the probes are done: an open channel says
  // that a server runs and the figures are in. A features block that nobody
  // held before us is one we made: no server filled it.
  platform::SharedMapping mapping(std::u16string(kFeaturesName), sizeof(FeaturesBlock));
  if (!commandChannelIsOpen() || !mapping.open() || !mapping.existed() || mapping.size() < sizeof(FeaturesBlock)) {
    std::fputs("kestrium-client: no capture server is running\n", stderr);
    return kExitNoReply;
  }
  FeaturesBlock block{};
  std::memcpy(&block, mapping.view(), sizeof block);
  std::printf("quicksync=%u nvenc=%u amdvce=%u\n", block.quickSync, block.nvenc, block.amdVce);
  return kExitOk;
}

int sendRaw(const std::vector<std::u16string>& args) {
  if (args.size() < 2) return usage("send needs a command number");
  const auto command = parseU32(args[1]);
  if (!command) return usage("the command number must be a whole number");
  std::u16string name;
  uint32_t value = 0;
  bool reply = true;
  for (size_t i = 2; i < args.size(); ++i) {
    if (args[i] == u"--name" && i + 1 < args.size()) {
      name = args[++i];
    } else if (args[i] == u"--value" && i + 1 < args.size()) {
      const auto v = parseU32(args[++i]);
      if (!v) return usage("--value takes a whole number below 2^32");
      value = *v;
    } else if (args[i] == u"--no-reply") {
      reply = false;
    } else {
      return usage(("unknown option " + platform::toUtf8(args[i])).c_str());
    }
  }
  CommandBlock block = namedCommand(*command, name, value);
  block.replyWanted = reply ? 1 : 0;
  return send(block);
}

int stop(const std::vector<std::u16string>& args) {
  if (args.size() < 2 || args.size() > 3 || (args.size() == 3 && args[2] != u"--delete")) {
    return usage("stop takes a recorder name and optionally --delete");
  }
  return send(namedCommand(kCommandStop, args[1], args.size() == 3 ? 1 : 0));
}

int begin(const std::vector<std::u16string>& args) {
  if (args.size() != 2) return usage("begin takes a recorder name");
  return send(namedCommand(kCommandEndPrerecording, args[1], 0));
}

int pause(const std::vector<std::u16string>& args) {
  if (args.size() != 3 || (args[2] != u"on" && args[2] != u"off")) return usage("pause takes a recorder name and on or off");
  return send(namedCommand(kCommandPause, args[1], args[2] == u"on" ? 1 : 0));
}

}  // namespace

int runClient(const std::vector<std::u16string>& args) {
  if (args.empty()) return usage();
  const std::u16string& verb = args[0];
  if (verb == u"features") return features();
  if (verb == u"send") return sendRaw(args);
  if (verb == u"stop") return stop(args);
  if (verb == u"begin") return begin(args);
  if (verb == u"pause") return pause(args);
  if (verb == u"record") return runRecord(args);
  if (verb == u"status") return runStatus(args);
  if (verb == u"--help" || verb == u"-h" || verb == u"help") {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
  return usage(("unknown verb " + platform::toUtf8(verb)).c_str());
}

}  // namespace kestrium::client
