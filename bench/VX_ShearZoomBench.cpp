// The shear zoom family: the signed 16-bit warp 512^2 -> 1024^2 (zoom 2) and
// 512^2 -> 700^2 turned 30 degrees; the RGBA warps of a 1024^2 intermediate
// image to a 1024^2 screen turned 30 degrees; the 2x2 mean of 2048^2 to
// 1024^2 (20 MB streamed: bound by memory bandwidth) and of 1024^2 to 512^2
// (held in cache). Each in its vector form and its scalar twin
// (VX_SetCPUIDMask(0)), at 1 and 2 OpenMP threads. Items are destination pixels.

#include <omp.h>

#include <random>
#include <vector>

#include "VX_BenchData.h"
#include "VX_Types/VX_CPU.h"
#include "VX_Zoom/VX_ShearZoom.h"

namespace {

// Destination pixel to source: turned by deg about the destination centre,
// scaled by s (source pixels per destination pixel), onto the source centre.
VX_Mat Warp(int W, int H, int w, int h, float deg, float s)
{
    float c0[3] = {-W * 0.5f, -H * 0.5f, 0}, c1[3] = {w * 0.5f, h * 0.5f, 0};
    return VX_TransMat(c0) * VX_RotMat(deg * 3.14159265f / 180, 2) * VX_Mat(s, s, 1) * VX_TransMat(c1);
}

// A smooth picture with noise, as a projection gives.
int Pixel(int x, int y, std::mt19937& rng)
{
    std::uniform_int_distribution<int> noise(0, 255);
    return ((x * 37 + y * 23) & 0x3FFF) * 3 + noise(rng);
}

struct CPUMask {
    explicit CPUMask(bool scalar) { VX_SetCPUIDMask(scalar ? 0 : -1); }
    ~CPUMask() { VX_SetCPUIDMask(-1); }
};

// An interleaved raster of side x side pixels of `bits`; RGBA16 counts elements.
struct BenchRaster {
    VX_Raster r;
    BenchRaster(int width, int height, int bits)
    {
        r.width = width;
        r.height = height;
        r.bitsPerPixel = bits;
        r.interleaved = true;
        r.Allocate();
    }
};

void RunLin(benchmark::State& state, int side, int dst, float deg, bool scalar)
{
    std::mt19937 rng(1);
    std::vector<short> src((size_t)side * side), out((size_t)dst * dst);
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x) src[x + (size_t)y * side] = (short)(Pixel(x, y, rng) - 20000);
    int ss[2] = {side, side}, ds[2] = {dst, dst};
    VX_Mat m = Warp(dst, dst, side, side, deg, deg == 0 ? (float)side / dst : 1.0f);
    omp_set_num_threads((int)state.range(0));
    CPUMask mask(scalar);
    for (auto _ : state) {
        VX_LinShearZoom(src.data(), out.data(), ss, ds, m, -32768);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * dst * dst);
}

// kind 4: VX_LinRGBAShearZoom, 3: VX_LinRGBA2RGBShearZoom, 0: VX_HalfRGBARaster.
void RunRGBA(benchmark::State& state, int kind, bool scalar, int side = 1024)
{
    std::mt19937 rng(2);
    int srcSide = kind == 0 ? 2 * side : side;
    BenchRaster src(kind == 0 ? srcSide : 4 * srcSide, srcSide, kind == 0 ? 32 : 16);
    BenchRaster dst(side, side, kind == 3 ? 24 : 32);
    for (int y = 0; y < srcSide; ++y) {
        if (kind == 0) {
            unsigned char* p = (unsigned char*)src.r.data + (size_t)y * src.r.GetLineBytes();
            for (int i = 0; i < 4 * srcSide; ++i) p[i] = (unsigned char)Pixel(i, y, rng);
            continue;
        }
        unsigned short* p = (unsigned short*)((char*)src.r.data + (size_t)y * src.r.GetLineBytes());
        for (int i = 0; i < 4 * srcSide; ++i) p[i] = (unsigned short)(Pixel(i / 4, y, rng) + 1000 * (i & 3));
    }
    VX_Mat m = Warp(side, side, srcSide, srcSide, 30, 1.0f);
    omp_set_num_threads((int)state.range(0));
    CPUMask mask(scalar);
    for (auto _ : state) {
        if (kind == 4) VX_LinRGBAShearZoom(&src.r, &dst.r, m);
        if (kind == 3) VX_LinRGBA2RGBShearZoom(&src.r, &dst.r, m);
        if (kind == 0) VX_HalfRGBARaster(&src.r, &dst.r);
        benchmark::DoNotOptimize(dst.r.data);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * side * side);
}

void VX_LinShearZoom_512to1024(benchmark::State& s) { RunLin(s, 512, 1024, 0, false); }
void VX_LinShearZoom_512to1024_Scalar(benchmark::State& s) { RunLin(s, 512, 1024, 0, true); }
void VX_LinShearZoom_512to700_Rot30(benchmark::State& s) { RunLin(s, 512, 700, 30, false); }
void VX_LinShearZoom_512to700_Rot30_Scalar(benchmark::State& s) { RunLin(s, 512, 700, 30, true); }
void VX_LinRGBAShearZoom_1024_Rot30(benchmark::State& s) { RunRGBA(s, 4, false); }
void VX_LinRGBAShearZoom_1024_Rot30_Scalar(benchmark::State& s) { RunRGBA(s, 4, true); }
void VX_LinRGBA2RGBShearZoom_1024_Rot30(benchmark::State& s) { RunRGBA(s, 3, false); }
void VX_LinRGBA2RGBShearZoom_1024_Rot30_Scalar(benchmark::State& s) { RunRGBA(s, 3, true); }
void VX_HalfRGBARaster_2048to1024(benchmark::State& s) { RunRGBA(s, 0, false); }
void VX_HalfRGBARaster_2048to1024_Scalar(benchmark::State& s) { RunRGBA(s, 0, true); }
void VX_HalfRGBARaster_1024to512(benchmark::State& s) { RunRGBA(s, 0, false, 512); }
void VX_HalfRGBARaster_1024to512_Scalar(benchmark::State& s) { RunRGBA(s, 0, true, 512); }

}  // namespace

BENCHMARK(VX_LinShearZoom_512to1024)->Apply(VX_BenchConfigure);
BENCHMARK(VX_LinShearZoom_512to1024_Scalar)->Apply(VX_BenchConfigure);
BENCHMARK(VX_LinShearZoom_512to700_Rot30)->Apply(VX_BenchConfigure);
BENCHMARK(VX_LinShearZoom_512to700_Rot30_Scalar)->Apply(VX_BenchConfigure);
BENCHMARK(VX_LinRGBAShearZoom_1024_Rot30)->Apply(VX_BenchConfigure);
BENCHMARK(VX_LinRGBAShearZoom_1024_Rot30_Scalar)->Apply(VX_BenchConfigure);
BENCHMARK(VX_LinRGBA2RGBShearZoom_1024_Rot30)->Apply(VX_BenchConfigure);
BENCHMARK(VX_LinRGBA2RGBShearZoom_1024_Rot30_Scalar)->Apply(VX_BenchConfigure);
BENCHMARK(VX_HalfRGBARaster_2048to1024)->Apply(VX_BenchConfigure);
BENCHMARK(VX_HalfRGBARaster_2048to1024_Scalar)->Apply(VX_BenchConfigure);
BENCHMARK(VX_HalfRGBARaster_1024to512)->Apply(VX_BenchConfigure);
BENCHMARK(VX_HalfRGBARaster_1024to512_Scalar)->Apply(VX_BenchConfigure);
