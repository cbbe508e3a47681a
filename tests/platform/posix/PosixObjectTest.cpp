// What only the POSIX emulation of named objects has to get right: file modes and
// owners in /dev/shm, names that fit a file system, and fork.

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

TEST(PosixObjectTest, ObjectsAndTheNamespaceLockAreReadableOnlyByTheirUser) {
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
}

TEST(PosixObjectTest, AnotherUserCannotOpenTheObjects) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs root to become another user";
  }
  const std::u16string name = test::uniquePrefix();
  SharedMapping map(name, 64);
  ASSERT_TRUE(map.open());
  const std::string shmName = posix::objectShmName(name);
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
  if (WEXITSTATUS(status) == 2) {
    GTEST_SKIP() << "this machine does not let root change user";
  }
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
}

INSTANTIATE_TEST_SUITE_P(Kinds, ImpostorTest,
                         ::testing::Values(Impostor{0666, false}, Impostor{0640, false}, Impostor{0600, true}),
                         [](const auto& info) { return "Case" + std::to_string(info.index); });

TEST(PosixObjectTest, TheLastHandleToCloseRemovesTheName) {
  const std::u16string name = test::uniquePrefix();
  const std::string shmName = posix::objectShmName(name);
  SharedMapping a(name, 64), b(name, 64);
  ASSERT_TRUE(a.open());
  ASSERT_TRUE(b.open());
  EXPECT_EQ(a.view(), b.view()) << "one mapping per object and process";
  a.close();
  EXPECT_TRUE(statOf(shmName).has_value());
  b.close();
  EXPECT_FALSE(statOf(shmName).has_value());
}

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
