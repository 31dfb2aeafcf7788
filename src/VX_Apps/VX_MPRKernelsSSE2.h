#ifndef VX_MPRKERNELSSSE2_H
#define VX_MPRKERNELSSSE2_H

// Private to the reformatter: SSE2 forms of the sampling rules of
// VX_MPRKernels.h, four pixels at a time. Keep equal to the scalar rules:
// every result is bit for bit the scalar one.

#if defined(__SSE2__)
#include <emmintrin.h>
#include <string.h>

#include "VX_MPRKernels.h"

namespace vx_mpr {

// The vector forms read a row index times X through a 16-bit multiply: X and
// the row count must both stay within this.
constexpr int kMaxVectorX = 32767;

inline int load2(short const* p)
{
    int v;
    memcpy(&v, p, 4);   // p[0] in the low half, p[1] in the high half
    return v;
}

inline __m128i weights4(__m128i v) { return _mm_and_si128(_mm_srai_epi32(v, 3), _mm_set1_epi32(0x7FFF)); }

// Pairs (32767 - f, f) of 16-bit weights in each 32-bit lane.
inline __m128i pairWeights(__m128i f)
{
    return _mm_or_si128(_mm_sub_epi32(_mm_set1_epi32(32767), f), _mm_slli_epi32(f, 16));
}

// Rule: a + (((b - a) * f) >> 15) == (a * (32767 - f) + b * f + a) >> 15, since
// a * 32768 is a multiple of 2^15; the sum stays inside 32 bits for 16-bit a, b.
// `pairs` holds (a, b) as 16-bit halves of each lane.
inline __m128i lerpPairs(__m128i pairs, __m128i w)
{
    __m128i a = _mm_srai_epi32(_mm_slli_epi32(pairs, 16), 16);
    return _mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(pairs, w), a), kWeightBits);
}

// The same on a and b held as 32-bit lanes within the 16-bit range.
inline __m128i lerp4(__m128i a, __m128i b, __m128i w)
{
    __m128i pairs = _mm_or_si128(_mm_and_si128(a, _mm_set1_epi32(0xFFFF)), _mm_slli_epi32(b, 16));
    return _mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(pairs, w), a), kWeightBits);
}

// Row offsets iy * X for 0 <= iy, X <= 32767.
inline __m128i rowOffsets(__m128i iy, int X) { return _mm_madd_epi16(iy, _mm_set1_epi32(X)); }

// Four lanes from four scalars.
inline __m128i gather4(int a, int b, int c, int d) { return _mm_setr_epi32(a, b, c, d); }

// The corners of four cells: rows q and q + X of slices iz and iz + 1, each
// lane holding a voxel and its neighbour along x as one pair.
struct Cells4 {
    __m128i s0r0, s0r1, s1r0, s1r1;
};

inline Cells4 loadCells4(short* const* slices, int X, __m128i q, __m128i iz)
{
    alignas(16) int qa[4], za[4];
    _mm_store_si128((__m128i*)qa, q);
    _mm_store_si128((__m128i*)za, iz);
    int a0[4], b0[4], a1[4], b1[4];
    for (int l = 0; l < 4; ++l) {
        short const* p0 = slices[za[l]] + qa[l];
        short const* p1 = slices[za[l] + 1] + qa[l];
        a0[l] = load2(p0);
        b0[l] = load2(p0 + X);
        a1[l] = load2(p1);
        b1[l] = load2(p1 + X);
    }
    return {gather4(a0[0], a0[1], a0[2], a0[3]), gather4(b0[0], b0[1], b0[2], b0[3]),
            gather4(a1[0], a1[1], a1[2], a1[3]), gather4(b1[0], b1[1], b1[2], b1[3])};
}

// The bilinears over x, then y, of both slices of four cells.
inline void bilinearXY4(Cells4 const& c, __m128i wx, __m128i wy, __m128i* s0, __m128i* s1)
{
    *s0 = lerp4(lerpPairs(c.s0r0, wx), lerpPairs(c.s0r1, wx), wy);
    *s1 = lerp4(lerpPairs(c.s1r0, wx), lerpPairs(c.s1r1, wx), wy);
}

// Trilinear of triLin at four points. x, y, z hold 18-bit fixed point.
inline __m128i triLin4(short* const* slices, int X, __m128i x, __m128i y, __m128i z)
{
    __m128i q = _mm_add_epi32(_mm_srai_epi32(x, kFracBits), rowOffsets(_mm_srai_epi32(y, kFracBits), X));
    Cells4 c = loadCells4(slices, X, q, _mm_srai_epi32(z, kFracBits));
    __m128i lo, hi;
    bilinearXY4(c, pairWeights(weights4(x)), pairWeights(weights4(y)), &lo, &hi);
    return lerp4(lo, hi, pairWeights(weights4(z)));
}

// Lanes start, start + step, start + 2 step, start + 3 step (wrap-around).
inline __m128i ramp4(int start, int step)
{
    return _mm_setr_epi32(start, stepAt(start, 1, step), stepAt(start, 2, step), stepAt(start, 3, step));
}

// Four 16-bit values: already packed, or narrowed from 32-bit lanes in range.
inline void storePacked4(short* out, __m128i v16) { _mm_storel_epi64((__m128i*)out, v16); }
inline void store4(short* out, __m128i v) { storePacked4(out, _mm_packs_epi32(v, v)); }

inline __m128i load4(short const* p)
{
    return _mm_loadl_epi64((__m128i const*)p);
}

}  // namespace vx_mpr

#endif
#endif
