#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "codecs/ColorConvert.h"
#include "codecs/Tmb2.h"
#include "codecs/Tmb2FrameEncoder.h"
#include "tests/codecs/CodecTestSupport.h"

namespace kestrium {
namespace {

using test::Picture;
using test::Tier;

uint32_t word(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

// The coding loop as the format describes it, word for word: a 32-bit
// accumulator with 31 free bits at the start, a double-width shift (SHLD) that
// takes each code from the top of a 32-bit word, a word stored when a code does
// not fit, and a last word shifted up with its low bits filled from the top of
// the last symbol's table entry, (code << (32 - length)) | length.
//
// The codes themselves are shifted in from code << (32 - length) alone: in the
// table entry a code of 28 to 31 bits would have its lowest bits ORed with the
// length, which would write codes that no decoder can tell apart.
std::vector<uint32_t> referenceCode(const std::vector<uint8_t>& residuals, const uint8_t lengths[256],
                                    const uint32_t codes[256]) {
  const auto shld = [](uint32_t a, uint32_t b, unsigned c) { return c == 0 ? a : (a << c) | (b >> (32 - c)); };
  std::vector<uint32_t> words;
  uint32_t acc = 0, last = 0;
  unsigned free = 31;
  for (uint8_t s : residuals) {
    const unsigned len = lengths[s];
    const uint32_t code = codes[s] << (32 - len);
    if (len <= free) {
      acc = shld(acc, code, len);
      free -= len;
    } else {
      acc = shld(acc, code, free);
      words.push_back(acc);
      acc = shld(acc, code, len);
      free = free + 32 - len;
    }
    last = code | len;
  }
  words.push_back(shld(acc, last, free));
  return words;
}

struct Stream {
  uint32_t n;
  std::vector<uint8_t> table;
  std::vector<uint32_t> words;
};

Stream split(const std::vector<uint8_t>& bytes, size_t size) {
  Stream s;
  s.n = word(bytes.data());
  const size_t t = bytes[4];
  s.table.assign(bytes.begin() + 5, bytes.begin() + 5 + static_cast<ptrdiff_t>(t));
  for (size_t at = 5 + t; at < size; at += 4) s.words.push_back(word(&bytes[at]));
  return s;
}

// ---- Bit order, checked against streams worked out by hand ----

TEST(Tmb2BitOrderTest, StreamsWorkedOutByHand) {
  // Residuals 0 0 1 0: symbol 0 code 0, symbol 1 code 1. Table: B = 2 (E =
  // maxLen + 1 = 2 is a power of two), R = 8 (the run of 254 unused symbols),
  // E = 2; fields 01 01, then E (10) and 254 in 8 bits:
  //   0010 1000 00000010 01 01 10 11111110 00  = 0x28025BF8
  // Residuals: the unused top bit, then 0 0 1 0; the last entry (code 0) fills
  // the rest with zeros: 00010 then 27 zeros = 0x10000000.
  const std::vector<uint8_t> residuals = {0, 0, 1, 0};
  std::vector<uint8_t> out(64, 0xEE);
  ASSERT_EQ(tmb2::encodePlane(residuals.data(), 4, out.data(), out.size(), nullptr), 13u);
  EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + 13),
            (std::vector<uint8_t>{4, 0, 0, 0, 4, 0xF8, 0x5B, 0x02, 0x28, 0x00, 0x00, 0x00, 0x10}));

  // The last word is filled from the last entry: symbol 1, code 1 of length 1,
  // has the entry 0x80000001. One residual: the top bit, the code, then 30 bits
  // from the top of the entry: 01 1 000...
  int32_t counts[256] = {};
  counts[0] = 5;
  counts[1] = 1;
  const std::vector<uint8_t> one = {1}, forty(40, 1);
  ASSERT_EQ(tmb2::encodePlane(one.data(), 1, out.data(), out.size(), counts), 13u);
  EXPECT_EQ(word(&out[9]), 0x60000000u);
  // Forty of them: the first word carries 31 ones after its top bit, the second
  // 9 ones and then 23 bits from the entry's top: 1 followed by zeros.
  ASSERT_EQ(tmb2::encodePlane(forty.data(), 40, out.data(), out.size(), counts), 17u);
  EXPECT_EQ(word(&out[9]), 0x7FFFFFFFu);
  EXPECT_EQ(word(&out[13]), 0xFFC00000u);

  // Nothing to code: only the count.
  std::fill(out.begin(), out.end(), 0xEE);
  EXPECT_EQ(tmb2::encodePlane(one.data(), 0, out.data(), out.size(), nullptr), 0u);
  EXPECT_EQ(word(out.data()), 0u);
  EXPECT_EQ(out[4], 0xEE);
}

// The fast coder (pairs of codes, 64-bit accumulator) against the literal loop,
// for streams long enough to take its fast path, with short codes only and with
// codes long enough that pairs overflow 32 bits; and each refusing a room too small.
class Tmb2CoderTest : public ::testing::TestWithParam<double> {};

TEST_P(Tmb2CoderTest, FastCoderGivesTheReferenceWords) {
  std::mt19937 rng(3);
  std::geometric_distribution<int> geometric(GetParam());
  std::vector<uint8_t> residuals(50001);
  for (auto& r : residuals) r = static_cast<uint8_t>((rng() & 1) != 0 ? geometric(rng) : -geometric(rng));
  int32_t counts[256];
  tmb2::initCounts(counts);
  for (size_t i = 0; i < residuals.size(); i += 3) ++counts[residuals[i]];
  uint8_t lengths[256];
  uint32_t codes[256];
  tmb2::buildCodeLengths(counts, lengths);
  ASSERT_TRUE(tmb2::assignCanonicalCodes(lengths, codes));

  auto scratch = std::make_unique<tmb2::CoderScratch>();
  for (tmb2::CoderScratch* s : {static_cast<tmb2::CoderScratch*>(nullptr), scratch.get()}) {
    std::vector<uint8_t> out(residuals.size() * 4 + 256);
    const size_t size =
        tmb2::encodePlane(residuals.data(), static_cast<uint32_t>(residuals.size()), out.data(), out.size(), counts, s);
    ASSERT_GT(size, 0u);
    const Stream stream = split(out, size);
    EXPECT_EQ(stream.n, residuals.size());
    EXPECT_EQ(stream.words, referenceCode(residuals, lengths, codes)) << (s != nullptr ? "pairs" : "singles");
    EXPECT_EQ(size - 5 - stream.table.size(), tmb2::codedSize(residuals.data(), stream.n, lengths));
    // A stream that does not fit is refused without a byte written past the room.
    for (size_t room : {size, size - 1, size / 2, size_t{300}}) {
      std::fill(out.begin(), out.end(), 0xEE);
      const size_t got = tmb2::encodePlane(residuals.data(), stream.n, out.data(), room, counts, s);
      EXPECT_EQ(got, room == size ? size : 0u) << room;
      EXPECT_TRUE(std::all_of(out.begin() + static_cast<ptrdiff_t>(room), out.end(), [](uint8_t b) { return b == 0xEE; }))
          << "bytes written past a room of " << room;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Spreads, Tmb2CoderTest, ::testing::Values(0.7, 0.25, 0.03),
                         [](const auto& info) { return "p" + std::to_string(static_cast<int>(info.param * 100)); });

// ---- Code construction ----

double kraft(const uint8_t lengths[256]) {
  double sum = 0;
  for (int s = 0; s < 256; ++s) sum += lengths[s] != 0 ? std::ldexp(1.0, -lengths[s]) : 0.0;
  return sum;
}

// Counts of the Fibonacci series (capped), which make the deepest trees there are.
std::vector<int32_t> fibonacci(int symbols, int64_t cap = INT32_MAX) {
  std::vector<int32_t> counts;
  for (int64_t a = 1, b = 1; static_cast<int>(counts.size()) < symbols; b = a + b, a = b - a) {
    counts.push_back(static_cast<int32_t>(std::min(a, cap)));
  }
  return counts;
}

struct LengthCase {
  const char* name;
  std::vector<int32_t> counts;  // of symbols 0, 1, ...
  std::vector<uint8_t> lengths;
};
void PrintTo(const LengthCase& c, std::ostream* os) { *os << c.name; }

class Tmb2CodeLengthTest : public ::testing::TestWithParam<LengthCase> {};

TEST_P(Tmb2CodeLengthTest, LengthsAreAsWorkedOutAndTheCodeIsComplete) {
  int32_t counts[256] = {};
  std::copy(GetParam().counts.begin(), GetParam().counts.end(), counts);
  uint8_t lengths[256];
  tmb2::buildCodeLengths(counts, lengths);
  const std::vector<uint8_t>& want = GetParam().lengths;
  EXPECT_EQ(std::vector<uint8_t>(lengths, lengths + want.size()), want);
  EXPECT_EQ(std::count(lengths + want.size(), lengths + 256, 0), 256 - static_cast<ptrdiff_t>(want.size()));
  if (std::count(want.begin(), want.end(), 0) + 1 < static_cast<ptrdiff_t>(want.size())) {
    EXPECT_DOUBLE_EQ(kraft(lengths), 1.0);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Trees, Tmb2CodeLengthTest,
    ::testing::Values(
        LengthCase{"OneSymbol", {0, 0, 0, 5}, {0, 0, 0, 1}},
        LengthCase{"TwoSymbols", {1000, 0, 0, 5}, {1, 0, 0, 1}},
        // For 33 symbols the two rarest leaves would sit at level 32. The two
        // internal nodes at levels 30 and 31 (D = 2, L = 30) are hung again: one
        // at level 29, one at 30. Levels 1 to 28 keep their one leaf each, level
        // 29 has none left, level 30 three and level 31 two.
        LengthCase{"DepthLimitReHangsTheDeepestNodes",
                   fibonacci(33),
                   {31, 31, 30, 30, 30, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17,
                    16, 15, 14, 13, 12, 11, 10, 9,  8,  7,  6,  5,  4,  3,  2,  1}},
        // The level for the top of the re-hung block (29) holds two internal nodes
        // and no leaf: the tree is capped at 31 bits instead.
        LengthCase{"DepthLimitWhenTheBlockFindsNoFreeSlot",
                   {1,      1,      2,      3,       5,       7,       13,      22,      35,       58,       100,     168,
                    269,    481,    814,    1424,    2493,    4198,    7411,    13141,   21967,    39860,    63040,   110219,
                    176335, 288627, 503263, 895565,  1402452, 2325602, 3723006, 6666288, 10304410, 11428571, 11428571},
                   {31, 31, 31, 31, 30, 30, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17,
                    16, 15, 14, 13, 12, 11, 10, 9,  8,  7,  6,  5,  4,  3,  2,  2,  2}}),
    [](const auto& info) { return std::string(info.param.name); });

// The starting counts make residual 0 one bit long and give every symbol a
// code: 255 symbols of count 1 under it, one at 8 bits, 254 at 9. The table of
// such a code has no escape.
TEST(Tmb2CodeTest, StartingCountsGiveZeroOneBitAndEverySymbolACode) {
  int32_t counts[256];
  tmb2::initCounts(counts);
  uint8_t lengths[256], back[256], block[tmb2::kMaxTableBlock];
  tmb2::buildCodeLengths(counts, lengths);
  EXPECT_EQ(lengths[0], 1);
  EXPECT_EQ(std::count(lengths + 1, lengths + 256, 8), 1);
  EXPECT_EQ(std::count(lengths + 1, lengths + 256, 9), 254);
  const size_t t = tmb2::writeTableBlock(lengths, block);
  EXPECT_EQ(word(block) >> 16, 0x4000u) << "B = 4 (bits of 9), R = 0, E = 0";
  EXPECT_EQ(t, (16 + 256 * 4 + 31) / 32 * 4);
  ASSERT_EQ(tmb2::readTableBlock(block, t, back), nullptr);
  EXPECT_EQ(0, std::memcmp(back, lengths, 256));
}

// Deeper still: every code within 31 bits, complete, a rarer symbol never
// shorter, and codes of 25 to 31 bits (whose table entries overlap their length
// byte) coded and decoded right.
TEST(Tmb2CodeTest, VeryDeepTreesStayWithin31BitsAndRoundTrip) {
  for (int symbols : {34, 40, 46}) {
    const std::vector<int32_t> fib = fibonacci(symbols, 0x7FFFFFFF / 2 / symbols);
    int32_t counts[256] = {};
    std::copy(fib.begin(), fib.end(), counts);
    uint8_t lengths[256];
    uint32_t codes[256];
    tmb2::buildCodeLengths(counts, lengths);
    EXPECT_EQ(*std::max_element(lengths, lengths + 256), 31) << symbols;
    EXPECT_DOUBLE_EQ(kraft(lengths), 1.0) << symbols;
    ASSERT_TRUE(tmb2::assignCanonicalCodes(lengths, codes));
    for (int s = 0; s < symbols; ++s) {
      for (int t = 0; t < symbols; ++t) {
        EXPECT_TRUE(counts[s] >= counts[t] || lengths[s] >= lengths[t]) << "a rarer symbol, a longer code";
      }
    }
    std::vector<uint8_t> residuals;
    for (int k = 0; k < 3000; ++k) residuals.push_back(static_cast<uint8_t>(k % symbols));
    std::vector<uint8_t> out(residuals.size() * 4 + 256), back(residuals.size());
    const size_t size = tmb2::encodePlane(residuals.data(), 3000, out.data(), out.size(), counts);
    EXPECT_EQ(split(out, size).words, referenceCode(residuals, lengths, codes));
    std::string error;
    ASSERT_TRUE(tmb2::decodePlane(out.data(), size, 3000, back.data(), error)) << error;
    EXPECT_EQ(back, residuals);
  }
}

TEST(Tmb2CodeTest, CanonicalCodesAreLongestFirstAndNumericallySmallest) {
  uint8_t lengths[256] = {};
  lengths[10] = 3, lengths[4] = 3, lengths[200] = 2, lengths[7] = 1;
  uint32_t codes[256];
  ASSERT_TRUE(tmb2::assignCanonicalCodes(lengths, codes));
  EXPECT_EQ(std::tuple(codes[4], codes[10], codes[200], codes[7]), std::tuple(0b000u, 0b001u, 0b01u, 0b1u));
  lengths[7] = 0, lengths[9] = 1, lengths[8] = 1;
  EXPECT_FALSE(tmb2::assignCanonicalCodes(lengths, codes)) << "3, 3, 2, 1, 1: over-full";
  uint8_t gap[256] = {};
  gap[1] = 2, gap[2] = 1;
  EXPECT_FALSE(tmb2::assignCanonicalCodes(gap, codes)) << "2 then 1: the 1-bit code would prefix the 2-bit one";
}

// ---- Table block ----

// Symbols 0 (3 bits), 3 (3), 4 (2) and 5 (1); 1 and 2 unused, and 6 to 255.
// maxLen 3: B = 2, E = 4, a power of two, so B = 3; R = bits of 250 = 8. The run
// of 2 goes as two zero fields (8 is not less than 1 x 3), the run of 250 as E
// and 250: 0011 1000 00000100 011 000 000 011 010 001 100 11111010, 45 bits:
//   0011 1000 0000 0100 0110 0000 0011 0100 | 0110 0111 1101 0 and zeros.
TEST(Tmb2TableTest, BlockWithRunsWorkedOutByHand) {
  uint8_t lengths[256] = {};
  lengths[0] = 3, lengths[3] = 3, lengths[4] = 2, lengths[5] = 1;
  uint8_t block[tmb2::kMaxTableBlock], back[256];
  ASSERT_EQ(tmb2::writeTableBlock(lengths, block), 8u);
  EXPECT_EQ(word(block), 0x38046034u);
  EXPECT_EQ(word(block + 4), 0x67D00000u);
  ASSERT_EQ(tmb2::readTableBlock(block, 8, back), nullptr);
  EXPECT_EQ(0, std::memcmp(back, lengths, 256));
}

struct BlockCase {
  const char* what;
  std::vector<std::pair<uint32_t, int>> fields;  // value, bits
  const char* message;                           // none: the block reads
};
void PrintTo(const BlockCase& c, std::ostream* os) { *os << c.what; }

class Tmb2TableReadTest : public ::testing::TestWithParam<BlockCase> {};

// Blocks built bit by bit: forms the encoder would not write but the format
// allows read, and each kind of damage has its own error.
TEST_P(Tmb2TableReadTest, BlockReadsOrGivesItsError) {
  std::vector<uint32_t> words;
  int used = 32;
  for (auto [v, bits] : GetParam().fields) {
    for (int b = bits - 1; b >= 0; --b) {
      if (used == 32) words.push_back(0), used = 0;
      words.back() |= ((v >> b) & 1u) << (31 - used++);
    }
  }
  uint8_t lengths[256];
  const char* error = tmb2::readTableBlock(reinterpret_cast<const uint8_t*>(words.data()), words.size() * 4, lengths);
  if (GetParam().message == nullptr) {
    ASSERT_EQ(error, nullptr) << error;
    EXPECT_EQ(std::tuple(lengths[0], lengths[3]), std::tuple(1, 1));
    EXPECT_EQ(std::count(lengths, lengths + 256, 0), 254);
    return;
  }
  ASSERT_NE(error, nullptr);
  EXPECT_NE(std::string(error).find(GetParam().message), std::string::npos) << error;
}

// B R E; then fields of B bits: a length, 0 for unused, E for a run of R bits.
std::vector<std::pair<uint32_t, int>> longRunAsZeroFields() {
  std::vector<std::pair<uint32_t, int>> f = {{2, 4}, {2, 4}, {3, 8}, {1, 2}, {3, 2}, {2, 2}, {1, 2}};
  f.insert(f.end(), 252, {0, 2});
  return f;
}
INSTANTIATE_TEST_SUITE_P(
    Blocks, Tmb2TableReadTest,
    ::testing::Values(BlockCase{"EscapeForARunOfTwoAndARunAsZeroFields", longRunAsZeroFields(), nullptr},
                      BlockCase{"LengthOver31", {{6, 4}, {0, 4}, {0, 8}, {32, 6}}, "over 31"},
                      BlockCase{"RunOf0", {{2, 4}, {2, 4}, {3, 8}, {1, 2}, {3, 2}, {0, 2}}, "run of unused symbols"},
                      BlockCase{"RunPast255",
                                {{2, 4}, {8, 4}, {3, 8}, {1, 2}, {1, 2}, {3, 2}, {255, 8}},
                                "passes symbol 255"},
                      BlockCase{"NoSymbol", {{2, 4}, {8, 4}, {3, 8}, {3, 2}, {255, 8}, {0, 2}}, "no symbol a code"},
                      BlockCase{"FieldsOf0Bits", {{0, 4}, {0, 4}, {0, 8}}, "0 bits"},
                      BlockCase{"CutShort", {{4, 4}, {0, 4}, {0, 8}, {1, 4}, {1, 4}}, "ends before symbol 255"}),
    [](const auto& info) { return std::string(info.param.what); });

TEST(Tmb2TableTest, RandomTablesSurviveWriteAndRead) {
  std::mt19937 rng(11);
  for (int round = 0; round < 300; ++round) {
    int32_t counts[256] = {};
    const int used = 1 + static_cast<int>(rng() % 256);
    for (int k = 0; k < used; ++k) counts[rng() % 256] = 1 + static_cast<int32_t>(rng() % (1 + rng() % 100000));
    uint8_t lengths[256], back[256], block[tmb2::kMaxTableBlock];
    uint32_t codes[256];
    tmb2::buildCodeLengths(counts, lengths);
    const size_t t = tmb2::writeTableBlock(lengths, block);
    ASSERT_LE(t, tmb2::kMaxTableBlock);
    ASSERT_EQ(tmb2::readTableBlock(block, t, back), nullptr);
    ASSERT_EQ(0, std::memcmp(back, lengths, 256));
    ASSERT_TRUE(tmb2::assignCanonicalCodes(lengths, codes));
  }
}

// ---- Residuals and counts ----

// Counting rules: the first row whole; the later rows as one run in groups of 8,
// of which bytes 0, 2, 4 and 6 count unless 0; a short last group whole, zeros
// included. A value found only in odd bytes keeps its starting count of 1.
class Tmb2ResidualTest : public ::testing::TestWithParam<Tier> {};

TEST_P(Tmb2ResidualTest, CountsFollowTheSamplingRulesAndOneRowHasOnlyItsOwn) {
  const Tier tier = GetParam();
  if (!test::tierAvailable(tier)) GTEST_SKIP() << "this processor lacks " << tier.name;
  constexpr size_t w = 27, h = 5;  // a run of 108 bytes: 13 groups and 4 bytes over
  std::vector<uint8_t> run(w * (h - 1));
  std::mt19937 rng(2);
  for (size_t i = 0; i < run.size(); ++i) {
    const uint32_t k = rng() % 4;
    run[i] = k == 0 ? 0 : static_cast<uint8_t>(rng() % 6);
  }
  for (size_t i = 1; i < 104; i += 2) run[i] = 77;  // only in odd bytes of whole groups
  run[104] = 0;
  run[105] = 0;
  run[106] = 5;
  std::vector<uint8_t> plane(w * h);
  for (size_t x = 0; x < w; ++x) plane[x] = static_cast<uint8_t>(rng() % 40);  // 128 - p is never 77
  for (size_t i = 0; i < run.size(); ++i) plane[w + i] = static_cast<uint8_t>(plane[i] - run[i]);

  int32_t expected[256];
  tmb2::initCounts(expected);
  for (size_t x = 0; x < w; ++x) ++expected[static_cast<uint8_t>(128 - plane[x])];
  for (size_t g = 0; g + 8 <= run.size(); g += 8) {
    for (size_t k = 0; k < 8; k += 2) {
      if (run[g + k] != 0) ++expected[run[g + k]];
    }
  }
  for (size_t i = run.size() / 8 * 8; i < run.size(); ++i) ++expected[run[i]];

  int32_t counts[256];
  tmb2::initCounts(counts);
  std::vector<uint8_t> residuals(w * h + 8, 0xEE);
  tmb2::planeResiduals(plane.data(), w, h, residuals.data(), counts, tmb2::verticalResidualsKernel(CpuFlags{tier.mask}));
  EXPECT_EQ(0, std::memcmp(counts, expected, sizeof(counts)));
  EXPECT_EQ(counts[77], 1);
  for (size_t x = 0; x < w; ++x) EXPECT_EQ(residuals[x], static_cast<uint8_t>(128 - plane[x]));
  EXPECT_EQ(0, std::memcmp(residuals.data() + w, run.data(), run.size()));
  EXPECT_EQ(residuals[w * h], 0xEE) << "nothing past the plane";

  // A plane of one row has only the first row's residuals.
  std::fill(residuals.begin(), residuals.end(), 0xEE);
  tmb2::planeResiduals(plane.data(), 40, 1, residuals.data(), counts, tmb2::verticalResidualsKernel(CpuFlags{tier.mask}));
  for (size_t i = 0; i < 40; ++i) EXPECT_EQ(residuals[i], static_cast<uint8_t>(128 - plane[i]));
  EXPECT_EQ(residuals[40], 0xEE);
}

INSTANTIATE_TEST_SUITE_P(AllTiers, Tmb2ResidualTest, ::testing::ValuesIn(test::tiers()),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- Whole frames ----

struct FrameCase {
  Picture picture;
  uint32_t width;
  uint32_t height;
};
void PrintTo(const FrameCase& c, std::ostream* os) {
  *os << test::pictureName(c.picture) << " " << c.width << "x" << c.height;
}

class Tmb2FrameTest : public ::testing::TestWithParam<std::tuple<Tier, FrameCase>> {};

// Encoding then decoding gives back exactly the converted planes, on every tier,
// and every tier writes the same bytes.
TEST_P(Tmb2FrameTest, DecodesToTheConvertedPlanes) {
  const auto [tier, c] = GetParam();
  if (!test::tierAvailable(tier)) GTEST_SKIP() << "this processor lacks " << tier.name;
  const std::vector<uint8_t> rgb = test::picture(c.picture, c.width, c.height, 7);
  tmb2::FrameEncoder encoder(c.width, c.height, CpuFlags{tier.mask});
  tmb2::FrameEncoder reference(c.width, c.height, CpuFlags{0});
  ASSERT_TRUE(encoder.valid());
  // Tiny pictures take more than 4 bytes a pixel: each plane carries a table.
  const size_t capacity = size_t(c.width) * c.height * 4 + 1024;
  std::vector<uint8_t> out(capacity), expected(capacity);
  for (int frame = 0; frame < 2; ++frame) {  // the second frame reuses every buffer
    const size_t size = encoder.encode(rgb.data(), out.data(), capacity);
    ASSERT_GT(size, 0u);
    ASSERT_EQ(size, 12 + size_t(word(&out[0])) + word(&out[4]) + word(&out[8]));
    ASSERT_EQ(reference.encode(rgb.data(), expected.data(), capacity), size);
    ASSERT_EQ(0, std::memcmp(out.data(), expected.data(), size)) << "tiers write different bytes";

    const tmb2::FrameLayout& layout = encoder.layout();
    std::vector<uint8_t> planes(layout.planesSize), residuals(size_t(c.width) * c.height);
    std::string error;
    ASSERT_TRUE(tmb2::decodeFrame(out.data(), size, c.width, c.height, planes.data(), residuals.data(), error))
        << error;
    for (int p = 0; p < 3; ++p) {
      const tmb2::PlaneLayout& pl = layout.planes[p];
      ASSERT_EQ(0, std::memcmp(planes.data() + pl.offset, encoder.planes() + pl.offset, pl.width * pl.height))
          << "plane " << p;
    }
  }
  // What the planes hold is the conversion of the frame as it stands.
  const tmb2::FrameLayout& layout = encoder.layout();
  std::vector<uint8_t> converted(layout.planesSize, 0);
  uint8_t* targets[3] = {converted.data(), converted.data() + layout.planes[1].offset,
                         converted.data() + layout.planes[2].offset};
  rgbToYuv420(rgb.data(), targets, static_cast<int32_t>(c.width), static_cast<int32_t>(c.height));
  EXPECT_EQ(0, std::memcmp(converted.data(), encoder.planes(), layout.planesSize));
}

std::vector<FrameCase> frameCases() {
  std::vector<FrameCase> cases;
  for (Picture p : {Picture::Noise, Picture::Flat, Picture::Gradient, Picture::FewValues}) {
    for (auto [w, h] : std::vector<std::pair<uint32_t, uint32_t>>{
             {1, 1}, {2, 2}, {33, 2}, {3, 5}, {5, 3}, {16, 1}, {1, 16}, {17, 9}, {64, 48}, {161, 101}}) {
      cases.push_back({p, w, h});
    }
  }
  cases.push_back({Picture::Game, 640, 360});
  cases.push_back({Picture::Game, 1920, 1080});
  cases.push_back({Picture::Noise, 1920, 1080});
  return cases;
}

INSTANTIATE_TEST_SUITE_P(Pictures, Tmb2FrameTest,
                         ::testing::Combine(::testing::ValuesIn(test::tiers()), ::testing::ValuesIn(frameCases())),
                         [](const auto& info) {
                           const Tier& tier = std::get<0>(info.param);
                           const auto& c = std::get<1>(info.param);
                           return std::string(tier.name) + "_" + test::pictureName(c.picture) + "_" +
                                  std::to_string(c.width) + "x" + std::to_string(c.height);
                         });

// With an odd size the chroma planes are (W/2) x (H/2) at W x H and
// W x H + (W x H) / 4, and each codes (W x H) / 4 residuals: more than its own,
// the rest being what the residuals buffer holds from the plane before.
TEST(Tmb2FrameShapeTest, OddSizesCodeTheFormatsChromaCount) {
  constexpr uint32_t w = 7, h = 5;
  const tmb2::FrameLayout layout = tmb2::frameLayout(w, h);
  EXPECT_EQ(std::tuple(layout.planes[1].offset, layout.planes[2].offset, layout.planes[1].width,
                       layout.planes[1].height, layout.planes[1].count),
            std::tuple(35u, 43u, 3u, 2u, 8u));
  const std::vector<uint8_t> rgb = test::picture(Picture::Noise, w, h);
  tmb2::FrameEncoder encoder(w, h);
  std::vector<uint8_t> out(w * h * 4 + 1024);
  const size_t size = encoder.encode(rgb.data(), out.data(), out.size());
  ASSERT_GT(size, 0u);
  const uint8_t* u = &out[12 + word(&out[0])];
  EXPECT_EQ(word(u), 8u);
  // A 1 x 3 frame has no chroma residual at all: both chroma streams are empty.
  tmb2::FrameEncoder tiny(1, 3);
  const std::vector<uint8_t> three = test::picture(Picture::Noise, 1, 3);
  const size_t tinySize = tiny.encode(three.data(), out.data(), out.size());
  EXPECT_EQ(word(&out[4]), 0u);
  EXPECT_EQ(word(&out[8]), 0u);
  EXPECT_EQ(tinySize, 12 + word(&out[0]));
}

// ---- Decoding damaged streams ----

std::vector<uint8_t> encodeStream(const std::vector<uint8_t>& residuals, const int32_t* counts = nullptr) {
  std::vector<uint8_t> out(residuals.size() * 4 + 256);
  out.resize(tmb2::encodePlane(residuals.data(), static_cast<uint32_t>(residuals.size()), out.data(), out.size(),
                               counts));
  return out;
}
void put32(std::vector<uint8_t>& b, size_t at, uint32_t v) { std::memcpy(&b[at], &v, 4); }
void cut(std::vector<uint8_t>& b, size_t n) { b.resize(std::min(n, b.size())); }

struct Damage {
  const char* what;
  void (*apply)(std::vector<uint8_t>&);
  const char* message;  // a part of the error expected
};
void PrintTo(const Damage& d, std::ostream* os) { *os << d.what; }

class Tmb2DecodePlaneTest : public ::testing::TestWithParam<Damage> {};

TEST_P(Tmb2DecodePlaneTest, DamagedStreamIsRejected) {
  std::vector<uint8_t> residuals(300);
  std::mt19937 rng(4);
  for (auto& r : residuals) r = static_cast<uint8_t>(rng() % 8);
  std::vector<uint8_t> stream = encodeStream(residuals), back(300);
  std::string error;
  ASSERT_TRUE(tmb2::decodePlane(stream.data(), stream.size(), 300, back.data(), error)) << error;
  GetParam().apply(stream);
  EXPECT_FALSE(tmb2::decodePlane(stream.data(), stream.size(), 300, back.data(), error)) << GetParam().what;
  EXPECT_NE(error.find(GetParam().message), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, Tmb2DecodePlaneTest,
    ::testing::Values(
        Damage{"Count", [](std::vector<uint8_t>& s) { put32(s, 0, 299); }, "codes 299 residuals"},
        Damage{"ShortHeader", [](std::vector<uint8_t>& s) { cut(s, 3); }, "shorter than its header"},
        Damage{"TablePastTheEnd", [](std::vector<uint8_t>& s) { cut(s, 1u + s[4]); }, "runs past"},
        Damage{"TableSize", [](std::vector<uint8_t>& s) { s[4] = static_cast<uint8_t>(s[4] + 4); }, "table block size"},
        Damage{"TableSizeNotWords", [](std::vector<uint8_t>& s) { s[4] = static_cast<uint8_t>(s[4] - 1); },
               "multiple of 4"},
        Damage{"OddTail", [](std::vector<uint8_t>& s) { s.push_back(0); }, "whole number of words"},
        Damage{"MissingWords", [](std::vector<uint8_t>& s) { cut(s, s.size() - 8); }, "words"},
        Damage{"ExtraWord", [](std::vector<uint8_t>& s) { s.insert(s.end(), 4, uint8_t{0}); }, "words"},
        Damage{"FirstBit", [](std::vector<uint8_t>& s) { s[5 + s[4] + 3] |= 0x80; }, "top bit"},
        Damage{"NoData", [](std::vector<uint8_t>& s) { cut(s, 5u + s[4]); }, "whole number of words"}),
    [](const auto& info) { return std::string(info.param.what); });

// A table may leave codes unused (one symbol: code 0 alone); bits that match no
// code are an error, not a guess. Nothing to code is an empty stream, only.
TEST(Tmb2DecodePlaneEdgeTest, IncompleteCodesAndEmptyStreams) {
  int32_t counts[256] = {};
  counts[9] = 1;
  const std::vector<uint8_t> residuals(40, 9);
  std::vector<uint8_t> stream = encodeStream(residuals, counts), back(40);
  std::string error;
  ASSERT_TRUE(tmb2::decodePlane(stream.data(), stream.size(), 40, back.data(), error)) << error;
  EXPECT_EQ(back, residuals);
  stream[5 + stream[4]] |= 0x01;  // the first word's lowest bit: the 31st code
  EXPECT_FALSE(tmb2::decodePlane(stream.data(), stream.size(), 40, back.data(), error));
  EXPECT_NE(error.find("match no code"), std::string::npos) << error;

  EXPECT_TRUE(tmb2::decodePlane(nullptr, 0, 0, back.data(), error));
  const uint8_t four[4] = {};
  EXPECT_FALSE(tmb2::decodePlane(four, 4, 0, back.data(), error));
  EXPECT_FALSE(tmb2::decodePlane(nullptr, 0, 5, back.data(), error));
}

TEST(Tmb2DecodeFrameTest, PlaneSizesMustFillTheFrame) {
  const std::vector<uint8_t> rgb = test::picture(Picture::Gradient, 32, 16);
  tmb2::FrameEncoder encoder(32, 16);
  std::vector<uint8_t> frame(32 * 16 * 4), planes(encoder.layout().planesSize), residuals(32 * 16);
  frame.resize(encoder.encode(rgb.data(), frame.data(), frame.size()));
  std::string error;
  ASSERT_TRUE(tmb2::decodeFrame(frame.data(), frame.size(), 32, 16, planes.data(), residuals.data(), error));
  EXPECT_FALSE(tmb2::decodeFrame(frame.data(), frame.size() - 1, 32, 16, planes.data(), residuals.data(), error));
  EXPECT_NE(error.find("do not fill the frame"), std::string::npos) << error;
  EXPECT_FALSE(tmb2::decodeFrame(frame.data(), 11, 32, 16, planes.data(), residuals.data(), error));
  EXPECT_FALSE(tmb2::decodeFrame(frame.data(), frame.size(), 32, 18, planes.data(), residuals.data(), error))
      << "a frame of another size";
  EXPECT_NE(error.find("Y plane"), std::string::npos) << error;
}

}  // namespace
}  // namespace kestrium
