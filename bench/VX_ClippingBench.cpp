// Clipping bounds of a sphere (radius 100 mm, centred, active, fixed to the
// patient) on the 512 x 512 x 256 box of 0.7 x 0.7 x 1.0 mm: a fresh
// calculation after the sphere moved, against the bounds of the other
// arrangement after a change of arrangement (saveMemory set, so that each
// change drops the array and GetCBounds transposes). Items are scanlines.

#include <omp.h>

#include <boost/make_shared.hpp>

#include "VX_BenchData.h"
#include "VX_Apps/VX_ClippingBoundsManager.h"
#include "VX_Apps/VX_ClippingObjectManager.h"

namespace {

struct SphereScene {
    VX_Box box;
    VX_ClippingObjectManager com{false};
    boost::shared_ptr<VX_ClippingSphere> sphere = boost::make_shared<VX_ClippingSphere>();

    SphereScene()
    {
        VX_PhysBox pb((float)(kBenchX * kBenchSpacing[0]), (float)(kBenchY * kBenchSpacing[1]),
                      (float)(kBenchZ * kBenchSpacing[2]));
        box = VX_Box(pb, kBenchX, kBenchY, kBenchZ);
        sphere->SetCenter(box.GetCenter());
        sphere->SetRadius(100.f);
        sphere->multithread.SetInterruptRequest(false);
        com.AddClippingObject(sphere);
        sphere->SetActive(true);
    }
};

// Voxels kept by an array, reported so that both cases can be seen to cut
// the same region.
double KeptVoxels(short const* a, int nx, long long pairs)
{
    double n = 0;
    for (long long p = 0; p < pairs; ++p) {
        int f = a[2 * p] < 0 ? 0 : a[2 * p], l = a[2 * p + 1] > nx - 1 ? nx - 1 : a[2 * p + 1];
        if (f <= l) n += l - f + 1;
    }
    return n;
}

void VX_ClippingSphere_Fresh(benchmark::State& state)
{
    SphereScene s;
    VX_ClippingBoundsManager* bm;
    short* a = nullptr;
    omp_set_num_threads((int)state.range(0));
    {
        VX_QuietStdout q;
        bm = new VX_ClippingBoundsManager;
        bm->SetBox(s.box);
        bm->SetClippingObjectManager(&s.com);
        for (auto _ : state) {
            s.sphere->Invalidate();
            a = bm->GetCBounds(true);
            benchmark::DoNotOptimize(a);
        }
    }
    long long pairs = (long long)kBenchY * kBenchZ;
    state.SetItemsProcessed(state.iterations() * pairs);
    state.counters["kept"] = a ? KeptVoxels(a, kBenchX, pairs) : -1;
    delete bm;
}

void VX_ClippingSphere_Transposed(benchmark::State& state)
{
    SphereScene s;
    VX_ClippingBoundsManager* bm;
    short* a = nullptr;
    long long transposed = 0;
    omp_set_num_threads((int)state.range(0));
    {
        VX_QuietStdout q;
        bm = new VX_ClippingBoundsManager;
        bm->SetBox(s.box);
        bm->SetClippingObjectManager(&s.com);
        bm->SetSaveMemoryMode(true);
        bm->GetCBounds(true);
        for (auto _ : state) {
            bm->SetTransposed(!bm->GetTransposed());   // drops this arrangement's array
            a = bm->GetCBounds(true);
            transposed += bm->GetTransposed();
            benchmark::DoNotOptimize(a);
        }
    }
    long long pairs = (long long)kBenchY * kBenchZ;
    state.SetItemsProcessed(state.iterations() * pairs);
    state.counters["kept"] = a ? KeptVoxels(a, bm->GetBox().GetX(), pairs) : -1;
    state.counters["transposedShare"] = (double)transposed / (double)state.iterations();
    delete bm;
}

}  // namespace

BENCHMARK(VX_ClippingSphere_Fresh)->Apply(VX_BenchConfigure)->Unit(benchmark::kMicrosecond);
BENCHMARK(VX_ClippingSphere_Transposed)->Apply(VX_BenchConfigure)->Unit(benchmark::kMicrosecond);
