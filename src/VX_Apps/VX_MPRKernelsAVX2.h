#ifndef VX_MPRKERNELSAVX2_H
#define VX_MPRKERNELSAVX2_H

// Private to the reformatter: AVX2 forms of the sampling rules of
// VX_MPRKernels.h, eight pixels at a time, bit for bit the scalar ones.
// The library is built for the base instruction set: every function that
// holds an AVX2 instruction carries VX_AVX2_FN and is reached only when
// VX_CPU_ID() reports VX_CPU_AVX2.

#include "VX_MPRKernelsSSE2.h"

#if defined(__SSE2__) && (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__)
#define VX_HAVE_AVX2 1
#include <immintrin.h>
#include <stdint.h>

#include "../VX_Types/VX_CPU.h"

#define VX_AVX2_FN __attribute__((target("avx2")))

namespace vx_mpr {

inline bool useAVX2()
{
    const int both = VX_CPU_SSE2 | VX_CPU_AVX2;
    return (VX_CPU_ID() & both) == both;
}

VX_AVX2_FN inline __m256i weights8(__m256i v)
{
    return _mm256_and_si256(_mm256_srai_epi32(v, 3), _mm256_set1_epi32(0x7FFF));
}

// Pairs (32767 - f, f) of 16-bit weights, f the weight of coordinate v.
VX_AVX2_FN inline __m256i pairWeights8(__m256i v)
{
    __m256i f = weights8(v);
    return _mm256_or_si256(_mm256_sub_epi32(_mm256_set1_epi32(32767), f), _mm256_slli_epi32(f, 16));
}

// Rule: a + (((b - a) * f) >> 15) == (a * (32767 - f) + b * f + a) >> 15 (see
// lerpPairs). `pairs` holds (a, b) as the 16-bit halves of each lane.
VX_AVX2_FN inline __m256i lerpPairs8(__m256i pairs, __m256i w)
{
    __m256i a = _mm256_srai_epi32(_mm256_slli_epi32(pairs, 16), 16);
    return _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(pairs, w), a), kWeightBits);
}

// The same on a and b held as 32-bit lanes within the 16-bit range.
VX_AVX2_FN inline __m256i lerp8(__m256i a, __m256i b, __m256i w)
{
    __m256i pairs = _mm256_blend_epi16(a, _mm256_slli_epi32(b, 16), 0xAA);
    return _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(pairs, w), a), kWeightBits);
}

// Row offsets iy * X for 0 <= iy, X <= 32767.
VX_AVX2_FN inline __m256i rowOffsets8(__m256i iy, int X) { return _mm256_madd_epi16(iy, _mm256_set1_epi32(X)); }

VX_AVX2_FN inline __m256i intParts8(__m256i v) { return _mm256_srai_epi32(v, kFracBits); }

// Lanes start + k * step for k = 0 to 7 (wrap-around).
VX_AVX2_FN inline __m256i ramp8(int start, int step)
{
    return _mm256_setr_epi32(start, stepAt(start, 1, step), stepAt(start, 2, step), stepAt(start, 3, step),
                             stepAt(start, 4, step), stepAt(start, 5, step), stepAt(start, 6, step),
                             stepAt(start, 7, step));
}

// The corners of eight cells, as Cells4: rows q and q + X of slices iz and iz + 1,
// each lane a voxel and its neighbour along x, read as load2 reads them. The
// loads are scalar: on the processors at hand a gather costs more per element.
struct Cells8 {
    __m256i s0r0, s0r1, s1r0, s1r1;
};

// Lane l from p[l] + d, as load2 reads it.
VX_AVX2_FN inline __m256i pairs8(short const* const* p, int d)
{
    __m128i lo = _mm_cvtsi32_si128(load2(p[0] + d));
    __m128i hi = _mm_cvtsi32_si128(load2(p[4] + d));
    lo = _mm_insert_epi32(lo, load2(p[1] + d), 1);
    hi = _mm_insert_epi32(hi, load2(p[5] + d), 1);
    lo = _mm_insert_epi32(lo, load2(p[2] + d), 2);
    hi = _mm_insert_epi32(hi, load2(p[6] + d), 2);
    lo = _mm_insert_epi32(lo, load2(p[3] + d), 3);
    hi = _mm_insert_epi32(hi, load2(p[7] + d), 3);
    return _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
}

VX_AVX2_FN inline Cells8 loadCells8(short* const* slices, int X, __m256i q, __m256i iz)
{
    alignas(32) int qa[8], za[8];
    _mm256_store_si256((__m256i*)qa, q);
    _mm256_store_si256((__m256i*)za, iz);
    short const* p0[8];
    short const* p1[8];
    for (int l = 0; l < 8; ++l) {
        p0[l] = slices[za[l]] + qa[l];
        p1[l] = slices[za[l] + 1] + qa[l];
    }
    return {pairs8(p0, 0), pairs8(p0, X), pairs8(p1, 0), pairs8(p1, X)};
}

// Trilinear of triLin at eight points in 18-bit fixed point.
VX_AVX2_FN inline __m256i triLin8(short* const* slices, int X, __m256i x, __m256i y, __m256i z)
{
    __m256i q = _mm256_add_epi32(intParts8(x), rowOffsets8(intParts8(y), X));
    Cells8 c = loadCells8(slices, X, q, intParts8(z));
    __m256i wx = pairWeights8(x), wy = pairWeights8(y);
    __m256i lo = lerp8(lerpPairs8(c.s0r0, wx), lerpPairs8(c.s0r1, wx), wy);
    __m256i hi = lerp8(lerpPairs8(c.s1r0, wx), lerpPairs8(c.s1r1, wx), wy);
    return lerp8(lo, hi, pairWeights8(z));
}

// Eight 32-bit lanes within the 16-bit range, narrowed to 16 bits.
VX_AVX2_FN inline __m128i narrow8(__m256i v)
{
    return _mm_packs_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
}

VX_AVX2_FN inline void store8(short* out, __m256i v) { _mm_storeu_si128((__m128i*)out, narrow8(v)); }

}  // namespace vx_mpr

#endif
#endif
