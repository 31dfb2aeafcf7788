#include "VX_RealBitVol.h"

#include <omp.h>
#include <stdio.h>
#include <string.h>

#include <vector>

#include "VX_Mat.h"
#include "VX_Raster.h"
#include "../VX_Apps/VX_ClipBounds.h"

namespace {

// Resampling runs in fixed point: 17 fractional bits for |=, 18 for the
// others. The scale is applied in float and the product truncated.
constexpr int kOrFracBits = 17;
constexpr float kOrScale = 131072.0f;    // 1 << 17
constexpr int kFracBits = 18;
constexpr float kScale = 262144.0f;      // 1 << 18
// How far inside other's faces the sample centres must stay, in other's voxels.
constexpr float kMargin = 0.1f;
constexpr float kInterpMargin = 0.6f;    // trilinear reads the next voxel too
// One half in 18-bit fixed point: the trilinear mask must reach it.
constexpr int kHalf = 0x20000;

enum class Rule { Or, OrInterp, OrNot, And, AndNot };

// Truncation toward zero; a value outside the 32-bit range gives INT_MIN, as
// the processor's conversion does.
inline int toFixed(float v)
{
    if (v >= -2147483648.0f && v < 2147483648.0f) return (int)v;
    return (int)0x80000000u;
}

// The placement of this grid's slice z in other's grid: scanline bounds come
// from the planes, the start and steps are fixed point.
struct Frame {
    float planes[6][4];
    int nPlanes;         // 4 when other stands for every depth
    bool flat;           // other's slice 0 for every z: start z and z steps 0
    VX_Mat Q;            // this grid to other's
    float scale;
    int W, H;
};

// Bit (x >> F) & 31 of word (x >> (F + 5)) + (y >> F) * wordsPerLine of slice
// z >> F. No test: the bounds keep the sample inside.
template <Rule R, int F>
inline unsigned sampleAt(VX_BitVol& o, int x, int y, int z)
{
    if (R == Rule::OrInterp) return (unsigned)o.TriLinGetBit(x, y, z, kHalf);
    const unsigned* line = o.slices[z >> F] + (y >> F) * o.wordsPerLine;
    return (line[x >> (F + 5)] >> ((x >> F) & 31)) & 1u;
}

// One row from left to right inclusive. Samples enter each word's accumulator
// at the top, so the first word's bits land at left & 31 and the last word is
// shifted down by 31 - (right & 31). Each destination word is written once.
// Positions advance in 32-bit wrap-around arithmetic.
template <Rule R, int F>
void combineRow(unsigned* dst, VX_BitVol& o, int left, int right, unsigned px, unsigned py,
                unsigned pz, const unsigned* col)
{
    const int lastWord = right >> 5;
    int x = left;
    for (int w = left >> 5; w <= lastWord; ++w) {
        int last = (x | 31) < right ? (x | 31) : right;
        unsigned acc = 0;
        for (int i = x; i <= last; ++i) {
            acc = (acc >> 1) | (sampleAt<R, F>(o, (int)px, (int)py, (int)pz) << 31);
            px += col[0];
            py += col[1];
            pz += col[2];
        }
        // Only the sampled bits are inverted: outside other nothing counts as absent.
        if (R == Rule::OrNot) acc ^= ~((1u << ((x - last + 31) & 31)) - 1u);
        if (w == lastWord) acc >>= 31 - (right & 31);
        if (R == Rule::And)
            dst[w] &= acc;
        else if (R == Rule::AndNot)
            dst[w] &= ~acc;
        else
            dst[w] |= acc;
        x = last + 1;
    }
}

// Slice z of dst combined with o. For And, what lies outside o is cleared:
// an empty row wholly, 0..left-1 before the words, and right..W-1 after them
// (starting at right, so the row's last kept voxel goes as well).
template <Rule R, int F>
void combineSlice(VX_BitVol& dst, VX_BitVol& o, Frame const& fr, int z, short* bounds)
{
    const int W = fr.W, H = fr.H;
    for (int k = 0; k < fr.nPlanes; ++k) {
        float const* p = fr.planes[k];
        float line[4] = {p[0], p[1], p[2], p[2] * ((float)z + 0.5f) + p[3]};
        VX_ClipBounds(bounds, W, H, line, k == 0);
    }

    VX_3Vec s = VX_3Vec(0.5f, 0.5f, (float)z + 0.5f) * fr.Q;
    unsigned start[3], col[3], row[3];
    for (int i = 0; i < 3; ++i) {
        start[i] = (unsigned)toFixed(s[i] * fr.scale);
        col[i] = (unsigned)toFixed(fr.Q.m[0][i] * fr.scale);
        row[i] = (unsigned)toFixed(fr.Q.m[1][i] * fr.scale);
    }
    if (fr.flat) start[2] = col[2] = row[2] = 0;

    for (int y = 0; y < H; ++y) {
        int left = bounds[2 * y], right = bounds[2 * y + 1];
        if (left > right) {
            if (R == Rule::And) dst.SetLineOff(0, y, z, W - 1);
            continue;
        }
        if (R == Rule::And && left > 0) dst.SetLineOff(0, y, z, left - 1);
        unsigned p[3];
        for (int i = 0; i < 3; ++i) p[i] = start[i] + (unsigned)y * row[i] + (unsigned)left * col[i];
        combineRow<R, F>(dst.GetLineAddress(y, z), o, left, right, p[0], p[1], p[2], col);
        if (R == Rule::And && right < W - 1) dst.SetLineOff(right, y, z, W - 1);
    }
}

template <Rule R, int F>
void combineSerial(VX_BitVol& dst, VX_BitVol& o, Frame const& fr, int depth)
{
    std::vector<short> bounds(2 * (size_t)fr.H);
    for (int z = 0; z < depth; ++z) combineSlice<R, F>(dst, o, fr, z, bounds.data());
}

// Slices in parallel; each thread makes its bounds buffer on first use.
void andNotParallel(VX_BitVol& dst, VX_BitVol& o, Frame const& fr, int depth)
{
    std::vector<short*> buffers((size_t)omp_get_max_threads(), nullptr);
#pragma omp parallel for schedule(static)
    for (int z = 0; z < depth; ++z) {
        short*& b = buffers[(size_t)omp_get_thread_num()];
        if (!b) b = new short[2 * (size_t)fr.H];
        combineSlice<Rule::AndNot, kFracBits>(dst, o, fr, z, b);
    }
    for (short* b : buffers) delete[] b;
}

// A new block with t's offset, fullDims and dims, uninitialised.
VX_TightBitVol* newBlockLike(VX_TightBitVol const& t)
{
    VX_TightBitVol* b = new VX_TightBitVol();
    for (int i = 0; i < 3; ++i) {
        b->offset[i] = t.offset[i];
        b->fullDims[i] = t.fullDims[i];
        b->dims[i] = t.dims[i];
    }
    b->Allocate(true);
    return b;
}

}  // namespace

// ---- VX_RealBitVol ----

VX_RealBitVol::VX_RealBitVol() : VX_BitVol(), box(), infiniteDepth(false) {}

VX_RealBitVol::VX_RealBitVol(VX_Box* b) : VX_BitVol(b->dims), box(*b), infiniteDepth(false) {}

VX_RealBitVol::VX_RealBitVol(VX_PhysBox* place, VX_BitVol* bits)
    : VX_BitVol(*bits), box(*place, bits->dims[0], bits->dims[1], bits->dims[2]), infiniteDepth(false)
{
}

VX_RealBitVol::VX_RealBitVol(VX_Raster* r) : VX_BitVol(r, 0, 0, 0), box(), infiniteDepth(false)
{
    VX_PhysBox place((float)r->width, (float)r->height, 1.0f);
    box = VX_Box(place, dims[0], dims[1], dims[2]);
}

// The third extent is read from this object's fresh box (Z 1), not the
// source's depth: 1 for step 1 and 0 for any greater step.
VX_RealBitVol::VX_RealBitVol(VX_RealBitVol* src, int step)
    : VX_BitVol(src, step), box(), infiniteDepth(false)
{
    int zd = box.dims[2];
    VX_PhysBox place(1.0f, 1.0f, (float)((zd / step) * step) / (float)zd);
    place.Transform(src->box.GetFromNormTrans());
    box = VX_Box(place, dims[0], dims[1], dims[2]);
}

VX_RealBitVol::VX_RealBitVol(VX_RealBitVol const& o)
    : VX_BitVol(o), box(o.box), infiniteDepth(o.infiniteDepth)
{
}

VX_RealBitVol& VX_RealBitVol::operator=(VX_RealBitVol& o)
{
    VX_BitVol::operator=(o);
    box = o.box;
    infiniteDepth = o.infiniteDepth;
    return *this;
}

VX_RealBitVol::~VX_RealBitVol() {}

// Truncation toward zero: a coordinate is inside when -1 < q < dim.
int VX_RealBitVol::RealGetBit(VX_3Vec* p)
{
    VX_3Vec q = *p * box.GetPhysToIntTrans();
    for (int i = 0; i < 3; ++i)
        if (!(q[i] > -1.0f && q[i] < (float)box.dims[i])) return 0;
    int x = (int)q.x, y = (int)q.y, z = (int)q.z;
    return (int)((slices[z][(x >> 5) + y * wordsPerLine] >> (x & 31)) & 1u);
}

void VX_RealBitVol::RealSphere(float* center, float radius)
{
    float r[3];
    for (int i = 0; i < 3; ++i) r[i] = radius / (box.GetSize(i) / (float)box.dims[i]);
    // Only x, y and z take part in the transform, so w is not read.
    VX_3Vec c(center[0], center[1], center[2]);
    c *= box.GetPhysToIntTrans();
    Sphere(c, r[0], r[1], r[2]);
}

// The frame common to all combining operators. P maps other's grid to this
// one and Q = P^-1 back. Six planes, two per axis in other's grid (low: -u + m
// <= 0, high: u - (D - m) <= 0), carried into this grid, bound each row to the
// part of other that is safe to read. Each row is then sampled in fixed point.
void VX_RealBitVol::combine(VX_RealBitVol& o, Combine op)
{
    const bool interp = op == Combine::OrInterp;
    const float margin = interp ? kInterpMargin : kMargin;
    Frame fr;
    VX_Mat P = o.box.GetIntToPhysTrans() * box.GetPhysToIntTrans();
    fr.Q = P.Inv();
    for (int i = 0; i < 3; ++i) {
        VX_3Vec lo, hi;
        lo[i] = -1.0f;
        lo.w = margin;
        hi[i] = 1.0f;
        hi.w = -((float)o.box.dims[i] - margin);
        lo = lo.PlaneTransform(P);
        lo.Normalize();
        hi = hi.PlaneTransform(P);
        hi.Normalize();
        for (int k = 0; k < 4; ++k) {
            fr.planes[2 * i][k] = lo[k];
            fr.planes[2 * i + 1][k] = hi[k];
        }
    }
    // Infinite depth is honoured only by the intersecting operators.
    fr.flat = o.infiniteDepth && (op == Combine::And || op == Combine::AndNot);
    fr.nPlanes = fr.flat ? 4 : 6;
    fr.scale = op == Combine::Or ? kOrScale : kScale;
    fr.W = box.dims[0];
    fr.H = box.dims[1];
    const int depth = box.dims[2];
    if (fr.W < 1 || fr.H < 1) return;

    switch (op) {
    case Combine::Or:
        combineSerial<Rule::Or, kOrFracBits>(*this, o, fr, depth);
        break;
    case Combine::OrInterp:
        combineSerial<Rule::OrInterp, kFracBits>(*this, o, fr, depth);
        break;
    case Combine::OrNot:
        combineSerial<Rule::OrNot, kFracBits>(*this, o, fr, depth);
        break;
    case Combine::And:
        combineSerial<Rule::And, kFracBits>(*this, o, fr, depth);
        break;
    case Combine::AndNot:
        andNotParallel(*this, o, fr, depth);
        break;
    }
}

// The resampled operators never write a line's tail; the flag follows the
// word-by-word operators: |= clean only if both were, OrNot never, &= and -=
// unchanged.
VX_RealBitVol& VX_RealBitVol::operator|=(VX_RealBitVol& o)
{
    combine(o, Combine::Or);
    clean = clean && o.clean;
    return *this;
}

VX_RealBitVol& VX_RealBitVol::operator&=(VX_RealBitVol& o)
{
    combine(o, Combine::And);
    return *this;
}

VX_RealBitVol& VX_RealBitVol::operator-=(VX_RealBitVol& o)
{
    combine(o, Combine::AndNot);
    return *this;
}

VX_RealBitVol& VX_RealBitVol::Or(VX_RealBitVol& o, int interpolate)
{
    if (interpolate == 0) return *this |= o;
    combine(o, Combine::OrInterp);
    clean = clean && o.clean;
    return *this;
}

VX_RealBitVol& VX_RealBitVol::OrNot(VX_RealBitVol& o)
{
    combine(o, Combine::OrNot);
    clean = false;
    return *this;
}

// The block of the set bits grows by margin on each side (not in z when the
// mask is one slice thick) without clamping, so min may turn negative; the
// new box is that block placed by this grid, and the new outer cells are clear.
VX_RealBitVol* VX_RealBitVol::Tighten(int margin)
{
    int size[3], min[3];
    CalcBoundingBox(size, min);
    int smallest = size[0];
    for (int i = 1; i < 3; ++i)
        if (size[i] < smallest) smallest = size[i];
    if (smallest == 0) return this;

    const int axes = size[2] == 1 ? 2 : 3;
    for (int i = 0; i < axes; ++i) {
        min[i] -= margin;
        size[i] += 2 * margin;
    }
    VX_Box place(size[0], size[1], size[2]);
    place.Translate((float)min[0], (float)min[1], (float)min[2]);
    place.Transform(box.GetIntToPhysTrans());

    VX_RealBitVol tmp(&place);
    tmp.infiniteDepth = infiniteDepth;
    tmp.CopySubVolume(this, min);
    tmp.ClearBoundary(margin);

    box = tmp.box;
    infiniteDepth = tmp.infiniteDepth;
    VX_BitVol::operator=(tmp);
    return this;
}

// The placement covers the even part of the grid: an odd last column, line or
// slice is dropped.
VX_RealBitVol* VX_RealBitVol::Shrink()
{
    VX_PhysBox place((float)(dims[0] & ~1), (float)(dims[1] & ~1), (float)(dims[2] & ~1));
    place.Transform(box.GetIntToPhysTrans());
    printf("original = %d\n", CountBits());
    VX_BitVol* half = VX_BitVol::Shrink();
    printf("shrunk = %d\n", half->CountBits());
    VX_RealBitVol* r = new VX_RealBitVol(&place, half);
    delete half;
    printf("rbv = %d\n", r->CountBits());
    return r;
}

// ---- VX_TightBitVol ----

VX_TightBitVol::VX_TightBitVol() : VX_BitVol()
{
    for (int i = 0; i < 3; ++i) offset[i] = fullDims[i] = 0;
}

// The bounding block of src grown by margin and clamped to src at both ends.
// The axis count is chosen by this object's Z, which is still 0 then, so all
// three axes are grown even for a one-slice source.
VX_TightBitVol::VX_TightBitVol(VX_BitVol* src, int margin) : VX_BitVol()
{
    int size[3], min[3];
    for (int i = 0; i < 3; ++i) {
        offset[i] = 0;
        fullDims[i] = src->dims[i];
    }
    src->CalcBoundingBox(size, min);
    int smallest = size[0];
    for (int i = 1; i < 3; ++i)
        if (size[i] < smallest) smallest = size[i];
    if (smallest == 0) return;

    const int axes = dims[2] == 1 ? 2 : 3;
    for (int i = 0; i < axes; ++i) {
        int n = size[i] + 2 * margin;
        int lo = min[i] - margin;
        if (lo < 0) {
            n += lo;
            lo = 0;
            min[i] = 0;
        } else {
            min[i] = lo;
        }
        dims[i] = n;
        offset[i] += lo;
        if (fullDims[i] < n + lo) dims[i] = fullDims[i] - lo;
    }
    sliceCount = dims[2];
    slices = nullptr;
    clean = false;
    Allocate(true);
    ClearBoundary(margin);
    CopySubVolume(src, min);
}

VX_TightBitVol::~VX_TightBitVol() {}

VX_BitVol* VX_TightBitVol::Clone()
{
    VX_TightBitVol* b = newBlockLike(*this);
    for (int z = 0; z < dims[2]; ++z) memcpy(b->slices[z], slices[z], (size_t)wordsPerSlice * 4);
    return b;
}

VX_BitVol* VX_TightBitVol::EmptyClone() { return newBlockLike(*this); }

VX_BVSeqIterator* VX_TightBitVol::CreateIterator() { return new VX_TBVSeqIterator(this); }

void VX_TightBitVol::CalcBoundingRect(VX_Rect* r) { *r = VX_Rect(offset[0], offset[1], dims[0], dims[1]); }

void VX_TightBitVol::CalcBoundingBox(int* size, int* min)
{
    for (int i = 0; i < 3; ++i) {
        size[i] = dims[i];
        min[i] = offset[i];
    }
}

void VX_TightBitVol::CalcZLimits(int* limits)
{
    limits[0] = 0;
    limits[1] = dims[2] - 1;
}

int* VX_TightBitVol::ComputeSplittingLines(int n)
{
    int* lines = VX_BitVol::ComputeSplittingLines(n);
    for (int i = 0; i <= n; ++i) lines[i] += offset[2];
    return lines;
}

// ---- VX_TBVSeqIterator ----

VX_TBVSeqIterator::VX_TBVSeqIterator(VX_TightBitVol* v)
    : VX_BVSeqIterator(v), offX(v->offset[0]), offY(v->offset[1]), offZ(v->offset[2])
{
    x += offX;
    y += offY;
    z += offZ;
}

// The walk runs in block coordinates; a set bit in the same word needs no
// offsets. At the end all coordinates stay -1.
bool VX_TBVSeqIterator::operator++(int)
{
    unsigned next = word >> 1;
    if (next & 1u) {
        word = next;
        ++x;
        return true;
    }
    x -= offX;
    y -= offY;
    z -= offZ;
    VX_BVSeqIterator::operator++(0);
    if (z < 0) return false;
    x += offX;
    y += offY;
    z += offZ;
    return true;
}

bool VX_TBVSeqIterator::GoToSlice(int zz)
{
    if (!VX_BVSeqIterator::GoToSlice(zz - offZ)) return false;
    x += offX;
    y += offY;
    z += offZ;
    return true;
}

// ---- VX_Overlay ----

VX_Overlay::VX_Overlay(int w, int h, unsigned short g) : VX_BitVol(w, h, 1), group(g) {}

VX_Overlay::~VX_Overlay() {}

VX_Overlay& VX_Overlay::operator+=(VX_Overlay& o)
{
    for (int z = 0; z < dims[2]; ++z) {
        unsigned* d = slices[z];
        const unsigned* s = o.slices[z];
        for (int i = 0; i < wordsPerSlice; ++i) d[i] |= s[i];
    }
    clean = clean && o.clean;
    return *this;
}
