// The VX_MPR cases done by VTK's vtkImageReslice, for comparison: the same
// voxels (shared, not copied), the same plane, extent and spacing, and the
// same slab sample count and step. Threads come from the reslice's own
// vtkMultiThreader (SMP off), set to 1 and 2.

#include <vtkImageData.h>
#include <vtkImageReslice.h>
#include <vtkMatrix4x4.h>
#include <vtkNew.h>
#include <vtkPointData.h>
#include <vtkShortArray.h>
#include <vtkVersion.h>

#include "VX_BenchData.h"

namespace {

enum class Slab { kNone, kMean, kMax, kMin };

// The benchmark volume as vtkImageData. VTK puts a voxel's value at its point
// origin + i * spacing; the reformatter puts it at the cell centre, so the
// origin is half a voxel in from the box's corner.
vtkImageData* BenchImage()
{
    static vtkImageData* s_image = [] {
        VX_BenchVolume& bv = VX_GetBenchVolume();
        vtkNew<vtkShortArray> scalars;
        // save = 1: VTK never frees the voxels.
        scalars->SetArray(bv.contiguous.data(), (vtkIdType)bv.contiguous.size(), 1);
        vtkImageData* image = vtkImageData::New();
        image->SetDimensions(kBenchX, kBenchY, kBenchZ);
        image->SetSpacing(kBenchSpacing[0], kBenchSpacing[1], kBenchSpacing[2]);
        image->SetOrigin(0.5 * kBenchSpacing[0], 0.5 * kBenchSpacing[1], 0.5 * kBenchSpacing[2]);
        image->GetPointData()->SetScalars(scalars);
        return image;
    }();
    return s_image;
}

void RunReslice(benchmark::State& state, VX_BenchPlane plane, bool linear, Slab slab)
{
    VX_BenchVolume& bv = VX_GetBenchVolume();

    // Columns: the output x, y and z axes and the origin, in input physical space.
    vtkNew<vtkMatrix4x4> axes;
    for (int i = 0; i < 3; ++i) {
        axes->SetElement(i, 0, plane.u[i]);
        axes->SetElement(i, 1, plane.v[i]);
        axes->SetElement(i, 2, plane.n[i]);
        axes->SetElement(i, 3, plane.center[i]);
    }

    double step = VX_SlabStepMM(plane);
    vtkNew<vtkImageReslice> reslice;
    reslice->SetInputData(BenchImage());
    reslice->SetResliceAxes(axes);
    reslice->SetOutputExtent(0, kBenchW - 1, 0, kBenchH - 1, 0, 0);
    reslice->SetOutputSpacing(kBenchMMPP, kBenchMMPP, step);
    // Output pixel (i, j) at ((i + 0.5) * mmpp - W * mmpp / 2, ...) about the centre.
    reslice->SetOutputOrigin((0.5 - kBenchW * 0.5) * kBenchMMPP, (0.5 - kBenchH * 0.5) * kBenchMMPP, 0.0);
    reslice->SetBackgroundLevel(bv.minValue);
    if (linear)
        reslice->SetInterpolationModeToLinear();
    else
        reslice->SetInterpolationModeToNearestNeighbor();
    if (slab != Slab::kNone) {
        if (slab == Slab::kMean) reslice->SetSlabModeToMean();
        if (slab == Slab::kMax) reslice->SetSlabModeToMax();
        if (slab == Slab::kMin) reslice->SetSlabModeToMin();
        reslice->SetSlabNumberOfSlices(VX_SlabSamples(plane, kBenchSlabMM));
        reslice->SetSlabSliceSpacingFraction(1.0);
        reslice->SlabTrapezoidIntegrationOff();
    }
    reslice->SetEnableSMP(false);
    reslice->SetNumberOfThreads((int)state.range(0));
    reslice->Update();

    for (auto _ : state) {
        reslice->Modified();
        reslice->Update();
        benchmark::DoNotOptimize(reslice->GetOutput()->GetScalarPointer());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kBenchW * kBenchH);
    state.counters["mean"] = VX_BenchMean(static_cast<short const*>(reslice->GetOutput()->GetScalarPointer()),
                                          kBenchW * kBenchH);
    if (slab != Slab::kNone) state.counters["samples"] = reslice->GetSlabNumberOfSlices();
}

void VTK_Reslice_Axial_Linear(benchmark::State& s) { RunReslice(s, VX_AxialPlane(), true, Slab::kNone); }
void VTK_Reslice_Oblique_NN(benchmark::State& s) { RunReslice(s, VX_ObliquePlane(), false, Slab::kNone); }
void VTK_Reslice_Oblique_Linear(benchmark::State& s) { RunReslice(s, VX_ObliquePlane(), true, Slab::kNone); }
void VTK_Reslice_Oblique_Slab20_Mean(benchmark::State& s) { RunReslice(s, VX_ObliquePlane(), true, Slab::kMean); }
void VTK_Reslice_Oblique_Slab20_Max(benchmark::State& s) { RunReslice(s, VX_ObliquePlane(), true, Slab::kMax); }
void VTK_Reslice_Oblique_Slab20_Min(benchmark::State& s) { RunReslice(s, VX_ObliquePlane(), true, Slab::kMin); }

[[maybe_unused]] int const s_context = (benchmark::AddCustomContext("vtk_version", vtkVersion::GetVTKVersion()), 0);

}  // namespace

BENCHMARK(VTK_Reslice_Axial_Linear)->Apply(VX_BenchConfigure);
BENCHMARK(VTK_Reslice_Oblique_NN)->Apply(VX_BenchConfigure);
BENCHMARK(VTK_Reslice_Oblique_Linear)->Apply(VX_BenchConfigure);
BENCHMARK(VTK_Reslice_Oblique_Slab20_Mean)->Apply(VX_BenchConfigure);
BENCHMARK(VTK_Reslice_Oblique_Slab20_Max)->Apply(VX_BenchConfigure);
BENCHMARK(VTK_Reslice_Oblique_Slab20_Min)->Apply(VX_BenchConfigure);
