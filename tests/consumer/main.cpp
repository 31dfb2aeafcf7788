// Builds a 4x4x4 volume with voxel (x, y, z) = x + 10 y + 100 z, reformats the
// axial plane through the centres of slice 2 with trilinear sampling and
// checks one pixel. Exits 0 on success.
#include "VX.h"

#include <cstdio>

int main()
{
    const int n = 4;
    VX_Box box(n, n, n);  // one millimetre per voxel, origin at 0
    VX_VolData vol(&box);
    vol.Allocate();
    for (int z = 0; z < n; z++)
        for (int y = 0; y < n; y++)
            for (int x = 0; x < n; x++)
                vol.GetSlices()[z][x + y * n] = (short)(x + 10 * y + 100 * z);
    vol.SetMinPixelValue(0);
    vol.SetMaxPixelValue(333);

    short out[n * n];
    VX_MPR mpr;
    mpr.volData = &vol;
    mpr.volBox = box;
    mpr.imageBox = VX_Box(n, n, 1);
    float shift[3] = {0.0f, 0.0f, -2.5f};  // volume z = 2.5 mm comes to the image plane
    mpr.trans.SetTranslation(shift);
    mpr.output = out;
    mpr.slabThickness = 0.0f;
    mpr.interpolation = 1;
    mpr.rotate = false;
    mpr.noInterrupt = true;
    mpr.CalcRaster();

    // Pixel (1, 2) samples the centre of voxel (1, 2, 2).
    int got = out[2 * n + 1];
    if (got != 221) {
        std::printf("vx_consumer: pixel (1, 2) is %d, expected 221\n", got);
        return 1;
    }
    std::printf("vx_consumer: ok\n");
    return 0;
}
