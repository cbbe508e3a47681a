#pragma once

#include <cstdint>

namespace kestrium {

// The instruction sets our vector kernels are written for. Each tier implies the
// ones before it: a processor that lacks one never gets a later kernel.
enum CpuFeature : uint32_t {
  kCpuSSE2 = 1u << 0,
  kCpuSSSE3 = 1u << 1,
  kCpuAVX2 = 1u << 2,  // with the operating system saving the YMM state
};

struct CpuFlags {
  uint32_t bits = 0;
  constexpr bool has(CpuFeature f) const { return (bits & f) != 0; }
  constexpr CpuFlags masked(uint32_t mask) const { return {bits & mask}; }
};

// What this processor and operating system offer, asked of the processor once.
CpuFlags detectCpuFlags();

// The flags the process-wide kernel tables are built from: the detected ones
// less those masked out, settled once at the first call. Setting the mask (a
// benchmark's command line) only has an effect before that; tests that run every
// tier build their tables from flags of their own instead.
void setCpuFlagsMask(uint32_t mask);
CpuFlags processCpuFlags();

// "c", "sse2", "ssse3" or "avx2": the highest tier that the flags allow.
const char* cpuTierName(CpuFlags flags);
// The mask that keeps the named tier and those below it; false for an unknown name.
bool cpuMaskForTier(const char* name, uint32_t& mask);

}  // namespace kestrium
