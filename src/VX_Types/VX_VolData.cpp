#include "VX_VolData.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

namespace {

// Slice i starts ((i * 179) & 480) * 2 bytes into its block, so that the same
// (x, y) of neighbouring slices falls into different cache sets.
inline int sliceStagger(int i) { return ((i * 179) & 480) * 2; }

// Truncation toward zero; a value beyond the 32-bit range, or NaN, gives
// INT_MIN, as the processor's conversion does (and so reads as outside).
inline int truncToInt(double v) { return v > -2147483649.0 && v < 2147483648.0 ? (int)v : INT_MIN; }

// v + 0.5 when v > 0, otherwise v - 0.5, in double (so that no float rounding
// of the sum moves it), then truncated toward zero.
inline int roundHalfAway(float v) { return truncToInt(v > 0 ? v + 0.5 : v - 0.5); }

}  // namespace

VX_VolData::VX_VolData(VX_Box* b)
    : lowRes(nullptr), box(*b), transposedBox(*b), ownsSlices(false), slices(nullptr),
      transposedSlices(nullptr), transposedAlloc(nullptr), sliceCount(b->GetZ()), minPixelValue(0),
      maxPixelValue(0), blankSlice(nullptr), thickness(0), rescaleSlope(1.0f), rescaleIntercept(0)
{
    transposedBox.TransposeXY();
    slices = new short*[sliceCount > 0 ? sliceCount : 0];
}

VX_VolData::~VX_VolData()
{
    Free();
    delete[] blankSlice;
}

// Every slice gets X * Y * 2 + 1024 bytes of its own, cut from one block that
// is aligned for huge pages where the system offers them: an oblique plane
// touches hundreds of slices per row, and small pages would thrash the TLB.
void VX_VolData::Allocate()
{
    ownsSlices = true;
    size_t bytes = ((size_t)box.GetX() * box.GetY() * 2 + 1024 + 63) & ~(size_t)63;
    size_t total = bytes * (size_t)(sliceCount > 0 ? sliceCount : 0);
    const size_t kHuge = (size_t)1 << 21;
    if (total >= kHuge) {
        total = (total + kHuge - 1) & ~(kHuge - 1);
        sliceArena = static_cast<char*>(aligned_alloc(kHuge, total));
#ifdef MADV_HUGEPAGE
        madvise(sliceArena, total, MADV_HUGEPAGE);
#endif
    } else {
        sliceArena = static_cast<char*>(malloc(total > 0 ? total : 1));
    }
    for (int i = 0; i < sliceCount; ++i)
        slices[i] = reinterpret_cast<short*>(sliceArena + (size_t)i * bytes + sliceStagger(i));
}

void VX_VolData::Init()
{
    delete[] blankSlice;
    size_t n = (size_t)box.GetX() * box.GetY();
    blankSlice = new short[n];
    memset(blankSlice, 128, n * 2);
    for (int i = 0; i < sliceCount; ++i) slices[i] = blankSlice;
}

bool VX_VolData::IsLoaded() const
{
    for (int i = 0; i < sliceCount; ++i)
        if (slices[i] == blankSlice) return false;
    return true;
}

// Leaves every pointer it freed null, so that a second Free, the destructor
// or a Load may follow. A view without transposed blocks of its own
// (transposedAlloc null) frees only its transposed arrays.
void VX_VolData::Free()
{
    if (ownsSlices) {
        if (sliceArena)
            free(sliceArena);
        else if (slices)
            for (int i = 0; i < sliceCount; ++i)
                if (slices[i]) delete[] (reinterpret_cast<char*>(slices[i]) - sliceStagger(i));
        sliceArena = nullptr;
    }
    delete[] slices;
    slices = nullptr;
    if (transposedSlices) {
        // GetTransposedSlices cuts every transposed block from one arena and
        // keeps its address in the entry after the last of transposedAlloc.
        if (transposedAlloc) free(transposedAlloc[sliceCount]);
        delete[] transposedSlices;
        delete[] transposedAlloc;
        transposedSlices = nullptr;
        transposedAlloc = nullptr;
    }
    delete lowRes;
    lowRes = nullptr;
}

float VX_VolData::GetThickness() const
{
    float z = box.GetSize(2) / (float)box.GetZ();
    return thickness > z ? thickness : z;
}

int VX_VolData::RawToHU(int r) const { return roundHalfAway(RawToHU((float)r)); }
int VX_VolData::HUToRaw(int h) const { return roundHalfAway(HUToRaw((float)h)); }

bool VX_VolData::GetValueAtIntCoords(int* out, VX_3Vec p, int) const
{
    int x = truncToInt(p.x), y = truncToInt(p.y), z = truncToInt(p.z);
    if (x < 0 || y < 0 || z < 0 || x >= box.GetX() || y >= box.GetY() || z >= box.GetZ())
        return false;
    *out = slices[z][x + y * box.GetX()];
    return true;
}

bool VX_VolData::GetValueAtPhysCoords(int* out, VX_3Vec p, int) const
{
    return GetValueAtIntCoords(out, p * box.GetPhysToIntTrans());
}

void VX_VolData::Transform(VX_Mat const& m) { box.Transform(m); }

VX_VolData* VX_VolData::Clone() const
{
    VX_Box b(box);
    VX_VolData* c = new VX_VolData(&b);
    for (int i = 0; i < sliceCount && i < c->sliceCount; ++i) c->slices[i] = slices[i];
    c->rescaleSlope = rescaleSlope;
    c->rescaleIntercept = rescaleIntercept;
    c->minPixelValue = minPixelValue;
    c->maxPixelValue = maxPixelValue;
    return c;
}
