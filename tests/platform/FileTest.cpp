#include <gtest/gtest.h>

#include <array>
#include <filesystem>
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

TEST_F(FileTest, WritesAppendAndWriteAtPatchesWithoutMoving) {
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
}

TEST_F(FileTest, SeekAndSetEndOfFileCutAndExtend) {
  File f;
  ASSERT_TRUE(f.open(dir_ / "b.bin", File::Mode::CreateAlways));
  ASSERT_TRUE(f.write(bytes("0123456789")));
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
