#include "VX_MPR.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>
#include <algorithm>
#include <vector>

#include "VX_ClipBounds.h"
#include "VX_MPRKernels.h"
#include "VX_MPRKernelsSSE2.h"
#include "VX_MPRKernelsAVX2.h"
#include "../VX_Types/VX_CPU.h"
#include "../VX_Zoom/VX_ShearZoom.h"

using namespace vx_mpr;

namespace {

// Rows of the bounds array kept on the stack; taller images use the heap.
constexpr int kStackRows = 4096;

// Coordinates beyond this many voxels would not fit 32 bits in 18-bit fixed point.
constexpr float kGuard = 5000.0f;

// The initial aligned picture: 0x20000 bytes, 256 * 256 values.
constexpr int kRotatedSide = 256;

// Image pixels beyond the aligned picture's reach read this after the warp.
constexpr int kWarpBackground = 0x8080;

// Pixels kept around the image when the aligned picture's rows are clipped.
constexpr float kImageMargin = 4.0f;

// The 2D part of a pixel-to-pixel transform is finite: the warp can place it.
bool isPlaced(VX_Mat const& m)
{
    int const rows[3] = {0, 1, 3};
    for (int r : rows)
        if (!isfinite(m.m[r][0]) || !isfinite(m.m[r][1])) return false;
    return true;
}

}  // namespace

VX_MPR::VX_MPR()
    : trans(), imageBox(), volData(nullptr), volBox(), output(nullptr), slabThickness(200.0f),
      interpolation(1), curvedMode(0), rotate(false), multithread(), slabMIP(false), slabMin(false),
      curvedMMPP(1.0f), noInterrupt(false), boundingRect(), curvedNoFlip(false), rotationAngle(0),
      rotatedTrans(), rotatedBox(), avgScale(0), slabAxis(0),
      rotatedBuffer(new short[kRotatedSide * kRotatedSide]), rotatedBufferSide(kRotatedSide)
{
}

VX_MPR::~VX_MPR() { delete[] rotatedBuffer; }

void VX_MPR::CalcRaster()
{
    if (!rotate) {
        calcPicture(nullptr, nullptr);
        return;
    }

    // The picture is sampled in a frame turned about the image normal, into
    // rotatedBuffer, then warped into the host's image. K maps image pixels to
    // picture pixels.
    VX_Mat savedTrans = trans;
    VX_Box savedImageBox = imageBox;
    short* savedOutput = output;
    CalcRotation();
    VX_Mat K = imageBox.GetIntToPhysTrans() * (trans.Inv() * rotatedTrans) *
               rotatedBox.GetPhysToIntTrans();
    trans = rotatedTrans;
    imageBox = rotatedBox;
    output = rotatedBuffer;
    calcPicture(&K, savedImageBox.dims);
    trans = savedTrans;
    imageBox = savedImageBox;
    output = savedOutput;

    // Image pixels that the picture does not reach get 0x8080, not the minimum.
    if (rotatedBox.dims[0] > 0 && isPlaced(K)) {
        VX_LinShearZoom(rotatedBuffer, output, rotatedBox.dims, imageBox.dims, K, kWarpBackground);
    } else {
        // An empty picture, or a view too degenerate to place it (a NaN or
        // infinite transform): nothing is reached.
        size_t n = (size_t)std::max(imageBox.dims[0], 0) * (size_t)std::max(imageBox.dims[1], 0);
        for (size_t i = 0; i < n; ++i) output[i] = (short)kWarpBackground;
    }
}

void VX_MPR::calcPicture(VX_Mat const* toPicture, int const* origSize)
{
    int W = imageBox.dims[0], H = imageBox.dims[1];
    if (W > 0 && H > 0) {
        short fill = (short)volData->GetMinPixelValue();
        for (size_t i = 0, n = (size_t)W * H; i < n; ++i) output[i] = fill;
    }
    if (H <= 0) {
        boundingRect = VX_Rect();
        return;
    }

    alignas(16) short stackBounds[2 * kStackRows];
    std::vector<short> heapBounds;
    short* bounds = stackBounds;
    if (H > kStackRows) {
        heapBounds.resize(2 * (size_t)H);
        bounds = heapBounds.data();
    }

    bool slab = slabThickness > 0;
    if (slab) {
        PrepareCBounds(bounds, slabThickness * 0.5f, true);
        PrepareCBounds(bounds, -slabThickness * 0.5f, false);
    } else {
        PrepareCBounds(bounds, 0, true);
    }
    if (toPicture) {
        // Only the part of the picture that the warp reads: the image's four
        // sides pushed out by a margin, moved into picture pixels. The whole
        // picture counts as holding samples.
        float const sides[4][4] = {{-1, 0, 0, -kImageMargin},
                                   {1, 0, 0, -kImageMargin - (float)origSize[0]},
                                   {0, -1, 0, -kImageMargin},
                                   {0, 1, 0, -kImageMargin - (float)origSize[1]}};
        for (auto const& side : sides) {
            VX_3Vec plane = VX_3Vec(side).PlaneTransform(*toPicture);
            VX_ClipBounds(bounds, W, H, &plane.x, false);
        }
        boundingRect = VX_Rect(0, 0, W, H);
    } else {
        boundingRect = computeBoundingRect(W, H, bounds);
    }

    if (slab) {
        VX_3Vec zvec;
        int n = CalcZVec(&zvec);
        CalcImageAvgTriLin(bounds, n, &zvec.x);
    } else if (interpolation == 0) {
        CalcImageNN(bounds);
    } else if (interpolation == 1) {
        CalcImageTriLin(bounds);
    }
}

VX_Rect VX_MPR::computeBoundingRect(int w, int h, short* bounds)
{
    int first = -1, last = -1, minLeft = w, maxRight = -1;
    for (int j = 0; j < h; ++j) {
        int l = bounds[2 * j], r = bounds[2 * j + 1];
        if (l > r) continue;
        if (first < 0) first = j;
        last = j;
        if (l < minLeft) minLeft = l;
        if (r > maxRight) maxRight = r;
    }
    if (first < 0) return VX_Rect();
    VX_Rect rect(minLeft, first, maxRight - minLeft + 1, last - first + 1);
    if (rect.w < 1 || rect.h < 1) return VX_Rect();
    return rect;
}

// Each face of the volume's unit cube, kept a margin inside it, is moved into
// image pixel space and clips the rows. Trilinear keeps half a voxel plus a
// hundredth away from the outer face so that x + 1, y + 1 and z + 1 exist.
void VX_MPR::PrepareCBounds(short* bounds, float depth, bool reset)
{
    int W = imageBox.dims[0], H = imageBox.dims[1];
    VX_Mat T;
    T.m[3][2] = depth;
    VX_Mat C = volBox.GetFromNormTrans() * trans * T * imageBox.GetPhysToIntTrans();
    for (int i = 0; i < 3; ++i) {
        float D = (float)volBox.dims[i];
        float e = 0.01f / D;
        if (interpolation != 0) e += 0.5f / D;

        VX_3Vec low(0, 0, 0, e);
        low[i] = -1;
        low = low.PlaneTransform(C);
        low.Normalize();
        VX_ClipBounds(bounds, W, H, &low.x, reset && i == 0);

        VX_3Vec high(0, 0, 0, -(1 - e));
        high[i] = 1;
        high = high.PlaneTransform(C);
        high.Normalize();
        VX_ClipBounds(bounds, W, H, &high.x, false);
    }
}

// B maps image pixels to volume grid coordinates; the start is the centre of
// pixel (0, 0), optionally counted from voxel centres, and the column and row
// steps are B's rows 0 and 1, all in 18-bit fixed point (truncated).
bool VX_MPR::fixedPointFrame(bool shiftHalf, int* start, int* col, int* row)
{
    VX_Mat A = volBox.GetIntToPhysTrans() * trans * imageBox.GetPhysToIntTrans();
    VX_Mat B = A.Inv();
    VX_3Vec p(0.5f, 0.5f, 0, 0);
    p *= B;
    if (shiftHalf) {
        p.x -= 0.5f;
        p.y -= 0.5f;
        p.z -= 0.5f;
    }
    // Written as "not inside" so that a NaN start fails the guard too.
    if (!(fabsf(p.x) <= kGuard && fabsf(p.y) <= kGuard && fabsf(p.z) <= kGuard)) return false;
    for (int a = 0; a < 3; ++a) {
        start[a] = toFixed(p[a]);
        col[a] = toFixed(B.m[0][a]);
        row[a] = toFixed(B.m[1][a]);
    }
    return true;
}

namespace {

// One row of a single section by the scalar rule: a nearest-neighbour pixel
// is the voxel holding its point (the integer parts of the three coordinates),
// a trilinear one the triLin of its point.
template <bool Nearest>
void sectionRowRef(short* out, int n, short* const* sl, int X, int x, int y, int z, int dx, int dy,
                   int dz)
{
    int px = stepAt(x, kPrefetchAhead, dx), py = stepAt(y, kPrefetchAhead, dy);
    int pz = stepAt(z, kPrefetchAhead, dz);
    for (int i = 0; i < n; ++i) {
        if (i + kPrefetchAhead < n) {
            if (Nearest)
                __builtin_prefetch(sl[intPart(pz)] + intPart(px) + intPart(py) * X);
            else
                prefetchCell(sl, X, px, py, pz);
        }
        out[i] = Nearest ? sl[intPart(z)][intPart(x) + intPart(y) * X] : (short)triLin(sl, X, x, y, z);
        x += dx;
        y += dy;
        z += dz;
        px += dx;
        py += dy;
        pz += dz;
    }
}

#if defined(__SSE2__)
// Keep equal to sectionRowRef<false>: four pixels at a time, the tail by the rule.
void triLinRowSSE2(short* out, int n, short* const* sl, int X, int x, int y, int z, int dx, int dy,
                   int dz)
{
    __m128i vx = ramp4(x, dx), vy = ramp4(y, dy), vz = ramp4(z, dz);
    __m128i sx4 = _mm_set1_epi32(4 * dx), sy4 = _mm_set1_epi32(4 * dy), sz4 = _mm_set1_epi32(4 * dz);
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        // Every pixel's cell: four pixels may span two slices or more.
        for (int l = 0, ahead = i + kPrefetchAhead; l < 4 && ahead < n; ++l, ++ahead)
            prefetchCell(sl, X, stepAt(x, ahead, dx), stepAt(y, ahead, dy), stepAt(z, ahead, dz));
        store4(out + i, triLin4(sl, X, vx, vy, vz));
        vx = _mm_add_epi32(vx, sx4);
        vy = _mm_add_epi32(vy, sy4);
        vz = _mm_add_epi32(vz, sz4);
    }
    sectionRowRef<false>(out + i, n - i, sl, X, stepAt(x, i, dx), stepAt(y, i, dy), stepAt(z, i, dz), dx, dy,
                 dz);
}
#endif

#if defined(VX_HAVE_AVX2)
// Keep equal to sectionRowRef<false>: eight pixels at a time, the rest by the
// four-lane form.
VX_AVX2_FN void triLinRowAVX2(short* out, int n, short* const* sl, int X, int x, int y, int z, int dx, int dy,
                              int dz)
{
    __m256i vx = ramp8(x, dx), vy = ramp8(y, dy), vz = ramp8(z, dz);
    __m256i sx8 = _mm256_set1_epi32(8 * dx), sy8 = _mm256_set1_epi32(8 * dy), sz8 = _mm256_set1_epi32(8 * dz);
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        for (int l = 0, ahead = i + kPrefetchAhead; l < 8 && ahead < n; ++l, ++ahead)
            prefetchCell(sl, X, stepAt(x, ahead, dx), stepAt(y, ahead, dy), stepAt(z, ahead, dz));
        store8(out + i, triLin8(sl, X, vx, vy, vz));
        vx = _mm256_add_epi32(vx, sx8);
        vy = _mm256_add_epi32(vy, sy8);
        vz = _mm256_add_epi32(vz, sz8);
    }
    triLinRowSSE2(out + i, n - i, sl, X, stepAt(x, i, dx), stepAt(y, i, dy), stepAt(z, i, dz), dx, dy, dz);
}

// Lines of constant slice through the picture. Along its major axis k (rows j
// when `vertical`, columns i otherwise), line u holds the pixel whose other
// coordinate is u + ((k * slope) >> 16), so that every pixel lies on exactly
// one line; each pixel is still the sample of its row, start + j row + i col.
struct SliceLines {
    bool vertical;
    int slope;    // 16.16, at most one pixel per step
    int K;        // pixels along the major axis
    int uLo, uHi; // the lines, inclusive
};

// One line, eight pixels at a time; only pixels inside their row's span are
// sampled and stored. L and R hold each row's span, H + 8 entries (empty past
// the picture).
VX_AVX2_FN void sliceLineAVX2(int u, SliceLines const& g, short* out, int W, int H, short* const* sl, int X,
                              int const* s, int const* c, int const* r, int const* L, int const* R)
{
    const __m256i iota = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7), none = _mm256_set1_epi32(-1);
    const __m256i slope = _mm256_set1_epi32(g.slope), uv = _mm256_set1_epi32(u);
    const __m256i rows = _mm256_set1_epi32(H), majors = _mm256_set1_epi32(g.K);
    for (int k = 0; k < g.K; k += 8) {
        __m256i major = _mm256_add_epi32(_mm256_set1_epi32(k), iota);
        __m256i minor = _mm256_add_epi32(uv, _mm256_srai_epi32(_mm256_mullo_epi32(major, slope), 16));
        __m256i i = g.vertical ? minor : major, j = g.vertical ? major : minor;
        __m256i in = _mm256_and_si256(_mm256_cmpgt_epi32(majors, major),
                                      _mm256_and_si256(_mm256_cmpgt_epi32(j, none), _mm256_cmpgt_epi32(rows, j)));
        __m256i lo, hi;
        if (g.vertical) {
            lo = _mm256_loadu_si256((__m256i const*)(L + k));
            hi = _mm256_loadu_si256((__m256i const*)(R + k));
        } else {
            __m256i jc = _mm256_min_epi32(_mm256_max_epi32(j, _mm256_setzero_si256()), rows);
            lo = _mm256_i32gather_epi32(L, jc, 4);
            hi = _mm256_i32gather_epi32(R, jc, 4);
        }
        in = _mm256_andnot_si256(_mm256_or_si256(_mm256_cmpgt_epi32(lo, i), _mm256_cmpgt_epi32(i, hi)), in);
        int bits = _mm256_movemask_ps(_mm256_castsi256_ps(in));
        if (!bits) continue;
        if (bits != 0xFF) {
            // Lanes outside their row's span sample a pixel that is inside and store nothing.
            int f = __builtin_ctz((unsigned)bits);
            __m256i lane = _mm256_set1_epi32(f);
            i = _mm256_blendv_epi8(_mm256_permutevar8x32_epi32(i, lane), i, in);
            j = _mm256_blendv_epi8(_mm256_permutevar8x32_epi32(j, lane), j, in);
        }
        __m256i p[3];
        for (int a = 0; a < 3; ++a)
            p[a] = _mm256_add_epi32(_mm256_set1_epi32(s[a]),
                                    _mm256_add_epi32(_mm256_mullo_epi32(j, _mm256_set1_epi32(r[a])),
                                                     _mm256_mullo_epi32(i, _mm256_set1_epi32(c[a]))));
        alignas(32) int I[8], J[8];
        alignas(16) short v[8];
        _mm256_store_si256((__m256i*)I, i);
        _mm256_store_si256((__m256i*)J, j);
        _mm_store_si128((__m128i*)v, narrow8(triLin8(sl, X, p[0], p[1], p[2])));
        for (int l = 0; l < 8; ++l)
            if (bits >> l & 1) out[(size_t)J[l] * W + I[l]] = v[l];
    }
}
#endif

}  // namespace

bool VX_MPR::sampleAlongSlices(short* bounds)
{
#if defined(VX_HAVE_AVX2)
    int s[3], c[3], r[3];
    int W = imageBox.dims[0], H = imageBox.dims[1];
    // Rows that change slice less than once in 16 pixels are as good.
    if (W > 30000 || H > 30000 || !fixedPointFrame(interpolation == 1, s, c, r)) return false;
    long long cz = c[2], rz = r[2];
    if (std::llabs(cz) * 16 <= (1ll << kFracBits)) return false;
    // Along (rz, -cz) in pixels the slice coordinate stays put.
    SliceLines g;
    g.vertical = std::llabs(cz) > std::llabs(rz);
    double t = g.vertical ? -(double)rz / (double)cz : -(double)cz / (double)rz;
    g.slope = (int)lround(t * 65536.0);
    g.K = g.vertical ? H : W;
    int M = g.vertical ? W : H;
    int fEnd = (int)(((long long)(g.K - 1) * g.slope) >> 16);
    g.uLo = -std::max(0, fEnd);
    g.uHi = M - 1 - std::min(0, fEnd);

    std::vector<int> L(H + 8, 1), R(H + 8, 0);
    GridLimits lim(volBox.dims, 1);
    const int still[3] = {0, 0, 0};
    for (int j = 0; j < H; ++j) {
        int q[3];
        if (!rowSpan(bounds, j, s, c, r, still, 1, lim, -1, &L[j], &R[j], q)) L[j] = 1, R[j] = 0;
    }
    short* const* sl = volData->slices;
    int X = volBox.dims[0];
    short* out = output;
#pragma omp parallel for schedule(dynamic, 8)
    for (int u = g.uLo; u <= g.uHi; ++u) sliceLineAVX2(u, g, out, W, H, sl, X, s, c, r, L.data(), R.data());
    return true;
#else
    (void)bounds;
    return false;
#endif
}

// The rows of a single section, in 16 fixed blocks on the OpenMP team. Each
// thread writes only its rows, and each pixel is the same as in one sequential
// pass. `reach` is how far beyond a sample's voxel the row kernel reads.
void VX_MPR::sampleSection(short* bounds, int reach, SectionRow row)
{
    int s[3], c[3], r[3];
    if (!fixedPointFrame(interpolation == 1, s, c, r)) return;
    int W = imageBox.dims[0], H = imageBox.dims[1], X = volBox.dims[0];
    short* const* sl = volData->slices;
    short* out = output;
    GridLimits lim(volBox.dims, reach);
    const int kBlocks = 16;
#pragma omp parallel for schedule(static)
    for (int k = 0; k < kBlocks; ++k) {
        const int still[3] = {0, 0, 0};
        for (int j = H * k / kBlocks; j < H * (k + 1) / kBlocks; ++j) {
            int L, R, q[3];
            if (rowSpan(bounds, j, s, c, r, still, 1, lim, -1, &L, &R, q))
                row(out + (size_t)j * W + L, R - L + 1, sl, X, q[0], q[1], q[2], c[0], c[1], c[2]);
        }
    }
}

void VX_MPR::CalcImageNN(short* bounds) { sampleSection(bounds, 0, sectionRowRef<true>); }

void VX_MPR::CalcImageTriLin(short* bounds)
{
#if defined(__SSE2__)
    if ((VX_CPU_ID() & VX_CPU_SSE2) && volBox.dims[0] <= kMaxVectorX && volBox.dims[1] <= kMaxVectorX) {
#if defined(VX_HAVE_AVX2)
        if (useAVX2()) {
            if (!sampleAlongSlices(bounds)) sampleSection(bounds, 1, triLinRowAVX2);
            return;
        }
#endif
        return sampleSection(bounds, 1, triLinRowSSE2);
    }
#endif
    sampleSection(bounds, 1, sectionRowRef<false>);
}

// The image normal in volume grid units, scaled so that its greatest element
// (the slab axis) is exactly one step; returns the steps in half the slab.
int VX_MPR::CalcZVec(VX_3Vec* out)
{
    VX_Mat L = trans.Inv();
    L.ResetTranslation();
    VX_3Vec a = VX_3Vec(1, 0, 0, 0) * L;
    VX_3Vec b = VX_3Vec(0, 1, 0, 0) * L;
    VX_3Vec n = VX_Cross(a, b);
    n.Normalize();
    VX_Mat P = volBox.GetPhysToIntTrans();
    P.ResetTranslation();
    VX_3Vec v = n * P;
    slabAxis = v.GreatestElem();
    float c = v[slabAxis];
    v *= 1.0f / c;
    if (out) *out = v;
    // Held below 2^30 so that 2 n + 1 samples stay countable; a slab that deep
    // has no row left inside the volume anyway.
    float half = (slabThickness * 0.5f) / (1.0f / fabsf(c));
    return half < 1073741823.0f ? (int)half : 1073741823;
}
