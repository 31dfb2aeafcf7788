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

// A float coordinate or step in fixed point, truncated toward zero. Values
// beyond 32 bits (and NaN, from a singular transform) are held at the ends
// instead of being undefined; no ordinary view comes near them.
inline int toFixed(float v)
{
    float f = v * kOne;
    if (f >= 2147483520.0f) return 2147483647;
    if (!(f > -2147483520.0f)) return -2147483647 - 1;
    return (int)f;
}

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

// Issues the loads of the trilinear cell at (x, y, z) ahead of use: an oblique
// plane reaches a new slice every pixel or two, far beyond what the hardware
// prefetchers follow. Only for points whose cell is inside the volume.
inline void prefetchCell(short* const* slices, int X, int x, int y, int z)
{
    int q = intPart(x) + intPart(y) * X;
    short const* s0 = slices[intPart(z)] + q;
    short const* s1 = slices[intPart(z) + 1] + q;
    __builtin_prefetch(s0);
    __builtin_prefetch(s0 + X);
    __builtin_prefetch(s1);
    __builtin_prefetch(s1 + X);
}

// Pixels between a prefetch and the sample that uses it.
constexpr int kPrefetchAhead = 48;

// 32-bit wrap-around stepping: start + k * step, as repeated additions give it.
inline int stepAt(int start, int k, int step)
{
    return (int)((uint32_t)start + (uint32_t)k * (uint32_t)step);
}

// Highest integer part a sample may have on each axis: dims - 1 for nearest
// neighbour, dims - 2 where the cell's far corner is read too.
struct GridLimits {
    int hi[3];
    GridLimits(int const* dims, int reach)
    {
        for (int a = 0; a < 3; ++a) hi[a] = dims[a] - 1 - reach;
    }
    bool inside(int x, int y, int z) const
    {
        return x >= 0 && y >= 0 && z >= 0 && intPart(x) <= hi[0] && intPart(y) <= hi[1] &&
               intPart(z) <= hi[2];
    }
};

// The last guard of a row: the bounds keep every sample a margin inside the
// volume, except in a few rounding corners of the clipping rule where a pixel
// at the very edge survives. Such end pixels are dropped here, so that no read
// ever leaves the volume. `p` is the row's first sample at column 0, `col` the
// column step, `ray` the step between the depth samples of a pixel. Samples are
// linear in the column, so the columns inside form one interval.
// With planeAxis >= 0 the planes of that axis are counted from the first
// sample's integer part, one per sample, as the slab average reads them.
inline void trimRow(int* L, int* R, int const* p, int const* col, int const* ray, int depth,
                    GridLimits const& lim, int planeAxis = -1)
{
    auto ok = [&](int i) {
        int a[3], b[3];
        for (int k = 0; k < 3; ++k) {
            a[k] = stepAt(p[k], i, col[k]);
            b[k] = stepAt(a[k], depth - 1, ray[k]);
        }
        if (planeAxis >= 0 && intPart(a[planeAxis]) + depth - 1 > lim.hi[planeAxis]) return false;
        return lim.inside(a[0], a[1], a[2]) && lim.inside(b[0], b[1], b[2]);
    };
    while (*L <= *R && !ok(*L)) ++*L;
    while (*R >= *L && !ok(*R)) --*R;
}

// Row j of the image: its bounds (L, R) from the array, narrowed by trimRow,
// and the first sample of pixel L in xyz. `start` is pixel (0, 0), `col` and
// `row` the steps between columns and rows. False when nothing is left.
inline bool rowSpan(short const* bounds, int j, int const* start, int const* col, int const* row,
                    int const* ray, int depth, GridLimits const& lim, int planeAxis, int* L, int* R,
                    int* xyz)
{
    *L = bounds[2 * j];
    *R = bounds[2 * j + 1];
    if (*L > *R) return false;
    int p[3] = {stepAt(start[0], j, row[0]), stepAt(start[1], j, row[1]), stepAt(start[2], j, row[2])};
    trimRow(L, R, p, col, ray, depth, lim, planeAxis);
    if (*L > *R) return false;
    for (int a = 0; a < 3; ++a) xyz[a] = stepAt(p[a], *L, col[a]);
    return true;
}

}  // namespace vx_mpr

#endif
