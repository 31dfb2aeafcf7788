#ifndef VX_MPRREFERENCE_H
#define VX_MPRREFERENCE_H

// The reformatting rules one sample at a time, to compare with VX_MPR's kernels.

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "VX_Apps/VX_MPR.h"
#include "VX_Types/VX_CPU.h"
#include "support/VX_TestData.h"

namespace vxref {

constexpr int kFracBits = 18;  // grid coordinates are 14.18 fixed point

inline int Fix(float v) { return (int)(v * 262144.0f); }
inline int Weight(int v) { return (v >> 3) & 0x7FFF; }
inline int Lerp(int a, int b, int f) { return a + (((b - a) * f) >> 15); }
// a + k * s in 32-bit wrap-around arithmetic, as the kernels accumulate.
inline int Mad(int a, int k, int s) { return (int)((uint32_t)a + (uint32_t)k * (uint32_t)s); }

// Runs f on the scalar paths with one thread, on the four-lane vector paths with
// four, and on all paths (eight lanes where there are) with four; expects the
// same values and returns the last.
template <class F>
std::vector<short> BothPaths(F f)
{
    const int masks[3] = {0, ~VX_CPU_AVX2, -1}, threads[3] = {1, 4, 4};
    char const* names[3] = {"scalar path on 1 thread", "SSE2 path on 4 threads", "widest path on 4 threads"};
    std::vector<short> out[3];
    int saved = omp_get_max_threads();
    for (int p = 0; p < 3; ++p) {
        VX_SetCPUIDMask(masks[p]);
        omp_set_num_threads(threads[p]);
        out[p] = f();
    }
    VX_SetCPUIDMask(-1);
    omp_set_num_threads(saved);
    for (int p = 1; p < 3; ++p) {
        auto bad = std::mismatch(out[0].begin(), out[0].end(), out[p].begin());
        if (bad.first != out[0].end())
            ADD_FAILURE() << "value " << bad.first - out[0].begin() << ": " << names[0] << " " << *bad.first
                          << ", " << names[p] << " " << *bad.second;
    }
    return out[2];
}

// A VX_MPR making a trilinear section of a volume, with its output buffer.
struct Rig {
    VX_MPR mpr;
    std::vector<short> out;
    int W = 0, H = 0;

    void Use(VX_VolData& v, short fill)
    {
        v.SetMinPixelValue(fill);
        mpr.volData = &v, mpr.volBox = v.box;
        mpr.interpolation = 1, mpr.slabThickness = 0;
        mpr.rotate = mpr.noInterrupt = mpr.slabMIP = mpr.slabMin = false;
    }
    void Calc()  // CalcRaster on every path into out
    {
        W = mpr.imageBox.dims[0], H = mpr.imageBox.dims[1];
        out = BothPaths([&] {
            std::vector<short> o(W * H, 12345);
            mpr.output = o.data();
            mpr.CalcRaster();
            return o;
        });
    }
    short Out(int i, int j) const { return out[i + j * W]; }
};

// A W x H image of sp mm pixels centred on the volume's centre plus shift, turned by rot.
inline void PlaceImage(VX_MPR& m, VX_Mat const& rot, int W, int H, float sp, VX_3Vec shift)
{
    VX_PhysBox p(W * sp, H * sp, 1);
    m.imageBox = VX_Box(p, W, H, 1);
    m.imageBox.Translate(-W * sp * 0.5f, -H * sp * 0.5f, 0);
    VX_3Vec c = m.volBox.GetCenter() + shift;
    float t[3] = {-c.x, -c.y, -c.z};
    m.trans = VX_TransMat(t) * rot;
}

struct Vol {  // reads voxels, clearing inRange at the first one outside
    VX_VolData const& v;
    bool inRange = true;
    int At(int x, int y, int z)
    {
        int const* d = v.box.dims;
        inRange &= x >= 0 && y >= 0 && z >= 0 && x < d[0] && y < d[1] && z < d[2];
        return inRange ? v.slices[z][x + y * d[0]] : 0;
    }
};

// Bilinear on grid plane `plane` of axis m, the lower other axis first, rounding down.
inline int Bilin(Vol& v, int m, int plane, int const* p)
{
    int u = m == 0 ? 1 : 0, w = m == 2 ? 1 : 2;
    auto at = [&](int du, int dw) {
        int q[3];
        q[m] = plane, q[u] = (p[u] >> kFracBits) + du, q[w] = (p[w] >> kFracBits) + dw;
        return v.At(q[0], q[1], q[2]);
    };
    int fu = Weight(p[u]);
    return Lerp(Lerp(at(0, 0), at(1, 0), fu), Lerp(at(0, 1), at(1, 1), fu), Weight(p[w]));
}

inline int TriLin(Vol& v, int const* p)  // x, then y, then z
{
    int iz = p[2] >> kFracBits;
    return Lerp(Bilin(v, 2, iz, p), Bilin(v, 2, iz + 1, p), Weight(p[2]));
}

// Fixed-point start of pixel (0, 0) and the column and row steps, from
// Inv(volBox int->phys * trans * imageBox phys->int).
struct Frame {
    int start[3], col[3], row[3];
    Frame(VX_MPR const& m, bool shiftHalf)
    {
        VX_Mat B = (m.volBox.GetIntToPhysTrans() * m.trans * m.imageBox.GetPhysToIntTrans()).Inv();
        VX_3Vec p(0.5f, 0.5f, 0, 0);
        p *= B;
        for (int a = 0; a < 3; ++a) {
            p[a] -= shiftHalf ? 0.5f : 0.0f;
            start[a] = Fix(p[a]), col[a] = Fix(B.m[0].f[a]), row[a] = Fix(B.m[1].f[a]);
        }
    }
    void Pixel(int i, int j, int* p) const
    {
        for (int a = 0; a < 3; ++a) p[a] = Mad(Mad(start[a], j, row[a]), i, col[a]);
    }
};

// The slab step: the image normal in grid units scaled to 1 on element `axis`,
// and n, the steps covering half the slab.
struct ZVec {
    VX_3Vec v;
    int axis, n;
    explicit ZVec(VX_MPR const& m)
    {
        VX_Mat L = m.trans.Inv(), P = m.volBox.GetPhysToIntTrans();
        L.ResetTranslation();
        P.ResetTranslation();
        VX_3Vec nrm = VX_Cross(VX_3Vec(1, 0, 0, 0) * L, VX_3Vec(0, 1, 0, 0) * L);
        nrm.Normalize();
        v = nrm * P;
        axis = v.GreatestElem();
        float c = v[axis];
        v *= 1.0f / c;
        n = (int)((m.slabThickness * 0.5f) / (1.0f / std::fabs(c)));
    }
};

// Average of depth samples from p by steps s: two bilinears per sample, the
// lerp along `axis` hoisted out of the ray.
inline int AvgRay(Vol& v, int axis, float avgScale, int depth, int const* p, int const* s)
{
    int lo = 0, hi = 0, q[3] = {p[0], p[1], p[2]};
    for (int k = 0, base = p[axis] >> kFracBits; k < depth; ++k) {
        lo += Bilin(v, axis, base + k, q);
        hi += Bilin(v, axis, base + k + 1, q);
        for (int a = 0; a < 3; ++a) q[a] = Mad(q[a], 1, s[a]);
    }
    int64_t mix = lo + (((int64_t)Weight(p[axis]) * (hi - lo)) >> 15);
    return (short)(int)((float)mix * avgScale);
}

// Extreme of the trilinear samples of a ray, narrowed to 16 bits: ray-major
// kernels start from -88888 / 88888, plane-major ones from 0x8080 / 0x7F7F.
inline short ExtremeRay(Vol& v, bool isMax, bool rayMajor, int depth, int const* p, int const* s)
{
    int r = rayMajor ? (isMax ? -88888 : 88888) : (isMax ? -32640 : 32639);
    for (int k = 0; k < depth; ++k) {
        int q[3] = {Mad(p[0], k, s[0]), Mad(p[1], k, s[1]), Mad(p[2], k, s[2])};
        r = isMax ? std::max(r, TriLin(v, q)) : std::min(r, TriLin(v, q));
    }
    return (short)r;
}

// Checks boundingRect against the library's own bounds (both faces of a slab), then
// compares rig.out with one(vol, p) inside them, the frame's start moved by -n steps s
// for a slab, and with fill elsewhere. Returns the pixels inside, or -1 at the first
// difference or sample outside the volume.
template <class F>
long CompareImage(Rig& rig, VX_VolData const& vol, short fill, int n, int const* s, F one)
{
    VX_MPR& m = rig.mpr;
    std::vector<short> bounds(2 * rig.H);
    float half = std::max(m.slabThickness * 0.5f, 0.0f);
    m.PrepareCBounds(bounds.data(), half, true);
    if (half > 0) m.PrepareCBounds(bounds.data(), -half, false);
    EXPECT_EQ(m.boundingRect, VX_MPR::computeBoundingRect(rig.W, rig.H, bounds.data()));
    Frame f(m, m.interpolation == 1);
    for (int a = 0; a < 3 && s; ++a) f.start[a] = Mad(f.start[a], -n, s[a]);
    Vol v{vol};
    long inside = 0;
    for (int j = 0; j < rig.H; ++j)
        for (int i = 0; i < rig.W; ++i) {
            int expect = fill, p[3];
            if (i >= bounds[2 * j] && i <= bounds[2 * j + 1]) {
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
