#pragma once

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "platform/Clock.h"
#include "platform/Text.h"

namespace kestrium::platform::test {

// Object names unique to one test in one run, so that runs side by side and
// leftovers of an earlier run never meet.
inline std::u16string uniquePrefix() {
  static const std::string run = [] {
    std::random_device rd;
    return std::to_string(rd()) + "." + std::to_string(monotonicNs() % 1000000);
  }();
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = std::string(info->test_suite_name()) + "." + info->name();
  for (char& c : name) {
    if (c == '/') c = '-';  // parameterised names
  }
  return toUtf16(name + "." + run);
}

}  // namespace kestrium::platform::test
