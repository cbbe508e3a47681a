// What only the Win32 backend has to get right: the command line and
// environment block it builds for a child, the kernel names it derives from
// KESTRIUM_NAMESPACE, volume roots, and ending processes and threads.

#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/ChildProcess.h"
#include "platform/File.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "platform/win32/Win32Names.h"
#include "tests/platform/PlatformTestSupport.h"

namespace kestrium::platform {
namespace {

namespace fs = std::filesystem;

constexpr uint32_t kPatience = 20000;

fs::path helperPath() { return executablePath().parent_path() / KESTRIUM_WIN32_CHILD_HELPER; }

std::string readFile(const fs::path& path) {
  File in;
  if (!in.open(path, File::Mode::ReadOnly)) return "<no file>";
  std::string text(static_cast<size_t>(in.size()), '\0');
  in.read(std::as_writable_bytes(std::span(text.data(), text.size())));
  return text;
}

std::vector<std::string> splitAtZeros(const std::string& text) {
  std::vector<std::string> parts;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = text.find('\0', begin);
    parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

class Win32ChildTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("kestrium-child-" + toUtf8(test::uniquePrefix()));
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  // Runs the helper to its end; its exit status, or -1 if it did not end.
  static int run(const fs::path& program, const std::vector<std::string>& args,
                 const ChildProcess::Environment& env = {}) {
    ChildProcess child;
    if (!child.start(program, args, env)) return -2;
    return child.wait(kPatience).value_or(-1);
  }

  fs::path out() const { return dir_ / "out.bin"; }

  fs::path dir_;
};

class CommandLineTest : public Win32ChildTest, public ::testing::WithParamInterface<std::vector<std::string>> {};

TEST_P(CommandLineTest, ArgumentsArriveAsTheyWereGiven) {
  std::vector<std::string> args{"args", out().string()};
  args.insert(args.end(), GetParam().begin(), GetParam().end());
  ASSERT_EQ(run(helperPath(), args), 0);
  EXPECT_EQ(splitAtZeros(readFile(out())), GetParam());
}

// The cases where the C runtime's splitting rules bite: blanks, empty
// arguments, quotes, and backslashes that do or do not precede a quote.
INSTANTIATE_TEST_SUITE_P(
    Quoting, CommandLineTest,
    ::testing::Values(std::vector<std::string>{"plain", "two"}, std::vector<std::string>{""},
                      std::vector<std::string>{"", "", "x"}, std::vector<std::string>{"two words", "tab\there"},
                      std::vector<std::string>{"say \"hi\"", "\""}, std::vector<std::string>{"C:\\dir\\"},
                      std::vector<std::string>{"C:\\dir with space\\"}, std::vector<std::string>{"a\\\\\"b", "\\\""},
                      std::vector<std::string>{"\\\\server\\share", "a\\b c"},
                      std::vector<std::string>{"caf\xc3\xa9 \xe4\xb8\xad\xe6\x96\x87", "\xf0\x9f\x8e\xae"}),
    [](const auto& info) { return "Case" + std::to_string(info.index); });

TEST_F(Win32ChildTest, ProgramInAFolderWithSpacesStarts) {
  const fs::path folder = dir_ / "folder with spaces";
  fs::create_directories(folder);
  const fs::path copy = folder / "helper copy.exe";
  fs::copy_file(helperPath(), copy);
  EXPECT_EQ(run(copy, {"exit", "7"}), 7);
}

TEST_F(Win32ChildTest, ExtraVariablesReplaceTheirNamesakesIgnoringCase) {
  ASSERT_TRUE(SetEnvironmentVariableW(L"KESTRIUM_TEST_INHERITED", L"parent"));
  ASSERT_TRUE(SetEnvironmentVariableW(L"Kestrium_Test_Mixed", L"parent"));
  const int status = run(helperPath(),
                         {"env", out().string(), "KESTRIUM_TEST_INHERITED", "KESTRIUM_TEST_MIXED", "KESTRIUM_TEST_NEW",
                          "KESTRIUM_TEST_TWICE"},
                         {{"kestrium_test_mixed", "child"},
                          {"KESTRIUM_TEST_NEW", "caf\xc3\xa9 = x"},
                          {"KESTRIUM_TEST_TWICE", "first"},
                          {"kestrium_test_twice", "second"}});
  SetEnvironmentVariableW(L"KESTRIUM_TEST_INHERITED", nullptr);
  SetEnvironmentVariableW(L"Kestrium_Test_Mixed", nullptr);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(splitAtZeros(readFile(out())),
            (std::vector<std::string>{"1:parent", "1:child", "1:caf\xc3\xa9 = x", "1:second"}));
}

TEST_F(Win32ChildTest, FatalStopEndsWithStatusThreeAndRunsNoExitHandler) {
  EXPECT_EQ(run(helperPath(), {"fatal", out().string()}), 3);
  EXPECT_FALSE(fs::exists(out()));
}

TEST_F(Win32ChildTest, KilledChildEndsWithStatusOne) {
  ChildProcess child;
  ASSERT_TRUE(child.start(helperPath(), {"sleep", "0"}));
  EXPECT_FALSE(child.wait(0).has_value());
  ASSERT_TRUE(child.kill());
  EXPECT_EQ(child.wait(kPatience), 1);
  EXPECT_FALSE(child.running());
  EXPECT_FALSE(child.kill()) << "nothing left to kill once collected";
}

// Terminating a thread caught inside the loader or the C runtime leaves their
// locks held, and the process then hangs when it exits.
TEST_F(Win32ChildTest, ThreadsTerminatedRightAfterStartLetTheProcessExit) {
  EXPECT_EQ(run(helperPath(), {"threads", "300"}), 0);
}

// The namespace becomes a prefix of the kernel name, with the characters that
// mean something to the kernel's name lookup made harmless.
struct NamespaceCase {
  const char* ns;
  const wchar_t* kernelPrefix;
};

void PrintTo(const NamespaceCase& c, std::ostream* os) {
  *os << "namespace \"" << c.ns << "\" -> " << ::testing::PrintToString(c.kernelPrefix);
}

class KernelNameTest : public Win32ChildTest, public ::testing::WithParamInterface<NamespaceCase> {};

TEST_P(KernelNameTest, ChildInANamespaceFindsTheObjectUnderThePrefixedName) {
  const std::u16string name = test::uniquePrefix();
  const std::wstring kernelName = GetParam().kernelPrefix + std::wstring(name.begin(), name.end());
  HANDLE raw = CreateMutexW(nullptr, FALSE, kernelName.c_str());
  ASSERT_NE(raw, nullptr);
  EXPECT_EQ(run(helperPath(), {"mutex", toUtf8(name)}, {{"KESTRIUM_NAMESPACE", GetParam().ns}}), 1);
  CloseHandle(raw);
  EXPECT_EQ(run(helperPath(), {"mutex", toUtf8(name)}, {{"KESTRIUM_NAMESPACE", GetParam().ns}}), 0)
      << "the raw object was the one it found";
}

INSTANTIATE_TEST_SUITE_P(Namespaces, KernelNameTest,
                         ::testing::Values(NamespaceCase{"", L""}, NamespaceCase{"run7", L"run7:"},
                                           NamespaceCase{"Global\\run:7", L"Global_run_7:"}),
                         [](const auto& info) { return "Case" + std::to_string(info.index); });

struct RootCase {
  const wchar_t* path;
  const wchar_t* root;
};

void PrintTo(const RootCase& c, std::ostream* os) {
  *os << ::testing::PrintToString(c.path) << " -> " << ::testing::PrintToString(c.root);
}

class VolumeRootTest : public ::testing::TestWithParam<RootCase> {};

TEST_P(VolumeRootTest, PathGivesTheRootOfItsVolume) {
  EXPECT_EQ(win32::volumeRoot(GetParam().path), GetParam().root);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, VolumeRootTest,
    ::testing::Values(RootCase{L"C:\\Videos\\a.avi", L"C:\\"}, RootCase{L"d:", L"d:\\"},
                      RootCase{L"e:relative", L"e:\\"}, RootCase{L"\\\\server\\share\\dir\\a.avi", L"\\\\server\\share\\"},
                      RootCase{L"//server/share", L"\\\\server\\share\\"}, RootCase{L"\\\\server", L""},
                      RootCase{L"\\\\server\\", L""}, RootCase{L"\\\\\\share", L""}, RootCase{L"Videos\\a.avi", L""},
                      RootCase{L"\\Videos", L""}, RootCase{L"", L""}, RootCase{L"1:\\x", L""}),
    [](const auto& info) { return "Case" + std::to_string(info.index); });

}  // namespace
}  // namespace kestrium::platform
