#include "codecs/ColorConvert.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/codecs/CodecTestSupport.h"

namespace kestrium {
namespace {

using test::Tier;

// Three planes with guard bytes before and after each, filled with a value no
// kernel writes by chance, and a source with room for a misplaced start.
struct Buffers {
  static constexpr size_t kGuard = 64;
  static constexpr uint8_t kGuardValue = 0xA5;

  Buffers(int32_t width, int32_t height, size_t sourceOffset, size_t planeOffset)
      : w(width), h(height), sourceOffset(sourceOffset), planeOffset(planeOffset) {
    source.assign(kGuard + 64 + sourceOffset + size_t(w) * h * 3 + kGuard, 0);
    const size_t sizes[3] = {size_t(w) * h, size_t(w / 2) * (h / 2), size_t(w / 2) * (h / 2)};
    for (int p = 0; p < 3; ++p) {
      planeSize[p] = sizes[p];
      storage[p].assign(kGuard + 64 + planeOffset + sizes[p] + kGuard, kGuardValue);
    }
  }
  uint8_t* src() { return test::alignedIn(source, kGuard) + sourceOffset; }
  uint8_t* plane(int p) { return test::alignedIn(storage[p], kGuard) + planeOffset; }
  uint8_t* const* planes() {
    for (int p = 0; p < 3; ++p) ptrs[p] = plane(p);
    return ptrs;
  }
  // True if every byte outside the planes' own bytes still holds the guard value.
  bool guardsIntact() {
    for (int p = 0; p < 3; ++p) {
      const uint8_t* begin = storage[p].data();
      const uint8_t* first = plane(p);
      for (const uint8_t* q = begin; q < first; ++q) {
        if (*q != kGuardValue) return false;
      }
      for (const uint8_t* q = first + planeSize[p]; q < begin + storage[p].size(); ++q) {
        if (*q != kGuardValue) return false;
      }
    }
    return true;
  }

  int32_t w, h;
  size_t sourceOffset, planeOffset;
  std::vector<uint8_t> source;
  std::vector<uint8_t> storage[3];
  size_t planeSize[3];
  uint8_t* ptrs[3];
};

enum class Content { Random, Extremes, PureColours };

void fill(uint8_t* at, size_t n, Content content, uint32_t seed) {
  std::mt19937 rng(seed);
  switch (content) {
    case Content::Random:
      for (size_t i = 0; i < n; ++i) at[i] = static_cast<uint8_t>(rng());
      break;
    case Content::Extremes:
      for (size_t i = 0; i < n; ++i) at[i] = (rng() & 1) != 0 ? 255 : 0;
      break;
    case Content::PureColours: {
      // Whole pixels of one primary or secondary colour, where the chroma
      // saturates (pure red and green drive V past 255 and below 0).
      static constexpr uint8_t kColours[8][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 0},
                                                 {0, 255, 255}, {255, 0, 255}, {255, 255, 255}, {0, 0, 0}};
      for (size_t i = 0; i + 2 < n; i += 3) std::memcpy(at + i, kColours[rng() % 8], 3);
      break;
    }
  }
}

// Every tier against the scalar kernel on odd and even sizes, with sources and
// planes aligned and not, and guard bytes around every plane.
struct Case {
  int32_t width;
  int32_t height;
};
void PrintTo(const Case& c, std::ostream* os) { *os << c.width << "x" << c.height; }

class ColorConvertTierTest : public ::testing::TestWithParam<std::tuple<Tier, Case>> {};

TEST_P(ColorConvertTierTest, MatchesTheScalarKernelAndWritesNothingOutsideThePlanes) {
  const auto [tier, size] = GetParam();
  if (!test::tierAvailable(tier)) GTEST_SKIP() << "this processor lacks " << tier.name;
  const ColorConvertKernels kernels = colorConvertKernels(CpuFlags{tier.mask});
  ASSERT_STREQ(kernels.name, tier.name);
  const ColorConvertKernels reference = colorConvertKernels(CpuFlags{0});
  const int32_t expectedStatus = ((size.width | size.height) & 1) != 0 ? kConvertOddSize : kConvertDone;

  uint32_t seed = 1;
  for (Content content : {Content::Random, Content::Extremes, Content::PureColours}) {
    for (size_t sourceOffset : {size_t{0}, size_t{1}, size_t{7}}) {
      for (size_t planeOffset : {size_t{0}, size_t{3}}) {
        Buffers got(size.width, size.height, sourceOffset, planeOffset);
        Buffers want(size.width, size.height, sourceOffset, planeOffset);
        const size_t n = size_t(size.width) * size.height * 3;
        fill(got.src(), n, content, seed);
        std::memcpy(want.src(), got.src(), n);
        const ptrdiff_t steps[3] = {size.width, size.width / 2, size.width / 2};
        EXPECT_EQ(rgbToYuv420Stepped(kernels, got.src(), 3 * size.width, got.planes(), steps, size.width, size.height),
                  expectedStatus);
        EXPECT_EQ(rgbToYuv420Stepped(reference, want.src(), 3 * size.width, want.planes(), steps, size.width,
                                     size.height),
                  expectedStatus);
        const std::string where = "content " + std::to_string(static_cast<int>(content)) + ", source offset " +
                                  std::to_string(sourceOffset) + ", plane offset " + std::to_string(planeOffset);
        for (int p = 0; p < 3; ++p) {
          ASSERT_EQ(0, std::memcmp(got.plane(p), want.plane(p), got.planeSize[p])) << "plane " << p << ", " << where;
        }
        ASSERT_TRUE(got.guardsIntact()) << where;
        ++seed;
      }
    }
  }
}

std::vector<Case> sizes() {
  std::vector<Case> cases;
  for (int32_t w : {1, 2, 5, 15, 16, 17, 1919, 1920}) {
    for (int32_t h : {1, 2, 3, 6}) cases.push_back({w, h});
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(AllTiers, ColorConvertTierTest, ::testing::Combine(::testing::ValuesIn(test::tiers()),
                                                                            ::testing::ValuesIn(sizes())),
                         [](const auto& info) {
                           const Tier& tier = std::get<0>(info.param);
                           const auto& c = std::get<1>(info.param);
                           return std::string(tier.name) + "_" + std::to_string(c.width) + "x" +
                                  std::to_string(c.height);
                         });

// The stepped form with a negative source distance walks the picture the other
// way up: the same as converting a flipped copy with the packed form.
TEST(ColorConvertSteppedTest, NegativeSourceStepEqualsAFlippedPicture) {
  constexpr int32_t w = 34, h = 10;
  std::vector<uint8_t> rgb(size_t(w) * h * 3), flipped(rgb.size());
  std::mt19937 rng(5);
  for (auto& b : rgb) b = static_cast<uint8_t>(rng());
  for (int32_t y = 0; y < h; ++y) std::memcpy(&flipped[size_t(h - 1 - y) * w * 3], &rgb[size_t(y) * w * 3], w * 3);

  std::vector<uint8_t> a(size_t(w) * h * 3 / 2), b(a.size());
  uint8_t* pa[3] = {a.data(), a.data() + w * h, a.data() + w * h + w * h / 4};
  uint8_t* pb[3] = {b.data(), b.data() + w * h, b.data() + w * h + w * h / 4};
  const ptrdiff_t steps[3] = {w, w / 2, w / 2};
  EXPECT_EQ(rgbToYuv420Stepped(&rgb[size_t(h - 1) * w * 3], -3 * w, pa, steps, w, h), kConvertDone);
  EXPECT_EQ(rgbToYuv420(flipped.data(), pb, w, h), kConvertDone);
  EXPECT_EQ(a, b);
}

// Arguments are checked in the documented order: source and plane array, then
// the size, then each plane.
TEST(ColorConvertStatusTest, ArgumentChecksInOrder) {
  std::vector<uint8_t> rgb(4 * 4 * 3), y(16), u(4), v(4);
  uint8_t* planes[3] = {y.data(), u.data(), v.data()};
  EXPECT_EQ(rgbToYuv420(rgb.data(), planes, 4, 4), kConvertDone);
  EXPECT_EQ(rgbToYuv420(rgb.data(), planes, 3, 4), kConvertOddSize);
  EXPECT_EQ(rgbToYuv420(rgb.data(), planes, 4, 3), kConvertOddSize);
  EXPECT_EQ(rgbToYuv420(rgb.data(), planes, 1, 1), kConvertOddSize) << "no block, still odd";
  EXPECT_EQ(rgbToYuv420(rgb.data(), planes, 0, 4), kConvertBadSize);
  EXPECT_EQ(rgbToYuv420(rgb.data(), planes, 4, -1), kConvertBadSize);
  EXPECT_EQ(rgbToYuv420(nullptr, planes, 4, 4), kConvertNullPointer);
  EXPECT_EQ(rgbToYuv420(rgb.data(), nullptr, 4, 4), kConvertNullPointer);
  EXPECT_EQ(rgbToYuv420(nullptr, planes, 0, 4), kConvertNullPointer) << "pointers before the size";
  uint8_t* missing[3] = {y.data(), nullptr, v.data()};
  EXPECT_EQ(rgbToYuv420(rgb.data(), missing, 4, 4), kConvertNullPointer);
  EXPECT_EQ(rgbToYuv420(rgb.data(), missing, 0, 4), kConvertBadSize) << "the size before the planes";
  const ptrdiff_t steps[3] = {4, 2, 2};
  EXPECT_EQ(rgbToYuv420Stepped(rgb.data(), 12, missing, steps, 4, 4), kConvertNullPointer);
}

// A frame one pixel wide or high has no 2 x 2 block: nothing is written.
TEST(ColorConvertStatusTest, NoBlockWritesNothing) {
  std::vector<uint8_t> rgb(8 * 3, 200), y(8, 7), u(1, 7), v(1, 7);
  uint8_t* planes[3] = {y.data(), u.data(), v.data()};
  EXPECT_EQ(rgbToYuv420(rgb.data(), planes, 1, 8), kConvertOddSize);
  EXPECT_EQ(rgbToYuv420(rgb.data(), planes, 8, 1), kConvertOddSize);
  EXPECT_EQ(y, std::vector<uint8_t>(8, 7));
  EXPECT_EQ(u[0], 7);
  EXPECT_EQ(v[0], 7);
}

// Black and white as every tier computes them: black is Y 0, U V 128; white is
// Y 255 (y2 = 32769 x 255 >> 14 = 510) with U and V at 128 or one below.
class ColorConvertValueTest : public ::testing::TestWithParam<Tier> {};

TEST_P(ColorConvertValueTest, BlackWhiteAndOddColumn) {
  const Tier tier = GetParam();
  if (!test::tierAvailable(tier)) GTEST_SKIP() << "this processor lacks " << tier.name;
  const ColorConvertKernels k = colorConvertKernels(CpuFlags{tier.mask});
  constexpr int32_t w = 37, h = 4;  // an odd width: 18 blocks, the last column left alone
  for (uint8_t level : {uint8_t{0}, uint8_t{255}}) {
    std::vector<uint8_t> rgb(size_t(w) * h * 3, level), y(size_t(w) * h, 9), u(18 * 2, 9), v(18 * 2, 9);
    uint8_t* planes[3] = {y.data(), u.data(), v.data()};
    const ptrdiff_t steps[3] = {w, w / 2, w / 2};
    EXPECT_EQ(rgbToYuv420Stepped(k, rgb.data(), 3 * w, planes, steps, w, h), kConvertOddSize);
    for (int32_t row = 0; row < h; ++row) {
      for (int32_t x = 0; x < w - 1; ++x) ASSERT_EQ(y[size_t(row) * w + x], level == 0 ? 0 : 255);
      EXPECT_EQ(y[size_t(row) * w + w - 1], 9) << "the odd column is not written";
    }
    for (size_t i = 0; i < u.size(); ++i) {
      if (level == 0) {
        ASSERT_EQ(u[i], 128);
        ASSERT_EQ(v[i], 128);
      } else {
        ASSERT_TRUE(u[i] == 128 || u[i] == 127) << int(u[i]);
        ASSERT_TRUE(v[i] == 128 || v[i] == 127) << int(v[i]);
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllTiers, ColorConvertValueTest, ::testing::ValuesIn(test::tiers()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ColorConvertDispatchTest, ProcessKernelsAreTheHighestTierTheProcessorHas) {
  EXPECT_STREQ(processColorConvertKernels().name, cpuTierName(processCpuFlags()));
}

// The aligned kernel is taken only when every address of a row pair allows it,
// and its result is the same.
TEST(ColorConvertDispatchTest, AlignedAndUnalignedPathsAgree) {
  const ColorConvertKernels k = processColorConvertKernels();
  if (k.aligned == nullptr) GTEST_SKIP() << "the scalar kernel has one path";
  constexpr int32_t w = 64, h = 8;
  for (size_t offset : {size_t{0}, size_t{16}, size_t{5}}) {
    Buffers a(w, h, offset, offset), b(w, h, 0, 1);
    fill(a.src(), size_t(w) * h * 3, Content::Random, 77);
    std::memcpy(b.src(), a.src(), size_t(w) * h * 3);
    EXPECT_EQ(rgbToYuv420(a.src(), a.planes(), w, h), kConvertDone);
    EXPECT_EQ(rgbToYuv420(b.src(), b.planes(), w, h), kConvertDone);
    for (int p = 0; p < 3; ++p) EXPECT_EQ(0, std::memcmp(a.plane(p), b.plane(p), a.planeSize[p]));
  }
}

// NV12 against the planar form of the C kernel on the picture padded by hand to
// even sizes (last column and row repeated), on every tier, at widths that end
// inside a vector step and beyond one piece of a row, with guard bytes around
// both planes and their rows spaced wider than the picture.
class ColorConvertNv12Test : public ::testing::TestWithParam<std::tuple<Tier, Case>> {};

TEST_P(ColorConvertNv12Test, IsThePlanarFormOfThePaddedPictureInterleavedAsCbCr) {
  const auto [tier, size] = GetParam();
  if (!test::tierAvailable(tier)) GTEST_SKIP() << "this processor lacks " << tier.name;
  const ColorConvertKernels kernels = colorConvertKernels(CpuFlags{tier.mask});
  const int32_t w = size.width, h = size.height, pw = (w + 1) & ~1, ph = (h + 1) & ~1;
  constexpr size_t kGuard = 64;
  constexpr uint8_t kGuardValue = 0xA5;
  const ptrdiff_t lumaStep = pw + 3, chromaStep = pw + 5;  // rows with room between them

  for (Content content : {Content::Random, Content::PureColours}) {
    std::vector<uint8_t> rgb(size_t(w) * h * 3);
    fill(rgb.data(), rgb.size(), content, static_cast<uint32_t>(w * 31 + h));
    std::vector<uint8_t> padded(size_t(pw) * ph * 3);
    for (int32_t y = 0; y < ph; ++y) {
      for (int32_t x = 0; x < pw; ++x) {
        std::memcpy(&padded[(size_t(y) * pw + x) * 3], &rgb[(size_t(std::min(y, h - 1)) * w + std::min(x, w - 1)) * 3],
                    3);
      }
    }
    std::vector<uint8_t> y(size_t(pw) * ph), u(size_t(pw / 2) * (ph / 2)), v(u.size());
    uint8_t* planes[3] = {y.data(), u.data(), v.data()};
    const ptrdiff_t steps[3] = {pw, pw / 2, pw / 2};
    ASSERT_EQ(rgbToYuv420Stepped(colorConvertKernels(CpuFlags{0}), padded.data(), 3 * pw, planes, steps, pw, ph),
              kConvertDone);

    std::vector<uint8_t> luma(2 * kGuard + lumaStep * ph, kGuardValue), chroma(2 * kGuard + chromaStep * (ph / 2),
                                                                               kGuardValue);
    ASSERT_EQ(rgbToNv12Stepped(kernels, rgb.data(), 3 * w, luma.data() + kGuard, lumaStep, chroma.data() + kGuard,
                               chromaStep, w, h),
              kConvertDone);
    for (int32_t row = 0; row < ph; ++row) {
      const uint8_t* got = luma.data() + kGuard + row * lumaStep;
      ASSERT_EQ(0, std::memcmp(got, &y[size_t(row) * pw], pw)) << "luma row " << row;
      for (ptrdiff_t x = pw; x < lumaStep && row + 1 < ph; ++x) ASSERT_EQ(got[x], kGuardValue) << "luma row " << row;
    }
    for (int32_t row = 0; row < ph / 2; ++row) {
      const uint8_t* got = chroma.data() + kGuard + row * chromaStep;
      // The planar chroma, 0.492 and 0.877 times the differences, scaled to
      // BT.601's 0.564 and 0.713.
      const auto scaled = [](uint8_t c, double factor) {
        return std::clamp(128.0 + (double(c) - 128.0) * factor, 0.0, 255.0);
      };
      for (int32_t x = 0; x < pw / 2; ++x) {
        ASSERT_NEAR(got[2 * x], scaled(u[size_t(row) * (pw / 2) + x], 0.5643 / 0.492), 0.51)
            << "Cb at " << x << ", row " << row;
        ASSERT_NEAR(got[2 * x + 1], scaled(v[size_t(row) * (pw / 2) + x], 0.7133 / 0.877), 0.51)
            << "Cr at " << x << ", row " << row;
      }
      for (ptrdiff_t x = pw; x < chromaStep && row + 1 < ph / 2; ++x) ASSERT_EQ(got[x], kGuardValue);
    }
    const auto guardIntact = [](const std::vector<uint8_t>& b, size_t used) {
      for (size_t i = 0; i < kGuard; ++i) {
        if (b[i] != kGuardValue) return false;
      }
      for (size_t i = kGuard + used; i < b.size(); ++i) {
        if (b[i] != kGuardValue) return false;
      }
      return true;
    };
    EXPECT_TRUE(guardIntact(luma, lumaStep * (ph - 1) + pw));
    EXPECT_TRUE(guardIntact(chroma, chromaStep * (ph / 2 - 1) + pw));
  }
}

std::vector<Case> nv12Sizes() {
  std::vector<Case> cases;
  for (int32_t w : {1, 2, 3, 17, 33, 1025, 2050}) {
    for (int32_t h : {1, 2, 5}) cases.push_back({w, h});
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(AllTiers, ColorConvertNv12Test, ::testing::Combine(::testing::ValuesIn(test::tiers()),
                                                                            ::testing::ValuesIn(nv12Sizes())),
                         [](const auto& info) {
                           const Tier& tier = std::get<0>(info.param);
                           const auto& c = std::get<1>(info.param);
                           return std::string(tier.name) + "_" + std::to_string(c.width) + "x" +
                                  std::to_string(c.height);
                         });

// What a player shows: flat pictures of pure and mixed colours come out as the
// textbook BT.601 full-range values, within the rounding of the integer steps
// (and the planar form's own clipping of the strongest reds).
TEST(ColorConvertNv12ColourTest, FlatColoursGiveTheirBt601Values) {
  struct Rgb {
    int r, g, b;
  };
  for (const Rgb c : {Rgb{255, 0, 0}, Rgb{0, 255, 0}, Rgb{0, 0, 255}, Rgb{255, 255, 0}, Rgb{0, 255, 255},
                      Rgb{200, 80, 40}, Rgb{30, 60, 200}, Rgb{128, 128, 128}, Rgb{255, 255, 255}, Rgb{0, 0, 0}}) {
    std::vector<uint8_t> rgb(4 * 4 * 3);
    for (size_t p = 0; p < 16; ++p) {
      rgb[p * 3] = uint8_t(c.r), rgb[p * 3 + 1] = uint8_t(c.g), rgb[p * 3 + 2] = uint8_t(c.b);
    }
    std::vector<uint8_t> luma(16), chroma(8);
    ASSERT_EQ(rgbToNv12Stepped(rgb.data(), 12, luma.data(), 4, chroma.data(), 4, 4, 4), kConvertDone);
    const double y = 0.299 * c.r + 0.587 * c.g + 0.114 * c.b;
    const double cb = std::clamp(128.0 + 0.5643 * (c.b - y), 0.0, 255.0);
    const double cr = std::clamp(128.0 + 0.7133 * (c.r - y), 0.0, 255.0);
    const std::string what = std::to_string(c.r) + "," + std::to_string(c.g) + "," + std::to_string(c.b);
    EXPECT_NEAR(luma[5], y, 1.0) << what;
    EXPECT_NEAR(chroma[0], cb, 2.0) << what;
    // Where 0.877 (R - Y) passes 127 the planar form has clipped it already:
    // the strongest reds and cyans keep up to a fifth less of their Cr.
    EXPECT_NEAR(chroma[1], cr, std::abs(0.877 * (c.r - y)) > 127 ? 26.0 : 2.0) << what;
  }
}

TEST(ColorConvertNv12StatusTest, BadArgumentsWriteNothing) {
  std::vector<uint8_t> rgb(4 * 4 * 3), luma(16, 7), chroma(8, 7);
  EXPECT_EQ(rgbToNv12Stepped(nullptr, 12, luma.data(), 4, chroma.data(), 4, 4, 4), kConvertNullPointer);
  EXPECT_EQ(rgbToNv12Stepped(rgb.data(), 12, luma.data(), 4, nullptr, 4, 4, 4), kConvertNullPointer);
  EXPECT_EQ(rgbToNv12Stepped(rgb.data(), 12, luma.data(), 4, chroma.data(), 4, 0, 4), kConvertBadSize);
  EXPECT_EQ(rgbToNv12Stepped(rgb.data(), 12, luma.data(), 4, chroma.data(), 4, 4, -2), kConvertBadSize);
  EXPECT_EQ(luma, std::vector<uint8_t>(16, 7));
  EXPECT_EQ(chroma, std::vector<uint8_t>(8, 7));
}

}  // namespace
}  // namespace kestrium
