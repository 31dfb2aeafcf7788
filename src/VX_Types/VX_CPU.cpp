#include "VX_CPU.h"

#include <atomic>
#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace {

int readCpuid()
{
    int bits = 0;
#if defined(__x86_64__) || defined(__i386__)
    unsigned a, b, c, d;
    if (__get_cpuid(1, &a, &b, &c, &d)) {
        if (d & (1u << 23)) bits |= VX_CPU_MMX;
        if (d & (1u << 25)) bits |= VX_CPU_SSE;
        if (d & (1u << 26)) bits |= VX_CPU_SSE2;
        if (c & (1u << 0)) bits |= VX_CPU_SSE3;
        if (c & (1u << 9)) bits |= VX_CPU_SSSE3;
        // AVX2 counts only when the OS saves the YMM registers: OSXSAVE and AVX
        // set, and XCR0 holding the SSE (bit 1) and AVX (bit 2) states.
        bool osYmm = false;
        if ((c & (1u << 27)) && (c & (1u << 28))) {
            unsigned lo, hi;
            __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
            osYmm = (lo & 6u) == 6u;
        }
        unsigned a7, b7, c7, d7;
        if (osYmm && __get_cpuid_count(7, 0, &a7, &b7, &c7, &d7) && (b7 & (1u << 5)))
            bits |= VX_CPU_AVX2;
    }
#endif
    return bits;
}

std::atomic<int> s_mask{-1};

}  // namespace

int VX_CPU_ID()
{
    static const int bits = readCpuid();
    return bits & s_mask.load(std::memory_order_relaxed);
}

void VX_SetCPUIDMask(int mask) { s_mask.store(mask, std::memory_order_relaxed); }

void* VX_AlignPointer(void* p, int alignment)
{
    uintptr_t a = (uintptr_t)alignment - 1;
    return (void*)(((uintptr_t)p + a) & ~a);
}

int VX_GetAlignment(void const* p) { return (int)((uintptr_t)p & 15); }
