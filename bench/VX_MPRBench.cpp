// VX_MPR on a 512 x 512 x 256 CT-like volume into a 512 x 512 picture:
// sections (nearest, trilinear) and 20 mm slabs (average, maximum, minimum),
// at 1 and 2 OpenMP threads. Items are output pixels.

#include <omp.h>

#include <vector>

#include "VX_BenchData.h"

namespace {

enum class Slab { kNone, kAvg, kMax, kMin };

void RunMPR(benchmark::State& state, VX_BenchPlane plane, int interpolation, Slab slab)
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
    mpr.rotate = false;

    omp_set_num_threads((int)state.range(0));
    for (auto _ : state) {
        mpr.CalcRaster();
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kBenchW * kBenchH);
    state.counters["mean"] = VX_BenchMean(out.data(), (int)out.size());
    if (slab != Slab::kNone) state.counters["samples"] = VX_SlabSamples(plane, kBenchSlabMM);
}

void VX_MPR_Axial_TriLin(benchmark::State& s) { RunMPR(s, VX_AxialPlane(), 1, Slab::kNone); }
void VX_MPR_Oblique_NN(benchmark::State& s) { RunMPR(s, VX_ObliquePlane(), 0, Slab::kNone); }
void VX_MPR_Oblique_TriLin(benchmark::State& s) { RunMPR(s, VX_ObliquePlane(), 1, Slab::kNone); }
void VX_MPR_Oblique_Slab20_Avg(benchmark::State& s) { RunMPR(s, VX_ObliquePlane(), 1, Slab::kAvg); }
void VX_MPR_Oblique_Slab20_Max(benchmark::State& s) { RunMPR(s, VX_ObliquePlane(), 1, Slab::kMax); }
void VX_MPR_Oblique_Slab20_Min(benchmark::State& s) { RunMPR(s, VX_ObliquePlane(), 1, Slab::kMin); }

}  // namespace

BENCHMARK(VX_MPR_Axial_TriLin)->Apply(VX_BenchConfigure);
BENCHMARK(VX_MPR_Oblique_NN)->Apply(VX_BenchConfigure);
BENCHMARK(VX_MPR_Oblique_TriLin)->Apply(VX_BenchConfigure);
BENCHMARK(VX_MPR_Oblique_Slab20_Avg)->Apply(VX_BenchConfigure);
BENCHMARK(VX_MPR_Oblique_Slab20_Max)->Apply(VX_BenchConfigure);
BENCHMARK(VX_MPR_Oblique_Slab20_Min)->Apply(VX_BenchConfigure);
