#include <gtest/gtest.h>

#include <stdio.h>
#include <string>
#include <vector>

#include "VX_MPRReference.h"

// On the real aorta angiogram (128 x 128 x 256, 1 mm assumed), both paths: an axial section
// through voxel centres is the slice; inside, the maximum slab is at least the section and
// the minimum at most it (a ray's middle sample lies on the plane), the average between them
// to within the one unit its single rounding may move.
TEST(VX_MPRRealScan, AortaSectionAndSlabsAgree)
{
    const std::string raw = std::string(VX_SHARED_DATA_DIR) + "/cta_aorta_stent.raw";
    FILE* f = fopen(raw.c_str(), "rb");
    if (!f) GTEST_SKIP() << "real scan not found: " << raw << " (see shared/data/README.md)";
    const int X = 128, Y = 128, Z = 256, kSlice = 140;
    VX_Box box(X, Y, Z);
    VX_VolData vol(&box);
    vol.Allocate();
    size_t got = 0;
    for (int z = 0; z < Z; ++z) got += fread(vol.slices[z], 2, (size_t)X * Y, f);
    fclose(f);
    ASSERT_EQ(got, (size_t)X * Y * Z);

    vxref::Rig r;
    r.Use(vol, -32768);
    r.mpr.imageBox = VX_Box(X, Y, 1);
    r.mpr.trans.m[3][2] = -(kSlice + 0.5f);
    r.Calc();
    std::vector<short> sec = r.out, slab[3];  // average, maximum, minimum
    for (int m = 0; m < 3; ++m) {
        r.mpr.slabThickness = 20, r.mpr.slabMIP = m == 1, r.mpr.slabMin = m == 2;
        r.Calc();
        slab[m] = r.out;
    }
    for (int i = 0; i < X * Y; ++i) {
        if (i % X == 0 || i % X == X - 1 || i < X || i >= X * (Y - 1)) continue;
        ASSERT_EQ(sec[i], vol.slices[kSlice][i]) << i;
        ASSERT_TRUE(slab[1][i] >= sec[i] && slab[2][i] <= sec[i]) << i;
        ASSERT_TRUE(slab[0][i] >= slab[2][i] - 1 && slab[0][i] <= slab[1][i] + 1) << i;
    }
}
