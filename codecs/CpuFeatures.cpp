#include "codecs/CpuFeatures.h"

#include <atomic>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#define KESTRIUM_X86 1
#endif

namespace kestrium {

namespace {

std::atomic<uint32_t> cpuMask{~0u};

#ifdef KESTRIUM_X86
// XGETBV as an instruction of its own: the intrinsic needs the whole file built
// for XSAVE, which this code must run without.
uint64_t readXcr0() {
  uint32_t eax = 0, edx = 0;
  __asm__ volatile("xgetbv" : "=a"(eax), "=d"(edx) : "c"(0));
  return (static_cast<uint64_t>(edx) << 32) | eax;
}
#endif

}  // namespace

CpuFlags detectCpuFlags() {
  CpuFlags flags;
#ifdef KESTRIUM_X86
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return flags;
  if ((edx & bit_SSE2) == 0) return flags;
  flags.bits |= kCpuSSE2;
  if ((ecx & bit_SSSE3) == 0) return flags;
  flags.bits |= kCpuSSSE3;
  // AVX2 needs the processor's support and the operating system's: OSXSAVE says
  // XGETBV exists, and XCR0 bits 1 and 2 say XMM and YMM state are saved on a
  // context switch. Without the latter the upper halves would be lost.
  const bool osxsave = (ecx & bit_OSXSAVE) != 0;
  const bool avx = (ecx & bit_AVX) != 0;
  if (!osxsave || !avx || (readXcr0() & 0x6) != 0x6) return flags;
  unsigned maxLeaf = __get_cpuid_max(0, nullptr);
  if (maxLeaf < 7) return flags;
  __cpuid_count(7, 0, eax, ebx, ecx, edx);
  if ((ebx & bit_AVX2) != 0) flags.bits |= kCpuAVX2;
#endif
  return flags;
}

void setCpuFlagsMask(uint32_t mask) { cpuMask.store(mask); }

CpuFlags processCpuFlags() {
  // Settled at the first call, so that every table built from it agrees.
  static const CpuFlags flags = detectCpuFlags().masked(cpuMask.load());
  return flags;
}

const char* cpuTierName(CpuFlags flags) {
  if (flags.has(kCpuAVX2)) return "avx2";
  if (flags.has(kCpuSSSE3)) return "ssse3";
  if (flags.has(kCpuSSE2)) return "sse2";
  return "c";
}

bool cpuMaskForTier(const char* name, uint32_t& mask) {
  if (std::strcmp(name, "c") == 0) {
    mask = 0;
  } else if (std::strcmp(name, "sse2") == 0) {
    mask = kCpuSSE2;
  } else if (std::strcmp(name, "ssse3") == 0) {
    mask = kCpuSSE2 | kCpuSSSE3;
  } else if (std::strcmp(name, "avx2") == 0) {
    mask = kCpuSSE2 | kCpuSSSE3 | kCpuAVX2;
  } else {
    return false;
  }
  return true;
}

}  // namespace kestrium
