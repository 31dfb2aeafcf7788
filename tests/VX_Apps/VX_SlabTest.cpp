#include <gtest/gtest.h>
#include <omp.h>

#include <random>
#include <vector>

#include "VX_Apps/VX_MPR.h"
#include "VX_MPRReference.h"

namespace {

constexpr short kFill = -2000;
constexpr int kOne = 262144;  // one voxel in 18-bit fixed point
constexpr float kPi2 = 1.5707964f;

enum Mode { kAvg, kMax, kMin };
using Kernel = void (VX_MPR::*)(int, int, short*, int, int, int, int, int, int, int, int, int);

// A line of rays for the line kernels: n pixels of depth samples.
struct Ray {
    int n, depth, p[3], s[3], d[3];
};

class VX_SlabTest : public testing::Test, public vxref::Rig {
protected:
    std::mt19937 rng{4242};
    VX_Box box = vxref::MakeBox(14, 13, 12, 1.0f, 0.9f, 1.1f);
    std::unique_ptr<VX_VolData> vol;

    void SetUp() override
    {
        vol = vxref::RandomVolume(box, rng);
        Use(*vol, kFill);
    }
    void SetMode(int m)
    {
        mpr.slabMIP = m == kMax;
        mpr.slabMin = m == kMin;
    }
    // An oblique slab whose normal lies within about 25 degrees of volume axis
    // `axis`, pointing either way, turned freely in its plane.
    void PlaceSlab(int axis, float thickness)
    {
        std::uniform_real_distribution<float> tilt(-0.3f, 0.3f), turn(-3.1f, 3.1f), sp(0.5f, 1.0f), shift(-1.5f, 1.5f);
        float side = rng() % 2 ? 1.0f : -1.0f;
        VX_Mat base = axis == 0 ? VX_RotMat(side * kPi2, 1)
                    : axis == 1 ? VX_RotMat(side * kPi2, 0)
                                : VX_RotMat(side > 0 ? 0.0f : 2 * kPi2, 0);
        VX_Mat rot = base * VX_RotMat(tilt(rng), 0) * VX_RotMat(tilt(rng), 1) * VX_RotMat(turn(rng), 2);
        vxref::PlaceImage(mpr, rot, 20, 18, sp(rng), VX_3Vec(shift(rng), shift(rng), shift(rng), 0));
        mpr.slabThickness = thickness;
    }
    // Near the centre of dims; steps up to `step` voxels per sample and `pix` per
    // pixel, except axis m, when given, which steps one voxel either way.
    Ray MakeRay(int const* dims, float step, float pix, int m = -1)
    {
        std::uniform_real_distribution<float> u(-1, 1);
        Ray r;
        r.n = 1 + rng() % 6;
        r.depth = 1 + rng() % 6;
        for (int a = 0; a < 3; ++a) {
            r.p[a] = vxref::Fix(dims[a] * 0.5f - 0.5f + u(rng) * 3.0f);
            r.s[a] = a == m ? (rng() % 2 ? kOne : -kOne) : vxref::Fix(u(rng) * step);
            r.d[a] = vxref::Fix(u(rng) * pix);
        }
        return r;
    }
    // The kernel on the scalar paths, then on the vector paths, which must agree.
    std::vector<short> RunLine(Kernel k, Ray const& r)
    {
        std::vector<short> o[2];
        for (int path = 0; path < 2; ++path) {
            VX_SetCPUIDMask(path ? -1 : 0);
            o[path].assign(r.n + 1, 777);
            (mpr.*k)(r.n, r.depth, o[path].data(), r.p[0], r.p[1], r.p[2], r.s[0], r.s[1], r.s[2], r.d[0], r.d[1],
                     r.d[2]);
            EXPECT_EQ(o[path].back(), 777) << "written past n";
            o[path].pop_back();
        }
        vxref::ExpectSamePaths(o[1], o[0]);
        return o[1];
    }
};

// one(v, p) for each pixel of the line; false when a sample leaves the volume.
template <class F>
bool Expected(VX_VolData const& vol, Ray const& r, F one, std::vector<short>* e)
{
    vxref::Vol v(vol);
    e->assign(r.n, 0);
    for (int i = 0; i < r.n; ++i) {
        int p[3];
        for (int a = 0; a < 3; ++a) p[a] = vxref::Mad(r.p[a], i, r.d[a]);
        (*e)[i] = (short)one(v, p);
    }
    return v.inRange;
}

// Random oblique slabs in every mode and near every axis: the step vector is the
// stated one, every pixel inside the slab's bounds equals the rule on samples
// that all lie inside the volume, and every other pixel is the fill.
TEST_F(VX_SlabTest, SlabsMatchTheRule)
{
    std::uniform_real_distribution<float> thick(0.8f, 7.0f);
    long compared = 0;
    int rayMajor[2] = {0, 0};
    for (int mode = kAvg; mode <= kMin; ++mode)
        for (int axis = 0; axis < 3; ++axis)
            for (int trial = 0; trial < 6; ++trial) {
                SCOPED_TRACE(testing::Message() << "mode " << mode << " axis " << axis << " trial " << trial);
                SetMode(mode);
                PlaceSlab(axis, thick(rng));
                Calc();
                vxref::ZVec z = vxref::CalcZVec(mpr);
                VX_3Vec zl;
                ASSERT_EQ(mpr.CalcZVec(&zl), z.n);
                ASSERT_EQ(mpr.slabAxis, axis);
                ASSERT_EQ(z.axis, axis);
                EXPECT_TRUE(zl.x == z.v.x && zl.y == z.v.y && zl.z == z.v.z);
                int depth = 2 * z.n + 1;
                EXPECT_EQ(mpr.avgScale, 1.0f / (float)depth);

                std::vector<short> b(2 * H);
                mpr.PrepareCBounds(b.data(), mpr.slabThickness * 0.5f, true);
                mpr.PrepareCBounds(b.data(), -mpr.slabThickness * 0.5f, false);
                EXPECT_EQ(mpr.boundingRect, VX_MPR::computeBoundingRect(W, H, b.data()));
                vxref::Frame f = vxref::MakeFrame(mpr, true);
                ASSERT_TRUE(f.ok);
                int s[3] = {vxref::Fix(z.v.x), vxref::Fix(z.v.y), vxref::Fix(z.v.z)};
                for (int a = 0; a < 3; ++a) f.start[a] = vxref::Mad(f.start[a], -z.n, s[a]);
                bool rays = vxref::RayMajor(s[0]);
                rayMajor[rays]++;
                long n = vxref::CompareImage(*this, *vol, f, b.data(), kFill, [&](vxref::Vol& v, int const* p) {
                    if (mode == kAvg) return vxref::AvgRay(v, axis, 1.0f / depth, depth, p, s);
                    return (int)vxref::Stored(mode == kMax, rays, vxref::ExtremeRay(v, mode == kMax, depth, p, s));
                });
                ASSERT_GE(n, 0);
                compared += n;
            }
    EXPECT_GT(compared, 3000);
    EXPECT_GT(rayMajor[0], 0);
    EXPECT_GT(rayMajor[1], 0);
}

TEST_F(VX_SlabTest, MaximumWinsOverMinimum)
{
    PlaceSlab(2, 4.0f);
    SetMode(kMax);
    Calc();
    std::vector<short> mx = out;
    mpr.slabMin = true;
    Calc();
    EXPECT_EQ(out, mx);
    SetMode(kMin);
    Calc();
    EXPECT_NE(out, mx);
}

TEST_F(VX_SlabTest, UniformVolume)
{
    auto uni = vxref::MakeVolume(box, [](int, int, int) { return -1234; });
    Use(*uni, kFill);
    for (int axis = 0; axis < 3; ++axis) {
        PlaceSlab(axis, 5.0f);
        for (int mode = kAvg; mode <= kMin; ++mode) {
            SetMode(mode);
            Calc();
            int inside = 0;
            for (short o : out) {
                if (o == kFill) continue;
                ++inside;
                if (mode == kAvg)
                    ASSERT_TRUE(o == -1234 || o == -1233) << o;  // truncation steps toward zero
                else
                    ASSERT_EQ(o, -1234);
            }
            EXPECT_GT(inside, 50) << "axis " << axis;
        }
    }
}

// A slab thinner than one step is one sample at the plane: for slabAxis 2 the
// average's two bilinears and hoisted lerp are the trilinear's own steps, and
// the plane-major maximum is the same sample from its 0x8080 start.
TEST_F(VX_SlabTest, ThinSlabIsOneSample)
{
    auto half = vxref::MakeVolume(box, [](int x, int y, int z) { return x < 7 ? -32768 : 100 * y + z; });
    Use(*half, kFill);
    vxref::PlaceImage(mpr, VX_RotMat(0.3f, 2), 20, 18, 0.6f, VX_3Vec());
    Calc();
    std::vector<short> single = out;
    mpr.slabThickness = 0.5f;
    Calc();
    EXPECT_EQ(mpr.avgScale, 1.0f);
    EXPECT_EQ(mpr.slabAxis, 2);
    EXPECT_EQ(out, single);
    SetMode(kMax);
    Calc();
    int clamped = 0;
    for (size_t i = 0; i < out.size(); ++i) {
        short expect = single[i] == kFill ? kFill : std::max<short>(single[i], -32640);
        clamped += expect != single[i];
        ASSERT_EQ(out[i], expect) << i;
    }
    EXPECT_GT(clamped, 0);
}

// The dispatch table seen through the start values: voxels of -32700 stay
// below the plane-major start 0x8080 (-32640) but not the ray-major -88888.
TEST_F(VX_SlabTest, DispatchThresholds)
{
    for (int mode = kMax; mode <= kMin; ++mode) {
        bool isMax = mode == kMax;
        short voxel = isMax ? -32700 : 32700, plane = isMax ? -32640 : 32639, ray = isMax ? -23352 : 23352;
        auto uni = vxref::MakeVolume(vxref::MakeBox(8, 8, 8), [&](int, int, int) { return voxel; });
        Use(*uni, kFill);
        auto line = [&](int depth, int sx, int dy, int dz) {
            Ray r = {3, depth, {2 * kOne, 2 * kOne + 77, 2 * kOne + 99}, {sx, 0, 0}, {kOne, dy, dz}};
            std::vector<short> o = RunLine(isMax ? &VX_MPR::CalcLineMIP : &VX_MPR::CalcLineMin, r);
            EXPECT_TRUE(o[0] == o[1] && o[1] == o[2]);
            return o[0];
        };
        EXPECT_EQ(line(2, 65536, 0, 0), plane);  // exactly 65536: plane-major (LinesXY)
        EXPECT_EQ(line(2, -65536, 0, 0), plane);
        EXPECT_EQ(line(2, 65537, 0, 0), voxel);  // ray-major
        EXPECT_EQ(line(2, -65537, 0, 0), voxel);
        EXPECT_EQ(line(2, 0, 5, 0), plane);  // LinesXZ
        EXPECT_EQ(line(2, 0, 5, 5), plane);  // Lines
        EXPECT_EQ(line(0, 65537, 0, 0), ray);  // depth 0 keeps the narrowed start
        EXPECT_EQ(line(0, 0, 0, 0), plane);
        Ray none = {0, 3, {kOne, kOne, kOne}, {0, 0, 0}, {kOne, 0, 0}};
        RunLine(&VX_MPR::CalcLineMIP, none);
        RunLine(&VX_MPR::CalcLineMin, none);
    }
}

TEST_F(VX_SlabTest, ExtremeLineKernelsMatchTheRule)
{
    int checked = 0;
    for (int trial = 0; trial < 400; ++trial) {
        bool isMax = trial % 2 == 0;
        Ray r = MakeRay(box.dims, 0.6f, 0.7f);
        if (trial % 6 < 2) r.d[1] = 0;   // the LinesXY case
        if (trial % 6 == 2) r.d[2] = 0;  // the LinesXZ case
        std::vector<short> e;
        auto ext = [&](vxref::Vol& v, int const* p) { return vxref::ExtremeRay(v, isMax, r.depth, p, r.s); };
        if (!Expected(*vol, r, ext, &e)) continue;
        ++checked;
        auto stored = [&](bool rays) {
            std::vector<short> x(e);
            for (short& t : x) t = vxref::Stored(isMax, rays, t);
            return x;
        };
        SCOPED_TRACE(testing::Message() << "trial " << trial);
        bool rays = vxref::RayMajor(r.s[0]);
        EXPECT_EQ(RunLine(isMax ? &VX_MPR::CalcLineMIP : &VX_MPR::CalcLineMin, r), stored(rays));
        EXPECT_EQ(RunLine(isMax ? &VX_MPR::CalcLineMIPRays : &VX_MPR::CalcLineMinRays, r), stored(true));
        EXPECT_EQ(RunLine(isMax ? &VX_MPR::CalcLineMIPLines : &VX_MPR::CalcLineMinLines, r), stored(false));
        SetMode(isMax ? kMax : kMin);
        EXPECT_EQ(RunLine(&VX_MPR::CalcLine, r), stored(rays));
        SetMode(kAvg);
        std::vector<short> o(r.n, 777);
        int const *p = r.p, *s = r.s;
        if (r.d[1] == 0) {
            (mpr.*(isMax ? &VX_MPR::CalcLineMIPLinesXY : &VX_MPR::CalcLineMinLinesXY))(
                r.n, r.depth, o.data(), p[0], p[1], p[2], s[0], s[1], s[2], r.d[0], r.d[2]);
            EXPECT_EQ(o, stored(false));
        }
        if (r.d[2] == 0) {
            (mpr.*(isMax ? &VX_MPR::CalcLineMIPLinesXZ : &VX_MPR::CalcLineMinLinesXZ))(
                r.n, r.depth, o.data(), p[0], p[1], p[2], s[0], s[1], s[2], r.d[0], r.d[1]);
            EXPECT_EQ(o, stored(false));
        }
    }
    EXPECT_GT(checked, 200);
}

TEST_F(VX_SlabTest, AverageLineKernelsMatchTheRule)
{
    const Kernel own[3][2] = {{&VX_MPR::CalcLineX, &VX_MPR::CalcLineX},
                              {&VX_MPR::CalcLineY, &VX_MPR::CalcLineYp4},
                              {&VX_MPR::CalcLineZ, &VX_MPR::CalcLineZMIP}};
    int checked = 0;
    for (int trial = 0; trial < 300; ++trial) {
        int m = trial % 3;
        Ray r = MakeRay(box.dims, 0.9f, 0.7f, m);
        float scale = 1.0f / r.depth;
        std::vector<short> e;
        auto avg = [&](vxref::Vol& v, int const* p) { return vxref::AvgRay(v, m, scale, r.depth, p, r.s); };
        if (!Expected(*vol, r, avg, &e)) continue;
        ++checked;
        mpr.slabAxis = m;
        mpr.avgScale = scale;
        for (Kernel k : {&VX_MPR::CalcLine, own[m][0], own[m][1]})
            ASSERT_EQ(RunLine(k, r), e) << "trial " << trial << " axis " << m;
    }
    EXPECT_GT(checked, 150);
}

TEST_F(VX_SlabTest, SnappedKernelsOnHandCases)
{
    auto Ramp = [](int x, int y, int z) { return (short)(x + 20 * y + 400 * z - 3000); };
    auto ramp = vxref::MakeVolume(box, Ramp);
    Use(*ramp, kFill);
    auto run = [&](Kernel k, int depth, int x, int y, int z, int sx, int sy, int sz) {
        return RunLine(k, Ray{1, depth, {x, y, z}, {sx, sy, sz}, {0, 0, 0}})[0];
    };
    // Fraction 0 on the snapped axis: the planes are b, b + 1, ... or b, b - 1, ...
    EXPECT_EQ(run(&VX_MPR::CalcLineMIPRaysZ, 3, 3 * kOne, 4 * kOne, 2 * kOne, 0, 0, kOne), Ramp(3, 4, 4));
    EXPECT_EQ(run(&VX_MPR::CalcLineMinRaysZ, 3, 3 * kOne, 4 * kOne, 2 * kOne, 0, 0, kOne), Ramp(3, 4, 2));
    EXPECT_EQ(run(&VX_MPR::CalcLineMinRaysZ, 3, 3 * kOne, 4 * kOne, 5 * kOne, 0, 0, -kOne), Ramp(3, 4, 3));
    EXPECT_EQ(run(&VX_MPR::CalcLineMIPRaysX, 3, 1 * kOne, 2 * kOne, 1 * kOne, kOne, 0, 0), Ramp(3, 2, 1));
    EXPECT_EQ(run(&VX_MPR::CalcLineMinRaysX, 3, 5 * kOne, 2 * kOne, 1 * kOne, -kOne, 0, 0), Ramp(3, 2, 1));
    EXPECT_EQ(run(&VX_MPR::CalcLineMIPRaysY, 2, 2 * kOne, 6 * kOne, 3 * kOne, 0, -kOne, 0), Ramp(2, 6, 3));
    EXPECT_EQ(run(&VX_MPR::CalcLineMinRaysY, 2, 2 * kOne, 6 * kOne, 3 * kOne, 0, -kOne, 0), Ramp(2, 5, 3));
    // Fraction one half going up: g = 1024 ^ 2047 = 1023, and b = (c + 1023 * 128
    // + 63) >> 18 stays on plane 2 unless the 7 bits below the fraction reach 65.
    int half = 2 * kOne + kOne / 2;
    EXPECT_EQ(run(&VX_MPR::CalcLineMinRaysZ, 2, 3 * kOne, 4 * kOne, half, 0, 0, kOne), Ramp(3, 4, 2));
    EXPECT_EQ(run(&VX_MPR::CalcLineMinRaysZ, 2, 3 * kOne, 4 * kOne, half + 65, 0, 0, kOne), Ramp(3, 4, 3));
    // Going down, g = f: the plane at or below the start.
    EXPECT_EQ(run(&VX_MPR::CalcLineMIPRaysZ, 2, 3 * kOne, 4 * kOne, half + 2 * kOne, 0, 0, -kOne), Ramp(3, 4, 4));
    EXPECT_EQ(run(&VX_MPR::CalcLineMinRaysZ, 2, 3 * kOne, 4 * kOne, 4 * kOne + kOne / 4, 0, 0, -kOne), Ramp(3, 4, 3));
    // depth 0 stores the narrowed start value.
    EXPECT_EQ(run(&VX_MPR::CalcLineMIPRaysZ, 0, kOne, kOne, kOne, 0, 0, kOne), -23352);
    EXPECT_EQ(run(&VX_MPR::CalcLineMinRaysZ, 0, kOne, kOne, kOne, 0, 0, kOne), 23352);
}

TEST_F(VX_SlabTest, SnappedKernelsMatchTheRule)
{
    const Kernel kernels[2][3] = {
        {&VX_MPR::CalcLineMinRaysX, &VX_MPR::CalcLineMinRaysY, &VX_MPR::CalcLineMinRaysZ},
        {&VX_MPR::CalcLineMIPRaysX, &VX_MPR::CalcLineMIPRaysY, &VX_MPR::CalcLineMIPRaysZ}};
    // Wide enough that a plane one off either way is still inside.
    VX_Box big = vxref::MakeBox(28, 28, 28);
    auto wide = vxref::RandomVolume(big, rng);
    Use(*wide, kFill);
    int checked = 0;
    for (int trial = 0; trial < 300; ++trial) {
        int m = trial % 3;
        bool isMax = (trial / 3) % 2;
        Ray r = MakeRay(big.dims, 0.9f, 0.4f, m);
        std::vector<short> e;
        auto snap = [&](vxref::Vol& v, int const* p) { return vxref::SnappedRay(v, m, isMax, r.depth, p, r.s); };
        if (!Expected(*wide, r, snap, &e)) continue;
        ++checked;
        ASSERT_EQ(RunLine(kernels[isMax][m], r), e) << "trial " << trial << " axis " << m << " max " << isMax;
    }
    EXPECT_GT(checked, 150);
}

// Clears the process-wide interrupt flag however the test ends.
struct InterruptGuard {
    VX_Multithread& mt;
    explicit InterruptGuard(VX_Multithread& m) : mt(m) { mt.SetInterruptRequest(true); }
    ~InterruptGuard() { mt.SetInterruptRequest(false); }
};

TEST_F(VX_SlabTest, InterruptLeavesTheFill)
{
    PlaceSlab(1, 4.0f);
    Calc();
    std::vector<short> full = out;
    VX_Rect rect = mpr.boundingRect;
    ASSERT_GT(rect.w * rect.h, 50);
    {
        InterruptGuard guard(mpr.multithread);
        Calc();
        EXPECT_EQ(out, std::vector<short>(W * H, kFill));
        EXPECT_EQ(mpr.boundingRect, rect);
        mpr.noInterrupt = true;
        Calc();
        EXPECT_EQ(out, full);
    }
    mpr.noInterrupt = false;
    Calc();
    EXPECT_EQ(out, full);
}

TEST_F(VX_SlabTest, ThreadCountDoesNotChangeTheSlab)
{
    int saved = omp_get_max_threads();
    for (int mode = kAvg; mode <= kMin; ++mode) {
        SetMode(mode);
        PlaceSlab(mode, 6.0f);
        omp_set_num_threads(1);
        Calc();
        std::vector<short> one = out;
        omp_set_num_threads(4);
        Calc();
        EXPECT_EQ(out, one) << "mode " << mode;
    }
    omp_set_num_threads(saved);
}

}  // namespace
