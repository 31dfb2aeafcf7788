// VX_MPR on a 512 x 512 x 256 CT-like volume into a 512 x 512 picture:
// sections (nearest, trilinear) and 20 mm slabs (average, maximum, minimum),
// at 1 and 2 OpenMP threads. Items are output pixels.

#include <omp.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "VX_BenchData.h"

namespace {

enum class Slab { kNone, kAvg, kMax, kMin };

// The largest |picture - direct| over pixels whose 5 x 5 neighbourhood holds
// samples in the direct picture of the same plane (not the volume's minimum).
int LargestDifference(std::vector<short> const& picture, VX_MPR mpr)
{
    std::vector<short> direct(picture.size());
    mpr.output = direct.data();
    mpr.rotate = false;
    mpr.rotatedBuffer = nullptr;  // the copy must not share (and free) the original's
    mpr.rotatedBufferSide = 0;
    mpr.CalcRaster();
    short fill = (short)VX_GetBenchVolume().minValue;
    int worst = 0;
    for (int j = 2; j < kBenchH - 2; ++j)
        for (int i = 2; i < kBenchW - 2; ++i) {
            bool inside = true;
            for (int dj = -2; dj <= 2 && inside; ++dj)
                for (int di = -2; di <= 2; ++di) inside &= direct[(i + di) + (j + dj) * kBenchW] != fill;
            if (inside) worst = std::max(worst, std::abs(picture[i + j * kBenchW] - direct[i + j * kBenchW]));
        }
    return worst;
}

void RunMPR(benchmark::State& state, VX_BenchPlane plane, int interpolation, Slab slab,
            bool rotate = false)
{
    VX_BenchVolume& bv = VX_GetBenchVolume();
    std::vector<short> out((size_t)kBenchW * kBenchH);
    VX_PhysBox image((float)(kBenchW * kBenchMMPP), (float)(kBenchH * kBenchMMPP), 1.f);

    VX_MPR mpr;
    mpr.volData = bv.vol;
    mpr.volBox = bv.box;
    mpr.trans = VX_BenchPlaneTrans(plane);
    mpr.imageBox = VX_Box(image, kBenchW, kBenchH, 1);
    mpr.output = out.data();
    mpr.slabThickness = slab == Slab::kNone ? 0.f : (float)kBenchSlabMM;
    mpr.interpolation = interpolation;
    mpr.slabMIP = slab == Slab::kMax;
    mpr.slabMin = slab == Slab::kMin;
    mpr.noInterrupt = true;
    mpr.rotate = rotate;

    omp_set_num_threads((int)state.range(0));
    for (auto _ : state) {
        mpr.CalcRaster();
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kBenchW * kBenchH);
    state.counters["mean"] = VX_BenchMean(out.data(), (int)out.size());
    if (slab != Slab::kNone) state.counters["samples"] = VX_SlabSamples(plane, kBenchSlabMM);
    if (rotate) {
        state.counters["side"] = mpr.rotatedBox.dims[0];
        state.counters["maxdiff"] = LargestDifference(out, mpr);
    }
}

void VX_MPR_Axial_TriLin(benchmark::State& s) { RunMPR(s, VX_AxialPlane(), 1, Slab::kNone); }
void VX_MPR_Oblique_NN(benchmark::State& s) { RunMPR(s, VX_ObliquePlane(), 0, Slab::kNone); }
void VX_MPR_Oblique_TriLin(benchmark::State& s) { RunMPR(s, VX_ObliquePlane(), 1, Slab::kNone); }
// The same section through the aligned intermediate picture.
void VX_MPR_Oblique_TriLin_Rotated(benchmark::State& s) { RunMPR(s, VX_ObliquePlane(), 1, Slab::kNone, true); }
void VX_MPR_Oblique_Slab20_Avg(benchmark::State& s) { RunMPR(s, VX_ObliquePlane(), 1, Slab::kAvg); }
void VX_MPR_Oblique_Slab20_Max(benchmark::State& s) { RunMPR(s, VX_ObliquePlane(), 1, Slab::kMax); }
void VX_MPR_Oblique_Slab20_Min(benchmark::State& s) { RunMPR(s, VX_ObliquePlane(), 1, Slab::kMin); }

}  // namespace

BENCHMARK(VX_MPR_Axial_TriLin)->Apply(VX_BenchConfigure);
BENCHMARK(VX_MPR_Oblique_NN)->Apply(VX_BenchConfigure);
BENCHMARK(VX_MPR_Oblique_TriLin)->Apply(VX_BenchConfigure);
BENCHMARK(VX_MPR_Oblique_TriLin_Rotated)->Apply(VX_BenchConfigure);
BENCHMARK(VX_MPR_Oblique_Slab20_Avg)->Apply(VX_BenchConfigure);
BENCHMARK(VX_MPR_Oblique_Slab20_Max)->Apply(VX_BenchConfigure);
BENCHMARK(VX_MPR_Oblique_Slab20_Min)->Apply(VX_BenchConfigure);
