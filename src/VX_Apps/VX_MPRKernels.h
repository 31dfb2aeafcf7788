#ifndef VX_MPRKERNELS_H
#define VX_MPRKERNELS_H

// Private to the reformatter: the sampling rules shared by its line kernels.

#include <stdint.h>

namespace vx_mpr {

// Grid coordinates are 18-bit fixed point, already shifted by -0.5 so that they
// count from voxel centres. The integer part is the arithmetic shift by 18;
// the interpolation weight is the 15 high fractional bits, (v >> 3) & 0x7FFF.
constexpr int kFracBits = 18;
constexpr float kOne = 262144.0f;       // 1 << kFracBits
constexpr int kWeightBits = 15;

inline int intPart(int v) { return v >> kFracBits; }
inline int weight(int v) { return (v >> 3) & 0x7FFF; }

// Rule: a + (((b - a) * f) >> 15), rounding downward. 16-bit differences times
// a 15-bit weight just fit 32 bits.
inline int lerp(int a, int b, int f) { return a + (((b - a) * f) >> kWeightBits); }

// Trilinear at (x, y, z): x first, then y, then z; reads slices z and z + 1,
// and columns and rows one beyond the integer part.
inline int triLin(short* const* slices, int X, int x, int y, int z)
{
    int fx = weight(x), fy = weight(y), fz = weight(z);
    int q = intPart(x) + intPart(y) * X;
    short const* s0 = slices[intPart(z)] + q;
    short const* s1 = slices[intPart(z) + 1] + q;
    int lo = lerp(lerp(s0[0], s0[1], fx), lerp(s0[X], s0[X + 1], fx), fy);
    int hi = lerp(lerp(s1[0], s1[1], fx), lerp(s1[X], s1[X + 1], fx), fy);
    return lerp(lo, hi, fz);
}

// The same with the row (and its weight) already resolved: p points at
// (intPart(x), row) of slice z, and p1 at the same place of slice z + 1.
inline int triLinRow(short const* p0, short const* p1, int X, int fx, int fy, int fz)
{
    int lo = lerp(lerp(p0[0], p0[1], fx), lerp(p0[X], p0[X + 1], fx), fy);
    int hi = lerp(lerp(p1[0], p1[1], fx), lerp(p1[X], p1[X + 1], fx), fy);
    return lerp(lo, hi, fz);
}

// 32-bit wrap-around stepping: start + k * step, as repeated additions give it.
inline int stepAt(int start, int k, int step)
{
    return (int)((uint32_t)start + (uint32_t)k * (uint32_t)step);
}

}  // namespace vx_mpr

#endif
