#include <gtest/gtest.h>

#include <stdio.h>
#include <string>
#include <vector>

#include "VX_Apps/VX_MPR.h"

// On the real aorta angiogram (128 x 128 x 256, 1 mm assumed): an axial section
// through voxel centres returns the slice, and at every pixel inside both
// slab faces the maximum slab is at least the section and the minimum at most
// it (the middle sample of a ray lies on the plane), with the average between
// them to within the one unit its single rounding may move.
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

    VX_MPR mpr;
    mpr.volData = &vol;
    mpr.volBox = box;
    mpr.imageBox = VX_Box(X, Y, 1);
    mpr.trans.m[3][2] = -(kSlice + 0.5f);
    mpr.noInterrupt = true;
    std::vector<short> sec(X * Y), mx(X * Y), mn(X * Y), avg(X * Y);
    auto run = [&](short* out, float thickness, bool isMax, bool isMin) {
        mpr.output = out;
        mpr.slabThickness = thickness;
        mpr.slabMIP = isMax;
        mpr.slabMin = isMin;
        mpr.CalcRaster();
    };
    run(sec.data(), 0, false, false);
    for (int y = 1; y < Y - 1; ++y)
        for (int x = 1; x < X - 1; ++x) ASSERT_EQ(sec[x + y * X], vol.slices[kSlice][x + y * X]);

    run(mx.data(), 20, true, false);
    run(mn.data(), 20, false, true);
    run(avg.data(), 20, false, false);
    int inside = 0;
    for (int i = 0; i < X * Y; ++i) {
        if (i % X == 0 || i % X == X - 1 || i < X || i >= X * (Y - 1)) continue;
        ++inside;
        ASSERT_GE(mx[i], sec[i]);
        ASSERT_LE(mn[i], sec[i]);
        ASSERT_GE(avg[i], mn[i] - 1);
        ASSERT_LE(avg[i], mx[i] + 1);
    }
    EXPECT_GT(inside, 10000);
}
