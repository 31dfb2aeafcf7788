#include <atomic>
#include <stdlib.h>
#include <math.h>
#include <stdint.h>
#include <string.h>

#include "VX_MPR.h"
#include "VX_MPRKernels.h"
#include "VX_MPRKernelsSSE2.h"
#include "VX_MPRKernelsAVX2.h"
#include "../VX_Types/VX_CPU.h"

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
inline short averagePixel(int64_t lo, int64_t hi, int f, float avgScale)
{
    int64_t v = lo + ((f * (hi - lo)) >> kWeightBits);
    return (short)(int)((float)v * avgScale);
}

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
        out[i] = averagePixel(lo, hi, weight(start), avgScale);
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
// extreme kept in out. Hold names a coordinate taken as constant along the line
// (1: y, the row and its weight resolved once per sample; 2: z, the slice pair;
// -1: none), as the dispatcher chooses when that step is in practice zero.
template <bool Max, int Hold>
void planesLine(short* const* sl, int X, int n, int depth, short* out, int x, int y, int z, int sx,
                int sy, int sz, int dx, int dy, int dz)
{
    fillStart<Max>(out, n);
    for (int k = 0; k < depth; ++k, x += sx, y += sy, z += sz) {
        int a = x, b = y, c = z;
        for (int i = 0; i < n; ++i) {
            out[i] = (short)extreme<Max>(out[i], triLin(sl, X, a, b, c));
            a += dx;
            if (Hold != 1) b += dy;
            if (Hold != 2) c += dz;
        }
    }
}

#if defined(__SSE2__)
// ---- SSE2 twins: four pixels (or rays) at a time, the tail by the rule ----

// The SIMD average keeps its sums in 32-bit lanes.
constexpr int kMaxVectorDepth = 65535;

inline __m128i maxOrMin32(__m128i a, __m128i b, bool max)
{
    __m128i gt = _mm_cmpgt_epi32(a, b);
    if (!max) gt = _mm_xor_si128(gt, _mm_set1_epi32(-1));   // take b where a <= b
    return _mm_or_si128(_mm_and_si128(gt, a), _mm_andnot_si128(gt, b));
}

// Keep equal to averageLine<Axis>.
template <int Axis>
void averageLineSSE2(short* const* sl, int X, float avgScale, int n, int depth, short* out, int x,
                     int y, int z, int sx, int sy, int sz, int dx, int dy, int dz)
{
    __m128i sa = _mm_set1_epi32(sx), sb = _mm_set1_epi32(sy), sc = _mm_set1_epi32(sz);
    __m128i one = _mm_set1_epi32(1);
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        __m128i a = ramp4(stepAt(x, i, dx), dx), b = ramp4(stepAt(y, i, dy), dy);
        __m128i zc = ramp4(stepAt(z, i, dz), dz);
        __m128i axisCoord = Axis == 0 ? a : Axis == 1 ? b : zc;
        __m128i plane = _mm_srai_epi32(axisCoord, kFracBits);
        __m128i lo = _mm_setzero_si128(), hi = _mm_setzero_si128();
        for (int k = 0; k < depth; ++k) {
            __m128i lo1, hi1;
            if (Axis == 2) {
                // Planes are slices: bilinear over x, then y, in slices plane and plane + 1.
                __m128i q = _mm_add_epi32(_mm_srai_epi32(a, kFracBits), rowOffsets(_mm_srai_epi32(b, kFracBits), X));
                bilinearXY4(loadCells4(sl, X, q, plane), pairWeights(weights4(a)), pairWeights(weights4(b)),
                            &lo1, &hi1);
            } else if (Axis == 1) {
                // Planes are rows: bilinear over x, then z, in rows plane and plane + 1.
                Cells4 c = loadCells4(sl, X, _mm_add_epi32(_mm_srai_epi32(a, kFracBits), rowOffsets(plane, X)),
                                      _mm_srai_epi32(zc, kFracBits));
                __m128i wx = pairWeights(weights4(a)), wz = pairWeights(weights4(zc));
                lo1 = lerp4(lerpPairs(c.s0r0, wx), lerpPairs(c.s1r0, wx), wz);
                hi1 = lerp4(lerpPairs(c.s0r1, wx), lerpPairs(c.s1r1, wx), wz);
            } else {
                // Planes are columns: bilinear over y, then z. Each pair holds this
                // plane (low half) and the next (high half); regroup into pairs along y.
                Cells4 c = loadCells4(sl, X, _mm_add_epi32(plane, rowOffsets(_mm_srai_epi32(b, kFracBits), X)),
                                      _mm_srai_epi32(zc, kFracBits));
                __m128i low = _mm_set1_epi32(0xFFFF), high = _mm_set1_epi32((int)0xFFFF0000u);
                __m128i wy = pairWeights(weights4(b)), wz = pairWeights(weights4(zc));
                __m128i loZ0 = _mm_or_si128(_mm_and_si128(c.s0r0, low), _mm_slli_epi32(c.s0r1, 16));
                __m128i loZ1 = _mm_or_si128(_mm_and_si128(c.s1r0, low), _mm_slli_epi32(c.s1r1, 16));
                __m128i hiZ0 = _mm_or_si128(_mm_srli_epi32(c.s0r0, 16), _mm_and_si128(c.s0r1, high));
                __m128i hiZ1 = _mm_or_si128(_mm_srli_epi32(c.s1r0, 16), _mm_and_si128(c.s1r1, high));
                lo1 = lerp4(lerpPairs(loZ0, wy), lerpPairs(loZ1, wy), wz);
                hi1 = lerp4(lerpPairs(hiZ0, wy), lerpPairs(hiZ1, wy), wz);
            }
            lo = _mm_add_epi32(lo, lo1);
            hi = _mm_add_epi32(hi, hi1);
            a = _mm_add_epi32(a, sa);
            b = _mm_add_epi32(b, sb);
            zc = _mm_add_epi32(zc, sc);
            plane = _mm_add_epi32(plane, one);
        }
        alignas(16) int los[4], his[4], fs[4];
        _mm_store_si128((__m128i*)los, lo);
        _mm_store_si128((__m128i*)his, hi);
        _mm_store_si128((__m128i*)fs, weights4(axisCoord));
        for (int l = 0; l < 4; ++l) out[i + l] = averagePixel(los[l], his[l], fs[l], avgScale);
    }
    averageLine<Axis>(sl, X, avgScale, n - i, depth, out + i, stepAt(x, i, dx), stepAt(y, i, dy),
                      stepAt(z, i, dz), sx, sy, sz, dx, dy, dz);
}

// Keep equal to raysLine<Max>; depth >= 1.
template <bool Max>
void raysLineSSE2(short* const* sl, int X, int n, int depth, short* out, int x, int y, int z, int sx,
                  int sy, int sz, int dx, int dy, int dz)
{
    __m128i sa = _mm_set1_epi32(sx), sb = _mm_set1_epi32(sy), sc = _mm_set1_epi32(sz);
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        __m128i a = ramp4(stepAt(x, i, dx), dx), b = ramp4(stepAt(y, i, dy), dy);
        __m128i c = ramp4(stepAt(z, i, dz), dz);
        __m128i m = _mm_set1_epi32(Max ? kRayMaxStart : kRayMinStart);
        for (int k = 0; k < depth; ++k) {
            m = maxOrMin32(m, triLin4(sl, X, a, b, c), Max);
            a = _mm_add_epi32(a, sa);
            b = _mm_add_epi32(b, sb);
            c = _mm_add_epi32(c, sc);
        }
        store4(out + i, m);
    }
    raysLine<Max>(sl, X, n - i, depth, out + i, stepAt(x, i, dx), stepAt(y, i, dy), stepAt(z, i, dz),
                  sx, sy, sz, dx, dy, dz);
}

inline __m128i extreme16(__m128i a, __m128i b, bool max)
{
    return max ? _mm_max_epi16(a, b) : _mm_min_epi16(a, b);
}

// Keep equal to planesLine<Max, Hold>.
template <bool Max, int Hold>
void planesLineSSE2(short* const* sl, int X, int n, int depth, short* out, int x, int y, int z,
                    int sx, int sy, int sz, int dx, int dy, int dz)
{
    fillStart<Max>(out, n);
    int tail = n & ~3;
    __m128i step4[3] = {_mm_set1_epi32(4 * dx), _mm_set1_epi32(Hold == 1 ? 0 : 4 * dy),
                        _mm_set1_epi32(Hold == 2 ? 0 : 4 * dz)};
    for (int k = 0; k < depth; ++k, x += sx, y += sy, z += sz) {
        __m128i a = ramp4(x, dx);
        __m128i b = Hold == 1 ? _mm_set1_epi32(y) : ramp4(y, dy);
        __m128i c = Hold == 2 ? _mm_set1_epi32(z) : ramp4(z, dz);
        for (int i = 0; i < tail; i += 4) {
            __m128i v = triLin4(sl, X, a, b, c);
            storePacked4(out + i, extreme16(load4(out + i), _mm_packs_epi32(v, v), Max));
            a = _mm_add_epi32(a, step4[0]);
            b = _mm_add_epi32(b, step4[1]);
            c = _mm_add_epi32(c, step4[2]);
        }
        int ta = stepAt(x, tail, dx);
        int tb = Hold == 1 ? y : stepAt(y, tail, dy);
        int tc = Hold == 2 ? z : stepAt(z, tail, dz);
        for (int i = tail; i < n; ++i) {
            out[i] = (short)extreme<Max>(out[i], triLin(sl, X, ta, tb, tc));
            ta += dx;
            if (Hold != 1) tb += dy;
            if (Hold != 2) tc += dz;
        }
    }
}
#endif

#if defined(VX_HAVE_AVX2)
// ---- AVX2 twins: eight pixels (or rays) at a time, the rest by the SSE2 forms ----

// Keep equal to averageLine<Axis>; depth <= kMaxVectorDepth.
template <int Axis>
VX_AVX2_FN void averageLineAVX2(short* const* sl, int X, float avgScale, int n, int depth,
                                short* out, int x, int y, int z, int sx, int sy, int sz, int dx, int dy, int dz)
{
    __m256i sa = _mm256_set1_epi32(sx), sb = _mm256_set1_epi32(sy), sc = _mm256_set1_epi32(sz);
    __m256i one = _mm256_set1_epi32(1);
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        __m256i a = ramp8(stepAt(x, i, dx), dx), b = ramp8(stepAt(y, i, dy), dy);
        __m256i c = ramp8(stepAt(z, i, dz), dz);
        __m256i axisCoord = Axis == 0 ? a : Axis == 1 ? b : c;
        __m256i plane = intParts8(axisCoord);
        __m256i lo = _mm256_setzero_si256(), hi = _mm256_setzero_si256();
        for (int k = 0; k < depth; ++k) {
            __m256i lo1, hi1;
            if (Axis == 2) {
                // Planes are slices: bilinear over x, then y, in slices plane and plane + 1.
                Cells8 cc = loadCells8(sl, X, _mm256_add_epi32(intParts8(a), rowOffsets8(intParts8(b), X)), plane);
                __m256i wx = pairWeights8(a), wy = pairWeights8(b);
                lo1 = lerp8(lerpPairs8(cc.s0r0, wx), lerpPairs8(cc.s0r1, wx), wy);
                hi1 = lerp8(lerpPairs8(cc.s1r0, wx), lerpPairs8(cc.s1r1, wx), wy);
            } else if (Axis == 1) {
                // Planes are rows: bilinear over x, then z, in rows plane and plane + 1.
                Cells8 cc = loadCells8(sl, X, _mm256_add_epi32(intParts8(a), rowOffsets8(plane, X)), intParts8(c));
                __m256i wx = pairWeights8(a), wz = pairWeights8(c);
                lo1 = lerp8(lerpPairs8(cc.s0r0, wx), lerpPairs8(cc.s1r0, wx), wz);
                hi1 = lerp8(lerpPairs8(cc.s0r1, wx), lerpPairs8(cc.s1r1, wx), wz);
            } else {
                // Planes are columns: bilinear over y, then z. Each pair holds this
                // plane (low half) and the next (high half); regroup into pairs along y.
                Cells8 cc = loadCells8(sl, X, _mm256_add_epi32(plane, rowOffsets8(intParts8(b), X)), intParts8(c));
                __m256i wy = pairWeights8(b), wz = pairWeights8(c);
                __m256i loZ0 = _mm256_blend_epi16(cc.s0r0, _mm256_slli_epi32(cc.s0r1, 16), 0xAA);
                __m256i loZ1 = _mm256_blend_epi16(cc.s1r0, _mm256_slli_epi32(cc.s1r1, 16), 0xAA);
                __m256i hiZ0 = _mm256_blend_epi16(_mm256_srli_epi32(cc.s0r0, 16), cc.s0r1, 0xAA);
                __m256i hiZ1 = _mm256_blend_epi16(_mm256_srli_epi32(cc.s1r0, 16), cc.s1r1, 0xAA);
                lo1 = lerp8(lerpPairs8(loZ0, wy), lerpPairs8(loZ1, wy), wz);
                hi1 = lerp8(lerpPairs8(hiZ0, wy), lerpPairs8(hiZ1, wy), wz);
            }
            lo = _mm256_add_epi32(lo, lo1);
            hi = _mm256_add_epi32(hi, hi1);
            a = _mm256_add_epi32(a, sa);
            b = _mm256_add_epi32(b, sb);
            c = _mm256_add_epi32(c, sc);
            plane = _mm256_add_epi32(plane, one);
        }
        alignas(32) int los[8], his[8], fs[8];
        _mm256_store_si256((__m256i*)los, lo);
        _mm256_store_si256((__m256i*)his, hi);
        _mm256_store_si256((__m256i*)fs, weights8(axisCoord));
        for (int l = 0; l < 8; ++l) out[i + l] = averagePixel(los[l], his[l], fs[l], avgScale);
    }
    averageLineSSE2<Axis>(sl, X, avgScale, n - i, depth, out + i, stepAt(x, i, dx), stepAt(y, i, dy),
                          stepAt(z, i, dz), sx, sy, sz, dx, dy, dz);
}

template <bool Max>
VX_AVX2_FN inline __m256i extreme8(__m256i a, __m256i b)
{
    return Max ? _mm256_max_epi32(a, b) : _mm256_min_epi32(a, b);
}

// Keep equal to raysLine<Max>; depth >= 1.
template <bool Max>
VX_AVX2_FN void raysLineAVX2(short* const* sl, int X, int n, int depth, short* out, int x,
                             int y, int z, int sx, int sy, int sz, int dx, int dy, int dz)
{
    __m256i sa = _mm256_set1_epi32(sx), sb = _mm256_set1_epi32(sy), sc = _mm256_set1_epi32(sz);
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        __m256i a = ramp8(stepAt(x, i, dx), dx), b = ramp8(stepAt(y, i, dy), dy);
        __m256i c = ramp8(stepAt(z, i, dz), dz);
        __m256i m = _mm256_set1_epi32(Max ? kRayMaxStart : kRayMinStart);
        for (int k = 0; k < depth; ++k) {
            m = extreme8<Max>(m, triLin8(sl, X, a, b, c));
            a = _mm256_add_epi32(a, sa);
            b = _mm256_add_epi32(b, sb);
            c = _mm256_add_epi32(c, sc);
        }
        store8(out + i, m);
    }
    raysLineSSE2<Max>(sl, X, n - i, depth, out + i, stepAt(x, i, dx), stepAt(y, i, dy), stepAt(z, i, dz),
                      sx, sy, sz, dx, dy, dz);
}

// Keep equal to planesLine<Max, Hold>.
template <bool Max, int Hold>
VX_AVX2_FN void planesLineAVX2(short* const* sl, int X, int n, int depth, short* out, int x,
                               int y, int z, int sx, int sy, int sz, int dx, int dy, int dz)
{
    fillStart<Max>(out, n);
    int tail = n & ~7;
    __m256i step8[3] = {_mm256_set1_epi32(8 * dx), _mm256_set1_epi32(Hold == 1 ? 0 : 8 * dy),
                        _mm256_set1_epi32(Hold == 2 ? 0 : 8 * dz)};
    for (int k = 0; k < depth; ++k, x += sx, y += sy, z += sz) {
        __m256i a = ramp8(x, dx);
        __m256i b = Hold == 1 ? _mm256_set1_epi32(y) : ramp8(y, dy);
        __m256i c = Hold == 2 ? _mm256_set1_epi32(z) : ramp8(z, dz);
        for (int i = 0; i < tail; i += 8) {
            __m128i v = narrow8(triLin8(sl, X, a, b, c));
            __m128i o = _mm_loadu_si128((__m128i const*)(out + i));
            _mm_storeu_si128((__m128i*)(out + i), Max ? _mm_max_epi16(o, v) : _mm_min_epi16(o, v));
            a = _mm256_add_epi32(a, step8[0]);
            b = _mm256_add_epi32(b, step8[1]);
            c = _mm256_add_epi32(c, step8[2]);
        }
        int ta = stepAt(x, tail, dx);
        int tb = Hold == 1 ? y : stepAt(y, tail, dy);
        int tc = Hold == 2 ? z : stepAt(z, tail, dz);
        for (int i = tail; i < n; ++i) {
            out[i] = (short)extreme<Max>(out[i], triLin(sl, X, ta, tb, tc));
            ta += dx;
            if (Hold != 1) tb += dy;
            if (Hold != 2) tc += dz;
        }
    }
}
#endif

// The form a line takes: the scalar rule, four lanes or eight.
enum Path { kScalar, kSSE2, kAVX2 };

// The vector forms index rows through a 16-bit multiply, so X and Y must fit.
inline Path linePath(int X, int Y, bool vectorable)
{
#if defined(__SSE2__)
    if (!vectorable || !(VX_CPU_ID() & VX_CPU_SSE2) || X > kMaxVectorX || Y > kMaxVectorX) return kScalar;
#if defined(VX_HAVE_AVX2)
    if (useAVX2()) return kAVX2;
#endif
    return kSSE2;
#else
    (void)X, (void)Y, (void)vectorable;
    return kScalar;
#endif
}

#if defined(VX_HAVE_AVX2)
#define VX_AVX2_CASE(call) \
    if (path == kAVX2) return call;
#else
#define VX_AVX2_CASE(call)
#endif
#if defined(__SSE2__)
#define VX_SSE2_CASE(call) \
    if (path == kSSE2) return call;
#else
#define VX_SSE2_CASE(call)
#endif

// The average of one line along Axis, by the widest form that applies.
template <int Axis>
void averageDispatch(short* const* sl, int X, int Y, float avgScale, int n, int depth, short* out, int x,
                     int y, int z, int sx, int sy, int sz, int dx, int dy, int dz)
{
    Path path = linePath(X, Y, depth <= kMaxVectorDepth);
    VX_AVX2_CASE(averageLineAVX2<Axis>(sl, X, avgScale, n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz))
    VX_SSE2_CASE(averageLineSSE2<Axis>(sl, X, avgScale, n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz))
    averageLine<Axis>(sl, X, avgScale, n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz);
}

// Each kernel family by the widest form that applies (depth >= 1 for the vectors).
template <bool Max>
void rays(Path path, short* const* sl, int X, int n, int depth, short* out, int x, int y, int z,
          int sx, int sy, int sz, int dx, int dy, int dz)
{
    VX_AVX2_CASE(raysLineAVX2<Max>(sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz))
    VX_SSE2_CASE(raysLineSSE2<Max>(sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz))
    raysLine<Max>(sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz);
}

template <bool Max, int Hold>
void planes(Path path, short* const* sl, int X, int n, int depth, short* out, int x, int y, int z,
            int sx, int sy, int sz, int dx, int dy, int dz)
{
    VX_AVX2_CASE((planesLineAVX2<Max, Hold>(sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz)))
    VX_SSE2_CASE((planesLineSSE2<Max, Hold>(sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz)))
    planesLine<Max, Hold>(sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz);
}

// The dispatch by memory walk: rays that run mostly along x are walked whole;
// otherwise a whole line is taken per sample step, with the row or the slice
// pair hoisted when it is constant along the line.
template <bool Max>
void dispatchLine(short* const* sl, int X, int Y, int n, int depth, short* out, int x, int y, int z,
                  int sx, int sy, int sz, int dx, int dy, int dz)
{
    if (n < 1) return;
    Path path = linePath(X, Y, depth >= 1);
    if (abs(sx) > kRayMajorStep)
        rays<Max>(path, sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz);
    else if (abs(dy) < kFlatStep)
        planes<Max, 1>(path, sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, 0, dz);
    else if (abs(dz) < kFlatStep)
        planes<Max, 2>(path, sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, dy, 0);
    else
        planes<Max, -1>(path, sl, X, n, depth, out, x, y, z, sx, sy, sz, dx, dy, dz);
}

// Axis-snapped: each ray's start moves onto the next grid plane of axis M in
// the ray's direction, then a sample is one bilinear over the other two axes.
// f = ((c >> 3) & 0x7FFF) >> 4 is the start's fraction in 11 bits; g is f or
// f ^ 2047 by the ray's direction (g = f when sm < 1); the other axes move by (g * step) >> 11 and
// the plane index is b = (c + ((g * sm) >> 11) + 63) >> 18, then b + k or b - k.
template <bool Max, int M>
void snappedLine(short* const* sl, int X, int n, int depth, short* out, int x, int y, int z,
                 int sx, int sy, int sz, int dx, int dy, int dz)
{
    int s[3] = {sx, sy, sz};
    int sm = s[M];
    bool towardLow = sm < 1;
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
        s[a] = toFixed(zvec[a]);
        st[a] = stepAt(st[a], -n, s[a]);   // the ray is centred on the plane
    }
    int W = imageBox.dims[0], H = imageBox.dims[1];
    GridLimits lim(volBox.dims, 1);
    int planeAxis = slabMIP || slabMin ? -1 : slabAxis;
    bool poll = !rotate && !noInterrupt;
    std::atomic<bool> interrupted{false};
#pragma omp parallel for schedule(static)
    for (int k = 0; k < kSlabBlocks; ++k) {
        if (poll && !interrupted.load(std::memory_order_relaxed))
            interrupted.store(multithread.InterruptRequest(12), std::memory_order_relaxed);
        if (interrupted.load(std::memory_order_relaxed)) continue;
        for (int j = H * k / kSlabBlocks; j < H * (k + 1) / kSlabBlocks; ++j) {
            int L, R, q[3];
            if (!rowSpan(bounds, j, st, c, r, s, depth, lim, planeAxis, &L, &R, q)) continue;
            // CalcLine hands over to the maximum or the minimum when they are set.
            CalcLine(R - L + 1, depth, output + (size_t)j * W + L, q[0], q[1], q[2], s[0], s[1], s[2],
                     c[0], c[1], c[2]);
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
    averageDispatch<0>(volData->slices, volBox.dims[0], volBox.dims[1], avgScale, VX_LINE_ARGS);
}

void VX_MPR::CalcLineY(VX_LINE_PARAMS)
{
    averageDispatch<1>(volData->slices, volBox.dims[0], volBox.dims[1], avgScale, VX_LINE_ARGS);
}

void VX_MPR::CalcLineYp4(VX_LINE_PARAMS)
{
    averageDispatch<1>(volData->slices, volBox.dims[0], volBox.dims[1], avgScale, VX_LINE_ARGS);
}

void VX_MPR::CalcLineZ(VX_LINE_PARAMS)
{
    averageDispatch<2>(volData->slices, volBox.dims[0], volBox.dims[1], avgScale, VX_LINE_ARGS);
}

void VX_MPR::CalcLineZMIP(VX_LINE_PARAMS)
{
    averageDispatch<2>(volData->slices, volBox.dims[0], volBox.dims[1], avgScale, VX_LINE_ARGS);
}

void VX_MPR::CalcLineMIP(VX_LINE_PARAMS)
{
    dispatchLine<true>(volData->slices, volBox.dims[0], volBox.dims[1], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMin(VX_LINE_PARAMS)
{
    dispatchLine<false>(volData->slices, volBox.dims[0], volBox.dims[1], VX_LINE_ARGS);
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
    if (n >= 1) planesLine<true, -1>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMinLines(VX_LINE_PARAMS)
{
    if (n >= 1) planesLine<false, -1>(volData->slices, volBox.dims[0], VX_LINE_ARGS);
}

void VX_MPR::CalcLineMIPLinesXY(int n, int depth, short* out, int x, int y, int z, int sx, int sy,
                                int sz, int dx, int dz)
{
    if (n >= 1) planesLine<true, 1>(volData->slices, volBox.dims[0], n, depth, out, x, y, z, sx, sy, sz, dx, 0, dz);
}

void VX_MPR::CalcLineMinLinesXY(int n, int depth, short* out, int x, int y, int z, int sx, int sy,
                                int sz, int dx, int dz)
{
    if (n >= 1) planesLine<false, 1>(volData->slices, volBox.dims[0], n, depth, out, x, y, z, sx, sy, sz, dx, 0, dz);
}

void VX_MPR::CalcLineMIPLinesXZ(int n, int depth, short* out, int x, int y, int z, int sx, int sy,
                                int sz, int dx, int dy)
{
    if (n >= 1) planesLine<true, 2>(volData->slices, volBox.dims[0], n, depth, out, x, y, z, sx, sy, sz, dx, dy, 0);
}

void VX_MPR::CalcLineMinLinesXZ(int n, int depth, short* out, int x, int y, int z, int sx, int sy,
                                int sz, int dx, int dy)
{
    if (n >= 1) planesLine<false, 2>(volData->slices, volBox.dims[0], n, depth, out, x, y, z, sx, sy, sz, dx, dy, 0);
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
