// The MP4 repair on journals and files no writer of ours made: the journal is
// read or refused, and the samples it names are fed to a new file only where
// they lie in the data, whatever the records say.
//
// Input: the journal's length (a little-endian 32-bit word), the journal, then
// the damaged MP4 file.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>

#include "fileOutput/Mp4Journal.h"
#include "platform/File.h"
#include "tests/fuzz/FuzzSupport.h"
#include "tools/Repair.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kestrium;
  if (size < 4) return 0;
  uint32_t journalSize;
  std::memcpy(&journalSize, data, 4);
  const std::span<const std::byte> rest(reinterpret_cast<const std::byte*>(data) + 4, size - 4);
  const std::span<const std::byte> journal = rest.first(std::min<size_t>(journalSize, rest.size()));
  const std::span<const std::byte> file = rest.subspan(journal.size());

  mp4journal::Journal parsed;
  std::string error;
  mp4journal::read(journal, parsed, error);

  const auto input = fuzz::scratchFolder() / "in.mp4", output = fuzz::scratchFolder() / "out.mp4";
  auto journalPath = input;
  journalPath += mp4journal::kSuffix;
  fuzz::writeFile(input, file);
  fuzz::writeFile(journalPath, journal);
  tools::repairRecording(input, output);
  std::filesystem::remove(output);
  return 0;
}
