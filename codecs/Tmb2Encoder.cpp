// The TMB2 residual pass and coder.

#include <algorithm>
#include <cstring>

#include "codecs/Tmb2.h"
#include "codecs/simd/SimdKernels.h"

namespace kestrium::tmb2 {

namespace {

inline void store32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, 4); }

// Byte-wise a - b of eight bytes at once, with no borrow from one byte into the
// next: the top bits are handled apart from the low seven.
inline uint64_t subtractBytes(uint64_t a, uint64_t b) {
  constexpr uint64_t kHigh = 0x8080808080808080ull;
  return ((a | kHigh) - (b & ~kHigh)) ^ ((a ^ ~b) & kHigh);
}

void verticalResiduals_C(const uint8_t* above, const uint8_t* below, uint8_t* out, size_t groups,
                         uint32_t (*hist)[256]) {
  for (size_t g = 0; g < groups; ++g) {
    uint64_t a, b;
    std::memcpy(&a, above + g * 8, 8);
    std::memcpy(&b, below + g * 8, 8);
    const uint64_t r = subtractBytes(a, b);
    std::memcpy(out + g * 8, &r, 8);
    ++hist[0][out[g * 8]];
    ++hist[1][out[g * 8 + 2]];
    ++hist[2][out[g * 8 + 4]];
    ++hist[3][out[g * 8 + 6]];
  }
}

// The coding loop. The reference form of it keeps a 32-bit accumulator with 31
// free bits at the start (the first word's top bit belongs to no code), shifts
// each code in with one double-width shift from its table entry (code at the top,
// length in the low byte), stores a word whenever a code does not fit, and at the
// end shifts the last word up, filling its low bits from the last entry. This one
// keeps the pending bits right-aligned in 64 bits, which gives the same words.
class Coder {
 public:
  Coder(uint8_t* out, size_t capacityWords) : out_(out), end_(out + capacityWords * 4) {}

  // Room for `symbols` more codes of up to maxLength bits, plus the one word that
  // the loop stores ahead of time.
  bool roomFor(size_t symbols, int maxLength) const {
    const size_t words = (symbols * static_cast<size_t>(maxLength) + 31) / 32 + 2;
    return static_cast<size_t>(end_ - out_) / 4 >= words;
  }

  // Adds up to 32 bits and stores a word once 32 are pending. The store happens
  // every time, at the current place; only a full word moves the place on, so an
  // incomplete one is overwritten later. No branch depends on the data.
  inline void add(uint64_t code, unsigned length) {
    acc_ = (acc_ << length) | code;
    pending_ += length;
    store32(out_, static_cast<uint32_t>(acc_ >> ((pending_ - 32) & 63)));
    out_ += (pending_ >> 5) * 4;
    pending_ &= 31;
  }

  // The same with a check of the room for each word.
  inline bool addChecked(uint64_t code, unsigned length) {
    acc_ = (acc_ << length) | code;
    pending_ += length;
    if (pending_ >= 32) {
      if (end_ - out_ < 4) return false;
      pending_ -= 32;
      store32(out_, static_cast<uint32_t>(acc_ >> pending_));
      out_ += 4;
    }
    return true;
  }

  // Stores the last, incomplete word, its data at the top and its low bits taken
  // from the top of the last symbol's table entry; returns the bytes written.
  bool finish(uint32_t lastEntry, size_t& bytes) {
    if (pending_ != 0) {
      if (end_ - out_ < 4) return false;
      store32(out_, static_cast<uint32_t>(acc_ << (32 - pending_)) | (lastEntry >> pending_));
      out_ += 4;
    }
    bytes = static_cast<size_t>(out_ - begin());
    return true;
  }

  uint8_t* begin() const { return begin_; }

 private:
  uint8_t* out_;
  uint8_t* end_;
  uint8_t* begin_ = out_;  // declared after out_, so it starts where out_ does
  uint64_t acc_ = 0;
  unsigned pending_ = 1;  // the first word's unused top bit
};

constexpr size_t kChunk = 4096;

// Codes the residuals; false when they don't fit.
bool codeResiduals(const uint8_t* r, size_t n, const uint8_t* lengths, const uint32_t* codes, int maxLength,
                   CoderScratch* scratch, uint8_t* out, size_t capacity, size_t& bytes) {
  Coder coder(out, capacity / 4);
  uint64_t single[256];
  for (int s = 0; s < 256; ++s) single[s] = codes[s] | (uint64_t{lengths[s]} << 32);
  size_t i = 0;

  if (scratch != nullptr && n >= 2 * kChunk) {
    // Pairs of residuals take one table look-up, and two pairs whose codes make
    // at most 32 bits together go in with one shift and one store: residuals with
    // long codes are rare, so this is nearly always the case. A pair whose codes
    // make more than 32 bits is marked with length 33 and coded a code at a time.
    // Index = first | second << 8.
    constexpr uint64_t kCodeMask = 0xFFFFFFFFu;
    uint64_t* pairs = scratch->pairs;
    for (int second = 0; second < 256; ++second) {
      const uint32_t c2 = codes[second];
      const uint32_t l2 = lengths[second];
      uint64_t* row = pairs + second * 256;
      for (int first = 0; first < 256; ++first) {
        const uint32_t l = lengths[first] + l2;
        row[first] = l <= 32 ? ((uint64_t{codes[first]} << l2) | c2) | (uint64_t{l} << 32) : uint64_t{33} << 32;
      }
    }
    const auto addPair = [&](uint64_t e, size_t at) {
      if ((e >> 32) <= 32) {
        coder.add(e & kCodeMask, static_cast<unsigned>(e >> 32));
      } else {
        coder.add(codes[r[at]], lengths[r[at]]);
        coder.add(codes[r[at + 1]], lengths[r[at + 1]]);
      }
    };
    while (n - i >= 4 && coder.roomFor(std::min(kChunk, n - i), maxLength)) {
      const size_t end = i + std::min(kChunk, (n - i) & ~size_t{3});
      for (; i < end; i += 4) {
        uint32_t v;
        std::memcpy(&v, r + i, 4);
        const uint64_t e1 = pairs[v & 0xFFFF], e2 = pairs[v >> 16];
        const unsigned l2 = static_cast<unsigned>(e2 >> 32);
        const unsigned l = static_cast<unsigned>(e1 >> 32) + l2;
        if (l <= 32) [[likely]] {
          coder.add(((e1 & kCodeMask) << l2) | (e2 & kCodeMask), l);
        } else {
          addPair(e1, i);
          addPair(e2, i + 2);
        }
      }
    }
  }
  while (i < n && coder.roomFor(std::min(kChunk, n - i), maxLength)) {
    const size_t end = i + std::min(kChunk, n - i);
    for (; i < end; ++i) {
      const uint64_t e = single[r[i]];
      coder.add(e & 0xFFFFFFFFu, static_cast<unsigned>(e >> 32));
    }
  }
  // Near the end of the room: one checked code at a time.
  for (; i < n; ++i) {
    if (!coder.addChecked(codes[r[i]], lengths[r[i]])) return false;
  }
  const uint8_t last = r[n - 1];
  const uint32_t lastEntry = (codes[last] << (32 - lengths[last])) | lengths[last];
  return coder.finish(lastEntry, bytes);
}

}  // namespace

void initCounts(int32_t counts[256]) {
  for (int s = 0; s < 256; ++s) counts[s] = 1;
  counts[0] = kZeroCount;
}

VerticalResiduals verticalResidualsKernel(CpuFlags flags) {
  VerticalResiduals k = verticalResiduals_C;
#if defined(__x86_64__) || defined(__i386__)
  if (!flags.has(kCpuSSE2)) return k;
  k = simd::verticalResiduals_SSE2;
  if (!flags.has(kCpuSSSE3) || !flags.has(kCpuAVX2)) return k;
  k = simd::verticalResiduals_AVX2;
#else
  static_cast<void>(flags);
#endif
  return k;
}

void planeResiduals(const uint8_t* plane, size_t width, size_t height, uint8_t* residuals, int32_t counts[256],
                    VerticalResiduals kernel) {
  if (width == 0 || height == 0) return;
  // First row: predicted from a row of 128, every residual counted.
  for (size_t x = 0; x < width; ++x) {
    const uint8_t r = static_cast<uint8_t>(128 - plane[x]);
    residuals[x] = r;
    ++counts[r];
  }
  // The later rows as one run, from the row above: groups of 8 bytes, of which
  // bytes 0, 2, 4 and 6 are counted unless 0, and a short last group counted whole.
  const size_t run = (height - 1) * width;
  const size_t groups = run / 8;
  uint32_t hist[4][256] = {};
  kernel(plane, plane + width, residuals + width, groups, hist);
  for (int s = 1; s < 256; ++s) counts[s] += static_cast<int32_t>(hist[0][s] + hist[1][s] + hist[2][s] + hist[3][s]);
  for (size_t i = groups * 8; i < run; ++i) {
    const uint8_t r = static_cast<uint8_t>(plane[i] - plane[i + width]);
    residuals[width + i] = r;
    ++counts[r];
  }
}

size_t encodePlane(const uint8_t* residuals, uint32_t n, uint8_t* out, size_t capacity, const int32_t* counts,
                   CoderScratch* scratch) {
  if (capacity < 4) return 0;
  store32(out, n);
  if (n == 0) return 0;
  int32_t own[256];
  if (counts == nullptr) {
    std::fill(own, own + 256, 0);
    for (uint32_t i = 0; i < n; ++i) ++own[residuals[i]];
    counts = own;
  }
  uint8_t lengths[256];
  uint32_t codes[256];
  buildCodeLengths(counts, lengths);
  assignCanonicalCodes(lengths, codes);
  const int maxLength = *std::max_element(lengths, lengths + 256);
  uint8_t table[kMaxTableBlock];
  const size_t t = writeTableBlock(lengths, table);
  if (capacity < kPlaneHeaderSize + t) return 0;
  out[4] = static_cast<uint8_t>(t);
  std::memcpy(out + kPlaneHeaderSize, table, t);
  size_t bytes = 0;
  const size_t at = kPlaneHeaderSize + t;
  if (!codeResiduals(residuals, n, lengths, codes, maxLength, scratch, out + at, capacity - at, bytes)) return 0;
  return at + bytes;
}

size_t codedSize(const uint8_t* residuals, uint32_t n, const uint8_t lengths[256]) {
  uint64_t bits = 0;
  for (uint32_t i = 0; i < n; ++i) bits += lengths[residuals[i]];
  return static_cast<size_t>((bits + 32) / 32 * 4);
}

}  // namespace kestrium::tmb2
