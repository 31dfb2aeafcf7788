#include "VX_ClippingBoundsManager.h"

#include <stdio.h>

#include <algorithm>
#include <vector>

#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include "../VX_Types/VX_CPU.h"
#include "VX_ClippingObjectManager.h"

namespace {

// Below this many pairs a transposition runs on one thread.
constexpr long long kParallelPairs = 16384;

inline void setEmpty(short* D, int x)
{
    D[2 * x] = 0;
    D[2 * x + 1] = -1;
}

inline bool rowEmpty(short const* S, int r, int m)
{
    return std::max((int)S[2 * r], 0) > std::min((int)S[2 * r + 1], m - 1);
}

// Rule: S holds n intervals over the columns 0..m-1, read clamped to that range
// (a row left with first > last is empty); D gets m intervals over the rows.
// From the first non-empty row i, a span starts as the single column
// S[i].first, which gets first = i; walking down the non-empty rows it widens
// one column at a time, and each column it takes in gets the row that brought
// it (first). The same walk from the last non-empty row upward gives last.
// Columns outside the span, and every column of an empty slice, get (0, -1).
void transposeSliceRef(short const* S, int n, short* D, int m)
{
    int i = 0, j = n - 1;
    while (i < n && rowEmpty(S, i, m)) ++i;
    for (int x = 0; x < m; ++x) setEmpty(D, x);
    if (i == n) return;
    while (rowEmpty(S, j, m)) --j;
    for (int side = 0; side < 2; ++side) {
        int start = side ? j : i, step = side ? -1 : 1;
        int lo = std::max((int)S[2 * start], 0), hi = lo;
        D[2 * lo + side] = (short)start;
        for (int r = start; r >= i && r <= j; r += step) {
            if (rowEmpty(S, r, m)) continue;
            while (std::max((int)S[2 * r], 0) < lo) D[2 * --lo + side] = (short)r;
            while (std::min((int)S[2 * r + 1], m - 1) > hi) D[2 * ++hi + side] = (short)r;
        }
    }
}

#if defined(__SSE2__)

// Keep equal to transposeSliceRef. Both walks take 8 rows at a time: running
// minima and maxima give the span before and after each row, and each row
// stores its number to the 8 columns just outside the span before it, on both
// sides. Those columns are undecided, so the store is right where the row
// widens the span (steps wider than 8 are completed exactly) and harmless
// where it does not: a later row or the final empty fill overwrites it. Each
// walk fills one column array, interleaved into the pairs at the end. The two
// walks alternate until together they have seen every row, then each goes on
// only until its span is the whole one.

constexpr int kPad = 8;          // scratch columns on either side of a column array
constexpr int kMaxVectorDim = 32000;   // 16-bit lanes hold rows, columns and 32767 marks

// Lanes moved by kBytes toward the end of a walk: up for a downward walk
// (rows in lanes 0..7), down for an upward one (rows in lanes 7..0).
template <bool kUp, int kBytes>
inline __m128i shiftOn(__m128i v)
{
    if constexpr (kUp)
        return _mm_srli_si128(v, kBytes);
    else
        return _mm_slli_si128(v, kBytes);
}

// Constants of one direction of walk: 32767 and -32768 in the lanes that a
// shift by 2, 4 and 8 bytes empties, and all ones in the lane walked first.
struct WalkLanes {
    __m128i max1, max2, max4, min1, min2, min4, edge;
    explicit WalkLanes(bool up)
    {
        __m128i big = _mm_set1_epi16(0x7FFF), small = _mm_set1_epi16((short)0x8000);
        __m128i ones = _mm_set1_epi16(-1);
        max1 = up ? _mm_slli_si128(big, 14) : _mm_srli_si128(big, 14);
        max2 = up ? _mm_slli_si128(big, 12) : _mm_srli_si128(big, 12);
        max4 = up ? _mm_slli_si128(big, 8) : _mm_srli_si128(big, 8);
        min1 = up ? _mm_slli_si128(small, 14) : _mm_srli_si128(small, 14);
        min2 = up ? _mm_slli_si128(small, 12) : _mm_srli_si128(small, 12);
        min4 = up ? _mm_slli_si128(small, 8) : _mm_srli_si128(small, 8);
        edge = up ? _mm_slli_si128(ones, 14) : _mm_srli_si128(ones, 14);
    }
};

struct Lanes {
    __m128i lowClamp, highClamp, x7fff, eight;
    WalkLanes down{false}, up{true};
    explicit Lanes(int m)
    {
        lowClamp = _mm_set1_epi32((int)0x80000000u);                          // (0, -32768)
        highClamp = _mm_set1_epi32((int)(((unsigned)(m - 1) << 16) | 0x7FFF));   // (32767, m - 1)
        x7fff = _mm_set1_epi16(0x7FFF);
        eight = _mm_set1_epi16(8);
    }
};

// 8 pairs -> clamped firsts and lasts; an empty row becomes (32767, -32768),
// which neither widens a span nor ends one.
inline void load8(short const* S, Lanes const& c, __m128i& f, __m128i& l)
{
    __m128i a = _mm_min_epi16(_mm_max_epi16(_mm_loadu_si128((__m128i const*)S), c.lowClamp), c.highClamp);
    __m128i b = _mm_min_epi16(_mm_max_epi16(_mm_loadu_si128((__m128i const*)(S + 8)), c.lowClamp), c.highClamp);
    f = _mm_packs_epi32(_mm_srai_epi32(_mm_slli_epi32(a, 16), 16), _mm_srai_epi32(_mm_slli_epi32(b, 16), 16));
    l = _mm_packs_epi32(_mm_srai_epi32(a, 16), _mm_srai_epi32(b, 16));
    __m128i e = _mm_cmpgt_epi16(f, l);
    f = _mm_max_epi16(f, _mm_and_si128(e, c.x7fff));
    l = _mm_min_epi16(l, _mm_xor_si128(e, c.x7fff));
}

// 8 pairs that may reach past the rows 0..n-1 of S; missing rows are empty.
inline void load8Partial(short const* S, int n, int r0, Lanes const& c, __m128i& f, __m128i& l)
{
    alignas(16) short t[16];
    for (int k = 0; k < 8; ++k) {
        bool in = r0 + k >= 0 && r0 + k < n;
        t[2 * k] = in ? S[2 * (r0 + k)] : 1;
        t[2 * k + 1] = in ? S[2 * (r0 + k) + 1] : 0;
    }
    load8(t, c, f, l);
}

// T[a..b] = r, nothing outside; nothing when b < a.
inline void fillExact(short* T, int a, int b, __m128i r)
{
    if (b - a < 7) {
        for (int x = a; x <= b; ++x) T[x] = (short)_mm_cvtsi128_si32(r);
        return;
    }
    for (int x = a; x < b - 7; x += 8) _mm_storeu_si128((__m128i*)(T + x), r);
    _mm_storeu_si128((__m128i*)(T + b - 7), r);
}

struct Walk {
    short* T;       // column array, kPad columns of margin on either side
    int lo, hi;     // the span so far
    int row;        // next row
};

// One block of 8 rows. Downward: rows w.row .. w.row + 7 in lanes 0..7.
// Upward: rows w.row - 7 .. w.row in lanes 0..7, walked from lane 7.
template <bool kUp>
inline void walkBlock(__m128i f, __m128i l, Walk& w, Lanes const& c)
{
    WalkLanes const& d = kUp ? c.up : c.down;
    __m128i loV = _mm_set1_epi16((short)w.lo), hiV = _mm_set1_epi16((short)w.hi);

    // Span after each row: running minimum of first, maximum of last.
    __m128i p = _mm_min_epi16(f, _mm_or_si128(shiftOn<kUp, 2>(f), d.max1));
    __m128i q = _mm_max_epi16(l, _mm_or_si128(shiftOn<kUp, 2>(l), d.min1));
    p = _mm_min_epi16(p, _mm_or_si128(shiftOn<kUp, 4>(p), d.max2));
    q = _mm_max_epi16(q, _mm_or_si128(shiftOn<kUp, 4>(q), d.min2));
    p = _mm_min_epi16(p, _mm_or_si128(shiftOn<kUp, 8>(p), d.max4));
    q = _mm_max_epi16(q, _mm_or_si128(shiftOn<kUp, 8>(q), d.min4));
    p = _mm_min_epi16(p, loV);
    q = _mm_max_epi16(q, hiV);
    // Span before each row; all of it lies in 0..m-1.
    __m128i pp = _mm_or_si128(shiftOn<kUp, 2>(p), _mm_and_si128(loV, d.edge));
    __m128i qq = _mm_or_si128(shiftOn<kUp, 2>(q), _mm_and_si128(hiV, d.edge));

    short* T = w.T;
    __m128i rv = _mm_set1_epi16((short)w.row);
    const __m128i step = _mm_set1_epi16(kUp ? -1 : 1);
#define VX_STORE_ROW(k)                                                                     \
    _mm_storeu_si128((__m128i*)(T + (unsigned)_mm_extract_epi16(pp, k) - 8), rv);          \
    _mm_storeu_si128((__m128i*)(T + (unsigned)_mm_extract_epi16(qq, k) + 1), rv);          \
    rv = _mm_add_epi16(rv, step);
    if constexpr (kUp) {
        VX_STORE_ROW(7) VX_STORE_ROW(6) VX_STORE_ROW(5) VX_STORE_ROW(4)
        VX_STORE_ROW(3) VX_STORE_ROW(2) VX_STORE_ROW(1) VX_STORE_ROW(0)
    } else {
        VX_STORE_ROW(0) VX_STORE_ROW(1) VX_STORE_ROW(2) VX_STORE_ROW(3)
        VX_STORE_ROW(4) VX_STORE_ROW(5) VX_STORE_ROW(6) VX_STORE_ROW(7)
    }
#undef VX_STORE_ROW

    __m128i wide = _mm_or_si128(_mm_cmpgt_epi16(_mm_sub_epi16(pp, p), c.eight),
                                _mm_cmpgt_epi16(_mm_sub_epi16(q, qq), c.eight));
    if (int bits = _mm_movemask_epi8(wide)) {
        alignas(16) short A[8], B[8], P[8], Q[8];
        _mm_store_si128((__m128i*)A, pp);
        _mm_store_si128((__m128i*)B, qq);
        _mm_store_si128((__m128i*)P, p);
        _mm_store_si128((__m128i*)Q, q);
        do {
            int k = __builtin_ctz((unsigned)bits) >> 1;
            bits &= ~(3 << (2 * k));
            __m128i r = _mm_set1_epi16((short)(kUp ? w.row - 7 + k : w.row + k));
            fillExact(T, P[k], A[k] - 9, r);
            fillExact(T, B[k] + 9, Q[k], r);
        } while (bits);
    }
    w.lo = _mm_extract_epi16(p, kUp ? 0 : 7);
    w.hi = _mm_extract_epi16(q, kUp ? 0 : 7);
    w.row += kUp ? -8 : 8;
}

template <bool kUp>
inline void walk(short const* S, int n, Walk& w, Lanes const& c)
{
    int r0 = kUp ? w.row - 7 : w.row;
    __m128i f, l;
    if (r0 >= 0 && r0 + 8 <= n)
        load8(S + 2 * r0, c, f, l);
    else
        load8Partial(S, n, r0, c, f, l);
    walkBlock<kUp>(f, l, w, c);
}

// Bit k set when row k of 16 has first <= last as stored (before clamping).
inline int storedNonEmpty16(short const* S)
{
    const __m128i diff = _mm_set1_epi32((int)0xFFFF0001u);   // first * 1 + last * -1
    const __m128i zero = _mm_setzero_si128();
    __m128i a = _mm_madd_epi16(_mm_loadu_si128((__m128i const*)S), diff);
    __m128i b = _mm_madd_epi16(_mm_loadu_si128((__m128i const*)(S + 8)), diff);
    __m128i x = _mm_madd_epi16(_mm_loadu_si128((__m128i const*)(S + 16)), diff);
    __m128i y = _mm_madd_epi16(_mm_loadu_si128((__m128i const*)(S + 24)), diff);
    __m128i empty = _mm_packs_epi16(_mm_cmpgt_epi16(_mm_packs_epi32(a, b), zero),
                                    _mm_cmpgt_epi16(_mm_packs_epi32(x, y), zero));
    return _mm_movemask_epi8(empty) ^ 0xFFFF;
}

inline void emptyRange(short* D, int from, int to)
{
    const __m128i e = _mm_set1_epi32((int)0xFFFF0000u);   // (0, -1)
    int x = from;
    for (; x + 16 <= to; x += 16) {
        _mm_storeu_si128((__m128i*)(D + 2 * x), e);
        _mm_storeu_si128((__m128i*)(D + 2 * x + 8), e);
        _mm_storeu_si128((__m128i*)(D + 2 * x + 16), e);
        _mm_storeu_si128((__m128i*)(D + 2 * x + 24), e);
    }
    for (; x + 4 <= to; x += 4) _mm_storeu_si128((__m128i*)(D + 2 * x), e);
    for (; x < to; ++x) setEmpty(D, x);
}

// The first and last non-empty rows i and j; false when there is none.
inline bool nonEmptyRows(short const* S, int n, int m, int& i, int& j)
{
    i = 0, j = n - 1;
    for (int bits; i + 16 <= n; i += 16)
        if ((bits = storedNonEmpty16(S + 2 * i))) {
            i += __builtin_ctz((unsigned)bits);
            break;
        }
    while (i < n && rowEmpty(S, i, m)) ++i;
    if (i == n) return false;
    for (int bits; j - 15 > i; j -= 16)
        if ((bits = storedNonEmpty16(S + 2 * (j - 15)))) {
            j -= __builtin_clz((unsigned)bits) - 16;
            break;
        }
    while (rowEmpty(S, j, m)) --j;
    return true;
}

// D = (first[x], last[x]) for lo <= x <= hi and (0, -1) elsewhere.
inline void interleaveColumns(short* D, int m, int lo, int hi, short const* first, short const* last)
{
    emptyRange(D, 0, lo);
    int x = lo;
    for (; x + 8 <= hi + 1; x += 8) {
        __m128i a = _mm_loadu_si128((__m128i const*)(first + x));
        __m128i b = _mm_loadu_si128((__m128i const*)(last + x));
        _mm_storeu_si128((__m128i*)(D + 2 * x), _mm_unpacklo_epi16(a, b));
        _mm_storeu_si128((__m128i*)(D + 2 * x + 8), _mm_unpackhi_epi16(a, b));
    }
    for (; x <= hi; ++x) {
        D[2 * x] = first[x];
        D[2 * x + 1] = last[x];
    }
    emptyRange(D, hi + 1, m);
}

// F and L: scratch of m + 2 * kPad shorts each.
void transposeSliceSSE2(short const* S, int n, short* D, int m, short* F, short* L)
{
    int i, j;
    if (!nonEmptyRows(S, n, m, i, j)) {
        emptyRange(D, 0, m);
        return;
    }
    Lanes c(m);
    Walk down{F + kPad, 0, 0, i}, up{L + kPad, 0, 0, j};
    down.lo = down.hi = std::max((int)S[2 * i], 0);
    up.lo = up.hi = std::max((int)S[2 * j], 0);
    down.T[down.lo] = (short)i;
    up.T[up.lo] = (short)j;
    while (down.row <= up.row) {
        walk<false>(S, n, down, c);
        walk<true>(S, n, up, c);
    }
    int lo = std::min(down.lo, up.lo), hi = std::max(down.hi, up.hi);
    while (down.lo != lo || down.hi != hi) walk<false>(S, n, down, c);
    while (up.lo != lo || up.hi != hi) walk<true>(S, n, up, c);

    interleaveColumns(D, m, lo, hi, down.T, up.T);
}

#if defined(__GNUC__)
#define VX_HAVE_AVX2_TRANSPOSE 1
#define VX_AVX2_FN __attribute__((target("avx2")))

// The same two walks with AVX2, eight rows a block. Each row is one 32-bit
// pair (first, -last), read clamped, so that one running minimum gives both
// ends of the span; an empty row becomes (32767, 32767). A block in which no
// row widens the span by more than one column on either side writes its new
// columns with one store per side: the numbers of the rows that widen it,
// packed in walk order. Any other block stores per row, as the SSE2 walk does.

// For each 8-bit mask, the byte shuffle that packs the 16-bit lanes of its set
// bits, lowest first, into the lowest lanes.
struct PackShuffles {
    alignas(16) signed char c[256][16];
    constexpr PackShuffles() : c{}
    {
        for (int m = 0; m < 256; ++m) {
            int j = 0;
            for (int k = 0; k < 8; ++k)
                if (m >> k & 1) {
                    c[m][2 * j] = (signed char)(2 * k);
                    c[m][2 * j + 1] = (signed char)(2 * k + 1);
                    ++j;
                }
            for (; j < 8; ++j) c[m][2 * j] = c[m][2 * j + 1] = -128;
        }
    }
};
constexpr PackShuffles kPackShuffles;

struct PairLanes {
    __m256i low, high, sign, empty;
    VX_AVX2_FN explicit PairLanes(int m)
    {
        low = _mm256_set1_epi32((int)0x80000000u);                          // (0, -32768)
        high = _mm256_set1_epi32((int)(((unsigned)(m - 1) << 16) | 0x7FFF));   // (32767, m - 1)
        sign = _mm256_set1_epi32((int)0xFFFF0001u);                          // (1, -1)
        empty = _mm256_set1_epi32(0x7FFF7FFF);
    }
};

VX_AVX2_FN inline __m256i pairs8(__m256i v, PairLanes const& c)
{
    v = _mm256_min_epi16(_mm256_max_epi16(v, c.low), c.high);
    __m256i empty = _mm256_cmpgt_epi32(_mm256_madd_epi16(v, c.sign), _mm256_setzero_si256());   // first - last > 0
    return _mm256_blendv_epi8(_mm256_sign_epi16(v, c.sign), c.empty, empty);
}

VX_AVX2_FN inline __m256i pairs8Partial(short const* S, int n, int r0, PairLanes const& c)
{
    alignas(32) short t[16];
    for (int k = 0; k < 8; ++k) {
        bool in = r0 + k >= 0 && r0 + k < n;
        t[2 * k] = in ? S[2 * (r0 + k)] : 1;
        t[2 * k + 1] = in ? S[2 * (r0 + k) + 1] : 0;
    }
    return pairs8(_mm256_load_si256((__m256i const*)t), c);
}

struct PairWalk {
    short* T;       // column array, kPad columns of margin on either side
    __m256i span;   // (lo, -hi) of the span so far, in every pair
    int row;        // next row
};

VX_AVX2_FN inline int spanLo(PairWalk const& w) { return (short)_mm256_cvtsi256_si32(w.span); }
VX_AVX2_FN inline int spanHi(PairWalk const& w) { return -(short)((unsigned)_mm256_cvtsi256_si32(w.span) >> 16); }

// One block of 8 rows, as walkBlock: downward rows w.row .. w.row + 7 in pairs
// 0..7, upward rows w.row - 7 .. w.row in pairs 0..7, walked from pair 7.
template <bool kUp>
VX_AVX2_FN __attribute__((always_inline)) inline void pairWalkBlock(__m256i v, PairWalk& w)
{
    const int top = 0x7FFF7FFF, bottom = (int)0x80008000u;
    // Span after each row: running minimum in walk order within each half,
    // then the first half's result carried into the second.
    __m256i p;
    if constexpr (!kUp) {
        p = _mm256_min_epi16(v, _mm256_or_si256(_mm256_slli_si256(v, 4), _mm256_setr_epi32(top, 0, 0, 0, top, 0, 0, 0)));
        p = _mm256_min_epi16(p, _mm256_or_si256(_mm256_slli_si256(p, 8), _mm256_setr_epi32(top, top, 0, 0, top, top, 0, 0)));
        __m256i carry = _mm256_max_epi16(_mm256_permutevar8x32_epi32(p, _mm256_set1_epi32(3)),
                                         _mm256_setr_epi32(top, top, top, top, bottom, bottom, bottom, bottom));
        p = _mm256_min_epi16(p, _mm256_min_epi16(carry, w.span));
    } else {
        p = _mm256_min_epi16(v, _mm256_or_si256(_mm256_srli_si256(v, 4), _mm256_setr_epi32(0, 0, 0, top, 0, 0, 0, top)));
        p = _mm256_min_epi16(p, _mm256_or_si256(_mm256_srli_si256(p, 8), _mm256_setr_epi32(0, 0, top, top, 0, 0, top, top)));
        __m256i carry = _mm256_max_epi16(_mm256_permutevar8x32_epi32(p, _mm256_set1_epi32(4)),
                                         _mm256_setr_epi32(bottom, bottom, bottom, bottom, top, top, top, top));
        p = _mm256_min_epi16(p, _mm256_min_epi16(carry, w.span));
    }
    // Span before each row.
    __m256i pp = kUp ? _mm256_alignr_epi8(_mm256_permute2x128_si256(p, w.span, 0x21), p, 4)
                     : _mm256_alignr_epi8(p, _mm256_permute2x128_si256(w.span, p, 0x20), 12);
    __m256i widen = _mm256_sub_epi16(pp, p);   // columns each row adds, on either side
    const __m256i one = _mm256_set1_epi16(1);
    short* T = w.T;
    unsigned before = (unsigned)_mm256_cvtsi256_si32(w.span);
    if (!_mm256_movemask_epi8(_mm256_cmpgt_epi16(widen, one))) {
        __m256i by1 = _mm256_cmpeq_epi16(widen, one);
        if constexpr (kUp) by1 = _mm256_permutevar8x32_epi32(by1, _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0));
        int right = _mm256_movemask_ps(_mm256_castsi256_ps(by1));
        int left = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_slli_epi32(by1, 16)));
        __m128i rows = _mm_add_epi16(_mm_set1_epi16((short)w.row), kUp ? _mm_setr_epi16(0, -1, -2, -3, -4, -5, -6, -7)
                                                                       : _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7));
        __m128i r = _mm_shuffle_epi8(rows, _mm_load_si128((__m128i const*)kPackShuffles.c[right]));
        __m128i l = _mm_shuffle_epi8(rows, _mm_load_si128((__m128i const*)kPackShuffles.c[left]));
        l = _mm_shuffle_epi8(l, _mm_setr_epi8(14, 15, 12, 13, 10, 11, 8, 9, 6, 7, 4, 5, 2, 3, 0, 1));
        _mm_storeu_si128((__m128i*)(T + (unsigned short)before - 8), l);
        _mm_storeu_si128((__m128i*)(T + 1 - (short)(before >> 16)), r);
    } else {
        __m128i lo4 = _mm256_castsi256_si128(pp), hi4 = _mm256_extracti128_si256(pp, 1);
        unsigned long long e0 = (unsigned long long)_mm_cvtsi128_si64(lo4);
        unsigned long long e1 = (unsigned long long)_mm_extract_epi64(lo4, 1);
        unsigned long long e2 = (unsigned long long)_mm_cvtsi128_si64(hi4);
        unsigned long long e3 = (unsigned long long)_mm_extract_epi64(hi4, 1);
        __m128i rv = _mm_set1_epi16((short)w.row);
        const __m128i step = _mm_set1_epi16(kUp ? -1 : 1);
#define VX_STORE_ROW(e, sh)                                                              \
    _mm_storeu_si128((__m128i*)(T + (unsigned short)((e) >> (sh)) - 8), rv);             \
    _mm_storeu_si128((__m128i*)(T + 1 - (short)((e) >> ((sh) + 16))), rv);               \
    rv = _mm_add_epi16(rv, step);
        if constexpr (kUp) {
            VX_STORE_ROW(e3, 32) VX_STORE_ROW(e3, 0) VX_STORE_ROW(e2, 32) VX_STORE_ROW(e2, 0)
            VX_STORE_ROW(e1, 32) VX_STORE_ROW(e1, 0) VX_STORE_ROW(e0, 32) VX_STORE_ROW(e0, 0)
        } else {
            VX_STORE_ROW(e0, 0) VX_STORE_ROW(e0, 32) VX_STORE_ROW(e1, 0) VX_STORE_ROW(e1, 32)
            VX_STORE_ROW(e2, 0) VX_STORE_ROW(e2, 32) VX_STORE_ROW(e3, 0) VX_STORE_ROW(e3, 32)
        }
#undef VX_STORE_ROW
        if (unsigned bits = (unsigned)_mm256_movemask_epi8(_mm256_cmpgt_epi16(widen, _mm256_set1_epi16(8)))) {
            alignas(32) short A[16], P[16];
            _mm256_store_si256((__m256i*)A, pp);
            _mm256_store_si256((__m256i*)P, p);
            do {
                int k = __builtin_ctz(bits) >> 2;
                bits &= ~(0xFu << (4 * k));
                __m128i r = _mm_set1_epi16((short)(kUp ? w.row - 7 + k : w.row + k));
                fillExact(T, P[2 * k], A[2 * k] - 9, r);
                fillExact(T, 9 - A[2 * k + 1], -P[2 * k + 1], r);
            } while (bits);
        }
    }
    w.span = _mm256_permutevar8x32_epi32(p, _mm256_set1_epi32(kUp ? 0 : 7));
    w.row += kUp ? -8 : 8;
}

template <bool kUp>
VX_AVX2_FN __attribute__((always_inline)) inline void pairWalk(short const* S, int n, PairWalk& w, PairLanes const& c)
{
    int r0 = kUp ? w.row - 7 : w.row;
    __m256i v = r0 >= 0 && r0 + 8 <= n ? pairs8(_mm256_loadu_si256((__m256i const*)(S + 2 * r0)), c)
                                       : pairs8Partial(S, n, r0, c);
    pairWalkBlock<kUp>(v, w);
}

VX_AVX2_FN void transposeSliceAVX2(short const* S, int n, short* D, int m, short* F, short* L)
{
    int i, j;
    if (!nonEmptyRows(S, n, m, i, j)) {
        emptyRange(D, 0, m);
        return;
    }
    PairLanes c(m);
    // Each walk starts with its first row taken in whole: the same columns as
    // widening one column at a time from the row's first.
    int fi = std::max((int)S[2 * i], 0), li = std::min((int)S[2 * i + 1], m - 1);
    int fj = std::max((int)S[2 * j], 0), lj = std::min((int)S[2 * j + 1], m - 1);
    PairWalk down{F + kPad, _mm256_set1_epi32((int)(((unsigned)-li << 16) | (unsigned)fi)), i + 1};
    PairWalk up{L + kPad, _mm256_set1_epi32((int)(((unsigned)-lj << 16) | (unsigned)fj)), j - 1};
    fillExact(down.T, fi, li, _mm_set1_epi16((short)i));
    fillExact(up.T, fj, lj, _mm_set1_epi16((short)j));
    while (down.row <= up.row) {
        pairWalk<false>(S, n, down, c);
        pairWalk<true>(S, n, up, c);
    }
    int lo = std::min(spanLo(down), spanLo(up)), hi = std::max(spanHi(down), spanHi(up));
    while (spanLo(down) != lo || spanHi(down) != hi) pairWalk<false>(S, n, down, c);
    while (spanLo(up) != lo || spanHi(up) != hi) pairWalk<true>(S, n, up, c);
    interleaveColumns(D, m, lo, hi, down.T, up.T);
}

#endif

#endif

}  // namespace

VX_ClippingBoundsManager::VX_ClippingBoundsManager()
    : transposed(false), saveMemory(false), objectManager(nullptr)
{
    bounds[0] = nullptr;
    bounds[1] = nullptr;
    printf("4: this = %p, contruction\n", (void*)this);
}

VX_ClippingBoundsManager::~VX_ClippingBoundsManager()
{
    delete[] bounds[0];
    delete[] bounds[1];
}

VX_Box VX_ClippingBoundsManager::GetBox()
{
    VX_Box b = box;
    if (transposed) b.TransposeXY();
    return b;
}

// With saveMemory, the array of the new arrangement is dropped: the one in use
// stays, and the new one is made again by transposition when it is asked for.
void VX_ClippingBoundsManager::SetTransposed(bool t)
{
    if (t == transposed) return;
    if (saveMemory) {
        int k = transposed ? 1 : 0;
        delete[] bounds[k];
        bounds[k] = nullptr;
        printf("3: this = %p, setting %p(%d) to NULL\n", (void*)this, (void*)&bounds[k], k);
    }
    transposed = t;
}

short* VX_ClippingBoundsManager::GetCBounds(bool update)
{
    int i = transposed ? 0 : 1;
    if (!update) return bounds[i];
    if (!objectManager) return nullptr;
    unsigned int id = objectManager->GetID();
    if (id == 0) return nullptr;
    if (boundsID[i].GetID() == id && bounds[i]) return bounds[i];

    if (boundsID[1 - i].GetID() == id) {
        TransposeCBounds();
        boundsID[i].SetID(id);
        return bounds[i];
    }
    if (!CalcCBounds()) {
        delete[] bounds[i];
        bounds[i] = nullptr;
        printf("2: this = %p, setting %p(%d) to NULL\n", (void*)this, (void*)&bounds[i], i);
        return nullptr;
    }
    boundsID[i].SetID(id);
    return bounds[i];
}

// Starts the current array at (0, nx - 1) everywhere and lets each active
// object, in list order, cut it down. Nothing active leaves it null.
bool VX_ClippingBoundsManager::CalcCBounds()
{
    int i = transposed ? 0 : 1;
    printf("1 this = %p, setting %p(%d) to NULL\n", (void*)this, (void*)&bounds[i], i);
    delete[] bounds[i];
    bounds[i] = nullptr;

    bool ok = true;
    if (objectManager && objectManager->ActiveObjects()) {
        VX_Box b = GetBox();
        int nx = b.GetX();
        long long pairs = (long long)b.GetY() * b.GetZ();
        short* a = new short[2 * pairs];
        for (long long p = 0; p < pairs; ++p) {
            a[2 * p] = 0;
            a[2 * p + 1] = (short)(nx - 1);
        }
        bounds[i] = a;
        for (auto const& o : objectManager->objects) {
            if (!o->IsActive()) continue;
            if (!o->UpdateClippingBounds(this)) {
                ok = false;
                break;
            }
        }
    }
    printf("end of VX_ClippingBoundsManager::CalcCBounds\n");
    return ok;
}

// Makes the current array from the other arrangement's: slice by slice, the
// other's lines (one per x of this arrangement) become this one's columns.
bool VX_ClippingBoundsManager::TransposeCBounds()
{
    printf("begin TransposeCBounds(%p)\n", (void*)this);
    int i = transposed ? 0 : 1;
    VX_Box b = GetBox();
    delete[] bounds[i];
    bounds[i] = nullptr;

    short const* src = bounds[1 - i];
    if (src) {
        int nx = b.GetX(), ny = b.GetY(), nz = b.GetZ();
        long long pairs = (long long)ny * nz;
        short* dst = new short[2 * pairs];
#if defined(__SSE2__)
        bool useSSE2 = (VX_CPU_ID() & VX_CPU_SSE2) && nx <= kMaxVectorDim && ny <= kMaxVectorDim;
#if defined(VX_HAVE_AVX2_TRANSPOSE)
        bool useAVX2 = useSSE2 && (VX_CPU_ID() & VX_CPU_AVX2);
#endif
#endif
#pragma omp parallel if (pairs >= kParallelPairs)
        {
#if defined(__SSE2__)
            std::vector<short> scratch(useSSE2 ? 2 * ((size_t)ny + 2 * kPad) : 0);
#endif
#pragma omp for schedule(static)
            for (int z = 0; z < nz; ++z) {
                short const* S = src + 2 * (long long)z * nx;
                short* D = dst + 2 * (long long)z * ny;
#if defined(__SSE2__)
#if defined(VX_HAVE_AVX2_TRANSPOSE)
                if (useAVX2) {
                    transposeSliceAVX2(S, nx, D, ny, scratch.data(), scratch.data() + ny + 2 * kPad);
                    continue;
                }
#endif
                if (useSSE2) {
                    transposeSliceSSE2(S, nx, D, ny, scratch.data(), scratch.data() + ny + 2 * kPad);
                    continue;
                }
#endif
                transposeSliceRef(S, nx, D, ny);
            }
        }
        bounds[i] = dst;
    }
    printf("done TransposeCBounds(%p)\n", (void*)this);
    return true;
}
