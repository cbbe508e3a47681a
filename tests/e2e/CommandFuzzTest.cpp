// A fuzzer of the command channel: random and hostile command blocks, per-capture
// objects of the wrong kind, clients that die, and frames with wild sizes and
// positions, all through the real channel of a real server. Every command must
// be answered, and at the end the server must still work and have given back
// its threads and memory.
//
// Seeded and replayable: KESTRIUM_FUZZ_SEED=N replays a run, KESTRIUM_FUZZ_SECONDS
// sets its length (default 60; 1800 with KESTRIUM_LONG_TESTS in a sanitizer build).

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <random>

#include "platform/SharedMapping.h"
#include "tests/e2e/E2ESupport.h"
#include "tests/e2e/ServerHarness.h"

namespace kestrium::test {
namespace {

enum class Kind { RandomBlock, Start, HostileStart, Stop, Begin, Pause, WrongKindObject, DeadClient, Frames, Count };

constexpr std::array<const char*, static_cast<size_t>(Kind::Count)> kKindNames = {
    "random block", "start", "hostile start", "stop", "begin", "pause", "object of the wrong kind", "dead client",
    "frames"};

uint64_t envNumber(const char* name, uint64_t otherwise) {
  const auto value = platform::environmentVariable(name);
  if (!value || value->empty()) return otherwise;
  return std::strtoull(platform::toUtf8(*value).c_str(), nullptr, 10);
}

class CommandFuzzTest : public ServerTest {
 protected:
  std::u16string name() { return u"fz" + platform::toUtf16(std::to_string(pick(0, 5))); }
  uint32_t pick(uint32_t low, uint32_t high) { return std::uniform_int_distribution<uint32_t>(low, high)(random_); }
  bool chance(uint32_t percent) { return pick(0, 99) < percent; }

  // Text a client could send: plain, or with what no path can hold.
  std::u16string hostileText(std::u16string plain) {
    switch (pick(0, 6)) {
      case 0: return plain + u"\xD800";
      case 1: return u"\xDC00" + plain;
      case 2: return u"../../" + plain;
      case 3: return u"/" + plain;
      case 4: return std::u16string(300, u'x');
      case 5: return u"";
      default: return plain;
    }
  }

  void fillStart(StartParameters& p, bool hostile) {
    static const std::u16string kEncoders[] = {u"fast",        u"no_compression", u"mjpeg",     u"vfw",
                                               u"h264.nvenc", u"h264.quicksync", u"x\xD800y", u""};
    setWireString(p.recorderName, name());
    setWireString(p.encoder, kEncoders[pick(0, hostile ? 7 : 2)]);
    const std::u16string folder = (harness.folder() / "fuzz").u16string();
    setWireString(p.destinationFolder, hostile && chance(50) ? hostileText(folder) : folder);
    setWireString(p.baseName, hostile ? hostileText(u"game.exe") : u"game.exe");
    p.width = pick(1, 96);
    p.height = pick(1, 64);
    p.frameRate = pick(1000, 144000);
    p.threads = pick(0, 4);
    p.writeAtOnce = pick(0, 1);
    p.prerecordLimit = static_cast<float>(pick(0, 10));
    p.mjpegQuality = pick(0, 120);
    p.folderByName = pick(0, 1);
    p.folderByDate = pick(0, 1);
    if (!hostile) return;
    switch (pick(0, 5)) {
      case 0: p.width = chance(50) ? 0 : pick(16385, 0xFFFFFFFF); break;
      case 1: p.frameRate = chance(50) ? 0 : pick(1000001, 0xFFFFFFFF); break;
      case 2: p.threads = pick(65, 0xFFFFFFFF); break;
      case 3: {
        const float odd[] = {-1.0f, std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                             1e30f};
        p.prerecordLimit = odd[pick(0, 3)];
        break;
      }
      case 4: std::fill(std::begin(p.recorderName), std::end(p.recorderName), u'n'); break;
      default: p.width = p.height = 16384, p.threads = 64; break;
    }
  }

  SendResult send(const CommandBlock& block) { return sendCommand(block, 15000); }

  // What a failure report needs: whether the server still runs, and the end of its log.
  std::string serverState() {
    std::string state;
    if (const auto status = server_.wait(0)) state = "the server ended with status " + std::to_string(*status) + "\n";
    const std::string log = harness.log();
    const size_t from = log.size() > 6000 ? log.size() - 6000 : 0;
    return state + "the log ends:\n" + log.substr(from);
  }

  // A live capture of ours, fed frames of wild sizes and positions.
  void feedFrames() {
    if (!live_) {
      live_ = std::make_unique<RawCapture>(u"fzlive", 48, 32, harness.folder() / "fuzz");
      ASSERT_TRUE(live_->open());
      live_->params().writeAtOnce = pick(0, 1);
      live_->params().threads = pick(1, 3);
      ASSERT_EQ(live_->start(15000), SendResult::Replied);
    }
    CommonData* c = live_->objects().common();
    for (uint32_t n = pick(1, 20); n > 0; --n) {
      if (!live_->waitFree(200)) break;
      c->sourceSize = chance(80) ? 48 * 32 * 3 : pick(0, 0xFFFFFFFF);
      c->sourceTimed = pick(0, 1);
      c->sourcePosition = chance(70) ? position_++ : static_cast<uint32_t>(random_());
      c->audioPosition = static_cast<uint32_t>(random_());
      storeShared(c->sourceFree, 0u);
      live_->objects().newSource.set();
    }
    if (chance(10)) {
      EXPECT_EQ(live_->stop(chance(50)), SendResult::Replied) << serverState();
      live_.reset();
    }
  }

  std::mt19937_64 random_;
  std::unique_ptr<RawCapture> live_;
  uint32_t position_ = 0;
};

TEST_F(CommandFuzzTest, ServerSurvivesWhatAnyClientCanSend) {
#if defined(__SANITIZE_ADDRESS__)
  constexpr uint64_t kLongSeconds = 1800;
#else
  constexpr uint64_t kLongSeconds = 60;
#endif
  const uint64_t seconds =
      envNumber("KESTRIUM_FUZZ_SECONDS", platform::environmentVariable("KESTRIUM_LONG_TESTS") ? kLongSeconds : 60);
  const uint64_t seed = envNumber("KESTRIUM_FUZZ_SEED", std::random_device()());
  random_.seed(seed);
  std::printf("command fuzzing for %llu s with KESTRIUM_FUZZ_SEED=%llu\n", static_cast<unsigned long long>(seconds),
              static_cast<unsigned long long>(seed));
  const auto threadsBefore = settledThreads(server_.id());
  const auto residentBefore = processStatus(server_.id(), "VmRSS");

  std::array<uint64_t, static_cast<size_t>(Kind::Count)> sent{};
  std::vector<std::unique_ptr<platform::SharedMapping>> squatters;
  std::vector<std::unique_ptr<platform::Event>> squatterEvents;
  std::vector<std::unique_ptr<RawCapture>> dead;
  auto block = std::make_unique<CommandBlock>();
  const uint64_t until = platform::monotonicNs() + seconds * 1'000'000'000ull;
  while (platform::monotonicNs() < until && !HasFatalFailure()) {
    const auto kind = static_cast<Kind>(pick(0, static_cast<uint32_t>(Kind::Count) - 1));
    ++sent[static_cast<size_t>(kind)];
    *block = {};
    SendResult result = SendResult::Replied;
    switch (kind) {
      case Kind::RandomBlock: {
        auto* bytes = reinterpret_cast<uint8_t*>(block.get());
        for (size_t i = 0; i < sizeof(CommandBlock); ++i) bytes[i] = static_cast<uint8_t>(random_());
        // Mostly commands the server knows, so that their handlers meet the noise.
        if (chance(80)) block->command = pick(0, 5);
        block->replyWanted = 1;
        result = send(*block);
        break;
      }
      case Kind::Start:
      case Kind::HostileStart:
        block->command = kCommandStart;
        block->replyWanted = 1;
        fillStart(block->start, kind == Kind::HostileStart);
        result = send(*block);
        break;
      case Kind::Stop:
        result = send(namedCommand(kCommandStop, name(), pick(0, 1)));
        break;
      case Kind::Begin:
        result = send(namedCommand(kCommandEndPrerecording, name(), 0));
        break;
      case Kind::Pause:
        result = send(namedCommand(kCommandPause, name(), static_cast<uint32_t>(random_())));
        break;
      case Kind::WrongKindObject: {
        // One of the capture's names made first as something else, then a start.
        const std::u16string victim = u"fzsq" + platform::toUtf16(std::to_string(pick(0, 3)));
        static const std::u16string_view kSuffixes[] = {kNewSourceSuffix, kNewEncodedSuffix, kCommonDataSuffix,
                                                        kEncoderBufferSuffix, kClientAliveSuffix};
        const std::u16string object = victim + std::u16string(kSuffixes[pick(0, 4)]);
        if (chance(50)) {
          squatters.push_back(std::make_unique<platform::SharedMapping>(object, pick(1, 64)));
          squatters.back()->open();
        } else {
          squatterEvents.push_back(std::make_unique<platform::Event>());
          squatterEvents.back()->create(object);
        }
        block->command = kCommandStart;
        block->replyWanted = 1;
        fillStart(block->start, false);
        setWireString(block->start.recorderName, victim);
        result = send(*block);
        if (squatters.size() + squatterEvents.size() > 16) {
          squatters.clear();
          squatterEvents.clear();
        }
        break;
      }
      case Kind::DeadClient: {
        auto capture = std::make_unique<RawCapture>(u"fzdead" + platform::toUtf16(std::to_string(pick(0, 7))), 32, 16,
                                                    harness.folder() / "fuzz");
        if (capture->open(false)) {
          capture->params().writeAtOnce = pick(0, 1);
          result = capture->start(chance(50) ? 15000 : 0);
          dead.push_back(std::move(capture));
          if (dead.size() > 24) dead.erase(dead.begin());
        }
        break;
      }
      case Kind::Frames:
        feedFrames();
        break;
      case Kind::Count:
        break;
    }
    ASSERT_TRUE(result == SendResult::Replied || result == SendResult::Sent)
        << "case " << kKindNames[static_cast<size_t>(kind)] << " got no reply (seed " << seed << ")\n"
        << serverState();
  }

  std::printf("cases sent per kind:");
  for (size_t k = 0; k < sent.size(); ++k) std::printf(" %s=%llu;", kKindNames[k], static_cast<unsigned long long>(sent[k]));
  std::printf("\n");

  // Everything ends: what the fuzzing started is stopped, the dead ones stop themselves.
  if (live_) {
    EXPECT_EQ(live_->stop(true), SendResult::Replied);
  }
  live_.reset();
  // Names reused by the fuzzing may hold several recorders each: stop until none is left.
  const auto stopAll = [&] {
    for (const char* prefix : {"fz", "fzsq"}) {
      for (int i = 0; i <= 5; ++i) {
        EXPECT_EQ(send(namedCommand(kCommandStop, platform::toUtf16(prefix + std::to_string(i)), 1)), SendResult::Replied);
      }
    }
  };
  stopAll();
  squatters.clear();
  squatterEvents.clear();
  dead.clear();
  EXPECT_EQ(threadsAfterSettling(server_.id(), threadsBefore, 30000, stopAll), threadsBefore)
      << "threads left (seed " << seed << ")";
  if (residentBefore) {
    EXPECT_LT(*processStatus(server_.id(), "VmRSS"), *residentBefore + 256 * 1024)
        << "the server grew by more than 256 MB (seed " << seed << ")";
  }
  RawCapture after(u"fzafter", 32, 16, harness.folder() / "after");
  ASSERT_TRUE(after.open());
  ASSERT_EQ(after.start(), SendResult::Replied);
  EXPECT_TRUE(after.give(0, 1));
  EXPECT_TRUE(after.waitFree(5000)) << "the server still records";
  EXPECT_EQ(after.stop(), SendResult::Replied);
}

}  // namespace
}  // namespace kestrium::test
