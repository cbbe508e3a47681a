// The other process of the cross-process tests. It is started with a scenario and
// an object-name prefix, plays its side through the platform layer only, and
// reports through its exit status.

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/Clock.h"
#include "platform/Event.h"
#include "platform/NamedMutex.h"
#include "platform/SharedMapping.h"
#include "platform/System.h"
#include "platform/Text.h"

using namespace kestrium::platform;

namespace {

constexpr uint32_t kPatience = 20000;

std::u16string prefix;
std::u16string name(const char* suffix) { return prefix + toUtf16(suffix); }

Event openEvent(const char* suffix) {
  Event e;
  if (!e.create(name(suffix))) std::exit(90);
  return e;
}

[[noreturn]] void sleepUntilKilled() {
  for (;;) sleepMs(1000);
}

int mapping() {
  SharedMapping map(name(".map"), 1);
  if (!map.open() || !map.existed()) return 10;
  if (map.size() < 4096) return 11;
  for (size_t i = 0; i < 2048; ++i) {
    if (map.view()[i] != std::byte((i * 7 + 1) & 0xFF)) return 12;
  }
  for (size_t i = 2048; i < 4096; ++i) map.view()[i] = std::byte((i * 13 + 5) & 0xFF);
  Event done = openEvent(".done");
  return done.set() ? 0 : 13;
}

int pingpong(int rounds) {
  Event ping = openEvent(".ping");
  Event pong = openEvent(".pong");
  for (int i = 0; i < rounds; ++i) {
    if (ping.wait(kPatience) != kWaitObject0) return 20;
    pong.set();
  }
  return 0;
}

int setLater() {
  Event e1 = openEvent(".e1");
  Event e2 = openEvent(".e2");
  Event go = openEvent(".go");
  e2.set();
  e1.set();
  go.set();
  return 0;
}

int setAfter(uint32_t ms) {
  Event e2 = openEvent(".e2");
  sleepMs(ms);
  e2.set();
  return 0;
}

int holdMutex() {
  NamedMutex m;
  if (!m.create(name(".mtx"), false)) return 30;
  if (m.wait(kPatience) != LockStatus::Acquired) return 31;
  openEvent(".held").set();
  sleepUntilKilled();
}

// 64 plus a bit for each object that existed already; 8 if the mapping held
// anything but zeroes.
int exists() {
  NamedMutex m;
  Event e;
  SharedMapping map(name(".obj.map"), 4096);
  if (!m.create(name(".obj.m"), false) || !e.create(name(".obj.e")) || !map.open()) return 40;
  const bool dirty = std::any_of(map.view(), map.view() + map.size(), [](std::byte b) { return b != std::byte{0}; });
  return 64 | (m.existed() ? 1 : 0) | (e.existed() ? 2 : 0) | (map.existed() ? 4 : 0) | (dirty ? 8 : 0);
}

int fillHold() {
  SharedMapping map(name(".stale"), 65536);
  NamedMutex m;
  Event e;
  if (!map.open() || !m.create(name(".stale.m"), true) || !e.create(name(".stale.e"))) return 50;
  std::memset(map.view(), 0xAB, map.size());
  e.set();
  openEvent(".ready").set();
  sleepUntilKilled();
}

// Makes a mapping of 1 MiB and an event, says so on ".ready", then ends without
// closing them: by exit (how 1) or killed while it waits (how 0).
int leave(int how) {
  SharedMapping map(name(".left.map"), 1 << 20);
  Event e;
  if (!map.open() || !e.create(name(".left.e"))) return 60;
  if (!openEvent(".ready").set()) return 61;
  if (how == 1) std::exit(0);  // the handles above are never closed
  sleepUntilKilled();
}

// Takes and gives back one named mutex, making it and closing it each round, so
// that the namespace empties whenever no process is inside a round. Two
// processes inside at once, seen on a counter in a namespace that stays open,
// means two objects answered to one name.
int churn(int rounds) {
  const std::u16string churnNamespace = objectNamespace();
  setObjectNamespace(churnNamespace + u"-referee");
  SharedMapping referee(name(".referee"), 64);
  if (!referee.open() || !referee.existed()) return 70;
  setObjectNamespace(churnNamespace);
  std::atomic_ref<uint32_t> inside(*referee.as<uint32_t>());
  for (int i = 0; i < rounds; ++i) {
    NamedMutex m;
    if (!m.create(name(".churn"), false)) return 71;
    if (m.wait(kPatience) != LockStatus::Acquired) return 72;
    if (inside.fetch_add(1) != 0) return 73;
    SharedMapping inner(name(".churn.map"), 64);
    if (!inner.open() || inner.existed()) return 74;
    inner.close();
    inside.fetch_sub(1);
    if (!m.release()) return 75;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: platform_helper SCENARIO PREFIX [ARG]\n");
    return 2;
  }
  const std::string scenario = argv[1];
  prefix = toUtf16(argv[2]);
  const int arg = argc > 3 ? std::atoi(argv[3]) : 0;
  if (scenario == "mapping") return mapping();
  if (scenario == "pingpong") return pingpong(arg);
  if (scenario == "setlater") return setLater();
  if (scenario == "setafter") return setAfter(static_cast<uint32_t>(arg));
  if (scenario == "holdmutex") return holdMutex();
  if (scenario == "exists") return exists();
  if (scenario == "fillhold") return fillHold();
  if (scenario == "leave") return leave(arg);
  if (scenario == "churn") return churn(arg);
  std::fprintf(stderr, "platform_helper: unknown scenario %s\n", scenario.c_str());
  return 2;
}
