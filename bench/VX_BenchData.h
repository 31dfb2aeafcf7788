#ifndef VX_BENCHDATA_H
#define VX_BENCHDATA_H

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include <vector>

#include "VX_Apps/VX_MPR.h"

// The shared input of the reformatting benchmarks: a CT-like volume of
// 512 x 512 x 256 voxels at 0.7 x 0.7 x 1.0 mm (a body with lungs, contrast
// vessels and a spine, plus noise), built once on first use, and the planes
// that both the VX and the VTK cases sample.

constexpr int kBenchX = 512, kBenchY = 512, kBenchZ = 256;
constexpr double kBenchSpacing[3] = {0.7, 0.7, 1.0};
constexpr int kBenchW = 512, kBenchH = 512;  // output picture
constexpr double kBenchMMPP = 0.7;           // output pixel size, mm
constexpr double kBenchSlabMM = 20.0;        // slab thickness, mm

struct VX_BenchVolume {
    VX_Box box;                 // origin corner at (0, 0, 0) mm
    VX_VolData* vol = nullptr;  // staggered slices, as the library allocates them
    // The same voxels in one block, x fastest, for VTK; empty without VTK.
    std::vector<short> contiguous;
    int minValue = 0, maxValue = 0;
};

// Built on the first call; lives for the process.
VX_BenchVolume& VX_GetBenchVolume();

// An image plane in volume physical space: unit axes u (image x), v (image y)
// and n (normal), and the point that the picture's centre shows.
struct VX_BenchPlane {
    double u[3], v[3], n[3];
    double center[3];
};

// Axial, through the middle of the volume.
VX_BenchPlane VX_AxialPlane();
// The axial axes turned 25 degrees about x, then 35 degrees about y.
VX_BenchPlane VX_ObliquePlane();

// Volume physical -> image physical for a kBenchW x kBenchH picture of
// kBenchMMPP pixels whose box starts at the origin: the plane's centre goes to
// the picture's centre and (u, v, n) to the image axes.
VX_Mat VX_BenchPlaneTrans(VX_BenchPlane const& p);

// Slab sampling as the reformatter does it: the step along n is one voxel on
// the grid axis nearest n, and trunc(half thickness / step) steps go each way.
double VX_SlabStepMM(VX_BenchPlane const& p);
int VX_SlabSamples(VX_BenchPlane const& p, double thicknessMM);

// Mean of a picture, reported as a counter so that the VX and VTK rows of a
// case can be seen to sample the same thing.
double VX_BenchMean(short const* p, int n);

// Sends standard output to /dev/null while alive: the library prints messages
// and progress (Thresh, Save, Load, the clipping bounds manager) that would
// flood the benchmark table.
struct VX_QuietStdout {
    int fd;
    VX_QuietStdout()
    {
        std::fflush(stdout);
        fd = dup(1);
        int nul = open("/dev/null", O_WRONLY);
        dup2(nul, 1);
        close(nul);
    }
    ~VX_QuietStdout()
    {
        std::fflush(stdout);
        dup2(fd, 1);
        close(fd);
    }
    VX_QuietStdout(VX_QuietStdout const&) = delete;
    VX_QuietStdout& operator=(VX_QuietStdout const&) = delete;
};

// Thread count from the argument, wall time, 5 repetitions reported as aggregates.
inline void VX_BenchConfigure(benchmark::internal::Benchmark* b)
{
    b->ArgName("threads")->Arg(1)->Arg(2);
    b->Unit(benchmark::kMillisecond)->UseRealTime();
    b->Repetitions(5)->ReportAggregatesOnly(true);
}

#endif
