#include "VX_BitVol.h"

#include <algorithm>
#include <math.h>
#include <string.h>
#include <vector>

namespace {

// Volumes of at least this many words are worked on by all threads.
constexpr long long kParallelWords = 1 << 16;

inline int ctz(unsigned int w) { return __builtin_ctz(w); }  // w != 0
inline int clz(unsigned int w) { return __builtin_clz(w); }  // w != 0

// The bits below X in the last word of a line.
inline unsigned int lastWordMask(int X) { return (X & 31) ? (1u << (X & 31)) - 1u : ~0u; }

// ---- Six- and four-face dilation and erosion, 32 voxels per step ----

// One output line. c is the source line; n[] are the lines above and below
// and the lines of the slices before and after (the zero line where they lie
// outside the volume). pad holds wpl + 2 words: c with its tail cleared
// between two zero words, so that the shifts bring in x - 1 and x + 1 and
// treat the line's ends as clear. Only c's tail needs clearing: the other
// lines meet the output bit for bit, and the output tail is cleared.
template <bool kErode>
void morphLine(const unsigned int* c, const unsigned int* const* n, unsigned int* pad, unsigned int* out,
               int wpl, unsigned int lastMask)
{
    pad[0] = 0;
    memcpy(pad + 1, c, (size_t)wpl * 4);
    pad[wpl] &= lastMask;
    pad[wpl + 1] = 0;
    const unsigned int *n0 = n[0], *n1 = n[1], *n2 = n[2], *n3 = n[3];
    for (int w = 0; w < wpl; ++w) {
        unsigned int m = pad[w + 1];
        unsigned int l = (m << 1) | (pad[w] >> 31);      // voxel x - 1
        unsigned int r = (m >> 1) | (pad[w + 2] << 31);  // voxel x + 1
        if (kErode)
            out[w] = m & l & r & n0[w] & n1[w] & n2[w] & n3[w];
        else
            out[w] = m | l | r | n0[w] | n1[w] | n2[w] | n3[w];
    }
    out[wpl - 1] &= lastMask;
}

// One output slice from source slice cur and its neighbours below and above
// (null: outside). Passing cur as below and above leaves only the in-plane
// faces, since and-ing or or-ing a line with itself changes nothing.
template <bool kErode>
void morphSlice(const unsigned int* below, const unsigned int* cur, const unsigned int* above, unsigned int* out,
                int X, int Y, int wpl, const unsigned int* zero, unsigned int* pad)
{
    unsigned int lastMask = lastWordMask(X);
    for (int y = 0; y < Y; ++y) {
        const unsigned int* c = cur + (size_t)y * wpl;
        const unsigned int* n[4] = {y > 0 ? c - wpl : zero, y + 1 < Y ? c + wpl : zero,
                                    below ? below + (size_t)y * wpl : zero, above ? above + (size_t)y * wpl : zero};
        morphLine<kErode>(c, n, pad, out + (size_t)y * wpl, wpl, lastMask);
    }
}

// dst = the six-face dilation or erosion of src (equal dims). src may be dst:
// it is then read from a copy.
template <bool kErode>
void morph6(VX_BitVol* dst, VX_BitVol* src)
{
    const int X = dst->dims[0], Y = dst->dims[1], Z = dst->dims[2];
    const int wpl = dst->wordsPerLine;
    const size_t wps = (size_t)dst->wordsPerSlice;
    dst->clean = true;
    if (X <= 0 || Y <= 0 || Z <= 0) return;
    std::vector<unsigned int> copy;
    std::vector<const unsigned int*> from(Z);
    if (src == dst) {
        copy.resize((size_t)Z * wps);
        for (int z = 0; z < Z; ++z) {
            memcpy(copy.data() + z * wps, src->slices[z], wps * 4);
            from[z] = copy.data() + z * wps;
        }
    } else {
        for (int z = 0; z < Z; ++z) from[z] = src->slices[z];
    }
    std::vector<unsigned int> zero(wpl, 0u);
#pragma omp parallel if ((long long)Z * (long long)wps >= kParallelWords)
    {
        std::vector<unsigned int> pad(wpl + 2);
#pragma omp for schedule(static)
        for (int z = 0; z < Z; ++z)
            morphSlice<kErode>(z > 0 ? from[z - 1] : nullptr, from[z], z + 1 < Z ? from[z + 1] : nullptr,
                               dst->slices[z], X, Y, wpl, zero.data(), pad.data());
    }
}

// ---- Runs of set bits in one line ----

// The first set bit in [x, last], or -1; last < X.
int nextSetBit(const unsigned int* line, int x, int last)
{
    int w = x >> 5;
    unsigned int bits = line[w] & (~0u << (x & 31));
    while (bits == 0) {
        if ((++w << 5) > last) return -1;
        bits = line[w];
    }
    int p = (w << 5) + ctz(bits);
    return p <= last ? p : -1;
}

// The first voxel of the run of set bits holding x.
int runFirst(const unsigned int* line, int x)
{
    int w = x >> 5;
    unsigned int holes = ~line[w] & ((1u << (x & 31)) - 1u);
    while (holes == 0) {
        if (w == 0) return 0;
        holes = ~line[--w];
    }
    return (w << 5) + 32 - clz(holes);
}

// The last voxel of the run of set bits holding x.
int runLast(const unsigned int* line, int x, int wpl)
{
    int w = x >> 5;
    unsigned int holes = ~line[w] & (~0u << (x & 31));
    while (holes == 0) {
        if (++w == wpl) return (wpl << 5) - 1;
        holes = ~line[w];
    }
    return (w << 5) + ctz(holes) - 1;
}

void clearRun(unsigned int* line, int x0, int x1)
{
    int w0 = x0 >> 5, w1 = x1 >> 5;
    unsigned int lo = ~0u << (x0 & 31);         // bits from x0
    unsigned int hi = ~0u >> (31 - (x1 & 31));  // bits up to x1
    if (w0 == w1) {
        line[w0] &= ~(lo & hi);
        return;
    }
    line[w0] &= ~lo;
    for (int w = w0 + 1; w < w1; ++w) line[w] = 0;
    line[w1] &= ~hi;
}

// ---- Scanline flood fill on one slice ----

// Seeds the free runs of line y that meet [x0, x1].
struct Span {
    int y, x0, x1;
};

struct Slice {
    unsigned int* bits;  // the free voxels; tails clear
    int X, Y, wpl;
};

// Takes from s.bits every free voxel connected through free voxels to a span
// on the stack (4-connected, or 8-connected with diagonal), run by run.
// first receives the filled voxel that comes first in row order as (x, y),
// or stays as it was when nothing is filled.
void floodSpans(Slice const& s, bool diagonal, std::vector<Span>& stack, int* first)
{
    const int reach = diagonal ? 1 : 0;
    while (!stack.empty()) {
        Span sp = stack.back();
        stack.pop_back();
        if (sp.y < 0 || sp.y >= s.Y) continue;
        unsigned int* line = s.bits + (size_t)sp.y * s.wpl;
        int x = std::max(sp.x0, 0);
        const int last = std::min(sp.x1, s.X - 1);
        while (x <= last) {
            x = nextSetBit(line, x, last);
            if (x < 0) break;
            int a = runFirst(line, x), b = std::min(runLast(line, x, s.wpl), s.X - 1);
            clearRun(line, a, b);
            if (first[0] < 0 || sp.y < first[1] || (sp.y == first[1] && a < first[0])) {
                first[0] = a;
                first[1] = sp.y;
            }
            stack.push_back({sp.y - 1, a - reach, b + reach});
            stack.push_back({sp.y + 1, a - reach, b + reach});
            x = b + 2;
        }
    }
}

// Copies slice src, inverted or not, into s.bits with the tails cleared.
void loadFree(const unsigned int* src, Slice const& s, bool invert)
{
    unsigned int flip = invert ? ~0u : 0u, lastMask = lastWordMask(s.X);
    for (int y = 0; y < s.Y; ++y) {
        const unsigned int* in = src + (size_t)y * s.wpl;
        unsigned int* out = s.bits + (size_t)y * s.wpl;
        for (int w = 0; w < s.wpl; ++w) out[w] = in[w] ^ flip;
        out[s.wpl - 1] &= lastMask;
    }
}

// ---- Border tracing ----

// The eight neighbours clockwise on the screen (y down), from the west.
constexpr int kDirX[8] = {-1, -1, 0, 1, 1, 1, 0, -1};
constexpr int kDirY[8] = {0, -1, -1, -1, 0, 1, 1, 1};
// The direction of offset (dx, dy), indexed by (dy + 1) * 3 + dx + 1.
constexpr int kDirOf[9] = {1, 2, 3, 0, -1, 4, 7, 6, 5};

struct TraceStep {
    int x, y, back;  // the voxel and the direction from it to its clear backtrack voxel
};

// One Moore-neighbour step from (x, y), whose backtrack lies in direction
// back: the first set neighbour clockwise after it. False for a lone voxel.
template <class Get>
bool traceStep(Get const& get, int x, int y, int back, TraceStep* next)
{
    for (int i = 1; i <= 8; ++i) {
        int d = (back + i) & 7;
        int nx = x + kDirX[d], ny = y + kDirY[d];
        if (!get(nx, ny)) continue;
        int p = (d + 7) & 7;  // the clear voxel checked just before
        int bx = x + kDirX[p] - nx, by = y + kDirY[p] - ny;
        *next = {nx, ny, kDirOf[(by + 1) * 3 + bx + 1]};
        return true;
    }
    return false;
}

// v (a whole number) clamped into [a, b]; NaN gives a.
inline int clampToInt(double v, int a, int b) { return v >= a ? (v <= b ? (int)v : b) : a; }

}  // namespace

void VX_BitVol::Dilate6() { morph6<false>(this, this); }
void VX_BitVol::Dilate6(VX_BitVol* src) { morph6<false>(this, src); }
void VX_BitVol::Erode6() { morph6<true>(this, this); }
void VX_BitVol::Erode6(VX_BitVol* src) { morph6<true>(this, src); }

void VX_BitVol::ErodeXY()
{
    const int X = dims[0], Y = dims[1], Z = dims[2], wpl = wordsPerLine;
    const size_t wps = (size_t)wordsPerSlice;
    clean = true;
    if (X <= 0 || Y <= 0 || Z <= 0) return;
    std::vector<unsigned int> zero(wpl, 0u);
#pragma omp parallel if ((long long)Z * (long long)wps >= kParallelWords)
    {
        std::vector<unsigned int> pad(wpl + 2), copy(wps);
#pragma omp for schedule(static)
        for (int z = 0; z < Z; ++z) {
            memcpy(copy.data(), slices[z], wps * 4);
            morphSlice<true>(copy.data(), copy.data(), copy.data(), slices[z], X, Y, wpl, zero.data(), pad.data());
        }
    }
}

VX_BitVol* VX_BitVol::GetSlicewiseSimplyConnected()
{
    const int X = dims[0], Y = dims[1], Z = dims[2], wpl = wordsPerLine;
    const size_t wps = (size_t)wordsPerSlice;
    // EmptyClone, so that a tight block gives a tight block (with its offsets
    // and full-volume iterator), as the shells built from it expect.
    VX_BitVol* out = EmptyClone();
    out->clean = true;
    if (X <= 0 || Y <= 0 || Z <= 0) return out;
    const unsigned int lastMask = lastWordMask(X);
#pragma omp parallel if ((long long)Z * (long long)wps >= kParallelWords)
    {
        std::vector<unsigned int> bits(wps);
        std::vector<Span> stack;
        Slice s = {bits.data(), X, Y, wpl};
#pragma omp for schedule(dynamic, 1)
        for (int z = 0; z < Z; ++z) {
            // Flood the clear voxels from the border; what stays free is a hole.
            loadFree(slices[z], s, true);
            stack.push_back({0, 0, X - 1});
            stack.push_back({Y - 1, 0, X - 1});
            for (int y = 1; y + 1 < Y; ++y) {
                stack.push_back({y, 0, 0});
                stack.push_back({y, X - 1, X - 1});
            }
            int first[2] = {-1, -1};
            floodSpans(s, false, stack, first);
            const unsigned int* in = slices[z];
            unsigned int* o = out->slices[z];
            for (size_t w = 0; w < wps; ++w) o[w] = in[w] | bits[w];
            for (int y = 0; y < Y; ++y) o[(size_t)y * wpl + wpl - 1] &= lastMask;
        }
    }
    return out;
}

void VX_BitVol::Fill2D(int x, int y, int z)
{
    const int X = dims[0], Y = dims[1], wpl = wordsPerLine;
    if (z < 0 || z >= dims[2] || X <= 0 || Y <= 0) return;
    const size_t wps = (size_t)wordsPerSlice;
    unsigned int* slice = slices[z];
    std::vector<unsigned int> bits(wps);
    Slice s = {bits.data(), X, Y, wpl};
    loadFree(slice, s, true);
    if (x >= 0 && x < X && y >= 0 && y < Y) {
        std::vector<Span> stack(1, Span{y, x, x});
        int first[2] = {-1, -1};
        floodSpans(s, false, stack, first);
    }
    // The flooded voxels are those that were clear and are no longer free.
    const unsigned int lastMask = lastWordMask(X);
    for (size_t w = 0; w < wps; ++w) slice[w] = ~slice[w] & ~bits[w];
    for (int j = 0; j < Y; ++j) slice[(size_t)j * wpl + wpl - 1] &= lastMask;
}

// Per row, the sorted crossings pair up as [lo, hi): voxels with lo <= centre < hi.
void VX_BitVol::Fill2DPolygon(float const* xy, int n, int z)
{
    const int X = dims[0], Y = dims[1];
    if (n < 3 || z < 0 || z >= dims[2] || X <= 0 || Y <= 0) return;
    double yMin = xy[1], yMax = xy[1];
    for (int i = 1; i < n; ++i) {
        yMin = std::min(yMin, (double)xy[2 * i + 1]);
        yMax = std::max(yMax, (double)xy[2 * i + 1]);
    }
    const int j0 = clampToInt(ceil(yMin - 0.5), 0, Y), j1 = clampToInt(floor(yMax - 0.5), -1, Y - 1);
    std::vector<double> cross(n);
    for (int j = j0; j <= j1; ++j) {
        const double yc = j + 0.5;
        int k = 0;
        for (int i = 0; i < n; ++i) {
            const int e = i + 1 < n ? i + 1 : 0;
            const double x0 = xy[2 * i], y0 = xy[2 * i + 1], x1 = xy[2 * e], y1 = xy[2 * e + 1];
            if ((y0 > yc) != (y1 > yc)) cross[k++] = x0 + (yc - y0) * (x1 - x0) / (y1 - y0);
        }
        std::sort(cross.begin(), cross.begin() + k);
        for (int m = 0; m + 1 < k; m += 2) {
            int a = clampToInt(ceil(cross[m] - 0.5), 0, X);
            int b = clampToInt(ceil(cross[m + 1] - 0.5) - 1.0, -1, X - 1);
            SetLineOn(a, j, z, b);
        }
    }
}

// Inside: dx^2 r1^2 r2^2 + dy^2 r0^2 r2^2 + dz^2 r0^2 r1^2 <= r0^2 r1^2 r2^2, d
// the voxel centre less c. Each line's run comes from a square root and its
// ends are then settled by that test.
void VX_BitVol::Sphere(VX_3Vec c, float r0, float r1, float r2)
{
    const int X = dims[0], Y = dims[1], Z = dims[2];
    if (!(r0 > 0.0f && r1 > 0.0f && r2 > 0.0f) || X <= 0 || Y <= 0 || Z <= 0) return;
    const double a2 = (double)r0 * r0, b2 = (double)r1 * r1, c2 = (double)r2 * r2;
    const double wx = b2 * c2, wy = a2 * c2, wz = a2 * b2, lim = a2 * b2 * c2;
    const double cx = c.x, cy = c.y, cz = c.z;
    const int k0 = clampToInt(floor(cz - r2 - 1.0), 0, Z), k1 = clampToInt(ceil(cz + r2), -1, Z - 1);
    const int j0 = clampToInt(floor(cy - r1 - 1.0), 0, Y), j1 = clampToInt(ceil(cy + r1), -1, Y - 1);
    for (int k = k0; k <= k1; ++k) {
        const double dz = k + 0.5 - cz;
        for (int j = j0; j <= j1; ++j) {
            const double dy = j + 0.5 - cy;
            const double yz = dy * dy * wy + dz * dz * wz;
            if (yz > lim) continue;
            auto inside = [&](int i) {
                const double dx = i + 0.5 - cx;
                return dx * dx * wx + yz <= lim;
            };
            const double hx = sqrt((lim - yz) / wx);
            int a = clampToInt(ceil(cx - hx - 0.5), 0, X - 1), b = clampToInt(floor(cx + hx - 0.5), 0, X - 1);
            while (a > 0 && inside(a - 1)) --a;
            while (b < X - 1 && inside(b + 1)) ++b;
            while (a <= b && !inside(a)) ++a;
            while (b >= a && !inside(b)) --b;
            SetLineOn(a, j, k, b);
        }
    }
}

// Moore-neighbour tracing with Jacob's stopping rule. The start s is the
// region's first voxel in row order, so its west neighbour is clear and is
// the first backtrack. A voxel is listed at every visit. The walk ends on
// coming back to s in a state that would repeat the first step: the same
// next voxel entered the same way, which covers re-entering s as at the start.
int VX_BitVol::Extract2DContour(int x, int y, int z, int* xy, int maxPoints)
{
    const int X = dims[0], Y = dims[1], wpl = wordsPerLine;
    if (z < 0 || z >= dims[2] || x < 0 || x >= X || y < 0 || y >= Y || !GetBit(x, y, z)) return 0;
    const unsigned int* slice = slices[z];

    // The region's first voxel: flood its 8-connected component in a copy.
    std::vector<unsigned int> bits(wordsPerSlice);
    Slice s = {bits.data(), X, Y, wpl};
    loadFree(slice, s, false);
    std::vector<Span> stack(1, Span{y, x, x});
    int start[2] = {-1, -1};
    floodSpans(s, true, stack, start);

    auto get = [&](int gx, int gy) {
        return gx >= 0 && gx < X && gy >= 0 && gy < Y && ((slice[(gx >> 5) + (size_t)gy * wpl] >> (gx & 31)) & 1u);
    };
    int count = 0;
    auto emit = [&](int px, int py) {
        if (count < maxPoints) {
            xy[2 * count] = px;
            xy[2 * count + 1] = py;
        }
        ++count;
    };
    const int sx = start[0], sy = start[1];
    emit(sx, sy);
    TraceStep firstStep, cur;
    if (!traceStep(get, sx, sy, 0, &firstStep)) return count;
    cur = firstStep;
    // Each (voxel, backtrack) state occurs at most once per loop.
    const long long maxSteps = 8LL * X * Y + 8;
    for (long long step = 0; step < maxSteps; ++step) {
        if (cur.x == sx && cur.y == sy) {
            TraceStep next;
            traceStep(get, cur.x, cur.y, cur.back, &next);
            if (next.x == firstStep.x && next.y == firstStep.y && next.back == firstStep.back) break;
            emit(cur.x, cur.y);
            cur = next;
            continue;
        }
        emit(cur.x, cur.y);
        traceStep(get, cur.x, cur.y, cur.back, &cur);
    }
    return count;
}

int VX_BitVol::GetSegments(int y, int z, int* runs, int maxRuns)
{
    const int X = dims[0], wpl = wordsPerLine;
    const unsigned int* line = GetLineAddress(y, z);
    const unsigned int lastMask = lastWordMask(X);
    int count = 0, first = 0;
    bool inRun = false;
    auto emit = [&](int a, int b) {
        if (count < maxRuns) {
            runs[2 * count] = a;
            runs[2 * count + 1] = b;
        }
        ++count;
    };
    // Alternately look for the next set bit (a run's start) and the next
    // clear bit (one past its end).
    for (int w = 0; w < wpl; ++w) {
        const unsigned int word = w + 1 < wpl ? line[w] : line[w] & lastMask;
        int bit = 0;
        for (;;) {
            unsigned int look = (inRun ? ~word : word) & (~0u << bit);
            if (look == 0) break;
            bit = ctz(look);
            if (inRun)
                emit(first, (w << 5) + bit - 1);
            else
                first = (w << 5) + bit;
            inRun = !inRun;
        }
    }
    if (inRun) emit(first, X - 1);
    return count;
}
