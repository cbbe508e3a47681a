// The AVI reader of the tools and the repair's walk, on files no writer of
// ours made: each reads what it can or says why it cannot, and the repair's
// output is always a file our strict reader takes.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <span>
#include <string>

#include "platform/File.h"
#include "tests/fuzz/FuzzSupport.h"
#include "tools/AviReader.h"
#include "tools/Repair.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kestrium;
  const std::span<const std::byte> bytes(reinterpret_cast<const std::byte*>(data), size);
  {
    tools::MemorySource source(bytes);
    tools::AviReader reader;
    std::string error;
    if (reader.open(source, error)) {
      for (const tools::AviChunk& chunk : reader.frames()) {
        if (chunk.offset > size || chunk.size > size - chunk.offset) std::abort();  // a frame outside the file
      }
    }
  }

  const auto input = fuzz::scratchFolder() / "in.avi", output = fuzz::scratchFolder() / "out.avi";
  fuzz::writeFile(input, bytes);
  const tools::RepairReport report = tools::repairRecording(input, output);
  if (report.ok) {
    // What the repair writes, our own reader must take whole.
    tools::FileSource repaired;
    tools::AviReader reader;
    std::string error;
    if (!repaired.open(output) || !reader.open(repaired, error)) {
      std::fprintf(stderr, "the repaired file does not read: %s\n", error.c_str());
      std::abort();
    }
  }
  std::filesystem::remove(output);
  return 0;
}
