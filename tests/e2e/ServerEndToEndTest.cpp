// The server and the client as users run them: separate processes meeting
// through the named objects, checked by their exit statuses and the log.

#include <gtest/gtest.h>

#include <cctype>

#include "server/CommandChannel.h"
#include "tests/e2e/E2ESupport.h"
#include "tests/e2e/ServerHarness.h"

#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "platform/posix/KernelObject.h"
#endif

namespace kestrium::test {
namespace {

class ServerEndToEndTest : public ::testing::Test {
 protected:
  // Ends the server the way an administrator would and checks it went cleanly.
  void shutDown(platform::ChildProcess& server) {
    platform::ChildProcess request;
    ASSERT_TRUE(request.start(harness.binary(KESTRIUM_SERVER), {"/shutdown"}));
    EXPECT_EQ(request.wait(kPatience), 0);
    EXPECT_EQ(server.wait(2000), 0) << "the server should end within 2 s";
    EXPECT_EQ(harness.lastLogLine(), "  Shutdown completed");
  }

  ServerHarness harness;
};

// One server's life as users see it: it starts with its build date in a fresh
// log, a second copy is refused while the first goes on, every command that
// names no capture (or none the server knows) gets its reply and its line, and
// a shutdown request ends it, after which the client finds no server. The next
// one, started without the interactive switch, appends to the log, and a user
// closing it (SIGTERM, or its window on Windows) ends it like a shutdown.
TEST_F(ServerEndToEndTest, StartsAnswersAndEndsOnShutdownOrStopRequest) {
  platform::ChildProcess server = harness.startServer();
  const std::string log = harness.log();
  EXPECT_EQ(log.rfind("\n", 0), 0u) << "a fresh log opens with the byte order mark and a blank line";
  // The build date, in the form "Nov  5 2014".
  const std::string start = " |     kestriumcapture32.exe |   Kestrium capture server (";
  const size_t at = log.find(start);
  ASSERT_NE(at, std::string::npos) << log;
  const std::string date = log.substr(at + start.size(), 11);
  EXPECT_EQ(log.substr(at + start.size() + 11, 15), ") is starting\r\n") << log;
  EXPECT_TRUE(std::isupper(static_cast<unsigned char>(date[0])) && date[3] == ' ' &&
              std::isdigit(static_cast<unsigned char>(date[5])) && date[6] == ' ' &&
              std::isdigit(static_cast<unsigned char>(date[10])))
      << date;
  EXPECT_EQ(harness.client({"features"}), 0);
  EXPECT_EQ(harness.clientOutput, "quicksync=0 nvenc=0 amdvce=0\n");

  const auto output = harness.folder() / "second.txt";
  platform::ChildProcess second = harness.startServerProcess({}, output);
  const std::optional<int> status = second.wait(kPatience);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status & 0xFF, 255) << "exit status -1";
  EXPECT_NE(readText(output).find("One copy of Kestrium capture server is running already"), std::string::npos);

  struct Case {
    std::vector<std::string> args;
    const char* line;
  };
  const Case cases[] = {
      {{"stop", "nosuch"}, "[Error]   *** CAP *** Cannot find recorder to delete nosuch"},
      {{"stop", "nosuch", "--delete"}, "[Error]   *** CAP *** Cannot find recorder to delete nosuch"},
      {{"send", "9"}, "[Warning] *** CAP *** Unknown dispatcher command 9"},
      {{"send", "4294967295", "--name", "x"}, "[Warning] *** CAP *** Unknown dispatcher command -1"},
      {{"begin", "nosuch"}, "[Error]   *** CAP *** Cannot begin writing pre-recorded video nosuch"},
      {{"pause", "nosuch", "on"}, "[Error]   *** CAP *** Cannot toggle pause video nosuch"},
      {{"pause", "nosuch", "off"}, "[Error]   *** CAP *** Cannot toggle pause video nosuch"}};
  for (const Case& c : cases) {
    const size_t before = harness.log().size();
    EXPECT_EQ(harness.client(c.args), 0) << harness.clientOutput;
    EXPECT_NE(harness.log().find(std::string(" | ") + c.line + "\r\n", before), std::string::npos) << c.line;
  }
  shutDown(server);

  using Args = std::vector<std::string>;
  for (const Args& verb : {Args{"stop", "x"}, Args{"features"}}) {
    EXPECT_EQ(harness.client(verb), 3) << verb[0];
    EXPECT_EQ(harness.clientOutput, "kestrium-client: no capture server is running\n") << verb[0];
  }
  // Arguments the client refuses before it looks for a server. Side tracks are
  // encoded exactly when the sound is: the kind must agree with --aac.
  EXPECT_EQ(harness.client({"pause", "x", "maybe"}), 2);
  EXPECT_EQ(harness.client({"frobnicate"}), 2);
  EXPECT_EQ(harness.client({"record", "--side-tracks", "mp3"}), 2);
  EXPECT_NE(harness.clientOutput.find("--side-tracks mp3 needs --aac KBPS"), std::string::npos) << harness.clientOutput;
  EXPECT_EQ(harness.client({"record", "--side-tracks", "wav", "--aac", "128"}), 2);
  EXPECT_EQ(harness.client({"record", "--side-tracks", "flac"}), 2);
  platform::ChildProcess next = harness.startServer({"--start"});
  EXPECT_EQ(countOf(harness.log(), "is starting"), 2u);
  ASSERT_TRUE(next.requestStop());
  EXPECT_EQ(next.wait(2000), 0);
  EXPECT_EQ(harness.lastLogLine(), "  Shutdown completed");
}

// The next server also gives back the memory of what the killed one held.
TEST_F(ServerEndToEndTest, KilledServerLeavesNothingThatBlocksTheNext) {
  constexpr std::string_view kReclaimed = "  *** CAP *** Reclaimed ";
  platform::ChildProcess first = harness.startServer();
  EXPECT_EQ(harness.log().find(kReclaimed), std::string::npos) << "nothing was left before";
  ASSERT_TRUE(first.kill());
  ASSERT_TRUE(first.wait(kPatience).has_value());

  platform::ChildProcess second = harness.startServer();
  const std::string log = harness.log();
  const size_t at = log.find(kReclaimed);
#ifdef _WIN32
  EXPECT_EQ(at, std::string::npos) << "Windows ends the objects with their process";
#else
  ASSERT_NE(at, std::string::npos) << log;
  EXPECT_NE(log.find(" MB) left by ended processes\r\n", at), std::string::npos) << log;
#endif
  EXPECT_EQ(harness.client({"stop", "nosuch"}), 0);
  EXPECT_NE(harness.log().find("Cannot find recorder to delete nosuch"), std::string::npos);
  shutDown(second);
}

// Another user of the machine can neither command our server nor touch its
// objects: their client finds no server (the names it looks for are its own
// user's), and every object of ours in /dev/shm is ours alone.
TEST_F(ServerEndToEndTest, AnotherUserIsLockedOut) {
#ifdef _WIN32
  GTEST_SKIP() << "Windows keeps named objects per session";
#else
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  constexpr uid_t kNobody = 65534;
  platform::ChildProcess server = harness.startServer();
  std::string out;
  const int sent = runTool("/usr/bin/setpriv", {"--reuid=65534", "--regid=65534", "--clear-groups",
                                                harness.binary(KESTRIUM_CLIENT).string(), "send", "9"},
                           out);
  // 126 and 127: the other user may not even run our build (a checkout in a
  // folder that is its owner's alone); the objects are checked all the same.
  if (sent != 126 && sent != 127) {
    EXPECT_EQ(sent, 3) << out;
  }
  EXPECT_EQ(harness.log().find("Unknown dispatcher command"), std::string::npos) << harness.log();

  const std::string prefix = platform::posix::namespaceLockName().substr(1);
  std::vector<std::string> ours;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
    if (!entry.path().filename().string().starts_with(prefix)) continue;
    ours.push_back(entry.path().string());
    struct stat st {};
    ASSERT_EQ(lstat(ours.back().c_str(), &st), 0) << ours.back();
    EXPECT_EQ(st.st_mode & 07777, 0600u) << ours.back();
    EXPECT_EQ(st.st_uid, 0u) << ours.back();
  }
  EXPECT_GE(ours.size(), 4u) << "the command block, its events and its mutex";
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    if (setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(2);
    int opened = 0;
    for (const auto& file : ours) {
      const int fd = open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
      opened += fd >= 0 || errno != EACCES;
    }
    _exit(opened == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "another user opened one of our objects";

  EXPECT_EQ(harness.client({"send", "9"}), 0) << harness.clientOutput;
  EXPECT_NE(harness.log().find("[Warning] *** CAP *** Unknown dispatcher command 9\r\n"), std::string::npos);
  shutDown(server);
#endif
}

}  // namespace
}  // namespace kestrium::test
