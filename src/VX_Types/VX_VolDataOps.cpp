#include "VX_VolData.h"
#include "VX_BitVol.h"
#include "VX_CPU.h"

#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// Slice z's block is staggered like the main slices: ((z * 179) & 480) * 2 bytes.
inline int sliceStagger(int z) { return ((z * 179) & 480) * 2; }

// A transposed slice starts at its staggered address rounded up to this.
constexpr int kTransposedAlign = 32;
// Extra bytes behind every slice block, enough for the stagger and the rounding.
constexpr int kSlicePadBytes = 1024;
// The side of the slices that are transposed in blocks.
constexpr int kBlockedSide = 512;

// ---- transposition ----

// One slice block: X * Y * 2 + 1024 bytes, rounded up to 64.
inline size_t sliceSlotBytes(int X, int Y) { return ((size_t)X * Y * 2 + kSlicePadBytes + 63) & ~(size_t)63; }

// A block for many slices, aligned for huge pages when it is that large (a
// pass over the transposed set would otherwise fault on every 4 KiB page);
// null for 0 bytes. Freed with free().
char* reserveArena(size_t bytes)
{
    const size_t kHuge = (size_t)1 << 21;
    if (bytes == 0) return nullptr;
    if (bytes < kHuge) return static_cast<char*>(malloc(bytes));
    bytes = (bytes + kHuge - 1) & ~(kHuge - 1);
    char* p = static_cast<char*>(aligned_alloc(kHuge, bytes));
#ifdef MADV_HUGEPAGE
    madvise(p, bytes, MADV_HUGEPAGE);
#endif
    return p;
}

// The rule: t[y + x * Y] = s[x + y * X].
void transposePlain(short* t, short const* s, int X, int Y)
{
    for (int y = 0; y < Y; ++y) {
        short const* row = s + (size_t)y * X;
        for (int x = 0; x < X; ++x) t[y + (size_t)x * Y] = row[x];
    }
}

// 512 x 512 in blocks of four lines of four values: the block at (x, y) of s
// becomes the block at (y, x) of t. Bands of 16 source lines are walked
// across, so that each line of t gets 32 bytes while it is in cache. Same
// result as transposePlain.
constexpr int kBandLines = 16;

inline void block4Ref(short* t, short const* s, int x, int y)
{
    const int N = kBlockedSide;
    for (int j = 0; j < 4; ++j)
        for (int i = 0; i < 4; ++i) t[(x + j) * N + y + i] = s[(y + i) * N + x + j];
}

#if defined(__SSE2__)
// Keep equal to block4Ref.
inline void block4SSE2(short* t, short const* s, int x, int y)
{
    const int N = kBlockedSide;
    short const* r = s + y * N + x;
    __m128i a = _mm_loadl_epi64(reinterpret_cast<__m128i const*>(r));
    __m128i b = _mm_loadl_epi64(reinterpret_cast<__m128i const*>(r + N));
    __m128i c = _mm_loadl_epi64(reinterpret_cast<__m128i const*>(r + 2 * N));
    __m128i d = _mm_loadl_epi64(reinterpret_cast<__m128i const*>(r + 3 * N));
    __m128i ab = _mm_unpacklo_epi16(a, b);    // a0 b0 a1 b1 a2 b2 a3 b3
    __m128i cd = _mm_unpacklo_epi16(c, d);    // c0 d0 c1 d1 c2 d2 c3 d3
    __m128i lo = _mm_unpacklo_epi32(ab, cd);  // a0 b0 c0 d0 a1 b1 c1 d1
    __m128i hi = _mm_unpackhi_epi32(ab, cd);  // a2 b2 c2 d2 a3 b3 c3 d3
    short* o = t + x * N + y;
    _mm_storel_epi64(reinterpret_cast<__m128i*>(o), lo);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(o + N), _mm_unpackhi_epi64(lo, lo));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(o + 2 * N), hi);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(o + 3 * N), _mm_unpackhi_epi64(hi, hi));
}
#endif

template <void Block(short*, short const*, int, int)>
void transposeBlocks(short* t, short const* s)
{
    for (int y0 = 0; y0 < kBlockedSide; y0 += kBandLines)
        for (int x = 0; x < kBlockedSide; x += 4)
            for (int y = y0; y < y0 + kBandLines; y += 4) Block(t, s, x, y);
}

void transposeSlice(short* t, short const* s, int X, int Y, bool sse2)
{
    if (X != kBlockedSide || Y != kBlockedSide) return transposePlain(t, s, X, Y);
#if defined(__SSE2__)
    if (sse2) return transposeBlocks<block4SSE2>(t, s);
#endif
    (void)sse2;
    transposeBlocks<block4Ref>(t, s);
}

// ---- reduced resolution ----

// Cell (x, y, z) of the destination covers source voxels F * x .. F * x + F - 1
// on each axis; its value is (sum + F^3 / 2) / F^3 with truncating division:
// (sum + 4) / 8 and (sum + 13) / 27, rounding to nearest for positive sums only.
template <int F>
void lowResAverage(VX_VolData* dst, VX_VolData* src)
{
    const int X = dst->box.GetX(), Y = dst->box.GetY(), Z = dst->box.GetZ();
    const int SX = src->box.GetX();
    const int kCell = F * F * F, kRound = kCell / 2;
    std::vector<int> sum((size_t)X * Y);
    for (int z = 0; z < Z; ++z) {
        std::fill(sum.begin(), sum.end(), 0);
        for (int dz = 0; dz < F; ++dz)
            for (int y = 0; y < Y; ++y)
                for (int dy = 0; dy < F; ++dy) {
                    short const* row = src->slices[F * z + dz] + (size_t)(F * y + dy) * SX;
                    int* acc = sum.data() + (size_t)y * X;
                    for (int x = 0; x < X; ++x)
                        for (int dx = 0; dx < F; ++dx) acc[x] += row[F * x + dx];
                }
        short* out = dst->slices[z];
        for (size_t i = 0; i < sum.size(); ++i) out[i] = (short)((sum[i] + kRound) / kCell);
    }
}

// Every destination value starts as 0x8080 (each byte 0x80) and keeps the
// greatest voxel of the 2 x 2 x 2 source cell at (2x, 2y, 2z); values below
// the start do not show.
void lowResMax(VX_VolData* dst, VX_VolData* src)
{
    const int X = dst->box.GetX(), Y = dst->box.GetY(), Z = dst->box.GetZ();
    const int SX = src->box.GetX();
    for (int z = 0; z < Z; ++z) {
        short* out = dst->slices[z];
        memset(out, 0x80, (size_t)X * Y * sizeof(short));
        for (int dz = 0; dz < 2; ++dz)
            for (int y = 0; y < Y; ++y)
                for (int dy = 0; dy < 2; ++dy) {
                    short const* row = src->slices[2 * z + dz] + (size_t)(2 * y + dy) * SX;
                    short* o = out + (size_t)y * X;
                    for (int x = 0; x < X; ++x) {
                        short m = std::max(row[2 * x], row[2 * x + 1]);
                        if (m > o[x]) o[x] = m;
                    }
                }
    }
}

// ---- double resolution ----

// The mean of two neighbours: their sum shifted right by one, narrowed.
inline short mean2(int a, int b) { return (short)((a + b) >> 1); }

// Row of n source voxels to 2n: even positions the source, odd the mean of
// the two neighbours; the last pair both take the last source voxel.
void doubleRow(short* out, short const* s, int n)
{
    for (int i = 0; i + 1 < n; ++i) {
        out[2 * i] = s[i];
        out[2 * i + 1] = mean2(s[i], s[i + 1]);
    }
    out[2 * n - 2] = out[2 * n - 1] = s[n - 1];
}

void meanLine(short* out, short const* a, short const* b, size_t n)
{
    for (size_t i = 0; i < n; ++i) out[i] = mean2(a[i], b[i]);
}

// ---- synthetic values ----

// trunc(v) narrowed to 16 bits, as a 32-bit conversion followed by a cast
// gives; a value outside the 32-bit range (or NaN) gives 0.
inline short truncNarrow(float v)
{
    if (!(v > -2147483648.0f && v < 2147483648.0f)) return 0;
    return (short)(int)v;
}

// A float rounded half away from zero and held to the 16-bit range.
inline short roundClamp(float v)
{
    float r = v > 0 ? v + 0.5f : v - 0.5f;
    if (!(r > -32768.0f)) return -32768;
    if (r >= 32767.0f) return 32767;
    return (short)(int)r;
}

inline float clamp01(float v) { return v < 0 ? 0 : v > 1 ? 1 : v; }

// The cylinder of axis p0 -> p1 and radius r, in grid coordinates. weight()
// is the part of a voxel centred at q inside it: the radial and the axial
// overlap each ramp linearly from 1 to 0 over one voxel centred on the
// surface (the side and the two flat ends).
struct Cylinder {
    VX_3Vec p0, dir;
    float len, r;

    Cylinder(VX_3Vec const& a, VX_3Vec const& b, float radius) : p0(a), r(radius)
    {
        VX_3Vec d = b - a;
        len = d.Abs();
        dir = len > 0 ? d * (1.0f / len) : VX_3Vec();
    }
    bool empty() const { return !(len > 0); }
    float weight(VX_3Vec const& q) const
    {
        VX_3Vec d = q - p0;
        float t = d * dir;
        float radial = sqrtf(std::max(d.Abs2() - t * t, 0.0f));
        return clamp01(r + 0.5f - radial) * clamp01(std::min(t, len - t) + 0.5f);
    }
};

// Deterministic noise of mean 0 and standard deviation 1 (a sum of four
// uniform values, scaled), from a fixed-seed xorshift generator.
class NoiseSource {
public:
    explicit NoiseSource(uint32_t seed) : state(seed) {}
    float next()
    {
        float s = 0;
        for (int i = 0; i < 4; ++i) s += (float)(step() >> 8) * (1.0f / 16777216.0f);
        return (s - 2.0f) * 1.7320508f;  // uniform variance 1/12, times 4, times 3
    }

private:
    uint32_t step()
    {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }
    uint32_t state;
};

// Soft tissue around a contrast-filled lumen, in Hounsfield units.
constexpr float kTissueHU = 40.0f;
constexpr float kLumenHU = 300.0f;
constexpr float kNoiseHU = 12.0f;
constexpr uint32_t kNoiseSeed = 0x9E3779B9u;

}  // namespace

// ---- transposed slices ----

// Lazy per slice: a slice is transposed once it is no longer the placeholder,
// into its block of X * Y * 2 + 1024 bytes at the block's staggered address
// rounded up to 32 bytes. A transposed slice is never renewed. The blocks are
// the slots of one arena reserved on the first call (memory is touched only
// as slices are transposed); its address is kept in the entry after the last
// of transposedAlloc, where Free finds it.
short** VX_VolData::GetTransposedSlices()
{
    const int X = box.GetX(), Y = box.GetY();
    const size_t slot = sliceSlotBytes(X, Y);
    if (!transposedSlices) {
        const int n = sliceCount > 0 ? sliceCount : 0;
        transposedSlices = new short*[n];
        transposedAlloc = new short*[n + 1];
        for (int z = 0; z < n; ++z) {
            transposedSlices[z] = blankSlice;
            transposedAlloc[z] = nullptr;
        }
        transposedAlloc[n] = reinterpret_cast<short*>(reserveArena(slot * n));
    }
    // A view made by CreateZSparseVoldata has no blocks of its own and nothing to add.
    if (!transposedAlloc) return transposedSlices;
    char* arena = reinterpret_cast<char*>(transposedAlloc[sliceCount > 0 ? sliceCount : 0]);
    const bool sse2 = (VX_CPU_ID() & VX_CPU_SSE2) != 0;
#pragma omp parallel for schedule(static)
    for (int z = 0; z < sliceCount; ++z) {
        if (transposedSlices[z] != blankSlice || slices[z] == blankSlice) continue;
        char* block = arena + (size_t)z * slot;
        transposedAlloc[z] = reinterpret_cast<short*>(block);
        short* t = static_cast<short*>(VX_AlignPointer(block + sliceStagger(z), kTransposedAlign));
        transposeSlice(t, slices[z], X, Y, sse2);
        transposedSlices[z] = t;
    }
    return transposedSlices;
}

// ---- reduced and doubled resolution ----

void VX_VolData::CreateLowRes(bool useMax, int factor)
{
    delete lowRes;
    lowRes = nullptr;
    // The float extent keeps the whole box; the integer dims drop leftovers.
    const float f = (float)factor;
    VX_PhysBox extent((box.GetX() / f) * f, (box.GetY() / f) * f, (box.GetZ() / f) * f);
    extent.Transform(box.GetIntToPhysTrans());
    VX_Box lowBox(extent, box.GetX() / factor, box.GetY() / factor, box.GetZ() / factor);
    VX_VolData* low = new VX_VolData(&lowBox);
    low->Allocate();
    if (factor == 2 || factor == 3) {
        if (useMax)
            low->CalcLowResMax2(this);
        else if (factor == 2)
            low->CalcLowResAvg2(this);
        else
            low->CalcLowResAvg3(this);
    }
    lowRes = low;
    lowRes->minPixelValue = minPixelValue;
    lowRes->maxPixelValue = maxPixelValue;
}

void VX_VolData::CalcLowResAvg2(VX_VolData* src) { lowResAverage<2>(this, src); }
void VX_VolData::CalcLowResAvg3(VX_VolData* src) { lowResAverage<3>(this, src); }
void VX_VolData::CalcLowResMax2(VX_VolData* src) { lowResMax(this, src); }
// The 2 x 2 x 2 maximum too, whatever the factor: with a source of three
// times the dims it covers only its first two thirds on each axis.
void VX_VolData::CalcLowResMax3(VX_VolData* src) { lowResMax(this, src); }

// Twice the dims in the same placement: x within each source row, then the odd
// rows of each even slice, then the odd slices. The last row and the last
// slice copy the one before.
VX_VolData* VX_VolData::CreateDoubleRes()
{
    VX_PhysBox place;
    place.Transform(box.GetFromNormTrans());
    const int X = box.GetX(), Y = box.GetY(), Z = box.GetZ();
    VX_Box doubleBox(place, 2 * X, 2 * Y, 2 * Z);
    VX_VolData* d = new VX_VolData(&doubleBox);
    d->Allocate();
    if (X < 1 || Y < 1 || Z < 1) return d;
    const size_t W = 2 * (size_t)X, slice = W * 2 * Y;
    for (int z = 0; z < Z; ++z) {
        short* even = d->slices[2 * z];
        for (int y = 0; y < Y; ++y) doubleRow(even + 2 * y * W, slices[z] + (size_t)y * X, X);
        for (int y = 0; y + 1 < Y; ++y)
            meanLine(even + (2 * y + 1) * W, even + 2 * y * W, even + (2 * y + 2) * W, W);
        memcpy(even + (2 * (size_t)Y - 1) * W, even + (2 * (size_t)Y - 2) * W, W * sizeof(short));
    }
    for (int z = 0; z + 1 < Z; ++z)
        meanLine(d->slices[2 * z + 1], d->slices[2 * z], d->slices[2 * z + 2], slice);
    memcpy(d->slices[2 * Z - 1], d->slices[2 * Z - 2], slice * sizeof(short));
    return d;
}

// Slices (step - 1) / 2 + i * step. The view owns no slice and no transposed
// block (transposedAlloc stays null), so destroying it frees only its arrays.
VX_VolData* VX_VolData::CreateZSparseVoldata(int step)
{
    const int start = (step - 1) / 2;
    const int Z = box.GetZ(), n = Z / step;
    const float s = (float)Z / step * step / Z;
    VX_PhysBox place(1, 1, s);
    place.Transform(box.GetFromNormTrans());
    VX_Box sparseBox(place, box.GetX(), box.GetY(), n);
    VX_VolData* v = new VX_VolData(&sparseBox);
    v->transposedSlices = new short*[n > 0 ? n : 0];
    short** t = GetTransposedSlices();
    for (int i = 0; i < n; ++i) {
        v->slices[i] = slices[start + i * step];
        v->transposedSlices[i] = t[start + i * step];
    }
    return v;
}

// ---- writing voxels ----

void VX_VolData::ClearData(short v)
{
    if (sliceCount < 1) return;
    const size_t n = (size_t)box.GetX() * box.GetY();
    for (int z = 0; z < sliceCount; ++z) {
        if (v == 0)
            memset(slices[z], 0, n * sizeof(short));
        else
            std::fill_n(slices[z], n, v);
    }
}

void VX_VolData::SetValue(VX_BitVol* mask, short v)
{
    const int X = box.GetX();
    for (VX_BVSeqIterator it(mask); it.z >= 0; it++) slices[it.z][it.x + it.y * X] = v;
}

void VX_VolData::WriteValue(int x, int y, int z, short v, int size)
{
    if (size < 1) return;
    const int h = size / 2, X = box.GetX();
    for (int k = z - h; k < z - h + size; ++k)
        for (int j = y - h; j < y - h + size; ++j)
            for (int i = x - h; i < x - h + size; ++i) slices[k][i + j * X] = v;
}

// ---- synthetic volumes ----

// With g = (b - a) / r, a voxel whose centre lies at d < r mm from c becomes
// trunc(d * g + a), narrowed to 16 bits: a at the centre, b at the radius.
void VX_VolData::GenerateGradualSphere(VX_3Vec c, float r, float a, float b)
{
    const float g = (b - a) / r, r2 = r * r;
    const VX_Mat toPhys = box.GetIntToPhysTrans();
    const int X = box.GetX(), Y = box.GetY(), Z = box.GetZ();
    for (int z = 0; z < Z; ++z)
        for (int y = 0; y < Y; ++y)
            for (int x = 0; x < X; ++x) {
                VX_3Vec q = VX_3Vec(x + 0.5f, y + 0.5f, z + 0.5f) * toPhys;
                float d2 = (q - c).Abs2();
                if (d2 < r2) slices[z][x + y * X] = truncNarrow(sqrtf(d2) * g + a);
            }
}

// A vessel of value v drawn over what the volume holds: each voxel becomes
// old + w * (v - old), rounded, with w the part of the voxel inside the
// cylinder (a linear partial-volume edge one voxel wide). p0, p1 and r are in
// grid units; p0 == p1 draws nothing.
void VX_VolData::GenerateVirtualCylinder(VX_3Vec& p0, VX_3Vec& p1, float r, short v)
{
    Cylinder cyl(p0, p1, r);
    if (cyl.empty()) return;
    int lo[3], hi[3];
    for (int a = 0; a < 3; ++a) {
        float reach = fabsf(r) + 1.0f;
        float mn = std::min(p0[a], p1[a]) - reach, mx = std::max(p0[a], p1[a]) + reach;
        lo[a] = (int)std::max(0.0f, std::min(floorf(mn), (float)box.dims[a]));
        hi[a] = (int)std::max(0.0f, std::min(ceilf(mx), (float)box.dims[a]));
    }
    const int X = box.GetX();
    for (int z = lo[2]; z < hi[2]; ++z)
        for (int y = lo[1]; y < hi[1]; ++y)
            for (int x = lo[0]; x < hi[0]; ++x) {
                float w = cyl.weight(VX_3Vec(x + 0.5f, y + 0.5f, z + 0.5f));
                if (w <= 0) continue;
                short& o = slices[z][x + y * X];
                o = roundClamp(o + w * ((float)v - o));
            }
}

// A contrast-filled vessel in soft tissue, over the whole volume: 40 HU of
// tissue, 300 HU in the lumen with the same partial-volume edge as
// GenerateVirtualCylinder, plus Gaussian-like noise of 12 HU standard
// deviation from a fixed seed (every call gives the same volume). Stored as
// raw values through HUToRaw, rounded and held to 16 bits.
void VX_VolData::GenerateNoisyVirtualCylinder(VX_3Vec& p0, VX_3Vec& p1, float r)
{
    Cylinder cyl(p0, p1, r);
    NoiseSource noise(kNoiseSeed);
    const int X = box.GetX(), Y = box.GetY(), Z = box.GetZ();
    for (int z = 0; z < Z; ++z)
        for (int y = 0; y < Y; ++y)
            for (int x = 0; x < X; ++x) {
                float w = cyl.empty() ? 0.0f : cyl.weight(VX_3Vec(x + 0.5f, y + 0.5f, z + 0.5f));
                float hu = kTissueHU + w * (kLumenHU - kTissueHU) + noise.next() * kNoiseHU;
                slices[z][x + y * X] = roundClamp(HUToRaw(hu));
            }
}
