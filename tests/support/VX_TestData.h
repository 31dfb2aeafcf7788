#ifndef VX_TESTDATA_H
#define VX_TESTDATA_H

// Small synthetic boxes and volumes for the unit tests. Header-only.

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>

#include "VX_Types/VX_VolData.h"

namespace vxtest {

// X x Y x Z cells spaced sx, sy, sz mm along the world axes, the origin corner at `origin`.
inline VX_Box MakeBox(int X, int Y, int Z, float sx = 1.0f, float sy = 1.0f, float sz = 1.0f,
                      VX_3Vec origin = VX_3Vec())
{
    VX_PhysBox p(X * sx, Y * sy, Z * sz);
    p.Translate(origin.x, origin.y, origin.z);
    return VX_Box(p, X, Y, Z);
}

// Voxel (x, y, z) of a volume whose slices are in place.
inline short& Voxel(VX_VolData& v, int x, int y, int z) { return v.slices[z][x + y * v.box.GetX()]; }

template <class F>  // sets every voxel (x, y, z) to (short)f(x, y, z)
void FillVolume(VX_VolData& v, F f)
{
    for (int z = 0; z < v.box.GetZ(); ++z)
        for (int y = 0; y < v.box.GetY(); ++y)
            for (int x = 0; x < v.box.GetX(); ++x) Voxel(v, x, y, z) = (short)f(x, y, z);
}

template <class F>  // a volume on `box` with its own (Allocate) slices, filled by f(x, y, z)
std::unique_ptr<VX_VolData> MakeVolume(VX_Box box, F f)
{
    auto v = std::make_unique<VX_VolData>(&box);
    v->Allocate();
    FillVolume(*v, f);
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

template <class F>  // what f prints on standard output
std::string Captured(F f)
{
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

}  // namespace vxtest

#endif
