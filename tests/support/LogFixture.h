#pragma once

#include <gtest/gtest.h>

#include <string>

#include "server/Log.h"
#include "tests/support/TestSupport.h"

namespace kestrium::test {

// A test whose process log lies in a folder of its own, in a namespace of its
// own, and can be read back at any point.
class LoggedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setObjectNamespace(uniqueNamespace());
    processLog().open(folder_.path() / "Kestrium.txt", true);
  }
  void TearDown() override { processLog().close(); }
  std::string log() {
    processLog().close();
    const std::string text = readLog(folder_.path() / "Kestrium.txt");
    processLog().open(folder_.path() / "Kestrium.txt", false);
    return text;
  }

  TempFolder folder_;
};

}  // namespace kestrium::test
