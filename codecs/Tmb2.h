#pragma once

// TMB2, the product's own intra-only lossless video format: each frame is
// converted to planar YUV 4:2:0, each plane predicted from the row above, and
// each plane coded with a canonical Huffman code of its own.
//
// Frame:   SY, SU, SV (u32 each) then the three plane streams of those sizes.
// Plane:   N (u32, residuals coded), T (u8, bytes of the table block), the table
//          block, then the coded residuals as a whole number of 32-bit words.
// Bits run from the most significant to the least significant bit of each
// little-endian 32-bit word. The table block is B (4 bits, width of a length
// field), R (4 bits, width of a run field), E (8 bits, escape value) and then the
// code length of each of the 256 symbols, where a run of k unused symbols may be
// told by E followed by k in R bits. Codes are canonical with the longest codes
// numerically smallest. The coded residuals start one bit into the first word,
// whose top bit is always 0.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>

#include "codecs/CpuFeatures.h"

namespace kestrium::tmb2 {

// Words go to memory as the host stores them, and pairs of residuals are read as
// one little-endian 16-bit index.
static_assert(std::endian::native == std::endian::little, "TMB2 is written by little-endian hosts");

inline constexpr uint32_t kFourcc = 0x32424D54;  // "TMB2" as a little-endian u32
inline constexpr int kMaxCodeLength = 31;
inline constexpr size_t kFrameHeaderSize = 12;
inline constexpr size_t kPlaneHeaderSize = 5;
// Every count starts at 1, so that every residual has a code; residual 0 starts
// high enough that its code is exactly one bit long.
inline constexpr int32_t kZeroCount = 0x70000000;

// Where one plane lives in a frame's planes buffer, its size, and how many
// residuals its stream codes (N). For chroma N is (W x H) / 4, which exceeds the
// plane's own (W/2) x (H/2) when W or H is odd: the surplus residuals are whatever
// the residuals buffer holds beyond the plane.
struct PlaneLayout {
  size_t offset;
  size_t width;
  size_t height;
  uint32_t count;
};

struct FrameLayout {
  PlaneLayout planes[3];  // luma, the chroma plane of the third source byte, that of the first
  size_t planesSize;      // bytes of a buffer that holds all three planes
};

FrameLayout frameLayout(uint32_t width, uint32_t height);

// ---- Code construction, shared by the encoder and the decoder ----

// Code lengths from 256 counts: quicksort of the used symbols by count, minimum
// redundancy lengths computed in place (Moffat and Katajainen), a depth limit of
// 31 bits. Symbols with count 0 get length 0 (no code).
void buildCodeLengths(const int32_t counts[256], uint8_t lengths[256]);

// Canonical codes (right-aligned) for the lengths: symbols sorted by length
// descending, then symbol ascending; the first gets 0, each next is the previous
// plus 1, shifted right by the difference of the lengths. False when the lengths
// make no prefix code (then codes are unspecified).
bool assignCanonicalCodes(const uint8_t lengths[256], uint32_t codes[256]);

// Bytes needed by any table block: 16 bits of header and 256 fields of at most
// 6 bits, in whole words.
inline constexpr size_t kMaxTableBlock = 196;

// Writes the table block for the lengths (at least one non-zero); returns T.
size_t writeTableBlock(const uint8_t lengths[256], uint8_t* out);

// Reads a table block of size bytes. Returns null on success, else what is wrong.
const char* readTableBlock(const uint8_t* block, size_t size, uint8_t lengths[256]);

// ---- Encoding ----

// Sets the 256 counts as each plane starts them.
void initCounts(int32_t counts[256]);

// The residual pass over one plane of width x height bytes (rows packed), fused
// with the counting: the first row is predicted from 128 and counted whole; the
// later rows, taken as one run, are predicted from the row above and counted in
// groups of 8 bytes, of which bytes 0, 2, 4 and 6 are counted when they are not
// 0; a last short group is counted whole. Writes width x height residuals.
using VerticalResiduals = void (*)(const uint8_t* above, const uint8_t* below, uint8_t* out, size_t groups,
                                   uint32_t (*hist)[256]);
VerticalResiduals verticalResidualsKernel(CpuFlags flags);
void planeResiduals(const uint8_t* plane, size_t width, size_t height, uint8_t* residuals, int32_t counts[256],
                    VerticalResiduals kernel);

// Scratch that makes coding faster: a table of the codes of every pair of
// residuals. Owned by whoever codes many planes.
struct CoderScratch {
  uint64_t pairs[65536];
};

// Codes n residuals as one plane stream at out, from the counts given, or from
// the residuals' own counts when counts is null. Every residual present must
// have a non-zero count. Writes N first and returns 0 at once when n is 0;
// otherwise returns the bytes written, or 0 when the stream would not fit in
// capacity bytes. scratch may be null.
size_t encodePlane(const uint8_t* residuals, uint32_t n, uint8_t* out, size_t capacity, const int32_t* counts,
                   CoderScratch* scratch = nullptr);

// Bytes of coded residuals that the codes of the given lengths take for these
// residuals, rounded to words as in a stream (for tests and estimates).
size_t codedSize(const uint8_t* residuals, uint32_t n, const uint8_t lengths[256]);

// ---- Decoding ----

// Decodes one plane stream of size bytes that must code exactly expectedCount
// residuals into residuals. False, with what is wrong in error, for a stream the
// format doesn't allow.
bool decodePlane(const uint8_t* stream, size_t size, uint32_t expectedCount, uint8_t* residuals, std::string& error);

// Rebuilds a plane of width x height bytes from its residuals.
void reconstructPlane(const uint8_t* residuals, size_t width, size_t height, uint8_t* plane);

// Decodes a whole frame of width x height pixels into planes laid out as
// frameLayout() says; residuals is scratch of width x height bytes. False, with
// what is wrong in error, for a frame the format doesn't allow.
bool decodeFrame(const uint8_t* data, size_t size, uint32_t width, uint32_t height, uint8_t* planes,
                 uint8_t* residuals, std::string& error);

}  // namespace kestrium::tmb2
