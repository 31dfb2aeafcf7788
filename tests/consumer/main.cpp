// Reformats the axial plane through the centres of slice 2 of a 4x4x4 volume
// with voxel (x, y, z) = x + 10 y + 100 z, trilinear, and checks one pixel.
// Exits 0 on success.
#include "VX.h"

#include <cstdio>

int main()
{
    const int n = 4;
    VX_Box box(n, n, n);  // one millimetre per voxel, origin at 0
    VX_VolData vol(&box);
    vol.Allocate();
    for (int z = 0; z < n; z++)
        for (int i = 0; i < n * n; i++) vol.GetSlices()[z][i] = (short)(i % n + 10 * (i / n) + 100 * z);

    short out[n * n];
    VX_MPR mpr;
    mpr.volData = &vol;
    mpr.volBox = box;
    mpr.imageBox = VX_Box(n, n, 1);
    float shift[3] = {0.0f, 0.0f, -2.5f};  // volume z = 2.5 mm comes to the image plane
    mpr.trans.SetTranslation(shift);
    mpr.output = out;
    mpr.slabThickness = 0.0f;  // a single section, not a slab
    mpr.noInterrupt = true;
    mpr.CalcRaster();

    int got = out[2 * n + 1];  // pixel (1, 2) samples the centre of voxel (1, 2, 2)
    std::printf("vx_consumer: pixel (1, 2) is %d, expected 221\n", got);
    return got == 221 ? 0 : 1;
}
