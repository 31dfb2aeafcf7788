#include "VX_ShearZoom.h"

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "../VX_Apps/VX_ClipBounds.h"
#include "../VX_Types/VX_CPU.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#include <tmmintrin.h>
#define VX_FORCE_INLINE inline __attribute__((always_inline))
#define VX_SSSE3 __attribute__((target("ssse3")))
#endif

// A scalar twin states its rule one pixel at a time: the compiler is kept from
// vectorising it, so that it stays the plain rule the vector forms are
// measured against.
#if defined(__clang__)
#define VX_SCALAR_TWIN
#define VX_NO_VECTORIZE_LOOP _Pragma("clang loop vectorize(disable) interleave(disable)")
#elif defined(__GNUC__)
#define VX_SCALAR_TWIN __attribute__((optimize("no-tree-vectorize")))
#define VX_NO_VECTORIZE_LOOP
#else
#define VX_SCALAR_TWIN
#define VX_NO_VECTORIZE_LOOP
#endif

namespace {

// Source coordinates are 14.18 fixed point: pixel u >> 18, fraction below.
constexpr int kFixBits = 18;
constexpr double kFixScale = 262144.0;   // 1 << kFixBits
constexpr int kBandRows = 32;            // rows per band of the parallel warps
constexpr long long kBandStride = 9973;  // prime that scatters the bands
constexpr int kMinVectorRun = 9;         // shorter runs are all scalar
constexpr int kScalarTail = 5;           // pixels at the end of a run done by the scalar rule
constexpr int kStackRows = 4096;         // rows whose clip pairs fit on the stack

typedef unsigned char byte;

// Row stride in bytes: the raster's lineBytes, else packed pixels.
inline int strideOf(VX_Raster const* r, int pixelBytes)
{
    return r->lineBytes != 0 ? r->lineBytes : pixelBytes * r->width;
}

// Truncation to a 32-bit integer, held inside its range.
inline int truncFix(float f)
{
    double v = (double)f * kFixScale;
    if (v >= 2147483647.0) return 2147483647;
    if (!(v > -2147483648.0)) return (int)-2147483647 - 1;
    return (int)v;
}

// a + b * s with 32-bit wrap-around, as one add per pixel would give.
inline int stepAt(int a, int s, int b)
{
    return (int)((uint32_t)a + (uint32_t)s * (uint32_t)b);
}

// The 14.18 walk: origin (the image of destination pixel centre (0.5, 0.5)
// less 0.5 on both axes) and the steps along destination x and y.
struct Walk {
    int ox, oy;     // source position of destination pixel (0, 0)
    int dxu, dxv;   // per destination pixel
    int dyu, dyv;   // per destination row

    explicit Walk(VX_Mat const& m)
    {
        VX_3Vec o = VX_3Vec(0.5f, 0.5f, 0.0f, 0.0f) * m - VX_3Vec(0.5f, 0.5f, 0.5f, 0.0f);
        VX_3Vec dx(1.0f, 0.0f, 0.0f), dy(0.0f, 1.0f, 0.0f);
        dx.LinearTransform(m);
        dy.LinearTransform(m);
        ox = truncFix(o.x);
        oy = truncFix(o.y);
        dxu = truncFix(dx.x);
        dxv = truncFix(dx.y);
        dyu = truncFix(dy.x);
        dyv = truncFix(dy.y);
    }
    int U(int x, int y) const { return stepAt(stepAt(ox, y, dyu), x, dxu); }
    int V(int x, int y) const { return stepAt(stepAt(oy, y, dyv), x, dxv); }
};

// Pairs (first, last) per destination row, on the stack unless the image is
// very tall.
class RowBounds {
public:
    explicit RowBounds(int H)
    {
        if (H > kStackRows) heap.resize((size_t)2 * H);
        p = H > kStackRows ? heap.data() : local;
    }
    RowBounds(RowBounds const&) = delete;
    RowBounds& operator=(RowBounds const&) = delete;
    short* p;

private:
    short local[2 * kStackRows];
    std::vector<short> heap;
};

// Clips the rows of a W x H destination to where the source lies inside the
// four half-planes low (-1, 0, 0, lo), (0, -1, 0, lo) and high
// (1, 0, 0, -hiX), (0, 1, 0, -hiY) of source coordinates, each carried to the
// destination by m.Inv(); the first plane resets the rows.
void clipToSource(short* bounds, int W, int H, VX_Mat const& m, float lo, float hiX, float hiY)
{
    VX_3Vec planes[4] = {VX_3Vec(-1.0f, 0.0f, 0.0f, lo), VX_3Vec(1.0f, 0.0f, 0.0f, -hiX),
                         VX_3Vec(0.0f, -1.0f, 0.0f, lo), VX_3Vec(0.0f, 1.0f, 0.0f, -hiY)};
    VX_Mat minv = m.Inv();
    for (int i = 0; i < 4; ++i) {
        VX_3Vec p = planes[i].PlaneTransform(minv);
        VX_ClipBounds(bounds, W, H, (float*)p, i == 0);
    }
}

// Row guard: drops a row's end pixels whose source cell (u >> 18, v >> 18)
// lies outside 0..maxX, 0..maxY. The clipping rule keeps reads inside the
// source except in a few rounding corners (a vertical edge within half a pixel
// of the destination's first column) and for degenerate matrices; with both
// ends inside, every pixel between is inside, since the walk is linear and,
// evaluated in 64 bits, does not wrap. Rows of an ordinary warp are unchanged.
void guardRows(short* bounds, int H, Walk const& wk, int maxX, int maxY)
{
    auto inside = [&](int x, int y) {
        long long u = wk.ox + (long long)y * wk.dyu + (long long)x * wk.dxu;
        long long v = wk.oy + (long long)y * wk.dyv + (long long)x * wk.dxv;
        return u >= 0 && v >= 0 && (u >> 18) <= maxX && (v >> 18) <= maxY;
    };
    for (int y = 0; y < H; ++y) {
        short& first = bounds[2 * y];
        short& last = bounds[2 * y + 1];
        while (first <= last && !inside(first, y)) ++first;
        while (last >= first && !inside(last, y)) --last;
    }
}

// The bilinear margin e: reads stay within [e, size - e] of the source, and
// the guard keeps every cell's right and lower neighbours inside too.
void clipBilinear(short* bounds, int W, int H, VX_Mat const& m, int w, int h, double e)
{
    clipToSource(bounds, W, H, m, (float)e, (float)(w - e), (float)(h - e));
    guardRows(bounds, H, Walk(m), w - 2, h - 2);
}

// ---- RGBA bilinear -------------------------------------------------------

// kOut 4: bytes of elements 0..3; kOut 3: bytes of elements 1..3.
template <int kOut>
struct RGBAOut {
    static constexpr int kFirst = 4 - kOut;
};

// The source pixel (u >> 18, v >> 18), four 16-bit elements.
inline byte const* rgbaCell(byte const* src, int srcLine, int u, int v)
{
    return src + (ptrdiff_t)(v >> kFixBits) * srcLine + (ptrdiff_t)(u >> kFixBits) * 8;
}

// Rule: pixel (u >> 18, v >> 18) and its right and lower neighbours;
// fx = (u >> 3) & 0x7FFF, fy likewise; per element a = p00 + (((p10 - p00) * fx) >> 15),
// b = p01 + (((p11 - p01) * fx) >> 15), byte = (a + (((b - a) * fy) >> 15)) >> 8.
template <int kOut>
inline void linRGBAPixel(byte const* src, int srcLine, int u, int v, byte* out)
{
    byte const* r0 = rgbaCell(src, srcLine, u, v);
    uint16_t p0[8], p1[8];
    memcpy(p0, r0, 16);
    memcpy(p1, r0 + srcLine, 16);
    int fx = (u >> 3) & 0x7FFF, fy = (v >> 3) & 0x7FFF;
    for (int e = RGBAOut<kOut>::kFirst; e < 4; ++e) {
        int a = p0[e] + (((p0[e + 4] - p0[e]) * fx) >> 15);
        int b = p1[e] + (((p1[e + 4] - p1[e]) * fx) >> 15);
        out[e - RGBAOut<kOut>::kFirst] = (byte)((a + (((b - a) * fy) >> 15)) >> 8);
    }
}

// The scalar twin: n pixels of the rule from (u, v), one at a time.
template <int kOut>
VX_SCALAR_TWIN void linRGBARunScalar(byte const* src, int srcLine, byte* out, int n, int u, int v,
                                     Walk const& wk)
{
    VX_NO_VECTORIZE_LOOP
    for (int i = 0; i < n; ++i) {
        linRGBAPixel<kOut>(src, srcLine, u, v, out + (size_t)i * kOut);
        u = stepAt(u, 1, wk.dxu);
        v = stepAt(v, 1, wk.dxv);
    }
}

#if defined(__SSE2__)
// The vector form, within rounding of the rule: 16-bit weights
// w00 = hi16(gx gy), w10 = hi16(fx gy), w01 = hi16(gx fy), w11 = hi16(fx fy)
// (unsigned) from fx = (u >> 2) & 0xFFFF, gx = 0xFFFF - fx and likewise for v;
// each element the sum of the high halves of neighbour times weight, >> 8,
// packed to bytes. A 16-byte load holds a pixel and its right neighbour, so
// the weights come as (w00 x4, w10 x4) for the top row, (w01 x4, w11 x4) below.
// The weights sum to below 65536, so the 16-bit sums cannot wrap.

// Neighbour times weight, top and bottom rows summed: lanes 0-3 the left
// neighbours' share of elements 0-3, lanes 4-7 the right neighbours'.
VX_FORCE_INLINE __m128i blendHalves(byte const* r0, int srcLine, __m128i wTop, __m128i wBottom)
{
    __m128i top = _mm_loadu_si128((__m128i const*)r0);
    __m128i bottom = _mm_loadu_si128((__m128i const*)(r0 + srcLine));
    return _mm_add_epi16(_mm_mulhi_epu16(top, wTop), _mm_mulhi_epu16(bottom, wBottom));
}

// Two pixels' shares summed and >> 8: lanes 0-3 pixel a, lanes 4-7 pixel b.
VX_FORCE_INLINE __m128i pairLevels(__m128i a, __m128i b)
{
    return _mm_srli_epi16(_mm_add_epi16(_mm_unpacklo_epi64(a, b), _mm_unpackhi_epi64(a, b)), 8);
}

template <int kOut>
inline void linRGBAPixelSSE2(byte const* src, int srcLine, int u, int v, byte* out)
{
    __m128i wx = _mm_xor_si128(_mm_set1_epi16((short)((u >> 2) & 0xFFFF)), _mm_set_epi32(0, 0, -1, -1));
    __m128i fy = _mm_set1_epi16((short)((v >> 2) & 0xFFFF));
    __m128i gy = _mm_xor_si128(fy, _mm_set1_epi32(-1));
    __m128i s = blendHalves(rgbaCell(src, srcLine, u, v), srcLine, _mm_mulhi_epu16(wx, gy),
                            _mm_mulhi_epu16(wx, fy));
    __m128i levels = pairLevels(s, s);
    uint32_t px = (uint32_t)_mm_cvtsi128_si32(_mm_packus_epi16(levels, levels));
    if (kOut == 4) {
        memcpy(out, &px, 4);
    } else {
        out[0] = (byte)(px >> 8);
        out[1] = (byte)(px >> 16);
        out[2] = (byte)(px >> 24);
    }
}

// Four successive pixels in lanes: their positions step by four pixels at a
// time, their source cells come from a scalar walk alongside. Inside the clip
// u and v are not negative, so the cell offsets are unsigned.
struct RGBAQuadWalk {
    __m128i uq, vq, du4, dv4;
    int u, v;

    RGBAQuadWalk(int u0, int v0, Walk const& wk) : u(u0), v(v0)
    {
        uq = _mm_setr_epi32(u0, stepAt(u0, 1, wk.dxu), stepAt(u0, 2, wk.dxu), stepAt(u0, 3, wk.dxu));
        vq = _mm_setr_epi32(v0, stepAt(v0, 1, wk.dxv), stepAt(v0, 2, wk.dxv), stepAt(v0, 3, wk.dxv));
        du4 = _mm_set1_epi32(stepAt(0, 4, wk.dxu));
        dv4 = _mm_set1_epi32(stepAt(0, 4, wk.dxv));
    }

    // The weights of the four pixels, lane pair k (w00, w10) of pixel k in
    // top and (w01, w11) in bottom, and their four source cells; then steps on.
    VX_FORCE_INLINE void Next(byte const* src, int srcLine, int dxu, int dxv, __m128i& top, __m128i& bottom,
                              byte const** cells)
    {
        __m128i low16 = _mm_set1_epi32(0xFFFF);
        __m128i fx = _mm_and_si128(_mm_srli_epi32(uq, 2), low16);
        __m128i fy = _mm_and_si128(_mm_srli_epi32(vq, 2), low16);
        __m128i wx = _mm_xor_si128(_mm_or_si128(fx, _mm_slli_epi32(fx, 16)), low16);  // (gx, fx)
        __m128i fyy = _mm_or_si128(fy, _mm_slli_epi32(fy, 16));                        // (fy, fy)
        top = _mm_mulhi_epu16(wx, _mm_xor_si128(fyy, _mm_set1_epi32(-1)));
        bottom = _mm_mulhi_epu16(wx, fyy);
        uq = _mm_add_epi32(uq, du4);
        vq = _mm_add_epi32(vq, dv4);
        for (int k = 0; k < 4; ++k) {
            cells[k] = src + (size_t)((uint32_t)v >> kFixBits) * (size_t)srcLine + (((uint32_t)u >> kFixBits) << 3);
            u = stepAt(u, 1, dxu);
            v = stepAt(v, 1, dxv);
        }
    }
};

// Four pixels of the vector form, elements 0-3 each, as sixteen bytes.
VX_FORCE_INLINE __m128i rgbaQuad(RGBAQuadWalk& q, byte const* src, int srcLine, int dxu, int dxv)
{
    __m128i top, bottom;
    byte const* c[4];
    q.Next(src, srcLine, dxu, dxv, top, bottom, c);
    __m128i t01 = _mm_unpacklo_epi16(top, top), t23 = _mm_unpackhi_epi16(top, top);
    __m128i b01 = _mm_unpacklo_epi16(bottom, bottom), b23 = _mm_unpackhi_epi16(bottom, bottom);
    __m128i s0 = blendHalves(c[0], srcLine, _mm_shuffle_epi32(t01, 0x50), _mm_shuffle_epi32(b01, 0x50));
    __m128i s1 = blendHalves(c[1], srcLine, _mm_shuffle_epi32(t01, 0xFA), _mm_shuffle_epi32(b01, 0xFA));
    __m128i s2 = blendHalves(c[2], srcLine, _mm_shuffle_epi32(t23, 0x50), _mm_shuffle_epi32(b23, 0x50));
    __m128i s3 = blendHalves(c[3], srcLine, _mm_shuffle_epi32(t23, 0xFA), _mm_shuffle_epi32(b23, 0xFA));
    return _mm_packus_epi16(pairLevels(s0, s1), pairLevels(s2, s3));
}

// Stores the low 12 bytes of rgb: four three-byte pixels.
inline void storeRGB4(byte* out, __m128i rgb)
{
    _mm_storel_epi64((__m128i*)out, rgb);
    uint32_t tail = (uint32_t)_mm_cvtsi128_si32(_mm_srli_si128(rgb, 8));
    memcpy(out + 8, &tail, 4);
}

// Vector pixels from x to end inclusive, four at a time; returns the first
// pixel left over, with u and v moved to it.
template <int kOut>
int linRGBAQuadsSSE2(byte const* src, int srcLine, byte* line, int x, int end, int& u, int& v,
                     Walk const& wk)
{
    RGBAQuadWalk q(u, v, wk);
    int dxu = wk.dxu, dxv = wk.dxv;
    for (; x + 3 <= end; x += 4) {
        __m128i px = rgbaQuad(q, src, srcLine, dxu, dxv);
        byte* out = line + (size_t)x * kOut;
        if (kOut == 4) {
            _mm_storeu_si128((__m128i*)out, px);
            continue;
        }
        // Per 8 bytes (a0 a1 a2 a3 b0 b1 b2 b3) -> (a1 a2 a3 b1 b2 b3 0 0),
        // then the upper six bytes moved down next to the lower six.
        __m128i lo = _mm_and_si128(_mm_srli_epi64(px, 8), _mm_set1_epi64x(0xFFFFFF));
        __m128i hi = _mm_and_si128(_mm_srli_epi64(px, 16), _mm_set1_epi64x(0xFFFFFF000000LL));
        __m128i six = _mm_or_si128(lo, hi);
        __m128i upper = _mm_srli_si128(_mm_unpackhi_epi64(_mm_setzero_si128(), six), 2);
        __m128i rgb = _mm_or_si128(_mm_move_epi64(six), upper);
        storeRGB4(out, rgb);
    }
    u = q.u;
    v = q.v;
    return x;
}

// Three-byte pixels with one SSSE3 byte shuffle dropping element 0.
VX_SSSE3 int linRGBQuadsSSSE3(byte const* src, int srcLine, byte* line, int x, int end, int& u, int& v,
                              Walk const& wk)
{
    __m128i dropFirst = _mm_setr_epi8(1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, -1, -1, -1, -1);
    RGBAQuadWalk q(u, v, wk);
    int dxu = wk.dxu, dxv = wk.dxv;
    for (; x + 3 <= end; x += 4) {
        __m128i rgb = _mm_shuffle_epi8(rgbaQuad(q, src, srcLine, dxu, dxv), dropFirst);
        byte* out = line + (size_t)x * 3;
        storeRGB4(out, rgb);
    }
    u = q.u;
    v = q.v;
    return x;
}
#endif

// Which vector form the RGBA warps take.
enum RGBAPath { kPathScalar, kPathSSE2, kPathSSSE3 };

RGBAPath rgbaPath()
{
#if defined(__SSE2__)
    int cpu = VX_CPU_ID();
    if (!(cpu & VX_CPU_SSE2)) return kPathScalar;
    return (cpu & VX_CPU_SSSE3) ? kPathSSSE3 : kPathSSE2;
#else
    return kPathScalar;
#endif
}

// One destination line: cleared outside [first, last], bilinear inside; runs
// of kMinVectorRun or more pixels use the vector form but for the last
// kScalarTail pixels.
template <int kOut>
void linRGBALine(byte const* src, int srcLine, byte* line, int W, short const* fl, Walk const& wk,
                 int y, RGBAPath path)
{
    int first = fl[0], last = fl[1];
    if (last < first) {
        memset(line, 0, (size_t)W * kOut);
        return;
    }
    memset(line, 0, (size_t)first * kOut);
    memset(line + (size_t)(last + 1) * kOut, 0, (size_t)(W - 1 - last) * kOut);
    int u = wk.U(first, y), v = wk.V(first, y);
    int x = first;
#if defined(__SSE2__)
    if (path != kPathScalar && last - first + 1 >= kMinVectorRun) {
        int end = last - kScalarTail;
        if (kOut == 3 && path == kPathSSSE3)
            x = linRGBQuadsSSSE3(src, srcLine, line, x, end, u, v, wk);
        else
            x = linRGBAQuadsSSE2<kOut>(src, srcLine, line, x, end, u, v, wk);
        for (; x <= end; ++x) {
            linRGBAPixelSSE2<kOut>(src, srcLine, u, v, line + (size_t)x * kOut);
            u = stepAt(u, 1, wk.dxu);
            v = stepAt(v, 1, wk.dxv);
        }
    }
#else
    (void)path;
#endif
    linRGBARunScalar<kOut>(src, srcLine, line + (size_t)x * kOut, last - x + 1, u, v, wk);
}

// The two parallel RGBA warps: n = (H + 31) / 32 bands, band (9973 i) mod n
// or i, walk row y written to line H - 1 - y.
template <int kOut>
void linRGBAWarp(VX_Raster* src, VX_Raster* dst, VX_Mat const& m, double margin, bool scatter)
{
    int W = dst->width, H = dst->height;
    if (W <= 0 || H <= 0) return;
    RowBounds rb(H);
    short const* bounds = rb.p;
    clipBilinear(rb.p, W, H, m, src->width / 4, src->height, margin);
    Walk wk(m);
    byte const* s = static_cast<byte const*>(src->data);
    int srcLine = strideOf(src, 2);
    byte* d = static_cast<byte*>(dst->data);
    int dstLine = strideOf(dst, kOut);
    RGBAPath path = rgbaPath();
    int n = (H + kBandRows - 1) / kBandRows;
#pragma omp parallel for schedule(static)
    for (int i = 0; i < n; ++i) {
        int b = scatter ? (int)((kBandStride * i) % n) : i;
        int y0 = (int)((long long)b * H / n), y1 = (int)((long long)(b + 1) * H / n);
        for (int y = y0; y < y1; ++y)
            linRGBALine<kOut>(s, srcLine, d + (ptrdiff_t)(H - 1 - y) * dstLine, W, bounds + 2 * y, wk, y,
                              path);
    }
}

// ---- signed 16-bit bilinear ---------------------------------------------

// Rule: fx = (u >> 2) & 0xFFFF, gx = 0xFFFF - fx, likewise fy, gy; the weights
// w00 = hi16(gx gy) >> 1, w10 = hi16(fx gy) >> 1, w01 = hi16(gx fy) >> 1,
// w11 = hi16(fx fy) >> 1 (unsigned); out = (sum of w times neighbour) >> 15.
// The weights sum to at most 32767, so the sum stays inside 32 bits.
inline short linPixel(short const* src, int sw, int u, int v)
{
    short const* p = src + (ptrdiff_t)(v >> kFixBits) * sw + (u >> kFixBits);
    uint32_t fx = ((uint32_t)u >> 2) & 0xFFFF, fy = ((uint32_t)v >> 2) & 0xFFFF;
    uint32_t gx = fx ^ 0xFFFF, gy = fy ^ 0xFFFF;
    int w00 = (int)((gx * gy) >> 17), w10 = (int)((fx * gy) >> 17);
    int w01 = (int)((gx * fy) >> 17), w11 = (int)((fx * fy) >> 17);
    int sum = w00 * p[0] + w10 * p[1] + w01 * p[sw] + w11 * p[sw + 1];
    return (short)(sum >> 15);
}

VX_SCALAR_TWIN void linRunScalar(short const* src, int sw, short* out, int n, int u, int v, Walk const& wk)
{
    VX_NO_VECTORIZE_LOOP
    for (int i = 0; i < n; ++i) {
        out[i] = linPixel(src, sw, u, v);
        u = stepAt(u, 1, wk.dxu);
        v = stepAt(v, 1, wk.dxv);
    }
}

#if defined(__SSE2__)
inline int load2(short const* p)
{
    int v;
    memcpy(&v, p, 4);  // p[0] in the low half, p[1] in the high half
    return v;
}

// Four pixels of linPixel: each 32-bit lane holds a neighbour pair (left,
// right) and its weight pair, so one madd gives a row's two terms. Offsets
// (v >> 18) * sw + (u >> 18) come from a 16-bit multiply: rows and sw below
// 32768. Keep equal to linPixel bit for bit.
inline __m128i linQuadSSE2(short const* src, __m128i swq, int sw, __m128i uq, __m128i vq)
{
    __m128i offs = _mm_add_epi32(_mm_madd_epi16(_mm_srai_epi32(vq, kFixBits), swq), _mm_srai_epi32(uq, kFixBits));
    short const* p0 = src + _mm_cvtsi128_si32(offs);
    short const* p1 = src + _mm_cvtsi128_si32(_mm_shuffle_epi32(offs, 0x55));
    short const* p2 = src + _mm_cvtsi128_si32(_mm_shuffle_epi32(offs, 0xAA));
    short const* p3 = src + _mm_cvtsi128_si32(_mm_shuffle_epi32(offs, 0xFF));
    __m128i top = _mm_setr_epi32(load2(p0), load2(p1), load2(p2), load2(p3));
    __m128i bot = _mm_setr_epi32(load2(p0 + sw), load2(p1 + sw), load2(p2 + sw), load2(p3 + sw));
    __m128i low16 = _mm_set1_epi32(0xFFFF);
    __m128i fx = _mm_and_si128(_mm_srli_epi32(uq, 2), low16);
    __m128i fy = _mm_and_si128(_mm_srli_epi32(vq, 2), low16);
    __m128i wx = _mm_xor_si128(_mm_or_si128(fx, _mm_slli_epi32(fx, 16)), low16);  // (gx, fx)
    __m128i fyy = _mm_or_si128(fy, _mm_slli_epi32(fy, 16));                        // (fy, fy)
    __m128i gyy = _mm_xor_si128(fyy, _mm_set1_epi32(-1));                          // (gy, gy)
    __m128i wTop = _mm_srli_epi16(_mm_mulhi_epu16(wx, gyy), 1);
    __m128i wBot = _mm_srli_epi16(_mm_mulhi_epu16(wx, fyy), 1);
    __m128i sum = _mm_add_epi32(_mm_madd_epi16(top, wTop), _mm_madd_epi16(bot, wBot));
    return _mm_srai_epi32(sum, 15);
}

// Eight pixels at a step, the rest by the scalar rule.
void linRunSSE2(short const* src, int sw, short* out, int n, int u, int v, Walk const& wk)
{
    __m128i uq = _mm_setr_epi32(u, stepAt(u, 1, wk.dxu), stepAt(u, 2, wk.dxu), stepAt(u, 3, wk.dxu));
    __m128i vq = _mm_setr_epi32(v, stepAt(v, 1, wk.dxv), stepAt(v, 2, wk.dxv), stepAt(v, 3, wk.dxv));
    __m128i du4 = _mm_set1_epi32(stepAt(0, 4, wk.dxu)), dv4 = _mm_set1_epi32(stepAt(0, 4, wk.dxv));
    __m128i swq = _mm_set1_epi32(sw);
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        __m128i lo = linQuadSSE2(src, swq, sw, uq, vq);
        uq = _mm_add_epi32(uq, du4);
        vq = _mm_add_epi32(vq, dv4);
        __m128i hi = linQuadSSE2(src, swq, sw, uq, vq);
        uq = _mm_add_epi32(uq, du4);
        vq = _mm_add_epi32(vq, dv4);
        _mm_storeu_si128((__m128i*)(out + i), _mm_packs_epi32(lo, hi));
    }
    linRunScalar(src, sw, out + i, n - i, stepAt(u, i, wk.dxu), stepAt(v, i, wk.dxv), wk);
}
#endif

// Byte-wise when both low bytes of background are equal, else element by element.
void fillBackground(short* p, int n, int background)
{
    if (n <= 0) return;
    if ((background & 0xFF) == ((background >> 8) & 0xFF)) {
        memset(p, background & 0xFF, (size_t)n * 2);
    } else {
        for (int i = 0; i < n; ++i) p[i] = (short)background;
    }
}

}  // namespace

void VX_LinRGBAShearZoom(VX_Raster* src, VX_Raster* dst, VX_Mat m)
{
    linRGBAWarp<4>(src, dst, m, 0.55, true);
}

void VX_LinRGBA2RGBShearZoom(VX_Raster* src, VX_Raster* dst, VX_Mat m)
{
    linRGBAWarp<3>(src, dst, m, 0.51, false);
}

// Rule: the pixel at (u >> 18, v >> 18); bytes are the high bytes of elements
// 0, 1 and 2. Rows top-down, one sequential loop.
void VX_NNRGBAShearZoom(VX_Raster* src, VX_Raster* dst, VX_Mat m)
{
    int W = dst->width, H = dst->height;
    if (W <= 0 || H <= 0) return;
    RowBounds rb(H);
    clipToSource(rb.p, W, H, m, 0.5f, (float)(src->width / 4 - 1), (float)(src->height - 1));
    Walk wk(m);
    guardRows(rb.p, H, wk, src->width / 4 - 1, src->height - 1);
    byte const* s = static_cast<byte const*>(src->data);
    int srcLine = strideOf(src, 2);
    int dstLine = strideOf(dst, 3);
    for (int y = 0; y < H; ++y) {
        byte* line = static_cast<byte*>(dst->data) + (ptrdiff_t)y * dstLine;
        int first = rb.p[2 * y], last = rb.p[2 * y + 1];
        if (last < first) {
            memset(line, 0, (size_t)W * 3);
            continue;
        }
        memset(line, 0, (size_t)first * 3);
        memset(line + (size_t)(last + 1) * 3, 0, (size_t)(W - 1 - last) * 3);
        int u = wk.U(first, y), v = wk.V(first, y);
        for (int x = first; x <= last; ++x) {
            uint16_t e[3];
            memcpy(e, rgbaCell(s, srcLine, u, v), 6);
            for (int c = 0; c < 3; ++c) line[3 * x + c] = (byte)(e[c] >> 8);
            u = stepAt(u, 1, wk.dxu);
            v = stepAt(v, 1, wk.dxv);
        }
    }
}

void VX_LinShearZoom(short* src, short* dst, int* srcSize, int* dstSize, VX_Mat m, int background)
{
    int w = srcSize[0], h = srcSize[1], W = dstSize[0], H = dstSize[1];
    if (W <= 0 || H <= 0) return;
    RowBounds rb(H);
    clipBilinear(rb.p, W, H, m, w, h, 0.51);
    Walk wk(m);
    bool vector = (VX_CPU_ID() & VX_CPU_MMX) != 0 && w < 32768;
    for (int y = 0; y < H; ++y) {
        short* line = dst + (ptrdiff_t)y * W;
        int first = rb.p[2 * y], last = rb.p[2 * y + 1];
        if (last < first) {
            fillBackground(line, W, background);
            continue;
        }
        fillBackground(line, first, background);
        fillBackground(line + last + 1, W - 1 - last, background);
        int u = wk.U(first, y), v = wk.V(first, y), n = last - first + 1;
#if defined(__SSE2__)
        if (vector) {
            linRunSSE2(src, w, line + first, n, u, v, wk);
            continue;
        }
#else
        (void)vector;
#endif
        linRunScalar(src, w, line + first, n, u, v, wk);
    }
}

// ---- 2x2 mean and the supersampled warp ------------------------------------

namespace {

// Rule: each byte (a + b + c + d) >> 2 of the matching bytes of the 2x2 block.
inline void halfPixel(byte const* r0, byte const* r1, byte* out)
{
    for (int c = 0; c < 4; ++c) out[c] = (byte)((r0[c] + r0[c + 4] + r1[c] + r1[c + 4]) >> 2);
}

// The scalar twin: n destination pixels of the rule, one at a time.
VX_SCALAR_TWIN void halfRunScalar(byte const* r0, byte const* r1, byte* out, int n)
{
    VX_NO_VECTORIZE_LOOP
    for (int x = 0; x < n; ++x) halfPixel(r0 + 8 * x, r1 + 8 * x, out + 4 * x);
}

#if defined(__SSE2__)
// Four destination pixels from 8 x 2 source pixels, the sums on 16 bits, so
// equal to halfPixel bit for bit. kStream writes past the caches.
template <bool kStream>
inline void halfBlockSSE2(byte const* r0, byte const* r1, byte* out)
{
    __m128i zero = _mm_setzero_si128();
    __m128i sum[4];
    for (int k = 0; k < 2; ++k) {
        __m128i a = _mm_loadu_si128((__m128i const*)(r0 + 16 * k));
        __m128i b = _mm_loadu_si128((__m128i const*)(r1 + 16 * k));
        sum[2 * k] = _mm_add_epi16(_mm_unpacklo_epi8(a, zero), _mm_unpacklo_epi8(b, zero));
        sum[2 * k + 1] = _mm_add_epi16(_mm_unpackhi_epi8(a, zero), _mm_unpackhi_epi8(b, zero));
    }
    // sum[j] holds source pixels (2j, 2j + 1) as two halves
    __m128i d01 = _mm_add_epi16(_mm_unpacklo_epi64(sum[0], sum[1]), _mm_unpackhi_epi64(sum[0], sum[1]));
    __m128i d23 = _mm_add_epi16(_mm_unpacklo_epi64(sum[2], sum[3]), _mm_unpackhi_epi64(sum[2], sum[3]));
    __m128i res = _mm_packus_epi16(_mm_srli_epi16(d01, 2), _mm_srli_epi16(d23, 2));
    if constexpr (kStream)
        _mm_stream_si128((__m128i*)out, res);
    else
        _mm_store_si128((__m128i*)out, res);
}

// A destination of at least this many bytes is written with streaming stores,
// so that it does not push the source out of the caches; a smaller one stays
// in the cache for the caller.
constexpr long long kHalfStreamBytes = 4ll << 20;

// Blocks of four pixels from x on, out + 4 * x aligned; returns where they end.
template <bool kStream>
int halfBlocksSSE2(byte const* r0, byte const* r1, byte* out, int x, int W)
{
    for (; x + 4 <= W; x += 4) {
        _mm_prefetch((char const*)(r0 + 8 * x + 1024), _MM_HINT_T0);
        _mm_prefetch((char const*)(r1 + 8 * x + 1024), _MM_HINT_T0);
        halfBlockSSE2<kStream>(r0 + 8 * x, r1 + 8 * x, out + 4 * x);
    }
    if constexpr (kStream) _mm_sfence();
    return x;
}
#endif

// One destination row: scalar up to a 16-byte boundary, blocks of four
// pixels, scalar for the rest.
void halfRow(byte const* r0, byte const* r1, byte* out, int W, bool vector, bool stream)
{
    int x = 0;
#if defined(__SSE2__)
    if (vector) {
        for (; x < W && VX_GetAlignment(out + 4 * x) != 0; ++x) halfPixel(r0 + 8 * x, r1 + 8 * x, out + 4 * x);
        x = stream ? halfBlocksSSE2<true>(r0, r1, out, x, W) : halfBlocksSSE2<false>(r0, r1, out, x, W);
    }
#else
    (void)vector;
    (void)stream;
#endif
    halfRunScalar(r0 + 8 * x, r1 + 8 * x, out + 4 * x, W - x);
}

}  // namespace

void VX_HalfRGBARaster(VX_Raster* src, VX_Raster* dst)
{
    int W = dst->width, H = dst->height;
    byte const* s = static_cast<byte const*>(src->data);
    byte* d = static_cast<byte*>(dst->data);
    int srcLine = strideOf(src, 4), dstLine = strideOf(dst, 4);
    bool vector = (VX_CPU_ID() & VX_CPU_SSE2) != 0;
#if defined(__SSE2__)
    bool stream = (long long)dstLine * H >= kHalfStreamBytes;
#else
    bool stream = false;
#endif
#pragma omp parallel for schedule(static)
    for (int y = 0; y < H; ++y) {
        byte const* r0 = s + (ptrdiff_t)(2 * y) * srcLine;
        halfRow(r0, r0 + srcLine, d + (ptrdiff_t)y * dstLine, W, vector, stream);
    }
}

// Enlarging (a step below one source pixel on either axis): the plain warp.
// Shrinking: a warp to twice the size, halved, four samples per pixel. dst
// takes the halved lines as they are: the four bytes of each pixel when it has
// 32 bits per pixel, else the three bytes of elements 1, 2 and 3.
void VX_SlowLinRGBAShearZoom(VX_Raster* src, VX_Raster* dst, VX_Mat m)
{
    VX_3Vec ex(1.0f, 0.0f, 0.0f), ey(0.0f, 1.0f, 0.0f);
    ex.LinearTransform(m);
    ey.LinearTransform(m);
    float sx = ex.Abs(), sy = ey.Abs();
    if ((sx < sy ? sx : sy) < 1.0f) {
        VX_LinRGBA2RGBShearZoom(src, dst, m);
        return;
    }
    int W = dst->width, H = dst->height;
    if (W <= 0 || H <= 0) return;
    VX_Raster out, big;
    out.width = W;
    out.height = H;
    big.width = 2 * W;
    big.height = 2 * H;
    out.bitsPerPixel = big.bitsPerPixel = 32;
    out.interleaved = big.interleaved = true;
    out.Allocate();
    big.Allocate();
    VX_LinRGBAShearZoom(src, &big, VX_Mat(0.5f) * m);
    VX_HalfRGBARaster(&big, &out);

    bool four = dst->bitsPerPixel == 32;
    int outLine = strideOf(&out, 4), dstLine = strideOf(dst, four ? 4 : 3);
    for (int y = 0; y < H; ++y) {
        byte const* o = static_cast<byte const*>(out.data) + (ptrdiff_t)y * outLine;
        byte* d = static_cast<byte*>(dst->data) + (ptrdiff_t)y * dstLine;
        if (four) {
            memcpy(d, o, (size_t)W * 4);
            continue;
        }
        for (int x = 0; x < W; ++x) memcpy(d + 3 * x, o + 4 * x + 1, 3);
    }
}
