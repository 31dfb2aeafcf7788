// VX_MPR's trilinear section of the oblique plane on the 512 x 512 x 256
// CT-like volume into a 512 x 512 picture, sampled directly and through the
// aligned intermediate picture (rotate), at 1 and 2 OpenMP threads. Items are
// output pixels. The rotated case also reports the picture's side and the
// largest difference from the direct picture where both hold samples.

#include <omp.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "VX_BenchData.h"

namespace {

void SetUpSection(VX_MPR& mpr, short* out, bool rotate)
{
    VX_BenchVolume& bv = VX_GetBenchVolume();
    VX_PhysBox image((float)(kBenchW * kBenchMMPP), (float)(kBenchH * kBenchMMPP), 1.f);
    mpr.volData = bv.vol;
    mpr.volBox = bv.box;
    mpr.trans = VX_BenchPlaneTrans(VX_ObliquePlane());
    mpr.imageBox = VX_Box(image, kBenchW, kBenchH, 1);
    mpr.output = out;
    mpr.slabThickness = 0.f;
    mpr.interpolation = 1;
    mpr.noInterrupt = true;
    mpr.rotate = rotate;
}

// The largest |rotated - direct| over pixels whose 5 x 5 neighbourhood holds
// samples in the direct picture (not the volume's minimum).
int LargestDifference(std::vector<short> const& rotated)
{
    std::vector<short> direct(rotated.size());
    VX_MPR mpr;
    SetUpSection(mpr, direct.data(), false);
    mpr.CalcRaster();
    short fill = (short)VX_GetBenchVolume().minValue;
    int worst = 0;
    for (int j = 2; j < kBenchH - 2; ++j)
        for (int i = 2; i < kBenchW - 2; ++i) {
            bool inside = true;
            for (int dj = -2; dj <= 2 && inside; ++dj)
                for (int di = -2; di <= 2; ++di) inside &= direct[(i + di) + (j + dj) * kBenchW] != fill;
            if (inside) worst = std::max(worst, std::abs(rotated[i + j * kBenchW] - direct[i + j * kBenchW]));
        }
    return worst;
}

void RunSection(benchmark::State& state, bool rotate)
{
    std::vector<short> out((size_t)kBenchW * kBenchH);
    VX_MPR mpr;
    SetUpSection(mpr, out.data(), rotate);
    omp_set_num_threads((int)state.range(0));
    for (auto _ : state) {
        mpr.CalcRaster();
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kBenchW * kBenchH);
    state.counters["mean"] = VX_BenchMean(out.data(), (int)out.size());
    if (rotate) {
        state.counters["side"] = mpr.rotatedBox.dims[0];
        state.counters["maxdiff"] = LargestDifference(out);
    }
}

void VX_MPR_Oblique_TriLin_Direct(benchmark::State& s) { RunSection(s, false); }
void VX_MPR_Oblique_TriLin_Rotated(benchmark::State& s) { RunSection(s, true); }

}  // namespace

BENCHMARK(VX_MPR_Oblique_TriLin_Direct)->Apply(VX_BenchConfigure);
BENCHMARK(VX_MPR_Oblique_TriLin_Rotated)->Apply(VX_BenchConfigure);
