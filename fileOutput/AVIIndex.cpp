#include "fileOutput/AVIIndex.h"

#include <new>

namespace kestrium {

bool AVIIndex::add(const AVIIndexEntry& entry) {
  if (blocks_.empty() || blocks_.back()->used == kBlockEntries) {
    std::unique_ptr<Block> block(new (std::nothrow) Block);
    if (!block) return false;
    blocks_.push_back(std::move(block));
  }
  Block& tail = *blocks_.back();
  tail.entries[tail.used++] = entry;
  ++count_;
  return true;
}

std::vector<AVIIndexEntry> AVIIndex::flatten() {
  std::vector<AVIIndexEntry> all;
  all.reserve(count_);
  for (const auto& block : blocks_) all.insert(all.end(), block->entries, block->entries + block->used);
  blocks_.clear();
  return all;
}

}  // namespace kestrium
