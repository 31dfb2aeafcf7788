#include "VX_BenchData.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace {

constexpr double kPi = 3.14159265358979323846;

// Hounsfield-like values of the tissues.
constexpr int kAir = -1000, kFat = -90, kSoft = 45, kLung = -850;
constexpr int kContrast = 320, kVessel = 280, kMarrow = 250, kCortex = 1100, kDisc = 80;
constexpr int kNoise = 25;  // half-width of the noise, added as two uniform halves

struct Rng {
    uint32_t s;
    uint32_t Next()
    {
        s ^= s << 13;
        s ^= s >> 17;
        s ^= s << 5;
        return s;
    }
    int Uniform(int half) { return (int)(Next() % (uint32_t)(2 * half + 1)) - half; }
};

double Sq(double a) { return a * a; }

// The tissue at point (x, y, z) mm, before noise.
int Tissue(double x, double y, double z)
{
    // Body: an elliptic cylinder with a fat layer under the skin.
    double body = Sq((x - 179.2) / 165.0) + Sq((y - 190.0) / 125.0);
    if (body > 1.0) return kAir;
    if (body > 0.83) return kFat;

    // Spine: a cylinder of marrow in a 2 mm cortex, discs every 30 mm.
    double rs = std::sqrt(Sq(x - 179.2) + Sq(y - 262.0));
    if (rs < 18.0) {
        if (std::fmod(z, 30.0) < 5.0) return kDisc;
        return rs > 16.0 ? kCortex : kMarrow;
    }
    // Aorta: a contrast tube winding slowly along z.
    if (Sq(x - 179.2 - 10.0 * std::sin(z / 40.0)) + Sq(y - 205.0) < Sq(13.0)) return kContrast;
    // An oblique vessel from (120, 140, 0) along (0.5, 0.3, 0.8).
    {
        double d[3] = {0.5, 0.3, 0.8};
        double len = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
        double r[3] = {x - 120.0, y - 140.0, z};
        double t = (r[0] * d[0] + r[1] * d[1] + r[2] * d[2]) / len;
        double p2 = r[0] * r[0] + r[1] * r[1] + r[2] * r[2] - t * t;
        if (p2 < Sq(4.0)) return kVessel;
    }
    // Lungs in the upper half.
    for (double cx : {112.0, 246.0})
        if (Sq((x - cx) / 48.0) + Sq((y - 175.0) / 62.0) + Sq((z - 200.0) / 95.0) < 1.0) return kLung;
    return kSoft;
}

VX_BenchVolume* Build()
{
    auto* bv = new VX_BenchVolume;
    VX_PhysBox pb((float)(kBenchX * kBenchSpacing[0]), (float)(kBenchY * kBenchSpacing[1]),
                  (float)(kBenchZ * kBenchSpacing[2]));
    bv->box = VX_Box(pb, kBenchX, kBenchY, kBenchZ);
    bv->vol = new VX_VolData(&bv->box);
    bv->vol->Allocate();

    int lo = 32767, hi = -32768;
#pragma omp parallel for schedule(dynamic, 4) reduction(min : lo) reduction(max : hi)
    for (int z = 0; z < kBenchZ; ++z) {
        Rng rng{0x9E3779B9u ^ (uint32_t)(z * 2654435761u) ^ 1u};
        short* s = bv->vol->slices[z];
        double pz = (z + 0.5) * kBenchSpacing[2];
        for (int y = 0; y < kBenchY; ++y) {
            double py = (y + 0.5) * kBenchSpacing[1];
            for (int x = 0; x < kBenchX; ++x) {
                double px = (x + 0.5) * kBenchSpacing[0];
                int v = Tissue(px, py, pz) + rng.Uniform(kNoise / 2) + rng.Uniform(kNoise / 2);
                v = std::max(-1024, std::min(3071, v));
                s[x + y * kBenchX] = (short)v;
                lo = std::min(lo, v);
                hi = std::max(hi, v);
            }
        }
    }
    bv->minValue = lo;
    bv->maxValue = hi;
    bv->vol->SetMinPixelValue(lo);
    bv->vol->SetMaxPixelValue(hi);

#ifdef VX_BENCH_WITH_VTK
    size_t slice = (size_t)kBenchX * kBenchY;
    bv->contiguous.resize(slice * kBenchZ);
    for (int z = 0; z < kBenchZ; ++z)
        std::memcpy(bv->contiguous.data() + slice * z, bv->vol->slices[z], slice * sizeof(short));
#endif
    return bv;
}

VX_BenchPlane MakePlane(double ax, double ay)
{
    // Rotate the unit axes by ax about x, then by ay about y.
    double cx = std::cos(ax), sx = std::sin(ax), cy = std::cos(ay), sy = std::sin(ay);
    auto rot = [&](double const* e, double* o) {
        double a[3] = {e[0], e[1] * cx - e[2] * sx, e[1] * sx + e[2] * cx};
        o[0] = a[0] * cy + a[2] * sy;
        o[1] = a[1];
        o[2] = -a[0] * sy + a[2] * cy;
    };
    double ex[3] = {1, 0, 0}, ey[3] = {0, 1, 0}, ez[3] = {0, 0, 1};
    VX_BenchPlane p;
    rot(ex, p.u);
    rot(ey, p.v);
    rot(ez, p.n);
    int const dims[3] = {kBenchX, kBenchY, kBenchZ};
    for (int i = 0; i < 3; ++i) p.center[i] = 0.5 * kBenchSpacing[i] * dims[i];
    return p;
}

}  // namespace

VX_BenchVolume& VX_GetBenchVolume()
{
    static VX_BenchVolume* s_vol = Build();
    return *s_vol;
}

VX_BenchPlane VX_AxialPlane() { return MakePlane(0.0, 0.0); }

VX_BenchPlane VX_ObliquePlane() { return MakePlane(25.0 * kPi / 180.0, 35.0 * kPi / 180.0); }

VX_Mat VX_BenchPlaneTrans(VX_BenchPlane const& p)
{
    float r0[3] = {(float)p.u[0], (float)p.v[0], (float)p.n[0]};
    float r1[3] = {(float)p.u[1], (float)p.v[1], (float)p.n[1]};
    float r2[3] = {(float)p.u[2], (float)p.v[2], (float)p.n[2]};
    float toOrigin[3] = {-(float)p.center[0], -(float)p.center[1], -(float)p.center[2]};
    float toPicture[3] = {(float)(kBenchW * kBenchMMPP * 0.5), (float)(kBenchH * kBenchMMPP * 0.5), 0.f};
    return VX_TransMat(toOrigin) * VX_Mat(r0, r1, r2, nullptr) * VX_TransMat(toPicture);
}

double VX_SlabStepMM(VX_BenchPlane const& p)
{
    double c = 0;
    for (int i = 0; i < 3; ++i) c = std::max(c, std::fabs(p.n[i]) / kBenchSpacing[i]);
    return 1.0 / c;
}

int VX_SlabSamples(VX_BenchPlane const& p, double thicknessMM)
{
    return 2 * (int)(thicknessMM * 0.5 / VX_SlabStepMM(p)) + 1;
}

double VX_BenchMean(short const* p, int n)
{
    double s = 0;
    for (int i = 0; i < n; ++i) s += p[i];
    return n > 0 ? s / n : 0.0;
}
