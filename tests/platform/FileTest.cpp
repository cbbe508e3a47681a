#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <vector>

#include "platform/File.h"
#include "tests/platform/PlatformTestSupport.h"

namespace kestrium::platform {
namespace {

std::span<const std::byte> bytes(std::string_view s) { return std::as_bytes(std::span(s.data(), s.size())); }

std::string readAll(File& f) {
  std::string out(static_cast<size_t>(f.size()), '\0');
  EXPECT_EQ(f.readAt(0, std::as_writable_bytes(std::span(out.data(), out.size()))),
            static_cast<int64_t>(out.size()));
  return out;
}

class FileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() / ("kestrium-file-" + toUtf8(test::uniquePrefix()));
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::filesystem::path dir_;
};

TEST_F(FileTest, WritesAppendWriteAtPatchesWithoutMovingAndSetEndOfFileCutsAndExtends) {
  File f;
  ASSERT_TRUE(f.open(dir_ / "a.bin", File::Mode::CreateAlways));
  ASSERT_TRUE(f.write(bytes("RIFF....AVI ")));
  ASSERT_TRUE(f.writeAt(4, bytes("1234")));
  EXPECT_EQ(f.position(), 12);
  ASSERT_TRUE(f.write(bytes("LIST")));
  EXPECT_EQ(f.size(), 16);
  EXPECT_EQ(readAll(f), "RIFF1234AVI LIST");
  EXPECT_EQ(f.position(), 16) << "readAt leaves the position too";
  EXPECT_TRUE(f.flush());
  EXPECT_EQ(f.seek(4), 4);
  ASSERT_TRUE(f.setEndOfFile());
  EXPECT_EQ(f.size(), 4);
  EXPECT_EQ(f.seek(-2, File::Origin::End), 2);
  EXPECT_EQ(f.seek(1, File::Origin::Current), 3);
  EXPECT_EQ(f.seek(100), 100);
  ASSERT_TRUE(f.setEndOfFile());
  EXPECT_EQ(f.size(), 100);
  std::array<std::byte, 4> head{};
  EXPECT_EQ(f.seek(0), 0);
  EXPECT_EQ(f.read(head), 4);
  EXPECT_EQ(head[0], std::byte{'R'});
  EXPECT_EQ(f.position(), 4);
}

TEST_F(FileTest, ModesKeepOrDropWhatIsThere) {
  const auto path = dir_ / "c.bin";
  File f;
  EXPECT_FALSE(f.open(path, File::Mode::OpenExisting));
  EXPECT_FALSE(f.open(path, File::Mode::ReadOnly));
  ASSERT_TRUE(f.open(path, File::Mode::OpenAlways));
  ASSERT_TRUE(f.write(bytes("keep")));
  f.close();
  ASSERT_TRUE(f.open(path, File::Mode::OpenAlways));
  EXPECT_EQ(readAll(f), "keep");
  ASSERT_TRUE(f.open(path, File::Mode::ReadOnly));
  EXPECT_FALSE(f.write(bytes("x"))) << "a read-only file refuses writes";
  ASSERT_TRUE(f.open(path, File::Mode::CreateAlways));
  EXPECT_EQ(f.size(), 0);
  f.close();
  EXPECT_TRUE(File::remove(path));
  EXPECT_FALSE(File::remove(path));
  EXPECT_FALSE(std::filesystem::exists(path));
}

// Two captures must never write one file: an exclusive open keeps a second
// writer out, and never empties the file it could not have.
TEST_F(FileTest, ExclusiveOpenKeepsOtherWritersOutAndNeverTruncates) {
  const auto path = dir_ / "held.avi";
  File first;
  ASSERT_TRUE(first.open(path, File::Mode::CreateNew, File::Share::Exclusive));
  ASSERT_TRUE(first.write(bytes("recording")));
  File second;
  EXPECT_FALSE(second.open(path, File::Mode::CreateNew, File::Share::Exclusive)) << "the name is taken";
  EXPECT_FALSE(second.open(path, File::Mode::CreateAlways, File::Share::Exclusive)) << "the file is in use";
  EXPECT_FALSE(second.open(path, File::Mode::OpenExisting, File::Share::Exclusive));
  EXPECT_EQ(readAll(first), "recording") << "a refused open truncates nothing";
  first.close();
  ASSERT_TRUE(second.open(path, File::Mode::CreateAlways, File::Share::Exclusive)) << "free once closed";
  EXPECT_EQ(second.size(), 0);
}

TEST_F(FileTest, CreateNumberedNumbersTakenNamesAndStopsAtRealFailures) {
  std::vector<File> files(4);
  const std::vector<std::string> expected = {"rec.avi", "rec (2).avi", "rec (3).avi", "rec (4).avi"};
  for (size_t i = 0; i < files.size(); ++i) {
    const auto made = files[i].createNumbered(dir_ / "rec", ".avi");
    EXPECT_EQ(made, dir_ / expected[i]);
    EXPECT_TRUE(files[i].isOpen());
  }
  // A file that was there before is a taken name too, closed or not.
  std::ofstream(dir_ / "old.avi") << "keep";
  File next;
  EXPECT_EQ(next.createNumbered(dir_ / "old", ".avi"), dir_ / "old (2).avi");
  EXPECT_EQ(std::filesystem::file_size(dir_ / "old.avi"), 4u);
  File none;
  EXPECT_TRUE(none.createNumbered(dir_ / "missing" / "rec", ".avi").empty()) << "no folder is no name to number";
  EXPECT_FALSE(none.isOpen());
}

TEST_F(FileTest, ClosedOrMovedFromFileFailsCleanly) {
  File f;
  EXPECT_FALSE(f.write(bytes("x")));
  EXPECT_EQ(f.size(), -1);
  EXPECT_EQ(f.seek(0), -1);
  ASSERT_TRUE(f.open(dir_ / "d.bin", File::Mode::CreateAlways));
  File g = std::move(f);
  EXPECT_FALSE(f.isOpen());
  EXPECT_TRUE(g.write(bytes("moved")));
  EXPECT_FALSE(f.open(dir_ / "missing" / "e.bin", File::Mode::CreateAlways));
}

TEST_F(FileTest, LargeWritesPastFourGigabyteOffsetsKeepSixtyFourBitPositions) {
  File f;
  ASSERT_TRUE(f.open(dir_ / "sparse.bin", File::Mode::CreateAlways));
  const uint64_t far = (uint64_t{1} << 32) + 10;
  ASSERT_TRUE(f.writeAt(far, bytes("tail")));
  EXPECT_EQ(f.size(), static_cast<int64_t>(far + 4));
  EXPECT_EQ(f.seek(static_cast<int64_t>(far)), static_cast<int64_t>(far));
  std::array<std::byte, 4> tail{};
  EXPECT_EQ(f.read(tail), 4);
  EXPECT_EQ(tail[0], std::byte{'t'});
}

}  // namespace
}  // namespace kestrium::platform
