// Building, writing and reading the Huffman code of a TMB2 plane.

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "codecs/Tmb2.h"

namespace kestrium::tmb2 {

namespace {

// Sorts the symbols by ascending count with the codec's own quicksort: pivot
// the middle element, swapped to the low end; the left scan passes elements not
// greater than the pivot, the right scan elements greater than it; the larger
// side waits on an explicit stack while the smaller is sorted. Equal counts end
// up where this leaves them, and that decides which of several equally frequent
// symbols gets the longer code, so the order must be reproduced exactly.
void sortByCount(uint8_t* a, int n, const int32_t* counts) {
  struct Range {
    int lo, hi;
  };
  Range stack[32];  // the smaller side first keeps the depth below log2(256)
  int top = 0;
  int lo = 0, hi = n - 1;
  for (;;) {
    while (lo < hi) {
      std::swap(a[lo], a[(lo + hi) / 2]);
      const int32_t pivot = counts[a[lo]];
      int i = lo + 1, j = hi;
      for (;;) {
        while (i <= j && counts[a[i]] <= pivot) ++i;
        while (counts[a[j]] > pivot) --j;  // a[lo] holds the pivot: stops there at the latest
        if (i >= j) break;
        std::swap(a[i], a[j]);
      }
      std::swap(a[lo], a[j]);
      if (j - lo < hi - j) {
        stack[top++] = {j + 1, hi};
        hi = j - 1;
      } else {
        stack[top++] = {lo, j - 1};
        lo = j + 1;
      }
    }
    if (top == 0) return;
    --top;
    lo = stack[top].lo;
    hi = stack[top].hi;
  }
}

int bitsOf(uint32_t v) { return std::bit_width(v); }

// Leaves per level for a tree given by the level of each internal node:
// at each level the slots are twice the internal nodes of the level above, and
// the slots that are not internal nodes are leaves. False if some level would
// have more internal nodes than slots or the leaves don't add up to n.
bool leavesPerLevel(const int64_t* internalLevel, int internalCount, int n, std::array<int, 64>& leaves) {
  std::array<int, 64> internal{};
  for (int i = 0; i < internalCount; ++i) {
    if (internalLevel[i] < 0 || internalLevel[i] >= 63) return false;
    ++internal[static_cast<size_t>(internalLevel[i])];
  }
  leaves.fill(0);
  int slots = 1;  // the root's
  int total = 0;
  for (size_t level = 0; level < 64; ++level) {
    const int l = slots - internal[level];
    if (l < 0) return false;
    leaves[level] = l;
    total += l;
    slots = 2 * internal[level];
  }
  return total == n && slots == 0;
}

// Caps leaf levels at kMaxCodeLength on a valid set of leaves per level, by
// moving pairs of the deepest leaves up and splitting a shallower leaf, which
// keeps the code complete. Used only for the trees the codec's own re-hanging
// cannot fix (see buildCodeLengths).
void capLevels(std::array<int, 64>& leaves) {
  for (int level = 63; level > kMaxCodeLength; --level) {
    while (leaves[level] > 0) {
      int j = level - 2;
      while (j > 0 && leaves[j] == 0) --j;
      leaves[level] -= 2;
      leaves[level - 1] += 1;
      leaves[j + 1] += 2;
      leaves[j] -= 1;
    }
  }
}

class BitWriter {
 public:
  explicit BitWriter(uint8_t* out) : out_(out) {}
  void put(uint32_t value, int bits) {
    for (int b = bits - 1; b >= 0; --b) {
      word_ = (word_ << 1) | ((value >> b) & 1u);
      if (++used_ == 32) flush();
    }
  }
  // Zero-fills the last word at its low end; returns the bytes written.
  size_t finish() {
    if (used_ != 0) {
      word_ <<= 32 - used_;
      flush();
    }
    return words_ * 4;
  }

 private:
  void flush() {
    const uint32_t w = word_;
    std::memcpy(out_ + words_ * 4, &w, 4);
    ++words_;
    word_ = 0;
    used_ = 0;
  }
  uint8_t* out_;
  uint32_t word_ = 0;
  int used_ = 0;
  size_t words_ = 0;
};

class BitReader {
 public:
  BitReader(const uint8_t* data, size_t size) : data_(data), bits_(size / 4 * 32) {}
  bool get(int bits, uint32_t& value) {
    if (bits > 0 && (pos_ + static_cast<size_t>(bits) > bits_)) return false;
    value = 0;
    for (int b = 0; b < bits; ++b, ++pos_) {
      uint32_t w;
      std::memcpy(&w, data_ + pos_ / 32 * 4, 4);
      value = (value << 1) | ((w >> (31 - pos_ % 32)) & 1u);
    }
    return true;
  }
  size_t position() const { return pos_; }

 private:
  const uint8_t* data_;
  size_t bits_;
  size_t pos_ = 0;
};

}  // namespace

FrameLayout frameLayout(uint32_t width, uint32_t height) {
  const size_t w = width, h = height;
  const size_t lumaCount = w * h;
  const size_t chromaCount = lumaCount / 4;
  FrameLayout f{};
  f.planes[0] = {0, w, h, static_cast<uint32_t>(lumaCount)};
  f.planes[1] = {lumaCount, w / 2, h / 2, static_cast<uint32_t>(chromaCount)};
  f.planes[2] = {lumaCount + chromaCount, w / 2, h / 2, static_cast<uint32_t>(chromaCount)};
  f.planesSize = lumaCount + 2 * chromaCount;
  return f;
}

void buildCodeLengths(const int32_t counts[256], uint8_t lengths[256]) {
  std::memset(lengths, 0, 256);
  uint8_t sym[256];
  int n = 0;
  for (int s = 0; s < 256; ++s) {
    if (counts[s] != 0) sym[n++] = static_cast<uint8_t>(s);
  }
  if (n == 0) return;
  sortByCount(sym, n, counts);
  if (n <= 2) {
    for (int i = 0; i < n; ++i) lengths[sym[i]] = 1;
    return;
  }

  // Minimum-redundancy lengths in place (Moffat and Katajainen). A holds the
  // leaves' weights in ascending order; internal node k is formed in A[k], and a
  // node that has been consumed holds its parent's index, plus n for a second
  // child (reads take the index modulo n). A tie between a leaf and an internal
  // node goes to the leaf. Weights are 64-bit here, so that sums of large counts
  // cannot overflow.
  int64_t A[256];
  for (int i = 0; i < n; ++i) A[i] = counts[sym[i]];
  A[0] += A[1];
  int root = 0, leaf = 2;
  for (int next = 1; next < n - 1; ++next) {
    if (leaf >= n || A[root] < A[leaf]) {
      A[next] = A[root];
      A[root++] = next;
    } else {
      A[next] = A[leaf++];
    }
    if (leaf >= n || (root < next && A[root] < A[leaf])) {
      A[next] += A[root];
      A[root++] = next + n;
    } else {
      A[next] += A[leaf++];
    }
  }
  // Levels of the internal nodes, from the root (n - 2, level 0) down.
  A[n - 2] = 0;
  for (int next = n - 3; next >= 0; --next) A[next] = A[A[next] % n] + 1;
  int64_t original[256];
  std::memcpy(original, A, sizeof(int64_t) * static_cast<size_t>(n - 1));

  // Depth limit. Internal nodes at level 30 have their leaves at 31, the longest
  // code allowed. The first internal node formed is the deepest; when its parent
  // stands at level 30 or deeper, the D internal nodes at those levels (the first
  // D formed) are hung again as a balanced block: one at level L - 1, then 1, 2,
  // 4... at L, L + 1..., the last level taking the rest, with L chosen so that
  // the deepest of them ends at level 30.
  if (A[0] > kMaxCodeLength - 1) {
    int d = 0;
    while (d < n - 1 && A[d] >= kMaxCodeLength - 1) ++d;
    const int top = kMaxCodeLength - bitsOf(static_cast<uint32_t>(d - 1));  // 31 - ceil(log2 D)
    int index = d - 1;
    A[index--] = top - 1;
    for (int level = top, room = 1; index >= 0; ++level, room *= 2) {
      for (int k = 0; k < room && index >= 0; ++k) A[index--] = level;
    }
  }

  std::array<int, 64> leaves;
  if (!leavesPerLevel(A, n - 1, n, leaves)) {
    // The block found no free slot at its top level: such a tree cannot come from
    // image residuals, but the code must stay valid, so cap the original tree.
    leavesPerLevel(original, n - 1, n, leaves);
    capLevels(leaves);
  }
  // Leaves get their levels from the top down, the most frequent symbols first.
  int next = n - 1;
  for (int level = 1; level < 64 && next >= 0; ++level) {
    for (int k = 0; k < leaves[static_cast<size_t>(level)]; ++k) lengths[sym[next--]] = static_cast<uint8_t>(level);
  }
}

bool assignCanonicalCodes(const uint8_t lengths[256], uint32_t codes[256]) {
  uint8_t order[256];
  int n = 0;
  for (int len = kMaxCodeLength; len >= 1; --len) {
    for (int s = 0; s < 256; ++s) {
      if (lengths[s] == len) order[n++] = static_cast<uint8_t>(s);
    }
  }
  std::memset(codes, 0, 256 * sizeof(uint32_t));
  for (int s = 0; s < 256; ++s) {
    if (lengths[s] > kMaxCodeLength) return false;
  }
  if (n == 0) return false;
  uint64_t code = 0;
  int prevLen = lengths[order[0]];
  codes[order[0]] = 0;
  for (int i = 1; i < n; ++i) {
    const int len = lengths[order[i]];
    const uint64_t next = code + 1;
    // A shift that drops 1 bits would make this code a prefix of the one before.
    if ((next & ((uint64_t{1} << (prevLen - len)) - 1)) != 0) return false;
    code = next >> (prevLen - len);
    codes[order[i]] = static_cast<uint32_t>(code);
    prevLen = len;
  }
  return code < (uint64_t{1} << prevLen);
}

size_t writeTableBlock(const uint8_t lengths[256], uint8_t* out) {
  int maxLen = 0, used = 0, longestRun = 0;
  for (int s = 0, run = 0; s < 256; ++s) {
    maxLen = std::max<int>(maxLen, lengths[s]);
    if (lengths[s] != 0) {
      ++used;
      run = 0;
    } else {
      longestRun = std::max(longestRun, ++run);
    }
  }
  int b = bitsOf(static_cast<uint32_t>(maxLen));
  int r = 0, e = 0;
  if (used < 256) {
    e = maxLen + 1;
    r = bitsOf(static_cast<uint32_t>(longestRun));
    if (std::has_single_bit(static_cast<uint32_t>(e))) ++b;  // so that E fits in a length field
  }
  BitWriter w(out);
  w.put(static_cast<uint32_t>(b), 4);
  w.put(static_cast<uint32_t>(r), 4);
  w.put(static_cast<uint32_t>(e), 8);
  for (int s = 0; s < 256;) {
    if (lengths[s] != 0) {
      w.put(lengths[s], b);
      ++s;
      continue;
    }
    int k = 0;
    while (s + k < 256 && lengths[s + k] == 0) ++k;
    if (r < (k - 1) * b) {
      w.put(static_cast<uint32_t>(e), b);
      w.put(static_cast<uint32_t>(k), r);
    } else {
      for (int i = 0; i < k; ++i) w.put(0, b);
    }
    s += k;
  }
  return w.finish();
}

const char* readTableBlock(const uint8_t* block, size_t size, uint8_t lengths[256]) {
  if (size % 4 != 0) return "table block size is not a multiple of 4";
  BitReader in(block, size);
  uint32_t b = 0, r = 0, e = 0;
  if (!in.get(4, b) || !in.get(4, r) || !in.get(8, e)) return "table block too short for its header";
  if (b == 0) return "table block has length fields of 0 bits";
  std::memset(lengths, 0, 256);
  int used = 0;
  for (int s = 0; s < 256;) {
    uint32_t v = 0;
    if (!in.get(static_cast<int>(b), v)) return "table block ends before symbol 255";
    if (e != 0 && v == e) {
      uint32_t k = 0;
      if (!in.get(static_cast<int>(r), k)) return "table block ends inside a run";
      if (k == 0 || static_cast<uint32_t>(s) + k > 256) return "run of unused symbols is empty or passes symbol 255";
      s += static_cast<int>(k);
      continue;
    }
    if (v > static_cast<uint32_t>(kMaxCodeLength)) return "code length over 31";
    lengths[s++] = static_cast<uint8_t>(v);
    used += v != 0;
  }
  if (used == 0) return "table gives no symbol a code";
  if ((in.position() + 31) / 32 * 4 != size) return "table block size does not match its contents";
  return nullptr;
}

}  // namespace kestrium::tmb2
