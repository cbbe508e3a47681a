// Decoding TMB2 planes and frames. Nothing in a stream is trusted: every size,
// table and code is checked, so that a damaged file gives an error and never a
// read or write outside the buffers.

#include <cstring>
#include <memory>
#include <string>

#include "codecs/Tmb2.h"

namespace kestrium::tmb2 {

namespace {

inline uint32_t load32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

// Codes of up to kLookupBits bits are found with one look-up of the next bits;
// longer ones, whose codes are the numerically smallest, by a search over the
// lengths in use.
constexpr int kLookupBits = 11;

struct DecodeTables {
  uint16_t lookup[1u << kLookupBits];  // length << 8 | symbol; 0: longer code or none
  int lengthCount = 0;
  uint8_t length[kMaxCodeLength];  // lengths in use, longest first
  uint32_t first[kMaxCodeLength];  // canonical code of the first symbol of that length
  uint64_t limit[kMaxCodeLength];  // end of that length's codes, left-aligned in 32 bits
  uint16_t offset[kMaxCodeLength];  // index of its first symbol in order
  uint8_t order[256];               // symbols by length descending, symbol ascending
};

void buildTables(const uint8_t lengths[256], const uint32_t codes[256], DecodeTables& t) {
  std::memset(t.lookup, 0, sizeof(t.lookup));
  int n = 0;
  t.lengthCount = 0;
  for (int len = kMaxCodeLength; len >= 1; --len) {
    int count = 0;
    for (int s = 0; s < 256; ++s) {
      if (lengths[s] != len) continue;
      if (count == 0) {
        t.length[t.lengthCount] = static_cast<uint8_t>(len);
        t.first[t.lengthCount] = codes[s];
        t.offset[t.lengthCount] = static_cast<uint16_t>(n);
      }
      t.order[n++] = static_cast<uint8_t>(s);
      ++count;
      if (len <= kLookupBits) {
        const uint32_t base = codes[s] << (kLookupBits - len);
        const uint16_t entry = static_cast<uint16_t>((len << 8) | s);
        for (uint32_t k = 0; k < (1u << (kLookupBits - len)); ++k) t.lookup[base + k] = entry;
      }
    }
    if (count != 0) {
      t.limit[t.lengthCount] = (uint64_t{t.first[t.lengthCount]} + static_cast<uint64_t>(count)) << (32 - len);
      ++t.lengthCount;
    }
  }
}

}  // namespace

bool decodePlane(const uint8_t* stream, size_t size, uint32_t expectedCount, uint8_t* residuals, std::string& error) {
  if (expectedCount == 0) {
    if (size == 0) return true;
    error = "plane stream of " + std::to_string(size) + " bytes where the frame size leaves nothing to code";
    return false;
  }
  if (size < kPlaneHeaderSize) {
    error = "plane stream of " + std::to_string(size) + " bytes is shorter than its header";
    return false;
  }
  const uint32_t n = load32(stream);
  if (n != expectedCount) {
    error = "plane codes " + std::to_string(n) + " residuals where the frame size needs " +
            std::to_string(expectedCount);
    return false;
  }
  const size_t t = stream[4];
  if (kPlaneHeaderSize + t > size) {
    error = "table block of " + std::to_string(t) + " bytes runs past the plane stream";
    return false;
  }
  uint8_t lengths[256];
  if (const char* bad = readTableBlock(stream + kPlaneHeaderSize, t, lengths)) {
    error = bad;
    return false;
  }
  uint32_t codes[256];
  if (!assignCanonicalCodes(lengths, codes)) {
    error = "code lengths in the table make no prefix code";
    return false;
  }
  const uint8_t* data = stream + kPlaneHeaderSize + t;
  const size_t dataBytes = size - kPlaneHeaderSize - t;
  if (dataBytes % 4 != 0 || dataBytes == 0) {
    error = "coded residuals are " + std::to_string(dataBytes) + " bytes, not a whole number of words";
    return false;
  }
  const size_t words = dataBytes / 4;

  auto tables = std::make_unique<DecodeTables>();
  buildTables(lengths, codes, *tables);
  const DecodeTables& tab = *tables;

  // The next bits stand left-aligned in buf; past the last word come zeros, and
  // the count of bits used tells afterwards whether they were needed.
  uint64_t buf = 0;
  int avail = 0;
  size_t next = 0;
  auto refill = [&] {
    while (avail <= 32) {
      const uint32_t w = next < words ? load32(data + next * 4) : 0;
      buf |= uint64_t{w} << (32 - avail);
      avail += 32;
      ++next;
    }
  };
  refill();
  if ((buf >> 63) != 0) {
    error = "top bit of the first coded word is not 0";
    return false;
  }
  buf <<= 1;
  avail -= 1;
  uint64_t used = 0;
  for (uint32_t i = 0; i < n; ++i) {
    if (avail < 32) refill();
    unsigned len;
    unsigned symbol;
    const uint16_t e = tab.lookup[buf >> (64 - kLookupBits)];
    if (e != 0) {
      len = e >> 8;
      symbol = e & 0xFF;
    } else {
      const uint64_t v = buf >> 32;
      int j = 0;
      while (j < tab.lengthCount && v >= tab.limit[j]) ++j;
      if (j == tab.lengthCount) {
        error = "bits at residual " + std::to_string(i) + " match no code of the table";
        return false;
      }
      len = tab.length[j];
      symbol = tab.order[tab.offset[j] + ((v >> (32 - len)) - tab.first[j])];
    }
    residuals[i] = static_cast<uint8_t>(symbol);
    buf <<= len;
    avail -= static_cast<int>(len);
    used += len;
  }
  const uint64_t needed = (used + 32) / 32;
  if (needed != words) {
    error = "coded residuals take " + std::to_string(words) + " words where their codes need " +
            std::to_string(needed);
    return false;
  }
  return true;
}

void reconstructPlane(const uint8_t* residuals, size_t width, size_t height, uint8_t* plane) {
  if (width == 0 || height == 0) return;
  for (size_t x = 0; x < width; ++x) plane[x] = static_cast<uint8_t>(128 - residuals[x]);
  for (size_t i = width; i < width * height; ++i) plane[i] = static_cast<uint8_t>(plane[i - width] - residuals[i]);
}

bool decodeFrame(const uint8_t* data, size_t size, uint32_t width, uint32_t height, uint8_t* planes,
                 uint8_t* residuals, std::string& error) {
  if (size < kFrameHeaderSize) {
    error = "frame of " + std::to_string(size) + " bytes is shorter than its header";
    return false;
  }
  const uint64_t sizes[3] = {load32(data), load32(data + 4), load32(data + 8)};
  if (kFrameHeaderSize + sizes[0] + sizes[1] + sizes[2] != size) {
    error = "plane sizes " + std::to_string(sizes[0]) + " + " + std::to_string(sizes[1]) + " + " +
            std::to_string(sizes[2]) + " do not fill the frame of " + std::to_string(size) + " bytes";
    return false;
  }
  static constexpr const char* kNames[3] = {"Y", "first chroma", "second chroma"};
  const FrameLayout layout = frameLayout(width, height);
  size_t at = kFrameHeaderSize;
  for (int p = 0; p < 3; ++p) {
    const PlaneLayout& pl = layout.planes[p];
    if (!decodePlane(data + at, static_cast<size_t>(sizes[p]), pl.count, residuals, error)) {
      error = std::string(kNames[p]) + " plane: " + error;
      return false;
    }
    reconstructPlane(residuals, pl.width, pl.height, planes + pl.offset);
    at += static_cast<size_t>(sizes[p]);
  }
  return true;
}

}  // namespace kestrium::tmb2
