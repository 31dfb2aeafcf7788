#ifndef VX_MPRREFERENCE_H
#define VX_MPRREFERENCE_H

// A plain, one-sample-at-a-time statement of the reformatting rules, for
// comparison with VX_MPR's kernels. Nothing here is fast; every voxel read is
// range-checked and clears Vol::inRange when it falls outside the volume.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "VX_Apps/VX_MPR.h"
#include "VX_Types/VX_CPU.h"

namespace vxref {

constexpr int kFracBits = 18;         // grid coordinates are 14.18 fixed point
constexpr float kFixOne = 262144.0f;  // 1 << kFracBits
constexpr int kWeightBits = 15;       // weight = (v >> 3) & 0x7FFF
constexpr int kRayMax = -88888;       // ray-major start of the maximum
constexpr int kRayMin = 88888;        // ray-major start of the minimum
constexpr int kPlaneMax = -32640;     // plane-major start of the maximum (0x8080)
constexpr int kPlaneMin = 32639;      // plane-major start of the minimum (0x7F7F)

inline int Fix(float v) { return (int)(v * kFixOne); }
inline int Weight(int v) { return (v >> 3) & 0x7FFF; }
inline int Lerp(int a, int b, int f) { return a + (((b - a) * f) >> kWeightBits); }
// a + k * s in 32-bit wrap-around arithmetic, as the kernels accumulate.
inline int Mad(int a, int k, int s) { return (int)((uint32_t)a + (uint32_t)k * (uint32_t)s); }

// A box of X x Y x Z cells spaced sx, sy, sz mm, origin at 0.
inline VX_Box MakeBox(int X, int Y, int Z, float sx = 1, float sy = 1, float sz = 1)
{
    VX_PhysBox p(X * sx, Y * sy, Z * sz);
    return VX_Box(p, X, Y, Z);
}

// An allocated volume on box with voxel (x, y, z) = f(x, y, z).
template <class F>
std::unique_ptr<VX_VolData> MakeVolume(VX_Box box, F f)
{
    auto v = std::make_unique<VX_VolData>(&box);
    v->Allocate();
    for (int z = 0; z < box.dims[2]; ++z)
        for (int y = 0; y < box.dims[1]; ++y)
            for (int x = 0; x < box.dims[0]; ++x) v->slices[z][x + y * box.dims[0]] = (short)f(x, y, z);
    return v;
}

// Random voxels, one in five at -32768 or 32767.
inline std::unique_ptr<VX_VolData> RandomVolume(VX_Box box, std::mt19937& rng)
{
    std::uniform_int_distribution<int> val(-32768, 32767), pick(0, 9);
    return MakeVolume(box, [&](int, int, int) {
        int p = pick(rng);
        return p == 0 ? -32768 : p == 1 ? 32767 : val(rng);
    });
}

inline void ExpectSamePaths(std::vector<short> const& vec, std::vector<short> const& scalar)
{
    for (size_t i = 0; i < vec.size(); ++i)
        if (vec[i] != scalar[i]) {
            ADD_FAILURE() << "value " << i << ": vector path " << vec[i] << ", scalar path " << scalar[i];
            return;
        }
}

// A VX_MPR on a volume, with its output buffer.
struct Rig {
    VX_MPR mpr;
    std::vector<short> out;
    int W = 0, H = 0;

    void Use(VX_VolData& v, short fill)
    {
        v.SetMinPixelValue(fill);
        mpr.volData = &v;
        mpr.volBox = v.box;
        mpr.interpolation = 1;
        mpr.rotate = mpr.noInterrupt = mpr.slabMIP = mpr.slabMin = false;
        mpr.slabThickness = 0;
    }
    // CalcRaster on the scalar paths, then on the vector paths, which must
    // give the same picture; out keeps the latter.
    void Calc()
    {
        W = mpr.imageBox.dims[0];
        H = mpr.imageBox.dims[1];
        std::vector<short> scalar;
        for (int mask : {0, -1}) {
            VX_SetCPUIDMask(mask);
            out.assign(W * H, 12345);
            mpr.output = out.data();
            mpr.CalcRaster();
            scalar.swap(out);
        }
        out.swap(scalar);
        ExpectSamePaths(out, scalar);
    }
    short Out(int i, int j) const { return out[i + j * W]; }
};

// Places a W x H image of sp mm pixels on m: image physical space is volume
// physical space moved so that the volume's centre plus shift is the origin,
// then turned by rot. The image is centred on that origin at depth 0.
inline void PlaceImage(VX_MPR& m, VX_Mat const& rot, int W, int H, float sp, VX_3Vec shift)
{
    VX_PhysBox p(W * sp, H * sp, 1);
    m.imageBox = VX_Box(p, W, H, 1);
    m.imageBox.Translate(-W * sp * 0.5f, -H * sp * 0.5f, 0);
    VX_3Vec c = m.volBox.GetCenter() + shift;
    float t[3] = {-c.x, -c.y, -c.z};
    m.trans = VX_TransMat(t) * rot;
}

struct Vol {
    short* const* s;
    int X, Y, Z;
    bool inRange = true;
    explicit Vol(VX_VolData const& v) : s(v.slices), X(v.box.dims[0]), Y(v.box.dims[1]), Z(v.box.dims[2]) {}
    int At(int x, int y, int z)
    {
        if (x < 0 || y < 0 || z < 0 || x >= X || y >= Y || z >= Z) {
            inRange = false;
            return 0;
        }
        return s[z][x + y * X];
    }
};

// Trilinear at fixed-point grid point p: x, then y, then z, rounding down each time.
inline int TriLin(Vol& v, int const* p)
{
    int ix = p[0] >> kFracBits, iy = p[1] >> kFracBits, iz = p[2] >> kFracBits;
    int fx = Weight(p[0]), fy = Weight(p[1]), fz = Weight(p[2]);
    int a = Lerp(v.At(ix, iy, iz), v.At(ix + 1, iy, iz), fx);
    int b = Lerp(v.At(ix, iy + 1, iz), v.At(ix + 1, iy + 1, iz), fx);
    int c = Lerp(v.At(ix, iy, iz + 1), v.At(ix + 1, iy, iz + 1), fx);
    int d = Lerp(v.At(ix, iy + 1, iz + 1), v.At(ix + 1, iy + 1, iz + 1), fx);
    return Lerp(Lerp(a, b, fy), Lerp(c, d, fy), fz);
}

// Bilinear on grid plane `plane` of axis m over the two other axes, the lower
// one first (m 0: y then z; m 1: x then z; m 2: x then y).
inline int Bilin(Vol& v, int m, int plane, int const* p)
{
    int u = m == 0 ? 1 : 0, w = m == 2 ? 1 : 2;
    int iu = p[u] >> kFracBits, iw = p[w] >> kFracBits, fu = Weight(p[u]), fw = Weight(p[w]);
    auto at = [&](int du, int dw) {
        int q[3];
        q[m] = plane;
        q[u] = iu + du;
        q[w] = iw + dw;
        return v.At(q[0], q[1], q[2]);
    };
    return Lerp(Lerp(at(0, 0), at(1, 0), fu), Lerp(at(0, 1), at(1, 1), fu), fw);
}

// Fixed-point start of pixel (0, 0) and the column and row steps, from
// B = Inv(volBox int->phys * trans * imageBox phys->int).
struct Frame {
    int start[3], col[3], row[3];
    bool ok;
    // The point of pixel (i, j): start + j rows + i columns.
    void Pixel(int i, int j, int* p) const
    {
        for (int a = 0; a < 3; ++a) p[a] = Mad(Mad(start[a], j, row[a]), i, col[a]);
    }
};

inline Frame MakeFrame(VX_MPR const& m, bool shiftHalf)
{
    VX_Mat B = (m.volBox.GetIntToPhysTrans() * m.trans * m.imageBox.GetPhysToIntTrans()).Inv();
    VX_3Vec p(0.5f, 0.5f, 0, 0);
    p *= B;
    if (shiftHalf) {
        p.x -= 0.5f;
        p.y -= 0.5f;
        p.z -= 0.5f;
    }
    Frame f;
    f.ok = !(std::fabs(p.x) > 5000.0f || std::fabs(p.y) > 5000.0f || std::fabs(p.z) > 5000.0f);
    for (int a = 0; a < 3; ++a) {
        f.start[a] = Fix(p[a]);
        f.col[a] = Fix(B.m[0].f[a]);
        f.row[a] = Fix(B.m[1].f[a]);
    }
    return f;
}

// The slab step: the image normal in grid units, scaled so that element axis is 1.
struct ZVec {
    VX_3Vec v;
    int axis;
    int n;  // steps covering half the slab
};

inline ZVec CalcZVec(VX_MPR const& m)
{
    VX_Mat L = m.trans.Inv();
    L.ResetTranslation();
    VX_3Vec a = VX_3Vec(1, 0, 0, 0) * L, b = VX_3Vec(0, 1, 0, 0) * L;
    VX_3Vec nrm = VX_Cross(a, b);
    nrm.Normalize();
    VX_Mat P = m.volBox.GetPhysToIntTrans();
    P.ResetTranslation();
    ZVec z;
    z.v = nrm * P;
    z.axis = z.v.GreatestElem();
    float c = z.v[z.axis];
    z.v *= 1.0f / c;
    z.n = (int)((m.slabThickness * 0.5f) / (1.0f / std::fabs(c)));
    return z;
}

// Average of depth samples from p by steps s, two bilinears per sample and the
// lerp along `axis` hoisted out of the ray.
inline int AvgRay(Vol& v, int axis, float avgScale, int depth, int const* p, int const* s)
{
    int lo = 0, hi = 0, q[3] = {p[0], p[1], p[2]};
    int base = p[axis] >> kFracBits;
    for (int k = 0; k < depth; ++k) {
        lo += Bilin(v, axis, base + k, q);
        hi += Bilin(v, axis, base + k + 1, q);
        for (int a = 0; a < 3; ++a) q[a] = Mad(q[a], 1, s[a]);
    }
    int64_t mix = lo + (((int64_t)Weight(p[axis]) * (hi - lo)) >> kWeightBits);
    return (short)(int)((float)mix * avgScale);
}

// Extreme of the trilinear samples along a ray, from the ray-major start.
inline int ExtremeRay(Vol& v, bool isMax, int depth, int const* p, int const* s)
{
    int r = isMax ? kRayMax : kRayMin;
    for (int k = 0; k < depth; ++k) {
        int q[3];
        for (int a = 0; a < 3; ++a) q[a] = Mad(p[a], k, s[a]);
        int t = TriLin(v, q);
        r = isMax ? std::max(r, t) : std::min(r, t);
    }
    return r;
}

// What a kernel stores for the extreme r: ray-major narrows it, plane-major
// starts from 0x8080 / 0x7F7F.
inline short Stored(bool isMax, bool rayMajor, int r)
{
    if (rayMajor) return (short)r;
    return (short)(isMax ? std::max(r, kPlaneMax) : std::min(r, kPlaneMin));
}

// The dispatchers' first test: ray-major when abs(sx) > 65536.
inline bool RayMajor(int sx) { return std::abs(sx) > 65536; }

// Axis-snapped ray on axis m: the start moved onto the grid plane by the 11-bit
// fraction, then one bilinear per sample on planes b +- k.
inline int SnappedRay(Vol& v, int m, bool isMax, int depth, int const* p, int const* s)
{
    int c = p[m], sm = s[m];
    int f = ((c >> 3) & 0x7FFF) >> 4;
    int g = sm < 1 ? f : f ^ 2047;
    int q[3] = {p[0], p[1], p[2]};
    for (int a = 0; a < 3; ++a)
        if (a != m) q[a] += (g * s[a]) >> 11;
    int b = (c + ((g * sm) >> 11) + 63) >> kFracBits;
    int r = isMax ? kRayMax : kRayMin;
    for (int k = 0; k < depth; ++k) {
        int t = Bilin(v, m, sm > 0 ? b + k : b - k, q);
        r = isMax ? std::max(r, t) : std::min(r, t);
        for (int a = 0; a < 3; ++a)
            if (a != m) q[a] = Mad(q[a], 1, s[a]);
    }
    return (short)r;
}

// Compares rig.out with one(vol, p) at every pixel inside bounds, p being the
// pixel's point in f, and with fill at every other pixel. Returns how many
// pixels were inside, or -1 after reporting the first difference or the first
// sample outside the volume.
template <class F>
long CompareImage(Rig const& rig, VX_VolData const& vol, Frame const& f, short const* bounds, short fill, F one)
{
    Vol v(vol);
    long inside = 0;
    for (int j = 0; j < rig.H; ++j)
        for (int i = 0; i < rig.W; ++i) {
            int expect = fill;
            if (i >= bounds[2 * j] && i <= bounds[2 * j + 1]) {
                int p[3];
                f.Pixel(i, j, p);
                expect = one(v, p);
                ++inside;
            }
            if (!v.inRange || rig.Out(i, j) != (short)expect) {
                ADD_FAILURE() << "pixel " << i << "," << j << ": got " << rig.Out(i, j) << ", expected "
                              << (short)expect << (v.inRange ? "" : " (sample outside the volume)");
                return -1;
            }
        }
    return inside;
}

}  // namespace vxref

#endif
