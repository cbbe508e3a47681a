#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace kestrium {

// One index of an AVI file, kept in blocks of 2048 entries that are allocated
// one at a time and never moved, so adding an entry never copies the others.
struct AVIIndexEntry {
  int64_t position;  // of the chunk header, relative to the first "movi" code
  uint32_t chunkId;
  uint32_t size;  // top bit set for a chunk that is not a key frame
};
static_assert(sizeof(AVIIndexEntry) == 16);

class AVIIndex {
 public:
  static constexpr size_t kBlockEntries = 2048;

  // False when a block cannot be allocated.
  bool add(const AVIIndexEntry& entry);
  uint64_t count() const { return count_; }
  // All entries in order, in one array; the blocks are freed. Empty on failure.
  std::vector<AVIIndexEntry> flatten();

 private:
  struct Block {
    AVIIndexEntry entries[kBlockEntries];
    uint32_t used = 0;
  };
  std::vector<std::unique_ptr<Block>> blocks_;
  uint64_t count_ = 0;
};

}  // namespace kestrium
