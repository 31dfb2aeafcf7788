#ifndef VX_CPU_H
#define VX_CPU_H

#include <stdint.h>
#include "VX_Export.h"

// Processor feature bits, read once from the CPUID instruction.
enum {
    VX_CPU_MMX = 1,
    VX_CPU_SSE = 2,
    VX_CPU_SSE2 = 4,   // selects the vector paths
    VX_CPU_SSE3 = 8,
    VX_CPU_SSSE3 = 16,
    VX_CPU_AVX2 = 32,  // selects the 8-lane paths, with SSE2 (only when the OS saves YMM state)
};

// The feature bits of this processor, limited by VX_SetCPUIDMask.
VX_EXPORT int VX_CPU_ID();
// Clears feature bits for the whole process (0 forces every scalar path;
// -1 restores them all). Meant for tests and benchmarks that compare paths.
VX_EXPORT void VX_SetCPUIDMask(int mask);

// p rounded up to the next multiple of alignment (a power of two).
VX_EXPORT void* VX_AlignPointer(void* p, int alignment = 16);
// The byte offset of p past the previous 16-byte boundary (0 when aligned).
VX_EXPORT int VX_GetAlignment(void const* p);

#endif
