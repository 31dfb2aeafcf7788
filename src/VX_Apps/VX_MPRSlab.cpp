#include <atomic>
#include <stdlib.h>
#include <math.h>
#include <stdint.h>
#include <string.h>

#include "VX_MPR.h"
#include "VX_MPRKernels.h"

using namespace vx_mpr;

namespace {

// Bands of rows of a slab: the interrupt is polled once per band.
constexpr int kSlabBlocks = 256;

// Starts of the extremes. Plane-major kernels fill the bytes of the line with
// 0x80 (0x8080 = -32640) or 0x7F (0x7F7F = 32639), so voxels beyond those do
// not show; ray-major kernels start outside the 16-bit range.
constexpr int kRayMaxStart = -88888;
constexpr int kRayMinStart = 88888;

// Dispatch thresholds in fixed point: a quarter of a voxel per sample, and
// 3 / 2^18 of a voxel (in practice zero).
constexpr int kRayMajorStep = 65536;
constexpr int kFlatStep = 3;

template <bool Max>
inline int extreme(int a, int b)
{
    return Max ? (a > b ? a : b) : (a < b ? a : b);
}

// ---- the average ----

// The step along `Axis` is exactly one voxel, so that axis's weight f is the
// same for every sample of a ray. Each sample adds the bilinear on the plane
// at the ray's integer position + k to lo, and the one a plane further to hi;
// after the ray: pixel = trunc((float)(lo + ((f * (hi - lo)) >> 15)) * avgScale).
// (The product is taken in 64 bits, equal to the 32-bit rule wherever that fits.)
template <int Axis>
void averageLine(short* const* sl, int X, float avgScale, int n, int depth, short* out, int x,
                 int y, int z, int sx, int sy, int sz, int dx, int dy, int dz)
{
    for (int i = 0; i < n; ++i, x += dx, y += dy, z += dz) {
        int64_t lo = 0, hi = 0;
        int a = x, b = y, c = z;
        int start = Axis == 0 ? x : Axis == 1 ? y : z;
        int plane = intPart(start);
        for (int k = 0; k < depth; ++k, ++plane, a += sx, b += sy, c += sz) {
            if (Axis == 2) {
                // Planes are slices: bilinear over x, then y.
                int fx = weight(a), fy = weight(b);
                int q = intPart(a) + intPart(b) * X;
                short const* p0 = sl[plane] + q;
                short const* p1 = sl[plane + 1] + q;
                lo += lerp(lerp(p0[0], p0[1], fx), lerp(p0[X], p0[X + 1], fx), fy);
                hi += lerp(lerp(p1[0], p1[1], fx), lerp(p1[X], p1[X + 1], fx), fy);
            } else if (Axis == 1) {
                // Planes are rows: bilinear over x, then z.
                int fx = weight(a), fz = weight(c);
                int q = intPart(a) + plane * X;
                short const* p0 = sl[intPart(c)] + q;
                short const* p1 = sl[intPart(c) + 1] + q;
                lo += lerp(lerp(p0[0], p0[1], fx), lerp(p1[0], p1[1], fx), fz);
                hi += lerp(lerp(p0[X], p0[X + 1], fx), lerp(p1[X], p1[X + 1], fx), fz);
            } else {
                // Planes are columns: bilinear over y, then z.
                int fy = weight(b), fz = weight(c);
                int q = plane + intPart(b) * X;
                short const* p0 = sl[intPart(c)] + q;
                short const* p1 = sl[intPart(c) + 1] + q;
                lo += lerp(lerp(p0[0], p0[X], fy), lerp(p1[0], p1[X], fy), fz);
                hi += lerp(lerp(p0[1], p0[X + 1], fy), lerp(p1[1], p1[X + 1], fy), fz);
            }
        }
        int64_t v = lo + ((weight(start) * (hi - lo)) >> kWeightBits);
        out[i] = (short)(int)((float)v * avgScale);
    }
}

// ---- maximum and minimum ----

// Ray-major: each pixel's ray walked whole, full trilinear per sample.
template <bool Max>
void raysLine(short* const* sl, int X, int n, int depth, short* out, int x, int y, int z, int sx,
              int sy, int sz, int dx, int dy, int dz)
{
    for (int i = 0; i < n; ++i, x += dx, y += dy, z += dz) {
        int m = Max ? kRayMaxStart : kRayMinStart;
        int a = x, b = y, c = z;
        for (int k = 0; k < depth; ++k, a += sx, b += sy, c += sz)
            m = extreme<Max>(m, triLin(sl, X, a, b, c));
        out[i] = (short)m;
    }
}

template <bool Max>
inline void fillStart(short* out, int n)
{
    memset(out, Max ? 0x80 : 0x7F, (size_t)n * sizeof(short));
}

// Plane-major: one sample step across the whole line at a time, the running
// extreme kept in out.
template <bool Max>
void planesLine(short* const* sl, int X, int n, int depth, short* out, int x, int y, int z, int sx,
                int sy, int sz, int dx, int dy, int dz)
{
    fillStart<Max>(out, n);
    for (int k = 0; k < depth; ++k, x += sx, y += sy, z += sz) {
        int a = x, b = y, c = z;
        for (int i = 0; i < n; ++i, a += dx, b += dy, c += dz)
            out[i] = (short)extreme<Max>(out[i], triLin(sl, X, a, b, c));
    }
}

// Plane-major with y constant along the line: the row offset and y weight
// are resolved once per sample.
template <bool Max>
void planesLineXY(short* const* sl, int X, int n, int depth, short* out, int x, int y, int z,
                  int sx, int sy, int sz, int dx, int dz)
{
    fillStart<Max>(out, n);
    for (int k = 0; k < depth; ++k, x += sx, y += sy, z += sz) {
        int fy = weight(y), row = intPart(y) * X;
        int a = x, c = z;
        for (int i = 0; i < n; ++i, a += dx, c += dz) {
            int q = intPart(a) + row;
            int v = triLinRow(sl[intPart(c)] + q, sl[intPart(c) + 1] + q, X, weight(a), fy, weight(c));
            out[i] = (short)extreme<Max>(out[i], v);
        }
    }
}

// Plane-major with z constant along the line: the two slices and the z weight
// are resolved once per sample.
template <bool Max>
void planesLineXZ(short* const* sl, int X, int n, int depth, short* out, int x, int y, int z,
                  int sx, int sy, int sz, int dx, int dy)
{
    fillStart<Max>(out, n);
    for (int k = 0; k < depth; ++k, x += sx, y += sy, z += sz) {
        int fz = weight(z);
        short const* s0 = sl[intPart(z)];
        short const* s1 = sl[intPart(z) + 1];
        int a = x, b = y;
        for (int i = 0; i < n; ++i, a += dx, b += dy) {
            int q = intPart(a) + intPart(b) * X;
            int v = triLinRow(s0 + q, s1 + q, X, weight(a), weight(b), fz);
            out[i] = (short)extreme<Max>(out[i], v);
        }
    }
}

// The dispatch by memory walk: rays that run mostly along x are walked whole;
// otherwise a whole line is taken per sample step, with the row or the slice
// pair hoisted when it is constant along the line.
template <bool Max>
void dispatchLine(short* const* sl, int X, int n, int depth, short* out, int x, int y, int z,
                  int sx, int sy, int sz, int dx, int dy, int dz)
{
    if (n < 1) return;
    if (abs(sx) > kRayMajorStep)
        raysLine<Max>(sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz);
    else if (abs(dy) < kFlatStep)
        planesLineXY<Max>(sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, dz);
    else if (abs(dz) < kFlatStep)
        planesLineXZ<Max>(sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, dy);
    else
        planesLine<Max>(sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz);
}

// Axis-snapped: each ray's start moves onto the next grid plane of axis M in
// the ray's direction, then a sample is one bilinear over the other two axes.
// f = ((c >> 3) & 0x7FFF) >> 4 is the start's fraction in 11 bits; g is f or
// f ^ 2047 by the direction test; the other axes move by (g * step) >> 11 and
// the plane index is b = (c + ((g * sm) >> 11) + 63) >> 18, then b + k or b - k.
template <bool Max, int M>
void snappedLine(short* const* sl, int X, int n, int depth, short* out, int x, int y, int z,
                 int sx, int sy, int sz, int dx, int dy, int dz)
{
    int s[3] = {sx, sy, sz};
    int sm = s[M];
    bool towardLow = M == 2 ? sz > 0 : sm < 1;
    for (int i = 0; i < n; ++i, x += dx, y += dy, z += dz) {
        int p[3] = {x, y, z};
        int c = p[M];
        int f = ((c >> 3) & 0x7FFF) >> 4;
        int g = towardLow ? f : f ^ 2047;
        for (int a = 0; a < 3; ++a)
            if (a != M) p[a] += (int)(((int64_t)g * s[a]) >> 11);
        int b = (int)(((int64_t)c + (((int64_t)g * sm) >> 11) + 63) >> kFracBits);
        int m = Max ? kRayMaxStart : kRayMinStart;
        for (int k = 0; k < depth; ++k) {
            int plane = sm > 0 ? b + k : b - k;
            int v;
            if (M == 0) {
                int fy = weight(p[1]), fz = weight(p[2]);
                int q = plane + intPart(p[1]) * X;
                short const* p0 = sl[intPart(p[2])] + q;
                short const* p1 = sl[intPart(p[2]) + 1] + q;
                v = lerp(lerp(p0[0], p0[X], fy), lerp(p1[0], p1[X], fy), fz);
            } else if (M == 1) {
                int fx = weight(p[0]), fz = weight(p[2]);
                int q = intPart(p[0]) + plane * X;
                short const* p0 = sl[intPart(p[2])] + q;
                short const* p1 = sl[intPart(p[2]) + 1] + q;
                v = lerp(lerp(p0[0], p0[1], fx), lerp(p1[0], p1[1], fx), fz);
            } else {
                int fx = weight(p[0]), fy = weight(p[1]);
                short const* p0 = sl[plane] + intPart(p[0]) + intPart(p[1]) * X;
                v = lerp(lerp(p0[0], p0[1], fx), lerp(p0[X], p0[X + 1], fx), fy);
            }
            m = extreme<Max>(m, v);
            for (int a = 0; a < 3; ++a)
                if (a != M) p[a] += s[a];
        }
        out[i] = (short)m;
    }
}

}  // namespace

// ---- the frame ----

void VX_MPR::CalcImageAvgTriLin(short* bounds, int n, float* zvec)
{
    int depth = 2 * n + 1;
    avgScale = 1.0f / (float)depth;
    int st[3], c[3], r[3];
    if (!fixedPointFrame(true, st, c, r)) return;
    int s[3];
    for (int a = 0; a < 3; ++a) {
        s[a] = (int)(zvec[a] * kOne);
        st[a] = stepAt(st[a], -n, s[a]);   // the ray is centred on the plane
    }
    int W = imageBox.dims[0], H = imageBox.dims[1];
    bool poll = !rotate && !noInterrupt;
    std::atomic<bool> interrupted{false};
#pragma omp parallel for schedule(static)
    for (int k = 0; k < kSlabBlocks; ++k) {
        if (poll && !interrupted.load(std::memory_order_relaxed))
            interrupted.store(multithread.InterruptRequest(12), std::memory_order_relaxed);
        if (interrupted.load(std::memory_order_relaxed)) continue;
        for (int j = H * k / kSlabBlocks; j < H * (k + 1) / kSlabBlocks; ++j) {
            int L = bounds[2 * j], R = bounds[2 * j + 1];
            if (R - L + 1 < 1) continue;
            int x = stepAt(stepAt(st[0], j, r[0]), L, c[0]);
            int y = stepAt(stepAt(st[1], j, r[1]), L, c[1]);
            int z = stepAt(stepAt(st[2], j, r[2]), L, c[2]);
            short* out = output + (size_t)j * W + L;
            if (slabMIP)
                CalcLineMIP(R - L + 1, depth, out, x, y, z, s[0], s[1], s[2], c[0], c[1], c[2]);
            else if (slabMin)
                CalcLineMin(R - L + 1, depth, out, x, y, z, s[0], s[1], s[2], c[0], c[1], c[2]);
            else
                CalcLine(R - L + 1, depth, out, x, y, z, s[0], s[1], s[2], c[0], c[1], c[2]);
        }
    }
}

// ---- line kernels ----

#define VX_LINE_ARGS n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz
#define VX_LINE_PARAMS                                                                             \
    int n, int depth, short *out, int x, int y, int z, int sx, int sy, int sz, int dx, int dy, int dz

void VX_MPR::CalcLine(VX_LINE_PARAMS)
{
    if (n < 1) return;
    if (slabMIP) return CalcLineMIP(VX_LINE_ARGS);
    if (slabMin) return CalcLineMin(VX_LINE_ARGS);
    if (slabAxis == 0)
        CalcLineX(VX_LINE_ARGS);
    else if (slabAxis == 1)
        CalcLineY(VX_LINE_ARGS);
    else
        CalcLineZ(VX_LINE_ARGS);
}

void VX_MPR::CalcLineX(VX_LINE_PARAMS)
{
    averageLine<0>(volData->slices, volBox.dims[0], avgScale, VX_LINE_ARGS);
}

void VX_MPR::CalcLineY(VX_LINE_PARAMS)
{
    averageLine<1>(volData->slices, volBox.dims[0], avgScale, VX_LINE_ARGS);
}

void VX_MPR::CalcLineYp4(VX_LINE_PARAMS)
{
    averageLine<1>(volData->slices, volBox.dims[0], avgScale, VX_LINE_ARGS);
}

void VX_MPR::CalcLineZ(VX_LINE_PARAMS)
{
    averageLine<2>(volData->slices, volBox.dims[0], avgScale, VX_LINE_ARGS);
}

void VX_MPR::CalcLineZMIP(VX_LINE_PARAMS)
{
    averageLine<2>(volData->slices, volBox.dims[0], avgScale, VX_LINE_ARGS);
}

void VX_MPR::CalcLineMIP(VX_LINE_PARAMS)
{
    dispatchLine<true>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMin(VX_LINE_PARAMS)
{
    dispatchLine<false>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMIPRays(VX_LINE_PARAMS)
{
    if (n >= 1) raysLine<true>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMinRays(VX_LINE_PARAMS)
{
    if (n >= 1) raysLine<false>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMIPLines(VX_LINE_PARAMS)
{
    if (n >= 1) planesLine<true>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMinLines(VX_LINE_PARAMS)
{
    if (n >= 1) planesLine<false>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMIPLinesXY(int n, int depth, short* out, int x, int y, int z, int sx, int sy,
                                int sz, int dx, int dz)
{
    if (n >= 1) planesLineXY<true>(volData->slices, volBox.dims[0], n, depth, out, x, y, z, sx, sy, sz, dx, dz);
}

void VX_MPR::CalcLineMinLinesXY(int n, int depth, short* out, int x, int y, int z, int sx, int sy,
                                int sz, int dx, int dz)
{
    if (n >= 1) planesLineXY<false>(volData->slices, volBox.dims[0], n, depth, out, x, y, z, sx, sy, sz, dx, dz);
}

void VX_MPR::CalcLineMIPLinesXZ(int n, int depth, short* out, int x, int y, int z, int sx, int sy,
                                int sz, int dx, int dy)
{
    if (n >= 1) planesLineXZ<true>(volData->slices, volBox.dims[0], n, depth, out, x, y, z, sx, sy, sz, dx, dy);
}

void VX_MPR::CalcLineMinLinesXZ(int n, int depth, short* out, int x, int y, int z, int sx, int sy,
                                int sz, int dx, int dy)
{
    if (n >= 1) planesLineXZ<false>(volData->slices, volBox.dims[0], n, depth, out, x, y, z, sx, sy, sz, dx, dy);
}

void VX_MPR::CalcLineMIPRaysX(VX_LINE_PARAMS)
{
    snappedLine<true, 0>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMIPRaysY(VX_LINE_PARAMS)
{
    snappedLine<true, 1>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMIPRaysZ(VX_LINE_PARAMS)
{
    snappedLine<true, 2>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMinRaysX(VX_LINE_PARAMS)
{
    snappedLine<false, 0>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMinRaysY(VX_LINE_PARAMS)
{
    snappedLine<false, 1>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMinRaysZ(VX_LINE_PARAMS)
{
    snappedLine<false, 2>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}
