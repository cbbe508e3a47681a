#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>

namespace kestrium::platform {

// A file handle that closes itself. Writes either complete or fail: a short
// write is a failure, as it is for the AVI writer.
class File {
 public:
  enum class Mode {
    CreateAlways,  // create or truncate, read and write
    CreateNew,     // create a file that must not exist yet, read and write
    OpenExisting,  // read and write an existing file
    OpenAlways,    // open or create, keep the contents, read and write
    ReadOnly,      // read an existing file
  };
  enum class Origin { Begin, Current, End };
  // Who else may open the file while this handle lives. Exclusive is Windows'
  // "no sharing": a second exclusive open of the same file fails, and a file
  // that is in use is never truncated by it. (Readers that ask for nothing, such
  // as other programs on POSIX, are not kept out.)
  enum class Share { All, Exclusive };

  File() = default;
  ~File();
  File(File&& other) noexcept;
  File& operator=(File&& other) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool open(const std::filesystem::path& path, Mode mode, Share share = Share::All);
  bool isOpen() const { return handle_ != kInvalid; }
  void close();

  // Writes all bytes at the current position and advances it.
  bool write(std::span<const std::byte> data);
  // Writes all bytes at offset without moving the current position.
  bool writeAt(uint64_t offset, std::span<const std::byte> data);
  // Reads up to data.size() bytes at the current position; -1 on error, 0 at end.
  int64_t read(std::span<std::byte> data);
  int64_t readAt(uint64_t offset, std::span<std::byte> data);

  // New position, or -1 on failure.
  int64_t seek(int64_t offset, Origin origin = Origin::Begin);
  int64_t position();
  int64_t size();
  // Cuts or extends the file at the current position.
  bool setEndOfFile();
  // Pushes written data to the disk.
  bool flush();

  static bool remove(const std::filesystem::path& path);

  // Creates stem + extension as a new file for this handle alone; when that
  // name is taken, stem + " (2)" + extension, " (3)" and so on. Never truncates
  // an existing file. The name it made, or empty when no file could be made
  // (lastError() tells why).
  std::filesystem::path createNumbered(const std::filesystem::path& stem, std::string_view extension,
                                       Share share = Share::Exclusive);

 private:
  // A POSIX descriptor or a Win32 HANDLE, whichever the backend uses.
  static constexpr intptr_t kInvalid = -1;
  intptr_t handle_ = kInvalid;
};

}  // namespace kestrium::platform
