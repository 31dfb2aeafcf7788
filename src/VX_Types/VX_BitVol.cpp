#include "VX_BitVol.h"
#include "VX_CPU.h"
#include "VX_Raster.h"
#include "VX_VolData.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// Each owned slice carries this many bytes of guard before its first word and
// after its last; the stored slice pointer is the allocation plus kGuardBytes.
constexpr int kGuardBytes = 16;

// Whole-volume word loops fork an OpenMP team from this many words on.
constexpr long long kParallelWords = 1LL << 18;

// TriLinGetBit: coordinates carry 18 fractional bits, weights 15.
constexpr int kTriFracBits = 18;
constexpr int kTriHalfVoxel = 1 << (kTriFracBits - 1);
constexpr int kTriWeightBits = 15;
constexpr int kTriOne = 1 << kTriWeightBits;

inline bool useSSE2() { return (VX_CPU_ID() & VX_CPU_SSE2) != 0; }

// Bits 0 .. (X & 31) - 1 of the last word of a line, or all when X is a
// multiple of 32: the valid bits of that word.
inline unsigned int tailMask(int X)
{
    return (X & 31) == 0 ? ~0u : (1u << (X & 31)) - 1;
}

// Bits below x & 31, and bits above x & 31 (0 when x & 31 is 31).
inline unsigned int lowMask(int x) { return (1u << (x & 31)) - 1; }
inline unsigned int highMask(int x) { return (unsigned int)(~0ull << ((x & 31) + 1)); }

// The parallel bit count on the masks 0x55555555, 0x33333333, 0x0f0f0f0f.
inline unsigned int countWord(unsigned int w)
{
    w = w - ((w >> 1) & 0x55555555u);
    w = (w & 0x33333333u) + ((w >> 2) & 0x33333333u);
    w = (w + (w >> 4)) & 0x0f0f0f0fu;
    return (w * 0x01010101u) >> 24;
}

inline int lowestBit(unsigned int w) { return __builtin_ctz(w); }
inline int highestBit(unsigned int w) { return 31 - __builtin_clz(w); }

unsigned int* allocSlice(int wordsPerSlice)
{
    char* p = (char*)malloc((size_t)wordsPerSlice * 4 + 2 * kGuardBytes);
    return (unsigned int*)(p + kGuardBytes);
}

void freeSlice(unsigned int* s) { free((char*)s - kGuardBytes); }

// ---- word counting ----

long long countWordsRef(unsigned int const* p, int n)
{
    long long c = 0;
    for (int i = 0; i < n; ++i) c += countWord(p[i]);
    return c;
}

#if defined(__SSE2__)
// Keep equal to countWordsRef.
long long countWordsSSE2(unsigned int const* p, int n)
{
    const __m128i m1 = _mm_set1_epi32(0x55555555), m2 = _mm_set1_epi32(0x33333333);
    const __m128i m4 = _mm_set1_epi32(0x0f0f0f0f), zero = _mm_setzero_si128();
    __m128i acc = zero;
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        __m128i v = _mm_loadu_si128((__m128i const*)(p + i));
        v = _mm_sub_epi32(v, _mm_and_si128(_mm_srli_epi32(v, 1), m1));
        v = _mm_add_epi32(_mm_and_si128(v, m2), _mm_and_si128(_mm_srli_epi32(v, 2), m2));
        v = _mm_and_si128(_mm_add_epi32(v, _mm_srli_epi32(v, 4)), m4);
        acc = _mm_add_epi64(acc, _mm_sad_epu8(v, zero));
    }
    long long c = _mm_cvtsi128_si32(acc) + _mm_cvtsi128_si32(_mm_srli_si128(acc, 8));
    return c + countWordsRef(p + i, n - i);
}
#endif

long long countWords(unsigned int const* p, int n)
{
#if defined(__SSE2__)
    if (useSSE2()) return countWordsSSE2(p, n);
#endif
    return countWordsRef(p, n);
}

// ---- word-by-word logic ----

enum LogicOp { kOr, kAnd, kAndNot, kOrNot };

template <LogicOp op>
inline unsigned int combine(unsigned int a, unsigned int b)
{
    switch (op) {
    case kOr: return a | b;
    case kAnd: return a & b;
    case kAndNot: return a & ~b;
    default: return a | ~b;
    }
}

template <LogicOp op>
void combineWordsRef(unsigned int* a, unsigned int const* b, int n)
{
    for (int i = 0; i < n; ++i) a[i] = combine<op>(a[i], b[i]);
}

#if defined(__SSE2__)
template <LogicOp op>
inline __m128i combine4(__m128i a, __m128i b)
{
    switch (op) {
    case kOr: return _mm_or_si128(a, b);
    case kAnd: return _mm_and_si128(a, b);
    case kAndNot: return _mm_andnot_si128(b, a);
    default: return _mm_or_si128(a, _mm_xor_si128(b, _mm_set1_epi32(-1)));
    }
}

// Keep equal to combineWordsRef.
template <LogicOp op>
void combineWordsSSE2(unsigned int* a, unsigned int const* b, int n)
{
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        __m128i a0 = _mm_loadu_si128((__m128i const*)(a + i));
        __m128i a1 = _mm_loadu_si128((__m128i const*)(a + i + 4));
        __m128i b0 = _mm_loadu_si128((__m128i const*)(b + i));
        __m128i b1 = _mm_loadu_si128((__m128i const*)(b + i + 4));
        _mm_storeu_si128((__m128i*)(a + i), combine4<op>(a0, b0));
        _mm_storeu_si128((__m128i*)(a + i + 4), combine4<op>(a1, b1));
    }
    combineWordsRef<op>(a + i, b + i, n - i);
}
#endif

template <LogicOp op>
void combineVolumes(VX_BitVol& a, VX_BitVol& b)
{
    const int Z = a.dims[2], n = a.wordsPerSlice;
    const bool big = (long long)Z * n >= kParallelWords;
#if defined(__SSE2__)
    const bool sse2 = useSSE2();
#endif
#pragma omp parallel for if (big) schedule(static)
    for (int z = 0; z < Z; ++z) {
#if defined(__SSE2__)
        if (sse2) {
            combineWordsSSE2<op>(a.slices[z], b.slices[z], n);
            continue;
        }
#endif
        combineWordsRef<op>(a.slices[z], b.slices[z], n);
    }
}

// ---- thresholding ----

// One line of voxels into words by the accumulator rule: a voxel above t sets
// bit 31, the accumulator is stored when x & 31 is 31 and shifted right by one
// after every voxel. A partial last word is not stored; the word in memory is
// shifted right by 32 - (X & 31) instead. Returns the voxels above t.
int threshLineRef(short const* v, int X, int t, unsigned int* out)
{
    unsigned int acc = 0;
    int count = 0;
    for (int x = 0; x < X; ++x) {
        const unsigned int above = v[x] > t;
        acc |= above << 31;
        count += (int)above;
        if ((x & 31) == 31) out[x >> 5] = acc;
        acc >>= 1;
    }
    if (X & 31) out[X >> 5] >>= 32 - (X & 31);
    return count;
}

#if defined(__SSE2__)
// Keep equal to threshLineRef. t must lie in -32768 .. 32767.
int threshLineSSE2(short const* v, int X, int t, unsigned int* out)
{
    const __m128i tv = _mm_set1_epi16((short)t);
    const int full = X >> 5;
    int count = 0;
    for (int w = 0; w < full; ++w) {
        short const* p = v + w * 32;
        __m128i c0 = _mm_cmpgt_epi16(_mm_loadu_si128((__m128i const*)p), tv);
        __m128i c1 = _mm_cmpgt_epi16(_mm_loadu_si128((__m128i const*)(p + 8)), tv);
        __m128i c2 = _mm_cmpgt_epi16(_mm_loadu_si128((__m128i const*)(p + 16)), tv);
        __m128i c3 = _mm_cmpgt_epi16(_mm_loadu_si128((__m128i const*)(p + 24)), tv);
        unsigned int lo = (unsigned int)_mm_movemask_epi8(_mm_packs_epi16(c0, c1));
        unsigned int hi = (unsigned int)_mm_movemask_epi8(_mm_packs_epi16(c2, c3));
        unsigned int word = lo | hi << 16;
        out[w] = word;
        count += __builtin_popcount(word);
    }
    const int rest = X & 31;
    if (rest) {
        short const* p = v + full * 32;
        for (int x = 0; x < rest; ++x) count += p[x] > t;
        out[full] >>= 32 - rest;
    }
    return count;
}
#endif

// ---- overlap counting ----

// The set bits of w as two 16-bit partial sums (low and high half).
inline unsigned int halfCounts(unsigned int w)
{
    w = w - ((w >> 1) & 0x55555555u);
    w = (w & 0x33333333u) + ((w >> 2) & 0x33333333u);
    w = (w + (w >> 4)) & 0x0f0f0f0fu;
    return (w & 0xff00ffu) + ((w >> 8) & 0xff00ffu);
}

// ---- shrinking ----

// Ors each adjacent bit pair of w and packs the 16 results into the low half.
inline unsigned int pairOr16(unsigned int w)
{
    w = (w | (w >> 1)) & 0x55555555u;
    w = (w | (w >> 1)) & 0x33333333u;
    w = (w | (w >> 2)) & 0x0f0f0f0fu;
    w = (w | (w >> 4)) & 0x00ff00ffu;
    w = (w | (w >> 8)) & 0x0000ffffu;
    return w;
}

}  // namespace

// ---- construction and storage ----

VX_BitVol::VX_BitVol()
    : dims{0, 0, 0}, slices(nullptr), sliceCount(0), wordsPerLine(0), wordsPerSlice(0),
      ownsSlices(false), clean(false)
{
}

VX_BitVol::VX_BitVol(int x, int y, int z) : VX_BitVol()
{
    dims[0] = x;
    dims[1] = y;
    dims[2] = z;
    Allocate(true);
}

VX_BitVol::VX_BitVol(int* d) : VX_BitVol(d[0], d[1], d[2]) {}

VX_BitVol::VX_BitVol(const VX_BitVol& o) : VX_BitVol(o.dims[0], o.dims[1], o.dims[2])
{
    for (int z = 0; z < sliceCount; ++z)
        memcpy(slices[z], o.slices[z], (size_t)wordsPerSlice * 4);
}

VX_BitVol::VX_BitVol(const VX_BitVol* src, int step) : VX_BitVol()
{
    dims[0] = src->dims[0];
    dims[1] = src->dims[1];
    dims[2] = src->dims[2] / step;
    Allocate(false);
    for (int i = 0; i < sliceCount; ++i) slices[i] = src->slices[(step - 1) / 2 + i * step];
}

VX_BitVol::VX_BitVol(VX_Raster* raster, int threshold, int padX, int padY) : VX_BitVol()
{
    dims[2] = 1;
    if (raster->bitsPerPixel == 1) {
        dims[0] = raster->width;
        dims[1] = raster->height;
        Allocate(false);
        slices[0] = (unsigned int*)raster->data;
        return;
    }
    dims[0] = raster->width + 2 * padX;
    dims[1] = raster->height + 2 * padY;
    Allocate(true);
    Clear();
    const int bpp = raster->bitsPerPixel, stride = raster->GetLineBytes();
    if (bpp != 8 && (bpp < 9 || bpp > 16)) return;
    const unsigned char* base = (const unsigned char*)raster->data;
    for (int y = 0; y < raster->height; ++y) {
        const unsigned char* row = base + (size_t)y * stride;
        for (int x = 0; x < raster->width; ++x) {
            const bool on = bpp == 8 ? row[x] != 0 : ((const short*)row)[x] > threshold;
            if (on) SetBitOn(x + padX, y + padY, 0);
        }
    }
}

VX_BitVol::~VX_BitVol() { freeStorage(); }

void VX_BitVol::freeStorage()
{
    if (ownsSlices && slices)
        for (int i = 0; i < sliceCount; ++i) freeSlice(slices[i]);
    delete[] slices;
    slices = nullptr;
    ownsSlices = false;
}

void VX_BitVol::Allocate(bool withSlices)
{
    freeStorage();
    wordsPerLine = (dims[0] + 31) >> 5;
    wordsPerSlice = dims[1] * wordsPerLine;
    sliceCount = dims[2];
    slices = new unsigned int*[sliceCount > 0 ? sliceCount : 0];
    if (withSlices) {
        for (int i = 0; i < sliceCount; ++i) slices[i] = allocSlice(wordsPerSlice);
        ownsSlices = true;
    }
    clean = false;
}

void VX_BitVol::Resize(int x, int y, int z)
{
    if (x == dims[0] && y == dims[1] && z == dims[2]) return;
    dims[0] = x;
    dims[1] = y;
    dims[2] = z;
    Allocate(true);
}

VX_BitVol& VX_BitVol::operator=(const VX_BitVol& o)
{
    if (this == &o) return *this;
    Resize(o.dims[0], o.dims[1], o.dims[2]);
    for (int z = 0; z < sliceCount; ++z)
        memcpy(slices[z], o.slices[z], (size_t)wordsPerSlice * 4);
    clean = o.clean;
    return *this;
}

VX_BitVol* VX_BitVol::Clone() { return new VX_BitVol(*this); }

VX_BitVol* VX_BitVol::EmptyClone() { return new VX_BitVol(dims[0], dims[1], dims[2]); }

VX_BVSeqIterator* VX_BitVol::CreateIterator() { return new VX_BVSeqIterator(this); }

// ---- single bits and runs ----

int VX_BitVol::SafeGetBit(int x, int y, int z) const
{
    if (x < 0 || y < 0 || z < 0 || x >= dims[0] || y >= dims[1] || z >= dims[2]) return 0;
    return GetBit(x, y, z);
}

void VX_BitVol::SafeSetBitOn(int x, int y, int z)
{
    if (x < 0 || y < 0 || z < 0 || x >= dims[0] || y >= dims[1] || z >= dims[2]) return;
    SetBitOn(x, y, z);
}

void VX_BitVol::SafeSetBitOff(int x, int y, int z)
{
    if (x < 0 || y < 0 || z < 0 || x >= dims[0] || y >= dims[1] || z >= dims[2]) return;
    SetBitOff(x, y, z);
}

// A run is a first partial word, a body of whole words and a last partial
// word: low mask (1 << (x0 & 31)) - 1 keeps the bits below x0, high mask
// -(1 << ((x1 & 31) + 1)) the bits above x1 (0 when x1 & 31 is 31).
void VX_BitVol::OneLine(int x0, int y, int z, int x1)
{
    if (x0 > x1) return;
    unsigned int* p = GetLineAddress(y, z);
    const int w0 = x0 >> 5, w1 = x1 >> 5;
    const unsigned int lo = lowMask(x0), hi = highMask(x1);
    if (w0 == w1) {
        p[w0] |= ~(lo | hi);
        return;
    }
    p[w0] |= ~lo;
    for (int w = w0 + 1; w < w1; ++w) p[w] = ~0u;
    p[w1] |= ~hi;
}

void VX_BitVol::SetLineOn(int x0, int y, int z, int x1) { OneLine(x0, y, z, x1); }

void VX_BitVol::SetLineOff(int x0, int y, int z, int x1)
{
    unsigned int* p = GetLineAddress(y, z);
    const int w0 = x0 >> 5, w1 = x1 >> 5;
    const unsigned int lo = lowMask(x0), hi = highMask(x1);
    if (w0 == w1) {
        p[w0] &= lo | hi;
        return;
    }
    p[w0] &= lo;
    for (int w = w0 + 1; w < w1; ++w) p[w] = 0;
    p[w1] &= hi;
}

void VX_BitVol::ZeroSubBlock(int x0, int x1, int y0, int y1, int z0, int z1)
{
    if (z0 > z1) return;
    for (int z = z0; z <= z1; ++z)
        for (int y = y0; y <= y1; ++y) SetLineOff(x0, y, z, x1);
}

// ---- whole-volume operations ----

void VX_BitVol::Clear()
{
    for (int z = 0; z < sliceCount; ++z) memset(slices[z], 0, (size_t)wordsPerSlice * 4);
    clean = true;
}

void VX_BitVol::Unclear()
{
    const int wpl = wordsPerLine;
    const unsigned int tail = tailMask(dims[0]);
    for (int z = 0; z < dims[2]; ++z)
        for (int y = 0; y < dims[1]; ++y) {
            unsigned int* p = GetLineAddress(y, z);
            if (wpl == 0) continue;
            for (int w = 0; w < wpl - 1; ++w) p[w] = ~0u;
            p[wpl - 1] = tail;
        }
    clean = true;
}

// Every word of a line but the last is inverted; the last is xored with the
// valid bits, so tail bits keep their value.
void VX_BitVol::Negate()
{
    const int wpl = wordsPerLine, Y = dims[1], Z = dims[2];
    if (wpl == 0) return;
    const unsigned int tail = tailMask(dims[0]);
    const bool big = (long long)Z * wordsPerSlice >= kParallelWords;
#pragma omp parallel for if (big) schedule(static)
    for (int z = 0; z < Z; ++z) {
        unsigned int* p = slices[z];
        for (int y = 0; y < Y; ++y, p += wpl) {
            for (int w = 0; w < wpl - 1; ++w) p[w] = ~p[w];
            p[wpl - 1] ^= tail;
        }
    }
}

int VX_BitVol::CountBits()
{
    const int Z = dims[2], n = wordsPerSlice;
    if (Z < 1) return 0;
    const bool big = (long long)Z * n >= kParallelWords;
    long long total = 0;
#pragma omp parallel for if (big) schedule(static) reduction(+ : total)
    for (int z = 0; z < Z; ++z) total += countWords(slices[z], n);
    return (int)total;
}

VX_BitVol& VX_BitVol::operator|=(VX_BitVol& o)
{
    combineVolumes<kOr>(*this, o);
    clean = clean && o.clean;
    return *this;
}

VX_BitVol& VX_BitVol::operator&=(VX_BitVol& o)
{
    combineVolumes<kAnd>(*this, o);
    return *this;
}

VX_BitVol& VX_BitVol::operator-=(VX_BitVol& o)
{
    combineVolumes<kAndNot>(*this, o);
    return *this;
}

VX_BitVol& VX_BitVol::OrNot(VX_BitVol& o)
{
    combineVolumes<kOrNot>(*this, o);
    clean = false;
    return *this;
}

void VX_BitVol::Thresh(VX_VolData* vol, int threshold)
{
    const int X = dims[0], Y = dims[1], Z = dims[2];
    const bool big = (long long)Z * wordsPerSlice >= kParallelWords;
    bool sse2 = false;
#if defined(__SSE2__)
    sse2 = useSSE2() && threshold >= -32768 && threshold <= 32767;
#endif
    long long count = 0;
#pragma omp parallel for if (big) schedule(static) reduction(+ : count)
    for (int z = 0; z < Z; ++z) {
        short const* src = vol->slices[z];
        for (int y = 0; y < Y; ++y) {
            short const* v = src + (size_t)y * X;
            unsigned int* out = GetLineAddress(y, z);
#if defined(__SSE2__)
            if (sse2) {
                count += threshLineSSE2(v, X, threshold, out);
                continue;
            }
#endif
            count += threshLineRef(v, X, threshold, out);
        }
    }
    (void)sse2;
    printf("%d / %d voxels above threshold\n", (int)count, X * Y * Z);
}

// Word j of a line of this pairs with other's bits from this-x 32 j - dx on:
// other[k] >> s | other[k + 1] << ((-s) & 31), s = (-dx) & 31. With s = 0 the
// expression ors a word with its successor; that is the defined reading.
int VX_BitVol::CountOverlapBits(VX_BitVol* o, int dx, int dy, int dz)
{
    int lo[3], hi[3];
    const int d[3] = {dx, dy, dz};
    for (int i = 0; i < 3; ++i) {
        lo[i] = d[i] > 0 ? d[i] : 0;
        hi[i] = o->dims[i] + d[i] < dims[i] ? o->dims[i] + d[i] : dims[i];
        if (hi[i] <= lo[i]) return 0;
    }
    const int s = (-dx) & 31, sl = (-s) & 31;
    const int kOff = (-dx) >> 5;
    const int j0 = lo[0] >> 5, j1 = (hi[0] - 1) >> 5;
    const unsigned int firstMask = ~0u << (lo[0] & 31);
    const unsigned int lastMask = tailMask(hi[0]);
    long long total = 0;
    for (int z = lo[2]; z < hi[2]; ++z)
        for (int y = lo[1]; y < hi[1]; ++y) {
            unsigned int const* a = GetLineAddress(y, z);
            unsigned int const* b = o->GetLineAddress(y - dy, z - dz) + kOff;
            unsigned int lineSum = 0;
            for (int j = j0; j <= j1; ++j) {
                unsigned int w = a[j] & ((b[j] >> s) | (b[j + 1] << sl));
                if (j == j0) w &= firstMask;
                if (j == j1) w &= lastMask;
                lineSum += halfCounts(w);
            }
            total += (lineSum >> 16) + (lineSum & 0xffff);
        }
    return (int)total;
}

void VX_BitVol::CopySubVolume(VX_BitVol* src, int offset[3])
{
    int n[3];
    for (int i = 0; i < 3; ++i) {
        n[i] = src->dims[i] - offset[i];
        if (dims[i] < n[i]) n[i] = dims[i];
    }
    clean = false;
    if (n[0] <= 0 || n[1] <= 0 || n[2] <= 0) return;
    const int ox = offset[0], oy = offset[1], oz = offset[2];

    if (ox < 0) {
        // Bit by bit: clear wherever the source coordinate is negative.
        for (int z = 0; z < n[2]; ++z)
            for (int y = 0; y < n[1]; ++y)
                for (int x = 0; x < n[0]; ++x) {
                    const int sx = x + ox, sy = y + oy, sz = z + oz;
                    if (sx < 0 || sy < 0 || sz < 0 || src->GetBit(sx, sy, sz) == 0)
                        SetBitOff(x, y, z);
                    else
                        SetBitOn(x, y, z);
                }
        return;
    }

    // By words: slices outside src and lines of negative source y are left as
    // they are. The aligned copy moves ((n + 30) >> 5) + 1 words and may run one
    // word past the line (into the next line, or the guard after the last).
    const int s = ox & 31, nx = n[0];
    const int alignedWords = ((nx + 30) >> 5) + 1;
    const int outWords = (nx + 31) >> 5;
    const int pairWords = (s + nx - 1) >> 5 < outWords ? (s + nx - 1) >> 5 : outWords;
    for (int z = 0; z < n[2]; ++z) {
        const int sz = z + oz;
        if (sz < 0 || sz >= src->dims[2]) continue;
        for (int y = 0; y < n[1]; ++y) {
            const int sy = y + oy;
            if (sy < 0) continue;
            unsigned int* d = GetLineAddress(y, z);
            unsigned int const* p = src->GetLineAddress(sy, sz) + (ox >> 5);
            if (s == 0) {
                memcpy(d, p, (size_t)alignedWords * 4);
                continue;
            }
            int k = 0;
            for (; k < pairWords; ++k) d[k] = (p[k] >> s) | (p[k + 1] << (32 - s));
            if (k < outWords) d[k] = p[k] >> s;
        }
    }
}

VX_3Vec VX_BitVol::CenterOfMass()
{
    const int X = dims[0], wpl = wordsPerLine;
    long long n = 0;
    double sx = 0, sy = 0, sz = 0;
    if (wpl > 0) {
        const unsigned int tail = tailMask(X);
        for (int z = 0; z < dims[2]; ++z)
            for (int y = 0; y < dims[1]; ++y) {
                unsigned int const* p = GetLineAddress(y, z);
                long long lineCount = 0;
                for (int w = 0; w < wpl; ++w) {
                    unsigned int word = w == wpl - 1 ? p[w] & tail : p[w];
                    lineCount += __builtin_popcount(word);
                    while (word) {
                        sx += w * 32 + lowestBit(word);
                        word &= word - 1;
                    }
                }
                n += lineCount;
                sy += (double)y * lineCount;
                sz += (double)z * lineCount;
            }
    }
    if (n == 0) return VX_3Vec(-1, -1, -1);
    return VX_3Vec((float)(0.5 + sx / n), (float)(0.5 + sy / n), (float)(0.5 + sz / n));
}

// Each output bit ors a 2x2x2 block. Source words enter an accumulator from
// the top, 16 bits each; two make an output word. A lone last source word is
// stored with its 16 bits in the upper half.
VX_BitVol* VX_BitVol::Shrink()
{
    VX_BitVol* r = new VX_BitVol(dims[0] / 2, dims[1] / 2, dims[2] / 2);
    const int swpl = wordsPerLine, owpl = r->wordsPerLine;
    for (int z = 0; z < r->dims[2]; ++z)
        for (int y = 0; y < r->dims[1]; ++y) {
            unsigned int const* a = GetLineAddress(2 * y, 2 * z);
            unsigned int const* b = GetLineAddress(2 * y + 1, 2 * z);
            unsigned int const* c = GetLineAddress(2 * y, 2 * z + 1);
            unsigned int const* e = GetLineAddress(2 * y + 1, 2 * z + 1);
            unsigned int* out = r->GetLineAddress(y, z);
            for (int k = 0; k < owpl; ++k) {
                unsigned int acc = 0;
                for (int i = 2 * k; i < 2 * k + 2 && i < swpl; ++i)
                    acc = (acc >> 16) | (pairOr16(a[i] | b[i] | c[i] | e[i]) << 16);
                out[k] = acc;
            }
        }
    return r;
}

VX_BitVol** VX_BitVol::Split(int n)
{
    VX_BitVol** parts = new VX_BitVol*[n];
    for (int i = 0; i < n; ++i) {
        parts[i] = new VX_BitVol(dims[0], dims[1], dims[2]);
        parts[i]->Clear();
    }
    int* lines = ComputeSplittingLines(n);
    for (int i = 0; i < n; ++i) {
        const int z0 = lines[i] > 0 ? lines[i] : 0;
        const int z1 = lines[i + 1] < dims[2] ? lines[i + 1] : dims[2];
        for (int z = z0; z < z1; ++z)
            memcpy(parts[i]->slices[z], slices[z], (size_t)wordsPerSlice * 4);
    }
    delete[] lines;
    return parts;
}

// Rule: each coordinate less half a voxel (kTriHalfVoxel) gives an index
// (>> 18) and a 15-bit fraction ((>> 3) & 32767). The four lines' two-bit
// patterns pick 0, 32768 - fx, fx or 32768; then p, q along y and r along z,
// each a + (((b - a) * f) >> 15). Set when r >= (threshold >> 3) & 32767.
int VX_BitVol::TriLinGetBit(int x, int y, int z, int threshold)
{
    const int ax = x - kTriHalfVoxel, ay = y - kTriHalfVoxel, az = z - kTriHalfVoxel;
    const int ix = ax >> kTriFracBits, iy = ay >> kTriFracBits, iz = az >> kTriFracBits;
    if (ix < 0 || iy < 0 || iz < 0) return 0;
    const int wi = ix >> 5, bi = ix & 31;
    unsigned int pat[4];
    for (int i = 0; i < 4; ++i) {
        unsigned int const* p = GetLineAddress(iy + (i & 1), iz + (i >> 1));
        if (bi == 31)
            pat[i] = (p[wi] >> 31) | ((p[wi + 1] & 1) << 1);
        else
            pat[i] = (p[wi] >> bi) & 3;
    }
    if (pat[0] == 3 && pat[1] == 3 && pat[2] == 3 && pat[3] == 3) return 1;
    if ((pat[0] | pat[1] | pat[2] | pat[3]) == 0) return 0;
    const int mask = kTriOne - 1, shift = kTriFracBits - kTriWeightBits;
    const int fx = (ax >> shift) & mask, fy = (ay >> shift) & mask, fz = (az >> shift) & mask;
    const int table[4] = {0, kTriOne - fx, fx, kTriOne};
    const int a = table[pat[0]], b = table[pat[1]], c = table[pat[2]], d = table[pat[3]];
    const int p = a + (((b - a) * fy) >> kTriWeightBits);
    const int q = c + (((d - c) * fy) >> kTriWeightBits);
    const int r = p + ((fz * (q - p)) >> kTriWeightBits);
    return r >= ((threshold >> shift) & mask) ? 1 : 0;
}

void VX_BitVol::Debug()
{
    const int X = dims[0], Y = dims[1], Z = dims[2];
    printf("bv size %d x %d x %d\n", X, Y, Z);
    for (int z = 0; z < Z; ++z) {
        printf("\n");
        printf("     ");
        for (int x = 0; x < X; ++x) printf("%d", (x / 10) % 10);
        printf("\n");
        printf("     ");
        for (int x = 0; x < X; ++x) printf("%d", x % 10);
        printf("\n");
        for (int y = 0; y < Y; ++y) {
            printf("%3d  ", y);
            for (int x = 0; x < X; ++x) printf(GetBit(x, y, z) ? "x" : ".");
            printf("\n");
        }
    }
}

// n > 0 clears a shell of n voxels: the first and last n slices (when Z > 1),
// lines and bits. Bits are cleared from the last word's valid bits (X & 31, or
// 32) down, then from the word before; the tails go too, so the result is clean.
void VX_BitVol::ClearBoundary(int n)
{
    if (n < 0) return;
    const int X = dims[0], Y = dims[1], Z = dims[2], wpl = wordsPerLine;
    if (wpl == 0) {
        clean = true;
        return;
    }
    const unsigned int tail = tailMask(X);
    if (n == 0) {
        if ((X & 31) != 0 && !clean)
            for (int z = 0; z < Z; ++z) {
                unsigned int* p = slices[z] + wpl - 1;
                for (int y = 0; y < Y; ++y, p += wpl) *p &= tail;
            }
        clean = true;
        return;
    }
    const int valid = (X & 31) == 0 ? 32 : (X & 31);
    // Bits kept in the first word, the last word and the word before it.
    const unsigned int firstKeep = n >= 32 ? 0u : ~0u << n;
    unsigned int lastKeep, beforeKeep = ~0u;
    if (n <= valid) {
        lastKeep = (unsigned int)((1ull << (valid - n)) - 1);
    } else {
        lastKeep = 0;
        const int rest = n - valid;
        beforeKeep = rest >= 32 ? 0u : (unsigned int)((1ull << (32 - rest)) - 1);
    }
    for (int z = 0; z < Z; ++z) {
        unsigned int* s = slices[z];
        if (Z > 1 && (z < n || z >= Z - n)) {
            memset(s, 0, (size_t)wordsPerSlice * 4);
            continue;
        }
        for (int y = 0; y < Y; ++y) {
            unsigned int* p = s + (size_t)y * wpl;
            if (y < n || y >= Y - n) {
                memset(p, 0, (size_t)wpl * 4);
                continue;
            }
            p[0] &= firstKeep;
            p[wpl - 1] &= lastKeep;
            if (n > valid && wpl > 1) p[wpl - 2] &= beforeKeep;
        }
    }
    clean = true;
}

// ---- bounding operations ----

void VX_BitVol::CalcBoundingBox(int* size, int* min)
{
    const int wpl = wordsPerLine;
    int lo[3] = {dims[0], dims[1], dims[2]}, hi[3] = {-1, -1, -1};
    if (wpl > 0) {
        const unsigned int tail = tailMask(dims[0]);
        for (int z = 0; z < dims[2]; ++z)
            for (int y = 0; y < dims[1]; ++y) {
                unsigned int const* p = GetLineAddress(y, z);
                int first = -1, last = -1;
                for (int w = 0; w < wpl; ++w) {
                    unsigned int word = w == wpl - 1 ? p[w] & tail : p[w];
                    if (word == 0) continue;
                    if (first < 0) first = w * 32 + lowestBit(word);
                    last = w * 32 + highestBit(word);
                }
                if (first < 0) continue;
                if (first < lo[0]) lo[0] = first;
                if (last > hi[0]) hi[0] = last;
                if (y < lo[1]) lo[1] = y;
                if (y > hi[1]) hi[1] = y;
                if (z < lo[2]) lo[2] = z;
                hi[2] = z;
            }
    }
    for (int i = 0; i < 3; ++i) {
        if (hi[0] < 0) {
            size[i] = min[i] = 0;
            continue;
        }
        size[i] = hi[i] - lo[i] + 1;
        min[i] = lo[i];
    }
}

void VX_BitVol::CalcBoundingRect(VX_Rect* r)
{
    int size[3], min[3];
    VX_BitVol::CalcBoundingBox(size, min);
    *r = VX_Rect(min[0], min[1], size[0], size[1]);
}

// With no bit set the limits are 0 and -1, an empty range.
void VX_BitVol::CalcZLimits(int* limits)
{
    int first = -1, last = -1;
    const int wpl = wordsPerLine;
    if (wpl > 0) {
        const unsigned int tail = tailMask(dims[0]);
        for (int z = 0; z < dims[2]; ++z) {
            unsigned int const* p = slices[z];
            bool any = false;
            for (int y = 0; y < dims[1] && !any; ++y, p += wpl) {
                for (int w = 0; w < wpl - 1 && !any; ++w) any = p[w] != 0;
                any = any || (p[wpl - 1] & tail) != 0;
            }
            if (!any) continue;
            if (first < 0) first = z;
            last = z;
        }
    }
    limits[0] = first < 0 ? 0 : first;
    limits[1] = last;
}

// Boundary i is the slice at which the running count of set bits comes
// nearest to i / n of the total; with no bit set the slices are divided evenly.
int* VX_BitVol::ComputeSplittingLines(int n)
{
    const int Z = dims[2];
    int* lines = new int[n + 1];
    long long* cum = new long long[Z + 1];
    cum[0] = 0;
    for (int z = 0; z < Z; ++z) cum[z + 1] = cum[z] + countWords(slices[z], wordsPerSlice);
    const long long total = cum[Z];
    lines[0] = 0;
    int z = 0;
    for (int i = 1; i < n; ++i) {
        if (total == 0) {
            lines[i] = (int)((long long)i * Z / n);
            continue;
        }
        // Targets scaled by n to stay in integers: cum[z] * n against i * total.
        const long long target = (long long)i * total;
        while (z < Z && cum[z + 1] * n <= target) ++z;
        if (z < Z && cum[z + 1] * n - target < target - cum[z] * n) ++z;
        lines[i] = z;
    }
    if (n > 0) lines[n] = Z;
    delete[] cum;
    return lines;
}

// ---- sequential iterator ----

VX_BVSeqIterator::VX_BVSeqIterator(VX_BitVol* v)
    : x(-1), y(-1), z(-1), wordPtr(nullptr), word(0), vol(v)
{
    if (v->dims[2] < 1) return;
    GoToSlice(0);
}

bool VX_BVSeqIterator::GoToSlice(int zz)
{
    const int n = vol->wordsPerSlice;
    if (zz < 0) zz = 0;
    for (; zz < vol->dims[2]; ++zz) {
        unsigned int* p = vol->slices[zz];
        for (int w = 0; w < n; ++w) {
            if (p[w] == 0) continue;
            const int t = lowestBit(p[w]);
            z = zz;
            y = w / vol->wordsPerLine;
            x = (w % vol->wordsPerLine) * 32 + t;
            wordPtr = p + w;
            word = p[w] >> t;
            return true;
        }
    }
    x = y = z = -1;
    return false;
}

bool VX_BVSeqIterator::operator++(int)
{
    word >>= 1;
    ++x;
    if (word & 1) return true;
    bool loaded = false;
    if ((x & 31) == 0 && x < vol->dims[0]) {
        word = *++wordPtr;
        if (word & 1) return true;
        loaded = true;
    }
    if (word != 0) {
        const int t = lowestBit(word);
        word >>= t;
        x += t;
        return false;
    }
    // Nothing more in the word at wordPtr: go on from the start of the next one.
    x = loaded ? x + 32 : ((x - 1) | 31) + 1;
    return scan();
}

bool VX_BVSeqIterator::scan()
{
    const int X = vol->dims[0], Y = vol->dims[1], Z = vol->dims[2];
    for (;;) {
        if (x >= X) {
            x = 0;
            if (++y >= Y) {
                y = 0;
                if (++z >= Z) {
                    x = y = z = -1;
                    return false;
                }
                wordPtr = vol->slices[z] - 1;
            }
        }
        const unsigned int w = *++wordPtr;
        if (w != 0) {
            const int t = lowestBit(w);
            word = w >> t;
            x += t;
            return false;
        }
        x += 32;
    }
}

// ---- bit iterator ----

VX_BitVolIterator::VX_BitVolIterator(VX_BitVol* v, int x_, int y_, int z_)
    : x(x_), y(y_), z(z_), wordPtr(nullptr), bits(0), bitsLeft(0), bitsInWord(0), vol(v)
{
    Update();
}

void VX_BitVolIterator::Update()
{
    unsigned int* p = vol->slices[z] + (x >> 5) + y * vol->wordsPerLine;
    bits = *p >> (x & 31);
    bitsLeft = bitsInWord = 32 - (x & 31);
    wordPtr = p + 1;
}

int VX_BitVolIterator::operator++(int)
{
    const int r = (int)(bits & 1);
    if (--bitsLeft > 0) {
        if (bits == 0) return 0;
        bits >>= 1;
        return r;
    }
    const int X = vol->dims[0];
    x += bitsInWord;
    if (x >= X) {
        x = 0;
        if (++y >= vol->dims[1]) {
            y = 0;
            if (++z >= vol->dims[2]) {
                z = 0;
                wordPtr = vol->slices[0];
                bits = *wordPtr++;
                bitsLeft = bitsInWord = 32;
                return r;
            }
            wordPtr = vol->slices[z];
        }
    }
    bits = *wordPtr++;
    bitsLeft = bitsInWord = X - x < 32 ? X - x : 32;
    return r;
}
