// Masks and volume operations on the shared 512 x 512 x 256 CT-like volume:
// whole-word mask logic beside a plain copy of the same bytes (the machine's
// memory bandwidth), thresholding, resampled logic between masks on boxes
// turned 20 degrees against each other, the transposed slice set, the low
// resolution copy, and the volume file beside fread of the same bytes.
// Items are voxels.

#include <omp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

#include "VX_BenchData.h"
#include "VX_Types/VX_RealBitVol.h"

namespace {

constexpr long long kVoxels = (long long)kBenchX * kBenchY * kBenchZ;
constexpr size_t kMaskBytes = (size_t)(kVoxels / 8);
constexpr size_t kVolumeBytes = (size_t)kVoxels * 2;

// Masks of the bench volume: bone and contrast (above 200), and the body
// (above -500). Built once.
struct Masks {
    VX_BitVol dense{kBenchX, kBenchY, kBenchZ};
    VX_BitVol body{kBenchX, kBenchY, kBenchZ};
    VX_RealBitVol* placed = nullptr;   // body, on the volume's box
    VX_RealBitVol* turned = nullptr;   // dense, on the box turned 20 degrees about z
};

Masks& GetMasks()
{
    static Masks* s_masks = [] {
        VX_BenchVolume& bv = VX_GetBenchVolume();
        auto* m = new Masks;
        {
            VX_QuietStdout q;
            m->dense.Thresh(bv.vol, 200);
            m->body.Thresh(bv.vol, -500);
        }
        m->placed = new VX_RealBitVol(static_cast<VX_PhysBox*>(&bv.box), &m->body);
        VX_Box turnedBox = bv.box;
        VX_3Vec c = bv.box.GetCenter();
        float a = 20.0f * 3.14159265f / 180.0f;
        float toOrigin[3] = {-c.x, -c.y, -c.z}, back[3] = {c.x, c.y, c.z};
        float r0[3] = {std::cos(a), std::sin(a), 0}, r1[3] = {-std::sin(a), std::cos(a), 0},
              r2[3] = {0, 0, 1};
        turnedBox.Transform(VX_TransMat(toOrigin) * VX_Mat(r0, r1, r2, nullptr) * VX_TransMat(back));
        m->turned = new VX_RealBitVol(&turnedBox, &m->dense);
        return m;
    }();
    return *s_masks;
}

void Threads(benchmark::State& state) { omp_set_num_threads((int)state.range(0)); }

void Voxels(benchmark::State& state, long long perIteration)
{
    state.SetItemsProcessed(state.iterations() * perIteration);
}

// The reference: one copy of a mask's bytes.
void VX_Memcpy_MaskBytes(benchmark::State& state)
{
    std::vector<char> a(kMaskBytes, 1), b(kMaskBytes, 2);
    for (auto _ : state) {
        memcpy(b.data(), a.data(), kMaskBytes);
        benchmark::ClobberMemory();
    }
    Voxels(state, kVoxels);
    state.SetBytesProcessed(state.iterations() * (long long)kMaskBytes);
}

void VX_BitVol_CountBits(benchmark::State& state)
{
    Masks& m = GetMasks();
    Threads(state);
    int n = 0;
    for (auto _ : state) benchmark::DoNotOptimize(n = m.dense.CountBits());
    Voxels(state, kVoxels);
    state.counters["bits"] = n;
}

void VX_BitVol_Or(benchmark::State& state)
{
    Masks& m = GetMasks();
    VX_BitVol dst(m.body);
    Threads(state);
    for (auto _ : state) {
        dst |= m.dense;
        benchmark::ClobberMemory();
    }
    Voxels(state, kVoxels);
}

void VX_BitVol_Thresh(benchmark::State& state)
{
    VX_BenchVolume& bv = VX_GetBenchVolume();
    VX_BitVol mask(kBenchX, kBenchY, kBenchZ);
    Threads(state);
    {
        VX_QuietStdout q;
        for (auto _ : state) mask.Thresh(bv.vol, 200);
    }
    Voxels(state, kVoxels);
}

// Resampled logic: this mask on the volume's box, the other on a box turned
// 20 degrees about z through the centre. The destination is restored between
// iterations, outside the timing.
void RunReal(benchmark::State& state, bool subtract)
{
    Masks& m = GetMasks();
    VX_RealBitVol dst(*m.placed);
    Threads(state);
    for (auto _ : state) {
        state.PauseTiming();
        dst = *m.placed;
        state.ResumeTiming();
        if (subtract)
            dst -= *m.turned;
        else
            dst &= *m.turned;
        benchmark::ClobberMemory();
    }
    Voxels(state, kVoxels);
    state.counters["bits"] = dst.CountBits();
}

void VX_RealBitVol_And_Turned20(benchmark::State& state) { RunReal(state, false); }
void VX_RealBitVol_Subtract_Turned20(benchmark::State& state) { RunReal(state, true); }

void VX_VolData_GetTransposedSlices(benchmark::State& state)
{
    VX_BenchVolume& bv = VX_GetBenchVolume();
    Threads(state);
    for (auto _ : state) {
        // A shallow copy whose transposed set starts empty each time.
        state.PauseTiming();
        VX_VolData* v = bv.vol->Clone();
        state.ResumeTiming();
        benchmark::DoNotOptimize(v->GetTransposedSlices());
        state.PauseTiming();
        delete v;
        state.ResumeTiming();
    }
    Voxels(state, kVoxels);
}

void VX_VolData_CreateLowRes_Avg2(benchmark::State& state)
{
    VX_BenchVolume& bv = VX_GetBenchVolume();
    VX_VolData* v = bv.vol->Clone();
    Threads(state);
    for (auto _ : state) v->CreateLowRes(false, 2);
    delete v;
    Voxels(state, kVoxels);
}

std::string BenchFile()
{
    char const* dir = getenv("TMPDIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/vx_bench_" + std::to_string(getpid()) + ".vxv";
}


void VX_VolData_Save(benchmark::State& state)
{
    VX_BenchVolume& bv = VX_GetBenchVolume();
    std::string path = BenchFile();
    {
        VX_QuietStdout q;
        for (auto _ : state)
            if (!bv.vol->Save(path.c_str())) state.SkipWithError("Save failed");
    }
    unlink(path.c_str());
    Voxels(state, kVoxels);
    state.SetBytesProcessed(state.iterations() * (long long)kVolumeBytes);
}

// Saves the bench volume to a fresh file for reading; empty, with the case
// skipped, when that fails.
std::string SavedBenchFile(benchmark::State& state)
{
    std::string path = BenchFile();
    VX_QuietStdout q;
    if (!VX_GetBenchVolume().vol->Save(path.c_str())) {
        state.SkipWithError("Save failed");
        return std::string();
    }
    return path;
}

void VX_VolData_Load(benchmark::State& state)
{
    std::string path = SavedBenchFile(state);
    if (path.empty()) return;
    VX_QuietStdout q;
    VX_Box empty;
    for (auto _ : state) {
        VX_VolData v(&empty);
        if (!v.Load(path.c_str())) state.SkipWithError("Load failed");
    }
    unlink(path.c_str());
    Voxels(state, kVoxels);
    state.SetBytesProcessed(state.iterations() * (long long)kVolumeBytes);
}

// The reference for Load: fread of the same file, slice by slice, into memory
// that is already mapped, so that only the reading is timed.
void VX_Fread_VolumeFile(benchmark::State& state)
{
    std::string path = SavedBenchFile(state);
    if (path.empty()) return;
    size_t slice = (size_t)kBenchX * kBenchY * 2;
    std::vector<char> buf(kVolumeBytes + 222, 1);
    for (auto _ : state) {
        FILE* f = fopen(path.c_str(), "rb");
        size_t got = fread(buf.data(), 1, 222, f);
        for (int z = 0; z < kBenchZ; ++z) got += fread(buf.data() + 222 + z * slice, 1, slice, f);
        fclose(f);
        benchmark::DoNotOptimize(buf[got - 1]);
    }
    unlink(path.c_str());
    Voxels(state, kVoxels);
    state.SetBytesProcessed(state.iterations() * (long long)kVolumeBytes);
}

}  // namespace

BENCHMARK(VX_Memcpy_MaskBytes)->Apply(VX_BenchConfigure);
BENCHMARK(VX_BitVol_CountBits)->Apply(VX_BenchConfigure);
BENCHMARK(VX_BitVol_Or)->Apply(VX_BenchConfigure);
BENCHMARK(VX_BitVol_Thresh)->Apply(VX_BenchConfigure);
BENCHMARK(VX_RealBitVol_And_Turned20)->Apply(VX_BenchConfigure);
BENCHMARK(VX_RealBitVol_Subtract_Turned20)->Apply(VX_BenchConfigure);
BENCHMARK(VX_VolData_GetTransposedSlices)->Apply(VX_BenchConfigure);
BENCHMARK(VX_VolData_CreateLowRes_Avg2)->Apply(VX_BenchConfigure);
BENCHMARK(VX_VolData_Save)->Apply(VX_BenchConfigure);
BENCHMARK(VX_VolData_Load)->Apply(VX_BenchConfigure);
BENCHMARK(VX_Fread_VolumeFile)->Apply(VX_BenchConfigure);
