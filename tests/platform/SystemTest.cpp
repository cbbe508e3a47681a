#include <gtest/gtest.h>

#include <filesystem>

#include "platform/Clock.h"
#include "platform/SharedLibrary.h"
#include "platform/System.h"

namespace kestrium::platform {
namespace {

// The documents folder is absolute, free space is known also for a folder not
// yet made, memory adds up, and the executable's path is this program.
TEST(SystemTest, WhatTheSystemTellsIsPlausible) {
  EXPECT_TRUE(documentsFolder().is_absolute()) << documentsFolder();
  const auto temp = std::filesystem::temp_directory_path();
  for (const auto& folder : {temp, temp / "not" / "made" / "yet"}) {
    const auto free = diskFreeBytes(folder);
    ASSERT_TRUE(free.has_value()) << folder;
    EXPECT_GT(*free, 0u) << folder;
  }
  EXPECT_FALSE(isFatVolume(temp));
  const MemoryStatus status = memoryStatus();
  EXPECT_GT(status.availableBytes, 0u);
  EXPECT_LE(status.availableBytes, status.totalBytes);
  EXPECT_TRUE(std::filesystem::exists(executablePath())) << executablePath();
  EXPECT_EQ(executablePath().stem(), "platform_tests");
}

TEST(SystemTest, ClocksMoveForwardAcrossASleep) {
  const uint64_t ns = monotonicNs();
  const uint32_t ms = tickCountMs();
  sleepMs(30);
  EXPECT_GE(monotonicNs() - ns, 29'000'000u);
  EXPECT_GE(static_cast<uint32_t>(tickCountMs() - ms), 29u);  // also across a wrap
  const LocalTime t = localTime();
  EXPECT_GE(t.year, 2020);
  EXPECT_TRUE(t.month >= 1 && t.month <= 12);
  EXPECT_TRUE(t.day >= 1 && t.day <= 31);
  EXPECT_LE(t.dayOfWeek, 6);
  EXPECT_LE(t.hour, 23);
  EXPECT_LE(t.minute, 59);
  EXPECT_LE(t.second, 59);
  EXPECT_LE(t.milliseconds, 999);
}

// Hardware encoders are probed by loading their vendor's runtime: a present
// library gives its symbols, a missing one just says no.
TEST(SharedLibraryTest, LoadsWhatExistsAndRefusesWhatDoesNot) {
  SharedLibrary missing;
  EXPECT_FALSE(missing.load("kestrium-no-such-library-4711"));
  EXPECT_EQ(missing.symbol("anything"), nullptr);

  struct Candidate {
    const char* library;
    const char* symbol;
  };
  bool loaded = false;
  for (const Candidate c : {Candidate{"kernel32.dll", "GetTickCount"}, Candidate{"libc.so.6", "malloc"}}) {
    SharedLibrary lib;
    if (!lib.load(c.library)) continue;
    loaded = true;
    EXPECT_NE(lib.symbol(c.symbol), nullptr) << c.library;
    EXPECT_EQ(lib.symbol("kestrium_no_such_symbol"), nullptr);
    SharedLibrary moved = std::move(lib);
    EXPECT_FALSE(lib.isLoaded());
    EXPECT_NE(moved.symbol(c.symbol), nullptr);
  }
  EXPECT_TRUE(loaded) << "the C runtime of this OS should always load";
}

}  // namespace
}  // namespace kestrium::platform
