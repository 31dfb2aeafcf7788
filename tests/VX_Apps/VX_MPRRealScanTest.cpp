#include <gtest/gtest.h>

#include <stdio.h>
#include <string>
#include <vector>

#include "VX_MPRReference.h"

// On the real aorta angiogram (128 x 128 x 256, 1 mm assumed), all paths: an axial section
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
    std::vector<short> out[4];  // section, average, maximum, minimum
    for (int m = 0; m < 4; ++m) {
        r.mpr.slabThickness = m ? 20 : 0, r.mpr.slabMIP = m == 2, r.mpr.slabMin = m == 3;
        r.Calc();
        out[m] = r.out;
    }
    for (int x = 1; x < X - 1; ++x)
        for (int i = x + X; i < X * (Y - 1); i += X) {
            ASSERT_EQ(out[0][i], vol.slices[kSlice][i]) << i;
            ASSERT_TRUE(out[2][i] >= out[0][i] && out[3][i] <= out[0][i]) << i;
            ASSERT_TRUE(out[1][i] >= out[3][i] - 1 && out[1][i] <= out[2][i] + 1) << i;
        }
}
