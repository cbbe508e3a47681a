#include "codecs/ColorConvert.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/codecs/CodecTestSupport.h"

namespace kestrium {
namespace {

using test::Tier;

constexpr size_t kGuard = 64;
constexpr uint8_t kGuardValue = 0xA5;  // a value no kernel writes by chance everywhere

// A buffer of `used` bytes `offset` bytes past a 64-byte boundary, with guard
// bytes on both sides.
struct Guarded {
  Guarded(size_t used, size_t offset) : bytes(2 * kGuard + 64 + offset + used, kGuardValue), used(used) {
    at = test::alignedIn(bytes, kGuard) + offset;
  }
  bool intact() const {
    const auto guard = [](uint8_t b) { return b == kGuardValue; };
    return std::all_of(bytes.data(), static_cast<const uint8_t*>(at), guard) &&
           std::all_of(static_cast<const uint8_t*>(at) + used, bytes.data() + bytes.size(), guard);
  }
  std::vector<uint8_t> bytes;
  size_t used;
  uint8_t* at;
};

enum class Content { Random, Extremes, PureColours };

void fill(uint8_t* at, size_t n, Content content, uint32_t seed) {
  std::mt19937 rng(seed);
  // Whole pixels of primary and secondary colours saturate the chroma.
  static constexpr uint8_t kColours[8][3] = {{255, 0, 0},   {0, 255, 0},   {0, 0, 255},     {255, 255, 0},
                                             {0, 255, 255}, {255, 0, 255}, {255, 255, 255}, {0, 0, 0}};
  for (size_t i = 0; i < n; ++i) {
    if (content == Content::Random) at[i] = static_cast<uint8_t>(rng());
    if (content == Content::Extremes) at[i] = (rng() & 1) != 0 ? 255 : 0;
    if (content == Content::PureColours && i % 3 == 0 && i + 2 < n) std::memcpy(at + i, kColours[rng() % 8], 3);
  }
}

struct Case {
  int32_t width, height;
};
std::vector<Case> sizes(std::initializer_list<int32_t> widths, std::initializer_list<int32_t> heights) {
  std::vector<Case> cases;
  for (int32_t w : widths) {
    for (int32_t h : heights) cases.push_back({w, h});
  }
  return cases;
}
std::string caseName(const ::testing::TestParamInfo<std::tuple<Tier, Case>>& info) {
  const auto& [tier, c] = info.param;
  return std::string(tier.name) + "_" + std::to_string(c.width) + "x" + std::to_string(c.height);
}

// Every tier against the scalar kernel on odd and even sizes, sources and planes
// aligned and not, guard bytes around every plane.
class ColorConvertTierTest : public ::testing::TestWithParam<std::tuple<Tier, Case>> {};

TEST_P(ColorConvertTierTest, MatchesTheScalarKernelAndWritesNothingOutsideThePlanes) {
  const auto [tier, size] = GetParam();
  if (!test::tierAvailable(tier)) GTEST_SKIP() << "this processor lacks " << tier.name;
  const ColorConvertKernels kernels = colorConvertKernels(CpuFlags{tier.mask});
  ASSERT_STREQ(kernels.name, tier.name);
  const ColorConvertKernels reference = colorConvertKernels(CpuFlags{0});
  const int32_t w = size.width, h = size.height;
  const int32_t status = ((w | h) & 1) != 0 ? kConvertOddSize : kConvertDone;
  const size_t n = size_t(w) * h * 3, planeSize[3] = {size_t(w) * h, size_t(w / 2) * (h / 2), size_t(w / 2) * (h / 2)};
  const ptrdiff_t steps[3] = {w, w / 2, w / 2};
  uint32_t seed = 1;
  for (Content content : {Content::Random, Content::Extremes, Content::PureColours}) {
    for (size_t sourceOffset : {0, 1, 7}) {
      for (size_t planeOffset : {0, 3}) {
        Guarded source(n, sourceOffset);
        fill(source.at, n, content, seed++);
        std::vector<Guarded> got, want;
        uint8_t *g[3], *r[3];
        for (int p = 0; p < 3; ++p) {
          got.emplace_back(planeSize[p], planeOffset), want.emplace_back(planeSize[p], planeOffset);
          g[p] = got[p].at, r[p] = want[p].at;
        }
        const std::string where = "content " + std::to_string(int(content)) + ", offsets " +
                                  std::to_string(sourceOffset) + "/" + std::to_string(planeOffset);
        EXPECT_EQ(rgbToYuv420Stepped(kernels, source.at, 3 * w, g, steps, w, h), status) << where;
        EXPECT_EQ(rgbToYuv420Stepped(reference, source.at, 3 * w, r, steps, w, h), status) << where;
        for (int p = 0; p < 3; ++p) {
          ASSERT_EQ(0, std::memcmp(g[p], r[p], planeSize[p])) << "plane " << p << ", " << where;
          ASSERT_TRUE(got[p].intact()) << "plane " << p << ", " << where;
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllTiers, ColorConvertTierTest,
                         ::testing::Combine(::testing::ValuesIn(test::tiers()),
                                            ::testing::ValuesIn(sizes({1, 2, 5, 15, 16, 17, 1919, 1920}, {1, 2, 3, 6}))),
                         caseName);

// A negative source distance walks the picture the other way up: the same as
// converting a flipped copy with the packed form.
TEST(ColorConvertSteppedTest, NegativeSourceStepEqualsAFlippedPicture) {
  constexpr int32_t w = 34, h = 10;
  std::vector<uint8_t> rgb(size_t(w) * h * 3), flipped(rgb.size());
  fill(rgb.data(), rgb.size(), Content::Random, 5);
  for (int32_t y = 0; y < h; ++y) std::memcpy(&flipped[size_t(h - 1 - y) * w * 3], &rgb[size_t(y) * w * 3], w * 3);
  std::vector<uint8_t> a(size_t(w) * h * 3 / 2), b(a.size());
  uint8_t* pa[3] = {a.data(), a.data() + w * h, a.data() + w * h + w * h / 4};
  uint8_t* pb[3] = {b.data(), b.data() + w * h, b.data() + w * h + w * h / 4};
  const ptrdiff_t steps[3] = {w, w / 2, w / 2};
  EXPECT_EQ(rgbToYuv420Stepped(&rgb[size_t(h - 1) * w * 3], -3 * w, pa, steps, w, h), kConvertDone);
  EXPECT_EQ(rgbToYuv420(flipped.data(), pb, w, h), kConvertDone);
  EXPECT_EQ(a, b);
}

// Arguments are checked in order: source and plane array, the size, each plane.
// A refused call, or a frame one pixel wide or high (no 2 x 2 block), writes nothing.
TEST(ColorConvertStatusTest, ArgumentChecksInOrderAndNothingWrittenWithoutABlock) {
  std::vector<uint8_t> rgb(8 * 8 * 3, 200), y(64, 7), u(16, 7), v(16, 7), luma(16, 7), chroma(8, 7);
  uint8_t* planes[3] = {y.data(), u.data(), v.data()};
  uint8_t* missing[3] = {y.data(), nullptr, v.data()};
  const ptrdiff_t steps[3] = {4, 2, 2};
  EXPECT_EQ(rgbToYuv420(rgb.data(), planes, 1, 8), kConvertOddSize);
  EXPECT_EQ(rgbToYuv420(rgb.data(), planes, 8, 1), kConvertOddSize);
  EXPECT_EQ(y, std::vector<uint8_t>(64, 7));
  EXPECT_EQ(u, std::vector<uint8_t>(16, 7));
  EXPECT_EQ(rgbToYuv420(rgb.data(), planes, 5, 2), kConvertOddSize);
  EXPECT_EQ(y[4], 7) << "the odd column is left alone";
  EXPECT_EQ(y[9], 7);
  const uint8_t* src = rgb.data();
  EXPECT_EQ(rgbToYuv420(src, planes, 0, 4), kConvertBadSize);
  EXPECT_EQ(rgbToYuv420(src, planes, 4, -1), kConvertBadSize);
  EXPECT_EQ(rgbToYuv420(nullptr, planes, 4, 4), kConvertNullPointer);
  EXPECT_EQ(rgbToYuv420(src, nullptr, 4, 4), kConvertNullPointer);
  EXPECT_EQ(rgbToYuv420(nullptr, planes, 0, 4), kConvertNullPointer) << "pointers before the size";
  EXPECT_EQ(rgbToYuv420(src, missing, 4, 4), kConvertNullPointer);
  EXPECT_EQ(rgbToYuv420(src, missing, 0, 4), kConvertBadSize) << "the size before the planes";
  EXPECT_EQ(rgbToYuv420Stepped(src, 12, missing, steps, 4, 4), kConvertNullPointer);
  EXPECT_EQ(rgbToNv12Stepped(nullptr, 12, luma.data(), 4, chroma.data(), 4, 4, 4), kConvertNullPointer);
  EXPECT_EQ(rgbToNv12Stepped(src, 12, luma.data(), 4, nullptr, 4, 4, 4), kConvertNullPointer);
  EXPECT_EQ(rgbToNv12Stepped(src, 12, luma.data(), 4, chroma.data(), 4, 0, 4), kConvertBadSize);
  EXPECT_EQ(rgbToNv12Stepped(src, 12, luma.data(), 4, chroma.data(), 4, 4, -2), kConvertBadSize);
  EXPECT_EQ(luma, std::vector<uint8_t>(16, 7));
  EXPECT_EQ(chroma, std::vector<uint8_t>(8, 7));
  EXPECT_STREQ(processColorConvertKernels().name, cpuTierName(processCpuFlags())) << "the highest tier there is";
}

// NV12 against the planar C kernel on the picture padded by hand to even sizes
// (last column and row repeated), on every tier, at widths that end inside a
// vector step and beyond one piece of a row, rows spaced wider than the picture
// and guard bytes around and between them.
class ColorConvertNv12Test : public ::testing::TestWithParam<std::tuple<Tier, Case>> {};

TEST_P(ColorConvertNv12Test, IsThePlanarFormOfThePaddedPictureInterleavedAsCbCr) {
  const auto [tier, size] = GetParam();
  if (!test::tierAvailable(tier)) GTEST_SKIP() << "this processor lacks " << tier.name;
  const int32_t w = size.width, h = size.height, pw = (w + 1) & ~1, ph = (h + 1) & ~1;
  const ptrdiff_t lumaStep = pw + 3, chromaStep = pw + 5;
  // The planar chroma, 0.492 and 0.877 times the differences, scaled to BT.601's 0.564 and 0.713.
  const auto scaled = [](uint8_t c, double f) { return std::clamp(128.0 + (double(c) - 128.0) * f, 0.0, 255.0); };
  for (Content content : {Content::Random, Content::PureColours}) {
    std::vector<uint8_t> rgb(size_t(w) * h * 3), padded(size_t(pw) * ph * 3);
    fill(rgb.data(), rgb.size(), content, static_cast<uint32_t>(w * 31 + h));
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

    Guarded luma(lumaStep * ph, 0), chroma(chromaStep * (ph / 2), 0);
    ASSERT_EQ(rgbToNv12Stepped(colorConvertKernels(CpuFlags{tier.mask}), rgb.data(), 3 * w, luma.at, lumaStep,
                               chroma.at, chromaStep, w, h),
              kConvertDone);
    for (int32_t row = 0; row < ph; ++row) {
      const uint8_t* got = luma.at + row * lumaStep;
      ASSERT_EQ(0, std::memcmp(got, &y[size_t(row) * pw], pw)) << "luma row " << row;
      for (ptrdiff_t x = pw; x < lumaStep; ++x) ASSERT_EQ(got[x], kGuardValue) << "luma row " << row;
    }
    for (int32_t row = 0; row < ph / 2; ++row) {
      const uint8_t* got = chroma.at + row * chromaStep;
      for (int32_t x = 0; x < pw / 2; ++x) {
        ASSERT_NEAR(got[2 * x], scaled(u[size_t(row) * (pw / 2) + x], 0.5643 / 0.492), 0.51) << x << ", " << row;
        ASSERT_NEAR(got[2 * x + 1], scaled(v[size_t(row) * (pw / 2) + x], 0.7133 / 0.877), 0.51) << x << ", " << row;
      }
      for (ptrdiff_t x = pw; x < chromaStep; ++x) ASSERT_EQ(got[x], kGuardValue) << "chroma row " << row;
    }
    EXPECT_TRUE(luma.intact() && chroma.intact());
  }
}

INSTANTIATE_TEST_SUITE_P(AllTiers, ColorConvertNv12Test,
                         ::testing::Combine(::testing::ValuesIn(test::tiers()),
                                            ::testing::ValuesIn(sizes({1, 2, 3, 17, 33, 1025, 2050}, {1, 2, 5}))),
                         caseName);

// What a player shows: flat pictures come out as the textbook BT.601 full-range
// values, within the rounding of the integer steps (and the planar form's own
// clipping of the strongest reds and cyans, which keep up to a fifth less Cr).
TEST(ColorConvertNv12ColourTest, FlatColoursGiveTheirBt601Values) {
  for (const auto& [r, g, b] : std::initializer_list<std::tuple<int, int, int>>{
           {255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 0}, {0, 255, 255}, {200, 80, 40}, {30, 60, 200},
           {128, 128, 128}, {255, 255, 255}, {0, 0, 0}}) {
    std::vector<uint8_t> rgb(4 * 4 * 3), luma(16), chroma(8);
    for (size_t p = 0; p < 16; ++p) rgb[p * 3] = uint8_t(r), rgb[p * 3 + 1] = uint8_t(g), rgb[p * 3 + 2] = uint8_t(b);
    ASSERT_EQ(rgbToNv12Stepped(rgb.data(), 12, luma.data(), 4, chroma.data(), 4, 4, 4), kConvertDone);
    const double y = 0.299 * r + 0.587 * g + 0.114 * b;
    const std::string what = std::to_string(r) + "," + std::to_string(g) + "," + std::to_string(b);
    EXPECT_NEAR(luma[5], y, r == g && g == b && (r == 0 || r == 255) ? 0.0 : 1.0) << what << ": black and white exact";
    EXPECT_NEAR(chroma[0], std::clamp(128.0 + 0.5643 * (b - y), 0.0, 255.0), 2.0) << what;
    EXPECT_NEAR(chroma[1], std::clamp(128.0 + 0.7133 * (r - y), 0.0, 255.0),
                std::abs(0.877 * (r - y)) > 127 ? 26.0 : 2.0)
        << what;
  }
}

}  // namespace
}  // namespace kestrium
