#pragma once

// Runs the real server and client binaries for one test: its own kernel-object
// namespace and its own documents folder (where the log goes), the server
// stopped and collected at the end whatever happened.

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/ChildProcess.h"
#include "platform/SharedMapping.h"
#include "server/CommandBlock.h"
#include "platform/Clock.h"
#include "platform/SharedLibrary.h"
#include "platform/System.h"
#include "tests/support/TestSupport.h"

namespace kestrium::test {

inline constexpr uint32_t kPatience = 20000;
// Long enough for a recording of some seconds in real time.
inline constexpr uint32_t kClientPatience = 60000;

class ServerHarness {
 public:
  ServerHarness() {
    namespace_ = platform::toUtf8(uniqueNamespace());
    // This process too: its own senders reach the server, and it finds the log
    // where the server writes it. Under wine the documents folder is the one
    // KESTRIUM_TEST_DOCUMENTS names (scripts/wine-ctest.sh sets the prefix up so).
    platform::setObjectNamespace(platform::toUtf16(namespace_));
    platform::setEnvironmentVariable("KESTRIUM_NAMESPACE", platform::toUtf16(namespace_));
    platform::setEnvironmentVariable("XDG_DOCUMENTS_DIR", folder_.path().u16string());
    platform::setEnvironmentVariable("HOME", folder_.path().u16string());
    platform::setEnvironmentVariable("KESTRIUM_TEST_DOCUMENTS", folder_.path().u16string());
    // The server finds no vendor runtime, whatever this machine has installed: a
    // test that wants one points its variable at a fake.
    for (auto library : {platform::VendorLibrary::Cuda, platform::VendorLibrary::Nvenc,
                         platform::VendorLibrary::QuickSync, platform::VendorLibrary::VaApi, platform::VendorLibrary::VaDrm,
                         platform::VendorLibrary::OpenVideo, platform::VendorLibrary::OpenCl}) {
      platform::setEnvironmentVariable(platform::vendorLibraryEntry(library).overrideVariable,
                                       (folder_.path() / "no-such-library").u16string());
    }
  }

  std::filesystem::path binary(const char* name) const { return platform::executablePath().parent_path() / name; }
  std::filesystem::path logPath() const { return platform::documentsFolder() / "Kestrium.txt"; }
  std::string log() const { return readLog(logPath()); }
  const std::filesystem::path& folder() const { return folder_.path(); }

  // Starts a server and waits until its command channel is open, which the
  // server logs as its dispatcher starts. An interactive start makes the log
  // anew; one with the start switch appends to it.
  platform::ChildProcess startServer(const std::vector<std::string>& args = {}) {
    constexpr std::string_view kReady = "  *** CAP *** Starting dispatcher...\r\n";
    bool keepsLog = false;
    for (const auto& a : args) keepsLog = keepsLog || a.find("start") != std::string::npos;
    if (!keepsLog) std::filesystem::remove(logPath());
    const size_t before = countOf(log(), kReady);
    platform::ChildProcess server = startServerProcess(args);
    const uint64_t until = platform::monotonicNs() + uint64_t{kPatience} * 1000000;
    while (countOf(log(), kReady) <= before || !commandChannelIsOpen()) {
      if (platform::monotonicNs() > until) {
        ADD_FAILURE() << "the server did not come up: " << log();
        break;
      }
      platform::sleepMs(10);
    }
    return server;
  }

  // The dispatcher logs its start before its thread opens the channel. A probe
  // that finds no holder of the command block made a fresh one, which goes again
  // when the probe closes it.
  static bool commandChannelIsOpen() {
    platform::SharedMapping block(std::u16string(kCommandMappingName), sizeof(CommandBlock));
    return block.open() && block.existed();
  }

  platform::ChildProcess startServerProcess(const std::vector<std::string>& args,
                                            const std::filesystem::path& output = {}) {
    platform::ChildProcess server;
    if (!server.start(binary(KESTRIUM_SERVER), args, {}, output)) {
      // Seen once under wine, right after a killed server was collected: the
      // process could not be made at all, before any code of ours ran. One
      // more try tells that apart from a server that cannot start.
      const uint32_t error = platform::lastError();
      platform::sleepMs(500);
      EXPECT_TRUE(server.start(binary(KESTRIUM_SERVER), args, {}, output))
          << "the first try to start the server failed too, with error " << error;
    }
    return server;
  }

  // Starts a client that runs on its own; its output goes to outputFile.
  platform::ChildProcess startClient(const std::vector<std::string>& args, const std::filesystem::path& outputFile) {
    platform::ChildProcess child;
    EXPECT_TRUE(child.start(binary(KESTRIUM_CLIENT), args, {}, outputFile));
    return child;
  }

  // A client running in the background of the test, with its output kept.
  struct Background {
    platform::ChildProcess process;
    std::filesystem::path output;
    int finish() { return process.wait(kClientPatience).value_or(-1); }
    std::string text() const { return readText(output); }
  };
  Background background(const std::vector<std::string>& args, const std::string& name) {
    Background b{{}, folder_.path() / (name + "-output.txt")};
    b.process = startClient(args, b.output);
    return b;
  }

  // Runs the client to its end; its output is kept in clientOutput.
  int client(const std::vector<std::string>& args) {
    platform::ChildProcess child;
    const auto output = folder_.path() / "client-output.txt";
    if (!child.start(binary(KESTRIUM_CLIENT), args, {}, output)) return -1;
    const int status = child.wait(kClientPatience).value_or(-1);
    const std::vector<char> bytes = readBytes(output);
    clientOutput.clear();
    // Text-mode output on Windows ends its lines with CR LF.
    for (char c : bytes) {
      if (c != '\r') clientOutput.push_back(c);
    }
    return status;
  }

  bool waitForLog(std::string_view text, uint32_t ms = kPatience) const {
    const uint64_t until = platform::monotonicNs() + uint64_t{ms} * 1000000;
    while (log().find(text) == std::string::npos) {
      if (platform::monotonicNs() > until) return false;
      platform::sleepMs(10);
    }
    return true;
  }

  // The body of the log's last line, after the time and process prefix.
  std::string lastLogLine() const {
    std::string text = log();
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    const std::string last = text.substr(text.rfind('\n') + 1);
    constexpr std::string_view kProcess = "kestriumcapture32.exe | ";
    const size_t body = last.find(kProcess);
    return body == std::string::npos ? last : last.substr(body + kProcess.size());
  }

  std::string clientOutput;

 private:
  TempFolder folder_;
  std::string namespace_;
};

// A test with a server of its own, started before it and asked to end after it
// the way a user would, which it must then do.
class ServerTest : public ::testing::Test {
 protected:
  std::filesystem::path dir() const { return harness.folder() / "recordings"; }
  void SetUp() override { server_ = harness.startServer(); }
  void TearDown() override {
    platform::ChildProcess request;
    if (request.start(harness.binary(KESTRIUM_SERVER), {"/shutdown"})) request.wait(kPatience);
    // A test that ended its server itself has collected it already.
    if (server_.running()) {
      EXPECT_TRUE(server_.wait(kPatience).has_value()) << "the server ends on /shutdown";
    }
  }

  ServerHarness harness;
  platform::ChildProcess server_;
};

}  // namespace kestrium::test
