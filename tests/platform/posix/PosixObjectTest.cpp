// What only the POSIX emulation of named objects has to get right: file modes and
// owners in /dev/shm, names that fit a file system, fork, and what is left in
// /dev/shm when processes end.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/ChildProcess.h"
#include "platform/Event.h"
#include "platform/NamedMutex.h"
#include "platform/SharedMapping.h"
#include "platform/System.h"
#include "platform/posix/KernelObject.h"
#include "tests/platform/PlatformTestSupport.h"

namespace kestrium::platform {
namespace {

constexpr uid_t kNobody = 65534;

std::filesystem::path shmFile(const std::string& shmName) { return "/dev/shm" + shmName; }

std::optional<struct stat> statOf(const std::string& shmName) {
  struct stat st {};
  if (stat(shmFile(shmName).c_str(), &st) != 0) return std::nullopt;
  return st;
}

bool exists(const std::string& shmName) {
  struct stat st {};
  return lstat(shmFile(shmName).c_str(), &st) == 0;
}

// The files of the current namespace in /dev/shm, its lock file included.
std::vector<std::string> namespaceFiles() {
  const std::string prefix = posix::namespaceLockName().substr(1);
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
    const std::string file = entry.path().filename().string();
    if (file.starts_with(prefix)) found.push_back(file);
  }
  return found;
}

// A namespace of this test's own, for this process and the helpers it starts, so
// that what is found in it was made here. It lies inside the run's namespace, as
// every test's does, so that a run can tell what it left behind.
class OwnNamespace {
 public:
  OwnNamespace() : saved_(objectNamespace()), name_(toUtf8(saved_) + "-" + toUtf8(test::uniquePrefix())) {
    setObjectNamespace(toUtf16(name_));
  }
  ~OwnNamespace() { setObjectNamespace(saved_); }
  OwnNamespace(const OwnNamespace&) = delete;
  OwnNamespace& operator=(const OwnNamespace&) = delete;

  ChildProcess::Environment environment() const { return {{"KESTRIUM_NAMESPACE", name_}}; }

 private:
  std::u16string saved_;
  std::string name_;
};

ChildProcess startHelper(const std::string& scenario, const std::string& arg, const ChildProcess::Environment& env) {
  ChildProcess child;
  EXPECT_TRUE(child.start(executablePath().parent_path() / KESTRIUM_PLATFORM_HELPER, {scenario, "t", arg}, env));
  return child;
}

// Objects and the namespace lock are 0600 and ours: another user cannot open them.
TEST(PosixObjectTest, ObjectsAndTheNamespaceLockAreOnlyTheirUsers) {
  const std::u16string name = test::uniquePrefix();
  SharedMapping map(name + u".map", 64);
  NamedMutex mutex;
  Event event;
  ASSERT_TRUE(map.open());
  ASSERT_TRUE(mutex.create(name + u".m", false));
  ASSERT_TRUE(event.create(name + u".e"));
  for (const std::string& shmName : {posix::objectShmName(name + u".map"), posix::objectShmName(name + u".m"),
                                     posix::objectShmName(name + u".e"), posix::namespaceLockName()}) {
    const auto st = statOf(shmName);
    ASSERT_TRUE(st.has_value()) << shmName;
    EXPECT_EQ(st->st_mode & 0777, 0600u) << shmName;
    EXPECT_EQ(st->st_uid, geteuid()) << shmName;
  }
  if (geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  const std::string shmName = posix::objectShmName(name + u".map");
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    if (setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(2);
    const int fd = shm_open(shmName.c_str(), O_RDWR, 0);
    _exit(fd < 0 && errno == EACCES ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 2) GTEST_SKIP() << "this machine does not let root change user";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "another user opened our object";
}

// Someone who creates our name first, before any server runs, must not get our
// frames: an object that is not ours alone is refused.
struct Impostor {
  mode_t mode;
  bool otherOwner;
};

class ImpostorTest : public ::testing::TestWithParam<Impostor> {};

TEST_P(ImpostorTest, ForeignOrOpenObjectIsRefused) {
  if (GetParam().otherOwner && geteuid() != 0) {
    GTEST_SKIP() << "needs root to give a file away";
  }
  OwnNamespace ns;
  const std::u16string name = test::uniquePrefix();
  const std::string shmName = posix::objectShmName(name);
  const int fd = shm_open(shmName.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(fchmod(fd, GetParam().mode), 0);
  if (GetParam().otherOwner) {
    ASSERT_EQ(fchown(fd, kNobody, kNobody), 0);
  }
  close(fd);

  SharedMapping map(name, 64);
  EXPECT_FALSE(map.open());
  NamedMutex mutex;
  EXPECT_FALSE(mutex.create(name, false));
  shm_unlink(shmName.c_str());
  // With the impostor gone the namespace is empty: reclaiming takes its lock file.
  EXPECT_EQ(reclaimAbandonedObjects().count, 0);
  EXPECT_EQ(namespaceFiles(), std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(Kinds, ImpostorTest,
                         ::testing::Values(Impostor{0666, false}, Impostor{0640, false}, Impostor{0600, true}),
                         [](const auto& info) { return "Case" + std::to_string(info.index); });

TEST(PosixObjectTest, LongNamesAreCutToAFileNameAndStayDistinct) {
  const std::u16string base(1024, u'r');
  const std::string a = posix::objectShmName(base + u"_mutex_in_record");
  const std::string b = posix::objectShmName(base + u"_new_source");
  EXPECT_LE(a.size() - 1, 255u);
  EXPECT_LE(b.size() - 1, 255u);
  EXPECT_NE(a, b);
  EXPECT_EQ(a, posix::objectShmName(base + u"_mutex_in_record"));
  EXPECT_NE(posix::objectShmName(u"a/b").find("a%2Fb"), std::string::npos);
  EXPECT_NE(posix::objectShmName(u"a%2Fb").find("a%252Fb"), std::string::npos);

  Event e1, e2;
  ASSERT_TRUE(e1.create(base + u"_new_source"));
  ASSERT_TRUE(e2.create(base + u"_new_encoded"));
  EXPECT_FALSE(e2.existed());
}

// The last handle of an object removes its name (one mapping per object and
// process), and the last object of a namespace takes the lock file along.
TEST(PosixObjectTest, TheLastHandleTakesTheNameAndTheLastObjectTheLockFile) {
  OwnNamespace ns;
  SharedMapping map(u"map", 64), second(u"map", 64);
  Event event;
  ASSERT_TRUE(map.open());
  ASSERT_TRUE(second.open());
  EXPECT_EQ(map.view(), second.view());
  ASSERT_TRUE(event.create(u"e"));
  map.close();
  EXPECT_TRUE(exists(posix::objectShmName(u"map")));
  second.close();
  EXPECT_FALSE(exists(posix::objectShmName(u"map")));
  EXPECT_TRUE(exists(posix::namespaceLockName())) << "the event still needs it";
  event.close();
  EXPECT_EQ(namespaceFiles(), std::vector<std::string>{});
  // An object that cannot be made (no /dev/shm has a pebibyte to give) leaves
  // nothing either.
  SharedMapping huge(u"huge", uint64_t{1} << 50);
  EXPECT_FALSE(huge.open());
  EXPECT_EQ(namespaceFiles(), std::vector<std::string>{});
}

// Processes that make and close objects of one namespace at the same time, the
// namespace emptying (and its lock file going) between their rounds: a lock file
// removed under a waiting process would let two processes make the same object
// at once, so that two mutexes answer to one name, or an object is half made.
TEST(PosixObjectTest, NamespaceLockHoldsWhileItsFileComesAndGoes) {
  constexpr int kChildren = 3;
  constexpr int kRounds = 2000;
  OwnNamespace ns;
  const std::u16string churnNamespace = objectNamespace();
  setObjectNamespace(churnNamespace + u"-referee");
  SharedMapping referee(u"t.referee", 64);
  ASSERT_TRUE(referee.open());
  setObjectNamespace(churnNamespace);

  std::vector<ChildProcess> children;
  for (int i = 0; i < kChildren; ++i) {
    children.push_back(startHelper("churn", std::to_string(kRounds), ns.environment()));
  }
  for (auto& child : children) EXPECT_EQ(child.wait(120000), 0);
  EXPECT_EQ(namespaceFiles(), std::vector<std::string>{});
}

// A child forked without exec neither sees the mapping nor keeps the name alive
// after the parent lets go.
TEST(PosixObjectTest, AForkedChildCannotTouchOrKeepAnObject) {
  const std::u16string name = test::uniquePrefix();
  auto map = std::make_unique<SharedMapping>(name, 4096);
  ASSERT_TRUE(map->open());
  volatile std::byte* view = map->view();
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const pid_t toucher = fork();
  ASSERT_GE(toucher, 0);
  if (toucher == 0) {
    view[0] = std::byte{1};
    _exit(0);
  }
  const pid_t sleeper = fork();
  ASSERT_GE(sleeper, 0);
  if (sleeper == 0) {
    close(pipeFds[1]);
    char c;
    while (read(pipeFds[0], &c, 1) < 0 && errno == EINTR) {
    }
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(toucher, &status, 0), toucher);
  // It dies on the access (by SIGSEGV, or by a sanitizer's report of it).
  EXPECT_FALSE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child wrote into the parent's object";

  map.reset();
  SharedMapping again(name, 4096);
  ASSERT_TRUE(again.open());
  EXPECT_FALSE(again.existed()) << "the sleeping child kept the old object alive";
  close(pipeFds[1]);
  close(pipeFds[0]);
  ASSERT_EQ(waitpid(sleeper, &status, 0), sleeper);
}

// How a process ends without closing its objects; both leave their names behind.
enum class Ending { Killed, Exited };

class ReclaimTest : public ::testing::TestWithParam<Ending> {};

TEST_P(ReclaimTest, RemovesExactlyTheObjectsNoLiveProcessHolds) {
  OwnNamespace ns;
  constexpr uint32_t kPatience = 20000;
  Event ready;
  ASSERT_TRUE(ready.create(u"t.ready"));
  SharedMapping own(u"t.own", 8192);
  ASSERT_TRUE(own.open());
  ChildProcess holder = startHelper("fillhold", {}, ns.environment());
  ASSERT_EQ(ready.wait(kPatience), kWaitObject0);

  ChildProcess leaver = startHelper("leave", GetParam() == Ending::Exited ? "1" : "0", ns.environment());
  ASSERT_EQ(ready.wait(kPatience), kWaitObject0);
  if (GetParam() == Ending::Killed) {
    ASSERT_TRUE(leaver.kill());
  }
  ASSERT_TRUE(leaver.wait(kPatience).has_value());
  const std::string leftMap = posix::objectShmName(u"t.left.map"), leftEvent = posix::objectShmName(u"t.left.e");
  ASSERT_TRUE(exists(leftMap) && exists(leftEvent)) << "an ended process leaves its names";

  // Unheld files just outside the namespace: a neighbour whose name only extends
  // this namespace's, and a link in this namespace that points at it.
  const std::string lockName = posix::namespaceLockName();
  const std::string neighbour = lockName.substr(0, lockName.size() - 1) + "x.dead";
  const std::string link = lockName + "link";
  const int fd = shm_open(neighbour.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  ASSERT_EQ(symlink(shmFile(neighbour).c_str(), shmFile(link).c_str()), 0);

  const ReclaimedObjects reclaimed = reclaimAbandonedObjects();
  EXPECT_EQ(reclaimed.count, 2);
  EXPECT_EQ(reclaimed.bytes, (1u << 20) + 2 * posix::kHeaderSize) << "the mapping's bytes and two headers";
  EXPECT_FALSE(exists(leftMap));
  EXPECT_FALSE(exists(leftEvent));
  for (const char16_t* held : {u"t.ready", u"t.own", u"t.stale", u"t.stale.m", u"t.stale.e"}) {
    EXPECT_TRUE(exists(posix::objectShmName(held))) << toUtf8(held) << " is held by a live process";
  }
  EXPECT_TRUE(exists(neighbour));
  EXPECT_TRUE(exists(link));
  shm_unlink(neighbour.c_str());
  unlink(shmFile(link).c_str());

  // Once the holder dies too, its objects are what keeps the namespace, until
  // they are reclaimed.
  ASSERT_TRUE(holder.kill());
  ASSERT_TRUE(holder.wait(kPatience).has_value());
  own.close();
  ready.close();
  EXPECT_EQ(reclaimAbandonedObjects().count, 3);
  EXPECT_EQ(namespaceFiles(), std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(Endings, ReclaimTest, ::testing::Values(Ending::Killed, Ending::Exited),
                         [](const auto& info) { return info.param == Ending::Killed ? "Killed" : "Exited"; });

TEST(PosixSystemTest, DocumentsFolderFollowsXdgThenHome) {
  const auto keep = [](const char* var) {
    const char* v = std::getenv(var);
    return v ? std::optional<std::string>(v) : std::nullopt;
  };
  const auto xdg = keep("XDG_DOCUMENTS_DIR");
  const auto home = keep("HOME");
  const auto dir = std::filesystem::temp_directory_path() / ("kestrium-home-" + toUtf8(test::uniquePrefix()));
  std::filesystem::create_directories(dir);

  setenv("XDG_DOCUMENTS_DIR", "/srv/docs", 1);
  EXPECT_EQ(documentsFolder(), "/srv/docs");
  unsetenv("XDG_DOCUMENTS_DIR");
  setenv("HOME", dir.c_str(), 1);
  EXPECT_EQ(documentsFolder(), dir);
  std::filesystem::create_directories(dir / "Documents");
  EXPECT_EQ(documentsFolder(), dir / "Documents");
  unsetenv("HOME");
  EXPECT_EQ(documentsFolder(), "/tmp");

  if (xdg) setenv("XDG_DOCUMENTS_DIR", xdg->c_str(), 1);
  if (home) setenv("HOME", home->c_str(), 1);
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace kestrium::platform
